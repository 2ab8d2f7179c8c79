// qenconfig export [--telemetry] [-o FILE]: the exported user configuration
// (or its telemetry form) of the host.
#include <iostream>

#include "Commands.h"
#include "Progress.h"
#include "configmanager/extract.h"

namespace {

using namespace QenConfigManager;

struct ExportOptions {
  bool telemetry = false;
  std::string file;
};

int Export(const ExportOptions& options) {
  // The export runs the extract plugins and takes no task handle: a stop
  // takes effect once it returns.
  qenconfig::CatchInterrupts();
  qenconfig::RequireStore();
  const std::string text = options.telemetry ? ExportDocumentTelemetry() : ExportDocument();
  qenconfig::ExitIfInterrupted();
  if (!options.file.empty()) {
    // The file keeps the exported text as it is, normalised.
    qenconfig::WriteUserFile(options.file, text + "\n");
    qenconfig::PrintDone("Exported to " + options.file + ".");
    return qenconfig::kOk;
  }
  rapidjson::Document doc;
  ParseDocument(text, doc);
  qenconfig::PrintJson(doc);
  return qenconfig::kOk;
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* cmd = app.add_subcommand("export", "Print the host's exported user configuration");
  auto options = std::make_shared<ExportOptions>();
  cmd->add_flag("--telemetry", options->telemetry,
                "The telemetry form: allow-listed keys only, sensitive values masked");
  cmd->add_option("-o,--file", options->file,
                  "Write the normalised document to FILE (mode 0600) instead of printing it");
  cmd->footer("The document is JSON whatever the --output format.");
  cmd->callback([options] { qenconfig::Exit(qenconfig::Run([&] { return Export(*options); })); });
});

}  // namespace

// qenconfig validate FILE; qenconfig extract current|desired.
#include <iostream>

#include "Commands.h"
#include "Progress.h"
#include "configmanager/extract.h"
#include "configmanager/validate.h"

namespace {

using namespace QenConfigManager;

int ValidateFile(const std::string& path) {
  rapidjson::Document doc;
  ParseDocument(qenconfig::ReadUserFile(path), doc);
  ValidationResult result;
  auto task = qenconfig::MakeProgressTask("validating");
  auto schema = GenerateHostDocumentSchema(doc);
  if (auto* errors = std::get_if<std::vector<ValidationErrorInfo>>(&schema)) {
    result.errors = std::move(*errors);
  } else {
    Validate(doc, std::get<rapidjson::Document>(schema), "", result, true, task);
  }
  qenconfig::ExitIfInterrupted();
  std::cout << result.Serialize() << "\n";
  return result.errors.empty() && result.pluginError.IsEmpty() ? qenconfig::kOk
                                                               : qenconfig::kFailure;
}

int Extract(const std::string& which) {
  // Extraction takes no task handle: a stop takes effect once it returns.
  qenconfig::CatchInterrupts();
  std::shared_ptr<QenConfigStore::JsonDoc> doc =
      which == "current" ? ExtractCurrentConfiguration() : ExtractDesiredConfiguration();
  qenconfig::ExitIfInterrupted();
  std::cout << JsonToString(doc->GetDocument()) << "\n";
  return qenconfig::kOk;
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* validate = app.add_subcommand("validate", "Validate a desired configuration document");
  static std::string storage;
  std::string* file = &storage;
  validate->add_option("FILE", *file, "Desired document (JSON)")->required();
  validate->callback([file] { qenconfig::Exit(qenconfig::Run([&] { return ValidateFile(*file); })); });

  auto* extract = app.add_subcommand("extract", "Print the host's configuration document");
  static std::string whichStorage;
  std::string* which = &whichStorage;
  extract->add_option("WHAT", *which, "current or desired")
      ->required()
      ->check(CLI::IsMember({"current", "desired"}));
  extract->callback([which] { qenconfig::Exit(qenconfig::Run([&] { return Extract(*which); })); });
});

}  // namespace

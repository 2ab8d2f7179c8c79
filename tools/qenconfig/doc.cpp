// qenconfig doc: configuration document utilities.
#include <iostream>

#include "Commands.h"
#include "configmanager/common.h"

namespace {

qenconfig::Registrar reg([](CLI::App& app) {
  auto* doc = app.add_subcommand("doc", "Configuration documents");
  doc->require_subcommand(1);

  auto* fmt = doc->add_subcommand("fmt", "Print a JSON document in the pretty layout (three-space indent)");
  fmt->footer("The document is JSON whatever the --output format.");
  auto file = std::make_shared<std::string>();
  fmt->add_option("FILE", *file, "JSON file (a path on this machine)")->required();
  fmt->callback([file] {
    qenconfig::Exit(qenconfig::Run([&] {
      rapidjson::Document document;
      qenconfig::ReadUserDocument(*file, document);
      qenconfig::PrintJson(document);
      return qenconfig::kOk;
    }));
  });
});

}  // namespace

// qenconfig smartnic get | set FILE: the SmartNIC's configuration.
#include <iostream>

#include "Commands.h"
#include "configmanager/extract.h"

namespace {

using namespace QenConfigManager;

qenconfig::Registrar reg([](CLI::App& app) {
  auto* smartnic = app.add_subcommand("smartnic", "The SmartNIC's configuration");
  smartnic->require_subcommand(1);

  auto* get = smartnic->add_subcommand("get", "Print the SmartNIC's current configuration");
  get->footer("The document is JSON whatever the --output format.");
  get->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      rapidjson::Document doc;
      ParseDocument(ExtractSmartnicConfiguration(), doc);
      qenconfig::PrintJson(doc);
      return qenconfig::kOk;
    }));
  });

  auto* set = smartnic->add_subcommand("set", "Stage a desired SmartNIC configuration for the next boot");
  auto file = std::make_shared<std::string>();
  set->add_option("FILE", *file, "SmartNIC configuration document (JSON)")->required();
  set->callback([file] {
    qenconfig::Exit(qenconfig::Run([&] {
      SetSmartnicConfiguration(qenconfig::ReadUserFile(*file));
      qenconfig::PrintDone("SmartNIC configuration staged for the next boot.");
      return qenconfig::kOk;
    }));
  });
});

}  // namespace

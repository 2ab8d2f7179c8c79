// qenconfig store: seeding and inspecting the host's configuration store.
//   store load FILE   replace the store's content by a store description
//   store dump        print the store's content as a store description
//   store boot        early-boot step: staged desired configuration becomes current
//   store stats       print the store's size statistics
#include <iostream>

#include "Commands.h"
#include "QenConfigStore.h"

namespace {

void PrintPretty(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 3);
  value.Accept(writer);
  std::cout << buffer.GetString() << "\n";
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* store = app.add_subcommand("store", "Seed and inspect the configuration store");
  store->require_subcommand(1);

  auto* load = store->add_subcommand("load", "Replace the store's content by a store description");
  static std::string file;
  load->add_option("FILE", file, "Store description (JSON)")->required();
  load->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      std::string text = qenconfig::ReadUserFile(file);
      rapidjson::Document doc;
      const QenPlatform::JsonParseResult parsed = QenPlatform::ParseJson(text, doc);
      if (!parsed)
        throw QenConfigStore::ConfigStoreException(
            QenConfigStore::STORE_BAD_VALUE,
            ("Store description \"" + file + "\" is not valid JSON: " + parsed.reason).c_str());
      QenConfigStore::LoadStoreDescription(doc);
      return 0;
    }));
  });

  auto* dump = store->add_subcommand("dump", "Print the store's content as a store description");
  dump->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      QenConfigStore::GetDBStore(DBStore::USER, false);  // a missing store is an error, not created
      PrintPretty(QenConfigStore::DumpStoreDescription()->GetDocument());
      return 0;
    }));
  });

  auto* boot = store->add_subcommand(
      "boot", "Early-boot step: make the staged desired configuration the current one");
  boot->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      QenConfigStore::GetDBStore(DBStore::USER, false);
      QenConfigStore::RestoreDesiredConfigAtBoot();
      for (const auto& id : QenConfigStore::GetBootTimeRestoreFailures())
        std::cerr << "not restored: " << id.toString() << "\n";
      return 0;
    }));
  });

  auto* stats = store->add_subcommand(
      "stats", "Print the store's size statistics and its boot mode (1: a document is staged for\n"
               "the next boot, 4: single-key changes are)");
  stats->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      QenConfigStore::GetDBStore(DBStore::USER, false);
      std::cout << "rowCount=" << QenConfigStore::GetConfigRowCount() << "\n"
                << "vitalConfigSize=" << QenConfigStore::GetVitalConfigSize() << "\n"
                << "userConfigSize=" << QenConfigStore::GetUserConfigSize() << "\n"
                << "cachedConfigSize=" << QenConfigStore::GetCachedConfigSize() << "\n"
                << "bootMode=" << QenConfigStore::GetBootMode() << "\n";
      for (const std::string& line : QenConfigStore::GetConfigMetrics()) std::cout << line << "\n";
      return 0;
    }));
  });
});

}  // namespace

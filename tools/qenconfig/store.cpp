// qenconfig store: seeding and inspecting the host's configuration store.
//   store load FILE   replace the store's content by a store description
//   store dump        print the store's content as a store description
//   store boot        early-boot step: staged desired configuration becomes current
//   store stats       print the store's size statistics
#include <iostream>

#include "Commands.h"
#include "JsonValidator.h"
#include "QenConfigStore.h"
#include "QenSchemaStore.h"
#include "configmanager/validate.h"

namespace {

// Every configuration value of the host's sections must have its key's
// schema and satisfy it: extraction reads them later and would fail on them
// then. Nothing is loaded unless all pass; the refusal names the file, the
// value's path in it and what is wrong.
void RequireSchemas(const rapidjson::Value& description, const std::string& file) {
  auto host = description.IsObject() ? description.FindMember("host") : description.MemberEnd();
  if (!description.IsObject() || host == description.MemberEnd() || !host->value.IsObject()) return;
  const auto cache = QenSchemaStore::SchemaStore::GetCache();
  std::vector<std::string> problems;
  for (const char* section : {"defaults", "current", "vital", "cached", "desired"}) {
    auto values = host->value.FindMember(section);
    if (values == host->value.MemberEnd() || !values->value.IsObject()) continue;
    const std::string base = std::string("/host/") + section;
    for (const auto& c : values->value.GetObject()) {
      if (!c.value.IsObject()) continue;  // the loader names shape errors
      for (const auto& g : c.value.GetObject()) {
        if (!g.value.IsObject()) continue;
        for (const auto& k : g.value.GetObject()) {
          const std::string comp = c.name.GetString(), grp = g.name.GetString(), key = k.name.GetString();
          const std::string path = base + "/" + QenPlatform::JsonPointerToken(comp.data(), comp.size()) + "/" +
                                   QenPlatform::JsonPointerToken(grp.data(), grp.size()) + "/" +
                                   QenPlatform::JsonPointerToken(key.data(), key.size());
          auto schema = cache ? cache->GetSchema(comp, grp, key) : nullptr;
          if (!schema) {
            problems.push_back(path + ": no schema for " + comp + "." + grp + "." + key);
            continue;
          }
          if (k.value.IsString() && std::string(k.value.GetString()) == "DELETE_DEFAULT") continue;
          rapidjson::Document errors(rapidjson::kArrayType);
          JsonValidator::Validate(schema->GetSchemaJson(), k.value, errors, QenConfigManager::AUTOCONF_CODE_SET,
                                  path);
          for (const auto& e : errors.GetArray())
            problems.push_back(std::string(e["field"].GetString()) + ": " + e["error"].GetString());
        }
      }
    }
  }
  if (problems.empty()) return;
  std::string message = "Store description \"" + file + "\" was not loaded: " + problems.front();
  if (problems.size() > 1) message += " (and " + std::to_string(problems.size() - 1) + " more)";
  QenConfigStore::ConfigStoreException e(QenConfigStore::STORE_BAD_VALUE, message.c_str());
  for (const std::string& p : problems) e.AddArg(p);
  throw e;
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
        throw qenconfig::UserError(
            QenConfigStore::STORE_BAD_VALUE,
            ("Store description \"" + file + "\" is not valid JSON: " + parsed.reason).c_str());
      RequireSchemas(doc, file);
      QenConfigStore::LoadStoreDescription(doc);
      qenconfig::PrintDone("Store loaded from " + file + ".");
      return 0;
    }));
  });

  auto* dump = store->add_subcommand("dump", "Print the store's content as a store description");
  static bool showSensitive = false;
  dump->add_flag("--show-sensitive", showSensitive, "Print values that a schema marks sensitive in clear");
  dump->footer("The store description is JSON whatever the --output format.");
  dump->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      QenConfigStore::GetDBStore(DBStore::USER, false);  // a missing store is an error, not created
      auto dumped = QenConfigStore::DumpStoreDescription();
      rapidjson::Document& doc = dumped->GetDocument();
      if (!showSensitive) {
        for (const char* scope : {"host", "smartnic"}) {
          for (const char* section : {"defaults", "current", "vital", "cached", "autoconf", "desired"})
            qenconfig::RedactSensitive(doc[scope][section], doc.GetAllocator());
        }
      }
      qenconfig::PrintJson(doc);
      return 0;
    }));
  });

  auto* boot = store->add_subcommand(
      "boot", "Early-boot step: make the staged desired configuration the current one");
  boot->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      QenConfigStore::GetDBStore(DBStore::USER, false);
      QenConfigStore::RestoreDesiredConfigAtBoot();
      const auto failures = QenConfigStore::GetBootTimeRestoreFailures();
      for (const auto& id : failures) std::cerr << "not restored: " << id.toString() << "\n";
      if (failures.empty()) qenconfig::PrintDone("The staged desired configuration is now the current one.");
      return 0;
    }));
  });

  auto* stats = store->add_subcommand(
      "stats", "Print the store's size statistics and its boot mode (1: a document is staged for\n"
               "the next boot, 4: single-key changes are)");
  stats->footer(
      "JSON: {\"rowCount\": int, \"vitalConfigSize\": int, \"userConfigSize\": int, \"cachedConfigSize\": int,\n"
      "\"bootMode\": int, \"metrics\": {NAME: int or string}}.");
  stats->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      QenConfigStore::GetDBStore(DBStore::USER, false);
      if (qenconfig::JsonOutput()) {
        rapidjson::Document out(rapidjson::kObjectType);
        auto& a = out.GetAllocator();
        out.AddMember("rowCount", static_cast<int64_t>(QenConfigStore::GetConfigRowCount()), a);
        out.AddMember("vitalConfigSize", static_cast<int64_t>(QenConfigStore::GetVitalConfigSize()), a);
        out.AddMember("userConfigSize", static_cast<int64_t>(QenConfigStore::GetUserConfigSize()), a);
        out.AddMember("cachedConfigSize", static_cast<int64_t>(QenConfigStore::GetCachedConfigSize()), a);
        out.AddMember("bootMode", static_cast<int64_t>(QenConfigStore::GetBootMode()), a);
        rapidjson::Value metrics(rapidjson::kObjectType);
        for (const std::string& line : QenConfigStore::GetConfigMetrics()) {
          const size_t eq = line.find('=');
          if (eq == std::string::npos) continue;
          const std::string value = line.substr(eq + 1);
          char* end = nullptr;
          const long long number = std::strtoll(value.c_str(), &end, 10);
          rapidjson::Value v;
          if (!value.empty() && *end == '\0') v.SetInt64(number);
          else v.SetString(value, a);
          metrics.AddMember(rapidjson::Value(line.substr(0, eq), a), v, a);
        }
        out.AddMember("metrics", metrics, a);
        qenconfig::PrintJson(out);
        return 0;
      }
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

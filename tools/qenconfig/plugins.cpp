// qenconfig plugins: check manifests, list the plugins of a kind of work.
#include <algorithm>
#include <iostream>
#include <map>

#include "Commands.h"
#include "HostRoot.h"
#include "configmanager/plugin.h"

namespace {

constexpr const char* kModules = "/usr/lib/corvane/configmanager/apply_modules/";
constexpr const char* kSchemas = "/usr/lib/corvane/configmanager/plugin_schemas/";

std::string Objects(const QenConfigManager::ConfigStoreObjectIdList& ids) {
  std::string text;
  for (const auto& id : ids) {
    if (!text.empty()) text += ",";
    text += id.GetComponent() + ":" + id.GetGroup() + ":" + id.GetKey();
  }
  return text.empty() ? "-" : text;
}

// "FILE: what is wrong" for a report element {"file", "validation_errors"}.
std::string ProblemLine(const rapidjson::Value& problem) {
  auto text = [](const rapidjson::Value& v) {
    return v.IsString() ? std::string(v.GetString(), v.GetStringLength()) : QenPlatform::CompactJson(v);
  };
  if (!problem.IsObject() || !problem.HasMember("file") || !problem.HasMember("validation_errors"))
    return text(problem);
  return text(problem["file"]) + ": " + text(problem["validation_errors"]);
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* plugins = app.add_subcommand("plugins", "Plugin manifests");
  plugins->require_subcommand(1);

  auto* check = plugins->add_subcommand(
      "check", "Check every manifest below DIR against its version's schema");
  auto dir = std::make_shared<std::string>();
  auto schemas = std::make_shared<std::string>();
  check->add_option("DIR", *dir, "Manifest directory (a path on this machine; default: the host's)");
  check->add_option("--schemas", *schemas, "Schema directory (default: the host's)");
  check->footer(
      "Text: one line per problem. JSON: the problems, [problem] (empty when every manifest is valid).\n"
      "Exit codes: 0 every manifest is valid, 3 a manifest has problems, 1 the check could not run.");
  check->callback([dir, schemas] {
    qenconfig::Exit(qenconfig::Run([&] {
      const std::string manifests = dir->empty() ? QenPlatform::HostPath(kModules) : *dir;
      const std::string schemaDir = schemas->empty() ? QenPlatform::HostPath(kSchemas) : *schemas;
      rapidjson::Document report(rapidjson::kArrayType);
      ValidateAllPlugins(manifests, schemaDir, report);
      // The host's manifests must also give an apply order: a dependency
      // cycle passes every manifest's schema but fails every apply.
      if (dir->empty() && report.Empty()) {
        for (auto type : {QenConfigManager::PLUGIN_APPLY, QenConfigManager::PLUGIN_APPLY_BOOT}) {
          try {
            QenConfigManager::PluginManager manager(type);
          } catch (const QenConfigStore::ConfigStoreException& e) {
            rapidjson::Value message(("error " + std::to_string(e.GetErrorCode()) + ": " + e.what()).c_str(),
                                     report.GetAllocator());
            AddValidationError(report, manifests, message);
            break;
          }
        }
      }
      if (qenconfig::JsonOutput()) {
        qenconfig::PrintJson(report);
      } else if (report.Empty()) {
        std::cout << "Every manifest below " << manifests << " is valid.\n";
      } else {
        for (const auto& problem : report.GetArray()) std::cout << ProblemLine(problem) << "\n";
      }
      return report.Empty() ? qenconfig::kOk : qenconfig::kNotCompliant;
    }));
  });

  auto* list = plugins->add_subcommand("list", "List the plugins of a kind of work and the apply order");
  auto type = std::make_shared<QenConfigManager::PluginType>(QenConfigManager::PLUGIN_APPLY);
  const std::map<std::string, QenConfigManager::PluginType> kinds = {
      {"apply", QenConfigManager::PLUGIN_APPLY},     {"boot", QenConfigManager::PLUGIN_APPLY_BOOT},
      {"extract", QenConfigManager::PLUGIN_EXTRACT}, {"impact", QenConfigManager::PLUGIN_IMPACT},
      {"validate", QenConfigManager::PLUGIN_VALIDATE}};
  list->add_option("--type", *type, "apply, boot, extract, impact or validate")
      ->required()
      ->transform(CLI::CheckedTransformer(kinds, CLI::ignore_case));
  list->footer(
      "JSON: {\"plugins\": [{\"id\": string, \"version\": int, \"type\": string, \"module\": string|null,\n"
      "\"objects\": [\"COMPONENT:GROUP:KEY\"]}], \"order\": [string] (apply and boot) or null}.");
  list->callback([type] {
    qenconfig::Exit(qenconfig::Run([&] {
      QenConfigManager::PluginManager manager(*type);
      auto all = manager.GetPlugins();
      std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a->GetId() < b->GetId(); });
      const bool ordered = *type == QenConfigManager::PLUGIN_APPLY || *type == QenConfigManager::PLUGIN_APPLY_BOOT;
      if (qenconfig::JsonOutput()) {
        rapidjson::Document out(rapidjson::kObjectType);
        auto& a = out.GetAllocator();
        rapidjson::Value plugins(rapidjson::kArrayType);
        for (const auto& p : all) {
          rapidjson::Value entry(rapidjson::kObjectType), objects(rapidjson::kArrayType);
          const auto ids = *type == QenConfigManager::PLUGIN_EXTRACT ? p->GetExtractConfigIds() : p->GetCSOIdList();
          for (const auto& id : ids)
            objects.PushBack(rapidjson::Value(id.GetComponent() + ":" + id.GetGroup() + ":" + id.GetKey(), a), a);
          entry.AddMember("id", rapidjson::Value(p->GetId(), a), a);
          entry.AddMember("version", static_cast<int>(p->GetVersion()), a);
          entry.AddMember("type", rapidjson::Value(p->GetType(), a), a);
          entry.AddMember("module", p->GetModule().empty() ? rapidjson::Value() : rapidjson::Value(p->GetModule(), a), a);
          entry.AddMember("objects", objects, a);
          plugins.PushBack(entry, a);
        }
        out.AddMember("plugins", plugins, a);
        rapidjson::Value order;
        if (ordered) {
          order.SetArray();
          for (const auto& name : manager.GetDependencies()) order.PushBack(rapidjson::Value(name, a), a);
        }
        out.AddMember("order", order, a);
        qenconfig::PrintJson(out);
        return qenconfig::kOk;
      }
      for (const auto& p : all) {
        const auto objects = *type == QenConfigManager::PLUGIN_EXTRACT ? p->GetExtractConfigIds()
                                                                       : p->GetCSOIdList();
        std::cout << p->GetId() << "  version=" << p->GetVersion() << " type=" << p->GetType()
                  << " module=" << (p->GetModule().empty() ? "-" : p->GetModule())
                  << " objects=" << Objects(objects) << "\n";
      }
      if (ordered) {
        std::cout << "order:";
        for (const auto& name : manager.GetDependencies()) std::cout << " " << name;
        std::cout << "\n";
      }
      return qenconfig::kOk;
    }));
  });
});

}  // namespace

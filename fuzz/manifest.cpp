// Plugin manifests as installed below the plugin directory: read by
// Plugin, every accessor asked, checked by ValidateAllPlugins, and loaded by
// a plugin manager of each kind (apply order included).
#include "HostRoot.h"
#include "configmanager/plugin.h"
#include "support/Fuzz.h"

using namespace QenConfigManager;

namespace QenFuzz {
namespace {

constexpr const char* kModules = "/usr/lib/corvane/configmanager/apply_modules/";
constexpr const char* kManifest = "/usr/lib/corvane/configmanager/apply_modules/fuzz/manifest.json";
constexpr const char* kSchemas = "/usr/lib/corvane/configmanager/plugin_schemas/";

// A rejected manifest is a ConfigManagerException (2081, 2082, 3000); an
// accessor that meets a missing or mistyped member is the JSON library's 1082.
void AskEverything(const Plugin& plugin) {
  (void)plugin.GetId();
  (void)plugin.GetVersion();
  (void)plugin.GetCSOIdList();
  Guarded([&] { (void)plugin.GetApplyGroup(); });
  Guarded([&] { (void)plugin.HasApplyBootSupport(); });
  Guarded([&] { (void)plugin.HasApplySupport(); });
  Guarded([&] { (void)plugin.HasValidateSupport(); });
  Guarded([&] { (void)plugin.HasExtractSupport(); });
  Guarded([&] { (void)plugin.HasImpactSupport(); });
  Guarded([&] {
    PluginApplyOperation operation;
    plugin.GetRemediateOperation(operation);
  });
  Guarded([&] { (void)plugin.GetOperations(); });
  for (PluginType type : {PLUGIN_APPLY, PLUGIN_APPLY_BOOT, PLUGIN_EXTRACT, PLUGIN_IMPACT, PLUGIN_VALIDATE})
    Guarded([&] { (void)plugin.CheckType(type); });
  Guarded([&] { (void)plugin.GetExtractConfigIds(); });
  Guarded([&] { (void)plugin.GetImpactCacheDetails(); });
  Guarded([&] { (void)plugin.GetReferences(); });
}

}  // namespace

int Manifest(const uint8_t* data, size_t size) {
  Host();
  WriteHostFile(kManifest, Text(data, size));
  Guarded([&] {
    Plugin plugin(kManifest);
    AskEverything(plugin);
  });

  rapidjson::Document report(rapidjson::kArrayType);
  ValidateAllPlugins(QenPlatform::HostPath(kModules), QenPlatform::HostPath(kSchemas), report);

  for (PluginType type : {PLUGIN_APPLY, PLUGIN_APPLY_BOOT, PLUGIN_EXTRACT, PLUGIN_IMPACT, PLUGIN_VALIDATE}) {
    Guarded([&] {
      PluginManager manager(type);
      (void)manager.List();
      for (const std::string& name : manager.GetDependencies()) (void)manager.GetProviders(name);
      for (const auto& plugin : manager.GetPlugins()) {
        for (const ConfigStoreObjectId& id : plugin->GetCSOIdList()) (void)manager.Find(id);
      }
    });
  }
  return 0;
}

}  // namespace QenFuzz

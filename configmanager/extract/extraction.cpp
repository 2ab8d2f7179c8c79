#include <algorithm>

#include <boost/algorithm/string/join.hpp>

#include "CSLogger.h"
#include "FeatureState.h"
#include "JsonValidator.h"
#include "PluginSupport.h"
#include "QenConfigStore.h"
#include "TavCtl.h"
#include "configmanager/plugin.h"
#include "configmanager/validate.h"
#include "extract/extraction_internal.h"

namespace QenConfigManager {

using ConfigStoreDocument::CLEANUP_ACTIONS;
using QenSchemaStore::SchemaObjectId;

const SchemaObjectId podlet("podlet", "system", "podlet_daemon");

namespace {

const char* kDeleteDefault = "DELETE_DEFAULT";

const std::string& Member(const ConfigMap& map, const char* name) {
  static const std::string empty;
  auto it = map.find(name);
  return it == map.end() ? empty : it->second;
}

SchemaObjectId SchemaIdOf(const ConfigMap& map) {
  return SchemaObjectId(Member(map, "Component"), Member(map, "ConfigGroup"), Member(map, "Name"));
}

std::shared_ptr<QenSchemaStore::SchemaStore> RequireSchemaStore() {
  std::shared_ptr<QenSchemaStore::SchemaStore> store = QenSchemaStore::SchemaStore::GetStore();
  if (!store) ThrowException<ConfigManagerException>(SCHEMA_STORE_ERROR);
  return store;
}

std::shared_ptr<QenConfigStore::JsonDoc> CreateObjectDocument() {
  std::shared_ptr<QenConfigStore::JsonDoc> result = CreateDocument();
  result->GetDocument().SetObject();
  return result;
}

// Runs one SSH source's sync; a std::exception is logged and swallowed.
template <typename Source>
void SyncSource(const char* synced, const char* failed) {
  try {
    Source source(2);
    if (source.UpgradeConfigToConfigStore()) CSLogger::Log(2, "%s", synced);
  } catch (const std::exception& e) {
    CSLogger::Log(0, failed, e.what());
  }
}

}  // namespace

const std::vector<CLEANUP_ACTIONS>& CleanupActionsFor(DocumentType type) {
  using namespace ConfigStoreDocument;
  static const std::vector<CLEANUP_ACTIONS> current = {
      REMOVE_UNDESCRIBED_PROPERTIES, REMOVE_NULL_MEMBERS, REMOVE_READONLY_PROPERTIES,
      REMOVE_EMPTY_MEMBERS, SORT_INSTANCES};
  static const std::vector<CLEANUP_ACTIONS> exported = {
      REMOVE_UNDESCRIBED_PROPERTIES, REMOVE_NULL_MEMBERS, REMOVE_GENERATED_ID,
      REMOVE_DEFAULT_VALUES, REMOVE_READONLY_PROPERTIES, REMOVE_EMPTY_MEMBERS, SORT_INSTANCES};
  static const std::vector<CLEANUP_ACTIONS> desired = {REMOVE_UNDESCRIBED_PROPERTIES,
                                                       REMOVE_NULL_MEMBERS};
  static const std::vector<CLEANUP_ACTIONS> none;
  switch (type) {
    case DOC_CURRENT: return current;
    case DOC_EXPORT: return exported;
    case DOC_DESIRED: return desired;
    default: return none;
  }
}

void SyncSshConfiguration() {
  FeatureState_InitDeltaMode();
  SyncSource<TavCtl::System::SshAuthKeysConfigImpl>(
      "SSH auth keys configuration synced to config store successfully.",
      "SSH auth keys configuration failed to sync to config store error=%s.");
  if (FeatureState_IsEnabled("Tavapps_BlockSshFileEdits")) {
    CSLogger::Log(2,
                  "Tavapps_BlockSshFileEdits FSS is enabled, skip syncing sshd_config and "
                  "ssh_config files.");
    return;
  }
  SyncSource<TavCtl::System::SshClientConfigImpl>(
      "SSH client configuration synced to config store successfully.",
      "SSH client configuration failed to sync to config store error=%s.");
  SyncSource<TavCtl::System::SshServerConfigImpl>(
      "SSH server configuration synced to config store successfully",
      "SSH server configuration failed to sync to config store error=%s.");
  CSLogger::Log(2, "SSH configurations synced.");
}

std::shared_ptr<ExtractionData> ExtractPluginConfigurations() {
  auto data = std::make_shared<ExtractionData>();
  std::shared_ptr<QenSchemaStore::SchemaCache> cache = QenSchemaStore::SchemaStore::GetCache();
  PluginManager manager(PLUGIN_EXTRACT);
  std::vector<std::string> invalidPlugins;

  for (const std::shared_ptr<Plugin>& plugin : manager.GetPlugins()) {
    ConfigStoreObjectIdList ids = plugin->GetExtractConfigIds();
    for (const ConfigStoreObjectId& id : ids)
      data->configIds.insert(SchemaObjectId(id.GetComponent(), id.GetGroup(), id.GetKey()));

    ExtractPluginResult result = plugin->Extract(ids, "", PluginMonitor::Dummy());
    if (!result.errorInfo.msgId.empty()) {
      CSLogger::Log(0, "Extract plugin failed: %s", plugin->GetId().c_str());
      ThrowException<ConfigManagerException>(EXTRACT_FAILED, plugin->GetId());
    }

    bool pluginInvalid = false;
    for (const std::shared_ptr<QenConfigStore::ConfigStoreObject>& object : result.objects) {
      const ConfigStoreObjectId& id = object->GetConfigStoreObjectId();
      std::shared_ptr<QenSchemaStore::SchemaObject> schema =
          cache ? cache->GetSchema(id.GetComponent(), id.GetGroup(), id.GetKey()) : nullptr;
      if (!schema) {
        // An object of a key without schema cannot be checked, so it is not valid.
        CSLogger::Log(0, "Invalid ConfigStoreObject: %s (no schema)", id.toString().c_str());
        pluginInvalid = true;
      } else if (!IsValidCSO(schema, object)) {
        pluginInvalid = true;
      }
      if (pluginInvalid || !invalidPlugins.empty()) continue;
      auto map = std::make_shared<ConfigMap>();
      (*map)["Name"] = id.GetKey();
      (*map)["Component"] = id.GetComponent();
      (*map)["ConfigGroup"] = id.GetGroup();
      (*map)["Identifier"] = id.GetInstanceId();
      (*map)["Value"] = object->GetSerializedData();
      data->configs->push_back(std::move(map));
    }
    if (pluginInvalid) {
      invalidPlugins.push_back(plugin->GetId());
      CSLogger::Log(0, "Extract plugin returned invalid configs: %s", plugin->GetId().c_str());
    }
  }

  if (!invalidPlugins.empty())
    ThrowException<ConfigManagerException>(EXTRACT_FAILED, boost::algorithm::join(invalidPlugins, ","));
  return data;
}

void MergePluginConfigurations(ConfigMapList& list, const std::shared_ptr<ExtractionData>& data) {
  ConfigMapVector kept;
  kept.reserve(list->size() + data->configs->size());
  for (std::shared_ptr<ConfigMap>& map : *list)
    if (!data->configIds.count(SchemaIdOf(*map))) kept.push_back(std::move(map));
  for (const std::shared_ptr<ConfigMap>& map : *data->configs) kept.push_back(map);
  list->swap(kept);
}

void ProcessMutableDefaultDeletes(const ConfigMapList& list,
                                  const std::shared_ptr<QenSchemaStore::SchemaStore>& store) {
  CSLogger::Log(3, "%s invoked", "ProcessMutableDefaultDeletes");
  QenSchemaStore::SchemaObjectIdSet missing = store->GetMutableDefaultConfigSchemas(false);
  for (const std::shared_ptr<ConfigMap>& map : *list) missing.erase(SchemaIdOf(*map));
  if (missing.empty()) return;
  std::vector<std::string> names;
  for (const SchemaObjectId& id : missing) names.push_back(id.toString());
  ThrowException<ConfigManagerException>(DELETE_DEFAULT_NOT_SUPPORTED,
                                         boost::algorithm::join(names, ","));
}

void ProcessConfigMapList(rapidjson::Document& doc, const ConfigMapList& list,
                          const std::shared_ptr<QenSchemaStore::SchemaStore>& store,
                          DocumentType type, const std::shared_ptr<ExtractionData>& pluginData) {
  CSLogger::Log(3, "%s invoked with DocumentType=%d", "ProcessConfigMapList", static_cast<int>(type));
  if (type == DOC_EXPORT) ConfigStoreDocument::AddProfile(doc);
  if (!doc.IsObject()) doc.SetObject();
  QenSchemaStore::SchemaObjectIdSet dspNonIntegrated = store->GetDspNonIntegratedSchemas();
  const std::vector<CLEANUP_ACTIONS>& actions = CleanupActionsFor(type);
  rapidjson::Document::AllocatorType& allocator = doc.GetAllocator();

  for (const std::shared_ptr<ConfigMap>& map : *list) {
    const std::string& name = Member(*map, "Name");
    const std::string& component = Member(*map, "Component");
    const std::string& group = Member(*map, "ConfigGroup");
    const std::string& identifier = Member(*map, "Identifier");
    CSLogger::Log(2, "Configuration for {%s/%s/%s/%s} was found.", component.c_str(), group.c_str(),
                  name.c_str(), identifier.c_str());
    SchemaObjectId schemaId(component, group, name);
    const std::string& text = Member(*map, "Value");
    if (text == kDeleteDefault)
      ThrowException<ConfigManagerException>(DELETE_DEFAULT_NOT_SUPPORTED, schemaId.toString());

    if (schemaId == podlet && dspNonIntegrated.count(schemaId)) {
      CSLogger::Log(2, "Configuration for {%s/%s/%s} was not extracted, since dspIntegrated=False,",
                    component.c_str(), group.c_str(), name.c_str());
      continue;
    }

    std::shared_ptr<QenSchemaStore::SchemaObject> schema = QenSchemaStore::GetSchema(schemaId, store);
    if (!schema)
      ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, component + "/" + group + "/" + name);
    if (schema->IsNonSingleton() && schema->GetInstanceIdField() != "cs_generated_id") {
      std::vector<std::string> solution = schema->GetSolutionUserInstances();
      if (std::find(solution.begin(), solution.end(), identifier) != solution.end()) {
        CSLogger::Log(2,
                      "Configuration for {%s/%s/%s/%s} was not extracted, since instance is "
                      "created by a solution.",
                      component.c_str(), group.c_str(), name.c_str(), identifier.c_str());
        continue;
      }
    }

    // Parsed straight into the result's allocator, so adding it is a move.
    rapidjson::Document value(&allocator);
    if (!QenPlatform::ParseJson(text, value)) ThrowException<InvalidArgumentException>(PARSE_ERROR);

    const rapidjson::Value& schemaJson = schema->GetSchemaJson();
    auto items = schemaJson.IsObject() ? schemaJson.FindMember("items") : schemaJson.MemberEnd();
    const rapidjson::Value& valueSchema =
        schemaJson.IsObject() && items != schemaJson.MemberEnd() ? items->value : schemaJson;

    if (!pluginData || !pluginData->configIds.count(schemaId))
      ProcessAutoConfig(value, valueSchema, Member(*map, "AutoConfValue"), allocator);
    ConfigStoreDocument::CleanupObject(value, valueSchema, actions, allocator);

    if (value.IsObject() && value.MemberCount() == 0) {
      CSLogger::Log(2, "Configuration for {%s/%s/%s/%s} was filtered out.", component.c_str(),
                    group.c_str(), name.c_str(), identifier.c_str());
      continue;
    }
    rapidjson::Value& target = type == DOC_EXPORT ? doc["profile"] : doc;
    ConfigStoreDocument::AddObject(target, component, group, name, identifier, value, allocator);
  }
}

std::shared_ptr<QenConfigStore::JsonDoc> ExtractCurrentConfiguration() {
  CSLogger::Log(3, "%s invoked", "ExtractCurrentConfiguration");
  SyncSshConfiguration();
  std::shared_ptr<QenConfigStore::JsonDoc> result = CreateObjectDocument();
  rapidjson::Document& doc = result->GetDocument();
  std::shared_ptr<DBStore::StoreConnection> connection = QenConfigStore::GetDBStore(0, true);
  ConfigMapList list = QenConfigStore::GetUserConfigContents(connection);
  std::shared_ptr<QenSchemaStore::SchemaStore> store = RequireSchemaStore();
  std::shared_ptr<ExtractionData> pluginData = ExtractPluginConfigurations();
  MergePluginConfigurations(list, pluginData);
  ProcessMutableDefaultDeletes(list, store);
  ProcessConfigMapList(doc, list, store, DOC_CURRENT, pluginData);
  return result;
}

std::shared_ptr<QenConfigStore::JsonDoc> ExtractDesiredConfiguration() {
  CSLogger::Log(3, "%s invoked", "ExtractDesiredConfiguration");
  std::shared_ptr<QenConfigStore::JsonDoc> result = CreateObjectDocument();
  std::shared_ptr<DBStore::StoreConnection> connection = QenConfigStore::GetDBStore(0, true);
  ConfigMapList list = QenConfigStore::GetDesiredUserConfigContents(connection);
  ProcessConfigMapList(result->GetDocument(), list, RequireSchemaStore(), DOC_DESIRED, nullptr);
  return result;
}

void ProcessAutoConfig(rapidjson::Value& config, const rapidjson::Value& schema,
                       const std::string& autoConfValue,
                       rapidjson::Document::AllocatorType& allocator) {
  if (autoConfValue.empty()) {
    CSLogger::Log(3, "No auto configuration to process");
    return;
  }
  rapidjson::Document errors(rapidjson::kArrayType);
  JsonValidator::Validate(schema, config, errors, AUTOCONF_CODE_SET, "");
  if (errors.Empty()) return;

  rapidjson::Document autoValue;
  if (!QenPlatform::ParseJson(autoConfValue, autoValue)) ThrowException<InvalidArgumentException>(PARSE_ERROR);

  for (const rapidjson::Value& error : errors.GetArray()) {
    std::string field(error["field"].GetString(), error["field"].GetStringLength());
    const char* text = error["error"].GetString();
    int errId = error["errId"].GetInt();
    if (errId == JsonValidator::REQUIRED_PROPERTY_MISSING) {
      CSLogger::Log(2, "patching validation error: '%s' %s", field.c_str(), text);
      ConfigStoreDocument::PatchRequiredProperty(config, field, autoValue, allocator);
    } else if (errId == JsonValidator::UNION_TAG_MISSING) {
      CSLogger::Log(2, "patching validation error: '%s' %s", field.c_str(), text);
      ConfigStoreDocument::PatchUnionTagProperty(config, field, autoValue, schema, allocator);
    } else {
      CSLogger::Log(0, "unexpected validation error: '%s' %s", field.c_str(), text);
    }
  }
}

}  // namespace QenConfigManager

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

const std::string& Member(const ConfigMap& map, const char* name) {
  static const std::string empty;
  auto it = map.find(name);
  return it == map.end() ? empty : it->second;
}

SchemaObjectId SchemaIdOf(const ConfigMap& map) {
  return SchemaObjectId(Member(map, "Component"), Member(map, "ConfigGroup"), Member(map, "Name"));
}

StoredObject::StoredObject(const ConfigMap& map)
    : component(Member(map, "Component")), group(Member(map, "ConfigGroup")),
      name(Member(map, "Name")), identifier(Member(map, "Identifier")),
      schemaId(component, group, name), value(Member(map, "Value")),
      autoConfValue(Member(map, "AutoConfValue")) {}

void StoredObject::Log(int priority, const char* what) const {
  CSLogger::Log(priority, "Configuration for {%s/%s/%s/%s} %s", component.c_str(), group.c_str(),
                name.c_str(), identifier.c_str(), what);
}

void StoredObject::RejectDeletedDefault() const {
  if (value == QenConfigStore::kDeleteDefault)
    ThrowException<ConfigManagerException>(DELETE_DEFAULT_NOT_SUPPORTED, schemaId.toString());
}

std::shared_ptr<QenSchemaStore::SchemaObject> StoredObject::RequireSchema(
    const std::shared_ptr<QenSchemaStore::SchemaStore>& store) const {
  std::shared_ptr<QenSchemaStore::SchemaObject> schema = QenSchemaStore::GetSchema(schemaId, store);
  if (!schema)
    ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, component + "/" + group + "/" + name);
  return schema;
}

bool StoredObject::IsSolutionInstance(const QenSchemaStore::SchemaObject& schema) const {
  if (!schema.IsNonSingleton() || schema.GetInstanceIdField() == "cs_generated_id") return false;
  std::vector<std::string> solution = schema.GetSolutionUserInstances();
  return std::find(solution.begin(), solution.end(), identifier) != solution.end();
}

const rapidjson::Value& ValueSchemaOf(const QenSchemaStore::SchemaObject& schema) {
  const rapidjson::Value& schemaJson = schema.GetSchemaJson();
  if (!schemaJson.IsObject()) return schemaJson;
  auto items = schemaJson.FindMember("items");
  return items != schemaJson.MemberEnd() ? items->value : schemaJson;
}

bool PrepareStoredValue(rapidjson::Document& value, const StoredObject& object,
                        const rapidjson::Value& valueSchema,
                        DocumentType type, const std::shared_ptr<ExtractionData>& pluginData,
                        rapidjson::Document::AllocatorType& allocator) {
  ParseDocument(object.value, value);
  if (!pluginData || !pluginData->configIds.count(object.schemaId))
    ProcessAutoConfig(value, valueSchema, object.autoConfValue, allocator);
  ConfigStoreDocument::CleanupObject(value, valueSchema, CleanupActionsFor(type), allocator);
  return !(value.IsObject() && value.MemberCount() == 0);
}

std::shared_ptr<QenSchemaStore::SchemaStore> RequireSchemaStore() {
  std::shared_ptr<QenSchemaStore::SchemaStore> store = QenSchemaStore::SchemaStore::GetStore();
  if (!store) ThrowException<ConfigManagerException>(SCHEMA_STORE_ERROR);
  return store;
}

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
  static const std::vector<CLEANUP_ACTIONS> telemetry = {
      REMOVE_UNDESCRIBED_PROPERTIES, REMOVE_NULL_MEMBERS, REMOVE_GENERATED_ID,
      REMOVE_DEFAULT_VALUES, REMOVE_READONLY_PROPERTIES, REMOVE_EMPTY_MEMBERS, SORT_INSTANCES,
      REDACT_SENSITIVE};
  static const std::vector<CLEANUP_ACTIONS> none;
  switch (type) {
    case DOC_CURRENT: return current;
    case DOC_EXPORT: return exported;
    case DOC_DESIRED: return desired;
    case DOC_TELEMETRY: return telemetry;
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
  rapidjson::Document::AllocatorType& allocator = doc.GetAllocator();

  for (const std::shared_ptr<ConfigMap>& map : *list) {
    StoredObject object(*map);
    object.Log(2, "was found.");
    object.RejectDeletedDefault();

    if (object.schemaId == podlet && dspNonIntegrated.count(object.schemaId)) {
      CSLogger::Log(2, "Configuration for {%s/%s/%s} was not extracted, since dspIntegrated=False,",
                    object.component.c_str(), object.group.c_str(), object.name.c_str());
      continue;
    }

    std::shared_ptr<QenSchemaStore::SchemaObject> schema = object.RequireSchema(store);
    if (object.IsSolutionInstance(*schema)) {
      object.Log(2, "was not extracted, since instance is created by a solution.");
      continue;
    }

    // Parsed straight into the result's allocator, so adding it is a move.
    rapidjson::Document value(&allocator);
    if (!PrepareStoredValue(value, object, ValueSchemaOf(*schema), type, pluginData, allocator)) {
      object.Log(2, "was filtered out.");
      continue;
    }
    rapidjson::Value& target = type == DOC_EXPORT ? doc["profile"] : doc;
    ConfigStoreDocument::AddObject(target, object.component, object.group, object.name,
                                   object.identifier, value, allocator);
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

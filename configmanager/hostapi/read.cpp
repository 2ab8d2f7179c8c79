// Host configuration API: schema lookup, input validation and reading a key's
// default and current value.
#include <algorithm>

#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "FeatureState.h"
#include "JsonValidator.h"
#include "PluginSupport.h"
#include "hostapi/hostapi_internal.h"

namespace QenConfigManager {

using ConfigStoreDocument::CLEANUP_ACTIONS;

namespace {

// What the instances of a non-singleton key are validated and cleaned
// against: the key's node describes the whole array.
const rapidjson::Value& ValueSchema(const SchemaObject& schema) {
  const rapidjson::Value& keySchema = schema.GetSchemaJson();
  if (!schema.IsNonSingleton() || !keySchema.IsObject()) return keySchema;
  auto items = keySchema.FindMember("items");
  return items != keySchema.MemberEnd() ? items->value : keySchema;
}

std::string IdText(const std::string& component, const std::string& group, const std::string& key) {
  return QenSchemaStore::SchemaObjectId(component, group, key).toString();
}

bool SameKey(const ConfigStoreObjectId& a, const ConfigStoreObjectId& b) {
  return a.GetComponent() == b.GetComponent() && a.GetGroup() == b.GetGroup() &&
         a.GetKey() == b.GetKey();
}

// The key's objects as its one extract plugin reads them; false when no
// extract plugin serves the key (the store is read then).
bool ReadThroughPlugin(const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                       ConfigStoreObjectList& objects) {
  PluginManager manager(PLUGIN_EXTRACT);
  const std::vector<std::shared_ptr<Plugin>> plugins = manager.Find(id);
  if (plugins.empty()) {
    CSLogger::Log(3, "No extract plugins found for %s", id.toString().c_str());
    return false;
  }
  if (plugins.size() > 1)
    ThrowException<ConfigManagerException>(EXTRACT_MULTIPLE_PLUGINS, id.toString());
  const Plugin& plugin = *plugins.front();
  ExtractPluginResult result = plugin.Extract({id}, "", PluginMonitor::Dummy());
  if (!result.errorInfo.IsEmpty())
    ThrowException<ConfigManagerException>(EXTRACT_FAILED, plugin.GetId());
  if (result.objects.empty())
    CSLogger::Log(3, "Plugin %s resulted in empty csoList", plugin.GetId().c_str());
  for (const auto& object : result.objects) {
    if (!SameKey(object->GetConfigStoreObjectId(), id)) continue;
    if (!IsValidCSO(schema, object)) {
      // Sensitive values never reach the log.
      rapidjson::Document shown;
      shown.CopyFrom(object->GetJson(), shown.GetAllocator());
      ConfigStoreDocument::CleanupObject(shown, ValueSchema(*schema),
                                         {ConfigStoreDocument::REDACT_SENSITIVE}, shown.GetAllocator());
      CSLogger::Log(0, "Found an invalid CSO: {%s}", ConfigStoreDocument::NormalizeValue(shown).c_str());
      ThrowException<ConfigManagerException>(EXTRACT_INVALID_CONFIG, plugin.GetId());
    }
    objects.push_back(object);
  }
  return true;
}

}  // namespace

std::shared_ptr<SchemaObject> CheckSchemaExists(const std::string& component,
                                                const std::string& group, const std::string& key) {
  CSLogger::Log(2, "Running CheckSchemaExists in HostAPI");
  std::shared_ptr<QenSchemaStore::SchemaStore> store = QenSchemaStore::SchemaStore::GetStore();
  if (!store) ThrowException<ConfigManagerException>(SCHEMA_STORE_ERROR);
  std::shared_ptr<SchemaObject> schema = store->GetSchema(component, group, key);
  if (!schema) ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, IdText(component, group, key));
  return schema;
}

std::shared_ptr<DBStore::StoreConnection> OpenStore() {
  std::shared_ptr<DBStore::StoreConnection> connection = QenConfigStore::GetDBStore(0, true);
  if (!connection) ThrowException<ConfigManagerException>(DB_CONNECT_ERROR);
  return connection;
}

void ValidateInputDelete(const std::string& component, const std::string& group,
                         const std::string& key) {
  CSLogger::Log(2, "Validating user input component, group and key.");
  CheckSchemaExists(component, group, key);
}

bool ValidateInputSet(const std::string& component, const std::string& group,
                      const std::string& key, const std::string& valueText,
                      rapidjson::Document& valueDoc, std::vector<ValidationErrorInfo>& errors) {
  CSLogger::Log(3, "Validating user input configuration.");
  try {
    ConfigStoreDocument::CreateDocument(valueText, valueDoc);
  } catch (const QenConfigStore::ConfigStoreException&) {
    // Too deep is as unusable as not JSON; the caller learns one thing.
    ThrowException<InvalidArgumentException>(PARSE_ERROR, "Invalid Json");
  }
  if (ConfigStoreDocument::IsDocumentEmpty(valueDoc))
    ThrowException<InvalidArgumentException>(EMPTY_DOCUMENT, "Cannot set empty configuration");
  std::shared_ptr<SchemaObject> schema = CheckSchemaExists(component, group, key);
  const std::string idText = IdText(component, group, key);
  if (schema->IsNonSingleton() && valueDoc.IsObject())
    ThrowException<InvalidArgumentException>(NOT_NON_SINGLETON, idText);
  if (!schema->IsNonSingleton() && valueDoc.IsArray())
    ThrowException<InvalidArgumentException>(NOT_SINGLETON, idText);

  rapidjson::Document found(rapidjson::kArrayType);
  const rapidjson::Value& valueSchema = ValueSchema(*schema);
  if (valueDoc.IsArray()) {
    // Each instance on its own, so that an error's path names its element.
    for (rapidjson::SizeType i = 0; i < valueDoc.Size(); ++i)
      JsonValidator::Validate(valueSchema, valueDoc[i], found, AUTOCONF_CODE_SET,
                              "/" + std::to_string(i));
  } else {
    JsonValidator::Validate(valueSchema, valueDoc, found, AUTOCONF_CODE_SET, "");
  }
  if (found.Empty()) {
    CSLogger::Log(3, "User input configuration validation successful.");
    return true;
  }
  for (const rapidjson::Value& error : found.GetArray()) {
    std::list<std::string> args;
    for (const rapidjson::Value& arg : error["errArgs"].GetArray())
      args.emplace_back(arg.GetString(), arg.GetStringLength());
    errors.emplace_back(
        std::string(error["field"].GetString(), error["field"].GetStringLength()),
        std::vector<ErrorInfo>{ErrorInfo(JsonValidator::ConvertErrorCodeToMsgId(error["errId"].GetInt()),
                                         std::move(args))});
  }
  CSLogger::Log(3, "User input configuration validation successful. Invalid configuration provided.");
  return false;
}

std::string FormatConfigObjects(const std::string&, const std::string&, const std::string&,
                                const std::shared_ptr<SchemaObject>& schema,
                                const ConfigStoreObjectList& objects, bool presentation) {
  using namespace ConfigStoreDocument;
  static const std::vector<CLEANUP_ACTIONS> presented = {REMOVE_GENERATED_ID, REMOVE_DEFAULT_VALUES,
                                                         SORT_INSTANCES, REMOVE_EMPTY_MEMBERS};
  static const std::vector<CLEANUP_ACTIONS> forDocuments = {SORT_INSTANCES, REMOVE_EMPTY_MEMBERS};
  const std::vector<CLEANUP_ACTIONS>& actions = presentation ? presented : forDocuments;
  const rapidjson::Value& valueSchema = ValueSchema(*schema);

  rapidjson::Document result;
  if (schema->IsNonSingleton()) {
    result.SetArray();
    std::vector<std::string> solution;
    if (schema->GetInstanceIdField() != QenSchemaStore::kGeneratedInstanceId)
      solution = schema->GetSolutionUserInstances();
    for (const auto& object : objects) {
      rapidjson::Value value(object->GetJson(), result.GetAllocator());
      const std::string instance = GetInstanceIdFromValue(value, schema);
      if (std::find(solution.begin(), solution.end(), instance) != solution.end()) continue;
      ConfigStoreDocument::CleanupObject(value, valueSchema, actions, result.GetAllocator());
      result.PushBack(value, result.GetAllocator());
    }
  } else {
    result.SetObject();
    if (!objects.empty()) {
      result.CopyFrom(objects.front()->GetJson(), result.GetAllocator());
      ConfigStoreDocument::CleanupObject(result, valueSchema, actions, result.GetAllocator());
    }
  }
  return ConfigStoreDocument::IsDocumentEmpty(result) ? std::string()
                                                      : ConfigStoreDocument::SerializeValue(result);
}

std::string GetCurrentConfig(const std::string& component, const std::string& group,
                             const std::string& key, const std::shared_ptr<SchemaObject>& schema,
                             const std::shared_ptr<DBStore::StoreConnection>& connection,
                             bool presentation) {
  CSLogger::Log(2, "Running GetCurrentConfig in HostAPI");
  const ConfigStoreObjectId id(key, group, component);
  ConfigStoreObjectList objects;
  if (!FeatureState_IsEnabled(FEATURE_CONFIG_PLUGIN_READS) || !ReadThroughPlugin(id, schema, objects)) {
    if (schema->IsNonSingleton()) {
      objects = QenConfigStore::GetCurrentConfigInstancesInternal(id, connection, schema);
    } else if (auto object = QenConfigStore::GetCurrentConfigInternal(id, connection, schema)) {
      objects.push_back(object);
    }
  }
  return FormatConfigObjects(component, group, key, schema, objects, presentation);
}

void GetConfig(const std::string& component, const std::string& group, const std::string& key,
               std::string& defaultText, std::string& currentText, std::string& userConfigText) {
  CSLogger::Log(2, "Running GetConfig in HostAPI");
  std::shared_ptr<SchemaObject> schema = CheckSchemaExists(component, group, key);
  userConfigText = schema->GetUserConfigText();
  if (userConfigText.empty()) ThrowException<ConfigManagerException>(HOSTAPI_UNSUPPORTED_CONFIG);
  std::shared_ptr<DBStore::StoreConnection> connection = OpenStore();
  FeatureState_InitDeltaMode();

  CSLogger::Log(2, "Running GetDefaultConfig in HostAPI");
  const ConfigStoreObjectId id(key, group, component);
  ConfigStoreObjectList defaults;
  if (schema->IsNonSingleton()) {
    defaults = QenConfigStore::GetDefaultUserConfigInstancesInternal(id, connection, schema);
  } else if (auto object = QenConfigStore::GetDefaultUserConfigInternal(id, connection, schema)) {
    defaults.push_back(object);
  }
  defaultText = FormatConfigObjects(component, group, key, schema, defaults, true);
  currentText = GetCurrentConfig(component, group, key, schema, connection, true);
}

}  // namespace QenConfigManager

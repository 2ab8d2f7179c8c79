#include <strings.h>

#include "CSLogger.h"
#include "JsonValidator.h"
#include "PluginSupport.h"
#include "validate/validation_internal.h"

namespace QenConfigManager {

const std::set<int> DOCUMENT_CODE_SET = {0, 11, 1, 3, 7, 8};
const std::set<int> CSO_CODE_SET = {0, 1, 7, 8};
const std::set<int> AUTOCONF_CODE_SET = {0, 1, 3, 7, 8};

namespace {

const char* kPluginStarted = "corvane.qen.settings.validation.plugin.started";
const char* kPluginFinished = "corvane.qen.settings.validation.plugin.finished";
const char* kPluginAborted = "corvane.qen.settings.validation.plugin.aborted";

std::vector<std::string> SplitPath(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    size_t slash = path.find('/', start);
    parts.push_back(path.substr(start, slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return parts;
}

std::string ObjectText(const ConfigStoreObjectId& id) { return id.toString(); }

// Adds the members of `host` sections (host-specific / host-override) whose
// name is this host's UUID, in any letter case.
void GenerateHostSections(const rapidjson::Value& doc, const char* section, const std::string& uuid,
                          const std::shared_ptr<QenSchemaStore::SchemaCache>& cache,
                          rapidjson::Document& schemaDoc, rapidjson::Document& errorsDoc) {
  auto it = doc.FindMember(section);
  if (it == doc.MemberEnd() || !it->value.IsObject()) return;
  for (auto& host : it->value.GetObject()) {
    if (strcasecmp(host.name.GetString(), uuid.c_str()) == 0)
      QenSchemaStore::GenerateSchemaDocument(host.value, cache, schemaDoc, errorsDoc);
  }
}

void MergeErrors(ValidationErrorTable& table, const ValidationErrorInfo& info) {
  auto it = table.byPath.find(info.path);
  if (it == table.byPath.end()) {
    table.byPath.emplace(info.path, info);
    return;
  }
  for (const ErrorInfo& m : info.messages) it->second.messages.push_back(m);
}

}  // namespace

void CollectValidationErrors(const rapidjson::Value& errors, ValidationErrorTable& table) {
  for (const rapidjson::Value& error : errors.GetArray()) {
    const rapidjson::Value& fieldValue = error["field"];
    std::string field(fieldValue.GetString(), fieldValue.GetStringLength());
    auto entry = table.byPath.find(field);
    if (entry == table.byPath.end()) {
      entry = table.byPath.emplace(field, ValidationErrorInfo(field, {})).first;
      std::vector<std::string> parts = SplitPath(field);
      if (parts.size() >= 4)
        table.failedObjects.insert(ConfigStoreObjectId(parts[3], parts[2], parts[1]));
    }
    std::string msgId = JsonValidator::ConvertErrorCodeToMsgId(error["errId"].GetInt());
    std::list<std::string> args;
    for (const rapidjson::Value& arg : error["errArgs"].GetArray())
      args.emplace_back(arg.GetString(), arg.GetStringLength());
    entry->second.messages.emplace_back(std::move(msgId), std::move(args));
  }
}

ConfigStoreObjectList BuildConfigStoreObjects(const rapidjson::Value& value,
                                              const ConfigStoreObjectIdList& ids,
                                              const std::shared_ptr<QenSchemaStore::SchemaCache>& cache) {
  ConfigStoreObjectList objects;
  for (const ConfigStoreObjectId& id : ids) {
    auto comp = value.FindMember(id.GetComponent().c_str());
    if (comp == value.MemberEnd()) continue;
    auto grp = comp->value.FindMember(id.GetGroup().c_str());
    if (grp == comp->value.MemberEnd()) continue;
    auto key = grp->value.FindMember(id.GetKey().c_str());
    if (key == grp->value.MemberEnd()) continue;
    if (!cache) ThrowException<ConfigManagerException>(SCHEMA_STORE_ERROR);
    std::shared_ptr<QenSchemaStore::SchemaObject> schema =
        cache->GetSchema(id.GetComponent(), id.GetGroup(), id.GetKey());
    const rapidjson::Value& keyValue = key->value;
    ConfigStoreObjectId keyId(id.GetKey(), id.GetGroup(), id.GetComponent());
    if (keyValue.IsArray()) {
      uint64_t index = 0;
      for (const rapidjson::Value& element : keyValue.GetArray())
        objects.push_back(QenConfigStore::CreateObject(keyId, element, schema, index++, true));
    } else if (keyValue.IsString() && std::string(keyValue.GetString()) == "DELETE_DEFAULT") {
      continue;
    } else {
      objects.push_back(QenConfigStore::CreateObject(keyId, keyValue, schema, 0, false));
    }
  }
  return objects;
}

std::variant<rapidjson::Document, std::vector<ValidationErrorInfo>> GenerateHostDocumentSchema(
    const rapidjson::Value& doc) {
  rapidjson::Document schemaDoc;
  rapidjson::Document errorsDoc(rapidjson::kArrayType);
  std::shared_ptr<QenSchemaStore::SchemaCache> cache = QenSchemaStore::SchemaStore::GetCache();
  std::string uuid = GetBIOSUUID();

  auto profile = doc.FindMember("profile");
  if (profile == doc.MemberEnd()) {
    QenSchemaStore::GenerateSchemaDocument(doc, cache, schemaDoc, errorsDoc);
  } else {
    QenSchemaStore::GenerateSchemaDocument(profile->value, cache, schemaDoc, errorsDoc);
    GenerateHostSections(doc, "host-specific", uuid, cache, schemaDoc, errorsDoc);
    GenerateHostSections(doc, "host-override", uuid, cache, schemaDoc, errorsDoc);
  }

  ValidationErrorTable table;
  CollectValidationErrors(errorsDoc, table);
  if (table.byPath.empty()) return schemaDoc;
  std::vector<ValidationErrorInfo> errors;
  for (auto& entry : table.byPath) errors.push_back(std::move(entry.second));
  return errors;
}

void Validate(const rapidjson::Document& doc, const rapidjson::Document& schemaDoc,
              const std::string& context, ValidationResult& result, bool validateSchema,
              std::shared_ptr<TaskHandle> task) {
  CSLogger::Log(3, "ConfigManager Validate API invoked");
  auto profile = doc.FindMember("profile");
  const rapidjson::Value& value = profile == doc.MemberEnd() ? doc : profile->value;

  ValidationErrorTable table;
  if (validateSchema) {
    rapidjson::Document errors(rapidjson::kArrayType);
    JsonValidator::ValidateCMDocument(schemaDoc, value, errors, DOCUMENT_CODE_SET, "");
    CollectValidationErrors(errors, table);
  }

  float progress = 20.0f;
  task->UpdateProgress(progress);
  PluginManager manager(PLUGIN_VALIDATE);
  std::vector<std::shared_ptr<Plugin>> plugins = manager.GetPlugins();
  const float step = plugins.empty() ? 0.0f : 80.0f / static_cast<float>(plugins.size());
  auto monitor = std::make_shared<TaskPluginMonitor>(task);
  std::shared_ptr<QenSchemaStore::SchemaCache> cache;

  for (const std::shared_ptr<Plugin>& plugin : plugins) {
    if (task->IsAborted()) {
      CSLogger::Log(2, "Validation aborted, returning...");
      result.pluginError = ErrorInfo(kPluginAborted, {plugin->GetId()});
      return;
    }
    ConfigStoreObjectIdList ids = plugin->GetCSOIdList();
    bool failedSchema = false;
    for (const ConfigStoreObjectId& id : ids) {
      ConfigStoreObjectId keyId(id.GetKey(), id.GetGroup(), id.GetComponent(), id.GetInstanceId());
      if (table.failedObjects.count(keyId)) {
        failedSchema = true;
        break;
      }
    }
    if (failedSchema) continue;

    if (!cache) cache = QenSchemaStore::SchemaStore::GetCache();
    ConfigStoreObjectList objects = BuildConfigStoreObjects(value, ids, cache);
    if (objects.empty()) continue;
    ConfigStoreObjectList references = BuildConfigStoreObjects(value, plugin->GetReferences(), cache);

    task->AddNotification()->PluginInfo(kPluginStarted, {plugin->GetId()});
    ValidationPluginResult pluginResult = plugin->Validate(objects, references, context, monitor);
    if (!pluginResult.errorInfo.msgId.empty()) {
      task->AddNotification()->PluginError(pluginResult.errorInfo);
      result.pluginError = pluginResult.errorInfo;
      return;
    }
    for (const ValidationPluginObjectResult& object : pluginResult.results)
      MergeErrors(table, ValidationErrorInfo(object.name, object.errors));
    progress += step;
    task->UpdateProgress(progress);
    task->AddNotification()->PluginInfo(kPluginFinished, {plugin->GetId()});
  }

  for (auto& entry : table.byPath) result.errors.push_back(std::move(entry.second));
}

bool IsValidCSO(const std::shared_ptr<QenSchemaStore::SchemaObject>& schema,
                const std::shared_ptr<QenConfigStore::ConfigStoreObject>& object) {
  // An instance of a non-singleton key is checked against the instance
  // schema; the key's own node describes the whole array.
  const rapidjson::Value& keySchema = schema->GetSchemaJson();
  const rapidjson::Value* valueSchema = &keySchema;
  if (keySchema.IsObject() && !object->GetJson().IsArray()) {
    auto items = keySchema.FindMember("items");
    if (items != keySchema.MemberEnd()) valueSchema = &items->value;
  }
  rapidjson::Document errors(rapidjson::kArrayType);
  JsonValidator::Validate(*valueSchema, object->GetJson(), errors, CSO_CODE_SET, "");
  if (errors.Empty()) return true;

  CSLogger::Log(0, "Invalid ConfigStoreObject: %s",
                ObjectText(object->GetConfigStoreObjectId()).c_str());
  for (const rapidjson::Value& error : errors.GetArray()) {
    // The validator's text is the format and the field its argument; fill the
    // one conversion ourselves so the text can never consume other arguments.
    std::string text(error["error"].GetString(), error["error"].GetStringLength());
    std::string field(error["field"].GetString(), error["field"].GetStringLength());
    size_t at = text.find("%s");
    if (at != std::string::npos) text.replace(at, 2, field);
    CSLogger::Log(0, "%s", text.c_str());
  }
  return false;
}

}  // namespace QenConfigManager

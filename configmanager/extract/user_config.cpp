// The user configuration as a document: mutable defaults that equal their
// default are dropped, and the telemetry form keeps only allow-listed keys.
#include <algorithm>
#include <map>

#include <boost/filesystem.hpp>

#include "CSLogger.h"
#include "HostRoot.h"
#include "QenConfigStore.h"
#include "extract/extraction_internal.h"

namespace QenConfigManager {

using QenSchemaStore::SchemaObjectId;

namespace {

// The default configuration the user configuration of `id` is compared with.
ConfigMapVector DefaultsOf(const SchemaObjectId& id,
                           const std::shared_ptr<DBStore::StoreConnection>& connection,
                           const std::shared_ptr<SchemaObject>& schema, bool smartnic) {
  ConfigStoreObjectId objectId(id.key, id.group, id.component);
  if (!smartnic) return GetExternalDefaultUserConfig(objectId, connection, schema);
  // The SmartNIC's defaults are its own, not the host's.
  ConfigMapVector defaults = QenConfigStore::GetDefaultSmartnicConfigMapList(objectId, connection);
  FilterSolutionUserInstances(defaults, schema);
  return defaults;
}

}  // namespace

void ProcessMutableDefaultConfig(ConfigMapList& list,
                                 const std::shared_ptr<DBStore::StoreConnection>& connection,
                                 const std::shared_ptr<QenSchemaStore::SchemaStore>& store,
                                 bool smartnic) {
  CSLogger::Log(3, "%s invoked", "ProcessMutableDefaultConfig");
  // Ordered, so that the first key reported as deleted does not depend on
  // hashing.
  std::map<SchemaObjectId, ConfigMapVector> groups;
  for (const SchemaObjectId& id : store->GetMutableDefaultConfigSchemas(smartnic)) groups[id];

  ConfigMapVector others;
  others.reserve(list->size());
  for (std::shared_ptr<ConfigMap>& map : *list) {
    auto group = groups.find(SchemaIdOf(*map));
    if (group == groups.end()) {
      others.push_back(std::move(map));
      continue;
    }
    CSLogger::Log(0, "Configuration found for mutableDefaultConfig schema %s",
                  group->first.toString().c_str());
    group->second.push_back(std::move(map));
  }
  list->swap(others);

  for (auto& entry : groups) {
    const std::string idText = entry.first.toString();
    ConfigMapVector& group = entry.second;
    if (group.empty()) ThrowException<ConfigManagerException>(DELETE_DEFAULT_NOT_SUPPORTED, idText);
    // A "DELETE_DEFAULT" marker is a deletion too, and no value to compare.
    for (const std::shared_ptr<ConfigMap>& map : group) StoredObject(*map).RejectDeletedDefault();

    CSLogger::Log(0, "Checking if mutableDefaultConfig schema %s has solution instances",
                  idText.c_str());
    std::shared_ptr<SchemaObject> schema = StoredObject(*group.front()).RequireSchema(store);
    FilterSolutionUserInstances(group, schema);
    if (group.empty()) ThrowException<ConfigManagerException>(DELETE_DEFAULT_NOT_SUPPORTED, idText);

    ConfigMapVector defaults = DefaultsOf(entry.first, connection, schema, smartnic);
    if (defaults.size() == group.size() &&
        ConfigStoreDocument::IsEqualValue(CreateDocumentFromMap(defaults)->GetDocument(),
                                          CreateDocumentFromMap(group)->GetDocument(),
                                          schema->GetSchemaJson())) {
      CSLogger::Log(0, "User configuration is same as default for mutableDefaultConfig schema %s ",
                    idText.c_str());
      continue;
    }
    list->insert(list->end(), group.begin(), group.end());
    CSLogger::Log(0, "User configuration is not same as default for mutableDefaultConfig schema %s ",
                  idText.c_str());
  }
}

std::unordered_set<std::string> LoadTelemetryAllowlist() {
  namespace fs = boost::filesystem;
  std::unordered_set<std::string> allowed;
  std::vector<fs::path> files;
  boost::system::error_code ec;
  fs::directory_iterator it(QenPlatform::HostPath(kTelemetryAllowlistDir), ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    boost::system::error_code statusError;
    if (fs::is_regular_file(it->status(statusError)) && it->path().extension() == ".json")
      files.push_back(it->path());
  }
  if (ec)
    CSLogger::Log(1, "Telemetry allowlist directory '%s' cannot be read: %s", kTelemetryAllowlistDir,
                  ec.message().c_str());
  // Directory order is arbitrary; the log should not be.
  std::sort(files.begin(), files.end());

  for (const fs::path& file : files) {
    const std::string name = file.filename().string();
    CSLogger::Log(3, "Loading telemetry allowlist %s from '%s'", name.c_str(), kTelemetryAllowlistDir);
    rapidjson::Document names;
    CreateDocumentFromFile((std::string(kTelemetryAllowlistDir) + name).c_str(), names);
    for (const rapidjson::Value& id : names.GetArray())
      allowed.emplace(id.GetString(), id.GetStringLength());
    CSLogger::Log(3, "Loaded configIDs from %s", name.c_str());
  }
  return allowed;
}

void ProcessConfigMapListTelemetry(rapidjson::Document& doc, const ConfigMapList& list,
                                   const std::shared_ptr<QenSchemaStore::SchemaStore>& store,
                                   const std::shared_ptr<ExtractionData>& pluginData) {
  CSLogger::Log(3, "%s invoked", "ProcessConfigMapListTelemetry");
  ConfigStoreDocument::AddProfile(doc);
  rapidjson::Document::AllocatorType& allocator = doc.GetAllocator();
  // In first-seen order, each once however many instances the key has.
  std::vector<SchemaObjectId> masked;

  for (const std::shared_ptr<ConfigMap>& map : *list) {
    StoredObject object(*map);
    object.Log(3, "was found.");
    std::shared_ptr<SchemaObject> schema = object.RequireSchema(store);
    if (object.IsSolutionInstance(*schema)) {
      object.Log(3, "was not extracted, since instance is created by a solution.");
      continue;
    }
    if (schema->IsNonSingleton() && ConfigStoreDocument::IsTelemetryDisabled(schema->GetSchemaJson())) {
      if (std::find(masked.begin(), masked.end(), object.schemaId) == masked.end())
        masked.push_back(object.schemaId);
      continue;
    }
    object.RejectDeletedDefault();
    rapidjson::Document value(&allocator);
    if (!PrepareStoredValue(value, object, ValueSchemaOf(*schema), DOC_TELEMETRY, pluginData,
                            allocator)) {
      object.Log(3, "was filtered out.");
      continue;
    }
    ConfigStoreDocument::AddObject(doc["profile"], object.component, object.group, object.name,
                                   object.identifier, value, allocator);
  }

  for (const SchemaObjectId& id : masked) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("telemetry_data", rapidjson::StringRef(kTelemetryRedactionText), allocator);
    ConfigStoreDocument::AddObject(doc["profile"], id.component, id.group, id.key, "id", entry,
                                   allocator);
  }
}

rapidjson::Document ExtractUserConfiguration(DocumentType type) {
  CSLogger::Log(3, "%s invoked", "ExtractUserConfiguration");
  SyncSshConfiguration();
  rapidjson::Document doc(rapidjson::kObjectType);

  std::shared_ptr<DBStore::StoreConnection> connection = QenConfigStore::GetDBStore(0, true);
  ConfigMapList list = QenConfigStore::GetUserConfigContents(connection);
  std::shared_ptr<ExtractionData> pluginData = ExtractPluginConfigurations();
  MergePluginConfigurations(list, pluginData);
  std::shared_ptr<QenSchemaStore::SchemaStore> store = RequireSchemaStore();
  ProcessMutableDefaultConfig(list, connection, store, false);

  if (type != DOC_TELEMETRY) {
    ProcessConfigMapList(doc, list, store, type, pluginData);
    return doc;
  }
  const std::unordered_set<std::string> allowed = LoadTelemetryAllowlist();
  list->erase(std::remove_if(list->begin(), list->end(),
                             [&allowed](const std::shared_ptr<ConfigMap>& map) {
                               const SchemaObjectId id = SchemaIdOf(*map);
                               return !allowed.count(id.component + "." + id.group + "." + id.key);
                             }),
              list->end());
  ProcessConfigMapListTelemetry(doc, list, store, pluginData);
  return doc;
}

}  // namespace QenConfigManager

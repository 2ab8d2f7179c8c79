// Internals of extraction, shared with the export and telemetry documents
// and with the tests.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "ConfigStoreDocument.h"
#include "QenSchemaStore.h"
#include "configmanager/extract.h"

namespace QenConfigManager {

// The podlet daemon's schema id, left out of documents when it is not
// integrated with the data-services platform.
extern const QenSchemaStore::SchemaObjectId podlet;

// The clean-up actions each kind of document gets, in order.
const std::vector<ConfigStoreDocument::CLEANUP_ACTIONS>& CleanupActionsFor(DocumentType type);

// Member `name` of a stored object's map ("" when absent).
const std::string& Member(const ConfigMap& map, const char* name);
// The schema identity (component, group, key) of a stored object's map.
QenSchemaStore::SchemaObjectId SchemaIdOf(const ConfigMap& map);

// One stored object of a map list on its way into a document. Refers to the
// map's strings: the map must outlive it.
struct StoredObject {
  explicit StoredObject(const ConfigMap& map);

  // "Configuration for {C/G/K/I} <what>" at `priority`.
  void Log(int priority, const char* what) const;
  // Throws 2027 for a user-deleted default ("DELETE_DEFAULT").
  void RejectDeletedDefault() const;
  // The key's schema; 2021 when it has none.
  std::shared_ptr<QenSchemaStore::SchemaObject> RequireSchema(
      const std::shared_ptr<QenSchemaStore::SchemaStore>& store) const;
  // Whether a solution, not a user, created this instance (never for
  // generated identifiers).
  bool IsSolutionInstance(const QenSchemaStore::SchemaObject& schema) const;

  const std::string& component;
  const std::string& group;
  const std::string& name;
  const std::string& identifier;
  const QenSchemaStore::SchemaObjectId schemaId;
  const std::string& value;
  const std::string& autoConfValue;
};

// The schema of one value of a key: the "items" node for instances.
const rapidjson::Value& ValueSchemaOf(const QenSchemaStore::SchemaObject& schema);

// Parses the object's stored value into `value` (InvalidArgumentException
// 2080 when it is not JSON), patches it from its automatic configuration
// unless an extract plugin produced it, and cleans it for `type`. False when
// the clean-up leaves an empty object.
bool PrepareStoredValue(rapidjson::Document& value, const StoredObject& object,
                        const rapidjson::Value& valueSchema, DocumentType type,
                        const std::shared_ptr<ExtractionData>& pluginData,
                        rapidjson::Document::AllocatorType& allocator);

// The schema store; 2180 when there is none.
std::shared_ptr<QenSchemaStore::SchemaStore> RequireSchemaStore();

// Synchronises the SSH files into the store; failures are logged, not thrown.
void SyncSshConfiguration();

// Runs every extract plugin and collects their valid objects.
std::shared_ptr<ExtractionData> ExtractPluginConfigurations();

// Replaces what the store listed for every plugin-served object with what
// the plugins returned.
void MergePluginConfigurations(ConfigMapList& list, const std::shared_ptr<ExtractionData>& data);

// Throws 2027 when a mutable-default key has no configuration in `list`.
void ProcessMutableDefaultDeletes(const ConfigMapList& list,
                                  const std::shared_ptr<QenSchemaStore::SchemaStore>& store);

// Adds every stored object of `list` to `doc`, shaped for `type` (not
// DOC_TELEMETRY, see ProcessConfigMapListTelemetry).
void ProcessConfigMapList(rapidjson::Document& doc, const ConfigMapList& list,
                          const std::shared_ptr<QenSchemaStore::SchemaStore>& store,
                          DocumentType type, const std::shared_ptr<ExtractionData>& pluginData);

// ---- user configuration, export, telemetry and SmartNIC documents

// Logical directory of the telemetry allowlists.
constexpr const char* kTelemetryAllowlistDir = "/usr/lib/corvane/configmanager/telemetry/";
// What a telemetry document holds in place of a telemetry-disabled key.
constexpr const char* kTelemetryRedactionText =
    "Configuration value cannot be exported for telemetry since it contains customer sensitive "
    "information.";

// Moves the configuration of every mutable-default key (of the host, or of
// the SmartNIC with `smartnic`) out of `list` and appends it again unless it
// equals the key's default. 2027 when a key has no user configuration left.
void ProcessMutableDefaultConfig(ConfigMapList& list,
                                 const std::shared_ptr<DBStore::StoreConnection>& connection,
                                 const std::shared_ptr<QenSchemaStore::SchemaStore>& store,
                                 bool smartnic);

// The dotted key names ("component.group.key") of every ".json" allowlist
// file. A missing or unreadable directory ends the scan.
std::unordered_set<std::string> LoadTelemetryAllowlist();

// Adds the telemetry form of `list` under doc["profile"]: telemetry-disabled
// non-singleton keys become one masked entry each.
void ProcessConfigMapListTelemetry(rapidjson::Document& doc, const ConfigMapList& list,
                                   const std::shared_ptr<QenSchemaStore::SchemaStore>& store,
                                   const std::shared_ptr<ExtractionData>& pluginData);

// Writes the reference host's BIOS UUID and version under
// "/metadata/reference_host".
void AddReferenceHostMetadata(const std::string& biosUuid, rapidjson::Document& doc);

}  // namespace QenConfigManager

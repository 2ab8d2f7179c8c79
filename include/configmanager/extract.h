// Extraction and export: the host's current, staged desired and user
// configuration as configuration documents, completed by what the extract
// plugins read from the running system; the exported document and its
// telemetry form, which leave the host; the SmartNIC configuration.
//
// Every call opens its own store connection and plugin manager and releases
// them before returning; only SetSmartnicConfiguration writes to the store.
// Not safe to run two calls that run plugins at once on one host (the plugin
// request and result files are fixed).
#pragma once

#include <memory>
#include <unordered_set>

#include "configmanager/common.h"

namespace QenConfigManager {

// How ProcessConfigMapList shapes a document.
enum DocumentType : int {
  DOC_CURRENT = 0,
  DOC_EXPORT = 1,
  DOC_DESIRED = 2,
  DOC_TELEMETRY = 3,
};

// What the extract plugins produced in one run.
struct QCM_EXPORT ExtractionData {
  // Every object some extract plugin declares, returned or not.
  std::unordered_set<QenSchemaStore::SchemaObjectId, QenSchemaStore::SchemaObjectIdHash> configIds;
  // One map per valid object the plugins returned, in plugin order.
  ConfigMapList configs = std::make_shared<ConfigMapVector>();
};

// The host's current configuration: components at the root. Throws
// ConfigManagerException 2027 (deleted mutable default), 2031 (extract
// plugin failure), InvalidArgumentException 2080 (unparsable stored value).
QCM_EXPORT std::shared_ptr<QenConfigStore::JsonDoc> ExtractCurrentConfiguration();

// The desired configuration staged in the store and not yet applied.
QCM_EXPORT std::shared_ptr<QenConfigStore::JsonDoc> ExtractDesiredConfiguration();

// Patches `config` in place from its automatic configuration values: missing
// required properties and missing union tags are filled from `autoConfValue`.
QCM_EXPORT void ProcessAutoConfig(rapidjson::Value& config, const rapidjson::Value& schema,
                                  const std::string& autoConfValue,
                                  rapidjson::Document::AllocatorType& allocator);

// The host's user configuration shaped for `type` (the SSH files are synced
// into the store first). A mutable-default key whose configuration equals
// its default is left out. DOC_EXPORT puts the objects under "profile";
// DOC_TELEMETRY keeps only the keys named by the telemetry allowlists
// ("/usr/lib/corvane/configmanager/telemetry/*.json"), redacts sensitive
// values and writes each telemetry-disabled non-singleton key as one masked
// entry. Throws as ExtractCurrentConfiguration; an allowlist that is not
// JSON is 2080 (path as argument), one that is not an array of strings 1082.
QCM_EXPORT rapidjson::Document ExtractUserConfiguration(DocumentType type);

// The normalised JSON text of the exported user configuration: host-specific
// values split into this host's "host-specific" section, and the reference
// host's BIOS UUID and version under "metadata"/"reference_host". Failures
// of the store family pass unchanged; any other becomes
// ConfigManagerException 3000 "ExportDocument failed: <reason>".
QCM_EXPORT std::string ExportDocument();
// The same with the telemetry form ("ExportDocumentTelemetry failed: ").
QCM_EXPORT std::string ExportDocumentTelemetry();

// The normalised JSON text of the SmartNIC's current configuration (objects
// at the root; mutable defaults equal to their default left out).
QCM_EXPORT std::string ExtractSmartnicConfiguration();
// Stages `documentText` as the SmartNIC's desired configuration, replacing
// what was staged. InvalidArgumentException 2080 when it is not JSON; the
// store's 2003 when it is not a configuration document.
QCM_EXPORT void SetSmartnicConfiguration(const std::string& documentText);

}  // namespace QenConfigManager

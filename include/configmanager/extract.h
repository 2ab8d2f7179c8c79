// Extraction: the host's current and staged desired configuration as
// configuration documents, completed by what the extract plugins read from
// the running system.
//
// Every call opens its own store connection and plugin manager and releases
// them before returning; nothing is written to the store. Not safe to run two
// calls that run plugins at once on one host (the plugin request and result
// files are fixed).
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

}  // namespace QenConfigManager

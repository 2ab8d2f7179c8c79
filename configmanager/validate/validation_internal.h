// Internals of document validation, shared with extraction and the tests.
#pragma once

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "QenConfigStore.h"
#include "QenSchemaStore.h"
#include "configmanager/plugin.h"
#include "configmanager/validate.h"

namespace QenConfigManager {

// Errors of one validation call, merged per path, and the objects
// (component, group, key) that failed the schema check.
struct ValidationErrorTable {
  std::unordered_map<std::string, ValidationErrorInfo> byPath;
  std::unordered_set<ConfigStoreObjectId, QenConfigStore::CsoIdHash> failedObjects;
};

// Adds validator error objects (an array) to `table`, one entry per path.
void CollectValidationErrors(const rapidjson::Value& errors, ValidationErrorTable& table);

// The configuration objects of `ids` that `value` (components at its root)
// holds: one per instance of an array, none for "DELETE_DEFAULT".
ConfigStoreObjectList BuildConfigStoreObjects(const rapidjson::Value& value,
                                              const ConfigStoreObjectIdList& ids,
                                              const std::shared_ptr<QenSchemaStore::SchemaCache>& cache);

}  // namespace QenConfigManager

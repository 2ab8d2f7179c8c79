// Fixed logical paths and helpers shared by the manifest, manager and
// manifest schema code. Internal.
#pragma once

#include <string>

#include "configmanager/common.h"

#include "QenConfigStore.h"

namespace QenConfigManager {

namespace PluginPaths {
constexpr const char* kPluginDirectory = "/usr/lib/corvane/configmanager/apply_modules/";
constexpr const char* kSchemaDirectory = "/usr/lib/corvane/configmanager/plugin_schemas/";
}  // namespace PluginPaths

// Splits "COMPONENT:GROUP:KEY" (runs of ":" count as one, pieces beyond the
// third are ignored). False when there are fewer than three pieces.
bool ParseObjectString(const std::string& text, QenConfigStore::ConfigStoreObjectId& out);

// Reads and parses the file at `path` (on this machine, not mapped) with the
// document library's nesting limit. Sets `opened` to whether the file could
// be opened; false when it could not be opened or is not one JSON document.
bool ReadJsonFile(const std::string& path, rapidjson::Document& doc, bool& opened);

// Validates a manifest against its schema with the validator codes manifests
// are checked with ({0, 1, 4, 8}, no prefix); fills `result` with the
// validator's error array.
void ValidateManifest(const rapidjson::Value& schema, const rapidjson::Value& manifest,
                      rapidjson::Document& result);

// Forgets the process's manifest schema table so that the next manifest
// rebuilds it (tests that install different schema files).
void ResetManifestSchemaTable();

}  // namespace QenConfigManager

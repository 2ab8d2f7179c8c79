// Plugin manifests: identity from the logical path, schema check, accessors.
#include <mutex>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "CSLogger.h"
#include "HostRoot.h"
#include "QenSchemaStore.h"
#include "configmanager/plugin.h"
#include "plugin/paths.h"

namespace QenConfigManager {

namespace {

// The manifest schema table, built from the host's schema directory on first
// use and kept for the process's life. A failed build is retried next time.
std::mutex g_schemaMutex;
std::shared_ptr<const PluginSchemaTable> g_schemaTable;

std::shared_ptr<const PluginSchemaTable> ManifestSchemaTable() {
  std::lock_guard<std::mutex> lock(g_schemaMutex);
  if (!g_schemaTable) {
    std::string error;
    auto table = std::make_shared<PluginSchemaTable>(
        CreatePluginSchemas(QenPlatform::HostPath(PluginPaths::kSchemaDirectory), error));
    if (!error.empty()) throw ConfigManagerException(UNEXPECTED_ERROR, error.c_str());
    g_schemaTable = std::move(table);
  }
  return g_schemaTable;
}

[[noreturn]] void RejectObjectString(const std::string& text) {
  ThrowException<ConfigManagerException>(INVALID_PLUGIN, text);
}

ConfigStoreObjectId ObjectFromString(const rapidjson::Value& text) {
  ConfigStoreObjectId id;
  std::string s = text.GetString();
  if (!ParseObjectString(s, id)) RejectObjectString(s);
  return id;
}

ConfigStoreObjectIdList ObjectsFromArray(const rapidjson::Value& array) {
  ConfigStoreObjectIdList ids;
  for (const auto& text : array.GetArray()) ids.push_back(ObjectFromString(text));
  return ids;
}

// The object strings of a manifest, wherever they may appear, must each name
// component, group and key; checked once so that no accessor meets a short one.
bool ObjectStringsWellFormed(const rapidjson::Value& manifest, std::string& bad) {
  auto check = [&](const rapidjson::Value& list) {
    if (!list.IsArray()) return true;
    ConfigStoreObjectId id;
    for (const auto& text : list.GetArray()) {
      if (text.IsString() && !ParseObjectString(text.GetString(), id)) {
        bad = text.GetString();
        return false;
      }
    }
    return true;
  };
  if (!manifest.IsObject()) return true;
  if (manifest.HasMember("accepts") && !check(manifest["accepts"])) return false;
  static const std::pair<const char*, const char*> kLists[] = {
      {"extract", "accepts"}, {"impact", "cache_drift"}, {"validation", "references"}};
  for (const auto& [section, member] : kLists) {
    auto it = manifest.FindMember(section);
    if (it == manifest.MemberEnd() || !it->value.IsObject()) continue;
    auto list = it->value.FindMember(member);
    if (list != it->value.MemberEnd() && !check(list->value)) return false;
  }
  return true;
}

}  // namespace

bool ParseObjectString(const std::string& text, ConfigStoreObjectId& out) {
  std::vector<std::string> pieces;
  boost::split(pieces, text, boost::is_any_of(":"), boost::token_compress_on);
  if (pieces.size() < 3) return false;
  out = ConfigStoreObjectId(pieces[2], pieces[1], pieces[0]);
  return true;
}

void ResetManifestSchemaTable() {
  std::lock_guard<std::mutex> lock(g_schemaMutex);
  g_schemaTable.reset();
}

PluginApplyOperation::~PluginApplyOperation() = default;

Plugin::Plugin(const char* filename) {
  if (filename == nullptr)
    throw ConfigManagerException(UNEXPECTED_ERROR, "Cannot create Plugin from NULL filename");
  CSLogger::Log(2, "Processing file %s", filename);
  CreateDocumentFromFile(filename, manifest);
  version = GetPluginVersion(manifest);
  validateFile(filename);

  std::vector<std::string> segments;
  std::string path(filename);
  boost::split(segments, path, boost::is_any_of("/"), boost::token_compress_on);
  const size_t n = segments.size();

  type = manifest["type"].GetString();
  const bool cpp = type == "c++";

  if (version > 3 || version < 0) {
    CSLogger::Log(0, "Invalid version found in: %s", filename);
    ThrowException<ConfigManagerException>(UNSUPPORTED_PLUGIN_VERSION, filename);
  }
  auto badPath = [&] {
    CSLogger::Log(0, "Invalid filepath %s for this version %ld", filename, static_cast<long>(version));
    ThrowException<ConfigManagerException>(INVALID_PLUGIN, filename);
  };
  if (version == 3 ? (n != 8 && n != 9) : (n != 10 && n != 11)) badPath();
  std::string bad;
  if (!ObjectStringsWellFormed(manifest, bad)) {
    CSLogger::Log(0, "Invalid object %s in %s", bad.c_str(), filename);
    ThrowException<ConfigManagerException>(INVALID_PLUGIN, filename);
  }

  if (version == 3) {
    if (n == 8) {
      id = segments[6];
      if (cpp) module = "lib" + segments[6] + ".so";
    } else {
      id = segments[6] + ":" + segments[7];
      if (cpp) module = "lib" + segments[6] + "_" + segments[7] + ".so";
    }
    csoIds = ObjectsFromArray(manifest["accepts"]);
  } else {
    id = segments[6] + ":" + segments[7] + ":" + segments[8];
    std::string lib = "lib" + segments[6] + "_" + segments[7] + "_" + segments[8];
    if (n == 11) {
      id += ":" + segments[9];
      lib += "_" + segments[9];
    }
    if (cpp) module = lib + ".so";
    csoIds.emplace_back(segments[8], segments[7], segments[6]);
  }

  if (!csoIds.empty()) {
    auto store = QenSchemaStore::SchemaStore::GetStore();
    const ConfigStoreObjectId& first = csoIds.front();
    if (store) schemaLabel = store->GetSchemaLabel(first.GetComponent(), first.GetGroup(), first.GetKey());
  }
}

Plugin::~Plugin() = default;

void Plugin::validateFile(const char* filename) const {
  std::shared_ptr<const PluginSchemaTable> schemas = ManifestSchemaTable();
  const std::string name = filename ? filename : "";
  auto schema = schemas->find(version);
  if (schema == schemas->end()) {
    throw ConfigManagerException(
        UNEXPECTED_ERROR, ("The version of the plugin defined in '" + name + "' which is " +
                           std::to_string(version) +
                           " does not have a matching hardcoded schema to use for validation")
                              .c_str());
  }
  rapidjson::Document result;
  ValidateManifest(*schema->second, manifest, result);
  std::string message = "Failed to validate the plugin defined in '" + name + "' , version " +
                        std::to_string(version) + ", errors: ";
  if (!result.IsArray()) {
    message += "The validation result is not an array";
    throw ConfigManagerException(UNEXPECTED_ERROR, message.c_str());
  }
  if (result.Empty()) return;
  for (auto& element : result.GetArray()) {
    if (!element.IsObject()) continue;
    for (auto m = element.MemberBegin(); m != element.MemberEnd();) {
      const std::string memberName(m->name.GetString(), m->name.GetStringLength());
      if (memberName == "error" || memberName == "errArgs") {
        ++m;
      } else {
        m = element.EraseMember(m);
      }
    }
  }
  std::string errors;
  SerializeValue(result, errors);
  message += errors;
  throw ConfigManagerException(UNEXPECTED_ERROR, message.c_str());
}

std::string Plugin::GetApplyGroup() const {
  CSLogger::Log(3, "Processing apply_group in version=%ld, module=%s,", static_cast<long>(version),
                module.c_str());
  if (version == 0 || version == 1) return manifest["apply_group"].GetString();
  if (version == 2 || version == 3) return manifest["apply"]["apply_group"].GetString();
  return std::string();
}

bool Plugin::HasApplyBootSupport() const {
  if (version == 0 || version == 1) return manifest["boot"].GetBool();
  if (version == 2 || version == 3) return manifest["apply"]["boot"].GetBool();
  return false;
}

bool Plugin::HasApplySupport() const {
  if (version == 2 || version == 3) return manifest.HasMember("apply");
  return true;
}

bool Plugin::SectionSupports(const char* section) const {
  if (version != 2 && version != 3) return false;
  if (!manifest.HasMember(section)) return false;
  return manifest[section]["supports"].GetBool();
}

bool Plugin::HasValidateSupport() const { return SectionSupports("validation"); }
bool Plugin::HasExtractSupport() const { return SectionSupports("extract"); }
bool Plugin::HasImpactSupport() const { return SectionSupports("impact"); }

void Plugin::GetRemediateOperation(PluginApplyOperation& operation) const {
  if (version != 3) return;
  const rapidjson::Value& remediate = manifest["apply"]["REMEDIATE"];
  operation.provides = remediate["provides"].GetString();
  operation.name = "REMEDIATE";
  for (const auto& d : remediate["depends"].GetArray()) operation.depends.emplace_back(d.GetString());
}

std::vector<PluginApplyOperation> Plugin::GetOperations() const {
  CSLogger::Log(3, "Processing apply_operations in version=%ld, module=%s,",
                static_cast<long>(version), module.c_str());
  std::vector<PluginApplyOperation> operations;
  const rapidjson::Value* ops = nullptr;
  if (version == 0 || version == 1) {
    ops = &manifest["operations"];
  } else if (version == 2 || version == 3) {
    ops = &manifest["apply"]["operations"];
  } else {
    return operations;
  }
  for (const auto& m : ops->GetObject()) {
    PluginApplyOperation op;
    op.name.assign(m.name.GetString(), m.name.GetStringLength());
    op.provides = m.value["provides"].GetString();
    for (const auto& d : m.value["depends"].GetArray()) op.depends.emplace_back(d.GetString());
    operations.push_back(std::move(op));
  }
  return operations;
}

bool Plugin::CheckType(PluginType pluginType) const {
  switch (pluginType) {
    case PLUGIN_APPLY:
      return HasApplySupport();
    case PLUGIN_APPLY_BOOT:
      return HasApplyBootSupport();
    case PLUGIN_EXTRACT:
      return HasExtractSupport();
    case PLUGIN_IMPACT:
      return HasImpactSupport();
    case PLUGIN_VALIDATE:
      return HasValidateSupport();
  }
  return false;
}

ConfigStoreObjectIdList Plugin::SectionObjects(const char* section, const char* member) const {
  auto list = manifest[section].FindMember(member);
  if (list == manifest[section].MemberEnd() || !list->value.IsArray()) return {};
  return ObjectsFromArray(list->value);
}

ConfigStoreObjectIdList Plugin::GetExtractConfigIds() const {
  if (!HasExtractSupport()) return {};
  const rapidjson::Value& extract = manifest["extract"];
  auto accepts = extract.FindMember("accepts");
  if (accepts == extract.MemberEnd() || !accepts->value.IsArray()) return csoIds;
  return ObjectsFromArray(accepts->value);
}

ConfigStoreObjectIdList Plugin::GetImpactCacheDetails() const {
  if (!HasImpactSupport()) return {};
  return SectionObjects("impact", "cache_drift");
}

ConfigStoreObjectIdList Plugin::GetReferences() const {
  if (!HasValidateSupport()) return {};
  return SectionObjects("validation", "references");
}

}  // namespace QenConfigManager

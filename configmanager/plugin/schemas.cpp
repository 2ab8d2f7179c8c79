// Manifest schema files: loading, vetting and the whole-directory check.
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem.hpp>

#include "JsonValidator.h"
#include "configmanager/plugin.h"
#include "plugin/paths.h"

namespace fs = boost::filesystem;

namespace {

const char* const kSchemaFiles[] = {"plugin_version_1_schema.json", "plugin_version_2_schema.json",
                                    "plugin_version_3_schema.json"};

// Sets `error` to before + path + after and returns -1.
int64_t Fail(std::string& error, const char* before, const std::string& path, const char* after) {
  error = std::string(before) + path + after;
  return -1;
}


void AddMessage(rapidjson::Document& report, const std::string& file, const std::string& message) {
  rapidjson::Value text(message, report.GetAllocator());
  AddValidationError(report, file, text);
}

}  // namespace

void QenConfigManager::ValidateManifest(const rapidjson::Value& schema,
                                        const rapidjson::Value& manifest,
                                        rapidjson::Document& result) {
  JsonValidator::Validate(schema, manifest, result, {0, 1, 4, 8}, "");
}

int64_t GetPluginVersion(const rapidjson::Value& manifest) {
  if (!manifest.IsObject()) return 1;
  auto it = manifest.FindMember("version");
  if (it == manifest.MemberEnd() || !it->value.IsInt64()) return 1;
  return it->value.GetInt64();
}

int64_t CreatePluginSchemaFromFile(const std::string& path, rapidjson::Document& schema,
                                   std::string& error) {
  bool opened = false;
  const bool parsed = QenConfigManager::ReadJsonFile(path, schema, opened);
  if (!opened) return Fail(error, "Failed to open the schema file \"", path, "\"");
  if (!parsed) return Fail(error, "Failed to parse the schema file \"", path, "\"");
  if (!schema.IsObject()) return Fail(error, "The schema ", path, " is not a JSON object");
  auto props = schema.FindMember("properties");
  if (props == schema.MemberEnd())
    return Fail(error, "The schema ", path, " does not have a property called \"properties\"");
  if (!props->value.IsObject())
    return Fail(error, "The schema ", path, "'s property \"properties\" is not a JSON object");
  auto version = props->value.FindMember("version");
  if (version == props->value.MemberEnd())
    return Fail(error, "The property \"version\" of the property \"properties\" from  the schema ",
                path, " does not exist");
  if (!version->value.IsObject())
    return Fail(error, "The property \"version\" of the property \"properties\" from the schema ",
                path, " is not a JSON object");
  auto minimum = version->value.FindMember("minimum");
  if (minimum == version->value.MemberEnd())
    return Fail(error, "The property \"version\" of the property \"properties\" from the schema ",
                path, " does not have a property called \"minimum\"");
  if (!minimum->value.IsInt64())
    return Fail(error,
                "The property \"minimum\" of the property \"version\" of the property \"properties\" "
                "from the schema ",
                path, " has a value whose type is not Int64");
  int64_t served = minimum->value.GetInt64();
  if (served < 1 || served > 3)
    return Fail(error,
                "The property \"minimum\" of the property \"version\" of the property \"properties\" "
                "from the schema ",
                path, " has a value whose type is Int64, but the value is not 1, 2 or 3");
  auto maximum = version->value.FindMember("maximum");
  if (maximum == version->value.MemberEnd())
    return Fail(error, "The property \"version\" of the property \"properties\" from the schema ",
                path, " does not have a property called \"maximum\"");
  if (!maximum->value.IsInt64())
    return Fail(error,
                "The property \"maximum\" of the property \"version\" of the property \"properties\" "
                "from the schema ",
                path, " has a value whose type is not Int64");
  return served;
}

PluginSchemaTable CreatePluginSchemas(std::string_view directory, std::string& error) {
  PluginSchemaTable table;
  for (const char* name : kSchemaFiles) {
    std::string path = (fs::path(std::string(directory)) / name).string();
    auto schema = std::make_shared<rapidjson::Document>();
    std::string fileError;
    int64_t version = CreatePluginSchemaFromFile(path, *schema, fileError);
    if (!fileError.empty()) {
      error = fileError;
      return PluginSchemaTable();
    }
    table[version] = std::move(schema);
  }
  return table;
}

void AddValidationError(rapidjson::Document& report, std::string_view file, rapidjson::Value& value) {
  auto& alloc = report.GetAllocator();
  rapidjson::Value element(rapidjson::kObjectType);
  element.AddMember("file", rapidjson::Value(file.data(), static_cast<rapidjson::SizeType>(file.size()), alloc),
                    alloc);
  element.AddMember("validation_errors", value, alloc);
  report.PushBack(element, alloc);
}

namespace {

void ValidateOneManifest(const PluginSchemaTable& schemas, const std::string& path,
                         rapidjson::Document& report) {
  rapidjson::Document manifest;
  bool opened = false;
  const bool parsed = QenConfigManager::ReadJsonFile(path, manifest, opened);
  if (!opened) {
    AddMessage(report, path, "Failed to open the plugin file \"" + path + "\"");
    return;
  }
  if (!parsed) {
    AddMessage(report, path, "Failed to parse the data from file \"" + path + "\"");
    return;
  }
  auto schema = schemas.find(GetPluginVersion(manifest));
  if (schema == schemas.end()) {
    AddMessage(report, path, "The version is not supported");
    return;
  }
  rapidjson::Document result;
  QenConfigManager::ValidateManifest(*schema->second, manifest, result);
  if (!result.IsArray()) {
    AddMessage(report, path, "Validate did not return a JSON Array");
  } else if (!result.Empty()) {
    rapidjson::Value errors(result, report.GetAllocator());
    AddValidationError(report, path, errors);
  }
}

}  // namespace

void ValidateAllPlugins(std::string_view manifestDir, std::string_view schemaDir,
                        rapidjson::Document& report) {
  std::string error;
  PluginSchemaTable schemas = CreatePluginSchemas(schemaDir, error);
  if (!error.empty()) {
    AddMessage(report, std::string(schemaDir), error);
    return;
  }
  fs::path root{std::string(manifestDir)};
  boost::system::error_code ec;
  fs::recursive_directory_iterator it(root, ec), end;
  while (!ec && it != end) {
    boost::system::error_code pathError;
    fs::path canonical = fs::weakly_canonical(it->path(), pathError);
    if (pathError) canonical = it->path();
    if (canonical.extension() == ".json") ValidateOneManifest(schemas, canonical.string(), report);
    it.increment(ec);
  }
  if (ec) {
    boost::system::error_code rootError;
    fs::path canonicalRoot = fs::weakly_canonical(root, rootError);
    if (rootError) canonicalRoot = root;
    AddMessage(report, canonicalRoot.string(),
               "Failed to iterate over " + canonicalRoot.string() + " recursively, error: " +
                   ec.message());
  }
}

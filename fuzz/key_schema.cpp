// Key schema files as the schema store loads them, and the loaded schema put
// to work: every accessor, then validation, comparison, clean-up and
// redaction of sample values under it (a schema node of the wrong shape is
// ignored by the document functions, never an error).
#include "ConfigStoreDocument.h"
#include "ConfigStoreException.h"
#include "JsonValidator.h"
#include "QenSchemaStore.h"
#include "support/Fuzz.h"

namespace QenFuzz {
namespace {

// Apart from the sample host's schemas, which the other targets use.
constexpr const char* kDir = "/fuzz-schemas/";
constexpr const char* kFile = "/fuzz-schemas/c/g/k.json";

constexpr const char* kValues[] = {
    R"({"name": "a", "v": 1, "password": "secret", "servers": ["192.0.2.1"], "mtu": 1500, "enabled": true,
        "nested": {"cs_generated_id": "x", "list": [1, 2, 2]}})",
    R"([{"name": "a", "v": 1}, {"name": "b", "cs_generated_id": "x"}, {"v": null}])",
};

void UseSchema(const QenSchemaStore::SchemaObject& schema) {
  (void)schema.GetId().toString();
  (void)schema.IsNonSingleton();
  (void)schema.GetInstanceIdField();
  (void)schema.GetSolutionUserInstances();
  (void)schema.GetUserConfigText();
  (void)schema.GetLabel();
  (void)schema.IsTelemetryDisabled();
  (void)schema.IsDspIntegrated();
  (void)schema.IsMutableDefault(false);
  (void)schema.IsMutableDefault(true);
  std::vector<std::string> operations;
  bool perProperty = false;
  schema.GetRebootOperations(operations, perProperty);
  schema.GetMaintenanceModeOperations(operations, perProperty);

  const rapidjson::Value& node = schema.GetSchemaJson();
  (void)ConfigStoreDocument::IsTelemetryDisabled(node);
  std::vector<ConfigStoreDocument::CLEANUP_ACTIONS> all;
  for (int a = 0; a < ConfigStoreDocument::kCleanupActionCount; ++a)
    all.push_back(static_cast<ConfigStoreDocument::CLEANUP_ACTIONS>(a));
  for (const char* text : kValues) {
    rapidjson::Document value;
    value.Parse(text);
    rapidjson::Document errors;
    JsonValidator::Validate(node, value, errors, {}, "");
    Check(errors.IsArray(), "validation errors are a list");
    Check(ConfigStoreDocument::IsEqualValue(value, value, node), "a value equals itself");
    (void)ConfigStoreDocument::RedactAndSerializeValue(node, value);
    ConfigStoreDocument::CleanupObject(value, node, all, value.GetAllocator());
  }
}

}  // namespace

int KeySchema(const uint8_t* data, size_t size) {
  Host();
  WriteHostFile(kFile, Text(data, size));
  std::shared_ptr<QenSchemaStore::SchemaStore> store;
  try {
    store = QenSchemaStore::SchemaStore::Load(kDir);
  } catch (const QenConfigStore::ConfigStoreException& e) {
    Check(e.GetErrorCode() == QenSchemaStore::kSchemaStoreErrorCode, "a bad schema file is 2180");
    return 0;
  }
  Check(store != nullptr, "the directory exists");
  for (const auto& schema : store->GetSchemaCache()->GetSchemas()) {
    UseSchema(*schema);
    const QenSchemaStore::SchemaObjectId& id = schema->GetId();
    Check(store->GetSchema(id) == schema, "a loaded schema is found by its id");
  }
  return 0;
}

}  // namespace QenFuzz

// The compliance check: the drift walk with a handler that records every
// difference as an entry of a ComplianceResult.
#include <cstring>

#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "drift/Compliance.h"

namespace QenConfigManager {
namespace {

constexpr const char* kInstallerPath = "/qen/system/installer";

rapidjson::Value& Entries(ComplianceResult& result, const char* array) {
  return result.details[array];
}

void AddRedacted(rapidjson::Document& doc, rapidjson::Value& entry, const char* member,
                 const rapidjson::Value& schemaNode, const rapidjson::Value& value) {
  if (value.IsNull()) return;
  rapidjson::Value text(ConfigStoreDocument::RedactAndSerializeValue(schemaNode, value),
                        doc.GetAllocator());
  entry.AddMember(rapidjson::StringRef(member), text, doc.GetAllocator());
}

}  // namespace

void populateResult(rapidjson::Document& doc, const std::string& path, rapidjson::Value& entry) {
  rapidjson::Value text(path, doc.GetAllocator());
  entry.AddMember(rapidjson::StringRef("path"), text, doc.GetAllocator());
}

CheckComplianceHandler::CheckComplianceHandler(ComplianceResult* result) : result(result) {
  result->compliant = true;
  rapidjson::Document& details = result->details;
  // A fresh document drops the previous call's entries and their memory.
  rapidjson::Document().Swap(details);
  details.SetObject();
  for (const char* array : {"ADDS", "DELETES", "SETS"})
    details.AddMember(rapidjson::StringRef(array), rapidjson::Value(rapidjson::kArrayType),
                      details.GetAllocator());
}

CheckComplianceHandler::~CheckComplianceHandler() = default;

void CheckComplianceHandler::Add(const rapidjson::Value& desiredValue, const ConfigStoreObjectId&,
                                 const std::shared_ptr<SchemaObject>& schema,
                                 const std::string& path) {
  CSLogger::Log(2, "ADD drift detected at %s", path.c_str());
  result->compliant = false;
  rapidjson::Document& doc = result->details;
  rapidjson::Value entry(rapidjson::kObjectType);
  populateResult(doc, path, entry);
  AddRedacted(doc, entry, "desiredValue", schema->GetSchemaJson(), desiredValue);
  Entries(*result, "ADDS").PushBack(entry, doc.GetAllocator());
}

void CheckComplianceHandler::Set(const rapidjson::Value& desiredValue,
                                 const rapidjson::Value& hostValue, const ConfigStoreObjectId&,
                                 const std::shared_ptr<SchemaObject>& schema,
                                 const std::string& path, const rapidjson::Value&) {
  CSLogger::Log(2, "SET drift detected at %s", path.c_str());
  result->compliant = false;
  rapidjson::Document& doc = result->details;
  rapidjson::Value entry(rapidjson::kObjectType);
  populateResult(doc, path, entry);
  AddRedacted(doc, entry, "hostValue", schema->GetSchemaJson(), hostValue);
  AddRedacted(doc, entry, "desiredValue", schema->GetSchemaJson(), desiredValue);
  // Without consolidated actions a Set only comes for a key that the host
  // lacks: it is an addition.
  Entries(*result, "ADDS").PushBack(entry, doc.GetAllocator());
}

void CheckComplianceHandler::Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId&,
                                    const std::shared_ptr<SchemaObject>& schema,
                                    const std::string& path) {
  CSLogger::Log(2, "DELETE drift detected at %s", path.c_str());
  result->compliant = false;
  rapidjson::Document& doc = result->details;
  rapidjson::Value entry(rapidjson::kObjectType);
  populateResult(doc, path, entry);
  AddRedacted(doc, entry, "hostValue", schema->GetSchemaJson(), hostValue);
  Entries(*result, "DELETES").PushBack(entry, doc.GetAllocator());
}

void CheckComplianceHandler::PropertyDrift(const rapidjson::Value& desiredValue,
                                           const rapidjson::Value& hostValue,
                                           const rapidjson::Value& propertySchema,
                                           const std::string& path, ACTION action) {
  // The installer's own settings differ between hosts by design.
  if (path.find(kInstallerPath) != std::string::npos) return;
  CSLogger::Log(2, "Property-level drift detected at %s", path.c_str());
  result->compliant = false;

  const rapidjson::Value* type = &propertySchema["type"];
  if (std::strcmp(type->GetString(), "array") == 0) type = &propertySchema["items"]["type"];
  // Only objects (and arrays of them) are added or deleted as a whole; a
  // scalar property that differs in any way is a change.
  if (std::strcmp(type->GetString(), "object") != 0) action = SET;

  rapidjson::Document& doc = result->details;
  rapidjson::Value entry(rapidjson::kObjectType);
  populateResult(doc, path, entry);
  AddRedacted(doc, entry, "desiredValue", propertySchema, desiredValue);
  AddRedacted(doc, entry, "hostValue", propertySchema, hostValue);
  const char* array = action == ADD ? "ADDS" : action == DELETE ? "DELETES" : "SETS";
  Entries(*result, array).PushBack(entry, doc.GetAllocator());
}

void CheckCompliance(rapidjson::Document& desired, bool propertyLevel, ComplianceResult& result,
                     std::shared_ptr<TaskHandle> task) {
  CheckComplianceHandler handler(&result);
  handler.propertyLevelDrift = propertyLevel;
  // Desired instances the host lacks are always additions here.
  handler.checkDefaultUserConfig = false;
  ComputeDrift(desired, desired.GetAllocator(), handler);
  task->UpdateProgress(100.0f);
}

}  // namespace QenConfigManager

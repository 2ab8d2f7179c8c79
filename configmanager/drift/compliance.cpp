// The compliance check: the drift walk with a handler that records every
// difference as an entry of a ComplianceResult.
#include <cstring>
#include <initializer_list>
#include <utility>

#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "drift/compliance.h"

namespace QenConfigManager {
namespace {

constexpr const char* kInstallerPath = "/qen/system/installer";

// Marks the result non-compliant and appends to `array` an entry with the
// path and, in the order given, each side that is not null as redacted text.
void Record(ComplianceResult& result, const char* array, const std::string& path,
            const rapidjson::Value& schemaNode,
            std::initializer_list<std::pair<const char*, const rapidjson::Value*>> sides) {
  result.compliant = false;
  rapidjson::Document& doc = result.details;
  rapidjson::Value entry(rapidjson::kObjectType);
  populateResult(doc, path, entry);
  for (const auto& side : sides) {
    if (side.second->IsNull()) continue;
    rapidjson::Value text(ConfigStoreDocument::RedactAndSerializeValue(schemaNode, *side.second),
                          doc.GetAllocator());
    entry.AddMember(rapidjson::StringRef(side.first), text, doc.GetAllocator());
  }
  doc[array].PushBack(entry, doc.GetAllocator());
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
  CSLogger::Log(3, "ADD drift detected at %s", path.c_str());
  Record(*result, "ADDS", path, schema->GetSchemaJson(), {{"desiredValue", &desiredValue}});
}

void CheckComplianceHandler::Set(const rapidjson::Value& desiredValue,
                                 const rapidjson::Value& hostValue, const ConfigStoreObjectId&,
                                 const std::shared_ptr<SchemaObject>& schema,
                                 const std::string& path, const rapidjson::Value&) {
  CSLogger::Log(3, "SET drift detected at %s", path.c_str());
  // Without consolidated actions a Set only comes for a key that the host
  // lacks: it is an addition.
  Record(*result, "ADDS", path, schema->GetSchemaJson(),
         {{"hostValue", &hostValue}, {"desiredValue", &desiredValue}});
}

void CheckComplianceHandler::Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId&,
                                    const std::shared_ptr<SchemaObject>& schema,
                                    const std::string& path) {
  CSLogger::Log(3, "DELETE drift detected at %s", path.c_str());
  Record(*result, "DELETES", path, schema->GetSchemaJson(), {{"hostValue", &hostValue}});
}

void CheckComplianceHandler::PropertyDrift(const rapidjson::Value& desiredValue,
                                           const rapidjson::Value& hostValue,
                                           const rapidjson::Value& propertySchema,
                                           const std::string& path, ACTION action) {
  // The installer's own settings differ between hosts by design.
  if (path.find(kInstallerPath) != std::string::npos) return;
  CSLogger::Log(3, "Property-level drift detected at %s", path.c_str());

  const rapidjson::Value* type = &propertySchema["type"];
  if (std::strcmp(type->GetString(), "array") == 0) type = &propertySchema["items"]["type"];
  // Only objects (and arrays of them) are added or deleted as a whole; a
  // scalar property that differs in any way is a change.
  if (std::strcmp(type->GetString(), "object") != 0) action = SET;

  const char* array = action == ADD ? "ADDS" : action == DELETE ? "DELETES" : "SETS";
  Record(*result, array, path, propertySchema,
         {{"desiredValue", &desiredValue}, {"hostValue", &hostValue}});
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

// Validation of configuration documents and its results.
//
// ValidationErrorInfo and ValidationResult are plain value records, copied
// and moved freely; a result is filled by one thread during a call.
#pragma once

#include <string>
#include <vector>

#include "configmanager/common.h"

namespace QenConfigManager {

// The problems found at one path of a configuration document.
class QCM_EXPORT ValidationErrorInfo {
 public:
  ValidationErrorInfo() = default;
  ValidationErrorInfo(std::string path, std::vector<ErrorInfo> messages)
      : path(std::move(path)), messages(std::move(messages)) {}

  // Fills `out` (an empty object): {"path": ..., "messages": [ErrorInfo...]}.
  void convertToJson(rapidjson::Value& out, rapidjson::Document::AllocatorType& allocator) const;

  std::string path;
  std::vector<ErrorInfo> messages;
};

// The outcome of a validation: per-path errors and the error of a failed
// validation plugin (empty unless one failed or the task was aborted).
class QCM_EXPORT ValidationResult {
 public:
  // Compact JSON: {"pluginErr": {...}, "errors": [...]}, each member only
  // when set; "{}" for a clean result.
  std::string Serialize() const;

  std::vector<ValidationErrorInfo> errors;
  ErrorInfo pluginError;
};

}  // namespace QenConfigManager

// ---- document validation ----------------------------------------------------

#include <set>
#include <variant>

namespace QenConfigStore {
class ConfigStoreObject;
}

namespace QenConfigManager {

// Validator codes that each check does not want reported.
QCM_EXPORT extern const std::set<int> DOCUMENT_CODE_SET;
QCM_EXPORT extern const std::set<int> CSO_CODE_SET;
QCM_EXPORT extern const std::set<int> AUTOCONF_CODE_SET;

// The schema document of `doc` for this host (its profile plus the
// "host-specific" and "host-override" sections named by this host's BIOS
// UUID, in any letter case), or the errors the schema store reported.
QCM_EXPORT std::variant<rapidjson::Document, std::vector<ValidationErrorInfo>>
GenerateHostDocumentSchema(const rapidjson::Value& doc);

// Validates `doc` (or its "profile") against `schemaDoc` when
// `validateSchema`, then with every validation plugin whose objects are in
// the document and passed the schema check. Results land in `result`; a
// failing plugin or an abort stops validation with `result.pluginError` set.
QCM_EXPORT void Validate(const rapidjson::Document& doc, const rapidjson::Document& schemaDoc,
                         const std::string& context, ValidationResult& result,
                         bool validateSchema, std::shared_ptr<TaskHandle> task);

// Whether the object's value satisfies the key's schema; the failures are
// logged.
QCM_EXPORT bool IsValidCSO(const std::shared_ptr<QenSchemaStore::SchemaObject>& schema,
                           const std::shared_ptr<QenConfigStore::ConfigStoreObject>& object);

}  // namespace QenConfigManager

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

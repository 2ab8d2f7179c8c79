// JSON form of validation results.
#include "configmanager/validate.h"

namespace QenConfigManager {

void ValidationErrorInfo::convertToJson(rapidjson::Value& out,
                                        rapidjson::Document::AllocatorType& allocator) const {
  out.AddMember("path", rapidjson::Value(path, allocator), allocator);
  rapidjson::Value list(rapidjson::kArrayType);
  for (const ErrorInfo& message : messages) {
    rapidjson::Value entry(rapidjson::kObjectType);
    message.convertToJson(entry, allocator);
    list.PushBack(entry, allocator);
  }
  out.AddMember("messages", list, allocator);
}

std::string ValidationResult::Serialize() const {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& allocator = doc.GetAllocator();
  if (!pluginError.IsEmpty()) {
    rapidjson::Value error(rapidjson::kObjectType);
    pluginError.convertToJson(error, allocator);
    doc.AddMember("pluginErr", error, allocator);
  }
  if (!errors.empty()) {
    rapidjson::Value list(rapidjson::kArrayType);
    for (const ValidationErrorInfo& info : errors) {
      rapidjson::Value entry(rapidjson::kObjectType);
      info.convertToJson(entry, allocator);
      list.PushBack(entry, allocator);
    }
    doc.AddMember("errors", list, allocator);
  }
  std::string text;
  SerializeValue(doc, text);
  return text;
}

}  // namespace QenConfigManager

// JSON form of validation results.
#include "configmanager/validate.h"

namespace QenConfigManager {

namespace {

// An array holding one object per item, each filled by the item's convertToJson.
template <typename T>
rapidjson::Value ToJsonArray(const std::vector<T>& items,
                             rapidjson::Document::AllocatorType& allocator) {
  rapidjson::Value list(rapidjson::kArrayType);
  for (const T& item : items) {
    rapidjson::Value entry(rapidjson::kObjectType);
    item.convertToJson(entry, allocator);
    list.PushBack(entry, allocator);
  }
  return list;
}

}  // namespace

void ValidationErrorInfo::convertToJson(rapidjson::Value& out,
                                        rapidjson::Document::AllocatorType& allocator) const {
  out.AddMember("path", rapidjson::Value(path, allocator), allocator);
  out.AddMember("messages", ToJsonArray(messages, allocator), allocator);
}

std::string ValidationResult::Serialize() const {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& allocator = doc.GetAllocator();
  if (!pluginError.IsEmpty()) {
    rapidjson::Value error(rapidjson::kObjectType);
    pluginError.convertToJson(error, allocator);
    doc.AddMember("pluginErr", error, allocator);
  }
  if (!errors.empty()) doc.AddMember("errors", ToJsonArray(errors, allocator), allocator);
  std::string text;
  SerializeValue(doc, text);
  return text;
}

}  // namespace QenConfigManager

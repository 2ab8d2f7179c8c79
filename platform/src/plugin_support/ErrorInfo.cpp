// ErrorInfo's JSON form: {"msgId": "...", "args": ["..."], "message": "..."}.
#include <utility>

#include "HostRoot.h"
#include "ResultFiles.h"

namespace QenPlatform {

QenConfigManager::ErrorInfo ErrorInfoFrom(const rapidjson::Value& value, const std::string& context) {
  if (!value.IsObject()) BadShape(context, "an error is not a JSON object");
  QenConfigManager::ErrorInfo info;
  info.msgId = StringMember(value, "msgId", true, context);
  if (const rapidjson::Value* args = ArrayMember(value, "args", context)) {
    for (const auto& arg : args->GetArray()) {
      if (!arg.IsString()) BadShape(context, "member \"args\" holds a non-string");
      info.args.emplace_back(arg.GetString(), arg.GetStringLength());
    }
  }
  info.message = StringMember(value, "message", false, context);
  return info;
}

QenConfigManager::ErrorInfo ResultError(const rapidjson::Value& result, const std::string& context) {
  auto it = result.FindMember("error");
  if (it == result.MemberEnd()) BadShape(context, "missing member \"error\"");
  return ErrorInfoFrom(it->value, context + ", member \"error\"");
}

std::string ResultFileName(const std::string& path) {
  return "plugin result file \"" + LogicalPath(path) + "\"";
}

}  // namespace QenPlatform

namespace QenConfigManager {

// Value semantics live here with the serialisation, so that everything that
// links only the platform (the C++ plugin runner) has the whole class.
ErrorInfo::ErrorInfo(const ErrorInfo& other)
    : msgId(other.msgId), args(other.args), message(other.message) {}

ErrorInfo::ErrorInfo(ErrorInfo&& other) noexcept
    : msgId(std::move(other.msgId)), args(std::move(other.args)), message(std::move(other.message)) {
  other.args.clear();
}

ErrorInfo& ErrorInfo::operator=(const ErrorInfo& other) {
  if (this != &other) {
    msgId = other.msgId;
    args = other.args;
    message = other.message;
  }
  return *this;
}

// Swaps the strings, takes over the list; the source's list is left empty.
ErrorInfo& ErrorInfo::operator=(ErrorInfo&& other) noexcept {
  if (this != &other) {
    msgId.swap(other.msgId);
    message.swap(other.message);
    args = std::move(other.args);
    other.args.clear();
  }
  return *this;
}

ErrorInfo::~ErrorInfo() = default;

void ErrorInfo::convertToJson(rapidjson::Value& out,
                              rapidjson::Document::AllocatorType& alloc) const {
  out.SetObject();
  out.AddMember("msgId", rapidjson::Value(msgId, alloc), alloc);
  rapidjson::Value list(rapidjson::kArrayType);
  for (const std::string& arg : args) list.PushBack(rapidjson::Value(arg, alloc), alloc);
  out.AddMember("args", list, alloc);
  out.AddMember("message", rapidjson::Value(message, alloc), alloc);
}

std::string ErrorInfo::Serialize() const {
  rapidjson::Document doc;
  convertToJson(doc, doc.GetAllocator());
  return QenPlatform::CompactJson(doc);
}

ErrorInfo ErrorInfo::FromJson(const rapidjson::Value& value) {
  return QenPlatform::ErrorInfoFrom(value, "ErrorInfo");
}

void ErrorInfo::Deserialize(const std::string& text) {
  rapidjson::Document doc;
  const QenPlatform::JsonParseResult parsed = QenPlatform::ParseJson(text, doc);
  if (!parsed) QenPlatform::BadShape("ErrorInfo", "not valid JSON: " + parsed.reason);
  *this = FromJson(doc);
}

ErrorInfo ErrorInfo::Load(const std::string& path) {
  rapidjson::Document doc;
  QenPlatform::ReadResultFile(path, doc);
  return QenPlatform::ResultError(doc, QenPlatform::ResultFileName(path));
}

}  // namespace QenConfigManager

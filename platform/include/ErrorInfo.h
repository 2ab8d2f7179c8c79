// A message identifier with its arguments and a message text: how failures
// of plugins and operations travel to the user, through task notifications
// and plugin result files. A plain value; not shared between threads.
//
// Declared here, in the platform, because the platform's plugin support
// library reads and writes its JSON form (ErrorInfo.cpp); the configuration
// manager's public header includes this one. Exported with default
// visibility, so that libraries built with hidden symbols share one class.
#pragma once

#include <list>
#include <string>

#include "QenJson.h"

namespace QenConfigManager {

class __attribute__((visibility("default"))) ErrorInfo {
 public:
  ErrorInfo() = default;
  ErrorInfo(std::string msgId, std::list<std::string> args, std::string message = std::string())
      : msgId(std::move(msgId)), args(std::move(args)), message(std::move(message)) {}
  ErrorInfo(const ErrorInfo& other);
  ErrorInfo(ErrorInfo&& other) noexcept;
  ErrorInfo& operator=(const ErrorInfo& other);
  // Swaps the strings, takes over the list; the source's list is left empty.
  ErrorInfo& operator=(ErrorInfo&& other) noexcept;
  ~ErrorInfo();

  bool IsEmpty() const { return msgId.empty(); }
  bool operator==(const ErrorInfo& o) const {
    return msgId == o.msgId && args == o.args && message == o.message;
  }

  // JSON form: {"msgId": "...", "args": ["..."], "message": "..."}.
  std::string Serialize() const;
  // Reads the JSON form; throws std::exception on text that is not one.
  void Deserialize(const std::string& text);
  // Reads an apply result file (physical path, {"error": {...}}); throws
  // std::exception when it cannot.
  static ErrorInfo Load(const std::string& path);
  void convertToJson(rapidjson::Value& out, rapidjson::Document::AllocatorType& alloc) const;
  // Reads the JSON form from a value; throws std::exception on a bad shape.
  static ErrorInfo FromJson(const rapidjson::Value& value);

  std::string msgId;
  std::list<std::string> args;
  std::string message;
};

}  // namespace QenConfigManager

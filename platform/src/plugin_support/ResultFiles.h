// Internal: reading and writing plugin result files and the member checks
// shared by the result readers.
#pragma once

#include <string>

#include "QenJson.h"
#include "ErrorInfo.h"

namespace QenPlatform {

constexpr int kResultReadFailed = 2000;  // file cannot be read
constexpr int kResultBadShape = 2003;    // not a result of the expected shape

// Parses the result file at physical `path`; its root must be an object.
// Throws ConfigStoreException naming the file.
void ReadResultFile(const std::string& path, rapidjson::Document& doc);

// Writes `text` to a new file at physical `path`, mode 0600 (CreatePrivateFile:
// what was there is removed, a symbolic link is never followed). Throws
// ConfigStoreException 2002.
void WritePrivateFile(const std::string& path, const std::string& text);

// Throws ConfigStoreException 2003 "<context>: <what>".
[[noreturn]] void BadShape(const std::string& context, const std::string& what);

// The string member `name` of object `value`; "" when absent and optional.
std::string StringMember(const rapidjson::Value& value, const char* name, bool required,
                         const std::string& context);

// The array member `name`, or null when it is absent.
const rapidjson::Value* ArrayMember(const rapidjson::Value& value, const char* name,
                                    const std::string& context);

// Reads the ErrorInfo JSON form; shape errors name `context`.
QenConfigManager::ErrorInfo ErrorInfoFrom(const rapidjson::Value& value, const std::string& context);

// The result file's required "error" member.
QenConfigManager::ErrorInfo ResultError(const rapidjson::Value& result, const std::string& context);

// "plugin result file \"<logical path>\"", the context of a file's messages.
std::string ResultFileName(const std::string& path);

}  // namespace QenPlatform

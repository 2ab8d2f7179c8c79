#include "ResultFiles.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ConfigStoreException.h"
#include "HostRoot.h"
#include "HostFiles.h"

namespace QenPlatform {

void BadShape(const std::string& context, const std::string& what) {
  throw QenConfigStore::ConfigStoreException(kResultBadShape, (context + ": " + what).c_str());
}

void ReadResultFile(const std::string& path, rapidjson::Document& doc) {
  const std::string name = ResultFileName(path);
  std::string text;
  if (!ReadWholeFile(path, text))
    throw QenConfigStore::ConfigStoreException(
        kResultReadFailed, ("cannot read " + name + ": " + std::strerror(errno)).c_str());
  const JsonParseResult parsed = ParseJson(text, doc);
  if (!parsed) BadShape(name, "not valid JSON: " + parsed.reason);
  if (!doc.IsObject()) BadShape(name, "not a JSON object");
}

void WritePrivateFile(const std::string& path, const std::string& text) {
  int fd = CreatePrivateFile(path);
  bool ok = fd >= 0 && WriteAll(fd, text.data(), text.size());
  int saved = errno;
  if (fd >= 0 && ::close(fd) != 0 && ok) {
    ok = false;
    saved = errno;
  }
  if (!ok)
    throw QenConfigStore::ConfigStoreException(
        2002, ("cannot write plugin result file \"" + LogicalPath(path) + "\": " +
               std::strerror(saved)).c_str());
}

std::string StringMember(const rapidjson::Value& value, const char* name, bool required,
                         const std::string& context) {
  auto it = value.FindMember(name);
  if (it == value.MemberEnd()) {
    if (required) BadShape(context, std::string("missing member \"") + name + "\"");
    return std::string();
  }
  if (!it->value.IsString()) BadShape(context, std::string("member \"") + name + "\" is not a string");
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

const rapidjson::Value* ArrayMember(const rapidjson::Value& value, const char* name,
                                    const std::string& context) {
  auto it = value.FindMember(name);
  if (it == value.MemberEnd()) return nullptr;
  if (!it->value.IsArray()) BadShape(context, std::string("member \"") + name + "\" is not an array");
  return &it->value;
}

}  // namespace QenPlatform

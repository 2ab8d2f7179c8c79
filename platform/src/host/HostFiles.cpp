#include "HostFiles.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "HostRoot.h"

namespace QenPlatform {

bool ReadWholeFile(const std::string& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  if (in.bad()) return false;
  out = ss.str();
  return true;
}

bool ReadHostJson(const std::string& logical, rapidjson::Document& doc, std::string* error) {
  std::string text;
  if (!ReadWholeFile(HostPath(logical), text)) {
    if (error) *error = "cannot read host file \"" + logical + "\": " + std::strerror(errno);
    return false;
  }
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) {
    if (error)
      *error = "host file \"" + logical + "\" is not valid JSON: " +
               rapidjson::GetParseError_En(doc.GetParseError()) + " at offset " +
               std::to_string(doc.GetErrorOffset());
    return false;
  }
  if (!doc.IsObject()) {
    if (error) *error = "host file \"" + logical + "\" is not a JSON object";
    return false;
  }
  return true;
}

}  // namespace QenPlatform

// Reading a JSON file: apart from the manifest code so that the plugin SDK,
// which reads its request with it, does not carry the manifest checks.
#include "HostFiles.h"
#include "plugin/paths.h"

bool QenConfigManager::ReadJsonFile(const std::string& path, rapidjson::Document& doc, bool& opened) {
  std::string text;
  return QenPlatform::ReadWholeFile(path, text, &opened) && QenPlatform::ParseJson(text, doc);
}

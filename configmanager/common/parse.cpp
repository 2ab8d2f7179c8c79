// Parsing JSON text into documents, apart from the file and store helpers so
// that code which only parses (plugins) carries nothing else.
#include "configmanager/common.h"

namespace QenConfigManager {

void ParseDocument(const std::string& text, rapidjson::Document& doc) {
  if (!QenPlatform::ParseJson(text, doc)) ThrowException<InvalidArgumentException>(PARSE_ERROR);
}

}  // namespace QenConfigManager

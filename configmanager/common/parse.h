// Internal: the one JSON parse of the configuration manager.
#pragma once

#include <string>

#include "QenJson.h"

namespace QenConfigManager {

// Parses one root value (white space around it only) into `doc`; false on
// any parse error, trailing content, or nesting deeper than 512 levels (the
// walks over documents recurse per level). The iterative reader keeps the
// parse itself off the call stack.
bool ParseJsonText(const std::string& text, rapidjson::Document& doc);

}  // namespace QenConfigManager

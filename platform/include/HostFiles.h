// Reading host files: the small JSON state files that stand in for the
// host's kernel and firmware interfaces, and whole files for any caller.
#pragma once

#include <string>

#include "QenJson.h"

namespace QenPlatform {

// Parses the file at logical path `logical` into `doc`. On failure returns
// false and sets `error` to a sentence naming the file.
bool ReadHostJson(const std::string& logical, rapidjson::Document& doc, std::string* error);

// Reads the whole file at physical path `path`; false when it cannot be read.
bool ReadWholeFile(const std::string& path, std::string& out);

}  // namespace QenPlatform

// Internals of the compliance check, shared with its tests.
#pragma once

#include <string>

#include "configmanager/drift.h"

namespace QenConfigManager {

// Adds "path" (a copy of `path`, from doc's allocator) to `entry`.
void populateResult(rapidjson::Document& doc, const std::string& path, rapidjson::Value& entry);

}  // namespace QenConfigManager

// Writing documents to host files, for the library's own callers that must
// know whether the write happened (CreateFileFromDocument does not report).
#pragma once

#include <string>

#include "QenJson.h"

namespace QenConfigManager {

// Replaces the host file at logical `path` by `doc` as compact JSON, owner-
// only, all at once: written beside it and renamed over it, so a reader (or
// a boot interrupted by a power cut) sees the old or the new content, never
// a part. False (errno set, nothing changed) when it cannot.
bool WriteDocumentFile(const std::string& path, const rapidjson::Value& doc);

}  // namespace QenConfigManager

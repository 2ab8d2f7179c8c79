// Configuration document functions: parsing, writing, comparing, building
// documents from store map lists.
#include <algorithm>
#include <unordered_set>

#include <boost/filesystem.hpp>

#include "CSLogger.h"
#include "HostFiles.h"
#include "HostRoot.h"
#include "common/document_files.h"
#include "configmanager/common.h"

namespace QenConfigManager {
namespace {

const std::string& MapMember(const std::shared_ptr<ConfigMap>& map, const std::string& name) {
  static const std::string kEmpty;
  if (!map) return kEmpty;
  auto it = map->find(name);
  return it == map->end() ? kEmpty : it->second;
}

}  // namespace

std::shared_ptr<QenConfigStore::JsonDoc> CreateDocument() {
  return std::make_shared<QenConfigStore::JsonDoc>();
}

std::shared_ptr<QenConfigStore::JsonDoc> CreateDocumentFromString(const std::string& text) {
  auto doc = CreateDocument();
  ParseDocument(text, doc->GetDocument());
  return doc;
}

void CreateDocumentFromFile(const char* path, rapidjson::Document& doc) {
  const std::string logical = path ? path : "";
  // A missing, unreadable or empty file reads as "", a parse error like any other.
  std::string text;
  if (!QenPlatform::ReadWholeFile(QenPlatform::HostPath(logical), text)) text.clear();
  if (!QenPlatform::ParseJson(text, doc)) ThrowException<ConfigManagerException>(PARSE_ERROR, logical);
}

bool WriteDocumentFile(const std::string& path, const rapidjson::Value& doc) {
  // Documents carry configuration values: the file is for the owner only.
  return QenPlatform::ReplaceFile(QenPlatform::HostPath(path), QenPlatform::CompactJson(doc), 0600);
}

void CreateFileFromDocument(const char* path, const rapidjson::Document& doc) {
  if (path) WriteDocumentFile(path, doc);
}

void SerializeValue(const rapidjson::Value& value, std::string& out) { out = QenPlatform::CompactJson(value); }

void AddMember(rapidjson::Document* doc, rapidjson::Value* object, const std::string& name,
               rapidjson::Value* value) {
  // Missing arguments fail in the JSON library's own checks, as a wrong type
  // does: a missing document has no allocator, a missing object is no
  // object, and a missing value is null.
  if (!doc) {
    rapidjson::Document source, taker(std::move(source));  // source is left without an allocator
    (void)source.GetAllocator();
  }
  rapidjson::Value absent;
  rapidjson::Value& target = object ? *object : absent;
  rapidjson::Value& moved = value ? *value : absent;
  auto& alloc = doc->GetAllocator();
  rapidjson::Value key(name.c_str(), static_cast<rapidjson::SizeType>(name.size()), alloc);
  target.AddMember(key, moved, alloc);
}

bool IsEqualArray(const rapidjson::Value& a, const rapidjson::Value& b) {
  if (!a.IsArray() || !b.IsArray() || a.Size() != b.Size()) return false;
  std::vector<bool> used(b.Size(), false);
  for (const auto& elem : a.GetArray()) {
    bool found = false;
    for (rapidjson::SizeType i = 0; i < b.Size(); ++i) {
      // RapidJSON's equality: objects regardless of member order, arrays in order.
      if (!used[i] && elem == b[i]) {
        used[i] = true;
        found = true;
        break;
      }
    }
    if (!found) return false;
  }
  return true;
}

std::shared_ptr<QenConfigStore::JsonDoc> CreateDocumentFromMap(const ConfigMapVector& maps) {
  auto result = CreateDocument();
  rapidjson::Document& out = result->GetDocument();
  if (maps.empty()) return result;
  if (maps.size() == 1 && MapMember(maps[0], "Identifier").empty()) {
    ParseDocument(MapMember(maps[0], "Value"), out);
    return result;
  }
  auto& alloc = out.GetAllocator();
  out.SetArray();
  out.Reserve(static_cast<rapidjson::SizeType>(maps.size()), alloc);
  for (const auto& map : maps) {
    // Parsed straight into the result's pool, so moving it in is the copy.
    rapidjson::Document element(&alloc);
    ParseDocument(MapMember(map, "Value"), element);
    out.PushBack(element.Move(), alloc);
  }
  return result;
}

void FilterSolutionUserInstances(ConfigMapVector& maps, std::shared_ptr<SchemaObject> schema) {
  if (maps.empty()) return;
  if (!schema) ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, std::string());
  if (!schema->IsNonSingleton() || schema->GetInstanceIdField() == "cs_generated_id") return;
  const std::vector<std::string> solution = schema->GetSolutionUserInstances();
  if (solution.empty()) return;
  const std::unordered_set<std::string> drop(solution.begin(), solution.end());
  maps.erase(std::remove_if(maps.begin(), maps.end(),
                            [&drop](const std::shared_ptr<ConfigMap>& map) {
                              return drop.count(MapMember(map, "Identifier")) != 0;
                            }),
             maps.end());
}

bool fileExists(const std::string& path) {
  boost::system::error_code ec;
  boost::filesystem::file_status st = boost::filesystem::status(QenPlatform::HostPath(path), ec);
  if (st.type() == boost::filesystem::file_not_found) return false;
  if (st.type() == boost::filesystem::status_error) {
    CSLogger::Log(0, "Failed to query the status of \"%s\", error code: %d, error message: \"%s\"",
                  path.c_str(), ec.value(), ec.message().c_str());
    return false;
  }
  return st.type() == boost::filesystem::regular_file;
}

}  // namespace QenConfigManager

std::string JsonToString(const rapidjson::Value& value) { return QenPlatform::PrettyJson(value); }

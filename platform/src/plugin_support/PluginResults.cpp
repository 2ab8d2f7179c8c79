#include "PluginSupport.h"

#include "ResultFiles.h"

namespace QenConfigManager {
namespace {

using QenPlatform::BadShape;
using QenPlatform::StringMember;
typedef rapidjson::Document::AllocatorType Allocator;

// A result's document: {"error": ...} plus the operation's members.
rapidjson::Document ResultDocument(const ErrorInfo& error) {
  rapidjson::Document doc(rapidjson::kObjectType);
  rapidjson::Value info;
  error.convertToJson(info, doc.GetAllocator());
  doc.AddMember("error", info, doc.GetAllocator());
  return doc;
}

void AddIdMembers(rapidjson::Value& out, const std::string& component, const std::string& group,
                  const std::string& key, const std::string& instanceId, Allocator& alloc) {
  out.AddMember("component", rapidjson::Value(component, alloc), alloc);
  out.AddMember("group", rapidjson::Value(group, alloc), alloc);
  out.AddMember("key", rapidjson::Value(key, alloc), alloc);
  out.AddMember("instanceId", rapidjson::Value(instanceId, alloc), alloc);
}

// Entry `index` of list `list`, which must be an object.
std::string EntryContext(const std::string& file, const char* list, rapidjson::SizeType index) {
  return file + ", " + list + "[" + std::to_string(index) + "]";
}

}  // namespace

void SaveErrorResult(const ErrorInfo& error, const std::string& path) {
  QenPlatform::WritePrivateFile(path, QenPlatform::CompactJson(ResultDocument(error)));
}

// ---- impact ------------------------------------------------------------------

std::string ImpactPluginResult::Serialize() const {
  rapidjson::Document doc = ResultDocument(errorInfo);
  Allocator& alloc = doc.GetAllocator();
  rapidjson::Value list(rapidjson::kArrayType);
  for (const ImpactPluginInfo& info : impacts) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("impact", info.impact, alloc);
    AddIdMembers(entry, info.component, info.group, info.key, info.instanceId, alloc);
    entry.AddMember("quickBootSupported", info.quickBootSupported, alloc);
    list.PushBack(entry, alloc);
  }
  doc.AddMember("impacts", list, alloc);
  return QenPlatform::CompactJson(doc);
}

void ImpactPluginResult::Save(const std::string& path) const {
  QenPlatform::WritePrivateFile(path, Serialize());
}

ImpactPluginResult ImpactPluginResult::Load(const std::string& path) {
  rapidjson::Document doc;
  QenPlatform::ReadResultFile(path, doc);
  const std::string file = QenPlatform::ResultFileName(path);
  ImpactPluginResult result;
  result.errorInfo = QenPlatform::ResultError(doc, file);
  if (const rapidjson::Value* list = QenPlatform::ArrayMember(doc, "impacts", file)) {
    for (rapidjson::SizeType i = 0; i < list->Size(); ++i) {
      const rapidjson::Value& entry = (*list)[i];
      const std::string where = EntryContext(file, "impacts", i);
      if (!entry.IsObject()) BadShape(where, "not a JSON object");
      ImpactPluginInfo info;
      auto impact = entry.FindMember("impact");
      if (impact == entry.MemberEnd() || !impact->value.IsInt() || impact->value.GetInt() < 0 ||
          impact->value.GetInt() > 2)
        BadShape(where, "member \"impact\" must be 0, 1 or 2");
      info.impact = impact->value.GetInt();
      info.component = StringMember(entry, "component", true, where);
      info.group = StringMember(entry, "group", true, where);
      info.key = StringMember(entry, "key", true, where);
      info.instanceId = StringMember(entry, "instanceId", false, where);
      auto quickBoot = entry.FindMember("quickBootSupported");
      if (quickBoot != entry.MemberEnd()) {
        if (!quickBoot->value.IsBool()) BadShape(where, "member \"quickBootSupported\" is not a boolean");
        info.quickBootSupported = quickBoot->value.GetBool();
      }
      result.impacts.push_back(std::move(info));
    }
  }
  return result;
}

// ---- extract -----------------------------------------------------------------

std::string ExtractPluginResult::Serialize() const {
  rapidjson::Document doc = ResultDocument(errorInfo);
  Allocator& alloc = doc.GetAllocator();
  rapidjson::Value list(rapidjson::kArrayType);
  for (const auto& object : objects) {
    if (!object) continue;
    const QenConfigStore::ConfigStoreObjectId& id = object->GetConfigStoreObjectId();
    rapidjson::Value entry(rapidjson::kObjectType);
    AddIdMembers(entry, id.GetComponent(), id.GetGroup(), id.GetKey(), id.GetInstanceId(), alloc);
    entry.AddMember("value", rapidjson::Value(object->GetJson(), alloc), alloc);
    list.PushBack(entry, alloc);
  }
  doc.AddMember("objects", list, alloc);
  return QenPlatform::CompactJson(doc);
}

void ExtractPluginResult::Save(const std::string& path) const {
  QenPlatform::WritePrivateFile(path, Serialize());
}

ExtractPluginResult ExtractPluginResult::Load(const std::string& path) {
  rapidjson::Document doc;
  QenPlatform::ReadResultFile(path, doc);
  const std::string file = QenPlatform::ResultFileName(path);
  ExtractPluginResult result;
  result.errorInfo = QenPlatform::ResultError(doc, file);
  if (const rapidjson::Value* list = QenPlatform::ArrayMember(doc, "objects", file)) {
    for (rapidjson::SizeType i = 0; i < list->Size(); ++i) {
      const rapidjson::Value& entry = (*list)[i];
      const std::string where = EntryContext(file, "objects", i);
      if (!entry.IsObject()) BadShape(where, "not a JSON object");
      const std::string component = StringMember(entry, "component", true, where);
      const std::string group = StringMember(entry, "group", true, where);
      const std::string key = StringMember(entry, "key", true, where);
      QenConfigStore::ConfigStoreObjectId id(key, group, component,
                                             StringMember(entry, "instanceId", false, where));
      auto value = entry.FindMember("value");
      if (value == entry.MemberEnd()) BadShape(where, "missing member \"value\"");
      auto object = std::make_shared<QenConfigStore::ConfigStoreObject>(id, value->value);
      object->SetOrdinal(i);
      result.objects.push_back(std::move(object));
    }
  }
  return result;
}

// ---- validation --------------------------------------------------------------

std::string ValidationPluginResult::Serialize() const {
  rapidjson::Document doc = ResultDocument(errorInfo);
  Allocator& alloc = doc.GetAllocator();
  rapidjson::Value list(rapidjson::kArrayType);
  for (const ValidationPluginObjectResult& object : results) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("name", rapidjson::Value(object.name, alloc), alloc);
    rapidjson::Value errors(rapidjson::kArrayType);
    for (const ErrorInfo& error : object.errors) {
      rapidjson::Value info;
      error.convertToJson(info, alloc);
      errors.PushBack(info, alloc);
    }
    entry.AddMember("errors", errors, alloc);
    list.PushBack(entry, alloc);
  }
  doc.AddMember("results", list, alloc);
  return QenPlatform::CompactJson(doc);
}

void ValidationPluginResult::Save(const std::string& path) const {
  QenPlatform::WritePrivateFile(path, Serialize());
}

ValidationPluginResult ValidationPluginResult::Load(const std::string& path) {
  rapidjson::Document doc;
  QenPlatform::ReadResultFile(path, doc);
  const std::string file = QenPlatform::ResultFileName(path);
  ValidationPluginResult result;
  result.errorInfo = QenPlatform::ResultError(doc, file);
  if (const rapidjson::Value* list = QenPlatform::ArrayMember(doc, "results", file)) {
    for (rapidjson::SizeType i = 0; i < list->Size(); ++i) {
      const rapidjson::Value& entry = (*list)[i];
      const std::string where = EntryContext(file, "results", i);
      if (!entry.IsObject()) BadShape(where, "not a JSON object");
      ValidationPluginObjectResult object;
      object.name = StringMember(entry, "name", true, where);
      if (const rapidjson::Value* errors = QenPlatform::ArrayMember(entry, "errors", where)) {
        for (const auto& error : errors->GetArray())
          object.errors.push_back(QenPlatform::ErrorInfoFrom(error, where));
      }
      result.results.push_back(std::move(object));
    }
  }
  return result;
}

}  // namespace QenConfigManager

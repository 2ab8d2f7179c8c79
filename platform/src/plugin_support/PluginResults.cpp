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

// The result text: {"error": ..., "<list>": [write(item, entry) for each item]}.
template <typename Items, typename Write>
std::string SerializeResult(const ErrorInfo& error, const char* list, const Items& items,
                            Write write) {
  rapidjson::Document doc = ResultDocument(error);
  Allocator& alloc = doc.GetAllocator();
  rapidjson::Value entries(rapidjson::kArrayType);
  for (const auto& item : items) {
    rapidjson::Value entry(rapidjson::kObjectType);
    if (write(item, entry, alloc)) entries.PushBack(entry, alloc);
  }
  doc.AddMember(rapidjson::StringRef(list), entries, alloc);
  return QenPlatform::CompactJson(doc);
}

// Reads the result file at `path`: its error, then read(entry, context, index)
// for every object of the optional array member `list`.
template <typename Read>
ErrorInfo LoadResult(const std::string& path, const char* list, Read read) {
  rapidjson::Document doc;
  QenPlatform::ReadResultFile(path, doc);
  const std::string file = QenPlatform::ResultFileName(path);
  ErrorInfo error = QenPlatform::ResultError(doc, file);
  if (const rapidjson::Value* entries = QenPlatform::ArrayMember(doc, list, file)) {
    for (rapidjson::SizeType i = 0; i < entries->Size(); ++i) {
      const std::string where = file + ", " + list + "[" + std::to_string(i) + "]";
      if (!(*entries)[i].IsObject()) BadShape(where, "not a JSON object");
      read((*entries)[i], where, i);
    }
  }
  return error;
}

}  // namespace

void SaveErrorResult(const ErrorInfo& error, const std::string& path) {
  QenPlatform::WritePrivateFile(path, QenPlatform::CompactJson(ResultDocument(error)));
}

// ---- impact ------------------------------------------------------------------

std::string ImpactPluginResult::Serialize() const {
  return SerializeResult(errorInfo, "impacts", impacts,
                         [](const ImpactPluginInfo& info, rapidjson::Value& entry, Allocator& alloc) {
                           entry.AddMember("impact", info.impact, alloc);
                           AddIdMembers(entry, info.component, info.group, info.key,
                                        info.instanceId, alloc);
                           entry.AddMember("quickBootSupported", info.quickBootSupported, alloc);
                           return true;
                         });
}

void ImpactPluginResult::Save(const std::string& path) const {
  QenPlatform::WritePrivateFile(path, Serialize());
}

ImpactPluginResult ImpactPluginResult::Load(const std::string& path) {
  ImpactPluginResult result;
  result.errorInfo = LoadResult(path, "impacts", [&result](const rapidjson::Value& entry,
                                                           const std::string& where,
                                                           rapidjson::SizeType) {
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
  });
  return result;
}

// ---- extract -----------------------------------------------------------------

std::string ExtractPluginResult::Serialize() const {
  return SerializeResult(
      errorInfo, "objects", objects,
      [](const std::shared_ptr<QenConfigStore::ConfigStoreObject>& object, rapidjson::Value& entry,
         Allocator& alloc) {
        if (!object) return false;
        const QenConfigStore::ConfigStoreObjectId& id = object->GetConfigStoreObjectId();
        AddIdMembers(entry, id.GetComponent(), id.GetGroup(), id.GetKey(), id.GetInstanceId(), alloc);
        entry.AddMember("value", rapidjson::Value(object->GetJson(), alloc), alloc);
        return true;
      });
}

void ExtractPluginResult::Save(const std::string& path) const {
  QenPlatform::WritePrivateFile(path, Serialize());
}

ExtractPluginResult ExtractPluginResult::Load(const std::string& path) {
  ExtractPluginResult result;
  result.errorInfo = LoadResult(path, "objects", [&result](const rapidjson::Value& entry,
                                                           const std::string& where,
                                                           rapidjson::SizeType index) {
    const std::string component = StringMember(entry, "component", true, where);
    const std::string group = StringMember(entry, "group", true, where);
    const std::string key = StringMember(entry, "key", true, where);
    QenConfigStore::ConfigStoreObjectId id(key, group, component,
                                           StringMember(entry, "instanceId", false, where));
    auto value = entry.FindMember("value");
    if (value == entry.MemberEnd()) BadShape(where, "missing member \"value\"");
    auto object = std::make_shared<QenConfigStore::ConfigStoreObject>(id, value->value);
    object->SetOrdinal(index);
    result.objects.push_back(std::move(object));
  });
  return result;
}

// ---- validation --------------------------------------------------------------

std::string ValidationPluginResult::Serialize() const {
  return SerializeResult(
      errorInfo, "results", results,
      [](const ValidationPluginObjectResult& object, rapidjson::Value& entry, Allocator& alloc) {
        entry.AddMember("name", rapidjson::Value(object.name, alloc), alloc);
        rapidjson::Value errors(rapidjson::kArrayType);
        for (const ErrorInfo& error : object.errors) {
          rapidjson::Value info;
          error.convertToJson(info, alloc);
          errors.PushBack(info, alloc);
        }
        entry.AddMember("errors", errors, alloc);
        return true;
      });
}

void ValidationPluginResult::Save(const std::string& path) const {
  QenPlatform::WritePrivateFile(path, Serialize());
}

ValidationPluginResult ValidationPluginResult::Load(const std::string& path) {
  ValidationPluginResult result;
  result.errorInfo = LoadResult(path, "results", [&result](const rapidjson::Value& entry,
                                                           const std::string& where,
                                                           rapidjson::SizeType) {
    ValidationPluginObjectResult object;
    object.name = StringMember(entry, "name", true, where);
    if (const rapidjson::Value* errors = QenPlatform::ArrayMember(entry, "errors", where)) {
      for (const auto& error : errors->GetArray())
        object.errors.push_back(QenPlatform::ErrorInfoFrom(error, where));
    }
    result.results.push_back(std::move(object));
  });
  return result;
}

}  // namespace QenConfigManager

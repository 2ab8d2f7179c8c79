// Creating documents and adding components, groups, members and objects.
#include "ConfigStoreException.h"
#include "DocumentInternal.h"

namespace ConfigStoreDocument {

using namespace detail;

void CreateDocument(const std::string& text, rapidjson::Document& doc) {
  static_assert(QenPlatform::kMaxJsonNesting == kMaxDepth, "one nesting limit for parsing and walking");
  const QenPlatform::JsonParseResult parsed = QenPlatform::ParseJson(text, doc);
  if (parsed.status == QenPlatform::JsonParseResult::kTooDeep) ThrowTooDeep();
  if (!parsed) {
    QenConfigStore::ConfigStoreException e(kParseErrorCode, "Failed to parse JSON String");
    e.AddArg(parsed.reason);
    throw e;
  }
}

std::unique_ptr<rapidjson::Document> CreateDocument(const std::string& text) {
  auto doc = std::make_unique<rapidjson::Document>();
  CreateDocument(text, *doc);
  return doc;
}

void AddProfile(rapidjson::Document& doc) {
  if (doc.IsNull()) doc.SetObject();
  if (!doc.IsObject()) Fail("a configuration document is not an object");
  auto it = doc.FindMember("profile");
  if (it == doc.MemberEnd()) {
    doc.AddMember("profile", Value(rapidjson::kObjectType), doc.GetAllocator());
  } else if (!it->value.IsObject()) {
    Fail("\"profile\" is not an object");
  }
}

namespace {

Value& ObjectMember(Value& parent, const std::string& name, Allocator& allocator,
                    const char* what) {
  if (parent.IsNull()) parent.SetObject();
  if (!parent.IsObject()) Fail(std::string("the parent of ") + what + " \"" + name + "\" is not an object");
  auto it = parent.FindMember(name.c_str());
  if (it != parent.MemberEnd()) {
    if (!it->value.IsObject()) Fail(std::string(what) + " \"" + name + "\" is not an object");
    return it->value;
  }
  parent.AddMember(Value(name.c_str(), static_cast<rapidjson::SizeType>(name.size()), allocator),
                   Value(rapidjson::kObjectType), allocator);
  return parent.MemberEnd()[-1].value;
}

}  // namespace

rapidjson::Value& AddComponent(rapidjson::Value& target, const std::string& component,
                               Allocator& allocator) {
  return ObjectMember(target, component, allocator, "component");
}

rapidjson::Value& AddGroup(rapidjson::Value& target, const std::string& component,
                           const std::string& group, Allocator& allocator) {
  return ObjectMember(AddComponent(target, component, allocator), group, allocator, "group");
}

void AddMember(rapidjson::Value& object, const std::string& name, rapidjson::Value& value,
               Allocator& allocator) {
  if (!object.IsObject()) Fail("member \"" + name + "\" added to a value that is not an object");
  auto it = object.FindMember(name.c_str());
  if (it != object.MemberEnd()) {
    it->value = value;
    return;
  }
  object.AddMember(Value(name.c_str(), static_cast<rapidjson::SizeType>(name.size()), allocator),
                   value, allocator);
}

void AddObject(rapidjson::Value& target, const std::string& component, const std::string& group,
               const std::string& key, const std::string& identifier, rapidjson::Value& value,
               Allocator& allocator) {
  Value& g = AddGroup(target, component, group, allocator);
  if (identifier.empty()) {
    AddMember(g, key, value, allocator);
    return;
  }
  auto it = g.FindMember(key.c_str());
  if (it == g.MemberEnd()) {
    Value instances(rapidjson::kArrayType);
    AddMember(g, key, instances, allocator);
    it = g.FindMember(key.c_str());
  }
  if (!it->value.IsArray()) Fail("key \"" + key + "\" with instances is not an array");
  it->value.PushBack(value, allocator);
}

bool IsDocumentEmpty(const rapidjson::Value& value) { return IsEmptyValue(value); }

bool IsTelemetryDisabled(const rapidjson::Value& schemaJson) {
  return IsTrue(&schemaJson, "telemetryDisabled") ||
         IsTrue(ItemsNode(&schemaJson), "telemetryDisabled");
}

}  // namespace ConfigStoreDocument

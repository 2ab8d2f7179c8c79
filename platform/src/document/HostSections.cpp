// Host identifiers, merge metadata, and the resolution and creation of the
// per-host sections of a configuration document ("host-specific",
// "host-override"). The rules are in README.md beside this file.
#include <cctype>
#include <cstring>
#include <vector>

#include "DocumentInternal.h"

namespace ConfigStoreDocument {

using namespace detail;

namespace {

const char kHostSpecific[] = "host-specific";
const char kHostOverride[] = "host-override";
const char kGeneratedId[] = "cs_generated_id";

// The key node of component/group/key inside `container`, which holds
// components either as a schema node ("properties" at every level) or as a
// plain map component -> group -> key -> schema.
const Value* KeyNodeIn(const Value* container, const std::string& c, const std::string& g,
                       const std::string& k) {
  if (!container || !container->IsObject()) return nullptr;
  const Value* n = ChildObject(ChildObject(container, "properties"), c.c_str());
  n = ChildObject(ChildObject(n, "properties"), g.c_str());
  n = ChildObject(ChildObject(n, "properties"), k.c_str());
  if (n) return n;
  n = ChildObject(ChildObject(ChildObject(container, c.c_str()), g.c_str()), k.c_str());
  return n;
}

// The key node in a generated schema document: under "profile" first, then
// the host sections (directly or one level down, per host), then at the root
// (a schema generated for components without "profile").
const Value* FindKeyNode(const Value& schema, const std::string& c, const std::string& g,
                         const std::string& k) {
  const Value* props = ChildObject(&schema, "properties");
  if (const Value* n = KeyNodeIn(ChildObject(props, "profile"), c, g, k)) return n;
  for (const char* section : {kHostSpecific, kHostOverride}) {
    const Value* s = ChildObject(props, section);
    if (const Value* n = KeyNodeIn(s, c, g, k)) return n;
    const Value* hosts = ChildObject(s, "properties");
    if (!hosts) continue;
    for (auto h = hosts->MemberBegin(); h != hosts->MemberEnd(); ++h) {
      if (const Value* n = KeyNodeIn(&h->value, c, g, k)) return n;
    }
  }
  if (const Value* n = KeyNodeIn(&schema, c, g, k)) return n;
  return KeyNodeIn(ChildObject(&schema, "profile"), c, g, k);
}

enum class MergeMode { kDeep, kReplace };

// The identifier of an instance under `idField`, or under "cs_generated_id"
// when it has none; null when it has neither as a string.
const Value* InstanceKey(const Value& instance, const std::string& idField) {
  if (!instance.IsObject()) return nullptr;
  if (!idField.empty()) {
    auto it = instance.FindMember(idField.c_str());
    if (it != instance.MemberEnd() && it->value.IsString()) return &it->value;
  }
  auto it = instance.FindMember(kGeneratedId);
  if (it != instance.MemberEnd() && it->value.IsString()) return &it->value;
  return nullptr;
}

void MergeObject(Value& target, Value& source, const Value* node, Allocator& allocator, int depth);

// Merges the instances of `source` into the array `target`: an instance whose
// identifier matches one of target's is merged into it (kDeep) or replaces it
// (kReplace); any other is appended unless an equal instance is there.
void MergeInstances(Value& target, Value& source, const std::string& idField, const Value* items,
                    MergeMode mode, Allocator& allocator, int depth) {
  CheckDepth(depth);
  if (source.IsObject()) {
    Value single(rapidjson::kArrayType);
    single.PushBack(source, allocator);
    source = single;
  }
  if (!source.IsArray()) Fail("host section value of an instance key is not an array");
  if (!target.IsArray()) {
    target = source;
    return;
  }
  static const Value kNoSchema;
  for (auto& instance : source.GetArray()) {
    const Value* id = InstanceKey(instance, idField);
    Value* match = nullptr;
    for (auto& existing : target.GetArray()) {
      const Value* eid = InstanceKey(existing, idField);
      if (id ? (eid && *eid == *id) : IsEqualValue(existing, instance, items ? *items : kNoSchema)) {
        match = &existing;
        break;
      }
    }
    if (!match) {
      target.PushBack(instance, allocator);
    } else if (id && mode == MergeMode::kDeep) {
      MergeObject(*match, instance, items, allocator, depth + 1);
    } else if (id) {
      *match = instance;
    }
  }
}

// Deep merge: members of `source` win; objects merge member by member and
// arrays of objects with an instance identifier merge per instance.
void MergeObject(Value& target, Value& source, const Value* node, Allocator& allocator, int depth) {
  CheckDepth(depth);
  if (!target.IsObject() || !source.IsObject()) {
    target = source;
    return;
  }
  node = ObjectNode(node);
  for (auto& m : source.GetObject()) {
    auto it = target.FindMember(m.name);
    if (it == target.MemberEnd()) {
      Value name(m.name, allocator);
      target.AddMember(name, m.value, allocator);
      continue;
    }
    const Value* prop = PropertyNode(node, m.name, &target);
    if (it->value.IsArray() && m.value.IsArray() && ItemsAreObjects(prop)) {
      MergeInstances(it->value, m.value, StringMember(prop, "instanceId"), ItemsNode(prop),
                     MergeMode::kDeep, allocator, depth + 1);
    } else {
      MergeObject(it->value, m.value, prop, allocator, depth + 1);
    }
  }
}

void MergeSection(Value& profile, Value& section, const std::string& sectionName,
                  const MergeMetadataProvider& provider, MergeMode mode, Allocator& allocator) {
  if (!section.IsObject()) Fail("\"" + sectionName + "\" of a host is not an object");
  for (auto& c : section.GetObject()) {
    if (!c.value.IsObject()) Fail("component \"" + ToString(c.name) + "\" is not an object");
    const std::string component = ToString(c.name);
    for (auto& g : c.value.GetObject()) {
      if (!g.value.IsObject()) Fail("group \"" + ToString(g.name) + "\" is not an object");
      const std::string group = ToString(g.name);
      Value& target = AddGroup(profile, component, group, allocator);
      for (auto& k : g.value.GetObject()) {
        const std::string key = ToString(k.name);
        auto it = target.FindMember(k.name);
        if (it == target.MemberEnd()) {
          Value name(k.name, allocator);
          target.AddMember(name, k.value, allocator);
          continue;
        }
        const Value* keySchema = provider.GetKeySchema(component, group, key);
        if (provider.IsNonSingleton(component, group, key) || it->value.IsArray() ||
            k.value.IsArray()) {
          MergeInstances(it->value, k.value, provider.GetInstanceIdField(component, group, key),
                         ItemsNode(keySchema), mode, allocator, 2);
        } else if (mode == MergeMode::kDeep) {
          MergeObject(it->value, k.value, keySchema, allocator, 2);
        } else {
          it->value = k.value;
        }
      }
    }
  }
}

}  // namespace

std::string NormalizeHostId(const std::string& hostId) {
  auto isSpace = [](char ch) { return std::isspace(static_cast<unsigned char>(ch)) != 0; };
  size_t begin = 0, end = hostId.size();
  while (begin < end && isSpace(hostId[begin])) ++begin;
  while (end > begin && isSpace(hostId[end - 1])) --end;
  if (end - begin >= 2 && hostId[begin] == '{' && hostId[end - 1] == '}') {
    ++begin;
    --end;
    while (begin < end && isSpace(hostId[begin])) ++begin;
    while (end > begin && isSpace(hostId[end - 1])) --end;
  }
  std::string out = hostId.substr(begin, end - begin);
  for (char& ch : out) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return out;
}

bool ValueExists(const rapidjson::Value& value, const std::string& name) {
  return value.IsObject() && value.FindMember(name.c_str()) != value.MemberEnd();
}

bool SchemaMergeMetadataProvider::IsNonSingleton(const std::string& component,
                                                 const std::string& group,
                                                 const std::string& key) const {
  const Value* node = FindKeyNode(schema_, component, group, key);
  const Value* type = Child(node, "type");
  return type && type->IsString() && std::strcmp(type->GetString(), "array") == 0;
}

std::string SchemaMergeMetadataProvider::GetInstanceIdField(const std::string& component,
                                                            const std::string& group,
                                                            const std::string& key) const {
  return StringMember(FindKeyNode(schema_, component, group, key), "instanceId");
}

const rapidjson::Value* SchemaMergeMetadataProvider::GetKeySchema(const std::string& component,
                                                                  const std::string& group,
                                                                  const std::string& key) const {
  return FindKeyNode(schema_, component, group, key);
}

void GetDocumentForHost(rapidjson::Document& doc, const std::string& hostId,
                        const MergeMetadataProvider& provider) {
  if (!doc.IsObject()) Fail("a configuration document is not an object");
  bool hasSections = false;
  for (const char* section : {kHostSpecific, kHostOverride}) {
    auto it = doc.FindMember(section);
    if (it == doc.MemberEnd()) continue;
    if (!it->value.IsObject()) Fail(std::string("\"") + section + "\" is not an object");
    hasSections = true;
  }
  if (!hasSections) return;
  Allocator& allocator = doc.GetAllocator();
  if (!doc.HasMember("profile")) doc.AddMember("profile", Value(rapidjson::kObjectType), allocator);
  if (!doc["profile"].IsObject()) Fail("\"profile\" is not an object");

  const std::string host = NormalizeHostId(hostId);
  for (const char* section : {kHostSpecific, kHostOverride}) {
    auto it = doc.FindMember(section);
    if (it == doc.MemberEnd() || host.empty()) continue;
    const MergeMode mode = std::strcmp(section, kHostSpecific) == 0 ? MergeMode::kDeep : MergeMode::kReplace;
    for (auto& h : it->value.GetObject()) {
      if (NormalizeHostId(ToString(h.name)) != host) continue;
      MergeSection(doc["profile"], h.value, section, provider, mode, allocator);
    }
  }
  doc.RemoveMember(kHostSpecific);
  doc.RemoveMember(kHostOverride);
}

}  // namespace ConfigStoreDocument

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

// ---- splitting ------------------------------------------------------------

namespace {

// Whether `node` or anything below it is marked "hostSpecific".
bool MarksHostSpecific(const Value* node, int depth) {
  if (!node || !node->IsObject() || depth > kMaxDepth) return false;
  if (IsTrue(node, "hostSpecific")) return true;
  if (const Value* props = ChildObject(node, "properties")) {
    for (auto& p : props->GetObject()) {
      if (MarksHostSpecific(&p.value, depth + 1)) return true;
    }
  }
  for (const char* keyword : kVariantKeywords) {
    const Value* variants = Child(node, keyword);
    if (!variants || !variants->IsArray()) continue;
    for (auto& v : variants->GetArray()) {
      if (MarksHostSpecific(&v, depth + 1)) return true;
    }
  }
  return MarksHostSpecific(ItemsNode(node), depth + 1) ||
         MarksHostSpecific(ChildObject(node, "additionalProperties"), depth + 1);
}

// Moves the host-specific parts of `value` into `out` (same shape, null when
// nothing moved). Returns true when the whole value is host-specific; the
// caller then moves it. Objects split per member, arrays of instances with a
// natural identifier per instance (the moved part keeps the identifier so
// that it merges back); any other array below a mark moves whole.
bool SplitValue(Value& value, const Value* node, Value& out, Allocator& allocator, int depth) {
  CheckDepth(depth);
  if (IsTrue(node, "hostSpecific")) return true;
  if (!MarksHostSpecific(node, 1)) return false;
  if (value.IsObject()) {
    const Value* objectNode = ObjectNode(node);
    Value moved(rapidjson::kObjectType);
    for (auto it = value.MemberBegin(); it != value.MemberEnd();) {
      Value sub;
      const Value* prop = PropertyNode(objectNode, it->name, &value);
      const bool whole = SplitValue(it->value, prop, sub, allocator, depth + 1);
      const bool emptied = !whole && !sub.IsNull() && IsEmptyValue(it->value) && it->value.IsObject();
      if (whole || emptied) {
        Value name(it->name, allocator);
        moved.AddMember(name, whole ? it->value : sub, allocator);
        it = value.EraseMember(it);
        continue;
      }
      if (!sub.IsNull()) {
        Value name(it->name, allocator);
        moved.AddMember(name, sub, allocator);
      }
      ++it;
    }
    if (moved.MemberCount() > 0) out = moved;
    return false;
  }
  if (!value.IsArray()) return false;
  const std::string idField = StringMember(node, "instanceId");
  if (!ItemsAreObjects(node) || idField.empty() || idField == kGeneratedId) return true;
  const Value* items = ItemsNode(node);
  if (IsTrue(items, "hostSpecific")) return true;
  Value moved(rapidjson::kArrayType);
  for (auto& instance : value.GetArray()) {
    auto id = instance.IsObject() ? instance.FindMember(idField.c_str()) : Value::MemberIterator();
    if (!instance.IsObject() || id == instance.MemberEnd() || !id->value.IsString()) continue;
    Value sub;
    SplitValue(instance, items, sub, allocator, depth + 1);
    if (sub.IsNull()) continue;
    Value name(idField.c_str(), static_cast<rapidjson::SizeType>(idField.size()), allocator);
    Value idCopy(id->value, allocator);
    sub.AddMember(name, idCopy, allocator);
    moved.PushBack(sub, allocator);
  }
  if (!moved.Empty()) out = moved;
  return false;
}

}  // namespace

void SplitDocument(const rapidjson::Value& schemaDoc, const std::string& hostId,
                   rapidjson::Document& doc) {
  if (!doc.IsObject()) Fail("a configuration document is not an object");
  const std::string host = NormalizeHostId(hostId);
  auto profile = doc.FindMember("profile");
  if (host.empty() || profile == doc.MemberEnd()) return;
  if (!profile->value.IsObject()) Fail("\"profile\" is not an object");
  Allocator& allocator = doc.GetAllocator();
  Value section(rapidjson::kObjectType);
  for (auto c = profile->value.MemberBegin(); c != profile->value.MemberEnd();) {
    if (!c->value.IsObject()) Fail("component \"" + ToString(c->name) + "\" is not an object");
    bool groupsRemoved = false;
    for (auto g = c->value.MemberBegin(); g != c->value.MemberEnd();) {
      if (!g->value.IsObject()) Fail("group \"" + ToString(g->name) + "\" is not an object");
      bool keysRemoved = false;
      for (auto k = g->value.MemberBegin(); k != g->value.MemberEnd();) {
        const Value* node = FindKeyNode(schemaDoc, ToString(c->name), ToString(g->name), ToString(k->name));
        Value sub;
        const bool whole = SplitValue(k->value, node, sub, allocator, 1);
        if (!whole && sub.IsNull()) {
          ++k;
          continue;
        }
        Value& target = AddGroup(section, ToString(c->name), ToString(g->name), allocator);
        Value name(k->name, allocator);
        const bool emptied = !whole && IsEmptyValue(k->value) && k->value.IsObject();
        target.AddMember(name, whole ? k->value : sub, allocator);
        if (whole || emptied) {
          k = g->value.EraseMember(k);
          keysRemoved = true;
        } else {
          ++k;
        }
      }
      // Only what the split emptied goes; empty groups the user wrote stay.
      const bool dropGroup = keysRemoved && g->value.ObjectEmpty();
      g = dropGroup ? c->value.EraseMember(g) : g + 1;
      groupsRemoved = groupsRemoved || dropGroup;
    }
    const bool dropComponent = groupsRemoved && c->value.ObjectEmpty();
    c = dropComponent ? profile->value.EraseMember(c) : c + 1;
  }
  if (section.ObjectEmpty()) return;
  auto sections = doc.FindMember(kHostSpecific);
  if (sections == doc.MemberEnd()) {
    doc.AddMember(rapidjson::StringRef(kHostSpecific), Value(rapidjson::kObjectType), allocator);
    sections = doc.FindMember(kHostSpecific);
  }
  if (!sections->value.IsObject()) Fail("\"host-specific\" is not an object");
  Value name(host.c_str(), static_cast<rapidjson::SizeType>(host.size()), allocator);
  auto existing = sections->value.FindMember(name);
  if (existing == sections->value.MemberEnd()) {
    sections->value.AddMember(name, section, allocator);
  } else {
    MergeObject(existing->value, section, nullptr, allocator, 1);
  }
}

}  // namespace ConfigStoreDocument

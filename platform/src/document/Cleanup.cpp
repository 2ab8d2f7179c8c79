// Clean-up actions and the repair of values from their automatic
// configuration. The meaning of every CLEANUP_ACTIONS value is in README.md.
#include <algorithm>
#include <cstring>
#include <set>
#include <string_view>
#include <vector>

#include "DocumentInternal.h"

namespace ConfigStoreDocument {

using namespace detail;

namespace {

const char kGeneratedId[] = "cs_generated_id";

bool NameIs(const Value& name, std::string_view text) {
  return std::string_view(name.GetString(), name.GetStringLength()) == text;
}

bool NameLess(const Value& x, const Value& y) {
  return std::string_view(x.GetString(), x.GetStringLength()) <
         std::string_view(y.GetString(), y.GetStringLength());
}

// Members an object must keep whatever its schema says of them: its
// instance identifier (inside an instance array), its union tag and, for
// the default-removal, its required members.
struct Keep {
  std::string_view instanceId;
  std::string discriminator;
  std::set<std::string, std::less<>> required;
};

void CollectRequired(const Value* node, std::set<std::string, std::less<>>& out, int depth) {
  if (!node || depth > kMaxDepth) return;
  if (const Value* r = Child(node, "required"); r && r->IsArray()) {
    for (auto& n : r->GetArray()) {
      if (n.IsString()) out.insert(ToString(n));
    }
  }
  for (const char* keyword : kVariantKeywords) {
    const Value* variants = Child(node, keyword);
    if (!variants || !variants->IsArray()) continue;
    for (auto& v : variants->GetArray()) CollectRequired(&v, out, depth + 1);
  }
}

class Cleaner {
 public:
  Cleaner(CLEANUP_ACTIONS action, Allocator& allocator) : action_(action), allocator_(allocator) {}

  void Clean(Value& v, const Value* node, std::string_view instanceId, int depth) {
    CheckDepth(depth);
    if (action_ == REDACT_SENSITIVE && IsTrue(node, "sensitive")) {
      v.SetString(kRedactedText, allocator_);
      return;
    }
    if (v.IsObject()) {
      CleanObject(v, ObjectNode(node), instanceId, depth);
    } else if (v.IsArray()) {
      CleanArray(v, node, depth);
    }
  }

 private:
  void CleanObject(Value& v, const Value* node, std::string_view instanceId, int depth) {
    Keep keep;
    keep.instanceId = instanceId;
    keep.discriminator = StringMember(node, "discriminator");
    if (action_ == REMOVE_DEFAULT_VALUES) CollectRequired(node, keep.required, 1);
    if (action_ == ADD_DEFAULT_VALUES) AddDefaults(v, node);
    const bool bottomUp = action_ == REMOVE_EMPTY_MEMBERS;
    if (!bottomUp) RemoveMembers(v, node, keep);
    const bool patternSecret = action_ == REDACT_SENSITIVE && PatternSensitive(node);
    for (auto& m : v.GetObject()) {
      if (m.value.IsObject() || m.value.IsArray() || action_ == REDACT_SENSITIVE) {
        const Value* prop = PropertyNode(node, m.name, &v);
        if (!prop && patternSecret) {
          m.value.SetString(kRedactedText, allocator_);
        } else {
          Clean(m.value, prop, std::string_view(), depth + 1);
        }
      }
    }
    if (bottomUp) RemoveMembers(v, node, keep);
    if (action_ == SORT_MEMBERS) SortMembers(v);
  }

  bool Removes(const Value::Member& m, const Value& object, const Value* node, const Keep& keep) {
    if (!keep.instanceId.empty() && NameIs(m.name, keep.instanceId)) return false;
    switch (action_) {
      case REMOVE_EMPTY_MEMBERS: return IsEmptyValue(m.value);
      case REMOVE_NULL_MEMBERS: return m.value.IsNull();
      case REMOVE_GENERATED_ID: return NameIs(m.name, kGeneratedId);
      case REMOVE_UNDESCRIBED_PROPERTIES: {
        // A listed property whose node is malformed still counts as described.
        const Value* listed = ChildObject(node, "properties");
        return !NameIs(m.name, kGeneratedId) && DescribesProperties(node) &&
               !PropertyNode(node, m.name, &object) && !(listed && listed->HasMember(m.name));
      }
      case REMOVE_READONLY_PROPERTIES:
        return IsTrue(PropertyNode(node, m.name, &object), "readOnly");
      case REMOVE_DEFAULT_VALUES: {
        if (NameIs(m.name, keep.discriminator) ||
            keep.required.count(std::string_view(m.name.GetString(), m.name.GetStringLength()))) {
          return false;
        }
        const Value* prop = PropertyNode(node, m.name, &object);
        const Value* def = Child(prop, "default");
        return def && IsEqualValue(m.value, *def, *prop);
      }
      case REDACT_SENSITIVE:
      case SORT_INSTANCES:
      case ADD_DEFAULT_VALUES:
      case SORT_MEMBERS:
        return false;
    }
    return false;
  }

  void RemoveMembers(Value& v, const Value* node, const Keep& keep) {
    // EraseMember keeps the order of the remaining members.
    for (auto it = v.MemberEnd(); it != v.MemberBegin();) {
      --it;
      if (Removes(*it, v, node, keep)) it = v.EraseMember(it);
    }
  }

  void AddDefaults(Value& v, const Value* node) {
    const Value* props = ChildObject(node, "properties");
    if (!props) return;
    for (auto& p : props->GetObject()) {
      const Value* def = Child(&p.value, "default");
      if (!def || v.FindMember(p.name) != v.MemberEnd()) continue;
      Value name(p.name, allocator_);
      Value copy;
      DeepCopy(copy, *def, allocator_);
      v.AddMember(name, copy, allocator_);
    }
  }

  void SortMembers(Value& v) {
    std::vector<Value::Member*> members;
    for (auto& m : v.GetObject()) members.push_back(&m);
    std::stable_sort(members.begin(), members.end(),
                     [](const Value::Member* x, const Value::Member* y) { return NameLess(x->name, y->name); });
    Value sorted(rapidjson::kObjectType);
    for (Value::Member* m : members) sorted.AddMember(m->name, m->value, allocator_);
    v = sorted;
  }

  void CleanArray(Value& v, const Value* node, int depth) {
    const Value* items = ItemsNode(node);
    const bool instances = ItemsAreObjects(node);
    std::string idField = instances ? StringMember(node, "instanceId") : std::string();
    // Natural identifiers are never removed; generated ones only by
    // REMOVE_GENERATED_ID.
    const std::string_view keep = idField == kGeneratedId ? std::string_view() : idField;
    for (auto& e : v.GetArray()) Clean(e, items, keep, depth + 1);
    if (action_ != SORT_INSTANCES || !instances) return;
    if (idField.empty()) idField = kGeneratedId;
    auto key = [&idField](const Value& e) -> const Value* {
      if (!e.IsObject()) return nullptr;
      auto it = e.FindMember(idField.c_str());
      return it != e.MemberEnd() && it->value.IsString() ? &it->value : nullptr;
    };
    std::vector<Value*> elements;
    for (auto& e : v.GetArray()) elements.push_back(&e);
    std::stable_sort(elements.begin(), elements.end(), [&key](const Value* x, const Value* y) {
      const Value* kx = key(*x);
      const Value* ky = key(*y);
      if (!kx || !ky) return kx && !ky;
      return NameLess(*kx, *ky);
    });
    Value sorted(rapidjson::kArrayType);
    sorted.Reserve(v.Size(), allocator_);
    for (Value* e : elements) sorted.PushBack(*e, allocator_);
    v = sorted;
  }

  CLEANUP_ACTIONS action_;
  Allocator& allocator_;
};

}  // namespace

void CleanupObject(rapidjson::Value& value, const rapidjson::Value& schema,
                   const std::vector<CLEANUP_ACTIONS>& actions, Allocator& allocator) {
  for (CLEANUP_ACTIONS action : actions) {
    if (action < 0 || action >= kCleanupActionCount) {
      Fail("unknown clean-up action " + std::to_string(static_cast<int>(action)));
    }
  }
  for (CLEANUP_ACTIONS action : actions) {
    Cleaner(action, allocator).Clean(value, &schema, std::string_view(), 1);
  }
}

// ---- patching -------------------------------------------------------------

namespace {

// `field` as a JSON Pointer; false when it is not one.
bool ParseField(const std::string& field, rapidjson::Pointer& pointer) {
  pointer = rapidjson::Pointer(field.c_str(), field.size());
  return pointer.IsValid();
}

// The value at the first `count` tokens of `pointer` below `root`, with the
// schema node that describes it when `node` is given.
Value* Resolve(Value& root, const rapidjson::Pointer& pointer, size_t count, const Value** node) {
  Value* v = &root;
  const Value* n = node ? *node : nullptr;
  for (size_t i = 0; i < count; ++i) {
    const rapidjson::Pointer::Token& t = pointer.GetTokens()[i];
    if (v->IsObject()) {
      Value name(rapidjson::StringRef(t.name, t.length));
      auto it = v->FindMember(name);
      if (it == v->MemberEnd()) return nullptr;
      n = PropertyNode(ObjectNode(n), name, v);
      v = &it->value;
    } else if (v->IsArray() && t.index != rapidjson::kPointerInvalidIndex && t.index < v->Size()) {
      n = ItemsNode(n);
      v = &(*v)[t.index];
    } else {
      return nullptr;
    }
  }
  if (node) *node = n;
  return v;
}

bool FillMissing(Value& target, const Value& source, Allocator& allocator) {
  if (!target.IsObject() || !source.IsObject()) return false;
  bool copied = false;
  for (auto& m : source.GetObject()) {
    if (target.FindMember(m.name) != target.MemberEnd()) continue;
    Value name(m.name, allocator);
    Value copy;
    DeepCopy(copy, m.value, allocator);
    target.AddMember(name, copy, allocator);
    copied = true;
  }
  return copied;
}

}  // namespace

bool PatchRequiredProperty(rapidjson::Value& value, const std::string& field,
                           const rapidjson::Value& autoValue, Allocator& allocator) {
  rapidjson::Pointer pointer;
  if (!ParseField(field, pointer)) return false;
  const Value* source = pointer.Get(autoValue);
  if (!source) return false;
  const size_t count = pointer.GetTokenCount();
  if (count == 0) return FillMissing(value, *source, allocator);
  Value* parent = Resolve(value, pointer, count - 1, nullptr);
  if (!parent || !parent->IsObject()) return false;
  const rapidjson::Pointer::Token& last = pointer.GetTokens()[count - 1];
  Value name(last.name, last.length, allocator);
  auto it = parent->FindMember(name);
  if (it != parent->MemberEnd()) return FillMissing(it->value, *source, allocator);
  Value copy;
  DeepCopy(copy, *source, allocator);
  parent->AddMember(name, copy, allocator);
  return true;
}

bool PatchUnionTagProperty(rapidjson::Value& value, const std::string& field,
                           const rapidjson::Value& autoValue, const rapidjson::Value& schema,
                           Allocator& allocator) {
  rapidjson::Pointer pointer;
  if (!ParseField(field, pointer)) return false;
  const size_t count = pointer.GetTokenCount();
  // `field` names the tag member (the validator's form) or the union object.
  const Value* node = &schema;
  Value* unionObject = Resolve(value, pointer, count, &node);
  std::string disc = StringMember(ObjectNode(node), "discriminator");
  size_t unionTokens = count;
  if (!unionObject || !unionObject->IsObject() || disc.empty()) {
    if (count == 0) return false;
    node = &schema;
    unionObject = Resolve(value, pointer, count - 1, &node);
    const rapidjson::Pointer::Token& last = pointer.GetTokens()[count - 1];
    disc = StringMember(ObjectNode(node), "discriminator");
    if (!unionObject || !unionObject->IsObject() || disc != std::string(last.name, last.length)) {
      return false;
    }
    unionTokens = count - 1;
  }
  std::vector<rapidjson::Pointer::Token> tokens(pointer.GetTokens(), pointer.GetTokens() + unionTokens);
  tokens.push_back({disc.c_str(), static_cast<rapidjson::SizeType>(disc.size()), rapidjson::kPointerInvalidIndex});
  const Value* source = rapidjson::Pointer(tokens.data(), tokens.size()).Get(autoValue);
  if (!source || source->IsObject() || source->IsArray()) return false;
  const Value* unionNode = ObjectNode(node);
  bool known = false;
  for (const char* keyword : kVariantKeywords) {
    const Value* variants = Child(unionNode, keyword);
    if (!variants || !variants->IsArray()) continue;
    for (auto& v : variants->GetArray()) known = known || VariantHasTag(v, disc.c_str(), *source);
  }
  if (!known) return false;
  Value tag(*source, allocator);
  AddMember(*unionObject, disc, tag, allocator);
  return true;
}

}  // namespace ConfigStoreDocument

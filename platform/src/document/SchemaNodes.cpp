#include <cstring>
#include <utility>
#include <vector>

#include "ConfigStoreException.h"
#include "DocumentInternal.h"

namespace ConfigStoreDocument {
namespace detail {

void Fail(const std::string& message) {
  throw QenConfigStore::ConfigStoreException(QenPlatform::kJsonErrorCode,
                                             ("JSON error: " + message).c_str());
}

}  // namespace detail

void ThrowTooDeep() { detail::Fail("value nested deeper than " + std::to_string(kMaxDepth) + " levels"); }

namespace detail {

bool DeeperThan(const Value& value, int limit) {
  std::vector<std::pair<const Value*, int>> stack;
  stack.emplace_back(&value, 1);
  while (!stack.empty()) {
    auto [v, depth] = stack.back();
    stack.pop_back();
    if (depth > limit) return true;
    if (v->IsObject()) {
      for (auto m = v->MemberBegin(); m != v->MemberEnd(); ++m) {
        if (m->value.IsObject() || m->value.IsArray()) stack.emplace_back(&m->value, depth + 1);
      }
    } else if (v->IsArray()) {
      for (auto e = v->Begin(); e != v->End(); ++e) {
        if (e->IsObject() || e->IsArray()) stack.emplace_back(&*e, depth + 1);
      }
    }
  }
  return false;
}

void DeepCopy(Value& target, const Value& source, Allocator& allocator) {
  if (DeeperThan(source, kMaxDepth)) ThrowTooDeep();
  target.CopyFrom(source, allocator);
}

const Value* Child(const Value* node, const char* name) {
  if (!node || !node->IsObject()) return nullptr;
  auto it = node->FindMember(name);
  return it == node->MemberEnd() ? nullptr : &it->value;
}

const Value* ChildObject(const Value* node, const char* name) {
  const Value* c = Child(node, name);
  return c && c->IsObject() ? c : nullptr;
}

bool IsTrue(const Value* node, const char* name) {
  const Value* c = Child(node, name);
  return c && c->IsBool() && c->GetBool();
}

std::string StringMember(const Value* node, const char* name) {
  const Value* c = Child(node, name);
  return c && c->IsString() ? ToString(*c) : std::string();
}

const char* const kVariantKeywords[3] = {"oneOf", "anyOf", "allOf"};

// Whether variant `variant` fixes the union tag `disc` to `tag`.
bool VariantHasTag(const Value& variant, const char* disc, const Value& tag) {
  const Value* tagNode = ChildObject(ChildObject(&variant, "properties"), disc);
  if (!tagNode) return false;
  if (const Value* c = Child(tagNode, "const"); c && *c == tag) return true;
  const Value* e = Child(tagNode, "enum");
  if (!e || !e->IsArray()) return false;
  for (auto it = e->Begin(); it != e->End(); ++it) {
    if (*it == tag) return true;
  }
  return false;
}

namespace {

const Value* PropertyNodeAt(const Value* node, const Value& name, const Value* instance,
                            int depth) {
  if (!node || !node->IsObject() || depth > kMaxDepth) return nullptr;
  if (const Value* props = ChildObject(node, "properties")) {
    auto it = props->FindMember(name);
    if (it != props->MemberEnd() && it->value.IsObject()) return &it->value;
  }
  const std::string disc = StringMember(node, "discriminator");
  const Value* tag = nullptr;
  if (!disc.empty() && instance && instance->IsObject()) tag = Child(instance, disc.c_str());
  for (const char* keyword : kVariantKeywords) {
    const Value* variants = Child(node, keyword);
    if (!variants || !variants->IsArray()) continue;
    if (tag) {
      for (auto v = variants->Begin(); v != variants->End(); ++v) {
        if (!v->IsObject() || !VariantHasTag(*v, disc.c_str(), *tag)) continue;
        if (const Value* r = PropertyNodeAt(&*v, name, instance, depth + 1)) return r;
      }
    }
    for (auto v = variants->Begin(); v != variants->End(); ++v) {
      if (const Value* r = PropertyNodeAt(&*v, name, instance, depth + 1)) return r;
    }
  }
  return ChildObject(node, "additionalProperties");
}

bool DescribesPropertiesAt(const Value* node, int depth) {
  if (!node || !node->IsObject() || depth > kMaxDepth) return false;
  if (ChildObject(node, "properties")) return true;
  for (const char* keyword : kVariantKeywords) {
    const Value* variants = Child(node, keyword);
    if (!variants || !variants->IsArray()) continue;
    for (auto v = variants->Begin(); v != variants->End(); ++v) {
      if (DescribesPropertiesAt(&*v, depth + 1)) return true;
    }
  }
  return false;
}

}  // namespace

const Value* PropertyNode(const Value* node, const Value& name, const Value* instance) {
  return PropertyNodeAt(node, name, instance, 1);
}

bool DescribesProperties(const Value* node) {
  if (Child(node, "patternProperties") || IsTrue(node, "additionalProperties")) return false;
  return DescribesPropertiesAt(node, 1);
}

bool PatternSensitive(const Value* objectNode) {
  const Value* patterns = ChildObject(objectNode, "patternProperties");
  if (!patterns) return false;
  for (auto& p : patterns->GetObject()) {
    if (IsTrue(&p.value, "sensitive")) return true;
  }
  return false;
}

bool ItemsAreObjects(const Value* node) {
  const Value* items = ItemsNode(node);
  if (!items) return false;
  const Value* type = Child(items, "type");
  if (type && type->IsString()) return std::strcmp(type->GetString(), "object") == 0;
  return ChildObject(items, "properties") != nullptr;
}

const Value* ObjectNode(const Value* node) {
  if (!node || !node->IsObject()) return nullptr;
  if (!ChildObject(node, "properties") && ItemsNode(node)) return ItemsNode(node);
  return node;
}

}  // namespace detail
}  // namespace ConfigStoreDocument

// Helpers shared by the document library's sources: failures, the depth
// guard and tolerant readers of schema nodes (a node of the wrong shape reads
// as "no information", never as an error).
#pragma once

#include <string>

#include "ConfigStoreDocument.h"

namespace ConfigStoreDocument {
namespace detail {

typedef rapidjson::Value Value;

// Code 1082 with "JSON error: " + message.
[[noreturn]] void Fail(const std::string& message);

// Every recursive walk passes depth + 1 to its children and calls this first.
inline void CheckDepth(int depth) {
  if (depth > kMaxDepth) ThrowTooDeep();
}

// Whether `value` is nested deeper than `limit` levels, found without
// recursion (usable on a document nobody has checked yet).
bool DeeperThan(const Value& value, int limit);

// RapidJSON's CopyFrom recurses; this refuses over-deep sources first.
void DeepCopy(Value& target, const Value& source, Allocator& allocator);

inline bool IsEmptyValue(const Value& v) {
  return v.IsNull() || (v.IsObject() && v.MemberCount() == 0) || (v.IsArray() && v.Empty());
}

inline std::string ToString(const Value& s) { return std::string(s.GetString(), s.GetStringLength()); }

// node[name] when node is an object that has it, else null.
const Value* Child(const Value* node, const char* name);
// node[name] when it is an object.
const Value* ChildObject(const Value* node, const char* name);
// Whether node[name] is the boolean true.
bool IsTrue(const Value* node, const char* name);
// node[name] as a string, "" otherwise.
std::string StringMember(const Value* node, const char* name);

// The schema node of member `name` of an object described by `node`:
// "properties", then the variant of a tagged union that `instance` selects
// (any variant of "oneOf"/"anyOf"/"allOf" that describes it otherwise), then
// an "additionalProperties" schema. Null when nothing describes it.
const Value* PropertyNode(const Value* node, const Value& name, const Value* instance);
// Keywords whose array of schemas describes variants of one value.
extern const char* const kVariantKeywords[3];
// Whether union variant `variant` fixes its tag member `disc` to `tag`
// ("enum" or "const").
bool VariantHasTag(const Value& variant, const char* disc, const Value& tag);

// Whether `node` lists properties at all (directly or through variants), so
// that a member it does not describe is really undescribed.
bool DescribesProperties(const Value* node);
// Whether a member that no property of `objectNode` describes must still be
// treated as secret: patterns are not matched, so any sensitive
// "patternProperties" schema counts.
bool PatternSensitive(const Value* objectNode);
// The "items" node of an array node.
inline const Value* ItemsNode(const Value* node) { return ChildObject(node, "items"); }
// Whether an array node's items are objects.
bool ItemsAreObjects(const Value* node);
// A node for an object value: `node` itself, or its "items" when `node` is
// an array node (a key's schema handed over for one of its instances).
const Value* ObjectNode(const Value* node);

}  // namespace detail
}  // namespace ConfigStoreDocument

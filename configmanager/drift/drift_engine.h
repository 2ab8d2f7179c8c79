// Internals of the drift walk, shared by the engine's sources and its tests.
//
// The walk keeps one path buffer for the whole call: each level appends its
// segment and truncates it again on the way out, so events see the path of
// their own level and deep documents cost O(depth) memory, not O(depth^2).
// Nothing here is thread-safe; one WalkContext belongs to one walk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "configmanager/drift.h"

namespace QenConfigManager {
namespace drift {

// Pairs desired instances with host instances of one array. Each Take returns
// the highest remaining host index whose element pairs with `desired` and
// removes it, or -1 when none does. `position` is the desired element's
// index, a hint only (the host element there is looked at first).
class InstanceMatcher {
 public:
  virtual ~InstanceMatcher() = default;
  virtual long Take(const rapidjson::Value& desired, size_t position) = 0;
  // The desired array whose elements will be taken, in order. An index may
  // compare them with the host instances in the same places while it reads
  // those (never raising an error for either).
  virtual void Expect(const rapidjson::Value& /*desired*/) {}
  // Takes the host instance at `position` when the expected desired
  // instance there is identical to it (IdenticalValue) and no other host
  // instance could pair with it: it is what Take would return, and the two
  // need no comparison. False says nothing; use Take.
  virtual bool TakeIdentical(size_t /*position*/) { return false; }
  // Whether host index j has been taken.
  virtual bool Taken(size_t j) const = 0;
};

// How instances pair: by the string member `idField`, or by
// ConfigStoreDocument::IsEqualValue under `schemaNode` (generated ids).
// `host` may be any value; a non-array has no instances. `host`, `idField`
// and `schemaNode` must outlive the matcher.
struct MatcherFactory {
  std::unique_ptr<InstanceMatcher> (*byIdentifier)(const rapidjson::Value& host,
                                                   std::string_view idField);
  std::unique_ptr<InstanceMatcher> (*byValue)(const rapidjson::Value& host,
                                              const rapidjson::Value& schemaNode);
};

// Hash-indexed matchers: linear in the number of instances, pairing exactly
// as a search of the remaining host indices from the highest down would.
const MatcherFactory& IndexedMatchers();

// A hash of an instance value that is equal for any two values that
// ConfigStoreDocument::IsEqualValue finds equal (see README.md).
uint64_t InstanceValueHash(const rapidjson::Value& value);

struct WalkContext {
  WalkContext(rapidjson::Document::AllocatorType& a, DriftHandler& h,
              std::shared_ptr<DBStore::StoreConnection> c, const MatcherFactory& m)
      : allocator(a), handler(h), connection(std::move(c)), matchers(m) {}

  rapidjson::Document::AllocatorType& allocator;
  DriftHandler& handler;
  // Opened on first use when null.
  std::shared_ptr<DBStore::StoreConnection> connection;
  const MatcherFactory& matchers;
  // Path of the node being compared.
  std::string path;
  // Nesting of compareValue, limited so a hostile document cannot exhaust
  // the stack.
  int depth = 0;
  // The documents of the last completed forward pass (first, second). A
  // reverse pass over the same two skips keys that pass compared without
  // looking up their schemas again: the forward pass found every one.
  const rapidjson::Value* forwardFirst = nullptr;
  const rapidjson::Value* forwardSecond = nullptr;
  // Groups of that pass's `second` whose keys all have a namesake in the
  // same group of `first`: the reverse pass skips them whole.
  std::unordered_set<const rapidjson::Value*> coveredGroups;
};

// Appends "/<segment>" to the walk's path for the scope's lifetime.
class PathScope {
 public:
  PathScope(std::string& path, const char* segment, size_t length) : path_(path), size_(path.size()) {
    path_.push_back('/');
    path_.append(segment, length);
  }
  PathScope(std::string& path, size_t number) : path_(path), size_(path.size()) {
    path_.push_back('/');
    path_ += std::to_string(number);
  }
  ~PathScope() { path_.resize(size_); }
  PathScope(const PathScope&) = delete;
  PathScope& operator=(const PathScope&) = delete;

 private:
  std::string& path_;
  size_t size_;
};

inline std::string_view View(const rapidjson::Value& text) {
  return std::string_view(text.GetString(), text.GetStringLength());
}

// Byte equality, inlined: the walk compares many short names.
__attribute__((always_inline)) inline bool SameBytes(const char* x, const char* y, size_t n) {
  if (x == y) return true;
  auto load8 = [](const char* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
  };
  auto load4 = [](const char* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
  };
  // Two overlapping loads cover the short lengths.
  if (n >= 8) {
    if (n > 16) return std::memcmp(x, y, n) == 0;
    return load8(x) == load8(y) && load8(x + n - 8) == load8(y + n - 8);
  }
  if (n >= 4) return load4(x) == load4(y) && load4(x + n - 4) == load4(y + n - 4);
  for (; n > 0; --n)
    if (*x++ != *y++) return false;
  return true;
}

__attribute__((always_inline)) inline bool SameText(const rapidjson::Value& a,
                                                   const rapidjson::Value& b) {
  return a.GetStringLength() == b.GetStringLength() &&
         SameBytes(a.GetString(), b.GetString(), a.GetStringLength());
}

// One multiply: steps inside a value hash need not be strong; what picks a
// slot gets a full mix once.
inline uint64_t HashStep(uint64_t h) {
  h *= 0x9e3779b97f4a7c15ULL;
  return h ^ (h >> 32);
}

// The full mix a hash gets before its low bits pick a slot.
inline uint64_t Mix(uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  h ^= h >> 33;
  return h;
}

// Hash of a text (names, identifiers): one step for up to eight bytes, the
// tail read by overlapping loads.
inline uint64_t HashBytes(const char* text, size_t length) {
  uint64_t h = (uint64_t(length) << 56) ^ 0x243f6a8885a308d3ULL;
  uint64_t word = 0;
  uint32_t half = 0;
  if (length >= sizeof word) {
    const char* last = text + length - sizeof word;
    for (; text < last; text += sizeof word) {
      std::memcpy(&word, text, sizeof word);
      h = HashStep(h ^ word);
    }
    std::memcpy(&word, last, sizeof word);
    return HashStep(h ^ word);
  }
  if (length >= sizeof half) {
    std::memcpy(&half, text, sizeof half);
    word = half;
    std::memcpy(&half, text + length - sizeof half, sizeof half);
    return HashStep(h ^ word ^ uint64_t(half) << 32);
  }
  for (size_t i = 0; i < length; ++i) word |= uint64_t(static_cast<unsigned char>(text[i])) << (8 * i);
  return HashStep(h ^ word);
}

// Open-addressed index of an object's member names, built in one pass; the
// first of duplicate names is the one found, as with FindMember.
class NameIndex {
 public:
  explicit NameIndex(const rapidjson::Value& object);
  const rapidjson::Value* Find(const rapidjson::Value& name) const;
  // Whether no two members share a name.
  bool Distinct() const { return distinct_; }

 private:
  const rapidjson::Value::Member* members_ = nullptr;
  std::vector<uint32_t> slots_;  // member index + 1; 0 = free
  bool distinct_ = true;
};

// JSON equality: RapidJSON's `a == b` (a member of `a` is compared with the
// first member of `b` of its name), except that integers compare by exact
// value (QenPlatform::JsonNumbersEqual); objects whose members come in the
// same order compare in one pass instead of a search per member.
bool SameValue(const rapidjson::Value& a, const rapidjson::Value& b);

// Values equal member for member in the same order, with distinct member
// names in every object: such values are equal under SameValue and under
// ConfigStoreDocument::IsEqualValue with any schema node.
bool IdenticalValue(const rapidjson::Value& a, const rapidjson::Value& b);

// Whether no two members of `object` share a name.
bool DistinctNames(const rapidjson::Value& object);

// `object[name]`, which raises the library's error (code 1082) for a
// non-object or a missing member.
const rapidjson::Value& MissingMember(const rapidjson::Value& object, std::string_view name);

// `object[name]` with RapidJSON's checks, without a library call per member.
__attribute__((always_inline)) inline const rapidjson::Value& MemberOf(const rapidjson::Value& object,
                                                                      std::string_view name) {
  if (object.IsObject()) {
    for (auto m = object.MemberBegin(); m != object.MemberEnd(); ++m)
      if (m->name.GetStringLength() == name.size() &&
          SameBytes(m->name.GetString(), name.data(), name.size()))
        return m->value;
  }
  return MissingMember(object, name);
}

// Whether a member name is "cs_generated_id", which is never compared.
inline bool IsGeneratedIdName(const rapidjson::Value& name) {
  static constexpr char kName[] = "cs_generated_id";
  return name.GetStringLength() == sizeof kName - 1 && SameBytes(name.GetString(), kName, sizeof kName - 1);
}

// null, {} and [] are empty; strings, numbers and booleans never are.
bool IsEmptyValue(const rapidjson::Value& value);

// computeComponents with a chosen matcher (tests compare against a literal
// search).
void walkComponents(WalkContext& ctx, rapidjson::Value& first, const rapidjson::Value& second,
                    const std::shared_ptr<QenSchemaStore::SchemaStore>& schemaStore, bool reverse);

void compareSingleton(WalkContext& ctx, const rapidjson::Value& desired, const rapidjson::Value& host,
                      const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                      rapidjson::Value& driftDoc);
// `idField` is the schema's instance identifier field (passed so that
// equal instances need not read the schema object).
void compareInstances(WalkContext& ctx, rapidjson::Value& desired, const rapidjson::Value& host,
                      ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                      std::string_view idField);
// Whether `desired` and `host` differ under `schemaNode`; reports property
// events and fills driftDoc (when the handler asks for drift documents).
bool compareValue(WalkContext& ctx, rapidjson::Value& desired, const rapidjson::Value& host,
                  const rapidjson::Value& schemaNode, rapidjson::Value& driftDoc);
bool compareInstanceArray(WalkContext& ctx, rapidjson::Value& desired, const rapidjson::Value& host,
                          const rapidjson::Value& schemaNode, const std::string& idField,
                          rapidjson::Value& driftDoc);
bool reportRemovedProperties(WalkContext& ctx, const rapidjson::Value& desired,
                             const rapidjson::Value& host, const rapidjson::Value& schemaNode,
                             rapidjson::Value& driftDoc);
void assignGeneratedInstanceId(const rapidjson::Value& value, ConfigStoreObjectId& id);
void appendInstanceDrift(const rapidjson::Value& instanceId, const char* op,
                         rapidjson::Value& driftDoc, rapidjson::Document::AllocatorType& allocator);

}  // namespace drift
}  // namespace QenConfigManager

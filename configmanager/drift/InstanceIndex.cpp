// Hash-indexed pairing of desired with host instances.
//
// Host instances are chained by hash, each chain from the highest index to
// the lowest. Taking walks one chain and unlinks the first element that
// pairs, which is the highest remaining index that pairs: exactly the result
// of scanning every remaining index from the highest down, in time linear in
// the number of instances unless many unequal instances share a hash.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>

#include "ConfigStoreDocument.h"
#include "drift/DriftEngine.h"

namespace QenConfigManager {
namespace drift {
namespace {

constexpr uint32_t kNone = UINT32_MAX;
// Below this depth a value's hash ignores its content; equal values still
// hash equal, and a hostile document cannot exhaust the stack here.
constexpr int kHashDepth = 32;

uint64_t Mix(uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  h ^= h >> 33;
  return h;
}

uint64_t HashText(const char* text, size_t length) {
  return std::hash<std::string_view>()(std::string_view(text, length));
}

bool HasDuplicateNames(const rapidjson::Value& object) {
  const rapidjson::SizeType n = object.MemberCount();
  if (n < 2) return false;
  std::vector<std::string_view> names;
  names.reserve(n);
  for (auto m = object.MemberBegin(); m != object.MemberEnd(); ++m)
    names.emplace_back(m->name.GetString(), m->name.GetStringLength());
  std::sort(names.begin(), names.end());
  return std::adjacent_find(names.begin(), names.end()) != names.end();
}

// `duplicates`, when given, is set if an object below has two members of one
// name: IsEqualValue may then pair values whose hashes differ.
uint64_t HashValue(const rapidjson::Value& value, int depth, bool* duplicates) {
  if (depth >= kHashDepth) return 0x5eed;
  switch (value.GetType()) {
    case rapidjson::kNullType:
      return 0x11;
    case rapidjson::kFalseType:
      return 0x22;
    case rapidjson::kTrueType:
      return 0x33;
    case rapidjson::kNumberType: {
      // Integers and doubles that compare equal hash alike.
      double d = value.GetDouble();
      if (d == 0) d = 0;  // -0.0
      uint64_t bits;
      std::memcpy(&bits, &d, sizeof bits);
      return Mix(bits ^ 0x44);
    }
    case rapidjson::kStringType:
      return Mix(HashText(value.GetString(), value.GetStringLength()) ^ 0x55);
    case rapidjson::kObjectType: {
      // Order-free sum over the members; "cs_generated_id" never counts, and
      // a null member counts as a missing one.
      if (duplicates && !*duplicates && HasDuplicateNames(value)) *duplicates = true;
      uint64_t sum = 0x66;
      for (auto m = value.MemberBegin(); m != value.MemberEnd(); ++m) {
        if (m->value.IsNull() || IsGeneratedIdName(m->name)) continue;
        const uint64_t name = HashText(m->name.GetString(), m->name.GetStringLength());
        sum += Mix(name * 0x9e3779b97f4a7c15ULL + HashValue(m->value, depth + 1, duplicates));
      }
      return Mix(sum);
    }
    case rapidjson::kArrayType: {
      // The set of element hashes: the same for any order and any
      // multiplicity, so it agrees with every array equality in use (in
      // order, as multisets, as sets of instances).
      std::vector<uint64_t> elements;
      elements.reserve(value.Size());
      for (auto& e : value.GetArray()) elements.push_back(HashValue(e, depth + 1, duplicates));
      std::sort(elements.begin(), elements.end());
      elements.erase(std::unique(elements.begin(), elements.end()), elements.end());
      uint64_t h = 0x77;
      for (uint64_t e : elements) h = Mix(h ^ e) + e;
      return h;
    }
  }
  return 0;
}

class ChainedMatcher : public InstanceMatcher {
 public:
  explicit ChainedMatcher(const rapidjson::Value& host) : host_(host) {}

  long Take(const rapidjson::Value& desired) override {
    if (!host_.IsArray() || host_.Empty()) return -1;
    if (!built_) Build();
    uint64_t h;
    if (!HashDesired(desired, h)) return ScanAll(desired);
    Slot* slot = FindSlot(h);
    if (!slot) return -1;
    for (uint32_t j = slot->head; j != kNone; j = next_[j])
      if (Pairs(desired, host_[j])) return Unlink(slot, j);
    return -1;
  }

  std::vector<size_t> Remaining() override {
    std::vector<size_t> out;
    if (!host_.IsArray()) return out;
    for (size_t j = host_.Size(); j-- > 0;)
      if (!built_ || !taken_[j]) out.push_back(j);
    return out;
  }

 protected:
  virtual uint64_t HashHost(const rapidjson::Value& element) = 0;
  // False when `element` cannot be hashed consistently with Pairs.
  virtual bool HashDesired(const rapidjson::Value& element, uint64_t& hash) = 0;
  virtual bool Pairs(const rapidjson::Value& desired, const rapidjson::Value& host) = 0;

 private:
  struct Slot {
    uint64_t hash = 0;
    uint32_t head = kNone;
    bool used = false;
  };

  void Build() {
    const uint32_t m = host_.Size();
    size_t capacity = 16;
    while (capacity < 2 * static_cast<size_t>(m)) capacity <<= 1;
    slots_.assign(capacity, Slot());
    next_.assign(m, kNone);
    hashes_.resize(m);
    taken_.assign(m, false);
    for (uint32_t j = 0; j < m; ++j) {
      const uint64_t h = hashes_[j] = HashHost(host_[j]);
      Slot* slot = ProbeSlot(h);
      if (!slot->used) {
        slot->used = true;
        slot->hash = h;
      }
      next_[j] = slot->head;
      slot->head = j;
    }
    built_ = true;
  }

  // The literal search, for a desired element that has no usable hash.
  long ScanAll(const rapidjson::Value& desired) {
    for (uint32_t j = host_.Size(); j-- > 0;)
      if (!taken_[j] && Pairs(desired, host_[j])) return Unlink(FindSlot(hashes_[j]), j);
    return -1;
  }

  long Unlink(Slot* slot, uint32_t j) {
    if (slot->head == j) {
      slot->head = next_[j];
    } else {
      uint32_t previous = slot->head;
      while (next_[previous] != j) previous = next_[previous];
      next_[previous] = next_[j];
    }
    taken_[j] = true;
    return static_cast<long>(j);
  }

  // The slot of hash `h`, or the empty slot where it belongs.
  Slot* ProbeSlot(uint64_t h) {
    const size_t mask = slots_.size() - 1;
    for (size_t i = Mix(h) & mask;; i = (i + 1) & mask)
      if (!slots_[i].used || slots_[i].hash == h) return &slots_[i];
  }
  Slot* FindSlot(uint64_t h) {
    Slot* slot = ProbeSlot(h);
    return slot->used ? slot : nullptr;
  }

  const rapidjson::Value& host_;
  bool built_ = false;
  std::vector<Slot> slots_;
  std::vector<uint32_t> next_;
  std::vector<uint64_t> hashes_;
  std::vector<bool> taken_;
};

// Natural identifiers: the string member `idField`, compared byte-wise.
class IdentifierMatcher : public ChainedMatcher {
 public:
  IdentifierMatcher(const rapidjson::Value& host, const std::string& idField)
      : ChainedMatcher(host), idField_(idField) {}

 protected:
  uint64_t HashHost(const rapidjson::Value& element) override {
    const rapidjson::Value& id = element[idField_];
    return HashText(id.GetString(), id.GetStringLength());
  }
  bool HashDesired(const rapidjson::Value& element, uint64_t& hash) override {
    hash = HashHost(element);
    return true;
  }
  bool Pairs(const rapidjson::Value& desired, const rapidjson::Value& host) override {
    const rapidjson::Value& a = desired[idField_];
    const rapidjson::Value& b = host[idField_];
    return a.GetStringLength() == b.GetStringLength() &&
           std::memcmp(a.GetString(), b.GetString(), a.GetStringLength()) == 0;
  }

 private:
  const std::string idField_;
};

// Generated identifiers: schema-aware equality of the whole instance.
// IsEqualValue looks up each desired member in the host object, so a desired
// value without duplicate member names equals only host values with the same
// members, which hash alike; one with duplicates is searched literally.
class ValueMatcher : public ChainedMatcher {
 public:
  ValueMatcher(const rapidjson::Value& host, const rapidjson::Value& schemaNode)
      : ChainedMatcher(host), schemaNode_(schemaNode) {}

 protected:
  uint64_t HashHost(const rapidjson::Value& element) override {
    return HashValue(element, 0, nullptr);
  }
  bool HashDesired(const rapidjson::Value& element, uint64_t& hash) override {
    bool duplicates = false;
    hash = HashValue(element, 0, &duplicates);
    return !duplicates;
  }
  bool Pairs(const rapidjson::Value& desired, const rapidjson::Value& host) override {
    return ConfigStoreDocument::IsEqualValue(desired, host, schemaNode_);
  }

 private:
  const rapidjson::Value& schemaNode_;
};

std::unique_ptr<InstanceMatcher> MakeIdentifierMatcher(const rapidjson::Value& host,
                                                       const std::string& idField) {
  return std::unique_ptr<InstanceMatcher>(new IdentifierMatcher(host, idField));
}

std::unique_ptr<InstanceMatcher> MakeValueMatcher(const rapidjson::Value& host,
                                                  const rapidjson::Value& schemaNode) {
  return std::unique_ptr<InstanceMatcher>(new ValueMatcher(host, schemaNode));
}

}  // namespace

uint64_t InstanceValueHash(const rapidjson::Value& value) { return HashValue(value, 0, nullptr); }

const MatcherFactory& IndexedMatchers() {
  static const MatcherFactory factory{&MakeIdentifierMatcher, &MakeValueMatcher};
  return factory;
}

}  // namespace drift
}  // namespace QenConfigManager

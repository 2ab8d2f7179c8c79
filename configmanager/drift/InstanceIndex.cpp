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

uint64_t HashValue(const rapidjson::Value& value, int depth) {
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
      uint64_t sum = 0x66;
      for (auto m = value.MemberBegin(); m != value.MemberEnd(); ++m) {
        if (m->value.IsNull() || IsGeneratedIdName(m->name)) continue;
        const uint64_t name = HashText(m->name.GetString(), m->name.GetStringLength());
        sum += Mix(name * 0x9e3779b97f4a7c15ULL + HashValue(m->value, depth + 1));
      }
      return Mix(sum);
    }
    case rapidjson::kArrayType: {
      // The set of element hashes: the same for any order and any
      // multiplicity, so it agrees with every array equality in use (in
      // order, as multisets, as sets of instances).
      std::vector<uint64_t> elements;
      elements.reserve(value.Size());
      for (auto& e : value.GetArray()) elements.push_back(HashValue(e, depth + 1));
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
    Slot* slot = FindSlot(HashDesired(desired));
    if (!slot) return -1;
    uint32_t previous = kNone;
    for (uint32_t j = slot->head; j != kNone; previous = j, j = next_[j]) {
      if (!Pairs(desired, host_[j])) continue;
      if (previous == kNone)
        slot->head = next_[j];
      else
        next_[previous] = next_[j];
      taken_[j] = true;
      return static_cast<long>(j);
    }
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
  virtual uint64_t HashDesired(const rapidjson::Value& element) = 0;
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
    taken_.assign(m, false);
    for (uint32_t j = 0; j < m; ++j) {
      const uint64_t h = HashHost(host_[j]);
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
  std::vector<bool> taken_;
};

// Natural identifiers: the string member `idField`, compared byte-wise.
class IdentifierMatcher : public ChainedMatcher {
 public:
  IdentifierMatcher(const rapidjson::Value& host, const std::string& idField)
      : ChainedMatcher(host), idField_(idField) {}

 protected:
  uint64_t HashHost(const rapidjson::Value& element) override { return HashDesired(element); }
  uint64_t HashDesired(const rapidjson::Value& element) override {
    const rapidjson::Value& id = element[idField_];
    return HashText(id.GetString(), id.GetStringLength());
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
class ValueMatcher : public ChainedMatcher {
 public:
  ValueMatcher(const rapidjson::Value& host, const rapidjson::Value& schemaNode)
      : ChainedMatcher(host), schemaNode_(schemaNode) {}

 protected:
  uint64_t HashHost(const rapidjson::Value& element) override { return InstanceValueHash(element); }
  uint64_t HashDesired(const rapidjson::Value& element) override {
    return InstanceValueHash(element);
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

uint64_t InstanceValueHash(const rapidjson::Value& value) { return HashValue(value, 0); }

const MatcherFactory& IndexedMatchers() {
  static const MatcherFactory factory{&MakeIdentifierMatcher, &MakeValueMatcher};
  return factory;
}

}  // namespace drift
}  // namespace QenConfigManager

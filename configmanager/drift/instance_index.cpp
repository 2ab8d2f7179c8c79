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
#include "drift/drift_engine.h"

namespace QenConfigManager {
namespace drift {
namespace {

constexpr uint32_t kNone = UINT32_MAX;
// Below this depth a value's hash ignores its content; equal values still
// hash equal, and a hostile document cannot exhaust the stack here.
constexpr int kHashDepth = 32;

uint64_t HashValue(const rapidjson::Value& value, int depth);

// Leaves hashed in place, containers by a call. Below kHashDepth levels the
// content is not hashed.
__attribute__((always_inline)) inline uint64_t HashChild(const rapidjson::Value& value, int depth) {
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
      return HashStep(bits ^ 0x44);
    }
    case rapidjson::kStringType:
      return HashBytes(value.GetString(), value.GetStringLength()) ^ 0x55;
    default:
      return HashValue(value, depth);
  }
}

// Values that IsEqualValue finds equal under any schema node hash alike: it
// ignores member order and "cs_generated_id", pairs repeated member names
// one to one, and compares arrays in order, as multisets or as sets of
// instances, all of which keep the set of element hashes.
uint64_t HashValue(const rapidjson::Value& value, int depth) {
  if (depth >= kHashDepth) return 0x5eed;
  switch (value.GetType()) {
    case rapidjson::kObjectType: {
      // Order-free sum over the members; "cs_generated_id" never counts, and
      // a null member counts as a missing one.
      uint64_t sum = 0x66;
      for (auto m = value.MemberBegin(); m != value.MemberEnd(); ++m) {
        if (m->value.IsNull() || IsGeneratedIdName(m->name)) continue;
        const uint64_t name = HashBytes(m->name.GetString(), m->name.GetStringLength());
        sum += HashStep(name ^ HashStep(HashChild(m->value, depth + 1) ^ 0x66));
      }
      return HashStep(sum);
    }
    case rapidjson::kArrayType: {
      // A sum over the set of element hashes: the same for any order and
      // multiplicity. Short arrays (the common case) drop repeats in place.
      constexpr rapidjson::SizeType kShort = 8;
      const rapidjson::SizeType n = value.Size();
      uint64_t sum = 0x77;
      if (n <= kShort) {
        uint64_t seen[kShort];
        for (rapidjson::SizeType i = 0; i < n; ++i) {
          const uint64_t e = seen[i] = HashChild(value[i], depth + 1);
          if (std::find(seen, seen + i, e) == seen + i) sum += HashStep(e ^ 0x7777);
        }
        return HashStep(sum);
      }
      std::vector<uint64_t> elements(n);
      for (rapidjson::SizeType i = 0; i < n; ++i) elements[i] = HashChild(value[i], depth + 1);
      std::sort(elements.begin(), elements.end());
      const auto end = std::unique(elements.begin(), elements.end());
      for (auto e = elements.begin(); e != end; ++e) sum += HashStep(*e ^ 0x7777);
      return HashStep(sum);
    }
    default:
      return HashChild(value, depth);
  }
}

class ChainedMatcher : public InstanceMatcher {
 public:
  explicit ChainedMatcher(const rapidjson::Value& host)
      : host_(host), size_(host.IsArray() ? host.Size() : 0) {}

  long Take(const rapidjson::Value& desired, size_t position) override {
    if (size_ == 0) return -1;
    // A few instances are searched as they are: an index would cost more.
    if (size_ <= kSmall) return ScanSmall(desired);
    if (slots_.empty()) Build();
    // A host instance in the desired one's place that surely pairs shares
    // its hash, which is known already. Alone in its chain it is the only
    // candidate, so it is taken without touching the chain (which then
    // holds one taken element); otherwise the chain decides which index
    // pairs first.
    const bool inPlace =
        position < size_ && !(state_[position] & kTaken) && SurelyPairs(desired, host_[position]);
    if (inPlace && !(state_[position] & kShared)) {
      state_[position] |= kTaken;
      return static_cast<long>(position);
    }
    Slot* slot = FindSlot(inPlace ? hashes_[position] : HashDesired(desired));
    if (!slot) return -1;
    for (uint32_t j = slot->head; j != kEnd; j = next_[j]) {
      if (state_[j] & kTaken) continue;
      if ((inPlace && j == position) || Pairs(desired, host_[j])) return Unlink(slot, j);
    }
    return -1;
  }

  void Expect(const rapidjson::Value& desired) override {
    expected_ = desired.IsArray() ? &desired : nullptr;
  }

  bool TakeIdentical(size_t position) override {
    if (size_ <= kSmall || !expected_ || position >= size_) return false;
    if (slots_.empty()) Build();
    if ((state_[position] & (kTaken | kShared | kIdentical)) != kIdentical) return false;
    state_[position] |= kTaken;
    return true;
  }

  bool Taken(size_t j) const override {
    if (size_ <= kSmall) return (smallTaken_ >> j) & 1;
    return !slots_.empty() && (state_[j] & kTaken);
  }

 protected:
  virtual uint64_t HashHost(const rapidjson::Value& element) = 0;
  virtual uint64_t HashDesired(const rapidjson::Value& element) = 0;
  virtual bool Pairs(const rapidjson::Value& desired, const rapidjson::Value& host) = 0;
  // A quick test that implies Pairs (false when unsure).
  virtual bool SurelyPairs(const rapidjson::Value& desired, const rapidjson::Value& host) = 0;

 private:
  static constexpr uint32_t kSmall = 8;
  static constexpr uint32_t kFree = UINT32_MAX;    // slot never used
  static constexpr uint32_t kEnd = UINT32_MAX - 1;  // end of a chain
  // state_ flags of a host index.
  static constexpr uint8_t kTaken = 1;
  static constexpr uint8_t kShared = 2;  // its chain holds other indices
  // Identical to the expected desired instance in its place, which
  // therefore pairs with it (both matchers' Pairs hold for identical values).
  static constexpr uint8_t kIdentical = 4;

  // One chain per hash tag; chains of different hashes that share a tag
  // merge, which costs comparisons but keeps the order (highest first).
  struct Slot {
    uint32_t tag;
    uint32_t head;
  };

  long ScanSmall(const rapidjson::Value& desired) {
    for (uint32_t j = size_; j-- > 0;) {
      if ((smallTaken_ >> j) & 1 || !Pairs(desired, host_[j])) continue;
      smallTaken_ |= uint64_t(1) << j;
      return static_cast<long>(j);
    }
    return -1;
  }

  void Build() {
    size_t capacity = 16;
    while (capacity < 2 * static_cast<size_t>(size_)) capacity <<= 1;
    slots_.assign(capacity, Slot{0, kFree});
    next_.resize(size_);
    state_.assign(size_, 0);
    hashes_.resize(size_);
    // One pass reads each host instance once, with the desired one in its
    // place while both are at hand.
    const uint32_t expected = expected_ ? std::min(size_, expected_->Size()) : 0;
    for (uint32_t j = 0; j < size_; ++j) {
      hashes_[j] = HashHost(host_[j]);
      if (j < expected && IdenticalValue((*expected_)[j], host_[j])) state_[j] |= kIdentical;
    }
    // Slots are visited at random: ask for the ones a few steps ahead.
    constexpr uint32_t kAhead = 8;
    const size_t mask = capacity - 1;
    for (uint32_t j = 0; j < size_; ++j) {
      if (j + kAhead < size_) __builtin_prefetch(&slots_[hashes_[j + kAhead] & mask]);
      const uint64_t h = hashes_[j];
      Slot* slot = ProbeSlot(h);
      if (slot->head == kFree) {
        slot->tag = static_cast<uint32_t>(h >> 32);
        slot->head = kEnd;
      } else {
        state_[slot->head] |= kShared;
        state_[j] |= kShared;
      }
      next_[j] = slot->head;
      slot->head = j;
    }
  }

  long Unlink(Slot* slot, uint32_t j) {
    if (slot->head == j) {
      slot->head = next_[j];
    } else {
      uint32_t previous = slot->head;
      while (next_[previous] != j) previous = next_[previous];
      next_[previous] = next_[j];
    }
    state_[j] |= kTaken;
    return static_cast<long>(j);
  }

  // The slot of hash `h`, or the free slot where it belongs.
  Slot* ProbeSlot(uint64_t h) {
    const size_t mask = slots_.size() - 1;
    const uint32_t tag = static_cast<uint32_t>(h >> 32);
    for (size_t i = h & mask;; i = (i + 1) & mask)
      if (slots_[i].head == kFree || slots_[i].tag == tag) return &slots_[i];
  }
  Slot* FindSlot(uint64_t h) {
    Slot* slot = ProbeSlot(h);
    return slot->head == kFree ? nullptr : slot;
  }

  const rapidjson::Value& host_;
  const uint32_t size_;
  const rapidjson::Value* expected_ = nullptr;
  uint64_t smallTaken_ = 0;
  std::vector<Slot> slots_;
  std::vector<uint32_t> next_;
  std::vector<uint8_t> state_;
  std::vector<uint64_t> hashes_;
};

// Natural identifiers: the string member `idField`, compared byte-wise.
class IdentifierMatcher : public ChainedMatcher {
 public:
  // `idField` must outlive the matcher.
  IdentifierMatcher(const rapidjson::Value& host, std::string_view idField)
      : ChainedMatcher(host), idField_(idField) {}

 protected:
  uint64_t HashHost(const rapidjson::Value& element) override {
    const rapidjson::Value& id = MemberOf(element, idField_);
    return Mix(HashBytes(id.GetString(), id.GetStringLength()));
  }
  uint64_t HashDesired(const rapidjson::Value& element) override { return HashHost(element); }
  bool Pairs(const rapidjson::Value& desired, const rapidjson::Value& host) override {
    return SameText(MemberOf(desired, idField_), MemberOf(host, idField_));
  }
  bool SurelyPairs(const rapidjson::Value& desired, const rapidjson::Value& host) override {
    return Pairs(desired, host);
  }

 private:
  const std::string_view idField_;
};

// Generated identifiers: schema-aware equality of the whole instance.
class ValueMatcher : public ChainedMatcher {
 public:
  ValueMatcher(const rapidjson::Value& host, const rapidjson::Value& schemaNode)
      : ChainedMatcher(host), schemaNode_(schemaNode) {}

 protected:
  uint64_t HashHost(const rapidjson::Value& element) override { return Mix(HashValue(element, 0)); }
  uint64_t HashDesired(const rapidjson::Value& element) override { return HashHost(element); }
  bool Pairs(const rapidjson::Value& desired, const rapidjson::Value& host) override {
    return ConfigStoreDocument::IsEqualValue(desired, host, schemaNode_);
  }
  bool SurelyPairs(const rapidjson::Value& desired, const rapidjson::Value& host) override {
    return IdenticalValue(desired, host);
  }

 private:
  const rapidjson::Value& schemaNode_;
};

std::unique_ptr<InstanceMatcher> MakeIdentifierMatcher(const rapidjson::Value& host,
                                                       std::string_view idField) {
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

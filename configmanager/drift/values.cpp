// Value comparisons of the walk: JSON equality (RapidJSON's member search,
// with integers compared by exact value, QenPlatform::JsonNumbersEqual),
// cheaper on the documents the walk meets: equal values whose members come
// in the same order.
#include "drift/drift_engine.h"

namespace QenConfigManager {
namespace drift {
namespace {

// Beyond this nesting SameValue hands over to the plain comparison.
constexpr int kSameValueDepth = 256;

// Whether members[i].name equals the name of an earlier member.
__attribute__((noinline)) bool RepeatsEarlier(const rapidjson::Value::Member* members,
                                              rapidjson::SizeType i) {
  for (rapidjson::SizeType j = 0; j < i; ++j)
    if (SameText(members[j].name, members[i].name)) return true;
  return false;
}

// Tells whether a member's name repeats an earlier one, comparing names only
// when a 256-bit filter of what was seen (length, first and last two bytes)
// cannot rule it out.
class NameFilter {
 public:
  __attribute__((always_inline)) bool Repeats(const rapidjson::Value::Member* members,
                                              rapidjson::SizeType i) {
    const rapidjson::Value& name = members[i].name;
    const uint32_t n = name.GetStringLength();
    uint32_t key = n << 24;
    if (n > 0) {
      const unsigned char* s = reinterpret_cast<const unsigned char*>(name.GetString());
      key |= uint32_t(s[0]) << 16 | uint32_t(s[n - 1]) << 8 | s[n > 1 ? n - 2 : 0];
    }
    const unsigned bit = (key * 0x9e3779b1u) >> 24;
    uint64_t& word = seen_[bit >> 6];
    const uint64_t mask = uint64_t(1) << (bit & 63);
    if (word & mask) return RepeatsEarlier(members, i);
    word |= mask;
    return false;
  }

 private:
  uint64_t seen_[4] = {0, 0, 0, 0};
};

// kStrict: names out of place or repeated, or nesting beyond the limit, make
// values different instead of handing over to the plain comparison.
template <bool kStrict>
bool SameValueAt(const rapidjson::Value& a, const rapidjson::Value& b, int depth);

// The plain comparison: every member of `a` against the first member of its
// name in `b`, as RapidJSON's == searches; numbers by exact value.
bool JsonEqual(const rapidjson::Value& a, const rapidjson::Value& b) {
  const rapidjson::Type type = a.GetType();
  if (type != b.GetType()) return false;
  switch (type) {
    case rapidjson::kObjectType: {
      if (a.MemberCount() != b.MemberCount()) return false;
      for (const auto& m : a.GetObject()) {
        auto it = b.FindMember(m.name);
        if (it == b.MemberEnd() || !JsonEqual(m.value, it->value)) return false;
      }
      return true;
    }
    case rapidjson::kArrayType: {
      if (a.Size() != b.Size()) return false;
      for (rapidjson::SizeType i = 0; i < a.Size(); ++i)
        if (!JsonEqual(a[i], b[i])) return false;
      return true;
    }
    case rapidjson::kStringType:
      return SameText(a, b);
    case rapidjson::kNumberType:
      return QenPlatform::JsonNumbersEqual(a, b);
    default:
      return true;  // null, false, true
  }
}

// Whether two values are stored alike, byte for byte: type flags and
// payload. For a string that is the same text (short strings are held inline,
// their unused bytes zero; longer ones point to the same characters), for an
// integer the same number, for null and booleans the same value. Doubles are
// left out (NaN is not equal to itself), containers too (a value whose names
// repeat is not equal to itself under the member search).
__attribute__((always_inline)) inline bool SameLeafBits(const rapidjson::Value& a, const rapidjson::Value& b) {
  static_assert(sizeof(rapidjson::Value) == 16, "RapidJSON values of 16 bytes");
  uint64_t x[2], y[2];
  std::memcpy(x, &a, sizeof x);
  std::memcpy(y, &b, sizeof y);
  if (((x[0] ^ y[0]) | (x[1] ^ y[1])) != 0) return false;
  const rapidjson::Type type = a.GetType();
  return type != rapidjson::kObjectType && type != rapidjson::kArrayType && !a.IsDouble();
}

// Leaves compared in place, containers by a call.
template <bool kStrict>
__attribute__((always_inline)) inline bool SameChild(const rapidjson::Value& a, const rapidjson::Value& b,
                                                     int depth) {
  if (SameLeafBits(a, b)) return true;
  const rapidjson::Type type = a.GetType();
  if (type != b.GetType()) return false;
  if (type == rapidjson::kStringType) return SameText(a, b);
  if (type == rapidjson::kObjectType || type == rapidjson::kArrayType)
    return SameValueAt<kStrict>(a, b, depth);
  // Null and booleans are equal by type.
  return type != rapidjson::kNumberType || QenPlatform::JsonNumbersEqual(a, b);
}

template <bool kStrict>
bool SameObject(const rapidjson::Value& a, const rapidjson::Value& b, int depth) {
  const rapidjson::SizeType n = a.MemberCount();
  if (n != b.MemberCount()) return false;
  if (n == 0) return true;
  const rapidjson::Value::Member* x = &*a.MemberBegin();
  const rapidjson::Value::Member* y = &*b.MemberBegin();
  NameFilter filter;
  for (rapidjson::SizeType i = 0; i < n; ++i) {
    // While names pair in place and do not repeat, member i of `b` is the
    // first of its name, the one the member search would find; otherwise
    // the search decides.
    if (!(SameLeafBits(x[i].name, y[i].name) || SameText(x[i].name, y[i].name)) || filter.Repeats(x, i))
      return !kStrict && JsonEqual(a, b);
    if (!SameChild<kStrict>(x[i].value, y[i].value, depth + 1)) return false;
  }
  return true;
}

template <bool kStrict>
bool SameValueAt(const rapidjson::Value& a, const rapidjson::Value& b, int depth) {
  if (depth > kSameValueDepth) return !kStrict && JsonEqual(a, b);
  const rapidjson::Type type = a.GetType();
  if (type != b.GetType()) return false;
  switch (type) {
    case rapidjson::kObjectType:
      return SameObject<kStrict>(a, b, depth);
    case rapidjson::kArrayType: {
      const rapidjson::SizeType n = a.Size();
      if (n != b.Size()) return false;
      for (rapidjson::SizeType i = 0; i < n; ++i)
        if (!SameChild<kStrict>(a[i], b[i], depth + 1)) return false;
      return true;
    }
    default:
      return SameChild<kStrict>(a, b, depth);
  }
}

}  // namespace

bool SameValue(const rapidjson::Value& a, const rapidjson::Value& b) {
  return SameValueAt<false>(a, b, 0);
}

bool IdenticalValue(const rapidjson::Value& a, const rapidjson::Value& b) {
  return SameValueAt<true>(a, b, 0);
}

bool DistinctNames(const rapidjson::Value& object) {
  const rapidjson::SizeType n = object.MemberCount();
  if (n < 2) return true;
  const rapidjson::Value::Member* members = &*object.MemberBegin();
  if (n <= 128) {
    NameFilter filter;
    for (rapidjson::SizeType i = 0; i < n; ++i)
      if (filter.Repeats(members, i)) return false;
    return true;
  }
  return NameIndex(object).Distinct();
}

NameIndex::NameIndex(const rapidjson::Value& object) {
  const rapidjson::SizeType n = object.MemberCount();
  if (n == 0) return;
  members_ = &*object.MemberBegin();
  size_t capacity = 16;
  while (capacity < 2 * static_cast<size_t>(n)) capacity <<= 1;
  slots_.assign(capacity, 0);
  const size_t mask = capacity - 1;
  for (rapidjson::SizeType i = 0; i < n; ++i) {
    const rapidjson::Value& name = members_[i].name;
    // Names of a wide object differ in a few bytes ("grp0" ... "grp999"):
    // unmixed, their hashes share a few dozen low-bit patterns.
    size_t s = Mix(HashBytes(name.GetString(), name.GetStringLength())) & mask;
    for (; slots_[s] != 0; s = (s + 1) & mask) {
      if (SameText(members_[slots_[s] - 1].name, name)) {
        distinct_ = false;
        break;
      }
    }
    if (slots_[s] == 0) slots_[s] = i + 1;
  }
}

const rapidjson::Value* NameIndex::Find(const rapidjson::Value& name) const {
  if (slots_.empty()) return nullptr;
  const size_t mask = slots_.size() - 1;
  for (size_t s = Mix(HashBytes(name.GetString(), name.GetStringLength())) & mask; slots_[s] != 0;
       s = (s + 1) & mask) {
    const rapidjson::Value::Member& m = members_[slots_[s] - 1];
    if (SameText(m.name, name)) return &m.value;
  }
  return nullptr;
}

const rapidjson::Value& MissingMember(const rapidjson::Value& object, std::string_view name) {
  return object[rapidjson::Value(rapidjson::StringRef(name.data(), name.size()))];
}

}  // namespace drift
}  // namespace QenConfigManager

// Schema-aware equality of values. Arrays that are sets (instances, scalars
// under a schema) are matched through a hash that ignores every order and
// every "cs_generated_id", so large instance arrays compare in linear time;
// a hash match is always confirmed by a full comparison.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "DocumentInternal.h"

namespace ConfigStoreDocument {

using namespace detail;

namespace {

const char kGeneratedId[] = "cs_generated_id";

bool IsGeneratedId(const Value& name) {
  return name.GetStringLength() == sizeof(kGeneratedId) - 1 &&
         std::memcmp(name.GetString(), kGeneratedId, sizeof(kGeneratedId) - 1) == 0;
}

std::string_view View(const Value& s) { return std::string_view(s.GetString(), s.GetStringLength()); }

size_t Mix(size_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  return h;
}

size_t NumberHash(const Value& v) {
  double d = v.GetDouble();
  if (d == 0) d = 0;  // -0.0 equals 0
  if (std::isnan(d)) return 0x7ff8;
  return std::hash<double>()(d);
}

// A hash that equal values share under any schema: order-free for members
// and elements, blind to "cs_generated_id".
size_t HashValue(const Value& v, int depth) {
  CheckDepth(depth);
  switch (v.GetType()) {
    case rapidjson::kNullType: return 0x6e756c6c;
    case rapidjson::kFalseType: return 0x66616c73;
    case rapidjson::kTrueType: return 0x74727565;
    case rapidjson::kNumberType: return Mix(NumberHash(v) + 0x6e756d);
    case rapidjson::kStringType: return Mix(std::hash<std::string_view>()(View(v)) + 0x737472);
    case rapidjson::kObjectType: {
      size_t h = 0x6f626a;
      for (auto& m : v.GetObject()) {
        if (IsGeneratedId(m.name)) continue;
        h += Mix(std::hash<std::string_view>()(View(m.name)) * 31 + HashValue(m.value, depth + 1));
      }
      return Mix(h);
    }
    case rapidjson::kArrayType: {
      size_t h = 0x617272 + v.Size();
      for (auto& e : v.GetArray()) h += Mix(HashValue(e, depth + 1));
      return Mix(h);
    }
  }
  return 0;
}

bool Equal(const Value& a, const Value& b, const Value* node, int depth);

// Flags of used positions; up to 64 in a word, so small values allocate
// nothing.
class UsedFlags {
 public:
  explicit UsedFlags(size_t n) {
    if (n > 64) many_.assign(n, false);
  }
  bool operator[](size_t i) const { return many_.empty() ? (few_ >> i) & 1 : many_[i]; }
  void Set(size_t i) {
    if (many_.empty())
      few_ |= uint64_t(1) << i;
    else
      many_[i] = true;
  }

 private:
  uint64_t few_ = 0;
  std::vector<bool> many_;
};

// Element pointers of an array, on the stack for short arrays.
class ElementPointers {
 public:
  explicit ElementPointers(const Value& array) : size_(array.Size()) {
    if (size_ > kShort) {
      heap_.resize(size_);
      data_ = heap_.data();
    }
    for (rapidjson::SizeType i = 0; i < size_; ++i) data_[i] = &array[i];
  }
  ElementPointers(const ElementPointers&) = delete;
  ElementPointers& operator=(const ElementPointers&) = delete;
  const Value** begin() { return data_; }
  const Value** end() { return data_ + size_; }
  size_t size() const { return size_; }
  const Value* operator[](size_t i) const { return data_[i]; }

 private:
  static constexpr size_t kShort = 16;
  const Value* local_[kShort];
  std::vector<const Value*> heap_;
  const Value** data_ = local_;
  size_t size_;
};

// Pairs every element of `a` with a distinct equal element of `b`, both
// arrays of the same size, in any order.
bool MatchByValue(const Value& a, const Value& b, const Value* items, int depth) {
  const rapidjson::SizeType n = a.Size();
  std::vector<bool> used(n, false);
  if (n <= 4) {
    for (auto& x : a.GetArray()) {
      bool found = false;
      for (rapidjson::SizeType j = 0; j < n && !found; ++j) {
        if (!used[j] && Equal(x, b[j], items, depth)) used[j] = found = true;
      }
      if (!found) return false;
    }
    return true;
  }
  std::unordered_multimap<size_t, rapidjson::SizeType> byHash;
  byHash.reserve(n);
  for (rapidjson::SizeType j = 0; j < n; ++j) byHash.emplace(HashValue(b[j], depth), j);
  for (auto& x : a.GetArray()) {
    auto range = byHash.equal_range(HashValue(x, depth));
    bool found = false;
    for (auto it = range.first; it != range.second; ++it) {
      if (!used[it->second] && Equal(x, b[it->second], items, depth)) {
        used[it->second] = true;
        byHash.erase(it);
        found = true;
        break;
      }
    }
    if (!found) return false;
  }
  return true;
}

// Pairs instances by their identifier member; instances without one pair by
// value.
bool MatchById(const Value& a, const Value& b, const std::string& idField, const Value* items,
               int depth) {
  auto idOf = [&idField](const Value& e) -> const Value* {
    if (!e.IsObject()) return nullptr;
    auto it = e.FindMember(idField.c_str());
    return it != e.MemberEnd() && it->value.IsString() ? &it->value : nullptr;
  };
  const rapidjson::SizeType n = b.Size();
  std::vector<bool> used(n, false);
  std::unordered_multimap<std::string_view, rapidjson::SizeType> byId;
  std::vector<rapidjson::SizeType> withoutId;
  for (rapidjson::SizeType j = 0; j < n; ++j) {
    if (const Value* id = idOf(b[j])) {
      byId.emplace(View(*id), j);
    } else {
      withoutId.push_back(j);
    }
  }
  for (auto& x : a.GetArray()) {
    const Value* id = idOf(x);
    bool found = false;
    if (id) {
      auto range = byId.equal_range(View(*id));
      for (auto it = range.first; it != range.second && !found; ++it) {
        if (!used[it->second] && Equal(x, b[it->second], items, depth)) used[it->second] = found = true;
      }
    } else {
      for (rapidjson::SizeType j : withoutId) {
        if (!used[j] && Equal(x, b[j], items, depth)) {
          used[j] = found = true;
          break;
        }
      }
    }
    if (!found) return false;
  }
  return true;
}

bool IsScalar(const Value& v) { return !v.IsObject() && !v.IsArray(); }

// Orders scalars coarsely: by kind, then value; numbers by their double, so
// numbers equal as JSON always sort together.
int ScalarRank(const Value& v) {
  if (v.IsNull()) return 0;
  if (v.IsBool()) return 1;
  if (v.IsNumber()) return 2;
  return 3;
}

bool ScalarLess(const Value* x, const Value* y) {
  const int rx = ScalarRank(*x), ry = ScalarRank(*y);
  if (rx != ry) return rx < ry;
  switch (rx) {
    case 1: return !x->GetBool() && y->GetBool();
    case 2: {
      const double dx = x->GetDouble(), dy = y->GetDouble();
      if (std::isnan(dx) || std::isnan(dy)) return !std::isnan(dx) && std::isnan(dy);
      return dx < dy;
    }
    case 3: return View(*x) < View(*y);
    default: return false;
  }
}

bool SameScalarKey(const Value* x, const Value* y) { return !ScalarLess(x, y) && !ScalarLess(y, x); }

bool ScalarMultisetEqual(const Value& a, const Value& b) {
  ElementPointers xs(a), ys(b);
  std::sort(xs.begin(), xs.end(), ScalarLess);
  std::sort(ys.begin(), ys.end(), ScalarLess);
  // Within a run of one sort key, pair exactly (large integers may share a
  // double without being equal).
  size_t i = 0;
  while (i < xs.size()) {
    size_t end = i + 1;
    while (end < xs.size() && SameScalarKey(xs[i], xs[end])) ++end;
    if (end > ys.size() || !SameScalarKey(xs[i], ys[i]) || !SameScalarKey(xs[i], ys[end - 1]) ||
        (end < ys.size() && SameScalarKey(xs[i], ys[end]))) {
      return false;
    }
    UsedFlags used(end - i);
    for (size_t p = i; p < end; ++p) {
      bool found = false;
      for (size_t q = i; q < end && !found; ++q) {
        if (!used[q - i] && QenPlatform::JsonScalarsEqual(*xs[p], *ys[q])) {
          used.Set(q - i);
          found = true;
        }
      }
      if (!found) return false;
    }
    i = end;
  }
  return true;
}

// Members pair by name and value, each member of `b` used once, so objects
// with repeated member names are equal only with the same multiset of
// members (which keeps HashValue consistent with this equality).
bool ObjectsEqual(const Value& a, const Value& b, const Value* node, int depth) {
  node = ObjectNode(node);
  rapidjson::SizeType countA = 0, countB = 0;
  for (auto& m : b.GetObject()) {
    if (!IsGeneratedId(m.name)) ++countB;
  }
  UsedFlags used(b.MemberCount());
  for (auto& m : a.GetObject()) {
    if (IsGeneratedId(m.name)) continue;
    ++countA;
    const Value* prop = PropertyNode(node, m.name, &a);
    bool found = false;
    for (auto it = b.MemberBegin(); it != b.MemberEnd() && !found; ++it) {
      const size_t j = static_cast<size_t>(it - b.MemberBegin());
      if (used[j] || it->name != m.name) continue;
      if (Equal(m.value, it->value, prop, depth + 1)) {
        used.Set(j);
        found = true;
      }
    }
    if (!found) return false;
  }
  return countA == countB;
}

bool Equal(const Value& a, const Value& b, const Value* node, int depth) {
  CheckDepth(depth);
  if (a.IsObject()) return b.IsObject() && ObjectsEqual(a, b, node, depth);
  if (!a.IsArray()) return IsScalar(b) && QenPlatform::JsonScalarsEqual(a, b);
  if (!b.IsArray() || a.Size() != b.Size()) return false;
  const Value* items = ItemsNode(node);
  if (!items) {
    for (rapidjson::SizeType i = 0; i < a.Size(); ++i) {
      if (!Equal(a[i], b[i], nullptr, depth + 1)) return false;
    }
    return true;
  }
  if (ItemsAreObjects(node)) {
    const std::string idField = StringMember(node, "instanceId");
    if (!idField.empty() && idField != kGeneratedId) return MatchById(a, b, idField, items, depth + 1);
    return MatchByValue(a, b, items, depth + 1);
  }
  bool scalars = true;
  for (rapidjson::SizeType i = 0; i < a.Size() && scalars; ++i) scalars = IsScalar(a[i]) && IsScalar(b[i]);
  return scalars ? ScalarMultisetEqual(a, b) : MatchByValue(a, b, items, depth + 1);
}

// Whether `a` and `b` are the same value member for member and element for
// element, in the same order, holding no floating-point number (the one kind
// whose == is not an equivalence) and nested at most kIdenticalDepth levels.
// Such values are equal under any schema node; "cs_generated_id" members in
// the same place are skipped, as Equal skips them.
constexpr int kIdenticalDepth = 32;

bool Identical(const Value& a, const Value& b, int depth) {
  if (depth > kIdenticalDepth || a.GetType() != b.GetType()) return false;
  switch (a.GetType()) {
    case rapidjson::kObjectType: {
      if (a.MemberCount() != b.MemberCount()) return false;
      for (auto x = a.MemberBegin(), y = b.MemberBegin(); x != a.MemberEnd(); ++x, ++y) {
        if (x->name != y->name) return false;
        if (!IsGeneratedId(x->name) && !Identical(x->value, y->value, depth + 1)) return false;
      }
      return true;
    }
    case rapidjson::kArrayType: {
      if (a.Size() != b.Size()) return false;
      for (rapidjson::SizeType i = 0; i < a.Size(); ++i) {
        if (!Identical(a[i], b[i], depth + 1)) return false;
      }
      return true;
    }
    case rapidjson::kNumberType: return !a.IsDouble() && !b.IsDouble() && QenPlatform::JsonNumbersEqual(a, b);
    case rapidjson::kStringType: return a == b;
    default: return true;  // null, false, true
  }
}

}  // namespace

bool IsEqualValue(const rapidjson::Value& a, const rapidjson::Value& b,
                  const rapidjson::Value& schemaNode) {
  // Most pairs compared are copies of one another: confirm them in one pass.
  if (Identical(a, b, 1)) return true;
  return Equal(a, b, &schemaNode, 1);
}

bool IsEqualPrimitiveArray(const rapidjson::Value& a, const rapidjson::Value& b) {
  if (!a.IsArray() || !b.IsArray() || a.Size() != b.Size()) return false;
  bool scalars = true;
  for (auto& e : a.GetArray()) scalars = scalars && IsScalar(e);
  for (auto& e : b.GetArray()) scalars = scalars && IsScalar(e);
  if (scalars) return ScalarMultisetEqual(a, b);
  return MatchByValue(a, b, nullptr, 2);
}

}  // namespace ConfigStoreDocument

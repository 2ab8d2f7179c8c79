// The walk's own value comparisons must answer exactly as RapidJSON's ==
// (SameValue) and never call unequal what the document library calls equal
// (IdenticalValue); both take shortcuts that duplicate member names, member
// order and number kinds could trip.
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "ConfigStoreDocument.h"
#include "DriftFixture.h"

using namespace QenConfigManager;

namespace {

// Random values from small pools so that equal, nearly equal and
// duplicate-named values are common.
class ValueGenerator {
 public:
  explicit ValueGenerator(unsigned seed) : rng_(seed) {}

  int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

  rapidjson::Value Make(rapidjson::Document::AllocatorType& a, int depth = 0) {
    switch (Pick(depth > 3 ? 3 : 5)) {
      case 0: {
        // Lengths around the comparison's word boundaries.
        static const int kLengths[] = {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 33};
        std::string text(kLengths[Pick(11)], 'a');
        if (!text.empty()) text[Pick(static_cast<int>(text.size()))] = "ab"[Pick(2)];
        return rapidjson::Value(text, a);
      }
      case 1:
        switch (Pick(5)) {
          case 0: return rapidjson::Value(Pick(3));
          case 1: return rapidjson::Value(static_cast<double>(Pick(3)));
          case 2: return rapidjson::Value(-0.0);
          case 3: return rapidjson::Value(static_cast<uint64_t>(1) << 63);
          default: return rapidjson::Value(-1);
        }
      case 2:
        return Pick(3) == 0 ? rapidjson::Value() : rapidjson::Value(Pick(2) == 0);
      case 3: {
        rapidjson::Value object(rapidjson::kObjectType);
        static const char* kNames[] = {"a", "b", "name", "tags", "cs_generated_id", "an_eighteen_bytes_"};
        for (int i = Pick(5); i > 0; --i)
          object.AddMember(rapidjson::Value(kNames[Pick(6)], a), Make(a, depth + 1), a);
        return object;
      }
      default: {
        rapidjson::Value array(rapidjson::kArrayType);
        for (int i = Pick(4); i > 0; --i) array.PushBack(Make(a, depth + 1), a);
        return array;
      }
    }
  }

  // A copy with, at random, members reordered or one leaf changed.
  rapidjson::Value Variant(const rapidjson::Value& v, rapidjson::Document::AllocatorType& a) {
    if (v.IsObject()) {
      std::vector<std::pair<rapidjson::Value, rapidjson::Value>> members;
      for (auto& m : v.GetObject())
        members.emplace_back(rapidjson::Value(m.name, a), Variant(m.value, a));
      if (Pick(4) == 0) std::shuffle(members.begin(), members.end(), rng_);
      rapidjson::Value out(rapidjson::kObjectType);
      for (auto& m : members) out.AddMember(m.first, m.second, a);
      return out;
    }
    if (v.IsArray()) {
      rapidjson::Value out(rapidjson::kArrayType);
      for (auto& e : v.GetArray()) out.PushBack(Variant(e, a), a);
      return out;
    }
    if (Pick(10) == 0) return Make(a, 4);
    return rapidjson::Value(v, a);
  }

 private:
  std::mt19937 rng_;
};

bool BruteDistinct(const rapidjson::Value& object) {
  for (auto x = object.MemberBegin(); x != object.MemberEnd(); ++x)
    for (auto y = object.MemberBegin(); y != x; ++y)
      if (x->name == y->name) return false;
  return true;
}

TEST(DriftValuesTest, ComparisonsAgreeWithTheLibrariesOnRandomValues) {
  const rapidjson::Value anyNode(rapidjson::kObjectType);
  size_t equal = 0, identical = 0;
  for (unsigned seed = 1; seed <= 3000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ValueGenerator gen(seed);
    rapidjson::Document doc;
    auto& a = doc.GetAllocator();
    const rapidjson::Value x = gen.Make(a);
    const rapidjson::Value y = gen.Variant(x, a);
    ASSERT_EQ(drift::SameValue(x, y), x == y);
    ASSERT_EQ(drift::SameValue(y, x), y == x);
    equal += x == y;
    if (drift::IdenticalValue(x, y)) {
      ++identical;
      ASSERT_TRUE(x == y);
      ASSERT_TRUE(ConfigStoreDocument::IsEqualValue(x, y, anyNode));
    }
    if (x.IsObject()) {
      ASSERT_EQ(drift::DistinctNames(x), BruteDistinct(x));
    }
  }
  // The pools must produce both outcomes often enough to mean something.
  EXPECT_GT(equal, 1000u);
  EXPECT_GT(identical, 500u);
}

TEST(DriftValuesTest, RepeatedOrMovedNamesFollowTheLibrarysMemberSearch) {
  struct Case {
    const char* a;
    const char* b;
    bool same;       // SameValue
    bool identical;  // IdenticalValue
  };
  const Case cases[] = {
      // The second "a" is compared with the first "a" of the other side.
      {R"({"a": 1, "a": 2})", R"({"a": 1, "a": 2})", false, false},
      {R"({"a": 1, "a": 1})", R"({"a": 1, "a": 1})", true, false},
      {R"({"a": 1, "b": [2, "x"]})", R"({"b": [2, "x"], "a": 1})", true, false},
      {R"({"a": 1, "b": 2})", R"({"b": 2, "c": 1})", false, false},
      {R"({"v": 1})", R"({"v": 1.0})", true, true},
      {R"({"v": -0.0})", R"({"v": 0})", true, true},
      // Integers compare by exact value (RapidJSON's == would take these two
      // for equal: same 64-bit pattern), doubles by value.
      {"[-1]", "[18446744073709551615]", false, false},
      {R"({"b": 0, "a": [-1]})", R"({"a": [18446744073709551615], "b": 0})", false, false},
      {"[18446744073709551615]", "[18446744073709551615]", true, true},
      {"[-1.0]", "[18446744073709551615]", false, false},
      {"[9007199254740993]", "[9007199254740992.0]", true, true},
      {R"(["abcdefghijklmnopq"])", R"(["abcdefghijklmnopQ"])", false, false},
      {R"(["abcdefghijklmnopq"])", R"(["abcdefghijklmnopq"])", true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " / " + c.b);
    auto a = DriftTest::Parse(c.a);
    auto b = DriftTest::Parse(c.b);
    EXPECT_EQ(drift::SameValue(a->GetDocument(), b->GetDocument()), c.same);
    EXPECT_EQ(drift::IdenticalValue(a->GetDocument(), b->GetDocument()), c.identical);
  }
}

// Wide objects (groups of many keys) are indexed by hash; the first of
// duplicate names must still be the one found.
TEST(DriftValuesTest, WideObjectsFindTheFirstOfRepeatedNames) {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& a = doc.GetAllocator();
  for (int i = 0; i < 300; ++i)
    doc.AddMember(rapidjson::Value("member" + std::to_string(i), a), rapidjson::Value(i), a);
  EXPECT_TRUE(drift::DistinctNames(doc));
  EXPECT_TRUE(drift::NameIndex(doc).Distinct());
  doc.AddMember("member5", rapidjson::Value(1000), a);
  EXPECT_FALSE(drift::DistinctNames(doc));
  const drift::NameIndex index(doc);
  EXPECT_FALSE(index.Distinct());
  for (int i : {0, 5, 299}) {
    const rapidjson::Value* found = index.Find(rapidjson::Value("member" + std::to_string(i), a));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->GetInt(), i);
  }
  EXPECT_EQ(index.Find(rapidjson::Value("member300", a)), nullptr);
  EXPECT_EQ(index.Find(rapidjson::Value("", a)), nullptr);
}

// Values that are stored alike byte for byte are taken as equal without
// a look at their content; that must not change an answer.
TEST(DriftValuesTest, ValuesStoredAlikeKeepTheLibrarysAnswers) {
  rapidjson::Document doc;
  auto& a = doc.GetAllocator();
  // A value whose names repeat is not equal to itself under the member search.
  auto repeated = DriftTest::Parse(R"([{"a": 1, "a": 2}])");
  const rapidjson::Value& self = repeated->GetDocument();
  EXPECT_FALSE(self == self);
  EXPECT_FALSE(drift::SameValue(self, self));
  // Nor is NaN.
  const rapidjson::Value nan(std::numeric_limits<double>::quiet_NaN());
  rapidjson::Value nanArray(rapidjson::kArrayType);
  nanArray.PushBack(rapidjson::Value(std::numeric_limits<double>::quiet_NaN()), a);
  EXPECT_FALSE(drift::SameValue(nan, nan));
  EXPECT_FALSE(drift::SameValue(nanArray, nanArray));
  // A short string written over a longer one keeps stale bytes behind its
  // end; the text alone decides.
  rapidjson::Value reused("abcdefgh", a), fresh("ab", a);
  reused.SetString("ab", a);
  rapidjson::Value pair1(rapidjson::kArrayType), pair2(rapidjson::kArrayType);
  pair1.PushBack(reused, a).PushBack(1, a);
  pair2.PushBack(fresh, a).PushBack(1, a);
  EXPECT_TRUE(drift::SameValue(pair1, pair2));
  EXPECT_TRUE(drift::IdenticalValue(pair1, pair2));
  pair2[0].SetString("ac", a);
  EXPECT_FALSE(drift::SameValue(pair1, pair2));
  // One long text referred to twice is equal to itself.
  static const char kLong[] = "a text longer than a value holds inline";
  rapidjson::Value ref1(rapidjson::kArrayType), ref2(rapidjson::kArrayType);
  ref1.PushBack(rapidjson::StringRef(kLong), a);
  ref2.PushBack(rapidjson::StringRef(kLong), a);
  EXPECT_TRUE(drift::SameValue(ref1, ref2));
}

}  // namespace

// The hash-indexed pairing must give exactly the events of the literal
// search over the remaining host instances (highest index first).
#include <gmock/gmock.h>

#include <random>

#include "ConfigStoreDocument.h"
#include "DriftFixture.h"
#include "QenSchemaStore.h"

using namespace QenConfigManager;
using DriftTest::DriftFixture;

namespace {

class MatchingTest : public DriftFixture {
 protected:
  // Events of both passes with the given matchers, on a copy of `desired`.
  std::vector<std::string> Walk(const rapidjson::Value& desired, const rapidjson::Value& host,
                                const drift::MatcherFactory& matchers) {
    rapidjson::Document copy;
    copy.CopyFrom(desired, copy.GetAllocator());
    rapidjson::Document hostCopy;
    hostCopy.CopyFrom(host, hostCopy.GetAllocator());
    DriftTest::RecordingHandler recorder;
    recorder.consolidatedAction = true;
    recorder.createDriftObject = true;
    recorder.checkDefaultUserConfig = false;
    recorder.propertyLevelDrift = propertyLevel;
    auto store = QenSchemaStore::SchemaStore::GetStore();
    drift::WalkContext ctx(copy.GetAllocator(), recorder, nullptr, matchers);
    drift::walkComponents(ctx, copy, hostCopy, store, false);
    drift::walkComponents(ctx, hostCopy, copy, store, true);
    return recorder.events;
  }

  bool propertyLevel = false;
};

// Small pools make duplicates, collisions and partial matches likely.
class Generator {
 public:
  explicit Generator(unsigned seed) : rng_(seed) {}

  int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
  bool Chance(int percent) { return Pick(100) < percent; }
  // Instance counts on both sides of the index's small-array threshold.
  int Count() { return Pick(Chance(50) ? 10 : 24); }
  std::string Name(int pool) { return std::string(1, static_cast<char>('a' + Pick(pool))); }

  rapidjson::Value Tags(rapidjson::Document::AllocatorType& a) {
    rapidjson::Value tags(rapidjson::kArrayType);
    for (int i = Pick(4); i > 0; --i) tags.PushBack(rapidjson::Value(Name(3), a), a);
    return tags;
  }
  rapidjson::Value Generated(rapidjson::Document::AllocatorType& a) {
    rapidjson::Value gen(rapidjson::kArrayType);
    for (int i = Pick(5); i > 0; --i) {
      rapidjson::Value e(rapidjson::kObjectType);
      e.AddMember("cs_generated_id", rapidjson::Value("g" + std::to_string(serial_++), a), a);
      e.AddMember("v", Pick(3), a);
      gen.PushBack(e, a);
    }
    return gen;
  }
  rapidjson::Value Nested(rapidjson::Document::AllocatorType& a) {
    rapidjson::Value nested(rapidjson::kArrayType);
    for (int i = Pick(5); i > 0; --i) {
      rapidjson::Value e(rapidjson::kObjectType);
      e.AddMember("id", rapidjson::Value(Name(3), a), a);
      if (Chance(70)) e.AddMember("w", Pick(2), a);
      if (Chance(50)) e.AddMember("gen", Generated(a), a);
      nested.PushBack(e, a);
    }
    return nested;
  }
  rapidjson::Value Document(rapidjson::Document::AllocatorType& a) {
    rapidjson::Value g(rapidjson::kObjectType);
    if (Chance(80)) {
      rapidjson::Value nat(rapidjson::kArrayType);
      for (int i = Count(); i > 0; --i) {
        rapidjson::Value e(rapidjson::kObjectType);
        e.AddMember("name", rapidjson::Value(Name(5), a), a);
        if (Chance(60)) e.AddMember("v", Pick(3), a);
        if (Chance(40)) e.AddMember("tags", Tags(a), a);
        if (Chance(50)) e.AddMember("nested", Nested(a), a);
        nat.PushBack(e, a);
      }
      g.AddMember("nat", nat, a);
    }
    if (Chance(80)) {
      rapidjson::Value genk(rapidjson::kArrayType);
      for (int i = Count(); i > 0; --i) {
        rapidjson::Value e(rapidjson::kObjectType);
        e.AddMember("cs_generated_id", rapidjson::Value("k" + std::to_string(serial_++), a), a);
        e.AddMember("v", Pick(3), a);
        if (Chance(40)) e.AddMember("tags", Tags(a), a);
        genk.PushBack(e, a);
      }
      g.AddMember("genk", genk, a);
    }
    if (Chance(70)) {
      rapidjson::Value single(rapidjson::kObjectType);
      if (Chance(60)) single.AddMember("b", Pick(3), a);
      if (Chance(60)) single.AddMember("gen", Generated(a), a);
      g.AddMember("single", single, a);
    }
    if (Chance(40)) g.AddMember("other", rapidjson::Value(rapidjson::kObjectType), a);
    rapidjson::Value c(rapidjson::kObjectType);
    c.AddMember("g", g, a);
    rapidjson::Value root(rapidjson::kObjectType);
    root.AddMember("c", c, a);
    return root;
  }

  // A desired document close to `host`: keys reordered or dropped, arrays
  // shuffled or kept in order, thinned, extended with copies (duplicates)
  // and with changed elements.
  void MutateDocument(rapidjson::Value& root, rapidjson::Document::AllocatorType& a) {
    rapidjson::Value& group = root["c"]["g"];
    if (Chance(30)) {
      rapidjson::Value keys(rapidjson::kObjectType);
      for (auto m = group.MemberEnd(); m != group.MemberBegin();) {
        --m;
        if (Chance(20)) continue;
        keys.AddMember(rapidjson::Value(m->name, a), rapidjson::Value(m->value, a), a);
      }
      group = keys;
    }
    Mutate(root, a);
  }

  void Mutate(rapidjson::Value& value, rapidjson::Document::AllocatorType& a) {
    if (value.IsObject()) {
      for (auto m = value.MemberBegin(); m != value.MemberEnd(); ++m) {
        if (m->value.IsInt() && Chance(15)) m->value.SetInt(Pick(3));
        Mutate(m->value, a);
      }
    } else if (value.IsArray()) {
      std::vector<rapidjson::Value> elements;
      for (auto& e : value.GetArray()) {
        if (Chance(15)) continue;
        rapidjson::Value copy(e, a);
        if (Chance(15)) elements.emplace_back(rapidjson::Value(e, a));
        elements.push_back(std::move(copy));
      }
      if (Chance(50)) std::shuffle(elements.begin(), elements.end(), rng_);
      value.SetArray();
      for (auto& e : elements) {
        Mutate(e, a);
        value.PushBack(e, a);
      }
    }
  }

 private:
  std::mt19937 rng_;
  int serial_ = 0;
};

TEST_F(MatchingTest, IndexedPairingGivesTheEventsOfTheLiteralSearch) {
  size_t events = 0;
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Generator gen(seed);
    rapidjson::Document host, desired;
    host.CopyFrom(gen.Document(host.GetAllocator()), host.GetAllocator());
    if (gen.Chance(20)) {
      desired.CopyFrom(gen.Document(desired.GetAllocator()), desired.GetAllocator());
    } else {
      desired.CopyFrom(host, desired.GetAllocator());
      gen.MutateDocument(desired, desired.GetAllocator());
    }
    propertyLevel = seed % 2 == 0;
    const std::vector<std::string> literal = Walk(desired, host, DriftTest::LiteralMatchers());
    ASSERT_EQ(Walk(desired, host, drift::IndexedMatchers()), literal);
    events += literal.size();
  }
  EXPECT_GT(events, 1000u);
}

TEST_F(MatchingTest, ValuesThatCompareEqualHashAlike) {
  const rapidjson::Value& schema =
      QenSchemaStore::GetSchema("c", "g", "genk", QenSchemaStore::SchemaStore::GetStore())
          ->GetSchemaJson();
  const char* pairs[][2] = {
      {R"({"v": 1, "tags": ["a", "b", "a"]})", R"({"tags": ["a", "a", "b"], "v": 1.0})"},
      {R"({"v": 1, "cs_generated_id": "x"})", R"({"cs_generated_id": "y", "v": 1})"},
      {R"({"list": [{"name": "p", "v": 1}, {"name": "q"}]})",
       R"({"list": [{"name": "q"}, {"v": 1, "name": "p"}]})"},
      {R"({"v": -0.0})", R"({"v": 0})"},
      {R"({"v": 1, "v": 2, "tags": []})", R"({"tags": [], "v": 2, "v": 1})"},
  };
  for (auto& pair : pairs) {
    SCOPED_TRACE(pair[0]);
    auto a = DriftTest::Parse(pair[0]);
    auto b = DriftTest::Parse(pair[1]);
    ASSERT_TRUE(ConfigStoreDocument::IsEqualValue(a->GetDocument(), b->GetDocument(), schema));
    EXPECT_EQ(drift::InstanceValueHash(a->GetDocument()), drift::InstanceValueHash(b->GetDocument()));
  }
}

}  // namespace

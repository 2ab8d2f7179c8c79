// Drift events of the walk, recorded as text (see DriftFixture.h).
#include <gmock/gmock.h>

#include <boost/filesystem.hpp>

#include "CSLogger.h"
#include "ConfigStoreException.h"
#include "QenConfigStore.h"
#include "DriftFixture.h"
#include "JsonErrors.h"

using namespace QenConfigManager;
using DriftTest::DriftFixture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

class DriftEngineTest : public DriftFixture {};

TEST_F(DriftEngineTest, IdenticalDocumentsHaveNoDriftAndTheProfileWrapperChangesNothing) {
  const std::string host =
      R"({"c": {"g": {"single": {"a": "x", "tags": ["t1", "t2"]},
                      "nat": [{"name": "n1", "v": 1}, {"name": "n2", "v": 2}]}}})";
  EXPECT_THAT(Drift(host, host), IsEmpty());

  const std::string components =
      R"({"c": {"g": {"single": {"a": "y", "tags": ["t2", "t1"]},
                      "nat": [{"name": "n2", "v": 3}, {"name": "n3"}]}}})";
  const std::vector<std::string> unwrapped = Drift(components, host);
  EXPECT_THAT(unwrapped,
              ElementsAre("PROP SET /c/g/single/a \"y\" \"x\"", "PROP SET /c/g/nat/0/v 3 2",
                          "ADD /c/g/nat/1 n3 {\"name\":\"n3\"}",
                          "DELETE /c/g/nat/2 n1 {\"name\":\"n1\",\"v\":1}"));
  EXPECT_EQ(Drift("{\"profile\": " + components + "}", host), unwrapped);
}

TEST_F(DriftEngineTest, SingletonOnOneSideIsOneWholeKeyEventUnlessPropertyLevel) {
  const std::string desired = R"({"c": {"g": {"single": {"a": "x", "b": 1}}}})";
  const std::string host = R"({"c": {"g": {"other": {"a": "h"}}}})";
  // Additions come first, then what only the host has.
  EXPECT_THAT(Drift(desired, host),
              ElementsAre("SET /c/g/single  {\"a\":\"x\",\"b\":1} - {}",
                          "DELETE /c/g/other  {\"a\":\"h\"}"));

  handler.propertyLevelDrift = true;
  handler.consolidatedAction = true;
  handler.createDriftObject = true;
  EXPECT_THAT(Drift(desired, host),
              ElementsAre("PROP ADD /c/g/single/a \"x\" -", "PROP ADD /c/g/single/b 1 -",
                          "SET /c/g/single  {\"a\":\"x\",\"b\":1} - {\"a\":\"ADD\",\"b\":\"ADD\"}",
                          "PROP DELETE /c/g/other/a - \"h\"",
                          "SET /c/g/other  null {\"a\":\"h\"} {\"a\":\"DELETE\"}"));

  // An empty value on either side counts as missing.
  handler.propertyLevelDrift = false;
  EXPECT_THAT(Drift(R"({"c": {"g": {"single": {}}}})", R"({"c": {"g": {"single": {}}}})"), IsEmpty());
}

TEST_F(DriftEngineTest, PropertiesAreSetThenAddedThenDeletedInMemberOrder) {
  handler.consolidatedAction = true;
  handler.createDriftObject = true;
  EXPECT_THAT(
      Drift(R"({"c": {"g": {"single": {"b": 2, "a": "new", "sub": {"x": "1", "y": null},
                                       "tags": ["t"], "cs_generated_id": "d1"}}}})",
            R"({"c": {"g": {"single": {"secret": "s", "sub": {"y": 5, "x": "1"}, "b": 1,
                                       "tags": ["t", "u"], "cs_generated_id": "h1"}}}})"),
      ElementsAre("PROP SET /c/g/single/b 2 1", "PROP ADD /c/g/single/a \"new\" -",
                  "PROP DELETE /c/g/single/sub/y null 5",
                  "PROP SET /c/g/single/tags [\"t\"] [\"t\",\"u\"]",
                  "PROP DELETE /c/g/single/secret - \"s\"",
                  "SET /c/g/single  {\"b\":2,\"a\":\"new\",\"sub\":{\"x\":\"1\",\"y\":null},"
                  "\"tags\":[\"t\"],\"cs_generated_id\":\"d1\"} {\"secret\":\"s\",\"sub\":{\"y\":5,"
                  "\"x\":\"1\"},\"b\":1,\"tags\":[\"t\",\"u\"],\"cs_generated_id\":\"h1\"} "
                  "{\"b\":\"SET\",\"a\":\"ADD\",\"sub\":{\"y\":\"SET\"},\"tags\":\"SET\","
                  "\"secret\":\"DELETE\"}"));

  // A scalar missing on the host is added; "cs_generated_id" never drifts.
  handler.consolidatedAction = false;
  EXPECT_THAT(Drift(R"({"c": {"g": {"single": {"sub": {"x": "1"}, "cs_generated_id": "a"}}}})",
                    R"({"c": {"g": {"single": {"sub": {"x": null}, "cs_generated_id": "b"}}}})"),
              ElementsAre("PROP ADD /c/g/single/sub/x \"1\" null"));

  // Integers compare by exact value: these two share a 64-bit pattern.
  EXPECT_THAT(Drift(R"({"c": {"g": {"single": {"b": -1}}}})",
                    R"({"c": {"g": {"single": {"b": 18446744073709551615}}}})"),
              ElementsAre("PROP SET /c/g/single/b -1 18446744073709551615"));
}

TEST_F(DriftEngineTest, NaturalIdentifiersPairAndMissingInstancesConsultDefaultUserConfig) {
  const std::string desired = R"({"c": {"g": {"nat": [{"name": "a", "v": 1}, {"name": "b", "v": 2}]}}})";
  const std::string host = R"({"c": {"g": {"nat": [{"name": "b", "v": 2}, {"name": "c", "v": 3}]}}})";
  EXPECT_THAT(Drift(desired, host),
              ElementsAre("ADD /c/g/nat/0 a {\"name\":\"a\",\"v\":1}",
                          "DELETE /c/g/nat/2 c {\"name\":\"c\",\"v\":3}"));

  auto description = DriftTest::Parse(
      R"({"host": {"defaults": {"c": {"g": {"nat": [{"name": "a", "v": 0}]}}}}})");
  QenConfigStore::LoadStoreDescription(description->GetDocument());
  EXPECT_THAT(Drift(desired, host),
              ElementsAre("SET /c/g/nat/0 a {\"name\":\"a\",\"v\":1} - {}",
                          "DELETE /c/g/nat/2 c {\"name\":\"c\",\"v\":3}"));
  // Compliance-style handlers do not ask the store.
  handler.checkDefaultUserConfig = false;
  EXPECT_THAT(Drift(desired, host), ElementsAre("ADD /c/g/nat/0 a {\"name\":\"a\",\"v\":1}",
                                                "DELETE /c/g/nat/2 c {\"name\":\"c\",\"v\":3}"));
}

TEST_F(DriftEngineTest, DuplicateIdentifiersPairWithTheHighestHostIndexAndLeftoversCountDown) {
  const std::string host =
      R"({"c": {"g": {"nat": [{"name": "x", "v": 1}, {"name": "x", "v": 2}, {"name": "y"}]}}})";
  handler.checkDefaultUserConfig = false;
  EXPECT_THAT(Drift(R"({"c": {"g": {"nat": [{"name": "x", "v": 1}]}}})", host),
              ElementsAre("PROP SET /c/g/nat/0/v 1 2", "DELETE /c/g/nat/1 y {\"name\":\"y\"}",
                          "DELETE /c/g/nat/2 x {\"name\":\"x\",\"v\":1}"));
  // Only on the host: numbered from 0, highest host index first.
  EXPECT_THAT(Drift(R"({"c": {"g": {}}})", host),
              ElementsAre("DELETE /c/g/nat/0 y {\"name\":\"y\"}",
                          "DELETE /c/g/nat/1 x {\"name\":\"x\",\"v\":2}",
                          "DELETE /c/g/nat/2 x {\"name\":\"x\",\"v\":1}"));
}

TEST_F(DriftEngineTest, GeneratedIdentifiersPairByValue) {
  const std::string host =
      R"({"c": {"g": {"genk": [{"cs_generated_id": "h1", "v": 1, "tags": ["a", "b"]},
                               {"cs_generated_id": "h2", "v": 2}]}}})";
  // Order, member order, scalar array order and identifiers do not matter.
  EXPECT_THAT(Drift(R"({"c": {"g": {"genk": [{"v": 2}, {"tags": ["b", "a"], "v": 1,
                                                        "cs_generated_id": "d1"}]}}})",
                    host),
              IsEmpty());
  // A changed instance is an addition and a deletion; a desired instance
  // without identifier gets a fresh one in the event (not in the document).
  rapidjson::Document desired;
  desired.Parse(R"({"c": {"g": {"genk": [{"v": 3}, {"v": 1, "tags": ["a", "b"]}]}}})");
  std::vector<std::string> events = Drift(desired, host);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_THAT(events[0], ::testing::MatchesRegex("ADD /c/g/genk/0 [0-9a-f-]{36} \\{\"v\":3\\}"));
  EXPECT_EQ(events[1], "DELETE /c/g/genk/2 h2 {\"cs_generated_id\":\"h2\",\"v\":2}");
  EXPECT_FALSE(desired["c"]["g"]["genk"][0].HasMember("cs_generated_id"));
}

TEST_F(DriftEngineTest, ArraysOfObjectsInsideValuesBuildDriftDocuments) {
  handler.consolidatedAction = true;
  handler.createDriftObject = true;
  handler.checkDefaultUserConfig = false;
  rapidjson::Document desired;
  desired.Parse(R"({"c": {"g": {"nat": [{"name": "k", "nested": [
      {"id": "n1", "w": 1, "gen": [{"v": 1}, {"v": 7}]}, {"id": "n2"}]}]}}})");
  std::vector<std::string> events = Drift(desired, R"({"c": {"g": {"nat": [{"name": "k", "nested": [
      {"id": "n3"}, {"id": "n1", "w": 2, "gen": [{"cs_generated_id": "g9", "v": 9},
                                                {"cs_generated_id": "g1", "v": 1}]}]}]}}})");
  // The value-matched addition received a generated identifier in the
  // caller's document, and the drift document names it.
  const rapidjson::Value& added = desired["c"]["g"]["nat"][0]["nested"][0]["gen"][1];
  ASSERT_TRUE(added.HasMember("cs_generated_id"));
  const std::string generated = added["cs_generated_id"].GetString();
  EXPECT_FALSE(desired["c"]["g"]["nat"][0]["nested"][0]["gen"][0].HasMember("cs_generated_id"));
  ASSERT_EQ(events.size(), 6u);
  EXPECT_EQ(events[0], "PROP SET /c/g/nat/0/nested/0/w 1 2");
  EXPECT_EQ(events[1], "PROP ADD /c/g/nat/0/nested/0/gen/1 {\"v\":7,\"cs_generated_id\":\"" +
                           generated + "\"} -");
  EXPECT_EQ(events[2], "PROP DELETE /c/g/nat/0/nested/0/gen/2 - {\"cs_generated_id\":\"g9\",\"v\":9}");
  EXPECT_EQ(events[3], "PROP ADD /c/g/nat/0/nested/1 {\"id\":\"n2\"} -");
  EXPECT_EQ(events[4], "PROP DELETE /c/g/nat/0/nested/2 - {\"id\":\"n3\"}");
  EXPECT_THAT(events[5],
              HasSubstr(" {\"nested\":[{\"INSTANCEID\":\"n1\",\"DRIFTOP\":\"SET\",\"DRIFTOBJ\":{"
                        "\"w\":\"SET\",\"gen\":[{\"INSTANCEID\":\"" + generated +
                        "\",\"DRIFTOP\":\"ADD\"},{\"INSTANCEID\":\"g9\",\"DRIFTOP\":\"DELETE\"}]}},"
                        "{\"INSTANCEID\":\"n2\",\"DRIFTOP\":\"ADD\"},"
                        "{\"INSTANCEID\":\"n3\",\"DRIFTOP\":\"DELETE\"}]}"));
  EXPECT_THAT(events[5], StartsWith("SET /c/g/nat/0 k "));
}

TEST_F(DriftEngineTest, KeyWithoutSchemaStopsTheWalkAfterEarlierEvents) {
  try {
    Drift(R"({"c": {"g": {"other": {"a": "1"}, "unknown": {}, "single": {"a": "2"}}}})",
          R"({"c": {"g": {"other": {"a": "2"}}}})");
    FAIL() << "no exception";
  } catch (const ConfigManagerException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2021);
    EXPECT_STREQ(e.what(), "Schema object not found: /c/g/unknown");
  }
  EXPECT_THAT(handler.events, ElementsAre("PROP SET /c/g/other/a \"1\" \"2\""));
  EXPECT_TRUE(log_.Contains(0, "Schema not found for c:g:unknown"));
  EXPECT_TRUE(log_.Contains(2, "DriftHandler: consolidated action required - 0"));
  EXPECT_TRUE(log_.Contains(2, "DriftHandler: create drift object - 0"));
  // The failure line reaches the log file at once, after the progress lines
  // that the logger held back until then.
  const std::string file = ReadFile(CSLogger::kLogFile);
  const size_t consolidated = file.find("<2> DriftHandler: consolidated action required - 0\n");
  const size_t create = file.find("<2> DriftHandler: create drift object - 0\n");
  const size_t failure = file.find("<0> Schema not found for c:g:unknown\n");
  ASSERT_NE(failure, std::string::npos) << file;
  EXPECT_LT(consolidated, create);
  EXPECT_LT(create, failure);
}

TEST_F(DriftEngineTest, UnreachableSchemaStoreFailsBeforeAnyEvent) {
  boost::filesystem::remove_all(Path("/usr/lib/corvane/configstore/schemas"));
  QenSchemaStore::SchemaStore::Invalidate();
  try {
    Drift(R"({"c": {"g": {"other": {"a": "1"}}}})", "{}");
    FAIL() << "no exception";
  } catch (const ConfigManagerException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2180);
    EXPECT_STREQ(e.what(), "Failed to access SchemaStore");
  }
  EXPECT_THAT(handler.events, IsEmpty());
}

TEST_F(DriftEngineTest, InstanceWithEmptyIdentifierFailsWhenDefaultsAreChecked) {
  try {
    Drift(R"({"c": {"g": {"nat": [{"name": ""}]}}})", "{}");
    FAIL() << "no exception";
  } catch (const ConfigManagerException& e) {
    EXPECT_EQ(e.GetErrorCode(), 3000);
    EXPECT_STREQ(e.what(), "InstanceId is not set for non-singleton configuration");
  }
}

// Documents of the wrong shape anywhere: the JSON library's 1082, no crash.
TEST_F(DriftEngineTest, WrongJsonTypesRaiseTheJsonError) {
  struct Case {
    const char* desired;
    const char* host;
    const char* condition;
  };
  const Case cases[] = {
      {R"([])", "{}", "IsObject()"},
      {R"({"c": []})", "{}", "IsObject()"},
      {R"({"c": {"g": 1}})", "{}", "IsObject()"},
      {R"({"c": {"g": {"other": {}}}})", R"({"c": {"g": []}})", "IsObject()"},
      {R"({"c": {"g": {"other": {}}}})", R"({"c": 5})", "IsObject()"},
      {R"({"c": {"g": {"other": {}}}})", R"([1])", "IsObject()"},
      {R"({"c": {"g": {"nat": {"name": "a"}}}})", "{}", "IsArray()"},
      {R"({"c": {"g": {"nat": [5]}}})", "{}", "IsObject()"},
      {R"({"c": {"g": {"nat": [{"name": 5}]}}})", "{}", "IsString()"},
      {R"({"c": {"g": {"nat": [{"name": "a"}]}}})", R"({"c": {"g": {"nat": [{"v": 1}]}}})", "false"},
      {R"({"c": {"g": {"nat": [{"name": "a"}]}}})", R"({"c": {"g": {"nat": [{"name": 1}]}}})",
       "IsString()"},
      {"{}", R"({"c": {"g": {"nat": [{"nom": "a"}]}}})", "false"},
      {"{}", R"({"c": {"g": {"genk": [7]}}})", "IsObject()"},
      {R"({"c": {"g": {"single": {"unknown": 1}}}})", R"({"c": {"g": {"single": {"a": "x"}}}})",
       "false"},
      {R"({"c": {"g": {"single": {"list": [1]}}}})", R"({"c": {"g": {"single": {"list": [2]}}}})",
       "IsObject()"},
      {R"({"c": {"g": {"single": {"list": [{"name": 1}]}}}})",
       R"({"c": {"g": {"single": {"list": []}}}})", "IsString()"},
  };
  handler.checkDefaultUserConfig = false;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.desired) + " / " + c.host);
    try {
      Drift(c.desired, c.host);
      ADD_FAILURE() << "no exception";
    } catch (const QenConfigStore::ConfigStoreException& e) {
      EXPECT_EQ(e.GetErrorCode(), 1082);
      EXPECT_THAT(e.what(), StartsWith("JSON error:\"" + QenTest::JsonLibraryFile() + "\":"));
      EXPECT_THAT(e.what(), ::testing::EndsWith(std::string(": ") + c.condition));
    }
  }
}

TEST_F(DriftEngineTest, DeepAndHugeValuesDoNotCrash) {
  // 10,000 levels below a property that the schema describes as an object.
  rapidjson::Document desired(rapidjson::kObjectType);
  auto& a = desired.GetAllocator();
  rapidjson::Value deep(rapidjson::kObjectType);
  for (int i = 0; i < 10000; ++i) {
    rapidjson::Value outer(rapidjson::kObjectType);
    outer.AddMember("x", deep, a);
    deep = std::move(outer);
  }
  rapidjson::Value single(rapidjson::kObjectType), group(rapidjson::kObjectType),
      component(rapidjson::kObjectType);
  single.AddMember("sub", deep, a);
  group.AddMember("single", single, a);
  component.AddMember("g", group, a);
  desired.AddMember("c", component, a);
  // Reported whole where the host lacks it, refused where it must be walked.
  std::vector<std::string> events = Drift(desired, R"({"c": {"g": {"single": {"b": 1}}}})");
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[1], "PROP DELETE /c/g/single/b - 1");
  EXPECT_THAT(events[0], StartsWith("PROP ADD /c/g/single/sub {\"x\":{\"x\":{"));
  try {
    Drift(desired, R"({"c": {"g": {"single": {"sub": {"x": {"x": 1}}}}}})");
    ADD_FAILURE() << "no exception";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 1082);
    EXPECT_THAT(e.what(), StartsWith("JSON error:"));
  }

  // A million elements, reversed on the host: one comparison, no drift.
  rapidjson::Document big(rapidjson::kObjectType);
  std::string host = "{\"c\": {\"g\": {\"single\": {\"tags\": [";
  rapidjson::Value tags(rapidjson::kArrayType);
  for (int i = 0; i < 1000000; ++i) {
    tags.PushBack(i, big.GetAllocator());
    host += (i ? "," : "") + std::to_string(999999 - i);
  }
  host += "]}}}}";
  rapidjson::Value s(rapidjson::kObjectType), g(rapidjson::kObjectType), c(rapidjson::kObjectType);
  s.AddMember("tags", tags, big.GetAllocator());
  g.AddMember("single", s, big.GetAllocator());
  c.AddMember("g", g, big.GetAllocator());
  big.AddMember("c", c, big.GetAllocator());
  EXPECT_THAT(Drift(big, host), IsEmpty());
}

}  // namespace

#include <gtest/gtest.h>

#include "DocTestUtil.h"

namespace {

using namespace ConfigStoreDocument;
using DocTest::ExpectStoreError;
using DocTest::MakeDeep;
using DocTest::Parse;
using rapidjson::Document;

const char kTooDeep[] = "JSON error: value nested deeper than 512 levels";

TEST(CreateDocument, ParsesOneValueOrFailsWith2080) {
  Document d;
  CreateDocument("  {\"a\": [1, 2.5, \"x\"]}\n", d);
  EXPECT_EQ(SerializeValue(d), R"({"a":[1,2.5,"x"]})");
  auto owned = CreateDocument("[true]");
  EXPECT_EQ(SerializeValue(*owned), "[true]");
  try {
    CreateDocument("{\"a\": 1} {}", d);
    FAIL() << "no exception";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2080);
    EXPECT_STREQ(e.what(), "Failed to parse JSON String");
    ASSERT_EQ(e.GetArgs().size(), 1u);
    EXPECT_EQ(e.GetArgs().front(), "The document root must not be followed by other values. at offset 9");
  }
  // The target is untouched by a failed parse.
  EXPECT_EQ(SerializeValue(d), R"({"a":[1,2.5,"x"]})");
}

TEST(CreateDocument, NumbersPastTheLargestDoubleAreRefused) {
  // 2e308 rounds to infinity, which no writer could give back as JSON.
  for (const char* text : {"[1, 2e308]", "{\"a\": -2e308}"}) {
    Document d;
    const QenPlatform::JsonParseResult result = QenPlatform::ParseJson(text, d);
    EXPECT_EQ(result.status, QenPlatform::JsonParseResult::kNotJson) << text;
    EXPECT_EQ(result.reason, std::string("Number too big to be stored in double. at offset ") +
                                 (text[0] == '[' ? "4" : "6")) << text;
    EXPECT_TRUE(d.IsNull()) << text;
  }
  Document d;
  EXPECT_TRUE(QenPlatform::ParseJson("[1.7976931348623157e308, 0e308, -0.0]", d));
}

TEST(CreateDocument, DepthLimitIsExact) {
  Document d;
  CreateDocument(std::string(512, '[') + std::string(512, ']'), d);
  ExpectStoreError([&] { CreateDocument(std::string(513, '[') + std::string(513, ']'), d); }, 1082, kTooDeep);
  // Ten thousand levels neither overflow the parser's stack nor ours.
  ExpectStoreError([&] { CreateDocument(std::string(10000, '[') + std::string(10000, ']'), d); }, 1082, kTooDeep);
}

TEST(DeepValues, EveryWalkRefusesTenThousandLevels) {
  // Built in memory, past CreateDocument's check; destroying it is safe
  // because pool-allocated values are released without a recursive walk.
  Document deep;
  MakeDeep(deep, 10000);
  Document deepObject;
  MakeDeep(deepObject, 10000, true);
  Document schema = Parse("{}");
  std::string out;
  ExpectStoreError([&] { SerializeValue(deep, out); }, 1082, kTooDeep);
  ExpectStoreError([&] { NormalizeValue(deepObject); }, 1082, kTooDeep);
  ExpectStoreError([&] { RedactAndSerializeValue(schema, deepObject); }, 1082, kTooDeep);
  ExpectStoreError([&] { IsEqualValue(deepObject, deepObject, schema); }, 1082, kTooDeep);
  ExpectStoreError([&] { IsEqualValue(deep, deep, Parse(R"({"items": {"items": {}}})")); }, 1082, kTooDeep);
  ExpectStoreError([&] { IsEqualPrimitiveArray(deep, deep); }, 1082, kTooDeep);
  for (int action = 0; action < kCleanupActionCount; ++action) {
    ExpectStoreError(
        [&] { CleanupObject(deepObject, schema, {static_cast<CLEANUP_ACTIONS>(action)}, deepObject.GetAllocator()); },
        1082, kTooDeep);
  }
  // Moved in (RapidJSON's CopyFrom would itself recurse ten thousand times).
  Document sectionValue, profileValue;
  MakeDeep(sectionValue, 10000, true);
  MakeDeep(profileValue, 10000, true);
  Document doc = Parse(R"({"profile": {"c": {"g": {"k": {}}}}, "host-specific": {"h": {"c": {"g": {"k": {}}}}}})");
  doc["host-specific"]["h"]["c"]["g"]["k"] = sectionValue.Move();
  doc["profile"]["c"]["g"]["k"] = profileValue.Move();
  ConfigStoreDocument::SchemaMergeMetadataProvider provider(schema);
  ExpectStoreError([&] { GetDocumentForHost(doc, "h", provider); }, 1082, kTooDeep);
}

TEST(SerializeValue, CompactAndReplacing) {
  Document d = Parse(R"({ "b" : [ 1 , { "a" : null } ], "s": "q\"\u00e9" })");
  std::string out = "old";
  SerializeValue(d, out);
  EXPECT_EQ(out, "{\"b\":[1,{\"a\":null}],\"s\":\"q\\\"\xc3\xa9\"}");
}

TEST(RedactAndSerializeValue, HidesSensitiveValuesAtAnyDepth) {
  Document schema = Parse(R"({"type": "array", "instanceId": "name", "items": {"type": "object", "properties": {
      "name": {"type": "string"},
      "password": {"type": "string", "sensitive": true},
      "keys": {"type": "array", "items": {"type": "string", "sensitive": true}},
      "vault": {"type": "object", "sensitive": true},
      "auth": {"discriminator": "kind", "oneOf": [
        {"properties": {"kind": {"enum": ["pw"]}, "secret": {"sensitive": true}}},
        {"properties": {"kind": {"enum": ["none"]}, "secret": {"type": "string"}}}]},
      "extra": {"type": "object", "patternProperties": {"^token": {"sensitive": true}}}}}})");
  Document value = Parse(R"([{"name": "root", "password": "pw1", "keys": ["k1", "k2"],
      "vault": {"deep": [{"x": "s"}]}, "auth": {"kind": "pw", "secret": "s1"},
      "extra": {"tokenA": "t", "other": "o"}},
    {"name": "guest", "auth": {"kind": "none", "secret": "visible"}}])");
  EXPECT_EQ(RedactAndSerializeValue(schema, value),
            R"x([{"name":"root","password":"(redacted)","keys":["(redacted)","(redacted)"],)x"
            R"x("vault":"(redacted)","auth":{"kind":"pw","secret":"(redacted)"},)x"
            R"x("extra":{"tokenA":"(redacted)","other":"(redacted)"}},)x"
            R"x({"name":"guest","auth":{"kind":"none","secret":"visible"}}])x");
  // A property schema node (as the compliance check passes) works alone.
  Document prop = Parse(R"({"type": "string", "sensitive": true})");
  EXPECT_EQ(RedactAndSerializeValue(prop, Parse("\"x\"")), "\"(redacted)\"");
  // A malformed schema hides nothing and does not fail.
  EXPECT_EQ(RedactAndSerializeValue(Parse("[1]"), Parse(R"({"a": 1})")), R"({"a":1})");
}

TEST(NormalizeValue, OneTextForEqualValues) {
  Document a = Parse(R"({"b": {"y": 1.0, "x": [3, 1]}, "a": -0.0, "c": 1.5, "d": 12345678901234567890})");
  Document b = Parse(R"({"a": 0, "c": 1.5, "d": 12345678901234567890, "b": {"x": [3, 1], "y": 1}})");
  EXPECT_EQ(NormalizeValue(a), R"({"a":0,"b":{"x":[3,1],"y":1},"c":1.5,"d":12345678901234567890})");
  EXPECT_EQ(NormalizeValue(a), NormalizeValue(b));
  EXPECT_NE(NormalizeValue(Parse("[1, 3]")), NormalizeValue(Parse("[3, 1]")));
  // Member names sort by bytes, a prefix first.
  EXPECT_EQ(NormalizeValue(Parse(R"({"ab": 1, "a": 2, "B": 3})")), R"({"B":3,"a":2,"ab":1})");
}

TEST(Building, ProfileComponentsGroupsMembersAndObjects) {
  Document doc;
  AddProfile(doc);
  AddProfile(doc);
  auto& a = doc.GetAllocator();
  rapidjson::Value v1(rapidjson::kObjectType);
  v1.AddMember("enabled", true, a);
  AddObject(doc["profile"], "system", "time", "ntp", "", v1, a);
  EXPECT_TRUE(v1.IsNull());
  Document i1 = Parse(R"({"name": "a"})"), i2 = Parse(R"({"name": "b"})");
  rapidjson::Value c1(i1, a), c2(i2, a);
  AddObject(doc["profile"], "network", "nic", "nic", "a", c1, a);
  AddObject(doc["profile"], "network", "nic", "nic", "b", c2, a);
  rapidjson::Value replaced("new");
  AddMember(AddGroup(doc["profile"], "system", "time", a), "ntp", replaced, a);
  rapidjson::Value extra(7);
  AddMember(AddComponent(doc["profile"], "other", a), "x", extra, a);
  EXPECT_EQ(SerializeValue(doc),
            R"({"profile":{"system":{"time":{"ntp":"new"}},"network":{"nic":{"nic":[{"name":"a"},{"name":"b"}]}},)"
            R"("other":{"x":7}}})");
  rapidjson::Value single(rapidjson::kObjectType);
  ExpectStoreError([&] { AddObject(doc["profile"], "system", "time", "ntp", "id", single, a); }, 1082,
                   "JSON error: key \"ntp\" with instances is not an array");
  ExpectStoreError([&] { AddGroup(doc["profile"], "other", "x", a); }, 1082,
                   "JSON error: group \"x\" is not an object");
  Document list = Parse("[]");
  ExpectStoreError([&] { AddProfile(list); }, 1082, "JSON error: a configuration document is not an object");
}

TEST(Predicates, EmptyDocumentsAndTelemetryOptOut) {
  EXPECT_TRUE(IsDocumentEmpty(Parse("{}")));
  EXPECT_TRUE(IsDocumentEmpty(Parse("[]")));
  EXPECT_TRUE(IsDocumentEmpty(Parse("null")));
  EXPECT_FALSE(IsDocumentEmpty(Parse("\"\"")));
  EXPECT_FALSE(IsDocumentEmpty(Parse("[{}]")));
  EXPECT_TRUE(IsTelemetryDisabled(Parse(R"({"type": "array", "telemetryDisabled": true})")));
  EXPECT_TRUE(IsTelemetryDisabled(Parse(R"({"items": {"telemetryDisabled": true}})")));
  EXPECT_FALSE(IsTelemetryDisabled(Parse(R"({"telemetryDisabled": "true"})")));
  EXPECT_FALSE(IsTelemetryDisabled(Parse("7")));
}

}  // namespace

#include <gtest/gtest.h>

#include "DocTestUtil.h"

namespace {

using ConfigStoreDocument::NormalizeValue;
using DocTest::ExpectStoreError;
using DocTest::Parse;
using rapidjson::Document;

// Generated-schema shape: network/interfaces/nic holds instances named by
// "name", system/time/ntp is a singleton with a host-specific "servers".
const char kSchema[] = R"({"type": "object", "properties": {"profile": {"type": "object", "properties": {
  "network": {"type": "object", "properties": {"interfaces": {"type": "object", "properties": {
    "nic": {"type": "array", "instanceId": "name", "items": {"type": "object", "properties": {
      "name": {"type": "string"}, "mtu": {"type": "integer"},
      "address": {"type": "string", "hostSpecific": true}}}}}}}},
  "system": {"type": "object", "properties": {"time": {"type": "object", "properties": {
    "ntp": {"type": "object", "properties": {"enabled": {"type": "boolean"},
      "servers": {"type": "array", "items": {"type": "string"}, "hostSpecific": true}}},
    "zone": {"type": "object", "hostSpecific": true, "properties": {"tz": {"type": "string"}}}}}}}}}}})";

TEST(NormalizeHostId, LowerCaseWithoutBracesOrBlanks) {
  EXPECT_EQ(ConfigStoreDocument::NormalizeHostId("  {4C4C4544-0042-AB}\n"), "4c4c4544-0042-ab");
  EXPECT_EQ(ConfigStoreDocument::NormalizeHostId("{ Ab }"), "ab");
  EXPECT_EQ(ConfigStoreDocument::NormalizeHostId("{"), "{");
  EXPECT_EQ(ConfigStoreDocument::NormalizeHostId(""), "");
}

TEST(ValueExists, OnlyMembersOfObjects) {
  Document d = Parse(R"({"a": null, "b": [1]})");
  EXPECT_TRUE(ConfigStoreDocument::ValueExists(d, "a"));
  EXPECT_FALSE(ConfigStoreDocument::ValueExists(d, "c"));
  EXPECT_FALSE(ConfigStoreDocument::ValueExists(d["b"], "0"));
}

TEST(SchemaMergeMetadataProvider, ReadsKeyNodesOfTheGeneratedDocument) {
  Document schema = Parse(kSchema);
  ConfigStoreDocument::SchemaMergeMetadataProvider p(schema);
  EXPECT_TRUE(p.IsNonSingleton("network", "interfaces", "nic"));
  EXPECT_EQ(p.GetInstanceIdField("network", "interfaces", "nic"), "name");
  EXPECT_FALSE(p.IsNonSingleton("system", "time", "ntp"));
  EXPECT_EQ(p.GetInstanceIdField("system", "time", "ntp"), "");
  EXPECT_FALSE(p.IsNonSingleton("no", "such", "key"));
  // A key-schema map (component -> group -> key -> schema) works as well.
  Document map = Parse(R"({"c": {"g": {"k": {"type": "array", "instanceId": "id"}}}})");
  ConfigStoreDocument::SchemaMergeMetadataProvider m(map);
  EXPECT_TRUE(m.IsNonSingleton("c", "g", "k"));
  EXPECT_EQ(m.GetInstanceIdField("c", "g", "k"), "id");
  // A malformed schema answers "unknown", never throws.
  Document bad = Parse(R"({"properties": {"profile": 7}})");
  ConfigStoreDocument::SchemaMergeMetadataProvider b(bad);
  EXPECT_FALSE(b.IsNonSingleton("c", "g", "k"));
  EXPECT_EQ(b.GetKeySchema("c", "g", "k"), nullptr);
}

TEST(GetDocumentForHost, MergesThisHostsSectionsOnly) {
  Document schema = Parse(kSchema);
  ConfigStoreDocument::SchemaMergeMetadataProvider p(schema);
  Document doc = Parse(R"({
    "profile": {
      "network": {"interfaces": {"nic": [{"name": "vmk0", "mtu": 1500}, {"name": "vmk1", "mtu": 9000}]}},
      "system": {"time": {"ntp": {"enabled": true, "servers": ["a"]}}}},
    "host-specific": {
      "{ABC-1}": {"network": {"interfaces": {"nic": [{"name": "vmk1", "address": "10.0.0.2"},
                                                     {"name": "vmk2", "mtu": 1600}]}},
                  "system": {"time": {"ntp": {"servers": ["b", "c"]}}}},
      "other": {"system": {"time": {"ntp": {"enabled": false}}}}},
    "host-override": {
      "abc-1": {"system": {"time": {"ntp": {"enabled": false}}},
                "network": {"interfaces": {"nic": [{"name": "vmk0", "mtu": 9000}]}}}},
    "metadata": {"x": 1}})");
  ConfigStoreDocument::GetDocumentForHost(doc, " abc-1 ", p);
  EXPECT_EQ(NormalizeValue(doc),
            R"({"metadata":{"x":1},"profile":{"network":{"interfaces":{"nic":[{"mtu":9000,"name":"vmk0"},)"
            R"({"address":"10.0.0.2","mtu":9000,"name":"vmk1"},{"mtu":1600,"name":"vmk2"}]}},)"
            R"("system":{"time":{"ntp":{"enabled":false}}}}})");
}

TEST(GetDocumentForHost, SectionsWithoutProfileCreateIt) {
  Document schema = Parse(kSchema);
  ConfigStoreDocument::SchemaMergeMetadataProvider p(schema);
  Document doc = Parse(R"({"host-specific": {"h": {"c": {"g": {"k": {"v": 1}}}}}})");
  ConfigStoreDocument::GetDocumentForHost(doc, "H", p);
  EXPECT_EQ(NormalizeValue(doc), R"({"profile":{"c":{"g":{"k":{"v":1}}}}})");
  Document plain = Parse(R"({"c": {"g": {"k": {"v": 1}}}})");
  ConfigStoreDocument::GetDocumentForHost(plain, "H", p);
  EXPECT_EQ(NormalizeValue(plain), R"({"c":{"g":{"k":{"v":1}}}})");
}

TEST(GetDocumentForHost, MalformedSectionsAreJsonErrors) {
  Document schema = Parse(kSchema);
  ConfigStoreDocument::SchemaMergeMetadataProvider p(schema);
  Document doc = Parse(R"({"profile": {}, "host-override": []})");
  ExpectStoreError([&] { ConfigStoreDocument::GetDocumentForHost(doc, "h", p); }, 1082,
                   "JSON error: \"host-override\" is not an object");
  Document comp = Parse(R"({"profile": {}, "host-specific": {"h": {"c": [1]}}})");
  ExpectStoreError([&] { ConfigStoreDocument::GetDocumentForHost(comp, "h", p); }, 1082,
                   "JSON error: component \"c\" is not an object");
  Document notDoc = Parse("[1]");
  ExpectStoreError([&] { ConfigStoreDocument::GetDocumentForHost(notDoc, "h", p); }, 1082,
                   "JSON error: a configuration document is not an object");
}

TEST(GetDocumentForHost, GeneratedIdInstancesMergeByIdOrValue) {
  Document schema = Parse(R"({"c": {"g": {"k": {"type": "array", "instanceId": "cs_generated_id",
                               "items": {"type": "object"}}}}})");
  ConfigStoreDocument::SchemaMergeMetadataProvider p(schema);
  Document doc = Parse(R"({"profile": {"c": {"g": {"k": [{"cs_generated_id": "1", "v": 1}, {"v": 2}]}}},
    "host-specific": {"h": {"c": {"g": {"k": [{"cs_generated_id": "1", "w": 1}, {"v": 2}, {"v": 3}]}}}}})");
  ConfigStoreDocument::GetDocumentForHost(doc, "h", p);
  EXPECT_EQ(NormalizeValue(doc),
            R"({"profile":{"c":{"g":{"k":[{"cs_generated_id":"1","v":1,"w":1},{"v":2},{"v":3}]}}}})");
}

TEST(SplitDocument, MovesHostSpecificValuesAndMergesBack) {
  Document schema = Parse(kSchema);
  const char original[] = R"({"profile": {
      "network": {"interfaces": {"nic": [{"name": "vmk0", "mtu": 1500, "address": "10.0.0.1"},
                                         {"name": "vmk1", "mtu": 9000}]}},
      "system": {"time": {"ntp": {"enabled": true, "servers": ["a"]}, "zone": {"tz": "UTC"}},
                 "other": {}}}})";
  Document doc = Parse(original);
  ConfigStoreDocument::SplitDocument(schema, "{ABC}", doc);
  EXPECT_EQ(NormalizeValue(doc),
            R"({"host-specific":{"abc":{"network":{"interfaces":{"nic":[{"address":"10.0.0.1","name":"vmk0"}]}},)"
            R"("system":{"time":{"ntp":{"servers":["a"]},"zone":{"tz":"UTC"}}}}},)"
            R"("profile":{"network":{"interfaces":{"nic":[{"mtu":1500,"name":"vmk0"},{"mtu":9000,"name":"vmk1"}]}},)"
            R"("system":{"other":{},"time":{"ntp":{"enabled":true}}}}})");
  ConfigStoreDocument::SchemaMergeMetadataProvider p(schema);
  ConfigStoreDocument::GetDocumentForHost(doc, "abc", p);
  EXPECT_EQ(NormalizeValue(doc), NormalizeValue(Parse(original)));
}

TEST(SplitDocument, KeyLeftEmptyLeavesTheProfile) {
  Document schema = Parse(kSchema);
  Document doc = Parse(R"({"profile": {"system": {"time": {"ntp": {"servers": ["a"]}}}}})");
  ConfigStoreDocument::SplitDocument(schema, "h", doc);
  EXPECT_EQ(NormalizeValue(doc),
            R"({"host-specific":{"h":{"system":{"time":{"ntp":{"servers":["a"]}}}}},"profile":{}})");
  // Without a host identifier nothing moves.
  Document kept = Parse(R"({"profile": {"system": {"time": {"ntp": {"servers": ["a"]}}}}})");
  ConfigStoreDocument::SplitDocument(schema, " ", kept);
  EXPECT_EQ(NormalizeValue(kept), R"({"profile":{"system":{"time":{"ntp":{"servers":["a"]}}}}})");
}

TEST(SplitDocument, MalformedSchemaMovesNothing) {
  for (const char* schema : {"[]", R"({"properties": {"profile": 5}})",
                             R"({"c": {"g": {"k": {"hostSpecific": "yes", "properties": []}}}})"}) {
    Document doc = Parse(R"({"profile": {"c": {"g": {"k": {"a": 1}}}}})");
    ConfigStoreDocument::SplitDocument(Parse(schema), "h", doc);
    EXPECT_EQ(NormalizeValue(doc), R"({"profile":{"c":{"g":{"k":{"a":1}}}}})") << schema;
  }
  Document doc = Parse(R"({"profile": {"c": {"g": {"k": {}}}}, "host-specific": {"h": 3}})");
  Document empty = Parse("{}");
  ConfigStoreDocument::SchemaMergeMetadataProvider p(empty);
  ExpectStoreError([&] { ConfigStoreDocument::GetDocumentForHost(doc, "h", p); }, 1082,
                   "JSON error: \"host-specific\" of a host is not an object");
}

}  // namespace

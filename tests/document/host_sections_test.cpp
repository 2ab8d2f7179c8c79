#include <gtest/gtest.h>

#include "ConfigStoreDocument.h"
#include "ConfigStoreException.h"

namespace {

using ConfigStoreDocument::NormalizeValue;
using rapidjson::Document;

Document Parse(const std::string& text) {
  Document d;
  ConfigStoreDocument::CreateDocument(text, d);
  return d;
}

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
  try {
    ConfigStoreDocument::GetDocumentForHost(doc, "h", p);
    FAIL() << "no exception";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 1082);
    EXPECT_STREQ(e.what(), "JSON error: \"host-override\" is not an object");
  }
  Document comp = Parse(R"({"profile": {}, "host-specific": {"h": {"c": [1]}}})");
  try {
    ConfigStoreDocument::GetDocumentForHost(comp, "h", p);
    FAIL() << "no exception";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 1082);
    EXPECT_STREQ(e.what(), "JSON error: component \"c\" is not an object");
  }
}

}  // namespace

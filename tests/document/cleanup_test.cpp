#include <gtest/gtest.h>

#include "DocTestUtil.h"

namespace {

using namespace ConfigStoreDocument;
using DocTest::ExpectStoreError;
using DocTest::Parse;
using rapidjson::Document;

const char kSchema[] = R"({"type": "object", "required": ["port"], "properties": {
  "port": {"type": "integer", "default": 22},
  "banner": {"type": "string", "default": "hi"},
  "state": {"type": "string", "readOnly": true},
  "password": {"type": "string", "sensitive": true},
  "opts": {"type": "object", "properties": {"a": {"type": "integer", "default": 1}, "b": {"type": "string"},
                                            "ro": {"readOnly": true}}},
  "free": {"type": "object"},
  "users": {"type": "array", "instanceId": "name", "items": {"type": "object", "properties": {
    "name": {"type": "string", "default": "root", "readOnly": true},
    "key": {"type": "string", "sensitive": true}, "shell": {"type": "string", "default": "sh"}}}},
  "hosts": {"type": "array", "instanceId": "cs_generated_id", "items": {"type": "object",
    "properties": {"ip": {"type": "string"}}}},
  "list": {"type": "array", "items": {"type": "string"}}}})";

std::string Clean(const std::string& value, const std::vector<CLEANUP_ACTIONS>& actions,
                  const char* schema = kSchema) {
  Document v = Parse(value);
  Document s = Parse(schema);
  CleanupObject(v, s, actions, v.GetAllocator());
  return SerializeValue(v);
}

TEST(CleanupObject, RemoveEmptyMembersBottomUp) {
  EXPECT_EQ(Clean(R"({"a": null, "b": {}, "c": [], "d": {"e": {"f": null}}, "g": [{}], "h": 0, "i": ""})",
                  {REMOVE_EMPTY_MEMBERS}),
            R"({"g":[{}],"h":0,"i":""})");
}

TEST(CleanupObject, RemoveUndescribedPropertiesKeepsGeneratedIdsAndFreeObjects) {
  EXPECT_EQ(Clean(R"({"port": 1, "junk": 1, "opts": {"a": 1, "zz": 2}, "cs_generated_id": "x",
                      "users": [{"name": "u", "extra": 1}], "free": {"any": 1}})",
                  {REMOVE_UNDESCRIBED_PROPERTIES}),
            R"({"port":1,"opts":{"a":1},"cs_generated_id":"x","users":[{"name":"u"}],"free":{"any":1}})");
  // Members a schema admits through "additionalProperties" or patterns stay.
  EXPECT_EQ(Clean(R"({"a": 1, "b": 2})", {REMOVE_UNDESCRIBED_PROPERTIES},
                  R"({"properties": {"a": {}}, "additionalProperties": {"type": "integer"}})"),
            R"({"a":1,"b":2})");
  EXPECT_EQ(Clean(R"({"a": 1, "b": 2})", {REMOVE_UNDESCRIBED_PROPERTIES},
                  R"({"properties": {"a": {}}, "patternProperties": {"^b": {}}})"),
            R"({"a":1,"b":2})");
}

TEST(CleanupObject, RemoveNullMembersKeepsOtherEmpties) {
  EXPECT_EQ(Clean(R"({"a": null, "b": {"c": null, "d": []}})", {REMOVE_NULL_MEMBERS}), R"({"b":{"d":[]}})");
}

TEST(CleanupObject, RemoveGeneratedIdAtAnyDepth) {
  EXPECT_EQ(Clean(R"({"hosts": [{"cs_generated_id": "1", "ip": "a"}], "cs_generated_id": "k"})",
                  {REMOVE_GENERATED_ID}),
            R"({"hosts":[{"ip":"a"}]})");
}

TEST(CleanupObject, RemoveDefaultValuesSparesRequiredAndInstanceIds) {
  EXPECT_EQ(Clean(R"({"port": 22, "banner": "hi", "opts": {"a": 1, "b": "x"},
                      "users": [{"name": "root", "shell": "sh"}, {"name": "u", "shell": "bash"}]})",
                  {REMOVE_DEFAULT_VALUES}),
            R"({"port":22,"opts":{"b":"x"},"users":[{"name":"root"},{"name":"u","shell":"bash"}]})");
}

TEST(CleanupObject, RemoveReadOnlyPropertiesSparesInstanceIds) {
  EXPECT_EQ(Clean(R"({"state": "up", "opts": {"ro": 1, "b": "x"}, "users": [{"name": "root"}]})",
                  {REMOVE_READONLY_PROPERTIES}),
            R"({"opts":{"b":"x"},"users":[{"name":"root"}]})");
}

TEST(CleanupObject, SortInstancesByIdentifierOnly) {
  EXPECT_EQ(Clean(R"({"users": [{"name": "b"}, {"x": 1}, {"name": "a"}],
                      "hosts": [{"cs_generated_id": "2"}, {"cs_generated_id": "1"}], "list": ["b", "a"]})",
                  {SORT_INSTANCES}),
            R"({"users":[{"name":"a"},{"name":"b"},{"x":1}],"hosts":[{"cs_generated_id":"1"},)"
            R"({"cs_generated_id":"2"}],"list":["b","a"]})");
}

TEST(CleanupObject, AddDefaultValuesFillsMissingMembers) {
  EXPECT_EQ(Clean(R"({"opts": {}, "users": [{"name": "x"}]})", {ADD_DEFAULT_VALUES}),
            R"({"opts":{"a":1},"users":[{"name":"x","shell":"sh"}],"port":22,"banner":"hi"})");
}

TEST(CleanupObject, SortMembersByName) {
  EXPECT_EQ(Clean(R"({"b": 1, "a": {"d": 1, "c": [{"z": 1, "y": 2}]}})", {SORT_MEMBERS}),
            R"({"a":{"c":[{"y":2,"z":1}],"d":1},"b":1})");
}

TEST(CleanupObject, RedactSensitiveAtAnyDepth) {
  EXPECT_EQ(Clean(R"({"password": {"nested": "p"}, "users": [{"name": "u", "key": "k"}], "port": 1})",
                  {REDACT_SENSITIVE}),
            R"x({"password":"(redacted)","users":[{"name":"u","key":"(redacted)"}],"port":1})x");
}

TEST(CleanupObject, ExtractionListsInTheirOrder) {
  // Current configuration: read-only and unknown members go, the emptied
  // object goes with them, instances are sorted; nothing else changes.
  const std::string stored = R"({"port": 22, "junk": null, "state": "up", "opts": {"ro": 1},
      "users": [{"name": "b", "shell": "sh", "cs_generated_id": "g2"}, {"name": "a"}], "list": []})";
  const std::vector<CLEANUP_ACTIONS> current = {REMOVE_UNDESCRIBED_PROPERTIES, REMOVE_NULL_MEMBERS,
                                                REMOVE_READONLY_PROPERTIES, REMOVE_EMPTY_MEMBERS, SORT_INSTANCES};
  EXPECT_EQ(Clean(stored, current),
            R"({"port":22,"users":[{"name":"a"},{"name":"b","shell":"sh","cs_generated_id":"g2"}]})");
  const std::vector<CLEANUP_ACTIONS> exported = {REMOVE_UNDESCRIBED_PROPERTIES, REMOVE_NULL_MEMBERS,
                                                 REMOVE_GENERATED_ID, REMOVE_DEFAULT_VALUES,
                                                 REMOVE_READONLY_PROPERTIES, REMOVE_EMPTY_MEMBERS, SORT_INSTANCES};
  EXPECT_EQ(Clean(stored, exported), R"({"port":22,"users":[{"name":"a"},{"name":"b"}]})");
  const std::vector<CLEANUP_ACTIONS> desired = {REMOVE_UNDESCRIBED_PROPERTIES, REMOVE_NULL_MEMBERS};
  EXPECT_EQ(Clean(stored, desired),
            R"({"port":22,"state":"up","opts":{"ro":1},"users":[{"name":"b","shell":"sh",)"
            R"("cs_generated_id":"g2"},{"name":"a"}],"list":[]})");
  // A value of read-only members only is left empty, so it is filtered out.
  EXPECT_EQ(Clean(R"({"state": "up"})", current), "{}");
}

TEST(CleanupObject, UnknownActionChangesNothing) {
  Document v = Parse(R"({"a": null})");
  Document s = Parse(kSchema);
  ExpectStoreError(
      [&] {
        CleanupObject(v, s, {REMOVE_NULL_MEMBERS, static_cast<CLEANUP_ACTIONS>(12)}, v.GetAllocator());
      },
      1082, "JSON error: unknown clean-up action 12");
  EXPECT_EQ(SerializeValue(v), R"({"a":null})");
}

TEST(CleanupObject, MalformedSchemaLeavesSchemaDrivenActionsIdle) {
  const std::vector<CLEANUP_ACTIONS> all = {REMOVE_UNDESCRIBED_PROPERTIES, REMOVE_DEFAULT_VALUES,
                                            REMOVE_READONLY_PROPERTIES, SORT_INSTANCES, ADD_DEFAULT_VALUES,
                                            REDACT_SENSITIVE};
  for (const char* schema : {"7", R"({"properties": [], "items": 3, "required": "x"})",
                             R"({"properties": {"a": {"default": {"deep": 1}, "readOnly": "yes"}, "c": 5}, "oneOf": 1})"}) {
    EXPECT_EQ(Clean(R"({"a": [{"b": 1}], "c": null})", all, schema), R"({"a":[{"b":1}],"c":null})") << schema;
  }
}

TEST(PatchRequiredProperty, CopiesTheMissingMemberFromAutoConfiguration) {
  Document autoValue = Parse(R"({"opts": {"a": 5, "b": "z"}, "users": [{"shell": "zsh"}], "a/b": 3})");
  Document v = Parse(R"({"opts": {}, "users": [{"name": "u"}]})");
  EXPECT_TRUE(PatchRequiredProperty(v, "/opts/a", autoValue, v.GetAllocator()));
  EXPECT_TRUE(PatchRequiredProperty(v, "/users/0/shell", autoValue, v.GetAllocator()));
  EXPECT_TRUE(PatchRequiredProperty(v, "/a~1b", autoValue, v.GetAllocator()));
  EXPECT_EQ(SerializeValue(v), R"({"opts":{"a":5},"users":[{"name":"u","shell":"zsh"}],"a/b":3})");
  // The object path fills what it lacks, keeping what it has.
  Document w = Parse(R"({"opts": {"b": "x"}})");
  EXPECT_TRUE(PatchRequiredProperty(w, "/opts", autoValue, w.GetAllocator()));
  EXPECT_EQ(SerializeValue(w), R"({"opts":{"b":"x","a":5}})");
  // Nothing to copy, no parent, or no pointer: unchanged.
  EXPECT_FALSE(PatchRequiredProperty(w, "/opts/c", autoValue, w.GetAllocator()));
  EXPECT_FALSE(PatchRequiredProperty(w, "/none/a", autoValue, w.GetAllocator()));
  EXPECT_FALSE(PatchRequiredProperty(w, "opts", autoValue, w.GetAllocator()));
  EXPECT_EQ(SerializeValue(w), R"({"opts":{"b":"x","a":5}})");
}

const char kUnionSchema[] = R"({"type": "object", "properties": {"auth": {"type": "object",
  "discriminator": "kind", "oneOf": [
    {"properties": {"kind": {"enum": ["password"]}, "secret": {"type": "string"}}},
    {"properties": {"kind": {"enum": ["key"]}, "key": {"type": "string"}}}]}}})";

TEST(PatchUnionTagProperty, SetsAKnownTagFromAutoConfiguration) {
  Document schema = Parse(kUnionSchema);
  Document autoValue = Parse(R"({"auth": {"kind": "key"}})");
  Document v = Parse(R"({"auth": {"key": "k"}})");
  EXPECT_TRUE(PatchUnionTagProperty(v, "/auth/kind", autoValue, schema, v.GetAllocator()));
  EXPECT_EQ(SerializeValue(v), R"({"auth":{"key":"k","kind":"key"}})");
  Document w = Parse(R"({"auth": {"kind": "password"}})");
  EXPECT_TRUE(PatchUnionTagProperty(w, "/auth", autoValue, schema, w.GetAllocator()));
  EXPECT_EQ(SerializeValue(w), R"({"auth":{"kind":"key"}})");
}

TEST(PatchUnionTagProperty, RefusesUnknownTagsAndNonUnions) {
  Document schema = Parse(kUnionSchema);
  Document bogus = Parse(R"({"auth": {"kind": "token"}, "other": {"kind": "key"}})");
  Document v = Parse(R"({"auth": {}, "other": {}})");
  EXPECT_FALSE(PatchUnionTagProperty(v, "/auth/kind", bogus, schema, v.GetAllocator()));
  EXPECT_FALSE(PatchUnionTagProperty(v, "/other/kind", bogus, schema, v.GetAllocator()));
  EXPECT_FALSE(PatchUnionTagProperty(v, "/auth/kind", bogus, Parse("3"), v.GetAllocator()));
  EXPECT_EQ(SerializeValue(v), R"({"auth":{},"other":{}})");
}

}  // namespace

#include <gtest/gtest.h>

#include "DocTestUtil.h"

namespace {

using ConfigStoreDocument::IsEqualPrimitiveArray;
using ConfigStoreDocument::IsEqualValue;
using DocTest::Parse;
using rapidjson::Document;

// A non-singleton key with natural identifiers whose instances hold an
// array of value-matched objects and an array of scalars.
const char kNicSchema[] = R"({"type": "array", "instanceId": "name", "items": {"type": "object",
  "properties": {"name": {"type": "string"}, "mtu": {"type": "integer"},
    "routes": {"type": "array", "instanceId": "cs_generated_id", "items": {"type": "object",
      "properties": {"to": {"type": "string"}, "via": {"type": "string"}}}},
    "tags": {"type": "array", "items": {"type": "string"}}}}})";

// Values built in memory may repeat a member name (the parse refuses them),
// so the comparison is checked on such values too.
Document ParseKeepingRepeats(const std::string& text) {
  Document d;
  EXPECT_TRUE(QenPlatform::ParseJson(text, d, QenPlatform::DuplicateNames::kKeep)) << text;
  return d;
}

bool Equal(const std::string& a, const std::string& b, const std::string& schema) {
  Document da = ParseKeepingRepeats(a), db = ParseKeepingRepeats(b), ds = Parse(schema);
  const bool ab = IsEqualValue(da, db, ds);
  EXPECT_EQ(ab, IsEqualValue(db, da, ds)) << "not symmetric: " << a << " / " << b;
  return ab;
}

TEST(IsEqualValue, InstancesMembersAndScalarsInAnyOrder) {
  const std::string a = R"([{"name": "vmk0", "mtu": 1500, "tags": ["x", "y"],
                             "routes": [{"to": "a", "via": "1"}, {"to": "b", "via": "2"}]},
                            {"name": "vmk1", "mtu": 9000}])";
  const std::string b = R"([{"mtu": 9000, "name": "vmk1"},
                            {"routes": [{"via": "2", "to": "b", "cs_generated_id": "g7"}, {"to": "a", "via": "1"}],
                             "tags": ["y", "x"], "mtu": 1500, "name": "vmk0"}])";
  EXPECT_TRUE(Equal(a, b, kNicSchema));
  // One property differs inside one instance.
  EXPECT_FALSE(Equal(a, R"([{"name": "vmk1", "mtu": 9000}, {"name": "vmk0", "mtu": 1500, "tags": ["x", "y"],
                            "routes": [{"to": "a", "via": "1"}, {"to": "b", "via": "3"}]}])", kNicSchema));
  // Same properties, another identifier.
  EXPECT_FALSE(Equal(R"([{"name": "a", "mtu": 1}])", R"([{"name": "b", "mtu": 1}])", kNicSchema));
  // Instance count differs.
  EXPECT_FALSE(Equal(R"([{"name": "a"}])", R"([{"name": "a"}, {"name": "a"}])", kNicSchema));
}

TEST(IsEqualValue, DuplicatesCountAndGeneratedIdsAreIgnored) {
  const char schema[] = R"({"type": "array", "instanceId": "cs_generated_id", "items": {"type": "object"}})";
  EXPECT_TRUE(Equal(R"([{"v": 1}, {"v": 1}, {"v": 2}])", R"([{"v": 2}, {"v": 1, "cs_generated_id": "x"}, {"v": 1}])", schema));
  EXPECT_FALSE(Equal(R"([{"v": 1}, {"v": 1}, {"v": 2}])", R"([{"v": 2}, {"v": 2}, {"v": 1}])", schema));
  // Large arrays go through the hash index; a reversed copy is still equal.
  std::string big = "[", reversed;
  for (int i = 0; i < 200; ++i) big += (i ? "," : "") + std::string("{\"v\": ") + std::to_string(i % 50) + "}";
  big += "]";
  reversed = "[";
  for (int i = 199; i >= 0; --i) reversed += (i != 199 ? "," : "") + std::string("{\"v\": ") + std::to_string(i % 50) + "}";
  reversed += "]";
  EXPECT_TRUE(Equal(big, reversed, schema));
  EXPECT_FALSE(Equal(big, reversed.substr(0, reversed.size() - 1) + ",{\"v\": 99}]", schema));
}

TEST(IsEqualValue, NumbersFollowJsonEquality) {
  EXPECT_TRUE(Equal(R"({"a": 1})", R"({"a": 1.0})", "{}"));
  EXPECT_FALSE(Equal(R"({"a": 1})", R"({"a": "1"})", "{}"));
  EXPECT_FALSE(Equal(R"({"a": 1})", R"({"a": 1, "b": null})", "{}"));
  EXPECT_FALSE(Equal("null", "{}", "{}"));
  // Integers by exact value, though these two share a 64-bit pattern; also
  // where arrays compare as multisets.
  EXPECT_FALSE(Equal(R"({"a": -1})", R"({"a": 18446744073709551615})", "{}"));
  EXPECT_FALSE(Equal("[-1, 2]", "[2, 18446744073709551615]", R"({"type": "array", "items": {"type": "integer"}})"));
  EXPECT_TRUE(Equal("[-1, 2]", "[2, -1]", R"({"type": "array", "items": {"type": "integer"}})"));
}

TEST(IsEqualValue, WithoutSchemaArraysKeepTheirOrder) {
  EXPECT_FALSE(Equal(R"({"a": [1, 2]})", R"({"a": [2, 1]})", "{}"));
  EXPECT_TRUE(Equal(R"({"a": [{"x": 1, "y": 2}]})", R"({"a": [{"y": 2, "x": 1}]})", "{}"));
}

TEST(IsEqualValue, KeySchemaServesOneInstance) {
  // The drift engine passes a key's array schema for one of its instances.
  EXPECT_TRUE(Equal(R"({"name": "a", "tags": ["p", "q"]})", R"({"tags": ["q", "p"], "name": "a"})", kNicSchema));
}

TEST(IsEqualValue, MalformedSchemaNodesReadAsNoInformation) {
  for (const char* schema : {"7", "[]", R"({"properties": 3, "items": "x"})",
                             R"({"type": "array", "items": {"type": 5}, "instanceId": []})",
                             R"({"properties": {"a": "nope"}, "oneOf": {"x": 1}, "discriminator": 4})"}) {
    EXPECT_TRUE(Equal(R"({"a": [1, 2], "b": {"c": 1}})", R"({"b": {"c": 1}, "a": [1, 2]})", schema)) << schema;
    EXPECT_FALSE(Equal(R"({"a": [1, 2]})", R"({"a": [1, 3]})", schema)) << schema;
  }
}

TEST(IsEqualPrimitiveArray, SameItemsAnyOrderDuplicatesCount) {
  Document d = Parse(R"([[1, 2, 2.0, "a", true, null], [null, "a", 2, true, 1, 2],
                         [1, 1, 2], [2, 1, 1], [1, 2, 2], [], [],
                         [9007199254740993, 9007199254740992], [9007199254740992, 9007199254740993],
                         [[1, 2]], [[2, 1]], [{"a": 1, "b": 2}], [{"b": 2, "a": 1}]])");
  EXPECT_TRUE(IsEqualPrimitiveArray(d[0], d[1]));
  EXPECT_TRUE(IsEqualPrimitiveArray(d[2], d[3]));
  EXPECT_FALSE(IsEqualPrimitiveArray(d[2], d[4]));
  EXPECT_TRUE(IsEqualPrimitiveArray(d[5], d[6]));
  EXPECT_TRUE(IsEqualPrimitiveArray(d[7], d[8]));
  EXPECT_FALSE(IsEqualPrimitiveArray(d[7], d[2]));
  EXPECT_FALSE(IsEqualPrimitiveArray(d[9], d[10]));  // nested arrays keep their order
  EXPECT_TRUE(IsEqualPrimitiveArray(d[11], d[12]));
  rapidjson::Value null;
  EXPECT_FALSE(IsEqualPrimitiveArray(null, d[5]));
}

TEST(IsEqualPrimitiveArray, LargeIntegersSharingADoubleArePairedExactly) {
  // 2^53 + 1 reads as 2^53 in a double: sorting puts both together, the
  // exact comparison must still tell them apart.
  Document d = Parse(R"([[9007199254740993, 9007199254740993], [9007199254740993, 9007199254740992]])");
  EXPECT_FALSE(IsEqualPrimitiveArray(d[0], d[1]));
}

}  // namespace

namespace {

TEST(IsEqualValue, RepeatedMemberNamesCompareAsMultisets) {
  const char* schema = "{}";
  EXPECT_TRUE(Equal(R"({"x": 1, "x": 2})", R"({"x": 2, "x": 1})", schema));
  EXPECT_FALSE(Equal(R"({"x": 1, "x": 1})", R"({"x": 1, "y": 1})", schema));
  EXPECT_FALSE(Equal(R"({"x": 1, "x": 1, "y": 2})", R"({"x": 1, "y": 2, "y": 2})", schema));
  // Through the hash index of a large value-matched array as well.
  std::string a = "[", b = "[";
  for (int i = 0; i < 10; ++i) {
    a += std::string(i ? "," : "") + R"({"x": 1, "x": 1, "y": 2})";
    b += std::string(i ? "," : "") + R"({"x": 1, "y": 2, "x": 1})";
  }
  EXPECT_TRUE(Equal(a + "]", b + "]", R"({"items": {"type": "object"}})"));
}

}  // namespace

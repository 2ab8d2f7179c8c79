// The one parse of outside JSON text: what it refuses and how precisely the
// refusal says where.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "QenJson.h"

namespace {

using QenPlatform::DuplicateNames;
using QenPlatform::JsonParseResult;

JsonParseResult Parse(const std::string& text, DuplicateNames duplicates = DuplicateNames::kRefuse) {
  rapidjson::Document doc;
  return QenPlatform::ParseJson(text, doc, duplicates);
}

TEST(ParseJsonTest, InvalidUtf8IsRefusedWithTheOffsetOfItsFirstBadByte) {
  // In a value, in a member name, a lone continuation byte, an overlong
  // form of '/', a truncated sequence, an encoded surrogate.
  const std::vector<std::pair<std::string, size_t>> cases = {
      {"{\"a\": \"x\xff\"}", 8},          {"{\"k\xc3\": 1}", 3},
      {"[\"\x80\"]", 2},                  {"[\"ab\xc0\xaf\"]", 4},
      {"[\"\xe2\x82\"]", 2},              {"[\"\xed\xa0\x80\"]", 2},
  };
  for (const auto& [text, offset] : cases) {
    const JsonParseResult r = Parse(text);
    EXPECT_EQ(r.status, JsonParseResult::kNotJson) << text;
    EXPECT_EQ(r.reason, "Invalid encoding in string. at offset " + std::to_string(offset)) << text;
  }
  // Valid multi-byte text passes.
  EXPECT_TRUE(Parse("{\"na\xc3\xafve\": \"\xe2\x82\xac \xf0\x9f\x98\x80\"}"));
}

TEST(ParseJsonTest, EscapedSurrogatesMustPair) {
  // A low half alone would decode into bytes that are no UTF-8, which every
  // later parse of the written document refuses; a high half alone the
  // reader refuses itself.
  for (const std::string text : {R"(["a\ude00"])", R"({"\udc00": 1})", R"(["\ud83d\ude00\ude00"])", R"(["\ud83dx"])"}) {
    const JsonParseResult r = Parse(text);
    EXPECT_EQ(r.status, JsonParseResult::kNotJson) << text;
    EXPECT_EQ(r.reason.rfind("The surrogate pair in string is invalid. at offset ", 0), 0u) << r.reason;
  }
  rapidjson::Document doc;
  ASSERT_TRUE(QenPlatform::ParseJson(R"(["\ud83d\ude00", "\u00e9"])", doc));
  EXPECT_EQ(std::string(doc[0].GetString()), "\xf0\x9f\x98\x80");
}

TEST(ParseJsonTest, RepeatedMemberNamesAreRefusedNamingTheNameAndItsObject) {
  const std::string text = R"({"p": {"a": 1, "b": [{"x": 1, "x": 2}], "a": 3}})";
  JsonParseResult r = Parse(text);
  EXPECT_EQ(r.status, JsonParseResult::kDuplicateName);
  EXPECT_EQ(r.reason, "duplicate member name \"a\" in the object at \"/p\"");

  r = Parse(R"({"a/b": {"z~": [], "z~": {}}})");
  EXPECT_EQ(r.reason, "duplicate member name \"z~\" in the object at \"/a~1b\"");

  r = Parse(R"({"q": 1, "q": 1})");
  EXPECT_EQ(r.reason, "duplicate member name \"q\" in the object at \"\"");

  // Names that differ only in length or after a NUL are different names.
  EXPECT_TRUE(Parse(R"({"a": 1, "ab": 2, "a\u0000": 3, "b": {"a": 1}})"));

  // Kept on request, with both copies in the document.
  rapidjson::Document doc;
  EXPECT_TRUE(QenPlatform::ParseJson(text, doc, DuplicateNames::kKeep));
  EXPECT_EQ(doc["p"].MemberCount(), 3u);
}

TEST(ParseJsonTest, FindDuplicateNamesReportsEachRepeatedNameOnceAtItsObject) {
  rapidjson::Document doc;
  ASSERT_TRUE(QenPlatform::ParseJson(
      R"({"c": {"g": {"k": 1, "k": 2, "k": 3, "j": 0}}, "arr": [{}, {"y": 1, "x": 0, "y": 2, "x": 1}]})",
      doc, DuplicateNames::kKeep));
  std::vector<std::pair<std::string, std::string>> found;
  QenPlatform::FindDuplicateNames(doc, [&](const std::string& path, const std::string& name) {
    found.emplace_back(path, name);
  });
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"/c/g", "k"}, {"/arr/1", "x"}, {"/arr/1", "y"}};
  EXPECT_EQ(found, expected);
}

}  // namespace

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "CommonTest.h"
#include "HostRootTest.h"
#include "JsonErrors.h"
#include "configmanager/common.h"

using namespace QenConfigManager;
using namespace QenTest;

namespace {

const auto kParseError = std::make_tuple(2080, std::string("Failed to parse JSON String"), Args{});

std::shared_ptr<ConfigMap> Entry(const std::string& id, const std::string& value) {
  return std::make_shared<ConfigMap>(ConfigMap{{"Identifier", id}, {"Value", value}});
}

std::vector<std::string> Identifiers(const ConfigMapVector& maps) {
  std::vector<std::string> ids;
  for (const auto& m : maps) ids.push_back(m->at("Identifier"));
  return ids;
}

class DocumentFiles : public QenTest::HostRootTest {};

}  // namespace

TEST(ParseDocument, AcceptsOneRootValueSurroundedByWhiteSpace) {
  EXPECT_EQ(Compact(Parse(" \n\t{\"a\": [1, {\"b\": null}]}\r\n ")), "{\"a\":[1,{\"b\":null}]}");
  EXPECT_EQ(Compact(Parse("\"text\"")), "\"text\"");
  auto doc = CreateDocumentFromString("{\"profile\": {}}");
  EXPECT_EQ(Compact(doc->GetDocument()), "{\"profile\":{}}");
}

TEST(ParseDocument, MalformedTextIsAnInvalidArgument) {
  for (const std::string& text : std::vector<std::string>{"{\"a\": 1", "{} {}", "{}x", "", "   ", "{\"a\" 1}", "[1,]",
                                 std::string("{}\0{}", 5), std::string("{\"a\": \"\0\"}", 10)}) {
    EXPECT_EQ(FailureOf<InvalidArgumentException>([&] { Parse(text); }), kParseError) << text;
  }
  EXPECT_EQ(FailureOf<InvalidArgumentException>([] { CreateDocumentFromString("{\"a\":"); }), kParseError);
}

TEST(ParseDocument, NestingIsBoundedInsteadOfOverflowingTheStack) {
  const std::string deep(100000, '[');
  EXPECT_EQ(FailureOf<InvalidArgumentException>([&] { Parse(deep + std::string(100000, ']')); }), kParseError);

  std::string limit;
  for (int i = 0; i < 512; ++i) limit += "{\"a\":";
  limit += "1" + std::string(512, '}');
  EXPECT_TRUE(Parse(limit).IsObject());
  EXPECT_EQ(FailureOf<InvalidArgumentException>([&] { Parse("[" + limit + "]"); }), kParseError);
}

TEST_F(DocumentFiles, RoundTripThroughAHostFileIsCompactAndPrivate) {
  rapidjson::Document doc = Parse("{ \"profile\" : { \"system\" : { \"time\" : { \"ntp\" : {\"enabled\": true} } } } }");
  WriteFile("/etc/corvane/desired.json", "stale content that is longer than the new one................", 0644);
  CreateFileFromDocument("/etc/corvane/desired.json", doc);
  EXPECT_EQ(ReadFile("/etc/corvane/desired.json"), "{\"profile\":{\"system\":{\"time\":{\"ntp\":{\"enabled\":true}}}}}");
  EXPECT_EQ(Mode("/etc/corvane/desired.json"), 0600);
  EXPECT_FALSE(Exists("/etc/corvane/desired.json.new"));

  CreateFileFromDocument("/var/corvane/new.json", doc);  // directory missing: silently nothing
  EXPECT_FALSE(Exists("/var/corvane/new.json"));
  WriteFile("/var/corvane/.keep", "");
  CreateFileFromDocument("/var/corvane/new.json", doc);
  struct stat st;
  ASSERT_EQ(stat(Path("/var/corvane/new.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  rapidjson::Document back;
  CreateDocumentFromFile("/var/corvane/new.json", back);
  EXPECT_TRUE(back == doc);
}

TEST_F(DocumentFiles, UnparsableFilesFailWithTheirPath) {
  WriteFile("/etc/corvane/empty.json", "");
  WriteFile("/etc/corvane/broken.json", "{\"a\": [1, 2}");
  WriteFile("/etc/corvane/two.json", "{}\n{}\n");
  for (const char* path : {"/etc/corvane/empty.json", "/etc/corvane/broken.json", "/etc/corvane/two.json",
                           "/etc/corvane/missing.json", "/etc/corvane"}) {
    rapidjson::Document doc;
    EXPECT_EQ(FailureOf<ConfigManagerException>([&] { CreateDocumentFromFile(path, doc); }),
              std::make_tuple(2080, std::string("Failed to parse JSON String"), Args{path}));
  }
}

TEST(SerializeValue, ReplacesTheOutput) {
  std::string out = "previous";
  SerializeValue(Parse("{\"a\": \"x\\\"y\", \"b\": [1.5, -2]}"), out);
  EXPECT_EQ(out, "{\"a\":\"x\\\"y\",\"b\":[1.5,-2]}");
}

TEST(JsonToString, IndentsByThreeSpacesPerLevel) {
  EXPECT_EQ(JsonToString(Parse("{\"a\": 1}")), "{\n   \"a\": 1\n}");
  EXPECT_EQ(JsonToString(Parse("{\"a\": {\"b\": [1, \"x\"]}, \"c\": {}}")),
            "{\n"
            "   \"a\": {\n"
            "      \"b\": [\n"
            "         1,\n"
            "         \"x\"\n"
            "      ]\n"
            "   },\n"
            "   \"c\": {}\n"
            "}");
}

TEST(AddMember, MovesTheValueInAsTheLastMember) {
  rapidjson::Document doc = Parse("{\"first\": 1}");
  rapidjson::Value value(rapidjson::kArrayType);
  value.PushBack(7, doc.GetAllocator());
  std::string name = "second";
  AddMember(&doc, &doc, name, &value);
  name = "overwritten";  // the member name must be a copy
  EXPECT_TRUE(value.IsNull());
  EXPECT_EQ(Compact(doc), "{\"first\":1,\"second\":[7]}");

  // A missing value is null.
  AddMember(&doc, &doc, "third", nullptr);
  EXPECT_EQ(Compact(doc), "{\"first\":1,\"second\":[7],\"third\":null}");
}

TEST(AddMember, WrongOrMissingTargetsFailInTheJsonLibrarysOwnChecks) {
  rapidjson::Document doc = Parse("{}");
  rapidjson::Value notObject(rapidjson::kArrayType);
  rapidjson::Value v(1);
  QenTest::ExpectJsonLibraryError([&] { AddMember(&doc, &notObject, "x", &v); }, "IsObject()");
  QenTest::ExpectJsonLibraryError([&] { AddMember(&doc, nullptr, "x", &v); }, "IsObject()");
  QenTest::ExpectJsonLibraryError([&] { AddMember(nullptr, &doc, "x", &v); }, "allocator_");
  EXPECT_EQ(Compact(doc), "{}");
  EXPECT_EQ(v.GetInt(), 1);
}

TEST(IsEqualArray, ComparesAsAMultisetWithJsonEqualElements) {
  auto eq = [](const char* a, const char* b) { return IsEqualArray(Parse(a), Parse(b)); };
  EXPECT_TRUE(eq("[1, 2]", "[2, 1]"));
  EXPECT_TRUE(eq("[]", "[]"));
  EXPECT_TRUE(eq("[1, 1, 2]", "[1, 2, 1]"));
  EXPECT_FALSE(eq("[1, 1, 2]", "[1, 2, 2]"));
  EXPECT_FALSE(eq("[1, 2, 2]", "[1, 1, 2]"));
  EXPECT_FALSE(eq("[1, 2]", "[1, 2, 3]"));
  EXPECT_FALSE(eq("null", "[]"));
  EXPECT_FALSE(eq("[]", "null"));
  EXPECT_FALSE(eq("{}", "{}"));
  EXPECT_FALSE(eq("[[1, 2]]", "[[2, 1]]"));
  EXPECT_TRUE(eq("[[1, 2], [3]]", "[[3], [1, 2]]"));
  EXPECT_TRUE(eq("[{\"a\": 1, \"b\": [true]}, \"s\"]", "[\"s\", {\"b\": [true], \"a\": 1}]"));
  EXPECT_FALSE(eq("[{\"a\": 1}]", "[{\"a\": 1, \"b\": 2}]"));
  EXPECT_FALSE(eq("[\"1\"]", "[1]"));
}

TEST(CreateDocumentFromMap, ShapeFollowsTheList) {
  EXPECT_TRUE(CreateDocumentFromMap({})->GetDocument().IsNull());
  EXPECT_EQ(Compact(CreateDocumentFromMap({Entry("", "{\"enabled\": true}")})->GetDocument()), "{\"enabled\":true}");
  EXPECT_EQ(Compact(CreateDocumentFromMap({Entry("root", "{\"name\": \"root\"}")})->GetDocument()),
            "[{\"name\":\"root\"}]");
  auto many = CreateDocumentFromMap({Entry("b", "{\"name\": \"b\"}"), Entry("a", "{\"name\": \"a\", \"x\": [1]}")});
  EXPECT_EQ(Compact(many->GetDocument()), "[{\"name\":\"b\"},{\"name\":\"a\",\"x\":[1]}]");
  // Two singleton-looking values are still a list.
  EXPECT_EQ(Compact(CreateDocumentFromMap({Entry("", "1"), Entry("", "2")})->GetDocument()), "[1,2]");
}

TEST(CreateDocumentFromMap, InvalidValueTextFails) {
  EXPECT_EQ(FailureOf<InvalidArgumentException>([] { CreateDocumentFromMap({Entry("", "{")}); }), kParseError);
  EXPECT_EQ(FailureOf<InvalidArgumentException>(
                [] { CreateDocumentFromMap({Entry("a", "{}"), Entry("b", "DELETE_DEFAULT")}); }),
            kParseError);
  auto noValue = std::make_shared<ConfigMap>(ConfigMap{{"Identifier", "a"}});
  EXPECT_EQ(FailureOf<InvalidArgumentException>([&] { CreateDocumentFromMap({noValue, nullptr}); }), kParseError);
}

TEST(FilterSolutionUserInstances, RemovesSolutionUsersKeepingTheOrder) {
  auto schema = std::make_shared<FakeSchema>(true, "name", std::vector<std::string>{"agent", "backup"});
  ConfigMapVector maps{Entry("root", "{}"), Entry("agent", "{}"), Entry("admin", "{}"), Entry("backup", "{}"),
                       Entry("agent", "{}"), Entry("zed", "{}")};
  FilterSolutionUserInstances(maps, schema);
  EXPECT_EQ(Identifiers(maps), (std::vector<std::string>{"root", "admin", "zed"}));
}

TEST(FilterSolutionUserInstances, LeavesKeysWithoutNamedInstancesAlone) {
  const ConfigMapVector original{Entry("agent", "{}"), Entry("root", "{}")};
  for (auto schema : {std::make_shared<FakeSchema>(false, "", std::vector<std::string>{"agent"}),
                      std::make_shared<FakeSchema>(true, "cs_generated_id", std::vector<std::string>{"agent"})}) {
    ConfigMapVector maps = original;
    FilterSolutionUserInstances(maps, schema);
    EXPECT_EQ(Identifiers(maps), (std::vector<std::string>{"agent", "root"}));
    EXPECT_EQ(schema->solutionQueries, 0);
  }
  auto schema = std::make_shared<FakeSchema>(true, "name", std::vector<std::string>{"agent"});
  ConfigMapVector empty;
  FilterSolutionUserInstances(empty, schema);
  EXPECT_EQ(schema->solutionQueries, 0);
}

TEST_F(DocumentFiles, FileExistsOnlyForRegularFiles) {
  WriteFile("/etc/corvane/a.json", "{}");
  EXPECT_TRUE(fileExists("/etc/corvane/a.json"));
  EXPECT_FALSE(fileExists("/etc/corvane"));
  EXPECT_FALSE(fileExists("/etc/corvane/missing.json"));
  EXPECT_FALSE(fileExists("/etc/corvane/a.json/below"));
  EXPECT_TRUE(log_.Lines().empty());

  ASSERT_EQ(symlink("loop-b", Path("/etc/corvane/loop-a").c_str()), 0);
  ASSERT_EQ(symlink("loop-a", Path("/etc/corvane/loop-b").c_str()), 0);
  EXPECT_FALSE(fileExists("/etc/corvane/loop-a"));
  EXPECT_EQ(log_.Lines(), (std::vector<std::pair<int, std::string>>{
                              {0, "Failed to query the status of \"/etc/corvane/loop-a\", error code: 40, "
                                  "error message: \"Too many levels of symbolic links\""}}));
}

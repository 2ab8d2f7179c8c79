// Manifest schema files and the whole-directory manifest check.
#include "PluginFixture.h"

namespace QenTest {
namespace {

class SchemaFileTest : public PluginTest {
 protected:
  // Writes `content` as a schema file and returns (version, error).
  std::pair<int64_t, std::string> Vet(const std::string& content) {
    WriteFile("/s/schema.json", content);
    rapidjson::Document doc;
    std::string error;
    int64_t v = CreatePluginSchemaFromFile(Path("/s/schema.json"), doc, error);
    return {v, error};
  }
  std::string P() { return Path("/s/schema.json"); }
};

TEST_F(SchemaFileTest, EveryCheckReportsItsSentenceInOrder) {
  rapidjson::Document doc;
  std::string error;
  EXPECT_EQ(CreatePluginSchemaFromFile(Path("/s/missing.json"), doc, error), -1);
  EXPECT_EQ(error, "Failed to open the schema file \"" + Path("/s/missing.json") + "\"");

  const std::string head = R"(The property "version" of the property "properties" from the schema )";
  const std::string minHead =
      R"(The property "minimum" of the property "version" of the property "properties" from the schema )";
  const std::string maxHead =
      R"(The property "maximum" of the property "version" of the property "properties" from the schema )";
  const std::pair<std::string, std::string> rows[] = {
      {R"({"a": 1} x)", "Failed to parse the schema file \"" + P() + "\""},
      // Nesting beyond the document library's limit is refused, not recursed into.
      {std::string(200000, '['), "Failed to parse the schema file \"" + P() + "\""},
      {"[1]", "The schema " + P() + " is not a JSON object"},
      {"{}", "The schema " + P() + " does not have a property called \"properties\""},
      {R"({"properties": 3})", "The schema " + P() + "'s property \"properties\" is not a JSON object"},
      {R"({"properties": {}})",
       R"(The property "version" of the property "properties" from  the schema )" + P() + " does not exist"},
      {R"({"properties": {"version": true}})", head + P() + " is not a JSON object"},
      {R"({"properties": {"version": {"maximum": 1}}})",
       head + P() + " does not have a property called \"minimum\""},
      {R"({"properties": {"version": {"minimum": 1.5, "maximum": 1}}})",
       minHead + P() + " has a value whose type is not Int64"},
      {R"({"properties": {"version": {"minimum": 4, "maximum": 4}}})",
       minHead + P() + " has a value whose type is Int64, but the value is not 1, 2 or 3"},
      {R"({"properties": {"version": {"minimum": 0}}})",
       minHead + P() + " has a value whose type is Int64, but the value is not 1, 2 or 3"},
      {R"({"properties": {"version": {"minimum": 2}}})",
       head + P() + " does not have a property called \"maximum\""},
      {R"({"properties": {"version": {"minimum": 2, "maximum": "2"}}})",
       maxHead + P() + " has a value whose type is not Int64"},
  };
  for (const auto& [content, sentence] : rows) {
    auto [version, message] = Vet(content);
    EXPECT_EQ(version, -1) << content;
    EXPECT_EQ(message, sentence) << content;
  }
  auto [version, message] = Vet(R"({"properties": {"version": {"minimum": 2, "maximum": 9}}})");
  EXPECT_EQ(version, 2);
  EXPECT_EQ(message, "");
}

TEST_F(SchemaFileTest, TableIsKeyedByMinimumAndLaterFileWins) {
  const std::string two = R"({"properties": {"version": {"minimum": 2, "maximum": 2}}, "tag": "F"})";
  WriteFile("/t/plugin_version_1_schema.json", R"({"properties": {"version": {"minimum": 1, "maximum": 1}}})");
  WriteFile("/t/plugin_version_2_schema.json", std::string(two).replace(two.find("F"), 1, "second"));
  WriteFile("/t/plugin_version_3_schema.json", std::string(two).replace(two.find("F"), 1, "third"));
  std::string error;
  PluginSchemaTable table = CreatePluginSchemas(Path("/t"), error);
  EXPECT_EQ(error, "");
  ASSERT_EQ(table.size(), 2u);
  EXPECT_EQ(table.count(3), 0u);
  EXPECT_STREQ((*table.at(2))["tag"].GetString(), "third");

  // The first bad file stops the load with an empty table.
  WriteFile("/t/plugin_version_2_schema.json", "{");
  table = CreatePluginSchemas(Path("/t") + "/", error);
  EXPECT_TRUE(table.empty());
  EXPECT_EQ(error, "Failed to parse the schema file \"" + Path("/t") + "/plugin_version_2_schema.json\"");
}

TEST(PluginVersionTest, DefaultsToOneUnlessAnInt64Version) {
  auto version = [](const char* json) {
    rapidjson::Document d;
    d.Parse(json);
    return GetPluginVersion(d);
  };
  EXPECT_EQ(version("[]"), 1);
  EXPECT_EQ(version("{}"), 1);
  EXPECT_EQ(version(R"({"version": "3"})"), 1);
  EXPECT_EQ(version(R"({"version": 2.0})"), 1);
  EXPECT_EQ(version(R"({"version": 18446744073709551615})"), 1);
  EXPECT_EQ(version(R"({"version": 0})"), 0);
  EXPECT_EQ(version(R"({"version": -4})"), -4);
  EXPECT_EQ(version(R"({"version": 3})"), 3);
}

class ValidateAllTest : public PluginTest {
 protected:
  rapidjson::Document Check(const std::string& dir) {
    rapidjson::Document report(rapidjson::kArrayType);
    ValidateAllPlugins(dir, Path(kSchemas), report);
    return report;
  }
  std::string Modules() { return Path(kModules); }
};

TEST_F(ValidateAllTest, ValidManifestsOfEveryVersionLeaveTheReportEmpty) {
  InstallSampleHost();
  rapidjson::Document report = Check(Modules());
  EXPECT_EQ(JsonToString(report), "[]");
}

TEST_F(ValidateAllTest, ReportsEachBadManifestAndKeepsGoing) {
  WriteManifest("a/b/c/none.json", R"({"type": "python", "apply_group": "network"})");
  WriteManifest("a/b/d/seven.json", R"({"version": 7})");
  WriteManifest("a/b/e/broken.json", "{\"version\": ");
  WriteManifest("a/b/g/deep.json", std::string(200000, '{'));
  WriteManifest("a/b/f/ignored.json.bak", "{");
  WriteManifest("a/b/f/ignored.JSON", "{");
  rapidjson::Document report = Check(Modules());
  ASSERT_TRUE(report.IsArray());
  std::map<std::string, const rapidjson::Value*> byFile;
  for (const auto& e : report.GetArray()) byFile[e["file"].GetString()] = &e["validation_errors"];
  ASSERT_EQ(byFile.size(), 4u) << JsonToString(report);
  const std::string deep = Modules() + "a/b/g/deep.json";
  EXPECT_EQ(std::string(byFile[deep]->GetString()), "Failed to parse the data from file \"" + deep + "\"");

  const std::string none = Modules() + "a/b/c/none.json";
  ASSERT_TRUE(byFile.count(none));
  // Validated against the version 1 schema: the missing members are reported
  // as the validator's own error objects.
  const rapidjson::Value& errors = *byFile[none];
  ASSERT_TRUE(errors.IsArray());
  std::set<std::string> missing;
  for (const auto& e : errors.GetArray()) {
    EXPECT_EQ(e["errId"].GetInt(), 9);
    missing.insert(e["errArgs"][0].GetString());
  }
  EXPECT_EQ(missing, (std::set<std::string>{"boot", "operations"}));

  EXPECT_STREQ(byFile[Modules() + "a/b/d/seven.json"]->GetString(), "The version is not supported");
  const std::string broken = Modules() + "a/b/e/broken.json";
  EXPECT_EQ(std::string(byFile[broken]->GetString()), "Failed to parse the data from file \"" + broken + "\"");
  // Element members come in the order file, validation_errors.
  EXPECT_STREQ(report[0].MemberBegin()->name.GetString(), "file");
}

TEST_F(ValidateAllTest, DirectoryAndSchemaFailuresAreReportElements) {
  rapidjson::Document report = Check(Path("/no/such/dir"));
  ASSERT_EQ(report.Size(), 1u);
  EXPECT_EQ(std::string(report[0]["file"].GetString()), Path("/no/such/dir"));
  EXPECT_EQ(std::string(report[0]["validation_errors"].GetString())
                .rfind("Failed to iterate over " + Path("/no/such/dir") + " recursively, error: ", 0),
            0u);

  WriteFile(std::string(kSchemas) + "plugin_version_1_schema.json", "[]");
  WriteManifest("a/b/c/m.json", "{");
  rapidjson::Document schemaReport(rapidjson::kArrayType);
  ValidateAllPlugins(Modules(), "relative/schemas", schemaReport);
  ASSERT_EQ(schemaReport.Size(), 1u);
  EXPECT_STREQ(schemaReport[0]["file"].GetString(), "relative/schemas");
  EXPECT_STREQ(schemaReport[0]["validation_errors"].GetString(),
               "Failed to open the schema file \"relative/schemas/plugin_version_1_schema.json\"");
}

TEST(AddValidationErrorTest, MovesTheValueIntoAppendedElement) {
  rapidjson::Document report(rapidjson::kArrayType);
  rapidjson::Value value("text");
  AddValidationError(report, "f.json", value);
  EXPECT_TRUE(value.IsNull());
  std::string text;
  QenConfigManager::SerializeValue(report, text);
  EXPECT_EQ(text, R"([{"file":"f.json","validation_errors":"text"}])");
}

}  // namespace
}  // namespace QenTest

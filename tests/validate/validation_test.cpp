#include <gtest/gtest.h>

#include <algorithm>

#include "JsonValidator.h"
#include "CustomHost.h"
#include "configmanager/validate.h"

using namespace QenConfigManager;
using QenTest::RecordingTask;

namespace {

const char* kAlphaSchema = R"({
  "component": "test", "group": "grp", "key": "alpha", "singleton": true,
  "userConfig": "alpha",
  "schema": {"type": "object",
             "properties": {"name": {"type": "string", "minLength": 3, "pattern": "^[a-z]+$"},
                            "count": {"type": "integer"}},
             "required": ["name"]}})";

const char* kBetaSchema = R"({
  "component": "test", "group": "grp", "key": "beta", "singleton": false, "instanceId": "id",
  "userConfig": "beta",
  "schema": {"type": "array", "items": {"type": "object",
             "properties": {"id": {"type": "string"}, "size": {"type": "integer"}}}}})";

// Reports one error per object whose "name" (or "id") is "bad"; records what
// it was given in a file so the test can see the request.
const char* kCheckerPy = R"(import json
import qenplugin

def validate(call):
    seen = []
    for item in call.request.GetData():
        value = item.object.GetValue()
        oid = item.object.GetConfigStoreObjectId()
        seen.append([oid.key, oid.instance, value])
        if value.get("name") == "bad" or value.get("id") == "bad":
            call.result.AddError("/" + oid.component + "/" + oid.group + "/" + oid.key,
                                 "corvane.qen.settings.test.bad-value", [oid.key])
    refs = [r.GetConfigStoreObjectId().key for r in call.request.GetReferences()]
    with open(qenplugin.HostPath("/tmp/seen-" + call.request.GetId() + ".json"), "w") as f:
        json.dump({"data": seen, "refs": refs}, f)
)";

const char* kFailingPy = R"(import qenplugin

def validate(call):
    raise qenplugin.PluginError("corvane.qen.settings.test.plugin-broke", ["why"])
)";

std::string Manifest(const std::string& accepts, const std::string& references = "") {
  std::string refs = references.empty() ? "" : ", \"references\": [\"" + references + "\"]";
  return R"({"version": 3, "type": "python", "accepts": [")" + accepts +
         R"("], "validation": {"supports": true)" + refs + "}}";
}

rapidjson::Document Parse(const std::string& text) {
  rapidjson::Document doc;
  ParseDocument(text, doc);
  return doc;
}

class ValidationTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    WriteKeySchema("test", "grp", "alpha", kAlphaSchema);
    WriteKeySchema("test", "grp", "beta", kBetaSchema);
  }

  ValidationResult Run(const std::string& text, bool validateSchema,
                       const std::shared_ptr<RecordingTask>& task) {
    rapidjson::Document doc = Parse(text);
    auto schema = GenerateHostDocumentSchema(doc);
    EXPECT_EQ(schema.index(), 0u) << "schema generation failed";
    ValidationResult result;
    Validate(doc, std::get<rapidjson::Document>(schema), "", result, validateSchema, task);
    return result;
  }

  static std::vector<std::string> Ids(const std::vector<RecordingTask::Note>& notes) {
    std::vector<std::string> ids;
    for (const auto& n : notes) ids.push_back(n.kind + " " + n.msgId + " " + n.args.front());
    return ids;
  }
};

TEST_F(ValidationTest, NoSchemaStageAndNoPluginsReportsTwentyPercentOnce) {
  auto task = std::make_shared<RecordingTask>();
  ValidationResult result = Run(R"({"profile": {"test": {"grp": {"alpha": {"name": "A"}}}}})",
                                false, task);
  EXPECT_EQ(result.Serialize(), "{}");
  EXPECT_EQ(task->Progress(), std::vector<float>({20.0f}));
  EXPECT_TRUE(task->Notes().empty());
}

TEST_F(ValidationTest, SchemaErrorsOfOnePathMergeInValidatorOrderAndSkipTheirPlugin) {
  WritePythonPlugin("alpha", Manifest("test:grp:alpha"), kCheckerPy);
  auto task = std::make_shared<RecordingTask>();
  ValidationResult result = Run(R"({"profile": {"test": {"grp": {"alpha": {"name": "A1"}}}}})",
                                true, task);

  // What the validator itself reports for the value, in its order.
  rapidjson::Document expected(rapidjson::kArrayType);
  rapidjson::Document schema = Parse(kAlphaSchema);
  JsonValidator::Validate(schema["schema"], Parse(R"({"name": "A1"})"), expected, DOCUMENT_CODE_SET,
                          "/test/grp/alpha");
  ASSERT_EQ(expected.Size(), 2u);

  ASSERT_EQ(result.errors.size(), 1u);
  EXPECT_EQ(result.errors[0].path, "/test/grp/alpha/name");
  ASSERT_EQ(result.errors[0].messages.size(), 2u);
  for (size_t i = 0; i < 2; ++i)
    EXPECT_EQ(result.errors[0].messages[i].msgId,
              JsonValidator::ConvertErrorCodeToMsgId(expected[i]["errId"].GetInt()));
  // The plugin never sees an object that failed its schema: no notification at all.
  EXPECT_TRUE(task->Notes().empty());
  EXPECT_FALSE(Exists("/tmp/seen-alpha.json"));
  EXPECT_EQ(task->Progress(), std::vector<float>({20.0f}));
}

TEST_F(ValidationTest, PluginsSeeTheirObjectsAndReferencesAndTheirErrorsLand) {
  WritePythonPlugin("alpha", Manifest("test:grp:alpha", "test:grp:beta"), kCheckerPy);
  WritePythonPlugin("beta", Manifest("test:grp:beta"), kCheckerPy);
  auto task = std::make_shared<RecordingTask>();
  ValidationResult result = Run(
      R"({"profile": {"test": {"grp": {"alpha": {"name": "bad"},
                                       "beta": [{"id": "one"}, {"id": "bad", "size": 2}]}}}})",
      true, task);

  // Both plugins report an error for their key; each path is one record.
  ASSERT_EQ(result.errors.size(), 2u);
  std::vector<std::string> paths = {result.errors[0].path, result.errors[1].path};
  std::sort(paths.begin(), paths.end());
  EXPECT_EQ(paths, (std::vector<std::string>{"/test/grp/alpha", "/test/grp/beta"}));
  for (const auto& e : result.errors) {
    ASSERT_EQ(e.messages.size(), 1u);
    EXPECT_EQ(e.messages[0].msgId, "corvane.qen.settings.test.bad-value");
  }
  EXPECT_TRUE(result.pluginError.IsEmpty());

  // The non-singleton arrives as one object per instance, references too.
  rapidjson::Document seen = Parse(ReadFile("/tmp/seen-beta.json"));
  ASSERT_EQ(seen["data"].Size(), 2u);
  EXPECT_STREQ(seen["data"][0][1].GetString(), "one");
  EXPECT_STREQ(seen["data"][1][1].GetString(), "bad");
  rapidjson::Document seenAlpha = Parse(ReadFile("/tmp/seen-alpha.json"));
  EXPECT_EQ(seenAlpha["refs"].Size(), 2u);

  EXPECT_EQ(task->Progress(), std::vector<float>({20.0f, 60.0f, 100.0f}));
  std::vector<RecordingTask::Note> notes = task->Notes();
  ASSERT_EQ(notes.size(), 4u);
  for (size_t i = 0; i < 4; i += 2) {
    EXPECT_EQ(notes[i].msgId, "corvane.qen.settings.validation.plugin.started");
    EXPECT_EQ(notes[i + 1].msgId, "corvane.qen.settings.validation.plugin.finished");
    EXPECT_EQ(notes[i].args, notes[i + 1].args);
  }
}

TEST_F(ValidationTest, PluginWhoseObjectsAreAbsentIsSkippedSilently) {
  WritePythonPlugin("beta", Manifest("test:grp:beta"), kFailingPy);
  auto task = std::make_shared<RecordingTask>();
  ValidationResult result = Run(R"({"test": {"grp": {"alpha": {"name": "abc"}}}})", true, task);
  EXPECT_EQ(result.Serialize(), "{}");
  EXPECT_TRUE(task->Notes().empty());
}

TEST_F(ValidationTest, AbortBeforeTheFirstPluginLeavesOnlyThePluginError) {
  WritePythonPlugin("alpha", Manifest("test:grp:alpha"), kCheckerPy);
  auto task = std::make_shared<RecordingTask>();
  task->AbortNow();
  // A schema error exists too, but an aborted validation reports nothing else.
  ValidationResult result = Run(
      R"({"profile": {"test": {"grp": {"alpha": {"name": "abc"}, "beta": [{"id": 5}]}}}})", true,
      task);
  EXPECT_TRUE(result.errors.empty());
  EXPECT_EQ(result.pluginError.msgId, "corvane.qen.settings.validation.plugin.aborted");
  EXPECT_EQ(result.pluginError.args, std::list<std::string>{"alpha"});
  EXPECT_TRUE(task->Notes().empty());
}

TEST_F(ValidationTest, FailingPluginStopsValidation) {
  WritePythonPlugin("alpha", Manifest("test:grp:alpha"), kFailingPy);
  WritePythonPlugin("beta", Manifest("test:grp:beta"), kFailingPy);
  auto task = std::make_shared<RecordingTask>();
  ValidationResult result = Run(
      R"({"profile": {"test": {"grp": {"alpha": {"name": "abc"}, "beta": [{"id": "x"}]}}}})",
      true, task);
  // Whichever plugin ran first failed; the other never started.
  std::vector<RecordingTask::Note> notes = task->Notes();
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].msgId, "corvane.qen.settings.validation.plugin.started");
  EXPECT_EQ(notes[1].kind, "error");
  EXPECT_EQ(notes[1].msgId, "corvane.qen.settings.test.plugin-broke");
  EXPECT_EQ(result.pluginError.msgId, "corvane.qen.settings.test.plugin-broke");
  EXPECT_EQ(result.pluginError.args, std::list<std::string>{"why"});
  EXPECT_TRUE(result.errors.empty());
  EXPECT_EQ(result.Serialize().find("\"errors\""), std::string::npos);
}

TEST_F(ValidationTest, HostSpecificSectionsMatchTheBiosUuidInAnyCase) {
  // The sample hardware file's UUID, in upper case and braces.
  rapidjson::Document doc = Parse(R"({"profile": {"test": {"grp": {"alpha": {"name": "abc"}}}},
      "host-specific": {"4C4C4544-0042-3510-8052-B4C04F4A4B32": {"test": {"grp": {"nokey": {}}}},
                        "00000000-0000-0000-0000-000000000000": {"test": {"grp": {"other": {}}}}}})");
  auto schema = GenerateHostDocumentSchema(doc);
  ASSERT_EQ(schema.index(), 1u);
  const auto& errors = std::get<std::vector<ValidationErrorInfo>>(schema);
  // Only this host's section is generated, so only its unknown key is reported.
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].path, "/test/grp/nokey");
  ASSERT_EQ(errors[0].messages.size(), 1u);
  EXPECT_EQ(errors[0].messages[0].args, std::list<std::string>{"test.grp.nokey"});
}

TEST_F(ValidationTest, WrongJsonTypesRaiseTheStructuralError) {
  auto task = std::make_shared<RecordingTask>();
  rapidjson::Document doc = Parse("[1, 2]");
  rapidjson::Document schema;
  ValidationResult result;
  try {
    Validate(doc, schema, "", result, false, task);
    FAIL() << "no throw";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 1082);
    EXPECT_EQ(std::string(e.what()).rfind("JSON error:", 0), 0u);
  }
}

TEST_F(ValidationTest, IsValidCsoLogsEveryErrorThroughAFixedFormat) {
  rapidjson::Document schemaFile = Parse(kAlphaSchema);
  auto schema = QenSchemaStore::SchemaStore::GetCache()->GetSchema("test", "grp", "alpha");
  ASSERT_TRUE(schema);
  auto good = QenConfigStore::CreateObject(ConfigStoreObjectId("alpha", "grp", "test"),
                                           R"({"name": "abc"})");
  EXPECT_TRUE(IsValidCSO(schema, good));
  // A property name with printf conversions must come out literally.
  auto bad = QenConfigStore::CreateObject(ConfigStoreObjectId("alpha", "grp", "test"),
                                          R"({"name": "%s%n%x", "count": "x"})");
  log_.Clear();
  EXPECT_FALSE(IsValidCSO(schema, bad));
  std::vector<std::string> lines = log_.Texts(0);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], "Invalid ConfigStoreObject: comp test grp grp key alpha");
}

}  // namespace

#include <gtest/gtest.h>

#include "CustomHost.h"
#include "ExtractTestSupport.h"
#include "configmanager/extract.h"
#include "extract/extraction_internal.h"

using namespace QenConfigManager;

namespace {

const char* kNtpSchema = R"({
  "component": "sys", "group": "time", "key": "ntp", "singleton": true, "userConfig": "ntp",
  "schema": {"type": "object", "properties": {"enabled": {"type": "boolean"},
             "servers": {"type": "array", "items": {"type": "string"}},
             "status": {"type": "string", "readOnly": true}},
             "additionalProperties": false}})";

const char* kUserSchema = R"({
  "component": "sys", "group": "users", "key": "user", "singleton": false, "instanceId": "name",
  "userConfig": "users", "solutionUserInstances": ["agent"],
  "schema": {"type": "array", "items": {"type": "object",
             "properties": {"name": {"type": "string"}, "shell": {"type": "boolean"}}}}})";

// Extracts sys/time/ntp with whatever value the file beside it holds; "none"
// declares the object but returns nothing.
const char* kNtpExtractPy = R"(import json, os
import qenplugin

def extract(call):
    here = os.path.dirname(__file__)
    with open(os.path.join(here, "answer.txt")) as f:
        answer = json.load(f)
    with open(os.path.join(here, "ran"), "a") as f:
        f.write("x")
    if answer == "none":
        return
    if answer == "fail":
        raise qenplugin.PluginError("corvane.qen.settings.test.extract-broke", [])
    for object_id in call.request.GetCSOIdsForExtract():
        call.result.AddObject(object_id, answer)
)";

std::string ExtractManifest(const std::string& accepts) {
  return R"({"version": 3, "type": "python", "accepts": [")" + accepts +
         R"("], "extract": {"supports": true}})";
}

class ExtractionTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    WriteKeySchema("sys", "time", "ntp", kNtpSchema);
    WriteKeySchema("sys", "users", "user", kUserSchema);
  }

  void NtpPlugin(const std::string& name, const std::string& answer) {
    WritePythonPlugin(name, ExtractManifest("sys:time:ntp"), kNtpExtractPy);
    WriteFile("/usr/lib/corvane/configmanager/apply_modules/" + name + "/answer.txt", answer);
  }

  static std::string Text(const std::shared_ptr<QenConfigStore::JsonDoc>& doc) {
    std::string out;
    SerializeValue(doc->GetDocument(), out);
    return out;
  }

  template <typename E>
  static void ExpectThrows(const std::function<void()>& body, int code, const std::string& what) {
    try {
      body();
      ADD_FAILURE() << "no throw";
    } catch (const E& e) {
      EXPECT_EQ(e.GetErrorCode(), code);
      EXPECT_EQ(std::string(e.what()), what);
    }
  }
};

TEST_F(ExtractionTest, EmptyHostGivesAnEmptyDocument) {
  EXPECT_EQ(Text(ExtractCurrentConfiguration()), "{}");
  EXPECT_EQ(Text(ExtractDesiredConfiguration()), "{}");
}

TEST_F(ExtractionTest, StoredValuesAreCleanedAndSolutionInstancesLeftOut) {
  LoadStore(R"({"host": {"current": {"sys": {
      "time": {"ntp": {"enabled": true, "servers": ["a"], "status": "synced", "junk": 1}},
      "users": {"user": [{"name": "root", "shell": true}, {"name": "agent"}, {"name": "ops", "shell": null}]}}}}})");
  // Read-only and undescribed members go, null members go, the solution's user goes.
  EXPECT_EQ(Text(ExtractCurrentConfiguration()),
            R"({"sys":{"time":{"ntp":{"enabled":true,"servers":["a"]}},)"
            R"("users":{"user":[{"name":"root","shell":true},{"name":"ops"}]}}})");
  EXPECT_TRUE(log_.Contains(
      2, "Configuration for {sys/users/user/agent} was not extracted, since instance is created by a solution."));
}

TEST_F(ExtractionTest, PluginValueReplacesTheStoreAndADeclaredButMissingObjectIsAbsent) {
  LoadStore(R"({"host": {"current": {"sys": {"time": {"ntp": {"enabled": false}}}}}})");
  NtpPlugin("ntp", R"({"enabled": true, "servers": ["from-plugin"]})");
  EXPECT_EQ(Text(ExtractCurrentConfiguration()),
            R"({"sys":{"time":{"ntp":{"enabled":true,"servers":["from-plugin"]}}}})");

  WriteFile("/usr/lib/corvane/configmanager/apply_modules/ntp/answer.txt", "\"none\"");
  EXPECT_EQ(Text(ExtractCurrentConfiguration()), "{}");
}

TEST_F(ExtractionTest, TwoPluginsDeclaringOneObjectBothRun) {
  NtpPlugin("ntp-a", R"({"enabled": true})");
  NtpPlugin("ntp-b", R"({"enabled": true})");
  EXPECT_EQ(Text(ExtractCurrentConfiguration()), R"({"sys":{"time":{"ntp":{"enabled":true}}}})");
  EXPECT_EQ(ReadFile("/usr/lib/corvane/configmanager/apply_modules/ntp-a/ran"), "x");
  EXPECT_EQ(ReadFile("/usr/lib/corvane/configmanager/apply_modules/ntp-b/ran"), "x");
}

TEST_F(ExtractionTest, InvalidPluginObjectsFailAfterEveryPluginRan) {
  NtpPlugin("ntp-a", R"({"enabled": "yes"})");
  NtpPlugin("ntp-b", R"({"servers": 7})");
  try {
    ExtractCurrentConfiguration();
    FAIL() << "no throw";
  } catch (const ConfigManagerException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2031);
    // Both plugins are named, in the order they ran.
    std::string arg = e.GetArgs().front();
    EXPECT_TRUE(arg == "ntp-a,ntp-b" || arg == "ntp-b,ntp-a") << arg;
    EXPECT_EQ(std::string(e.what()), "Extract plugin failed: " + arg);
  }
  EXPECT_TRUE(Exists("/usr/lib/corvane/configmanager/apply_modules/ntp-a/ran"));
  EXPECT_TRUE(Exists("/usr/lib/corvane/configmanager/apply_modules/ntp-b/ran"));
  EXPECT_TRUE(log_.Contains(0, "Invalid ConfigStoreObject: comp sys grp time key ntp"));
}

TEST_F(ExtractionTest, PluginReportingAnErrorStopsExtraction) {
  NtpPlugin("ntp", "\"fail\"");
  ExpectThrows<ConfigManagerException>([] { ExtractCurrentConfiguration(); }, 2031,
                                       "Extract plugin failed: ntp");
  EXPECT_TRUE(log_.Contains(0, "Extract plugin failed: ntp"));
}

TEST_F(ExtractionTest, MutableDefaultsMustKeepAValue) {
  WriteKeySchema("sys", "time", "zone", kZoneSchema);
  ExpectThrows<ConfigManagerException>([] { ExtractCurrentConfiguration(); }, 2027,
                                       "Deleting default configuration for comp sys grp time key "
                                       "zone is not supported.");
  LoadStore(R"({"host": {"current": {"sys": {"time": {"zone": "DELETE_DEFAULT"}}}}})");
  ExpectThrows<ConfigManagerException>([] { ExtractCurrentConfiguration(); }, 2027,
                                       "Deleting default configuration for comp sys grp time key "
                                       "zone is not supported.");
  LoadStore(R"({"host": {"current": {"sys": {"time": {"zone": {"zone": "UTC"}}}}}})");
  EXPECT_EQ(Text(ExtractCurrentConfiguration()), R"({"sys":{"time":{"zone":{"zone":"UTC"}}}})");
}

TEST_F(ExtractionTest, ValueCleanedToNothingIsFilteredOut) {
  LoadStore(R"({"host": {"current": {"sys": {"time": {"ntp": {"status": "synced", "servers": []}}}}}})");
  EXPECT_EQ(Text(ExtractCurrentConfiguration()), "{}");
  EXPECT_TRUE(log_.Contains(2, "Configuration for {sys/time/ntp/} was filtered out."));
}

TEST_F(ExtractionTest, UnparsableStoredValueIsAParseError) {
  // The store refuses bad JSON, so hand over the list a damaged store would
  // give: text that is not JSON, or nested far deeper than any walk allows.
  for (const std::string& value : {std::string("{not json"), std::string(100000, '[') + std::string(100000, ']')}) {
    ConfigMapList list = SingletonList("sys", "time", "ntp", value);
    rapidjson::Document doc;
    ExpectThrows<InvalidArgumentException>(
        [&] {
          ProcessConfigMapList(doc, list, QenSchemaStore::SchemaStore::GetStore(), DOC_CURRENT, nullptr);
        },
        2080, "Failed to parse JSON String");
  }
}

TEST_F(ExtractionTest, DesiredDocumentComesFromTheStagedConfigurationWithoutPlugins) {
  NtpPlugin("ntp", "\"fail\"");
  LoadStore(R"({"host": {"current": {"sys": {"time": {"ntp": {"enabled": false}}}},
                         "desired": {"sys": {"time": {"ntp": {"enabled": true, "status": "x"}}}},
                         "desiredMode": "document"}})");
  // Desired documents keep read-only members (only undescribed and null ones go).
  EXPECT_EQ(Text(ExtractDesiredConfiguration()),
            R"({"sys":{"time":{"ntp":{"enabled":true,"status":"x"}}}})");
  EXPECT_FALSE(Exists("/usr/lib/corvane/configmanager/apply_modules/ntp/ran"));
}

TEST_F(ExtractionTest, BlockedSshFileEditsSyncOnlyTheAuthorisedKeys) {
  EnableFeature("Tavapps_BlockSshFileEdits");
  ExtractCurrentConfiguration();
  EXPECT_TRUE(log_.Contains(2,
                            "Tavapps_BlockSshFileEdits FSS is enabled, skip syncing sshd_config "
                            "and ssh_config files."));
  EXPECT_FALSE(log_.Contains(2, "SSH configurations synced."));
  for (const auto& line : log_.Lines()) {
    EXPECT_EQ(line.second.find("SSH client configuration"), std::string::npos);
    EXPECT_EQ(line.second.find("SSH server configuration"), std::string::npos);
  }
}

// Automatic configuration, on a value and schema directly.
class AutoConfigTest : public QenTest::HostRootTest {
 protected:
  std::string Patch(const char* schemaText, const char* valueText, const std::string& autoConf) {
    rapidjson::Document schema, value;
    ParseDocument(schemaText, schema);
    ParseDocument(valueText, value);
    ProcessAutoConfig(value, schema, autoConf, value.GetAllocator());
    std::string out;
    SerializeValue(value, out);
    return out;
  }
};

const char* kRequiredSchema = R"({"type": "object", "required": ["name", "mode"],
    "properties": {"name": {"type": "string"}, "mode": {"type": "string"}, "size": {"type": "integer"}}})";

const char* kUnionSchema = R"({"type": "object", "discriminator": "kind", "oneOf": [
    {"properties": {"kind": {"enum": ["disk"]}, "path": {"type": "string"}}},
    {"properties": {"kind": {"enum": ["net"]}, "host": {"type": "string"}}}]})";

TEST_F(AutoConfigTest, MissingRequiredPropertyAndUnionTagArePatched) {
  EXPECT_EQ(Patch(kRequiredSchema, R"({"name": "a"})", R"({"name": "z", "mode": "auto"})"),
            R"({"name":"a","mode":"auto"})");
  ASSERT_EQ(log_.Texts(2).size(), 1u);
  EXPECT_EQ(log_.Texts(2)[0].rfind("patching validation error: '/mode' ", 0), 0u);
  EXPECT_EQ(Patch(kUnionSchema, R"({"path": "/srv"})", R"({"kind": "disk"})"),
            R"({"path":"/srv","kind":"disk"})");
}

TEST_F(AutoConfigTest, OtherErrorsAreOnlyLoggedAndEmptyAutoConfigSkipsValidation) {
  EXPECT_EQ(Patch(kRequiredSchema, R"({"name": "a", "mode": "m", "size": "big"})", R"({"size": 1})"),
            R"({"name":"a","mode":"m","size":"big"})");
  ASSERT_EQ(log_.Texts(0).size(), 1u);
  EXPECT_EQ(log_.Texts(0)[0].rfind("unexpected validation error: '/size' ", 0), 0u);

  log_.Clear();
  EXPECT_EQ(Patch(kRequiredSchema, "{}", ""), "{}");
  EXPECT_EQ(log_.Texts(3), std::vector<std::string>{"No auto configuration to process"});
  EXPECT_TRUE(log_.Texts(2).empty());
}

TEST_F(AutoConfigTest, UnparsableAutoConfigIsAParseError) {
  try {
    Patch(kRequiredSchema, R"({"name": "a"})", "{oops");
    FAIL() << "no throw";
  } catch (const InvalidArgumentException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2080);
  }
}

}  // namespace

namespace {

const char* kUserExtractPy = R"(import qenplugin

def extract(call):
    for object_id in call.request.GetCSOIdsForExtract():
        for name in ("root", "ops"):
            instance = qenplugin.ConfigStoreObjectId(object_id.key, object_id.group,
                                                     object_id.component, name)
            call.result.AddObject(instance, {"name": name, "shell": name == "root"})
)";

TEST_F(ExtractionTest, PluginInstancesOfANonSingletonAreCheckedAgainstTheInstanceSchema) {
  WritePythonPlugin("users", ExtractManifest("sys:users:user"), kUserExtractPy);
  EXPECT_EQ(Text(ExtractCurrentConfiguration()),
            R"({"sys":{"users":{"user":[{"name":"root","shell":true},{"name":"ops","shell":false}]}}})");
}

}  // namespace

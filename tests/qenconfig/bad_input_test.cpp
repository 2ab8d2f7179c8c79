// What a new user's mistakes must end in: one clear error that names the
// file and the path in the document (or the key), and no change anywhere.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>

#include "HostFiles.h"
#include "QenConfigTest.h"
#include "QenJson.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

class BadInputTest : public QenConfigTest {
 protected:
  void SetUp() override {
    QenConfigTest::SetUp();
    LoadSampleStore();
    before_ = Dump();
  }
  std::string Dump() {
    Outcome dump = Run({"store", "dump", "--show-sensitive"});
    EXPECT_EQ(dump.exit, 0) << dump.err;
    return dump.out;
  }
  // The sample's good desired document with `profile` in place of its profile.
  std::string Desired(const std::string& profile) { return UserFile("desired.json", profile); }

  std::string before_;
};

TEST_F(BadInputTest, ParseErrorsNameTheFileAndTheOffsetEverywhere) {
  const std::string truncated = UserFile("truncated.json", "{\"profile\": ");
  const std::string latin1 = UserFile("latin1.json", "{\"profile\": {\"network\": \"caf\xe9\"}}");
  const std::string twice = UserFile("twice.json", R"({"profile": {}, "profile": {"network": {}}})");
  struct Case {
    std::vector<std::string> args;
    std::string file, reason;
  };
  const std::vector<Case> cases = {
      {{"compliance", truncated}, truncated, "Invalid value. at offset 12"},
      {{"impact", truncated}, truncated, "Invalid value. at offset 12"},
      {{"doc", "fmt", truncated}, truncated, "Invalid value. at offset 12"},
      {{"validate", latin1}, latin1, "Invalid encoding in string. at offset 28"},
      {{"compliance", latin1}, latin1, "Invalid encoding in string. at offset 28"},
      {{"compliance", twice}, twice, "duplicate member name \"profile\" in the object at \"\""},
      {{"plan", twice, "-o", Path("/plan.json")}, twice,
       "duplicate member name \"profile\" in the object at \"\""},
  };
  for (const Case& c : cases) {
    Outcome o = Run(c.args);
    EXPECT_EQ(o.exit, 1) << c.args[0];
    EXPECT_EQ(o.err, "error 2080: Failed to parse JSON String \"" + c.file + "\": " + c.reason + "\n")
        << c.args[0];
    EXPECT_EQ(o.out, "");
  }
  EXPECT_FALSE(Exists("/plan.json"));
  EXPECT_EQ(Dump(), before_);
}

TEST_F(BadInputTest, ValidateReportsRepeatedNamesAndInstanceIdentifiersAtTheirPaths) {
  const std::string doc = Desired(R"({"profile": {"network": {
      "dns": {"resolver": {"servers": ["10.0.0.53"], "search": [], "search": ["x"]}},
      "interfaces": {"nic": [{"name": "nic0", "mtu": 1500}, {"name": "nic0", "mtu": 9000}]}}}})");
  Outcome o = Run({"validate", doc, "--output", "json"});
  EXPECT_EQ(o.exit, 3);
  rapidjson::Document result;
  ASSERT_TRUE(QenPlatform::ParseJson(o.out, result)) << o.out;
  std::map<std::string, std::string> found;
  for (const auto& e : result["errors"].GetArray())
    found[e["path"].GetString()] = std::string(e["id"].GetString()) + " " + QenPlatform::CompactJson(e["args"]);
  const std::map<std::string, std::string> expected = {
      {"/network/dns/resolver/search", "corvane.qen.settings.schema.duplicate-name [\"search\"]"},
      {"/network/interfaces/nic/1/name", "corvane.qen.settings.schema.duplicate-instance-id [\"\\\"nic0\\\"\",\"0\"]"},
  };
  EXPECT_EQ(found, expected) << o.out;
}

TEST_F(BadInputTest, WrongShapesAndUnknownComponentsAreErrorsAtTheirPath) {
  struct Case {
    std::string text, validatePath, validateMessage, complianceError;
  };
  const std::vector<Case> cases = {
      {"[]", "", "corvane.qen.settings.schema.type-mismatch", "Invalid value for key / in \"FILE\": expected object, found array"},
      {R"({"profle": {}})", "/profle", "corvane.qen.settings.schema.no-schema",
       "Invalid value for key /profle in \"FILE\": no-schema profle"},
      {R"({"profile": {"network": {"dnss": {}}}})", "/network/dnss", "corvane.qen.settings.schema.no-schema",
       "Invalid value for key /network/dnss in \"FILE\": no-schema network.dnss"},
      {R"({"profile": {"network": {"interfaces": {"nic": {"name": "nic0"}}}}})", "/network/interfaces/nic",
       "corvane.qen.settings.schema.type-mismatch",
       "Invalid value for key /network/interfaces/nic in \"FILE\": expected array, found object"},
  };
  for (const Case& c : cases) {
    const std::string file = Desired(c.text);
    Outcome v = Run({"validate", file, "--output", "json"});
    EXPECT_EQ(v.exit, 3) << c.text;
    EXPECT_EQ(v.err, "") << c.text;
    rapidjson::Document result;
    ASSERT_TRUE(QenPlatform::ParseJson(v.out, result)) << v.out;
    ASSERT_TRUE(result.HasMember("errors")) << v.out;
    EXPECT_EQ(std::string(result["errors"][0]["path"].GetString()), c.validatePath) << v.out;
    EXPECT_EQ(std::string(result["errors"][0]["id"].GetString()), c.validateMessage) << v.out;

    std::string expected = c.complianceError;
    expected.replace(expected.find("FILE"), 4, file);
    for (const char* command : {"compliance", "impact"}) {
      Outcome o = Run({command, file});
      EXPECT_EQ(o.exit, 1) << command << " " << c.text;
      EXPECT_EQ(o.err, "error 2084: " + expected + "\n") << command;
      EXPECT_EQ(o.out, "") << command;
    }
  }
  EXPECT_EQ(Dump(), before_);
}

TEST_F(BadInputTest, StoreLoadRefusesKeysWithoutSchemaAndInvalidValuesLoadingNothing) {
  std::string text;
  ASSERT_TRUE(QenPlatform::ReadWholeFile(std::string(kDocs) + "store-sample.json", text));
  rapidjson::Document description;
  ASSERT_TRUE(QenPlatform::ParseJson(text, description));
  auto& a = description.GetAllocator();
  rapidjson::Value extra(rapidjson::kObjectType);
  extra.AddMember("nokey", rapidjson::Value(rapidjson::kObjectType), a);
  description["host"]["current"]["network"].AddMember("dnsx", extra, a);
  const std::string unknown = UserFile("unknown.json", QenPlatform::CompactJson(description));
  description["host"]["current"]["network"].RemoveMember("dnsx");
  description["host"]["current"]["network"]["dns"]["resolver"]["servers"].SetString("10.0.0.1");
  const std::string invalid = UserFile("invalid.json", QenPlatform::CompactJson(description));

  Outcome o = Run({"store", "load", unknown});
  EXPECT_EQ(o.exit, 1);
  EXPECT_EQ(o.err, "error 2003: Store description \"" + unknown +
                       "\" was not loaded: /host/current/network/dnsx/nokey: no schema for network.dnsx.nokey\n");
  o = Run({"store", "load", invalid});
  EXPECT_EQ(o.exit, 1);
  EXPECT_EQ(o.err, "error 2003: Store description \"" + invalid +
                       "\" was not loaded: /host/current/network/dns/resolver/servers: expected array, found string\n");
  EXPECT_EQ(Dump(), before_);
  EXPECT_EQ(Run({"extract", "current"}).exit, 0);
}

TEST_F(BadInputTest, PluginsCheckFindsADependencyCycleThatListWouldRefuse) {
  const std::string manifest = "/usr/lib/corvane/configmanager/apply_modules/ntp/manifest.json";
  std::string text = ReadFile(manifest);
  const size_t at = text.find("[\"dns-resolver\"]");
  ASSERT_NE(at, std::string::npos);
  text.replace(at, 16, "[\"time-sync\"]");
  WriteFile(manifest, text);

  Outcome list = Run({"plugins", "list", "--type", "apply"});
  EXPECT_EQ(list.exit, 1);
  EXPECT_EQ(list.err, "error 2083: Failed to create dependency graph from plugin JSON files.\n");
  Outcome check = Run({"plugins", "check"});
  EXPECT_EQ(check.exit, 3);
  EXPECT_NE(check.out.find("error 2083: Failed to create dependency graph from plugin JSON files."),
            std::string::npos)
      << check.out;
}

TEST_F(BadInputTest, AMissingStoreIsNotInitialisedRatherThanAMissingDefault) {
  std::remove(Path("/var/lib/corvane/configstore/configstore.db").c_str());
  std::remove(Path("/var/lib/corvane/configstore/configstore.db-wal").c_str());
  std::remove(Path("/var/lib/corvane/configstore/configstore.db-shm").c_str());
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"extract", "current"}, {"compliance", std::string(kDocs) + "desired-good.json"}, {"export"}}) {
    Outcome o = Run(args);
    EXPECT_EQ(o.exit, 1) << args[0];
    EXPECT_EQ(o.err, "error 2001: Configuration store \"" + Path("/var/lib/corvane/configstore/configstore.db") +
                         "\" does not exist: it is not initialised (load a store description first)\n")
        << args[0];
  }
  // Nothing was created on the way.
  EXPECT_FALSE(Exists("/var/lib/corvane/configstore/configstore.db"));
}

TEST_F(BadInputTest, AnUnwritableRequestFileCarriesTheSystemError) {
  // The request file's place is taken by a directory.
  WriteFile("/var/corvane/lifecycle/.keep", "");
  ASSERT_EQ(::mkdir(Path("/var/corvane/lifecycle/cm-plugin-input.json").c_str(), 0700), 0);
  Outcome o = Run({"validate", std::string(kDocs) + "desired-good.json"});
  EXPECT_EQ(o.exit, 1);
  EXPECT_EQ(o.out, "");
  EXPECT_EQ(o.err.substr(0, o.err.find('\n') + 1),
            "error: validation could not run: corvane.qen.settings.validation.plugin.unexpected.error: ntp (Cannot "
            "write the plugin request file \"/var/corvane/lifecycle/cm-plugin-input.json\": Is a directory)\n");
}

TEST_F(BadInputTest, ExtractAndDumpRedactSensitiveValuesUnlessAskedNotTo) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"extract", "current"}, {"store", "dump"}, {"get", "system", "users", "user"}}) {
    std::vector<std::string> clear = args;
    clear.push_back("--show-sensitive");
    Outcome shown = Run(clear);
    EXPECT_EQ(shown.exit, 0) << shown.err;
    EXPECT_NE(shown.out.find("$6$sample$hash"), std::string::npos) << args[0];
    Outcome redacted = Run(args);
    EXPECT_EQ(redacted.exit, 0) << redacted.err;
    EXPECT_EQ(redacted.out.find("$6$sample$hash"), std::string::npos) << args[0];
    EXPECT_NE(redacted.out.find("\"password\": \"(redacted)\""), std::string::npos) << redacted.out;
  }
}

}  // namespace

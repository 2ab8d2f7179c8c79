// Boot-time apply and bootstrapping from a document on a temporary host: two
// apply plugins with boot support and one without, a key whose change needs
// a reboot, and the auto-deployment files.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <sstream>

#include <boost/filesystem.hpp>

#include "CustomHost.h"
#include "HostFiles.h"
#include "QenConfigStore.h"
#include "configmanager/boot.h"
#include "configmanager/extract.h"

using namespace QenConfigManager;

namespace {

const char* kNotify = "/etc/corvane/autodeploy/waiterNotify.json";
const char* kFirewall = "/etc/corvane/firewall/autodeploy.xml";
// Not a JSON-safe text: quotes, a NUL-free control byte, no final newline.
const std::string kFirewallXml = "<firewall>\n  <allow name=\"a\" port='443'/>\x01\t</firewall>";

class BootTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    using QenTest::TestKeySchema;
    WriteKeySchema("test", "net", "a", TestKeySchema("net", "a", true));
    WriteKeySchema("test", "net", "list", TestKeySchema("net", "list", false));
    WriteKeySchema("test", "sys", "c", TestKeySchema("sys", "c", true));
    WriteKeySchema("test", "sys", "k", TestKeySchema("sys", "k", true,
                                                     R"("rebootRequired": {"operations": ["SET", "ADD", "DELETE"]}, )"));
    WritePythonPlugin("alpha", QenTest::V3ApplyManifest(R"("test:net:a", "test:net:list", "test:sys:k")", "network",
                                                        "alpha", true),
                      QenTest::kRecordingApplyPy);
    WritePythonPlugin("gamma", QenTest::V3ApplyManifest(R"("test:sys:c")", "system", "gamma", false),
                      QenTest::kRecordingApplyPy);
    LoadStore(kStore);
    // The sample host's own auto-deployment files: each test writes its own.
    QenPlatform::RemoveFile(Path(kNotify));
    QenPlatform::RemoveFile(Path(kFirewall));
  }

  static constexpr const char* kStore = R"({"host": {"current": {"test": {
      "net": {"a": {"v": 1}, "list": [{"name": "l0", "v": 1}]}, "sys": {"c": {"v": 1}, "k": {"v": 1}}}}}})";

  // A document file with the store's values unless given.
  std::string Document(const std::string& a = R"({"v": 1})", const std::string& k = R"({"v": 1})",
                       const std::string& c = R"({"v": 1})") {
    const std::string path = "/tmp/boot-document.json";
    WriteFile(path, R"({"profile": {"test": {"net": {"a": )" + a + R"(, "list": [{"name": "l0", "v": 1}]}, "sys": {"c": )" +
                        c + R"(, "k": )" + k + "}}}}");
    return path;
  }

  void WriteAutoDeployFiles() {
    WriteFile(kNotify, "{ \"waiter\" : {\"url\": \"https://deploy.example/ready\"} }\n");
    WriteFile(kFirewall, kFirewallXml);
  }

  static std::string Dump() { return QenPlatform::CompactJson(QenConfigStore::DumpStoreDescription()->GetDocument()); }

  std::vector<std::string> Applied() {
    std::vector<std::string> lines;
    std::istringstream in(Exists("/tmp/applied.txt") ? ReadFile("/tmp/applied.txt") : "");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  // The auto-deployment object's value as the store keeps it, or "none".
  static std::string AutoDeployObject() {
    auto store = QenConfigStore::ConfigStore::GetStore();
    auto object = store->GetObject(ConfigStoreObjectId("autodeploy", "bootstrap", "qen"));
    return object ? object->GetSerializedData() : "none";
  }
};

TEST_F(BootTest, BootApplyAppliesTheDesiredConfigurationWithBootPluginsAndRecordsIt) {
  LoadStore(R"({"host": {"current": {"test": {"net": {"a": {"v": 1}}, "sys": {"c": {"v": 1}}}},
               "desired": {"test": {"net": {"a": {"v": 2}}, "sys": {"c": {"v": 2}}}}},
               "bootApplyState": {"isBootComplete": false, "bootApplyRecord": ""}})");
  EXPECT_EQ(ExecuteBootPlugins(), 0);
  EXPECT_EQ(Applied(), std::vector<std::string>{R"(alpha SET:a={"v":"SET"})"});
  EXPECT_TRUE(log_.Contains(0, "Plugin=gamma does not support boot-time remediation for csoid=comp test grp sys key c"));
  // Without the auto-deployment object no file is written.
  EXPECT_FALSE(Exists(kNotify) || Exists(kFirewall));
  // The record of a successful apply completes the boot.
  EXPECT_EQ(GetBootApplyInfo().status, BOOT_APPLY_OK);
}

TEST_F(BootTest, BootApplyWritesTheAutoDeploymentFilesBackWholeAndPrivate) {
  rapidjson::Document value(rapidjson::kObjectType);
  value.AddMember("waiter_notify", "{\"waiter\":{\"url\":\"https://deploy.example/ready\"}}", value.GetAllocator());
  value.AddMember("firewall", rapidjson::Value(kFirewallXml, value.GetAllocator()), value.GetAllocator());
  LoadStore(R"({"host": {"vital": {"qen": {"bootstrap": {"autodeploy": )" + QenPlatform::CompactJson(value) + "}}}}}");
  WriteFile(kFirewall, "an older and much longer firewall configuration than the stored one..........");
  EXPECT_EQ(ExecuteBootPlugins(), 0);
  EXPECT_EQ(ReadFile(kNotify), "{\"waiter\":{\"url\":\"https://deploy.example/ready\"}}");
  EXPECT_EQ(ReadFile(kFirewall), kFirewallXml);
  EXPECT_EQ(Mode(kFirewall), 0600);

  // An empty firewall text writes only the JSON file.
  rapidjson::Document noFirewall;
  noFirewall.Parse(R"({"host": {"vital": {"qen": {"bootstrap": {"autodeploy": {"waiter_notify": "{\"n\":1}", "firewall": ""}}}}}})");
  QenConfigStore::LoadStoreDescription(noFirewall);
  QenPlatform::RemoveFile(Path(kNotify));
  QenPlatform::RemoveFile(Path(kFirewall));
  EXPECT_EQ(ExecuteBootPlugins(), 0);
  EXPECT_EQ(ReadFile(kNotify), "{\"n\":1}");
  EXPECT_FALSE(Exists(kFirewall));
}

TEST_F(BootTest, BootApplyFailuresReturnOneWithTheirLine) {
  // A plugin that fails, and one that dies: recorded, 1.
  LoadStore(R"({"host": {"current": {"test": {"net": {"a": {"v": 1}}}}, "desired": {"test": {"net": {"a": {"v": 2}}}}}})");
  WriteFile("/tmp/apply-cue", "fail:alpha");
  EXPECT_EQ(ExecuteBootPlugins(), 1);
  EXPECT_TRUE(log_.Contains(0, "Failed to apply boot-time configuration errId=corvane.qen.settings.test.apply-failed"));
  BootApplyInfo info = GetBootApplyInfo();
  ASSERT_EQ(info.records.size(), 1u);
  EXPECT_EQ(info.records[0].errorInfo.Serialize(), ErrorInfo("corvane.qen.settings.test.apply-failed", {"alpha"}, "test.net.a").Serialize());
  WriteFile("/tmp/apply-cue", "die:alpha");
  EXPECT_EQ(ExecuteBootPlugins(), 1);
  EXPECT_TRUE(log_.Contains(0, "Failed to apply boot-time configuration errId=corvane.qen.settings.apply.plugin.unexpected.error"));

  // Failures before the remediation write no record.
  QenPlatform::RemoveFile(Path("/tmp/apply-cue"));
  auto failsBeforeApplying = [&](const std::string& line) {
    log_.Clear();
    EXPECT_EQ(ExecuteBootPlugins(), 1);
    EXPECT_EQ(log_.Texts(0), std::vector<std::string>{line});
    EXPECT_FALSE(QenConfigStore::getBootApplyRecord()->GetDocument()["isBootComplete"].GetBool());
  };
  LoadStore(R"({"host": {"current": {"test": {"net": {"a": {"v": 1}}}}, "desired": {"test": {"net": {"a": {"v": 2}}}},
               "vital": {"qen": {"bootstrap": {"autodeploy": {"waiter_notify": "{\"n\": ", "firewall": "<x/>"}}}}}})");
  failsBeforeApplying("Failed to apply boot-time configuration. Failed to parse JSON String");

  LoadStore(R"({"host": {"current": {"test": {"net": {"a": {"v": 1}}}}, "desired": {"test": {"net": {"a": {"v": 2}}}},
               "vital": {"qen": {"bootstrap": {"autodeploy": {"waiter_notify": "", "firewall": "<x/>"}}}}}})");
  WriteFile(kFirewall, "<old/>");
  ASSERT_TRUE(boost::filesystem::create_directories(Path(std::string(kFirewall) + ".new/x")));
  failsBeforeApplying("Failed to apply boot-time configuration. Failed to create autodeploy.xml");
  EXPECT_EQ(ReadFile(kFirewall), "<old/>");  // whole or not at all

  // A store that is not a database.
  for (const char* suffix : {"", "-wal", "-shm"})
    QenPlatform::RemoveFile(Path(std::string(QenConfigStore::kDatabasePath) + suffix));
  WriteFile(QenConfigStore::kDatabasePath, std::string(4096, 'x'));
  log_.Clear();
  EXPECT_EQ(ExecuteBootPlugins(), 1);
  EXPECT_EQ(log_.Texts(0).back(), "Failed to apply boot-time configuration. Failed to access ConfigStore.");
}

TEST_F(BootTest, RebootDocumentIsStagedWithTheAutoDeploymentFilesAndAppliedAtTheNextBoot) {
  WriteAutoDeployFiles();
  EXPECT_EQ(ApplyBootDocument(Document(R"({"v": 2})", R"({"v": 2})")), 0);
  EXPECT_EQ(Applied(), std::vector<std::string>{});
  EXPECT_FALSE(Exists(kNotify) || Exists(kFirewall));
  EXPECT_EQ(QenConfigStore::GetBootMode(), QenConfigStore::BOOTMODE_DESIRED_STAGED);
  rapidjson::Document expected(rapidjson::kObjectType);
  expected.AddMember("waiter_notify", "{\"waiter\":{\"url\":\"https://deploy.example/ready\"}}", expected.GetAllocator());
  expected.AddMember("firewall", rapidjson::Value(kFirewallXml, expected.GetAllocator()), expected.GetAllocator());
  EXPECT_EQ(AutoDeployObject(), QenPlatform::CompactJson(expected));

  // The next boot: the store's restore, then the boot-time apply.
  QenConfigStore::RestoreDesiredConfigAtBoot();
  EXPECT_EQ(GetBootApplyInfo().status, BOOT_APPLY_INCOMPLETE);
  EXPECT_EQ(ExecuteBootPlugins(), 0);
  EXPECT_EQ(ReadFile(kNotify), "{\"waiter\":{\"url\":\"https://deploy.example/ready\"}}");
  EXPECT_EQ(ReadFile(kFirewall), kFirewallXml);
  EXPECT_EQ(GetBootApplyInfo().status, BOOT_APPLY_OK);
}

TEST_F(BootTest, OtherImpactsAreAppliedAtOnce) {
  WriteAutoDeployFiles();
  EXPECT_EQ(ApplyBootDocument(Document(R"({"v": 3})", R"({"v": 1})", R"({"v": 3})")), 0);
  EXPECT_EQ(Applied(), (std::vector<std::string>{R"(alpha SET:a={"v":"SET"})", R"(gamma SET:c={"v":"SET"})"}));
  EXPECT_TRUE(log_.Contains(2, "Host boostrap with configuration successful."));
  EXPECT_TRUE(Exists(kNotify));
  EXPECT_EQ(QenConfigStore::GetBootMode(), QenConfigStore::BOOTMODE_NORMAL);

  WriteFile("/tmp/apply-cue", "fail:gamma");
  EXPECT_EQ(ApplyBootDocument(Document(R"({"v": 3})", R"({"v": 1})", R"({"v": 4})")), 1);
  EXPECT_TRUE(log_.Contains(0, "Failed to boostrap host with configuration."));
}

// Each step of the staging transaction that fails leaves the store as it was
// and both files in place.
TEST_F(BootTest, StagingIsAllOrNothing) {
  const std::string document = Document(R"({"v": 2})", R"({"v": 2})");
  // The first extraction copies the host's SSH files into the store; later
  // ones change nothing, so the dumps compare what staging writes.
  ExtractCurrentConfiguration();
  auto failsCleanly = [&](const std::string& line) {
    const std::string before = Dump();
    log_.Clear();
    EXPECT_EQ(ApplyBootDocument(document), 1);
    EXPECT_EQ(Dump(), before);
    EXPECT_EQ(log_.Texts(0).back(), line);
  };

  WriteFile(kNotify, "{}");
  failsCleanly("Failed to bootstrap host error=autodeploy.xml firewall config does not exists.");
  QenPlatform::RemoveFile(Path(kNotify));
  WriteFile(kFirewall, kFirewallXml);
  failsCleanly("Failed to bootstrap host error=waiterNotify.json file does not exists.");
  WriteFile(kNotify, "{\"unterminated\": ");
  failsCleanly("Failed to bootstrap host error=Failed to parse JSON String");

  // Every store write of the call, in turn, until the call has none left to fail.
  WriteAutoDeployFiles();
  int n = 1;
  for (;; ++n) {
    const std::string before = Dump();
    QenConfigStore::FailNthWrite(n);
    log_.Clear();
    const int rc = ApplyBootDocument(document);
    QenConfigStore::FailNthWrite(0);
    if (rc == 0) break;
    ASSERT_LT(n, 50) << "no end to the writes";
    EXPECT_EQ(Dump(), before) << "write " << n;
    EXPECT_EQ(log_.Texts(0).back(),
              "Failed to bootstrap host error=Configuration store \"/var/lib/corvane/configstore/configstore.db\": "
              "write failed: injected fault") << "write " << n;
    EXPECT_TRUE(Exists(kNotify) && Exists(kFirewall)) << "write " << n;
  }
  EXPECT_GE(n, 3) << "the desired document, the boot mode and the object are written";
  EXPECT_FALSE(Exists(kNotify));

  // The JSON file's removal fails: nothing committed, the files stay.
  LoadStore(kStore);
  ExtractCurrentConfiguration();
  WriteAutoDeployFiles();
  QenPlatform::FailNthRemove(1);
  failsCleanly("Failed to bootstrap host error=Failed to remove waiterNotify.json.");
  EXPECT_EQ(log_.Texts(0).front(), "Failed to remove {/etc/corvane/autodeploy/waiterNotify.json} rc=16");
  EXPECT_TRUE(Exists(kNotify) && Exists(kFirewall));
  EXPECT_EQ(AutoDeployObject(), "none");

  // The XML file's removal fails: logged, staged all the same.
  QenPlatform::FailNthRemove(2);
  log_.Clear();
  EXPECT_EQ(ApplyBootDocument(document), 0);
  EXPECT_EQ(log_.Texts(0), std::vector<std::string>{"Failed to remove {/etc/corvane/firewall/autodeploy.xml} rc=16"});
  EXPECT_FALSE(Exists(kNotify));
  EXPECT_EQ(ReadFile(kFirewall), kFirewallXml);
  EXPECT_EQ(QenConfigStore::GetBootMode(), QenConfigStore::BOOTMODE_DESIRED_STAGED);
}

TEST_F(BootTest, BadDocumentsFailBeforeAnythingChanges) {
  WriteAutoDeployFiles();
  const std::string before = Dump();
  auto fails = [&](const std::string& text, const std::string& line) {
    WriteFile("/tmp/bad.json", text);
    log_.Clear();
    EXPECT_EQ(ApplyBootDocument("/tmp/bad.json"), 1) << text;
    EXPECT_EQ(log_.Texts(0).front(), line) << text;
  };
  fails("{\"profile\": ", "Failed to bootstrap host error=Failed to parse JSON String");
  fails(R"({"profile": {"test": {"nope": {"x": {}}}}})", "Failed to generate schema for boot document");
  fails(R"({"profile": {"test": {"net": {"a": {"v": "two"}}}}})", "Failed to validate boot configuration document");
  EXPECT_EQ(log_.Texts(0).size(), 2u);
  EXPECT_EQ(log_.Texts(0).back().rfind("Validation result: {\"errors\":[{\"path\":\"/test/net/a/v\"", 0), 0u)
      << log_.Texts(0).back();
  EXPECT_EQ(ApplyBootDocument("/tmp/missing.json"), 1);
  EXPECT_EQ(Dump(), before);
  EXPECT_TRUE(Exists(kNotify) && Exists(kFirewall));
}

TEST_F(BootTest, BootTimeTasksCoverEveryKeyWithoutDrift) {
  rapidjson::Document doc;
  ParseDocument(R"({"profile": {"test": {"net": {"a": {"v": 1},
      "list": [{"name": "l0", "v": 1}, {"name": "l1"}, {"name": "l2", "v": 3}]}}}})", doc);
  std::vector<std::string> inputs;
  for (const auto& input : GenerateBootTimeTasks(doc))
    inputs.push_back(input.operation + " " + input.object->GetConfigStoreObjectId().toString() + " " +
                     input.object->GetSerializedData() + (input.drift ? " drift" : ""));
  EXPECT_EQ(inputs, (std::vector<std::string>{
                        R"(SET comp test grp net key a {"v":1})",
                        R"(ADD comp test grp net key list id l0 {"name":"l0","v":1})",
                        R"(ADD comp test grp net key list id l1 {"name":"l1"})",
                        R"(ADD comp test grp net key list id l2 {"name":"l2","v":3})"}));

  auto failure = [](const std::string& text) {
    rapidjson::Document d;
    ParseDocument(text, d);
    try {
      GenerateBootTimeTasks(d);
    } catch (const QenConfigStore::ConfigStoreException& e) {
      return std::to_string(e.GetErrorCode()) + " " + e.what();
    }
    return std::string("no failure");
  };
  EXPECT_EQ(failure(R"({"test": {"net": {"zz": {}}}})"), "2021 Schema object not found: comp test grp net key zz");
  EXPECT_TRUE(log_.Contains(0, "Schema not found for test:net:zz"));
  EXPECT_EQ(failure(R"({"test": {"net": {"list": [{"v": 1}]}}})").substr(0, 16), "1082 JSON error:");
}

TEST_F(BootTest, MergedBootDocumentIsThisHostsPartCompact) {
  const std::string uuid = GetBIOSUUID();
  WriteFile("/tmp/in.json", R"({"profile": {"test": {"net": {"a": {"v": 1}}}},
      "host-specific": {")" + uuid + R"(": {"test": {"sys": {"c": {"v": 7}}}}, "other-host": {"test": {"sys": {"c": {"v": 9}}}}}})");
  CreateMergedBootDocument("/tmp/in.json", "/tmp/out.json");
  EXPECT_EQ(ReadFile("/tmp/out.json"), R"({"profile":{"test":{"net":{"a":{"v":1}},"sys":{"c":{"v":7}}}}})");

  WriteFile("/tmp/in.json", R"({"profile": {"test": {"net": {"zz": {}}}}})");
  try {
    CreateMergedBootDocument("/tmp/in.json", "/tmp/out.json");
    FAIL() << "no exception";
  } catch (const SchemaNotFound& e) {
    EXPECT_EQ(e.GetErrorCode(), 2021);
    EXPECT_STREQ(e.what(), "Schema not found for some key(s).");
  }
}

}  // namespace

// The four plugin operations end to end through both runners: results as the
// plugin wrote them, the schema label in every message text, and every kind
// of failure folded into the result's ErrorInfo without an exception.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "../plugin/PluginHost.h"
#include "PluginSupport.h"

using QenConfigManager::ConfigStoreObjectIdList;
using QenConfigManager::ConfigStoreObjectList;
using QenConfigManager::DesiredConfigInputList;
using QenConfigManager::ErrorInfo;
using QenConfigManager::Plugin;
using QenConfigManager::PluginMonitor;
using QenConfigStore::ConfigStoreObjectId;

namespace {

constexpr const char* kManifest = R"({
  "version": 3, "type": "%s", "accepts": ["network:dns:resolver"],
  "apply": {"apply_group": "network", "boot": false,
            "REMEDIATE": {"provides": "%s-service", "depends": []}},
  "extract": {"supports": true}, "impact": {"supports": true}, "validation": {"supports": true}
})";

constexpr const char* kApplySection =
    R"({"apply_group": "network", "boot": false, "REMEDIATE": {"provides": "x", "depends": []}})";

struct Kind {
  const char* type;
  const char* id;      // directory below apply_modules
  const char* module;  // "" for python
};
const Kind kPython{"python", "fault", ""};
const Kind kCpp{"c++", "cfault", "libcfault.so"};

class OperationsTest : public QenTest::PluginHostTest, public ::testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    PluginHostTest::SetUp();
    // A "c++" manifest at apply_modules/cfault/ names libcfault.so.
    WriteFile("/usr/lib/corvane/configmanager/plugins/libcfault.so",
              ReadFile("/usr/lib/corvane/configmanager/plugins/libfault.so"), 0755);
    plugin_ = Load(GetParam().type, GetParam().id);
  }

  std::shared_ptr<Plugin> Load(const std::string& type, const std::string& dir) {
    char manifest[1024];
    std::snprintf(manifest, sizeof manifest, kManifest, type.c_str(), dir.c_str());
    const std::string path = std::string(kModules) + dir + "/manifest.json";
    WriteFile(path, manifest);
    return std::make_shared<Plugin>(path.c_str());
  }

  DesiredConfigInputList Inputs() const {
    return {Input("network", "dns", "resolver", "", R"({"servers":["192.0.2.1"]})", "SET")};
  }
  ConfigStoreObjectList Objects() const {
    return {QenConfigStore::CreateObject(ConfigStoreObjectId("resolver", "dns", "network"), R"({"servers":[]})")};
  }

  // The ErrorInfo a failed run must produce, and the logs that go with it.
  void ExpectFolded(const ErrorInfo& error, const std::string& msgId) {
    EXPECT_EQ(error.msgId, msgId);
    EXPECT_EQ(error.args, std::list<std::string>{GetParam().id});
    EXPECT_EQ(error.message, "");
    EXPECT_FALSE(log_.Texts(0).empty());
    ExpectCleanAfterCall();
  }

  std::shared_ptr<Plugin> plugin_;
};

TEST_P(OperationsTest, ApplySucceedsWithTheSchemaLabelAsMessageText) {
  ErrorInfo error = plugin_->Apply(Inputs(), "ok", PluginMonitor::Dummy());
  EXPECT_EQ(error, ErrorInfo("", {}, "DNS resolver"));
  ExpectCleanAfterCall();
}

TEST_P(OperationsTest, PluginsOwnErrorIdentifierIsKeptAndLabelled) {
  ErrorInfo error = plugin_->Apply(Inputs(), "error:corvane.test.failed", PluginMonitor::Dummy());
  EXPECT_EQ(error, ErrorInfo("corvane.test.failed", {GetParam().id, "detail"}, "DNS resolver"));
  ExpectCleanAfterCall();
}

TEST_P(OperationsTest, RunnerFailuresBecomeUnexpectedErrors) {
  // Exit status, signal, an exception, no result, a truncated result, megabytes of padding.
  for (const char* cue : {"exit:2", "signal:9", "raise", "none", "garbage"}) {
    SCOPED_TRACE(cue);
    ExpectFolded(plugin_->Apply(Inputs(), cue, PluginMonitor::Dummy()),
                 "corvane.qen.settings.apply.plugin.unexpected.error");
  }
  EXPECT_TRUE(log_.Contains(0, "Config Manager plugin failed: " + std::string(GetParam().id) + ", pid=" +
                                   std::to_string(QenTest::PluginHostTest::PidIn(log_.Texts(0)[0])) +
                                   ", status=No such file or directory"));
}

TEST_P(OperationsTest, AbortGivesEachOperationsAbortedIdentifier) {
  ExpectFolded(plugin_->Apply(Inputs(), "sleep", std::make_shared<QenTest::CueMonitor>(1)),
               "corvane.qen.settings.apply.plugin.aborted");
  ExpectFolded(plugin_->Impact(Inputs(), "sleep", std::make_shared<QenTest::CueMonitor>(1)).errorInfo,
               "corvane.qen.settings.impact.plugin.aborted");
  ExpectFolded(plugin_->Extract({ConfigStoreObjectId("resolver", "dns", "network")}, "sleep",
                                std::make_shared<QenTest::CueMonitor>(1)).errorInfo,
               "corvane.qen.settings.extract.plugin.aborted");
  ExpectFolded(plugin_->Validate(Objects(), {}, "sleep", std::make_shared<QenTest::CueMonitor>(1)).errorInfo,
               "corvane.qen.settings.validation.plugin.aborted");
}

TEST_P(OperationsTest, ImpactReturnsThePluginsEntries) {
  DesiredConfigInputList inputs = Inputs();
  inputs.push_back(Input("storage", "nfs", "mount", "m1", R"({"name":"m1"})", "ADD"));
  auto result = plugin_->Impact(inputs, "ok", PluginMonitor::Dummy());
  EXPECT_EQ(result.errorInfo, ErrorInfo("", {}, "DNS resolver"));
  ASSERT_EQ(result.impacts.size(), 2u);
  // The Python fault plugin answers maintenance mode, the C++ one reboot; neither quick-boots.
  const int expected = std::string(GetParam().type) == "python" ? 1 : 2;
  EXPECT_EQ(result.impacts[1].impact, expected);
  EXPECT_EQ(result.impacts[1].GetConfigStoreObjectId(), ConfigStoreObjectId("mount", "nfs", "storage", "m1"));
  EXPECT_FALSE(result.impacts[1].quickBootSupported);
  EXPECT_TRUE(log_.Contains(2, ">> Module result id="));

  auto failed = plugin_->Impact(inputs, "exit:1", PluginMonitor::Dummy());
  EXPECT_TRUE(failed.impacts.empty());
  ExpectFolded(failed.errorInfo, "corvane.qen.settings.impact.plugin.unexpected.error");
  // Logged before the identifier is filled in: the run named none.
  auto texts = log_.Texts(2);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), ">> Module result id="), 2);
}

TEST_P(OperationsTest, ExtractReturnsObjectsAndLogsTheModuleOnFailure) {
  ConfigStoreObjectIdList ids = {ConfigStoreObjectId("resolver", "dns", "network"),
                                 ConfigStoreObjectId("ntp", "time", "system")};
  auto result = plugin_->Extract(ids, "ok", PluginMonitor::Dummy());
  EXPECT_EQ(result.errorInfo, ErrorInfo("", {}, "DNS resolver"));
  ASSERT_EQ(result.objects.size(), 2u);
  EXPECT_EQ(result.objects[1]->GetConfigStoreObjectId(), ids[1]);
  EXPECT_EQ(result.objects[1]->GetSerializedData(), R"({"index":1})");

  auto failed = plugin_->Extract(ids, "garbage", PluginMonitor::Dummy());
  EXPECT_TRUE(log_.Contains(0, "Extract plugin " + std::string(GetParam().module) + " failed"));
  ExpectFolded(failed.errorInfo, "corvane.qen.settings.extract.plugin.unexpected.error");
}

TEST_P(OperationsTest, OversizedAndNoisyResultsFailCleanly) {
  for (const char* cue : {"huge", "noise"}) {
    SCOPED_TRACE(cue);
    if (std::string(cue) == "noise" && std::string(GetParam().type) != "python") continue;
    auto result = plugin_->Extract({ConfigStoreObjectId("resolver", "dns", "network")}, cue,
                                   PluginMonitor::Dummy());
    // Megabytes of padding are still a well-formed result without objects.
    if (std::string(cue) == "huge") {
      EXPECT_EQ(result.errorInfo, ErrorInfo("", {}, "DNS resolver"));
      EXPECT_TRUE(result.objects.empty());
      ExpectCleanAfterCall();
    } else {
      ExpectFolded(result.errorInfo, "corvane.qen.settings.extract.plugin.unexpected.error");
    }
  }
}

// A result nested 100,000 levels deep is refused by the depth-limited parse,
// not a stack overflow of the caller.
TEST_P(OperationsTest, ResultNestedTooDeepFailsTheCall) {
  if (std::string(GetParam().type) != "python") return;  // the cue is the Python plugin's
  ErrorInfo result = plugin_->Apply(Inputs(), "deep", PluginMonitor::Dummy());
  ExpectFolded(result, "corvane.qen.settings.apply.plugin.unexpected.error");
  EXPECT_TRUE(log_.Contains(0, "plugin result file \"/var/corvane/lifecycle/cm-plugin-output.json\": not valid "
                               "JSON: nested deeper than 512 levels at offset 559"));
  ExpectCleanAfterCall();
}

TEST_P(OperationsTest, ValidateLabelsEveryObjectsErrors) {
  if (std::string(GetParam().type) != "python") {
    // libfault.so has no validate entry point: the runner answers ENOSYS.
    auto result = plugin_->Validate(Objects(), Objects(), "ok", PluginMonitor::Dummy());
    EXPECT_TRUE(log_.Contains(0, "Validation plugin libcfault.so failed"));
    ExpectFolded(result.errorInfo, "corvane.qen.settings.validation.plugin.unexpected.error");
    return;
  }
  ConfigStoreObjectList data = Objects();
  data.push_back(QenConfigStore::CreateObject(ConfigStoreObjectId("mount", "nfs", "storage", "m1"), "{}"));
  auto result = plugin_->Validate(data, Objects(), "echo", PluginMonitor::Dummy());
  EXPECT_EQ(result.errorInfo, ErrorInfo("", {}, "DNS resolver"));
  ASSERT_EQ(result.results.size(), 2u);
  EXPECT_EQ(result.results[1].name, "/storage/nfs/mount");
  ASSERT_EQ(result.results[1].errors.size(), 1u);
  EXPECT_EQ(result.results[1].errors[0], ErrorInfo("corvane.test.invalid", {"m1"}, "DNS resolver"));
  // The references reached the runner.
  EXPECT_STREQ(ReadEcho()["references"][0][0].GetString(), "resolver");
}

// WriteHostFile creates missing directories, replaces a file whole with
// exactly the mode asked for (whatever the umask) and leaves no temporary
// file; RemoveHostFile takes a missing file as removed.
TEST_P(OperationsTest, PythonHostFileHelpersWriteAndRemove) {
  if (std::string(GetParam().type) != "python") return;  // the cue is the Python plugin's
  WriteFile("/etc/qen-files/old", "stale");
  ErrorInfo error = plugin_->Apply(Inputs(), "files:/etc/qen-files", PluginMonitor::Dummy());
  EXPECT_EQ(error, ErrorInfo("", {}, "DNS resolver"));
  EXPECT_EQ(ReadFile("/etc/qen-files/new/deep/first"), "two");
  EXPECT_EQ(ReadFile("/etc/qen-files/new/second"), "three");
  struct stat st{};
  ASSERT_EQ(stat(Path("/etc/qen-files/new/deep/first").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  ASSERT_EQ(stat(Path("/etc/qen-files/new/second").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_NE(stat(Path("/etc/qen-files/old").c_str(), &st), 0);
  EXPECT_NE(stat(Path("/etc/qen-files/new/deep/first.new").c_str(), &st), 0);
  ExpectCleanAfterCall();
}

INSTANTIATE_TEST_SUITE_P(Runners, OperationsTest, ::testing::Values(kPython, kCpp),
                         [](const ::testing::TestParamInfo<Kind>& info) {
                           return std::string(info.param.type) == "python" ? "Python" : "Cpp";
                         });

class OperationsSetupTest : public QenTest::PluginHostTest {};

TEST_F(OperationsSetupTest, CppTypeWithoutModuleIsAnUnexpectedErrorNotAnException) {
  WriteFile(std::string(kModules) + "bare/manifest.json",
            R"({"version": 3, "type": "cpp", "accepts": ["network:dns:resolver"], "apply": )" + std::string(kApplySection) + "}");
  Plugin plugin((std::string(kModules) + "bare/manifest.json").c_str());
  ErrorInfo error = plugin.Apply({}, "", PluginMonitor::Dummy());
  EXPECT_EQ(error, ErrorInfo("corvane.qen.settings.apply.plugin.unexpected.error", {"bare"}));
  EXPECT_TRUE(log_.Contains(0, "Cpp plugin must specify the shared object name."));
}

TEST_F(OperationsSetupTest, MissingRequestDirectoryIsCreatedOwnerOnly) {
  ASSERT_EQ(std::remove(Path("/var/corvane/lifecycle/.keep").c_str()), 0);
  ASSERT_EQ(::rmdir(Path("/var/corvane/lifecycle").c_str()), 0);
  WriteFile(std::string(kModules) + "fault/manifest.json",
            R"({"version": 3, "type": "python", "accepts": ["network:dns:resolver"], "apply": )" + std::string(kApplySection) + "}");
  Plugin plugin((std::string(kModules) + "fault/manifest.json").c_str());
  EXPECT_EQ(plugin.Apply({}, "ok", PluginMonitor::Dummy()), ErrorInfo("", {}, "DNS resolver"));
  struct stat st;
  ASSERT_EQ(::stat(Path("/var/corvane/lifecycle").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

}  // namespace

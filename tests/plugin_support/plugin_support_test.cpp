#include <sys/stat.h>

#include "ConfigStoreException.h"
#include "HostRootTest.h"
#include "PluginSupport.h"

using QenConfigManager::ErrorInfo;
using QenConfigStore::ConfigStoreException;
using QenConfigStore::ConfigStoreObjectId;
using namespace QenConfigManager;

namespace {

const std::string kResult = "/var/corvane/lifecycle/cm-plugin-output.json";
const std::string kFileName = "plugin result file \"" + kResult + "\"";

class PluginSupportTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    WriteFile("/var/corvane/lifecycle/.keep", "");
  }
  std::string ResultPath() const { return Path(kResult); }
  int Mode() const {
    struct stat st;
    return ::stat(ResultPath().c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 0777) : -1;
  }
};

// Runs `load` and returns the code and text of the ConfigStoreException it throws.
template <typename F>
std::pair<int, std::string> Failure(F load) {
  try {
    load();
  } catch (const ConfigStoreException& e) {
    return {e.GetErrorCode(), e.what()};
  }
  return {0, "did not throw"};
}

TEST(ErrorInfoJson, SerializeAndDeserializeRoundTrip) {
  ErrorInfo info("corvane.qen.settings.apply.plugin.failed", {"ntp", "a \"quoted\" arg"}, "NTP");
  const std::string text = info.Serialize();
  EXPECT_EQ(text,
            R"({"msgId":"corvane.qen.settings.apply.plugin.failed","args":["ntp","a \"quoted\" arg"],"message":"NTP"})");
  ErrorInfo back;
  back.Deserialize(text);
  EXPECT_EQ(back, info);

  rapidjson::Document doc;
  ErrorInfo().convertToJson(doc, doc.GetAllocator());
  EXPECT_TRUE(ErrorInfo::FromJson(doc).IsEmpty());
  // "args" and "message" may be left out.
  back.Deserialize(R"({"msgId": "x"})");
  EXPECT_EQ(back, ErrorInfo("x", {}, ""));
}

TEST(ErrorInfoJson, BadTextIsAClearError) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{", "ErrorInfo: not valid JSON: Missing a name for object member. at offset 1"},
      {"[]", "ErrorInfo: an error is not a JSON object"},
      {R"({"args": []})", "ErrorInfo: missing member \"msgId\""},
      {R"({"msgId": 1})", "ErrorInfo: member \"msgId\" is not a string"},
      {R"({"msgId": "a", "args": "b"})", "ErrorInfo: member \"args\" is not an array"},
      {R"({"msgId": "a", "args": [1]})", "ErrorInfo: member \"args\" holds a non-string"},
  };
  for (const auto& c : cases) {
    ErrorInfo info("kept", {}, "");
    EXPECT_EQ(Failure([&] { info.Deserialize(c.first); }), std::make_pair(2003, c.second)) << c.first;
    EXPECT_EQ(info.msgId, "kept");
  }
}

TEST_F(PluginSupportTest, ApplyResultRoundTripIsPrivate) {
  ErrorInfo info("corvane.qen.settings.apply.plugin.unexpected.error", {"resolver"}, "");
  SaveErrorResult(info, ResultPath());
  EXPECT_EQ(Mode(), 0600);
  EXPECT_EQ(ReadFile(kResult), "{\"error\":" + info.Serialize() + "}");
  EXPECT_EQ(ErrorInfo::Load(ResultPath()), info);
}

TEST_F(PluginSupportTest, ImpactResultRoundTrip) {
  ImpactPluginResult result;
  ImpactPluginInfo reboot;
  reboot.impact = 2;
  reboot.component = "system";
  reboot.group = "boot";
  reboot.key = "kernel";
  ImpactPluginInfo maintenance;
  maintenance.impact = 1;
  maintenance.component = "storage";
  maintenance.group = "nfs";
  maintenance.key = "mount";
  maintenance.instanceId = "backups";
  maintenance.quickBootSupported = true;
  result.impacts = {reboot, maintenance};
  result.Save(ResultPath());
  EXPECT_EQ(Mode(), 0600);

  ImpactPluginResult back = ImpactPluginResult::Load(ResultPath());
  EXPECT_EQ(back.impacts, result.impacts);
  EXPECT_TRUE(back.errorInfo.IsEmpty());
  EXPECT_EQ(back.impacts[1].GetConfigStoreObjectId(),
            ConfigStoreObjectId("mount", "nfs", "storage", "backups"));
}

TEST_F(PluginSupportTest, ExtractResultRoundTripKeepsValues) {
  ExtractPluginResult result;
  rapidjson::Document value;
  value.Parse(R"({"servers": ["10.0.0.53"], "search": []})");
  result.objects.push_back(std::make_shared<QenConfigStore::ConfigStoreObject>(
      ConfigStoreObjectId("resolver", "dns", "network"), value));
  value.Parse(R"({"name": "root", "password": "s3cret"})");
  result.objects.push_back(std::make_shared<QenConfigStore::ConfigStoreObject>(
      ConfigStoreObjectId("user", "users", "system", "root"), value));
  result.errorInfo = ErrorInfo("corvane.qen.settings.extract.partial", {"2"}, "");
  result.Save(ResultPath());

  ExtractPluginResult back = ExtractPluginResult::Load(ResultPath());
  ASSERT_EQ(back.objects.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(back.objects[i]->GetConfigStoreObjectId(), result.objects[i]->GetConfigStoreObjectId());
    EXPECT_EQ(back.objects[i]->GetSerializedData(), result.objects[i]->GetSerializedData());
  }
  EXPECT_EQ(back.errorInfo, result.errorInfo);
}

TEST_F(PluginSupportTest, ValidationResultRoundTrip) {
  ValidationPluginResult result;
  result.results.push_back({"/network/dns/resolver/servers/0",
                            {ErrorInfo("corvane.dns.bad-address", {"999.1.1.1"}, ""),
                             ErrorInfo("corvane.dns.unreachable", {}, "")}});
  result.results.push_back({"/system/time/ntp", {}});
  result.Save(ResultPath());

  ValidationPluginResult back = ValidationPluginResult::Load(ResultPath());
  ASSERT_EQ(back.results.size(), 2u);
  EXPECT_EQ(back.results[0].name, "/network/dns/resolver/servers/0");
  EXPECT_EQ(back.results[0].errors, result.results[0].errors);
  EXPECT_TRUE(back.results[1].errors.empty());
  EXPECT_TRUE(back.errorInfo.IsEmpty());
}

TEST_F(PluginSupportTest, AbsentListsReadAsEmpty) {
  WriteFile(kResult, R"({"error": {"msgId": "corvane.failed", "args": ["p"]}})");
  ImpactPluginResult impact = ImpactPluginResult::Load(ResultPath());
  EXPECT_TRUE(impact.impacts.empty());
  EXPECT_EQ(impact.errorInfo, ErrorInfo("corvane.failed", {"p"}, ""));
  EXPECT_TRUE(ExtractPluginResult::Load(ResultPath()).objects.empty());
  EXPECT_TRUE(ValidationPluginResult::Load(ResultPath()).results.empty());
}

TEST_F(PluginSupportTest, UnreadableResultFilesNameTheFile) {
  const std::string path = ResultPath();
  EXPECT_EQ(Failure([&] { ErrorInfo::Load(path); }),
            std::make_pair(2000, "cannot read " + kFileName + ": No such file or directory"));

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", kFileName + ": not valid JSON: The document is empty. at offset 0"},
      {"[1]", kFileName + ": not a JSON object"},
      {R"({"impacts": []})", kFileName + ": missing member \"error\""},
      {R"({"error": {"msgId": ""}, "impacts": )" + std::string(100000, '[') + std::string(100000, ']') + "}",
       kFileName + ": not valid JSON: nested deeper than 512 levels at offset 547"},
      {std::string(R"({"error": {"msgId": ""}})") + '\0' + "{}", kFileName + ": not valid JSON: The document root must not be followed "
                                               "by other values. at offset 24"},
      {R"({"error": {"msgId": "", "args": [2]}})",
       kFileName + ", member \"error\": member \"args\" holds a non-string"},
      {R"({"error": {"msgId": ""}, "impacts": {}})", kFileName + ": member \"impacts\" is not an array"},
      {R"({"error": {"msgId": ""}, "impacts": [{"impact": 0, "component": "c", "group": "g", "key": "k"},)"
       R"( {"impact": 3}]})",
       kFileName + ", impacts[1]: member \"impact\" must be 0, 1 or 2"},
      {R"({"error": {"msgId": ""}, "impacts": [{"impact": 1, "group": "g"}]})",
       kFileName + ", impacts[0]: missing member \"component\""},
  };
  for (const auto& c : cases) {
    WriteFile(kResult, c.first);
    EXPECT_EQ(Failure([&] { ImpactPluginResult::Load(path); }), std::make_pair(2003, c.second))
        << c.first;
  }

  WriteFile(kResult, R"({"error": {"msgId": ""}, "objects": [{"component": "c", "group": "g", "key": "k"}]})");
  EXPECT_EQ(Failure([&] { ExtractPluginResult::Load(path); }),
            std::make_pair(2003, kFileName + ", objects[0]: missing member \"value\""));
  WriteFile(kResult, R"({"error": {"msgId": ""}, "results": [{"name": "/a", "errors": [{"args": []}]}]})");
  EXPECT_EQ(Failure([&] { ValidationPluginResult::Load(path); }),
            std::make_pair(2003, kFileName + ", results[0]: missing member \"msgId\""));
}

}  // namespace

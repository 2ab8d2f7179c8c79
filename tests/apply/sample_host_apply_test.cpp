// The whole cycle on the sample host: its schemas, its plugins and its
// store, applied through the real runners; the host's files change.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "configmanager/apply.h"
#include "configmanager/extract.h"

using namespace QenConfigManager;

namespace {

class SampleHostApplyTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    InstallSampleHost();
    std::ifstream in(QEN_SOURCE_DIR "/host/documents/store-sample.json");
    std::stringstream text;
    text << in.rdbuf();
    rapidjson::Document store;
    ParseDocument(text.str(), store);
    QenConfigStore::LoadStoreDescription(store);
  }

  // The host's whole current configuration as a desired document, with the
  // given values replaced ({"component/group/key": value}).
  rapidjson::Document Desired(const std::vector<std::pair<std::string, std::string>>& changes) {
    auto current = ExtractCurrentConfiguration();
    rapidjson::Document doc(rapidjson::kObjectType);
    rapidjson::Value profile;
    profile.CopyFrom(current->GetDocument(), doc.GetAllocator());
    for (const auto& change : changes) {
      rapidjson::Document value;
      ParseDocument(change.second, value);
      rapidjson::Value copy(value, doc.GetAllocator());
      rapidjson::Pointer("/" + change.first).Set(profile, copy, doc.GetAllocator());
    }
    doc.AddMember("profile", profile, doc.GetAllocator());
    return doc;
  }
};

TEST_F(SampleHostApplyTest, AppliedDocumentChangesTheFilesAndComplies) {
  rapidjson::Document doc = Desired({
      {"network/dns/resolver", R"({"servers": ["10.0.0.53", "10.0.0.54"], "search": ["lab.example"]})"},
      {"network/interfaces/nic/2", R"({"name": "nic2", "mtu": 1500, "enabled": true})"},
      {"system/time/ntp", R"({"enabled": false, "servers": ["10.0.0.123"]})"},
  });
  auto check = CheckApply(doc, "", TaskHandle::Dummy());
  ASSERT_TRUE(check);
  EXPECT_EQ(check->GetImpact(), NO_IMPACT);
  ApplyResult result = Apply(check, TaskHandle::Dummy());
  EXPECT_TRUE(result.errorInfo.msgId.empty()) << result.errorInfo.msgId;
  std::vector<std::string> keys;
  for (const auto& task : result.tasks) keys.push_back(task.key + (task.state == APPLY_TASK_DONE ? " done" : " not done"));
  EXPECT_EQ(keys, (std::vector<std::string>{"ADD:network:interfaces:nic done", "REMEDIATE:resolver done",
                                            "REMEDIATE:ntp done"}));
  EXPECT_EQ(ReadFile("/etc/resolv.conf"),
            "# Written by the configuration manager; edits are replaced.\n"
            "nameserver 10.0.0.53\nnameserver 10.0.0.54\nsearch lab.example\n");
  EXPECT_EQ(ReadFile("/etc/network/interfaces.d/nic2"),
            "# Written by the configuration manager; edits are replaced.\nauto nic2\niface nic2 inet manual\n    mtu 1500\n");
  EXPECT_NE(ReadFile("/etc/ntp.conf").find("server 10.0.0.123 iburst\n"), std::string::npos);

  ComplianceResult compliance;
  CheckCompliance(doc, false, compliance, TaskHandle::Dummy());
  EXPECT_TRUE(compliance.compliant) << JsonToString(compliance.details);
}

TEST_F(SampleHostApplyTest, RebootImpactIsStagedForTheBootPlugin) {
  rapidjson::Document doc = Desired({{"system/boot/kernel", R"({"iommu": true, "cmdline": "", "consoleLogLevel": 4})"}});
  auto check = CheckApply(doc, "", TaskHandle::Dummy());
  ASSERT_TRUE(check);
  EXPECT_EQ(check->GetImpact(), REBOOT_REQUIRED);
  EXPECT_EQ(check->GetQuickBootStatus(), QUICKBOOT_SUPPORTED);
  ApplyResult result = Apply(check, TaskHandle::Dummy());
  EXPECT_EQ(result.status, APPLY_STAGED_FOR_REBOOT);
  EXPECT_FALSE(Exists("/etc/kernel/cmdline"));
  EXPECT_EQ(QenConfigStore::GetBootMode(), QenConfigStore::BOOTMODE_DESIRED_STAGED);
}

}  // namespace

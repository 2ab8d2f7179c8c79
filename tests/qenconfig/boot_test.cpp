// qenconfig boot against the sample host: a document staged with the
// auto-deployment files, the simulated reboot that applies it, the boot
// record, early bootstrap and the merged boot document.
#include <gtest/gtest.h>

#include <string>

#include <boost/filesystem.hpp>

#include "HostFiles.h"
#include "QenConfigTest.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

const char* kNotify = "/etc/corvane/autodeploy/waiterNotify.json";
const char* kFirewall = "/etc/corvane/firewall/autodeploy.xml";

std::string SampleFile(const std::string& relative) {
  std::string text;
  EXPECT_TRUE(QenPlatform::ReadWholeFile(QEN_SOURCE_DIR "/host/" + relative, text)) << relative;
  return text;
}

class BootCommandTest : public QenConfigTest {
 protected:
  void SetUp() override {
    QenConfigTest::SetUp();
    LoadSampleStore();
  }
};

TEST_F(BootCommandTest, StagedDocumentIsAppliedByTheNextBoot) {
  Outcome staged = Run({"boot", "document", std::string(kDocs) + "boot-reboot.json"});
  EXPECT_EQ(staged.exit, 0) << staged.err;
  EXPECT_FALSE(Exists(kNotify));
  EXPECT_FALSE(Exists(kFirewall));
  EXPECT_FALSE(Exists("/etc/kernel/cmdline"));
  EXPECT_EQ(Run({"boot", "record"}).out, "boot mode: 1\nstatus: BOOT_APPLY_OK (0)\n");

  ASSERT_EQ(Run({"store", "boot"}).exit, 0);
  Outcome incomplete = Run({"boot", "record", "--json"});
  EXPECT_EQ(incomplete.out,
            "{\n   \"bootMode\": 0,\n   \"status\": 3,\n   \"statusName\": \"BOOT_APPLY_INCOMPLETE\",\n"
            "   \"records\": []\n}\n");

  Outcome applied = Run({"-v", "0", "boot", "apply"});
  EXPECT_EQ(applied.exit, 0) << applied.err;
  // The time service's plugin cannot run at boot: said, not fatal.
  EXPECT_EQ(applied.err, "<0> Plugin=ntp does not support boot-time remediation for csoid=comp system grp time key ntp\n");
  EXPECT_EQ(ReadFile(kFirewall), SampleFile("root/etc/corvane/firewall/autodeploy.xml"));
  EXPECT_EQ(ReadFile(kNotify),
            "{\"waiter\":{\"url\":\"https://deploy.lab.example/api/v1/hosts/ready\",\"retries\":5,\"intervalSeconds\":30}}");
  EXPECT_EQ(ReadFile("/etc/kernel/cmdline"), "iommu=on loglevel=4 console=ttyS0,115200\n");
  EXPECT_EQ(Run({"boot", "record"}).out, "boot mode: 0\nstatus: BOOT_APPLY_OK (0)\n");
}

TEST_F(BootCommandTest, RecordShowsTheFailedApplyAndTheKeysNotRestored) {
  // A boot whose apply failed and whose store could not restore one key.
  rapidjson::Document store;
  store.Parse(R"({"bootApplyState": {"isBootComplete": true, "bootApplyRecord": ""},
                  "restoreFailures": [{"component": "system", "group": "time", "key": "ntp"}]})");
  store["bootApplyState"]["bootApplyRecord"].SetString(
      R"({"errorInfo":"{\"msgId\":\"corvane.qen.settings.test.failed\",\"args\":[\"p\",\"q\"],\"message\":\"it broke\"}",)"
      R"("time":"16-11-2026 18-06-40"})",
      store.GetAllocator());
  ASSERT_EQ(Run({"store", "load", UserFile("store.json", QenPlatform::CompactJson(store))}).exit, 0);
  Outcome text = Run({"boot", "record"});
  EXPECT_EQ(text.exit, 0) << text.err;
  const std::string head = "boot mode: 0\nstatus: BOOT_APPLY_FAILED (1)\n"
                           "16-11-2026 18-06-40  corvane.qen.settings.test.failed  p, q  (it broke)\n";
  EXPECT_EQ(text.out.substr(0, head.size()), head);
  const std::string restore = text.out.substr(head.size());
  EXPECT_EQ(restore.size(), std::string("dd-mm-yyyy hh-mm-ss  corvane.qen.settings.boot-restore.failed  system, time, ntp\n").size())
      << restore;
  EXPECT_NE(restore.find("  corvane.qen.settings.boot-restore.failed  system, time, ntp\n"), std::string::npos) << restore;
}

TEST_F(BootCommandTest, EarlyBootstrapAppliesAndRefusesAReboot) {
  Outcome early = Run({"boot", "early", std::string(kDocs) + "bootstrap-early.json"});
  EXPECT_EQ(early.exit, 0) << early.err;
  EXPECT_EQ(ReadFile("/etc/corvane/network/vss/vss0.conf"),
            "# Written by the configuration manager; edits are replaced.\nuplinks=nic0\nmtu=1500\n");

  Outcome reboot = Run({"boot", "early", UserFile("ipv6.json", R"({"profile": {"qen": {"network": {"management":
      {"address": "10.0.0.21/24", "gateway": "10.0.0.1", "vlan": 0, "ipv6": true}}}}})")});
  EXPECT_EQ(reboot.exit, 1);
  EXPECT_EQ(reboot.err, "error: Bootstrap network document cannot require RebootRequired impact.\n");
}

TEST_F(BootCommandTest, FailuresExitOneWithTheirLines) {
  Outcome garbage = Run({"boot", "document", UserFile("bad.json", "{\"profile\": ")});
  EXPECT_EQ(garbage.exit, 1);
  EXPECT_EQ(garbage.err, "error: Failed to bootstrap host error=Failed to parse JSON String\n");
  EXPECT_TRUE(Exists(kNotify));
  // The document's copy below the host root is gone.
  for (boost::filesystem::directory_iterator it(Path("/var/corvane/lifecycle")), end; it != end; ++it)
    EXPECT_EQ(it->path().filename().string().rfind("qenconfig-", 0), std::string::npos) << it->path();

  QenPlatform::RemoveFile(Path(kFirewall));
  Outcome noFirewall = Run({"boot", "document", std::string(kDocs) + "boot-reboot.json"});
  EXPECT_EQ(noFirewall.exit, 1);
  EXPECT_EQ(noFirewall.err, "error: Failed to bootstrap host error=autodeploy.xml firewall config does not exists.\n");
  EXPECT_EQ(Run({"boot", "record"}).out, "boot mode: 0\nstatus: BOOT_APPLY_OK (0)\n");
}

TEST_F(BootCommandTest, MergeWritesThisHostsDocument) {
  const std::string out = Root() + "/merged.json";
  Outcome merged = Run({"boot", "merge", std::string(kDocs) + "desired-good.json", out});
  EXPECT_EQ(merged.exit, 0) << merged.err;
  EXPECT_EQ(ReadFile("/merged.json"),
            R"({"profile":{"network":{"dns":{"resolver":{"servers":["10.0.0.53","10.0.0.54"],"search":["lab.example"]}},)"
            R"("interfaces":{"nic":[{"name":"nic0","mtu":9000,"enabled":true}]}},"system":{"time":{"ntp":{"enabled":true,)"
            R"("servers":["10.0.0.123"]}}}}})");
  EXPECT_EQ(Mode("/merged.json"), 0600);

  Outcome unknown = Run({"boot", "merge", UserFile("unknown.json", R"({"profile": {"x": {"y": {"z": {}}}}})"), out});
  EXPECT_EQ(unknown.exit, 1);
  EXPECT_EQ(unknown.err, "error 2021: Schema not found for some key(s).\n");
}

}  // namespace

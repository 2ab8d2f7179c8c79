// The sample host's plugins, run through their manifests and the real
// runners: each really reads and writes its files below the host root.
#include <gtest/gtest.h>

#include "../plugin/PluginHost.h"
#include "PluginSupport.h"

using QenConfigManager::ConfigStoreObjectList;
using QenConfigManager::ErrorInfo;
using QenConfigManager::Plugin;
using QenConfigManager::PluginMonitor;
using QenConfigStore::ConfigStoreObjectId;

namespace {

const ConfigStoreObjectId kResolver("resolver", "dns", "network");
const ConfigStoreObjectId kNtp("ntp", "time", "system");
const ConfigStoreObjectId kMount("mount", "nfs", "storage");
const ConfigStoreObjectId kKernel("kernel", "boot", "system");

class SamplePluginsTest : public QenTest::PluginHostTest {
 protected:
  void SetUp() override {
    PluginHostTest::SetUp();
    ASSERT_TRUE(QenConfigStore::GetDBStore(0, true));  // plugins record what they applied
  }

  Plugin Sample(const std::string& dir) { return Plugin((std::string(kModules) + dir + "/manifest.json").c_str()); }

  static std::shared_ptr<QenConfigStore::ConfigStoreObject> Object(const ConfigStoreObjectId& id,
                                                                   const std::string& text) {
    return QenConfigStore::CreateObject(id, text);
  }

  std::string Current(const ConfigStoreObjectId& id) {
    auto object = QenConfigStore::ConfigStore::GetStore()->GetObject(id);
    return object ? object->GetSerializedData() : "<none>";
  }

  // "name: msgId(args...)" per validation error, in result order.
  static std::vector<std::string> Errors(const QenConfigManager::ValidationPluginResult& result) {
    std::vector<std::string> out;
    for (const auto& object : result.results) {
      for (const auto& e : object.errors) {
        std::string text = object.name + ": " + e.msgId + "(";
        for (const auto& a : e.args) text += a + ",";
        out.push_back(text + ")");
      }
    }
    return out;
  }
};

TEST_F(SamplePluginsTest, ResolverExtractsAppliesAndRecords) {
  Plugin resolver = Sample("resolver");
  WriteFile("/etc/resolv.conf", "# local\nnameserver 192.0.2.53\n; old\nsearch example.com lab.example.com\n");
  auto extracted = resolver.Extract({kResolver}, "", PluginMonitor::Dummy());
  ASSERT_TRUE(extracted.errorInfo.msgId.empty()) << extracted.errorInfo.msgId;
  ASSERT_EQ(extracted.objects.size(), 1u);
  EXPECT_EQ(extracted.objects[0]->GetSerializedData(),
            R"({"servers":["192.0.2.53"],"search":["example.com","lab.example.com"]})");

  const std::string desired = R"({"servers":["198.51.100.1","198.51.100.2"],"search":["corp.example"]})";
  ErrorInfo error = resolver.Apply({Input("network", "dns", "resolver", "", desired, "SET")}, "",
                                   PluginMonitor::Dummy());
  EXPECT_EQ(error, ErrorInfo("", {}, "DNS resolver"));
  EXPECT_EQ(ReadFile("/etc/resolv.conf"),
            "# Written by the configuration manager; edits are replaced.\n"
            "nameserver 198.51.100.1\nnameserver 198.51.100.2\nsearch corp.example\n");
  EXPECT_EQ(Current(kResolver), desired);
  EXPECT_EQ(resolver.Extract({kResolver}, "", PluginMonitor::Dummy()).objects[0]->GetSerializedData(), desired);

  auto impact = resolver.Impact({Input("network", "dns", "resolver", "", desired, "SET")}, "", PluginMonitor::Dummy());
  ASSERT_EQ(impact.impacts.size(), 1u);
  EXPECT_EQ(impact.impacts[0].impact, 0);
  EXPECT_TRUE(impact.impacts[0].quickBootSupported);
}

TEST_F(SamplePluginsTest, ResolverValidationRules) {
  Plugin resolver = Sample("resolver");
  auto result = resolver.Validate(
      {Object(kResolver, R"({"servers":["192.0.2.1","bogus","192.0.2.1","192.0.2.9"],"search":["a"]})")}, {}, "",
      PluginMonitor::Dummy());
  EXPECT_EQ(Errors(result), (std::vector<std::string>{
                                "/network/dns/resolver/servers: corvane.qen.settings.resolver.too-many-servers(4,3,)",
                                "/network/dns/resolver/servers/1: corvane.qen.settings.resolver.invalid-server(bogus,)",
                                "/network/dns/resolver/servers/2: corvane.qen.settings.resolver.duplicate-server(192.0.2.1,)"}));
  EXPECT_EQ(result.results[0].errors[0].message, "DNS resolver");

  auto searchOnly = resolver.Validate({Object(kResolver, R"({"servers":[],"search":["a"]})")}, {}, "",
                                      PluginMonitor::Dummy());
  EXPECT_EQ(Errors(searchOnly), (std::vector<std::string>{
                                    "/network/dns/resolver/search: corvane.qen.settings.resolver.search-without-servers()"}));
  EXPECT_TRUE(resolver.Validate({Object(kResolver, R"({"servers":["2001:db8::1"]})")}, {}, "", PluginMonitor::Dummy())
                  .results.empty());
}

TEST_F(SamplePluginsTest, NtpAppliesFilesAndRecordsTheAppliedValue) {
  Plugin ntp = Sample("ntp");
  EXPECT_EQ(ntp.GetModule(), "libntp.so");
  auto before = ntp.Extract({kNtp}, "", PluginMonitor::Dummy());
  ASSERT_EQ(before.objects.size(), 1u) << before.errorInfo.msgId;
  EXPECT_EQ(before.objects[0]->GetSerializedData(), R"({"enabled":false,"servers":[]})");

  const std::string desired = R"({"enabled":true,"servers":["192.0.2.10","ntp.example.com"]})";
  // Turning the service on needs maintenance mode; the same state does not.
  auto impact = ntp.Impact({Input("system", "time", "ntp", "", desired, "SET")}, "", PluginMonitor::Dummy());
  ASSERT_EQ(impact.impacts.size(), 1u);
  EXPECT_EQ(impact.impacts[0].impact, 1);

  EXPECT_EQ(ntp.Apply({Input("system", "time", "ntp", "", desired, "SET")}, "", PluginMonitor::Dummy()),
            ErrorInfo("", {}, "NTP client"));
  EXPECT_EQ(ReadFile("/etc/ntp.conf"),
            "# Written by the configuration manager; edits are replaced.\ndriftfile /var/lib/ntp/ntp.drift\n"
            "server 192.0.2.10 iburst\nserver ntp.example.com iburst\n");
  EXPECT_EQ(ReadFile("/etc/default/ntp"), "NTPD_ENABLED=yes\n");
  EXPECT_EQ(Current(kNtp), desired);
  EXPECT_EQ(ntp.Extract({kNtp}, "", PluginMonitor::Dummy()).objects[0]->GetSerializedData(), desired);
  EXPECT_EQ(ntp.Impact({Input("system", "time", "ntp", "", desired, "SET")}, "", PluginMonitor::Dummy())
                .impacts[0]
                .impact,
            0);
}

TEST_F(SamplePluginsTest, NtpServerNamesNeedResolverServers) {
  Plugin ntp = Sample("ntp");
  ConfigStoreObjectList data = {Object(kNtp, R"({"enabled":true,"servers":["ntp.example.com","192.0.2.1","192.0.2.1","bad_name!"]})")};
  auto noResolver = ntp.Validate(data, {Object(kResolver, R"({"servers":[]})")}, "", PluginMonitor::Dummy());
  EXPECT_EQ(Errors(noResolver),
            (std::vector<std::string>{
                "/system/time/ntp/servers/0: corvane.qen.settings.ntp.name-without-resolver(ntp.example.com,)",
                "/system/time/ntp/servers/2: corvane.qen.settings.ntp.duplicate-server(192.0.2.1,)",
                "/system/time/ntp/servers/3: corvane.qen.settings.ntp.invalid-server(bad_name!,)"}));
  auto withResolver =
      ntp.Validate(data, {Object(kResolver, R"({"servers":["192.0.2.53"]})")}, "", PluginMonitor::Dummy());
  EXPECT_EQ(Errors(withResolver).size(), 2u);
  auto empty = ntp.Validate({Object(kNtp, R"({"enabled":true,"servers":[]})")}, {}, "", PluginMonitor::Dummy());
  EXPECT_EQ(Errors(empty), (std::vector<std::string>{"/system/time/ntp/servers: corvane.qen.settings.ntp.no-servers()"}));
}

TEST_F(SamplePluginsTest, NfsMountsLiveInFstabBesideOtherFileSystems) {
  Plugin nfs = Sample("storage/nfs/mount");
  WriteFile("/etc/fstab", "UUID=1 / ext4 defaults 0 1\n");
  const std::string backup = R"({"name":"backup","server":"nas","export":"/srv/backup","readOnly":true})";
  const std::string media = R"({"name":"media","server":"nas","export":"/srv/media","readOnly":false})";
  auto impact = nfs.Impact({Input("storage", "nfs", "mount", "backup", backup, "ADD")}, "", PluginMonitor::Dummy());
  ASSERT_EQ(impact.impacts.size(), 1u);
  EXPECT_EQ(impact.impacts[0].impact, 1);

  EXPECT_TRUE(nfs.Apply({Input("storage", "nfs", "mount", "backup", backup, "ADD"),
                         Input("storage", "nfs", "mount", "media", media, "ADD")},
                        "", PluginMonitor::Dummy())
                  .msgId.empty());
  EXPECT_EQ(ReadFile("/etc/fstab"),
            "UUID=1 / ext4 defaults 0 1\n"
            "nas:/srv/backup /mnt/nfs/backup nfs ro,_netdev 0 0\n"
            "nas:/srv/media /mnt/nfs/media nfs rw,_netdev 0 0\n");
  auto extracted = nfs.Extract({kMount}, "", PluginMonitor::Dummy());
  ASSERT_EQ(extracted.objects.size(), 2u);
  EXPECT_EQ(extracted.objects[0]->GetConfigStoreObjectId(), ConfigStoreObjectId("mount", "nfs", "storage", "backup"));
  EXPECT_EQ(extracted.objects[0]->GetSerializedData(), backup);

  EXPECT_EQ(Current(ConfigStoreObjectId("mount", "nfs", "storage", "media")), media);

  EXPECT_TRUE(nfs.Apply({Input("storage", "nfs", "mount", "backup", backup, "DELETE")}, "", PluginMonitor::Dummy())
                  .msgId.empty());
  EXPECT_EQ(ReadFile("/etc/fstab"), "UUID=1 / ext4 defaults 0 1\nnas:/srv/media /mnt/nfs/media nfs rw,_netdev 0 0\n");
  EXPECT_EQ(Current(ConfigStoreObjectId("mount", "nfs", "storage", "backup")), "<none>");

  auto invalid = nfs.Validate({Object(ConfigStoreObjectId("mount", "nfs", "storage", "x"),
                                      R"({"name":"x","server":"nas","export":"srv"})")},
                              {Object(ConfigStoreObjectId("nic", "interfaces", "network", "eth0"),
                                      R"({"name":"eth0","enabled":false})")},
                              "", PluginMonitor::Dummy());
  EXPECT_EQ(Errors(invalid), (std::vector<std::string>{"/storage/nfs/mount/x: corvane.qen.settings.nfs.no-network(x,)",
                                                       "/storage/nfs/mount/x/export: corvane.qen.settings.nfs.relative-export(srv,)"}));
}

TEST_F(SamplePluginsTest, NicFilesFollowTheirInstances) {
  Plugin nic = Sample("network/interfaces/nic");
  const std::string eth0 = R"({"name":"eth0","mtu":9000,"enabled":true})";
  EXPECT_TRUE(nic.Apply({Input("network", "interfaces", "nic", "eth0", eth0, "ADD")}, "", PluginMonitor::Dummy())
                  .msgId.empty());
  EXPECT_EQ(ReadFile("/etc/network/interfaces.d/eth0"),
            "# Written by the configuration manager; edits are replaced.\nauto eth0\niface eth0 inet manual\n    mtu 9000\n");
  const ConfigStoreObjectId eth0Id("nic", "interfaces", "network", "eth0");
  EXPECT_EQ(Current(eth0Id), eth0);
  EXPECT_TRUE(nic.Apply({Input("network", "interfaces", "nic", "eth0", eth0, "DELETE")}, "", PluginMonitor::Dummy())
                  .msgId.empty());
  EXPECT_FALSE(Exists("/etc/network/interfaces.d/eth0"));
  EXPECT_EQ(Current(eth0Id), "<none>");

  ErrorInfo bad = nic.Apply({Input("network", "interfaces", "nic", "x", R"({"name":"../../etc/passwd"})", "ADD")}, "",
                            PluginMonitor::Dummy());
  EXPECT_EQ(bad.msgId, "corvane.qen.settings.nic.invalid-name");
  EXPECT_EQ(bad.args, std::list<std::string>{"../../etc/passwd"});
}

TEST_F(SamplePluginsTest, KernelOptionsGoToTheBootCommandLine) {
  Plugin kernel = Sample("system/boot/kernel");
  EXPECT_EQ(kernel.GetModule(), "libsystem_boot_kernel.so");
  EXPECT_TRUE(kernel.CheckType(QenConfigManager::PLUGIN_APPLY_BOOT));
  // No file: the boot loader's defaults.
  auto before = kernel.Extract({kKernel}, "", PluginMonitor::Dummy());
  ASSERT_EQ(before.objects.size(), 1u) << before.errorInfo.msgId;
  EXPECT_EQ(before.objects[0]->GetSerializedData(), R"({"iommu":false,"cmdline":"","consoleLogLevel":4})");

  const std::string desired = R"({"iommu":true,"cmdline":"quiet  hugepages=64","consoleLogLevel":2})";
  EXPECT_EQ(kernel.Apply({Input("system", "boot", "kernel", "", desired, "SET")}, "", PluginMonitor::Dummy()),
            ErrorInfo("", {}, "Kernel boot options"));
  EXPECT_EQ(ReadFile("/etc/kernel/cmdline"), "iommu=on loglevel=2 quiet  hugepages=64\n");
  EXPECT_EQ(Current(kKernel), desired);
  EXPECT_EQ(kernel.Extract({kKernel}, "", PluginMonitor::Dummy()).objects[0]->GetSerializedData(), desired);

  // A hand-written line without the managed words is all command line.
  WriteFile("/etc/kernel/cmdline", "loglevel=9 iommu=on\n");
  EXPECT_EQ(kernel.Extract({kKernel}, "", PluginMonitor::Dummy()).objects[0]->GetSerializedData(),
            R"({"iommu":false,"cmdline":"loglevel=9 iommu=on","consoleLogLevel":4})");

  EXPECT_TRUE(kernel.Apply({Input("system", "boot", "kernel", "", desired, "DELETE")}, "", PluginMonitor::Dummy())
                  .msgId.empty());
  EXPECT_FALSE(Exists("/etc/kernel/cmdline"));
  EXPECT_EQ(Current(kKernel), "<none>");
}

}  // namespace

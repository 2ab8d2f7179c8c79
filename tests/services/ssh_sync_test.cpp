#include <stdexcept>

#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "TavCtl.h"

using QenConfigStore::ConfigStore;
using QenConfigStore::ConfigStoreObjectId;
using namespace TavCtl::System;

namespace {

class SshSyncTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    InstallSampleHost();
  }
  // The store's current value of system/ssh/<key> as compact JSON, "" when none.
  std::string Stored(const std::string& key, const std::string& instance = "") {
    auto store = ConfigStore::GetStore();
    EXPECT_TRUE(store);
    auto object = store ? store->GetObject(ConfigStoreObjectId(key, "ssh", "system", instance))
                        : nullptr;
    return object ? object->GetSerializedData() : std::string();
  }
};

TEST_F(SshSyncTest, ServerAndClientFilesBecomeOptionLists) {
  EXPECT_TRUE(SshServerConfigImpl(SYSTEM_STATE_RUNNING).UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("server"),
            R"({"options":[{"keyword":"Port","value":"22"},{"keyword":"Protocol","value":"2"},)"
            R"({"keyword":"PermitRootLogin","value":"no"},{"keyword":"PasswordAuthentication","value":"no"},)"
            R"({"keyword":"Ciphers","value":"aes256-gcm@openssh.com,aes128-gcm@openssh.com"},)"
            R"({"keyword":"MaxAuthTries","value":"4"},{"keyword":"ClientAliveInterval","value":"300"},)"
            R"({"keyword":"Subsystem","value":"sftp /usr/lib/ssh/sftp-server"}]})");
  EXPECT_TRUE(log_.Contains(3, "SSH configuration written to the config store: comp system grp ssh key server"));

  EXPECT_TRUE(SshClientConfigImpl(SYSTEM_STATE_RUNNING).UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("client"),
            R"({"options":[{"keyword":"Host","value":"*"},{"keyword":"ForwardAgent","value":"no"},)"
            R"({"keyword":"StrictHostKeyChecking","value":"ask"},{"keyword":"ServerAliveInterval","value":"60"}]})");
}

TEST_F(SshSyncTest, UnchangedFilesAreNotWrittenAgain) {
  SshServerConfigImpl server(SYSTEM_STATE_RUNNING);
  EXPECT_TRUE(server.UpgradeConfigToConfigStore());
  EXPECT_FALSE(server.UpgradeConfigToConfigStore());

  WriteFile(kSshServerConfigFile, "Port = 2222\n\n   # moved\n");
  EXPECT_TRUE(server.UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("server"), R"({"options":[{"keyword":"Port","value":"2222"}]})");
}

TEST_F(SshSyncTest, AuthorizedKeysPerUser) {
  EXPECT_TRUE(SshAuthKeysConfigImpl(SYSTEM_STATE_RUNNING).UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("authorized_keys", "root"),
            R"({"user":"root","keys":["ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIHl8lV0hJ3V3u3y6TQ7s0wVbW1p6jR0x1Gq8cYk3nZ4a admin@lab.example"]})");
  EXPECT_EQ(Stored("authorized_keys", "operator"),
            R"({"user":"operator","keys":["ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIK0yq2mYb6n5uT4wXe9rLd3sFh8pQz1vJc7oN2aGk5tB operator@lab.example",)"
            R"("ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQC7sample0nly0notarealkey operator-backup@lab.example"]})");

  // Only the user whose file changed is rewritten.
  WriteFile("/etc/ssh/keys-root/authorized_keys", "ssh-ed25519 AAAAnew root@new\n");
  log_.Clear();
  EXPECT_TRUE(SshAuthKeysConfigImpl(SYSTEM_STATE_RUNNING).UpgradeConfigToConfigStore());
  EXPECT_EQ(log_.Texts(3),
            std::vector<std::string>{
                "SSH configuration written to the config store: comp system grp ssh key authorized_keys id root"});
}

TEST_F(SshSyncTest, UserWithoutKeysFileIsRemoved) {
  SshAuthKeysConfigImpl keys(SYSTEM_STATE_RUNNING);
  EXPECT_TRUE(keys.UpgradeConfigToConfigStore());
  ASSERT_EQ(::unlink(Path("/etc/ssh/keys-operator/authorized_keys").c_str()), 0);
  log_.Clear();
  EXPECT_TRUE(keys.UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("authorized_keys", "operator"), "");
  EXPECT_NE(Stored("authorized_keys", "root"), "");
  EXPECT_EQ(log_.Texts(3),
            std::vector<std::string>{
                "SSH configuration removed from the config store: comp system grp ssh key authorized_keys id operator"});

  ASSERT_EQ(::unlink(Path("/etc/ssh/keys-root/authorized_keys").c_str()), 0);
  EXPECT_TRUE(keys.UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("authorized_keys", "root"), "");
  EXPECT_FALSE(keys.UpgradeConfigToConfigStore());
}

TEST_F(SshSyncTest, NothingToSyncWhenBootingOrWithoutFiles) {
  EXPECT_FALSE(SshServerConfigImpl(SYSTEM_STATE_BOOT).UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("server"), "");

  ASSERT_EQ(::unlink(Path(kSshClientConfigFile).c_str()), 0);
  EXPECT_FALSE(SshClientConfigImpl(SYSTEM_STATE_RUNNING).UpgradeConfigToConfigStore());
  EXPECT_EQ(Stored("client"), "");

  try {
    SshServerConfigImpl bad(7);
    FAIL() << "constructed with state 7";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "unknown system state 7");
  }
}

}  // namespace

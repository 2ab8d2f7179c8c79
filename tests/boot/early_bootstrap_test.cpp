// Early bootstrap on the sample host: its authentication and network keys
// applied through its own plugins, which write the host's files.
#include <gtest/gtest.h>

#include <algorithm>

#include <boost/filesystem.hpp>

#include "HostFiles.h"
#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "configmanager/boot.h"

using namespace QenConfigManager;

namespace {

const char* kShadow = "/etc/shadow";
const char* kManagement = "/etc/corvane/network/management.conf";
const char* kSwitch = "/etc/corvane/network/vss/vss0.conf";
const char* kHeader = "# Written by the configuration manager; edits are replaced.\n";

class EarlyBootstrapTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    InstallSampleHost();
    rapidjson::Document store;
    ParseDocument(SampleDocument("store-sample.json"), store);
    QenConfigStore::LoadStoreDescription(store);
  }

  static std::string SampleDocument(const std::string& name) {
    std::string text;
    EXPECT_TRUE(QenPlatform::ReadWholeFile(QEN_SOURCE_DIR "/host/documents/" + name, text)) << name;
    return text;
  }

  static std::string Document(const std::string& qen) { return R"({"profile": {"qen": )" + qen + "}}"; }

  static constexpr const char* kNetwork =
      R"("network": {"management": {"address": "10.0.0.21/24", "gateway": "10.0.0.1", "vlan": 12}},
         "network_vss": {"switch": [{"name": "vss0", "uplinks": ["nic0", "nic1"], "mtu": 9000}]})";
};

TEST_F(EarlyBootstrapTest, AuthenticationThenNetworkingFromTheSampleDocument) {
  EXPECT_EQ(ApplyEarlyBootstrapConfig(SampleDocument("bootstrap-early.json")), 0);
  // Only the root line's hash changes.
  EXPECT_EQ(ReadFile(kShadow),
            "root:$6$bootstrap$Wm3fQ0yVb9cJk2LrT8sXnE4hPaZ1uD7gK5iO6qR0tY:19700:0:99999:7:::\n"
            "daemon:*:19700:0:99999:7:::\nops:!:19700:0:99999:7:::\n");
  EXPECT_EQ(Mode(kShadow), 0600);
  EXPECT_EQ(ReadFile(kManagement), std::string(kHeader) + "address=10.0.0.21/24\ngateway=10.0.0.1\nvlan=0\nipv6=off\n");
  EXPECT_EQ(ReadFile(kSwitch), std::string(kHeader) + "uplinks=nic0\nmtu=1500\n");
  const std::vector<std::string> progress = log_.Texts(2);
  auto at = [&](const std::string& text) { return std::find(progress.begin(), progress.end(), text) - progress.begin(); };
  EXPECT_LT(at("Remediating early bootstrap configurations."), at("Bootstrapped early authentication config."));
  EXPECT_LT(at("Bootstrapped early authentication config."), at("Bootstrapped early networking config."));
  EXPECT_LT(at("Bootstrapped early networking config."), static_cast<long>(progress.size()));
  // The hash is sensitive: in no log line.
  for (const auto& line : log_.Lines()) EXPECT_EQ(line.second.find("$6$bootstrap$"), std::string::npos) << line.second;

  // Applied values are the keys' current values: a second run has nothing to do.
  log_.Clear();
  EXPECT_EQ(ApplyEarlyBootstrapConfig(SampleDocument("bootstrap-early.json")), 0);
  EXPECT_TRUE(log_.Contains(2, "Host is compliant with bootstrap network document."));
  EXPECT_FALSE(log_.Contains(2, "Remediating early bootstrap configurations."));
}

TEST_F(EarlyBootstrapTest, NetworkOnlyDocumentHasNothingForTheFirstStage) {
  const std::string shadow = ReadFile(kShadow);
  EXPECT_EQ(ApplyEarlyBootstrapConfig(Document(std::string("{") + kNetwork + "}")), 0);
  EXPECT_EQ(log_.Texts(1), std::vector<std::string>{"No tasks generated for the desired configuration."});
  EXPECT_EQ(ReadFile(kShadow), shadow);
  EXPECT_EQ(ReadFile(kSwitch), std::string(kHeader) + "uplinks=nic0,nic1\nmtu=9000\n");
  EXPECT_EQ(ReadFile(kManagement), std::string(kHeader) + "address=10.0.0.21/24\ngateway=10.0.0.1\nvlan=12\nipv6=off\n");

  // Switching IPv6 on needs a reboot: refused, nothing applied.
  log_.Clear();
  EXPECT_EQ(ApplyEarlyBootstrapConfig(Document(
                R"({"network": {"management": {"address": "10.0.0.22/24", "gateway": "10.0.0.1", "vlan": 12, "ipv6": true}}})")),
            1);
  EXPECT_EQ(log_.Texts(0), std::vector<std::string>{"Bootstrap network document cannot require RebootRequired impact."});
  EXPECT_EQ(ReadFile(kManagement), std::string(kHeader) + "address=10.0.0.21/24\ngateway=10.0.0.1\nvlan=12\nipv6=off\n");
}

TEST_F(EarlyBootstrapTest, FailuresReturnOneWithTheirLine) {
  auto fails = [&](const std::string& text) {
    log_.Clear();
    EXPECT_EQ(ApplyEarlyBootstrapConfig(text), 1) << text;
    return log_.Texts(0).empty() ? std::string() : log_.Texts(0).back();
  };
  // The validator redacts the sensitive hash in the serialised result.
  EXPECT_EQ(fails(Document(R"({"authentication": {"root": {"passwordHash": "plain-text"}}})")),
            "Found errors in early bootstrap configuration: {\"errors\":[{\"path\":\"/qen/authentication/root/passwordHash\","
            "\"messages\":[{\"msgId\":\"corvane.qen.settings.schema.pattern-mismatch\",\"args\":[\"(sensitive)\","
            "\"^\\\\$[0-9a-z]+\\\\$[^:\\\\s]+$\"],\"message\":\"\"}]}]}");
  EXPECT_EQ(fails(Document(R"({"nope": {"k": {}}})")), "Failed to generate schema for early bootstrap configuration.");
  EXPECT_EQ(fails("{\"profile\": "), "ApplyEarlyBootstrapConfig: error=Failed to parse JSON String");

  // A first stage that fails leaves the second undone.
  ASSERT_TRUE(boost::filesystem::remove(Path(kShadow)));
  ASSERT_TRUE(boost::filesystem::create_directories(Path(kShadow)));  // the plugin cannot read it
  EXPECT_EQ(fails(Document(std::string(R"({"authentication": {"root": {"passwordHash": "$6$s$h"}}, )") + kNetwork + "}")),
            "Error applying early authentication config: {\"msgId\":\"corvane.qen.settings.apply.plugin.unexpected.error\","
            "\"args\":[\"qen:authentication\"],\"message\":\"\"}");
  EXPECT_FALSE(Exists(kManagement));
  EXPECT_FALSE(Exists(kSwitch));
}

}  // namespace

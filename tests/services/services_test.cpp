#include <stdexcept>

#include "FeatureState.h"
#include "HostCtl.h"
#include "HostRootTest.h"
#include "TavCtl.h"

using HostCtl::Lib::HostCtlException;

namespace {

template <typename F>
std::string HostCtlFailure(F call) {
  try {
    call();
  } catch (const HostCtlException& e) {
    return e.what();
  }
  return "did not throw";
}

class FeatureStateTest : public QenTest::HostRootTest {};

TEST_F(FeatureStateTest, SampleSwitchesAndReinitialisation) {
  InstallSampleHost();
  FeatureState_InitDeltaMode();
  EXPECT_FALSE(FeatureState_IsEnabled(FEATURE_BLOCK_SSH_FILE_EDITS));
  EXPECT_TRUE(FeatureState_IsEnabled(FEATURE_CONFIG_PLUGIN_READS));
  EXPECT_FALSE(FeatureState_IsEnabled("Tavapps_Unknown"));
  EXPECT_EQ(log_.Texts(2), std::vector<std::string>{"Feature state: Tavapps_ConfigPluginReads enabled"});

  WriteFile(kFeatureStateFile, R"({"features": {"Tavapps_BlockSshFileEdits": true}})");
  EXPECT_FALSE(FeatureState_IsEnabled(FEATURE_BLOCK_SSH_FILE_EDITS));  // until the next Init
  log_.Clear();
  FeatureState_InitSilentMode();
  EXPECT_TRUE(FeatureState_IsEnabled(FEATURE_BLOCK_SSH_FILE_EDITS));
  EXPECT_FALSE(FeatureState_IsEnabled(FEATURE_CONFIG_PLUGIN_READS));
  EXPECT_EQ(FeatureState_EnabledFeatures(), std::vector<std::string>{"Tavapps_BlockSshFileEdits"});
  EXPECT_TRUE(log_.Texts(2).empty());
}

TEST_F(FeatureStateTest, BadFileIsNamedAndKeepsThePreviousState) {
  WriteFile(kFeatureStateFile, R"({"features": {"A": true}})");
  FeatureState_InitSilentMode();
  const std::string file = std::string("host file \"") + kFeatureStateFile + "\"";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{", file + " is not valid JSON: Missing a name for object member. at offset 1"},
      {R"({"features": []})", file + ": member \"features\" must be an object"},
      {R"({"features": {"A": "yes"}})", file + ": feature \"A\" is not a boolean"},
  };
  for (const auto& c : cases) {
    WriteFile(kFeatureStateFile, c.first);
    EXPECT_EQ(HostCtlFailure([] { FeatureState_InitDeltaMode(); }), c.second);
    EXPECT_TRUE(FeatureState_IsEnabled("A"));
  }
  ASSERT_EQ(::unlink(Path(kFeatureStateFile).c_str()), 0);
  EXPECT_EQ(HostCtlFailure([] { FeatureState_InitSilentMode(); }),
            "cannot read " + file + ": No such file or directory");
}

class SystemInfoTest : public QenTest::HostRootTest {};

TEST_F(SystemInfoTest, VersionPartsFromTheVersionFile) {
  InstallSampleHost();
  TavCtl::System::TavVersion version = TavCtl::System::SystemInfoImpl().GetTavVersion();
  EXPECT_STREQ(version.GetBuild(), "24585383");
  EXPECT_STREQ(version.GetVersion(), "8.0.3");
  EXPECT_STREQ(version.GetPatch(), "2");
  EXPECT_STREQ(version.GetUpdate(), "3");

  WriteFile(TavCtl::System::kVersionFile, R"({"version": "9.0"})");
  version = TavCtl::System::SystemInfoImpl().GetTavVersion();
  EXPECT_STREQ(version.GetVersion(), "9.0");
  EXPECT_EQ(version.GetBuild(), nullptr);
  EXPECT_EQ(version.GetUpdate(), nullptr);
}

TEST_F(SystemInfoTest, BadVersionFileIsNamed) {
  const std::string file = std::string("host file \"") + TavCtl::System::kVersionFile + "\"";
  EXPECT_EQ(HostCtlFailure([] { TavCtl::System::SystemInfoImpl().GetTavVersion(); }),
            "cannot read " + file + ": No such file or directory");
  WriteFile(TavCtl::System::kVersionFile, R"({"build": 24585383})");
  EXPECT_EQ(HostCtlFailure([] { TavCtl::System::SystemInfoImpl().GetTavVersion(); }),
            file + ": member \"build\" is not a string");
}

}  // namespace

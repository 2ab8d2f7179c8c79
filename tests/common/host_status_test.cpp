#include <gtest/gtest.h>

#include "HostRootTest.h"
#include "configmanager/common.h"

using namespace QenConfigManager;

namespace {

using Lines = std::vector<std::pair<int, std::string>>;

class HostStatus : public QenTest::HostRootTest {
 protected:
  void SysInfo(const std::string& json) { WriteFile("/var/run/corvane/sysinfo.json", json); }
  void Hardware(const std::string& json) { WriteFile("/etc/corvane/hardware.json", json); }
};

}  // namespace

TEST_F(HostStatus, MaintenanceModeOnlyForStateOne) {
  SysInfo("{\"interfaceCount\": 21, \"maintenanceMode\": 1}");
  EXPECT_TRUE(IsMaintenanceModeEnabled());
  EXPECT_EQ(log_.Lines(), (Lines{{2, "Checking if host is in maintenanceMode"}, {2, "Host maintenanceMode state=1"}}));

  for (int state : {0, 2, -1}) {
    log_.Clear();
    SysInfo("{\"maintenanceMode\": " + std::to_string(state) + "}");
    EXPECT_FALSE(IsMaintenanceModeEnabled()) << state;
    EXPECT_EQ(log_.Lines(), (Lines{{2, "Checking if host is in maintenanceMode"},
                                   {2, "Host maintenanceMode state=" + std::to_string(state)}}));
  }
}

TEST_F(HostStatus, UnreadableSystemInformationAnswersNotInMaintenanceMode) {
  // No state file at all: the interface is unavailable.
  EXPECT_FALSE(IsMaintenanceModeEnabled());
  EXPECT_EQ(log_.Lines(), (Lines{{2, "Checking if host is in maintenanceMode"},
                                 {0, "Tavon signature check failed: rc=195887105"}}));

  log_.Clear();
  SysInfo("{\"interfaceCount\": 22, \"maintenanceMode\": 1}");
  EXPECT_FALSE(IsMaintenanceModeEnabled());
  EXPECT_EQ(log_.Lines(), (Lines{{2, "Checking if host is in maintenanceMode"},
                                 {0, "Tavon signature check failed: rc=195887106"}}));

  log_.Clear();
  SysInfo("{\"interfaceCount\": 21, \"maintenanceMode\": \"yes\"}");
  EXPECT_FALSE(IsMaintenanceModeEnabled());
  EXPECT_EQ(log_.Lines(), (Lines{{2, "Checking if host is in maintenanceMode"},
                                 {0, "Failed to read MaintenanceMode state: rc=195887107"}}));
}

TEST_F(HostStatus, QuickBootPrefersTheStmVariant) {
  Hardware("{\"quickBoot\": true, \"quickBootStm\": true}");
  EXPECT_EQ(FetchQuickBootStatus(), QUICKBOOT_STM_SUPPORTED);
  Hardware("{\"quickBoot\": false, \"quickBootStm\": true}");
  EXPECT_EQ(FetchQuickBootStatus(), QUICKBOOT_STM_SUPPORTED);
  Hardware("{\"quickBoot\": true, \"quickBootStm\": false}");
  EXPECT_EQ(FetchQuickBootStatus(), QUICKBOOT_SUPPORTED);
  Hardware("{}");
  EXPECT_EQ(FetchQuickBootStatus(), QUICKBOOT_UNSUPPORTED);
}

TEST_F(HostStatus, QuickBootLetsHostControlFailuresThrough) {
  try {
    FetchQuickBootStatus();
    FAIL() << "no throw";
  } catch (const HostCtl::Lib::HostCtlException& e) {
    EXPECT_EQ(std::string(e.what()).rfind("cannot read host file \"/etc/corvane/hardware.json\"", 0), 0u)
        << e.what();
  }
}

#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>

#include "HostRootTest.h"
#include "Sysq.h"

namespace {

class RamdiskStatsTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    WriteFile(Sysq_STATE_FILE, R"({"maintenanceMode": 1})");
    params_ = Sysq_ParamListCreate();
    ASSERT_NE(params_, nullptr);
  }
  void TearDown() override {
    Sysq_ParamListDestroy(params_);
    HostRootTest::TearDown();
  }
  int Stats(const char* name, Ramvol_SysqRamStats& stats) {
    EXPECT_EQ(Sysq_ParamListAddString(params_, name), SYSQ_OK);
    return Sysq_Get(Sysq_NODE_system_ramvol_ramdisks_stats, params_, &stats, sizeof stats);
  }

  Sysq_ParamList* params_ = nullptr;
};

TEST_F(RamdiskStatsTest, ConfigStoreRamdiskIsTheFileSystemHoldingTheStore) {
  WriteFile("/var/lib/corvane/configstore/configstore.db", std::string(8192, 'x'));
  struct statvfs before;
  ASSERT_EQ(::statvfs(Path(Sysq_CONFIGSTORE_MOUNT).c_str(), &before), 0);
  Ramvol_SysqRamStats stats;
  ASSERT_EQ(Stats("configstore", stats), SYSQ_OK);
  struct statvfs after;
  ASSERT_EQ(::statvfs(Path(Sysq_CONFIGSTORE_MOUNT).c_str(), &after), 0);

  // The file system's size, not a fixed reservation.
  const uint64_t unit = before.f_frsize;
  EXPECT_EQ(stats.reservedMiB, before.f_blocks * unit / (1024 * 1024));
  // The space used on it; other processes may write to it meanwhile.
  const uint64_t low = (before.f_blocks - before.f_bfree) * unit / 4096;
  const uint64_t high = (after.f_blocks - after.f_bfree) * unit / 4096;
  EXPECT_GE(stats.usedPages + 1, std::min(low, high));
  EXPECT_LE(stats.usedPages, std::max(low, high) + 1);

  // The maintenance-mode node is unaffected.
  int32_t mode = -1;
  EXPECT_EQ(Sysq_Get(Sysq_NODE_system_maintenanceMode, nullptr, &mode, sizeof mode), SYSQ_OK);
  EXPECT_EQ(mode, 1);
}

TEST_F(RamdiskStatsTest, MissingStoreDirectoryCannotBeMeasured) {
  Ramvol_SysqRamStats stats;
  std::memset(&stats, 0xab, sizeof stats);
  EXPECT_EQ(Stats("configstore", stats), SYSQ_ERR_NOT_FOUND);
  // Nothing is half-filled.
  EXPECT_EQ(stats.reservedMiB, 0xababababu);
}

TEST_F(RamdiskStatsTest, BadRequestsReturnStatusCodes) {
  Ramvol_SysqRamStats stats;
  EXPECT_EQ(Sysq_Get(Sysq_NODE_system_ramvol_ramdisks_stats, nullptr, &stats, sizeof stats),
            SYSQ_ERR_BAD_PARAM);
  EXPECT_EQ(Sysq_ParamListAddString(nullptr, "x"), SYSQ_ERR_BAD_PARAM);
  EXPECT_EQ(Sysq_ParamListAddString(params_, nullptr), SYSQ_ERR_BAD_PARAM);
  EXPECT_EQ(Stats("tmp", stats), SYSQ_ERR_NOT_FOUND);
  EXPECT_STREQ(TAV_ReturnStatusToString(SYSQ_ERR_NOT_FOUND), "Not found");

  Sysq_ParamList* store = Sysq_ParamListCreate();
  Sysq_ParamListAddString(store, "configstore");
  EXPECT_EQ(Sysq_Get(Sysq_NODE_system_ramvol_ramdisks_stats, store, &stats, sizeof stats - 1),
            SYSQ_ERR_BAD_PARAM);
  ASSERT_EQ(::unlink(Path(Sysq_STATE_FILE).c_str()), 0);
  EXPECT_EQ(Sysq_Get(Sysq_NODE_system_ramvol_ramdisks_stats, store, &stats, sizeof stats),
            SYSQ_ERR_UNAVAILABLE);
  Sysq_ParamListDestroy(store);
  Sysq_ParamListDestroy(nullptr);
}

}  // namespace

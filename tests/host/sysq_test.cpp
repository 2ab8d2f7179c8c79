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

TEST_F(RamdiskStatsTest, ConfigStoreRamdiskReportsItsFilesInPages) {
  // Incompressible, non-sparse content: each file occupies exactly its size.
  WriteFile("/var/lib/corvane/configstore/configstore.db", std::string(8192, 'x'));
  WriteFile("/var/lib/corvane/configstore/configstore.db-wal", std::string(4096, 'y'));
  WriteFile("/var/lib/corvane/configstore/sub/extra", std::string(100, 'z'));
  Ramvol_SysqRamStats stats;
  ASSERT_EQ(Stats("configstore", stats), SYSQ_OK);
  EXPECT_EQ(stats.reservedMiB, 64u);
  EXPECT_EQ(stats.usedPages, 4u);
  EXPECT_EQ(stats.fileCount, 3u);
  // The maintenance-mode node is unaffected.
  int32_t mode = -1;
  EXPECT_EQ(Sysq_Get(Sysq_NODE_system_maintenanceMode, nullptr, &mode, sizeof mode), SYSQ_OK);
  EXPECT_EQ(mode, 1);
}

TEST_F(RamdiskStatsTest, RamdisksListedInTheStateFile) {
  WriteFile(Sysq_STATE_FILE,
            R"({"ramdisks": {"configstore": {"reservedMiB": 32}, "logs": {"reservedMiB": 8, "mount": "/var/log"}}})");
  WriteFile("/var/log/a.log", std::string(4096 * 3, 'l'));
  Ramvol_SysqRamStats stats;
  ASSERT_EQ(Stats("configstore", stats), SYSQ_OK);
  EXPECT_EQ(stats.reservedMiB, 32u);
  EXPECT_EQ(stats.usedPages, 0u);  // no store yet

  Sysq_ParamList* logs = Sysq_ParamListCreate();
  Sysq_ParamListAddString(logs, "logs");
  ASSERT_EQ(Sysq_Get(Sysq_NODE_system_ramvol_ramdisks_stats, logs, &stats, sizeof stats), SYSQ_OK);
  Sysq_ParamListDestroy(logs);
  EXPECT_EQ(stats.reservedMiB, 8u);
  EXPECT_EQ(stats.usedPages, 3u);
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

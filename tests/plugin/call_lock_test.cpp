// One plugin call at a time per host: the lock around every call, the
// request and result files created fresh, and modes independent of the umask.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <chrono>
#include <thread>

#include "HostLock.h"
#include "HostRoot.h"
#include "PluginHost.h"
#include "PluginSupport.h"
#include "plugin/call_lock.h"

using QenConfigManager::ErrorInfo;
using QenConfigManager::PluginLauncher;
using QenConfigManager::PluginMonitor;

namespace {

using Clock = std::chrono::steady_clock;

class CallLockTest : public QenTest::PluginHostTest {
 protected:
  void SetUp() override {
    PluginHostTest::SetUp();
    plugin_ = CppFaultPlugin();
  }
  void TearDown() override {
    QenConfigManager::SetPluginLockTimeout(std::chrono::milliseconds(0));
    PluginHostTest::TearDown();
  }

  // What another process's call would hold.
  void HoldLock() {
    ASSERT_EQ(held_.Acquire(Path(PluginLauncher::kLockFile), std::chrono::milliseconds(0)),
              QenPlatform::HostLock::kAcquired);
  }

  ErrorInfo Apply(const std::string& cue, std::shared_ptr<PluginMonitor> monitor = PluginMonitor::Dummy()) {
    return plugin_->Apply(ResolverInputs(), cue, monitor);
  }

  std::shared_ptr<QenConfigManager::Plugin> plugin_;
  QenPlatform::HostLock held_;
};

TEST_F(CallLockTest, ACallWaitsForTheHolderAndGivesUpAfterTheBoundedWait) {
  HoldLock();
  QenConfigManager::SetPluginLockTimeout(std::chrono::milliseconds(300));
  auto started = Clock::now();
  EXPECT_EQ(Apply("echo"), ErrorInfo("corvane.qen.settings.apply.plugin.unexpected.error", {"cfault"}));
  EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(300));
  EXPECT_TRUE(log_.Contains(0, "Plugin cfault was not run: another plugin call on this host held "
                               "/var/corvane/lifecycle/cm-plugin.lock for more than 300 ms"));
  EXPECT_FALSE(Exists(kEcho));  // the runner never ran

  // Released while a call waits: the call runs then.
  std::thread release([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    held_.Release();
  });
  QenConfigManager::SetPluginLockTimeout(std::chrono::seconds(10));
  started = Clock::now();
  EXPECT_EQ(Apply("echo"), ErrorInfo("", {}, "DNS resolver"));
  release.join();
  EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(100));
  EXPECT_TRUE(Exists(kEcho));
  ExpectCleanAfterCall();
}

TEST_F(CallLockTest, AnAbortEndsTheWait) {
  HoldLock();
  auto monitor = std::make_shared<QenTest::CueMonitor>(3);
  auto started = Clock::now();
  EXPECT_EQ(Apply("ok", monitor), ErrorInfo("corvane.qen.settings.apply.plugin.aborted", {"cfault"}));
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(1));
  EXPECT_TRUE(log_.Contains(0, "Config Manager plugin was aborted: cfault"));
  ExpectCleanAfterCall();
}

// What an earlier call left at the two paths is neither read nor written
// through: a link at the request path, a result that is not this call's.
TEST_F(CallLockTest, StaleFilesAreReplacedNeverFollowedOrRead) {
  WriteFile("/etc/victim", "keep", 0644);
  ASSERT_EQ(::symlink(Path("/etc/victim").c_str(), Path(PluginLauncher::kInputFile).c_str()), 0);
  WriteFile(PluginLauncher::kOutputFile, R"({"error": {"msgId": "corvane.test.stale", "args": []}})", 0600);
  EXPECT_EQ(Apply("none"), ErrorInfo("corvane.qen.settings.apply.plugin.unexpected.error", {"cfault"}));
  EXPECT_EQ(ReadFile("/etc/victim"), "keep");
  EXPECT_EQ(Mode("/etc/victim"), 0644);

  ASSERT_EQ(::symlink(Path("/etc/victim").c_str(), Path(PluginLauncher::kOutputFile).c_str()), 0);
  EXPECT_EQ(Apply("ok"), ErrorInfo("", {}, "DNS resolver"));
  EXPECT_EQ(ReadFile("/etc/victim"), "keep");
  ExpectCleanAfterCall();
}

TEST_F(CallLockTest, ModesDoNotDependOnTheUmask) {
  boost::filesystem::remove_all(Path("/var/corvane"));
  const mode_t saved = ::umask(0);
  EXPECT_EQ(Apply("ok"), ErrorInfo("", {}, "DNS resolver"));
  QenConfigManager::PluginRequest().Dump(PluginLauncher::kInputFile, "t", "c");
  QenConfigManager::SaveErrorResult(ErrorInfo(), Path(PluginLauncher::kOutputFile));
  ::umask(saved);
  EXPECT_EQ(Mode(PluginLauncher::kInputFile), 0600);
  EXPECT_EQ(Mode(PluginLauncher::kOutputFile), 0600);
  EXPECT_EQ(Mode("/var/corvane"), 0700);
  EXPECT_EQ(Mode("/var/corvane/lifecycle"), 0700);
  EXPECT_EQ(Mode(PluginLauncher::kLockFile), 0600);
}

}  // namespace

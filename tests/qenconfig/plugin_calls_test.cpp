// qenconfig processes that run plugins on one host at the same time, and
// qenconfig stopped by a signal while a plugin runs.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "QenConfigTest.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

using Clock = std::chrono::steady_clock;

class PluginCallsTest : public QenConfigTest {
 protected:
  static constexpr const char* kPidFile = "/tmp/slow.pid";
  static constexpr const char* kStubborn = "/tmp/stubborn";

  void SetUp() override {
    QenConfigTest::SetUp();
    LoadSampleStore();
  }

  // A validation plugin for the resolver that records its process id and
  // sleeps; with kStubborn present it ignores SIGTERM.
  void InstallSlowPlugin() {
    const std::string dir = "/usr/lib/corvane/configmanager/apply_modules/slow/";
    WriteFile(dir + "manifest.json", R"({"version": 3, "type": "python", "accepts": ["network:dns:resolver"],
        "validation": {"supports": true}})");
    WriteFile(dir + "plugin.py",
              "import os, signal, time\n"
              "import qenplugin\n"
              "def validate(call):\n"
              "    if os.path.exists(qenplugin.HostPath('" + std::string(kStubborn) + "')):\n"
              "        signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
              "    with open(qenplugin.HostPath('" + std::string(kPidFile) + "'), 'w') as f:\n"
              "        f.write(str(os.getpid()))\n"
              "    time.sleep(60)\n");
    WriteFile("/tmp/.keep", "");
  }

  // Waits for the slow plugin to run; its process id.
  pid_t WaitForSlowPlugin() {
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < deadline) {
      const std::string text = ReadFile(kPidFile);
      if (!text.empty()) return static_cast<pid_t>(std::stoi(text));
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "the slow plugin did not start";
    return -1;
  }

  // Whether `pid` is a live process (neither gone nor a zombie).
  static bool Alive(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    const size_t end = line.rfind(')');
    return end != std::string::npos && end + 2 < line.size() && line[end + 2] != 'Z';
  }

  static bool GoneWithin(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (Alive(pid) && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return !Alive(pid);
  }

  void ExpectNoPluginFiles() {
    EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-input.json"));
    EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-output.json"));
  }
};

TEST_F(PluginCallsTest, ConcurrentValidationsEachGetTheirOwnResult) {
  const std::string good = std::string(kDocs) + "desired-good.json";
  const std::string bad = std::string(kDocs) + "desired-bad.json";
  // Alone, each gives its answer; the bad one's includes a plugin's error.
  const Outcome goodAlone = Run({"validate", good});
  const Outcome badAlone = Run({"validate", bad});
  ASSERT_EQ(goodAlone.exit, 0) << goodAlone.err;
  ASSERT_EQ(goodAlone.out, "Valid: " + good + "\n");
  ASSERT_EQ(badAlone.exit, 3) << badAlone.err;
  ASSERT_NE(badAlone.out.find(": corvane.qen.settings.resolver.invalid-server: "), std::string::npos)
      << badAlone.out;

  // Both at once, round after round: the plugin calls of the two processes
  // share the request and result files, so each must have them to itself.
  int wrong = 0;
  std::string firstWrong;
  for (int round = 0; round < 30; ++round) {
    Running g = Start({"validate", good}, "good");
    Running b = Start({"validate", bad}, "bad");
    const Outcome goodNow = Finish(g);
    const Outcome badNow = Finish(b);
    for (const auto& [now, alone] : {std::pair{goodNow, goodAlone}, std::pair{badNow, badAlone}}) {
      if (now.exit == alone.exit && now.out == alone.out && now.err.empty()) continue;
      if (wrong++ == 0) firstWrong = "exit " + std::to_string(now.exit) + ", out " + now.out + ", err " + now.err;
    }
  }
  EXPECT_EQ(wrong, 0) << "first wrong result: " << firstWrong;
}

// A signal stops the running plugin through the task handle: the runner is
// terminated, both files removed, and qenconfig ends promptly with 128 + the
// signal, printing no result.
TEST_F(PluginCallsTest, SignalStopsValidationAndLeavesNothingBehind) {
  InstallSlowPlugin();
  for (int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig);
    std::remove(Path(kPidFile).c_str());
    Running running = Start({"validate", std::string(kDocs) + "desired-good.json"});
    const pid_t runner = WaitForSlowPlugin();
    ASSERT_GT(runner, 0);
    const auto signalled = Clock::now();
    ASSERT_EQ(kill(running.pid, sig), 0);
    const Outcome outcome = Finish(running);
    // The monitor polls about once a second; the runner then ends at once.
    EXPECT_LT(Clock::now() - signalled, std::chrono::seconds(3));
    EXPECT_EQ(outcome.exit, 128 + sig);
    EXPECT_EQ(outcome.err, std::string("error: stopped by SIG") + sigabbrev_np(sig) + "\n");
    EXPECT_EQ(outcome.out, "");
    EXPECT_FALSE(Alive(runner));
    ExpectNoPluginFiles();
  }
}

// A runner that ignores SIGTERM keeps qenconfig waiting; a second signal
// ends qenconfig at once, and the runner dies with it.
TEST_F(PluginCallsTest, SecondSignalEndsAtOnceAndTheRunnerDiesWithIt) {
  InstallSlowPlugin();
  WriteFile(kStubborn, "");
  Running running = Start({"validate", std::string(kDocs) + "desired-good.json"});
  const pid_t runner = WaitForSlowPlugin();
  ASSERT_GT(runner, 0);
  ASSERT_EQ(kill(running.pid, SIGINT), 0);
  // Past the monitor's poll: the runner was told to stop and did not.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  int status = 0;
  EXPECT_EQ(waitpid(running.pid, &status, WNOHANG), 0);
  EXPECT_TRUE(Alive(runner));
  ASSERT_EQ(kill(running.pid, SIGINT), 0);
  const Outcome outcome = Finish(running);
  EXPECT_EQ(outcome.exit, 128 + SIGINT);
  EXPECT_TRUE(GoneWithin(runner, std::chrono::seconds(2)));
}

}  // namespace

// PluginLauncher against the real runners and the fault plugins: every way a
// runner run can end, abort, clean-up, and what the runner is handed.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "HostRoot.h"
#include "PluginHost.h"

using QenConfigManager::ConfigManagerException;
using QenConfigManager::DesiredConfigInputList;
using QenConfigManager::PluginLauncher;
using QenConfigManager::PluginMonitor;

namespace {

struct Runner {
  const char* type;
  const char* id;
  const char* module;
};
const Runner kPython{"python", "fault", ""};
const Runner kCpp{"c++", "cfault", "libfault.so"};

class LauncherTest : public QenTest::PluginHostTest, public ::testing::WithParamInterface<Runner> {
 protected:
  // Runs one APPLY call with `cue` as context; returns the launcher's
  // exception text ("" when ForkPlugin returned).
  std::string RunApply(const std::string& cue, std::shared_ptr<PluginMonitor> monitor = PluginMonitor::Dummy(),
                       const DesiredConfigInputList& inputs = {}) {
    const Runner& r = GetParam();
    std::string failure;
    {
      PluginLauncher launcher(r.id, 3, "APPLY", inputs, r.type, r.module);
      launcher.request.Dump(QenPlatform::HostPath(PluginLauncher::kInputFile), monitor->GetTaskId(), cue);
      try {
        launcher.ForkPlugin(monitor);
      } catch (const ConfigManagerException& e) {
        EXPECT_EQ(e.GetErrorCode(), 3000);
        failure = e.what();
      }
    }
    return failure;
  }
};

TEST_P(LauncherTest, CleanRunLogsEachStageAndLeavesNothingBehind) {
  EXPECT_EQ(RunApply("ok"), "");
  const std::string id = GetParam().id;
  auto lines = log_.Texts(2);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.end() - 1),
            (std::vector<std::string>{
                "Plugin Launcher created for id=" + id + ", operation=APPLY, version=3, type=" + GetParam().type,
                "Forking plugin for id=" + id, "Starting plugin monitor thread", "Stopping plugin monitor thread",
                "Config Manager plugin=" + id + ", finished successfully"}));
  const std::string& last = lines.back();
  EXPECT_EQ(last.rfind("Plugin " + id + " completed operation APPLY in ", 0), 0u) << last;
  EXPECT_EQ(last.substr(last.size() - 9), " seconds.");
  ExpectCleanAfterCall();
}

TEST_P(LauncherTest, RunnerSeesTheRequestAnEmptyEnvironmentAndTheGroupArgument) {
  DesiredConfigInputList inputs = {
      Input("network", "dns", "resolver", "", R"({"servers":["192.0.2.1"]})", "SET"),
      Input("storage", "nfs", "mount", "a", R"({"name":"a"})", "ADD"),
      Input("storage", "nfs", "mount", "b", R"({"name":"b"})", "DELETE")};
  EXPECT_EQ(RunApply("echo", std::make_shared<QenTest::CueMonitor>(), inputs), "");
  rapidjson::Document seen = ReadEcho();
  ASSERT_TRUE(seen.IsObject());
  if (std::string(GetParam().type) == "python") {
    EXPECT_STREQ(seen["id"].GetString(), "fault");
    EXPECT_STREQ(seen["type"].GetString(), "APPLY");
    EXPECT_EQ(seen["version"].GetInt(), 3);
    EXPECT_STREQ(seen["taskId"].GetString(), "task-7");
    EXPECT_STREQ(seen["context"].GetString(), "echo");
    ASSERT_EQ(seen["argv"].Size(), 2u);
    EXPECT_EQ(std::string(seen["argv"][0].GetString()),
              QenPlatform::HostPath(PluginLauncher::kPythonRunner));
    EXPECT_STREQ(seen["argv"][1].GetString(), "++group=host/ovx/tavhost/configManagerPlugin,stats");
    // The interpreter may coerce the C locale itself; nothing comes from us.
    for (auto& m : seen["environ"].GetObject()) EXPECT_STREQ(m.name.GetString(), "LC_CTYPE");
    const auto& data = seen["data"];
    ASSERT_EQ(data.Size(), 3u);
    EXPECT_STREQ(data[0]["config"].GetString(), R"({"servers":["192.0.2.1"]})");
    EXPECT_STREQ(data[2]["operation"].GetString(), "DELETE");
    EXPECT_STREQ(data[2]["id"][3].GetString(), "b");
    // Objects of one key are numbered in document order.
    EXPECT_EQ(data[0]["ordinal"].GetInt(), 0);
    EXPECT_EQ(data[1]["ordinal"].GetInt(), 0);
    EXPECT_EQ(data[2]["ordinal"].GetInt(), 1);
  } else {
    // The C++ plugin echoes the loaded request document itself.
    EXPECT_STREQ(seen["key"].GetString(), "cfault");
    EXPECT_STREQ(seen["module"].GetString(), "libfault.so");
    EXPECT_STREQ(seen["taskId"].GetString(), "task-7");
    EXPECT_STREQ(seen["clusterContext"].GetString(), "echo");
    EXPECT_EQ(seen["environ"].Size(), 0u);
    EXPECT_EQ(seen["data"].MemberCount(), 3u);
    ASSERT_EQ(seen["ordinals"].Size(), 3u);
    EXPECT_EQ(seen["ordinals"][2].GetUint64(), 1u);
    // Runner and plugin are self-contained: no library of ours, no Boost or
    // SQLite (the fault plugin does not use the store) and, outside sanitizer
    // builds, not the shared C++ runtime either; each costs every call.
    std::vector<std::string> unexpected;
    for (const auto& library : seen["libraries"].GetArray()) {
      const std::string name = library.GetString();
      for (const char* heavy : {"libqen", "libconfigmanager", "libboost", "libsqlite3"
#ifndef __SANITIZE_ADDRESS__
                                ,
                                "libstdc++"
#endif
           }) {
        if (name.find(heavy) != std::string::npos) unexpected.push_back(name);
      }
    }
    EXPECT_EQ(unexpected, std::vector<std::string>{});
  }
  ExpectCleanAfterCall();
}

TEST_P(LauncherTest, NonZeroExitReportsTheErrorNumbersText) {
  std::string failure = RunApply("exit:2");
  int pid = PidIn(failure);
  EXPECT_GT(pid, 0);
  EXPECT_EQ(failure, "Config Manager plugin failed: " + std::string(GetParam().id) + ", pid=" +
                         std::to_string(pid) + ", status=No such file or directory");
  ExpectCleanAfterCall();
}

TEST_P(LauncherTest, DeathBySignalReportsTheSignal) {
  std::string failure = RunApply("signal:9");
  EXPECT_EQ(failure, "Config Manager plugin failed: " + std::string(GetParam().id) + ", pid=" +
                         std::to_string(PidIn(failure)) + ", terminated with signal=9");
  ExpectCleanAfterCall();
}

TEST_P(LauncherTest, AbortTerminatesASleepingRunnerWithinAboutASecond) {
  // Polls come about once a second: the second poll aborts, so the runner
  // has been running (and sleeping) for a second when it is told to stop.
  auto monitor = std::make_shared<QenTest::CueMonitor>(2);
  std::string failure = RunApply("sleep", monitor);
  auto returned = std::chrono::steady_clock::now();
  EXPECT_EQ(failure, "Config Manager plugin was aborted: " + std::string(GetParam().id));
  EXPECT_GE(monitor->Polls(), 2);
  // Generous bound: the point is that one signal ends the wait, not speed.
  EXPECT_LT(returned - monitor->AbortedAt(), std::chrono::seconds(3));
  bool terminated = false;
  for (const auto& l : log_.Texts(2)) terminated |= l.rfind("Terminating plugin process: ", 0) == 0;
  EXPECT_TRUE(terminated);
  ExpectCleanAfterCall();
}

TEST_P(LauncherTest, AbortAfterACleanExitStillFailsTheCall) {
  auto monitor = std::make_shared<QenTest::CueMonitor>(0, /*callerOnly=*/true);
  EXPECT_EQ(RunApply("ok", monitor), "Config Manager plugin was aborted: " + std::string(GetParam().id));
  // The child was gone before anyone wanted it stopped.
  for (const auto& l : log_.Texts(2)) EXPECT_EQ(l.find("Terminating plugin process"), std::string::npos) << l;
  ExpectCleanAfterCall();
}

// The child exits while the monitor thread is busy in its first poll: the
// wake-up sent then must still end the thread's wait at once.
TEST_P(LauncherTest, AWakeUpSentWhileTheMonitorPollsIsNotLost) {
  class SlowFirstPoll : public PluginMonitor {
   public:
    bool IsAborted() override {
      if (first_.exchange(false)) std::this_thread::sleep_for(std::chrono::milliseconds(300));
      return false;
    }

   private:
    std::atomic<bool> first_{true};
  };
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(RunApply("ok", std::make_shared<SlowFirstPoll>()), "");
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(900));
  ExpectCleanAfterCall();
}

TEST_P(LauncherTest, MissingRunnerFailsToStartWithoutAMonitorThread) {
  const char* runner = std::string(GetParam().type) == "python" ? PluginLauncher::kPythonRunner
                                                                : PluginLauncher::kCppRunner;
  ASSERT_EQ(std::remove(Path(runner).c_str()), 0);
  EXPECT_EQ(RunApply("ok"), "Failed to fork plugin runner. No such file or directory");
  EXPECT_FALSE(log_.Contains(2, "Starting plugin monitor thread"));
  ExpectCleanAfterCall();
}

TEST_P(LauncherTest, RunnerErrorNumbersForItsOwnFailures) {
  // A plugin exception.
  std::string failure = RunApply("raise");
  EXPECT_NE(failure.find(", status=State not recoverable"), std::string::npos) << failure;
  // A plugin that names an error fails nothing at this level.
  EXPECT_EQ(RunApply("error:corvane.test.failed"), "");
  ExpectCleanAfterCall();
}

INSTANTIATE_TEST_SUITE_P(Runners, LauncherTest, ::testing::Values(kPython, kCpp),
                         [](const ::testing::TestParamInfo<Runner>& info) {
                           return std::string(info.param.type) == "python" ? "Python" : "Cpp";
                         });

class LauncherSetupTest : public QenTest::PluginHostTest {};

TEST_F(LauncherSetupTest, CppTypeWithoutModuleIsRefusedAtConstruction) {
  try {
    PluginLauncher launcher("p", 3, "APPLY", {}, "cpp", "");
    FAIL() << "constructed";
  } catch (const ConfigManagerException& e) {
    EXPECT_EQ(e.GetErrorCode(), 3000);
    EXPECT_STREQ(e.what(), "Cpp plugin must specify the shared object name.");
  }
  // "c++" and other types are not checked here: their module comes from the path.
  PluginLauncher launcher("p", 1, "IMPACT", {}, "c++", "");
  EXPECT_TRUE(log_.Contains(2, "Plugin Launcher created for id=p, operation=IMPACT, version=1, type=c++"));
}

TEST_F(LauncherSetupTest, AnyTypeButPythonRunsTheCppRunner) {
  {
    PluginLauncher launcher("cfault", 3, "APPLY", {}, "cpp", "libfault.so");
    launcher.request.Dump(QenPlatform::HostPath(PluginLauncher::kInputFile), "t", "echo");
    launcher.ForkPlugin(PluginMonitor::Dummy());
  }
  EXPECT_STREQ(ReadEcho()["module"].GetString(), "libfault.so");
}

TEST_F(LauncherSetupTest, CppRunnerErrorNumbers) {
  struct Case {
    const char* operation;
    const char* module;
    const char* status;
  };
  // libfault.so has no validate entry point; libnone.so does not exist.
  for (const Case& c : {Case{"VALIDATE", "libfault.so", "Function not implemented"},
                        Case{"APPLY", "libnone.so", "No such file or directory"},
                        Case{"APPLY", "../plugins/libfault.so", "Invalid argument"}}) {
    std::string failure;
    {
      PluginLauncher launcher("cfault", 3, c.operation, {}, "c++", c.module);
      launcher.request.Dump(QenPlatform::HostPath(PluginLauncher::kInputFile), "t", "ok");
      try {
        launcher.ForkPlugin(PluginMonitor::Dummy());
      } catch (const ConfigManagerException& e) {
        failure = e.what();
      }
    }
    EXPECT_EQ(failure, "Config Manager plugin failed: cfault, pid=" + std::to_string(PidIn(failure)) +
                           ", status=" + c.status);
  }
  ExpectCleanAfterCall();
}

// The runner reads only the head of the request and hands the call to the SDK
// linked into the plugin; each side must refuse what it cannot run.
TEST_F(LauncherSetupTest, CppRunnerRefusesWhatTheSdkCannotRun) {
  auto run = [this](const char* module, bool truncate) {
    std::string failure;
    PluginLauncher launcher("cfault", 3, "APPLY", {}, "c++", module);
    launcher.request.Dump(QenPlatform::HostPath(PluginLauncher::kInputFile), "t", "ok");
    if (truncate) {
      std::string text = ReadFile(PluginLauncher::kInputFile);
      WriteFile(PluginLauncher::kInputFile, text.substr(0, text.size() - 3), 0600);
    }
    try {
      launcher.ForkPlugin(PluginMonitor::Dummy());
    } catch (const ConfigManagerException& e) {
      failure = e.what();
    }
    return failure.substr(failure.find(", status=") + 2);
  };
  // A shared object that was not built with the SDK (any library will do).
  Dl_info libc{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&::getpid), &libc), 0);
  WriteFile("/usr/lib/corvane/configmanager/plugins/libplain.so", ReadSource(libc.dli_fname), 0755);
  EXPECT_EQ(run("libplain.so", false), "status=No such file or directory");
  // A request cut short after its module: the runner finds the plugin, the
  // SDK refuses the request.
  EXPECT_EQ(run("libfault.so", true), "status=Invalid argument");
  // Nesting 100,000 levels deep before the module: refused, not a crash.
  {
    PluginLauncher launcher("cfault", 3, "APPLY", {}, "c++", "libfault.so");
    WriteFile(PluginLauncher::kInputFile, "{\"x\": " + std::string(100000, '[') + std::string(100000, ']') +
                                              ", \"module\": \"libfault.so\"}", 0600);
    std::string failure;
    try {
      launcher.ForkPlugin(PluginMonitor::Dummy());
    } catch (const ConfigManagerException& e) {
      failure = e.what();
    }
    EXPECT_EQ(failure.substr(failure.find(", status=") + 2), "status=Invalid argument");
  }
  ExpectCleanAfterCall();
}

TEST_F(LauncherSetupTest, PythonRunnerErrorNumbers) {
  struct Case {
    const char* id;
    const char* status;
  };
  WriteFile(std::string(kModules) + "noapply/plugin.py", "def extract(call):\n    pass\n");
  for (const Case& c : {Case{"noapply", "Function not implemented"}, Case{"absent", "No such file or directory"},
                        Case{"..:fault", "Invalid argument"}}) {
    std::string failure;
    {
      PluginLauncher launcher(c.id, 3, "APPLY", {}, "python", "");
      launcher.request.Dump(QenPlatform::HostPath(PluginLauncher::kInputFile), "t", "ok");
      try {
        launcher.ForkPlugin(PluginMonitor::Dummy());
      } catch (const ConfigManagerException& e) {
        failure = e.what();
      }
    }
    EXPECT_EQ(failure, "Config Manager plugin failed: " + std::string(c.id) + ", pid=" +
                           std::to_string(PidIn(failure)) + ", status=" + c.status);
  }
  ExpectCleanAfterCall();
}

// No call may wait out the monitor thread's one-second poll: a lost wake-up
// shows as a call of about a second. A correctness bound, not a speed goal.
TEST_F(LauncherSetupTest, TwoThousandConsecutiveCallsNeverWaitOutTheMonitorPoll) {
  auto plugin = CppFaultPlugin();
  const DesiredConfigInputList inputs = ResolverInputs();
  std::chrono::steady_clock::duration slowest{};
  int failed = 0;
  for (int call = 0; call < 2000; ++call) {
    auto started = std::chrono::steady_clock::now();
    failed += !plugin->Apply(inputs, "ok", PluginMonitor::Dummy()).IsEmpty();
    slowest = std::max(slowest, std::chrono::steady_clock::now() - started);
  }
  EXPECT_EQ(failed, 0);
  EXPECT_LT(slowest, std::chrono::milliseconds(900))
      << std::chrono::duration_cast<std::chrono::milliseconds>(slowest).count() << " ms";
  ExpectCleanAfterCall();
}

TEST_F(LauncherSetupTest, MissingRequestFileIsAnInvalidArgumentForBothRunners) {
  for (const char* type : {"python", "c++"}) {
    std::string failure;
    {
      PluginLauncher launcher("fault", 3, "APPLY", {}, type, "libfault.so");
      try {
        launcher.ForkPlugin(PluginMonitor::Dummy());  // nothing dumped
      } catch (const ConfigManagerException& e) {
        failure = e.what();
      }
    }
    EXPECT_NE(failure.find(", status=Invalid argument"), std::string::npos) << type << ": " << failure;
  }
  ExpectCleanAfterCall();
}

}  // namespace

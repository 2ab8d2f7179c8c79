// A thousand consecutive plugin calls through both runners, mixing success,
// plugin errors, non-zero exits, signals, garbage, missing and oversized
// results, and hangs ended by an abort: each call ends in its exact
// ErrorInfo, and afterwards the process has the same children (none),
// threads and open descriptors as before and the lifecycle directory holds
// no request or result file.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>

#include "../plugin/PluginHost.h"
#include "PluginSupport.h"

using namespace QenConfigManager;

namespace {

constexpr const char* kManifest = R"({"version": 3, "type": "python", "accepts": ["network:dns:resolver"],
  "apply": {"apply_group": "network", "boot": false, "REMEDIATE": {"provides": "s", "depends": []}},
  "extract": {"supports": true}, "impact": {"supports": true}})";
constexpr const char* kLifecycle = "/var/corvane/lifecycle";

// Aborts from a moment after it was made: the launcher's monitor thread
// sees it at its first poll after that (polls are a second apart), so the
// runner has been hanging by then.
class DeadlineMonitor : public PluginMonitor {
 public:
  bool IsAborted() override { return std::chrono::steady_clock::now() >= deadline_; }

 private:
  const std::chrono::steady_clock::time_point deadline_ =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
};

// How a call may end: "" success, "error" the plugin's own error, else the
// operation's message identifier suffix ("unexpected.error", "aborted").
struct Fault {
  const char* cue;
  const char* end;
};
// One cycle of what the calls do; hangs are added at fixed calls (below).
const Fault kCycle[] = {
    {"ok", ""},           {"exit:1", "unexpected.error"},   {"signal:11", "unexpected.error"},
    {"huge", ""},         {"garbage", "unexpected.error"},   {"error:corvane.test.failed", "error"},
    {"none", "unexpected.error"}, {"exit:127", "unexpected.error"}, {"noise", "unexpected.error"},
    {"signal:9", "unexpected.error"}, {"raise", "unexpected.error"}, {"ok", ""},
    {"signal:6", "unexpected.error"},
};

struct Resources {
  int children = 0;
  int threads = 0;
  std::vector<std::string> descriptors;  // what each open descriptor refers to
  std::vector<std::string> lifecycle;    // files in the lifecycle directory
};

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.' || (e->d_name[1] && (e->d_name[1] != '.' || e->d_name[2])))
        names.push_back(e->d_name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Processes whose parent is this one, zombies included.
int ChildCount() {
  int n = 0;
  for (const std::string& pid : Entries("/proc")) {
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in("/proc/" + pid + "/stat");
    std::string stat;
    std::getline(in, stat);
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    int ppid = 0;
    if (std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && ppid == getpid()) ++n;
  }
  return n;
}

class PluginFaultsTest : public QenTest::PluginHostTest {
 protected:
  void SetUp() override {
    PluginHostTest::SetUp();
    WriteFile(std::string(kModules) + "fault/manifest.json", kManifest);
    python_ = std::make_shared<Plugin>((std::string(kModules) + "fault/manifest.json").c_str());
    cpp_ = CppFaultPlugin();
  }

  Resources Now() {
    Resources r;
    r.children = ChildCount();
    // A joined thread can linger in /proc/self/task for a moment.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while ((r.threads = ThreadCount()) > threadsBefore_ && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    for (const std::string& fd : Entries("/proc/self/fd")) {
      char target[512] = "";
      const ssize_t n = readlink(("/proc/self/fd/" + fd).c_str(), target, sizeof target - 1);
      // The listing's own descriptor is gone by now.
      if (n > 0) r.descriptors.push_back(std::string(target, n));
    }
    std::sort(r.descriptors.begin(), r.descriptors.end());
    r.lifecycle = Entries(Path(kLifecycle));
    return r;
  }

  // One call of the operation `op` (0 apply, 1 impact, 2 extract).
  ErrorInfo Call(const Plugin& plugin, int op, const std::string& cue, const std::shared_ptr<PluginMonitor>& monitor) {
    const DesiredConfigInputList inputs = ResolverInputs();
    switch (op) {
      case 0: return plugin.Apply(inputs, cue, monitor);
      case 1: return plugin.Impact(inputs, cue, monitor).errorInfo;
      default: return plugin.Extract({inputs[0].object->GetConfigStoreObjectId()}, cue, monitor).errorInfo;
    }
  }

  std::shared_ptr<Plugin> python_, cpp_;
};

TEST_F(PluginFaultsTest, AThousandFaultyCallsLeaveNothingBehind) {
  // Each runner once, so that what the first call sets up for good (the
  // lock file, the log file, caches) is in place before counting.
  ASSERT_TRUE(Call(*python_, 0, "ok", PluginMonitor::Dummy()).msgId.empty());
  ASSERT_TRUE(Call(*cpp_, 0, "ok", PluginMonitor::Dummy()).msgId.empty());
  const Resources before = Now();
  ASSERT_EQ(before.children, 0);

  const char* kOperations[] = {"apply", "impact", "extract"};
  std::map<std::string, int> ends;
  int wrong = 0;
  for (int i = 0; i < 1000 && wrong < 10; ++i) {
    const bool python = i % 10 == 9;
    const Plugin& plugin = python ? *python_ : *cpp_;
    const int op = i % 3;
    // Twenty hangs, ten per runner, each ended by an abort about a second in.
    const bool hang = i % 100 == 49 || i % 100 == 50;
    const Fault fault = hang ? Fault{"sleep", "aborted"} : kCycle[i % (sizeof kCycle / sizeof kCycle[0])];
    std::shared_ptr<PluginMonitor> monitor =
        hang ? std::make_shared<DeadlineMonitor>() : PluginMonitor::Dummy();

    const ErrorInfo got = Call(plugin, op, fault.cue, monitor);
    const std::string id = plugin.GetId();
    const std::string end = fault.end;
    ErrorInfo expected("", {}, "DNS resolver");
    if (end == "error") expected = ErrorInfo("corvane.test.failed", {id, "detail"}, "DNS resolver");
    else if (!end.empty())
      expected = ErrorInfo(std::string("corvane.qen.settings.") + kOperations[op] + ".plugin." + end, {id});
    const bool right = got == expected;
    wrong += !right;
    EXPECT_TRUE(right) << "call " << i << " (" << id << ", " << kOperations[op] << ", " << fault.cue << "): got "
                       << ::testing::PrintToString(got) << ", expected " << ::testing::PrintToString(expected);
    ++ends[end.empty() ? "success" : end];
    // No call leaves its files or its runner behind.
    ASSERT_EQ(Entries(Path(kLifecycle)), before.lifecycle) << "call " << i;
    ASSERT_EQ(ChildCount(), 0) << "call " << i;
  }
  EXPECT_EQ(ends["aborted"], 20);
  for (const char* end : {"success", "error", "unexpected.error"}) EXPECT_GE(ends[end], 50) << end;

  const Resources after = Now();
  EXPECT_EQ(after.children, 0);
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.lifecycle, before.lifecycle);
  EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-input.json"));
  EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-output.json"));
}

}  // namespace

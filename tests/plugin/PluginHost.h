// Test fixture for plugin calls with the real runners: a temporary host root
// holding the sample host plus the fault plugins of tests/plugins-fixtures
// (Python id "fault", C++ module "libfault.so"), and a monitor that aborts on
// cue. Shared by test_plugin and test_runners.
#pragma once

#include <dirent.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "configmanager/plugin.h"

namespace QenConfigManager {
inline void PrintTo(const ErrorInfo& e, std::ostream* os) {
  *os << "{msgId=\"" << e.msgId << "\", args=[";
  for (const auto& a : e.args) *os << "\"" << a << "\" ";
  *os << "], message=\"" << e.message << "\"}";
}
}  // namespace QenConfigManager

namespace QenTest {

// Aborts when told to, or from the n-th poll on; counts the polls. Optionally
// answers "aborted" only to the thread that created it (the caller), which
// makes an abort that arrives after the child exited.
class CueMonitor : public QenConfigManager::PluginMonitor {
 public:
  explicit CueMonitor(int abortAtPoll = 0, bool callerOnly = false)
      : abortAtPoll_(abortAtPoll), callerOnly_(callerOnly), caller_(std::this_thread::get_id()) {}

  bool IsAborted() override {
    if (callerOnly_) return std::this_thread::get_id() == caller_;
    int n = ++polls_;
    if (abortAtPoll_ > 0 && n >= abortAtPoll_) {
      bool expected = false;
      if (aborted_.compare_exchange_strong(expected, true)) abortedAt_ = std::chrono::steady_clock::now();
    }
    return aborted_.load();
  }
  std::string GetTaskId() override { return "task-7"; }

  int Polls() const { return polls_.load(); }
  std::chrono::steady_clock::time_point AbortedAt() const { return abortedAt_; }

 private:
  const int abortAtPoll_;
  const bool callerOnly_;
  const std::thread::id caller_;
  std::atomic<int> polls_{0};
  std::atomic<bool> aborted_{false};
  std::chrono::steady_clock::time_point abortedAt_;
};

class PluginHostTest : public HostRootTest {
 protected:
  static constexpr const char* kModules = "/usr/lib/corvane/configmanager/apply_modules/";
  static constexpr const char* kEcho = "/var/corvane/lifecycle/echo.json";

  void SetUp() override {
    HostRootTest::SetUp();
    InstallSampleHost();
    WriteFile(std::string(kModules) + "fault/plugin.py",
              ReadSource(QEN_SOURCE_DIR "/tests/plugins-fixtures/python/plugin.py"));
    WriteFile("/usr/lib/corvane/configmanager/plugins/libfault.so",
              ReadSource(QEN_BINARY_DIR "/test-plugins/libfault.so"), 0755);
    WriteFile("/var/corvane/lifecycle/.keep", "");
    threadsBefore_ = ThreadCount();
  }

  static std::string ReadSource(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << "missing fixture " << path;
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  static int ThreadCount() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/task")) {
      while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
      closedir(d);
    }
    return n;
  }

  // Nothing left behind by a plugin call: no request or result file, no
  // child process, no extra thread.
  void ExpectCleanAfterCall() {
    EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-input.json"));
    EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-output.json"));
    int status;
    errno = 0;
    EXPECT_EQ(waitpid(-1, &status, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    // A joined thread can linger in /proc/self/task for a moment after its
    // join returns (the kernel reaps it after clearing its id).
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (ThreadCount() > threadsBefore_ && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(ThreadCount(), threadsBefore_);
  }

  static QenConfigManager::DesiredConfigInput Input(const std::string& component, const std::string& group,
                                                    const std::string& key, const std::string& instance,
                                                    const std::string& config, const std::string& operation) {
    QenConfigManager::DesiredConfigInput input;
    input.object = QenConfigStore::CreateObject(QenConfigStore::ConfigStoreObjectId(key, group, component, instance),
                                                config);
    input.operation = operation;
    return input;
  }

  // The C++ fault plugin as a version 3 apply plugin "cfault" for the
  // resolver key (manifest apply_modules/cfault/, module libcfault.so).
  std::shared_ptr<QenConfigManager::Plugin> CppFaultPlugin() {
    const std::string manifest = std::string(kModules) + "cfault/manifest.json";
    WriteFile(manifest, R"({"version": 3, "type": "c++", "accepts": ["network:dns:resolver"],
      "apply": {"apply_group": "network", "boot": false, "REMEDIATE": {"provides": "x", "depends": []}}})");
    WriteFile("/usr/lib/corvane/configmanager/plugins/libcfault.so",
              ReadFile("/usr/lib/corvane/configmanager/plugins/libfault.so"), 0755);
    return std::make_shared<QenConfigManager::Plugin>(manifest.c_str());
  }

  static QenConfigManager::DesiredConfigInputList ResolverInputs() {
    return {Input("network", "dns", "resolver", "", R"({"servers":["192.0.2.1"]})", "SET")};
  }

  rapidjson::Document ReadEcho() const {
    rapidjson::Document doc;
    doc.Parse(ReadFile(kEcho).c_str());
    EXPECT_FALSE(doc.HasParseError()) << "no echo from the plugin";
    return doc;
  }

  // The pid in "... pid=<n>, ..." of a launcher message; -1 when absent.
  static int PidIn(const std::string& message) {
    size_t at = message.find("pid=");
    return at == std::string::npos ? -1 : std::atoi(message.c_str() + at + 4);
  }

  int threadsBefore_ = 0;
};

}  // namespace QenTest

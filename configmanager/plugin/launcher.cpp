#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "CSLogger.h"
#include "HostRoot.h"
#include "Process.h"
#include "configmanager/plugin.h"

namespace QenConfigManager {
namespace {

// What ForkPlugin and its monitor thread share for one child. `done` is
// read and written under `mutex` only, and the thread's wait checks it as its
// predicate, so the wake-up that ForkPlugin sends when the child has exited
// cannot fall between the thread's check and its wait.
struct MonitorState {
  bool done = false;
  std::mutex mutex;
  std::condition_variable wake;
  pid_t pid = -1;
  std::shared_ptr<PluginMonitor> monitor;
};

void MonitorChild(MonitorState& state) {
  CSLogger::Log(2, "Starting plugin monitor thread");
  std::unique_lock<std::mutex> lock(state.mutex);
  while (!state.done) {
    // The caller's IsAborted may take its time: not under the lock.
    lock.unlock();
    const bool aborted = state.monitor->IsAborted();
    lock.lock();
    if (aborted) {
      if (!state.done) {
        CSLogger::Log(2, "Terminating plugin process: %d", static_cast<int>(state.pid));
        if (QenPlatform::SignalProcess(state.pid, SIGTERM) != 0) {
          int err = errno;
          CSLogger::Log(2, "Unable to terminate plugin process: %d -- %s",
                        static_cast<int>(state.pid), strerror(err));
        }
      }
      break;
    }
    // The abort flag is polled about once a second.
    state.wake.wait_for(lock, std::chrono::seconds(1), [&state] { return state.done; });
  }
  lock.unlock();
  CSLogger::Log(2, "Stopping plugin monitor thread");
}

// Throws ConfigManagerException 3000 with a message formatted by Str_Asprintf.
template <typename... Args>
[[noreturn]] void ThrowFormatted(const char* format, Args... args) {
  char* text = Str_Asprintf(format, args...);
  std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
  throw ConfigManagerException(UNEXPECTED_ERROR, owned.get());
}

}  // namespace

PluginLauncher::PluginLauncher(const std::string& id, int version, const std::string& operation,
                               const DesiredConfigInputList& inputs, const std::string& type,
                               std::string module)
    : PluginLauncher(PluginRequest(id, operation, module, version, inputs), id, version, operation, type,
                     module) {}

PluginLauncher::PluginLauncher(PluginRequest request, const std::string& id, int version,
                               const std::string& operation, const std::string& type,
                               std::string module)
    : request(std::move(request)),
      id(id),
      operation(operation),
      type(type),
      start(std::chrono::steady_clock::now()) {
  output.SetObject();
  CheckAndLog(version, module);
}

void PluginLauncher::CheckAndLog(int version, const std::string& module) const {
  if (type == "cpp" && module.empty()) {
    throw ConfigManagerException(UNEXPECTED_ERROR, "Cpp plugin must specify the shared object name.");
  }
  CSLogger::Log(2, "Plugin Launcher created for id=%s, operation=%s, version=%d, type=%s", id.c_str(),
                operation.c_str(), version, type.c_str());
}

PluginLauncher::~PluginLauncher() {
  std::remove(QenPlatform::HostPath(kInputFile).c_str());
  std::remove(QenPlatform::HostPath(kOutputFile).c_str());
  auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::steady_clock::now() - start);
  CSLogger::Log(2, "Plugin %s completed operation %s in %lf seconds.", id.c_str(), operation.c_str(),
                static_cast<double>(elapsed.count()) / 1000000000.0);
}

void PluginLauncher::ForkPlugin(const std::shared_ptr<PluginMonitor>& monitor) {
  CSLogger::Log(2, "Forking plugin for id=%s", id.c_str());
  const std::string runner = QenPlatform::HostPath(type == "python" ? kPythonRunner : kCppRunner);

  // Only what this runner writes may be read back as its result.
  ::unlink(QenPlatform::HostPath(kOutputFile).c_str());

  MonitorState state;
  state.monitor = monitor ? monitor : PluginMonitor::Dummy();
  int spawnError = QenPlatform::SpawnProcess(runner, {runner, kResourceGroup}, &state.pid);
  if (spawnError != 0) {
    throw ConfigManagerException(UNEXPECTED_ERROR,
                                 (std::string("Failed to fork plugin runner. ") + strerror(spawnError)).c_str());
  }

  std::thread watcher;
  try {
    watcher = std::thread(MonitorChild, std::ref(state));
  } catch (...) {
    // Without a watcher nobody could abort the child: do not leave it behind.
    QenPlatform::SignalProcess(state.pid, SIGKILL);
    int ignored;
    while (QenPlatform::WaitProcess(state.pid, &ignored) < 0 && errno == EINTR) {
    }
    throw;
  }

  int status = 0;
  pid_t waited;
  while ((waited = QenPlatform::WaitProcess(state.pid, &status)) < 0 && errno == EINTR) {
  }
  int waitError = errno;

  {
    std::lock_guard<std::mutex> lock(state.mutex);
    state.done = true;
  }
  state.wake.notify_all();
  watcher.join();

  const int pid = static_cast<int>(state.pid);
  if (waited < 0) ThrowFormatted("waitpid failed on pid=%d, error=%s", pid, strerror(waitError));
  if (state.monitor->IsAborted()) ThrowFormatted("Config Manager plugin was aborted: %s", id.c_str());
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    ThrowFormatted("Config Manager plugin failed: %s, pid=%d, status=%s", id.c_str(), pid,
                   strerror(WEXITSTATUS(status)));
  }
  if (WIFSIGNALED(status)) {
    ThrowFormatted("Config Manager plugin failed: %s, pid=%d, terminated with signal=%d", id.c_str(), pid,
                   WTERMSIG(status));
  }
  CSLogger::Log(2, "Config Manager plugin=%s, finished successfully", id.c_str());
}

}  // namespace QenConfigManager

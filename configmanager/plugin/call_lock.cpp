#include "plugin/call_lock.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include "HostFiles.h"
#include "HostRoot.h"

namespace QenConfigManager {
namespace {

constexpr std::chrono::milliseconds kDefaultTimeout(300000);
std::atomic<long long> g_timeoutMs{kDefaultTimeout.count()};

std::string Duration(std::chrono::milliseconds d) {
  return d.count() % 1000 == 0 ? std::to_string(d.count() / 1000) + " seconds" : std::to_string(d.count()) + " ms";
}

}  // namespace

std::chrono::milliseconds PluginLockTimeout() { return std::chrono::milliseconds(g_timeoutMs.load()); }

void SetPluginLockTimeout(std::chrono::milliseconds timeout) {
  g_timeoutMs.store(timeout.count() > 0 ? timeout.count() : kDefaultTimeout.count());
}

PluginCallLock::PluginCallLock(const std::string& pluginId, PluginMonitor& monitor) {
  const std::string path = QenPlatform::HostPath(PluginLauncher::kLockFile);
  // The lifecycle directory holds configuration values while a call runs.
  QenPlatform::MakeDirectories(path.substr(0, path.rfind('/')), 0700);
  const std::chrono::milliseconds timeout = PluginLockTimeout();
  switch (lock_.Acquire(path, timeout, [&monitor] { return monitor.IsAborted(); })) {
    case QenPlatform::HostLock::kAcquired:
      return;
    case QenPlatform::HostLock::kAborted:
      throw ConfigManagerException(UNEXPECTED_ERROR, ("Config Manager plugin was aborted: " + pluginId).c_str());
    case QenPlatform::HostLock::kTimedOut:
      throw ConfigManagerException(
          UNEXPECTED_ERROR,
          ("Plugin " + pluginId + " was not run: another plugin call on this host held " +
           PluginLauncher::kLockFile + " for more than " + Duration(timeout))
              .c_str());
    case QenPlatform::HostLock::kFailed:
      break;
  }
  throw ConfigManagerException(UNEXPECTED_ERROR, ("Plugin " + pluginId + " was not run: cannot lock " +
                                                  PluginLauncher::kLockFile + ": " + std::strerror(errno))
                                                     .c_str());
}

}  // namespace QenConfigManager

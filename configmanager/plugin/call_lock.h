// Internal: one plugin call at a time per host. The request and result files
// have fixed paths, so every plugin call, in any process, holds this lock
// from before its request file is written until both files are removed.
#pragma once

#include <chrono>
#include <string>

#include "HostLock.h"
#include "configmanager/plugin.h"

namespace QenConfigManager {

class PluginCallLock {
 public:
  // Waits for the lock (PluginLauncher::kLockFile) for at most
  // PluginLockTimeout(), honouring the monitor's abort. Throws
  // ConfigManagerException 3000 when it gives up: aborted, timed out, or the
  // lock file cannot be used. Creates the lock file's directory (0700).
  PluginCallLock(const std::string& pluginId, PluginMonitor& monitor);

 private:
  QenPlatform::HostLock lock_;
};

// How long a plugin call waits for another one to finish: 300 s.
std::chrono::milliseconds PluginLockTimeout();
// For tests: a shorter wait (zero or less restores the default).
void SetPluginLockTimeout(std::chrono::milliseconds timeout);

}  // namespace QenConfigManager

#include "Process.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace QenPlatform {
namespace {

// RAII for the spawn attribute objects, so every early return releases them.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  int error = 0;

  SpawnSetup() {
    if ((error = posix_spawn_file_actions_init(&actions)) != 0) return;
    if ((error = posix_spawnattr_init(&attr)) != 0) {
      posix_spawn_file_actions_destroy(&actions);
      return;
    }
    initialised = true;
  }
  ~SpawnSetup() {
    if (!initialised) return;
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
  }
  bool initialised = false;
};

}  // namespace

int SpawnProcess(const std::string& path, const std::vector<std::string>& argv, pid_t* pid) {
  SpawnSetup setup;
  if (!setup.initialised) return setup.error;

  // Only 0, 1 and 2 reach the child: descriptors the caller opened without
  // close-on-exec (store connections, sockets) are none of a plugin's business.
  int rc = posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
  if (rc != 0) return rc;

  // A caller that blocks or ignores SIGTERM must not pass that on: the
  // launcher ends an aborted runner with it.
  sigset_t empty, defaults;
  sigemptyset(&empty);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGHUP);
  if ((rc = posix_spawnattr_setsigmask(&setup.attr, &empty)) != 0) return rc;
  if ((rc = posix_spawnattr_setsigdefault(&setup.attr, &defaults)) != 0) return rc;
  // glibc spawns with clone(CLONE_VM|CLONE_VFORK): no copy of the caller's
  // page tables, whatever its size.
  if ((rc = posix_spawnattr_setflags(&setup.attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF)) != 0)
    return rc;

  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  char* env[] = {nullptr};

  pid_t child = -1;
  rc = posix_spawn(&child, path.c_str(), &setup.actions, &setup.attr, args.data(), env);
  if (rc != 0) return rc;
  *pid = child;
  return 0;
}

pid_t WaitProcess(pid_t pid, int* status) { return waitpid(pid, status, 0); }

int SignalProcess(pid_t pid, int signal) { return kill(pid, signal); }

}  // namespace QenPlatform

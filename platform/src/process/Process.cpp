#include "Process.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

namespace QenPlatform {
namespace {

// The child shares the caller's memory until it execs (CLONE_VM), like
// posix_spawn's: nothing of the caller's address space is copied, so the
// cost does not grow with the caller's size. Until exec the child makes raw
// system calls only: no allocation, no libc state, nothing a sanitizer
// intercepts.
struct ChildSetup {
  const char* path;
  char* const* argv;
  char* const* envp;
  pid_t parent;
  long openMax;  // descriptor limit, for closing without close_range
  int error;     // set by the child when it could not exec
};

// The kernel's struct sigaction: the handler comes first on every
// architecture; zeroes elsewhere mean no flags, no restorer, empty mask.
struct KernelSigaction {
  void (*handler)(int);
  unsigned long words[7];
};
constexpr unsigned long kSigsetSize = 8;

constexpr size_t kChildStack = 64 * 1024;

long Sys(long number, long a = 0, long b = 0, long c = 0, long d = 0) {
  return syscall(number, a, b, c, d);
}

__attribute__((no_sanitize("address", "undefined"))) bool ResetsToDefault(int sig,
                                                                          const KernelSigaction& old) {
  // Handlers would run the caller's code in the child. The signals that stop
  // a runner are reset even when the caller ignores them: the launcher ends
  // an aborted runner with SIGTERM.
  if (old.handler != SIG_DFL && old.handler != SIG_IGN) return true;
  return old.handler == SIG_IGN && (sig == SIGTERM || sig == SIGINT || sig == SIGPIPE || sig == SIGHUP);
}

__attribute__((no_sanitize("address", "undefined"))) int ChildMain(void* arg) {
  ChildSetup* setup = static_cast<ChildSetup*>(arg);
  for (int sig = 1; sig < 65; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP) continue;
    KernelSigaction old{};
    if (Sys(SYS_rt_sigaction, sig, 0, reinterpret_cast<long>(&old), kSigsetSize) != 0) continue;
    if (!ResetsToDefault(sig, old)) continue;
    KernelSigaction dfl{};
    dfl.handler = SIG_DFL;
    Sys(SYS_rt_sigaction, sig, reinterpret_cast<long>(&dfl), 0, kSigsetSize);
  }
  // The runner dies with its caller, whatever ends the caller. If the caller
  // died before this, the child has a new parent and no signal will come:
  // it must not run at all.
  if (Sys(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL) != 0 || Sys(SYS_getppid) != setup->parent) {
    setup->error = ESRCH;
    Sys(SYS_exit_group, 127);
  }
  // Only 0, 1 and 2 reach the child: descriptors the caller opened without
  // close-on-exec (store connections, sockets, a lock) are none of a
  // plugin's business.
  if (Sys(SYS_close_range, 3, static_cast<long>(~0U), 0) != 0) {
    for (long fd = 3; fd < setup->openMax; ++fd) Sys(SYS_close, fd);
  }
  const uint64_t empty = 0;
  Sys(SYS_rt_sigprocmask, SIG_SETMASK, reinterpret_cast<long>(&empty), 0, kSigsetSize);
  long rc = Sys(SYS_execve, reinterpret_cast<long>(setup->path), reinterpret_cast<long>(setup->argv),
                reinterpret_cast<long>(setup->envp));
  setup->error = rc < 0 ? errno : ENOEXEC;
  Sys(SYS_exit_group, 127);
  return 127;
}

}  // namespace

int SpawnProcess(const std::string& path, const std::vector<std::string>& argv, pid_t* pid) {
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  char* env[] = {nullptr};

  struct rlimit files {};
  ChildSetup setup{path.c_str(), args.data(), env, getpid(),
                   getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY
                       ? static_cast<long>(files.rlim_cur)
                       : 65536,
                   0};

  void* stack = mmap(nullptr, kChildStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stack == MAP_FAILED) return errno;

  // No handler of the caller may run in the child before it has reset them.
  sigset_t all, saved;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &saved);
  // CLONE_VFORK: this thread resumes once the child has exec'd or exited.
  pid_t child = clone(ChildMain, static_cast<char*>(stack) + kChildStack, CLONE_VM | CLONE_VFORK | SIGCHLD, &setup);
  const int cloneError = errno;
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  munmap(stack, kChildStack);

  if (child < 0) return cloneError;
  if (setup.error != 0) {
    int status;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return setup.error;
  }
  *pid = child;
  return 0;
}

pid_t WaitProcess(pid_t pid, int* status) { return waitpid(pid, status, 0); }

int SignalProcess(pid_t pid, int signal) { return kill(pid, signal); }

}  // namespace QenPlatform

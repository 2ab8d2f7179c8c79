// Child processes of the host: start a program, wait for it, signal it.
//
// SpawnProcess starts a program the way the host starts its plugin runners:
// with the given argument vector, an empty environment, the caller's
// descriptors 0, 1 and 2 and no other descriptor, an empty signal mask and
// default dispositions for the termination signals. The child dies with its
// caller: it gets SIGKILL when the thread that spawned it ends (with the
// process, whatever ends it), and does not start at all when the caller is
// already gone. It does not copy the caller's address space (no page-table
// copy), so its cost does not grow with the caller's memory. Thread-safe;
// the calling thread owns the child and must wait for it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace QenPlatform {

// Starts `path` (a physical path) with `argv` (argv[0] included). Returns 0 and
// stores the child's process id in *pid, or returns an error number (errno
// value) when the program could not be started (missing, not executable, ...).
int SpawnProcess(const std::string& path, const std::vector<std::string>& argv, pid_t* pid);

// waitpid(pid, status, 0) once: returns the process id, or -1 with errno set
// (EINTR included: callers decide whether to retry).
pid_t WaitProcess(pid_t pid, int* status);

// kill(pid, signal): 0, or -1 with errno set.
int SignalProcess(pid_t pid, int signal);

}  // namespace QenPlatform

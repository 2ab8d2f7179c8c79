// An exclusive lock that processes of one host take on a lock file, to use
// something fixed (the plugin request and result files) one at a time.
//
// flock(2) on a descriptor of its own: the kernel releases the lock when the
// holder closes it or dies, however it dies, so a crashed holder never
// blocks anyone and the lock file itself is never removed. Two objects
// exclude each other also within one process. An object is used by one
// thread; it holds at most one lock.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace QenPlatform {

class HostLock {
 public:
  enum Result { kAcquired, kTimedOut, kAborted, kFailed };

  HostLock() = default;
  ~HostLock() { Release(); }
  HostLock(const HostLock&) = delete;
  HostLock& operator=(const HostLock&) = delete;

  // Opens (creating it owner-only, never through a symbolic link) the lock
  // file at physical `path` and waits for the lock for at most `timeout`.
  // `aborted`, when given, is asked between attempts (every few
  // milliseconds) and ends the wait with kAborted. kFailed, with errno set,
  // when the file cannot be opened or locked.
  Result Acquire(const std::string& path, std::chrono::milliseconds timeout,
                 const std::function<bool()>& aborted = nullptr);
  // Releases the lock, if held.
  void Release();
  bool Held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace QenPlatform

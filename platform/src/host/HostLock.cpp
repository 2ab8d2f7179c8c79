#include "HostLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

namespace QenPlatform {

HostLock::Result HostLock::Acquire(const std::string& path, std::chrono::milliseconds timeout,
                                   const std::function<bool()>& aborted) {
  Release();
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return kFailed;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // Polled rather than blocking, so that an abort or the deadline ends the
  // wait; short sleeps first, since most calls that wait are short.
  std::chrono::milliseconds pause(1);
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      fd_ = fd;
      return kAcquired;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      const int err = errno;
      ::close(fd);
      errno = err;
      return kFailed;
    }
    const bool stop = aborted && aborted();
    if (stop || std::chrono::steady_clock::now() >= deadline) {
      ::close(fd);
      return stop ? kAborted : kTimedOut;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(20));
  }
}

void HostLock::Release() {
  if (fd_ < 0) return;
  ::close(fd_);  // releases the lock
  fd_ = -1;
}

}  // namespace QenPlatform

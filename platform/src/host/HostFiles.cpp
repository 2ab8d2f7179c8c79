#include "HostFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "HostRoot.h"

namespace QenPlatform {

bool ReadWholeFile(const std::string& path, std::string& out, bool* opened) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (opened) *opened = fd >= 0;
  if (fd < 0) return false;
  std::string text;
  struct stat st;
  // The size is a hint: files such as /proc entries report 0 and still read.
  if (::fstat(fd, &st) == 0 && st.st_size > 0) text.reserve(static_cast<size_t>(st.st_size) + 1);
  char chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      int err = errno;
      ::close(fd);
      errno = err;
      return false;
    }
  }
  ::close(fd);
  out.swap(text);
  return true;
}

bool MakeDirectories(const std::string& dir, mode_t mode) {
  for (size_t end = dir.find('/', 1);; end = dir.find('/', end + 1)) {
    const std::string prefix = dir.substr(0, end);
    if (!prefix.empty()) {
      if (::mkdir(prefix.c_str(), mode) == 0) {
        // The umask may have taken bits away.
        if (::chmod(prefix.c_str(), mode) != 0) return false;
      } else if (errno != EEXIST) {
        return false;
      }
    }
    if (end == std::string::npos) return true;
  }
}

int CreatePrivateFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return -1;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  if (::fchmod(fd, 0600) != 0) {
    const int err = errno;
    ::close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReplaceFile(const std::string& path, const std::string& text, int mode) {
  const std::string temporary = path + ".new";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  // The umask filters open's mode; the caller decides the file's mode.
  bool ok = WriteAll(fd, text.data(), text.size()) && ::fchmod(fd, static_cast<mode_t>(mode)) == 0;
  int err = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    err = errno;
  }
  if (ok && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
  if (ok) err = errno;
  ::unlink(temporary.c_str());
  errno = err;
  return false;
}

namespace {
std::atomic<int> g_failRemoveAfter{0};
}  // namespace

int RemoveFile(const std::string& path) {
  if (g_failRemoveAfter.load() > 0 && g_failRemoveAfter.fetch_sub(1) == 1) return EBUSY;
  return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

void FailNthRemove(int n) { g_failRemoveAfter.store(n > 0 ? n : 0); }

bool ReadHostJson(const std::string& logical, rapidjson::Document& doc, std::string* error) {
  std::string text;
  if (!ReadWholeFile(HostPath(logical), text)) {
    if (error) *error = "cannot read host file \"" + logical + "\": " + std::strerror(errno);
    return false;
  }
  const JsonParseResult parsed = ParseJson(text, doc);
  if (!parsed) {
    if (error) *error = "host file \"" + logical + "\" is not valid JSON: " + parsed.reason;
    return false;
  }
  if (!doc.IsObject()) {
    if (error) *error = "host file \"" + logical + "\" is not a JSON object";
    return false;
  }
  return true;
}

}  // namespace QenPlatform

#include "HostFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

bool ReadHostJson(const std::string& logical, rapidjson::Document& doc, std::string* error) {
  std::string text;
  if (!ReadWholeFile(HostPath(logical), text)) {
    if (error) *error = "cannot read host file \"" + logical + "\": " + std::strerror(errno);
    return false;
  }
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) {
    if (error)
      *error = "host file \"" + logical + "\" is not valid JSON: " +
               rapidjson::GetParseError_En(doc.GetParseError()) + " at offset " +
               std::to_string(doc.GetErrorOffset());
    return false;
  }
  if (!doc.IsObject()) {
    if (error) *error = "host file \"" + logical + "\" is not a JSON object";
    return false;
  }
  return true;
}

}  // namespace QenPlatform

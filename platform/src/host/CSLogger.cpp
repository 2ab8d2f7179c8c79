#include "CSLogger.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>


#include "HostFiles.h"
#include "HostRoot.h"

namespace CSLogger {
namespace {

// Lines of this priority and above are buffered; lower ones (failures,
// notes) are written at once, after whatever is buffered.
constexpr int kBufferedPriority = 2;
// Buffered lines are written when they reach this size or age, and at exit
// and before a fork.
constexpr size_t kBufferBytes = 8192;
constexpr time_t kBufferSeconds = 1;

struct LoggerState {
  std::mutex mutex;
  int stderrLevel = -1;
  int fileLevel = kDefaultFileLevel;
  size_t rotateBytes = kRotateBytes;
  std::vector<Capture*> captures;
  std::string openPath;
  int fd = -1;
  std::string pending;
  time_t pendingSince = 0;
  bool hooksInstalled = false;
  pid_t pid = getpid();
  // "<time> [<pid>] ", the start of every line of one second.
  time_t stampSecond = -1;
  std::string stamp;
};

LoggerState& State() {
  static LoggerState* state = new LoggerState();  // outlives static destructors
  return *state;
}

int OpenLog(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) fchmod(fd, 0600);
  return fd;
}

// Keeps the log bounded: past the size limit the file becomes "<log>.1",
// older ones move up one, the oldest beyond kRotateKeep goes. Several
// processes share the file: one that finds the path already rotated by
// another (a different file there) only reopens it.
void RotateIfFull(LoggerState& s) {
  struct stat opened, named;
  if (fstat(s.fd, &opened) != 0 || static_cast<size_t>(opened.st_size) < s.rotateBytes) return;
  if (stat(s.openPath.c_str(), &named) == 0 && named.st_ino == opened.st_ino && named.st_dev == opened.st_dev) {
    for (int i = kRotateKeep - 1; i >= 1; --i)
      rename((s.openPath + "." + std::to_string(i)).c_str(), (s.openPath + "." + std::to_string(i + 1)).c_str());
    rename(s.openPath.c_str(), (s.openPath + ".1").c_str());
  }
  const int fd = OpenLog(s.openPath);
  if (fd < 0) return;  // keep writing where we were rather than lose lines
  close(s.fd);
  s.fd = fd;
}

// Writes the buffered lines; the caller holds the mutex.
void WritePending(LoggerState& s) {
  if (s.fd >= 0 && !s.pending.empty()) {
    RotateIfFull(s);
    QenPlatform::WriteAll(s.fd, s.pending.data(), s.pending.size());
  }
  s.pending.clear();
}

// A fork copies the buffer, so it is written first; the child gets its own
// process id. The mutex is held across the fork so the child never inherits
// it locked by another thread.
void BeforeFork() {
  LoggerState& s = State();
  s.mutex.lock();
  WritePending(s);
}
void AfterForkParent() { State().mutex.unlock(); }
void AfterForkChild() {
  LoggerState& s = State();
  s.pid = getpid();
  s.stampSecond = -1;
  s.mutex.unlock();
}

// Opens the host's log file, or reopens it when the host root changed.
void OpenFile(LoggerState& s) {
  std::string path = QenPlatform::HostPath(kLogFile);
  if (path == s.openPath) return;
  WritePending(s);  // into the file they were logged for
  if (s.fd >= 0) close(s.fd);
  s.openPath = path;
  // Log lines may name configuration: the log and its directory are the
  // owner's, whatever the umask.
  QenPlatform::MakeDirectories(path.substr(0, path.rfind('/')), 0700);
  s.fd = OpenLog(path);
}

const std::string& Stamp(LoggerState& s, time_t now) {
  if (now != s.stampSecond) {
    struct tm tmv;
    gmtime_r(&now, &tmv);
    char text[64];
    const size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tmv);
    s.stamp.assign(text, n);
    s.stamp += " [" + std::to_string(s.pid) + "] ";
    s.stampSecond = now;
  }
  return s.stamp;
}

void WriteToFile(LoggerState& s, int priority, const std::string& text) {
  if (!s.hooksInstalled) {
    s.hooksInstalled = true;
    pthread_atfork(BeforeFork, AfterForkParent, AfterForkChild);
    std::atexit(Flush);
  }
  OpenFile(s);
  if (s.fd < 0) return;
  const time_t now = time(nullptr);
  if (s.pending.empty()) s.pendingSince = now;
  s.pending += Stamp(s, now);
  s.pending.push_back('<');
  s.pending += std::to_string(priority);
  s.pending += "> ";
  s.pending += text;
  s.pending.push_back('\n');
  if (priority < kBufferedPriority || s.pending.size() >= kBufferBytes ||
      now - s.pendingSince >= kBufferSeconds)
    WritePending(s);
}

// Formats into `out`; short lines need no second pass.
void VFormat(std::string& out, const char* format, va_list args) {
  char local[512];
  va_list copy;
  va_copy(copy, args);
  const int n = vsnprintf(local, sizeof local, format, copy);
  va_end(copy);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof local) {
    out.assign(local, static_cast<size_t>(n));
    return;
  }
  out.assign(static_cast<size_t>(n), '\0');
  vsnprintf(&out[0], out.size() + 1, format, args);
}

}  // namespace

void Log(int priority, const char* format, ...) {
  std::string text;
  va_list args;
  va_start(args, format);
  VFormat(text, format, args);
  va_end(args);

  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  for (Capture* c : s.captures) c->lines_.emplace_back(priority, text);
  if (priority <= s.fileLevel) WriteToFile(s, priority, text);
  if (priority <= s.stderrLevel) fprintf(stderr, "<%d> %s\n", priority, text.c_str());
}

void Flush() {
  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  WritePending(s);
}

void SetFileVerbosity(int level) {
  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.fileLevel = level;
}

void SetRotateBytes(size_t bytes) {
  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.rotateBytes = bytes;
}

void SetStderrVerbosity(int level) {
  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.stderrLevel = level;
}

Capture::Capture() {
  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.captures.push_back(this);
}

Capture::~Capture() {
  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  for (auto it = s.captures.begin(); it != s.captures.end(); ++it) {
    if (*it == this) {
      s.captures.erase(it);
      break;
    }
  }
}

std::vector<std::pair<int, std::string>> Capture::Lines() const {
  std::lock_guard<std::mutex> lock(State().mutex);
  return lines_;
}

std::vector<std::string> Capture::Texts(int priority) const {
  std::lock_guard<std::mutex> lock(State().mutex);
  std::vector<std::string> out;
  for (const auto& l : lines_)
    if (l.first == priority) out.push_back(l.second);
  return out;
}

bool Capture::Contains(int priority, const std::string& text) const {
  std::lock_guard<std::mutex> lock(State().mutex);
  for (const auto& l : lines_)
    if (l.first == priority && l.second == text) return true;
  return false;
}

void Capture::Clear() {
  std::lock_guard<std::mutex> lock(State().mutex);
  lines_.clear();
}

}  // namespace CSLogger

char* Str_Asprintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* out = nullptr;
  int n = vasprintf(&out, format, args);
  va_end(args);
  if (n < 0 || !out) {
    out = static_cast<char*>(malloc(1));
    if (!out) abort();
    out[0] = '\0';
  }
  return out;
}

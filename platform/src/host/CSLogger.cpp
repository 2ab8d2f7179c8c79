#include "CSLogger.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "HostRoot.h"

namespace CSLogger {
namespace {

struct LoggerState {
  std::mutex mutex;
  int stderrLevel = -1;
  std::vector<Capture*> captures;
  std::string openPath;
  FILE* file = nullptr;

  ~LoggerState() {
    if (file) fclose(file);
  }
};

LoggerState& State() {
  static LoggerState* state = new LoggerState();  // outlives static destructors
  return *state;
}

std::string VFormat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  std::string out(static_cast<size_t>(n), '\0');
  vsnprintf(&out[0], out.size() + 1, format, args);
  return out;
}

// Appends to the host's log file, reopening it when the host root changed.
void WriteToFile(LoggerState& s, int priority, const std::string& text) {
  std::string path = QenPlatform::HostPath(kLogFile);
  if (path != s.openPath) {
    if (s.file) fclose(s.file);
    s.file = nullptr;
    s.openPath = path;
    // std::filesystem, not Boost: plugins carry the logger, and it must not
    // make them load another library.
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    s.file = fopen(path.c_str(), "ae");
  }
  if (!s.file) return;
  char stamp[32];
  time_t now = time(nullptr);
  struct tm tmv;
  gmtime_r(&now, &tmv);
  strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tmv);
  fprintf(s.file, "%s [%d] <%d> %s\n", stamp, static_cast<int>(getpid()), priority, text.c_str());
  fflush(s.file);
}

}  // namespace

void Log(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = VFormat(format, args);
  va_end(args);

  LoggerState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  for (Capture* c : s.captures) c->lines_.emplace_back(priority, text);
  WriteToFile(s, priority, text);
  if (priority <= s.stderrLevel) fprintf(stderr, "<%d> %s\n", priority, text.c_str());
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

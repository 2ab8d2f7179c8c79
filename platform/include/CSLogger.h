// The platform logger. Lines go to the host's log file
// ("/var/log/corvane/configmanager.log", logical) and, when their priority is
// at or below the stderr verbosity, to stderr. Priorities: 0 failure, 1 note,
// 2 progress and decisions, 3 detail. Thread-safe.
//
// Failure and note lines (0, 1) are written to the file at once. Progress and
// detail lines (2, 3) are buffered, so that hot paths pay no system call per
// line: they are written before the next failure or note line, when 8 KiB or
// one second's worth has gathered (checked at each line), at exit, before a
// fork, and by Flush(). A process that dies by a signal loses its buffered
// lines. Captures and stderr see every line at once.
//
// The file is bounded: a write that finds it at kRotateBytes or more first
// renames it to "<log>.1" (".1" to ".2", ... up to kRotateKeep old files,
// all owner-only like the log). Lines above the file verbosity (default 2:
// no per-key detail) are left out of the file; captures and stderr still
// see them.
//
// Never pass a value that a schema marks sensitive; format untrusted text
// through "%s", never as the format.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace CSLogger {

void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Lines with priority <= level go to the file (default kDefaultFileLevel).
void SetFileVerbosity(int level);
// The size at which the file is rotated (default kRotateBytes); for tests.
void SetRotateBytes(size_t bytes);
constexpr int kDefaultFileLevel = 2;
constexpr size_t kRotateBytes = size_t(16) << 20;
constexpr int kRotateKeep = 3;

// Lines with priority <= level also go to stderr; -1 (the default) sends none.
void SetStderrVerbosity(int level);

// Writes the buffered lines to the log file now.
void Flush();

constexpr const char* kLogFile = "/var/log/corvane/configmanager.log";

// While alive, records every logged line (all priorities) of this process, so
// tests can assert exact texts. Captures nest; each sees the lines logged
// during its own life.
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::vector<std::pair<int, std::string>> Lines() const;
  // Texts of the lines with this priority, in order.
  std::vector<std::string> Texts(int priority) const;
  bool Contains(int priority, const std::string& text) const;
  void Clear();

 private:
  friend void Log(int, const char*, ...);
  std::vector<std::pair<int, std::string>> lines_;
};

}  // namespace CSLogger

// printf into a newly malloc'ed string; the caller frees it. Never null
// (aborts the format into "" on an encoding error).
char* Str_Asprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

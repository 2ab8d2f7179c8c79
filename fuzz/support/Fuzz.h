// What the fuzz targets share: the table of targets, the temporary host root
// they run against, and helpers for taking an input apart.
//
// Each target is a plain function over bytes, so that the fuzzer binaries
// (driver.cpp, one per target) and the regression test that replays kept
// inputs (tests/fuzz_regressions) call exactly the same code. A target
// returns 0; it catches only the exceptions its entry points document, so
// anything else escapes and is reported as a crash.
//
// One thread per process: the targets share the host root and its files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ConfigStoreException.h"
#include "QenJson.h"

namespace QenFuzz {

typedef int (*Entry)(const uint8_t* data, size_t size);

struct Target {
  const char* name;  // fuzzer fuzz_<name>, seeds in fuzz/corpus/<name>/
  Entry entry;
};

// Every target, in the order scripts/fuzz.sh runs them.
const std::vector<Target>& Targets();

int Document(const uint8_t* data, size_t size);
int Manifest(const uint8_t* data, size_t size);
int Request(const uint8_t* data, size_t size);
int Result(const uint8_t* data, size_t size);
int KeySchema(const uint8_t* data, size_t size);
int Validator(const uint8_t* data, size_t size);
int Drift(const uint8_t* data, size_t size);
int Impact(const uint8_t* data, size_t size);
int Plan(const uint8_t* data, size_t size);
int BootRecord(const uint8_t* data, size_t size);
int Allowlist(const uint8_t* data, size_t size);

// The process's host root, made on first use and installed as the host root:
// the sample host's key schemas, manifest schemas and host state files, no
// plugins (so no call runs a child process), and the log file sent to
// /dev/null (millions of inputs would otherwise fill the disk). Removed at
// exit.
const std::string& Host();

// Replaces the file at logical path `logical` below the host root with
// `bytes` (directories made as needed).
void WriteHostFile(const std::string& logical, const std::string& bytes);

// The input as text.
inline std::string Text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// The input split at its first NUL byte: what comes before and after it
// (no NUL: the whole input and ""). Seeds of two-part targets are
// "<first>\0<second>".
std::pair<std::string, std::string> SplitAtNul(const uint8_t* data, size_t size);

// Parses `text` as the library parses documents from outside; false when it
// is not JSON (or nested too deep).
bool Parse(const std::string& text, rapidjson::Document& doc);

// Whether `a` and `b` hold the same members in the same order and the same
// values, a number that is not an integer within a relative 1e-15: the
// parser rounds some long numbers one unit off, so a number written and read
// again may move by that much. (Value equality will not do: it finds the
// first of repeated names only, so an object that repeats a name does not
// even equal itself.)
bool SameValue(const rapidjson::Value& a, const rapidjson::Value& b);

// Whether an object anywhere in `value` holds a name twice.
bool RepeatsAName(const rapidjson::Value& value);

// Runs `f`, taking the store's exception family (the refusal most entry
// points document) as an answer; anything else escapes as a crash.
template <typename F>
void Guarded(F&& f) {
  try {
    f();
  } catch (const QenConfigStore::ConfigStoreException&) {
  }
}

// Fails the run (abort, which the fuzzer reports with the input) when an
// invariant does not hold.
void Check(bool condition, const char* what);

}  // namespace QenFuzz

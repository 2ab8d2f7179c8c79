// Command registration and the conventions every qenconfig command shares.
// Each command group lives in its own source file and registers itself at
// load time:
//
//   static qenconfig::Registrar reg([](CLI::App& app) {
//     auto* cmd = app.add_subcommand("doc", "Configuration documents");
//     ...
//     sub->callback([] { qenconfig::Exit(qenconfig::Run([&] { ...; return 0; })); });
//   });
//
// The global options (--root, --output/--json, --quiet, --verbose, -v) are
// set while parsing, before any callback runs; the accessors below read them
// from the command's thread.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

#include "ConfigStoreException.h"
#include "QenJson.h"

namespace qenconfig {

// One table for the whole command line (apply adds 4 to 9, see apply.cpp).
// kNotCompliant is every check's "no": not compliant, drift found, a document
// or a manifest invalid. kFailure means the command could not give an answer.
enum ExitCode : int { kOk = 0, kFailure = 1, kUsage = 2, kNotCompliant = 3 };

class Registrar {
 public:
  explicit Registrar(std::function<void(CLI::App&)> add);
};

// Runs a command body, turning exceptions into one line on stderr
// ("error <code>: <message>" or "error: <message>") and exit code 1. The
// library's coded errors name host paths as they are below --root.
int Run(const std::function<int()>& body);

// A coded error raised by qenconfig itself about the user's own files: Run
// prints its message as it is (UserPaths is for the library's messages).
class UserError : public QenConfigStore::ConfigStoreException {
 public:
  using QenConfigStore::ConfigStoreException::ConfigStoreException;
};

// Records the exit code of the command that ran.
void Exit(int code);

// --output json (or --json) was given.
bool JsonOutput();
// --quiet: stderr shows errors only (no progress, notifications or notes).
bool Quiet();

// Prints `value` in the pretty layout, one document on stdout.
void PrintJson(const rapidjson::Value& value);

// The outcome of a command that has no result but its success: the sentence
// on stdout, or {"message": sentence} with --output json.
void PrintDone(const std::string& sentence);

// Reads a user-named file (a path on this machine, not a host path).
std::string ReadUserFile(const std::string& path);

// Reads and parses a user-named JSON file; a failure (error 2080) names the
// file and what is wrong at which offset or document path.
void ReadUserDocument(const std::string& path, rapidjson::Document& doc,
                      QenPlatform::DuplicateNames duplicates = QenPlatform::DuplicateNames::kRefuse);

// "object", "array", "string", ... as the validator names JSON types.
const char* JsonTypeName(const rapidjson::Value& value);

// ReadUserDocument for a desired document that is to be compared with the
// host: also refuses (error 2084, naming the path in the document and the
// file) what would make the comparison meaningless: a component, group or
// key without a schema, a value of the wrong JSON type, two instances with
// one identifier.
void ReadDesiredDocument(const std::string& path, rapidjson::Document& doc);

// Writes every value that its key's schema marks sensitive in `components`
// (component -> group -> key -> value) as "(redacted)", as compliance does.
void RedactSensitive(rapidjson::Value& components, rapidjson::Document::AllocatorType& allocator);
// The same for the value of one key.
void RedactSensitive(const std::string& component, const std::string& group, const std::string& key,
                     rapidjson::Value& value, rapidjson::Document::AllocatorType& allocator);

// Commands that read the host's configuration call this first: a missing
// store is an error (2001, "not initialised"), never created empty.
void RequireStore();

// Replaces a user-named file by `text` at once, readable by its owner only
// (what the commands write carries configuration values).
void WriteUserFile(const std::string& path, const std::string& text);

// Whether stderr is a terminal (progress lines are only drawn there).
bool StderrIsTerminal();

// The name of a QUICK_BOOT_STATUS value as it reads in code.
const char* QuickBootName(int status);

// A message as the user should read it: the host's fixed paths in it
// ("/etc/...", "/var/...") named where they are below --root.
std::string UserPaths(const std::string& message);

// Why plugin `id` failed, from the log's last launcher line about it: "plugin
// <id> exited with status N" or "... was killed by signal N (SIGX)", with
// where the log is. "" when the log says nothing about it.
std::string PluginFailureDetail(const std::string& id);

}  // namespace qenconfig

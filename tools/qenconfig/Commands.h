// Command registration for qenconfig. Each command group lives in its own
// source file and registers itself at load time:
//
//   static qenconfig::Registrar reg([](CLI::App& app) {
//     auto* cmd = app.add_subcommand("doc", "Configuration documents");
//     ...
//     sub->callback([] { qenconfig::Exit(qenconfig::Run([&] { ...; return 0; })); });
//   });
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

#include "QenJson.h"

namespace qenconfig {

enum ExitCode : int { kOk = 0, kFailure = 1, kUsage = 2, kNotCompliant = 3 };

class Registrar {
 public:
  explicit Registrar(std::function<void(CLI::App&)> add);
};

// Runs a command body, turning exceptions into a message on stderr
// ("error <code>: <message>") and exit code 1.
int Run(const std::function<int()>& body);

// Records the exit code of the command that ran.
void Exit(int code);

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

}  // namespace qenconfig

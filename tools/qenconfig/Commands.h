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

// Replaces a user-named file by `text` at once, readable by its owner only
// (what the commands write carries configuration values).
void WriteUserFile(const std::string& path, const std::string& text);

// Whether stderr is a terminal (progress lines are only drawn there).
bool StderrIsTerminal();

// The name of a QUICK_BOOT_STATUS value as it reads in code.
const char* QuickBootName(int status);

}  // namespace qenconfig

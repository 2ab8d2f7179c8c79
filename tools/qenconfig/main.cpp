#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <vector>

#include "CSLogger.h"
#include "Commands.h"
#include "Progress.h"
#include "HostFiles.h"
#include "HostRoot.h"
#include "configmanager/common.h"

namespace qenconfig {
namespace {

std::vector<std::function<void(CLI::App&)>>& Registry() {
  static std::vector<std::function<void(CLI::App&)>> registry;
  return registry;
}

int g_exit = kOk;

}  // namespace

Registrar::Registrar(std::function<void(CLI::App&)> add) { Registry().push_back(std::move(add)); }

void Exit(int code) { g_exit = code; }

bool StderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

std::string ReadUserFile(const std::string& path) {
  std::string text;
  if (!QenPlatform::ReadWholeFile(path, text))
    throw std::runtime_error("cannot read file \"" + path + "\": " + std::strerror(errno));
  return text;
}

void WriteUserFile(const std::string& path, const std::string& text) {
  if (!QenPlatform::ReplaceFile(path, text, 0600))
    throw std::runtime_error("cannot write file \"" + path + "\": " + std::strerror(errno));
}

int Run(const std::function<int()>& body) {
  int status = kFailure;
  std::string failure;
  try {
    status = body();
  } catch (const Interrupted&) {
  } catch (const QenConfigStore::ConfigStoreException& e) {
    failure = "error " + std::to_string(e.GetErrorCode()) + ": " + e.what();
  } catch (const std::exception& e) {
    failure = std::string("error: ") + e.what();
  }
  // A stop requested by a signal is the outcome, also of a failure it caused.
  if (const int sig = InterruptSignal()) {
    std::cerr << "error: stopped by SIG" << sigabbrev_np(sig) << "\n";
    return 128 + sig;
  }
  if (!failure.empty()) std::cerr << failure << "\n";
  return status;
}

}  // namespace qenconfig

int main(int argc, char** argv) {
  CLI::App app{"qenconfig: keep a host's configuration in line with a desired-state document"};
  app.require_subcommand(1);
  app.footer(
      "Exit codes: 0 ok, 1 failure, 2 usage, 3 not compliant (compliance); 128 + the signal (130,\n"
      "143) when SIGINT or SIGTERM stopped a command that runs plugins: validate, set, delete,\n"
      "impact, plan and apply terminate their running plugin (set, delete and apply before the\n"
      "next apply plugin too; what ran stays applied), extract, export and compliance stop once\n"
      "their extraction has run; no plugin and no plugin request or result file is left. A\n"
      "second signal ends qenconfig at once (its plugin with it). Errors go to stderr as\n"
      "\"error <code>: <message>\". apply has codes of its own (4 to 9, see `qenconfig apply\n"
      "--help`).");
  std::string root;
  int verbosity = -1;
  // Applied while parsing, before any command's callback runs.
  app.add_option("--root", root, "Host root directory (default: / or $QEN_HOST_ROOT)")
      ->each([](const std::string& r) { QenPlatform::SetHostRoot(r); });
  app.add_option("-v,--verbosity", verbosity, "Copy log lines up to this priority (0-3) to stderr")
      ->each([](const std::string& v) { CSLogger::SetStderrVerbosity(std::stoi(v)); })
      ->check(CLI::Range(-1, 3));
  for (auto& add : qenconfig::Registry()) add(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : qenconfig::kUsage;
  }
  return qenconfig::g_exit;
}

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <vector>

#include "CSLogger.h"
#include "Commands.h"
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
  try {
    return body();
  } catch (const QenConfigStore::ConfigStoreException& e) {
    std::cerr << "error " << e.GetErrorCode() << ": " << e.what() << "\n";
  } catch (const HostCtl::Lib::HostCtlException& e) {
    std::cerr << "error: " << e.what() << "\n";
  } catch (const std::exception& e) {
    std::cerr << "error: " << e.what() << "\n";
  }
  return kFailure;
}

}  // namespace qenconfig

int main(int argc, char** argv) {
  CLI::App app{"qenconfig: keep a host's configuration in line with a desired-state document"};
  app.require_subcommand(1);
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

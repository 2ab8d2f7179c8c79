#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <regex>
#include <vector>

#include "CSLogger.h"
#include "Commands.h"
#include "Progress.h"
#include "HostFiles.h"
#include "HostRoot.h"
#include "ConfigStoreDocument.h"
#include "JsonValidator.h"
#include "QenConfigStore.h"
#include "QenSchemaStore.h"
#include "configmanager/common.h"
#include "configmanager/validate.h"

namespace qenconfig {
namespace {

std::vector<std::function<void(CLI::App&)>>& Registry() {
  static std::vector<std::function<void(CLI::App&)>> registry;
  return registry;
}

int g_exit = kOk;
bool g_json = false;
bool g_quiet = false;

constexpr const char* kExitCodes =
    "Output: text by default; --output json (or --json) prints one JSON document on stdout\n"
    "whose fields each command's --help lists. Errors go to stderr as one line, \"error <code>:\n"
    "<message>\" or \"error: <message>\", and for a failed plugin a second one with its exit\n"
    "status or signal and its log file. Progress is drawn on stderr only when it is a terminal.\n"
    "\n"
    "Exit codes:\n"
    "  0    ok (compliant, valid, applied)\n"
    "  1    failure: the command could not run or give an answer\n"
    "  2    usage: unknown command or option, missing argument, missing --yes\n"
    "  3    the check says no: not compliant (compliance), document invalid (validate),\n"
    "       manifest problems (plugins check)\n"
    "  4-9  apply's outcomes (see `qenconfig apply --help`)\n"
    "  130, 143  stopped by SIGINT or SIGTERM\n"
    "\n"
    "Ctrl-C (SIGINT) or SIGTERM stops a command that runs plugins: validate, set, delete,\n"
    "compliance, impact, plan and apply terminate their running plugin (set, delete and apply\n"
    "before the next apply plugin too; what ran stays applied); extract and export stop once\n"
    "their extraction has run. No plugin and no plugin request or result file is left. A\n"
    "second signal ends qenconfig at once (its plugin with it).";

// Host paths that messages name by their logical form.
constexpr const char* kHostDirs[] = {"/etc/", "/var/", "/usr/", "/run/"};

std::string JoinedNames(const CLI::App* app) {
  std::vector<std::string> sorted;
  for (const CLI::App* sub : app->get_subcommands([](const CLI::App*) { return true; }))
    sorted.push_back(sub->get_name());
  std::sort(sorted.begin(), sorted.end());
  std::string names;
  for (const std::string& name : sorted) names += (names.empty() ? "" : ", ") + name;
  return names;
}

// The usage error for a command word that names no command, or "" when the
// parse failed for another reason. Walks the words the way the parser does:
// options (and the value of one that takes it) are skipped, words descend
// into subcommands until a command that takes arguments of its own.
std::string UnknownCommand(const CLI::App& app, int argc, char** argv) {
  const CLI::App* at = &app;
  std::string path = "qenconfig";
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--") return "";
    if (word.size() > 1 && word[0] == '-') {
      if (word.find('=') != std::string::npos) continue;
      for (const CLI::App* a = at; a; a = a->get_parent()) {
        const CLI::Option* opt = a->get_option_no_throw(word);
        if (opt) {
          if (opt->get_type_size_max() > 0)
            ++i;
          break;
        }
      }
      continue;
    }
    const auto subs = at->get_subcommands([](const CLI::App*) { return true; });
    if (subs.empty()) return "";
    const CLI::App* next = nullptr;
    for (const CLI::App* sub : subs)
      if (sub->check_name(word)) next = sub;
    if (!next)
      return path + ": unknown command \"" + word + "\"; the commands are: " + JoinedNames(at);
    at = next;
    path += " " + word;
  }
  if (!at->get_subcommands([](const CLI::App*) { return true; }).empty())
    return path + ": a command is required: " + JoinedNames(at);
  return "";
}

// The code an exit status of a plugin had: the launcher logs it as its
// strerror text.
int StatusOf(const std::string& text) {
  for (int code = 1; code < 256; ++code)
    if (text == std::strerror(code)) return code;
  return -1;
}

}  // namespace

Registrar::Registrar(std::function<void(CLI::App&)> add) { Registry().push_back(std::move(add)); }

void Exit(int code) { g_exit = code; }

bool JsonOutput() { return g_json; }
bool Quiet() { return g_quiet; }

void PrintJson(const rapidjson::Value& value) { std::cout << QenPlatform::PrettyJson(value) << "\n"; }

void PrintDone(const std::string& sentence) {
  if (!g_json) {
    std::cout << sentence << "\n";
    return;
  }
  rapidjson::Document out(rapidjson::kObjectType);
  out.AddMember("message", rapidjson::Value(sentence, out.GetAllocator()), out.GetAllocator());
  PrintJson(out);
}

bool StderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

std::string ReadUserFile(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    throw std::runtime_error("cannot read file \"" + path + "\": Is a directory");
  std::string text;
  if (!QenPlatform::ReadWholeFile(path, text))
    throw std::runtime_error("cannot read file \"" + path + "\": " + std::strerror(errno));
  return text;
}

void ReadUserDocument(const std::string& path, rapidjson::Document& doc,
                      QenPlatform::DuplicateNames duplicates) {
  const std::string text = ReadUserFile(path);
  const QenPlatform::JsonParseResult parsed = QenPlatform::ParseJson(text, doc, duplicates);
  if (!parsed) {
    QenConfigStore::ConfigStoreException e(
        QenConfigManager::PARSE_ERROR,
        ("Failed to parse JSON String \"" + path + "\": " + parsed.reason).c_str());
    e.AddArg(path);
    e.AddArg(parsed.reason);
    throw e;
  }
}

const char* JsonTypeName(const rapidjson::Value& value) {
  static const char* const kNames[] = {"null", "boolean", "boolean", "object", "array", "string", "number"};
  return kNames[value.GetType()];
}

void ReadDesiredDocument(const std::string& path, rapidjson::Document& doc) {
  ReadUserDocument(path, doc);
  // Shape problems and keys without a schema would otherwise surface deep in
  // the comparison as a bare JSON error, or pass as "nothing desired here".
  auto refuse = [&path](const std::string& at, const std::string& what) {
    QenConfigStore::ConfigStoreException e(
        QenConfigManager::INVALID_KEY_VALUE,
        ("Invalid value for key " + (at.empty() ? std::string("/") : at) + " in \"" + path + "\": " + what)
            .c_str());
    e.AddArg(at);
    e.AddArg(path);
    throw e;
  };
  if (!doc.IsObject()) refuse("", std::string("expected object, found ") + JsonTypeName(doc));
  auto schema = QenConfigManager::GenerateHostDocumentSchema(doc);
  if (auto* errors = std::get_if<std::vector<QenConfigManager::ValidationErrorInfo>>(&schema)) {
    std::sort(errors->begin(), errors->end(),
              [](const auto& a, const auto& b) { return a.path < b.path; });
    const auto& first = errors->front();
    std::string what = "no schema";
    if (!first.messages.empty()) {
      const std::string& id = first.messages.front().msgId;
      what = id.substr(id.rfind('.') + 1);
      for (const std::string& arg : first.messages.front().args) what += " " + arg;
    }
    refuse(first.path, what);
  }
  const rapidjson::Value* value = &doc;
  if (doc.IsObject() && doc.HasMember("profile")) value = &doc["profile"];
  rapidjson::Document errors(rapidjson::kArrayType);
  JsonValidator::ValidateCMDocument(std::get<rapidjson::Document>(schema), *value, errors,
                                    QenConfigManager::DOCUMENT_CODE_SET, "");
  for (const rapidjson::Value& error : errors.GetArray()) {
    const int code = error["errId"].GetInt();
    if (code == JsonValidator::TYPE_MISMATCH || code == JsonValidator::DUPLICATE_INSTANCE_ID)
      refuse(error["field"].GetString(), error["error"].GetString());
  }
}

void RedactSensitive(const std::string& component, const std::string& group, const std::string& key,
                     rapidjson::Value& value, rapidjson::Document::AllocatorType& allocator) {
  const auto cache = QenSchemaStore::SchemaStore::GetCache();
  const auto schema = cache ? cache->GetSchema(component, group, key) : nullptr;
  if (schema)
    ConfigStoreDocument::CleanupObject(value, schema->GetSchemaJson(), {ConfigStoreDocument::REDACT_SENSITIVE},
                                       allocator);
}

void RedactSensitive(rapidjson::Value& components, rapidjson::Document::AllocatorType& allocator) {
  if (!components.IsObject()) return;
  for (auto& c : components.GetObject()) {
    if (!c.value.IsObject()) continue;
    for (auto& g : c.value.GetObject()) {
      if (!g.value.IsObject()) continue;
      for (auto& k : g.value.GetObject())
        RedactSensitive(c.name.GetString(), g.name.GetString(), k.name.GetString(), k.value, allocator);
    }
  }
}

void RequireStore() { QenConfigStore::GetDBStore(DBStore::USER, false); }

void WriteUserFile(const std::string& path, const std::string& text) {
  if (!QenPlatform::ReplaceFile(path, text, 0600))
    throw std::runtime_error("cannot write file \"" + path + "\": " + std::strerror(errno));
}

std::string UserPaths(const std::string& message) {
  const std::string root = QenPlatform::HostRoot();
  if (root.empty()) return message;
  std::string out;
  for (size_t i = 0; i < message.size(); ++i) {
    // A path starts a word: at the start, after a space, a quote, '=' or '('.
    const bool wordStart = i == 0 || std::strchr(" \"'=(", message[i - 1]) != nullptr;
    if (wordStart && message[i] == '/' && message.compare(i, root.size(), root) != 0)
      for (const char* dir : kHostDirs)
        if (message.compare(i, std::strlen(dir), dir) == 0) {
          out += root;
          break;
        }
    out += message[i];
  }
  return out;
}

std::string PluginFailureDetail(const std::string& id) {
  CSLogger::Flush();
  const std::string log = QenPlatform::HostPath(CSLogger::kLogFile);
  std::string text;
  if (id.empty() || !QenPlatform::ReadWholeFile(log, text)) return "";
  // The launcher's own words: "Config Manager plugin failed: <id>, pid=N,
  // status=<strerror>" or "..., terminated with signal=N".
  const std::string head = "Config Manager plugin failed: " + id + ", pid=";
  const size_t at = text.rfind(head);
  if (at == std::string::npos) return "";
  const size_t end = text.find('\n', at);
  const std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
  std::smatch m;
  std::string what;
  if (std::regex_search(line, m, std::regex(", status=(.*)$"))) {
    const int status = StatusOf(m[1]);
    what = status > 0 ? "exited with status " + std::to_string(status) : "exited with an error (" + m[1].str() + ")";
  } else if (std::regex_search(line, m, std::regex("signal=([0-9]+)"))) {
    const int sig = std::stoi(m[1]);
    const char* name = sigabbrev_np(sig);
    what = "was killed by signal " + m[1].str() + (name ? std::string(" (SIG") + name + ")" : "");
  } else {
    return "";
  }
  return "plugin " + id + " " + what + "; its log lines are in " + log;
}

int Run(const std::function<int()>& body) {
  int status = kFailure;
  std::string failure, detail;
  try {
    status = body();
  } catch (const Interrupted&) {
  } catch (const UserError& e) {
    failure = "error " + std::to_string(e.GetErrorCode()) + ": " + e.what();
  } catch (const QenConfigStore::ConfigStoreException& e) {
    failure = "error " + std::to_string(e.GetErrorCode()) + ": " + UserPaths(e.what());
    static const std::string kExtract = "Extract plugin failed: ";
    const std::string what = e.what();
    if (e.GetErrorCode() == QenConfigManager::EXTRACT_FAILED && what.compare(0, kExtract.size(), kExtract) == 0)
      detail = PluginFailureDetail(what.substr(kExtract.size()));
  } catch (const std::exception& e) {
    failure = std::string("error: ") + e.what();
  }
  // A stop requested by a signal is the outcome, also of a failure it caused.
  if (const int sig = InterruptSignal()) {
    std::cerr << "error: stopped by SIG" << sigabbrev_np(sig) << "\n";
    return 128 + sig;
  }
  if (!failure.empty()) std::cerr << failure << "\n";
  if (!detail.empty()) std::cerr << "  " << detail << "\n";
  return status;
}

}  // namespace qenconfig

int main(int argc, char** argv) {
  CLI::App app{"qenconfig: keep a host's configuration in line with a desired-state document"};
  app.require_subcommand(1);
  // Global options may follow the command: `qenconfig compliance FILE --json`.
  app.fallthrough();
  std::string root, output = "text";
  int verbosity = -1;
  app.add_flag_callback(
      "--version",
      [] {
        std::cout << "qenconfig " << QEN_VERSION << "\n";
        throw CLI::Success();
      },
      "Print the version and exit");
  // Applied while parsing, before any command's callback runs.
  app.add_option("--root", root, "Host root directory (default: / or $QEN_HOST_ROOT); must exist")
      ->type_name("DIR")
      ->check(CLI::Validator(
          [](std::string& r) {
            struct stat st;
            if (::stat(r.c_str(), &st) != 0) return "host root \"" + r + "\" does not exist";
            if (!S_ISDIR(st.st_mode)) return "host root \"" + r + "\" is not a directory";
            return std::string();
          },
          "DIR"))
      ->each([](const std::string& r) { QenPlatform::SetHostRoot(r); });
  app.add_option("--output", output, "Output format: text or json")
      ->check(CLI::IsMember({"text", "json"}))
      ->each([](const std::string& o) { qenconfig::g_json = o == "json"; });
  app.add_flag_callback("--json", [] { qenconfig::g_json = true; }, "Same as --output json");
  auto* quiet = app.add_flag_callback(
      "-q,--quiet",
      [] {
        qenconfig::g_quiet = true;
        CSLogger::SetStderrVerbosity(-1);
      },
      "Show errors only on stderr: no progress, plugin notifications or log lines");
  app.add_flag_callback(
         "--verbose", [] { CSLogger::SetStderrVerbosity(2); },
         "Copy the log's failure, note and progress lines (priority 0-2) to stderr")
      ->excludes(quiet);
  app.add_option("-v,--verbosity", verbosity, "Copy log lines up to this priority (0-3, 3: per-key detail) to stderr")
      ->type_name("LEVEL")
      ->each([](const std::string& v) {
        CSLogger::SetStderrVerbosity(std::stoi(v));
        // What is asked for on stderr is also kept in the log.
        CSLogger::SetFileVerbosity(std::max(CSLogger::kDefaultFileLevel, std::stoi(v)));
      })
      ->check(CLI::Range(-1, 3));
  for (auto& add : qenconfig::Registry()) add(app);
  // Set after the commands so that they do not inherit it.
  app.footer(qenconfig::kExitCodes);
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return "error: " + std::string(e.what()) + "\nRun with --help for more information.\n";
  });
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() != 0) {
      const std::string unknown = qenconfig::UnknownCommand(app, argc, argv);
      if (!unknown.empty()) {
        std::cerr << "error: " << unknown << "\nRun with --help for more information.\n";
        return qenconfig::kUsage;
      }
    }
    int rc = app.exit(e);
    return rc == 0 ? 0 : qenconfig::kUsage;
  }
  return qenconfig::g_exit;
}

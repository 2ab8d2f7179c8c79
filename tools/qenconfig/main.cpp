#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <iostream>
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
  app.add_option("-v,--verbosity", verbosity, "Copy log lines up to this priority (0-3) to stderr (and keep\n"
                                  "detail lines, 3, in the log too)")
      ->each([](const std::string& v) {
        CSLogger::SetStderrVerbosity(std::stoi(v));
        // What is asked for on stderr is also kept in the log.
        CSLogger::SetFileVerbosity(std::max(CSLogger::kDefaultFileLevel, std::stoi(v)));
      })
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

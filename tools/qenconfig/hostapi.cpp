// qenconfig get | set | delete COMPONENT GROUP KEY: one key's configuration.
#include <unistd.h>

#include <iostream>

#include "Commands.h"
#include "Progress.h"
#include "configmanager/hostapi.h"

namespace {

using namespace QenConfigManager;

struct KeyArgs {
  std::string component, group, key;
  std::string Name() const { return component + "/" + group + "/" + key; }
};

struct ChangeArgs : KeyArgs {
  std::string value;  // set only: VALUE or @FILE
  bool yes = false;
  double timeout = 0;
};

void AddKeyOptions(CLI::App* cmd, KeyArgs& args) {
  cmd->add_option("COMPONENT", args.component, "Component")->required();
  cmd->add_option("GROUP", args.group, "Group")->required();
  cmd->add_option("KEY", args.key, "Key")->required();
}

void AddChangeOptions(CLI::App* cmd, ChangeArgs& args) {
  cmd->add_flag("-y,--yes", args.yes,
                "Accept a change that needs maintenance mode or a reboot without asking (required\n"
                "when standard input is not a terminal)");
  cmd->add_option("--timeout", args.timeout, "Abort the remediation after SECONDS")
      ->check(CLI::PositiveNumber);
}

constexpr const char* kImpactNames[] = {"NO_IMPACT", "MAINTENANCE_MODE_REQUIRED", "REBOOT_REQUIRED"};

// The JSON report of set and delete: what was asked, its impact and what
// became of it.
void PrintChange(const ChangeArgs& args, const ImpactResult* impact, const char* outcome) {
  rapidjson::Document out(rapidjson::kObjectType);
  auto& a = out.GetAllocator();
  out.AddMember("component", rapidjson::Value(args.component, a), a);
  out.AddMember("group", rapidjson::Value(args.group, a), a);
  out.AddMember("key", rapidjson::Value(args.key, a), a);
  out.AddMember("outcome", rapidjson::StringRef(outcome), a);
  rapidjson::Value impactName, messages(rapidjson::kArrayType);
  if (impact) {
    impactName.SetString(rapidjson::StringRef(kImpactNames[impact->impact]));
    for (const ImpactInfo& info : impact->impactInfo)
      messages.PushBack(rapidjson::Value(qenconfig::DescribeImpact(info), a), a);
  }
  out.AddMember("impact", impactName, a);
  out.AddMember("messages", messages, a);
  qenconfig::PrintJson(out);
}

int Get(const KeyArgs& args, bool showSensitive) {
  std::string defaultsText, currentText, userConfig;
  GetConfig(args.component, args.group, args.key, defaultsText, currentText, userConfig);
  // Each value parsed once: null when the key has none, redacted unless
  // the caller asked for it in clear.
  rapidjson::Document defaults, current;
  for (auto [text, value] : {std::pair{&defaultsText, &defaults}, std::pair{&currentText, &current}}) {
    if (text->empty()) continue;
    ParseDocument(*text, *value);
    if (!showSensitive)
      qenconfig::RedactSensitive(args.component, args.group, args.key, *value, value->GetAllocator());
  }
  if (!qenconfig::JsonOutput()) {
    auto shown = [](const std::string& text, const rapidjson::Value& value) {
      return text.empty() ? std::string("(none)") : JsonToString(value);
    };
    std::cout << args.Name() << ": " << userConfig << "\n"
              << "default: " << shown(defaultsText, defaults) << "\n"
              << "current: " << shown(currentText, current) << "\n";
    return qenconfig::kOk;
  }
  rapidjson::Document out(rapidjson::kObjectType);
  auto& a = out.GetAllocator();
  out.AddMember("component", rapidjson::Value(args.component, a), a);
  out.AddMember("group", rapidjson::Value(args.group, a), a);
  out.AddMember("key", rapidjson::Value(args.key, a), a);
  out.AddMember("userConfig", rapidjson::Value(userConfig, a), a);
  out.AddMember("default", rapidjson::Value(defaults, a), a);
  out.AddMember("current", rapidjson::Value(current, a), a);
  qenconfig::PrintJson(out);
  return qenconfig::kOk;
}

// Runs the validation plugins over the change and its dependents; prints
// every problem with its path. False when there is one.
bool ValidateRelevant(const rapidjson::Document& relevant) {
  if (!relevant.IsObject() || relevant.MemberCount() == 0) return true;
  ValidationResult result;
  auto schema = GenerateHostDocumentSchema(relevant);
  if (auto* errors = std::get_if<std::vector<ValidationErrorInfo>>(&schema)) {
    result.errors = std::move(*errors);
  } else {
    Validate(relevant, std::get<rapidjson::Document>(schema), "", result, true,
             qenconfig::MakeProgressTask("validating"));
    qenconfig::ExitIfInterrupted();
  }
  for (const ValidationErrorInfo& error : result.errors)
    for (const ErrorInfo& message : error.messages)
      std::cerr << "invalid: " << error.path << ": " << qenconfig::DescribeProblem(message) << "\n";
  if (!result.pluginError.IsEmpty()) {
    std::cerr << "error: validation failed: " << qenconfig::DescribeError(result.pluginError) << "\n";
    qenconfig::PrintPluginFailure(result.pluginError);
  }
  return result.errors.empty() && result.pluginError.IsEmpty();
}

// Prints the impact; 0 to go on, else the command's exit status.
int ReviewImpact(const ImpactResult& impact, const ChangeArgs& args) {
  qenconfig::ExitIfInterrupted();
  if (!impact.errorInfo.IsEmpty()) {
    std::cerr << "error: impact check failed: " << qenconfig::DescribeError(impact.errorInfo) << "\n";
    qenconfig::PrintPluginFailure(impact.errorInfo);
    return qenconfig::kFailure;
  }
  static const char* const kNames[] = {"none", "maintenance mode required", "reboot required"};
  if (!qenconfig::JsonOutput()) {
    std::cout << "impact: " << kNames[impact.impact] << "\n";
    for (const ImpactInfo& info : impact.impactInfo) std::cout << "  " << qenconfig::DescribeImpact(info) << "\n";
  }
  if (impact.impact == NO_IMPACT || args.yes) return 0;
  // Outside maintenance mode the change is refused (2026) whatever the answer.
  if (impact.impact == MAINTENANCE_MODE_REQUIRED && !IsMaintenanceModeEnabled()) return 0;

  const char* why = impact.impact == REBOOT_REQUIRED ? "takes effect only after a reboot"
                                                     : "needs the host in maintenance mode";
  if (isatty(STDIN_FILENO) != 1) {
    std::cerr << "error: this change " << why
              << "; standard input is not a terminal, so confirm it with --yes\n";
    return qenconfig::kUsage;
  }
  std::cerr << "This change " << why << ". Proceed? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer == "y" || answer == "Y" || answer == "yes") return 0;
  if (qenconfig::JsonOutput()) PrintChange(args, &impact, "declined");
  else std::cout << "Nothing changed.\n";
  return qenconfig::kFailure;
}

// Reports what SetConfig or DeleteConfig returned.
int Report(const ErrorInfo& error, const ImpactResult& impact, const ChangeArgs& args,
           const char* done, const char* staged) {
  qenconfig::ExitIfInterrupted();
  if (!error.IsEmpty()) {
    if (qenconfig::TimedOut())
      std::cerr << "error: stopped after --timeout " << args.timeout << " s\n";
    std::cerr << "error: " << qenconfig::DescribeError(error) << "\n";
    qenconfig::PrintPluginFailure(error);
    return qenconfig::kFailure;
  }
  if (qenconfig::JsonOutput())
    PrintChange(args, &impact, impact.impact == REBOOT_REQUIRED ? "staged" : "applied");
  else if (impact.impact == REBOOT_REQUIRED)
    std::cout << staged << " for the next boot: " << args.Name() << " (reboot the host to apply it)\n";
  else
    std::cout << done << ": " << args.Name() << "\n";
  return qenconfig::kOk;
}

std::string ValueText(const std::string& value) {
  return !value.empty() && value[0] == '@' ? qenconfig::ReadUserFile(value.substr(1)) : value;
}

// The host configuration API is for user configuration only: GetConfig
// refuses any other key (2181).
void RequireUserConfig(const KeyArgs& args) {
  std::string defaults, current, userConfig;
  GetConfig(args.component, args.group, args.key, defaults, current, userConfig);
}

// Ctrl-C from the start: reading the current value through a plugin takes
// no task handle, so a stop then takes effect once the read returns.
int Set(const ChangeArgs& args) {
  qenconfig::CatchInterrupts();
  RequireUserConfig(args);
  rapidjson::Document value, desired, current, relevant;
  std::vector<ValidationErrorInfo> errors;
  if (!ValidateInputSet(args.component, args.group, args.key, ValueText(args.value), value, errors)) {
    for (const ValidationErrorInfo& error : errors)
      for (const ErrorInfo& message : error.messages)
        std::cerr << "invalid: " << error.path << ": " << qenconfig::DescribeProblem(message) << "\n";
    return qenconfig::kFailure;
  }
  GenerateSetDocuments(args.component, args.group, args.key, value, desired, current, relevant);
  qenconfig::ExitIfInterrupted();
  if (!ValidateRelevant(relevant)) return qenconfig::kFailure;
  ImpactResult impact = CheckImpact(desired, current, qenconfig::MakeProgressTask("impact"));
  if (impact.errorInfo.IsEmpty() && impact.compliant) {
    if (qenconfig::JsonOutput()) {
      PrintChange(args, &impact, "unchanged");
      return qenconfig::kOk;
    }
    std::cout << "Nothing to change: " << args.Name() << " already has this value.\n";
    return qenconfig::kOk;
  }
  if (int status = ReviewImpact(impact, args)) return status;
  if (args.timeout > 0) qenconfig::AbortAfter(args.timeout);
  ErrorInfo error = SetConfig(desired, current, value, impact, args.component, args.group, args.key,
                              qenconfig::MakeProgressTask("applying"));
  return Report(error, impact, args, "applied", "staged");
}

int Delete(const ChangeArgs& args) {
  qenconfig::CatchInterrupts();
  RequireUserConfig(args);
  ValidateInputDelete(args.component, args.group, args.key);
  rapidjson::Document current, relevant;
  GenerateDeleteDocuments(args.component, args.group, args.key, current, relevant);
  qenconfig::ExitIfInterrupted();
  if (current.IsNull()) {
    if (qenconfig::JsonOutput()) {
      PrintChange(args, nullptr, "unchanged");
      return qenconfig::kOk;
    }
    std::cout << "Nothing to delete: " << args.Name() << " has no current value.\n";
    return qenconfig::kOk;
  }
  if (!ValidateRelevant(relevant)) return qenconfig::kFailure;
  rapidjson::Document nothing(rapidjson::kObjectType);
  ImpactResult impact = CheckImpact(nothing, current, qenconfig::MakeProgressTask("impact"));
  if (int status = ReviewImpact(impact, args)) return status;
  if (args.timeout > 0) qenconfig::AbortAfter(args.timeout);
  ErrorInfo error = DeleteConfig(current, impact, args.component, args.group, args.key,
                                 qenconfig::MakeProgressTask("applying"));
  return Report(error, impact, args, "deleted", "deletion staged");
}

constexpr const char* kChangeFooter =
    "JSON: {\"component\": string, \"group\": string, \"key\": string, \"outcome\": \"applied\"|\"staged\"|\n"
    "\"unchanged\"|\"declined\", \"impact\": \"NO_IMPACT\"|\"MAINTENANCE_MODE_REQUIRED\"|\"REBOOT_REQUIRED\"|null,\n"
    "\"messages\": [string]}; invalid values and failures go to stderr only.\n"
    "Exit codes: 0 done or nothing to change, 1 invalid value, failure or declined, 2 --yes needed.";

qenconfig::Registrar reg([](CLI::App& app) {
  auto* get = app.add_subcommand("get", "Print one key's default and current configuration");
  static KeyArgs getArgs;
  AddKeyOptions(get, getArgs);
  get->footer(
      "JSON: {\"component\": string, \"group\": string, \"key\": string, \"userConfig\": string,\n"
      "\"default\": value|null, \"current\": value|null}.");
  static bool showSensitive = false;
  get->add_flag("--show-sensitive", showSensitive, "Print values that a schema marks sensitive in clear");
  get->callback([] { qenconfig::Exit(qenconfig::Run([] { return Get(getArgs, showSensitive); })); });

  auto* set = app.add_subcommand(
      "set",
      "Set one key: validate, show the impact, then apply at once or stage for the next boot");
  static ChangeArgs setArgs;
  AddKeyOptions(set, setArgs);
  set->add_option("VALUE", setArgs.value, "The key's value as JSON text, or @FILE")->required();
  AddChangeOptions(set, setArgs);
  set->footer(kChangeFooter);
  set->callback([] { qenconfig::Exit(qenconfig::Run([] { return Set(setArgs); })); });

  auto* del = app.add_subcommand("delete", "Delete one key's configuration (same flow as set)");
  static ChangeArgs deleteArgs;
  AddKeyOptions(del, deleteArgs);
  AddChangeOptions(del, deleteArgs);
  del->footer(kChangeFooter);
  del->callback([] { qenconfig::Exit(qenconfig::Run([] { return Delete(deleteArgs); })); });
});

}  // namespace

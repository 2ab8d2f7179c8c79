// qenconfig validate FILE; qenconfig extract current|desired.
#include <iostream>

#include "Commands.h"
#include "JsonValidator.h"
#include "Progress.h"
#include "configmanager/extract.h"
#include "configmanager/validate.h"

namespace {

using namespace QenConfigManager;

void PrintJson(const ValidationResult& result) {
  rapidjson::Document out(rapidjson::kObjectType);
  auto& a = out.GetAllocator();
  out.AddMember("valid", result.errors.empty() && result.pluginError.IsEmpty(), a);
  rapidjson::Value errors(rapidjson::kArrayType);
  for (const ValidationErrorInfo& error : result.errors)
    for (const ErrorInfo& message : error.messages) {
      rapidjson::Value entry(rapidjson::kObjectType), args(rapidjson::kArrayType);
      for (const std::string& arg : message.args) args.PushBack(rapidjson::Value(arg, a), a);
      entry.AddMember("path", rapidjson::Value(error.path, a), a);
      entry.AddMember("id", rapidjson::Value(message.msgId, a), a);
      entry.AddMember("args", args, a);
      entry.AddMember("message", rapidjson::Value(qenconfig::DescribeProblem(message), a), a);
      errors.PushBack(entry, a);
    }
  out.AddMember("errors", errors, a);
  rapidjson::Value pluginError;
  if (!result.pluginError.IsEmpty()) pluginError.SetString(qenconfig::DescribeError(result.pluginError), a);
  out.AddMember("pluginError", pluginError, a);
  qenconfig::PrintJson(out);
}

int ValidateFile(const std::string& path) {
  rapidjson::Document doc;
  // Duplicate member names are validation errors at their path, not a parse failure.
  qenconfig::ReadUserDocument(path, doc, QenPlatform::DuplicateNames::kKeep);
  ValidationResult result;
  auto task = qenconfig::MakeProgressTask("validating");
  // The library takes only objects; anything else is this file's error.
  if (!doc.IsObject()) {
    result.errors.emplace_back(
        "", std::vector<ErrorInfo>{ErrorInfo(JsonValidator::ConvertErrorCodeToMsgId(JsonValidator::TYPE_MISMATCH),
                                             {"object", qenconfig::JsonTypeName(doc)})});
  } else if (auto schema = GenerateHostDocumentSchema(doc);
             auto* errors = std::get_if<std::vector<ValidationErrorInfo>>(&schema)) {
    result.errors = std::move(*errors);
  } else {
    Validate(doc, std::get<rapidjson::Document>(schema), "", result, true, task);
  }
  qenconfig::ExitIfInterrupted();
  const bool ran = result.pluginError.IsEmpty();
  if (qenconfig::JsonOutput()) {
    PrintJson(result);
  } else if (!ran) {
    std::cerr << "error: validation could not run: " << qenconfig::DescribeError(result.pluginError) << "\n";
  } else if (result.errors.empty()) {
    std::cout << "Valid: " << path << "\n";
  } else {
    std::cout << "Invalid: " << path << ": " << result.errors.size()
              << (result.errors.size() == 1 ? " path has problems\n" : " paths have problems\n");
    for (const ValidationErrorInfo& error : result.errors)
      for (const ErrorInfo& message : error.messages)
        std::cout << "  " << (error.path.empty() ? "/" : error.path) << ": " << qenconfig::DescribeProblem(message) << "\n";
  }
  if (!ran) {
    qenconfig::PrintPluginFailure(result.pluginError);
    return qenconfig::kFailure;
  }
  return result.errors.empty() ? qenconfig::kOk : qenconfig::kNotCompliant;
}

int Extract(const std::string& which, bool showSensitive) {
  // Extraction takes no task handle: a stop takes effect once it returns.
  qenconfig::CatchInterrupts();
  qenconfig::RequireStore();
  std::shared_ptr<QenConfigStore::JsonDoc> doc =
      which == "current" ? ExtractCurrentConfiguration() : ExtractDesiredConfiguration();
  qenconfig::ExitIfInterrupted();
  if (!showSensitive) qenconfig::RedactSensitive(doc->GetDocument(), doc->GetDocument().GetAllocator());
  qenconfig::PrintJson(doc->GetDocument());
  return qenconfig::kOk;
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* validate = app.add_subcommand("validate", "Validate a desired configuration document");
  static std::string storage;
  std::string* file = &storage;
  validate->add_option("FILE", *file, "Desired document (JSON)")->required();
  validate->footer(
      "Text: \"Valid: FILE\", or \"Invalid: FILE: ...\" and one line per problem: \"  PATH: MESSAGE\".\n"
      "JSON: {\"valid\": bool, \"errors\": [{\"path\": string, \"id\": string, \"args\": [string],\n"
      "\"message\": string}], \"pluginError\": string|null}.\n"
      "Exit codes: 0 valid, 3 invalid, 1 the validation could not run (unreadable file, not JSON,\n"
      "a validation plugin failed).");
  validate->callback([file] { qenconfig::Exit(qenconfig::Run([&] { return ValidateFile(*file); })); });

  auto* extract = app.add_subcommand("extract", "Print the host's configuration document");
  static std::string whichStorage;
  std::string* which = &whichStorage;
  extract->add_option("WHAT", *which, "current or desired")
      ->required()
      ->check(CLI::IsMember({"current", "desired"}));
  extract->footer("The document is JSON whatever the --output format.");
  static bool showSensitive = false;
  extract->add_flag("--show-sensitive", showSensitive, "Print values that a schema marks sensitive in clear");
  extract->callback([which] {
    qenconfig::Exit(qenconfig::Run([&] { return Extract(*which, showSensitive); }));
  });
});

}  // namespace

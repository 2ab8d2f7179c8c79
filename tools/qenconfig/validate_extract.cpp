// qenconfig validate FILE; qenconfig extract current|desired.
#include <iostream>

#include "Commands.h"
#include "JsonValidator.h"
#include "Progress.h"
#include "configmanager/extract.h"
#include "configmanager/validate.h"

namespace {

using namespace QenConfigManager;

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
    std::cout << result.Serialize() << "\n";
    return qenconfig::kFailure;
  }
  auto schema = GenerateHostDocumentSchema(doc);
  if (auto* errors = std::get_if<std::vector<ValidationErrorInfo>>(&schema)) {
    result.errors = std::move(*errors);
  } else {
    Validate(doc, std::get<rapidjson::Document>(schema), "", result, true, task);
  }
  qenconfig::ExitIfInterrupted();
  std::cout << result.Serialize() << "\n";
  return result.errors.empty() && result.pluginError.IsEmpty() ? qenconfig::kOk
                                                               : qenconfig::kFailure;
}

int Extract(const std::string& which, bool showSensitive) {
  // Extraction takes no task handle: a stop takes effect once it returns.
  qenconfig::CatchInterrupts();
  qenconfig::RequireStore();
  std::shared_ptr<QenConfigStore::JsonDoc> doc =
      which == "current" ? ExtractCurrentConfiguration() : ExtractDesiredConfiguration();
  qenconfig::ExitIfInterrupted();
  if (!showSensitive) qenconfig::RedactSensitive(doc->GetDocument(), doc->GetDocument().GetAllocator());
  std::cout << JsonToString(doc->GetDocument()) << "\n";
  return qenconfig::kOk;
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* validate = app.add_subcommand("validate", "Validate a desired configuration document");
  static std::string storage;
  std::string* file = &storage;
  validate->add_option("FILE", *file, "Desired document (JSON)")->required();
  validate->callback([file] { qenconfig::Exit(qenconfig::Run([&] { return ValidateFile(*file); })); });

  auto* extract = app.add_subcommand("extract", "Print the host's configuration document");
  static std::string whichStorage;
  std::string* which = &whichStorage;
  extract->add_option("WHAT", *which, "current or desired")
      ->required()
      ->check(CLI::IsMember({"current", "desired"}));
  static bool showSensitive = false;
  extract->add_flag("--show-sensitive", showSensitive, "Print values that a schema marks sensitive in clear");
  extract->callback([which] {
    qenconfig::Exit(qenconfig::Run([&] { return Extract(*which, showSensitive); }));
  });
});

}  // namespace

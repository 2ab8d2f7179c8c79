// Early bootstrap: authentication, then networking, from a small document,
// each stage against the host's current configuration of just its groups.
#include <vector>

#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "apply/apply_runner.h"
#include "boot/entry_point.h"
#include "configmanager/boot.h"
#include "configmanager/extract.h"
#include "configmanager/validate.h"

namespace QenConfigManager {
namespace {

constexpr const char* kComponent = "qen";
constexpr const char* kOperation = "ApplyEarlyBootstrapConfig";

typedef std::vector<const char*> Groups;
const Groups kCheckGroups = {"authentication", "network", "network_vss"};
const Groups kAuthenticationGroups = {"authentication"};
const Groups kNetworkGroups = {"network", "network_vss"};

// Of component "qen" of `source` (or of its "profile"), only `groups`, in
// that order, deep-copied; {} when the source has no "qen".
std::shared_ptr<QenConfigStore::JsonDoc> GroupExtract(const rapidjson::Value& source,
                                                      const Groups& groups) {
  auto extract = CreateDocument();
  rapidjson::Document& out = extract->GetDocument();
  out.SetObject();
  auto profile = source.FindMember("profile");
  const rapidjson::Value& root = profile != source.MemberEnd() ? profile->value : source;
  auto component = root.FindMember(kComponent);
  if (component == root.MemberEnd()) return extract;
  rapidjson::Value& target = ConfigStoreDocument::AddComponent(out, kComponent, out.GetAllocator());
  for (const char* group : groups) {
    auto found = component->value.FindMember(group);
    if (found == component->value.MemberEnd()) continue;
    rapidjson::Value copy(found->value, out.GetAllocator());
    ConfigStoreDocument::AddMember(target, group, copy, out.GetAllocator());
  }
  return extract;
}

// Brings the given groups of the host from `current` to `desired`.
ErrorInfo EarlyRemediate(const std::shared_ptr<QenConfigStore::JsonDoc>& desired,
                         std::shared_ptr<QenConfigStore::JsonDoc> current) {
  CSLogger::Log(2, "Remediating provided Qen host configuration to desired configuration.");
  CSLogger::Log(2, "Generating Apply Tasks for early bootstrap config.");
  const DesiredConfigInputList inputs = GenerateApplyTasks(desired->GetDocument(), std::move(current));
  if (inputs.empty()) {
    CSLogger::Log(1, "No tasks generated for the desired configuration.");
    return ErrorInfo();
  }
  return ExecuteApplyTasks(inputs, "", TaskHandle::Dummy(), false);
}

int Bootstrap(const std::string& documentText) {
  rapidjson::Document desired;
  ParseDocument(documentText, desired);
  auto generated = GenerateHostDocumentSchema(desired);
  if (!std::holds_alternative<rapidjson::Document>(generated)) {
    CSLogger::Log(0, "Failed to generate schema for early bootstrap configuration.");
    return 1;
  }
  ValidationResult validation;
  Validate(desired, std::get<rapidjson::Document>(generated), "", validation, true, TaskHandle::Dummy());
  if (!validation.pluginError.msgId.empty() || !validation.errors.empty()) {
    CSLogger::Log(0, "Found errors in early bootstrap configuration: %s", validation.Serialize().c_str());
    return 1;
  }

  std::shared_ptr<QenConfigStore::JsonDoc> current =
      GroupExtract(ExtractCurrentConfiguration()->GetDocument(), kCheckGroups);
  ImpactHandler handler(DRIFT_CACHE_OFF);
  // A copy: the drift walk takes the handler's document, the stages need it.
  handler.currentDocument = GroupExtract(current->GetDocument(), kCheckGroups);
  const ImpactResult impact = ImpactWithCustomHandler(desired, "", handler, TaskHandle::Dummy());
  if (!impact.errorInfo.msgId.empty()) {
    CSLogger::Log(0, "Failed to compute impact for bootstrap network document: %s",
                  impact.errorInfo.Serialize().c_str());
    return 1;
  }
  if (impact.compliant) {
    CSLogger::Log(2, "Host is compliant with bootstrap network document.");
    return 0;
  }
  if (impact.impact == REBOOT_REQUIRED) {
    CSLogger::Log(0, "Bootstrap network document cannot require RebootRequired impact.");
    return 1;
  }

  CSLogger::Log(2, "Remediating early bootstrap configurations.");
  ErrorInfo error = EarlyRemediate(GroupExtract(desired, kAuthenticationGroups),
                                   GroupExtract(current->GetDocument(), kAuthenticationGroups));
  if (!error.msgId.empty()) {
    CSLogger::Log(0, "Error applying early authentication config: %s", error.Serialize().c_str());
    return 1;
  }
  CSLogger::Log(2, "Bootstrapped early authentication config.");
  error = EarlyRemediate(GroupExtract(desired, kNetworkGroups),
                         GroupExtract(current->GetDocument(), kNetworkGroups));
  if (!error.msgId.empty()) {
    CSLogger::Log(0, "Error applying early networking config: %s", error.Serialize().c_str());
    return 1;
  }
  CSLogger::Log(2, "Bootstrapped early networking config.");
  return 0;
}

}  // namespace

int ApplyEarlyBootstrapConfig(const std::string& documentText) {
  CSLogger::Log(2, "%s invoked.", kOperation);
  return RunBootEntryPoint([&] { return Bootstrap(documentText); }, [](const char* reason) {
    CSLogger::Log(0, "%s: error=%s", kOperation, reason);
  });
}

}  // namespace QenConfigManager

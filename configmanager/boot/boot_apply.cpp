// Boot-time apply, bootstrapping from a document file, boot-time tasks and
// this host's part of a boot document.
#include <unistd.h>

#include <stdexcept>

#include "CSLogger.h"
#include "FeatureState.h"
#include "HostFiles.h"
#include "HostRoot.h"
#include "QenConfigStore.h"
#include "apply/apply_runner.h"
#include "boot/entry_point.h"
#include "common/document_files.h"
#include "configmanager/boot.h"
#include "configmanager/extract.h"
#include "configmanager/validate.h"
#include "extract/extraction_internal.h"

namespace QenConfigManager {
namespace {

using QenConfigStore::ConfigStore;

const ConfigStoreObjectId kAutoDeployId("autodeploy", "bootstrap", "qen");
constexpr const char* kNotifyProperty = "waiter_notify";
constexpr const char* kFirewallProperty = "firewall";

// Failures of the boot entry points travel as runtime errors with the text
// that ends up in their priority-0 line.
[[noreturn]] void Fail(const std::string& text) { throw std::runtime_error(text); }

std::shared_ptr<ConfigStore> RequireStore() {
  std::shared_ptr<ConfigStore> store = ConfigStore::GetStore(QenConfigStore::sGlobalNamespace);
  if (!store) Fail("Failed to access ConfigStore.");
  return store;
}

// Whatever the boot left behind (a directory removed by hand) is recreated.
bool MakeParent(const std::string& physical) {
  return QenPlatform::MakeDirectories(physical.substr(0, physical.rfind('/')), 0755);
}

// The firewall file byte for byte, replaced at once: a boot interrupted
// here leaves the old file or the new one.
void WriteFirewallFile(const std::string& text) {
  const std::string target = QenPlatform::HostPath(kAutoDeployFirewallFile);
  const std::string temporary = target + ".new";
  const int fd = MakeParent(target) ? QenPlatform::CreatePrivateFile(temporary) : -1;
  if (fd < 0) Fail("Failed to create autodeploy.xml");
  bool written = QenPlatform::WriteAll(fd, text.data(), text.size());
  written = ::close(fd) == 0 && written;
  if (!written || ::rename(temporary.c_str(), target.c_str()) != 0) {
    QenPlatform::RemoveFile(temporary);
    Fail("Failed to write to autodeploy.xml");
  }
}

// Writes the auto-deployment files back from the store object, when it
// exists; an empty text writes nothing.
void RegenerateAutoDeployFiles(ConfigStore& store) {
  std::shared_ptr<QenConfigStore::ConfigStoreObject> object = store.GetObject(kAutoDeployId);
  if (!object) return;
  std::string notify, firewall;
  object->GetValue(kNotifyProperty, notify);
  object->GetValue(kFirewallProperty, firewall);
  if (!notify.empty()) {
    CSLogger::Log(2, "Generating {%s} file from ConfigStore contents", kAutoDeployNotifyFile);
    rapidjson::Document doc;
    ParseDocument(notify, doc);
    if (!MakeParent(QenPlatform::HostPath(kAutoDeployNotifyFile)) ||
        !WriteDocumentFile(kAutoDeployNotifyFile, doc))
      Fail("Failed to write to waiterNotify.json");
  }
  if (!firewall.empty()) {
    CSLogger::Log(2, "Generating {%s} file from ConfigStore contents", kAutoDeployFirewallFile);
    WriteFirewallFile(firewall);
  }
}

// Removes one auto-deployment file; false (logged) when it is still there.
bool RemoveAutoDeployFile(const char* logical) {
  const int rc = QenPlatform::RemoveFile(QenPlatform::HostPath(logical));
  if (rc == 0) return true;
  CSLogger::Log(0, "Failed to remove {%s} rc=%d", logical, rc);
  return false;
}

// Stages `desired` for the next boot and moves the auto-deployment files
// into the store, in one transaction on one connection: any failure commits
// nothing (a file already removed stays removed).
void StageForBoot(const rapidjson::Document& desired) {
  std::shared_ptr<ConfigStore> store = RequireStore();
  const std::shared_ptr<DBStore::StoreConnection>& conn = store->GetConnection();
  QenConfigStore::ConfigStoreTransaction transaction(conn);
  QenConfigStore::SetDesiredUserConfig(desired, conn);

  if (!fileExists(kAutoDeployNotifyFile)) Fail("waiterNotify.json file does not exists.");
  if (!fileExists(kAutoDeployFirewallFile)) Fail("autodeploy.xml firewall config does not exists.");

  CSLogger::Log(2, "Preserving {%s} contents in ConfigStore.", kAutoDeployNotifyFile);
  rapidjson::Document notify;
  CreateDocumentFromFile(kAutoDeployNotifyFile, notify);
  std::string notifyText;
  SerializeValue(notify, notifyText);
  CSLogger::Log(2, "Preserving {%s} contents in ConfigStore.", kAutoDeployFirewallFile);
  std::string firewallText;
  if (!QenPlatform::ReadWholeFile(QenPlatform::HostPath(kAutoDeployFirewallFile), firewallText))
    Fail("autodeploy.xml firewall config failed to open.");

  QenConfigStore::ConfigStoreObject object(kAutoDeployId);
  object.SetValue(kNotifyProperty, notifyText);
  object.SetValue(kFirewallProperty, firewallText);
  ConfigStore::SetObject(object, conn);

  if (!RemoveAutoDeployFile(kAutoDeployNotifyFile)) Fail("Failed to remove waiterNotify.json.");
  RemoveAutoDeployFile(kAutoDeployFirewallFile);  // the store has it; a leftover file does no harm
  transaction.Commit();
}

int BootstrapFromDocument(const std::string& path) {
  rapidjson::Document desired;
  CreateDocumentFromFile(path.c_str(), desired);
  auto generated = GenerateHostDocumentSchema(desired);
  if (!std::holds_alternative<rapidjson::Document>(generated)) {
    CSLogger::Log(0, "Failed to generate schema for boot document");
    return 1;
  }
  CSLogger::Log(2, "Generated host configuration document schema.");

  ValidationResult validation;
  Validate(desired, std::get<rapidjson::Document>(generated), "", validation, true, TaskHandle::Dummy());
  if (!validation.pluginError.msgId.empty() || !validation.errors.empty()) {
    CSLogger::Log(0, "Failed to validate boot configuration document");
    // The validator redacts sensitive values; the reasons belong in the log.
    CSLogger::Log(0, "Validation result: %s", validation.Serialize().c_str());
    return 1;
  }
  CSLogger::Log(2, "Validated host configuration document.");

  const ImpactResult impact = Impact(desired, "", TaskHandle::Dummy());
  if (!impact.errorInfo.msgId.empty()) {
    CSLogger::Log(0, "Failed to compute impact for host configuration document");
    return 1;
  }
  if (impact.impact == REBOOT_REQUIRED) {
    StageForBoot(desired);
    CSLogger::Log(2, "ApplyConfig updated the host with the desired configuration document, host must be "
                     "rebooted for it to take effect.");
    return 0;
  }
  CSLogger::Log(2, "Remediating with host configuration document.");
  const ErrorInfo error = RemediateHost(desired, "", TaskHandle::Dummy(), false);
  if (!error.msgId.empty()) {
    CSLogger::Log(0, "Failed to boostrap host with configuration.");
    return 1;
  }
  CSLogger::Log(2, "Host boostrap with configuration successful.");
  return 0;
}

int ApplyAtBoot() {
  FeatureState_InitSilentMode();
  std::shared_ptr<ConfigStore> store = RequireStore();
  RegenerateAutoDeployFiles(*store);
  std::shared_ptr<QenConfigStore::JsonDoc> desired = ExtractDesiredConfiguration();
  const ErrorInfo error = RemediateHost(desired->GetDocument(), "", TaskHandle::Dummy(), true);
  int result = 0;
  if (!error.msgId.empty()) {
    CSLogger::Log(0, "Failed to apply boot-time configuration errId=%s", error.msgId.c_str());
    result = 1;
  }
  // A successful boot is recorded too: its empty identifier is what tells
  // management tools that the host came up as desired.
  QenConfigStore::setBootApplyRecord(BootApplyErrorInfo(std::time(nullptr), error).Serialize(),
                                     store->GetConnection());
  return result;
}

}  // namespace

int RunBootEntryPoint(const std::function<int()>& body, const std::function<void(const char* reason)>& report) {
  try {
    return body();
  } catch (const std::exception& e) {
    report(e.what());
  } catch (...) {
    report("unknown exception");
  }
  return 1;
}

int ExecuteBootPlugins() {
  return RunBootEntryPoint(ApplyAtBoot, [](const char* reason) {
    CSLogger::Log(0, "Failed to apply boot-time configuration. %s", reason);
  });
}

int ApplyBootDocument(const std::string& path) {
  CSLogger::Log(2, "Bootstrap host using configuration document {%s}", path.c_str());
  return RunBootEntryPoint([&] { return BootstrapFromDocument(path); }, [](const char* reason) {
    CSLogger::Log(0, "Failed to bootstrap host error=%s", reason);
  });
}

DesiredConfigInputList GenerateBootTimeTasks(const rapidjson::Document& desired) {
  std::shared_ptr<QenSchemaStore::SchemaStore> schemas = RequireSchemaStore();
  const rapidjson::Value& doc = desired;
  auto profile = doc.FindMember("profile");
  const rapidjson::Value& root = profile != doc.MemberEnd() ? profile->value : doc;
  DesiredConfigInputList inputs;
  for (const auto& component : root.GetObject()) {
    for (const auto& group : component.value.GetObject()) {
      for (const auto& key : group.value.GetObject()) {
        ConfigStoreObjectId id(key.name.GetString(), group.name.GetString(), component.name.GetString());
        std::shared_ptr<SchemaObject> schema = schemas->GetSchema(id.GetComponent(), id.GetGroup(), id.GetKey());
        if (!schema) {
          CSLogger::Log(0, "Schema not found for %s:%s:%s", id.GetComponent().c_str(), id.GetGroup().c_str(),
                        id.GetKey().c_str());
          ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, id.toString());
        }
        CSLogger::Log(2, "Remediating configuration for %s", id.toString().c_str());
        if (!schema->IsMultipleInstance()) {
          inputs.push_back({QenConfigStore::CreateObject(id, key.value, schema), nullptr, kActionNames[SET], nullptr});
          continue;
        }
        const std::string& field = schema->GetInstanceIdField();
        for (const auto& element : key.value.GetArray()) {
          const rapidjson::Value& instance = element.GetObject()[field];
          id.SetInstanceId(instance.GetString());
          inputs.push_back({QenConfigStore::CreateObject(id, element, schema), nullptr, kActionNames[ADD], nullptr});
        }
      }
    }
  }
  return inputs;
}

void CreateMergedBootDocument(const std::string& input, const std::string& output) {
  rapidjson::Document doc;
  CreateDocumentFromFile(input.c_str(), doc);
  auto generated = GenerateHostDocumentSchema(doc);
  const rapidjson::Document* schema = std::get_if<rapidjson::Document>(&generated);
  if (!schema)
    throw SchemaNotFound(QenConfigStore::ConfigStoreException(SCHEMA_NOT_FOUND, "Schema not found for some key(s)."));
  CreateMergedDocument(*schema, doc);
  CreateFileFromDocument(output.c_str(), doc);
}

}  // namespace QenConfigManager

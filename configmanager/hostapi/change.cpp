// Host configuration API: the documents of a set or delete, their impact,
// and performing the change (remediation now, or staging for the next boot).
#include <set>

#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "FeatureState.h"
#include "apply/apply_runner.h"
#include "hostapi/hostapi_internal.h"

namespace QenConfigManager {

namespace {

void MakeObject(rapidjson::Document& doc) {
  if (!doc.IsObject()) doc.SetObject();
}

// A copy of `doc` to stand for the host in a drift walk; a document that was
// never filled (nothing on the host) is an empty one.
std::shared_ptr<QenConfigStore::JsonDoc> HostDocument(const rapidjson::Document& doc) {
  std::shared_ptr<QenConfigStore::JsonDoc> copy = CreateDocument();
  rapidjson::Document& target = copy->GetDocument();
  if (doc.IsObject()) target.CopyFrom(doc, target.GetAllocator());
  else target.SetObject();
  return copy;
}

// Adds the key's current value (presented for documents) to `doc`; returns
// whether it had one.
bool InsertCurrentValue(rapidjson::Document& doc, const std::string& component,
                        const std::string& group, const std::string& key,
                        const std::shared_ptr<SchemaObject>& schema,
                        const std::shared_ptr<DBStore::StoreConnection>& connection) {
  const std::string text = GetCurrentConfig(component, group, key, schema, connection, false);
  if (text.empty()) return false;
  rapidjson::Document value;
  ConfigStoreDocument::CreateDocument(text, value);
  MakeObject(doc);
  InsertKeyValue(doc, component, group, key, value, doc.GetAllocator());
  return true;
}

// Remediation when the impact allows it now; 2026 when it needs
// maintenance mode the host is not in, or is no impact this API knows.
bool MayRemediateNow(IMPACT_TYPE impact) {
  switch (impact) {
    case NO_IMPACT: return true;
    case MAINTENANCE_MODE_REQUIRED:
      if (IsMaintenanceModeEnabled()) return true;
      break;
    case REBOOT_REQUIRED: return false;
  }
  ThrowException<HostNotInMM>(HOST_NOT_IN_MM);
}

void RefuseWhileDocumentStaged() {
  if (QenConfigStore::GetBootMode() == QenConfigStore::BOOTMODE_DESIRED_STAGED)
    ThrowException<HostInDBM>(HOST_IN_DBM);
}

}  // namespace

void InsertKeyValue(rapidjson::Value& doc, const std::string& component, const std::string& group,
                    const std::string& key, const rapidjson::Value& value,
                    rapidjson::Document::AllocatorType& allocator) {
  if (ConfigStoreDocument::IsDocumentEmpty(value)) return;
  rapidjson::Value& target = ConfigStoreDocument::AddGroup(doc, component, group, allocator);
  if (!value.IsArray()) {
    rapidjson::Value copy(value, allocator);
    ConfigStoreDocument::AddMember(target, key, copy, allocator);
    return;
  }
  auto existing = target.FindMember(key.c_str());
  if (existing == target.MemberEnd() || !existing->value.IsArray()) {
    rapidjson::Value empty(rapidjson::kArrayType);
    ConfigStoreDocument::AddMember(target, key, empty, allocator);
    existing = target.FindMember(key.c_str());
  }
  for (const rapidjson::Value& element : value.GetArray())
    existing->value.PushBack(rapidjson::Value(element, allocator), allocator);
}

void CheckDependentsInDesired(const ConfigStoreObjectId& id,
                              const std::shared_ptr<DBStore::StoreConnection>& connection,
                              rapidjson::Document& doc) {
  // Ordered, so that the refusal and the document do not depend on hashing.
  std::set<ConfigStoreObjectId> related;
  {
    PluginManager validators(PLUGIN_VALIDATE);
    for (const auto& plugin : validators.Find(id)) {
      for (const auto& object : plugin->GetCSOIdList()) related.insert(object);
      for (const auto& object : plugin->GetReferences()) related.insert(object);
    }
  }
  CSLogger::Log(3, "Running: %s", "CheckDependentsInDesired");
  if (FeatureState_IsEnabled(FEATURE_CONFIG_PLUGIN_READS)) {
    PluginManager appliers(PLUGIN_APPLY);
    for (const auto& plugin : appliers.Find(id))
      for (const auto& object : plugin->GetCSOIdList()) related.insert(object);
  }
  for (const ConfigStoreObjectId& object : related) {
    CSLogger::Log(3, "csoId: %s", object.toString().c_str());
    if (QenConfigStore::CheckDesiredObjectExists(object, connection)) {
      CSLogger::Log(0,
                    "A dependent config with csoId{%s} already exist in desired table. The host "
                    "need to reboot first.",
                    object.toString().c_str());
      ThrowException<HostInDBM>(HOST_IN_DBM);
    }
  }
  related.erase(id);
  for (const ConfigStoreObjectId& object : related) {
    std::shared_ptr<SchemaObject> schema =
        CheckSchemaExists(object.GetComponent(), object.GetGroup(), object.GetKey());
    InsertCurrentValue(doc, object.GetComponent(), object.GetGroup(), object.GetKey(), schema,
                       connection);
  }
}

void GenerateSetDocuments(const std::string& component, const std::string& group,
                          const std::string& key, const rapidjson::Value& value,
                          rapidjson::Document& desired, rapidjson::Document& current,
                          rapidjson::Document& relevant) {
  CSLogger::Log(2, "Generating current and desired configuration documents");
  std::shared_ptr<SchemaObject> schema = CheckSchemaExists(component, group, key);
  std::shared_ptr<DBStore::StoreConnection> connection = OpenStore();
  FeatureState_InitDeltaMode();
  MakeObject(current);
  MakeObject(desired);
  InsertCurrentValue(current, component, group, key, schema, connection);
  InsertKeyValue(desired, component, group, key, value, desired.GetAllocator());
  relevant.CopyFrom(desired, relevant.GetAllocator());
  CheckDependentsInDesired(ConfigStoreObjectId(key, group, component), connection, relevant);
}

void GenerateDeleteDocuments(const std::string& component, const std::string& group,
                             const std::string& key, rapidjson::Document& current,
                             rapidjson::Document& relevant) {
  CSLogger::Log(2, "Generating current and relevant configuration documents for Delete HostAPI");
  std::shared_ptr<SchemaObject> schema = CheckSchemaExists(component, group, key);
  std::shared_ptr<DBStore::StoreConnection> connection = OpenStore();
  FeatureState_InitDeltaMode();
  // Nothing on the host: nothing to delete, and no dependent to race.
  if (InsertCurrentValue(current, component, group, key, schema, connection))
    CheckDependentsInDesired(ConfigStoreObjectId(key, group, component), connection, relevant);
}

ImpactResult CheckImpact(rapidjson::Document& desired, const rapidjson::Document& current,
                         std::shared_ptr<TaskHandle> task) {
  CSLogger::Log(2, "Checking Impact for HostAPIs");
  ImpactHandler handler;
  handler.currentDocument = HostDocument(current);
  ImpactResult result = ImpactWithCustomHandler(desired, "", handler, std::move(task));
  if (!result.errorInfo.IsEmpty()) {
    CSLogger::Log(0, "Check Impact failed for HostAPI");
  } else if (result.compliant) {
    CSLogger::Log(3, "Host is already compliant. Nothing needs to be changed.");
  }
  return result;
}

ErrorInfo RemediateHostConfig(rapidjson::Document& desired, const rapidjson::Document& current,
                              const std::shared_ptr<TaskHandle>& task) {
  CSLogger::Log(3, "Remediating Qen host to desired configuration ");
  CSLogger::Log(2, "Generating Apply Tasks");
  const DesiredConfigInputList inputs = GenerateApplyTasks(desired, HostDocument(current));
  CSLogger::Log(2, "Done with Generate Apply Tasks");
  if (inputs.empty()) {
    CSLogger::Log(1, "No tasks generated for the desired configuration.");
    return ErrorInfo();
  }
  return ExecuteApplyTasks(inputs, "", task, false, nullptr, REFUSE_RUN);
}

ErrorInfo SetConfig(rapidjson::Document& desired, rapidjson::Document& current,
                    rapidjson::Document& value, const ImpactResult& impact,
                    const std::string& component, const std::string& group,
                    const std::string& key, std::shared_ptr<TaskHandle> task) {
  CSLogger::Log(3, "Running SET Config Host API");
  RefuseWhileDocumentStaged();
  ErrorInfo error;
  if (MayRemediateNow(impact.impact)) {
    error = RemediateHostConfig(desired, current, task);
  } else {
    std::shared_ptr<SchemaObject> schema = CheckSchemaExists(component, group, key);
    std::shared_ptr<DBStore::StoreConnection> connection = OpenStore();
    const std::string userConfig = schema->GetUserConfigText();
    // Every instance and the boot mode, or nothing.
    QenConfigStore::ConfigStoreTransaction transaction(connection);
    auto stage = [&](rapidjson::Value& object) {
      QenConfigStore::ProcessDesiredObject(value.GetAllocator(), connection, userConfig, component,
                                           group, key, schema, object);
    };
    if (value.IsArray()) {
      for (rapidjson::Value& element : value.GetArray()) stage(element);
    } else {
      stage(value);
    }
    QenConfigStore::SetBootMode(QenConfigStore::BOOTMODE_HOSTAPI_STAGED, connection);
    transaction.Commit();
  }
  if (error.IsEmpty()) CSLogger::Log(3, "Setting configuration Successful");
  else CSLogger::Log(0, "Setting configuration Failed");
  return error;
}

ErrorInfo DeleteConfig(rapidjson::Document& current, const ImpactResult& impact,
                       const std::string& component, const std::string& group,
                       const std::string& key, std::shared_ptr<TaskHandle> task) {
  CSLogger::Log(3, "Running DELETE Config Host API");
  RefuseWhileDocumentStaged();
  ErrorInfo error;
  if (MayRemediateNow(impact.impact)) {
    rapidjson::Document nothing(rapidjson::kObjectType);
    error = RemediateHostConfig(nothing, current, task);
  } else {
    QenConfigStore::DeleteHostAPIConfiguration(component, group, key, OpenStore());
  }
  if (error.IsEmpty()) CSLogger::Log(3, "Deleting configuration Successful");
  else CSLogger::Log(3, "Deleting configuration Failed");
  return error;
}

}  // namespace QenConfigManager

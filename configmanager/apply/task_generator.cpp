// Apply task generation: one apply input per drifted key or instance.
#include "apply/apply_runner.h"

namespace QenConfigManager {

ApplyTaskGenerator::ApplyTaskGenerator() {
  // One Set per changed key or instance, carrying what changed.
  consolidatedAction = true;
  createDriftObject = true;
}

ApplyTaskGenerator::~ApplyTaskGenerator() = default;

void ApplyTaskGenerator::createTask(const ConfigStoreObjectId& id, const rapidjson::Value& value,
                                    const std::shared_ptr<SchemaObject>& schema, ACTION action,
                                    std::shared_ptr<DriftObject> drift) {
  DesiredConfigInput input;
  input.object = QenConfigStore::CreateObject(id, value, schema);
  input.drift = std::move(drift);
  input.operation = kActionNames[action];
  tasks.push_back(std::move(input));
}

void ApplyTaskGenerator::Add(const rapidjson::Value& desiredValue, const ConfigStoreObjectId& id,
                             const std::shared_ptr<SchemaObject>& schema, const std::string&) {
  createTask(id, desiredValue, schema, ADD, nullptr);
}

void ApplyTaskGenerator::Set(const rapidjson::Value& desiredValue, const rapidjson::Value&,
                             const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                             const std::string&, const rapidjson::Value& drift) {
  // Unlike impact, a set stays a set even when the host has no value.
  std::shared_ptr<DriftObject> driftObject;
  if (drift.IsObject() && drift.MemberCount() > 0)
    driftObject = std::make_shared<DriftObject>(id, kActionNames[SET], drift);
  createTask(id, desiredValue, schema, SET, std::move(driftObject));
}

void ApplyTaskGenerator::Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId& id,
                                const std::shared_ptr<SchemaObject>& schema, const std::string&) {
  createTask(id, hostValue, schema, DELETE, nullptr);
}

DesiredConfigInputList GenerateApplyTasks(rapidjson::Document& desired) {
  return GenerateApplyTasks(desired, nullptr);
}

DesiredConfigInputList GenerateApplyTasks(rapidjson::Document& desired,
                                          std::shared_ptr<QenConfigStore::JsonDoc> current) {
  // Refused before the walk extracts the host's configuration.
  (void)desired.GetObject();
  ApplyTaskGenerator generator;
  generator.currentDocument = std::move(current);
  ComputeDrift(desired, desired.GetAllocator(), generator);
  return generator.getTasks();
}

}  // namespace QenConfigManager

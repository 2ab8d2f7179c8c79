// The plugin request document: built by the library, read by the runners.
#include <cerrno>
#include <unistd.h>

#include <stdexcept>
#include <unordered_map>

#include "HostFiles.h"
#include "HostRoot.h"
#include "configmanager/plugin.h"
#include "plugin/paths.h"

namespace QenConfigManager {

namespace {

using rapidjson::Value;

// Per-key ordinals of one read: the entries of a key are numbered 0, 1, ...
// in document order, whatever their instances.
class OrdinalCounter {
 public:
  uint64_t Next(const ConfigStoreObjectId& id) {
    return counters_[id.GetComponent() + ":" + id.GetGroup() + ":" + id.GetKey()]++;
  }

 private:
  std::unordered_map<std::string, uint64_t> counters_;
};

// An object's data text. A missing object has none: the JSON library
// refuses the null string (code 1082).
Value DataText(const std::shared_ptr<ConfigStoreObject>& object, rapidjson::Document::AllocatorType& alloc) {
  if (!object) return Value(static_cast<const char*>(nullptr), 0, alloc);
  return Value(object->GetSerializedData(), alloc);
}

ConfigStoreObjectId EntryId(const Value& entry) {
  return ConfigStoreObjectId(entry["key"].GetString(), entry["group"].GetString(),
                             entry["component"].GetString(), entry["instanceId"].GetString());
}

}  // namespace

PluginRequest::PluginRequest() { document.SetObject(); }

PluginRequest::PluginRequest(const std::string& id, const std::string& operation,
                             const std::string& module, int version,
                             const ConfigStoreObjectIdList& csoIds) {
  document.SetObject();
  PopulateMetadata(id, operation, module, version);
  PopulateCSOIds(csoIds);
}

PluginRequest::PluginRequest(const std::string& id, const std::string& operation,
                             const std::string& module, int version,
                             const ConfigStoreObjectList& data,
                             const ConfigStoreObjectList& references) {
  document.SetObject();
  PopulateMetadata(id, operation, module, version);
  PopulateCSOList(data, "data");
  PopulateCSOList(references, "references");
}

PluginRequest::PluginRequest(const std::string& id, const std::string& operation,
                             const std::string& module, int version,
                             const DesiredConfigInputList& inputs) {
  document.SetObject();
  PopulateMetadata(id, operation, module, version);
  PopulateInputs(inputs);
}

PluginRequest::PluginRequest(PluginRequest&&) noexcept = default;
PluginRequest& PluginRequest::operator=(PluginRequest&&) noexcept = default;
PluginRequest::~PluginRequest() = default;

void PluginRequest::PopulateMetadata(const std::string& id, const std::string& operation,
                                     const std::string& module, int version) {
  auto& alloc = document.GetAllocator();
  document.AddMember("key", Value(id, alloc), alloc);
  document.AddMember("version", Value(version), alloc);
  document.AddMember("type", Value(operation, alloc), alloc);
  if (!module.empty()) document.AddMember("module", Value(module, alloc), alloc);
}

void PluginRequest::PopulateTaskId(const std::string& taskId) {
  auto& alloc = document.GetAllocator();
  document.AddMember("taskId", Value(taskId, alloc), alloc);
}

void PluginRequest::PopulateClusterContext(const std::string& context) {
  auto& alloc = document.GetAllocator();
  document.AddMember("clusterContext", Value(context, alloc), alloc);
}

void PluginRequest::PopulateCSOIds(const ConfigStoreObjectIdList& csoIds) {
  auto& alloc = document.GetAllocator();
  Value list(rapidjson::kArrayType);
  for (const auto& id : csoIds) {
    Value entry(rapidjson::kObjectType);
    entry.AddMember("component", Value(id.GetComponent(), alloc), alloc);
    entry.AddMember("group", Value(id.GetGroup(), alloc), alloc);
    entry.AddMember("key", Value(id.GetKey(), alloc), alloc);
    list.PushBack(entry, alloc);
  }
  document.AddMember("csoIds", list, alloc);
}

std::string PluginRequest::PopulateCSOId(Value& entry, const ConfigStoreObject& object) {
  auto& alloc = document.GetAllocator();
  const ConfigStoreObjectId& id = object.GetConfigStoreObjectId();
  entry.AddMember("component", Value(id.GetComponent(), alloc), alloc);
  entry.AddMember("group", Value(id.GetGroup(), alloc), alloc);
  entry.AddMember("key", Value(id.GetKey(), alloc), alloc);
  entry.AddMember("instanceId", Value(id.GetInstanceId(), alloc), alloc);
  return id.GetComponent() + id.GetGroup() + id.GetKey() + id.GetInstanceId();
}

void PluginRequest::PopulateCSOList(const ConfigStoreObjectList& objects, const char* name) {
  auto& alloc = document.GetAllocator();
  Value list(rapidjson::kObjectType);
  for (const auto& object : objects) {
    Value entry(rapidjson::kObjectType);
    entry.AddMember("config", DataText(object, alloc), alloc);
    std::string entryName = PopulateCSOId(entry, *object);
    list.AddMember(Value(entryName, alloc), entry, alloc);
  }
  document.AddMember(Value(name, alloc), list, alloc);
}

void PluginRequest::PopulateInputs(const DesiredConfigInputList& inputs) {
  auto& alloc = document.GetAllocator();
  Value data(rapidjson::kObjectType);
  for (const auto& input : inputs) {
    Value entry(rapidjson::kObjectType);
    entry.AddMember("operation", Value(input.operation, alloc), alloc);
    entry.AddMember("config", DataText(input.object, alloc), alloc);
    if (input.drift)
      entry.AddMember("drift", Value(input.drift->GetSerializedDrift(), alloc), alloc);
    if (input.cachedDrift) {
      Value cached(rapidjson::kObjectType);
      if (input.cachedDrift->drift)
        cached.AddMember("drift", Value(input.cachedDrift->drift->GetSerializedDrift(), alloc), alloc);
      cached.AddMember("operation", Value(input.cachedDrift->operation, alloc), alloc);
      entry.AddMember("cachedDrift", cached, alloc);
    }
    std::string entryName = PopulateCSOId(entry, *input.object);
    data.AddMember(Value(entryName, alloc), entry, alloc);
  }
  document.AddMember("data", data, alloc);
}

void PluginRequest::Dump(const std::string& path, const std::string& taskId,
                         const std::string& context) {
  PopulateTaskId(taskId);
  PopulateClusterContext(context);
  const std::string text = QenPlatform::CompactJson(document);
  // The request carries configuration values: a new owner-only file, never
  // written through a link planted at the path.
  dumpError = 0;
  int fd = QenPlatform::CreatePrivateFile(QenPlatform::HostPath(path));
  if (fd < 0) {
    dumpError = errno;
    return;
  }
  if (!QenPlatform::WriteAll(fd, text.data(), text.size())) dumpError = errno;
  ::close(fd);
}

void PluginRequest::Load(const std::string& path) {
  rapidjson::Document parsed;
  bool opened = false;
  if (!ReadJsonFile(QenPlatform::HostPath(path), parsed, opened))
    throw std::runtime_error("Failed to load plugin input json.");
  document.Swap(parsed);
}

std::string PluginRequest::GetString(const char* member, const char* missing) const {
  auto it = document.FindMember(member);
  if (it == document.MemberEnd()) throw std::runtime_error(missing);
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

int PluginRequest::GetVersion() const {
  auto it = document.FindMember("version");
  if (it == document.MemberEnd())
    throw std::runtime_error("The PluginRequest structure does not contain version.");
  return it->value.GetInt();
}

std::string PluginRequest::GetTaskId() const {
  return GetString("taskId", "The PluginRequest structure does not contain taskId");
}

std::string PluginRequest::GetId() const {
  return GetString("key", "The PluginRequest structure does not contain key");
}

std::string PluginRequest::GetModule() const {
  return GetString("module", "The PluginRequest structure does not contain module");
}

std::string PluginRequest::GetType() const {
  return GetString("type", "The PluginRequest structure does not contain type");
}

std::string PluginRequest::GetClusterContext() const {
  return GetString("clusterContext", "The PluginRequest structure does not contain context");
}

DesiredConfigInputList PluginRequest::GetData() const {
  auto data = document.FindMember("data");
  if (data == document.MemberEnd())
    throw std::runtime_error("The PluginRequest structure does not contain data");
  DesiredConfigInputList inputs;
  inputs.reserve(data->value.MemberCount());
  OrdinalCounter ordinals;
  for (const auto& member : data->value.GetObject()) {
    const Value& entry = member.value;
    DesiredConfigInput input;
    auto operation = entry.FindMember("operation");
    if (operation != entry.MemberEnd()) input.operation = operation->value.GetString();
    const ConfigStoreObjectId id = EntryId(entry);
    input.object = QenConfigStore::CreateObject(id, entry["config"].GetString(), ordinals.Next(id));
    auto drift = entry.FindMember("drift");
    if (drift != entry.MemberEnd())
      input.drift = QenConfigStore::CreateDriftObject(id, drift->value.GetString(), input.operation);
    auto cached = entry.FindMember("cachedDrift");
    if (cached != entry.MemberEnd()) {
      const Value& c = cached->value;
      input.cachedDrift = std::make_shared<CachedDriftObject>();
      input.cachedDrift->operation = c["operation"].GetString();
      auto cachedDrift = c.FindMember("drift");
      if (cachedDrift != c.MemberEnd())
        input.cachedDrift->drift = QenConfigStore::CreateDriftObject(
            id, cachedDrift->value.GetString(), input.cachedDrift->operation);
    }
    inputs.push_back(std::move(input));
  }
  return inputs;
}

ConfigStoreObjectList PluginRequest::GetReferences() const {
  ConfigStoreObjectList objects;
  auto references = document.FindMember("references");
  if (references == document.MemberEnd()) return objects;
  OrdinalCounter ordinals;
  for (const auto& member : references->value.GetObject()) {
    const Value& entry = member.value;
    const ConfigStoreObjectId id = EntryId(entry);
    objects.push_back(QenConfigStore::CreateObject(id, entry["config"].GetString(), ordinals.Next(id)));
  }
  return objects;
}

ConfigStoreObjectIdList PluginRequest::GetCSOIdsForExtract() const {
  auto csoIds = document.FindMember("csoIds");
  if (csoIds == document.MemberEnd())
    throw std::runtime_error("The Extract PluginRequest structure does not contain csoIds.");
  if (!csoIds->value.IsArray())
    throw std::runtime_error("The Extract PluginRequest's csoIds should be a list.");
  ConfigStoreObjectIdList ids;
  for (const auto& element : csoIds->value.GetArray()) {
    if (!element.IsObject() || !element.HasMember("key") || !element.HasMember("group") ||
        !element.HasMember("component"))
      throw std::runtime_error("The Extract PluginRequest format is invalid");
    ids.emplace_back(element["key"].GetString(), element["group"].GetString(),
                     element["component"].GetString());
  }
  return ids;
}

}  // namespace QenConfigManager

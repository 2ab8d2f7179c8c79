// The impact drift handler: the schema layer of the impact computation and
// the routing of drifted keys to impact plugins, with the drift cache.
#include <algorithm>
#include <cstring>

#include <boost/container_hash/hash.hpp>

#include "CSLogger.h"
#include "configmanager/impact.h"

namespace QenConfigManager {
namespace {

constexpr const char* kInfoAdd = "corvane.settings.impact.info.add";
constexpr const char* kInfoSet = "corvane.settings.impact.info.set";
constexpr const char* kInfoDelete = "corvane.settings.impact.info.delete";

bool Is(const rapidjson::Value& text, const char* literal) {
  return text.GetStringLength() == std::strlen(literal) &&
         std::memcmp(text.GetString(), literal, text.GetStringLength()) == 0;
}

bool IsGeneratedId(const rapidjson::Value& name) { return Is(name, "cs_generated_id"); }

bool Sensitive(const rapidjson::Value& schema) {
  auto it = schema.FindMember("sensitive");
  return it != schema.MemberEnd() && it->value.IsBool() && it->value.GetBool();
}

// Whether the scalar `value` matches one of `impactValues` under the
// property's type. An empty list matches any value; a desired value of
// another kind than the type never matches. Impact values of the wrong kind
// and a list that is not an array raise the JSON error (1082). A sensitive
// desired value is not logged.
bool ValueMatches(const rapidjson::Value& value, const rapidjson::Value& impactValues,
                  const rapidjson::Value& typeName, bool sensitive) {
  const auto list = impactValues.GetArray();
  if (list.Empty()) return true;
  if (Is(typeName, "integer") || Is(typeName, "long")) {
    if (!value.IsInt64()) return false;
    if (sensitive) CSLogger::Log(2, ">>> DesiredLong: (sensitive)");
    else CSLogger::Log(2, ">>> DesiredLong: %ld", static_cast<long>(value.GetInt64()));
    for (const auto& impact : list) {
      const int64_t wanted = impact.GetInt64();
      CSLogger::Log(2, ">>> ImpactLong: %ld", static_cast<long>(wanted));
      if (wanted == value.GetInt64()) return true;
    }
    return false;
  }
  if (Is(typeName, "number") || Is(typeName, "double")) {
    // An integral JSON number is not a floating value and never matches.
    if (!value.IsDouble()) return false;
    if (sensitive) CSLogger::Log(2, ">>> DesiredDouble: (sensitive)");
    else CSLogger::Log(2, ">>> DesiredDouble: %lf", value.GetDouble());
    for (const auto& impact : list) {
      const double wanted = impact.GetDouble();
      CSLogger::Log(2, ">>> ImpactDouble: %lf", wanted);
      if (wanted >= value.GetDouble() && wanted <= value.GetDouble()) return true;
    }
    return false;
  }
  if (Is(typeName, "boolean")) {
    if (!value.IsBool()) return false;
    if (sensitive) CSLogger::Log(2, ">>> DesiredBool: (sensitive)");
    else CSLogger::Log(2, ">>> DesiredBool: %ld", value.GetBool() ? 1L : 0L);
    for (const auto& impact : list) {
      const bool wanted = impact.GetBool();
      CSLogger::Log(2, ">>> ImpactBool: %ld", wanted ? 1L : 0L);
      if (wanted == value.GetBool()) return true;
    }
    return false;
  }
  if (Is(typeName, "string")) {
    if (!value.IsString()) return false;
    if (sensitive) CSLogger::Log(2, ">>> DesiredStr: (sensitive)");
    else CSLogger::Log(2, ">>> DesiredStr: %s", value.GetString());
    for (const auto& impact : list) {
      CSLogger::Log(2, ">>> ImpactStr: %s", impact.GetString());
      if (impact.GetStringLength() == value.GetStringLength() &&
          std::memcmp(impact.GetString(), value.GetString(), value.GetStringLength()) == 0)
        return true;
    }
    return false;
  }
  return false;
}

// The property annotation `annotation` of a scalar's schema matches `value`.
bool AnnotationMatches(const rapidjson::Value& value, const rapidjson::Value& schema,
                       const char* annotation, bool sensitive) {
  auto it = schema.FindMember(annotation);
  if (it == schema.MemberEnd()) return false;
  return ValueMatches(value, it->value["SET"], schema["type"], sensitive);
}

bool Lists(const std::vector<std::string>& operations, const char* name) {
  return std::find(operations.begin(), operations.end(), name) != operations.end();
}

// Walks a desired property value against its schema node; a scalar that
// matches a reboot or maintenance-mode value list sets the match flag.
void WalkPropImpact(const rapidjson::Value& value, const rapidjson::Value& schema, std::string& path,
                    bool sensitive, bool& rebootMatch, bool& maintenanceMatch) {
  const size_t length = path.size();
  if (value.IsObject()) {
    const rapidjson::Value& properties = schema["properties"];
    for (const auto& member : value.GetObject()) {
      // Generated identifiers are the store's, not configuration.
      if (IsGeneratedId(member.name)) continue;
      const rapidjson::Value& node = properties[member.name];
      path.push_back('/');
      path.append(member.name.GetString(), member.name.GetStringLength());
      WalkPropImpact(member.value, node, path, sensitive || Sensitive(node), rebootMatch, maintenanceMatch);
      path.resize(length);
    }
    return;
  }
  if (value.IsArray()) {
    const rapidjson::Value& items = schema["items"];
    // Arrays of scalars are compared as a whole and never weighed per item.
    if (!Is(items["type"], "object")) return;
    const bool itemsSensitive = sensitive || Sensitive(items);
    for (rapidjson::SizeType i = 0; i < value.Size(); ++i) {
      path.push_back('/');
      path += std::to_string(i);
      WalkPropImpact(value[i], items, path, itemsSensitive, rebootMatch, maintenanceMatch);
      path.resize(length);
    }
    return;
  }
  if (AnnotationMatches(value, schema, "rebootRequired", sensitive)) {
    rebootMatch = true;
    CSLogger::Log(2, "RebootRequired for path: %s", path.c_str());
  }
  if (AnnotationMatches(value, schema, "maintenanceModeRequired", sensitive)) {
    maintenanceMatch = true;
    CSLogger::Log(2, "MaintenanceMode for path: %s", path.c_str());
  }
}

}  // namespace

size_t ImpactInfoHash::operator()(const ImpactInfo& info) const {
  size_t seed = 0;
  boost::hash_combine(seed, info.msgId);
  for (const auto& arg : info.args) boost::hash_combine(seed, arg);
  return seed;
}

ImpactHandler::ImpactHandler(DRIFT_CACHE_MODE mode) : driftCacheMode(mode), plugins(PLUGIN_IMPACT) {
  // A changed key or instance must end in one Set with its drift document:
  // that Set decides the key's impact from its property events and carries
  // the drift to the impact plugin.
  consolidatedAction = true;
  createDriftObject = true;
  driftCache.SetObject();
}

ImpactHandler::~ImpactHandler() = default;

void ImpactHandler::AddKeyInfo(const char* msgId, const ConfigStoreObjectId& id) {
  impactInfo.insert(ImpactInfo(msgId, {id.GetKey(), id.GetGroup(), id.GetComponent()}));
}

void ImpactHandler::Add(const rapidjson::Value& desiredValue, const ConfigStoreObjectId& id,
                        const std::shared_ptr<SchemaObject>& schema, const std::string& path) {
  compliant = false;
  AddKeyInfo(kInfoAdd, id);
  ComputeObjImpact(ADD, schema, path);
  UpdatePluginMap(id, desiredValue, schema, ADD, kEmptyVal);
}

void ImpactHandler::Set(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
                        const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                        const std::string& path, const rapidjson::Value& drift) {
  compliant = false;
  // A singleton the host has no value for is created, not changed.
  const bool created =
      !schema->IsMultipleInstance() &&
      (hostValue.IsNull() || (hostValue.IsObject() && hostValue.MemberCount() == 0) ||
       (hostValue.IsString() && Is(hostValue, QenConfigStore::kDeleteDefault)));
  const ACTION action = created ? ADD : SET;
  AddKeyInfo(created ? kInfoAdd : kInfoSet, id);
  ComputeObjImpact(action, schema, path);
  UpdatePluginMap(id, desiredValue, schema, action, drift);
}

void ImpactHandler::Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId& id,
                           const std::shared_ptr<SchemaObject>& schema, const std::string& path) {
  compliant = false;
  AddKeyInfo(kInfoDelete, id);
  ComputeObjImpact(DELETE, schema, path);
  UpdatePluginMap(id, hostValue, schema, DELETE, kEmptyVal);
}

void ImpactHandler::PropertyDrift(const rapidjson::Value& desiredValue, const rapidjson::Value&,
                                  const rapidjson::Value& propertySchema, const std::string& path,
                                  ACTION action) {
  compliant = false;
  // A removed property has no new value to weigh.
  if (action == DELETE) return;
  std::string walkPath = path;
  ComputePropImpact(desiredValue, propertySchema, walkPath);
}

void ImpactHandler::ComputePropImpact(const rapidjson::Value& value, const rapidjson::Value& schema,
                                      std::string& path) {
  WalkPropImpact(value, schema, path, Sensitive(schema), propertyRebootMatch, propertyMaintenanceMatch);
}

void ImpactHandler::ComputeObjImpact(ACTION action, const std::shared_ptr<SchemaObject>& schema,
                                     const std::string& path) {
  const char* name = kActionNames[action];
  std::vector<std::string> rebootOps, maintenanceOps;
  bool rebootPerProperty = false, maintenancePerProperty = false;
  const bool reboot = schema->GetRebootOperations(rebootOps, rebootPerProperty) == 0 && Lists(rebootOps, name);
  const bool maintenance =
      schema->GetMaintenanceModeOperations(maintenanceOps, maintenancePerProperty) == 0 &&
      Lists(maintenanceOps, name);

  if (reboot || maintenance) {
    if (action == SET && (rebootPerProperty || maintenancePerProperty)) {
      if (propertyRebootMatch && reboot) {
        rebootRequired = true;
        CSLogger::Log(2, "Impact: rebootRequired, Op: %s for path: %s", name, path.c_str());
      }
      if (propertyMaintenanceMatch && maintenance) {
        maintenanceModeRequired = true;
        CSLogger::Log(2, "Impact: maintenanceModeRequired, Op: %s for path: %s", name, path.c_str());
      }
    } else {
      rebootRequired |= reboot;
      maintenanceModeRequired |= maintenance;
      CSLogger::Log(2, "Impact: maintenanceModeRequired=%d, rebootRequired=%d Op: %s for path: %s",
                    maintenance ? 1 : 0, reboot ? 1 : 0, name, path.c_str());
    }
  }
  propertyRebootMatch = false;
  propertyMaintenanceMatch = false;
}

void ImpactHandler::UpdatePluginMap(const ConfigStoreObjectId& id, const rapidjson::Value& value,
                                    const std::shared_ptr<SchemaObject>& schema, ACTION action,
                                    const rapidjson::Value& drift) {
  const std::vector<std::shared_ptr<Plugin>> found = plugins.Find(id);
  if (found.empty()) {
    CSLogger::Log(3, "Plugin not present for %s", id.toString().c_str());
    return;
  }
  const std::shared_ptr<Plugin>& plugin = found.front();
  const ConfigStoreObjectIdList cacheList = plugin->GetImpactCacheDetails();
  CSLogger::Log(3, "Found plugin=%s for cso=%s, version: %d", plugin->GetId().c_str(),
                id.toString().c_str(), static_cast<int>(plugin->GetVersion()));
  const char* name = kActionNames[action];

  std::shared_ptr<DriftObject> driftObject;
  if (drift.IsObject() && drift.MemberCount() > 0)
    driftObject = std::make_shared<DriftObject>(id, name, drift);

  const bool cached = std::any_of(cacheList.begin(), cacheList.end(), [&](const ConfigStoreObjectId& c) {
    return c.GetComponent() == id.GetComponent() && c.GetGroup() == id.GetGroup() &&
           c.GetKey() == id.GetKey();
  });
  const std::string cacheKey =
      id.GetComponent() + ":" + id.GetGroup() + ":" + id.GetKey() + ":" + id.GetInstanceId();
  std::shared_ptr<CachedDriftObject> cachedDrift;
  if (cached && driftCacheMode == DRIFT_CACHE_RECORD) {
    auto& allocator = driftCache.GetAllocator();
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("operation", rapidjson::Value(name, allocator), allocator);
    entry.AddMember("drift", rapidjson::Value(drift, allocator), allocator);
    // One entry per object: a second event for it replaces the first.
    auto existing = driftCache.FindMember(cacheKey.c_str());
    if (existing != driftCache.MemberEnd()) existing->value = entry;
    else driftCache.AddMember(rapidjson::Value(cacheKey, allocator), entry, allocator);
    CSLogger::Log(2, "Caching drift info for %s", cacheKey.c_str());
  } else if (cached && driftCacheMode == DRIFT_CACHE_REPLAY) {
    auto entry = driftCache.IsObject() ? driftCache.FindMember(cacheKey.c_str()) : driftCache.MemberEnd();
    if (driftCache.IsObject() && entry != driftCache.MemberEnd() && entry->value.IsObject()) {
      CSLogger::Log(2, "Found cached drift info for %s", cacheKey.c_str());
      const std::string operation = entry->value["operation"].GetString();
      cachedDrift = std::make_shared<CachedDriftObject>();
      cachedDrift->operation = operation;
      cachedDrift->drift =
          QenConfigStore::CreateDriftObject(id, QenPlatform::CompactJson(entry->value["drift"]), operation);
    }
  }

  DesiredConfigInput input;
  input.object = QenConfigStore::CreateObject(id, value, schema);
  input.drift = std::move(driftObject);
  input.operation = name;
  input.cachedDrift = std::move(cachedDrift);
  TaskMap& task = pluginMap[plugin->GetId()];
  if (!task.plugin) task.plugin = plugin;
  task.inputs.push_back(std::move(input));
}

}  // namespace QenConfigManager

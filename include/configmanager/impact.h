// Impact: what applying a desired document would cost the host (nothing,
// maintenance mode, or a reboot).
//
// Two layers make one ImpactResult: the schema layer reads the impact
// annotations of every drifted key's schema (operation lists per key,
// "rebootRequired" / "maintenanceModeRequired" value lists per property), and
// the plugin layer routes every drifted key that an impact plugin covers to
// that plugin, which answers per key.
//
// Ownership: Impact builds and drops its own handler; ImpactWithCustomHandler
// borrows the caller's, which keeps its drift cache, plugin map and flags
// afterwards (check-apply records the cache, apply replays it). Documents are
// borrowed for the call; the drift walk may add generated instance
// identifiers to the desired document.
// Thread safety: a handler and the documents belong to one thread for a
// call; plugins run one at a time, and the task handle is polled for abort
// from the plugin launcher's monitor thread as well.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "configmanager/common.h"
#include "configmanager/drift.h"
#include "configmanager/plugin.h"

namespace QenConfigManager {

enum IMPACT_TYPE : int32_t {
  NO_IMPACT = 0,                  // can be applied on the running host
  MAINTENANCE_MODE_REQUIRED = 1,  // the host must be in maintenance mode while applying
  REBOOT_REQUIRED = 2,            // takes effect only through a reboot
};

// One impact message for the caller: a message identifier
// ("corvane.settings.impact.info.add|set|delete|reboot|maintenance-mode")
// and its arguments (key, group, component for the per-key messages).
struct QCM_EXPORT ImpactInfo {
  ImpactInfo() = default;
  ImpactInfo(std::string msgId, std::list<std::string> args)
      : msgId(std::move(msgId)), args(std::move(args)) {}
  bool operator==(const ImpactInfo& o) const { return msgId == o.msgId && args == o.args; }

  std::string msgId;
  std::list<std::string> args;
};

// Combines the identifier's hash with every argument's, in order.
struct QCM_EXPORT ImpactInfoHash {
  size_t operator()(const ImpactInfo& info) const;
};
typedef std::unordered_set<ImpactInfo, ImpactInfoHash> ImpactInfoSet;

struct QCM_EXPORT ImpactResult {
  bool compliant = true;
  IMPACT_TYPE impact = NO_IMPACT;
  // The handler's per-key messages (in no particular order), then the reboot
  // or the maintenance-mode message (reboot outranks maintenance mode).
  std::vector<ImpactInfo> impactInfo;
  // Set when an impact plugin failed or the task was aborted; the other
  // fields then hold what was computed so far. Test it first.
  ErrorInfo errorInfo;
  // The host's quick-boot capability, or QUICKBOOT_UNSUPPORTED when the host
  // complies or an impact plugin said quick boot does not cope.
  QUICK_BOOT_STATUS quickBootStatus = QUICKBOOT_UNSUPPORTED;
};

// What one plugin is to be given: the plugin and its inputs in the order in
// which the keys were reported.
struct QCM_EXPORT TaskMap {
  std::shared_ptr<Plugin> plugin;
  DesiredConfigInputList inputs;
};
typedef std::unordered_map<std::string, TaskMap> PluginTaskMap;

enum DRIFT_CACHE_MODE : int32_t {
  DRIFT_CACHE_OFF = 0,
  // Check-apply: the drift of every key an impact plugin lists under
  // "impact"."cache_drift" is kept in driftCache.
  DRIFT_CACHE_RECORD = 1,
  // Apply: inputs of those keys carry the drift recorded at check time
  // (DesiredConfigInput::cachedDrift) when driftCache has it.
  DRIFT_CACHE_REPLAY = 2,
};

// The drift handler of the impact computation. Sets consolidatedAction and
// createDriftObject, so that every changed key or instance ends in one Set
// (with its drift document) after its property events. The drift cache is
// the base's driftCache document: {"C:G:K:instance": {"operation": "SET",
// "drift": {...}}, ...}; the caller moves it between handlers as text.
// Constructing one loads the impact plugins (the PluginManager's failures).
class QCM_EXPORT ImpactHandler : public DriftHandler {
 public:
  explicit ImpactHandler(DRIFT_CACHE_MODE mode = DRIFT_CACHE_OFF);
  ~ImpactHandler() override;

  void Add(const rapidjson::Value& desiredValue, const ConfigStoreObjectId& id,
           const std::shared_ptr<SchemaObject>& schema, const std::string& path) override;
  void Set(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
           const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
           const std::string& path, const rapidjson::Value& drift) override;
  void Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId& id,
              const std::shared_ptr<SchemaObject>& schema, const std::string& path) override;
  void PropertyDrift(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
                     const rapidjson::Value& propertySchema, const std::string& path,
                     ACTION action) override;

  bool GetCompliant() const { return compliant; }
  bool GetRebootRequired() const { return rebootRequired; }
  bool GetMaintenanceModeRequired() const { return maintenanceModeRequired; }
  DRIFT_CACHE_MODE GetDriftCacheMode() const { return driftCacheMode; }
  ImpactInfoSet GetImpactInfo() const { return impactInfo; }
  // Impact plugin identifier -> the plugin and the inputs routed to it.
  PluginTaskMap GetPluginMap() const { return pluginMap; }

 private:
  // Walks a desired property value against its schema node and notes
  // whether a scalar matches a reboot or maintenance-mode value list.
  void ComputePropImpact(const rapidjson::Value& value, const rapidjson::Value& schema,
                         std::string& path);
  // Decides the object event's impact from the key's operation lists (and
  // the property matches for a per-property SET); clears the matches.
  void ComputeObjImpact(ACTION action, const std::shared_ptr<SchemaObject>& schema,
                        const std::string& path);
  // Routes the object to the first impact plugin that serves it, recording
  // or replaying its drift.
  void UpdatePluginMap(const ConfigStoreObjectId& id, const rapidjson::Value& value,
                       const std::shared_ptr<SchemaObject>& schema, ACTION action,
                       const rapidjson::Value& drift);
  void AddKeyInfo(const char* msgId, const ConfigStoreObjectId& id);

  bool compliant = true;
  bool rebootRequired = false;
  bool maintenanceModeRequired = false;
  DRIFT_CACHE_MODE driftCacheMode;
  bool propertyRebootMatch = false;
  bool propertyMaintenanceMatch = false;
  ImpactInfoSet impactInfo;
  PluginManager plugins;
  PluginTaskMap pluginMap;
};

// The impact of applying `desired` (with or without "profile"). `context` is
// handed unchanged to every impact plugin. Progress: 20 after the drift
// walk, then up to 100 over the impact plugins, with "...impact.plugin.started"
// / "...finished" notifications (plugin identifier). A plugin failure or an
// abort comes back in errorInfo ("corvane.qen.settings.impact.plugin.aborted"
// with the next plugin's identifier), never thrown.
// Throws: ConfigStoreException 1082 (a desired document that is not an
// object, a malformed impact annotation), the drift walk's and the plugin
// manager's failures.
QCM_EXPORT ImpactResult Impact(rapidjson::Document& desired, const std::string& context,
                               std::shared_ptr<TaskHandle> task);
QCM_EXPORT ImpactResult ImpactWithCustomHandler(rapidjson::Document& desired,
                                                const std::string& context,
                                                ImpactHandler& handler,
                                                std::shared_ptr<TaskHandle> task);

}  // namespace QenConfigManager

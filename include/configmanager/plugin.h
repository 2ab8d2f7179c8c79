// The plugin framework: manifests, the plugin manager and apply order,
// request documents, the launcher that runs a plugin runner, and the four
// plugin operations.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "configmanager/common.h"

namespace QenConfigStore {
class ConfigStoreObject;
class DriftObject;
}  // namespace QenConfigStore

// ---- manifests, manager, requests -----------------------------------------
//
// Manifest schema checking. Free functions, stateless, thread-safe. Paths are
// physical (they serve tooling that checks manifests before installation);
// the library's own callers map logical paths with QenPlatform::HostPath.

// Manifest version -> parsed manifest schema.
typedef std::unordered_map<int64_t, std::shared_ptr<rapidjson::Document>> PluginSchemaTable;

// The manifest's integer "version", or 1 when it has none (or not an object).
QCM_EXPORT int64_t GetPluginVersion(const rapidjson::Value& manifest);
// Parses and vets one schema file; the version it serves, or -1 and `error`.
QCM_EXPORT int64_t CreatePluginSchemaFromFile(const std::string& path, rapidjson::Document& schema,
                                              std::string& error);
// The three version schemas of `directory`; empty with `error` set when one
// of them is bad (the first bad file stops the load).
QCM_EXPORT PluginSchemaTable CreatePluginSchemas(std::string_view directory, std::string& error);
// Appends {"file": file, "validation_errors": value} to `report` (an array);
// `value` is moved in and left null, so it must come from the report's
// allocator (or one that outlives the report).
QCM_EXPORT void AddValidationError(rapidjson::Document& report, std::string_view file,
                                   rapidjson::Value& value);
// Checks every ".json" file below `manifestDir` against its version's schema
// and appends one report element per problem. Never throws for bad files.
QCM_EXPORT void ValidateAllPlugins(std::string_view manifestDir, std::string_view schemaDir,
                                   rapidjson::Document& report);

namespace QenConfigManager {

using QenConfigStore::ConfigStoreObject;
using QenConfigStore::DriftObject;
typedef std::vector<std::shared_ptr<ConfigStoreObject>> ConfigStoreObjectList;
typedef std::vector<ConfigStoreObjectId> ConfigStoreObjectIdList;

// Results of the plugin operations, read from the runner's result file by the
// plugin support library.
class ImpactPluginResult;
class ExtractPluginResult;
class ValidationPluginResult;

enum PluginType : int32_t {
  PLUGIN_APPLY = 0,
  PLUGIN_APPLY_BOOT = 1,
  PLUGIN_EXTRACT = 2,
  PLUGIN_IMPACT = 3,
  PLUGIN_VALIDATE = 4,
};

// One apply operation of a plugin: the service it provides and the services
// that must have run before it.
class QCM_EXPORT PluginApplyOperation {
 public:
  PluginApplyOperation() = default;
  PluginApplyOperation(std::string name, std::string provides, std::vector<std::string> depends)
      : name(std::move(name)), provides(std::move(provides)), depends(std::move(depends)) {}
  ~PluginApplyOperation();

  std::string name;
  std::string provides;
  std::vector<std::string> depends;
};

// The drift details restored from a drift cache.
struct QCM_EXPORT CachedDriftObject {
  std::shared_ptr<DriftObject> drift;  // may be null
  std::string operation;
};

// One configuration object handed to an apply or impact plugin.
struct QCM_EXPORT DesiredConfigInput {
  std::shared_ptr<ConfigStoreObject> object;           // never null
  std::shared_ptr<DriftObject> drift;                  // null: no drift
  std::string operation;                               // "SET", "ADD", "DELETE" or ""
  std::shared_ptr<CachedDriftObject> cachedDrift;      // null: none
};
typedef std::vector<DesiredConfigInput> DesiredConfigInputList;

// The in-memory form of one plugin manifest, named by its logical path below
// the plugin directory (the identity comes from the path's segments).
// Immutable after construction, safe to read from any thread; shared through
// std::shared_ptr. Every accessor reads the kept manifest; a key that the
// manifest lacks or has with the wrong type throws ConfigStoreException 1082.
class QCM_EXPORT Plugin {
 public:
  // Throws ConfigManagerException (3000, 2081, 2082) for a rejected manifest.
  explicit Plugin(const char* filename);
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Checks the manifest against its version's schema; throws 3000.
  void validateFile(const char* filename) const;

  std::string GetId() const { return id; }
  int64_t GetVersion() const { return version; }
  const std::string& GetType() const { return type; }
  // Shared object of a "c++" plugin; empty for "python".
  const std::string& GetModule() const { return module; }
  // The schema store's text for the first accepted object (may be empty).
  const std::string& GetSchemaLabel() const { return schemaLabel; }
  const rapidjson::Document& GetManifest() const { return manifest; }
  ConfigStoreObjectIdList GetCSOIdList() const { return csoIds; }

  std::string GetApplyGroup() const;
  bool HasApplyBootSupport() const;
  bool HasApplySupport() const;
  bool HasValidateSupport() const;
  bool HasExtractSupport() const;
  bool HasImpactSupport() const;
  // Version 3 only: fills `operation` (passed in empty) from "apply"."REMEDIATE".
  void GetRemediateOperation(PluginApplyOperation& operation) const;
  std::vector<PluginApplyOperation> GetOperations() const;
  bool CheckType(PluginType pluginType) const;
  ConfigStoreObjectIdList GetExtractConfigIds() const;
  ConfigStoreObjectIdList GetImpactCacheDetails() const;
  ConfigStoreObjectIdList GetReferences() const;

  // The plugin operations: run the plugin's runner; a plugin failure comes
  // back in the result's ErrorInfo, never as an exception.
  ErrorInfo Apply(const DesiredConfigInputList& inputs, const std::string& context,
                  const std::shared_ptr<PluginMonitor>& monitor) const;
  ImpactPluginResult Impact(const DesiredConfigInputList& inputs, const std::string& context,
                            const std::shared_ptr<PluginMonitor>& monitor) const;
  ExtractPluginResult Extract(const ConfigStoreObjectIdList& ids, const std::string& context,
                              const std::shared_ptr<PluginMonitor>& monitor) const;
  ValidationPluginResult Validate(const ConfigStoreObjectList& data,
                                  const ConfigStoreObjectList& references,
                                  const std::string& context,
                                  const std::shared_ptr<PluginMonitor>& monitor) const;

 private:
  bool SectionSupports(const char* section) const;
  ConfigStoreObjectIdList SectionObjects(const char* section, const char* member) const;

  int64_t version = 1;
  std::string type;
  std::string module;
  std::string id;
  std::string schemaLabel;
  rapidjson::Document manifest;
  ConfigStoreObjectIdList csoIds;
};

// Node name -> the node names it depends on (apply groups and services).
typedef std::map<std::string, std::vector<std::string>> DependencyGraph;

// One apply operation of a plugin, as the apply runner runs it: the plugin
// and the operation's name, "REMEDIATE" for a version 3 plugin, the
// manifest's operation name ("SET", "ADD", "DELETE") for versions 0 to 2.
struct QCM_EXPORT ApplyOperationRef {
  std::shared_ptr<Plugin> plugin;
  std::string operation;
};

// Every manifest of one kind of work, indexed by accepted object, with the
// apply order for the apply kinds. Filled by its constructor, then read-only;
// built and used on one thread.
//
// Orders do not depend on the file system or on hashing: manifests are loaded
// in the order of their paths, GetPlugins and the providers of a service are
// ordered by plugin identifier (then manifest path), List by object path.
class QCM_EXPORT PluginManager {
 public:
  // Loads the plugin directory; throws 3000 (walk failed), the manifest's own
  // exception (one bad manifest stops the load) or 2083 (apply order).
  explicit PluginManager(PluginType pluginType);
  ~PluginManager();

  void Load(PluginType pluginType);
  void ProcessJson(const char* filename, PluginType pluginType);
  void BuildDependencies();
  void ProcessOperation(const PluginApplyOperation& operation, const std::string& group,
                        DependencyGraph& graph);

  // Plugins accepting component/group/key of `id`, the one added last (the
  // last manifest path) first.
  std::vector<std::shared_ptr<Plugin>> Find(const ConfigStoreObjectId& id) const;
  // "COMPONENT/GROUP/KEY:manifest path", one per extension table entry, by
  // object path and, for one object, in Find's order.
  std::vector<std::string> List() const;
  // Every loaded plugin, by plugin identifier.
  std::vector<std::shared_ptr<Plugin>> GetPlugins() const;
  // Apply order: group and service names, each after what it depends on.
  std::vector<std::string> GetDependencies() const { return dependencies; }
  // The apply operations that provide `name`, a name of GetDependencies():
  // what the apply runner runs, in this order, when it reaches the name (its
  // task key is the operation name, ":" and the plugin identifier). Ordered
  // by plugin identifier, a plugin's own operations in manifest order. Empty
  // for an apply group, for a name nothing provides and in managers of the
  // other kinds. Built once with the apply order; the reference lives as
  // long as the manager.
  const std::vector<ApplyOperationRef>& GetProviders(const std::string& name) const;

 private:
  // Loaded plugins with their manifest paths, by plugin identifier.
  std::vector<std::pair<std::string, std::shared_ptr<Plugin>>> ById() const;

  std::string directory;
  std::map<std::string, std::shared_ptr<Plugin>> plugins;  // by manifest path
  // Object path ("COMPONENT/GROUP/KEY") -> manifest paths, the one added last
  // first. A map of lists rather than a multimap: a multimap's order among
  // equal keys is the library's, and Find's order is part of the contract.
  std::map<std::string, std::vector<std::string>> extensionTable;
  std::vector<std::string> dependencies;
  // Service name -> the apply operations that provide it.
  std::map<std::string, std::vector<ApplyOperationRef>> providers;
};

// The request document of one plugin call, written to the request file for
// the runner and read back on the runner side. Used by one thread.
class QCM_EXPORT PluginRequest {
 public:
  PluginRequest();
  // EXTRACT.
  PluginRequest(const std::string& id, const std::string& operation, const std::string& module,
                int version, const ConfigStoreObjectIdList& csoIds);
  // VALIDATE.
  PluginRequest(const std::string& id, const std::string& operation, const std::string& module,
                int version, const ConfigStoreObjectList& data,
                const ConfigStoreObjectList& references);
  // APPLY and IMPACT.
  PluginRequest(const std::string& id, const std::string& operation, const std::string& module,
                int version, const DesiredConfigInputList& inputs);
  PluginRequest(PluginRequest&&) noexcept;
  PluginRequest& operator=(PluginRequest&&) noexcept;
  ~PluginRequest();

  void PopulateMetadata(const std::string& id, const std::string& operation,
                        const std::string& module, int version);
  void PopulateTaskId(const std::string& taskId);
  void PopulateClusterContext(const std::string& context);
  void PopulateCSOIds(const ConfigStoreObjectIdList& csoIds);
  // Adds the object's identifier members to `entry`; returns the entry name.
  std::string PopulateCSOId(rapidjson::Value& entry, const ConfigStoreObject& object);
  void PopulateCSOList(const ConfigStoreObjectList& objects, const char* name);

  // Adds "taskId" and "clusterContext" and writes the document (compact) to
  // a new file at `path`, mode 0600: what was there is removed first, and a
  // symbolic link is never followed. Paths are logical host paths, mapped
  // with QenPlatform::HostPath (a path already below the root is used as it
  // is).
  // Reports nothing itself (the runner would fail on its input): see
  // DumpError.
  void Dump(const std::string& path, const std::string& taskId, const std::string& context);
  // The errno of the last Dump when it could not write its file, else 0.
  int DumpError() const { return dumpError; }
  // Parses `path`; throws std::runtime_error when it cannot.
  void Load(const std::string& path);

  int GetVersion() const;
  std::string GetTaskId() const;
  std::string GetId() const;
  std::string GetModule() const;
  std::string GetType() const;
  std::string GetClusterContext() const;
  DesiredConfigInputList GetData() const;
  ConfigStoreObjectList GetReferences() const;
  ConfigStoreObjectIdList GetCSOIdsForExtract() const;

  const rapidjson::Document& GetDocument() const { return document; }

 private:
  void PopulateInputs(const DesiredConfigInputList& inputs);
  std::string GetString(const char* member, const char* missing) const;

  rapidjson::Document document;
  int dumpError = 0;
};

// ---- launcher ---------------------------------------------------------------
//
// Runs one plugin operation in a runner child process. One launcher per
// plugin call: construct, Dump `request` to kInputFile, ForkPlugin, read
// kOutputFile, destroy (the destructor removes both files, also after a
// failure). Used by one thread; ForkPlugin runs a monitor thread of its own
// for as long as it waits for the child. The request and result paths are
// fixed, so only one launcher may run at a time on a host: the Plugin
// operations hold a lock on kLockFile around the whole cycle, and so must
// any other user of a launcher. The runner dies with the calling thread.
class QCM_EXPORT PluginLauncher {
 public:
  // Logical paths of the runners and of the request and result files.
  static constexpr const char* kPythonRunner = "/usr/lib/corvane/configmanager/bin/py_plugin_runner";
  static constexpr const char* kCppRunner = "/usr/lib/corvane/configmanager/bin/cpp_plugin_runner";
  static constexpr const char* kInputFile = "/var/corvane/lifecycle/cm-plugin-input.json";
  static constexpr const char* kOutputFile = "/var/corvane/lifecycle/cm-plugin-output.json";
  // Held by every plugin call of the Plugin operations, in any process, from
  // before the request file is written until both files are removed.
  static constexpr const char* kLockFile = "/var/corvane/lifecycle/cm-plugin.lock";
  static constexpr const char* kResourceGroup = "++group=host/ovx/tavhost/configManagerPlugin,stats";

  // APPLY and IMPACT: builds the request from the inputs. Throws
  // ConfigManagerException 3000 for a "cpp" plugin without module.
  PluginLauncher(const std::string& id, int version, const std::string& operation,
                 const DesiredConfigInputList& inputs, const std::string& type, std::string module);
  // EXTRACT and VALIDATE: the caller built the request.
  PluginLauncher(PluginRequest request, const std::string& id, int version,
                 const std::string& operation, const std::string& type, std::string module);
  ~PluginLauncher();
  PluginLauncher(const PluginLauncher&) = delete;
  PluginLauncher& operator=(const PluginLauncher&) = delete;

  // Runs the runner to completion, terminating it (signal 15) when the
  // monitor reports an abort. Returns on a clean exit; throws
  // ConfigManagerException 3000 otherwise.
  void ForkPlugin(const std::shared_ptr<PluginMonitor>& monitor);

  PluginRequest request;
  rapidjson::Document output;  // an empty object; nothing reads it

 private:
  void CheckAndLog(int version, const std::string& module) const;

  std::string id;
  std::string operation;
  std::string type;
  std::chrono::steady_clock::time_point start;
};


}  // namespace QenConfigManager

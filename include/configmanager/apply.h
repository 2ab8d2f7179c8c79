// Apply: turning drift into apply inputs, and the two-step apply protocol.
//
// CheckApply computes the impact of a desired document and returns a
// CheckApplyResult: a snapshot of the document, the impact the caller has to
// accept, the quick-boot status, the context and the drift that impact
// plugins asked to keep. The caller decides (for example enters maintenance
// mode) and hands the snapshot to Apply, which re-checks the impact, refuses
// when it got worse, stages the document for the next boot on a reboot
// impact, and otherwise runs the apply plugins in their dependency order.
//
// Ownership: a CheckApplyResult is held by shared_ptr and never changes after
// construction; Apply only reads it, so a caller may keep it (a plan) and
// rebuild it later with the restoring constructor.
// Thread safety: everything runs on the caller's thread except the task
// handle's IsAborted, which the plugin launcher's monitor thread polls too.
// Plugin calls must not overlap on a host (the request and result files are
// fixed).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "configmanager/impact.h"

namespace QenConfigManager {

// ---- apply task generation ----------------------------------------------------

// The drift handler that turns every drifted key or instance into one apply
// input: ADD and DELETE as reported, SET with the key's drift document as a
// DriftObject (none when the drift is empty). Property events are ignored.
// Sets consolidatedAction and createDriftObject.
class QCM_EXPORT ApplyTaskGenerator : public DriftHandler {
 public:
  ApplyTaskGenerator();
  ~ApplyTaskGenerator() override;

  void Add(const rapidjson::Value& desiredValue, const ConfigStoreObjectId& id,
           const std::shared_ptr<SchemaObject>& schema, const std::string& path) override;
  void Set(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
           const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
           const std::string& path, const rapidjson::Value& drift) override;
  void Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId& id,
              const std::shared_ptr<SchemaObject>& schema, const std::string& path) override;

  // Appends one input: the configuration object made from id, value and
  // schema, the drift object (may be null) and the action's name.
  void createTask(const ConfigStoreObjectId& id, const rapidjson::Value& value,
                  const std::shared_ptr<SchemaObject>& schema, ACTION action,
                  std::shared_ptr<DriftObject> drift);
  // The inputs in the order in which the drift walk reported the keys.
  DesiredConfigInputList getTasks() const { return tasks; }

 private:
  DesiredConfigInputList tasks;
};

// One apply input per drifted key or instance of `desired` (with or without
// "profile") against the host's current configuration. Throws
// ConfigStoreException 1082 for a document that is not an object, and the
// drift walk's failures; never returns a partial list.
QCM_EXPORT DesiredConfigInputList GenerateApplyTasks(rapidjson::Document& desired);

// ---- check-apply and apply ------------------------------------------------------

class QCM_EXPORT CheckApplyResult {
 public:
  // A new result; the timestamp is now (decimal seconds since the epoch).
  // `desired` is deep-copied.
  CheckApplyResult(IMPACT_TYPE impact, const rapidjson::Value& desired,
                   QUICK_BOOT_STATUS quickBootStatus, std::string context, std::string driftCache);
  // Rebuilds a result that a caller kept (for example in a plan file), with
  // its original timestamp.
  CheckApplyResult(IMPACT_TYPE impact, const rapidjson::Value& desired, std::string timestamp,
                   QUICK_BOOT_STATUS quickBootStatus, std::string context, std::string driftCache);
  CheckApplyResult(const CheckApplyResult&) = delete;
  CheckApplyResult& operator=(const CheckApplyResult&) = delete;

  IMPACT_TYPE GetImpact() const { return impact; }
  const rapidjson::Document& GetDesiredDocument() const { return desiredDocument; }
  const std::string& GetTimestamp() const { return timestamp; }
  QUICK_BOOT_STATUS GetQuickBootStatus() const { return quickBootStatus; }
  const std::string& GetContext() const { return context; }
  // The check's drift cache as compact JSON text (an object keyed
  // "C:G:K:instance"); may be empty.
  const std::string& GetDriftCache() const { return driftCache; }

 private:
  IMPACT_TYPE impact;
  rapidjson::Document desiredDocument;
  std::string timestamp;
  QUICK_BOOT_STATUS quickBootStatus;
  std::string context;
  std::string driftCache;
};

enum APPLY_STATUS : int32_t {
  APPLY_DONE = 0,                      // applied, or nothing left to apply
  APPLY_STAGED_FOR_REBOOT = 1,         // stored as the desired configuration for the next boot
  APPLY_DONE_IN_MAINTENANCE_MODE = 2,  // applied while the host was in maintenance mode
};

enum APPLY_TASK_STATE : int32_t {
  APPLY_TASK_DONE = 0,
  APPLY_TASK_FAILED = 1,   // its plugin failed; `error` says how
  APPLY_TASK_NOT_RUN = 2,  // an earlier task failed or the apply was aborted
  APPLY_TASK_NO_OPERATION = 3,  // no apply operation of its plugin matches its key:
                                // it never runs
};

// One apply task: the inputs of one plugin for one apply operation.
struct QCM_EXPORT ApplyTaskOutcome {
  // "REMEDIATE:<plugin>" for a version-3 plugin, else "<SET|ADD|DELETE>:<plugin>".
  std::string key;
  std::string pluginId;
  size_t inputs = 0;
  APPLY_TASK_STATE state = APPLY_TASK_NOT_RUN;
  ErrorInfo error;  // set for APPLY_TASK_FAILED
};

struct QCM_EXPORT ApplyResult {
  APPLY_STATUS status = APPLY_DONE;
  // Empty identifier: success. A failed plugin's error, the aborted error
  // ("corvane.qen.settings.apply.plugin.aborted" with the next task key), or
  // an impact plugin's error from the re-check (nothing applied then).
  ErrorInfo errorInfo;
  // Every task of the remediation in the order they were (or would have
  // been) run; empty when no plugin was to run (staged, already compliant,
  // nothing to apply).
  std::vector<ApplyTaskOutcome> tasks;
};

// The impact of applying `desired`, recorded for Apply; an empty pointer when
// the host already complies. Progress and notifications as for Impact.
// Throws the ErrorInfo itself when an impact plugin failed or the task was
// aborted, and Impact's exceptions.
QCM_EXPORT std::shared_ptr<CheckApplyResult> CheckApply(rapidjson::Document& desired,
                                                        const std::string& context,
                                                        std::shared_ptr<TaskHandle> task);

// Applies a checked document. The impact re-check reports on `task` itself;
// the remediation reports progress (20, then 80 / tasks per task) and the
// "corvane.qen.settings.apply.plugin.started" / "...finished" notifications
// (plugin identifier, PluginError on a failure) on task->ChildTask(2), whose
// IsAborted is polled between tasks and while a plugin runs (the plugin then
// gets signal 15). A failing plugin stops the rest; nothing is rolled back.
// Throws: ConfigManagerException 2024 (empty pointer), InvalidImpact 2025
// (a drift cache that does not parse, or an impact that grew or changed to
// another non-zero kind), HostNotInMM 2026 (maintenance mode needed, host
// not in it), and the store's, drift walk's and plugin manager's failures.
QCM_EXPORT ApplyResult Apply(std::shared_ptr<CheckApplyResult> checkResult,
                             std::shared_ptr<TaskHandle> task);

}  // namespace QenConfigManager

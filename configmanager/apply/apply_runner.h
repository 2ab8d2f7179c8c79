// The remediation runner, shared by Apply, boot-time apply, early bootstrap
// and the host configuration API: drift -> apply inputs -> plugin tasks run in
// the apply plugins' dependency order.
//
// Everything runs on the caller's thread; the task handle is also polled by
// the plugin launcher's monitor thread. Plugin calls must not overlap on a
// host, so callers serialise their remediations.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "configmanager/apply.h"

namespace QenConfigManager {

// Generates the apply inputs of `desired` and runs them (ExecuteApplyTasks).
// No inputs: logs a note and returns an empty ErrorInfo. `boot` limits the
// run to plugins with boot support. `outcomes`, when given, receives every
// task's outcome.
ErrorInfo RemediateHost(rapidjson::Document& desired, const std::string& context,
                        const std::shared_ptr<TaskHandle>& task, bool boot,
                        std::vector<ApplyTaskOutcome>* outcomes = nullptr);

// What the runner does with an input whose object no apply plugin serves.
enum MissingApplyPlugin {
  // Drop the input (logged): a whole document may hold keys nothing applies.
  DROP_INPUT,
  // Refuse the run before any plugin runs: ConfigManagerException 2085 with
  // the object's text. A single-key change that no plugin can apply must not
  // be reported as done.
  REFUSE_RUN,
};

// Groups `inputs` into tasks per apply plugin and operation, and runs them in
// dependency order: progress 20, then 80 / tasks after each task; started /
// finished notifications with the plugin identifier; the first failure (with
// a PluginError notification) or an abort before a task ends the run with its
// ErrorInfo. Inputs of objects without an apply plugin are handled as
// `missing` says. Throws the plugin manager's failures (3000, 2083, a bad
// manifest).
ErrorInfo ExecuteApplyTasks(const DesiredConfigInputList& inputs, const std::string& context,
                            const std::shared_ptr<TaskHandle>& task, bool boot,
                            std::vector<ApplyTaskOutcome>* outcomes = nullptr,
                            MissingApplyPlugin missing = DROP_INPUT);

// The apply inputs of `desired` against a given current document instead of
// the extracted one (`current` is taken).
DesiredConfigInputList GenerateApplyTasks(rapidjson::Document& desired,
                                          std::shared_ptr<QenConfigStore::JsonDoc> current);

// The key of the task that runs `operation` inputs of `plugin`:
// "REMEDIATE:<id>" for a version-3 plugin, else "<operation>:<id>".
std::string ApplyTaskKey(const Plugin& plugin, const std::string& operation);

}  // namespace QenConfigManager

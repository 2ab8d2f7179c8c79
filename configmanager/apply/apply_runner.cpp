// The remediation runner: apply inputs grouped into per-plugin tasks and run
// in the apply plugins' dependency order.
#include <algorithm>
#include <unordered_set>

#include "CSLogger.h"
#include "apply/apply_runner.h"

namespace QenConfigManager {
namespace {

constexpr const char* kStarted = "corvane.qen.settings.apply.plugin.started";
constexpr const char* kFinished = "corvane.qen.settings.apply.plugin.finished";
constexpr const char* kAborted = "corvane.qen.settings.apply.plugin.aborted";

// A task to run: the dependency name it provides and its key.
struct Step {
  std::string name;
  std::string key;
};

// The tasks to run, in order: for each dependency name, the tasks of the
// operations that provide it. Keys that no operation matches are returned in
// `unmatched` (sorted); those tasks never run.
std::vector<Step> RunOrder(const PluginManager& manager, const PluginTaskMap& tasks,
                           std::vector<std::string>& unmatched) {
  std::vector<Step> order;
  std::unordered_set<std::string> placed;
  for (const std::string& name : manager.GetDependencies()) {
    for (const ApplyOperationRef& provider : manager.GetProviders(name)) {
      std::string key = provider.operation + ":" + provider.plugin->GetId();
      if (tasks.count(key) && placed.insert(key).second) order.push_back({name, std::move(key)});
    }
  }
  for (const auto& entry : tasks)
    if (!placed.count(entry.first)) unmatched.push_back(entry.first);
  std::sort(unmatched.begin(), unmatched.end());
  for (const std::string& key : unmatched)
    CSLogger::Log(1, "No apply operation of plugin=%s matches key=%s",
                  tasks.at(key).plugin->GetId().c_str(), key.c_str());
  return order;
}

}  // namespace

std::string ApplyTaskKey(const Plugin& plugin, const std::string& operation) {
  return (plugin.GetVersion() == 3 ? std::string("REMEDIATE") : operation) + ":" + plugin.GetId();
}

ErrorInfo ExecuteApplyTasks(const DesiredConfigInputList& inputs, const std::string& context,
                            const std::shared_ptr<TaskHandle>& task, bool boot,
                            std::vector<ApplyTaskOutcome>* outcomes, MissingApplyPlugin missing) {
  PluginManager manager(PLUGIN_APPLY);
  PluginTaskMap tasks;
  for (const DesiredConfigInput& input : inputs) {
    const ConfigStoreObjectId& id = input.object->GetConfigStoreObjectId();
    const std::string text = id.toString();
    const std::vector<std::shared_ptr<Plugin>> found = manager.Find(id);
    if (found.empty()) {
      CSLogger::Log(1, "Plugin not present for %s", text.c_str());
      if (missing == REFUSE_RUN) ThrowException<ConfigManagerException>(APPLY_PLUGIN_ABSENT, text);
      continue;
    }
    for (const auto& plugin : found) {
      if (boot && !plugin->CheckType(PLUGIN_APPLY_BOOT)) {
        CSLogger::Log(0, "Plugin=%s does not support boot-time remediation for csoid=%s",
                      plugin->GetId().c_str(), text.c_str());
        continue;
      }
      CSLogger::Log(3, "Found plugin=%s for cso=%s", plugin->GetId().c_str(), text.c_str());
      const std::string key = ApplyTaskKey(*plugin, input.operation);
      CSLogger::Log(3, "Adding key=%s for plugin=%s", key.c_str(), plugin->GetId().c_str());
      TaskMap& entry = tasks[key];
      if (!entry.plugin) entry.plugin = plugin;
      entry.inputs.push_back(input);
    }
  }

  std::vector<std::string> unmatched;
  const std::vector<Step> order = RunOrder(manager, tasks, unmatched);
  std::vector<ApplyTaskOutcome> report;
  auto describe = [&](const std::string& key) {
    const TaskMap& entry = tasks.at(key);
    report.push_back({key, entry.plugin->GetId(), entry.inputs.size(), APPLY_TASK_NOT_RUN, ErrorInfo()});
  };
  for (const Step& planned : order) describe(planned.key);
  for (const std::string& key : unmatched) {
    describe(key);
    report.back().state = APPLY_TASK_NO_OPERATION;
  }
  auto finish = [&](ErrorInfo error) {
    if (outcomes) *outcomes = std::move(report);
    return error;
  };

  task->UpdateProgress(20.0f);
  const float step = tasks.empty() ? 100.0f : 80.0f / static_cast<float>(tasks.size());
  float progress = 20.0f;
  auto monitor = std::make_shared<TaskPluginMonitor>(task);
  for (size_t i = 0; i < order.size(); ++i) {
    ApplyTaskOutcome& outcome = report[i];
    if (task->IsAborted()) {
      CSLogger::Log(2, "Apply aborted, returning...");
      return finish(ErrorInfo(kAborted, {outcome.key}, ""));
    }
    CSLogger::Log(3, "Found match for dependency %s", order[i].name.c_str());
    task->AddNotification()->PluginInfo(kStarted, {outcome.pluginId});
    const TaskMap& entry = tasks.at(outcome.key);
    ErrorInfo error = entry.plugin->Apply(entry.inputs, context, monitor);
    if (!error.msgId.empty()) {
      CSLogger::Log(0, "%s plugin failed to execute.", outcome.pluginId.c_str());
      task->AddNotification()->PluginError(error);
      outcome.state = APPLY_TASK_FAILED;
      outcome.error = error;
      return finish(error);
    }
    outcome.state = APPLY_TASK_DONE;
    progress += step;
    task->UpdateProgress(progress);
    task->AddNotification()->PluginInfo(kFinished, {outcome.pluginId});
  }
  CSLogger::Log(3, "Qen host remediated successfully.");
  return finish(ErrorInfo());
}

ErrorInfo RemediateHost(rapidjson::Document& desired, const std::string& context,
                        const std::shared_ptr<TaskHandle>& task, bool boot,
                        std::vector<ApplyTaskOutcome>* outcomes) {
  CSLogger::Log(3, "Remediating Qen host to desired configuration (boot=%d).", boot ? 1 : 0);
  const DesiredConfigInputList inputs = GenerateApplyTasks(desired);
  if (inputs.empty()) {
    CSLogger::Log(1, "No tasks generated for the desired configuration.");
    if (outcomes) outcomes->clear();
    return ErrorInfo();
  }
  return ExecuteApplyTasks(inputs, context, task, boot, outcomes);
}

}  // namespace QenConfigManager

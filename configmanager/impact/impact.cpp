// The impact driver: the drift walk with an ImpactHandler, then each impact
// plugin once with all the keys routed to it, merged into one ImpactResult.
#include <algorithm>

#include "CSLogger.h"
#include "PluginSupport.h"
#include "configmanager/impact.h"

namespace QenConfigManager {
namespace {

constexpr const char* kStarted = "corvane.qen.settings.impact.plugin.started";
constexpr const char* kFinished = "corvane.qen.settings.impact.plugin.finished";
constexpr const char* kAborted = "corvane.qen.settings.impact.plugin.aborted";
constexpr const char* kInfoReboot = "corvane.settings.impact.info.reboot";
constexpr const char* kInfoMaintenance = "corvane.settings.impact.info.maintenance-mode";

bool InfoBefore(const ImpactInfo& a, const ImpactInfo& b) {
  return a.msgId != b.msgId ? a.msgId < b.msgId : a.args < b.args;
}

ImpactResult RunImpact(rapidjson::Document& desired, const std::string& context, ImpactHandler& handler,
                       const std::shared_ptr<TaskHandle>& task) {
  ImpactResult result;
  // Refused before the walk extracts the host's configuration.
  (void)desired.GetObject();
  ComputeDrift(desired, desired.GetAllocator(), handler);
  task->UpdateProgress(20.0f);

  // Plugins run in identifier order, so that progress and notifications are
  // the same on every run.
  const PluginTaskMap pluginMap = handler.GetPluginMap();
  std::vector<const PluginTaskMap::value_type*> entries;
  for (const auto& entry : pluginMap) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(), [](auto a, auto b) { return a->first < b->first; });

  const float step = entries.empty() ? 100.0f : 80.0f / static_cast<float>(entries.size());
  float progress = 20.0f;
  auto monitor = std::make_shared<TaskPluginMonitor>(task);
  bool pluginReboot = false, pluginMaintenance = false, allQuickBoot = true;
  for (const auto* entry : entries) {
    const std::string& id = entry->first;
    if (task->IsAborted()) {
      CSLogger::Log(2, "Impact aborted, returning...");
      result.errorInfo = ErrorInfo(kAborted, {id});
      return result;
    }
    CSLogger::Log(3, "Invoking plugin: %s", id.c_str());
    task->AddNotification()->PluginInfo(kStarted, {id});
    ImpactPluginResult answer = entry->second.plugin->Impact(entry->second.inputs, context, monitor);
    if (!answer.errorInfo.msgId.empty()) {
      CSLogger::Log(0, "%s plugin failed to execute.", id.c_str());
      task->AddNotification()->PluginError(answer.errorInfo);
      result.errorInfo = answer.errorInfo;
      return result;
    }
    for (const ImpactPluginInfo& info : answer.impacts) {
      CSLogger::Log(3, "Impact: Plugin=%s, impact=%d (%s:%s:%s:%s)", id.c_str(), static_cast<int>(info.impact),
                    info.key.c_str(), info.component.c_str(), info.group.c_str(), info.instanceId.c_str());
      pluginReboot |= info.impact == REBOOT_REQUIRED;
      pluginMaintenance |= info.impact == MAINTENANCE_MODE_REQUIRED;
      allQuickBoot &= info.quickBootSupported;
    }
    progress += step;
    task->UpdateProgress(progress);
    task->AddNotification()->PluginInfo(kFinished, {id});
  }

  result.compliant = handler.GetCompliant();
  if (result.compliant) return result;
  const ImpactInfoSet infos = handler.GetImpactInfo();
  result.impactInfo.assign(infos.begin(), infos.end());
  std::sort(result.impactInfo.begin(), result.impactInfo.end(), InfoBefore);
  if (handler.GetRebootRequired() || pluginReboot) {
    result.impact = REBOOT_REQUIRED;
    result.impactInfo.emplace_back(kInfoReboot, std::list<std::string>());
  } else if (pluginMaintenance || handler.GetMaintenanceModeRequired()) {
    result.impact = MAINTENANCE_MODE_REQUIRED;
    result.impactInfo.emplace_back(kInfoMaintenance, std::list<std::string>());
  }
  result.quickBootStatus = allQuickBoot ? FetchQuickBootStatus() : QUICKBOOT_UNSUPPORTED;
  return result;
}

}  // namespace

ImpactResult Impact(rapidjson::Document& desired, const std::string& context,
                    std::shared_ptr<TaskHandle> task) {
  ImpactHandler handler(DRIFT_CACHE_OFF);
  return RunImpact(desired, context, handler, task);
}

ImpactResult ImpactWithCustomHandler(rapidjson::Document& desired, const std::string& context,
                                     ImpactHandler& handler, std::shared_ptr<TaskHandle> task) {
  return RunImpact(desired, context, handler, task);
}

}  // namespace QenConfigManager

// Check-apply and apply: the impact recorded, re-checked, and the document
// staged for the next boot or remediated on the running host.
#include <cstdio>
#include <ctime>

#include "CSLogger.h"
#include "QenConfigStore.h"
#include "apply/apply_runner.h"

namespace QenConfigManager {
namespace {

std::string Now() {
  char text[32];
  std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(std::time(nullptr)));
  return text;
}

}  // namespace

CheckApplyResult::CheckApplyResult(IMPACT_TYPE impact, const rapidjson::Value& desired,
                                   QUICK_BOOT_STATUS quickBootStatus, std::string context,
                                   std::string driftCache)
    : CheckApplyResult(impact, desired, Now(), quickBootStatus, std::move(context), std::move(driftCache)) {}

CheckApplyResult::CheckApplyResult(IMPACT_TYPE impact, const rapidjson::Value& desired, std::string timestamp,
                                   QUICK_BOOT_STATUS quickBootStatus, std::string context,
                                   std::string driftCache)
    : impact(impact),
      timestamp(std::move(timestamp)),
      quickBootStatus(quickBootStatus),
      context(std::move(context)),
      driftCache(std::move(driftCache)) {
  desiredDocument.CopyFrom(desired, desiredDocument.GetAllocator());
}

std::shared_ptr<CheckApplyResult> CheckApply(rapidjson::Document& desired, const std::string& context,
                                             std::shared_ptr<TaskHandle> task) {
  CSLogger::Log(3, "CheckApply operation invoked.");
  ImpactHandler handler(DRIFT_CACHE_RECORD);
  ImpactResult impact = ImpactWithCustomHandler(desired, context, handler, task);
  if (!impact.errorInfo.msgId.empty()) throw ErrorInfo(impact.errorInfo);
  std::shared_ptr<CheckApplyResult> result;
  if (!impact.compliant) {
    result = std::make_shared<CheckApplyResult>(impact.impact, desired, impact.quickBootStatus, context,
                                                QenPlatform::CompactJson(handler.driftCache));
  }
  CSLogger::Log(3, "CheckApply operation completed.");
  return result;
}

ApplyResult Apply(std::shared_ptr<CheckApplyResult> checkResult, std::shared_ptr<TaskHandle> task) {
  if (!checkResult) {
    CSLogger::Log(0, "Apply invoked with empty check apply result.");
    ThrowException<ConfigManagerException>(APPLY_EMPTY_INPUT);
  }
  // Held, not passed on, for the whole apply: the caller's task handle may
  // account the re-check and the remediation as two parts of its progress.
  const std::shared_ptr<TaskHandle> held = task->ChildTask(2);
  ImpactHandler handler(DRIFT_CACHE_REPLAY);
  if (!checkResult->GetDriftCache().empty()) {
    rapidjson::Document cache;
    if (!QenPlatform::ParseJson(checkResult->GetDriftCache(), cache) || !cache.IsObject()) {
      CSLogger::Log(0, "Drift cache failed to initialize.");
      ThrowException<InvalidImpact>(IMPACT_INVALID);
    }
    handler.driftCache.Swap(cache);
  }

  // The walk may add generated identifiers; the check result stays as it was.
  rapidjson::Document desired;
  desired.CopyFrom(checkResult->GetDesiredDocument(), desired.GetAllocator());
  ApplyResult result;
  const ImpactResult impact = ImpactWithCustomHandler(desired, checkResult->GetContext(), handler, task);
  if (!impact.errorInfo.msgId.empty()) {
    result.errorInfo = impact.errorInfo;
    return result;
  }
  if (impact.compliant) {
    CSLogger::Log(2, "Drift reported by CheckApply() is resolved.");
    return result;
  }
  if (impact.impact != checkResult->GetImpact()) {
    const int previous = checkResult->GetImpact(), now = impact.impact;
    if (impact.impact != NO_IMPACT) {
      CSLogger::Log(0,
                    "Impact reported by CheckApply() is no longer applicable, abort. old_impact=%d, "
                    "new_impact=%d",
                    previous, now);
      ThrowException<InvalidImpact>(IMPACT_INVALID);
    }
    CSLogger::Log(0,
                  "Impact reported by CheckApply() is no longer applicable, continue. old_impact=%d, "
                  "new_impact=%d",
                  previous, now);
  }
  if (impact.impact == REBOOT_REQUIRED) {
    QenConfigStore::SetDesiredUserConfig(checkResult->GetDesiredDocument());
    CSLogger::Log(0,
                  "ApplyConfig updated the host with the new desired configuration document, host must be "
                  "rebooted for it to take effect.");
    result.status = APPLY_STAGED_FOR_REBOOT;
    return result;
  }
  const bool maintenance = impact.impact == MAINTENANCE_MODE_REQUIRED;
  if (maintenance && !IsMaintenanceModeEnabled()) ThrowException<HostNotInMM>(HOST_NOT_IN_MM);

  QenConfigStore::SetBootMode(QenConfigStore::BOOTMODE_NORMAL);
  result.errorInfo = RemediateHost(desired, checkResult->GetContext(), task->ChildTask(2), false, &result.tasks);
  if (result.errorInfo.msgId.empty() && maintenance) result.status = APPLY_DONE_IN_MAINTENANCE_MODE;
  return result;
}

}  // namespace QenConfigManager

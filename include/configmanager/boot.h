// Boot-time configuration: the boot-time apply of the stored desired
// configuration and its record, bootstrapping a host from a document file,
// and the early bootstrap of authentication and networking.
//
// A boot sequence runs the store's own step first
// (QenConfigStore::RestoreDesiredConfigAtBoot: what was staged becomes
// current), then ExecuteBootPlugins. Management tools read the outcome
// afterwards with GetBootApplyInfo.
//
// The entry points that return an int (ExecuteBootPlugins,
// ApplyBootDocument, ApplyEarlyBootstrapConfig) never throw: every failure
// is logged at priority 0 and returned as 1 (0 is success), because a boot
// service has nobody to catch an exception. GenerateBootTimeTasks,
// CreateMergedBootDocument and GetBootApplyInfo throw like the rest of the
// library.
//
// Thread safety: meant for one thread during boot, before management
// services compete for the store. Plugin calls must not overlap on a host.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "configmanager/common.h"

namespace QenConfigManager {

// ---- boot apply record ------------------------------------------------------

// The outcome of one boot-time apply: when, and the failure (an empty
// identifier means the apply succeeded). A plain value.
class QCM_EXPORT BootApplyErrorInfo {
 public:
  BootApplyErrorInfo() = default;
  BootApplyErrorInfo(std::time_t time, ErrorInfo errorInfo)
      : time(time), errorInfo(std::move(errorInfo)) {}

  // {"errorInfo": "<ErrorInfo::Serialize text>", "time": "16-11-2026 18-06-40"}
  // compact; the time is local time, to the second.
  std::string Serialize() const;
  // Reads Serialize's form; empty text leaves the record as it is. Members
  // that are absent stay as they are; a time that does not match the format
  // reads as far as it matches. Throws InvalidArgumentException 2080 (not
  // JSON), ConfigStoreException 1082 (not an object, a member that is not a
  // string) and ErrorInfo::Deserialize's failure.
  void Deserialize(const std::string& text);

  std::time_t time = 0;
  ErrorInfo errorInfo;
};

enum BOOT_APPLY_STATUS : int32_t {
  BOOT_APPLY_OK = 0,
  BOOT_APPLY_FAILED = 1,      // the boot-time apply failed or keys were not restored
  BOOT_APPLY_INCOMPLETE = 3,  // boot has not completed; nothing else is reported
};

struct QCM_EXPORT BootApplyInfo {
  BOOT_APPLY_STATUS status = BOOT_APPLY_OK;
  // The failed boot-time apply's record, then one record per key the store
  // could not restore at boot ("corvane.qen.settings.boot-restore.failed"
  // with component, group, key; time = when asked).
  std::vector<BootApplyErrorInfo> records;
};

// The outcome of the last boot. Throws the store's failures and 1082 for a
// malformed boot apply state or record.
QCM_EXPORT BootApplyInfo GetBootApplyInfo();

}  // namespace QenConfigManager

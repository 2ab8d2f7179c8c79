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

#include "configmanager/apply.h"

namespace QenConfigManager {

// The auto-deployment files (logical paths). Staging a reboot-impact boot
// document moves them into the store object qen/bootstrap/autodeploy
// ("waiter_notify": the JSON text, "firewall": the XML text byte for byte);
// the next boot-time apply writes them back.
constexpr const char* kAutoDeployNotifyFile = "/etc/corvane/autodeploy/waiterNotify.json";
constexpr const char* kAutoDeployFirewallFile = "/etc/corvane/firewall/autodeploy.xml";

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

// ---- boot-time apply ----------------------------------------------------------

// The boot-time apply: writes the auto-deployment files back from the store
// (each whole or not at all), remediates the host to the stored desired
// configuration with the boot-capable apply plugins only (the others are
// skipped with a priority-0 line each), and replaces the boot apply record
// (also after a plugin failure). 0 when the remediation reported no error,
// else 1; a failure before the remediation writes no record.
QCM_EXPORT int ExecuteBootPlugins();

// Bootstraps the host from the document file at logical `path`: validated,
// its impact computed, then on a reboot impact staged for the next boot in
// one store transaction together with the auto-deployment files (which are
// removed), otherwise applied to the running host at once (maintenance mode
// is not checked). 0 on success, 1 on any failure; a failed staging commits
// nothing.
QCM_EXPORT int ApplyBootDocument(const std::string& path);

// One apply input per key (SET) or instance (ADD) of `desired` (with or
// without "profile"), in document order, without any drift computation.
// Throws ConfigManagerException 2180 (no schema store), 2021 (a key without
// schema, with the key's text form), ConfigStoreException 1082 (a document
// of the wrong shape, an instance without its identifier member).
QCM_EXPORT DesiredConfigInputList GenerateBootTimeTasks(const rapidjson::Document& desired);

// Reads the document file at logical `input`, resolves it for this host
// (its "host-specific" and "host-override" sections merged into "profile")
// and writes it compactly to logical `output` (replaced at once; an output
// that cannot be written is not reported). Throws SchemaNotFound 2021
// "Schema not found for some key(s)." when a key has no schema, and the
// file read's 2080.
QCM_EXPORT void CreateMergedBootDocument(const std::string& input, const std::string& output);

// ---- early bootstrap ------------------------------------------------------------

// Applies the "authentication" (first) and "network" / "network_vss" (then)
// groups of component "qen" of the document `documentText`, each against the
// host's current configuration of just those groups. The whole document is
// validated and its impact computed first; a reboot impact is refused.
// 0 on success or when the host already complies, else 1. A failed first
// stage skips the second; a failed second stage leaves the first applied.
QCM_EXPORT int ApplyEarlyBootstrapConfig(const std::string& documentText);

}  // namespace QenConfigManager

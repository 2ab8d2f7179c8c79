// Host status: maintenance mode and quick-boot capability.
#include <cstdint>

#include "CSLogger.h"
#include "HostCtl.h"
#include "Sysq.h"
#include "configmanager/common.h"

namespace QenConfigManager {
namespace {
// The interface version this library was built against is the node count.
constexpr const char* kSysqSignature = "configmanager";
}  // namespace

bool IsMaintenanceModeEnabled() {
  CSLogger::Log(2, "Checking if host is in maintenanceMode");
  int offered = 0;
  int rc = Sysq_CheckSig(kSysqSignature, Sysq_INTERFACE_COUNT, &offered);
  if (rc != 0) {
    CSLogger::Log(0, "Tavon signature check failed: rc=%d", rc);
    return false;
  }
  int32_t state = 0;
  rc = Sysq_Get(Sysq_NODE_system_maintenanceMode, nullptr, &state, sizeof state);
  if (rc != 0) {
    CSLogger::Log(0, "Failed to read MaintenanceMode state: rc=%d", rc);
    return false;
  }
  CSLogger::Log(2, "Host maintenanceMode state=%d", static_cast<int>(state));
  return state == 1;
}

QUICK_BOOT_STATUS FetchQuickBootStatus() {
  if (HostCtl::System::LoadQen::IsSTMSupported()) return QUICKBOOT_STM_SUPPORTED;
  if (HostCtl::System::LoadQen::IsSupported()) return QUICKBOOT_SUPPORTED;
  return QUICKBOOT_UNSUPPORTED;
}

}  // namespace QenConfigManager

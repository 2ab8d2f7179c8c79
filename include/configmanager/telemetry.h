// Telemetry: the configuration manager's provider for the host's telemetry
// service (the store's rows and sizes, the storage that holds the store, the
// host's BIOS UUID and the telemetry export of the configuration) and the
// store's storage statistics.
//
// Stateless: every call reads the store, the system information and the
// configuration afresh. The output map belongs to the caller and must not be
// used by another thread during a call; GetTelemetryData may run plugins
// (through the telemetry export), so calls must not overlap on one host.
#pragma once

#include <cstdint>

#include "HostCtl.h"
#include "Sysq.h"
#include "configmanager/export.h"

namespace QenConfigManager {

class QCM_EXPORT ConfigManagerTelemetryInfo {
 public:
  // Adds this provider's items to `output` as `filter` allows, numbering them
  // from `index` on: an item that the include or exclude list leaves out
  // takes no number; one numbered below the filter's start index is not
  // emitted; nothing more is added once `output` (other providers' entries
  // included) holds the filter's maximum. Only emitted items are read, and
  // an entry already in `output` is kept. Returns the index after the last
  // numbered item. Failures of the value sources propagate; what was added
  // before stays.
  static uint32_t GetTelemetryData(const HostCtl::System::TelemetryFilter& filter,
                                   HostCtl::System::TelemetryData& output, uint32_t index);
};

// Reads the statistics of the storage that holds the configuration store
// (the "configstore" ramdisk) into `stats`; false, with a log line, when the
// system information cannot be read.
QCM_EXPORT bool GetCurrentConfigStoreStats(Ramvol_SysqRamStats* stats);

}  // namespace QenConfigManager

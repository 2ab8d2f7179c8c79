#include "telemetry/telemetry_internal.h"

#include <algorithm>
#include <memory>

#include "CSLogger.h"
#include "QenConfigStore.h"
#include "configmanager/extract.h"

namespace QenConfigManager {

using HostCtl::System::TelemetryData;
using HostCtl::System::TelemetryFilter;
using HostCtl::System::TelemetryValue;

namespace {

// The interface version this library was built against is the node count.
constexpr const char* kSysqSignature = "configmanager";

Ramvol_SysqRamStats ReadStoreStats(const char* reader) {
  Ramvol_SysqRamStats stats{};
  if (!GetCurrentConfigStoreStats(&stats)) {
    const std::string message = std::string("Failed to get data from ") + reader;
    throw QenConfigStore::ConfigStoreException(READ_FAILED, message.c_str());
  }
  return stats;
}

bool Listed(const std::vector<std::string>& names, const char* name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// One pass over the items, numbering as it goes.
class Collector {
 public:
  Collector(const TelemetryFilter& filter, TelemetryData& output, uint32_t index)
      : filter_(filter), output_(output), index_(index) {}

  // False once the output map is full.
  template <typename T>
  bool Walk(const std::vector<TelemetryItem<T>>& items) {
    for (const TelemetryItem<T>& item : items) {
      if (output_.size() >= filter_.maxEntries) return false;
      if ((!filter_.exclude.empty() && Listed(filter_.exclude, item.name)) ||
          (!filter_.include.empty() && !Listed(filter_.include, item.name)))
        continue;
      if (index_++ < filter_.startIndex) continue;
      output_.emplace(item.name, TelemetryValue(std::in_place_type<T>, item.value()));
    }
    return true;
  }

  uint32_t Index() const { return index_; }

 private:
  const TelemetryFilter& filter_;
  TelemetryData& output_;
  uint32_t index_;
};

}  // namespace

bool GetCurrentConfigStoreStats(Ramvol_SysqRamStats* stats) {
  std::unique_ptr<Sysq_ParamList, void (*)(Sysq_ParamList*)> params(Sysq_ParamListCreate(),
                                                                    &Sysq_ParamListDestroy);
  // A list that could not be built or filled makes the read below fail.
  Sysq_ParamListAddString(params.get(), "configstore");
  int rc = Sysq_CheckSig(kSysqSignature, Sysq_INTERFACE_COUNT, nullptr);
  if (rc != SYSQ_OK) {
    CSLogger::Log(0, "Sysq Check Sig Failed: %s", TAV_ReturnStatusToString(rc));
    return false;
  }
  rc = Sysq_Get(Sysq_NODE_system_ramvol_ramdisks_stats, params.get(), stats, sizeof *stats);
  if (rc != SYSQ_OK) {
    CSLogger::Log(0, "Failed to get the size of ram utilization for configstore: %s",
                  TAV_ReturnStatusToString(rc));
    return false;
  }
  return true;
}

int64_t GetRamDiskUsage() {
  return static_cast<int64_t>(ReadStoreStats("GetRamDiskUsage").usedPages * 4096);
}

int64_t GetReservedRamdiskSize() {
  return static_cast<int64_t>(ReadStoreStats("GetReservedRamdiskSize").reservedMiB) * 1048576;
}

const TelemetryItems& ConfigManagerItems() {
  static const TelemetryItems items = {
      {
          {"configManagerRowCount", &QenConfigStore::GetConfigRowCount},
          {"configManagerRamDiskUsage", &GetRamDiskUsage},
          {"configManagerRamDiskReservedSize", &GetReservedRamdiskSize},
          {"configManagerTotalVitalConfigSize", &QenConfigStore::GetVitalConfigSize},
          {"configManagerTotalUserConfigSize", &QenConfigStore::GetUserConfigSize},
          {"configManagerTotalCachedConfigSize", &QenConfigStore::GetCachedConfigSize},
      },
      {
          {"configManagerQenBiosUuid", &GetBIOSUUID},
          {"configManagerQenConfig", &ExportDocumentTelemetry},
      },
      {
          {"configManagerConfigStoreMetrics", &QenConfigStore::GetConfigMetrics},
      },
  };
  return items;
}

uint32_t CollectTelemetry(const TelemetryItems& items, const TelemetryFilter& filter,
                          TelemetryData& output, uint32_t index) {
  Collector collector(filter, output, index);
  if (collector.Walk(items.integers) && collector.Walk(items.strings)) collector.Walk(items.lists);
  return collector.Index();
}

uint32_t ConfigManagerTelemetryInfo::GetTelemetryData(const TelemetryFilter& filter,
                                                      TelemetryData& output, uint32_t index) {
  return CollectTelemetry(ConfigManagerItems(), filter, output, index);
}

}  // namespace QenConfigManager

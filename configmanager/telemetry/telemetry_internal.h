// Internals of the telemetry provider, shared with the tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "configmanager/telemetry.h"

namespace QenConfigManager {

template <typename T>
struct TelemetryItem {
  const char* name;
  std::function<T()> value;
};

// The provider's items by value kind, walked integers, strings, lists.
struct TelemetryItems {
  std::vector<TelemetryItem<int64_t>> integers;
  std::vector<TelemetryItem<std::string>> strings;
  std::vector<TelemetryItem<std::vector<std::string>>> lists;
};

// The configuration manager's nine items, built once.
const TelemetryItems& ConfigManagerItems();

// GetTelemetryData over `items`: the seam through which tests see which
// value functions run.
uint32_t CollectTelemetry(const TelemetryItems& items, const HostCtl::System::TelemetryFilter& filter,
                          HostCtl::System::TelemetryData& output, uint32_t index);

// Bytes used on / reserved for the store's storage. ConfigStoreException
// 2000 "Failed to get data from GetRamDiskUsage" (GetReservedRamdiskSize)
// when the statistics cannot be read.
int64_t GetRamDiskUsage();
int64_t GetReservedRamdiskSize();

}  // namespace QenConfigManager

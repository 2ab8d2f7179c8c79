// Host control: the root exception of the platform's libraries, hardware
// information and quick-boot capability.
//
// Telemetry: the value and filter types that the host's telemetry service and
// its providers exchange (plain values, no state).
//
// Hardware facts come from the host file "/etc/corvane/hardware.json"
// (logical path) with the members "biosUuid" (string), "quickBoot" (bool) and
// "quickBootStm" (bool). A missing or malformed file is a HostCtlException
// naming the file; a missing member reads as "" / false.
#pragma once

#include <cstdint>
#include <exception>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace HostCtl {
namespace Lib {

class HostCtlException : public std::exception {
 public:
  explicit HostCtlException(std::string message) : message_(std::move(message)) {}
  ~HostCtlException() override = default;
  const char* what() const noexcept override { return message_.c_str(); }

 protected:
  std::string message_;
};

}  // namespace Lib

namespace Host {

class HardwareInfo {
 public:
  explicit HardwareInfo(std::string biosUuid) : biosUuid_(std::move(biosUuid)) {}
  const std::string& GetBiosUuid() const { return biosUuid_; }

 private:
  std::string biosUuid_;
};

// Reads the hardware file each call; throws Lib::HostCtlException.
std::unique_ptr<HardwareInfo> GetHardwareInfo();

}  // namespace Host

namespace System {
namespace LoadQen {
bool IsSupported();
bool IsSTMSupported();
}  // namespace LoadQen

// One telemetry value. Construct it from the exact alternative (a plain
// `const char*` would convert to bool): std::string("..."), int64_t{n}, ...
typedef std::variant<bool, int64_t, std::string, std::vector<int64_t>, std::vector<std::string>,
                     double, uint64_t, std::vector<uint64_t>>
    TelemetryValue;

// Telemetry values by item name, as the collector gathers them from all
// providers.
typedef std::map<std::string, TelemetryValue> TelemetryData;

// What the collector asks of the providers. Items are numbered in one
// sequence over all providers; names compare as whole strings.
struct TelemetryFilter {
  uint32_t startIndex = 0;  // items numbered below it are counted, not emitted
  uint32_t maxEntries = std::numeric_limits<uint32_t>::max();  // of the whole output map
  std::vector<std::string> include;  // empty: every item
  std::vector<std::string> exclude;  // empty: none
};

}  // namespace System

// Logical path of the hardware description file.
constexpr const char* kHardwareFile = "/etc/corvane/hardware.json";

}  // namespace HostCtl

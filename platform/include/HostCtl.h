// Host control: the root exception of the platform's libraries, hardware
// information and quick-boot capability.
//
// Hardware facts come from the host file "/etc/corvane/hardware.json"
// (logical path) with the members "biosUuid" (string), "quickBoot" (bool) and
// "quickBootStm" (bool). A missing or malformed file is a HostCtlException
// naming the file; a missing member reads as "" / false.
#pragma once

#include <exception>
#include <memory>
#include <string>

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
}  // namespace System

// Logical path of the hardware description file.
constexpr const char* kHardwareFile = "/etc/corvane/hardware.json";

}  // namespace HostCtl

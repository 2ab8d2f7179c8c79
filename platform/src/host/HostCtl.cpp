#include "HostCtl.h"

#include "HostFiles.h"

namespace HostCtl {
namespace {

rapidjson::Document LoadHardware() {
  rapidjson::Document doc;
  std::string error;
  if (!QenPlatform::ReadHostJson(kHardwareFile, doc, &error)) throw Lib::HostCtlException(error);
  return doc;
}

bool ReadFlag(const char* name) {
  rapidjson::Document doc = LoadHardware();
  auto it = doc.FindMember(name);
  if (it == doc.MemberEnd()) return false;
  if (!it->value.IsBool())
    throw Lib::HostCtlException(std::string("host file \"") + kHardwareFile + "\": member \"" +
                                name + "\" is not a boolean");
  return it->value.GetBool();
}

}  // namespace

namespace Host {
std::unique_ptr<HardwareInfo> GetHardwareInfo() {
  rapidjson::Document doc = LoadHardware();
  auto it = doc.FindMember("biosUuid");
  if (it == doc.MemberEnd()) return std::unique_ptr<HardwareInfo>(new HardwareInfo(""));
  if (!it->value.IsString())
    throw Lib::HostCtlException(std::string("host file \"") + kHardwareFile +
                                "\": member \"biosUuid\" is not a string");
  return std::unique_ptr<HardwareInfo>(
      new HardwareInfo(std::string(it->value.GetString(), it->value.GetStringLength())));
}
}  // namespace Host

namespace System {
namespace LoadQen {
bool IsSupported() { return ReadFlag("quickBoot"); }
bool IsSTMSupported() { return ReadFlag("quickBootStm"); }
}  // namespace LoadQen
}  // namespace System

}  // namespace HostCtl

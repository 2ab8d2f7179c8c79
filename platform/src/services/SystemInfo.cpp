#include "HostCtl.h"
#include "TavCtl.h"
#include "HostFiles.h"

namespace TavCtl {
namespace System {

TavVersion::TavVersion(std::unique_ptr<std::string> build, std::unique_ptr<std::string> version,
                       std::unique_ptr<std::string> patch, std::unique_ptr<std::string> update)
    : build_(std::move(build)), version_(std::move(version)), patch_(std::move(patch)),
      update_(std::move(update)) {}

TavVersion SystemInfoImpl::GetTavVersion() const {
  rapidjson::Document doc;
  std::string error;
  if (!QenPlatform::ReadHostJson(kVersionFile, doc, &error)) throw HostCtl::Lib::HostCtlException(error);
  auto part = [&doc](const char* name) -> std::unique_ptr<std::string> {
    auto it = doc.FindMember(name);
    if (it == doc.MemberEnd()) return nullptr;
    if (!it->value.IsString())
      throw HostCtl::Lib::HostCtlException(std::string("host file \"") + kVersionFile +
                                           "\": member \"" + name + "\" is not a string");
    return std::unique_ptr<std::string>(
        new std::string(it->value.GetString(), it->value.GetStringLength()));
  };
  // Named temporaries: the parts are read in file-format order.
  auto build = part("build");
  auto version = part("version");
  auto patch = part("patch");
  auto update = part("update");
  return TavVersion(std::move(build), std::move(version), std::move(patch), std::move(update));
}

}  // namespace System
}  // namespace TavCtl

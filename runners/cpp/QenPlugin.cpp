#include "QenPlugin.h"

#include <cerrno>
#include <cstring>

#include "HostFiles.h"
#include "HostRoot.h"

namespace QenPlugin {

Call::~Call() = default;

std::string Call::HostPath(const std::string& logical) { return QenPlatform::HostPath(logical); }

void Call::WriteHostFile(const std::string& logical, const std::string& text, int mode) {
  const std::string path = HostPath(logical);
  // Host directories such as /etc/... are readable by all, whatever the umask.
  QenPlatform::MakeDirectories(path.substr(0, path.rfind('/')), 0755);
  if (!QenPlatform::ReplaceFile(path, text, mode))
    throw std::runtime_error("cannot write " + logical + ": " + std::strerror(errno));
}

bool Call::ReadHostFile(const std::string& logical, std::string& text) {
  if (QenPlatform::ReadWholeFile(HostPath(logical), text)) return true;
  if (errno == ENOENT) return false;
  throw std::runtime_error("cannot read " + logical + ": " + std::strerror(errno));
}

void ApplyCall::Save(const std::string& physicalPath) const {
  QenConfigManager::SaveErrorResult(error, physicalPath);
}

void ImpactCall::AddImpact(const ConfigStoreObjectId& id, Impact impact, bool quickBootSupported) {
  QenConfigManager::ImpactPluginInfo info;
  info.impact = impact;
  info.key = id.GetKey();
  info.component = id.GetComponent();
  info.group = id.GetGroup();
  info.instanceId = id.GetInstanceId();
  info.quickBootSupported = quickBootSupported;
  result_.impacts.push_back(std::move(info));
}

void ImpactCall::Save(const std::string& physicalPath) const {
  QenConfigManager::ImpactPluginResult result = result_;
  result.errorInfo = error;
  result.Save(physicalPath);
}

void ExtractCall::AddObject(const ConfigStoreObjectId& id, const rapidjson::Value& value) {
  result_.objects.push_back(std::make_shared<ConfigStoreObject>(id, value));
}

void ExtractCall::Save(const std::string& physicalPath) const {
  QenConfigManager::ExtractPluginResult result = result_;
  result.errorInfo = error;
  result.Save(physicalPath);
}

void ValidateCall::AddError(const std::string& name, const std::string& msgId, std::list<std::string> args) {
  ErrorInfo info(msgId, std::move(args));
  for (auto& entry : result_.results) {
    if (entry.name == name) {
      entry.errors.push_back(std::move(info));
      return;
    }
  }
  result_.results.push_back({name, {std::move(info)}});
}

void ValidateCall::Save(const std::string& physicalPath) const {
  QenConfigManager::ValidationPluginResult result = result_;
  result.errorInfo = error;
  result.Save(physicalPath);
}

}  // namespace QenPlugin

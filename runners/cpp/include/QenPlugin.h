// The C++ plugin SDK: what a plugin shared object sees of its call.
//
// A C++ plugin is a shared object in /usr/lib/corvane/configmanager/plugins/
// (the file name is the manifest's module name, e.g. libntp.so). The runner
// loads it with dlopen and calls the entry point of the requested operation:
//
//   extern "C" int qen_plugin_apply(QenPlugin::ApplyCall* call);
//   extern "C" int qen_plugin_impact(QenPlugin::ImpactCall* call);
//   extern "C" int qen_plugin_extract(QenPlugin::ExtractCall* call);
//   extern "C" int qen_plugin_validate(QenPlugin::ValidateCall* call);
//
// An entry point returns 0 when the result is complete, or an error number
// (errno value) that the runner exits with, writing no result. To fail with a
// message identifier for the user, throw PluginError: the runner writes it as
// the result's error and exits 0. Any other exception ends the runner with
// ENOTRECOVERABLE. A plugin need not provide every entry point (a missing one
// ends the runner with ENOSYS).
//
// The call objects belong to the runner and live for the duration of the
// entry point; a plugin runs on the runner's only thread.
#pragma once

#include <list>
#include <memory>
#include <stdexcept>
#include <string>

#include "PluginSupport.h"
#include "QenConfigStore.h"
#include "configmanager/plugin.h"

#define QEN_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace QenPlugin {

using QenConfigManager::DesiredConfigInput;
using QenConfigManager::DesiredConfigInputList;
using QenConfigManager::ErrorInfo;
using QenConfigManager::PluginRequest;
using QenConfigStore::ConfigStoreObject;
using QenConfigStore::ConfigStoreObjectId;

// Impact of applying one object.
enum Impact : int { NO_IMPACT = 0, MAINTENANCE_MODE_REQUIRED = 1, REBOOT_REQUIRED = 2 };

// Thrown by a plugin to fail its call with a message identifier.
class PluginError : public std::runtime_error {
 public:
  PluginError(const std::string& msgId, std::list<std::string> args = {})
      : std::runtime_error(msgId), info_(msgId, std::move(args)) {}
  const ErrorInfo& Info() const { return info_; }

 private:
  ErrorInfo info_;
};

// What every call offers: the request (GetData, GetReferences,
// GetCSOIdsForExtract, GetClusterContext, ...), host paths and the store.
class Call {
 public:
  explicit Call(const PluginRequest& request) : request_(request) {}
  virtual ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  const PluginRequest& Request() const { return request_; }
  // Physical path of a logical host path ("/etc/ntp.conf").
  static std::string HostPath(const std::string& logical);
  // Writes `text` to the logical path atomically (temporary file, rename) with
  // `mode`, creating missing directories (0755); throws std::runtime_error naming
  // the path on failure.
  static void WriteHostFile(const std::string& logical, const std::string& text, int mode = 0644);
  // The file's content; false when it does not exist (throws when unreadable).
  static bool ReadHostFile(const std::string& logical, std::string& text);

  // The host's configuration store, opened on first use, for plugins that
  // record the state they applied. Throws std::runtime_error if unavailable.
  QenConfigStore::ConfigStore& Store();
  // Records `value` as the object's current value in the store.
  void RecordApplied(const ConfigStoreObjectId& id, const rapidjson::Value& value);

  // The result's error; PluginError fills it too.
  ErrorInfo error;

  // Writes the operation's result file (the runner calls it).
  virtual void Save(const std::string& physicalPath) const = 0;

 private:
  const PluginRequest& request_;
  std::shared_ptr<QenConfigStore::ConfigStore> store_;
};

class ApplyCall : public Call {
 public:
  using Call::Call;
  void Save(const std::string& physicalPath) const override;
};

class ImpactCall : public Call {
 public:
  using Call::Call;
  void AddImpact(const ConfigStoreObjectId& id, Impact impact, bool quickBootSupported = true);
  void Save(const std::string& physicalPath) const override;

 private:
  QenConfigManager::ImpactPluginResult result_;
};

class ExtractCall : public Call {
 public:
  using Call::Call;
  // The object's current configuration (deep-copied).
  void AddObject(const ConfigStoreObjectId& id, const rapidjson::Value& value);
  void Save(const std::string& physicalPath) const override;

 private:
  QenConfigManager::ExtractPluginResult result_;
};

class ValidateCall : public Call {
 public:
  using Call::Call;
  // A validation error of the object or property at `name` (a path such as
  // "/system/time/ntp/servers/1"); errors of one name are kept together.
  void AddError(const std::string& name, const std::string& msgId, std::list<std::string> args = {});
  void Save(const std::string& physicalPath) const override;

 private:
  QenConfigManager::ValidationPluginResult result_;
};

}  // namespace QenPlugin

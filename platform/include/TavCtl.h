// System control: synchronisation of the host's SSH configuration files into
// the configuration store, and the running system's version.
//
// SSH files (logical paths) and the store keys they feed:
//   "/etc/ssh/sshd_config"                  -> system/ssh/server (singleton)
//   "/etc/ssh/ssh_config"                   -> system/ssh/client (singleton)
//   "/etc/ssh/keys-<user>/authorized_keys"  -> system/ssh/authorized_keys, instance <user>
// A configuration file becomes {"options": [{"keyword": K, "value": V}, ...]}
// in file order (blank and comment lines dropped, "Keyword=value" accepted);
// a keys file becomes {"user": U, "keys": [line, ...]}.
//
// Version file "/etc/corvane/version.json" (logical):
//   {"build": "...", "version": "...", "patch": "...", "update": "..."}
//
// Objects are used by one thread at a time; nothing is cached between calls.
#pragma once

#include <memory>
#include <string>

#include "QenJson.h"

namespace TavCtl {
namespace System {

// Where in its life the host is. Only a running system (2) takes its SSH
// files into the store: while booting, the files are written from the store.
enum SystemState : int {
  SYSTEM_STATE_BOOT = 0,
  SYSTEM_STATE_EARLY_BOOT = 1,
  SYSTEM_STATE_RUNNING = 2,
};

constexpr const char* kSshServerConfigFile = "/etc/ssh/sshd_config";
constexpr const char* kSshClientConfigFile = "/etc/ssh/ssh_config";
constexpr const char* kSshDir = "/etc/ssh/";
constexpr const char* kVersionFile = "/etc/corvane/version.json";

// One SSH configuration source. Construction throws std::invalid_argument for
// an unknown system state.
class SshConfig {
 public:
  explicit SshConfig(int systemState);
  virtual ~SshConfig();
  SshConfig(const SshConfig&) = delete;
  SshConfig& operator=(const SshConfig&) = delete;

  // Reads the files and writes every object that differs from the store's
  // current value, in one transaction (for authorized keys, a stored user
  // whose keys file is gone is deleted). True when something was written;
  // false when not running, when the files are absent or when the store
  // already holds the same values. Throws a std::exception naming the file
  // or the store failure.
  bool UpgradeConfigToConfigStore();

 protected:
  // The objects of this source: {instance id ("" for a singleton) -> value}.
  virtual void ReadFiles(rapidjson::Document& objects) const = 0;
  virtual const char* Key() const = 0;
  // Whether the files name every instance, so that a stored instance
  // without a file is removed.
  virtual bool HoldsInstances() const { return false; }

 private:
  int systemState_;
};

// Parses an SSH configuration text into {"options": [...]} (exposed for tests
// and plugins that write the files back).
void ParseSshConfig(const std::string& text, rapidjson::Value& out,
                    rapidjson::Document::AllocatorType& alloc);

class SshAuthKeysConfigImpl : public SshConfig {
 public:
  using SshConfig::SshConfig;

 protected:
  void ReadFiles(rapidjson::Document& objects) const override;
  const char* Key() const override { return "authorized_keys"; }
  bool HoldsInstances() const override { return true; }
};

class SshClientConfigImpl : public SshConfig {
 public:
  using SshConfig::SshConfig;

 protected:
  void ReadFiles(rapidjson::Document& objects) const override;
  const char* Key() const override { return "client"; }
};

class SshServerConfigImpl : public SshConfig {
 public:
  using SshConfig::SshConfig;

 protected:
  void ReadFiles(rapidjson::Document& objects) const override;
  const char* Key() const override { return "server"; }
};

// The running system's version. An accessor gives null when the version file
// does not name that part.
class TavVersion {
 public:
  TavVersion(std::unique_ptr<std::string> build, std::unique_ptr<std::string> version,
             std::unique_ptr<std::string> patch, std::unique_ptr<std::string> update);
  TavVersion(TavVersion&&) = default;
  TavVersion& operator=(TavVersion&&) = default;
  const char* GetBuild() const { return build_ ? build_->c_str() : nullptr; }
  const char* GetVersion() const { return version_ ? version_->c_str() : nullptr; }
  const char* GetPatch() const { return patch_ ? patch_->c_str() : nullptr; }
  const char* GetUpdate() const { return update_ ? update_->c_str() : nullptr; }

 private:
  std::unique_ptr<std::string> build_, version_, patch_, update_;
};

class SystemInfoImpl {
 public:
  // Reads the version file; a missing or malformed file (or a part that is
  // not a string) throws HostCtl::Lib::HostCtlException naming it.
  TavVersion GetTavVersion() const;
};

}  // namespace System
}  // namespace TavCtl

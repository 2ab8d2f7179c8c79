// system/time/ntp: the host's time synchronisation.
//
// Value: {"enabled": bool, "servers": ["192.0.2.10", "ntp.example.com", ...]}.
// Files: /etc/ntp.conf (one "server <name> iburst" line per server) and
// /etc/default/ntp (NTPD_ENABLED=yes|no). Applied values are recorded in the
// store as the key's current value.
#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include "QenPlugin.h"

namespace {

constexpr const char* kConfFile = "/etc/ntp.conf";
constexpr const char* kDefaultsFile = "/etc/default/ntp";
constexpr size_t kMaxServers = 8;
constexpr const char* kBase = "/system/time/ntp";

struct NtpConfig {
  bool enabled = false;
  std::vector<std::string> servers;
};

NtpConfig ReadHost() {
  NtpConfig config;
  std::string text;
  if (QenPlugin::Call::ReadHostFile(kConfFile, text)) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string keyword, server;
      if (words >> keyword >> server && keyword == "server") config.servers.push_back(server);
    }
  }
  if (QenPlugin::Call::ReadHostFile(kDefaultsFile, text)) {
    config.enabled = text.find("NTPD_ENABLED=yes") != std::string::npos;
  }
  return config;
}

// The value's members, tolerating absent ones (the schema has checked types).
NtpConfig FromValue(const rapidjson::Value& value) {
  NtpConfig config;
  if (!value.IsObject()) return config;
  auto enabled = value.FindMember("enabled");
  config.enabled = enabled != value.MemberEnd() && enabled->value.IsBool() && enabled->value.GetBool();
  auto servers = value.FindMember("servers");
  if (servers != value.MemberEnd() && servers->value.IsArray()) {
    for (const auto& s : servers->value.GetArray()) {
      if (s.IsString()) config.servers.emplace_back(s.GetString(), s.GetStringLength());
    }
  }
  return config;
}

void ToValue(const NtpConfig& config, rapidjson::Value& out, rapidjson::Document::AllocatorType& alloc) {
  out.SetObject();
  out.AddMember("enabled", config.enabled, alloc);
  rapidjson::Value servers(rapidjson::kArrayType);
  for (const auto& s : config.servers) servers.PushBack(rapidjson::Value(s, alloc), alloc);
  out.AddMember("servers", servers, alloc);
}

void WriteHost(const NtpConfig& config) {
  std::string conf = "# Written by the configuration manager; edits are replaced.\ndriftfile /var/lib/ntp/ntp.drift\n";
  for (const auto& s : config.servers) conf += "server " + s + " iburst\n";
  QenPlugin::Call::WriteHostFile(kConfFile, conf);
  QenPlugin::Call::WriteHostFile(kDefaultsFile, std::string("NTPD_ENABLED=") + (config.enabled ? "yes" : "no") + "\n");
}

bool IsAddress(const std::string& text) {
  unsigned char buffer[16];
  return inet_pton(AF_INET, text.c_str(), buffer) == 1 || inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

// A host name as the resolver accepts it: labels of letters, digits and '-'.
bool IsHostName(const std::string& text) {
  if (text.empty() || text.size() > 253) return false;
  std::istringstream labels(text);
  for (std::string label; std::getline(labels, label, '.');) {
    if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-') return false;
    for (char c : label) {
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') return false;
    }
  }
  return true;
}

}  // namespace

QEN_PLUGIN_EXPORT int qen_plugin_extract(QenPlugin::ExtractCall* call) {
  rapidjson::Document value;
  ToValue(ReadHost(), value, value.GetAllocator());
  for (const auto& id : call->Request().GetCSOIdsForExtract()) call->AddObject(id, value);
  return 0;
}

QEN_PLUGIN_EXPORT int qen_plugin_apply(QenPlugin::ApplyCall* call) {
  for (const auto& input : call->Request().GetData()) {
    NtpConfig config = input.operation == "DELETE" ? NtpConfig() : FromValue(input.object->GetJson());
    WriteHost(config);
    rapidjson::Document applied;
    ToValue(config, applied, applied.GetAllocator());
    call->RecordApplied(input.object->GetConfigStoreObjectId(), applied);
  }
  return 0;
}

// Switching the service on or off moves the clock under running workloads:
// maintenance mode. A new server list takes effect without one.
QEN_PLUGIN_EXPORT int qen_plugin_impact(QenPlugin::ImpactCall* call) {
  const NtpConfig current = ReadHost();
  for (const auto& input : call->Request().GetData()) {
    NtpConfig desired = input.operation == "DELETE" ? NtpConfig() : FromValue(input.object->GetJson());
    call->AddImpact(input.object->GetConfigStoreObjectId(),
                    desired.enabled != current.enabled ? QenPlugin::MAINTENANCE_MODE_REQUIRED
                                                       : QenPlugin::NO_IMPACT);
  }
  return 0;
}

QEN_PLUGIN_EXPORT int qen_plugin_validate(QenPlugin::ValidateCall* call) {
  // Servers named by host name need a resolver: a cross-key rule against
  // network/dns/resolver, which the manifest lists as a reference.
  bool resolverHasServers = false;
  for (const auto& ref : call->Request().GetReferences()) {
    const auto& id = ref->GetConfigStoreObjectId();
    if (id.GetComponent() != "network" || id.GetGroup() != "dns" || id.GetKey() != "resolver") continue;
    const auto& v = ref->GetJson();
    auto servers = v.IsObject() ? v.FindMember("servers") : v.MemberEnd();
    resolverHasServers = v.IsObject() && servers != v.MemberEnd() && servers->value.IsArray() &&
                         !servers->value.Empty();
  }
  for (const auto& input : call->Request().GetData()) {
    NtpConfig config = FromValue(input.object->GetJson());
    if (config.enabled && config.servers.empty()) {
      call->AddError(std::string(kBase) + "/servers", "corvane.qen.settings.ntp.no-servers");
    }
    if (config.servers.size() > kMaxServers) {
      call->AddError(std::string(kBase) + "/servers", "corvane.qen.settings.ntp.too-many-servers",
                     {std::to_string(config.servers.size()), std::to_string(kMaxServers)});
    }
    for (size_t n = 0; n < config.servers.size(); ++n) {
      const std::string& server = config.servers[n];
      const std::string path = std::string(kBase) + "/servers/" + std::to_string(n);
      if (std::find(config.servers.begin(), config.servers.begin() + n, server) != config.servers.begin() + n) {
        call->AddError(path, "corvane.qen.settings.ntp.duplicate-server", {server});
      }
      if (IsAddress(server)) continue;
      if (!IsHostName(server)) {
        call->AddError(path, "corvane.qen.settings.ntp.invalid-server", {server});
      } else if (!resolverHasServers) {
        call->AddError(path, "corvane.qen.settings.ntp.name-without-resolver", {server});
      }
    }
  }
  return 0;
}

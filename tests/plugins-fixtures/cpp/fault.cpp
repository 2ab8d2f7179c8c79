// Test plugin: misbehaves on cue, like plugins-fixtures/python/plugin.py. The
// request's clusterContext names the behaviour (see ../README.md).
#include <link.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "QenPlugin.h"

extern char** environ;

namespace {

constexpr const char* kEcho = "/var/corvane/lifecycle/echo.json";
constexpr const char* kOutput = "/var/corvane/lifecycle/cm-plugin-output.json";

void WriteRaw(const std::string& logical, const std::string& text) {
  std::ofstream out(QenPlugin::Call::HostPath(logical), std::ios::binary | std::ios::trunc);
  out << text;
}

// The request document as the runner loaded it, plus what the process saw.
void Echo(const QenPlugin::Call& call) {
  rapidjson::Document seen;
  seen.CopyFrom(call.Request().GetDocument(), seen.GetAllocator());
  rapidjson::Value env(rapidjson::kArrayType);
  for (char** e = environ; e && *e; ++e) env.PushBack(rapidjson::Value(*e, seen.GetAllocator()), seen.GetAllocator());
  seen.AddMember("environ", env, seen.GetAllocator());
  seen.AddMember("pid", static_cast<int>(getpid()), seen.GetAllocator());
  // The shared objects loaded into the runner with the plugin.
  rapidjson::Value libraries(rapidjson::kArrayType);
  std::pair<rapidjson::Value*, rapidjson::Document*> sink(&libraries, &seen);
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* out) {
        auto& list = *static_cast<std::pair<rapidjson::Value*, rapidjson::Document*>*>(out);
        if (info->dlpi_name && *info->dlpi_name)
          list.first->PushBack(rapidjson::Value(info->dlpi_name, list.second->GetAllocator()),
                               list.second->GetAllocator());
        return 0;
      },
      &sink);
  seen.AddMember("libraries", libraries, seen.GetAllocator());
  if (call.Request().GetType() == "APPLY" || call.Request().GetType() == "IMPACT") {
    rapidjson::Value ordinals(rapidjson::kArrayType);
    for (const auto& input : call.Request().GetData()) {
      ordinals.PushBack(static_cast<uint64_t>(input.object->GetOrdinal()), seen.GetAllocator());
    }
    seen.AddMember("ordinals", ordinals, seen.GetAllocator());
  }
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  seen.Accept(writer);
  WriteRaw(kEcho, buffer.GetString());
}

// Returns the entry point's status, or -1 to carry on normally.
int Behave(const QenPlugin::Call& call) {
  const std::string cue = call.Request().GetClusterContext();
  const std::string verb = cue.substr(0, cue.find(':'));
  const std::string arg = cue.find(':') == std::string::npos ? "" : cue.substr(cue.find(':') + 1);
  if (verb == "exit") _exit(std::stoi(arg));
  if (verb == "status") return std::stoi(arg);
  if (verb == "signal") {
    raise(std::stoi(arg));
    pause();
  }
  if (verb == "sleep") {
    for (;;) pause();
  }
  if (verb == "garbage") {
    WriteRaw(kOutput, "{\"error\": {\"msgId\": ");
    _exit(0);
  }
  if (verb == "none") _exit(0);
  if (verb == "huge") {
    WriteRaw(kOutput, "{\"error\": {\"msgId\": \"\", \"args\": []}, \"padding\": \"" +
                          std::string(8 << 20, 'x') + "\"}");
    _exit(0);
  }
  if (verb == "noise") {
    // A megabyte of bytes that are no JSON (a fixed sequence: a failure replays).
    std::string bytes(1 << 20, '\0');
    uint32_t x = 2463534242u;
    for (char& c : bytes) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      c = static_cast<char>(x);
    }
    WriteRaw(kOutput, bytes);
    _exit(0);
  }
  if (verb == "error") throw QenPlugin::PluginError(arg, {call.Request().GetId(), "detail"});
  if (verb == "raise") throw std::logic_error("the plugin broke");
  if (verb == "echo") Echo(call);
  return -1;
}

}  // namespace

QEN_PLUGIN_EXPORT int qen_plugin_apply(QenPlugin::ApplyCall* call) {
  int status = Behave(*call);
  return status >= 0 ? status : 0;
}

QEN_PLUGIN_EXPORT int qen_plugin_impact(QenPlugin::ImpactCall* call) {
  int status = Behave(*call);
  if (status >= 0) return status;
  for (const auto& input : call->Request().GetData()) {
    call->AddImpact(input.object->GetConfigStoreObjectId(), QenPlugin::REBOOT_REQUIRED, false);
  }
  return 0;
}

QEN_PLUGIN_EXPORT int qen_plugin_extract(QenPlugin::ExtractCall* call) {
  int status = Behave(*call);
  if (status >= 0) return status;
  int n = 0;
  for (const auto& id : call->Request().GetCSOIdsForExtract()) {
    rapidjson::Document value(rapidjson::kObjectType);
    value.AddMember("index", n++, value.GetAllocator());
    call->AddObject(id, value);
  }
  return 0;
}

// No validate entry point: the runner must answer ENOSYS.

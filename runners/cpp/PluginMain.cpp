// The SDK's side of a call: what cpp_plugin_runner hands over to the plugin
// through qen_plugin_run (QenPluginAbi.h). Linked into every plugin.
#include <errno.h>

#include <cstdio>
#include <string>

#include "HostRoot.h"
#include "QenPlugin.h"
#include "QenPluginAbi.h"

// The plugin's entry points; a plugin defines those it provides, the others
// stay null.
extern "C" {
int qen_plugin_apply(QenPlugin::ApplyCall* call) __attribute__((weak));
int qen_plugin_impact(QenPlugin::ImpactCall* call) __attribute__((weak));
int qen_plugin_extract(QenPlugin::ExtractCall* call) __attribute__((weak));
int qen_plugin_validate(QenPlugin::ValidateCall* call) __attribute__((weak));
}

namespace {

constexpr const char* kInputFile = "/var/corvane/lifecycle/cm-plugin-input.json";
constexpr const char* kOutputFile = "/var/corvane/lifecycle/cm-plugin-output.json";

int Fail(int code, const std::string& text) {
  std::fprintf(stderr, "cpp_plugin_runner: %s\n", text.c_str());
  // An exit status holds 8 bits: a larger number must not wrap to success.
  return code > 0 && code < 256 ? code : ENOTRECOVERABLE;
}

template <typename CallType>
int Invoke(int (*entry)(CallType*), const char* symbol, const QenPlugin::PluginRequest& request,
           const std::string& id) {
  if (!entry) return Fail(ENOSYS, "plugin " + id + " does not provide " + symbol);

  CallType call(request);
  int status = 0;
  try {
    status = entry(&call);
  } catch (const QenPlugin::PluginError& e) {
    call.error = e.Info();
  } catch (const std::exception& e) {
    return Fail(ENOTRECOVERABLE, "plugin " + id + " threw: " + e.what());
  } catch (...) {
    return Fail(ENOTRECOVERABLE, "plugin " + id + " threw a non-standard exception");
  }
  if (status != 0) return Fail(status, "plugin " + id + " failed with status " + std::to_string(status));
  try {
    call.Save(QenPlatform::HostPath(kOutputFile));
  } catch (const std::exception& e) {
    return Fail(EIO, std::string("cannot write the result: ") + e.what());
  }
  return 0;
}

int Run(const qen_plugin_invocation* invocation) {
  if (!invocation || invocation->abi_version != QEN_PLUGIN_ABI_VERSION) {
    return Fail(EINVAL, "plugin built for runner interface " + std::to_string(QEN_PLUGIN_ABI_VERSION) +
                            ", runner speaks " + (invocation ? std::to_string(invocation->abi_version) : "none"));
  }
  QenPlatform::SetHostRoot(invocation->host_root ? invocation->host_root : "");

  QenPlugin::PluginRequest request;
  std::string operation, id;
  try {
    request.Load(QenPlatform::HostPath(kInputFile));
    operation = request.GetType();
    id = request.GetId();
  } catch (const std::exception& e) {
    return Fail(EINVAL, e.what());
  }
  if (operation == "APPLY") return Invoke(qen_plugin_apply, "qen_plugin_apply", request, id);
  if (operation == "IMPACT") return Invoke(qen_plugin_impact, "qen_plugin_impact", request, id);
  if (operation == "EXTRACT") return Invoke(qen_plugin_extract, "qen_plugin_extract", request, id);
  if (operation == "VALIDATE") return Invoke(qen_plugin_validate, "qen_plugin_validate", request, id);
  return Fail(EINVAL, "unknown operation '" + operation + "'");
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int qen_plugin_run(const qen_plugin_invocation* invocation) {
  // Nothing may unwind into the runner: it shares no C++ runtime with us.
  try {
    return Run(invocation);
  } catch (const std::exception& e) {
    return Fail(ENOTRECOVERABLE, e.what());
  } catch (...) {
    return Fail(ENOTRECOVERABLE, "unexpected failure");
  }
}

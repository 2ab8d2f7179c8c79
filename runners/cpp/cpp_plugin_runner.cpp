// Runs one call of a C++ configuration plugin.
//
// Started by the configuration manager with an empty environment; the host
// root is where this program is installed (<root>/usr/lib/corvane/
// configmanager/bin/cpp_plugin_runner, passed as argv[0]). Reads the request
// file, loads the request's "module" from the plugin directory, calls the
// entry point of the requested operation and writes the result file.
// Exit status: 0 when the result was written, otherwise an error number
// (ENOENT module or entry missing, EINVAL bad request, ENOSYS operation not
// provided, EIO result not writable, ENOTRECOVERABLE the plugin threw).
#include <dlfcn.h>
#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "HostRoot.h"
#include "QenPlugin.h"

namespace {

constexpr const char* kBinDir = "/usr/lib/corvane/configmanager/bin/";
constexpr const char* kPluginDir = "/usr/lib/corvane/configmanager/plugins/";
constexpr const char* kInputFile = "/var/corvane/lifecycle/cm-plugin-input.json";
constexpr const char* kOutputFile = "/var/corvane/lifecycle/cm-plugin-output.json";

int Fail(int code, const std::string& text) {
  std::fprintf(stderr, "cpp_plugin_runner: %s\n", text.c_str());
  // An exit status holds 8 bits: a larger number must not wrap to success.
  return code > 0 && code < 256 ? code : ENOTRECOVERABLE;
}

// "<root>/usr/lib/corvane/configmanager/bin/<name>" -> "<root>"; false otherwise.
bool RootFromSelf(const std::string& self, std::string& root) {
  size_t at = self.rfind(kBinDir);
  if (self.empty() || self[0] != '/' || at == std::string::npos) return false;
  std::string name = self.substr(at + std::strlen(kBinDir));
  if (name.empty() || name.find('/') != std::string::npos) return false;
  root = self.substr(0, at);
  return true;
}

template <typename CallType>
int Invoke(void* library, const char* symbol, const QenPlugin::PluginRequest& request,
           const std::string& id) {
  auto entry = reinterpret_cast<int (*)(CallType*)>(dlsym(library, symbol));
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

}  // namespace

int main(int argc, char** argv) {
  std::string root;
  if (argc < 1 || !RootFromSelf(argv[0], root)) {
    return Fail(EINVAL, std::string("not installed below a host root: ") + (argc > 0 ? argv[0] : ""));
  }
  QenPlatform::SetHostRoot(root);

  QenPlugin::PluginRequest request;
  std::string operation, module, id;
  try {
    request.Load(QenPlatform::HostPath(kInputFile));
    operation = request.GetType();
    id = request.GetId();
    module = request.GetModule();
  } catch (const std::exception& e) {
    return Fail(EINVAL, e.what());
  }
  if (module.empty() || module == "." || module == ".." || module.find('/') != std::string::npos) {
    return Fail(EINVAL, "invalid module name '" + module + "'");
  }

  const std::string path = QenPlatform::HostPath(std::string(kPluginDir) + module);
  if (access(path.c_str(), R_OK) != 0) return Fail(ENOENT, "plugin " + id + ": no shared object " + path);
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) return Fail(ENOENT, std::string("cannot load ") + path + ": " + dlerror());

  // The library stays loaded until exit: its objects may outlive the call.
  if (operation == "APPLY") return Invoke<QenPlugin::ApplyCall>(library, "qen_plugin_apply", request, id);
  if (operation == "IMPACT") return Invoke<QenPlugin::ImpactCall>(library, "qen_plugin_impact", request, id);
  if (operation == "EXTRACT") return Invoke<QenPlugin::ExtractCall>(library, "qen_plugin_extract", request, id);
  if (operation == "VALIDATE") return Invoke<QenPlugin::ValidateCall>(library, "qen_plugin_validate", request, id);
  return Fail(EINVAL, "unknown operation '" + operation + "'");
}

// Runs one call of a C++ configuration plugin.
//
// Started by the configuration manager with an empty environment; the host
// root is where this program is installed (<root>/usr/lib/corvane/
// configmanager/bin/cpp_plugin_runner, passed as argv[0]). Reads the
// request's "module", loads it from the plugin directory and hands the call
// to the SDK inside it (QenPluginAbi.h), which calls the operation's entry
// point and writes the result file.
//
// The runner is started for every call, so it is kept small: libc and the
// part of the C++ runtime it uses, nothing of the configuration manager's
// libraries (a plugin carries what it needs).
//
// Exit status: 0 when the result was written, otherwise an error number
// (ENOENT module or entry missing, EINVAL bad request, ENOSYS operation not
// provided, EIO result not writable, ENOTRECOVERABLE the plugin threw).
#include <dlfcn.h>
#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "HostFiles.h"
#include "QenPluginAbi.h"

namespace {

constexpr const char* kBinDir = "/usr/lib/corvane/configmanager/bin/";
constexpr const char* kPluginDir = "/usr/lib/corvane/configmanager/plugins/";
constexpr const char* kInputFile = "/var/corvane/lifecycle/cm-plugin-input.json";

int Fail(int code, const std::string& text) {
  std::fprintf(stderr, "cpp_plugin_runner: %s\n", text.c_str());
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

// Picks the top-level "key" and "module" strings out of the request and stops
// reading there: the rest (possibly large configuration data) is the SDK's to
// parse, which refuses a malformed request in full.
class RequestHead : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, RequestHead> {
 public:
  std::string id, module;
  bool hasModule = false;
  bool tooDeep = false;

  bool Default() { return Leaf(); }
  bool String(const char* text, rapidjson::SizeType length, bool) {
    if (depth_ == 1 && slot_) {
      slot_->assign(text, length);
      if (slot_ == &module) hasModule = true;
    }
    return Leaf();
  }
  bool StartObject() { return Open(); }
  bool EndObject(rapidjson::SizeType) { return Close(); }
  bool StartArray() { return Open(); }
  bool EndArray(rapidjson::SizeType) { return Close(); }
  bool Key(const char* text, rapidjson::SizeType length, bool) {
    slot_ = nullptr;
    if (depth_ != 1) return true;
    if (length == 6 && std::memcmp(text, "module", 6) == 0) slot_ = &module;
    if (length == 3 && std::memcmp(text, "key", 3) == 0) slot_ = &id;
    return true;
  }

 private:
  bool Leaf() {
    slot_ = nullptr;
    return !hasModule;  // false ends the parse once the module is known
  }
  // Past the nesting limit the request is not one the library writes.
  bool Open() {
    slot_ = nullptr;
    if (++depth_ <= static_cast<int>(QenPlatform::kMaxJsonNesting)) return true;
    tooDeep = true;
    return false;
  }
  bool Close() {
    --depth_;
    return true;
  }
  int depth_ = 0;
  std::string* slot_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
  std::string root;
  if (argc < 1 || !RootFromSelf(argv[0], root)) {
    return Fail(EINVAL, std::string("not installed below a host root: ") + (argc > 0 ? argv[0] : ""));
  }

  std::string text;
  if (!QenPlatform::ReadWholeFile(root + kInputFile, text)) return Fail(EINVAL, "Failed to load plugin input json.");
  RequestHead head;
  {
    // Iterative: the call stack stays flat whatever the nesting.
    rapidjson::Reader reader;
    rapidjson::StringStream in(text.c_str());
    reader.Parse<rapidjson::kParseIterativeFlag>(in, head);
    if (!head.hasModule) {
      return Fail(EINVAL, head.tooDeep || (reader.HasParseError() &&
                                           reader.GetParseErrorCode() != rapidjson::kParseErrorTermination)
                              ? "Failed to load plugin input json."
                              : "The PluginRequest structure does not contain module");
    }
  }
  const std::string& module = head.module;
  if (module.empty() || module == "." || module == ".." || module.find('/') != std::string::npos) {
    return Fail(EINVAL, "invalid module name '" + module + "'");
  }

  const std::string path = root + kPluginDir + module;
  if (access(path.c_str(), R_OK) != 0) return Fail(ENOENT, "plugin " + head.id + ": no shared object " + path);
  // RTLD_LOCAL: the plugin's symbols (its own copy of the SDK) stay its own.
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) return Fail(ENOENT, std::string("cannot load ") + path + ": " + dlerror());
  auto run = reinterpret_cast<qen_plugin_run_fn>(dlsym(library, QEN_PLUGIN_RUN_SYMBOL));
  if (!run) return Fail(ENOENT, "plugin " + head.id + ": " + path + " was not built with the plugin SDK");

  qen_plugin_invocation invocation{QEN_PLUGIN_ABI_VERSION, root.c_str()};
  // The library stays loaded until exit: its objects may outlive the call.
  int status = run(&invocation);
  return status >= 0 && status < 256 ? status : ENOTRECOVERABLE;
}

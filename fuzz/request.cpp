// Plugin request files as a runner reads them: PluginRequest::Load, then
// every getter, each on its own (one that fails must not keep the next from
// being asked).
#include <stdexcept>

#include "configmanager/plugin.h"
#include "support/Fuzz.h"

using namespace QenConfigManager;

namespace QenFuzz {
namespace {

constexpr const char* kInput = "/var/corvane/lifecycle/cm-plugin-input.json";

// Load and the getters refuse with std::runtime_error (unreadable file,
// missing member) or the JSON library's 1082 (wrong type); a config text
// that is not JSON is the store's 2003.
template <typename F>
void Asked(F&& f) {
  try {
    Guarded(f);
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

int Request(const uint8_t* data, size_t size) {
  Host();
  WriteHostFile(kInput, Text(data, size));
  PluginRequest request;
  bool loaded = false;
  Asked([&] {
    request.Load(kInput);
    loaded = true;
  });
  if (!loaded) return 0;
  Asked([&] { (void)request.GetVersion(); });
  Asked([&] { (void)request.GetTaskId(); });
  Asked([&] { (void)request.GetId(); });
  Asked([&] { (void)request.GetModule(); });
  Asked([&] { (void)request.GetType(); });
  Asked([&] { (void)request.GetClusterContext(); });
  Asked([&] {
    for (const DesiredConfigInput& input : request.GetData()) {
      Check(input.object != nullptr, "every input carries an object");
      (void)input.object->GetSerializedData();
      if (input.drift) (void)input.drift->GetSerializedDrift();
    }
  });
  Asked([&] {
    for (const auto& object : request.GetReferences()) (void)object->GetSerializedData();
  });
  Asked([&] { (void)request.GetCSOIdsForExtract(); });
  return 0;
}

}  // namespace QenFuzz

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
void Guarded(F&& f) {
  try {
    f();
  } catch (const std::runtime_error&) {
  } catch (const QenConfigStore::ConfigStoreException&) {
  }
}

}  // namespace

int Request(const uint8_t* data, size_t size) {
  Host();
  WriteHostFile(kInput, Text(data, size));
  PluginRequest request;
  bool loaded = false;
  Guarded([&] {
    request.Load(kInput);
    loaded = true;
  });
  if (!loaded) return 0;
  Guarded([&] { (void)request.GetVersion(); });
  Guarded([&] { (void)request.GetTaskId(); });
  Guarded([&] { (void)request.GetId(); });
  Guarded([&] { (void)request.GetModule(); });
  Guarded([&] { (void)request.GetType(); });
  Guarded([&] { (void)request.GetClusterContext(); });
  Guarded([&] {
    for (const DesiredConfigInput& input : request.GetData()) {
      Check(input.object != nullptr, "every input carries an object");
      (void)input.object->GetSerializedData();
      if (input.drift) (void)input.drift->GetSerializedDrift();
    }
  });
  Guarded([&] {
    for (const auto& object : request.GetReferences()) (void)object->GetSerializedData();
  });
  Guarded([&] { (void)request.GetCSOIdsForExtract(); });
  return 0;
}

}  // namespace QenFuzz

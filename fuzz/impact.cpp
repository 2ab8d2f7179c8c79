// Impact of fuzzed desired documents against the sample host's annotated
// key schemas (reboot and maintenance-mode operations and property values),
// compared with the sample store's current configuration; and the boot-time
// tasks the same document makes.
#include <fstream>
#include <sstream>

#include "configmanager/boot.h"
#include "configmanager/impact.h"
#include "support/Fuzz.h"

using namespace QenConfigManager;

namespace QenFuzz {
namespace {

const rapidjson::Document& SampleHost() {
  static const rapidjson::Document host = [] {
    std::ifstream in(QEN_SOURCE_DIR "/host/documents/store-sample.json");
    std::stringstream text;
    text << in.rdbuf();
    rapidjson::Document store, current;
    Check(Parse(text.str(), store), "the sample store parses");
    current.CopyFrom(store["host"]["current"], current.GetAllocator());
    return current;
  }();
  return host;
}

}  // namespace

int Impact(const uint8_t* data, size_t size) {
  Host();
  rapidjson::Document desired;
  if (!Parse(Text(data, size), desired)) return 0;

  rapidjson::Document copy;
  copy.CopyFrom(desired, copy.GetAllocator());
  try {
    ImpactHandler handler(DRIFT_CACHE_RECORD);
    handler.currentDocument = std::make_shared<QenConfigStore::JsonDoc>();
    handler.currentDocument->GetDocument().CopyFrom(SampleHost(),
                                                    handler.currentDocument->GetDocument().GetAllocator());
    ImpactResult result = ImpactWithCustomHandler(copy, "", handler, TaskHandle::Dummy());
    Check(result.errorInfo.IsEmpty(), "no impact plugin, no plugin error");
    if (result.compliant)
      Check(result.impact == NO_IMPACT && result.impactInfo.empty(), "a compliant document costs nothing");
  } catch (const QenConfigStore::ConfigStoreException&) {
  }

  try {
    for (const DesiredConfigInput& input : GenerateBootTimeTasks(desired))
      Check(input.object != nullptr && (input.operation == "SET" || input.operation == "ADD"),
            "a boot-time task sets a key or adds an instance");
  } catch (const QenConfigStore::ConfigStoreException&) {
  }
  return 0;
}

}  // namespace QenFuzz

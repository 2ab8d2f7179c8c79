#include "FeatureState.h"

#include <map>
#include <memory>
#include <mutex>

#include "CSLogger.h"
#include "HostCtl.h"
#include "HostFiles.h"

namespace {

typedef std::map<std::string, bool> Features;

struct State {
  std::mutex mutex;
  std::shared_ptr<const Features> features;  // null until the first Init
};

State& GlobalState() {
  static State state;
  return state;
}

std::shared_ptr<const Features> ReadFeatures() {
  rapidjson::Document doc;
  std::string error;
  if (!QenPlatform::ReadHostJson(kFeatureStateFile, doc, &error))
    throw HostCtl::Lib::HostCtlException(error);
  const std::string file = std::string("host file \"") + kFeatureStateFile + "\": ";
  auto list = doc.FindMember("features");
  if (list == doc.MemberEnd() || !list->value.IsObject())
    throw HostCtl::Lib::HostCtlException(file + "member \"features\" must be an object");
  auto features = std::make_shared<Features>();
  for (const auto& feature : list->value.GetObject()) {
    const std::string name(feature.name.GetString(), feature.name.GetStringLength());
    if (!feature.value.IsBool())
      throw HostCtl::Lib::HostCtlException(file + "feature \"" + name + "\" is not a boolean");
    (*features)[name] = feature.value.GetBool();
  }
  return features;
}

std::shared_ptr<const Features> Init(bool log) {
  std::shared_ptr<const Features> features = ReadFeatures();
  {
    State& state = GlobalState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.features = features;
  }
  if (log) {
    for (const auto& feature : *features)
      if (feature.second) CSLogger::Log(2, "Feature state: %s enabled", feature.first.c_str());
  }
  return features;
}

std::shared_ptr<const Features> Current() {
  {
    State& state = GlobalState();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.features) return state.features;
  }
  return Init(false);
}

}  // namespace

void FeatureState_InitDeltaMode() { Init(true); }

void FeatureState_InitSilentMode() { Init(false); }

bool FeatureState_IsEnabled(const char* name) {
  std::shared_ptr<const Features> features = Current();
  auto it = features->find(name ? name : "");
  return it != features->end() && it->second;
}

std::vector<std::string> FeatureState_EnabledFeatures() {
  std::vector<std::string> names;
  for (const auto& feature : *Current())
    if (feature.second) names.push_back(feature.first);
  return names;
}

// Plugin result files as the library reads them back from a runner: the
// four readers on the same bytes, and for each one that accepts them a
// write and a second read that must give the same record.
#include "PluginSupport.h"
#include "support/Fuzz.h"

using namespace QenConfigManager;

namespace QenFuzz {
namespace {

constexpr const char* kOutput = "/var/corvane/lifecycle/cm-plugin-output.json";
constexpr const char* kAgain = "/var/corvane/lifecycle/again.json";

// Each reader refuses with the store's exception (2000 unreadable, 2003
// not a result of its shape).
template <typename R>
void ReadWriteRead(R (*load)(const std::string&)) {
  R first;
  try {
    first = load(Host() + kOutput);
  } catch (const QenConfigStore::ConfigStoreException&) {
    return;
  }
  first.Save(Host() + kAgain);
  R second = load(Host() + kAgain);
  Check(second.Serialize() == first.Serialize(), "a result read back after writing is the same");
}

}  // namespace

int Result(const uint8_t* data, size_t size) {
  Host();
  WriteHostFile(kOutput, Text(data, size));
  ReadWriteRead<ImpactPluginResult>(&ImpactPluginResult::Load);
  ReadWriteRead<ExtractPluginResult>(&ExtractPluginResult::Load);
  ReadWriteRead<ValidationPluginResult>(&ValidationPluginResult::Load);

  ErrorInfo error;
  try {
    error = ErrorInfo::Load(Host() + kOutput);
  } catch (const QenConfigStore::ConfigStoreException&) {
    return 0;
  }
  SaveErrorResult(error, Host() + kAgain);
  Check(ErrorInfo::Load(Host() + kAgain) == error, "an apply result read back after writing is the same");
  ErrorInfo again;
  again.Deserialize(error.Serialize());
  Check(again == error, "an error read back from its own text is the same");
  return 0;
}

}  // namespace QenFuzz

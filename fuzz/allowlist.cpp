// Telemetry allowlists as installed in the telemetry directory, read by the
// export's allowlist reader: a list of names is read whole, anything else is
// refused with the store's exception.
#include <unordered_set>

#include "extract/extraction_internal.h"
#include "support/Fuzz.h"

namespace QenFuzz {

int Allowlist(const uint8_t* data, size_t size) {
  Host();
  const std::string text = Text(data, size);
  WriteHostFile(std::string(QenConfigManager::kTelemetryAllowlistDir) + "fuzz.json", text);

  rapidjson::Document doc;
  bool names = Parse(text, doc) && doc.IsArray();
  std::unordered_set<std::string> expected;
  if (names) {
    for (const auto& name : doc.GetArray()) {
      names = names && name.IsString();
      if (name.IsString()) expected.emplace(name.GetString(), name.GetStringLength());
    }
  }
  try {
    const std::unordered_set<std::string> loaded = QenConfigManager::LoadTelemetryAllowlist();
    Check(names, "what is not a list of names is refused");
    Check(loaded == expected, "a list of names is read whole");
  } catch (const QenConfigStore::ConfigStoreException&) {
    // 2080 for a file that is not JSON, 1082 for one that is not a list of
    // names.
    Check(!names, "a list of names is not refused");
  }
  return 0;
}

}  // namespace QenFuzz

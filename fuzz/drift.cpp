// The drift walk on a pair of fuzzed documents ("<desired>\0<host>") under
// the sample host's key schemas: the compliance check's handler at key and
// at property level, and the consolidated walk with drift documents that
// impact and apply use (default user configuration looked up in the store).
#include "configmanager/drift.h"
#include "support/Fuzz.h"

using namespace QenConfigManager;

namespace QenFuzz {
namespace {

// The walk refuses with the store's exception family: 1082 (a document of
// the wrong shape), 2021 (a key without schema), 3000 (an instance without
// identifier).
void Walk(const rapidjson::Document& desiredIn, const rapidjson::Document& host, DriftHandler& handler) {
  rapidjson::Document desired;
  desired.CopyFrom(desiredIn, desired.GetAllocator());
  handler.currentDocument = std::make_shared<QenConfigStore::JsonDoc>();
  handler.currentDocument->GetDocument().CopyFrom(host, handler.currentDocument->GetDocument().GetAllocator());
  try {
    ComputeDrift(desired, desired.GetAllocator(), handler);
  } catch (const QenConfigStore::ConfigStoreException&) {
  }
}

void CheckResult(const ComplianceResult& result) {
  const rapidjson::Value& details = result.details;
  size_t entries = 0;
  for (const char* list : {"ADDS", "DELETES", "SETS"}) {
    Check(details.HasMember(list) && details[list].IsArray(), "the result has its three lists");
    for (const auto& entry : details[list].GetArray()) {
      Check(entry.HasMember("path") && entry["path"].IsString(), "every entry has a path");
      ++entries;
    }
  }
  Check(result.compliant == (entries == 0), "compliant exactly when nothing drifted");
}

}  // namespace

int Drift(const uint8_t* data, size_t size) {
  Host();
  const auto [desiredText, hostText] = SplitAtNul(data, size);
  rapidjson::Document desired, host;
  if (!Parse(desiredText, desired) || !Parse(hostText, host)) return 0;

  for (bool propertyLevel : {false, true}) {
    ComplianceResult result;
    CheckComplianceHandler handler(&result);
    handler.propertyLevelDrift = propertyLevel;
    handler.checkDefaultUserConfig = false;
    Walk(desired, host, handler);
    CheckResult(result);
  }
  DriftHandler consolidated;
  consolidated.consolidatedAction = true;
  consolidated.createDriftObject = true;
  Walk(desired, host, consolidated);
  return 0;
}

}  // namespace QenFuzz

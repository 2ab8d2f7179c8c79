// The boot apply record: what the last boot-time apply left in the store,
// and the outcome of the boot that management tools ask for.
#include <cstring>

#include "CSLogger.h"
#include "QenConfigStore.h"
#include "configmanager/boot.h"

namespace QenConfigManager {
namespace {

// Local time, so that the text reads as the host's clock did.
constexpr const char* kTimeFormat = "%d-%m-%Y %H-%M-%S";
constexpr const char* kRestoreFailed = "corvane.qen.settings.boot-restore.failed";

}  // namespace

std::string BootApplyErrorInfo::Serialize() const {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& alloc = doc.GetAllocator();
  doc.AddMember("errorInfo", rapidjson::Value(errorInfo.Serialize(), alloc), alloc);
  std::tm local{};
  char text[64] = "";
  if (localtime_r(&time, &local)) std::strftime(text, sizeof text, kTimeFormat, &local);
  doc.AddMember("time", rapidjson::Value(text, alloc), alloc);
  return QenPlatform::CompactJson(doc);
}

void BootApplyErrorInfo::Deserialize(const std::string& text) {
  if (text.empty()) return;
  rapidjson::Document doc;
  ParseDocument(text, doc);
  (void)doc.GetObject();
  auto error = doc.FindMember("errorInfo");
  if (error != doc.MemberEnd()) errorInfo.Deserialize(error->value.GetString());
  auto stamp = doc.FindMember("time");
  if (stamp != doc.MemberEnd()) {
    std::tm local{};
    strptime(stamp->value.GetString(), kTimeFormat, &local);
    local.tm_isdst = -1;  // let the C library decide, as it did when formatting
    time = std::mktime(&local);
  }
}

BootApplyInfo GetBootApplyInfo() {
  CSLogger::Log(2, "%s invoked", "GetBootApplyInfo");
  BootApplyInfo info;
  std::shared_ptr<QenConfigStore::JsonDoc> state = QenConfigStore::getBootApplyRecord();
  const rapidjson::Document& doc = state->GetDocument();
  if (!doc["isBootComplete"].GetBool()) {
    info.status = BOOT_APPLY_INCOMPLETE;
    return info;
  }
  BootApplyErrorInfo record;
  record.Deserialize(doc["bootApplyRecord"].GetString());
  if (!record.errorInfo.msgId.empty()) {
    CSLogger::Log(0, "Detected failure during boot-time apply. ErrId: %s", record.errorInfo.msgId.c_str());
    info.records.push_back(record);
  }
  const std::vector<ConfigStoreObjectId> failures = QenConfigStore::GetBootTimeRestoreFailures();
  if (failures.empty()) {
    info.status = info.records.empty() ? BOOT_APPLY_OK : BOOT_APPLY_FAILED;
    return info;
  }
  info.status = BOOT_APPLY_FAILED;
  const std::time_t now = std::time(nullptr);
  for (const ConfigStoreObjectId& id : failures) {
    CSLogger::Log(0, "Failed to apply configuration during boot for component: %s, group: %s and key: %s",
                  id.GetComponent().c_str(), id.GetGroup().c_str(), id.GetKey().c_str());
    info.records.emplace_back(now, ErrorInfo(kRestoreFailed, {id.GetComponent(), id.GetGroup(), id.GetKey()}));
  }
  return info;
}

}  // namespace QenConfigManager

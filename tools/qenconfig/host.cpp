// qenconfig host: status of the host (maintenance mode, quick boot, BIOS UUID).
#include <iostream>

#include "Commands.h"
#include "configmanager/common.h"

const char* qenconfig::QuickBootName(int status) {
  switch (status) {
    case QenConfigManager::QUICKBOOT_UNSUPPORTED: return "QUICKBOOT_UNSUPPORTED";
    case QenConfigManager::QUICKBOOT_SUPPORTED: return "QUICKBOOT_SUPPORTED";
    case QenConfigManager::QUICKBOOT_STM_SUPPORTED: return "QUICKBOOT_STM_SUPPORTED";
  }
  return "unknown";
}

namespace {

qenconfig::Registrar reg([](CLI::App& app) {
  auto* host = app.add_subcommand("host", "The host's status");
  host->require_subcommand(1);

  auto* status = host->add_subcommand("status", "Show maintenance mode, quick-boot capability and BIOS UUID");
  status->footer(
      "JSON: {\"maintenanceMode\": bool, \"quickBoot\": \"QUICKBOOT_UNSUPPORTED\"|\"QUICKBOOT_SUPPORTED\"|\n"
      "\"QUICKBOOT_STM_SUPPORTED\", \"biosUuid\": string}.");
  status->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      // Query everything first so a failure prints no partial report.
      const bool maintenance = QenConfigManager::IsMaintenanceModeEnabled();
      const QenConfigManager::QUICK_BOOT_STATUS quickBoot = QenConfigManager::FetchQuickBootStatus();
      const std::string uuid = QenConfigManager::GetBIOSUUID();
      if (qenconfig::JsonOutput()) {
        rapidjson::Document out(rapidjson::kObjectType);
        auto& a = out.GetAllocator();
        out.AddMember("maintenanceMode", maintenance, a);
        out.AddMember("quickBoot", rapidjson::StringRef(qenconfig::QuickBootName(quickBoot)), a);
        out.AddMember("biosUuid", rapidjson::Value(uuid, a), a);
        qenconfig::PrintJson(out);
        return qenconfig::kOk;
      }
      std::cout << "maintenance mode: " << (maintenance ? "enabled" : "disabled") << "\n"
                << "quick boot: " << qenconfig::QuickBootName(quickBoot) << " (" << static_cast<int>(quickBoot)
                << ")\n"
                << "BIOS UUID: " << uuid << "\n";
      return qenconfig::kOk;
    }));
  });
});

}  // namespace

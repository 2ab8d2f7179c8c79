// qenconfig compliance: whether the host complies with a desired document,
// with every difference (values redacted). Exit 0 when compliant, 3 when not.
#include <algorithm>
#include <iostream>

#include "Commands.h"
#include "Progress.h"
#include "configmanager/common.h"
#include "configmanager/drift.h"

namespace {

std::string Member(const rapidjson::Value& entry, const char* name) {
  auto it = entry.FindMember(name);
  return it == entry.MemberEnd() ? "-" : std::string(it->value.GetString());
}

void PrintTable(const QenConfigManager::ComplianceResult& result) {
  struct Row {
    const char* action;
    std::string path, desired, host;
  };
  std::vector<Row> rows;
  const char* arrays[][2] = {{"ADDS", "ADD"}, {"DELETES", "DELETE"}, {"SETS", "SET"}};
  for (auto& array : arrays)
    for (auto& entry : result.details[array[0]].GetArray())
      rows.push_back({array[1], Member(entry, "path"), Member(entry, "desiredValue"),
                      Member(entry, "hostValue")});
  if (rows.empty()) {
    std::cout << "Compliant: the host matches the desired document.\n";
    return;
  }
  std::cout << "Not compliant: " << result.details["ADDS"].Size() << " to add, "
            << result.details["DELETES"].Size() << " to delete, " << result.details["SETS"].Size()
            << " to set.\n\n";
  size_t pathWidth = 4, desiredWidth = 7;
  for (const Row& row : rows) {
    pathWidth = std::max(pathWidth, row.path.size());
    desiredWidth = std::max(desiredWidth, row.desired.size());
  }
  auto line = [&](const std::string& action, const std::string& path, const std::string& desired,
                  const std::string& host) {
    std::cout << action << std::string(8 - action.size(), ' ') << path
              << std::string(pathWidth - path.size() + 2, ' ') << desired
              << std::string(desiredWidth - desired.size() + 2, ' ') << host << "\n";
  };
  line("ACTION", "PATH", "DESIRED", "HOST");
  for (const Row& row : rows) line(row.action, row.path, row.desired, row.host);
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* cmd = app.add_subcommand("compliance",
                                 "Check whether the host complies with a desired document");
  auto file = std::make_shared<std::string>();
  auto propertyLevel = std::make_shared<bool>(false);
  auto json = std::make_shared<bool>(false);
  cmd->add_option("FILE", *file, "Desired configuration document (a path on this machine)")
      ->required();
  cmd->add_flag("--property-level", *propertyLevel,
                "Compare keys that exist on one side only property by property");
  cmd->add_flag("--json", *json, "Print the result as JSON");
  cmd->callback([file, propertyLevel, json] {
    qenconfig::Exit(qenconfig::Run([&] {
      rapidjson::Document desired;
      qenconfig::ReadDesiredDocument(*file, desired);
      qenconfig::RequireStore();
      QenConfigManager::ComplianceResult result;
      QenConfigManager::CheckCompliance(desired, *propertyLevel, result,
                                        qenconfig::MakeProgressTask("checking compliance"));
      qenconfig::ExitIfInterrupted();
      if (*json) {
        rapidjson::Document out(rapidjson::kObjectType);
        out.AddMember("compliant", result.compliant, out.GetAllocator());
        out.AddMember("details", rapidjson::Value(result.details, out.GetAllocator()),
                      out.GetAllocator());
        std::cout << JsonToString(out) << "\n";
      } else {
        PrintTable(result);
      }
      return result.compliant ? qenconfig::kOk : qenconfig::kNotCompliant;
    }));
  });
});

}  // namespace

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

// The result's details with every value as the JSON value it is: the library
// hands them over as JSON texts.
void PrintJson(QenConfigManager::ComplianceResult& result) {
  rapidjson::Document out(rapidjson::kObjectType);
  auto& a = out.GetAllocator();
  out.AddMember("compliant", result.compliant, a);
  rapidjson::Value details(result.details, a);
  for (const char* array : {"ADDS", "DELETES", "SETS"}) {
    auto it = details.FindMember(array);
    if (it == details.MemberEnd() || !it->value.IsArray()) continue;
    for (auto& entry : it->value.GetArray())
      for (const char* side : {"desiredValue", "hostValue"}) {
        auto value = entry.FindMember(side);
        if (value == entry.MemberEnd() || !value->value.IsString()) continue;
        rapidjson::Document parsed;
        if (QenPlatform::ParseJson(std::string(value->value.GetString(), value->value.GetStringLength()), parsed)) value->value.CopyFrom(parsed, a);
      }
  }
  out.AddMember("details", details, a);
  qenconfig::PrintJson(out);
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
  cmd->add_option("FILE", *file, "Desired configuration document (a path on this machine)")
      ->required();
  cmd->add_flag("--property-level", *propertyLevel,
                "Compare keys that exist on one side only property by property");
  cmd->footer(
      "JSON: {\"compliant\": bool, \"details\": {\"ADDS\": [entry], \"DELETES\": [entry], \"SETS\": [entry]}};\n"
      "an entry has \"path\" (string) and \"desiredValue\" and/or \"hostValue\" (JSON values; a value\n"
      "a schema marks sensitive reads \"(redacted)\").\n"
      "Exit codes: 0 compliant, 3 not compliant, 1 the check could not run.");
  cmd->callback([file, propertyLevel] {
    qenconfig::Exit(qenconfig::Run([&] {
      rapidjson::Document desired;
      qenconfig::ReadDesiredDocument(*file, desired);
      qenconfig::RequireStore();
      QenConfigManager::ComplianceResult result;
      QenConfigManager::CheckCompliance(desired, *propertyLevel, result,
                                        qenconfig::MakeProgressTask("checking compliance"));
      qenconfig::ExitIfInterrupted();
      if (qenconfig::JsonOutput()) {
        PrintJson(result);
      } else {
        PrintTable(result);
      }
      return result.compliant ? qenconfig::kOk : qenconfig::kNotCompliant;
    }));
  });
});

}  // namespace

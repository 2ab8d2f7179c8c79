// qenconfig telemetry: the configuration manager's telemetry items, as the
// host's telemetry service would collect them with the given filter.
#include <iostream>
#include <type_traits>

#include "Commands.h"
#include "configmanager/common.h"
#include "configmanager/telemetry.h"

namespace {

using HostCtl::System::TelemetryData;
using HostCtl::System::TelemetryValue;

struct TelemetryOptions {
  HostCtl::System::TelemetryFilter filter;
  uint32_t index = 0;
};

template <typename T>
struct IsList : std::false_type {};
template <typename T>
struct IsList<std::vector<T>> : std::true_type {};

template <typename T>
void AddScalar(rapidjson::Value& out, const T& value, rapidjson::Document::AllocatorType& alloc) {
  if constexpr (std::is_same_v<T, std::string>)
    out.SetString(value.c_str(), static_cast<rapidjson::SizeType>(value.size()), alloc);
  else
    out = rapidjson::Value(value);
}

template <typename T>
void PrintScalar(const T& value) {
  if constexpr (std::is_same_v<T, bool>)
    std::cout << (value ? "true" : "false");
  else
    std::cout << value;
}

void PrintText(const TelemetryData& items, uint32_t index) {
  for (const auto& item : items) {
    std::cout << item.first << ":";
    std::visit(
        [](const auto& value) {
          using T = std::decay_t<decltype(value)>;
          if constexpr (IsList<T>::value) {
            for (const auto& element : value) {
              std::cout << "\n  ";
              PrintScalar(element);
            }
          } else {
            std::cout << " ";
            PrintScalar(value);
          }
        },
        item.second);
    std::cout << "\n";
  }
  std::cout << "next index: " << index << "\n";
}

void PrintJson(const TelemetryData& items, uint32_t index) {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& alloc = doc.GetAllocator();
  rapidjson::Value values(rapidjson::kObjectType);
  for (const auto& item : items) {
    rapidjson::Value value;
    std::visit(
        [&](const auto& v) {
          using T = std::decay_t<decltype(v)>;
          if constexpr (IsList<T>::value) {
            value.SetArray();
            for (const auto& element : v) {
              rapidjson::Value e;
              AddScalar(e, static_cast<typename T::value_type>(element), alloc);
              value.PushBack(e, alloc);
            }
          } else {
            AddScalar(value, v, alloc);
          }
        },
        item.second);
    values.AddMember(rapidjson::Value(item.first.c_str(), alloc), value, alloc);
  }
  doc.AddMember("items", values, alloc);
  doc.AddMember("index", index, alloc);
  qenconfig::PrintJson(doc);
}

int Telemetry(const TelemetryOptions& options) {
  TelemetryData items;
  const uint32_t next = QenConfigManager::ConfigManagerTelemetryInfo::GetTelemetryData(
      options.filter, items, options.index);
  if (qenconfig::JsonOutput())
    PrintJson(items, next);
  else
    PrintText(items, next);
  return qenconfig::kOk;
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* cmd = app.add_subcommand("telemetry", "Print the configuration manager's telemetry items");
  auto options = std::make_shared<TelemetryOptions>();
  cmd->add_option("--include", options->filter.include, "Only these items (NAME,...)")
      ->delimiter(',');
  cmd->add_option("--exclude", options->filter.exclude, "Never these items (NAME,...)")
      ->delimiter(',');
  cmd->add_option("--start", options->filter.startIndex,
                  "Emit only items numbered from this index on");
  cmd->add_option("--max", options->filter.maxEntries, "At most this many items (default: all)");
  cmd->add_option("--index", options->index, "Number of the first item (default 0)");
  cmd->footer("JSON: {\"items\": {NAME: value or [value]}, \"index\": int (the next item's number)}.");
  cmd->callback([options] { qenconfig::Exit(qenconfig::Run([&] { return Telemetry(*options); })); });
});

}  // namespace

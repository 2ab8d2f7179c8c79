// system/boot/kernel: the options the kernel reads at boot.
//
// Value: {"iommu": bool, "cmdline": "extra options", "consoleLogLevel": 0..7}.
// File: /etc/kernel/cmdline, one line "iommu=on|off loglevel=N <cmdline>",
// read by the boot loader when it builds the next boot entry; the options
// take effect at the next boot. Boot-time apply runs this plugin after the
// store has made a staged document current, so the file follows the store.
// Applied values are recorded in the store as the key's current value.
#include <cstdio>
#include <string>

#include "QenPlugin.h"

namespace {

constexpr const char* kCmdlineFile = "/etc/kernel/cmdline";
constexpr int kDefaultLogLevel = 4;

struct KernelOptions {
  bool iommu = false;
  std::string cmdline;
  int consoleLogLevel = kDefaultLogLevel;
};

// The file's managed options come first; everything after them is the
// free-form command line, kept as written.
KernelOptions ReadHost() {
  KernelOptions options;
  std::string text;
  if (!QenPlugin::Call::ReadHostFile(kCmdlineFile, text)) return options;
  std::string line = text.substr(0, text.find('\n'));
  // Up to two managed words, each consumed when recognised.
  for (int managed = 0; managed < 2; ++managed) {
    const size_t begin = line.find_first_not_of(' ');
    if (begin == std::string::npos) break;
    const size_t end = line.find(' ', begin);
    const std::string word = line.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
    if (word == "iommu=on" || word == "iommu=off") {
      options.iommu = word == "iommu=on";
    } else if (word.size() == 10 && word.compare(0, 9, "loglevel=") == 0 && word[9] >= '0' && word[9] <= '7') {
      options.consoleLogLevel = word[9] - '0';
    } else {
      break;
    }
    line.erase(0, end == std::string::npos ? line.size() : end);
  }
  const size_t start = line.find_first_not_of(' ');
  if (start != std::string::npos) options.cmdline = line.substr(start);
  return options;
}

KernelOptions FromValue(const rapidjson::Value& value) {
  KernelOptions options;
  if (!value.IsObject()) return options;
  auto iommu = value.FindMember("iommu");
  options.iommu = iommu != value.MemberEnd() && iommu->value.IsBool() && iommu->value.GetBool();
  auto cmdline = value.FindMember("cmdline");
  if (cmdline != value.MemberEnd() && cmdline->value.IsString())
    options.cmdline.assign(cmdline->value.GetString(), cmdline->value.GetStringLength());
  auto level = value.FindMember("consoleLogLevel");
  if (level != value.MemberEnd() && level->value.IsInt() && level->value.GetInt() >= 0 && level->value.GetInt() <= 7)
    options.consoleLogLevel = level->value.GetInt();
  return options;
}

void ToValue(const KernelOptions& options, rapidjson::Value& out, rapidjson::Document::AllocatorType& alloc) {
  out.SetObject();
  out.AddMember("iommu", options.iommu, alloc);
  out.AddMember("cmdline", rapidjson::Value(options.cmdline, alloc), alloc);
  out.AddMember("consoleLogLevel", options.consoleLogLevel, alloc);
}

void WriteHost(const KernelOptions& options) {
  std::string line = std::string("iommu=") + (options.iommu ? "on" : "off") +
                     " loglevel=" + std::to_string(options.consoleLogLevel);
  if (!options.cmdline.empty()) line += " " + options.cmdline;
  QenPlugin::Call::WriteHostFile(kCmdlineFile, line + "\n");
}

}  // namespace

QEN_PLUGIN_EXPORT int qen_plugin_extract(QenPlugin::ExtractCall* call) {
  rapidjson::Document value;
  ToValue(ReadHost(), value, value.GetAllocator());
  for (const auto& id : call->Request().GetCSOIdsForExtract()) call->AddObject(id, value);
  return 0;
}

QEN_PLUGIN_EXPORT int qen_plugin_apply(QenPlugin::ApplyCall* call) {
  for (const auto& input : call->Request().GetData()) {
    const auto& id = input.object->GetConfigStoreObjectId();
    if (input.operation == "DELETE") {
      // No options of ours: the boot loader's defaults apply.
      std::remove(QenPlugin::Call::HostPath(kCmdlineFile).c_str());
      call->Store().DeleteObject(id);
      continue;
    }
    const KernelOptions options = FromValue(input.object->GetJson());
    WriteHost(options);
    rapidjson::Document applied;
    ToValue(options, applied, applied.GetAllocator());
    call->RecordApplied(id, applied);
  }
  return 0;
}

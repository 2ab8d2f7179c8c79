// qenconfig boot: boot-time configuration.
//   boot apply             the boot-time apply, as the boot service runs it
//   boot document FILE     bootstrap from a document: staged or applied now
//   boot record            the outcome of the last boot
//   boot early FILE        early bootstrap of authentication and networking
//   boot merge IN OUT      this host's part of a document
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "CSLogger.h"
#include "Commands.h"
#include "HostFiles.h"
#include "HostRoot.h"
#include "Progress.h"
#include "QenConfigStore.h"
#include "configmanager/boot.h"

namespace {

using namespace QenConfigManager;

// The boot operations read and write documents as host files: a user's file
// goes in, and a result comes out, through a private file below the host
// root that is removed afterwards.
class HostCopy {
 public:
  explicit HostCopy(const char* role)
      : logical_(std::string("/var/corvane/lifecycle/qenconfig-") + std::to_string(::getpid()) + "-" + role +
                 ".json"),
        physical_(QenPlatform::HostPath(logical_)) {
    if (!QenPlatform::MakeDirectories(physical_.substr(0, physical_.rfind('/')), 0700))
      throw std::runtime_error("cannot create the directory of \"" + logical_ + "\": " + std::strerror(errno));
  }
  HostCopy(const char* role, const std::string& text) : HostCopy(role) {
    const int fd = QenPlatform::CreatePrivateFile(physical_);
    bool written = fd >= 0 && QenPlatform::WriteAll(fd, text.data(), text.size());
    if (fd >= 0) written = ::close(fd) == 0 && written;
    if (!written) throw std::runtime_error("cannot write \"" + logical_ + "\": " + std::strerror(errno));
  }
  ~HostCopy() { QenPlatform::RemoveFile(physical_); }
  HostCopy(const HostCopy&) = delete;
  HostCopy& operator=(const HostCopy&) = delete;

  const std::string& Logical() const { return logical_; }
  const std::string& Physical() const { return physical_; }

 private:
  std::string logical_;
  std::string physical_;
};

// Runs a boot entry point (0 or 1, never throws). Its failures are in the
// log only, so they are shown here too: every priority-0 line it logged,
// with the user's file named instead of `copy`, its private copy.
int RunBootStep(const std::function<int()>& step, const std::string& done, const HostCopy* copy = nullptr,
                const std::string& userFile = "") {
  CSLogger::Capture capture;
  const int rc = step();
  qenconfig::ExitIfInterrupted();
  for (const std::string& logged : rc != 0 ? capture.Texts(0) : std::vector<std::string>()) {
    std::string line = qenconfig::UserPaths(logged);
    for (size_t at; copy && (at = line.find(copy->Physical())) != std::string::npos;)
      line.replace(at, copy->Physical().size(), userFile);
    std::cerr << "error: " << line << "\n";
  }
  if (rc == 0)
    qenconfig::PrintDone(done);
  return rc == 0 ? qenconfig::kOk : qenconfig::kFailure;
}

const char* StatusName(BOOT_APPLY_STATUS status) {
  switch (status) {
    case BOOT_APPLY_OK: return "BOOT_APPLY_OK";
    case BOOT_APPLY_FAILED: return "BOOT_APPLY_FAILED";
    case BOOT_APPLY_INCOMPLETE: return "BOOT_APPLY_INCOMPLETE";
  }
  return "unknown";
}

int PrintRecord() {
  QenConfigStore::GetDBStore(DBStore::USER, false);  // a missing store is an error, not created
  const int bootMode = QenConfigStore::GetBootMode();
  const BootApplyInfo info = GetBootApplyInfo();
  rapidjson::Document out(rapidjson::kObjectType);
  auto& alloc = out.GetAllocator();
  out.AddMember("bootMode", bootMode, alloc);
  out.AddMember("status", static_cast<int>(info.status), alloc);
  out.AddMember("statusName", rapidjson::StringRef(StatusName(info.status)), alloc);
  rapidjson::Value records(rapidjson::kArrayType);
  for (const BootApplyErrorInfo& record : info.records) {
    // The record's own form gives the time as the store keeps it.
    rapidjson::Document serialized;
    ParseDocument(record.Serialize(), serialized);
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("time", rapidjson::Value(serialized["time"], alloc), alloc);
    rapidjson::Value error;
    record.errorInfo.convertToJson(error, alloc);
    entry.AddMember("errorInfo", error, alloc);
    records.PushBack(entry, alloc);
  }
  out.AddMember("records", records, alloc);
  if (qenconfig::JsonOutput()) {
    qenconfig::PrintJson(out);
    return qenconfig::kOk;
  }
  std::cout << "boot mode: " << bootMode << "\n"
            << "status: " << StatusName(info.status) << " (" << static_cast<int>(info.status) << ")\n";
  for (const auto& entry : out["records"].GetArray()) {
    const rapidjson::Value& error = entry["errorInfo"];
    std::cout << entry["time"].GetString() << "  " << error["msgId"].GetString();
    const char* separator = "  ";
    for (const auto& arg : error["args"].GetArray()) {
      std::cout << separator << arg.GetString();
      separator = ", ";
    }
    if (error["message"].GetStringLength() > 0) std::cout << "  (" << error["message"].GetString() << ")";
    std::cout << "\n";
  }
  return qenconfig::kOk;
}

int Merge(const std::string& in, const std::string& out) {
  HostCopy input("merge-in", qenconfig::ReadUserFile(in));
  HostCopy output("merge-out");
  CreateMergedBootDocument(input.Logical(), output.Logical());
  std::string text;
  if (!QenPlatform::ReadWholeFile(output.Physical(), text))
    throw std::runtime_error("the merged document could not be written");
  qenconfig::WriteUserFile(out, text);
  qenconfig::PrintDone("Wrote this host's part of " + in + " to " + out + ".");
  return qenconfig::kOk;
}

qenconfig::Registrar reg([](CLI::App& app) {
  auto* boot = app.add_subcommand("boot", "Boot-time configuration");
  boot->require_subcommand(1);
  boot->footer(
      "A boot sequence runs `qenconfig store boot` (the staged desired configuration becomes the\n"
      "current one) and then `qenconfig boot apply` (the auto-deployment files are written back\n"
      "and the boot-capable apply plugins apply it). `boot record` tells afterwards how it went.\n"
      "apply, document and early exit 1 on any failure and print its log lines (priority 0).\n"
      "JSON: record's form is in `qenconfig boot record --help`; the others print\n"
      "{\"message\": string} on success.");

  auto* apply = boot->add_subcommand(
      "apply", "Boot-time apply of the stored desired configuration (after `store boot`)");
  apply->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      qenconfig::CatchInterrupts();
      return RunBootStep([] { return ExecuteBootPlugins(); }, "The boot-time apply ran; `qenconfig boot record` tells how.");
    }));
  });

  auto* document = boot->add_subcommand(
      "document",
      "Bootstrap from a document: staged for the next boot (with the auto-deployment files) when it "
      "needs a reboot, applied now otherwise");
  static std::string documentFile;
  document->add_option("FILE", documentFile, "Desired configuration document (a path on this machine)")
      ->required();
  document->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      HostCopy copy("document", qenconfig::ReadUserFile(documentFile));
      qenconfig::CatchInterrupts();
      return RunBootStep([&] { return ApplyBootDocument(copy.Logical()); },
                         "Bootstrapped from " + documentFile +
                             "; `qenconfig store stats` tells whether it waits for a reboot.",
                         &copy, documentFile);
    }));
  });

  auto* record = boot->add_subcommand("record", "Boot mode and the outcome of the last boot-time apply");
  record->footer(
      "JSON: {\"bootMode\": int, \"status\": int, \"statusName\": \"BOOT_APPLY_OK\"|\"BOOT_APPLY_FAILED\"|\n"
      "\"BOOT_APPLY_INCOMPLETE\", \"records\": [{\"time\": string, \"errorInfo\": {\"msgId\": string,\n"
      "\"args\": [string], \"message\": string}}]}.");
  record->callback([] { qenconfig::Exit(qenconfig::Run([] { return PrintRecord(); })); });

  auto* early = boot->add_subcommand(
      "early", "Early bootstrap: the document's qen authentication, then its qen networking");
  static std::string earlyFile;
  early->add_option("FILE", earlyFile, "Bootstrap document (a path on this machine)")->required();
  early->callback([] {
    qenconfig::Exit(qenconfig::Run([] {
      const std::string text = qenconfig::ReadUserFile(earlyFile);
      qenconfig::CatchInterrupts();
      return RunBootStep([&] { return ApplyEarlyBootstrapConfig(text); }, "Early bootstrap from " + earlyFile + " done.");
    }));
  });

  auto* merge = boot->add_subcommand("merge", "Write this host's part of a document, compact, to OUT");
  static std::string mergeIn, mergeOut;
  merge->add_option("IN", mergeIn, "Document with host-specific sections (a path on this machine)")->required();
  merge->add_option("OUT", mergeOut, "Output file (replaced, mode 0600)")->required();
  merge->callback([] { qenconfig::Exit(qenconfig::Run([] { return Merge(mergeIn, mergeOut); })); });
});

}  // namespace

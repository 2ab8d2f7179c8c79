// Plan files through the reader of `qenconfig apply`: the bytes as they are,
// then the same bytes sealed with a checksum that fits them (so the fuzzer
// reaches the members behind the checksum); a plan that is read is written
// and read again to the same plan.
#include "PlanFile.h"
#include "support/Fuzz.h"

namespace QenFuzz {
namespace {

// The normalised BIOS UUID of the sample host's hardware.json.
constexpr const char* kHost = "4c4c4544-0042-3510-8052-b4c04f4a4b32";
constexpr const char* kTrailerStart = "\"checksum\": \"";

bool Read(const std::string& bytes, qenconfig::Plan& plan) {
  try {
    qenconfig::ReadPlan(bytes, kHost, plan);
    return true;
  } catch (const qenconfig::PlanError&) {
    return false;
  }
}

std::string Sealed(const std::string& bytes) {
  const size_t start = bytes.rfind(kTrailerStart);
  const std::string body = start == std::string::npos ? bytes : bytes.substr(0, start);
  return body + kTrailerStart + qenconfig::Sha256Hex(body) + "\"\n}\n";
}

void RoundTrips(const qenconfig::Plan& plan) {
  qenconfig::Plan again;
  Check(Read(qenconfig::WritePlan(plan), again), "a written plan reads back");
  Check(again.host == plan.host && again.impact == plan.impact &&
            again.quickBootStatus == plan.quickBootStatus && again.timestamp == plan.timestamp &&
            again.context == plan.context && again.driftCache == plan.driftCache &&
            again.drift == plan.drift &&
            SameValue(again.desired, plan.desired),
        "a written plan reads back the same");
}

}  // namespace

int Plan(const uint8_t* data, size_t size) {
  const std::string bytes = Text(data, size);
  qenconfig::Plan plan;
  if (Read(bytes, plan)) RoundTrips(plan);
  qenconfig::Plan sealed;
  if (Read(Sealed(bytes), sealed)) RoundTrips(sealed);
  return 0;
}

}  // namespace QenFuzz

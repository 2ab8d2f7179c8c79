// The plan file of `qenconfig plan` / `qenconfig apply`: one JSON document
// that carries a check-apply result from the moment it was computed to the
// moment it is applied, possibly much later and by someone else.
//
// It holds a format version, the BIOS UUID of the host it was made for, the
// whole check result (impact, quick-boot status, desired document,
// timestamp, context, drift cache), the drifted keys with a digest of their
// drift (so that a stale plan can say which keys moved), and a SHA-256
// checksum over everything else. The checksum guards against edits and
// damage, not against an attacker who can rewrite the file: the file is
// owner-only, and its owner could as well write a new plan.
//
// Pure functions over bytes and values: no host access, no global state,
// safe from any thread. ReadPlan accepts any bytes (a fuzzer may call it).
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "QenJson.h"

namespace qenconfig {

// The format this build writes and the only one it reads.
constexpr int kPlanFormat = 1;

// One drifted key or instance as the plan saw it.
struct PlannedDrift {
  std::string object;     // the object identifier's text form
  std::string operation;  // "SET", "ADD" or "DELETE"
  std::string digest;     // DriftDigest of the operation and both sides' values
  bool operator==(const PlannedDrift& o) const {
    return object == o.object && operation == o.operation && digest == o.digest;
  }
};

struct Plan {
  std::string host;         // normalised BIOS UUID of the host it was made for
  int impact = 0;           // IMPACT_TYPE, 0..2
  int quickBootStatus = 0;  // QUICK_BOOT_STATUS, 0..2
  std::string timestamp;    // the check's, decimal seconds since the epoch
  std::string context;
  std::string driftCache;   // the check's drift cache text, may be empty
  rapidjson::Document desired;
  std::vector<PlannedDrift> drift;  // in the order of the drift walk
};

// Why bytes are no usable plan: one line, a clause that completes
// "plan file "<path>" refused: ".
class PlanError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The plan's file text (pretty JSON with its checksum, ending in a newline).
std::string WritePlan(const Plan& plan);

// Reads plan file bytes into `plan`. Refuses, with a PlanError and `plan`
// unspecified, bytes that are not JSON or were cut short, carry another
// format version, fail the checksum, lack a member or hold one of the wrong
// kind, or were written for another host than `host` (this host's BIOS
// UUID, normalised).
void ReadPlan(const std::string& bytes, const std::string& host, Plan& plan);

// Lower-case hexadecimal SHA-256 of `bytes`.
std::string Sha256Hex(const std::string& bytes);

// The digest that tells one drift from another: SHA-256 over the
// operation and the compact JSON of both sides (a missing side is null).
std::string DriftDigest(const std::string& operation, const rapidjson::Value& desired,
                        const rapidjson::Value& host);

}  // namespace qenconfig

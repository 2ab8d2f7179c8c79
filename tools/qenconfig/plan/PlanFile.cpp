#include "PlanFile.h"

#include <openssl/evp.h>

#include <cstring>

namespace qenconfig {
namespace {

// The file ends in this member, so the checksum covers the exact bytes
// before it: a re-serialisation would not be byte-stable (doubles parse
// back to a neighbouring value), and whitespace edits are edits too.
constexpr const char* kTrailerStart = "\"checksum\": \"";
constexpr const char* kTrailerEnd = "\"\n}\n";
constexpr size_t kHexDigits = 64;

rapidjson::Value Text(const std::string& text, rapidjson::Document::AllocatorType& a) {
  return rapidjson::Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), a);
}

[[noreturn]] void Malformed(const std::string& member) {
  throw PlanError("it is malformed (member \"" + member + "\")");
}

const rapidjson::Value& Member(const rapidjson::Value& object, const char* name) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd()) Malformed(name);
  return it->value;
}

std::string String(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value& v = Member(object, name);
  if (!v.IsString()) Malformed(name);
  return std::string(v.GetString(), v.GetStringLength());
}

int Enum(const rapidjson::Value& object, const char* name) {
  const rapidjson::Value& v = Member(object, name);
  if (!v.IsInt() || v.GetInt() < 0 || v.GetInt() > 2) Malformed(name);
  return v.GetInt();
}

}  // namespace

std::string Sha256Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("SHA-256 is not available");
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

std::string DriftDigest(const std::string& operation, const rapidjson::Value& desired,
                        const rapidjson::Value& host) {
  return Sha256Hex(operation + "\n" + QenPlatform::CompactJson(desired) + "\n" +
                   QenPlatform::CompactJson(host));
}

std::string WritePlan(const Plan& plan) {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& a = doc.GetAllocator();
  doc.AddMember("format", kPlanFormat, a);
  doc.AddMember("host", Text(plan.host, a), a);
  doc.AddMember("timestamp", Text(plan.timestamp, a), a);
  doc.AddMember("impact", plan.impact, a);
  doc.AddMember("quickBootStatus", plan.quickBootStatus, a);
  doc.AddMember("context", Text(plan.context, a), a);
  doc.AddMember("driftCache", Text(plan.driftCache, a), a);
  rapidjson::Value drift(rapidjson::kArrayType);
  for (const PlannedDrift& d : plan.drift) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("object", Text(d.object, a), a);
    entry.AddMember("operation", Text(d.operation, a), a);
    entry.AddMember("digest", Text(d.digest, a), a);
    drift.PushBack(entry, a);
  }
  doc.AddMember("drift", drift, a);
  doc.AddMember("desired", rapidjson::Value(plan.desired, a), a);

  // "{\n ... last member\n}" -> "{\n ... last member,\n   " + the checksum member.
  std::string text = QenPlatform::PrettyJson(doc);
  text.resize(text.size() - 2);
  text += ",\n   ";
  return text + kTrailerStart + Sha256Hex(text) + kTrailerEnd;
}

void ReadPlan(const std::string& bytes, const std::string& host, Plan& plan) {
  rapidjson::Document doc;
  if (const QenPlatform::JsonParseResult parsed = QenPlatform::ParseJson(bytes, doc); !parsed)
    throw PlanError("it is not JSON or was cut short (" + parsed.reason + ")");
  if (!doc.IsObject()) throw PlanError("it is not a plan file (no format version)");
  auto format = doc.FindMember("format");
  if (format == doc.MemberEnd() || !format->value.IsInt())
    throw PlanError("it is not a plan file (no format version)");
  if (format->value.GetInt() != kPlanFormat)
    throw PlanError("its format version " + std::to_string(format->value.GetInt()) +
                    " is not supported (this qenconfig reads version " + std::to_string(kPlanFormat) + ")");

  const size_t trailerLength = std::strlen(kTrailerStart) + kHexDigits + std::strlen(kTrailerEnd);
  const size_t start = bytes.rfind(kTrailerStart);
  const bool trailerIntact = start != std::string::npos && bytes.size() - start == trailerLength &&
                             bytes.compare(bytes.size() - std::strlen(kTrailerEnd), std::string::npos,
                                           kTrailerEnd) == 0;
  const std::string recorded =
      trailerIntact ? bytes.substr(start + std::strlen(kTrailerStart), kHexDigits) : std::string();
  if (!trailerIntact || recorded != Sha256Hex(bytes.substr(0, start)))
    throw PlanError("it was changed after it was written (checksum mismatch)");

  plan.host = String(doc, "host");
  plan.timestamp = String(doc, "timestamp");
  plan.impact = Enum(doc, "impact");
  plan.quickBootStatus = Enum(doc, "quickBootStatus");
  plan.context = String(doc, "context");
  plan.driftCache = String(doc, "driftCache");
  const rapidjson::Value& drift = Member(doc, "drift");
  if (!drift.IsArray()) Malformed("drift");
  plan.drift.clear();
  for (const auto& entry : drift.GetArray()) {
    if (!entry.IsObject()) Malformed("drift");
    plan.drift.push_back({String(entry, "object"), String(entry, "operation"), String(entry, "digest")});
  }
  const rapidjson::Value& desired = Member(doc, "desired");
  if (!desired.IsObject()) Malformed("desired");
  plan.desired.CopyFrom(desired, plan.desired.GetAllocator());

  if (plan.host != host)
    throw PlanError("it was written for host " + plan.host + ", not for this host (" + host + ")");
}

}  // namespace qenconfig

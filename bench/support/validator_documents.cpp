#include "validator_documents.h"

#include <random>

namespace QenBench {

namespace {

constexpr int kComponents = 8;
constexpr int kGroups = 5;
constexpr int kKeys = 5;
constexpr size_t kTargetBytes = 10u << 20;

std::string KeySchema(bool vocabulary) {
  return std::string(R"({"type": "array",)") + (vocabulary ? R"( "instanceId": "name",)" : "") + R"(
  "items": {"type": "object", "required": ["name", "mtu", "mode"], "additionalProperties": false,
    "properties": {
      "name": {"type": "string", "pattern": "^[a-z][a-z0-9-]*$", "maxLength": 64},
      "mtu": {"type": "integer", "minimum": 68, "maximum": 9000},
      "enabled": {"type": "boolean"},
      "mode": {"enum": ["auto", "manual", "off"]},
      "weight": {"type": "number", "minimum": 0, "maximum": 1},
      "addresses": {"type": "array", "maxItems": 16, "uniqueItems": true,
                    "items": {"type": "string", "pattern": "^[0-9]{1,3}(\\.[0-9]{1,3}){3}$"}},
      "options": {"type": "object", "additionalProperties": {"type": "string", "maxLength": 256}},
      "link": {)" + (vocabulary ? R"("discriminator": "kind", )" : "") + R"("oneOf": [
        {"properties": {"kind": {"enum": ["static"]}, "gateway": {"type": "string"}}, "required": ["gateway"]},
        {"properties": {"kind": {"enum": ["dhcp"]}, "lease": {"type": "integer", "minimum": 60}}}]}}}})";
}

std::string Name(const char* stem, int i) { return std::string(stem) + std::to_string(i); }

std::string Instance(std::mt19937& rng, int i, bool faulty) {
  std::uniform_int_distribution<int> octet(0, 255), mtu(68, 9000), lease(60, 86400);
  const int fault = faulty && i % 500 == 499 ? i / 500 % 4 : -1;
  std::string out = "{\"name\":\"" + std::string(fault == 1 ? "If " : "if-") + std::to_string(i) + "\",";
  if (fault != 2) out += "\"mtu\":" + std::to_string(fault == 0 ? 9001 : mtu(rng)) + ",";
  out += std::string("\"enabled\":") + (i % 2 ? "true" : "false") + ",\"mode\":\"" +
         (i % 3 == 0 ? "auto" : i % 3 == 1 ? "manual" : "off") + "\",\"weight\":0." +
         std::to_string(octet(rng)) + ",\"addresses\":[";
  for (int a = 0; a < 4; ++a) {
    out += (a ? ",\"" : "\"") + std::to_string(a + 1) + "." + std::to_string(octet(rng)) + "." +
           std::to_string(octet(rng)) + "." + std::to_string(i % 250) + "\"";
  }
  out += "],\"options\":{\"description\":\"uplink number " + std::to_string(i) +
         "\",\"vlan\":\"" + std::to_string(octet(rng)) + "\"},\"link\":";
  if (fault == 3) return out + "{\"kind\":\"ppp\"}}";
  out += i % 2 ? "{\"kind\":\"static\",\"gateway\":\"10.0.0.1\"}"
               : "{\"kind\":\"dhcp\",\"lease\":" + std::to_string(lease(rng)) + "}";
  return out + "}";
}

}  // namespace

std::string ValidatorSchemaText(bool vocabulary) {
  const std::string key = KeySchema(vocabulary);
  std::string out = R"({"type":"object","properties":{"profile":{"type":"object","properties":{)";
  for (int c = 0; c < kComponents; ++c) {
    out += (c ? "," : "") + ("\"" + Name("comp", c) + "\":{\"type\":\"object\",\"properties\":{");
    for (int g = 0; g < kGroups; ++g) {
      out += (g ? "," : "") + ("\"" + Name("group", g) + "\":{\"type\":\"object\",\"properties\":{");
      for (int k = 0; k < kKeys; ++k) out += (k ? "," : "") + ("\"" + Name("key", k) + "\":") + key;
      out += "}}";
    }
    out += "}}";
  }
  return out + "}}}}";
}

std::string ValidatorDocumentText(bool faults) {
  std::mt19937 rng(42);
  const size_t perKey = kTargetBytes / (kComponents * kGroups * kKeys);
  std::string out = "{\"profile\":{";
  int serial = 0;
  for (int c = 0; c < kComponents; ++c) {
    out += (c ? "," : "") + ("\"" + Name("comp", c) + "\":{");
    for (int g = 0; g < kGroups; ++g) {
      out += (g ? "," : "") + ("\"" + Name("group", g) + "\":{");
      for (int k = 0; k < kKeys; ++k) {
        out += (k ? "," : "") + ("\"" + Name("key", k) + "\":[");
        size_t start = out.size();
        for (int n = 0; out.size() - start < perKey; ++n) {
          out += (n ? "," : "") + Instance(rng, serial++, faults);
        }
        out += "]";
      }
      out += "}";
    }
    out += "}";
  }
  return out + "}}";
}

}  // namespace QenBench

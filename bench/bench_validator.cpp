// Validation throughput on a ~10 MB configuration document against a
// generated schema document, next to RapidJSON's own parse of the same text
// (the floor any DOM-based check starts from). Both report bytes/s of the
// document text; BM_ValidateDocument also reports its time as a multiple of
// the parse time measured in the same run ("x_parse").
#include <benchmark/benchmark.h>

#include <chrono>
#include <random>
#include <string>

#include "JsonValidator.h"

namespace {

constexpr int kComponents = 8;
constexpr int kGroups = 5;
constexpr int kKeys = 5;
constexpr size_t kTargetBytes = 10u << 20;

// One key schema in the shape the schema store generates: an instance array
// with patterns, ranges, enums, nested arrays and a tagged union.
const char* kKeySchema = R"({
  "type": "array", "instanceId": "name",
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
      "link": {"discriminator": "kind", "oneOf": [
        {"properties": {"kind": {"enum": ["static"]}, "gateway": {"type": "string"}}, "required": ["gateway"]},
        {"properties": {"kind": {"enum": ["dhcp"]}, "lease": {"type": "integer", "minimum": 60}}}]}}}})";

std::string Name(const char* stem, int i) { return std::string(stem) + std::to_string(i); }

std::string SchemaText() {
  std::string out = R"({"type":"object","properties":{"profile":{"type":"object","properties":{)";
  for (int c = 0; c < kComponents; ++c) {
    out += (c ? "," : "") + ("\"" + Name("comp", c) + "\":{\"type\":\"object\",\"properties\":{");
    for (int g = 0; g < kGroups; ++g) {
      out += (g ? "," : "") + ("\"" + Name("group", g) + "\":{\"type\":\"object\",\"properties\":{");
      for (int k = 0; k < kKeys; ++k) out += (k ? "," : "") + ("\"" + Name("key", k) + "\":") + kKeySchema;
      out += "}}";
    }
    out += "}}";
  }
  return out + "}}}}";
}

std::string Instance(std::mt19937& rng, int i) {
  std::uniform_int_distribution<int> octet(0, 255), mtu(68, 9000), lease(60, 86400);
  std::string out = "{\"name\":\"if-" + std::to_string(i) + "\",\"mtu\":" + std::to_string(mtu(rng)) +
                    ",\"enabled\":" + (i % 2 ? "true" : "false") + ",\"mode\":\"" +
                    (i % 3 == 0 ? "auto" : i % 3 == 1 ? "manual" : "off") + "\",\"weight\":0." +
                    std::to_string(octet(rng)) + ",\"addresses\":[";
  for (int a = 0; a < 4; ++a) {
    out += (a ? ",\"" : "\"") + std::to_string(a + 1) + "." + std::to_string(octet(rng)) + "." +
           std::to_string(octet(rng)) + "." + std::to_string(i % 250) + "\"";
  }
  out += "],\"options\":{\"description\":\"uplink number " + std::to_string(i) +
         "\",\"vlan\":\"" + std::to_string(octet(rng)) + "\"},\"link\":";
  out += i % 2 ? "{\"kind\":\"static\",\"gateway\":\"10.0.0.1\"}"
               : "{\"kind\":\"dhcp\",\"lease\":" + std::to_string(lease(rng)) + "}";
  return out + "}";
}

std::string DocumentText() {
  std::mt19937 rng(42);
  const size_t perKey = kTargetBytes / (kComponents * kGroups * kKeys) ;
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
          out += (n ? "," : "") + Instance(rng, serial++);
        }
        out += "]";
      }
      out += "}";
    }
    out += "}";
  }
  return out + "}}";
}

struct Fixture {
  std::string text = DocumentText();
  rapidjson::Document schema;
  rapidjson::Document doc;
  double parseSeconds = 0;

  Fixture() {
    schema.Parse(SchemaText().c_str());
    doc.Parse(text.c_str());
    if (schema.HasParseError() || doc.HasParseError()) std::abort();
    const int rounds = 5;
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
      rapidjson::Document d;
      d.Parse(text.c_str());
      benchmark::DoNotOptimize(d.IsObject());
    }
    parseSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / rounds;
  }
};

Fixture& Data() {
  static Fixture fixture;
  return fixture;
}

void BM_RapidJsonParse(benchmark::State& state) {
  Fixture& f = Data();
  for (auto _ : state) {
    rapidjson::Document d;
    d.Parse(f.text.c_str());
    benchmark::DoNotOptimize(d.IsObject());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.text.size()));
}
BENCHMARK(BM_RapidJsonParse)->Unit(benchmark::kMillisecond);

void BM_ValidateDocument(benchmark::State& state) {
  Fixture& f = Data();
  size_t errorCount = 0;
  double seconds = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    rapidjson::Document errors;
    JsonValidator::ValidateCMDocument(f.schema, f.doc, errors, {0, 11, 1, 3, 7, 8}, "");
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    errorCount = errors.Size();
  }
  if (errorCount != 0) state.SkipWithError("the generated document should be valid");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.text.size()));
  state.counters["x_parse"] = seconds / static_cast<double>(state.iterations()) / f.parseSeconds;
  state.counters["doc_MB"] = static_cast<double>(f.text.size()) / (1 << 20);
}
BENCHMARK(BM_ValidateDocument)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// Document library throughput on a ~4 MB configuration document, next to
// RapidJSON's parse of the same text (the floor of any DOM-based work).
// BM_IsEqualValue compares the document with a copy whose instances and
// members are in reverse order (every instance array has to be paired, not
// walked in step); BM_NormalizeValue writes the normal form. Both report
// bytes/s of the text and their time as a multiple of the parse time
// measured in the same run ("x_parse").
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "ConfigStoreDocument.h"

namespace {

constexpr int kComponents = 6;
constexpr int kGroups = 4;
constexpr int kKeys = 4;
constexpr int kInstancesPerKey = 120;

// A non-singleton key: natural identifiers, a nested value-matched array of
// objects, an array of scalars and a nested object.
const char* kKeySchema = R"({"type": "array", "instanceId": "name", "items": {"type": "object",
  "properties": {"name": {"type": "string"}, "mtu": {"type": "integer"}, "enabled": {"type": "boolean"},
    "weight": {"type": "number"}, "tags": {"type": "array", "items": {"type": "string"}},
    "routes": {"type": "array", "instanceId": "cs_generated_id", "items": {"type": "object",
      "properties": {"to": {"type": "string"}, "via": {"type": "string"}, "metric": {"type": "integer"}}}},
    "options": {"type": "object", "properties": {"description": {"type": "string"}, "vlan": {"type": "integer"}}}}}})";

std::string Name(const char* stem, int i) { return std::string(stem) + std::to_string(i); }

// {"type": "object", "properties": {members}}
std::string ObjectNode(const std::string& members) {
  return R"({"type":"object","properties":{)" + members + "}}";
}

// "<stem>0": value, "<stem>1": value, ...
std::string Members(const char* stem, int count, const std::string& value) {
  std::string out;
  for (int i = 0; i < count; ++i) out += (i ? ",\"" : "\"") + Name(stem, i) + "\":" + value;
  return out;
}

// The generated schema document of the whole document.
std::string SchemaText() {
  const std::string group = ObjectNode(Members("key", kKeys, kKeySchema));
  const std::string component = ObjectNode(Members("group", kGroups, group));
  return ObjectNode("\"profile\":" + ObjectNode(Members("comp", kComponents, component)));
}

// One instance as a list of "member":value texts, so the copy can reverse it.
std::vector<std::string> Instance(std::mt19937& rng, int i) {
  std::uniform_int_distribution<int> small(0, 255), mtu(68, 9000);
  std::vector<std::string> m;
  m.push_back("\"name\":\"if-" + std::to_string(i) + "\"");
  m.push_back("\"mtu\":" + std::to_string(mtu(rng)));
  m.push_back(std::string("\"enabled\":") + (i % 2 ? "true" : "false"));
  m.push_back("\"weight\":0." + std::to_string(small(rng)));
  m.push_back("\"tags\":[\"t" + std::to_string(small(rng)) + "\",\"t" + std::to_string(small(rng)) + "\",\"uplink\"]");
  std::string routes = "\"routes\":[";
  for (int r = 0; r < 4; ++r) {
    routes += (r ? "," : "") + std::string("{\"to\":\"10.") + std::to_string(r) + "." + std::to_string(small(rng)) +
              ".0/24\",\"via\":\"10.0.0." + std::to_string(small(rng)) + "\",\"metric\":" + std::to_string(r) + "}";
  }
  m.push_back(routes + "]");
  m.push_back("\"options\":{\"description\":\"uplink number " + std::to_string(i) + "\",\"vlan\":" +
              std::to_string(small(rng)) + "}");
  return m;
}

// The document, and the same document with every instance array and every
// instance's members in reverse order.
void DocumentTexts(std::string& text, std::string& reversed) {
  std::mt19937 rng(42);
  text = reversed = "{\"profile\":{";
  int serial = 0;
  for (int c = 0; c < kComponents; ++c) {
    const std::string comp = (c ? "," : "") + ("\"" + Name("comp", c) + "\":{");
    text += comp;
    reversed += comp;
    for (int g = 0; g < kGroups; ++g) {
      const std::string group = (g ? "," : "") + ("\"" + Name("group", g) + "\":{");
      text += group;
      reversed += group;
      for (int k = 0; k < kKeys; ++k) {
        const std::string key = (k ? "," : "") + ("\"" + Name("key", k) + "\":[");
        std::vector<std::string> forward, backward;
        for (int n = 0; n < kInstancesPerKey; ++n) {
          std::vector<std::string> members = Instance(rng, serial++);
          std::string f = "{", b = "{";
          for (size_t i = 0; i < members.size(); ++i) {
            f += (i ? "," : "") + members[i];
            b += (i ? "," : "") + members[members.size() - 1 - i];
          }
          forward.push_back(f + "}");
          backward.push_back(b + "}");
        }
        text += key;
        reversed += key;
        for (int n = 0; n < kInstancesPerKey; ++n) {
          text += (n ? "," : "") + forward[n];
          reversed += (n ? "," : "") + backward[kInstancesPerKey - 1 - n];
        }
        text += "]";
        reversed += "]";
      }
      text += "}";
      reversed += "}";
    }
    text += "}";
    reversed += "}";
  }
  text += "}}";
  reversed += "}}";
}

// Wall-clock seconds of one call of `f` (the machine is shared: wall time is
// what the ratio to the parse compares, both taken in this run).
template <class F>
double Seconds(F&& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void ParseText(const std::string& text) {
  rapidjson::Document d;
  d.Parse(text.c_str());
  benchmark::DoNotOptimize(d.IsObject());
}

struct Fixture {
  std::string text, reversedText;
  rapidjson::Document schema, doc, reversed;
  double parseSeconds = 0;

  Fixture() {
    DocumentTexts(text, reversedText);
    schema.Parse(SchemaText().c_str());
    doc.Parse(text.c_str());
    reversed.Parse(reversedText.c_str());
    if (schema.HasParseError() || doc.HasParseError() || reversed.HasParseError() ||
        !ConfigStoreDocument::IsEqualValue(doc, reversed, schema)) {
      std::abort();
    }
    constexpr int kRounds = 5;
    parseSeconds = Seconds([this] { for (int i = 0; i < kRounds; ++i) ParseText(text); }) / kRounds;
  }
};

Fixture& Data() {
  static Fixture fixture;
  return fixture;
}

template <class F>
void Measure(benchmark::State& state, F&& work) {
  Fixture& f = Data();
  double seconds = 0;
  for (auto _ : state) seconds += Seconds([&] { work(f); });
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.text.size()));
  state.counters["x_parse"] = seconds / static_cast<double>(state.iterations()) / f.parseSeconds;
  state.counters["doc_MB"] = static_cast<double>(f.text.size()) / (1 << 20);
}

void BM_RapidJsonParse(benchmark::State& state) {
  Measure(state, [](Fixture& f) { ParseText(f.text); });
}
BENCHMARK(BM_RapidJsonParse)->Unit(benchmark::kMillisecond);

void BM_IsEqualValue(benchmark::State& state) {
  Measure(state, [](Fixture& f) {
    benchmark::DoNotOptimize(ConfigStoreDocument::IsEqualValue(f.doc, f.reversed, f.schema));
  });
}
BENCHMARK(BM_IsEqualValue)->Unit(benchmark::kMillisecond);

void BM_NormalizeValue(benchmark::State& state) {
  Measure(state, [](Fixture& f) { benchmark::DoNotOptimize(ConfigStoreDocument::NormalizeValue(f.doc).size()); });
}
BENCHMARK(BM_NormalizeValue)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// The second half's entry points on the drift benchmark's documents at 1k and
// 10k keys, each paired with ComputeDrift (compliance handler, host document
// supplied) on the same documents (support/paired.h), printed after the table
// as entry point / ComputeDrift (reported; no goal):
//   impact        Impact of the desired document with 1% drift: extracts the
//                 host's configuration from the store, walks, no impact plugin
//   apply         CheckApply then Apply of that document: two extractions and
//                 walks (check and re-check), task generation and one C++
//                 apply plugin given the drifted keys
//   export        ExportDocumentTelemetry of the host's configuration (store,
//                 an allowlist naming every key), against ComputeDrift of that
//                 configuration against itself
//   boot apply    ExecuteBootPlugins with the drifted keys staged in the
//                 store: the desired and the current configuration
//                 extracted, the walk, the boot-capable apply plugin, the
//                 boot record stored
//   set           the host API's change of one drifted key (ValidateInputSet,
//                 GenerateSetDocuments, CheckImpact, SetConfig through the
//                 apply plugin): how a one-key change compares with a walk of
//                 the whole host at that size
// The store holds the host document (0% drift) as current values, and the
// drifted keys' values staged as desired; the host root has the sample
// host's runners and manifest schemas, the drift benchmark's key schemas and
// the benchmark's own boot-capable apply plugin (plugins/benchlines.cpp)
// serving the drifted keys.
#include <benchmark/benchmark.h>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "HostRoot.h"
#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "configmanager/apply.h"
#include "configmanager/boot.h"
#include "configmanager/extract.h"
#include "configmanager/hostapi.h"
#include "configmanager/impact.h"
#include "drift_documents.h"
#include "paired.h"

using namespace QenConfigManager;

namespace {

std::string g_root;

struct Case {
  std::string hostText;
  rapidjson::Document desired;  // 1% drift
  rapidjson::Document same;     // the host document itself
  std::shared_ptr<QenConfigStore::JsonDoc> host;
};
std::map<int, Case> g_cases;  // by key count
int g_loaded = 0;             // the key count the store and host root hold
bool g_staged = false;        // whether the store holds the drifted keys as desired

void Parse(const std::string& text, rapidjson::Document& doc) {
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) std::abort();
}

void Put(const std::string& logical, const std::string& text) {
  boost::filesystem::path p(g_root + logical);
  boost::filesystem::create_directories(p.parent_path());
  std::ofstream(p.string(), std::ios::binary | std::ios::trunc) << text;
}

std::string KeyName(int i, char separator) {
  return "comp" + std::to_string(i % 10) + separator + "grp" + std::to_string(i / 100) + separator + "key" +
         std::to_string((i / 10) % 10);
}

// The store's current values (and with `staged` the drifted keys' values as
// desired), the telemetry allowlist and the apply plugin's manifest for
// `keys` keys (outside the timed part); the documents of that size.
Case& UseKeys(int keys, bool staged) {
  Case& c = g_cases.at(keys);
  if (g_loaded == keys && g_staged == staged) return c;
  rapidjson::Document description(rapidjson::kObjectType);
  auto& a = description.GetAllocator();
  rapidjson::Value current;
  current.CopyFrom(c.host->GetDocument(), a);
  // The drifted keys (one in a hundred, all singletons) staged as desired.
  rapidjson::Value stagedValues(rapidjson::kObjectType);
  for (auto& component : c.desired.GetObject()) {
    for (auto& group : component.value.GetObject()) {
      for (auto& key : group.value.GetObject()) {
        const rapidjson::Value& was = c.host->GetDocument()[component.name][group.name][key.name];
        if (key.value == was) continue;
        if (!stagedValues.HasMember(component.name))
          stagedValues.AddMember(rapidjson::Value(component.name, a), rapidjson::Value(rapidjson::kObjectType), a);
        rapidjson::Value& groups = stagedValues[component.name];
        if (!groups.HasMember(group.name))
          groups.AddMember(rapidjson::Value(group.name, a), rapidjson::Value(rapidjson::kObjectType), a);
        groups[group.name].AddMember(rapidjson::Value(key.name, a), rapidjson::Value(key.value, a), a);
      }
    }
  }
  rapidjson::Value host(rapidjson::kObjectType);
  host.AddMember("current", current, a);
  if (staged) host.AddMember("desired", stagedValues, a);
  description.AddMember("host", host, a);
  QenConfigStore::LoadStoreDescription(description);

  std::string allow, accepts;
  for (int i = 0; i < keys; ++i) {
    allow += (i ? ", \"" : "\"") + KeyName(i, '.') + "\"";
    // The drift benchmark changes key i when i % 100 == 50.
    if (i % 100 == 50) accepts += std::string(accepts.empty() ? "\"" : ", \"") + KeyName(i, ':') + "\"";
  }
  Put("/usr/lib/corvane/configmanager/telemetry/bench.json", "[" + allow + "]");
  Put("/usr/lib/corvane/configmanager/apply_modules/benchlines/manifest.json",
      R"({"version": 3, "type": "c++", "accepts": [)" + accepts + R"(],
          "apply": {"apply_group": "system", "boot": true, "REMEDIATE": {"provides": "lines", "depends": []}}})");
  g_loaded = keys;
  g_staged = staged;
  return c;
}

void Compliance(rapidjson::Document& desired, const std::shared_ptr<QenConfigStore::JsonDoc>& host) {
  ComplianceResult result;
  CheckComplianceHandler handler(&result);
  handler.checkDefaultUserConfig = false;
  handler.currentDocument = host;
  ComputeDrift(desired, desired.GetAllocator(), handler);
}

// `subject` paired with ComputeDrift of `desired` against the case's host.
template <typename Subject>
void VersusDrift(benchmark::State& state, Case& c, rapidjson::Document& desired, Subject subject) {
  QenBench::Paired(state, subject, [&] { Compliance(desired, c.host); });
}

void BM_Impact(benchmark::State& state) {
  Case& c = UseKeys(static_cast<int>(state.range(0)), false);
  VersusDrift(state, c, c.desired, [&] {
    ImpactResult result = Impact(c.desired, "", TaskHandle::Dummy());
    return result.errorInfo.msgId.empty() && !result.compliant;
  });
}

void BM_CheckApplyApply(benchmark::State& state) {
  const int keys = static_cast<int>(state.range(0));
  Case& c = UseKeys(keys, false);
  VersusDrift(state, c, c.desired, [&] {
    std::shared_ptr<CheckApplyResult> check = CheckApply(c.desired, "", TaskHandle::Dummy());
    if (!check) return false;
    ApplyResult result = Apply(check, TaskHandle::Dummy());
    return result.errorInfo.msgId.empty() && result.tasks.size() == 1 && result.tasks[0].state == APPLY_TASK_DONE &&
           result.tasks[0].inputs == static_cast<size_t>(keys / 100);
  });
}

void BM_TelemetryExport(benchmark::State& state) {
  Case& c = UseKeys(static_cast<int>(state.range(0)), false);
  VersusDrift(state, c, c.same, [&] { return ExportDocumentTelemetry().size() > c.hostText.size() / 2; });
}

void BM_BootApply(benchmark::State& state) {
  const int keys = static_cast<int>(state.range(0));
  Case& c = UseKeys(keys, true);
  // The plugin writes a line per input: the drifted keys must have reached it.
  const std::string lines = g_root + "/tmp/bench-lines.conf";
  auto applied = [&] {
    std::ifstream in(lines);
    return std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n');
  };
  VersusDrift(state, c, c.desired, [&] {
    boost::filesystem::remove(lines);
    return ExecuteBootPlugins() == 0 && applied() == keys / 100;
  });
}

// Key 50 is the first that the drift changes: comp0/grp0/key5.
void BM_SetOneKey(benchmark::State& state) {
  Case& c = UseKeys(static_cast<int>(state.range(0)), false);
  const std::string valueText = QenPlatform::CompactJson(c.desired["comp0"]["grp0"]["key5"]);
  VersusDrift(state, c, c.desired, [&] {
    rapidjson::Document value, desired, current, relevant;
    std::vector<ValidationErrorInfo> errors;
    if (!ValidateInputSet("comp0", "grp0", "key5", valueText, value, errors)) return false;
    GenerateSetDocuments("comp0", "grp0", "key5", value, desired, current, relevant);
    ImpactResult impact = CheckImpact(desired, current, TaskHandle::Dummy());
    if (!impact.errorInfo.msgId.empty() || impact.impact != NO_IMPACT) return false;
    return SetConfig(desired, current, value, impact, "comp0", "grp0", "key5", TaskHandle::Dummy()).msgId.empty();
  });
}

BENCHMARK(BM_Impact)->Arg(1000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(200);
BENCHMARK(BM_Impact)->Arg(10000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(40);
BENCHMARK(BM_CheckApplyApply)->Arg(1000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(100);
BENCHMARK(BM_CheckApplyApply)->Arg(10000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(20);
BENCHMARK(BM_TelemetryExport)->Arg(1000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(200);
BENCHMARK(BM_TelemetryExport)->Arg(10000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(40);
BENCHMARK(BM_BootApply)->Arg(1000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(100);
BENCHMARK(BM_BootApply)->Arg(10000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(20);
BENCHMARK(BM_SetOneKey)->Arg(1000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(100);
BENCHMARK(BM_SetOneKey)->Arg(10000)->ArgName("keys")->Unit(benchmark::kMicrosecond)->Iterations(100);

const std::vector<QenBench::Goal> kGoals = {{"BM_Impact", "impact/drift", 0},
                                            {"BM_CheckApplyApply", "apply/drift", 0},
                                            {"BM_TelemetryExport", "export/drift", 0},
                                            {"BM_BootApply", "boot apply/drift", 0},
                                            {"BM_SetOneKey", "set/drift", 0}};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/qen-bench-entry-XXXXXX";
  if (!mkdtemp(&tmpl[0])) return 1;
  g_root = tmpl;
  // The runners, manifest schemas and store of the sample host; the
  // benchmark's own keys, plugin and allowlist.
  QenTest::InstallSampleHostInto(g_root);
  for (const char* dir : {"/usr/lib/corvane/configmanager/apply_modules", "/usr/lib/corvane/configmanager/telemetry",
                          "/usr/lib/corvane/configstore/schemas"}) {
    boost::filesystem::remove_all(g_root + dir);
  }
  boost::filesystem::create_directories(g_root + "/usr/lib/corvane/configmanager/apply_modules");
  QenBench::LinkSchemas(g_root);
  QenPlatform::SetHostRoot(g_root);
  if (!QenSchemaStore::SchemaStore::GetStore()) return 1;
  Put("/var/corvane/lifecycle/.keep", "");
  {
    std::ifstream in(QEN_BINARY_DIR "/bench-plugins/libbenchlines.so", std::ios::binary);
    std::ostringstream so;
    so << in.rdbuf();
    Put("/usr/lib/corvane/configmanager/plugins/libbenchlines.so", so.str());
  }
  for (int keys : {1000, 10000}) {
    Case& c = g_cases[keys];
    c.hostText = QenBench::KeysDocument(keys, false);
    Parse(QenBench::KeysDocument(keys, true), c.desired);
    Parse(c.hostText, c.same);
    c.host = std::make_shared<QenConfigStore::JsonDoc>();
    Parse(c.hostText, c.host->GetDocument());
  }

  QenBench::RunPaired(kGoals);
  g_cases.clear();
  boost::system::error_code ec;
  boost::filesystem::remove_all(g_root, ec);
  return 0;
}

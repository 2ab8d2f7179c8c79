// Impact and apply benchmarks. Every ratio is paired (subject and baseline
// alternate within each iteration, see support/paired.h) and printed after
// the table:
//   impact/compliance   Impact (no impact plugins) over ComputeDrift with the
//                       compliance handler, on the drift benchmark's 10k-key
//                       document with 0% and 1% drift, host document supplied
//                                                                 goal <= 1.3
//   tasks/compliance    GenerateApplyTasks over the same baseline goal <= 1.3
//   apply 100/1         ExecuteApplyTasks of 100 inputs through one C++ apply
//                       plugin (one runner process) over one input goal <= 1.2
#include <benchmark/benchmark.h>

#include <boost/filesystem.hpp>

#include <fstream>
#include <sstream>

#include "HostRoot.h"
#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "apply/apply_runner.h"
#include "configmanager/impact.h"
#include "drift_documents.h"
#include "paired.h"

using namespace QenConfigManager;

namespace {

constexpr int kKeys = 10000;
std::string g_root;

struct Case {
  rapidjson::Document desired;
  std::shared_ptr<QenConfigStore::JsonDoc> host;
};
std::map<int, Case> g_cases;  // by drift percent

void Parse(const std::string& text, rapidjson::Document& doc) {
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) std::abort();
}

void Compliance(Case& c) {
  ComplianceResult result;
  CheckComplianceHandler handler(&result);
  handler.checkDefaultUserConfig = false;
  handler.currentDocument = c.host;
  ComputeDrift(c.desired, c.desired.GetAllocator(), handler);
}

void BM_ImpactVsCompliance(benchmark::State& state) {
  Case& c = g_cases.at(static_cast<int>(state.range(0)));
  QenBench::Paired(
      state,
      [&] {
        ImpactHandler handler;
        handler.currentDocument = c.host;
        return ImpactWithCustomHandler(c.desired, "", handler, TaskHandle::Dummy()).errorInfo.msgId.empty();
      },
      [&] { Compliance(c); });
}

void BM_TasksVsCompliance(benchmark::State& state) {
  Case& c = g_cases.at(static_cast<int>(state.range(0)));
  QenBench::Paired(
      state,
      [&] {
        benchmark::DoNotOptimize(GenerateApplyTasks(c.desired, c.host).size());
        return true;
      },
      [&] { Compliance(c); });
}

void Put(const std::string& logical, const std::string& text) {
  boost::filesystem::path p(g_root + logical);
  boost::filesystem::create_directories(p.parent_path());
  std::ofstream(p.string(), std::ios::binary | std::ios::trunc) << text;
}

// Installed when the apply benchmark starts, so that the impact benchmarks
// run with no plugin at all.
void InstallApplyPlugin() {
  std::ifstream in(QEN_BINARY_DIR "/bench-plugins/libbenchlines.so", std::ios::binary);
  std::ostringstream so;
  so << in.rdbuf();
  Put("/usr/lib/corvane/configmanager/plugins/libbenchlines.so", so.str());
  Put("/usr/lib/corvane/configmanager/apply_modules/benchlines/manifest.json",
      R"({"version": 3, "type": "c++", "accepts": ["bench:inst:nat"],
          "apply": {"apply_group": "system", "boot": false, "REMEDIATE": {"provides": "lines", "depends": []}}})");
}

DesiredConfigInputList Inputs(int n) {
  DesiredConfigInputList inputs;
  for (int i = 0; i < n; ++i) {
    DesiredConfigInput input;
    const std::string name = "i" + std::to_string(i);
    input.object = QenConfigStore::CreateObject(QenConfigStore::ConfigStoreObjectId("nat", "inst", "bench", name),
                                                R"({"name": ")" + name + R"(", "v": )" + std::to_string(i) +
                                                    R"(, "tags": ["a", "b"]})");
    input.operation = "ADD";
    inputs.push_back(std::move(input));
  }
  return inputs;
}

void BM_Apply100VsApply1(benchmark::State& state) {
  InstallApplyPlugin();
  const DesiredConfigInputList many = Inputs(100), one = Inputs(1);
  auto apply = [](const DesiredConfigInputList& inputs) {
    return ExecuteApplyTasks(inputs, "", TaskHandle::Dummy(), false).msgId.empty();
  };
  QenBench::Paired(state, [&] { return apply(many); }, [&] { apply(one); });
}

BENCHMARK(BM_ImpactVsCompliance)->Arg(0)->Arg(1)->ArgName("drift")->Unit(benchmark::kMicrosecond)->Iterations(400);
BENCHMARK(BM_TasksVsCompliance)->Arg(0)->Arg(1)->ArgName("drift")->Unit(benchmark::kMicrosecond)->Iterations(400);
BENCHMARK(BM_Apply100VsApply1)->Unit(benchmark::kMicrosecond)->Iterations(200);

const std::vector<QenBench::Goal> kGoals = {{"BM_ImpactVsCompliance", "impact/compliance", 1.3},
                                            {"BM_TasksVsCompliance", "tasks/compliance", 1.3},
                                            {"BM_Apply100VsApply1", "apply 100/1", 1.2}};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  char tmpl[] = "/tmp/qen-bench-apply-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  g_root = tmpl;
  // The runners and manifest schemas of the sample host, none of its plugins
  // or key schemas: the benchmark's own keys.
  QenTest::InstallSampleHostInto(g_root);
  boost::filesystem::remove_all(g_root + "/usr/lib/corvane/configmanager/apply_modules");
  boost::filesystem::create_directories(g_root + "/usr/lib/corvane/configmanager/apply_modules");
  boost::filesystem::remove_all(g_root + "/usr/lib/corvane/configstore/schemas");
  QenBench::LinkSchemas(g_root);
  QenPlatform::SetHostRoot(g_root);
  if (!QenSchemaStore::SchemaStore::GetStore()) return 1;
  Put("/var/corvane/lifecycle/.keep", "");

  const std::string host = QenBench::KeysDocument(kKeys, false);
  for (int drift : {0, 1}) {
    Case& c = g_cases[drift];
    Parse(drift ? QenBench::KeysDocument(kKeys, true) : host, c.desired);
    c.host = std::make_shared<QenConfigStore::JsonDoc>();
    Parse(host, c.host->GetDocument());
  }

  QenBench::RunPaired(kGoals);
  g_cases.clear();
  boost::system::error_code ec;
  boost::filesystem::remove_all(g_root, ec);
  return 0;
}

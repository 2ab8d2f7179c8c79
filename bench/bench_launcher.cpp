// Plugin round-trip benchmarks. Every ratio is taken between figures of the
// same run and printed after the table:
//   cpp/spawn     Plugin::Apply of a C++ plugin (request file, runner,
//                 dlopen, result file, clean-up) over posix_spawn+waitpid of
//                 /bin/true                               goal <= 2.0 (aim 1.5)
//   big/small     the same round trip from a caller holding 1 GiB of touched
//                 memory over one holding little         goal <= 1.1
//   python/json   Plugin::Apply of a Python plugin over the interpreter with
//                 the runner's flags running "import json"  goal <= 1.15
//   python/pass   the same over the interpreter running "pass" (reported)
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>

#include <boost/filesystem.hpp>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "HostRoot.h"
#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "configmanager/plugin.h"

using namespace QenConfigManager;

namespace {

std::string g_root;
std::shared_ptr<Plugin> g_cpp;
std::shared_ptr<Plugin> g_python;
DesiredConfigInputList g_inputs;

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void Put(const std::string& logical, const std::string& text) {
  boost::filesystem::path p(g_root + logical);
  boost::filesystem::create_directories(p.parent_path());
  std::ofstream(p.string(), std::ios::binary | std::ios::trunc) << text;
}

std::shared_ptr<Plugin> Install(const std::string& dir, const std::string& type) {
  const std::string manifest = "/usr/lib/corvane/configmanager/apply_modules/" + dir + "/manifest.json";
  Put(manifest, R"({"version": 3, "type": ")" + type + R"(", "accepts": ["network:dns:resolver"],
    "apply": {"apply_group": "network", "boot": false, "REMEDIATE": {"provides": "x", "depends": []}}})");
  return std::make_shared<Plugin>(manifest.c_str());
}

void SetUpHost() {
  char tmpl[] = "/tmp/qen-bench-launcher-XXXXXX";
  g_root = mkdtemp(tmpl);
  QenTest::InstallSampleHostInto(g_root);
  QenPlatform::SetHostRoot(g_root);
  Put("/usr/lib/corvane/configmanager/apply_modules/fault/plugin.py",
      Slurp(QEN_SOURCE_DIR "/tests/plugins-fixtures/python/plugin.py"));
  Put("/usr/lib/corvane/configmanager/plugins/libcfault.so", Slurp(QEN_BINARY_DIR "/test-plugins/libfault.so"));
  Put("/var/corvane/lifecycle/.keep", "");
  g_cpp = Install("cfault", "c++");
  g_python = Install("fault", "python");
  DesiredConfigInput input;
  input.object = QenConfigStore::CreateObject(QenConfigStore::ConfigStoreObjectId("resolver", "dns", "network"),
                                              R"({"servers":["192.0.2.1"],"search":["example.com"]})");
  input.operation = "SET";
  g_inputs = {input};
}

void RoundTrip(benchmark::State& state, const Plugin& plugin) {
  for (auto _ : state) {
    ErrorInfo error = plugin.Apply(g_inputs, "ok", PluginMonitor::Dummy());
    if (!error.msgId.empty()) {
      state.SkipWithError(error.msgId.c_str());
      break;
    }
  }
}

// posix_spawn + waitpid with an empty environment, as the launcher spawns.
void SpawnAndWait(benchmark::State& state, std::vector<std::string> argv) {
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(&a[0]);
  args.push_back(nullptr);
  char* env[] = {nullptr};
  for (auto _ : state) {
    pid_t pid;
    if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), env) != 0) {
      state.SkipWithError("spawn failed");
      break;
    }
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
}

void BM_SpawnTrue(benchmark::State& state) { SpawnAndWait(state, {"/bin/true"}); }
void BM_CppPlugin(benchmark::State& state) { RoundTrip(state, *g_cpp); }

void BM_CppPluginBigCaller(benchmark::State& state) {
  // 1 GiB, every page touched, so the caller's page tables are that large.
  const size_t size = size_t(1) << 30;
  std::unique_ptr<char[]> big(new char[size]);
  std::memset(big.get(), 1, size);
  benchmark::DoNotOptimize(big.get());
  RoundTrip(state, *g_cpp);
}

void BM_PythonPlugin(benchmark::State& state) { RoundTrip(state, *g_python); }
void BM_PythonImportJson(benchmark::State& state) {
  SpawnAndWait(state, {"/usr/bin/python3", "-IS", "-c", "import json"});
}
void BM_PythonPass(benchmark::State& state) { SpawnAndWait(state, {"/usr/bin/python3", "-IS", "-c", "pass"}); }

BENCHMARK(BM_SpawnTrue)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_CppPlugin)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_CppPluginBigCaller)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_PythonPlugin)->Unit(benchmark::kMicrosecond)->MinTime(3.0);
BENCHMARK(BM_PythonImportJson)->Unit(benchmark::kMicrosecond)->MinTime(3.0);
BENCHMARK(BM_PythonPass)->Unit(benchmark::kMicrosecond)->MinTime(3.0);

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        times[run.benchmark_name()] = run.GetAdjustedRealTime();
      }
    }
  }
  std::map<std::string, double> times;
};

void PrintRatio(const RatioReporter& r, const char* label, const char* num, const char* den, double goal) {
  auto n = r.times.find(num), d = r.times.find(den);
  if (n == r.times.end() || d == r.times.end() || d->second <= 0) return;
  double ratio = n->second / d->second;
  if (goal > 0) {
    std::printf("%-13s %8.1f us / %8.1f us = %5.2fx  (goal <= %.2fx) %s\n", label, n->second, d->second, ratio,
                goal, ratio <= goal ? "ok" : "MISSED");
  } else {
    std::printf("%-13s %8.1f us / %8.1f us = %5.2fx\n", label, n->second, d->second, ratio);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  SetUpHost();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  PrintRatio(reporter, "cpp/spawn", "BM_CppPlugin/min_time:2.000", "BM_SpawnTrue/min_time:2.000", 2.0);
  PrintRatio(reporter, "big/small", "BM_CppPluginBigCaller/min_time:2.000", "BM_CppPlugin/min_time:2.000", 1.1);
  PrintRatio(reporter, "python/json", "BM_PythonPlugin/min_time:3.000", "BM_PythonImportJson/min_time:3.000", 1.15);
  PrintRatio(reporter, "python/pass", "BM_PythonPlugin/min_time:3.000", "BM_PythonPass/min_time:3.000", 0);
  g_cpp.reset();
  g_python.reset();
  boost::system::error_code ec;
  boost::filesystem::remove_all(g_root, ec);
  return 0;
}

// Drift engine benchmarks. Every ratio is taken between CPU times of the
// same run (the build machine is shared, so wall time is noisy) and printed
// after the table:
//   walk/parse      ComputeDrift (no-op handler, host document supplied) over
//                   the RapidJSON parse of the same two documents
//   linear          walk at 10k instances / (100 x walk at 100 instances)
//   drift cost      walk with 1% drift / walk with none
//   memory          peak extra memory of the compliance walk on the 100k-key
//                   document / memory of the two parsed documents
#include <benchmark/benchmark.h>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "HostRoot.h"
#include "QenConfigStore.h"
#include "QenSchemaStore.h"
#include "configmanager/drift.h"
#include "drift_documents.h"
#include "paired.h"

using namespace QenConfigManager;
using namespace QenBench;

namespace {

std::string g_root;

class NoopHandler : public DriftHandler {};

struct Case {
  std::string desired, host;
};

std::map<std::string, Case>& Cases() {
  static std::map<std::string, Case> cases;
  return cases;
}

void Parse(const std::string& text, rapidjson::Document& doc) {
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) std::abort();
}

void BM_Parse(benchmark::State& state, const std::string& name) {
  const Case& c = Cases()[name];
  for (auto _ : state) {
    rapidjson::Document desired, host;
    Parse(c.desired, desired);
    Parse(c.host, host);
    benchmark::DoNotOptimize(host.MemberCount());
  }
}

void BM_ComputeDrift(benchmark::State& state, const std::string& name) {
  const Case& c = Cases()[name];
  rapidjson::Document desired;
  Parse(c.desired, desired);
  auto host = std::make_shared<QenConfigStore::JsonDoc>();
  Parse(c.host, host->GetDocument());
  NoopHandler handler;
  for (auto _ : state) {
    handler.currentDocument = host;
    ComputeDrift(desired, desired.GetAllocator(), handler);
  }
}

// Both passes of the walk alone (no schema store or connection set-up).
void BM_Walk(benchmark::State& state, const std::string& name) {
  const Case& c = Cases()[name];
  rapidjson::Document desired, host;
  Parse(c.desired, desired);
  Parse(c.host, host);
  auto store = QenSchemaStore::SchemaStore::GetStore();
  auto connection = QenConfigStore::GetDBStore(0, true);
  NoopHandler handler;
  for (auto _ : state) {
    computeComponents(desired, host, desired.GetAllocator(), store, handler, connection, false);
    computeComponents(host, desired, desired.GetAllocator(), store, handler, connection, true);
  }
}

long RssKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.compare(0, std::strlen(field), field) == 0) return std::atol(line.c_str() + std::strlen(field));
  return -1;
}

// Runs in a child process forked before the parent loads anything, so that
// the high-water mark belongs to this measurement alone, no freed heap hides
// new pages, and the parent's pages are not left write-protected by the fork
// (the first write to each would fault inside a timed run).
// Returns peak extra / parsed documents, or -1.
double MemoryRatio(int keys, long* docsKb, long* extraKb) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    QenSchemaStore::SchemaStore::GetStore();
    const Case c{KeysDocument(keys, true), KeysDocument(keys, false)};
    rapidjson::Document desired;
    auto host = std::make_shared<QenConfigStore::JsonDoc>();
    Parse(c.desired, desired);
    Parse(c.host, host->GetDocument());
    // The documents' pools plus the parse stacks' share are what they hold.
    const long documents =
        static_cast<long>((desired.GetAllocator().Capacity() + host->GetAllocator().Capacity()) / 1024);
    const long parsed = RssKb("VmRSS:");
    std::ofstream("/proc/self/clear_refs") << "5";  // resets VmHWM
    ComplianceResult result;
    CheckComplianceHandler handler(&result);
    handler.checkDefaultUserConfig = false;
    handler.currentDocument = host;
    host.reset();
    ComputeDrift(desired, desired.GetAllocator(), handler);
    long figures[2] = {documents, RssKb("VmHWM:") - parsed};
    if (write(fds[1], figures, sizeof figures) != sizeof figures) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  long figures[2] = {0, 0};
  const bool ok = read(fds[0], figures, sizeof figures) == sizeof figures;
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!ok || figures[0] <= 0) return -1;
  *docsKb = figures[0];
  *extraKb = figures[1];
  return static_cast<double>(figures[1]) / figures[0];
}

// Keeps every measured run's CPU time per iteration for the ratios: with
// --benchmark_repetitions each repetition is one run, and a benchmark's time
// is their mean. Aggregate rows (mean, median, stddev, cv) are the console's
// only; keyed by name they would overwrite the measured runs.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      // Keyed by the benchmark's own name, without "/min_warmup_time:...",
      // "/repeats:..." and the like.
      std::string name = run.run_name.function_name;
      if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
      times[name].push_back(run.GetAdjustedCPUTime());
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double Time(const std::string& name) const {
    auto it = times.find(name);
    if (it == times.end() || it->second.empty()) return 0;
    double sum = 0;
    for (double t : it->second) sum += t;
    return sum / static_cast<double>(it->second.size());
  }
  std::map<std::string, std::vector<double>> times;
};

constexpr double kWarmUp = 0.05;  // seconds

void Register(const std::string& name, const std::string& desired, const std::string& host) {
  Cases()[name] = {desired, host};
  // A warm-up run first: the 100k cases fit one or two timed iterations, and
  // the first pass over fresh documents pays page faults that are not the
  // subject's cost.
  benchmark::RegisterBenchmark(("Parse/" + name).c_str(), BM_Parse, name)
      ->Unit(benchmark::kMicrosecond)
      ->MinWarmUpTime(kWarmUp);
  benchmark::RegisterBenchmark(("ComputeDrift/" + name).c_str(), BM_ComputeDrift, name)
      ->Unit(benchmark::kMicrosecond)
      ->MinWarmUpTime(kWarmUp);
  benchmark::RegisterBenchmark(("Walk/" + name).c_str(), BM_Walk, name)
      ->Unit(benchmark::kMicrosecond)
      ->MinWarmUpTime(kWarmUp);
}

}  // namespace

int main(int argc, char** argv) {
  char tmpl[] = "/tmp/qen-bench-drift-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  g_root = tmpl;
  QenPlatform::SetHostRoot(g_root);
  LinkSchemas(g_root);
  long docsKb = 0, extraKb = 0;
  const int memoryKeys = kKeyCounts[2];
  const double memory = MemoryRatio(memoryKeys, &docsKb, &extraKb);
  if (!QenSchemaStore::SchemaStore::GetStore()) return 1;

  for (int keys : kKeyCounts) {
    const std::string host = KeysDocument(keys, false);
    for (int drift : {0, 1})
      Register("keys:" + std::to_string(keys) + "/drift:" + std::to_string(drift),
               drift ? KeysDocument(keys, true) : host, host);
  }
  for (const char* key : {"nat", "gen"}) {
    for (int n : kInstanceCounts) {
      const std::string host = InstancesDocument(key, n, false);
      for (int drift : {0, 1})
        Register(std::string(key) + ":" + std::to_string(n) + "/drift:" + std::to_string(drift),
                 drift ? InstancesDocument(key, n, true) : host, host);
    }
  }

  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  // With repetitions, the i-th run of either side also gives a ratio of its
  // own; their median and range follow the ratio of the means (run with
  // --benchmark_enable_random_interleaving so that the paired runs are close
  // in time).
  auto ratio = [&](const char* label, const std::string& a, const std::string& b, double scale,
                   double goal) {
    const double ta = reporter.Time(a), tb = reporter.Time(b);
    if (ta <= 0 || tb <= 0) return;
    std::printf("%-58s %6.3f  (goal <= %.2f)", label, ta / (scale * tb), goal);
    const std::vector<double>& as = reporter.times[a];
    const std::vector<double>& bs = reporter.times[b];
    if (as.size() > 1 && as.size() == bs.size()) {
      std::vector<double> each;
      for (size_t i = 0; i < as.size(); ++i) each.push_back(as[i] / (scale * bs[i]));
      std::printf("  runs %zu: median %.3f (%.3f-%.3f)", each.size(), Median(each),
                  *std::min_element(each.begin(), each.end()), *std::max_element(each.begin(), each.end()));
    }
    std::printf("\n");
  };
  std::printf("\nRatios (same run)\n");
  for (auto& entry : Cases()) {
    const std::string& name = entry.first;
    // The large drifted case has the tighter goal.
    ratio(("ComputeDrift/parse " + name).c_str(), "ComputeDrift/" + name, "Parse/" + name, 1,
          name == "keys:100000/drift:1" ? 0.25 : 0.3);
  }
  for (const char* key : {"nat", "gen"})
    for (int drift : {0, 1}) {
      const std::string suffix = "/drift:" + std::to_string(drift);
      ratio((std::string("linear ") + key + " walk 10k / (100 x walk 100)" + suffix).c_str(),
            std::string("Walk/") + key + ":10000" + suffix, std::string("Walk/") + key + ":100" + suffix,
            100, 1.2);
    }
  for (auto& entry : Cases()) {
    const std::string& name = entry.first;
    const size_t at = name.find("/drift:1");
    if (at == std::string::npos) continue;
    const std::string base = name.substr(0, at);
    ratio(("drift cost walk 1% / 0% " + base).c_str(), "Walk/" + name, "Walk/" + base + "/drift:0",
          1, 1.3);
  }
  if (memory >= 0)
    std::printf("%-58s %6.3f  (goal <= 2.00; documents %ld KiB, peak extra %ld KiB)\n",
                ("memory compliance walk keys:" + std::to_string(memoryKeys) + "/drift:1").c_str(), memory,
                docsKb, extraKb);

  boost::system::error_code ec;
  boost::filesystem::remove_all(g_root, ec);
  return 0;
}

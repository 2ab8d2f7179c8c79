#include "paired.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace QenBench {

double CpuNow() {
  struct rusage self, children;
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_CHILDREN, &children);
  auto sec = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return sec(self.ru_utime) + sec(self.ru_stime) + sec(children.ru_utime) + sec(children.ru_stime);
}

void CallTimes::Report(benchmark::State& state) {
  if (times_.empty()) return;
  std::sort(times_.begin(), times_.end());
  const size_t p99 = (times_.size() * 99 + 99) / 100 - 1;
  state.counters["max_us"] = times_.back() * 1e6;
  state.counters["p99_us"] = times_[std::min(p99, times_.size() - 1)] * 1e6;
  state.counters["calls"] = static_cast<double>(times_.size());
}

void PairedReporter::ReportRuns(const std::vector<Run>& runs) {
  ConsoleReporter::ReportRuns(runs);
  for (const auto& run : runs) {
    if (run.run_type == Run::RT_Iteration && !run.error_occurred) results.push_back(run);
  }
}

void PrintRatios(const PairedReporter& reporter, const std::vector<Goal>& goals) {
  std::printf("\n%-28s %10s %10s %10s %10s %10s %10s  %s\n", "ratio", "subject us", "base us", "wall", "cpu",
              "max us", "p99 us", "goal");
  for (const auto& run : reporter.results) {
    const std::string name = run.benchmark_name();
    for (const Goal& g : goals) {
      if (name.rfind(g.benchmark, 0) != 0) continue;
      // The part after the prefix names the case (e.g. "/keys:10000/drift:1").
      std::string label = g.label + name.substr(std::string(g.benchmark).size());
      const size_t iterations = label.find("/iterations:");
      if (iterations != std::string::npos) label.erase(iterations);
      auto c = [&](const char* counter) {
        auto it = run.counters.find(counter);
        return it == run.counters.end() ? 0.0 : static_cast<double>(it->second);
      };
      const double cpu = c("cpu_ratio");
      std::printf("%-28s %10.0f %10.0f %9.2fx %9.2fx %10.0f %10.0f  ", label.c_str(), c("subject_us"),
                  c("base_us"), c("wall_ratio"), cpu, c("max_us"), c("p99_us"));
      if (g.goal > 0) {
        std::printf("<= %.2fx (cpu %s)\n", g.goal, cpu <= g.goal ? "met" : "missed");
      } else {
        std::printf("reported\n");
      }
    }
  }
}

}  // namespace QenBench

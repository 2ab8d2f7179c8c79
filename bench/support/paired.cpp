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
  state.counters["median_us"] = Median(times_) * 1e6;
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

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

void PrintRatios(const PairedReporter& reporter, const std::vector<Goal>& goals) {
  struct Series {
    const Goal* goal;
    std::vector<double> wall, cpu;
  };
  std::vector<std::pair<std::string, Series>> series;  // by label, in run order
  std::printf("\n%-28s %10s %10s %10s %10s %10s %10s  %s\n", "ratio", "subject us", "base us", "wall", "cpu",
              "max us", "p99 us", "goal");
  for (const auto& run : reporter.results) {
    const std::string name = run.benchmark_name();
    for (const Goal& g : goals) {
      if (name.rfind(g.benchmark, 0) != 0) continue;
      // The part after the prefix names the case (e.g. "/keys:10000/drift:1").
      std::string label = g.label + name.substr(std::string(g.benchmark).size());
      for (const char* suffix : {"/iterations:", "/repeats:"}) {
        const size_t at = label.find(suffix);
        if (at != std::string::npos) label.erase(at);
      }
      auto c = [&](const char* counter) {
        auto it = run.counters.find(counter);
        return it == run.counters.end() ? 0.0 : static_cast<double>(it->second);
      };
      // A speed goal reads the ratio the other way round.
      auto judged = [&](double ratio) { return g.speed ? (ratio > 0 ? 1 / ratio : 0) : ratio; };
      const double wall = judged(c("wall_ratio")), cpu = judged(c("cpu_ratio"));
      std::printf("%-28s %10.0f %10.0f %9.2fx %9.2fx %10.0f %10.0f  ", label.c_str(), c("subject_us"),
                  c("base_us"), wall, cpu, c("max_us"), c("p99_us"));
      if (g.goal > 0) {
        const bool met = g.speed ? cpu >= g.goal : cpu <= g.goal;
        std::printf("%s %.2fx (cpu %s)\n", g.speed ? ">=" : "<=", g.goal, met ? "met" : "missed");
      } else {
        std::printf("reported\n");
      }
      auto it = std::find_if(series.begin(), series.end(), [&](const auto& s) { return s.first == label; });
      if (it == series.end()) it = series.insert(series.end(), {label, Series{&g, {}, {}}});
      it->second.wall.push_back(wall);
      it->second.cpu.push_back(cpu);
    }
  }
  if (std::none_of(series.begin(), series.end(), [](const auto& s) { return s.second.cpu.size() > 1; })) return;
  std::printf("\n%-28s %5s %22s %22s  %s\n", "ratio over runs", "runs", "cpu median (min-max)",
              "wall median (min-max)", "goal");
  for (const auto& [label, s] : series) {
    const double median = Median(s.cpu);
    std::printf("%-28s %5zu %8.2fx (%.2f-%.2f) %8.2fx (%.2f-%.2f)  ", label.c_str(), s.cpu.size(), median,
                *std::min_element(s.cpu.begin(), s.cpu.end()), *std::max_element(s.cpu.begin(), s.cpu.end()),
                Median(s.wall), *std::min_element(s.wall.begin(), s.wall.end()),
                *std::max_element(s.wall.begin(), s.wall.end()));
    const Goal& g = *s.goal;
    if (g.goal > 0) {
      const bool met = g.speed ? median >= g.goal : median <= g.goal;
      std::printf("%s %.2fx (median %s)\n", g.speed ? ">=" : "<=", g.goal, met ? "met" : "missed");
    } else {
      std::printf("reported\n");
    }
  }
}

void RunPaired(const std::vector<Goal>& goals, void (*more)(const PairedReporter&)) {
  PairedReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintRatios(reporter, goals);
  if (more) more(reporter);
}

}  // namespace QenBench

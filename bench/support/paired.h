// Paired measurements: the machine these run on is shared, so a baseline
// measured minutes apart from its subject can see a different load. Paired
// benchmarks alternate subject and baseline within every iteration and report
// the ratio of the summed wall times ("wall_ratio") and of the summed CPU
// times of caller and children ("cpu_ratio"), the latter being insensitive to
// waiting for a core.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

namespace QenBench {

// CPU seconds of this process and its waited-for children so far.
double CpuNow();

// Durations of single subject calls: reported as the counters "median_us",
// "p99_us" (99th percentile, nearest rank) and "max_us" (the slowest call).
class CallTimes {
 public:
  void Add(double seconds) { times_.push_back(seconds); }
  void Report(benchmark::State& state);

 private:
  std::vector<double> times_;
};

// `subject` returns false to stop the benchmark with an error.
template <typename Subject, typename Baseline>
void Paired(benchmark::State& state, Subject subject, Baseline baseline) {
  double wallSubject = 0, wallBase = 0, cpuSubject = 0, cpuBase = 0;
  CallTimes calls;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    double c0 = CpuNow();
    if (!subject()) {
      state.SkipWithError("subject failed");
      break;
    }
    auto t1 = std::chrono::steady_clock::now();
    double c1 = CpuNow();
    baseline();
    auto t2 = std::chrono::steady_clock::now();
    double c2 = CpuNow();
    calls.Add(std::chrono::duration<double>(t1 - t0).count());
    wallSubject += std::chrono::duration<double>(t1 - t0).count();
    wallBase += std::chrono::duration<double>(t2 - t1).count();
    cpuSubject += c1 - c0;
    cpuBase += c2 - c1;
  }
  double n = static_cast<double>(state.iterations());
  state.counters["subject_us"] = wallSubject / n * 1e6;
  state.counters["base_us"] = wallBase / n * 1e6;
  state.counters["wall_ratio"] = wallBase > 0 ? wallSubject / wallBase : 0;
  state.counters["cpu_ratio"] = cpuBase > 0 ? cpuSubject / cpuBase : 0;
  calls.Report(state);
}

// Keeps the paired runs for the ratio table.
class PairedReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;
  std::vector<Run> results;
};

struct Goal {
  const char* benchmark;  // name prefix
  const char* label;
  double goal;  // 0: reported only
  // false: the goal bounds subject / baseline from above (a cost);
  // true: it bounds baseline / subject from below (a speed-up of the subject).
  bool speed = false;
};

// One line per paired run that a goal names: times, ratios, the slowest call
// and the 99th percentile, goal met or not (judged on the CPU ratio). With
// several runs of a case (--benchmark_repetitions), a summary follows: the
// median and the range of its ratios, the goal judged on the median.
void PrintRatios(const PairedReporter& reporter, const std::vector<Goal>& goals);

// Runs the benchmarks the command line selects, prints the ratios of `goals`
// and then hands the runs to `more` (further tables), if given.
void RunPaired(const std::vector<Goal>& goals, void (*more)(const PairedReporter&) = nullptr);

// Median of `values` (the mean of the middle two for an even count); 0 when empty.
double Median(std::vector<double> values);

}  // namespace QenBench

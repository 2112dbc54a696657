// Side-by-side reporting for the Qel benchmarks.
//
// Ratios compare CPU time, which other load on the machine disturbs less
// than wall time. Benchmarks are registered under names "<workload>/<contender>" (contender
// "qel" for the library, anything else for what a user would use instead).
// After the run, RatioReporter prints, for every workload, the time of qel
// divided by the time of each other contender, next to the goal when one is
// given, so every comparison comes from the same run on the same machine.
#ifndef QEL_BENCH_RATIOS_H
#define QEL_BENCH_RATIOS_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qelbench {

/// A goal: qel time / contender time must not exceed `maxRatio`.
struct Goal {
  std::string workloadPrefix;  ///< applies to workloads starting with this
  std::string contender;       ///< the contender compared against
  double maxRatio;             ///< the highest acceptable ratio
};

/// Console output plus a ratio table at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::vector<Goal> goals) : _goals(std::move(goals)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
      std::string name = r.benchmark_name();
      size_t slash = name.rfind('/');
      if (slash == std::string::npos) continue;
      double t = r.GetAdjustedCPUTime();
      _times[name.substr(0, slash)][name.substr(slash + 1)] = t;
      _order.push_back(name.substr(0, slash));
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-44s %-12s %10s %10s  %s\n", "workload", "vs", "ratio", "goal",
                "verdict");
    std::map<std::string, bool> seen;
    for (const std::string& w : _order) {
      if (seen[w]) continue;
      seen[w] = true;
      const auto& by = _times[w];
      auto q = by.find("qel");
      if (q == by.end()) continue;
      for (const auto& [contender, t] : by) {
        if (contender == "qel" || t <= 0) continue;
        double ratio = q->second / t;
        const Goal* g = goalFor(w, contender);
        if (g != nullptr)
          std::printf("%-44s %-12s %10.3f %10.2f  %s\n", w.c_str(), contender.c_str(),
                      ratio, g->maxRatio, ratio <= g->maxRatio ? "met" : "MISSED");
        else
          std::printf("%-44s %-12s %10.3f %10s\n", w.c_str(), contender.c_str(), ratio,
                      "-");
      }
    }
  }

 private:
  const Goal* goalFor(const std::string& w, const std::string& contender) const {
    for (const Goal& g : _goals)
      if (w.rfind(g.workloadPrefix, 0) == 0 && g.contender == contender) return &g;
    return nullptr;
  }
  std::vector<Goal> _goals;
  std::map<std::string, std::map<std::string, double>> _times;
  std::vector<std::string> _order;
};

/// Runs the registered benchmarks with the ratio table.
inline int RunWithRatios(int argc, char** argv, std::vector<Goal> goals) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter(std::move(goals));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace qelbench

#endif

// Side-by-side reporting for the Qel benchmarks.
//
// Ratios compare CPU time, which other load on the machine disturbs less
// than wall time. Benchmarks are registered under names "<workload>/<contender>" (contender
// "qel" for the library, anything else for what a user would use instead).
// After the run, RatioReporter prints, for every workload, the time of qel
// divided by the time of each other contender, next to the goal when one is
// given, so every comparison comes from the same run on the same machine.
// With --benchmark_repetitions the median of the repetitions is used.
//
// Checks add figures derived from several timings of the same run (the
// growth from n to 2n, a cost per listener, ...) and the counters some
// benchmarks report (bytes per object), each against its own goal.
#ifndef QEL_BENCH_RATIOS_H
#define QEL_BENCH_RATIOS_H

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
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

/// The timings (CPU nanoseconds per iteration) and counters of one run.
class Times {
 public:
  /// CPU time of `workload` for `contender`, NaN when it did not run.
  double time(const std::string& workload, const std::string& contender) const {
    auto w = _times.find(workload);
    if (w == _times.end()) return Missing();
    auto c = w->second.find(contender);
    return c == w->second.end() ? Missing() : c->second;
  }
  /// Counter `name` of `workload` for `contender`, NaN when absent.
  double counter(const std::string& workload, const std::string& contender,
                 const std::string& name) const {
    auto k = _counters.find(workload + "/" + contender + "#" + name);
    return k == _counters.end() ? Missing() : k->second;
  }
  /// NaN.
  static double Missing() { return std::numeric_limits<double>::quiet_NaN(); }

 protected:
  std::map<std::string, std::map<std::string, double>> _times;
  std::map<std::string, double> _counters;
};

/// A figure derived from the run, printed after the ratio table with its
/// goal: `value` must not exceed `max` (or, with `atLeast`, be below it).
struct Check {
  std::string label;                          ///< what is checked
  std::function<double(const Times&)> value;  ///< NaN when it cannot be computed
  double limit;                               ///< the goal
  bool atLeast = false;                       ///< goal is value >= limit
};

/// Console output plus a ratio table and the checks at the end.
class RatioReporter : public benchmark::ConsoleReporter, public Times {
 public:
  explicit RatioReporter(std::vector<Goal> goals, std::vector<Check> checks = {})
      : _goals(std::move(goals)), _checks(std::move(checks)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      // The median of repetitions arrives after the single runs and
      // replaces them.
      bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
      if (r.run_type != Run::RT_Iteration && !median) continue;
      std::string name = r.run_name.function_name;
      size_t slash = name.rfind('/');
      if (slash == std::string::npos) continue;
      std::string workload = name.substr(0, slash);
      std::string contender = name.substr(slash + 1);
      _times[workload][contender] = r.GetAdjustedCPUTime() * Scale(r.time_unit);
      for (const auto& [key, c] : r.counters) _counters[name + "#" + key] = c.value;
      _order.push_back(workload);
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\n%-44s %-16s %10s %10s %10s  %s\n", "workload", "vs", "ratio", "speedup", "goal",
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
          std::printf("%-44s %-16s %10.4g %10.4g %10.4g  %s\n", w.c_str(), contender.c_str(), ratio,
                      1 / ratio, g->maxRatio, ratio <= g->maxRatio ? "met" : "MISSED");
        else
          std::printf("%-44s %-16s %10.4g %10.4g %10s\n", w.c_str(), contender.c_str(), ratio,
                      1 / ratio, "-");
      }
    }
    if (_checks.empty()) return;
    std::printf("\n%-62s %12s %12s  %s\n", "check", "value", "goal", "verdict");
    for (const Check& c : _checks) {
      double v = c.value(*this);
      if (std::isnan(c.limit)) {
        std::printf("%-62s %12.4g %12s\n", c.label.c_str(), v, "-");
        continue;
      }
      if (std::isnan(v)) {
        std::printf("%-62s %12s %10s%.4g  %s\n", c.label.c_str(), "-",
                    c.atLeast ? ">=" : "<=", c.limit, "not run");
        continue;
      }
      bool met = c.atLeast ? v >= c.limit : v <= c.limit;
      std::printf("%-62s %12.4g %10s%.4g  %s\n", c.label.c_str(), v,
                  c.atLeast ? ">=" : "<=", c.limit, met ? "met" : "MISSED");
    }
  }

 private:
  static double Scale(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond:
        return 1e9;
      case benchmark::kMillisecond:
        return 1e6;
      case benchmark::kMicrosecond:
        return 1e3;
      default:
        return 1;
    }
  }
  const Goal* goalFor(const std::string& w, const std::string& contender) const {
    for (const Goal& g : _goals)
      if (w.rfind(g.workloadPrefix, 0) == 0 && g.contender == contender) return &g;
    return nullptr;
  }
  std::vector<Goal> _goals;
  std::vector<Check> _checks;
  std::vector<std::string> _order;
};

/// Whether the command line sets `flag` (e.g. "--benchmark_min_time").
inline bool HasFlag(int argc, char** argv, const char* flag) {
  size_t n = std::strlen(flag);
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], flag, n) == 0) return true;
  return false;
}

/// Runs the registered benchmarks with the ratio table and the checks.
/// `defaults` are flags used unless the command line sets the same flag
/// (each a "--name=value" string).
inline int RunWithRatios(int argc, char** argv, std::vector<Goal> goals,
                         std::vector<Check> checks = {}, std::vector<std::string> defaults = {}) {
  std::vector<char*> args(argv, argv + argc);
  for (std::string& d : defaults) {
    std::string name = d.substr(0, d.find('='));
    if (!HasFlag(argc, argv, name.c_str())) args.push_back(d.data());
  }
  int n = static_cast<int>(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&n, args.data());
  if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;
  RatioReporter reporter(std::move(goals), std::move(checks));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

/// Ratio of two timings (NaN when either is missing).
inline std::function<double(const Times&)> TimeRatio(std::string w1, std::string c1, std::string w2,
                                                     std::string c2) {
  return [=](const Times& t) { return t.time(w1, c1) / t.time(w2, c2); };
}

}  // namespace qelbench

#endif

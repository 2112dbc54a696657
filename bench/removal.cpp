// Ending many objects: endElements of k difference constraints in an
// environment of n objects (n / 2 integer variables and n / 2 constraints
// x[i] != x[(i + 1) % (n / 2)], all constraints in one model), against k
// single end() calls.
//
// Every single end() runs the removal protocol, whose pass visits every live
// object of the environment: k of them cost O(k n). endElements ends the k
// constraints in one removal, one pass: O(n + k). Each timed operation gets
// a fresh environment, built outside the timing.
#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include <qel/qel.h>

#include "ratios.h"

namespace {

// n objects (n / 2 variables, n / 2 constraints in one model) and k of the
// constraints chosen at random, in random order.
struct EndSetup {
  QelEnv env;
  QelModel model;
  QelExtractableArray chosen;
  std::vector<QelExtractableI*> chosenPtrs;

  EndSetup(long n, long k) {
    long m = n / 2;
    QelIntVarArray x(env, m, 0, 10);
    model = QelModel(env, "m");
    std::vector<QelExtractableI*> constraints;
    for (long i = 0; i < m; ++i) {
      QelDiff d(env, x[i], x[(i + 1) % m]);
      model.add(d);
      constraints.push_back(d.getImpl());
    }
    std::shuffle(constraints.begin(), constraints.end(), std::mt19937(7));
    chosen = QelExtractableArray(env, 0);
    for (long i = 0; i < k; ++i) {
      chosen.add(QelExtractable(constraints[static_cast<std::size_t>(i)]));
      chosenPtrs.push_back(constraints[static_cast<std::size_t>(i)]);
    }
  }
  ~EndSetup() { env.end(); }
  long live() const { return env.getImpl()->getNumberOfExtractables(); }
};

template <class End>
void TimeEnding(benchmark::State& state, long n, long k, End end) {
  for (auto _ : state) {
    state.PauseTiming();
    auto s = std::make_unique<EndSetup>(n, k);
    long before = s->live();
    state.ResumeTiming();
    end(*s);
    state.PauseTiming();
    if (s->live() != before - k) state.SkipWithError("wrong number of objects ended");
    if (s->model.getImpl()->getMembers().getSize() != n / 2 - k)
      state.SkipWithError("the model still holds ended constraints");
    s.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * (n + k));
}

void QelEndElements(benchmark::State& state, long n, long k) {
  TimeEnding(state, n, k, [](EndSetup& s) { s.chosen.endElements(); });
}

void QelSingleEnds(benchmark::State& state, long n, long k) {
  TimeEnding(state, n, k, [](EndSetup& s) {
    for (QelExtractableI* c : s.chosenPtrs) QelExtractable(c).end();
  });
}

std::string Name(long n, long k) { return "end_n" + std::to_string(n) + "_k" + std::to_string(k); }

}  // namespace

int main(int argc, char** argv) {
  std::vector<qelbench::Goal> goals;
  std::vector<qelbench::Check> checks;

  // Against single ends, in an environment of 20,000 objects.
  const long n = 20000;
  for (long k : {100L, 1000L, 10000L}) {
    std::string w = Name(n, k);
    benchmark::RegisterBenchmark((w + "/qel").c_str(), [k](benchmark::State& s) {
      QelEndElements(s, n, k);
    })->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark((w + "/single_ends").c_str(), [k](benchmark::State& s) {
      QelSingleEnds(s, n, k);
    })->Unit(benchmark::kMicrosecond);
  }
  goals.push_back({Name(n, 10000), "single_ends", 0.1});

  // Linear in n + k: n grows with k = n / 4 (half of the constraints), and k
  // grows with n fixed.
  for (long size : {20000L, 200000L, 2000000L}) {
    benchmark::RegisterBenchmark((Name(size, size / 4) + "/qel").c_str(), [size](
                                                                              benchmark::State& s) {
      QelEndElements(s, size, size / 4);
    })->Unit(benchmark::kMicrosecond);
  }
  for (long k : {100L, 10000L}) {
    benchmark::RegisterBenchmark((Name(200000, k) + "/qel").c_str(), [k](benchmark::State& s) {
      QelEndElements(s, 200000, k);
    })->Unit(benchmark::kMicrosecond);
  }
  // Nanoseconds per unit of n + k, for every size: flat when linear.
  for (const auto& sk : std::vector<std::pair<long, long>>{
           {20000, 5000}, {200000, 50000}, {2000000, 500000}, {200000, 100}, {200000, 10000}}) {
    // Plain copies: structured bindings cannot be captured before C++20.
    long size = sk.first;
    long k = sk.second;
    std::string w = Name(size, k);
    checks.push_back({w + ": ns per (n + k)",
                      [w, size, k](const qelbench::Times& t) {
                        return t.time(w, "qel") / static_cast<double>(size + k);
                      },
                      qelbench::Times::Missing()});
  }
  // Growth from n to 10 n (10 when the time per element stays the same; the
  // caches make it grow, see docs/performance.md).
  checks.push_back({Name(200000, 50000) + " / " + Name(20000, 5000),
                    qelbench::TimeRatio(Name(200000, 50000), "qel", Name(20000, 5000), "qel"),
                    qelbench::Times::Missing()});
  checks.push_back({Name(2000000, 500000) + " / " + Name(200000, 50000),
                    qelbench::TimeRatio(Name(2000000, 500000), "qel", Name(200000, 50000), "qel"),
                    qelbench::Times::Missing()});
  return qelbench::RunWithRatios(argc, argv, goals, checks, {"--benchmark_min_time=0.1"});
}

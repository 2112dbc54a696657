// Summing in a loop against the bulk builders: `e += v[i]` and
// `e += c[i] * v[i]` over 10^5 variables against QelSum and QelScalProd
// (goal: within 3x), and the plain reassignment `e = e + v[i]`, whose time
// grows with the square of the number of terms (each step copies the sum)
// but whose memory must not: the former sum goes back at each step.
//
// Every workload ends the sum it built inside the timed loop and reports
// the environment bytes still in use afterwards against the bytes in use
// before (counter B_left, goal 0), and the most bytes held at once per term
// (counter peak_B_per_term).
#include <algorithm>
#include <string>
#include <vector>

#include <qel/kernel/constraint.h>
#include <qel/kernel/expr.h>

#include "ratios.h"

namespace {

using qelbench::Check;
using qelbench::Goal;
using qelbench::Times;

// The variables and coefficients of a workload, made once per benchmark.
struct Data {
  explicit Data(long n) : vars(env, n, 0, 1), coefs(env, n) {
    for (long i = 0; i < n; ++i) coefs.set(i, 1.0 + static_cast<double>(i % 7));
  }
  ~Data() {
    vars.end();
    coefs.end();
    env.end();
  }
  QelEnv env;
  QelNumVarArray vars;
  QelNumArray coefs;
};

enum class Kind { Sum, ScalProd, LoopSum, LoopScalProd, Reassign };

// Builds one sum of `d`'s n variables the way `kind` says; `peak` receives
// the most bytes in use seen while building (sampled every 64 steps for
// the loops).
QelNumExpr Build(Data& d, Kind kind, QelInt& peak) {
  QelEnvI* env = d.env.getImpl();
  long n = d.vars.getSize();
  switch (kind) {
    case Kind::Sum: {
      QelNumExpr e = QelSum(d.vars);
      peak = std::max(peak, env->getBytesInUse());
      return e;
    }
    case Kind::ScalProd: {
      QelNumExpr e = QelScalProd(d.vars, d.coefs);
      peak = std::max(peak, env->getBytesInUse());
      return e;
    }
    case Kind::LoopSum: {
      QelNumExpr e(d.env, 0.0);
      for (long i = 0; i < n; ++i) {
        e += d.vars[i];
        if ((i & 63) == 0) peak = std::max(peak, env->getBytesInUse());
      }
      peak = std::max(peak, env->getBytesInUse());
      return e;
    }
    case Kind::LoopScalProd: {
      QelNumExpr e(d.env, 0.0);
      for (long i = 0; i < n; ++i) {
        e += d.coefs[i] * d.vars[i];
        if ((i & 63) == 0) peak = std::max(peak, env->getBytesInUse());
      }
      peak = std::max(peak, env->getBytesInUse());
      return e;
    }
    case Kind::Reassign: {
      QelNumExpr e(d.env, 0.0);
      for (long i = 0; i < n; ++i) {
        e = e + d.vars[i];
        if ((i & 63) == 0) peak = std::max(peak, env->getBytesInUse());
      }
      peak = std::max(peak, env->getBytesInUse());
      return e;
    }
  }
  return QelNumExpr();
}

void Run(benchmark::State& state, long n, Kind kind) {
  Data d(n);
  QelEnvI* env = d.env.getImpl();
  const QelInt baseline = env->getBytesInUse();
  QelInt peak = baseline;
  QelInt left = 0;
  for (auto _ : state) {
    QelNumExpr e = Build(d, kind, peak);
    benchmark::DoNotOptimize(e.getImpl());
    e.end();
    left = std::max(left, env->getBytesInUse() - baseline);
  }
  state.counters["B_left"] = static_cast<double>(left);
  state.counters["peak_B_per_term"] = static_cast<double>(peak - baseline) / static_cast<double>(n);
}

std::string Size(long n) {
  if (n % 1000 == 0) return std::to_string(n / 1000) + "k";
  return std::to_string(n);
}

void Register(const std::string& workload, const char* contender, long n, Kind kind,
              benchmark::TimeUnit unit) {
  benchmark::RegisterBenchmark((workload + "/" + contender).c_str(), [n,
                                                                      kind](benchmark::State& s) {
    Run(s, n, kind);
  })->Unit(unit);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Goal> goals;
  std::vector<Check> checks;
  const long n = 100000;
  std::string sum = "sum" + Size(n);
  std::string scal = "scalprod" + Size(n);
  Register(sum, "qel", n, Kind::LoopSum, benchmark::kMillisecond);
  Register(sum, "QelSum", n, Kind::Sum, benchmark::kMillisecond);
  Register(scal, "qel", n, Kind::LoopScalProd, benchmark::kMillisecond);
  Register(scal, "QelScalProd", n, Kind::ScalProd, benchmark::kMillisecond);
  goals.push_back({sum, "QelSum", 3.0});
  goals.push_back({scal, "QelScalProd", 3.0});
  for (const std::string& w : {sum, scal})
    for (const char* c : {"qel", "QelSum", "QelScalProd"})
      checks.push_back({w + " bytes left after ending the sum (" + c + ")",
                        [w, c](const Times& t) { return t.counter(w, c, "B_left"); }, 0.0});

  // The plain reassignment, at two sizes: time grows about 4x from n to 2n
  // (each step copies), memory per term stays flat.
  for (long m : {2000L, 4000L}) {
    std::string w = "reassign" + Size(m);
    Register(w, "qel", m, Kind::Reassign, benchmark::kMillisecond);
    checks.push_back({w + " bytes left after ending the sum (qel)",
                      [w](const Times& t) { return t.counter(w, "qel", "B_left"); }, 0.0});
  }
  checks.push_back({"reassign4k / reassign2k peak bytes per term (qel)",
                    [](const Times& t) {
                      return t.counter("reassign4k", "qel", "peak_B_per_term") /
                             t.counter("reassign2k", "qel", "peak_B_per_term");
                    },
                    1.1});
  checks.push_back({"reassign4k / reassign2k time (qel)",
                    qelbench::TimeRatio("reassign4k", "qel", "reassign2k", "qel"),
                    Times::Missing()});
  return qelbench::RunWithRatios(argc, argv, goals, checks, {"--benchmark_min_time=0.2"});
}

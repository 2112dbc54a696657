// The cost of the engine layer for Gecode: the same work done through Qel
// and done with Gecode alone, side by side in one run.
//
//   extract_qel/<nnz>     building a Qel model of <nnz> nonzeros (integer
//                         variables in 0..10, rows 1 <= sum c_j x_j <= ub of
//                         ten terms each, coefficients 1..9, columns drawn
//                         with a fixed seed) and extracting it into a Gecode
//                         engine;
//   build_qel/<nnz>       building the same Qel model alone (the part of
//                         extract_qel that is no extraction);
//   extract_direct/<nnz>  the same variables and rows posted to a Gecode
//                         space directly (linear, twice per row).
//   binpack_engine/<seed> solving a bin packing of 120 items of weights
//                         20..100 into bins of 150 through the engine (its
//                         default search for a pack), within 10 s;
//   queens_engine/<n>     enumerating every solution of n queens through the
//                         engine (first-fail, smallest value);
//   queens_direct/<n>     the same constraints and branching in Gecode.
//
// Times are wall-clock per whole operation; tearing down (ending the
// environment, deleting spaces) is outside the timing. The bin-packing runs
// report the bins found, whether they are proven optimal, ceil(sum /
// capacity), the engine's lower bound, the first-fit decreasing count and
// the search nodes as counters.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include <gecode/int.hh>
#include <gecode/minimodel.hh>
#include <gecode/search.hh>

#include <qel/engines/gecode.h>
#include "engines/support/models.h"

namespace {

// ---- extraction ---------------------------------------------------------------

constexpr int kTerms = 10;

// Rows of the generated model: the columns and coefficients of each.
struct Rows {
  long columns = 0;
  std::vector<int> column;  // kTerms per row
  std::vector<int> coef;
};

Rows Generate(long nnz) {
  Rows r;
  long rows = nnz / kTerms;
  r.columns = rows;  // ten nonzeros per column on average
  std::mt19937 g(12345);
  for (long i = 0; i < rows * kTerms; ++i) {
    r.column.push_back(static_cast<int>(g() % static_cast<std::uint32_t>(r.columns)));
    r.coef.push_back(1 + static_cast<int>(g() % 9));
  }
  return r;
}

constexpr int kUpper = kTerms * 9 * 10 / 2;

// Builds the Qel model of `rows` in `env`.
QelModel BuildRows(QelEnv env, const Rows& rows) {
  long n = static_cast<long>(rows.coef.size()) / kTerms;
  QelModel m(env, "m");
  QelIntVarArray x(env, rows.columns, 0, 10);
  QelNumArray c(env, kTerms);
  QelNumExprArray xs(env, kTerms);
  for (long i = 0; i < n; ++i) {
    for (int k = 0; k < kTerms; ++k) {
      size_t at = static_cast<size_t>(i * kTerms + k);
      c.set(k, rows.coef[at]);
      xs.set(k, x[rows.column[at]]);
    }
    m.add(QelRange(env, 1, QelScalProd(xs, c), kUpper));
  }
  c.end();
  xs.end();
  return m;
}

void BM_BuildQel(benchmark::State& state) {
  Rows rows = Generate(state.range(0));
  for (auto _ : state) {
    QelEnv env;
    BuildRows(env, rows);
    state.PauseTiming();
    env.end();
    state.ResumeTiming();
  }
  state.counters["nnz"] = static_cast<double>(state.range(0));
}

void BM_ExtractQel(benchmark::State& state) {
  Rows rows = Generate(state.range(0));
  for (auto _ : state) {
    QelEnv env;
    {
      QelGecode cp(env);
      QelModel m = BuildRows(env, rows);
      cp.extract(m);
      state.PauseTiming();
      cp.end();
    }
    env.end();
    state.ResumeTiming();
  }
  state.counters["nnz"] = static_cast<double>(state.range(0));
}

class Plain : public Gecode::Space {
 public:
  Plain() = default;
  Plain(Plain& other) : Gecode::Space(other) { x.update(*this, other.x); }
  Gecode::Space* copy() override { return new Plain(*this); }
  Gecode::IntVarArray x;
};

void BM_ExtractDirect(benchmark::State& state) {
  Rows rows = Generate(state.range(0));
  long n = static_cast<long>(rows.coef.size()) / kTerms;
  for (auto _ : state) {
    auto space = std::make_unique<Plain>();
    space->x = Gecode::IntVarArray(*space, static_cast<int>(rows.columns), 0, 10);
    for (long i = 0; i < n; ++i) {
      Gecode::IntArgs c(kTerms);
      Gecode::IntVarArgs xs(kTerms);
      for (int k = 0; k < kTerms; ++k) {
        size_t at = static_cast<size_t>(i * kTerms + k);
        c[k] = rows.coef[at];
        xs[k] = space->x[rows.column[at]];
      }
      Gecode::linear(*space, c, xs, Gecode::IRT_GQ, 1);
      Gecode::linear(*space, c, xs, Gecode::IRT_LQ, kUpper);
    }
    state.PauseTiming();
    space.reset();
    state.ResumeTiming();
  }
  state.counters["nnz"] = static_cast<double>(state.range(0));
}

BENCHMARK(BM_ExtractQel)
    ->Name("extract_qel")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_BuildQel)
    ->Name("build_qel")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ExtractDirect)
    ->Name("extract_direct")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- bin packing ----------------------------------------------------------------

constexpr int kItems = 120;
constexpr long kCapacity = 150;

void BM_BinPackEngine(benchmark::State& state) {
  std::vector<int> w =
      binpacking::Weights(kItems, 20, 100, static_cast<std::uint32_t>(state.range(0)));
  long m = binpacking::FirstFitDecreasing(w, kCapacity);
  QelEnv env;
  QelGecode cp(env);
  binpacking::Model bp = binpacking::Build(env, w, m, kCapacity);
  cp.extract(bp.model);
  cp.setTimeLimit(10);
  QelEngineStatus status = QelEngineStatus::Unknown;
  for (auto _ : state) status = cp.solve();
  state.counters["bins"] = cp.getReport().objective;
  state.counters["optimal"] = status == QelEngineStatus::Optimal ? 1 : 0;
  state.counters["sum_bound"] = static_cast<double>(binpacking::SumBound(w, kCapacity));
  state.counters["lower_bound"] = static_cast<double>(QelGecodeBinLowerBound(w, kCapacity));
  state.counters["ffd"] = static_cast<double>(m);
  state.counters["nodes"] = static_cast<double>(cp.getReport().nodes);
  cp.end();
  env.end();
}

BENCHMARK(BM_BinPackEngine)
    ->Name("binpack_engine")
    ->DenseRange(1, 5)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- queens ------------------------------------------------------------------------

void BM_QueensEngine(benchmark::State& state) {
  long n = state.range(0);
  QelEnv env;
  QelGecode cp(env);
  QelModel m(env, "queens");
  queens::Add(env, m, n);
  cp.extract(m);
  long count = 0;
  for (auto _ : state) count = cp.enumerate([](QelGecodeI&) { return true; });
  state.counters["solutions"] = static_cast<double>(count);
  state.counters["nodes"] = static_cast<double>(cp.getReport().nodes);
  cp.end();
  env.end();
}

void BM_QueensDirect(benchmark::State& state) {
  int n = static_cast<int>(state.range(0));
  // The engine's form: the queens, and for each diagonal constraint a copy
  // of every q[i] +- i, all different.
  Plain root;
  Gecode::IntVarArray q(root, n, 0, n - 1);
  Gecode::IntVarArgs up;
  Gecode::IntVarArgs down;
  for (int i = 0; i < n; ++i) {
    up << Gecode::expr(root, q[i] + i);
    down << Gecode::expr(root, q[i] - i);
  }
  Gecode::distinct(root, q);
  Gecode::distinct(root, up);
  Gecode::distinct(root, down);
  Gecode::IntVarArgs all;
  all << q << up << down;
  root.x = Gecode::IntVarArray(root, all);
  root.status();  // a space is cloned once propagated
  std::pair<double, double> result;
  // First-fail over the queens, then the copies in order.
  for (auto _ : state) {
    std::unique_ptr<Plain> work(static_cast<Plain*>(root.clone()));
    Gecode::IntVarArgs queens;
    Gecode::IntVarArgs copies;
    for (int i = 0; i < work->x.size(); ++i) (i < n ? queens : copies) << work->x[i];
    Gecode::branch(*work, queens, Gecode::INT_VAR_SIZE_MIN(), Gecode::INT_VAL_MIN());
    Gecode::branch(*work, copies, Gecode::INT_VAR_NONE(), Gecode::INT_VAL_MIN());
    Gecode::DFS<Plain> engine(work.get());
    double count = 0;
    while (Plain* s = engine.next()) {
      count += 1;
      delete s;
    }
    result = {count, static_cast<double>(engine.statistics().node)};
  }
  state.counters["solutions"] = result.first;
  state.counters["nodes"] = result.second;
}

BENCHMARK(BM_QueensEngine)
    ->Name("queens_engine")
    ->Arg(10)
    ->Arg(11)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_QueensDirect)
    ->Name("queens_direct")
    ->Arg(10)
    ->Arg(11)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

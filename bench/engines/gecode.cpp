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
//                         space directly (linear, twice per row: >= 1 and
//                         <= ub);
//   extract_direct_one/<nnz>  the same with one linear per row, as the
//                         engine posts it (sum == s, s a variable in
//                         [1, ub]).
//   extract_once_qel/<nnz>, extract_once_direct/<nnz>  extract_qel and
//                         extract_direct once each in a freshly started
//                         program (fresh.h), as a program that extracts
//                         one model meets them; CPU time.
//   binpack_engine/<seed> solving a bin packing of 120 items of weights
//                         20..100 into bins of 150 through the engine (its
//                         default search for a pack), within 10 s, seeds 1
//                         to 40 (the counters give the bounds: the sum's,
//                         L2 and the pattern relaxation's);
//   binpack_items_engine/<seed>  the same with the item-by-item search
//                         alone (no restarts);
//   binpack_items_direct/<seed>  the same propagators and branching posted
//                         to a Gecode space and searched by Gecode's branch
//                         and bound directly;
//   memory/<nnz>          heap in use (mallinfo2) before and after each
//                         step: the Qel model, the engine's extraction
//                         (its records and its Gecode space), and the same
//                         variables and rows posted to a Gecode space
//                         directly, two inequalities per row, then one
//                         equality per row (each built while the others
//                         are still held, so that Gecode reuses no memory
//                         freed by another); bytes per nonzero and per
//                         variable;
//   queens_engine/<n>     enumerating every solution of n queens through the
//                         engine (first-fail, smallest value);
//   queens_direct/<n>     the same constraints and branching in Gecode.
//
// Times are wall-clock per whole operation; tearing down (ending the
// environment, deleting spaces) is outside the timing. The bin-packing runs
// report the bins found, whether they are proven optimal, ceil(sum /
// capacity), the engine's lower bound, the first-fit decreasing count and
// the search nodes as counters. The bin-packing runs are timed in CPU time.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gecode/int.hh>
#include <gecode/minimodel.hh>
#include <gecode/search.hh>

#include <qel/engines/gecode.h>
#include "engines/support/models.h"
#include "fresh.h"

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

// The variables and rows of `rows` posted to a new Gecode space: each row
// as two inequalities, or (`oneEach`) as the engine posts it, one equality
// with a variable in [1, kUpper].
// Kept out of line, so that a profiler can count it apart
// (valgrind --toggle-collect='*PostDirect*').
__attribute__((noinline)) std::unique_ptr<Plain> PostDirect(const Rows& rows,
                                                            bool oneEach = false) {
  long n = static_cast<long>(rows.coef.size()) / kTerms;
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
    if (oneEach) {
      Gecode::linear(*space, c, xs, Gecode::IRT_EQ, Gecode::IntVar(*space, 1, kUpper));
    } else {
      Gecode::linear(*space, c, xs, Gecode::IRT_GQ, 1);
      Gecode::linear(*space, c, xs, Gecode::IRT_LQ, kUpper);
    }
  }
  return space;
}

void ExtractDirect(benchmark::State& state, bool oneEach) {
  Rows rows = Generate(state.range(0));
  for (auto _ : state) {
    std::unique_ptr<Plain> space = PostDirect(rows, oneEach);
    state.PauseTiming();
    space.reset();
    state.ResumeTiming();
  }
  state.counters["nnz"] = static_cast<double>(state.range(0));
}

void BM_ExtractDirect(benchmark::State& state) { ExtractDirect(state, false); }
void BM_ExtractDirectOne(benchmark::State& state) { ExtractDirect(state, true); }

size_t HeapInUse() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
}

void BM_Memory(benchmark::State& state) {
  Rows rows = Generate(state.range(0));
  // Each step's bytes, per nonzero and per variable.
  auto count = [&state, &rows](const char* step, size_t before, size_t after) {
    auto bytes = static_cast<double>(after - before);
    state.counters[std::string(step) + "_B_per_nnz"] =
        bytes / static_cast<double>(rows.coef.size());
    state.counters[std::string(step) + "_B_per_var"] = bytes / static_cast<double>(rows.columns);
  };
  for (auto _ : state) {
    size_t heap[5];
    heap[0] = HeapInUse();
    QelEnv env;
    {
      QelModel m = BuildRows(env, rows);
      heap[1] = HeapInUse();
      QelGecode cp(env);
      cp.extract(m);
      heap[2] = HeapInUse();
      std::unique_ptr<Plain> direct = PostDirect(rows);
      heap[3] = HeapInUse();
      std::unique_ptr<Plain> directOne = PostDirect(rows, true);
      heap[4] = HeapInUse();
      count("model", heap[0], heap[1]);
      count("engine", heap[1], heap[2]);
      count("direct", heap[2], heap[3]);
      count("direct_one", heap[3], heap[4]);
      directOne.reset();
      direct.reset();
      cp.end();
    }
    env.end();
  }
}
BENCHMARK(BM_Memory)->Name("memory")->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

// The sizes of the extraction benchmarks (nonzeros), n and 2n at two scales
// for the growth, in wall-clock milliseconds.
void ExtractionSizes(benchmark::internal::Benchmark* b) {
  for (long n : {10000L, 100000L, 200000L, 1000000L, 2000000L}) b->Arg(n);
  b->Unit(benchmark::kMillisecond)->UseRealTime();
}
BENCHMARK(BM_ExtractQel)->Name("extract_qel")->Apply(ExtractionSizes);
BENCHMARK(BM_BuildQel)->Name("build_qel")->Apply(ExtractionSizes);
BENCHMARK(BM_ExtractDirect)->Name("extract_direct")->Apply(ExtractionSizes);
BENCHMARK(BM_ExtractDirectOne)->Name("extract_direct_one")->Apply(ExtractionSizes);

// The child's part of extract_once_*: the rows generated, then one
// extraction timed (tearing down left out on both sides).
int ExtractOnceChild(const std::string& side, long nnz) {
  Rows rows = Generate(nnz);
  return freshrun::Report([&] {
    long n = static_cast<long>(rows.coef.size()) / kTerms;
    if (side == "direct") {
      Plain* space = PostDirect(rows).release();  // left to the process's end
      return space->x.size() == static_cast<int>(rows.columns);
    }
    QelEnv env;
    QelGecode cp(env);
    QelModel m = BuildRows(env, rows);
    cp.extract(m);
    return cp.getStats().memberExtractions == n;
  });
}

void ExtractOnce(benchmark::State& state, const char* side) {
  freshrun::Iterate(state, {side, std::to_string(state.range(0))});
}
void BM_ExtractOnceQel(benchmark::State& state) { ExtractOnce(state, "qel"); }
void BM_ExtractOnceDirect(benchmark::State& state) { ExtractOnce(state, "direct"); }

void ExtractOnceSizes(benchmark::internal::Benchmark* b) {
  for (long n : {10000L, 100000L, 200000L, 1000000L}) b->Arg(n);
  b->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_ExtractOnceDirect)->Name("extract_once_direct")->Apply(ExtractOnceSizes);
BENCHMARK(BM_ExtractOnceQel)->Name("extract_once_qel")->Apply(ExtractOnceSizes);

// ---- bin packing ----------------------------------------------------------------

constexpr int kItems = 120;
constexpr long kCapacity = 150;

// Solves the instance of the seed `state.range(0)` through the engine with
// the pack search `pack`.
void BinPackEngine(benchmark::State& state, const char* pack) {
  std::vector<int> w =
      binpacking::Weights(kItems, 20, 100, static_cast<std::uint32_t>(state.range(0)));
  long m = binpacking::FirstFitDecreasing(w, kCapacity);
  QelEnv env;
  QelGecode cp(env);
  binpacking::Model bp = binpacking::Build(env, w, m, kCapacity);
  cp.extract(bp.model);
  cp.setTimeLimit(10);
  cp.setParam("packSearch", pack);
  QelEngineStatus status = QelEngineStatus::Unknown;
  for (auto _ : state) status = cp.solve();
  state.counters["bins"] = cp.getReport().objective;
  state.counters["optimal"] = status == QelEngineStatus::Optimal ? 1 : 0;
  state.counters["sum_bound"] = static_cast<double>(binpacking::SumBound(w, kCapacity));
  state.counters["lower_bound"] = static_cast<double>(QelGecodeBinLowerBound(w, kCapacity));
  state.counters["pattern_bound"] = static_cast<double>(QelGecodeBinPatternBound(w, kCapacity));
  state.counters["ffd"] = static_cast<double>(m);
  state.counters["nodes"] = static_cast<double>(cp.getReport().nodes);
  state.counters["restarts"] = static_cast<double>(cp.getImpl()->getSearchStats().restarts);
  cp.end();
  env.end();
}

void BM_BinPackEngine(benchmark::State& state) { BinPackEngine(state, "alternate"); }
void BM_BinPackItemsEngine(benchmark::State& state) { BinPackEngine(state, "items"); }

BENCHMARK(BM_BinPackEngine)
    ->Name("binpack_engine")
    ->DenseRange(1, 40)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// The engine's form of the bin packing, and its item-by-item search.
class Packing : public Gecode::Space {
 public:
  Packing(const std::vector<int>& w, int bins, int capacity) : weights(w) {
    Gecode::IntVarArray load(*this, bins, 0, capacity);
    where = Gecode::IntVarArray(*this, static_cast<int>(w.size()), 0, bins - 1);
    count = Gecode::IntVar(*this, 0, bins);
    Gecode::IntArgs sizes(static_cast<int>(w.size()));
    for (size_t i = 0; i < w.size(); ++i) sizes[static_cast<int>(i)] = w[i];
    Gecode::binpacking(*this, load, where, sizes);
    Gecode::nvalues(*this, where, Gecode::IRT_EQ, count);
    Gecode::rel(*this, count, Gecode::IRT_GQ,
                static_cast<int>(QelGecodeBinLowerBound(w, capacity)));
    for (int i = 0; i < where.size(); ++i) Gecode::rel(*this, where[i], Gecode::IRT_LE, count);
    // Heaviest first, each into the fullest bin that takes it; kept out of
    // a bin, kept out of every bin of the same load.
    std::vector<int> order(w.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&w](int a, int b) {
      return w[static_cast<size_t>(a)] > w[static_cast<size_t>(b)];
    });
    Gecode::IntVarArgs items;
    for (int i : order) items << where[i];
    Gecode::branch(*this, count, Gecode::INT_VAL_MAX());
    Gecode::branch(*this, items, Gecode::INT_VAR_NONE(), Gecode::INT_VAL(&BestBin, &Commit));
  }
  Packing(Packing& other) : Gecode::Space(other), weights(other.weights) {
    where.update(*this, other.where);
    count.update(*this, other.count);
  }
  Gecode::Space* copy() override { return new Packing(*this); }
  void constrain(const Gecode::Space& best) override {
    Gecode::rel(*this, count, Gecode::IRT_LE, static_cast<const Packing&>(best).count.val());
  }
  std::vector<long> loads() const {
    std::vector<long> load(static_cast<size_t>(count.max()) + 1, 0);
    for (int i = 0; i < where.size(); ++i)
      if (where[i].assigned())
        load[static_cast<size_t>(where[i].val())] += weights[static_cast<size_t>(i)];
    return load;
  }
  static int BestBin(const Gecode::Space& home, Gecode::IntVar x, int) {
    std::vector<long> load = static_cast<const Packing&>(home).loads();
    int best = x.min();
    for (Gecode::IntVarValues v(x); v(); ++v)
      if (load[static_cast<size_t>(v.val())] > load[static_cast<size_t>(best)]) best = v.val();
    return best;
  }
  static void Commit(Gecode::Space& home, unsigned int a, Gecode::IntVar x, int, int b) {
    if (a == 0) {
      Gecode::rel(home, x, Gecode::IRT_EQ, b);
      return;
    }
    std::vector<long> load = static_cast<Packing&>(home).loads();
    for (size_t e = 0; e < load.size(); ++e)
      if (load[e] == load[static_cast<size_t>(b)])
        Gecode::rel(home, x, Gecode::IRT_NQ, static_cast<int>(e));
  }

  std::vector<int> weights;
  Gecode::IntVarArray where;
  Gecode::IntVar count;
};

void BM_BinPackItemsDirect(benchmark::State& state) {
  std::vector<int> w =
      binpacking::Weights(kItems, 20, 100, static_cast<std::uint32_t>(state.range(0)));
  int m = static_cast<int>(binpacking::FirstFitDecreasing(w, kCapacity));
  double bins = 0;
  bool optimal = false;
  double nodes = 0;
  for (auto _ : state) {
    auto root = std::make_unique<Packing>(w, m, static_cast<int>(kCapacity));
    Gecode::Search::TimeStop limit(10000);
    Gecode::Search::Options options;
    options.stop = &limit;
    Gecode::BAB<Packing> engine(root.get(), options);
    std::unique_ptr<Packing> best;
    while (Packing* s = engine.next()) best.reset(s);
    bins = best ? best->count.val() : 0;
    optimal = best && !engine.stopped();
    nodes = static_cast<double>(engine.statistics().node);
  }
  state.counters["bins"] = bins;
  state.counters["optimal"] = optimal ? 1 : 0;
  state.counters["nodes"] = nodes;
}

BENCHMARK(BM_BinPackItemsEngine)
    ->Name("binpack_items_engine")
    ->DenseRange(1, 10)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BinPackItemsDirect)
    ->Name("binpack_items_direct")
    ->DenseRange(1, 10)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

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

int main(int argc, char** argv) {
  if (freshrun::IsChild(argc, argv) && argc == 4)
    return ExtractOnceChild(argv[2], std::atol(argv[3]));
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

// The cost of the CBC engine layer, side by side with CBC driven directly:
//
//   Load/*     building a Qel model and extracting it into CBC (up to the
//              LP loaded in CLP) against loading the same matrix directly
//              (CoinPackedMatrix + loadProblem), 1e4 to 1e6 nonzeros;
//   Solve/*    a solve through the engine against CBC's driver called
//              directly with the same settings on the same LP (sample MIPs
//              shipped with CoinUtils, when present);
//   Facility/* the 100 x 1,000 capacitated facility location, weak and
//              strong form, built and extracted;
//   Memory     bytes per variable and per nonzero at 1e6 nonzeros.
//
// Run (Release): cmake --preset bench-engines && cmake --build --preset
// bench-engines && build/bench-engines/bench/qel_bench_cbc
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <CbcModel.hpp>
#include <CbcSolver.hpp>
#include <CoinMpsIO.hpp>
#include <CoinPackedMatrix.hpp>
#include <OsiClpSolverInterface.hpp>

#include <qel/engines/cbc.h>
#include <qel/engines/linear.h>

namespace {

// A model as plain row-major arrays.
struct Data {
  int rows = 0;
  int cols = 0;
  std::vector<CoinBigIndex> start{0};
  std::vector<int> index;
  std::vector<double> value;
  std::vector<double> collb, colub, obj, rowlb, rowub;
  std::vector<char> integer;
};

// n rows of 10 terms over n continuous columns in [0, 10] (row i: columns
// i, i + 1, ..., i + 9, cyclic; coefficients 1 to 10), each <= 100.
Data Generate(int n) {
  Data d;
  d.rows = d.cols = n;
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 10; ++k) {
      d.index.push_back((i + k) % n);
      d.value.push_back(1.0 + k);
    }
    d.start.push_back(static_cast<CoinBigIndex>(d.index.size()));
    d.rowlb.push_back(-COIN_DBL_MAX);
    d.rowub.push_back(100);
  }
  d.collb.assign(static_cast<size_t>(n), 0.0);
  d.colub.assign(static_cast<size_t>(n), 10.0);
  d.obj.assign(static_cast<size_t>(n), -1.0);
  d.integer.assign(static_cast<size_t>(n), 0);
  return d;
}

bool FromMps(const std::string& path, Data& d) {
  std::FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr) return false;
  std::fclose(f);
  CoinMpsIO m;
  m.messageHandler()->setLogLevel(0);
  if (m.readMps(path.c_str(), "") != 0) return false;
  d = Data();
  d.rows = m.getNumRows();
  d.cols = m.getNumCols();
  const CoinPackedMatrix* r = m.getMatrixByRow();
  for (int i = 0; i < d.rows; ++i) {
    CoinBigIndex s = r->getVectorStarts()[i];
    for (int k = 0; k < r->getVectorSize(i); ++k) {
      d.index.push_back(r->getIndices()[s + k]);
      d.value.push_back(r->getElements()[s + k]);
    }
    d.start.push_back(static_cast<CoinBigIndex>(d.index.size()));
  }
  d.collb.assign(m.getColLower(), m.getColLower() + d.cols);
  d.colub.assign(m.getColUpper(), m.getColUpper() + d.cols);
  d.obj.assign(m.getObjCoefficients(), m.getObjCoefficients() + d.cols);
  d.rowlb.assign(m.getRowLower(), m.getRowLower() + d.rows);
  d.rowub.assign(m.getRowUpper(), m.getRowUpper() + d.rows);
  for (int j = 0; j < d.cols; ++j) d.integer.push_back(m.isInteger(j) ? 1 : 0);
  return true;
}

void LoadDirect(const Data& d, OsiClpSolverInterface& lp) {
  std::vector<int> length(static_cast<size_t>(d.rows));
  for (int i = 0; i < d.rows; ++i) length[static_cast<size_t>(i)] = d.start[i + 1] - d.start[i];
  CoinPackedMatrix m(false, d.cols, d.rows, static_cast<CoinBigIndex>(d.index.size()),
                     d.value.data(), d.index.data(), d.start.data(), length.data());
  lp.loadProblem(m, d.collb.data(), d.colub.data(), d.obj.data(), d.rowlb.data(), d.rowub.data());
  std::vector<int> ints;
  for (int j = 0; j < d.cols; ++j)
    if (d.integer[static_cast<size_t>(j)] != 0) ints.push_back(j);
  if (!ints.empty()) lp.setInteger(ints.data(), static_cast<int>(ints.size()));
}

double Bound(double v) {
  return v >= QelInfiniteBound ? QelInfiniteBound : v <= -QelInfiniteBound ? -QelInfiniteBound : v;
}

// The same model in Qel: the variables first (so that the columns keep
// their order), one range per row, the objective.
QelModel ToQel(QelEnv env, const Data& d) {
  QelModel model(env);
  QelNumVarArray x(env, 0);
  for (size_t j = 0; j < static_cast<size_t>(d.cols); ++j) {
    QelNumVar v(env, Bound(d.collb[j]), Bound(d.colub[j]),
                d.integer[j] != 0 ? QelVarType::Int : QelVarType::Float);
    x.add(v);
    model.add(v);
  }
  for (int i = 0; i < d.rows; ++i) {
    QelNumVarArray vars(env, 0);
    QelNumArray coefs(env, 0);
    for (CoinBigIndex k = d.start[i]; k < d.start[i + 1]; ++k) {
      vars.add(x[d.index[static_cast<size_t>(k)]]);
      coefs.add(d.value[static_cast<size_t>(k)]);
    }
    model.add(QelRange(env, Bound(d.rowlb[static_cast<size_t>(i)]), QelScalProd(vars, coefs),
                       Bound(d.rowub[static_cast<size_t>(i)])));
    vars.end();
    coefs.end();
  }
  QelNumArray c(env, 0);
  for (double v : d.obj) c.add(v);
  model.add(QelObjective(env, QelScalProd(x, c), QelObjective::Minimize));
  c.end();
  x.end();
  return model;
}

// ---- (a) loading -----------------------------------------------------------

void Load_Direct(benchmark::State& state) {
  Data d = Generate(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    OsiClpSolverInterface lp;
    LoadDirect(d, lp);
    benchmark::DoNotOptimize(lp.getNumElements());
  }
  state.counters["nnz"] = static_cast<double>(d.index.size());
}
BENCHMARK(Load_Direct)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void Load_Qel(benchmark::State& state) {
  Data d = Generate(static_cast<int>(state.range(0)));
  long nnz = 0;
  for (auto _ : state) {
    QelEnv env;
    {
      QelModel m = ToQel(env, d);
      QelCbc mip(env);
      mip.extract(m);
      nnz = QelCbcLoad(mip.getImpl());
      mip.end();
    }
    env.end();
  }
  if (nnz != static_cast<long>(d.index.size()))
    state.SkipWithError("the engine loaded another matrix");
  state.counters["nnz"] = static_cast<double>(nnz);
}
BENCHMARK(Load_Qel)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The Qel part alone: building the model, then extraction and load.
void Load_QelBuildOnly(benchmark::State& state) {
  Data d = Generate(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    QelEnv env;
    benchmark::DoNotOptimize(ToQel(env, d).getImpl());
    env.end();
  }
}
BENCHMARK(Load_QelBuildOnly)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void Load_QelExtractOnly(benchmark::State& state) {
  Data d = Generate(static_cast<int>(state.range(0)));
  QelEnv env;
  QelModel m = ToQel(env, d);
  for (auto _ : state) {
    QelCbc mip(env);
    mip.extract(m);
    benchmark::DoNotOptimize(QelCbcLoad(mip.getImpl()));
    mip.end();
  }
  env.end();
}
BENCHMARK(Load_QelExtractOnly)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(30000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);

// ---- (c) solving -----------------------------------------------------------

const char* const Samples[] = {"p0033", "p0201", "lseu", "p0548"};

Data Sample(benchmark::State& state) {
  Data d;
  std::string name = Samples[state.range(0)];
  if (!FromMps("/usr/share/coin/Data/Sample/" + name + ".mps", d))
    state.SkipWithError(("sample " + name + " not found").c_str());
  state.SetLabel(name);
  return d;
}

// What one solve found: objective and search nodes.
struct Solved {
  double objective = 0;
  long nodes = 0;
};

// CBC's driver on `lp` with the arguments the engine gives it by default
// (kept out of line, so that an instruction count can be taken of it alone:
// valgrind --tool=callgrind --toggle-collect='*DriverSolve*').
__attribute__((noinline)) Solved DriverSolve(const OsiClpSolverInterface& lp) {
  CbcModel model(lp);
  CbcSolverUsefulData data;
  data.noPrinting_ = true;
  data.useSignalHandler_ = false;
  CbcMain0(model, data);
  model.messageHandler()->setLogLevel(0);
  model.solver()->messageHandler()->setLogLevel(0);
  const char* argv[] = {"direct", "-log", "0", "-timeMode", "elapsed", "-solve", "-quit"};
  CbcMain1(7, argv, model, nullptr, data);
  return {model.getObjValue(), static_cast<long>(model.getNodeCount())};
}

// The heap kept as the engine keeps it during a search (keepHeap on).
struct KeptHeap {
  KeptHeap() {
    mallopt(M_TOP_PAD, 16 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
  }
  ~KeptHeap() {
    mallopt(M_TRIM_THRESHOLD, 128 << 10);
    mallopt(M_TOP_PAD, 128 << 10);
  }
};

// CBC's driver on the sample loaded directly; `keep`: with the heap kept as
// the engine keeps it.
void SolveDirect(benchmark::State& state, bool keep) {
  Data d = Sample(state);
  if (d.cols == 0) return;
  OsiClpSolverInterface lp;
  lp.messageHandler()->setLogLevel(0);
  LoadDirect(d, lp);
  Solved solved;
  for (auto _ : state) {
    std::unique_ptr<KeptHeap> heap(keep ? new KeptHeap : nullptr);
    solved = DriverSolve(lp);
  }
  state.counters["objective"] = solved.objective;
  state.counters["nodes"] = static_cast<double>(solved.nodes);
}

// The engine on the sample built in Qel; keepHeap as `keep` says.
void SolveEngine(benchmark::State& state, bool keep) {
  Data d = Sample(state);
  if (d.cols == 0) return;
  QelEnv env;
  {
    QelModel m = ToQel(env, d);
    QelCbc mip(env);
    mip.setParam("keepHeap", keep ? "on" : "off");
    mip.extract(m);
    for (auto _ : state) mip.solve();
    state.counters["objective"] = mip.getObjValue();
    state.counters["nodes"] = static_cast<double>(mip.getReport().nodes);
    mip.end();
  }
  env.end();
}

// The allocator left as it is (the engine's default).
void Solve_Direct(benchmark::State& state) { SolveDirect(state, false); }
void Solve_Engine(benchmark::State& state) { SolveEngine(state, false); }
// The same two with glibc's heap kept during the search (keepHeap on).
void Solve_DirectKeptHeap(benchmark::State& state) { SolveDirect(state, true); }
void Solve_EngineKeptHeap(benchmark::State& state) { SolveEngine(state, true); }
BENCHMARK(Solve_Direct)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(Solve_Engine)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(Solve_DirectKeptHeap)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(Solve_EngineKeptHeap)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

// ---- facility location -----------------------------------------------------

// 100 facilities, 1,000 customers: open y[i] (cost), x[i][j] serve customer
// j from i (cost), every customer served once, capacity per facility; the
// strong form adds x[i][j] <= y[i] (100,000 rows).
void Facility(benchmark::State& state) {
  const int F = 100, C = 1000;
  bool strong = state.range(0) != 0;
  state.SetLabel(strong ? "strong" : "weak");
  long nnz = 0;
  for (auto _ : state) {
    QelEnv env;
    {
      QelModel m(env);
      QelIntVarArray y(env, F, 0, 1);
      std::vector<QelIntVarArray> x;
      for (int i = 0; i < F; ++i) x.emplace_back(env, C, 0, 1);
      for (int j = 0; j < C; ++j) {
        QelIntExprArray serve(env, 0);
        for (int i = 0; i < F; ++i) serve.add(x[static_cast<size_t>(i)][j]);
        m.add(QelRange(env, 1, QelSum(serve), 1));
        serve.end();
      }
      QelNumArray demand(env, 0);
      for (int j = 0; j < C; ++j) demand.add(1 + j % 7);
      for (int i = 0; i < F; ++i) {
        m.add(QelRange(env, -QelInfiniteBound,
                       QelScalProd(x[static_cast<size_t>(i)], demand) - 400 * y[i], 0));
        if (strong)
          for (int j = 0; j < C; ++j)
            m.add(QelRange(env, -QelInfiniteBound, x[static_cast<size_t>(i)][j] - y[i], 0));
      }
      demand.end();
      QelCbc mip(env);
      mip.extract(m);
      nnz = QelCbcLoad(mip.getImpl());
      mip.end();
    }
    env.end();
  }
  state.counters["nnz"] = static_cast<double>(nnz);
}
BENCHMARK(Facility)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

// ---- (d) memory --------------------------------------------------------------

size_t HeapInUse() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
}

void Memory(benchmark::State& state) {
  Data d = Generate(static_cast<int>(state.range(0)));
  auto nnz = static_cast<double>(d.index.size());
  auto cols = static_cast<double>(d.cols);
  for (auto _ : state) {
    size_t base = HeapInUse();
    QelEnv env;
    {
      QelModel m = ToQel(env, d);
      size_t model = HeapInUse();
      QelCbc mip(env);
      mip.extract(m);
      size_t form = HeapInUse();
      QelCbcLoad(mip.getImpl());
      size_t loaded = HeapInUse();
      state.counters["model_B_per_nnz"] = static_cast<double>(model - base) / nnz;
      state.counters["form_B_per_nnz"] = static_cast<double>(form - model) / nnz;
      state.counters["lp_B_per_nnz"] = static_cast<double>(loaded - form) / nnz;
      state.counters["model_B_per_var"] = static_cast<double>(model - base) / cols;
      mip.end();
      OsiClpSolverInterface lp;
      size_t before = HeapInUse();
      LoadDirect(d, lp);
      state.counters["direct_B_per_nnz"] = static_cast<double>(HeapInUse() - before) / nnz;
    }
    env.end();
  }
}
BENCHMARK(Memory)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

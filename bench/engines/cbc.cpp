// The cost of the CBC engine layer, side by side with CBC driven directly:
//
//   Load/*     building a Qel model and extracting it into CBC (up to the
//              LP loaded in CLP) against loading the same matrix directly
//              (CoinPackedMatrix + loadProblem), 1e4 to 1e6 nonzeros;
//   LoadOnce/* the same, each load once in a freshly started program;
//   Solve/*    a solve through the engine against CBC's driver called
//              directly with the same settings on the same LP (sample MIPs
//              shipped with CoinUtils, when present);
//   Solve_Model*  the same for models the engine reformulates (all-different,
//              pack, SOS2, lexicographic objectives, generated MIPs), the
//              direct side on the LP the engine writes with QelCbcWriteMps;
//   Facility/* the 100 x 1,000 capacitated facility location, weak and
//              strong form, built, extracted and loaded;
//   Memory     bytes per variable and per nonzero at 1e6 nonzeros.
//
// Run (Release): cmake --preset bench-engines && cmake --build --preset
// bench-engines && build/bench-engines/bench/qel_bench_cbc
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <CbcModel.hpp>
#include <CbcSolver.hpp>
#include <CoinMpsIO.hpp>
#include <CoinPackedMatrix.hpp>
#include <CoinPackedVector.hpp>
#include <OsiClpSolverInterface.hpp>

#include "engines/support/cbcdirect.h"
#include "engines/support/models.h"
#include "fresh.h"

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
// their order), one range per row, the objective. The terms of each row go
// through two arrays cleared and reused from row to row, as a program that
// builds many rows would do.
QelModel ToQel(QelEnv env, const Data& d) {
  QelModel model(env);
  QelNumVarArray x(env, 0);
  for (size_t j = 0; j < static_cast<size_t>(d.cols); ++j) {
    QelNumVar v(env, Bound(d.collb[j]), Bound(d.colub[j]),
                d.integer[j] != 0 ? QelVarType::Int : QelVarType::Float);
    x.add(v);
    model.add(v);
  }
  QelNumVarArray vars(env, 0);
  QelNumArray coefs(env, 0);
  for (int i = 0; i < d.rows; ++i) {
    vars.clear();
    coefs.clear();
    for (CoinBigIndex k = d.start[i]; k < d.start[i + 1]; ++k) {
      vars.add(x[d.index[static_cast<size_t>(k)]]);
      coefs.add(d.value[static_cast<size_t>(k)]);
    }
    model.add(QelRange(env, Bound(d.rowlb[static_cast<size_t>(i)]), QelScalProd(vars, coefs),
                       Bound(d.rowub[static_cast<size_t>(i)])));
  }
  vars.end();
  coefs.end();
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

// The Qel side of a load: the model built in `env`, extracted into a CBC
// engine and loaded into CLP; the nonzeros loaded.
long BuildExtractLoad(QelEnv env, const Data& d) {
  QelModel m = ToQel(env, d);
  QelCbc mip(env);
  mip.extract(m);
  long nnz = QelCbcLoad(mip.getImpl());
  mip.end();
  return nnz;
}

void Load_Qel(benchmark::State& state) {
  Data d = Generate(static_cast<int>(state.range(0)));
  long nnz = 0;
  for (auto _ : state) {
    QelEnv env;
    nnz = BuildExtractLoad(env, d);
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

// The same two loads, each once in a freshly started program
// (engines/fresh.h): the loops above reuse the memory of earlier iterations
// as the C library's allocator allows, which favors whichever side keeps its
// blocks below glibc's mmap threshold, while the other side's large arrays
// are mapped and faulted in afresh in every iteration. The child generates
// the model's data, then times the load alone.
int LoadOnceChild(const std::string& side, int rows) {
  Data d = Generate(rows);
  return freshrun::Report([&] {
    long nnz = 0;
    if (side == "direct") {
      OsiClpSolverInterface lp;
      LoadDirect(d, lp);
      nnz = lp.getNumElements();
    } else {
      // The environment's end is left out, as the direct side leaves out
      // freeing its data.
      nnz = BuildExtractLoad(QelEnv(), d);
    }
    return nnz == static_cast<long>(d.index.size());
  });
}

void LoadOnce(benchmark::State& state, const char* side) {
  freshrun::Iterate(state, {side, std::to_string(state.range(0))});
}

// The sizes of both one-shot loads, five programs each.
void LoadOnceSizes(benchmark::internal::Benchmark* b) {
  b->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime()->Iterations(5)->Unit(
      benchmark::kMillisecond);
}

void LoadOnce_Direct(benchmark::State& state) { LoadOnce(state, "direct"); }
BENCHMARK(LoadOnce_Direct)->Apply(LoadOnceSizes);

// Building the Qel model, extracting it and loading CLP.
void LoadOnce_Qel(benchmark::State& state) { LoadOnce(state, "qel"); }
BENCHMARK(LoadOnce_Qel)->Apply(LoadOnceSizes);

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

using cbcdirect::DriverSolve;
using cbcdirect::Solved;

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

// The engine on `m`, solved at each iteration; keepHeap as `keep` says.
void RunEngine(benchmark::State& state, QelEnv env, const QelModel& m, bool keep) {
  QelCbc mip(env);
  mip.setParam("keepHeap", keep ? "on" : "off");
  mip.extract(m);
  for (auto _ : state) mip.solve();
  if (!mip.hasSolution()) state.SkipWithError("no solution");
  state.counters["objective"] = mip.hasSolution() ? mip.getObjValue() : 0;
  state.counters["nodes"] = static_cast<double>(mip.getReport().nodes);
  mip.end();
}

// The engine on the sample built in Qel; keepHeap as `keep` says.
void SolveEngine(benchmark::State& state, bool keep) {
  Data d = Sample(state);
  if (d.cols == 0) return;
  QelEnv env;
  RunEngine(state, env, ToQel(env, d), keep);
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

// ---- (c) solving models the engine reformulates ---------------------------
//
// The conformance suite's models (each engine's tests solve them) and
// generated ones, built in Qel. *Engine* solves them through QelCbc.
// *Direct* gives CBC's driver the very LP the engine builds: the engine
// writes it (QelCbcWriteMps, one file per criterion), the files are read
// back with CoinMpsIO, and the driver runs on them with the arguments the
// engine passes, criterion by criterion for a lexicographic objective (each
// optimum kept by a row, as the engine keeps it).

struct Reformulated {
  const char* name;
  void (*build)(QelEnv, QelModel&);
};

const Reformulated Models[] = {
    // The conformance suite's models.
    {"queens6",
     [](QelEnv env, QelModel& m) {
       QelIntVarArray q = queens::Add(env, m, 6);
       m.add(QelObjective(env, q[0], QelObjective::Minimize, "first"));
     }},
    {"pack5",
     [](QelEnv env, QelModel& m) {
       m.add(binpacking::Build(env, {4, 3, 5, 2, 6}, 3, 10).model);
     }},
    {"piecewise", [](QelEnv env, QelModel& m) { mipmodel::Piecewise(env, m); }},
    {"lex", [](QelEnv env, QelModel& m) { mipmodel::Lexicographic(env, m); }},
    // Generated models.
    {"pack30",
     [](QelEnv env, QelModel& m) {
       std::vector<int> w = binpacking::Weights(30, 20, 100, 1);
       m.add(binpacking::Build(env, w, binpacking::FirstFitDecreasing(w, 150), 150).model);
     }},
    {"knapsack60", [](QelEnv env, QelModel& m) { m.add(mipmodel::Knapsack(env).model); }},
    {"facility10x40",
     [](QelEnv env, QelModel& m) { mipmodel::FacilityLocation(env, m, 10, 40, 64, true); }},
};

// The model `state.range(0)` built in `env`.
QelModel BuildModel(benchmark::State& state, QelEnv env) {
  const Reformulated& r = Models[state.range(0)];
  state.SetLabel(r.name);
  QelModel m(env, r.name);
  r.build(env, m);
  return m;
}

void Solve_ModelEngine(benchmark::State& state) {
  QelEnv env;
  RunEngine(state, env, BuildModel(state, env), false);
  env.end();
}

void Solve_ModelDirect(benchmark::State& state) {
  // The engine's LP, one file per criterion.
  std::vector<cbcdirect::FileLp> stages;
  {
    QelEnv env;
    {
      QelModel m = BuildModel(state, env);
      QelCbc mip(env);
      mip.extract(m);
      long criteria = 1;
      for (QelModel::Iterator it(m); it.ok(); ++it)
        if (auto* o = QelDynamicCast<QelObjectiveI>((*it).getImpl()))
          criteria = o->getNumCriteria();
      for (long k = 0; k < criteria; ++k) {
        std::string path = "/tmp/qel_bench_cbc_" + std::to_string(getpid()) + ".mps";
        mip.writeMps(path, k);
        stages.emplace_back();
        if (!cbcdirect::ReadMps(path, stages.back())) state.SkipWithError("no file written");
        std::remove(path.c_str());
      }
      mip.end();
    }
    env.end();
  }
  Solved solved;
  long nodes = 0;
  for (auto _ : state) {
    nodes = 0;
    // Each criterion in turn, the ones before kept at their optimum (within
    // 1e-6, relative) by a row, as the engine does.
    OsiClpSolverInterface lp(stages[0].lp);
    for (size_t k = 0; k < stages.size(); ++k) {
      if (k > 0) {
        CoinPackedVector row;
        const double* before = stages[k - 1].lp.getObjCoefficients();
        for (int j = 0; j < lp.getNumCols(); ++j)
          if (before[j] != 0) row.insert(j, before[j]);
        lp.addRow(row, -COIN_DBL_MAX,
                  solved.objective + 1e-6 * std::max(1.0, std::fabs(solved.objective)));
        lp.setObjective(stages[k].lp.getObjCoefficients());
      }
      solved = DriverSolve(lp, stages[0].sets);
      nodes += solved.nodes;
    }
  }
  // The files minimize: a maximized criterion comes back negated.
  state.counters["objective"] = solved.objective;
  state.counters["nodes"] = static_cast<double>(nodes);
}

constexpr int NumModels = static_cast<int>(sizeof(Models) / sizeof(Models[0]));
BENCHMARK(Solve_ModelDirect)->DenseRange(0, NumModels - 1)->Unit(benchmark::kMillisecond);
BENCHMARK(Solve_ModelEngine)->DenseRange(0, NumModels - 1)->Unit(benchmark::kMillisecond);

// ---- facility location -----------------------------------------------------

// 100 facilities, 1,000 customers (mipmodel::FacilityLocation, capacity
// 400): opening and serving costs, every customer served once, capacity per
// facility; the strong form adds serve[i][j] <= open[i] (100,000 rows).
// Built, extracted and loaded into CLP; the counters split the time.
void Facility(benchmark::State& state) {
  bool strong = state.range(0) != 0;
  state.SetLabel(strong ? "strong" : "weak");
  long nnz = 0;
  double build = 0, extract = 0;
  using Clock = std::chrono::steady_clock;
  for (auto _ : state) {
    QelEnv env;
    {
      Clock::time_point t0 = Clock::now();
      QelModel m(env);
      mipmodel::FacilityLocation(env, m, 100, 1000, 400, strong);
      Clock::time_point t1 = Clock::now();
      QelCbc mip(env);
      mip.extract(m);
      nnz = QelCbcLoad(mip.getImpl());
      Clock::time_point t2 = Clock::now();
      build += std::chrono::duration<double, std::milli>(t1 - t0).count();
      extract += std::chrono::duration<double, std::milli>(t2 - t1).count();
      mip.end();
    }
    env.end();
  }
  state.counters["nnz"] = static_cast<double>(nnz);
  state.counters["build_ms"] = build / static_cast<double>(state.iterations());
  state.counters["extract_load_ms"] = extract / static_cast<double>(state.iterations());
}
BENCHMARK(Facility)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

// ---- (d) memory --------------------------------------------------------------

// The C library's heap in use, and the engine's large arrays, which it maps
// itself.
size_t HeapInUse() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd + QelPodStorage::MappedBytesInUse();
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

int main(int argc, char** argv) {
  if (freshrun::IsChild(argc, argv) && argc == 4) return LoadOnceChild(argv[2], std::atoi(argv[3]));
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

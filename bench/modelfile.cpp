// Model files: reading and writing MPS and LP files of 10^6 and 2 10^6
// nonzeros, and reading the same MPS file with CoinMpsIO (CoinUtils, when it
// was found at configure time) in the same run.
//
// The model: n / 10 rows of 10 nonzeros each over n / 5 columns (ten
// different columns a row, from a fixed pseudo-random sequence), a fifth of the columns integer,
// every column bounded, an objective over every column, rows of every type (L, G, E and ranged).
// The files are written once by Qel to the temporary folder, then read and written by every
// contender.
//
// Counters: bytes_per_nonzero is the environment memory the read model
// holds (variables, rows, their terms, the objective) divided by the
// nonzeros; file_bytes the size of the file.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include <qel/qel.h>

#ifdef QEL_HAVE_COINUTILS
#include <CoinMessageHandler.hpp>
#include <CoinMpsIO.hpp>
#endif

#include "ratios.h"

namespace {

struct Generated {
  std::string mps;
  std::string lp;
  long nonzeros = 0;
};

std::string TempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() / name).string();
}

QelModel BuildModel(QelEnv env, long nonzeros) {
  long rows = nonzeros / 10;
  long cols = nonzeros / 5;
  QelNumVarArray x(env, 0);
  for (long j = 0; j < cols; ++j)
    x.add(QelNumVar(env, 0, 10 + static_cast<double>(j % 7),
                    j % 5 == 0 ? QelVarType::Int : QelVarType::Float));
  QelModel m(env, "bench");
  QelNumLinTermI* obj = QelNewObject<QelNumLinTermI>(env.getImpl(), env.getImpl(), 0.0);
  for (long j = 0; j < cols; ++j)
    obj->addTerm(1.0 + static_cast<double>(j % 13) / 4, x[j].getImpl());
  m.add(QelObjective(env, QelNumExpr(obj), QelObjective::Minimize, "cost"));
  std::uint64_t seed = 12345;
  for (long i = 0; i < rows; ++i) {
    QelNumLinTermI* t = QelNewObject<QelNumLinTermI>(env.getImpl(), env.getImpl(), 0.0);
    // Ten different columns: a random start, then steps of cols / 10.
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    long start = static_cast<long>((seed >> 33) % static_cast<std::uint64_t>(cols));
    for (int k = 0; k < 10; ++k) {
      seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
      long j = (start + k * (cols / 10)) % cols;
      double coef = static_cast<double>((seed >> 20) % 1000) / 8 - 60;
      t->addTerm(coef != 0 ? coef : 1, x[j].getImpl());  // no zero: every term is written
    }
    double lb = -1e20, ub = 1e20;
    switch (i % 4) {
      case 0:
        ub = 100;
        break;
      case 1:
        lb = -50;
        break;
      case 2:
        lb = ub = 3.5;
        break;
      default:
        lb = -20, ub = 75.25;
        break;
    }
    m.add(QelRange(env, lb, QelNumExpr(t), ub));
  }
  x.end();
  return m;
}

const Generated& Files(long nonzeros) {
  static std::map<long, Generated> made;
  auto it = made.find(nonzeros);
  if (it != made.end()) return it->second;
  Generated g;
  g.nonzeros = nonzeros;
  g.mps = TempPath("qel_bench_" + std::to_string(nonzeros) + ".mps");
  g.lp = TempPath("qel_bench_" + std::to_string(nonzeros) + ".lp");
  QelEnv env;
  QelModel m = BuildModel(env, nonzeros);
  QelWriteModel(m, g.mps);
  QelWriteModel(m, g.lp);
  env.end();
  return made.emplace(nonzeros, g).first->second;
}

void QelRead(benchmark::State& state, long nonzeros, bool lp) {
  const Generated& g = Files(nonzeros);
  const std::string& path = lp ? g.lp : g.mps;
  double bytes = 0;
  for (auto _ : state) {
    QelEnv env;
    QelInt before = env.getImpl()->getBytesInUse();
    QelModel m = QelReadModel(env, path);
    benchmark::DoNotOptimize(m.getImpl());
    state.PauseTiming();
    bytes = static_cast<double>(env.getImpl()->getBytesInUse() - before);
    env.end();
    state.ResumeTiming();
  }
  state.counters["bytes_per_nonzero"] = bytes / static_cast<double>(nonzeros);
  state.counters["file_bytes"] = static_cast<double>(std::filesystem::file_size(path));
}

void QelWrite(benchmark::State& state, long nonzeros, bool lp) {
  const Generated& g = Files(nonzeros);
  QelEnv env;
  QelModel m = QelReadModel(env, g.mps);
  std::string out = TempPath(std::string("qel_bench_out") + (lp ? ".lp" : ".mps"));
  for (auto _ : state) QelWriteModel(m, out);
  std::remove(out.c_str());
  env.end();
}

#ifdef QEL_HAVE_COINUTILS
void CoinRead(benchmark::State& state, long nonzeros) {
  const Generated& g = Files(nonzeros);
  for (auto _ : state) {
    CoinMpsIO reader;
    reader.messageHandler()->setLogLevel(0);
    int errors = reader.readMps(g.mps.c_str(), "");
    if (errors != 0) state.SkipWithError("CoinMpsIO refused the file");
    if (reader.getNumElements() != nonzeros) {
      std::string what = "CoinMpsIO read " + std::to_string(reader.getNumElements()) +
                         " nonzeros, " + std::to_string(reader.getNumRows()) + " rows, " +
                         std::to_string(reader.getNumCols()) + " columns";
      state.SkipWithError(what.c_str());
    }
    benchmark::DoNotOptimize(reader.getMatrixByCol());
  }
}
#endif

}  // namespace

int main(int argc, char** argv) {
  using qelbench::Check;
  std::vector<qelbench::Goal> goals;
  std::vector<Check> checks;
  for (long n : {1000000L, 2000000L}) {
    std::string suffix = "_nz" + std::to_string(n);
    benchmark::RegisterBenchmark(("read_mps" + suffix + "/qel").c_str(), [n](benchmark::State& s) {
      QelRead(s, n, false);
    })->Unit(benchmark::kMillisecond);
#ifdef QEL_HAVE_COINUTILS
    benchmark::RegisterBenchmark(("read_mps" + suffix + "/coinmpsio").c_str(),
                                 [n](benchmark::State& s) { CoinRead(s, n); })
        ->Unit(benchmark::kMillisecond);
#endif
    benchmark::RegisterBenchmark(("read_lp" + suffix + "/qel").c_str(), [n](benchmark::State& s) {
      QelRead(s, n, true);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("write_mps" + suffix + "/qel").c_str(), [n](benchmark::State& s) {
      QelWrite(s, n, false);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("write_lp" + suffix + "/qel").c_str(), [n](benchmark::State& s) {
      QelWrite(s, n, true);
    })->Unit(benchmark::kMillisecond);
  }
#ifdef QEL_HAVE_COINUTILS
  goals.push_back({"read_mps", "coinmpsio", 1.0});
#else
  std::printf(
      "CoinUtils not found at configure time: the CoinMpsIO contender of the model-file "
      "benchmarks is skipped.\n");
#endif
  // Linear: twice the nonzeros, at most 2.2 times the time.
  for (const char* w : {"read_mps", "read_lp", "write_mps", "write_lp"}) {
    std::string w1 = std::string(w) + "_nz1000000", w2 = std::string(w) + "_nz2000000";
    checks.push_back({w2 + " / " + w1 + " (qel)", qelbench::TimeRatio(w2, "qel", w1, "qel"), 2.2});
  }
  checks.push_back({"read_mps_nz1000000 bytes per nonzero (qel)",
                    [](const qelbench::Times& t) {
                      return t.counter("read_mps_nz1000000", "qel", "bytes_per_nonzero");
                    },
                    qelbench::Times::Missing()});
  int rc = qelbench::RunWithRatios(argc, argv, goals, checks, {"--benchmark_min_time=0.5"});
  for (long n : {1000000L, 2000000L}) {
    std::remove(TempPath("qel_bench_" + std::to_string(n) + ".mps").c_str());
    std::remove(TempPath("qel_bench_" + std::to_string(n) + ".lp").c_str());
  }
  return rc;
}

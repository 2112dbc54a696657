// Models: building, bulk removal, member iteration and cloning.
//
//   build_n<n>          n integer variables, a model, and n difference
//                       constraints x[i] != x[(i + 1) % n] added to it one
//                       by one, against the same data in plain std::vectors
//                       (the variable vector sized up front, as the variable
//                       array is; the constraint and model vectors grown by
//                       push_back, as the model grows by add).
//   remove_n<n>_k<pct>  removing k of the n members of a model (chosen at
//                       random, in random order) with one remove(array),
//                       against k single removes and against erase-remove_if
//                       over a std::vector with a std::unordered_set of the
//                       k members.
//   iterate_*_n<n>      walking the members of a model of n constraints
//                       (reading each member's id, or only taking each
//                       member), against std::list and, when Boost is found,
//                       boost::intrusive::list.
//   clone_n<n>          cloning a model of n constraints (and its variables)
//                       into another environment, compared in the checks
//                       with build_n<n>.
//
// Times are CPU times per whole operation; setting up and tearing down
// (ending the environment, refilling the model) are outside the timing.
#include <algorithm>
#include <cstdint>
#include <list>
#include <memory>
#include <numeric>
#include <random>
#include <unordered_set>
#include <vector>

#include <qel/qel.h>

#ifdef QEL_HAVE_BOOST
#include <boost/intrusive/list.hpp>
#endif

#include "ratios.h"

namespace {

// ---- building ----------------------------------------------------------------

// n variables, a model and n difference constraints added one by one.
QelModel BuildQel(QelEnv env, long n) {
  QelIntVarArray x(env, n, 0, 10);
  QelModel m(env, "m");
  for (long i = 0; i < n; ++i) m.add(QelDiff(env, x[i], x[(i + 1) % n]));
  return m;
}

// The same data as a user would keep it without the library.
struct PlainVar {
  double lb, ub;
  int type;
};
struct PlainDiff {
  std::size_t x, y;  // indices of the variables
  double constant;
};
struct PlainModel {
  std::vector<PlainVar> vars;
  std::vector<PlainDiff> constraints;
  std::vector<std::size_t> members;  // indices of the constraints
};

void BuildPlain(PlainModel& p, long n) {
  std::size_t count = static_cast<std::size_t>(n);
  p.vars.reserve(count);
  for (std::size_t i = 0; i < count; ++i) p.vars.push_back({0, 10, 1});
  for (std::size_t i = 0; i < count; ++i) {
    p.constraints.push_back({i, (i + 1) % count, 0.0});
    p.members.push_back(p.constraints.size() - 1);
  }
}

void QelBuild(benchmark::State& state, long n) {
  for (auto _ : state) {
    QelEnv env;
    QelModel m = BuildQel(env, n);
    benchmark::DoNotOptimize(m.getImpl());
    benchmark::ClobberMemory();
    state.PauseTiming();
    env.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * (2 * n + 1));
  // Memory, measured on a separate build: the bytes of the objects the
  // constraints add (each constraint, its model node and any expression
  // made for it) and of the variables, then the environment's bookkeeping
  // (extractable table), which is kept out of the object statistics.
  QelEnv env;
  QelEnvI* e = env.getImpl();
  QelInt start = e->getBytesInUse();
  QelIntVarArray x(env, n, 0, 10);
  QelModel m(env, "m");
  QelInt afterVars = e->getBytesInUse();
  for (long i = 0; i < n; ++i) m.add(QelDiff(env, x[i], x[(i + 1) % n]));
  QelInt afterConstraints = e->getBytesInUse();
  state.counters["B_per_constraint"] =
      static_cast<double>(afterConstraints - afterVars) / static_cast<double>(n);
  state.counters["B_per_var"] = static_cast<double>(afterVars - start) / static_cast<double>(n);
  state.counters["internal_B_per_object"] =
      static_cast<double>(e->getInternalBytes()) / static_cast<double>(2 * n + 1);
  env.end();
}

void PlainBuild(benchmark::State& state, long n) {
  for (auto _ : state) {
    auto p = std::make_unique<PlainModel>();
    BuildPlain(*p, n);
    benchmark::DoNotOptimize(p->vars.data());
    benchmark::DoNotOptimize(p->constraints.data());
    benchmark::DoNotOptimize(p->members.data());
    benchmark::ClobberMemory();
    state.PauseTiming();
    p.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * (2 * n + 1));
}

// ---- bulk removal --------------------------------------------------------------

// A model of n constraints in an environment of its own, its members in
// order, and k of them chosen at random, in random order. Every timed
// removal gets a fresh setup, so that each one starts from the same layout
// in memory (a model built once).
struct RemovalSetup {
  QelEnv env;
  QelModel model;
  QelExtractableArray chosen;
  std::vector<QelExtractableI*> allPtrs;
  std::vector<QelExtractableI*> chosenPtrs;

  RemovalSetup(long n, long k) {
    model = BuildQel(env, n);
    for (QelModel::Iterator it(model); it.ok(); ++it) allPtrs.push_back((*it).getImpl());
    std::vector<long> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0L);
    std::shuffle(order.begin(), order.end(), std::mt19937(42));
    chosen = QelExtractableArray(env, 0);
    for (long i = 0; i < k; ++i) {
      QelExtractableI* x = allPtrs[static_cast<std::size_t>(order[static_cast<std::size_t>(i)])];
      chosen.add(QelExtractable(x));
      chosenPtrs.push_back(x);
    }
  }
  ~RemovalSetup() { env.end(); }
  long members() const { return model.getImpl()->getMembers().getSize(); }
};

long Count(long n, int percent) { return n * percent / 100; }

// Runs `remove` on a fresh setup per iteration, timing only the removal.
template <class Remove>
void TimeRemoval(benchmark::State& state, long n, int percent, Remove remove) {
  long k = Count(n, percent);
  for (auto _ : state) {
    state.PauseTiming();
    auto s = std::make_unique<RemovalSetup>(n, k);
    state.ResumeTiming();
    remove(*s);
    state.PauseTiming();
    if (s->members() != n - k) state.SkipWithError("wrong count");
    s.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * (n + k));
}

void QelBulkRemove(benchmark::State& state, long n, int percent) {
  TimeRemoval(state, n, percent, [](RemovalSetup& s) { s.model.remove(s.chosen); });
}

void QelSingleRemoves(benchmark::State& state, long n, int percent) {
  TimeRemoval(state, n, percent, [](RemovalSetup& s) {
    for (QelExtractableI* x : s.chosenPtrs) s.model.remove(QelExtractable(x));
  });
}

void StdEraseRemoveIf(benchmark::State& state, long n, int percent) {
  long k = Count(n, percent);
  RemovalSetup s(n, k);
  std::vector<QelExtractableI*> members;
  for (auto _ : state) {
    state.PauseTiming();
    members = s.allPtrs;
    state.ResumeTiming();
    std::unordered_set<QelExtractableI*> gone(s.chosenPtrs.begin(), s.chosenPtrs.end());
    members.erase(std::remove_if(members.begin(), members.end(),
                                 [&gone](QelExtractableI* x) { return gone.count(x) != 0; }),
                  members.end());
    benchmark::DoNotOptimize(members.data());
    benchmark::ClobberMemory();
  }
  if (static_cast<long>(members.size()) != n - k) state.SkipWithError("wrong count");
  state.SetItemsProcessed(state.iterations() * (n + k));
}

// ---- member iteration ---------------------------------------------------------

// What a member of the other lists is: an object of the constraint's size
// with an id.
struct Item {
  QelInt id;
  char payload[56];
};

void QelIterate(benchmark::State& state, long n, bool readIds) {
  QelEnv env;
  QelModel m = BuildQel(env, n);
  for (auto _ : state) {
    std::uintptr_t sum = 0;
    if (readIds) {
      for (QelModel::Iterator it(m); it.ok(); ++it)
        sum += static_cast<std::uintptr_t>((*it).getImpl()->getId());
    } else {
      for (QelModel::Iterator it(m); it.ok(); ++it)
        sum += reinterpret_cast<std::uintptr_t>((*it).getImpl());
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * n);
  env.end();
}

void StdListIterate(benchmark::State& state, long n, bool readIds) {
  std::vector<std::unique_ptr<Item>> items;
  std::list<Item*> list;
  for (long i = 0; i < n; ++i) {
    items.push_back(std::make_unique<Item>());
    items.back()->id = i;
  }
  for (auto& item : items) list.push_back(item.get());
  for (auto _ : state) {
    std::uintptr_t sum = 0;
    if (readIds) {
      for (Item* item : list) sum += static_cast<std::uintptr_t>(item->id);
    } else {
      for (Item* item : list) sum += reinterpret_cast<std::uintptr_t>(item);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * n);
}

#ifdef QEL_HAVE_BOOST
namespace bi = boost::intrusive;

// The same object, linked through a hook inside it.
struct HookedItem : bi::list_base_hook<bi::link_mode<bi::normal_link>> {
  QelInt id;
  char payload[40];
};

void IntrusiveListIterate(benchmark::State& state, long n, bool readIds) {
  std::vector<std::unique_ptr<HookedItem>> items;
  bi::list<HookedItem> list;
  for (long i = 0; i < n; ++i) {
    items.push_back(std::make_unique<HookedItem>());
    items.back()->id = i;
  }
  for (auto& item : items) list.push_back(*item);
  for (auto _ : state) {
    std::uintptr_t sum = 0;
    if (readIds) {
      for (const HookedItem& item : list) sum += static_cast<std::uintptr_t>(item.id);
    } else {
      for (const HookedItem& item : list) sum += reinterpret_cast<std::uintptr_t>(&item);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * n);
  list.clear();
}
#endif

// ---- cloning --------------------------------------------------------------------

void QelClone(benchmark::State& state, long n) {
  QelEnv source;
  QelModel m = BuildQel(source, n);
  for (auto _ : state) {
    state.PauseTiming();
    QelEnv target;
    state.ResumeTiming();
    QelExtractableI* copy = target.getImpl()->getClone(m.getImpl());
    benchmark::DoNotOptimize(copy);
    state.PauseTiming();
    if (static_cast<QelModelI*>(copy)->getMembers().getSize() != n)
      state.SkipWithError("wrong clone");
    target.end();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * (2 * n + 1));
  source.end();
}

std::string Size(long n) { return "_n" + std::to_string(n); }

}  // namespace

int main(int argc, char** argv) {
  using qelbench::Check;
  using qelbench::Times;
  std::vector<qelbench::Goal> goals;
  std::vector<Check> checks;

  // Building.
  const long buildSizes[] = {10000, 20000, 100000, 200000, 1000000, 2000000};
  for (long n : buildSizes) {
    std::string w = "build" + Size(n);
    benchmark::RegisterBenchmark((w + "/qel").c_str(), [n](benchmark::State& s) {
      QelBuild(s, n);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((w + "/std_vector").c_str(), [n](benchmark::State& s) {
      PlainBuild(s, n);
    })->Unit(benchmark::kMillisecond);
  }
  goals.push_back({"build_n", "std_vector", 3.0});
  for (long n : {10000L, 100000L, 1000000L}) {
    std::string w1 = "build" + Size(n), w2 = "build" + Size(2 * n);
    checks.push_back({w2 + " / " + w1 + " (qel)", qelbench::TimeRatio(w2, "qel", w1, "qel"), 2.2});
    checks.push_back({w2 + " / " + w1 + " (std_vector)",
                      qelbench::TimeRatio(w2, "std_vector", w1, "std_vector"), Times::Missing()});
  }
  for (long n : {10000L, 1000000L}) {
    std::string w = "build" + Size(n);
    checks.push_back({w + ": bytes per constraint (qel)",
                      [w](const Times& t) { return t.counter(w, "qel", "B_per_constraint"); },
                      160});
  }

  // Bulk removal.
  const long removalSizes[] = {10000, 100000, 1000000};
  const int percents[] = {1, 10, 90};
  for (long n : removalSizes) {
    for (int pct : percents) {
      std::string w = "remove" + Size(n) + "_k" + std::to_string(pct) + "pct";
      benchmark::RegisterBenchmark((w + "/qel").c_str(), [n, pct](benchmark::State& s) {
        QelBulkRemove(s, n, pct);
      })->Unit(benchmark::kMicrosecond);
      benchmark::RegisterBenchmark((w + "/erase_remove_if").c_str(), [n, pct](benchmark::State& s) {
        StdEraseRemoveIf(s, n, pct);
      })->Unit(benchmark::kMicrosecond);
      long k = Count(n, pct);
      // k single removes walk the list each: quadratic, so only where a run
      // stays short.
      if (n * k <= 100000000L) {
        benchmark::RegisterBenchmark((w + "/single_removes").c_str(), [n,
                                                                       pct](benchmark::State& s) {
          QelSingleRemoves(s, n, pct);
        })->Unit(benchmark::kMicrosecond);
        if (k >= 100) goals.push_back({w, "single_removes", 2.0 / static_cast<double>(k)});
      }
      goals.push_back({w, "erase_remove_if", 2.0});
    }
    (void)n;
  }
  // Growth from n to 10 n (10 when the time per element stays the same; the
  // caches make it grow for every contender, see docs/performance.md).
  for (int pct : percents) {
    for (long n : {10000L, 100000L}) {
      std::string w1 = "remove" + Size(n) + "_k" + std::to_string(pct) + "pct";
      std::string w2 = "remove" + Size(10 * n) + "_k" + std::to_string(pct) + "pct";
      for (const char* c : {"qel", "erase_remove_if"})
        checks.push_back({w2 + " / " + w1 + " (" + c + ")", qelbench::TimeRatio(w2, c, w1, c),
                          Times::Missing()});
    }
  }

  // Member iteration.
  for (long n : {10000L, 100000L, 1000000L}) {
    for (bool ids : {true, false}) {
      std::string w = std::string(ids ? "iterate_ids" : "iterate_members") + Size(n);
      benchmark::RegisterBenchmark((w + "/qel").c_str(), [n, ids](benchmark::State& s) {
        QelIterate(s, n, ids);
      })->Unit(benchmark::kMicrosecond);
      benchmark::RegisterBenchmark((w + "/std_list").c_str(), [n, ids](benchmark::State& s) {
        StdListIterate(s, n, ids);
      })->Unit(benchmark::kMicrosecond);
#ifdef QEL_HAVE_BOOST
      benchmark::RegisterBenchmark((w + "/intrusive_list").c_str(), [n, ids](benchmark::State& s) {
        IntrusiveListIterate(s, n, ids);
      })->Unit(benchmark::kMicrosecond);
#endif
    }
  }
#ifdef QEL_HAVE_BOOST
  goals.push_back({"iterate_", "intrusive_list", 1.1});
#else
  std::printf(
      "Boost headers not found at configure time: the boost::intrusive::list "
      "contender of the iteration workloads is skipped.\n");
#endif

  // Cloning.
  for (long n : {10000L, 100000L, 1000000L}) {
    std::string w = "clone" + Size(n);
    benchmark::RegisterBenchmark((w + "/qel").c_str(), [n](benchmark::State& s) {
      QelClone(s, n);
    })->Unit(benchmark::kMillisecond);
    std::string b = "build" + Size(n);
    checks.push_back({w + " / " + b + " (qel)", qelbench::TimeRatio(w, "qel", b, "qel"), 3.0});
  }

  return qelbench::RunWithRatios(argc, argv, goals, checks, {"--benchmark_min_time=0.2"});
}

// Notice delivery: a modification with 0, 1, 4 and 16 listening
// algorithms, against a vector of std::function callbacks doing the same
// work (counting the calls). Two modifications: the bare broadcast of a
// notice about a model, and setting the sense of an objective (the setter
// stores the sense, builds its notice and broadcasts it). The cost per
// listener is the slope (t16 - t0) / 16 of each contender.
#include <functional>
#include <vector>

#include <qel/qel.h>

#include "ratios.h"

namespace {

const int kListenerCounts[] = {0, 1, 4, 16};

// A listening algorithm whose only work is to count what it receives.
class CountingAlgorithmI : public QelAlgorithmI {
 public:
  CountingAlgorithmI(QelEnvI* env, long* counter) : QelAlgorithmI(env), _counter(counter) {}
  void notifyChange(const QelExtractableI*, const QelChange&) override { ++*_counter; }

 private:
  long* _counter;
};

// `listeners` counting algorithms, each having extracted `x`.
std::vector<CountingAlgorithmI*> Listeners(QelEnv env, QelExtractableI* x, int listeners,
                                           long* counter) {
  std::vector<CountingAlgorithmI*> algs;
  for (int i = 0; i < listeners; ++i) {
    algs.push_back(QelNewObject<CountingAlgorithmI>(env.getImpl(), env.getImpl(), counter));
    algs.back()->extract(x);
  }
  return algs;
}

// Memory of the environment, objects and bookkeeping together.
QelInt AllBytes(QelEnv env) {
  return env.getImpl()->getBytesInUse() + env.getImpl()->getInternalBytes();
}

// Checks the count of calls received and that nothing was allocated.
void Verify(benchmark::State& state, QelEnv env, QelInt before, long counter, int listeners) {
  if (AllBytes(env) != before) state.SkipWithError("the modification allocated");
  if (counter != static_cast<long>(state.iterations()) * listeners)
    state.SkipWithError("wrong number of calls");
}

// The object whose modifications are broadcast: a model.
void QelNotify(benchmark::State& state, int listeners) {
  QelEnv env;
  QelModel m(env, "m");
  long counter = 0;
  std::vector<CountingAlgorithmI*> algs = Listeners(env, m.getImpl(), listeners, &counter);
  QelSetNameChange change(m.getImpl());
  QelInt before = AllBytes(env);
  for (auto _ : state) {
    benchmark::DoNotOptimize(&change);
    m.getImpl()->notify(change);
  }
  benchmark::DoNotOptimize(counter);
  Verify(state, env, before, counter, listeners);
  state.SetItemsProcessed(state.iterations());
  for (CountingAlgorithmI* a : algs) delete a;
  m.end();
  env.end();
}

// The same calls through a vector of callbacks.
void StdFunctionNotify(benchmark::State& state, int listeners) {
  long counter = 0;
  std::vector<std::function<void(const void*, const void*)>> callbacks;
  for (int i = 0; i < listeners; ++i)
    callbacks.emplace_back([&counter](const void*, const void*) { ++counter; });
  int object = 0, change = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&change);
    for (auto& f : callbacks) f(&object, &change);
  }
  benchmark::DoNotOptimize(counter);
  state.SetItemsProcessed(state.iterations());
}

// The whole modification: renaming an object (copying the name, then
// broadcasting the notice).
void QelSetName(benchmark::State& state, int listeners) {
  QelEnv env;
  QelModel m(env, "m");
  long counter = 0;
  std::vector<CountingAlgorithmI*> algs = Listeners(env, m.getImpl(), listeners, &counter);
  for (auto _ : state) m.getImpl()->setName("model");
  benchmark::DoNotOptimize(counter);
  state.SetItemsProcessed(state.iterations());
  for (CountingAlgorithmI* a : algs) delete a;
  m.end();
  env.end();
}

// Setting the sense of an objective: the setter stores the sense and
// broadcasts QelSetObjSense to the algorithms that extracted the objective.
void QelSetSense(benchmark::State& state, int listeners) {
  QelEnv env;
  QelNumVar x(env, 0, 10, "x");
  QelObjective obj(env, x, QelObjective::Minimize, "cost");
  long counter = 0;
  std::vector<CountingAlgorithmI*> algs = Listeners(env, obj.getImpl(), listeners, &counter);
  QelInt before = AllBytes(env);
  QelObjective::Sense sense = QelObjective::Minimize;
  for (auto _ : state) {
    sense = sense == QelObjective::Minimize ? QelObjective::Maximize : QelObjective::Minimize;
    obj.setSense(sense);
  }
  benchmark::DoNotOptimize(counter);
  Verify(state, env, before, counter, listeners);
  state.SetItemsProcessed(state.iterations());
  for (CountingAlgorithmI* a : algs) delete a;
  obj.end();
  env.end();
}

// What a user would write instead: an objective record with its sense and
// a vector of callbacks told after each change.
struct PlainObjective {
  int sense = 1;
  std::vector<std::function<void(const void*, const void*)>> callbacks;
  void setSense(int s) {
    sense = s;
    for (auto& f : callbacks) f(this, &sense);
  }
};

void StdFunctionSetSense(benchmark::State& state, int listeners) {
  long counter = 0;
  PlainObjective obj;
  for (int i = 0; i < listeners; ++i)
    obj.callbacks.emplace_back([&counter](const void*, const void*) { ++counter; });
  int sense = 1;
  for (auto _ : state) {
    sense = -sense;
    benchmark::DoNotOptimize(&obj);
    obj.setSense(sense);
  }
  benchmark::DoNotOptimize(counter);
  state.SetItemsProcessed(state.iterations());
}

std::string Name(const char* workload, int listeners, const char* contender) {
  return std::string(workload) + "_listeners" + std::to_string(listeners) + "/" + contender;
}

// (t16 - t0) / 16 of `contender` in `workload` (ns per listener).
double Slope(const qelbench::Times& t, const char* workload, const char* contender) {
  return (t.time(std::string(workload) + "_listeners16", contender) -
          t.time(std::string(workload) + "_listeners0", contender)) /
         16.0;
}

}  // namespace

int main(int argc, char** argv) {
  for (int n : kListenerCounts) {
    benchmark::RegisterBenchmark(Name("notify", n, "qel").c_str(),
                                 [n](benchmark::State& s) { QelNotify(s, n); });
    benchmark::RegisterBenchmark(Name("notify", n, "std_function").c_str(),
                                 [n](benchmark::State& s) { StdFunctionNotify(s, n); });
    benchmark::RegisterBenchmark(Name("setsense", n, "qel").c_str(),
                                 [n](benchmark::State& s) { QelSetSense(s, n); });
    benchmark::RegisterBenchmark(Name("setsense", n, "std_function").c_str(),
                                 [n](benchmark::State& s) { StdFunctionSetSense(s, n); });
    benchmark::RegisterBenchmark(Name("setname", n, "qel").c_str(),
                                 [n](benchmark::State& s) { QelSetName(s, n); });
  }
  std::vector<qelbench::Check> checks;
  for (const char* w : {"notify", "setsense"}) {
    std::string workload = w;
    checks.push_back(
        {workload + ": qel ns per listener, (t16 - t0) / 16",
         [workload](const qelbench::Times& t) { return Slope(t, workload.c_str(), "qel"); },
         qelbench::Times::Missing()});
    checks.push_back({workload + ": std_function ns per listener, (t16 - t0) / 16",
                      [workload](const qelbench::Times& t) {
                        return Slope(t, workload.c_str(), "std_function");
                      },
                      qelbench::Times::Missing()});
    checks.push_back({workload + ": per-listener slope, qel / std_function",
                      [workload](const qelbench::Times& t) {
                        return Slope(t, workload.c_str(), "qel") /
                               Slope(t, workload.c_str(), "std_function");
                      },
                      1.5});
    checks.push_back(
        {workload + ": ns per notice with no listener (qel)",
         [workload](const qelbench::Times& t) { return t.time(workload + "_listeners0", "qel"); },
         5.0});
  }
  return qelbench::RunWithRatios(argc, argv,
                                 {{"notify_listeners1", "std_function", 1.5},
                                  {"notify_listeners4", "std_function", 1.5},
                                  {"notify_listeners16", "std_function", 1.5},
                                  {"setsense_listeners1", "std_function", 1.5},
                                  {"setsense_listeners4", "std_function", 1.5},
                                  {"setsense_listeners16", "std_function", 1.5}},
                                 checks, {"--benchmark_min_time=0.2"});
}

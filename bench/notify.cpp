// Notice delivery: a modification with 0, 1, 4 and 16 listening
// algorithms, against a vector of std::function callbacks doing the same
// work (counting the calls).
#include <functional>
#include <vector>

#include <qel/qel.h>

#include "ratios.h"

namespace {

// A listening algorithm whose only work is to count what it receives.
class CountingAlgorithmI : public QelAlgorithmI {
 public:
  CountingAlgorithmI(QelEnvI* env, long* counter) : QelAlgorithmI(env), _counter(counter) {}
  void notifyChange(const QelExtractableI*, const QelChange&) override { ++*_counter; }

 private:
  long* _counter;
};

// The object whose modifications are broadcast: a model.
void QelNotify(benchmark::State& state, int listeners) {
  QelEnv env;
  QelModel m(env, "m");
  long counter = 0;
  std::vector<CountingAlgorithmI*> algs;
  for (int i = 0; i < listeners; ++i) {
    algs.push_back(QelNewObject<CountingAlgorithmI>(env.getImpl(), env.getImpl(), &counter));
    algs.back()->extract(m.getImpl());
  }
  QelSetNameChange change(m.getImpl());
  QelInt before = env.getImpl()->getBytesInUse();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&change);
    m.getImpl()->notify(change);
  }
  benchmark::DoNotOptimize(counter);
  if (env.getImpl()->getBytesInUse() != before) state.SkipWithError("notify allocated");
  state.SetItemsProcessed(state.iterations());
  for (CountingAlgorithmI* a : algs) delete a;
  m.end();
  env.end();
}

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
  std::vector<CountingAlgorithmI*> algs;
  for (int i = 0; i < listeners; ++i) {
    algs.push_back(QelNewObject<CountingAlgorithmI>(env.getImpl(), env.getImpl(), &counter));
    algs.back()->extract(m.getImpl());
  }
  for (auto _ : state) m.getImpl()->setName("model");
  benchmark::DoNotOptimize(counter);
  state.SetItemsProcessed(state.iterations());
  for (CountingAlgorithmI* a : algs) delete a;
  m.end();
  env.end();
}

}  // namespace

int main(int argc, char** argv) {
  for (int n : {0, 1, 4, 16}) {
    std::string k = std::to_string(n);
    benchmark::RegisterBenchmark(("notify_listeners" + k + "/qel").c_str(),
                                 [n](benchmark::State& s) { QelNotify(s, n); });
    benchmark::RegisterBenchmark(("notify_listeners" + k + "/std_function").c_str(),
                                 [n](benchmark::State& s) { StdFunctionNotify(s, n); });
    benchmark::RegisterBenchmark(("setname_listeners" + k + "/qel").c_str(),
                                 [n](benchmark::State& s) { QelSetName(s, n); });
  }
  return qelbench::RunWithRatios(argc, argv, {{"notify_listeners1", "std_function", 1.5},
                                              {"notify_listeners4", "std_function", 1.5},
                                              {"notify_listeners16", "std_function", 1.5}});
}

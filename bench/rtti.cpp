// Type tests: the library's isType against dynamic_cast on an equivalent
// hierarchy, for hits and misses at depths 1 to 4.
#include <vector>

#include <qel/kernel/rtti.h>

#include "ratios.h"

namespace {

// The library's identity: a chain of four classes under the notice root,
// and a sibling of the first used for misses.
class R1 : public QelRtti {
  QEL_RTTI_DECL(R1, QelRtti)
};
class R2 : public R1 {
  QEL_RTTI_DECL(R2, R1)
};
class R3 : public R2 {
  QEL_RTTI_DECL(R3, R2)
};
class R4 : public R3 {
  QEL_RTTI_DECL(R4, R3)
};
class ROther : public QelRtti {
  QEL_RTTI_DECL(ROther, QelRtti)
};
QEL_RTTI_DEF(R1)
QEL_RTTI_DEF(R2)
QEL_RTTI_DEF(R3)
QEL_RTTI_DEF(R4)
QEL_RTTI_DEF(ROther)

// The same shape with the compiler's identity.
struct S0 {
  virtual ~S0() = default;
};
struct S1 : S0 {};
struct S2 : S1 {};
struct S3 : S2 {};
struct S4 : S3 {};
struct SOther : S0 {};

constexpr int kObjects = 256;

// Objects of the class at `depth` (1..4), seen through the root.
std::vector<QelRtti*> QelObjects(int depth) {
  std::vector<QelRtti*> out;
  for (int i = 0; i < kObjects; ++i) {
    switch (depth) {
      case 1:
        out.push_back(new R1());
        break;
      case 2:
        out.push_back(new R2());
        break;
      case 3:
        out.push_back(new R3());
        break;
      default:
        out.push_back(new R4());
        break;
    }
  }
  return out;
}

std::vector<S0*> StdObjects(int depth) {
  std::vector<S0*> out;
  for (int i = 0; i < kObjects; ++i) {
    switch (depth) {
      case 1:
        out.push_back(new S1());
        break;
      case 2:
        out.push_back(new S2());
        break;
      case 3:
        out.push_back(new S3());
        break;
      default:
        out.push_back(new S4());
        break;
    }
  }
  return out;
}

// Hit: is the object an R1 (the test climbs depth - 1 classes)?
void QelHit(benchmark::State& state, int depth) {
  std::vector<QelRtti*> objs = QelObjects(depth);
  long hits = 0;
  for (auto _ : state) {
    for (QelRtti* o : objs) {
      benchmark::DoNotOptimize(o);
      hits += o->isType(R1::GetTypeInfo());
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * kObjects);
  for (QelRtti* o : objs) delete o;
}

// Miss: is the object an ROther (the test climbs to the root)?
void QelMiss(benchmark::State& state, int depth) {
  std::vector<QelRtti*> objs = QelObjects(depth);
  long hits = 0;
  for (auto _ : state) {
    for (QelRtti* o : objs) {
      benchmark::DoNotOptimize(o);
      hits += o->isType(ROther::GetTypeInfo());
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * kObjects);
  for (QelRtti* o : objs) delete o;
}

void StdHit(benchmark::State& state, int depth) {
  std::vector<S0*> objs = StdObjects(depth);
  long hits = 0;
  for (auto _ : state) {
    for (S0* o : objs) {
      benchmark::DoNotOptimize(o);
      hits += dynamic_cast<S1*>(o) != nullptr;
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * kObjects);
  for (S0* o : objs) delete o;
}

void StdMiss(benchmark::State& state, int depth) {
  std::vector<S0*> objs = StdObjects(depth);
  long hits = 0;
  for (auto _ : state) {
    for (S0* o : objs) {
      benchmark::DoNotOptimize(o);
      hits += dynamic_cast<SOther*>(o) != nullptr;
    }
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(state.iterations() * kObjects);
  for (S0* o : objs) delete o;
}

}  // namespace

int main(int argc, char** argv) {
  for (int d = 1; d <= 4; ++d) {
    std::string depth = std::to_string(d);
    benchmark::RegisterBenchmark(("istype_hit_depth" + depth + "/qel").c_str(),
                                 [d](benchmark::State& s) { QelHit(s, d); });
    benchmark::RegisterBenchmark(("istype_hit_depth" + depth + "/dynamic_cast").c_str(),
                                 [d](benchmark::State& s) { StdHit(s, d); });
    benchmark::RegisterBenchmark(("istype_miss_depth" + depth + "/qel").c_str(),
                                 [d](benchmark::State& s) { QelMiss(s, d); });
    benchmark::RegisterBenchmark(("istype_miss_depth" + depth + "/dynamic_cast").c_str(),
                                 [d](benchmark::State& s) { StdMiss(s, d); });
  }
  return qelbench::RunWithRatios(argc, argv, {{"istype", "dynamic_cast", 0.5}});
}

// Environment memory against the system allocator (and mimalloc when
// present): small-block churn in LIFO and random order, larger blocks, and
// building then freeing a few thousand blocks at once.
//
// mimalloc is loaded privately (dlopen, RTLD_LOCAL) and called through
// mi_malloc and mi_free: linked normally, its shared library would replace
// malloc and free in the whole process (it exports them, and glibc's
// __libc_malloc too), and the system-allocator contender would be mimalloc
// as well.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#ifdef QEL_HAVE_MIMALLOC
#include <dlfcn.h>
#endif

#include <qel/kernel/env.h>

#include "ratios.h"

namespace {

constexpr int kBatch = 1024;

// The allocators under comparison, behind one shape.
struct Qel {
  QelEnvI* env = new QelEnvI();
  ~Qel() { delete env; }
  void* alloc(size_t n) { return env->alloc(n); }
  void free(void* p, size_t n) { env->free(p, n); }
};
struct Glibc {
  void* alloc(size_t n) { return std::malloc(n); }
  void free(void* p, size_t) { std::free(p); }
};
#ifdef QEL_HAVE_MIMALLOC
// mimalloc's two entry points, found once in its privately loaded library.
void* (*MiMalloc)(size_t) = nullptr;
void (*MiFree)(void*) = nullptr;

bool LoadMimalloc() {
  void* lib = dlopen(QEL_MIMALLOC_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) return false;
  MiMalloc = reinterpret_cast<void* (*)(size_t)>(dlsym(lib, "mi_malloc"));
  MiFree = reinterpret_cast<void (*)(void*)>(dlsym(lib, "mi_free"));
  return MiMalloc != nullptr && MiFree != nullptr;
}

struct Mimalloc {
  void* alloc(size_t n) { return MiMalloc(n); }
  void free(void* p, size_t) { MiFree(p); }
};
#endif

std::vector<size_t> Sizes(size_t lo, size_t hi, int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<size_t> d(lo, hi);
  std::vector<size_t> out(static_cast<size_t>(n));
  for (size_t& s : out) s = d(rng);
  return out;
}

std::vector<int> Permutation(int n, unsigned seed) {
  std::vector<int> p(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) p[static_cast<size_t>(i)] = i;
  std::shuffle(p.begin(), p.end(), std::mt19937(seed));
  return p;
}

// Allocates a batch, touches every block, frees it in `order` (or LIFO).
template <class A>
void Churn(benchmark::State& state, size_t lo, size_t hi, bool random) {
  A a;
  std::vector<size_t> sizes = Sizes(lo, hi, kBatch, 7);
  std::vector<int> order = Permutation(kBatch, 11);
  std::vector<void*> blocks(kBatch);
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      void* p = a.alloc(sizes[static_cast<size_t>(i)]);
      static_cast<char*>(p)[0] = static_cast<char>(i);
      blocks[static_cast<size_t>(i)] = p;
    }
    benchmark::DoNotOptimize(blocks.data());
    if (random) {
      for (int k : order) a.free(blocks[static_cast<size_t>(k)], sizes[static_cast<size_t>(k)]);
    } else {
      for (int i = kBatch - 1; i >= 0; --i)
        a.free(blocks[static_cast<size_t>(i)], sizes[static_cast<size_t>(i)]);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

// Allocates 3,500 blocks of 32 to 255 bytes, touches them, frees them all.
template <class A>
void BuildThenFree(benchmark::State& state) {
  A a;
  constexpr int n = 3500;
  std::vector<size_t> sizes = Sizes(32, 255, n, 3);
  std::vector<void*> blocks(n);
  for (auto _ : state) {
    for (int i = 0; i < n; ++i) {
      void* p = a.alloc(sizes[static_cast<size_t>(i)]);
      std::memset(p, i, 8);
      blocks[static_cast<size_t>(i)] = p;
    }
    benchmark::DoNotOptimize(blocks.data());
    for (int i = 0; i < n; ++i)
      a.free(blocks[static_cast<size_t>(i)], sizes[static_cast<size_t>(i)]);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

template <class A>
void RegisterAll(const char* contender) {
  std::string c = contender;
  benchmark::RegisterBenchmark(("churn_lifo_8_64/" + c).c_str(),
                               [](benchmark::State& s) { Churn<A>(s, 8, 64, false); });
  benchmark::RegisterBenchmark(("churn_random_8_64/" + c).c_str(),
                               [](benchmark::State& s) { Churn<A>(s, 8, 64, true); });
  benchmark::RegisterBenchmark(("churn_lifo_128_4096/" + c).c_str(),
                               [](benchmark::State& s) { Churn<A>(s, 128, 4096, false); });
  benchmark::RegisterBenchmark(("churn_random_128_4096/" + c).c_str(),
                               [](benchmark::State& s) { Churn<A>(s, 128, 4096, true); });
  benchmark::RegisterBenchmark(("build_then_free_3500_32_255/" + c).c_str(),
                               [](benchmark::State& s) { BuildThenFree<A>(s); });
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll<Qel>("qel");
  RegisterAll<Glibc>("glibc");
#ifdef QEL_HAVE_MIMALLOC
  if (LoadMimalloc())
    RegisterAll<Mimalloc>("mimalloc");
  else
    std::printf("mimalloc (%s) could not be loaded: its comparisons are skipped\n",
                QEL_MIMALLOC_LIBRARY);
#else
  std::printf("mimalloc not found at configure time: its comparisons are skipped\n");
#endif
  return qelbench::RunWithRatios(argc, argv, {{"", "glibc", 0.5}, {"", "mimalloc", 1.0}}, {},
                                 {"--benchmark_min_time=0.3", "--benchmark_repetitions=3",
                                  "--benchmark_report_aggregates_only=true"});
}

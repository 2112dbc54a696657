// The snippets of the guide's section "Memory and threads" (docs/guide.md),
// run and checked.
#include <cstdlib>
#include <iostream>
#include <thread>

#include <qel/qel.h>

#include "guide_check.h"

namespace {

// guide: a custom allocator
class CountingAllocator : public QelCustomAllocatorI {
 public:
  void* alloc(size_t size) override {
    ++blocks;
    bytes += static_cast<long>(size);
    return std::malloc(size == 0 ? 1 : size);
  }
  void free(void* p, size_t size) override {
    if (p == nullptr) return;
    --blocks;
    bytes -= static_cast<long>(size);
    std::free(p);
  }
  void flush() override { ++flushes; }  // the environment is ending
  long blocks = 0;
  long bytes = 0;
  int flushes = 0;
};

}  // namespace

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Memory and threads");
  guide::Capture out;

  {
    // guide: the statistics
    QelEnv env;
    QelEnvI* e = env.getImpl();
    QelInt before = e->getBytesInUse();
    QelModel model(env, "m");
    QelIntVar x(env, 0, 10, "x");
    model.add(QelRange(env, 0, 2 * x, 10));
    std::cout << e->getNumberOfExtractables() << " objects, " << (e->getBytesInUse() > before)
              << (e->getBytesObtained() >= e->getBytesInUse()) << "\n";
    x.end();  // ends the term and the range too
    model.end();
    std::cout << e->getNumberOfExtractables() << " objects, " << e->getBytesInUse() - before
              << " bytes\n";
    env.end();
    Expect(out.take(), "4 objects, 11\n0 objects, 0 bytes\n", "the statistics");
  }

  {
    QelEnv env;
    QelIntVar x(env, 0, 10, "x");
    QelIntVar y(env, 0, 10, "y");
    QelInt before = env.getImpl()->getBytesInUse();
    // guide: arrays are the caller's
    QelExtractableArray pair(env, 2, x, y);
    QelIntArray sizes(env, 2);
    QelModel model(env, "m");
    model.add(pair);  // the model keeps the members, not the array
    pair.end();
    sizes.end();
    model.end();
    std::cout << env.getImpl()->getBytesInUse() - before << "\n";
    Expect(out.take(), "0\n", "arrays ended by their maker");
    env.end();
  }

  {
    // guide: one allocator thread
    QelEnv env;  // this thread is its allocator thread
    bool refused = false;
    std::thread other([&] {
      try {
        QelIntVar z(env, 0, 1, "z");  // allocates in env: refused here
      } catch (const QelEnvAllocatorThreadMismatch&) {
        refused = true;
      }
    });
    other.join();
    std::cout << refused << "\n";
    Expect(out.take(), "1\n", "another thread is refused");

    // guide: handing an environment over
    std::thread worker([&] {
      env.getImpl()->setAllocatorThread();  // the worker takes env over
      QelIntVar z(env, 0, 1, "z");
      z.end();
    });
    worker.join();
    env.getImpl()->setAllocatorThread();  // and this thread takes it back
    Check(env.getImpl()->getNumberOfExtractables() == 0, "the worker's variable ended");

    // guide: switching allocation off
    env.getImpl()->setAllocationDisabled(true);
    try {
      QelIntVar z(env, 0, 1);
    } catch (const QelEnvAllocationDisabled& e) {
      std::cout << e.what() << "\n";
    }
    env.getImpl()->setAllocationDisabled(false);
    Expect(out.take(), "Environment allocation is disabled\n", "allocation disabled");
    env.end();
  }

  {
    // guide: one environment per thread
    static QelStdMutex typeIndexLock;  // must outlive every thread using Qel
    QelEnvI::Mutex = &typeIndexLock;   // before the threads start
    long counts[2] = {0, 0};
    auto work = [&counts](int k) {
      QelEnv env;  // made, used and ended by this thread
      QelIntVarArray v(env, 100, 0, 9);
      QelModel m(env);
      m.add(QelAllDiff(env, v));
      counts[k] = env.getImpl()->getNumberOfExtractables();
      v.end();
      env.end();
    };
    std::thread t0(work, 0);
    std::thread t1(work, 1);
    t0.join();
    t1.join();
    QelEnvI::Mutex = nullptr;  // after they have all ended
    std::cout << counts[0] << " " << counts[1] << "\n";
    Expect(out.take(), "102 102\n", "one environment per thread");
  }

  {
    // guide: installing a custom allocator
    CountingAllocator counting;  // outlives the environment
    QelEnv env;
    env.getImpl()->setCustomAllocator(&counting);  // before any object
    QelIntVar x(env, 0, 10, "x");
    QelRange r(env, 0, x + 1, 5, "r");
    std::cout << (counting.blocks > 0) << " " << env.getImpl()->getBytesInUse() << "\n";
    x.end();  // x, the term and r go back to it
    std::cout << counting.blocks << " " << counting.bytes << "\n";
    env.end();
    std::cout << counting.flushes << "\n";
    Expect(out.take(), "1 0\n0 0\n1\n", "the custom allocator");
  }

  {
    // guide: one block at a time
    QelEnvConfig config;
    config.freeLists = false;  // each small block obtained singly
    QelEnv env(config);
    QelIntVar x(env, 0, 10, "x");
    std::cout << (env.getImpl()->getBytesObtained() == env.getImpl()->getBytesInUse()) << "\n";
    env.end();
    Expect(out.take(), "1\n", "no chunks without free lists");
  }
  return guide::Result();
}

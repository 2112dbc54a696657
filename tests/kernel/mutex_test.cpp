// The lock an application installs for the first assignment of type indices.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/qeltest.h"

namespace {
class LateA : public QelRtti {
  QEL_RTTI_DECL(LateA, QelRtti)
};
class LateB : public QelRtti {
  QEL_RTTI_DECL(LateB, QelRtti)
};
QEL_RTTI_DEF(LateA)
QEL_RTTI_DEF(LateB)
}  // namespace

TEST(StdMutex, KeepsAnotherThreadOutUntilReleased) {
  QelStdMutex m;
  QelMutexI* lock = &m;
  lock->lock();
  std::atomic<bool> entered{false};
  std::thread other([&] {
    lock->lock();
    entered = true;
    lock->unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(entered.load());  // cannot get in while the lock is held
  lock->unlock();
  other.join();
  EXPECT_TRUE(entered.load());
}

TEST(StdMutex, GuardsTheFirstAssignmentOfTypeIndices) {
  static QelStdMutex lock;
  QelEnvI::Mutex = &lock;
  std::atomic<bool> go{false};
  std::vector<QelInt> a(8), b(8);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      a[static_cast<size_t>(t)] = LateA::GetTypeIndex();
      b[static_cast<size_t>(t)] = LateB::GetTypeIndex();
    });
  }
  go = true;
  for (std::thread& th : threads) th.join();
  QelEnvI::Mutex = nullptr;
  for (int t = 1; t < 8; ++t) {
    EXPECT_EQ(a[static_cast<size_t>(t)], a[0]);
    EXPECT_EQ(b[static_cast<size_t>(t)], b[0]);
  }
  EXPECT_NE(a[0], 0);
  EXPECT_NE(b[0], 0);
  EXPECT_NE(a[0], b[0]);
}

// A custom allocator that refuses one chosen request, for tests of what
// operations do when memory is refused half way.
//
//   qeltest::RequestCounter counter;
//   qeltest::RefusingAllocator allocator(counter);
//   QelEnv env;
//   env.getImpl()->setCustomAllocator(&allocator);
//   ...                                   // set-up, every request served
//   counter.refuseAfter(3);               // the third request from now fails
//   EXPECT_THROW(operation(), QelMemoryException);
//   ...                                   // end every object
//   EXPECT_EQ(allocator.held(), 0);       // every byte came back
//
// ForEachRefusal runs a test body once for every request an operation
// makes, refusing that request, until the operation makes no more.
#ifndef QEL_TESTS_SUPPORT_REFUSING_H
#define QEL_TESTS_SUPPORT_REFUSING_H

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <qel/qel.h>

#include "support/ledger.h"

namespace qeltest {

/// Counts the requests of one or more allocators and names the one to
/// refuse.
struct RequestCounter {
  long count = 0;          ///< requests made so far
  long refuse = 0;         ///< the number of the request to refuse (0: none)
  bool refuseAll = false;  ///< refuse every request while set
  bool refused = false;
  /// Refuses the n-th request from now (n >= 1).
  void refuseAfter(long n) { refuse = count + n; }
  /// Refuses nothing more.
  void stop() {
    refuse = 0;
    refuseAll = false;
  }
};

/// Serves blocks from the heap and refuses the request its counter names
/// with QelMemoryException; checks that every block comes back once, with
/// the size it was taken with.
class RefusingAllocator : public QelCustomAllocatorI {
 public:
  explicit RefusingAllocator(RequestCounter& counter) : _counter(counter) {}
  RefusingAllocator(const RefusingAllocator&) = delete;
  RefusingAllocator& operator=(const RefusingAllocator&) = delete;
  void* alloc(size_t size) override {
    ++_counter.count;
    if (_counter.refuseAll || _counter.count == _counter.refuse) {
      _counter.refused = true;
      throw QelMemoryException();
    }
    return _ledger.take(size);
  }
  void free(void* p, size_t size) override { _ledger.give(p, size); }
  /// Bytes handed out and not given back.
  QelInt held() const { return _ledger.held(); }
  /// Blocks that came back wrongly.
  const std::vector<std::string>& errors() const { return _ledger.errors; }

 private:
  RequestCounter& _counter;
  BlockLedger _ledger;
};

/// Ends every live object of `env` together (so that its objects give all
/// their memory back).
inline void EndAllObjects(QelEnv env) {
  QelEnvI* e = env.getImpl();
  QelExtractableArray all(env, 0);
  for (QelInt id = 0; id < e->getExtractableTableSize(); ++id)
    if (QelExtractableI* x = e->getExtractable(id)) all.add(QelExtractable(x));
  all.endElements();
  all.end();
}

/// Calls `body(env, counter, n)` for n = 1, 2, ... with a fresh environment
/// whose custom allocator counts with `counter`; the body sets itself up,
/// calls counter.refuseAfter(n) before the operation under test and
/// counter.stop() after it, and returns whether the operation was refused. The loop ends at the
/// first n the operation completes (it made fewer than n requests); the allocator must then have
/// got every byte back and seen no wrong block. Returns the number of refusals.
template <class Body>
long ForEachRefusal(Body body) {
  long refusals = 0;
  for (long n = 1; n < 100000; ++n) {
    RequestCounter counter;
    RefusingAllocator allocator(counter);
    QelEnv env;
    env.getImpl()->setCustomAllocator(&allocator);
    bool refused = body(env, counter, n);
    EXPECT_EQ(allocator.held(), 0) << "refusing request " << n << " of the operation";
    for (const std::string& e : allocator.errors()) ADD_FAILURE() << e;
    env.end();
    if (!refused) break;
    ++refusals;
  }
  return refusals;
}

}  // namespace qeltest

#endif

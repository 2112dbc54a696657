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

#include <cstdlib>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>
#include <qel/qel.h>

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
  /// Blocks still out go back to the heap (the environment was ended
  /// without ending its objects).
  ~RefusingAllocator() override {
    for (auto& block : _live) std::free(block.first);
  }
  void* alloc(size_t size) override {
    ++_counter.count;
    if (_counter.refuseAll || _counter.count == _counter.refuse) {
      _counter.refused = true;
      throw QelMemoryException();
    }
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) throw QelMemoryException();
    _live[p] = size;
    taken += static_cast<QelInt>(size);
    return p;
  }
  void free(void* p, size_t size) override {
    if (p == nullptr) return;
    auto it = _live.find(p);
    if (it == _live.end()) {
      errors.push_back("a block that was not handed out came back");
      return;
    }
    if (it->second != size) {
      std::ostringstream os;
      os << "a block of " << it->second << " bytes came back as " << size << " bytes";
      errors.push_back(os.str());
    }
    given += static_cast<QelInt>(it->second);
    std::free(p);
    _live.erase(it);
  }
  /// Bytes handed out and not given back.
  QelInt held() const { return taken - given; }

  QelInt taken = 0;                 ///< bytes handed out
  QelInt given = 0;                 ///< bytes given back
  std::vector<std::string> errors;  ///< blocks that came back wrongly

 private:
  RequestCounter& _counter;
  std::unordered_map<void*, size_t> _live;
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
    for (const std::string& e : allocator.errors) ADD_FAILURE() << e;
    env.end();
    if (!refused) break;
    ++refusals;
  }
  return refusals;
}

}  // namespace qeltest

#endif

// The ledger of a test allocator: the blocks it handed out, each of which
// must come back once with the size it was taken with. Free of any test
// framework, so that the API fuzzer keeps its allocators' books with it too.
//
//   qeltest::BlockLedger ledger;
//   void* p = ledger.take(24);
//   ledger.give(p, 24);
//   // ledger.held() == 0, ledger.errors empty
#ifndef QEL_TESTS_SUPPORT_LEDGER_H
#define QEL_TESTS_SUPPORT_LEDGER_H

#include <cstdlib>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <qel/qel.h>

namespace qeltest {

/// Serves blocks from the heap and checks that each comes back once, with
/// the size it was taken with.
class BlockLedger {
 public:
  BlockLedger() = default;
  BlockLedger(const BlockLedger&) = delete;
  BlockLedger& operator=(const BlockLedger&) = delete;
  /// Blocks still out go back to the heap (their environment was ended
  /// without ending its objects).
  ~BlockLedger() {
    for (auto& block : _live) std::free(block.first);
  }
  /// A new block of `size` bytes; throws QelMemoryException when the heap
  /// refuses.
  void* take(size_t size) {
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) throw QelMemoryException();
    _live[p] = size;
    taken += static_cast<QelInt>(size);
    return p;
  }
  /// Gives back a block of `size` bytes; a block never handed out, or given
  /// back with another size, is written into `errors`.
  void give(void* p, size_t size) {
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
  std::unordered_map<void*, size_t> _live;
};

}  // namespace qeltest

#endif

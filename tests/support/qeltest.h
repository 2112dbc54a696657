// Helpers shared by the tests: a listening algorithm that records every
// notice it receives, a change visitor that records the structural calls,
// and a memory baseline that checks an environment got its memory back.
#ifndef QEL_TESTS_SUPPORT_QELTEST_H
#define QEL_TESTS_SUPPORT_QELTEST_H

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <qel/qel.h>

namespace qeltest {

/// One structural call a change visitor received.
struct VisitCall {
  std::string kind;  ///< "add" or "remove"
  QelExtractableI* owner;
  QelExtractableI* sub;
  bool operator==(const VisitCall& o) const {
    return kind == o.kind && owner == o.owner && sub == o.sub;
  }
};

inline std::ostream& operator<<(std::ostream& os, const VisitCall& c) {
  return os << c.kind << "(" << c.owner << ", " << c.sub << ")";
}

/// Records addSubExtractable / removeSubExtractable calls in order.
class RecordingVisitor : public QelChangeVisitor {
 public:
  using QelChangeVisitor::addSubExtractable;
  using QelChangeVisitor::removeSubExtractable;
  void addSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    calls.push_back({"add", owner, sub});
  }
  void removeSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    calls.push_back({"remove", owner, sub});
  }
  std::vector<VisitCall> calls;
};

/// An algorithm that records the class name of every notice it receives
/// (and the object it concerned), then follows it through its visitor.
class RecordingAlgorithmI : public QelAlgorithmI {
 public:
  explicit RecordingAlgorithmI(QelEnvI* env) : QelAlgorithmI(env) { setChangeVisitor(&visitor); }
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    notices.push_back(c.getRttiTypeName());
    objects.push_back(x);
    QelAlgorithmI::notifyChange(x, c);
  }
  RecordingVisitor visitor;
  std::vector<std::string> notices;
  std::vector<const QelExtractableI*> objects;
};

/// Makes a recording algorithm in `env` (ended with the environment, or
/// with `delete`).
inline RecordingAlgorithmI* MakeRecorder(QelEnv env) {
  return QelNewObject<RecordingAlgorithmI>(env.getImpl(), env.getImpl());
}

/// The bytes an environment has handed out and not got back.
inline QelInt BytesInUse(QelEnv env) { return env.getImpl()->getBytesInUse(); }

/// What an object prints with its display.
inline std::string Display(const QelExtractableI* x) {
  std::ostringstream os;
  x->display(os);
  return os.str();
}

/// What a handle prints with operator<<.
template <class T>
std::string Print(const T& x) {
  std::ostringstream os;
  os << x;
  return os.str();
}

/// Runs `f` and returns the message of the QelException it throws (or
/// "<no exception>"); a wrong exception type fails the test.
template <class E, class F>
std::string MessageOf(F f) {
  try {
    f();
  } catch (const E& e) {
    return e.getMessage() != nullptr ? e.getMessage() : "<null>";
  } catch (const std::exception& e) {
    ADD_FAILURE() << "unexpected exception type: " << e.what();
    return "<wrong exception>";
  }
  return "<no exception>";
}

/// The elements of `a`, in order.
inline std::vector<QelExtractableI*> Elements(const QelExtractableArray& a) {
  std::vector<QelExtractableI*> out;
  for (long i = 0; i < a.getSize(); ++i) out.push_back(a.getElement(i));
  return out;
}

/// What the last call of a recording hook (below) received.
struct HookCall {
  const QelAlgorithmI* algorithm = nullptr;
  const void* object = nullptr;
  void* data = nullptr;
  int calls = 0;  ///< calls since the record was last reset
};
/// The record the recording hooks write; reset it with `= HookCall()`.
inline HookCall lastHookCall;
/// What the recording hooks return, so tests can tell their answer apart.
inline int hookToken = 0;

/// Writes one call into lastHookCall.
inline void RecordHookCall(QelAlgorithm a, const void* object, void* data) {
  lastHookCall.algorithm = a.getImpl();
  lastHookCall.object = object;
  lastHookCall.data = data;
  ++lastHookCall.calls;
}

/// An extraction hook for class C that records its call and returns &hookToken.
template <class C>
void* RecordExtractHook(QelAlgorithm a, const C* x) {
  RecordHookCall(a, x, nullptr);
  return &hookToken;
}

/// A modification or unextraction hook for class C that records its call
/// and returns &hookToken.
template <class C>
void* RecordDataHook(QelAlgorithm a, const C* x, void* data) {
  RecordHookCall(a, x, data);
  return &hookToken;
}

/// Runs `f` on a thread of its own and tells how it went: "ended" when it
/// returned, "refused" when it threw QelEnvAllocatorThreadMismatch (what an
/// environment answers a thread other than its allocator thread), "other"
/// for any other exception.
template <class F>
std::string OutcomeOnAnotherThread(F f) {
  std::string outcome;
  std::thread t([&] {
    try {
      f();
      outcome = "ended";
    } catch (const QelEnvAllocatorThreadMismatch&) {
      outcome = "refused";
    } catch (...) {
      outcome = "other";
    }
  });
  t.join();
  return outcome;
}

/// Saves a static hook slot (optionally filling it with `value`) and puts
/// the saved content back when the scope ends, whatever happens.
template <class Slot>
class SlotGuard {
 public:
  explicit SlotGuard(Slot& slot) : _slot(slot), _saved(slot) {}
  SlotGuard(Slot& slot, Slot value) : _slot(slot), _saved(slot) { _slot = value; }
  ~SlotGuard() { _slot = _saved; }
  SlotGuard(const SlotGuard&) = delete;
  SlotGuard& operator=(const SlotGuard&) = delete;

 private:
  Slot& _slot;
  Slot _saved;
};

}  // namespace qeltest

#endif

// Algorithms: what extracts models and follows their changes.
//
// An algorithm (QelAlgorithmI, handle QelAlgorithm) is attached to one
// environment. It extracts objects (recording every object it reaches in the
// environment's extraction registry, so that it receives their change
// notices), holds a value per variable so that constraints and expressions
// can be evaluated against it, and follows changes in one of two ways chosen
// by the application: through a QelChangeVisitor it is given, or through the
// engine hook slots of the notice classes (applyToCP). Engines derive from
// QelAlgorithmI.
//
//   QelAlgorithm alg(env);
//   alg.setValue(x, 3);
//   double v = alg.getValue(x + 1);          // 4
//   alg.extract(model);                      // now receives model notices
//   alg.setChangeVisitor(&myVisitor);        // ... through this visitor
#ifndef QEL_KERNEL_ALGORITHM_H
#define QEL_KERNEL_ALGORITHM_H

#include <qel/kernel/array.h>
#include <qel/kernel/env.h>
#include <qel/kernel/envobject.h>

class QelNumExpr;
class QelNumExprArray;
class QelNumVar;
class QelExtractable;

/// How an algorithm receives the notices about what it extracted.
enum class QelListenMode {
  None,     ///< notices are not followed
  Visitor,  ///< through the change visitor (visitChange)
  Hooks     ///< through the engine hook slots (applyToCP)
};

/// Implementation of an algorithm; engines derive from it.
class QEL_API QelAlgorithmI : public QelRttiEnvObjectI {
  QEL_RTTI_DECL(QelAlgorithmI, QelRttiEnvObjectI)

 public:
  /// Attaches a new algorithm to `env`.
  explicit QelAlgorithmI(QelEnvI* env);
  /// Detaches the algorithm and frees its values.
  ~QelAlgorithmI() override;

  /// Records `x` and every object reachable from it as extracted by this
  /// algorithm; in hook mode, then calls `x->extractToCP(this)`. All or
  /// nothing: when recording fails or the hook throws, what this call
  /// recorded is forgotten again.
  virtual void extract(QelExtractableI* x);
  /// Records `x` and every object reachable from it, without calling any
  /// hook (used when a notice reports a new sub-object).
  void record(QelExtractableI* x);
  /// Forgets `x` (and what only it reached is kept: extraction records are
  /// per object); in hook mode calls `x->unextractFromCP` first.
  virtual void unextract(QelExtractableI* x);
  /// Forgets everything the algorithm extracted.
  virtual void clear();
  /// Whether this algorithm extracted `x`.
  QelBool isExtracted(const QelExtractableI* x) const;
  /// Called for every notice about an object this algorithm extracted (and
  /// every notice that concerns no single object). The default dispatches
  /// by the listening mode.
  virtual void notifyChange(const QelExtractableI* x, const QelChange& c);

  /// Sets the visitor that receives the notices (listening mode Visitor).
  /// The visitor stays the caller's.
  void setChangeVisitor(QelChangeVisitor* visitor) {
    _visitor = visitor;
    _mode = visitor != nullptr ? QelListenMode::Visitor : QelListenMode::None;
  }
  /// The change visitor, or null.
  QelChangeVisitor* getChangeVisitor() const { return _visitor; }
  /// Follows notices through the engine hook slots, passing `data` as the
  /// hooks' data pointer.
  void useHooks(void* data = nullptr) {
    _mode = QelListenMode::Hooks;
    _hookData = data;
  }
  /// The listening mode.
  QelListenMode getListenMode() const { return _mode; }
  /// Sets the listening mode directly.
  void setListenMode(QelListenMode mode) { _mode = mode; }
  /// The data pointer handed to the hooks.
  void* getHookData() const { return _hookData; }
  /// The algorithm's slot in its environment (0..63).
  int getSlot() const { return _slot; }

  /// Sets the value of variable `v` in the solution held by the algorithm.
  void setValue(const QelNumVarI* v, double value);
  /// The value of `v`; throws QelWrongUsage when none was set.
  double getValue(const QelNumVarI* v) const;
  /// Whether a value was set for `v`.
  QelBool hasValue(const QelNumVarI* v) const;
  /// Evaluates `e` against the held values.
  double getValue(const QelNumExprI* e) const;
  /// Forgets every value.
  void clearValues();

 private:
  int _slot;
  QelListenMode _mode = QelListenMode::None;
  QelChangeVisitor* _visitor = nullptr;
  void* _hookData = nullptr;
  double* _values = nullptr;  // by variable id; NaN-boxed "unset" marker
  unsigned char* _hasValue = nullptr;
  QelInt _valueCapacity = 0;
};

/// Handle on an algorithm.
class QEL_API QelAlgorithm {
 public:
  /// An empty handle.
  QelAlgorithm() = default;
  /// A handle on `impl`.
  QelAlgorithm(QelAlgorithmI* impl) : _impl(impl) {}
  /// A new algorithm attached to `env`.
  explicit QelAlgorithm(QelEnv env);
  /// The implementation, or null.
  QelAlgorithmI* getImpl() const { return _impl; }
  /// Ends the algorithm (detached, memory given back); the handle empties.
  /// From a thread that may not free the environment's memory, or with its
  /// allocation switched off, throws that failure and changes nothing.
  void end();
  /// Extracts `x` (see QelAlgorithmI::extract).
  void extract(const QelExtractable& x) const;
  /// Sets the value of `v`.
  void setValue(const QelNumVar& v, double value) const;
  /// The value of expression `e` against the held values.
  double getValue(const QelNumExpr& e) const;
  /// The values of every element of `xs`, in one new array of the
  /// algorithm's environment (the caller ends it). An element without a
  /// value throws as getValue does, and then nothing is made.
  QelNumArray getValues(const QelNumExprArray& xs) const;
  /// The environment.
  QelEnv getEnv() const;

  /// Thrown when extraction finds an empty hook slot.
  class QEL_API ExtractFailure : public QelException {
   public:
    /// No message, code 0.
    ExtractFailure() : QelException(nullptr, 0) {}
  };
  /// Thrown when modification or removal finds an empty hook slot.
  class QEL_API RemoveFailure : public QelException {
   public:
    /// No message, code 0.
    RemoveFailure() : QelException(nullptr, 0) {}
  };
  /// Thrown when a notice finds an empty hook slot.
  class QEL_API CannotChangeException : public QelException {
   public:
    /// For the algorithm `algorithm` (kept).
    explicit CannotChangeException(const QelAlgorithmI* algorithm);
    /// The algorithm that could not follow the change.
    const QelAlgorithmI* getAlgorithm() const { return _algorithm; }

   private:
    const QelAlgorithmI* _algorithm;
  };

 private:
  QelAlgorithmI* _impl = nullptr;
};

#endif

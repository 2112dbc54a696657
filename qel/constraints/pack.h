// The pack constraint.
//
// A pack constraint (QelPackI, handle QelPack) describes the packing of
// items into containers: item i, of integer size weight[i], goes into the
// container given by the integer expression where[i], and load[j] is the
// total size placed in container j. Optionally an integer expression counts
// the containers used, and an integer set variable is the set of used
// containers; an array of Boolean arrays can be carried along for the
// engine, which alone gives it a meaning. The constraint is built complete
// and never changes: the handle checks the pieces, copies the three arrays
// (the caller's arrays stay the caller's) and the constraint locks the load
// and where expressions, the used-count expression and the cardinality
// variable of the used set, and gives every lock back when it is destroyed.
// The library prints, clones and visits the constraint and hands it to an
// engine through the hook slots; it does not evaluate it.
//
//   QelEnv env;
//   QelIntVarArray load(env, 2, 0, 10);       // two containers
//   QelIntVarArray where(env, 3, 0, 1);       // three items
//   QelIntArray size(env, 3);
//   size.set(0, 4); size.set(1, 3); size.set(2, 5);
//   QelPack pack(env, load, where, size, "pack");
//   QelPack unit(env, load, where);           // every item of size 1
//   std::cout << pack;   // "QelPackI (pack)", then _load, _where, _weight
//   size.end();                               // the pack holds its own copy
#ifndef QEL_CONSTRAINTS_PACK_H
#define QEL_CONSTRAINTS_PACK_H

#include <iosfwd>

#include <qel/kernel/constraint.h>

/// The pack constraint implementation.
class QEL_API QelPackI : public QelConstraintI {
  QEL_EXTRACTABLE_DECL(QelPackI, QelConstraintI)

 public:
  /// With a used-count expression, a used set and Boolean arrays, each of
  /// which may be empty. Adopts the three arrays (no copy).
  QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
           QelIntExpr used, QelIntSetVar usedSet, QelArray<QelBoolArray> boolArrays,
           const char* name = nullptr);
  /// With a used-count expression and a used set, each possibly empty.
  QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
           QelIntExpr used, QelIntSetVar usedSet, const char* name = nullptr);
  /// With a used set, which must not be empty.
  QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
           QelIntSetVar usedSet, const char* name = nullptr);
  /// With a used-count expression, which must not be empty, and Boolean
  /// arrays.
  QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
           QelIntExpr used, QelArray<QelBoolArray> boolArrays, const char* name = nullptr);
  /// With a used-count expression, which must not be empty.
  QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
           QelIntExpr used, const char* name = nullptr);
  /// With the three arrays only.
  QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
           const char* name = nullptr);
  /// Gives back the locks on load, where, the used-count expression and the
  /// cardinality variable, and ends the three arrays. The used set and the
  /// Boolean arrays are left alone.
  ~QelPackI() override;

  /// A copy in `env`: cloned expressions and used set, copied weights, the
  /// same Boolean arrays (shared), no name.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// Presents load, where, then the used-count expression and the used set
  /// when present. Weights and Boolean arrays are not visited.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Writes "QelPackI (" name or id ")", then one line each for _load,
  /// _where, _weight, and _used and _usedSet when present.
  void display(std::ostream& os) const override;

  /// One load expression per container.
  QelIntExprArray getLoad() const { return _load; }
  /// For each item, the expression giving its container.
  QelIntExprArray getWhere() const { return _where; }
  /// For each item, its size.
  QelIntArray getWeight() const { return _weight; }
  /// The expression counting the used containers, or null.
  QelIntExprI* getUsed() const { return _used; }
  /// The set variable of the used containers, or null.
  QelIntSetVarI* getUsedSet() const { return _usedSet; }
  /// The Boolean arrays carried for the engine (possibly an empty handle).
  QelArray<QelBoolArray> getBoolArrays() const { return _boolArrays; }

 private:
  /// The body every constructor shares: stores the pieces, then locks
  /// load and where, and raises the counts of `used` and of the used set's
  /// cardinality variable, testing each for null first only when told to.
  QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
           QelIntExprI* used, QelIntSetVarI* usedSet, QelArray<QelBoolArray> boolArrays,
           const char* name, bool testUsed, bool testUsedSet);

  QelIntExprArray _load;
  QelIntExprArray _where;
  QelIntArray _weight;
  QelIntExprI* _used;
  QelIntSetVarI* _usedSet;
  QelArray<QelBoolArray> _boolArrays;
};

/// Handle on a pack constraint.
class QEL_API QelPack : public QelHandle<QelPackI, QelConstraint> {
 public:
  using QelHandle<QelPackI, QelConstraint>::QelHandle;
  /// An empty handle.
  QelPack() = default;
  /// Every item of size 1.
  QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
          const char* name = nullptr);
  /// Every item of size `weight`.
  QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where, QelInt weight,
          const char* name = nullptr);
  /// Item sizes `weight`, with the set of used containers.
  QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
          const QelIntArray& weight, const QelIntSetVar& usedSet, const char* name = nullptr);
  /// Item sizes `weight`, with the count of used containers and Boolean
  /// arrays for the engine.
  QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
          const QelIntArray& weight, const QelIntExpr& used,
          const QelArray<QelBoolArray>& boolArrays, const char* name = nullptr);
  /// Item sizes `weight`, with the count of used containers.
  QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
          const QelIntArray& weight, const QelIntExpr& used, const char* name = nullptr);
  /// Item sizes `weight`.
  QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
          const QelIntArray& weight, const char* name = nullptr);

  /// The body of the constructors: checks weight, where and load for empty
  /// handles (QelEmptyHandleException, in that order) and where against
  /// weight for size (QelDifferentSizeException), copies the three arrays
  /// and makes the constraint; the handle then points to it. On failure the
  /// handle is left as it was and nothing stays allocated.
  void init(QelEnv env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
            QelIntExpr used, QelIntSetVar usedSet, QelArray<QelBoolArray> boolArrays,
            const char* name);

  /// Thrown when the where and weight arrays differ in size.
  class QEL_API QelDifferentSizeException : public QelException {
   public:
    /// With `message` and the code 0.
    explicit QelDifferentSizeException(const char* message) : QelException(message, 0) {}
  };
};

#endif

// The all-different and all-min-distance constraints.
//
// Both constraints hold one array of integer expressions. All-different
// (QelAllDiffI, handle QelAllDiff) requires the expressions to take pairwise
// different values; all-min-distance (QelAllMinDistanceI, handle
// QelAllMinDistance) requires every two of them to lie at least k apart.
// The expressions given at construction are locked while the constraint
// holds them and released when it is destroyed; the constraint owns its
// array (a copy when it was built from the caller's array). Expressions may
// join later, directly with addExpr or column-wise through the column object
// returned by the handle's operator(), and leave with removeExpr; only the
// all-different constraint tells its listeners of a removal
// (QelAllDiffRemoveVar). When an expression is ended, the constraint drops it
// in one sweep (all-min-distance, with the environment's one-by-one flag set,
// ends itself instead). Only all-different can check a solution (eval).
//
//   QelEnv env;
//   QelIntVarArray x(env, 3, 0, 9);
//   QelAllDiff ad(env, x, "ad");              // x[0], x[1], x[2] all different
//   QelAllMinDistance spread(env, x, 2);      // every two at least 2 apart
//   QelAlgorithm alg(env);
//   alg.setValue(x[0], 1); alg.setValue(x[1], 2); alg.setValue(x[2], 2);
//   double ok = ad->eval(alg);                // 0.0: x[1] == x[2]
//   ad->removeExpr(x[2].getImpl());           // one QelAllDiffRemoveVar
//   QelAddVarToAllDiff column = ad();         // a new variable joins ad ...
//   column.install(QelIntVar(env, 0, 9).getImpl());  // ... when installed
//   std::cout << ad;   // "QelAllDiffI (ad)", then "  _exprArray [...]"
#ifndef QEL_CONSTRAINTS_ALLDIFF_H
#define QEL_CONSTRAINTS_ALLDIFF_H

#include <iosfwd>

#include <qel/change/change.h>
#include <qel/kernel/constraint.h>

// ===========================================================================
// Implementation classes
// ===========================================================================

/// What the all-different and all-min-distance constraints share: the owned
/// array of integer expressions, its locking and release, the removal scan,
/// the sweep of removed members, cloning of the array, the visit and the
/// first two lines of the display. Not a class of its own for type tests:
/// both constraints answer as direct constraints (QelConstraintI).
class QEL_API QelExprArrayConstraintI : public QelConstraintI {
 public:
  /// Releases every expression of the array, then ends the array.
  ~QelExprArrayConstraintI() override;

  /// Presents the expression array: beginVisit, visitChildren(this, array),
  /// endVisit.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Writes the type name, " (", the name or id, ")", a line end, then
  /// "  _exprArray " and the array in the shared array form, a line end.
  void display(std::ostream& os) const override;

  /// The expressions (the constraint's own array; do not end it).
  QelIntExprArray getExprArray() const { return _exprArray; }

 protected:
  /// Adopts `exprs` (no copy) and locks every expression in it.
  QelExprArrayConstraintI(QelEnvI* env, QelIntExprArray exprs, const char* name);
  /// An empty array of size 0 in `env`; nothing is locked.
  QelExprArrayConstraintI(QelEnvI* env, const char* name);

  /// Appends `e` to the array; no lock, no notice.
  void appendExpr(const QelIntExprI* e);
  /// Removes every occurrence of `e`, scanning down from the last element,
  /// and calls `removed()` after each single removal. No release.
  template <class OnRemoved>
  void removeEach(const QelIntExprI* e, OnRemoved removed) {
    // Downward, so that the elements still to be examined do not move.
    long n = _exprArray.getSize();
    for (long i = n - 1; i >= 0; --i) {
      if (_exprArray.getElement(i) != e) continue;
      _exprArray.remove(i, 1);
      removed();
    }
  }
  /// Drops the expressions the environment has marked as being removed
  /// (one sweep, no notice).
  void removeMarkedExprs();
  /// A new array in `env` holding the clones of the expressions.
  QelIntExprArray cloneExprArray(QelEnvI* env) const;

  /// The expressions; the constraint owns the array.
  QelIntExprArray _exprArray;
};

/// The all-different constraint: all expressions take pairwise different
/// values.
class QEL_API QelAllDiffI : public QelExprArrayConstraintI {
  QEL_EXTRACTABLE_DECL(QelAllDiffI, QelConstraintI)

 public:
  /// Over `exprs` (adopted, not copied; every expression locked).
  QelAllDiffI(QelEnvI* env, QelIntExprArray exprs, const char* name = nullptr);
  /// Over no expression yet (an empty array of size 0 in `env`).
  explicit QelAllDiffI(QelEnvI* env, const char* name = nullptr);

  /// A copy in `env` over the clones of the expressions (no name).
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// Drops the expressions being removed from everything (one sweep, no
  /// notice), whatever the one-by-one flag.
  void atRemove(QelExtractableI* removed, void* data) override;
  /// 1.0 when the values of the expressions held by `alg` are pairwise
  /// different (compared as doubles), else 0.0; 1.0 over no expression.
  double eval(QelAlgorithm alg) const override;

  /// Appends `e`; no lock is taken and no notice is sent.
  void addExpr(QelIntExprI* e);
  /// Removes every occurrence of `e` (last first), notifying one
  /// QelAllDiffRemoveVar per occurrence. The lock on `e` is kept.
  void removeExpr(QelIntExprI* e);
};

/// The all-min-distance constraint: every two expressions lie at least k
/// apart.
class QEL_API QelAllMinDistanceI : public QelExprArrayConstraintI {
  QEL_EXTRACTABLE_DECL(QelAllMinDistanceI, QelConstraintI)

 public:
  /// Over `exprs` (adopted, not copied; every expression locked), distance k.
  QelAllMinDistanceI(QelEnvI* env, QelIntExprArray exprs, QelInt k, const char* name = nullptr);
  /// Over no expression yet, distance k.
  QelAllMinDistanceI(QelEnvI* env, QelInt k, const char* name = nullptr);

  /// A copy in `env` over the clones of the expressions, same k (no name).
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// With the one-by-one flag set, the general rule (the constraint ends
  /// itself); otherwise drops the expressions being removed (no notice).
  void atRemove(QelExtractableI* removed, void* data) override;
  /// The shared display, then "  k " and k, a line end.
  void display(std::ostream& os) const override;

  /// Appends `e`; no lock is taken and no notice is sent.
  void addExpr(const QelIntExprI* e);
  /// Removes every occurrence of `e` (last first); no notice. The lock on
  /// `e` is kept.
  void removeExpr(const QelIntExprI* e);
  /// The minimum distance.
  QelInt getK() const { return _k; }

 private:
  QelInt _k;
};

// ===========================================================================
// Notices
// ===========================================================================

/// An expression was removed from an all-different constraint.
class QEL_API QelAllDiffRemoveVar : public QelChange {
  QEL_CHANGE_DECL(QelAllDiffRemoveVar, QelChange)

 public:
  /// `expr` was removed from `constraint`.
  QelAllDiffRemoveVar(QelIntExprI* expr, QelAllDiffI* constraint)
      : _expr(expr), _constraint(constraint) {}
  /// removeSubExtractable(constraint, expression).
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The constraint.
  QelExtractableI* getChangedExtractable() const override;
  /// The removed expression.
  QelIntExprI* getExpr() const { return _expr; }
  /// The constraint.
  QelAllDiffI* getConstraint() const { return _constraint; }

 private:
  QelIntExprI* _expr;
  QelAllDiffI* _constraint;
};

/// The shared body of the two column objects by which a newly created
/// variable joins an all-different (C = QelAllDiffI) or all-min-distance
/// (C = QelAllMinDistanceI) constraint. N is the column class itself.
/// Column objects live in environment memory when they outlive a call:
/// copy them with getCopy, dispose of them with destroy.
template <class N, class C>
class QelAddVarToExprArrayConstraint : public QelAddNumVar {
 public:
  /// Not available: throws QelNotImplemented "Column Wise with QelDeleter
  /// not implemented".
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override {
    throw QelNotImplemented("Column Wise with QelDeleter not implemented");
  }
  /// The constraint's environment (null without a constraint).
  QelEnvI* getEnv() const override {
    return _constraint != nullptr ? _constraint->getEnv() : nullptr;
  }
  /// A copy in `env` memory: null next and variable, the same constraint.
  QelAddExtractable* getCopy(QelEnvI* env) const override {
    return QelColumnNotice<N>::Copy(static_cast<const N&>(*this), env);
  }
  /// Runs the destructor and gives the memory back to `env`.
  void destroy(QelEnvI* env) override { QelColumnNotice<N>::Destroy(static_cast<N*>(this), env); }
  /// Runs the destructor and gives the memory back to the constraint's
  /// environment.
  void destroy() { destroy(getEnv()); }
  /// The constraint.
  QelExtractableI* what() const override { return _constraint; }
  /// Appends the variable being added to the constraint (addExpr).
  void apply() const override {
    _constraint->addExpr(const_cast<QelIntExprI*>(static_cast<const QelIntExprI*>(getObj())));
  }
  /// The constraint.
  C* getConstraint() const { return _constraint; }

 protected:
  /// For `constraint`, with null next and variable.
  explicit QelAddVarToExprArrayConstraint(C* constraint) : _constraint(constraint) {}
  /// The same constraint; next and variable null.
  QelAddVarToExprArrayConstraint(const QelAddVarToExprArrayConstraint& other)
      : QelAddNumVar(other), _constraint(other._constraint) {}

 private:
  C* _constraint;
};

/// The column object that makes a new variable join an all-different
/// constraint.
class QEL_API QelAddVarToAllDiff
    : public QelAddVarToExprArrayConstraint<QelAddVarToAllDiff, QelAllDiffI> {
  QEL_CHANGE_DECL(QelAddVarToAllDiff, QelAddNumVar)

 public:
  /// For `constraint`, with null next and variable.
  explicit QelAddVarToAllDiff(QelAllDiffI* constraint)
      : QelAddVarToExprArrayConstraint(constraint) {}
};

/// The column object that makes a new variable join an all-min-distance
/// constraint.
class QEL_API QelAddVarToAllMinDistance
    : public QelAddVarToExprArrayConstraint<QelAddVarToAllMinDistance, QelAllMinDistanceI> {
  QEL_CHANGE_DECL(QelAddVarToAllMinDistance, QelAddNumVar)

 public:
  /// For `constraint`, with null next and variable.
  explicit QelAddVarToAllMinDistance(QelAllMinDistanceI* constraint)
      : QelAddVarToExprArrayConstraint(constraint) {}
};

// ===========================================================================
// Handles
// ===========================================================================

/// Handle on an all-different constraint.
class QEL_API QelAllDiff : public QelHandle<QelAllDiffI, QelConstraint> {
 public:
  using QelHandle<QelAllDiffI, QelConstraint>::QelHandle;
  /// An empty handle.
  QelAllDiff() = default;
  /// Over the variables of `vars` (a new expression array holding them);
  /// an empty `vars` throws QelEmptyHandleException.
  QelAllDiff(QelEnv env, const QelIntVarArray& vars, const char* name = nullptr);
  /// Over a copy of `exprs` (the caller's array stays the caller's); an
  /// empty `exprs` throws QelEmptyHandleException.
  QelAllDiff(QelEnv env, const QelIntExprArray& exprs, const char* name = nullptr);
  /// Over no expression yet.
  explicit QelAllDiff(QelEnv env, const char* name = nullptr);
  /// A column object by which a new variable joins this constraint.
  QelAddVarToAllDiff operator()() const;
};

/// Handle on an all-min-distance constraint.
class QEL_API QelAllMinDistance : public QelHandle<QelAllMinDistanceI, QelConstraint> {
 public:
  using QelHandle<QelAllMinDistanceI, QelConstraint>::QelHandle;
  /// An empty handle.
  QelAllMinDistance() = default;
  /// Over the variables of `vars`, distance k; an empty `vars` throws
  /// QelEmptyHandleException.
  QelAllMinDistance(QelEnv env, const QelIntVarArray& vars, QelInt k, const char* name = nullptr);
  /// Over a copy of `exprs`, distance k; an empty `exprs` throws
  /// QelEmptyHandleException.
  QelAllMinDistance(QelEnv env, const QelIntExprArray& exprs, QelInt k, const char* name = nullptr);
  /// Over no expression yet, distance k.
  QelAllMinDistance(QelEnv env, QelInt k, const char* name = nullptr);
  /// A column object by which a new variable joins this constraint.
  QelAddVarToAllMinDistance operator()() const;
};

#endif

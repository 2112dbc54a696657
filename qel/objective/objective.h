// The objective: what a solver optimizes, and in which direction.
//
// An objective (QelObjectiveI, handle QelObjective) holds either one numeric
// expression or a private duplicate of a multi-criterion expression
// (qel/objective/multicriterion.h), and a sense: Minimize (1) or Maximize
// (-1). It never switches from one kind to the other. The expression is
// shared with whoever else uses it: the objective holds one use of it and,
// before changing it in place, copies it when someone else uses it too
// (copy-on-write), so other holders never see the objective's changes.
// Every modification is made first and then told to the listening
// algorithms by a notice of qel/objective/objectivechange.h; operations that
// make no sense for several criteria throw
// QelNotAllowedWithMultiCriterionException naming the operation. A
// modification that is refused (a misuse, or memory) leaves the objective
// as it was: no copy of its expression is kept.
//
//   QelEnv env;
//   QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
//   QelObjective obj(env, 2 * x + y, QelObjective::Minimize, "cost");
//   obj.setLinearCoef(y, 3);         // QelSetObjCoef
//   obj.setConst(5);                 // QelSetObjConst
//   obj.setSense(QelObjective::Maximize);
//   std::cout << obj;                // "cost = (2 * x + 3 * y + 5, QelObjective, Maximize);"
//   QelMultiCriterionExpr lex = QelStaticLex(env, x, y);
//   QelObjective both = QelMinimize(env, lex);   // keeps its own duplicate
//   lex.end();
//
// Engines take part through the hook slots of QelObjectiveI: the three
// extraction slots of every extractable plus _addToCP and _removeFromCP,
// told when the objective becomes or stops being an algorithm's active one.
#ifndef QEL_OBJECTIVE_OBJECTIVE_H
#define QEL_OBJECTIVE_OBJECTIVE_H

#include <cstdint>
#include <iosfwd>

#include <qel/change/hooks.h>
#include <qel/kernel/expr.h>
#include <qel/objective/multicriterion.h>

/// Handle on an objective.
class QEL_API QelObjective : public QelHandle<QelObjectiveI, QelExtractable> {
 public:
  /// The direction of optimization.
  enum Sense : std::int32_t {
    Minimize = 1,  ///< the smaller the better
    Maximize = -1  ///< the larger the better
  };

  using QelHandle<QelObjectiveI, QelExtractable>::QelHandle;
  /// An empty handle.
  QelObjective() = default;
  /// A new objective in `env` whose expression is the constant `constant`.
  QelObjective(QelEnv env, double constant, Sense sense = Minimize, const char* name = nullptr);
  /// A new objective in `env` over the expression `expr` (kept as the
  /// expression kernel's take-for-keeping gives it, with one use). Throws
  /// QelEmptyHandleException "Using empty QelNumExpr handle." when empty.
  QelObjective(QelEnv env, QelNumExprArg expr, Sense sense = Minimize, const char* name = nullptr);
  /// A new objective in `env` over a duplicate of `mc`. The handle is not
  /// tested (QelMaximize and QelMinimize are): it must not be empty, and a
  /// multi-criterion expression without criteria is accepted.
  QelObjective(QelEnv env, QelMultiCriterionExpr mc, Sense sense = Minimize,
               const char* name = nullptr);

  /// The sense.
  Sense getSense() const;
  /// Sets the sense and notifies QelSetObjSense, even when unchanged.
  void setSense(Sense sense) const;
  /// The expression; refused for a multi-criterion objective.
  QelNumExprArg getExpr() const;
  /// The expression, as getExpr().
  operator QelNumExprArg() const;
  /// The constant term of the (linear) expression; 0.0 for a
  /// multi-criterion objective.
  double getConst() const;
  /// Sets the constant term of the (linear) expression.
  void setConst(double constant) const;
  /// Replaces the expression.
  void setExpr(QelNumExprArg expr) const;
  /// Sets the coefficient of `x` (0 removes it).
  void setLinearCoef(QelNumVar x, double coef) const;
  /// Sets the coefficient of each xs[i] to coefs[i].
  void setLinearCoefs(QelNumVarArray xs, QelNumArray coefs) const;
  /// Sets the coefficient of x * y.
  void setQuadCoef(QelNumVar x, QelNumVar y, double coef) const;
  /// The linear terms of the expression.
  QelNumExpr::LinearIterator getLinearIterator() const;
  /// The quadratic terms of the expression.
  QelNumExpr::QuadIterator getQuadIterator() const;
};

/// The objective implementation.
class QEL_API QelObjectiveI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(QelObjectiveI, QelExtractableI)

 public:
  /// Engine hook told that the objective became an algorithm's active one.
  static void* (*_addToCP)(QelAlgorithm, const QelObjectiveI*, void*);
  /// Engine hook told that the objective stopped being the active one.
  static void* (*_removeFromCP)(QelAlgorithm, const QelObjectiveI*, void*);

  /// Over the constant `constant` (an expression made by the kernel).
  QelObjectiveI(QelEnvI* env, double constant, QelObjective::Sense sense,
                const char* name = nullptr);
  /// Over what `expr` gives to keep, with one use taken on it.
  QelObjectiveI(QelEnvI* env, QelNumExprI* expr, QelObjective::Sense sense,
                const char* name = nullptr);
  /// Over a duplicate of `mc` in `env`.
  QelObjectiveI(QelEnvI* env, const QelMultiCriterionExprI* mc, QelObjective::Sense sense,
                const char* name = nullptr);
  /// Gives the use of the expression back and deletes the duplicate.
  ~QelObjectiveI() override;

  // ---- QelExtractableI ---------------------------------------------------
  /// A copy in `env` over the clone of the expression (or of the
  /// criteria), with the same sense and no name.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// The expression, or the criteria array.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// "<name or obj<id>> = (<expression>, QelObjective, Minimize);" and a
  /// line end (Maximize when the sense is -1).
  void display(std::ostream& os) const override;
  /// Forwards to _addToCP; empty: QelAlgorithm::ExtractFailure.
  void* whenAddedToCP(QelAlgorithm algorithm, void* data) const override;
  /// Forwards to _removeFromCP; empty: QelAlgorithm::ExtractFailure.
  void* whenRemovedFromCP(QelAlgorithm algorithm, void* data) const override;

  // ---- criteria ----------------------------------------------------------
  /// Number of criteria: 1 for a single expression.
  long getNumCriteria() const;
  /// Criterion `i`; throws QelWrongUsage "QelObjectiveI: Criterion index
  /// out of range" unless i < getNumCriteria().
  QelNumExprI* getCriterion(long i) const;
  /// The expression; refused for a multi-criterion objective.
  QelNumExprI* getExpr() const;
  /// The multi-criterion duplicate, or null.
  QelMultiCriterionExprI* getMultiCriterion() const { return _multiCriterion; }
  /// The sense.
  QelObjective::Sense getSense() const { return _sense; }

  // ---- modifications -----------------------------------------------------
  /// Sets the sense, then notifies QelSetObjSense.
  void setSense(QelObjective::Sense sense);
  /// Writes `constant` into the expression's constant (copy-on-write), then
  /// notifies QelSetObjConst. A multi-criterion objective accepts only 0.
  void setConst(double constant);
  /// Takes `expr` (as kept), notifies QelSetObjExpr, then gives the old
  /// expression back.
  void setExpr(QelNumExprArg expr);
  /// Sets the coefficient of `x` (copy-on-write), then notifies
  /// QelSetObjCoef.
  void setCoef(QelNumVar x, double coef);
  /// Sets the coefficients of `xs` (copy-on-write), then notifies
  /// QelSetObjCoefs with the former coefficients.
  void setCoef(QelNumVarArray xs, QelNumArray coefs);
  /// Sets the coefficient of x * y (copy-on-write), then notifies
  /// QelSetObjQuadCoef.
  void setQuadCoef(QelNumVar x, QelNumVar y, double coef);
  /// Appends the term coef * v (column-wise modeling); no notice.
  void addVar(QelNumVarI* v, double coef);
  /// Merges and cleans the terms of the expression; returns 0, no notice.
  long normalize();

 private:
  QelNumLinTermI* ownExpr();
  void disown(QelNumExprI* former) noexcept;
  void refuseMultiCriterion(const char* operation) const;
  void refuseAggregate() const;
  QelNumLinTermI* ownCoefficients();
  static QelNumExprI* keep(QelNumExprI* expr);

  QelObjective::Sense _sense;
  QelNumExprI* _expr;
  QelMultiCriterionExprI* _multiCriterion;
};

/// An objective maximizing the criteria of `mc` (duplicated). Throws
/// QelWrongUsage "Using empty handle" for an empty environment or `mc`, and
/// "Array of criteria has size 0" when `mc` has no criterion.
QEL_API QelObjective QelMaximize(QelEnv env, QelMultiCriterionExpr mc, const char* name = nullptr);
/// An objective minimizing the criteria of `mc` (duplicated); same checks
/// as QelMaximize.
QEL_API QelObjective QelMinimize(QelEnv env, QelMultiCriterionExpr mc, const char* name = nullptr);

#endif

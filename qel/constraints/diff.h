// The difference constraint: an expression differs from a constant
// (x != c) or from another expression (x != y).
//
// QelDiffI holds one use of each expression it compares (taken by its
// constructor, given back by its destructor with QelEnvI::release). It can
// be evaluated against the values an algorithm holds, cloned, visited,
// printed (a detailed or a short form, chosen by the environment's
// detailed-display flag) and handed to an engine through its hook slots.
//
//   QelEnv env;
//   QelIntVar x(env, 0, 9, "x"), y(env, 0, 9, "y");
//   QelDiff d1(env, x, 3.0);              // x != 3
//   QelDiff d2(env, x + 1, y, "d2");      // x + 1 != y
//   QelAlgorithm alg(env);
//   alg.setValue(x, 3);
//   d1->eval(alg);                        // 0.0: violated
//   std::cout << d1;                      // "x != 3 "
//   env.getImpl()->setDetailedDisplay(true);
//   std::cout << d1;                      // "c<id>: QelDiff(x != 3) "
#ifndef QEL_CONSTRAINTS_DIFF_H
#define QEL_CONSTRAINTS_DIFF_H

#include <iosfwd>

#include <qel/change/hooks.h>
#include <qel/kernel/constraint.h>
#include <qel/kernel/expr.h>

/// The difference constraint x != c or x != y.
class QEL_API QelDiffI : public QelConstraintI {
  QEL_EXTRACTABLE_DECL(QelDiffI, QelConstraintI)

 public:
  /// x != c; takes one use of `x`.
  QelDiffI(QelEnvI* env, QelNumExprI* x, double c, const char* name = nullptr);
  /// x != y; takes one use of `x` and one of `y`.
  QelDiffI(QelEnvI* env, QelNumExprI* x, QelNumExprI* y, const char* name = nullptr);
  /// Gives the uses back (x always, y when present), then ends the
  /// constraint.
  ~QelDiffI() override;

  /// 1.0 when the left and right values differ (NaN differs from
  /// everything), else 0.0. The right side is evaluated first.
  double eval(QelAlgorithm alg) const override;
  /// A copy in `env` over the clones of the expressions (no name).
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// x, then y when present.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// The detailed or the short form, by the environment's flag; no line end.
  void display(std::ostream& os) const override;

  /// The left expression.
  QelNumExprI* getX() const { return _x; }
  /// The right expression, or null for x != c.
  QelNumExprI* getY() const { return _y; }
  /// The constant (0.0 in the form x != y).
  double getConstant() const { return _constant; }

 private:
  QelNumExprI* _x;
  QelNumExprI* _y;
  double _constant;
};

/// Handle on a difference constraint.
class QEL_API QelDiff : public QelHandle<QelDiffI, QelConstraint> {
 public:
  using QelHandle<QelDiffI, QelConstraint>::QelHandle;
  /// An empty handle.
  QelDiff() = default;
  /// x != c, built in (and placed in the memory of) x's environment, which
  /// is expected to be `env`. An empty `x` throws QelEmptyHandleException.
  QelDiff(QelEnv env, QelNumExprArg x, double c, const char* name = nullptr);
  /// x != y, built in (and placed in the memory of) x's environment, which
  /// is expected to be `env`. An empty `x` or `y` throws
  /// QelEmptyHandleException.
  QelDiff(QelEnv env, QelNumExprArg x, QelNumExprArg y, const char* name = nullptr);
};

#endif

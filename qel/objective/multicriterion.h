// Multi-criterion expressions: several criteria optimized lexicographically.
//
// A multi-criterion expression (QelMultiCriterionExprI, handle
// QelMultiCriterionExpr) is an ordered list of numeric expressions, the
// criteria, highest priority first. With StaticLex the solver optimizes them
// in exactly that order; with DynamicLex it may reorder them. It is not an
// extractable: it is an environment object that an objective keeps a
// private duplicate of (qel/objective/objective.h), so the caller's object
// and the objective's copy are independent while both hold a use of the
// same criterion expressions. The caller ends its own object with end().
//
//   QelEnv env;
//   QelNumVar cost(env, 0, 100, "cost"), delay(env, 0, 10, "delay");
//   QelMultiCriterionExpr mc = QelStaticLex(env, cost, 2 * delay);
//   QelObjective obj = QelMinimize(env, mc, "lex");
//   std::cout << mc;     // "{MultiCriterion}, StaticLex([cost, 2 * delay])"
//   mc.end();            // the objective keeps its own duplicate
//
// Objective operations that make no sense for several criteria throw
// QelNotAllowedWithMultiCriterionException, which prints the operation's
// name followed by " - not allowed with multi-criterion models".
#ifndef QEL_OBJECTIVE_MULTICRITERION_H
#define QEL_OBJECTIVE_MULTICRITERION_H

#include <cstdint>
#include <iosfwd>

#include <qel/kernel/envobject.h>
#include <qel/kernel/expr.h>

/// The implementation of a multi-criterion expression.
class QEL_API QelMultiCriterionExprI : public QelRttiEnvObjectI {
  QEL_RTTI_DECL(QelMultiCriterionExprI, QelRttiEnvObjectI)

 public:
  /// How the criteria are ordered.
  enum Type : std::int32_t {
    StaticLex = 0,  ///< strictly in the order given
    DynamicLex = 1  ///< the solver may change the order
  };

  /// Adopts `exprs` (null for an empty handle) and takes one use of each of
  /// its expressions; names the object when `name` is not null. When naming
  /// fails, the uses are given back and the array stays the caller's.
  QelMultiCriterionExprI(QelEnvI* env, QelNumExprArray exprs, Type type, const char* name);
  /// Gives back the name, the uses of the criteria and the array.
  ~QelMultiCriterionExprI() override;

  /// Number of criteria; throws QelWrongUsage when no array is held.
  virtual long getNumCriteria() const;
  /// Criterion `i` (no range check); throws QelWrongUsage when no array is
  /// held.
  virtual QelNumExprI* getCriterion(long i) const;
  /// The criteria array as held (an empty handle when there is none).
  virtual QelNumExprArray getExprs() const;
  /// Writes the name (or "{MultiCriterion}"), ", ", the order kind and the
  /// criteria array in parentheses; no line end.
  virtual void display(std::ostream& os) const;
  /// A copy in `env` over the same criterion expressions, with its own
  /// array, the same type and no name.
  virtual QelMultiCriterionExprI* duplicate(QelEnvI* env) const;
  /// A copy in `env` over the clones of the criteria (no name).
  virtual QelMultiCriterionExprI* makeClone(QelEnvI* env) const;
  /// The criteria array; throws QelWrongUsage "QelMultiCriterionExprI:
  /// numExprArray not initialized" when none is held (it never makes one).
  virtual QelNumExprArray getOrMakeExprs() const;
  /// false: the criteria are general numeric expressions.
  virtual QelBool isZol() const;

  /// Replaces the name by a copy of `name` in environment memory (null
  /// clears it).
  void setName(const char* name);
  /// The name, or null.
  const char* getName() const { return _name; }
  /// The kind of order.
  Type getType() const { return _type; }

 private:
  void releaseName();

  Type _type;
  char* _name;
  QelNumExprArray _exprs;
};

/// Handle on a multi-criterion expression. Copies share the object; the
/// holder that made it ends it.
class QEL_API QelMultiCriterionExpr {
 public:
  /// An empty handle.
  QelMultiCriterionExpr() = default;
  /// A handle on `impl` (null: empty).
  QelMultiCriterionExpr(QelMultiCriterionExprI* impl) : _impl(impl) {}
  /// A new multi-criterion expression in `env` over a copy of `exprs` (an
  /// empty handle gives an expression without criteria array). Throws
  /// QelWrongUsage "QelEnv: using empty handle" for an empty environment.
  QelMultiCriterionExpr(QelEnv env, QelNumExprArray exprs, QelMultiCriterionExprI::Type type,
                        const char* name = nullptr);
  /// The implementation, or null.
  QelMultiCriterionExprI* getImpl() const { return _impl; }
  /// Access to the implementation.
  QelMultiCriterionExprI* operator->() const { return _impl; }
  /// Deletes the object (nothing for an empty handle); the handle empties.
  /// From a thread that may not free the environment's memory, or with its
  /// allocation switched off, throws that failure and changes nothing.
  void end();

 private:
  QelMultiCriterionExprI* _impl = nullptr;
};

/// Prints the expression's display; throws QelWrongUsage
/// "QelMultiCriterionExpr: using empty handle" for an empty handle.
QEL_API std::ostream& operator<<(std::ostream& os, const QelMultiCriterionExpr& mc);

/// The criteria of `exprs` (copied) in fixed priority order.
QEL_API QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArray exprs,
                                           const char* name = nullptr);
/// The criteria of `exprs` (copied), in an order the solver may change.
QEL_API QelMultiCriterionExpr QelDynamicLex(QelEnv env, QelNumExprArray exprs,
                                            const char* name = nullptr);
/// One criterion, in fixed order, unnamed.
QEL_API QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1);
/// Two criteria, in fixed order (e1 first), unnamed.
QEL_API QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1, QelNumExprArg e2);
/// Three criteria, in fixed order (e1 first), unnamed.
QEL_API QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1, QelNumExprArg e2,
                                           QelNumExprArg e3);
/// Four criteria, in fixed order (e1 first), unnamed.
QEL_API QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1, QelNumExprArg e2,
                                           QelNumExprArg e3, QelNumExprArg e4);

/// An objective operation that a multi-criterion objective does not
/// support. The message is the operation's name.
class QEL_API QelNotAllowedWithMultiCriterionException : public QelException {
 public:
  /// For the operation named `message` (a string literal).
  explicit QelNotAllowedWithMultiCriterionException(const char* message)
      : QelException(message, 0) {}
  /// Writes the message, then " - not allowed with multi-criterion models".
  /// A null message sets the stream's bad bit instead; the fixed text is
  /// still put into the stream's buffer.
  void print(std::ostream& os) const override;
};

#endif

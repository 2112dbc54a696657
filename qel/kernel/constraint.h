// Constraints and the other modeling objects of the kernel.
//
// QelConstraintI is the base of every constraint; it adds an evaluation
// against the values an algorithm holds (1.0 satisfied, 0.0 violated). The
// kernel's own constraint is the range lb <= expr <= ub (QelRangeI). Set
// variables (QelIntSetVarI, with a cardinality variable), interval
// variables (QelIntervalVarI) and sets of numbers (QelNumSet, used to
// evaluate all-different constraints) complete the kernel.
//
//   QelRange r(env, 0, x + y, 10);          // 0 <= x + y <= 10
//   QelAlgorithm alg(env);
//   alg.setValue(x, 4); alg.setValue(y, 5);
//   r.getImpl()->eval(alg);                  // 1.0
#ifndef QEL_KERNEL_CONSTRAINT_H
#define QEL_KERNEL_CONSTRAINT_H

#include <qel/kernel/expr.h>

/// Base of the constraints.
class QEL_API QelConstraintI : public QelExtractableI {
  QEL_RTTI_DECL(QelConstraintI, QelExtractableI)

 public:
  /// A constraint registered in `env`.
  explicit QelConstraintI(QelEnvI* env, const char* name = nullptr) : QelExtractableI(env, name) {}
  /// Destroys the constraint.
  ~QelConstraintI() override;
  /// true.
  QelBool isConstraint() override;
  /// 1.0 when the values held by `alg` satisfy the constraint, else 0.0.
  /// The base throws QelNotImplemented: constraints that can be checked
  /// override it.
  virtual double eval(QelAlgorithm alg) const;
};

/// Handle on a constraint.
class QEL_API QelConstraint : public QelHandle<QelConstraintI, QelExtractable> {
 public:
  using QelHandle<QelConstraintI, QelExtractable>::QelHandle;
  /// An empty handle.
  QelConstraint() = default;
};

/// The range constraint lb <= expr <= ub.
class QEL_API QelRangeI : public QelConstraintI {
  QEL_EXTRACTABLE_DECL(QelRangeI, QelConstraintI)

 public:
  /// lb <= expr <= ub; takes one use of `expr` (null: a range without
  /// expression).
  QelRangeI(QelEnvI* env, double lb, QelNumExprI* expr, double ub, const char* name = nullptr);
  /// Gives the use of the expression back.
  ~QelRangeI() override;
  /// A copy in `env` with the expression's clone.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// The expression.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Writes "lb <= expr <= ub".
  void display(std::ostream& os) const override;
  /// Whether the expression's value lies in [lb, ub].
  double eval(QelAlgorithm alg) const override;
  /// The expression, or null.
  QelNumExprI* getExpr() const { return _expr; }
  /// The lower bound.
  double getLB() const { return _lb; }
  /// The upper bound.
  double getUB() const { return _ub; }

 private:
  double _lb;
  QelNumExprI* _expr;
  double _ub;
};

/// Handle on a range.
class QEL_API QelRange : public QelHandle<QelRangeI, QelConstraint> {
 public:
  using QelHandle<QelRangeI, QelConstraint>::QelHandle;
  /// An empty handle.
  QelRange() = default;
  /// A new range lb <= expr <= ub in `env`.
  QelRange(QelEnv env, double lb, const QelNumExpr& expr, double ub, const char* name = nullptr);
  /// The linear terms of the range's expression: an empty handle throws
  /// QelWrongUsage "empty handle", a range without expression
  /// "can not get an iterator".
  QelNumExpr::LinearIterator getLinearIterator() const;
  /// The quadratic terms of the range's expression (same failures).
  QelNumExpr::QuadIterator getQuadIterator() const;
};

/// A set of doubles in environment memory (values compared as doubles:
/// 1 and 1.0 are one value, so are 0.0 and -0.0).
class QEL_API QelNumSet {
 public:
  /// An empty set in `env`.
  explicit QelNumSet(QelEnv env);
  QelNumSet(const QelNumSet&) = delete;
  QelNumSet& operator=(const QelNumSet&) = delete;
  /// Releases the set's memory.
  ~QelNumSet() { end(); }
  /// Adds `v` (nothing when present).
  void add(double v);
  /// Whether `v` is in the set.
  QelBool contains(double v) const;
  /// Number of distinct values.
  long getSize() const { return _count; }
  /// Releases the set's memory (the set is then empty).
  void end();

 private:
  void rehash(long capacity);
  QelEnvI* _env;
  double* _values = nullptr;
  unsigned char* _used = nullptr;
  long _capacity = 0;
  long _count = 0;
};

/// An integer set variable: a set of integers taken between a required set
/// and a possible set, with a cardinality variable.
class QEL_API QelIntSetVarI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(QelIntSetVarI, QelExtractableI)

 public:
  /// A set variable over the values `possible` (copied), with its
  /// cardinality variable in [0, size of possible].
  QelIntSetVarI(QelEnvI* env, const QelIntArray& possible, const char* name = nullptr);
  /// Releases the arrays (the cardinality variable is ended with it when
  /// nothing else uses it).
  ~QelIntSetVarI() override;
  /// A copy in `env`.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// The cardinality variable.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Writes the name (or "QelIntSetVar" and the id) and the possible values.
  void display(std::ostream& os) const override;
  /// The cardinality variable.
  QelNumVarI* getCardVar() const { return _card; }
  /// The values the set may take.
  QelIntArray getPossible() const { return _possible; }

 private:
  QelIntArray _possible;
  QelNumVarI* _card;
};

/// Handle on an integer set variable.
class QEL_API QelIntSetVar : public QelHandle<QelIntSetVarI, QelExtractable> {
 public:
  using QelHandle<QelIntSetVarI, QelExtractable>::QelHandle;
  /// An empty handle.
  QelIntSetVar() = default;
  /// A new set variable over `possible` in `env`.
  QelIntSetVar(QelEnv env, const QelIntArray& possible, const char* name = nullptr);
};

/// An interval variable: an interval [start, end) of a given size placed
/// within [earliest start, latest end].
class QEL_API QelIntervalVarI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(QelIntervalVarI, QelExtractableI)

 public:
  /// An interval of `size` within [start, end].
  QelIntervalVarI(QelEnvI* env, QelInt size, QelInt start, QelInt end, const char* name = nullptr);
  /// A copy in `env`.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// No sub-extractables.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Writes the name (or "QelIntervalVar" and the id), size and window.
  void display(std::ostream& os) const override;
  /// The size.
  QelInt getSize() const { return _size; }
  /// The earliest start.
  QelInt getStartMin() const { return _start; }
  /// The latest end.
  QelInt getEndMax() const { return _end; }

 private:
  QelInt _size;
  QelInt _start;
  QelInt _end;
};

/// Handle on an interval variable.
class QEL_API QelIntervalVar : public QelHandle<QelIntervalVarI, QelExtractable> {
 public:
  using QelHandle<QelIntervalVarI, QelExtractable>::QelHandle;
  /// An empty handle.
  QelIntervalVar() = default;
  /// A new interval variable in `env`.
  QelIntervalVar(QelEnv env, QelInt size, QelInt start, QelInt end, const char* name = nullptr);
};

#endif

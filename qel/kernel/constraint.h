// Constraints and the other modeling objects of the kernel.
//
// QelConstraintI is the base of every constraint; it adds an evaluation
// against the values an algorithm holds (1.0 satisfied, 0.0 violated). The
// kernel's own constraint is the range lb <= expr <= ub (QelRangeI). Set
// variables (QelIntSetVarI, with a cardinality variable), interval
// variables (QelIntervalVarI) and sets of numbers (QelNumSet, used to
// evaluate all-different constraints) complete the kernel.
//
// The relational operators build ranges: `x + y <= 8` is the range
// -QelInfinity <= x + y <= 8, `2 * x >= y` is 0 <= 2 * x - y <= QelInfinity,
// `x == 3` is 3 <= x <= 3. An infinite bound (magnitude QelInfinity or more)
// is no bound: it is neither printed nor checked.
//
//   QelRange r(env, 0, x + y, 10);          // 0 <= x + y <= 10
//   model.add(x + y <= 8);                   // prints "x + y <= 8"
//   QelAlgorithm alg(env);
//   alg.setValue(x, 4); alg.setValue(y, 5);
//   r.eval(alg);                             // 1.0
//   r.setUB(8);                              // engines follow the notice
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
  /// Writes "lb <= expr <= ub"; "expr <= ub" or "expr >= lb" when the
  /// other bound is infinite, "expr == lb" when both bounds are equal.
  void display(std::ostream& os) const override;
  /// eval with the default tolerance.
  double eval(QelAlgorithm alg) const override;
  /// 1.0 when the expression's value v lies in [lb, ub] up to `tolerance`,
  /// relative to the bound: lb - tolerance * max(1, |lb|) <= v <=
  /// ub + tolerance * max(1, |ub|); infinite bounds are not checked.
  /// Solvers meet bounds to such a tolerance, so that an exact comparison
  /// would refuse their solutions.
  double eval(QelAlgorithm alg, double tolerance) const;
  /// The tolerance of eval: 1e-6, relative to the bound's magnitude.
  static constexpr double DefaultTolerance = 1e-6;
  /// The expression, or null.
  QelNumExprI* getExpr() const { return _expr; }
  /// The lower bound.
  double getLB() const { return _lb; }
  /// The upper bound.
  double getUB() const { return _ub; }
  /// Sets both bounds, then notifies QelSetRangeBounds. Throws
  /// QelWrongUsage, naming the range, when lb > ub or a bound is NaN, and
  /// then changes nothing.
  void setBounds(double lb, double ub);

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
  /// The lower bound.
  double getLB() const;
  /// The upper bound.
  double getUB() const;
  /// The expression (an empty handle when the range has none).
  QelNumExpr getExpr() const;
  /// Sets the lower bound and notifies QelSetRangeBounds (see
  /// QelRangeI::setBounds for the failures).
  void setLB(double lb) const;
  /// Sets the upper bound and notifies QelSetRangeBounds.
  void setUB(double ub) const;
  /// Sets both bounds and notifies QelSetRangeBounds once.
  void setBounds(double lb, double ub) const;
  /// 1.0 when the values held by `alg` satisfy the range up to
  /// `tolerance` (see QelRangeI::eval), else 0.0.
  double eval(QelAlgorithm alg, double tolerance = QelRangeI::DefaultTolerance) const;
};

/// The bounds of a range were changed (the range already holds them).
class QEL_API QelSetRangeBounds : public QelChange {
  QEL_CHANGE_DECL(QelSetRangeBounds, QelChange)

 public:
  /// For the range `r`.
  explicit QelSetRangeBounds(QelRangeI* r) : _r(r) {}
  /// Nothing: no sub-object comes or goes.
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override;
  /// The range.
  QelExtractableI* getChangedExtractable() const override;
  /// The range.
  QelRangeI* getRange() const { return _r; }
  /// Its new lower bound.
  double getLB() const { return _r->getLB(); }
  /// Its new upper bound.
  double getUB() const { return _r->getUB(); }

 private:
  QelRangeI* _r;
};

// ---- relational operators: ranges -----------------------------------------

/// -QelInfinity <= a - b <= 0 (the constant of a - b moves to the bound).
QEL_API QelRange operator<=(const QelNumExpr& a, const QelNumExpr& b);
/// -QelInfinity <= a <= ub.
QEL_API QelRange operator<=(const QelNumExpr& a, double ub);
/// lb <= b <= QelInfinity.
QEL_API QelRange operator<=(double lb, const QelNumExpr& b);
/// 0 <= a - b <= QelInfinity (the constant of a - b moves to the bound).
QEL_API QelRange operator>=(const QelNumExpr& a, const QelNumExpr& b);
/// lb <= a <= QelInfinity.
QEL_API QelRange operator>=(const QelNumExpr& a, double lb);
/// -QelInfinity <= b <= ub.
QEL_API QelRange operator>=(double ub, const QelNumExpr& b);
/// 0 <= a - b <= 0 (the constant of a - b moves to the bounds).
QEL_API QelRange operator==(const QelNumExpr& a, const QelNumExpr& b);
/// a <= b where `a` is a temporary: a becomes a - b in place when nothing
/// else has it (an operand left temporary goes back to the environment).
QEL_API QelRange operator<=(QelNumExpr&& a, const QelNumExpr& b);
/// a <= b where `b` is a temporary, given back once read.
QEL_API QelRange operator<=(const QelNumExpr& a, QelNumExpr&& b);
/// a <= b of two temporaries.
QEL_API QelRange operator<=(QelNumExpr&& a, QelNumExpr&& b);
/// a >= b where `a` is a temporary.
QEL_API QelRange operator>=(QelNumExpr&& a, const QelNumExpr& b);
/// a >= b where `b` is a temporary.
QEL_API QelRange operator>=(const QelNumExpr& a, QelNumExpr&& b);
/// a >= b of two temporaries.
QEL_API QelRange operator>=(QelNumExpr&& a, QelNumExpr&& b);
/// a == b where `a` is a temporary.
QEL_API QelRange operator==(QelNumExpr&& a, const QelNumExpr& b);
/// a == b where `b` is a temporary.
QEL_API QelRange operator==(const QelNumExpr& a, QelNumExpr&& b);
/// a == b of two temporaries.
QEL_API QelRange operator==(QelNumExpr&& a, QelNumExpr&& b);
/// a <= ub for a temporary `a` (the range holds it).
QEL_API QelRange operator<=(QelNumExpr&& a, double ub);
/// lb <= b for a temporary `b`.
QEL_API QelRange operator<=(double lb, QelNumExpr&& b);
/// a >= lb for a temporary `a`.
QEL_API QelRange operator>=(QelNumExpr&& a, double lb);
/// ub >= b for a temporary `b`.
QEL_API QelRange operator>=(double ub, QelNumExpr&& b);
/// a == v for a temporary `a`.
QEL_API QelRange operator==(QelNumExpr&& a, double v);
/// v == b for a temporary `b`.
QEL_API QelRange operator==(double v, QelNumExpr&& b);
/// v <= a <= v.
QEL_API QelRange operator==(const QelNumExpr& a, double v);
/// v <= b <= v.
QEL_API QelRange operator==(double v, const QelNumExpr& b);

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

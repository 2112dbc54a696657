// The expression kernel: numeric and integer expressions and variables.
//
// Expressions are extractables. A variable (QelNumVarI) has bounds and a
// type: float, integer or Boolean. Sums, differences and products by a
// number build linear terms (QelNumLinTermI, or QelIntLinTermI when every
// part is integral): a constant, a list of (coefficient, variable) terms, a
// list of (coefficient, variable, variable) quadratic terms, and a list of
// (coefficient, expression) aggregate terms for products that are neither
// linear nor quadratic (QelNumProductI).
//
// Use counts: an object that holds an expression (an objective, a
// constraint, a linear term holding a sub-expression) takes one use of it
// and gives it back with QelEnvI::release. Variables live until ended;
// expressions built by operators are use-counted (isRefCountedExpr): once
// something has used one and given its last use back, it is ended. Expression
// handles own nothing.
//
// Temporaries: an expression built by an operator that nothing uses and no
// second handle leads to (QelNumExprI::isTemporary; copying a handle or
// putting the expression in an array shares it for good) may be changed or
// given back by the operation that consumes it. `e += t`, `e -= t` and
// `e *= c` extend e's linear term in place (else copy it: copy-on-write);
// `x + y + z` extends the temporary x + y; a temporary right operand, like
// `2 * x` in `e += 2 * x`, goes back once read; and `e = e + t` gives e's
// former sum back. A sum built in a loop therefore keeps one expression, not
// one per step. What only a plain QelExtractable handle or a model leads to
// is not seen: keep a QelNumExpr copy of an expression you will still use.
//
//   QelEnv env;
//   QelIntVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
//   QelIntExpr e = 2 * x + y - 1;             // an integer linear term
//   QelNumExpr q = x * y + 0.5;               // with a quadratic term
//   QelNumExpr s(env, 0.0);
//   for (long i = 0; i < v.getSize(); ++i) s += c[i] * v[i];  // in place
//   QelAlgorithm alg(env);
//   alg.setValue(x, 3); alg.setValue(y, 4);
//   double v = alg.getValue(e);               // 9
#ifndef QEL_KERNEL_EXPR_H
#define QEL_KERNEL_EXPR_H

#include <functional>
#include <iosfwd>
#include <utility>

#include <cstdint>

#include <qel/change/change.h>
#include <qel/change/hooks.h>
#include <qel/collections/extractablearray.h>
#include <qel/extractable/extractable.h>
#include <qel/kernel/algorithm.h>

class QelNumVar;
class QelNumVarArray;

// ===========================================================================
// Implementation classes
// ===========================================================================

/// Base of the numeric expressions.
class QEL_API QelNumExprI : public QelExtractableI {
  QEL_RTTI_DECL(QelNumExprI, QelExtractableI)

 public:
  /// An expression registered in `env`.
  explicit QelNumExprI(QelEnvI* env, const char* name = nullptr) : QelExtractableI(env, name) {}
  /// Destroys the expression.
  ~QelNumExprI() override;
  /// true.
  QelBool isNumExpr() override;
  /// The value of the expression for the values held by `alg`.
  virtual double eval(QelAlgorithm alg) const = 0;
  /// Whether the expression only takes integer values.
  virtual QelBool isIntegral() const;
  /// The linear term an owner keeps for this expression: a linear term
  /// returns itself, anything else a new linear term holding it.
  virtual QelNumLinTermI* takeForKeeping();
  /// A private copy for copy-on-write (a new object, use count 0).
  virtual QelNumExprI* makeCopy() const = 0;
  /// The constant part of the expression (0 when it has none).
  virtual double getConstant() const;
  /// Whether the expression is linear (no quadratic or aggregate part).
  virtual QelBool isLinear() const;

  /// Number of uses held on the expression.
  QelInt getUseCount() const { return _useCount; }
  /// Takes one use (the holder gives it back with QelEnvI::release).
  void lockExpr() { ++_useCount; }
  /// Gives one use back without ending anything (see QelEnvI::release).
  void unlockExpr() { --_useCount; }
  /// Whether more than one handle may lead to the expression: set when a
  /// handle on it is copied or it is put in an expression array, never
  /// cleared.
  QelBool isShared() const { return _shared; }
  /// Records that more than one handle may lead to the expression.
  void markShared() { _shared = true; }
  /// Whether the expression is a temporary that only one handle leads to:
  /// use-counted, used by nothing, never shared and not ended. Compound
  /// assignments extend such an expression in place, and an operator or
  /// assignment done with it gives it back to the environment.
  QelBool isTemporary() const;

 private:
  std::int32_t _useCount = 0;
  QelBool _shared = false;
};

/// Base of the integer expressions.
class QEL_API QelIntExprI : public QelNumExprI {
  QEL_RTTI_DECL(QelIntExprI, QelNumExprI)

 public:
  /// An integer expression registered in `env`.
  explicit QelIntExprI(QelEnvI* env, const char* name = nullptr) : QelNumExprI(env, name) {}
  /// true.
  QelBool isIntegral() const override;
};

/// The kind of values a variable takes.
enum class QelVarType { Float, Int, Bool };

/// A decision variable. Integer and Boolean variables are integer
/// expressions; a float variable answers false to QelIntExprI type tests.
class QEL_API QelNumVarI : public QelIntExprI {
  QEL_EXTRACTABLE_DECL_CORE(QelNumVarI, QelIntExprI)

 public:
  /// A variable of `type` with bounds [lb, ub].
  QelNumVarI(QelEnvI* env, double lb, double ub, QelVarType type, const char* name = nullptr);
  /// Deleted directly, the variable is removed while it is whole: the
  /// terms that end with it give their uses of it back to a variable.
  ~QelNumVarI() override;
  /// A float variable is no integer expression.
  QelBool isType(QelTypeInfo info) const override {
    if (info == QelIntExprI::GetTypeInfo()) return _type != QelVarType::Float;
    return info == GetTypeInfo() || QelIntExprI::isType(info);
  }
  /// The value held by `alg` for this variable.
  double eval(QelAlgorithm alg) const override;
  /// Whether the variable is integer or Boolean.
  QelBool isIntegral() const override;
  /// A variable is never copied: copy-on-write gives a linear term 1 * x.
  QelNumExprI* makeCopy() const override;
  /// true.
  QelBool isNumVar() override;
  /// A copy of the variable in `env` (same bounds and type, no name).
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// No sub-extractables.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// The name, or "QelNumVar" / "QelIntVar" / "QelBoolVar" and the id.
  void display(std::ostream& os) const override;

  /// The lower bound.
  double getLB() const { return _lb; }
  /// The upper bound.
  double getUB() const { return _ub; }
  /// Sets the lower bound without notice (engines compare bounds before
  /// each solve); QelNumVar::setLB notifies.
  void setLB(double lb) { _lb = lb; }
  /// Sets the upper bound without notice; QelNumVar::setUB notifies.
  void setUB(double ub) { _ub = ub; }
  /// Sets both bounds, then notifies QelSetNumVarBounds. Throws
  /// QelWrongUsage, naming the variable, when lb > ub or a bound is NaN,
  /// and then changes nothing.
  void setBounds(double lb, double ub);
  /// The type.
  QelVarType getType() const { return _type; }

 private:
  double _lb;
  double _ub;
  QelVarType _type;
};

/// The bounds of a variable were changed through QelNumVar::setLB, setUB
/// or setBounds (the variable already holds the new bounds).
class QEL_API QelSetNumVarBounds : public QelChange {
  QEL_CHANGE_DECL(QelSetNumVarBounds, QelChange)

 public:
  /// For the variable `x`.
  explicit QelSetNumVarBounds(QelNumVarI* x) : _x(x) {}
  /// Nothing: no sub-object comes or goes.
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override;
  /// The variable.
  QelExtractableI* getChangedExtractable() const override;
  /// The variable.
  QelNumVarI* getVar() const { return _x; }
  /// Its new lower bound.
  double getLB() const;
  /// Its new upper bound.
  double getUB() const;

 private:
  QelNumVarI* _x;
};

/// One linear term of a linear expression: coef * var, in environment
/// memory (made by QelEnvI::newTerm).
struct QelLinTermNode {
  QelLinTermNode* next;  ///< the next term, or null
  double coef;           ///< the coefficient
  QelNumVarI* var;       ///< the variable
};

/// One quadratic term: coef * var1 * var2.
struct QelQuadTermNode {
  QelQuadTermNode* next;  ///< the next term, or null
  double coef;            ///< the coefficient
  QelNumVarI* var1;       ///< first variable
  QelNumVarI* var2;       ///< second variable
};

/// One aggregate term: coef * expr, for a sub-expression that is neither
/// linear nor quadratic (held with one use).
struct QelAggregateTermNode {
  QelAggregateTermNode* next;  ///< the next term, or null
  double coef;                 ///< the coefficient
  QelNumExprI* expr;           ///< the sub-expression
};

/// The parts of a linear expression, shared by the numeric and integer
/// linear terms.
class QEL_API QelLinearParts {
 public:
  /// The constant.
  double constant = 0;
  /// First linear term, or null.
  QelLinTermNode* head = nullptr;
  /// Last linear term, or null.
  QelLinTermNode* tail = nullptr;
  /// First quadratic term, or null.
  QelQuadTermNode* quadHead = nullptr;
  /// First aggregate term, or null.
  QelAggregateTermNode* aggHead = nullptr;
  /// Extraction bookkeeping: how many times the term was used (-1: never).
  QelInt exprUsed = -1;
  /// The decision word: a variable of the term, null when it has none.
  const QelNumVarI* decision = nullptr;
};

/// The members the numeric and the integer linear terms share, written
/// once: `Derived` is the concrete term, `Base` its expression base.
template <class Derived, class Base>
class QEL_API QelLinearTermOf : public Base {
 public:
  /// The constant `constant` and no terms.
  QelLinearTermOf(QelEnvI* env, double constant, const char* name);
  /// Gives back every node and the uses held.
  ~QelLinearTermOf() override;
  /// true: a linear term lives while something uses it.
  QelBool isRefCountedExpr() const override;
  /// A copy of the term in `env`, its variables cloned.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// The variables, then the aggregate sub-expressions.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Writes the term, e.g. "2 * x + y - 3".
  void display(std::ostream& os) const override;
  /// True at once when the decision word is set.
  QelBool isDecisionExpr() const override;
  /// Resets the extraction bookkeeping.
  void resetExprUsed() override;
  /// The extraction bookkeeping.
  QelInt getExprUsed() const override;
  /// The value for the values held by `alg`.
  double eval(QelAlgorithm alg) const override;
  /// A copy in the same environment (variables shared).
  QelNumExprI* makeCopy() const override;
  /// The constant.
  double getConstant() const override;
  /// No quadratic and no aggregate terms.
  QelBool isLinear() const override;
  /// The parts of the term.
  QelLinearParts& getParts() { return _parts; }
  /// The parts of the term.
  const QelLinearParts& getParts() const { return _parts; }

 protected:
  /// Constant, term lists and the bookkeeping and decision words.
  QelLinearParts _parts;
};

/// A numeric linear (and quadratic) expression.
class QEL_API QelNumLinTermI : public QelLinearTermOf<QelNumLinTermI, QelNumExprI> {
  QEL_EXTRACTABLE_DECL(QelNumLinTermI, QelNumExprI)

 public:
  /// The constant `constant` and no terms.
  explicit QelNumLinTermI(QelEnvI* env, double constant = 0, const char* name = nullptr)
      : QelLinearTermOf(env, constant, name) {}
  /// Returns itself.
  QelNumLinTermI* takeForKeeping() override;

  // ---- the linear-term operations -----------------------------------------
  /// Sets the coefficient of `x` (0 removes it); returns the coefficient
  /// it had before.
  double setCoef(const QelNumVar& x, double coef);
  /// setCoef for every pair; `previous` receives each former coefficient.
  /// All or nothing: a refused allocation leaves the term as it was.
  void setCoef(const QelNumVarArray& xs, const QelNumArray& coefs, const QelNumArray& previous);
  /// Sets the coefficient of x * y (0 removes it); returns the former one.
  double setQuadCoef(const QelNumVar& x, const QelNumVar& y, double coef);
  /// Merges the terms of the same variables and drops zero coefficients.
  void normalize();
  /// Turns x * x of Boolean variables into x (x * x = x on 0-1 values); all
  /// or nothing when memory is refused.
  void zolNormalization();
  /// Whether the term holds aggregate sub-expressions.
  QelBool containsAggregate() const;
  /// Sets the constant.
  void setConstant(double c) { _parts.constant = c; }
  /// Appends `node` at the tail of the linear term list (no merging).
  void appendTerm(QelLinTermNode* node);
  /// Appends coef * x (no merging).
  void addTerm(double coef, QelNumVarI* x);
  /// Appends coef * x * y.
  void addQuadTerm(double coef, QelNumVarI* x, QelNumVarI* y);
  /// Appends coef * e (e gets one use).
  void addAggregate(double coef, QelNumExprI* e);
  /// Adds `factor` times `other` to this term.
  void addScaled(const QelNumExprI* other, double factor);
  /// The bookkeeping word saved and restored by column-wise addition.
  QelInt getBookkeeping() const { return _parts.exprUsed; }
  /// Writes the bookkeeping word back.
  void setBookkeeping(QelInt v) { _parts.exprUsed = v; }
};

/// An integer linear (and quadratic) expression: every coefficient,
/// variable and the constant are integral.
class QEL_API QelIntLinTermI : public QelLinearTermOf<QelIntLinTermI, QelIntExprI> {
  QEL_EXTRACTABLE_DECL(QelIntLinTermI, QelIntExprI)

 public:
  /// The constant `constant` and no terms.
  explicit QelIntLinTermI(QelEnvI* env, QelInt constant = 0, const char* name = nullptr)
      : QelLinearTermOf(env, static_cast<double>(constant), name) {}
  /// A new numeric linear term with the same parts.
  QelNumLinTermI* takeForKeeping() override;
  /// Appends coef * x.
  void addTerm(QelInt coef, QelNumVarI* x);
  /// Appends coef * x * y.
  void addQuadTerm(QelInt coef, QelNumVarI* x, QelNumVarI* y);
  /// Appends coef * e (e gets one use).
  void addAggregate(QelInt coef, QelNumExprI* e);
  /// Adds `factor` times `other` (an integral expression).
  void addScaled(const QelNumExprI* other, QelInt factor);
  /// Sets the constant.
  void setConstant(QelInt c) { _parts.constant = static_cast<double>(c); }
};

extern template class QelLinearTermOf<QelNumLinTermI, QelNumExprI>;
extern template class QelLinearTermOf<QelIntLinTermI, QelIntExprI>;

/// The product of two expressions whose product is neither linear nor
/// quadratic. Holds one use of each factor.
class QEL_API QelNumProductI : public QelNumExprI {
  QEL_EXTRACTABLE_DECL(QelNumProductI, QelNumExprI)

 public:
  /// left * right (both get one use).
  QelNumProductI(QelEnvI* env, QelNumExprI* left, QelNumExprI* right);
  /// Gives the uses back.
  ~QelNumProductI() override;
  /// true.
  QelBool isRefCountedExpr() const override;
  /// A copy in `env` with cloned factors.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// The two factors.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Writes "(left) * (right)".
  void display(std::ostream& os) const override;
  /// left value times right value.
  double eval(QelAlgorithm alg) const override;
  /// Whether both factors are integral.
  QelBool isIntegral() const override;
  /// A copy in the same environment (the factors are shared).
  QelNumExprI* makeCopy() const override;
  /// false.
  QelBool isLinear() const override;
  /// The left factor.
  QelNumExprI* getLeft() const { return _left; }
  /// The right factor.
  QelNumExprI* getRight() const { return _right; }

 private:
  QelNumExprI* _left;
  QelNumExprI* _right;
};

/// Throws QelWrongUsage "<what>: <name> cannot take the bounds [lb, ub]"
/// when [lb, ub] is no interval (lb > ub, or a bound is NaN); `name`
/// writes the object concerned.
QEL_API void QelRequireBounds(double lb, double ub, const char* what,
                              const std::function<void(std::ostream&)>& name);

/// Throws QelWrongUsage "QelTestIsLinear: expression is not linear" when
/// `e` is not linear.
QEL_API void QelTestIsLinear(QelNumExprI* e);

// ===========================================================================
// Handles
// ===========================================================================

/// Marks the handle made by an operator on the expression it just built:
/// the one handle leading to it.
struct QelTemporaryTag {};

/// Handle on a numeric expression.
class QEL_API QelNumExpr : public QelHandle<QelNumExprI, QelExtractable> {
 public:
  /// A handle on `impl`. Another handle may lead to it already: the
  /// expression is shared from then on (never changed in place).
  QelNumExpr(QelNumExprI* impl) : QelHandle(impl) { MarkShared(impl); }
  /// The one handle on `impl`, an expression an operator just built (it
  /// stays a temporary; see QelNumExprI::isTemporary).
  QelNumExpr(QelNumExprI* impl, QelTemporaryTag) : QelHandle(impl) {}
  /// An empty handle.
  QelNumExpr() = default;
  /// The constant `value` as an expression of `env`.
  QelNumExpr(QelEnv env, double value);
  /// Another handle on the expression of `other` (which is then shared).
  QelNumExpr(const QelNumExpr& other) : QelHandle(other.getImpl()) { MarkShared(_impl); }
  /// Takes the expression of `other`, which becomes empty.
  QelNumExpr(QelNumExpr&& other) noexcept : QelHandle(other.getImpl()) { other._impl = nullptr; }
  /// Leads to the expression of `other` (which is then shared).
  QelNumExpr& operator=(const QelNumExpr& other) {
    if (this == &other) return *this;
    MarkShared(other._impl);
    _impl = other._impl;
    return *this;
  }
  /// Takes the expression of `other`, which becomes empty. When that
  /// expression was built by an operator from this handle's former one
  /// (`e = e + t`) and the former one is a temporary (see
  /// QelNumExprI::isTemporary), the former one goes back to the environment.
  QelNumExpr& operator=(QelNumExpr&& other) noexcept;
  /// Handles own nothing: the expression stays.
  ~QelNumExpr() = default;

  /// Adds `t`: in place when this handle's expression is a temporary linear
  /// term of the right kind, else into a new linear term this handle then
  /// leads to (copy-on-write: what holds the former expression keeps it
  /// unchanged). An empty handle starts from 0 in the environment of `t`.
  QelNumExpr& operator+=(const QelNumExpr& t);
  /// Adds the temporary `t`, then gives it back when nothing else has it.
  QelNumExpr& operator+=(QelNumExpr&& t);
  /// Adds the constant `c` (an empty handle throws QelEmptyHandleException).
  QelNumExpr& operator+=(double c);
  /// Subtracts `t` (as += does).
  QelNumExpr& operator-=(const QelNumExpr& t);
  /// Subtracts the temporary `t`, then gives it back.
  QelNumExpr& operator-=(QelNumExpr&& t);
  /// Subtracts the constant `c`.
  QelNumExpr& operator-=(double c);
  /// Multiplies by `c` (as += does).
  QelNumExpr& operator*=(double c);

  /// Iterates over the linear terms of a linear expression.
  class QEL_API LinearIterator {
   public:
    /// Over the terms of `term` (null: nothing).
    explicit LinearIterator(const QelLinearParts* parts)
        : _node(parts != nullptr ? parts->head : nullptr) {}
    /// Whether a term is under the iterator.
    QelBool ok() const { return _node != nullptr; }
    /// Moves to the next term.
    LinearIterator& operator++() {
      _node = _node->next;
      return *this;
    }
    /// The coefficient of the current term.
    double getCoef() const { return _node->coef; }
    /// The variable of the current term.
    QelNumVarI* getVar() const { return _node->var; }

   private:
    const QelLinTermNode* _node;
  };

  /// Iterates over the quadratic terms of an expression.
  class QEL_API QuadIterator {
   public:
    /// Over the quadratic terms of `parts` (null: nothing).
    explicit QuadIterator(const QelLinearParts* parts)
        : _node(parts != nullptr ? parts->quadHead : nullptr) {}
    /// Whether a term is under the iterator.
    QelBool ok() const { return _node != nullptr; }
    /// Moves to the next term.
    QuadIterator& operator++() {
      _node = _node->next;
      return *this;
    }
    /// The coefficient of the current term.
    double getCoef() const { return _node->coef; }
    /// The first variable of the current term.
    QelNumVarI* getVar1() const { return _node->var1; }
    /// The second variable of the current term.
    QelNumVarI* getVar2() const { return _node->var2; }

   private:
    const QelQuadTermNode* _node;
  };

  /// The linear terms (none for an expression that is no linear term; a
  /// variable x gives the single term 1 * x... through takeForKeeping).
  LinearIterator getLinearIterator() const;
  /// The quadratic terms.
  QuadIterator getQuadIterator() const;
  /// The constant part.
  double getConstant() const;

 protected:
  /// Records that a second handle leads to `impl` (null: nothing).
  static void MarkShared(QelExtractableI* impl) {
    if (impl != nullptr) static_cast<QelNumExprI*>(impl)->markShared();
  }
};

/// The expression handle of the kernel's general form.
using QelExpr = QelNumExpr;

/// Handle on an integer expression.
class QEL_API QelIntExpr : public QelNumExpr {
 public:
  /// An empty handle.
  QelIntExpr() = default;
  /// A handle on `impl`.
  QelIntExpr(QelIntExprI* impl) : QelNumExpr(impl) {}
  /// The one handle on `impl`, just built by an operator.
  QelIntExpr(QelIntExprI* impl, QelTemporaryTag tag) : QelNumExpr(impl, tag) {}
  /// The integer constant `value` as an expression of `env`.
  QelIntExpr(QelEnv env, QelInt value);
  /// The implementation, or null.
  QelIntExprI* getImpl() const { return static_cast<QelIntExprI*>(_impl); }

  /// Adds `t` (see QelNumExpr::operator+=; the result stays integral).
  QelIntExpr& operator+=(const QelIntExpr& t);
  /// Adds the temporary `t`, then gives it back.
  QelIntExpr& operator+=(QelIntExpr&& t);
  /// Adds the constant `c`.
  QelIntExpr& operator+=(QelInt c);
  /// Subtracts `t`.
  QelIntExpr& operator-=(const QelIntExpr& t);
  /// Subtracts the temporary `t`, then gives it back.
  QelIntExpr& operator-=(QelIntExpr&& t);
  /// Subtracts the constant `c`.
  QelIntExpr& operator-=(QelInt c);
  /// Multiplies by `c`.
  QelIntExpr& operator*=(QelInt c);
  /// Adds the constant `c`.
  QelIntExpr& operator+=(int c) { return *this += QelInt(c); }
  /// Subtracts the constant `c`.
  QelIntExpr& operator-=(int c) { return *this -= QelInt(c); }
  /// Multiplies by `c`.
  QelIntExpr& operator*=(int c) { return *this *= QelInt(c); }
  /// A fractional number would make the expression non-integral.
  QelIntExpr& operator+=(double) = delete;
  /// A fractional number would make the expression non-integral.
  QelIntExpr& operator-=(double) = delete;
  /// A fractional number would make the expression non-integral.
  QelIntExpr& operator*=(double) = delete;
  /// A numeric expression would make the expression non-integral.
  QelIntExpr& operator+=(const QelNumExpr&) = delete;
  /// A numeric expression would make the expression non-integral.
  QelIntExpr& operator-=(const QelNumExpr&) = delete;
};

/// Handle on a numeric variable (float, integer or Boolean).
class QEL_API QelNumVar : public QelNumExpr {
 public:
  /// An empty handle.
  QelNumVar() = default;
  /// A handle on `impl`.
  QelNumVar(QelNumVarI* impl) : QelNumExpr(impl) {}
  /// A new float variable of `env` with bounds [lb, ub].
  QelNumVar(QelEnv env, double lb, double ub, const char* name = nullptr);
  /// A new variable of `env` of `type`.
  QelNumVar(QelEnv env, double lb, double ub, QelVarType type, const char* name = nullptr);
  /// The implementation, or null.
  QelNumVarI* getImpl() const { return static_cast<QelNumVarI*>(_impl); }
  /// The lower bound.
  double getLB() const { return getImpl()->getLB(); }
  /// The upper bound.
  double getUB() const { return getImpl()->getUB(); }
  /// Sets the lower bound and notifies QelSetNumVarBounds (see
  /// QelNumVarI::setBounds for the failures).
  void setLB(double lb) const;
  /// Sets the upper bound and notifies QelSetNumVarBounds.
  void setUB(double ub) const;
  /// Sets both bounds and notifies QelSetNumVarBounds once.
  void setBounds(double lb, double ub) const;
  /// The variable's type.
  QelVarType getType() const;
};

/// Handle on an integer variable.
class QEL_API QelIntVar : public QelIntExpr {
 public:
  /// An empty handle.
  QelIntVar() = default;
  /// A handle on `impl` (an integer or Boolean variable).
  QelIntVar(QelNumVarI* impl) : QelIntExpr(impl) {}
  /// A new integer variable of `env` with bounds [lb, ub].
  QelIntVar(QelEnv env, QelInt lb, QelInt ub, const char* name = nullptr);
  /// The implementation, or null.
  QelNumVarI* getImpl() const { return static_cast<QelNumVarI*>(_impl); }
  /// The same variable as a numeric variable handle.
  operator QelNumVar() const { return QelNumVar(getImpl()); }
  /// The lower bound.
  QelInt getLB() const { return static_cast<QelInt>(getImpl()->getLB()); }
  /// The upper bound.
  QelInt getUB() const { return static_cast<QelInt>(getImpl()->getUB()); }
  /// Sets the lower bound and notifies QelSetNumVarBounds.
  void setLB(QelInt lb) const { QelNumVar(getImpl()).setLB(static_cast<double>(lb)); }
  /// Sets the upper bound and notifies QelSetNumVarBounds.
  void setUB(QelInt ub) const { QelNumVar(getImpl()).setUB(static_cast<double>(ub)); }
  /// Sets both bounds and notifies QelSetNumVarBounds once.
  void setBounds(QelInt lb, QelInt ub) const {
    QelNumVar(getImpl()).setBounds(static_cast<double>(lb), static_cast<double>(ub));
  }
};

/// Handle on a Boolean variable.
class QEL_API QelBoolVar : public QelIntVar {
 public:
  /// An empty handle.
  QelBoolVar() = default;
  /// A handle on `impl`.
  QelBoolVar(QelNumVarI* impl) : QelIntVar(impl) {}
  /// A new Boolean variable of `env`.
  explicit QelBoolVar(QelEnv env, const char* name = nullptr);
};

/// An expression argument: any numeric expression handle.
class QEL_API QelNumExprArg : public QelNumExpr {
 public:
  /// An empty argument.
  QelNumExprArg() = default;
  /// The expression `e`.
  QelNumExprArg(const QelNumExpr& e) : QelNumExpr(e.getImpl()) {}
  /// The expression `impl`.
  QelNumExprArg(QelNumExprI* impl) : QelNumExpr(impl) {}
};

/// An integer expression argument.
class QEL_API QelIntExprArg : public QelIntExpr {
 public:
  /// An empty argument.
  QelIntExprArg() = default;
  /// The expression `e`.
  QelIntExprArg(const QelIntExpr& e) : QelIntExpr(e.getImpl()) {}
};

// ---- operators ----------------------------------------------------------

/// a + b.
QEL_API QelNumExpr operator+(const QelNumExpr& a, const QelNumExpr& b);
/// a + c.
QEL_API QelNumExpr operator+(const QelNumExpr& a, double c);
/// c + a.
QEL_API QelNumExpr operator+(double c, const QelNumExpr& a);
/// a - b.
QEL_API QelNumExpr operator-(const QelNumExpr& a, const QelNumExpr& b);
/// a - c.
QEL_API QelNumExpr operator-(const QelNumExpr& a, double c);
/// c - a.
QEL_API QelNumExpr operator-(double c, const QelNumExpr& a);
/// -a.
QEL_API QelNumExpr operator-(const QelNumExpr& a);
/// a * c.
QEL_API QelNumExpr operator*(const QelNumExpr& a, double c);
/// c * a.
QEL_API QelNumExpr operator*(double c, const QelNumExpr& a);
/// a * b (quadratic, or an aggregate product beyond degree two).
QEL_API QelNumExpr operator*(const QelNumExpr& a, const QelNumExpr& b);

/// a + b.
QEL_API QelIntExpr operator+(const QelIntExpr& a, const QelIntExpr& b);
/// a + c.
QEL_API QelIntExpr operator+(const QelIntExpr& a, QelInt c);
/// c + a.
QEL_API QelIntExpr operator+(QelInt c, const QelIntExpr& a);
/// a - b.
QEL_API QelIntExpr operator-(const QelIntExpr& a, const QelIntExpr& b);
/// a - c.
QEL_API QelIntExpr operator-(const QelIntExpr& a, QelInt c);
/// c - a.
QEL_API QelIntExpr operator-(QelInt c, const QelIntExpr& a);
/// -a.
QEL_API QelIntExpr operator-(const QelIntExpr& a);
/// a * c.
QEL_API QelIntExpr operator*(const QelIntExpr& a, QelInt c);
/// c * a.
QEL_API QelIntExpr operator*(QelInt c, const QelIntExpr& a);
/// a * b.
QEL_API QelIntExpr operator*(const QelIntExpr& a, const QelIntExpr& b);

/// Integer literals pick the integer forms.
inline QelIntExpr operator+(const QelIntExpr& a, int c) { return a + QelInt(c); }
inline QelIntExpr operator+(int c, const QelIntExpr& a) { return QelInt(c) + a; }
inline QelIntExpr operator-(const QelIntExpr& a, int c) { return a - QelInt(c); }
inline QelIntExpr operator-(int c, const QelIntExpr& a) { return QelInt(c) - a; }
inline QelIntExpr operator*(const QelIntExpr& a, int c) { return a * QelInt(c); }
inline QelIntExpr operator*(int c, const QelIntExpr& a) { return QelInt(c) * a; }

/// Floating-point numbers with an integer expression give numeric
/// expressions (without these, x * y + 0.5 would be ambiguous).
inline QelNumExpr operator+(const QelIntExpr& a, double c) {
  return static_cast<const QelNumExpr&>(a) + c;
}
inline QelNumExpr operator+(double c, const QelIntExpr& a) {
  return c + static_cast<const QelNumExpr&>(a);
}
inline QelNumExpr operator-(const QelIntExpr& a, double c) {
  return static_cast<const QelNumExpr&>(a) - c;
}
inline QelNumExpr operator-(double c, const QelIntExpr& a) {
  return c - static_cast<const QelNumExpr&>(a);
}
inline QelNumExpr operator*(const QelIntExpr& a, double c) {
  return static_cast<const QelNumExpr&>(a) * c;
}
inline QelNumExpr operator*(double c, const QelIntExpr& a) {
  return c * static_cast<const QelNumExpr&>(a);
}

// ---- operators on temporaries -----------------------------------------------
// An operand passed as a temporary handle (the result of another operator,
// `x + y` in `x + y + z`) is consumed: a temporary left operand is extended
// in place (QelNumExprI::isTemporary), a temporary right operand goes back
// to the environment once read. Chains and loops then keep no intermediate
// expressions.

/// a + b, extending the temporary `a` in place.
QEL_API QelNumExpr operator+(QelNumExpr&& a, const QelNumExpr& b);
/// a + b, giving the temporary `b` back.
QEL_API QelNumExpr operator+(const QelNumExpr& a, QelNumExpr&& b);
/// a + b of two temporaries.
QEL_API QelNumExpr operator+(QelNumExpr&& a, QelNumExpr&& b);
/// a - b, extending the temporary `a` in place.
QEL_API QelNumExpr operator-(QelNumExpr&& a, const QelNumExpr& b);
/// a - b, giving the temporary `b` back.
QEL_API QelNumExpr operator-(const QelNumExpr& a, QelNumExpr&& b);
/// a - b of two temporaries.
QEL_API QelNumExpr operator-(QelNumExpr&& a, QelNumExpr&& b);
/// a + c, in place.
QEL_API QelNumExpr operator+(QelNumExpr&& a, double c);
/// a - c, in place.
QEL_API QelNumExpr operator-(QelNumExpr&& a, double c);
/// a * c, in place.
QEL_API QelNumExpr operator*(QelNumExpr&& a, double c);
/// c * a, in place.
QEL_API QelNumExpr operator*(double c, QelNumExpr&& a);

/// a + b, extending the temporary `a` in place.
QEL_API QelIntExpr operator+(QelIntExpr&& a, const QelIntExpr& b);
/// a + b, giving the temporary `b` back.
QEL_API QelIntExpr operator+(const QelIntExpr& a, QelIntExpr&& b);
/// a + b of two temporaries.
QEL_API QelIntExpr operator+(QelIntExpr&& a, QelIntExpr&& b);
/// a - b, extending the temporary `a` in place.
QEL_API QelIntExpr operator-(QelIntExpr&& a, const QelIntExpr& b);
/// a - b, giving the temporary `b` back.
QEL_API QelIntExpr operator-(const QelIntExpr& a, QelIntExpr&& b);
/// a - b of two temporaries.
QEL_API QelIntExpr operator-(QelIntExpr&& a, QelIntExpr&& b);
/// a + c, in place.
QEL_API QelIntExpr operator+(QelIntExpr&& a, QelInt c);
/// a - c, in place.
QEL_API QelIntExpr operator-(QelIntExpr&& a, QelInt c);
/// a * c, in place.
QEL_API QelIntExpr operator*(QelIntExpr&& a, QelInt c);
/// c * a, in place.
QEL_API QelIntExpr operator*(QelInt c, QelIntExpr&& a);
/// a + c, in place.
inline QelIntExpr operator+(QelIntExpr&& a, int c) { return std::move(a) + QelInt(c); }
/// a - c, in place.
inline QelIntExpr operator-(QelIntExpr&& a, int c) { return std::move(a) - QelInt(c); }
/// a * c, in place.
inline QelIntExpr operator*(QelIntExpr&& a, int c) { return std::move(a) * QelInt(c); }
/// c * a, in place.
inline QelIntExpr operator*(int c, QelIntExpr&& a) { return QelInt(c) * std::move(a); }
/// a + c: a numeric expression (in place when `a` allows it).
inline QelNumExpr operator+(QelIntExpr&& a, double c) { return static_cast<QelNumExpr&&>(a) + c; }
/// a - c: a numeric expression.
inline QelNumExpr operator-(QelIntExpr&& a, double c) { return static_cast<QelNumExpr&&>(a) - c; }
/// a * c: a numeric expression.
inline QelNumExpr operator*(QelIntExpr&& a, double c) { return static_cast<QelNumExpr&&>(a) * c; }
/// c * a: a numeric expression.
inline QelNumExpr operator*(double c, QelIntExpr&& a) { return c * static_cast<QelNumExpr&&>(a); }

// ===========================================================================
// Expression and variable arrays
// ===========================================================================

/// Array of numeric expressions.
class QEL_API QelNumExprArray : public QelExtractableArray {
 public:
  using QelExtractableArray::QelExtractableArray;
  /// An empty handle.
  QelNumExprArray() = default;
  /// A handle on the same array as `a`.
  QelNumExprArray(const QelExtractableArray& a) : QelExtractableArray(a.getImpl()) {}
  /// Element i (a second handle on it: the expression is shared from then
  /// on, so that compound assignments and operators never change it in
  /// place).
  QelNumExpr operator[](long i) const { return QelNumExpr(SharedElement(i)); }
  using QelExtractableArray::add;
  /// Appends `e`. The array keeps no use of it, but leads to it: the
  /// expression is shared from then on (compound assignments on a handle
  /// copy it instead of changing it in place).
  // By value: a reference would tie with add(QelExtractable) for a
  // variable handle.
  void add(QelNumExpr e) const {  // NOLINT(performance-unnecessary-value-param)
    if (e.getImpl() != nullptr) e.getImpl()->markShared();
    QelExtractableArray::add(e);
  }
  /// Takes one use of every element.
  void lockExprs() const;

 protected:
  /// Element i, marked shared (null stays null).
  QelNumExprI* SharedElement(long i) const {
    auto* e = static_cast<QelNumExprI*>(getElement(i));
    if (e != nullptr) e->markShared();
    return e;
  }

 public:
  /// Gives one use of every element back (QelEnvI::release).
  void releaseExprs() const;
};

/// Array of integer expressions.
class QEL_API QelIntExprArray : public QelNumExprArray {
 public:
  using QelNumExprArray::QelNumExprArray;
  /// An empty handle.
  QelIntExprArray() = default;
  /// A handle on the same array as `a`.
  QelIntExprArray(const QelExtractableArray& a) : QelNumExprArray(a.getImpl()) {}
  /// Element i (shared from then on, see QelNumExprArray::operator[]).
  QelIntExpr operator[](long i) const {
    return QelIntExpr(static_cast<QelIntExprI*>(SharedElement(i)));
  }
};

/// Array of numeric variables.
class QEL_API QelNumVarArray : public QelNumExprArray {
 public:
  using QelNumExprArray::QelNumExprArray;
  /// An empty handle.
  QelNumVarArray() = default;
  /// A handle on the same array as `a`.
  QelNumVarArray(const QelExtractableArray& a) : QelNumExprArray(a.getImpl()) {}
  /// `n` new float variables of `env` with bounds [lb, ub].
  QelNumVarArray(QelEnv env, long n, double lb, double ub);
  /// Element i.
  QelNumVar operator[](long i) const { return QelNumVar(static_cast<QelNumVarI*>(getElement(i))); }
};

/// Array of integer variables.
class QEL_API QelIntVarArray : public QelIntExprArray {
 public:
  using QelIntExprArray::QelIntExprArray;
  /// An empty handle.
  QelIntVarArray() = default;
  /// A handle on the same array as `a`.
  QelIntVarArray(const QelExtractableArray& a) : QelIntExprArray(a.getImpl()) {}
  /// `n` new integer variables of `env` with bounds [lb, ub].
  QelIntVarArray(QelEnv env, long n, QelInt lb, QelInt ub);
  /// Element i.
  QelIntVar operator[](long i) const { return QelIntVar(static_cast<QelNumVarI*>(getElement(i))); }
  /// The same variables as a numeric variable array (same array).
  operator QelNumVarArray() const { return QelNumVarArray(getImpl()); }
  /// A new integer expression array holding the same variables.
  QelIntExprArray toIntExprArray() const;
};

/// Array of Boolean variables.
class QEL_API QelBoolVarArray : public QelIntVarArray {
 public:
  using QelIntVarArray::QelIntVarArray;
  /// An empty handle.
  QelBoolVarArray() = default;
  /// A handle on the same array as `a`.
  QelBoolVarArray(const QelExtractableArray& a) : QelIntVarArray(a.getImpl()) {}
  /// `n` new Boolean variables of `env`.
  QelBoolVarArray(QelEnv env, long n);
  /// Element i.
  QelBoolVar operator[](long i) const {
    return QelBoolVar(static_cast<QelNumVarI*>(getElement(i)));
  }
};

/// A two-dimensional array of variables: `rows` x `cols` variables kept
/// row by row in one variable array (getArray), which constraints and sums
/// take as it is. `VarArray` is QelNumVarArray, QelIntVarArray or
/// QelBoolVarArray; `Var` the handle of its elements. Copying copies the
/// handle; end() releases the array (not the variables).
///
///   QelIntVarArray2D assign(env, 3, 4, 0, 1);   // assign(i, j) in {0, 1}
///   model.add(QelSum(assign.getRow(0)) == 1);   // getRow: a new array
///   QelNumArray v = alg.getValues(assign.getArray());
template <class VarArray, class Var>
class QelVarArray2D {
 public:
  /// An empty handle.
  QelVarArray2D() = default;
  /// `rows` x `cols` variables taken from `flat` (row by row; its size
  /// must be rows * cols, else QelWrongUsage).
  QelVarArray2D(const VarArray& flat, long rows, long cols)
      : _flat(flat), _rows(rows), _cols(cols) {
    if (rows < 0 || cols < 0 || flat.getSize() != rows * cols)
      throw QelWrongUsage("QelVarArray2D: the array does not hold rows * cols variables");
  }
  /// Number of rows.
  long getRows() const { return _rows; }
  /// Number of columns.
  long getCols() const { return _cols; }
  /// The variable of row i, column j (QelWrongUsage out of range).
  Var operator()(long i, long j) const {
    if (i < 0 || i >= _rows || j < 0 || j >= _cols)
      throw QelWrongUsage("QelVarArray2D: index out of range");
    return _flat[i * _cols + j];
  }
  /// Every variable, row by row (the array itself, not a copy).
  const VarArray& getArray() const { return _flat; }
  /// A new array of the variables of row i (the caller ends it).
  VarArray getRow(long i) const { return slice(i * _cols, 1, _cols, i < 0 || i >= _rows); }
  /// A new array of the variables of column j (the caller ends it).
  VarArray getCol(long j) const { return slice(j, _cols, _rows, j < 0 || j >= _cols); }
  /// Releases the array (the variables stay); the handle becomes empty.
  void end() {
    _flat.end();
    _rows = _cols = 0;
  }

 protected:
  /// The array of the variables.
  VarArray _flat;

 private:
  VarArray slice(long first, long step, long count, bool outOfRange) const {
    if (outOfRange) throw QelWrongUsage("QelVarArray2D: index out of range");
    VarArray out(QelExtractableArray(QelArrayI::Make(_flat.getImpl()->getAllocator(), 0)));
    for (long k = 0; k < count; ++k) out.add(QelExtractable(_flat.getElement(first + k * step)));
    return out;
  }
  long _rows = 0;
  long _cols = 0;
};

/// A two-dimensional array of float variables.
class QEL_API QelNumVarArray2D : public QelVarArray2D<QelNumVarArray, QelNumVar> {
 public:
  using QelVarArray2D::QelVarArray2D;
  /// An empty handle.
  QelNumVarArray2D() = default;
  /// `rows` x `cols` new float variables of `env` with bounds [lb, ub].
  QelNumVarArray2D(QelEnv env, long rows, long cols, double lb, double ub);
};

/// A two-dimensional array of integer variables.
class QEL_API QelIntVarArray2D : public QelVarArray2D<QelIntVarArray, QelIntVar> {
 public:
  using QelVarArray2D::QelVarArray2D;
  /// An empty handle.
  QelIntVarArray2D() = default;
  /// `rows` x `cols` new integer variables of `env` with bounds [lb, ub].
  QelIntVarArray2D(QelEnv env, long rows, long cols, QelInt lb, QelInt ub);
};

/// A two-dimensional array of Boolean variables.
class QEL_API QelBoolVarArray2D : public QelVarArray2D<QelBoolVarArray, QelBoolVar> {
 public:
  using QelVarArray2D::QelVarArray2D;
  /// An empty handle.
  QelBoolVarArray2D() = default;
  /// `rows` x `cols` new Boolean variables of `env`.
  QelBoolVarArray2D(QelEnv env, long rows, long cols);
};

/// The sum of the elements of `xs`.
QEL_API QelNumExpr QelSum(const QelNumExprArray& xs);
/// The sum of the elements of `xs`.
QEL_API QelIntExpr QelSum(const QelIntExprArray& xs);
/// The scalar product of `xs` and `coefs`.
QEL_API QelNumExpr QelScalProd(const QelNumExprArray& xs, const QelNumArray& coefs);

#endif

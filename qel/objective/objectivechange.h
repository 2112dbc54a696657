// The change notices of objectives.
//
// Each setter of an objective (qel/objective/objective.h) changes the
// objective, then broadcasts one notice built on its stack:
//
//   QelSetObjSense     setSense       the new sense
//   QelSetObjConst     setConst       the new constant
//   QelSetObjCoef      setCoef        variable, coefficient asked for, and
//                                     what the linear term returned
//   QelSetObjQuadCoef  setQuadCoef    both variables, the same two numbers
//   QelSetObjCoefs     setCoef(array) variables, coefficients, and the
//                                     array the linear term filled (deleted
//                                     by the setter right after the
//                                     broadcast: copy it to keep it)
//   QelSetObjExpr      setExpr        old and new expression (the old one
//                                     lives until the broadcast is over)
//
// A change visitor hears about the variables entering or leaving the
// objective: a coefficient set to 0.0 removes its variable, any other value
// adds it, provided an algorithm that extracted the objective knows that
// variable too. QelAddValueToObj is the objective's entry of a column: when
// a new variable is installed through a chain of column notices, it enters
// the objective with its coefficient.
//
//   QelAddExtractable* entry = QelAddValueToObj(obj, 4.0).getCopy(env.getImpl());
//   entry->install(newVar.getImpl());       // obj gets 4 * newVar
//   entry->destroy(env.getImpl());
#ifndef QEL_OBJECTIVE_OBJECTIVECHANGE_H
#define QEL_OBJECTIVE_OBJECTIVECHANGE_H

#include <qel/change/change.h>
#include <qel/objective/objective.h>

/// What the six objective-setting notices share: the objective they
/// concern. Not a notice class of its own.
class QEL_API QelObjectiveChange : public QelChange {
 public:
  /// Nothing to tell a visitor (the notices that have something override).
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The objective.
  QelExtractableI* getChangedExtractable() const override;
  /// The objective.
  QelObjectiveI* getObjective() const { return _objective; }

 protected:
  /// A notice about `objective`.
  explicit QelObjectiveChange(QelObjectiveI* objective) : _objective(objective) {}
  /// Tells `visitor` that `var` left `extractable` (coef 0.0) or entered it
  /// (any other coef), when the registry of `env` knows the pair (objective,
  /// var); nothing otherwise.
  void reportCoef(QelEnvI* env, QelExtractableI* extractable, QelNumVarI* var, double coef,
                  QelChangeVisitor* visitor) const;

 private:
  QelObjectiveI* _objective;
};

/// The sense of an objective was set.
class QEL_API QelSetObjSense : public QelObjectiveChange {
  QEL_CHANGE_DECL(QelSetObjSense, QelChange)

 public:
  /// `objective` now has `sense`.
  QelSetObjSense(QelObjectiveI* objective, QelObjective::Sense sense)
      : QelObjectiveChange(objective), _sense(sense) {}
  /// The new sense.
  QelObjective::Sense getSense() const { return _sense; }

 private:
  QelObjective::Sense _sense;
};

/// The constant of an objective's expression was set.
class QEL_API QelSetObjConst : public QelObjectiveChange {
  QEL_CHANGE_DECL(QelSetObjConst, QelChange)

 public:
  /// `objective` now has the constant `constant`.
  QelSetObjConst(QelObjectiveI* objective, double constant)
      : QelObjectiveChange(objective), _constant(constant) {}
  /// The new constant.
  double getConstant() const { return _constant; }

 private:
  double _constant;
};

/// The coefficient of one variable in an objective was set.
class QEL_API QelSetObjCoef : public QelObjectiveChange {
  QEL_CHANGE_DECL(QelSetObjCoef, QelChange)

 public:
  /// `var` got `coef` in `objective`; the linear term answered `kernelCoef`.
  QelSetObjCoef(QelObjectiveI* objective, QelNumVarI* var, double coef, double kernelCoef)
      : QelObjectiveChange(objective), _var(var), _coef(coef), _kernelCoef(kernelCoef) {}
  /// Removal of the variable (coef 0.0) or its addition, when known.
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The variable.
  QelNumVarI* getVar() const { return _var; }
  /// The coefficient asked for.
  double getCoef() const { return _coef; }
  /// What the linear term's setCoef returned.
  double getKernelCoef() const { return _kernelCoef; }

 private:
  QelNumVarI* _var;
  double _coef;
  double _kernelCoef;
};

/// The coefficient of a product of two variables in an objective was set.
class QEL_API QelSetObjQuadCoef : public QelObjectiveChange {
  QEL_CHANGE_DECL(QelSetObjQuadCoef, QelChange)

 public:
  /// `var1` * `var2` got `coef` in `objective`; the linear term answered
  /// `kernelCoef`.
  QelSetObjQuadCoef(QelObjectiveI* objective, QelNumVarI* var1, QelNumVarI* var2, double coef,
                    double kernelCoef)
      : QelObjectiveChange(objective),
        _var1(var1),
        _var2(var2),
        _coef(coef),
        _kernelCoef(kernelCoef) {}
  /// The rule of QelSetObjCoef for var1, then for var2.
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The first variable, as the caller gave it.
  QelNumVarI* getVar1() const { return _var1; }
  /// The second variable, as the caller gave it.
  QelNumVarI* getVar2() const { return _var2; }
  /// The coefficient asked for.
  double getCoef() const { return _coef; }
  /// What the linear term's setQuadCoef returned.
  double getKernelCoef() const { return _kernelCoef; }

 private:
  QelNumVarI* _var1;
  QelNumVarI* _var2;
  double _coef;
  double _kernelCoef;
};

/// The coefficients of several variables in an objective were set. Not
/// reported to visitors variable by variable.
class QEL_API QelSetObjCoefs : public QelObjectiveChange {
  QEL_CHANGE_DECL(QelSetObjCoefs, QelChange)

 public:
  /// vars[i] got coefs[i] in `objective`; the linear term filled
  /// `kernelCoefs`.
  QelSetObjCoefs(QelObjectiveI* objective, QelNumVarArray vars, QelNumArray coefs,
                 QelNumArray kernelCoefs)
      : QelObjectiveChange(objective), _vars(vars), _coefs(coefs), _kernelCoefs(kernelCoefs) {}
  /// The variables.
  QelNumVarArray getVars() const { return _vars; }
  /// The coefficients asked for.
  QelNumArray getCoefs() const { return _coefs; }
  /// The array the linear term filled; valid during the broadcast only.
  QelNumArray getKernelCoefs() const { return _kernelCoefs; }

 private:
  QelNumVarArray _vars;
  QelNumArray _coefs;
  QelNumArray _kernelCoefs;
};

/// The expression of an objective was replaced.
class QEL_API QelSetObjExpr : public QelObjectiveChange {
  QEL_CHANGE_DECL(QelSetObjExpr, QelChange)

 public:
  /// `objective` now holds `newExpr` instead of `oldExpr`.
  QelSetObjExpr(QelObjectiveI* objective, QelNumExprI* oldExpr, QelNumExprI* newExpr)
      : QelObjectiveChange(objective), _oldExpr(oldExpr), _newExpr(newExpr) {}
  /// removeSubExtractable of the old expression, then addSubExtractable of
  /// the new one.
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The expression replaced (alive during the broadcast).
  QelNumExprI* getOldExpr() const { return _oldExpr; }
  /// The expression now held.
  QelNumExprI* getNewExpr() const { return _newExpr; }

 private:
  QelNumExprI* _oldExpr;
  QelNumExprI* _newExpr;
};

/// The objective's entry of a column: a new variable enters `objective`
/// with coefficient `value` when the chain holding this notice is
/// installed. Lives in environment memory (getCopy / destroy).
class QEL_API QelAddValueToObj : public QelAddNumVar {
  QEL_CHANGE_DECL(QelAddValueToObj, QelAddNumVar)

 public:
  /// An entry of `value` in `objective`, with null `next` and `obj`.
  QelAddValueToObj(QelObjective objective, double value)
      : _value(value), _objective(objective.getImpl()) {}
  /// A copy of the value and the objective, with null `next` and `obj`.
  QelAddValueToObj(const QelAddValueToObj& other)
      : QelAddNumVar(other), _value(other._value), _objective(other._objective) {}
  /// Not assignable: a notice of a chain is copied only through getCopy.
  QelAddValueToObj& operator=(const QelAddValueToObj&) = delete;
  /// addSubExtractable(obj, obj): the new variable as both owner and sub.
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// A copy in `env` memory, without variable until setObj.
  QelAddExtractable* getCopy(QelEnvI* env) const override;
  /// Destroys the notice and gives its memory back to `env`.
  void destroy(QelEnvI* env) override;
  /// The objective.
  QelExtractableI* what() const override;
  /// Enters the new variable into the objective (QelObjectiveI::addVar).
  void apply() const override;
  /// The coefficient of the new variable.
  double getValue() const { return _value; }
  /// The objective.
  QelObjectiveI* getObjective() const { return _objective; }

 private:
  double _value;
  QelObjectiveI* _objective;
};

#endif

// The change notices of objectives.
#include <qel/objective/objectivechange.h>

// ---- the shared part ----------------------------------------------------------------

void QelObjectiveChange::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}

QelExtractableI* QelObjectiveChange::getChangedExtractable() const { return _objective; }

void QelObjectiveChange::reportCoef(QelEnvI* env, QelExtractableI* extractable, QelNumVarI* var,
                                    double coef, QelChangeVisitor* visitor) const {
  if (!env->getRegistry().knows(_objective, var)) return;
  // The coefficient asked for decides, not the linear term's answer.
  if (coef == 0.0)
    visitor->removeSubExtractable(extractable, var);
  else
    visitor->addSubExtractable(extractable, var);
}

// ---- the objective-setting notices -----------------------------------------------------

void QelSetObjCoef::visitChange(QelEnvI* env, QelExtractableI* extractable,
                                QelChangeVisitor* visitor) const {
  reportCoef(env, extractable, _var, _coef, visitor);
}

void QelSetObjQuadCoef::visitChange(QelEnvI* env, QelExtractableI* extractable,
                                    QelChangeVisitor* visitor) const {
  reportCoef(env, extractable, _var1, _coef, visitor);
  reportCoef(env, extractable, _var2, _coef, visitor);
}

void QelSetObjExpr::visitChange(QelEnvI*, QelExtractableI* extractable,
                                QelChangeVisitor* visitor) const {
  visitor->removeSubExtractable(extractable, _oldExpr);
  visitor->addSubExtractable(extractable, _newExpr);
}

// ---- the column entry -------------------------------------------------------------------

void QelAddValueToObj::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor* visitor) const {
  // The new variable stands as both owner and sub-object.
  QelExtractableI* added = getChangedExtractable();
  visitor->addSubExtractable(added, added);
}

QelAddExtractable* QelAddValueToObj::getCopy(QelEnvI* env) const {
  return QelColumnNotice<QelAddValueToObj>::Copy(*this, env);
}

void QelAddValueToObj::destroy(QelEnvI* env) {
  QelColumnNotice<QelAddValueToObj>::Destroy(this, env);
}

QelExtractableI* QelAddValueToObj::what() const { return _objective; }

void QelAddValueToObj::apply() const {
  // Anything but a variable (or nothing yet) is refused by addVar.
  _objective->addVar(QelDynamicCast<QelNumVarI>(getChangedExtractable()), _value);
}

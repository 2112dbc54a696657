// Special ordered sets: the body shared by both types, their handles and
// their notices.
#include <limits>
#include <ostream>

#include <qel/constraints/sos.h>
#include <qel/extractable/visitor.h>

QEL_EXTRACTABLE_DEF(QelSOS1I)
QEL_EXTRACTABLE_DEF(QelSOS2I)

// ---- the shared set body -----------------------------------------------------

template <class Traits>
QelSOSSetI<Traits>::QelSOSSetI(QelEnvI* env, const char* name) : QelConstraintI(env, name) {
  QelEnv e(env);
  _varArray = QelNumVarArray(QelExtractableArray(e, 0));
  try {
    _valArray = QelNumArray(e, 0);
  } catch (...) {
    _varArray.end();
    throw;
  }
}

template <class Traits>
QelSOSSetI<Traits>::QelSOSSetI(QelEnvI* env, QelNumVarArray vars, const char* name)
    : QelConstraintI(env, name), _varArray(vars) {
  try {
    _valArray = QelNumArray(QelEnv(env), 0);
  } catch (...) {
    // The variable array was not adopted after all: it stays the caller's.
    _varArray = QelNumVarArray();
    throw;
  }
}

template <class Traits>
QelSOSSetI<Traits>::QelSOSSetI(QelEnvI* env, QelNumVarArray vars, QelNumArray vals,
                               const char* name)
    : QelConstraintI(env, name), _varArray(vars), _valArray(vals) {}

template <class Traits>
QelSOSSetI<Traits>::~QelSOSSetI() {
  this->removeBeforeTeardown();
  _varArray.end();
  _valArray.end();
}

template <class Traits>
void QelSOSSetI<Traits>::addVar(QelNumVar var) {
  _varArray.add(var);
}

template <class Traits>
void QelSOSSetI<Traits>::addVal(double v) {
  _valArray.add(v);
}

template <class Traits>
double QelSOSSetI<Traits>::getMaxVal() const {
  // The count is read as a 32-bit signed number.
  int n = static_cast<int>(_valArray.getSize());
  double m = -std::numeric_limits<double>::infinity();
  // NaN compares false and is skipped.
  for (int i = 0; i < n; ++i)
    if (_valArray[i] > m) m = _valArray[i];
  return m;
}

template <class Traits>
void QelSOSSetI<Traits>::removeVar(QelNumVar var) {
  // Downward, so that the indices still to scan stay valid after a removal.
  long n = _varArray.getSize();
  for (long i = n - 1; i >= 0; --i) {
    if (_varArray.getElement(i) == var.getImpl()) {
      _varArray.remove(i, 1);
      // An entry without a weight leaves the weights alone.
      if (_valArray.getSize() > i) _valArray.remove(i, 1);
    }
    // One notice per element scanned, matching or not.
    typename Traits::RemoveNotice change(var, self());
    notify(change);
  }
}

template <class Traits>
QelExtractableI* QelSOSSetI<Traits>::makeClone(QelEnvI* env) const {
  QelExtractableArray vars(_varArray.getImpl());
  vars.replaceByClone(env);
  QelNumArray vals;
  try {
    vals = QelNumArray(QelEnv(env), 0);
    vals.add(_valArray);
    return QelNewObject<SetI>(env, env, QelNumVarArray(vars), vals, nullptr);
  } catch (...) {
    vars.end();
    vals.end();
    throw;
  }
}

template <class Traits>
void QelSOSSetI<Traits>::atRemove(QelExtractableI* sub, void*) {
  if (_env->getOneByOne() != 0) {
    removeVar(QelNumVar(static_cast<QelNumVarI*>(sub)));
    return;
  }
  // One silent sweep; the weights are left as they are.
  _varArray.removeMarked();
}

template <class Traits>
void QelSOSSetI<Traits>::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->visitChildren(this, _varArray);
  v->endVisit(this);
}

template <class Traits>
void QelSOSSetI<Traits>::display(std::ostream& out) const {
  out << Traits::DisplayName << " (";
  printNameOrId(out, "");
  out << ")" << std::endl;
  out << "  "
      << "_varArray"
      << " " << _varArray << std::endl;
  out << "  "
      << "_valArray"
      << " " << _valArray << std::endl;
}

template class QelSOSSetI<QelSOS1Traits>;
template class QelSOSSetI<QelSOS2Traits>;

// ---- handles -------------------------------------------------------------------

template <class Traits>
QelSOSHandle<Traits>::QelSOSHandle(QelEnv env, const char* name) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  this->_impl = QelNewObject<typename Traits::SetI>(env.getImpl(), env.getImpl(), name);
}

template class QelSOSHandle<QelSOS1Traits>;
template class QelSOSHandle<QelSOS2Traits>;

// ---- remove notices ------------------------------------------------------------

template <class Traits>
void QelSOSRemoveVarNotice<Traits>::visitChange(QelEnvI*, QelExtractableI*,
                                                QelChangeVisitor* visitor) const {
  visitor->removeSubExtractable(_set, _var.getImpl());
}

template <class Traits>
QelExtractableI* QelSOSRemoveVarNotice<Traits>::getChangedExtractable() const {
  return _set;
}

template class QelSOSRemoveVarNotice<QelSOS1Traits>;
template class QelSOSRemoveVarNotice<QelSOS2Traits>;

// ---- addition notices ------------------------------------------------------------

template <class Traits>
void QelAddVarToSOSNotice<Traits>::visitChange(QelEnvI*, QelExtractableI*,
                                               QelChangeVisitor* visitor) const {
  visitor->addSubExtractable(_set, const_cast<QelExtractableI*>(getObj()));
}

template <class Traits>
QelEnvI* QelAddVarToSOSNotice<Traits>::getEnv() const {
  return _set->getEnv();
}

template <class Traits>
QelAddExtractable* QelAddVarToSOSNotice<Traits>::getCopy(QelEnvI* env) const {
  return QelColumnNotice<AddNotice>::Copy(static_cast<const AddNotice&>(*this), env);
}

template <class Traits>
void QelAddVarToSOSNotice<Traits>::destroy(QelEnvI* env) {
  QelColumnNotice<AddNotice>::Destroy(static_cast<AddNotice*>(this), env);
}

template <class Traits>
void QelAddVarToSOSNotice<Traits>::destroy() {
  destroy(_set->getEnv());
}

template <class Traits>
QelExtractableI* QelAddVarToSOSNotice<Traits>::what() const {
  return _set;
}

template <class Traits>
void QelAddVarToSOSNotice<Traits>::apply() const {
  QelNumArray vals = _set->getValArray();
  long weights = vals.getSize();
  if (vals.getSize() > 0) {
    // Weights not given continue the sequence: the largest plus one.
    _set->addVal(_weight > 0.0 ? _weight : 1.0 + _set->getMaxVal());
  } else if (_set->getVarArray().getSize() == 0 && _weight > 0.0) {
    // The first weight of a new set. A set started without weights while
    // it already holds variables never gets any this way.
    _set->addVal(_weight);
  }
  try {
    _set->addVar(QelNumVar(static_cast<QelNumVarI*>(const_cast<QelExtractableI*>(getObj()))));
  } catch (...) {
    // The variable could not join (refused memory): its weight goes too.
    if (vals.getSize() > weights) vals.remove(weights, vals.getSize() - weights);
    throw;
  }
}

template class QelAddVarToSOSNotice<QelSOS1Traits>;
template class QelAddVarToSOSNotice<QelSOS2Traits>;

QelExtractableI* QelAddVarToSOS1::getChangedExtractabl() const { return getSet(); }

QelExtractableI* QelAddVarToSOS2::getChangedExtractable() const { return getSet(); }

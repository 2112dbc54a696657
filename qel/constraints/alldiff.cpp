// The all-different and all-min-distance constraints, their column objects
// and the removal notice of all-different.
#include <ostream>

#include <qel/constraints/alldiff.h>
#include <qel/extractable/visitor.h>

QEL_EXTRACTABLE_DEF(QelAllDiffI)
QEL_EXTRACTABLE_DEF(QelAllMinDistanceI)

// ===========================================================================
// The shared body
// ===========================================================================

QelExprArrayConstraintI::QelExprArrayConstraintI(QelEnvI* env, QelIntExprArray exprs,
                                                 const char* name)
    : QelConstraintI(env, name), _exprArray(exprs) {
  _exprArray.lockExprs();
}

QelExprArrayConstraintI::QelExprArrayConstraintI(QelEnvI* env, const char* name)
    : QelConstraintI(env, name), _exprArray(QelExtractableArray(QelEnv(env), 0)) {}

QelExprArrayConstraintI::~QelExprArrayConstraintI() {
  removeBeforeTeardown();
  // Every element is released, also those added without a lock (addExpr,
  // column objects): the constraint gives back one use per element held.
  try {
    _exprArray.releaseExprs();
  } catch (...) {
    _exprArray.end();
    throw;
  }
  _exprArray.end();
}

void QelExprArrayConstraintI::appendExpr(const QelIntExprI* e) {
  _exprArray.add(QelExtractable(const_cast<QelIntExprI*>(e)));
}

void QelExprArrayConstraintI::removeMarkedExprs() { _exprArray.removeMarked(); }

QelIntExprArray QelExprArrayConstraintI::cloneExprArray(QelEnvI* env) const {
  // replaceByClone leaves the constraint's own array untouched and points
  // the copied handle at the new one.
  QelIntExprArray clone = _exprArray;
  clone.replaceByClone(env);
  return clone;
}

void QelExprArrayConstraintI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->visitChildren(this, _exprArray);
  v->endVisit(this);
}

void QelExprArrayConstraintI::display(std::ostream& os) const {
  os << getRttiTypeName() << " (";
  printNameOrId(os, "");
  os << ")" << std::endl;
  os << "  "
     << "_exprArray"
     << " " << static_cast<const QelArray<QelExtractable>&>(_exprArray) << std::endl;
}

namespace {

// Constructs a constraint of class C in `env` over the array `exprs`, which
// it adopts; if the construction fails the array is ended, so that nothing
// stays allocated.
template <class C, class... Args>
C* NewOverArray(QelEnvI* env, QelIntExprArray exprs, Args... args) {
  try {
    return QelNewObject<C>(env, env, exprs, args...);
  } catch (...) {
    exprs.end();
    throw;
  }
}

}  // namespace

// ===========================================================================
// QelAllDiffI
// ===========================================================================

QelAllDiffI::QelAllDiffI(QelEnvI* env, QelIntExprArray exprs, const char* name)
    : QelExprArrayConstraintI(env, exprs, name) {}

QelAllDiffI::QelAllDiffI(QelEnvI* env, const char* name) : QelExprArrayConstraintI(env, name) {}

QelExtractableI* QelAllDiffI::makeClone(QelEnvI* env) const {
  return NewOverArray<QelAllDiffI>(env, cloneExprArray(env), static_cast<const char*>(nullptr));
}

void QelAllDiffI::atRemove(QelExtractableI*, void*) { removeMarkedExprs(); }

double QelAllDiffI::eval(QelAlgorithm alg) const {
  QelNumSet values{QelEnv(_env)};
  long n = _exprArray.getSize();
  for (long i = 0; i < n; ++i)
    values.add(static_cast<const QelIntExprI*>(_exprArray.getElement(i))->eval(alg));
  bool different = values.getSize() == _exprArray.getSize();
  values.end();
  return different ? 1.0 : 0.0;
}

void QelAllDiffI::addExpr(QelIntExprI* e) { appendExpr(e); }

void QelAllDiffI::removeExpr(QelIntExprI* e) {
  removeEach(e, [this, e]() {
    QelAllDiffRemoveVar change(e, this);
    notify(change);
  });
}

// ===========================================================================
// QelAllMinDistanceI
// ===========================================================================

QelAllMinDistanceI::QelAllMinDistanceI(QelEnvI* env, QelIntExprArray exprs, QelInt k,
                                       const char* name)
    : QelExprArrayConstraintI(env, exprs, name), _k(k) {}

QelAllMinDistanceI::QelAllMinDistanceI(QelEnvI* env, QelInt k, const char* name)
    : QelExprArrayConstraintI(env, name), _k(k) {}

QelExtractableI* QelAllMinDistanceI::makeClone(QelEnvI* env) const {
  return NewOverArray<QelAllMinDistanceI>(env, cloneExprArray(env), _k,
                                          static_cast<const char*>(nullptr));
}

void QelAllMinDistanceI::atRemove(QelExtractableI* removed, void* data) {
  if (_env->getOneByOne() != 0) {
    QelExtractableI::atRemove(removed, data);
    return;
  }
  removeMarkedExprs();
}

void QelAllMinDistanceI::display(std::ostream& os) const {
  QelExprArrayConstraintI::display(os);
  os << "  "
     << "k"
     << " " << _k << std::endl;
}

void QelAllMinDistanceI::addExpr(const QelIntExprI* e) { appendExpr(e); }

void QelAllMinDistanceI::removeExpr(const QelIntExprI* e) {
  removeEach(e, []() {});
}

// ===========================================================================
// The removal notice
// ===========================================================================

void QelAllDiffRemoveVar::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor* visitor) const {
  visitor->removeSubExtractable(_constraint, _expr);
}

QelExtractableI* QelAllDiffRemoveVar::getChangedExtractable() const { return _constraint; }

// ===========================================================================
// Handles
// ===========================================================================

namespace {

// The environment of a handle constructor, checked after the array.
QelEnvI* EnvOf(const QelEnv& env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return env.getImpl();
}

// A new array implementation copying `exprs`, allocated through the
// environment of `exprs` and built by the copying constructor.
QelIntExprArray CopyOf(const QelIntExprArray& exprs) {
  QelArrayI* source = exprs.getImpl();
  return QelIntExprArray(
      QelExtractableArray(QelArrayI::MakeCopy(source->getEnv()->getGeneralAllocator(), source)));
}

}  // namespace

QelAllDiff::QelAllDiff(QelEnv env, const QelIntVarArray& vars, const char* name) {
  if (vars.getImpl() == nullptr) throw QelEmptyHandleException();
  QelEnvI* e = EnvOf(env);
  _impl = NewOverArray<QelAllDiffI>(e, vars.toIntExprArray(), name);
}

QelAllDiff::QelAllDiff(QelEnv env, const QelIntExprArray& exprs, const char* name) {
  if (exprs.getImpl() == nullptr) throw QelEmptyHandleException();
  QelEnvI* e = EnvOf(env);
  _impl = NewOverArray<QelAllDiffI>(e, CopyOf(exprs), name);
}

QelAllDiff::QelAllDiff(QelEnv env, const char* name) {
  QelEnvI* e = EnvOf(env);
  _impl = QelNewObject<QelAllDiffI>(e, e, name);
}

QelAddVarToAllDiff QelAllDiff::operator()() const { return QelAddVarToAllDiff(getImpl()); }

QelAllMinDistance::QelAllMinDistance(QelEnv env, const QelIntVarArray& vars, QelInt k,
                                     const char* name) {
  if (vars.getImpl() == nullptr) throw QelEmptyHandleException();
  QelEnvI* e = EnvOf(env);
  _impl = NewOverArray<QelAllMinDistanceI>(e, vars.toIntExprArray(), k, name);
}

QelAllMinDistance::QelAllMinDistance(QelEnv env, const QelIntExprArray& exprs, QelInt k,
                                     const char* name) {
  if (exprs.getImpl() == nullptr) throw QelEmptyHandleException();
  QelEnvI* e = EnvOf(env);
  _impl = NewOverArray<QelAllMinDistanceI>(e, CopyOf(exprs), k, name);
}

QelAllMinDistance::QelAllMinDistance(QelEnv env, QelInt k, const char* name) {
  QelEnvI* e = EnvOf(env);
  _impl = QelNewObject<QelAllMinDistanceI>(e, e, k, name);
}

QelAddVarToAllMinDistance QelAllMinDistance::operator()() const {
  return QelAddVarToAllMinDistance(getImpl());
}

// The difference constraint.
#include <ostream>

#include <qel/constraints/diff.h>
#include <qel/extractable/visitor.h>

QEL_EXTRACTABLE_DEF(QelDiffI)

QelDiffI::QelDiffI(QelEnvI* env, QelNumExprI* x, double c, const char* name)
    : QelConstraintI(env, name), _x(x), _y(nullptr), _constant(c) {
  _x->lockExpr();
}

QelDiffI::QelDiffI(QelEnvI* env, QelNumExprI* x, QelNumExprI* y, const char* name)
    : QelConstraintI(env, name), _x(x), _y(y), _constant(0.0) {
  _x->lockExpr();
  _y->lockExpr();
}

QelDiffI::~QelDiffI() {
  removeBeforeTeardown();
  _env->release(_x);
  if (_y != nullptr) _env->release(_y);
}

double QelDiffI::eval(QelAlgorithm alg) const {
  double r = _y != nullptr ? _y->eval(alg) : _constant;
  double l = _x->eval(alg);
  // An unordered comparison (a NaN on either side) counts as different.
  return l != r ? 1.0 : 0.0;
}

QelExtractableI* QelDiffI::makeClone(QelEnvI* env) const {
  auto* x = static_cast<QelNumExprI*>(env->getClone(_x));
  if (_y != nullptr) {
    auto* y = static_cast<QelNumExprI*>(env->getClone(_y));
    return QelNewObject<QelDiffI>(env, env, x, y, nullptr);
  }
  return QelNewObject<QelDiffI>(env, env, x, _constant, nullptr);
}

void QelDiffI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->visitChildren(this, _x);
  if (_y != nullptr) v->visitChildren(this, _y);
  v->endVisit(this);
}

void QelDiffI::display(std::ostream& os) const {
  if (_env->getDetailedDisplay()) {
    printNameOrId(os, "c");
    os << ": QelDiff(";
    _x->display(os);
    os << " != ";
    if (_y != nullptr)
      _y->display(os);
    else
      os << _constant;
    os << ") ";
    return;
  }
  if (const char* name = getName()) {
    os << name << " ";
    return;
  }
  _x->display(os);
  os << " != ";
  // A blank follows a constant, nothing follows an expression.
  if (_y != nullptr)
    _y->display(os);
  else
    os << _constant << " ";
}

// ---- the handle -------------------------------------------------------------
//
// The implementation is built in the environment of its left expression and
// its block comes from that environment's memory too: a deleted object gives
// its block back to its own environment, so it must be taken from there. In
// every proper use the environment given to the handle is that same one.

namespace {

// The expression, checked: an empty handle would leave nothing to compare.
QelNumExprI* Operand(const QelNumExprArg& e) {
  if (e.getImpl() == nullptr) throw QelEmptyHandleException();
  return e.getImpl();
}

}  // namespace

QelDiff::QelDiff(QelEnv, QelNumExprArg x, double c, const char* name) {
  QelNumExprI* left = Operand(x);
  QelEnvI* env = left->getEnv();
  _impl = QelNewObject<QelDiffI>(env, env, left, c, name);
}

QelDiff::QelDiff(QelEnv, QelNumExprArg x, QelNumExprArg y, const char* name) {
  QelNumExprI* left = Operand(x);
  QelNumExprI* right = Operand(y);
  QelEnvI* env = left->getEnv();
  _impl = QelNewObject<QelDiffI>(env, env, left, right, name);
}

// The objective, its handle and the builders of multi-criterion objectives.
#include <ostream>

#include <qel/extractable/visitor.h>
#include <qel/objective/objective.h>
#include <qel/objective/objectivechange.h>

QEL_EXTRACTABLE_DEF(QelObjectiveI)
void* (*QelObjectiveI::_addToCP)(QelAlgorithm, const QelObjectiveI*, void*) = nullptr;
void* (*QelObjectiveI::_removeFromCP)(QelAlgorithm, const QelObjectiveI*, void*) = nullptr;

// ---- construction and destruction --------------------------------------------------

QelNumExprI* QelObjectiveI::keep(QelNumExprI* expr) {
  QelNumExprI* kept = expr->takeForKeeping();
  kept->lockExpr();
  return kept;
}

QelObjectiveI::QelObjectiveI(QelEnvI* env, double constant, QelObjective::Sense sense,
                             const char* name)
    : QelExtractableI(env, name),
      _sense(sense),
      // The kernel's constant expression is held as the kernel made it.
      _expr(QelExpr(QelEnv(env), constant).getImpl()),
      _multiCriterion(nullptr) {}

QelObjectiveI::QelObjectiveI(QelEnvI* env, QelNumExprI* expr, QelObjective::Sense sense,
                             const char* name)
    : QelExtractableI(env, name), _sense(sense), _expr(nullptr), _multiCriterion(nullptr) {
  // Taken once every member is set: a term made for keeping that cannot be
  // completed is ended, and that removal visits every registered object,
  // this one included.
  _expr = keep(expr);
}

QelObjectiveI::QelObjectiveI(QelEnvI* env, const QelMultiCriterionExprI* mc,
                             QelObjective::Sense sense, const char* name)
    : QelExtractableI(env, name),
      _sense(sense),
      _expr(nullptr),
      _multiCriterion(mc->duplicate(env)) {}

QelObjectiveI::~QelObjectiveI() {
  removeBeforeTeardown();
  QelMultiCriterionExprI* mc = _multiCriterion;
  _multiCriterion = nullptr;
  try {
    if (_expr != nullptr) _env->release(_expr);
  } catch (...) {
    delete mc;
    throw;
  }
  delete mc;
}

// ---- engine hooks --------------------------------------------------------------------

void* QelObjectiveI::whenAddedToCP(QelAlgorithm algorithm, void* data) const {
  if (_addToCP != nullptr) return _addToCP(algorithm, this, data);
  QelThrowExtractFailure();
}

void* QelObjectiveI::whenRemovedFromCP(QelAlgorithm algorithm, void* data) const {
  // An empty slot is reported as an extraction failure, like whenAddedToCP.
  if (_removeFromCP != nullptr) return _removeFromCP(algorithm, this, data);
  QelThrowExtractFailure();
}

// ---- criteria ----------------------------------------------------------------------

long QelObjectiveI::getNumCriteria() const {
  return _multiCriterion != nullptr ? _multiCriterion->getNumCriteria() : 1;
}

QelNumExprI* QelObjectiveI::getCriterion(long i) const {
  // Signed comparison only: a negative index is not refused.
  if (getNumCriteria() > i)
    return _multiCriterion != nullptr ? _multiCriterion->getCriterion(i) : _expr;
  throw QelWrongUsage("QelObjectiveI: Criterion index out of range");
}

void QelObjectiveI::refuseMultiCriterion(const char* operation) const {
  if (_multiCriterion != nullptr) throw QelNotAllowedWithMultiCriterionException(operation);
}

QelNumExprI* QelObjectiveI::getExpr() const {
  refuseMultiCriterion("QelObjective::getExpr");
  return _expr;
}

// ---- modifications -------------------------------------------------------------------

QelNumLinTermI* QelObjectiveI::ownExpr() {
  // Copy-on-write: modify in place only what nobody else uses.
  QelNumExprI* work = _expr;
  work->unlockExpr();
  if (work->getUseCount() > 0) {
    try {
      work = work->makeCopy();
    } catch (...) {
      _expr->lockExpr();
      throw;
    }
  }
  work->lockExpr();
  _expr = work;
  // Every expression the objective keeps is a numeric linear term: the
  // kernel's constant, what take-for-keeping gives, and copies of those.
  return static_cast<QelNumLinTermI*>(work);
}

void QelObjectiveI::disown(QelNumExprI* former) noexcept {
  // The change ownExpr was called for failed: a copy made for it goes, and
  // the former expression gets its use back.
  if (_expr == former) return;
  QelNumExprI* copy = _expr;
  former->lockExpr();
  _expr = former;
  try {
    _env->release(copy);
  } catch (...) {
    // Nothing may hide the failure being reported.
  }
}

void QelObjectiveI::refuseAggregate() const {
  // The objective keeps numeric linear terms only (see ownExpr).
  if (static_cast<const QelNumLinTermI*>(_expr)->containsAggregate())
    throw QelWrongUsage("You can not change the coefficient of an aggregate expression");
}

QelNumLinTermI* QelObjectiveI::ownCoefficients() {
  // Copy-on-write comes first: a shared aggregate is copied, and when the
  // change is then refused the objective keeps that copy.
  QelNumLinTermI* term = ownExpr();
  refuseAggregate();
  return term;
}

void QelObjectiveI::setSense(QelObjective::Sense sense) {
  _sense = sense;
  QelSetObjSense change(this, sense);
  notify(change);
}

void QelObjectiveI::setConst(double constant) {
  if (_multiCriterion != nullptr) {
    if (constant == 0.0) return;
    refuseMultiCriterion("QelObjective::setConst");
  }
  ownExpr()->setConstant(constant);
  QelSetObjConst change(this, constant);
  notify(change);
}

void QelObjectiveI::setExpr(QelNumExprArg expr) {
  refuseMultiCriterion("QelObjective::setExpr");
  QelNumExprI* old = _expr;
  _expr = keep(expr.getImpl());
  try {
    QelSetObjExpr change(this, old, _expr);
    notify(change);
  } catch (...) {
    _env->release(old);
    throw;
  }
  // The old expression lived while the listeners were told.
  _env->release(old);
}

void QelObjectiveI::setCoef(QelNumVar x, double coef) {
  refuseMultiCriterion("QelObjective::setCoef");
  if (x.getImpl() == nullptr) throw QelEmptyHandleException();
  QelNumExprI* former = _expr;
  QelNumLinTermI* term = ownCoefficients();
  double kernelCoef;
  try {
    term->zolNormalization();
    kernelCoef = term->setCoef(x, coef);
  } catch (...) {
    disown(former);
    throw;
  }
  QelSetObjCoef change(this, x.getImpl(), coef, kernelCoef);
  notify(change);
}

void QelObjectiveI::setCoef(QelNumVarArray xs, QelNumArray coefs) {
  refuseMultiCriterion("QelObjective::setCoef");
  // What the linear term would refuse for its arguments is refused before
  // anything is copied.
  if (coefs.getSize() != xs.getSize())
    throw QelWrongUsage("QelNumLinTermI::setCoef: arrays of different sizes");
  for (long i = 0; i < xs.getSize(); ++i)
    if (xs.getElement(i) == nullptr) throw QelEmptyHandleException();
  QelNumExprI* former = _expr;
  QelNumLinTermI* term = ownCoefficients();
  // The answer array, made after the copy, lives where the variables'
  // array does (the objective's environment when there is no array at all).
  QelNumArray kernelCoefs;
  try {
    term->zolNormalization();
    kernelCoefs = QelNumArray(xs.getImpl() != nullptr ? xs.getEnv() : QelEnv(_env), xs.getSize());
    term->setCoef(xs, coefs, kernelCoefs);
  } catch (...) {
    disown(former);
    if (kernelCoefs.getImpl() != nullptr) kernelCoefs.end();
    throw;
  }
  try {
    QelSetObjCoefs change(this, xs, coefs, kernelCoefs);
    notify(change);
  } catch (...) {
    kernelCoefs.end();
    throw;
  }
  // Listeners that want the former coefficients copied them meanwhile.
  kernelCoefs.end();
}

void QelObjectiveI::setQuadCoef(QelNumVar x, QelNumVar y, double coef) {
  // The quadratic setter reports itself under the linear setter's name.
  refuseMultiCriterion("QelObjective::setCoef");
  if (x.getImpl() == nullptr || y.getImpl() == nullptr) throw QelEmptyHandleException();
  // Unlike the linear setters, no 0-1 normalization: the quadratic terms
  // stay as they were written.
  QelNumExprI* former = _expr;
  QelNumLinTermI* term = ownCoefficients();
  double kernelCoef;
  try {
    kernelCoef = term->setQuadCoef(x, y, coef);
  } catch (...) {
    disown(former);
    throw;
  }
  QelSetObjQuadCoef change(this, x.getImpl(), y.getImpl(), coef, kernelCoef);
  notify(change);
}

void QelObjectiveI::addVar(QelNumVarI* v, double coef) {
  refuseMultiCriterion("QelObjective::addVar");
  if (v == nullptr) throw QelEmptyHandleException();
  // The bookkeeping word must come out as it went in, whatever the copy and
  // the append do to it.
  QelNumExprI* former = _expr;
  QelInt saved = static_cast<QelNumLinTermI*>(former)->getBookkeeping();
  // Copy-on-write, then the new term; a refused term gives the copy up, so
  // the objective is left as it was.
  QelNumLinTermI* term = ownExpr();
  QelLinTermNode* node;
  try {
    node = v->getEnv()->newTerm(v, coef);
  } catch (...) {
    disown(former);
    static_cast<QelNumLinTermI*>(former)->setBookkeeping(saved);
    throw;
  }
  term->appendTerm(node);
  term->setBookkeeping(saved);
  // No notice: the column that brings v reports it.
}

long QelObjectiveI::normalize() {
  if (_expr != nullptr) static_cast<QelNumLinTermI*>(_expr)->normalize();
  return 0;
}

// ---- QelExtractableI -----------------------------------------------------------------

QelExtractableI* QelObjectiveI::makeClone(QelEnvI* env) const {
  if (_multiCriterion == nullptr) {
    auto* exprClone = static_cast<QelNumExprI*>(env->getClone(_expr));
    return QelNewObject<QelObjectiveI>(env, env, exprClone, _sense);
  }
  // The objective keeps a duplicate of what it is given: the clone made
  // here is only the source of that duplicate.
  QelMultiCriterionExpr mcClone(_multiCriterion->makeClone(env));
  QelObjectiveI* clone = nullptr;
  try {
    clone = QelNewObject<QelObjectiveI>(
        env, env, static_cast<const QelMultiCriterionExprI*>(mcClone.getImpl()), _sense);
  } catch (...) {
    mcClone.end();
    throw;
  }
  mcClone.end();
  return clone;
}

void QelObjectiveI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  if (_expr != nullptr) v->visitChildren(this, _expr);
  if (_multiCriterion != nullptr && _multiCriterion->getExprs().getImpl() != nullptr)
    v->visitChildren(this, _multiCriterion->getExprs());
  v->endVisit(this);
}

void QelObjectiveI::display(std::ostream& os) const {
  printNameOrId(os, "obj");
  os << " = (";
  if (_expr != nullptr)
    _expr->display(os);
  else
    _multiCriterion->display(os);
  os << (_sense == QelObjective::Maximize ? ", QelObjective, Maximize);"
                                          : ", QelObjective, Minimize);")
     << std::endl;
}

// ---- the handle -----------------------------------------------------------------------

namespace {

// The one shape of every handle check: the implementation, or exception E
// with the text of the operation's group.
template <class E>
QelObjectiveI* Checked(const QelObjective& obj, const char* message) {
  if (obj.getImpl() == nullptr) throw E(message);
  return obj.getImpl();
}

QelObjectiveI* Impl(const QelObjective& obj) {
  return Checked<QelEmptyHandleException>(obj, "Using empty QelObjective handle.");
}

QelObjectiveI* CoefImpl(const QelObjective& obj) {
  return Checked<QelEmptyHandleException>(obj, "Using empty handle");
}

QelEnvI* EnvOf(const QelEnv& env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return env.getImpl();
}

void CheckExpr(const QelNumExprArg& expr) {
  if (expr.getImpl() == nullptr) throw QelEmptyHandleException("Using empty QelNumExpr handle.");
}

// The expression the iterators walk: refused on a multi-criterion
// objective, "can not get an iterator" when there is none.
QelNumExpr IteratedExpr(const QelObjective& obj) {
  QelNumExprI* e = Checked<QelWrongUsage>(obj, "empty handle")->getExpr();
  if (e == nullptr) throw QelWrongUsage("can not get an iterator");
  return QelNumExpr(e);
}

}  // namespace

QelObjective::QelObjective(QelEnv env, double constant, Sense sense, const char* name) {
  QelEnvI* e = EnvOf(env);
  _impl = QelNewObject<QelObjectiveI>(e, e, constant, sense, name);
}

QelObjective::QelObjective(QelEnv env, QelNumExprArg expr, Sense sense, const char* name) {
  QelEnvI* e = EnvOf(env);
  CheckExpr(expr);
  _impl = QelNewObject<QelObjectiveI>(e, e, expr.getImpl(), sense, name);
}

QelObjective::QelObjective(QelEnv env, QelMultiCriterionExpr mc, Sense sense, const char* name) {
  QelEnvI* e = EnvOf(env);
  _impl = QelNewObject<QelObjectiveI>(
      e, e, static_cast<const QelMultiCriterionExprI*>(mc.getImpl()), sense, name);
}

QelObjective::Sense QelObjective::getSense() const { return Impl(*this)->getSense(); }

void QelObjective::setSense(Sense sense) const { Impl(*this)->setSense(sense); }

QelNumExprArg QelObjective::getExpr() const { return Impl(*this)->getExpr(); }

QelObjective::operator QelNumExprArg() const { return Impl(*this)->getExpr(); }

double QelObjective::getConst() const {
  QelObjectiveI* obj = Impl(*this);
  if (obj->getMultiCriterion() != nullptr) return 0.0;
  QelNumExprI* e = obj->getExpr();
  QelTestIsLinear(e);
  return e->getConstant();
}

void QelObjective::setConst(double constant) const {
  QelObjectiveI* obj = Impl(*this);
  if (obj->getMultiCriterion() == nullptr) QelTestIsLinear(obj->getExpr());
  obj->setConst(constant);
}

void QelObjective::setExpr(QelNumExprArg expr) const {
  QelObjectiveI* obj = Impl(*this);
  CheckExpr(expr);
  obj->setExpr(expr);
}

void QelObjective::setLinearCoef(QelNumVar x, double coef) const {
  CoefImpl(*this)->setCoef(x, coef);
}

void QelObjective::setLinearCoefs(QelNumVarArray xs, QelNumArray coefs) const {
  CoefImpl(*this)->setCoef(xs, coefs);
}

void QelObjective::setQuadCoef(QelNumVar x, QelNumVar y, double coef) const {
  CoefImpl(*this)->setQuadCoef(x, y, coef);
}

QelNumExpr::LinearIterator QelObjective::getLinearIterator() const {
  return IteratedExpr(*this).getLinearIterator();
}

QelNumExpr::QuadIterator QelObjective::getQuadIterator() const {
  return IteratedExpr(*this).getQuadIterator();
}

// ---- builders of multi-criterion objectives ------------------------------------------

namespace {

QelObjective MultiCriterionObjective(QelEnv env, QelMultiCriterionExpr mc,
                                     QelObjective::Sense sense, const char* name) {
  if (env.getImpl() == nullptr || mc.getImpl() == nullptr)
    throw QelWrongUsage("Using empty handle");
  if (mc->getNumCriteria() == 0) throw QelWrongUsage("Array of criteria has size 0");
  return QelObjective(env, mc, sense, name);
}

}  // namespace

QelObjective QelMaximize(QelEnv env, QelMultiCriterionExpr mc, const char* name) {
  return MultiCriterionObjective(env, mc, QelObjective::Maximize, name);
}

QelObjective QelMinimize(QelEnv env, QelMultiCriterionExpr mc, const char* name) {
  return MultiCriterionObjective(env, mc, QelObjective::Minimize, name);
}

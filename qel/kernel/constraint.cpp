// Constraints, ranges, number sets, set variables and interval variables.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <ostream>
#include <sstream>
#include <utility>

#include <qel/extractable/visitor.h>
#include <qel/kernel/constraint.h>

QEL_RTTI_DEF(QelConstraintI)
QEL_EXTRACTABLE_DEF(QelRangeI)
QEL_EXTRACTABLE_DEF(QelIntSetVarI)
QEL_EXTRACTABLE_DEF(QelIntervalVarI)

namespace {

QelEnvI* EnvOf(const QelEnv& env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return env.getImpl();
}

}  // namespace

// ===========================================================================
// QelConstraintI
// ===========================================================================

QelConstraintI::~QelConstraintI() { removeBeforeTeardown(); }

QelBool QelConstraintI::isConstraint() { return true; }

double QelConstraintI::eval(QelAlgorithm) const {
  throw QelNotImplemented("QelConstraintI::eval is not available for this constraint");
}

// ===========================================================================
// QelRangeI
// ===========================================================================

QelRangeI::QelRangeI(QelEnvI* env, double lb, QelNumExprI* expr, double ub, const char* name)
    : QelConstraintI(env, name), _lb(lb), _expr(expr), _ub(ub) {
  if (_expr != nullptr) _expr->lockExpr();
}

QelRangeI::~QelRangeI() {
  removeBeforeTeardown();
  if (_expr != nullptr) _expr->getEnv()->release(_expr);
}

QelExtractableI* QelRangeI::makeClone(QelEnvI* env) const {
  QelNumExprI* expr = _expr != nullptr ? static_cast<QelNumExprI*>(env->getClone(_expr)) : nullptr;
  return QelNewObject<QelRangeI>(env, env, _lb, expr, _ub);
}

void QelRangeI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  // A range without expression has no sub-extractable (a null child would
  // read as one being removed).
  if (_expr != nullptr) v->visitChildren(this, _expr);
  v->endVisit(this);
}

void QelRangeI::display(std::ostream& os) const {
  auto expr = [this, &os]() {
    if (_expr != nullptr) _expr->display(os);
  };
  bool lower = !QelIsInfinite(_lb);
  bool upper = !QelIsInfinite(_ub);
  if (lower && upper && _lb == _ub) {
    expr();
    os << " == " << _lb;
  } else if (lower && !upper) {
    expr();
    os << " >= " << _lb;
  } else if (upper && !lower) {
    expr();
    os << " <= " << _ub;
  } else {
    // Both bounds, or none: the full form keeps the (infinite) numbers.
    os << _lb << " <= ";
    expr();
    os << " <= " << _ub;
  }
}

double QelRangeI::eval(QelAlgorithm alg) const { return eval(alg, DefaultTolerance); }

double QelRangeI::eval(QelAlgorithm alg, double tolerance) const {
  if (_expr == nullptr) {
    std::ostringstream text;
    text << "QelRangeI::eval: the range ";
    printNameOrId(text, "QelRange");
    text << " has no expression";
    throw QelWrongUsage(text.str().c_str());
  }
  double v = _expr->eval(alg);
  if (v != v) return 0.0;
  auto slack = [tolerance](double bound) { return tolerance * std::max(1.0, std::fabs(bound)); };
  if (!QelIsInfinite(_lb) && v < _lb - slack(_lb)) return 0.0;
  if (!QelIsInfinite(_ub) && v > _ub + slack(_ub)) return 0.0;
  return 1.0;
}

void QelRangeI::setBounds(double lb, double ub) {
  QelRequireBounds(lb, ub, "QelRange::setBounds", [this](std::ostream& os) {
    os << "the range ";
    printNameOrId(os, "QelRange");
  });
  _lb = lb;
  _ub = ub;
  notify(QelSetRangeBounds(this));
}

void QelSetRangeBounds::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}
QelExtractableI* QelSetRangeBounds::getChangedExtractable() const { return _r; }

QelRange::QelRange(QelEnv env, double lb, const QelNumExpr& expr, double ub, const char* name)
    : QelHandle<QelRangeI, QelConstraint>(
          QelNewObject<QelRangeI>(EnvOf(env), EnvOf(env), lb, expr.getImpl(), ub, name)) {}

namespace {

QelNumExpr RangeExpr(const QelRange& r) {
  if (r.getImpl() == nullptr) throw QelWrongUsage("empty handle");
  if (r.getImpl()->getExpr() == nullptr) throw QelWrongUsage("can not get an iterator");
  return QelNumExpr(r.getImpl()->getExpr());
}

QelRangeI* RangeOf(const QelRange& r) {
  if (r.getImpl() == nullptr) throw QelEmptyHandleException("QelRange: using empty handle");
  return r.getImpl();
}

}  // namespace

double QelRange::getLB() const { return RangeOf(*this)->getLB(); }
double QelRange::getUB() const { return RangeOf(*this)->getUB(); }
QelNumExpr QelRange::getExpr() const { return QelNumExpr(RangeOf(*this)->getExpr()); }
void QelRange::setLB(double lb) const { RangeOf(*this)->setBounds(lb, RangeOf(*this)->getUB()); }
void QelRange::setUB(double ub) const { RangeOf(*this)->setBounds(RangeOf(*this)->getLB(), ub); }
void QelRange::setBounds(double lb, double ub) const { RangeOf(*this)->setBounds(lb, ub); }
double QelRange::eval(QelAlgorithm alg, double tolerance) const {
  return RangeOf(*this)->eval(alg, tolerance);
}

// ---- relational operators ----------------------------------------------------

namespace {

QelNumExprI* OperandOf(const QelNumExpr& e) {
  if (e.getImpl() == nullptr) throw QelEmptyHandleException();
  return e.getImpl();
}

// A new range lb <= e <= ub in e's environment.
QelRange NewRange(double lb, const QelNumExpr& e, double ub) {
  QelNumExprI* x = OperandOf(e);
  QelEnvI* env = x->getEnv();
  return QelNewObject<QelRangeI>(env, env, lb, x, ub);
}

// lb <= d <= ub for the difference d = a - b an operator has just made (a
// temporary): its constant moves into the bounds, so that `x + 3 <= y`
// reads x - y <= -3.
QelRange DifferenceRange(double lb, QelNumExpr d, double ub) {
  double c = d.getConstant();
  if (c != 0) {
    d -= c;  // in place: nothing else has d
    if (!QelIsInfinite(lb)) lb -= c;
    if (!QelIsInfinite(ub)) ub -= c;
  }
  try {
    return NewRange(lb, d, ub);
  } catch (...) {
    d.end();
    throw;
  }
}

}  // namespace

QelRange operator<=(const QelNumExpr& a, const QelNumExpr& b) {
  return DifferenceRange(-QelInfinity, a - b, 0);
}
QelRange operator<=(const QelNumExpr& a, double ub) { return NewRange(-QelInfinity, a, ub); }
QelRange operator<=(double lb, const QelNumExpr& b) { return NewRange(lb, b, QelInfinity); }
QelRange operator>=(const QelNumExpr& a, const QelNumExpr& b) {
  return DifferenceRange(0, a - b, QelInfinity);
}
QelRange operator>=(const QelNumExpr& a, double lb) { return NewRange(lb, a, QelInfinity); }
QelRange operator>=(double ub, const QelNumExpr& b) { return NewRange(-QelInfinity, b, ub); }
QelRange operator==(const QelNumExpr& a, const QelNumExpr& b) {
  return DifferenceRange(0, a - b, 0);
}
QelRange operator==(const QelNumExpr& a, double v) { return NewRange(v, a, v); }
QelRange operator<=(QelNumExpr&& a, const QelNumExpr& b) {
  return DifferenceRange(-QelInfinity, std::move(a) - b, 0);
}
QelRange operator<=(const QelNumExpr& a, QelNumExpr&& b) {
  return DifferenceRange(-QelInfinity, a - std::move(b), 0);
}
QelRange operator<=(QelNumExpr&& a, QelNumExpr&& b) {
  return DifferenceRange(-QelInfinity, std::move(a) - std::move(b), 0);
}
QelRange operator>=(QelNumExpr&& a, const QelNumExpr& b) {
  return DifferenceRange(0, std::move(a) - b, QelInfinity);
}
QelRange operator>=(const QelNumExpr& a, QelNumExpr&& b) {
  return DifferenceRange(0, a - std::move(b), QelInfinity);
}
QelRange operator>=(QelNumExpr&& a, QelNumExpr&& b) {
  return DifferenceRange(0, std::move(a) - std::move(b), QelInfinity);
}
QelRange operator==(QelNumExpr&& a, const QelNumExpr& b) {
  return DifferenceRange(0, std::move(a) - b, 0);
}
QelRange operator==(const QelNumExpr& a, QelNumExpr&& b) {
  return DifferenceRange(0, a - std::move(b), 0);
}
QelRange operator==(QelNumExpr&& a, QelNumExpr&& b) {
  return DifferenceRange(0, std::move(a) - std::move(b), 0);
}
QelRange operator<=(QelNumExpr&& a, double ub) { return NewRange(-QelInfinity, a, ub); }
QelRange operator<=(double lb, QelNumExpr&& b) { return NewRange(lb, b, QelInfinity); }
QelRange operator>=(QelNumExpr&& a, double lb) { return NewRange(lb, a, QelInfinity); }
QelRange operator>=(double ub, QelNumExpr&& b) { return NewRange(-QelInfinity, b, ub); }
QelRange operator==(QelNumExpr&& a, double v) { return NewRange(v, a, v); }
QelRange operator==(double v, QelNumExpr&& b) { return NewRange(v, b, v); }
QelRange operator==(double v, const QelNumExpr& b) { return NewRange(v, b, v); }

QelNumExpr::LinearIterator QelRange::getLinearIterator() const {
  return RangeExpr(*this).getLinearIterator();
}

QelNumExpr::QuadIterator QelRange::getQuadIterator() const {
  return RangeExpr(*this).getQuadIterator();
}

// ===========================================================================
// QelNumSet: open addressing, linear probing, at most half full.
// ===========================================================================

namespace {

// The bits of `v` mixed; -0.0 is looked up as 0.0 by the callers.
std::size_t HashOf(double v) {
  std::uint64_t h;
  std::memcpy(&h, &v, sizeof h);
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDULL;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ULL;
  h ^= h >> 33;
  return static_cast<std::size_t>(h);
}

}  // namespace

QelNumSet::QelNumSet(QelEnv env) : _env(EnvOf(env)) {}

void QelNumSet::add(double v) {
  if (v == 0) v = 0.0;      // -0.0 and 0.0 are one value
  if (contains(v)) return;  // never true for NaN: each NaN is a new value
  if ((_count + 1) * 2 > _capacity) rehash(_capacity == 0 ? 16 : _capacity * 2);
  std::size_t mask = static_cast<std::size_t>(_capacity - 1);
  std::size_t i = HashOf(v) & mask;
  while (_used[i] != 0) i = (i + 1) & mask;
  _values[i] = v;
  _used[i] = 1;
  ++_count;
}

QelBool QelNumSet::contains(double v) const {
  if (_capacity == 0 || v != v) return false;
  if (v == 0) v = 0.0;
  std::size_t mask = static_cast<std::size_t>(_capacity - 1);
  for (std::size_t i = HashOf(v) & mask; _used[i] != 0; i = (i + 1) & mask)
    if (_values[i] == v) return true;
  return false;
}

void QelNumSet::rehash(long capacity) {
  auto* values =
      static_cast<double*>(_env->alloc(sizeof(double) * static_cast<std::size_t>(capacity)));
  unsigned char* used = nullptr;
  try {
    used = static_cast<unsigned char*>(_env->alloc(static_cast<std::size_t>(capacity)));
  } catch (...) {
    _env->free(values, sizeof(double) * static_cast<std::size_t>(capacity));
    throw;
  }
  std::memset(used, 0, static_cast<std::size_t>(capacity));
  std::size_t mask = static_cast<std::size_t>(capacity - 1);
  for (long k = 0; k < _capacity; ++k) {
    if (_used[k] == 0) continue;
    std::size_t i = HashOf(_values[k]) & mask;
    while (used[i] != 0) i = (i + 1) & mask;
    values[i] = _values[k];
    used[i] = 1;
  }
  long old = _capacity;
  double* oldValues = _values;
  unsigned char* oldUsed = _used;
  _values = values;
  _used = used;
  _capacity = capacity;
  if (oldValues != nullptr) {
    _env->free(oldValues, sizeof(double) * static_cast<std::size_t>(old));
    _env->free(oldUsed, static_cast<std::size_t>(old));
  }
}

void QelNumSet::end() {
  if (_values != nullptr) {
    _env->free(_values, sizeof(double) * static_cast<std::size_t>(_capacity));
    _env->free(_used, static_cast<std::size_t>(_capacity));
  }
  _values = nullptr;
  _used = nullptr;
  _capacity = 0;
  _count = 0;
}

// ===========================================================================
// QelIntSetVarI
// ===========================================================================

QelIntSetVarI::QelIntSetVarI(QelEnvI* env, const QelIntArray& possible, const char* name)
    : QelExtractableI(env, name), _card(nullptr) {
  QelGenAlloc* alloc = env->getGeneralAllocator();
  _possible = possible.getImpl() != nullptr
                  ? QelIntArray(QelArrayI::MakeCopy(alloc, possible.getImpl()))
                  : QelIntArray(QelArrayI::Make(alloc, 0));
  try {
    _card = QelNewObject<QelNumVarI>(env, env, 0.0, static_cast<double>(_possible.getSize()),
                                     QelVarType::Int);
  } catch (...) {
    QelIntArray copy = _possible;
    copy.end();
    throw;
  }
  _card->lockExpr();
}

QelIntSetVarI::~QelIntSetVarI() {
  removeBeforeTeardown();
  QelIntArray copy = _possible;
  copy.end();
  // Variables are not ended by their use count, so the release alone would
  // leave the cardinality variable behind: it is made for this set and is
  // ended here unless something else still uses it (or it has ended
  // already, or is being removed along with the set).
  _card->getEnv()->release(_card);
  if (_card->getId() >= 0 && _card->getUseCount() == 0) _card->end();
}

QelExtractableI* QelIntSetVarI::makeClone(QelEnvI* env) const {
  return QelNewObject<QelIntSetVarI>(env, env, _possible);
}

void QelIntSetVarI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->visitChildren(this, _card);
  v->endVisit(this);
}

void QelIntSetVarI::display(std::ostream& os) const {
  printNameOrId(os, "QelIntSetVar");
  QelPrintArrayForm(os, _possible.getSize(),
                    [this](std::ostream& o, long i) { o << _possible[i]; });
}

QelIntSetVar::QelIntSetVar(QelEnv env, const QelIntArray& possible, const char* name)
    : QelHandle<QelIntSetVarI, QelExtractable>(
          QelNewObject<QelIntSetVarI>(EnvOf(env), EnvOf(env), possible, name)) {}

// ===========================================================================
// QelIntervalVarI
// ===========================================================================

QelIntervalVarI::QelIntervalVarI(QelEnvI* env, QelInt size, QelInt start, QelInt end,
                                 const char* name)
    : QelExtractableI(env, name), _size(size), _start(start), _end(end) {}

QelExtractableI* QelIntervalVarI::makeClone(QelEnvI* env) const {
  return QelNewObject<QelIntervalVarI>(env, env, _size, _start, _end);
}

void QelIntervalVarI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->endVisit(this);
}

void QelIntervalVarI::display(std::ostream& os) const {
  printNameOrId(os, "QelIntervalVar");
  os << "[size=" << _size << ", start=" << _start << ", end=" << _end << "]";
}

QelIntervalVar::QelIntervalVar(QelEnv env, QelInt size, QelInt start, QelInt end, const char* name)
    : QelHandle<QelIntervalVarI, QelExtractable>(
          QelNewObject<QelIntervalVarI>(EnvOf(env), EnvOf(env), size, start, end, name)) {}

// Multi-criterion expressions and the exception of unsupported objective
// operations.
#include <cstring>
#include <ostream>

#include <qel/objective/multicriterion.h>

QEL_RTTI_DEF(QelMultiCriterionExprI)

namespace {

// Gives one use of every element of `xs` back without ending anything: the
// exact undo of lockExprs, for a construction that cannot complete.
void UnlockExprs(const QelNumExprArray& xs) {
  for (long i = 0; i < xs.getSize(); ++i) {
    if (QelNumExprI* e = static_cast<QelNumExprI*>(xs.getElement(i))) e->unlockExpr();
  }
}

// A temporary array of extractables in environment memory, released when
// the scope ends (also when it ends by an exception).
struct ScopedArray {
  QelExtractableArray array;
  ScopedArray(QelEnv env, long n) : array(env, n) {}
  ScopedArray(const ScopedArray&) = delete;
  ScopedArray& operator=(const ScopedArray&) = delete;
  ~ScopedArray() { array.end(); }
};

void CheckEnv(QelEnv env) {
  if (env.getImpl() == nullptr) throw QelWrongUsage("QelEnv: using empty handle");
}

}  // namespace

// ---- QelMultiCriterionExprI ------------------------------------------------------

QelMultiCriterionExprI::QelMultiCriterionExprI(QelEnvI* env, QelNumExprArray exprs, Type type,
                                               const char* name)
    : QelRttiEnvObjectI(env), _type(type), _name(nullptr), _exprs() {
  if (exprs.getImpl() == nullptr) {
    if (name != nullptr) setName(name);
    return;
  }
  exprs.lockExprs();
  _exprs = exprs;
  if (name == nullptr) return;
  try {
    setName(name);
  } catch (...) {
    UnlockExprs(exprs);
    _exprs = QelNumExprArray();
    throw;
  }
}

QelMultiCriterionExprI::~QelMultiCriterionExprI() {
  releaseName();
  if (_exprs.getImpl() != nullptr) {
    _exprs.releaseExprs();
    _exprs.end();
  }
}

void QelMultiCriterionExprI::releaseName() {
  if (_name == nullptr) return;
  _env->free(_name, std::strlen(_name) + 1);
  _name = nullptr;
}

void QelMultiCriterionExprI::setName(const char* name) {
  releaseName();
  if (name == nullptr) return;
  size_t size = std::strlen(name) + 1;
  char* copy = static_cast<char*>(_env->alloc(size));
  std::memcpy(copy, name, size);
  _name = copy;
}

QelNumExprArray QelMultiCriterionExprI::getOrMakeExprs() const {
  if (_exprs.getImpl() == nullptr)
    throw QelWrongUsage("QelMultiCriterionExprI: numExprArray not initialized");
  return _exprs;
}

long QelMultiCriterionExprI::getNumCriteria() const { return getOrMakeExprs().getSize(); }

QelNumExprI* QelMultiCriterionExprI::getCriterion(long i) const {
  return static_cast<QelNumExprI*>(getOrMakeExprs().getElement(i));
}

QelNumExprArray QelMultiCriterionExprI::getExprs() const { return _exprs; }

QelBool QelMultiCriterionExprI::isZol() const { return false; }

void QelMultiCriterionExprI::display(std::ostream& os) const {
  os << (_name != nullptr ? _name : "{MultiCriterion}") << ", ";
  if (_type == StaticLex)
    os << "StaticLex";
  else if (_type == DynamicLex)
    os << "DynamicLex";
  // Fetched before the parenthesis: without criteria the text stops here.
  QelNumExprArray exprs = getOrMakeExprs();
  os << "(" << exprs << ")";
}

QelMultiCriterionExprI* QelMultiCriterionExprI::duplicate(QelEnvI* env) const {
  return QelMultiCriterionExpr(QelEnv(env), _exprs, _type).getImpl();
}

QelMultiCriterionExprI* QelMultiCriterionExprI::makeClone(QelEnvI* env) const {
  if (_exprs.getImpl() == nullptr)
    return QelNewObject<QelMultiCriterionExprI>(env, env, QelNumExprArray(), _type, nullptr);
  long n = _exprs.getSize();
  ScopedArray clones(QelEnv(env), n);
  // One copy operation, until the copy holds its clones: criteria sharing
  // variables share their clones, and a failure leaves no clone behind.
  env->beginCopy();
  QelMultiCriterionExprI* copy;
  try {
    for (long i = 0; i < n; ++i)
      clones.array.set(i, QelExtractable(env->getClone(_exprs.getElement(i))));
    copy = QelMultiCriterionExpr(QelEnv(env), clones.array, _type).getImpl();
  } catch (...) {
    env->abandonCopy();
    throw;
  }
  env->endCopy();
  return copy;
}

// ---- the handle and the builders --------------------------------------------------

QelMultiCriterionExpr::QelMultiCriterionExpr(QelEnv env, QelNumExprArray exprs,
                                             QelMultiCriterionExprI::Type type, const char* name) {
  CheckEnv(env);
  QelNumExprArray copy;
  if (exprs.getImpl() != nullptr)
    copy = QelNumExprArray(QelArrayI::MakeCopy(exprs.getImpl()->getAllocator(), exprs.getImpl()));
  try {
    _impl = QelNewObject<QelMultiCriterionExprI>(env.getImpl(), env.getImpl(), copy, type, name);
  } catch (...) {
    copy.end();
    throw;
  }
}

void QelMultiCriterionExpr::end() {
  // Refused before the destructor gives any use back.
  if (_impl != nullptr) _impl->getEnv()->checkThread();
  delete _impl;
  _impl = nullptr;
}

std::ostream& operator<<(std::ostream& os, const QelMultiCriterionExpr& mc) {
  if (mc.getImpl() == nullptr) throw QelWrongUsage("QelMultiCriterionExpr: using empty handle");
  mc.getImpl()->display(os);
  return os;
}

QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArray exprs, const char* name) {
  return QelMultiCriterionExpr(env, exprs, QelMultiCriterionExprI::StaticLex, name);
}

QelMultiCriterionExpr QelDynamicLex(QelEnv env, QelNumExprArray exprs, const char* name) {
  return QelMultiCriterionExpr(env, exprs, QelMultiCriterionExprI::DynamicLex, name);
}

namespace {

// The unnamed StaticLex over the given criteria, in argument order, built
// through a temporary array that the handle constructor copies.
template <class... Es>
QelMultiCriterionExpr StaticLexOf(QelEnv env, const Es&... es) {
  CheckEnv(env);
  ScopedArray criteria(env, 0);
  (criteria.array.add(QelNumExpr(es)), ...);
  return QelMultiCriterionExpr(env, criteria.array, QelMultiCriterionExprI::StaticLex);
}

}  // namespace

QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1) { return StaticLexOf(env, e1); }

QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1, QelNumExprArg e2) {
  return StaticLexOf(env, e1, e2);
}

QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1, QelNumExprArg e2,
                                   QelNumExprArg e3) {
  return StaticLexOf(env, e1, e2, e3);
}

QelMultiCriterionExpr QelStaticLex(QelEnv env, QelNumExprArg e1, QelNumExprArg e2, QelNumExprArg e3,
                                   QelNumExprArg e4) {
  return StaticLexOf(env, e1, e2, e3, e4);
}

// ---- the exception ------------------------------------------------------------------

void QelNotAllowedWithMultiCriterionException::print(std::ostream& os) const {
  static const char kSuffix[] = " - not allowed with multi-criterion models";
  if (const char* message = getMessage()) {
    os << message << kSuffix;
    return;
  }
  os.setstate(std::ios_base::badbit);
  // A bad stream refuses formatted output: the text goes to its buffer.
  if (std::streambuf* buffer = os.rdbuf())
    buffer->sputn(kSuffix, static_cast<std::streamsize>(sizeof(kSuffix) - 1));
}

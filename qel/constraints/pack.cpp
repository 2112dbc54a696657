// The pack constraint and its handle.
#include <ostream>

#include <qel/constraints/pack.h>
#include <qel/extractable/visitor.h>

QEL_EXTRACTABLE_DEF(QelPackI)

// ===========================================================================
// QelPackI
// ===========================================================================

QelPackI::QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   QelIntExprI* used, QelIntSetVarI* usedSet, QelArray<QelBoolArray> boolArrays,
                   const char* name, bool testUsed, bool testUsedSet)
    : QelConstraintI(env, name),
      _load(load),
      _where(where),
      _weight(weight),
      _used(used),
      _usedSet(usedSet),
      _boolArrays(boolArrays) {
  _load.lockExprs();
  _where.lockExprs();
  // The forms that take the expression or the set alone require it; only
  // the forms where both are optional test them.
  if (!testUsed || _used != nullptr) _used->lockExpr();
  if (!testUsedSet || _usedSet != nullptr) _usedSet->getCardVar()->lockExpr();
}

QelPackI::QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   QelIntExpr used, QelIntSetVar usedSet, QelArray<QelBoolArray> boolArrays,
                   const char* name)
    : QelPackI(env, load, where, weight, used.getImpl(), usedSet.getImpl(), boolArrays, name, true,
               true) {}

QelPackI::QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   QelIntExpr used, QelIntSetVar usedSet, const char* name)
    : QelPackI(env, load, where, weight, used.getImpl(), usedSet.getImpl(),
               QelArray<QelBoolArray>(), name, true, true) {}

QelPackI::QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   QelIntSetVar usedSet, const char* name)
    : QelPackI(env, load, where, weight, nullptr, usedSet.getImpl(), QelArray<QelBoolArray>(), name,
               true, false) {}

QelPackI::QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   QelIntExpr used, QelArray<QelBoolArray> boolArrays, const char* name)
    : QelPackI(env, load, where, weight, used.getImpl(), nullptr, boolArrays, name, false, true) {}

QelPackI::QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   QelIntExpr used, const char* name)
    : QelPackI(env, load, where, weight, used.getImpl(), nullptr, QelArray<QelBoolArray>(), name,
               false, true) {}

QelPackI::QelPackI(QelEnvI* env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   const char* name)
    : QelPackI(env, load, where, weight, nullptr, nullptr, QelArray<QelBoolArray>(), name, true,
               true) {}

QelPackI::~QelPackI() {
  removeBeforeTeardown();
  _load.releaseExprs();
  _load.end();
  _where.releaseExprs();
  _where.end();
  _weight.end();
  if (_used != nullptr) _env->release(_used);
  if (_usedSet != nullptr) _env->release(_usedSet->getCardVar());
}

QelExtractableI* QelPackI::makeClone(QelEnvI* env) const {
  // One copy operation: an expression that appears in several pieces gets
  // one clone, and a failure leaves no clone behind.
  struct CopyScope {
    QelEnvI* env;
    bool done = false;
    explicit CopyScope(QelEnvI* e) : env(e) { env->beginCopy(); }
    ~CopyScope() {
      if (done)
        env->endCopy();
      else
        env->abandonCopy();
    }
  } scope(env);

  QelIntExprArray load = _load;
  QelIntExprArray where = _where;
  QelIntArray weight;
  load.replaceByClone(env);
  try {
    where.replaceByClone(env);
  } catch (...) {
    load.end();
    throw;
  }
  try {
    weight = QelIntArray(QelEnv(env), 0);
    weight.add(_weight);
    QelIntExprI* used =
        _used != nullptr ? static_cast<QelIntExprI*>(env->getClone(_used)) : nullptr;
    QelIntSetVarI* usedSet =
        _usedSet != nullptr ? static_cast<QelIntSetVarI*>(env->getClone(_usedSet)) : nullptr;
    QelPackI* clone = QelNewObject<QelPackI>(env, env, load, where, weight, QelIntExpr(used),
                                             QelIntSetVar(usedSet), _boolArrays,
                                             static_cast<const char*>(nullptr));
    scope.done = true;
    return clone;
  } catch (...) {
    load.end();
    where.end();
    weight.end();
    throw;
  }
}

void QelPackI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->visitChildren(this, _load);
  v->visitChildren(this, _where);
  if (_used != nullptr) v->visitChildren(this, _used);
  if (_usedSet != nullptr) v->visitChildren(this, _usedSet);
  v->endVisit(this);
}

void QelPackI::display(std::ostream& os) const {
  os << "QelPackI"
     << " (";
  printNameOrId(os, "");
  os << ")" << std::endl;
  os << "  "
     << "_load"
     << " " << static_cast<const QelArray<QelExtractable>&>(_load) << std::endl;
  os << "  "
     << "_where"
     << " " << static_cast<const QelArray<QelExtractable>&>(_where) << std::endl;
  os << "  "
     << "_weight"
     << " " << _weight << std::endl;
  if (_used != nullptr) {
    os << "  "
       << "_used"
       << " ";
    _used->display(os);
    os << std::endl;
  }
  if (_usedSet != nullptr) {
    os << "  "
       << "_usedSet"
       << " ";
    _usedSet->display(os);
    os << std::endl;
  }
}

// ===========================================================================
// QelPack
// ===========================================================================

namespace {

// A new array implementation copying `source`, allocated through the
// environment of `source` and built by the copying constructor.
QelArrayI* CopyOf(QelArrayI* source) {
  return QelArrayI::MakeCopy(source->getEnv()->getGeneralAllocator(), source);
}

// The weights of the forms without a weight array: `n` items of size `w`,
// in `env`. The caller ends the array once init has copied it.
QelIntArray UniformWeights(const QelEnv& env, long n, QelInt w) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  QelIntArray weight(env, n);
  for (long i = 0; i < n; ++i) weight.set(i, w);
  return weight;
}

}  // namespace

void QelPack::init(QelEnv env, QelIntExprArray load, QelIntExprArray where, QelIntArray weight,
                   QelIntExpr used, QelIntSetVar usedSet, QelArray<QelBoolArray> boolArrays,
                   const char* name) {
  if (weight.getImpl() == nullptr) throw QelEmptyHandleException();
  if (where.getImpl() == nullptr) throw QelEmptyHandleException();
  if (load.getImpl() == nullptr) throw QelEmptyHandleException();
  if (where.getSize() != weight.getSize())
    throw QelDifferentSizeException("QelPack: Where and weight arrays have different size");
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");

  QelIntExprArray loadCopy(QelExtractableArray(CopyOf(load.getImpl())));
  QelIntExprArray whereCopy;
  QelIntArray weightCopy;
  try {
    whereCopy = QelIntExprArray(QelExtractableArray(CopyOf(where.getImpl())));
    weightCopy = QelIntArray(CopyOf(weight.getImpl()));
    _impl = QelNewObject<QelPackI>(env.getImpl(), env.getImpl(), loadCopy, whereCopy, weightCopy,
                                   used, usedSet, boolArrays, name);
  } catch (...) {
    loadCopy.end();
    whereCopy.end();
    weightCopy.end();
    throw;
  }
}

namespace {

// Runs `init` for a form that made its own weights, ending them afterwards.
template <class Init>
void WithOwnWeights(QelIntArray weight, Init init) {
  try {
    init(weight);
  } catch (...) {
    weight.end();
    throw;
  }
  weight.end();
}

}  // namespace

QelPack::QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
                 const char* name) {
  WithOwnWeights(UniformWeights(env, where.getSize(), 1), [&](QelIntArray weight) {
    init(env, load, where, weight, QelIntExpr(), QelIntSetVar(), QelArray<QelBoolArray>(), name);
  });
}

QelPack::QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
                 QelInt weight, const char* name) {
  WithOwnWeights(UniformWeights(env, where.getSize(), weight), [&](QelIntArray w) {
    init(env, load, where, w, QelIntExpr(), QelIntSetVar(), QelArray<QelBoolArray>(), name);
  });
}

QelPack::QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
                 const QelIntArray& weight, const QelIntSetVar& usedSet, const char* name) {
  init(env, load, where, weight, QelIntExpr(), usedSet, QelArray<QelBoolArray>(), name);
}

QelPack::QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
                 const QelIntArray& weight, const QelIntExpr& used,
                 const QelArray<QelBoolArray>& boolArrays, const char* name) {
  init(env, load, where, weight, used, QelIntSetVar(), boolArrays, name);
}

QelPack::QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
                 const QelIntArray& weight, const QelIntExpr& used, const char* name) {
  init(env, load, where, weight, used, QelIntSetVar(), QelArray<QelBoolArray>(), name);
}

QelPack::QelPack(QelEnv env, const QelIntExprArray& load, const QelIntExprArray& where,
                 const QelIntArray& weight, const char* name) {
  init(env, load, where, weight, QelIntExpr(), QelIntSetVar(), QelArray<QelBoolArray>(), name);
}

// Algorithms: extraction records, held values and change following.
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <qel/change/change.h>
#include <qel/extractable/visitor.h>
#include <qel/kernel/algorithm.h>
#include <qel/kernel/expr.h>

QEL_RTTI_DEF(QelAlgorithmI)

QelAlgorithmI::QelAlgorithmI(QelEnvI* env)
    : QelRttiEnvObjectI(env), _slot(env->attachAlgorithm(this)) {}

QelAlgorithmI::~QelAlgorithmI() {
  _env->detachAlgorithm(this);
  if (_values != nullptr) {
    _env->free(_values, sizeof(double) * static_cast<size_t>(_valueCapacity));
    _env->free(_hasValue, static_cast<size_t>(_valueCapacity));
  }
}

namespace {

// Records every object reachable from the one extracted; the ids it
// records anew are listed in `fresh` when given.
class Recorder : public QelExtractableVisitor {
 public:
  Recorder(QelExtractionRegistry& registry, int slot, std::vector<QelInt>* fresh = nullptr)
      : _registry(registry), _slot(slot), _fresh(fresh) {}
  using QelExtractableVisitor::visitChildren;
  void beginVisit(QelExtractableI* x) override {
    if (_fresh != nullptr && !_registry.isExtracted(x->getId(), _slot))
      _fresh->push_back(x->getId());
    _registry.record(x->getId(), _slot);
  }
  void visitChildren(QelExtractableI*, QelExtractableI* child) override {
    if (child == nullptr || child->getId() < 0) return;
    // Already recorded: its own children were recorded with it.
    if (_registry.isExtracted(child->getId(), _slot)) return;
    child->visitSubExtractables(this);
  }

 private:
  QelExtractionRegistry& _registry;
  int _slot;
  std::vector<QelInt>* _fresh;
};

// Hands the structural callbacks to the application's visitor, recording
// first what was added so that its later notices reach the algorithm too.
class Forwarder : public QelChangeVisitor {
 public:
  Forwarder(QelAlgorithmI* alg, QelChangeVisitor* user) : _alg(alg), _user(user) {}
  using QelChangeVisitor::addSubExtractable;
  using QelChangeVisitor::removeSubExtractable;
  void addSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    if (sub != nullptr && sub->getId() >= 0) _alg->record(sub);
    if (_user != nullptr) _user->addSubExtractable(owner, sub);
  }
  void removeSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    if (_user != nullptr) _user->removeSubExtractable(owner, sub);
  }

 private:
  QelAlgorithmI* _alg;
  QelChangeVisitor* _user;
};

}  // namespace

void QelAlgorithmI::record(QelExtractableI* x) {
  // The ids reached are below the table's size: one growth at most.
  _env->getRegistry().reserve(_env->getExtractableTableSize());
  Recorder recorder(_env->getRegistry(), _slot);
  x->visitSubExtractables(&recorder);
  _env->setListening(_slot, true);
}

void QelAlgorithmI::extract(QelExtractableI* x) {
  if (x == nullptr) throw QelEmptyHandleException();
  std::vector<QelInt> fresh;
  QelBool wasListening = _env->isListening(_slot);
  try {
    _env->getRegistry().reserve(_env->getExtractableTableSize());
    Recorder recorder(_env->getRegistry(), _slot, &fresh);
    x->visitSubExtractables(&recorder);
    _env->setListening(_slot, true);
    if (_mode == QelListenMode::Hooks) x->extractToCP(QelAlgorithm(this));
  } catch (...) {
    // An engine that could not extract x, or a record that could not be
    // made, leaves the algorithm as it was.
    for (QelInt id : fresh) _env->getRegistry().unrecord(id, _slot);
    _env->setListening(_slot, wasListening);
    throw;
  }
}

void QelAlgorithmI::unextract(QelExtractableI* x) {
  if (x == nullptr) throw QelEmptyHandleException();
  if (_mode == QelListenMode::Hooks) x->unextractFromCP(QelAlgorithm(this), _hookData);
  _env->getRegistry().unrecord(x->getId(), _slot);
}

void QelAlgorithmI::clear() {
  _env->getRegistry().dropAlgorithm(_slot);
  _env->setListening(_slot, false);
}

QelBool QelAlgorithmI::isExtracted(const QelExtractableI* x) const {
  return x != nullptr && _env->getRegistry().isExtracted(x->getId(), _slot);
}

void QelAlgorithmI::notifyChange(const QelExtractableI* x, const QelChange& c) {
  switch (_mode) {
    case QelListenMode::Visitor: {
      Forwarder forwarder(this, _visitor);
      c.visitChange(_env, const_cast<QelExtractableI*>(x), &forwarder);
      break;
    }
    case QelListenMode::Hooks:
      c.applyToCP(QelAlgorithm(this), _hookData);
      break;
    case QelListenMode::None:
      break;
  }
}

namespace {

// `what`, then ": " and the variable: its name, or its class and id (an
// ended variable without a name has nothing left to name it by).
std::string VarMessage(const char* what, const QelNumVarI* v) {
  std::ostringstream text;
  text << what;
  if (v->getName() != nullptr) {
    text << ": " << v->getName();
  } else if (v->getId() >= 0) {
    text << ": ";
    v->display(text);
  }
  return text.str();
}

}  // namespace

void QelAlgorithmI::setValue(const QelNumVarI* v, double value) {
  if (v == nullptr) throw QelEmptyHandleException();
  QelInt id = v->getId();
  if (id < 0) throw QelWrongUsage(VarMessage("QelAlgorithm: the variable has ended", v).c_str());
  if (id >= _valueCapacity) {
    QelInt cap = _valueCapacity == 0 ? 64 : _valueCapacity;
    while (cap <= id) cap *= 2;
    auto* values = static_cast<double*>(_env->alloc(sizeof(double) * static_cast<size_t>(cap)));
    unsigned char* has = nullptr;
    try {
      has = static_cast<unsigned char*>(_env->alloc(static_cast<size_t>(cap)));
    } catch (...) {
      _env->free(values, sizeof(double) * static_cast<size_t>(cap));
      throw;
    }
    std::memset(has, 0, static_cast<size_t>(cap));
    if (_values != nullptr) {
      std::memcpy(values, _values, sizeof(double) * static_cast<size_t>(_valueCapacity));
      std::memcpy(has, _hasValue, static_cast<size_t>(_valueCapacity));
      _env->free(_values, sizeof(double) * static_cast<size_t>(_valueCapacity));
      _env->free(_hasValue, static_cast<size_t>(_valueCapacity));
    }
    _values = values;
    _hasValue = has;
    _valueCapacity = cap;
  }
  _values[id] = value;
  _hasValue[id] = 1;
}

QelBool QelAlgorithmI::hasValue(const QelNumVarI* v) const {
  QelInt id = v != nullptr ? v->getId() : -1;
  return id >= 0 && id < _valueCapacity && _hasValue[id] != 0;
}

double QelAlgorithmI::getValue(const QelNumVarI* v) const {
  if (!hasValue(v)) {
    if (v == nullptr) throw QelEmptyHandleException();
    throw QelWrongUsage(VarMessage("QelAlgorithm: no value for this variable", v).c_str());
  }
  return _values[v->getId()];
}

double QelAlgorithmI::getValue(const QelNumExprI* e) const {
  if (e == nullptr) throw QelEmptyHandleException();
  return e->eval(QelAlgorithm(const_cast<QelAlgorithmI*>(this)));
}

void QelAlgorithmI::clearValues() {
  if (_hasValue != nullptr) std::memset(_hasValue, 0, static_cast<size_t>(_valueCapacity));
}

// ---- the handle ------------------------------------------------------------

QelAlgorithm::QelAlgorithm(QelEnv env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  _impl = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
}

void QelAlgorithm::end() {
  // Refused before the destructor detaches anything.
  if (_impl != nullptr) _impl->getEnv()->checkThread();
  delete _impl;
  _impl = nullptr;
}

void QelAlgorithm::extract(const QelExtractable& x) const {
  if (_impl == nullptr) throw QelEmptyHandleException();
  _impl->extract(x.getImpl());
}

void QelAlgorithm::setValue(const QelNumVar& v, double value) const {
  if (_impl == nullptr) throw QelEmptyHandleException();
  _impl->setValue(v.getImpl(), value);
}

double QelAlgorithm::getValue(const QelNumExpr& e) const {
  if (_impl == nullptr) throw QelEmptyHandleException();
  return _impl->getValue(e.getImpl());
}

QelNumArray QelAlgorithm::getValues(const QelNumExprArray& xs) const {
  if (_impl == nullptr) throw QelEmptyHandleException();
  if (xs.getImpl() == nullptr) throw QelEmptyHandleException();
  long n = xs.getSize();
  // Every value is read before the array is made: a missing one throws
  // and leaves nothing behind.
  std::vector<double> values(static_cast<size_t>(n));
  for (long i = 0; i < n; ++i) {
    auto* e = static_cast<const QelNumExprI*>(xs.getElement(i));
    values[static_cast<size_t>(i)] = _impl->getValue(e);
  }
  QelNumArray out(QelEnv(_impl->getEnv()), n);
  for (long i = 0; i < n; ++i) out.set(i, values[static_cast<size_t>(i)]);
  return out;
}

QelEnv QelAlgorithm::getEnv() const { return QelEnv(_impl != nullptr ? _impl->getEnv() : nullptr); }

QelAlgorithm::CannotChangeException::CannotChangeException(const QelAlgorithmI* algorithm)
    : QelException("QelAlgorithm: no engine hook to follow this change", 0),
      _algorithm(algorithm) {}

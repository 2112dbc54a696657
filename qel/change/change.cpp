// The notice base, the change visitor and the extractable-level notices.
#include <qel/change/change.h>
#include <qel/kernel/algorithm.h>

QEL_RTTI_DEF(QelChange)
QelChange::~QelChange() = default;

QelBool QelChange::isApplyingOnArray() const { return false; }

QelExtractableArray QelChange::getChangedExtractableArray() const {
  throw QelWrongUsage("QelChange::getChangedExtractableArray can not be called");
}

QelExtractableI* QelChange::getChangedExtractable() const {
  throw QelWrongUsage("QelChange::getChangedExtractable can not be called");
}

// ---- QelChangeVisitor ---------------------------------------------------------

QelChangeVisitor::~QelChangeVisitor() = default;
void QelChangeVisitor::addSubExtractable(QelExtractableI*, QelExtractableI*) {}
void QelChangeVisitor::removeSubExtractable(QelExtractableI*, QelExtractableI*) {}

void QelChangeVisitor::addSubExtractable(QelExtractableI* owner, QelExtractableArray subs) {
  long n = subs.getSize();
  for (long i = 0; i < n; ++i) addSubExtractable(owner, subs.getElement(i));
}

void QelChangeVisitor::removeSubExtractable(QelExtractableI* owner, QelExtractableArray subs) {
  long n = subs.getSize();
  for (long i = 0; i < n; ++i) removeSubExtractable(owner, subs.getElement(i));
}

// ---- extractable-level notices --------------------------------------------------

void QelRemoveFromAllChange::visitChange(QelEnvI* env, QelExtractableI* extractable,
                                         QelChangeVisitor*) const {
  QelExtractionRegistry& registry = env->getRegistry();
  if (extractable != nullptr) {
    registry.drop(extractable->getId());
    return;
  }
  long n = _array.getSize();
  for (long i = 0; i < n; ++i) {
    QelExtractableI* x = _array.getElement(i);
    if (x != nullptr) registry.drop(x->getId());
  }
}
QelBool QelRemoveFromAllChange::isApplyingOnArray() const { return true; }
QelExtractableArray QelRemoveFromAllChange::getChangedExtractableArray() const { return _array; }

void QelDestroyExtractable::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}
QelExtractableI* QelDestroyExtractable::getChangedExtractable() const { return _x; }

void QelSetNameChange::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}
QelExtractableI* QelSetNameChange::getChangedExtractable() const { return _x; }

void QelSetNameArrayChange::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}
QelBool QelSetNameArrayChange::isApplyingOnArray() const { return true; }
QelExtractableArray QelSetNameArrayChange::getChangedExtractableArray() const { return _array; }

void QelDestroyExtractableArray::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}
QelExtractableArray QelDestroyExtractableArray::getChangedExtractableArray() const {
  return _array;
}

// ---- column-wise additions -------------------------------------------------------

void QelAddExtractable::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}

QelExtractableI* QelAddExtractable::getChangedExtractable() const {
  return const_cast<QelExtractableI*>(_obj);
}

QelEnvI* QelAddExtractable::getEnv() const {
  QelExtractableI* w = what();
  return w != nullptr ? w->getEnv() : nullptr;
}

QelAddExtractable::CannotAddExtractableException::CannotAddExtractableException()
    : QelException("Cannot add new QelExtractable to extractor", 0) {}

void QelAddExtractable::install(QelExtractableI* obj) const {
  if (obj == nullptr) throw CannotAddExtractableException();
  const QelAddExtractable* first = this;
  const QelAddExtractable* n = this;
  while (n != nullptr) {
    QelAddExtractable* self = const_cast<QelAddExtractable*>(n);
    self->setObj(obj);
    n->apply();
    QelEnvI* env = first->getEnv();
    QelExtractableI* w = n->what();
    if (env != nullptr) {
      if (w == nullptr)
        env->change(*n);
      else
        env->change(w, *n);
    }
    QelAddExtractable* next = n->_next;
    n->_next = nullptr;
    n = next;
  }
}

// ---- hook failures ----------------------------------------------------------------

void QelThrowExtractFailure() { throw QelAlgorithm::ExtractFailure(); }
void QelThrowRemoveFailure() { throw QelAlgorithm::RemoveFailure(); }
void QelThrowCannotChange(const QelAlgorithm& algorithm) {
  throw QelAlgorithm::CannotChangeException(algorithm.getImpl());
}

// The extractable base object.
#include <exception>
#include <ostream>

#include <qel/change/change.h>
#include <qel/extractable/extractable.h>
#include <qel/extractable/visitor.h>
#include <qel/kernel/env.h>

QEL_RTTI_DEF(QelExtractableI)

void QelExtractableI::nameAtConstruction(const char* name) {
  try {
    setNameNoNotif(name);
  } catch (...) {
    // Nothing can know the object yet: give its record and slot back.
    releaseExtension();
    _env->unregister(this);
    throw;
  }
}

QelExtractableI::~QelExtractableI() {
  // When the environment refuses the calling thread (another thread,
  // allocation off) nothing of its memory is touched: the object only gives
  // its slot up, operator delete reports the refusal, and what the object
  // held stays in the environment's memory until the environment ends.
  if (!_env->acceptsCallingThread()) {
    _env->unregister(this);
    return;
  }
  // Still registered: deleted directly, not through end(), or a derived
  // constructor threw. Removed from everything here, while the base part is
  // whole; a failing listener is reported once the object is released.
  std::exception_ptr failure;
  if (_env->hasKeptDeleteFailure()) failure = _env->takeDeleteFailure(this);
  if (_id >= 0) {
    try {
      _env->removeFromAllAndDestroy(this, 1);
    } catch (...) {
      failure = std::current_exception();
      _env->unregister(this);
    }
  }
  // A map without buckets holds no entry (an empty map gives its buckets
  // back): the destruction then allocates nothing.
  QelDecisionExprMap* map = _env->getDecisionExprMapOrNull();
  if (map != nullptr && map->hasBuckets()) map->remove(this);
  releaseExtension();
  if (failure) std::rethrow_exception(failure);
}

void QelExtractableI::removeWhileWhole() noexcept {
  if (!_env->acceptsCallingThread()) return;
  try {
    _env->removeFromAllAndDestroy(this, 1);
  } catch (...) {
    _env->keepDeleteFailure(this, std::current_exception());
    _env->unregister(this);
  }
}

void QelExtractableI::operator delete(void* p, size_t size) noexcept(false) {
  // The destructors have run; the block still holds the environment.
  QelEnvI* env = EnvOfBlock(p);
  if (!env->acceptsCallingThread()) {
    // Refused: the block stays with the environment. When a destructor
    // already threw the refusal, it is the one reported.
    if (std::uncaught_exceptions() == 0) env->checkThread();
    return;
  }
  env->free(p, size);
}

void QelExtractableI::releaseExtension() {
  if (_extension == nullptr) return;
  QelGenAlloc* alloc = _env->getGeneralAllocator();
  _extension->end(alloc);
  alloc->free(_extension, sizeof(QelExtension));
  _extension = nullptr;
}

// ---- name, location, user object -----------------------------------------

void QelExtractableI::setNameNoNotif(const char* name) {
  if (_extension != nullptr)
    _extension->setName(_env->getGeneralAllocator(), name);
  else if (name != nullptr)
    extension()->setName(_env->getGeneralAllocator(), name);
}

void QelExtractableI::setName(const char* name) {
  if (name == nullptr && (_extension == nullptr || _extension->getName() == nullptr)) return;
  setNameNoNotif(name);
  QelSetNameChange change(this);
  notify(change);
}

void QelExtractableI::setLocation(const char* file, int line) {
  extension()->setLocation(_env->getGeneralAllocator(), file, line);
}

const char* QelExtractableI::getFile() const {
  return _extension != nullptr ? _extension->getFile() : nullptr;
}

int QelExtractableI::getLine() const { return _extension != nullptr ? _extension->getLine() : 0; }

void QelExtractableI::setObject(void* object) {
  if (_extension != nullptr)
    _extension->setObject(_env->getGeneralAllocator(), object);
  else if (object != nullptr)
    extension()->setObject(_env->getGeneralAllocator(), object);
}

void* QelExtractableI::getObject() const {
  return _extension != nullptr ? _extension->getObject() : nullptr;
}

void QelExtractableI::removeFromAll() { _env->removeFromAll(this); }

void QelExtractableI::printNameOrId(std::ostream& os, const char* prefix) const {
  if (const char* name = getName())
    os << name;
  else
    os << prefix << _id;
}

// ---- virtual operations ---------------------------------------------------

QelExtractableI* QelExtractableI::makeClone(QelEnvI*) const {
  throw QelExtractable::NoCloneMechanismException(this);
}

void QelExtractableI::atRemove(QelExtractableI*, void*) {
  if (_env->getOneByOne() != 0) {
    end();
    return;
  }
  QelFindMarkedVisitor finder;
  visitSubExtractables(&finder);
  if (finder.found != 0) _env->removeFromAllAndDestroy(this, 0);
}

QelBool QelExtractableI::isRefCountedExpr() const { return false; }

void QelExtractableI::end() {
  if (_id == -1) return;
  _env->removeFromAllAndDestroy(this, 0);
}

void QelExtractableI::display(std::ostream& os) const {
  os << "QelExtractable unknow" << _id << std::endl;
}

void* QelExtractableI::whenAddedToCP(QelAlgorithm, void*) const { return nullptr; }
void* QelExtractableI::whenRemovedFromCP(QelAlgorithm, void*) const { return nullptr; }
void QelExtractableI::changeParameter(const QelParameterExtractableLinkI*) {}
void QelExtractableI::endParameter(const QelParameterExtractableLinkI*) {}
QelBool QelExtractableI::hasNongroundType() const { return false; }

QelBool QelExtractableI::isGround() const {
  QelFindNongroundTerm finder;
  const_cast<QelExtractableI*>(this)->visitSubExtractables(&finder);
  return finder.found == 0;
}

QelBool QelExtractableI::isDecisionExpr() const {
  QelExtractableI* self = const_cast<QelExtractableI*>(this);
  if (self->isNumVar()) return true;
  QelDecisionExprMap* map = _env->getDecisionExprMap();
  if (map->hasBuckets()) {
    if (QelDecisionExprMap::Node* n = map->find(this)) return n->value != 0;
  }
  QelFindDecisionVar finder;
  self->visitSubExtractables(&finder);
  map->insert(this, finder.found != 0 ? 1 : 0);
  return finder.found != 0;
}

QelBool QelExtractableI::isAggregate() const { return false; }
QelBool QelExtractableI::isGenerator() { return false; }
QelBool QelExtractableI::isComprehension() { return false; }
QelBool QelExtractableI::isAnyExpr() { return false; }
QelBool QelExtractableI::isNumExpr() { return false; }
QelBool QelExtractableI::isNumVar() { return false; }
QelBool QelExtractableI::isDExpr() { return false; }
QelBool QelExtractableI::isConstraint() { return false; }
QelBool QelExtractableI::isModel() { return false; }
void QelExtractableI::resetExprUsed() {}
QelInt QelExtractableI::getExprUsed() const { return -1; }

// ---- the handle -------------------------------------------------------------

void QelExtractable::check() const {
  if (_impl == nullptr) throw QelEmptyHandleException();
}

QelEnv QelExtractable::getEnv() const {
  check();
  return QelEnv(_impl->getEnv());
}

QelInt QelExtractable::getId() const {
  check();
  return _impl->getId();
}

const char* QelExtractable::getName() const {
  check();
  return _impl->getName();
}

void QelExtractable::setName(const char* name) const {
  check();
  _impl->setName(name);
}

void QelExtractable::setLocation(const char* file, int line) const {
  check();
  _impl->setLocation(file, line);
}

void QelExtractable::setObject(void* object) const {
  check();
  _impl->setObject(object);
}

void* QelExtractable::getObject() const {
  check();
  return _impl->getObject();
}

void QelExtractable::end() const {
  check();
  _impl->end();
}

void QelExtractable::removeFromAll() const {
  check();
  _impl->removeFromAll();
}

std::ostream& operator<<(std::ostream& os, const QelExtractable& x) {
  if (x.getImpl() != nullptr) x.getImpl()->display(os);
  return os;
}

QelExtractable::NoCloneMechanismException::NoCloneMechanismException(const QelExtractableI* x)
    : QelException("Extractable do not have clone mechanism", 0),
      _x(x),
      _id(x != nullptr ? x->getId() : -1) {}

void QelExtractable::NoCloneMechanismException::print(std::ostream& os) const {
  os << "Extractable with id " << _id << " do not have clone mechanism";
}

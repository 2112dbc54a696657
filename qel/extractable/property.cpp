// Named properties and the property operations of extractables.
#include <cstring>
#include <new>

#include <qel/extractable/property.h>
#include <qel/kernel/extension.h>

QEL_RTTI_ROOT_DEF(QelNamedPropertyI)

QelNamedPropertyI::QelNamedPropertyI(QelGenAlloc* alloc, const char* name)
    : _alloc(alloc), _name(QelCopyString(alloc, name)) {}

QelNamedPropertyI::~QelNamedPropertyI() = default;

void QelNamedPropertyI::releaseName() {
  QelFreeString(_alloc, _name);
  _name = nullptr;
}

namespace {

// How each family stores its value: strings are copied into the
// property's allocator, the other values are stored as they are.
template <class T>
struct ValueStore {
  static T Copy(QelGenAlloc*, T v) { return v; }
  static void Release(QelGenAlloc*, T) {}
};
template <>
struct ValueStore<const char*> {
  static const char* Copy(QelGenAlloc* a, const char* v) { return QelCopyString(a, v); }
  static void Release(QelGenAlloc* a, const char* v) { QelFreeString(a, const_cast<char*>(v)); }
};

}  // namespace

#define QEL_NAMED_PROPERTY_DEF(C, T)                                                               \
  QEL_RTTI_DEF(C)                                                                                  \
  C* C::Make(QelGenAlloc* alloc, const char* name, T value) {                                      \
    void* block = alloc->alloc(sizeof(C));                                                         \
    C* p = nullptr;                                                                                \
    try {                                                                                          \
      p = new (block) C(alloc, name);                                                              \
      p->_value = ValueStore<T>::Copy(alloc, value);                                               \
    } catch (...) {                                                                                \
      if (p != nullptr) p->releaseName();                                                          \
      alloc->free(block, sizeof(C));                                                               \
      throw;                                                                                       \
    }                                                                                              \
    return p;                                                                                      \
  }                                                                                                \
  void C::setValue(T value) {                                                                      \
    T copy = ValueStore<T>::Copy(_alloc, value);                                                   \
    ValueStore<T>::Release(_alloc, _value);                                                        \
    _value = copy;                                                                                 \
  }                                                                                                \
  QelNamedPropertyI* C::makeClone(QelGenAlloc* alloc) const { return Make(alloc, _name, _value); } \
  void C::end() {                                                                                  \
    QelGenAlloc* alloc = _alloc;                                                                   \
    ValueStore<T>::Release(alloc, _value);                                                         \
    releaseName();                                                                                 \
    this->~C();                                                                                    \
    alloc->free(this, sizeof(C));                                                                  \
  }

QEL_NAMED_PROPERTY_DEF(QelNamedStringPropertyI, const char*)
QEL_NAMED_PROPERTY_DEF(QelNamedAnyPropertyI, void*)
QEL_NAMED_PROPERTY_DEF(QelNamedNumPropertyI, double)
QEL_NAMED_PROPERTY_DEF(QelNamedIntPropertyI, QelInt)

// ---- the set ------------------------------------------------------------

QelNamedPropertySetI* QelNamedPropertySetI::Make(QelMemoryManager m) {
  QelGenAlloc* alloc = m.getAllocator();
  return new (alloc->alloc(sizeof(QelNamedPropertySetI))) QelNamedPropertySetI(m);
}

QelNamedPropertySetI::QelNamedPropertySetI(QelMemoryManager m) : _alloc(m.getAllocator()) {}

void QelNamedPropertySetI::end() {
  QelNamedPropertyI* p = _head;
  while (p != nullptr) {
    QelNamedPropertyI* next = p->_next;
    p->end();
    p = next;
  }
  _head = nullptr;
  _size = 0;
  QelGenAlloc* alloc = _alloc;
  this->~QelNamedPropertySetI();
  alloc->free(this, sizeof(QelNamedPropertySetI));
}

void QelNamedPropertySetI::addProperty(QelNamedPropertyI* p) {
  // A property already in the set stays where it is: replacing it by name
  // would end it and link the freed node back.
  for (QelNamedPropertyI* q = _head; q != nullptr; q = q->_next)
    if (q == p) return;
  // A name stays unique: the property of the same name goes.
  removeProperty(p->getName());
  p->_next = nullptr;
  QelNamedPropertyI** link = &_head;
  while (*link != nullptr) link = &(*link)->_next;
  *link = p;
  ++_size;
}

void QelNamedPropertySetI::addClonedProperty(const QelNamedPropertyI* p) {
  addProperty(p->makeClone(_alloc));
}

QelNamedPropertyI* QelNamedPropertySetI::getElem(const char* name) const {
  if (name == nullptr) return nullptr;
  // A property made without a name is never found by name.
  for (QelNamedPropertyI* p = _head; p != nullptr; p = p->_next)
    if (p->getName() != nullptr && std::strcmp(p->getName(), name) == 0) return p;
  return nullptr;
}

QelNamedPropertyI* QelNamedPropertySetI::getProperty(const char* name) const {
  QelNamedPropertyI* p = getElem(name);
  if (p == nullptr) throw QelNamedPropertySet::NotPresent(name);
  return p;
}

QelBool QelNamedPropertySetI::removeProperty(const char* name) {
  QelNamedPropertyI* p = getElem(name);
  return p != nullptr && removeProperty(p);
}

QelBool QelNamedPropertySetI::removeProperty(QelNamedPropertyI* p) {
  for (QelNamedPropertyI** link = &_head; *link != nullptr; link = &(*link)->_next) {
    if (*link != p) continue;
    // A release the environment refuses (foreign thread, allocation off)
    // must find the property still in the set.
    if (QelEnvI* env = p->getAllocator()->getEnv()) env->checkThread();
    *link = p->_next;
    --_size;
    p->end();
    return true;
  }
  return false;
}

QelNamedPropertySet::NotPresent::NotPresent(const QelNamedPropertyI* p)
    : QelException(p != nullptr ? p->getName() : nullptr, 0), _property(p) {}

// ---- the property operations of QelExtractableI --------------------------

QelNamedPropertySetI* QelExtractableI::getProperties() const {
  return _extension != nullptr ? _extension->getProperties() : nullptr;
}

void QelExtractableI::setProperties(QelNamedPropertySetI* set) {
  if (_extension != nullptr)
    _extension->setProperties(set);
  else if (set != nullptr)
    extension()->setProperties(set);
}

void QelExtractableI::addProperty(QelNamedPropertyI* p) {
  QelExtension* ext = extension();
  if (ext->getProperties() == nullptr)
    ext->setProperties(QelNamedPropertySetI::Make(getMemoryManager()));
  ext->getProperties()->addProperty(p);
}

void QelExtractableI::addClonedProperty(QelNamedPropertyI* p) {
  QelExtension* ext = extension();
  if (ext->getProperties() == nullptr)
    ext->setProperties(QelNamedPropertySetI::Make(getMemoryManager()));
  ext->getProperties()->addClonedProperty(p);
}

void QelExtractableI::addProperties(QelNamedPropertySetI* other) {
  // The object's own set: each property would be replaced by an equal copy
  // of itself, in the same place, so the set is already what it would be.
  // (Copying while walking it would reach the copies and never end.)
  if (other == nullptr || other == getProperties()) return;
  for (QelNamedPropertyI* p = other->getFirst(); p != nullptr; p = p->getNext())
    addClonedProperty(p);
}

QelNamedPropertyI* QelExtractableI::getProperty(const char* name) const {
  QelNamedPropertySetI* set = getProperties();
  QelNamedPropertyI* p = set != nullptr ? set->getElem(name) : nullptr;
  if (p == nullptr) throw QelNamedPropertySet::NotPresent(name);
  return p;
}

QelBool QelExtractableI::hasProperty(const char* name) const {
  QelNamedPropertySetI* set = getProperties();
  return set != nullptr && set->getElem(name) != nullptr;
}

QelBool QelExtractableI::removeProperty(const char* name) {
  QelNamedPropertySetI* set = getProperties();
  if (set == nullptr) throw QelNamedPropertySet::NotPresent(name);
  return set->removeProperty(name);
}

QelBool QelExtractableI::removeProperty(QelNamedPropertyI* p) {
  if (_extension == nullptr) throw QelNamedPropertySet::NotPresent(p);
  QelNamedPropertySetI* set = _extension->getProperties();
  if (set == nullptr)
    throw QelNamedPropertySet::NotPresent(p != nullptr ? p->getName() : nullptr, p);
  return set->removeProperty(p);
}

const char* QelExtractableI::getStringProperty(const char* name) const {
  const char* v = nullptr;
  QelGetPropertyValueI<QelNamedStringProperty, QelExtractableI>(name, this, v);
  return v;
}

void* QelExtractableI::getAnyProperty(const char* name) const {
  void* v = nullptr;
  QelGetPropertyValueI<QelNamedAnyProperty, QelExtractableI>(name, this, v);
  return v;
}

double QelExtractableI::getNumProperty(const char* name) const {
  double v = 0;
  QelGetPropertyValueI<QelNamedNumProperty, QelExtractableI>(name, this, v);
  return v;
}

QelInt QelExtractableI::getIntProperty(const char* name) const {
  QelInt v = 0;
  QelGetPropertyValueI<QelNamedIntProperty, QelExtractableI>(name, this, v);
  return v;
}

void QelExtractableI::setStringProperty(const char* name, const char* value) {
  QelSetPropertyValueI<QelNamedStringProperty, QelExtractableI>(name, this, value);
}

void QelExtractableI::setAnyProperty(const char* name, void* value) {
  QelSetPropertyValueI<QelNamedAnyProperty, QelExtractableI>(name, this, value);
}

void QelExtractableI::setNumProperty(const char* name, double value) {
  QelSetPropertyValueI<QelNamedNumProperty, QelExtractableI>(name, this, value);
}

void QelExtractableI::setIntProperty(const char* name, QelInt value) {
  QelSetPropertyValueI<QelNamedIntProperty, QelExtractableI>(name, this, value);
}

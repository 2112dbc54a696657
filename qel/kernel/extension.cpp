// The per-object record of name, location, user object and properties.
#include <cstring>
#include <new>

#include <qel/extractable/property.h>
#include <qel/kernel/extension.h>
#include <qel/kernel/memory.h>

char* QelCopyString(QelGenAlloc* alloc, const char* s) {
  if (s == nullptr) return nullptr;
  size_t n = std::strlen(s) + 1;
  char* copy = static_cast<char*>(alloc->alloc(n));
  std::memcpy(copy, s, n);
  return copy;
}

void QelFreeString(QelGenAlloc* alloc, char* s) {
  if (s != nullptr) alloc->free(s, std::strlen(s) + 1);
}

QelExtension* QelExtension::getOrMake(QelGenAlloc* alloc, QelExtension** slot) {
  if (*slot == nullptr) *slot = new (alloc->alloc(sizeof(QelExtension))) QelExtension();
  return *slot;
}

void QelExtension::setName(QelGenAlloc* alloc, const char* name) {
  // Copy first: a failed copy leaves the old name in place.
  char* copy = QelCopyString(alloc, name);
  QelFreeString(alloc, _name);
  _name = copy;
}

void QelExtension::adoptName(QelGenAlloc* alloc, char* name) {
  QelFreeString(alloc, _name);
  _name = name;
}

void QelExtension::setLocation(QelGenAlloc* alloc, const char* file, int line) {
  char* copy = QelCopyString(alloc, file);
  QelFreeString(alloc, _file);
  _file = copy;
  _line = line;
}

void QelExtension::setObject(QelGenAlloc*, void* object) { _object = object; }

void QelExtension::setProperties(QelNamedPropertySetI* set) {
  if (set == _properties) return;
  QelNamedPropertySetI* old = _properties;
  _properties = set;
  if (old != nullptr) old->end();
}

void QelExtension::end(QelGenAlloc* alloc) {
  QelFreeString(alloc, _name);
  _name = nullptr;
  QelFreeString(alloc, _file);
  _file = nullptr;
  if (_properties != nullptr) {
    QelNamedPropertySetI* set = _properties;
    _properties = nullptr;
    set->end();
  }
}

// QelExtension: the record that holds what few extractables carry.
//
// Name, source location, user object and property set live here, so an
// object without any of them pays one null pointer. The record is made on
// demand in the environment's general allocator and released with its
// object. The name is the record's first member: null when no name is set.
#ifndef QEL_KERNEL_EXTENSION_H
#define QEL_KERNEL_EXTENSION_H

#include <qel/kernel/types.h>

/// The per-object record of name, location, user object and properties.
class QEL_API QelExtension {
 public:
  /// Returns `*slot`, first making and storing an empty record when it is
  /// null.
  static QelExtension* getOrMake(QelGenAlloc* alloc, QelExtension** slot);
  /// The name, or null.
  const char* getName() const { return _name; }
  /// Stores a copy of `name`; null clears it.
  void setName(QelGenAlloc* alloc, const char* name);
  /// Stores `name`, a string made by QelCopyString with `alloc`, which the
  /// record owns from now on (null clears the name); frees the former name.
  /// Makes nothing, so it cannot be refused memory.
  void adoptName(QelGenAlloc* alloc, char* name);
  /// Stores a copy of `file` (null clears it) and `line`.
  void setLocation(QelGenAlloc* alloc, const char* file, int line);
  /// The source file, or null.
  const char* getFile() const { return _file; }
  /// The source line.
  int getLine() const { return _line; }
  /// Stores the user object (the record does not own it).
  void setObject(QelGenAlloc* alloc, void* object);
  /// The user object, or null.
  void* getObject() const { return _object; }
  /// Attaches `set`, which the record owns from now on; the set held
  /// before, if another one, is ended.
  void setProperties(QelNamedPropertySetI* set);
  /// The property set, or null.
  QelNamedPropertySetI* getProperties() const { return _properties; }
  /// Releases name, location and properties. The caller then frees the
  /// record itself with its size.
  void end(QelGenAlloc* alloc);

 private:
  QelExtension() = default;
  char* _name = nullptr;
  char* _file = nullptr;
  int _line = 0;
  void* _object = nullptr;
  QelNamedPropertySetI* _properties = nullptr;
};

/// Copies `s` (with its zero byte) into a block of `alloc`; null stays null.
QEL_API char* QelCopyString(QelGenAlloc* alloc, const char* s);
/// Frees a string made by QelCopyString (null does nothing).
QEL_API void QelFreeString(QelGenAlloc* alloc, char* s);

#endif

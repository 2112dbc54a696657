// Named properties: typed user annotations on any extractable.
//
// An object can carry a set of named, typed properties (a priority, a
// label, a pointer of the application's own) besides its name. The set lives
// in the object's extension record and is made when the first property is
// added; it goes with the object. Four families exist: string (the value is
// copied), untyped pointer, number and integer. The typed getters and
// setters of QelExtractableI are the templates at the end of this header.
//
//   x.getImpl()->setIntProperty("priority", 3);
//   x.getImpl()->setStringProperty("label", "capacity row");
//   QelInt p = x.getImpl()->getIntProperty("priority");      // 3
//   x.getImpl()->getNumProperty("priority");   // throws BadType("priority")
//   x.getImpl()->getIntProperty("weight");     // throws NotPresent("weight")
#ifndef QEL_EXTRACTABLE_PROPERTY_H
#define QEL_EXTRACTABLE_PROPERTY_H

#include <qel/extractable/extractable.h>
#include <qel/kernel/exception.h>
#include <qel/kernel/memory.h>
#include <qel/kernel/rtti.h>

/// One named property; the typed families derive from it. Properties live
/// in the memory of the allocator they were made with.
class QEL_API QelNamedPropertyI {
 public:
  /// Destroys the property (the name is freed by end()).
  virtual ~QelNamedPropertyI();
  QEL_RTTI_ROOT_DECL(QelNamedPropertyI)
  /// A copy of the property in `alloc`.
  virtual QelNamedPropertyI* makeClone(QelGenAlloc* alloc) const = 0;
  /// Destroys the property and gives its memory back.
  virtual void end() = 0;

  /// The property's name.
  const char* getName() const { return _name; }
  /// The next property of its set, or null.
  QelNamedPropertyI* getNext() const { return _next; }
  /// The allocator holding the property.
  QelGenAlloc* getAllocator() const { return _alloc; }

 protected:
  /// A property called `name` (copied) in `alloc`.
  QelNamedPropertyI(QelGenAlloc* alloc, const char* name);
  /// Frees the name.
  void releaseName();
  QelGenAlloc* _alloc;  ///< where the property lives
  char* _name;          ///< owned copy of the name

 private:
  friend class QelNamedPropertySetI;
  QelNamedPropertyI* _next = nullptr;
};

/// Declares a typed property implementation class C holding a value of
/// type T; the four families share this one definition.
#define QEL_NAMED_PROPERTY_IMPL(C, T)                                           \
  class QEL_API C : public QelNamedPropertyI {                                  \
    QEL_RTTI_DECL(C, QelNamedPropertyI)                                         \
                                                                                \
   public:                                                                      \
    /** The value type of the family. */                                        \
    using EmbeddedType = T;                                                     \
    /** A new property in `alloc` (placed there by Make). */                    \
    static C* Make(QelGenAlloc* alloc, const char* name, T value);              \
    /** The value. */                                                           \
    T getValue() const { return _value; }                                       \
    /** Replaces the value. */                                                  \
    void setValue(T value);                                                     \
    /** A copy in `alloc`. */                                                   \
    QelNamedPropertyI* makeClone(QelGenAlloc* alloc) const override;            \
    /** Destroys the property and gives its memory back. */                     \
    void end() override;                                                        \
                                                                                \
   private:                                                                     \
    C(QelGenAlloc* alloc, const char* name) : QelNamedPropertyI(alloc, name) {} \
    T _value{};                                                                 \
  };

/// A named property whose value is a string (a copy kept in the property's memory).
QEL_NAMED_PROPERTY_IMPL(QelNamedStringPropertyI, const char*)
/// A named property whose value is a pointer the application owns.
QEL_NAMED_PROPERTY_IMPL(QelNamedAnyPropertyI, void*)
/// A named property whose value is a float.
QEL_NAMED_PROPERTY_IMPL(QelNamedNumPropertyI, double)
/// A named property whose value is an integer.
QEL_NAMED_PROPERTY_IMPL(QelNamedIntPropertyI, QelInt)

/// Handle of a typed property family: wraps the implementation I.
template <class I>
class QelNamedPropertyHandle {
 public:
  /// The implementation class of the family.
  using ImplClass = I;
  /// The value type of the family.
  using EmbeddedType = typename I::EmbeddedType;
  /// An empty handle.
  QelNamedPropertyHandle() = default;
  /// A handle on `impl`.
  QelNamedPropertyHandle(I* impl) : _impl(impl) {}
  /// A new property called `name` with `value`, in the memory of `m`.
  QelNamedPropertyHandle(QelMemoryManager m, const char* name, EmbeddedType value)
      : _impl(I::Make(m.getAllocator(), name, value)) {}
  /// The implementation, or null.
  I* getImpl() const { return _impl; }
  /// The value.
  EmbeddedType getValue() const { return _impl->getValue(); }
  /// Replaces the value.
  void setValue(EmbeddedType value) const { _impl->setValue(value); }
  /// The name.
  const char* getName() const { return _impl->getName(); }

 private:
  I* _impl = nullptr;
};

/// String property handle.
using QelNamedStringProperty = QelNamedPropertyHandle<QelNamedStringPropertyI>;
/// Untyped pointer property handle.
using QelNamedAnyProperty = QelNamedPropertyHandle<QelNamedAnyPropertyI>;
/// Numeric property handle.
using QelNamedNumProperty = QelNamedPropertyHandle<QelNamedNumPropertyI>;
/// Integer property handle.
using QelNamedIntProperty = QelNamedPropertyHandle<QelNamedIntPropertyI>;

/// A list of named properties, owner of its elements.
class QEL_API QelNamedPropertySetI {
 public:
  /// A new empty set in the memory of `m`.
  static QelNamedPropertySetI* Make(QelMemoryManager m);
  /// An empty set whose properties live in the memory of `m` (the set
  /// object itself is placed by the caller).
  explicit QelNamedPropertySetI(QelMemoryManager m);
  QelNamedPropertySetI(const QelNamedPropertySetI&) = delete;
  QelNamedPropertySetI& operator=(const QelNamedPropertySetI&) = delete;
  /// Ends every property and gives the set's memory back.
  void end();
  /// Adds `p`, which the set owns from now on; a property of the same name
  /// is replaced (and ended). A `p` already in the set changes nothing.
  void addProperty(QelNamedPropertyI* p);
  /// Adds a copy of `p` (the caller keeps `p`).
  void addClonedProperty(const QelNamedPropertyI* p);
  /// The property called `name`, or null.
  QelNamedPropertyI* getElem(const char* name) const;
  /// The property called `name`; throws QelNamedPropertySet::NotPresent.
  QelNamedPropertyI* getProperty(const char* name) const;
  /// Removes and ends the property called `name`; false when absent.
  QelBool removeProperty(const char* name);
  /// Removes and ends `p`; false when it is not in the set.
  QelBool removeProperty(QelNamedPropertyI* p);
  /// The first property, or null; follow getNext().
  QelNamedPropertyI* getFirst() const { return _head; }
  /// Number of properties.
  long getSize() const { return _size; }

 private:
  QelGenAlloc* _alloc;
  QelNamedPropertyI* _head = nullptr;
  long _size = 0;
};

/// Handle of a property set, and the home of the property exceptions.
class QEL_API QelNamedPropertySet {
 public:
  /// No property of that name: the message is the name.
  class QEL_API NotPresent : public QelException {
   public:
    /// For the name `name`.
    explicit NotPresent(const char* name) : QelException(name, 0) {}
    /// For the property `p` (message: its name; `p` is kept).
    explicit NotPresent(const QelNamedPropertyI* p);
    /// For the name `name`, about the property `p`.
    NotPresent(const char* name, const QelNamedPropertyI* p)
        : QelException(name, 0), _property(p) {}
    /// The property concerned, when known.
    const QelNamedPropertyI* getProperty() const { return _property; }

   private:
    const QelNamedPropertyI* _property = nullptr;
  };
  /// A property of that name belongs to another family: the message is
  /// the name.
  class QEL_API BadType : public QelException {
   public:
    /// For the name `name`.
    explicit BadType(const char* name) : QelException(name, 0) {}
  };
};

/// Looks up the property `name` of `owner` and checks its family.
template <class P, class Owner>
void QelGetPropertyI(const char* name, const Owner* owner, P& result) {
  QelNamedPropertyI* p = owner->getProperty(name);
  if (p == nullptr) throw QelNamedPropertySet::NotPresent(name);
  if (!p->isType(P::ImplClass::GetTypeInfo())) throw QelNamedPropertySet::BadType(name);
  result = P(static_cast<typename P::ImplClass*>(p));
}

/// Reads the value of the property `name` of `owner`.
template <class P, class Owner>
void QelGetPropertyValueI(const char* name, const Owner* owner, typename P::EmbeddedType& value) {
  P p;
  QelGetPropertyI<P, Owner>(name, owner, p);
  value = p.getImpl()->getValue();
}

/// Sets the property `name` of `owner`, adding it when absent.
template <class P, class Owner>
void QelSetPropertyValueI(const char* name, Owner* owner, typename P::EmbeddedType value) {
  if (owner->hasProperty(name)) {
    P p;
    QelGetPropertyI<P, Owner>(name, owner, p);
    p.setValue(value);
  } else {
    P p(QelMemoryManager(owner->getMemoryManager()), name, value);
    try {
      owner->addProperty(p.getImpl());
    } catch (...) {
      p.getImpl()->end();
      throw;
    }
  }
}

#endif

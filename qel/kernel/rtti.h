// Run-time type identity of Qel's classes.
//
// Every class that can be tested at run time carries the same members: a
// type info (the address of its own static GetBaseTypeInfo function, unique
// and constant for the life of the process) and a type index (a small dense
// integer handed out lazily, in the order classes first ask for it). Callers
// test an object with `x->isType(C::GetTypeInfo())`, which is true when x is
// a C or derives from C; the test is an inlined chain of pointer compares.
//
// A class declares its members with QEL_RTTI_DECL(Class, Base) at the top of
// its body and defines its one out-of-line member with QEL_RTTI_DEF(Class) in
// a source file:
//
//   class QelModelI : public QelExtractableI {
//     QEL_RTTI_DECL(QelModelI, QelExtractableI)
//     ...
//   };
//   QEL_RTTI_DEF(QelModelI)           // in model.cpp
#ifndef QEL_KERNEL_RTTI_H
#define QEL_KERNEL_RTTI_H

#include <atomic>

#include <qel/kernel/types.h>

/// A lock object an application installs in QelEnvI::Mutex when it uses the
/// library from several threads. The first virtual operation locks, the
/// second unlocks.
class QEL_API QelMutexI {
 public:
  /// Takes the lock.
  virtual void lock() = 0;
  /// Releases the lock.
  virtual void unlock() = 0;
  /// Destroys the lock object.
  virtual ~QelMutexI();
};

/// Assigns a type index into `index` if it is still 0 (double-checked under
/// QelEnvI::Mutex when that is set). Shared by every class's InitTypeIndex.
QEL_API void QelInitTypeIndex(std::atomic<QelInt>& index);

/// The static type-identity members of class C, root or derived: its index,
/// its type info (the address of GetBaseTypeInfo) and its name.
#define QEL_RTTI_STATIC_MEMBERS_(C)                                                               \
  /** This class's type index; 0 until GetTypeIndex() is first called. */                         \
  static std::atomic<QelInt> _rttiIndex;                                                          \
  /** Out of line; its address is the class's type info (see the DEF macros). */                  \
  static QelTypeInfo GetBaseTypeInfo();                                                           \
  /** Returns this class's type info. */                                                          \
  static QelTypeInfo GetTypeInfo() { return reinterpret_cast<QelTypeInfo>(&C::GetBaseTypeInfo); } \
  /** Assigns this class's type index if needed and returns it. */                                \
  static QelInt GetTypeIndex() {                                                                  \
    C::InitTypeIndex();                                                                           \
    return C::_rttiIndex.load(std::memory_order_relaxed);                                         \
  }                                                                                               \
  /** Assigns this class's type index if it is still 0. */                                        \
  static void InitTypeIndex() {                                                                   \
    if (C::_rttiIndex.load(std::memory_order_acquire) == 0) QelInitTypeIndex(C::_rttiIndex);      \
  }                                                                                               \
  /** Returns the class name. */                                                                  \
  static const char* GetRttiTypeName() { return #C; }

/// Declares the type-identity members of class C with base B except
/// isType (for the rare class that refines it). Leaves the class body in
/// public access.
#define QEL_RTTI_DECL_CORE(C, B)                                                                 \
 public:                                                                                         \
  /** The base class whose identity this class extends. */                                       \
  using RttiBase = B;                                                                            \
  QEL_RTTI_STATIC_MEMBERS_(C)                                                                    \
  /** Returns the class's index as it stands (0 if never assigned). */                           \
  QelInt getTypeIndex() const override { return C::_rttiIndex.load(std::memory_order_relaxed); } \
  /** Returns the object's class type info. */                                                   \
  QelTypeInfo getTypeInfo() const override { return C::GetTypeInfo(); }                          \
  /** Returns the class name. */                                                                 \
  const char* getRttiTypeName() const override { return #C; }                                    \
  /** Returns the base class's type info. */                                                     \
  QelTypeInfo getBaseTypeInfo() const override { return B::GetTypeInfo(); }                      \
  /** Returns the base class's type index, assigning it if needed. */                            \
  QelInt getBaseTypeIndex() const override { return B::GetTypeIndex(); }

/// Declares the type-identity members of class C with base B. Leaves the
/// class body in public access.
#define QEL_RTTI_DECL(C, B)                                               \
  QEL_RTTI_DECL_CORE(C, B)                                                \
  /** True when the object is a C or derives from the class of `info`. */ \
  QelBool isType(QelTypeInfo info) const override {                       \
    return info == C::GetTypeInfo() || B::isType(info);                   \
  }

/// Defines the one out-of-line member pair of class C (in a source file).
#define QEL_RTTI_DEF(C)                 \
  std::atomic<QelInt> C::_rttiIndex{0}; \
  QelTypeInfo C::GetBaseTypeInfo() { return C::RttiBase::GetTypeInfo(); }

/// Declares the members of a root of the type identity (no base).
#define QEL_RTTI_ROOT_DECL(C)                                                                   \
 public:                                                                                        \
  QEL_RTTI_STATIC_MEMBERS_(C)                                                                   \
  /** Returns the class's index as it stands (0 if never assigned). */                          \
  virtual QelInt getTypeIndex() const { return C::_rttiIndex.load(std::memory_order_relaxed); } \
  /** Returns the object's class type info. */                                                  \
  virtual QelTypeInfo getTypeInfo() const { return C::GetTypeInfo(); }                          \
  /** The walk ends here: true only for this root's own info. */                                \
  virtual QelBool isType(QelTypeInfo info) const { return info == C::GetTypeInfo(); }           \
  /** Returns the class name. */                                                                \
  virtual const char* getRttiTypeName() const { return #C; }                                    \
  /** A root has no base: returns null. */                                                      \
  virtual QelTypeInfo getBaseTypeInfo() const { return nullptr; }                               \
  /** A root has no base: returns 0. */                                                         \
  virtual QelInt getBaseTypeIndex() const { return 0; }

/// Defines the out-of-line members of a root class C (in a source file).
#define QEL_RTTI_ROOT_DEF(C)            \
  std::atomic<QelInt> C::_rttiIndex{0}; \
  QelTypeInfo C::GetBaseTypeInfo() { return nullptr; }

/// Root of the change-notice classes.
class QEL_API QelRtti {
 public:
  /// Destroys the object.
  virtual ~QelRtti();
  QEL_RTTI_ROOT_DECL(QelRtti)
  /// The last type index handed out, shared by every class of the process.
  static QelInt _counter;
};

/// Returns `x` as a C* when it is a C (or derives from C), null otherwise.
/// The library's counterpart of dynamic_cast over its own type identity.
template <class C, class T>
inline C* QelDynamicCast(T* x) {
  return (x != nullptr && x->isType(C::GetTypeInfo())) ? static_cast<C*>(x) : nullptr;
}

#endif

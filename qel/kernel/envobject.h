// QelRttiEnvObjectI: the root of every object that lives in an environment.
//
// It holds the owning environment and gives the object back to that
// environment's memory when it is deleted. QelExtractableI and the
// multi-criterion expression derive from it.
#ifndef QEL_KERNEL_ENVOBJECT_H
#define QEL_KERNEL_ENVOBJECT_H

#include <cstddef>
#include <cstring>

#include <qel/kernel/rtti.h>

/// Root of the objects that live in an environment's memory.
class QEL_API QelRttiEnvObjectI {
 public:
  /// Binds the object to `env` (never changed afterwards).
  explicit QelRttiEnvObjectI(QelEnvI* env) : _env(env) {}
  QelRttiEnvObjectI(const QelRttiEnvObjectI&) = delete;
  QelRttiEnvObjectI& operator=(const QelRttiEnvObjectI&) = delete;
  /// Destroys the object (the memory goes back through operator delete).
  virtual ~QelRttiEnvObjectI() noexcept(false);
  QEL_RTTI_ROOT_DECL(QelRttiEnvObjectI)
  /// Whether the object is a reference-counted 0-1 object; false.
  virtual QelBool isZolRefCounted() const;
  /// Makes a 0-1 copy of the object in `env`; objects without one return
  /// null.
  virtual QelRttiEnvObjectI* makeZolClone(QelEnvI* env) const;
  /// Hook for garbage collection of derived objects; does nothing.
  virtual void garbage();

  /// The owning environment.
  QelEnvI* getEnv() const { return _env; }
  /// The memory manager of the owning environment.
  QelMemoryManagerObjectI* getMemoryManager() const;

  /// Objects are placed in environment memory by the handle constructors:
  /// `new (env->alloc(sizeof(T))) T(...)`.
  static void* operator new(size_t, void* place) noexcept { return place; }
  /// Matching placement delete: does nothing. QelNewObject (env.h) gives
  /// the block back when a constructor throws.
  static void operator delete(void*, void*) noexcept {}
  /// Gives the block of a deleted object back to its environment.
  static void operator delete(void* p, size_t size);
  /// The environment of the object that occupied `block`, read from the raw
  /// block after its destructor has run (the layout puts the environment
  /// right after the table of virtual operations).
  static QelEnvI* EnvOfBlock(const void* block) {
    QelEnvI* env;
    std::memcpy(&env, static_cast<const char*>(block) + sizeof(void*), sizeof env);
    return env;
  }

 protected:
  /// The owning environment.
  QelEnvI* _env;
};

#endif

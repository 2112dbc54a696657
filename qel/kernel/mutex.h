// A lock an application installs when it uses the library from several
// threads.
//
// The library takes one lock only: QelEnvI::Mutex, when a class's type index
// is assigned for the first time. It is null by default (no locking); an
// application whose threads may ask type indices concurrently installs a
// lock before starting them:
//
//   static QelStdMutex lock;
//   QelEnvI::Mutex = &lock;        // before any other thread runs
//   ...
//   QelEnvI::Mutex = nullptr;      // after the last one has stopped
//
// Environments themselves are not shared: each has one allocator thread.
#ifndef QEL_KERNEL_MUTEX_H
#define QEL_KERNEL_MUTEX_H

#include <mutex>

#include <qel/kernel/rtti.h>

/// A QelMutexI over std::mutex.
class QEL_API QelStdMutex : public QelMutexI {
 public:
  /// Takes the lock.
  void lock() override { _mutex.lock(); }
  /// Releases the lock.
  void unlock() override { _mutex.unlock(); }

 private:
  std::mutex _mutex;
};

#endif

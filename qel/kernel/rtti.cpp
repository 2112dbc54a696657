// Type indices and the roots of the type identity.
#include <qel/kernel/env.h>
#include <qel/kernel/rtti.h>

QelMutexI::~QelMutexI() = default;

QelInt QelRtti::_counter = 0;
QEL_RTTI_ROOT_DEF(QelRtti)
QelRtti::~QelRtti() = default;

void QelInitTypeIndex(std::atomic<QelInt>& index) {
  // Double-checked: the caller saw 0 without the lock; look again under it
  // so that two threads never hand out two indices to one class.
  QelMutexI* mutex = QelEnvI::Mutex;
  if (mutex != nullptr) mutex->lock();
  if (mutex == nullptr || index.load(std::memory_order_relaxed) == 0) {
    QelInt value = ++QelRtti::_counter;
    index.store(value, std::memory_order_release);
  }
  mutex = QelEnvI::Mutex;
  if (mutex != nullptr) mutex->unlock();
}

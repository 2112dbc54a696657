// The root of the objects living in an environment.
#include <qel/kernel/env.h>
#include <qel/kernel/envobject.h>

QEL_RTTI_ROOT_DEF(QelRttiEnvObjectI)

QelRttiEnvObjectI::~QelRttiEnvObjectI() noexcept(false) {}

QelBool QelRttiEnvObjectI::isZolRefCounted() const { return false; }

QelRttiEnvObjectI* QelRttiEnvObjectI::makeZolClone(QelEnvI*) const { return nullptr; }

void QelRttiEnvObjectI::garbage() {}

QelMemoryManagerObjectI* QelRttiEnvObjectI::getMemoryManager() const {
  return _env->getGeneralAllocator();
}

void QelRttiEnvObjectI::operator delete(void* p, size_t size) {
  // The destructor has run: the environment is read from the raw block.
  EnvOfBlock(p)->free(p, size);
}

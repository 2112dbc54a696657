// The library's exception classes.
#include <ostream>

#include <qel/kernel/exception.h>

QelException::QelException(const char* message, long code)
    : _message(message != nullptr ? message : ""), _hasMessage(message != nullptr), _code(code) {}

QelException::~QelException() = default;

void QelException::print(std::ostream& os) const {
  if (_hasMessage) os << _message;
}

void QelException::end() {}

std::ostream& operator<<(std::ostream& os, const QelException& e) {
  e.print(os);
  return os;
}

QelEmptyHandleException::QelEmptyHandleException() : QelException("Using empty Handle", 0) {}

QelMemoryException::QelMemoryException() : QelException("Out of memory", 0) {}

QelEnvAllocatorThreadMismatch::QelEnvAllocatorThreadMismatch()
    : QelException("Environment used from a thread that is not its allocator thread", 0) {}

QelEnvAllocationDisabled::QelEnvAllocationDisabled()
    : QelException("Environment allocation is disabled", 0) {}

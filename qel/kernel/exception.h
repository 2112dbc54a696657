// The exception classes of the library.
//
// Every error is an exception derived from QelException, which carries a
// message text (possibly null) and a long code (0 throughout the library).
// QelException also derives from std::exception, so `what()` gives the
// message to code that knows nothing of Qel.
#ifndef QEL_KERNEL_EXCEPTION_H
#define QEL_KERNEL_EXCEPTION_H

#include <exception>
#include <iosfwd>
#include <string>

#include <qel/kernel/types.h>

/// Base of the library's exceptions: a message and a code.
class QEL_API QelException : public std::exception {
 public:
  /// An exception with `message` (copied; null means no message) and `code`.
  QelException(const char* message, long code = 0);
  /// Destroys the exception.
  ~QelException() override;
  /// The message, or null when the exception has none.
  const char* getMessage() const { return _hasMessage ? _message.c_str() : nullptr; }
  /// The code given at construction.
  long getCode() const { return _code; }
  /// Writes the message (nothing when null).
  virtual void print(std::ostream& os) const;
  /// Releases what the exception holds; kept for symmetry with the objects
  /// of the library (copies release themselves).
  virtual void end();
  /// The message, or "" when null.
  const char* what() const noexcept override { return _hasMessage ? _message.c_str() : ""; }

 private:
  std::string _message;
  bool _hasMessage;
  long _code;
};

/// Writes an exception with its print operation.
QEL_API std::ostream& operator<<(std::ostream& os, const QelException& e);

/// A call broke a usage rule of the library.
class QEL_API QelWrongUsage : public QelException {
 public:
  /// Built with the rule's message.
  QelWrongUsage(const char* message, long code = 0) : QelException(message, code) {}
};

/// An operation was called on an empty handle.
class QEL_API QelEmptyHandleException : public QelException {
 public:
  /// The generic text "Using empty Handle".
  QelEmptyHandleException();
  /// A class-specific text.
  explicit QelEmptyHandleException(const char* message) : QelException(message, 0) {}
};

/// The operation is not available for this class.
class QEL_API QelNotImplemented : public QelException {
 public:
  /// Built with the message naming the operation.
  explicit QelNotImplemented(const char* message) : QelException(message, 0) {}
};

/// A size class is out of range, or the system refused memory.
class QEL_API QelMemoryException : public QelException {
 public:
  /// "Out of memory".
  QelMemoryException();
};

/// Memory of an environment was used from a thread that is not its
/// allocator thread.
class QEL_API QelEnvAllocatorThreadMismatch : public QelException {
 public:
  /// "Environment used from a thread that is not its allocator thread".
  QelEnvAllocatorThreadMismatch();
};

/// Memory of an environment was used while its allocation is disabled.
class QEL_API QelEnvAllocationDisabled : public QelException {
 public:
  /// "Environment allocation is disabled".
  QelEnvAllocationDisabled();
};

#endif

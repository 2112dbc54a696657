// Symbol visibility for the Qel library.
//
// A static build (the default) needs no decoration. A shared build compiles
// with hidden visibility and marks the public classes and functions with
// QEL_API so that exactly the documented interface is exported.
#ifndef QEL_KERNEL_EXPORT_H
#define QEL_KERNEL_EXPORT_H

#if defined(QEL_SHARED)
#if defined(_WIN32)
#if defined(QEL_BUILDING)
#define QEL_API __declspec(dllexport)
#else
#define QEL_API __declspec(dllimport)
#endif
#else
#define QEL_API __attribute__((visibility("default")))
#endif
#else
#define QEL_API
#endif

#endif

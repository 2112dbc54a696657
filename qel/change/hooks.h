// Engine hook slots.
//
// The modeling classes know nothing of solving engines. An engine plugs in
// by storing plain function pointers in static per-class slots; the classes
// only forward to whatever is stored there. Every forwarding operation is
// one load, one test and one indirect call; an empty slot throws.
//
// What each hook receives (algorithm first, object second, data third):
//
//   C::_extractCP(QelAlgorithm, const C*)            extractToCP
//   C::_modifyCP(QelAlgorithm, const C*, void*)      modifyCP
//   C::_unextractCP(QelAlgorithm, const C*, void*)   unextractFromCP
//   QelObjectiveI::_addToCP(QelAlgorithm, const QelObjectiveI*, void*)
//   QelObjectiveI::_removeFromCP(QelAlgorithm, const QelObjectiveI*, void*)
//   N::_applyCP(QelAlgorithm, const N*, void*)      applyToCP of notice N
//
// The hook's result is handed back unchanged to the caller of the
// forwarding operation. An empty slot throws, for extractToCP,
// whenAddedToCP and whenRemovedFromCP, QelAlgorithm::ExtractFailure; for
// modifyCP and unextractFromCP, QelAlgorithm::RemoveFailure; for applyToCP,
// QelAlgorithm::CannotChangeException naming the algorithm.
//
// A class's slot is its own: filling the slot of a base class does not serve
// a derived class. Fill the slots once, when the engine is loaded and before
// any model is extracted (they are read without synchronisation):
//
//   static void* extractDiff(QelAlgorithm alg, const QelDiffI* d) { ... }
//   QelDiffI::_extractCP = &extractDiff;
//
// or all at once with a QelHookScope-like helper of the engine's own.
#ifndef QEL_CHANGE_HOOKS_H
#define QEL_CHANGE_HOOKS_H

#include <qel/kernel/algorithm.h>
#include <qel/kernel/rtti.h>

/// Throws QelAlgorithm::ExtractFailure.
[[noreturn]] QEL_API void QelThrowExtractFailure();
/// Throws QelAlgorithm::RemoveFailure.
[[noreturn]] QEL_API void QelThrowRemoveFailure();
/// Throws QelAlgorithm::CannotChangeException for `algorithm`.
[[noreturn]] QEL_API void QelThrowCannotChange(const QelAlgorithm& algorithm);

/// Declares the three extraction slots of an extractable class C and the
/// forwarding operations that use them.
#define QEL_EXTRACT_HOOKS_DECL(C)                                          \
 public:                                                                   \
  /** Engine hook extracting a C; null until an engine fills it. */        \
  static void* (*_extractCP)(QelAlgorithm, const C*);                      \
  /** Engine hook modifying the extracted form of a C. */                  \
  static void* (*_modifyCP)(QelAlgorithm, const C*, void*);                \
  /** Engine hook removing the extracted form of a C. */                   \
  static void* (*_unextractCP)(QelAlgorithm, const C*, void*);             \
  /** Forwards to _extractCP; empty: QelAlgorithm::ExtractFailure. */      \
  void* extractToCP(QelAlgorithm a) const override {                       \
    if (C::_extractCP != nullptr) return C::_extractCP(a, this);           \
    QelThrowExtractFailure();                                              \
  }                                                                        \
  /** Forwards to _modifyCP; empty: QelAlgorithm::RemoveFailure. */        \
  void* modifyCP(QelAlgorithm a, void* data) const override {              \
    if (C::_modifyCP != nullptr) return C::_modifyCP(a, this, data);       \
    QelThrowRemoveFailure();                                               \
  }                                                                        \
  /** Forwards to _unextractCP; empty: QelAlgorithm::RemoveFailure. */     \
  void* unextractFromCP(QelAlgorithm a, void* data) const override {       \
    if (C::_unextractCP != nullptr) return C::_unextractCP(a, this, data); \
    QelThrowRemoveFailure();                                               \
  }

/// Defines the three extraction slots of C (empty).
#define QEL_EXTRACT_HOOKS_DEF(C)                                  \
  void* (*C::_extractCP)(QelAlgorithm, const C*) = nullptr;       \
  void* (*C::_modifyCP)(QelAlgorithm, const C*, void*) = nullptr; \
  void* (*C::_unextractCP)(QelAlgorithm, const C*, void*) = nullptr;

/// Type identity and hook slots of an extractable class C with base B.
#define QEL_EXTRACTABLE_DECL(C, B) \
  QEL_RTTI_DECL(C, B)              \
  QEL_EXTRACT_HOOKS_DECL(C)

/// Like QEL_EXTRACTABLE_DECL for a class that refines isType itself.
#define QEL_EXTRACTABLE_DECL_CORE(C, B) \
  QEL_RTTI_DECL_CORE(C, B)              \
  QEL_EXTRACT_HOOKS_DECL(C)

/// The out-of-line definitions matching QEL_EXTRACTABLE_DECL.
#define QEL_EXTRACTABLE_DEF(C) \
  QEL_RTTI_DEF(C)              \
  QEL_EXTRACT_HOOKS_DEF(C)

/// Declares the notice slot of a change-notice class N and applyToCP.
#define QEL_APPLY_HOOK_DECL(N)                                             \
 public:                                                                   \
  /** Engine hook receiving an N; null until an engine fills it. */        \
  static QelInt (*_applyCP)(QelAlgorithm, const N*, void*);                \
  /** Forwards to _applyCP; empty: QelAlgorithm::CannotChangeException. */ \
  QelInt applyToCP(QelAlgorithm a, void* data) const override {            \
    if (N::_applyCP != nullptr) return N::_applyCP(a, this, data);         \
    QelThrowCannotChange(a);                                               \
  }

/// Defines the notice slot of N (empty).
#define QEL_APPLY_HOOK_DEF(N) QelInt (*N::_applyCP)(QelAlgorithm, const N*, void*) = nullptr;

/// Type identity and notice slot of a notice class N with base B.
#define QEL_CHANGE_DECL(N, B) \
  QEL_RTTI_DECL(N, B)         \
  QEL_APPLY_HOOK_DECL(N)

/// The out-of-line definitions matching QEL_CHANGE_DECL.
#define QEL_CHANGE_DEF(N) \
  QEL_RTTI_DEF(N)         \
  QEL_APPLY_HOOK_DEF(N)

#endif

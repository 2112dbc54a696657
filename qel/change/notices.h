// Every change-notice class of the library, in one include, and a walk
// over all of them.
//
// Engines that follow notices through the hook slots include this header
// to reach every _applyCP slot; qel/change/notices.def lists the classes.
// QelForEachNoticeClass calls a generic function once per notice class, so
// an engine can fill (or check) every slot in one place:
//
//   template <class N>
//   QelInt MarkDirty(QelAlgorithm alg, const N* notice, void* data) { ... }
//
//   QelForEachNoticeClass([](auto tag) {
//     using N = typename decltype(tag)::Type;
//     if (N::_applyCP == nullptr) N::_applyCP = &MarkDirty<N>;
//   });
#ifndef QEL_CHANGE_NOTICES_H
#define QEL_CHANGE_NOTICES_H

#include <qel/change/change.h>
#include <qel/constraints/alldiff.h>
#include <qel/constraints/sos.h>
#include <qel/kernel/constraint.h>
#include <qel/model/model.h>
#include <qel/objective/objectivechange.h>

/// Names one notice class N for QelForEachNoticeClass.
template <class N>
struct QelNoticeTag {
  /// The notice class.
  using Type = N;
  /// The class's base in the type identity.
  using Base = typename N::RttiBase;
};

/// Calls `f(QelNoticeTag<N>())` for every notice class N of the library, in
/// the order of qel/change/notices.def.
template <class F>
void QelForEachNoticeClass(F&& f) {
#define QEL_NOTICE(N, B) f(QelNoticeTag<N>());
#include <qel/change/notices.def>
#undef QEL_NOTICE
}

/// Number of notice classes of the library.
constexpr int QelNoticeClassCount = 0
#define QEL_NOTICE(N, B) +1
#include <qel/change/notices.def>
#undef QEL_NOTICE
    ;

#endif

// The dispatching hooks: installed once in every slot, they forward to the
// virtual handler of the engine named by the QelAlgorithm argument (see the
// design note in engine.h).
#include <mutex>

#include <qel/engines/engine.h>

namespace {

QelEngineI* EngineOf(const QelAlgorithm& a) { return QelDynamicCast<QelEngineI>(a.getImpl()); }

// The three extraction slots of an extractable class C.
template <class C>
struct ExtractableSlots {
  using ExtractFn = void* (*)(QelAlgorithm, const C*);
  using ChangeFn = void* (*)(QelAlgorithm, const C*, void*);
  static ExtractFn previousExtract;
  static ChangeFn previousModify;
  static ChangeFn previousUnextract;

  static void* Extract(QelAlgorithm a, const C* x) {
    if (QelEngineI* e = EngineOf(a)) return e->extractObject(x);
    if (previousExtract != nullptr) return previousExtract(a, x);
    QelThrowExtractFailure();
  }
  static void* Modify(QelAlgorithm a, const C* x, void* data) {
    if (QelEngineI* e = EngineOf(a)) return e->modifyObject(x, data);
    if (previousModify != nullptr) return previousModify(a, x, data);
    QelThrowRemoveFailure();
  }
  static void* Unextract(QelAlgorithm a, const C* x, void* data) {
    if (QelEngineI* e = EngineOf(a)) return e->unextractObject(x, data);
    if (previousUnextract != nullptr) return previousUnextract(a, x, data);
    QelThrowRemoveFailure();
  }
  static void Install() {
    if (C::_extractCP != &Extract) {
      previousExtract = C::_extractCP;
      C::_extractCP = &Extract;
    }
    if (C::_modifyCP != &Modify) {
      previousModify = C::_modifyCP;
      C::_modifyCP = &Modify;
    }
    if (C::_unextractCP != &Unextract) {
      previousUnextract = C::_unextractCP;
      C::_unextractCP = &Unextract;
    }
  }
};

template <class C>
typename ExtractableSlots<C>::ExtractFn ExtractableSlots<C>::previousExtract = nullptr;
template <class C>
typename ExtractableSlots<C>::ChangeFn ExtractableSlots<C>::previousModify = nullptr;
template <class C>
typename ExtractableSlots<C>::ChangeFn ExtractableSlots<C>::previousUnextract = nullptr;

// The notice slot of a notice class N.
template <class N>
struct NoticeSlot {
  using ApplyFn = QelInt (*)(QelAlgorithm, const N*, void*);
  static ApplyFn previous;

  static QelInt Apply(QelAlgorithm a, const N* n, void* data) {
    if (QelEngineI* e = EngineOf(a)) return e->applyNotice(*n, data);
    if (previous != nullptr) return previous(a, n, data);
    QelThrowCannotChange(a);
  }
  static void Install() {
    if (N::_applyCP == &Apply) return;
    previous = N::_applyCP;
    N::_applyCP = &Apply;
  }
};

template <class N>
typename NoticeSlot<N>::ApplyFn NoticeSlot<N>::previous = nullptr;

// The activation slots of objectives.
struct ObjectiveSlots {
  using Fn = void* (*)(QelAlgorithm, const QelObjectiveI*, void*);
  static Fn previousAdd;
  static Fn previousRemove;

  static void* Add(QelAlgorithm a, const QelObjectiveI* o, void* data) {
    if (QelEngineI* e = EngineOf(a)) return e->objectiveActivated(o, data);
    if (previousAdd != nullptr) return previousAdd(a, o, data);
    QelThrowExtractFailure();
  }
  static void* Remove(QelAlgorithm a, const QelObjectiveI* o, void* data) {
    if (QelEngineI* e = EngineOf(a)) return e->objectiveDeactivated(o, data);
    if (previousRemove != nullptr) return previousRemove(a, o, data);
    QelThrowExtractFailure();
  }
  static void Install() {
    if (QelObjectiveI::_addToCP != &Add) {
      previousAdd = QelObjectiveI::_addToCP;
      QelObjectiveI::_addToCP = &Add;
    }
    if (QelObjectiveI::_removeFromCP != &Remove) {
      previousRemove = QelObjectiveI::_removeFromCP;
      QelObjectiveI::_removeFromCP = &Remove;
    }
  }
};

ObjectiveSlots::Fn ObjectiveSlots::previousAdd = nullptr;
ObjectiveSlots::Fn ObjectiveSlots::previousRemove = nullptr;

std::mutex& InstallMutex() {
  static std::mutex m;
  return m;
}

}  // namespace

void QelEngineI::InstallHooks() {
  std::lock_guard<std::mutex> lock(InstallMutex());
#define QEL_ENGINE_CLASS(C) ExtractableSlots<C>::Install();
#include <qel/engines/extractables.def>
#undef QEL_ENGINE_CLASS
#define QEL_NOTICE(N, B) NoticeSlot<N>::Install();
#include <qel/change/notices.def>
#undef QEL_NOTICE
  ObjectiveSlots::Install();
}

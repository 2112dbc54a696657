// The remove-from-all protocol of the environment.
//
// Objects being removed get the removal mark in their table slot; one pass
// over the live objects finds every object that holds a marked object as a
// direct sub-extractable and calls its atRemove, which either drops the
// marked members (models, sets, all-different) or ends the object itself.
// Objects ended during the pass join the running removal and get their own
// pass (a wave), so a cascade costs one pass per level, not one per object.
// Then the algorithms are told, the slots are restored, the ids become -1
// and the objects are destroyed, holders before what they hold. Destructors
// that release the last use of an expression end it within the same
// removal (one more round).
//
// The removal's own lists live in the environment's bookkeeping memory, not
// in object memory: a custom allocator that refuses a request cannot stop a
// removal half way, and a thread or state that may not allocate is refused
// at the first list, before anything has changed.
#include <exception>

#include <qel/change/change.h>
#include <qel/extractable/visitor.h>
#include <qel/kernel/algorithm.h>
#include <qel/kernel/array.h>
#include <qel/kernel/env.h>

struct QelEnvI::Removal {
  QelArrayI* list = nullptr;   // the marked objects, in marking order
  QelArrayI* kinds = nullptr;  // their RemovalKind
  long waved = 0;              // objects whose dependants were called
  long notified = 0;           // objects the algorithms were told about
  long finished = 0;           // objects unmarked / destroyed
  QelBool notifyArray = false;
  std::exception_ptr listenerFailure;
};

namespace {

QelExtractableI* ElementOf(QelArrayI* a, long i) { return QelArrayGet<QelExtractableI*>(a, i); }

// Calls a function on every direct sub-extractable an object presents.
template <class F>
class DirectSubs : public QelExtractableVisitor {
 public:
  explicit DirectSubs(F f) : _f(f) {}
  using QelExtractableVisitor::visitChildren;
  void visitChildren(QelExtractableI*, QelExtractableI* child) override {
    if (child != nullptr) _f(child);
  }

 private:
  F _f;
};

// Whether `y` holds what a pass looks for: `removed` itself (one by one),
// or any marked object.
inline bool Reaches(QelExtractableI* y, QelExtractableI* removed, bool oneByOne) {
  if (oneByOne) {
    bool reached = false;
    DirectSubs holds([removed, &reached](QelExtractableI* c) { reached |= c == removed; });
    y->visitSubExtractables(&holds);
    return reached;
  }
  QelFindMarkedVisitor finder;
  y->visitSubExtractables(&finder);
  return finder.found != 0;
}

}  // namespace

void QelEnvI::removeFromAll(QelExtractableI* x) {
  if (x == nullptr || x->getId() < 0) return;
  runRemoval(&x, 1, KeepAlive, false);
}

void QelEnvI::removeFromAllAndDestroy(QelExtractableI* x, long flag) {
  if (x == nullptr || x->getId() < 0) return;
  runRemoval(&x, 1, flag != 0 ? MemoryReleased : Destroy, false);
}

void QelEnvI::removeFromAllAndDestroy(QelExtractableArray xs, long flag, long notifyArray) {
  QelArrayI* a = xs.getImpl();
  if (a == nullptr || a->getSize() == 0) return;
  long n = a->getSize();
  RemovalKind kind = flag != 0 ? MemoryReleased : Destroy;
  // Copy the pointers: the caller's array may be one the removal changes.
  // Their ids too: removed one at a time, an element may end with an
  // earlier one, and whether it still lives is then read in the table under
  // the id it had, never in the object (whose memory may be gone).
  QelGenAlloc* bookkeeping = getInternalAllocator();
  size_t bytes = (sizeof(QelExtractableI*) + sizeof(QelInt)) * static_cast<size_t>(n);
  void* block = bookkeeping->alloc(bytes);
  QelExtractableI** copy = static_cast<QelExtractableI**>(block);
  QelInt* ids = reinterpret_cast<QelInt*>(copy + n);
  for (long i = 0; i < n; ++i) {
    copy[i] = ElementOf(a, i);
    ids[i] = copy[i] != nullptr ? copy[i]->getId() : -1;
  }
  try {
    if (_oneByOne == 0) {
      runRemoval(copy, n, kind, notifyArray != 0);
    } else {
      // One at a time, each with its own notices.
      for (long i = 0; i < n; ++i)
        if (ids[i] >= 0 && ids[i] < _tableSize &&
            _table[ids[i]] == reinterpret_cast<std::uintptr_t>(copy[i]))
          runRemoval(&copy[i], 1, kind, false);
    }
  } catch (...) {
    bookkeeping->free(block, bytes);
    throw;
  }
  bookkeeping->free(block, bytes);
}

void QelEnvI::join(Removal& r, QelExtractableI* x, RemovalKind kind) {
  if (x == nullptr || x->getId() < 0 || _table[x->getId()] == RemovalMark) return;
  // Record first: if recording fails, nothing is marked.
  r.list->addRaw(reinterpret_cast<std::uintptr_t>(x));
  try {
    r.kinds->addRaw(static_cast<std::uint64_t>(kind));
  } catch (...) {
    r.list->setSize(r.list->getSize() - 1);
    throw;
  }
  mark(x);
}

void QelEnvI::runRemoval(QelExtractableI* const* xs, long n, RemovalKind kind,
                         QelBool notifyArray) {
  if (_removal != nullptr && _oneByOne == 0 && kind != MemoryReleased) {
    // A removal is running: join it (its waves will reach the dependants).
    for (long i = 0; i < n; ++i) join(*_removal, xs[i], kind);
    return;
  }
  Removal r;
  r.notifyArray = notifyArray;
  r.list = QelArrayI::Make(getInternalAllocator(), 0);
  try {
    r.kinds = QelArrayI::Make(getInternalAllocator(), 0);
  } catch (...) {
    delete r.list;
    throw;
  }
  Removal* outer = _removal;
  _removal = &r;
  try {
    for (long i = 0; i < n; ++i) join(r, xs[i], kind);
    process(r);
  } catch (...) {
    // Leave the table as it was for what was not finished.
    for (long i = r.finished; i < r.list->getSize(); ++i) {
      QelExtractableI* x = ElementOf(r.list, i);
      if (x->getId() >= 0) unmark(x);
    }
    _removal = outer;
    delete r.kinds;
    delete r.list;
    throw;
  }
  _removal = outer;
  delete r.kinds;
  delete r.list;
  if (r.listenerFailure) std::rethrow_exception(r.listenerFailure);
}

void QelEnvI::process(Removal& r) {
  for (;;) {
    long size = r.list->getSize();
    if (r.waved < size) {
      QelExtractableI* removed = ElementOf(r.list, r.waved);
      r.waved = size;
      pass(removed);
      continue;
    }
    if (r.notified < size) {
      long from = r.notified;
      r.notified = size;
      notifyRemoval(r, from, size);
      continue;
    }
    if (r.finished < size) {
      long from = r.finished;
      r.finished = size;
      finishRemoval(r, from, size);
      continue;
    }
    return;
  }
}

void QelEnvI::pass(QelExtractableI* removed) {
  // One pass over the live objects; the table may grow or change under
  // atRemove, so re-read it at every step. One by one, removals nest, and a
  // removal reaches only what holds its own object: what holds the object
  // of an enclosing removal is reached by that removal's pass. Ended here,
  // it could go while a holder the enclosing removal has marked, and will
  // destroy later, still holds it.
  bool oneByOne = _oneByOne != 0;
  for (QelInt i = 0; i < _tableSize; ++i) {
    std::uintptr_t v = _table[i];
    if (v == 0 || v == RemovalMark || isTableLink(v)) continue;
    QelExtractableI* y = reinterpret_cast<QelExtractableI*>(v);
    if (Reaches(y, removed, oneByOne)) y->atRemove(removed, nullptr);
  }
  if (_holders != nullptr) passHolders(removed, oneByOne);
}

// ---- models of other environments -------------------------------------------
//
// A model may hold members of other environments (its nodes are made in
// each member's environment). The environment of the member keeps the list
// of the environments whose models hold its members, and each of those the
// list of the environments it holds members of: a removal then also sweeps
// the models of the holders, and an environment that ends first lets go of
// the other's objects (its models give their nodes back; the holders' models
// drop its members).

namespace {

long FindEnv(const QelArrayI* list, const QelEnvI* env) {
  if (list == nullptr) return -1;
  for (long i = 0; i < list->getSize(); ++i)
    if (list->rawAt(i) == reinterpret_cast<std::uintptr_t>(env)) return i;
  return -1;
}

void DropEnv(QelArrayI* list, const QelEnvI* env) {
  long i = FindEnv(list, env);
  if (i < 0) return;
  long last = list->getSize() - 1;
  list->rawAt(i) = list->rawAt(last);
  list->setSize(last);
}

// Adds `env` to the list in `*list` (made in `alloc` when absent). A refusal
// leaves the list as it was.
void AddEnv(QelArrayI** list, QelGenAlloc* alloc, const QelEnvI* env) {
  if (*list == nullptr) *list = QelArrayI::Make(alloc, 0);
  (*list)->addRaw(reinterpret_cast<std::uintptr_t>(env));
}

// Calls `f` on every live model of `env`.
template <class F>
void ForEachModel(const QelEnvI* env, F f) {
  const std::uintptr_t* table = env->getExtractableTable();
  for (QelInt i = 0; i < env->getExtractableTableSize(); ++i) {
    std::uintptr_t v = table[i];
    if (v == 0 || v == QelEnvI::RemovalMark || v == QelEnvI::OrderingMark ||
        v == QelEnvI::PendingMark || env->isTableLink(v))
      continue;
    auto* y = reinterpret_cast<QelExtractableI*>(v);
    if (y->isModel()) f(y);
  }
}

}  // namespace

QelBool QelEnvI::isHeldBy(const QelEnvI* other) const { return FindEnv(_holders, other) >= 0; }

void QelEnvI::holdMembersOfSlow(QelEnvI* other) {
  if (FindEnv(_held, other) >= 0) return;
  AddEnv(&_held, getInternalAllocator(), other);
  try {
    AddEnv(&other->_holders, other->getInternalAllocator(), this);
  } catch (...) {
    _held->setSize(_held->getSize() - 1);
    throw;
  }
}

void QelEnvI::passHolders(QelExtractableI* removed, bool oneByOne) {
  // Only models hold members of other environments. Each model of a holder
  // that holds what is being removed drops it and tells its own
  // environment's listeners (QelRemoveFromModel): their registry does not
  // know the object.
  QelForeignSweep sweep{oneByOne ? QelForeignSweep::OneByOne : QelForeignSweep::Marked};
  for (long h = 0; h < _holders->getSize(); ++h) {
    auto* holder = reinterpret_cast<QelEnvI*>(_holders->rawAt(h));
    ForEachModel(holder, [removed, oneByOne, &sweep](QelExtractableI* y) {
      if (Reaches(y, removed, oneByOne)) y->atRemove(removed, &sweep);
    });
  }
}

void QelEnvI::letGoOfOtherEnvironments() noexcept {
  // The holders' models drop this environment's members: every live object
  // is marked (for good: the environment is ending), then each model that
  // holds one drops them all with one notice. A listener that fails is not
  // heard: the environment ends regardless.
  if (_holders != nullptr && _holders->getSize() > 0) {
    for (QelInt i = 0; i < _tableSize; ++i) {
      std::uintptr_t v = _table[i];
      if (v == 0 || v == RemovalMark || v == OrderingMark || v == PendingMark || isTableLink(v))
        continue;
      _table[i] = RemovalMark;
    }
    QelForeignSweep sweep{QelForeignSweep::Marked};
    while (_holders->getSize() > 0) {
      auto* holder = reinterpret_cast<QelEnvI*>(_holders->rawAt(_holders->getSize() - 1));
      // Every model is told, also one that no longer holds any of them: its
      // member list may still report its fields to this environment.
      ForEachModel(holder, [&sweep](QelExtractableI* y) {
        try {
          y->atRemove(nullptr, &sweep);
        } catch (...) {
        }
      });
      DropEnv(holder->_held, this);
      _holders->setSize(_holders->getSize() - 1);
    }
  }
  // This environment's models give the nodes of other environments' members
  // back to those environments.
  if (_held != nullptr && _held->getSize() > 0) {
    QelForeignSweep sweep{QelForeignSweep::Release};
    ForEachModel(this, [&sweep](QelExtractableI* y) {
      try {
        y->atRemove(nullptr, &sweep);
      } catch (...) {
      }
    });
    for (long h = 0; h < _held->getSize(); ++h)
      DropEnv(reinterpret_cast<QelEnvI*>(_held->rawAt(h))->_holders, this);
    _held->setSize(0);
  }
}

void QelEnvI::deliverTo(std::uint64_t mask, const QelExtractableI* x, const QelChange& c) {
  mask &= _listening;
  while (mask != 0) {
    int s = __builtin_ctzll(mask);
    mask &= mask - 1;
    QelAlgorithmI* a = _algorithms[s];
    if (a == nullptr) continue;
    try {
      a->notifyChange(x, c);
    } catch (...) {
      // The removal goes on; the first listener failure is rethrown once
      // the table and the objects are consistent again.
      if (_removal != nullptr && !_removal->listenerFailure)
        _removal->listenerFailure = std::current_exception();
    }
  }
}

void QelEnvI::notifyRemoval(Removal& r, long from, long to) {
  if (_listening == 0) {
    for (long i = from; i < to; ++i) _registry.drop(ElementOf(r.list, i)->getId());
    return;
  }
  // Who extracted what is read before anything is told: the removal notice
  // makes visiting algorithms drop their registry entries.
  QelArrayI* masks = QelArrayI::Make(getInternalAllocator(), to - from);
  std::uint64_t all = 0;
  std::uint64_t destroyed = 0;
  for (long i = from; i < to; ++i) {
    std::uint64_t m = _registry.getMask(ElementOf(r.list, i)->getId());
    QelArraySet<std::uint64_t>(masks, i - from, m);
    all |= m;
    if (QelArrayGet<QelInt>(r.kinds, i) != KeepAlive) destroyed |= m;
  }
  QelArrayI* temp = nullptr;
  try {
    if (all != 0) {
      QelExtractableArray range(r.list);
      if (from != 0 || to != r.list->getSize()) {
        temp = QelArrayI::Make(getInternalAllocator(), 0);
        for (long i = from; i < to; ++i) temp->addRaw(r.list->rawAt(i));
        range = QelExtractableArray(temp);
      }
      {
        QelRemoveFromAllChange c(range);
        deliverTo(all, nullptr, c);
      }
      if (destroyed != 0) {
        if (r.notifyArray && from == 0) {
          QelDestroyExtractableArray c(range);
          deliverTo(destroyed, nullptr, c);
        } else {
          for (long i = from; i < to; ++i) {
            if (QelArrayGet<QelInt>(r.kinds, i) == KeepAlive) continue;
            QelExtractableI* x = ElementOf(r.list, i);
            QelDestroyExtractable c(x);
            deliverTo(QelArrayGet<std::uint64_t>(masks, i - from), x, c);
          }
        }
      }
    }
  } catch (...) {
    delete temp;
    delete masks;
    throw;
  }
  delete temp;
  delete masks;
  for (long i = from; i < to; ++i) {
    if (QelArrayGet<QelInt>(r.kinds, i) != KeepAlive) _registry.drop(ElementOf(r.list, i)->getId());
  }
}

void QelEnvI::orderForDestruction(QelExtractableI* y, QelArrayI* order) {
  _table[y->getId()] = OrderingMark;
  DirectSubs visit([this, order](QelExtractableI* c) {
    QelInt id = c->getId();
    if (id >= 0 && c->getEnv() == this && _table[id] == PendingMark) orderForDestruction(c, order);
  });
  y->visitSubExtractables(&visit);
  order->addRaw(reinterpret_cast<std::uintptr_t>(y));
}

void QelEnvI::finishRemoval(Removal& r, long from, long to) {
  // Objects that stay alive get their slots back once the others are
  // destroyed: a destructor giving back the last use of one of them must
  // find it marked, or it would end it (it lives on, unused).
  auto keepAliveBack = [this, &r, from, to] {
    for (long i = from; i < to; ++i)
      if (QelArrayGet<QelInt>(r.kinds, i) == KeepAlive) unmark(ElementOf(r.list, i));
  };
  // Objects whose memory is being released elsewhere have already been
  // destroyed: they are only unregistered, at once, so that the ordering
  // below (which walks the sub-extractables of what it destroys) never
  // reaches them.
  for (long i = from; i < to; ++i) {
    QelExtractableI* x = ElementOf(r.list, i);
    if (QelArrayGet<QelInt>(r.kinds, i) == MemoryReleased) {
      unmark(x);
      unregister(x);
    }
  }
  QelArrayI* order;
  try {
    order = QelArrayI::Make(getInternalAllocator(), 0);
  } catch (...) {
    keepAliveBack();
    throw;
  }
  // Only what this removal destroys is put in order. A sub-extractable that
  // carries the removal mark of an enclosing removal (one-by-one removals
  // nest) is left to that removal.
  for (long i = from; i < to; ++i) {
    QelExtractableI* x = ElementOf(r.list, i);
    if (QelArrayGet<QelInt>(r.kinds, i) == Destroy && _table[x->getId()] == RemovalMark)
      _table[x->getId()] = PendingMark;
  }
  try {
    for (long i = from; i < to; ++i) {
      QelExtractableI* x = ElementOf(r.list, i);
      if (QelArrayGet<QelInt>(r.kinds, i) == Destroy && _table[x->getId()] == PendingMark)
        orderForDestruction(x, order);
    }
  } catch (...) {
    for (long i = from; i < to; ++i) {
      QelExtractableI* x = ElementOf(r.list, i);
      if (QelArrayGet<QelInt>(r.kinds, i) != Destroy) continue;
      std::uintptr_t v = _table[x->getId()];
      if (v == PendingMark || v == OrderingMark) unmark(x);
    }
    keepAliveBack();
    delete order;
    throw;
  }
  for (long i = from; i < to; ++i) {
    QelExtractableI* x = ElementOf(r.list, i);
    if (QelArrayGet<QelInt>(r.kinds, i) != Destroy) continue;
    unmark(x);
    unregister(x);
  }
  // Holders before what they hold: the reverse of the post-order.
  std::exception_ptr failure;
  for (long i = order->getSize() - 1; i >= 0; --i) {
    try {
      delete ElementOf(order, i);
    } catch (...) {
      if (!failure) failure = std::current_exception();
    }
  }
  delete order;
  keepAliveBack();
  if (failure) std::rethrow_exception(failure);
}

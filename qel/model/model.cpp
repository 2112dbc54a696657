// The model and its notices.
#include <ostream>

#include <qel/extractable/visitor.h>
#include <qel/model/model.h>

QEL_EXTRACTABLE_DEF(QelModelI)

namespace {

// Runs `f`, then ends `removed` (the array of the notices `f` sends), also
// when `f` throws.
template <class F>
void ThenEnd(QelExtractableArray removed, F f) {
  try {
    f();
  } catch (...) {
    removed.end();
    throw;
  }
  removed.end();
}

}  // namespace

QelModelI::QelModelI(QelEnvI* env, const char* name) : QelExtractableI(env, name) {}

QelModelI::~QelModelI() {
  removeBeforeTeardown();
  _members.clear();
}

QelExtractableI* QelModelI::add(QelExtractableI* x) {
  if (x == nullptr) throw QelEmptyHandleException("trying to add an empty handle extractable");
  _env->holdMembersOf(x->getEnv());
  _members.add(x);
  if (_env->hasListeners()) {
    QelAddOneToModel change(this, x);
    notify(change);
  }
  return x;
}

void QelModelI::add(const QelExtractableArray& xs) {
  if (xs.getSize() < 1) return;
  holdMembersOf(xs);
  _members.add(xs);
  if (_env->hasListeners()) {
    QelAddToModel change(this, xs, false);
    notify(change);
  }
}

QelBool QelModelI::holds(const QelExtractableI* x) const {
  for (Iterator it(this); it.ok(); ++it)
    if (*it == x) return true;
  return false;
}

void QelModelI::remove(QelExtractableI* x) {
  // One walk finds the node; it is unlinked and released, and only then is
  // the notice's array made. A refused release leaves the model as it was.
  // The array lives in the environment's bookkeeping memory, which a custom
  // allocator does not serve: once the node is gone, no refusal can leave
  // the removal done but untold.
  QelExtractableList::Node** link = _members.findLink(x);
  if (link == nullptr) return;
  _members.removeAt(link);
  QelExtractableArray removed(QelMemoryManager(_env->getInternalAllocator()), 1);
  removed.set(0, QelExtractable(x));
  QelRemoveFromModel change(this, removed, true);
  notify(change);
}

void QelModelI::remove(const QelExtractableArray& xs) {
  if (xs.getSize() < 1) return;
  QelExtractableArray removed(QelEnv(xs.getImpl()->getEnv()), 0);
  ThenEnd(removed, [&] {
    _members.remove(xs, removed);
    tellRemoved(removed);
  });
}

void QelModelI::tellRemoved(const QelExtractableArray& removed) {
  if (removed.getSize() == 0) return;
  QelRemoveFromModel change(this, removed, false);
  notify(change);
}

QelExtractableI* QelModelI::makeClone(QelEnvI* env) const {
  QelModelI* clone = QelNewObject<QelModelI>(env, env);
  try {
    for (Iterator it(this); it.ok(); ++it) clone->add(env->getClone(*it));
  } catch (...) {
    clone->end();
    throw;
  }
  return clone;
}

void QelModelI::holdMembersOf(const QelExtractableArray& xs) {
  QelArrayI* a = xs.getImpl();
  for (long i = 0; i < a->getSize(); ++i)
    if (QelExtractableI* e = QelArrayGet<QelExtractableI*>(a, i)) _env->holdMembersOf(e->getEnv());
}

void QelModelI::dropMarkedMembers() {
  // Members of another environment that a removal there marked: this
  // environment's listeners hear of them through one QelRemoveFromModel
  // (the removal's own notices go to the listeners of the member's
  // environment). The notice's array is bookkeeping memory, made before
  // any node goes. The list's own fields are reported to the model's
  // environment from now on: the members' one may be ending.
  _members.setEnv(_env);
  if (!_env->hasListeners()) {
    _members.removeMarked();
    return;
  }
  QelExtractableArray removed(QelMemoryManager(_env->getInternalAllocator()), 0);
  ThenEnd(removed, [&] {
    for (Iterator it(this); it.ok(); ++it)
      if (QelEnvI::IsMarked(*it)) removed.add(QelExtractable(*it));
    _members.removeMarked();
    tellRemoved(removed);
  });
}

void QelModelI::atRemove(QelExtractableI* x, void* data) {
  if (data != nullptr) {
    // A removal in another environment, or the end of this one.
    switch (static_cast<const QelForeignSweep*>(data)->mode) {
      case QelForeignSweep::Marked:
        dropMarkedMembers();
        return;
      case QelForeignSweep::OneByOne:
        break;
      case QelForeignSweep::Release:
        _members.releaseForeign(_env);
        return;
    }
  }
  if (data != nullptr || _env->getOneByOne() != 0) {
    // One remove, with its notice, per node holding x: a second node left
    // behind would name an object about to be destroyed. The notices share
    // one array of the removal's bookkeeping memory, made before any node
    // goes: object memory refused here would stop the removal half way.
    if (!holds(x)) return;
    QelExtractableArray removed(QelMemoryManager(_env->getInternalAllocator()), 1);
    removed.set(0, QelExtractable(x));
    ThenEnd(removed, [&] {
      while (_members.removeFirst(x)) tellRemoved(removed);
    });
    return;
  }
  _members.removeMarked();
}

void QelModelI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  for (QelExtractableList::Node* n = _members.getHead(); n != nullptr; n = n->next)
    v->visitChildren(this, n->extractable);
  v->endVisit(this);
}

void QelModelI::display(std::ostream& os) const {
  os << "QelModel ";
  printNameOrId(os, "model");
  os << " = {" << std::endl;
  for (Iterator it(this); it.ok(); ++it) {
    (*it)->display(os);
    os << std::endl;
  }
  os << "}" << std::endl;
}

QelBool QelModelI::isModel() { return true; }

void QelExtractableI::expandTo(QelModelI* model, const char*, const char*) const {
  model->add(const_cast<QelExtractableI*>(this));
}

// ---- the handle -------------------------------------------------------------

QelModel::QelModel(QelEnv env, const char* name) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  _impl = QelNewObject<QelModelI>(env.getImpl(), env.getImpl(), name);
}

QelExtractable QelModel::add(QelExtractable x) const {
  if (_impl == nullptr) throw QelEmptyHandleException("trying to add to an empty handle QelModel");
  if (x.getImpl() == nullptr)
    throw QelEmptyHandleException("trying to add an empty handle extractable");
  getImpl()->add(x.getImpl());
  return x;
}

const QelExtractableArray& QelModel::add(const QelExtractableArray& xs) const {
  if (_impl == nullptr) throw QelEmptyHandleException("trying to add 0 extractor handle");
  if (xs.getImpl() == nullptr)
    throw QelEmptyHandleException("Using empty QelExtractableArray handle.");
  getImpl()->add(xs);
  return xs;
}

void QelModel::remove(QelExtractable x) const {
  if (_impl == nullptr) throw QelEmptyHandleException("trying to remove 0 extractor handle");
  if (x.getImpl() == nullptr)
    throw QelEmptyHandleException("trying to remove 0 extractable handle");
  getImpl()->remove(x.getImpl());
}

void QelModel::remove(QelExtractableArray xs) const {
  if (_impl == nullptr) throw QelEmptyHandleException("trying to remove 0 extractor handle");
  if (xs.getImpl() == nullptr)
    throw QelEmptyHandleException("Using empty QelExtractableArray handle.");
  getImpl()->remove(xs);
}

QelExtractable QelModel::expand(QelExtractable x, const char* a, const char* b) const {
  if (_impl == nullptr) throw QelEmptyHandleException("Expanding to an empty QelModel handle.");
  if (x.getImpl() == nullptr)
    throw QelEmptyHandleException("trying to expand an empty extractable handle");
  x.getImpl()->expandTo(getImpl(), a, b);
  return x;
}

QelModel::Iterator::Iterator(const QelModel& model)
    : _it((model.getImpl() != nullptr
               ? model.getImpl()
               : throw QelEmptyHandleException("Using empty QelModel handle."))) {}

// ---- notices ------------------------------------------------------------------

void QelAddOneToModel::visitChange(QelEnvI*, QelExtractableI* extractable,
                                   QelChangeVisitor* visitor) const {
  visitor->addSubExtractable(extractable, _member);
}

QelExtractableI* QelAddOneToModel::getChangedExtractable() const { return _model; }

QelModelArrayNotice::~QelModelArrayNotice() {
  if (_owns) _members.end();
}

QelExtractableI* QelModelArrayNotice::getChangedExtractable() const { return _model; }

void QelAddToModel::visitChange(QelEnvI*, QelExtractableI* extractable,
                                QelChangeVisitor* visitor) const {
  visitor->addSubExtractable(extractable, _members);
}

void QelRemoveFromModel::visitChange(QelEnvI*, QelExtractableI* extractable,
                                     QelChangeVisitor* visitor) const {
  visitor->removeSubExtractable(extractable, _members);
}

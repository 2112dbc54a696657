// The member list of a model.
#include <qel/collections/extractablelist.h>

namespace {

// QelEnvI::IsMarked, inline for the sweeps, which test every node: null,
// ended, or carrying the removal mark.
inline bool Marked(const QelExtractableI* x) {
  if (x == nullptr) return true;
  QelInt id = x->getId();
  return id == -1 || x->getEnv()->getExtractableTable()[id] == QelEnvI::RemovalMark;
}

}  // namespace

void QelExtractableList::release(Node* n, QelEnvI* env) { env->free(n, sizeof(Node)); }

long QelExtractableList::getSize() const {
  long n = 0;
  for (Node* p = _head; p != nullptr; p = p->next) ++n;
  return n;
}

void QelExtractableList::add(const QelExtractableArray& xs) {
  QelArrayI* a = xs.getImpl();
  if (a == nullptr) throw QelEmptyHandleException();
  QelEnvI* envBefore = _env;
  if (_env == nullptr) _env = a->getEnv();
  Node** start = _tail;
  long n = a->getSize();
  try {
    for (long i = 0; i < n; ++i) {
      QelExtractableI* e = QelArrayGet<QelExtractableI*>(a, i);
      if (e != nullptr) add(e);  // the list's environment is set already
    }
  } catch (...) {
    // All or nothing: the nodes appended by this call go again.
    for (Node* node = *start; node != nullptr;) {
      Node* next = node->next;
      release(node, node->extractable->getEnv());
      node = next;
    }
    _env->recordLocation(start);
    _env->recordLocation(&_tail);
    *start = nullptr;
    _tail = start;
    _env = envBefore;
    throw;
  }
}

void QelExtractableList::remove(const QelExtractableArray& xs, QelExtractableArray removed) {
  QelArrayI* a = xs.getImpl();
  if (a == nullptr) throw QelEmptyHandleException();
  if (_head == nullptr) return;
  QelEnvI* env = a->getEnv();
  // Marking pass: the marked members are kept on a private stack (nodes of
  // the same shape as the list's) so that they can be unmarked afterwards.
  Node* stack = nullptr;
  long n = a->getSize();
  try {
    for (long i = 0; i < n; ++i) {
      QelExtractableI* e = QelArrayGet<QelExtractableI*>(a, i);
      if (e == nullptr || e->getId() == -1) continue;
      QelEnvI* eenv = e->getEnv();
      if (eenv->getExtractableTable()[e->getId()] == QelEnvI::RemovalMark) continue;
      Node* s = static_cast<Node*>(env->alloc(sizeof(Node)));
      s->extractable = e;
      s->next = stack;
      stack = s;
      eenv->mark(e);
    }
  } catch (...) {
    unmarkAll(stack, env);
    throw;
  }
  if (removed.getImpl() == nullptr) {
    try {
      sweepMarked();
    } catch (...) {
      unmarkAll(stack, env);
      throw;
    }
    unmarkAll(stack, env);
    return;
  }
  // Collecting pass: the link that holds each node to go (the head link or
  // the previous node's next field) is appended to `removed`, in list order,
  // before any node goes: a refused allocation then leaves the list as it
  // was. This is the one walk over the list.
  QelEnvI* first = _head->extractable->getEnv();
  QelArrayI* out = removed.getImpl();
  long from = out->getSize();
  try {
    for (Node** l = &_head; *l != nullptr; l = &(*l)->next)
      if (Marked((*l)->extractable)) out->addRaw(reinterpret_cast<std::uintptr_t>(l));
  } catch (...) {
    out->setSize(from);
    unmarkAll(stack, env);
    throw;
  }
  // Unlinking, straight from the links collected; each entry of `removed`
  // gets its member in place of the link. A link inside a node that went
  // just before is that node's own link.
  long to = out->getSize();
  Node* gone = nullptr;
  Node** goneLink = nullptr;
  for (long i = from; i < to; ++i) {
    Node** link = reinterpret_cast<Node**>(out->rawAt(i));
    if (gone != nullptr && link == &gone->next) link = goneLink;
    Node* node = *link;
    QelExtractableI* m = node->extractable;
    out->rawAt(i) = reinterpret_cast<std::uintptr_t>(m);
    // The link is reported, rewritten, then the node is released; a release
    // the node's environment would refuse (thread, allocation off) is found
    // before the rewrite and leaves this node and those after it in place.
    try {
      m->getEnv()->checkThread();
    } catch (...) {
      // The entries still holding links get their members (every node
      // after this one is still in place).
      for (long j = i + 1; j < to; ++j)
        out->rawAt(j) = reinterpret_cast<std::uintptr_t>(
            (*reinterpret_cast<Node**>(out->rawAt(j)))->extractable);
      first->recordLocation(&_tail);
      _tail = link;
      while ((*_tail) != nullptr) _tail = &(*_tail)->next;
      unmarkAll(stack, env);
      throw;
    }
    first->recordLocation(link);
    *link = node->next;
    release(node, m->getEnv());
    gone = node;
    goneLink = link;
  }
  first->recordLocation(&_tail);
  if (goneLink != nullptr && *goneLink == nullptr) _tail = goneLink;
  unmarkAll(stack, env);
}

void QelExtractableList::unmarkAll(Node* stack, QelEnvI* env) {
  // Unmarking pass, in the reverse of the marking order.
  while (stack != nullptr) {
    Node* next = stack->next;
    stack->extractable->getEnv()->unmark(stack->extractable);
    env->free(stack, sizeof(Node));
    stack = next;
  }
}

QelExtractableList::Node** QelExtractableList::findLink(const QelExtractableI* x) {
  for (Node** link = &_head; *link != nullptr; link = &(*link)->next)
    if ((*link)->extractable == x) return link;
  return nullptr;
}

void QelExtractableList::removeAt(Node** link) {
  QelEnvI* first = _head->extractable->getEnv();
  Node* node = *link;
  Node* next = node->next;
  // The links are reported and rewritten before the node is released; a
  // release the node's environment would refuse is found first and leaves
  // the list as it was.
  QelEnvI* owner = node->extractable->getEnv();
  owner->checkThread();
  if (next == nullptr) {
    // The last node went: the tail moves back to the link that held it
    // (the predecessor's next field, or the head link).
    first->recordLocation(&_tail);
    _tail = link;
  }
  first->recordLocation(link);
  *link = next;
  release(node, owner);
}

QelBool QelExtractableList::removeFirst(QelExtractableI* x) {
  Node** link = findLink(x);
  if (link == nullptr) return false;
  removeAt(link);
  return true;
}

void QelExtractableList::removeMarked() { sweepMarked(); }

void QelExtractableList::sweepMarked() {
  if (_head == nullptr) return;
  QelEnvI* first = _head->extractable->getEnv();
  Node** link = &_head;
  while (*link != nullptr) {
    Node* node = *link;
    if (!Marked(node->extractable)) {
      link = &node->next;
      continue;
    }
    // The link is reported, rewritten, then the node is released to the
    // environment it was made in (its member's). A release that environment
    // would refuse is found before the rewrite: this node and those after
    // it stay in place, with the tail on the last of them.
    QelEnvI* owner = node->extractable->getEnv();
    try {
      owner->checkThread();
    } catch (...) {
      first->recordLocation(&_tail);
      _tail = link;
      while ((*_tail) != nullptr) _tail = &(*_tail)->next;
      throw;
    }
    first->recordLocation(link);
    *link = node->next;
    release(node, owner);
  }
  first->recordLocation(&_tail);
  _tail = link;
}

void QelExtractableList::clear() {
  if (_head == nullptr) return;
  _env->recordLocation(&_head);
  _env->recordLocation(&_tail);
  // Each node goes back to the environment it was made in: its member's,
  // which for a model over several environments is not always the list's.
  // A refused release leaves the head on the nodes not yet released.
  while (_head != nullptr) {
    Node* next = _head->next;
    release(_head, _head->extractable->getEnv());
    _head = next;
  }
  _head = nullptr;
  _tail = &_head;
}

void QelExtractableList::releaseForeign(const QelEnvI* env) {
  // No link is reported: the list's own memory goes with `env`.
  Node** link = &_head;
  while (*link != nullptr) {
    Node* node = *link;
    QelEnvI* owner = node->extractable->getEnv();
    if (owner == env) {
      link = &node->next;
      continue;
    }
    *link = node->next;
    release(node, owner);
  }
  _tail = link;
}

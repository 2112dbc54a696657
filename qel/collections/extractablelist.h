// QelExtractableList: the singly linked member list of a model.
//
// Nodes (16 bytes: next, member) live in environment memory. The list
// appends whole arrays, and removes all the members found in an array in
// one sweep: it marks them in the environment's extractable table instead
// of searching the list once per member, so removing k members from a list
// of n costs one pass over the array, one over the list and one over the
// marked members. Every link write is first reported to the environment's
// custom allocator object (recordLocation) when one is installed.
//
//   QelExtractableList list;
//   list.add(xs);                      // the non-null elements, in order
//   QelExtractableArray removed(env, 0);
//   list.remove(ys, removed);          // removed lists what went, in order
#ifndef QEL_COLLECTIONS_EXTRACTABLELIST_H
#define QEL_COLLECTIONS_EXTRACTABLELIST_H

#include <qel/collections/extractablearray.h>

/// The member list of a model.
class QEL_API QelExtractableList {
 public:
  /// One node of the list.
  struct Node {
    Node* next;                    ///< the next node, or null
    QelExtractableI* extractable;  ///< the member
  };

  /// An empty list (no environment yet).
  QelExtractableList() = default;
  QelExtractableList(const QelExtractableList&) = delete;
  QelExtractableList& operator=(const QelExtractableList&) = delete;

  /// Appends the non-null elements of `xs` in index order; throws
  /// QelEmptyHandleException for an empty handle. All or nothing: when a
  /// node cannot be made, the nodes already appended go again.
  void add(const QelExtractableArray& xs);
  /// Appends `x` (the list's environment becomes x's if it has none).
  /// Inline: a model's every single add comes here.
  void add(QelExtractableI* x) {
    QelEnvI* env = x->getEnv();
    if (_env == nullptr) _env = env;
    env->recordLocation(_tail);
    env->recordLocation(&_tail);
    Node* n = static_cast<Node*>(env->alloc(sizeof(Node)));
    n->next = nullptr;
    n->extractable = x;
    *_tail = n;
    _tail = &n->next;
  }
  /// Removes every node whose member is an element of `xs`, appending each
  /// removed member to `removed` (when it is a non-empty handle), in list
  /// order. Throws QelEmptyHandleException for an empty `xs`. A refused
  /// allocation (marking, or room in `removed`) leaves the list as it was.
  void remove(const QelExtractableArray& xs, QelExtractableArray removed);
  /// Removes the first node holding `x`; false when there is none.
  QelBool removeFirst(QelExtractableI* x);
  /// The link (the head link or a node's next field) that holds the first
  /// node of `x`, or null when no node holds it. One walk; nothing changes.
  Node** findLink(const QelExtractableI* x);
  /// Removes the node that `link` (from findLink, with no change to the list
  /// since) holds.
  void removeAt(Node** link);
  /// Removes every node whose member is ended or carries the removal mark,
  /// in one sweep.
  void removeMarked();
  /// Releases every node (members are not touched).
  void clear();
  /// Unlinks and releases, untold, every node whose member belongs to an
  /// environment other than `env` (whose memory is about to go).
  void releaseForeign(const QelEnvI* env);

  /// The environment, or null before the first append.
  QelEnvI* getEnv() const { return _env; }
  /// Makes `env` the list's environment (the one its own fields are
  /// reported to), e.g. when the environment of its first member ends.
  void setEnv(QelEnvI* env) { _env = env; }
  /// The first node, or null.
  Node* getHead() const { return _head; }
  /// The link field the next append fills.
  Node** getTailLink() const { return _tail; }
  /// The address of the head link (what the tail designates when empty).
  Node* const* getHeadLink() const { return &_head; }
  /// The address of the tail-link field itself.
  Node** const* getTailField() const { return &_tail; }
  /// Whether the list has no node.
  QelBool isEmpty() const { return _head == nullptr; }
  /// Number of nodes (one walk).
  long getSize() const;

 private:
  void release(Node* n, QelEnvI* env);
  // Unlinks and releases every node whose member is null, ended or marked,
  // in one walk (removeMarked, and remove without a `removed` array).
  void sweepMarked();
  static void unmarkAll(Node* stack, QelEnvI* env);

  QelEnvI* _env = nullptr;
  Node* _head = nullptr;
  Node** _tail = &_head;
};

#endif

// The model: the container users fill and algorithms extract.
//
// A model keeps its members (constraints, objectives, other models) in
// insertion order in an embedded member list; the same object may be added
// more than once, and the model never owns its members. Every change of
// membership is told to the listening algorithms by a notice:
// QelAddOneToModel (one member), QelAddToModel (an array),
// QelRemoveFromModel (the members really removed, in model order).
//
//   QelEnv env;
//   QelModel model(env, "m");
//   model.add(c1);                                  // QelAddOneToModel
//   model.add(QelExtractableArray(env, 2, c2, c3)); // QelAddToModel
//   model.remove(c2);                               // QelRemoveFromModel [c2]
//   for (QelModel::Iterator it(model); it.ok(); ++it) std::cout << *it;
//   std::cout << model;   // "QelModel m = {" ... "}"
//
// Ending a member removes it from every model that holds it, in one sweep
// per model (with the environment's one-by-one flag set, one remove with its
// notice per member instead).
#ifndef QEL_MODEL_MODEL_H
#define QEL_MODEL_MODEL_H

#include <ostream>

#include <qel/change/change.h>
#include <qel/collections/extractablelist.h>

/// The model implementation.
class QEL_API QelModelI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(QelModelI, QelExtractableI)

 public:
  /// An empty model in `env`.
  explicit QelModelI(QelEnvI* env, const char* name = nullptr);
  /// Releases the member nodes (the members are not touched).
  ~QelModelI() override;

  /// Appends `x` and notifies QelAddOneToModel; returns `x`.
  QelExtractableI* add(QelExtractableI* x);
  /// Appends the non-null elements of `xs` and notifies QelAddToModel with
  /// `xs` unchanged; an array without element does nothing.
  void add(const QelExtractableArray& xs);
  /// Removes the first node holding `x` and notifies QelRemoveFromModel
  /// with [x]; nothing when `x` is not a member.
  void remove(QelExtractableI* x);
  /// Removes every node whose member is in `xs`, in one sweep, and notifies
  /// QelRemoveFromModel with the members removed (in model order), if any.
  void remove(const QelExtractableArray& xs);

  /// A copy in `env`: every member cloned once, in order (no name).
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// Drops the members being removed from everything (one sweep, no
  /// notice), or, with the one-by-one flag set, removes every node of `x`,
  /// each with its notice.
  /// With a QelForeignSweep as `data` (a removal in another environment,
  /// or the end of this one), does what its mode says.
  void atRemove(QelExtractableI* x, void* data) override;
  /// The members, in order.
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// "QelModel <name> = {", the members one per line, "}".
  void display(std::ostream& os) const override;
  /// true.
  QelBool isModel() override;

  /// Whether `x` is a member (one walk).
  QelBool holds(const QelExtractableI* x) const;
  /// The member list.
  QelExtractableList& getMembers() { return _members; }
  /// The member list.
  const QelExtractableList& getMembers() const { return _members; }

  /// Walks the members in order.
  class QEL_API Iterator {
   public:
    /// At the first member of `model`.
    explicit Iterator(const QelModelI* model) : _node(model->getMembers().getHead()) {}
    /// Whether a member is under the iterator.
    QelBool ok() const { return _node != nullptr; }
    /// Moves to the next member.
    Iterator& operator++() {
      _node = _node->next;
      return *this;
    }
    /// The current member.
    QelExtractableI* operator*() const { return _node->extractable; }

   private:
    const QelExtractableList::Node* _node;
  };

 private:
  // Records the environments of the elements of `xs` as held.
  void holdMembersOf(const QelExtractableArray& xs);
  // Drops the marked members with one QelRemoveFromModel.
  void dropMarkedMembers();
  // Notifies QelRemoveFromModel with `removed`, unless it is empty.
  void tellRemoved(const QelExtractableArray& removed);

  QelExtractableList _members;
};

/// Handle on a model.
class QEL_API QelModel : public QelHandle<QelModelI, QelExtractable> {
 public:
  using QelHandle<QelModelI, QelExtractable>::QelHandle;
  /// An empty handle.
  QelModel() = default;
  /// A new empty model in `env`.
  explicit QelModel(QelEnv env, const char* name = nullptr);

  /// Adds `x`; returns it.
  QelExtractable add(QelExtractable x) const;
  /// Adds the elements of `xs`; returns `xs`.
  const QelExtractableArray& add(const QelExtractableArray& xs) const;
  /// Removes `x` (its first occurrence).
  void remove(QelExtractable x) const;
  /// Removes every member found in `xs`, in one sweep.
  void remove(QelExtractableArray xs) const;
  /// Expands `x` into the model (QelExtractableI::expandTo); returns `x`.
  QelExtractable expand(QelExtractable x, const char* a = nullptr, const char* b = nullptr) const;

  /// Walks the members of a model in order.
  class QEL_API Iterator {
   public:
    /// At the first member of `model` (throws on an empty handle).
    explicit Iterator(const QelModel& model);
    /// Whether a member is under the iterator.
    QelBool ok() const { return _it.ok(); }
    /// Moves to the next member.
    Iterator& operator++() {
      ++_it;
      return *this;
    }
    /// The current member.
    QelExtractable operator*() const { return QelExtractable(*_it); }

   private:
    QelModelI::Iterator _it;
  };
};

/// One member was added to a model.
class QEL_API QelAddOneToModel : public QelChange {
  QEL_CHANGE_DECL(QelAddOneToModel, QelChange)

 public:
  /// `member` was added to `model`.
  QelAddOneToModel(QelModelI* model, QelExtractableI* member) : _model(model), _member(member) {}
  /// addSubExtractable(extractable, member).
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The model.
  QelExtractableI* getChangedExtractable() const override;
  /// The added member.
  QelExtractableI* getMember() const { return _member; }

 private:
  QelModelI* _model;
  QelExtractableI* _member;
};

/// The shared body of the two array notices of a model.
class QEL_API QelModelArrayNotice : public QelChange {
 public:
  /// Deletes the array when the notice owns it.
  ~QelModelArrayNotice() override;
  /// The model.
  QelExtractableI* getChangedExtractable() const override;
  /// The members concerned.
  QelExtractableArray getMembers() const { return _members; }
  /// Whether the notice owns (and will delete) the array.
  QelBool ownsArray() const { return _owns; }

 protected:
  /// For `model` and `members`; with `owns` the notice deletes the array.
  QelModelArrayNotice(QelModelI* model, QelExtractableArray members, QelBool owns)
      : _model(model), _members(members), _owns(owns) {}
  QelModelI* _model;             ///< the model
  QelExtractableArray _members;  ///< the members concerned
  QelBool _owns;                 ///< whether the array is the notice's
};

/// An array of members was added to a model.
class QEL_API QelAddToModel : public QelModelArrayNotice {
  QEL_RTTI_DECL_CORE(QelAddToModel, QelChange)
  QEL_APPLY_HOOK_DECL(QelAddToModel)

 public:
  /// The elements of `members` were added to `model`.
  QelAddToModel(QelModelI* model, QelExtractableArray members, QelBool owns)
      : QelModelArrayNotice(model, members, owns) {}
  /// Walks the QelChange chain (this notice's type identity skips the
  /// shared body, which is no class of its own).
  QelBool isType(QelTypeInfo info) const override {
    return info == GetTypeInfo() || QelChange::isType(info);
  }
  /// The array form of addSubExtractable(extractable, members).
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
};

/// Members were removed from a model.
class QEL_API QelRemoveFromModel : public QelModelArrayNotice {
  QEL_RTTI_DECL_CORE(QelRemoveFromModel, QelChange)
  QEL_APPLY_HOOK_DECL(QelRemoveFromModel)

 public:
  /// The elements of `members` were removed from `model`.
  QelRemoveFromModel(QelModelI* model, QelExtractableArray members, QelBool owns)
      : QelModelArrayNotice(model, members, owns) {}
  /// Walks the QelChange chain.
  QelBool isType(QelTypeInfo info) const override {
    return info == GetTypeInfo() || QelChange::isType(info);
  }
  /// The array form of removeSubExtractable(extractable, members).
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
};

#endif

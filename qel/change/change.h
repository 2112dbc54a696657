// Change notices: how every modification reaches the listening algorithms.
//
// Every modification of a modeling object is described by a small notice,
// an instance of a QelChange subclass, one subclass per kind of
// modification. The modifying operation changes its object first, then
// builds the notice as a local object and hands it to the environment,
// which delivers it synchronously to every algorithm that extracted the
// object. An algorithm consumes a notice either through a QelChangeVisitor
// (the notice's visitChange turns it into addSubExtractable /
// removeSubExtractable calls) or through the engine hook of the notice's
// class (applyToCP).
//
// This header holds the base class, the visitor, the extractable-level
// notices and the column-wise addition notices rooted in QelAddExtractable.
// The notices of models, objectives, special ordered sets and all-different
// constraints live beside those classes; qel/change/notices.def lists them
// all.
//
//   class Printer : public QelChangeVisitor {
//     void addSubExtractable(QelExtractableI* owner, QelExtractableI* sub)
//         override { std::cout << "added " << sub->getId() << '\n'; }
//   };
//   Printer printer;
//   QelAlgorithm alg(env);
//   alg.getImpl()->setChangeVisitor(&printer);
//   alg.extract(model);
//   model.add(c);                              // prints "added <id of c>"
#ifndef QEL_CHANGE_CHANGE_H
#define QEL_CHANGE_CHANGE_H

#include <qel/change/hooks.h>
#include <qel/collections/extractablearray.h>
#include <qel/extractable/extractable.h>

/// Base of every change notice.
class QEL_API QelChange : public QelRtti {
  QEL_RTTI_DECL(QelChange, QelRtti)

 public:
  /// A notice.
  QelChange() = default;
  /// Destroys the notice (it owns nothing).
  ~QelChange() override;
  /// Turns the notice into calls on `visitor` about `extractable` (the
  /// object the broadcast concerned, or null).
  virtual void visitChange(QelEnvI* env, QelExtractableI* extractable,
                           QelChangeVisitor* visitor) const = 0;
  /// Hands the notice to its class's engine hook; returns the hook's result.
  virtual QelInt applyToCP(QelAlgorithm algorithm, void* data) const = 0;
  /// Whether the notice concerns an array of objects; false.
  virtual QelBool isApplyingOnArray() const;
  /// The array the notice carries; the base throws QelWrongUsage
  /// "QelChange::getChangedExtractableArray can not be called".
  virtual QelExtractableArray getChangedExtractableArray() const;
  /// The object the notice carries; the base throws QelWrongUsage
  /// "QelChange::getChangedExtractable can not be called".
  virtual QelExtractableI* getChangedExtractable() const;
};

/// The listener an algorithm sets to follow notices structurally.
class QEL_API QelChangeVisitor {
 public:
  /// Destroys the visitor.
  virtual ~QelChangeVisitor();
  /// `sub` was added to `owner`; does nothing by default.
  virtual void addSubExtractable(QelExtractableI* owner, QelExtractableI* sub);
  /// `sub` was removed from `owner`; does nothing by default.
  virtual void removeSubExtractable(QelExtractableI* owner, QelExtractableI* sub);
  /// Calls addSubExtractable(owner, subs[i]) for each i in index order.
  void addSubExtractable(QelExtractableI* owner, QelExtractableArray subs);
  /// Calls removeSubExtractable(owner, subs[i]) for each i in index order.
  void removeSubExtractable(QelExtractableI* owner, QelExtractableArray subs);
};

/// Objects were removed from everything.
class QEL_API QelRemoveFromAllChange : public QelChange {
  QEL_CHANGE_DECL(QelRemoveFromAllChange, QelChange)

 public:
  /// For the removed objects `xs`.
  explicit QelRemoveFromAllChange(QelExtractableArray xs) : _array(xs) {}
  /// Calls no visitor: the registry drops the removed objects.
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// true.
  QelBool isApplyingOnArray() const override;
  /// The removed objects.
  QelExtractableArray getChangedExtractableArray() const override;

 private:
  QelExtractableArray _array;
};

/// An object is being destroyed.
class QEL_API QelDestroyExtractable : public QelChange {
  QEL_CHANGE_DECL(QelDestroyExtractable, QelChange)

 public:
  /// For the destroyed object `x`.
  explicit QelDestroyExtractable(QelExtractableI* x) : _x(x) {}
  /// Nothing.
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override;
  /// The destroyed object.
  QelExtractableI* getChangedExtractable() const override;

 private:
  QelExtractableI* _x;
};

/// An object's name changed.
class QEL_API QelSetNameChange : public QelChange {
  QEL_CHANGE_DECL(QelSetNameChange, QelChange)

 public:
  /// For the renamed object `x`.
  explicit QelSetNameChange(QelExtractableI* x) : _x(x) {}
  /// Nothing.
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override;
  /// The renamed object.
  QelExtractableI* getChangedExtractable() const override;

 private:
  QelExtractableI* _x;
};

/// The objects of an array were named together.
class QEL_API QelSetNameArrayChange : public QelChange {
  QEL_CHANGE_DECL(QelSetNameArrayChange, QelChange)

 public:
  /// For the renamed objects `xs`.
  explicit QelSetNameArrayChange(QelExtractableArray xs) : _array(xs) {}
  /// Nothing.
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override;
  /// true.
  QelBool isApplyingOnArray() const override;
  /// The renamed objects.
  QelExtractableArray getChangedExtractableArray() const override;

 private:
  QelExtractableArray _array;
};

/// Objects are being destroyed together. It answers false to
/// isApplyingOnArray although it carries an array: ask it by type.
class QEL_API QelDestroyExtractableArray : public QelChange {
  QEL_CHANGE_DECL(QelDestroyExtractableArray, QelChange)

 public:
  /// For the destroyed objects `xs`.
  explicit QelDestroyExtractableArray(QelExtractableArray xs) : _array(xs) {}
  /// Nothing.
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override;
  /// The destroyed objects.
  QelExtractableArray getChangedExtractableArray() const override;

 private:
  QelExtractableArray _array;
};

/// One place a new object (a variable) enters: the base of the column-wise
/// addition notices. A chain of them, linked by `next`, lists every place;
/// `install` enters the object into each and broadcasts each notice. These
/// notices live in environment memory: copy them with getCopy, dispose of
/// them with destroy, never with delete.
class QEL_API QelAddExtractable : public QelChange {
  QEL_CHANGE_DECL(QelAddExtractable, QelChange)

 public:
  /// A notice with null `next` and `obj`.
  QelAddExtractable() = default;
  /// Nothing.
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override;
  /// The object being added (null before install / setObj).
  QelExtractableI* getChangedExtractable() const override;
  /// The environment of what().
  virtual QelEnvI* getEnv() const;
  /// A copy in `env` memory with null `next` and `obj`.
  virtual QelAddExtractable* getCopy(QelEnvI* env) const = 0;
  /// Destroys the notice and gives its memory back to `env`.
  virtual void destroy(QelEnvI* env) = 0;
  /// The object receiving the addition, or null.
  virtual QelExtractableI* what() const = 0;
  /// Performs the addition on what().
  virtual void apply() const = 0;
  /// Stores the object being added.
  virtual void setObj(const QelExtractableI* obj) { _obj = obj; }

  /// Enters `obj` into every place of the chain starting here, broadcasting
  /// each notice; consumes the chain (every link is cut). Throws
  /// CannotAddExtractableException for a null `obj`.
  void install(QelExtractableI* obj) const;
  /// The next notice of the chain, or null.
  QelAddExtractable* getNext() const { return _next; }
  /// Links `next` after this notice.
  void setNext(QelAddExtractable* next) { _next = next; }
  /// The object being added (null before install / setObj).
  const QelExtractableI* getObj() const { return _obj; }

  /// Thrown by install(null).
  class QEL_API CannotAddExtractableException : public QelException {
   public:
    /// "Cannot add new QelExtractable to extractor".
    CannotAddExtractableException();
    /// First further pointer field (null).
    const void* getFirst() const { return _first; }
    /// Second further pointer field (null).
    const void* getSecond() const { return _second; }

   private:
    const void* _first = nullptr;
    const void* _second = nullptr;
  };

 protected:
  /// Copies nothing: `next` and `obj` of a copy are null.
  QelAddExtractable(const QelAddExtractable&) : QelChange() {}

 private:
  mutable QelAddExtractable* _next = nullptr;
  const QelExtractableI* _obj = nullptr;
};

/// Base of the notices that add a new numeric variable somewhere.
class QEL_API QelAddNumVar : public QelAddExtractable {
  QEL_RTTI_DECL(QelAddNumVar, QelAddExtractable)

 public:
  /// A notice with null `next` and `obj`.
  QelAddNumVar() = default;

 protected:
  /// Copies nothing of the chain.
  QelAddNumVar(const QelAddNumVar& other) : QelAddExtractable(other) {}
};

/// The copy and destroy operations shared by every column notice N: a copy
/// of N in `env` memory (its own fields copied by N's copy constructor,
/// `next` and `obj` null), and the destruction into `env`.
template <class N>
struct QelColumnNotice {
  /// A copy of `n` in `env` memory.
  static N* Copy(const N& n, QelEnvI* env) { return QelNewObject<N>(env, n); }
  /// Destroys `n` and gives its memory back to `env` (a refused release
  /// throws before anything is destroyed).
  static void Destroy(N* n, QelEnvI* env) {
    env->checkThread();
    n->~N();
    env->free(n, sizeof(N));
  }
};

#endif

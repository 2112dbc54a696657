// The extractable base object and its handle.
//
// QelExtractableI is the implementation base of every modeling object: what
// an algorithm can extract. It ties the object to its environment, carries
// its id (its slot in the environment's extractable table; -1 once ended),
// an optional name, source location, user object and named properties (in an
// extension record made on demand), sends the change notices of its
// modifications, and defines the table of virtual operations that every
// modeling class fills in. Users hold handles: QelExtractable and its typed
// relatives wrap one pointer to the implementation and own nothing.
//
//   QelEnv env;
//   QelModel model(env, "m");
//   QelExtractable x = model;
//   if (x.isModel()) x.asModel().add(...);
//   x.end();                       // removed everywhere, memory given back
#ifndef QEL_EXTRACTABLE_EXTRACTABLE_H
#define QEL_EXTRACTABLE_EXTRACTABLE_H

#include <iosfwd>

#include <qel/kernel/env.h>
#include <qel/kernel/envobject.h>
#include <qel/kernel/exception.h>
#include <qel/kernel/extension.h>

class QelConstraint;
class QelObjective;
class QelModel;
class QelNumExpr;
class QelIntExpr;
class QelNumVar;

/// Implementation base class of every modeling object.
class QEL_API QelExtractableI : public QelRttiEnvObjectI {
  QEL_RTTI_DECL(QelExtractableI, QelRttiEnvObjectI)

 public:
  /// Registers the object in `env` (giving it its id) and, when `name` is
  /// not null, names it without notice. Inline: every object's
  /// construction goes through it.
  QelExtractableI(QelEnvI* env, const char* name = nullptr)
      : QelRttiEnvObjectI(env), _id(-1), _extension(nullptr) {
    _id = env->takeSlot(this);
    if (name != nullptr) nameAtConstruction(name);
  }
  /// An object still registered (deleted directly without a derived
  /// destructor calling removeBeforeTeardown, or whose derived constructor
  /// threw) is first removed from everything with flag 1; then
  /// the decision-expression cache entry goes and the extension record is
  /// released. The memory goes back to the environment through operator
  /// delete.
  ~QelExtractableI() override;
  using QelRttiEnvObjectI::operator delete;
  /// Gives the block of a deleted object back to its environment. On a
  /// thread other than the environment's allocator thread, or with
  /// allocation disabled, throws QelEnvAllocatorThreadMismatch or
  /// QelEnvAllocationDisabled: the object has then been unregistered by its
  /// destructor and its block stays with the environment.
  static void operator delete(void* p, size_t size) noexcept(false);

  // ---- virtual operations, in table order ----------------------------
  /// A copy of this object in `env`; the base throws
  /// QelExtractable::NoCloneMechanismException. Callers use
  /// QelEnvI::getClone, never this directly.
  virtual QelExtractableI* makeClone(QelEnvI* env) const;
  /// Extracts the object into `algorithm` through its class's hook slot.
  virtual void* extractToCP(QelAlgorithm algorithm) const = 0;
  /// Removes the object's extracted form through its class's hook slot.
  virtual void* unextractFromCP(QelAlgorithm algorithm, void* data) const = 0;
  /// Modifies the object's extracted form through its class's hook slot.
  virtual void* modifyCP(QelAlgorithm algorithm, void* data) const = 0;
  /// Called by the environment when `removed` (or a set of objects carrying
  /// the removal mark) is being removed from everything: the base ends this
  /// object when one of its direct sub-extractables is marked (or always,
  /// with the one-by-one flag set).
  virtual void atRemove(QelExtractableI* removed, void* data);
  /// Presents the direct sub-extractables to `v` (beginVisit, visitChildren
  /// per child in member order, endVisit).
  virtual void visitSubExtractables(QelExtractableVisitor* v) = 0;
  /// Whether the object is a use-counted expression; false.
  virtual QelBool isRefCountedExpr() const;
  /// Removes the object from everything and destroys it; nothing when it
  /// has already ended. The object must not be touched afterwards.
  virtual void end();
  /// Expands the object into `model`; the base adds it as a member. The two
  /// strings are kept for derived classes that expand under names.
  virtual void expandTo(QelModelI* model, const char* a, const char* b) const;
  /// Prints the object; the base writes "QelExtractable unknow" and the id.
  virtual void display(std::ostream& os) const;
  /// Told that the object became an algorithm's active one; does nothing.
  virtual void* whenAddedToCP(QelAlgorithm algorithm, void* data) const;
  /// Told that the object stopped being active; does nothing.
  virtual void* whenRemovedFromCP(QelAlgorithm algorithm, void* data) const;
  /// A parameter the object depends on changed; does nothing.
  virtual void changeParameter(const QelParameterExtractableLinkI* link);
  /// A parameter the object depends on ended; does nothing.
  virtual void endParameter(const QelParameterExtractableLinkI* link);
  /// Whether the object itself is of a non-ground type; false.
  virtual QelBool hasNongroundType() const;
  /// True unless a non-ground term is found among the sub-extractables.
  virtual QelBool isGround() const;
  /// Whether the object is or contains a decision variable (cached in the
  /// environment's decision-expression map).
  virtual QelBool isDecisionExpr() const;
  /// false.
  virtual QelBool isAggregate() const;
  /// false.
  virtual QelBool isGenerator();
  /// false.
  virtual QelBool isComprehension();
  /// false.
  virtual QelBool isAnyExpr();
  /// false; numeric expressions answer true.
  virtual QelBool isNumExpr();
  /// false; variables answer true.
  virtual QelBool isNumVar();
  /// false.
  virtual QelBool isDExpr();
  /// false; constraints answer true.
  virtual QelBool isConstraint();
  /// false; models answer true.
  virtual QelBool isModel();
  /// Resets the extraction use mark; does nothing.
  virtual void resetExprUsed();
  /// The extraction use mark; -1.
  virtual QelInt getExprUsed() const;

  // ---- identity, name, location, user object --------------------------
  /// The object's id in its environment; -1 once ended.
  QelInt getId() const { return _id; }
  /// The name, or null.
  const char* getName() const { return _extension != nullptr ? _extension->getName() : nullptr; }
  /// The extension record, or null when nothing was stored yet.
  QelExtension* getExtension() const { return _extension; }
  /// Stores a copy of `name` (null clears it); no notice.
  void setNameNoNotif(const char* name);
  /// Stores a copy of `name` and notifies QelSetNameChange; a null name on
  /// an unnamed object does nothing at all.
  void setName(const char* name);
  /// Stores the source location (always makes the extension); no notice.
  void setLocation(const char* file, int line);
  /// The source file, or null.
  const char* getFile() const;
  /// The source line, or 0.
  int getLine() const;
  /// Stores the user object (null on an object without extension makes
  /// none); no notice. The object is the user's.
  void setObject(void* object);
  /// The user object, or null.
  void* getObject() const;
  /// Passes `change` about this object to the environment's broadcast
  /// (inline: with nothing listening, it costs one test).
  void notify(const QelChange& change) const { _env->change(this, change); }
  /// Takes the object out of every model and container; it stays alive.
  void removeFromAll();

  // ---- named properties ------------------------------------------------
  /// Attaches `set` (the extension owns it from now on; null detaches and
  /// ends the present set).
  void setProperties(QelNamedPropertySetI* set);
  /// Removes every property.
  void removeAllProperties() { setProperties(nullptr); }
  /// Adds `p` (the set owns it); a `p` already in the set changes nothing.
  void addProperty(QelNamedPropertyI* p);
  /// Adds a copy of `p` (the caller keeps `p`).
  void addClonedProperty(QelNamedPropertyI* p);
  /// Adds copies of every property of `other` (null, or the object's own
  /// set, does nothing).
  void addProperties(QelNamedPropertySetI* other);
  /// The property called `name`; throws QelNamedPropertySet::NotPresent.
  QelNamedPropertyI* getProperty(const char* name) const;
  /// Whether a property called `name` exists; never throws.
  QelBool hasProperty(const char* name) const;
  /// Removes the property called `name`; throws NotPresent without a set.
  QelBool removeProperty(const char* name);
  /// Removes `p`; throws NotPresent without a set.
  QelBool removeProperty(QelNamedPropertyI* p);
  /// The value of the string property `name`.
  const char* getStringProperty(const char* name) const;
  /// The value of the untyped property `name`.
  void* getAnyProperty(const char* name) const;
  /// The value of the numeric property `name`.
  double getNumProperty(const char* name) const;
  /// The value of the integer property `name`.
  QelInt getIntProperty(const char* name) const;
  /// Sets (or adds) the string property `name` (the value is copied).
  void setStringProperty(const char* name, const char* value);
  /// Sets (or adds) the untyped property `name`.
  void setAnyProperty(const char* name, void* value);
  /// Sets (or adds) the numeric property `name`.
  void setNumProperty(const char* name, double value);
  /// Sets (or adds) the integer property `name`.
  void setIntProperty(const char* name, QelInt value);
  /// The property set, or null.
  QelNamedPropertySetI* getProperties() const;

 protected:
  /// Prints the name, or `prefix` and the id when the object is unnamed.
  void printNameOrId(std::ostream& os, const char* prefix) const;
  /// When the object is still registered (deleted directly), removes it
  /// from everything now, while it is whole. A derived destructor that
  /// gives anything back (uses of expressions, nodes, arrays) calls it
  /// first; a listener failure is kept and reported by the base destructor
  /// once the object is released. On a thread the environment refuses it
  /// does nothing (the base destructor unregisters the object). Inline:
  /// an object ended the usual way only tests its id.
  void removeBeforeTeardown() noexcept {
    if (_id >= 0) removeWhileWhole();
  }

 private:
  friend class QelEnvI;
  // setNames makes every name record it needs before it renames anything.
  friend class QelExtractableArray;
  QelExtension* extension() {
    return QelExtension::getOrMake(_env->getGeneralAllocator(), &_extension);
  }
  /// Ends the extension record, if any, and gives it back.
  void releaseExtension();
  /// The removal of removeBeforeTeardown, for an object still registered.
  void removeWhileWhole() noexcept;
  /// Names the object being constructed without notice; when that fails,
  /// gives its record and its slot back before the failure goes on.
  void nameAtConstruction(const char* name);

  QelInt _id;
  QelExtension* _extension;
};

/// Handle on any modeling object.
class QEL_API QelExtractable {
 public:
  /// An empty handle.
  QelExtractable() = default;
  /// A handle on `impl` (null: empty).
  QelExtractable(QelExtractableI* impl) : _impl(impl) {}
  /// The implementation, or null.
  QelExtractableI* getImpl() const { return _impl; }
  /// The object's environment (throws on an empty handle).
  QelEnv getEnv() const;
  /// The object's id (throws on an empty handle).
  QelInt getId() const;
  /// The name or null (throws on an empty handle).
  const char* getName() const;
  /// Names the object with notice (throws on an empty handle).
  void setName(const char* name) const;
  /// Stores the source location (throws on an empty handle).
  void setLocation(const char* file, int line) const;
  /// Stores the user object (throws on an empty handle).
  void setObject(void* object) const;
  /// The user object (throws on an empty handle).
  void* getObject() const;
  /// Ends the object (throws on an empty handle).
  void end() const;
  /// Takes the object out of every container (throws on an empty handle).
  void removeFromAll() const;

  /// Whether the object is a constraint.
  QelBool isConstraint() const;
  /// The object as a constraint handle, or an empty one.
  QelConstraint asConstraint() const;
  /// Whether the object is an objective.
  QelBool isObjective() const;
  /// The object as an objective handle, or an empty one.
  QelObjective asObjective() const;
  /// Whether the object is a model.
  QelBool isModel() const;
  /// The object as a model handle, or an empty one.
  QelModel asModel() const;
  /// Whether the object is a numeric expression.
  QelBool isNumExpr() const;
  /// The object as a numeric expression handle, or an empty one.
  QelNumExpr asNumExpr() const;
  /// Whether the object is an integer expression.
  QelBool isIntExpr() const;
  /// The object as an integer expression handle, or an empty one.
  QelIntExpr asIntExpr() const;
  /// Whether the object is a variable.
  QelBool isVariable() const;
  /// The object as a variable handle, or an empty one.
  QelNumVar asVariable() const;

  /// The same object.
  friend bool operator==(const QelExtractable& a, const QelExtractable& b) {
    return a._impl == b._impl;
  }
  /// Different objects.
  friend bool operator!=(const QelExtractable& a, const QelExtractable& b) {
    return a._impl != b._impl;
  }

  /// Thrown by makeClone of classes that cannot be copied.
  class QEL_API NoCloneMechanismException : public QelException {
   public:
    /// For the object `x` (kept).
    explicit NoCloneMechanismException(const QelExtractableI* x);
    /// Writes "Extractable with id <id> do not have clone mechanism".
    void print(std::ostream& os) const override;
    /// The object that could not be cloned.
    const QelExtractableI* getExtractable() const { return _x; }

   private:
    const QelExtractableI* _x;
    QelInt _id;
  };

 protected:
  /// Throws QelEmptyHandleException "Using empty Handle" when empty.
  void check() const;
  /// The implementation pointer.
  QelExtractableI* _impl = nullptr;
};

/// Prints an object with its display (nothing for an empty handle).
QEL_API std::ostream& operator<<(std::ostream& os, const QelExtractable& x);

/// Typed handle helper: a handle of kind `Base` whose implementation is an
/// `Impl`. Every typed handle of the library derives from it.
template <class Impl, class Base>
class QelHandle : public Base {
 public:
  /// An empty handle.
  QelHandle() = default;
  /// A handle on `impl` (null: empty).
  QelHandle(Impl* impl) : Base(impl) {}
  /// The implementation, or null.
  Impl* getImpl() const { return static_cast<Impl*>(this->_impl); }
  /// Access to the implementation.
  Impl* operator->() const { return getImpl(); }
};

#endif

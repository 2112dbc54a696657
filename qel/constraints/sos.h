// Special ordered sets of type 1 and type 2, and their change notices.
//
// A special ordered set is a constraint over an ordered list of numeric
// variables, each with an optional weight that fixes its place in the
// order. The library does not enforce the set (a set has no evaluation of
// its own): it keeps the variables (`_varArray`) and the weights
// (`_valArray`, parallel by index and allowed to be shorter), keeps them in
// step when variables are removed, tells the listening algorithms about
// every change, prints and clones itself and hands itself to an engine
// through its hook slots.
//
// Type 1 (QelSOS1I, handle QelSOS1) and type 2 (QelSOS2I, handle QelSOS2)
// behave alike and share one body, QelSOSSetI<Traits>; what differs (the
// word printed first, the notice classes sent) comes from the traits. The
// notices are shared the same way: QelSOS1RemoveVar / QelSOS2RemoveVar
// (a variable was removed) and QelAddVarToSOS1 / QelAddVarToSOS2 (the
// column-wise addition of a new variable with a weight). The one deliberate
// difference between the two addition notices: type 1 answers the set
// through its own virtual `getChangedExtractabl` (spelt so) and keeps
// `getChangedExtractable` answering the added variable, while type 2
// overrides `getChangedExtractable` to answer the set.
//
//   QelEnv env;
//   QelSOS1 s(env, "s");
//   QelNumVar x(env, 0, 1, "x"), y(env, 0, 1, "y");
//   s->addVar(x); s->addVal(1);
//   s->addVar(y); s->addVal(2);
//   std::cout << s;        // QelSOS1I (s) / _varArray [x, y] / _valArray [1, 2]
//   s->removeVar(x);       // two QelSOS1RemoveVar notices: one per element
//
//   // Column-wise: a new variable z joins the set with weight 5.
//   QelNumVar z(env, 0, 1, "z");
//   auto* add = QelNewObject<QelAddVarToSOS1>(env.getImpl(), s.getImpl(), 5.0);
//   add->install(z.getImpl());    // appends 5 and z, broadcasts the notice
//   add->destroy();               // the notice goes back to env memory
//
// The set owns both of its arrays, also those handed to a constructor: its
// destructor ends them.
#ifndef QEL_CONSTRAINTS_SOS_H
#define QEL_CONSTRAINTS_SOS_H

#include <iosfwd>

#include <qel/change/change.h>
#include <qel/change/hooks.h>
#include <qel/kernel/array.h>
#include <qel/kernel/constraint.h>
#include <qel/kernel/expr.h>

class QelSOS1I;
class QelSOS2I;
class QelSOS1;
class QelSOS2;
class QelSOS1RemoveVar;
class QelSOS2RemoveVar;
class QelAddVarToSOS1;
class QelAddVarToSOS2;

/// What the shared set body needs to know about type 1.
struct QEL_API QelSOS1Traits {
  /// The set implementation class.
  using SetI = QelSOS1I;
  /// The set handle class.
  using Handle = QelSOS1;
  /// The notice sent for each element scanned by removeVar.
  using RemoveNotice = QelSOS1RemoveVar;
  /// The column-wise addition notice.
  using AddNotice = QelAddVarToSOS1;
  /// The first word of the set's display.
  static constexpr const char* DisplayName = "QelSOS1I";
};

/// What the shared set body needs to know about type 2.
struct QEL_API QelSOS2Traits {
  /// The set implementation class.
  using SetI = QelSOS2I;
  /// The set handle class.
  using Handle = QelSOS2;
  /// The notice sent for each element scanned by removeVar.
  using RemoveNotice = QelSOS2RemoveVar;
  /// The column-wise addition notice.
  using AddNotice = QelAddVarToSOS2;
  /// The first word of the set's display.
  static constexpr const char* DisplayName = "QelSOS2I";
};

// ===========================================================================
// The sets
// ===========================================================================

/// The body shared by the special ordered sets of both types. It is no
/// class of its own for the type identity: QelSOS1I and QelSOS2I name
/// QelConstraintI as their base.
template <class Traits>
class QEL_API QelSOSSetI : public QelConstraintI {
 public:
  /// The concrete set class.
  using SetI = typename Traits::SetI;

  /// An empty set: empty variable and weight arrays made in `env`.
  QelSOSSetI(QelEnvI* env, const char* name = nullptr);
  /// Adopts the array of `vars` (no copy); the weights start empty.
  QelSOSSetI(QelEnvI* env, QelNumVarArray vars, const char* name = nullptr);
  /// Adopts both arrays as they are; their sizes are not compared.
  QelSOSSetI(QelEnvI* env, QelNumVarArray vars, QelNumArray vals, const char* name = nullptr);
  /// Ends both arrays, then the constraint.
  ~QelSOSSetI() override;

  /// Appends `var` to the variables; no notice.
  void addVar(QelNumVar var);
  /// Appends the weight `v`; no notice.
  void addVal(double v);
  /// The largest weight; minus infinity without weights (NaN never wins).
  double getMaxVal() const;
  /// Removes every occurrence of `var` (and the weight at its index when
  /// there is one), sending one remove notice per element scanned.
  void removeVar(QelNumVar var);

  /// The variables.
  QelNumVarArray getVarArray() const { return _varArray; }
  /// The weights.
  QelNumArray getValArray() const { return _valArray; }

  /// A copy in `env`: the variables' clones, an independent copy of the
  /// weights, no name.
  QelExtractableI* makeClone(QelEnvI* env) const override;
  /// One-by-one flag set: removeVar(sub) with its notices; otherwise the
  /// marked variables leave in one sweep, silently, weights untouched.
  void atRemove(QelExtractableI* sub, void* data) override;
  /// The variable array (the weights are not visited).
  void visitSubExtractables(QelExtractableVisitor* v) override;
  /// Three lines: the type word with the name or id, then both arrays.
  void display(std::ostream& out) const override;

 private:
  SetI* self() { return static_cast<SetI*>(this); }

  QelNumVarArray _varArray;
  QelNumArray _valArray;
};

extern template class QelSOSSetI<QelSOS1Traits>;
extern template class QelSOSSetI<QelSOS2Traits>;

/// A special ordered set of type 1.
class QEL_API QelSOS1I : public QelSOSSetI<QelSOS1Traits> {
  QEL_EXTRACTABLE_DECL(QelSOS1I, QelConstraintI)

 public:
  /// The constructors of the shared body: empty, over variables (adopted),
  /// over variables and weights (both adopted).
  using QelSOSSetI<QelSOS1Traits>::QelSOSSetI;
};

/// A special ordered set of type 2.
class QEL_API QelSOS2I : public QelSOSSetI<QelSOS2Traits> {
  QEL_EXTRACTABLE_DECL(QelSOS2I, QelConstraintI)

 public:
  /// The constructors of the shared body: empty, over variables (adopted),
  /// over variables and weights (both adopted).
  using QelSOSSetI<QelSOS2Traits>::QelSOSSetI;
};

// ===========================================================================
// Handles
// ===========================================================================

/// The handle body shared by both types.
template <class Traits>
class QEL_API QelSOSHandle : public QelHandle<typename Traits::SetI, QelConstraint> {
 public:
  /// An empty handle.
  QelSOSHandle() = default;
  /// A handle on `impl`.
  QelSOSHandle(typename Traits::SetI* impl)
      : QelHandle<typename Traits::SetI, QelConstraint>(impl) {}
  /// A new empty set in `env`'s memory.
  explicit QelSOSHandle(QelEnv env, const char* name = nullptr);
};

extern template class QelSOSHandle<QelSOS1Traits>;
extern template class QelSOSHandle<QelSOS2Traits>;

/// Handle on a special ordered set of type 1.
class QEL_API QelSOS1 : public QelSOSHandle<QelSOS1Traits> {
 public:
  using QelSOSHandle<QelSOS1Traits>::QelSOSHandle;
  /// An empty handle.
  QelSOS1() = default;
};

/// Handle on a special ordered set of type 2.
class QEL_API QelSOS2 : public QelSOSHandle<QelSOS2Traits> {
 public:
  using QelSOSHandle<QelSOS2Traits>::QelSOSHandle;
  /// An empty handle.
  QelSOS2() = default;
};

// ===========================================================================
// Notices
// ===========================================================================

/// The body shared by the remove notices of both types: one variable was
/// removed from a set. Built on the stack by removeVar, never copied.
template <class Traits>
class QEL_API QelSOSRemoveVarNotice : public QelChange {
 public:
  /// The concrete set class.
  using SetI = typename Traits::SetI;

  /// `var` was removed from `set`.
  QelSOSRemoveVarNotice(QelNumVar var, SetI* set) : _var(var), _set(set) {}
  /// removeSubExtractable(set, variable).
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The set.
  QelExtractableI* getChangedExtractable() const override;
  /// The removed variable.
  QelNumVar getVar() const { return _var; }
  /// The set.
  SetI* getSet() const { return _set; }

 private:
  QelNumVar _var;
  SetI* _set;
};

extern template class QelSOSRemoveVarNotice<QelSOS1Traits>;
extern template class QelSOSRemoveVarNotice<QelSOS2Traits>;

/// A variable was removed from a set of type 1.
class QEL_API QelSOS1RemoveVar : public QelSOSRemoveVarNotice<QelSOS1Traits> {
  QEL_CHANGE_DECL(QelSOS1RemoveVar, QelChange)

 public:
  /// `var` was removed from `set`.
  QelSOS1RemoveVar(QelNumVar var, QelSOS1I* set) : QelSOSRemoveVarNotice(var, set) {}
};

/// A variable was removed from a set of type 2.
class QEL_API QelSOS2RemoveVar : public QelSOSRemoveVarNotice<QelSOS2Traits> {
  QEL_CHANGE_DECL(QelSOS2RemoveVar, QelChange)

 public:
  /// `var` was removed from `set`.
  QelSOS2RemoveVar(QelNumVar var, QelSOS2I* set) : QelSOSRemoveVarNotice(var, set) {}
};

/// The body shared by the column-wise addition notices of both types: the
/// variable that install() receives joins the set with the weight. A weight
/// not greater than 0.0 lets the set choose (its largest weight plus one).
/// These notices live in environment memory: make them with QelNewObject,
/// dispose of them with destroy.
template <class Traits>
class QEL_API QelAddVarToSOSNotice : public QelAddNumVar {
 public:
  /// The concrete set class.
  using SetI = typename Traits::SetI;
  /// The concrete notice class.
  using AddNotice = typename Traits::AddNotice;

  /// A variable (given later by install or setObj) is to join `set` with
  /// `weight`.
  QelAddVarToSOSNotice(SetI* set, double weight) : _set(set), _weight(weight) {}
  /// addSubExtractable(set, variable).
  void visitChange(QelEnvI* env, QelExtractableI* extractable,
                   QelChangeVisitor* visitor) const override;
  /// The set's environment.
  QelEnvI* getEnv() const override;
  /// A copy in `env` memory carrying the set and the weight only.
  QelAddExtractable* getCopy(QelEnvI* env) const override;
  /// Destroys the notice and gives its memory back to `env`.
  void destroy(QelEnvI* env) override;
  /// The set.
  QelExtractableI* what() const override;
  /// Appends the weight (given or chosen) and the variable to the set;
  /// both or neither (refused memory).
  void apply() const override;
  /// Destroys the notice into the set's environment.
  void destroy();
  /// The set.
  SetI* getSet() const { return _set; }
  /// The weight asked for.
  double getWeight() const { return _weight; }

 protected:
  /// Copies the set and the weight; the chain fields stay null.
  QelAddVarToSOSNotice(const QelAddVarToSOSNotice& other)
      : QelAddNumVar(other), _set(other._set), _weight(other._weight) {}

 private:
  SetI* _set;
  double _weight;
};

extern template class QelAddVarToSOSNotice<QelSOS1Traits>;
extern template class QelAddVarToSOSNotice<QelSOS2Traits>;

/// A new variable joins a set of type 1. getChangedExtractable (inherited)
/// answers the added variable; the set is answered by getChangedExtractabl.
class QEL_API QelAddVarToSOS1 : public QelAddVarToSOSNotice<QelSOS1Traits> {
  QEL_CHANGE_DECL(QelAddVarToSOS1, QelAddNumVar)

 public:
  /// A variable is to join `set` with `weight`.
  QelAddVarToSOS1(QelSOS1I* set, double weight) : QelAddVarToSOSNotice(set, weight) {}
  /// The set (this slot bears its own name and overrides nothing).
  virtual QelExtractableI* getChangedExtractabl() const;
};

/// A new variable joins a set of type 2. getChangedExtractable answers the
/// set.
class QEL_API QelAddVarToSOS2 : public QelAddVarToSOSNotice<QelSOS2Traits> {
  QEL_CHANGE_DECL(QelAddVarToSOS2, QelAddNumVar)

 public:
  /// A variable is to join `set` with `weight`.
  QelAddVarToSOS2(QelSOS2I* set, double weight) : QelAddVarToSOSNotice(set, weight) {}
  /// The set.
  QelExtractableI* getChangedExtractable() const override;
};

#endif

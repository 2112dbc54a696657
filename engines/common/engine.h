// QelEngineI: what every solving engine shares.
//
// An engine is a QelAlgorithmI subclass. It extracts models through the
// hook slots of the modeling classes and follows their later changes
// through the hook slots of the notice classes; it then solves and hands the
// solution back as the algorithm's held values (QelAlgorithmI::setValue), so
// that QelConstraintI::eval and QelAlgorithm::getValue read the engine's
// solution.
//
// The hook slots
// --------------
// Hook slots are process-global: one function pointer per class and
// operation (qel/change/hooks.h). Two engines cannot each store their own
// function in QelDiffI::_extractCP. So no engine ever fills a slot with its
// own code. InstallHooks() fills every slot once, for the whole process, with
// a *dispatching hook*:
//
//   void* Extract<QelDiffI>(QelAlgorithm alg, const QelDiffI* d) {
//     if (QelEngineI* e = QelDynamicCast<QelEngineI>(alg.getImpl()))
//       return e->extractObject(d);            // the engine's virtual handler
//     if (previous) return previous(alg, d);   // what the slot held before
//     QelThrowExtractFailure();                // what an empty slot does
//   }
//
// The QelAlgorithm argument tells which engine is calling, and the engine's
// own virtual handler (one overload per class: extractObject, modifyObject,
// unextractObject; applyNotice per notice class; objectiveActivated and
// objectiveDeactivated for QelObjectiveI's _addToCP / _removeFromCP) does
// the work. Any number of engines of any kinds live side by side in one
// process. An algorithm that is no engine reaches whatever the slot held
// before the engines installed theirs, or the library's empty-slot failure.
// The classes are listed once in engines/common/extractables.def, the
// notices in qel/change/notices.def; installation is idempotent and is done
// by the first engine constructed (InstallHooks may also be called early).
//
// Following changes
// -----------------
// The base keeps the *image* of what was extracted: the roots given to
// extract(), the models reached (with the children each contributed) and
// the leaf members (constraints, objectives, variables) with their
// multiplicity, and the active objective. Notices update the image and call
// the engine's protected operations:
//
//   addToForm(m)        extract one new member into the engine's form
//   removeFromForm(m)   take one member out of it (or markDirty)
//   refreshInForm(m)    re-extract one member whose content changed
//   objectiveChanged    the active objective changed (default: refresh)
//   forget(x)           x leaves everything (or is about to be destroyed):
//                       drop every reference to it
//   syncVariables()     compare variable bounds and types before a solve
//
// What an engine cannot update in place it marks: markStale(member) has the
// member re-extracted before the next solve, markDirty(reason) has the whole
// form rebuilt from the roots. Nothing is dropped on the floor: every notice
// class of notices.def has a handler; a notice reaching an engine without a
// hook (a class added to the library later), and any failure while
// following a notice, marks the form dirty. Changes the library makes without
// a notice (QelNumVarI::setLB, QelAllDiffI::addExpr, QelSOS1I::addVar, ...)
// are caught before each solve: every member's content is hashed at
// extraction and compared again (a differing member is re-extracted), and the
// engines compare variable bounds and types. An application can also say so
// itself through the modify hook: x->modifyCP(engine, nullptr) has x
// re-extracted before the next solve. A notice handler never throws
// into the modifying call: an object the engine refuses, added after
// extraction, leaves the form dirty and solve() throws the refusal.
//
// Errors
// ------
// An object an engine cannot take gives a QelEngineError whose message names
// the engine, the object (its name, or its id) and its class
// (getRttiTypeName), and says why, e.g.
//   Gecode engine cannot extract "price" (QelNumVarI): float variables are
//   not supported; the engine takes integer and Boolean variables
//
//   QelGecode cp(env);          // engines/gecode/gecode.h
//   cp.extract(model);
//   if (cp.solve() == QelEngineStatus::Optimal)
//     std::cout << cp.getObjValue() << " " << cp.getValue(x) << "\n";
//   model.add(QelDiff(env, x, 3.0));   // followed; posted incrementally
//   cp.solve();
//   cp.end();                          // before env.end()
#ifndef QEL_ENGINES_COMMON_ENGINE_H
#define QEL_ENGINES_COMMON_ENGINE_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <unordered_map>
#include <vector>

#include <qel/change/notices.h>
#include <qel/qel.h>

/// The outcome of a solve.
enum class QelEngineStatus {
  Unknown,     ///< not solved, or stopped by a limit without a solution
  Optimal,     ///< a solution proven optimal (any solution, without objective)
  Feasible,    ///< a solution, stopped by a limit before the proof
  Infeasible,  ///< proven to have no solution
  Unbounded    ///< the objective is unbounded
};

/// The status's name ("Optimal", ...).
const char* QelEngineStatusName(QelEngineStatus status);
/// Writes the status's name.
std::ostream& operator<<(std::ostream& os, QelEngineStatus status);

/// An engine refused an object or could not follow a model.
class QelEngineError : public QelException {
 public:
  /// With `message`, about `x` (may be null).
  explicit QelEngineError(const std::string& message, const QelExtractableI* x = nullptr)
      : QelException(message.c_str(), 0), _x(x) {}
  /// The object concerned, or null.
  const QelExtractableI* getExtractable() const { return _x; }

 private:
  const QelExtractableI* _x;
};

/// `"name" (Class)` or `#id (Class)` for an object, as the errors show it.
std::string QelDescribe(const QelExtractableI* x);

/// What an engine did, for tests and tuning.
struct QelEngineStats {
  long notices = 0;             ///< notices received
  long memberExtractions = 0;   ///< members put into the form one by one
  long memberRemovals = 0;      ///< members taken out of the form one by one
  long memberRefreshes = 0;     ///< stale members re-extracted before a solve
  long incrementalChanges = 0;  ///< changes applied in place (coefficients, bounds, ...)
  long rebuilds = 0;            ///< complete re-extractions of a dirty form
  long silentChanges = 0;       ///< changes found by the checks before a solve
  long namesOnly = 0;           ///< renames: names never enter the form
  long solves = 0;              ///< calls of solve()
};

/// Base of the engines.
class QelEngineI : public QelAlgorithmI {
  QEL_RTTI_DECL(QelEngineI, QelAlgorithmI)

 public:
  /// An engine attached to `env`, following notices through the hooks;
  /// `engineName` ("Gecode", "CBC") prefixes its error messages.
  QelEngineI(QelEnvI* env, const char* engineName);
  /// Detaches the engine.
  ~QelEngineI() override;

  /// Fills every hook slot with the dispatching hooks (once per process;
  /// later calls re-install a dispatcher over a slot someone overwrote).
  static void InstallHooks();

  // ---- extraction -------------------------------------------------------
  /// Extracts `x` (a model, or any member) through the hook slots and keeps
  /// it as a root. An object the engine refuses throws QelEngineError; the
  /// root is then not kept.
  void extract(QelExtractableI* x) override;
  /// Forgets the root `x` (an object given to extract) and takes what only
  /// it brought out of the form. An object reached through an extracted
  /// model throws QelWrongUsage: remove it from its model instead.
  void unextract(QelExtractableI* x) override;
  /// Forgets everything extracted.
  void clear() override;
  /// Follows a notice through the hooks; a notice without a hook, or a
  /// failure while following it, marks the form dirty (never throws).
  void notifyChange(const QelExtractableI* x, const QelChange& c) override;

  // ---- solving ----------------------------------------------------------
  /// Brings the form up to date (checks, stale members, rebuild when dirty)
  /// and solves. The solution, when there is one, becomes the held values.
  QelEngineStatus solve();
  /// The status of the last solve.
  QelEngineStatus getStatus() const { return _status; }
  /// Whether the last solve found a solution.
  bool hasSolution() const {
    return _status == QelEngineStatus::Optimal || _status == QelEngineStatus::Feasible;
  }
  /// The value of criterion `i` of the active objective in the solution,
  /// evaluated on the held values (throws without solution or objective).
  double getObjValue(long i = 0) const;
  /// The value of criterion `i` as the engine itself reported it.
  double getEngineObjValue(long i = 0) const;
  /// Number of criteria of the active objective (0 without objective).
  long getNumCriteria() const;
  /// The value of set variable `s` in the solution (sorted); throws when
  /// the engine holds none for it.
  std::vector<QelInt> getSetValue(const QelIntSetVarI* s) const;
  /// The engine's name.
  const char* getEngineName() const { return _engineName; }
  /// Stops a solve after `seconds` (0: no limit).
  void setTimeLimit(double seconds) { _timeLimit = seconds; }
  /// The time limit in seconds (0: none).
  double getTimeLimit() const { return _timeLimit; }
  /// What the engine did so far.
  const QelEngineStats& getStats() const { return _stats; }
  /// Whether the next solve rebuilds the whole form.
  bool isDirty() const { return _dirty; }
  /// Why the form was last marked dirty.
  const std::string& getDirtyReason() const { return _dirtyReason; }
  /// Whether `x` is a leaf member of the extracted image.
  bool isMember(const QelExtractableI* x) const { return _members.count(x) != 0; }
  /// The leaf members, in extraction order.
  std::vector<QelExtractableI*> getMembers() const { return _order; }
  /// The active objective, or null.
  const QelObjectiveI* getObjective() const { return _objective; }

  // ---- handlers called by the dispatching hooks -------------------------
  // One overload per class of extractables.def. The defaults: extraction
  // refuses the object (QelEngineError naming it and its class), except for
  // models (their members are added one by one) and objectives (the
  // objective becomes the active one); modification marks the object for
  // re-extraction; removal (unextract) forgets a root.
#define QEL_ENGINE_CLASS(C)                           \
  virtual void* extractObject(const C* x);            \
  virtual void* modifyObject(const C* x, void* data); \
  virtual void* unextractObject(const C* x, void* data);
#include <engines/common/extractables.def>
#undef QEL_ENGINE_CLASS
  /// The objective became the engine's active one; does nothing.
  virtual void* objectiveActivated(const QelObjectiveI* obj, void* data);
  /// The objective stopped being the active one; does nothing.
  virtual void* objectiveDeactivated(const QelObjectiveI* obj, void* data);
  // One overload per notice class of notices.def (see engine.cpp for what
  // each default does).
#define QEL_NOTICE(N, B) virtual QelInt applyNotice(const N& notice, void* data);
#include <qel/change/notices.def>
#undef QEL_NOTICE

 protected:
  // ---- what an engine implements ------------------------------------------
  /// Drops the whole engine form (the image is rebuilt right after).
  virtual void resetForm() = 0;
  /// Puts one new leaf member into the form (normally through
  /// extractThroughHook). Throws QelEngineError for what it refuses.
  virtual void addToForm(QelExtractableI* member) = 0;
  /// Takes one leaf member out of the form, or marks the form dirty.
  virtual void removeFromForm(QelExtractableI* member) = 0;
  /// Re-extracts one member whose content changed; the default removes it
  /// and adds it again.
  virtual void refreshInForm(QelExtractableI* member);
  /// `x` is being removed from everything or destroyed: drop every
  /// reference the form keeps to it (variables, expressions).
  virtual void forget(const QelExtractableI* x) = 0;
  /// Compares the bounds and types of the extracted variables with the
  /// model (they change without notice) and updates or marks the form.
  virtual void syncVariables() = 0;
  /// The active objective changed as told by `change`; the default marks it
  /// for re-extraction.
  virtual void objectiveChanged(const QelObjectiveI* obj, const QelChange& change);
  /// Solves the up-to-date form. On success, sets the value of every
  /// extracted variable (QelAlgorithmI::setValue) and the engine's own
  /// objective values (setEngineObjValues).
  virtual QelEngineStatus runSolve() = 0;

  // ---- services -----------------------------------------------------------
  /// `x->extractToCP(this)`, turning an empty slot into a QelEngineError
  /// naming the object.
  void* extractThroughHook(const QelExtractableI* x);
  /// The error "<engine> engine cannot extract <object> (<class>): <why>".
  QelEngineError refuse(const QelExtractableI* x, const std::string& why) const;
  /// The whole form is rebuilt from the roots before the next solve.
  void markDirty(const std::string& reason);
  /// `member` is re-extracted before the next solve (nothing when it is no
  /// member).
  void markStale(const QelExtractableI* member);
  /// Records the content hash of `member` as it now is (after an in-place
  /// update that made the form match it).
  void rehash(const QelExtractableI* member);
  /// Counts one change applied in place.
  void countIncremental() { ++_stats.incrementalChanges; }
  /// Counts one change found by the checks before a solve.
  void countSilentChange() { ++_stats.silentChanges; }
  /// Stores the objective values the engine reports (one per criterion).
  void setEngineObjValues(std::vector<double> values) { _engineObjValues = std::move(values); }
  /// Stores the value of a set variable in the solution.
  void setSetValue(const QelIntSetVarI* s, std::vector<QelInt> value);

 private:
  struct Member {
    long count = 0;
    std::uint64_t hash = 0;
  };
  struct ModelRecord {
    long count = 0;
    std::vector<QelExtractableI*> children;
  };

  void addMember(QelExtractableI* x);
  void removeMember(QelExtractableI* x);
  void addFromNotice(QelExtractableI* x);
  void removeEverywhere(QelExtractableI* y);
  void handleRemoval(const QelExtractableArray& removed);
  void deactivateObjective();
  void rebuild();
  void prepare();
  bool objectiveMember(const QelObjectiveI* obj) const {
    return obj != nullptr && _members.count(obj) != 0;
  }
  void recordSafely(const QelExtractableI* x);

  const char* _engineName;
  QelEngineStatus _status = QelEngineStatus::Unknown;
  double _timeLimit = 0;
  QelEngineStats _stats;
  bool _dirty = false;
  std::string _dirtyReason;
  std::vector<QelExtractableI*> _roots;
  std::unordered_map<const QelExtractableI*, ModelRecord> _models;
  std::unordered_map<const QelExtractableI*, Member> _members;
  std::vector<QelExtractableI*> _order;
  std::vector<const QelExtractableI*> _stale;
  const QelObjectiveI* _objective = nullptr;
  std::vector<double> _objValues;
  std::vector<double> _engineObjValues;
  std::unordered_map<const QelIntSetVarI*, std::vector<QelInt>> _setValues;
};

/// Handle on an engine. Copies share the engine; end() destroys it (end
/// every engine before its environment).
class QelEngine {
 public:
  /// An empty handle.
  QelEngine() = default;
  /// A handle on `impl`.
  explicit QelEngine(QelEngineI* impl) : _impl(impl) {}
  /// The engine, or null.
  QelEngineI* getImpl() const { return _impl; }
  /// The engine as an algorithm handle.
  operator QelAlgorithm() const { return QelAlgorithm(_impl); }
  /// Extracts `x` (see QelEngineI::extract).
  void extract(const QelExtractable& x) const { impl()->extract(x.getImpl()); }
  /// Solves (see QelEngineI::solve).
  QelEngineStatus solve() const { return impl()->solve(); }
  /// The status of the last solve.
  QelEngineStatus getStatus() const { return impl()->getStatus(); }
  /// Criterion `i` of the objective in the solution.
  double getObjValue(long i = 0) const { return impl()->getObjValue(i); }
  /// The value of `e` in the solution.
  double getValue(const QelNumExpr& e) const { return impl()->getValue(e.getImpl()); }
  /// Destroys the engine; the handle empties.
  void end();

 protected:
  /// The engine; throws QelEmptyHandleException when empty.
  QelEngineI* impl() const {
    if (_impl == nullptr) throw QelEmptyHandleException("QelEngine: using empty handle");
    return _impl;
  }
  /// The engine.
  QelEngineI* _impl = nullptr;
};

#endif

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
// The classes are listed once in qel/engines/extractables.def, the
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
//   QelGecode cp(env);          // qel/engines/gecode.h
//   cp.extract(model);
//   if (cp.solve() == QelEngineStatus::Optimal)
//     std::cout << cp.getObjValue() << " " << cp.getValue(x) << "\n";
//   model.add(QelDiff(env, x, 3.0));   // followed; posted incrementally
//   cp.solve();
//   cp.end();                          // before env.end()
//
// Parameters, log, progress and report
// ------------------------------------
// The settings both engines understand are typed (QelEngineParams: time
// limit, relative and absolute gap, node and solution limits, threads,
// random seed, log level) and set through the engine or its handle:
//
//   QelCbc mip(env);
//   mip.setTimeLimit(10);
//   mip.setRelativeGap(0.01);
//   mip.setLogLevel(1);                  // lines on std::clog
//   mip.setParam("cuts", "off");         // the engine's own options by name
//
// A name the engine does not know throws QelEngineError listing the names
// it knows. The shared settings are also accepted by name ("timeLimit",
// "relativeGap", "absoluteGap", "nodeLimit", "solutionLimit", "threads",
// "randomSeed", "logLevel").
//
// At log level 1 or more the engine writes, on the log stream (std::clog
// unless setLogStream chose another; nothing at level 0), one line when a
// solve starts, with what was extracted:
//   [CBC] start: 120 rows, 6050 columns (6050 integer); QelPackI 1
// progress lines, at most one a second:
//   [CBC] 2.01 s  nodes 1412  incumbent 51  bound 50  gap 1.96%
// and a summary when it ends:
//   [CBC] end: Optimal  objective 51  bound 51  gap 0%  nodes 2200
//   iterations 90211  solutions 3  time 3.12 s
// QelEngineLog formats every line, so both engines print the same shape.
// The same figures reach a progress callback (setProgressCallback) each time
// the engine reports progress; the callback returns QelProgressReply::Stop
// to end the search early (the status is then Feasible with a solution,
// Unknown without). After a solve, getReport() holds status, objective,
// best bound, gap, nodes, iterations, time and the number of solutions.
//
// The time limit bounds the whole solve() call: bringing the form up to date
// (extracting the changes made since the last solve) counts against it, and
// the engine's search gets what remains (remainingTime()).
#ifndef QEL_ENGINES_ENGINE_H
#define QEL_ENGINES_ENGINE_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
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
  long compactions = 0;         ///< times the form's dead parts were taken out
};

/// The settings both engines share. A zero limit means no limit.
struct QelEngineParams {
  double timeLimit = 0;  ///< seconds for a whole solve() call (0: none)
  double relativeGap =
      -1;  ///< stop when |incumbent - bound| <= gap * |incumbent| (< 0: the solver's default)
  double absoluteGap = -1;  ///< stop when |incumbent - bound| <= gap (< 0: the solver's default)
  long nodeLimit = 0;       ///< search nodes explored at most (0: none)
  long solutionLimit = 0;   ///< solutions found at most (0: none)
  int threads = 1;          ///< search threads, where the solver can use several (0: one per core)
  int randomSeed = -1;      ///< seed of the solver's random choices (< 0: the solver's default)
  int logLevel = 0;  ///< 0 silent, 1 start, progress and end lines, 2 also the solver's own output
};

/// The relative gap |incumbent - bound| / max(|incumbent|, |bound|, 1e-10),
/// the measure the gap limit (relativeGap) is compared with.
double QelRelativeGap(double incumbent, double bound);

/// Figures of a running or finished search.
struct QelEngineProgress {
  double time = 0;            ///< seconds since solve() was called
  long nodes = 0;             ///< search nodes explored
  long iterations = 0;        ///< simplex iterations (0 for a search without LP)
  long solutions = 0;         ///< solutions found
  bool hasIncumbent = false;  ///< whether a solution is known
  double incumbent = 0;       ///< objective of the best solution (first criterion)
  bool hasBound = false;      ///< whether a bound is known
  double bound = 0;           ///< best bound on the objective (first criterion)
  /// Relative gap QelRelativeGap(incumbent, bound), or -1 when incumbent or
  /// bound is missing.
  double gap() const;
};

/// What a progress callback asks of the engine.
enum class QelProgressReply {
  Continue,  ///< go on searching
  Stop       ///< end the search now, keeping the best solution
};

/// Called with the figures each time the engine reports progress.
using QelProgressCallback = std::function<QelProgressReply(const QelEngineProgress&)>;

/// What a solve did.
struct QelSolveReport {
  QelEngineStatus status = QelEngineStatus::Unknown;  ///< the outcome
  bool hasObjective = false;                          ///< whether an objective was optimized
  bool objectiveRemoved = false;   ///< the model's objective was removed since an earlier solve
  double objective = 0;            ///< objective of the solution (first criterion)
  double bestBound = 0;            ///< best bound proven on the objective (first criterion)
  double gap = -1;                 ///< relative gap at the end (-1: unknown)
  long nodes = 0;                  ///< search nodes explored
  long iterations = 0;             ///< simplex iterations
  double time = 0;                 ///< seconds spent in solve(), extraction included
  double extractionTime = 0;       ///< of which bringing the form up to date
  long solutions = 0;              ///< solutions found
  bool stoppedByCallback = false;  ///< the progress callback asked to stop
};

/// Size of an engine's form, for the start line.
struct QelFormSize {
  long rows = 0;      ///< constraints of the form (LP rows, propagators)
  long columns = 0;   ///< variables of the form
  long integers = 0;  ///< of which integer or Boolean
};

/// Formats the engines' log lines, so every engine prints the same shape.
struct QelEngineLog {
  /// `[<engine>] start: <rows> rows, <columns> columns (<integers> integer); <Class> <n>, ...`
  static std::string StartLine(const char* engine, const QelFormSize& size,
                               const std::vector<std::pair<std::string, long>>& classes);
  /// `[<engine>] <time> s  nodes <n>  incumbent <v>|-  bound <v>|-  gap <p>%|-`
  static std::string ProgressLine(const char* engine, const QelEngineProgress& p);
  /// `[<engine>] end: <status>  objective <v>|none  bound <v>|-  gap <p>%|-  nodes <n>  iterations
  /// <n>  solutions <n>  time <t> s`
  static std::string EndLine(const char* engine, const QelSolveReport& r);
  /// A number as the log lines write it (up to 10 significant digits).
  static std::string Number(double v);
};

/// Storage of QelPodVector: small arrays come from std::malloc; arrays of
/// at least MappedBytes are mapped from the system directly (on Linux), so
/// that they grow by remapping their pages, never by copying them, and the
/// pages they grow by are faulted in at once. A few mappings given back
/// (256 MiB at most) are kept for the next large arrays of the process, so
/// that extracting models again and again reuses pages already in memory.
struct QEL_API QelPodStorage {
  /// Arrays of at least this many bytes are mapped.
  static constexpr size_t MappedBytes = size_t{1} << 20;
  /// Storage for at least `bytes` bytes (> oldBytes; set to what was given)
  /// holding the first `usedBytes` of `old`, a storage of `oldBytes` bytes
  /// (null when 0), which is given back; null when the system refuses, and
  /// then `old` is kept.
  static void* Grow(void* old, size_t oldBytes, size_t usedBytes, size_t& bytes);
  /// Gives back a storage of `bytes` bytes (null does nothing).
  static void Release(void* p, size_t bytes);
  /// Bytes of mapped storage held in the whole process now (the C library's
  /// statistics do not see them).
  static size_t MappedBytesInUse();
};

/// A growing array of trivially copyable values, for the engines' forms
/// (rows, columns, pools of entries), which may hold millions of them. Its
/// storage is a QelPodStorage: a large array that doubles is moved by
/// remapping its pages where the system allows, instead of being copied
/// into new pages, so each page is touched once, when first written. The
/// operations are those of std::vector that the forms use; growth throws
/// std::bad_alloc when the system refuses, leaving the array as it was.
template <class T>
class QelPodVector {
  static_assert(std::is_trivially_copyable<T>::value, "QelPodVector holds plain values");

 public:
  /// An empty array.
  QelPodVector() = default;
  /// An array of `n` copies of `v`.
  QelPodVector(size_t n, const T& v) { assign(n, v); }
  /// A copy of `other`.
  QelPodVector(const QelPodVector& other) { append(other.begin(), other.end()); }
  /// Takes over the storage of `other`, which is left empty.
  QelPodVector(QelPodVector&& other) noexcept { swap(other); }
  /// Copies `other` into this array.
  QelPodVector& operator=(const QelPodVector& other) {
    if (this != &other) {
      clear();
      append(other.begin(), other.end());
    }
    return *this;
  }
  /// Takes over the storage of `other`, which gets this array's.
  QelPodVector& operator=(QelPodVector&& other) noexcept {
    swap(other);
    return *this;
  }
  /// Gives the storage back.
  ~QelPodVector() { QelPodStorage::Release(_data, _capacity * sizeof(T)); }

  /// Number of values.
  size_t size() const { return _size; }
  /// Whether the array holds no value.
  bool empty() const { return _size == 0; }
  /// Number of values the storage holds without growing.
  size_t capacity() const { return _capacity; }
  /// The values, contiguous (null while nothing was ever stored).
  T* data() { return _data; }
  /// The values, contiguous (null while nothing was ever stored).
  const T* data() const { return _data; }
  /// Value `i` (i < size()).
  T& operator[](size_t i) { return _data[i]; }
  /// Value `i` (i < size()).
  const T& operator[](size_t i) const { return _data[i]; }
  /// The last value (the array is not empty).
  T& back() { return _data[_size - 1]; }
  /// The last value (the array is not empty).
  const T& back() const { return _data[_size - 1]; }
  /// First value, for range loops.
  T* begin() { return _data; }
  /// Past the last value.
  T* end() { return _data + _size; }
  /// First value, for range loops.
  const T* begin() const { return _data; }
  /// Past the last value.
  const T* end() const { return _data + _size; }

  /// Appends `v`.
  void push_back(const T& v) {
    if (_size != _capacity) {
      _data[_size++] = v;
      return;
    }
    growAndPush(v);
  }
  /// Removes the last value (the array is not empty).
  void pop_back() { --_size; }
  /// Appends the values [first, last) (not from this array).
  void append(const T* first, const T* last) {
    auto n = static_cast<size_t>(last - first);
    if (_size + n > _capacity) grow(_size + n);
    if (n != 0) std::memcpy(_data + _size, first, n * sizeof(T));
    _size += n;
  }
  /// Keeps the first `n` values, or appends T() up to `n`.
  void resize(size_t n) { resize(n, T()); }
  /// Keeps the first `n` values, or appends copies of `v` up to `n`.
  void resize(size_t n, const T& v) {
    if (n > _capacity) {
      T copy = v;
      grow(n);
      std::fill(_data + _size, _data + n, copy);
    } else if (n > _size) {
      std::fill(_data + _size, _data + n, v);
    }
    _size = n;
  }
  /// Replaces the values by `n` copies of `v`.
  void assign(size_t n, const T& v) {
    T copy = v;
    _size = 0;
    resize(n, copy);
  }
  /// Removes every value, keeping the storage.
  void clear() { _size = 0; }
  /// Makes room for `n` values in all.
  void reserve(size_t n) {
    if (n > _capacity) setCapacity(n);
  }
  /// Exchanges the contents of two arrays.
  void swap(QelPodVector& other) noexcept {
    std::swap(_data, other._data);
    std::swap(_size, other._size);
    std::swap(_capacity, other._capacity);
  }

 private:
  // push_back when the storage is full, out of the way of the common case
  // so that push_back inlines.
  [[gnu::noinline]] void growAndPush(const T& v) {
    T copy = v;  // v may live in the storage that grows
    grow(_size + 1);
    _data[_size++] = copy;
  }
  // Room for at least `n` values, doubling.
  void grow(size_t n) { setCapacity(std::max(n, std::max<size_t>(16, 2 * _capacity))); }
  void setCapacity(size_t n) {
    if (n > std::numeric_limits<size_t>::max() / sizeof(T)) throw std::bad_alloc();
    size_t bytes = n * sizeof(T);
    void* p = QelPodStorage::Grow(_data, _capacity * sizeof(T), _size * sizeof(T), bytes);
    if (p == nullptr) throw std::bad_alloc();
    _data = static_cast<T*>(p);
    _capacity = bytes / sizeof(T);
  }

  T* _data = nullptr;
  size_t _size = 0;
  size_t _capacity = 0;
};

/// Records kept by the id of an object of one environment, as the
/// environment's own registry keeps them (an object keeps its id while the
/// notices about it are delivered), in pages of 1024 slots made on first
/// use: no hashing, and memory only for the ranges of ids in use, so that a
/// small model in a large environment costs little. A slot not yet written
/// holds T().
template <class T>
class QelIdTable {
 public:
  /// The slot of `id`, or null when its page was never made (or id < 0).
  T* find(QelInt id) {
    if (id < 0) return nullptr;
    auto page = static_cast<size_t>(id) >> PageBits;
    if (page >= _pages.size() || !_pages[page]) return nullptr;
    return &_pages[page][static_cast<size_t>(id) & (PageSize - 1)];
  }
  /// The slot of `id`, or null when its page was never made (or id < 0).
  const T* find(QelInt id) const { return const_cast<QelIdTable*>(this)->find(id); }
  /// The slot of `id` (>= 0), its page made when new.
  T& at(QelInt id) {
    auto page = static_cast<size_t>(id) >> PageBits;
    if (page >= _pages.size()) _pages.resize(page + 1);
    if (!_pages[page]) _pages[page].reset(newPage());
    return _pages[page][static_cast<size_t>(id) & (PageSize - 1)];
  }
  /// Drops every slot.
  void clear() { _pages.clear(); }

 private:
  static_assert(std::is_trivially_destructible<T>::value, "QelIdTable holds plain records");
  static constexpr size_t PageBits = 10;
  static constexpr size_t PageSize = size_t{1} << PageBits;
  struct PageDeleter {
    void operator()(T* p) const { ::operator delete(p); }
  };
  // A page of T(): written whole at once, so its memory is faulted in with
  // one request to the system first (when it spans several system pages).
  static T* newPage() {
    void* raw = ::operator new(sizeof(T) * PageSize);
    if (sizeof(T) * PageSize >= 16 * 1024)
      QelMemory::Prefault(raw, static_cast<long>(sizeof(T) * PageSize));
    T* page = static_cast<T*>(raw);
    for (size_t i = 0; i < PageSize; ++i) new (page + i) T();
    return page;
  }
  std::vector<std::unique_ptr<T[], PageDeleter>> _pages;
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
  /// without solving, as solve() does first.
  void update() { prepare(); }
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
  /// Bounds a whole solve() call to `seconds`, extraction of pending changes
  /// included (0: no limit).
  void setTimeLimit(double seconds);
  /// The time limit in seconds (0: none).
  double getTimeLimit() const { return _params.timeLimit; }
  /// Stops when the relative gap is at most `gap` (< 0: solver default).
  void setRelativeGap(double gap) { _params.relativeGap = gap; }
  /// Stops when the absolute gap is at most `gap` (< 0: solver default).
  void setAbsoluteGap(double gap) { _params.absoluteGap = gap; }
  /// Explores at most `nodes` search nodes (0: no limit).
  void setNodeLimit(long nodes);
  /// Stops after `solutions` solutions (0: no limit).
  void setSolutionLimit(long solutions);
  /// Uses `threads` search threads where the solver can (0: one per core).
  void setThreads(int threads);
  /// Seeds the solver's random choices (< 0: solver default).
  void setRandomSeed(int seed) { _params.randomSeed = seed; }
  /// 0 silent, 1 start/progress/end lines, 2 also the solver's own output.
  void setLogLevel(int level);
  /// The log goes to `os` (default std::clog); it must outlive the solves.
  void setLogStream(std::ostream& os) { _log = &os; }
  /// The stream the log goes to.
  std::ostream& getLogStream() const { return *_log; }
  /// All shared settings at once.
  void setParams(const QelEngineParams& params);
  /// The shared settings.
  const QelEngineParams& getParams() const { return _params; }
  /// Sets a setting by name: a shared one (see the header) or one of the
  /// engine's own; an unknown name or a value that does not fit throws
  /// QelEngineError naming it (the message lists the names known).
  void setParam(const std::string& name, const std::string& value);
  /// setParam with a number.
  void setParam(const std::string& name, double value);
  /// The names of the engine's own settings.
  virtual std::vector<std::string> getEngineParamNames() const { return {}; }
  /// `callback` receives the figures of the search while it runs and may
  /// ask it to stop; an empty function removes it.
  void setProgressCallback(QelProgressCallback callback) { _callback = std::move(callback); }
  /// Feasibility tolerance of the engine's solution checks: a row or bound
  /// holds when violated by at most tol * max(1, |bound|) (default 1e-6).
  void setFeasibilityTolerance(double tol);
  /// The feasibility tolerance of the solution checks.
  double getFeasibilityTolerance() const { return _feasTol; }
  /// What the last solve did.
  const QelSolveReport& getReport() const { return _report; }
  /// Checks the solution against the extracted constraints and returns those
  /// it violates (empty without solution). A range holds when its value is
  /// within tol * max(1, |bound|) of each bound (the feasibility tolerance,
  /// so that an LP solution with 1e-13 residuals passes); other constraints
  /// are checked with their own eval.
  std::vector<const QelExtractableI*> checkSolution() const;
  /// What the engine did so far.
  const QelEngineStats& getStats() const { return _stats; }
  /// Whether the next solve rebuilds the whole form.
  bool isDirty() const { return _dirty; }
  /// Why the form was last marked dirty.
  const std::string& getDirtyReason() const { return _dirtyReason; }
  /// Whether `x`, a live object, is a leaf member of the extracted image
  /// (members are found by id: for an ended object, look for its address
  /// in getMembers()).
  bool isMember(const QelExtractableI* x) const { return _members.count(x) != 0; }
  /// The leaf members, in extraction order.
  std::vector<QelExtractableI*> getMembers() const { return _order; }
  /// The active objective, or null.
  const QelObjectiveI* getObjective() const { return _objective; }

  // ---- handlers called by the dispatching hooks -------------------------
  // One overload per class of extractables.def. The defaults: extraction
  // refuses the object (QelEngineError naming it and its class; set and
  // interval variables with the reason), except for models (their members
  // are added one by one) and objectives (the objective becomes the active
  // one); modification marks the object for
  // re-extraction; removal (unextract) forgets a root.
#define QEL_ENGINE_CLASS(C)                           \
  virtual void* extractObject(const C* x);            \
  virtual void* modifyObject(const C* x, void* data); \
  virtual void* unextractObject(const C* x, void* data);
#include <qel/engines/extractables.def>
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
  /// Sets the engine's own setting `name`; returns false for a name it does
  /// not know, throws QelEngineError (badParam) for a value that does not fit.
  virtual bool setEngineParam(const std::string& name, const std::string& value);
  /// Size of the up-to-date form, for the start line.
  virtual QelFormSize getFormSize() const { return {}; }

  // ---- services for a running solve ---------------------------------------
  /// Seconds since solve() was called.
  double elapsed() const;
  /// Seconds left of the time limit (a large number without limit; never
  /// below 0).
  double remainingTime() const;
  /// Reports progress: logs a line when the last one is a second old (or
  /// `force`), calls the progress callback; returns true when the search
  /// should stop (the callback asked to, now or before).
  bool reportProgress(const QelEngineProgress& progress, bool force = false);
  /// Whether the callback asked to stop during this solve.
  bool stopRequested() const { return _report.stoppedByCallback; }
  /// The report of the running solve, for the engine to fill (objective,
  /// bound, nodes, iterations, solutions); status and times are set by solve().
  QelSolveReport& report() { return _report; }
  /// Writes `line` and a newline to the log when the level is >= `level`.
  void logLine(int level, const std::string& line) const;
  /// QelEngineError "\<engine\> engine: parameter "\<name\>": \<why\>".
  QelEngineError badParam(const std::string& name, const std::string& why) const;
  /// `value` as a number, or badParam.
  double paramNumber(const std::string& name, const std::string& value) const;

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
  /// Counts one compaction of the form.
  void countCompaction() { ++_stats.compactions; }
  /// Counts one change found by the checks before a solve.
  void countSilentChange() { ++_stats.silentChanges; }
  /// Stores the objective values the engine reports (one per criterion).
  void setEngineObjValues(std::vector<double> values) { _engineObjValues = std::move(values); }
  /// Stores the value of a set variable in the solution.
  void setSetValue(const QelIntSetVarI* s, std::vector<QelInt> value);

 private:
  struct Member {
    const QelExtractableI* x = nullptr;  // the member (null: a free slot)
    long count = 0;
    std::uint64_t hash = 0;
  };
  // The leaf members' records by object id (see QelIdTable), each slot
  // naming its member.
  class MemberTable {
   public:
    Member* find(const QelExtractableI* x) {
      Member* m = _slots.find(x->getId());
      return m != nullptr && m->x == x ? m : nullptr;
    }
    const Member* find(const QelExtractableI* x) const {
      return const_cast<MemberTable*>(this)->find(x);
    }
    size_t count(const QelExtractableI* x) const { return find(x) != nullptr ? 1 : 0; }
    Member& insert(const QelExtractableI* x) {
      Member& m = _slots.at(x->getId());
      m = Member();
      m.x = x;
      return m;
    }
    void erase(const QelExtractableI* x) {
      if (Member* m = find(x)) *m = Member();
    }
    void clear() { _slots.clear(); }

   private:
    QelIdTable<Member> _slots;
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

  void logStart();
  void finishReport();
  double nonNegative(const char* name, double value) const;

  const char* _engineName;
  QelEngineStatus _status = QelEngineStatus::Unknown;
  QelEngineParams _params;
  double _feasTol = 1e-6;
  std::ostream* _log;
  QelProgressCallback _callback;
  QelSolveReport _report;
  std::chrono::steady_clock::time_point _solveStart;
  double _lastLogLine = -1;
  bool _hadObjective = false;
  QelEngineStats _stats;
  bool _dirty = false;
  std::string _dirtyReason;
  std::vector<QelExtractableI*> _roots;
  std::unordered_map<const QelExtractableI*, ModelRecord> _models;
  MemberTable _members;
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
  /// The values of every element of `xs` in the solution, in one new array
  /// of the engine's environment (the caller ends it; see
  /// QelAlgorithm::getValues).
  QelNumArray getValues(const QelNumExprArray& xs) const {
    return QelAlgorithm(impl()).getValues(xs);
  }
  /// Whether the last solve found a solution.
  bool hasSolution() const { return impl()->hasSolution(); }
  /// What the engine did so far.
  const QelEngineStats& getStats() const { return impl()->getStats(); }
  /// What the last solve did.
  const QelSolveReport& getReport() const { return impl()->getReport(); }
  /// Bounds each solve() call (see QelEngineI::setTimeLimit).
  void setTimeLimit(double seconds) const { impl()->setTimeLimit(seconds); }
  /// Relative gap at which the search stops.
  void setRelativeGap(double gap) const { impl()->setRelativeGap(gap); }
  /// Absolute gap at which the search stops.
  void setAbsoluteGap(double gap) const { impl()->setAbsoluteGap(gap); }
  /// Search nodes explored at most (0: none).
  void setNodeLimit(long nodes) const { impl()->setNodeLimit(nodes); }
  /// Solutions found at most (0: none).
  void setSolutionLimit(long solutions) const { impl()->setSolutionLimit(solutions); }
  /// Search threads (0: one per core).
  void setThreads(int threads) const { impl()->setThreads(threads); }
  /// Seed of the solver's random choices.
  void setRandomSeed(int seed) const { impl()->setRandomSeed(seed); }
  /// Log level (0 silent).
  void setLogLevel(int level) const { impl()->setLogLevel(level); }
  /// Where the log goes.
  void setLogStream(std::ostream& os) const { impl()->setLogStream(os); }
  /// All shared settings.
  void setParams(const QelEngineParams& params) const { impl()->setParams(params); }
  /// The shared settings.
  const QelEngineParams& getParams() const { return impl()->getParams(); }
  /// A setting by name (see QelEngineI::setParam).
  void setParam(const std::string& name, const std::string& value) const {
    impl()->setParam(name, value);
  }
  /// A setting by name, with a number.
  void setParam(const std::string& name, double value) const { impl()->setParam(name, value); }
  /// The progress callback.
  void setProgressCallback(QelProgressCallback callback) const {
    impl()->setProgressCallback(std::move(callback));
  }
  /// Feasibility tolerance of the solution checks.
  void setFeasibilityTolerance(double tol) const { impl()->setFeasibilityTolerance(tol); }
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

// QelEngineI: the image of what was extracted, the default handlers of every
// class and notice, and the solve cycle.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <ostream>
#include <sstream>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <qel/engines/engine.h>
#include <qel/engines/linear.h>

QEL_RTTI_DEF(QelEngineI)

const char* QelEngineStatusName(QelEngineStatus status) {
  switch (status) {
    case QelEngineStatus::Unknown:
      return "Unknown";
    case QelEngineStatus::Optimal:
      return "Optimal";
    case QelEngineStatus::Feasible:
      return "Feasible";
    case QelEngineStatus::Infeasible:
      return "Infeasible";
    case QelEngineStatus::Unbounded:
      return "Unbounded";
  }
  return "?";
}

std::ostream& operator<<(std::ostream& os, QelEngineStatus status) {
  return os << QelEngineStatusName(status);
}

std::string QelDescribe(const QelExtractableI* x) {
  if (x == nullptr) return "an empty object";
  std::ostringstream os;
  if (x->getName() != nullptr)
    os << '"' << x->getName() << '"';
  else
    os << '#' << x->getId();
  os << " (" << x->getRttiTypeName() << ")";
  return os.str();
}

// ===========================================================================
// Construction
// ===========================================================================

QelEngineI::QelEngineI(QelEnvI* env, const char* engineName)
    : QelAlgorithmI(env), _engineName(engineName), _log(&std::clog) {
  InstallHooks();
  useHooks(nullptr);
}

QelEngineI::~QelEngineI() = default;

QelEngineError QelEngineI::refuse(const QelExtractableI* x, const std::string& why) const {
  return QelEngineError(
      std::string(_engineName) + " engine cannot extract " + QelDescribe(x) + ": " + why, x);
}

void* QelEngineI::extractThroughHook(const QelExtractableI* x) {
  try {
    return x->extractToCP(QelAlgorithm(this));
  } catch (const QelAlgorithm::ExtractFailure&) {
    throw refuse(x, "no engine hook is installed for this class");
  }
}

void QelEngineI::markDirty(const std::string& reason) {
  _dirty = true;
  _dirtyReason = reason;
}

void QelEngineI::markStale(const QelExtractableI* member) {
  if (_members.count(member) == 0) return;
  if (std::find(_stale.begin(), _stale.end(), member) == _stale.end()) _stale.push_back(member);
}

void QelEngineI::rehash(const QelExtractableI* member) {
  if (Member* m = _members.find(member)) m->hash = QelContentHash(member);
}

void QelEngineI::setSetValue(const QelIntSetVarI* s, std::vector<QelInt> value) {
  std::sort(value.begin(), value.end());
  _setValues[s] = std::move(value);
}

void QelEngineI::recordSafely(const QelExtractableI* x) {
  if (x != nullptr && x->getId() >= 0) record(const_cast<QelExtractableI*>(x));
}

// ===========================================================================
// The image
// ===========================================================================

void QelEngineI::addMember(QelExtractableI* x) {
  if (x == nullptr || x->getId() < 0) return;
  if (QelDynamicCast<QelModelI>(x) != nullptr) {
    ModelRecord& rec = _models[x];
    if (rec.count++ > 0) return;
    extractThroughHook(x);  // extractObject(const QelModelI*) adds the members
    return;
  }
  if (Member* m = _members.find(x)) {
    ++m->count;
    return;
  }
  _members.insert(x).count = 1;
  _order.push_back(x);
  ++_stats.memberExtractions;
  // Also into a dirty form (rebuilt before the next solve anyway): what the
  // engine refuses is refused now, and is no member.
  try {
    addToForm(x);
  } catch (...) {
    _members.erase(x);
    _order.pop_back();
    --_stats.memberExtractions;
    throw;
  }
  _members.find(x)->hash = QelContentHash(x);
}

void QelEngineI::removeMember(QelExtractableI* x) {
  auto model = _models.find(x);
  if (model != _models.end()) {
    if (--model->second.count > 0) return;
    std::vector<QelExtractableI*> children = std::move(model->second.children);
    _models.erase(model);
    for (QelExtractableI* c : children) removeMember(c);
    return;
  }
  Member* member = _members.find(x);
  if (member == nullptr) return;
  if (--member->count > 0) return;
  _members.erase(x);
  _order.erase(std::find(_order.begin(), _order.end(), x));
  auto stale = std::find(_stale.begin(), _stale.end(), x);
  if (stale != _stale.end()) _stale.erase(stale);
  ++_stats.memberRemovals;
  if (x == _objective) deactivateObjective();
  if (!_dirty) removeFromForm(x);
}

void QelEngineI::addFromNotice(QelExtractableI* x) {
  recordSafely(x);
  try {
    addMember(x);
  } catch (const QelException& e) {
    // Never thrown into the modifying call: the next solve rebuilds the form
    // and throws the refusal there.
    markDirty(e.what());
  }
}

void QelEngineI::removeEverywhere(QelExtractableI* y) {
  for (auto r = _roots.begin(); r != _roots.end();) {
    if (*r == y) {
      r = _roots.erase(r);
      removeMember(y);
    } else {
      ++r;
    }
  }
  // Models drop ended members silently (one sweep): each occurrence gave
  // one count.
  std::vector<const QelExtractableI*> holders;
  for (auto& m : _models) {
    auto& ch = m.second.children;
    if (std::find(ch.begin(), ch.end(), y) != ch.end()) holders.push_back(m.first);
  }
  for (const QelExtractableI* h : holders) {
    auto m = _models.find(h);
    if (m == _models.end()) continue;
    auto& ch = m->second.children;
    long n = static_cast<long>(std::count(ch.begin(), ch.end(), y));
    ch.erase(std::remove(ch.begin(), ch.end(), y), ch.end());
    for (long i = 0; i < n; ++i) removeMember(y);
  }
  // Whatever still counts it (nothing should), an object removed from
  // everything leaves the image: nothing may point to it once destroyed.
  auto model = _models.find(y);
  if (model != _models.end()) {
    model->second.count = 1;
    removeMember(y);
  }
  if (Member* member = _members.find(y)) {
    member->count = 1;
    removeMember(y);
  }
}

void QelEngineI::handleRemoval(const QelExtractableArray& removed) {
  for (long i = 0; i < removed.getSize(); ++i) {
    QelExtractableI* y = removed.getElement(i);
    if (y == nullptr) continue;
    removeEverywhere(y);
  }
  for (long i = 0; i < removed.getSize(); ++i) {
    QelExtractableI* y = removed.getElement(i);
    if (y != nullptr) forget(y);
  }
  // What remains may have lost sub-objects silently (sets and all-different
  // constraints sweep ended variables without notice).
  for (QelExtractableI* m : _order)
    if (QelContentHash(m) != _members.find(m)->hash) markStale(m);
}

void QelEngineI::deactivateObjective() {
  const QelObjectiveI* obj = _objective;
  _objective = nullptr;
  if (obj != nullptr && obj->getId() >= 0) {
    try {
      obj->whenRemovedFromCP(QelAlgorithm(this), getHookData());
    } catch (const QelException& e) {
      markDirty(e.what());
    }
  }
}

// ===========================================================================
// Extraction entry points
// ===========================================================================

void QelEngineI::extract(QelExtractableI* x) {
  if (x == nullptr) throw QelEmptyHandleException();
  record(x);
  _roots.push_back(x);
  try {
    addMember(x);
  } catch (...) {
    _roots.pop_back();
    markDirty("an extraction failed");
    throw;
  }
}

void QelEngineI::unextract(QelExtractableI* x) {
  QelAlgorithmI::unextract(x);  // through the hook: unextractObject
}

void QelEngineI::clear() {
  QelAlgorithmI::clear();
  _roots.clear();
  _models.clear();
  _members.clear();
  _order.clear();
  _stale.clear();
  _objective = nullptr;
  _dirty = false;
  _dirtyReason.clear();
  resetForm();
}

void QelEngineI::notifyChange(const QelExtractableI* x, const QelChange& c) {
  ++_stats.notices;
  try {
    QelAlgorithmI::notifyChange(x, c);
  } catch (const QelAlgorithm::CannotChangeException&) {
    markDirty(std::string("no engine hook for the notice ") + c.getRttiTypeName());
  } catch (const std::exception& e) {
    markDirty(std::string("following ") + c.getRttiTypeName() + " failed: " + e.what());
  } catch (...) {
    markDirty(std::string("following ") + c.getRttiTypeName() + " failed");
  }
}

// ===========================================================================
// Solving
// ===========================================================================

void QelEngineI::rebuild() {
  ++_stats.rebuilds;
  _dirty = false;
  _dirtyReason.clear();
  deactivateObjective();
  _models.clear();
  _members.clear();
  _order.clear();
  _stale.clear();
  resetForm();
  try {
    for (QelExtractableI* r : _roots) {
      record(r);
      addMember(r);
    }
  } catch (...) {
    markDirty("the last rebuild failed");
    throw;
  }
}

void QelEngineI::refreshInForm(QelExtractableI* member) {
  removeFromForm(member);
  if (!_dirty) addToForm(member);
}

void QelEngineI::prepare() {
  if (!_dirty) {
    for (QelExtractableI* m : _order) {
      if (QelContentHash(m) != _members.find(m)->hash &&
          std::find(_stale.begin(), _stale.end(), m) == _stale.end()) {
        ++_stats.silentChanges;
        _stale.push_back(m);
      }
    }
    syncVariables();
  }
  if (_dirty) {
    rebuild();
    return;
  }
  while (!_stale.empty() && !_dirty) {
    QelExtractableI* m = const_cast<QelExtractableI*>(_stale.front());
    _stale.erase(_stale.begin());
    ++_stats.memberRefreshes;
    recordSafely(m);
    try {
      refreshInForm(m);
    } catch (...) {
      markDirty("a re-extraction failed");
      throw;
    }
    rehash(m);
  }
  if (_dirty) rebuild();
}

QelEngineStatus QelEngineI::solve() {
  _solveStart = std::chrono::steady_clock::now();
  _lastLogLine = -1;
  _report = QelSolveReport();
  _status = QelEngineStatus::Unknown;
  _objValues.clear();
  _engineObjValues.clear();
  _setValues.clear();
  clearValues();
  prepare();
  _report.extractionTime = elapsed();
  ++_stats.solves;
  logStart();
  if (_params.timeLimit > 0 && remainingTime() <= 0) {
    // Bringing the form up to date took the whole time limit.
    _status = QelEngineStatus::Unknown;
  } else {
    _status = runSolve();
  }
  if (hasSolution() && _objective != nullptr) {
    long n = _objective->getNumCriteria();
    for (long i = 0; i < n; ++i) _objValues.push_back(getValue(_objective->getCriterion(i)));
  }
  finishReport();
  if (_objective != nullptr) _hadObjective = true;
  return _status;
}

long QelEngineI::getNumCriteria() const {
  return _objective != nullptr ? _objective->getNumCriteria() : 0;
}

double QelEngineI::getObjValue(long i) const {
  if (!hasSolution()) throw QelWrongUsage("QelEngine: no solution");
  if (_report.objectiveRemoved)
    throw QelWrongUsage("QelEngine: no objective value: the model's objective was removed");
  if (i < 0 || i >= static_cast<long>(_objValues.size()))
    throw QelWrongUsage("QelEngine: no objective value for this criterion");
  return _objValues[static_cast<size_t>(i)];
}

double QelEngineI::getEngineObjValue(long i) const {
  if (!hasSolution()) throw QelWrongUsage("QelEngine: no solution");
  if (i < 0 || i >= static_cast<long>(_engineObjValues.size()))
    throw QelWrongUsage("QelEngine: no objective value for this criterion");
  return _engineObjValues[static_cast<size_t>(i)];
}

std::vector<QelInt> QelEngineI::getSetValue(const QelIntSetVarI* s) const {
  auto it = _setValues.find(s);
  if (it == _setValues.end()) throw QelWrongUsage("QelEngine: no value for this set variable");
  return it->second;
}

void QelEngine::end() {
  delete _impl;
  _impl = nullptr;
}

// ===========================================================================
// Default handlers of the extractable classes
// ===========================================================================

#define QEL_ENGINE_CLASS(C)                                                  \
  void* QelEngineI::modifyObject(const C* x, void*) {                        \
    markStale(x);                                                            \
    return nullptr;                                                          \
  }                                                                          \
  void* QelEngineI::unextractObject(const C* x, void*) {                     \
    QelExtractableI* y = const_cast<C*>(x);                                  \
    auto root = std::find(_roots.begin(), _roots.end(), y);                  \
    if (root != _roots.end()) {                                              \
      _roots.erase(root);                                                    \
      removeMember(y);                                                       \
    } else if (_members.count(y) != 0 || _models.count(y) != 0) {            \
      throw QelWrongUsage(                                                   \
          "QelEngine: only what was given to extract() can be unextracted; " \
          "remove this object from its model instead");                      \
    }                                                                        \
    return nullptr;                                                          \
  }
#include <qel/engines/extractables.def>
#undef QEL_ENGINE_CLASS

// Extraction: refused unless the engine overrides it.
#define QEL_REFUSE(C)                                                         \
  void* QelEngineI::extractObject(const C* x) {                               \
    throw refuse(x, std::string("objects of class ") + C::GetRttiTypeName() + \
                        " are not supported by this engine");                 \
  }
QEL_REFUSE(QelNumVarI)
QEL_REFUSE(QelNumLinTermI)
QEL_REFUSE(QelIntLinTermI)
QEL_REFUSE(QelNumProductI)
QEL_REFUSE(QelRangeI)
QEL_REFUSE(QelDiffI)
QEL_REFUSE(QelAllDiffI)
QEL_REFUSE(QelAllMinDistanceI)
QEL_REFUSE(QelPackI)
QEL_REFUSE(QelSOS1I)
QEL_REFUSE(QelSOS2I)
#undef QEL_REFUSE

// Refused by every engine so far, with the reason: a set variable is taken
// only inside the pack that holds it as its used set.
void* QelEngineI::extractObject(const QelIntSetVarI* s) {
  throw refuse(s, "set variables are taken only as the used set of a pack");
}
void* QelEngineI::extractObject(const QelIntervalVarI* s) {
  throw refuse(s, "interval variables are not supported");
}

void* QelEngineI::extractObject(const QelModelI* m) {
  // The record is a node of the map: it stays in place while nested models
  // are added to the map.
  std::vector<QelExtractableI*>& children = _models[m].children;
  children.clear();
  children.reserve(static_cast<size_t>(m->getMembers().getSize()));
  for (QelModelI::Iterator it(m); it.ok(); ++it)
    if (*it != nullptr) children.push_back(*it);
  _order.reserve(_order.size() + children.size());
  for (size_t i = 0; i < children.size(); ++i) addMember(children[i]);
  return nullptr;
}

void* QelEngineI::extractObject(const QelObjectiveI* obj) {
  if (_objective != nullptr && _objective != obj)
    throw refuse(obj, "the model already has the objective " + QelDescribe(_objective) +
                          "; an engine optimizes one objective (several criteria go into "
                          "one multi-criterion objective)");
  const QelObjectiveI* previous = _objective;
  _objective = obj;
  try {
    return obj->whenAddedToCP(QelAlgorithm(this), getHookData());
  } catch (...) {
    _objective = previous;  // refused: not the active one
    throw;
  }
}

void* QelEngineI::objectiveActivated(const QelObjectiveI*, void*) { return nullptr; }
void* QelEngineI::objectiveDeactivated(const QelObjectiveI*, void*) { return nullptr; }

void QelEngineI::objectiveChanged(const QelObjectiveI* obj, const QelChange&) { markStale(obj); }

// ===========================================================================
// Default handlers of the notices
// ===========================================================================

QelInt QelEngineI::applyNotice(const QelRemoveFromAllChange& n, void*) {
  handleRemoval(n.getChangedExtractableArray());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelDestroyExtractable& n, void*) {
  QelExtractableI* x = n.getChangedExtractable();
  removeEverywhere(x);
  forget(x);
  return 0;
}

QelInt QelEngineI::applyNotice(const QelDestroyExtractableArray& n, void*) {
  QelExtractableArray xs = n.getChangedExtractableArray();
  for (long i = 0; i < xs.getSize(); ++i) {
    QelExtractableI* x = xs.getElement(i);
    if (x == nullptr) continue;
    removeEverywhere(x);
    forget(x);
  }
  return 0;
}

// Names never enter an engine's form: counted, nothing else to do.
QelInt QelEngineI::applyNotice(const QelSetNameChange&, void*) {
  ++_stats.namesOnly;
  return 0;
}

QelInt QelEngineI::applyNotice(const QelSetNameArrayChange&, void*) {
  ++_stats.namesOnly;
  return 0;
}

// A column notice of a class without a slot of its own.
QelInt QelEngineI::applyNotice(const QelAddExtractable& n, void*) {
  recordSafely(n.getObj());
  markDirty(std::string("a column notice of class ") + n.getRttiTypeName());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelAddToModel& n, void*) {
  const QelExtractableI* model = n.getChangedExtractable();
  auto it = _models.find(model);
  if (it == _models.end()) return 0;  // a model no longer in the image
  QelExtractableArray xs = n.getMembers();
  for (long i = 0; i < xs.getSize(); ++i) {
    QelExtractableI* x = xs.getElement(i);
    if (x == nullptr) continue;
    _models[model].children.push_back(x);
    addFromNotice(x);
  }
  return 0;
}

QelInt QelEngineI::applyNotice(const QelAddOneToModel& n, void*) {
  const QelExtractableI* model = n.getChangedExtractable();
  if (_models.count(model) == 0) return 0;  // a model no longer in the image
  QelExtractableI* x = n.getMember();
  if (x == nullptr) return 0;
  _models[model].children.push_back(x);
  addFromNotice(x);
  return 0;
}

QelInt QelEngineI::applyNotice(const QelRemoveFromModel& n, void*) {
  const QelExtractableI* model = n.getChangedExtractable();
  if (_models.count(model) == 0) return 0;
  QelExtractableArray xs = n.getMembers();
  for (long i = 0; i < xs.getSize(); ++i) {
    QelExtractableI* x = xs.getElement(i);
    auto& ch = _models[model].children;
    auto pos = std::find(ch.begin(), ch.end(), x);
    if (pos == ch.end()) continue;
    ch.erase(pos);
    try {
      removeMember(x);
    } catch (const QelException& e) {
      markDirty(e.what());
    }
  }
  return 0;
}

#define QEL_OBJECTIVE_NOTICE(N, RECORD)               \
  QelInt QelEngineI::applyNotice(const N& n, void*) { \
    if (!objectiveMember(n.getObjective())) return 0; \
    RECORD;                                           \
    objectiveChanged(n.getObjective(), n);            \
    return 0;                                         \
  }
QEL_OBJECTIVE_NOTICE(QelSetObjSense, (void)0)
QEL_OBJECTIVE_NOTICE(QelSetObjConst, (void)0)
QEL_OBJECTIVE_NOTICE(QelSetObjCoef, recordSafely(n.getVar()))
QEL_OBJECTIVE_NOTICE(QelSetObjQuadCoef, (recordSafely(n.getVar1()), recordSafely(n.getVar2())))
QEL_OBJECTIVE_NOTICE(QelSetObjCoefs, {
  QelNumVarArray vs = n.getVars();
  for (long i = 0; i < vs.getSize(); ++i) recordSafely(vs.getElement(i));
})
QEL_OBJECTIVE_NOTICE(QelSetObjExpr, recordSafely(n.getNewExpr()))
QEL_OBJECTIVE_NOTICE(QelAddValueToObj, recordSafely(n.getObj()))
#undef QEL_OBJECTIVE_NOTICE

// Sets and all-different constraints: the member is re-extracted before the
// next solve (engines override what they update in place).
QelInt QelEngineI::applyNotice(const QelSOS1RemoveVar& n, void*) {
  markStale(n.getSet());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelSOS2RemoveVar& n, void*) {
  markStale(n.getSet());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelAddVarToSOS1& n, void*) {
  recordSafely(n.getObj());
  markStale(n.getSet());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelAddVarToSOS2& n, void*) {
  recordSafely(n.getObj());
  markStale(n.getSet());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelAllDiffRemoveVar& n, void*) {
  markStale(n.getConstraint());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelAddVarToAllDiff& n, void*) {
  recordSafely(n.getObj());
  markStale(n.getConstraint());
  return 0;
}

QelInt QelEngineI::applyNotice(const QelAddVarToAllMinDistance& n, void*) {
  recordSafely(n.getObj());
  markStale(n.getConstraint());
  return 0;
}

// Variable bounds are compared before every solve (syncVariables), whether
// they were changed with a notice or without.
QelInt QelEngineI::applyNotice(const QelSetNumVarBounds&, void*) { return 0; }

QelInt QelEngineI::applyNotice(const QelSetRangeBounds& n, void*) {
  markStale(n.getRange());
  return 0;
}

// ---- QelPodStorage ---------------------------------------------------------

namespace {

std::atomic<size_t> mappedBytes{0};

#if defined(__linux__)
// Mapped storage given back, kept for the next large arrays (up to a few
// mappings and CacheBytes in all): a program that extracts models again and
// again reuses pages already in memory, as it would reuse the C library's.
class MappingCache {
 public:
  static constexpr size_t CacheBytes = size_t{256} << 20;
  // A kept mapping of at least `bytes` (the smallest), its size in `bytes`;
  // null when none fits.
  void* take(size_t& bytes) {
    std::lock_guard<std::mutex> hold(_lock);
    int best = -1;
    for (int i = 0; i < _count; ++i)
      if (_kept[i].bytes >= bytes && (best < 0 || _kept[i].bytes < _kept[best].bytes)) best = i;
    if (best < 0) return nullptr;
    Kept k = _kept[best];
    _kept[best] = _kept[--_count];
    _total -= k.bytes;
    bytes = k.bytes;
    return k.p;
  }
  // Keeps the mapping when there is room; false when it must be unmapped.
  bool keep(void* p, size_t bytes) {
    std::lock_guard<std::mutex> hold(_lock);
    if (_count == MaxKept || _total + bytes > CacheBytes) return false;
    _kept[_count++] = Kept{p, bytes};
    _total += bytes;
    return true;
  }

 private:
  struct Kept {
    void* p;
    size_t bytes;
  };
  static constexpr int MaxKept = 16;
  std::mutex _lock;
  Kept _kept[MaxKept] = {};
  int _count = 0;
  size_t _total = 0;
};

// Never destroyed: what it keeps goes with the process.
MappingCache& Cache() {
  static auto* cache = new MappingCache();
  return *cache;
}
#endif

}  // namespace

size_t QelPodStorage::MappedBytesInUse() { return mappedBytes.load(std::memory_order_relaxed); }

void* QelPodStorage::Grow(void* old, size_t oldBytes, size_t usedBytes, size_t& bytes) {
#if defined(__linux__)
  if (bytes >= MappedBytes) {
    static const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    bytes = (bytes + page - 1) & ~(page - 1);
    void* p;
    if (oldBytes >= MappedBytes) {
      p = mremap(old, oldBytes, bytes, MREMAP_MAYMOVE);
      if (p == MAP_FAILED) return nullptr;
      mappedBytes.fetch_add(bytes - oldBytes, std::memory_order_relaxed);
    } else {
      p = Cache().take(bytes);
      if (p == nullptr) {
        p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) return nullptr;
      }
      mappedBytes.fetch_add(bytes, std::memory_order_relaxed);
      QelMemory::Prefault(p, static_cast<long>(bytes));
      if (usedBytes != 0) std::memcpy(p, old, usedBytes);
      std::free(old);
      return p;
    }
    // The array grows because it is being filled: the pages of its new part
    // are faulted in at once (pages already in memory cost nothing here).
    QelMemory::Prefault(static_cast<char*>(p) + usedBytes, static_cast<long>(bytes - usedBytes));
    return p;
  }
#endif
  (void)oldBytes;
  (void)usedBytes;
  return std::realloc(old, bytes);
}

void QelPodStorage::Release(void* p, size_t bytes) {
  if (p == nullptr) return;
#if defined(__linux__)
  if (bytes >= MappedBytes) {
    mappedBytes.fetch_sub(bytes, std::memory_order_relaxed);
    if (!Cache().keep(p, bytes)) munmap(p, bytes);
    return;
  }
#endif
  (void)bytes;
  std::free(p);
}

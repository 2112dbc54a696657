// The CBC engine (see cbc.h for what it takes and how it follows changes).
#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <CbcEventHandler.hpp>
#include <CbcModel.hpp>
#include <CbcOrClpParam.hpp>
#include <CbcSOS.hpp>
#include <CbcSolver.hpp>
#include <ClpPackedMatrix.hpp>
#include <CoinError.hpp>
#include <CoinMessageHandler.hpp>
#include <CoinMpsIO.hpp>
#include <CoinPackedMatrix.hpp>
#include <CoinPackedVector.hpp>
#include <OsiClpSolverInterface.hpp>

#include <qel/engines/cbc.h>
#include <qel/engines/linear.h>

namespace {

// With keepHeap on: keeps the C library's heap from shrinking and growing
// at every node of a search, for the life of the object, then sets glibc's
// default values (glibc gives no way to read the values it had before; see
// cbc.h for why this is off unless asked for).
class KeepHeap {
 public:
  explicit KeepHeap(bool on) : _on(on) {
#ifdef __GLIBC__
    if (_on) {
      mallopt(M_TOP_PAD, 16 << 20);
      mallopt(M_TRIM_THRESHOLD, 256 << 20);
    }
#endif
  }
  ~KeepHeap() {
#ifdef __GLIBC__
    if (_on) {
      mallopt(M_TRIM_THRESHOLD, 128 << 10);
      mallopt(M_TOP_PAD, 128 << 10);
    }
#endif
  }
  KeepHeap(const KeepHeap&) = delete;
  KeepHeap& operator=(const KeepHeap&) = delete;

 private:
  bool _on;
};

// Writes the lines of CBC, CLP and CBC's driver (all printed through
// CoinMessageHandler) to the engine's log stream instead of standard
// output. Copies write to the same stream.
class LogHandler : public CoinMessageHandler {
 public:
  explicit LogHandler(const QelEngineI* engine) : _engine(engine) {}
  int print() override {
    _engine->getLogStream() << messageBuffer() << std::endl;
    return 0;
  }
  CoinMessageHandler* clone() const override { return new LogHandler(*this); }

 private:
  const QelEngineI* _engine;
};

// The options CBC's driver knows, as its own table lists them.
const std::vector<CbcOrClpParam>& DriverOptions() {
  static const std::vector<CbcOrClpParam> table = [] {
    OsiClpSolverInterface empty;
    CbcModel model(empty);
    CbcSolverUsefulData data;
    data.noPrinting_ = true;
    data.useSignalHandler_ = false;
    CbcMain0(model, data);
    return data.parameters_;
  }();
  return table;
}

// Largest number of binaries one reformulated constraint may make.
constexpr double MaxReformulationColumns = 200000;

// An array of n values for CLP to take over (CLP frees it with delete[]),
// zeros when `zeroed` (the others are all written by the caller). The
// arrays of a large LP are written right away: their pages are faulted in
// at once, which costs the system far less than a fault per page.
template <class T>
T* NewLpArray(size_t n, bool zeroed) {
  T* p = new T[n];
  if (n * sizeof(T) >= static_cast<size_t>(QelMemory::PrefaultChunkSize))
    QelMemory::Prefault(p, static_cast<long>(n * sizeof(T)));
  if (zeroed) std::fill(p, p + n, T());
  return p;
}

class QelCbcI : public QelEngineI {
  QEL_RTTI_DECL(QelCbcI, QelEngineI)

 public:
  explicit QelCbcI(QelEnvI* env) : QelEngineI(env, "CBC") { makeLp(); }

  using QelEngineI::applyNotice;
  using QelEngineI::extractObject;
  using QelEngineI::modifyObject;
  using QelEngineI::unextractObject;

  // The LP as a solve would load it (for QelCbcLoad); returns its nonzeros.
  long loadOnly() {
    update();
    compactIfWorthIt();
    Built b = build();
    long nnz = b.lp->getNumElements();
    _loaded = std::move(b.lp);
    return nnz;
  }

  // Writes the LP a solve would give CBC's driver, with criterion
  // `criterion` as its objective (see QelCbcWriteMps).
  void writeMps(const std::string& path, long criterion) {
    update();
    const QelObjectiveI* obj = getObjective();
    long criteria = obj != nullptr ? obj->getNumCriteria() : 0;
    if (criterion < 0 || criterion >= std::max(1L, criteria))
      throw QelWrongUsage(
          ("QelCbcWriteMps: the objective has no criterion " + std::to_string(criterion)).c_str());
    compactIfWorthIt();
    Built b = build();
    OsiClpSolverInterface& lp = *b.lp;
    std::vector<double> coefs(static_cast<size_t>(lp.getNumCols()), 0.0);
    double constant = 0;
    if (criteria > 0) {
      QelLinearForm f = linear(obj->getCriterion(criterion), obj);
      for (const auto& t : f.terms) coefs[static_cast<size_t>(lpColumnOf(b, t.first))] += t.second;
      constant = f.constant;
    }
    // The file minimizes: a maximization is written as the minimization of
    // the negated criterion.
    bool maximize = obj != nullptr && obj->getSense() == QelObjective::Maximize;
    if (maximize) {
      for (double& v : coefs) v = -v;
      constant = -constant;
    }
    std::vector<std::string> colNames, rowNames;
    lpNames(b, colNames, rowNames);
    std::vector<char> integrality(coefs.size(), 0);
    for (int j = 0; j < lp.getNumCols(); ++j) integrality[static_cast<size_t>(j)] = lp.isInteger(j);
    static_assert(sizeof(CoinSosSet) == sizeof(CoinSet), "an array of sets is read as CoinSet");
    std::vector<CoinSosSet> sets;
    sets.reserve(_sos.size());
    for (const auto& entry : _sos) {
      const Sos& s = entry.second;
      if (s.vars.empty()) continue;
      std::vector<int> which;
      for (const QelNumVarI* v : s.vars) which.push_back(lpColumnOf(b, v));
      sets.emplace_back(static_cast<int>(which.size()), which.data(), s.weights.data(), s.type);
    }
    // The names go in as C strings: CoinUtils 2.11 loses the copies it makes
    // of names given as strings.
    std::vector<const char*> colNamePtrs, rowNamePtrs;
    for (const std::string& n : colNames) colNamePtrs.push_back(n.c_str());
    for (const std::string& n : rowNames) rowNamePtrs.push_back(n.c_str());
    CoinMpsIO file;
    file.messageHandler()->setLogLevel(0);
    file.setMpsData(*lp.getMatrixByCol(), infinity(), lp.getColLower(), lp.getColUpper(),
                    coefs.data(), integrality.data(), lp.getRowLower(), lp.getRowUpper(),
                    colNamePtrs.data(), rowNamePtrs.data());
    // The file's constant is the negated right-hand side of the objective
    // row.
    file.setObjectiveOffset(-constant);
    file.setProblemName("qel");
    int status = -1;
    try {
      status = file.writeMps(path.c_str(), 0, 1, 2, nullptr, static_cast<int>(sets.size()),
                             sets.empty() ? nullptr : sets.data());
    } catch (const CoinError&) {
      status = -1;
    }
    if (status != 0) throw QelException(("cannot open \"" + path + "\" for writing").c_str(), 0);
  }

  // ---- extraction handlers ------------------------------------------------
  void* extractObject(const QelNumVarI* v) override {
    makeColumn(v);
    return nullptr;
  }
  void* extractObject(const QelNumLinTermI* e) override { return looseExpr(e); }
  void* extractObject(const QelIntLinTermI* e) override { return looseExpr(e); }
  void* extractObject(const QelNumProductI* e) override { return looseExpr(e); }

  void* extractObject(const QelRangeI* r) override {
    const QelNumExprI* e = r->getExpr();
    if (e == nullptr) throw refuse(r, "the range has no expression");
    // The hot path of extraction. A linear term of plain terms (the usual
    // row) is read node by node straight into the pool: each variable is
    // looked up once, and nothing is copied on the way.
    if (const QelLinearParts* p = QelPlainLinearParts(e)) {
      for (const QelLinTermNode* n = p->head; n != nullptr; n = n->next)
        mergedEntry(column(n->var), n->coef);
      endRow(r, r->getLB() - p->constant, r->getUB() - p->constant);
      return nullptr;
    }
    const QelLinearForm& f = scratchForm(e, r);
    for (const auto& t : f.terms) mergedEntry(column(t.first), t.second);
    endRow(r, r->getLB() - f.constant, r->getUB() - f.constant);
    return nullptr;
  }

  void* extractObject(const QelDiffI* d) override {
    // x != y as |x - y| >= 1, which needs x - y to take integer values only.
    QelLinearForm f = linear(d->getX(), d);
    if (d->getY() != nullptr)
      f.addScaled(linear(d->getY(), d), -1.0);
    else
      f.constant -= d->getConstant();
    if (!integralTerms(f)) throw notIntegral(d);
    // Integer terms plus a fractional constant are never 0.
    if (!QelIsIntegerValue(f.constant)) return nullptr;
    absAtLeast(d, f, 1);
    return nullptr;
  }

  void* extractObject(const QelAllMinDistanceI* a) override {
    QelInt k = a->getK();
    QelIntExprArray xs = a->getExprArray();
    std::vector<QelLinearForm> forms;
    for (long i = 0; i < xs.getSize(); ++i) forms.push_back(linear(element(xs, i, a), a));
    if (k <= 0) return nullptr;
    for (size_t i = 0; i < forms.size(); ++i)
      for (size_t j = i + 1; j < forms.size(); ++j) {
        QelLinearForm d = forms[i];
        d.addScaled(forms[j], -1.0);
        absAtLeast(a, d, static_cast<double>(k));
      }
    return nullptr;
  }

  void* extractObject(const QelAllDiffI* a) override {
    QelIntExprArray xs = a->getExprArray();
    std::vector<QelLinearForm> forms;
    std::vector<std::pair<double, double>> bounds;
    double columns = 0;
    for (long i = 0; i < xs.getSize(); ++i) {
      forms.push_back(linear(element(xs, i, a), a));
      if (!integralTerms(forms.back())) throw notIntegral(a);
      bounds.push_back(boundsOf(a, forms.back()));
      if (!std::isfinite(bounds.back().first) || !std::isfinite(bounds.back().second))
        throw unbounded(a);
      columns += bounds.back().second - bounds.back().first + 1;
    }
    if (columns > MaxReformulationColumns)
      throw refuse(a, "its assignment reformulation would need more than 200000 binaries");
    if (forms.size() < 2) return nullptr;
    // y[i][v]: expression i takes the value v.
    std::map<double, std::vector<int>> byValue;
    for (size_t i = 0; i < forms.size(); ++i) {
      RowForm link{forms[i], {}};
      // The values of an expression with integer terms: its lower bound plus
      // 0, 1, 2, ...
      auto count = static_cast<long>(std::floor(bounds[i].second - bounds[i].first)) + 1;
      for (long k = 0; k < count; ++k) {
        double v = bounds[i].first + static_cast<double>(k);
        int y = auxColumn(a, 0, 1, true);
        link.aux.emplace_back(y, -v);
        byValue[v].push_back(y);
      }
      for (const auto& t : link.aux) entry(t.first, 1.0);  // one value
      endRow(a, 1, 1);
      addRow(a, link, -link.form.constant, -link.form.constant);
    }
    for (const auto& entry : byValue) {
      if (entry.second.size() < 2) continue;
      for (int y : entry.second) this->entry(y, 1.0);
      endRow(a, -infinity(), 1);
    }
    return nullptr;
  }

  void* extractObject(const QelPackI* p) override {
    if (p->getBoolArrays().getSize() > 0)
      throw refuse(p, "the Boolean arrays of a pack have no meaning for this engine");
    QelIntExprArray load = p->getLoad();
    QelIntExprArray where = p->getWhere();
    QelIntArray weight = p->getWeight();
    if (weight.getSize() != where.getSize()) throw refuse(p, "where and weight differ in size");
    long n = where.getSize();
    long m = load.getSize();
    if (static_cast<double>(n) * static_cast<double>(m) > MaxReformulationColumns)
      throw refuse(p, "its assignment reformulation would need more than 200000 binaries");
    std::vector<QelLinearForm> loads;
    for (long j = 0; j < m; ++j) loads.push_back(linear(element(load, j, p), p));
    std::vector<QelLinearForm> wheres;
    for (long i = 0; i < n; ++i) wheres.push_back(linear(element(where, i, p), p));
    // x[i][j]: item i goes into bin j (bin j is load[j]).
    std::vector<std::vector<int>> x(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) {
      auto b = boundsOf(p, wheres[static_cast<size_t>(i)]);
      RowForm link{wheres[static_cast<size_t>(i)], {}};
      for (long j = 0; j < m; ++j) {
        bool possible = static_cast<double>(j) >= b.first && static_cast<double>(j) <= b.second;
        int c = auxColumn(p, 0, possible ? 1 : 0, true);
        x[static_cast<size_t>(i)].push_back(c);
        link.aux.emplace_back(c, -static_cast<double>(j));
      }
      for (int c : x[static_cast<size_t>(i)]) entry(c, 1.0);  // one bin
      endRow(p, 1, 1);
      addRow(p, link, -link.form.constant, -link.form.constant);
    }
    for (long j = 0; j < m; ++j) {
      RowForm link{loads[static_cast<size_t>(j)], {}};
      for (long i = 0; i < n; ++i)
        link.aux.emplace_back(x[static_cast<size_t>(i)][static_cast<size_t>(j)],
                              -static_cast<double>(weight[i]));
      addRow(p, link, -link.form.constant, -link.form.constant);
    }
    if (p->getUsed() == nullptr && p->getUsedSet() == nullptr) return nullptr;
    // u[j]: bin j holds at least one item.
    std::set<QelInt> allowed;
    if (p->getUsedSet() != nullptr) {
      QelIntArray possible = p->getUsedSet()->getPossible();
      for (long i = 0; i < possible.getSize(); ++i) allowed.insert(possible[i]);
    }
    std::vector<int> u;
    for (long j = 0; j < m; ++j) {
      bool may = p->getUsedSet() == nullptr || allowed.count(j) != 0;
      int c = auxColumn(p, 0, may ? 1 : 0, true);
      u.push_back(c);
      for (long i = 0; i < n; ++i) {  // x[i][j] <= u[j]
        entry(x[static_cast<size_t>(i)][static_cast<size_t>(j)], 1.0);
        entry(c, -1.0);
        endRow(p, -infinity(), 0);
      }
      entry(c, 1.0);  // u[j] <= sum_i x[i][j]
      for (long i = 0; i < n; ++i) entry(x[static_cast<size_t>(i)][static_cast<size_t>(j)], -1.0);
      endRow(p, -infinity(), 0);
    }
    if (p->getUsed() != nullptr) {
      RowForm link{linear(p->getUsed(), p), {}};
      for (int c : u) link.aux.emplace_back(c, -1.0);
      addRow(p, link, -link.form.constant, -link.form.constant);
    }
    if (QelIntSetVarI* s = p->getUsedSet()) {
      if (s->getCardVar() != nullptr) {
        RowForm link;
        link.form.addTerm(s->getCardVar(), 1.0);
        for (int c : u) link.aux.emplace_back(c, -1.0);
        addRow(p, link, 0, 0);
      }
      std::vector<std::pair<QelInt, int>> members;
      for (long j = 0; j < m; ++j) members.emplace_back(j, u[static_cast<size_t>(j)]);
      _setColumns[s] = {p, members};
    }
    return nullptr;
  }

  void* extractObject(const QelSOS1I* s) override {
    return sos(s, 1, s->getVarArray(), s->getValArray());
  }
  void* extractObject(const QelSOS2I* s) override {
    return sos(s, 2, s->getVarArray(), s->getValArray());
  }

  void* objectiveActivated(const QelObjectiveI* obj, void*) override {
    // Every criterion must be linear; a single one is loaded into the LP.
    long n = obj->getNumCriteria();
    if (n != 1) {
      for (long i = 0; i < n; ++i) scratchForm(obj->getCriterion(i), obj);
      clearObjective();
      return nullptr;
    }
    const QelNumExprI* e = obj->getCriterion(0);
    if (const QelLinearParts* p = QelPlainLinearParts(e)) {
      // Read in place, as a range's row: the columns first (which may
      // fail), then the coefficients.
      for (const QelLinTermNode* t = p->head; t != nullptr; t = t->next) column(t->var);
      clearObjective();
      for (const QelLinTermNode* t = p->head; t != nullptr; t = t->next)
        _cols[static_cast<size_t>(findColumn(t->var))].obj += t->coef;
      return nullptr;
    }
    const QelLinearForm& f = scratchForm(e, obj);
    clearObjective();
    // Repeated variables add up in place: no merge needed.
    for (const auto& t : f.terms) _cols[static_cast<size_t>(findColumn(t.first))].obj += t.second;
    return nullptr;
  }

  void* objectiveDeactivated(const QelObjectiveI*, void*) override {
    clearObjective();
    return nullptr;
  }

 protected:
  void resetForm() override { makeLp(); }

  void addToForm(QelExtractableI* m) override {
    try {
      extractThroughHook(m);
    } catch (const CoinError& e) {
      dropOpenRow();
      deleteOwned(m);
      throw refuse(m, "CBC refused it: " + e.message());
    } catch (...) {
      dropOpenRow();
      deleteOwned(m);
      throw;
    }
  }

  void removeFromForm(QelExtractableI* m) override { deleteOwned(m); }

  void forget(const QelExtractableI* x) override {
    const auto* v = QelDynamicCast<const QelNumVarI>(x);
    if (v == nullptr) return;
    int c = findColumn(v);
    if (c < 0) return;
    // Rows of members that used it lose its coefficients (dead columns are
    // left out when the LP is built); those members were removed or are
    // re-extracted before the next solve.
    killColumn(c);
    _colById.at(v->getId()) = 0;
    for (auto& owner : _boundsUsed)
      owner.second.erase(std::remove(owner.second.begin(), owner.second.end(), v),
                         owner.second.end());
  }

  void syncVariables() override {
    for (Column& c : _cols) {
      const QelNumVarI* v = c.var;
      if (v == nullptr || !c.alive) continue;
      if (v->getLB() == c.lb && v->getUB() == c.ub && v->getType() == c.type) continue;
      countSilentChange();
      // Reformulations and sets read the bounds: their owners are
      // re-extracted.
      for (const auto& owner : _boundsUsed)
        if (std::find(owner.second.begin(), owner.second.end(), v) != owner.second.end())
          markStale(owner.first);
      c.lb = v->getLB();
      c.ub = v->getUB();
      c.type = v->getType();
      countIncremental();
    }
  }

  void objectiveChanged(const QelObjectiveI* obj, const QelChange& change) override {
    if (obj != getObjective()) return;
    try {
      if (obj->getNumCriteria() != 1 || QelDynamicCast<const QelSetObjSense>(&change) != nullptr) {
        // The sense and the criteria of a lexicographic objective are read
        // at each solve.
      } else if (QelDynamicCast<const QelSetObjConst>(&change) != nullptr) {
        // The constant is added to the value at each solve.
      } else if (const auto* c = QelDynamicCast<const QelSetObjCoef>(&change)) {
        updateObjCoef(obj, {c->getVar()});
      } else if (const auto* cs = QelDynamicCast<const QelSetObjCoefs>(&change)) {
        std::vector<const QelNumVarI*> vars;
        QelNumVarArray xs = cs->getVars();
        for (long i = 0; i < xs.getSize(); ++i)
          vars.push_back(static_cast<const QelNumVarI*>(xs.getElement(i)));
        updateObjCoef(obj, vars);
      } else if (const auto* add = QelDynamicCast<const QelAddValueToObj>(&change)) {
        updateObjCoef(obj, {static_cast<const QelNumVarI*>(add->getObj())});
      } else {
        // A new expression or a quadratic coefficient: the whole objective.
        objectiveActivated(obj, nullptr);
      }
      rehash(obj);
      countIncremental();
    } catch (const QelException&) {
      // Refused (a quadratic objective): the re-extraction before the next
      // solve throws the refusal.
      markStale(obj);
    }
  }

  std::vector<std::string> getEngineParamNames() const override {
    return {
        "any option of CBC's own driver by its name (cuts, preprocess, heuristicsOnOff, "
        "strongBranching, gomoryCuts, feasibilityPump, ...)"};
  }

  // An option of CBC's driver, checked against the driver's own table of
  // options: its name, and its value (a keyword the option knows, or a
  // number in its range). Actions (solve, import, ...) are refused.
  bool setEngineParam(const std::string& name, const std::string& value) override {
    if (name == "keepHeap") {
      if (value != "on" && value != "off")
        throw badParam(name, "\"" + value + "\" is not one of on, off");
      _keepHeap = value == "on";
      return true;
    }
    const std::vector<CbcOrClpParam>& table = DriverOptions();
    auto it = std::find_if(table.begin(), table.end(), [&name](const CbcOrClpParam& p) {
      return p.matches(name) != 0 && p.type() < CLP_PARAM_ACTION_DIRECTORY;
    });
    if (it == table.end()) return false;
    int type = it->type();
    if (type >= CLP_PARAM_STR_DIRECTION) {
      if (it->parameterOption(value) < 0) {
        std::string known;
        for (const std::string& k : it->definedKeywords()) known += (known.empty() ? "" : ", ") + k;
        throw badParam(name, "\"" + value + "\" is not one of " + known);
      }
    } else if (type >= CLP_PARAM_INT_SOLVERLOGLEVEL) {
      double v = paramNumber(name, value);
      if (v != std::floor(v) || v < it->lowerIntValue() || v > it->upperIntValue())
        throw badParam(name, "\"" + value + "\" is not a whole number from " +
                                 std::to_string(it->lowerIntValue()) + " to " +
                                 std::to_string(it->upperIntValue()));
    } else {
      double v = paramNumber(name, value);
      if (v < it->lowerDoubleValue() || v > it->upperDoubleValue())
        throw badParam(name, "\"" + value + "\" is out of the range " +
                                 QelEngineLog::Number(it->lowerDoubleValue()) + " to " +
                                 QelEngineLog::Number(it->upperDoubleValue()));
    }
    for (auto& option : _options)
      if (option.first == name) {
        option.second = value;
        return true;
      }
    _options.emplace_back(name, value);
    return true;
  }

  QelFormSize getFormSize() const override {
    QelFormSize size;
    size.rows = _liveRows;
    size.columns = _liveCols;
    for (const Column& c : _cols)
      if (c.alive && c.type != QelVarType::Float) ++size.integers;
    return size;
  }

  QelEngineStatus runSolve() override {
    try {
      return solveStages();
    } catch (const CoinError& e) {
      throw QelEngineError("CBC engine: the solve failed: " + e.message());
    }
  }

 private:
  // A column of the form. Its index never changes while it lives (columns
  // are renumbered only by compact()).
  struct Column {
    const QelNumVarI* var = nullptr;         // a model variable, or null
    const QelExtractableI* owner = nullptr;  // the member an auxiliary column belongs to
    double lb = 0;                           // bounds and type as last read
    double ub = 0;
    QelVarType type = QelVarType::Float;
    double obj = 0;  // coefficient of a single-criterion objective
    bool alive = true;
  };
  // A row: a linear form (its variables) and auxiliary columns.
  struct RowForm {
    QelLinearForm form;
    std::vector<std::pair<int, double>> aux;
  };
  struct Sos {
    int type = 1;
    std::vector<const QelNumVarI*> vars;
    std::vector<double> weights;
  };
  struct SetColumns {
    const QelExtractableI* owner = nullptr;
    std::vector<std::pair<QelInt, int>> members;  // value, column of u
  };

  void makeLp() {
    _cols.clear();
    _colById.clear();
    _rowStart.assign(1, 0);
    _rowCol.clear();
    _rowVal.clear();
    _rowLb.clear();
    _rowUb.clear();
    _rowOwner.clear();
    _rowAlive.clear();
    _ownedRows.clear();
    _ownedCols.clear();
    _deadEntries = 0;
    _liveCols = 0;
    _liveRows = 0;
    _sos.clear();
    _setColumns.clear();
    _boundsUsed.clear();
  }

  static double infinity() { return COIN_DBL_MAX; }
  // Bounds of magnitude 1e20 and more are infinite.
  static double lower(double v) { return QelIsInfiniteBound(v) && v < 0 ? -infinity() : v; }
  static double upper(double v) { return QelIsInfiniteBound(v) && v > 0 ? infinity() : v; }

  QelEngineError notIntegral(const QelExtractableI* x) const {
    return refuse(x,
                  "its integer reformulation needs integer variables and integer "
                  "coefficients");
  }
  QelEngineError unbounded(const QelExtractableI* x) const {
    return refuse(x, "its integer reformulation needs finite bounds on every variable");
  }

  // Whether the terms of `f` take integer values only (integer variables,
  // integer coefficients); the constant may be anything.
  static bool integralTerms(const QelLinearForm& f) {
    QelLinearForm terms = f;
    terms.constant = 0;
    return QelIsIntegral(terms);
  }

  const QelNumExprI* element(const QelExtractableArray& a, long i, const QelExtractableI* owner) {
    const auto* e = static_cast<const QelNumExprI*>(a.getElement(i));
    if (e == nullptr) throw refuse(owner, "it holds an empty expression");
    return e;
  }

  // The linear form of `e`, refused (naming `owner`) when it is not linear;
  // its variables get their columns, those whose terms cancel out too (the
  // solution holds a value for every variable of the model's expressions,
  // which their evaluation needs).
  QelLinearForm linear(const QelNumExprI* e, const QelExtractableI* owner) {
    if (e == nullptr) throw refuse(owner, "it holds an empty expression");
    QelLinearForm f;
    QelLinearize(e, 1.0, f);
    if (!f.unsupported.empty()) throw refuse(owner, f.unsupported + " is not supported");
    if (!f.quad.empty())
      throw refuse(owner, "quadratic terms are not supported (CBC solves linear models)");
    for (const auto& t : f.terms) column(t.first);
    f.merge();
    return f;
  }

  // The linear form of `e` with its terms unmerged, in a buffer reused by
  // every call (valid until the next call), refused (naming `owner`) when it
  // is not linear; its variables get their columns.
  const QelLinearForm& scratchForm(const QelNumExprI* e, const QelExtractableI* owner) {
    if (e == nullptr) throw refuse(owner, "it holds an empty expression");
    QelLinearForm& f = _scratch;
    f.constant = 0;
    f.terms.clear();
    f.quad.clear();
    f.unsupported.clear();
    QelLinearize(e, 1.0, f);
    if (!f.unsupported.empty()) throw refuse(owner, f.unsupported + " is not supported");
    if (!f.quad.empty())
      throw refuse(owner, "quadratic terms are not supported (CBC solves linear models)");
    for (const auto& t : f.terms) column(t.first);
    return f;
  }

  // The column of `v` (-1 when it has none).
  int findColumn(const QelNumVarI* v) const {
    const int* c = _colById.find(v->getId());
    return c != nullptr ? *c - 1 : -1;
  }

  // The column of `v`, made through the variable's hook when new.
  int column(const QelNumVarI* v) {
    int c = findColumn(v);
    if (c >= 0) return c;
    extractThroughHook(v);  // extractObject(const QelNumVarI*): makeColumn
    return findColumn(v);
  }

  void makeColumn(const QelNumVarI* v) {
    if (findColumn(v) >= 0) return;
    _colById.at(v->getId()) = static_cast<int>(_cols.size()) + 1;
    Column c;
    c.var = v;
    c.lb = v->getLB();
    c.ub = v->getUB();
    c.type = v->getType();
    _cols.push_back(c);
    ++_liveCols;
  }

  int auxColumn(const QelExtractableI* owner, double lb, double ub, bool integer) {
    Column c;
    c.owner = owner;
    c.lb = lb;
    c.ub = ub;
    c.type = integer ? QelVarType::Int : QelVarType::Float;
    auto index = static_cast<int>(_cols.size());
    _cols.push_back(c);
    extend(_ownedCols[owner], index);
    ++_liveCols;
    return index;
  }

  // Extends the index range `range` ([first, end), empty when first == end)
  // to hold `i`.
  static void extend(std::pair<int, int>& range, int i) {
    if (range.first == range.second) {
      range = {i, i + 1};
    } else {
      range.first = std::min(range.first, i);
      range.second = std::max(range.second, i + 1);
    }
  }

  // Rows go straight into one coefficient pool (row-major): entry() adds a
  // coefficient to the open row, endRow() closes it.
  void entry(int col, double value) {
    if (value == 0.0) return;
    _rowCol.push_back(col);
    _rowVal.push_back(value);
  }
  // Drops the entries of a row left open by a failed extraction.
  void dropOpenRow() {
    _rowCol.resize(_rowStart.back());
    _rowVal.resize(_rowStart.back());
    _mergedZeros = false;
  }

  // entry() for a row whose columns may repeat: a repeated column adds to
  // the coefficient it already has in the open row (found through
  // _entryOf, no hashing); zero sums are dropped when the row closes.
  void mergedEntry(int col, double value) {
    auto c = static_cast<size_t>(col);
    if (c >= _entryOf.size()) _entryOf.resize(std::max(c + 1, 2 * _entryOf.size()), 0);
    size_t at = _entryOf[c];
    if (at >= _rowStart.back() && at < _rowCol.size() && _rowCol[at] == col) {
      _rowVal[at] += value;
      _mergedZeros = _mergedZeros || _rowVal[at] == 0.0;
      return;
    }
    if (value == 0.0) return;
    _entryOf[c] = _rowCol.size();
    _rowCol.push_back(col);
    _rowVal.push_back(value);
  }
  void endRow(const QelExtractableI* owner, double lb, double ub) {
    if (_mergedZeros) {
      // Terms that cancelled out leave the row.
      size_t out = _rowStart.back();
      for (size_t e = out; e < _rowCol.size(); ++e) {
        if (_rowVal[e] == 0.0) continue;
        _rowCol[out] = _rowCol[e];
        _rowVal[out++] = _rowVal[e];
      }
      _rowCol.resize(out);
      _rowVal.resize(out);
      _mergedZeros = false;
    }
    _rowStart.push_back(_rowCol.size());
    _rowLb.push_back(lower(lb));
    _rowUb.push_back(upper(ub));
    _rowOwner.push_back(owner);
    _rowAlive.push_back(1);
    addOwnedRow(owner, static_cast<int>(_rowLb.size() - 1));
    ++_liveRows;
  }

  // A row lb <= form (constant excluded) + auxiliary terms <= ub. The form's
  // terms are merged and never share a column with the auxiliary terms.
  void addRow(const QelExtractableI* owner, const RowForm& f, double lb, double ub) {
    for (const auto& t : f.form.terms) entry(column(t.first), t.second);
    for (const auto& t : f.aux) entry(t.first, t.second);
    endRow(owner, lb, ub);
  }

  // |d| >= k (k > 0) over a form d with finite bounds [L, U]: one binary
  // b, d >= L + (k - L) b and d <= -k + (U + k) b (b = 1: d >= k; b = 0:
  // d <= -k).
  void absAtLeast(const QelExtractableI* owner, const QelLinearForm& d, double k) {
    auto b = boundsOf(owner, d);
    if (b.first >= k || b.second <= -k) return;  // always satisfied
    if (!std::isfinite(b.first) || !std::isfinite(b.second)) throw unbounded(owner);
    int bin = auxColumn(owner, 0, 1, true);
    RowForm up{d, {{bin, -(k - b.first)}}};
    addRow(owner, up, b.first - d.constant, infinity());
    RowForm down{d, {{bin, -(b.second + k)}}};
    addRow(owner, down, -infinity(), -k - d.constant);
  }

  // The bounds of `f`, remembering that `owner`'s rows depend on the bounds
  // of its variables (a change of them has the owner re-extracted).
  std::pair<double, double> boundsOf(const QelExtractableI* owner, const QelLinearForm& f) {
    auto& used = _boundsUsed[owner];
    for (const auto& t : f.terms) used.push_back(t.first);
    return QelBoundsOf(f);
  }

  void* sos(const QelExtractableI* s, int type, QelNumVarArray vars, QelNumArray vals) {
    Sos set;
    set.type = type;
    double last = 0;
    for (long i = 0; i < vars.getSize(); ++i) {
      const auto* v = static_cast<const QelNumVarI*>(vars.getElement(i));
      if (v == nullptr) throw refuse(s, "it holds an empty variable");
      if (std::find(set.vars.begin(), set.vars.end(), v) != set.vars.end())
        throw refuse(s, "the variable " + QelDescribe(v) + " appears twice");
      // CBC's set branching fixes variables to zero; on a member whose lower
      // bound is above zero it fails an internal check and aborts the process.
      if (v->getLB() < 0)
        throw refuse(s, "the variable " + QelDescribe(v) + " has a negative lower bound");
      if (v->getLB() > 0)
        throw refuse(s, "the variable " + QelDescribe(v) + " has a lower bound above zero");
      _boundsUsed[s].push_back(v);
      column(v);
      double w = i < vals.getSize() ? vals[i] : last + 1;
      if (!std::isfinite(w)) throw refuse(s, "a weight is not finite");
      set.vars.push_back(v);
      set.weights.push_back(w);
      last = w;
    }
    std::vector<double> sorted = set.weights;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end())
      throw refuse(s, "two variables have the same weight (the weights order the set)");
    _sos[s] = set;
    return nullptr;
  }

  void* looseExpr(const QelNumExprI* e) {
    // An expression alone constrains nothing: its variables get columns
    // (those whose terms cancel out too).
    QelLinearForm f;
    QelLinearize(e, 1.0, f);
    for (const auto& t : f.terms) column(t.first);
    for (const auto& q : f.quad) {
      column(q.var1);
      column(q.var2);
    }
    if (!f.unsupported.empty()) throw refuse(e, f.unsupported + " is not supported");
    return nullptr;
  }

  void clearObjective() {
    for (Column& c : _cols) c.obj = 0;
  }

  void updateObjCoef(const QelObjectiveI* obj, const std::vector<const QelNumVarI*>& vars) {
    QelLinearForm f = linear(obj->getCriterion(0), obj);
    for (const QelNumVarI* v : vars) {
      double coef = 0;
      for (const auto& t : f.terms)
        if (t.first == v) coef += t.second;
      _cols[static_cast<size_t>(column(v))].obj = coef;
    }
  }

  void killColumn(int c) {
    Column& col = _cols[static_cast<size_t>(c)];
    if (!col.alive) return;
    col.alive = false;
    --_liveCols;
  }

  // Deletes every row and auxiliary column `m` made, and its set data: the
  // rows are marked dead in the pool (compact() takes them out).
  void deleteOwned(const QelExtractableI* m) {
    if (OwnedRows* rows = findOwnedRows(m)) {
      for (auto r = static_cast<size_t>(rows->first); r < static_cast<size_t>(rows->end); ++r) {
        if (_rowAlive[r] == 0 || _rowOwner[r] != m) continue;
        _rowAlive[r] = 0;
        --_liveRows;
        _deadEntries += _rowStart[r + 1] - _rowStart[r];
      }
      *rows = OwnedRows();
    }
    auto cols = _ownedCols.find(m);
    if (cols != _ownedCols.end()) {
      // Model variables' columns made meanwhile lie in the range too.
      for (int c = cols->second.first; c < cols->second.second; ++c)
        if (_cols[static_cast<size_t>(c)].owner == m) killColumn(c);
      _ownedCols.erase(cols);
    }
    _sos.erase(m);
    _boundsUsed.erase(m);
    for (auto it = _setColumns.begin(); it != _setColumns.end();) {
      if (it->second.owner == m)
        it = _setColumns.erase(it);
      else
        ++it;
    }
  }

  // Takes dead rows and columns out of the form once they make up half of
  // it, renumbering what lives, so that following changes keeps the form's
  // size proportional to the model's.
  void compactIfWorthIt() {
    bool rowsWorth = _deadEntries > 1024 && 2 * _deadEntries > _rowCol.size();
    bool colsWorth = _cols.size() > 1024 && 2 * static_cast<size_t>(_liveCols) < _cols.size();
    if (!rowsWorth && !colsWorth) return;
    countCompaction();
    std::vector<int> newCol(_cols.size(), -1);
    QelPodVector<Column> cols;
    cols.reserve(static_cast<size_t>(_liveCols));
    for (size_t c = 0; c < _cols.size(); ++c) {
      if (!_cols[c].alive) continue;
      newCol[c] = static_cast<int>(cols.size());
      cols.push_back(_cols[c]);
    }
    QelPodVector<size_t> start(1, 0);
    QelPodVector<int> rowCol;
    QelPodVector<double> rowVal;
    QelPodVector<double> lb, ub;
    QelPodVector<const QelExtractableI*> owner;
    for (size_t r = 0; r + 1 < _rowStart.size(); ++r) {
      if (_rowAlive[r] == 0) continue;
      for (size_t e = _rowStart[r]; e < _rowStart[r + 1]; ++e) {
        int c = newCol[static_cast<size_t>(_rowCol[e])];
        if (c < 0) continue;
        rowCol.push_back(c);
        rowVal.push_back(_rowVal[e]);
      }
      start.push_back(rowCol.size());
      lb.push_back(_rowLb[r]);
      ub.push_back(_rowUb[r]);
      owner.push_back(_rowOwner[r]);
    }
    _rowStart.swap(start);
    _rowCol.swap(rowCol);
    _rowVal.swap(rowVal);
    _rowLb.swap(lb);
    _rowUb.swap(ub);
    _rowOwner.swap(owner);
    _rowAlive.assign(_rowOwner.size(), 1);
    _deadEntries = 0;
    _cols.swap(cols);
    // Each member's rows and columns stay together and in order.
    _ownedRows.clear();
    _ownedCols.clear();
    for (size_t r = 0; r < _rowOwner.size(); ++r) addOwnedRow(_rowOwner[r], static_cast<int>(r));
    for (size_t c = 0; c < _cols.size(); ++c)
      if (_cols[c].owner != nullptr) extend(_ownedCols[_cols[c].owner], static_cast<int>(c));
    for (auto& set : _setColumns)
      for (auto& member : set.second.members)
        member.second = newCol[static_cast<size_t>(member.second)];
    for (const Column& c : _cols)
      if (c.var != nullptr) _colById.at(c.var->getId()) = static_cast<int>(&c - _cols.data()) + 1;
  }

  // The LP of the form, loaded in one piece.
  struct Built {
    std::unique_ptr<OsiClpSolverInterface> lp;
    std::vector<int> lpColumn;  // form column -> LP column (-1: dead)
    bool integers = false;      // whether some column is integer
  };

  Built build() {
    Built b;
    b.lpColumn.assign(_cols.size(), -1);
    std::vector<double> collb, colub, obj;
    std::vector<int> ints;
    collb.reserve(static_cast<size_t>(_liveCols));
    colub.reserve(static_cast<size_t>(_liveCols));
    obj.reserve(static_cast<size_t>(_liveCols));
    for (size_t c = 0; c < _cols.size(); ++c) {
      const Column& col = _cols[c];
      if (!col.alive) continue;
      auto k = static_cast<int>(collb.size());
      b.lpColumn[c] = k;
      collb.push_back(lower(col.lb));
      colub.push_back(upper(col.ub));
      obj.push_back(col.obj);
      if (col.type != QelVarType::Float) ints.push_back(k);
    }
    // Live rows get LP rows in order; CLP keeps its matrix column-ordered,
    // so the pool is transposed once, here, into arrays CLP takes over
    // without copying them.
    std::vector<double> rowlb, rowub;
    rowlb.reserve(static_cast<size_t>(_liveRows));
    rowub.reserve(static_cast<size_t>(_liveRows));
    auto cols = static_cast<int>(collb.size());
    auto* length = NewLpArray<int>(static_cast<size_t>(cols), true);
    std::unique_ptr<int[]> lengthOwner(length);
    CoinBigIndex nnz = 0;
    for (size_t r = 0; r + 1 < _rowStart.size(); ++r) {
      if (_rowAlive[r] == 0) continue;
      rowlb.push_back(_rowLb[r]);
      rowub.push_back(_rowUb[r]);
    }
    forEachLiveEntry(b, [&](int, int c, double) {
      ++length[c];
      ++nnz;
    });
    bool freeRow = rowlb.empty() && cols > 0;
    if (freeRow) {
      // CLP's strong branching fails on a problem without rows: one free
      // row that constrains nothing.
      ++length[0];
      ++nnz;
      rowlb.push_back(-infinity());
      rowub.push_back(infinity());
    }
    auto rows = static_cast<int>(rowlb.size());
    std::unique_ptr<CoinBigIndex[]> start(
        NewLpArray<CoinBigIndex>(static_cast<size_t>(cols) + 1, true));
    for (int c = 0; c < cols; ++c) start[c + 1] = start[c] + length[c];
    std::unique_ptr<int[]> index(
        NewLpArray<int>(static_cast<size_t>(std::max<CoinBigIndex>(nnz, 1)), false));
    std::unique_ptr<double[]> value(
        NewLpArray<double>(static_cast<size_t>(std::max<CoinBigIndex>(nnz, 1)), false));
    {
      // Fill each column at its next free place; rows come in order, so
      // each column's entries end up sorted by row.
      std::vector<CoinBigIndex> next(start.get(), start.get() + cols);
      forEachLiveEntry(b, [&](int row, int c, double v) {
        CoinBigIndex at = next[static_cast<size_t>(c)]++;
        index[at] = row;
        value[at] = v;
      });
      if (freeRow) {
        index[0] = 0;
        value[0] = 1.0;
      }
    }
    b.lp = std::make_unique<OsiClpSolverInterface>();
    b.lp->messageHandler()->setLogLevel(0);
    // The bounds and the objective are loaded with an empty matrix of the
    // right shape, which the matrix then replaces: CLP takes the arrays
    // over (no copy, no second transposition).
    std::vector<CoinBigIndex> noStart(static_cast<size_t>(cols) + 1, 0);
    int noIndex = 0;
    double noValue = 0;
    b.lp->loadProblem(cols, rows, noStart.data(), &noIndex, &noValue, collb.data(), colub.data(),
                      obj.data(), rowlb.data(), rowub.data());
    auto matrix = std::make_unique<CoinPackedMatrix>();
    {
      double* v = value.release();
      int* i = index.release();
      CoinBigIndex* st = start.release();
      int* len = lengthOwner.release();
      matrix->assignMatrix(true, rows, cols, nnz, v, i, st, len);
    }
    auto clpMatrix = std::make_unique<ClpPackedMatrix>(matrix.get());
    matrix.release();        // now ClpPackedMatrix's
    clpMatrix->checkGaps();  // as CLP's own copy would: no gaps, the fast loops
    b.lp->getModelPtr()->replaceMatrix(clpMatrix.release(), true);
    if (!ints.empty()) b.lp->setInteger(ints.data(), static_cast<int>(ints.size()));
    b.integers = !ints.empty();
    return b;
  }

  // Calls f(row, column, value) for each entry of a live row in a live
  // column, in row order, rows and columns numbered as in the LP `b`.
  template <class F>
  void forEachLiveEntry(const Built& b, F&& f) const {
    int row = 0;
    for (size_t r = 0; r + 1 < _rowStart.size(); ++r) {
      if (_rowAlive[r] == 0) continue;
      for (size_t e = _rowStart[r]; e < _rowStart[r + 1]; ++e) {
        int c = b.lpColumn[static_cast<size_t>(_rowCol[e])];
        if (c >= 0) f(row, c, _rowVal[e]);
      }
      ++row;
    }
  }

  // Names of the LP's columns and rows for a file: a model variable's name
  // or a member's name (with the row's place among the member's rows when
  // it owns several) where that is one word not taken yet, otherwise C<k>
  // and R<k> with the column's or row's index (and a suffix if taken).
  void lpNames(const Built& b, std::vector<std::string>& cols,
               std::vector<std::string>& rows) const {
    std::set<std::string> taken;
    auto give = [&taken](const char* name, const std::string& fallback) {
      std::string n = name != nullptr ? name : "";
      bool word = !n.empty() && n.size() <= 64 && std::none_of(n.begin(), n.end(), [](char ch) {
        return std::isspace(static_cast<unsigned char>(ch)) != 0 ||
               std::iscntrl(static_cast<unsigned char>(ch)) != 0;
      });
      if (!word) n = fallback;
      for (int k = 1; !taken.insert(n).second; ++k) n = fallback + "_" + std::to_string(k);
      return n;
    };
    cols.assign(static_cast<size_t>(b.lp->getNumCols()), std::string());
    for (size_t c = 0; c < _cols.size(); ++c) {
      int k = b.lpColumn[c];
      if (k < 0) continue;
      const QelNumVarI* v = _cols[c].var;
      cols[static_cast<size_t>(k)] =
          give(v != nullptr ? v->getName() : nullptr, "C" + std::to_string(k));
    }
    rows.clear();
    for (size_t r = 0; r + 1 < _rowStart.size(); ++r) {
      if (_rowAlive[r] == 0) continue;
      std::string fallback = "R" + std::to_string(rows.size());
      const QelExtractableI* owner = _rowOwner[r];
      const char* name = owner != nullptr ? owner->getName() : nullptr;
      std::string n;
      if (name != nullptr) {
        n = name;
        const OwnedRows* o = owner != nullptr ? findOwnedRowsConst(owner) : nullptr;
        if (o != nullptr && o->end - o->first > 1)
          n += "." + std::to_string(static_cast<int>(r) - o->first);
      }
      rows.push_back(give(name != nullptr ? n.c_str() : nullptr, fallback));
    }
    // The free row a form without rows gets.
    while (static_cast<int>(rows.size()) < b.lp->getNumRows())
      rows.push_back(give(nullptr, "R" + std::to_string(rows.size())));
  }

  int lpColumnOf(const Built& b, const QelNumVarI* v) const {
    return b.lpColumn[static_cast<size_t>(findColumn(v))];
  }

  // The value of form `f` for the LP column values `x`.
  double valueOf(const Built& b, const QelLinearForm& f, const double* x) const {
    double v = f.constant;
    for (const auto& t : f.terms) v += t.second * x[lpColumnOf(b, t.first)];
    return v;
  }

  // The special ordered sets, handed to CLP's interface as set data: CBC's
  // driver then keeps their columns out of preprocessing and branches on
  // them, as it does for sets read from a file.
  void passSets(OsiClpSolverInterface& lp, const Built& b) const {
    std::vector<char> type;
    std::vector<int> start(1, 0);
    std::vector<int> index;
    std::vector<double> weight;
    for (const auto& entry : _sos) {
      const Sos& s = entry.second;
      if (s.vars.empty()) continue;
      type.push_back(static_cast<char>(s.type));
      for (size_t i = 0; i < s.vars.size(); ++i) {
        index.push_back(lpColumnOf(b, s.vars[i]));
        weight.push_back(s.weights[i]);
      }
      start.push_back(static_cast<int>(index.size()));
    }
    if (!type.empty())
      lp.setSOSData(static_cast<int>(type.size()), type.data(), start.data(), index.data(),
                    weight.data());
  }

  // Reports CBC's figures to the engine at each node and solution, and
  // stops the search when the engine asks to.
  class Progress : public CbcEventHandler {
   public:
    // `sense`: 1 to minimize, -1 to maximize; `constant`: the criterion's
    // constant (the LP's objective has none).
    Progress(QelCbcI* engine, double sense, double constant)
        : _engine(engine), _sense(sense), _constant(constant) {}
    CbcAction event(CbcEvent which) override {
      if (which != node && which != solution && which != heuristicSolution && which != treeStatus)
        return noAction;
      const CbcModel* m = getModel();
      // The driver may minimize the negated objective of a maximization:
      // its figures come back in the model's own sense.
      double flip = m->getObjSense() == _sense ? 1.0 : -1.0;
      QelEngineProgress p;
      p.time = _engine->elapsed();
      p.nodes = m->getNodeCount();
      p.iterations = m->getIterationCount();
      p.solutions = m->getSolutionCount();
      p.hasIncumbent = m->bestSolution() != nullptr;
      if (p.hasIncumbent) p.incumbent = flip * m->getObjValue() + _constant;
      p.hasBound = true;
      p.bound = flip * m->getBestPossibleObjValue() + _constant;
      if (p.hasIncumbent)
        p.bound = _sense > 0 ? std::min(p.bound, p.incumbent) : std::max(p.bound, p.incumbent);
      return _engine->reportProgress(p) ? stop : noAction;
    }
    CbcEventHandler* clone() const override { return new Progress(*this); }

   private:
    QelCbcI* _engine;
    double _sense;
    double _constant;
  };

  // The arguments of CBC's driver for the engine's settings, then the
  // options set by name, then the solve.
  std::vector<std::string> driverArguments() const {
    const QelEngineParams& p = getParams();
    std::vector<std::string> args{"qel"};
    auto add = [&args](const std::string& name, const std::string& value) {
      args.push_back("-" + name);
      args.push_back(value);
    };
    add("log", p.logLevel >= 2 ? "1" : "0");
    add("timeMode", "elapsed");  // the time limit is wall-clock time
    if (p.timeLimit > 0) add("sec", QelEngineLog::Number(std::max(0.001, remainingTime())));
    if (p.relativeGap >= 0) add("ratioGap", QelEngineLog::Number(p.relativeGap));
    if (p.absoluteGap >= 0) add("allowableGap", QelEngineLog::Number(p.absoluteGap));
    if (p.nodeLimit > 0) add("maxNodes", std::to_string(p.nodeLimit));
    if (p.solutionLimit > 0) add("maxSolutions", std::to_string(p.solutionLimit));
    if (p.threads != 1) {
      unsigned n =
          p.threads > 0 ? static_cast<unsigned>(p.threads) : std::thread::hardware_concurrency();
      add("threads", std::to_string(std::max(1u, n)));
    }
    if (p.randomSeed >= 0) {
      add("randomCbcSeed", std::to_string(p.randomSeed));
      add("randomSeed", std::to_string(p.randomSeed));
    }
    // CBC 2.10's preprocessing fails an internal check on models with
    // special ordered sets (CglPreProcess: numberProhibited_ differs from the
    // number of columns) and would abort the process: the driver runs without
    // it there, with its cut generators and heuristics.
    if (!_sos.empty()) add("preprocess", "off");
    for (const auto& option : _options) add(option.first, option.second);
    args.emplace_back("-solve");
    args.emplace_back("-quit");
    return args;
  }

  // What one stage of the solve found.
  struct Outcome {
    QelEngineStatus status = QelEngineStatus::Unknown;
    std::vector<double> x;
    double objective = 0;
    double bound = 0;
  };

  // Solves `lp` (its current objective) as a pure LP.
  Outcome solveLp(OsiClpSolverInterface& lp) {
    Outcome out;
    if (getParams().timeLimit > 0) lp.getModelPtr()->setMaximumSeconds(remainingTime());
    if (getParams().logLevel >= 2) {
      // CLP's own lines go to the engine's log.
      _logHandler.setLogLevel(1);
      lp.passInMessageHandler(&_logHandler);
    }
    lp.initialSolve();
    report().iterations += lp.getIterationCount();
    if (lp.isProvenOptimal()) {
      out.status = QelEngineStatus::Optimal;
      out.x.assign(lp.getColSolution(), lp.getColSolution() + lp.getNumCols());
      out.objective = lp.getObjValue();
      out.bound = out.objective;
      report().solutions += 1;
    } else if (lp.isProvenPrimalInfeasible()) {
      out.status = QelEngineStatus::Infeasible;
    } else if (lp.isProvenDualInfeasible()) {
      out.status = QelEngineStatus::Unbounded;
    }
    return out;
  }

  // Solves `lp` with CBC's standard machinery, as its driver does:
  // preprocessing, cut generators, heuristics, strong branching, with the
  // engine's settings; the solution comes back in the columns of `lp`.
  Outcome solveMip(const OsiClpSolverInterface& lp, const Built& b, double constant, bool report) {
    Outcome out;
    CbcModel model(lp);
    CbcSolverUsefulData data;
    data.noPrinting_ = getParams().logLevel < 2;
    data.useSignalHandler_ = false;
    CbcMain0(model, data);
    // The initial LP counts against the time limit too (wall-clock).
    if (getParams().timeLimit > 0) {
      if (auto* clp = dynamic_cast<OsiClpSolverInterface*>(model.solver()))
        clp->getModelPtr()->setMaximumWallSeconds(0.95 * remainingTime());
    }
    Progress progress(this, lp.getObjSense(), constant);
    if (report) model.passInEventHandler(&progress);
    if (getParams().logLevel < 2) {
      model.messageHandler()->setLogLevel(0);
      model.solver()->messageHandler()->setLogLevel(0);
    } else {
      // CBC's, CLP's and the driver's own lines go to the engine's log.
      _logHandler.setLogLevel(1);
      model.passInMessageHandler(&_logHandler);
      model.solver()->passInMessageHandler(&_logHandler);
    }
    std::vector<std::string> args = driverArguments();
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    // No phase callback stops the driver: CBC 2.10 leaks its solver copy
    // when a phase callback ends the solve; the LP's wall-clock limit and
    // "-sec" bound the time.
    KeepHeap heap(_keepHeap);
    CbcMain1(static_cast<int>(argv.size()), argv.data(), model, nullptr, data);
    // CBC's driver, stopped by its time budget in the middle of
    // preprocessing, can end a little before the engine's limit and call the
    // model proven infeasible: without a solution, a run that used all but
    // the last 5% of the time limit proves nothing.
    bool outOfTime = getParams().timeLimit > 0 && remainingTime() <= 0.05 * getParams().timeLimit;
    if (report) {
      this->report().nodes += model.getNodeCount();
      this->report().iterations += model.getIterationCount();
      this->report().solutions += model.getSolutionCount();
    }
    const double* best = model.bestSolution();
    int secondary = model.secondaryStatus();
    out.bound = model.getBestPossibleObjValue();
    if (best != nullptr) {
      out.x.assign(best, best + lp.getNumCols());
      out.objective = model.getObjValue();
      bool closed =
          std::fabs(out.objective - out.bound) <= 1e-9 * std::max(1.0, std::fabs(out.objective));
      out.status = model.status() == 0 && (secondary == 0 || closed) ? QelEngineStatus::Optimal
                                                                     : QelEngineStatus::Feasible;
      if (out.status == QelEngineStatus::Optimal) out.bound = out.objective;
    } else if (outOfTime || stopRequested()) {
      out.status = QelEngineStatus::Unknown;  // stopped before any solution
    } else if (model.isProvenInfeasible() || secondary == 1 ||
               model.isInitialSolveProvenPrimalInfeasible()) {
      out.status = QelEngineStatus::Infeasible;
    } else if (secondary == 7 || model.isContinuousUnbounded() ||
               model.isInitialSolveProvenDualInfeasible()) {
      // CBC does not tell an unbounded model from an infeasible one whose
      // relaxation is unbounded: a search without objective decides.
      OsiClpSolverInterface feasibility(lp);
      std::vector<double> zero(static_cast<size_t>(lp.getNumCols()), 0.0);
      feasibility.setObjective(zero.data());
      Outcome any = solveMip(feasibility, b, 0, false);
      out.status = any.x.empty()
                       ? (any.status == QelEngineStatus::Infeasible ? QelEngineStatus::Infeasible
                                                                    : QelEngineStatus::Unknown)
                       : QelEngineStatus::Unbounded;
    } else if (model.status() == 0 && secondary == 0) {
      out.status = QelEngineStatus::Infeasible;  // the search ended without solution
    }
    return out;
  }

  Outcome solveStage(OsiClpSolverInterface& lp, const Built& b, double constant) {
    if (!b.integers && _sos.empty()) {
      Outcome out = solveLp(lp);
      if (out.status == QelEngineStatus::Optimal) {
        QelEngineProgress p;
        p.time = elapsed();
        p.iterations = report().iterations;
        p.solutions = report().solutions;
        p.hasIncumbent = p.hasBound = true;
        p.incumbent = p.bound = out.objective + constant;
        reportProgress(p, true);
      }
      return out;
    }
    return solveMip(lp, b, constant, true);
  }

  QelEngineStatus solveStages() {
    const QelObjectiveI* obj = getObjective();
    long criteria = obj != nullptr ? obj->getNumCriteria() : 0;
    std::vector<QelLinearForm> forms;
    for (long i = 0; i < criteria; ++i) forms.push_back(linear(obj->getCriterion(i), obj));
    double sense = obj != nullptr && obj->getSense() == QelObjective::Maximize ? -1.0 : 1.0;

    if (_liveCols == 0) {
      // Nothing to decide: the criteria are constants.
      std::vector<double> values;
      for (const auto& f : forms) values.push_back(f.constant);
      setEngineObjValues(values);
      return QelEngineStatus::Optimal;
    }
    compactIfWorthIt();
    Built b = build();
    OsiClpSolverInterface& lp = *b.lp;
    passSets(lp, b);
    lp.setObjSense(sense);
    std::vector<double> solution;
    std::vector<double> values;
    QelEngineStatus status = QelEngineStatus::Optimal;
    long stages = std::max<long>(1, criteria);
    for (long s = 0; s < stages; ++s) {
      const QelLinearForm* f = criteria > 0 ? &forms[static_cast<size_t>(s)] : nullptr;
      if (criteria > 1) {
        std::vector<double> coefs(static_cast<size_t>(lp.getNumCols()), 0.0);
        for (const auto& t : f->terms)
          coefs[static_cast<size_t>(lpColumnOf(b, t.first))] += t.second;
        lp.setObjective(coefs.data());
      }
      Outcome out = solveStage(lp, b, f != nullptr ? f->constant : 0);
      if (s == 0 && f != nullptr) report().bestBound = out.bound + f->constant;
      if (out.x.empty()) return out.status;
      status = out.status;
      solution = std::move(out.x);
      if (f != nullptr) {
        values.push_back(out.objective + f->constant);
        if (s > 0) report().bestBound = values[0];  // the first criterion is proven
      }
      if (status != QelEngineStatus::Optimal || s + 1 >= stages) break;
      // Keep this criterion at its optimum while the next ones are
      // optimized: one row over the LP built for this solve.
      double target = out.objective;
      double tolerance = 1e-6 * std::max(1.0, std::fabs(target));
      std::vector<int> index;
      std::vector<double> value;
      for (const auto& t : f->terms) {
        index.push_back(lpColumnOf(b, t.first));
        value.push_back(t.second);
      }
      CoinPackedVector row(static_cast<int>(index.size()), index.data(), value.data());
      if (sense > 0)
        lp.addRow(row, -infinity(), target + tolerance);
      else
        lp.addRow(row, target - tolerance, infinity());
    }
    if (status == QelEngineStatus::Feasible && static_cast<long>(values.size()) < criteria) {
      // Stopped in an early stage: the later criteria are read off the
      // solution.
      for (size_t i = values.size(); i < forms.size(); ++i)
        values.push_back(valueOf(b, forms[i], solution.data()));
    }
    storeSolution(b, solution);
    setEngineObjValues(values);
    return status;
  }

  void storeSolution(const Built& b, const std::vector<double>& x) {
    for (size_t c = 0; c < _cols.size(); ++c) {
      const Column& col = _cols[c];
      if (col.var == nullptr || !col.alive) continue;
      const QelNumVarI* v = col.var;
      double value = x[static_cast<size_t>(b.lpColumn[c])];
      if (v->getType() != QelVarType::Float) {
        value = std::round(value);
      } else {
        // Values within the solver's accuracy of a bound are the bound.
        if (std::fabs(value - v->getLB()) <= 1e-9) value = v->getLB();
        if (std::fabs(value - v->getUB()) <= 1e-9) value = v->getUB();
      }
      setValue(v, value);
    }
    for (const auto& entry : _setColumns) {
      std::vector<QelInt> members;
      for (const auto& m : entry.second.members)
        if (x[static_cast<size_t>(b.lpColumn[static_cast<size_t>(m.second)])] > 0.5)
          members.push_back(m.first);
      setSetValue(entry.first, members);
    }
  }

  QelPodVector<Column> _cols;
  QelIdTable<int> _colById;  // variable id -> column + 1 (0: none)
  // The rows, row-major in one pool.
  QelPodVector<size_t> _rowStart;
  QelPodVector<int> _rowCol;
  QelPodVector<double> _rowVal;
  QelPodVector<double> _rowLb;
  QelPodVector<double> _rowUb;
  QelPodVector<const QelExtractableI*> _rowOwner;
  QelPodVector<char> _rowAlive;
  // Extraction buffers: the form being read, and the pool position of each
  // column's entry in the open row (mergedEntry).
  QelLinearForm _scratch;
  QelPodVector<size_t> _entryOf;
  bool _mergedZeros = false;
  // The rows of each member, as an index range [first, end): a member's
  // rows are made together, in one extraction, so they are contiguous. They
  // are kept by the owner's id (an object keeps its id while notices about
  // it are delivered), 8 bytes a slot; a range belongs to the member whose
  // first row names it as owner.
  struct OwnedRows {
    int first = 0;
    int end = 0;
  };
  QelIdTable<OwnedRows> _ownedRows;
  // The auxiliary columns of each member that made any, [first, end) (they
  // may be interleaved with the columns of model variables met meanwhile,
  // hence the owner test when deleting). Few members make columns: a map.
  std::unordered_map<const QelExtractableI*, std::pair<int, int>> _ownedCols;

  OwnedRows* findOwnedRows(const QelExtractableI* m) {
    return const_cast<OwnedRows*>(findOwnedRowsConst(m));
  }
  const OwnedRows* findOwnedRowsConst(const QelExtractableI* m) const {
    const OwnedRows* o = _ownedRows.find(m->getId());
    bool mine = o != nullptr && o->first < o->end &&
                static_cast<size_t>(o->first) < _rowOwner.size() && _rowOwner[o->first] == m;
    return mine ? o : nullptr;
  }
  // Records that row `r`, just made, is one of `m`'s.
  void addOwnedRow(const QelExtractableI* m, int r) {
    OwnedRows* o = findOwnedRows(m);
    if (o == nullptr) {
      _ownedRows.at(m->getId()) = OwnedRows{r, r + 1};
      return;
    }
    o->first = std::min(o->first, r);
    o->end = std::max(o->end, r + 1);
  }
  size_t _deadEntries = 0;
  long _liveCols = 0;
  long _liveRows = 0;
  std::map<const QelExtractableI*, Sos> _sos;
  std::unordered_map<const QelIntSetVarI*, SetColumns> _setColumns;
  std::unordered_map<const QelExtractableI*, std::vector<const QelNumVarI*>> _boundsUsed;
  std::vector<std::pair<std::string, std::string>> _options;  // CBC options set by name
  // CBC's own lines at log level 2; declared before every LP it is given
  // to, so that it outlives them.
  LogHandler _logHandler{this};
  std::unique_ptr<OsiClpSolverInterface> _loaded;  // the last loadOnly()
  bool _keepHeap = false;  // the engine's own option keepHeap (off: see cbc.h)
};

QEL_RTTI_DEF(QelCbcI)

}  // namespace

long QelCbcLoad(QelEngineI* engine) {
  auto* cbc = QelDynamicCast<QelCbcI>(engine);
  if (cbc == nullptr) throw QelWrongUsage("QelCbcLoad: not a CBC engine");
  return cbc->loadOnly();
}

void QelCbcWriteMps(QelEngineI* engine, const std::string& path, long criterion) {
  auto* cbc = QelDynamicCast<QelCbcI>(engine);
  if (cbc == nullptr) throw QelWrongUsage("QelCbcWriteMps: not a CBC engine");
  cbc->writeMps(path, criterion);
}

QelEngineI* QelNewCbcEngine(QelEnv env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return QelNewObject<QelCbcI>(env.getImpl(), env.getImpl());
}

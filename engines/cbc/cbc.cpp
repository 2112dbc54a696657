// The CBC engine (see cbc.h for what it takes and how it follows changes).
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <CbcModel.hpp>
#include <CbcSOS.hpp>
#include <CoinError.hpp>
#include <CoinMessageHandler.hpp>
#include <CoinPackedVector.hpp>
#include <OsiClpSolverInterface.hpp>

#include <engines/cbc/cbc.h>
#include <engines/common/linear.h>

namespace {

// Largest number of binaries one reformulated constraint may make.
constexpr double MaxReformulationColumns = 200000;

class QelCbcI : public QelEngineI {
  QEL_RTTI_DECL(QelCbcI, QelEngineI)

 public:
  explicit QelCbcI(QelEnvI* env) : QelEngineI(env, "CBC") { makeLp(); }

  using QelEngineI::applyNotice;
  using QelEngineI::extractObject;
  using QelEngineI::modifyObject;
  using QelEngineI::unextractObject;

  // ---- extraction handlers ------------------------------------------------
  void* extractObject(const QelNumVarI* v) override {
    makeColumn(v);
    return nullptr;
  }
  void* extractObject(const QelNumLinTermI* e) override { return looseExpr(e); }
  void* extractObject(const QelIntLinTermI* e) override { return looseExpr(e); }
  void* extractObject(const QelNumProductI* e) override { return looseExpr(e); }

  void* extractObject(const QelRangeI* r) override {
    if (r->getExpr() == nullptr) throw refuse(r, "the range has no expression");
    RowForm f{linear(r->getExpr(), r), {}};
    addRow(r, f, r->getLB() - f.form.constant, r->getUB() - f.form.constant);
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
      CoinPackedVector one;
      RowForm link{forms[i], {}};
      // The values of an expression with integer terms: its lower bound plus
      // 0, 1, 2, ...
      auto count = static_cast<long>(std::floor(bounds[i].second - bounds[i].first)) + 1;
      for (long k = 0; k < count; ++k) {
        double v = bounds[i].first + static_cast<double>(k);
        int y = auxColumn(a, 0, 1, true);
        one.insert(y, 1.0);
        link.aux.emplace_back(y, -v);
        byValue[v].push_back(y);
      }
      addRawRow(a, one, 1, 1);
      addRow(a, link, -link.form.constant, -link.form.constant);
    }
    for (const auto& entry : byValue) {
      if (entry.second.size() < 2) continue;
      CoinPackedVector atMostOne;
      for (int y : entry.second) atMostOne.insert(y, 1.0);
      addRawRow(a, atMostOne, -infinity(), 1);
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
      CoinPackedVector one;
      RowForm link{wheres[static_cast<size_t>(i)], {}};
      for (long j = 0; j < m; ++j) {
        bool possible = static_cast<double>(j) >= b.first && static_cast<double>(j) <= b.second;
        int c = auxColumn(p, 0, possible ? 1 : 0, true);
        x[static_cast<size_t>(i)].push_back(c);
        one.insert(c, 1.0);
        link.aux.emplace_back(c, -static_cast<double>(j));
      }
      addRawRow(p, one, 1, 1);
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
      CoinPackedVector some;  // u[j] <= sum_i x[i][j]
      some.insert(c, 1.0);
      for (long i = 0; i < n; ++i) {
        int xij = x[static_cast<size_t>(i)][static_cast<size_t>(j)];
        some.insert(xij, -1.0);
        CoinPackedVector each;  // x[i][j] <= u[j]
        each.insert(xij, 1.0);
        each.insert(c, -1.0);
        addRawRow(p, each, -infinity(), 0);
      }
      addRawRow(p, some, -infinity(), 0);
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
      std::vector<std::pair<QelInt, long>> members;
      for (long j = 0; j < m; ++j)
        members.emplace_back(j, _cols[static_cast<size_t>(u[static_cast<size_t>(j)])].id);
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
  void* extractObject(const QelIntSetVarI* s) override {
    throw refuse(s, "set variables are taken only as the used set of a pack");
  }
  void* extractObject(const QelIntervalVarI* s) override {
    throw refuse(s, "interval variables are not supported");
  }

  void* objectiveActivated(const QelObjectiveI* obj, void*) override {
    // Every criterion must be linear; a single one is loaded into the LP.
    long n = obj->getNumCriteria();
    std::vector<QelLinearForm> forms;
    for (long i = 0; i < n; ++i) forms.push_back(linear(obj->getCriterion(i), obj));
    clearObjective();
    if (n == 1) {
      for (const auto& t : forms[0].terms) _lp->setObjCoeff(column(t.first), t.second);
    }
    _lp->setObjSense(obj->getSense() == QelObjective::Minimize ? 1.0 : -1.0);
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
      deleteOwned(m);
      throw refuse(m, "CBC refused it: " + e.message());
    } catch (...) {
      deleteOwned(m);
      throw;
    }
  }

  void removeFromForm(QelExtractableI* m) override { deleteOwned(m); }

  void forget(const QelExtractableI* x) override {
    const auto* v = QelDynamicCast<const QelNumVarI>(x);
    if (v == nullptr) return;
    auto it = _colOf.find(v);
    if (it == _colOf.end()) return;
    // Rows of members that used it lose its coefficients; those members
    // were removed or are re-extracted before the next solve.
    int index = it->second;
    _lp->deleteCols(1, &index);
    _cols.erase(_cols.begin() + index);
    _snapshot.erase(v);
    for (auto& owner : _boundsUsed)
      owner.second.erase(std::remove(owner.second.begin(), owner.second.end(), v),
                         owner.second.end());
    reindexColumns();
  }

  void syncVariables() override {
    for (auto& entry : _snapshot) {
      const QelNumVarI* v = entry.first;
      Snapshot& s = entry.second;
      if (v->getLB() == s.lb && v->getUB() == s.ub && v->getType() == s.type) continue;
      countSilentChange();
      // Reformulations and sets read the bounds: their owners are
      // re-extracted.
      for (const auto& owner : _boundsUsed)
        if (std::find(owner.second.begin(), owner.second.end(), v) != owner.second.end())
          markStale(owner.first);
      int c = _colOf.at(v);
      _lp->setColBounds(c, lower(v->getLB()), upper(v->getUB()));
      if (v->getType() == QelVarType::Float)
        _lp->setContinuous(c);
      else
        _lp->setInteger(c);
      s = {v->getLB(), v->getUB(), v->getType()};
      countIncremental();
    }
  }

  void objectiveChanged(const QelObjectiveI* obj, const QelChange& change) override {
    if (obj != getObjective()) return;
    try {
      if (obj->getNumCriteria() != 1 || QelDynamicCast<const QelSetObjSense>(&change) != nullptr) {
        // The criteria of a lexicographic objective are read at each solve.
        _lp->setObjSense(obj->getSense() == QelObjective::Minimize ? 1.0 : -1.0);
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

  QelEngineStatus runSolve() override {
    try {
      return solveStages();
    } catch (const CoinError& e) {
      throw QelEngineError("CBC engine: the solve failed: " + e.message());
    }
  }

 private:
  struct Column {
    const QelNumVarI* var;         // a model variable, or null
    const QelExtractableI* owner;  // the member an auxiliary column belongs to
    long id;                       // stable while indices move
  };
  // A row: a linear form (its variables) and auxiliary columns.
  struct RowForm {
    QelLinearForm form;
    std::vector<std::pair<int, double>> aux;
  };
  struct Snapshot {
    double lb;
    double ub;
    QelVarType type;
  };
  struct Sos {
    int type = 1;
    std::vector<const QelNumVarI*> vars;
    std::vector<double> weights;
  };
  struct SetColumns {
    const QelExtractableI* owner = nullptr;
    std::vector<std::pair<QelInt, long>> members;  // value, id of the column of u
  };

  void makeLp() {
    _lp = std::make_unique<OsiClpSolverInterface>();
    _lp->messageHandler()->setLogLevel(0);
    _cols.clear();
    _rowOwner.clear();
    _colOf.clear();
    _snapshot.clear();
    _sos.clear();
    _setColumns.clear();
    _boundsUsed.clear();
  }

  double infinity() const { return _lp->getInfinity(); }
  // Bounds of magnitude 1e20 and more are infinite.
  double lower(double v) const { return QelIsInfiniteBound(v) && v < 0 ? -infinity() : v; }
  double upper(double v) const { return QelIsInfiniteBound(v) && v > 0 ? infinity() : v; }

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
  // its variables get their columns.
  QelLinearForm linear(const QelNumExprI* e, const QelExtractableI* owner) {
    if (e == nullptr) throw refuse(owner, "it holds an empty expression");
    QelLinearForm f = QelLinearFormOf(e);
    if (!f.unsupported.empty()) throw refuse(owner, f.unsupported + " is not supported");
    if (!f.quad.empty())
      throw refuse(owner, "quadratic terms are not supported (CBC solves linear models)");
    for (const auto& t : f.terms) column(t.first);
    return f;
  }

  // The column of `v`, made through the variable's hook when new.
  int column(const QelNumVarI* v) {
    auto it = _colOf.find(v);
    if (it != _colOf.end()) return it->second;
    extractThroughHook(v);  // extractObject(const QelNumVarI*): makeColumn
    return _colOf.at(v);
  }

  void makeColumn(const QelNumVarI* v) {
    if (_colOf.count(v) != 0) return;
    int index = _lp->getNumCols();
    CoinPackedVector empty;
    _lp->addCol(empty, lower(v->getLB()), upper(v->getUB()), 0.0);
    if (v->getType() != QelVarType::Float) _lp->setInteger(index);
    _cols.push_back({v, nullptr, _nextColumnId++});
    _colOf[v] = index;
    _snapshot[v] = {v->getLB(), v->getUB(), v->getType()};
  }

  int auxColumn(const QelExtractableI* owner, double lb, double ub, bool integer) {
    int index = _lp->getNumCols();
    CoinPackedVector empty;
    _lp->addCol(empty, lb, ub, 0.0);
    if (integer) _lp->setInteger(index);
    _cols.push_back({nullptr, owner, _nextColumnId++});
    return index;
  }

  // A row lb <= form (constant excluded) + auxiliary terms <= ub.
  void addRow(const QelExtractableI* owner, const RowForm& f, double lb, double ub) {
    std::map<int, double> coefs;
    for (const auto& t : f.form.terms) coefs[column(t.first)] += t.second;
    for (const auto& t : f.aux) coefs[t.first] += t.second;
    CoinPackedVector row;
    for (const auto& c : coefs)
      if (c.second != 0.0) row.insert(c.first, c.second);
    addRawRow(owner, row, lower(lb), upper(ub));
  }

  void addRawRow(const QelExtractableI* owner, const CoinPackedVector& row, double lb, double ub) {
    _lp->addRow(row, lb, ub);
    _rowOwner.push_back(owner);
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
      // CBC's set branching fixes variables to zero.
      if (v->getLB() < 0)
        throw refuse(s, "the variable " + QelDescribe(v) + " has a negative lower bound");
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
    // An expression alone constrains nothing: its variables get columns.
    QelLinearForm f = QelLinearFormOf(e);
    for (const auto& t : f.terms) column(t.first);
    for (const auto& q : f.quad) {
      column(q.var1);
      column(q.var2);
    }
    if (!f.unsupported.empty()) throw refuse(e, f.unsupported + " is not supported");
    return nullptr;
  }

  void clearObjective() {
    for (int c = 0; c < _lp->getNumCols(); ++c) _lp->setObjCoeff(c, 0.0);
  }

  void updateObjCoef(const QelObjectiveI* obj, const std::vector<const QelNumVarI*>& vars) {
    QelLinearForm f = linear(obj->getCriterion(0), obj);
    for (const QelNumVarI* v : vars) {
      double coef = 0;
      for (const auto& t : f.terms)
        if (t.first == v) coef += t.second;
      _lp->setObjCoeff(column(v), coef);
    }
  }

  // Deletes every row and auxiliary column `m` made, and its set data.
  void deleteOwned(const QelExtractableI* m) {
    std::vector<int> rows;
    for (size_t r = 0; r < _rowOwner.size(); ++r)
      if (_rowOwner[r] == m) rows.push_back(static_cast<int>(r));
    if (!rows.empty()) {
      _lp->deleteRows(static_cast<int>(rows.size()), rows.data());
      for (auto r = rows.rbegin(); r != rows.rend(); ++r) _rowOwner.erase(_rowOwner.begin() + *r);
    }
    std::vector<int> cols;
    for (size_t c = 0; c < _cols.size(); ++c)
      if (_cols[c].var == nullptr && _cols[c].owner == m) cols.push_back(static_cast<int>(c));
    if (!cols.empty()) {
      _lp->deleteCols(static_cast<int>(cols.size()), cols.data());
      for (auto c = cols.rbegin(); c != cols.rend(); ++c) _cols.erase(_cols.begin() + *c);
      reindexColumns();
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

  void reindexColumns() {
    _colOf.clear();
    for (size_t c = 0; c < _cols.size(); ++c)
      if (_cols[c].var != nullptr) _colOf[_cols[c].var] = static_cast<int>(c);
  }

  // The value of form `f` for the column values `x`.
  double valueOf(const QelLinearForm& f, const double* x) const {
    double v = f.constant;
    for (const auto& t : f.terms) v += t.second * x[_colOf.at(t.first)];
    return v;
  }

  std::vector<CbcObject*> sosObjects(CbcModel& model) {
    std::vector<CbcObject*> objects;
    int id = 0;
    for (const auto& entry : _sos) {
      const Sos& s = entry.second;
      if (s.vars.empty()) continue;
      std::vector<int> which;
      for (const QelNumVarI* v : s.vars) which.push_back(_colOf.at(v));
      objects.push_back(new CbcSOS(&model, static_cast<int>(which.size()), which.data(),
                                   s.weights.data(), id++, s.type));
    }
    return objects;
  }

  // Whether `lp` has a solution (its objective ignored; the sets kept).
  bool feasible(const OsiClpSolverInterface& lp) {
    OsiClpSolverInterface feasibility(lp);
    for (int c = 0; c < feasibility.getNumCols(); ++c) feasibility.setObjCoeff(c, 0.0);
    CbcModel model(feasibility);
    model.setLogLevel(0);
    model.messageHandler()->setLogLevel(0);
    model.solver()->messageHandler()->setLogLevel(0);
    std::vector<CbcObject*> objects = sosObjects(model);
    if (!objects.empty()) {
      model.addObjects(static_cast<int>(objects.size()), objects.data());
      for (CbcObject* o : objects) delete o;
    }
    model.branchAndBound();
    return model.bestSolution() != nullptr;
  }

  QelEngineStatus solveStages() {
    const QelObjectiveI* obj = getObjective();
    long criteria = obj != nullptr ? obj->getNumCriteria() : 0;
    std::vector<QelLinearForm> forms;
    for (long i = 0; i < criteria; ++i) forms.push_back(linear(obj->getCriterion(i), obj));
    double sense = obj != nullptr && obj->getSense() == QelObjective::Maximize ? -1.0 : 1.0;

    if (_lp->getNumCols() == 0) {
      // Nothing to decide: the criteria are constants.
      std::vector<double> values;
      for (const auto& f : forms) values.push_back(f.constant);
      setEngineObjValues(values);
      return QelEngineStatus::Optimal;
    }
    OsiClpSolverInterface work(*_lp);
    work.messageHandler()->setLogLevel(0);
    if (work.getNumRows() == 0) {
      // CLP's strong branching fails on a problem without rows: one free
      // row that constrains nothing.
      CoinPackedVector free;
      free.insert(0, 1.0);
      work.addRow(free, -work.getInfinity(), work.getInfinity());
    }
    std::vector<double> solution;
    std::vector<double> values;
    QelEngineStatus status = QelEngineStatus::Optimal;
    long stages = std::max<long>(1, criteria);
    for (long s = 0; s < stages; ++s) {
      if (criteria > 1) {
        for (int c = 0; c < work.getNumCols(); ++c) work.setObjCoeff(c, 0.0);
        for (const auto& t : forms[static_cast<size_t>(s)].terms)
          work.setObjCoeff(_colOf.at(t.first), t.second);
      }
      work.setObjSense(sense);
      // CBC itself does not report unboundedness reliably (an unbounded LP
      // comes back "optimal" with huge values): the relaxation is solved
      // first. Infeasible relaxation: no solution. Unbounded relaxation: the
      // model is unbounded if it has a solution at all (rational data).
      work.initialSolve();
      if (work.isProvenPrimalInfeasible()) return QelEngineStatus::Infeasible;
      if (work.isProvenDualInfeasible())
        return feasible(work) ? QelEngineStatus::Unbounded : QelEngineStatus::Infeasible;
      CbcModel model(work);
      model.setLogLevel(0);
      model.messageHandler()->setLogLevel(0);
      model.solver()->messageHandler()->setLogLevel(0);
      if (getTimeLimit() > 0) model.setMaximumSeconds(getTimeLimit());
      std::vector<CbcObject*> objects = sosObjects(model);
      if (!objects.empty()) {
        model.addObjects(static_cast<int>(objects.size()), objects.data());
        for (CbcObject* o : objects) delete o;
      }
      model.branchAndBound();
      const double* best = model.bestSolution();
      if (model.isProvenOptimal() && best != nullptr) {
        status = QelEngineStatus::Optimal;
      } else if (model.isProvenInfeasible() || model.isInitialSolveProvenPrimalInfeasible()) {
        return QelEngineStatus::Infeasible;
      } else if (model.isContinuousUnbounded() || model.isInitialSolveProvenDualInfeasible()) {
        return QelEngineStatus::Unbounded;
      } else if (best != nullptr) {
        status = QelEngineStatus::Feasible;
      } else {
        return model.isProvenOptimal() ? QelEngineStatus::Infeasible : QelEngineStatus::Unknown;
      }
      solution.assign(best, best + model.getNumCols());
      if (criteria > 0) {
        double value = model.getObjValue() + forms[static_cast<size_t>(s)].constant;
        values.push_back(value);
      }
      if (status != QelEngineStatus::Optimal || s + 1 >= stages) break;
      // Keep this criterion at its optimum while the next ones are optimized.
      const QelLinearForm& f = forms[static_cast<size_t>(s)];
      double target = values.back() - f.constant;
      double tolerance = 1e-6 * std::max(1.0, std::fabs(target));
      CoinPackedVector row;
      std::map<int, double> coefs;
      for (const auto& t : f.terms) coefs[_colOf.at(t.first)] += t.second;
      for (const auto& c : coefs) row.insert(c.first, c.second);
      if (sense > 0)
        work.addRow(row, -work.getInfinity(), target + tolerance);
      else
        work.addRow(row, target - tolerance, work.getInfinity());
    }
    if (status == QelEngineStatus::Feasible && static_cast<long>(values.size()) < criteria) {
      // Stopped in an early stage: the later criteria are read off the
      // solution.
      for (size_t i = values.size(); i < forms.size(); ++i)
        values.push_back(valueOf(forms[i], solution.data()));
    }
    storeSolution(solution);
    setEngineObjValues(values);
    return status;
  }

  void storeSolution(const std::vector<double>& x) {
    for (const auto& entry : _colOf) {
      const QelNumVarI* v = entry.first;
      double value = x[static_cast<size_t>(entry.second)];
      if (v->getType() != QelVarType::Float) {
        value = std::round(value);
      } else {
        // Values within the solver's accuracy of a bound are the bound.
        if (std::fabs(value - v->getLB()) <= 1e-9) value = v->getLB();
        if (std::fabs(value - v->getUB()) <= 1e-9) value = v->getUB();
      }
      setValue(v, value);
    }
    std::unordered_map<long, size_t> indexOfId;
    for (size_t c = 0; c < _cols.size(); ++c) indexOfId[_cols[c].id] = c;
    for (const auto& entry : _setColumns) {
      std::vector<QelInt> members;
      for (const auto& m : entry.second.members)
        if (x[indexOfId.at(m.second)] > 0.5) members.push_back(m.first);
      setSetValue(entry.first, members);
    }
  }

  std::unique_ptr<OsiClpSolverInterface> _lp;
  std::vector<Column> _cols;
  std::vector<const QelExtractableI*> _rowOwner;
  std::unordered_map<const QelNumVarI*, int> _colOf;
  std::unordered_map<const QelNumVarI*, Snapshot> _snapshot;
  std::map<const QelExtractableI*, Sos> _sos;
  std::unordered_map<const QelIntSetVarI*, SetColumns> _setColumns;
  std::unordered_map<const QelExtractableI*, std::vector<const QelNumVarI*>> _boundsUsed;
  long _nextColumnId = 0;
};

QEL_RTTI_DEF(QelCbcI)

}  // namespace

QelEngineI* QelNewCbcEngine(QelEnv env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return QelNewObject<QelCbcI>(env.getImpl(), env.getImpl());
}

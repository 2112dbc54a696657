// The Gecode engine (see gecode.h for what it takes and how it follows
// changes).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <gecode/int.hh>
#include <gecode/minimodel.hh>
#include <gecode/search.hh>
#include <gecode/set.hh>

#include <qel/engines/gecode.h>
#include <qel/engines/linear.h>

namespace {

class ModelSpace;

// Posts the branchings of a searched space; `restart` counts the restarts
// of the search so far (0 for a search without restarts).
class BranchingPoster {
 public:
  virtual ~BranchingPoster() = default;
  virtual void post(ModelSpace& work, unsigned long restart) const = 0;
};

// The space: every integer variable the engine made (the model's variables
// and auxiliary ones), the set variables, and, in the copy that is searched,
// the criteria of the objective.
class ModelSpace : public Gecode::Space {
 public:
  ModelSpace() = default;
  ModelSpace(ModelSpace& other) : Gecode::Space(other), sense(other.sense), poster(other.poster) {
    vars.resize(other.vars.size());
    for (size_t i = 0; i < vars.size(); ++i) vars[i].update(*this, other.vars[i]);
    sets.resize(other.sets.size());
    for (size_t i = 0; i < sets.size(); ++i) sets[i].update(*this, other.sets[i]);
    costs.update(*this, other.costs);
    items.resize(other.items.size());
    for (size_t i = 0; i < items.size(); ++i) items[i].update(*this, other.items[i]);
    bins = other.bins;
    capacity = other.capacity;
    weights = other.weights;
  }
  Gecode::Space* copy() override { return new ModelSpace(*this); }
  // A search with restarts posts the branchings into each fresh copy, so
  // that they may change from one restart to the next. Every copy is the
  // whole problem: a run that ends before its cutoff has explored it all.
  bool slave(const Gecode::MetaInfo& mi) override {
    if (poster != nullptr)
      poster->post(*this, mi.type() == Gecode::MetaInfo::RESTART ? mi.restart() : 0);
    return true;
  }
  // Branch and bound: the next solution is lexicographically better on the
  // criteria (one criterion: simply better).
  void constrain(const Gecode::Space& best) override {
    const auto& b = static_cast<const ModelSpace&>(best);
    int n = costs.size();
    if (n == 0) return;
    Gecode::IntArgs values(n);
    for (int i = 0; i < n; ++i) values[i] = b.costs[i].val();
    Gecode::rel(*this, costs, sense > 0 ? Gecode::IRT_LE : Gecode::IRT_GR, values);
  }

  std::vector<Gecode::IntVar> vars;
  std::vector<Gecode::SetVar> sets;
  Gecode::IntVarArray costs;
  int sense = 1;  // 1: minimize, -1: maximize
  // Posts the branchings into the copies of a search with restarts (null:
  // they are posted once, before the search).
  const BranchingPoster* poster = nullptr;
  // The items of the packs whose bins are interchangeable, and the number
  // of bins of each, for the search that skips equivalent empty bins.
  std::vector<Gecode::IntVarArray> items;
  std::vector<int> bins;
  std::vector<int> capacity;              // the largest load of a bin
  std::vector<std::vector<int>> weights;  // in the order of `items`
};

// The load each bin of pack `pack` holds from the items placed so far.
std::vector<long> PlacedLoads(const ModelSpace& space, int pack) {
  const Gecode::IntVarArray& items = space.items[static_cast<size_t>(pack)];
  const std::vector<int>& weights = space.weights[static_cast<size_t>(pack)];
  std::vector<long> load(static_cast<size_t>(space.bins[static_cast<size_t>(pack)]), 0);
  for (int i = 0; i < items.size(); ++i)
    if (items[i].assigned() && items[i].val() >= 0 &&
        items[i].val() < static_cast<int>(load.size()))
      load[static_cast<size_t>(items[i].val())] += weights[static_cast<size_t>(i)];
  return load;
}

// Value of the pack search: of the bins the item may still go into, the
// fullest (best fit), the lowest of equally full ones.
int BestBin(const Gecode::Space& home, Gecode::IntVar x, int pack) {
  std::vector<long> load = PlacedLoads(static_cast<const ModelSpace&>(home), pack);
  int best = x.min();
  long bestLoad = -1;
  for (Gecode::IntVarValues v(x); v(); ++v) {
    if (v.val() < 0 || v.val() >= static_cast<int>(load.size())) continue;
    if (load[static_cast<size_t>(v.val())] > bestLoad) {
      best = v.val();
      bestLoad = load[static_cast<size_t>(v.val())];
    }
  }
  return best;
}

// Commit of the pack search: place the item into bin `b`, or keep it out
// of `b` and of every bin holding the same load so far (the bins being
// interchangeable, those are the same choice for the items left).
void CommitItem(Gecode::Space& home, unsigned int alternative, Gecode::IntVar x, int pack, int b) {
  if (alternative == 0) {
    Gecode::rel(home, x, Gecode::IRT_EQ, b);
    return;
  }
  std::vector<long> load = PlacedLoads(static_cast<const ModelSpace&>(home), pack);
  Gecode::rel(home, x, Gecode::IRT_NQ, b);
  if (b < 0 || b >= static_cast<int>(load.size())) return;
  for (size_t e = 0; e < load.size(); ++e)
    if (load[e] == load[static_cast<size_t>(b)])
      Gecode::rel(home, x, Gecode::IRT_NQ, static_cast<int>(e));
}

// The other search of a pack with interchangeable bins: bin by bin. The
// lowest bin some item can still go into is filled first, with the items
// that can go there, heaviest first: item i goes into bin j, or it and
// every item of the same weight (the same choice) stay out of j. Two rules
// take one alternative only, as a packing with the item elsewhere can be
// changed into one with it there:
//   - the bin is empty, so are all the bins above it, and the item is the
//     heaviest left: the empty bins are interchangeable;
//   - the bin holds items and has room for one more at most: any packing
//     that gives the bin a lighter item t (or none) instead swaps t and i.
class BinByBin : public Gecode::Brancher {
 public:
  static void post(ModelSpace& home, int pack) { (void)new (home) BinByBin(home, pack); }
  BinByBin(Gecode::Space& home, BinByBin& other)
      : Gecode::Brancher(home, other), _pack(other._pack) {}
  Gecode::Actor* copy(Gecode::Space& home) override { return new (home) BinByBin(home, *this); }
  size_t dispose(Gecode::Space& home) override {
    (void)Gecode::Brancher::dispose(home);
    return sizeof(*this);
  }
  bool status(const Gecode::Space& home) const override {
    const Gecode::IntVarArray& x = items(home);
    for (int i = 0; i < x.size(); ++i)
      if (!x[i].assigned()) return true;
    return false;
  }
  const Gecode::Choice* choice(Gecode::Space& home) override {
    const auto& space = static_cast<const ModelSpace&>(home);
    const Gecode::IntVarArray& x = items(home);
    const std::vector<int>& w = space.weights[static_cast<size_t>(_pack)];
    std::vector<long> load = PlacedLoads(space, _pack);
    long capacity = space.capacity[static_cast<size_t>(_pack)];
    int heaviest = -1;
    for (int i = 0; i < x.size() && heaviest < 0; ++i)
      if (!x[i].assigned()) heaviest = i;
    for (size_t j = 0; j < load.size(); ++j) {
      int first = -1;
      long light1 = capacity + 1;  // the two lightest other candidates
      long light2 = capacity + 1;
      for (int i = 0; i < x.size(); ++i) {
        if (x[i].assigned() || !x[i].in(static_cast<int>(j))) continue;
        if (first < 0) {
          first = i;
          continue;
        }
        long v = w[static_cast<size_t>(i)];
        if (v < light1) {
          light2 = light1;
          light1 = v;
        } else if (v < light2) {
          light2 = v;
        }
      }
      if (first < 0) continue;
      bool only = false;
      if (load[j] == 0)
        only = first == heaviest && std::all_of(load.begin() + static_cast<std::ptrdiff_t>(j),
                                                load.end(), [](long l) { return l == 0; });
      else
        only = capacity - load[j] < light1 + light2;
      return new Place(*this, only ? 1U : 2U, first, static_cast<int>(j));
    }
    return new Place(*this, 1U, heaviest, static_cast<int>(x[heaviest].min()));
  }
  const Gecode::Choice* choice(const Gecode::Space&, Gecode::Archive& e) override {
    int item = 0;
    int bin = 0;
    e >> item >> bin;
    return new Place(*this, 2U, item, bin);
  }
  Gecode::ExecStatus commit(Gecode::Space& home, const Gecode::Choice& c,
                            unsigned int alternative) override {
    const auto& p = static_cast<const Place&>(c);
    const Gecode::IntVarArray& x = items(home);
    if (alternative == 0) {
      Gecode::rel(home, x[p.item], Gecode::IRT_EQ, p.bin);
    } else {
      const std::vector<int>& w =
          static_cast<const ModelSpace&>(home).weights[static_cast<size_t>(_pack)];
      int weight = w[static_cast<size_t>(p.item)];
      for (int i = 0; i < x.size(); ++i)
        if (!x[i].assigned() && w[static_cast<size_t>(i)] == weight)
          Gecode::rel(home, x[i], Gecode::IRT_NQ, p.bin);
    }
    return home.failed() ? Gecode::ES_FAILED : Gecode::ES_OK;
  }
  void print(const Gecode::Space&, const Gecode::Choice& c, unsigned int alternative,
             std::ostream& os) const override {
    const auto& p = static_cast<const Place&>(c);
    os << "item " << p.item << (alternative == 0 ? " in bin " : " not in bin ") << p.bin;
  }

 private:
  // Item `item` (in the order of the pack search) in bin `bin`, or not.
  class Place : public Gecode::Choice {
   public:
    Place(const Gecode::Brancher& b, unsigned int alternatives, int i, int j)
        : Gecode::Choice(b, alternatives), item(i), bin(j) {}
    void archive(Gecode::Archive& e) const override {
      Gecode::Choice::archive(e);
      e << item << bin;
    }
    int item;
    int bin;
  };

  BinByBin(ModelSpace& home, int pack) : Gecode::Brancher(home), _pack(pack) {}
  const Gecode::IntVarArray& items(const Gecode::Space& home) const {
    return static_cast<const ModelSpace&>(home).items[static_cast<size_t>(_pack)];
  }

  int _pack;
};

// An expression in Gecode form: expr + offset (the offset gathers the
// constants, which need not be integral).
struct GExpr {
  Gecode::LinIntExpr expr;
  double offset = 0;
};

bool FitsInt(double v) {
  return std::isfinite(v) && v >= Gecode::Int::Limits::min && v <= Gecode::Int::Limits::max;
}

// The names of the choices a setting takes by name.
template <class T>
using Names = std::vector<std::pair<const char*, T>>;

Names<QelGecodeVarSelect> VarSelectNames() {
  return {{"auto", QelGecodeVarSelect::Automatic},
          {"inorder", QelGecodeVarSelect::InOrder},
          {"firstfail", QelGecodeVarSelect::SmallestDomain},
          {"degree", QelGecodeVarSelect::LargestDegree},
          {"domafc", QelGecodeVarSelect::DomainOverAfc},
          {"random", QelGecodeVarSelect::Random}};
}

Names<QelGecodeValSelect> ValSelectNames() {
  return {
      {"auto", QelGecodeValSelect::Automatic},      {"min", QelGecodeValSelect::Smallest},
      {"max", QelGecodeValSelect::Largest},         {"median", QelGecodeValSelect::Median},
      {"splitmin", QelGecodeValSelect::SplitLower}, {"splitmax", QelGecodeValSelect::SplitUpper},
      {"random", QelGecodeValSelect::Random}};
}

Names<QelGecodeRestart> RestartNames() {
  return {{"none", QelGecodeRestart::None},
          {"luby", QelGecodeRestart::Luby},
          {"geometric", QelGecodeRestart::Geometric}};
}

Names<QelGecodePackSearch> PackSearchNames() {
  return {{"alternate", QelGecodePackSearch::Alternate},
          {"items", QelGecodePackSearch::Items},
          {"bins", QelGecodePackSearch::Bins}};
}

// The model's variables the engine made, with the bounds they had: found
// by the variable's id (dense in its environment) rather than hashed, since
// extraction looks a variable up once per nonzero. The slot of an id holds
// the variable and its root Gecode variable themselves, so that the lookup
// of extraction reads one slot and not the entry behind it (at millions of
// nonzeros every extra read is a cache miss).
class VarTable {
 public:
  struct Entry {
    const QelNumVarI* var;
    int index;         // among the root space's variables
    Gecode::IntVar x;  // the variable in the root space
    double lb;
    double ub;
    QelVarType type;
  };
  // The entry of `v`, or null.
  Entry* find(const QelNumVarI* v) {
    int at = position(v);
    return at < 0 ? nullptr : &_entries[static_cast<size_t>(at)];
  }
  // The root Gecode variable of `v`, or null when `v` has none.
  const Gecode::IntVar* rootVar(const QelNumVarI* v) const {
    QelInt id = v->getId();
    if (id >= 0 && static_cast<size_t>(id) < _slot.size()) {
      const Slot& s = _slot[static_cast<size_t>(id)];
      if (s.var == v) return &s.x;
    }
    if (_other.empty()) return nullptr;
    auto it = _other.find(v);
    return it == _other.end() ? nullptr : &_entries[static_cast<size_t>(it->second)].x;
  }
  void insert(const Entry& e) {
    auto at = static_cast<int>(_entries.size());
    _entries.push_back(e);
    QelInt id = e.var->getId();
    if (id >= 0 && static_cast<size_t>(id) >= _slot.size())
      _slot.resize(std::max(static_cast<size_t>(id) + 1, 2 * _slot.size()));
    if (id >= 0 && _slot[static_cast<size_t>(id)].var == nullptr)
      _slot[static_cast<size_t>(id)] = {e.var, at, e.x};
    else
      _other[e.var] = at;  // a variable of another environment with the same id
  }
  bool erase(const QelNumVarI* v) {
    int at = position(v);
    if (at < 0) return false;
    setPosition(v, -1);
    auto last = static_cast<int>(_entries.size()) - 1;
    if (at != last) {
      _entries[static_cast<size_t>(at)] = _entries.back();
      setPosition(_entries[static_cast<size_t>(at)].var, at);
    }
    _entries.pop_back();
    return true;
  }
  void clear() {
    _entries.clear();
    _slot.clear();
    _other.clear();
  }
  std::vector<Entry>& entries() { return _entries; }
  const std::vector<Entry>& entries() const { return _entries; }

 private:
  struct Slot {
    const QelNumVarI* var = nullptr;  // null: free
    int at = -1;                      // position in _entries
    Gecode::IntVar x;                 // the variable in the root space
  };
  // The slot that holds `v`, or null (`v` absent or in _other).
  Slot* slotOf(const QelNumVarI* v) {
    QelInt id = v->getId();
    if (id < 0 || static_cast<size_t>(id) >= _slot.size()) return nullptr;
    Slot& s = _slot[static_cast<size_t>(id)];
    return s.var == v ? &s : nullptr;
  }
  int position(const QelNumVarI* v) {
    if (const Slot* s = slotOf(v)) return s->at;
    if (_other.empty()) return -1;
    auto it = _other.find(v);
    return it == _other.end() ? -1 : it->second;
  }
  // Records the position of `v` (-1: none) where position() finds it.
  void setPosition(const QelNumVarI* v, int at) {
    if (Slot* s = slotOf(v)) {
      if (at < 0)
        *s = Slot();
      else
        s->at = at;
      return;
    }
    if (at < 0)
      _other.erase(v);
    else
      _other[v] = at;
  }

  std::vector<Entry> _entries;
  std::vector<Slot> _slot;                            // by id
  std::unordered_map<const QelNumVarI*, int> _other;  // variables whose id slot is taken
};

// The variable `e` is, alone (x, or 1 * x + 0), or null.
const QelNumVarI* SingleVar(const QelNumExprI* e) {
  if (e == nullptr) return nullptr;
  if (const auto* v = QelDynamicCast<const QelNumVarI>(e)) return v;
  const QelLinearParts* parts = nullptr;
  if (const auto* t = QelDynamicCast<const QelNumLinTermI>(e)) parts = &t->getParts();
  if (const auto* t = QelDynamicCast<const QelIntLinTermI>(e)) parts = &t->getParts();
  if (parts == nullptr || parts->constant != 0.0 || parts->quadHead != nullptr ||
      parts->aggHead != nullptr || parts->head == nullptr || parts->head->next != nullptr ||
      parts->head->coef != 1.0)
    return nullptr;
  return parts->head->var;
}

// The items of one pack, for the pack-aware search and its bound.
struct PackItems {
  const QelPackI* pack = nullptr;
  std::vector<int> bins;     // the root variables holding each item's bin
  std::vector<int> weights;  // each item's weight
  int binCount = 0;          // the number of bins
  int capacity = 0;          // the largest load of a bin
  bool sameBins = false;     // whether the bins are interchangeable (same load
                             // bounds, every item free to go into any bin)
  long lowerBound = 0;       // the bins the weights need at least (L2)
  // The bins they need at least, by L2 and by the pattern relaxation once
  // that was solved (RelaxPacking).
  long bound = 0;
  // A packing into as many bins as that bound, found before the run of the
  // pack searches that it leads (MinimumSlackPacking before the first run,
  // or else a dive through the pattern relaxation before run kRelaxRun):
  // each item's bin; empty when none was found.
  std::vector<int> hint;
  unsigned long hintRun = 0;  // the run (restart) that the packing leads
  bool hintTried = false;     // whether the minimum-slack packing was looked for
  bool relaxed = false;       // whether the pattern relaxation was solved
};

// A packing of items of weights `w` into bins of capacity `c` by minimum
// bin slack: each new bin takes the heaviest item left, then the set of
// items left that fills it best, found by a depth-first search over them,
// heaviest first, trying one item of each weight at a place (at most
// `nodes` items looked at a bin, `budget` in all). Returns each item's bin,
// the bins numbered in the order they were opened, or nothing when the
// budget ran out. It often packs items of a few bins' worth each into the
// fewest bins where first-fit decreasing needs one more.
std::vector<int> MinimumSlackPacking(const std::vector<int>& w, int c, long nodes, long budget) {
  std::vector<int> left(w.size());
  std::iota(left.begin(), left.end(), 0);
  std::stable_sort(left.begin(), left.end(), [&w](int a, int b) { return w[a] > w[b]; });
  std::vector<int> bin(w.size(), -1);
  std::vector<int> best, cur;  // places in `left` of the items filling the bin
  int bins = 0;
  while (!left.empty()) {
    int room = c - w[static_cast<size_t>(left[0])];
    if (room < 0) return {};  // an item larger than a bin
    int bestRoom = room;
    best.clear();
    cur.clear();
    long count = 0;
    // Places from `from` on, `rest` the room left in the bin.
    std::function<void(size_t, int)> fill = [&](size_t from, int rest) {
      if (rest < bestRoom) {
        bestRoom = rest;
        best = cur;
      }
      for (size_t i = from; i < left.size() && bestRoom > 0 && count < nodes; ++i) {
        ++count;
        int x = w[static_cast<size_t>(left[i])];
        if (x > rest || (i > from && x == w[static_cast<size_t>(left[i - 1])])) continue;
        cur.push_back(static_cast<int>(i));
        fill(i + 1, rest - x);
        cur.pop_back();
      }
    };
    fill(1, room);
    budget -= count + static_cast<long>(left.size());
    if (budget < 0) return {};
    bin[static_cast<size_t>(left[0])] = bins;
    for (int i : best) bin[static_cast<size_t>(left[static_cast<size_t>(i)])] = bins;
    std::vector<int> next;
    for (int i : left)
      if (bin[static_cast<size_t>(i)] < 0) next.push_back(i);
    left.swap(next);
    ++bins;
  }
  return bin;
}

// The linear relaxation of a bin packing in pattern form. A pattern is what
// one bin holds: how many items of each weight, within the capacity and the
// items there are. The relaxation asks for as few bins in all as can cover
// every item with patterns taken fractionally. A revised simplex solves it
// over a basis of patterns (and of surplus columns, for items covered more
// than once); the pattern that enters is the one worth most at the duals,
// found by a knapsack over the capacity (dynamic programming, each weight's
// count split into powers of two).
//
// The duals of any step give a bound that holds whatever the rounding of
// the arithmetic: rounded down to integers Y_i >= 0 (one per weight), with
// V the most that one bin can hold of them (the same knapsack, exact in
// integers), every packing needs at least sum_i count_i Y_i / V bins, since
// each bin holds at most V and the items hold that sum. At the relaxation's
// optimum this is its value, which on items of a few per bin is often a
// bin above ceil(sum / c) and L2.
class PatternLp {
 public:
  // Items of the distinct weights `weight` (each from 1 to `c`), `count[i]`
  // of weight `weight[i]` (each at least 1).
  PatternLp(std::vector<int> weight, std::vector<int> count, int c)
      : _weight(std::move(weight)), _count(std::move(count)), _c(c), _m(_weight.size()) {
    _best.assign(static_cast<size_t>(_c) + 1, 0);
    _pattern.assign(_m, std::vector<int>(_m, 0));
    _surplus.assign(_m, -1);
    // The first basis: each weight alone, as many to a bin as fit.
    for (size_t i = 0; i < _m; ++i) _pattern[i][i] = std::min(_count[i], _c / _weight[i]);
    splitCounts();
    _singular = !refactor();
  }

  // The operations one pivot costs (the knapsack, the basis update and its
  // share of the inversions made anew), to weigh a budget before it is
  // spent.
  long pivotCost() const {
    return static_cast<long>(_m * _m + _m * _m * _m / kRefactorEvery +
                             _group.size() * (static_cast<size_t>(_c) + 1));
  }

  // Pivots until the relaxation is solved (true), or until the bound
  // reaches `target` or `work` (counted in operations, decreased) runs out
  // (false).
  bool solve(long target, long& work) {
    std::vector<int> a;
    std::vector<std::int64_t> scaled(_m, 0);
    std::vector<double> column(_m, 0.0);
    std::vector<double> u(_m, 0.0);
    while (!_singular && work > 0) {
      work -= pivotCost();
      priceBound(scaled, a);
      if (_bound >= target) return false;
      // Entering: a surplus column whose dual is negative, or else the
      // pattern worth most, when it is worth more than a bin.
      size_t enter = _m;
      for (size_t j = 0; j < _m && enter == _m; ++j)
        if (_y[j] < -kTolerance) enter = j;
      double reduced = 1;
      std::fill(column.begin(), column.end(), 0.0);
      if (enter < _m) {
        column[enter] = -1;
        reduced = _y[enter];
      } else {
        for (size_t j = 0; j < _m; ++j) {
          reduced -= a[j] * _y[j];
          column[j] = a[j];
        }
        if (reduced > -kTolerance) return true;
      }
      // Leaving: the ratio test, the largest pivot among ties.
      std::fill(u.begin(), u.end(), 0.0);
      for (size_t j = 0; j < _m; ++j)
        if (column[j] != 0)
          for (size_t r = 0; r < _m; ++r) u[r] += _binv[r * _m + j] * column[j];
      size_t out = _m;
      double step = 0;
      for (size_t r = 0; r < _m; ++r) {
        if (u[r] <= kTolerance) continue;
        double t = _x[r] / u[r];
        if (out == _m || t < step - 1e-12 || (t < step + 1e-12 && u[r] > u[out])) {
          out = r;
          step = t;
        }
      }
      if (out == _m) return true;  // cannot happen: every pattern covers an item
      pivot(out, u, step, reduced);
      _surplus[out] = enter < _m ? static_cast<int>(enter) : -1;
      if (enter < _m)
        std::fill(_pattern[out].begin(), _pattern[out].end(), 0);
      else
        _pattern[out] = a;
      if (++_pivots % kRefactorEvery == 0) _singular = !refactor();
    }
    return false;
  }

  // The best bound found so far (0 before the first step).
  long bound() const { return _bound; }
  // Forgets the bound (after items were taken out).
  void resetBound() { _bound = 0; }
  // The rows of the basis.
  size_t rows() const { return _m; }
  // Whether the basic column of row `r` is a pattern (not a surplus).
  bool isPattern(size_t r) const { return _surplus[r] < 0; }
  // The value of the basic column of row `r`.
  double value(size_t r) const { return _x[r]; }
  // The pattern of row `r` (items of each weight).
  const std::vector<int>& pattern(size_t r) const { return _pattern[r]; }
  // The items of each weight still to cover.
  const std::vector<int>& count() const { return _count; }

  // Takes `k` bins of the basic pattern of row `r` out of the items (k at
  // most its value, its items there): the basis stays feasible, the value
  // of the row down by k.
  void take(size_t r, int k) {
    for (size_t i = 0; i < _m; ++i) _count[i] -= k * _pattern[r][i];
    _x[r] = std::max(0.0, _x[r] - k);
    splitCounts();
  }

 private:
  static constexpr double kTolerance = 1e-9;
  static constexpr size_t kRefactorEvery = 64;

  // Items of one weight taken together by the knapsack.
  struct Group {
    int weight;  // of them all
    int items;
    size_t kind;
  };

  // The knapsack's groups: each weight's count (within what fits a bin)
  // split into 1, 2, 4, ... items.
  void splitCounts() {
    _group.clear();
    for (size_t i = 0; i < _m; ++i) {
      int left = std::min(_count[i], _c / _weight[i]);
      for (int k = 1; left > 0; k *= 2) {
        int t = std::min(k, left);
        _group.push_back({t * _weight[i], t, i});
        left -= t;
      }
    }
    _take.assign(_group.size() * (static_cast<size_t>(_c) + 1), 0);
  }

  // The duals rounded to integers, the bound they give, and in `a` the
  // pattern worth most at them.
  void priceBound(std::vector<std::int64_t>& scaled, std::vector<int>& a) {
    double top = 1;
    std::int64_t items = 1;
    for (size_t j = 0; j < _m; ++j) {
      top = std::max(top, _y[j]);
      items += _count[j];
    }
    // Scaled so that no sum below overflows: at most 2^60.
    double scale = std::ldexp(1.0, 60) / (top * static_cast<double>(items));
    scale = std::min(scale, std::ldexp(1.0, 30));
    std::int64_t held = 0;  // sum_j count_j Y_j
    for (size_t j = 0; j < _m; ++j) {
      scaled[j] = _y[j] > 0 ? static_cast<std::int64_t>(std::floor(_y[j] * scale)) : 0;
      held += scaled[j] * _count[j];
    }
    std::int64_t most = knapsack(scaled, a);
    if (most > 0) _bound = std::max(_bound, static_cast<long>((held + most - 1) / most));
  }

  // The most a bin holds of the values `v` per weight, and that bin in `a`.
  std::int64_t knapsack(const std::vector<std::int64_t>& v, std::vector<int>& a) {
    std::fill(_best.begin(), _best.end(), 0);
    size_t stride = static_cast<size_t>(_c) + 1;
    for (size_t g = 0; g < _group.size(); ++g) {
      std::int64_t value = v[_group[g].kind] * _group[g].items;
      unsigned char* taken = &_take[g * stride];
      auto w = static_cast<size_t>(_group[g].weight);
      std::fill(taken, taken + stride, 0);
      if (value <= 0) continue;
      for (size_t c = stride - 1; c >= w; --c)
        if (_best[c - w] + value > _best[c]) {
          _best[c] = _best[c - w] + value;
          taken[c] = 1;
        }
    }
    a.assign(_m, 0);
    size_t c = stride - 1;
    for (size_t g = _group.size(); g-- > 0;)
      if (_take[g * stride + c] != 0) {
        a[_group[g].kind] += _group[g].items;
        c -= static_cast<size_t>(_group[g].weight);
      }
    return _best[stride - 1];
  }

  // Row `out` leaves for the column whose image is `u`, at `step`; the
  // duals move by its reduced cost.
  void pivot(size_t out, const std::vector<double>& u, double step, double reduced) {
    double* po = &_binv[out * _m];
    for (size_t j = 0; j < _m; ++j) po[j] /= u[out];
    for (size_t r = 0; r < _m; ++r) {
      if (r == out || u[r] == 0) continue;
      double* pr = &_binv[r * _m];
      for (size_t j = 0; j < _m; ++j) pr[j] -= u[r] * po[j];
      _x[r] = std::max(0.0, _x[r] - u[r] * step);
    }
    _x[out] = step;
    for (size_t j = 0; j < _m; ++j) _y[j] += reduced * po[j];
  }

  // The inverse of the basis anew (Gauss-Jordan, partial pivoting), the
  // values and the duals from it; false when the basis is singular.
  bool refactor() {
    size_t m = _m;
    std::vector<double> b(m * m, 0.0);
    _binv.assign(m * m, 0.0);
    for (size_t r = 0; r < m; ++r) {
      if (_surplus[r] >= 0)
        b[static_cast<size_t>(_surplus[r]) * m + r] = -1;
      else
        for (size_t i = 0; i < m; ++i) b[i * m + r] = _pattern[r][i];
      _binv[r * m + r] = 1;
    }
    for (size_t c = 0; c < m; ++c) {
      size_t p = c;
      for (size_t i = c + 1; i < m; ++i)
        if (std::fabs(b[i * m + c]) > std::fabs(b[p * m + c])) p = i;
      if (std::fabs(b[p * m + c]) < 1e-12) return false;
      if (p != c)
        for (size_t j = 0; j < m; ++j) {
          std::swap(b[p * m + j], b[c * m + j]);
          std::swap(_binv[p * m + j], _binv[c * m + j]);
        }
      double d = b[c * m + c];
      for (size_t j = 0; j < m; ++j) {
        b[c * m + j] /= d;
        _binv[c * m + j] /= d;
      }
      for (size_t i = 0; i < m; ++i) {
        double f = b[i * m + c];
        if (i == c || f == 0) continue;
        for (size_t j = 0; j < m; ++j) {
          b[i * m + j] -= f * b[c * m + j];
          _binv[i * m + j] -= f * _binv[c * m + j];
        }
      }
    }
    _x.assign(m, 0.0);
    _y.assign(m, 0.0);
    for (size_t r = 0; r < m; ++r) {
      double s = 0;
      for (size_t i = 0; i < m; ++i) s += _binv[r * m + i] * _count[i];
      _x[r] = std::max(0.0, s);
      if (_surplus[r] < 0)
        for (size_t j = 0; j < m; ++j) _y[j] += _binv[r * m + j];
    }
    return true;
  }

  std::vector<int> _weight;
  std::vector<int> _count;
  int _c;
  size_t _m;
  std::vector<Group> _group;
  std::vector<std::int64_t> _best;         // the knapsack's best value by capacity
  std::vector<unsigned char> _take;        // whether group g is taken at capacity c
  std::vector<std::vector<int>> _pattern;  // the basic pattern of each row
  std::vector<int> _surplus;  // the weight whose surplus is basic at a row (-1: a pattern)
  std::vector<double> _binv;  // the inverse of the basis, row by row
  std::vector<double> _x;     // the values of the basic columns
  std::vector<double> _y;     // the duals
  long _bound = 0;
  size_t _pivots = 0;
  bool _singular = false;
};

// The operations the pattern relaxation of a pack and its dive may take
// (some 40 ms), and the largest table of its knapsack (bytes).
constexpr long kRelaxWork = 200000000;
constexpr double kRelaxTable = 1 << 24;

// What the relaxation gives a pack: a bound on its bins, and maybe a
// packing.
struct Relaxation {
  long bound = 0;            // the bins the items need at least (0: none found)
  std::vector<int> packing;  // each item's bin; empty when none was found
  long bins = 0;             // the bins of the packing
};

// The bound of the pattern relaxation of the items of weights `w` (bins of
// capacity `c`), and a packing found by diving through it: the relaxation
// is solved, every basic pattern it takes one or more times is taken as
// many whole times into bins, and when none is, the one it takes most,
// then the relaxation of the items left is solved and so on. The dive
// gives up when its bins and the bound of the items left exceed `target`
// (or the bound of all the items, when higher); there is no dive when a
// packing at hand of `have` bins already meets the bound. The work, counted
// in operations, is bounded by `work`. Items of weight 0 need no bin of
// their own and are put into the first one.
Relaxation RelaxPacking(const std::vector<int>& w, int c, long target, long have, long work) {
  Relaxation result;
  // The items of each distinct weight, heaviest first.
  std::vector<int> order(w.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&w](int a, int b) { return w[a] > w[b]; });
  std::vector<int> weight;
  std::vector<std::vector<int>> items;  // of each weight, taken from the back
  for (int i : order) {
    int x = w[static_cast<size_t>(i)];
    if (x > c) return result;  // no packing at all
    if (x <= 0) continue;
    if (weight.empty() || weight.back() != x) {
      weight.push_back(x);
      items.emplace_back();
    }
    items.back().push_back(i);
  }
  std::vector<int> bin(w.size(), 0);
  long bins = 0;
  // Puts the items of pattern `a` (clipped to those left) into a new bin.
  auto fill = [&](const std::vector<int>& kinds, const std::vector<int>& a) {
    bool any = false;
    for (size_t j = 0; j < kinds.size(); ++j)
      for (int t = 0; t < a[j] && !items[static_cast<size_t>(kinds[j])].empty(); ++t) {
        bin[static_cast<size_t>(items[static_cast<size_t>(kinds[j])].back())] =
            static_cast<int>(bins);
        items[static_cast<size_t>(kinds[j])].pop_back();
        any = true;
      }
    bins += any ? 1 : 0;
    return any;
  };
  bool first = true;
  for (;;) {
    std::vector<int> kinds;  // the weights with items left
    std::vector<int> kw;
    std::vector<int> kc;
    for (size_t k = 0; k < weight.size(); ++k)
      if (!items[k].empty()) {
        kinds.push_back(static_cast<int>(k));
        kw.push_back(weight[k]);
        kc.push_back(static_cast<int>(items[k].size()));
      }
    if (kinds.empty()) break;
    // The knapsack's table (a byte per group of items and unit of
    // capacity) within kRelaxTable, the first inversion of the basis within
    // the work.
    auto m = static_cast<double>(kinds.size());
    if ((static_cast<double>(c) + 1) * static_cast<double>(w.size()) > kRelaxTable ||
        m * m * m > static_cast<double>(work))
      return result;
    work -= static_cast<long>(m * m * m);
    PatternLp lp(kw, kc, c);
    for (;;) {
      bool solved = lp.solve(first ? std::numeric_limits<long>::max() : target - bins + 1, work);
      if (first) {
        result.bound = lp.bound();
        target = std::max(target, lp.bound());
        first = false;
        if (have <= target) return result;
      }
      if (!solved) return result;  // over the target, out of work or singular
      // Every pattern the relaxation takes whole, as many times.
      bool took = false;
      for (size_t r = 0; r < lp.rows(); ++r) {
        if (!lp.isPattern(r) || lp.value(r) < 1 - 1e-9) continue;
        int k = static_cast<int>(std::floor(lp.value(r) + 1e-9));
        bool fits = true;
        for (size_t j = 0; j < lp.rows(); ++j)
          fits = fits && static_cast<long>(k) * lp.pattern(r)[j] <= lp.count()[j];
        if (!fits) continue;
        std::vector<int> a = lp.pattern(r);
        for (int t = 0; t < k; ++t) fill(kinds, a);
        lp.take(r, k);
        took = true;
      }
      if (!took) break;
      lp.resetBound();
      if (std::all_of(lp.count().begin(), lp.count().end(), [](int n) { return n == 0; })) break;
    }
    // None whole: the pattern taken most (its items left), then the
    // relaxation of the items left afresh.
    size_t most = lp.rows();
    for (size_t r = 0; r < lp.rows(); ++r) {
      bool any = false;
      for (size_t j = 0; j < lp.rows(); ++j)
        any = any || (lp.pattern(r)[j] > 0 && lp.count()[j] > 0);
      if (lp.isPattern(r) && any && (most == lp.rows() || lp.value(r) > lp.value(most))) most = r;
    }
    if (most < lp.rows()) {
      fill(kinds, lp.pattern(most));
    } else if (!std::all_of(lp.count().begin(), lp.count().end(), [](int n) { return n == 0; })) {
      return result;  // cannot happen: some pattern covers the items left
    }
  }
  if (bins > target) return result;
  result.packing = std::move(bin);
  result.bins = bins;
  return result;
}

// Martello and Toth's lower bound L2 on the number of bins of capacity `c`
// that the items of `w` need: for each threshold k <= c/2, the items above
// c - k need a bin each, so do the items above c/2, and the items between k
// and c/2 fill the room those leave plus further bins.
}  // namespace

long QelGecodeBinLowerBound(std::vector<int> w, long c) {
  if (c <= 0 || w.empty()) return 0;
  std::sort(w.begin(), w.end(), std::greater<int>());
  long total = std::accumulate(w.begin(), w.end(), 0L);
  long best = (total + c - 1) / c;
  std::vector<long> thresholds{0};
  for (int x : w)
    if (2L * x <= c) thresholds.push_back(x);
  for (long k : thresholds) {
    long big = 0;        // items above c - k
    long middle = 0;     // items above c/2, up to c - k
    long middleSum = 0;  //   their weight
    long smallSum = 0;   // weight of the items from k up to c/2
    for (int x : w) {
      if (x > c - k)
        ++big;
      else if (2L * x > c) {
        ++middle;
        middleSum += x;
      } else if (x >= k)
        smallSum += x;
    }
    long spill = smallSum - (middle * c - middleSum);
    long bound = big + middle + (spill > 0 ? (spill + c - 1) / c : 0);
    best = std::max(best, bound);
  }
  return best;
}

long QelGecodeBinPatternBound(const std::vector<int>& w, long c) {
  long bound = QelGecodeBinLowerBound(w, c);
  if (c <= 0 || c > std::numeric_limits<int>::max()) return bound;
  // A packing "at hand" of that many bins: no dive, the relaxation alone.
  Relaxation r = RelaxPacking(w, static_cast<int>(c), bound, bound, kRelaxWork);
  return std::max(bound, r.bound);
}

namespace {

class GecodeEngine : public QelGecodeI {
  QEL_RTTI_DECL(GecodeEngine, QelGecodeI)

 public:
  explicit GecodeEngine(QelEnvI* env) : QelGecodeI(env) { makeRoot(); }

  using QelEngineI::applyNotice;
  using QelEngineI::extractObject;
  using QelEngineI::modifyObject;
  using QelEngineI::unextractObject;

  // ---- extraction handlers ------------------------------------------------
  void* extractObject(const QelNumVarI* v) override {
    varIndex(v, v);
    return nullptr;
  }
  void* extractObject(const QelNumLinTermI* e) override { return looseExpr(e); }
  void* extractObject(const QelIntLinTermI* e) override { return looseExpr(e); }
  void* extractObject(const QelNumProductI* e) override { return looseExpr(e); }

  void* extractObject(const QelRangeI* r) override {
    if (r->getExpr() == nullptr) throw refuse(r, "the range has no expression");
    if (postLinearRange(r)) return nullptr;
    GExpr g = toExpr(*_root, r->getExpr(), r, true);
    double lb = r->getLB() - g.offset;
    double ub = r->getUB() - g.offset;
    bool postLb = bound(r, lb, true);
    bool postUb = bound(r, ub, false);
    if (postLb) Gecode::rel(*_root, g.expr >= static_cast<int>(std::ceil(lb)));
    if (postUb) Gecode::rel(*_root, g.expr <= static_cast<int>(std::floor(ub)));
    return nullptr;
  }

  void* extractObject(const QelDiffI* d) override {
    GExpr x = toExpr(*_root, d->getX(), d, true);
    if (d->getY() == nullptr) {
      double c = d->getConstant() - x.offset;
      // An integer expression always differs from a non-integral value.
      if (!QelIsIntegerValue(c)) return nullptr;
      if (!FitsInt(c)) throw refuse(d, "the constant lies beyond Gecode's integer range");
      Gecode::rel(*_root, x.expr != static_cast<int>(c));
      return nullptr;
    }
    GExpr y = toExpr(*_root, d->getY(), d, true);
    double c = y.offset - x.offset;
    if (!QelIsIntegerValue(c)) return nullptr;
    if (!FitsInt(c)) throw refuse(d, "the constants lie beyond Gecode's integer range");
    Gecode::rel(*_root, x.expr - y.expr != static_cast<int>(c));
    return nullptr;
  }

  void* extractObject(const QelAllDiffI* a) override {
    // An expression held twice gets a copy: distinct then fails, as it
    // should, instead of refusing the repeated variable.
    Gecode::IntVarArgs xs = varArgs(a->getExprArray(), a, nullptr, true);
    if (xs.size() > 1) Gecode::distinct(*_root, xs);
    return nullptr;
  }

  void* extractObject(const QelAllMinDistanceI* a) override {
    QelInt k = a->getK();
    if (!FitsInt(static_cast<double>(k)))
      throw refuse(a, "the distance lies beyond Gecode's integer range");
    Gecode::IntVarArgs xs = varArgs(a->getExprArray(), a, nullptr, true);
    if (k <= 0 || xs.size() < 2) return nullptr;
    // Tasks of length k that do not overlap start at least k apart.
    Gecode::IntArgs lengths(xs.size());
    for (int i = 0; i < xs.size(); ++i) lengths[i] = static_cast<int>(k);
    Gecode::unary(*_root, xs, lengths);
    return nullptr;
  }

  void* extractObject(const QelPackI* p) override {
    if (p->getBoolArrays().getSize() > 0)
      throw refuse(p, "the Boolean arrays of a pack have no meaning for this engine");
    QelIntArray weight = p->getWeight();
    QelIntExprArray where = p->getWhere();
    if (weight.getSize() != where.getSize()) throw refuse(p, "where and weight differ in size");
    Gecode::IntArgs sizes(static_cast<int>(weight.getSize()));
    for (long i = 0; i < weight.getSize(); ++i) {
      if (weight[i] < 0 || !FitsInt(static_cast<double>(weight[i])))
        throw refuse(p, "item sizes must be non-negative integers within Gecode's range");
      sizes[static_cast<int>(i)] = static_cast<int>(weight[i]);
    }
    if (p->getUsedSet() != nullptr) {
      QelIntArray possible = p->getUsedSet()->getPossible();
      for (long i = 0; i < possible.getSize(); ++i)
        if (!FitsInt(static_cast<double>(possible[i])))
          throw refuse(p, "a possible value of the used set lies beyond Gecode's range");
    }
    // The bins are the indices of load: bin j of Gecode is load[j], and the
    // bin numbers in where are these indices, so every item lands in one of
    // the bins 0..m-1 (binpacking constrains where to them). Load and where
    // variables must be distinct: shared ones get copies.
    std::unordered_set<int> taken;
    Gecode::IntVarArgs loads = varArgs(p->getLoad(), p, &taken, true);
    PackItems items;
    items.pack = p;
    Gecode::IntVarArgs bins = varArgs(where, p, &taken, true, &items.bins);
    Gecode::binpacking(*_root, loads, bins, sizes);
    // The items need at least `needed` bins, however they are placed: a
    // bound the used count and the used set's cardinality both get (the
    // bin-packing propagator alone does not tell them).
    int capacity = 0;
    for (int j = 0; j < loads.size(); ++j) capacity = std::max(capacity, loads[j].max());
    for (int i = 0; i < sizes.size(); ++i) items.weights.push_back(sizes[i]);
    items.binCount = loads.size();
    items.capacity = capacity;
    items.sameBins = true;
    for (int j = 1; j < loads.size(); ++j)
      items.sameBins =
          items.sameBins && loads[j].min() == loads[0].min() && loads[j].max() == loads[0].max();
    // ... and every item may go into any bin: each is a variable of its
    // own whose domain holds every bin.
    for (int i = 0; i < bins.size() && items.sameBins; ++i) {
      const auto* v = QelDynamicCast<const QelNumVarI>(
          static_cast<const QelNumExprI*>(where.getElement(static_cast<long>(i))));
      const VarTable::Entry* e = v == nullptr ? nullptr : _vars.find(v);
      items.sameBins = e != nullptr && e->index == items.bins[static_cast<size_t>(i)] &&
                       bins[i].min() <= 0 && bins[i].max() >= loads.size() - 1 && bins[i].range();
    }
    long needed = QelGecodeBinLowerBound(items.weights, capacity);
    items.lowerBound = needed;
    if (p->getUsed() != nullptr) {
      GExpr used = toExpr(*_root, p->getUsed(), p, true);
      if (!QelIsIntegerValue(used.offset))
        throw refuse(p, "the used count has a non-integral constant");
      Gecode::IntVar count = Gecode::expr(*_root, used.expr + static_cast<int>(used.offset));
      Gecode::nvalues(*_root, bins, Gecode::IRT_EQ, count);
      if (bins.size() > 0) Gecode::rel(*_root, count, Gecode::IRT_GQ, static_cast<int>(needed));
    }
    _packs.push_back(std::move(items));
    if (QelIntSetVarI* s = p->getUsedSet()) {
      QelIntArray possible = s->getPossible();
      Gecode::IntArgs values(static_cast<int>(possible.getSize()));
      for (long i = 0; i < possible.getSize(); ++i)
        values[static_cast<int>(i)] = static_cast<int>(possible[i]);
      Gecode::IntSet lub(values);
      Gecode::SetVar set(*_root, Gecode::IntSet::empty, lub, 0,
                         static_cast<unsigned int>(lub.size()));
      Gecode::rel(*_root, Gecode::SOT_UNION, bins, set);
      if (s->getCardVar() != nullptr)
        Gecode::cardinality(*_root, set, var(*_root, s->getCardVar(), true));
      if (bins.size() > 0)
        Gecode::cardinality(*_root, set, static_cast<unsigned int>(needed),
                            Gecode::Set::Limits::card);
      _setIndex[s] = static_cast<int>(_root->sets.size());
      _root->sets.push_back(set);
    }
    return nullptr;
  }

  void* extractObject(const QelSOS1I* s) override {
    throw refuse(s,
                 "special ordered sets are not supported (they are a mixed-integer "
                 "programming construct; use a MIP engine)");
  }
  void* extractObject(const QelSOS2I* s) override {
    throw refuse(s,
                 "special ordered sets are not supported (they are a mixed-integer "
                 "programming construct; use a MIP engine)");
  }

  // The objective is posted into the searched copy at each solve; here its
  // criteria are checked and their variables made in the root.
  void* objectiveActivated(const QelObjectiveI* obj, void*) override {
    long n = obj->getNumCriteria();
    for (long i = 0; i < n; ++i) toExpr(*_root, obj->getCriterion(i), obj, true);
    return nullptr;
  }

 protected:
  void resetForm() override { makeRoot(); }

  void addToForm(QelExtractableI* m) override {
    try {
      extractThroughHook(m);
    } catch (const Gecode::Exception& e) {
      throw refuse(m, std::string("Gecode refused it: ") + e.what());
    }
  }

  void removeFromForm(QelExtractableI* m) override {
    // The objective lives in the searched copy only; a variable or an
    // expression alone constrains nothing. Their variables stay in the root
    // (see _strayVariables).
    if (QelDynamicCast<QelObjectiveI>(m) != nullptr || QelDynamicCast<QelNumExprI>(m) != nullptr) {
      _strayVariables = true;
      return;
    }
    markDirty(QelDescribe(m) + " was removed: Gecode cannot take a propagator out of a space");
  }

  void refreshInForm(QelExtractableI* m) override {
    if (const auto* obj = QelDynamicCast<QelObjectiveI>(m)) {
      objectiveActivated(obj, nullptr);
      countIncremental();
      return;
    }
    if (QelDynamicCast<QelNumExprI>(m) != nullptr) {
      addToForm(m);  // its variables
      countIncremental();
      return;
    }
    markDirty(QelDescribe(m) + " changed: Gecode cannot take a propagator out of a space");
  }

  void forget(const QelExtractableI* x) override {
    bool known = false;
    if (const auto* v = QelDynamicCast<const QelNumVarI>(x)) {
      known = _vars.erase(v);
    }
    if (const auto* s = QelDynamicCast<const QelIntSetVarI>(x))
      known = _setIndex.erase(s) != 0 || known;
    if (known && !isDirty()) markDirty(QelDescribe(x) + " was removed from the model's objects");
  }

  void syncVariables() override {
    for (VarTable::Entry& b : _vars.entries()) {
      const QelNumVarI* v = b.var;
      if (v->getLB() == b.lb && v->getUB() == b.ub && v->getType() == b.type) continue;
      countSilentChange();
      if (v->getType() != b.type || v->getType() == QelVarType::Float) {
        markDirty("the type of " + QelDescribe(v) + " changed");
        return;
      }
      if (v->getLB() < b.lb || v->getUB() > b.ub) {
        markDirty("the bounds of " + QelDescribe(v) + " were widened");
        return;
      }
      // Tightened: posted in place.
      int lo = 0;
      int hi = 0;
      if (!intBounds(v, lo, hi)) {
        markDirty("the bounds of " + QelDescribe(v) + " left Gecode's range");
        return;
      }
      Gecode::IntVar x = _root->vars[static_cast<size_t>(b.index)];
      if (lo > hi)
        _root->fail();
      else
        Gecode::dom(*_root, x, lo, hi);
      b.lb = v->getLB();
      b.ub = v->getUB();
      countIncremental();
    }
  }

  QelEngineStatus runSolve() override {
    try {
      return search();
    } catch (const Gecode::Exception& e) {
      throw QelEngineError(std::string("Gecode engine: the search failed: ") + e.what());
    }
  }

  QelFormSize getFormSize() const override {
    QelFormSize size;
    if (!_root->failed())
      for (Gecode::Propagators p(*_root, Gecode::PropagatorGroup::all); p(); ++p) ++size.rows;
    size.columns = static_cast<long>(_root->vars.size());
    size.integers = size.columns;
    return size;
  }

 public:
  std::vector<std::string> getEngineParamNames() const override {
    return {"varSelect",   "valSelect", "restart",   "restartScale",
            "restartBase", "failLimit", "packSearch"};
  }

 protected:
  bool setEngineParam(const std::string& name, const std::string& value) override {
    if (name == "varSelect") {
      _search.variable = Choice(name, value, VarSelectNames());
    } else if (name == "valSelect") {
      _search.value = Choice(name, value, ValSelectNames());
    } else if (name == "restart") {
      _search.restart = Choice(name, value, RestartNames());
    } else if (name == "packSearch") {
      _search.pack = Choice(name, value, PackSearchNames());
    } else if (name == "restartScale" || name == "failLimit") {
      double v = paramNumber(name, value);
      if (v < 0 || v != std::floor(v) || v > 1e15)
        throw badParam(name, "\"" + value + "\" is not a whole number from 0 to 1e15");
      if (name == "restartScale" && v < 1) throw badParam(name, "the scale must be at least 1");
      (name == "failLimit" ? _search.failLimit : _search.restartScale) =
          static_cast<unsigned long>(v);
    } else if (name == "restartBase") {
      double v = paramNumber(name, value);
      if (!(v > 1 && v <= 100)) throw badParam(name, "the base must lie in (1, 100]");
      _search.restartBase = v;
    } else {
      return false;
    }
    return true;
  }

 private:
  void makeRoot() {
    _strayVariables = false;
    _root = std::make_unique<ModelSpace>();
    _vars.clear();
    _setIndex.clear();
    _packs.clear();
  }

  // The choice named `value` among `names`, or the error listing them.
  template <class T>
  T Choice(const std::string& name, const std::string& value, const Names<T>& names) const {
    std::string known;
    for (const auto& n : names) {
      if (value == n.first) return n.second;
      known += (known.empty() ? "" : ", ") + std::string(n.first);
    }
    throw badParam(name, "\"" + value + "\" is not one of " + known);
  }

  // Integer bounds of `v` in Gecode's range (infinite bounds, from 1e20 on,
  // become the range's ends); false when a finite bound lies beyond it.
  static bool intBounds(const QelNumVarI* v, int& lo, int& hi) {
    double lb = v->getLB();
    double ub = v->getUB();
    if (QelIsInfiniteBound(lb) && lb < 0) lb = Gecode::Int::Limits::min;
    if (QelIsInfiniteBound(ub) && ub > 0) ub = Gecode::Int::Limits::max;
    lb = std::ceil(lb);
    ub = std::floor(ub);
    if (!FitsInt(lb) || !FitsInt(ub)) return false;
    lo = static_cast<int>(lb);
    hi = static_cast<int>(ub);
    return true;
  }

  // Whether the bound `b` (of the range `r`) is to be posted: infinite
  // bounds (from 1e20 on) are not; finite ones must fit Gecode's range.
  bool bound(const QelExtractableI* r, double b, bool lower) const {
    if (std::isnan(b)) throw refuse(r, "a bound is not a number");
    if (QelIsInfiniteBound(b)) {
      // lb = +infinity or ub = -infinity: nothing satisfies the range.
      if ((lower && b > 0) || (!lower && b < 0)) _root->fail();
      return false;
    }
    double rounded = lower ? std::ceil(b) : std::floor(b);
    if (!FitsInt(rounded))
      throw refuse(r, "the bound " + std::to_string(b) + " lies beyond Gecode's integer range");
    return true;
  }

  // The index of `v` among the root's variables, made (through the
  // variable's hook) when it is new.
  int varIndex(const QelNumVarI* v, const QelExtractableI* owner) {
    if (const VarTable::Entry* e = _vars.find(v)) return e->index;
    if (v->getType() == QelVarType::Float)
      throw refuse(v,
                   "float variables are not supported; the engine takes integer and "
                   "Boolean variables");
    int lo = 0;
    int hi = 0;
    if (!intBounds(v, lo, hi)) throw refuse(v, "its bounds lie beyond Gecode's integer range");
    (void)owner;
    int index = static_cast<int>(_root->vars.size());
    if (lo > hi) {
      _root->vars.emplace_back(*_root, lo, lo);
      _root->fail();  // an empty domain: the model has no solution
    } else {
      _root->vars.emplace_back(*_root, lo, hi);
    }
    _vars.insert({v, index, _root->vars.back(), v->getLB(), v->getUB(), v->getType()});
    return index;
  }

  // The variable's Gecode variable in `home`; in the root it is made
  // through the variable's hook when new.
  Gecode::IntVar var(ModelSpace& home, const QelNumVarI* v, bool create) {
    if (&home == _root.get())
      if (const Gecode::IntVar* x = _vars.rootVar(v)) return *x;
    const VarTable::Entry* e = _vars.find(v);
    if (e == nullptr) {
      if (!create || &home != _root.get())
        throw QelEngineError("Gecode engine: " + QelDescribe(v) + " was not extracted", v);
      extractThroughHook(v);
      e = _vars.find(v);
    }
    return &home == _root.get() ? e->x : home.vars[static_cast<size_t>(e->index)];
  }

  static int IntCoef(GecodeEngine* self, const QelExtractableI* owner, double c) {
    // Within Gecode's range first, so that the conversion is defined.
    if (!FitsInt(c) || static_cast<double>(static_cast<int>(c)) != c)
      throw self->refuse(owner, "the coefficient " + std::to_string(c) +
                                    " is not an integer within Gecode's range");
    return static_cast<int>(c);
  }

  GExpr toExpr(ModelSpace& home, const QelNumExprI* e, const QelExtractableI* owner, bool create) {
    GExpr g;
    if (e == nullptr) throw refuse(owner, "it holds an empty expression");
    if (const auto* v = QelDynamicCast<const QelNumVarI>(e)) {
      g.expr = Gecode::LinIntExpr(var(home, v, create));
      return g;
    }
    const QelLinearParts* parts = nullptr;
    if (const auto* t = QelDynamicCast<const QelNumLinTermI>(e)) parts = &t->getParts();
    if (const auto* t = QelDynamicCast<const QelIntLinTermI>(e)) parts = &t->getParts();
    if (parts != nullptr) {
      g.offset = parts->constant;
      Gecode::IntArgs coefs;
      Gecode::IntVarArgs xs;
      // A term of coefficient zero adds nothing, but its variable still
      // gets a Gecode variable: the solution holds a value for every
      // variable of the model's expressions, which their evaluation needs.
      for (const QelLinTermNode* n = parts->head; n != nullptr; n = n->next) {
        Gecode::IntVar x = var(home, n->var, create);
        if (n->coef == 0.0) continue;
        coefs << IntCoef(this, owner, n->coef);
        xs << x;
      }
      g.expr = xs.size() > 0 ? Gecode::LinIntExpr(coefs, xs) : Gecode::LinIntExpr(0);
      for (const QelQuadTermNode* q = parts->quadHead; q != nullptr; q = q->next) {
        Gecode::IntVar x1 = var(home, q->var1, create);
        Gecode::IntVar x2 = var(home, q->var2, create);
        if (q->coef == 0.0) continue;
        int c = IntCoef(this, owner, q->coef);
        g.expr = g.expr + c * (Gecode::LinIntExpr(x1) * Gecode::LinIntExpr(x2));
      }
      for (const QelAggregateTermNode* a = parts->aggHead; a != nullptr; a = a->next) {
        GExpr sub = toExpr(home, a->expr, owner, create);
        if (a->coef == 0.0) continue;
        int c = IntCoef(this, owner, a->coef);
        g.expr = g.expr + c * sub.expr;
        g.offset += c * sub.offset;
      }
      return g;
    }
    if (const auto* p = QelDynamicCast<const QelNumProductI>(e)) {
      GExpr l = toExpr(home, p->getLeft(), owner, create);
      GExpr r = toExpr(home, p->getRight(), owner, create);
      if (!QelIsIntegerValue(l.offset) || !QelIsIntegerValue(r.offset) || !FitsInt(l.offset) ||
          !FitsInt(r.offset))
        throw refuse(owner, "a factor of a product has a non-integral constant");
      g.expr = (l.expr + static_cast<int>(l.offset)) * (r.expr + static_cast<int>(r.offset));
      return g;
    }
    throw refuse(
        owner, std::string("expressions of class ") + e->getRttiTypeName() + " are not supported");
  }

  // The expressions of `exprs` as Gecode variables of the root. With
  // `distinct`, a variable is used once only (further uses, and variables
  // already in `taken`, get a copy equal to it).
  // `indices`, when given, receives the root index of each variable.
  Gecode::IntVarArgs varArgs(const QelExtractableArray& exprs, const QelExtractableI* owner,
                             std::unordered_set<int>* taken, bool distinct = false,
                             std::vector<int>* indices = nullptr) {
    std::unordered_set<int> local;
    if (taken == nullptr) taken = &local;
    Gecode::IntVarArgs out;
    for (long i = 0; i < exprs.getSize(); ++i) {
      const auto* e = static_cast<const QelNumExprI*>(exprs.getElement(i));
      if (e == nullptr) throw refuse(owner, "it holds an empty expression");
      if (const auto* v = QelDynamicCast<const QelNumVarI>(e)) {
        var(*_root, v, true);
        int index = _vars.find(v)->index;
        if (!distinct || taken->insert(index).second) {
          out << _root->vars[static_cast<size_t>(index)];
          if (indices != nullptr) indices->push_back(index);
          continue;
        }
      }
      GExpr g = toExpr(*_root, e, owner, true);
      if (!QelIsIntegerValue(g.offset) || !FitsInt(g.offset))
        throw refuse(owner, "an expression has a non-integral constant");
      Gecode::IntVar copy(*_root, Gecode::Int::Limits::min, Gecode::Int::Limits::max);
      Gecode::rel(*_root, copy == g.expr + static_cast<int>(g.offset));
      if (indices != nullptr) indices->push_back(static_cast<int>(_root->vars.size()));
      _root->vars.push_back(copy);
      out << copy;
    }
    return out;
  }

  // A range over a linear expression (no quadratic or nested terms) goes
  // to Gecode's linear propagators at once, without building minimodel's
  // expression tree; false for any other range.
  bool postLinearRange(const QelRangeI* r) {
    const QelLinearParts* parts = nullptr;
    if (const auto* t = QelDynamicCast<const QelNumLinTermI>(r->getExpr())) parts = &t->getParts();
    if (const auto* t = QelDynamicCast<const QelIntLinTermI>(r->getExpr())) parts = &t->getParts();
    if (parts == nullptr || parts->quadHead != nullptr || parts->aggHead != nullptr) return false;
    // The arrays are sized once: growing them term by term costs a copy
    // per doubling, which shows at millions of nonzeros. The count also
    // asks for the row's variables ahead of their lookups, so that their
    // cache misses overlap instead of coming one after the other.
    int terms = 0;
    for (const QelLinTermNode* n = parts->head; n != nullptr; n = n->next) {
      __builtin_prefetch(n->var);
      terms += n->coef == 0.0 ? 0 : 1;
    }
    Gecode::IntArgs coefs(terms);
    Gecode::IntVarArgs xs(terms);
    int at = 0;
    for (const QelLinTermNode* n = parts->head; n != nullptr; n = n->next) {
      Gecode::IntVar x = var(*_root, n->var, true);  // zero coefficients too (see toExpr)
      if (n->coef == 0.0) continue;
      coefs[at] = IntCoef(this, r, n->coef);
      xs[at] = x;
      ++at;
    }
    double lb = r->getLB() - parts->constant;
    double ub = r->getUB() - parts->constant;
    bool postLb = bound(r, lb, true);
    bool postUb = bound(r, ub, false);
    if (postLb && postUb) {
      int lo = static_cast<int>(std::ceil(lb));
      int hi = static_cast<int>(std::floor(ub));
      if (lo > hi) {
        _root->fail();  // no integer lies within the bounds
      } else if (lo == hi) {
        Gecode::linear(*_root, coefs, xs, Gecode::IRT_EQ, lo);
      } else {
        // Both bounds in one propagator: the row's value is a variable of
        // its own in [lo, hi]. The bounds it gives the terms are those of
        // the two inequalities, at half their cost (one propagator and one
        // subscription per term instead of two). The value needs no
        // branching: it is fixed once the terms are.
        Gecode::linear(*_root, coefs, xs, Gecode::IRT_EQ, Gecode::IntVar(*_root, lo, hi));
      }
      return true;
    }
    if (postLb) Gecode::linear(*_root, coefs, xs, Gecode::IRT_GQ, static_cast<int>(std::ceil(lb)));
    if (postUb) Gecode::linear(*_root, coefs, xs, Gecode::IRT_LQ, static_cast<int>(std::floor(ub)));
    return true;
  }

  void* looseExpr(const QelNumExprI* e) {
    toExpr(*_root, e, e, true);
    return nullptr;
  }

  // Stops the search at the engine's limits and reports its progress (the
  // log's lines, the progress callback, which may ask to stop). Gecode's
  // parallel search calls it from its threads: the figures are guarded.
  class Limits : public Gecode::Search::Stop {
   public:
    Limits(GecodeEngine& engine, unsigned long nodes, unsigned long fails)
        : _engine(engine), _nodes(nodes), _fails(fails) {}
    bool stop(const Gecode::Search::Statistics& st, const Gecode::Search::Options&) override {
      if (_nodes > 0 && st.node >= _nodes) return true;
      if (_fails > 0 && st.fail >= _fails) return true;
      std::lock_guard<std::mutex> lock(_mutex);
      _progress.nodes = std::max(_progress.nodes, static_cast<long>(st.node));
      if (_stopped) return true;
      // The clock is read every 64 nodes, the figures reported every tenth
      // of a second.
      if ((++_calls & 63U) != 0) return false;
      double now = _engine.elapsed();
      if (_engine.getTimeLimit() > 0 && _engine.remainingTime() <= 0) return _stopped = true;
      if (now - _reported < 0.1) return false;
      _reported = now;
      _progress.time = now;
      _stopped = _engine.reportProgress(_progress);
      return _stopped;
    }
    // A new solution: its figures, reported at once to the callback.
    bool solution(double incumbent, long solutions, long nodes) {
      std::lock_guard<std::mutex> lock(_mutex);
      _progress.hasIncumbent = true;
      _progress.incumbent = incumbent;
      _progress.solutions = solutions;
      _progress.nodes = std::max(_progress.nodes, nodes);
      _progress.time = _engine.elapsed();
      _stopped = _engine.reportProgress(_progress) || _stopped;
      return _stopped;
    }
    // The bound the root propagation gives the first criterion.
    void setBound(double bound) {
      _progress.hasBound = true;
      _progress.bound = bound;
    }
    const QelEngineProgress& progress() const { return _progress; }

   private:
    GecodeEngine& _engine;
    unsigned long _nodes;
    unsigned long _fails;
    std::mutex _mutex;
    QelEngineProgress _progress;
    unsigned long _calls = 0;
    double _reported = 0;
    bool _stopped = false;
  };

  // The variable selection asked for (first-fail when automatic).
  Gecode::IntVarBranch varBranch() const {
    switch (_search.variable) {
      case QelGecodeVarSelect::InOrder:
        return Gecode::INT_VAR_NONE();
      case QelGecodeVarSelect::LargestDegree:
        return Gecode::INT_VAR_DEGREE_MAX();
      case QelGecodeVarSelect::DomainOverAfc:
        return Gecode::INT_VAR_AFC_SIZE_MAX();
      case QelGecodeVarSelect::Random:  // the variables come shuffled
        return Gecode::INT_VAR_NONE();
      case QelGecodeVarSelect::Automatic:
      case QelGecodeVarSelect::SmallestDomain:
        break;
    }
    return Gecode::INT_VAR_SIZE_MIN();
  }

  // The value selection asked for (smallest value when automatic).
  Gecode::IntValBranch valBranch(Gecode::Rnd& rnd) const {
    switch (_search.value) {
      case QelGecodeValSelect::Largest:
        return Gecode::INT_VAL_MAX();
      case QelGecodeValSelect::Median:
        return Gecode::INT_VAL_MED();
      case QelGecodeValSelect::SplitLower:
        return Gecode::INT_VAL_SPLIT_MIN();
      case QelGecodeValSelect::SplitUpper:
        return Gecode::INT_VAL_SPLIT_MAX();
      case QelGecodeValSelect::Random:
        return Gecode::INT_VAL_RND(rnd);
      case QelGecodeValSelect::Automatic:
      case QelGecodeValSelect::Smallest:
        break;
    }
    return Gecode::INT_VAL_MIN();
  }

  // The branchings of the searched space: with automatic variable
  // selection, the items of the packs first, heaviest first, each into the
  // first bin that takes it; then the model's variables with the chosen
  // selections; then the auxiliary variables and the sets, so that every
  // variable has a value in a solution; the criteria last.
  void postBranching(ModelSpace& work, unsigned long restart) const {
    auto seed = static_cast<unsigned int>(std::max(0, getParams().randomSeed));
    Gecode::Rnd rnd;
    if (_search.value == QelGecodeValSelect::Random) rnd = Gecode::Rnd(seed);
    std::vector<char> done(work.vars.size(), 0);
    bool symmetric = interchangeableBins();
    if (_search.variable == QelGecodeVarSelect::Automatic) {
      for (const PackItems& pack : _packs) {
        std::vector<size_t> order(pack.bins.size());
        std::iota(order.begin(), order.end(), size_t{0});
        std::stable_sort(order.begin(), order.end(),
                         [&pack](size_t a, size_t b) { return pack.weights[a] > pack.weights[b]; });
        Gecode::IntVarArgs items;
        std::vector<int> itemWeights;
        auto hint = std::make_shared<std::vector<int>>();  // each item's bin in the packing found
        for (size_t i : order) {
          auto index = static_cast<size_t>(pack.bins[i]);
          if (done[index] != 0) continue;
          done[index] = 1;
          items << work.vars[index];
          itemWeights.push_back(pack.weights[i]);
          hint->push_back(pack.hint.empty() ? -1 : pack.hint[i]);
        }
        if (items.size() == 0) continue;
        if (symmetric && _search.value == QelGecodeValSelect::Automatic) {
          int index = static_cast<int>(work.items.size());
          work.items.emplace_back(work, items);
          work.bins.push_back(pack.binCount);
          work.capacity.push_back(pack.capacity);
          work.weights.push_back(itemWeights);
          // With the empty bins taken lowest first, the bins used are the
          // first ones: every item lies below the used count, which lets a
          // tighter count restrict the bins at once.
          GExpr used =
              const_cast<GecodeEngine*>(this)->toExpr(work, pack.pack->getUsed(), pack.pack, false);
          Gecode::IntVar count = Gecode::expr(work, used.expr + static_cast<int>(used.offset));
          for (int i = 0; i < items.size(); ++i) Gecode::rel(work, items[i], Gecode::IRT_LE, count);
          // The pattern relaxation's bound, when above L2 (which extraction
          // posted), on the bins used.
          if (pack.bound > pack.lowerBound)
            Gecode::rel(work, count, Gecode::IRT_GQ, static_cast<int>(pack.bound));
          bool binByBin = _search.pack == QelGecodePackSearch::Bins ||
                          (_search.pack == QelGecodePackSearch::Alternate && restart % 2 == 1);
          // A packing into as many bins as the lower bound, found before the
          // search, leads the first run of the two searches in turn: the
          // count from the fewest bins up, each item first into its bin in
          // that packing. The first dive then ends at a proven optimum. (A
          // search chosen alone with packSearch runs as it is.)
          bool guided = restart == pack.hintRun && _search.pack == QelGecodePackSearch::Alternate &&
                        !pack.hint.empty();
          binByBin = binByBin && !guided;
          if (!guided) hint.reset();
          // Otherwise the count first, from the most bins down: a packing
          // comes at once, and each better count is then searched from the
          // top of the tree rather than below the last packing.
          Gecode::branch(work, count, guided ? Gecode::INT_VAL_MIN() : Gecode::INT_VAL_MAX());
          if (binByBin)
            BinByBin::post(work, index);
          else
            Gecode::branch(work, items, Gecode::INT_VAR_NONE(),
                           Gecode::INT_VAL(
                               [index, hint](const Gecode::Space& home, Gecode::IntVar x, int i) {
                                 if (hint != nullptr) {
                                   int b = (*hint)[static_cast<size_t>(i)];
                                   if (b >= 0 && x.in(b)) return b;
                                 }
                                 return BestBin(home, x, index);
                               },
                               [index](Gecode::Space& home, unsigned int a, Gecode::IntVar x, int,
                                       int b) { CommitItem(home, a, x, index, b); }));
        } else {
          Gecode::branch(work, items, Gecode::INT_VAR_NONE(), valBranch(rnd));
        }
      }
    }
    std::vector<char> isModel(work.vars.size(), 0);
    for (const VarTable::Entry& e : _vars.entries()) isModel[static_cast<size_t>(e.index)] = 1;
    Gecode::IntVarArgs model;
    Gecode::IntVarArgs aux;
    for (size_t i = 0; i < work.vars.size(); ++i)
      if (done[i] == 0) (isModel[i] != 0 ? model : aux) << work.vars[i];
    if (_search.variable == QelGecodeVarSelect::Random) {
      // A random order drawn from the seed, kept for the whole search
      // (Gecode's own random variable selection leaks its generator).
      std::mt19937 g(seed);
      for (int i = model.size() - 1; i > 0; --i)
        std::swap(model[i], model[static_cast<int>(g() % static_cast<std::uint32_t>(i + 1))]);
    }
    if (model.size() > 0) Gecode::branch(work, model, varBranch(), valBranch(rnd));
    if (aux.size() > 0) Gecode::branch(work, aux, Gecode::INT_VAR_NONE(), Gecode::INT_VAL_MIN());
    if (!work.sets.empty()) {
      Gecode::SetVarArgs sets;
      for (const auto& set : work.sets) sets << set;
      Gecode::branch(work, sets, Gecode::SET_VAR_NONE(), Gecode::SET_VAL_MIN_INC());
    }
    if (work.costs.size() > 0)
      Gecode::branch(work, work.costs, Gecode::INT_VAR_NONE(), Gecode::INT_VAL_MIN());
  }

  // Whether the bins of the pack are interchangeable, so that the search
  // may skip equivalent bins without losing an optimum: the model holds one
  // pack (and variables), its bins have the same bounds and no used set,
  // the objective is its used count, and the search optimizes (an
  // enumeration must see every solution).
  bool interchangeableBins() const {
    const QelObjectiveI* obj = getObjective();
    if (_enumerate != nullptr || obj == nullptr || _packs.size() != 1) return false;
    if (obj->getNumCriteria() != 1) return false;
    const QelNumExprI* criterion = obj->getCriterion(0);
    bool objectiveIsUsed = false;
    for (const PackItems& pack : _packs) {
      if (!pack.sameBins || pack.pack->getUsedSet() != nullptr) return false;
      const QelNumVarI* used = SingleVar(pack.pack->getUsed());
      objectiveIsUsed = objectiveIsUsed || (used != nullptr && used == SingleVar(criterion));
    }
    if (!objectiveIsUsed) return false;
    for (const QelExtractableI* m : getMembers())
      if (QelDynamicCast<const QelPackI>(m) == nullptr &&
          QelDynamicCast<const QelNumVarI>(m) == nullptr &&
          QelDynamicCast<const QelObjectiveI>(m) == nullptr)
        return false;
    return true;
  }

  // Makes `s` the held solution.
  void storeSolution(const ModelSpace& s, const std::vector<double>& offsets) {
    for (const VarTable::Entry& e : _vars.entries())
      setValue(e.var, s.vars[static_cast<size_t>(e.index)].val());
    for (const auto& entry : _setIndex) {
      std::vector<QelInt> value;
      for (Gecode::SetVarGlbValues it(s.sets[static_cast<size_t>(entry.second)]); it(); ++it)
        value.push_back(it.val());
      setSetValue(entry.first, value);
    }
    std::vector<double> objValues;
    for (int i = 0; i < s.costs.size(); ++i)
      objValues.push_back(s.costs[i].val() + offsets[static_cast<size_t>(i)]);
    setEngineObjValues(objValues);
  }

  // Runs the search engine `E` over `work` until it is exhausted or
  // stopped: keeps the last (best) solution, or hands every solution to the
  // enumeration. Returns whether a solution was found and sets `stopped`.
  template <class E>
  bool run(ModelSpace* work, const Gecode::Search::Options& options,
           const std::vector<double>& offsets, bool optimize, Limits& limits, bool& stopped) {
    E engine(work, options);
    std::unique_ptr<ModelSpace> best;
    bool cut = false;  // stopped by a limit of ours, the callback or the gap
    auto solutionLimit = static_cast<unsigned long>(getParams().solutionLimit);
    while (ModelSpace* s = engine.next()) {
      best.reset(s);
      ++_searchStats.solutions;
      double incumbent = best->costs.size() > 0 ? best->costs[0].val() + offsets[0] : 0;
      if (limits.solution(incumbent, static_cast<long>(_searchStats.solutions),
                          static_cast<long>(engine.statistics().node)))
        cut = true;
      if (_enumerate != nullptr) {
        storeSolution(*best, offsets);
        ++_enumerated;
        if (!(*_enumerate)(*this) || _enumerated == _enumerateLimit) cut = true;
      } else if (!optimize) {
        break;
      } else if (gapReached(limits.progress())) {
        cut = true;
      }
      if (solutionLimit > 0 && _searchStats.solutions >= solutionLimit) cut = true;
      if (cut) break;
    }
    Gecode::Search::Statistics st = engine.statistics();
    _searchStats.nodes = st.node;
    _searchStats.fails = st.fail;
    _searchStats.restarts = st.restart;
    _searchStats.depth = st.depth;
    stopped = cut || engine.stopped();
    if (best && _enumerate == nullptr) storeSolution(*best, offsets);
    return _searchStats.solutions > 0;
  }

  // Whether the incumbent is within the gaps asked for of the bound.
  bool gapReached(const QelEngineProgress& p) const {
    if (!p.hasIncumbent || !p.hasBound) return false;
    double gap = std::fabs(p.incumbent - p.bound);
    const QelEngineParams& params = getParams();
    if (params.absoluteGap >= 0 && gap <= params.absoluteGap) return true;
    return params.relativeGap >= 0 &&
           gap <= params.relativeGap * std::max(1e-10, std::fabs(p.incumbent));
  }

  QelEngineStatus search() {
    _searchStats = QelGecodeSearchStats();
    auto started = std::chrono::steady_clock::now();
    QelEngineStatus status = searchRoot();
    _searchStats.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return status;
  }

  QelEngineStatus searchRoot() {
    if (_root->status() == Gecode::SS_FAILED) return QelEngineStatus::Infeasible;
    std::unique_ptr<ModelSpace> work(static_cast<ModelSpace*>(_root->clone()));
    const QelObjectiveI* obj = getObjective();
    std::vector<double> offsets;
    if (obj != nullptr) {
      Gecode::IntVarArgs costs;
      long n = obj->getNumCriteria();
      for (long i = 0; i < n; ++i) {
        GExpr g = toExpr(*work, obj->getCriterion(i), obj, false);
        costs << Gecode::expr(*work, g.expr);
        offsets.push_back(g.offset);
      }
      work->costs = Gecode::IntVarArray(*work, costs);
      work->sense = obj->getSense() == QelObjective::Minimize ? 1 : -1;
    }
    // A pack with interchangeable bins gets two searches in turn, one per
    // restart: item by item (the heaviest into the fullest bin that takes
    // it) and bin by bin (see BinByBin). Each is complete; a run that ends
    // before its cutoff has proven what it found.
    bool portfolio = _search.pack == QelGecodePackSearch::Alternate &&
                     _search.variable == QelGecodeVarSelect::Automatic &&
                     _search.value == QelGecodeValSelect::Automatic && _enumerate == nullptr &&
                     interchangeableBins();
    if (portfolio) {
      // The minimum-slack packing that may lead the first run, looked for
      // once per extraction of the pack.
      for (PackItems& pack : _packs) {
        if (pack.hintTried || pack.capacity <= 0) continue;
        pack.hintTried = true;
        pack.bound = pack.lowerBound;
        std::vector<int> hint =
            MinimumSlackPacking(pack.weights, pack.capacity, kSlackNodes, kSlackBudget);
        if (!hint.empty() && *std::max_element(hint.begin(), hint.end()) + 1 <= pack.bound) {
          pack.hint = std::move(hint);
          pack.hintRun = 0;
        }
      }
      work->poster = &_poster;
    } else
      postBranching(*work, 0);
    Limits limits(*this, static_cast<unsigned long>(getParams().nodeLimit), _search.failLimit);
    if (obj != nullptr) {
      // The bound root propagation gives the first criterion.
      if (work->status() == Gecode::SS_FAILED) return QelEngineStatus::Infeasible;
      const Gecode::IntVar& first = work->costs[0];
      limits.setBound((work->sense > 0 ? first.min() : first.max()) + offsets[0]);
    }

    Gecode::Search::Options options;
    options.threads = getParams().threads;
    options.stop = &limits;
    bool restarts =
        (_search.restart != QelGecodeRestart::None || portfolio) && _enumerate == nullptr;
    if (portfolio && _search.restart == QelGecodeRestart::None) {
      options.cutoff = Gecode::Search::Cutoff::geometric(kPackCutoff, 2);
    } else if (restarts) {
      options.cutoff =
          _search.restart == QelGecodeRestart::Luby
              ? Gecode::Search::Cutoff::luby(_search.restartScale)
              : Gecode::Search::Cutoff::geometric(_search.restartScale, _search.restartBase);
    }
    bool optimize = obj != nullptr;
    bool stopped = false;
    bool found = false;
    ModelSpace* root = work.get();
    if (optimize)
      found = restarts
                  ? run<Gecode::RBS<ModelSpace, Gecode::BAB>>(root, options, offsets, true, limits,
                                                              stopped)
                  : run<Gecode::BAB<ModelSpace>>(root, options, offsets, true, limits, stopped);
    else
      found = restarts
                  ? run<Gecode::RBS<ModelSpace, Gecode::DFS>>(root, options, offsets, false, limits,
                                                              stopped)
                  : run<Gecode::DFS<ModelSpace>>(root, options, offsets, false, limits, stopped);
    QelSolveReport& r = report();
    r.nodes = static_cast<long>(_searchStats.nodes);
    r.solutions = static_cast<long>(_searchStats.solutions);
    if (limits.progress().hasBound) r.bestBound = limits.progress().bound;
    if (found && optimize && !stopped) r.bestBound = limits.progress().incumbent;
    _searchStats.stopped = stopped;
    if (!found) return stopped ? QelEngineStatus::Unknown : QelEngineStatus::Infeasible;
    // A satisfaction model is solved by its first solution; an optimization
    // or an enumeration only when the search was exhausted.
    if (!optimize && _enumerate == nullptr) return QelEngineStatus::Optimal;
    // Stopped (by a gap, say) at an incumbent equal to the bound: proven.
    if (optimize && _enumerate == nullptr && limits.progress().hasBound &&
        limits.progress().incumbent == limits.progress().bound)
      return QelEngineStatus::Optimal;
    return stopped ? QelEngineStatus::Feasible : QelEngineStatus::Optimal;
  }

  // Posts the branchings into each copy of a search with restarts.
  class Poster : public BranchingPoster {
   public:
    explicit Poster(GecodeEngine* engine) : _engine(engine) {}
    void post(ModelSpace& work, unsigned long restart) const override {
      if (restart == kRelaxRun) _engine->relaxPacks();
      _engine->postBranching(work, restart);
    }

   private:
    GecodeEngine* _engine;
  };

  // Before run kRelaxRun of the pack searches (each of the two has had a
  // run and found no packing at the bound, nor the minimum-slack packing):
  // the pattern relaxation of each pack, once per extraction. Its bound is
  // posted on the bins used from then on, and the packing its dive finds,
  // when it meets the bound, leads that run.
  void relaxPacks() {
    for (PackItems& pack : _packs) {
      if (pack.relaxed || !pack.hint.empty() || pack.capacity <= 0) continue;
      pack.relaxed = true;
      Relaxation r = RelaxPacking(pack.weights, pack.capacity, pack.bound,
                                  std::numeric_limits<long>::max(), kRelaxWork);
      pack.bound = std::max(pack.bound, r.bound);
      if (!r.packing.empty() && r.bins <= pack.bound) {
        pack.hint = std::move(r.packing);
        pack.hintRun = kRelaxRun;
      }
    }
  }

  // Failures before the first restart of the two pack searches (the
  // cutoff doubles at each restart).
  static constexpr unsigned long kPackCutoff = 50;
  // Items looked at for each bin of the minimum-slack packing, and in all
  // (so that a large pack does not wait long for it).
  static constexpr long kSlackNodes = 20000;
  static constexpr long kSlackBudget = 2000000;
  // The run of the pack searches before which the pattern relaxation is
  // solved.
  static constexpr unsigned long kRelaxRun = 2;

  Poster _poster{this};
  std::unique_ptr<ModelSpace> _root;
  VarTable _vars;
  std::unordered_map<const QelIntSetVarI*, int> _setIndex;
  std::vector<PackItems> _packs;
};

QEL_RTTI_DEF(GecodeEngine)

}  // namespace

QEL_RTTI_DEF(QelGecodeI)

long QelGecodeI::enumerate(const SolutionCallback& callback, long maxSolutions) {
  if (getObjective() != nullptr)
    throw QelWrongUsage("QelGecodeI::enumerate: the model has an objective; use solve()");
  if (maxSolutions < 0) throw QelWrongUsage("QelGecodeI::enumerate: negative solution count");
  // solve() brings the form up to date and runs the search, which visits
  // every solution while _enumerate is set.
  struct Reset {
    QelGecodeI* self;
    ~Reset() { self->_enumerate = nullptr; }
  } reset{this};
  if (_strayVariables && !isDirty())
    markDirty("variables that no member uses are left in the space: enumeration rebuilds it");
  _enumerate = &callback;
  _enumerateLimit = maxSolutions;
  _enumerated = 0;
  solve();
  return _enumerated;
}

QelEngineI* QelNewGecodeEngine(QelEnv env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return QelNewObject<GecodeEngine>(env.getImpl(), env.getImpl());
}

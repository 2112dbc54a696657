// The Gecode engine: constraint programming over integer variables.
//
// What it takes (everything else gets a QelEngineError naming the object and
// its class):
//   - integer and Boolean variables (float variables are refused); infinite
//     bounds (magnitude 1e20 or more) become Gecode's integer range, finite
//     bounds beyond it are refused;
//   - expressions over them with integer coefficients: linear terms,
//     quadratic terms, products (Gecode's minimodel); a non-integral constant
//     is allowed where it only shifts a value (ranges, differences,
//     objectives);
//   - ranges lb <= expr <= ub, differences x != c and x != y, all-different
//     (distinct), all-min-distance (tasks of length k on a unary resource:
//     two starts at least k apart), pack (Gecode's bin packing: item i goes
//     into bin where[i], the bin numbers 0..m-1 being the indices of load,
//     so every item is placed in one of the m bins; the used count is the
//     number of distinct bins of the items (nvalues), the used set is the
//     union of the bins of the items, its cardinality variable linked);
//   - one objective, minimized or maximized, with one criterion or several
//     in lexicographic order (branch and bound with a lexicographic
//     improvement constraint).
// Refused: special ordered sets, float variables, interval variables, set
// variables outside a pack, the Boolean arrays of a pack.
//
// Search: by default the engine chooses what fits the model. When it holds a
// pack, the items are placed first, heaviest first, each into the first bin
// that can still take it (the bin-packing propagator prunes the bins that
// cannot), and the number of bins used gets the Martello-Toth lower bound of
// the weights. When the bins are interchangeable (the model holds that one
// pack and its variables, the bins have the same bounds, every item is a
// variable of its own free to go into any bin, there is no used set, and the
// objective is the used count), the search goes further: the count is
// branched on first, from the most bins down, every item is kept below it
// (the bins used are the first ones), and two complete searches take turns,
// one per restart (the first after 50 failures, each cutoff twice the one
// before, unless restarts are asked for): item by item, each item into the fullest bin that takes
// it, an item kept out of a bin being kept out of every bin holding the same load; and bin by bin,
// the lowest open bin filled heaviest item first, an item kept out of a bin with every item of its
// weight, the heaviest item left going into the first empty bin, and a bin with room for one more
// item taking the heaviest that fits (QelGecodePackSearch picks one of the two alone). Before the
// search, a minimum-bin-slack packing is tried (each bin gets the heaviest item left, then the
// items left that fill it best); when it needs no more bins than the lower bound, it leads the
// first run of the two searches in turn: the count is tried from the fewest bins up and each item
// goes first into its bin in that packing, so the first dive ends at a proven optimum. When neither
// that packing nor the first two runs (one of each search) meet the bound, the linear relaxation
// over bin patterns is solved before the third run (QelGecodeBinPatternBound): its bound, when
// higher, is posted on the count, and a packing found by diving through it (taking the patterns it
// uses whole, solving it again for the items left), when it meets the bound, leads that run as
// the minimum-slack packing leads the first. A run that ends before its cutoff has explored the
// whole tree; the status is Optimal only then, or when a packing meets the lower bound. Every
// other variable, and every model without a pack, is searched
// first-fail (smallest domain first, smallest value first). A QelGecodeSearch replaces the default:
// variable and value selection, restarts with a Luby or geometric cutoff
// sequence (counted in failures), and a limit on failures. The shared settings apply as well: time,
// node and solution limits, gaps (against the bound the root propagation gives the first
// criterion), the seed of the random selections, and `threads` above 1 for Gecode's parallel search
// (the node and failure limits then count each thread's own nodes). At log level 1 the start line
// counts the form's propagators as rows and its variables as columns; progress lines and the
// progress callback come from the search: the callback at each new solution and otherwise at most
// every tenth of a second, the log at most every second. With several threads the callback may be
// called from Gecode's threads (one call at a time).
//
// Several solutions: enumerate(callback, n) visits every solution of a
// model without objective (or the first n), setting the engine's values
// before each call of the callback, which may stop the enumeration. Each
// solution is visited once: when an objective or a variable left the model
// since the space was built, its variables are still in the space, and the
// enumeration has the space rebuilt first.
//
// Following changes: the engine keeps one root space. New members are
// posted into it at once; the objective is posted into a copy at each solve,
// so every objective change (sense, constant, coefficients, expression) is
// followed without touching the root; tightened variable bounds are posted
// in place. Gecode cannot take a propagator out of a space, so removals and
// changed constraints mark the root for rebuilding before the next solve.
//
//   QelGecode cp(env);
//   cp.extract(model);
//   cp.solve();
//   cp.end();
#ifndef QEL_ENGINES_GECODE_H
#define QEL_ENGINES_GECODE_H

#include <functional>
#include <vector>

#include <qel/engines/engine.h>

/// Which variable the search branches on next.
enum class QelGecodeVarSelect {
  Automatic,       ///< what fits the model (pack-aware, otherwise first-fail)
  InOrder,         ///< the first unassigned variable, in extraction order
  SmallestDomain,  ///< first-fail: the smallest domain
  LargestDegree,   ///< the variable in the most propagators
  DomainOverAfc,   ///< smallest domain size over accumulated failure count
  Random           ///< in a random order drawn from the search seed
};

/// Which value the search tries first for the chosen variable.
enum class QelGecodeValSelect {
  Automatic,   ///< what fits the model (smallest value)
  Smallest,    ///< x = min, then x != min
  Largest,     ///< x = max, then x != max
  Median,      ///< x = median, then x != median
  SplitLower,  ///< x <= mid, then x > mid
  SplitUpper,  ///< x > mid, then x <= mid
  Random       ///< a random value (from the search seed)
};

/// The restart policy of the search (restarts count failures).
enum class QelGecodeRestart {
  None,      ///< one search, no restart
  Luby,      ///< cutoffs scale * (1, 1, 2, 1, 1, 2, 4, ...)
  Geometric  ///< cutoffs scale * base^k
};

/// How a pack with interchangeable bins is searched (see the header's
/// paragraph on the search).
enum class QelGecodePackSearch {
  Alternate,  ///< item by item and bin by bin in turn, one per restart
  Items,      ///< item by item only: the heaviest into the fullest bin that takes it
  Bins        ///< bin by bin only: the lowest open bin filled heaviest item first
};

/// How the Gecode engine searches, beyond the shared settings (time, node
/// and solution limits, threads, seed, gaps, log level: QelEngineParams).
/// Each field can also be set by name through setParam: "varSelect"
/// (auto, inorder, firstfail, degree, domafc, random), "valSelect" (auto,
/// min, max, median, splitmin, splitmax, random), "restart" (none, luby,
/// geometric), "restartScale", "restartBase", "failLimit", "packSearch"
/// (alternate, items, bins).
struct QelGecodeSearch {
  QelGecodeVarSelect variable = QelGecodeVarSelect::Automatic;  ///< variable selection
  QelGecodeValSelect value = QelGecodeValSelect::Automatic;     ///< value selection
  QelGecodeRestart restart = QelGecodeRestart::None;            ///< restart policy
  unsigned long restartScale = 100;  ///< failures of the first restart cutoff
  double restartBase = 1.5;          ///< growth of the geometric cutoff
  unsigned long failLimit = 0;       ///< stop after this many failures (0: none)
  QelGecodePackSearch pack = QelGecodePackSearch::Alternate;  ///< search of a pack's items
};

/// What the last search of the Gecode engine did.
struct QelGecodeSearchStats {
  unsigned long nodes = 0;      ///< nodes explored
  unsigned long fails = 0;      ///< failed nodes
  unsigned long restarts = 0;   ///< restarts made
  unsigned long depth = 0;      ///< deepest search stack
  unsigned long solutions = 0;  ///< solutions found (improving ones when optimizing)
  bool stopped = false;         ///< whether a limit stopped the search
  double seconds = 0;           ///< time spent searching
};

/// The Gecode engine.
class QelGecodeI : public QelEngineI {
  QEL_RTTI_DECL(QelGecodeI, QelEngineI)

 public:
  /// Called with the engine holding one solution; returns whether to go on.
  using SolutionCallback = std::function<bool(QelGecodeI& engine)>;

  /// An engine attached to `env`.
  explicit QelGecodeI(QelEnvI* env) : QelEngineI(env, "Gecode") {}

  /// Sets how the next searches go (the search settings of the engine's own).
  void setSearch(const QelGecodeSearch& search) { _search = search; }
  /// How the searches go.
  const QelGecodeSearch& getSearch() const { return _search; }
  /// What the last search did.
  const QelGecodeSearchStats& getSearchStats() const { return _searchStats; }

  /// Visits the solutions of the extracted model, which must have no
  /// objective (QelWrongUsage otherwise): each solution becomes the held
  /// values and `callback` is called; it returns false to stop. Stops
  /// after `maxSolutions` solutions (0: all) or at a limit. Returns the
  /// number of solutions visited; the status is Optimal when every solution
  /// was visited, Feasible when stopped after one or more, Infeasible when
  /// there is none, Unknown when stopped before the first. Restarts do not
  /// apply (the tree is explored once).
  long enumerate(const SolutionCallback& callback, long maxSolutions = 0);

 protected:
  /// The search settings.
  QelGecodeSearch _search;
  /// Statistics of the last search.
  QelGecodeSearchStats _searchStats;
  /// The enumeration in progress (null for a solve).
  const SolutionCallback* _enumerate = nullptr;
  /// Solutions still to visit in the enumeration in progress (0: all).
  long _enumerateLimit = 0;
  /// Solutions visited by the enumeration in progress.
  long _enumerated = 0;
  /// Whether the root may hold variables that no member uses any more (an
  /// objective or a variable taken out of the model leaves its variables
  /// there): a search for an optimum branches on them harmlessly, but an
  /// enumeration would visit each solution once per value of theirs, so it
  /// has the root rebuilt first.
  bool _strayVariables = false;
};

/// Martello and Toth's lower bound on the number of bins of capacity `c`
/// the items of weights `w` need (at least ceil(sum / c)); the engine posts
/// it on the used count of a pack.
long QelGecodeBinLowerBound(std::vector<int> w, long c);

/// The bins of capacity `c` the items of weights `w` need at least by the
/// pattern relaxation (fractional bins, each holding what one bin can hold)
/// that the engine solves before the third run of its pack searches, and
/// never less than QelGecodeBinLowerBound: its value rounded up, or a bound
/// on the way when the work allowed for it runs out.
long QelGecodeBinPatternBound(const std::vector<int>& w, long c);

/// A new Gecode engine (a QelGecodeI) attached to `env` (destroy it with delete or
/// QelEngine::end before the environment ends).
QelEngineI* QelNewGecodeEngine(QelEnv env);

/// Handle on a Gecode engine.
class QelGecode : public QelEngine {
 public:
  /// An empty handle.
  QelGecode() = default;
  /// A new Gecode engine attached to `env`.
  explicit QelGecode(QelEnv env) : QelEngine(QelNewGecodeEngine(env)) {}
  /// The Gecode engine.
  QelGecodeI* getImpl() const { return static_cast<QelGecodeI*>(_impl); }
  /// Sets the engine's own search settings.
  void setSearch(const QelGecodeSearch& search) const { gecode()->setSearch(search); }
  /// Visits the solutions of a model without objective (see
  /// QelGecodeI::enumerate).
  long enumerate(const QelGecodeI::SolutionCallback& callback, long maxSolutions = 0) const {
    return gecode()->enumerate(callback, maxSolutions);
  }

 private:
  QelGecodeI* gecode() const { return static_cast<QelGecodeI*>(impl()); }
};

#endif

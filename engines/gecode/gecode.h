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
#ifndef QEL_ENGINES_GECODE_GECODE_H
#define QEL_ENGINES_GECODE_GECODE_H

#include <engines/common/engine.h>

/// A new Gecode engine attached to `env` (destroy it with delete or
/// QelEngine::end before the environment ends).
QelEngineI* QelNewGecodeEngine(QelEnv env);

/// Handle on a Gecode engine.
class QelGecode : public QelEngine {
 public:
  /// An empty handle.
  QelGecode() = default;
  /// A new Gecode engine attached to `env`.
  explicit QelGecode(QelEnv env) : QelEngine(QelNewGecodeEngine(env)) {}
};

#endif

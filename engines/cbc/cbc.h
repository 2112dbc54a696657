// The CBC engine: mixed-integer linear programming (CBC over CLP).
//
// What it takes (everything else gets a QelEngineError naming the object and
// its class):
//   - float, integer and Boolean variables (one column each, with its bounds
//     and integrality);
//   - linear expressions (linear terms, aggregates and products by
//     constants); quadratic terms and products of variables are refused;
//   - ranges lb <= expr <= ub (one row);
//   - special ordered sets of type 1 and 2 with their weights (CBC's SOS
//     branching objects; a variable without a weight gets the previous
//     weight plus one);
//   - one objective, minimized or maximized; a lexicographic objective is
//     solved criterion by criterion, each optimum being kept (within 1e-6,
//     relative) by a row while the next criteria are optimized;
//   - through standard integer reformulations, over expressions with finite
//     bounds (integer ones where the reformulation needs it):
//       difference x != c, x != y  d = x - c (or x - y), integer terms: one
//                                  binary b with d >= 1 when b = 1, d <= -1
//                                  when b = 0 (big-M from the bounds of d);
//       all-min-distance (k)       the same disjunction |xi - xj| >= k for
//                                  every pair (any linear expressions);
//       all-different              the assignment form: a binary y[i][v] per
//                                  expression and value, sum_v y[i][v] = 1,
//                                  x[i] = sum_v v y[i][v], sum_i y[i][v] <= 1;
//       pack                       a binary per item and bin: every item in
//                                  one bin, where[i] = sum_j j x[i][j],
//                                  load[j] = sum_i weight[i] x[i][j]; a binary
//                                  u[j] per used bin for the used count and
//                                  the used set (u[j] = 0 for the bins the set
//                                  may not contain, its cardinality variable
//                                  equal to the sum of the u[j]).
// Bounds of magnitude 1e20 or more count as infinite. Refused: quadratic
// expressions, interval variables, set variables outside a pack, the Boolean
// arrays of a pack, reformulations over unbounded expressions (or, for
// differences and all-different, over fractional terms), special ordered
// sets holding a variable twice or a variable with a negative lower bound.
//
// Following changes: the engine keeps one LP (rows and columns, each owned by
// the member that made it). New members add their rows and columns, removed
// members delete theirs, a changed member (an all-different or a set that
// lost or gained a variable, a member changed without notice) has its rows
// and columns replaced; objective sense, constant and coefficients are set in
// place, variable bounds and types are updated in place (the members whose
// reformulation read those bounds are re-extracted). The LP is rebuilt only
// after a notice without hook or a failed extraction.
#ifndef QEL_ENGINES_CBC_CBC_H
#define QEL_ENGINES_CBC_CBC_H

#include <engines/common/engine.h>

/// A new CBC engine attached to `env` (destroy it with delete or
/// QelEngine::end before the environment ends).
QelEngineI* QelNewCbcEngine(QelEnv env);

/// Handle on a CBC engine.
class QelCbc : public QelEngine {
 public:
  /// An empty handle.
  QelCbc() = default;
  /// A new CBC engine attached to `env`.
  explicit QelCbc(QelEnv env) : QelEngine(QelNewCbcEngine(env)) {}
};

#endif

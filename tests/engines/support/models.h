// Models for the engines' tests and benchmarks: n queens, bin-packing
// instances with items of uniform random weights, the same on every platform
// (std::mt19937 is fully defined, and the weights are mapped from its raw output here rather than
// through a library distribution, whose mapping varies), the first-fit decreasing count and the
// simple lower bound, and the model in Qel form; a multi-dimensional knapsack, a piecewise-linear
// profit over a special ordered set, a two-criteria lexicographic model and a capacitated
// facility location.
#ifndef QEL_TESTS_ENGINES_SUPPORT_MODELS_H
#define QEL_TESTS_ENGINES_SUPPORT_MODELS_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <numeric>
#include <random>
#include <vector>

#include <qel/qel.h>

namespace queens {

/// Adds to `m` the n-queens constraints (queen i in column q[i], no two on
/// a line or a diagonal) and returns the queens.
inline QelIntVarArray Add(QelEnv env, QelModel& m, long n) {
  QelIntVarArray q(env, n, 0, n - 1);
  QelIntExprArray up(env, 0);
  QelIntExprArray down(env, 0);
  for (long i = 0; i < n; ++i) {
    up.add(q[i] + static_cast<QelInt>(i));
    down.add(q[i] - static_cast<QelInt>(i));
  }
  m.add(QelAllDiff(env, q, "columns"));
  m.add(QelAllDiff(env, up, "up"));
  m.add(QelAllDiff(env, down, "down"));
  up.end();
  down.end();
  return q;
}

}  // namespace queens

namespace binpacking {

/// `n` weights drawn uniformly from lo..hi with the generator seeded by `seed`.
inline std::vector<int> Weights(int n, int lo, int hi, std::uint32_t seed) {
  std::mt19937 g(seed);
  auto span = static_cast<std::uint32_t>(hi - lo + 1);
  std::vector<int> w;
  for (int i = 0; i < n; ++i) w.push_back(lo + static_cast<int>(g() % span));
  return w;
}

/// ceil(sum / capacity).
inline long SumBound(const std::vector<int>& w, long capacity) {
  long sum = std::accumulate(w.begin(), w.end(), 0L);
  return (sum + capacity - 1) / capacity;
}

/// The bins first-fit decreasing uses: items heaviest first, each into the
/// first open bin with room, or a new one.
inline long FirstFitDecreasing(std::vector<int> w, long capacity) {
  std::sort(w.begin(), w.end(), std::greater<int>());
  std::vector<long> room;
  for (int x : w) {
    auto it = std::find_if(room.begin(), room.end(), [x](long r) { return r >= x; });
    if (it == room.end())
      room.push_back(capacity - x);
    else
      *it -= x;
  }
  return static_cast<long>(room.size());
}

/// The fewest bins of `capacity` the items `w` fit into, by dynamic
/// programming over the subsets of items (for a handful of items only: 2^n
/// states): for each subset, the fewest bins and the smallest load of the
/// last of them when the subset is packed in some order, each item into the
/// last bin or a new one.
inline long ExactBins(const std::vector<int>& w, long capacity) {
  size_t n = w.size();
  std::vector<std::pair<long, long>> best(size_t{1} << n, {0, 0});  // (bins, last load)
  best[0] = {0, capacity};  // "full": the first item opens a bin
  for (size_t mask = 1; mask < best.size(); ++mask) {
    best[mask] = {static_cast<long>(n) + 1, 0};
    for (size_t i = 0; i < n; ++i) {
      if ((mask & (size_t{1} << i)) == 0) continue;
      std::pair<long, long> before = best[mask ^ (size_t{1} << i)];
      std::pair<long, long> after = before.second + w[i] <= capacity
                                        ? std::make_pair(before.first, before.second + w[i])
                                        : std::make_pair(before.first + 1, static_cast<long>(w[i]));
      best[mask] = std::min(best[mask], after);
    }
  }
  return best.back().first;
}

/// A bin-packing model: `bins` bins of `capacity`, item i of weight w[i]
/// in bin where[i], minimize the number of bins used.
struct Model {
  QelModel model;          ///< the model
  QelIntVarArray load;     ///< the load of each bin
  QelIntVarArray where;    ///< the bin of each item
  QelIntVar used;          ///< the number of bins used
  QelObjective objective;  ///< minimize used
};

/// Builds the model of the items `w` into `bins` bins of `capacity`.
inline Model Build(QelEnv env, const std::vector<int>& w, long bins, long capacity) {
  Model m;
  m.model = QelModel(env, "binpacking");
  m.load = QelIntVarArray(env, bins, 0, capacity);
  m.where = QelIntVarArray(env, static_cast<long>(w.size()), 0, bins - 1);
  m.used = QelIntVar(env, 0, bins, "used");
  QelIntArray weight(env, static_cast<long>(w.size()));
  for (size_t i = 0; i < w.size(); ++i) weight.set(static_cast<long>(i), w[i]);
  m.model.add(
      QelPack(env, m.load.toIntExprArray(), m.where.toIntExprArray(), weight, m.used, "pack"));
  weight.end();
  m.objective = QelObjective(env, m.used, QelObjective::Minimize, "bins");
  m.model.add(m.objective);
  return m;
}

}  // namespace binpacking

namespace mipmodel {

/// A multi-dimensional knapsack over 60 binaries with pseudo-random data (a
/// fixed linear congruential sequence): 5 capacity rows, the value
/// maximized. With cuts, heuristics and preprocessing switched off, CBC
/// needs many nodes to prove its optimum.
struct Knapsack {
  /// Builds the model in `env`.
  explicit Knapsack(QelEnv env) : model(env, "knapsack"), x(env, 60, 0, 1) {
    unsigned state = 12345;
    auto next = [&state] {
      state = state * 1103515245u + 12345u;
      return static_cast<int>((state >> 16) % 1000);
    };
    QelNumArray value(env, 60);
    for (long i = 0; i < 60; ++i) value.set(i, 100 + next());
    for (int k = 0; k < 5; ++k) {
      QelNumArray weight(env, 60);
      double total = 0;
      for (long i = 0; i < 60; ++i) {
        weight.set(i, 100 + next());
        total += weight[i];
      }
      model.add(QelRange(env, -QelInfinity, QelScalProd(x, weight), std::floor(total / 2)));
      weight.end();
    }
    model.add(QelObjective(env, QelScalProd(x, value), QelObjective::Maximize, "value"));
    value.end();
  }
  QelModel model;    ///< the model
  QelIntVarArray x;  ///< the items taken
};

/// A piecewise-linear function f of x through the breakpoints (0, 0),
/// (1, 2), (2, 3), (4, 3.5), modeled with weights lambda in a special
/// ordered set of type 2: x = sum bx lambda, f = sum by lambda, sum lambda =
/// 1. The profit f - 0.8 x is maximized: 1.4 at x = 2.
struct Piecewise {
  /// Adds the constraints and the objective to `model`.
  Piecewise(QelEnv env, QelModel& model) : x(env, 0, 4, "x"), f(env, 0, 10, "f") {
    const double bx[] = {0, 1, 2, 4};
    const double by[] = {0, 2, 3, 3.5};
    QelNumVarArray lambda(env, 4, 0, 1);
    QelNumArray xs(env, 4), ys(env, 4);
    for (int i = 0; i < 4; ++i) {
      xs.set(i, bx[i]);
      ys.set(i, by[i]);
    }
    model.add(QelRange(env, 1, QelSum(lambda), 1, "convex"));
    model.add(QelRange(env, 0, x - QelScalProd(lambda, xs), 0, "xdef"));
    model.add(QelRange(env, 0, f - QelScalProd(lambda, ys), 0, "fdef"));
    QelSOS2 pieces(env, "pieces");
    for (int i = 0; i < 4; ++i) {
      pieces->addVar(lambda[i]);
      pieces->addVal(i + 1);
    }
    model.add(pieces);
    profit = QelObjective(env, f - 0.8 * x, QelObjective::Maximize, "profit");
    model.add(profit);
    xs.end();
    ys.end();
  }
  QelNumVar x;          ///< the quantity
  QelNumVar f;          ///< its piecewise-linear value
  QelObjective profit;  ///< f - 0.8 x, maximized
};

/// Lexicographic: first a + b + c, then 3a + 2b + c, minimized over a, b, c
/// in 0..3 with a + b + c >= 4. The optimum (4, 5) has c = 3, b = 1.
struct Lexicographic {
  /// Adds the constraint and the objective to `model`.
  Lexicographic(QelEnv env, QelModel& model)
      : a(env, 0, 3, "a"), b(env, 0, 3, "b"), c(env, 0, 3, "c") {
    model.add(QelRange(env, 4, a + b + c, 1e9, "enough"));
    QelMultiCriterionExpr mc = QelStaticLex(env, a + b + c, 3 * a + 2 * b + c);
    lex = QelMinimize(env, mc, "lex");
    mc.end();
    model.add(lex);
  }
  QelIntVar a, b, c;  ///< the three integers
  QelObjective lex;   ///< the two criteria
};

/// Capacitated facility location: `f` facilities (open[i], an opening
/// cost), `c` customers, each served by one facility (serve[i][j], a cost),
/// demand 1 + j % 7, capacity `capacity` per open facility, the total cost
/// minimized; `strong` adds serve[i][j] <= open[i] for every pair.
inline void FacilityLocation(QelEnv env, QelModel& m, int f, int c, double capacity, bool strong) {
  QelIntVarArray open(env, f, 0, 1);
  std::vector<QelIntVarArray> serve;
  for (int i = 0; i < f; ++i) serve.emplace_back(env, c, 0, 1);
  QelNumExpr cost(env, 0.0);
  for (int i = 0; i < f; ++i) cost += (200 + 37 * (i % 5)) * open[i];
  for (int j = 0; j < c; ++j) {
    QelIntExprArray one(env, 0);
    for (int i = 0; i < f; ++i) {
      one.add(serve[static_cast<size_t>(i)][j]);
      cost += (1 + (7 * i + 13 * j) % 29) * serve[static_cast<size_t>(i)][j];
    }
    m.add(QelRange(env, 1, QelSum(one), 1));
    one.end();
  }
  QelNumArray demand(env, 0);
  for (int j = 0; j < c; ++j) demand.add(1 + j % 7);
  for (int i = 0; i < f; ++i) {
    m.add(QelRange(env, -QelInfinity,
                   QelScalProd(serve[static_cast<size_t>(i)], demand) - capacity * open[i], 0));
    if (strong)
      for (int j = 0; j < c; ++j)
        m.add(QelRange(env, -QelInfinity, serve[static_cast<size_t>(i)][j] - open[i], 0));
  }
  m.add(QelObjective(env, cost, QelObjective::Minimize, "cost"));
  demand.end();
}

}  // namespace mipmodel

#endif

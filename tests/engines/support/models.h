// Models for the Gecode engine's tests and benchmark: n queens, and
// bin-packing instances with items of uniform random weights, the same on every platform
// (std::mt19937 is fully defined, and the weights are mapped from its raw output here rather than
// through a library distribution, whose mapping varies), the first-fit decreasing count and the
// simple lower bound, and the model in Qel form.
#ifndef QEL_TESTS_ENGINES_SUPPORT_MODELS_H
#define QEL_TESTS_ENGINES_SUPPORT_MODELS_H

#include <algorithm>
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

#endif

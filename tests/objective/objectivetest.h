// Helpers of the objective tests: an algorithm that lets a test look at
// each notice while it is alive, a guard for static hook slots, and readers
// of the terms of an expression.
#ifndef QEL_TESTS_OBJECTIVE_OBJECTIVETEST_H
#define QEL_TESTS_OBJECTIVE_OBJECTIVETEST_H

#include <functional>
#include <tuple>
#include <vector>

#include "support/qeltest.h"

namespace qeltest {

/// A recording algorithm that also hands every notice to `watch` during
/// its delivery (before the visitor sees it).
class WatchingAlgorithmI : public RecordingAlgorithmI {
 public:
  using RecordingAlgorithmI::RecordingAlgorithmI;
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    if (watch) watch(c);
    RecordingAlgorithmI::notifyChange(x, c);
  }
  std::function<void(const QelChange&)> watch;
};

/// Makes a watching algorithm in `env` (end it with `delete`).
inline WatchingAlgorithmI* MakeWatcher(QelEnv env) {
  return QelNewObject<WatchingAlgorithmI>(env.getImpl(), env.getImpl());
}

/// One linear term: coefficient and variable.
using LinTerm = std::pair<double, QelNumVarI*>;
/// One quadratic term: coefficient and the two variables.
using QuadTerm = std::tuple<double, QelNumVarI*, QelNumVarI*>;

/// The linear terms of `e`, in list order.
inline std::vector<LinTerm> Linear(QelNumExprI* e) {
  std::vector<LinTerm> out;
  for (QelNumExpr::LinearIterator it = QelNumExpr(e).getLinearIterator(); it.ok(); ++it)
    out.emplace_back(it.getCoef(), it.getVar());
  return out;
}

/// The quadratic terms of `e`, in list order.
inline std::vector<QuadTerm> Quad(QelNumExprI* e) {
  std::vector<QuadTerm> out;
  for (QelNumExpr::QuadIterator it = QelNumExpr(e).getQuadIterator(); it.ok(); ++it)
    out.emplace_back(it.getCoef(), it.getVar1(), it.getVar2());
  return out;
}

/// A new numeric linear term of `env`: `constant`, then the linear and the
/// quadratic terms in the order given. Unlike a chain of operators it
/// leaves no intermediate expression behind.
inline QelNumExpr Term(QelEnv env, double constant, const std::vector<LinTerm>& lin,
                       const std::vector<QuadTerm>& quad = {}) {
  auto* t = QelNewObject<QelNumLinTermI>(env.getImpl(), env.getImpl(), constant);
  for (const LinTerm& l : lin) t->addTerm(l.first, l.second);
  for (const QuadTerm& q : quad) t->addQuadTerm(std::get<0>(q), std::get<1>(q), std::get<2>(q));
  return QelNumExpr(t);
}

/// The common ground of the objective tests: an environment with three
/// float variables x, y, z and a Boolean variable b, and the memory check
/// that ends every test.
struct ObjectiveFixture : ::testing::Test {
  QelEnv env;
  QelEnv none{static_cast<QelEnvI*>(nullptr)};
  QelInt baseline = 0;
  QelNumVar x, y, z;
  QelBoolVar b;
  void SetUp() override {
    baseline = BytesInUse(env);
    x = QelNumVar(env, 0, 10, "x");
    y = QelNumVar(env, 0, 10, "y");
    z = QelNumVar(env, 0, 10, "z");
    b = QelBoolVar(env, "b");
  }
  void TearDown() override { env.end(); }
  /// Checks that nothing but the four variables is left (ending a variable
  /// would also end whatever still holds it), ends them and checks that
  /// every byte came back.
  void EndAndCheckMemory() {
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 4);
    for (QelNumExpr* v : {static_cast<QelNumExpr*>(&x), static_cast<QelNumExpr*>(&y),
                          static_cast<QelNumExpr*>(&z), static_cast<QelNumExpr*>(&b)})
      v->end();
    EXPECT_EQ(BytesInUse(env), baseline);
  }
  /// A linear term of the test's environment (see Term).
  QelNumExpr Lin(double constant, const std::vector<LinTerm>& lin,
                 const std::vector<QuadTerm>& quad = {}) {
    return Term(env, constant, lin, quad);
  }
};

}  // namespace qeltest

#endif

// The dispatching hooks: several engines, of different kinds, share the
// process-global hook slots, each receiving its own extraction calls and
// notices; an algorithm that is no engine reaches what the slot held
// before the engines installed their hooks.
#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include "engines/support/builtengines.h"
#include "support/qeltest.h"

using namespace enginetest;

namespace {

std::vector<QelEngineI* (*)(QelEnv)> Makers() {
  std::vector<QelEngineI* (*)(QelEnv)> makers;
  for (const BuiltEngine& e : BuiltEngines()) makers.push_back(e.make);
  return makers;
}

// A model every engine takes: a small assignment with a difference.
struct Assignment {
  explicit Assignment(QelEnv env)
      : model(env, "assignment"),
        x(env, 3, 0, 4),
        cost(env, 3 * x[0] + 2 * x[1] + x[2], QelObjective::Maximize, "cost") {
    model.add(QelAllDiff(env, x, "distinct"));
    model.add(QelRange(env, 0, x[0] + x[1], 6, "pair"));
    model.add(cost);
  }
  QelModel model;
  QelIntVarArray x;
  QelObjective cost;
};

TEST(Dispatch, EnginesOfEveryKindShareTheSlots) {
  if (Makers().empty()) GTEST_SKIP() << "no engine was built";
  QelEnv env;
  Assignment a(env);
  // Two engines of each kind, all extracting the same model.
  std::vector<EnginePtr> engines;
  for (auto make : Makers()) {
    engines.emplace_back(make(env));
    engines.emplace_back(make(env));
  }
  for (auto& e : engines) e->extract(a.model.getImpl());
  for (auto& e : engines) {
    ASSERT_EQ(e->solve(), QelEngineStatus::Optimal) << e->getEngineName();
    EXPECT_NEAR(e->getObjValue(), 3 * 4 + 2 * 2 + 3, 1e-9) << e->getEngineName();
    EXPECT_EQ(CheckSolution(e.get(), a.model.getImpl()), 2);
  }
  // One change reaches every engine, each through its own handlers.
  QelDiff d(env, a.x[0], 4.0, "notFour");
  a.model.add(d);
  a.cost.setLinearCoef(a.x[2], 5);
  for (auto& e : engines) {
    EXPECT_GE(e->getStats().notices, 2) << e->getEngineName();
    ASSERT_EQ(e->solve(), QelEngineStatus::Optimal) << e->getEngineName();
    EXPECT_NEAR(e->getObjValue(), engines.front()->getObjValue(), 1e-9) << e->getEngineName();
    EXPECT_EQ(CheckSolution(e.get(), a.model.getImpl()), 3);
  }
  // Each engine holds its own solution.
  engines.front()->clearValues();
  EXPECT_FALSE(engines.front()->hasValue(a.x[0].getImpl()));
  EXPECT_TRUE(engines.back()->hasValue(a.x[0].getImpl()));
  engines.clear();
  env.end();
}

// Edge cases every engine must answer alike.
TEST(Dispatch, EveryEngineAnswersTheEdgeCasesAlike) {
  if (Makers().empty()) GTEST_SKIP() << "no engine was built";
  for (auto make : Makers()) {
    QelEnv env;
    QelIntVar x(env, 0, 3, "x"), y(env, 0, 3, "y");
    auto answer = [&](const QelModel& m) {
      EnginePtr e(make(env));
      e->extract(m.getImpl());
      QelEngineStatus status = e->solve();
      if (e->hasSolution()) {
        EXPECT_GT(CheckSolution(e.get(), m.getImpl()), 0) << e->getEngineName();
      }
      return status;
    };
    const char* name = EnginePtr(make(env))->getEngineName();
    // The same variable twice in an all-different constraint.
    QelModel twice(env, "twice");
    QelIntVarArray xx(env, 0);
    xx.add(x);
    xx.add(x);
    twice.add(QelAllDiff(env, xx, "xx"));
    EXPECT_EQ(answer(twice), QelEngineStatus::Infeasible) << name;
    xx.end();
    // An integer expression differs from a fractional value, always.
    QelModel fraction(env, "fraction");
    fraction.add(QelDiff(env, x, 2.5, "half"));
    fraction.add(QelDiff(env, x + 0.5, y, "shifted"));
    EXPECT_EQ(answer(fraction), QelEngineStatus::Optimal) << name;
    // An empty range.
    QelModel empty(env, "empty");
    empty.add(QelRange(env, 3, x + y, 2, "none"));
    EXPECT_EQ(answer(empty), QelEngineStatus::Infeasible) << name;
    // A constant objective over nothing.
    QelModel nothing(env, "nothing");
    nothing.add(QelObjective(env, 4.5, QelObjective::Maximize, "constant"));
    {
      EnginePtr e(make(env));
      e->extract(nothing.getImpl());
      ASSERT_EQ(e->solve(), QelEngineStatus::Optimal) << name;
      EXPECT_EQ(e->getObjValue(), 4.5) << name;
      EXPECT_EQ(e->getEngineObjValue(), 4.5) << name;
    }
    env.end();
  }
}

// A search that would take long stops at the time limit with the best
// solution found so far (or none).
TEST(Dispatch, TheTimeLimitStopsTheSearch) {
  if (Makers().empty()) GTEST_SKIP() << "no engine was built";
  for (auto make : Makers()) {
    QelEnv env;
    // Queens on a large board, with an objective that makes the search
    // prove optimality over a huge tree.
    const int n = 20;
    QelModel m(env, "queens");
    QelIntVarArray x(env, n, 0, n - 1);
    QelIntExprArray up(env, 0), down(env, 0);
    QelNumExpr weighted(env, 0.0);
    for (int i = 0; i < n; ++i) {
      up.add(x[i] + i);
      down.add(x[i] - i);
      weighted = weighted + ((i * 7) % 11) * x[i];
    }
    m.add(QelAllDiff(env, x, "columns"));
    m.add(QelAllDiff(env, up, "up"));
    m.add(QelAllDiff(env, down, "down"));
    m.add(QelObjective(env, weighted, QelObjective::Minimize, "weighted"));
    up.end();
    down.end();
    EnginePtr e(make(env));
    e->setTimeLimit(0.5);
    e->extract(m.getImpl());
    auto start = std::chrono::steady_clock::now();
    QelEngineStatus status = e->solve();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(seconds, 20.0) << e->getEngineName();
    EXPECT_NE(status, QelEngineStatus::Infeasible) << e->getEngineName();
    if (e->hasSolution()) {
      EXPECT_EQ(CheckSolution(e.get(), m.getImpl()), 3) << e->getEngineName();
    }
    std::cout << e->getEngineName() << ": " << status << " after " << seconds << " s\n";
    e.reset();
    env.end();
  }
}

int foreignCalls = 0;
void* ForeignRangeHook(QelAlgorithm, const QelRangeI*) {
  ++foreignCalls;
  return &foreignCalls;
}

TEST(Dispatch, OtherAlgorithmsReachThePreviousHook) {
  if (Makers().empty()) GTEST_SKIP() << "no engine was built";
  // Someone filled the range slot before the engines installed theirs.
  qeltest::SlotGuard<decltype(QelRangeI::_extractCP)> guard(QelRangeI::_extractCP,
                                                            &ForeignRangeHook);
  QelEngineI::InstallHooks();
  EXPECT_NE(QelRangeI::_extractCP, &ForeignRangeHook);
  QelEnv env;
  QelIntVar x(env, 0, 3, "x");
  QelRange r(env, 1, x, 2, "r");
  QelAlgorithm plain(env);
  plain.getImpl()->useHooks();
  foreignCalls = 0;
  EXPECT_EQ(r.getImpl()->extractToCP(plain), &foreignCalls);
  EXPECT_EQ(foreignCalls, 1);
  // An engine gets its own handler, not the previous hook.
  EnginePtr engine(Makers().front()(env));
  engine->extract(r.getImpl());
  EXPECT_EQ(foreignCalls, 1);
  ASSERT_EQ(engine->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(CheckConstraint(engine.get(), r.getImpl()), true);
  // Where nothing was there before, an ordinary algorithm gets the
  // library's empty-slot failure.
  QelDiff d(env, x, 1.0, "d");
  EXPECT_THROW(d.getImpl()->extractToCP(plain), QelAlgorithm::ExtractFailure);
  engine.reset();
  plain.end();
  env.end();
}

}  // namespace

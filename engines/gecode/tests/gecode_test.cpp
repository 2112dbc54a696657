// The Gecode engine: what it takes, what it refuses, and how it follows
// changes (posted in place, or the root space rebuilt).
#include <string>

#include <engines/gecode/gecode.h>
#include <engines/tests/support/enginetest.h>

using namespace enginetest;

namespace {

QelEngineI* Make(QelEnv env) { return QelNewGecodeEngine(env); }

struct GecodeTest : ::testing::Test {
  void TearDown() override {
    cp.reset();
    env.end();
  }
  // The message of the QelEngineError that extracting `x` throws.
  std::string refusalOf(const QelExtractable& x) {
    try {
      cp->extract(x.getImpl());
    } catch (const QelEngineError& e) {
      return e.what();
    }
    return "<no refusal>";
  }
  void expectSameAsFresh(const QelModel& m) {
    ExpectSameAsFresh(&Make, env, m, AnswerOf(cp.get()));
  }

  QelEnv env;
  EnginePtr cp{Make(env)};
};

bool Contains(const std::string& s, const std::string& part) {
  return s.find(part) != std::string::npos;
}

TEST_F(GecodeTest, RefusesFloatVariablesNamingThem) {
  QelModel m(env, "m");
  QelNumVar price(env, 0, 10, "price");
  m.add(QelRange(env, 0, price, 5, "cap"));
  std::string msg = refusalOf(m);
  EXPECT_TRUE(Contains(msg, "Gecode engine cannot extract \"price\" (QelNumVarI): float variables"))
      << msg;
}

TEST_F(GecodeTest, RefusesSpecialOrderedSets) {
  QelIntVar a(env, 0, 1, "a"), b(env, 0, 1, "b");
  QelSOS1 s(env, "choice");
  s->addVar(a);
  s->addVar(b);
  std::string msg = refusalOf(s);
  EXPECT_TRUE(Contains(msg, "\"choice\" (QelSOS1I): special ordered sets are not supported"))
      << msg;
  QelSOS2 t(env, "pieces");
  EXPECT_TRUE(Contains(refusalOf(t), "\"pieces\" (QelSOS2I)"));
}

TEST_F(GecodeTest, RefusesWhatItHasNoFormFor) {
  QelIntervalVar task(env, 3, 0, 10, "task");
  EXPECT_TRUE(Contains(refusalOf(task), "\"task\" (QelIntervalVarI): interval variables"));
  QelIntArray values(env, 2);
  values.set(0, 0);
  values.set(1, 1);
  QelIntSetVar set(env, values, "set");
  EXPECT_TRUE(Contains(refusalOf(set), "\"set\" (QelIntSetVarI)"));
  values.end();

  QelIntVar x(env, 0, 10, "x");
  QelRange fractional(env, 0, 2.5 * x, 10, "fractional");
  std::string msg = refusalOf(fractional);
  EXPECT_TRUE(Contains(msg, "\"fractional\" (QelRangeI): the coefficient 2.5")) << msg;

  QelIntVar huge(env, 0, 10000000000LL, "huge");
  msg = refusalOf(QelRange(env, 0, huge, 5, "r"));
  EXPECT_TRUE(Contains(msg, "\"huge\" (QelNumVarI): its bounds lie beyond")) << msg;

  QelIntVarArray load(env, 1, 0, 5), where(env, 1, 0, 0);
  QelIntArray w(env, 1);
  w.set(0, 1);
  QelArray<QelBoolArray> bools(env, 1);
  QelBoolArray inner(env, 1);
  bools.set(0, inner);
  QelPack withBools(env, load.toIntExprArray(), where.toIntExprArray(), w, QelIntExpr(load[0]),
                    bools, "withBools");
  msg = refusalOf(withBools);
  EXPECT_TRUE(Contains(msg, "\"withBools\" (QelPackI): the Boolean arrays")) << msg;
  w.end();
  inner.end();
  bools.end();
}

TEST_F(GecodeTest, QuadraticTermsAndProducts) {
  QelModel m(env, "m");
  QelIntVar x(env, 1, 12, "x"), y(env, 1, 12, "y");
  m.add(QelRange(env, 12, x * y, 12, "area"));
  m.add(QelRange(env, 0, (x + 1) * (y + 1) * (x - y + 20), 1000, "cubic"));
  m.add(QelObjective(env, x + y, QelObjective::Minimize, "perimeter"));
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 7);
  EXPECT_EQ(CheckSolution(cp.get(), m.getImpl()), 2);
  CheckObjective(cp.get());
  expectSameAsFresh(m);
}

TEST_F(GecodeTest, AllMinDistanceAsNonOverlappingTasks) {
  QelModel m(env, "m");
  QelIntVarArray starts(env, 3, 0, 10);
  m.add(QelAllMinDistance(env, starts, 4, "spread"));
  m.add(QelObjective(env, QelSum(starts.toIntExprArray()), QelObjective::Minimize, "early"));
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 0 + 4 + 8);
  EXPECT_EQ(CheckSolution(cp.get(), m.getImpl()), 1);
  expectSameAsFresh(m);
  // Column-wise: a fourth task joins the constraint (and the objective).
  QelAllMinDistance spread(
      static_cast<QelAllMinDistanceI*>(m.getImpl()->getMembers().getHead()->extractable));
  QelAddVarToAllMinDistance column = spread();
  QelIntVar fourth(env, 0, 20, "fourth");
  column.install(fourth.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 0 + 4 + 8);  // the objective does not hold it
  EXPECT_GE(cp->getValue(fourth.getImpl()), 12);
  EXPECT_EQ(CheckSolution(cp.get(), m.getImpl()), 1);
  expectSameAsFresh(m);
}

TEST_F(GecodeTest, PackPlacesEveryItemAndGivesTheUsedSet) {
  QelModel m(env, "m");
  QelIntVarArray load(env, 3, 0, 8);
  // Bin numbers reach beyond the three bins: every item still lands in one.
  QelIntVarArray where(env, 4, -2, 6);
  QelIntArray size(env, 4);
  const QelInt s[] = {5, 4, 3, 2};
  for (int i = 0; i < 4; ++i) size.set(i, s[i]);
  QelIntArray possible(env, 3);
  for (int j = 0; j < 3; ++j) possible.set(j, j);
  QelIntSetVar usedSet(env, possible, "usedSet");
  QelPack pack(env, load.toIntExprArray(), where.toIntExprArray(), size, usedSet, "pack");
  m.add(pack);
  m.add(QelObjective(env, usedSet->getCardVar(), QelObjective::Minimize, "bins"));
  size.end();
  possible.end();
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 2);  // 14 in bins of 8
  EXPECT_EQ(cp->getSetValue(usedSet.getImpl()).size(), 2u);
  EXPECT_EQ(CheckSolution(cp.get(), m.getImpl()), 1);
  expectSameAsFresh(m);
}

TEST_F(GecodeTest, AdditionsArePostedIntoTheRootWithoutRebuilding) {
  QelModel m(env, "m");
  QelIntVarArray x(env, 4, 0, 3);
  m.add(QelAllDiff(env, x, "ad"));
  QelObjective obj(env, 3 * x[0] + x[1], QelObjective::Minimize, "obj");
  m.add(obj);
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 1);  // x0 = 0, x1 = 1
  long extracted = cp->getStats().memberExtractions;
  m.add(QelDiff(env, x[0], 0.0, "notZero"));
  m.add(QelRange(env, 2, x[1] + x[2], 100, "sum"));
  EXPECT_FALSE(cp->isDirty());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getStats().rebuilds, 0);
  EXPECT_EQ(cp->getStats().memberExtractions, extracted + 2);
  EXPECT_EQ(cp->getObjValue(), 3);  // x0 = 1, x1 = 0
  EXPECT_EQ(CheckSolution(cp.get(), m.getImpl()), 3);
  expectSameAsFresh(m);
}

TEST_F(GecodeTest, RemovalsRebuildTheRootSpace) {
  QelModel m(env, "m");
  QelIntVar x(env, 0, 9, "x");
  QelRange low(env, 5, x, 9, "low");
  m.add(low);
  m.add(QelObjective(env, x, QelObjective::Minimize, "obj"));
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 5);
  m.remove(low);
  EXPECT_TRUE(cp->isDirty());
  EXPECT_TRUE(Contains(cp->getDirtyReason(), "\"low\" (QelRangeI) was removed"))
      << cp->getDirtyReason();
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getStats().rebuilds, 1);
  EXPECT_EQ(cp->getObjValue(), 0);
  expectSameAsFresh(m);
  // Ending a member rebuilds too.
  m.add(low);
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 5);
  low.end();
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 0);
  EXPECT_EQ(cp->getStats().rebuilds, 2);
}

TEST_F(GecodeTest, ObjectiveChangesNeedNoRebuild) {
  QelModel m(env, "m");
  QelIntVar x(env, 0, 5, "x"), y(env, 0, 5, "y"), z(env, 0, 5, "z");
  m.add(QelRange(env, 3, x + y, 8, "r"));
  QelObjective obj(env, x + 2 * y, QelObjective::Minimize, "obj");
  m.add(obj);
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 3);

  obj.setSense(QelObjective::Maximize);
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 3 + 2 * 5);
  expectSameAsFresh(m);

  obj.setLinearCoef(y, -1);  // maximize x - y
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 5);
  expectSameAsFresh(m);

  obj.setConst(0.5);
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 5.5);
  CheckObjective(cp.get());

  obj.setLinearCoef(z, 1);  // a variable new to the engine
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 10.5);
  expectSameAsFresh(m);

  obj.setExpr(x * y);
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 16);  // x + y <= 8
  expectSameAsFresh(m);

  obj.setExpr(x + y + z);
  obj.setQuadCoef(x, z, -1);  // maximize x + y + z - x z
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 10);  // x = 0, y = 5, z = 5
  CheckObjective(cp.get());
  expectSameAsFresh(m);
  EXPECT_EQ(cp->getStats().rebuilds, 0);
  EXPECT_GE(cp->getStats().incrementalChanges, 5);
}

TEST_F(GecodeTest, BoundsChangedWithoutNoticeAreFollowed) {
  QelModel m(env, "m");
  QelIntVar x(env, 0, 9, "x");
  m.add(QelRange(env, 0, x, 9, "r"));
  m.add(QelObjective(env, x, QelObjective::Maximize, "obj"));
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 9);
  x.getImpl()->setUB(4);  // tightened: posted in place
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 4);
  EXPECT_EQ(cp->getStats().rebuilds, 0);
  EXPECT_EQ(cp->getStats().silentChanges, 1);
  x.getImpl()->setUB(7);  // widened: rebuilt
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 7);
  EXPECT_EQ(cp->getStats().rebuilds, 1);
}

TEST_F(GecodeTest, AllDifferentLosesAndGainsVariables) {
  QelModel m(env, "m");
  QelIntVarArray x(env, 3, 0, 2);
  QelAllDiff ad(env, x, "ad");
  m.add(ad);
  m.add(QelObjective(env, QelSum(x.toIntExprArray()), QelObjective::Minimize, "sum"));
  cp->extract(m.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 3);
  ad->removeExpr(x[2].getImpl());  // QelAllDiffRemoveVar
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 1);  // 0, 1, 0
  EXPECT_EQ(CheckSolution(cp.get(), m.getImpl()), 1);
  expectSameAsFresh(m);
  // Column-wise: a new variable joins the constraint.
  QelAddVarToAllDiff column = ad();
  QelIntVar w(env, 0, 2, "w");
  column.install(w.getImpl());
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(CheckSolution(cp.get(), m.getImpl()), 1);
  EXPECT_NE(cp->getValue(w.getImpl()), cp->getValue(x[0].getImpl()));
  EXPECT_NE(cp->getValue(w.getImpl()), cp->getValue(x[1].getImpl()));
  expectSameAsFresh(m);
  // Ending a variable sweeps it out of the constraint without notice.
  w.end();
  ASSERT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getObjValue(), 1);
  expectSameAsFresh(m);
}

TEST_F(GecodeTest, InfeasibleModelsAndSatisfactionProblems) {
  QelModel m(env, "m");
  QelIntVar x(env, 0, 0, "x");
  QelDiff d(env, x, 0.0, "d");
  m.add(x);  // a variable alone is a member too
  m.add(d);
  cp->extract(m.getImpl());
  EXPECT_EQ(cp->solve(), QelEngineStatus::Infeasible);
  EXPECT_FALSE(cp->hasSolution());
  EXPECT_THROW(cp->getObjValue(), QelWrongUsage);
  m.remove(d);
  // Without objective the first solution is the answer.
  EXPECT_EQ(cp->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(cp->getValue(x.getImpl()), 0);
  EXPECT_EQ(cp->getNumCriteria(), 0);
}

}  // namespace

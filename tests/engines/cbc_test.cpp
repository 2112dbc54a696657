// The CBC engine: what it takes, what it refuses, and how it follows
// changes in the LP it keeps.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <qel/engines/cbc.h>
#include <qel/engines/linear.h>
#include "engines/support/cbcdirect.h"
#include "engines/support/enginetest.h"
#include "engines/support/models.h"

#if defined(__GLIBC__) && !defined(QEL_TEST_UNDER_ASAN)
#include <malloc.h>
#define QEL_TEST_GLIBC_HEAP 1
#endif

using namespace enginetest;

namespace {

// A CBC engine for the tests (see UnderSanitizer).
QelEngineI* Make(QelEnv env) { return UnderSanitizer(QelNewCbcEngine(env)); }

struct CbcTest : ::testing::Test {
  void TearDown() override {
    mip.reset();
    env.end();
  }
  std::string refusalOf(const QelExtractable& x) {
    try {
      mip->extract(x.getImpl());
    } catch (const QelEngineError& e) {
      return e.what();
    }
    return "<no refusal>";
  }
  void expectSameAsFresh(const QelModel& m) {
    ExpectSameAsFresh(&Make, env, m, AnswerOf(mip.get()));
  }

  QelEnv env;
  EnginePtr mip{Make(env)};
};

bool Contains(const std::string& s, const std::string& part) {
  return s.find(part) != std::string::npos;
}

TEST_F(CbcTest, RefusesNonlinearExpressionsNamingTheObject) {
  QelNumVar x(env, 0, 4, "x"), y(env, 0, 4, "y");
  std::string msg = refusalOf(QelRange(env, 0, x * y, 3, "area"));
  EXPECT_TRUE(Contains(msg, "CBC engine cannot extract \"area\" (QelRangeI): quadratic terms"))
      << msg;
  msg = refusalOf(QelObjective(env, x * y + x, QelObjective::Minimize, "qobj"));
  EXPECT_TRUE(Contains(msg, "\"qobj\" (QelObjectiveI): quadratic terms")) << msg;
  EXPECT_EQ(mip->getObjective(), nullptr);  // a refused objective is not the active one
  EXPECT_TRUE(mip->getMembers().empty());
  msg = refusalOf(QelRange(env, 0, (x + 1) * (y + 1) * (x + y), 3, "cubic"));
  EXPECT_TRUE(Contains(msg, "\"cubic\" (QelRangeI): a product of degree higher than two")) << msg;
  QelIntervalVar task(env, 3, 0, 10, "task");
  EXPECT_TRUE(Contains(refusalOf(task), "\"task\" (QelIntervalVarI)"));
}

TEST_F(CbcTest, RefusesReformulationsItCannotMake) {
  QelNumVar f(env, 0, 4, "f");
  std::string msg = refusalOf(QelDiff(env, f, 2.0, "fdiff"));
  EXPECT_TRUE(Contains(msg, "\"fdiff\" (QelDiffI): its integer reformulation needs integer"))
      << msg;
  QelIntVar big(env, 0, 5, "big");
  big.getImpl()->setUB(std::numeric_limits<double>::infinity());
  QelIntVar small(env, 0, 3, "small");
  QelIntVarArray both(env, 0);
  both.add(big);
  both.add(small);
  msg = refusalOf(QelAllDiff(env, both, "open"));
  EXPECT_TRUE(
      Contains(msg, "\"open\" (QelAllDiffI): its integer reformulation needs finite bounds"))
      << msg;
  both.end();
}

TEST_F(CbcTest, SpecialOrderedSetsOfTypeOneKeepOneVariable) {
  QelModel m(env, "m");
  QelNumVarArray x(env, 3, 0, 1);
  QelSOS1 choice(env, "choice");
  for (int i = 0; i < 3; ++i) {
    choice->addVar(x[i]);
    choice->addVal(10 * (i + 1));
  }
  m.add(choice);
  QelObjective value(env, x[0] + 2 * x[1] + 3 * x[2], QelObjective::Maximize, "value");
  m.add(value);
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 3, 1e-9);  // not 6: one variable only
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 1);
  CheckObjective(mip.get());
  // The last variable leaves the set (one notice per element scanned).
  choice->removeVar(x[2]);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 5, 1e-9);  // x2 free again, one of x0, x1
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 1);
  expectSameAsFresh(m);
  EXPECT_EQ(mip->getStats().rebuilds, 0);
  EXPECT_GE(mip->getStats().memberRefreshes, 1);
}

TEST_F(CbcTest, SpecialOrderedSetsOfTypeTwoGainAVariableColumnWise) {
  QelModel m(env, "m");
  QelNumVarArray lambda(env, 3, 0, 1);
  QelSOS2 pieces(env, "pieces");
  for (int i = 0; i < 3; ++i) {
    pieces->addVar(lambda[i]);
    pieces->addVal(i + 1);
  }
  m.add(pieces);
  m.add(QelRange(env, 1, QelSum(lambda), 1, "convex"));
  QelObjective obj(env, 3 * lambda[0] + 1 * lambda[1] + 3 * lambda[2], QelObjective::Maximize,
                   "obj");
  m.add(obj);
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 3, 1e-9);
  // A new variable joins the set with weight 4 and the objective with 5.
  QelNumVar extra(env, 0, 1, "extra");
  auto* toSet = QelNewObject<QelAddVarToSOS2>(env.getImpl(), pieces.getImpl(), 4.0);
  toSet->install(extra.getImpl());
  toSet->destroy();
  QelAddExtractable* toObj = QelAddValueToObj(obj, 5.0).getCopy(env.getImpl());
  toObj->install(extra.getImpl());
  toObj->destroy(env.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  // extra is not in the convexity row: at most extra = 1 with lambda[2] = 1.
  EXPECT_NEAR(mip->getObjValue(), 8, 1e-9);
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 2);
  expectSameAsFresh(m);
  // lambda[1] leaves the set: lambda[0] and lambda[2] become neighbours.
  pieces->removeVar(lambda[1]);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 8, 1e-9);
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 2);
  expectSameAsFresh(m);
  EXPECT_EQ(mip->getStats().rebuilds, 0);
}

TEST_F(CbcTest, SpecialOrderedSetsOfTypeOneGainAVariableColumnWise) {
  QelModel m(env, "m");
  QelNumVarArray x(env, 2, 0, 1);
  QelSOS1 choice(env, "choice");
  choice->addVar(x[0]);
  choice->addVal(1);
  choice->addVar(x[1]);
  choice->addVal(2);
  m.add(choice);
  QelObjective obj(env, x[0] + 2 * x[1], QelObjective::Maximize, "obj");
  m.add(obj);
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 2, 1e-9);
  // A third variable joins the set (weight chosen by the set) and the
  // objective with 3: the set now keeps it alone.
  QelNumVar third(env, 0, 1, "third");
  auto* toSet = QelNewObject<QelAddVarToSOS1>(env.getImpl(), choice.getImpl(), 0.0);
  QelAddExtractable* toObj = QelAddValueToObj(obj, 3.0).getCopy(env.getImpl());
  toSet->setNext(toObj);  // one chain: both places at once
  toSet->install(third.getImpl());
  toSet->destroy();
  toObj->destroy(env.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 3, 1e-9);
  EXPECT_EQ(mip->getValue(third.getImpl()), 1);
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 1);
  expectSameAsFresh(m);
}

TEST_F(CbcTest, AnObjectiveMadeQuadraticIsRefusedAtTheNextSolve) {
  QelModel m(env, "m");
  QelNumVar x(env, 0, 4, "x"), y(env, 0, 4, "y");
  m.add(QelRange(env, 0, x + y, 5, "r"));
  QelObjective obj(env, x + y, QelObjective::Maximize, "obj");
  m.add(obj);
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NO_THROW(obj.setQuadCoef(x, y, 1));  // never thrown into the model
  try {
    mip->solve();
    FAIL() << "no refusal";
  } catch (const QelEngineError& e) {
    EXPECT_TRUE(Contains(e.what(), "\"obj\" (QelObjectiveI): quadratic terms")) << e.what();
  }
  obj.setQuadCoef(x, y, 0);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 5, 1e-9);
  expectSameAsFresh(m);
}

TEST_F(CbcTest, ObjectiveChangesAreMadeInPlace) {
  QelModel m(env, "m");
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelIntVar n(env, 0, 3, "n");
  m.add(QelRange(env, -1e30, x + y, 8, "cap"));
  m.add(QelRange(env, -1e30, x - 2 * n, 0, "link"));
  QelObjective obj(env, x + 0.5 * y, QelObjective::Maximize, "obj");
  m.add(obj);
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 6 + 1, 1e-9);  // x = 6 (n = 3), y = 2
  long extractions = mip->getStats().memberExtractions;

  obj.setLinearCoef(y, 2);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 16, 1e-9);
  expectSameAsFresh(m);
  obj.setConst(1.5);
  obj.setSense(QelObjective::Minimize);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 1.5, 1e-9);
  expectSameAsFresh(m);
  QelNumVarArray vars(env, 0);
  vars.add(x);
  vars.add(y);
  QelNumArray coefs(env, 2);
  coefs.set(0, -1);
  coefs.set(1, -3);
  obj.setLinearCoefs(vars, coefs);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 1.5 - 24, 1e-9);  // y = 8
  expectSameAsFresh(m);
  obj.setExpr(x + y + n);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 0, 1e-9);
  expectSameAsFresh(m);
  CheckObjective(mip.get());
  // Nothing was extracted again.
  EXPECT_EQ(mip->getStats().memberExtractions, extractions);
  EXPECT_EQ(mip->getStats().memberRefreshes, 0);
  EXPECT_EQ(mip->getStats().rebuilds, 0);
  EXPECT_EQ(mip->getStats().incrementalChanges, 5);
  vars.end();
  coefs.end();
}

TEST_F(CbcTest, MembersAreAddedAndDeletedInTheLp) {
  QelModel m(env, "m");
  QelIntVarArray x(env, 4, 0, 3);
  QelAllDiff ad(env, x, "ad");
  m.add(ad);
  QelObjective obj(env, 4 * x[0] + 3 * x[1] + 2 * x[2] + x[3], QelObjective::Minimize, "obj");
  m.add(obj);
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 0 + 3 + 4 + 3, 1e-9);  // 0, 1, 2, 3
  QelDiff d(env, x[0], 0.0, "d");
  QelRange r(env, 0, x[1] + x[2], 2, "r");
  m.add(d);
  m.add(r);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 3);
  expectSameAsFresh(m);
  m.remove(d);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  expectSameAsFresh(m);
  EXPECT_EQ(mip->getStats().memberRemovals, 1);
  r.end();
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 10, 1e-9);
  // A variable of the all-different constraint ends: swept out silently, the
  // constraint is re-extracted.
  x[3].end();
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 1);
  expectSameAsFresh(m);
  EXPECT_EQ(mip->getStats().rebuilds, 0);
}

TEST_F(CbcTest, AllMinDistanceDifferenceAndPackReformulations) {
  QelModel m(env, "m");
  QelIntVarArray start(env, 3, 0, 10);
  m.add(QelAllMinDistance(env, start, 3, "spread"));
  m.add(QelDiff(env, start[0], start[1] + 6, "notSix"));
  QelIntVarArray load(env, 2, 0, 7);
  QelIntVarArray where(env, 3, 0, 5);
  QelIntArray size(env, 3);
  size.set(0, 4);
  size.set(1, 3);
  size.set(2, 5);
  QelIntArray possible(env, 2);
  possible.set(0, 0);
  possible.set(1, 1);
  QelIntSetVar usedSet(env, possible, "usedSet");
  m.add(QelPack(env, load.toIntExprArray(), where.toIntExprArray(), size, usedSet, "pack"));
  size.end();
  possible.end();
  QelMultiCriterionExpr mc =
      QelStaticLex(env, QelSum(start.toIntExprArray()), 10 * where[2] + where[0]);
  m.add(QelMinimize(env, mc, "lex"));
  mc.end();
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(0), 9, 1e-9);  // 0, 3, 6 in some order
  EXPECT_NEAR(mip->getObjValue(1), 1, 1e-9);  // item 2 in bin 0, items 0, 1 in bin 1
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 3);
  EXPECT_EQ(mip->getSetValue(usedSet.getImpl()), (std::vector<QelInt>{0, 1}));
  CheckObjective(mip.get());
  expectSameAsFresh(m);
}

TEST_F(CbcTest, BoundsAndTypesChangedWithoutNoticeAreUpdatedInPlace) {
  QelModel m(env, "m");
  QelNumVar x(env, 0, 9.5, "x");
  m.add(QelRange(env, 0, x, 100, "r"));
  m.add(QelObjective(env, x, QelObjective::Maximize, "obj"));
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 9.5, 1e-9);
  x.getImpl()->setUB(20.5);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 20.5, 1e-9);
  EXPECT_EQ(mip->getStats().silentChanges, 1);
  EXPECT_EQ(mip->getStats().rebuilds, 0);
}

TEST_F(CbcTest, ReformulationsFollowTheBoundsTheyWereMadeFrom) {
  QelModel m(env, "m");
  QelIntVar x(env, 0, 1, "x"), y(env, 0, 1, "y"), z(env, 0, 2, "z");
  QelIntVarArray xyz(env, 0);
  xyz.add(x);
  xyz.add(y);
  xyz.add(z);
  m.add(QelAllDiff(env, xyz, "ad"));
  m.add(QelDiff(env, x, z, "xz"));
  m.add(QelObjective(env, x + y + z, QelObjective::Maximize, "obj"));
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 3, 1e-9);
  // Wider bounds (no notice): the assignment binaries and the big-M of the
  // difference were made for the old ones and are made again.
  x.getImpl()->setUB(5);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 5 + 1 + 2, 1e-9);
  EXPECT_EQ(mip->getStats().memberRefreshes, 2);
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 2);
  expectSameAsFresh(m);
  xyz.end();
}

TEST_F(CbcTest, InfeasibleAndUnboundedModels) {
  QelModel m(env, "m");
  QelNumVar x(env, 0, 1e30, "x");
  QelRange atLeast(env, 5, x, 1e30, "atLeast");
  m.add(atLeast);
  QelObjective obj(env, x, QelObjective::Maximize, "obj");
  m.add(obj);
  mip->extract(m.getImpl());
  x.getImpl()->setUB(std::numeric_limits<double>::infinity());
  EXPECT_EQ(mip->solve(), QelEngineStatus::Unbounded);
  EXPECT_FALSE(mip->hasSolution());
  obj.setSense(QelObjective::Minimize);
  EXPECT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), 5, 1e-9);
  m.add(QelRange(env, -1e30, x, 4, "atMost"));
  EXPECT_EQ(mip->solve(), QelEngineStatus::Infeasible);
}

}  // namespace

// A piecewise-linear cost (SOS2 over the breakpoints) with integer
// quantities under a two-criteria lexicographic objective; the answer is
// compared with the two stages solved by hand, each with a single
// objective, in fresh engines.
struct PiecewiseLex {
  explicit PiecewiseLex(QelEnv env) : model(env, "plex"), q(env, 3, 0, 6) {
    // Three products, integer quantities q[i] in [0, 6], q0 + q1 + q2 >= 7;
    // the cost of the total x = 2 q0 + q1 + 3 q2 is piecewise linear over
    // the breakpoints 0, 5, 10, 20, 30 (slopes 1, 3, 0.5, 4).
    const double bx[] = {0, 5, 10, 20, 30};
    const double by[] = {0, 5, 20, 25, 65};
    QelNumVarArray lambda(env, 5, 0, 1);
    QelNumArray xs(env, 5), ys(env, 5);
    QelSOS2 pieces(env, "pieces");
    for (int k = 0; k < 5; ++k) {
      xs.set(k, bx[k]);
      ys.set(k, by[k]);
      pieces->addVar(lambda[k]);
      pieces->addVal(k);
    }
    QelNumExpr total = 2 * q[0] + q[1] + 3 * q[2];
    model.add(pieces);
    model.add(QelRange(env, 1, QelSum(lambda), 1, "convex"));
    model.add(QelRange(env, 0, QelScalProd(lambda, xs) - total, 0, "x"));
    model.add(QelRange(env, 7, q[0] + q[1] + q[2], QelInfiniteBound, "demand"));
    model.add(QelRange(env, -QelInfiniteBound, q[0] - q[1], 2, "balance"));
    cost = QelScalProd(lambda, ys);
    second = q[2] - q[0];  // then prefer less of product 2, more of product 0
    xs.end();
    ys.end();
  }
  QelModel model;
  QelIntVarArray q;
  QelNumExpr cost, second;
};

TEST_F(CbcTest, LexicographicObjectiveOverSOS2AndIntegers) {
  PiecewiseLex p(env);
  // By hand: stage 1 minimizes the cost; stage 2 minimizes the second
  // criterion with the cost kept at its optimum.
  EnginePtr one(Make(env));
  QelObjective first(env, p.cost, QelObjective::Minimize, "first");
  p.model.add(first);
  one->extract(p.model.getImpl());
  ASSERT_EQ(one->solve(), QelEngineStatus::Optimal);
  double bestCost = one->getObjValue();
  p.model.remove(first);
  one.reset();

  EnginePtr two(Make(env));
  QelRange keep(env, -QelInfiniteBound, p.cost, bestCost + 1e-7, "keep");
  QelObjective secondObj(env, p.second, QelObjective::Minimize, "second");
  p.model.add(keep);
  p.model.add(secondObj);
  two->extract(p.model.getImpl());
  ASSERT_EQ(two->solve(), QelEngineStatus::Optimal);
  double bestSecond = two->getObjValue();
  p.model.remove(secondObj);
  p.model.remove(keep);
  two.reset();

  QelObjective lex = QelMinimize(env, QelStaticLex(env, p.cost, p.second), "lex");
  p.model.add(lex);
  mip->extract(p.model.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(0), bestCost, 1e-6);
  EXPECT_NEAR(mip->getObjValue(1), bestSecond, 1e-6);
  EXPECT_EQ(CheckSolution(mip.get(), p.model.getImpl()), 5);
  // Solved again (the stages' rows do not stay in the form).
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(1), bestSecond, 1e-6);
}

struct CbcLimitsTest : CbcTest {
  void SetUp() override {
    mip->setParam("cuts", "off");
    mip->setParam("heuristicsOnOff", "off");
    mip->setParam("preprocess", "off");
    mip->extract(problem.model.getImpl());
  }
  mipmodel::Knapsack problem{env};
};

TEST_F(CbcLimitsTest, ANodeLimitStopsEarly) {
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  long allNodes = mip->getReport().nodes;
  double best = mip->getObjValue();
  ASSERT_GT(allNodes, 50) << "the knapsack is too easy to show a node limit";

  mip->setNodeLimit(10);
  QelEngineStatus s = mip->solve();
  EXPECT_TRUE(s == QelEngineStatus::Feasible || s == QelEngineStatus::Unknown) << s;
  EXPECT_LE(mip->getReport().nodes, 20);
  if (s == QelEngineStatus::Feasible) {
    EXPECT_LE(mip->getObjValue(), best + 1e-6);
    EXPECT_EQ(CheckSolution(mip.get(), problem.model.getImpl()), 5);
  }
}

TEST_F(CbcLimitsTest, AGapLimitStopsEarly) {
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  long allNodes = mip->getReport().nodes;
  double best = mip->getObjValue();
  mip->setRelativeGap(0.05);
  QelEngineStatus s = mip->solve();
  ASSERT_TRUE(s == QelEngineStatus::Feasible || s == QelEngineStatus::Optimal) << s;
  EXPECT_LT(mip->getReport().nodes, allNodes);
  EXPECT_GE(mip->getObjValue(), best * (1 - 0.05) - 1e-6);
  EXPECT_LE(mip->getReport().gap, 0.05 + 1e-9);
  EXPECT_GE(mip->getReport().bestBound, best - 1e-6);  // a valid bound on a maximum
}

TEST_F(CbcLimitsTest, ASolutionLimitStopsAtTheFirstSolution) {
  mip->setSolutionLimit(1);
  QelEngineStatus s = mip->solve();
  ASSERT_TRUE(s == QelEngineStatus::Feasible || s == QelEngineStatus::Optimal) << s;
  EXPECT_EQ(mip->getReport().solutions, 1);
}

TEST_F(CbcLimitsTest, AProgressCallbackThatAsksToStopIsHonoured) {
  long calls = 0;
  long lastNodes = -1;
  mip->setProgressCallback([&](const QelEngineProgress& p) {
    ++calls;
    lastNodes = p.nodes;
    return p.nodes >= 5 ? QelProgressReply::Stop : QelProgressReply::Continue;
  });
  QelEngineStatus s = mip->solve();
  EXPECT_TRUE(s == QelEngineStatus::Feasible || s == QelEngineStatus::Unknown) << s;
  EXPECT_TRUE(mip->getReport().stoppedByCallback);
  EXPECT_GE(lastNodes, 5);
  EXPECT_LE(mip->getReport().nodes, 10);
  EXPECT_GE(calls, 5);
}

TEST_F(CbcLimitsTest, LogLinesAtLevelOneCarryTheirFields) {
  std::ostringstream log;
  mip->setLogStream(log);
  mip->setLogLevel(1);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  std::string text = log.str();
  EXPECT_EQ(text.rfind("[CBC] start: 5 rows, 60 columns (60 integer); QelRangeI 5\n", 0), 0u)
      << text;
  // At least one progress line (the first report is always written).
  EXPECT_NE(text.find(" s  nodes "), std::string::npos) << text;
  EXPECT_NE(text.find("  incumbent "), std::string::npos) << text;
  std::string end = "[CBC] end: Optimal  objective " + QelEngineLog::Number(mip->getObjValue()) +
                    "  bound " + QelEngineLog::Number(mip->getReport().bestBound) +
                    "  gap 0%  nodes " + std::to_string(mip->getReport().nodes) + "  iterations " +
                    std::to_string(mip->getReport().iterations) + "  solutions " +
                    std::to_string(mip->getReport().solutions) + "  time ";
  EXPECT_NE(text.find(end), std::string::npos) << text << "\nexpected: " << end;
  EXPECT_GT(mip->getReport().iterations, 0);
  EXPECT_GE(mip->getReport().solutions, 1);
}

TEST_F(CbcTest, OptionsByNameAreCheckedAgainstCbcsOwnTable) {
  mip->setParam("cuts", "off");
  mip->setParam("strongBranching", "3");
  mip->setParam("relativeGap", "0.01");  // a shared one
  EXPECT_EQ(mip->getParams().relativeGap, 0.01);
  try {
    mip->setParam("cutz", "off");
    FAIL() << "an unknown name was taken";
  } catch (const QelEngineError& e) {
    EXPECT_TRUE(
        Contains(e.what(), "CBC engine: parameter \"cutz\": unknown name; the names known are "))
        << e.what();
  }
  try {
    mip->setParam("cuts", "sometimes");
    FAIL() << "an unknown keyword was taken";
  } catch (const QelEngineError& e) {
    EXPECT_TRUE(Contains(e.what(), "CBC engine: parameter \"cuts\": \"sometimes\" is not one of "))
        << e.what();
    EXPECT_TRUE(Contains(e.what(), "off")) << e.what();
  }
  EXPECT_THROW(mip->setParam("strongBranching", "many"), QelEngineError);
  EXPECT_THROW(mip->setParam("strongBranching", "-5"), QelEngineError);
  EXPECT_THROW(mip->setParam("solve", "1"), QelEngineError);  // an action, not an option
}

// Seconds taken by `f`, best of `runs` runs (the least disturbed by other
// work on the machine).
template <class F>
double BestSeconds(int runs, F f) {
  double best = 1e100;
  for (int i = 0; i < runs; ++i) {
    auto start = std::chrono::steady_clock::now();
    f();
    best = std::min(
        best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

// n rows of 10 terms over n variables (row i: variables i .. i+9, cyclic).
QelModel Rows(QelEnv env, long n) {
  QelModel m(env);
  QelNumVarArray x(env, n, 0, 10);
  for (long i = 0; i < n; ++i) {
    QelNumExprArray terms(env, 10);
    for (long k = 0; k < 10; ++k) terms.set(k, (1.0 + static_cast<double>(k)) * x[(i + k) % n]);
    m.add(QelRange(env, -QelInfiniteBound, QelSum(terms), 100));
    terms.end();
  }
  return m;
}

TEST_F(CbcTest, ExtractionIsLinearInTheModelsSize) {
#ifdef QEL_TEST_UNDER_ASAN
  const long n = 2500;  // the sanitizer makes building the models slow
#else
  const long n = 6000;
#endif
  QelModel small = Rows(env, n), large = Rows(env, 2 * n);
  // Only extract() is timed: the engines are made and destroyed outside.
  auto extractInto = [this](const QelModel& m) {
    double best = 1e100;
    for (int run = 0; run < 5; ++run) {
      EnginePtr e(Make(env));
      best = std::min(best, BestSeconds(1, [&] { e->extract(m.getImpl()); }));
    }
    return best;
  };
  // Timing on a shared machine is noisy (CTest runs another test beside
  // this one): the pair is measured again (up to five times) before the
  // ratio counts as a failure.
  double tSmall = 0, tLarge = 0;
  for (int attempt = 0; attempt < 5; ++attempt) {
    tSmall = extractInto(small);
    tLarge = extractInto(large);
    if (tLarge <= 2.2 * tSmall) break;
  }
  EXPECT_LE(tLarge, 2.2 * tSmall) << "n rows: " << tSmall << " s, 2n rows: " << tLarge << " s";
}

// 120 items of weights 20..100 (fixed seed) into 50 bins of capacity 150,
// fewest bins used.
struct BinPacking {
  explicit BinPacking(QelEnv env)
      : model(env, "binpacking"),
        load(env, 50, 0, 150),
        where(env, 120, 0, 49),
        used(env, 0, 50, "used") {
    QelIntArray weight(env, 120);
    unsigned state = 2026;
    for (long i = 0; i < 120; ++i) {
      state = state * 1103515245u + 12345u;
      weight.set(i, 20 + static_cast<QelInt>((state >> 16) % 81));
    }
    model.add(QelPack(env, load.toIntExprArray(), where.toIntExprArray(), weight, used, "pack"));
    model.add(QelObjective(env, used, QelObjective::Minimize, "bins"));
    weight.end();
  }
  QelModel model;
  QelIntVarArray load, where;
  QelIntVar used;
};

TEST_F(CbcTest, APackOf120ItemsIsExtractedInMilliseconds) {
  BinPacking p(env);
  double t = BestSeconds(3, [&] {
    EnginePtr e(Make(env));
    e->extract(p.model.getImpl());
  });
  // 6,050 binaries and some 12,000 rows; milliseconds in a release build,
  // the bound leaves room for sanitizers.
  EXPECT_LT(t, 0.5) << t << " s";
}

TEST_F(CbcTest, TheTimeLimitBoundsTheWholeSolve) {
  BinPacking p(env);
  mip->extract(p.model.getImpl());
  mip->setTimeLimit(1.0);
  auto start = std::chrono::steady_clock::now();
  QelEngineStatus s = mip->solve();
  double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
#ifdef QEL_TEST_UNDER_ASAN
  const double bound = 1.5;  // CBC's allocations slowed by the sanitizer
#else
  const double bound = 1.1;  // within 10%
#endif
  EXPECT_LE(t, bound) << s;
  EXPECT_LE(mip->getReport().time, bound);
  EXPECT_TRUE(s == QelEngineStatus::Feasible || s == QelEngineStatus::Optimal ||
              s == QelEngineStatus::Unknown)
      << s;
}

TEST_F(CbcTest, ASolveAfterTheObjectiveWasRemovedSaysSo) {
  QelModel m(env, "m");
  QelIntVar x(env, 0, 5, "x");
  m.add(QelRange(env, 2, x, 5, "low"));
  QelObjective cost(env, x, QelObjective::Minimize, "cost");
  m.add(cost);
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(mip->getObjValue(), 2);
  std::ostringstream log;
  mip->setLogStream(log);
  mip->setLogLevel(1);
  cost.end();
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);  // a solution, no objective
  EXPECT_TRUE(mip->getReport().objectiveRemoved);
  EXPECT_FALSE(mip->getReport().hasObjective);
  EXPECT_THROW(mip->getObjValue(), QelWrongUsage);
  EXPECT_TRUE(
      Contains(log.str(), "[CBC] the model's objective was removed: solved without objective"))
      << log.str();
  EXPECT_TRUE(Contains(log.str(), "[CBC] end: Optimal  objective none (the objective was removed)"))
      << log.str();
  EXPECT_GE(mip->getValue(x.getImpl()), 2);
}

TEST_F(CbcLimitsTest, TwoThreadsAndASeedReachTheSameOptimum) {
#ifdef QEL_TEST_UNDER_ASAN
  // CBC 2.10's threaded branch-and-bound leaks node records inside libCbc
  // (CbcNode::createInfo, CbcPartialNodeInfo: no frame of ours), which the
  // leak checker reports; the other builds run this test.
  GTEST_SKIP() << "CBC's threaded search leaks inside libCbc under the leak checker";
#endif
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  double best = mip->getObjValue();
  mip->setThreads(2);
  mip->setRandomSeed(7);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), best, 1e-6);
  EXPECT_EQ(CheckSolution(mip.get(), problem.model.getImpl()), 5);
}

TEST_F(CbcTest, DeadRowsAndColumnsAreCompactedAway) {
  // A pack of 40 items into 30 bins (1,200 binaries and their rows) and 200
  // ranges; taking out the pack and most ranges leaves more than half of the
  // form dead, which the next solve compacts.
  QelModel m(env, "m");
  QelIntVarArray load(env, 30, 0, 100), where(env, 40, 0, 29);
  QelIntArray weight(env, 40);
  for (long i = 0; i < 40; ++i) weight.set(i, 5 + i % 7);
  QelIntVar used(env, 0, 30, "used");
  QelPack pack(env, load.toIntExprArray(), where.toIntExprArray(), weight, used, "pack");
  weight.end();
  QelNumVarArray x(env, 50, 0, 20);  // continuous: the ranges are an LP
  std::vector<QelRange> ranges;
  for (int i = 0; i < 200; ++i) {
    ranges.emplace_back(env, -QelInfiniteBound, x[i % 50] + 2 * x[(i + 1) % 50] + x[(i + 7) % 50],
                        10 + i % 13);
    m.add(ranges.back());
  }
  m.add(pack);
  m.add(QelObjective(env, QelSum(x), QelObjective::Maximize, "obj"));
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  m.remove(pack);
  for (int i = 0; i < 150; ++i) m.remove(ranges[static_cast<size_t>(i)]);
  EXPECT_EQ(mip->getStats().compactions, 0);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(mip->getStats().compactions, 1);
  EXPECT_EQ(CheckSolution(mip.get(), m.getImpl()), 50);
  expectSameAsFresh(m);
  // Members added after the compaction get their rows in the compacted form.
  QelRange cap(env, -QelInfiniteBound, QelSum(x), 100, "cap");
  m.add(cap);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_LE(mip->getObjValue(), 100 + 1e-6);
  expectSameAsFresh(m);
  m.remove(cap);
  // Ranges kept through the compaction still find their rows, and a member
  // with auxiliary columns added after it takes them away again: the LP
  // loaded has the nonzeros of a fresh extraction.
  auto freshNonzeros = [this, &m] {
    EnginePtr fresh{Make(env)};
    fresh->extract(m.getImpl());
    return QelCbcLoad(fresh.get());
  };
  m.remove(ranges[160]);
  m.remove(ranges[199]);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(QelCbcLoad(mip.get()), freshNonzeros());
  m.add(pack);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(QelCbcLoad(mip.get()), freshNonzeros());
  m.remove(pack);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(QelCbcLoad(mip.get()), freshNonzeros());
  expectSameAsFresh(m);
  pack.end();
}

// At log level 2 CBC's, CLP's and the driver's own lines go to the engine's
// log stream, and nothing reaches standard output; at level 1 only the
// engine's own lines appear.
TEST_F(CbcTest, TheSolversOwnLinesGoToTheLogStreamAtLevelTwo) {
  QelModel m(env);
  QelIntVarArray x(env, 6, 0, 5);
  QelNumArray w(env, 0);
  for (long i = 0; i < 6; ++i) w.add(3.0 + 2.0 * static_cast<double>(i));
  m.add(QelRange(env, -QelInfiniteBound, QelScalProd(x, w), 29.5));
  m.add(QelRange(env, -QelInfiniteBound, x[0] + x[1] + x[2] - x[3], 4.5));
  m.add(QelObjective(env, QelScalProd(x, w) + QelSum(x), QelObjective::Maximize));
  w.end();
  std::ostringstream log;
  mip->setLogStream(log);
  mip->setLogLevel(2);
  mip->extract(m.getImpl());
  testing::internal::CaptureStdout();
  QelEngineStatus status = mip->solve();
  std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(status, QelEngineStatus::Optimal);
  EXPECT_EQ(out, "") << "standard output received:\n" << out;
  std::string text = log.str();
  EXPECT_TRUE(Contains(text, "[CBC] start:")) << text;
  // The driver's banner and its report on the model it processed.
  EXPECT_TRUE(Contains(text, "CBC MILP Solver")) << text;
  EXPECT_TRUE(Contains(text, "processed model has 2 rows, 6 columns")) << text;
  EXPECT_TRUE(Contains(text, "[CBC] end: Optimal")) << text;

  // A pure LP goes to CLP alone: its lines too.
  QelModel lp(env);
  QelNumVar a(env, 0, 10, "a"), b(env, 0, 10, "b");
  lp.add(QelRange(env, -QelInfiniteBound, a + 2 * b, 12));
  lp.add(QelObjective(env, a + b, QelObjective::Maximize));
  EnginePtr clp(Make(env));
  std::ostringstream lpLog;
  clp->setLogStream(lpLog);
  clp->setLogLevel(2);
  clp->extract(lp.getImpl());
  testing::internal::CaptureStdout();
  status = clp->solve();
  out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(status, QelEngineStatus::Optimal);
  EXPECT_EQ(out, "") << "standard output received:\n" << out;
  EXPECT_TRUE(Contains(lpLog.str(), "Optimal - objective value")) << lpLog.str();

  // At level 1, the engine's lines only.
  std::ostringstream quiet;
  mip->setLogStream(quiet);
  mip->setLogLevel(1);
  testing::internal::CaptureStdout();
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_FALSE(Contains(quiet.str(), "CBC MILP Solver")) << quiet.str();
  EXPECT_TRUE(Contains(quiet.str(), "[CBC] end: Optimal")) << quiet.str();
}

#ifdef QEL_TEST_GLIBC_HEAP
// The main heap's size (glibc's arena) at the peak of a burst of 100,000
// blocks of 1,000 bytes (more than the holes earlier tests may have left) and after they are all
// freed: glibc gives the freed top of the heap back to the system unless its trim threshold is
// higher. They are freed in the order of allocation: the first few freed stay in the thread's
// cache, and those must not be the topmost.
std::pair<size_t, size_t> HeapBurst() {
  std::vector<void*> blocks;
  blocks.reserve(100000);
  for (int i = 0; i < 100000; ++i) blocks.push_back(std::malloc(1000));
  size_t peak = mallinfo2().arena;
  for (void* b : blocks) std::free(b);
  return {peak, mallinfo2().arena};
}

// The engine leaves the C library's allocator as the application set it,
// unless keepHeap is on; keepHeap on sets glibc's default values after each
// search (the earlier ones cannot be read back).
TEST_F(CbcTest, TheAllocatorIsLeftAsTheApplicationSetIt) {
  QelModel m(env);
  QelIntVarArray x(env, 8, 0, 3);
  QelNumArray w(env, 0);
  for (long i = 0; i < 8; ++i) w.add(2.0 + static_cast<double>(i));
  m.add(QelRange(env, -QelInfiniteBound, QelScalProd(x, w), 41.5));
  m.add(QelObjective(env, QelScalProd(x, w) - QelSum(x), QelObjective::Maximize));
  w.end();
  mip->extract(m.getImpl());
  // The application keeps its heap: a trim threshold of 1 GiB.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  auto kept = HeapBurst();
  ASSERT_GE(kept.second + (1 << 20), kept.first) << "the heap was trimmed before any solve";
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  kept = HeapBurst();
  EXPECT_GE(kept.second + (1 << 20), kept.first)
      << "after a solve the heap shrank from " << kept.first << " to " << kept.second
      << " bytes: the engine changed the application's trim threshold";
  // keepHeap on: glibc's default threshold (128 KiB) after the search.
  mip->setParam("keepHeap", "on");
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  auto trimmed = HeapBurst();
  EXPECT_LT(trimmed.second + 50000000, trimmed.first)
      << "with keepHeap on the heap stayed at " << trimmed.second << " bytes after the search";
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
}
#endif

namespace {

// The scratch file of a test, unique to the process.
std::string ScratchFile(const std::string& name) {
  return ::testing::TempDir() + "qel_cbc_" + std::to_string(getpid()) + "_" + name;
}

// The optimum of the LP of an MPS file, solved by CBC's driver called
// directly, in the file's own sense, constant included.
double SolveFileWithTheDriver(const std::string& path) {
  cbcdirect::FileLp in;
  EXPECT_TRUE(cbcdirect::ReadMps(path, in));
  cbcdirect::Solved solved = cbcdirect::DriverSolve(in.lp, in.sets);
  EXPECT_TRUE(solved.found);
  return solved.objective - in.offset;
}

}  // namespace

TEST_F(CbcTest, TheLpWrittenToAFileIsTheOneTheDriverSolves) {
  PiecewiseLex p(env);
  // An all-different adds binaries of its own; the objective has a constant.
  QelIntVar a(env, 0, 2, "a"), b(env, 0, 2, "b"), c(env, 0, 2, "c");
  QelIntVarArray abc(env, 0);
  abc.add(a);
  abc.add(b);
  abc.add(c);
  p.model.add(QelAllDiff(env, abc, "distinct"));
  abc.end();
  QelObjective lex = QelMinimize(env, QelStaticLex(env, p.cost + a + 10, p.second - 2 * b), "lex");
  p.model.add(lex);
  mip->extract(p.model.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);

  QelCbc handle;
  const std::string first = ScratchFile("first.mps"), second = ScratchFile("second.mps");
  QelCbcWriteMps(mip.get(), first);
  QelCbcWriteMps(mip.get(), second, 1);

  cbcdirect::FileLp in;
  ASSERT_TRUE(cbcdirect::ReadMps(first, in));
  const OsiClpSolverInterface& file = in.lp;
  // The model's 11 variables and the all-different's binary per variable and
  // value (9), of which the 3 quantities, a, b, c and the 9 binaries are
  // integers; the model's 4 rows and the all-different's 9.
  EXPECT_EQ(file.getNumCols(), 20);
  EXPECT_EQ(file.getNumRows(), 13);
  int integers = 0;
  for (int j = 0; j < file.getNumCols(); ++j) integers += file.isInteger(j) ? 1 : 0;
  EXPECT_EQ(integers, 15);
  EXPECT_EQ(file.getNumElements(), QelCbcLoad(mip.get()));
  ASSERT_EQ(in.numberSets, 1);
  EXPECT_EQ(in.setTypes[0], 2);
  EXPECT_EQ(in.setSizes[0], 5);
  // Named variables and members keep their names; the rest are numbered.
  const std::vector<std::string>& cols = in.colNames;
  const std::vector<std::string>& rows = in.rowNames;
  for (const char* name : {"a", "b", "c"})
    EXPECT_NE(std::find(cols.begin(), cols.end(), name), cols.end()) << name;
  for (const char* name : {"convex", "x", "demand", "balance", "distinct.0"})
    EXPECT_NE(std::find(rows.begin(), rows.end(), name), rows.end()) << name;
  EXPECT_NE(std::find(cols.begin(), cols.end(), "C0"), cols.end());

  // Each criterion's file, solved by CBC's driver alone, has the optimum
  // the engine found for that criterion alone (the first) or a lower one
  // (the second, without the first kept at its optimum).
  EXPECT_NEAR(SolveFileWithTheDriver(first), mip->getObjValue(0), 1e-6);
  EXPECT_LE(SolveFileWithTheDriver(second), mip->getObjValue(1) + 1e-6);

  // Maximizing: the file minimizes the negated criterion.
  lex.setSense(QelObjective::Maximize);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  QelCbcWriteMps(mip.get(), first);
  EXPECT_NEAR(SolveFileWithTheDriver(first), -mip->getObjValue(0), 1e-6);

  try {
    QelCbcWriteMps(mip.get(), first, 2);
    ADD_FAILURE() << "no error";
  } catch (const QelWrongUsage& e) {
    EXPECT_STREQ(e.what(), "QelCbcWriteMps: the objective has no criterion 2");
  }
  try {
    QelCbcWriteMps(mip.get(), "/nonexistent/dir/lp.mps");
    ADD_FAILURE() << "no error";
  } catch (const QelException& e) {
    EXPECT_STREQ(e.what(), "cannot open \"/nonexistent/dir/lp.mps\" for writing");
  }
  try {
    handle.writeMps(first);
    ADD_FAILURE() << "no error";
  } catch (const QelEmptyHandleException& e) {
    EXPECT_STREQ(e.what(), "QelEngine: using empty handle");
  }
  std::remove(first.c_str());
  std::remove(second.c_str());
}

// The coefficient of column `col` in row `row` of a file read back (0 when
// absent), by names.
double CoefOf(const cbcdirect::FileLp& in, const std::string& row, const std::string& col) {
  auto r = std::find(in.rowNames.begin(), in.rowNames.end(), row);
  auto c = std::find(in.colNames.begin(), in.colNames.end(), col);
  if (r == in.rowNames.end() || c == in.colNames.end()) return std::nan("");
  const CoinPackedMatrix* m = in.lp.getMatrixByRow();
  auto i = static_cast<int>(r - in.rowNames.begin());
  const CoinShallowPackedVector v = m->getVector(i);
  for (int k = 0; k < v.getNumElements(); ++k)
    if (v.getIndices()[k] == c - in.colNames.begin()) return v.getElements()[k];
  return 0.0;
}

// Rows of linear terms of either class are read term by term: repeated
// variables add up, terms that cancel out leave the row, the constant moves
// to the bounds; the objective's repeated variables add up too, and a
// variable met only there gets its column.
TEST_F(CbcTest, LinearTermsAreLoadedMergedWithCancelledTermsLeftOut) {
  QelModel model(env);
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z"), w(env, 0, 10, "w");
  QelIntVar a(env, 0, 5, "a"), b(env, 0, 5, "b");
  model.add(QelRange(env, -QelInfinity, 2 * x + 3 * y - 2 * x + z + z + 4, 10, "num"));
  model.add(QelRange(env, 1, 2 * a + 3 * b + a - 2 * b + 2, 7, "int"));
  model.add(QelRange(env, 0, a + x - a - x, 5, "empty"));
  model.add(QelObjective(env, x + y + x - 3 * w + w, QelObjective::Minimize));
  mip->extract(model.getImpl());
  const std::string path = ScratchFile("merged.mps");
  QelCbcWriteMps(mip.get(), path);
  cbcdirect::FileLp in;
  ASSERT_TRUE(cbcdirect::ReadMps(path, in));
  std::remove(path.c_str());
  // x, y, z, w, a, b; the rows num (y, z), int (a, b) and empty (no term).
  ASSERT_EQ(in.lp.getNumCols(), 6);
  ASSERT_EQ(in.lp.getNumRows(), 3);
  EXPECT_EQ(in.lp.getNumElements(), 4);
  EXPECT_EQ(CoefOf(in, "num", "x"), 0.0);
  EXPECT_EQ(CoefOf(in, "num", "y"), 3.0);
  EXPECT_EQ(CoefOf(in, "num", "z"), 2.0);
  EXPECT_EQ(CoefOf(in, "int", "a"), 3.0);
  EXPECT_EQ(CoefOf(in, "int", "b"), 1.0);
  EXPECT_EQ(CoefOf(in, "empty", "a"), 0.0);
  EXPECT_EQ(CoefOf(in, "empty", "x"), 0.0);
  auto num = std::find(in.rowNames.begin(), in.rowNames.end(), "num") - in.rowNames.begin();
  auto ints = std::find(in.rowNames.begin(), in.rowNames.end(), "int") - in.rowNames.begin();
  EXPECT_EQ(in.lp.getRowUpper()[num], 6.0);
  EXPECT_EQ(in.lp.getRowLower()[ints], -1.0);
  EXPECT_EQ(in.lp.getRowUpper()[ints], 5.0);
  std::vector<double> obj(in.lp.getObjCoefficients(), in.lp.getObjCoefficients() + 6);
  auto col = [&in](const char* n) {
    return std::find(in.colNames.begin(), in.colNames.end(), n) - in.colNames.begin();
  };
  EXPECT_EQ(obj[static_cast<size_t>(col("x"))], 2.0);
  EXPECT_EQ(obj[static_cast<size_t>(col("y"))], 1.0);
  EXPECT_EQ(obj[static_cast<size_t>(col("w"))], -2.0);
  EXPECT_EQ(obj[static_cast<size_t>(col("a"))], 0.0);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_NEAR(mip->getObjValue(), -20.0, 1e-9);
  expectSameAsFresh(model);
}

TEST_F(CbcTest, AModelWithoutRowsOrObjectiveIsWrittenToo) {
  // No rows: the engine gives CLP one free row (its strong branching fails
  // without rows); the file writes it as a free row, which MPS readers drop.
  QelModel m(env, "bare");
  QelIntVar x(env, 1, 5, "x"), y(env, 2, 6, "y");
  m.add(x);
  m.add(y);
  QelObjective cost(env, x + 2 * y + 3, QelObjective::Minimize, "cost");
  m.add(cost);
  mip->extract(m.getImpl());
  const std::string path = ScratchFile("bare.mps");
  QelCbcWriteMps(mip.get(), path);
  cbcdirect::FileLp in;
  ASSERT_TRUE(cbcdirect::ReadMps(path, in));
  EXPECT_EQ(in.lp.getNumCols(), 2);
  EXPECT_EQ(in.lp.getNumRows(), 0);
  EXPECT_NEAR(SolveFileWithTheDriver(path), 8, 1e-9);

  // No objective: the file's objective is zero, and the one criterion
  // there is, 0, is the only one it may be asked for.
  m.remove(cost);
  QelCbcWriteMps(mip.get(), path);
  cbcdirect::FileLp none;
  ASSERT_TRUE(cbcdirect::ReadMps(path, none));
  for (int j = 0; j < none.lp.getNumCols(); ++j) EXPECT_EQ(none.lp.getObjCoefficients()[j], 0);
  EXPECT_THROW(QelCbcWriteMps(mip.get(), path, 1), QelWrongUsage);
  std::remove(path.c_str());
}

// The small model on which CBC 2.10's preprocessing reports a worse
// solution as optimal (see qel/engines/cbc.h): with the driver's defaults
// the engine answers as CBC's driver called directly on the same LP does
// (2 with Debian's CBC 2.10.8; either way a feasible point); without
// preprocessing it finds the optimum, 0 at a = b = 0.
TEST_F(CbcTest, WithoutPreprocessingTheModelCbcsPreprocessingGetsWrongIsSolvedExactly) {
  QelIntVar a(env, 0, 2, "a"), b(env, 0, 1, "b");
  QelModel m(env);
  QelRange row(env, -1, 3 * a - 2 * b, 1, "row");
  m.add(row);
  m.add(QelObjective(env, 3 * a - b, QelObjective::Minimize, "cost"));
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  double withDefaults = mip->getObjValue();
  EXPECT_TRUE(withDefaults == 0 || withDefaults == 2) << withDefaults;
  EXPECT_EQ(row.eval(QelAlgorithm(mip.get())), 1.0);

  const std::string file = ScratchFile("preprocessing.mps");
  QelCbcWriteMps(mip.get(), file);
  cbcdirect::FileLp in;
  ASSERT_TRUE(cbcdirect::ReadMps(file, in));
  cbcdirect::Solved direct = cbcdirect::DriverSolve(in.lp);
  std::remove(file.c_str());
  ASSERT_TRUE(direct.found);
  EXPECT_EQ(direct.objective, withDefaults);

  mip->setParam("preprocess", "off");
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(mip->getObjValue(), 0);
  EXPECT_EQ(mip->getValue(a.getImpl()), 0);
  EXPECT_EQ(mip->getValue(b.getImpl()), 0);
}

// A special ordered set's variables need a lower bound of zero: CBC's set
// branching fixes them to zero, and CBC 2.10 aborts the process on a
// member whose lower bound is above zero. The engine refuses such a set,
// also when a bound moves after extraction, and takes it again once the
// bound is back at zero.
TEST_F(CbcTest, SetsOverVariablesWhoseLowerBoundIsNotZeroAreRefused) {
  QelIntVar x(env, 0, 3, "x"), y(env, 0, 3, "y"), z(env, -1, 3, "z");
  QelModel m(env, "m");
  QelSOS1 one(env, "one");
  one->addVar(x);
  one->addVal(1);
  one->addVar(y);
  one->addVal(2);
  m.add(one);
  m.add(QelObjective(env, x + 2 * y, QelObjective::Maximize, "gain"));
  mip->extract(m.getImpl());
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(mip->getObjValue(), 6);  // y = 3 alone

  x.setLB(1);
  std::string message;
  try {
    mip->solve();
  } catch (const QelEngineError& e) {
    message = e.what();
  }
  EXPECT_EQ(message,
            "CBC engine cannot extract \"one\" (QelSOS1I): the variable \"x\" (QelNumVarI) has a "
            "lower bound above zero")
      << message;
  x.setLB(0);
  ASSERT_EQ(mip->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(mip->getObjValue(), 6);

  QelSOS2 two(env, "two");
  two->addVar(z);
  two->addVal(1);
  EXPECT_TRUE(
      Contains(refusalOf(two), "the variable \"z\" (QelNumVarI) has a negative lower bound"))
      << refusalOf(two);
}

// All-different and all-min-distance: construction and locks, evaluation,
// removal with and without notices, removal of ended members in both modes,
// column-wise addition, cloning, visiting, printing and the engine hooks.
#include <algorithm>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/qeltest.h"

using namespace qeltest;

namespace {

// Environments of these tests obtain every block singly, so that memory
// checkers see each one.
QelEnvConfig SingleBlocks() {
  QelEnvConfig config;
  config.freeLists = false;
  return config;
}

struct AllDiffTest : ::testing::Test {
  QelEnv env{SingleBlocks()};
  void TearDown() override { env.end(); }

  // n integer variables named name(0), name(1), ...
  QelIntVarArray Vars(long n, const char* name) {
    QelIntVarArray xs(env, n, 0, 9);
    xs.setNames(name);
    return xs;
  }
};

HookCall& lastCall = qeltest::lastHookCall;

// Notice hooks also keep what the notice carried.
const QelIntExprI* removedExpr = nullptr;
const QelExtractableI* addedVar = nullptr;

QelInt RemoveVarHook(QelAlgorithm a, const QelAllDiffRemoveVar* n, void* data) {
  qeltest::RecordHookCall(a, n, data);
  removedExpr = n->getExpr();
  return 41;
}

template <class N>
QelInt ColumnHook(QelAlgorithm a, const N* n, void* data) {
  qeltest::RecordHookCall(a, n, data);
  addedVar = n->getChangedExtractable();
  return 42;
}

QelInt BaseColumnHook(QelAlgorithm, const QelAddExtractable*, void*) { return 7; }

// Records the visit of an object's sub-extractables.
struct VisitLog : QelExtractableVisitor {
  using QelExtractableVisitor::visitChildren;
  void beginVisit(QelExtractableI* x) override { log.push_back({"begin", x, nullptr}); }
  void visitChildren(QelExtractableI* p, QelExtractableI* c) override {
    log.push_back({"child", p, c});
  }
  void visitChildren(QelExtractableI* p, QelExtractableArray cs) override {
    log.push_back({"array", p, nullptr});
    arrays.push_back(Elements(cs));
  }
  void endVisit(QelExtractableI* x) override { log.push_back({"end", x, nullptr}); }
  struct Entry {
    std::string kind;
    QelExtractableI* parent;
    QelExtractableI* child;
  };
  std::vector<Entry> log;
  std::vector<std::vector<QelExtractableI*>> arrays;
};

// A recording algorithm given back at the end of the test (its vectors live
// on the heap, which ending the environment would not reach).
using Recorder = std::unique_ptr<RecordingAlgorithmI>;

long CountOf(const std::vector<std::string>& v, const std::string& s) {
  return static_cast<long>(std::count(v.begin(), v.end(), s));
}

}  // namespace

// ---- type identity ---------------------------------------------------------

TEST_F(AllDiffTest, TypeNamesAndBases) {
  QelAllDiff ad(env);
  QelAllMinDistance amd(env, 2);
  EXPECT_STREQ(ad->getRttiTypeName(), "QelAllDiffI");
  EXPECT_STREQ(amd->getRttiTypeName(), "QelAllMinDistanceI");
  EXPECT_EQ(ad->getBaseTypeInfo(), QelConstraintI::GetTypeInfo());
  EXPECT_EQ(amd->getBaseTypeInfo(), QelConstraintI::GetTypeInfo());
  EXPECT_TRUE(ad->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_TRUE(ad->isType(QelAllDiffI::GetTypeInfo()));
  EXPECT_FALSE(ad->isType(QelAllMinDistanceI::GetTypeInfo()));
  EXPECT_FALSE(amd->isType(QelAllDiffI::GetTypeInfo()));
  EXPECT_TRUE(QelExtractable(ad).isConstraint());
  EXPECT_TRUE(ad->isConstraint());

  QelAllDiffRemoveVar removed(nullptr, ad.getImpl());
  EXPECT_STREQ(removed.getRttiTypeName(), "QelAllDiffRemoveVar");
  EXPECT_EQ(removed.getBaseTypeInfo(), QelChange::GetTypeInfo());
  QelAddVarToAllDiff c1 = ad();
  QelAddVarToAllMinDistance c2 = amd();
  EXPECT_STREQ(c1.getRttiTypeName(), "QelAddVarToAllDiff");
  EXPECT_STREQ(c2.getRttiTypeName(), "QelAddVarToAllMinDistance");
  EXPECT_EQ(c1.getBaseTypeInfo(), QelAddNumVar::GetTypeInfo());
  EXPECT_EQ(c2.getBaseTypeInfo(), QelAddNumVar::GetTypeInfo());
  EXPECT_TRUE(c1.isType(QelAddExtractable::GetTypeInfo()));
  EXPECT_FALSE(c1.isType(QelAddVarToAllMinDistance::GetTypeInfo()));
  ad.end();
  amd.end();
}

// ---- construction and locks ------------------------------------------------

TEST_F(AllDiffTest, FromVariablesLocksAConvertedArrayAndReleasesOnEnd) {
  QelIntVarArray x = Vars(3, "x");
  QelAllDiff ad(env, x, "ad");
  ASSERT_NE(ad.getImpl(), nullptr);
  EXPECT_STREQ(ad->getName(), "ad");
  QelIntExprArray held = ad->getExprArray();
  EXPECT_NE(held.getImpl(), x.getImpl());  // a new array holding the same variables
  EXPECT_EQ(Elements(held), Elements(x));
  for (long i = 0; i < 3; ++i) EXPECT_EQ(x[i].getImpl()->getUseCount(), 1);

  QelAllMinDistance amd(env, x, 4, "amd");
  EXPECT_EQ(amd->getK(), 4);
  EXPECT_NE(amd->getExprArray().getImpl(), x.getImpl());
  EXPECT_EQ(Elements(amd->getExprArray()), Elements(x));
  for (long i = 0; i < 3; ++i) EXPECT_EQ(x[i].getImpl()->getUseCount(), 2);

  ad.end();
  amd.end();
  for (long i = 0; i < 3; ++i) EXPECT_EQ(x[i].getImpl()->getUseCount(), 0);
  EXPECT_EQ(x.getSize(), 3);
}

TEST_F(AllDiffTest, FromExpressionsCopiesTheCallersArray) {
  QelIntVarArray v = Vars(3, "v");
  QelIntExprArray exprs(env, 0);
  exprs.add(v[0]);
  exprs.add(v[1]);
  QelAllDiff ad(env, exprs);
  QelAllMinDistance amd(env, exprs, 1);
  EXPECT_NE(ad->getExprArray().getImpl(), exprs.getImpl());
  EXPECT_NE(amd->getExprArray().getImpl(), exprs.getImpl());
  EXPECT_EQ(v[0].getImpl()->getUseCount(), 2);

  // Later additions and removals change only the constraints' copies.
  ad->addExpr(v[2].getImpl());
  amd->addExpr(v[2].getImpl());
  ad->removeExpr(v[0].getImpl());
  amd->removeExpr(v[1].getImpl());
  EXPECT_EQ(Elements(exprs), (std::vector<QelExtractableI*>{v[0].getImpl(), v[1].getImpl()}));
  EXPECT_EQ(Elements(ad->getExprArray()),
            (std::vector<QelExtractableI*>{v[1].getImpl(), v[2].getImpl()}));
  EXPECT_EQ(Elements(amd->getExprArray()),
            (std::vector<QelExtractableI*>{v[0].getImpl(), v[2].getImpl()}));
  ad.end();
  amd.end();
  exprs.end();
}

TEST_F(AllDiffTest, EmptyArrayHandlesThrowAndAllocateNothing) {
  QelIntVar first(env, 0, 1);  // the environment's table exists from here on
  QelInt bytes = BytesInUse(env);
  QelInt live = env.getImpl()->getNumberOfExtractables();
  QelIntVarArray noVars;
  QelIntExprArray noExprs;
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelAllDiff ad(env, noVars); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelAllDiff ad(env, noExprs, "n"); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelAllMinDistance amd(env, noVars, 2); }),
            "Using empty Handle");
  EXPECT_EQ(
      MessageOf<QelEmptyHandleException>([&] { QelAllMinDistance amd(env, noExprs, 2, "n"); }),
      "Using empty Handle");
  EXPECT_EQ(BytesInUse(env), bytes);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live);
}

TEST_F(AllDiffTest, EmptyConstraintsHaveAnArrayOfSizeZero) {
  QelAllDiff ad(env, "ad");
  QelAllMinDistance amd(env, -3, "amd");
  ASSERT_NE(ad->getExprArray().getImpl(), nullptr);
  ASSERT_NE(amd->getExprArray().getImpl(), nullptr);
  EXPECT_EQ(ad->getExprArray().getSize(), 0);
  EXPECT_EQ(amd->getExprArray().getSize(), 0);
  EXPECT_EQ(amd->getK(), -3);
  ad.end();
  amd.end();
}

TEST_F(AllDiffTest, LockCountsAndMemoryReturnAfterTheConstraintsEnd) {
  QelIntVarArray x = Vars(4, "x");
  QelInt bytes = BytesInUse(env);
  QelInt live = env.getImpl()->getNumberOfExtractables();
  {
    // A use-counted expression that only the constraints use is ended by
    // the last release.
    QelIntExprArray exprs(env, 0);
    exprs.add(x[0] + 1);
    exprs.add(x[1]);
    exprs.add(x[1]);
    QelAllDiff a1(env, x);
    QelAllDiff a2(env, exprs, "a2");
    QelAllMinDistance m1(env, x, 2);
    QelAllMinDistance m2(env, exprs, 5, "m2");
    QelAllDiff a3(env);
    QelAllMinDistance m3(env, 1);
    EXPECT_EQ(exprs[0].getImpl()->getUseCount(), 2);
    EXPECT_EQ(x[1].getImpl()->getUseCount(), 6);
    exprs.end();
    a1.end();
    a2.end();
    m1.end();
    m2.end();
    a3.end();
    m3.end();
  }
  for (long i = 0; i < 4; ++i) EXPECT_EQ(x[i].getImpl()->getUseCount(), 0);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live);
  EXPECT_EQ(BytesInUse(env), bytes);
}

// ---- evaluation --------------------------------------------------------------

TEST_F(AllDiffTest, EvalComparesTheValuesAsDoubles) {
  QelIntVarArray x = Vars(3, "x");
  QelAlgorithm alg(env);
  QelAllDiff ad(env, x);
  alg.setValue(x[0], 1);
  alg.setValue(x[1], 2);
  alg.setValue(x[2], 2);
  QelInt bytes = BytesInUse(env);
  EXPECT_EQ(ad->eval(alg), 0.0);
  alg.setValue(x[2], 3);
  EXPECT_EQ(ad->eval(alg), 1.0);
  EXPECT_EQ(BytesInUse(env), bytes);  // the value set went back

  QelAllDiff none(env);
  EXPECT_EQ(none->eval(alg), 1.0);

  // The integer constant 1 and a variable holding 1.0 are one value.
  QelIntExpr one(env, 1);
  QelIntExprArray mixed(env, 0);
  mixed.add(one);
  mixed.add(x[1]);
  QelAllDiff ones(env, mixed);
  alg.setValue(x[1], 1.0);
  EXPECT_EQ(ones->eval(alg), 0.0);
  alg.setValue(x[1], 1.5);
  EXPECT_EQ(ones->eval(alg), 1.0);
  mixed.end();
  ad.end();
  none.end();
  ones.end();
  alg.end();
}

TEST_F(AllDiffTest, EvalAgreesWithAPairwiseCheckOnRandomAssignments) {
  QelIntVarArray v = Vars(4, "v");
  // A pool of expressions: variables, the constant 1, and linear terms. The
  // negation of a variable at 0 evaluates to -0.0, which equals 0.0.
  QelIntExprArray pool(env, 0);
  for (long i = 0; i < 4; ++i) pool.add(v[i]);
  pool.add(QelIntExpr(env, 1));
  pool.add(2 * v[0] - 1);
  pool.add(-v[1]);
  pool.add(v[2] + v[3]);
  QelAllDiff keeper(env, pool);  // keeps the pool's terms alive

  QelAlgorithm alg(env);
  std::mt19937 rng(20240611u);
  std::uniform_int_distribution<int> valueOf(0, 3);
  std::uniform_int_distribution<long> sizeOf(0, 7);
  std::uniform_int_distribution<long> pick(0, pool.getSize() - 1);
  int satisfied = 0;
  int violated = 0;
  for (int round = 0; round < 3000; ++round) {
    for (long i = 0; i < 4; ++i) {
      // Values are given as integers or as doubles.
      int value = valueOf(rng);
      if (rng() % 2 == 0)
        alg.setValue(v[i], value);
      else
        alg.setValue(v[i], static_cast<double>(value));
    }
    long n = sizeOf(rng);
    QelIntExprArray chosen(env, 0);
    std::vector<double> values;
    for (long i = 0; i < n; ++i) {
      QelIntExpr e = pool[pick(rng)];
      chosen.add(e);
      values.push_back(alg.getValue(e));
    }
    bool different = true;
    for (size_t i = 0; i < values.size(); ++i)
      for (size_t j = i + 1; j < values.size(); ++j)
        if (values[i] == values[j]) different = false;
    QelAllDiff ad(env, chosen);
    double result = ad->eval(alg);
    ASSERT_EQ(result, different ? 1.0 : 0.0) << "round " << round;
    (different ? satisfied : violated) += 1;
    ad.end();
    chosen.end();
  }
  // Both outcomes were exercised.
  EXPECT_GT(satisfied, 300);
  EXPECT_GT(violated, 300);
  keeper.end();
  pool.end();
  alg.end();
}

TEST_F(AllDiffTest, AllMinDistanceKeepsTheInheritedEval) {
  QelIntVarArray x = Vars(2, "x");
  QelAllMinDistance amd(env, x, 2);
  QelAlgorithm alg(env);
  alg.setValue(x[0], 1);
  alg.setValue(x[1], 5);
  EXPECT_THROW(amd->eval(alg), QelNotImplemented);
  amd.end();
  alg.end();
}

// ---- removal of an expression ------------------------------------------------

TEST_F(AllDiffTest, RemoveExprSendsOneNoticePerOccurrence) {
  QelIntVar x(env, 0, 9, "x");
  QelIntVar y(env, 0, 9, "y");
  QelIntExprArray exprs(env, 0);
  exprs.add(x);
  exprs.add(y);
  exprs.add(x);
  QelAllDiff ad(env, exprs);
  exprs.end();
  Recorder rec(MakeRecorder(env));
  rec->extract(ad.getImpl());

  ad->removeExpr(x.getImpl());
  EXPECT_EQ(Elements(ad->getExprArray()), std::vector<QelExtractableI*>{y.getImpl()});
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelAllDiffRemoveVar", "QelAllDiffRemoveVar"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{ad.getImpl(), ad.getImpl()}));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>{{"remove", ad.getImpl(), x.getImpl()},
                                                        {"remove", ad.getImpl(), x.getImpl()}}));
  // The locks taken on x are not given back by the removal.
  EXPECT_EQ(x.getImpl()->getUseCount(), 2);

  // On [y], removing x finds nothing and says nothing.
  ad->removeExpr(x.getImpl());
  EXPECT_EQ(Elements(ad->getExprArray()), std::vector<QelExtractableI*>{y.getImpl()});
  EXPECT_EQ(rec->notices.size(), 2u);

  ad.end();
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
  EXPECT_EQ(x.getImpl()->getUseCount(), 2);  // removals never release
}

TEST_F(AllDiffTest, RemovalNoticeCarriesTheExpressionAndTheConstraint) {
  QelIntVar x(env, 0, 9, "x");
  QelAllDiff ad(env);
  QelAllDiffRemoveVar n(x.getImpl(), ad.getImpl());
  EXPECT_EQ(n.getExpr(), x.getImpl());
  EXPECT_EQ(n.getConstraint(), ad.getImpl());
  EXPECT_EQ(n.getChangedExtractable(), ad.getImpl());
  EXPECT_FALSE(n.isApplyingOnArray());
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { n.getChangedExtractableArray(); }),
            "QelChange::getChangedExtractableArray can not be called");
  // The visitor hears of the stored constraint, whatever object is given.
  RecordingVisitor visitor;
  n.visitChange(env.getImpl(), nullptr, &visitor);
  EXPECT_EQ(visitor.calls, (std::vector<VisitCall>{{"remove", ad.getImpl(), x.getImpl()}}));
  ad.end();
}

TEST_F(AllDiffTest, AllMinDistanceRemoveExprIsSilent) {
  QelIntVar x(env, 0, 9, "x");
  QelIntVar y(env, 0, 9, "y");
  QelIntExprArray exprs(env, 0);
  exprs.add(x);
  exprs.add(y);
  exprs.add(x);
  QelAllMinDistance amd(env, exprs, 3);
  exprs.end();
  Recorder rec(MakeRecorder(env));
  rec->extract(amd.getImpl());
  amd->removeExpr(x.getImpl());
  EXPECT_EQ(Elements(amd->getExprArray()), std::vector<QelExtractableI*>{y.getImpl()});
  EXPECT_TRUE(rec->notices.empty());
  EXPECT_TRUE(rec->visitor.calls.empty());
  EXPECT_EQ(x.getImpl()->getUseCount(), 2);
  amd.end();
}

TEST_F(AllDiffTest, AddExprTakesNoLockButTheDestructorReleases) {
  QelIntVar x(env, 0, 9, "x");
  QelIntVar y(env, 0, 9, "y");
  QelAllDiff ad(env);
  QelAllMinDistance amd(env, 2);
  Recorder rec(MakeRecorder(env));
  rec->extract(ad.getImpl());
  rec->extract(amd.getImpl());
  ad->addExpr(x.getImpl());
  amd->addExpr(y.getImpl());
  EXPECT_EQ(Elements(ad->getExprArray()), std::vector<QelExtractableI*>{x.getImpl()});
  EXPECT_EQ(Elements(amd->getExprArray()), std::vector<QelExtractableI*>{y.getImpl()});
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
  EXPECT_TRUE(rec->notices.empty());
  // The kept asymmetry: what was added unlocked is released all the same.
  ad.end();
  amd.end();
  EXPECT_EQ(x.getImpl()->getUseCount(), -1);
  EXPECT_EQ(y.getImpl()->getUseCount(), -1);
}

// ---- removal of ended members --------------------------------------------------

TEST_F(AllDiffTest, EndedVariableLeavesTheAllDiffInOneSweep) {
  for (int oneByOne = 0; oneByOne <= 1; ++oneByOne) {
    SCOPED_TRACE(oneByOne);
    env.getImpl()->setOneByOne(oneByOne);
    QelIntVar x(env, 0, 9, "x");
    QelIntVar y(env, 0, 9, "y");
    QelIntExprArray exprs(env, 0);
    exprs.add(x);
    exprs.add(y);
    exprs.add(x);
    QelAllDiff ad(env, exprs);
    exprs.end();
    Recorder rec(MakeRecorder(env));
    rec->extract(ad.getImpl());
    QelInt id = ad->getId();

    x.end();
    ASSERT_EQ(env.getImpl()->getExtractable(id), ad.getImpl());  // still alive
    EXPECT_EQ(Elements(ad->getExprArray()), std::vector<QelExtractableI*>{y.getImpl()});
    EXPECT_EQ(CountOf(rec->notices, "QelAllDiffRemoveVar"), 0);
    EXPECT_TRUE(rec->visitor.calls.empty());
    EXPECT_EQ(y.getImpl()->getUseCount(), 1);
    ad.end();
    EXPECT_EQ(y.getImpl()->getUseCount(), 0);
    y.end();
  }
}

TEST_F(AllDiffTest, EndedVariableLeavesTheAllMinDistanceInTheSweepMode) {
  QelIntVar x(env, 0, 9, "x");
  QelIntVar y(env, 0, 9, "y");
  QelIntExprArray exprs(env, 0);
  exprs.add(x);
  exprs.add(y);
  QelAllMinDistance amd(env, exprs, 2);
  exprs.end();
  Recorder rec(MakeRecorder(env));
  rec->extract(amd.getImpl());
  QelInt id = amd->getId();
  x.end();
  ASSERT_EQ(env.getImpl()->getExtractable(id), amd.getImpl());
  EXPECT_EQ(Elements(amd->getExprArray()), std::vector<QelExtractableI*>{y.getImpl()});
  EXPECT_TRUE(rec->visitor.calls.empty());
  EXPECT_EQ(y.getImpl()->getUseCount(), 1);
  amd.end();
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
}

TEST_F(AllDiffTest, EndedVariableEndsTheAllMinDistanceOneByOne) {
  env.getImpl()->setOneByOne(1);
  QelIntVar x(env, 0, 9, "x");
  QelIntVar y(env, 0, 9, "y");
  QelIntExprArray exprs(env, 0);
  exprs.add(x);
  exprs.add(y);
  QelAllMinDistance amd(env, exprs, 2);
  exprs.end();
  QelInt id = amd->getId();
  QelInt live = env.getImpl()->getNumberOfExtractables();
  x.end();
  EXPECT_EQ(env.getImpl()->getExtractable(id), nullptr);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live - 2);
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);  // the ended constraint released y
}

// ---- column-wise addition ---------------------------------------------------------

TEST_F(AllDiffTest, ColumnObjectsStartEmptyAndPointAtTheConstraint) {
  QelAllDiff ad(env, "ad");
  QelAllMinDistance amd(env, 2, "amd");
  QelAddVarToAllDiff c1 = ad();
  QelAddVarToAllMinDistance c2 = amd();
  EXPECT_EQ(c1.getObj(), nullptr);
  EXPECT_EQ(c1.getNext(), nullptr);
  EXPECT_EQ(c1.getChangedExtractable(), nullptr);
  EXPECT_EQ(c1.getConstraint(), ad.getImpl());
  EXPECT_EQ(c1.what(), ad.getImpl());
  EXPECT_EQ(c1.getEnv(), env.getImpl());
  EXPECT_EQ(c2.getObj(), nullptr);
  EXPECT_EQ(c2.getNext(), nullptr);
  EXPECT_EQ(c2.getConstraint(), amd.getImpl());
  EXPECT_EQ(c2.what(), amd.getImpl());
  EXPECT_EQ(c2.getEnv(), env.getImpl());
  EXPECT_FALSE(c1.isApplyingOnArray());
  ad.end();
  amd.end();
}

TEST_F(AllDiffTest, VisitingAColumnObjectIsNotImplemented) {
  QelAllDiff ad(env);
  QelAllMinDistance amd(env, 2);
  RecordingVisitor visitor;
  QelAddVarToAllDiff c1 = ad();
  QelAddVarToAllMinDistance c2 = amd();
  EXPECT_EQ(
      MessageOf<QelNotImplemented>([&] { c1.visitChange(env.getImpl(), ad.getImpl(), &visitor); }),
      "Column Wise with QelDeleter not implemented");
  EXPECT_EQ(
      MessageOf<QelNotImplemented>([&] { c2.visitChange(env.getImpl(), amd.getImpl(), &visitor); }),
      "Column Wise with QelDeleter not implemented");
  EXPECT_TRUE(visitor.calls.empty());
  ad.end();
  amd.end();
}

TEST_F(AllDiffTest, GetCopyHasNoVariableAndTheSameConstraint) {
  QelIntVar x(env, 0, 9, "x");
  QelAllDiff ad(env);
  QelAllMinDistance amd(env, 2);
  QelAddVarToAllDiff c1 = ad();
  QelAddVarToAllMinDistance c2 = amd();
  c1.setObj(x.getImpl());
  c2.setObj(x.getImpl());
  c1.setNext(&c2);
  QelInt bytes = BytesInUse(env);

  QelAddExtractable* copy1 = c1.getCopy(env.getImpl());
  QelAddExtractable* copy2 = c2.getCopy(env.getImpl());
  EXPECT_GT(BytesInUse(env), bytes);  // in environment memory
  ASSERT_TRUE(copy1->isType(QelAddVarToAllDiff::GetTypeInfo()));
  ASSERT_TRUE(copy2->isType(QelAddVarToAllMinDistance::GetTypeInfo()));
  EXPECT_EQ(copy1->getObj(), nullptr);
  EXPECT_EQ(copy1->getNext(), nullptr);
  EXPECT_EQ(copy1->what(), ad.getImpl());
  EXPECT_EQ(static_cast<QelAddVarToAllDiff*>(copy1)->getConstraint(), ad.getImpl());
  EXPECT_EQ(copy2->getObj(), nullptr);
  EXPECT_EQ(static_cast<QelAddVarToAllMinDistance*>(copy2)->getConstraint(), amd.getImpl());
  // Both ways of disposing give the memory back.
  static_cast<QelAddVarToAllDiff*>(copy1)->destroy();
  copy2->destroy(env.getImpl());
  EXPECT_EQ(BytesInUse(env), bytes);
  c1.setNext(nullptr);
  ad.end();
  amd.end();
}

TEST_F(AllDiffTest, InstallWithoutListenersAppendsTheVariableUnlocked) {
  QelIntVar y(env, 0, 9, "y");
  QelIntVarArray one(env, 0);
  one.add(y);
  QelAllDiff ad(env, one, "ad");
  QelAllMinDistance amd(env, one, 3, "amd");
  one.end();
  QelIntVar x(env, 0, 9, "x");

  // A chain of two places: the constraint of the head, then a copy for the
  // other constraint living in environment memory.
  QelAddVarToAllDiff head = ad();
  QelAddExtractable* second = amd().getCopy(env.getImpl());
  head.setNext(second);
  head.install(x.getImpl());
  EXPECT_EQ(head.getNext(), nullptr);
  EXPECT_EQ(head.getObj(), x.getImpl());
  EXPECT_EQ(second->getObj(), x.getImpl());
  EXPECT_EQ(Elements(ad->getExprArray()),
            (std::vector<QelExtractableI*>{y.getImpl(), x.getImpl()}));
  EXPECT_EQ(Elements(amd->getExprArray()),
            (std::vector<QelExtractableI*>{y.getImpl(), x.getImpl()}));
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  second->destroy(env.getImpl());

  EXPECT_THROW(ad().install(nullptr), QelAddExtractable::CannotAddExtractableException);
  ad.end();
  amd.end();
}

TEST_F(AllDiffTest, InstallReachesVisitorListenersAsNotImplemented) {
  QelAllDiff ad(env, "ad");
  QelAllMinDistance amd(env, 2, "amd");
  Recorder rec(MakeRecorder(env));
  rec->extract(ad.getImpl());
  rec->extract(amd.getImpl());
  QelIntVar x(env, 0, 9, "x");
  // The variable is added first, then the notice reaches the listener,
  // whose visit of it fails.
  EXPECT_EQ(MessageOf<QelNotImplemented>([&] { ad().install(x.getImpl()); }),
            "Column Wise with QelDeleter not implemented");
  EXPECT_EQ(MessageOf<QelNotImplemented>([&] { amd().install(x.getImpl()); }),
            "Column Wise with QelDeleter not implemented");
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelAddVarToAllDiff", "QelAddVarToAllMinDistance"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{ad.getImpl(), amd.getImpl()}));
  EXPECT_TRUE(rec->visitor.calls.empty());
  EXPECT_EQ(Elements(ad->getExprArray()), std::vector<QelExtractableI*>{x.getImpl()});
  EXPECT_EQ(Elements(amd->getExprArray()), std::vector<QelExtractableI*>{x.getImpl()});
  ad.end();
  amd.end();
}

TEST_F(AllDiffTest, InstallReachesTheEngineThroughTheColumnHooks) {
  QelAllDiff ad(env, "ad");
  QelAllMinDistance amd(env, 2, "amd");
  Recorder rec(MakeRecorder(env));
  rec->extract(ad.getImpl());
  rec->extract(amd.getImpl());
  int data = 0;
  rec->useHooks(&data);
  QelIntVar x(env, 0, 9, "x");
  {
    SlotGuard<decltype(QelAddVarToAllDiff::_applyCP)> g1(QelAddVarToAllDiff::_applyCP,
                                                         &ColumnHook<QelAddVarToAllDiff>);
    SlotGuard<decltype(QelAddVarToAllMinDistance::_applyCP)> g2(
        QelAddVarToAllMinDistance::_applyCP, &ColumnHook<QelAddVarToAllMinDistance>);
    lastCall = HookCall();
    QelAddVarToAllDiff c1 = ad();
    c1.install(x.getImpl());
    EXPECT_EQ(lastCall.calls, 1);
    EXPECT_EQ(lastCall.algorithm, rec.get());
    EXPECT_EQ(lastCall.object, &c1);
    EXPECT_EQ(lastCall.data, &data);
    EXPECT_EQ(addedVar, x.getImpl());
    QelAddVarToAllMinDistance c2 = amd();
    c2.install(x.getImpl());
    EXPECT_EQ(lastCall.calls, 2);
    EXPECT_EQ(lastCall.object, &c2);
    // Direct call: the hook's result comes back unchanged.
    EXPECT_EQ(c2.applyToCP(QelAlgorithm(rec.get()), &data), 42);
  }
  EXPECT_EQ(Elements(ad->getExprArray()), std::vector<QelExtractableI*>{x.getImpl()});
  EXPECT_EQ(Elements(amd->getExprArray()), std::vector<QelExtractableI*>{x.getImpl()});
  rec->setListenMode(QelListenMode::None);
  ad.end();
  amd.end();
}

// ---- cloning and visiting --------------------------------------------------------

TEST_F(AllDiffTest, CloneHoldsTheClonesOfTheExpressionsLocked) {
  QelIntVar x(env, 0, 9, "x");
  QelIntVar y(env, 0, 9, "y");
  QelIntExprArray exprs(env, 0);
  exprs.add(x);
  exprs.add(y);
  exprs.add(x);
  QelAllDiff ad(env, exprs, "ad");
  QelAllMinDistance amd(env, exprs, 7, "amd");
  exprs.end();

  QelEnv other{SingleBlocks()};
  auto* adc = static_cast<QelAllDiffI*>(other.getImpl()->getClone(ad.getImpl()));
  ASSERT_TRUE(adc->isType(QelAllDiffI::GetTypeInfo()));
  EXPECT_NE(adc, ad.getImpl());
  EXPECT_EQ(adc->getEnv(), other.getImpl());
  EXPECT_EQ(adc->getName(), nullptr);
  std::vector<QelExtractableI*> ce = Elements(adc->getExprArray());
  ASSERT_EQ(ce.size(), 3u);
  EXPECT_EQ(ce[0], ce[2]);  // one clone per expression
  EXPECT_NE(ce[0], x.getImpl());
  EXPECT_EQ(ce[0]->getEnv(), other.getImpl());
  EXPECT_EQ(ce[1]->getEnv(), other.getImpl());
  EXPECT_EQ(static_cast<QelIntExprI*>(ce[0])->getUseCount(), 2);
  EXPECT_EQ(static_cast<QelIntExprI*>(ce[1])->getUseCount(), 1);

  auto* amdc = static_cast<QelAllMinDistanceI*>(other.getImpl()->getClone(amd.getImpl()));
  ASSERT_TRUE(amdc->isType(QelAllMinDistanceI::GetTypeInfo()));
  EXPECT_EQ(amdc->getK(), 7);
  EXPECT_EQ(amdc->getName(), nullptr);
  EXPECT_EQ(amdc->getExprArray().getSize(), 3);

  // The source is untouched.
  EXPECT_EQ(Elements(ad->getExprArray()),
            (std::vector<QelExtractableI*>{x.getImpl(), y.getImpl(), x.getImpl()}));
  EXPECT_EQ(x.getImpl()->getUseCount(), 4);
  adc->end();
  amdc->end();
  other.end();
  ad.end();
  amd.end();
}

TEST_F(AllDiffTest, VisitPresentsTheExpressionArray) {
  QelIntVarArray x = Vars(2, "x");
  QelAllDiff ad(env, x);
  QelAllMinDistance amd(env, x, 1);
  for (QelExtractableI* c : {static_cast<QelExtractableI*>(ad.getImpl()),
                             static_cast<QelExtractableI*>(amd.getImpl())}) {
    VisitLog v;
    c->visitSubExtractables(&v);
    ASSERT_EQ(v.log.size(), 3u);
    EXPECT_EQ(v.log[0].kind, "begin");
    EXPECT_EQ(v.log[0].parent, c);
    EXPECT_EQ(v.log[1].kind, "array");
    EXPECT_EQ(v.log[1].parent, c);
    EXPECT_EQ(v.log[2].kind, "end");
    EXPECT_EQ(v.log[2].parent, c);
    EXPECT_EQ(v.arrays, (std::vector<std::vector<QelExtractableI*>>{Elements(x)}));
  }
  ad.end();
  amd.end();
}

// ---- printing ------------------------------------------------------------------

TEST_F(AllDiffTest, DisplayOfAllDiff) {
  QelIntVarArray x = Vars(3, "x");
  QelAllDiff ad(env, x, "ad");
  EXPECT_EQ(Display(ad.getImpl()), "QelAllDiffI (ad)\n  _exprArray [x(0), x(1), x(2)]\n");
  EXPECT_EQ(Print(ad), Display(ad.getImpl()));

  QelAllDiff unnamed(env);
  std::ostringstream expected;
  expected << "QelAllDiffI (" << unnamed->getId() << ")\n  _exprArray []\n";
  EXPECT_EQ(Display(unnamed.getImpl()), expected.str());
  ad.end();
  unnamed.end();
}

TEST_F(AllDiffTest, DisplayOfAllMinDistanceEndsWithK) {
  QelIntVarArray x = Vars(2, "x");
  QelAllMinDistance amd(env, x, 3, "amd");
  EXPECT_EQ(Display(amd.getImpl()), "QelAllMinDistanceI (amd)\n  _exprArray [x(0), x(1)]\n  k 3\n");
  QelAllMinDistance negative(env, -12);
  std::ostringstream expected;
  expected << "QelAllMinDistanceI (" << negative->getId() << ")\n  _exprArray []\n  k -12\n";
  EXPECT_EQ(Display(negative.getImpl()), expected.str());
  amd.end();
  negative.end();
}

TEST_F(AllDiffTest, DisplayBreaksTheLineAfterEveryTenthElement) {
  QelIntVarArray x = Vars(12, "v");
  QelAllDiff ad(env, x, "big");
  EXPECT_EQ(Display(ad.getImpl()),
            "QelAllDiffI (big)\n"
            "  _exprArray [v(0), v(1), v(2), v(3), v(4), v(5), v(6), v(7), v(8), v(9),\n"
            "v(10), v(11)]\n");
  ad.end();
}

// ---- engine hooks ----------------------------------------------------------------

TEST_F(AllDiffTest, EmptyHooksFail) {
  QelIntVar x(env, 0, 9, "x");
  QelAllDiff ad(env);
  QelAllMinDistance amd(env, 1);
  QelAlgorithm alg(env);
  EXPECT_THROW(ad->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(ad->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(ad->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(amd->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(amd->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(amd->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_EQ(MessageOf<QelAlgorithm::ExtractFailure>([&] { ad->extractToCP(alg); }), "<null>");

  QelAllDiffRemoveVar removed(x.getImpl(), ad.getImpl());
  QelAddVarToAllDiff c1 = ad();
  QelAddVarToAllMinDistance c2 = amd();
  const QelChange* notices[] = {&removed, &c1, &c2};
  for (const QelChange* n : notices) {
    try {
      n->applyToCP(alg, nullptr);
      ADD_FAILURE() << n->getRttiTypeName() << " did not throw";
    } catch (const QelAlgorithm::CannotChangeException& e) {
      EXPECT_EQ(e.getAlgorithm(), alg.getImpl());
    }
  }
  // The slot of the base class does not serve the column objects.
  SlotGuard<decltype(QelAddExtractable::_applyCP)> g(QelAddExtractable::_applyCP, &BaseColumnHook);
  EXPECT_THROW(c1.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  EXPECT_THROW(c2.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  ad.end();
  amd.end();
  alg.end();
}

TEST_F(AllDiffTest, FilledHooksReceiveTheAlgorithmTheObjectAndTheData) {
  QelAllDiff ad(env);
  QelAllMinDistance amd(env, 1);
  QelAlgorithm alg(env);
  int data = 0;
  {
    SlotGuard<decltype(QelAllDiffI::_extractCP)> g1(QelAllDiffI::_extractCP,
                                                    &qeltest::RecordExtractHook<QelAllDiffI>);
    SlotGuard<decltype(QelAllDiffI::_modifyCP)> g2(QelAllDiffI::_modifyCP,
                                                   &qeltest::RecordDataHook<QelAllDiffI>);
    SlotGuard<decltype(QelAllDiffI::_unextractCP)> g3(QelAllDiffI::_unextractCP,
                                                      &qeltest::RecordDataHook<QelAllDiffI>);
    SlotGuard<decltype(QelAllMinDistanceI::_extractCP)> g4(
        QelAllMinDistanceI::_extractCP, &qeltest::RecordExtractHook<QelAllMinDistanceI>);
    SlotGuard<decltype(QelAllMinDistanceI::_modifyCP)> g5(
        QelAllMinDistanceI::_modifyCP, &qeltest::RecordDataHook<QelAllMinDistanceI>);
    SlotGuard<decltype(QelAllMinDistanceI::_unextractCP)> g6(
        QelAllMinDistanceI::_unextractCP, &qeltest::RecordDataHook<QelAllMinDistanceI>);

    lastCall = HookCall();
    EXPECT_EQ(ad->extractToCP(alg), &hookToken);
    EXPECT_EQ(lastCall.algorithm, alg.getImpl());
    EXPECT_EQ(lastCall.object, ad.getImpl());
    EXPECT_EQ(ad->modifyCP(alg, &data), &hookToken);
    EXPECT_EQ(lastCall.data, &data);
    EXPECT_EQ(ad->unextractFromCP(alg, &data), &hookToken);
    EXPECT_EQ(lastCall.calls, 3);
    EXPECT_EQ(amd->extractToCP(alg), &hookToken);
    EXPECT_EQ(lastCall.object, amd.getImpl());
    EXPECT_EQ(amd->modifyCP(alg, &data), &hookToken);
    EXPECT_EQ(amd->unextractFromCP(alg, nullptr), &hookToken);
    EXPECT_EQ(lastCall.data, nullptr);
    EXPECT_EQ(lastCall.calls, 6);
    // The all-different slot does not serve the other class, nor the reverse.
  }
  EXPECT_THROW(ad->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(amd->extractToCP(alg), QelAlgorithm::ExtractFailure);
  ad.end();
  amd.end();
  alg.end();
}

TEST_F(AllDiffTest, RemovalNoticeReachesTheEngineHook) {
  QelIntVar x(env, 0, 9, "x");
  QelIntVarArray xs(env, 0);
  xs.add(x);
  QelAllDiff ad(env, xs);
  xs.end();
  Recorder rec(MakeRecorder(env));
  rec->extract(ad.getImpl());
  int data = 0;
  rec->useHooks(&data);
  {
    SlotGuard<decltype(QelAllDiffRemoveVar::_applyCP)> g(QelAllDiffRemoveVar::_applyCP,
                                                         &RemoveVarHook);
    lastCall = HookCall();
    removedExpr = nullptr;
    ad->removeExpr(x.getImpl());
    EXPECT_EQ(lastCall.calls, 1);
    EXPECT_EQ(lastCall.algorithm, rec.get());
    EXPECT_EQ(lastCall.data, &data);
    EXPECT_EQ(removedExpr, x.getImpl());
    QelAllDiffRemoveVar n(x.getImpl(), ad.getImpl());
    EXPECT_EQ(n.applyToCP(QelAlgorithm(rec.get()), &data), 41);
    EXPECT_EQ(lastCall.object, &n);
  }
  EXPECT_EQ(rec->notices, std::vector<std::string>{"QelAllDiffRemoveVar"});
  // With the slot empty again, the broadcast fails in the listener.
  QelIntVar y(env, 0, 9, "y");
  ad->addExpr(y.getImpl());
  EXPECT_THROW(ad->removeExpr(y.getImpl()), QelAlgorithm::CannotChangeException);
  EXPECT_EQ(ad->getExprArray().getSize(), 0);  // removed before the notice
  rec->setListenMode(QelListenMode::None);
  ad.end();
}

// The pack constraint: the handle's checks and copies, the six forms, the
// locks taken and given back, cloning with shared Boolean arrays, visiting,
// printing and the engine hooks.
#include <sstream>
#include <string>
#include <vector>

#include "support/qeltest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

// Environments of these tests obtain every block singly, so that memory
// checkers see each one.
QelEnvConfig SingleBlocks() {
  QelEnvConfig config;
  config.freeLists = false;
  return config;
}

struct PackTest : ::testing::Test {
  QelEnv env{SingleBlocks()};
  QelIntVarArray load;
  QelIntVarArray where;
  QelIntArray weight;

  void SetUp() override {
    load = QelIntVarArray(env, 2, 0, 20);
    load.setNames("load");
    where = QelIntVarArray(env, 3, 0, 1);
    where.setNames("where");
    weight = QelIntArray(env, 3);
    weight.set(0, 4);
    weight.set(1, -3);
    weight.set(2, 5);
  }
  void TearDown() override { env.end(); }

  std::vector<QelInt> Weights(const QelIntArray& w) {
    std::vector<QelInt> out;
    for (long i = 0; i < w.getSize(); ++i) out.push_back(w[i]);
    return out;
  }
  QelInt Uses(const QelIntExprArray& xs) {
    QelInt n = 0;
    for (long i = 0; i < xs.getSize(); ++i) n += xs[i].getImpl()->getUseCount();
    return n;
  }
};

HookCall& lastCall = qeltest::lastHookCall;

struct VisitLog : QelExtractableVisitor {
  using QelExtractableVisitor::visitChildren;
  void beginVisit(QelExtractableI*) override { log.push_back("begin"); }
  void visitChildren(QelExtractableI*, QelExtractableI* c) override {
    log.push_back("child");
    children.push_back(c);
  }
  void visitChildren(QelExtractableI*, QelExtractableArray cs) override {
    log.push_back("array");
    arrays.push_back(Elements(cs));
  }
  void endVisit(QelExtractableI*) override { log.push_back("end"); }
  std::vector<std::string> log;
  std::vector<QelExtractableI*> children;
  std::vector<std::vector<QelExtractableI*>> arrays;
};

}  // namespace

// ---- the handle's checks --------------------------------------------------------

TEST_F(PackTest, EmptyArrayHandlesAreRefusedAndNothingIsAllocated) {
  QelInt bytes = BytesInUse(env);
  QelInt live = env.getImpl()->getNumberOfExtractables();
  QelIntExprArray none;
  QelIntArray noWeight;
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelPack p(env, load, where, noWeight); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelPack p(env, load, none, weight); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelPack p(env, none, where, weight); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelPack p(env, none, where); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelPack p(env, none, where, 2); }),
            "Using empty Handle");
  // The emptiness of load is found before the sizes are compared.
  QelIntArray shortWeight(env, 2);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelPack p(env, none, where, shortWeight); }),
            "Using empty Handle");
  shortWeight.end();
  EXPECT_EQ(BytesInUse(env), bytes);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live);
}

TEST_F(PackTest, InitLeavesTheHandleEmptyOnFailure) {
  QelPack p;
  QelIntExprArray none;
  EXPECT_THROW(
      p.init(env, none, where, weight, QelIntExpr(), QelIntSetVar(), QelArray<QelBoolArray>(), "p"),
      QelEmptyHandleException);
  EXPECT_EQ(p.getImpl(), nullptr);
  QelIntArray two(env, 2);
  EXPECT_THROW(
      p.init(env, load, where, two, QelIntExpr(), QelIntSetVar(), QelArray<QelBoolArray>(), "p"),
      QelPack::QelDifferentSizeException);
  EXPECT_EQ(p.getImpl(), nullptr);
  two.end();
  p.init(env, load, where, weight, QelIntExpr(), QelIntSetVar(), QelArray<QelBoolArray>(), "p");
  ASSERT_NE(p.getImpl(), nullptr);
  EXPECT_STREQ(p->getName(), "p");
  p.end();
}

TEST_F(PackTest, WhereAndWeightOfDifferentSizesAreRefused) {
  QelInt bytes = BytesInUse(env);
  QelIntArray two(env, 2);
  QelInt withTwo = BytesInUse(env);
  EXPECT_EQ(
      MessageOf<QelPack::QelDifferentSizeException>([&] { QelPack p(env, load, where, two, "p"); }),
      "QelPack: Where and weight arrays have different size");
  try {
    QelPack p(env, load, where, two);
    ADD_FAILURE() << "no exception";
  } catch (const QelException& e) {
    // A QelException like the others, with code 0.
    EXPECT_EQ(e.getCode(), 0);
    std::ostringstream os;
    e.print(os);
    EXPECT_EQ(os.str(), "QelPack: Where and weight arrays have different size");
  }
  EXPECT_EQ(BytesInUse(env), withTwo);
  two.end();
  EXPECT_EQ(BytesInUse(env), bytes);

  // Both of size 0 are fine.
  QelIntExprArray noItems(env, 0);
  QelIntArray noWeights(env, 0);
  QelPack empty(env, load, noItems, noWeights);
  ASSERT_NE(empty.getImpl(), nullptr);
  EXPECT_EQ(empty->getWhere().getSize(), 0);
  EXPECT_EQ(empty->getWeight().getSize(), 0);
  empty.end();
  noItems.end();
  noWeights.end();
}

TEST_F(PackTest, LoadOfAnySizeIsAccepted) {
  QelIntExprArray noContainers(env, 0);
  QelPack p0(env, noContainers, where, weight);
  EXPECT_EQ(p0->getLoad().getSize(), 0);
  QelIntVarArray many(env, 7, 0, 9);
  QelPack p7(env, many, where, weight);
  EXPECT_EQ(p7->getLoad().getSize(), 7);
  p0.end();
  p7.end();
  noContainers.end();
}

// ---- the forms ---------------------------------------------------------------------

TEST_F(PackTest, TheHandleCopiesTheThreeArrays) {
  QelPack p(env, load, where, weight, "p");
  EXPECT_NE(p->getLoad().getImpl(), load.getImpl());
  EXPECT_NE(p->getWhere().getImpl(), where.getImpl());
  EXPECT_NE(p->getWeight().getImpl(), weight.getImpl());
  EXPECT_EQ(Elements(p->getLoad()), Elements(load));
  EXPECT_EQ(Elements(p->getWhere()), Elements(where));
  EXPECT_EQ(Weights(p->getWeight()), (std::vector<QelInt>{4, -3, 5}));
  // The caller's arrays stay the caller's.
  weight.set(0, 100);
  EXPECT_EQ(Weights(p->getWeight()), (std::vector<QelInt>{4, -3, 5}));
  EXPECT_EQ(p->getUsed(), nullptr);
  EXPECT_EQ(p->getUsedSet(), nullptr);
  EXPECT_EQ(p->getBoolArrays().getImpl(), nullptr);
  p.end();
}

TEST_F(PackTest, WithoutWeightsEveryItemHasSizeOneOrW) {
  QelInt bytes = BytesInUse(env);
  QelPack ones(env, load, where, "ones");
  QelPack sevens(env, load, where, 7, "sevens");
  QelPack negative(env, load, where, QelInt(-2));
  EXPECT_EQ(Weights(ones->getWeight()), (std::vector<QelInt>{1, 1, 1}));
  EXPECT_EQ(Weights(sevens->getWeight()), (std::vector<QelInt>{7, 7, 7}));
  EXPECT_EQ(Weights(negative->getWeight()), (std::vector<QelInt>{-2, -2, -2}));
  EXPECT_STREQ(ones->getName(), "ones");
  ones.end();
  sevens.end();
  negative.end();
  EXPECT_EQ(BytesInUse(env), bytes);  // the generated weights went back too
}

TEST_F(PackTest, EachFormStoresItsPieces) {
  QelIntVar used(env, 0, 2, "used");
  QelIntArray possible(env, 2);
  possible.set(0, 0);
  possible.set(1, 1);
  QelIntSetVar usedSet(env, possible, "S");
  possible.end();
  QelArray<QelBoolArray> bools(env, 1);
  QelBoolArray inner(env, 2);
  bools.set(0, inner);

  QelPack withSet(env, load, where, weight, usedSet);
  EXPECT_EQ(withSet->getUsed(), nullptr);
  EXPECT_EQ(withSet->getUsedSet(), usedSet.getImpl());
  EXPECT_EQ(withSet->getBoolArrays().getImpl(), nullptr);

  QelPack withUsedAndBools(env, load, where, weight, used, bools, "ub");
  EXPECT_EQ(withUsedAndBools->getUsed(), used.getImpl());
  EXPECT_EQ(withUsedAndBools->getUsedSet(), nullptr);
  EXPECT_EQ(withUsedAndBools->getBoolArrays().getImpl(), bools.getImpl());
  EXPECT_STREQ(withUsedAndBools->getName(), "ub");

  QelPack withUsed(env, load, where, weight, used);
  EXPECT_EQ(withUsed->getUsed(), used.getImpl());
  EXPECT_EQ(withUsed->getUsedSet(), nullptr);
  EXPECT_EQ(withUsed->getBoolArrays().getImpl(), nullptr);

  // The implementation forms, directly.
  QelEnvI* e = env.getImpl();
  auto copy = [&](const QelArrayBase& a) {
    return QelArrayI::MakeCopy(e->getGeneralAllocator(), a.getImpl());
  };
  auto* full =
      QelNewObject<QelPackI>(e, e, QelIntExprArray(QelExtractableArray(copy(load))),
                             QelIntExprArray(QelExtractableArray(copy(where))),
                             QelIntArray(copy(weight)), QelIntExpr(used), usedSet, bools, "full");
  EXPECT_EQ(full->getUsed(), used.getImpl());
  EXPECT_EQ(full->getUsedSet(), usedSet.getImpl());
  EXPECT_EQ(full->getBoolArrays().getImpl(), bools.getImpl());
  auto* both = QelNewObject<QelPackI>(e, e, QelIntExprArray(QelExtractableArray(copy(load))),
                                      QelIntExprArray(QelExtractableArray(copy(where))),
                                      QelIntArray(copy(weight)), QelIntExpr(used), usedSet, "both");
  EXPECT_EQ(both->getUsed(), used.getImpl());
  EXPECT_EQ(both->getUsedSet(), usedSet.getImpl());
  EXPECT_EQ(both->getBoolArrays().getImpl(), nullptr);
  // The forms with both optional test each for null.
  auto* neither = QelNewObject<QelPackI>(e, e, QelIntExprArray(QelExtractableArray(copy(load))),
                                         QelIntExprArray(QelExtractableArray(copy(where))),
                                         QelIntArray(copy(weight)), QelIntExpr(), QelIntSetVar(),
                                         QelArray<QelBoolArray>(), "neither");
  EXPECT_EQ(neither->getUsed(), nullptr);
  EXPECT_EQ(neither->getUsedSet(), nullptr);
  auto* plain = QelNewObject<QelPackI>(e, e, QelIntExprArray(QelExtractableArray(copy(load))),
                                       QelIntExprArray(QelExtractableArray(copy(where))),
                                       QelIntArray(copy(weight)), "plain");
  EXPECT_EQ(plain->getUsed(), nullptr);
  EXPECT_EQ(plain->getUsedSet(), nullptr);
  EXPECT_STREQ(plain->getName(), "plain");

  EXPECT_EQ(used.getImpl()->getUseCount(), 4);
  EXPECT_EQ(usedSet->getCardVar()->getUseCount(), 1 + 3);  // the set's own use + 3
  full->end();
  both->end();
  neither->end();
  plain->end();
  withSet.end();
  withUsedAndBools.end();
  withUsed.end();
  EXPECT_EQ(used.getImpl()->getUseCount(), 0);
  EXPECT_EQ(usedSet->getCardVar()->getUseCount(), 1);
  inner.end();
  bools.end();
}

// ---- locks and memory -----------------------------------------------------------

TEST_F(PackTest, LocksAreGivenBackAndMemoryReturns) {
  QelIntVar used(env, 0, 2, "used");
  QelIntArray possible(env, 2);
  QelIntSetVar usedSet(env, possible, "S");
  possible.end();
  QelNumVarI* card = usedSet->getCardVar();
  QelInt cardUses = card->getUseCount();
  QelInt bytes = BytesInUse(env);
  QelInt live = env.getImpl()->getNumberOfExtractables();
  {
    // A load given as a use-counted expression is ended by the last release.
    QelIntExprArray loads(env, 0);
    loads.add(load[0] + load[1]);
    loads.add(load[1]);
    QelPack p1(env, loads, where, weight, usedSet, "p1");
    QelPack p2(env, loads, where, weight, used, "p2");
    QelPack p3(env, load, where, 3);
    EXPECT_EQ(loads[0].getImpl()->getUseCount(), 2);
    EXPECT_EQ(Uses(where), 9);
    EXPECT_EQ(used.getImpl()->getUseCount(), 1);
    EXPECT_EQ(card->getUseCount(), cardUses + 1);
    loads.end();
    p1.end();
    p2.end();
    p3.end();
  }
  EXPECT_EQ(Uses(where), 0);
  EXPECT_EQ(Uses(load), 0);
  EXPECT_EQ(used.getImpl()->getUseCount(), 0);
  EXPECT_EQ(card->getUseCount(), cardUses);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live);
  EXPECT_EQ(BytesInUse(env), bytes);
}

TEST_F(PackTest, EndedWhereVariableEndsThePack) {
  QelPack p(env, load, where, weight);
  QelInt id = p->getId();
  where[1].end();
  EXPECT_EQ(env.getImpl()->getExtractable(id), nullptr);
  EXPECT_EQ(where[0].getImpl()->getUseCount(), 0);
  EXPECT_EQ(load[0].getImpl()->getUseCount(), 0);
}

// ---- cloning --------------------------------------------------------------------

TEST_F(PackTest, CloneSharesTheBooleanArraysButNotTheWeights) {
  QelIntVar used(env, 0, 2, "used");
  QelArray<QelBoolArray> bools(env, 1);
  QelBoolArray inner(env, 2);
  bools.set(0, inner);
  QelPack p(env, load, where, weight, used, bools, "p");

  QelEnv other{SingleBlocks()};
  auto* c = static_cast<QelPackI*>(other.getImpl()->getClone(p.getImpl()));
  ASSERT_TRUE(c->isType(QelPackI::GetTypeInfo()));
  EXPECT_EQ(c->getEnv(), other.getImpl());
  EXPECT_EQ(c->getName(), nullptr);
  EXPECT_EQ(c->getBoolArrays().getImpl(), bools.getImpl());
  EXPECT_EQ(Weights(c->getWeight()), (std::vector<QelInt>{4, -3, 5}));
  ASSERT_EQ(c->getLoad().getSize(), 2);
  ASSERT_EQ(c->getWhere().getSize(), 3);
  EXPECT_EQ(c->getLoad()[0].getImpl()->getEnv(), other.getImpl());
  EXPECT_NE(c->getWhere()[0].getImpl(), where[0].getImpl());
  EXPECT_EQ(c->getWhere()[0].getImpl()->getUseCount(), 1);
  ASSERT_NE(c->getUsed(), nullptr);
  EXPECT_NE(c->getUsed(), used.getImpl());
  EXPECT_EQ(c->getUsed()->getEnv(), other.getImpl());
  EXPECT_EQ(c->getUsed()->getUseCount(), 1);
  EXPECT_EQ(c->getUsedSet(), nullptr);

  // The Boolean content is shared; the weights are the clone's own.
  inner.set(1, true);
  EXPECT_TRUE(c->getBoolArrays()[0][1]);
  p->getWeight().set(0, 99);
  EXPECT_EQ(Weights(c->getWeight()), (std::vector<QelInt>{4, -3, 5}));

  c->end();
  other.end();
  p.end();
  inner.end();
  bools.end();
}

TEST_F(PackTest, CloneOfAUsedSetAndOfASharedExpression) {
  QelIntArray possible(env, 3);
  QelIntSetVar usedSet(env, possible, "S");
  possible.end();
  // The same variable as a load and as the used count gets one clone.
  QelPack p(env, load, where, weight, load[0]);
  QelPack s(env, load, where, weight, usedSet);
  QelEnv other{SingleBlocks()};
  auto* pc = static_cast<QelPackI*>(other.getImpl()->getClone(p.getImpl()));
  EXPECT_EQ(pc->getUsed(), pc->getLoad()[0].getImpl());
  EXPECT_EQ(pc->getUsed()->getUseCount(), 2);
  auto* sc = static_cast<QelPackI*>(other.getImpl()->getClone(s.getImpl()));
  ASSERT_NE(sc->getUsedSet(), nullptr);
  EXPECT_NE(sc->getUsedSet(), usedSet.getImpl());
  EXPECT_EQ(sc->getUsedSet()->getEnv(), other.getImpl());
  EXPECT_EQ(sc->getUsedSet()->getCardVar()->getUseCount(), 2);
  EXPECT_EQ(sc->getUsed(), nullptr);
  other.end();
  p.end();
  s.end();
}

// ---- visiting and printing ---------------------------------------------------------

TEST_F(PackTest, VisitPresentsLoadWhereUsedAndUsedSet) {
  QelIntVar used(env, 0, 2, "used");
  QelIntArray possible(env, 2);
  QelIntSetVar usedSet(env, possible, "S");
  possible.end();
  auto* e = env.getImpl();
  QelPack plain(env, load, where, weight);
  {
    VisitLog v;
    plain->visitSubExtractables(&v);
    EXPECT_EQ(v.log, (std::vector<std::string>{"begin", "array", "array", "end"}));
    EXPECT_EQ(v.arrays,
              (std::vector<std::vector<QelExtractableI*>>{Elements(load), Elements(where)}));
  }
  auto* full = QelNewObject<QelPackI>(
      e, e,
      QelIntExprArray(
          QelExtractableArray(QelArrayI::MakeCopy(e->getGeneralAllocator(), load.getImpl()))),
      QelIntExprArray(
          QelExtractableArray(QelArrayI::MakeCopy(e->getGeneralAllocator(), where.getImpl()))),
      QelIntArray(QelArrayI::MakeCopy(e->getGeneralAllocator(), weight.getImpl())),
      QelIntExpr(used), usedSet, "full");
  {
    VisitLog v;
    full->visitSubExtractables(&v);
    EXPECT_EQ(v.log,
              (std::vector<std::string>{"begin", "array", "array", "child", "child", "end"}));
    EXPECT_EQ(v.children, (std::vector<QelExtractableI*>{used.getImpl(), usedSet.getImpl()}));
  }
  full->end();
  plain.end();
}

TEST_F(PackTest, DisplayWithoutUsedPiecesIsFourLines) {
  QelPack p(env, load, where, weight, "pack");
  EXPECT_EQ(Display(p.getImpl()),
            "QelPackI (pack)\n"
            "  _load [load(0), load(1)]\n"
            "  _where [where(0), where(1), where(2)]\n"
            "  _weight [4, -3, 5]\n");
  EXPECT_EQ(Print(p), Display(p.getImpl()));
  QelIntExprArray noItems(env, 0);
  QelIntArray noWeights(env, 0);
  QelPack unnamed(env, noItems, noItems, noWeights);
  std::ostringstream expected;
  expected << "QelPackI (" << unnamed->getId() << ")\n  _load []\n  _where []\n"
           << "  _weight []\n";
  EXPECT_EQ(Display(unnamed.getImpl()), expected.str());
  p.end();
  unnamed.end();
  noItems.end();
  noWeights.end();
}

TEST_F(PackTest, DisplayWithUsedAndUsedSet) {
  QelIntVar used(env, 0, 2, "used");
  QelIntArray possible(env, 2);
  possible.set(0, 0);
  possible.set(1, 1);
  QelIntSetVar usedSet(env, possible, "S");
  possible.end();
  QelPack withUsed(env, load, where, weight, used, "u");
  EXPECT_EQ(Display(withUsed.getImpl()),
            "QelPackI (u)\n"
            "  _load [load(0), load(1)]\n"
            "  _where [where(0), where(1), where(2)]\n"
            "  _weight [4, -3, 5]\n"
            "  _used used\n");
  QelPack withSet(env, load, where, weight, usedSet, "s");
  EXPECT_EQ(Display(withSet.getImpl()),
            "QelPackI (s)\n"
            "  _load [load(0), load(1)]\n"
            "  _where [where(0), where(1), where(2)]\n"
            "  _weight [4, -3, 5]\n"
            "  _usedSet " +
                Display(usedSet.getImpl()) + "\n");
  withUsed.end();
  withSet.end();
}

TEST_F(PackTest, DisplayBreaksLongArraysAfterTheTenthElement) {
  QelIntVarArray items(env, 11, 0, 1);
  items.setNames("w");
  QelPack p(env, load, items, 2, "big");
  EXPECT_EQ(Display(p.getImpl()),
            "QelPackI (big)\n"
            "  _load [load(0), load(1)]\n"
            "  _where [w(0), w(1), w(2), w(3), w(4), w(5), w(6), w(7), w(8), w(9),\n"
            "w(10)]\n"
            "  _weight [2, 2, 2, 2, 2, 2, 2, 2, 2, 2,\n2]\n");
  p.end();
}

// ---- engine hooks ----------------------------------------------------------------

TEST_F(PackTest, HooksForwardOrFail) {
  QelPack p(env, load, where, weight);
  QelAlgorithm alg(env);
  EXPECT_THROW(p->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(p->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(p->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  int data = 0;
  {
    SlotGuard<decltype(QelPackI::_extractCP)> g1(QelPackI::_extractCP,
                                                 &qeltest::RecordExtractHook<QelPackI>);
    SlotGuard<decltype(QelPackI::_modifyCP)> g2(QelPackI::_modifyCP,
                                                &qeltest::RecordDataHook<QelPackI>);
    SlotGuard<decltype(QelPackI::_unextractCP)> g3(QelPackI::_unextractCP,
                                                   &qeltest::RecordDataHook<QelPackI>);
    lastCall = HookCall();
    EXPECT_EQ(p->extractToCP(alg), &hookToken);
    EXPECT_EQ(lastCall.algorithm, alg.getImpl());
    EXPECT_EQ(lastCall.object, p.getImpl());
    EXPECT_EQ(p->modifyCP(alg, &data), &hookToken);
    EXPECT_EQ(lastCall.data, &data);
    EXPECT_EQ(p->unextractFromCP(alg, &data), &hookToken);
    EXPECT_EQ(lastCall.calls, 3);
  }
  EXPECT_THROW(p->extractToCP(alg), QelAlgorithm::ExtractFailure);
  p.end();
  alg.end();
}

TEST_F(PackTest, TypeIdentityAndInheritedEval) {
  QelPack p(env, load, where, weight);
  EXPECT_STREQ(p->getRttiTypeName(), "QelPackI");
  EXPECT_EQ(p->getBaseTypeInfo(), QelConstraintI::GetTypeInfo());
  EXPECT_TRUE(p->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_TRUE(QelExtractable(p).isConstraint());
  QelAlgorithm alg(env);
  EXPECT_THROW(p->eval(alg), QelNotImplemented);
  p.end();
  alg.end();
}

TEST(PackRefusedMemory, ACloneThatCannotCompleteLeavesNoCopyBehind) {
  long refusals = ForEachRefusal([](QelEnv copy, RequestCounter& counter, long n) {
    QelEnv source;
    QelIntVarArray load(source, 2, 0, 20), where(source, 3, 0, 1);
    QelIntArray weight(source, 3);
    QelPack pack(source, load, where, weight, QelIntExpr(load[0]), QelArray<QelBoolArray>());
    counter.refuseAfter(n);
    bool refused = false;
    try {
      copy.getImpl()->getClone(pack.getImpl());
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    // The pack and the five variables, load[0] once although held twice.
    EXPECT_EQ(copy.getImpl()->getNumberOfExtractables(), refused ? 0 : 6) << "request " << n;
    EndAllObjects(copy);
    load.end();
    where.end();
    weight.end();
    source.end();
    return refused;
  });
  EXPECT_GE(refusals, 8);
}

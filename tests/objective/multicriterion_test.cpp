// Multi-criterion expressions: building, the criteria array, duplicates and
// clones, printing, and the exception of unsupported objective operations.
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "objective/objectivetest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

struct MultiCriterionTest : ObjectiveFixture {
  QelNumExprArray Array(std::vector<QelNumExpr> es) {
    QelNumExprArray a(env, 0);
    for (const QelNumExpr& e : es) a.add(e);
    return a;
  }
};

std::vector<QelNumExprI*> Criteria(const QelMultiCriterionExpr& mc) {
  std::vector<QelNumExprI*> out;
  for (long i = 0; i < mc->getNumCriteria(); ++i) out.push_back(mc->getCriterion(i));
  return out;
}

const char* const kNoArray = "QelMultiCriterionExprI: numExprArray not initialized";

}  // namespace

TEST_F(MultiCriterionTest, TypeIdentityAndOrderKinds) {
  EXPECT_EQ(static_cast<int>(QelMultiCriterionExprI::StaticLex), 0);
  EXPECT_EQ(static_cast<int>(QelMultiCriterionExprI::DynamicLex), 1);
  EXPECT_EQ(sizeof(QelMultiCriterionExprI::Type), 4u);
  QelMultiCriterionExpr mc = QelStaticLex(env, x);
  EXPECT_STREQ(mc->getRttiTypeName(), "QelMultiCriterionExprI");
  EXPECT_STREQ(QelMultiCriterionExprI::GetRttiTypeName(), "QelMultiCriterionExprI");
  EXPECT_TRUE(mc->isType(QelRttiEnvObjectI::GetTypeInfo()));
  EXPECT_FALSE(mc->isType(QelExtractableI::GetTypeInfo()));
  EXPECT_EQ(mc->getBaseTypeInfo(), QelRttiEnvObjectI::GetTypeInfo());
  EXPECT_EQ(mc->getEnv(), env.getImpl());
  EXPECT_FALSE(mc->isZol());
  mc.end();
  EXPECT_EQ(mc.getImpl(), nullptr);
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, HoldsItsOwnCopyOfTheCallersArray) {
  QelNumExprArray given = Array({x, y});
  QelMultiCriterionExpr mc = QelDynamicLex(env, given, "lex");
  EXPECT_EQ(mc->getType(), QelMultiCriterionExprI::DynamicLex);
  EXPECT_STREQ(mc->getName(), "lex");
  EXPECT_NE(mc->getExprs().getImpl(), given.getImpl());
  // Changing the caller's array afterwards changes nothing here.
  given.set(0, QelExtractable(z));
  given.add(b);
  EXPECT_EQ(Criteria(mc), (std::vector<QelNumExprI*>{x.getImpl(), y.getImpl()}));
  EXPECT_EQ(mc->getNumCriteria(), 2);
  EXPECT_EQ(mc->getOrMakeExprs().getImpl(), mc->getExprs().getImpl());
  given.end();
  mc.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, LocksTheCriteriaAndReleasesThemOnDestruction) {
  QelInt xStart = x.getImpl()->getUseCount();
  QelNumExpr sum = x + y;  // use-counted, nobody uses it yet
  ASSERT_TRUE(sum.getImpl()->isRefCountedExpr());
  EXPECT_EQ(sum.getImpl()->getUseCount(), 0);
  QelInt xBefore = x.getImpl()->getUseCount();
  QelNumExprArray given = Array({x, sum});
  QelMultiCriterionExpr mc = QelStaticLex(env, given);
  EXPECT_EQ(x.getImpl()->getUseCount(), xBefore + 1);
  EXPECT_EQ(sum.getImpl()->getUseCount(), 1);
  QelMultiCriterionExprI* copy = mc->duplicate(env.getImpl());
  EXPECT_EQ(x.getImpl()->getUseCount(), xBefore + 2);
  EXPECT_EQ(sum.getImpl()->getUseCount(), 2);
  delete copy;
  EXPECT_EQ(x.getImpl()->getUseCount(), xBefore + 1);
  EXPECT_EQ(sum.getImpl()->getUseCount(), 1);
  given.end();
  // Its last use given back, the sum ends with the multi-criterion
  // expression: every byte comes back below.
  mc.end();
  EXPECT_EQ(x.getImpl()->getUseCount(), xStart);
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, AFailedNamingGivesTheUsesBackAndLeavesTheArrayToTheCaller) {
  QelEnvI* e = env.getImpl();
  QelNumExprArray given = Array({x, y});
  void* block = e->alloc(sizeof(QelMultiCriterionExprI));
  e->setAllocationDisabled(true);
  EXPECT_THROW(new (block)
                   QelMultiCriterionExprI(e, given, QelMultiCriterionExprI::StaticLex, "refused"),
               QelEnvAllocationDisabled);
  e->setAllocationDisabled(false);
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
  EXPECT_EQ(given.getSize(), 2);  // still the caller's, untouched
  e->free(block, sizeof(QelMultiCriterionExprI));
  given.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, AnEmptyArrayHandleGivesNoArray) {
  QelMultiCriterionExpr mc = QelStaticLex(env, QelNumExprArray());
  EXPECT_EQ(mc->getExprs().getImpl(), nullptr);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { mc->getNumCriteria(); }), kNoArray);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { mc->getCriterion(0); }), kNoArray);
  // Despite its name, getOrMakeExprs never makes an array.
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { mc->getOrMakeExprs(); }), kNoArray);
  EXPECT_EQ(mc->getExprs().getImpl(), nullptr);
  // QelMaximize fails on the missing array, not on the criteria count.
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelMaximize(env, mc); }), kNoArray);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelMinimize(env, mc); }), kNoArray);
  mc.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, AnArrayOfSizeZeroGivesNoCriterion) {
  QelNumExprArray nothing(env, 0);
  QelMultiCriterionExpr mc = QelDynamicLex(env, nothing);
  EXPECT_NE(mc->getExprs().getImpl(), nullptr);
  EXPECT_EQ(mc->getNumCriteria(), 0);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelMaximize(env, mc); }),
            "Array of criteria has size 0");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelMinimize(env, mc); }),
            "Array of criteria has size 0");
  EXPECT_EQ(Print(mc), "{MultiCriterion}, DynamicLex([])");
  nothing.end();
  mc.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, AnEmptyEnvironmentIsRefused) {
  QelNumExprArray given = Array({x});
  const char* text = "QelEnv: using empty handle";
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] {
              (void)QelMultiCriterionExpr(none, given, QelMultiCriterionExprI::StaticLex);
            }),
            text);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelStaticLex(none, given); }), text);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelDynamicLex(none, given); }), text);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelStaticLex(none, x); }), text);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelStaticLex(none, x, y, z, b); }), text);
  given.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, StaticLexFormsKeepArgumentOrderAsPriorities) {
  QelMultiCriterionExpr one = QelStaticLex(env, x);
  QelMultiCriterionExpr two = QelStaticLex(env, y, x);
  QelMultiCriterionExpr three = QelStaticLex(env, z, x, y);
  QelMultiCriterionExpr four = QelStaticLex(env, b, z, y, x);
  EXPECT_EQ(Criteria(one), (std::vector<QelNumExprI*>{x.getImpl()}));
  EXPECT_EQ(Criteria(two), (std::vector<QelNumExprI*>{y.getImpl(), x.getImpl()}));
  EXPECT_EQ(Criteria(three), (std::vector<QelNumExprI*>{z.getImpl(), x.getImpl(), y.getImpl()}));
  EXPECT_EQ(Criteria(four),
            (std::vector<QelNumExprI*>{b.getImpl(), z.getImpl(), y.getImpl(), x.getImpl()}));
  for (QelMultiCriterionExpr* mc : {&one, &two, &three, &four}) {
    EXPECT_EQ((*mc)->getType(), QelMultiCriterionExprI::StaticLex);
    EXPECT_EQ((*mc)->getName(), nullptr);
  }
  EXPECT_EQ(x.getImpl()->getUseCount(), 4);
  // The temporary arrays are gone: only the four objects hold memory.
  for (QelMultiCriterionExpr* mc : {&one, &two, &three, &four}) mc->end();
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, DisplayWritesNameKindAndCriteria) {
  QelNumExprArray given = Array({x, y});
  QelMultiCriterionExpr dyn = QelDynamicLex(env, given);
  EXPECT_EQ(Print(dyn), "{MultiCriterion}, DynamicLex([x, y])");
  QelMultiCriterionExpr named = QelStaticLex(env, given, "lex");
  EXPECT_EQ(Print(named), "lex, StaticLex([x, y])");
  // An order kind other than the two known ones writes no word.
  QelMultiCriterionExpr odd(env, given, static_cast<QelMultiCriterionExprI::Type>(7));
  EXPECT_EQ(Print(odd), "{MultiCriterion}, ([x, y])");
  // operator<< returns the stream it was given.
  std::ostringstream os;
  EXPECT_EQ(&(os << named), &os);
  given.end();
  dyn.end();
  named.end();
  odd.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, DisplayWithoutArrayStopsBeforeTheParenthesis) {
  QelMultiCriterionExpr mc = QelDynamicLex(env, QelNumExprArray(), "m");
  std::ostringstream os;
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { os << mc; }), kNoArray);
  EXPECT_EQ(os.str(), "m, DynamicLex");
  mc.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, PrintingAnEmptyHandleThrows) {
  std::ostringstream os;
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { os << QelMultiCriterionExpr(); }),
            "QelMultiCriterionExpr: using empty handle");
  EXPECT_EQ(os.str(), "");
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, NamesAreCopiedIntoEnvironmentMemory) {
  std::string name = "first";
  QelMultiCriterionExpr mc = QelStaticLex(env, QelNumExprArray(), name.c_str());
  name[0] = 'F';
  EXPECT_STREQ(mc->getName(), "first");
  QelInt withShortName = BytesInUse(env);
  mc->setName("a much longer second name");
  EXPECT_STREQ(mc->getName(), "a much longer second name");
  EXPECT_GT(BytesInUse(env), withShortName);
  mc->setName(nullptr);
  EXPECT_EQ(mc->getName(), nullptr);
  mc->setName("again");
  mc.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, ADuplicateHasItsOwnArrayAndNoName) {
  QelNumExprArray given = Array({x, y});
  QelMultiCriterionExpr mc = QelDynamicLex(env, given, "named");
  QelMultiCriterionExpr dup(mc->duplicate(env.getImpl()));
  EXPECT_EQ(dup->getName(), nullptr);
  EXPECT_EQ(dup->getType(), QelMultiCriterionExprI::DynamicLex);
  EXPECT_NE(dup->getExprs().getImpl(), mc->getExprs().getImpl());
  EXPECT_EQ(Criteria(dup), Criteria(mc));
  // The two are independent: ending the original leaves the duplicate.
  mc.end();
  EXPECT_EQ(Criteria(dup), (std::vector<QelNumExprI*>{x.getImpl(), y.getImpl()}));
  QelMultiCriterionExpr noArray = QelStaticLex(env, QelNumExprArray(), "n");
  QelMultiCriterionExpr dupNoArray(noArray->duplicate(env.getImpl()));
  EXPECT_EQ(dupNoArray->getExprs().getImpl(), nullptr);
  EXPECT_EQ(dupNoArray->getName(), nullptr);
  given.end();
  dup.end();
  noArray.end();
  dupNoArray.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, AClonePutsTheCriteriaClonesInTheTargetEnvironment) {
  QelEnv target;
  QelInt targetBaseline = BytesInUse(target);
  QelNumExpr sum = Term(env, 0, {{1, x.getImpl()}, {2, y.getImpl()}});
  QelNumExprArray given = Array({x, sum});
  QelMultiCriterionExpr mc = QelStaticLex(env, given, "named");
  QelMultiCriterionExpr clone(mc->makeClone(target.getImpl()));
  EXPECT_EQ(clone->getEnv(), target.getImpl());
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(clone->getType(), QelMultiCriterionExprI::StaticLex);
  ASSERT_EQ(clone->getNumCriteria(), 2);
  QelNumExprI* cx = clone->getCriterion(0);
  QelNumExprI* csum = clone->getCriterion(1);
  EXPECT_EQ(cx->getEnv(), target.getImpl());
  EXPECT_TRUE(cx->isType(QelNumVarI::GetTypeInfo()));
  EXPECT_NE(cx, x.getImpl());
  EXPECT_EQ(csum->getEnv(), target.getImpl());
  // Both criteria use x: in the clone they share the one clone of x.
  QelNumExpr::LinearIterator it = QelNumExpr(csum).getLinearIterator();
  ASSERT_TRUE(it.ok());
  EXPECT_EQ(it.getVar(), cx);
  EXPECT_EQ(it.getCoef(), 1.0);
  ++it;
  ASSERT_TRUE(it.ok());
  EXPECT_EQ(it.getCoef(), 2.0);
  EXPECT_EQ(it.getVar()->getEnv(), target.getImpl());
  EXPECT_NE(it.getVar(), y.getImpl());
  ++it;
  EXPECT_FALSE(it.ok());
  EXPECT_EQ(cx->getUseCount(), 2);  // the clone's criterion and the sum's term
  clone.end();
  given.end();
  mc.end();
  EndAndCheckMemory();
  // What the clone made in the target: the clone of x, the clone of y.
  EXPECT_EQ(target.getImpl()->getNumberOfExtractables(), 2);
  for (QelInt id = 0; id < target.getImpl()->getExtractableTableSize(); ++id)
    if (QelExtractableI* e = target.getImpl()->getExtractable(id)) e->end();
  EXPECT_EQ(BytesInUse(target), targetBaseline);
  target.end();
}

TEST_F(MultiCriterionTest, ACloneOfAnExpressionWithoutArrayHasNone) {
  QelEnv target;
  QelInt targetBaseline = BytesInUse(target);
  QelMultiCriterionExpr mc = QelDynamicLex(env, QelNumExprArray(), "n");
  QelMultiCriterionExpr clone(mc->makeClone(target.getImpl()));
  EXPECT_EQ(clone->getExprs().getImpl(), nullptr);
  EXPECT_EQ(clone->getType(), QelMultiCriterionExprI::DynamicLex);
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(clone->getEnv(), target.getImpl());
  clone.end();
  mc.end();
  EXPECT_EQ(BytesInUse(target), targetBaseline);
  target.end();
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, NotAllowedExceptionPrintsTheOperationAndTheFixedText) {
  QelNotAllowedWithMultiCriterionException e("QelObjective::getExpr");
  EXPECT_STREQ(e.getMessage(), "QelObjective::getExpr");
  EXPECT_EQ(e.getCode(), 0);
  std::ostringstream os;
  e.print(os);
  EXPECT_EQ(os.str(), "QelObjective::getExpr - not allowed with multi-criterion models");
  EXPECT_TRUE(os.good());
  // Through the exception base's stream operator as well.
  EXPECT_EQ(Print(static_cast<const QelException&>(e)),
            "QelObjective::getExpr - not allowed with multi-criterion models");
  EndAndCheckMemory();
}

TEST_F(MultiCriterionTest, NotAllowedExceptionWithoutMessageSetsTheBadBit) {
  QelNotAllowedWithMultiCriterionException e(nullptr);
  EXPECT_EQ(e.getMessage(), nullptr);
  std::ostringstream os;
  e.print(os);
  EXPECT_TRUE(os.bad());
  EXPECT_EQ(os.str(), " - not allowed with multi-criterion models");
  EndAndCheckMemory();
}

// ---- failures that leave everything as it was -------------------------------

TEST_F(MultiCriterionTest, EndingFromAForeignThreadIsRefusedBeforeAnyUseGoesBack) {
  QelNumExpr e = x + y;
  QelMultiCriterionExpr mc = QelStaticLex(env, e, z);
  QelInt uses = e.getImpl()->getUseCount();
  EXPECT_EQ(OutcomeOnAnotherThread([&] { mc.end(); }), "refused");
  ASSERT_NE(mc.getImpl(), nullptr);
  EXPECT_EQ(e.getImpl()->getUseCount(), uses);
  EXPECT_EQ(mc->getNumCriteria(), 2);
  mc.end();  // gives the last use of e back, which ends it
  EndAndCheckMemory();
}

TEST(MultiCriterionRefusedMemory, ACloneThatCannotBeMadeLeavesNoCopyOfACriterion) {
  long refusals = ForEachRefusal([](QelEnv copy, RequestCounter& counter, long n) {
    QelEnv source;
    QelIntVar x(source, 0, 9, "x"), y(source, 0, 9, "y");
    QelIntExpr sum = x + y;
    QelMultiCriterionExpr mc = QelStaticLex(source, sum, y);
    counter.refuseAfter(n);
    QelMultiCriterionExprI* clone = nullptr;
    bool refused = false;
    try {
      clone = mc->makeClone(copy.getImpl());
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    if (refused) {
      EXPECT_EQ(copy.getImpl()->getNumberOfExtractables(), 0) << "request " << n;
    } else {
      EXPECT_EQ(clone->getNumCriteria(), 2);
      QelMultiCriterionExpr(clone).end();
      EndAllObjects(copy);
    }
    mc.end();
    source.end();
    return refused;
  });
  EXPECT_GE(refusals, 4);
}

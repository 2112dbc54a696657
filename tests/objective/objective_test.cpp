// The objective: construction, criteria, copy-on-write setters and their
// notices, column-wise addition, cloning, visiting, printing, engine hooks.
#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "objective/objectivetest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const char* const kEmptyObjective = "Using empty QelObjective handle.";
const char* const kAggregate = "You can not change the coefficient of an aggregate expression";

struct ObjectiveTest : ObjectiveFixture {
  // What the test itself holds on an expression, like another owner.
  static void Hold(const QelNumExpr& e) { e.getImpl()->lockExpr(); }
  void Release(const QelNumExpr& e) { env.getImpl()->release(e.getImpl()); }
  QelNumExprI* ExprOf(const QelObjective& obj) { return obj.getImpl()->getExpr(); }
};

std::string Line(const std::string& s) {
  std::ostringstream os;
  os << s << std::endl;
  return os.str();
}

}  // namespace

// ---- construction, identity, criteria ------------------------------------------------

TEST_F(ObjectiveTest, SenseValuesAndTypeIdentity) {
  EXPECT_EQ(static_cast<int>(QelObjective::Minimize), 1);
  EXPECT_EQ(static_cast<int>(QelObjective::Maximize), -1);
  EXPECT_EQ(sizeof(QelObjective::Sense), 4u);
  QelObjective obj(env, 0.0);
  EXPECT_STREQ(obj.getImpl()->getRttiTypeName(), "QelObjectiveI");
  EXPECT_TRUE(obj.getImpl()->isType(QelExtractableI::GetTypeInfo()));
  EXPECT_EQ(obj.getImpl()->getBaseTypeInfo(), QelExtractableI::GetTypeInfo());
  EXPECT_EQ(obj.getSense(), QelObjective::Minimize);
  QelExtractable any = obj;
  EXPECT_TRUE(any.isObjective());
  EXPECT_EQ(any.asObjective().getImpl(), obj.getImpl());
  EXPECT_FALSE(QelExtractable(x).isObjective());
  EXPECT_EQ(QelExtractable(x).asObjective().getImpl(), nullptr);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([] { QelExtractable().isObjective(); }),
            "Using empty Handle");
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, FromAConstantHoldsTheKernelsConstantExpression) {
  QelObjective obj(env, 3.5, QelObjective::Maximize, "c");
  EXPECT_EQ(obj.getSense(), QelObjective::Maximize);
  EXPECT_STREQ(obj.getName(), "c");
  QelNumExprI* e = ExprOf(obj);
  ASSERT_NE(e, nullptr);
  EXPECT_TRUE(e->isType(QelNumLinTermI::GetTypeInfo()));
  // Held as the expression handle constructor left it: no use added.
  EXPECT_EQ(e->getUseCount(), 0);
  EXPECT_EQ(obj.getConst(), 3.5);
  EXPECT_EQ(obj.getImpl()->getMultiCriterion(), nullptr);
  EXPECT_EQ(Display(obj.getImpl()), Line("c = (3.5, QelObjective, Maximize);"));
  // In-place changes work on it as on any unshared expression.
  obj.setConst(-1.0);
  EXPECT_EQ(ExprOf(obj), e);
  EXPECT_EQ(obj.getConst(), -1.0);
  obj.end();  // the constant expression goes with the objective
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, FromAnExpressionTakesOneUseAndGivesItBack) {
  QelNumExpr e = Lin(0, {{1, x.getImpl()}, {2, y.getImpl()}});
  Hold(e);
  QelInt xStart = x.getImpl()->getUseCount();
  QelObjective obj(env, e, QelObjective::Minimize, "o");
  // A linear term is kept as it is.
  EXPECT_EQ(ExprOf(obj), e.getImpl());
  EXPECT_EQ(e.getImpl()->getUseCount(), 2);
  EXPECT_EQ(obj.getExpr().getImpl(), e.getImpl());
  EXPECT_EQ(static_cast<QelNumExprArg>(obj).getImpl(), e.getImpl());
  obj.end();
  EXPECT_EQ(e.getImpl()->getUseCount(), 1);
  EXPECT_EQ(x.getImpl()->getUseCount(), xStart);
  Release(e);
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, FromAVariableKeepsTheLinearTermTheKernelMakes) {
  QelObjective obj(env, x);
  QelNumExprI* kept = ExprOf(obj);
  EXPECT_NE(kept, x.getImpl());
  EXPECT_EQ(kept->getUseCount(), 1);
  EXPECT_EQ(Linear(kept), (std::vector<LinTerm>{{1.0, x.getImpl()}}));
  EXPECT_EQ(x.getImpl()->getUseCount(), 1);
  obj.end();
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, HandleConstructorsRefuseEmptyArguments) {
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { (void)QelObjective(env, QelNumExpr()); }),
            "Using empty QelNumExpr handle.");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { (void)QelObjective(none, 1.0); }),
            "QelEnv: using empty handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { (void)QelObjective(none, x); }),
            "QelEnv: using empty handle");
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, ASingleCriterionHasOneCriterion) {
  QelObjective obj(env, x + y);
  EXPECT_EQ(obj.getImpl()->getNumCriteria(), 1);
  EXPECT_EQ(obj.getImpl()->getCriterion(0), ExprOf(obj));
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { obj.getImpl()->getCriterion(1); }),
            "QelObjectiveI: Criterion index out of range");
  // The comparison is signed only: a negative index is not refused.
  EXPECT_EQ(obj.getImpl()->getCriterion(-1), ExprOf(obj));
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, DisplayOfUnnamedObjectivesAndOfEverySense) {
  QelObjective obj(env, Lin(0, {{1, x.getImpl()}, {2, y.getImpl()}}));
  std::string head = "obj" + std::to_string(obj.getId()) + " = (x + 2 * y, QelObjective, ";
  EXPECT_EQ(Display(obj.getImpl()), Line(head + "Minimize);"));
  EXPECT_EQ(Print(QelExtractable(obj)), Line(head + "Minimize);"));
  obj.setSense(QelObjective::Maximize);
  EXPECT_EQ(Display(obj.getImpl()), Line(head + "Maximize);"));
  // Only -1 is shown as a maximization.
  obj.setSense(static_cast<QelObjective::Sense>(7));
  EXPECT_EQ(obj.getSense(), 7);
  EXPECT_EQ(Display(obj.getImpl()), Line(head + "Minimize);"));
  obj.setSense(static_cast<QelObjective::Sense>(0));
  EXPECT_EQ(Display(obj.getImpl()), Line(head + "Minimize);"));
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, EveryHandleOperationRefusesAnEmptyHandle) {
  QelObjective empty;
  auto objectiveMessage = [](auto f) { return MessageOf<QelEmptyHandleException>(f); };
  EXPECT_EQ(objectiveMessage([&] { empty.getSense(); }), kEmptyObjective);
  EXPECT_EQ(objectiveMessage([&] { empty.setSense(QelObjective::Maximize); }), kEmptyObjective);
  EXPECT_EQ(objectiveMessage([&] { empty.getExpr(); }), kEmptyObjective);
  EXPECT_EQ(objectiveMessage([&] { (void)static_cast<QelNumExprArg>(empty); }), kEmptyObjective);
  EXPECT_EQ(objectiveMessage([&] { empty.getConst(); }), kEmptyObjective);
  EXPECT_EQ(objectiveMessage([&] { empty.setConst(1.0); }), kEmptyObjective);
  EXPECT_EQ(objectiveMessage([&] { empty.setExpr(x); }), kEmptyObjective);
  // The objective is tested before the expression.
  EXPECT_EQ(objectiveMessage([&] { empty.setExpr(QelNumExpr()); }), kEmptyObjective);
  EXPECT_EQ(objectiveMessage([&] { empty.setLinearCoef(x, 1.0); }), "Using empty handle");
  EXPECT_EQ(objectiveMessage([&] { empty.setLinearCoefs(QelNumVarArray(), QelNumArray()); }),
            "Using empty handle");
  EXPECT_EQ(objectiveMessage([&] { empty.setQuadCoef(x, y, 1.0); }), "Using empty handle");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { empty.getLinearIterator(); }), "empty handle");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { empty.getQuadIterator(); }), "empty handle");
  EndAndCheckMemory();
}

// ---- sense and constant --------------------------------------------------------------

TEST_F(ObjectiveTest, SetSenseChangesFirstAndNotifiesEvenWhenUnchanged) {
  QelObjective obj(env, x + 1);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  std::vector<QelObjective::Sense> told, heldMeanwhile;
  rec->watch = [&](const QelChange& c) {
    if (const auto* n = QelDynamicCast<const QelSetObjSense>(&c)) {
      told.push_back(n->getSense());
      heldMeanwhile.push_back(obj.getSense());
    }
  };
  obj.setSense(QelObjective::Minimize);  // the sense it already has
  obj.setSense(QelObjective::Maximize);
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjSense", "QelSetObjSense"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{obj.getImpl(), obj.getImpl()}));
  EXPECT_EQ(told,
            (std::vector<QelObjective::Sense>{QelObjective::Minimize, QelObjective::Maximize}));
  EXPECT_EQ(heldMeanwhile, told);
  EXPECT_TRUE(rec->visitor.calls.empty());
  EXPECT_EQ(obj.getSense(), QelObjective::Maximize);
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, AListenerThatThrowsFindsTheChangeMade) {
  QelObjective obj(env, x + 1);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  rec->watch = [](const QelChange&) { throw QelWrongUsage("listener failed"); };
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { obj.setSense(QelObjective::Maximize); }),
            "listener failed");
  EXPECT_EQ(obj.getSense(), QelObjective::Maximize);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { obj.setConst(9.0); }), "listener failed");
  EXPECT_EQ(obj.getConst(), 9.0);
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, SetConstWritesAnUnsharedExpressionInPlace) {
  QelNumExpr e = x + 1;
  QelObjective obj(env, e);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  double heldMeanwhile = 0;
  rec->watch = [&](const QelChange& c) {
    if (c.isType(QelSetObjConst::GetTypeInfo())) heldMeanwhile = obj.getConst();
  };
  obj.setConst(4.0);
  EXPECT_EQ(ExprOf(obj), e.getImpl());
  EXPECT_EQ(obj.getConst(), 4.0);
  EXPECT_EQ(heldMeanwhile, 4.0);
  EXPECT_EQ(e.getImpl()->getUseCount(), 1);
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjConst"}));
  EXPECT_TRUE(rec->visitor.calls.empty());
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, SetConstCopiesASharedExpressionFirst) {
  QelNumExpr e = x + 1;
  Hold(e);
  QelObjective obj(env, e);
  obj.setConst(4.0);
  EXPECT_NE(ExprOf(obj), e.getImpl());
  EXPECT_EQ(obj.getConst(), 4.0);
  EXPECT_EQ(e.getImpl()->getConstant(), 1.0);  // the other owner's is unchanged
  EXPECT_EQ(e.getImpl()->getUseCount(), 1);
  EXPECT_EQ(ExprOf(obj)->getUseCount(), 1);
  EXPECT_EQ(Linear(ExprOf(obj)), Linear(e.getImpl()));
  obj.end();
  Release(e);
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, ConstantsOfNonLinearExpressionsAreRefusedBeforeAnyChange) {
  QelObjective obj(env, Lin(2, {}, {{1, x.getImpl(), y.getImpl()}}));
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  QelNumExprI* before = ExprOf(obj);
  const char* text = "QelTestIsLinear: expression is not linear";
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { obj.getConst(); }), text);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { obj.setConst(5.0); }), text);
  EXPECT_EQ(ExprOf(obj), before);
  EXPECT_EQ(before->getConstant(), 2.0);
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

// ---- multi-criterion objectives --------------------------------------------------------

TEST_F(ObjectiveTest, MultiCriterionObjectivesRefuseSingleExpressionOperations) {
  QelMultiCriterionExpr mc = QelStaticLex(env, x, y);
  QelObjective obj = QelMinimize(env, mc);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  auto refusal = [](auto f) { return MessageOf<QelNotAllowedWithMultiCriterionException>(f); };
  EXPECT_EQ(refusal([&] { obj.getExpr(); }), "QelObjective::getExpr");
  EXPECT_EQ(refusal([&] { (void)static_cast<QelNumExprArg>(obj); }), "QelObjective::getExpr");
  EXPECT_EQ(refusal([&] { obj.getImpl()->getExpr(); }), "QelObjective::getExpr");
  EXPECT_EQ(refusal([&] { obj.setExpr(z); }), "QelObjective::setExpr");
  EXPECT_EQ(refusal([&] { obj.setLinearCoef(x, 1.0); }), "QelObjective::setCoef");
  EXPECT_EQ(refusal([&] { obj.setLinearCoefs(QelNumVarArray(), QelNumArray()); }),
            "QelObjective::setCoef");
  // The quadratic setter reports itself under the linear setter's name.
  EXPECT_EQ(refusal([&] { obj.setQuadCoef(x, y, 1.0); }), "QelObjective::setCoef");
  EXPECT_EQ(refusal([&] { obj.getImpl()->addVar(z.getImpl(), 1.0); }), "QelObjective::addVar");
  EXPECT_EQ(refusal([&] { obj.getLinearIterator(); }), "QelObjective::getExpr");
  EXPECT_EQ(refusal([&] { obj.getQuadIterator(); }), "QelObjective::getExpr");
  EXPECT_EQ(z.getImpl()->getUseCount(), 0);  // setExpr refused before taking z
  EXPECT_EQ(obj.getImpl()->normalize(), 0);
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
  obj.end();
  mc.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, MultiCriterionConstantIsZeroAndOnlyZeroIsAccepted) {
  QelMultiCriterionExpr mc = QelStaticLex(env, x, y);
  QelObjective obj = QelMaximize(env, mc);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  EXPECT_EQ(obj.getConst(), 0.0);
  obj.setConst(0.0);
  obj.setConst(-0.0);
  EXPECT_TRUE(rec->notices.empty());
  auto refusal = [](auto f) { return MessageOf<QelNotAllowedWithMultiCriterionException>(f); };
  EXPECT_EQ(refusal([&] { obj.setConst(1.0); }), "QelObjective::setConst");
  EXPECT_EQ(refusal([&] { obj.setConst(kNaN); }), "QelObjective::setConst");
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
  obj.end();
  mc.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, MaximizeAndMinimizeBuildFromADuplicate) {
  QelMultiCriterionExpr mc = QelStaticLex(env, x, y);
  QelObjective best = QelMaximize(env, mc, "best");
  QelObjective least = QelMinimize(env, mc);
  EXPECT_EQ(best.getSense(), QelObjective::Maximize);
  EXPECT_EQ(least.getSense(), QelObjective::Minimize);
  EXPECT_STREQ(best.getName(), "best");
  EXPECT_EQ(least.getName(), nullptr);
  QelMultiCriterionExprI* own = best.getImpl()->getMultiCriterion();
  EXPECT_NE(own, mc.getImpl());
  EXPECT_NE(own, least.getImpl()->getMultiCriterion());
  EXPECT_EQ(x.getImpl()->getUseCount(), 3);  // mc and both duplicates
  mc.end();                                  // the objectives keep their own duplicates
  EXPECT_EQ(x.getImpl()->getUseCount(), 2);
  EXPECT_EQ(best.getImpl()->getNumCriteria(), 2);
  EXPECT_EQ(best.getImpl()->getCriterion(0), x.getImpl());
  EXPECT_EQ(best.getImpl()->getCriterion(1), y.getImpl());
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { best.getImpl()->getCriterion(2); }),
            "QelObjectiveI: Criterion index out of range");
  EXPECT_EQ(Display(best.getImpl()),
            Line("best = ({MultiCriterion}, StaticLex([x, y]), QelObjective, Maximize);"));
  EXPECT_EQ(Display(least.getImpl()),
            Line("obj" + std::to_string(least.getId()) +
                 " = ({MultiCriterion}, StaticLex([x, y]), QelObjective, Minimize);"));
  best.end();
  least.end();
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, MaximizeAndMinimizeCheckEnvironmentThenHandleThenCount) {
  QelMultiCriterionExpr noArray = QelStaticLex(env, QelNumExprArray());
  QelNumExprArray nothing(env, 0);
  QelMultiCriterionExpr noCriterion = QelStaticLex(env, nothing);
  auto usage = [](auto f) { return MessageOf<QelWrongUsage>(f); };
  EXPECT_EQ(usage([&] { QelMaximize(none, noArray); }), "Using empty handle");
  EXPECT_EQ(usage([&] { QelMinimize(none, noArray); }), "Using empty handle");
  EXPECT_EQ(usage([&] { QelMaximize(env, QelMultiCriterionExpr()); }), "Using empty handle");
  EXPECT_EQ(usage([&] { QelMinimize(env, QelMultiCriterionExpr()); }), "Using empty handle");
  EXPECT_EQ(usage([&] { QelMaximize(env, noCriterion); }), "Array of criteria has size 0");
  EXPECT_EQ(usage([&] { QelMinimize(env, noCriterion); }), "Array of criteria has size 0");
  EXPECT_EQ(usage([&] { QelMaximize(env, noArray); }),
            "QelMultiCriterionExprI: numExprArray not initialized");
  noArray.end();
  noCriterion.end();
  nothing.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, TheHandleConstructorDoesNotTestTheMultiCriterionExpression) {
  QelMultiCriterionExpr noArray = QelStaticLex(env, QelNumExprArray());
  QelNumExprArray nothing(env, 0);
  QelMultiCriterionExpr noCriterion = QelStaticLex(env, nothing);
  QelObjective a(env, noArray, QelObjective::Maximize);
  QelObjective b0(env, noCriterion);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { a.getImpl()->getNumCriteria(); }),
            "QelMultiCriterionExprI: numExprArray not initialized");
  EXPECT_EQ(b0.getImpl()->getNumCriteria(), 0);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { b0.getImpl()->getCriterion(0); }),
            "QelObjectiveI: Criterion index out of range");
  a.end();
  b0.end();
  noArray.end();
  noCriterion.end();
  nothing.end();
  EndAndCheckMemory();
}

// ---- setExpr --------------------------------------------------------------------------

TEST_F(ObjectiveTest, SetExprTellsListenersBeforeTheOldExpressionIsReleased) {
  QelNumExpr first = x + 1;
  QelNumExpr second = y + 2;
  QelObjective obj(env, first);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  QelNumExprI* told[2] = {nullptr, nullptr};
  QelInt oldUsesMeanwhile = -1;
  QelInt oldIdMeanwhile = -1;
  rec->watch = [&](const QelChange& c) {
    const auto* n = QelDynamicCast<const QelSetObjExpr>(&c);
    if (n == nullptr) return;
    told[0] = n->getOldExpr();
    told[1] = n->getNewExpr();
    oldUsesMeanwhile = n->getOldExpr()->getUseCount();
    oldIdMeanwhile = n->getOldExpr()->getId();
  };
  QelInt firstId = first.getImpl()->getId();
  // Kept as a plain pointer: the handle must not be used once the first
  // expression has ended.
  QelNumExprI* firstImpl = first.getImpl();
  obj.setExpr(second);
  EXPECT_EQ(told[0], firstImpl);
  EXPECT_EQ(told[1], second.getImpl());
  EXPECT_EQ(oldUsesMeanwhile, 1);  // still the objective's
  EXPECT_EQ(oldIdMeanwhile, firstId);
  // The old expression ends only after the notice: its own removal
  // notices follow.
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjExpr", "QelRemoveFromAllChange",
                                                    "QelDestroyExtractable"}));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>{{"remove", obj.getImpl(), firstImpl},
                                                        {"add", obj.getImpl(), second.getImpl()}}));
  EXPECT_EQ(ExprOf(obj), second.getImpl());
  EXPECT_EQ(second.getImpl()->getUseCount(), 1);
  // Nobody else used the first expression: it ended once given back.
  EXPECT_EQ(env.getImpl()->getExtractable(firstId), nullptr);
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, SetExprWithTheExpressionHeldStillNotifies) {
  QelNumExpr e = x + 1;
  QelObjective obj(env, e);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  const QelNumExprI* told[2] = {nullptr, nullptr};
  rec->watch = [&](const QelChange& c) {
    if (const auto* n = QelDynamicCast<const QelSetObjExpr>(&c)) {
      told[0] = n->getOldExpr();
      told[1] = n->getNewExpr();
    }
  };
  QelInt uses = e.getImpl()->getUseCount();
  obj.setExpr(e);
  EXPECT_EQ(told[0], e.getImpl());
  EXPECT_EQ(told[1], e.getImpl());
  EXPECT_EQ(e.getImpl()->getUseCount(), uses);
  EXPECT_EQ(ExprOf(obj), e.getImpl());
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjExpr"}));
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, SetExprGivesTheOldExpressionBackEvenWhenAListenerThrows) {
  QelNumExpr first = x + 1;
  QelNumExpr second = y + 2;
  Hold(first);
  QelObjective obj(env, first);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  rec->watch = [](const QelChange&) { throw QelWrongUsage("listener failed"); };
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { obj.setExpr(second); }), "listener failed");
  EXPECT_EQ(ExprOf(obj), second.getImpl());
  EXPECT_EQ(first.getImpl()->getUseCount(), 1);  // the test's use only
  delete rec;
  obj.end();
  Release(first);
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, SetExprRefusesAnEmptyExpression) {
  QelObjective obj(env, x + 1);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { obj.setExpr(QelNumExpr()); }),
            "Using empty QelNumExpr handle.");
  obj.end();
  EndAndCheckMemory();
}

// ---- coefficients ---------------------------------------------------------------------

TEST_F(ObjectiveTest, CoefficientsReportRemovalAtZeroAndAdditionOtherwise) {
  QelNumExpr e = Lin(0, {{1, x.getImpl()}, {2, y.getImpl()}});
  QelObjective obj(env, e);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  obj.setLinearCoef(y, 0.0);
  obj.setLinearCoef(x, 1.0);  // the value it already has
  obj.setLinearCoef(x, kNaN);
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelSetObjCoef", "QelSetObjCoef", "QelSetObjCoef"}));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>{{"remove", obj.getImpl(), y.getImpl()},
                                                        {"add", obj.getImpl(), x.getImpl()},
                                                        {"add", obj.getImpl(), x.getImpl()}}));
  // Modified in place: nobody else uses the expression.
  EXPECT_EQ(ExprOf(obj), e.getImpl());
  std::vector<LinTerm> terms = Linear(ExprOf(obj));
  ASSERT_EQ(terms.size(), 1u);
  EXPECT_TRUE(std::isnan(terms[0].first));
  EXPECT_EQ(terms[0].second, x.getImpl());
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, ACoefficientOfAVariableNoListenerKnowsIsNotReported) {
  QelObjective obj(env, x + 1);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  obj.setLinearCoef(z, 3.0);
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjCoef"}));
  EXPECT_TRUE(rec->visitor.calls.empty());
  EXPECT_EQ(Linear(ExprOf(obj)), (std::vector<LinTerm>{{1.0, x.getImpl()}, {3.0, z.getImpl()}}));
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, SettingACoefficientLeavesAnotherOwnersExpressionUnchanged) {
  QelNumExpr e = Lin(0, {{1, x.getImpl()}, {2, y.getImpl()}});
  Hold(e);
  QelRange r(env, 0, e, 10);  // a second owner besides the test
  QelObjective obj(env, e);
  obj.setLinearCoef(x, 5.0);
  EXPECT_NE(ExprOf(obj), e.getImpl());
  EXPECT_EQ(Linear(ExprOf(obj)), (std::vector<LinTerm>{{5.0, x.getImpl()}, {2.0, y.getImpl()}}));
  EXPECT_EQ(Linear(e.getImpl()), (std::vector<LinTerm>{{1.0, x.getImpl()}, {2.0, y.getImpl()}}));
  EXPECT_EQ(Linear(r.getImpl()->getExpr()), Linear(e.getImpl()));
  EXPECT_EQ(e.getImpl()->getUseCount(), 2);
  obj.end();
  r.end();
  EXPECT_EQ(e.getImpl()->getUseCount(), 1);
  Release(e);
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, AggregatesAreRefusedAfterCopyOnWrite) {
  QelNumExpr product = (x * y) * z;  // neither linear nor quadratic
  QelNumExpr agg = product + 1.0;    // a linear term holding the product
  ASSERT_TRUE(static_cast<QelNumLinTermI*>(agg.getImpl())->containsAggregate());
  // Unshared: refused in place.
  QelObjective alone(env, agg);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { alone.setLinearCoef(x, 1.0); }), kAggregate);
  EXPECT_EQ(ExprOf(alone), agg.getImpl());
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(alone.getImpl());
  QelNumExprArray xs(env, 1, QelExtractable(x));
  QelNumArray coefs(env, 1);
  auto attempts = {
      std::function<void()>([&] { alone.setLinearCoef(x, 1.0); }),
      std::function<void()>([&] { alone.setLinearCoefs(QelNumVarArray(xs), coefs); }),
      std::function<void()>([&] { alone.setQuadCoef(x, y, 1.0); }),
  };
  for (const std::function<void()>& attempt : attempts) {
    // Shared: each setter first copies the expression, then refuses; the
    // objective keeps the copy and the other owner keeps the original.
    Hold(agg);
    ASSERT_EQ(ExprOf(alone), agg.getImpl());
    EXPECT_EQ(agg.getImpl()->getUseCount(), 2);
    QelInt objects = env.getImpl()->getNumberOfExtractables();
    EXPECT_EQ(MessageOf<QelWrongUsage>(attempt), kAggregate);
    QelNumExprI* copy = ExprOf(alone);
    EXPECT_NE(copy, agg.getImpl());
    EXPECT_TRUE(static_cast<QelNumLinTermI*>(copy)->containsAggregate());
    EXPECT_EQ(copy->getUseCount(), 1);
    EXPECT_EQ(agg.getImpl()->getUseCount(), 1);
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects + 1);
    // The copy is unshared: a second attempt refuses in place.
    EXPECT_EQ(MessageOf<QelWrongUsage>(attempt), kAggregate);
    EXPECT_EQ(ExprOf(alone), copy);
    // Back to the original for the next setter: the copy goes.
    alone.setExpr(agg);
    Release(agg);
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects);
  }
  // Refusals send nothing; the three setExpr calls are the only notices.
  EXPECT_EQ(rec->notices, std::vector<std::string>(3, "QelSetObjExpr"));
  delete rec;
  xs.end();
  coefs.end();
  alone.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, SettersAndAddVarCopyTheSharedExpressionBeforeAllocatingAnythingElse) {
  // A custom allocator that logs the size of every request: the copy of a
  // shared expression is the first thing made.
  struct SizeLog : QelCustomAllocatorI {
    std::vector<size_t> sizes;
    void* alloc(size_t size) override {
      sizes.push_back(size);
      return std::malloc(size);
    }
    void free(void* p, size_t) override { std::free(p); }
  } log;
  QelEnv logged;
  logged.getImpl()->setCustomAllocator(&log);
  {
    QelNumVar u(logged, 0, 1, "u");
    QelNumVar v(logged, 0, 1, "v");
    QelNumExpr shared = Term(logged, 1.0, {{2.0, u.getImpl()}});
    Hold(shared);  // the test is the other owner
    QelObjective obj(logged, shared);
    QelNumExprArray us(logged, 1, QelExtractable(u));
    QelNumArray coefs(logged, 1);
    auto ops = {
        std::function<void()>([&] { obj.setLinearCoefs(QelNumVarArray(us), coefs); }),
        std::function<void()>([&] { obj.getImpl()->addVar(v.getImpl(), 3.0); }),
    };
    for (const std::function<void()>& op : ops) {
      obj.setExpr(shared);  // the objective and the test share it again
      ASSERT_EQ(shared.getImpl()->getUseCount(), 2);
      log.sizes.clear();
      op();
      ASSERT_FALSE(log.sizes.empty());
      EXPECT_EQ(log.sizes.front(), sizeof(QelNumLinTermI));
      EXPECT_NE(ExprOf(obj), shared.getImpl());
    }
    obj.end();
    us.end();
    coefs.end();
    logged.getImpl()->release(shared.getImpl());  // the last use: it ends
    u.end();
    v.end();
  }
  EXPECT_EQ(logged.getImpl()->getNumberOfExtractables(), 0);
  logged.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, LinearSettersNormalizeZeroOneSquaresAndTheQuadraticSetterDoesNot) {
  QelObjective lin(env, Lin(0, {{1, x.getImpl()}}, {{1, b.getImpl(), b.getImpl()}}));
  QelObjective quad(env, Lin(0, {{1, x.getImpl()}}, {{1, b.getImpl(), b.getImpl()}}));
  lin.setLinearCoef(x, 2.0);
  EXPECT_TRUE(Quad(ExprOf(lin)).empty());
  EXPECT_EQ(Linear(ExprOf(lin)), (std::vector<LinTerm>{{2.0, x.getImpl()}, {1.0, b.getImpl()}}));
  quad.setQuadCoef(x, y, 3.0);
  EXPECT_EQ(Quad(ExprOf(quad)), (std::vector<QuadTerm>{{1.0, b.getImpl(), b.getImpl()},
                                                       {3.0, x.getImpl(), y.getImpl()}}));
  EXPECT_EQ(Linear(ExprOf(quad)), (std::vector<LinTerm>{{1.0, x.getImpl()}}));
  lin.end();
  quad.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, ArrayCoefficientsAreSetAndNotReportedPerVariable) {
  QelObjective obj(env, Lin(0, {{1, x.getImpl()}, {2, y.getImpl()}}));
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  QelNumVarArray xs(QelExtractableArray(env, 2, QelExtractable(x), QelExtractable(y)));
  QelNumArray coefs(env, 0);
  coefs.add(3.0);
  coefs.add(0.0);
  QelInt withArrays = BytesInUse(env);
  std::vector<double> former;
  rec->watch = [&](const QelChange& c) {
    if (const auto* n = QelDynamicCast<const QelSetObjCoefs>(&c)) {
      QelNumArray k = n->getKernelCoefs();
      for (long i = 0; i < k.getSize(); ++i) former.push_back(k[i]);
    }
  };
  obj.setLinearCoefs(xs, coefs);
  EXPECT_EQ(former, (std::vector<double>{1.0, 2.0}));
  EXPECT_EQ(Linear(ExprOf(obj)), (std::vector<LinTerm>{{3.0, x.getImpl()}}));
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjCoefs"}));
  EXPECT_TRUE(rec->visitor.calls.empty());
  // The array of former coefficients is gone after the broadcast (the
  // term lost a node meanwhile, hence at most).
  EXPECT_LE(BytesInUse(env), withArrays);
  delete rec;
  xs.end();
  coefs.end();
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, EmptyArraysOfCoefficientsChangeNothingButAreStillTold) {
  QelObjective obj(env, x + 1);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  obj.setLinearCoefs(QelNumVarArray(), QelNumArray());
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjCoefs"}));
  EXPECT_EQ(Linear(ExprOf(obj)), (std::vector<LinTerm>{{1.0, x.getImpl()}}));
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, QuadraticCoefficientOfAVariableWithItselfReportsItTwice) {
  QelObjective obj(env, x + y);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  obj.setQuadCoef(x, x, 2.0);
  obj.setQuadCoef(x, x, 0.0);
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetObjQuadCoef", "QelSetObjQuadCoef"}));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>{{"add", obj.getImpl(), x.getImpl()},
                                                        {"add", obj.getImpl(), x.getImpl()},
                                                        {"remove", obj.getImpl(), x.getImpl()},
                                                        {"remove", obj.getImpl(), x.getImpl()}}));
  EXPECT_TRUE(Quad(ExprOf(obj)).empty());
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

// ---- column-wise addition and normalization -------------------------------------------

TEST_F(ObjectiveTest, AddVarAppendsASecondTermAndKeepsTheBookkeeping) {
  QelNumExpr e = x + 1;
  QelObjective obj(env, e);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(obj.getImpl());
  auto* term = static_cast<QelNumLinTermI*>(ExprOf(obj));
  term->setBookkeeping(7);
  QelInt xUses = x.getImpl()->getUseCount();
  obj.getImpl()->addVar(x.getImpl(), 3.0);
  EXPECT_EQ(ExprOf(obj), e.getImpl());
  EXPECT_EQ(Linear(ExprOf(obj)), (std::vector<LinTerm>{{1.0, x.getImpl()}, {3.0, x.getImpl()}}));
  EXPECT_EQ(term->getBookkeeping(), 7);
  EXPECT_EQ(x.getImpl()->getUseCount(), xUses + 1);
  EXPECT_TRUE(rec->notices.empty());  // the column reports the variable
  // normalize merges the two terms, returns 0 and says nothing either.
  EXPECT_EQ(obj.getImpl()->normalize(), 0);
  EXPECT_EQ(Linear(ExprOf(obj)), (std::vector<LinTerm>{{4.0, x.getImpl()}}));
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, AddVarOnASharedExpressionWritesTheSavedBookkeepingIntoTheCopy) {
  QelNumExpr e = x + 1;
  Hold(e);
  static_cast<QelNumLinTermI*>(e.getImpl())->setBookkeeping(5);
  QelObjective obj(env, e);
  obj.getImpl()->addVar(y.getImpl(), 2.0);
  auto* copy = static_cast<QelNumLinTermI*>(ExprOf(obj));
  EXPECT_NE(copy, e.getImpl());
  EXPECT_EQ(copy->getBookkeeping(), 5);
  EXPECT_EQ(Linear(copy), (std::vector<LinTerm>{{1.0, x.getImpl()}, {2.0, y.getImpl()}}));
  EXPECT_EQ(Linear(e.getImpl()), (std::vector<LinTerm>{{1.0, x.getImpl()}}));
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { obj.getImpl()->addVar(nullptr, 1.0); }),
            "Using empty Handle");
  obj.end();
  Release(e);
  EndAndCheckMemory();
}

// ---- iterators --------------------------------------------------------------------------

TEST_F(ObjectiveTest, IteratorsWalkTheTermsOfTheExpression) {
  QelObjective obj(env, Lin(0, {{2, z.getImpl()}}, {{1, x.getImpl(), y.getImpl()}}));
  std::vector<LinTerm> lin;
  for (QelNumExpr::LinearIterator it = obj.getLinearIterator(); it.ok(); ++it)
    lin.emplace_back(it.getCoef(), it.getVar());
  std::vector<QuadTerm> quad;
  for (QelNumExpr::QuadIterator it = obj.getQuadIterator(); it.ok(); ++it)
    quad.emplace_back(it.getCoef(), it.getVar1(), it.getVar2());
  EXPECT_EQ(lin, (std::vector<LinTerm>{{2.0, z.getImpl()}}));
  EXPECT_EQ(quad, (std::vector<QuadTerm>{{1.0, x.getImpl(), y.getImpl()}}));
  obj.end();
  EndAndCheckMemory();
}

// ---- cloning, visiting ------------------------------------------------------------------

TEST_F(ObjectiveTest, ACloneHasNoNameAndHoldsTheCloneOfTheExpression) {
  QelEnv target;
  QelInt targetBaseline = BytesInUse(target);
  QelObjective obj(env, Lin(0, {{1, x.getImpl()}, {2, y.getImpl()}}), QelObjective::Maximize,
                   "named");
  auto* clone = static_cast<QelObjectiveI*>(target.getImpl()->getClone(obj.getImpl()));
  EXPECT_EQ(clone->getEnv(), target.getImpl());
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(clone->getSense(), QelObjective::Maximize);
  QelNumExprI* e = clone->getExpr();
  EXPECT_EQ(e->getEnv(), target.getImpl());
  EXPECT_EQ(e->getUseCount(), 1);
  std::vector<LinTerm> terms = Linear(e);
  ASSERT_EQ(terms.size(), 2u);
  EXPECT_EQ(terms[0].first, 1.0);
  EXPECT_EQ(terms[1].first, 2.0);
  EXPECT_EQ(terms[0].second->getEnv(), target.getImpl());
  EXPECT_EQ(Display(clone),
            Line("obj" + std::to_string(clone->getId()) + " = (QelNumVar" +
                 std::to_string(terms[0].second->getId()) + " + 2 * QelNumVar" +
                 std::to_string(terms[1].second->getId()) + ", QelObjective, Maximize);"));
  QelNumVarI* cx = terms[0].second;
  QelNumVarI* cy = terms[1].second;
  clone->end();
  cx->end();
  cy->end();
  EXPECT_EQ(BytesInUse(target), targetBaseline);
  target.end();
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, ACloneOfAMultiCriterionObjectiveHoldsClonedCriteria) {
  QelEnv target;
  QelInt targetBaseline = BytesInUse(target);
  QelMultiCriterionExpr mc = QelStaticLex(env, x, y);
  QelObjective obj = QelMinimize(env, mc, "lex");
  mc.end();
  auto* clone = static_cast<QelObjectiveI*>(target.getImpl()->getClone(obj.getImpl()));
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(clone->getSense(), QelObjective::Minimize);
  QelMultiCriterionExprI* own = clone->getMultiCriterion();
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(own->getEnv(), target.getImpl());
  EXPECT_EQ(own->getName(), nullptr);
  ASSERT_EQ(clone->getNumCriteria(), 2);
  QelNumExprI* cx = clone->getCriterion(0);
  QelNumExprI* cy = clone->getCriterion(1);
  EXPECT_EQ(cx->getEnv(), target.getImpl());
  EXPECT_NE(cx, x.getImpl());
  // Only the objective's own duplicate holds them: the intermediate clone
  // is gone.
  EXPECT_EQ(cx->getUseCount(), 1);
  EXPECT_EQ(cy->getUseCount(), 1);
  clone->end();
  cx->end();
  cy->end();
  EXPECT_EQ(BytesInUse(target), targetBaseline);
  target.end();
  obj.end();
  EndAndCheckMemory();
}

namespace {

// Writes down every step of a visit.
class TraceVisitor : public QelExtractableVisitor {
 public:
  void beginVisit(QelExtractableI* x) override { steps.push_back("begin " + Id(x)); }
  void visitChildren(QelExtractableI* p, QelExtractableI* c) override {
    steps.push_back("child " + Id(p) + " " + Id(c));
  }
  void visitChildren(QelExtractableI* p, QelExtractableArray cs) override {
    steps.push_back("array " + Id(p) + " " + std::to_string(cs.getSize()));
    arrays.push_back(cs.getImpl());
  }
  void endVisit(QelExtractableI* x) override { steps.push_back("end " + Id(x)); }
  static std::string Id(QelExtractableI* x) { return std::to_string(x->getId()); }
  std::vector<std::string> steps;
  std::vector<QelArrayI*> arrays;
};

}  // namespace

TEST_F(ObjectiveTest, VisitPresentsTheExpressionOrTheCriteriaArray) {
  QelObjective single(env, x + y);
  QelMultiCriterionExpr mc = QelStaticLex(env, x, y);
  QelObjective multi = QelMaximize(env, mc);
  QelMultiCriterionExpr noArray = QelStaticLex(env, QelNumExprArray());
  QelObjective bare(env, noArray);
  std::string s = std::to_string(single.getId());
  std::string m = std::to_string(multi.getId());
  std::string n = std::to_string(bare.getId());
  TraceVisitor t1, t2, t3;
  single.getImpl()->visitSubExtractables(&t1);
  multi.getImpl()->visitSubExtractables(&t2);
  bare.getImpl()->visitSubExtractables(&t3);
  EXPECT_EQ(
      t1.steps,
      (std::vector<std::string>{
          "begin " + s, "child " + s + " " + std::to_string(ExprOf(single)->getId()), "end " + s}));
  EXPECT_EQ(t2.steps, (std::vector<std::string>{"begin " + m, "array " + m + " 2", "end " + m}));
  ASSERT_EQ(t2.arrays.size(), 1u);
  EXPECT_EQ(t2.arrays[0], multi.getImpl()->getMultiCriterion()->getExprs().getImpl());
  EXPECT_EQ(t3.steps, (std::vector<std::string>{"begin " + n, "end " + n}));
  single.end();
  multi.end();
  bare.end();
  mc.end();
  noArray.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, EndingAVariableOfTheExpressionEndsTheObjective) {
  QelObjective obj(env, x + y);
  QelModel model(env);
  model.add(obj);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 7);
  x.end();  // ends the term holding x, which ends the objective
  x = QelNumVar();
  QelModel::Iterator it(model);
  EXPECT_FALSE(it.ok());
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
  model.end();
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 3);
  y.end();
  z.end();
  b.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

// ---- engine hooks -------------------------------------------------------------------------

namespace {

struct SlotCall {
  QelAlgorithmI* algorithm;
  const QelObjectiveI* objective;
  void* data;
  std::string slot;
  bool operator==(const SlotCall& o) const {
    return algorithm == o.algorithm && objective == o.objective && data == o.data && slot == o.slot;
  }
};
std::vector<SlotCall> hookCalls;

void* Extract(QelAlgorithm a, const QelObjectiveI* o) {
  hookCalls.push_back({a.getImpl(), o, nullptr, "extract"});
  return reinterpret_cast<void*>(0x11);
}
template <int K>
void* WithData(QelAlgorithm a, const QelObjectiveI* o, void* data) {
  static const char* const names[] = {"modify", "unextract", "added", "removed"};
  hookCalls.push_back({a.getImpl(), o, data, names[K]});
  return reinterpret_cast<void*>(0x20 + K);
}

}  // namespace

TEST_F(ObjectiveTest, WithoutAnEngineEveryForwardingOperationFails) {
  QelObjective obj(env, x + 1);
  QelAlgorithm alg(env);
  ASSERT_EQ(QelObjectiveI::_extractCP, nullptr);
  ASSERT_EQ(QelObjectiveI::_addToCP, nullptr);
  ASSERT_EQ(QelObjectiveI::_removeFromCP, nullptr);
  const QelObjectiveI* o = obj.getImpl();
  EXPECT_THROW(o->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(o->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(o->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(o->whenAddedToCP(alg, nullptr), QelAlgorithm::ExtractFailure);
  // A removal reported as an extraction failure, as the pairing says.
  EXPECT_THROW(o->whenRemovedFromCP(alg, nullptr), QelAlgorithm::ExtractFailure);
  EXPECT_EQ(MessageOf<QelAlgorithm::ExtractFailure>([&] { o->whenRemovedFromCP(alg, nullptr); }),
            "<null>");
  // Other extractables do nothing when told.
  EXPECT_EQ(x.getImpl()->whenAddedToCP(alg, nullptr), nullptr);
  EXPECT_EQ(x.getImpl()->whenRemovedFromCP(alg, nullptr), nullptr);
  alg.end();
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveTest, FilledHooksGetAlgorithmObjectDataAndTheirResultComesBack) {
  SlotGuard<decltype(QelObjectiveI::_extractCP)> g1(QelObjectiveI::_extractCP);
  SlotGuard<decltype(QelObjectiveI::_modifyCP)> g2(QelObjectiveI::_modifyCP);
  SlotGuard<decltype(QelObjectiveI::_unextractCP)> g3(QelObjectiveI::_unextractCP);
  SlotGuard<decltype(QelObjectiveI::_addToCP)> g4(QelObjectiveI::_addToCP);
  SlotGuard<decltype(QelObjectiveI::_removeFromCP)> g5(QelObjectiveI::_removeFromCP);
  QelObjectiveI::_extractCP = &Extract;
  QelObjectiveI::_modifyCP = &WithData<0>;
  QelObjectiveI::_unextractCP = &WithData<1>;
  QelObjectiveI::_addToCP = &WithData<2>;
  QelObjectiveI::_removeFromCP = &WithData<3>;
  hookCalls.clear();
  QelObjective obj(env, x + 1);
  QelAlgorithm alg(env);
  const QelObjectiveI* o = obj.getImpl();
  int d[4];
  EXPECT_EQ(o->extractToCP(alg), reinterpret_cast<void*>(0x11));
  EXPECT_EQ(o->modifyCP(alg, &d[0]), reinterpret_cast<void*>(0x20));
  EXPECT_EQ(o->unextractFromCP(alg, &d[1]), reinterpret_cast<void*>(0x21));
  EXPECT_EQ(o->whenAddedToCP(alg, &d[2]), reinterpret_cast<void*>(0x22));
  EXPECT_EQ(o->whenRemovedFromCP(alg, &d[3]), reinterpret_cast<void*>(0x23));
  QelAlgorithmI* a = alg.getImpl();
  EXPECT_EQ(hookCalls, (std::vector<SlotCall>{{a, o, nullptr, "extract"},
                                              {a, o, &d[0], "modify"},
                                              {a, o, &d[1], "unextract"},
                                              {a, o, &d[2], "added"},
                                              {a, o, &d[3], "removed"}}));
  alg.end();
  obj.end();
  EndAndCheckMemory();
}

// ---- refused memory leaves the objective as it was --------------------------

TEST(ObjectiveRefusedMemory, AnObjectiveWhoseKeptTermCannotBeMadeLeavesNothing) {
  // Ending the half-made kept term runs a removal pass over every registered
  // object; it used to reach the objective under construction before its
  // expression was set, and crash.
  long refusals = ForEachRefusal([](QelEnv env, RequestCounter& counter, long n) {
    QelNumVar v(env, 0, 1, "v");
    QelRange other(env, 0, v, 1);
    QelInt objects = env.getImpl()->getNumberOfExtractables();
    counter.refuseAfter(n);
    bool refused = false;
    try {
      QelObjective obj(env, v, QelObjective::Minimize, "o");
      obj.end();
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects) << "request " << n;
    EndAllObjects(env);
    return refused;
  });
  EXPECT_GE(refusals, 4);
}

namespace {

// What a change of an objective may need: three variables and a Boolean one.
struct SetterWorld {
  QelNumVar x, y, z;
  QelBoolVar b;
  QelNumVarArray zb;
  QelNumArray coefs;
};

// Runs `change` on an objective over x + 2 y + b * b, an expression a range
// shares, once for every request the change makes, refusing it: the
// objective must keep the shared expression and its use, and no copy may
// stay behind.
void EveryRefusalKeepsTheSharedExpression(
    const std::function<void(QelObjective&, SetterWorld&)>& change) {
  long refusals = ForEachRefusal([&](QelEnv env, RequestCounter& counter, long n) {
    SetterWorld w{QelNumVar(env, 0, 9, "x"),
                  QelNumVar(env, 0, 9, "y"),
                  QelNumVar(env, 0, 9, "z"),
                  QelBoolVar(env, "b"),
                  {},
                  {}};
    w.zb = QelNumVarArray(QelExtractableArray(env, 2, w.z, w.b));
    w.coefs = QelNumArray(env, 2);
    w.coefs.set(0, 4);
    w.coefs.set(1, 5);
    QelNumExpr e =
        Term(env, 0, {{1, w.x.getImpl()}, {2, w.y.getImpl()}}, {{1, w.b.getImpl(), w.b.getImpl()}});
    QelRange holder(env, 0, e, 10);
    QelObjective obj(env, e);
    QelInt objects = env.getImpl()->getNumberOfExtractables();
    QelInt uses = e.getImpl()->getUseCount();
    std::string before = Display(e.getImpl());
    counter.refuseAfter(n);
    bool refused = false;
    try {
      change(obj, w);
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    if (refused) {
      EXPECT_EQ(obj.getImpl()->getExpr(), e.getImpl()) << "request " << n;
      EXPECT_EQ(e.getImpl()->getUseCount(), uses) << "request " << n;
      EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects) << "request " << n;
      EXPECT_EQ(Display(e.getImpl()), before);
    } else {
      EXPECT_NE(obj.getImpl()->getExpr(), e.getImpl()) << "the shared expression was changed";
    }
    w.zb.end();
    w.coefs.end();
    EndAllObjects(env);
    return refused;
  });
  // At least the copy of the expression and what the change itself needs.
  EXPECT_GE(refusals, 3);
}

}  // namespace

TEST(ObjectiveRefusedMemory, SetLinearCoefKeepsTheSharedExpression) {
  EveryRefusalKeepsTheSharedExpression(
      [](QelObjective& obj, SetterWorld& w) { obj.setLinearCoef(w.z, 3); });
}

TEST(ObjectiveRefusedMemory, SetLinearCoefsKeepsTheSharedExpression) {
  EveryRefusalKeepsTheSharedExpression(
      [](QelObjective& obj, SetterWorld& w) { obj.setLinearCoefs(w.zb, w.coefs); });
}

TEST(ObjectiveRefusedMemory, SetQuadCoefKeepsTheSharedExpression) {
  EveryRefusalKeepsTheSharedExpression(
      [](QelObjective& obj, SetterWorld& w) { obj.setQuadCoef(w.x, w.z, 0.5); });
}

TEST(ObjectiveRefusedMemory, AddVarKeepsTheSharedExpression) {
  EveryRefusalKeepsTheSharedExpression(
      [](QelObjective& obj, SetterWorld& w) { obj.getImpl()->addVar(w.z.getImpl(), 2); });
}

TEST_F(ObjectiveTest, AnEmptyVariableIsRefusedBeforeAnyCopyOnWrite) {
  QelNumExpr e = Lin(1, {{1, x.getImpl()}});
  Hold(e);
  QelObjective obj(env, e);
  QelInt objects = env.getImpl()->getNumberOfExtractables();
  EXPECT_THROW(obj.setLinearCoef(QelNumVar(), 1), QelEmptyHandleException);
  EXPECT_THROW(obj.setQuadCoef(x, QelNumVar(), 1), QelEmptyHandleException);
  EXPECT_EQ(ExprOf(obj), e.getImpl());
  EXPECT_EQ(e.getImpl()->getUseCount(), 2);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects);
  obj.end();
  Release(e);
  EndAndCheckMemory();
}

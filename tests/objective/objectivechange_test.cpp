// The objective notices: what the setters send, what each notice tells a
// change visitor, their engine hooks, and the column entry QelAddValueToObj
// with its copies and its installation through a chain.
#include <limits>
#include <string>
#include <vector>

#include "objective/objectivetest.h"

using namespace qeltest;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

struct ObjectiveChangeTest : ObjectiveFixture {};

// Throws on the first structural call, after recording it.
class FailingVisitor : public RecordingVisitor {
 public:
  using RecordingVisitor::addSubExtractable;
  void addSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    RecordingVisitor::addSubExtractable(owner, sub);
    throw QelWrongUsage("visitor failed");
  }
};

// What an _applyCP hook received.
struct ApplyCall {
  QelAlgorithmI* algorithm;
  const QelChange* notice;
  void* data;
  bool operator==(const ApplyCall& o) const {
    return algorithm == o.algorithm && notice == o.notice && data == o.data;
  }
};
std::vector<ApplyCall> applyCalls;

template <class N>
QelInt Applied(QelAlgorithm a, const N* n, void* data) {
  applyCalls.push_back({a.getImpl(), n, data});
  return 4200 + static_cast<QelInt>(applyCalls.size());
}

// The engine hook of notice class N: empty, it throws
// CannotChangeException naming the algorithm; filled, it receives the
// algorithm, the notice and the data, and its result comes back.
template <class N>
void CheckApplyHook(const N& notice, QelAlgorithm alg) {
  SCOPED_TRACE(N::GetRttiTypeName());
  const QelChange& asChange = notice;
  ASSERT_EQ(N::_applyCP, nullptr);
  const QelAlgorithmI* named = nullptr;
  try {
    asChange.applyToCP(alg, nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const QelAlgorithm::CannotChangeException& e) {
    named = e.getAlgorithm();
  }
  EXPECT_EQ(named, alg.getImpl());
  SlotGuard<decltype(N::_applyCP)> guard(N::_applyCP);
  N::_applyCP = &Applied<N>;
  applyCalls.clear();
  int data = 0;
  EXPECT_EQ(asChange.applyToCP(alg, &data), 4201);
  EXPECT_EQ(applyCalls, (std::vector<ApplyCall>{{alg.getImpl(), &notice, &data}}));
}

}  // namespace

// ---- identity ---------------------------------------------------------------------------

TEST_F(ObjectiveChangeTest, EachNoticeNamesItselfAndItsBase) {
  struct Row {
    const char* name;
    const char* rttiName;
    QelTypeInfo base;
    QelTypeInfo expectedBase;
  };
  std::vector<Row> rows = {
      {"QelSetObjSense", QelSetObjSense::GetRttiTypeName(), QelSetObjSense::GetBaseTypeInfo(),
       QelChange::GetTypeInfo()},
      {"QelSetObjConst", QelSetObjConst::GetRttiTypeName(), QelSetObjConst::GetBaseTypeInfo(),
       QelChange::GetTypeInfo()},
      {"QelSetObjCoef", QelSetObjCoef::GetRttiTypeName(), QelSetObjCoef::GetBaseTypeInfo(),
       QelChange::GetTypeInfo()},
      {"QelSetObjQuadCoef", QelSetObjQuadCoef::GetRttiTypeName(),
       QelSetObjQuadCoef::GetBaseTypeInfo(), QelChange::GetTypeInfo()},
      {"QelSetObjCoefs", QelSetObjCoefs::GetRttiTypeName(), QelSetObjCoefs::GetBaseTypeInfo(),
       QelChange::GetTypeInfo()},
      {"QelSetObjExpr", QelSetObjExpr::GetRttiTypeName(), QelSetObjExpr::GetBaseTypeInfo(),
       QelChange::GetTypeInfo()},
      {"QelAddValueToObj", QelAddValueToObj::GetRttiTypeName(), QelAddValueToObj::GetBaseTypeInfo(),
       QelAddNumVar::GetTypeInfo()},
  };
  for (const Row& r : rows) {
    EXPECT_STREQ(r.rttiName, r.name);
    EXPECT_EQ(r.base, r.expectedBase) << r.name;
  }
  QelObjective obj(env, 1.0);
  QelAddValueToObj entry(obj, 2.0);
  EXPECT_TRUE(entry.isType(QelAddExtractable::GetTypeInfo()));
  EXPECT_TRUE(entry.isType(QelChange::GetTypeInfo()));
  QelSetObjConst constant(obj.getImpl(), 2.0);
  EXPECT_TRUE(constant.isType(QelChange::GetTypeInfo()));
  EXPECT_FALSE(constant.isType(QelSetObjSense::GetTypeInfo()));
  EXPECT_STREQ(constant.getRttiTypeName(), "QelSetObjConst");
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, TheSixSetterNoticesCarryTheObjectiveAndNoArray) {
  QelNumExpr e = x + 1;
  QelObjective obj(env, e);
  QelObjectiveI* o = obj.getImpl();
  QelSetObjSense sense(o, QelObjective::Maximize);
  QelSetObjConst constant(o, 2.0);
  QelSetObjCoef coef(o, x.getImpl(), 1.0, 0.0);
  QelSetObjQuadCoef quad(o, x.getImpl(), y.getImpl(), 1.0, 0.0);
  QelSetObjCoefs coefs(o, QelNumVarArray(), QelNumArray(), QelNumArray());
  QelSetObjExpr expr(o, e.getImpl(), e.getImpl());
  for (const QelChange* c :
       std::vector<const QelChange*>{&sense, &constant, &coef, &quad, &coefs, &expr}) {
    SCOPED_TRACE(c->getRttiTypeName());
    EXPECT_EQ(c->getChangedExtractable(), o);
    EXPECT_FALSE(c->isApplyingOnArray());
    EXPECT_EQ(MessageOf<QelWrongUsage>([&] { c->getChangedExtractableArray(); }),
              "QelChange::getChangedExtractableArray can not be called");
  }
  obj.end();
  EndAndCheckMemory();
}

// ---- what the setters send ----------------------------------------------------------------

TEST_F(ObjectiveChangeTest, SettersSendWhatWasAskedAndWhatTheTermAnswered) {
  QelObjective obj(env, Lin(1, {{2, x.getImpl()}}));
  QelObjectiveI* o = obj.getImpl();
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(o);
  std::vector<std::string> seen;
  rec->watch = [&](const QelChange& c) {
    std::string s;
    if (auto* n = QelDynamicCast<const QelSetObjSense>(&c)) {
      s = "sense " + std::to_string(n->getSense());
    } else if (auto* n1 = QelDynamicCast<const QelSetObjConst>(&c)) {
      s = "const " + std::to_string(n1->getConstant());
    } else if (auto* n2 = QelDynamicCast<const QelSetObjCoef>(&c)) {
      s = std::string("coef ") + n2->getVar()->getName() + " " + std::to_string(n2->getCoef()) +
          " " + std::to_string(n2->getKernelCoef());
    } else if (auto* n3 = QelDynamicCast<const QelSetObjQuadCoef>(&c)) {
      s = "quad " + std::string(n3->getVar1()->getName()) + " " + n3->getVar2()->getName() + " " +
          std::to_string(n3->getCoef()) + " " + std::to_string(n3->getKernelCoef());
    } else if (auto* n4 = QelDynamicCast<const QelSetObjCoefs>(&c)) {
      s = "coefs";
      for (long i = 0; i < n4->getVars().getSize(); ++i)
        s += std::string(" ") + n4->getVars()[i].getName() + " " +
             std::to_string(n4->getCoefs()[i]) + " " + std::to_string(n4->getKernelCoefs()[i]);
    } else if (auto* n5 = QelDynamicCast<const QelSetObjExpr>(&c)) {
      s = std::string("expr ") + (n5->getOldExpr() != n5->getNewExpr() ? "replaced" : "same");
    } else {
      return;  // the removal notices of the replaced expression
    }
    EXPECT_EQ(c.getChangedExtractable(), o) << s;
    seen.push_back(s);
  };
  obj.setSense(QelObjective::Maximize);
  obj.setConst(3.0);
  obj.setLinearCoef(x, 5.0);
  obj.setQuadCoef(y, x, 4.0);
  obj.setQuadCoef(x, y, 6.0);
  QelNumVarArray xs(QelExtractableArray(env, 2, QelExtractable(x), QelExtractable(y)));
  QelNumArray cs(env, 0);
  cs.add(7.0);
  cs.add(8.0);
  obj.setLinearCoefs(xs, cs);
  obj.setExpr(y);
  EXPECT_EQ(seen, (std::vector<std::string>{
                      "sense -1",
                      "const 3.000000",
                      "coef x 5.000000 2.000000",
                      "quad y x 4.000000 0.000000",
                      "quad x y 6.000000 4.000000",
                      "coefs x 7.000000 5.000000 y 8.000000 0.000000",
                      "expr replaced",
                  }));
  EXPECT_EQ(rec->notices, (std::vector<std::string>{
                              "QelSetObjSense", "QelSetObjConst", "QelSetObjCoef",
                              "QelSetObjQuadCoef", "QelSetObjQuadCoef", "QelSetObjCoefs",
                              "QelSetObjExpr", "QelRemoveFromAllChange", "QelDestroyExtractable"}));
  std::vector<const QelExtractableI*> sevenTimes(7, o);
  EXPECT_EQ(std::vector<const QelExtractableI*>(rec->objects.begin(), rec->objects.begin() + 7),
            sevenTimes);
  delete rec;
  xs.end();
  cs.end();
  obj.end();
  EndAndCheckMemory();
}

// ---- visitChange -----------------------------------------------------------------------------

TEST_F(ObjectiveChangeTest, SenseConstantAndArrayNoticesTellTheVisitorNothing) {
  QelObjective obj(env, x + y);
  QelObjectiveI* o = obj.getImpl();
  QelAlgorithm alg(env);
  alg.getImpl()->record(o);
  RecordingVisitor v;
  QelNumVarArray xs(QelExtractableArray(env, 1, QelExtractable(x)));
  QelNumArray cs(env, 1);
  QelSetObjSense(o, QelObjective::Maximize).visitChange(env.getImpl(), o, &v);
  QelSetObjConst(o, 1.0).visitChange(env.getImpl(), o, &v);
  QelSetObjCoefs(o, xs, cs, cs).visitChange(env.getImpl(), o, &v);
  EXPECT_TRUE(v.calls.empty());
  xs.end();
  cs.end();
  alg.end();
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, ACoefficientNoticeReportsByTheCoefficientAskedFor) {
  QelObjective obj(env, x + y);
  QelObjectiveI* o = obj.getImpl();
  QelAlgorithm alg(env);
  alg.getImpl()->record(o);  // knows o, its term, x and y; not z
  RecordingVisitor v;
  QelEnvI* e = env.getImpl();
  QelSetObjCoef(o, x.getImpl(), 0.0, 5.0).visitChange(e, o, &v);
  QelSetObjCoef(o, x.getImpl(), -0.0, 1.0).visitChange(e, o, &v);
  QelSetObjCoef(o, y.getImpl(), 3.0, 0.0).visitChange(e, o, &v);
  QelSetObjCoef(o, y.getImpl(), kNaN, 0.0).visitChange(e, o, &v);
  QelSetObjCoef(o, z.getImpl(), 3.0, 0.0).visitChange(e, o, &v);  // unknown pair
  QelSetObjCoef(o, z.getImpl(), 0.0, 3.0).visitChange(e, o, &v);
  EXPECT_EQ(v.calls, (std::vector<VisitCall>{{"remove", o, x.getImpl()},
                                             {"remove", o, x.getImpl()},
                                             {"add", o, y.getImpl()},
                                             {"add", o, y.getImpl()}}));
  alg.end();
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, AQuadraticNoticeReportsEachVariableOnItsOwn) {
  QelObjective obj(env, x + y);
  QelObjectiveI* o = obj.getImpl();
  QelAlgorithm alg(env);
  alg.getImpl()->record(o);
  QelEnvI* e = env.getImpl();
  RecordingVisitor v;
  QelSetObjQuadCoef(o, x.getImpl(), y.getImpl(), 2.0, 0.0).visitChange(e, o, &v);
  QelSetObjQuadCoef(o, z.getImpl(), x.getImpl(), 2.0, 0.0).visitChange(e, o, &v);
  QelSetObjQuadCoef(o, y.getImpl(), z.getImpl(), 0.0, 2.0).visitChange(e, o, &v);
  QelSetObjQuadCoef(o, x.getImpl(), x.getImpl(), 1.0, 0.0).visitChange(e, o, &v);
  EXPECT_EQ(v.calls, (std::vector<VisitCall>{{"add", o, x.getImpl()},
                                             {"add", o, y.getImpl()},
                                             {"add", o, x.getImpl()},
                                             {"remove", o, y.getImpl()},
                                             {"add", o, x.getImpl()},
                                             {"add", o, x.getImpl()}}));
  // A visitor that throws stops the notice after the first variable.
  FailingVisitor failing;
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] {
              QelSetObjQuadCoef(o, x.getImpl(), y.getImpl(), 1.0, 0.0).visitChange(e, o, &failing);
            }),
            "visitor failed");
  EXPECT_EQ(failing.calls, (std::vector<VisitCall>{{"add", o, x.getImpl()}}));
  alg.end();
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, AnExpressionNoticeRemovesTheOldAndAddsTheNew) {
  QelNumExpr first = x + 1;
  QelNumExpr second = y + 1;
  QelObjective obj(env, first);
  QelObjectiveI* o = obj.getImpl();
  RecordingVisitor v;
  QelSetObjExpr(o, first.getImpl(), second.getImpl()).visitChange(env.getImpl(), o, &v);
  EXPECT_EQ(v.calls,
            (std::vector<VisitCall>{{"remove", o, first.getImpl()}, {"add", o, second.getImpl()}}));
  obj.end();
  second.end();
  EndAndCheckMemory();
}

// ---- engine hooks ----------------------------------------------------------------------------

TEST_F(ObjectiveChangeTest, EveryNoticeForwardsToItsOwnHookSlot) {
  QelNumExpr e = x + 1;
  QelObjective obj(env, e);
  QelObjectiveI* o = obj.getImpl();
  QelAlgorithm alg(env);
  CheckApplyHook(QelSetObjSense(o, QelObjective::Maximize), alg);
  CheckApplyHook(QelSetObjConst(o, 2.0), alg);
  CheckApplyHook(QelSetObjCoef(o, x.getImpl(), 1.0, 0.0), alg);
  CheckApplyHook(QelSetObjQuadCoef(o, x.getImpl(), y.getImpl(), 1.0, 0.0), alg);
  CheckApplyHook(QelSetObjCoefs(o, QelNumVarArray(), QelNumArray(), QelNumArray()), alg);
  CheckApplyHook(QelSetObjExpr(o, e.getImpl(), e.getImpl()), alg);
  CheckApplyHook(QelAddValueToObj(obj, 3.0), alg);
  alg.end();
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, TheSlotOfTheColumnBaseDoesNotServeTheObjectiveEntry) {
  QelObjective obj(env, x + 1);
  QelAlgorithm alg(env);
  SlotGuard<decltype(QelAddExtractable::_applyCP)> guard(QelAddExtractable::_applyCP);
  QelAddExtractable::_applyCP = &Applied<QelAddExtractable>;
  applyCalls.clear();
  QelAddValueToObj entry(obj, 1.0);
  EXPECT_THROW(entry.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  EXPECT_TRUE(applyCalls.empty());
  alg.end();
  obj.end();
  EndAndCheckMemory();
}

// ---- the column entry -----------------------------------------------------------------------

TEST_F(ObjectiveChangeTest, AnEntryKnowsItsObjectiveAndValueAndNoVariableYet) {
  QelObjective obj(env, x + 1);
  QelAddValueToObj entry(obj, 2.5);
  EXPECT_EQ(entry.getNext(), nullptr);
  EXPECT_EQ(entry.getObj(), nullptr);
  EXPECT_EQ(entry.getChangedExtractable(), nullptr);
  EXPECT_EQ(entry.getValue(), 2.5);
  EXPECT_EQ(entry.getObjective(), obj.getImpl());
  EXPECT_EQ(entry.what(), obj.getImpl());
  EXPECT_EQ(entry.getEnv(), env.getImpl());
  entry.setObj(z.getImpl());
  EXPECT_EQ(entry.getChangedExtractable(), z.getImpl());
  // Told to a visitor, the new variable is both owner and sub-object.
  RecordingVisitor v;
  entry.visitChange(env.getImpl(), obj.getImpl(), &v);
  EXPECT_EQ(v.calls, (std::vector<VisitCall>{{"add", z.getImpl(), z.getImpl()}}));
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, ACopyLivesInEnvironmentMemoryWithoutLinkOrVariable) {
  QelObjective obj(env, x + 1);
  QelAddValueToObj source(obj, 4.0);
  QelAddValueToObj other(obj, 1.0);
  source.setObj(z.getImpl());
  source.setNext(&other);
  QelInt before = BytesInUse(env);
  QelAddExtractable* copy = source.getCopy(env.getImpl());
  EXPECT_GE(BytesInUse(env), before + static_cast<QelInt>(sizeof(QelAddValueToObj)));
  auto* entry = QelDynamicCast<QelAddValueToObj>(copy);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->getNext(), nullptr);
  EXPECT_EQ(entry->getObj(), nullptr);
  EXPECT_EQ(entry->getValue(), 4.0);
  EXPECT_EQ(entry->getObjective(), obj.getImpl());
  // The source keeps what it had.
  EXPECT_EQ(source.getNext(), &other);
  EXPECT_EQ(source.getObj(), z.getImpl());
  copy->setObj(y.getImpl());
  EXPECT_EQ(copy->getChangedExtractable(), y.getImpl());
  copy->destroy(env.getImpl());
  EXPECT_EQ(BytesInUse(env), before);
  obj.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, InstallingAChainEntersTheNewVariableIntoEachObjective) {
  QelObjective first(env, x + 1);
  QelObjective second(env, y + 0);
  WatchingAlgorithmI* rec = MakeWatcher(env);
  rec->extract(first.getImpl());
  rec->extract(second.getImpl());
  std::vector<const QelExtractableI*> variableSeen;
  rec->watch = [&](const QelChange& c) { variableSeen.push_back(c.getChangedExtractable()); };
  QelEnvI* e = env.getImpl();
  QelAddExtractable* a = QelAddValueToObj(first, 2.0).getCopy(e);
  QelAddExtractable* b2 = QelAddValueToObj(second, 3.0).getCopy(e);
  QelAddExtractable* c = QelAddValueToObj(first, 5.0).getCopy(e);
  a->setNext(b2);
  b2->setNext(c);
  QelNumVar v(env, 0, 1, "v");
  a->install(v.getImpl());
  // Each objective took the new variable with its coefficient, in order.
  EXPECT_EQ(Linear(first.getImpl()->getExpr()),
            (std::vector<LinTerm>{{1.0, x.getImpl()}, {2.0, v.getImpl()}, {5.0, v.getImpl()}}));
  EXPECT_EQ(Linear(second.getImpl()->getExpr()),
            (std::vector<LinTerm>{{1.0, y.getImpl()}, {3.0, v.getImpl()}}));
  EXPECT_EQ(v.getImpl()->getUseCount(), 3);
  // The listener saw each notice, about its objective, in chain order.
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelAddValueToObj", "QelAddValueToObj", "QelAddValueToObj"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{first.getImpl(), second.getImpl(),
                                                               first.getImpl()}));
  EXPECT_EQ(variableSeen, (std::vector<const QelExtractableI*>(3, v.getImpl())));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>(3, {"add", v.getImpl(), v.getImpl()})));
  // The chain is consumed; the variables stay set.
  for (QelAddExtractable* n : {a, b2, c}) {
    EXPECT_EQ(n->getNext(), nullptr);
    EXPECT_EQ(n->getObj(), v.getImpl());
  }
  for (QelAddExtractable* n : {a, b2, c}) n->destroy(e);
  delete rec;
  first.end();
  second.end();
  EXPECT_EQ(v.getImpl()->getUseCount(), 0);
  v.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, AMultiCriterionObjectiveStopsTheChainAtItsEntry) {
  QelObjective first(env, x + 1);
  QelMultiCriterionExpr mc = QelStaticLex(env, x, y);
  QelObjective lex = QelMinimize(env, mc);
  QelObjective last(env, y + 1);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(first.getImpl());
  rec->extract(last.getImpl());
  QelEnvI* e = env.getImpl();
  QelAddExtractable* a = QelAddValueToObj(first, 2.0).getCopy(e);
  QelAddExtractable* b2 = QelAddValueToObj(lex, 3.0).getCopy(e);
  QelAddExtractable* c = QelAddValueToObj(last, 4.0).getCopy(e);
  a->setNext(b2);
  b2->setNext(c);
  QelNumVar v(env, 0, 1, "v");
  EXPECT_EQ(MessageOf<QelNotAllowedWithMultiCriterionException>([&] { a->install(v.getImpl()); }),
            "QelObjective::addVar");
  EXPECT_EQ(Linear(first.getImpl()->getExpr()),
            (std::vector<LinTerm>{{1.0, x.getImpl()}, {2.0, v.getImpl()}}));
  EXPECT_EQ(Linear(last.getImpl()->getExpr()), (std::vector<LinTerm>{{1.0, y.getImpl()}}));
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelAddValueToObj"}));
  EXPECT_EQ(a->getNext(), nullptr);
  EXPECT_EQ(b2->getNext(), c);  // the failing entry keeps its link
  EXPECT_EQ(c->getObj(), nullptr);
  EXPECT_EQ(
      MessageOf<QelAddExtractable::CannotAddExtractableException>([&] { c->install(nullptr); }),
      "Cannot add new QelExtractable to extractor");
  for (QelAddExtractable* n : {a, b2, c}) n->destroy(e);
  delete rec;
  first.end();
  lex.end();
  last.end();
  mc.end();
  v.end();
  EndAndCheckMemory();
}

TEST_F(ObjectiveChangeTest, AnEngineFollowingHooksReceivesTheInstalledEntry) {
  SlotGuard<decltype(QelObjectiveI::_extractCP)> extractGuard(QelObjectiveI::_extractCP);
  SlotGuard<decltype(QelAddValueToObj::_applyCP)> applyGuard(QelAddValueToObj::_applyCP);
  QelObjectiveI::_extractCP = [](QelAlgorithm, const QelObjectiveI*) -> void* { return nullptr; };
  QelAddValueToObj::_applyCP = &Applied<QelAddValueToObj>;
  applyCalls.clear();
  QelObjective obj(env, x + 1);
  QelAlgorithm alg(env);
  int data = 0;
  alg.getImpl()->useHooks(&data);
  alg.extract(obj);
  QelEnvI* e = env.getImpl();
  QelAddExtractable* entry = QelAddValueToObj(obj, 6.0).getCopy(e);
  QelNumVar v(env, 0, 1, "v");
  entry->install(v.getImpl());
  EXPECT_EQ(applyCalls, (std::vector<ApplyCall>{{alg.getImpl(), entry, &data}}));
  EXPECT_EQ(Linear(obj.getImpl()->getExpr()),
            (std::vector<LinTerm>{{1.0, x.getImpl()}, {6.0, v.getImpl()}}));
  entry->destroy(e);
  alg.end();
  obj.end();
  v.end();
  EndAndCheckMemory();
}

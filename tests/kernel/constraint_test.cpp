// Tests of the kernel's constraints and modeling objects: the constraint
// base, ranges, number sets, integer set variables and interval variables.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <qel/extractable/visitor.h>
#include <qel/kernel/constraint.h>
#include <qel/model/model.h>

#include "support/qeltest.h"

namespace {

std::string Show(const QelExtractableI* x) {
  std::ostringstream os;
  x->display(os);
  return os.str();
}

std::string Show(const QelExtractable& x) { return Show(x.getImpl()); }

// Ends every object still alive in `env`.
void EndAll(QelEnv env) {
  QelEnvI* e = env.getImpl();
  for (QelInt id = 0; id < e->getExtractableTableSize(); ++id)
    if (QelExtractableI* x = e->getExtractable(id)) x->end();
  EXPECT_EQ(e->getNumberOfExtractables(), 0);
}

template <class F>
std::string WrongUsageMessage(F f) {
  try {
    f();
  } catch (const QelWrongUsage& e) {
    return e.getMessage() != nullptr ? e.getMessage() : "<null>";
  }
  return "<no exception>";
}

// A constraint that keeps the base evaluation.
class PlainConstraintI : public QelConstraintI {
 public:
  explicit PlainConstraintI(QelEnvI* env) : QelConstraintI(env) {}
  void* extractToCP(QelAlgorithm) const override { return nullptr; }
  void* unextractFromCP(QelAlgorithm, void*) const override { return nullptr; }
  void* modifyCP(QelAlgorithm, void*) const override { return nullptr; }
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};

class Children : public QelExtractableVisitor {
 public:
  using QelExtractableVisitor::visitChildren;
  void visitChildren(QelExtractableI*, QelExtractableI* child) override {
    children.push_back(child);
  }
  std::vector<QelExtractableI*> children;
};

class ConstraintTest : public ::testing::Test {
 protected:
  void TearDown() override { env.end(); }
  QelEnvI* envI() const { return env.getImpl(); }
  QelEnv env;
};

// ---------------------------------------------------------------------------
// The constraint base
// ---------------------------------------------------------------------------

TEST_F(ConstraintTest, BaseEvaluationIsNotAvailable) {
  auto* c = QelNewObject<PlainConstraintI>(envI(), envI());
  EXPECT_TRUE(c->isConstraint());
  EXPECT_TRUE(c->isType(QelConstraintI::GetTypeInfo()));
  QelAlgorithm alg(env);
  try {
    c->eval(alg);
    ADD_FAILURE() << "no exception";
  } catch (const QelNotImplemented& e) {
    EXPECT_STREQ(e.getMessage(), "QelConstraintI::eval is not available for this constraint");
  }
  alg.end();
  c->end();
}

// ---------------------------------------------------------------------------
// Ranges
// ---------------------------------------------------------------------------

TEST_F(ConstraintTest, RangeHoldsAndPrintsItsExpression) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + 2.0 * y;
  QelRange r(env, 0, e, 10, "r");
  EXPECT_EQ(r.getImpl()->getLB(), 0);
  EXPECT_EQ(r.getImpl()->getUB(), 10);
  EXPECT_EQ(r.getImpl()->getExpr(), e.getImpl());
  EXPECT_EQ(e.getImpl()->getUseCount(), 1);
  EXPECT_TRUE(r.getImpl()->isConstraint());
  EXPECT_TRUE(r.getImpl()->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_STREQ(r.getName(), "r");
  EXPECT_EQ(Show(r), "0 <= x + 2 * y <= 10");

  QelRange rx(env, -1.5, x, 2.5);
  EXPECT_EQ(Show(rx), "-1.5 <= x <= 2.5");
  EXPECT_EQ(x.getImpl()->getUseCount(), 2);  // e and rx

  Children v;
  r.getImpl()->visitSubExtractables(&v);
  EXPECT_EQ(v.children, std::vector<QelExtractableI*>{e.getImpl()});
}

TEST_F(ConstraintTest, RangeEvaluation) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelRange r(env, 0, x + y, 10);
  QelAlgorithm alg(env);
  alg.setValue(x, 4);
  alg.setValue(y, 5);
  EXPECT_EQ(r.getImpl()->eval(alg), 1.0);
  alg.setValue(y, 6);
  EXPECT_EQ(r.getImpl()->eval(alg), 1.0);  // the bounds are inside
  alg.setValue(y, 6.5);
  EXPECT_EQ(r.getImpl()->eval(alg), 0.0);
  alg.setValue(x, -7);
  alg.setValue(y, 7);
  EXPECT_EQ(r.getImpl()->eval(alg), 1.0);
  alg.setValue(x, -7.25);
  EXPECT_EQ(r.getImpl()->eval(alg), 0.0);

  const double inf = std::numeric_limits<double>::infinity();
  QelRange open(env, -inf, x * y, 0);
  EXPECT_EQ(Show(open), "x * y <= 0");  // an infinite bound is not printed
  EXPECT_EQ(open.getImpl()->eval(alg), 1.0);

  QelRange none(env, 0, QelNumExpr(), 1);
  EXPECT_EQ(none.getImpl()->getExpr(), nullptr);
  EXPECT_EQ(
      WrongUsageMessage([&] { none.getImpl()->eval(alg); }),
      "QelRangeI::eval: the range QelRange" + std::to_string(none.getId()) + " has no expression");
  alg.end();
}

TEST_F(ConstraintTest, RangeIterators) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelRange r(env, 0, 3.0 * x + x * y - 1.0, 10);
  QelNumExpr::LinearIterator lin = r.getLinearIterator();
  ASSERT_TRUE(lin.ok());
  EXPECT_EQ(lin.getCoef(), 3);
  EXPECT_EQ(lin.getVar(), x.getImpl());
  ++lin;
  EXPECT_FALSE(lin.ok());
  QelNumExpr::QuadIterator quad = r.getQuadIterator();
  ASSERT_TRUE(quad.ok());
  EXPECT_EQ(quad.getCoef(), 1);
  EXPECT_EQ(quad.getVar1(), x.getImpl());
  EXPECT_EQ(quad.getVar2(), y.getImpl());
  ++quad;
  EXPECT_FALSE(quad.ok());

  // A variable is no linear term: nothing to iterate over.
  QelRange rv(env, 0, x, 1);
  EXPECT_FALSE(rv.getLinearIterator().ok());

  QelRange empty;
  EXPECT_EQ(WrongUsageMessage([&] { empty.getLinearIterator(); }), "empty handle");
  EXPECT_EQ(WrongUsageMessage([&] { empty.getQuadIterator(); }), "empty handle");
  QelRange none(env, 0, QelNumExpr(), 1);
  EXPECT_EQ(WrongUsageMessage([&] { none.getLinearIterator(); }), "can not get an iterator");
  EXPECT_EQ(WrongUsageMessage([&] { none.getQuadIterator(); }), "can not get an iterator");
  Children v;
  none.getImpl()->visitSubExtractables(&v);
  EXPECT_TRUE(v.children.empty());
}

TEST_F(ConstraintTest, EndingARangeEndsItsUnusedExpression) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + y;
  QelRange r(env, 0, e, 10);
  QelRange rx(env, 0, x, 10);
  QelInt eId = e.getId();
  QelInt before = envI()->getNumberOfExtractables();
  r.end();
  EXPECT_EQ(envI()->getNumberOfExtractables(), before - 2);
  EXPECT_EQ(envI()->getExtractable(eId), nullptr);
  EXPECT_EQ(x.getImpl()->getUseCount(), 1);
  rx.end();
  // A variable outlives the range that used it.
  EXPECT_EQ(envI()->getExtractable(x.getId()), x.getImpl());
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
}

TEST_F(ConstraintTest, ARangeStillUsedElsewhereKeepsItsExpression) {
  QelNumVar x(env, 0, 10, "x");
  QelNumExpr e = x + 1.0;
  QelRange r1(env, 0, e, 10);
  QelRange r2(env, 1, e, 5);
  EXPECT_EQ(e.getImpl()->getUseCount(), 2);
  r1.end();
  EXPECT_EQ(envI()->getExtractable(e.getId()), e.getImpl());
  EXPECT_EQ(e.getImpl()->getUseCount(), 1);
  r2.end();
  EXPECT_EQ(envI()->getNumberOfExtractables(), 1);
}

TEST_F(ConstraintTest, EndingAVariableEndsTheRangesOnIt) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelRange r(env, 0, x + y, 10);
  QelInt rId = r.getId();
  x.end();
  EXPECT_EQ(envI()->getExtractable(rId), nullptr);
  EXPECT_EQ(envI()->getNumberOfExtractables(), 1);
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
}

TEST_F(ConstraintTest, RangeCloneCarriesTheClonedExpression) {
  QelEnv other;
  QelNumVar x(env, 0, 10, "x");
  QelRange r(env, 1, 2.0 * x, 3);
  auto* c = static_cast<QelRangeI*>(other.getImpl()->getClone(r.getImpl()));
  EXPECT_EQ(c->getEnv(), other.getImpl());
  EXPECT_EQ(c->getLB(), 1);
  EXPECT_EQ(c->getUB(), 3);
  ASSERT_NE(c->getExpr(), nullptr);
  EXPECT_EQ(c->getExpr()->getEnv(), other.getImpl());
  EXPECT_EQ(c->getExpr()->getUseCount(), 1);
  QelNumExpr::LinearIterator it = QelNumExpr(c->getExpr()).getLinearIterator();
  ASSERT_TRUE(it.ok());
  EXPECT_EQ(it.getCoef(), 2);
  EXPECT_NE(it.getVar(), x.getImpl());
  EXPECT_EQ(Show(c), "1 <= 2 * QelNumVar" + std::to_string(it.getVar()->getId()) + " <= 3");
  other.end();
}

// ---------------------------------------------------------------------------
// QelNumSet
// ---------------------------------------------------------------------------

TEST_F(ConstraintTest, NumSetKeepsDistinctValues) {
  QelNumSet s(env);
  EXPECT_EQ(s.getSize(), 0);
  EXPECT_FALSE(s.contains(1));
  s.add(1);
  s.add(1.0);
  s.add(2.5);
  EXPECT_EQ(s.getSize(), 2);
  EXPECT_TRUE(s.contains(1));
  EXPECT_TRUE(s.contains(2.5));
  EXPECT_FALSE(s.contains(2));
  s.add(-1);
  EXPECT_EQ(s.getSize(), 3);
  EXPECT_TRUE(s.contains(-1));
}

TEST_F(ConstraintTest, NumSetTreatsMinusZeroAsZero) {
  QelNumSet s(env);
  s.add(-0.0);
  EXPECT_EQ(s.getSize(), 1);
  EXPECT_TRUE(s.contains(0.0));
  EXPECT_TRUE(s.contains(-0.0));
  s.add(0.0);
  EXPECT_EQ(s.getSize(), 1);

  QelNumSet t(env);
  t.add(0.0);
  t.add(-0.0);
  EXPECT_EQ(t.getSize(), 1);
  EXPECT_TRUE(t.contains(-0.0));
}

TEST_F(ConstraintTest, NumSetNeverMatchesNaN) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  QelNumSet s(env);
  EXPECT_FALSE(s.contains(nan));
  s.add(nan);
  EXPECT_EQ(s.getSize(), 1);
  EXPECT_FALSE(s.contains(nan));
  s.add(nan);
  s.add(-nan);
  EXPECT_EQ(s.getSize(), 3);
  s.add(1);
  EXPECT_EQ(s.getSize(), 4);
  EXPECT_TRUE(s.contains(1));
  EXPECT_FALSE(s.contains(nan));
}

TEST_F(ConstraintTest, NumSetGrowsAndGivesItsMemoryBack) {
  const QelInt baseline = envI()->getBytesInUse();
  {
    QelNumSet s(env);
    const long n = 20000;
    for (long k = 0; k < n; ++k) s.add(static_cast<double>(k) * 0.5 - 1000);
    for (long k = 0; k < n; ++k) s.add(static_cast<double>(k) * 0.5 - 1000);
    EXPECT_EQ(s.getSize(), n);
    for (long k = 0; k < n; ++k) ASSERT_TRUE(s.contains(static_cast<double>(k) * 0.5 - 1000)) << k;
    EXPECT_FALSE(s.contains(-1000.25));
    EXPECT_FALSE(s.contains(1e9));
    EXPECT_GT(envI()->getBytesInUse(), baseline);
    s.end();
    EXPECT_EQ(s.getSize(), 0);
    EXPECT_FALSE(s.contains(0));
    EXPECT_EQ(envI()->getBytesInUse(), baseline);
    // An ended set can be used again; its destructor gives the memory back.
    s.add(3);
    EXPECT_TRUE(s.contains(3));
    EXPECT_EQ(s.getSize(), 1);
  }
  EXPECT_EQ(envI()->getBytesInUse(), baseline);
}

TEST_F(ConstraintTest, NumSetNeedsAnEnvironment) {
  EXPECT_THROW(QelNumSet(QelEnv(static_cast<QelEnvI*>(nullptr))), QelEmptyHandleException);
}

// ---------------------------------------------------------------------------
// Integer set variables
// ---------------------------------------------------------------------------

TEST_F(ConstraintTest, IntSetVarCopiesItsValuesAndMakesItsCardinality) {
  QelIntArray values(env, 0);
  values.add(1);
  values.add(3);
  values.add(5);
  QelIntSetVar s(env, values, "s");
  QelIntArray possible = s.getImpl()->getPossible();
  EXPECT_NE(possible.getImpl(), values.getImpl());
  ASSERT_EQ(possible.getSize(), 3);
  EXPECT_EQ(possible[0], 1);
  EXPECT_EQ(possible[2], 5);
  values.set(0, 9);
  EXPECT_EQ(possible[0], 1);

  QelNumVarI* card = s.getImpl()->getCardVar();
  ASSERT_NE(card, nullptr);
  EXPECT_EQ(card->getType(), QelVarType::Int);
  EXPECT_EQ(card->getLB(), 0);
  EXPECT_EQ(card->getUB(), 3);
  EXPECT_EQ(card->getUseCount(), 1);
  EXPECT_EQ(card->getEnv(), envI());

  EXPECT_EQ(Show(s), "s[1, 3, 5]");
  Children v;
  s.getImpl()->visitSubExtractables(&v);
  EXPECT_EQ(v.children, std::vector<QelExtractableI*>{card});
  EXPECT_TRUE(s.getImpl()->isDecisionExpr());
  values.end();
}

TEST_F(ConstraintTest, IntSetVarDisplayWithoutNameAndLongArrays) {
  QelIntArray values(env, 0);
  for (QelInt k = 1; k <= 12; ++k) values.add(k * 10);
  QelIntSetVar s(env, values);
  EXPECT_EQ(Show(s), "QelIntSetVar" + std::to_string(s.getId()) +
                         "[10, 20, 30, 40, 50, 60, 70, 80, 90, 100,\n110, 120]");
  QelIntSetVar e(env, QelIntArray());
  EXPECT_EQ(e.getImpl()->getPossible().getSize(), 0);
  EXPECT_EQ(e.getImpl()->getCardVar()->getUB(), 0);
  EXPECT_EQ(Show(e), "QelIntSetVar" + std::to_string(e.getId()) + "[]");
  values.end();
}

TEST_F(ConstraintTest, EndingASetVarEndsItsCardinality) {
  // Measured right after the environment was made.
  const QelInt baseline = envI()->getBytesInUse();
  QelIntArray values(env, 0);
  values.add(2);
  values.add(4);
  QelIntSetVar s(env, values, "s");
  values.end();
  QelInt cardId = s.getImpl()->getCardVar()->getId();
  EXPECT_EQ(envI()->getNumberOfExtractables(), 2);
  s.end();
  EXPECT_EQ(envI()->getExtractable(cardId), nullptr);
  EXPECT_EQ(envI()->getNumberOfExtractables(), 0);
  EXPECT_EQ(envI()->getBytesInUse(), baseline);
}

TEST_F(ConstraintTest, ACardinalityUsedElsewhereOutlivesTheSetVar) {
  QelIntArray values(env, 0);
  values.add(7);
  QelIntSetVar s(env, values);
  values.end();
  QelNumVarI* card = s.getImpl()->getCardVar();
  QelRange r(env, 1, QelNumExpr(card), 1);
  EXPECT_EQ(card->getUseCount(), 2);
  s.end();
  EXPECT_EQ(envI()->getExtractable(card->getId()), card);
  EXPECT_EQ(card->getUseCount(), 1);
  r.end();
  EXPECT_EQ(envI()->getExtractable(card->getId()), card);
  card->end();
  EXPECT_EQ(envI()->getNumberOfExtractables(), 0);
}

TEST_F(ConstraintTest, EndingTheCardinalityEndsTheSetVar) {
  QelIntArray values(env, 0);
  values.add(7);
  values.add(8);
  QelIntSetVar s(env, values);
  values.end();
  QelInt sId = s.getId();
  s.getImpl()->getCardVar()->end();
  EXPECT_EQ(envI()->getExtractable(sId), nullptr);
  EXPECT_EQ(envI()->getNumberOfExtractables(), 0);
}

TEST_F(ConstraintTest, IntSetVarClone) {
  QelEnv other;
  QelIntArray values(env, 0);
  values.add(4);
  values.add(6);
  QelIntSetVar s(env, values, "s");
  values.end();
  auto* c = static_cast<QelIntSetVarI*>(other.getImpl()->getClone(s.getImpl()));
  EXPECT_EQ(c->getEnv(), other.getImpl());
  EXPECT_EQ(c->getName(), nullptr);
  ASSERT_EQ(c->getPossible().getSize(), 2);
  EXPECT_EQ(c->getPossible()[1], 6);
  EXPECT_EQ(c->getPossible().getEnv(), QelEnv(other.getImpl()));
  EXPECT_NE(c->getCardVar(), s.getImpl()->getCardVar());
  EXPECT_EQ(c->getCardVar()->getEnv(), other.getImpl());
  EXPECT_EQ(c->getCardVar()->getUB(), 2);
  other.end();
}

// ---------------------------------------------------------------------------
// Interval variables
// ---------------------------------------------------------------------------

TEST_F(ConstraintTest, IntervalVar) {
  QelIntervalVar a(env, 3, 0, 10, "a");
  EXPECT_EQ(a.getImpl()->getSize(), 3);
  EXPECT_EQ(a.getImpl()->getStartMin(), 0);
  EXPECT_EQ(a.getImpl()->getEndMax(), 10);
  EXPECT_EQ(Show(a), "a[size=3, start=0, end=10]");
  QelIntervalVar b(env, 1, -5, 5);
  EXPECT_EQ(Show(b), "QelIntervalVar" + std::to_string(b.getId()) + "[size=1, start=-5, end=5]");
  Children v;
  a.getImpl()->visitSubExtractables(&v);
  EXPECT_TRUE(v.children.empty());
  EXPECT_TRUE(a.getImpl()->isDecisionExpr());

  QelEnv other;
  auto* c = static_cast<QelIntervalVarI*>(other.getImpl()->getClone(a.getImpl()));
  EXPECT_EQ(c->getEnv(), other.getImpl());
  EXPECT_EQ(c->getName(), nullptr);
  EXPECT_EQ(Show(c), "QelIntervalVar" + std::to_string(c->getId()) + "[size=3, start=0, end=10]");
  other.end();
}

// ---------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------

TEST_F(ConstraintTest, EndingEverythingGivesTheMemoryBack) {
  // Measured right after the environment was made.
  const QelInt baseline = envI()->getBytesInUse();
  {
    QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
    QelRange r1(env, 0, x + y, 10, "r1");
    QelRange r2(env, 0, (x * y) * x, 100);
    QelRange r3(env, 0, QelNumExpr(), 1);
    QelIntArray values(env, 0);
    for (QelInt k = 0; k < 30; ++k) values.add(k);
    QelIntSetVar s(env, values, "s");
    values.end();
    QelIntervalVar iv(env, 2, 0, 9, "iv");
    envI()->getClone(r1.getImpl());
    envI()->getClone(s.getImpl());
    QelAlgorithm alg(env);
    alg.setValue(x, 2);
    alg.setValue(y, 3);
    EXPECT_EQ(r1.getImpl()->eval(alg), 1.0);
    EXPECT_EQ(r2.getImpl()->eval(alg), 1.0);
    alg.end();
    EXPECT_GT(envI()->getBytesInUse(), baseline);
  }
  EndAll(env);
  EXPECT_EQ(envI()->getBytesInUse(), baseline);
}

}  // namespace

// ---------------------------------------------------------------------------
// Relational operators, bounds and tolerance
// ---------------------------------------------------------------------------

TEST_F(ConstraintTest, RelationalOperatorsBuildRanges) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelRange le = x + y <= 8;
  EXPECT_EQ(le.getLB(), -QelInfinity);
  EXPECT_EQ(le.getUB(), 8);
  EXPECT_EQ(Show(le), "x + y <= 8");
  QelRange ge = 2.0 * x >= y;
  EXPECT_EQ(ge.getLB(), 0);
  EXPECT_EQ(ge.getUB(), QelInfinity);
  EXPECT_EQ(Show(ge), "2 * x - y >= 0");
  QelRange eq = x == 3;
  EXPECT_EQ(Show(eq), "x == 3");
  QelRange both = 1 <= x;
  EXPECT_EQ(Show(both), "x >= 1");
  QelRange rev = 4 >= y;
  EXPECT_EQ(Show(rev), "y <= 4");
  QelRange eq2 = 5.0 == x + y;
  EXPECT_EQ(Show(eq2), "x + y == 5");
  // The constant of a difference moves to the bound.
  QelRange moved = x + 3.0 <= y - 1.0;
  EXPECT_EQ(Show(moved), "x - y <= -4");
  QelRange same = x - 2.0 == y;
  EXPECT_EQ(Show(same), "x - y == 2");
  QelIntVar i(env, 0, 5, "i"), j(env, 0, 5, "j");
  QelRange ints = i + j <= 8;
  EXPECT_EQ(Show(ints), "i + j <= 8");
  QelRange zero = i - j == 0;
  EXPECT_EQ(Show(zero), "i - j == 0");
  QelRange full(env, -1, x, 1);
  EXPECT_EQ(Show(full), "-1 <= x <= 1");
  QelRange none(env, -QelInfinity, x, QelInfinity);
  EXPECT_EQ(Show(none), "-1e+20 <= x <= 1e+20");
  EXPECT_THROW(QelNumExpr() <= 1.0, QelEmptyHandleException);
  EXPECT_THROW(x <= QelNumExpr(), QelEmptyHandleException);

  QelAlgorithm alg(env);
  alg.setValue(x, 5);
  alg.setValue(y, 3);
  EXPECT_EQ(le.eval(alg), 1.0);
  EXPECT_EQ(ge.eval(alg), 1.0);
  EXPECT_EQ(eq.eval(alg), 0.0);
  EXPECT_EQ(moved.eval(alg), 0.0);  // 8 <= 2 fails
  alg.setValue(y, 9);
  EXPECT_EQ(moved.eval(alg), 1.0);  // 8 <= 8
  EXPECT_EQ(le.eval(alg), 0.0);
  alg.end();
}

TEST_F(ConstraintTest, ModelsTakeRelationalExpressions) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelModel m(env, "m");
  m.add(x + y <= 8);
  m.add(x - 2.0 * y >= -1);
  std::ostringstream os;
  m.getImpl()->display(os);
  EXPECT_NE(os.str().find("x + y <= 8"), std::string::npos) << os.str();
  EXPECT_NE(os.str().find("x - 2 * y >= -1"), std::string::npos) << os.str();
}

TEST_F(ConstraintTest, RangeBoundsAreSetThroughTheHandleWithANotice) {
  QelNumVar x(env, 0, 10, "x");
  QelRange r = x <= 8;
  r.setName("cap");
  qeltest::RecordingAlgorithmI* alg = qeltest::MakeRecorder(env);
  alg->extract(r.getImpl());
  r.setLB(1);
  r.setUB(6);
  r.setBounds(2, 5);
  EXPECT_EQ(r.getLB(), 2);
  EXPECT_EQ(r.getUB(), 5);
  EXPECT_EQ(Show(r), "2 <= x <= 5");
  EXPECT_EQ(alg->notices, std::vector<std::string>(3, "QelSetRangeBounds"));
  EXPECT_EQ(alg->objects.back(), r.getImpl());
  EXPECT_EQ(WrongUsageMessage([&] { r.setUB(1); }),
            "QelRange::setBounds: the range cap cannot take the bounds [2, 1]");
  EXPECT_EQ(r.getUB(), 5);
  EXPECT_EQ(alg->notices.size(), 3u);
  QelSetRangeBounds notice(r.getImpl());
  EXPECT_EQ(notice.getChangedExtractable(), r.getImpl());
  EXPECT_EQ(notice.getRange(), r.getImpl());
  EXPECT_EQ(notice.getLB(), 2);
  EXPECT_EQ(notice.getUB(), 5);
  EXPECT_EQ(r.getExpr().getImpl(), x.getImpl());
  EXPECT_THROW(QelRange().setLB(0), QelEmptyHandleException);
  delete alg;
}

TEST_F(ConstraintTest, RangeEvaluationAllowsARelativeTolerance) {
  QelNumVar x(env, -1e9, 1e9, "x");
  QelRange small = x <= 1;
  QelRange large = x >= 1e6;
  QelAlgorithm alg(env);
  alg.setValue(x, 1 + 5e-7);
  EXPECT_EQ(small.eval(alg), 1.0);     // within 1e-6
  EXPECT_EQ(small.eval(alg, 0), 0.0);  // exact comparison
  alg.setValue(x, 1 + 2e-6);
  EXPECT_EQ(small.eval(alg), 0.0);
  alg.setValue(x, 1e6 - 0.5);
  EXPECT_EQ(large.eval(alg), 1.0);  // 1e-6 of 1e6 is 1
  alg.setValue(x, 1e6 - 2);
  EXPECT_EQ(large.eval(alg), 0.0);
  EXPECT_EQ(large.eval(alg, 1e-5), 1.0);
  alg.setValue(x, std::nan(""));
  EXPECT_EQ(small.eval(alg), 0.0);
  alg.setValue(x, -1e300);
  EXPECT_EQ(small.eval(alg), 1.0);  // no lower bound to check
  alg.end();
}

TEST_F(ConstraintTest, RelationalOperatorsGiveTheirMemoryBack) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  const QelInt baseline = envI()->getBytesInUse();
  const QelInt objects = envI()->getNumberOfExtractables();
  {
    QelRange r = x + 3.0 <= y;
    QelRange s = x <= 4;
    r.end();
    s.end();
  }
  EXPECT_EQ(envI()->getNumberOfExtractables(), objects);
  EXPECT_EQ(envI()->getBytesInUse(), baseline);
}

TEST_F(ConstraintTest, ZeroOnEitherSideIsANumber) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelRange a = x + y <= 0;
  QelRange b = 0 <= x - y;
  QelRange c = x - y == 0;
  QelRange d = x >= 0;
  EXPECT_EQ(Show(a), "x + y <= 0");
  EXPECT_EQ(Show(b), "x - y >= 0");
  EXPECT_EQ(Show(c), "x - y == 0");
  EXPECT_EQ(Show(d), "x >= 0");
}

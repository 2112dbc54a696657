// Tests of the expression kernel: variables, linear terms, products, their
// operators, operations, use counts, copies, clones and memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <qel/extractable/visitor.h>
#include <qel/kernel/expr.h>

#include "support/qeltest.h"
#include "support/refusing.h"

namespace {

using LinTerms = std::vector<std::pair<double, QelNumVarI*>>;
using QuadTerms = std::vector<std::tuple<double, QelNumVarI*, QelNumVarI*>>;

LinTerms LinearOf(const QelNumExpr& e) {
  LinTerms out;
  for (QelNumExpr::LinearIterator it = e.getLinearIterator(); it.ok(); ++it)
    out.emplace_back(it.getCoef(), it.getVar());
  return out;
}

QuadTerms QuadOf(const QelNumExpr& e) {
  QuadTerms out;
  for (QelNumExpr::QuadIterator it = e.getQuadIterator(); it.ok(); ++it)
    out.emplace_back(it.getCoef(), it.getVar1(), it.getVar2());
  return out;
}

std::vector<std::pair<double, QelNumExprI*>> AggregatesOf(const QelLinearParts& p) {
  std::vector<std::pair<double, QelNumExprI*>> out;
  for (const QelAggregateTermNode* n = p.aggHead; n != nullptr; n = n->next)
    out.emplace_back(n->coef, n->expr);
  return out;
}

std::string Show(const QelExtractableI* x) {
  std::ostringstream os;
  x->display(os);
  return os.str();
}

std::string Show(const QelExtractable& x) { return Show(x.getImpl()); }

QelInt Uses(const QelNumExpr& e) { return e.getImpl()->getUseCount(); }

QelNumLinTermI* Term(const QelNumExpr& e) {
  EXPECT_TRUE(e.getImpl()->isType(QelNumLinTermI::GetTypeInfo()));
  return static_cast<QelNumLinTermI*>(e.getImpl());
}

QelIntLinTermI* IntTerm(const QelNumExpr& e) {
  EXPECT_TRUE(e.getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  return static_cast<QelIntLinTermI*>(e.getImpl());
}

// Ends every object still alive in `env`.
void EndAll(QelEnv env) {
  QelEnvI* e = env.getImpl();
  for (QelInt id = 0; id < e->getExtractableTableSize(); ++id)
    if (QelExtractableI* x = e->getExtractable(id)) x->end();
  EXPECT_EQ(e->getNumberOfExtractables(), 0);
}

// Records what an object presents to a visitor.
class Recorder : public QelExtractableVisitor {
 public:
  using QelExtractableVisitor::visitChildren;
  void beginVisit(QelExtractableI* x) override { events.push_back({"begin", x}); }
  void visitChildren(QelExtractableI*, QelExtractableI* child) override {
    events.push_back({"child", child});
  }
  void endVisit(QelExtractableI* x) override { events.push_back({"end", x}); }
  std::vector<std::pair<std::string, QelExtractableI*>> events;
};

class ExprTest : public ::testing::Test {
 protected:
  void TearDown() override { env.end(); }
  QelEnvI* envI() const { return env.getImpl(); }
  QelEnv env;
};

// ---------------------------------------------------------------------------
// Variables
// ---------------------------------------------------------------------------

TEST_F(ExprTest, VariablesHaveTheirBoundsTypeAndName) {
  QelNumVar x(env, -1.5, 2.5, "x");
  QelIntVar i(env, 0, 10, "i");
  QelBoolVar b(env, "b");
  QelNumVar t(env, 1, 4, QelVarType::Int, "t");

  EXPECT_EQ(x.getLB(), -1.5);
  EXPECT_EQ(x.getUB(), 2.5);
  EXPECT_EQ(x.getImpl()->getType(), QelVarType::Float);
  EXPECT_EQ(i.getLB(), 0);
  EXPECT_EQ(i.getUB(), 10);
  EXPECT_EQ(i.getImpl()->getType(), QelVarType::Int);
  EXPECT_EQ(b.getLB(), 0);
  EXPECT_EQ(b.getUB(), 1);
  EXPECT_EQ(b.getImpl()->getType(), QelVarType::Bool);
  EXPECT_EQ(t.getImpl()->getType(), QelVarType::Int);

  EXPECT_FALSE(x.getImpl()->isIntegral());
  EXPECT_TRUE(i.getImpl()->isIntegral());
  EXPECT_TRUE(b.getImpl()->isIntegral());
  EXPECT_TRUE(x.getImpl()->isNumVar());
  EXPECT_TRUE(x.getImpl()->isNumExpr());
  EXPECT_FALSE(x.getImpl()->isRefCountedExpr());
  EXPECT_TRUE(x.getImpl()->isLinear());
  EXPECT_EQ(x.getImpl()->getConstant(), 0);
  EXPECT_EQ(x.getConstant(), 0);
  EXPECT_EQ(Uses(x), 0);

  EXPECT_EQ(Show(x), "x");
  EXPECT_EQ(Show(i), "i");
  EXPECT_EQ(Show(b), "b");
}

TEST_F(ExprTest, UnnamedVariablesPrintTheirKindAndId) {
  QelNumVar x(env, 0, 1);
  QelIntVar i(env, 0, 1);
  QelBoolVar b(env);
  EXPECT_EQ(Show(x), "QelNumVar" + std::to_string(x.getId()));
  EXPECT_EQ(Show(i), "QelIntVar" + std::to_string(i.getId()));
  EXPECT_EQ(Show(b), "QelBoolVar" + std::to_string(b.getId()));
}

TEST_F(ExprTest, FloatVariablesAreNoIntegerExpressions) {
  QelNumVar x(env, 0, 1, "x");
  QelIntVar i(env, 0, 1, "i");
  QelBoolVar b(env, "b");
  const QelTypeInfo intExpr = QelIntExprI::GetTypeInfo();

  EXPECT_FALSE(x.getImpl()->isType(intExpr));
  EXPECT_TRUE(i.getImpl()->isType(intExpr));
  EXPECT_TRUE(b.getImpl()->isType(intExpr));
  for (QelNumVarI* v : {x.getImpl(), i.getImpl(), b.getImpl()}) {
    EXPECT_TRUE(v->isType(QelNumVarI::GetTypeInfo()));
    EXPECT_TRUE(v->isType(QelNumExprI::GetTypeInfo()));
    EXPECT_TRUE(v->isType(QelExtractableI::GetTypeInfo()));
    EXPECT_FALSE(v->isType(QelNumLinTermI::GetTypeInfo()));
  }
  EXPECT_EQ(QelDynamicCast<QelIntExprI>(x.getImpl()), nullptr);
  EXPECT_EQ(QelDynamicCast<QelIntExprI>(i.getImpl()), i.getImpl());
}

TEST_F(ExprTest, VariableEvaluatesToItsValue) {
  QelNumVar x(env, 0, 10, "x");
  QelAlgorithm alg(env);
  alg.setValue(x, 3.25);
  EXPECT_EQ(alg.getValue(x), 3.25);
  EXPECT_EQ(x.getImpl()->eval(alg), 3.25);
  alg.end();
}

TEST_F(ExprTest, VariableVisitPresentsNoChildren) {
  QelNumVar x(env, 0, 1, "x");
  Recorder r;
  x.getImpl()->visitSubExtractables(&r);
  ASSERT_EQ(r.events.size(), 2u);
  EXPECT_EQ(r.events[0],
            std::make_pair(std::string("begin"), static_cast<QelExtractableI*>(x.getImpl())));
  EXPECT_EQ(r.events[1],
            std::make_pair(std::string("end"), static_cast<QelExtractableI*>(x.getImpl())));
}

TEST_F(ExprTest, VariableCopyIsATermOnTheVariable) {
  QelIntVar i(env, 0, 5, "i");
  QelNumExprI* copy = i.getImpl()->makeCopy();
  ASSERT_TRUE(copy->isType(QelNumLinTermI::GetTypeInfo()));
  EXPECT_EQ(copy->getEnv(), envI());
  EXPECT_EQ(copy->getUseCount(), 0);
  EXPECT_EQ(LinearOf(copy), (LinTerms{{1.0, i.getImpl()}}));
  EXPECT_EQ(Show(copy), "i");
  EXPECT_EQ(Uses(i), 1);
}

TEST_F(ExprTest, VariableCloneHasSameBoundsAndTypeButNoName) {
  QelEnv other;
  QelIntVar i(env, 2, 7, "i");
  auto* c = static_cast<QelNumVarI*>(other.getImpl()->getClone(i.getImpl()));
  EXPECT_NE(c, i.getImpl());
  EXPECT_EQ(c->getEnv(), other.getImpl());
  EXPECT_EQ(c->getLB(), 2);
  EXPECT_EQ(c->getUB(), 7);
  EXPECT_EQ(c->getType(), QelVarType::Int);
  EXPECT_EQ(c->getName(), nullptr);
  other.end();
}

// ---------------------------------------------------------------------------
// Operators
// ---------------------------------------------------------------------------

TEST_F(ExprTest, SumOfVariablesIsALinearTerm) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + y;
  QelNumLinTermI* t = Term(e);
  EXPECT_EQ(t->getEnv(), envI());
  EXPECT_EQ(LinearOf(e), (LinTerms{{1.0, x.getImpl()}, {1.0, y.getImpl()}}));
  EXPECT_TRUE(QuadOf(e).empty());
  EXPECT_EQ(e.getConstant(), 0);
  EXPECT_EQ(Show(e), "x + y");
  EXPECT_TRUE(t->isLinear());
  EXPECT_TRUE(t->isRefCountedExpr());
  EXPECT_EQ(t->getUseCount(), 0);
  EXPECT_EQ(Uses(x), 1);
  EXPECT_EQ(Uses(y), 1);
}

TEST_F(ExprTest, OperatorsPrintTheExpectedTerms) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  EXPECT_EQ(Show(2.0 * x - 3.0 * y + 4.0), "2 * x - 3 * y + 4");
  EXPECT_EQ(Show(-x), "-x");
  EXPECT_EQ(Show(-x - y), "-x - y");
  EXPECT_EQ(Show(x - 1.0), "x - 1");
  EXPECT_EQ(Show(5.0 - x), "-x + 5");
  EXPECT_EQ(Show(1.5 + x), "x + 1.5");
  EXPECT_EQ(Show(x * 2.5), "2.5 * x");
  EXPECT_EQ(Show(-2.0 * x + y), "-2 * x + y");
  EXPECT_EQ(Show(x - 2.5 * y), "x - 2.5 * y");
  EXPECT_EQ(Show(x + 0.25 * y), "x + 0.25 * y");
  EXPECT_EQ(Show(x - y + x), "x - y + x");
  EXPECT_EQ(Show(x * 0.0), "0");  // a zero coefficient is not written
  EXPECT_EQ(Show(x + 0.0), "x");
}

TEST_F(ExprTest, ConstantsPrintAlone) {
  EXPECT_EQ(Show(QelNumExpr(env, 3)), "3");
  EXPECT_EQ(Show(QelNumExpr(env, -2.5)), "-2.5");
  EXPECT_EQ(Show(QelNumExpr(env, 0)), "0");
  EXPECT_EQ(Show(QelNumExpr(env, -0.0)), "0");
  QelIntExpr k(env, 7);
  EXPECT_TRUE(k.getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  EXPECT_EQ(k.getConstant(), 7);
  EXPECT_EQ(Show(k), "7");
  QelNumExpr c(env, 1.5);
  EXPECT_TRUE(c.getImpl()->isType(QelNumLinTermI::GetTypeInfo()));
  EXPECT_EQ(c.getConstant(), 1.5);
  EXPECT_FALSE(c.getLinearIterator().ok());
  EXPECT_FALSE(c.getQuadIterator().ok());
}

TEST_F(ExprTest, TermOperandsAreCopiedNotHeld) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + y;
  QelNumExpr f = e * 2.0 + x;
  EXPECT_EQ(Show(f), "2 * x + 2 * y + x");
  EXPECT_EQ(LinearOf(f), (LinTerms{{2.0, x.getImpl()}, {2.0, y.getImpl()}, {1.0, x.getImpl()}}));
  EXPECT_EQ(Uses(e), 0);
  // x: once in e, twice in f (e * 2 was a temporary, extended in place
  // into f).
  EXPECT_EQ(Uses(x), 3);
  EXPECT_EQ(Uses(y), 2);
}

TEST_F(ExprTest, IntegerOperatorsGiveIntegerTerms) {
  QelIntVar i(env, 0, 10, "i"), j(env, 0, 10, "j");
  QelIntExpr e = 2 * i + j - 1;
  QelIntLinTermI* t = IntTerm(e);
  EXPECT_TRUE(t->isIntegral());
  EXPECT_TRUE(t->isType(QelIntExprI::GetTypeInfo()));
  EXPECT_EQ(Show(e), "2 * i + j - 1");
  EXPECT_EQ(LinearOf(e), (LinTerms{{2.0, i.getImpl()}, {1.0, j.getImpl()}}));
  EXPECT_EQ(e.getConstant(), -1);

  EXPECT_EQ(Show(-i), "-i");
  EXPECT_EQ(Show(3 - i), "-i + 3");
  EXPECT_EQ(Show(i * 4), "4 * i");
  EXPECT_EQ(Show(i - j), "i - j");
  EXPECT_EQ(Show(QelInt(5) + i), "i + 5");
  EXPECT_TRUE((i - j).getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  EXPECT_TRUE((-i).getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
}

TEST_F(ExprTest, FloatingPointNumbersWithIntegerExpressionsGiveNumericTerms) {
  QelIntVar i(env, 0, 10, "i"), j(env, 0, 10, "j");
  QelNumExpr e = i * j + 0.5;
  EXPECT_TRUE(e.getImpl()->isType(QelNumLinTermI::GetTypeInfo()));
  EXPECT_FALSE(e.getImpl()->isType(QelIntExprI::GetTypeInfo()));
  EXPECT_EQ(Show(e), "i * j + 0.5");
  EXPECT_EQ(Show(0.5 * i), "0.5 * i");
  EXPECT_EQ(Show(1.5 - i), "-i + 1.5");
}

TEST_F(ExprTest, ProductOfLinearTermsIsQuadratic) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = (x + 1.0) * (y + 2.0);
  QelNumLinTermI* t = Term(e);
  EXPECT_EQ(Show(e), "2 * x + y + x * y + 2");
  EXPECT_EQ(LinearOf(e), (LinTerms{{2.0, x.getImpl()}, {1.0, y.getImpl()}}));
  EXPECT_EQ(QuadOf(e), (QuadTerms{{1.0, x.getImpl(), y.getImpl()}}));
  EXPECT_EQ(e.getConstant(), 2);
  EXPECT_FALSE(t->isLinear());
  EXPECT_FALSE(t->containsAggregate());

  EXPECT_EQ(Show(x * y), "x * y");
  EXPECT_EQ(Show(x * x), "x * x");
  EXPECT_EQ(Show(2.0 * (x * y)), "2 * x * y");
  EXPECT_EQ(Show(x - x * y), "x - x * y");
  EXPECT_EQ(Show((x - y) * (x + y)), "x * x + x * y - y * x - y * y");
}

TEST_F(ExprTest, ProductWithAConstantTermIsScaled) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr three(env, 3);
  EXPECT_EQ(Show(three * x), "3 * x");
  EXPECT_EQ(Show((x * y) * three), "3 * x * y");
  EXPECT_EQ(Show(three * three), "9");
  QelNumExpr p = (x * y) * x;
  EXPECT_EQ(Show(p * three), "3 * ((x * y) * (x))");
}

TEST_F(ExprTest, ProductBeyondDegreeTwoHoldsItsFactors) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelNumExpr xy = x * y;
  QelNumExpr p = xy * z;
  ASSERT_TRUE(p.getImpl()->isType(QelNumProductI::GetTypeInfo()));
  auto* prod = static_cast<QelNumProductI*>(p.getImpl());
  EXPECT_EQ(prod->getLeft(), xy.getImpl());
  EXPECT_EQ(prod->getRight(), z.getImpl());
  EXPECT_EQ(Uses(xy), 1);
  EXPECT_EQ(Uses(z), 1);
  EXPECT_EQ(Uses(p), 0);
  EXPECT_EQ(Show(p), "(x * y) * (z)");
  EXPECT_FALSE(prod->isLinear());
  EXPECT_TRUE(prod->isRefCountedExpr());
  EXPECT_FALSE(prod->isIntegral());
  EXPECT_EQ(prod->getConstant(), 0);
  EXPECT_FALSE(p.getLinearIterator().ok());
  EXPECT_FALSE(p.getQuadIterator().ok());

  // A product inside a sum is an aggregate term.
  QelNumExpr s = p + x;
  QelNumLinTermI* t = Term(s);
  EXPECT_TRUE(t->containsAggregate());
  EXPECT_FALSE(t->isLinear());
  EXPECT_EQ(Show(s), "x + ((x * y) * (z))");
  EXPECT_EQ(AggregatesOf(t->getParts()),
            (std::vector<std::pair<double, QelNumExprI*>>{{1.0, p.getImpl()}}));
  EXPECT_EQ(Uses(p), 1);
  EXPECT_EQ(Show(-p), "-((x * y) * (z))");
  EXPECT_EQ(Show(1.0 - 2.0 * p), "-2 * ((x * y) * (z)) + 1");
  EXPECT_EQ(Show(x - p), "x - ((x * y) * (z))");

  // A term with an aggregate has unknown degree: its products are products.
  QelNumExpr q = s * y;
  EXPECT_TRUE(q.getImpl()->isType(QelNumProductI::GetTypeInfo()));
  EXPECT_EQ(Show(q), "(x + ((x * y) * (z))) * (y)");
}

TEST_F(ExprTest, IntegerProductBeyondDegreeTwoIsAnIntegerTermWithAnAggregate) {
  QelIntVar i(env, 0, 10, "i"), j(env, 0, 10, "j"), k(env, 0, 10, "k");
  QelIntExpr ij = i * j;
  EXPECT_TRUE(ij.getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  EXPECT_EQ(QuadOf(ij), (QuadTerms{{1.0, i.getImpl(), j.getImpl()}}));
  QelIntExpr e = ij * k;
  QelIntLinTermI* t = IntTerm(e);
  EXPECT_EQ(Show(e), "((i * j) * (k))");
  auto aggs = AggregatesOf(t->getParts());
  ASSERT_EQ(aggs.size(), 1u);
  EXPECT_EQ(aggs[0].first, 1.0);
  ASSERT_TRUE(aggs[0].second->isType(QelNumProductI::GetTypeInfo()));
  auto* prod = static_cast<QelNumProductI*>(aggs[0].second);
  EXPECT_EQ(prod->getUseCount(), 1);
  EXPECT_EQ(prod->getLeft(), ij.getImpl());
  EXPECT_EQ(prod->getRight(), k.getImpl());
  EXPECT_TRUE(prod->isIntegral());
  EXPECT_FALSE(t->isLinear());
}

TEST_F(ExprTest, SelfAdditionReadsOnlyTheTermsPresentBefore) {
  QelNumVar x(env, 0, 10, "x");
  QelNumExpr e = x + 1.0;
  EXPECT_EQ(Show(e + e), "x + x + 2");
  QelNumLinTermI* t = Term(e);
  t->addScaled(t, 2);
  EXPECT_EQ(Show(e), "x + 2 * x + 3");
  QelNumExpr q = x * x + x;
  Term(q)->addScaled(q.getImpl(), -1);
  EXPECT_EQ(Show(q), "x - x + x * x - x * x");
}

TEST_F(ExprTest, EmptyOperandsAreRefused) {
  QelNumVar x(env, 0, 10, "x");
  QelNumExpr none;
  EXPECT_THROW(x + none, QelEmptyHandleException);
  EXPECT_THROW(none * 2.0, QelEmptyHandleException);
  EXPECT_THROW(x * none, QelEmptyHandleException);
  EXPECT_THROW(-none, QelEmptyHandleException);
  EXPECT_THROW(QelNumExpr(QelEnv(static_cast<QelEnvI*>(nullptr)), 1.0), QelEmptyHandleException);
  EXPECT_THROW(none.getLinearIterator(), QelEmptyHandleException);
}

// ---------------------------------------------------------------------------
// Evaluation
// ---------------------------------------------------------------------------

TEST_F(ExprTest, EvaluationAgainstAnAlgorithm) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelIntVar i(env, 0, 10, "i"), j(env, 0, 10, "j");
  QelAlgorithm alg(env);
  alg.setValue(x, 3);
  alg.setValue(y, 4);
  alg.setValue(z, 5);
  alg.setValue(i, 2);
  alg.setValue(j, 7);

  EXPECT_EQ(alg.getValue(2.0 * x - 3.0 * y + 4.0), -2);
  EXPECT_EQ(alg.getValue((x + 1.0) * (y + 2.0)), 24);
  QelNumExpr p = (x * y) * z;
  EXPECT_EQ(alg.getValue(p), 60);
  EXPECT_EQ(alg.getValue(x + 0.5 * p - 1.0), 32);
  EXPECT_EQ(alg.getValue(2 * i + j - 1), 10);
  EXPECT_EQ(alg.getValue(i * j * i), 28);
  EXPECT_EQ(alg.getValue(QelNumExpr(env, 2.5)), 2.5);
  EXPECT_EQ(alg.getValue(i * j + 0.5), 14.5);
  alg.end();
}

// ---------------------------------------------------------------------------
// setCoef, setQuadCoef, normalize, zolNormalization
// ---------------------------------------------------------------------------

class TermOpsTest : public ExprTest {
 protected:
  void SetUp() override {
    x = QelNumVar(env, 0, 10, "x");
    y = QelNumVar(env, 0, 10, "y");
    z = QelNumVar(env, 0, 10, "z");
    w = QelNumVar(env, 0, 10, "w");
    t = QelNewObject<QelNumLinTermI>(envI(), envI());
    e = QelNumExpr(t);
  }
  QelNumVar x, y, z, w;
  QelNumLinTermI* t = nullptr;
  QelNumExpr e;
};

TEST_F(TermOpsTest, SetCoefReturnsTheSumAndKeepsTheFirstPosition) {
  t->addTerm(1, y.getImpl());
  t->addTerm(2, x.getImpl());
  t->addTerm(1, z.getImpl());
  t->addTerm(3, x.getImpl());
  EXPECT_EQ(Uses(x), 2);

  EXPECT_EQ(t->setCoef(x, 7), 5);
  EXPECT_EQ(LinearOf(e), (LinTerms{{1.0, y.getImpl()}, {7.0, x.getImpl()}, {1.0, z.getImpl()}}));
  EXPECT_EQ(Uses(x), 1);
  EXPECT_EQ(Show(e), "y + 7 * x + z");

  // The tail is right: a new term goes at the end.
  t->addTerm(1, w.getImpl());
  EXPECT_EQ(Show(e), "y + 7 * x + z + w");
}

TEST_F(TermOpsTest, SetCoefToZeroRemovesEveryNodeOfTheVariable) {
  t->addTerm(1, x.getImpl());
  t->addTerm(1, y.getImpl());
  t->addTerm(-4, x.getImpl());
  EXPECT_EQ(t->getParts().decision, x.getImpl());
  EXPECT_EQ(t->setCoef(x, 0), -3);
  EXPECT_EQ(LinearOf(e), (LinTerms{{1.0, y.getImpl()}}));
  EXPECT_EQ(Uses(x), 0);
  EXPECT_EQ(Uses(y), 1);
  EXPECT_EQ(t->getParts().decision, y.getImpl());
  EXPECT_EQ(t->getParts().tail, t->getParts().head);

  t->addTerm(2, z.getImpl());
  EXPECT_EQ(Show(e), "y + 2 * z");
  EXPECT_EQ(t->setCoef(z, 0), 2);
  EXPECT_EQ(t->setCoef(y, 0), 1);
  EXPECT_EQ(t->getParts().head, nullptr);
  EXPECT_EQ(t->getParts().tail, nullptr);
  EXPECT_EQ(t->getParts().decision, nullptr);
  EXPECT_EQ(Show(e), "0");
}

TEST_F(TermOpsTest, SetCoefOfAnAbsentVariableAppends) {
  t->addTerm(1, x.getImpl());
  EXPECT_EQ(t->setCoef(z, 0), 0);
  EXPECT_EQ(LinearOf(e), (LinTerms{{1.0, x.getImpl()}}));
  EXPECT_EQ(t->setCoef(z, 4), 0);
  EXPECT_EQ(LinearOf(e), (LinTerms{{1.0, x.getImpl()}, {4.0, z.getImpl()}}));
  EXPECT_EQ(t->getParts().decision, z.getImpl());
  EXPECT_EQ(Uses(z), 1);
  EXPECT_EQ(t->setCoef(z, -1), 4);
  EXPECT_EQ(Show(e), "x - z");
  EXPECT_THROW(t->setCoef(QelNumVar(), 1), QelEmptyHandleException);
}

TEST_F(TermOpsTest, SetCoefOverArrays) {
  t->addTerm(2, x.getImpl());
  t->addTerm(3, y.getImpl());
  QelNumVarArray xs(env, 0);
  xs.add(x);
  xs.add(z);
  xs.add(y);
  QelNumArray coefs(env, 3);
  coefs.set(0, 5);
  coefs.set(1, 6);
  coefs.set(2, 0);
  QelNumArray previous(env, 1);
  t->setCoef(xs, coefs, previous);
  ASSERT_EQ(previous.getSize(), 3);
  EXPECT_EQ(previous[0], 2);
  EXPECT_EQ(previous[1], 0);
  EXPECT_EQ(previous[2], 3);
  EXPECT_EQ(Show(e), "5 * x + 6 * z");

  QelNumArray shortCoefs(env, 2);
  try {
    t->setCoef(xs, shortCoefs, previous);
    ADD_FAILURE() << "no exception";
  } catch (const QelWrongUsage& ex) {
    EXPECT_STREQ(ex.getMessage(), "QelNumLinTermI::setCoef: arrays of different sizes");
  }
  EXPECT_EQ(Show(e), "5 * x + 6 * z");
  xs.end();
  coefs.end();
  previous.end();
  shortCoefs.end();
}

TEST_F(TermOpsTest, SetQuadCoefWorksOnTheUnorderedPair) {
  t->addQuadTerm(2, x.getImpl(), y.getImpl());
  t->addQuadTerm(1, x.getImpl(), x.getImpl());
  t->addQuadTerm(3, y.getImpl(), x.getImpl());
  EXPECT_EQ(Uses(x), 4);
  EXPECT_EQ(Uses(y), 2);

  EXPECT_EQ(t->setQuadCoef(y, x, 4), 5);
  EXPECT_EQ(QuadOf(e),
            (QuadTerms{{4.0, y.getImpl(), x.getImpl()}, {1.0, x.getImpl(), x.getImpl()}}));
  EXPECT_EQ(Uses(x), 3);
  EXPECT_EQ(Uses(y), 1);

  EXPECT_EQ(t->setQuadCoef(x, z, 0), 0);
  EXPECT_EQ(QuadOf(e).size(), 2u);
  EXPECT_EQ(t->setQuadCoef(x, z, 2), 0);
  EXPECT_EQ(QuadOf(e), (QuadTerms{{4.0, y.getImpl(), x.getImpl()},
                                  {1.0, x.getImpl(), x.getImpl()},
                                  {2.0, x.getImpl(), z.getImpl()}}));
  EXPECT_EQ(t->getParts().decision, x.getImpl());
  EXPECT_EQ(Uses(z), 1);

  EXPECT_EQ(t->setQuadCoef(x, x, 0), 1);
  EXPECT_EQ(t->setQuadCoef(x, y, 0), 4);
  EXPECT_EQ(QuadOf(e), (QuadTerms{{2.0, x.getImpl(), z.getImpl()}}));
  EXPECT_EQ(Uses(x), 1);
  EXPECT_EQ(Uses(y), 0);
  EXPECT_EQ(Show(e), "2 * x * z");
  EXPECT_EQ(t->setQuadCoef(z, x, 0), 2);
  EXPECT_EQ(t->getParts().quadHead, nullptr);
  EXPECT_EQ(t->getParts().decision, nullptr);
  EXPECT_TRUE(t->isLinear());
}

TEST_F(TermOpsTest, NormalizeMergesAndDropsZeros) {
  t->addTerm(1, x.getImpl());
  t->addTerm(1, y.getImpl());
  t->addTerm(2, x.getImpl());
  t->addTerm(-1, y.getImpl());
  t->addTerm(0, z.getImpl());
  t->addQuadTerm(1, x.getImpl(), y.getImpl());
  t->addQuadTerm(2, y.getImpl(), x.getImpl());
  t->addQuadTerm(0, w.getImpl(), w.getImpl());
  t->addQuadTerm(3, x.getImpl(), x.getImpl());
  t->addQuadTerm(-3, x.getImpl(), x.getImpl());
  t->addQuadTerm(1, z.getImpl(), x.getImpl());
  t->setConstant(4);
  t->normalize();
  EXPECT_EQ(LinearOf(e), (LinTerms{{3.0, x.getImpl()}}));
  EXPECT_EQ(QuadOf(e),
            (QuadTerms{{3.0, x.getImpl(), y.getImpl()}, {1.0, z.getImpl(), x.getImpl()}}));
  EXPECT_EQ(e.getConstant(), 4);
  EXPECT_EQ(Show(e), "3 * x + 3 * x * y + z * x + 4");
  EXPECT_EQ(Uses(x), 3);
  EXPECT_EQ(Uses(y), 1);
  EXPECT_EQ(Uses(z), 1);
  EXPECT_EQ(Uses(w), 0);
  EXPECT_EQ(t->getParts().tail, t->getParts().head);
  EXPECT_EQ(t->getParts().decision, x.getImpl());
}

TEST_F(TermOpsTest, NormalizeCanEmptyTheTerm) {
  QelNumExpr d = x - x;
  QelNumLinTermI* dt = Term(d);
  EXPECT_EQ(Show(d), "x - x");
  dt->normalize();
  EXPECT_EQ(Show(d), "0");
  EXPECT_EQ(dt->getParts().head, nullptr);
  EXPECT_EQ(dt->getParts().tail, nullptr);
  EXPECT_EQ(dt->getParts().decision, nullptr);
  EXPECT_EQ(Uses(x), 0);
  // The tail was reset: adding works again.
  dt->addTerm(1, y.getImpl());
  EXPECT_EQ(Show(d), "y");
}

TEST_F(TermOpsTest, ZolNormalizationLinearizesBooleanSquares) {
  QelBoolVar b(env, "b"), c(env, "c");
  QelIntVar i(env, 0, 5, "i");
  t->addTerm(1, x.getImpl());
  t->addQuadTerm(2, b.getImpl(), b.getImpl());
  t->addQuadTerm(1, b.getImpl(), c.getImpl());
  t->addQuadTerm(3, i.getImpl(), i.getImpl());
  t->addQuadTerm(-1, c.getImpl(), c.getImpl());
  EXPECT_EQ(Uses(b), 3);
  EXPECT_EQ(Uses(c), 3);
  t->zolNormalization();
  EXPECT_EQ(LinearOf(e), (LinTerms{{1.0, x.getImpl()}, {2.0, b.getImpl()}, {-1.0, c.getImpl()}}));
  EXPECT_EQ(QuadOf(e),
            (QuadTerms{{1.0, b.getImpl(), c.getImpl()}, {3.0, i.getImpl(), i.getImpl()}}));
  EXPECT_EQ(Show(e), "x + 2 * b - c + b * c + 3 * i * i");
  EXPECT_EQ(Uses(b), 2);
  EXPECT_EQ(Uses(c), 2);
  EXPECT_EQ(Uses(i), 2);
  QelAlgorithm alg(env);
  alg.setValue(x, 1);
  alg.setValue(b, 1);
  alg.setValue(c, 1);
  alg.setValue(i, 2);
  EXPECT_EQ(alg.getValue(e), 1 + 2 - 1 + 1 + 12);
  alg.end();
}

TEST_F(TermOpsTest, ContainsAggregateAndLinearity) {
  t->addTerm(1, x.getImpl());
  EXPECT_FALSE(t->containsAggregate());
  EXPECT_TRUE(t->isLinear());
  EXPECT_NO_THROW(QelTestIsLinear(t));
  EXPECT_NO_THROW(QelTestIsLinear(x.getImpl()));

  QelNumExpr q = x * y;
  try {
    QelTestIsLinear(q.getImpl());
    ADD_FAILURE() << "no exception";
  } catch (const QelWrongUsage& ex) {
    EXPECT_STREQ(ex.getMessage(), "QelTestIsLinear: expression is not linear");
  }
  QelNumExpr p = q * z;
  EXPECT_THROW(QelTestIsLinear(p.getImpl()), QelWrongUsage);

  t->addAggregate(2, p.getImpl());
  EXPECT_TRUE(t->containsAggregate());
  EXPECT_FALSE(t->isLinear());
  EXPECT_EQ(Uses(p), 1);
  EXPECT_THROW(QelTestIsLinear(t), QelWrongUsage);
  EXPECT_EQ(Show(e), "x + 2 * ((x * y) * (z))");
}

TEST_F(TermOpsTest, AppendTermTakesTheNode) {
  QelLinTermNode* node = envI()->newTerm(y.getImpl(), 2.5);
  EXPECT_EQ(node->next, nullptr);
  EXPECT_EQ(node->coef, 2.5);
  EXPECT_EQ(node->var, y.getImpl());
  t->addTerm(1, x.getImpl());
  t->appendTerm(node);
  EXPECT_EQ(t->getParts().tail, node);
  EXPECT_EQ(t->getParts().decision, y.getImpl());
  EXPECT_EQ(Uses(y), 1);
  EXPECT_EQ(Show(e), "x + 2.5 * y");
}

TEST_F(TermOpsTest, IntegerTermsRefuseFloatVariables) {
  QelIntVar i(env, 0, 5, "i");
  auto* it = QelNewObject<QelIntLinTermI>(envI(), envI(), QelInt(2));
  QelIntExpr ie(it);
  it->addTerm(3, i.getImpl());
  it->addQuadTerm(1, i.getImpl(), i.getImpl());
  EXPECT_EQ(Show(ie), "3 * i + i * i + 2");
  try {
    it->addTerm(1, x.getImpl());
    ADD_FAILURE() << "no exception";
  } catch (const QelWrongUsage& ex) {
    EXPECT_STREQ(ex.getMessage(), "QelIntLinTermI::addTerm: the variable is not integral: x");
  }
  // Unnamed, the refused variable is given by its class and id, the refused
  // expression as it prints.
  QelNumVar unnamed(env, 0, 1);
  EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>(
                [&] { it->addQuadTerm(1, i.getImpl(), unnamed.getImpl()); }),
            "QelIntLinTermI::addQuadTerm: a variable is not integral: QelNumVar" +
                std::to_string(unnamed.getId()));
  QelNumExpr scaled = 0.5 * i + 1;
  EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>([&] { it->addAggregate(1, scaled.getImpl()); }),
            "QelIntLinTermI::addAggregate: the expression is not integral: 0.5 * i + 1");
  EXPECT_EQ(Show(ie), "3 * i + i * i + 2");  // nothing changed
  scaled.end();
  unnamed.end();
  EXPECT_THROW(it->addQuadTerm(1, i.getImpl(), x.getImpl()), QelWrongUsage);
  EXPECT_THROW(it->addScaled(x.getImpl(), 2), QelWrongUsage);
  QelNumExpr half = i + 0.5;
  EXPECT_THROW(it->addScaled(half.getImpl(), 1), QelWrongUsage);
  // A numeric term whose parts are all integral is accepted.
  QelNumExpr whole = i + 1.0;
  it->addScaled(whole.getImpl(), 2);
  EXPECT_EQ(Show(ie), "3 * i + 2 * i + i * i + 4");
  EXPECT_EQ(Uses(i), 4 + 1 + 1);
}

// ---------------------------------------------------------------------------
// takeForKeeping, makeCopy, makeClone
// ---------------------------------------------------------------------------

TEST_F(ExprTest, TakeForKeeping) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelIntVar i(env, 0, 10, "i");
  QelNumExpr e = x + y;
  EXPECT_EQ(e.getImpl()->takeForKeeping(), e.getImpl());

  QelNumLinTermI* kx = x.getImpl()->takeForKeeping();
  EXPECT_EQ(LinearOf(kx), (LinTerms{{1.0, x.getImpl()}}));
  EXPECT_EQ(kx->getUseCount(), 0);

  QelIntExpr ie = 2 * i + 3;
  QelNumLinTermI* ki = ie.getImpl()->takeForKeeping();
  EXPECT_NE(static_cast<QelNumExprI*>(ki), ie.getImpl());
  EXPECT_EQ(ki->getRttiTypeName(), std::string("QelNumLinTermI"));
  EXPECT_EQ(Show(ki), "2 * i + 3");

  QelNumExpr p = (x * y) * x;
  QelNumLinTermI* kp = p.getImpl()->takeForKeeping();
  EXPECT_EQ(AggregatesOf(kp->getParts()),
            (std::vector<std::pair<double, QelNumExprI*>>{{1.0, p.getImpl()}}));
  EXPECT_EQ(Uses(p), 1);
  EXPECT_TRUE(kp->containsAggregate());
}

TEST_F(ExprTest, CopiesShareTheVariables) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelIntVar i(env, 0, 10, "i");
  QelNumExpr e = 2.0 * x + x * y - 1.0;
  QelNumExprI* c = e.getImpl()->makeCopy();
  EXPECT_NE(c, e.getImpl());
  EXPECT_EQ(c->getRttiTypeName(), std::string("QelNumLinTermI"));
  EXPECT_EQ(c->getEnv(), envI());
  EXPECT_EQ(c->getUseCount(), 0);
  EXPECT_EQ(LinearOf(c), LinearOf(e));
  EXPECT_EQ(QuadOf(c), QuadOf(e));
  EXPECT_EQ(Show(c), "2 * x + x * y - 1");

  QelIntExpr ie = 3 * i - 2;
  QelNumExprI* ic = ie.getImpl()->makeCopy();
  EXPECT_EQ(ic->getRttiTypeName(), std::string("QelIntLinTermI"));
  EXPECT_EQ(Show(ic), "3 * i - 2");

  QelNumExpr xy = x * y;
  QelNumExpr p = xy * x;
  QelNumExprI* pc = p.getImpl()->makeCopy();
  ASSERT_TRUE(pc->isType(QelNumProductI::GetTypeInfo()));
  EXPECT_EQ(static_cast<QelNumProductI*>(pc)->getLeft(), xy.getImpl());
  EXPECT_EQ(static_cast<QelNumProductI*>(pc)->getRight(), x.getImpl());
  EXPECT_EQ(Uses(xy), 2);
  EXPECT_EQ(pc->getUseCount(), 0);
}

TEST_F(ExprTest, ClonesReplaceEveryVariableOnce) {
  QelEnv other;
  QelNumVar x(env, 0, 10, "x"), y(env, 1, 9, "y");
  QelNumExpr e = 2.0 * x + x * y + 1.0;
  e.setName("e");
  QelExtractableI* c = other.getImpl()->getClone(e.getImpl());
  ASSERT_TRUE(c->isType(QelNumLinTermI::GetTypeInfo()));
  auto* ct = static_cast<QelNumLinTermI*>(c);
  EXPECT_EQ(ct->getEnv(), other.getImpl());
  EXPECT_EQ(ct->getName(), nullptr);
  EXPECT_EQ(ct->getUseCount(), 0);
  LinTerms lin = LinearOf(ct);
  QuadTerms quad = QuadOf(ct);
  ASSERT_EQ(lin.size(), 1u);
  ASSERT_EQ(quad.size(), 1u);
  QelNumVarI* cx = lin[0].second;
  EXPECT_NE(cx, x.getImpl());
  EXPECT_EQ(cx->getEnv(), other.getImpl());
  EXPECT_EQ(std::get<1>(quad[0]), cx);
  QelNumVarI* cy = std::get<2>(quad[0]);
  EXPECT_EQ(cy->getLB(), 1);
  EXPECT_EQ(cy->getUB(), 9);
  EXPECT_EQ(cx->getUseCount(), 2);
  const std::string sx = "QelNumVar" + std::to_string(cx->getId());
  const std::string sy = "QelNumVar" + std::to_string(cy->getId());
  EXPECT_EQ(Show(ct), "2 * " + sx + " + " + sx + " * " + sy + " + 1");
  EXPECT_EQ(other.getImpl()->getNumberOfExtractables(), 3);

  QelIntVar i(env, 0, 3, "i"), j(env, 0, 3, "j"), k(env, 0, 3, "k");
  QelIntExpr ip = (i * j) * k;
  QelExtractableI* ic = other.getImpl()->getClone(ip.getImpl());
  ASSERT_TRUE(ic->isType(QelIntLinTermI::GetTypeInfo()));
  auto aggs = AggregatesOf(static_cast<QelIntLinTermI*>(ic)->getParts());
  ASSERT_EQ(aggs.size(), 1u);
  ASSERT_TRUE(aggs[0].second->isType(QelNumProductI::GetTypeInfo()));
  auto* cp = static_cast<QelNumProductI*>(aggs[0].second);
  EXPECT_EQ(cp->getEnv(), other.getImpl());
  EXPECT_EQ(cp->getUseCount(), 1);
  EXPECT_TRUE(cp->getLeft()->isType(QelIntLinTermI::GetTypeInfo()));
  EXPECT_EQ(cp->getLeft()->getUseCount(), 1);
  EXPECT_EQ(cp->getLeft()->getEnv(), other.getImpl());
  EXPECT_EQ(static_cast<QelNumVarI*>(cp->getRight())->getType(), QelVarType::Int);

  QelAlgorithm alg(other);
  alg.setValue(QelNumVar(cx), 2);
  alg.setValue(QelNumVar(cy), 5);
  EXPECT_EQ(alg.getValue(QelNumExpr(ct)), 2 * 2 + 2 * 5 + 1);
  alg.end();
  other.end();
}

// ---------------------------------------------------------------------------
// Use counts and ending
// ---------------------------------------------------------------------------

TEST_F(ExprTest, ReleasingTheLastUseEndsALinearTerm) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + y;
  QelInt id = e.getId();
  QelInt before = envI()->getNumberOfExtractables();
  e.getImpl()->lockExpr();
  e.getImpl()->lockExpr();
  EXPECT_EQ(Uses(e), 2);
  envI()->release(e.getImpl());
  EXPECT_EQ(Uses(e), 1);
  EXPECT_EQ(envI()->getExtractable(id), e.getImpl());
  envI()->release(e.getImpl());
  EXPECT_EQ(envI()->getNumberOfExtractables(), before - 1);
  EXPECT_EQ(envI()->getExtractable(id), nullptr);
  EXPECT_EQ(Uses(x), 0);
  EXPECT_EQ(Uses(y), 0);
}

TEST_F(ExprTest, ReleasingAVariableDoesNotEndIt) {
  QelNumVar x(env, 0, 10, "x");
  x.getImpl()->lockExpr();
  envI()->release(x.getImpl());
  EXPECT_EQ(Uses(x), 0);
  EXPECT_EQ(envI()->getExtractable(x.getId()), x.getImpl());
}

TEST_F(ExprTest, ATermBeingRemovedIsNotEndedByARelease) {
  QelNumVar x(env, 0, 10, "x");
  QelNumExpr e = x + 1.0;
  envI()->mark(e.getImpl());
  e.getImpl()->lockExpr();
  envI()->release(e.getImpl());
  envI()->unmark(e.getImpl());
  EXPECT_EQ(envI()->getExtractable(e.getId()), e.getImpl());
  EXPECT_EQ(Uses(e), 0);
}

TEST_F(ExprTest, EndingAProductReleasesItsFactors) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelNumExpr xy = x * y;
  QelNumExpr p = xy * z;
  QelInt xyId = xy.getId();
  QelInt pId = p.getId();
  QelInt before = envI()->getNumberOfExtractables();
  p.getImpl()->lockExpr();
  envI()->release(p.getImpl());
  EXPECT_EQ(envI()->getExtractable(pId), nullptr);
  EXPECT_EQ(envI()->getExtractable(xyId), nullptr);
  EXPECT_EQ(envI()->getNumberOfExtractables(), before - 2);
  EXPECT_EQ(Uses(z), 0);
  EXPECT_EQ(Uses(x), 0);
}

TEST_F(ExprTest, EndingATermReleasesItsAggregates) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelNumExpr xy = x * y;
  QelNumExpr p = xy * z;
  QelNumExpr s = p + x;
  QelInt ids[] = {xy.getId(), p.getId(), s.getId()};
  QelInt before = envI()->getNumberOfExtractables();
  s.end();
  for (QelInt id : ids) EXPECT_EQ(envI()->getExtractable(id), nullptr);
  EXPECT_EQ(envI()->getNumberOfExtractables(), before - 3);
  EXPECT_EQ(Uses(x), 0);
  EXPECT_EQ(Uses(z), 0);
}

TEST_F(ExprTest, EndingAVariableEndsTheTermsHoldingIt) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + y;
  QelNumExpr q = 2.0 * (y * y);
  QelInt eId = e.getId();
  QelInt qId = q.getId();
  x.end();
  EXPECT_EQ(envI()->getExtractable(eId), nullptr);
  EXPECT_EQ(envI()->getExtractable(qId), q.getImpl());
  // y is held twice by q (the y * y it was made from was a temporary,
  // scaled in place).
  EXPECT_EQ(Uses(y), 2);
  y.end();
  EXPECT_EQ(envI()->getExtractable(qId), nullptr);
}

TEST_F(ExprTest, ArraysLockAndReleaseTheirExpressions) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr a = x + 1.0;
  QelNumExpr b = y * 2.0;
  QelNumExprArray arr(env, 0);
  arr.add(a);
  arr.add(QelExtractable());
  arr.add(b);
  arr.add(x);
  arr.lockExprs();
  EXPECT_EQ(Uses(a), 1);
  EXPECT_EQ(Uses(b), 1);
  EXPECT_EQ(Uses(x), 2);
  QelInt aId = a.getId();
  QelInt bId = b.getId();
  arr.releaseExprs();
  EXPECT_EQ(envI()->getExtractable(aId), nullptr);
  EXPECT_EQ(envI()->getExtractable(bId), nullptr);
  EXPECT_EQ(envI()->getExtractable(x.getId()), x.getImpl());
  EXPECT_EQ(Uses(x), 0);
  arr.end();
}

// ---------------------------------------------------------------------------
// Decision word, bookkeeping, visit, iterators
// ---------------------------------------------------------------------------

TEST_F(ExprTest, DecisionWordMakesATermADecisionExpression) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + 1.0;
  EXPECT_EQ(Term(e)->getParts().decision, x.getImpl());
  EXPECT_TRUE(e.getImpl()->isDecisionExpr());
  QelNumExpr q = 3.0 * (y * x);
  EXPECT_EQ(Term(q)->getParts().decision, y.getImpl());
  EXPECT_TRUE(q.getImpl()->isDecisionExpr());

  QelNumExpr c(env, 3);
  EXPECT_EQ(Term(c)->getParts().decision, nullptr);
  EXPECT_FALSE(c.getImpl()->isDecisionExpr());
  Term(c)->addTerm(1, y.getImpl());
  EXPECT_TRUE(c.getImpl()->isDecisionExpr());

  // Only a product: no decision word, but a variable below it.
  QelNumExpr p = (x * y) * x;
  QelNumLinTermI* k = QelNewObject<QelNumLinTermI>(envI(), envI());
  k->addAggregate(1, p.getImpl());
  EXPECT_EQ(k->getParts().decision, nullptr);
  EXPECT_TRUE(k->isDecisionExpr());

  QelIntVar i(env, 0, 2, "i");
  QelIntExpr ie = i + 1;
  EXPECT_TRUE(ie.getImpl()->isDecisionExpr());
  EXPECT_FALSE(QelIntExpr(env, 4).getImpl()->isDecisionExpr());
}

TEST_F(ExprTest, ExtractionBookkeeping) {
  QelNumVar x(env, 0, 10, "x");
  QelNumExpr e = x + 1.0;
  QelNumLinTermI* t = Term(e);
  EXPECT_EQ(t->getExprUsed(), -1);
  EXPECT_EQ(t->getBookkeeping(), -1);
  t->setBookkeeping(5);
  EXPECT_EQ(t->getExprUsed(), 5);
  t->resetExprUsed();
  EXPECT_EQ(t->getExprUsed(), -1);

  QelIntVar i(env, 0, 2, "i");
  QelIntExpr ie = i + 1;
  QelIntLinTermI* it = IntTerm(ie);
  EXPECT_EQ(it->getExprUsed(), -1);
  it->getParts().exprUsed = 2;
  EXPECT_EQ(it->getExprUsed(), 2);
  it->resetExprUsed();
  EXPECT_EQ(it->getExprUsed(), -1);
}

TEST_F(ExprTest, VisitPresentsVariablesThenQuadraticThenAggregates) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelNumExpr p = (x * y) * z;
  QelNumLinTermI* t = QelNewObject<QelNumLinTermI>(envI(), envI());
  t->addAggregate(2, p.getImpl());
  t->addQuadTerm(1, y.getImpl(), z.getImpl());
  t->addTerm(1, z.getImpl());
  t->addTerm(3, x.getImpl());
  Recorder r;
  t->visitSubExtractables(&r);
  using Event = std::pair<std::string, QelExtractableI*>;
  std::vector<Event> expected = {{"begin", t},
                                 {"child", z.getImpl()},
                                 {"child", x.getImpl()},
                                 {"child", y.getImpl()},
                                 {"child", z.getImpl()},
                                 {"child", p.getImpl()},
                                 {"end", t}};
  EXPECT_EQ(r.events, expected);

  Recorder rp;
  p.getImpl()->visitSubExtractables(&rp);
  auto* prod = static_cast<QelNumProductI*>(p.getImpl());
  std::vector<Event> expectedProduct = {
      {"begin", prod}, {"child", prod->getLeft()}, {"child", z.getImpl()}, {"end", prod}};
  EXPECT_EQ(rp.events, expectedProduct);
}

TEST_F(ExprTest, IteratorsOverWhatIsNoTermAreEmpty) {
  QelNumVar x(env, 0, 10, "x");
  EXPECT_FALSE(x.getLinearIterator().ok());
  EXPECT_FALSE(x.getQuadIterator().ok());
  QelIntVar i(env, 0, 3, "i");
  QelIntExpr ie = i * i + 2 * i;
  EXPECT_EQ(LinearOf(ie), (LinTerms{{2.0, i.getImpl()}}));
  EXPECT_EQ(QuadOf(ie), (QuadTerms{{1.0, i.getImpl(), i.getImpl()}}));
  EXPECT_FALSE(QelNumExpr::LinearIterator(nullptr).ok());
  EXPECT_FALSE(QelNumExpr::QuadIterator(nullptr).ok());
}

// ---------------------------------------------------------------------------
// Variable arrays and sums
// ---------------------------------------------------------------------------

TEST_F(ExprTest, VariableArraysAndSums) {
  QelNumVarArray xs(env, 3, -1, 4);
  ASSERT_EQ(xs.getSize(), 3);
  for (long k = 0; k < 3; ++k) {
    EXPECT_EQ(xs[k].getLB(), -1);
    EXPECT_EQ(xs[k].getUB(), 4);
    EXPECT_EQ(xs[k].getImpl()->getType(), QelVarType::Float);
  }
  EXPECT_NE(xs[0].getImpl(), xs[1].getImpl());

  QelNumExpr s = QelSum(xs);
  EXPECT_TRUE(s.getImpl()->isType(QelNumLinTermI::GetTypeInfo()));
  EXPECT_EQ(LinearOf(s),
            (LinTerms{{1.0, xs[0].getImpl()}, {1.0, xs[1].getImpl()}, {1.0, xs[2].getImpl()}}));

  QelNumArray w(env, 3);
  w.set(0, 2);
  w.set(1, -1);
  w.set(2, 0.5);
  QelNumExpr sp = QelScalProd(xs, w);
  EXPECT_EQ(LinearOf(sp),
            (LinTerms{{2.0, xs[0].getImpl()}, {-1.0, xs[1].getImpl()}, {0.5, xs[2].getImpl()}}));
  QelNumArray shortW(env, 2);
  try {
    QelScalProd(xs, shortW);
    ADD_FAILURE() << "no exception";
  } catch (const QelWrongUsage& ex) {
    EXPECT_STREQ(ex.getMessage(), "QelScalProd: arrays of different sizes");
  }

  QelIntVarArray is(env, 2, 0, 5);
  EXPECT_EQ(is[0].getImpl()->getType(), QelVarType::Int);
  EXPECT_EQ(is[1].getLB(), 0);
  EXPECT_EQ(is[1].getUB(), 5);
  QelIntExpr si = QelSum(is);
  EXPECT_TRUE(si.getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  EXPECT_EQ(LinearOf(si), (LinTerms{{1.0, is[0].getImpl()}, {1.0, is[1].getImpl()}}));

  QelIntExprArray ie = is.toIntExprArray();
  EXPECT_NE(ie.getImpl(), is.getImpl());
  ASSERT_EQ(ie.getSize(), 2);
  EXPECT_EQ(ie[0].getImpl(), is[0].getImpl());
  EXPECT_EQ(ie[1].getImpl(), is[1].getImpl());

  QelNumExprArray mixed(env, 0);
  mixed.add(xs[0] * xs[1]);
  mixed.add(xs[2]);
  QelNumExpr sm = QelSum(mixed);
  EXPECT_EQ(QuadOf(sm), (QuadTerms{{1.0, xs[0].getImpl(), xs[1].getImpl()}}));
  EXPECT_EQ(LinearOf(sm), (LinTerms{{1.0, xs[2].getImpl()}}));

  QelNumExprArray empty(env, 0);
  QelNumExpr s0 = QelSum(empty);
  EXPECT_EQ(s0.getImpl()->getEnv(), envI());
  EXPECT_EQ(Show(s0), "0");

  mixed.add(QelExtractable());
  EXPECT_THROW(QelSum(mixed), QelEmptyHandleException);
  EXPECT_THROW(QelSum(QelNumExprArray()), QelEmptyHandleException);

  for (QelArrayBase* a : std::vector<QelArrayBase*>{&xs, &w, &shortW, &is, &ie, &mixed, &empty})
    a->end();
}

TEST_F(ExprTest, ScalarProductOfPlainVariablesKeepsTheirOrderAcrossBlocks) {
  // Enough variables for the arrays to be re-blocked into several blocks,
  // one variable twice.
  const long n = 9000;
  QelNumVarArray xs(env, 0);
  QelNumArray w(env, 0);
  LinTerms expected;
  for (long i = 0; i < n; ++i) {
    QelNumVar x = i == n - 1 ? xs[3] : QelNumVar(env, 0, 1);
    xs.add(x);
    w.add(0.25 * static_cast<double>(i) - 7);
    expected.emplace_back(w[i], x.getImpl());
  }
  ASSERT_GT(xs.getImpl()->getBlockCount(), 1);
  QelNumExpr sp = QelScalProd(xs, w);
  EXPECT_EQ(LinearOf(sp), expected);
  EXPECT_EQ(sp.getImpl()->getEnv(), envI());
  EXPECT_EQ(Term(sp)->getConstant(), 0);
  EXPECT_EQ(Term(sp)->getParts().decision, xs[3].getImpl());  // the last term's
  EXPECT_EQ(Uses(xs[0]), 1);
  EXPECT_EQ(Uses(xs[3]), 2);
  QelNumExpr s = QelSum(xs);
  LinTerms ones;
  for (long i = 0; i < n; ++i) ones.emplace_back(1.0, xs[i].getImpl());
  EXPECT_EQ(LinearOf(s), ones);
  EXPECT_EQ(Uses(xs[3]), 4);
  sp.end();
  s.end();
  EXPECT_EQ(Uses(xs[0]), 0);
  EXPECT_EQ(Uses(xs[3]), 0);
  xs.end();
  w.end();
}

TEST_F(ExprTest, ScalarProductOfOtherElementsAddsEachAsItIs) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelIntVar i(env, 0, 5, "i");
  QelBoolVar b(env, "b");
  QelNumExpr lin = 2 * y + 1;
  QelNumExpr quad = x * y;
  QelNumExpr cubic = (x * y) * z;
  ASSERT_TRUE(cubic.getImpl()->isType(QelNumProductI::GetTypeInfo()));
  QelNumExprI* product = cubic.getImpl();
  // A plain variable first, then other kinds, then plain variables again.
  QelNumExprArray xs(env, 0);
  for (const QelNumExpr& e :
       {QelNumExpr(x), lin, QelNumExpr(i), quad, QelNumExpr(b), QelNumExpr(product), QelNumExpr(z)})
    xs.add(e);
  QelNumArray w(env, 0);
  for (double c : {3.0, 2.0, 5.0, 4.0, 6.0, 7.0, 8.0}) w.add(c);
  QelNumExpr sp = QelScalProd(xs, w);
  EXPECT_EQ(LinearOf(sp), (LinTerms{{3.0, x.getImpl()},
                                    {4.0, y.getImpl()},
                                    {5.0, i.getImpl()},
                                    {6.0, b.getImpl()},
                                    {8.0, z.getImpl()}}));
  EXPECT_EQ(QuadOf(sp), (QuadTerms{{4.0, x.getImpl(), y.getImpl()}}));
  EXPECT_EQ((AggregatesOf(Term(sp)->getParts())),
            (std::vector<std::pair<double, QelNumExprI*>>{{7.0, product}}));
  EXPECT_EQ(Term(sp)->getConstant(), 2.0);
  // The same elements with the plain variables last but one.
  QelNumExprArray ys(env, 0);
  ys.add(lin);
  ys.add(x);
  ys.add(z);
  QelNumExpr s = QelSum(ys);
  EXPECT_EQ(LinearOf(s), (LinTerms{{2.0, y.getImpl()}, {1.0, x.getImpl()}, {1.0, z.getImpl()}}));
  EXPECT_EQ(Term(s)->getConstant(), 1.0);
  // An integer sum of integer and Boolean variables stays integral.
  QelIntExprArray is(env, 0);
  is.add(i);
  is.add(b);
  is.add(2 * i + 3);
  QelIntExpr si = QelSum(is);
  EXPECT_TRUE(si.getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  EXPECT_EQ(LinearOf(si), (LinTerms{{1.0, i.getImpl()}, {1.0, b.getImpl()}, {2.0, i.getImpl()}}));
  EXPECT_EQ(IntTerm(si)->getConstant(), 3.0);
  for (QelArrayBase* a : std::vector<QelArrayBase*>{&xs, &w, &ys, &is}) a->end();
}

TEST_F(ExprTest, ScalarProductRefusalsComeBeforeAnythingIsMade) {
  QelNumVar x(env, 0, 1, "x"), y(env, 0, 1, "y");
  QelNumArray w(env, 0);
  w.add(1);
  EXPECT_THROW(QelScalProd(QelNumExprArray(), w), QelEmptyHandleException);
  QelNumExprArray xs(env, 0);
  xs.add(x);
  xs.add(QelExtractable());
  xs.add(y);
  const QelInt objects = envI()->getNumberOfExtractables();
  const QelInt bytes = envI()->getBytesInUse();
  // A null element is found first, whatever the sizes.
  EXPECT_THROW(QelScalProd(xs, w), QelEmptyHandleException);
  w.add(2);
  w.add(3);
  EXPECT_THROW(QelScalProd(xs, w), QelEmptyHandleException);
  EXPECT_THROW(QelSum(xs), QelEmptyHandleException);
  EXPECT_EQ(envI()->getNumberOfExtractables(), objects);
  EXPECT_EQ(envI()->getBytesInUse(), bytes);
  EXPECT_EQ(Uses(x), 0);
  // Sizes that differ, also against an empty coefficient handle.
  auto messageOf = [](auto f) -> std::string {
    try {
      f();
    } catch (const QelWrongUsage& e) {
      return e.getMessage();
    }
    return "(nothing thrown)";
  };
  xs.remove(1);
  EXPECT_EQ(messageOf([&] { QelScalProd(xs, w); }), "QelScalProd: arrays of different sizes");
  EXPECT_EQ(messageOf([&] { QelScalProd(xs, QelNumArray()); }),
            "QelScalProd: arrays of different sizes");
  EXPECT_EQ(envI()->getNumberOfExtractables(), objects);
  EXPECT_EQ(Uses(x), 0);
  // No elements and no coefficients: the constant 0 of the array's
  // environment.
  QelNumExprArray none(env, 0);
  QelNumExpr zero = QelScalProd(none, QelNumArray());
  EXPECT_EQ(zero.getImpl()->getEnv(), envI());
  EXPECT_EQ(Show(zero), "0");
  for (QelArrayBase* a : std::vector<QelArrayBase*>{&xs, &w, &none}) a->end();
}

TEST_F(ExprTest, ScalarProductsTakeTheNodesAddingTermsWouldTake) {
  QelNumVarArray xs(env, 12, 0, 1);
  QelNumArray w(env, 12);
  for (long i = 0; i < 12; ++i) w.set(i, static_cast<double>(i + 1));
  // The same bytes as a term made empty and then given its terms one by one.
  QelInt before = envI()->getBytesInUse();
  auto* t = QelNewObject<QelNumLinTermI>(envI(), envI());
  for (long i = 0; i < 12; ++i) t->addTerm(w[i], xs[i].getImpl());
  const QelInt termByTerm = envI()->getBytesInUse() - before;
  t->end();
  before = envI()->getBytesInUse();
  QelNumExpr sp = QelScalProd(xs, w);
  EXPECT_EQ(envI()->getBytesInUse() - before, termByTerm);
  std::vector<const QelLinTermNode*> nodes;
  for (const QelLinTermNode* n = Term(sp)->getParts().head; n != nullptr; n = n->next)
    nodes.push_back(n);
  // Ended, its nodes are free blocks, which the next product takes back.
  sp.end();
  QelNumExpr again = QelScalProd(xs, w);
  EXPECT_EQ(envI()->getBytesInUse() - before, termByTerm);
  std::vector<const QelLinTermNode*> reused;
  for (const QelLinTermNode* n = Term(again)->getParts().head; n != nullptr; n = n->next)
    reused.push_back(n);
  std::sort(nodes.begin(), nodes.end());
  std::sort(reused.begin(), reused.end());
  EXPECT_EQ(reused, nodes);
  again.end();
  xs.end();
  w.end();
}

// ---------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------

TEST_F(ExprTest, EndingEverythingGivesTheMemoryBack) {
  // Measured right after the environment was made.
  const QelInt baseline = envI()->getBytesInUse();
  {
    QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
    QelIntVar i(env, 0, 10, "i"), j(env, 0, 10, "j");
    QelBoolVar b(env, "b");
    QelNumExpr e = 2.0 * x - 3.0 * y + 4.0;
    QelNumExpr q = (x + 1.0) * (y + 2.0);
    QelNumExpr p = (x * y) * z;
    QelNumExpr s = p + x + q;
    QelIntExpr ie = (i * j) * i + 2 * j;
    QelNumExpr bb = b * b + x * x;
    Term(bb)->zolNormalization();
    Term(bb)->normalize();
    Term(s)->setCoef(x, 5);
    Term(s)->setQuadCoef(y, x, 0);
    Term(s)->normalize();
    QelNumExprI* copy = s.getImpl()->makeCopy();
    QelNumLinTermI* kept = ie.getImpl()->takeForKeeping();
    kept->lockExpr();
    envI()->release(kept);
    envI()->getClone(s.getImpl());
    envI()->getClone(ie.getImpl());
    QelAlgorithm alg(env);
    for (QelNumVar v : {x, y, z, QelNumVar(i), QelNumVar(j), QelNumVar(b)}) alg.setValue(v, 1);
    EXPECT_EQ(alg.getValue(copy), alg.getValue(s));
    EXPECT_EQ(alg.getValue(e), 3);
    QelNumVarArray xs(env, 50, 0, 1);
    QelNumExpr sum = QelSum(xs);
    Term(sum)->normalize();
    EXPECT_GT(envI()->getBytesInUse(), baseline);
    alg.end();
    xs.end();
  }
  EndAll(env);
  EXPECT_EQ(envI()->getBytesInUse(), baseline);
}

TEST_F(ExprTest, EndingTermsAloneGivesTheirNodesBack) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  const QelInt baseline = envI()->getBytesInUse();
  // The variables exist; everything made below ends with the term that
  // holds it.
  QelNumExpr xy = x * y;
  QelNumExpr p = xy * z;
  QelNumLinTermI* t = QelNewObject<QelNumLinTermI>(envI(), envI(), 2.0);
  for (int k = 0; k < 40; ++k) {
    t->addTerm(k, x.getImpl());
    t->addQuadTerm(k, y.getImpl(), z.getImpl());
  }
  t->addAggregate(3, p.getImpl());
  t->normalize();
  t->setCoef(y, 2);
  t->lockExpr();
  envI()->release(t);
  EXPECT_EQ(envI()->getBytesInUse(), baseline);
  EXPECT_EQ(envI()->getNumberOfExtractables(), 3);
  EXPECT_EQ(Uses(x), 0);
  EXPECT_EQ(Uses(y), 0);
  EXPECT_EQ(Uses(z), 0);
}

}  // namespace

// ---------------------------------------------------------------------------
// Refused memory leaves a term as it was
// ---------------------------------------------------------------------------

TEST(ExprRefusedMemory, SettingTheCoefficientsOfAnArrayIsAllOrNothing) {
  long refusals = qeltest::ForEachRefusal([](QelEnv env, qeltest::RequestCounter& counter, long n) {
    QelNumVar x(env, 0, 1, "x"), y(env, 0, 1, "y"), z(env, 0, 1, "z");
    auto* t = QelNewObject<QelNumLinTermI>(env.getImpl(), env.getImpl(), 1.0);
    t->addTerm(2, x.getImpl());
    QelNumVarArray xs(QelExtractableArray(env, 3, x, y, z));
    QelNumArray coefs(env, 3);
    for (long i = 0; i < 3; ++i) coefs.set(i, 5.0 + static_cast<double>(i));
    QelNumArray previous(env, 0);
    std::ostringstream before;
    t->display(before);
    counter.refuseAfter(n);
    bool refused = false;
    try {
      t->setCoef(xs, coefs, previous);
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    std::ostringstream after;
    t->display(after);
    if (refused) {
      EXPECT_EQ(after.str(), before.str()) << "request " << n;
      EXPECT_EQ(y.getImpl()->getUseCount(), 0);
      EXPECT_EQ(previous.getSize(), 0);
    } else {
      EXPECT_EQ(after.str(), "5 * x + 6 * y + 7 * z + 1");
      EXPECT_EQ(previous.getSize(), 3);
    }
    xs.end();
    coefs.end();
    previous.end();
    qeltest::EndAllObjects(env);
    return refused;
  });
  EXPECT_GE(refusals, 3);
}

TEST(ExprRefusedMemory, AScalarProductRefusedHalfWayLeavesNothingBehind) {
  // One request for the term, then one per node, the mixed element's
  // included; each refusal gives back the term, its nodes and their uses.
  long refusals = qeltest::ForEachRefusal([](QelEnv env, qeltest::RequestCounter& counter, long n) {
    QelNumVarArray xs(env, 10, 0, 1);
    QelNumVar y(env, 0, 1, "y");
    QelNumExpr twoY = 2 * y;
    xs.add(twoY);
    QelNumArray w(env, 11);
    for (long i = 0; i < 11; ++i) w.set(i, static_cast<double>(i) + 0.5);
    const QelInt objects = env.getImpl()->getNumberOfExtractables();
    counter.refuseAfter(n);
    bool refused = false;
    try {
      QelNumExpr sp = QelScalProd(xs, w);
      counter.stop();
      EXPECT_EQ(LinearOf(sp).size(), 11U);
      sp.end();
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects) << "request " << n;
    for (long i = 0; i < 10; ++i) EXPECT_EQ(Uses(xs[i]), 0) << "request " << n;
    EXPECT_EQ(Uses(y), 1) << "request " << n;  // held by 2 * y alone
    xs.end();
    w.end();
    qeltest::EndAllObjects(env);
    return refused;
  });
  EXPECT_EQ(refusals, 12);
}

TEST(ExprRefusedMemory, ZeroOneNormalizationIsAllOrNothing) {
  long refusals = qeltest::ForEachRefusal([](QelEnv env, qeltest::RequestCounter& counter, long n) {
    QelBoolVar a(env, "a"), b(env, "b");
    auto* t = QelNewObject<QelNumLinTermI>(env.getImpl(), env.getImpl(), 0.0);
    t->addQuadTerm(2, a.getImpl(), a.getImpl());
    t->addQuadTerm(3, b.getImpl(), b.getImpl());
    t->addQuadTerm(4, a.getImpl(), b.getImpl());
    std::ostringstream before;
    t->display(before);
    counter.refuseAfter(n);
    bool refused = false;
    try {
      t->zolNormalization();
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    std::ostringstream after;
    t->display(after);
    if (refused)
      EXPECT_EQ(after.str(), before.str()) << "request " << n;
    else
      EXPECT_EQ(after.str(), "2 * a + 3 * b + 4 * a * b");
    qeltest::EndAllObjects(env);
    return refused;
  });
  EXPECT_EQ(refusals, 2);
}

namespace {

long CountLinear(const QelNumExpr& e) { return static_cast<long>(LinearOf(e).size()); }

template <class F>
std::string WrongUsageMessage(F f) {
  try {
    f();
  } catch (const QelWrongUsage& e) {
    return e.getMessage() != nullptr ? e.getMessage() : "";
  }
  return "(nothing thrown)";
}

}  // namespace

// ---------------------------------------------------------------------------
// Printing
// ---------------------------------------------------------------------------

TEST_F(ExprTest, PrintingSkipsZeroCoefficientsAndSubtractsNegativeOnes) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelNumExpr e = x - 2.0 * y + 0.0 * z;
  EXPECT_EQ(Show(e), "x - 2 * y");
  QelNumExpr f = 0.0 * x - 2.0 * y;
  EXPECT_EQ(Show(f), "-2 * y");
  QelNumExpr g = 0.0 * x;
  EXPECT_EQ(Show(g), "0");
  QelNumExpr q = 0.0 * (x * y) + 3.0 * z - 1.0;
  EXPECT_EQ(Show(q), "3 * z - 1");
  EndAll(env);
}

// ---------------------------------------------------------------------------
// Compound assignments and temporaries
// ---------------------------------------------------------------------------

TEST_F(ExprTest, PlusEqualsExtendsATemporaryInPlace) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelNumExpr e(env, 0.0);
  QelNumExprI* first = e.getImpl();
  e += 2.0 * x;
  e += y;
  e -= 3.0 * z;
  e += 4.0;
  e -= 1.0;
  EXPECT_EQ(e.getImpl(), first);  // no copy was made
  EXPECT_EQ(Show(e), "2 * x + y - 3 * z + 3");
  e *= 2.0;
  EXPECT_EQ(e.getImpl(), first);
  EXPECT_EQ(Show(e), "4 * x + 2 * y - 6 * z + 6");
  EXPECT_EQ(Uses(x), 1);  // one node holds x
  EndAll(env);
}

TEST_F(ExprTest, PlusEqualsCopiesWhatSomethingHolds) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + y;
  QelRange r(env, 0, e, 8);  // the range uses e
  QelNumExprI* held = e.getImpl();
  e += 2.0 * x;
  EXPECT_NE(e.getImpl(), held);
  EXPECT_EQ(Show(r.getImpl()->getExpr()), "x + y");
  EXPECT_EQ(Show(e), "x + y + 2 * x");
  // The copy is a temporary of its own: the next addition stays in place.
  QelNumExprI* copy = e.getImpl();
  e += y;
  EXPECT_EQ(e.getImpl(), copy);
  EndAll(env);
}

TEST_F(ExprTest, PlusEqualsCopiesWhatAnotherHandleLeadsTo) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr a = x + y;
  QelNumExpr b = a;  // a copy of the handle: the expression is shared
  b += x;
  EXPECT_EQ(Show(a), "x + y");
  EXPECT_EQ(Show(b), "x + y + x");
  QelNumExprArray arr(QelExtractableArray(env, 0));
  QelNumExpr c = 2.0 * y;
  arr.add(c);  // an array leads to it too
  c += 1.0;
  EXPECT_EQ(Show(arr[0]), "2 * y");
  EXPECT_EQ(Show(c), "2 * y + 1");
  arr.end();
  EndAll(env);
}

TEST_F(ExprTest, PlusEqualsOnAVariableOrAnEmptyHandleMakesATerm) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x;
  e += y;
  EXPECT_EQ(Show(e), "x + y");
  EXPECT_EQ(Show(x), "x");
  QelNumExpr sum;
  sum += 3.0 * y;
  EXPECT_EQ(Show(sum), "3 * y");
  QelNumExpr none;
  EXPECT_THROW(none += 1.0, QelEmptyHandleException);
  EXPECT_THROW(none *= 2.0, QelEmptyHandleException);
  EXPECT_THROW(sum += QelNumExpr(), QelEmptyHandleException);
  EndAll(env);
}

TEST_F(ExprTest, IntegerCompoundAssignmentsStayIntegral) {
  QelIntVar i(env, 0, 10, "i"), j(env, 0, 10, "j");
  QelIntExpr e(env, 0);
  QelNumExprI* first = e.getImpl();
  e += 2 * i;
  e -= j;
  e += 5;
  e *= 3;
  EXPECT_EQ(e.getImpl(), first);
  EXPECT_TRUE(e.getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  EXPECT_EQ(Show(e), "6 * i - 3 * j + 15");
  // A numeric handle on an integer term: an integral addition stays in
  // place, a fractional one makes a numeric copy.
  QelNumExpr n = i + j;
  QelNumExprI* intTerm = n.getImpl();
  n += 2.0 * i;
  EXPECT_EQ(n.getImpl(), intTerm);
  QelNumVar x(env, 0, 1, "x");
  n += 0.5 * x;
  EXPECT_NE(n.getImpl(), intTerm);
  EXPECT_TRUE(n.getImpl()->isType(QelNumLinTermI::GetTypeInfo()));
  EXPECT_EQ(Show(n), "i + j + 2 * i + 0.5 * x");
  EndAll(env);
}

TEST_F(ExprTest, PlusEqualsGivesTheAddedTemporaryBack) {
  QelNumVarArray v(env, 50, 0, 1);
  const QelInt before = envI()->getNumberOfExtractables();
  QelNumExpr e(env, 0.0);
  for (long i = 0; i < v.getSize(); ++i) e += 2.0 * v[i];
  // Only e itself was added: each 2 * v[i] went back once added.
  EXPECT_EQ(envI()->getNumberOfExtractables(), before + 1);
  QelAlgorithm alg(env);
  for (long i = 0; i < v.getSize(); ++i) alg.setValue(v[i], 1);
  EXPECT_EQ(alg.getValue(e), 100);
  alg.end();
  v.end();
  EndAll(env);
}

TEST_F(ExprTest, ReassigningASumGivesTheFormerOneBack) {
  QelNumVarArray v(env, 40, 0, 1);
  const QelInt objects = envI()->getNumberOfExtractables();
  QelNumExpr e(env, 0.0);
  for (long i = 0; i < v.getSize(); ++i) e = e + v[i];
  // The loop keeps one sum, not forty.
  EXPECT_EQ(envI()->getNumberOfExtractables(), objects + 1);
  EXPECT_EQ(CountLinear(e), 40);
  v.end();
  EndAll(env);
}

TEST_F(ExprTest, ReassigningKeepsWhatIsStillHeldOrShared) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr e = x + y;
  QelNumExpr keep = e;  // shared
  e = e + x;
  EXPECT_EQ(Show(keep), "x + y");
  QelNumExpr held = x - y;
  QelRange r(env, 0, held, 1);
  held = held + y;
  EXPECT_EQ(Show(r.getImpl()->getExpr()), "x - y");
  // A reassignment from something not built on the former expression
  // keeps it: another handle may have been taken from it.
  QelNumExpr base = 2.0 * x;
  QelNumExprI* former = base.getImpl();
  base = 3.0 * y;
  EXPECT_GE(former->getId(), 0);
  EndAll(env);
}

TEST(ExprRefusedMemory, PlusEqualsIsAllOrNothing) {
  long refusals = qeltest::ForEachRefusal([](QelEnv env, qeltest::RequestCounter& counter, long n) {
    QelNumVar x(env, 0, 1, "x"), y(env, 0, 1, "y"), z(env, 0, 1, "z");
    QelNumExpr e = x + 2.0 * y;
    QelNumExpr t = x * y + 3.0 * z + x * (x * y);
    std::string before = Show(e);
    QelNumExprI* impl = e.getImpl();
    const QelInt usesOfX = Uses(x);
    counter.refuseAfter(n);
    bool refused = false;
    try {
      e += t;
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    if (refused) {
      EXPECT_EQ(e.getImpl(), impl) << "request " << n;
      EXPECT_EQ(Show(e), before) << "request " << n;
      EXPECT_EQ(Uses(x), usesOfX) << "request " << n;
    } else {
      EXPECT_EQ(Show(e), "x + 2 * y + 3 * z + x * y + ((x) * (x * y))");
    }
    qeltest::EndAllObjects(env);
    return refused;
  });
  EXPECT_GE(refusals, 3);
}

// ---------------------------------------------------------------------------
// Bounds, Boolean and two-dimensional arrays
// ---------------------------------------------------------------------------

TEST_F(ExprTest, SettingBoundsThroughTheHandleNotifies) {
  QelNumVar x(env, 0, 10, "x");
  QelIntVar i(env, 0, 10, "i");
  qeltest::RecordingAlgorithmI* alg = qeltest::MakeRecorder(env);
  alg->extract(x.getImpl());
  alg->extract(i.getImpl());
  x.setLB(-1);
  x.setUB(4.5);
  x.setBounds(1, 2);
  i.setBounds(3, 7);
  EXPECT_EQ(x.getLB(), 1);
  EXPECT_EQ(x.getUB(), 2);
  EXPECT_EQ(i.getLB(), 3);
  EXPECT_EQ(i.getUB(), 7);
  EXPECT_EQ(alg->notices, std::vector<std::string>(4, "QelSetNumVarBounds"));
  EXPECT_EQ(alg->objects.back(), i.getImpl());
  // Refused bounds change nothing and send nothing; the message names the
  // variable.
  EXPECT_EQ(WrongUsageMessage([&] { x.setLB(3); }),
            "QelNumVar::setBounds: x cannot take the bounds [3, 2]");
  EXPECT_THROW(x.setBounds(std::nan(""), 1), QelWrongUsage);
  QelNumVar anonymous(env, 0, 1);
  EXPECT_EQ(WrongUsageMessage([&] { anonymous.setUB(-1); }), "QelNumVar::setBounds: QelNumVar" +
                                                                 std::to_string(anonymous.getId()) +
                                                                 " cannot take the bounds [0, -1]");
  EXPECT_EQ(x.getLB(), 1);
  EXPECT_EQ(alg->notices.size(), 4u);
  QelSetNumVarBounds notice(x.getImpl());
  EXPECT_EQ(notice.getChangedExtractable(), x.getImpl());
  EXPECT_EQ(notice.getLB(), 1);
  EXPECT_EQ(notice.getUB(), 2);
  EXPECT_THROW(QelNumVar().setLB(0), QelEmptyHandleException);
  delete alg;
  EndAll(env);
}

TEST_F(ExprTest, BoolVarArrayHoldsBooleanVariables) {
  QelBoolVarArray b(env, 4);
  ASSERT_EQ(b.getSize(), 4);
  for (long k = 0; k < 4; ++k) {
    EXPECT_EQ(b[k].getImpl()->getType(), QelVarType::Bool);
    EXPECT_EQ(b[k].getLB(), 0);
    EXPECT_EQ(b[k].getUB(), 1);
  }
  QelIntExpr s = QelSum(b);
  EXPECT_TRUE(s.getImpl()->isIntegral());
  b.end();
  EndAll(env);
}

TEST_F(ExprTest, TwoDimensionalArraysIndexRowsAndColumns) {
  const QelInt baseline = envI()->getBytesInUse();
  QelIntVarArray2D m(env, 2, 3, 0, 5);
  EXPECT_EQ(m.getRows(), 2);
  EXPECT_EQ(m.getCols(), 3);
  EXPECT_EQ(m.getArray().getSize(), 6);
  EXPECT_EQ(m(1, 2).getImpl(), m.getArray()[5].getImpl());
  EXPECT_EQ(m(1, 0).getUB(), 5);
  QelIntVarArray row = m.getRow(1);
  QelIntVarArray col = m.getCol(2);
  ASSERT_EQ(row.getSize(), 3);
  ASSERT_EQ(col.getSize(), 2);
  EXPECT_EQ(row[0].getImpl(), m(1, 0).getImpl());
  EXPECT_EQ(col[0].getImpl(), m(0, 2).getImpl());
  EXPECT_EQ(col[1].getImpl(), m(1, 2).getImpl());
  EXPECT_THROW(m(2, 0), QelWrongUsage);
  EXPECT_THROW(m.getRow(-1), QelWrongUsage);
  EXPECT_THROW(m.getCol(3), QelWrongUsage);
  QelNumVarArray2D f(env, 2, 2, 0.5, 1.5);
  EXPECT_EQ(f(0, 1).getLB(), 0.5);
  QelBoolVarArray2D b(env, 3, 1);
  EXPECT_EQ(b(2, 0).getImpl()->getType(), QelVarType::Bool);
  QelIntVarArray flat(env, 4, 0, 1);
  EXPECT_THROW(QelIntVarArray2D(flat, 3, 2), QelWrongUsage);
  QelIntVarArray2D wrapped(flat, 2, 2);
  EXPECT_EQ(wrapped(1, 1).getImpl(), flat[3].getImpl());
  EXPECT_THROW(QelIntVarArray2D(env, -1, 2, 0, 1), QelWrongUsage);
  row.end();
  col.end();
  m.end();
  f.end();
  b.end();
  wrapped.end();
  EndAll(env);
  EXPECT_EQ(envI()->getBytesInUse(), baseline);
}

TEST_F(ExprTest, ChainsKeepNoIntermediateExpressions) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y"), z(env, 0, 10, "z");
  QelIntVar i(env, 0, 10, "i"), j(env, 0, 10, "j"), k(env, 0, 10, "k");
  const QelInt objects = envI()->getNumberOfExtractables();
  QelNumExpr a = x + y + z - 2.0 * x + 3.0;
  EXPECT_EQ(Show(a), "x + y + z - 2 * x + 3");
  QelIntExpr b = 2 * (i + j) - 3 * k + 1;
  EXPECT_EQ(Show(b), "2 * i + 2 * j - 3 * k + 1");
  QelNumExpr c = (i + j) * 0.5 + (x - 1.0) * 2.0;
  EXPECT_EQ(Show(c), "0.5 * i + 0.5 * j + 2 * x - 2");
  // One object per statement: every intermediate went back.
  EXPECT_EQ(envI()->getNumberOfExtractables(), objects + 3);
  EXPECT_TRUE(b.getImpl()->isType(QelIntLinTermI::GetTypeInfo()));
  EndAll(env);
}

TEST_F(ExprTest, OperatorsNeverChangeANamedOrSharedOperand) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr named = x + y;
  QelNumExpr sum = named + x;  // named is no temporary handle
  EXPECT_EQ(Show(named), "x + y");
  EXPECT_EQ(Show(sum), "x + y + x");
  // An element read from an array is shared: an operator copies it.
  QelNumExprArray arr(QelExtractableArray(env, 0));
  arr.getImpl()->addRaw(
      reinterpret_cast<std::uintptr_t>(static_cast<QelExtractableI*>((2.0 * y).getImpl())));
  QelNumExpr more = arr[0] + x;
  EXPECT_EQ(Show(arr[0]), "2 * y");
  EXPECT_EQ(Show(more), "2 * y + x");
  arr.end();
  EndAll(env);
}

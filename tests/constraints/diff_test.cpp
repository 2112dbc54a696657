// The difference constraint: evaluation (with a brute-force oracle), use
// counts, cloning, visiting, both printed forms, removal, engine hooks and
// memory.
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/qeltest.h"

using namespace qeltest;

namespace {

// An expression with a fixed value that logs every evaluation, to observe
// the order in which a constraint evaluates its sides.
class ProbeExprI : public QelNumExprI {
  QEL_EXTRACTABLE_DECL(ProbeExprI, QelNumExprI)

 public:
  ProbeExprI(QelEnvI* env, const char* tag, double value, std::vector<std::string>* log)
      : QelNumExprI(env, tag), _tag(tag), _value(value), _log(log) {}
  double eval(QelAlgorithm) const override {
    _log->push_back(_tag);
    return _value;
  }
  QelNumExprI* makeCopy() const override {
    return QelNewObject<ProbeExprI>(_env, _env, _tag, _value, _log);
  }
  QelExtractableI* makeClone(QelEnvI* env) const override {
    return QelNewObject<ProbeExprI>(env, env, _tag, _value, _log);
  }
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
  void display(std::ostream& os) const override { os << "probe " << _tag; }

 private:
  const char* _tag;
  double _value;
  std::vector<std::string>* _log;
};

QEL_EXTRACTABLE_DEF(ProbeExprI)

struct DiffTest : ::testing::Test {
  QelEnv env;
  void TearDown() override {
    env.getImpl()->setOneByOne(0);
    env.getImpl()->setDetailedDisplay(false);
    env.end();
  }
};

// Records what a constraint presents to a visitor.
struct VisitLog : QelExtractableVisitor {
  using QelExtractableVisitor::visitChildren;
  void beginVisit(QelExtractableI* x) override { events.push_back({"begin", x, nullptr}); }
  void visitChildren(QelExtractableI* parent, QelExtractableI* child) override {
    events.push_back({"child", parent, child});
  }
  void visitChildren(QelExtractableI* parent, QelExtractableArray) override {
    events.push_back({"array", parent, nullptr});
  }
  void endVisit(QelExtractableI* x) override { events.push_back({"end", x, nullptr}); }
  std::vector<VisitCall> events;
};

struct HookProbe {
  static inline QelAlgorithmI* alg = nullptr;
  static inline const QelDiffI* object = nullptr;
  static inline void* data = nullptr;
  static void Reset() {
    alg = nullptr;
    object = nullptr;
    data = nullptr;
  }
  static void* Extract(QelAlgorithm a, const QelDiffI* x) {
    alg = a.getImpl();
    object = x;
    return reinterpret_cast<void*>(std::uintptr_t{0xD1});
  }
  static void* Modify(QelAlgorithm a, const QelDiffI* x, void* d) {
    alg = a.getImpl();
    object = x;
    data = d;
    return reinterpret_cast<void*>(std::uintptr_t{0xD2});
  }
  static void* Unextract(QelAlgorithm a, const QelDiffI* x, void* d) {
    alg = a.getImpl();
    object = x;
    data = d;
    return reinterpret_cast<void*>(std::uintptr_t{0xD3});
  }
};

const double NaN = std::numeric_limits<double>::quiet_NaN();

}  // namespace

// ---- identity and construction ---------------------------------------------------

TEST_F(DiffTest, TypeIdentity) {
  QelNumVar x(env, 0, 10, "x");
  QelDiff d(env, x, 3.0);
  EXPECT_STREQ(QelDiffI::GetRttiTypeName(), "QelDiffI");
  EXPECT_STREQ(d->getRttiTypeName(), "QelDiffI");
  EXPECT_EQ(QelDiffI::GetBaseTypeInfo(), QelConstraintI::GetTypeInfo());
  EXPECT_TRUE(d->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_TRUE(d->isType(QelDiffI::GetTypeInfo()));
  EXPECT_FALSE(d->isType(QelNumExprI::GetTypeInfo()));
  EXPECT_TRUE(d.isConstraint());
  EXPECT_EQ(d.asConstraint().getImpl(), d.getImpl());
}

TEST_F(DiffTest, BothFormsStoreTheirOperands) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff c(env, x, 2.5, "c");
  EXPECT_EQ(c->getX(), x.getImpl());
  EXPECT_EQ(c->getY(), nullptr);
  EXPECT_EQ(c->getConstant(), 2.5);
  EXPECT_STREQ(c->getName(), "c");
  EXPECT_EQ(c->getEnv(), env.getImpl());
  QelDiff e(env, x, y);
  EXPECT_EQ(e->getX(), x.getImpl());
  EXPECT_EQ(e->getY(), y.getImpl());
  EXPECT_EQ(e->getConstant(), 0.0);
  EXPECT_EQ(e->getName(), nullptr);
}

TEST_F(DiffTest, TheHandleBuildsInTheEnvironmentOfTheLeftExpression) {
  QelNumVar x(env, 0, 10, "x");
  QelInt before = BytesInUse(env);
  QelDiff d(env, x + 1.0, 4.0);
  EXPECT_EQ(d->getEnv(), x.getImpl()->getEnv());
  EXPECT_GT(BytesInUse(env), before);
}

TEST_F(DiffTest, TheImplementationConstructorsWorkDirectly) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  auto* d = QelNewObject<QelDiffI>(env.getImpl(), env.getImpl(), x.getImpl(), 1.0, "d");
  auto* e = QelNewObject<QelDiffI>(env.getImpl(), env.getImpl(), x.getImpl(), y.getImpl());
  EXPECT_EQ(x.getImpl()->getUseCount(), 2);
  EXPECT_EQ(y.getImpl()->getUseCount(), 1);
  EXPECT_STREQ(d->getName(), "d");
  d->end();
  e->end();
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
}

// ---- evaluation ---------------------------------------------------------------------

TEST_F(DiffTest, EvalAgainstAConstant) {
  QelNumVar x(env, -10, 10, "x");
  QelDiff same(env, x, 2.0);
  QelDiff other(env, x, 3.0);
  QelAlgorithm alg(env);
  alg.setValue(x, 2.0);
  EXPECT_EQ(same->eval(alg), 0.0);
  EXPECT_EQ(other->eval(alg), 1.0);
  alg.setValue(x, NaN);
  EXPECT_EQ(same->eval(alg), 1.0);
  EXPECT_EQ(other->eval(alg), 1.0);
  QelDiff nanConstant(env, x, NaN);
  alg.setValue(x, 2.0);
  EXPECT_EQ(nanConstant->eval(alg), 1.0);
  // Through the constraint base.
  const QelConstraintI* asConstraint = same.getImpl();
  EXPECT_EQ(asConstraint->eval(alg), 0.0);
  alg.end();
}

TEST_F(DiffTest, EvalAgainstAnExpression) {
  QelIntVar x(env, -10, 10, "x"), y(env, -10, 10, "y");
  QelDiff d(env, x, y);
  QelDiff e(env, x + 1, y);
  QelAlgorithm alg(env);
  alg.setValue(x, 4);
  alg.setValue(y, 4);
  EXPECT_EQ(d->eval(alg), 0.0);
  EXPECT_EQ(e->eval(alg), 1.0);
  alg.setValue(y, 5);
  EXPECT_EQ(d->eval(alg), 1.0);
  EXPECT_EQ(e->eval(alg), 0.0);
  // Signed zeros compare equal.
  QelNumVar f(env, -1, 1, "f"), g(env, -1, 1, "g");
  QelDiff zeros(env, f, g);
  alg.setValue(f, 0.0);
  alg.setValue(g, -0.0);
  EXPECT_EQ(zeros->eval(alg), 0.0);
  alg.setValue(f, NaN);
  alg.setValue(g, NaN);
  EXPECT_EQ(zeros->eval(alg), 1.0);
  alg.end();
}

TEST_F(DiffTest, TheRightSideIsEvaluatedBeforeTheLeft) {
  std::vector<std::string> log;
  auto* left = QelNewObject<ProbeExprI>(env.getImpl(), env.getImpl(), "left", 1.0, &log);
  auto* right = QelNewObject<ProbeExprI>(env.getImpl(), env.getImpl(), "right", 2.0, &log);
  QelDiff d(env, QelNumExprArg(left), QelNumExprArg(right));
  QelAlgorithm alg(env);
  EXPECT_EQ(d->eval(alg), 1.0);
  EXPECT_EQ(log, (std::vector<std::string>{"right", "left"}));
  log.clear();
  QelDiff c(env, QelNumExprArg(left), 1.0);
  EXPECT_EQ(c->eval(alg), 0.0);
  EXPECT_EQ(log, (std::vector<std::string>{"left"}));
  alg.end();
}

// Every constraint below is checked against the values computed directly,
// over many random small assignments.
TEST_F(DiffTest, EvalMatchesABruteForceOracle) {
  QelIntVar x(env, -3, 3, "x"), y(env, -3, 3, "y"), z(env, -3, 3, "z");
  QelNumVar f(env, -3, 3, "f");
  // A case without oracle functions is x != constant.
  struct Case {
    QelDiff diff;
    double (*oracleLeft)(double, double, double, double);
    double (*oracleRight)(double, double, double, double);
    double constant = 0.0;
  };
  std::vector<Case> cases;
  for (int c = -3; c <= 3; ++c) {
    double k = static_cast<double>(c);
    cases.push_back({QelDiff(env, x, k), nullptr, nullptr, k});
  }
  cases.push_back({QelDiff(env, x, 0.5), [](double x, double, double, double) { return x; },
                   [](double, double, double, double) { return 0.5; }});
  cases.push_back({QelDiff(env, x, y), [](double x, double, double, double) { return x; },
                   [](double, double y, double, double) { return y; }});
  cases.push_back({QelDiff(env, x + y, z), [](double x, double y, double, double) { return x + y; },
                   [](double, double, double z, double) { return z; }});
  cases.push_back({QelDiff(env, 2 * x - y + 1, 3.0),
                   [](double x, double y, double, double) { return 2 * x - y + 1; },
                   [](double, double, double, double) { return 3.0; }});
  cases.push_back({QelDiff(env, x * y, z), [](double x, double y, double, double) { return x * y; },
                   [](double, double, double z, double) { return z; }});
  cases.push_back({QelDiff(env, f, x), [](double, double, double, double f) { return f; },
                   [](double x, double, double, double) { return x; }});
  cases.push_back({QelDiff(env, f * 2.0, y - z),
                   [](double, double, double, double f) { return f * 2.0; },
                   [](double, double y, double z, double) { return y - z; }});
  cases.push_back({QelDiff(env, x * y * z, 2.0),
                   [](double x, double y, double z, double) { return x * y * z; },
                   [](double, double, double, double) { return 2.0; }});

  QelAlgorithm alg(env);
  std::mt19937 rng(20240611u);
  std::uniform_int_distribution<int> small(-3, 3);
  std::uniform_int_distribution<int> pick(0, 9);
  long checked = 0;
  long satisfied = 0;
  for (int round = 0; round < 3000; ++round) {
    double vx = small(rng), vy = small(rng), vz = small(rng);
    int p = pick(rng);
    double vf = p == 0 ? NaN : (p == 1 ? small(rng) + 0.5 : static_cast<double>(small(rng)));
    alg.setValue(x, vx);
    alg.setValue(y, vy);
    alg.setValue(z, vz);
    alg.setValue(f, vf);
    for (std::size_t i = 0; i < cases.size(); ++i) {
      const Case& c = cases[i];
      double l, r;
      if (c.oracleLeft == nullptr) {
        l = vx;
        r = c.constant;
      } else {
        l = c.oracleLeft(vx, vy, vz, vf);
        r = c.oracleRight(vx, vy, vz, vf);
      }
      // Brute force: the two values are different unless they compare
      // equal as numbers (a NaN is different from everything).
      bool differ = !(l == r);
      double expected = differ ? 1.0 : 0.0;
      ASSERT_EQ(c.diff->eval(alg), expected)
          << "case " << i << " x=" << vx << " y=" << vy << " z=" << vz << " f=" << vf;
      ++checked;
      if (differ) ++satisfied;
    }
  }
  EXPECT_EQ(checked, 3000L * static_cast<long>(cases.size()));
  // Both outcomes occurred: the oracle exercised both answers.
  EXPECT_GT(satisfied, 0);
  EXPECT_LT(satisfied, checked);
  alg.end();
}

// ---- use counts ---------------------------------------------------------------------

TEST_F(DiffTest, ConstraintsHoldOneUseOfEachOperandAndGiveItBack) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelInt x0 = x.getImpl()->getUseCount();
  QelInt y0 = y.getImpl()->getUseCount();
  QelDiff c(env, x, 3.0);
  EXPECT_EQ(x.getImpl()->getUseCount(), x0 + 1);
  EXPECT_EQ(y.getImpl()->getUseCount(), y0);
  QelDiff d(env, x, y);
  EXPECT_EQ(x.getImpl()->getUseCount(), x0 + 2);
  EXPECT_EQ(y.getImpl()->getUseCount(), y0 + 1);
  d.end();
  EXPECT_EQ(x.getImpl()->getUseCount(), x0 + 1);
  EXPECT_EQ(y.getImpl()->getUseCount(), y0);
  c.end();
  EXPECT_EQ(x.getImpl()->getUseCount(), x0);
  EXPECT_EQ(y.getImpl()->getUseCount(), y0);
}

TEST_F(DiffTest, AnExpressionKeptByItsHolderSurvivesTheConstraint) {
  QelNumVar x(env, 0, 10, "x");
  QelNumExpr e = x + 1.0;
  QelNumExprI* ei = e.getImpl();
  ei->lockExpr();  // the test holds it too
  EXPECT_EQ(ei->getUseCount(), 1);
  QelDiff d(env, e, 2.0);
  EXPECT_EQ(ei->getUseCount(), 2);
  d.end();
  EXPECT_EQ(ei->getUseCount(), 1);
  EXPECT_GE(ei->getId(), 0);
  QelInt count = env.getImpl()->getNumberOfExtractables();
  env.getImpl()->release(ei);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), count - 1);
}

TEST_F(DiffTest, AnExpressionOnlyTheConstraintUsedEndsWithIt) {
  QelIntVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelInt baseline = BytesInUse(env);
  QelInt count = env.getImpl()->getNumberOfExtractables();
  QelDiff d(env, x + y, x - y);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), count + 3);
  EXPECT_EQ(d->getX()->getUseCount(), 1);
  EXPECT_EQ(d->getY()->getUseCount(), 1);
  d.end();
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), count);
  EXPECT_EQ(BytesInUse(env), baseline);
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
}

// ---- removal (the inherited atRemove) ------------------------------------------------

TEST_F(DiffTest, EndingAnOperandEndsTheConstraint) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff d(env, x, y);
  QelInt id = d.getId();
  QelInt baseline = BytesInUse(env);
  x.end();
  EXPECT_EQ(env.getImpl()->getExtractable(id), nullptr);
  EXPECT_EQ(y.getImpl()->getUseCount(), 0);
  EXPECT_LT(BytesInUse(env), baseline);
}

TEST_F(DiffTest, EndingAnOperandOneByOneEndsTheConstraintToo) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff d(env, x, 1.0);
  QelDiff untouched(env, y, 2.0);
  QelInt dId = d.getId();  // read while d lives: its handle dies with it
  env.getImpl()->setOneByOne(1);
  x.end();
  EXPECT_EQ(env.getImpl()->getExtractable(dId), nullptr);
  EXPECT_EQ(env.getImpl()->getExtractable(untouched.getId()), untouched.getImpl());
  EXPECT_EQ(y.getImpl()->getUseCount(), 1);
}

TEST_F(DiffTest, EndingAnOperandOneByOneEndsEveryConstraintOverIt) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff d(env, x, 1.0);
  QelDiff e(env, y, x);
  QelDiff untouched(env, y, 2.0);
  QelInt dId = d.getId(), eId = e.getId();  // read while they live
  env.getImpl()->setOneByOne(1);
  x.end();
  EXPECT_EQ(env.getImpl()->getExtractable(dId), nullptr);
  EXPECT_EQ(env.getImpl()->getExtractable(eId), nullptr);
  EXPECT_EQ(env.getImpl()->getExtractable(untouched.getId()), untouched.getImpl());
  EXPECT_EQ(y.getImpl()->getUseCount(), 1);
}

// ---- cloning ---------------------------------------------------------------------------

TEST_F(DiffTest, TheCloneOfXNotEqualCKeepsTheConstant) {
  QelNumVar x(env, 0, 10, "x");
  QelDiff d(env, x, 3.5, "d");
  QelEnv other;
  QelEnvI* e2 = other.getImpl();
  e2->beginCopy();
  QelExtractableI* c = e2->getClone(d.getImpl());
  QelExtractableI* cx = e2->getClone(x.getImpl());
  e2->endCopy();
  ASSERT_TRUE(c->isType(QelDiffI::GetTypeInfo()));
  auto* clone = static_cast<QelDiffI*>(c);
  EXPECT_EQ(clone->getEnv(), e2);
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(clone->getConstant(), 3.5);
  EXPECT_EQ(clone->getY(), nullptr);
  EXPECT_EQ(clone->getX(), cx);
  EXPECT_NE(cx, x.getImpl());
  EXPECT_EQ(clone->getX()->getUseCount(), 1);
  EXPECT_EQ(x.getImpl()->getUseCount(), 1);
  other.end();
}

TEST_F(DiffTest, TheCloneOfXNotEqualYHasAZeroConstant) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff d(env, x, y, "d");
  QelEnv other;
  QelEnvI* e2 = other.getImpl();
  e2->beginCopy();
  auto* clone = static_cast<QelDiffI*>(e2->getClone(d.getImpl()));
  QelExtractableI* cx = e2->getClone(x.getImpl());
  QelExtractableI* cy = e2->getClone(y.getImpl());
  e2->endCopy();
  EXPECT_EQ(clone->getConstant(), 0.0);
  EXPECT_EQ(clone->getX(), cx);
  EXPECT_EQ(clone->getY(), cy);
  EXPECT_EQ(clone->getX()->getUseCount(), 1);
  EXPECT_EQ(clone->getY()->getUseCount(), 1);
  EXPECT_EQ(clone->getName(), nullptr);
  // The clone evaluates like the source.
  QelAlgorithm alg(other);
  alg.setValue(QelNumVar(static_cast<QelNumVarI*>(cx)), 2.0);
  alg.setValue(QelNumVar(static_cast<QelNumVarI*>(cy)), 2.0);
  EXPECT_EQ(clone->eval(alg), 0.0);
  alg.end();
  other.end();
}

// ---- visiting ----------------------------------------------------------------------------

TEST_F(DiffTest, VisitPresentsTheOperandsInOrder) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff c(env, x, 3.0);
  QelDiff d(env, x, y);
  VisitLog one;
  c->visitSubExtractables(&one);
  EXPECT_EQ(one.events, (std::vector<VisitCall>{{"begin", c.getImpl(), nullptr},
                                                {"child", c.getImpl(), x.getImpl()},
                                                {"end", c.getImpl(), nullptr}}));
  VisitLog two;
  d->visitSubExtractables(&two);
  EXPECT_EQ(two.events, (std::vector<VisitCall>{{"begin", d.getImpl(), nullptr},
                                                {"child", d.getImpl(), x.getImpl()},
                                                {"child", d.getImpl(), y.getImpl()},
                                                {"end", d.getImpl(), nullptr}}));
}

// ---- printing -------------------------------------------------------------------------------

TEST_F(DiffTest, AnUnnamedConstraintWithIdSevenInBothForms) {
  // A fresh environment numbers its objects from 0: x is 0, six more take
  // 1 to 6, and the constraint gets 7.
  QelNumVar x(env, 0, 10, "x");
  std::vector<QelNumVar> fillers;
  for (int i = 0; i < 6; ++i) fillers.emplace_back(env, 0, 1);
  QelDiff d(env, x, 3.0);
  ASSERT_EQ(d.getId(), 7);
  env.getImpl()->setDetailedDisplay(true);
  EXPECT_EQ(Display(d.getImpl()), "c7: QelDiff(x != 3) ");
  env.getImpl()->setDetailedDisplay(false);
  EXPECT_EQ(Display(d.getImpl()), "x != 3 ");
  EXPECT_EQ(Print(d), "x != 3 ");
}

TEST_F(DiffTest, ANamedConstraintInTheShortFormPrintsOnlyItsName) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff c(env, x, 3.0, "c1");
  QelDiff d(env, x, y, "d1");
  EXPECT_EQ(Display(c.getImpl()), "c1 ");
  EXPECT_EQ(Display(d.getImpl()), "d1 ");
  env.getImpl()->setDetailedDisplay(true);
  EXPECT_EQ(Display(c.getImpl()), "c1: QelDiff(x != 3) ");
  EXPECT_EQ(Display(d.getImpl()), "d1: QelDiff(x != y) ");
}

TEST_F(DiffTest, AnExpressionOnTheRightHasNoTrailingBlankInTheShortForm) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelDiff d(env, x, y);
  EXPECT_EQ(Display(d.getImpl()), "x != y");
  env.getImpl()->setDetailedDisplay(true);
  EXPECT_EQ(Display(d.getImpl()), "c" + std::to_string(d.getId()) + ": QelDiff(x != y) ");
}

TEST_F(DiffTest, OperandsPrintWithTheirOwnDisplayAndConstantsAsDoubles) {
  QelIntVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelNumExpr sum = x + y;
  QelNumVar unnamed(env, 0, 1);
  QelDiff a(env, sum, -0.125);
  QelDiff b(env, unnamed, sum);
  QelDiff c(env, x, 1e20);
  EXPECT_EQ(Display(a.getImpl()), Display(sum.getImpl()) + " != -0.125 ");
  EXPECT_EQ(Display(b.getImpl()), Display(unnamed.getImpl()) + " != " + Display(sum.getImpl()));
  EXPECT_EQ(Display(c.getImpl()), "x != 1e+20 ");
  env.getImpl()->setDetailedDisplay(true);
  EXPECT_EQ(Display(a.getImpl()), "c" + std::to_string(a.getId()) + ": QelDiff(" +
                                      Display(sum.getImpl()) + " != -0.125) ");
}

// ---- engine hooks ------------------------------------------------------------------------------

TEST_F(DiffTest, EmptySlotsThrowTheStatedFailures) {
  ASSERT_EQ(QelDiffI::_extractCP, nullptr);
  ASSERT_EQ(QelDiffI::_modifyCP, nullptr);
  ASSERT_EQ(QelDiffI::_unextractCP, nullptr);
  QelNumVar x(env, 0, 10, "x");
  QelDiff d(env, x, 1.0);
  QelAlgorithm alg(env);
  EXPECT_THROW(d->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(d->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(d->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  alg.end();
}

TEST_F(DiffTest, FilledHooksReceiveAlgorithmThenConstraint) {
  QelNumVar x(env, 0, 10, "x");
  QelDiff d(env, x, 1.0);
  QelAlgorithm alg(env);
  int data = 0;
  QelDiffI::_extractCP = &HookProbe::Extract;
  QelDiffI::_modifyCP = &HookProbe::Modify;
  QelDiffI::_unextractCP = &HookProbe::Unextract;
  HookProbe::Reset();
  const QelExtractableI* asBase = d.getImpl();
  EXPECT_EQ(asBase->extractToCP(alg), reinterpret_cast<void*>(std::uintptr_t{0xD1}));
  EXPECT_EQ(HookProbe::alg, alg.getImpl());
  EXPECT_EQ(HookProbe::object, d.getImpl());
  HookProbe::Reset();
  EXPECT_EQ(asBase->modifyCP(alg, &data), reinterpret_cast<void*>(std::uintptr_t{0xD2}));
  EXPECT_EQ(HookProbe::alg, alg.getImpl());
  EXPECT_EQ(HookProbe::object, d.getImpl());
  EXPECT_EQ(HookProbe::data, &data);
  HookProbe::Reset();
  EXPECT_EQ(asBase->unextractFromCP(alg, &data), reinterpret_cast<void*>(std::uintptr_t{0xD3}));
  EXPECT_EQ(HookProbe::alg, alg.getImpl());
  EXPECT_EQ(HookProbe::object, d.getImpl());
  EXPECT_EQ(HookProbe::data, &data);
  // An algorithm following hooks extracts through the slot.
  HookProbe::Reset();
  QelAlgorithm hooked(env);
  hooked.getImpl()->useHooks(&data);
  hooked.extract(d);
  EXPECT_EQ(HookProbe::alg, hooked.getImpl());
  EXPECT_EQ(HookProbe::object, d.getImpl());
  QelDiffI::_extractCP = nullptr;
  QelDiffI::_modifyCP = nullptr;
  QelDiffI::_unextractCP = nullptr;
  hooked.end();
  alg.end();
}

// ---- memory ---------------------------------------------------------------------------------

TEST_F(DiffTest, EndingConstraintsGivesTheirMemoryBack) {
  QelNumVar x(env, 0, 10, "x"), y(env, 0, 10, "y");
  QelInt baseline = BytesInUse(env);
  QelInt count = env.getImpl()->getNumberOfExtractables();
  QelDiff a(env, x, 1.0, "a");
  QelDiff b(env, x, y);
  EXPECT_GT(BytesInUse(env), baseline);
  a.end();
  b.end();
  EXPECT_EQ(BytesInUse(env), baseline);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), count);
  EXPECT_GE(x.getId(), 0);
  EXPECT_GE(y.getId(), 0);
}

TEST_F(DiffTest, AnEmptyExpressionIsRefusedAndNothingIsMade) {
  // Empty handles used to be read through: the process crashed.
  QelIntVar x(env, 0, 9, "x");
  QelInt objects = env.getImpl()->getNumberOfExtractables();
  QelInt bytes = BytesInUse(env);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelDiff d(env, QelNumExpr(), 3.0); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelDiff d(env, QelNumExpr(), x); }),
            "Using empty Handle");
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { QelDiff d(env, x, QelNumExpr()); }),
            "Using empty Handle");
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects);
  EXPECT_EQ(BytesInUse(env), bytes);
  EXPECT_EQ(x.getImpl()->getUseCount(), 0);
  x.end();
}

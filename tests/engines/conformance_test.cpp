// The engine conformance suite: small models of known optimum that every
// engine runs. Each model is extracted, solved, checked against every
// constraint (eval where the class has it, a direct check otherwise) and
// against the known optimum, then modified through the modeling API, solved
// again, and compared with a fresh extraction of the modified model. An
// engine that does not take a model says so with a clear error, checked
// here, and the test is skipped with that reason.
#include <string>
#include <vector>

#include "engines/support/builtengines.h"
#include "engines/support/models.h"

using namespace enginetest;

namespace {

struct EngineKind {
  const char* name;
  QelEngineI* (*make)(QelEnv);
  std::vector<std::string> refused;  // models the engine does not take
};

// Test names show the engine's name, not the bytes of the parameter.
void PrintTo(const EngineKind& kind, std::ostream* os) { *os << kind.name; }

std::vector<EngineKind> Kinds() {
  std::vector<EngineKind> kinds;
  for (const BuiltEngine& e : BuiltEngines()) {
    std::vector<std::string> refused;
    if (std::string(e.name) == "Gecode") refused.push_back("PiecewiseLinearCostWithSOS2");
    kinds.push_back({e.name, e.make, refused});
  }
  return kinds;
}

class Conformance : public ::testing::TestWithParam<EngineKind> {
 protected:
  void TearDown() override {
    engine.reset();
    env.end();
  }

  QelEngineI* make() { return GetParam().make(env); }

  bool refuses(const std::string& model) const {
    const auto& r = GetParam().refused;
    return std::find(r.begin(), r.end(), model) != r.end();
  }

  // Extracts `model` into a new engine, expecting a refusal when the
  // engine is declared not to take it. Returns false when refused.
  bool extract(const QelModel& model, const std::string& name) {
    engine.reset(make());
    if (!refuses(name)) {
      engine->extract(model.getImpl());
      return true;
    }
    try {
      engine->extract(model.getImpl());
    } catch (const QelEngineError& e) {
      // The error names the object and its class.
      const QelExtractableI* x = e.getExtractable();
      EXPECT_NE(x, nullptr);
      std::string message = e.what();
      if (x != nullptr) {
        EXPECT_NE(message.find(x->getRttiTypeName()), std::string::npos) << message;
        if (x->getName() != nullptr) {
          EXPECT_NE(message.find(x->getName()), std::string::npos) << message;
        }
      }
      EXPECT_NE(message.find(GetParam().name), std::string::npos) << message;
      refusal = message;
      return false;
    }
    ADD_FAILURE() << GetParam().name << " was expected to refuse " << name;
    return false;
  }

  // Solves, expects the optimum `expected` (one value per criterion) and
  // checks the solution.
  void solveAndCheck(const QelModel& model, std::vector<double> expected, int constraints) {
    ASSERT_EQ(engine->solve(), QelEngineStatus::Optimal);
    ASSERT_EQ(engine->getNumCriteria(), static_cast<long>(expected.size()));
    for (size_t i = 0; i < expected.size(); ++i)
      EXPECT_NEAR(engine->getObjValue(static_cast<long>(i)), expected[i], 1e-6)
          << "criterion " << i;
    CheckObjective(engine.get());
    EXPECT_EQ(CheckSolution(engine.get(), model.getImpl()), constraints);
    ExpectSameAsFresh(GetParam().make, env, model, AnswerOf(engine.get()));
  }

  QelEnv env;
  EnginePtr engine;
  std::string refusal;
};

// 6 queens, one per row: column x[i] in row i, all different, and so are
// the diagonals x[i] + i and x[i] - i. Minimizing x[0]: the solutions have
// x[0] in {1, 2, 3, 4}.
TEST_P(Conformance, NQueensWithAllDifferent) {
  const int n = 6;
  QelModel model(env, "queens");
  QelIntVarArray x(env, n, 0, n - 1);
  QelIntExprArray up(env, 0), down(env, 0);
  for (int i = 0; i < n; ++i) {
    up.add(x[i] + i);
    down.add(x[i] - i);
  }
  QelAllDiff columns(env, x, "columns");
  model.add(columns);
  model.add(QelAllDiff(env, up, "up"));
  model.add(QelAllDiff(env, down, "down"));
  model.add(QelObjective(env, x[0], QelObjective::Minimize, "first"));
  up.end();
  down.end();
  if (!extract(model, "NQueensWithAllDifferent")) GTEST_SKIP() << refusal;
  solveAndCheck(model, {1}, 3);

  // Not in column 1 either: the next solution starts in column 2.
  QelDiff notOne(env, x[0], 1.0, "notOne");
  model.add(notOne);
  solveAndCheck(model, {2}, 4);

  // Taken out again.
  model.remove(notOne);
  solveAndCheck(model, {1}, 3);

  // The first queen leaves the column constraint (one notice): queens 0 and
  // 1 may now share a column, the diagonals still hold.
  columns->removeExpr(x[0].getImpl());
  ASSERT_EQ(engine->solve(), QelEngineStatus::Optimal);
  CheckSolution(engine.get(), model.getImpl());
  ExpectSameAsFresh(GetParam().make, env, model, AnswerOf(engine.get()));
}

// Five items of sizes 4, 3, 5, 2, 6 (20 in all) in three bins of capacity
// 10: two bins suffice. With capacity 9, three are needed.
TEST_P(Conformance, BinPackingWithPack) {
  QelModel model(env, "binpacking");
  QelIntVarArray load(env, 3, 0, 10);
  QelIntVarArray where(env, 5, 0, 2);
  QelIntArray sizes(env, 5);
  const QelInt s[] = {4, 3, 5, 2, 6};
  for (int i = 0; i < 5; ++i) sizes.set(i, s[i]);
  QelIntVar used(env, 0, 3, "used");
  model.add(QelPack(env, load.toIntExprArray(), where.toIntExprArray(), sizes, used, "pack"));
  model.add(QelObjective(env, used, QelObjective::Minimize, "bins"));
  sizes.end();
  if (!extract(model, "BinPackingWithPack")) GTEST_SKIP() << refusal;
  solveAndCheck(model, {2}, 1);

  QelExtractableArray capacity(env, 0);
  for (int j = 0; j < 3; ++j) capacity.add(QelRange(env, 0, load[j], 9));
  model.add(capacity);
  solveAndCheck(model, {3}, 4);

  model.remove(capacity);
  solveAndCheck(model, {2}, 1);
  capacity.endElements();
  capacity.end();
}

// A piecewise-linear function f of x through the breakpoints (0, 0), (1, 2),
// (2, 3), (4, 3.5), modeled with weights lambda in a special ordered set of
// type 2: x = sum bx lambda, f = sum by lambda, sum lambda = 1. Maximizing
// f - 0.8 x gives 1.4 at x = 2; with f - 0.2 x, 2.7 at x = 4; minimizing
// f - 0.2 x gives 0 at x = 0.
TEST_P(Conformance, PiecewiseLinearCostWithSOS2) {
  QelModel model(env, "piecewise");
  mipmodel::Piecewise p(env, model);
  QelNumVar x = p.x;
  QelObjective profit = p.profit;
  if (!extract(model, "PiecewiseLinearCostWithSOS2")) GTEST_SKIP() << refusal;
  solveAndCheck(model, {1.4}, 4);
  EXPECT_NEAR(engine->getValue(x.getImpl()), 2, 1e-9);

  profit.setLinearCoef(x, -0.2);
  solveAndCheck(model, {2.7}, 4);
  EXPECT_NEAR(engine->getValue(x.getImpl()), 4, 1e-9);

  profit.setSense(QelObjective::Minimize);
  solveAndCheck(model, {0}, 4);
  EXPECT_NEAR(engine->getValue(x.getImpl()), 0, 1e-9);
}

// Lexicographic: first a + b + c, then 3a + 2b + c, over a, b, c in 0..3
// with a + b + c >= 4. The optimum (4, 5) has c = 3, b = 1. With c <= 2 it
// is (4, 6); maximizing both, (8, 17).
TEST_P(Conformance, TwoCriteriaLexicographic) {
  QelModel model(env, "lex");
  mipmodel::Lexicographic p(env, model);
  QelIntVar c = p.c;
  QelObjective lex = p.lex;
  if (!extract(model, "TwoCriteriaLexicographic")) GTEST_SKIP() << refusal;
  solveAndCheck(model, {4, 5}, 1);
  EXPECT_EQ(engine->getValue(c.getImpl()), 3);

  QelRange capC(env, -1e9, c, 2, "capC");
  model.add(capC);
  solveAndCheck(model, {4, 6}, 2);

  lex.setSense(QelObjective::Maximize);
  solveAndCheck(model, {8, 17}, 2);
}

std::string KindName(const ::testing::TestParamInfo<EngineKind>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Engines, Conformance, ::testing::ValuesIn(Kinds()), KindName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Conformance);

TEST(ConformanceSetup, EnginesBuilt) {
  if (Kinds().empty())
    GTEST_SKIP() << "no engine was built (neither libgecode-dev nor coinor-libcbc-dev found)";
  for (const EngineKind& k : Kinds()) {
    QelEnv env;
    EnginePtr e(k.make(env));
    EXPECT_STREQ(e->getEngineName(), k.name);
    e.reset();
    env.end();
  }
}

}  // namespace

// The engine handles as an application uses them (QelCbc, QelGecode): the
// settings, status, report and statistics on the handle, values read in one
// call, and the everyday modeling surface solved by every engine built:
// relational operators with one-sided ranges, sums built with +=, Boolean
// and two-dimensional arrays, bounds changed through the handles after
// extraction, errors that name the variable, and a solve after the
// objective was removed.
#include <algorithm>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "engines/support/enginetest.h"

#ifdef QEL_HAVE_GECODE
#include <qel/engines/gecode.h>
#endif
#ifdef QEL_HAVE_CBC
#include <qel/engines/cbc.h>
#endif

namespace {

#if defined(QEL_HAVE_CBC) || defined(QEL_HAVE_GECODE)

template <class Message, class F>
std::string MessageOf(F f) {
  try {
    f();
  } catch (const Message& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// max x + 2y  s.t.  x + y <= 6, x - y >= -2 (one-sided ranges); x, y in 0..10.
// Optimum 10 at x = 2, y = 4.
struct Small {
  explicit Small(QelEnv env)
      : x(env, 0, 10, "x"),
        y(env, 0, 10, "y"),
        model(env, "small"),
        cap(x + y <= 6),
        gap(x - y >= -2),
        gain(env, x + 2 * y, QelObjective::Maximize, "gain") {
    cap.setName("cap");
    model.add(cap);
    model.add(gap);
    model.add(gain);
  }
  QelIntVar x, y;
  QelModel model;
  QelRange cap, gap;
  QelObjective gain;
};

// One test suite per handle class built.
template <class Handle>
class HandleTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (Handle& h : made) h.end();
    env.end();
  }
  // A new engine, ended by TearDown.
  Handle make() {
    Handle h(env);
    enginetest::UnderSanitizer(h.getImpl());
    made.push_back(h);
    return h;
  }
  // A new engine that extracted and solved `s` (optimum 10).
  Handle solved(const Small& s) {
    Handle h = make();
    h.extract(s.model);
    EXPECT_EQ(h.solve(), QelEngineStatus::Optimal);
    EXPECT_EQ(h.getObjValue(), 10);
    return h;
  }
  std::string name() const { return made.front().getImpl()->getEngineName(); }

  QelEnv env;
  std::vector<Handle> made;
};

#if defined(QEL_HAVE_CBC) && defined(QEL_HAVE_GECODE)
using Handles = ::testing::Types<QelCbc, QelGecode>;
#elif defined(QEL_HAVE_CBC)
using Handles = ::testing::Types<QelCbc>;
#else
using Handles = ::testing::Types<QelGecode>;
#endif

// Test names show the handle class.
class HandleName {
 public:
  template <class T>
  static std::string GetName(int) {
#ifdef QEL_HAVE_CBC
    if (std::is_same<T, QelCbc>::value) return "QelCbc";
#endif
    return "QelGecode";
  }
};

TYPED_TEST_SUITE(HandleTest, Handles, HandleName);

TYPED_TEST(HandleTest, StatusReportAndStatisticsAreOnTheHandle) {
  Small s(this->env);
  TypeParam h = this->make();
  h.extract(s.model);
  EXPECT_FALSE(h.hasSolution());  // not solved yet
  EXPECT_EQ(h.getStatus(), QelEngineStatus::Unknown);
  ASSERT_EQ(h.solve(), QelEngineStatus::Optimal);
  EXPECT_TRUE(h.hasSolution());
  EXPECT_EQ(h.getObjValue(), 10);
  EXPECT_EQ(h.getValue(s.x), 2);
  EXPECT_EQ(h.getValue(s.y), 4);
  EXPECT_EQ(h.getValue(s.x + 2 * s.y - 10), 0);

  // The handle's statistics and report are the engine's own.
  const QelEngineStats& stats = h.getStats();
  EXPECT_EQ(&stats, &h.getImpl()->getStats());
  EXPECT_EQ(stats.solves, 1);
  EXPECT_EQ(stats.memberExtractions, 3);  // two ranges and the objective
  EXPECT_EQ(&h.getReport(), &h.getImpl()->getReport());
  EXPECT_EQ(h.getReport().status, QelEngineStatus::Optimal);
  EXPECT_TRUE(h.getReport().hasObjective);
  EXPECT_EQ(h.getReport().objective, 10);

  // No solution: hasSolution says so, values and objective are refused.
  s.model.add(s.x + s.y >= 7);
  EXPECT_EQ(h.solve(), QelEngineStatus::Infeasible);
  EXPECT_FALSE(h.hasSolution());
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { h.getObjValue(); }), "QelEngine: no solution");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { h.getValue(s.x); }),
            "QelAlgorithm: no value for this variable: x");
  EXPECT_EQ(stats.solves, 2);
}

TYPED_TEST(HandleTest, SettingsOnTheHandleReachTheEngine) {
  TypeParam h = this->make();
  h.setTimeLimit(12.5);
  EXPECT_EQ(h.getImpl()->getTimeLimit(), 12.5);
  EXPECT_EQ(h.getParams().timeLimit, 12.5);
  h.setParam("timeLimit", 3);
  EXPECT_EQ(h.getImpl()->getTimeLimit(), 3);
  h.setNodeLimit(1000);
  h.setSolutionLimit(5);
  h.setRelativeGap(0.02);
  h.setAbsoluteGap(0.5);
  h.setRandomSeed(11);
  h.setThreads(1);
  h.setLogLevel(0);
  h.setFeasibilityTolerance(1e-7);
  const QelEngineParams& p = h.getImpl()->getParams();
  EXPECT_EQ(p.nodeLimit, 1000);
  EXPECT_EQ(p.solutionLimit, 5);
  EXPECT_EQ(p.relativeGap, 0.02);
  EXPECT_EQ(p.absoluteGap, 0.5);
  EXPECT_EQ(p.randomSeed, 11);
  EXPECT_EQ(h.getImpl()->getFeasibilityTolerance(), 1e-7);
  EXPECT_THROW(h.setTimeLimit(-1), QelEngineError);
  EXPECT_EQ(h.getParams().timeLimit, 3);  // a refused value changes nothing
  std::string unknown = MessageOf<QelEngineError>([&] { h.setParam("noSuchSetting", 1); });
  EXPECT_EQ(unknown.rfind(this->name() + " engine: parameter \"noSuchSetting\": unknown name", 0),
            0u)
      << unknown;

  // All at once: the limits go, the time limit stays for a solve.
  QelEngineParams plain;
  plain.timeLimit = 3;
  h.setParams(plain);
  EXPECT_EQ(p.nodeLimit, 0);
  EXPECT_EQ(p.relativeGap, -1);
  Small s(this->env);
  h.extract(s.model);
  EXPECT_EQ(h.solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(h.getObjValue(), 10);
  EXPECT_LE(h.getReport().time, 3.0);
}

TYPED_TEST(HandleTest, EmptyHandlesThrow) {
  TypeParam empty;
  const char* text = "QelEngine: using empty handle";
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { empty.hasSolution(); }), text);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { empty.getStats(); }), text);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { empty.setTimeLimit(1); }), text);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { empty.setParam("timeLimit", 1); }), text);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { empty.solve(); }), text);
  EXPECT_EQ(MessageOf<QelEmptyHandleException>([&] { empty.getReport(); }), text);
  EXPECT_EQ(empty.getImpl(), nullptr);
}

TYPED_TEST(HandleTest, ValuesOfWholeArraysInOneCall) {
  QelIntVarArray v(this->env, 4, 0, 3);
  v.setNames("v");
  QelModel m(this->env, "m");
  QelIntExpr weighted(this->env, 0);
  for (long i = 0; i < v.getSize(); ++i) weighted += (i + 1) * v[i];  // v0 + 2 v1 + 3 v2 + 4 v3
  m.add(QelSum(v) == 6);
  m.add(QelAllDiff(this->env, v));
  m.add(QelObjective(this->env, weighted, QelObjective::Minimize));
  TypeParam h = this->make();
  h.extract(m);
  ASSERT_EQ(h.solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(h.getObjValue(), 10);    // 3, 2, 1, 0
  QelNumArray got = h.getValues(v);  // on the engine's handle
  ASSERT_EQ(got.getSize(), 4);
  for (long i = 0; i < 4; ++i) {
    EXPECT_EQ(got[i], 3 - i);
    EXPECT_EQ(got[i], h.getValue(v[i]));
  }
  got.end();

  // An array holding a variable the engine never saw: nothing is made, the
  // error names the variable (by its class and id when unnamed).
  QelIntVar spare(this->env, 0, 1);
  QelIntVarArray more(this->env, 2, v[0], spare);
  QelInt before = this->env.getImpl()->getBytesInUse();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { h.getValues(more); }),
            "QelAlgorithm: no value for this variable: QelIntVar" + std::to_string(spare.getId()));
  EXPECT_EQ(this->env.getImpl()->getBytesInUse(), before);
  more.end();
}

// A 3 x 3 assignment with Boolean variables in a two-dimensional array:
// every row and every column takes one, at least cost. The least cost is
// found by trying the six permutations.
TYPED_TEST(HandleTest, BooleanAndTwoDimensionalArrays) {
  const int cost[3][3] = {{4, 1, 3}, {2, 0, 5}, {3, 2, 2}};
  int best = std::numeric_limits<int>::max();
  int perm[3] = {0, 1, 2};
  do {
    best = std::min(best, cost[0][perm[0]] + cost[1][perm[1]] + cost[2][perm[2]]);
  } while (std::next_permutation(perm, perm + 3));

  QelBoolVarArray2D take(this->env, 3, 3);
  take.getArray().setNames("take");
  QelModel m(this->env, "assignment");
  QelIntExpr total(this->env, 0);
  for (long i = 0; i < 3; ++i) {
    QelBoolVarArray row = take.getRow(i);
    QelBoolVarArray col = take.getCol(i);
    m.add(QelSum(row) == 1);
    m.add(QelSum(col) == 1);
    row.end();
    col.end();
    for (long j = 0; j < 3; ++j) total += cost[i][j] * take(i, j);
  }
  m.add(QelObjective(this->env, total, QelObjective::Minimize, "total"));
  TypeParam h = this->make();
  h.extract(m);
  ASSERT_EQ(h.solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(h.getObjValue(), best);
  QelNumArray got = QelAlgorithm(h).getValues(take.getArray());
  ASSERT_EQ(got.getSize(), 9);
  int sum = 0;
  for (long i = 0; i < 3; ++i) {
    double inRow = 0, inCol = 0;
    for (long j = 0; j < 3; ++j) {
      EXPECT_TRUE(got[i * 3 + j] == 0 || got[i * 3 + j] == 1) << got[i * 3 + j];
      EXPECT_EQ(got[i * 3 + j], h.getValue(take(i, j)));
      inRow += got[i * 3 + j];
      inCol += got[j * 3 + i];
      sum += cost[i][j] * static_cast<int>(got[i * 3 + j]);
    }
    EXPECT_EQ(inRow, 1);
    EXPECT_EQ(inCol, 1);
  }
  EXPECT_EQ(sum, best);
  got.end();
}

// Bounds changed through the handles after extraction reach the engine: the
// next solve works on the changed model, and agrees with a fresh engine.
TYPED_TEST(HandleTest, BoundsSetThroughTheHandlesAreFollowed) {
  Small s(this->env);
  TypeParam h = this->solved(s);

  auto agrees = [this, &s, &h](double expected, const char* what) {
    ASSERT_EQ(h.solve(), QelEngineStatus::Optimal) << what;
    EXPECT_EQ(h.getObjValue(), expected) << what;
    EXPECT_TRUE(h.getImpl()->checkSolution().empty()) << what;
    TypeParam fresh = this->make();
    fresh.extract(s.model);
    ASSERT_EQ(fresh.solve(), QelEngineStatus::Optimal) << what;
    EXPECT_EQ(fresh.getObjValue(), expected) << what;
  };
  s.y.setUB(3);  // x + 2y: x = 3, y = 3
  agrees(9, "variable upper bound");
  EXPECT_EQ(h.getValue(s.y), 3);
  s.x.setLB(4);  // x in 4..10, x + y <= 6, x - y >= -2: x = 4, y = 2
  agrees(8, "variable lower bound");
  s.x.setBounds(0, 10);
  s.y.setBounds(0, 10);
  agrees(10, "both bounds back");
  s.cap.setUB(4);  // x + y <= 4, x - y >= -2: x = 1, y = 3
  agrees(7, "range upper bound");
  s.gap.setLB(0);  // x >= y: x = 2, y = 2
  agrees(6, "range lower bound");
  s.cap.setBounds(-QelInfinity, 6);
  s.gap.setBounds(-2, QelInfinity);
  agrees(10, "range bounds back, one-sided");
  EXPECT_EQ(h.getStats().solves, 7);
}

// After an object is ended, a model whose objective went with it is solved
// without objective, and the engine says so.
TYPED_TEST(HandleTest, ASolveAfterTheObjectiveWasEndedSaysSo) {
  Small s(this->env);
  TypeParam h = this->solved(s);
  std::ostringstream log;
  h.setLogStream(log);
  h.setLogLevel(1);
  s.gain.end();
  ASSERT_EQ(h.solve(), QelEngineStatus::Optimal);  // a solution, no objective
  EXPECT_TRUE(h.hasSolution());
  EXPECT_TRUE(h.getReport().objectiveRemoved);
  EXPECT_FALSE(h.getReport().hasObjective);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { h.getObjValue(); }),
            "QelEngine: no objective value: the model's objective was removed");
  const std::string tag = "[" + this->name() + "] ";
  EXPECT_TRUE(
      Contains(log.str(), tag + "the model's objective was removed: solved without objective"))
      << log.str();
  EXPECT_TRUE(Contains(log.str(), tag + "end: Optimal  objective none (the objective was removed)"))
      << log.str();
  EXPECT_LE(h.getValue(s.x + s.y), 6);  // the rows still hold
  EXPECT_GE(h.getValue(s.x - s.y), -2);
}

// A variable met only in terms of coefficient zero (a zero objective
// coefficient, terms that cancel out, a quadratic term of coefficient zero)
// still gets a value from the solve, within its bounds: the objective and
// the ranges are evaluated on the held values. Also after a removal, which
// has the Gecode engine build its form again from the model.
TYPED_TEST(HandleTest, VariablesMetOnlyWithCoefficientZeroGetValues) {
  QelEnv env = this->env;
  TypeParam h = this->make();
  QelIntVar x(env, 0, 3, "x"), y(env, 1, 2, "y"), z(env, -2, 5, "z"), w(env, 4, 6, "w");
  QelModel model(env);
  QelNumExpr cost(env, 0.0);
  cost += 2 * x;
  cost += 0 * y;
  QelObjective obj(env, cost, QelObjective::Minimize, "cost");
  QelNumExpr cancelled(env, 0.0);
  cancelled += x;
  cancelled += 3 * z;
  cancelled += -3 * z;
  QelRange atLeast(env, 1, cancelled, QelInfinity, "atLeast");
  QelRange atMost = x <= 2;
  QelNumExpr product = x + 0 * (y * w);
  QelRange withProduct(env, -QelInfinity, product, 3, "withProduct");
  model.add(obj);
  model.add(atLeast);
  model.add(atMost);
  model.add(withProduct);
  h.extract(model);
  auto solvedWithValues = [&](const char* what) {
    ASSERT_EQ(h.solve(), QelEngineStatus::Optimal) << what;
    EXPECT_EQ(h.getObjValue(), 2) << what;  // x = 1
    EXPECT_EQ(h.getValue(x), 1) << what;
    double vy = h.getValue(y);
    double vz = h.getValue(z);
    EXPECT_TRUE(vy >= 1 && vy <= 2) << what << ": y = " << vy;
    EXPECT_TRUE(vz >= -2 && vz <= 5) << what << ": z = " << vz;
    double vw = h.getValue(w);
    EXPECT_TRUE(vw >= 4 && vw <= 6) << what << ": w = " << vw;
    EXPECT_EQ(atLeast.eval(QelAlgorithm(h.getImpl())), 1.0) << what;
    EXPECT_TRUE(h.getImpl()->checkSolution().empty()) << what;
  };
  solvedWithValues("extracted");
  model.remove(atMost);
  solvedWithValues("after a removal");
}

#else

TEST(HandleTest, NoEngine) {
  GTEST_SKIP() << "no engine was built (neither libgecode-dev nor coinor-libcbc-dev found)";
}

#endif

}  // namespace

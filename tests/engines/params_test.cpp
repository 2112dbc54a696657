// What both engines share around a solve: the typed settings and settings
// by name, the log lines, the progress callback, the solve report and the
// time limit over the whole call; tested with a scripted engine that needs
// no solver.
#include <sstream>
#include <string>
#include <vector>

#include "engines/support/enginetest.h"

namespace {

// Takes ranges, variables and objectives; its "search" reports the scripted
// progress figures one by one, then answers Optimal (Feasible when stopped
// with an incumbent).
class ScriptedEngineI : public QelEngineI {
 public:
  explicit ScriptedEngineI(QelEnvI* env) : QelEngineI(env, "Scripted") {}
  using QelEngineI::extractObject;

  void* extractObject(const QelRangeI*) override {
    ++rows;
    return nullptr;
  }
  std::vector<std::string> getEngineParamNames() const override { return {"depth"}; }

  std::vector<QelEngineProgress> script;
  long reported = 0;
  long rows = 0;
  std::vector<QelNumVarI*> vars;  // given the value of their lower bound
  double depth = 0;
  double remainingAtStart = -1;

 protected:
  bool setEngineParam(const std::string& name, const std::string& value) override {
    if (name != "depth") return false;
    double v = paramNumber(name, value);
    if (v < 1) throw badParam(name, "must be >= 1");
    depth = v;
    return true;
  }
  QelFormSize getFormSize() const override {
    long n = static_cast<long>(vars.size());
    return {rows, n, n};
  }
  void resetForm() override { rows = 0; }
  void addToForm(QelExtractableI* m) override { extractThroughHook(m); }
  void removeFromForm(QelExtractableI*) override {}
  void forget(const QelExtractableI*) override {}
  void syncVariables() override {}
  QelEngineStatus runSolve() override {
    remainingAtStart = remainingTime();
    bool stopped = false;
    for (const QelEngineProgress& p : script) {
      ++reported;
      report().nodes = p.nodes;
      if (p.hasIncumbent) report().solutions = p.solutions;
      if (reportProgress(p)) {
        stopped = true;
        break;
      }
    }
    for (QelNumVarI* v : vars) setValue(v, v->getLB());
    if (!script.empty()) report().bestBound = script.back().bound;
    return stopped ? QelEngineStatus::Feasible : QelEngineStatus::Optimal;
  }
};

QelEngineProgress Figures(double time, long nodes, double incumbent, double bound) {
  QelEngineProgress p;
  p.time = time;
  p.nodes = nodes;
  p.solutions = 1;
  p.hasIncumbent = true;
  p.incumbent = incumbent;
  p.hasBound = true;
  p.bound = bound;
  return p;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream is(text);
  for (std::string line; std::getline(is, line);) lines.push_back(line);
  return lines;
}

struct ParamsTest : ::testing::Test {
  void SetUp() override {
    engine = QelNewObject<ScriptedEngineI>(env.getImpl(), env.getImpl());
    model.add(QelRange(env, 1, x + y, 8, "sum"));
    model.add(QelRange(env, 0, x - y, 3, "diff"));
    model.add(QelObjective(env, x + y, QelObjective::Minimize));
    engine->vars = {x.getImpl(), y.getImpl()};
    handle = QelEngine(engine);
  }
  void TearDown() override {
    handle.end();
    env.end();
  }
  QelEnv env;
  ScriptedEngineI* engine = nullptr;
  QelEngine handle;
  QelModel model{env, "m"};
  QelIntVar x{env, 0, 9, "x"};
  QelIntVar y{env, 0, 9, "y"};
};

TEST_F(ParamsTest, TypedSettingsOnTheHandle) {
  handle.setTimeLimit(2.5);
  handle.setRelativeGap(0.01);
  handle.setAbsoluteGap(0.5);
  handle.setNodeLimit(100);
  handle.setSolutionLimit(3);
  handle.setThreads(2);
  handle.setRandomSeed(7);
  handle.setLogLevel(1);
  const QelEngineParams& p = handle.getParams();
  EXPECT_EQ(p.timeLimit, 2.5);
  EXPECT_EQ(engine->getTimeLimit(), 2.5);
  EXPECT_EQ(p.relativeGap, 0.01);
  EXPECT_EQ(p.absoluteGap, 0.5);
  EXPECT_EQ(p.nodeLimit, 100);
  EXPECT_EQ(p.solutionLimit, 3);
  EXPECT_EQ(p.threads, 2);
  EXPECT_EQ(p.randomSeed, 7);
  EXPECT_EQ(p.logLevel, 1);
  EXPECT_THROW(handle.setNodeLimit(-1), QelEngineError);
  EXPECT_EQ(p.nodeLimit, 100);  // a refused value changes nothing
  EXPECT_THROW(handle.setTimeLimit(-1), QelEngineError);
  EXPECT_EQ(p.timeLimit, 2.5);

  QelEngineParams all;
  all.nodeLimit = 5;
  all.threads = -2;
  EXPECT_THROW(handle.setParams(all), QelEngineError);
  EXPECT_EQ(p.nodeLimit, 100);
  all.threads = 4;
  handle.setParams(all);
  EXPECT_EQ(p.nodeLimit, 5);
  EXPECT_EQ(p.threads, 4);
  EXPECT_EQ(p.timeLimit, 0);
}

TEST_F(ParamsTest, SettingsByName) {
  handle.setParam("nodeLimit", "250");
  handle.setParam("relativeGap", 0.05);
  handle.setParam("timeLimit", "1.5");
  handle.setParam("logLevel", 2);
  handle.setParam("depth", "4");  // the engine's own
  EXPECT_EQ(handle.getParams().nodeLimit, 250);
  EXPECT_EQ(handle.getParams().relativeGap, 0.05);
  EXPECT_EQ(handle.getParams().timeLimit, 1.5);
  EXPECT_EQ(handle.getParams().logLevel, 2);
  EXPECT_EQ(engine->depth, 4);

  try {
    handle.setParam("cutz", "off");
    FAIL() << "an unknown name was taken";
  } catch (const QelEngineError& e) {
    std::string m = e.what();
    EXPECT_EQ(m.rfind("Scripted engine: parameter \"cutz\": unknown name; the names known are "
                      "timeLimit, relativeGap",
                      0),
              0u)
        << m;
    EXPECT_NE(m.find(", depth"), std::string::npos) << m;
  }
  try {
    handle.setParam("nodeLimit", "many");
    FAIL() << "a word was taken as a number";
  } catch (const QelEngineError& e) {
    EXPECT_STREQ(e.what(), "Scripted engine: parameter \"nodeLimit\": \"many\" is not a number");
  }
  EXPECT_THROW(handle.setParam("nodeLimit", "2.5"), QelEngineError);
  EXPECT_THROW(handle.setParam("depth", "0"), QelEngineError);
  EXPECT_EQ(handle.getParams().nodeLimit, 250);
  EXPECT_EQ(engine->depth, 4);
}

TEST_F(ParamsTest, LogLinesAtLevelOne) {
  std::ostringstream log;
  handle.setLogStream(log);
  handle.setLogLevel(1);
  // Progress at 0, 0.4, 0.9, 1.0, 1.6, 2.1 s: lines at 0, 1.0 and 2.1.
  engine->script = {Figures(0, 1, 20, 10),    Figures(0.4, 5, 18, 11),  Figures(0.9, 9, 18, 12),
                    Figures(1.0, 12, 16, 12), Figures(1.6, 20, 15, 14), Figures(2.1, 31, 15, 15)};
  handle.extract(model);
  EXPECT_EQ(handle.solve(), QelEngineStatus::Optimal);
  std::vector<std::string> lines = Lines(log.str());
  ASSERT_EQ(lines.size(), 5u) << log.str();
  EXPECT_EQ(lines[0], "[Scripted] start: 2 rows, 2 columns (2 integer); QelRangeI 2");
  EXPECT_EQ(lines[1], "[Scripted] 0.00 s  nodes 1  incumbent 20  bound 10  gap 50%");
  EXPECT_EQ(lines[2], "[Scripted] 1.00 s  nodes 12  incumbent 16  bound 12  gap 25%");
  EXPECT_EQ(lines[3], "[Scripted] 2.10 s  nodes 31  incumbent 15  bound 15  gap 0%");
  // The solution holds x = y = 0, so the objective is 0; the bound is 15.
  EXPECT_EQ(lines[4].rfind("[Scripted] end: Optimal  objective 0  bound 15  gap ", 0), 0u)
      << lines[4];
  EXPECT_NE(lines[4].find("  nodes 31  iterations 0  solutions 1  time "), std::string::npos)
      << lines[4];

  // Silent at level 0.
  std::ostringstream quiet;
  handle.setLogStream(quiet);
  handle.setLogLevel(0);
  handle.solve();
  EXPECT_EQ(quiet.str(), "");
}

TEST_F(ParamsTest, ProgressCallbackSeesTheFiguresAndStops) {
  engine->script = {Figures(0, 1, 20, 10), Figures(0.1, 2, 18, 10), Figures(0.2, 3, 17, 12),
                    Figures(0.3, 4, 16, 12)};
  std::vector<long> nodes;
  std::vector<double> gaps;
  handle.setProgressCallback([&](const QelEngineProgress& p) {
    nodes.push_back(p.nodes);
    gaps.push_back(p.gap());
    return p.nodes >= 2 ? QelProgressReply::Stop : QelProgressReply::Continue;
  });
  handle.extract(model);
  EXPECT_EQ(handle.solve(), QelEngineStatus::Feasible);
  EXPECT_EQ(nodes, (std::vector<long>{1, 2}));
  EXPECT_EQ(engine->reported, 2);
  EXPECT_DOUBLE_EQ(gaps[1], 8.0 / 18.0);
  EXPECT_TRUE(handle.getReport().stoppedByCallback);
  EXPECT_EQ(handle.getReport().nodes, 2);

  // Removed: the next solve runs to its end.
  handle.setProgressCallback(nullptr);
  engine->reported = 0;
  EXPECT_EQ(handle.solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(engine->reported, 4);
  EXPECT_FALSE(handle.getReport().stoppedByCallback);
}

TEST_F(ParamsTest, ReportAndRemovedObjective) {
  QelObjective obj = QelObjective(env, 2 * x + y, QelObjective::Minimize, "cost");
  QelModel m2(env, "m2");
  m2.add(QelRange(env, 0, x + y, 8));
  m2.add(obj);
  handle.extract(m2);
  EXPECT_EQ(handle.solve(), QelEngineStatus::Optimal);
  const QelSolveReport& r = handle.getReport();
  EXPECT_TRUE(r.hasObjective);
  EXPECT_FALSE(r.objectiveRemoved);
  EXPECT_EQ(r.objective, 0);
  EXPECT_EQ(r.solutions, 1);
  EXPECT_GE(r.time, r.extractionTime);

  std::ostringstream log;
  handle.setLogStream(log);
  handle.setLogLevel(1);
  obj.end();
  EXPECT_EQ(handle.solve(), QelEngineStatus::Optimal);
  EXPECT_FALSE(handle.getReport().hasObjective);
  EXPECT_TRUE(handle.getReport().objectiveRemoved);
  EXPECT_NE(
      log.str().find("[Scripted] the model's objective was removed: solved without objective"),
      std::string::npos)
      << log.str();
  EXPECT_NE(log.str().find("end: Optimal  objective none (the objective was removed)"),
            std::string::npos)
      << log.str();
  try {
    handle.getObjValue();
    FAIL() << "an objective value without objective";
  } catch (const QelWrongUsage& e) {
    EXPECT_STREQ(e.what(), "QelEngine: no objective value: the model's objective was removed");
  }
}

TEST_F(ParamsTest, SolutionChecksHaveAFeasibilityTolerance) {
  // 1 <= x + y: the solution x = y = 0 violates it by 1; 0 <= x - y <= 3 holds.
  handle.extract(model);
  EXPECT_TRUE(engine->checkSolution().empty());  // no solution yet
  handle.solve();
  std::vector<const QelExtractableI*> violated = engine->checkSolution();
  ASSERT_EQ(violated.size(), 1u);
  EXPECT_STREQ(violated[0]->getName(), "sum");

  // A residual of 1e-13 passes, one of 1e-3 does not (default 1e-6
  // relative); a tolerance of 1e-2 takes it.
  QelNumVar z(env, 0, 10, QelVarType::Float, "z");
  QelRange eq(env, 1.0 / 3, z, 1.0 / 3, "eq");
  QelModel m2(env);
  m2.add(eq);
  handle.getImpl()->clear();
  handle.extract(m2);
  engine->vars = {z.getImpl()};
  z.getImpl()->setLB(1.0 / 3 + 1e-13);
  handle.solve();
  EXPECT_TRUE(engine->checkSolution().empty());
  z.getImpl()->setLB(1.0 / 3 + 1e-3);
  handle.solve();
  EXPECT_EQ(engine->checkSolution().size(), 1u);
  handle.setFeasibilityTolerance(1e-2);
  EXPECT_TRUE(engine->checkSolution().empty());
  EXPECT_THROW(handle.setFeasibilityTolerance(-1), QelEngineError);
}

TEST_F(ParamsTest, TheTimeLimitCountsFromTheStartOfSolve) {
  handle.extract(model);
  handle.setTimeLimit(100);
  handle.solve();
  EXPECT_GT(engine->remainingAtStart, 0);
  EXPECT_LE(engine->remainingAtStart, 100);
  EXPECT_LE(handle.getReport().extractionTime, handle.getReport().time);
  handle.setTimeLimit(0);
  handle.solve();
  EXPECT_GE(engine->remainingAtStart, 1e19);  // no limit
}

TEST(ParamsLog, LineShapes) {
  QelFormSize size{3, 5, 4};
  EXPECT_EQ(QelEngineLog::StartLine("X", size, {{"QelPackI", 1}, {"QelRangeI", 2}}),
            "[X] start: 3 rows, 5 columns (4 integer); QelPackI 1, QelRangeI 2");
  EXPECT_EQ(QelEngineLog::StartLine("X", {}, {}),
            "[X] start: 0 rows, 0 columns (0 integer); no constraints");
  QelEngineProgress p;
  p.time = 12.345;
  p.nodes = 7;
  EXPECT_EQ(QelEngineLog::ProgressLine("X", p),
            "[X] 12.35 s  nodes 7  incumbent -  bound -  gap -");
  QelSolveReport r;
  r.status = QelEngineStatus::Infeasible;
  r.time = 0.5;
  EXPECT_EQ(QelEngineLog::EndLine("X", r),
            "[X] end: Infeasible  objective none  bound -  gap -  nodes 0  iterations 0  "
            "solutions 0  time 0.50 s");
  EXPECT_EQ(QelEngineLog::Number(1.0 / 3), "0.3333333333");
  EXPECT_EQ(QelEngineLog::Number(-2e20), "-2e+20");
}

}  // namespace

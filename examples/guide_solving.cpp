// The snippets of the guide's section "Solving a model" (docs/guide.md),
// run and checked with the CBC and Gecode engines. Built without either of
// them, it says so and passes.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <qel/qel.h>

#include "guide_check.h"

#if defined(QEL_HAVE_CBC) && defined(QEL_HAVE_GECODE)
#include <qel/engines/cbc.h>
#include <qel/engines/gecode.h>

namespace {

using guide::Check;
using guide::Expect;

void Solving() {
  guide::Section("Solving a model");
  guide::Capture out;

  // guide: extract and solve
  QelEnv env;
  QelIntVarArray make(env, 3, 0, 10);  // batches of three products
  make.setNames("make");
  QelModel plan(env, "plan");
  plan.add(2 * make[0] + 3 * make[1] + 4 * make[2] <= 30);  // machine hours
  plan.add(QelSum(make) <= 9);                              // crew
  QelObjective profit(env, 4 * make[0] + 7 * make[1] + 9 * make[2], QelObjective::Maximize,
                      "profit");
  plan.add(profit);
  QelCbc mip(env);    // a CBC engine attached to env
  mip.extract(plan);  // the model and everything it holds
  QelEngineStatus status = mip.solve();
  std::cout << status << " " << mip.hasSolution() << " " << mip.getObjValue() << "\n";
  Expect(out.take(), "Optimal 1 69\n", "extract and solve");

  // guide: values
  QelIntExpr hours = 3 * make[1] + 4 * make[2];
  std::cout << mip.getValue(make[1]) << " " << mip.getValue(hours) << "\n";
  hours.end();                                // used by nothing: ours to end
  QelNumArray amounts = mip.getValues(make);  // a new array, ours to end
  std::cout << amounts << "\n";
  amounts.end();
  Expect(out.take(), "6 30\n[0, 6, 3]\n", "values");

  // guide: no value
  QelIntVar spare(env, 0, 5, "spare");  // in no model the engine extracted
  try {
    mip.getValue(spare);
  } catch (const QelWrongUsage& e) {
    std::cout << e.getMessage() << "\n";
  }
  Expect(out.take(), "QelAlgorithm: no value for this variable: spare\n", "no value");

  // guide: report
  const QelSolveReport& report = mip.getReport();
  std::cout << report.status << ": objective " << report.objective << ", bound " << report.bestBound
            << ", gap " << report.gap << "\n";
  Expect(out.take(), "Optimal: objective 69, bound 69, gap 0\n", "report");
  Check(report.hasObjective && !report.objectiveRemoved && !report.stoppedByCallback,
        "the report's flags");
  Check(report.time >= report.extractionTime && report.extractionTime >= 0, "the report's times");
  Check(report.solutions >= 1 && report.nodes >= 0 && report.iterations >= 0,
        "the report's counts");

  // guide: solve again
  plan.add(make[2] <= 2);            // a new row, added to the engine's form
  profit.setLinearCoef(make[0], 5);  // the objective changed in place
  mip.solve();
  const QelEngineStats& stats = mip.getStats();
  std::cout << mip.getObjValue() << ": " << stats.solves << " solves, " << stats.memberExtractions
            << " members extracted, " << stats.incrementalChanges << " change in place, "
            << stats.rebuilds << " rebuilds\n";
  Expect(out.take(), "67: 2 solves, 4 members extracted, 1 change in place, 0 rebuilds\n",
         "solve again");
  Check(mip.getValue(make[2]) <= 2, "the new row holds");
  Check(mip.getImpl()->getMembers().size() == 4, "three ranges and the objective are the members");

  // guide: limits
  mip.setTimeLimit(10);             // seconds for each whole solve()
  mip.setRelativeGap(0.01);         // stop within 1% of the bound
  mip.setParam("nodeLimit", 5000);  // a shared setting, by its name
  mip.setParam("cuts", "off");      // one of CBC's own options
  try {
    mip.setParam("nodeLimit", "many");
  } catch (const QelEngineError& e) {
    std::cout << e.getMessage() << "\n";
  }
  Expect(out.take(), "CBC engine: parameter \"nodeLimit\": \"many\" is not a number\n", "limits");
  Check(mip.getParams().timeLimit == 10 && mip.getParams().relativeGap == 0.01 &&
            mip.getParams().nodeLimit == 5000,
        "the settings are kept");

  // guide: log
  std::ostringstream log;
  mip.setLogStream(log);  // std::clog unless told otherwise
  mip.setLogLevel(1);
  mip.solve();
  std::istringstream lines(log.str());
  std::string start;
  std::getline(lines, start);  // the first line: what the engine solves
  std::cout << start << "\n";
  Expect(out.take(), "[CBC] start: 3 rows, 3 columns (3 integer); QelRangeI 3\n", "log");
  Check(log.str().find("[CBC] end: Optimal  objective 67  bound 67") != std::string::npos,
        "the end line of the log");
  mip.setLogLevel(0);

  // guide: progress
  long calls = 0;
  double incumbent = 0;
  mip.setProgressCallback([&](const QelEngineProgress& p) {
    ++calls;
    if (p.hasIncumbent) incumbent = p.incumbent;  // also p.time, p.nodes, p.bound, p.gap()
    return QelProgressReply::Continue;
  });
  mip.solve();
  Check(calls >= 1 && incumbent == 67, "the progress callback sees the incumbent");
  mip.setProgressCallback(nullptr);

  // guide: stop early
  QelGecode cp(env);
  cp.extract(plan);
  cp.setProgressCallback([](const QelEngineProgress& p) {
    return p.hasIncumbent ? QelProgressReply::Stop : QelProgressReply::Continue;
  });
  status = cp.solve();  // stops at its first solution
  std::cout << status << " " << cp.getObjValue() << " " << cp.getReport().stoppedByCallback << "\n";
  cp.setProgressCallback(nullptr);  // no callback: search to the end
  status = cp.solve();
  std::cout << status << " " << cp.getObjValue() << "\n";
  Expect(out.take(), "Feasible 0 1\nOptimal 67\n", "stop early");

  // guide: enumerate
  QelIntVarArray seat(env, 3, 0, 2);  // the seats of three guests
  QelModel rules(env, "rules");       // no objective
  rules.add(QelAllDiff(env, seat));
  rules.add(QelDiff(env, seat[0], 0.0));  // guest 0 not in seat 0
  QelGecode all(env);
  all.extract(rules);
  long n = all.enumerate([&seat](QelGecodeI& engine) {
    QelNumArray s = QelAlgorithm(&engine).getValues(seat);
    std::cout << s << "\n";
    s.end();
    return true;  // false stops the enumeration
  });
  std::cout << n << " solutions, " << all.getStatus() << "\n";
  Expect(out.take(), "[1, 0, 2]\n[1, 2, 0]\n[2, 0, 1]\n[2, 1, 0]\n4 solutions, Optimal\n",
         "enumerate");
  Check(all.enumerate([](QelGecodeI&) { return true; }, 2) == 2 &&
            all.getStatus() == QelEngineStatus::Feasible,
        "enumerate(callback, 2) stops after two");

  // guide: enumerate with objective
  try {
    cp.enumerate([](QelGecodeI&) { return true; });
  } catch (const QelWrongUsage& e) {
    std::cout << e.getMessage() << "\n";
  }
  Expect(out.take(), "QelGecodeI::enumerate: the model has an objective; use solve()\n",
         "enumerate with objective");

  // guide: refused quadratic
  QelRange area = make[0] * make[1] <= 20;  // a quadratic row
  area.setName("area");
  plan.add(area);  // followed by both engines
  try {
    mip.solve();
  } catch (const QelEngineError& e) {
    std::cout << e.getMessage() << "\n";
  }
  std::cout << cp.solve() << " " << cp.getObjValue() << "\n";  // Gecode takes it
  plan.remove(area);
  std::cout << mip.solve() << " " << mip.getObjValue() << "\n";  // CBC again
  Expect(out.take(),
         "CBC engine cannot extract \"area\" (QelRangeI): quadratic terms are not supported "
         "(CBC solves linear models)\n"
         "Optimal 67\n"
         "Optimal 67\n",
         "refused quadratic");
  {
    QelCbc fresh(env);
    bool named = false;
    try {
      fresh.extract(area);
    } catch (const QelEngineError& e) {
      named = e.getExtractable() == area.getImpl();
    }
    Check(named, "the error gives the object refused");
    fresh.end();
  }

  // guide: refused by Gecode
  QelNumVar price(env, 0, 4.5, "price");
  QelSOS2 pieces(env, "pieces");
  pieces->addVar(make[0]);
  pieces->addVar(make[1]);
  QelModel pricing(env, "pricing");
  pricing.add(price + make[0] <= 8);
  QelModel sets(env, "sets");
  sets.add(pieces);
  for (const QelModel& m : {pricing, sets}) {
    QelGecode other(env);
    try {
      other.extract(m);
    } catch (const QelEngineError& e) {
      std::cout << e.getMessage() << "\n";
    }
    other.end();
  }
  Expect(out.take(),
         "Gecode engine cannot extract \"price\" (QelNumVarI): float variables are not "
         "supported; the engine takes integer and Boolean variables\n"
         "Gecode engine cannot extract \"pieces\" (QelSOS2I): special ordered sets are not "
         "supported (they are a mixed-integer programming construct; use a MIP engine)\n",
         "refused by Gecode");
  {
    QelGecode other(env);
    try {
      other.extract(pricing);
    } catch (const QelEngineError&) {
    }
    other.extract(rules);
    Check(other.solve() == QelEngineStatus::Optimal && other.getImpl()->getMembers().size() == 2,
          "a refused extract keeps nothing of the model");
    other.end();
  }

  // guide: write the LP
  mip.writeMps("plan.mps");  // the LP CBC's driver is given; the cbc program reads it too
  std::ifstream lp("plan.mps");
  for (std::string line; std::getline(lp, line);) std::cout << line << "\n";
  Expect(out.take(),
         "NAME          qel       FREE\nROWS\n N  OBJROW\n L  R0\n L  R1\n L  R2\nCOLUMNS\n"
         "    make(0) OBJROW -5 R0 2\n    make(0) R1 1\n    make(1) OBJROW -7 R0 3\n"
         "    make(1) R1 1\n    make(2) OBJROW -9 R0 4\n    make(2) R1 1 R2 1\nRHS\n"
         "    RHS R0 30 R1 9\n    RHS R2 2\nBOUNDS\n UI BOUND make(0) 10\n"
         " UI BOUND make(1) 10\n UI BOUND make(2) 10\nENDATA\n",
         "write the LP");
  lp.close();
  std::remove("plan.mps");

  // guide: infeasible
  plan.add(make[0] + make[1] >= 12);  // more than the crew can make
  status = mip.solve();
  std::cout << status << " " << mip.hasSolution() << "\n";
  try {
    mip.getObjValue();
  } catch (const QelException& e) {
    std::cout << e.getMessage() << "\n";
  }
  Expect(out.take(), "Infeasible 0\nQelEngine: no solution\n", "infeasible");
  bool noValue = false;
  try {
    mip.getValue(make[0]);
  } catch (const QelWrongUsage&) {
    noValue = true;
  }
  Check(noValue, "no values without a solution");

  // guide: end
  mip.end();  // every engine before its environment
  cp.end();
  all.end();
  env.end();
}

}  // namespace

int main() {
  Solving();
  return guide::Result();
}

#else

int main() {
  std::cout << "built without the CBC and the Gecode engine: the guide's section on solving "
               "needs both\n";
  return 0;
}

#endif

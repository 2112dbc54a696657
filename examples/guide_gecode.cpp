// The guide's section on the Gecode engine's search options
// (docs/guide.md, "Search options of the Gecode engine"): a 120-item bin
// packing solved with the default search, the search settings, and the
// solutions of eight queens enumerated. Fails when what the guide claims
// does not hold; built without the Gecode engine, it says so and passes.
#include <iostream>

#include <qel/qel.h>
#ifdef QEL_HAVE_GECODE
#include <qel/engines/gecode.h>
#include "engines/support/models.h"
#endif

int main() {
#ifndef QEL_HAVE_GECODE
  std::cout << "built without the Gecode engine: nothing to show\n";
  return 0;
#else
  int failures = 0;
  auto check = [&failures](bool ok, const char* what) {
    if (!ok) {
      std::cout << "FAILED: " << what << "\n";
      ++failures;
    }
  };
  QelEnv env;
  {
    std::vector<int> w = binpacking::Weights(120, 20, 100, 1);
    long ffd = binpacking::FirstFitDecreasing(w, 150);
    QelModel model = binpacking::Build(env, w, ffd, 150).model;
    QelGecode cp(env);
    cp.extract(model);  // one QelPack, minimize its used count
    cp.setTimeLimit(10);
    cp.setLogLevel(1);  // on std::clog, or setLogStream
    cp.solve();         // Optimal: 49 bins, first-fit decreasing uses 50
    check(cp.getStatus() == QelEngineStatus::Optimal, "the packing is proven optimal");
    check(cp.getObjValue() == 49 && ffd == 50, "49 bins, first-fit decreasing 50");

    cp.setThreads(2);
    cp.setParam("varSelect", "domafc");  // replaces the default variable selection
    cp.setParam("restart", "luby");
    cp.setParam("restartScale", 50);
    check(cp.getParams().threads == 2, "two threads");
    check(cp.getImpl()->getSearch().variable == QelGecodeVarSelect::DomainOverAfc,
          "the variable selection");
    check(cp.getImpl()->getSearch().restart == QelGecodeRestart::Luby &&
              cp.getImpl()->getSearch().restartScale == 50,
          "the restarts");
    cp.end();
  }
  {
    QelModel board(env, "queens");
    QelIntVarArray q = queens::Add(env, board, 8);
    QelGecode cp(env);
    cp.extract(board);
    long n = cp.enumerate([&](QelGecodeI& e) {
      std::cout << e.getValue(q[0].getImpl()) << " ";
      return true;
    });  // 92; enumerate(callback, 10) stops after ten
    std::cout << "\n" << n << " solutions\n";
    check(n == 92, "92 solutions of eight queens");
    check(cp.enumerate([](QelGecodeI&) { return true; }, 10) == 10, "ten, when asked for ten");
    cp.end();
  }
  env.end();
  return failures == 0 ? 0 : 1;
#endif
}

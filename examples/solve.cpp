// Solving one model with every engine that applies.
//
// Six items go into three bins of capacity 9 (a pack constraint). Items 0
// and 1 must not share a bin (a difference), items 2, 3 and 4 must all be
// in different bins (an all-different constraint). Two objectives are built
// on the same packing:
//   - balance the bins: the fullest bin as light as possible (any engine
//     that takes pack);
//   - a piecewise-linear cost per bin, f(load) through (0, 0), (3, 3),
//     (6, 4), (9, 10): cheap when half full, expensive when full, modeled
//     with one special ordered set of type 2 per bin (a MIP engine).
// The model is built once and printed; each engine built with the library
// (Gecode, CBC) extracts what it can take; an engine that cannot take a model
// says which object it refuses and why.
//
//   cmake --build build/dev --target qel_solve && build/dev/examples/qel_solve
#include <iostream>
#include <string>
#include <vector>

#include <qel/qel.h>

#if defined(QEL_HAVE_GECODE) || defined(QEL_HAVE_CBC)
#include <qel/engines/engine.h>
#endif
#ifdef QEL_HAVE_GECODE
#include <qel/engines/gecode.h>
#endif
#ifdef QEL_HAVE_CBC
#include <qel/engines/cbc.h>
#endif

namespace {

const int Items = 6;
const int Bins = 3;
const QelInt Sizes[Items] = {5, 4, 4, 3, 2, 2};
const double LoadAt[4] = {0, 3, 6, 9};
const double CostAt[4] = {0, 3, 4, 10};

struct Problem {
  explicit Problem(QelEnv env)
      : packing(env, "packing"),
        balanced(env, "balanced"),
        cheapest(env, "cheapest"),
        load(env, Bins, 0, 9),
        where(env, Items, 0, Bins - 1),
        used(env, 0, Bins, "used") {
    load.setNames("load");
    where.setNames("where");
    QelIntArray sizes(env, Items);
    for (int i = 0; i < Items; ++i) sizes.set(i, Sizes[i]);
    packing.add(QelPack(env, load.toIntExprArray(), where.toIntExprArray(), sizes, used, "pack"));
    sizes.end();
    packing.add(QelDiff(env, where[0], where[1], "apart"));
    QelIntVarArray spread(env, 0);
    for (int i = 2; i <= 4; ++i) spread.add(where[i]);
    packing.add(QelAllDiff(env, spread, "spread"));
    spread.end();

    // fullest >= load[j] for every bin.
    QelIntVar fullest(env, 0, 9, "fullest");
    balanced.add(packing);
    for (int j = 0; j < Bins; ++j)
      balanced.add(QelRange(env, 0, fullest - load[j], 9, ("fullest" + std::to_string(j)).c_str()));
    balanced.add(QelObjective(env, fullest, QelObjective::Minimize, "fullestLoad"));

    // cost[j] = f(load[j]): load and cost are weighted sums of the
    // breakpoints, the weights in a special ordered set of type 2.
    cheapest.add(packing);
    QelNumExpr total(env, 0.0);
    QelNumArray xs(env, 4), ys(env, 4);
    for (int k = 0; k < 4; ++k) {
      xs.set(k, LoadAt[k]);
      ys.set(k, CostAt[k]);
    }
    for (int j = 0; j < Bins; ++j) {
      std::string bin = std::to_string(j);
      QelNumVarArray lambda(env, 4, 0, 1);
      lambda.setNames(("lambda" + bin).c_str());
      QelNumVar cost(env, 0, 10, ("cost" + bin).c_str());
      cheapest.add(QelRange(env, 1, QelSum(lambda), 1, ("convex" + bin).c_str()));
      cheapest.add(
          QelRange(env, 0, load[j] - QelScalProd(lambda, xs), 0, ("loadAt" + bin).c_str()));
      cheapest.add(QelRange(env, 0, cost - QelScalProd(lambda, ys), 0, ("costAt" + bin).c_str()));
      QelSOS2 pieces(env, ("pieces" + bin).c_str());
      for (int k = 0; k < 4; ++k) {
        pieces->addVar(lambda[k]);
        pieces->addVal(k + 1);
      }
      cheapest.add(pieces);
      total = total + cost;
    }
    xs.end();
    ys.end();
    cheapest.add(QelObjective(env, total, QelObjective::Minimize, "totalCost"));
  }

  QelModel packing;
  QelModel balanced;
  QelModel cheapest;
  QelIntVarArray load;
  QelIntVarArray where;
  QelIntVar used;
};

#if defined(QEL_HAVE_GECODE) || defined(QEL_HAVE_CBC)
// Solves `model` with `engine` and prints the solution; returns false when
// the engine found none or a constraint is not satisfied.
bool Solve(QelEngine engine, const Problem& p, const QelModel& model) {
  std::cout << "\n== " << engine.getImpl()->getEngineName() << " on " << model.getName() << "\n";
  try {
    engine.extract(model);
  } catch (const QelEngineError& e) {
    std::cout << "   refused: " << e.what() << "\n";
    return true;  // a clear refusal is an answer
  }
  QelEngineStatus status = engine.solve();
  std::cout << "   status " << status << "\n";
  if (!engine.getImpl()->hasSolution()) return false;
  std::cout << "   objective " << engine.getObjValue() << ", bins used " << engine.getValue(p.used)
            << "\n";
  for (int j = 0; j < Bins; ++j) {
    std::cout << "   bin " << j << " (load " << engine.getValue(p.load[j]) << "):";
    for (int i = 0; i < Items; ++i)
      if (engine.getValue(p.where[i]) == j) std::cout << " item" << i << "[" << Sizes[i] << "]";
    std::cout << "\n";
  }
  // The side constraints, evaluated on the engine's solution.
  bool ok = true;
  for (QelModel::Iterator it(p.packing); it.ok(); ++it) {
    QelExtractableI* c = (*it).getImpl();
    if (QelDynamicCast<QelPackI>(c) != nullptr) continue;  // no eval of its own
    double satisfied = static_cast<QelConstraintI*>(c)->eval(engine);
    std::cout << "   " << c->getName() << " satisfied: " << (satisfied == 1.0 ? "yes" : "NO")
              << "\n";
    ok = ok && satisfied == 1.0;
  }
  return ok;
}
#endif

}  // namespace

int main() {
  QelEnv env;
  int failures = 0;
  {
    Problem p(env);
    std::cout << p.cheapest << p.balanced;

#if defined(QEL_HAVE_GECODE) || defined(QEL_HAVE_CBC)
    std::vector<QelEngineI* (*)(QelEnv)> makers;
#ifdef QEL_HAVE_GECODE
    makers.push_back(&QelNewGecodeEngine);
#endif
#ifdef QEL_HAVE_CBC
    makers.push_back(&QelNewCbcEngine);
#endif
    // One engine per model: an engine optimizes one objective.
    for (auto make : makers) {
      for (const QelModel* m : {&p.cheapest, &p.balanced}) {
        QelEngine engine(make(env));
        if (!Solve(engine, p, *m)) ++failures;
        engine.end();
      }
    }
#else
    std::cout << "\nNo engine was built: install libgecode-dev or coinor-libcbc-dev and "
                 "configure again to solve this model.\n";
#endif
  }
  env.end();
  return failures == 0 ? 0 : 1;
}

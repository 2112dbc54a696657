// Solves a small knapsack with the CBC engine of an installed Qel.
#include <cmath>
#include <iostream>

#include <qel/engines/cbc.h>
#include <qel/qel.h>

int main() {
  QelEnv env;
  int rc = 1;
  {
    QelBoolVarArray take(env, 4);
    QelModel model(env);
    const double value[] = {10, 13, 7, 8};
    const double weight[] = {5, 7, 4, 3};
    QelNumExpr total(env, 0);
    QelNumExpr load(env, 0);
    for (QelInt i = 0; i < 4; ++i) {
      total += value[i] * take[i];
      load += weight[i] * take[i];
    }
    model.add(load <= 10);
    model.add(QelObjective(env, total, QelObjective::Maximize));
    QelCbc mip(env);
    mip.extract(model);
    if (mip.solve() == QelEngineStatus::Optimal && std::fabs(mip.getObjValue() - 21) < 1e-6) {
      std::cout << "CBC engine: knapsack optimum " << mip.getObjValue() << "\n";
      rc = 0;
    }
    mip.end();
    total.end();
    load.end();
  }
  env.end();
  return rc;
}

// Built inside a project that took Qel in with add_subdirectory: a model
// written with the relational operators and a compound assignment, printed,
// evaluated, and checked.
#include <iostream>
#include <sstream>

#include <qel/qel.h>

int main() {
  QelEnv env;
  QelIntVarArray x(env, 3, 0, 5);
  QelIntExpr total(env, 0);
  for (long i = 0; i < x.getSize(); ++i) total += (i + 1) * x[i];
  QelModel model(env, "m");
  model.add(total <= 8);
  QelAlgorithm alg(env);
  for (long i = 0; i < x.getSize(); ++i) alg.setValue(x[i], 1);
  std::ostringstream printed;
  printed << model;
  std::cout << printed.str() << "total = " << alg.getValue(total) << "\n";
  bool ok = alg.getValue(total) == 6 && printed.str().find("<= 8") != std::string::npos;
  alg.end();
  x.end();
  env.end();
  return ok ? 0 : 1;
}

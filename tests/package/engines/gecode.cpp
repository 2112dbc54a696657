// Counts the solutions of 6 queens with the Gecode engine of an installed Qel.
#include <iostream>

#include <qel/engines/gecode.h>
#include <qel/qel.h>

int main() {
  QelEnv env;
  int rc = 1;
  {
    const QelInt n = 6;
    QelIntVarArray q(env, n, 0, n - 1);
    QelIntExprArray up(env, 0);
    QelIntExprArray down(env, 0);
    for (QelInt i = 0; i < n; ++i) {
      up.add(q[i] + i);
      down.add(q[i] - i);
    }
    QelModel model(env);
    model.add(QelAllDiff(env, q));
    model.add(QelAllDiff(env, up));
    model.add(QelAllDiff(env, down));
    QelGecode cp(env);
    cp.extract(model);
    long count = 0;
    cp.enumerate([&count](QelGecodeI&) {
      ++count;
      return true;
    });
    if (count == 4) {
      std::cout << "Gecode engine: 6 queens have " << count << " solutions\n";
      rc = 0;
    }
    cp.end();
  }
  env.end();
  return rc;
}

// Uses an installed Qel: builds a small model, prints it, checks memory.
#include <iostream>
#include <sstream>

#include <qel/qel.h>
#include <qel/version.h>

int main() {
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");
  QelModel model(env, "installed");
  QelRange r(env, 1, x + y, 8, "cap");
  model.add(r);
  std::ostringstream out;
  out << model;
  std::cout << "Qel " << QEL_VERSION_STRING << "\n" << out.str();
  bool ok = out.str() == "QelModel installed = {\n1 <= x + y <= 8\n}\n";
  model.end();
  r.end();
  x.end();
  y.end();
  ok = ok && env.getImpl()->getBytesInUse() == 0 && QEL_VERSION_MAJOR >= 0;
  env.end();
  return ok ? 0 : 1;
}

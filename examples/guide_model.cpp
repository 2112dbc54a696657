// The snippets of the guide's section "Building a model" (docs/guide.md),
// run and checked: the program fails when the guide's claims do not hold.
#include <iostream>

#include <qel/qel.h>

#include "guide_check.h"

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Building a model");
  guide::Capture out;
  // guide: building a model
  QelEnv env;                    // owns the memory of every object below
  QelIntVar x(env, 0, 10, "x");  // integer variables with bounds
  QelIntVar y(env, 0, 10, "y");
  QelNumVar z(env, 0.0, 1.5, "z");  // a float variable
  QelModel model(env, "plan");
  QelRange cap(env, 1, x + y, 8, "cap");  // 1 <= x + y <= 8
  QelDiff notThree(env, x, 3.0);          // x != 3
  QelObjective cost(env, 2 * x + y + z, QelObjective::Minimize, "cost");
  model.add(cap);
  model.add(notThree);
  model.add(cost);
  std::cout << model;
  Expect(out.take(),
         "QelModel plan = {\n"
         "1 <= x + y <= 8\n"
         "x != 3 \n"
         "cost = (2 * x + y + z, QelObjective, Minimize);\n"
         "\n"
         "}\n",
         "the printed model");

  // guide: expressions
  QelIntExpr sum = 2 * x + y - 1;      // integer: every part is integral
  QelNumExpr mixed = x * y + 0.5 * z;  // numeric, with a quadratic term
  std::cout << sum << "\n" << mixed << "\n";
  Expect(out.take(), "2 * x + y - 1\n0.5 * z + x * y\n", "the printed expressions");
  Check(QelExtractable(sum).isIntExpr() && !QelExtractable(mixed).isIntExpr(),
        "sum is an integer expression, mixed is not");

  // guide: values
  QelAlgorithm values(env);  // holds one value per variable
  values.setValue(x, 3);
  values.setValue(y, 4);
  values.setValue(z, 1.0);
  std::cout << values.getValue(sum) << " " << values.getValue(mixed) << "\n";
  std::cout << cap->eval(values) << " " << notThree->eval(values) << "\n";
  Expect(out.take(), "9 12.5\n1 0\n", "the values and the constraint checks");

  // guide: arrays of members
  QelIntVarArray v(env, 3, 0, 9);  // three new integer variables
  v.setNames("v");                 // v(0), v(1), v(2)
  QelAllDiff distinct(env, v, "distinct");
  QelRange total(env, 0, QelSum(v), 12, "total");
  QelExtractableArray more(env, 2, distinct, total);
  model.add(more);  // one notice for the whole array
  more.end();       // the array is ours; the members stay
  long members = 0;
  for (QelModel::Iterator it(model); it.ok(); ++it) ++members;
  std::cout << members << " members\n";
  Expect(out.take(), "5 members\n", "the member count");

  // guide: removing members
  model.remove(notThree);  // its first occurrence
  QelExtractableArray gone(env, 2, cap, total);
  model.remove(gone);  // several in one sweep
  gone.end();
  std::cout << model;
  Expect(out.take(),
         "QelModel plan = {\n"
         "cost = (2 * x + y + z, QelObjective, Minimize);\n"
         "\n"
         "QelAllDiffI (distinct)\n"
         "  _exprArray [v(0), v(1), v(2)]\n"
         "\n"
         "}\n",
         "the model after the removals");
  Check(cap.getImpl()->getId() >= 0, "a removed member lives on");

  // guide: type queries
  QelExtractable anything = cost;
  if (anything.isObjective()) {
    QelObjective o = anything.asObjective();
    std::cout << o.getImpl()->getRttiTypeName() << "\n";
  }
  std::cout << anything.isConstraint() << QelExtractable(cap).isConstraint() << "\n";
  Expect(out.take(), "QelObjectiveI\n01\n", "the type queries");

  values.end();
  v.end();
  env.end();  // every object above goes with it
  return guide::Result();
}

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

  // guide: relational operators and sums in a loop
  QelIntVarArray w(env, 4, 0, 5);
  w.setNames("w");
  QelIntExpr load(env, 0);  // grows in place
  for (long i = 0; i < w.getSize(); ++i) load += (i + 1) * w[i];
  QelRange limit = load <= 12;  // -QelInfinity <= load <= 12
  QelRange order = x - y >= 1;  // 1 <= x - y <= QelInfinity
  std::cout << limit << "\n" << order << "\n";
  limit.setUB(10);    // QelSetRangeBounds reaches the engines
  x.setBounds(0, 9);  // QelSetNumVarBounds
  for (long i = 0; i < w.getSize(); ++i) values.setValue(w[i], 1);
  QelNumArray got = values.getValues(w);  // one new array, ours to end
  std::cout << got << " " << limit->eval(values) << " " << order->eval(values) << "\n";
  got.end();
  Expect(out.take(),
         "w(0) + 2 * w(1) + 3 * w(2) + 4 * w(3) <= 12\n"
         "x - y >= 1\n"
         "[1, 1, 1, 1] 1 0\n",
         "the ranges, the values of w and the checks");
  Check(limit.getLB() == -QelInfinity && limit.getUB() == 10 && x.getUB() == 9,
        "the open bound is infinite and the new bounds are kept");

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
  w.end();
  env.end();  // every object above goes with it
  return guide::Result();
}

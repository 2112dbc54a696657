// The snippets of the guide's section "Cloning into another environment"
// (docs/guide.md), run and checked.
#include <iostream>

#include <qel/qel.h>

#include "guide_check.h"

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Cloning into another environment");
  guide::Capture out;
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");
  QelModel model(env, "plan");
  QelRange cap(env, 1, x + y, 8, "cap");
  QelExtractableArray pair(env, 2, x, y);
  QelAllDiff distinct(env, QelIntExprArray(pair), "distinct");  // copies pair
  pair.end();
  model.add(cap);
  model.add(distinct);
  QelInt bytesBefore = env.getImpl()->getBytesInUse();

  // guide: cloning a model
  QelEnv other;  // a second, independent environment
  QelEnvI* target = other.getImpl();
  QelModel copy(static_cast<QelModelI*>(target->getClone(model.getImpl())));
  std::cout << copy;
  Expect(out.take(),
         "QelModel model0 = {\n"
         "1 <= QelIntVar2 + QelIntVar3 <= 8\n"
         "QelAllDiffI (5)\n"
         "  _exprArray [QelIntVar2, QelIntVar3]\n"
         "\n"
         "}\n",
         "the clone");
  Check(copy.getImpl()->getEnv() == target, "the clone lives in the other environment");
  Check(env.getImpl()->getBytesInUse() == bytesBefore, "the source is untouched");

  // guide: one copy operation
  target->beginCopy();  // clones made until endCopy share
  QelExtractableI* xc = target->getClone(x.getImpl());
  QelExtractableI* capc = target->getClone(cap.getImpl());
  QelExtractableI* again = target->getClone(x.getImpl());
  target->endCopy();
  QelNumExpr::LinearIterator it = QelRange(static_cast<QelRangeI*>(capc)).getLinearIterator();
  std::cout << (again == xc) << (it.getVar() == xc) << "\n";
  Expect(out.take(), "11\n", "one copy operation clones x once");

  // guide: separate copy operations
  QelExtractableI* xc2 = target->getClone(x.getImpl());  // an operation of its own
  std::cout << (xc2 == xc) << "\n";
  Expect(out.take(), "0\n", "a new operation clones x anew");

  // guide: naming clones
  copy.setName("plan copy");
  xc->setName("x'");
  std::cout << copy.getName() << " " << QelExtractable(capc) << "\n";
  Expect(out.take(), "plan copy 1 <= x' + QelIntVar8 <= 8\n", "clones named afterwards");

  // guide: the environments stay independent
  other.end();  // every clone goes with it
  std::cout << model;
  Expect(out.take(),
         "QelModel plan = {\n"
         "1 <= x + y <= 8\n"
         "QelAllDiffI (distinct)\n"
         "  _exprArray [x, y]\n"
         "\n"
         "}\n",
         "the source after the other environment ended");

  env.end();
  return guide::Result();
}

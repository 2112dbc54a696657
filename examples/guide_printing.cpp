// The snippets of the guide's section "Printing" (docs/guide.md), run and
// checked.
#include <iostream>
#include <sstream>

#include <qel/qel.h>

#include "guide_check.h"

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Printing");
  guide::Capture out;
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");

  // guide: printing objects
  QelIntVar unnamed(env, 0, 1);  // ids count from 0: x, y, unnamed, m
  QelModel m(env);
  QelRange r(env, 0, 3 * x - 2 * y + 1, 5);
  m.add(r);
  std::cout << unnamed << "\n" << r << "\n" << m;
  Expect(out.take(),
         "QelIntVar2\n"
         "0 <= 3 * x - 2 * y + 1 <= 5\n"
         "QelModel model3 = {\n"
         "0 <= 3 * x - 2 * y + 1 <= 5\n"
         "}\n",
         "objects and their ids");

  // guide: printing arrays
  QelIntArray sizes(env, 0);
  for (QelInt i = 1; i <= 12; ++i) sizes.add(i * i);
  std::cout << sizes << "\n";
  QelExtractableArray pair(env, 2, x, y);
  std::cout << pair << "\n";
  Expect(out.take(),
         "[1, 4, 9, 16, 25, 36, 49, 64, 81, 100,\n"
         "121, 144]\n"
         "[x, y]\n",
         "arrays");

  // guide: detailed display
  QelDiff d(env, x, y);
  QelDiff apart(env, x, y, "apart");
  std::cout << d << "|" << apart << "|\n";
  env.getImpl()->setDetailedDisplay(true);
  std::cout << apart << "|\n";
  env.getImpl()->setDetailedDisplay(false);
  Expect(out.take(), "x != y|apart |\napart: QelDiff(x != y) |\n", "the detailed display");

  // guide: printing objectives
  QelObjective cost(env, x + 2 * y, QelObjective::Maximize, "cost");
  std::cout << cost;
  QelMultiCriterionExpr lex = QelStaticLex(env, x, y);
  std::cout << lex << "\n";
  QelObjective both = QelMinimize(env, lex, "both");
  lex.end();  // the objective keeps its own copy
  std::cout << both;
  Expect(out.take(),
         "cost = (x + 2 * y, QelObjective, Maximize);\n"
         "{MultiCriterion}, StaticLex([x, y])\n"
         "both = ({MultiCriterion}, StaticLex([x, y]), QelObjective, Minimize);\n",
         "objectives");

  // guide: printing exceptions
  try {
    QelExtractable empty;
    empty.end();
  } catch (const QelException& e) {
    std::cout << e << " / " << e.what() << "\n";
  }
  Expect(out.take(), "Using empty Handle / Using empty Handle\n", "exceptions");

  // guide: printing into a string
  std::ostringstream text;
  text << r;
  Check(text.str() == "0 <= 3 * x - 2 * y + 1 <= 5", "a string stream gets the same text");

  sizes.end();
  pair.end();
  env.end();
  return guide::Result();
}

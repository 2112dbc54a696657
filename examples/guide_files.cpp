// The snippets of the guide's section "Model files" (docs/guide.md), run
// and checked.
#include <cstdio>
#include <iostream>
#include <sstream>

#include <qel/qel.h>

#include "guide_check.h"

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Model files");
  guide::Capture out;
  QelEnv env;

  // guide: writing
  QelNumVar x(env, 0, 4, "x");
  QelIntVar n(env, 0, 10, "n");
  QelModel plan(env, "plan");
  plan.add(QelObjective(env, 3 * x + 2 * n, QelObjective::Maximize, "profit"));
  plan.add(QelRange(env, -1e20, x + n, 7, "cap"));  // 1e20 and beyond: infinite
  QelWriteModel(plan, "plan.lp");                   // the format from the extension
  QelWriteModel(plan, std::cout, QelFileFormat::Lp);
  Expect(out.take(),
         "\\Problem name: plan\n"
         "Maximize\n"
         " profit: 3 x + 2 n\n"
         "Subject To\n"
         " cap: x + n <= 7\n"
         "Bounds\n"
         " 0 <= x <= 4\n"
         " 0 <= n <= 10\n"
         "Generals\n"
         " n\n"
         "End\n",
         "writing");

  // guide: reading
  QelModelFileCounts counts;
  QelModel back = QelReadModel(env, "plan.lp", QelFileFormat::Auto, &counts);
  std::cout << counts.rows << " row, " << counts.columns << " columns, " << counts.integers
            << " integer\n";
  QelEndReadModel(back);  // the model, its members and their variables
  Expect(out.take(), "1 row, 2 columns, 1 integer\n", "reading");

  // guide: bad input
  std::istringstream bad("NAME plan\nROWS\n N profit\n X cap\n");
  try {
    QelReadModel(env, bad, QelFileFormat::Mps, "plan.mps");
  } catch (const QelException& e) {
    std::cout << e.getMessage() << "\n";
  }
  Expect(out.take(), "plan.mps:4: expected a row type (N, L, G, E), found \"X\"\n", "bad input");

  // guide: refused
  QelAllDiff different(env, QelIntVarArray(env, 1, n), "different");
  plan.add(different);
  try {
    QelWriteModel(plan, "plan.mps");
  } catch (const QelException& e) {
    std::cout << e.getMessage() << "\n";
  }
  QelWriteOptions options;
  options.skipUnsupported = true;  // write the rest, list what was left out
  QelWriteModel(plan, "plan.mps", QelFileFormat::Auto, &options);
  std::cout << options.leftOut[0] << "\n";
  Expect(
      out.take(),
      "cannot write \"different\" (QelAllDiffI) in the MPS format: no QelAllDiffI in the format\n"
      "\"different\" (QelAllDiffI): no QelAllDiffI in the format\n",
      "refused");

  std::remove("plan.lp");
  std::remove("plan.mps");
  env.end();
  return guide::Result();
}

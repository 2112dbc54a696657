// A model of a million objects, built, changed and ended: every operation
// stays within one pass over the objects where the library promises it,
// and the environment gets every byte back. Labelled "slow" (its file name
// starts with large_).
#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>

#include "reliability/scenario.h"
#include "support/qeltest.h"

using namespace qeltest;

namespace {

// Seconds since `start`, for the record the test prints.
double Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST(LargeModel, AMillionObjectsBuiltChangedAndEndedGiveEveryByteBack) {
  auto start = std::chrono::steady_clock::now();
  QelEnv env;
  QelInt baseline = BytesInUse(env);

  // ---- build: n variables, n sums x[i] + x[i+1], n ranges over the sums,
  // n differences x[i] != i % 10; the model holds the ranges and the
  // differences, an all-different each block of 100 variables.
  const long n = 250000;
  QelIntVarArray x(env, n, 0, 9);
  QelExtractableArray ranges(env, 0), diffs(env, 0), blocks(env, 0);
  for (long i = 0; i < n; ++i) {
    QelIntExpr sum = x[i] + x[(i + 1) % n];
    ranges.add(QelRange(env, 0, sum, 12));
    diffs.add(QelDiff(env, x[i], static_cast<double>(i % 10)));
  }
  for (long b = 0; b < n / 100; ++b) {
    QelIntVarArray block(QelExtractableArray(env, 0));
    for (long i = 0; i < 100; ++i) block.add(x[b * 100 + i]);
    blocks.add(QelAllDiff(env, block));
    block.end();
  }
  QelModel model(env, "big");
  model.add(ranges);
  model.add(diffs);
  model.add(blocks);
  const QelInt objects = 4 * n + n / 100 + 1;
  ASSERT_EQ(env.getImpl()->getNumberOfExtractables(), objects);
  EXPECT_EQ(model.getImpl()->getMembers().getSize(), 2 * n + n / 100);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(model.getImpl());
  std::cout << "[ large ] built " << objects << " objects in " << Since(start) << " s\n";

  // ---- change: names for every variable, properties, half the differences
  // out of the model in one sweep, an objective over a thousand variables.
  auto phase = std::chrono::steady_clock::now();
  x.setNames("x");
  EXPECT_STREQ(x[n - 1].getName(), ("x(" + std::to_string(n - 1) + ")").c_str());
  for (long i = 0; i < n; i += 1000) x[i].getImpl()->setIntProperty("block", i / 1000);
  QelExtractableArray half(env, 0);
  for (long i = 0; i < n; i += 2) half.add(diffs.getElement(i));
  model.remove(half);
  EXPECT_EQ(model.getImpl()->getMembers().getSize(), 2 * n + n / 100 - n / 2);
  QelIntVarArray first(QelExtractableArray(env, 0));
  for (long i = 0; i < 1000; ++i) first.add(x[i]);
  QelObjective cost(env, QelSum(first), QelObjective::Minimize, "cost");
  cost.setLinearCoef(x[0], 5);
  model.add(cost);
  std::cout << "[ large ] changed in " << Since(phase) << " s\n";

  // ---- end: one variable (its two sums, two ranges, its difference leave;
  // its block drops it), a block of ten thousand variables together, then
  // everything that is left together.
  phase = std::chrono::steady_clock::now();
  QelInt live = env.getImpl()->getNumberOfExtractables();
  x[n / 2].end();
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live - 6);
  QelExtractableArray tenThousand(env, 0);
  for (long i = 100000; i < 110000; ++i) tenThousand.add(x[i]);
  tenThousand.endElements();
  EXPECT_EQ(static_cast<QelAllDiffI*>(blocks.getElement(1000))->getExprArray().getSize(), 0);
  QelExtractableArray rest = reliability::LiveObjects(env);
  rest.endElements();
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 0);
  std::cout << "[ large ] ended in " << Since(phase) << " s\n";

  QelAlgorithm(rec).end();
  for (QelArrayBase* a :
       std::vector<QelArrayBase*>{&x, &ranges, &diffs, &blocks, &half, &first, &tenThousand, &rest})
    a->end();
  EXPECT_EQ(BytesInUse(env), baseline);
  env.end();
  std::cout << "[ large ] " << Since(start) << " s in all\n";
}

// The block-table array and its typed handles.
#include "support/qeltest.h"

#include <string>
#include <vector>

namespace {

using qeltest::BytesInUse;
using qeltest::OutcomeOnAnotherThread;
using qeltest::Print;

QelInt At(const QelArrayI* a, long i) { return QelArrayGet<QelInt>(a, i); }

TEST(ArrayImpl, NewArrayHoldsZeroElements) {
  QelEnv env;
  QelGenAlloc* g = env.getImpl()->getGeneralAllocator();
  QelArrayI* a = QelArrayI::Make(g, 5);
  EXPECT_EQ(a->getSize(), 5);
  EXPECT_GE(a->getCapacity(), 5);
  for (long i = 0; i < 5; ++i) EXPECT_EQ(At(a, i), 0);
  EXPECT_EQ(a->getAllocator(), g);
  EXPECT_EQ(a->getEnv(), env.getImpl());
  delete a;

  QelArrayI* empty = QelArrayI::Make(g, 0);
  EXPECT_EQ(empty->getSize(), 0);
  delete empty;
  QelArrayI* negative = QelArrayI::Make(g, -3);
  EXPECT_EQ(negative->getSize(), 0);
  delete negative;
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ArrayImpl, GrowsAcrossManyBlocksKeepingEveryElement) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 0);
  EXPECT_EQ(a->getShift(), QelArrayI::MinShift);
  const long n = 20000;
  for (long i = 0; i < n; ++i) {
    a->addRaw(static_cast<std::uint64_t>(i * 3 + 1));
    ASSERT_EQ(a->getSize(), i + 1);
    ASSERT_GE(a->getCapacity(), a->getSize());
  }
  // The array moved to the largest blocks and uses several of them.
  EXPECT_EQ(a->getShift(), QelArrayI::MaxShift);
  EXPECT_EQ(a->getMask(), (1L << QelArrayI::MaxShift) - 1);
  EXPECT_GT(a->getBlockCount(), 1);
  EXPECT_EQ(a->getCapacity(), a->getBlockCount() << a->getShift());
  for (long i = 0; i < n; ++i) ASSERT_EQ(At(a, i), i * 3 + 1) << "element " << i;
  delete a;
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ArrayImpl, ReblockingKeepsElementsInPlaceByIndex) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 3);
  QelArraySet<QelInt>(a, 0, 10);
  QelArraySet<QelInt>(a, 1, 11);
  QelArraySet<QelInt>(a, 2, 12);
  long shift = a->getShift();
  // Past eight small blocks the array takes larger blocks.
  for (long i = 3; i < 200; ++i) a->addRaw(static_cast<std::uint64_t>(10 + i));
  EXPECT_GT(a->getShift(), shift);
  for (long i = 0; i < 200; ++i) ASSERT_EQ(At(a, i), 10 + i) << i;
  // Element i lives at blocks[i >> shift][i & mask]: every index agrees.
  for (long i = 0; i < 200; ++i) ASSERT_EQ(a->rawAt(i), static_cast<std::uint64_t>(10 + i));
  delete a;
  env.end();
}

TEST(ArrayImpl, GrowEnsuresCapacityAndNewElementsAreZero) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 0);
  a->grow(1000);
  EXPECT_EQ(a->getSize(), 0);
  EXPECT_GE(a->getCapacity(), 1000);
  a->setSize(1000);
  for (long i = 0; i < 1000; ++i) ASSERT_EQ(At(a, i), 0) << i;
  // Growing to less than the capacity changes nothing.
  long capacity = a->getCapacity();
  a->grow(10);
  EXPECT_EQ(a->getCapacity(), capacity);
  delete a;
  env.end();
}

TEST(ArrayImpl, ElementsBeyondTheSizeComeBackAsZero) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 0);
  for (long i = 1; i <= 6; ++i) a->addRaw(static_cast<std::uint64_t>(i));
  a->remove(1, 2);  // 1 4 5 6
  ASSERT_EQ(a->getSize(), 4);
  a->grow(7);
  a->setSize(7);
  EXPECT_EQ(At(a, 3), 6);
  EXPECT_EQ(At(a, 4), 0);
  EXPECT_EQ(At(a, 5), 0);
  EXPECT_EQ(At(a, 6), 0);
  a->clear();
  a->grow(3);
  a->setSize(3);
  for (long i = 0; i < 3; ++i) EXPECT_EQ(At(a, i), 0) << i;
  delete a;
  env.end();
}

TEST(ArrayImpl, RemoveShiftsLaterElementsDown) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 0);
  for (long i = 0; i < 20; ++i) a->addRaw(static_cast<std::uint64_t>(i));
  a->remove(5, 3);
  ASSERT_EQ(a->getSize(), 17);
  for (long i = 0; i < 5; ++i) EXPECT_EQ(At(a, i), i);
  for (long i = 5; i < 17; ++i) EXPECT_EQ(At(a, i), i + 3);
  // The first element, the last one.
  a->remove(0, 1);
  EXPECT_EQ(At(a, 0), 1);
  a->remove(a->getSize() - 1, 1);
  EXPECT_EQ(a->getSize(), 15);
  EXPECT_EQ(At(a, 14), 18);
  // Counts running past the end are cut; out-of-range calls do nothing.
  a->remove(12, 100);
  EXPECT_EQ(a->getSize(), 12);
  a->remove(12, 1);
  a->remove(-1, 1);
  a->remove(3, 0);
  a->remove(3, -2);
  EXPECT_EQ(a->getSize(), 12);
  EXPECT_EQ(At(a, 11), 15);
  delete a;
  env.end();
}

TEST(ArrayImpl, RemoveAcrossBlockBoundaries) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 0);
  const long n = 10000;
  for (long i = 0; i < n; ++i) a->addRaw(static_cast<std::uint64_t>(i));
  ASSERT_GT(a->getBlockCount(), 1);
  a->remove(4000, 4500);
  ASSERT_EQ(a->getSize(), n - 4500);
  for (long i = 0; i < a->getSize(); ++i) ASSERT_EQ(At(a, i), i < 4000 ? i : i + 4500) << i;
  delete a;
  env.end();
}

TEST(ArrayImpl, ClearKeepsTheBlocks) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 0);
  for (long i = 0; i < 100; ++i) a->addRaw(static_cast<std::uint64_t>(i));
  long capacity = a->getCapacity();
  QelInt bytes = BytesInUse(env);
  a->clear();
  EXPECT_EQ(a->getSize(), 0);
  EXPECT_EQ(a->getCapacity(), capacity);
  EXPECT_EQ(BytesInUse(env), bytes);
  a->addRaw(42);
  EXPECT_EQ(a->getSize(), 1);
  EXPECT_EQ(At(a, 0), 42);
  delete a;
  env.end();
}

TEST(ArrayImpl, AddArrayAppendsInOrder) {
  QelEnv env;
  QelGenAlloc* g = env.getImpl()->getGeneralAllocator();
  QelArrayI* a = QelArrayI::Make(g, 0);
  QelArrayI* b = QelArrayI::Make(g, 0);
  for (long i = 0; i < 7; ++i) a->addRaw(static_cast<std::uint64_t>(i));
  for (long i = 0; i < 3000; ++i) b->addRaw(static_cast<std::uint64_t>(100 + i));
  a->addArray(b);
  ASSERT_EQ(a->getSize(), 3007);
  for (long i = 0; i < 7; ++i) EXPECT_EQ(At(a, i), i);
  for (long i = 0; i < 3000; ++i) ASSERT_EQ(At(a, 7 + i), 100 + i);
  EXPECT_EQ(b->getSize(), 3000);

  // Appending an array to itself doubles it.
  QelArrayI* c = QelArrayI::Make(g, 0);
  for (long i = 0; i < 5; ++i) c->addRaw(static_cast<std::uint64_t>(i + 1));
  c->addArray(c);
  ASSERT_EQ(c->getSize(), 10);
  for (long i = 0; i < 10; ++i) EXPECT_EQ(At(c, i), i % 5 + 1);
  // Null and empty arrays add nothing.
  c->addArray(nullptr);
  QelArrayI* empty = QelArrayI::Make(g, 0);
  c->addArray(empty);
  EXPECT_EQ(c->getSize(), 10);
  delete empty;
  delete c;
  delete b;
  delete a;
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ArrayImpl, AppendsAfterEveryKindOfChangeGoWhereTheSizeSays) {
  QelEnv env;
  QelGenAlloc* g = env.getImpl()->getGeneralAllocator();
  QelArrayI* a = QelArrayI::Make(g, 0);
  std::vector<std::uint64_t> expected;
  std::uint64_t next = 1;
  auto append = [&](long n) {
    for (long k = 0; k < n; ++k, ++next) {
      a->addRaw(next);
      expected.push_back(next);
    }
  };
  auto check = [&](const char* step) {
    ASSERT_EQ(a->getSize(), static_cast<long>(expected.size())) << step;
    EXPECT_EQ(a->getCapacity(), a->getBlockCount() << a->getShift()) << step;
    for (long i = 0; i < a->getSize(); ++i)
      ASSERT_EQ(a->rawAt(i), expected[static_cast<size_t>(i)]) << step << ", element " << i;
  };
  append(20);  // across blocks of 8
  check("appended");
  a->remove(3, 5);
  expected.erase(expected.begin() + 3, expected.begin() + 8);
  append(7);
  check("removed, then appended");
  a->setSize(10);
  expected.resize(10);
  append(3);
  check("shortened, then appended");
  a->clear();
  expected.clear();
  append(9);
  check("cleared, then appended");
  QelArrayI* other = QelArrayI::Make(g, 0);
  for (std::uint64_t w = 1000; w < 1030; ++w) other->addRaw(w);
  a->addArray(other);
  for (std::uint64_t w = 1000; w < 1030; ++w) expected.push_back(w);
  append(5);
  check("array appended, then appended");
  append(200);  // re-blocked into larger blocks
  check("re-blocked");
  a->grow(a->getSize() + 1000);  // capacity ahead of the size
  append(3);
  check("grown, then appended");
  QelArrayI* copy = QelArrayI::MakeCopy(g, a);
  copy->addRaw(77);
  EXPECT_EQ(copy->getSize(), a->getSize() + 1);
  EXPECT_EQ(copy->rawAt(a->getSize()), 77U);
  for (long i = 0; i < a->getSize(); ++i) ASSERT_EQ(copy->rawAt(i), a->rawAt(i));
  delete copy;
  delete other;
  delete a;
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ArrayImpl, BlocksForEachRawAndTheReaderGiveTheElementsInOrder) {
  QelEnv env;
  QelArrayI* a = QelArrayI::Make(env.getImpl()->getGeneralAllocator(), 0);
  std::vector<std::uint64_t> seen;
  a->forEachRaw([&](std::uint64_t w) { seen.push_back(w); });
  EXPECT_TRUE(seen.empty());
  // Sizes that end inside a block, on a block's end, and past a re-blocking
  // into the largest blocks with a last block only partly used.
  for (long n : {5L, 8L, 9L, 300L, 20000L}) {
    a->clear();
    for (long i = 0; i < n; ++i) a->addRaw(static_cast<std::uint64_t>(7 * i + 2));
    seen.clear();
    a->forEachRaw([&](std::uint64_t w) { seen.push_back(w); });
    ASSERT_EQ(static_cast<long>(seen.size()), n);
    QelArrayReader r(a);
    for (long i = 0; i < n; ++i) {
      ASSERT_EQ(seen[static_cast<size_t>(i)], a->rawAt(i)) << "size " << n << ", element " << i;
      ASSERT_EQ(r.next(), a->rawAt(i)) << "size " << n << ", element " << i;
      ASSERT_EQ(a->getBlock(i >> a->getShift())[i & a->getMask()], a->rawAt(i));
    }
  }
  EXPECT_EQ(a->getShift(), QelArrayI::MaxShift);
  EXPECT_GT(a->getBlockCount(), 1);
  // After clear nothing is visited, though the blocks are kept.
  a->clear();
  seen.clear();
  a->forEachRaw([&](std::uint64_t w) { seen.push_back(w); });
  EXPECT_TRUE(seen.empty());
  delete a;
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ArrayImpl, TheReaderReadsTypedElements) {
  QelEnv env;
  QelNumArray w(env, 0);
  for (long i = 0; i < 20; ++i) w.add(0.5 * static_cast<double>(i) - 3);
  QelArrayReader r(w.getImpl());
  for (long i = 0; i < 20; ++i) EXPECT_EQ(r.next<double>(), w[i]) << "element " << i;
  EXPECT_EQ(QelArrayWordAs<double>(w.getImpl()->rawAt(3)), w[3]);
  w.end();
  env.end();
}

TEST(ArrayImpl, CopyHasTheSameElementsInItsOwnStorage) {
  QelEnv env;
  QelEnv other;
  QelGenAlloc* g = env.getImpl()->getGeneralAllocator();
  QelArrayI* a = QelArrayI::Make(g, 0);
  for (long i = 0; i < 5000; ++i) a->addRaw(static_cast<std::uint64_t>(i * 7));
  QelArrayI* copy = QelArrayI::MakeCopy(other.getImpl()->getGeneralAllocator(), a);
  EXPECT_EQ(copy->getEnv(), other.getImpl());
  ASSERT_EQ(copy->getSize(), 5000);
  for (long i = 0; i < 5000; ++i) ASSERT_EQ(At(copy, i), i * 7);
  QelArraySet<QelInt>(copy, 0, -1);
  EXPECT_EQ(At(a, 0), 0);
  QelArraySet<QelInt>(a, 1, -2);
  EXPECT_EQ(At(copy, 1), 7);

  QelArrayI* empty = QelArrayI::Make(g, 0);
  QelArrayI* emptyCopy = QelArrayI::MakeCopy(g, empty);
  EXPECT_EQ(emptyCopy->getSize(), 0);
  delete copy;
  EXPECT_EQ(BytesInUse(other), 0);
  delete emptyCopy;
  delete empty;
  delete a;
  EXPECT_EQ(BytesInUse(env), 0);
  other.end();
  env.end();
}

// ---- typed handles --------------------------------------------------------

TEST(ArrayHandle, NumArray) {
  QelEnv env;
  QelNumArray w(env, 3);
  EXPECT_EQ(w.getSize(), 3);
  EXPECT_EQ(w[0], 0.0);
  w.set(1, 2.5);
  w.add(-1.25);
  EXPECT_EQ(w.getSize(), 4);
  EXPECT_EQ(w[1], 2.5);
  EXPECT_EQ(w.get(3), -1.25);
  // Copies share the array.
  QelNumArray same = w;
  same.set(0, 9.0);
  EXPECT_EQ(w[0], 9.0);
  EXPECT_EQ(same.getImpl(), w.getImpl());
  QelNumArray fromMemory(env.getMemoryManager(), 2);
  fromMemory.set(0, 1.0);
  w.add(fromMemory);
  EXPECT_EQ(w.getSize(), 6);
  EXPECT_EQ(w[4], 1.0);
  EXPECT_EQ(w[5], 0.0);
  w.remove(0, 2);
  EXPECT_EQ(w.getSize(), 4);
  EXPECT_EQ(w[0], 0.0);
  EXPECT_EQ(w[1], -1.25);
  w.remove(0);
  EXPECT_EQ(w[0], -1.25);
  EXPECT_TRUE(w.getEnv() == env);
  fromMemory.end();
  w.end();
  EXPECT_EQ(w.getImpl(), nullptr);
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ArrayHandle, IntAndBoolArrays) {
  QelEnv env;
  QelIntArray ints(env, 0);
  for (QelInt i = 0; i < 1000; ++i) ints.add(i * i - 500);
  EXPECT_EQ(ints.getSize(), 1000);
  EXPECT_EQ(ints[999], 999 * 999 - 500);
  EXPECT_EQ(ints[0], -500);
  ints.set(3, (QelInt(1) << 62));
  EXPECT_EQ(ints[3], QelInt(1) << 62);

  QelBoolArray flags(env, 2);
  EXPECT_FALSE(flags[0]);
  flags.set(1, true);
  flags.add(true);
  flags.add(false);
  EXPECT_TRUE(flags[1]);
  EXPECT_TRUE(flags[2]);
  EXPECT_FALSE(flags[3]);
  EXPECT_EQ(flags.getSize(), 4);
  ints.clear();
  EXPECT_EQ(ints.getSize(), 0);
  ints.end();
  flags.end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ArrayHandle, EmptyHandle) {
  QelNumArray none;
  EXPECT_EQ(none.getImpl(), nullptr);
  EXPECT_EQ(none.getSize(), 0);
  none.clear();
  none.end();
  EXPECT_EQ(none.getEnv().getImpl(), nullptr);
}

// ---- printing ------------------------------------------------------------------

TEST(ArrayPrint, NumericArraysUseTheSharedForm) {
  QelEnv env;
  QelNumArray w(env, 0);
  w.add(1.5);
  w.add(2.0);
  w.add(-3.25);
  EXPECT_EQ(Print(w), "[1.5, 2, -3.25]");
  QelIntArray one(env, 1);
  one.set(0, 7);
  EXPECT_EQ(Print(one), "[7]");
  QelIntArray empty(env, 0);
  EXPECT_EQ(Print(empty), "[]");
  EXPECT_EQ(Print(QelNumArray()), "");
  EXPECT_EQ(Print(QelIntArray()), "");
  w.end();
  one.end();
  empty.end();
  env.end();
}

TEST(ArrayPrint, LineEndAfterEveryTenthElement) {
  QelEnv env;
  QelIntArray ten(env, 0);
  for (QelInt i = 0; i < 10; ++i) ten.add(i);
  EXPECT_EQ(Print(ten), "[0, 1, 2, 3, 4, 5, 6, 7, 8, 9]");
  ten.add(10);
  ten.add(11);
  EXPECT_EQ(Print(ten), "[0, 1, 2, 3, 4, 5, 6, 7, 8, 9,\n10, 11]");
  for (QelInt i = 12; i < 21; ++i) ten.add(i);
  EXPECT_EQ(Print(ten),
            "[0, 1, 2, 3, 4, 5, 6, 7, 8, 9,\n"
            "10, 11, 12, 13, 14, 15, 16, 17, 18, 19,\n"
            "20]");
  QelNumArray twenty(env, 20);
  EXPECT_EQ(Print(twenty),
            "[0, 0, 0, 0, 0, 0, 0, 0, 0, 0,\n"
            "0, 0, 0, 0, 0, 0, 0, 0, 0, 0]");
  ten.end();
  twenty.end();
  env.end();
}

// ---- memory ----------------------------------------------------------------------

TEST(ArrayMemory, EverythingGoesBackAfterEnd) {
  QelEnv env;
  QelInt before = BytesInUse(env);
  QelNumArray big(env, 0);
  for (long i = 0; i < 50000; ++i) big.add(static_cast<double>(i));
  QelIntArray small(env, 4);
  QelArrayI* copy = QelArrayI::MakeCopy(env.getImpl()->getGeneralAllocator(), big.getImpl());
  EXPECT_GT(BytesInUse(env), before + 50000 * 8 * 2);
  delete copy;
  big.end();
  small.end();
  EXPECT_EQ(BytesInUse(env), before);
  env.end();
}

}  // namespace

// ---- a release the environment refuses ------------------------------------

TEST(ArrayEnd, RefusedFromAForeignThreadOrWithAllocationOffTheArrayStays) {
  // Ending used to throw from the array's destructor, which may not throw:
  // the process ended. Now the refusal comes before anything is released.
  QelEnv env;
  QelNumArray a(env, 0);
  for (int i = 0; i < 20; ++i) a.add(i);  // two blocks and a block table
  EXPECT_EQ(OutcomeOnAnotherThread([&] { a.end(); }), "refused");
  ASSERT_NE(a.getImpl(), nullptr);
  EXPECT_EQ(a.getSize(), 20);
  EXPECT_EQ(a[19], 19);
  env.getImpl()->setAllocationDisabled(true);
  EXPECT_THROW(a.end(), QelEnvAllocationDisabled);
  env.getImpl()->setAllocationDisabled(false);
  EXPECT_EQ(a.getSize(), 20);
  a.end();
  EXPECT_EQ(a.getImpl(), nullptr);
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

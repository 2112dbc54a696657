// Arrays of special ordered sets: the counted constructors of both types,
// their messages, element order and memory.
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/qeltest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

struct SOSArrayTest : ::testing::Test {
  QelEnv env;
  void TearDown() override { env.end(); }
};

// Builds an Array from the first k handles of `sets` with the count n, and
// returns the message it throws ("<no exception>" when it builds); a built
// array is checked to hold the k sets in order and then ended.
template <class Array, class Set, std::size_t... I>
std::string TryBuild(QelEnv env, QelInt n, const std::vector<Set>& sets,
                     std::index_sequence<I...>) {
  std::string message = MessageOf<QelWrongUsage>([&] {
    Array a(env, n, sets[I]...);
    std::vector<QelExtractableI*> expected{sets[I].getImpl()...};
    EXPECT_EQ(Elements(a), expected);
    a.end();
  });
  return message;
}

template <class Array, class Set, std::size_t K>
void CheckEveryCount(QelEnv env, const std::vector<Set>& sets, const std::string& prefix) {
  using Seq = std::make_index_sequence<K>;
  const QelInt k = static_cast<QelInt>(K);
  EXPECT_EQ(TryBuild<Array>(env, k, sets, Seq()), "<no exception>") << "k=" << K;
  const std::string message = prefix + std::to_string(K);
  EXPECT_EQ(TryBuild<Array>(env, k + 1, sets, Seq()), message);
  EXPECT_EQ(TryBuild<Array>(env, k - 1, sets, Seq()), message);
  EXPECT_EQ(TryBuild<Array>(env, -k, sets, Seq()), message);
}

template <class Array, class Set, std::size_t... K>
void CheckAllCounts(QelEnv env, const std::vector<Set>& sets, const std::string& prefix,
                    std::index_sequence<K...>) {
  (CheckEveryCount<Array, Set, K + 1>(env, sets, prefix), ...);
}

}  // namespace

TEST_F(SOSArrayTest, TwoSetsAreHeldInOrder) {
  QelSOS1 a(env, "a"), b(env, "b");
  QelSOS1Array sets(env, 2, a, b);
  ASSERT_EQ(sets.getSize(), 2);
  EXPECT_EQ(sets.getElement(0), a.getImpl());
  EXPECT_EQ(sets.getElement(1), b.getImpl());
  EXPECT_EQ(sets[0].getImpl(), a.getImpl());
  EXPECT_EQ(sets[1].getImpl(), b.getImpl());
  EXPECT_EQ(sets.find(b), 1);
  EXPECT_EQ(sets.getEnv().getImpl(), env.getImpl());
  sets.end();

  QelSOS2 c(env, "c"), d(env, "d");
  QelSOS2Array other(env, 2, d, c);
  EXPECT_EQ(Elements(other), (std::vector<QelExtractableI*>{d.getImpl(), c.getImpl()}));
  QelSOS2 first = other[0];
  EXPECT_EQ(first.getImpl(), d.getImpl());
  other.end();
}

TEST_F(SOSArrayTest, TypeTwoWithThreeAnnouncedAndTwoGivenThrows) {
  QelSOS2 a(env, "a"), b(env, "b");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelSOS2Array sets(env, 3, a, b); }),
            "QelSOS2Array::QelSOS2Array: n !=2");
}

TEST_F(SOSArrayTest, ZeroAnnouncedWithOneSetThrowsTheMessageForOne) {
  QelSOS1 a(env, "a");
  QelSOS2 b(env, "b");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelSOS1Array sets(env, 0, a); }),
            "QelSOS1Array::QelSOS1Array: n !=1");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelSOS2Array sets(env, 0, b); }),
            "QelSOS2Array::QelSOS2Array: n !=1");
}

TEST_F(SOSArrayTest, EveryCountFromOneToTenOfTypeOne) {
  std::vector<QelSOS1> sets;
  for (int i = 0; i < 10; ++i) sets.emplace_back(env);
  CheckAllCounts<QelSOS1Array>(env, sets,
                               "QelSOS1Array::QelSOS1Array: n !=", std::make_index_sequence<10>());
}

TEST_F(SOSArrayTest, EveryCountFromOneToTenOfTypeTwo) {
  std::vector<QelSOS2> sets;
  for (int i = 0; i < 10; ++i) sets.emplace_back(env);
  CheckAllCounts<QelSOS2Array>(env, sets,
                               "QelSOS2Array::QelSOS2Array: n !=", std::make_index_sequence<10>());
}

TEST_F(SOSArrayTest, MessagesHaveNoBlankUnlikeTheGeneralArray) {
  QelSOS1 a(env);
  std::string sos = MessageOf<QelWrongUsage>([&] { QelSOS1Array s(env, 2, a); });
  std::string general = MessageOf<QelWrongUsage>([&] { QelExtractableArray s(env, 2, a); });
  EXPECT_EQ(sos, "QelSOS1Array::QelSOS1Array: n !=1");
  EXPECT_EQ(general, "QelExtractableArray::QelExtractableArray: n != 1");
}

TEST_F(SOSArrayTest, AnEmptyHandleBecomesANullElement) {
  QelSOS1 a(env, "a");
  QelSOS1Array sets(env, 3, a, QelSOS1(), a);
  EXPECT_EQ(Elements(sets), (std::vector<QelExtractableI*>{a.getImpl(), nullptr, a.getImpl()}));
  EXPECT_EQ(sets[1].getImpl(), nullptr);
  sets.end();
}

TEST_F(SOSArrayTest, TheArrayDoesNotOwnItsSets) {
  QelSOS1 a(env, "a"), b(env, "b");
  QelInt baseline = BytesInUse(env);
  QelInt count = env.getImpl()->getNumberOfExtractables();
  QelSOS1Array sets(env, 2, a, b);
  EXPECT_GT(BytesInUse(env), baseline);
  sets.end();
  EXPECT_EQ(BytesInUse(env), baseline);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), count);
  EXPECT_GE(a.getId(), 0);
  EXPECT_GE(b.getId(), 0);
}

TEST_F(SOSArrayTest, AFailedCountAddsNoSetAndLeavesTheSetsAlone) {
  QelSOS1 a(env, "a");
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(a.getImpl());
  QelInt count = env.getImpl()->getNumberOfExtractables();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelSOS1Array s(env, 5, a); }),
            "QelSOS1Array::QelSOS1Array: n !=1");
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), count);
  EXPECT_GE(a.getId(), 0);
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
}

TEST_F(SOSArrayTest, ItIsAnExtractableArrayAndPrintsAsOne) {
  QelSOS1 a(env, "a"), b(env, "b");
  QelSOS1Array sets(env, 2, a, b);
  const QelExtractableArray& general = sets;
  EXPECT_EQ(Print(general), "[" + Display(a.getImpl()) + ", " + Display(b.getImpl()) + "]");
  sets.add(QelSOS1(env, "c"));
  EXPECT_EQ(sets.getSize(), 3);
  sets.end();
}

TEST(SOSArrayTypes, OnlySetsOfItsOwnTypeAndOneToTenOfThem) {
  static_assert(std::is_constructible<QelSOS1Array, QelEnv, QelInt, QelSOS1>::value, "");
  static_assert(std::is_constructible<QelSOS2Array, QelEnv, QelInt, QelSOS2, QelSOS2>::value, "");
  static_assert(!std::is_constructible<QelSOS1Array, QelEnv, QelInt, QelSOS2>::value,
                "a set of the other type is refused");
  static_assert(!std::is_constructible<QelSOS2Array, QelEnv, QelInt, QelSOS1>::value,
                "a set of the other type is refused");
  static_assert(
      std::is_constructible<QelSOS1Array, QelEnv, QelInt, QelSOS1, QelSOS1, QelSOS1, QelSOS1,
                            QelSOS1, QelSOS1, QelSOS1, QelSOS1, QelSOS1, QelSOS1>::value,
      "ten sets");
  static_assert(
      !std::is_constructible<QelSOS1Array, QelEnv, QelInt, QelSOS1, QelSOS1, QelSOS1, QelSOS1,
                             QelSOS1, QelSOS1, QelSOS1, QelSOS1, QelSOS1, QelSOS1, QelSOS1>::value,
      "eleven sets are too many");
  static_assert(std::is_base_of<QelExtractableArray, QelSOS1Array>::value, "");
  static_assert(std::is_base_of<QelExtractableArray, QelSOS2Array>::value, "");
  static_assert(sizeof(QelSOS1Array) == sizeof(QelExtractableArray), "no fields of its own");
  SUCCEED();
}

TEST(SOSArrayRefusedMemory, ASetThatCannotBeAddedTakesTheArrayWithIt) {
  long refusals = ForEachRefusal([](QelEnv env, RequestCounter& counter, long n) {
    QelSOS2 s(env, "s");
    counter.refuseAfter(n);
    bool refused = false;
    try {
      QelSOS2Array sets(env, 9, s, s, s, s, s, s, s, s, s);
      EXPECT_EQ(sets.getSize(), 9);
      sets.end();
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    s.end();
    return refused;
  });
  EXPECT_EQ(refusals, 4);
}

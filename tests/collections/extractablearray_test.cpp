// Extractable arrays: counted construction, add forms, search, marking
// sweeps, bulk end and naming, cloning and printing.
#include <string>
#include <vector>

#include "support/items.h"
#include "support/qeltest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

struct ArrayTest : ::testing::Test {
  QelEnv env;
  QelInt baseline = 0;
  void SetUp() override { baseline = BytesInUse(env); }
  void TearDown() override { env.end(); }
};

}  // namespace

TEST_F(ArrayTest, CountedConstructorsKeepOrderAndCheckTheCount) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  QelExtractable ha(a), hb(b);
  QelExtractableArray two(env, 2, ha, hb);
  EXPECT_EQ(Elements(two), (std::vector<QelExtractableI*>{a, b}));
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelExtractableArray bad(env, 3, ha, hb); }),
            "QelExtractableArray::QelExtractableArray: n != 2");
  // Every count from 1 to 10 has its own text.
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelExtractableArray bad(env, 0, ha); }),
            "QelExtractableArray::QelExtractableArray: n != 1");
  EXPECT_EQ(MessageOf<QelWrongUsage>(
                [&] { QelExtractableArray bad(env, 1, ha, ha, ha, ha, ha, ha, ha, ha, ha, ha); }),
            "QelExtractableArray::QelExtractableArray: n != 10");
  QelExtractableArray ten(env, 10, ha, hb, ha, hb, ha, hb, ha, hb, ha, QelExtractable());
  EXPECT_EQ(ten.getSize(), 10);
  EXPECT_EQ(ten.getElement(9), nullptr);  // an empty handle: a null element
  EXPECT_EQ(ten.getElement(8), a);
  two.end();
  ten.end();
  a->end();
  b->end();
}

TEST_F(ArrayTest, ACountRefusedAfterAllocationLeavesTheEmptyArrayToTheEnvironment) {
  ItemI* a = Item(env);
  QelInt before = BytesInUse(env);
  EXPECT_THROW(QelExtractableArray(env, 2, QelExtractable(a)), QelWrongUsage);
  // The check comes after the allocation: the empty array stays with the
  // environment, which releases it when it ends.
  EXPECT_GT(BytesInUse(env), before);
  a->end();
}

TEST_F(ArrayTest, FindReturnsTheLastIndexOrMinusOne) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  ItemI* c = Item(env);
  QelExtractableArray xs(env, 5, QelExtractable(b), QelExtractable(a), QelExtractable(b),
                         QelExtractable(c), QelExtractable(a));
  EXPECT_EQ(xs.find(QelExtractable(a)), 4);
  EXPECT_EQ(xs.find(QelExtractable(c)), 3);
  ItemI* d = Item(env);
  EXPECT_EQ(xs.find(QelExtractable(d)), -1);
  QelExtractableArray empty(env, 0);
  EXPECT_EQ(empty.find(QelExtractable(a)), -1);
  QelExtractableArray none;
  EXPECT_EQ(none.find(QelExtractable(a)), -1);
  xs.end();
  empty.end();
  for (ItemI* x : {a, b, c, d}) x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ArrayTest, AddForms) {
  ItemI* x = Item(env);
  ItemI* y = Item(env);
  QelExtractableArray xs(env, 0);
  xs.add(0, QelExtractable(x));
  EXPECT_EQ(xs.getSize(), 0);
  xs.add(3, QelExtractable(x));
  EXPECT_EQ(Elements(xs), (std::vector<QelExtractableI*>{x, x, x}));
  xs.add(QelExtractable(y));
  QelExtractableArray more(env, 2, QelExtractable(y), QelExtractable(x));
  xs.add(more);
  EXPECT_EQ(Elements(xs), (std::vector<QelExtractableI*>{x, x, x, y, y, x}));
  // A negative count lowers the size.
  xs.add(-2, QelExtractable(x));
  EXPECT_EQ(Elements(xs), (std::vector<QelExtractableI*>{x, x, x, y}));
  // Growing far across blocks keeps every element.
  for (int i = 0; i < 5000; ++i) xs.add(QelExtractable(i % 2 ? x : y));
  EXPECT_EQ(xs.getSize(), 5004);
  EXPECT_EQ(xs.getElement(5003), x);
  EXPECT_EQ(xs.getElement(5002), y);
  xs.end();
  more.end();
  x->end();
  y->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ArrayTest, RemoveMarkedKeepsTheOrderOfTheOthers) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  ItemI* c = Item(env);
  ItemI* d = Item(env);
  QelExtractableArray xs(env, 6, QelExtractable(a), QelExtractable(b), QelExtractable(c),
                         QelExtractable(b), QelExtractable(d), QelExtractable(a));
  env.getImpl()->mark(b);
  env.getImpl()->mark(d);
  xs.removeMarked();
  EXPECT_EQ(Elements(xs), (std::vector<QelExtractableI*>{a, c, a}));
  env.getImpl()->unmark(b);
  env.getImpl()->unmark(d);
  xs.end();
  for (ItemI* x : {a, b, c, d}) x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ArrayTest, EndElementsEndsAModelAndItsMemberOnce) {
  QelModel m(env);
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  m.add(QelExtractable(a));
  m.add(QelExtractable(b));
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  QelExtractableArray xs(env, 3, QelExtractable(m), QelExtractable(), QelExtractable(a));
  QelInt live = env.getImpl()->getNumberOfExtractables();
  xs.endElements();
  EXPECT_EQ(xs.getSize(), 0);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live - 2);
  // The algorithm heard of one removal and one array destruction, and no
  // model notice (the model was emptied silently).
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelRemoveFromAllChange", "QelDestroyExtractableArray"}));
  delete rec;
  xs.end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
  QelExtractableArray none;
  EXPECT_NO_THROW(none.endElements());
}

TEST_F(ArrayTest, SetNamesRenamesEveryElementWithOneNotice) {
  ItemI* a = Item(env, "old");
  ItemI* b = Item(env);
  ItemI* c = Item(env, "other");
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(a);
  QelExtractableArray xs(env, 3, QelExtractable(a), QelExtractable(b), QelExtractable(c));
  xs.setNames("v");
  EXPECT_STREQ(a->getName(), "v(0)");
  EXPECT_STREQ(b->getName(), "v(1)");
  EXPECT_STREQ(c->getName(), "v(2)");
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetNameArrayChange"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{nullptr}));
  delete rec;
  xs.end();
  for (ItemI* x : {a, b, c}) x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ArrayTest, ReplaceByCloneMakesANewArrayOfClones) {
  QelEnv target;
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  QelExtractableArray xs(env, 3, QelExtractable(a), QelExtractable(b), QelExtractable(a));
  QelExtractableArray old = xs;
  ItemI::clones = 0;
  xs.replaceByClone(target.getImpl());
  EXPECT_NE(xs.getImpl(), old.getImpl());
  EXPECT_EQ(Elements(old), (std::vector<QelExtractableI*>{a, b, a}));
  ASSERT_EQ(xs.getSize(), 3);
  EXPECT_EQ(ItemI::clones, 2);
  EXPECT_EQ(xs.getElement(0), xs.getElement(2));
  EXPECT_EQ(xs.getElement(0)->getEnv(), target.getImpl());
  EXPECT_EQ(xs.getImpl()->getEnv(), target.getImpl());
  // Without an environment each element is cloned in its own.
  QelExtractableArray same = old;
  same.replaceByClone(nullptr);
  EXPECT_EQ(same.getElement(1)->getEnv(), env.getImpl());
  EXPECT_NE(same.getElement(1), b);
  EXPECT_EQ(same.getElement(0), same.getElement(2));
  same.getElement(0)->end();
  same.getElement(1)->end();
  same.end();
  old.end();
  a->end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
  target.end();
}

TEST_F(ArrayTest, PrintingBreaksTheLineAfterEveryTenthElement) {
  std::vector<ItemI*> items;
  QelExtractableArray xs(env, 0);
  std::string expected = "[";
  for (int i = 0; i < 12; ++i) {
    std::string name = "e" + std::to_string(i);
    items.push_back(Item(env, name.c_str()));
    xs.add(QelExtractable(items.back()));
    expected += "item " + name;
    if (i < 11) expected += (i == 9) ? ",\n" : ", ";
  }
  expected += "]";
  EXPECT_EQ(Print(xs), expected);
  QelExtractableArray empty(env, 0);
  EXPECT_EQ(Print(empty), "[]");
  QelExtractableArray none;
  EXPECT_EQ(Print(none), "");
  QelExtractableArray withNull(env, 2, QelExtractable(items[0]), QelExtractable());
  EXPECT_EQ(Print(withNull), "[item e0, ]");
  xs.end();
  empty.end();
  withNull.end();
  for (ItemI* x : items) x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

// ---- refused memory leaves everything as it was ---------------------------

TEST(ArrayRefusedMemory, ACountedArrayWhoseElementCannotBeAddedLeavesNoArray) {
  long refusals = ForEachRefusal([](QelEnv env, RequestCounter& counter, long n) {
    ItemI* a = Item(env);
    QelExtractable h(a);
    counter.refuseAfter(n);
    bool refused = false;
    try {
      QelExtractableArray ten(env, 10, h, h, h, h, h, h, h, h, h, h);
      EXPECT_EQ(ten.getSize(), 10);
      ten.end();
    } catch (const QelMemoryException&) {
      refused = true;  // the balance ForEachRefusal checks finds a leak
    }
    counter.stop();
    a->end();
    return refused;
  });
  // The array, its first block, its block table and its second block.
  EXPECT_EQ(refusals, 4);
}

TEST(ArrayRefusedMemory, NamingTheElementsIsAllOrNothing) {
  long refusals = ForEachRefusal([](QelEnv env, RequestCounter& counter, long n) {
    ItemI* a = Item(env, "first");
    ItemI* b = Item(env);
    ItemI* c = Item(env, "third");
    QelExtractableArray xs(env, 5, QelExtractable(a), QelExtractable(b), QelExtractable(),
                           QelExtractable(c), QelExtractable(a));
    RecordingAlgorithmI* rec = MakeRecorder(env);
    rec->extract(a);
    counter.refuseAfter(n);
    bool refused = false;
    try {
      xs.setNames("v");
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    if (refused) {
      EXPECT_STREQ(a->getName(), "first") << "request " << n;
      EXPECT_EQ(b->getName(), nullptr) << "request " << n;
      EXPECT_STREQ(c->getName(), "third") << "request " << n;
      EXPECT_TRUE(rec->notices.empty());
    } else {
      // An element held twice keeps the name of its first place.
      EXPECT_STREQ(a->getName(), "v(0)");
      EXPECT_STREQ(b->getName(), "v(1)");
      EXPECT_STREQ(c->getName(), "v(3)");
      EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetNameArrayChange"}));
    }
    QelAlgorithm(rec).end();
    xs.end();
    EndAllObjects(env);
    return refused;
  });
  EXPECT_GE(refusals, 5);
}

TEST(ArrayRefusedMemory, ACloningThatCannotCompleteLeavesNoCopyBehind) {
  long refusals = ForEachRefusal([](QelEnv copy, RequestCounter& counter, long n) {
    QelEnv source;
    ItemI* a = Item(source);
    HolderI* h = Holder(source, a, a);
    QelExtractableArray xs(source, 3, QelExtractable(h), QelExtractable(a), QelExtractable(h));
    QelExtractableArray clones = xs;
    counter.refuseAfter(n);
    bool refused = false;
    try {
      clones.replaceByClone(copy.getImpl());
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    if (refused) {
      EXPECT_EQ(copy.getImpl()->getNumberOfExtractables(), 0) << "request " << n;
      EXPECT_EQ(clones.getImpl(), xs.getImpl());
    } else {
      EXPECT_EQ(copy.getImpl()->getNumberOfExtractables(), 2);  // each object once
      clones.end();
      EndAllObjects(copy);
    }
    xs.end();
    source.end();
    return refused;
  });
  EXPECT_GE(refusals, 3);
}

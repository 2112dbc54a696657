// The member list: bulk append and the one-sweep removal.
#include <vector>

#include "support/items.h"
#include "support/qeltest.h"

using namespace qeltest;

namespace {

struct ListTest : ::testing::Test {
  QelEnv env;
  QelInt baseline = 0;
  void SetUp() override { baseline = BytesInUse(env); }
  void TearDown() override { env.end(); }
};

std::vector<QelExtractableI*> Members(const QelExtractableList& l) {
  std::vector<QelExtractableI*> out;
  for (QelExtractableList::Node* n = l.getHead(); n != nullptr; n = n->next)
    out.push_back(n->extractable);
  return out;
}

QelExtractableList::Node* NodeOf(const QelExtractableList& l, QelExtractableI* x) {
  for (QelExtractableList::Node* n = l.getHead(); n != nullptr; n = n->next)
    if (n->extractable == x) return n;
  return nullptr;
}

}  // namespace

TEST_F(ListTest, AddSkipsNullElements) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  {
    QelExtractableList list;
    EXPECT_EQ(list.getTailLink(), list.getHeadLink());
    QelExtractableArray xs(env, 3, QelExtractable(a), QelExtractable(), QelExtractable(b));
    list.add(xs);
    EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{a, b}));
    EXPECT_EQ(list.getEnv(), env.getImpl());
    EXPECT_EQ(list.getSize(), 2);
    QelExtractableArray none;
    try {
      list.add(none);
      FAIL() << "no exception";
    } catch (const QelEmptyHandleException& e) {
      EXPECT_STREQ(e.getMessage(), "Using empty Handle");
    }
    EXPECT_THROW(list.remove(none, QelExtractableArray()), QelEmptyHandleException);
    xs.end();
    list.clear();
  }
  a->end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ListTest, RemoveKeepsTheTailLinkRight) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  ItemI* c = Item(env);
  QelExtractableList list;
  QelExtractableArray abc(env, 3, QelExtractable(a), QelExtractable(b), QelExtractable(c));
  list.add(abc);
  QelExtractableArray onlyB(env, 1, QelExtractable(b));
  list.remove(onlyB, QelExtractableArray());
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{a, c}));
  EXPECT_EQ(list.getTailLink(), &NodeOf(list, c)->next);
  QelExtractableArray onlyC(env, 1, QelExtractable(c));
  list.remove(onlyC, QelExtractableArray());
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{a}));
  EXPECT_EQ(list.getTailLink(), &NodeOf(list, a)->next);
  list.add(onlyB);
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{a, b}));
  list.clear();
  EXPECT_EQ(list.getTailLink(), list.getHeadLink());
  abc.end();
  onlyB.end();
  onlyC.end();
  for (ItemI* x : {a, b, c}) x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ListTest, FindLinkAndRemoveAtTakeOneNodeAndKeepTheTailRight) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  ItemI* c = Item(env);
  QelExtractableList list;
  QelExtractableArray abca(env, 4, QelExtractable(a), QelExtractable(b), QelExtractable(c),
                           QelExtractable(a));
  list.add(abca);
  // The links: the head link for the first node, the predecessor's next
  // field for the others; the first occurrence is the one found.
  EXPECT_EQ(list.findLink(a), list.getHeadLink());
  EXPECT_EQ(list.findLink(c), &NodeOf(list, b)->next);
  EXPECT_EQ(list.findLink(nullptr), nullptr);
  ItemI* stranger = Item(env);
  EXPECT_EQ(list.findLink(stranger), nullptr);
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{a, b, c, a}));

  list.removeAt(list.findLink(a));  // the head
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{b, c, a}));
  list.removeAt(list.findLink(a));  // the last node: the tail moves back
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{b, c}));
  EXPECT_EQ(list.getTailLink(), &NodeOf(list, c)->next);
  list.removeAt(list.findLink(b));
  list.removeAt(list.findLink(c));  // the only node: the list is empty
  EXPECT_TRUE(list.isEmpty());
  EXPECT_EQ(list.getTailLink(), list.getHeadLink());
  list.add(c);
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{c}));
  EXPECT_FALSE(list.removeFirst(a));
  EXPECT_TRUE(list.removeFirst(c));
  EXPECT_EQ(list.getTailLink(), list.getHeadLink());
  abca.end();
  for (ItemI* x : {a, b, c, stranger}) x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ListTest, RemoveTakesEveryNodeOfAMarkedMemberOnce) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  QelExtractableList list;
  QelExtractableArray content(env, 3, QelExtractable(a), QelExtractable(b), QelExtractable(a));
  list.add(content);
  QelExtractableArray twice(env, 2, QelExtractable(a), QelExtractable(a));
  QelExtractableArray removed(env, 0);
  list.remove(twice, removed);
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{b}));
  ASSERT_EQ(removed.getSize(), 2);
  EXPECT_EQ(removed.getElement(0), a);
  EXPECT_EQ(removed.getElement(1), a);
  EXPECT_EQ(env.getImpl()->getExtractableTable()[a->getId()], reinterpret_cast<std::uintptr_t>(a));
  list.clear();
  content.end();
  twice.end();
  removed.end();
  a->end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ListTest, RemovingFromAnEmptyListTouchesNothing) {
  ItemI* a = Item(env);
  QelExtractableList list;
  QelExtractableArray xs(env, 1, QelExtractable(a));
  std::uintptr_t* table = env.getImpl()->getExtractableTable();
  QelInt before = BytesInUse(env);
  list.remove(xs, QelExtractableArray());
  EXPECT_EQ(table[a->getId()], reinterpret_cast<std::uintptr_t>(a));
  EXPECT_EQ(BytesInUse(env), before);
  EXPECT_TRUE(list.isEmpty());
  xs.end();
  a->end();
}

TEST_F(ListTest, EveryElementIsUnmarkedAfterRemove) {
  std::vector<ItemI*> items;
  QelExtractableArray all(env, 0);
  for (int i = 0; i < 50; ++i) {
    items.push_back(Item(env));
    all.add(QelExtractable(items.back()));
  }
  QelExtractableList list;
  list.add(all);
  QelExtractableArray some(env, 0);
  for (int i = 0; i < 50; i += 3) some.add(QelExtractable(items[i]));
  ItemI* outsider = Item(env);
  some.add(QelExtractable(outsider));  // not in the list: marked and unmarked
  list.remove(some, QelExtractableArray());
  EXPECT_EQ(list.getSize(), 50 - 17);
  for (ItemI* x : items)
    EXPECT_EQ(env.getImpl()->getExtractableTable()[x->getId()],
              reinterpret_cast<std::uintptr_t>(x));
  EXPECT_EQ(env.getImpl()->getExtractableTable()[outsider->getId()],
            reinterpret_cast<std::uintptr_t>(outsider));
  list.clear();
  all.end();
  some.end();
  for (ItemI* x : items) x->end();
  outsider->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ListTest, RemoveMarkedGivesEachNodeBackToTheEnvironmentItWasMadeIn) {
  // A node is made in its member's environment, which need not be the
  // list's (the environment of its first member).
  QelEnv other;
  QelInt otherBaseline = BytesInUse(other);
  ItemI* a = Item(env);
  ItemI* b = Item(other);
  ItemI* c = Item(env);
  QelInt otherWithB = BytesInUse(other);
  QelExtractableList list;
  list.add(a);
  list.add(b);
  list.add(c);
  EXPECT_EQ(list.getEnv(), env.getImpl());
  EXPECT_EQ(BytesInUse(other), otherWithB + 16);  // b's node
  QelInt beforeSweep = BytesInUse(env);
  other.getImpl()->mark(b);
  env.getImpl()->mark(c);
  list.removeMarked();
  other.getImpl()->unmark(b);
  env.getImpl()->unmark(c);
  EXPECT_EQ(Members(list), (std::vector<QelExtractableI*>{a}));
  EXPECT_EQ(list.getTailLink(), &NodeOf(list, a)->next);
  EXPECT_EQ(BytesInUse(env), beforeSweep - 16);  // c's node
  EXPECT_EQ(BytesInUse(other), otherWithB);      // b's node went back to b's
  list.clear();
  for (ItemI* x : {a, b, c}) x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
  EXPECT_EQ(BytesInUse(other), otherBaseline);
  other.end();
}

// The model: membership, notices, removal sweeps, cloning, printing.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/items.h"
#include "support/qeltest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

struct ModelTest : ::testing::Test {
  QelEnv env;
  QelInt baseline = 0;
  void SetUp() override { baseline = BytesInUse(env); }
  void TearDown() override { env.end(); }
};

std::vector<QelExtractableI*> Members(const QelModel& m) {
  std::vector<QelExtractableI*> out;
  for (QelModel::Iterator it(m); it.ok(); ++it) out.push_back((*it).getImpl());
  return out;
}

// Records the arrays of the model notices as well as their class names.
class ArrayRecorderI : public RecordingAlgorithmI {
 public:
  using RecordingAlgorithmI::RecordingAlgorithmI;
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    if (c.isType(QelRemoveFromModel::GetTypeInfo()) || c.isType(QelAddToModel::GetTypeInfo()))
      arrays.push_back(Elements(static_cast<const QelModelArrayNotice&>(c).getMembers()));
    RecordingAlgorithmI::notifyChange(x, c);
  }
  std::vector<std::vector<QelExtractableI*>> arrays;
};

}  // namespace

TEST_F(ModelTest, NewModelIsEmptyAndIsAModel) {
  QelModel m(env, "m");
  EXPECT_TRUE(m.getImpl()->isModel());
  EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
  EXPECT_EQ(m.getImpl()->getMembers().getEnv(), nullptr);
  EXPECT_EQ(m.getImpl()->getMembers().getTailLink(), m.getImpl()->getMembers().getHeadLink());
  EXPECT_STREQ(m.getImpl()->getRttiTypeName(), "QelModelI");
  EXPECT_TRUE(m.getImpl()->isType(QelExtractableI::GetTypeInfo()));
  m.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, AddingTwiceGivesTwoNodesAndTwoNotices) {
  QelModel m(env);
  ItemI* x = Item(env, "x");
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  m.add(QelExtractable(x));
  m.add(QelExtractable(x));
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{x, x}));
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelAddOneToModel", "QelAddOneToModel"}));
  EXPECT_EQ(rec->visitor.calls,
            (std::vector<VisitCall>{{"add", m.getImpl(), x}, {"add", m.getImpl(), x}}));
  delete rec;
  m.end();
  x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, SingleRemoveTakesOnlyTheFirstNodeAndNotifiesOneElementArray) {
  QelModel m(env);
  ItemI* x = Item(env);
  ItemI* y = Item(env);
  m.add(QelExtractable(x));
  m.add(QelExtractable(y));
  m.add(QelExtractable(x));
  ArrayRecorderI* rec = QelNewObject<ArrayRecorderI>(env.getImpl(), env.getImpl());
  rec->extract(m.getImpl());
  m.remove(QelExtractable(x));
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{y, x}));
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelRemoveFromModel"}));
  ASSERT_EQ(rec->arrays.size(), 1u);
  EXPECT_EQ(rec->arrays[0], (std::vector<QelExtractableI*>{x}));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>{{"remove", m.getImpl(), x}}));
  // The tail link follows the last node.
  m.remove(QelExtractable(x));
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{y}));
  EXPECT_EQ(m.getImpl()->getMembers().getTailLink(), &m.getImpl()->getMembers().getHead()->next);
  m.add(QelExtractable(x));
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{y, x}));
  delete rec;
  m.end();
  x->end();
  y->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, RemovingANonMemberSendsNothing) {
  QelModel m(env);
  ItemI* x = Item(env);
  ItemI* y = Item(env);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  m.remove(QelExtractable(x));  // empty model
  m.add(QelExtractable(y));
  rec->notices.clear();
  m.remove(QelExtractable(x));  // not a member
  QelExtractableArray xs(env, 1, QelExtractable(x));
  m.remove(xs);  // no element is a member
  EXPECT_TRUE(rec->notices.empty());
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{y}));
  xs.end();
  delete rec;
  m.end();
  x->end();
  y->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, BulkRemoveSweepsOnceAndReportsInModelOrder) {
  QelModel m(env);
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  ItemI* c = Item(env);
  m.add(QelExtractable(a));
  m.add(QelExtractable(b));
  m.add(QelExtractable(c));
  m.add(QelExtractable(a));
  ArrayRecorderI* rec = QelNewObject<ArrayRecorderI>(env.getImpl(), env.getImpl());
  rec->extract(m.getImpl());
  // xs holds c twice and a once; the model holds a twice.
  QelExtractableArray xs(env, 3, QelExtractable(c), QelExtractable(a), QelExtractable(c));
  m.remove(xs);
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{b}));
  ASSERT_EQ(rec->arrays.size(), 1u);
  EXPECT_EQ(rec->arrays[0], (std::vector<QelExtractableI*>{a, c, a}));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>{{"remove", m.getImpl(), a},
                                                        {"remove", m.getImpl(), c},
                                                        {"remove", m.getImpl(), a}}));
  // Every element of xs is unmarked again: its slot holds its address.
  for (QelExtractableI* e : {static_cast<QelExtractableI*>(a), static_cast<QelExtractableI*>(c)})
    EXPECT_EQ(env.getImpl()->getExtractableTable()[e->getId()],
              reinterpret_cast<std::uintptr_t>(e));
  EXPECT_EQ(m.getImpl()->getMembers().getTailLink(), &m.getImpl()->getMembers().getHead()->next);
  xs.end();
  delete rec;
  m.end();
  a->end();
  b->end();
  c->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, ArrayAddSkipsNullsAndNotifiesTheArrayUnchanged) {
  QelModel m(env);
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  ArrayRecorderI* rec = QelNewObject<ArrayRecorderI>(env.getImpl(), env.getImpl());
  rec->extract(m.getImpl());
  QelExtractableArray empty(env, 0);
  m.add(empty);
  EXPECT_TRUE(rec->notices.empty());
  QelExtractableArray xs(env, 3, QelExtractable(a), QelExtractable(), QelExtractable(b));
  m.add(xs);
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{a, b}));
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelAddToModel"}));
  ASSERT_EQ(rec->arrays.size(), 1u);
  EXPECT_EQ(rec->arrays[0], (std::vector<QelExtractableI*>{a, nullptr, b}));
  // The visitor's array form passes the null element on as it stands.
  EXPECT_EQ(rec->visitor.calls,
            (std::vector<VisitCall>{
                {"add", m.getImpl(), a}, {"add", m.getImpl(), nullptr}, {"add", m.getImpl(), b}}));
  empty.end();
  xs.end();
  delete rec;
  m.end();
  a->end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, DisplayOfAnUnnamedModel) {
  // Ids 0, 1, 2 go to the first objects; the model gets id 3.
  ItemI* a = Item(env, "a");
  ItemI* b = Item(env, "b");
  ItemI* spare = Item(env);
  QelModel m(env);
  ASSERT_EQ(m.getId(), 3);
  m.add(QelExtractable(a));
  m.add(QelExtractable(b));
  EXPECT_EQ(Print(QelExtractable(m)), "QelModel model3 = {\nitem a\nitem b\n}\n");
  QelModel empty(env, "named");
  EXPECT_EQ(Display(empty.getImpl()), "QelModel named = {\n}\n");
  m.end();
  empty.end();
  a->end();
  b->end();
  spare->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, HandleChecksInOrderWithTheirMessages) {
  QelModel none;
  QelModel m(env);
  QelExtractable nothing;
  ItemI* x = Item(env);
  QelExtractableArray noArray;
  QelExtractableArray xs(env, 1, QelExtractable(x));
  using E = QelEmptyHandleException;
  EXPECT_EQ(MessageOf<E>([&] { none.add(nothing); }), "trying to add to an empty handle QelModel");
  EXPECT_EQ(MessageOf<E>([&] { m.add(nothing); }), "trying to add an empty handle extractable");
  EXPECT_EQ(MessageOf<E>([&] { none.add(noArray); }), "trying to add 0 extractor handle");
  EXPECT_EQ(MessageOf<E>([&] { m.add(noArray); }), "Using empty QelExtractableArray handle.");
  EXPECT_EQ(MessageOf<E>([&] { none.remove(nothing); }), "trying to remove 0 extractor handle");
  EXPECT_EQ(MessageOf<E>([&] { m.remove(nothing); }), "trying to remove 0 extractable handle");
  EXPECT_EQ(MessageOf<E>([&] { none.remove(noArray); }), "trying to remove 0 extractor handle");
  EXPECT_EQ(MessageOf<E>([&] { m.remove(noArray); }), "Using empty QelExtractableArray handle.");
  EXPECT_EQ(MessageOf<E>([&] { none.expand(nothing); }), "Expanding to an empty QelModel handle.");
  EXPECT_EQ(MessageOf<E>([&] { m.expand(nothing); }),
            "trying to expand an empty extractable handle");
  // The model handle is tested before the argument.
  EXPECT_EQ(MessageOf<E>([&] { none.add(QelExtractable(x)); }),
            "trying to add to an empty handle QelModel");
  EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
  // The model object itself refuses a null member in the same words,
  // without a node or a byte more.
  QelInt bytes = BytesInUse(env);
  EXPECT_EQ(MessageOf<E>([&] { m.getImpl()->add(nullptr); }),
            "trying to add an empty handle extractable");
  EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
  EXPECT_EQ(BytesInUse(env), bytes);
  // expand adds the object as a member and returns it.
  EXPECT_EQ(m.expand(QelExtractable(x)).getImpl(), x);
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{x}));
  xs.end();
  m.end();
  x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, EndingAMemberSweepsItOutWithoutNotice) {
  QelModel m(env);
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  m.add(QelExtractable(a));
  m.add(QelExtractable(b));
  m.add(QelExtractable(a));
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  a->end();
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{b}));
  // The algorithm hears of the removal from everything and the destruction,
  // never of a removal from the model.
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelRemoveFromAllChange", "QelDestroyExtractable"}));
  EXPECT_TRUE(rec->visitor.calls.empty());
  delete rec;
  m.end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, EndingAMemberOneByOneRemovesEachNodeWithNotice) {
  env.getImpl()->setOneByOne(1);
  QelModel m(env);
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  m.add(QelExtractable(a));
  m.add(QelExtractable(b));
  m.add(QelExtractable(a));
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  a->end();
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{b}));
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelRemoveFromModel", "QelRemoveFromModel",
                                      "QelRemoveFromAllChange", "QelDestroyExtractable"}));
  EXPECT_EQ(rec->visitor.calls,
            (std::vector<VisitCall>{{"remove", m.getImpl(), a}, {"remove", m.getImpl(), a}}));
  delete rec;
  m.end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, AnEndedMemberGoesWithAnyBulkRemoval) {
  // A member whose id is -1 (ended behind the model's back by the
  // environment's bookkeeping) counts as marked in every sweep.
  QelModel m(env);
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  ItemI* other = Item(env);
  m.add(QelExtractable(a));
  m.add(QelExtractable(b));
  env.getImpl()->unregister(a);  // id -1, memory still there
  QelExtractableArray ys(env, 1, QelExtractable(other));
  m.remove(ys);
  EXPECT_EQ(Members(m), (std::vector<QelExtractableI*>{b}));
  ys.end();
  delete a;  // already unregistered: only the memory goes back
  m.end();
  b->end();
  other->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, CloneIntoAnotherEnvironmentKeepsOrderAndClonesOnce) {
  QelEnv target;
  QelInt targetBase = BytesInUse(target);
  QelModel m(env, "original");
  ItemI* a = Item(env, "a");
  ItemI* b = Item(env, "b");
  HolderI* h = Holder(env, a, b);
  m.add(QelExtractable(b));
  m.add(QelExtractable(a));
  m.add(QelExtractable(h));
  m.add(QelExtractable(a));
  ItemI::clones = 0;
  QelExtractableI* copy = target.getImpl()->getClone(m.getImpl());
  ASSERT_TRUE(copy->isModel());
  QelModel clone(static_cast<QelModelI*>(copy));
  EXPECT_EQ(clone.getName(), nullptr);
  std::vector<QelExtractableI*> cm = Members(clone);
  ASSERT_EQ(cm.size(), 4u);
  EXPECT_EQ(ItemI::clones, 2);  // a and b once each
  EXPECT_EQ(cm[1], cm[3]);      // a's clone, shared
  for (QelExtractableI* e : cm) EXPECT_EQ(e->getEnv(), target.getImpl());
  EXPECT_EQ(Display(copy), "QelModel model" + std::to_string(copy->getId()) + " = {\nitem #" +
                               std::to_string(cm[0]->getId()) + "\nitem #" +
                               std::to_string(cm[1]->getId()) + "\nholder" +
                               std::to_string(cm[2]->getId()) + "\nitem #" +
                               std::to_string(cm[3]->getId()) + "\n}\n");
  // The clone map lived for one copy only: a new copy makes new clones.
  QelExtractableI* again = target.getImpl()->getClone(a);
  EXPECT_NE(again, cm[1]);
  again->end();
  // Ending the clones together: one of them holds two others.
  QelExtractableArray clones(target, 4, clone, QelExtractable(cm[0]), QelExtractable(cm[1]),
                             QelExtractable(cm[2]));
  clones.endElements();
  clones.end();
  EXPECT_EQ(target.getImpl()->getNumberOfExtractables(), 0);
  EXPECT_EQ(BytesInUse(target), targetBase);
  target.end();
  m.end();
  h->end();
  a->end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ModelTest, RecordLocationSeesEveryLinkWrite) {
  struct Recorder : QelCustomAllocatorI {
    QelEnvI* env;
    std::vector<void*> locations;
    int allocs = 0;
    void* alloc(size_t size) override {
      ++allocs;
      return env->getLargeBlocks()->alloc(static_cast<long>(size == 0 ? 1 : size));
    }
    void free(void* p, size_t) override { env->getLargeBlocks()->free(p); }
    void recordLocation(void* address) override { locations.push_back(address); }
  } custom;
  QelEnv e2;
  custom.env = e2.getImpl();
  e2.getImpl()->setCustomAllocator(&custom);
  {
    QelModel m(e2);
    ItemI* a = Item(e2);
    const QelExtractableList& list = m.getImpl()->getMembers();
    void* headLink = const_cast<QelExtractableList::Node**>(list.getHeadLink());
    void* tailField = const_cast<QelExtractableList::Node***>(list.getTailField());
    m.add(QelExtractable(a));
    // The add reported the location the tail designated (the head link of
    // the empty list), then the tail-link field.
    EXPECT_EQ(custom.locations, (std::vector<void*>{headLink, tailField}));
    custom.locations.clear();
    m.remove(QelExtractable(a));
    // Removing the last node: the tail field moves back, then the link that
    // held the node (the head link) is overwritten.
    EXPECT_EQ(custom.locations, (std::vector<void*>{tailField, headLink}));
    EXPECT_GT(custom.allocs, 0);
    m.end();
    a->end();
  }
  e2.getImpl()->setCustomAllocator(nullptr);
  e2.end();
}

// ---- refused memory leaves the model as it was --------------------------------

namespace {

std::vector<QelExtractableI*> MembersOf(const QelModel& m) {
  std::vector<QelExtractableI*> out;
  for (QelModelI::Iterator it(m.getImpl()); it.ok(); ++it) out.push_back(*it);
  return out;
}

}  // namespace

TEST(ModelRefusedMemory, AddingAnArrayIsAllOrNothing) {
  long refusals = ForEachRefusal([](QelEnv env, RequestCounter& counter, long n) {
    QelModel m(env, "m");
    ItemI* first = Item(env);
    m.add(first);
    QelExtractableArray xs(env, 0);
    for (int i = 0; i < 12; ++i) xs.add(Item(env));
    RecordingAlgorithmI* rec = MakeRecorder(env);
    rec->extract(m.getImpl());
    counter.refuseAfter(n);
    bool refused = false;
    try {
      m.add(xs);
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    if (refused) {
      EXPECT_EQ(MembersOf(m), (std::vector<QelExtractableI*>{first})) << "request " << n;
      EXPECT_TRUE(rec->notices.empty());
      m.add(Item(env));  // the tail is still right
      EXPECT_EQ(m.getImpl()->getMembers().getSize(), 2);
    } else {
      EXPECT_EQ(m.getImpl()->getMembers().getSize(), 13);
      EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelAddToModel"}));
    }
    QelAlgorithm(rec).end();
    xs.end();
    EndAllObjects(env);
    return refused;
  });
  EXPECT_EQ(refusals, 12);
}

TEST(ModelRefusedMemory, RemovingAnArrayIsAllOrNothing) {
  long refusals = ForEachRefusal([](QelEnv env, RequestCounter& counter, long n) {
    QelModel m(env, "m");
    QelExtractableArray members(env, 0), going(env, 0);
    for (int i = 0; i < 12; ++i) {
      ItemI* item = Item(env);
      members.add(item);
      if (i % 2 == 0) going.add(item);
    }
    m.add(members);
    m.add(members);  // every member twice
    std::vector<QelExtractableI*> before = MembersOf(m);
    RecordingAlgorithmI* rec = MakeRecorder(env);
    rec->extract(m.getImpl());
    counter.refuseAfter(n);
    bool refused = false;
    try {
      m.remove(going);
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    if (refused) {
      EXPECT_EQ(MembersOf(m), before) << "request " << n;
      EXPECT_TRUE(rec->notices.empty());
      for (long i = 0; i < members.getSize(); ++i)
        EXPECT_FALSE(QelEnvI::IsMarked(members.getElement(i)));
    } else {
      EXPECT_EQ(m.getImpl()->getMembers().getSize(), 12);
      EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelRemoveFromModel"}));
    }
    QelAlgorithm(rec).end();
    members.end();
    going.end();
    EndAllObjects(env);
    return refused;
  });
  EXPECT_GE(refusals, 3);
}

// ---- members of several environments ------------------------------------------

TEST(ModelOverTwoEnvironments, EveryNodeGoesBackToTheEnvironmentItCameFrom) {
  QelEnv a, b;
  QelInt baseA = BytesInUse(a);
  QelInt baseB = BytesInUse(b);
  ItemI* inA = Item(a);
  ItemI* inB = Item(b);
  QelInt itemsA = BytesInUse(a);
  QelInt itemsB = BytesInUse(b);
  // Destruction.
  QelModel m(a, "m");
  QelInt modelA = BytesInUse(a);
  m.add(inA);
  m.add(inB);
  m.add(inB);
  EXPECT_EQ(BytesInUse(a), modelA + 16);
  EXPECT_EQ(BytesInUse(b), itemsB + 32);
  m.end();
  EXPECT_EQ(BytesInUse(a), itemsA);
  EXPECT_EQ(BytesInUse(b), itemsB);
  // The emptying of endElements: the model's nodes of b go back to b.
  QelModel n(a, "n");
  n.add(inA);
  n.add(inB);
  QelExtractableArray models(a, 1, QelExtractable(n));
  models.endElements();
  models.end();
  EXPECT_EQ(BytesInUse(a), itemsA);
  EXPECT_EQ(BytesInUse(b), itemsB);
  inA->end();
  inB->end();
  EXPECT_EQ(BytesInUse(a), baseA);
  EXPECT_EQ(BytesInUse(b), baseB);
  a.end();
  b.end();
}

// ---- removal across environments ---------------------------------------------------

namespace {

// Two environments: `b` holds a model over members of `a` and of `b`, with a
// recorder of `b` that extracted the model.
struct AcrossEnvironments : ::testing::Test {
  QelEnv a, b;
  QelInt baseA = 0, baseB = 0;
  ArrayRecorderI* rec = nullptr;
  void SetUp() override {
    baseA = BytesInUse(a);
    baseB = BytesInUse(b);
  }
  void listen(const QelModel& m) {
    rec = QelNewObject<ArrayRecorderI>(b.getImpl(), b.getImpl());
    rec->extract(m.getImpl());
    rec->notices.clear();
    rec->arrays.clear();
  }
  void TearDown() override {
    if (a.getImpl() != nullptr) a.end();
    if (b.getImpl() != nullptr) b.end();
  }
};

}  // namespace

TEST_F(AcrossEnvironments, EndingAMemberDropsItFromTheModelOfTheOtherEnvironment) {
  // Without and with the one-by-one flag of the member's environment: one
  // notice for both nodes, or one per node.
  for (std::int32_t oneByOne : {0, 1}) {
    a.getImpl()->setOneByOne(oneByOne);
    ItemI* x = Item(a, "x");
    ItemI* y = Item(b, "y");
    QelModel m(b, "m");
    m.add(x);
    m.add(y);
    m.add(x);
    EXPECT_TRUE(a.getImpl()->isHeldBy(b.getImpl()));
    EXPECT_FALSE(b.getImpl()->isHeldBy(a.getImpl()));
    listen(m);
    QelExtractableI* gone = x;
    x->end();
    EXPECT_EQ(Members(m), std::vector<QelExtractableI*>({y}));
    if (oneByOne == 0) {
      EXPECT_EQ(rec->notices, std::vector<std::string>({"QelRemoveFromModel"}));
      EXPECT_EQ(rec->arrays, std::vector<std::vector<QelExtractableI*>>({{gone, gone}}));
    } else {
      EXPECT_EQ(rec->notices,
                std::vector<std::string>({"QelRemoveFromModel", "QelRemoveFromModel"}));
      EXPECT_EQ(rec->arrays, std::vector<std::vector<QelExtractableI*>>({{gone}, {gone}}));
    }
    EXPECT_EQ(BytesInUse(a), baseA);
    delete rec;
    m.end();
    y->end();
    EXPECT_EQ(BytesInUse(a), baseA);
    EXPECT_EQ(BytesInUse(b), baseB);
  }
}

TEST_F(AcrossEnvironments, RemoveFromAllLetsTheMemberLive) {
  ItemI* x = Item(a, "x");
  QelModel m(b, "m");
  m.add(x);
  listen(m);
  x->removeFromAll();
  EXPECT_TRUE(Members(m).empty());
  EXPECT_GE(x->getId(), 0);
  EXPECT_EQ(rec->arrays, std::vector<std::vector<QelExtractableI*>>({{x}}));
  delete rec;
  m.end();
  x->end();
  EXPECT_EQ(BytesInUse(a), baseA);
  EXPECT_EQ(BytesInUse(b), baseB);
}

TEST_F(AcrossEnvironments, EndElementsDropsTheEndedMembersWithOneNotice) {
  ItemI* x1 = Item(a, "x1");
  ItemI* x2 = Item(a, "x2");
  ItemI* y = Item(b, "y");
  QelModel m(b, "m");
  m.add(x2);
  m.add(y);
  m.add(x1);
  listen(m);
  QelExtractableArray xs(a, 2, QelExtractable(x1), QelExtractable(x2));
  QelExtractableI* gone1 = x1;
  QelExtractableI* gone2 = x2;
  xs.endElements();
  xs.end();
  EXPECT_EQ(Members(m), std::vector<QelExtractableI*>({y}));
  EXPECT_EQ(rec->notices, std::vector<std::string>({"QelRemoveFromModel"}));
  EXPECT_EQ(rec->arrays, std::vector<std::vector<QelExtractableI*>>({{gone2, gone1}}));
  delete rec;
  m.end();
  y->end();
  EXPECT_EQ(BytesInUse(a), baseA);
  EXPECT_EQ(BytesInUse(b), baseB);
}

TEST_F(AcrossEnvironments, ADirectDeleteDropsTheMember) {
  ItemI* x = Item(a, "x");
  QelModel m(b, "m");
  m.add(x);
  QelModel inner(a, "inner");
  inner.add(x);
  m.add(inner);
  listen(m);
  QelExtractableI* gone = x;
  delete x;
  EXPECT_EQ(Members(m), std::vector<QelExtractableI*>({inner.getImpl()}));
  EXPECT_TRUE(Members(inner).empty());
  EXPECT_EQ(rec->arrays, std::vector<std::vector<QelExtractableI*>>({{gone}}));
  delete rec;
  m.end();
  inner.end();
  EXPECT_EQ(BytesInUse(a), baseA);
  EXPECT_EQ(BytesInUse(b), baseB);
}

TEST_F(AcrossEnvironments, EndingTheMembersEnvironmentFirstDropsItsMembers) {
  ItemI* x = Item(a, "x");
  ItemI* y = Item(b, "y");
  QelModel m(b, "m");
  m.add(x);
  m.add(y);
  QelModel inner(a, "inner");
  inner.add(x);
  m.add(inner);
  listen(m);
  QelExtractableI* gone = x;
  QelExtractableI* innerGone = inner.getImpl();
  a.end();
  EXPECT_EQ(Members(m), std::vector<QelExtractableI*>({y}));
  EXPECT_EQ(rec->notices, std::vector<std::string>({"QelRemoveFromModel"}));
  EXPECT_EQ(rec->arrays, std::vector<std::vector<QelExtractableI*>>({{gone, innerGone}}));
  delete rec;
  m.end();
  y->end();
  EXPECT_EQ(BytesInUse(b), baseB);
}

TEST_F(AcrossEnvironments, AModelThatLetItsForeignMembersGoOutlivesTheirEnvironment) {
  // The model's list was first filled from `a`; its members of `a` went
  // before `a` ended, those of `b` stay.
  ItemI* x = Item(a, "x");
  ItemI* y = Item(b, "y");
  QelModel m(b, "m");
  m.add(x);
  m.add(y);
  m.remove(x);
  a.end();
  EXPECT_EQ(Members(m), std::vector<QelExtractableI*>({y}));
  m.end();
  y->end();
  EXPECT_EQ(BytesInUse(b), baseB);
}

TEST_F(AcrossEnvironments, EndingTheHoldersEnvironmentFirstGivesTheNodesBack) {
  ItemI* x = Item(a, "x");
  QelInt itemA = BytesInUse(a);
  QelModel m(b, "m");
  m.add(x);
  m.add(x);
  EXPECT_EQ(BytesInUse(a), itemA + 32);
  QelEnvI* holder = b.getImpl();
  EXPECT_TRUE(a.getImpl()->isHeldBy(holder));
  b.end();
  EXPECT_EQ(BytesInUse(a), itemA);
  EXPECT_FALSE(a.getImpl()->isHeldBy(holder));
  // Nothing of the ended environment is reached any more.
  x->end();
  EXPECT_EQ(BytesInUse(a), baseA);
}

// ---- the order a logging allocator sees -------------------------------------------

namespace {

// Logs what the environment asks of it: "alloc <size>", "free <size>",
// "record".
struct EventLog : QelCustomAllocatorI {
  std::vector<std::string> events;
  void* alloc(size_t size) override {
    events.push_back("alloc " + std::to_string(size));
    return std::malloc(size == 0 ? 1 : size);
  }
  void free(void* p, size_t size) override {
    events.push_back("free " + std::to_string(size));
    std::free(p);
  }
  void recordLocation(void*) override { events.push_back("record"); }
};

}  // namespace

TEST(ModelLinkOrder, ReportRewriteThenReleaseOnEveryRemovalPath) {
  EventLog log;
  QelEnv env;
  env.getImpl()->setCustomAllocator(&log);
  {
    QelModel m(env, "m");
    ItemI* a = Item(env);
    ItemI* b = Item(env);
    ItemI* c = Item(env);
    m.add(a);
    m.add(b);
    m.add(c);
    RecordingAlgorithmI* rec = MakeRecorder(env);
    rec->extract(m.getImpl());
    // Single removal of the last member: the tail field and the link are
    // reported, then the node is released (the notice's array is
    // bookkeeping, which the allocator does not serve).
    log.events.clear();
    m.remove(c);
    EXPECT_EQ(log.events, (std::vector<std::string>{"record", "record", "free 16"}));
    EXPECT_EQ(rec->notices.back(), "QelRemoveFromModel");
    // Bulk removal: each link is reported before its node goes.
    QelExtractableArray going(env, 1, QelExtractable(a));
    log.events.clear();
    m.remove(going);
    auto firstFree16 = std::find(log.events.begin(), log.events.end(), "free 16");
    ASSERT_NE(firstFree16, log.events.end());
    ASSERT_NE(firstFree16, log.events.begin());
    EXPECT_EQ(*(firstFree16 - 1), "record");
    going.end();
    // The atRemove sweep of an ending member.
    log.events.clear();
    QelExtractable(b).end();
    std::vector<std::string> nodeEvents;
    for (const std::string& ev : log.events)
      if (ev == "record" || ev == "free 16") nodeEvents.push_back(ev);
    EXPECT_EQ(nodeEvents, (std::vector<std::string>{"record", "free 16", "record"}));
    EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
    delete rec;
    m.end();
    a->end();
    c->end();
  }
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 0);
  env.getImpl()->setCustomAllocator(nullptr);
  env.end();
}

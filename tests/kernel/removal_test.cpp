// The remove-from-all protocol of the environment: cascades, the one-by-one
// flag, bulk ends in one pass, notices, destruction order.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/items.h"
#include "support/qeltest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

std::vector<std::string> destroyed;  // destruction log
int visits = 0;                      // visitSubExtractables calls on bystanders

// A holder that logs its destruction and checks that what it holds is still
// there (holders go before what they hold).
class LoggedHolderI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(LoggedHolderI, QelExtractableI)

 public:
  LoggedHolderI(QelEnvI* env, const char* tag, QelExtractableI* held)
      : QelExtractableI(env, tag), _held(held) {}
  ~LoggedHolderI() override {
    destroyed.push_back(getName() != nullptr ? getName() : "?");
    if (_held != nullptr)
      destroyed.push_back(std::string("  held still named ") +
                          (_held->getName() ? _held->getName() : "?"));
  }
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    if (_held != nullptr) v->visitChildren(this, _held);
    v->endVisit(this);
  }

 private:
  QelExtractableI* _held;
};
QEL_EXTRACTABLE_DEF(LoggedHolderI)

// An object nothing depends on, counting how often it is visited.
class BystanderI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(BystanderI, QelExtractableI)

 public:
  explicit BystanderI(QelEnvI* env) : QelExtractableI(env) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    ++visits;
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(BystanderI)

// Holds an expression with one use, given back in its destructor.
class ExprHolderI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(ExprHolderI, QelExtractableI)

 public:
  ExprHolderI(QelEnvI* env, QelNumExprI* e) : QelExtractableI(env), _e(e) { _e->lockExpr(); }
  ~ExprHolderI() override { getEnv()->release(_e); }
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->visitChildren(this, _e);
    v->endVisit(this);
  }

 private:
  QelNumExprI* _e;
};
QEL_EXTRACTABLE_DEF(ExprHolderI)

// Throws from every notice it receives.
class ThrowingAlgorithmI : public QelAlgorithmI {
 public:
  using QelAlgorithmI::QelAlgorithmI;
  void notifyChange(const QelExtractableI*, const QelChange&) override {
    throw QelWrongUsage("listener failed");
  }
};

struct RemovalTest : ::testing::Test {
  QelEnv env;
  QelInt baseline = 0;
  void SetUp() override {
    baseline = BytesInUse(env);
    destroyed.clear();
    visits = 0;
  }
  void TearDown() override { env.end(); }
  LoggedHolderI* Logged(const char* tag, QelExtractableI* held) {
    return QelNewObject<LoggedHolderI>(env.getImpl(), env.getImpl(), tag, held);
  }
  bool Alive(QelInt id, const QelExtractableI* x) { return env.getImpl()->getExtractable(id) == x; }
};

std::vector<QelExtractableI*> Members(QelModelI* m) {
  std::vector<QelExtractableI*> out;
  for (QelModelI::Iterator it(m); it.ok(); ++it) out.push_back(*it);
  return out;
}

}  // namespace

TEST_F(RemovalTest, EndingAnObjectEndsItsHoldersAndSweepsModels) {
  LoggedHolderI* x = Logged("x", nullptr);
  LoggedHolderI* h = Logged("h", x);
  QelModel m(env);
  ItemI* other = Item(env);
  m.add(QelExtractable(h));
  m.add(QelExtractable(other));
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  QelInt hid = h->getId();
  x->end();
  EXPECT_FALSE(Alive(hid, h));
  EXPECT_EQ(Members(m.getImpl()), (std::vector<QelExtractableI*>{other}));
  // The holder went first, while what it held was still there.
  EXPECT_EQ(destroyed, (std::vector<std::string>{"h", "  held still named x", "x"}));
  // One removal notice for the whole wave, then one destruction notice per
  // object in the order they were reached; no model notice.
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelRemoveFromAllChange", "QelDestroyExtractable",
                                      "QelDestroyExtractable"}));
  EXPECT_TRUE(rec->visitor.calls.empty());
  delete rec;
  m.end();
  other->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, OneByOneEndsEachDependantWithItsOwnNotices) {
  env.getImpl()->setOneByOne(1);
  LoggedHolderI* x = Logged("x", nullptr);
  LoggedHolderI* h = Logged("h", x);
  QelModel m(env);
  m.add(QelExtractable(h));
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  x->end();
  EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelRemoveFromModel", "QelRemoveFromAllChange",
                                      "QelDestroyExtractable", "QelRemoveFromAllChange",
                                      "QelDestroyExtractable"}));
  EXPECT_EQ(rec->objects[2], h);
  EXPECT_EQ(rec->objects[4], x);
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>{{"remove", m.getImpl(), h}}));
  EXPECT_EQ(destroyed, (std::vector<std::string>{"h", "  held still named x", "x"}));
  delete rec;
  m.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, EndingManyTogetherCostsOnePass) {
  std::vector<BystanderI*> bystanders;
  for (int i = 0; i < 20; ++i)
    bystanders.push_back(QelNewObject<BystanderI>(env.getImpl(), env.getImpl()));
  QelExtractableArray xs(env, 0);
  for (int i = 0; i < 10; ++i) xs.add(QelExtractable(Item(env)));
  visits = 0;
  xs.endElements();
  EXPECT_EQ(visits, 20);  // each bystander visited once for all ten
  QelExtractableArray ys(env, 0);
  for (int i = 0; i < 10; ++i) ys.add(QelExtractable(Item(env)));
  visits = 0;
  for (long i = 0; i < ys.getSize(); ++i) ys.getElement(i)->end();
  EXPECT_EQ(visits, 200);  // one pass per single end
  xs.end();
  ys.end();
  for (BystanderI* b : bystanders) b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, BulkEndWithTheOneByOneFlagTakesOnePassPerElement) {
  env.getImpl()->setOneByOne(1);
  BystanderI* b = QelNewObject<BystanderI>(env.getImpl(), env.getImpl());
  QelExtractableArray xs(env, 0);
  for (int i = 0; i < 5; ++i) xs.add(QelExtractable(Item(env)));
  visits = 0;
  xs.endElements();
  EXPECT_EQ(visits, 5);
  b->end();
  xs.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, RemoveFromAllKeepsTheObjectAlive) {
  LoggedHolderI* x = Logged("x", nullptr);
  LoggedHolderI* h = Logged("h", x);
  QelModel m(env);
  m.add(QelExtractable(x));
  m.add(QelExtractable(h));
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());
  QelInt xid = x->getId();
  x->removeFromAll();
  EXPECT_TRUE(Alive(xid, x));
  EXPECT_EQ(env.getImpl()->getExtractableTable()[xid], reinterpret_cast<std::uintptr_t>(x));
  EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
  EXPECT_EQ(destroyed, (std::vector<std::string>{"h", "  held still named x"}));
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelRemoveFromAllChange", "QelDestroyExtractable"}));
  EXPECT_EQ(rec->objects[1], h);
  delete rec;
  m.end();
  x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, DeletingDirectlyRemovesFromEverything) {
  ItemI* a = Item(env);
  QelModel m(env);
  m.add(QelExtractable(a));
  QelInt id = a->getId();
  delete a;
  EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
  EXPECT_EQ(env.getImpl()->getExtractable(id), nullptr);
  m.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, EndedObjectsReleaseTheirExpressionsInTheSameRemoval) {
  QelNumVar x(env, 0, 1, "x");
  QelNumVar y(env, 0, 1, "y");
  QelNumExpr e = x + y;
  QelInt eid = e.getId();
  auto* holder = QelNewObject<ExprHolderI>(env.getImpl(), env.getImpl(), e.getImpl());
  EXPECT_EQ(e.getImpl()->getUseCount(), 1);
  QelInt live = env.getImpl()->getNumberOfExtractables();
  holder->end();
  // The last use of the sum went with the holder: the sum ended too.
  EXPECT_EQ(env.getImpl()->getExtractable(eid), nullptr);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live - 2);
  x.end();
  y.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, AFailingListenerDoesNotStopTheRemoval) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  QelModel m(env);
  m.add(QelExtractable(a));
  m.add(QelExtractable(b));
  auto* bad = QelNewObject<ThrowingAlgorithmI>(env.getImpl(), env.getImpl());
  bad->extract(m.getImpl());
  QelInt aid = a->getId();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { a->end(); }), "listener failed");
  // The removal finished: a is gone from the model and the table, b is
  // untouched and unmarked.
  EXPECT_EQ(env.getImpl()->getExtractable(aid), nullptr);
  EXPECT_EQ(Members(m.getImpl()), (std::vector<QelExtractableI*>{b}));
  EXPECT_EQ(env.getImpl()->getExtractableTable()[b->getId()], reinterpret_cast<std::uintptr_t>(b));
  delete bad;
  m.end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(RemovalTest, EndingAnEndedObjectDoesNothing) {
  ItemI* a = Item(env);
  QelExtractableArray xs(env, 2, QelExtractable(a), QelExtractable(a));
  QelInt live = env.getImpl()->getNumberOfExtractables();
  xs.endElements();  // the same object twice: ended once
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live - 1);
  xs.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

// ---- removals need no object memory ------------------------------------------

TEST(RemovalRefusedMemory, EndingAsksNothingOfObjectMemory) {
  // A removal kept its lists in object memory: a refused request in the
  // middle of a cascade left objects destroyed and others marked. Its lists
  // are bookkeeping memory now, so ending asks object memory for nothing,
  // one by one or not, alone or together.
  for (int oneByOne : {0, 1}) {
    RequestCounter counter;
    RefusingAllocator allocator(counter);
    QelEnv env;
    env.getImpl()->setCustomAllocator(&allocator);
    env.getImpl()->setOneByOne(oneByOne);
    QelIntVar x(env, 0, 9, "x"), y(env, 0, 9, "y");
    QelIntVarArray many(env, 12, 0, 9);
    QelIntExpr sum = x + y;
    QelRange r(env, 0, sum, 5, "r");
    QelModel m(env, "m");
    m.add(r);
    m.add(x);
    m.add(x);
    m.add(many);
    QelSOS1 s(env, "s");
    s->addVar(x);
    s->addVar(y);
    QelObjective obj(env, sum);
    RecordingAlgorithmI* rec = MakeRecorder(env);
    rec->extract(m.getImpl());
    rec->extract(s.getImpl());
    rec->extract(obj.getImpl());
    // Every request from here on is refused.
    counter.refuseAll = true;
    EXPECT_NO_THROW(x.end()) << "one by one: " << oneByOne;
    EXPECT_NO_THROW(many.endElements()) << "one by one: " << oneByOne;
    EXPECT_EQ(m.getImpl()->getMembers().getSize(), 0);
    EXPECT_EQ(s->getVarArray().getSize(), 1);
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 3);  // y, m, s
    EXPECT_FALSE(counter.refused);
    counter.refuseAll = false;
    QelAlgorithm(rec).end();
    many.end();
    EndAllObjects(env);
    EXPECT_EQ(allocator.held(), 0);
    env.end();
  }
}

// ---- findings of the API fuzzer --------------------------------------------------

namespace {

// Keeps every block given back, filled with a pattern, until it is
// destroyed: reading an object after its destruction reads the pattern (an
// id of 0x5A5A...), not what the object held, in every build.
class QuarantineAllocator : public QelCustomAllocatorI {
 public:
  ~QuarantineAllocator() override {
    for (auto& b : _blocks) std::free(b.first);
  }
  void* alloc(size_t size) override {
    void* p = std::malloc(size == 0 ? 1 : size);
    _blocks[p] = size;
    held += static_cast<QelInt>(size);
    return p;
  }
  void free(void* p, size_t size) override {
    if (p == nullptr) return;
    std::memset(p, 0x5A, size);
    held -= static_cast<QelInt>(size);
  }
  QelInt held = 0;

 private:
  std::unordered_map<void*, size_t> _blocks;
};

}  // namespace

TEST(RemovalFindings, OneByOneBulkEndSkipsElementsEndedByEarlierOnes) {
  // The elements were read through their pointers, the next one after the
  // previous one's removal had destroyed it.
  QuarantineAllocator allocator;
  QelEnv env;
  env.getImpl()->setCustomAllocator(&allocator);
  env.getImpl()->setOneByOne(1);
  QelIntVar x(env, 0, 9, "x"), y(env, 0, 9, "y");
  QelIntExpr t = x + y;
  QelRange r(env, 0, t, 5, "r");
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(r.getImpl());
  QelExtractableArray all(env, 4, x, r, t, y);
  all.endElements();  // x ends r and t before their turn
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 0);
  // x, y, t and r, each told once.
  EXPECT_EQ(std::count(rec->notices.begin(), rec->notices.end(), "QelDestroyExtractable"), 4);
  QelAlgorithm(rec).end();
  all.end();
  EXPECT_EQ(allocator.held, 0);
  env.end();
}

TEST(RemovalFindings, OneByOneNestedRemovalsLeaveWhatAPendingHolderHolds) {
  // Ending x ended the lexicographic objective L (it holds x) in a nested
  // removal, whose pass also ended the term x + x, which L holds too, while
  // L was still to be destroyed: destroying L then read the term.
  QuarantineAllocator allocator;
  QelEnv env;
  env.getImpl()->setCustomAllocator(&allocator);
  env.getImpl()->setOneByOne(1);
  QelIntVar x(env, 0, 9, "x");
  QelIntVar spare(env, 0, 9);
  QelIntExpr twice = x + x;
  spare.end();  // L takes this slot: its id is below the term's
  QelMultiCriterionExpr criteria = QelStaticLex(env, twice, x);
  QelObjective lex = QelMinimize(env, criteria, "lex");
  criteria.end();
  ASSERT_LT(lex.getId(), twice.getId());
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(lex.getImpl());
  x.end();
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 0);
  EXPECT_EQ(std::count(rec->notices.begin(), rec->notices.end(), "QelDestroyExtractable"), 3);
  QelAlgorithm(rec).end();
  EXPECT_EQ(allocator.held, 0);
  env.end();
}

TEST_F(RemovalTest, TakingOutAnExpressionWhoseUsersEndKeepsItAlive) {
  // removeFromAll keeps its object alive; the range that used the term
  // ended in the same removal, gave its last use back, and ended the term.
  QelIntVar x(env, 0, 9, "x"), y(env, 0, 9, "y");
  QelIntExpr t = x + y;
  QelRange r(env, 0, t, 5, "r");
  QelInt id = t.getId();
  t.removeFromAll();
  EXPECT_EQ(env.getImpl()->getExtractable(id), t.getImpl());
  EXPECT_EQ(t.getImpl()->getUseCount(), 0);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 3);  // x, y and t
  t.end();
  x.end();
  y.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

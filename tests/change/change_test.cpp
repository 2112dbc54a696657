// Change notices: the base operations, the visitor, the extractable-level
// notices and the column-wise addition chains.
#include <string>
#include <vector>

#include "support/items.h"
#include "support/qeltest.h"

using namespace qeltest;

namespace {

// A column notice of the tests' own: adds nothing but records each step.
class TestAdd : public QelAddNumVar {
 public:
  TestAdd(QelExtractableI* target, std::vector<std::string>* log, int tag, bool failInApply = false)
      : _target(target), _log(log), _tag(tag), _fail(failInApply) {}
  TestAdd(const TestAdd& other)
      : QelAddNumVar(other),
        _target(other._target),
        _log(other._log),
        _tag(other._tag),
        _fail(other._fail) {}
  QelAddExtractable* getCopy(QelEnvI* env) const override {
    return QelColumnNotice<TestAdd>::Copy(*this, env);
  }
  void destroy(QelEnvI* env) override { QelColumnNotice<TestAdd>::Destroy(this, env); }
  QelExtractableI* what() const override { return _target; }
  void apply() const override {
    _log->push_back("apply " + std::to_string(_tag));
    if (_fail) throw QelWrongUsage("apply failed");
  }
  void setObj(const QelExtractableI* obj) override {
    _log->push_back("setObj " + std::to_string(_tag));
    QelAddNumVar::setObj(obj);
  }

 private:
  QelExtractableI* _target;
  std::vector<std::string>* _log;
  int _tag;
  bool _fail;
};

// Logs the notices it receives into the same log as the chain's steps.
class LoggingAlgorithmI : public QelAlgorithmI {
 public:
  LoggingAlgorithmI(QelEnvI* env, std::vector<std::string>* log) : QelAlgorithmI(env), _log(log) {}
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    _log->push_back(std::string("change ") + c.getRttiTypeName() +
                    (x != nullptr ? " about " + std::to_string(x->getId()) : ""));
  }

 private:
  std::vector<std::string>* _log;
};

struct ChangeTest : ::testing::Test {
  QelEnv env;
  QelInt baseline = 0;
  void SetUp() override { baseline = BytesInUse(env); }
  void TearDown() override { env.end(); }
};

}  // namespace

TEST_F(ChangeTest, ArrayNoticesAnswerIsApplyingOnArrayAsStated) {
  QelExtractableArray xs(env, 0);
  QelSetNameArrayChange names(xs);
  QelRemoveFromAllChange removed(xs);
  QelDestroyExtractableArray destroyed(xs);
  EXPECT_TRUE(names.isApplyingOnArray());
  EXPECT_TRUE(removed.isApplyingOnArray());
  // The destroy notice carries an array but answers false: ask it by type.
  EXPECT_FALSE(destroyed.isApplyingOnArray());
  EXPECT_EQ(destroyed.getChangedExtractableArray().getImpl(), xs.getImpl());
  EXPECT_EQ(names.getChangedExtractableArray().getImpl(), xs.getImpl());
  EXPECT_EQ(removed.getChangedExtractableArray().getImpl(), xs.getImpl());
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { destroyed.getChangedExtractable(); }),
            "QelChange::getChangedExtractable can not be called");
  xs.end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ChangeTest, SingleObjectNoticesGiveTheirObjectAndRefuseArrays) {
  ItemI* x = Item(env);
  QelSetNameChange named(x);
  QelDestroyExtractable destroyed(x);
  EXPECT_EQ(named.getChangedExtractable(), x);
  EXPECT_EQ(destroyed.getChangedExtractable(), x);
  EXPECT_FALSE(named.isApplyingOnArray());
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { named.getChangedExtractableArray(); }),
            "QelChange::getChangedExtractableArray can not be called");
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { destroyed.getChangedExtractableArray(); }),
            "QelChange::getChangedExtractableArray can not be called");
  EXPECT_STREQ(named.getRttiTypeName(), "QelSetNameChange");
  EXPECT_TRUE(named.isType(QelChange::GetTypeInfo()));
  EXPECT_FALSE(named.isType(QelDestroyExtractable::GetTypeInfo()));
  x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ChangeTest, AVisitorOverridingNothingTakesEveryNoticeWithoutEffect) {
  QelChangeVisitor quiet;
  QelModel m(env);
  ItemI* x = Item(env);
  QelExtractableArray xs(env, 1, QelExtractable(x));
  QelAddOneToModel one(m.getImpl(), x);
  QelAddToModel many(m.getImpl(), xs, false);
  QelRemoveFromModel gone(m.getImpl(), xs, false);
  QelSetNameChange named(x);
  EXPECT_NO_THROW(one.visitChange(env.getImpl(), m.getImpl(), &quiet));
  EXPECT_NO_THROW(many.visitChange(env.getImpl(), m.getImpl(), &quiet));
  EXPECT_NO_THROW(gone.visitChange(env.getImpl(), m.getImpl(), &quiet));
  EXPECT_NO_THROW(named.visitChange(env.getImpl(), x, &quiet));
  EXPECT_TRUE(m.getImpl()->getMembers().isEmpty());
  EXPECT_EQ(xs.getSize(), 1);
  xs.end();
  m.end();
  x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ChangeTest, ArrayFormsCallOncePerElementInIndexOrder) {
  RecordingVisitor v;
  ItemI* owner = Item(env);
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  QelExtractableArray empty(env, 0);
  v.addSubExtractable(owner, empty);
  v.removeSubExtractable(owner, empty);
  EXPECT_TRUE(v.calls.empty());
  QelExtractableArray xs(env, 3, QelExtractable(a), QelExtractable(b), QelExtractable(a));
  v.addSubExtractable(owner, xs);
  v.removeSubExtractable(owner, xs);
  EXPECT_EQ(v.calls, (std::vector<VisitCall>{{"add", owner, a},
                                             {"add", owner, b},
                                             {"add", owner, a},
                                             {"remove", owner, a},
                                             {"remove", owner, b},
                                             {"remove", owner, a}}));
  QelExtractableArray noArray;
  v.addSubExtractable(owner, noArray);  // an empty handle makes no call
  EXPECT_EQ(v.calls.size(), 6u);
  empty.end();
  xs.end();
  owner->end();
  a->end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ChangeTest, InstallWalksTheChainInOrderAndCutsEveryLink) {
  std::vector<std::string> log;
  ItemI* target = Item(env);
  ItemI* added = Item(env);
  auto* listener = QelNewObject<LoggingAlgorithmI>(env.getImpl(), env.getImpl(), &log);
  listener->extract(target);
  TestAdd first(target, &log, 1);
  TestAdd second(nullptr, &log, 2);  // what() null: broadcast without object
  TestAdd third(target, &log, 3);
  first.setNext(&second);
  second.setNext(&third);
  log.clear();
  first.install(added);
  std::string about = " about " + std::to_string(target->getId());
  EXPECT_EQ(log, (std::vector<std::string>{"setObj 1", "apply 1", "change QelAddNumVar" + about,
                                           "setObj 2", "apply 2", "change QelAddNumVar", "setObj 3",
                                           "apply 3", "change QelAddNumVar" + about}));
  EXPECT_EQ(first.getNext(), nullptr);
  EXPECT_EQ(second.getNext(), nullptr);
  EXPECT_EQ(third.getNext(), nullptr);
  EXPECT_EQ(first.getObj(), added);
  EXPECT_EQ(third.getChangedExtractable(), added);
  // The chain is consumed: a second install handles the head only.
  log.clear();
  first.install(added);
  EXPECT_EQ(log.size(), 3u);
  delete listener;
  target->end();
  added->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ChangeTest, InstallOfNullThrowsAndChangesNothing) {
  std::vector<std::string> log;
  TestAdd first(nullptr, &log, 1);
  TestAdd second(nullptr, &log, 2);
  first.setNext(&second);
  try {
    first.install(nullptr);
    FAIL() << "no exception";
  } catch (const QelAddExtractable::CannotAddExtractableException& e) {
    EXPECT_STREQ(e.getMessage(), "Cannot add new QelExtractable to extractor");
    EXPECT_EQ(e.getFirst(), nullptr);
    EXPECT_EQ(e.getSecond(), nullptr);
  }
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(first.getNext(), &second);
}

TEST_F(ChangeTest, AFailingApplyStopsTheWalkAndKeepsItsLink) {
  std::vector<std::string> log;
  ItemI* added = Item(env);
  TestAdd first(nullptr, &log, 1);
  TestAdd second(nullptr, &log, 2, /*failInApply=*/true);
  TestAdd third(nullptr, &log, 3);
  first.setNext(&second);
  second.setNext(&third);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { first.install(added); }), "apply failed");
  EXPECT_EQ(first.getNext(), nullptr);
  EXPECT_EQ(second.getNext(), &third);
  EXPECT_EQ(log, (std::vector<std::string>{"setObj 1", "apply 1", "setObj 2", "apply 2"}));
  added->end();
}

TEST_F(ChangeTest, CopiesLiveInEnvironmentMemoryWithoutLinkOrObject) {
  std::vector<std::string> log;
  ItemI* target = Item(env);
  ItemI* added = Item(env);
  TestAdd source(target, &log, 7);
  TestAdd next(target, &log, 8);
  source.setNext(&next);
  source.setObj(added);
  QelInt before = BytesInUse(env);
  QelAddExtractable* copy = source.getCopy(env.getImpl());
  EXPECT_GT(BytesInUse(env), before);
  EXPECT_EQ(copy->getNext(), nullptr);
  EXPECT_EQ(copy->getObj(), nullptr);
  EXPECT_EQ(copy->what(), target);
  EXPECT_EQ(copy->getEnv(), env.getImpl());
  copy->destroy(env.getImpl());
  EXPECT_EQ(BytesInUse(env), before);
  target->end();
  added->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ChangeTest, RemoveFromAllDropsTheRegistryEntries) {
  ItemI* a = Item(env);
  ItemI* b = Item(env);
  QelAlgorithm alg(env);
  alg.getImpl()->extract(a);
  alg.getImpl()->extract(b);
  QelExtractionRegistry& registry = env.getImpl()->getRegistry();
  ASSERT_TRUE(alg.getImpl()->isExtracted(a));
  QelChangeVisitor quiet;
  {
    // With an object: only its entry goes.
    QelExtractableArray xs(env, 2, QelExtractable(a), QelExtractable(b));
    QelRemoveFromAllChange c(xs);
    c.visitChange(env.getImpl(), a, &quiet);
    EXPECT_EQ(registry.getMask(a->getId()), 0u);
    EXPECT_NE(registry.getMask(b->getId()), 0u);
    alg.getImpl()->extract(a);
    // Without: one drop per element of the array.
    c.visitChange(env.getImpl(), nullptr, &quiet);
    EXPECT_EQ(registry.getMask(a->getId()), 0u);
    EXPECT_EQ(registry.getMask(b->getId()), 0u);
    xs.end();
  }
  alg.end();
  a->end();
  b->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

TEST_F(ChangeTest, SetNameSendsOneNoticePerNonNullName) {
  ItemI* x = Item(env);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(x);
  x->setName(nullptr);  // unnamed: nothing at all
  EXPECT_TRUE(rec->notices.empty());
  EXPECT_EQ(x->getExtension(), nullptr);
  x->setName("x");
  x->setName("x");
  x->setName(nullptr);  // clears a held name: a notice too
  EXPECT_EQ(rec->notices,
            (std::vector<std::string>{"QelSetNameChange", "QelSetNameChange", "QelSetNameChange"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{x, x, x}));
  EXPECT_EQ(x->getName(), nullptr);
  delete rec;
  x->end();
  EXPECT_EQ(BytesInUse(env), baseline);
}

// What every engine shares (QelEngineI), tested with a recording engine that
// needs no solver: extraction through the hooks, the image of models and
// members, the refusal messages, and how notices reach the form.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <qel/engines/linear.h>

#include "engines/support/enginetest.h"

using namespace enginetest;

namespace {

// Whether `members` holds the address `x` (only compared: `x` may be ended).
bool Holds(const std::vector<QelExtractableI*>& members, const QelExtractableI* x) {
  return std::find(members.begin(), members.end(), x) != members.end();
}

// A notice class the engines know nothing of (its slot stays empty).
class StrangeChange : public QelChange {
  QEL_CHANGE_DECL(StrangeChange, QelChange)

 public:
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override {}
};
QEL_CHANGE_DEF(StrangeChange)

// Takes ranges, all-different constraints, variables and objectives, and
// logs what reaches its form.
class RecordingEngineI : public QelEngineI {
 public:
  explicit RecordingEngineI(QelEnvI* env) : QelEngineI(env, "Recording") {}
  using QelEngineI::extractObject;
  using QelEngineI::objectiveActivated;
  using QelEngineI::objectiveDeactivated;

  void* extractObject(const QelRangeI* r) override {
    log.push_back("extract " + Name(r));
    return nullptr;
  }
  void* extractObject(const QelAllDiffI* a) override {
    log.push_back("extract " + Name(a) + " size " + std::to_string(a->getExprArray().getSize()));
    return nullptr;
  }
  void* extractObject(const QelNumVarI* v) override {
    log.push_back("extract " + Name(v));
    return nullptr;
  }
  void* objectiveActivated(const QelObjectiveI* o, void*) override {
    log.push_back("activate " + Name(o));
    return nullptr;
  }
  void* objectiveDeactivated(const QelObjectiveI* o, void*) override {
    log.push_back("deactivate " + Name(o));
    return nullptr;
  }

  static std::string Name(const QelExtractableI* x) {
    return x->getName() != nullptr ? x->getName() : "#" + std::to_string(x->getId());
  }

  std::vector<std::string> log;
  std::multiset<const QelExtractableI*> form;

 protected:
  void resetForm() override {
    log.push_back("reset");
    form.clear();
  }
  void addToForm(QelExtractableI* m) override {
    extractThroughHook(m);
    form.insert(m);
  }
  void removeFromForm(QelExtractableI* m) override {
    log.push_back("remove " + Name(m));
    form.erase(m);
  }
  void forget(const QelExtractableI* x) override { log.push_back("forget " + Name(x)); }
  void syncVariables() override {}
  QelEngineStatus runSolve() override { return QelEngineStatus::Optimal; }
};

struct CommonTest : ::testing::Test {
  void SetUp() override { engine = QelNewObject<RecordingEngineI>(env.getImpl(), env.getImpl()); }
  void TearDown() override {
    delete engine;
    env.end();
  }
  bool logged(const std::string& line) const {
    return std::find(engine->log.begin(), engine->log.end(), line) != engine->log.end();
  }
  QelEnv env;
  RecordingEngineI* engine = nullptr;
  QelIntVar x{env, 0, 9, "x"};
  QelIntVar y{env, 0, 9, "y"};
};

TEST_F(CommonTest, ExtractsModelsAndSubModelsThroughTheHooks) {
  QelModel outer(env, "outer"), inner(env, "inner");
  QelRange r1(env, 0, x + y, 5, "r1"), r2(env, 1, x, 3, "r2");
  inner.add(r2);
  outer.add(r1);
  outer.add(inner);
  engine->extract(outer.getImpl());
  EXPECT_TRUE(engine->isMember(r1.getImpl()));
  EXPECT_TRUE(engine->isMember(r2.getImpl()));
  EXPECT_FALSE(engine->isMember(inner.getImpl()));  // a model is no leaf member
  EXPECT_EQ(engine->getMembers().size(), 2u);
  EXPECT_TRUE(logged("extract r1"));
  EXPECT_TRUE(logged("extract r2"));
  EXPECT_EQ(engine->getStats().memberExtractions, 2);
  EXPECT_EQ(engine->getListenMode(), QelListenMode::Hooks);

  // A member added to the inner model reaches the form at once.
  QelRange r3(env, 0, y, 4, "r3");
  inner.add(r3);
  EXPECT_TRUE(engine->isMember(r3.getImpl()));
  EXPECT_EQ(engine->form.count(r3.getImpl()), 1u);
  // The inner model taken out of the outer one takes its members with it.
  outer.remove(inner);
  EXPECT_FALSE(engine->isMember(r2.getImpl()));
  EXPECT_FALSE(engine->isMember(r3.getImpl()));
  EXPECT_TRUE(logged("remove r2"));
  EXPECT_TRUE(logged("remove r3"));
  EXPECT_FALSE(engine->isDirty());
}

TEST_F(CommonTest, AMemberHeldTwiceStaysUntilItsLastRemoval) {
  QelModel m(env, "m");
  QelRange r(env, 0, x, 5, "r");
  m.add(r);
  m.add(r);
  engine->extract(m.getImpl());
  EXPECT_EQ(engine->form.count(r.getImpl()), 1u);
  m.remove(r);
  EXPECT_TRUE(engine->isMember(r.getImpl()));
  EXPECT_EQ(engine->form.count(r.getImpl()), 1u);
  m.remove(r);
  EXPECT_FALSE(engine->isMember(r.getImpl()));
  EXPECT_EQ(engine->form.count(r.getImpl()), 0u);
}

TEST_F(CommonTest, ARefusedObjectGivesAnErrorNamingItAndItsClass) {
  QelModel m(env, "m");
  QelDiff d(env, x, 3.0, "d");
  m.add(d);
  try {
    engine->extract(m.getImpl());
    FAIL() << "no refusal";
  } catch (const QelEngineError& e) {
    EXPECT_EQ(e.getExtractable(), d.getImpl());
    EXPECT_STREQ(e.what(),
                 "Recording engine cannot extract \"d\" (QelDiffI): objects of class QelDiffI "
                 "are not supported by this engine");
  }
  // The refused root is not kept.
  EXPECT_EQ(engine->solve(), QelEngineStatus::Optimal);
  EXPECT_TRUE(engine->getMembers().empty());
  // An unnamed object is named by its id.
  QelDiff unnamed(env, x, 4.0);
  EXPECT_THROW(engine->extract(unnamed.getImpl()), QelEngineError);
  try {
    engine->extract(unnamed.getImpl());
  } catch (const QelEngineError& e) {
    std::string expected = "#" + std::to_string(unnamed.getImpl()->getId()) + " (QelDiffI)";
    EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
  }
}

TEST_F(CommonTest, ARefusedMemberAddedLaterFailsTheNextSolveNotTheModification) {
  QelModel m(env, "m");
  m.add(QelRange(env, 0, x, 5, "r"));
  engine->extract(m.getImpl());
  QelDiff d(env, x, 3.0, "late");
  EXPECT_NO_THROW(m.add(d));
  EXPECT_TRUE(engine->isDirty());
  try {
    engine->solve();
    FAIL() << "no refusal";
  } catch (const QelEngineError& e) {
    EXPECT_EQ(e.getExtractable(), d.getImpl());
    EXPECT_NE(std::string(e.what()).find("\"late\" (QelDiffI)"), std::string::npos);
  }
  m.remove(d);
  EXPECT_EQ(engine->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(engine->getMembers().size(), 1u);
}

TEST_F(CommonTest, ANoticeWithoutHookMarksTheFormDirty) {
  QelRange r(env, 0, x, 5, "r");
  engine->extract(r.getImpl());
  StrangeChange strange;
  env.getImpl()->change(r.getImpl(), strange);
  EXPECT_TRUE(engine->isDirty());
  EXPECT_NE(engine->getDirtyReason().find("StrangeChange"), std::string::npos)
      << engine->getDirtyReason();
  engine->log.clear();
  EXPECT_EQ(engine->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(engine->getStats().rebuilds, 1);
  EXPECT_TRUE(logged("reset"));
  EXPECT_TRUE(logged("extract r"));
  EXPECT_FALSE(engine->isDirty());
}

TEST_F(CommonTest, ChangesWithoutNoticeAreFoundBeforeASolve) {
  QelIntVar z(env, 0, 9, "z");
  QelAllDiff ad(env, "ad");
  ad->addExpr(x.getImpl());
  engine->extract(ad.getImpl());
  EXPECT_TRUE(logged("extract ad size 1"));
  ad->addExpr(z.getImpl());  // the library sends no notice for this
  EXPECT_EQ(engine->solve(), QelEngineStatus::Optimal);
  EXPECT_EQ(engine->getStats().silentChanges, 1);
  EXPECT_EQ(engine->getStats().memberRefreshes, 1);
  EXPECT_TRUE(logged("remove ad"));
  EXPECT_TRUE(logged("extract ad size 2"));
}

TEST_F(CommonTest, TheModifyHookMarksTheObjectForReextraction) {
  QelRange r(env, 0, x, 5, "r");
  engine->extract(r.getImpl());
  r.getImpl()->modifyCP(QelAlgorithm(engine), nullptr);
  engine->log.clear();
  engine->solve();
  EXPECT_EQ(engine->getStats().memberRefreshes, 1);
  EXPECT_EQ(engine->log, (std::vector<std::string>{"remove r", "extract r"}));
}

TEST_F(CommonTest, AnEndedMemberLeavesTheFormAndIsForgotten) {
  QelModel m(env, "m");
  QelRange r(env, 0, x, 5, "r"), keep(env, 0, y, 5, "keep");
  m.add(r);
  m.add(keep);
  engine->extract(m.getImpl());
  const QelExtractableI* ended = r.getImpl();  // only compared once ended
  r.end();
  EXPECT_FALSE(Holds(engine->getMembers(), ended));
  EXPECT_TRUE(logged("remove r"));
  EXPECT_TRUE(logged("forget r"));
  EXPECT_TRUE(engine->isMember(keep.getImpl()));
  EXPECT_EQ(engine->getMembers().size(), 1u);
  EXPECT_FALSE(engine->isDirty());
}

TEST_F(CommonTest, RenamesAreCountedAndChangeNothing) {
  QelRange r(env, 0, x, 5, "r");
  engine->extract(r.getImpl());
  r.setName("renamed");
  EXPECT_EQ(engine->getStats().namesOnly, 1);
  EXPECT_FALSE(engine->isDirty());
}

TEST_F(CommonTest, ObjectsNamedOrEndedTogether) {
  QelModel m(env, "m");
  QelRange r1(env, 0, x, 5, "r1"), r2(env, 0, y, 5, "r2"), r3(env, 0, x + y, 5, "r3");
  m.add(r1);
  m.add(r2);
  m.add(r3);
  engine->extract(m.getImpl());
  QelExtractableArray pair(env, 2, r1, r2);
  pair.setNames("c");  // one QelSetNameArrayChange
  EXPECT_EQ(engine->getStats().namesOnly, 1);
  const QelExtractableI* first = r1.getImpl();  // only compared once ended
  const QelExtractableI* second = r2.getImpl();
  pair.endElements();  // ended together: one QelDestroyExtractableArray
  EXPECT_FALSE(Holds(engine->getMembers(), first));
  EXPECT_FALSE(Holds(engine->getMembers(), second));
  EXPECT_TRUE(engine->isMember(r3.getImpl()));
  EXPECT_TRUE(logged("remove c(0)"));
  EXPECT_TRUE(logged("forget c(1)"));
  EXPECT_FALSE(engine->isDirty());
  pair.end();
}

// A column notice of a class that has no slot of its own reaches the slot
// of QelAddExtractable.
class AddToNothing : public QelAddNumVar {
 public:
  explicit AddToNothing(QelExtractableI* target) : _target(target) {}
  QelAddExtractable* getCopy(QelEnvI*) const override { return nullptr; }
  void destroy(QelEnvI*) override {}
  QelExtractableI* what() const override { return _target; }
  void apply() const override {}

 private:
  QelExtractableI* _target;
};

TEST_F(CommonTest, AColumnNoticeOfAnUnknownKindMarksTheFormDirty) {
  QelRange r(env, 0, x, 5, "r");
  engine->extract(r.getImpl());
  QelIntVar z(env, 0, 1, "z");
  AddToNothing column(r.getImpl());
  column.install(z.getImpl());
  EXPECT_TRUE(engine->isDirty());
  EXPECT_NE(engine->getDirtyReason().find("column notice"), std::string::npos)
      << engine->getDirtyReason();
  EXPECT_TRUE(engine->isExtracted(z.getImpl()));  // its later notices reach the engine
  engine->solve();
  EXPECT_EQ(engine->getStats().rebuilds, 1);
}

TEST_F(CommonTest, ObjectivesAreActivatedAndDeactivatedThroughTheirHooks) {
  QelModel m(env, "m");
  QelObjective first(env, x + y, QelObjective::Minimize, "first");
  m.add(first);
  engine->extract(m.getImpl());
  EXPECT_TRUE(logged("activate first"));
  EXPECT_EQ(engine->getObjective(), first.getImpl());
  // One objective at a time: a second one is refused at the next solve.
  QelObjective second(env, x, QelObjective::Maximize, "second");
  m.add(second);
  try {
    engine->solve();
    FAIL() << "no refusal";
  } catch (const QelEngineError& e) {
    EXPECT_NE(std::string(e.what()).find("already has the objective \"first\""), std::string::npos)
        << e.what();
  }
  m.remove(first);
  EXPECT_TRUE(logged("deactivate first"));
  m.remove(second);
  EXPECT_EQ(engine->getObjective(), nullptr);
}

TEST_F(CommonTest, UnextractAndClearForgetWhatWasExtracted) {
  QelRange r(env, 0, x, 5, "r");
  QelModel m(env, "m");
  QelRange s(env, 0, y, 5, "s");
  m.add(s);
  engine->extract(r.getImpl());
  engine->extract(m.getImpl());
  engine->unextract(r.getImpl());
  EXPECT_FALSE(engine->isMember(r.getImpl()));
  EXPECT_FALSE(engine->isExtracted(r.getImpl()));
  EXPECT_TRUE(logged("remove r"));
  EXPECT_TRUE(engine->isMember(s.getImpl()));
  // What a model brought in is the model's to remove.
  EXPECT_THROW(engine->unextract(s.getImpl()), QelWrongUsage);
  EXPECT_TRUE(engine->isMember(s.getImpl()));
  engine->clear();
  EXPECT_TRUE(engine->getMembers().empty());
  EXPECT_EQ(engine->form.size(), 0u);
}

TEST_F(CommonTest, AlgorithmsThatAreNoEnginesGetTheLibraryFailure) {
  // The dispatching hooks are installed (an engine exists); an ordinary
  // algorithm in hook mode finds no previous hook behind them.
  QelAlgorithm plain(env);
  plain.getImpl()->useHooks();
  QelRange r(env, 0, x, 5, "r");
  EXPECT_THROW(r.getImpl()->extractToCP(plain), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(r.getImpl()->modifyCP(plain, nullptr), QelAlgorithm::RemoveFailure);
  QelSetNameChange named(r.getImpl());
  EXPECT_THROW(named.applyToCP(plain, nullptr), QelAlgorithm::CannotChangeException);
  plain.end();
}

// ---- the forms' arrays and id tables --------------------------------------

TEST(CommonPodVector, GrowsPastTheMappedSizeKeepingEveryValue) {
  QelPodVector<long> v;
  EXPECT_TRUE(v.empty());
  EXPECT_EQ(v.data(), nullptr);
  // 4 MiB of longs: from malloc'd storage to mapped storage and on.
  const size_t n = 4 * QelPodStorage::MappedBytes / sizeof(long);
  for (size_t i = 0; i < n; ++i) v.push_back(static_cast<long>(3 * i));
  ASSERT_EQ(v.size(), n);
  EXPECT_GE(v.capacity(), n);
  for (size_t i = 0; i < n; ++i) ASSERT_EQ(v[i], static_cast<long>(3 * i));
  EXPECT_EQ(v.back(), static_cast<long>(3 * (n - 1)));
  long sum = 0;
  for (long x : v) sum += x;
  EXPECT_EQ(sum, static_cast<long>(3 * (n - 1) * n / 2));
#if defined(__linux__)
  // The mapped storage is counted while it is held.
  EXPECT_GE(QelPodStorage::MappedBytesInUse(), n * sizeof(long));
  size_t held = QelPodStorage::MappedBytesInUse();
  QelPodVector<long>().swap(v);
  EXPECT_LE(QelPodStorage::MappedBytesInUse() + n * sizeof(long), held);
#endif
}

TEST(CommonPodVector, PushingOwnValueWhileGrowingCopiesItFirst) {
  QelPodVector<double> v;
  v.push_back(2.5);
  for (int i = 0; i < 20; ++i) v.push_back(v[0]);
  // A full array pushing its last element.
  while (v.size() < v.capacity()) v.push_back(1.0);
  v.push_back(v.back());
  EXPECT_EQ(v.back(), 1.0);
  EXPECT_EQ(v[20], 2.5);
  v.resize(v.capacity() + 1, v[0]);
  EXPECT_EQ(v.back(), 2.5);
}

TEST(CommonPodVector, ResizeAssignClearSwapCopyAndMove) {
  QelPodVector<int> a(5, 7);
  ASSERT_EQ(a.size(), 5U);
  EXPECT_EQ(a[4], 7);
  a.resize(8);
  EXPECT_EQ(a[7], 0);
  EXPECT_EQ(a[4], 7);
  a.resize(2);
  EXPECT_EQ(a.size(), 2U);
  a.resize(4, 9);
  EXPECT_EQ(a[2], 9);
  EXPECT_EQ(a[3], 9);
  a.assign(3, 1);
  EXPECT_EQ(a.size(), 3U);
  EXPECT_EQ(a[0] + a[1] + a[2], 3);
  a.pop_back();
  EXPECT_EQ(a.size(), 2U);
  int more[] = {4, 5, 6};
  a.append(more, more + 3);
  ASSERT_EQ(a.size(), 5U);
  EXPECT_EQ(a[4], 6);

  QelPodVector<int> b(a);
  EXPECT_EQ(b.size(), 5U);
  EXPECT_NE(b.data(), a.data());
  b[0] = 100;
  EXPECT_EQ(a[0], 1);
  QelPodVector<int> c;
  c = b;
  EXPECT_EQ(c[0], 100);
  QelPodVector<int> d(std::move(c));
  EXPECT_EQ(d.size(), 5U);
  EXPECT_EQ(d[4], 6);
  a.swap(d);
  EXPECT_EQ(a[0], 100);
  EXPECT_EQ(d[0], 1);
  size_t capacity = a.capacity();
  a.clear();
  EXPECT_TRUE(a.empty());
  EXPECT_EQ(a.capacity(), capacity);
  a.reserve(1000);
  EXPECT_GE(a.capacity(), 1000U);
  EXPECT_TRUE(a.empty());
}

TEST(CommonPodVector, AMappedArrayCopiedAndSwappedStaysWhole) {
  const size_t n = 2 * QelPodStorage::MappedBytes / sizeof(int) + 3;
  QelPodVector<int> a;
  a.resize(n, 5);
  a[n - 1] = 6;
  QelPodVector<int> b(a);
  EXPECT_EQ(b[n - 1], 6);
  EXPECT_EQ(b[0], 5);
  QelPodVector<int> small(3, 1);
  small.swap(b);  // the small one takes the mapped storage, and back
  EXPECT_EQ(small.size(), n);
  EXPECT_EQ(b.size(), 3U);
  b = small;
  EXPECT_EQ(b.size(), n);
  EXPECT_EQ(b[n - 1], 6);
}

TEST(CommonIdTable, SlotsHoldDefaultsUntilWrittenAndPagesAreMadeOnUse) {
  struct Record {
    const void* owner = nullptr;
    int first = -1;
    int end = -1;
  };
  QelIdTable<Record> t;
  EXPECT_EQ(t.find(0), nullptr);
  EXPECT_EQ(t.find(-1), nullptr);
  Record& r = t.at(5000);
  EXPECT_EQ(r.first, -1);
  r.first = 3;
  EXPECT_EQ(t.find(5000)->first, 3);
  // The page of id 5000 holds defaults for its other ids; others are absent.
  ASSERT_NE(t.find(5001), nullptr);
  EXPECT_EQ(t.find(5001)->end, -1);
  EXPECT_EQ(t.find(5001)->owner, nullptr);
  EXPECT_EQ(t.find(0), nullptr);
  EXPECT_EQ(t.find(1 << 20), nullptr);
  t.at(0).end = 4;
  EXPECT_EQ(t.find(0)->end, 4);
  EXPECT_EQ(t.find(5000)->first, 3);
  t.clear();
  EXPECT_EQ(t.find(5000), nullptr);
}

// The content hash an engine keeps of each member sees every change of a
// long linear term: a coefficient anywhere, a term more, the constant, the
// bounds of its range; and nothing else moves it.
TEST(CommonContentHash, EveryChangeOfALongLinearTermChangesTheHash) {
  QelEnv env;
  QelNumVarArray x(env, 0);
  QelNumArray c(env, 0);
  for (int i = 0; i < 200; ++i) {
    x.add(QelNumVar(env, 0, 1));
    c.add(1.0 + i % 7);
  }
  QelNumExpr e = QelScalProd(x, c);
  QelRange r(env, 0, e, 100);
  auto* term = static_cast<QelNumLinTermI*>(r.getExpr().getImpl());
  const std::uint64_t original = QelContentHash(r.getImpl());
  EXPECT_EQ(QelContentHash(r.getImpl()), original);  // nothing changed
  std::set<std::uint64_t> seen{original};
  for (int i : {0, 1, 63, 64, 65, 128, 199}) {
    double before = term->setCoef(x[i], c[i] + 0.5);
    std::uint64_t changed = QelContentHash(r.getImpl());
    EXPECT_NE(changed, original) << "coefficient " << i;
    EXPECT_TRUE(seen.insert(changed).second) << "coefficient " << i;
    term->setCoef(x[i], before);
    EXPECT_EQ(QelContentHash(r.getImpl()), original) << "coefficient " << i;
  }
  QelNumVar extra(env, 0, 1);
  term->addTerm(0.0, extra.getImpl());
  EXPECT_NE(QelContentHash(r.getImpl()), original);
  term->normalize();  // the zero term leaves
  EXPECT_EQ(QelContentHash(r.getImpl()), original);
  term->setConstant(1);
  EXPECT_NE(QelContentHash(r.getImpl()), original);
  term->setConstant(0);
  r.setUB(99);
  EXPECT_NE(QelContentHash(r.getImpl()), original);
  r.setUB(100);
  EXPECT_EQ(QelContentHash(r.getImpl()), original);
  env.end();
}

// Expressions an engine may read in place: linear terms of either class
// holding linear terms only.
TEST(CommonLinearParts, OnlyLinearTermsOfPlainTermsAreReadInPlace) {
  QelEnv env;
  QelNumVar x(env, 0, 1), y(env, 0, 1), z(env, 0, 1);
  QelIntVar i(env, 0, 5);
  QelNumExpr lin = 2 * x + y + 1;
  QelIntExpr ints = 3 * i + 2;
  QelNumExpr quad = x * y + x;
  QelNumExprArray parts(env, 0);
  parts.add(x);
  parts.add((x * y) * z);  // a product kept as an aggregate term
  QelNumExpr agg = QelSum(parts);
  const QelLinearParts* p = QelPlainLinearParts(lin.getImpl());
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p, &static_cast<QelNumLinTermI*>(lin.getImpl())->getParts());
  EXPECT_EQ(p->constant, 1.0);
  EXPECT_EQ(QelPlainLinearParts(ints.getImpl()),
            &static_cast<QelIntLinTermI*>(ints.getImpl())->getParts());
  ASSERT_NE(static_cast<QelNumLinTermI*>(agg.getImpl())->getParts().aggHead, nullptr);
  EXPECT_EQ(QelPlainLinearParts(quad.getImpl()), nullptr);
  EXPECT_EQ(QelPlainLinearParts(agg.getImpl()), nullptr);
  EXPECT_EQ(QelPlainLinearParts(x.getImpl()), nullptr);
  EXPECT_EQ(QelPlainLinearParts(nullptr), nullptr);
  parts.end();
  env.end();
}

TEST(CommonStatus, StatusNames) {
  EXPECT_STREQ(QelEngineStatusName(QelEngineStatus::Optimal), "Optimal");
  EXPECT_STREQ(QelEngineStatusName(QelEngineStatus::Infeasible), "Infeasible");
  EXPECT_STREQ(QelEngineStatusName(QelEngineStatus::Unbounded), "Unbounded");
  EXPECT_STREQ(QelEngineStatusName(QelEngineStatus::Feasible), "Feasible");
  EXPECT_STREQ(QelEngineStatusName(QelEngineStatus::Unknown), "Unknown");
}

}  // namespace

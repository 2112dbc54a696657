// Run-time type identity: type infos, lazily assigned type indices, isType
// along the base chain, type names, and index assignment under a lock.
#include "support/qeltest.h"

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <qel/constraints/sos.h>
#include <qel/objective/objective.h>

namespace {

// Each test that needs a class whose index was never asked for has classes
// of its own below, used nowhere else.

#define RTTI_TEST_NOTICE(N)                                                           \
  class N : public QelChange {                                                        \
    QEL_CHANGE_DECL(N, QelChange)                                                     \
                                                                                      \
   public:                                                                            \
    void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override {} \
  };

RTTI_TEST_NOTICE(OrderA)
RTTI_TEST_NOTICE(OrderB)
RTTI_TEST_NOTICE(OrderC)
RTTI_TEST_NOTICE(LateNotice)
RTTI_TEST_NOTICE(UnlockedNotice)
RTTI_TEST_NOTICE(FastPathNotice)
RTTI_TEST_NOTICE(RaceA)
RTTI_TEST_NOTICE(RaceB)
RTTI_TEST_NOTICE(RaceC)

QEL_CHANGE_DEF(OrderA)
QEL_CHANGE_DEF(OrderB)
QEL_CHANGE_DEF(OrderC)
QEL_CHANGE_DEF(LateNotice)
QEL_CHANGE_DEF(UnlockedNotice)
QEL_CHANGE_DEF(FastPathNotice)
QEL_CHANGE_DEF(RaceA)
QEL_CHANGE_DEF(RaceB)
QEL_CHANGE_DEF(RaceC)

// A small hierarchy of extractables: LateLeafI (never asked for its index
// before the test that checks it), TierOneI <- TierTwoI, and a constraint.
class LateLeafI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(LateLeafI, QelExtractableI)

 public:
  explicit LateLeafI(QelEnvI* env) : QelExtractableI(env) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(LateLeafI)

class TierOneI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(TierOneI, QelExtractableI)

 public:
  explicit TierOneI(QelEnvI* env) : QelExtractableI(env) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(TierOneI)

class TierTwoI : public TierOneI {
  QEL_EXTRACTABLE_DECL(TierTwoI, TierOneI)

 public:
  explicit TierTwoI(QelEnvI* env) : TierOneI(env) {}
};
QEL_EXTRACTABLE_DEF(TierTwoI)

// Used only by the test of the virtual forms.
class FormBaseI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(FormBaseI, QelExtractableI)

 public:
  explicit FormBaseI(QelEnvI* env) : QelExtractableI(env) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(FormBaseI)

class FormDerivedI : public FormBaseI {
  QEL_EXTRACTABLE_DECL(FormDerivedI, FormBaseI)

 public:
  explicit FormDerivedI(QelEnvI* env) : FormBaseI(env) {}
};
QEL_EXTRACTABLE_DEF(FormDerivedI)

class TestConstraintI : public QelConstraintI {
  QEL_EXTRACTABLE_DECL(TestConstraintI, QelConstraintI)

 public:
  explicit TestConstraintI(QelEnvI* env) : QelConstraintI(env) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(TestConstraintI)

// A lock over std::mutex that counts its use.
class CountingMutex : public QelMutexI {
 public:
  void lock() override {
    _m.lock();
    ++locks;
  }
  void unlock() override {
    ++unlocks;
    _m.unlock();
  }
  std::atomic<int> locks{0};
  std::atomic<int> unlocks{0};

 private:
  std::mutex _m;
};

// Installs a lock in QelEnvI::Mutex for the life of the guard.
class MutexGuard {
 public:
  explicit MutexGuard(QelMutexI* m) { QelEnvI::Mutex = m; }
  ~MutexGuard() { QelEnvI::Mutex = nullptr; }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;
};

// Walks the declared base chain of C (through RttiBase) and tells whether
// it reaches Target.
template <class C, class Target, class = void>
struct ChainReaches : std::is_same<C, Target> {};
template <class C, class Target>
struct ChainReaches<C, Target, std::void_t<typename C::RttiBase>>
    : std::integral_constant<bool, std::is_same<C, Target>::value ||
                                       ChainReaches<typename C::RttiBase, Target>::value> {};

// Stands for any constructor argument: a null pointer, zero, an empty
// handle. Never converts to a notice (so copy constructors are not picked).
struct Zero {
  template <class T, class = std::enable_if_t<!std::is_base_of<QelChange, std::decay_t<T>>::value>>
  operator T() const {
    return T();
  }
};

// Builds an N from zero arguments of the first arity its constructors
// accept and asks it isType(info). Returns -1 when no N can be built this
// way (abstract classes).
template <class N>
int InstanceIsType(QelTypeInfo info) {
  Zero z;
  if constexpr (std::is_abstract<N>::value) {
    (void)z;
    (void)info;
    return -1;
  } else if constexpr (std::is_constructible<N>::value) {
    N n;
    return n.isType(info) ? 1 : 0;
  } else if constexpr (std::is_constructible<N, Zero>::value) {
    N n(z);
    return n.isType(info) ? 1 : 0;
  } else if constexpr (std::is_constructible<N, Zero, Zero>::value) {
    N n(z, z);
    return n.isType(info) ? 1 : 0;
  } else if constexpr (std::is_constructible<N, Zero, Zero, Zero>::value) {
    N n(z, z, z);
    return n.isType(info) ? 1 : 0;
  } else if constexpr (std::is_constructible<N, Zero, Zero, Zero, Zero>::value) {
    N n(z, z, z, z);
    return n.isType(info) ? 1 : 0;
  } else if constexpr (std::is_constructible<N, Zero, Zero, Zero, Zero, Zero>::value) {
    N n(z, z, z, z, z);
    return n.isType(info) ? 1 : 0;
  } else {
    (void)z;
    (void)info;
    return -1;
  }
}

// ---- type indices ---------------------------------------------------------

TEST(RttiIndex, VirtualIndexIsZeroUntilTheStaticOneIsAsked) {
  QelEnv env;
  LateLeafI* x = QelNewObject<LateLeafI>(env.getImpl(), env.getImpl());
  LateNotice n;
  EXPECT_EQ(x->getTypeIndex(), 0);
  EXPECT_EQ(n.getTypeIndex(), 0);
  EXPECT_EQ(LateLeafI::_rttiIndex.load(), 0);

  QelInt index = LateLeafI::GetTypeIndex();
  EXPECT_NE(index, 0);
  EXPECT_EQ(x->getTypeIndex(), index);
  EXPECT_EQ(LateLeafI::GetTypeIndex(), index);
  // The notice class is still unassigned.
  EXPECT_EQ(n.getTypeIndex(), 0);
  QelInt noticeIndex = LateNotice::GetTypeIndex();
  EXPECT_EQ(n.getTypeIndex(), noticeIndex);
  EXPECT_NE(noticeIndex, index);
  x->end();
  env.end();
}

TEST(RttiIndex, ThreeFreshClassesGetConsecutiveIndicesInAskingOrder) {
  QelInt last = QelRtti::_counter;
  QelInt b = OrderB::GetTypeIndex();
  QelInt c = OrderC::GetTypeIndex();
  QelInt a = OrderA::GetTypeIndex();
  EXPECT_EQ(b, last + 1);
  EXPECT_EQ(c, last + 2);
  EXPECT_EQ(a, last + 3);
  EXPECT_EQ(QelRtti::_counter, last + 3);
  // Asked again: the same indices, no counter value spent.
  EXPECT_EQ(OrderA::GetTypeIndex(), a);
  EXPECT_EQ(OrderB::GetTypeIndex(), b);
  EXPECT_EQ(OrderC::GetTypeIndex(), c);
  EXPECT_EQ(QelRtti::_counter, last + 3);
}

TEST(RttiIndex, AssignmentWorksWithoutALock) {
  ASSERT_EQ(QelEnvI::Mutex, nullptr);
  QelInt last = QelRtti::_counter;
  EXPECT_EQ(UnlockedNotice::GetTypeIndex(), last + 1);
  EXPECT_EQ(UnlockedNotice::_rttiIndex.load(), last + 1);
}

TEST(RttiIndex, AssignedIndexTakesNoLock) {
  QelInt index = FastPathNotice::GetTypeIndex();
  CountingMutex mutex;
  {
    MutexGuard guard(&mutex);
    EXPECT_EQ(FastPathNotice::GetTypeIndex(), index);
    // The virtual form never locks either.
    FastPathNotice n;
    EXPECT_EQ(n.getTypeIndex(), index);
  }
  EXPECT_EQ(mutex.locks.load(), 0);
  EXPECT_EQ(mutex.unlocks.load(), 0);
}

TEST(RttiIndex, BaseIndexIsAssignedThroughTheDerivedClass) {
  QelEnv env;
  TierTwoI* x = QelNewObject<TierTwoI>(env.getImpl(), env.getImpl());
  ASSERT_EQ(TierOneI::_rttiIndex.load(), 0);
  QelInt last = QelRtti::_counter;
  QelInt base = x->getBaseTypeIndex();
  EXPECT_EQ(base, last + 1);
  EXPECT_EQ(TierOneI::GetTypeIndex(), base);
  // The derived class itself is still unassigned.
  EXPECT_EQ(x->getTypeIndex(), 0);
  EXPECT_EQ(TierTwoI::GetTypeIndex(), last + 2);
  EXPECT_EQ(x->getTypeIndex(), last + 2);
  // A root has no base: index 0.
  EXPECT_EQ(x->QelRttiEnvObjectI::getBaseTypeIndex(), 0);
  x->end();
  env.end();
}

TEST(RttiIndex, IndicesOfLibraryClassesAreDistinctAndStable) {
  std::set<QelInt> seen;
  const QelInt indices[] = {QelExtractableI::GetTypeIndex(), QelModelI::GetTypeIndex(),
                            QelConstraintI::GetTypeIndex(),  QelObjectiveI::GetTypeIndex(),
                            QelSOS1I::GetTypeIndex(),        QelSOS2I::GetTypeIndex(),
                            QelChange::GetTypeIndex(),       QelSetNameChange::GetTypeIndex(),
                            QelRtti::GetTypeIndex(),         QelRttiEnvObjectI::GetTypeIndex()};
  for (QelInt i : indices) {
    EXPECT_GT(i, 0);
    EXPECT_LE(i, QelRtti::_counter);
    seen.insert(i);
  }
  EXPECT_EQ(seen.size(), sizeof indices / sizeof indices[0]);
  EXPECT_EQ(QelModelI::GetTypeIndex(), indices[1]);
}

// ---- index assignment under a lock ---------------------------------------

TEST(RttiIndex, ConcurrentFirstRequestsShareOneIndexPerClass) {
  ASSERT_EQ(RaceA::_rttiIndex.load(), 0);
  ASSERT_EQ(RaceB::_rttiIndex.load(), 0);
  ASSERT_EQ(RaceC::_rttiIndex.load(), 0);
  constexpr int threads = 8;
  CountingMutex mutex;
  QelInt last = QelRtti::_counter;
  std::vector<std::vector<QelInt>> seen(threads);
  {
    MutexGuard guard(&mutex);
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
      pool.emplace_back([&, t] {
        ++ready;
        while (!go.load()) std::this_thread::yield();
        // Each thread asks in an order of its own.
        QelInt a = 0, b = 0, c = 0;
        switch (t % 3) {
          case 0:
            a = RaceA::GetTypeIndex();
            b = RaceB::GetTypeIndex();
            c = RaceC::GetTypeIndex();
            break;
          case 1:
            b = RaceB::GetTypeIndex();
            c = RaceC::GetTypeIndex();
            a = RaceA::GetTypeIndex();
            break;
          default:
            c = RaceC::GetTypeIndex();
            a = RaceA::GetTypeIndex();
            b = RaceB::GetTypeIndex();
            break;
        }
        seen[static_cast<size_t>(t)] = {a, b, c};
      });
    }
    while (ready.load() < threads) std::this_thread::yield();
    go = true;
    for (std::thread& th : pool) th.join();
  }
  EXPECT_EQ(QelEnvI::Mutex, nullptr);

  for (int t = 1; t < threads; ++t)
    EXPECT_EQ(seen[static_cast<size_t>(t)], seen[0]) << "thread " << t;
  std::set<QelInt> distinct(seen[0].begin(), seen[0].end());
  EXPECT_EQ(distinct.size(), 3U);
  // Three classes, three consecutive counter values, none skipped.
  EXPECT_EQ(*distinct.begin(), last + 1);
  EXPECT_EQ(*distinct.rbegin(), last + 3);
  EXPECT_EQ(QelRtti::_counter, last + 3);
  EXPECT_EQ(RaceA::GetTypeIndex(), seen[0][0]);
  EXPECT_EQ(RaceB::GetTypeIndex(), seen[0][1]);
  EXPECT_EQ(RaceC::GetTypeIndex(), seen[0][2]);
  // Every assignment went through the lock, and every lock was released.
  EXPECT_GE(mutex.locks.load(), 3);
  EXPECT_LE(mutex.locks.load(), threads * 3);
  EXPECT_EQ(mutex.unlocks.load(), mutex.locks.load());
}

// ---- type infos -----------------------------------------------------------

TEST(RttiInfo, TypeInfoIsTheAddressOfTheClassBaseInfoFunction) {
  EXPECT_EQ(QelModelI::GetTypeInfo(), reinterpret_cast<QelTypeInfo>(&QelModelI::GetBaseTypeInfo));
  EXPECT_EQ(QelExtractableI::GetTypeInfo(),
            reinterpret_cast<QelTypeInfo>(&QelExtractableI::GetBaseTypeInfo));
  EXPECT_EQ(QelChange::GetTypeInfo(), reinterpret_cast<QelTypeInfo>(&QelChange::GetBaseTypeInfo));
  // GetBaseTypeInfo answers the base's info; the roots answer null.
  EXPECT_EQ(QelModelI::GetBaseTypeInfo(), QelExtractableI::GetTypeInfo());
  EXPECT_EQ(QelExtractableI::GetBaseTypeInfo(), QelRttiEnvObjectI::GetTypeInfo());
  EXPECT_EQ(QelChange::GetBaseTypeInfo(), QelRtti::GetTypeInfo());
  EXPECT_EQ(QelSOS1I::GetBaseTypeInfo(), QelConstraintI::GetTypeInfo());
  EXPECT_EQ(QelRtti::GetBaseTypeInfo(), nullptr);
  EXPECT_EQ(QelRttiEnvObjectI::GetBaseTypeInfo(), nullptr);
}

TEST(RttiInfo, EveryClassHasItsOwnTypeInfo) {
  const QelTypeInfo infos[] = {QelRtti::GetTypeInfo(),
                               QelRttiEnvObjectI::GetTypeInfo(),
                               QelExtractableI::GetTypeInfo(),
                               QelModelI::GetTypeInfo(),
                               QelObjectiveI::GetTypeInfo(),
                               QelConstraintI::GetTypeInfo(),
                               QelSOS1I::GetTypeInfo(),
                               QelSOS2I::GetTypeInfo(),
                               QelChange::GetTypeInfo(),
                               QelSetNameChange::GetTypeInfo(),
                               QelAddExtractable::GetTypeInfo(),
                               QelAddNumVar::GetTypeInfo(),
                               TierOneI::GetTypeInfo(),
                               TierTwoI::GetTypeInfo(),
                               OrderA::GetTypeInfo(),
                               OrderB::GetTypeInfo()};
  std::set<QelTypeInfo> distinct(std::begin(infos), std::end(infos));
  EXPECT_EQ(distinct.size(), sizeof infos / sizeof infos[0]);
  for (QelTypeInfo info : infos) EXPECT_NE(info, nullptr);
}

TEST(RttiInfo, VirtualFormsAnswerTheObjectsClass) {
  QelEnv env;
  QelModel m(env);
  QelExtractableI* x = m.getImpl();
  EXPECT_EQ(x->getTypeInfo(), QelModelI::GetTypeInfo());
  EXPECT_EQ(x->getBaseTypeInfo(), QelExtractableI::GetTypeInfo());
  EXPECT_EQ(x->getBaseTypeIndex(), QelExtractableI::GetTypeIndex());
  // The static form assigns the index; the virtual form only reads it, so
  // the static one is asked first (argument order is unspecified).
  QelInt modelIndex = QelModelI::GetTypeIndex();
  EXPECT_EQ(x->getTypeIndex(), modelIndex);

  FormDerivedI* t = QelNewObject<FormDerivedI>(env.getImpl(), env.getImpl());
  EXPECT_EQ(t->getTypeInfo(), FormDerivedI::GetTypeInfo());
  EXPECT_EQ(t->getBaseTypeInfo(), FormBaseI::GetTypeInfo());
  EXPECT_EQ(t->getBaseTypeIndex(), FormBaseI::GetTypeIndex());
  // Seen through the base class, the answers stay the object's.
  FormBaseI* asBase = t;
  EXPECT_EQ(asBase->getTypeInfo(), FormDerivedI::GetTypeInfo());
  EXPECT_EQ(asBase->getBaseTypeInfo(), FormBaseI::GetTypeInfo());
  EXPECT_STREQ(asBase->getRttiTypeName(), "FormDerivedI");

  QelSetNameChange n(x);
  EXPECT_EQ(n.getTypeInfo(), QelSetNameChange::GetTypeInfo());
  EXPECT_EQ(n.getBaseTypeInfo(), QelChange::GetTypeInfo());
  EXPECT_EQ(n.getBaseTypeIndex(), QelChange::GetTypeIndex());
  t->end();
  m.end();
  env.end();
}

// ---- isType -----------------------------------------------------------------

TEST(RttiIsType, ClimbsTheBaseChain) {
  QelEnv env;
  QelModel m(env);
  QelSOS1 sos(env);
  QelObjective obj(env, 1.0);
  TestConstraintI* c = QelNewObject<TestConstraintI>(env.getImpl(), env.getImpl());
  TierTwoI* two = QelNewObject<TierTwoI>(env.getImpl(), env.getImpl());

  EXPECT_TRUE(m.getImpl()->isType(QelExtractableI::GetTypeInfo()));
  EXPECT_TRUE(m.getImpl()->isType(QelModelI::GetTypeInfo()));
  EXPECT_TRUE(m.getImpl()->isType(QelRttiEnvObjectI::GetTypeInfo()));
  EXPECT_TRUE(sos.getImpl()->isType(QelExtractableI::GetTypeInfo()));
  EXPECT_TRUE(sos.getImpl()->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_TRUE(sos.getImpl()->isType(QelSOS1I::GetTypeInfo()));
  EXPECT_FALSE(sos.getImpl()->isType(QelSOS2I::GetTypeInfo()));
  EXPECT_FALSE(obj.getImpl()->isType(QelModelI::GetTypeInfo()));
  EXPECT_FALSE(obj.getImpl()->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_TRUE(obj.getImpl()->isType(QelObjectiveI::GetTypeInfo()));
  EXPECT_FALSE(m.getImpl()->isType(QelObjectiveI::GetTypeInfo()));

  EXPECT_TRUE(c->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_TRUE(c->isType(QelExtractableI::GetTypeInfo()));
  EXPECT_FALSE(c->isType(QelModelI::GetTypeInfo()));
  EXPECT_TRUE(two->isType(TierOneI::GetTypeInfo()));
  EXPECT_TRUE(two->isType(TierTwoI::GetTypeInfo()));
  EXPECT_TRUE(two->isType(QelExtractableI::GetTypeInfo()));
  EXPECT_FALSE(two->isType(QelConstraintI::GetTypeInfo()));

  // Infos of the other root, of notices, and null are never matched.
  EXPECT_FALSE(m.getImpl()->isType(QelRtti::GetTypeInfo()));
  EXPECT_FALSE(m.getImpl()->isType(QelChange::GetTypeInfo()));
  EXPECT_FALSE(m.getImpl()->isType(nullptr));

  // QelDynamicCast follows isType.
  EXPECT_EQ(QelDynamicCast<QelConstraintI>(static_cast<QelExtractableI*>(sos.getImpl())),
            sos.getImpl());
  EXPECT_EQ(QelDynamicCast<QelModelI>(static_cast<QelExtractableI*>(sos.getImpl())), nullptr);
  EXPECT_EQ(QelDynamicCast<QelModelI>(static_cast<QelExtractableI*>(nullptr)), nullptr);
  two->end();
  c->end();
  obj.end();
  sos.end();
  m.end();
  env.end();
}

TEST(RttiIsType, NoticeClassesAreChanges) {
  QelEnv env;
  QelModel m(env);
  QelSetNameChange name(m.getImpl());
  QelAddOneToModel one(m.getImpl(), m.getImpl());
  QelAddToModel many(m.getImpl(), QelExtractableArray(), false);
  EXPECT_TRUE(name.isType(QelChange::GetTypeInfo()));
  EXPECT_TRUE(name.isType(QelRtti::GetTypeInfo()));
  EXPECT_TRUE(name.isType(QelSetNameChange::GetTypeInfo()));
  EXPECT_FALSE(name.isType(QelAddOneToModel::GetTypeInfo()));
  EXPECT_FALSE(name.isType(QelExtractableI::GetTypeInfo()));
  EXPECT_TRUE(one.isType(QelChange::GetTypeInfo()));
  EXPECT_TRUE(many.isType(QelChange::GetTypeInfo()));
  EXPECT_TRUE(many.isType(QelAddToModel::GetTypeInfo()));
  EXPECT_FALSE(many.isType(QelRemoveFromModel::GetTypeInfo()));
  m.end();
  env.end();
}

TEST(RttiIsType, EveryListedNoticeClassIsAChange) {
  int byInstance = 0;
  int total = 0;
  std::set<QelTypeInfo> infos;
#define QEL_NOTICE(N, B)                                                     \
  {                                                                          \
    ++total;                                                                 \
    infos.insert(N::GetTypeInfo());                                          \
    EXPECT_STREQ(N::GetRttiTypeName(), #N);                                  \
    EXPECT_EQ(N::GetBaseTypeInfo(), B::GetTypeInfo()) << #N;                 \
    EXPECT_TRUE((ChainReaches<N, QelChange>::value)) << #N;                  \
    int answer = InstanceIsType<N>(QelChange::GetTypeInfo());                \
    if (answer >= 0) {                                                       \
      ++byInstance;                                                          \
      EXPECT_EQ(answer, 1) << #N;                                            \
      EXPECT_EQ(InstanceIsType<N>(N::GetTypeInfo()), 1) << #N;               \
      EXPECT_EQ(InstanceIsType<N>(B::GetTypeInfo()), 1) << #N;               \
      EXPECT_EQ(InstanceIsType<N>(QelExtractableI::GetTypeInfo()), 0) << #N; \
    }                                                                        \
  }
#include <qel/change/notices.def>
#undef QEL_NOTICE
  EXPECT_GE(total, 9);
  EXPECT_EQ(infos.size(), static_cast<size_t>(total));
  // Only the abstract base of the column notices has no instance of its own.
  EXPECT_EQ(byInstance, total - 1);
}

// ---- type names -------------------------------------------------------------

TEST(RttiName, TypeNamesAreTheClassNames) {
  EXPECT_STREQ(QelExtractableI::GetRttiTypeName(), "QelExtractableI");
  EXPECT_STREQ(QelModelI::GetRttiTypeName(), "QelModelI");
  EXPECT_STREQ(QelObjectiveI::GetRttiTypeName(), "QelObjectiveI");
  EXPECT_STREQ(QelConstraintI::GetRttiTypeName(), "QelConstraintI");
  EXPECT_STREQ(QelSOS1I::GetRttiTypeName(), "QelSOS1I");
  EXPECT_STREQ(QelChange::GetRttiTypeName(), "QelChange");
  EXPECT_STREQ(QelRtti::GetRttiTypeName(), "QelRtti");
  EXPECT_STREQ(QelRttiEnvObjectI::GetRttiTypeName(), "QelRttiEnvObjectI");
  EXPECT_STREQ(QelAddNumVar::GetRttiTypeName(), "QelAddNumVar");

  QelEnv env;
  QelModel m(env);
  EXPECT_STREQ(m.getImpl()->getRttiTypeName(), "QelModelI");
  const QelExtractableI* base = m.getImpl();
  EXPECT_STREQ(base->getRttiTypeName(), "QelModelI");
  QelSetNameChange n(m.getImpl());
  const QelChange& asChange = n;
  EXPECT_STREQ(asChange.getRttiTypeName(), "QelSetNameChange");
  LateLeafI* leaf = QelNewObject<LateLeafI>(env.getImpl(), env.getImpl());
  EXPECT_STREQ(leaf->getRttiTypeName(), "LateLeafI");
  leaf->end();
  m.end();
  env.end();
}

}  // namespace

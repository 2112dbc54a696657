// Special ordered sets of both types: weights, column-wise addition,
// removal with its notices, removal of sub-objects in both modes, cloning,
// visiting, printing, engine hooks and memory.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "support/qeltest.h"
#include "support/refusing.h"

using namespace qeltest;

namespace {

// What the tests need to know about each type.
struct Type1 {
  using SetI = QelSOS1I;
  using Set = QelSOS1;
  using Remove = QelSOS1RemoveVar;
  using Add = QelAddVarToSOS1;
  static constexpr const char* Word = "QelSOS1I";
  static constexpr const char* RemoveName = "QelSOS1RemoveVar";
  static constexpr const char* AddName = "QelAddVarToSOS1";
};

struct Type2 {
  using SetI = QelSOS2I;
  using Set = QelSOS2;
  using Remove = QelSOS2RemoveVar;
  using Add = QelAddVarToSOS2;
  static constexpr const char* Word = "QelSOS2I";
  static constexpr const char* RemoveName = "QelSOS2RemoveVar";
  static constexpr const char* AddName = "QelAddVarToSOS2";
};

std::vector<QelExtractableI*> Vars(const QelNumVarArray& a) {
  std::vector<QelExtractableI*> out;
  for (long i = 0; i < a.getSize(); ++i) out.push_back(a.getElement(i));
  return out;
}

std::vector<double> Vals(const QelNumArray& a) {
  std::vector<double> out;
  for (long i = 0; i < a.getSize(); ++i) out.push_back(a[i]);
  return out;
}

long Count(const std::vector<std::string>& names, const std::string& name) {
  long n = 0;
  for (const std::string& s : names)
    if (s == name) ++n;
  return n;
}

// Records what a set presents to a visitor.
struct VisitLog : QelExtractableVisitor {
  using QelExtractableVisitor::visitChildren;
  void beginVisit(QelExtractableI* x) override {
    events.push_back("begin");
    objects.push_back(x);
  }
  void visitChildren(QelExtractableI* parent, QelExtractableI*) override {
    events.push_back("child");
    objects.push_back(parent);
  }
  void visitChildren(QelExtractableI* parent, QelExtractableArray children) override {
    events.push_back("array");
    objects.push_back(parent);
    arrays.push_back(children.getImpl());
  }
  void endVisit(QelExtractableI* x) override {
    events.push_back("end");
    objects.push_back(x);
  }
  std::vector<std::string> events;
  std::vector<QelExtractableI*> objects;
  std::vector<QelArrayI*> arrays;
};

// What the engine hooks of class T received.
template <class T>
struct Probe {
  static inline QelAlgorithmI* alg = nullptr;
  static inline const T* object = nullptr;
  static inline void* data = nullptr;
  static inline int calls = 0;
  static void Reset() {
    alg = nullptr;
    object = nullptr;
    data = nullptr;
    calls = 0;
  }
  static void* Extract(QelAlgorithm a, const T* x) {
    ++calls;
    alg = a.getImpl();
    object = x;
    return reinterpret_cast<void*>(std::uintptr_t{0x1111});
  }
  static void* Modify(QelAlgorithm a, const T* x, void* d) {
    ++calls;
    alg = a.getImpl();
    object = x;
    data = d;
    return reinterpret_cast<void*>(std::uintptr_t{0x2222});
  }
  static void* Unextract(QelAlgorithm a, const T* x, void* d) {
    ++calls;
    alg = a.getImpl();
    object = x;
    data = d;
    return reinterpret_cast<void*>(std::uintptr_t{0x3333});
  }
  static QelInt Apply(QelAlgorithm a, const T* x, void* d) {
    ++calls;
    alg = a.getImpl();
    object = x;
    data = d;
    return 4444;
  }
};

// An allocator that fails the n-th allocation after being armed, and
// remembers every block it has given so that it can report what is live.
class FailingAllocator : public QelCustomAllocatorI {
 public:
  ~FailingAllocator() override {
    for (auto& b : _blocks) std::free(b.first);
  }
  void* alloc(size_t size) override {
    if (_armed && ++_count == _failAt) throw QelMemoryException();
    void* p = std::malloc(size == 0 ? 1 : size);
    _blocks[p] = size;
    _live += static_cast<QelInt>(size);
    return p;
  }
  void free(void* p, size_t size) override {
    if (p == nullptr) return;
    _blocks.erase(p);
    _live -= static_cast<QelInt>(size);
    std::free(p);
  }
  void arm(long failAt) {
    _armed = true;
    _failAt = failAt;
    _count = 0;
  }
  void disarm() { _armed = false; }
  QelInt live() const { return _live; }

 private:
  std::map<void*, size_t> _blocks;
  QelInt _live = 0;
  bool _armed = false;
  long _failAt = 0;
  long _count = 0;
};

template <class T>
struct SOSTest : ::testing::Test {
  using SetI = typename T::SetI;
  using Set = typename T::Set;
  using Remove = typename T::Remove;
  using Add = typename T::Add;

  QelEnv env;
  void TearDown() override {
    env.getImpl()->setOneByOne(0);
    env.end();
  }
  SetI* NewSet(const char* name = nullptr) { return Set(env, name).getImpl(); }
  // A set over `vars` with `weights`, both adopted.
  SetI* NewSet(std::vector<QelNumVar> vars, std::vector<double> weights,
               const char* name = nullptr) {
    QelNumVarArray va(QelExtractableArray(env, 0));
    for (const QelNumVar& v : vars) va.add(v);
    QelNumArray wa(env, 0);
    for (double w : weights) wa.add(w);
    return QelNewObject<SetI>(env.getImpl(), env.getImpl(), va, wa, name);
  }
  Add* NewAdd(SetI* set, double weight) { return QelNewObject<Add>(env.getImpl(), set, weight); }
};

// Names the typed cases after the set class: SOSTest/QelSOS1I.Case.
struct TypeNames {
  template <class T>
  static std::string GetName(int) {
    return T::Word;
  }
};

using Types = ::testing::Types<Type1, Type2>;
TYPED_TEST_SUITE(SOSTest, Types, TypeNames);

}  // namespace

// ---- identity and construction --------------------------------------------------

TYPED_TEST(SOSTest, TypeIdentityNamesTheClassesAndTheirBases) {
  using SetI = typename TestFixture::SetI;
  using Remove = typename TestFixture::Remove;
  using Add = typename TestFixture::Add;
  EXPECT_STREQ(SetI::GetRttiTypeName(), TypeParam::Word);
  EXPECT_EQ(SetI::GetBaseTypeInfo(), QelConstraintI::GetTypeInfo());
  EXPECT_STREQ(Remove::GetRttiTypeName(), TypeParam::RemoveName);
  EXPECT_EQ(Remove::GetBaseTypeInfo(), QelChange::GetTypeInfo());
  EXPECT_STREQ(Add::GetRttiTypeName(), TypeParam::AddName);
  EXPECT_EQ(Add::GetBaseTypeInfo(), QelAddNumVar::GetTypeInfo());

  SetI* s = this->NewSet();
  EXPECT_STREQ(s->getRttiTypeName(), TypeParam::Word);
  EXPECT_TRUE(s->isType(SetI::GetTypeInfo()));
  EXPECT_TRUE(s->isType(QelConstraintI::GetTypeInfo()));
  EXPECT_TRUE(s->isType(QelExtractableI::GetTypeInfo()));
  EXPECT_FALSE(s->isType(QelModelI::GetTypeInfo()));
  EXPECT_EQ(s->getBaseTypeInfo(), QelConstraintI::GetTypeInfo());
  EXPECT_TRUE(s->isConstraint());
  EXPECT_TRUE(QelExtractable(s).isConstraint());

  QelNumVar x(this->env, 0, 1, "x");
  Remove r(x, s);
  EXPECT_TRUE(r.isType(QelChange::GetTypeInfo()));
  EXPECT_FALSE(r.isType(QelAddExtractable::GetTypeInfo()));
  Add a(s, 1.0);
  EXPECT_TRUE(a.isType(QelAddNumVar::GetTypeInfo()));
  EXPECT_TRUE(a.isType(QelAddExtractable::GetTypeInfo()));
  EXPECT_FALSE(a.isType(Remove::GetTypeInfo()));
}

TEST(SOSTypes, TheTwoTypesAreDistinctClasses) {
  QelEnv env;
  EXPECT_NE(QelSOS1I::GetTypeInfo(), QelSOS2I::GetTypeInfo());
  EXPECT_NE(QelSOS1I::GetTypeIndex(), QelSOS2I::GetTypeIndex());
  QelSOS1 one(env);
  QelSOS2 two(env);
  EXPECT_FALSE(one.getImpl()->isType(QelSOS2I::GetTypeInfo()));
  EXPECT_FALSE(two.getImpl()->isType(QelSOS1I::GetTypeInfo()));
  EXPECT_NE(QelSOS1RemoveVar::GetTypeInfo(), QelSOS2RemoveVar::GetTypeInfo());
  EXPECT_NE(QelAddVarToSOS1::GetTypeInfo(), QelAddVarToSOS2::GetTypeInfo());
  env.end();
}

TYPED_TEST(SOSTest, AnEmptySetHasBothArraysEmptyAndItsName) {
  using Set = typename TestFixture::Set;
  Set s(this->env, "s");
  ASSERT_NE(s.getImpl(), nullptr);
  EXPECT_NE(s->getVarArray().getImpl(), nullptr);
  EXPECT_NE(s->getValArray().getImpl(), nullptr);
  EXPECT_EQ(s->getVarArray().getSize(), 0);
  EXPECT_EQ(s->getValArray().getSize(), 0);
  EXPECT_STREQ(s->getName(), "s");
  EXPECT_EQ(s->getEnv(), this->env.getImpl());
  Set unnamed(this->env);
  EXPECT_EQ(unnamed->getName(), nullptr);
  EXPECT_EQ(Set().getImpl(), nullptr);
}

TYPED_TEST(SOSTest, ConstructorsAdoptTheArraysTheyAreGiven) {
  using SetI = typename TestFixture::SetI;
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  QelNumVarArray vars(QelExtractableArray(this->env, 2, x, y));
  SetI* s1 = QelNewObject<SetI>(this->env.getImpl(), this->env.getImpl(), vars, "s1");
  EXPECT_EQ(s1->getVarArray().getImpl(), vars.getImpl());
  EXPECT_EQ(s1->getValArray().getSize(), 0);
  EXPECT_STREQ(s1->getName(), "s1");

  QelNumVarArray vars2(QelExtractableArray(this->env, 1, x));
  QelNumArray vals(this->env, 0);
  vals.add(4.0);
  vals.add(5.0);
  vals.add(6.0);  // longer than the variables: not compared
  SetI* s2 = QelNewObject<SetI>(this->env.getImpl(), this->env.getImpl(), vars2, vals);
  EXPECT_EQ(s2->getVarArray().getImpl(), vars2.getImpl());
  EXPECT_EQ(s2->getValArray().getImpl(), vals.getImpl());
  EXPECT_EQ(Vals(s2->getValArray()), (std::vector<double>{4, 5, 6}));
  EXPECT_EQ(s2->getName(), nullptr);
}

TYPED_TEST(SOSTest, AddVarAndAddValAppendWithoutNotice) {
  using SetI = typename TestFixture::SetI;
  SetI* s = this->NewSet();
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s);
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  s->addVar(x);
  s->addVal(2.5);
  s->addVar(y);
  s->addVar(x);
  EXPECT_EQ(Vars(s->getVarArray()),
            (std::vector<QelExtractableI*>{x.getImpl(), y.getImpl(), x.getImpl()}));
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{2.5}));
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
}

// ---- largest weight ------------------------------------------------------------------

TYPED_TEST(SOSTest, MaxValWithoutWeightsIsMinusInfinity) {
  auto* s = this->NewSet();
  double m = s->getMaxVal();
  EXPECT_TRUE(std::isinf(m));
  EXPECT_LT(m, 0.0);
}

TYPED_TEST(SOSTest, MaxValSkipsNaN) {
  auto* s = this->NewSet({}, {3.0, std::numeric_limits<double>::quiet_NaN(), 2.0});
  EXPECT_EQ(s->getMaxVal(), 3.0);
  auto* t = this->NewSet({}, {std::numeric_limits<double>::quiet_NaN(), -2.0, -7.0});
  EXPECT_EQ(t->getMaxVal(), -2.0);
  auto* u = this->NewSet({}, {std::numeric_limits<double>::quiet_NaN()});
  EXPECT_TRUE(std::isinf(u->getMaxVal()));
  EXPECT_LT(u->getMaxVal(), 0.0);
}

// ---- column-wise addition ------------------------------------------------------------

TYPED_TEST(SOSTest, AddingWithoutAWeightContinuesAfterTheLargest) {
  QelNumVar a(this->env, 0, 1, "a"), b(this->env, 0, 1, "b");
  QelNumVar z(this->env, 0, 1, "z"), w(this->env, 0, 1, "w");
  auto* s = this->NewSet({a, b}, {1.0, 4.0});
  auto* add0 = this->NewAdd(s, 0.0);
  add0->setObj(z.getImpl());
  add0->apply();
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{1, 4, 5}));
  EXPECT_EQ(Vars(s->getVarArray()),
            (std::vector<QelExtractableI*>{a.getImpl(), b.getImpl(), z.getImpl()}));
  auto* addNeg = this->NewAdd(s, -3.0);
  addNeg->setObj(w.getImpl());
  addNeg->apply();
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{1, 4, 5, 6}));
  EXPECT_EQ(s->getVarArray().getSize(), 4);
  add0->destroy();
  addNeg->destroy();
}

TYPED_TEST(SOSTest, ANegativeWeightAloneAlsoGivesTheLargestPlusOne) {
  QelNumVar a(this->env, 0, 1, "a"), b(this->env, 0, 1, "b"), z(this->env, 0, 1, "z");
  auto* s = this->NewSet({a, b}, {1.0, 4.0});
  auto* add = this->NewAdd(s, -2.0);
  add->setObj(z.getImpl());
  add->apply();
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{1, 4, 5}));
  EXPECT_EQ(Vars(s->getVarArray()),
            (std::vector<QelExtractableI*>{a.getImpl(), b.getImpl(), z.getImpl()}));
  add->destroy();
}

TYPED_TEST(SOSTest, AGivenWeightIsAppendedAsItIs) {
  QelNumVar a(this->env, 0, 1, "a"), z(this->env, 0, 1, "z");
  auto* s = this->NewSet({a}, {10.0});
  auto* add = this->NewAdd(s, 2.5);
  add->setObj(z.getImpl());
  add->apply();
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{10, 2.5}));
  add->destroy();
}

TYPED_TEST(SOSTest, WeightZeroOnANewSetLeavesItWithoutWeights) {
  QelNumVar z(this->env, 0, 1, "z");
  auto* s = this->NewSet();
  auto* add = this->NewAdd(s, 0.0);
  add->setObj(z.getImpl());
  add->apply();
  EXPECT_EQ(s->getValArray().getSize(), 0);
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{z.getImpl()}));
  add->destroy();
}

TYPED_TEST(SOSTest, WeightSevenOnANewSetGivesTheFirstWeight) {
  QelNumVar z(this->env, 0, 1, "z");
  auto* s = this->NewSet();
  auto* add = this->NewAdd(s, 7.0);
  add->setObj(z.getImpl());
  add->apply();
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{7}));
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{z.getImpl()}));
  add->destroy();
}

TYPED_TEST(SOSTest, AWeightedAdditionToVariablesWithoutWeightsAddsTheVariableOnly) {
  QelNumVar a(this->env, 0, 1, "a"), z(this->env, 0, 1, "z");
  auto* s = this->NewSet({a}, {});
  auto* add = this->NewAdd(s, 7.0);
  add->setObj(z.getImpl());
  add->apply();
  EXPECT_EQ(s->getValArray().getSize(), 0);
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{a.getImpl(), z.getImpl()}));
  add->destroy();
}

TYPED_TEST(SOSTest, InstallingAChainEntersTheVariableEverywhereAndBroadcasts) {
  QelNumVar a(this->env, 0, 1, "a"), b(this->env, 0, 1, "b");
  auto* s1 = this->NewSet({a}, {2.0}, "s1");
  auto* s2 = this->NewSet({a, b}, {1.0, 4.0}, "s2");
  auto* s3 = this->NewSet();
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s1);
  rec->extract(s2);
  rec->extract(s3);
  QelNumVar z(this->env, 0, 1, "z");

  auto* first = this->NewAdd(s1, 3.0);
  auto* second = this->NewAdd(s2, 0.0);
  auto* third = this->NewAdd(s3, 0.0);
  first->setNext(second);
  second->setNext(third);
  first->install(z.getImpl());

  EXPECT_EQ(Vars(s1->getVarArray()), (std::vector<QelExtractableI*>{a.getImpl(), z.getImpl()}));
  EXPECT_EQ(Vals(s1->getValArray()), (std::vector<double>{2, 3}));
  EXPECT_EQ(Vars(s2->getVarArray()),
            (std::vector<QelExtractableI*>{a.getImpl(), b.getImpl(), z.getImpl()}));
  EXPECT_EQ(Vals(s2->getValArray()), (std::vector<double>{1, 4, 5}));
  EXPECT_EQ(Vars(s3->getVarArray()), (std::vector<QelExtractableI*>{z.getImpl()}));
  EXPECT_EQ(s3->getValArray().getSize(), 0);

  // The chain is consumed; every notice knows the variable.
  EXPECT_EQ(first->getNext(), nullptr);
  EXPECT_EQ(second->getNext(), nullptr);
  EXPECT_EQ(third->getNext(), nullptr);
  EXPECT_EQ(first->getObj(), z.getImpl());
  EXPECT_EQ(second->getObj(), z.getImpl());
  EXPECT_EQ(third->getObj(), z.getImpl());

  // One notice per place, about the set, in chain order.
  EXPECT_EQ(rec->notices, (std::vector<std::string>(3, TypeParam::AddName)));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{s1, s2, s3}));
  EXPECT_EQ(rec->visitor.calls,
            (std::vector<VisitCall>{
                {"add", s1, z.getImpl()}, {"add", s2, z.getImpl()}, {"add", s3, z.getImpl()}}));
  // The forwarder recorded the new variable as extracted with the sets.
  EXPECT_TRUE(rec->isExtracted(z.getImpl()));
  first->destroy();
  second->destroy(this->env.getImpl());
  third->destroy();
  delete rec;
}

TYPED_TEST(SOSTest, AdditionNoticeAnswersTheSetAndItsEnvironment) {
  QelNumVar z(this->env, 0, 1, "z");
  auto* s = this->NewSet();
  typename TestFixture::Add add(s, 2.0);
  EXPECT_EQ(add.what(), s);
  EXPECT_EQ(add.getSet(), s);
  EXPECT_EQ(add.getWeight(), 2.0);
  EXPECT_EQ(add.getEnv(), this->env.getImpl());
  EXPECT_FALSE(add.isApplyingOnArray());
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { add.getChangedExtractableArray(); }),
            "QelChange::getChangedExtractableArray can not be called");
  // visitChange reports (set, variable) whatever extractable it is given.
  add.setObj(z.getImpl());
  RecordingVisitor v;
  add.visitChange(this->env.getImpl(), nullptr, &v);
  EXPECT_EQ(v.calls, (std::vector<VisitCall>{{"add", s, z.getImpl()}}));
}

TYPED_TEST(SOSTest, GetCopyCarriesTheSetAndWeightOnly) {
  QelNumVar z(this->env, 0, 1, "z");
  auto* s = this->NewSet();
  auto* s2 = this->NewSet();
  QelInt before = BytesInUse(this->env);
  auto* add = this->NewAdd(s, 6.5);
  auto* other = this->NewAdd(s2, 1.0);
  add->setObj(z.getImpl());
  add->setNext(other);
  QelInt withTwo = BytesInUse(this->env);
  EXPECT_GT(withTwo, before);

  QelAddExtractable* copy = add->getCopy(this->env.getImpl());
  ASSERT_NE(copy, nullptr);
  EXPECT_GT(BytesInUse(this->env), withTwo);
  ASSERT_TRUE(copy->isType(TestFixture::Add::GetTypeInfo()));
  auto* typed = static_cast<typename TestFixture::Add*>(copy);
  EXPECT_EQ(typed->getSet(), s);
  EXPECT_EQ(typed->getWeight(), 6.5);
  EXPECT_EQ(typed->getNext(), nullptr);
  EXPECT_EQ(typed->getObj(), nullptr);
  EXPECT_EQ(copy->what(), s);
  // The source is unchanged.
  EXPECT_EQ(add->getNext(), other);
  EXPECT_EQ(add->getObj(), z.getImpl());

  copy->destroy(this->env.getImpl());
  EXPECT_EQ(BytesInUse(this->env), withTwo);
  add->destroy();
  other->destroy(this->env.getImpl());
  EXPECT_EQ(BytesInUse(this->env), before);
}

TYPED_TEST(SOSTest, DestroyHonoursTheEnvironmentAllocationChecks) {
  auto* s = this->NewSet();
  auto* add = this->NewAdd(s, 1.0);
  QelInt withNotice = BytesInUse(this->env);
  this->env.getImpl()->setAllocationDisabled(true);
  EXPECT_THROW(add->getCopy(this->env.getImpl()), QelEnvAllocationDisabled);
  EXPECT_THROW(add->destroy(), QelEnvAllocationDisabled);
  this->env.getImpl()->setAllocationDisabled(false);
  // The refused release kept the notice whole: it is still counted as in
  // use and can be destroyed once allocation is back on.
  EXPECT_EQ(BytesInUse(this->env), withNotice);
  EXPECT_EQ(add->what(), s);
  add->destroy();
  EXPECT_LT(BytesInUse(this->env), withNotice);
}

// The one deliberate difference between the two addition notices.
TEST(SOSAddNotice, TypeOneAnswersTheVariableAndNamesTheSetThroughItsOwnSlot) {
  QelEnv env;
  QelNumVar z(env, 0, 1, "z");
  QelSOS1 s(env, "s");
  auto* add = QelNewObject<QelAddVarToSOS1>(env.getImpl(), s.getImpl(), 1.0);
  EXPECT_EQ(add->getChangedExtractable(), nullptr);  // no variable yet
  EXPECT_EQ(add->getChangedExtractabl(), s.getImpl());
  add->install(z.getImpl());
  EXPECT_EQ(add->getChangedExtractable(), z.getImpl());
  const QelChange& asChange = *add;
  EXPECT_EQ(asChange.getChangedExtractable(), z.getImpl());
  EXPECT_EQ(add->getChangedExtractabl(), s.getImpl());
  add->destroy();
  env.end();
}

TEST(SOSAddNotice, TypeTwoAnswersTheSet) {
  QelEnv env;
  QelNumVar z(env, 0, 1, "z");
  QelSOS2 s(env, "s");
  auto* add = QelNewObject<QelAddVarToSOS2>(env.getImpl(), s.getImpl(), 1.0);
  EXPECT_EQ(add->getChangedExtractable(), s.getImpl());
  add->install(z.getImpl());
  const QelChange& asChange = *add;
  EXPECT_EQ(asChange.getChangedExtractable(), s.getImpl());
  EXPECT_EQ(add->getObj(), z.getImpl());
  add->destroy();
  env.end();
}

// ---- removing variables ----------------------------------------------------------------

TYPED_TEST(SOSTest, RemoveVarRemovesEveryOccurrenceAndSendsOneNoticePerElement) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  auto* s = this->NewSet({x, y, x}, {1.0, 2.0, 3.0});
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s);
  s->removeVar(x);
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{y.getImpl()}));
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{2}));
  EXPECT_EQ(rec->notices, (std::vector<std::string>(3, TypeParam::RemoveName)));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>(3, s)));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>(3, VisitCall{"remove", s, x.getImpl()})));
  delete rec;
}

TYPED_TEST(SOSTest, RemoveVarLeavesEntriesWithoutWeightsAlone) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  auto* s = this->NewSet({x, y}, {1.0});
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s);
  s->removeVar(x);
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{y.getImpl()}));
  EXPECT_EQ(s->getValArray().getSize(), 0);
  EXPECT_EQ(rec->notices.size(), 2u);

  // y at index 0 has no weight any more: nothing to remove from the weights.
  auto* t = this->NewSet({x, y}, {1.0});
  t->removeVar(y);
  EXPECT_EQ(Vars(t->getVarArray()), (std::vector<QelExtractableI*>{x.getImpl()}));
  EXPECT_EQ(Vals(t->getValArray()), (std::vector<double>{1}));
  delete rec;
}

TYPED_TEST(SOSTest, RemovingAnAbsentVariableStillSendsItsNotices) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y"), z(this->env, 0, 1, "z");
  auto* s = this->NewSet({x, y}, {1.0, 2.0});
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s);
  s->removeVar(z);
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{x.getImpl(), y.getImpl()}));
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{1, 2}));
  EXPECT_EQ(rec->notices, (std::vector<std::string>(2, TypeParam::RemoveName)));
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>(2, VisitCall{"remove", s, z.getImpl()})));

  // An empty set sends nothing.
  auto* empty = this->NewSet();
  rec->extract(empty);
  rec->notices.clear();
  empty->removeVar(x);
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
}

TYPED_TEST(SOSTest, RemoveNoticeAnswersTheSet) {
  QelNumVar x(this->env, 0, 1, "x");
  auto* s = this->NewSet();
  typename TestFixture::Remove r(x, s);
  EXPECT_EQ(r.getChangedExtractable(), s);
  EXPECT_EQ(r.getVar().getImpl(), x.getImpl());
  EXPECT_EQ(r.getSet(), s);
  EXPECT_FALSE(r.isApplyingOnArray());
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { r.getChangedExtractableArray(); }),
            "QelChange::getChangedExtractableArray can not be called");
  RecordingVisitor v;
  r.visitChange(this->env.getImpl(), nullptr, &v);
  EXPECT_EQ(v.calls, (std::vector<VisitCall>{{"remove", s, x.getImpl()}}));
}

// ---- removal of a sub-object --------------------------------------------------------------

TYPED_TEST(SOSTest, EndingAVariableSweepsItOutSilentlyAndLeavesTheWeights) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y"), z(this->env, 0, 1, "z");
  auto* s = this->NewSet({x, y, x, z}, {1.0, 2.0, 3.0, 4.0});
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s);
  QelInt sid = s->getId();
  x.end();
  ASSERT_EQ(this->env.getImpl()->getExtractable(sid), s);  // the set lives on
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{y.getImpl(), z.getImpl()}));
  // The weights are not touched in this mode.
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{1, 2, 3, 4}));
  EXPECT_EQ(Count(rec->notices, TypeParam::RemoveName), 0);
  EXPECT_TRUE(rec->visitor.calls.empty());
  delete rec;
}

TYPED_TEST(SOSTest, EndingAVariableOneByOneRemovesItWithItsWeightAndNotices) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y"), z(this->env, 0, 1, "z");
  auto* s = this->NewSet({x, y, x, z}, {1.0, 2.0, 3.0, 4.0});
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s);
  this->env.getImpl()->setOneByOne(1);
  QelExtractableI* xi = x.getImpl();
  x.end();
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{y.getImpl(), z.getImpl()}));
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{2, 4}));
  // One notice per element the set held when the removal began.
  EXPECT_EQ(Count(rec->notices, TypeParam::RemoveName), 4);
  EXPECT_EQ(rec->visitor.calls, (std::vector<VisitCall>(4, VisitCall{"remove", s, xi})));
  delete rec;
}

TYPED_TEST(SOSTest, EndingSeveralVariablesTogetherSweepsThemAllAtOnce) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y"), z(this->env, 0, 1, "z");
  auto* s = this->NewSet({x, y, z}, {1.0, 2.0, 3.0});
  QelExtractableArray both(this->env, 2, x, z);
  both.endElements();
  both.end();
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{y.getImpl()}));
  EXPECT_EQ(Vals(s->getValArray()), (std::vector<double>{1, 2, 3}));
}

// ---- cloning --------------------------------------------------------------------------------

TYPED_TEST(SOSTest, TheCloneHoldsTheClonesOfTheVariablesAndItsOwnWeights) {
  using SetI = typename TestFixture::SetI;
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  auto* s = this->NewSet({x, y}, {1.0, 2.0}, "s");
  QelEnv other;
  QelEnvI* e2 = other.getImpl();
  e2->beginCopy();
  QelExtractableI* c = e2->getClone(s);
  QelExtractableI* cx = e2->getClone(x.getImpl());
  QelExtractableI* cy = e2->getClone(y.getImpl());
  e2->endCopy();

  ASSERT_TRUE(c->isType(SetI::GetTypeInfo()));
  auto* clone = static_cast<SetI*>(c);
  EXPECT_NE(clone, s);
  EXPECT_EQ(clone->getEnv(), e2);
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_NE(cx, x.getImpl());
  EXPECT_NE(cy, y.getImpl());
  EXPECT_EQ(cx->getEnv(), e2);
  EXPECT_EQ(Vars(clone->getVarArray()), (std::vector<QelExtractableI*>{cx, cy}));
  EXPECT_EQ(clone->getVarArray().getEnv().getImpl(), e2);
  EXPECT_EQ(Vals(clone->getValArray()), (std::vector<double>{1, 2}));
  EXPECT_NE(clone->getValArray().getImpl(), s->getValArray().getImpl());
  EXPECT_EQ(clone->getValArray().getEnv().getImpl(), e2);
  // Independent weights.
  s->getValArray().set(0, 99.0);
  EXPECT_EQ(Vals(clone->getValArray()), (std::vector<double>{1, 2}));
  // The source is untouched.
  EXPECT_EQ(Vars(s->getVarArray()), (std::vector<QelExtractableI*>{x.getImpl(), y.getImpl()}));
  other.end();
}

TYPED_TEST(SOSTest, CloningIntoTheSameEnvironmentGivesAnIndependentSet) {
  QelNumVar x(this->env, 0, 1, "x");
  auto* s = this->NewSet({x}, {3.0}, "s");
  QelExtractableI* c = this->env.getImpl()->getClone(s);
  auto* clone = static_cast<typename TestFixture::SetI*>(c);
  EXPECT_NE(clone, s);
  EXPECT_EQ(clone->getName(), nullptr);
  EXPECT_EQ(clone->getVarArray().getSize(), 1);
  EXPECT_NE(clone->getVarArray().getElement(0), x.getImpl());
  EXPECT_NE(clone->getVarArray().getImpl(), s->getVarArray().getImpl());
  EXPECT_EQ(Vals(clone->getValArray()), (std::vector<double>{3}));
}

// ---- visiting ----------------------------------------------------------------------------------

TYPED_TEST(SOSTest, VisitPresentsTheVariableArrayOnly) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  auto* s = this->NewSet({x, y}, {1.0, 2.0});
  VisitLog log;
  s->visitSubExtractables(&log);
  EXPECT_EQ(log.events, (std::vector<std::string>{"begin", "array", "end"}));
  EXPECT_EQ(log.objects, (std::vector<QelExtractableI*>{s, s, s}));
  EXPECT_EQ(log.arrays, (std::vector<QelArrayI*>{s->getVarArray().getImpl()}));
}

TYPED_TEST(SOSTest, ASetWithAnEndedOrNullElementCountsAsHoldingAMarkedOne) {
  auto* s = this->NewSet();
  s->addVar(QelNumVar());
  QelFindMarkedVisitor finder;
  s->visitSubExtractables(&finder);
  EXPECT_NE(finder.found, 0);

  QelNumVar x(this->env, 0, 1, "x");
  auto* t = this->NewSet({x}, {});
  QelFindMarkedVisitor clean;
  t->visitSubExtractables(&clean);
  EXPECT_EQ(clean.found, 0);
}

// ---- printing ----------------------------------------------------------------------------------

TYPED_TEST(SOSTest, DisplayOfANamedSetWithWeights) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  auto* s = this->NewSet({x, y}, {1.0, 2.0}, "s");
  EXPECT_EQ(Display(s), std::string(TypeParam::Word) +
                            " (s)\n"
                            "  _varArray [x, y]\n"
                            "  _valArray [1, 2]\n");
  typename TestFixture::Set h(s);
  EXPECT_EQ(Print(h), Display(s));
}

TYPED_TEST(SOSTest, DisplayOfAnEmptyUnnamedSetShowsItsIdAndEmptyBrackets) {
  auto* s = this->NewSet();
  EXPECT_EQ(Display(s), std::string(TypeParam::Word) + " (" + std::to_string(s->getId()) +
                            ")\n"
                            "  _varArray []\n"
                            "  _valArray []\n");
}

TYPED_TEST(SOSTest, DisplayBreaksTheLineAfterEveryTenthElement) {
  auto* s = this->NewSet(nullptr);
  s->setNameNoNotif("s");
  std::vector<QelNumVar> vars;
  for (int i = 0; i < 11; ++i) {
    std::string name = "v" + std::to_string(i);
    vars.emplace_back(this->env, 0, 1, name.c_str());
    s->addVar(vars.back());
    s->addVal(0.5 + i);
  }
  EXPECT_EQ(Display(s), std::string(TypeParam::Word) +
                            " (s)\n"
                            "  _varArray [v0, v1, v2, v3, v4, v5, v6, v7, v8, v9,\n"
                            "v10]\n"
                            "  _valArray [0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 9.5,\n"
                            "10.5]\n");
}

TYPED_TEST(SOSTest, DisplayPrintsNothingForAnEmptyElementButKeepsItsComma) {
  QelNumVar x(this->env, 0, 1, "x");
  auto* s = this->NewSet({x, QelNumVar(), x}, {}, "s");
  EXPECT_EQ(Display(s), std::string(TypeParam::Word) +
                            " (s)\n"
                            "  _varArray [x, , x]\n"
                            "  _valArray []\n");
}

TYPED_TEST(SOSTest, DisplayUsesEachVariablesOwnDisplay) {
  QelNumVar f(this->env, 0, 1);
  QelIntVar i(this->env, 0, 3);
  auto* s = this->NewSet({f, i}, {-1.25}, "s");
  EXPECT_EQ(Display(s), std::string(TypeParam::Word) +
                            " (s)\n"
                            "  _varArray [" +
                            Display(f.getImpl()) + ", " + Display(i.getImpl()) +
                            "]\n"
                            "  _valArray [-1.25]\n");
}

// ---- engine hooks ----------------------------------------------------------------------------

TYPED_TEST(SOSTest, EmptyExtractionSlotsThrowTheStatedFailures) {
  using SetI = typename TestFixture::SetI;
  ASSERT_EQ(SetI::_extractCP, nullptr);
  ASSERT_EQ(SetI::_modifyCP, nullptr);
  ASSERT_EQ(SetI::_unextractCP, nullptr);
  auto* s = this->NewSet();
  QelAlgorithm alg(this->env);
  EXPECT_THROW(s->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(s->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(s->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  try {
    s->extractToCP(alg);
  } catch (const QelAlgorithm::ExtractFailure& e) {
    EXPECT_EQ(e.getMessage(), nullptr);
    EXPECT_EQ(e.getCode(), 0);
  }
  alg.end();
}

TYPED_TEST(SOSTest, FilledExtractionHooksReceiveAlgorithmThenSet) {
  using SetI = typename TestFixture::SetI;
  using P = Probe<SetI>;
  auto* s = this->NewSet();
  QelAlgorithm alg(this->env);
  int data = 0;
  P::Reset();
  SetI::_extractCP = &P::Extract;
  SetI::_modifyCP = &P::Modify;
  SetI::_unextractCP = &P::Unextract;

  EXPECT_EQ(s->extractToCP(alg), reinterpret_cast<void*>(std::uintptr_t{0x1111}));
  EXPECT_EQ(P::alg, alg.getImpl());
  EXPECT_EQ(P::object, s);
  P::Reset();
  EXPECT_EQ(s->modifyCP(alg, &data), reinterpret_cast<void*>(std::uintptr_t{0x2222}));
  EXPECT_EQ(P::alg, alg.getImpl());
  EXPECT_EQ(P::object, s);
  EXPECT_EQ(P::data, &data);
  P::Reset();
  EXPECT_EQ(s->unextractFromCP(alg, &data), reinterpret_cast<void*>(std::uintptr_t{0x3333}));
  EXPECT_EQ(P::alg, alg.getImpl());
  EXPECT_EQ(P::object, s);
  EXPECT_EQ(P::data, &data);
  // Through the base class's table as well.
  QelExtractableI* asBase = s;
  P::Reset();
  EXPECT_EQ(asBase->extractToCP(alg), reinterpret_cast<void*>(std::uintptr_t{0x1111}));
  EXPECT_EQ(P::calls, 1);

  SetI::_extractCP = nullptr;
  SetI::_modifyCP = nullptr;
  SetI::_unextractCP = nullptr;
  alg.end();
}

TEST(SOSHooks, EachTypeHasItsOwnSlots) {
  QelEnv env;
  QelSOS1 one(env);
  QelSOS2 two(env);
  QelAlgorithm alg(env);
  QelSOS1I::_extractCP = &Probe<QelSOS1I>::Extract;
  EXPECT_THROW(two->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_NE(one->extractToCP(alg), nullptr);
  QelSOS1I::_extractCP = nullptr;

  QelNumVar x(env, 0, 1, "x");
  QelSOS1RemoveVar::_applyCP = &Probe<QelSOS1RemoveVar>::Apply;
  QelSOS2RemoveVar r2(x, two.getImpl());
  EXPECT_THROW(r2.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  QelSOS1RemoveVar::_applyCP = nullptr;

  // Filling the slot of the addition base serves neither addition notice.
  QelAddExtractable::_applyCP = &Probe<QelAddExtractable>::Apply;
  QelAddVarToSOS1 a1(one.getImpl(), 1.0);
  QelAddVarToSOS2 a2(two.getImpl(), 1.0);
  EXPECT_THROW(a1.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  EXPECT_THROW(a2.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  QelAddExtractable::_applyCP = nullptr;
  alg.end();
  env.end();
}

TYPED_TEST(SOSTest, NoticeHooksEmptyThrowAndFilledReceiveAlgorithmThenNotice) {
  using Remove = typename TestFixture::Remove;
  using Add = typename TestFixture::Add;
  QelNumVar x(this->env, 0, 1, "x");
  auto* s = this->NewSet();
  QelAlgorithm alg(this->env);
  Remove r(x, s);
  Add a(s, 1.0);
  ASSERT_EQ(Remove::_applyCP, nullptr);
  ASSERT_EQ(Add::_applyCP, nullptr);
  try {
    r.applyToCP(alg, nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const QelAlgorithm::CannotChangeException& e) {
    EXPECT_EQ(e.getAlgorithm(), alg.getImpl());
  }
  try {
    a.applyToCP(alg, nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const QelAlgorithm::CannotChangeException& e) {
    EXPECT_EQ(e.getAlgorithm(), alg.getImpl());
  }

  int data = 0;
  Probe<Remove>::Reset();
  Probe<Add>::Reset();
  Remove::_applyCP = &Probe<Remove>::Apply;
  Add::_applyCP = &Probe<Add>::Apply;
  EXPECT_EQ(r.applyToCP(alg, &data), 4444);
  EXPECT_EQ(Probe<Remove>::alg, alg.getImpl());
  EXPECT_EQ(Probe<Remove>::object, &r);
  EXPECT_EQ(Probe<Remove>::data, &data);
  const QelChange& asChange = a;
  EXPECT_EQ(asChange.applyToCP(alg, &data), 4444);
  EXPECT_EQ(Probe<Add>::alg, alg.getImpl());
  EXPECT_EQ(Probe<Add>::object, &a);
  EXPECT_EQ(Probe<Add>::data, &data);
  Remove::_applyCP = nullptr;
  Add::_applyCP = nullptr;
  alg.end();
}

TYPED_TEST(SOSTest, AnAlgorithmFollowingHooksGetsEveryRemoveNotice) {
  using Remove = typename TestFixture::Remove;
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  auto* s = this->NewSet({x, y, x}, {});
  RecordingAlgorithmI* rec = MakeRecorder(this->env);
  rec->extract(s);
  int data = 0;
  rec->useHooks(&data);
  Probe<Remove>::Reset();
  Remove::_applyCP = &Probe<Remove>::Apply;
  s->removeVar(x);
  Remove::_applyCP = nullptr;
  EXPECT_EQ(Probe<Remove>::calls, 3);
  EXPECT_EQ(Probe<Remove>::alg, rec);
  EXPECT_EQ(Probe<Remove>::data, &data);
  EXPECT_EQ(rec->notices, (std::vector<std::string>(3, TypeParam::RemoveName)));
  delete rec;
}

// ---- memory ------------------------------------------------------------------------------------

TYPED_TEST(SOSTest, EndingASetGivesBackItsBlockAndBothArrays) {
  QelNumVar x(this->env, 0, 1, "x"), y(this->env, 0, 1, "y");
  QelInt baseline = BytesInUse(this->env);
  QelInt count = this->env.getImpl()->getNumberOfExtractables();

  typename TestFixture::Set empty(this->env, "empty");
  EXPECT_GT(BytesInUse(this->env), baseline);
  empty.end();
  EXPECT_EQ(BytesInUse(this->env), baseline);

  auto* s = this->NewSet({x, y, x}, {1.0, 2.0, 3.0}, "s");
  for (int i = 0; i < 40; ++i) {
    s->addVar(y);
    s->addVal(i);
  }
  s->removeVar(x);
  s->end();
  EXPECT_EQ(BytesInUse(this->env), baseline);
  EXPECT_EQ(this->env.getImpl()->getNumberOfExtractables(), count);
  // The variables are the user's: still alive.
  EXPECT_GE(x.getId(), 0);
  EXPECT_GE(y.getId(), 0);
}

TYPED_TEST(SOSTest, ColumnNoticesLiveAndDieInEnvironmentMemory) {
  auto* s = this->NewSet();
  QelInt baseline = BytesInUse(this->env);
  auto* add = this->NewAdd(s, 1.0);
  EXPECT_GE(BytesInUse(this->env) - baseline,
            static_cast<QelInt>(sizeof(typename TestFixture::Add)));
  add->destroy();
  EXPECT_EQ(BytesInUse(this->env), baseline);
}

TYPED_TEST(SOSTest, AFailedConstructionGivesEverythingBack) {
  using Set = typename TestFixture::Set;
  FailingAllocator allocator;
  QelEnv local;
  local.getImpl()->setCustomAllocator(&allocator);
  {
    // Warm the environment up (its table) so that only the set allocates.
    QelNumVar warm(local, 0, 1);
    Set first(local);
    first.end();
  }
  QelInt live = allocator.live();
  QelInt count = local.getImpl()->getNumberOfExtractables();
  long failures = 0;
  for (long failAt = 1;; ++failAt) {
    allocator.arm(failAt);
    try {
      Set s(local);
      allocator.disarm();
      // The whole construction succeeded: every allocation was tried.
      EXPECT_GE(failAt, 3) << "the set and its two arrays each take a block";
      s.end();
      EXPECT_EQ(allocator.live(), live);
      break;
    } catch (const QelMemoryException&) {
      allocator.disarm();
      ++failures;
      EXPECT_EQ(allocator.live(), live) << "failing allocation " << failAt;
      EXPECT_EQ(local.getImpl()->getNumberOfExtractables(), count);
    }
    ASSERT_LT(failAt, 50);
  }
  EXPECT_GE(failures, 3);

  // The constructor that adopts a variable array: when making the weight
  // array fails, the variable array is left to the caller, unchanged.
  using SetI = typename TestFixture::SetI;
  QelNumVar x(local, 0, 1, "x");
  QelNumVarArray vars(QelExtractableArray(local, 1, x));
  live = allocator.live();
  count = local.getImpl()->getNumberOfExtractables();
  long adoptFailures = 0;
  for (long failAt = 1;; ++failAt) {
    allocator.arm(failAt);
    try {
      SetI* s = QelNewObject<SetI>(local.getImpl(), local.getImpl(), vars, "s");
      allocator.disarm();
      EXPECT_EQ(s->getVarArray().getImpl(), vars.getImpl());
      s->end();  // ends the adopted array too
      break;
    } catch (const QelMemoryException&) {
      allocator.disarm();
      ++adoptFailures;
      EXPECT_EQ(allocator.live(), live) << "failing allocation " << failAt;
      EXPECT_EQ(local.getImpl()->getNumberOfExtractables(), count);
      ASSERT_EQ(vars.getSize(), 1);
      EXPECT_EQ(vars.getElement(0), x.getImpl());
    }
    ASSERT_LT(failAt, 50);
  }
  EXPECT_GE(adoptFailures, 2);
  local.end();
}

TEST(SOSRefusedMemory, AColumnAddsTheWeightAndTheVariableOrNeither) {
  long refusals = ForEachRefusal([](QelEnv env, RequestCounter& counter, long n) {
    // The weights run one block ahead of the variables, so that the new
    // weight fits but the new variable needs another block.
    QelSOS1 s(env, "s");
    QelIntVarArray xs(env, 8, 0, 1);
    for (long i = 0; i < 8; ++i) {
      s->addVar(xs[i]);
      s->addVal(static_cast<double>(i));
    }
    s->addVal(100);
    s->getValArray().remove(8);
    QelIntVar w(env, 0, 1, "w");
    counter.refuseAfter(n);
    bool refused = false;
    try {
      QelAddVarToSOS1(s.getImpl(), 9.0).install(w.getImpl());
    } catch (const QelMemoryException&) {
      refused = true;
    }
    counter.stop();
    EXPECT_EQ(s->getVarArray().getSize(), refused ? 8 : 9) << "request " << n;
    EXPECT_EQ(s->getValArray().getSize(), refused ? 8 : 9) << "request " << n;
    xs.end();
    EndAllObjects(env);
    return refused;
  });
  EXPECT_GE(refusals, 1);
}

TEST(SOSFindings, OneByOneASetIsToldOnlyOfItsOwnVariables) {
  // Ending v ends the all-min-distance constraint first (one by one, it
  // ends itself), in a removal nested in v's: the set, which holds v, was
  // reached by that removal too and took the constraint for a variable
  // (an invalid cast, and a notice per element for nothing).
  QelEnv env;
  env.getImpl()->setOneByOne(1);
  QelIntVar v(env, 0, 1, "v"), w(env, 0, 1, "w");
  QelIntVarArray vw(QelExtractableArray(env, 2, v, w));
  QelAllMinDistance spread(env, vw, 1);  // made before the set: reached first
  QelSOS1 s(env, "s");
  s->addVar(v);
  s->addVar(w);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(s.getImpl());
  v.end();
  // removeVar(v): one notice per element it scanned, both about v.
  EXPECT_EQ(std::count(rec->notices.begin(), rec->notices.end(), "QelSOS1RemoveVar"), 2);
  EXPECT_EQ(s->getVarArray().getSize(), 1);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 2);  // w and s
  QelAlgorithm(rec).end();
  vw.end();
  env.end();
}

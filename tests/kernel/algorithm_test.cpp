// Algorithms: held values, extraction records and the two listening modes.
#include "support/qeltest.h"

#include <string>
#include <vector>

namespace {

using qeltest::MessageOf;
using qeltest::OutcomeOnAnotherThread;
using qeltest::RecordingVisitor;
using qeltest::VisitCall;

// An object holding up to two others; its extraction hook slot is tested.
class AlgNodeI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(AlgNodeI, QelExtractableI)

 public:
  AlgNodeI(QelEnvI* env, QelExtractableI* a = nullptr, QelExtractableI* b = nullptr)
      : QelExtractableI(env), _a(a), _b(b) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    if (_a != nullptr) v->visitChildren(this, _a);
    if (_b != nullptr) v->visitChildren(this, _b);
    v->endVisit(this);
  }

 private:
  QelExtractableI* _a;
  QelExtractableI* _b;
};
QEL_EXTRACTABLE_DEF(AlgNodeI)

// A notice that reports `sub` as added to the object it concerns.
class AlgAddNotice : public QelChange {
  QEL_CHANGE_DECL(AlgAddNotice, QelChange)

 public:
  explicit AlgAddNotice(QelExtractableI* sub) : _sub(sub) {}
  void visitChange(QelEnvI*, QelExtractableI* x, QelChangeVisitor* v) const override {
    v->addSubExtractable(x, _sub);
  }
  QelExtractableI* getSub() const { return _sub; }

 private:
  QelExtractableI* _sub;
};
QEL_CHANGE_DEF(AlgAddNotice)

// A notice derived from the one above, with its own (empty) slot.
class AlgDerivedNotice : public AlgAddNotice {
  QEL_CHANGE_DECL(AlgDerivedNotice, AlgAddNotice)

 public:
  using AlgAddNotice::AlgAddNotice;
};
QEL_CHANGE_DEF(AlgDerivedNotice)

AlgNodeI* Node(QelEnv env, QelExtractableI* a = nullptr, QelExtractableI* b = nullptr) {
  return QelNewObject<AlgNodeI>(env.getImpl(), env.getImpl(), a, b);
}

// What the hooks saw.
struct HookLog {
  std::vector<std::string> calls;
  QelAlgorithmI* algorithm = nullptr;
  const void* object = nullptr;
  void* data = nullptr;
};
HookLog hookLog;

QelInt ApplyAdd(QelAlgorithm a, const AlgAddNotice* n, void* data) {
  hookLog.calls.push_back("apply");
  hookLog.algorithm = a.getImpl();
  hookLog.object = n;
  hookLog.data = data;
  return 77;
}

void* ExtractNode(QelAlgorithm a, const AlgNodeI* x) {
  hookLog.calls.push_back("extract");
  hookLog.algorithm = a.getImpl();
  hookLog.object = x;
  return nullptr;
}

void* UnextractNode(QelAlgorithm a, const AlgNodeI* x, void* data) {
  hookLog.calls.push_back("unextract");
  hookLog.algorithm = a.getImpl();
  hookLog.object = x;
  hookLog.data = data;
  return nullptr;
}

// Empties the hook slots and the log whatever the outcome of a test.
struct HookReset {
  HookReset() { hookLog = HookLog(); }
  ~HookReset() {
    AlgAddNotice::_applyCP = nullptr;
    AlgDerivedNotice::_applyCP = nullptr;
    AlgNodeI::_extractCP = nullptr;
    AlgNodeI::_unextractCP = nullptr;
  }
};

// ---- held values ------------------------------------------------------------

TEST(AlgorithmValues, SetAndGet) {
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelNumVar y(env, -1.0, 1.0, "y");
  QelAlgorithm alg(env);
  EXPECT_TRUE(alg.getEnv() == env);
  alg.setValue(x, 3);
  alg.setValue(y, 0.25);
  EXPECT_TRUE(alg.getImpl()->hasValue(x.getImpl()));
  EXPECT_EQ(alg.getImpl()->getValue(x.getImpl()), 3.0);
  EXPECT_EQ(alg.getImpl()->getValue(y.getImpl()), 0.25);
  alg.setValue(x, 4);
  EXPECT_EQ(alg.getImpl()->getValue(x.getImpl()), 4.0);
  // Expressions are evaluated against the held values.
  EXPECT_EQ(alg.getValue(x), 4.0);
  EXPECT_EQ(alg.getValue(2 * x + 1), 9.0);
  EXPECT_EQ(alg.getValue(y * 4.0 - x), -3.0);
  alg.end();
  EXPECT_EQ(alg.getImpl(), nullptr);
  env.end();
}

TEST(AlgorithmValues, MissingValueThrows) {
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");
  QelAlgorithm alg(env);
  EXPECT_FALSE(alg.getImpl()->hasValue(x.getImpl()));
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { alg.getImpl()->getValue(x.getImpl()); }),
            "QelAlgorithm: no value for this variable: x");
  QelNumVar anonymous(env, 0, 1);
  EXPECT_EQ(
      MessageOf<QelWrongUsage>([&] { alg.getValue(2.0 * anonymous); }),
      "QelAlgorithm: no value for this variable: QelNumVar" + std::to_string(anonymous.getId()));
  alg.setValue(x, 1);
  EXPECT_THROW(alg.getImpl()->getValue(y.getImpl()), QelWrongUsage);
  EXPECT_THROW(alg.getValue(x + y), QelWrongUsage);
  alg.getImpl()->clearValues();
  EXPECT_FALSE(alg.getImpl()->hasValue(x.getImpl()));
  EXPECT_THROW(alg.getImpl()->getValue(x.getImpl()), QelWrongUsage);
  EXPECT_FALSE(alg.getImpl()->hasValue(nullptr));
  EXPECT_THROW(alg.getImpl()->setValue(nullptr, 1.0), QelEmptyHandleException);
  alg.end();
  env.end();
}

TEST(AlgorithmValues, ManyVariablesAndEndedOnes) {
  QelEnv env;
  std::vector<QelIntVar> xs;
  for (int i = 0; i < 300; ++i) xs.emplace_back(env, 0, 1000);
  QelAlgorithm alg(env);
  for (int i = 0; i < 300; i += 7) alg.setValue(xs[static_cast<size_t>(i)], i);
  alg.setValue(xs[299], 299);
  for (int i = 0; i < 300; i += 7)
    EXPECT_EQ(alg.getImpl()->getValue(xs[static_cast<size_t>(i)].getImpl()), i);
  EXPECT_EQ(alg.getImpl()->getValue(xs[299].getImpl()), 299);
  EXPECT_FALSE(alg.getImpl()->hasValue(xs[1].getImpl()));

  QelIntVar gone(env, 0, 1);
  QelNumVarI* impl = gone.getImpl();
  env.getImpl()->unregister(impl);  // as ended, still readable
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { alg.getImpl()->setValue(impl, 1.0); }),
            "QelAlgorithm: the variable has ended");
  delete impl;
  alg.end();
  env.end();
}

TEST(AlgorithmValues, EmptyHandlesThrow) {
  QelAlgorithm none;
  QelEnv env;
  QelIntVar x(env, 0, 1);
  EXPECT_THROW(none.setValue(x, 1), QelEmptyHandleException);
  EXPECT_THROW(none.getValue(x), QelEmptyHandleException);
  EXPECT_THROW(none.extract(x), QelEmptyHandleException);
  EXPECT_EQ(none.getEnv().getImpl(), nullptr);
  QelAlgorithm alg(env);
  EXPECT_THROW(alg.getValue(QelNumExpr()), QelEmptyHandleException);
  EXPECT_THROW(alg.extract(QelExtractable()), QelEmptyHandleException);
  QelEnv emptyEnv(static_cast<QelEnvI*>(nullptr));
  EXPECT_THROW(QelAlgorithm{emptyEnv}, QelEmptyHandleException);
  alg.end();
  env.end();
}

// ---- extraction records -------------------------------------------------------

TEST(AlgorithmExtract, RecordsEveryReachableObject) {
  QelEnv env;
  AlgNodeI* leafA = Node(env);
  AlgNodeI* leafB = Node(env);
  AlgNodeI* inner = Node(env, leafB);
  AlgNodeI* top = Node(env, leafA, inner);
  AlgNodeI* unrelated = Node(env);
  QelAlgorithmI* alg = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  EXPECT_EQ(alg->getListenMode(), QelListenMode::None);
  alg->extract(top);
  for (AlgNodeI* x : {top, leafA, inner, leafB}) EXPECT_TRUE(alg->isExtracted(x));
  EXPECT_FALSE(alg->isExtracted(unrelated));
  EXPECT_FALSE(alg->isExtracted(nullptr));

  // Another algorithm's records are its own.
  QelAlgorithmI* other = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  other->extract(inner);
  EXPECT_TRUE(other->isExtracted(leafB));
  EXPECT_FALSE(other->isExtracted(top));

  alg->unextract(top);
  EXPECT_FALSE(alg->isExtracted(top));
  EXPECT_TRUE(alg->isExtracted(leafA));
  alg->clear();
  EXPECT_FALSE(alg->isExtracted(leafA));
  EXPECT_TRUE(other->isExtracted(leafB));
  EXPECT_THROW(alg->extract(nullptr), QelEmptyHandleException);
  EXPECT_THROW(alg->unextract(nullptr), QelEmptyHandleException);

  // Ending an algorithm gives its slot and its records back.
  int slot = other->getSlot();
  delete other;
  EXPECT_EQ(env.getImpl()->getAlgorithm(slot), nullptr);
  EXPECT_FALSE(env.getImpl()->getRegistry().isExtracted(leafB->getId(), slot));
  delete alg;
  top->end();
  unrelated->end();
  env.end();
}

TEST(AlgorithmExtract, HookModeCallsTheExtractionSlots) {
  HookReset reset;
  QelEnv env;
  AlgNodeI* x = Node(env);
  QelAlgorithmI* alg = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  int data = 0;
  alg->useHooks(&data);
  EXPECT_EQ(alg->getListenMode(), QelListenMode::Hooks);
  EXPECT_EQ(alg->getHookData(), &data);

  EXPECT_THROW(alg->extract(x), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(alg->unextract(x), QelAlgorithm::RemoveFailure);

  AlgNodeI::_extractCP = &ExtractNode;
  AlgNodeI::_unextractCP = &UnextractNode;
  alg->extract(x);
  EXPECT_TRUE(alg->isExtracted(x));
  alg->unextract(x);
  EXPECT_FALSE(alg->isExtracted(x));
  EXPECT_EQ(hookLog.calls, (std::vector<std::string>{"extract", "unextract"}));
  EXPECT_EQ(hookLog.algorithm, alg);
  EXPECT_EQ(hookLog.object, x);
  EXPECT_EQ(hookLog.data, &data);
  delete alg;
  x->end();
  env.end();
}

// ---- listening modes ------------------------------------------------------------

TEST(AlgorithmListen, VisitorModeReceivesVisitChange) {
  QelEnv env;
  AlgNodeI* owner = Node(env);
  AlgNodeI* sub = Node(env);
  QelAlgorithmI* alg = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  RecordingVisitor visitor;
  alg->setChangeVisitor(&visitor);
  EXPECT_EQ(alg->getListenMode(), QelListenMode::Visitor);
  EXPECT_EQ(alg->getChangeVisitor(), &visitor);
  alg->extract(owner);
  EXPECT_FALSE(alg->isExtracted(sub));

  AlgAddNotice added(sub);
  owner->notify(added);
  EXPECT_EQ(visitor.calls, (std::vector<VisitCall>{{"add", owner, sub}}));
  // The reported sub-object is now followed as well.
  EXPECT_TRUE(alg->isExtracted(sub));
  AlgAddNotice again(owner);
  sub->notify(again);
  EXPECT_EQ(visitor.calls.size(), 2U);
  EXPECT_EQ(visitor.calls[1], (VisitCall{"add", sub, owner}));

  // A null visitor turns listening off.
  alg->setChangeVisitor(nullptr);
  EXPECT_EQ(alg->getListenMode(), QelListenMode::None);
  owner->notify(added);
  EXPECT_EQ(visitor.calls.size(), 2U);
  delete alg;
  owner->end();
  sub->end();
  env.end();
}

TEST(AlgorithmListen, NoneModeIgnoresNotices) {
  QelEnv env;
  AlgNodeI* owner = Node(env);
  AlgNodeI* sub = Node(env);
  QelAlgorithmI* alg = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  RecordingVisitor visitor;
  alg->setChangeVisitor(&visitor);
  alg->setListenMode(QelListenMode::None);
  alg->extract(owner);
  AlgAddNotice added(sub);
  owner->notify(added);
  env.getImpl()->change(added);
  EXPECT_TRUE(visitor.calls.empty());
  EXPECT_FALSE(alg->isExtracted(sub));
  delete alg;
  owner->end();
  sub->end();
  env.end();
}

TEST(AlgorithmListen, HookModeCallsTheNoticesOwnSlot) {
  HookReset reset;
  QelEnv env;
  AlgNodeI* owner = Node(env);
  QelAlgorithmI* alg = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  alg->extract(owner);
  int data = 0;
  alg->useHooks(&data);
  AlgAddNotice::_applyCP = &ApplyAdd;

  AlgAddNotice added(nullptr);
  owner->notify(added);
  EXPECT_EQ(hookLog.calls, (std::vector<std::string>{"apply"}));
  EXPECT_EQ(hookLog.algorithm, alg);
  EXPECT_EQ(hookLog.object, &added);
  EXPECT_EQ(hookLog.data, &data);
  // The hook's result comes back through applyToCP.
  EXPECT_EQ(added.applyToCP(QelAlgorithm(alg), &data), 77);

  // The slot of the base class does not serve the derived class.
  AlgDerivedNotice derived(nullptr);
  try {
    owner->notify(derived);
    ADD_FAILURE() << "no exception";
  } catch (const QelAlgorithm::CannotChangeException& e) {
    EXPECT_EQ(e.getAlgorithm(), alg);
  }
  EXPECT_EQ(hookLog.calls.size(), 2U);
  delete alg;
  owner->end();
  env.end();
}

TEST(AlgorithmListen, EmptyNoticeSlotThrowsCannotChangeNamingTheAlgorithm) {
  HookReset reset;
  QelEnv env;
  AlgNodeI* owner = Node(env);
  QelAlgorithmI* alg = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  alg->extract(owner);
  alg->useHooks();
  AlgAddNotice added(nullptr);
  const QelAlgorithmI* named = nullptr;
  try {
    owner->notify(added);
  } catch (const QelAlgorithm::CannotChangeException& e) {
    named = e.getAlgorithm();
    EXPECT_EQ(e.getCode(), 0);
  }
  EXPECT_EQ(named, alg);
  // The same for a notice that concerns no single object.
  EXPECT_THROW(env.getImpl()->change(added), QelAlgorithm::CannotChangeException);
  // A library notice with its slot empty behaves alike.
  QelSetNameChange renamed(owner);
  EXPECT_THROW(owner->notify(renamed), QelAlgorithm::CannotChangeException);
  delete alg;
  owner->end();
  env.end();
}

TEST(AlgorithmListen, FailureExceptionsCarryNoMessage) {
  QelAlgorithm::ExtractFailure extract;
  QelAlgorithm::RemoveFailure remove;
  EXPECT_EQ(extract.getMessage(), nullptr);
  EXPECT_EQ(extract.getCode(), 0);
  EXPECT_EQ(remove.getMessage(), nullptr);
  EXPECT_EQ(remove.getCode(), 0);
  QelAlgorithm::CannotChangeException cannot(nullptr);
  EXPECT_EQ(cannot.getAlgorithm(), nullptr);
  EXPECT_EQ(cannot.getCode(), 0);
}

// ---- memory -------------------------------------------------------------------------

TEST(AlgorithmMemory, EndingGivesEverythingBack) {
  QelEnv env;
  QelIntVar x(env, 0, 10);
  QelInt before = qeltest::BytesInUse(env);
  QelAlgorithm alg(env);
  alg.setValue(x, 2);
  alg.extract(x);
  EXPECT_GT(qeltest::BytesInUse(env), before);
  alg.end();
  EXPECT_EQ(qeltest::BytesInUse(env), before);
  env.end();
}

}  // namespace

// ---- failures that leave the algorithm as it was ---------------------------

TEST(AlgorithmEnd, RefusedFromAForeignThreadTheAlgorithmStaysAttached) {
  QelEnv env;
  QelIntVar x(env, 0, 9, "x");
  QelAlgorithm alg(env);
  alg.setValue(x, 4);
  int slot = alg.getImpl()->getSlot();
  EXPECT_EQ(OutcomeOnAnotherThread([&] { alg.end(); }), "refused");
  ASSERT_NE(alg.getImpl(), nullptr);
  EXPECT_EQ(env.getImpl()->getAlgorithm(slot), alg.getImpl());
  EXPECT_EQ(alg.getValue(x), 4);
  alg.end();
  x.end();
  EXPECT_EQ(env.getImpl()->getBytesInUse(), 0);
  env.end();
}

TEST(AlgorithmExtract, AnEngineThatCannotExtractLeavesNothingRecorded) {
  QelEnv env;
  QelIntVar x(env, 0, 9, "x"), y(env, 0, 9, "y");
  QelIntExpr sum = x + y;
  QelRange r(env, 0, sum, 5);
  QelModel m(env);
  m.add(r);
  QelAlgorithm known(env), fresh(env);
  known.extract(x);
  for (QelAlgorithm* alg : {&known, &fresh}) {
    alg->getImpl()->useHooks();
    // No engine fills the model's extraction slot.
    EXPECT_THROW(alg->extract(m), QelAlgorithm::ExtractFailure);
    for (QelExtractableI* o :
         {static_cast<QelExtractableI*>(m.getImpl()), static_cast<QelExtractableI*>(r.getImpl()),
          static_cast<QelExtractableI*>(sum.getImpl()), static_cast<QelExtractableI*>(y.getImpl())})
      EXPECT_FALSE(alg->getImpl()->isExtracted(o));
  }
  EXPECT_TRUE(known.getImpl()->isExtracted(x.getImpl()));
  EXPECT_TRUE(env.getImpl()->isListening(known.getImpl()->getSlot()));
  EXPECT_FALSE(fresh.getImpl()->isExtracted(x.getImpl()));
  EXPECT_FALSE(env.getImpl()->isListening(fresh.getImpl()->getSlot()));
  known.end();
  fresh.end();
  m.end();
  x.end();
  y.end();
  EXPECT_EQ(env.getImpl()->getBytesInUse(), 0);
  env.end();
}

TEST(AlgorithmValues, ValuesOfAWholeArrayInOneCall) {
  QelEnv env;
  QelIntVarArray xs(env, 5, 0, 10);
  QelAlgorithm alg(env);
  for (long i = 0; i < 5; ++i) alg.setValue(xs[i], static_cast<double>(i * i));
  const QelInt baseline = env.getImpl()->getBytesInUse();
  QelNumArray v = alg.getValues(xs);
  ASSERT_EQ(v.getSize(), 5);
  for (long i = 0; i < 5; ++i) EXPECT_EQ(v[i], static_cast<double>(i * i));
  v.end();
  EXPECT_EQ(env.getImpl()->getBytesInUse(), baseline);
  // Expressions too, and a missing value leaves nothing behind.
  QelNumExprArray es(QelExtractableArray(env, 0));
  es.add(xs[1] + xs[2]);
  es.add(2 * xs[4]);
  QelNumArray ev = alg.getValues(es);
  EXPECT_EQ(ev[0], 5);
  EXPECT_EQ(ev[1], 32);
  ev.end();
  QelIntVar unset(env, 0, 1, "unset");
  es.add(unset);
  const QelInt before = env.getImpl()->getBytesInUse();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { alg.getValues(es); }),
            "QelAlgorithm: no value for this variable: unset");
  EXPECT_EQ(env.getImpl()->getBytesInUse(), before);
  EXPECT_THROW(QelAlgorithm().getValues(xs), QelEmptyHandleException);
  EXPECT_THROW(alg.getValues(QelNumExprArray()), QelEmptyHandleException);
  es.end();
  xs.end();
  alg.end();
  env.end();
}

// The extractable base object: identity, name, location, user object,
// notices, end and delete, cloning, printing and the handle's kind queries.
#include "support/qeltest.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <qel/constraints/alldiff.h>
#include <qel/objective/objective.h>

namespace {

using qeltest::BytesInUse;
using qeltest::Display;
using qeltest::MakeRecorder;
using qeltest::MessageOf;
using qeltest::Print;
using qeltest::RecordingAlgorithmI;

// An object that relies on the base class for everything it can.
class BaseOnlyI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(BaseOnlyI, QelExtractableI)

 public:
  explicit BaseOnlyI(QelEnvI* env, const char* name = nullptr) : QelExtractableI(env, name) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(BaseOnlyI)

// An object that depends on another one (the base atRemove applies).
class DependantI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(DependantI, QelExtractableI)

 public:
  DependantI(QelEnvI* env, QelExtractableI* on) : QelExtractableI(env), _on(on) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->visitChildren(this, _on);
    v->endVisit(this);
  }

 private:
  QelExtractableI* _on;
};
QEL_EXTRACTABLE_DEF(DependantI)

// An object whose own constructor fails after the base part was built.
class FailingI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(FailingI, QelExtractableI)

 public:
  explicit FailingI(QelEnvI* env) : QelExtractableI(env, "failing") {
    throw QelWrongUsage("refused");
  }
  void visitSubExtractables(QelExtractableVisitor*) override {}
};
QEL_EXTRACTABLE_DEF(FailingI)

BaseOnlyI* Make(QelEnv env, const char* name = nullptr) {
  return QelNewObject<BaseOnlyI>(env.getImpl(), env.getImpl(), name);
}

// A custom allocator that refuses requests of one size.
class RefusingAllocator : public QelCustomAllocatorI {
 public:
  explicit RefusingAllocator(size_t refused) : _refused(refused) {}
  void* alloc(size_t size) override {
    if (size == _refused) throw QelMemoryException();
    ++live;
    return std::malloc(size == 0 ? 1 : size);
  }
  void free(void* p, size_t) override {
    if (p != nullptr) --live;
    std::free(p);
  }
  int live = 0;

 private:
  size_t _refused;
};

// ---- construction --------------------------------------------------------

TEST(ExtractableBase, ConstructionRegistersAndNamesSilently) {
  QelEnv env;
  RecordingAlgorithmI* rec = MakeRecorder(env);
  BaseOnlyI* first = Make(env);
  rec->extract(first);  // listening from now on
  BaseOnlyI* named = Make(env, "named");
  EXPECT_EQ(first->getEnv(), env.getImpl());
  EXPECT_EQ(first->getId(), 0);
  EXPECT_EQ(named->getId(), 1);
  EXPECT_EQ(env.getImpl()->getExtractable(1), named);
  EXPECT_STREQ(named->getName(), "named");
  EXPECT_EQ(first->getName(), nullptr);
  EXPECT_EQ(first->getExtension(), nullptr);
  EXPECT_NE(named->getExtension(), nullptr);
  EXPECT_TRUE(rec->notices.empty());
  delete rec;
  first->end();
  named->end();
  env.end();
}

TEST(ExtractableBase, FailedNamingUndoesTheRegistration) {
  const char* name = "a name of exactly 26 bytes";
  RefusingAllocator custom(std::strlen(name) + 1);
  QelEnv env;
  env.getImpl()->setCustomAllocator(&custom);
  BaseOnlyI* before = Make(env);
  EXPECT_THROW(Make(env, name), QelMemoryException);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 1);
  EXPECT_EQ(custom.live, 1);  // only the first object
  // The slot went back: the next object takes it.
  BaseOnlyI* next = Make(env, "short");
  EXPECT_EQ(next->getId(), 1);
  next->end();
  before->end();
  EXPECT_EQ(custom.live, 0);
  env.end();
}

TEST(ExtractableBase, FailedDerivedConstructorUndoesEverything) {
  QelEnv env;
  BaseOnlyI* before = Make(env);
  QelInt bytes = BytesInUse(env);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelNewObject<FailingI>(env.getImpl(), env.getImpl()); }),
            "refused");
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 1);
  EXPECT_EQ(BytesInUse(env), bytes);
  BaseOnlyI* next = Make(env);
  EXPECT_EQ(next->getId(), 1);
  next->end();
  before->end();
  env.end();
}

// ---- name, location, user object ---------------------------------------------

TEST(ExtractableName, NullNameOnUnnamedObjectDoesNothing) {
  QelEnv env;
  BaseOnlyI* x = Make(env);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(x);
  x->setName(nullptr);
  EXPECT_TRUE(rec->notices.empty());
  EXPECT_EQ(x->getExtension(), nullptr);
  EXPECT_EQ(x->getName(), nullptr);
  delete rec;
  x->end();
  env.end();
}

TEST(ExtractableName, EverySetNameNotifiesEvenWithTheSameName) {
  QelEnv env;
  BaseOnlyI* x = Make(env);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(x);
  x->setName("a");
  x->setName("a");
  EXPECT_STREQ(x->getName(), "a");
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetNameChange", "QelSetNameChange"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{x, x}));

  // Clearing a name notifies too; clearing it again does not.
  x->setName(nullptr);
  EXPECT_EQ(x->getName(), nullptr);
  EXPECT_EQ(rec->notices.size(), 3U);
  x->setName(nullptr);
  EXPECT_EQ(rec->notices.size(), 3U);

  // The name is copied.
  char text[] = "copied";
  x->setName(text);
  std::strcpy(text, "xxxxxx");
  EXPECT_STREQ(x->getName(), "copied");
  EXPECT_NE(x->getName(), text);

  // Through the handle.
  QelExtractable h(x);
  h.setName("by handle");
  EXPECT_STREQ(h.getName(), "by handle");
  EXPECT_EQ(rec->notices.size(), 5U);
  delete rec;
  x->end();
  env.end();
}

TEST(ExtractableName, SilentSettersAndTheExtension) {
  QelEnv env;
  BaseOnlyI* x = Make(env);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(x);

  x->setNameNoNotif(nullptr);
  EXPECT_EQ(x->getExtension(), nullptr);
  x->setObject(nullptr);
  EXPECT_EQ(x->getExtension(), nullptr);
  EXPECT_EQ(x->getObject(), nullptr);
  EXPECT_EQ(x->getFile(), nullptr);
  EXPECT_EQ(x->getLine(), 0);

  x->setLocation(nullptr, 0);
  QelExtension* ext = x->getExtension();
  ASSERT_NE(ext, nullptr);
  EXPECT_EQ(x->getFile(), nullptr);

  x->setNameNoNotif("quiet");
  EXPECT_STREQ(x->getName(), "quiet");
  int user = 1;
  x->setObject(&user);
  EXPECT_EQ(x->getObject(), &user);
  x->setLocation("here.cpp", 9);
  EXPECT_STREQ(x->getFile(), "here.cpp");
  EXPECT_EQ(x->getLine(), 9);
  EXPECT_EQ(x->getExtension(), ext);
  // With an extension, null clears.
  x->setNameNoNotif(nullptr);
  EXPECT_EQ(x->getName(), nullptr);
  x->setObject(nullptr);
  EXPECT_EQ(x->getObject(), nullptr);
  EXPECT_TRUE(rec->notices.empty());

  // A non-null user object alone makes the extension.
  BaseOnlyI* y = Make(env);
  y->setObject(&user);
  EXPECT_NE(y->getExtension(), nullptr);
  QelExtractable hy(y);
  EXPECT_EQ(hy.getObject(), &user);
  hy.setObject(nullptr);
  EXPECT_EQ(hy.getObject(), nullptr);
  hy.setLocation("there.cpp", 2);
  EXPECT_STREQ(y->getFile(), "there.cpp");
  delete rec;
  x->end();
  y->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

// ---- notices and removal --------------------------------------------------------

TEST(ExtractableLife, NotifyGoesToTheEnvironmentBroadcast) {
  QelEnv env;
  BaseOnlyI* x = Make(env);
  BaseOnlyI* y = Make(env);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(x);
  QelSetNameChange about(y);
  y->notify(about);  // y was not extracted
  EXPECT_TRUE(rec->notices.empty());
  x->notify(about);
  EXPECT_EQ(rec->notices, (std::vector<std::string>{"QelSetNameChange"}));
  EXPECT_EQ(rec->objects, (std::vector<const QelExtractableI*>{x}));
  delete rec;
  x->end();
  y->end();
  env.end();
}

TEST(ExtractableLife, EndRemovesEverywhereAndGivesMemoryBack) {
  QelEnv env;
  QelInt before = BytesInUse(env);
  BaseOnlyI* x = Make(env, "x");
  x->setLocation("a.cpp", 1);
  x->setIntProperty("p", 1);
  x->setStringProperty("s", "value");
  QelModel m(env);
  m.add(x);
  DependantI* d = QelNewObject<DependantI>(env.getImpl(), env.getImpl(), x);
  QelInt id = x->getId();
  QelInt dependantId = d->getId();
  QelExtractable(x).end();
  EXPECT_EQ(env.getImpl()->getExtractable(id), nullptr);
  // The dependant ended with it; the model dropped it.
  EXPECT_EQ(env.getImpl()->getExtractable(dependantId), nullptr);
  EXPECT_EQ(m.getImpl()->getMembers().getSize(), 0);
  m.end();
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 0);
  EXPECT_EQ(BytesInUse(env), before);
  env.end();
}

TEST(ExtractableLife, EndOnAnEndedObjectDoesNothing) {
  QelEnv env;
  BaseOnlyI* x = Make(env, "x");
  BaseOnlyI* other = Make(env);
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(x);
  // Unregistered, the object is ended as far as the environment knows
  // (id -1) but still in memory.
  env.getImpl()->unregister(x);
  EXPECT_EQ(x->getId(), -1);
  QelInt bytes = BytesInUse(env);
  QelInt count = env.getImpl()->getNumberOfExtractables();
  x->end();
  x->end();
  EXPECT_EQ(BytesInUse(env), bytes);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), count);
  EXPECT_TRUE(rec->notices.empty());
  EXPECT_STREQ(x->getName(), "x");
  // Deleting it now only gives its memory back.
  delete x;
  EXPECT_LT(BytesInUse(env), bytes);
  EXPECT_EQ(env.getImpl()->getExtractable(other->getId()), other);
  delete rec;
  other->end();
  env.end();
}

TEST(ExtractableLife, DeleteUnregistersTheObject) {
  QelEnv env;
  QelInt before = BytesInUse(env);
  BaseOnlyI* x = Make(env, "deleted");
  BaseOnlyI* keep = Make(env);
  QelModel m(env);
  m.add(x);
  m.add(keep);
  DependantI* d = QelNewObject<DependantI>(env.getImpl(), env.getImpl(), x);
  QelInt id = x->getId();
  QelInt dependantId = d->getId();
  RecordingAlgorithmI* rec = MakeRecorder(env);
  rec->extract(m.getImpl());

  delete x;  // not through end(): operator delete unregisters it
  EXPECT_EQ(env.getImpl()->getExtractable(id), nullptr);
  EXPECT_EQ(env.getImpl()->getExtractable(dependantId), nullptr);
  EXPECT_EQ(m.getImpl()->getMembers().getSize(), 1);
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), 2);
  // The algorithm heard that the object went.
  EXPECT_NE(std::find(rec->notices.begin(), rec->notices.end(), "QelRemoveFromAllChange"),
            rec->notices.end());
  // Its slot is free again.
  BaseOnlyI* y = Make(env);
  EXPECT_TRUE(y->getId() == id || y->getId() == dependantId);
  y->end();
  delete rec;
  keep->end();
  m.end();
  EXPECT_EQ(BytesInUse(env), before);
  env.end();
}

TEST(ExtractableLife, RemoveFromAllKeepsTheObject) {
  QelEnv env;
  BaseOnlyI* x = Make(env);
  QelModel m(env);
  m.add(x);
  m.add(x);
  QelExtractable(x).removeFromAll();
  EXPECT_EQ(m.getImpl()->getMembers().getSize(), 0);
  EXPECT_EQ(env.getImpl()->getExtractable(x->getId()), x);
  x->end();
  m.end();
  env.end();
}

// ---- cloning ----------------------------------------------------------------------

TEST(ExtractableClone, BaseObjectHasNoCloneMechanism) {
  QelEnv env;
  QelEnv target;
  std::vector<BaseOnlyI*> xs;
  for (int i = 0; i < 8; ++i) xs.push_back(Make(env));
  BaseOnlyI* seventh = xs[7];
  ASSERT_EQ(seventh->getId(), 7);
  try {
    seventh->makeClone(target.getImpl());
    ADD_FAILURE() << "no exception";
  } catch (const QelExtractable::NoCloneMechanismException& e) {
    std::ostringstream os;
    e.print(os);
    EXPECT_EQ(os.str(), "Extractable with id 7 do not have clone mechanism");
    EXPECT_STREQ(e.getMessage(), "Extractable do not have clone mechanism");
    EXPECT_EQ(e.getCode(), 0);
    EXPECT_EQ(e.getExtractable(), seventh);
    EXPECT_EQ(Print(static_cast<const QelException&>(e)),
              "Extractable with id 7 do not have clone mechanism");
  }
  // The same through the environment's clone map; nothing is left behind.
  EXPECT_EQ(MessageOf<QelExtractable::NoCloneMechanismException>(
                [&] { target.getImpl()->getClone(xs[3]); }),
            "Extractable do not have clone mechanism");
  EXPECT_EQ(target.getImpl()->getNumberOfExtractables(), 0);
  EXPECT_EQ(target.getImpl()->findClone(xs[3]), nullptr);
  for (BaseOnlyI* x : xs) x->end();
  env.end();
  target.end();
}

// ---- printing ----------------------------------------------------------------------

TEST(ExtractablePrint, BaseDisplayWritesUnknowAndTheId) {
  QelEnv env;
  std::vector<BaseOnlyI*> xs;
  for (int i = 0; i < 13; ++i) xs.push_back(Make(env, i == 12 ? "named" : nullptr));
  BaseOnlyI* twelve = xs[12];
  ASSERT_EQ(twelve->getId(), 12);
  EXPECT_EQ(Display(twelve), "QelExtractable unknow12\n");
  EXPECT_EQ(Print(QelExtractable(twelve)), "QelExtractable unknow12\n");
  EXPECT_EQ(Display(xs[0]), "QelExtractable unknow0\n");
  EXPECT_EQ(Print(QelExtractable()), "");
  for (BaseOnlyI* x : xs) x->end();
  env.end();
}

// ---- base virtual operations ----------------------------------------------------------

TEST(ExtractableVirtuals, BaseAnswers) {
  QelEnv env;
  BaseOnlyI* x = Make(env);
  QelAlgorithm alg(env);
  EXPECT_FALSE(x->isRefCountedExpr());
  EXPECT_FALSE(x->hasNongroundType());
  EXPECT_FALSE(x->isAggregate());
  EXPECT_FALSE(x->isGenerator());
  EXPECT_FALSE(x->isComprehension());
  EXPECT_FALSE(x->isAnyExpr());
  EXPECT_FALSE(x->isNumExpr());
  EXPECT_FALSE(x->isNumVar());
  EXPECT_FALSE(x->isDExpr());
  EXPECT_FALSE(x->isConstraint());
  EXPECT_FALSE(x->isModel());
  EXPECT_EQ(x->getExprUsed(), -1);
  x->resetExprUsed();
  EXPECT_EQ(x->getExprUsed(), -1);
  EXPECT_FALSE(x->isZolRefCounted());
  EXPECT_EQ(x->makeZolClone(env.getImpl()), nullptr);
  x->garbage();
  x->changeParameter(nullptr);
  x->endParameter(nullptr);
  EXPECT_EQ(x->whenAddedToCP(alg, nullptr), nullptr);
  EXPECT_EQ(x->whenRemovedFromCP(alg, nullptr), nullptr);
  EXPECT_EQ(x->getMemoryManager(), env.getImpl()->getGeneralAllocator());
  // With no engine, the extraction hooks of the class fail.
  EXPECT_THROW(x->extractToCP(alg), QelAlgorithm::ExtractFailure);
  EXPECT_THROW(x->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(x->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_EQ(env.getImpl()->getExtractable(x->getId()), x);
  alg.end();
  x->end();
  env.end();
}

// ---- handle queries ---------------------------------------------------------------------

TEST(ExtractableHandle, ModelQueries) {
  QelEnv env;
  QelModel m(env);
  QelExtractable h = m;
  EXPECT_TRUE(h.isModel());
  QelModel asModel = h.asModel();
  EXPECT_EQ(asModel.getImpl(), m.getImpl());
  EXPECT_FALSE(h.isObjective());
  EXPECT_EQ(h.asObjective().getImpl(), nullptr);
  EXPECT_FALSE(h.isConstraint());
  EXPECT_EQ(h.asConstraint().getImpl(), nullptr);
  EXPECT_FALSE(h.isNumExpr());
  EXPECT_EQ(h.asNumExpr().getImpl(), nullptr);
  EXPECT_FALSE(h.isIntExpr());
  EXPECT_EQ(h.asIntExpr().getImpl(), nullptr);
  EXPECT_FALSE(h.isVariable());
  EXPECT_EQ(h.asVariable().getImpl(), nullptr);
  EXPECT_EQ(h.getId(), m.getImpl()->getId());
  EXPECT_TRUE(h.getEnv() == env);
  m.end();
  env.end();
}

TEST(ExtractableHandle, OtherKinds) {
  QelEnv env;
  QelObjective obj(env, 2.0);
  QelAllDiff diff(env);
  QelIntVar x(env, 0, 3);
  QelNumVar y(env, 0.0, 1.0);
  QelNumExpr sum = x + y;

  QelExtractable ho = obj;
  EXPECT_TRUE(ho.isObjective());
  EXPECT_EQ(ho.asObjective().getImpl(), obj.getImpl());
  EXPECT_FALSE(ho.isModel());
  EXPECT_EQ(ho.asModel().getImpl(), nullptr);

  QelExtractable hd = diff;
  EXPECT_TRUE(hd.isConstraint());
  EXPECT_EQ(hd.asConstraint().getImpl(), diff.getImpl());
  EXPECT_FALSE(hd.isObjective());

  QelExtractable hx = x;
  EXPECT_TRUE(hx.isVariable());
  EXPECT_EQ(hx.asVariable().getImpl(), x.getImpl());
  EXPECT_TRUE(hx.isNumExpr());
  EXPECT_EQ(hx.asNumExpr().getImpl(), x.getImpl());
  EXPECT_TRUE(hx.isIntExpr());
  EXPECT_EQ(hx.asIntExpr().getImpl(), x.getImpl());
  EXPECT_FALSE(hx.isConstraint());

  QelExtractable hy = y;
  EXPECT_TRUE(hy.isVariable());
  EXPECT_TRUE(hy.isNumExpr());

  QelExtractable hs = sum;
  EXPECT_TRUE(hs.isNumExpr());
  EXPECT_FALSE(hs.isVariable());
  EXPECT_EQ(hs.asVariable().getImpl(), nullptr);
  obj.end();
  diff.end();
  env.end();
}

TEST(ExtractableHandle, EveryQueryOnAnEmptyHandleThrows) {
  QelExtractable none;
  const std::string text = "Using empty Handle";
  using E = QelEmptyHandleException;
  EXPECT_EQ(MessageOf<E>([&] { none.isConstraint(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.asConstraint(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.isObjective(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.asObjective(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.isModel(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.asModel(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.isNumExpr(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.asNumExpr(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.isIntExpr(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.asIntExpr(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.isVariable(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.asVariable(); }), text);
  // The other checked operations of the handle.
  EXPECT_EQ(MessageOf<E>([&] { none.getEnv(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.getId(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.getName(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.setName("n"); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.setLocation("f", 1); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.setObject(nullptr); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.getObject(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.end(); }), text);
  EXPECT_EQ(MessageOf<E>([&] { none.removeFromAll(); }), text);
}

TEST(ExtractableHandle, EqualityComparesTheObjects) {
  QelEnv env;
  BaseOnlyI* a = Make(env);
  BaseOnlyI* b = Make(env);
  EXPECT_TRUE(QelExtractable(a) == QelExtractable(a));
  EXPECT_FALSE(QelExtractable(a) == QelExtractable(b));
  EXPECT_TRUE(QelExtractable(a) != QelExtractable(b));
  EXPECT_TRUE(QelExtractable() == QelExtractable(nullptr));
  a->end();
  b->end();
  env.end();
}

}  // namespace

// ---- deleting directly where the environment refuses ----------------------------

namespace {

// An algorithm whose listener fails on every notice.
class ThrowingListenerI : public RecordingAlgorithmI {
 public:
  using RecordingAlgorithmI::RecordingAlgorithmI;
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    RecordingAlgorithmI::notifyChange(x, c);
    throw QelWrongUsage("listener failed");
  }
};

}  // namespace

TEST(ExtractableDirectDelete, FromAnotherThreadIsRefusedWithAnExceptionNotATerminate) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  BaseOnlyI* bare = Make(env);            // its destructors free nothing
  BaseOnlyI* named = Make(env, "named");  // its destructor would free the name
  BaseOnlyI* keep = Make(env);
  QelInt bareId = bare->getId();
  QelInt namedId = named->getId();
  EXPECT_EQ(qeltest::OutcomeOnAnotherThread([&] { delete bare; }), "refused");
  EXPECT_EQ(qeltest::OutcomeOnAnotherThread([&] { delete named; }), "refused");
  // Both count as ended: their slots are free, nothing else changed.
  EXPECT_EQ(e->getExtractable(bareId), nullptr);
  EXPECT_EQ(e->getExtractable(namedId), nullptr);
  EXPECT_EQ(e->getNumberOfExtractables(), 1);
  EXPECT_EQ(e->getExtractable(keep->getId()), keep);
  // The environment goes on working on its own thread.
  BaseOnlyI* next = Make(env, "next");
  EXPECT_TRUE(next->getId() == bareId || next->getId() == namedId);
  next->end();
  keep->end();
  EXPECT_EQ(e->getNumberOfExtractables(), 0);
  env.end();
}

TEST(ExtractableDirectDelete, WithAllocationDisabledIsRefusedWithAnException) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  BaseOnlyI* x = Make(env, "x");
  QelInt id = x->getId();
  e->setAllocationDisabled(true);
  EXPECT_THROW(delete x, QelEnvAllocationDisabled);
  e->setAllocationDisabled(false);
  EXPECT_EQ(e->getExtractable(id), nullptr);
  EXPECT_EQ(e->getNumberOfExtractables(), 0);
  env.end();
}

TEST(ExtractableDirectDelete, AFailingListenerLeavesNoStaleCacheEntryAndNoMemory) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  QelInt before = BytesInUse(env);
  BaseOnlyI* x = Make(env, "x");
  BaseOnlyI* other = Make(env);
  EXPECT_FALSE(x->isDecisionExpr());
  EXPECT_FALSE(other->isDecisionExpr());
  QelDecisionExprMap* map = e->getDecisionExprMapOrNull();
  ASSERT_NE(map, nullptr);
  ASSERT_EQ(map->getCount(), 2);
  auto* rec = QelNewObject<ThrowingListenerI>(e, e);
  rec->extract(x);
  const QelExtractableI* address = x;
  QelInt id = x->getId();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { delete x; }), "listener failed");
  // The entry keyed by the freed address went with the object.
  EXPECT_EQ(map->getCount(), 1);
  EXPECT_EQ(map->find(address), nullptr);
  EXPECT_EQ(e->getExtractable(id), nullptr);
  delete rec;
  other->end();
  EXPECT_EQ(BytesInUse(env), before);
  env.end();
}

// The environment: extractable table, decision-expression map, clone map,
// flags, change broadcast, extraction registry and the handle.
#include "support/qeltest.h"
#include "support/refusing.h"

#include <string>
#include <vector>

namespace {

using qeltest::MakeRecorder;
using qeltest::MessageOf;
using qeltest::RecordingAlgorithmI;

// A leaf object of the tests' own; counts the clones it makes.
class EnvLeafI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(EnvLeafI, QelExtractableI)

 public:
  explicit EnvLeafI(QelEnvI* env, const char* name = nullptr) : QelExtractableI(env, name) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
  QelExtractableI* makeClone(QelEnvI* env) const override {
    ++clones;
    return QelNewObject<EnvLeafI>(env, env);
  }
  static int clones;
};
QEL_EXTRACTABLE_DEF(EnvLeafI)
int EnvLeafI::clones = 0;

// An object holding one other object; clones it through getClone.
class EnvPairI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(EnvPairI, QelExtractableI)

 public:
  EnvPairI(QelEnvI* env, QelExtractableI* a, QelExtractableI* b)
      : QelExtractableI(env), _a(a), _b(b) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->visitChildren(this, _a);
    v->visitChildren(this, _b);
    v->endVisit(this);
  }
  QelExtractableI* makeClone(QelEnvI* env) const override {
    return QelNewObject<EnvPairI>(env, env, env->getClone(_a), env->getClone(_b));
  }
  QelExtractableI* first() const { return _a; }
  QelExtractableI* second() const { return _b; }

 private:
  QelExtractableI* _a;
  QelExtractableI* _b;
};
QEL_EXTRACTABLE_DEF(EnvPairI)

// A notice of the tests' own: counts its visits.
class EnvTestNotice : public QelChange {
  QEL_CHANGE_DECL(EnvTestNotice, QelChange)

 public:
  void visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const override { ++visits; }
  mutable int visits = 0;
};
QEL_CHANGE_DEF(EnvTestNotice)

EnvLeafI* Leaf(QelEnv env, const char* name = nullptr) {
  return QelNewObject<EnvLeafI>(env.getImpl(), env.getImpl(), name);
}

long BadHash(const QelExtractableI*, long bucketCount) { return bucketCount; }
long NegativeHash(const QelExtractableI*, long) { return -1; }
// Good for four buckets; for any other count, good four times, then bad:
// a re-hash fails half-way.
int growHashCalls = 0;
long BadWhenGrown(const QelExtractableI* key, long bucketCount) {
  if (bucketCount != 4 && ++growHashCalls > 4) return -1;
  return QelDecisionExprMap::DefaultHash(key, bucketCount);
}

// ---- the extractable table -------------------------------------------------

TEST(EnvTable, IdsAreDenseFromZero) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EXPECT_EQ(e->getExtractableTableSize(), 0);
  EXPECT_EQ(e->getNumberOfExtractables(), 0);
  std::vector<EnvLeafI*> xs;
  for (int i = 0; i < 10; ++i) xs.push_back(Leaf(env));
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(xs[static_cast<size_t>(i)]->getId(), i);
    EXPECT_EQ(e->getExtractable(i), xs[static_cast<size_t>(i)]);
    EXPECT_EQ(e->getExtractableTable()[i],
              reinterpret_cast<std::uintptr_t>(xs[static_cast<size_t>(i)]));
  }
  EXPECT_EQ(e->getExtractableTableSize(), 10);
  EXPECT_EQ(e->getNumberOfExtractables(), 10);
  EXPECT_EQ(e->getExtractable(10), nullptr);
  EXPECT_EQ(e->getExtractable(-1), nullptr);
  for (EnvLeafI* x : xs) x->end();
  EXPECT_EQ(e->getNumberOfExtractables(), 0);
  env.end();
}

TEST(EnvTable, EndedIdsAreReusedLastFreedFirst) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  std::vector<EnvLeafI*> xs;
  for (int i = 0; i < 6; ++i) xs.push_back(Leaf(env));
  xs[2]->end();
  xs[4]->end();
  EXPECT_EQ(e->getExtractable(2), nullptr);
  EXPECT_EQ(e->getExtractable(4), nullptr);
  EXPECT_EQ(e->getNumberOfExtractables(), 4);
  EXPECT_EQ(e->getExtractableTableSize(), 6);
  // A freed slot holds a link into the table (or the end of the chain).
  std::uintptr_t slot4 = e->getExtractableTable()[4];
  EXPECT_TRUE(e->isTableLink(slot4));
  EXPECT_EQ(slot4, reinterpret_cast<std::uintptr_t>(e->getExtractableTable() + 2));

  EnvLeafI* a = Leaf(env);
  EnvLeafI* b = Leaf(env);
  EnvLeafI* c = Leaf(env);
  EXPECT_EQ(a->getId(), 4);
  EXPECT_EQ(b->getId(), 2);
  EXPECT_EQ(c->getId(), 6);
  EXPECT_EQ(e->getExtractable(4), a);
  EXPECT_EQ(e->getExtractable(2), b);
  EXPECT_EQ(e->getExtractable(6), c);
  EXPECT_EQ(e->getNumberOfExtractables(), 7);
  env.end();
}

TEST(EnvTable, ReservedSlotsKeepTheTableInPlaceAndItsLinksRight) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  std::vector<EnvLeafI*> xs;
  for (int i = 0; i < 6; ++i) xs.push_back(Leaf(env));
  xs[1]->end();
  xs[3]->end();  // free-slot chain: 3 -> 1
  QelInt internal = e->getInternalBytes();
  QelInt objects = e->getBytesInUse();
  e->reserveSlots(1000);
  const std::uintptr_t* table = e->getExtractableTable();
  EXPECT_GT(e->getInternalBytes(), internal);  // bookkeeping memory,
  EXPECT_EQ(e->getBytesInUse(), objects);      // not object memory
  EXPECT_EQ(e->getExtractableTableSize(), 6);
  EXPECT_EQ(e->getNumberOfExtractables(), 4);
  // The free-slot links moved with the table.
  EXPECT_EQ(table[3], reinterpret_cast<std::uintptr_t>(table + 1));
  EXPECT_EQ(e->getExtractable(5), xs[5]);
  // Within the room already there, nothing moves.
  e->reserveSlots(0);
  e->reserveSlots(-5);
  e->reserveSlots(10);
  EXPECT_EQ(e->getExtractableTable(), table);
  std::vector<EnvLeafI*> more;
  for (int i = 0; i < 1000; ++i) more.push_back(Leaf(env));
  EXPECT_EQ(e->getExtractableTable(), table);  // no growth while making them
  EXPECT_EQ(more[0]->getId(), 3);              // freed slots still come first
  EXPECT_EQ(more[1]->getId(), 1);
  EXPECT_EQ(more[2]->getId(), 6);
  EXPECT_EQ(e->getExtractable(1003), more[999]);
  env.end();
}

TEST(EnvTable, GrowingPastSixtyFourAndOneHundredTwentyEightKeepsLinks) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  std::vector<EnvLeafI*> byId;
  for (int i = 0; i < 150; ++i) byId.push_back(Leaf(env));
  for (int i = 0; i < 150; ++i) ASSERT_EQ(byId[static_cast<size_t>(i)]->getId(), i);

  // End every other one: 75 free slots linked through the table.
  for (int i = 0; i < 150; i += 2) {
    byId[static_cast<size_t>(i)]->end();
    byId[static_cast<size_t>(i)] = nullptr;
  }
  EXPECT_EQ(e->getNumberOfExtractables(), 75);
  for (int i = 0; i < 150; i += 2) EXPECT_EQ(e->getExtractable(i), nullptr);

  // Create again: the freed ids come back, last freed first, then the
  // table grows past 256 slots.
  for (int k = 0; k < 200; ++k) {
    EnvLeafI* x = Leaf(env);
    QelInt expected = k < 75 ? 148 - 2 * k : 150 + (k - 75);
    ASSERT_EQ(x->getId(), expected) << "creation " << k;
    if (expected >= static_cast<QelInt>(byId.size()))
      byId.resize(static_cast<size_t>(expected) + 1);
    byId[static_cast<size_t>(expected)] = x;
  }
  EXPECT_EQ(e->getExtractableTableSize(), 275);
  EXPECT_EQ(e->getNumberOfExtractables(), 275);
  for (QelInt id = 0; id < 275; ++id)
    ASSERT_EQ(e->getExtractable(id), byId[static_cast<size_t>(id)]) << "id " << id;

  // And once more, across a growth with freed slots in between.
  for (QelInt id = 1; id < 275; id += 3) {
    byId[static_cast<size_t>(id)]->end();
    byId[static_cast<size_t>(id)] = nullptr;
  }
  std::vector<QelInt> reused;
  for (int k = 0; k < 400; ++k) {
    EnvLeafI* x = Leaf(env);
    QelInt id = x->getId();
    if (id >= static_cast<QelInt>(byId.size())) byId.resize(static_cast<size_t>(id) + 1);
    ASSERT_EQ(byId[static_cast<size_t>(id)], nullptr) << "id " << id << " given twice";
    byId[static_cast<size_t>(id)] = x;
  }
  EXPECT_EQ(e->getNumberOfExtractables(), 275 - 92 + 400);
  for (QelInt id = 0; id < e->getExtractableTableSize(); ++id)
    ASSERT_EQ(e->getExtractable(id), byId[static_cast<size_t>(id)]) << "id " << id;
  env.end();
}

TEST(EnvTable, UnregisterFreesTheSlotAndMarksTheObject) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  EnvLeafI* b = Leaf(env);
  e->unregister(b);
  EXPECT_EQ(b->getId(), -1);
  EXPECT_EQ(e->getExtractable(1), nullptr);
  EXPECT_EQ(e->getNumberOfExtractables(), 1);
  // A second unregister does nothing.
  e->unregister(b);
  EXPECT_EQ(e->getNumberOfExtractables(), 1);
  // The object is gone from the table: delete only gives its memory back.
  delete b;
  EnvLeafI* c = Leaf(env);
  EXPECT_EQ(c->getId(), 1);
  a->end();
  c->end();
  env.end();
}

TEST(EnvTable, MarkAndUnmark) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  EXPECT_FALSE(QelEnvI::IsMarked(a));
  e->mark(a);
  EXPECT_EQ(e->getExtractableTable()[a->getId()], QelEnvI::RemovalMark);
  EXPECT_TRUE(QelEnvI::IsMarked(a));
  EXPECT_EQ(e->getExtractable(a->getId()), nullptr);
  e->unmark(a);
  EXPECT_FALSE(QelEnvI::IsMarked(a));
  EXPECT_EQ(e->getExtractable(a->getId()), a);
  EXPECT_TRUE(QelEnvI::IsMarked(nullptr));
  a->end();
  env.end();
}

// ---- the decision-expression map -------------------------------------------

TEST(EnvDecisionMap, FourBucketsDoubleToEightOnTheNinthInsert) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  std::vector<EnvLeafI*> keys;
  for (int i = 0; i < 12; ++i) keys.push_back(Leaf(env));
  QelInt before = e->getBytesInUse();
  {
    QelDecisionExprMap map(e->getGeneralAllocator(), 4);
    EXPECT_FALSE(map.hasBuckets());
    EXPECT_EQ(map.find(keys[0]), nullptr);  // no buckets yet: nothing to hash
    EXPECT_FALSE(map.hasBuckets());
    for (int i = 0; i < 8; ++i) {
      map.insert(keys[static_cast<size_t>(i)], i % 2);
      EXPECT_EQ(map.getBucketCount(), 4) << "after insert " << i + 1;
    }
    EXPECT_TRUE(map.hasBuckets());
    EXPECT_EQ(map.getCount(), 8);
    map.insert(keys[8], 1);
    EXPECT_EQ(map.getCount(), 9);
    EXPECT_EQ(map.getBucketCount(), 8);
    // Every entry survived the re-hash.
    for (int i = 0; i < 9; ++i) {
      QelDecisionExprMap::Node* n = map.find(keys[static_cast<size_t>(i)]);
      ASSERT_NE(n, nullptr) << "key " << i;
      EXPECT_EQ(n->key, keys[static_cast<size_t>(i)]);
      EXPECT_EQ(n->value, i == 8 ? 1 : i % 2);
    }
    EXPECT_EQ(map.find(keys[9]), nullptr);
    // Up to sixteen entries in eight buckets; the seventeenth doubles again.
    for (int i = 9; i < 12; ++i) map.insert(keys[static_cast<size_t>(i)], 0);
    EXPECT_EQ(map.getBucketCount(), 8);

    map.remove(keys[3]);
    EXPECT_EQ(map.getCount(), 11);
    EXPECT_EQ(map.find(keys[3]), nullptr);
    map.remove(keys[3]);  // absent: nothing changes
    EXPECT_EQ(map.getCount(), 11);
    for (int i = 0; i < 12; ++i)
      if (i != 3) {
        EXPECT_NE(map.find(keys[static_cast<size_t>(i)]), nullptr) << i;
      }
  }
  // The map gave back every node and its buckets.
  EXPECT_EQ(e->getBytesInUse(), before);
  for (EnvLeafI* k : keys) k->end();
  env.end();
}

TEST(EnvDecisionMap, NewestEntryOfABucketIsFoundFirst) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  {
    QelDecisionExprMap map(e->getGeneralAllocator(), 4);
    map.insert(a, 0);
    map.insert(a, 1);
    EXPECT_EQ(map.find(a)->value, 1);
    map.remove(a);
    EXPECT_EQ(map.find(a)->value, 0);
    map.remove(a);
    EXPECT_EQ(map.find(a), nullptr);
    EXPECT_EQ(map.getCount(), 0);
  }
  a->end();
  env.end();
}

TEST(EnvDecisionMap, RemoveMakesTheBucketsWhenAbsent) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  {
    QelDecisionExprMap map(e->getGeneralAllocator(), 4);
    map.remove(a);
    EXPECT_TRUE(map.hasBuckets());
    EXPECT_EQ(map.getCount(), 0);
  }
  a->end();
  env.end();
}

TEST(EnvDecisionMap, BadHashIndexThrowsAtFindInsertAndRemove) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  EnvLeafI* b = Leaf(env);
  QelInt before = e->getBytesInUse();
  {
    QelDecisionExprMap fresh(e->getGeneralAllocator(), 4);
    fresh.setHashFunction(&BadHash);
    EXPECT_EQ(MessageOf<QelWrongUsage>([&] { fresh.insert(a, 1); }),
              "Hash function returned bad index");
    EXPECT_EQ(fresh.getCount(), 0);
  }
  EXPECT_EQ(e->getBytesInUse(), before);
  {
    QelDecisionExprMap map(e->getGeneralAllocator(), 4);
    map.insert(a, 1);
    for (auto bad : {&BadHash, &NegativeHash}) {
      map.setHashFunction(bad);
      EXPECT_EQ(MessageOf<QelWrongUsage>([&] { map.find(a); }), "Hash function returned bad index");
      EXPECT_EQ(MessageOf<QelWrongUsage>([&] { map.insert(b, 0); }),
                "Hash function returned bad index");
      EXPECT_EQ(MessageOf<QelWrongUsage>([&] { map.remove(a); }),
                "Hash function returned bad index");
      // Nothing changed.
      EXPECT_EQ(map.getCount(), 1);
    }
    map.setHashFunction(&QelDecisionExprMap::DefaultHash);
    EXPECT_EQ(map.find(a)->value, 1);
    EXPECT_EQ(map.find(b), nullptr);
  }
  EXPECT_EQ(e->getBytesInUse(), before);
  a->end();
  b->end();
  env.end();
}

TEST(EnvDecisionMap, BadHashDuringReHashLeavesTheMapAsItWas) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  std::vector<EnvLeafI*> keys;
  for (int i = 0; i < 9; ++i) keys.push_back(Leaf(env));
  QelInt before = e->getBytesInUse();
  {
    QelDecisionExprMap map(e->getGeneralAllocator(), 4);
    map.setHashFunction(&BadWhenGrown);
    for (int i = 0; i < 8; ++i) map.insert(keys[static_cast<size_t>(i)], 1);
    growHashCalls = 0;
    EXPECT_EQ(MessageOf<QelWrongUsage>([&] { map.insert(keys[8], 0); }),
              "Hash function returned bad index");
    EXPECT_GT(growHashCalls, 4);
    // The ninth entry is in; the map did not grow; every entry is found
    // exactly once.
    EXPECT_EQ(map.getCount(), 9);
    EXPECT_EQ(map.getBucketCount(), 4);
    for (int i = 0; i < 9; ++i) {
      QelDecisionExprMap::Node* n = map.find(keys[static_cast<size_t>(i)]);
      ASSERT_NE(n, nullptr) << "key " << i;
      EXPECT_EQ(n->value, i == 8 ? 0 : 1);
    }
    for (int i = 0; i < 9; ++i) map.remove(keys[static_cast<size_t>(i)]);
    EXPECT_EQ(map.getCount(), 0);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(map.find(keys[static_cast<size_t>(i)]), nullptr);
  }
  EXPECT_EQ(e->getBytesInUse(), before);
  for (EnvLeafI* k : keys) k->end();
  env.end();
}

TEST(EnvDecisionMap, EnvironmentMapIsMadeOnDemandOnce) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EXPECT_EQ(e->getDecisionExprMapOrNull(), nullptr);
  QelDecisionExprMap* map = e->getDecisionExprMap();
  ASSERT_NE(map, nullptr);
  EXPECT_EQ(e->getDecisionExprMap(), map);
  EXPECT_EQ(e->getDecisionExprMapOrNull(), map);
  EXPECT_EQ(map->getCount(), 0);
  env.end();
}

TEST(EnvDecisionMap, DestructorOfACachedObjectRemovesItsEntry) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  EnvLeafI* b = Leaf(env);
  EXPECT_FALSE(a->isDecisionExpr());
  EXPECT_FALSE(b->isDecisionExpr());
  QelDecisionExprMap* map = e->getDecisionExprMapOrNull();
  ASSERT_NE(map, nullptr);
  EXPECT_EQ(map->getCount(), 2);
  a->end();
  EXPECT_EQ(map->getCount(), 1);
  EXPECT_NE(map->find(b), nullptr);
  b->end();
  EXPECT_EQ(map->getCount(), 0);
  env.end();
}

TEST(EnvDecisionMap, BadHashThrowsFromTheDestructorOfACachedObject) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  a->setName("a");
  EXPECT_FALSE(a->isDecisionExpr());
  QelDecisionExprMap* map = e->getDecisionExprMap();
  map->setHashFunction(&BadHash);
  QelInt id = a->getId();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { a->end(); }), "Hash function returned bad index");
  // The object is gone from the table all the same.
  EXPECT_EQ(e->getExtractable(id), nullptr);
  EXPECT_EQ(e->getNumberOfExtractables(), 0);
  map->setHashFunction(&QelDecisionExprMap::DefaultHash);

  // An object the map never saw is hashed too (the map exists).
  map->setHashFunction(&NegativeHash);
  EnvLeafI* b = Leaf(env);
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { b->end(); }), "Hash function returned bad index");
  map->setHashFunction(&QelDecisionExprMap::DefaultHash);
  env.end();
}

// ---- the clone map ------------------------------------------------------------

TEST(EnvClone, OneCopyPerObjectWithinACopyOperation) {
  QelEnv source;
  QelEnv target;
  QelEnvI* t = target.getImpl();
  EnvLeafI* a = Leaf(source, "a");
  EnvLeafI::clones = 0;

  t->beginCopy();
  QelExtractableI* c1 = t->getClone(a);
  QelExtractableI* c2 = t->getClone(a);
  EXPECT_EQ(c1, c2);
  EXPECT_EQ(EnvLeafI::clones, 1);
  EXPECT_EQ(t->findClone(a), c1);
  EXPECT_EQ(c1->getEnv(), t);
  t->endCopy();
  EXPECT_EQ(t->findClone(a), nullptr);

  // A new copy operation makes a new copy.
  t->beginCopy();
  QelExtractableI* c3 = t->getClone(a);
  t->endCopy();
  EXPECT_NE(c3, c1);
  EXPECT_EQ(EnvLeafI::clones, 2);
  EXPECT_EQ(t->getClone(nullptr), nullptr);
  source.end();
  target.end();
}

TEST(EnvClone, GetCloneOutsideACopyOperationIsACopyOfItsOwn) {
  QelEnv source;
  QelEnv target;
  QelEnvI* t = target.getImpl();
  EnvLeafI* a = Leaf(source);
  EnvPairI* pair = QelNewObject<EnvPairI>(source.getImpl(), source.getImpl(), a, a);
  EnvLeafI::clones = 0;

  // The pair's two members are one object: cloned once within the call.
  auto* copy = static_cast<EnvPairI*>(t->getClone(pair));
  EXPECT_EQ(copy->first(), copy->second());
  EXPECT_EQ(EnvLeafI::clones, 1);
  EXPECT_EQ(t->findClone(pair), nullptr);

  QelExtractableI* again = t->getClone(a);
  EXPECT_NE(again, copy->first());
  EXPECT_EQ(EnvLeafI::clones, 2);

  // Nested copy operations: the outermost endCopy empties the map.
  t->beginCopy();
  t->beginCopy();
  QelExtractableI* inner = t->getClone(a);
  t->endCopy();
  EXPECT_EQ(t->getClone(a), inner);
  t->endCopy();
  EXPECT_EQ(t->findClone(a), nullptr);
  source.end();
  target.end();
}

TEST(EnvClone, ManyClonesInOneCopy) {
  QelEnv source;
  QelEnv target;
  QelEnvI* t = target.getImpl();
  std::vector<EnvLeafI*> xs;
  for (int i = 0; i < 100; ++i) xs.push_back(Leaf(source));
  std::vector<QelExtractableI*> copies;
  t->beginCopy();
  for (EnvLeafI* x : xs) copies.push_back(t->getClone(x));
  for (size_t i = 0; i < xs.size(); ++i) EXPECT_EQ(t->getClone(xs[i]), copies[i]);
  t->endCopy();
  EXPECT_EQ(target.getImpl()->getNumberOfExtractables(), 100);
  source.end();
  target.end();
}

TEST(EnvClone, OneCopyReadsFromSeveralEnvironmentsAndManyIds) {
  // Sources from two environments with overlapping ids, spread over
  // thousands of ids: each keeps its own copy for the whole operation.
  QelEnv first, second, target;
  QelEnvI* t = target.getImpl();
  std::vector<EnvLeafI*> xs;
  for (int i = 0; i < 3000; ++i) {
    xs.push_back(Leaf(first));
    xs.push_back(Leaf(second));
  }
  ASSERT_EQ(xs[0]->getId(), xs[1]->getId());
  std::vector<QelExtractableI*> copies;
  t->beginCopy();
  for (auto it = xs.rbegin(); it != xs.rend(); ++it) copies.push_back(t->getClone(*it));
  for (size_t i = 0; i < xs.size(); ++i) {
    QelExtractableI* c = copies[xs.size() - 1 - i];
    EXPECT_EQ(t->getClone(xs[i]), c);
    EXPECT_EQ(t->findClone(xs[i]), c);
  }
  t->endCopy();
  EXPECT_EQ(t->getNumberOfExtractables(), 6000);
  EXPECT_EQ(t->findClone(xs[0]), nullptr);
  first.end();
  second.end();
  target.end();
}

// ---- flags -----------------------------------------------------------------------

TEST(EnvFlags, DefaultsAndSetters) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EXPECT_EQ(e->getOneByOne(), 0);
  EXPECT_FALSE(e->getDetailedDisplay());
  EXPECT_FALSE(e->isAllocationDisabled());
  EXPECT_EQ(e->getCustomAllocator(), nullptr);
  e->setOneByOne(3);
  EXPECT_EQ(e->getOneByOne(), 3);
  e->setOneByOne(0);
  EXPECT_EQ(e->getOneByOne(), 0);
  e->setDetailedDisplay(true);
  EXPECT_TRUE(e->getDetailedDisplay());
  e->setDetailedDisplay(false);
  EXPECT_FALSE(e->getDetailedDisplay());
  env.end();
}

// ---- change broadcast ---------------------------------------------------------------

TEST(EnvChange, NoticeReachesOnlyTheAlgorithmsThatExtractedTheObject) {
  QelEnv env;
  EnvLeafI* a = Leaf(env);
  EnvLeafI* b = Leaf(env);
  RecordingAlgorithmI* ra = MakeRecorder(env);
  RecordingAlgorithmI* rb = MakeRecorder(env);
  RecordingAlgorithmI* idle = MakeRecorder(env);
  ra->extract(a);
  rb->extract(b);

  EnvTestNotice n;
  a->notify(n);
  EXPECT_EQ(ra->notices, (std::vector<std::string>{"EnvTestNotice"}));
  EXPECT_EQ(ra->objects, (std::vector<const QelExtractableI*>{a}));
  EXPECT_TRUE(rb->notices.empty());
  EXPECT_TRUE(idle->notices.empty());
  EXPECT_EQ(n.visits, 1);  // visitor mode: visitChange once

  env.getImpl()->change(b, n);
  EXPECT_EQ(ra->notices.size(), 1U);
  EXPECT_EQ(rb->notices, (std::vector<std::string>{"EnvTestNotice"}));
  EXPECT_EQ(n.visits, 2);

  // Both extracted b now.
  ra->extract(b);
  b->notify(n);
  EXPECT_EQ(ra->notices.size(), 2U);
  EXPECT_EQ(rb->notices.size(), 2U);
  EXPECT_TRUE(idle->notices.empty());
  delete ra;
  delete rb;
  delete idle;
  a->end();
  b->end();
  env.end();
}

TEST(EnvChange, NobodyListeningMeansNoDelivery) {
  QelEnv env;
  EnvLeafI* a = Leaf(env);
  EnvTestNotice n;
  a->notify(n);
  env.getImpl()->change(n);
  EXPECT_EQ(n.visits, 0);

  // An attached algorithm that extracted nothing does not listen.
  RecordingAlgorithmI* idle = MakeRecorder(env);
  a->notify(n);
  env.getImpl()->change(n);
  EXPECT_TRUE(idle->notices.empty());
  EXPECT_EQ(n.visits, 0);

  // Once it has cleared what it extracted it stops listening.
  idle->extract(a);
  idle->clear();
  a->notify(n);
  env.getImpl()->change(n);
  EXPECT_TRUE(idle->notices.empty());
  delete idle;
  a->end();
  env.end();
}

TEST(EnvChange, NoticeOfNoObjectReachesEveryListeningAlgorithm) {
  QelEnv env;
  EnvLeafI* a = Leaf(env);
  EnvLeafI* b = Leaf(env);
  RecordingAlgorithmI* ra = MakeRecorder(env);
  RecordingAlgorithmI* rb = MakeRecorder(env);
  RecordingAlgorithmI* idle = MakeRecorder(env);
  ra->extract(a);
  rb->extract(b);
  EnvTestNotice n;
  env.getImpl()->change(n);
  EXPECT_EQ(ra->notices, (std::vector<std::string>{"EnvTestNotice"}));
  EXPECT_EQ(rb->notices, (std::vector<std::string>{"EnvTestNotice"}));
  EXPECT_EQ(ra->objects, (std::vector<const QelExtractableI*>{nullptr}));
  EXPECT_TRUE(idle->notices.empty());
  EXPECT_EQ(n.visits, 2);
  delete ra;
  delete rb;
  delete idle;
  a->end();
  b->end();
  env.end();
}

TEST(EnvChange, ExceptionOfAListenerPassesThroughUnchanged) {
  QelEnv env;
  EnvLeafI* a = Leaf(env);
  class Throwing : public QelAlgorithmI {
   public:
    using QelAlgorithmI::QelAlgorithmI;
    void notifyChange(const QelExtractableI*, const QelChange&) override {
      throw QelWrongUsage("listener failed");
    }
  };
  Throwing* t = QelNewObject<Throwing>(env.getImpl(), env.getImpl());
  t->extract(a);
  EnvTestNotice n;
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { a->notify(n); }), "listener failed");
  delete t;
  a->end();
  env.end();
}

// ---- the extraction registry ---------------------------------------------------------

TEST(EnvRegistry, RecordDropAndKnows) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  QelExtractionRegistry& reg = e->getRegistry();
  std::vector<EnvLeafI*> xs;
  for (int i = 0; i < 3; ++i) xs.push_back(Leaf(env));
  EnvLeafI* owner = xs[0];
  EnvLeafI* sub = xs[1];
  EnvLeafI* other = xs[2];

  EXPECT_FALSE(reg.isExtracted(owner->getId(), 0));
  EXPECT_EQ(reg.getMask(owner->getId()), 0U);
  EXPECT_FALSE(reg.knows(owner, sub));

  reg.record(owner->getId(), 0);
  reg.record(sub->getId(), 5);
  EXPECT_TRUE(reg.isExtracted(owner->getId(), 0));
  EXPECT_FALSE(reg.isExtracted(owner->getId(), 5));
  EXPECT_FALSE(reg.knows(owner, sub));  // two different algorithms
  reg.record(sub->getId(), 0);
  EXPECT_TRUE(reg.knows(owner, sub));
  EXPECT_EQ(reg.getMask(sub->getId()), (1ULL << 0) | (1ULL << 5));
  EXPECT_FALSE(reg.knows(owner, other));
  EXPECT_FALSE(reg.knows(nullptr, sub));
  EXPECT_FALSE(reg.knows(owner, nullptr));

  reg.unrecord(sub->getId(), 0);
  EXPECT_FALSE(reg.knows(owner, sub));
  EXPECT_TRUE(reg.isExtracted(sub->getId(), 5));

  // The drop notification: no algorithm knows the object any more.
  reg.drop(sub->getId());
  EXPECT_EQ(reg.getMask(sub->getId()), 0U);
  reg.drop(-1);
  reg.drop(100000);

  // Ids beyond the first block make the registry grow.
  reg.record(1000, 63);
  EXPECT_TRUE(reg.isExtracted(1000, 63));
  EXPECT_TRUE(reg.isExtracted(owner->getId(), 0));
  reg.dropAlgorithm(0);
  EXPECT_FALSE(reg.isExtracted(owner->getId(), 0));
  EXPECT_TRUE(reg.isExtracted(1000, 63));
  EXPECT_EQ(reg.getMask(-5), 0U);
  for (EnvLeafI* x : xs) x->end();
  env.end();
}

TEST(EnvRegistry, ReservingMakesRoomOnceAndKeepsTheRecords) {
  QelEnv env;
  QelExtractionRegistry& reg = env.getImpl()->getRegistry();
  reg.record(3, 1);
  reg.record(40, 7);
  reg.reserve(100000);
  EXPECT_TRUE(reg.isExtracted(3, 1));
  EXPECT_TRUE(reg.isExtracted(40, 7));
  EXPECT_EQ(reg.getMask(99999), 0U);
  EXPECT_EQ(reg.getMask(70000), 0U);
  reg.record(99999, 2);
  EXPECT_TRUE(reg.isExtracted(99999, 2));
  // A smaller reservation changes nothing.
  reg.reserve(10);
  EXPECT_TRUE(reg.isExtracted(99999, 2));
  EXPECT_TRUE(reg.isExtracted(40, 7));
  // Past the reservation the registry grows again, records kept.
  reg.record(100000, 3);
  EXPECT_TRUE(reg.isExtracted(100000, 3));
  EXPECT_TRUE(reg.isExtracted(3, 1));
  EXPECT_EQ(reg.getMask(150000), 0U);
  env.end();
}

TEST(EnvRegistry, EndingAnObjectDropsItsRecord) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  QelInt id = a->getId();
  e->getRegistry().record(id, 2);
  a->end();
  EXPECT_EQ(e->getRegistry().getMask(id), 0U);
  // A new object in the same slot starts unknown.
  EnvLeafI* b = Leaf(env);
  EXPECT_EQ(b->getId(), id);
  EXPECT_EQ(e->getRegistry().getMask(id), 0U);
  b->end();
  env.end();
}

TEST(EnvRegistry, AlgorithmsTakeSlotsAndGiveThemBack) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  std::vector<QelAlgorithmI*> algs;
  for (int i = 0; i < QelExtractionRegistry::MaxAlgorithms; ++i) {
    algs.push_back(QelNewObject<QelAlgorithmI>(e, e));
    EXPECT_EQ(algs.back()->getSlot(), i);
    EXPECT_EQ(e->getAlgorithm(i), algs.back());
  }
  EXPECT_THROW(QelNewObject<QelAlgorithmI>(e, e), QelWrongUsage);
  delete algs[7];
  EXPECT_EQ(e->getAlgorithm(7), nullptr);
  QelAlgorithmI* again = QelNewObject<QelAlgorithmI>(e, e);
  EXPECT_EQ(again->getSlot(), 7);
  algs[7] = again;
  for (QelAlgorithmI* a : algs) delete a;
  EXPECT_EQ(e->getBytesInUse(), 0);
  env.end();
}

// ---- statistics --------------------------------------------------------------------------

TEST(EnvStatistics, BackToTheBaselineAfterObjectsEnd) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  // The table is made with the first object and stays.
  Leaf(env)->end();
  QelInt bytes = e->getBytesInUse();
  QelInt count = e->getNumberOfExtractables();
  EXPECT_EQ(count, 0);

  std::vector<EnvLeafI*> xs;
  for (int i = 0; i < 40; ++i) {
    EnvLeafI* x = Leaf(env, "leaf");
    x->setLocation("env_test.cpp", i);
    x->setIntProperty("i", i);
    xs.push_back(x);
  }
  EnvPairI* pair = QelNewObject<EnvPairI>(e, e, xs[0], xs[1]);
  EXPECT_EQ(e->getNumberOfExtractables(), 41);
  EXPECT_GT(e->getBytesInUse(), bytes);
  for (EnvLeafI* x : xs) x->end();
  // The pair held two of them: it ended with them.
  EXPECT_EQ(e->getExtractable(40), nullptr);
  (void)pair;
  EXPECT_EQ(e->getNumberOfExtractables(), count);
  EXPECT_EQ(e->getBytesInUse(), bytes);
  env.end();
}

// ---- removal ------------------------------------------------------------------------------

TEST(EnvRemoval, RemoveFromAllKeepsTheObjectAlive) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EnvLeafI* a = Leaf(env);
  QelModel m(env);
  m.add(a);
  a->removeFromAll();
  EXPECT_EQ(a->getId(), 0);
  EXPECT_EQ(e->getExtractable(0), a);
  EXPECT_FALSE(QelEnvI::IsMarked(a));
  EXPECT_EQ(m.getImpl()->getMembers().getSize(), 0);
  a->end();
  m.end();
  env.end();
}

// ---- the handle --------------------------------------------------------------------------

TEST(EnvHandle, EndReleasesTheEnvironmentAndEmptiesTheHandle) {
  QelEnv env;
  ASSERT_NE(env.getImpl(), nullptr);
  QelEnv copy = env;
  EXPECT_TRUE(copy == env);
  EXPECT_FALSE(copy != env);
  QelEnv other;
  EXPECT_TRUE(other != env);
  EXPECT_EQ(env.getMemoryManager().getEnv(), env.getImpl());
  EXPECT_EQ(env.getMemoryManager().getAllocator(), env.getImpl()->getGeneralAllocator());
  // Objects still alive go with the environment.
  Leaf(env, "left alive");
  env.end();
  EXPECT_EQ(env.getImpl(), nullptr);
  EXPECT_THROW(env.getMemoryManager(), QelEmptyHandleException);
  QelEnv empty(static_cast<QelEnvI*>(nullptr));
  EXPECT_EQ(empty.getImpl(), nullptr);
  EXPECT_THROW(empty.getMemoryManager(), QelEmptyHandleException);
  other.end();
}

// An environment and the size class that serves its 24-byte blocks inline.
class EnvInlineAlloc : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(c, nullptr); }
  void TearDown() override { env.end(); }
  QelEnv env;
  QelEnvI* e = env.getImpl();
  QelFixedSizeAllocatorI* c = e->inlineClass(24);
};

TEST_F(EnvInlineAlloc, TheClassIsOnlyGivenWhereAllocWouldServeInline) {
  EXPECT_GE(c->blockSize, 24);
  EXPECT_EQ(e->inlineClass(17), c);  // one class serves 17 to 24 bytes
  EXPECT_NE(e->inlineClass(8), c);
  EXPECT_EQ(e->inlineClass(100000), nullptr);  // beyond the inline sizes
  // allocFrom hands out what alloc would: the free list first, newest
  // block first, then the unused part of the newest chunk.
  void* p = e->alloc(24);
  void* q = e->alloc(24);
  e->free(p, 24);
  e->free(q, 24);
  EXPECT_EQ(e->allocFrom(*c, 24), q);
  EXPECT_EQ(e->allocFrom(*c, 24), p);
  e->free(p, 24);
  e->free(q, 24);
  // Another thread, allocation off or a custom allocator: no class.
  std::string onThread = qeltest::OutcomeOnAnotherThread([&] {
    if (e->inlineClass(24) == nullptr) throw QelEnvAllocatorThreadMismatch();
  });
  EXPECT_EQ(onThread, "refused");
  e->setAllocationDisabled(true);
  EXPECT_EQ(e->inlineClass(24), nullptr);
  e->setAllocationDisabled(false);
  EXPECT_EQ(e->inlineClass(24), c);
  qeltest::RequestCounter counter;
  qeltest::RefusingAllocator allocator(counter);
  e->setCustomAllocator(&allocator);
  EXPECT_EQ(e->inlineClass(24), nullptr);
  e->setCustomAllocator(nullptr);
  EXPECT_EQ(e->inlineClass(24), c);
}

TEST_F(EnvInlineAlloc, ARunOfBlocksIsWhatAllocWouldHandOutOneByOne) {
  const long step = c->blockSize;
  // With a block on the free list nothing is taken at once.
  void* p = e->alloc(24);
  e->free(p, 24);
  ASSERT_NE(c->freeList, nullptr);
  char* first = nullptr;
  char* fresh = c->fresh;
  QelInt inUse = c->bytesInUse;
  EXPECT_FALSE(e->allocRun(*c, 2, first));
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(c->fresh, fresh);
  EXPECT_EQ(c->bytesInUse, inUse);
  // Once the free list is empty, a run is the next blocks of the chunk.
  std::vector<void*> taken;
  while (c->freeList != nullptr) taken.push_back(e->alloc(24));
  fresh = c->fresh;
  inUse = c->bytesInUse;
  ASSERT_GE(c->freshEnd - c->fresh, 4 * step);
  ASSERT_TRUE(e->allocRun(*c, 3, first));
  EXPECT_EQ(first, fresh);
  EXPECT_EQ(c->fresh, fresh + 3 * step);
  EXPECT_EQ(c->bytesInUse, inUse + 3 * step);
  EXPECT_EQ(e->alloc(24), fresh + 3 * step);
  // More than the chunk has left: nothing is taken.
  char* before = c->fresh;
  long left = (c->freshEnd - c->fresh) / step;
  char* none = nullptr;
  EXPECT_FALSE(e->allocRun(*c, left + 1, none));
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(c->fresh, before);
  // Every block goes back like any other.
  for (long k = 0; k < 4; ++k) e->free(fresh + k * step, 24);
  for (void* b : taken) e->free(b, 24);
  EXPECT_EQ(c->bytesInUse, inUse - static_cast<QelInt>(taken.size()) * step);
}

TEST(EnvHandle, GeneralAllocatorUsesTheEnvironmentMemory) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  QelGenAlloc* g = e->getGeneralAllocator();
  EXPECT_EQ(g->getEnv(), e);
  void* p = g->alloc(100);
  EXPECT_EQ(e->getBytesInUse(), 128);
  g->free(p, 100);
  EXPECT_EQ(e->getBytesInUse(), 0);
  EXPECT_EQ(e->getMemoryManager().getImpl(), g);
  EXPECT_EQ(QelMemoryManager().getEnv(), nullptr);
  env.end();
}

}  // namespace

// ---- a copy that fails leaves no copy behind ---------------------------------

TEST(EnvClone, ACopyThatCannotCompleteLeavesNoCloneBehind) {
  long refusals =
      qeltest::ForEachRefusal([](QelEnv copy, qeltest::RequestCounter& counter, long n) {
        QelEnv source;
        EnvLeafI* a = QelNewObject<EnvLeafI>(source.getImpl(), source.getImpl());
        EnvLeafI* b = QelNewObject<EnvLeafI>(source.getImpl(), source.getImpl());
        EnvPairI* ab = QelNewObject<EnvPairI>(source.getImpl(), source.getImpl(), a, b);
        EnvPairI* top = QelNewObject<EnvPairI>(source.getImpl(), source.getImpl(), ab, a);
        counter.refuseAfter(n);
        bool refused = false;
        try {
          copy.getImpl()->getClone(top);
        } catch (const QelMemoryException&) {
          refused = true;
        }
        counter.stop();
        EXPECT_EQ(copy.getImpl()->getNumberOfExtractables(), refused ? 0 : 4) << "request " << n;
        // The next copy operation starts afresh.
        EXPECT_EQ(copy.getImpl()->findClone(a), nullptr);
        qeltest::EndAllObjects(copy);
        source.end();
        return refused;
      });
  EXPECT_EQ(refusals, 4);
}

// ---- where the decision-expression map keeps its storage ---------------------------

TEST(EnvDecisionMap, NodesAndBucketsComeFromTheCustomAllocator) {
  qeltest::RequestCounter counter;
  qeltest::RefusingAllocator allocator(counter);
  QelEnv env;
  QelEnvI* e = env.getImpl();
  e->setCustomAllocator(&allocator);
  EnvLeafI* a = Leaf(env);
  EnvLeafI* b = Leaf(env);
  QelInt objects = allocator.held();
  QelInt internal = e->getInternalBytes();
  // The first entry makes the bucket array and a node there: refusing
  // either refuses the query, and the map holds nothing.
  for (long n = 1; n <= 2; ++n) {
    counter.refuseAfter(n);
    EXPECT_THROW(a->isDecisionExpr(), QelMemoryException) << "request " << n;
    counter.stop();
    EXPECT_EQ(e->getDecisionExprMap()->getCount(), 0);
  }
  EXPECT_FALSE(a->isDecisionExpr());
  EXPECT_FALSE(b->isDecisionExpr());
  EXPECT_EQ(e->getDecisionExprMap()->getCount(), 2);
  // Buckets and two nodes of three words, all seen by the allocator.
  EXPECT_EQ(allocator.held() - objects,
            static_cast<QelInt>(64 * sizeof(void*) + 2 * sizeof(QelDecisionExprMap::Node)));
  EXPECT_LE(e->getInternalBytes() - internal, static_cast<QelInt>(sizeof(QelDecisionExprMap)));
  // Ending the objects gives every node and the buckets back.
  a->end();
  b->end();
  EXPECT_EQ(e->getDecisionExprMap()->getCount(), 0);
  EXPECT_EQ(allocator.held(), 0);
  for (const std::string& error : allocator.errors()) ADD_FAILURE() << error;
  env.end();
}

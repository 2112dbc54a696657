// Visitors over the object graph, the structural queries built on them, and
// the base atRemove.
#include "support/qeltest.h"

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace {

// A leaf that can pose as a decision variable or as a non-ground term, and
// counts how often it is visited.
class VLeafI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(VLeafI, QelExtractableI)

 public:
  VLeafI(QelEnvI* env, bool variable, bool nonground)
      : QelExtractableI(env), _variable(variable), _nonground(nonground) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    ++visits;
    v->beginVisit(this);
    v->endVisit(this);
  }
  QelBool isNumVar() override { return _variable; }
  QelBool hasNongroundType() const override { return _nonground; }
  int visits = 0;

 private:
  bool _variable;
  bool _nonground;
};
QEL_EXTRACTABLE_DEF(VLeafI)

// A constraint over up to three sub-extractables (null allowed), which can
// be changed after construction; counts its visits. Holds nothing outside
// environment memory, so objects left to the environment leak nothing.
class VNodeI : public QelConstraintI {
  QEL_EXTRACTABLE_DECL(VNodeI, QelConstraintI)

 public:
  VNodeI(QelEnvI* env, std::initializer_list<QelExtractableI*> subs) : QelConstraintI(env) {
    for (QelExtractableI* s : subs) _subs[_count++] = s;
  }
  void visitSubExtractables(QelExtractableVisitor* v) override {
    ++visits;
    v->beginVisit(this);
    for (size_t i = 0; i < _count; ++i) v->visitChildren(this, _subs[i]);
    v->endVisit(this);
  }
  void setSub(size_t i, QelExtractableI* s) { _subs[i] = s; }
  int visits = 0;

 private:
  QelExtractableI* _subs[3] = {nullptr, nullptr, nullptr};
  size_t _count = 0;
};
QEL_EXTRACTABLE_DEF(VNodeI)

// An object that presents its sub-extractables as one array.
class VArrayNodeI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(VArrayNodeI, QelExtractableI)

 public:
  VArrayNodeI(QelEnvI* env, QelExtractableArray subs) : QelExtractableI(env), _subs(subs) {}
  ~VArrayNodeI() override { _subs.end(); }
  void visitSubExtractables(QelExtractableVisitor* v) override {
    ++visits;
    v->beginVisit(this);
    v->visitChildren(this, _subs);
    v->endVisit(this);
  }
  int visits = 0;

 private:
  QelExtractableArray _subs;
};
QEL_EXTRACTABLE_DEF(VArrayNodeI)

VLeafI* Leaf(QelEnv env, bool variable = false, bool nonground = false) {
  return QelNewObject<VLeafI>(env.getImpl(), env.getImpl(), variable, nonground);
}

VNodeI* Node(QelEnv env, std::initializer_list<QelExtractableI*> subs) {
  return QelNewObject<VNodeI>(env.getImpl(), env.getImpl(), subs);
}

VArrayNodeI* ArrayNode(QelEnv env, const std::vector<QelExtractableI*>& subs) {
  QelExtractableArray a(env, 0);
  for (QelExtractableI* s : subs) a.add(s);
  return QelNewObject<VArrayNodeI>(env.getImpl(), env.getImpl(), a);
}

// Records every call it receives, in order.
class TraceVisitor : public QelExtractableVisitor {
 public:
  using QelExtractableVisitor::visitChildren;
  void beginVisit(QelExtractableI* x) override { trace.push_back({"begin", x}); }
  void visitChildren(QelExtractableI*, QelExtractableI* c) override {
    trace.push_back({"child", c});
    if (stopAfter > 0 && --stopAfter == 0) stopped = true;
  }
  void endVisit(QelExtractableI* x) override { trace.push_back({"end", x}); }
  QelBool stop() const override { return stopped; }
  std::vector<std::pair<std::string, QelExtractableI*>> trace;
  int stopAfter = 0;
  bool stopped = false;
};

// A marked-object finder that counts the single children it is shown.
class CountingMarkedFinder : public QelFindMarkedVisitor {
 public:
  using QelFindMarkedVisitor::visitChildren;
  void visitChildren(QelExtractableI* parent, QelExtractableI* child) override {
    ++shown;
    QelFindMarkedVisitor::visitChildren(parent, child);
  }
  int shown = 0;
};

long Found(QelExtractableI* x) {
  QelFindMarkedVisitor finder;
  x->visitSubExtractables(&finder);
  return finder.found;
}

QelInt MapCount(QelEnv env) {
  QelDecisionExprMap* map = env.getImpl()->getDecisionExprMapOrNull();
  return map != nullptr ? map->getCount() : 0;
}

// ---- the base visitor ------------------------------------------------------

TEST(VisitorBase, DefaultsDoNothingAndDoNotStop) {
  QelEnv env;
  VLeafI* a = Leaf(env);
  QelExtractableVisitor v;
  EXPECT_FALSE(v.stop());
  v.beginVisit(a);
  v.visitChildren(a, a);
  v.endVisit(a);
  a->visitSubExtractables(&v);
  EXPECT_EQ(a->visits, 1);
  // The base finder states start at zero.
  EXPECT_EQ(QelFindMarkedVisitor().found, 0);
  EXPECT_EQ(QelFindNongroundTerm().found, 0);
  EXPECT_EQ(QelFindDecisionVar().found, 0);
  a->end();
  env.end();
}

TEST(VisitorBase, ArrayWalkShowsEachElementInOrder) {
  QelEnv env;
  VLeafI* a = Leaf(env);
  VLeafI* b = Leaf(env);
  VArrayNodeI* n = ArrayNode(env, {a, nullptr, b});
  TraceVisitor v;
  n->visitSubExtractables(&v);
  using Step = std::pair<std::string, QelExtractableI*>;
  EXPECT_EQ(v.trace,
            (std::vector<Step>{
                {"begin", n}, {"child", a}, {"child", nullptr}, {"child", b}, {"end", n}}));
  // Empty handle and empty array: nothing.
  TraceVisitor w;
  w.visitChildren(n, QelExtractableArray());
  QelExtractableArray empty(env, 0);
  w.visitChildren(n, empty);
  EXPECT_TRUE(w.trace.empty());
  empty.end();
  n->end();
  a->end();
  b->end();
  env.end();
}

TEST(VisitorBase, ArrayWalkAsksStopBeforeEachElement) {
  QelEnv env;
  VLeafI* a = Leaf(env);
  VLeafI* b = Leaf(env);
  VLeafI* c = Leaf(env);
  VArrayNodeI* n = ArrayNode(env, {a, b, c});
  TraceVisitor v;
  v.stopAfter = 2;
  n->visitSubExtractables(&v);
  using Step = std::pair<std::string, QelExtractableI*>;
  EXPECT_EQ(v.trace, (std::vector<Step>{{"begin", n}, {"child", a}, {"child", b}, {"end", n}}));
  n->end();
  a->end();
  b->end();
  c->end();
  env.end();
}

// ---- QelFindMarkedVisitor ------------------------------------------------------

TEST(VisitorFindMarked, EndedNullAndMarkedSubsAreFound) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  VLeafI* live = Leaf(env);
  VLeafI* ended = Leaf(env);
  VNodeI* plain = Node(env, {live});
  VNodeI* withNull = Node(env, {live, nullptr});
  VNodeI* withEnded = Node(env, {live, ended});
  EXPECT_EQ(Found(plain), 0);
  EXPECT_EQ(Found(withNull), 1);
  EXPECT_EQ(Found(withEnded), 0);

  // A sub whose id is -1.
  e->unregister(ended);
  EXPECT_EQ(ended->getId(), -1);
  EXPECT_EQ(Found(withEnded), 1);

  // A sub carrying the removal mark, then its own address again.
  e->mark(live);
  EXPECT_EQ(Found(plain), 1);
  e->unmark(live);
  EXPECT_EQ(Found(plain), 0);

  // Only direct subs are tested: a marked grandchild is not seen.
  VNodeI* top = Node(env, {plain});
  e->mark(live);
  EXPECT_EQ(Found(top), 0);
  e->unmark(live);

  // Once found, later children are not looked at.
  CountingMarkedFinder finder;
  VNodeI* early = Node(env, {nullptr, live, live});
  early->visitSubExtractables(&finder);
  EXPECT_EQ(finder.found, 1);
  EXPECT_EQ(finder.shown, 3);  // shown, but answered at once
  finder.visitChildren(early, nullptr);
  EXPECT_EQ(finder.found, 1);

  // (Ending any object now would end every holder of a null or ended sub:
  // the environment releases them all at once.)
  env.end();
}

TEST(VisitorFindMarked, ArrayWalkStopsRightAfterTheFoundElement) {
  QelEnv env;
  VLeafI* a = Leaf(env);
  VLeafI* b = Leaf(env);
  VLeafI* c = Leaf(env);
  VArrayNodeI* n = ArrayNode(env, {a, nullptr, b, c});
  CountingMarkedFinder finder;
  n->visitSubExtractables(&finder);
  EXPECT_EQ(finder.found, 1);
  EXPECT_EQ(finder.shown, 2);

  // A marked element in the middle of a longer array.
  VArrayNodeI* m = ArrayNode(env, {a, b, c, a, b});
  env.getImpl()->mark(c);
  CountingMarkedFinder second;
  m->visitSubExtractables(&second);
  EXPECT_EQ(second.found, 1);
  EXPECT_EQ(second.shown, 3);
  env.getImpl()->unmark(c);

  // Already found: the array is not walked at all.
  CountingMarkedFinder third;
  third.found = 1;
  m->visitSubExtractables(&third);
  EXPECT_EQ(third.shown, 0);
  n->end();
  m->end();
  a->end();
  b->end();
  c->end();
  env.end();
}

// ---- isGround / QelFindNongroundTerm ----------------------------------------------

TEST(VisitorGround, OwnNongroundTypeMakesAnObjectNonground) {
  QelEnv env;
  VLeafI* nonground = Leaf(env, false, true);
  VLeafI* plain = Leaf(env);
  EXPECT_FALSE(nonground->isGround());
  EXPECT_TRUE(plain->isGround());
  env.end();
}

TEST(VisitorGround, NongroundTermIsFoundAtAnyDepth) {
  QelEnv env;
  VLeafI* plain = Leaf(env);
  VLeafI* nonground = Leaf(env, false, true);
  VNodeI* inner = Node(env, {plain, nonground});
  VNodeI* top = Node(env, {nullptr, inner});
  VNodeI* groundTop = Node(env, {plain, Node(env, {plain})});
  EXPECT_FALSE(top->isGround());
  EXPECT_FALSE(inner->isGround());
  EXPECT_TRUE(groundTop->isGround());

  // The array form descends into each element and stops once found.
  VLeafI* after = Leaf(env);
  VArrayNodeI* arr = ArrayNode(env, {plain, nullptr, nonground, after});
  EXPECT_FALSE(arr->isGround());
  EXPECT_EQ(after->visits, 0);
  EXPECT_EQ(nonground->visits, 3);
  VArrayNodeI* groundArr = ArrayNode(env, {plain, after});
  EXPECT_TRUE(groundArr->isGround());
  EXPECT_EQ(after->visits, 1);
  env.end();
}

// ---- isDecisionExpr / QelFindDecisionVar -----------------------------------------

TEST(VisitorDecision, VariableIsADecisionExprAndNothingIsCached) {
  QelEnv env;
  QelIntVar x(env, 0, 5);
  VLeafI* varLike = Leaf(env, true);
  QelInt before = MapCount(env);
  EXPECT_TRUE(x.getImpl()->isDecisionExpr());
  EXPECT_TRUE(varLike->isDecisionExpr());
  EXPECT_EQ(MapCount(env), before);
  EXPECT_EQ(varLike->visits, 0);
  env.end();
}

TEST(VisitorDecision, ExpressionOverAVariableIsCachedAsOne) {
  QelEnv env;
  VLeafI* var = Leaf(env, true);
  VLeafI* plain = Leaf(env);
  VNodeI* expr = Node(env, {plain, var});
  EXPECT_TRUE(expr->isDecisionExpr());
  EXPECT_EQ(expr->visits, 1);
  QelDecisionExprMap* map = env.getImpl()->getDecisionExprMapOrNull();
  ASSERT_NE(map, nullptr);
  QelDecisionExprMap::Node* entry = map->find(expr);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->value, 1);
  EXPECT_EQ(map->getCount(), 1);
  // The second answer comes from the cache: no visit.
  EXPECT_TRUE(expr->isDecisionExpr());
  EXPECT_EQ(expr->visits, 1);
  EXPECT_EQ(var->visits, 1);
  EXPECT_EQ(map->getCount(), 1);

  // An expression without a variable is cached as 0, and answered from the
  // cache too.
  VNodeI* constant = Node(env, {plain});
  EXPECT_FALSE(constant->isDecisionExpr());
  EXPECT_EQ(map->find(constant)->value, 0);
  EXPECT_FALSE(constant->isDecisionExpr());
  EXPECT_EQ(constant->visits, 1);
  EXPECT_EQ(map->getCount(), 2);
  // Ending an object removes its entry.
  expr->end();
  EXPECT_EQ(map->getCount(), 1);
  env.end();
}

TEST(VisitorDecision, RealExpressionsOverVariables) {
  QelEnv env;
  QelIntVar x(env, 0, 5);
  QelIntVar y(env, 0, 5);
  QelIntExpr e = 2 * x + y;
  EXPECT_TRUE(e.getImpl()->isDecisionExpr());
  QelIntExpr c(env, 3);
  EXPECT_FALSE(c.getImpl()->isDecisionExpr());
  env.end();
}

TEST(VisitorDecision, CachedZeroChildIsStillDescendedInto) {
  QelEnv env;
  VLeafI* plain = Leaf(env);
  VLeafI* var = Leaf(env, true);
  VNodeI* child = Node(env, {plain});
  EXPECT_FALSE(child->isDecisionExpr());  // cached 0
  EXPECT_EQ(child->visits, 1);
  // The child changes afterwards; its cached answer stays.
  child->setSub(0, var);
  EXPECT_FALSE(child->isDecisionExpr());
  VNodeI* parent = Node(env, {child});
  EXPECT_TRUE(parent->isDecisionExpr());
  EXPECT_EQ(child->visits, 2);
  EXPECT_EQ(var->visits, 1);
  QelDecisionExprMap* map = env.getImpl()->getDecisionExprMapOrNull();
  EXPECT_EQ(map->find(child)->value, 0);
  EXPECT_EQ(map->find(parent)->value, 1);
  child->setSub(0, plain);
  env.end();
}

TEST(VisitorDecision, CachedOneChildCutsTheDescent) {
  QelEnv env;
  VLeafI* var = Leaf(env, true);
  VNodeI* child = Node(env, {var});
  EXPECT_TRUE(child->isDecisionExpr());
  EXPECT_EQ(child->visits, 1);
  VNodeI* parent = Node(env, {child});
  EXPECT_TRUE(parent->isDecisionExpr());
  EXPECT_EQ(child->visits, 1);
  EXPECT_EQ(var->visits, 1);
  // The same through an array.
  VArrayNodeI* arr = ArrayNode(env, {nullptr, child});
  EXPECT_TRUE(arr->isDecisionExpr());
  EXPECT_EQ(child->visits, 1);
  env.end();
}

TEST(VisitorDecision, ArrayWalkStopsRightAfterTheFoundElement) {
  QelEnv env;
  VLeafI* plain = Leaf(env);
  VLeafI* var = Leaf(env, true);
  VLeafI* after = Leaf(env);
  VNodeI* first = Node(env, {plain});
  VArrayNodeI* arr = ArrayNode(env, {first, nullptr, var, after});
  EXPECT_TRUE(arr->isDecisionExpr());
  EXPECT_EQ(first->visits, 1);
  EXPECT_EQ(var->visits, 1);
  EXPECT_EQ(after->visits, 0);
  // Without any variable every element is visited and the answer is no.
  VArrayNodeI* none = ArrayNode(env, {plain, after});
  EXPECT_FALSE(none->isDecisionExpr());
  EXPECT_EQ(after->visits, 1);
  env.end();
}

TEST(VisitorDecision, IntervalVariableIsADecisionVariable) {
  QelEnv env;
  QelIntervalVar interval(env, 3, 0, 10);
  VNodeI* over = Node(env, {interval.getImpl()});
  EXPECT_TRUE(over->isDecisionExpr());
  env.end();
}

TEST(VisitorDecision, BadHashIndexPassesThroughTheQueries) {
  QelEnv env;
  VLeafI* plain = Leaf(env);
  VNodeI* child = Node(env, {plain});
  VNodeI* parent = Node(env, {child});
  QelDecisionExprMap* map = env.getImpl()->getDecisionExprMap();
  EXPECT_FALSE(child->isDecisionExpr());  // makes the buckets
  map->setHashFunction([](const QelExtractableI*, long n) { return n; });
  EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>([&] { parent->isDecisionExpr(); }),
            "Hash function returned bad index");
  EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>([&] { child->isDecisionExpr(); }),
            "Hash function returned bad index");
  map->setHashFunction(&QelDecisionExprMap::DefaultHash);
  EXPECT_FALSE(parent->isDecisionExpr());
  env.end();
}

// ---- base atRemove ---------------------------------------------------------------

TEST(VisitorAtRemove, OneByOneFlagEndsTheObject) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  VLeafI* sub = Leaf(env);
  VNodeI* holder = Node(env, {sub});
  QelInt id = holder->getId();
  e->setOneByOne(1);
  holder->atRemove(nullptr, nullptr);
  EXPECT_EQ(e->getExtractable(id), nullptr);
  EXPECT_EQ(e->getExtractable(sub->getId()), sub);
  e->setOneByOne(0);
  sub->end();
  EXPECT_EQ(qeltest::BytesInUse(env), 0);
  env.end();
}

TEST(VisitorAtRemove, WithoutTheFlagOnlyAMarkedSubEndsTheObject) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  VLeafI* a = Leaf(env);
  VLeafI* b = Leaf(env);
  VNodeI* holder = Node(env, {a, b});
  QelInt id = holder->getId();
  holder->atRemove(a, nullptr);
  EXPECT_EQ(e->getExtractable(id), holder);

  // b ended (id -1) while still in memory: a marked sub.
  QelInt bId = b->getId();
  e->unregister(b);
  holder->atRemove(a, nullptr);  // the arguments are not consulted
  EXPECT_EQ(e->getExtractable(id), nullptr);
  EXPECT_EQ(e->getExtractable(a->getId()), a);
  EXPECT_EQ(e->getExtractable(bId), nullptr);
  delete b;

  VNodeI* withNull = Node(env, {a, nullptr});
  QelInt nullId = withNull->getId();
  withNull->atRemove(nullptr, nullptr);
  EXPECT_EQ(e->getExtractable(nullId), nullptr);
  a->end();
  EXPECT_EQ(qeltest::BytesInUse(env), 0);
  env.end();
}

TEST(VisitorAtRemove, EndingASubEndsItsHoldersEitherWay) {
  for (int oneByOne = 0; oneByOne <= 1; ++oneByOne) {
    QelEnv env;
    QelEnvI* e = env.getImpl();
    e->setOneByOne(oneByOne);
    VLeafI* a = Leaf(env);
    VLeafI* other = Leaf(env);
    VNodeI* holder = Node(env, {a, other});
    VNodeI* outer = Node(env, {holder});
    VNodeI* unrelated = Node(env, {other});
    QelInt holderId = holder->getId();
    QelInt outerId = outer->getId();
    a->end();
    EXPECT_EQ(e->getExtractable(holderId), nullptr) << "one by one: " << oneByOne;
    EXPECT_EQ(e->getExtractable(outerId), nullptr) << "one by one: " << oneByOne;
    EXPECT_EQ(e->getExtractable(unrelated->getId()), unrelated);
    EXPECT_EQ(e->getExtractable(other->getId()), other);
    unrelated->end();
    other->end();
    EXPECT_EQ(e->getNumberOfExtractables(), 0);
    EXPECT_EQ(qeltest::BytesInUse(env), 0);
    env.end();
  }
}

}  // namespace

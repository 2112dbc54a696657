// The expression kernel: variables, linear terms, products, their handles
// and operators.
//
// Both linear-term classes (QelNumLinTermI and QelIntLinTermI) keep their
// terms in a QelLinearParts; every operation on the parts is written once,
// below, as free functions and the PartsAppender, and the two classes only
// forward to them.
#include <cmath>
#include <cstring>
#include <functional>
#include <ostream>
#include <sstream>
#include <unordered_map>
#include <utility>

#include <qel/extractable/visitor.h>
#include <qel/kernel/expr.h>

QEL_RTTI_DEF(QelNumExprI)
QEL_RTTI_DEF(QelIntExprI)
QEL_EXTRACTABLE_DEF(QelNumVarI)
QEL_EXTRACTABLE_DEF(QelNumLinTermI)
QEL_EXTRACTABLE_DEF(QelIntLinTermI)
QEL_EXTRACTABLE_DEF(QelNumProductI)

// ===========================================================================
// The environment's expression services
// ===========================================================================

QelLinTermNode* QelEnvI::newTerm(QelNumVarI* v, double coef) {
  auto* node = static_cast<QelLinTermNode*>(alloc(sizeof(QelLinTermNode)));
  node->next = nullptr;
  node->coef = coef;
  node->var = v;
  return node;
}

void QelEnvI::release(QelNumExprI* e) {
  if (e == nullptr) return;
  e->unlockExpr();
  if (e->getUseCount() <= 0 && e->isRefCountedExpr() && e->getId() >= 0 && !IsMarked(e)) e->end();
}

// ===========================================================================
// The linear parts, shared by both linear-term classes
// ===========================================================================

namespace {

// The variable `e` is, or null. The exact class is tried first: it answers
// at once for the kernel's own classes, which operators meet at every term.
QelNumVarI* AsVar(const QelNumExprI* e) {
  QelTypeInfo t = e->getTypeInfo();
  if (t == QelNumVarI::GetTypeInfo())
    return const_cast<QelNumVarI*>(static_cast<const QelNumVarI*>(e));
  if (t == QelNumLinTermI::GetTypeInfo() || t == QelIntLinTermI::GetTypeInfo()) return nullptr;
  return e->isType(QelNumVarI::GetTypeInfo())
             ? const_cast<QelNumVarI*>(static_cast<const QelNumVarI*>(e))
             : nullptr;
}

// The parts of `e` when it is a linear term of either class, else null
// (the exact class first, as in AsVar).
const QelLinearParts* PartsOf(const QelNumExprI* e) {
  QelTypeInfo t = e->getTypeInfo();
  if (t == QelNumLinTermI::GetTypeInfo()) return &static_cast<const QelNumLinTermI*>(e)->getParts();
  if (t == QelIntLinTermI::GetTypeInfo()) return &static_cast<const QelIntLinTermI*>(e)->getParts();
  if (t == QelNumVarI::GetTypeInfo()) return nullptr;
  if (e->isType(QelNumLinTermI::GetTypeInfo()))
    return &static_cast<const QelNumLinTermI*>(e)->getParts();
  if (e->isType(QelIntLinTermI::GetTypeInfo()))
    return &static_cast<const QelIntLinTermI*>(e)->getParts();
  return nullptr;
}

// Gives back one use held on `e` (through its own environment).
void Drop(QelNumExprI* e) { e->getEnv()->release(e); }

void FreeNode(QelEnvI* env, QelLinTermNode* n) { env->free(n, sizeof(QelLinTermNode)); }
void FreeNode(QelEnvI* env, QelQuadTermNode* n) { env->free(n, sizeof(QelQuadTermNode)); }
void FreeNode(QelEnvI* env, QelAggregateTermNode* n) { env->free(n, sizeof(QelAggregateTermNode)); }

// The decision word after terms were removed: the first variable left.
void RecomputeDecision(QelLinearParts& p) {
  if (p.head != nullptr)
    p.decision = p.head->var;
  else if (p.quadHead != nullptr)
    p.decision = p.quadHead->var1;
  else
    p.decision = nullptr;
}

// Links a linear node that already holds its variable's use.
void LinkLinear(QelLinearParts& p, QelLinTermNode* node) {
  node->next = nullptr;
  if (p.tail != nullptr)
    p.tail->next = node;
  else
    p.head = node;
  p.tail = node;
  p.decision = node->var;
}

// Gives back a chain of term nodes from `n` on, with the uses they took
// (each node is freed before its use goes, as a use may end the object).
void FreeChain(QelEnvI* env, QelLinTermNode* n) {
  while (n != nullptr) {
    QelLinTermNode* next = n->next;
    QelNumVarI* x = n->var;
    FreeNode(env, n);
    Drop(x);
    n = next;
  }
}
void FreeChain(QelEnvI* env, QelQuadTermNode* n) {
  while (n != nullptr) {
    QelQuadTermNode* next = n->next;
    QelNumVarI* x = n->var1;
    QelNumVarI* y = n->var2;
    FreeNode(env, n);
    Drop(x);
    Drop(y);
    n = next;
  }
}
void FreeChain(QelEnvI* env, QelAggregateTermNode* n) {
  while (n != nullptr) {
    QelAggregateTermNode* next = n->next;
    QelNumExprI* e = n->expr;
    FreeNode(env, n);
    Drop(e);
    n = next;
  }
}

// Gives back every node and every use held, and leaves empty parts (the
// constant and the bookkeeping word are kept).
void ClearParts(QelEnvI* env, QelLinearParts& p) {
  QelLinTermNode* lin = p.head;
  QelQuadTermNode* quad = p.quadHead;
  QelAggregateTermNode* agg = p.aggHead;
  p.head = p.tail = nullptr;
  p.quadHead = nullptr;
  p.aggHead = nullptr;
  p.decision = nullptr;
  FreeChain(env, lin);
  FreeChain(env, quad);
  FreeChain(env, agg);
}

template <class Node>
long CountNodes(const Node* n) {
  long k = 0;
  for (; n != nullptr; n = n->next) ++k;
  return k;
}

// The degree of `e` as a polynomial in its variables: 0 for a constant, 1
// or 2, or -1 when unknown (a term with aggregates, a product, anything
// that is no linear term).
int DegreeOf(const QelNumExprI* e) {
  if (AsVar(e) != nullptr) return 1;
  const QelLinearParts* p = PartsOf(e);
  if (p == nullptr || p->aggHead != nullptr) return -1;
  if (p->quadHead != nullptr) return 2;
  return p->head != nullptr ? 1 : 0;
}

// Whether the product of `a` and `b` can be written as a linear term: one
// of them is a constant, or both are of degree 1.
bool ProductIsQuadratic(const QelNumExprI* a, const QelNumExprI* b) {
  int da = DegreeOf(a);
  int db = DegreeOf(b);
  return da == 0 || db == 0 || (da == 1 && db == 1);
}

// Appends terms to a linear parts. The ends of the quadratic and aggregate
// lists (which the parts do not store) are found once, so that bulk
// additions stay linear in the number of terms. Every addition allocates
// its node before it changes anything, and each node takes one use of
// each variable or sub-expression it holds.
class PartsAppender {
 public:
  PartsAppender(QelEnvI* env, QelLinearParts& p) : _env(env), _p(p) {
    _quadEnd = &p.quadHead;
    while (*_quadEnd != nullptr) _quadEnd = &(*_quadEnd)->next;
    _aggEnd = &p.aggHead;
    while (*_aggEnd != nullptr) _aggEnd = &(*_aggEnd)->next;
  }

  void constant(double c) { _p.constant += c; }

  void linear(double coef, QelNumVarI* x) {
    linkLinear(_env->alloc(sizeof(QelLinTermNode)), coef, x);
  }

  void quadratic(double coef, QelNumVarI* x, QelNumVarI* y) {
    auto* node = static_cast<QelQuadTermNode*>(_env->alloc(sizeof(QelQuadTermNode)));
    node->next = nullptr;
    node->coef = coef;
    node->var1 = x;
    node->var2 = y;
    x->lockExpr();
    y->lockExpr();
    *_quadEnd = node;
    _quadEnd = &node->next;
    _p.decision = x;
  }

  void aggregate(double coef, QelNumExprI* e) {
    auto* node = static_cast<QelAggregateTermNode*>(_env->alloc(sizeof(QelAggregateTermNode)));
    node->next = nullptr;
    node->coef = coef;
    node->expr = e;
    e->lockExpr();
    *_aggEnd = node;
    _aggEnd = &node->next;
  }

  // Adds factor * (the parts of `from`), each variable and sub-expression
  // passed through `map` (identity, or the clone of a copy operation).
  // `from` may be the very parts being appended to: only the terms present
  // at the start are read.
  template <class Map>
  void parts(const QelLinearParts& from, double factor, Map map) {
    long nLin = CountNodes(from.head);
    long nQuad = CountNodes(from.quadHead);
    long nAgg = CountNodes(from.aggHead);
    double c = from.constant;
    const QelLinTermNode* lin = from.head;
    for (long k = 0; k < nLin; ++k, lin = lin->next) linear(factor * lin->coef, map(lin->var));
    const QelQuadTermNode* quad = from.quadHead;
    for (long k = 0; k < nQuad; ++k, quad = quad->next)
      quadratic(factor * quad->coef, map(quad->var1), map(quad->var2));
    const QelAggregateTermNode* agg = from.aggHead;
    for (long k = 0; k < nAgg; ++k, agg = agg->next) aggregate(factor * agg->coef, map(agg->expr));
    constant(factor * c);
  }

  // Adds factor * e: the parts of a linear term, factor * x for a
  // variable, an aggregate term for anything else.
  void scaled(const QelNumExprI* e, double factor) {
    // A variable, the most common operand, is told by its exact class alone.
    if (e->getTypeInfo() == QelNumVarI::GetTypeInfo()) {
      linear(factor, const_cast<QelNumVarI*>(static_cast<const QelNumVarI*>(e)));
      return;
    }
    if (const QelLinearParts* from = PartsOf(e)) {
      parts(*from, factor, [](auto* x) { return x; });
    } else if (QelNumVarI* x = AsVar(e)) {
      linear(factor, x);
    } else {
      aggregate(factor, const_cast<QelNumExprI*>(e));
    }
  }

  // Adds coefs[i] * xs[i] for i = 0, 1, ... in order, or 1 * xs[i] when
  // `coefs` is null. `xs` holds numeric expressions, none null, and
  // `coefs` as many numbers. When the caller found that every element is a
  // plain variable (its exact class QelNumVarI), which is nearly always the
  // case, the nodes are linked in one tight loop: no class test per element
  // and the size class of the nodes asked for once. Otherwise each element
  // goes through scaled.
  void elements(const QelArrayI* xs, const QelArrayI* coefs, bool plainVariables) {
    if (coefs == nullptr) {
      elements(xs, plainVariables, [] { return 1.0; });
    } else {
      QelArrayReader c(coefs);
      elements(xs, plainVariables, [&c] { return c.next<double>(); });
    }
  }

  // Adds nextCoef() * xs[i] for i = 0, 1, ... in order (see above).
  template <class NextCoef>
  void elements(const QelArrayI* xs, bool plainVariables, NextCoef nextCoef) {
    if (!plainVariables) {
      xs->forEachRaw([&](std::uint64_t w) {
        scaled(static_cast<QelNumExprI*>(QelArrayWordAs<QelExtractableI*>(w)), nextCoef());
      });
      return;
    }
    auto link = [&](auto nextBlock) {
      xs->forEachRaw([&](std::uint64_t w) {
        double coef = nextCoef();
        linkLinear(nextBlock(), coef,
                   static_cast<QelNumVarI*>(QelArrayWordAs<QelExtractableI*>(w)));
      });
    };
    constexpr size_t size = sizeof(QelLinTermNode);
    QelFixedSizeAllocatorI* nodes = _env->inlineClass(size);
    char* run = nullptr;
    if (nodes == nullptr) {
      link([this] { return _env->alloc(size); });
    } else if (_env->allocRun(*nodes, xs->getSize(), run)) {
      // Nothing can fail from here on: every node is already taken.
      const long step = nodes->blockSize;
      link([&run, step] { return static_cast<void*>(std::exchange(run, run + step)); });
    } else {
      link([this, nodes] { return _env->allocFrom(*nodes, size); });
    }
  }

  // Adds a * b, for operands accepted by ProductIsQuadratic.
  void product(const QelNumExprI* a, const QelNumExprI* b) {
    if (DegreeOf(a) == 0) {
      scaled(b, PartsOf(a)->constant);
      return;
    }
    if (DegreeOf(b) == 0) {
      scaled(a, PartsOf(b)->constant);
      return;
    }
    // (ca + sum ai xi) * (cb + sum bj yj)
    //   = sum ai bj xi yj + cb sum ai xi + ca sum bj yj + ca cb
    double ca = PartsOf(a) != nullptr ? PartsOf(a)->constant : 0;
    double cb = PartsOf(b) != nullptr ? PartsOf(b)->constant : 0;
    ForEachLinear(a, [&](double ai, QelNumVarI* x) {
      ForEachLinear(b, [&](double bj, QelNumVarI* y) { quadratic(ai * bj, x, y); });
    });
    if (cb != 0) ForEachLinear(a, [&](double ai, QelNumVarI* x) { linear(cb * ai, x); });
    if (ca != 0) ForEachLinear(b, [&](double bj, QelNumVarI* y) { linear(ca * bj, y); });
    constant(ca * cb);
  }

 private:
  // Calls f(coef, var) for each linear term of a degree-1 operand (a
  // variable x is the one term 1 * x).
  template <class F>
  static void ForEachLinear(const QelNumExprI* e, F f) {
    if (QelNumVarI* x = AsVar(e)) {
      f(1.0, x);
      return;
    }
    for (const QelLinTermNode* n = PartsOf(e)->head; n != nullptr; n = n->next) f(n->coef, n->var);
  }

  // Links `block`, a fresh block of a linear node, as coef * x; x takes
  // one use.
  void linkLinear(void* block, double coef, QelNumVarI* x) {
    auto* node = static_cast<QelLinTermNode*>(block);
    node->coef = coef;
    node->var = x;
    x->lockExpr();
    LinkLinear(_p, node);
  }

  QelEnvI* _env;
  QelLinearParts& _p;
  QelQuadTermNode** _quadEnd;
  QelAggregateTermNode** _aggEnd;
};

double EvalParts(const QelLinearParts& p, QelAlgorithm alg) {
  QelAlgorithmI* a = alg.getImpl();
  if (a == nullptr) throw QelEmptyHandleException();
  double v = p.constant;
  for (const QelLinTermNode* n = p.head; n != nullptr; n = n->next)
    v += n->coef * a->getValue(n->var);
  for (const QelQuadTermNode* n = p.quadHead; n != nullptr; n = n->next)
    v += n->coef * a->getValue(n->var1) * a->getValue(n->var2);
  for (const QelAggregateTermNode* n = p.aggHead; n != nullptr; n = n->next)
    v += n->coef * n->expr->eval(alg);
  return v;
}

// Writes the sign and coefficient in front of a term: nothing for 1, "-"
// for -1, "c * " otherwise; later terms are joined with " + " or " - ".
void WriteCoef(std::ostream& os, double coef, bool first) {
  if (first) {
    if (coef == 1) return;
    if (coef == -1) {
      os << "-";
      return;
    }
    os << coef << " * ";
    return;
  }
  if (coef == 1) {
    os << " + ";
  } else if (coef == -1) {
    os << " - ";
  } else if (coef < 0) {
    os << " - " << -coef << " * ";
  } else {
    os << " + " << coef << " * ";
  }
}

// Terms of coefficient 0 are not written: they add nothing.
void DisplayParts(const QelLinearParts& p, std::ostream& os) {
  bool first = true;
  for (const QelLinTermNode* n = p.head; n != nullptr; n = n->next) {
    if (n->coef == 0) continue;
    WriteCoef(os, n->coef, first);
    n->var->display(os);
    first = false;
  }
  for (const QelQuadTermNode* n = p.quadHead; n != nullptr; n = n->next) {
    if (n->coef == 0) continue;
    WriteCoef(os, n->coef, first);
    n->var1->display(os);
    os << " * ";
    n->var2->display(os);
    first = false;
  }
  for (const QelAggregateTermNode* n = p.aggHead; n != nullptr; n = n->next) {
    if (n->coef == 0) continue;
    WriteCoef(os, n->coef, first);
    os << "(";
    n->expr->display(os);
    os << ")";
    first = false;
  }
  double c = p.constant;
  if (first) {
    os << (c == 0 ? 0.0 : c);
  } else if (c > 0 || c != c) {  // NaN is written like a positive constant
    os << " + " << c;
  } else if (c < 0) {
    os << " - " << -c;
  }
}

void VisitParts(QelExtractableI* self, const QelLinearParts& p, QelExtractableVisitor* v) {
  v->beginVisit(self);
  for (const QelLinTermNode* n = p.head; n != nullptr; n = n->next) v->visitChildren(self, n->var);
  for (const QelQuadTermNode* n = p.quadHead; n != nullptr; n = n->next) {
    v->visitChildren(self, n->var1);
    v->visitChildren(self, n->var2);
  }
  for (const QelAggregateTermNode* n = p.aggHead; n != nullptr; n = n->next)
    v->visitChildren(self, n->expr);
  v->endVisit(self);
}

bool SamePair(const QelQuadTermNode* n, const QelNumVarI* x, const QelNumVarI* y) {
  return (n->var1 == x && n->var2 == y) || (n->var1 == y && n->var2 == x);
}

// Linear nodes made before an operation that may need several of them
// changes anything, so that a refused allocation changes nothing; the nodes
// not taken go back with the object.
class SpareNodes {
 public:
  SpareNodes(QelEnvI* env, long count) : _env(env) {
    try {
      for (long i = 0; i < count; ++i) {
        QelLinTermNode* node = env->newTerm(nullptr, 0);
        node->next = _head;
        _head = node;
      }
    } catch (...) {
      release();
      throw;
    }
  }
  SpareNodes(const SpareNodes&) = delete;
  SpareNodes& operator=(const SpareNodes&) = delete;
  ~SpareNodes() { release(); }
  // One node holding coef * x (one was made for each that may be taken).
  QelLinTermNode* take(QelNumVarI* x, double coef) {
    QelLinTermNode* node = _head;
    _head = node->next;
    node->next = nullptr;
    node->coef = coef;
    node->var = x;
    return node;
  }

 private:
  void release() {
    while (_head != nullptr) {
      QelLinTermNode* next = _head->next;
      FreeNode(_env, _head);
      _head = next;
    }
  }
  QelEnvI* _env;
  QelLinTermNode* _head = nullptr;
};

// Sets the coefficient of x; a new node comes from `spares` when given.
double SetCoef(QelEnvI* env, QelLinearParts& p, QelNumVarI* x, double coef,
               SpareNodes* spares = nullptr) {
  QelLinTermNode* first = p.head;
  while (first != nullptr && first->var != x) first = first->next;
  // Allocate before changing anything.
  QelLinTermNode* fresh = nullptr;
  if (first == nullptr && coef != 0)
    fresh = spares != nullptr ? spares->take(x, coef) : env->newTerm(x, coef);
  double before = 0;
  bool removed = false;
  QelLinTermNode* prev = nullptr;
  for (QelLinTermNode* n = p.head; n != nullptr;) {
    QelLinTermNode* next = n->next;
    if (n->var != x) {
      prev = n;
    } else {
      before += n->coef;
      if (n == first && coef != 0) {
        n->coef = coef;
        prev = n;
      } else {
        if (prev != nullptr)
          prev->next = next;
        else
          p.head = next;
        if (p.tail == n) p.tail = prev;
        FreeNode(env, n);
        Drop(x);
        removed = true;
      }
    }
    n = next;
  }
  if (removed) RecomputeDecision(p);
  if (fresh != nullptr) {
    x->lockExpr();
    LinkLinear(p, fresh);
  }
  return before;
}

double SetQuadCoef(QelEnvI* env, QelLinearParts& p, QelNumVarI* x, QelNumVarI* y, double coef) {
  QelQuadTermNode* first = p.quadHead;
  while (first != nullptr && !SamePair(first, x, y)) first = first->next;
  QelQuadTermNode* fresh = nullptr;
  if (first == nullptr && coef != 0) {
    fresh = static_cast<QelQuadTermNode*>(env->alloc(sizeof(QelQuadTermNode)));
    fresh->next = nullptr;
    fresh->coef = coef;
    fresh->var1 = x;
    fresh->var2 = y;
  }
  double before = 0;
  bool removed = false;
  QelQuadTermNode** link = &p.quadHead;
  while (*link != nullptr) {
    QelQuadTermNode* n = *link;
    if (!SamePair(n, x, y)) {
      link = &n->next;
      continue;
    }
    before += n->coef;
    if (n == first && coef != 0) {
      // The one node left for the pair, written in the order asked for.
      n->coef = coef;
      n->var1 = x;
      n->var2 = y;
      link = &n->next;
      continue;
    }
    *link = n->next;
    QelNumVarI* v1 = n->var1;
    QelNumVarI* v2 = n->var2;
    FreeNode(env, n);
    Drop(v1);
    Drop(v2);
    removed = true;
  }
  if (removed) RecomputeDecision(p);
  if (fresh != nullptr) {
    x->lockExpr();
    y->lockExpr();
    *link = fresh;
    p.decision = x;
  }
  return before;
}

struct PairHash {
  std::size_t operator()(const std::pair<const QelNumVarI*, const QelNumVarI*>& k) const {
    std::size_t a = std::hash<const QelNumVarI*>()(k.first);
    std::size_t b = std::hash<const QelNumVarI*>()(k.second);
    return a ^ (b + 0x9E3779B97F4A7C15ULL + (a << 6) + (a >> 2));
  }
};

void Normalize(QelEnvI* env, QelLinearParts& p) {
  // Merge every later node of a variable into its first node.
  {
    std::unordered_map<const QelNumVarI*, QelLinTermNode*> firstOf;
    QelLinTermNode* prev = nullptr;
    for (QelLinTermNode* n = p.head; n != nullptr;) {
      QelLinTermNode* next = n->next;
      auto found = firstOf.find(n->var);
      if (found == firstOf.end()) {
        firstOf.emplace(n->var, n);
        prev = n;
      } else {
        found->second->coef += n->coef;
        // A first node of n's variable precedes n, so prev is set.
        prev->next = next;  // NOLINT(clang-analyzer-core.NullDereference)
        QelNumVarI* x = n->var;
        FreeNode(env, n);
        Drop(x);
      }
      n = next;
    }
  }
  {
    using Key = std::pair<const QelNumVarI*, const QelNumVarI*>;
    std::unordered_map<Key, QelQuadTermNode*, PairHash> firstOf;
    QelQuadTermNode** link = &p.quadHead;
    while (*link != nullptr) {
      QelQuadTermNode* n = *link;
      Key key = std::less<const QelNumVarI*>()(n->var1, n->var2) ? Key(n->var1, n->var2)
                                                                 : Key(n->var2, n->var1);
      auto found = firstOf.find(key);
      if (found == firstOf.end()) {
        firstOf.emplace(key, n);
        link = &n->next;
        continue;
      }
      found->second->coef += n->coef;
      *link = n->next;
      QelNumVarI* v1 = n->var1;
      QelNumVarI* v2 = n->var2;
      FreeNode(env, n);
      Drop(v1);
      Drop(v2);
    }
  }
  // Drop the zero coefficients.
  QelLinTermNode* prev = nullptr;
  for (QelLinTermNode* n = p.head; n != nullptr;) {
    QelLinTermNode* next = n->next;
    if (n->coef == 0) {
      if (prev != nullptr)
        prev->next = next;
      else
        p.head = next;
      QelNumVarI* x = n->var;
      FreeNode(env, n);
      Drop(x);
    } else {
      prev = n;
    }
    n = next;
  }
  p.tail = prev;
  QelQuadTermNode** link = &p.quadHead;
  while (*link != nullptr) {
    QelQuadTermNode* n = *link;
    if (n->coef != 0) {
      link = &n->next;
      continue;
    }
    *link = n->next;
    QelNumVarI* v1 = n->var1;
    QelNumVarI* v2 = n->var2;
    FreeNode(env, n);
    Drop(v1);
    Drop(v2);
  }
  RecomputeDecision(p);
}

void ZolNormalize(QelEnvI* env, QelLinearParts& p) {
  // The linear nodes are made first: a refused allocation leaves every
  // square as it was.
  long squares = 0;
  for (const QelQuadTermNode* n = p.quadHead; n != nullptr; n = n->next)
    if (n->var1 == n->var2 && n->var1->getType() == QelVarType::Bool) ++squares;
  if (squares == 0) return;
  SpareNodes spares(env, squares);
  bool changed = false;
  QelQuadTermNode** link = &p.quadHead;
  while (*link != nullptr) {
    QelQuadTermNode* n = *link;
    QelNumVarI* x = n->var1;
    if (x != n->var2 || x->getType() != QelVarType::Bool) {
      link = &n->next;
      continue;
    }
    // x * x = x on 0-1 values: the quadratic node becomes a linear one.
    QelLinTermNode* lin = spares.take(x, n->coef);
    *link = n->next;
    FreeNode(env, n);
    x->lockExpr();
    LinkLinear(p, lin);
    Drop(x);
    Drop(x);
    changed = true;
  }
  if (changed) RecomputeDecision(p);
}

// Allocates a new linear term of class Term in `env` and lets `fill` add
// its parts; if filling fails, the term is ended (giving back what it took).
template <class Term, class Fill>
Term* MakeTerm(QelEnvI* env, Fill fill) {
  Term* t = QelNewObject<Term>(env, env);
  try {
    PartsAppender out(env, t->getParts());
    fill(out);
  } catch (...) {
    t->end();
    throw;
  }
  return t;
}

// A new term of class Term in `env`: the parts of `from` with every
// variable and sub-expression replaced by its clone in `env`.
template <class Term>
Term* CloneTerm(QelEnvI* env, const QelLinearParts& from) {
  return MakeTerm<Term>(env, [env, &from](PartsAppender& out) {
    out.parts(from, 1.0, [env](auto* x) { return static_cast<decltype(x)>(env->getClone(x)); });
  });
}

// Whether `e` only takes integer values: an integral expression, or a
// linear term all of whose coefficients, constant and holdings are.
bool IsIntegralExpr(const QelNumExprI* e) {
  if (e->isIntegral()) return true;
  const QelLinearParts* p = PartsOf(e);
  if (p == nullptr) return false;
  auto whole = [](double v) { return std::floor(v) == v; };
  if (!whole(p->constant)) return false;
  for (const QelLinTermNode* n = p->head; n != nullptr; n = n->next)
    if (!whole(n->coef) || !n->var->isIntegral()) return false;
  for (const QelQuadTermNode* n = p->quadHead; n != nullptr; n = n->next)
    if (!whole(n->coef) || !n->var1->isIntegral() || !n->var2->isIntegral()) return false;
  for (const QelAggregateTermNode* n = p->aggHead; n != nullptr; n = n->next)
    if (!whole(n->coef) || !IsIntegralExpr(n->expr)) return false;
  return true;
}

// Refuses what is not integral: `what`, then ": " and the culprit, by its
// name or, unnamed, as it prints (a variable's class and id, an
// expression's terms).
void RequireIntegral(bool ok, const char* what, const QelExtractableI* culprit) {
  if (ok) return;
  std::ostringstream text;
  text << what << ": ";
  if (culprit->getName() != nullptr) {
    text << culprit->getName();
  } else {
    culprit->display(text);
  }
  throw QelWrongUsage(text.str().c_str());
}

}  // namespace

// ===========================================================================
// QelNumExprI, QelIntExprI
// ===========================================================================

// Expressions are used by other objects, which give their uses back as
// they end: an expression deleted directly is removed while it is still an
// expression (the classes above that give anything back remove it earlier).
QelNumExprI::~QelNumExprI() { removeBeforeTeardown(); }

QelNumVarI::~QelNumVarI() { removeBeforeTeardown(); }

QelBool QelNumExprI::isTemporary() const {
  return !_shared && _useCount <= 0 && getId() >= 0 && isRefCountedExpr() &&
         !QelEnvI::IsMarked(this);
}
QelBool QelNumExprI::isNumExpr() { return true; }
QelBool QelNumExprI::isIntegral() const { return false; }
double QelNumExprI::getConstant() const { return 0; }
QelBool QelNumExprI::isLinear() const { return true; }

QelNumLinTermI* QelNumExprI::takeForKeeping() {
  return MakeTerm<QelNumLinTermI>(_env, [this](PartsAppender& out) { out.scaled(this, 1.0); });
}

QelBool QelIntExprI::isIntegral() const { return true; }

// ===========================================================================
// QelNumVarI
// ===========================================================================

QelNumVarI::QelNumVarI(QelEnvI* env, double lb, double ub, QelVarType type, const char* name)
    : QelIntExprI(env, name), _lb(lb), _ub(ub), _type(type) {}

double QelNumVarI::eval(QelAlgorithm alg) const {
  if (alg.getImpl() == nullptr) throw QelEmptyHandleException();
  return alg.getImpl()->getValue(this);
}

QelBool QelNumVarI::isIntegral() const { return _type != QelVarType::Float; }

QelNumExprI* QelNumVarI::makeCopy() const {
  QelNumVarI* self = const_cast<QelNumVarI*>(this);
  return MakeTerm<QelNumLinTermI>(_env, [self](PartsAppender& out) { out.linear(1.0, self); });
}

QelBool QelNumVarI::isNumVar() { return true; }

QelExtractableI* QelNumVarI::makeClone(QelEnvI* env) const {
  return QelNewObject<QelNumVarI>(env, env, _lb, _ub, _type);
}

void QelNumVarI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->endVisit(this);
}

void QelNumVarI::display(std::ostream& os) const {
  switch (_type) {
    case QelVarType::Float:
      printNameOrId(os, "QelNumVar");
      break;
    case QelVarType::Int:
      printNameOrId(os, "QelIntVar");
      break;
    case QelVarType::Bool:
      printNameOrId(os, "QelBoolVar");
      break;
  }
}

void QelRequireBounds(double lb, double ub, const char* what,
                      const std::function<void(std::ostream&)>& name) {
  if (lb == lb && ub == ub && lb <= ub) return;
  std::ostringstream text;
  text << what << ": ";
  name(text);
  text << " cannot take the bounds [" << lb << ", " << ub << "]";
  throw QelWrongUsage(text.str().c_str());
}

void QelNumVarI::setBounds(double lb, double ub) {
  QelRequireBounds(lb, ub, "QelNumVar::setBounds", [this](std::ostream& os) { display(os); });
  _lb = lb;
  _ub = ub;
  notify(QelSetNumVarBounds(this));
}

void QelSetNumVarBounds::visitChange(QelEnvI*, QelExtractableI*, QelChangeVisitor*) const {}
QelExtractableI* QelSetNumVarBounds::getChangedExtractable() const { return _x; }
double QelSetNumVarBounds::getLB() const { return _x->getLB(); }
double QelSetNumVarBounds::getUB() const { return _x->getUB(); }

// ===========================================================================
// QelNumLinTermI
// ===========================================================================

template <class Derived, class Base>
QelLinearTermOf<Derived, Base>::QelLinearTermOf(QelEnvI* env, double constant, const char* name)
    : Base(env, name) {
  _parts.constant = constant;
}

template <class Derived, class Base>
QelLinearTermOf<Derived, Base>::~QelLinearTermOf() {
  this->removeBeforeTeardown();
  ClearParts(this->_env, _parts);
}

template <class Derived, class Base>
QelBool QelLinearTermOf<Derived, Base>::isRefCountedExpr() const {
  return true;
}

template <class Derived, class Base>
QelExtractableI* QelLinearTermOf<Derived, Base>::makeClone(QelEnvI* env) const {
  return CloneTerm<Derived>(env, _parts);
}

template <class Derived, class Base>
void QelLinearTermOf<Derived, Base>::visitSubExtractables(QelExtractableVisitor* v) {
  VisitParts(this, _parts, v);
}

template <class Derived, class Base>
void QelLinearTermOf<Derived, Base>::display(std::ostream& os) const {
  DisplayParts(_parts, os);
}

template <class Derived, class Base>
QelBool QelLinearTermOf<Derived, Base>::isDecisionExpr() const {
  return _parts.decision != nullptr || Base::isDecisionExpr();
}

template <class Derived, class Base>
void QelLinearTermOf<Derived, Base>::resetExprUsed() {
  _parts.exprUsed = -1;
}

template <class Derived, class Base>
QelInt QelLinearTermOf<Derived, Base>::getExprUsed() const {
  return _parts.exprUsed;
}

template <class Derived, class Base>
double QelLinearTermOf<Derived, Base>::eval(QelAlgorithm alg) const {
  return EvalParts(_parts, alg);
}

template <class Derived, class Base>
QelNumExprI* QelLinearTermOf<Derived, Base>::makeCopy() const {
  return MakeTerm<Derived>(this->_env, [this](PartsAppender& out) { out.scaled(this, 1.0); });
}

template <class Derived, class Base>
double QelLinearTermOf<Derived, Base>::getConstant() const {
  return _parts.constant;
}

template <class Derived, class Base>
QelBool QelLinearTermOf<Derived, Base>::isLinear() const {
  return _parts.quadHead == nullptr && _parts.aggHead == nullptr;
}

template class QelLinearTermOf<QelNumLinTermI, QelNumExprI>;
template class QelLinearTermOf<QelIntLinTermI, QelIntExprI>;

QelNumLinTermI* QelNumLinTermI::takeForKeeping() { return this; }

double QelNumLinTermI::setCoef(const QelNumVar& x, double coef) {
  if (x.getImpl() == nullptr) throw QelEmptyHandleException();
  return SetCoef(_env, _parts, x.getImpl(), coef);
}

void QelNumLinTermI::setCoef(const QelNumVarArray& xs, const QelNumArray& coefs,
                             const QelNumArray& previous) {
  long n = xs.getSize();
  if (coefs.getSize() != n)
    throw QelWrongUsage("QelNumLinTermI::setCoef: arrays of different sizes");
  for (long i = 0; i < n; ++i)
    if (xs.getElement(i) == nullptr) throw QelEmptyHandleException();
  // Every node the coefficients may need, and room in `previous`, are made
  // before the term changes: a refused allocation leaves it as it was.
  SpareNodes spares(_env, n);
  if (previous.getImpl() != nullptr && previous.getSize() < n) previous.getImpl()->grow(n);
  for (long i = 0; i < n; ++i) {
    double before =
        SetCoef(_env, _parts, static_cast<QelNumVarI*>(xs.getElement(i)), coefs[i], &spares);
    // A previous array that is too short grows; an empty handle is skipped.
    if (previous.getImpl() == nullptr) continue;
    if (i < previous.getSize())
      previous.set(i, before);
    else
      previous.add(before);
  }
}

double QelNumLinTermI::setQuadCoef(const QelNumVar& x, const QelNumVar& y, double coef) {
  if (x.getImpl() == nullptr || y.getImpl() == nullptr) throw QelEmptyHandleException();
  return SetQuadCoef(_env, _parts, x.getImpl(), y.getImpl(), coef);
}

void QelNumLinTermI::normalize() { Normalize(_env, _parts); }
void QelNumLinTermI::zolNormalization() { ZolNormalize(_env, _parts); }
QelBool QelNumLinTermI::containsAggregate() const { return _parts.aggHead != nullptr; }

void QelNumLinTermI::appendTerm(QelLinTermNode* node) {
  if (node == nullptr || node->var == nullptr) throw QelEmptyHandleException();
  node->var->lockExpr();
  LinkLinear(_parts, node);
}

void QelNumLinTermI::addTerm(double coef, QelNumVarI* x) {
  if (x == nullptr) throw QelEmptyHandleException();
  PartsAppender(_env, _parts).linear(coef, x);
}

void QelNumLinTermI::addQuadTerm(double coef, QelNumVarI* x, QelNumVarI* y) {
  if (x == nullptr || y == nullptr) throw QelEmptyHandleException();
  PartsAppender(_env, _parts).quadratic(coef, x, y);
}

void QelNumLinTermI::addAggregate(double coef, QelNumExprI* e) {
  if (e == nullptr) throw QelEmptyHandleException();
  PartsAppender(_env, _parts).aggregate(coef, e);
}

void QelNumLinTermI::addScaled(const QelNumExprI* other, double factor) {
  if (other == nullptr) throw QelEmptyHandleException();
  PartsAppender(_env, _parts).scaled(other, factor);
}

// ===========================================================================
// QelIntLinTermI
// ===========================================================================

QelNumLinTermI* QelIntLinTermI::takeForKeeping() { return QelIntExprI::takeForKeeping(); }

void QelIntLinTermI::addTerm(QelInt coef, QelNumVarI* x) {
  if (x == nullptr) throw QelEmptyHandleException();
  RequireIntegral(x->isIntegral(), "QelIntLinTermI::addTerm: the variable is not integral", x);
  PartsAppender(_env, _parts).linear(static_cast<double>(coef), x);
}

void QelIntLinTermI::addQuadTerm(QelInt coef, QelNumVarI* x, QelNumVarI* y) {
  if (x == nullptr || y == nullptr) throw QelEmptyHandleException();
  RequireIntegral(x->isIntegral() && y->isIntegral(),
                  "QelIntLinTermI::addQuadTerm: a variable is not integral",
                  x->isIntegral() ? y : x);
  PartsAppender(_env, _parts).quadratic(static_cast<double>(coef), x, y);
}

void QelIntLinTermI::addAggregate(QelInt coef, QelNumExprI* e) {
  if (e == nullptr) throw QelEmptyHandleException();
  RequireIntegral(IsIntegralExpr(e), "QelIntLinTermI::addAggregate: the expression is not integral",
                  e);
  PartsAppender(_env, _parts).aggregate(static_cast<double>(coef), e);
}

void QelIntLinTermI::addScaled(const QelNumExprI* other, QelInt factor) {
  if (other == nullptr) throw QelEmptyHandleException();
  RequireIntegral(IsIntegralExpr(other),
                  "QelIntLinTermI::addScaled: the expression is not integral", other);
  PartsAppender(_env, _parts).scaled(other, static_cast<double>(factor));
}

// ===========================================================================
// QelNumProductI
// ===========================================================================

namespace {
QelNumExprI* RequireFactor(QelNumExprI* e) {
  if (e == nullptr) throw QelEmptyHandleException();
  return e;
}
}  // namespace

QelNumProductI::QelNumProductI(QelEnvI* env, QelNumExprI* left, QelNumExprI* right)
    : QelNumExprI(env), _left(RequireFactor(left)), _right(RequireFactor(right)) {
  _left->lockExpr();
  _right->lockExpr();
}

QelNumProductI::~QelNumProductI() {
  removeBeforeTeardown();
  Drop(_left);
  Drop(_right);
}

QelBool QelNumProductI::isRefCountedExpr() const { return true; }

QelExtractableI* QelNumProductI::makeClone(QelEnvI* env) const {
  auto* left = static_cast<QelNumExprI*>(env->getClone(_left));
  auto* right = static_cast<QelNumExprI*>(env->getClone(_right));
  return QelNewObject<QelNumProductI>(env, env, left, right);
}

void QelNumProductI::visitSubExtractables(QelExtractableVisitor* v) {
  v->beginVisit(this);
  v->visitChildren(this, _left);
  v->visitChildren(this, _right);
  v->endVisit(this);
}

void QelNumProductI::display(std::ostream& os) const {
  os << "(";
  _left->display(os);
  os << ") * (";
  _right->display(os);
  os << ")";
}

double QelNumProductI::eval(QelAlgorithm alg) const { return _left->eval(alg) * _right->eval(alg); }

QelBool QelNumProductI::isIntegral() const {
  return IsIntegralExpr(_left) && IsIntegralExpr(_right);
}

QelNumExprI* QelNumProductI::makeCopy() const {
  return QelNewObject<QelNumProductI>(_env, _env, _left, _right);
}

QelBool QelNumProductI::isLinear() const { return false; }

void QelTestIsLinear(QelNumExprI* e) {
  if (e == nullptr) throw QelEmptyHandleException();
  if (!e->isLinear()) throw QelWrongUsage("QelTestIsLinear: expression is not linear");
}

// ===========================================================================
// Handles
// ===========================================================================

namespace {

QelEnvI* EnvOf(const QelEnv& env) {
  if (env.getImpl() == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return env.getImpl();
}

QelNumExprI* ImplOf(const QelNumExpr& e) {
  if (e.getImpl() == nullptr) throw QelEmptyHandleException();
  return e.getImpl();
}

QelNumVarI* NewVar(const QelEnv& env, double lb, double ub, QelVarType type, const char* name) {
  QelEnvI* e = EnvOf(env);
  return QelNewObject<QelNumVarI>(e, e, lb, ub, type, name);
}

}  // namespace

QelNumExpr::QelNumExpr(QelEnv env, double value)
    : QelHandle<QelNumExprI, QelExtractable>(
          QelNewObject<QelNumLinTermI>(EnvOf(env), EnvOf(env), value)) {}

QelNumExpr::LinearIterator QelNumExpr::getLinearIterator() const {
  return LinearIterator(PartsOf(ImplOf(*this)));
}

QelNumExpr::QuadIterator QelNumExpr::getQuadIterator() const {
  return QuadIterator(PartsOf(ImplOf(*this)));
}

double QelNumExpr::getConstant() const { return ImplOf(*this)->getConstant(); }

QelIntExpr::QelIntExpr(QelEnv env, QelInt value)
    : QelIntExpr(QelNewObject<QelIntLinTermI>(EnvOf(env), EnvOf(env), value), QelTemporaryTag()) {}

QelNumVar::QelNumVar(QelEnv env, double lb, double ub, const char* name)
    : QelNumVar(NewVar(env, lb, ub, QelVarType::Float, name)) {}

QelNumVar::QelNumVar(QelEnv env, double lb, double ub, QelVarType type, const char* name)
    : QelNumVar(NewVar(env, lb, ub, type, name)) {}

QelIntVar::QelIntVar(QelEnv env, QelInt lb, QelInt ub, const char* name)
    : QelIntVar(
          NewVar(env, static_cast<double>(lb), static_cast<double>(ub), QelVarType::Int, name)) {}

QelBoolVar::QelBoolVar(QelEnv env, const char* name)
    : QelIntVar(NewVar(env, 0, 1, QelVarType::Bool, name)) {}

QelVarType QelNumVar::getType() const {
  if (getImpl() == nullptr) throw QelEmptyHandleException("QelNumVar: using empty handle");
  return getImpl()->getType();
}

void QelNumVar::setLB(double lb) const {
  if (getImpl() == nullptr) throw QelEmptyHandleException("QelNumVar: using empty handle");
  getImpl()->setBounds(lb, getImpl()->getUB());
}

void QelNumVar::setUB(double ub) const {
  if (getImpl() == nullptr) throw QelEmptyHandleException("QelNumVar: using empty handle");
  getImpl()->setBounds(getImpl()->getLB(), ub);
}

void QelNumVar::setBounds(double lb, double ub) const {
  if (getImpl() == nullptr) throw QelEmptyHandleException("QelNumVar: using empty handle");
  getImpl()->setBounds(lb, ub);
}

// ===========================================================================
// Temporaries: compound assignments and reassignment
// ===========================================================================

namespace {

// The last expression an operator built and the temporaries it was built
// from, so that `e = e + t` can give e's former expression back. Only
// compared, never followed, unless the ids still match.
struct LastBuild {
  const QelExtractableI* result = nullptr;
  QelInt resultId = -1;
  const QelExtractableI* operand[2] = {nullptr, nullptr};
  QelInt operandId[2] = {-1, -1};
};

thread_local LastBuild lastBuild;

void RecordBuild(const QelNumExprI* result, const QelNumExprI* a, const QelNumExprI* b) {
  lastBuild = LastBuild();
  lastBuild.result = result;
  lastBuild.resultId = result->getId();
  const QelNumExprI* ops[2] = {a, b};
  for (int k = 0; k < 2; ++k) {
    if (ops[k] == nullptr || !ops[k]->isTemporary()) continue;
    lastBuild.operand[k] = ops[k];
    lastBuild.operandId[k] = ops[k]->getId();
  }
}

bool BuiltFrom(const QelExtractableI* result, const QelExtractableI* old) {
  if (result == nullptr || result != lastBuild.result || result->getId() != lastBuild.resultId)
    return false;
  for (int k = 0; k < 2; ++k)
    if (old == lastBuild.operand[k] && old->getId() == lastBuild.operandId[k]) return true;
  return false;
}

// Ends `e` when it is a temporary (nothing uses it, no other handle has
// it): the former expression of a handle that now leads elsewhere. A model
// may still list it (models take no use), so it is ended the full way.
void GiveBack(QelNumExprI* e) {
  if (e != nullptr && e->isTemporary()) e->end();
}

// Gives back `e`, a temporary handle's expression an operation has just
// consumed (an rvalue operand), when it is a temporary. Nothing uses it, no
// other handle leads to it, and only an expression a handle still led to
// could have been put in a model: it is unregistered and destroyed at once,
// without the search for holders that ending makes (which visits every
// object of the environment).
void Discard(QelNumExprI* e) {
  if (e == nullptr || !e->isTemporary()) return;
  e->getEnv()->unregister(e);
  delete e;
}

// The expression a handle leads to after an operation that made `fresh`
// from its former expression `old`: a former one left behind goes back.
QelNumExprI* Replace(QelNumExprI* old, QelNumExprI* fresh) {
  if (old != fresh) GiveBack(old);
  return fresh;
}

// Where the lists of a linear parts end, taken before an addition in place
// so that a refused allocation can be undone.
class PartsMark {
 public:
  explicit PartsMark(const QelLinearParts& p)
      : _tail(p.tail),
        _quads(CountNodes(p.quadHead)),
        _aggs(CountNodes(p.aggHead)),
        _constant(p.constant),
        _decision(p.decision) {}

  // Gives back every node added since the mark, with the uses it took.
  void undo(QelEnvI* env, QelLinearParts& p) const {
    QelLinTermNode* lin = _tail != nullptr ? _tail->next : p.head;
    if (_tail != nullptr)
      _tail->next = nullptr;
    else
      p.head = nullptr;
    p.tail = _tail;
    FreeChain(env, lin);
    QelQuadTermNode** quad = &p.quadHead;
    for (long k = 0; k < _quads; ++k) quad = &(*quad)->next;
    FreeChain(env, *quad);
    *quad = nullptr;
    QelAggregateTermNode** agg = &p.aggHead;
    for (long k = 0; k < _aggs; ++k) agg = &(*agg)->next;
    FreeChain(env, *agg);
    *agg = nullptr;
    p.constant = _constant;
    p.decision = _decision;
  }

 private:
  QelLinTermNode* _tail;
  long _quads;
  long _aggs;
  double _constant;
  const QelNumVarI* _decision;
};

// Multiplies every coefficient and the constant of `p` by `f`.
void ScaleParts(QelLinearParts& p, double f) {
  for (QelLinTermNode* n = p.head; n != nullptr; n = n->next) n->coef *= f;
  for (QelQuadTermNode* n = p.quadHead; n != nullptr; n = n->next) n->coef *= f;
  for (QelAggregateTermNode* n = p.aggHead; n != nullptr; n = n->next) n->coef *= f;
  p.constant *= f;
}

// Moves every node of `from` to the end of `into`, each coefficient and
// the constant multiplied by `factor`; `from` is left empty. The nodes keep
// the uses they hold. Allocates nothing.
void SpliceParts(QelLinearParts& into, QelLinearParts& from, double factor) {
  if (factor != 1) ScaleParts(from, factor);
  if (from.head != nullptr) {
    if (into.tail != nullptr)
      into.tail->next = from.head;
    else
      into.head = from.head;
    into.tail = from.tail;
  }
  // The quadratic and aggregate lists have no tail field: walked only when
  // there is something to append (a loop of linear terms never walks them).
  if (from.quadHead != nullptr) {
    QelQuadTermNode** quad = &into.quadHead;
    while (*quad != nullptr) quad = &(*quad)->next;
    *quad = from.quadHead;
  }
  if (from.aggHead != nullptr) {
    QelAggregateTermNode** agg = &into.aggHead;
    while (*agg != nullptr) agg = &(*agg)->next;
    *agg = from.aggHead;
  }
  into.constant += from.constant;
  if (from.head != nullptr || from.quadHead != nullptr) RecomputeDecision(into);
  from.head = from.tail = nullptr;
  from.quadHead = nullptr;
  from.aggHead = nullptr;
  from.constant = 0;
  from.decision = nullptr;
}

bool Whole(double v) { return std::floor(v) == v; }

// The linear parts `self` can be changed through in place: a temporary
// linear term that stays of its kind (an integer term only takes integral
// additions), else null.
QelLinearParts* InPlaceParts(QelNumExprI* self, bool intHandle, double selfFactor,
                             const QelNumExprI* t, double factor, double c) {
  if (self == nullptr) return nullptr;
  // The class first: a variable or an aggregate is never changed in place,
  // whatever its uses.
  const QelLinearParts* parts = PartsOf(self);
  if (parts == nullptr || !self->isTemporary()) return nullptr;
  QelTypeInfo kind = self->getTypeInfo();
  if (kind == QelIntLinTermI::GetTypeInfo() ||
      (kind != QelNumLinTermI::GetTypeInfo() && self->isType(QelIntLinTermI::GetTypeInfo()))) {
    bool integral =
        Whole(selfFactor) && Whole(factor) && Whole(c) && (t == nullptr || IsIntegralExpr(t));
    return integral ? const_cast<QelLinearParts*>(parts) : nullptr;
  }
  return intHandle ? nullptr : const_cast<QelLinearParts*>(parts);
}

// selfFactor * self + factor * t + c, in place when `self` allows it (see
// InPlaceParts), else as a new linear term (numeric, or integer for an
// integer handle). Returns `self` or the new term; the caller decides what
// becomes of a `self` left behind. All or nothing.
QelNumExprI* Accumulate(QelNumExprI* self, bool intHandle, double selfFactor, QelNumExprI* t,
                        double factor, double c, bool tConsumed = false) {
  if (self == nullptr) {
    if (t == nullptr) throw QelEmptyHandleException();
    selfFactor = 0;
  }
  // In place: a product by a number changes coefficients only; a sum
  // appends (and is undone when an allocation is refused), or takes over
  // the nodes of a consumed temporary term.
  QelLinearParts* p = InPlaceParts(self, intHandle, selfFactor, t, factor, c);
  if (p != nullptr && self != nullptr && (selfFactor == 1 || t == nullptr)) {
    QelLinearParts* from = t != nullptr && tConsumed && t != self && t->isTemporary()
                               ? const_cast<QelLinearParts*>(PartsOf(t))
                               : nullptr;
    if (from != nullptr) {
      SpliceParts(*p, *from, factor);
    } else if (t != nullptr) {
      QelEnvI* env = self->getEnv();
      PartsMark mark(*p);
      try {
        PartsAppender(env, *p).scaled(t, factor);
      } catch (...) {
        mark.undo(env, *p);
        throw;
      }
    }
    if (selfFactor != 1) ScaleParts(*p, selfFactor);
    p->constant += c;
    return self;
  }
  QelEnvI* env = (self != nullptr ? self : t)->getEnv();
  auto fill = [&](PartsAppender& out) {
    if (self != nullptr && selfFactor != 0) out.scaled(self, selfFactor);
    if (t != nullptr) out.scaled(t, factor);
    out.constant(c);
  };
  QelNumExprI* fresh = intHandle ? static_cast<QelNumExprI*>(MakeTerm<QelIntLinTermI>(env, fill))
                                 : static_cast<QelNumExprI*>(MakeTerm<QelNumLinTermI>(env, fill));
  return fresh;
}

// self += t where self is a temporary linear term of the family's own
// class and t a variable (the loop `e += v[i]`) or a temporary term of the
// same class (the loop `e += c[i] * v[i]`): the variable gets a node at the
// end of self, or t's nodes move there and t goes at once, as Accumulate
// and Discard would do, without their tests of every other shape. False,
// with nothing done, for any other operands.
// QelNumExprI::isTemporary for a linear term (a reference-counted class):
// no virtual call, the removal mark read in place.
inline bool TemporaryTerm(const QelNumExprI* e) {
  QelInt id = e->getId();
  return !e->isShared() && e->getUseCount() <= 0 && id >= 0 &&
         e->getEnv()->getExtractableTable()[id] != QelEnvI::RemovalMark;
}

bool AppendConsumed(QelNumExprI* self, QelNumExprI* t, bool intFamily) {
  if (self == nullptr || t == nullptr || self == t) return false;
  QelTypeInfo kind = intFamily ? QelIntLinTermI::GetTypeInfo() : QelNumLinTermI::GetTypeInfo();
  QelTypeInfo tKind = t->getTypeInfo();
  if ((tKind != kind && tKind != QelNumVarI::GetTypeInfo()) || self->getTypeInfo() != kind ||
      !TemporaryTerm(self))
    return false;
  // The classes are known: no PartsOf.
  auto partsOf = [intFamily](QelNumExprI* e) -> QelLinearParts& {
    return const_cast<QelLinearParts&>(intFamily ? static_cast<QelIntLinTermI*>(e)->getParts()
                                                 : static_cast<QelNumLinTermI*>(e)->getParts());
  };
  QelLinearParts& parts = partsOf(self);
  if (tKind == QelNumVarI::GetTypeInfo()) {
    // One allocation, made before anything changes.
    PartsAppender(self->getEnv(), parts).linear(1, static_cast<QelNumVarI*>(t));
    return true;
  }
  if (!TemporaryTerm(t)) return false;
  QelLinearParts& from = partsOf(t);
  if (from.head != nullptr && from.quadHead == nullptr && from.aggHead == nullptr) {
    // Linear nodes only (c * x): SpliceParts, its walks of the other lists
    // left out.
    if (parts.tail != nullptr)
      parts.tail->next = from.head;
    else
      parts.head = from.head;
    parts.tail = from.tail;
    parts.decision = parts.head->var;
    parts.constant += from.constant;
    from.head = from.tail = nullptr;
    from.constant = 0;
    from.decision = nullptr;
  } else {
    SpliceParts(parts, from, 1);
  }
  t->getEnv()->unregister(t);
  delete t;
  return true;
}

QelNumExprI* Checked(QelNumExprI* t) {
  if (t == nullptr) throw QelEmptyHandleException();
  return t;
}

}  // namespace

QelNumExpr& QelNumExpr::operator=(QelNumExpr&& other) noexcept {
  QelExtractableI* old = _impl;
  _impl = other._impl;
  other._impl = nullptr;
  if (old != nullptr && old != _impl && BuiltFrom(_impl, old)) {
    lastBuild = LastBuild();
    try {
      GiveBack(static_cast<QelNumExprI*>(old));
    } catch (...) {  // NOLINT(bugprone-empty-catch)
      // Memory that cannot be given back from here (another thread,
      // allocation switched off) stays with the environment until it ends.
    }
  }
  return *this;
}

// The compound assignments of one family: Expr is the handle, Scalar the
// type of its constants, IsInt whether its linear terms are integral.
#define QEL_COMPOUND_ASSIGNMENTS(Expr, Scalar, IsInt)                                              \
  Expr& Expr::operator+=(const Expr& t) {                                                          \
    _impl = Replace(getImpl(), Accumulate(getImpl(), IsInt, 1, Checked(t.getImpl()), 1, 0));       \
    return *this;                                                                                  \
  }                                                                                                \
  Expr& Expr::operator+=(Expr&& t) {                                                               \
    if (AppendConsumed(getImpl(), t.getImpl(), IsInt)) return *this;                               \
    _impl = Replace(getImpl(), Accumulate(getImpl(), IsInt, 1, Checked(t.getImpl()), 1, 0, true)); \
    if (t.getImpl() != getImpl()) Discard(t.getImpl());                                            \
    return *this;                                                                                  \
  }                                                                                                \
  Expr& Expr::operator+=(Scalar c) {                                                               \
    _impl = Replace(getImpl(),                                                                     \
                    Accumulate(Checked(getImpl()), IsInt, 1, nullptr, 0, static_cast<double>(c))); \
    return *this;                                                                                  \
  }                                                                                                \
  Expr& Expr::operator-=(const Expr& t) {                                                          \
    _impl = Replace(getImpl(), Accumulate(getImpl(), IsInt, 1, Checked(t.getImpl()), -1, 0));      \
    return *this;                                                                                  \
  }                                                                                                \
  Expr& Expr::operator-=(Expr&& t) {                                                               \
    _impl =                                                                                        \
        Replace(getImpl(), Accumulate(getImpl(), IsInt, 1, Checked(t.getImpl()), -1, 0, true));    \
    if (t.getImpl() != getImpl()) Discard(t.getImpl());                                            \
    return *this;                                                                                  \
  }                                                                                                \
  Expr& Expr::operator-=(Scalar c) {                                                               \
    _impl = Replace(                                                                               \
        getImpl(), Accumulate(Checked(getImpl()), IsInt, 1, nullptr, 0, -static_cast<double>(c))); \
    return *this;                                                                                  \
  }                                                                                                \
  Expr& Expr::operator*=(Scalar c) {                                                               \
    _impl = Replace(getImpl(),                                                                     \
                    Accumulate(Checked(getImpl()), IsInt, static_cast<double>(c), nullptr, 0, 0)); \
    return *this;                                                                                  \
  }

QEL_COMPOUND_ASSIGNMENTS(QelNumExpr, double, false)
QEL_COMPOUND_ASSIGNMENTS(QelIntExpr, QelInt, true)
#undef QEL_COMPOUND_ASSIGNMENTS

// ===========================================================================
// Operators
// ===========================================================================

namespace {

// A new linear term of class Term (numeric or integer): constant c plus
// fa * a, plus fb * b when b is given. Both families of operators share it.
template <class Term, class Scalar>
Term* LinearSum(QelNumExprI* a, Scalar fa, QelNumExprI* b, Scalar fb, Scalar c) {
  Term* t = MakeTerm<Term>(a->getEnv(), [&](PartsAppender& out) {
    out.scaled(a, static_cast<double>(fa));
    if (b != nullptr) out.scaled(b, static_cast<double>(fb));
    out.constant(static_cast<double>(c));
  });
  RecordBuild(t, a, b);
  return t;
}

}  // namespace

// The linear operators of one family: Expr is the handle, Scalar the type of
// its constants, Term the linear term class the results are made of.
#define QEL_LINEAR_OPERATORS(Expr, Scalar, Term)                                             \
  Expr operator+(const Expr& a, const Expr& b) {                                             \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), 1, ImplOf(b), 1, 0), QelTemporaryTag());  \
  }                                                                                          \
  Expr operator+(const Expr& a, Scalar c) {                                                  \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), 1, nullptr, 0, c), QelTemporaryTag());    \
  }                                                                                          \
  Expr operator+(Scalar c, const Expr& a) {                                                  \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), 1, nullptr, 0, c), QelTemporaryTag());    \
  }                                                                                          \
  Expr operator-(const Expr& a, const Expr& b) {                                             \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), 1, ImplOf(b), -1, 0), QelTemporaryTag()); \
  }                                                                                          \
  Expr operator-(const Expr& a, Scalar c) {                                                  \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), 1, nullptr, 0, -c), QelTemporaryTag());   \
  }                                                                                          \
  Expr operator-(Scalar c, const Expr& a) {                                                  \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), -1, nullptr, 0, c), QelTemporaryTag());   \
  }                                                                                          \
  Expr operator-(const Expr& a) {                                                            \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), -1, nullptr, 0, 0), QelTemporaryTag());   \
  }                                                                                          \
  Expr operator*(const Expr& a, Scalar c) {                                                  \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), c, nullptr, 0, 0), QelTemporaryTag());    \
  }                                                                                          \
  Expr operator*(Scalar c, const Expr& a) {                                                  \
    return Expr(LinearSum<Term, Scalar>(ImplOf(a), c, nullptr, 0, 0), QelTemporaryTag());    \
  }

QEL_LINEAR_OPERATORS(QelNumExpr, double, QelNumLinTermI)
QEL_LINEAR_OPERATORS(QelIntExpr, QelInt, QelIntLinTermI)
#undef QEL_LINEAR_OPERATORS

// ---- operators on temporaries ----------------------------------------------

namespace {

// a + factor * b + c where `a` is a temporary handle: in place when it
// allows it (else a new term, and `a` goes back); `b`, when it is a
// temporary handle too (`bTemp`), goes back once read.
QelNumExprI* Consume(QelNumExprI* a, bool intFamily, double selfFactor, QelNumExprI* b, bool bTemp,
                     double factor, double c) {
  if (a == nullptr) throw QelEmptyHandleException();
  // c * x for a variable x (the loop `e += c[i] * v[i]`): a new term of one
  // node, as Accumulate makes it, without its tests of every other shape
  // (a variable is never changed in place, nor given back).
  if (b == nullptr && c == 0 && selfFactor != 0 && a->getTypeInfo() == QelNumVarI::GetTypeInfo()) {
    auto* x = static_cast<QelNumVarI*>(a);
    auto fill = [x, selfFactor](PartsAppender& out) { out.linear(selfFactor, x); };
    QelEnvI* env = x->getEnv();
    return intFamily ? static_cast<QelNumExprI*>(MakeTerm<QelIntLinTermI>(env, fill))
                     : static_cast<QelNumExprI*>(MakeTerm<QelNumLinTermI>(env, fill));
  }
  QelNumExprI* result = Accumulate(a, intFamily, selfFactor, b, factor, c, bTemp);
  if (result != a) Discard(a);
  if (bTemp && b != result) Discard(b);
  return result;
}

QelNumExprI* ImplOrNull(const QelNumExpr& e) { return ImplOf(e); }

// The handle of the family on a result of Consume (an integer family's
// result is always an integer expression).
QelNumExpr Wrap(QelNumExprI* e, QelNumExpr*) { return QelNumExpr(e, QelTemporaryTag()); }
QelIntExpr Wrap(QelNumExprI* e, QelIntExpr*) {
  return QelIntExpr(static_cast<QelIntExprI*>(e), QelTemporaryTag());
}

}  // namespace

#define QEL_TEMPORARY_OPERATORS(Expr, Scalar, IsInt)                                        \
  Expr operator+(Expr&& a, const Expr& b) {                                                 \
    return Wrap(Consume(a.getImpl(), IsInt, 1, ImplOrNull(b), false, 1, 0),                 \
                static_cast<Expr*>(nullptr));                                               \
  }                                                                                         \
  Expr operator+(const Expr& a, Expr&& b) {                                                 \
    Expr r = static_cast<const Expr&>(a) + static_cast<const Expr&>(b);                     \
    if (b.getImpl() != r.getImpl()) Discard(b.getImpl());                                   \
    return r;                                                                               \
  }                                                                                         \
  Expr operator+(Expr&& a, Expr&& b) {                                                      \
    return Wrap(Consume(a.getImpl(), IsInt, 1, ImplOrNull(b), true, 1, 0),                  \
                static_cast<Expr*>(nullptr));                                               \
  }                                                                                         \
  Expr operator-(Expr&& a, const Expr& b) {                                                 \
    return Wrap(Consume(a.getImpl(), IsInt, 1, ImplOrNull(b), false, -1, 0),                \
                static_cast<Expr*>(nullptr));                                               \
  }                                                                                         \
  Expr operator-(const Expr& a, Expr&& b) {                                                 \
    Expr r = static_cast<const Expr&>(a) - static_cast<const Expr&>(b);                     \
    if (b.getImpl() != r.getImpl()) Discard(b.getImpl());                                   \
    return r;                                                                               \
  }                                                                                         \
  Expr operator-(Expr&& a, Expr&& b) {                                                      \
    return Wrap(Consume(a.getImpl(), IsInt, 1, ImplOrNull(b), true, -1, 0),                 \
                static_cast<Expr*>(nullptr));                                               \
  }                                                                                         \
  Expr operator+(Expr&& a, Scalar c) {                                                      \
    return Wrap(Consume(a.getImpl(), IsInt, 1, nullptr, false, 0, static_cast<double>(c)),  \
                static_cast<Expr*>(nullptr));                                               \
  }                                                                                         \
  Expr operator-(Expr&& a, Scalar c) {                                                      \
    return Wrap(Consume(a.getImpl(), IsInt, 1, nullptr, false, 0, -static_cast<double>(c)), \
                static_cast<Expr*>(nullptr));                                               \
  }                                                                                         \
  Expr operator*(Expr&& a, Scalar c) {                                                      \
    return Wrap(Consume(a.getImpl(), IsInt, static_cast<double>(c), nullptr, false, 0, 0),  \
                static_cast<Expr*>(nullptr));                                               \
  }                                                                                         \
  Expr operator*(Scalar c, Expr&& a) {                                                      \
    return Wrap(Consume(a.getImpl(), IsInt, static_cast<double>(c), nullptr, false, 0, 0),  \
                static_cast<Expr*>(nullptr));                                               \
  }

QEL_TEMPORARY_OPERATORS(QelNumExpr, double, false)
QEL_TEMPORARY_OPERATORS(QelIntExpr, QelInt, true)
#undef QEL_TEMPORARY_OPERATORS

QelNumExpr operator*(const QelNumExpr& a, const QelNumExpr& b) {
  QelNumExprI* ai = ImplOf(a);
  QelNumExprI* bi = ImplOf(b);
  QelEnvI* env = ai->getEnv();
  if (ProductIsQuadratic(ai, bi))
    return QelNumExpr(
        MakeTerm<QelNumLinTermI>(env, [ai, bi](PartsAppender& out) { out.product(ai, bi); }),
        QelTemporaryTag());
  return QelNumExpr(QelNewObject<QelNumProductI>(env, env, ai, bi), QelTemporaryTag());
}

QelIntExpr operator*(const QelIntExpr& a, const QelIntExpr& b) {
  QelNumExprI* ai = ImplOf(a);
  QelNumExprI* bi = ImplOf(b);
  QelEnvI* env = ai->getEnv();
  if (ProductIsQuadratic(ai, bi))
    return QelIntExpr(
        MakeTerm<QelIntLinTermI>(env, [ai, bi](PartsAppender& out) { out.product(ai, bi); }),
        QelTemporaryTag());
  // Beyond degree two: an integer term holding the product as its one
  // aggregate, so that the result stays an integer expression.
  QelIntLinTermI* t = QelNewObject<QelIntLinTermI>(env, env);
  try {
    QelNumProductI* p = QelNewObject<QelNumProductI>(env, env, ai, bi);
    try {
      PartsAppender(env, t->getParts()).aggregate(1, p);
    } catch (...) {
      p->end();
      throw;
    }
  } catch (...) {
    t->end();
    throw;
  }
  return QelIntExpr(t, QelTemporaryTag());
}

// ===========================================================================
// Arrays
// ===========================================================================

void QelNumExprArray::lockExprs() const {
  long n = getSize();
  for (long i = 0; i < n; ++i)
    if (QelExtractableI* x = getElement(i)) static_cast<QelNumExprI*>(x)->lockExpr();
}

void QelNumExprArray::releaseExprs() const {
  long n = getSize();
  for (long i = 0; i < n; ++i)
    if (QelExtractableI* x = getElement(i)) {
      auto* e = static_cast<QelNumExprI*>(x);
      e->getEnv()->release(e);
    }
}

namespace {

// A new array of `n` new variables of `type`; on failure the variables
// made so far and the array are ended.
QelArrayI* NewVarArray(const QelEnv& env, long n, double lb, double ub, QelVarType type) {
  QelEnvI* e = EnvOf(env);
  e->reserveSlots(n);
  QelArrayI* a = QelArrayI::Make(e->getGeneralAllocator(), 0);
  try {
    for (long i = 0; i < n; ++i) {
      QelNumVarI* x = QelNewObject<QelNumVarI>(e, e, lb, ub, type);
      try {
        a->addRaw(reinterpret_cast<std::uintptr_t>(static_cast<QelExtractableI*>(x)));
      } catch (...) {
        x->end();
        throw;
      }
    }
  } catch (...) {
    for (long i = 0; i < a->getSize(); ++i) QelArrayGet<QelExtractableI*>(a, i)->end();
    delete a;
    throw;
  }
  return a;
}

}  // namespace

QelNumVarArray::QelNumVarArray(QelEnv env, long n, double lb, double ub)
    : QelNumExprArray(QelExtractableArray(NewVarArray(env, n, lb, ub, QelVarType::Float))) {}

QelIntVarArray::QelIntVarArray(QelEnv env, long n, QelInt lb, QelInt ub)
    : QelIntExprArray(QelExtractableArray(NewVarArray(env, n, static_cast<double>(lb),
                                                      static_cast<double>(ub), QelVarType::Int))) {}

QelBoolVarArray::QelBoolVarArray(QelEnv env, long n)
    : QelIntVarArray(QelExtractableArray(NewVarArray(env, n, 0, 1, QelVarType::Bool))) {}

namespace {

long CountOf(long rows, long cols) {
  if (rows < 0 || cols < 0) throw QelWrongUsage("QelVarArray2D: negative dimension");
  return rows * cols;
}

}  // namespace

QelNumVarArray2D::QelNumVarArray2D(QelEnv env, long rows, long cols, double lb, double ub)
    : QelVarArray2D(QelNumVarArray(env, CountOf(rows, cols), lb, ub), rows, cols) {}

QelIntVarArray2D::QelIntVarArray2D(QelEnv env, long rows, long cols, QelInt lb, QelInt ub)
    : QelVarArray2D(QelIntVarArray(env, CountOf(rows, cols), lb, ub), rows, cols) {}

QelBoolVarArray2D::QelBoolVarArray2D(QelEnv env, long rows, long cols)
    : QelVarArray2D(QelBoolVarArray(env, CountOf(rows, cols)), rows, cols) {}

QelIntExprArray QelIntVarArray::toIntExprArray() const {
  if (_impl == nullptr) return QelIntExprArray();
  return QelIntExprArray(QelExtractableArray(QelArrayI::MakeCopy(_impl->getAllocator(), _impl)));
}

namespace {

// The environment a sum over `xs` is made in: the first element's, or the
// array's own when it is empty. Null elements are refused. `plainVariables`
// tells whether every element is a plain variable (of class QelNumVarI
// exactly), for PartsAppender::elements.
QelEnvI* SumEnv(const QelNumExprArray& xs, bool& plainVariables) {
  const QelArrayI* a = xs.getImpl();
  if (a == nullptr) throw QelEmptyHandleException();
  bool plain = true;
  a->forEachRaw([&plain](std::uint64_t w) {
    const auto* e = QelArrayWordAs<const QelExtractableI*>(w);
    if (e == nullptr) throw QelEmptyHandleException();
    plain = plain && e->getTypeInfo() == QelNumVarI::GetTypeInfo();
  });
  plainVariables = plain;
  return a->getSize() > 0 ? xs.getElement(0)->getEnv() : a->getEnv();
}

}  // namespace

namespace {

// The sum of the elements of `xs`, as a new linear term of class Term.
template <class Term>
Term* SumOf(const QelNumExprArray& xs) {
  bool plainVariables = false;
  QelEnvI* env = SumEnv(xs, plainVariables);
  return MakeTerm<Term>(env, [&xs, plainVariables](PartsAppender& out) {
    out.elements(xs.getImpl(), nullptr, plainVariables);
  });
}

}  // namespace

QelNumExpr QelSum(const QelNumExprArray& xs) {
  return QelNumExpr(SumOf<QelNumLinTermI>(xs), QelTemporaryTag());
}

QelIntExpr QelSum(const QelIntExprArray& xs) {
  return QelIntExpr(SumOf<QelIntLinTermI>(xs), QelTemporaryTag());
}

QelNumExpr QelScalProd(const QelNumExprArray& xs, const QelNumArray& coefs) {
  bool plainVariables = false;
  QelEnvI* env = SumEnv(xs, plainVariables);
  if (coefs.getSize() != xs.getSize())
    throw QelWrongUsage("QelScalProd: arrays of different sizes");
  QelNumLinTermI* t =
      MakeTerm<QelNumLinTermI>(env, [&xs, &coefs, plainVariables](PartsAppender& out) {
        out.elements(xs.getImpl(), coefs.getImpl(), plainVariables);
      });
  return QelNumExpr(t, QelTemporaryTag());
}

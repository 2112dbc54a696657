// Linear forms, bounds, integrality and content hashes.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include <qel/engines/linear.h>

void QelLinearForm::addTerm(QelNumVarI* v, double coef) {
  for (auto it = terms.begin(); it != terms.end(); ++it) {
    if (it->first != v) continue;
    it->second += coef;
    if (it->second == 0.0) terms.erase(it);
    return;
  }
  if (coef != 0.0) terms.emplace_back(v, coef);
}

void QelLinearForm::merge() {
  if (terms.size() <= 8) {
    // Short forms: pairwise, no allocation.
    size_t out = 0;
    for (size_t i = 0; i < terms.size(); ++i) {
      size_t j = 0;
      while (j < out && terms[j].first != terms[i].first) ++j;
      if (j < out)
        terms[j].second += terms[i].second;
      else
        terms[out++] = terms[i];
    }
    terms.resize(out);
  } else {
    std::unordered_map<const QelNumVarI*, size_t> at;
    at.reserve(terms.size());
    size_t out = 0;
    for (size_t i = 0; i < terms.size(); ++i) {
      auto ins = at.emplace(terms[i].first, out);
      if (ins.second)
        terms[out++] = terms[i];
      else
        terms[ins.first->second].second += terms[i].second;
    }
    terms.resize(out);
  }
  terms.erase(
      std::remove_if(terms.begin(), terms.end(),
                     [](const std::pair<QelNumVarI*, double>& t) { return t.second == 0.0; }),
      terms.end());
}

void QelLinearForm::addScaled(const QelLinearForm& other, double factor) {
  constant += factor * other.constant;
  for (const auto& t : other.terms) appendTerm(t.first, factor * t.second);
  merge();
  for (const auto& q : other.quad) quad.push_back({q.var1, q.var2, factor * q.coef});
  if (unsupported.empty()) unsupported = other.unsupported;
}

namespace {

const QelLinearParts* PartsOf(const QelNumExprI* e) {
  // The exact classes first: one comparison each instead of a class walk.
  QelTypeInfo type = e->getTypeInfo();
  if (type == QelNumLinTermI::GetTypeInfo())
    return &static_cast<const QelNumLinTermI*>(e)->getParts();
  if (type == QelIntLinTermI::GetTypeInfo())
    return &static_cast<const QelIntLinTermI*>(e)->getParts();
  if (const auto* t = QelDynamicCast<const QelNumLinTermI>(e)) return &t->getParts();
  if (const auto* t = QelDynamicCast<const QelIntLinTermI>(e)) return &t->getParts();
  return nullptr;
}

}  // namespace

const QelLinearParts* QelPlainLinearParts(const QelNumExprI* e) {
  const QelLinearParts* p = e != nullptr ? PartsOf(e) : nullptr;
  return p != nullptr && p->quadHead == nullptr && p->aggHead == nullptr ? p : nullptr;
}

bool QelLinearize(const QelNumExprI* e, double factor, QelLinearForm& form) {
  if (e == nullptr) {
    form.unsupported = "an empty expression";
    return false;
  }
  if (auto* v = QelDynamicCast<QelNumVarI>(const_cast<QelNumExprI*>(e))) {
    form.appendTerm(v, factor);
    return true;
  }
  if (const QelLinearParts* parts = PartsOf(e)) {
    form.constant += factor * parts->constant;
    for (const QelLinTermNode* n = parts->head; n != nullptr; n = n->next)
      form.appendTerm(n->var, factor * n->coef);
    for (const QelQuadTermNode* q = parts->quadHead; q != nullptr; q = q->next) {
      if (q->coef != 0.0) {
        form.quad.push_back({q->var1, q->var2, factor * q->coef});
      } else {
        // Its variables are still met (merge() drops the zero terms).
        form.appendTerm(q->var1, 0.0);
        form.appendTerm(q->var2, 0.0);
      }
    }
    for (const QelAggregateTermNode* a = parts->aggHead; a != nullptr; a = a->next)
      if (!QelLinearize(a->expr, factor * a->coef, form)) return false;
    return true;
  }
  if (const auto* p = QelDynamicCast<const QelNumProductI>(e)) {
    // Linear only when one factor is a constant.
    QelLinearForm left = QelLinearFormOf(p->getLeft());
    QelLinearForm right = QelLinearFormOf(p->getRight());
    if (!left.unsupported.empty() || !right.unsupported.empty()) {
      form.unsupported = !left.unsupported.empty() ? left.unsupported : right.unsupported;
      return false;
    }
    bool leftConst = left.terms.empty() && left.quad.empty();
    bool rightConst = right.terms.empty() && right.quad.empty();
    if (leftConst) {
      form.addScaled(right, factor * left.constant);
      return true;
    }
    if (rightConst) {
      form.addScaled(left, factor * right.constant);
      return true;
    }
    if (left.quad.empty() && right.quad.empty()) {
      // (a0 + sum ai xi) * (b0 + sum bj yj): a quadratic form.
      form.constant += factor * left.constant * right.constant;
      for (const auto& t : left.terms) form.appendTerm(t.first, factor * t.second * right.constant);
      for (const auto& t : right.terms) form.appendTerm(t.first, factor * t.second * left.constant);
      for (const auto& a : left.terms)
        for (const auto& b : right.terms)
          form.quad.push_back({a.first, b.first, factor * a.second * b.second});
      return true;
    }
    form.unsupported = "a product of degree higher than two";
    return false;
  }
  form.unsupported = std::string("an expression of class ") + e->getRttiTypeName();
  return false;
}

QelLinearForm QelLinearFormOf(const QelNumExprI* e) {
  QelLinearForm form;
  QelLinearize(e, 1.0, form);
  form.merge();
  return form;
}

bool QelIsInfiniteBound(double v) { return std::isinf(v) || std::fabs(v) >= QelInfiniteBound; }

std::pair<double, double> QelBoundsOf(const QelLinearForm& form) {
  const double inf = std::numeric_limits<double>::infinity();
  double lo = form.constant;
  double hi = form.constant;
  for (const auto& t : form.terms) {
    double lb = t.first->getLB();
    double ub = t.first->getUB();
    if (QelIsInfiniteBound(lb) && lb < 0) lb = -inf;
    if (QelIsInfiniteBound(ub) && ub > 0) ub = inf;
    double a = t.second * lb;
    double b = t.second * ub;
    if (std::isnan(a))
      a = t.second > 0 ? -std::numeric_limits<double>::infinity()
                       : std::numeric_limits<double>::infinity();
    if (std::isnan(b))
      b = t.second > 0 ? std::numeric_limits<double>::infinity()
                       : -std::numeric_limits<double>::infinity();
    lo += std::min(a, b);
    hi += std::max(a, b);
  }
  return {lo, hi};
}

bool QelIsIntegerValue(double v) { return std::isfinite(v) && std::floor(v) == v; }

bool QelIsIntegral(const QelLinearForm& form) {
  if (!form.isLinear() || !QelIsIntegerValue(form.constant)) return false;
  for (const auto& t : form.terms)
    if (t.first->getType() == QelVarType::Float || !QelIsIntegerValue(t.second)) return false;
  return true;
}

// ---- content hashes ---------------------------------------------------------

namespace {

class Hasher {
 public:
  // A whole word at a time (a multiply and a shift): the hash is taken of
  // every member at extraction and again before each solve, so it must cost
  // little next to reading the member.
  void word(std::uint64_t w) {
    _h = (_h ^ w) * 0x9e3779b97f4a7c15ULL;
    _h ^= _h >> 32;
  }
  void number(double d) {
    std::uint64_t w = 0;
    std::memcpy(&w, &d, sizeof w);
    word(w);
  }
  void pointer(const void* p) { word(reinterpret_cast<std::uintptr_t>(p)); }
  void expr(const QelNumExprI* e) {
    pointer(e);
    if (e == nullptr) return;
    pointer(reinterpret_cast<const void*>(e->getTypeInfo()));
    if (const QelLinearParts* parts = PartsOf(e)) {
      number(parts->constant);
      // The linear terms, the bulk of a large model: each term is mixed on
      // its own (two multiplies that do not wait for each other) and folded
      // in with a rotation, instead of a chain of dependent multiplies. A
      // changed coefficient or variable always changes its term's word (odd
      // multipliers), and so the hash.
      std::uint64_t terms = 0;
      std::uint64_t count = 0;
      for (const QelLinTermNode* n = parts->head; n != nullptr; n = n->next) {
        std::uint64_t c = 0;
        std::memcpy(&c, &n->coef, sizeof c);
        std::uint64_t t = c * 0xff51afd7ed558ccdULL +
                          reinterpret_cast<std::uintptr_t>(n->var) * 0xc4ceb9fe1a85ec53ULL;
        terms = ((terms << 5) | (terms >> 59)) ^ t;
        ++count;
      }
      word(count);
      word(terms);
      for (const QelQuadTermNode* q = parts->quadHead; q != nullptr; q = q->next) {
        number(q->coef);
        pointer(q->var1);
        pointer(q->var2);
      }
      for (const QelAggregateTermNode* a = parts->aggHead; a != nullptr; a = a->next) {
        number(a->coef);
        expr(a->expr);
      }
    } else if (const auto* p = QelDynamicCast<const QelNumProductI>(e)) {
      expr(p->getLeft());
      expr(p->getRight());
    }
  }
  void exprs(const QelExtractableArray& a) {
    word(static_cast<std::uint64_t>(a.getSize()));
    for (long i = 0; i < a.getSize(); ++i) expr(static_cast<const QelNumExprI*>(a.getElement(i)));
  }
  template <class T>
  void numbers(const QelArray<T>& a) {
    word(static_cast<std::uint64_t>(a.getSize()));
    for (long i = 0; i < a.getSize(); ++i) number(static_cast<double>(a[i]));
  }
  std::uint64_t value() const { return _h; }

 private:
  std::uint64_t _h = 14695981039346656037ULL;
};

}  // namespace

std::uint64_t QelContentHash(const QelExtractableI* x) {
  Hasher h;
  h.pointer(x);
  if (x == nullptr) return h.value();
  QelTypeInfo type = x->getTypeInfo();
  h.pointer(reinterpret_cast<const void*>(type));
  auto range = [&h](const QelRangeI* r) {
    h.number(r->getLB());
    h.number(r->getUB());
    h.expr(r->getExpr());
  };
  // Ranges are most of a large model's members: their exact class is
  // tested first, one comparison instead of a walk per class tried.
  if (type == QelRangeI::GetTypeInfo()) {
    range(static_cast<const QelRangeI*>(x));
  } else if (const auto* v = QelDynamicCast<const QelNumVarI>(x)) {
    h.number(v->getLB());
    h.number(v->getUB());
    h.word(static_cast<std::uint64_t>(v->getType()));
  } else if (const auto* e = QelDynamicCast<const QelNumExprI>(x)) {
    h.expr(e);
  } else if (const auto* r = QelDynamicCast<const QelRangeI>(x)) {
    range(r);
  } else if (const auto* d = QelDynamicCast<const QelDiffI>(x)) {
    h.number(d->getConstant());
    h.expr(d->getX());
    h.expr(d->getY());
  } else if (const auto* a = QelDynamicCast<const QelAllDiffI>(x)) {
    h.exprs(a->getExprArray());
  } else if (const auto* m = QelDynamicCast<const QelAllMinDistanceI>(x)) {
    h.word(static_cast<std::uint64_t>(m->getK()));
    h.exprs(m->getExprArray());
  } else if (const auto* s1 = QelDynamicCast<const QelSOS1I>(x)) {
    h.exprs(s1->getVarArray());
    h.numbers(s1->getValArray());
  } else if (const auto* s2 = QelDynamicCast<const QelSOS2I>(x)) {
    h.exprs(s2->getVarArray());
    h.numbers(s2->getValArray());
  } else if (const auto* p = QelDynamicCast<const QelPackI>(x)) {
    h.exprs(p->getLoad());
    h.exprs(p->getWhere());
    h.numbers(p->getWeight());
    h.expr(p->getUsed());
    h.pointer(p->getUsedSet());
    if (p->getUsedSet() != nullptr) {
      h.numbers(p->getUsedSet()->getPossible());
      h.pointer(p->getUsedSet()->getCardVar());
    }
    h.word(static_cast<std::uint64_t>(p->getBoolArrays().getSize()));
  } else if (const auto* o = QelDynamicCast<const QelObjectiveI>(x)) {
    h.word(static_cast<std::uint64_t>(static_cast<std::int64_t>(o->getSense())));
    long n = o->getNumCriteria();
    h.word(static_cast<std::uint64_t>(n));
    for (long i = 0; i < n; ++i) h.expr(o->getCriterion(i));
  } else if (const auto* sv = QelDynamicCast<const QelIntSetVarI>(x)) {
    h.numbers(sv->getPossible());
    h.pointer(sv->getCardVar());
  } else if (const auto* iv = QelDynamicCast<const QelIntervalVarI>(x)) {
    h.word(static_cast<std::uint64_t>(iv->getSize()));
    h.word(static_cast<std::uint64_t>(iv->getStartMin()));
    h.word(static_cast<std::uint64_t>(iv->getEndMax()));
  }
  // Models are followed through their notices; their content is not hashed.
  return h.value();
}

// Helpers shared by the engine tests: an independent check of a solution
// against every constraint of a model, and the comparison of an engine's
// answer with a fresh extraction of the same model.
#ifndef QEL_TESTS_ENGINES_SUPPORT_ENGINETEST_H
#define QEL_TESTS_ENGINES_SUPPORT_ENGINETEST_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <qel/engines/engine.h>
#include <qel/qel.h>

#if defined(__SANITIZE_ADDRESS__)
#define QEL_TEST_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QEL_TEST_UNDER_ASAN 1
#endif
#endif

namespace enginetest {

/// Settings that keep a solver's tests fast under AddressSanitizer: the
/// solvers' libraries are not instrumented, but their allocations go through
/// the sanitizer's allocator, and CBC's root cut loop then takes tens of
/// seconds on small reformulated models (under a second otherwise). The
/// sanitizer build runs them with CBC's cuts off, through the same driver
/// (switching preprocessing or heuristics off as well makes the searches
/// longer, not shorter).
inline QelEngineI* UnderSanitizer(QelEngineI* engine) {
#ifdef QEL_TEST_UNDER_ASAN
  if (std::string(engine->getEngineName()) == "CBC") {
    engine->setParam("cuts", "off");
  }
#endif
  return engine;
}

/// Destroys an engine (the memory goes back to its environment).
struct EngineDeleter {
  void operator()(QelEngineI* e) const { delete e; }
};
/// An engine owned by the test; reset it before the environment ends.
using EnginePtr = std::unique_ptr<QelEngineI, EngineDeleter>;

/// The value `alg` holds for `e`.
inline double Value(QelEngineI* alg, const QelNumExprI* e) { return alg->getValue(e); }

/// Checks the constraint `c` against the values `alg` holds; returns whether
/// it could be checked. Ranges are checked within the engine's feasibility
/// tolerance, differences and all-different constraints with their own eval;
/// all-min-distance, pack and special ordered sets (which have no eval)
/// directly.
inline bool CheckConstraint(QelEngineI* alg, const QelExtractableI* c) {
  const std::string what = QelDescribe(c);
  if (const auto* r = QelDynamicCast<const QelRangeI>(c)) {
    // Within the engine's feasibility tolerance (LP solutions carry
    // residuals of the order of 1e-12).
    double v = alg->getValue(r->getExpr());
    double tol = alg->getFeasibilityTolerance();
    EXPECT_GE(v, r->getLB() - tol * std::max(1.0, std::fabs(r->getLB())))
        << what << " is violated by the solution";
    EXPECT_LE(v, r->getUB() + tol * std::max(1.0, std::fabs(r->getUB())))
        << what << " is violated by the solution";
    return true;
  }
  if (QelDynamicCast<const QelDiffI>(c) != nullptr ||
      QelDynamicCast<const QelAllDiffI>(c) != nullptr) {
    EXPECT_EQ(static_cast<const QelConstraintI*>(c)->eval(QelAlgorithm(alg)), 1.0)
        << what << " is violated by the solution";
    return true;
  }
  if (const auto* a = QelDynamicCast<const QelAllMinDistanceI>(c)) {
    QelIntExprArray xs = a->getExprArray();
    for (long i = 0; i < xs.getSize(); ++i)
      for (long j = i + 1; j < xs.getSize(); ++j) {
        double vi = Value(alg, static_cast<const QelNumExprI*>(xs.getElement(i)));
        double vj = Value(alg, static_cast<const QelNumExprI*>(xs.getElement(j)));
        EXPECT_GE(std::fabs(vi - vj), static_cast<double>(a->getK()))
            << what << ": elements " << i << " and " << j;
      }
    return true;
  }
  if (const auto* p = QelDynamicCast<const QelPackI>(c)) {
    QelIntExprArray load = p->getLoad();
    QelIntExprArray where = p->getWhere();
    QelIntArray weight = p->getWeight();
    std::vector<double> sums(static_cast<size_t>(load.getSize()), 0.0);
    std::set<QelInt> used;
    for (long i = 0; i < where.getSize(); ++i) {
      double bin = Value(alg, static_cast<const QelNumExprI*>(where.getElement(i)));
      EXPECT_EQ(bin, std::floor(bin)) << what << ": item " << i;
      EXPECT_GE(bin, 0) << what << ": item " << i << " is in no bin";
      EXPECT_LT(bin, static_cast<double>(load.getSize()))
          << what << ": item " << i << " is in no bin";
      if (bin < 0 || bin >= static_cast<double>(load.getSize())) continue;
      sums[static_cast<size_t>(bin)] += static_cast<double>(weight[i]);
      used.insert(static_cast<QelInt>(bin));
    }
    for (long j = 0; j < load.getSize(); ++j)
      EXPECT_EQ(Value(alg, static_cast<const QelNumExprI*>(load.getElement(j))),
                sums[static_cast<size_t>(j)])
          << what << ": load of bin " << j;
    if (p->getUsed() != nullptr) {
      EXPECT_EQ(Value(alg, p->getUsed()), static_cast<double>(used.size()))
          << what << ": used count";
    }
    if (p->getUsedSet() != nullptr) {
      std::vector<QelInt> set = alg->getSetValue(p->getUsedSet());
      EXPECT_EQ(set, std::vector<QelInt>(used.begin(), used.end())) << what << ": used set";
      if (p->getUsedSet()->getCardVar() != nullptr) {
        EXPECT_EQ(Value(alg, p->getUsedSet()->getCardVar()), static_cast<double>(set.size()))
            << what << ": cardinality of the used set";
      }
    }
    return true;
  }
  auto checkSos = [&](QelNumVarArray vars, QelNumArray vals, int type) {
    std::vector<std::pair<double, double>> byWeight;  // weight, value
    double last = 0;
    for (long i = 0; i < vars.getSize(); ++i) {
      double w = i < vals.getSize() ? vals[i] : last + 1;
      last = w;
      byWeight.emplace_back(w, Value(alg, static_cast<const QelNumExprI*>(vars.getElement(i))));
    }
    std::sort(byWeight.begin(), byWeight.end());
    std::vector<size_t> nonzero;
    for (size_t i = 0; i < byWeight.size(); ++i)
      if (byWeight[i].second != 0.0) nonzero.push_back(i);
    EXPECT_LE(nonzero.size(), static_cast<size_t>(type)) << what;
    if (type == 2 && nonzero.size() == 2) {
      EXPECT_EQ(nonzero[1], nonzero[0] + 1) << what << ": not adjacent";
    }
  };
  if (const auto* s = QelDynamicCast<const QelSOS1I>(c)) {
    checkSos(s->getVarArray(), s->getValArray(), 1);
    return true;
  }
  if (const auto* s = QelDynamicCast<const QelSOS2I>(c)) {
    checkSos(s->getVarArray(), s->getValArray(), 2);
    return true;
  }
  return false;
}

/// Checks every constraint of `model` (and of its sub-models) against the
/// values `alg` holds; fails for a constraint it does not know how to check.
/// Returns the number of constraints checked.
inline int CheckSolution(QelEngineI* alg, const QelModelI* model) {
  int checked = 0;
  for (QelModelI::Iterator it(model); it.ok(); ++it) {
    const QelExtractableI* x = *it;
    if (const auto* sub = QelDynamicCast<const QelModelI>(x)) {
      checked += CheckSolution(alg, sub);
    } else if (QelDynamicCast<const QelConstraintI>(x) != nullptr) {
      if (CheckConstraint(alg, x))
        ++checked;
      else
        ADD_FAILURE() << "no check for " << QelDescribe(x);
    }
  }
  return checked;
}

/// Checks that the engine's own objective values and those evaluated on
/// the held values agree.
inline void CheckObjective(QelEngineI* alg, double tolerance = 1e-6) {
  for (long i = 0; i < alg->getNumCriteria(); ++i)
    EXPECT_NEAR(alg->getObjValue(i), alg->getEngineObjValue(i), tolerance) << "criterion " << i;
}

/// The answer of an engine: status and objective values.
struct Answer {
  QelEngineStatus status = QelEngineStatus::Unknown;
  std::vector<double> objective;
};

/// What `alg` answered last.
inline Answer AnswerOf(QelEngineI* alg) {
  Answer a;
  a.status = alg->getStatus();
  if (alg->hasSolution())
    for (long i = 0; i < alg->getNumCriteria(); ++i) a.objective.push_back(alg->getObjValue(i));
  return a;
}

/// Extracts `model` into a new engine made by `make`, solves, checks the
/// solution, and expects the same answer as `expected`.
template <class Make>
void ExpectSameAsFresh(Make make, QelEnv env, const QelModel& model, const Answer& expected,
                       double tolerance = 1e-6) {
  EnginePtr fresh(make(env));
  fresh->extract(model.getImpl());
  fresh->solve();
  Answer got = AnswerOf(fresh.get());
  EXPECT_EQ(got.status, expected.status) << "fresh extraction";
  ASSERT_EQ(got.objective.size(), expected.objective.size()) << "fresh extraction";
  for (size_t i = 0; i < got.objective.size(); ++i)
    EXPECT_NEAR(got.objective[i], expected.objective[i], tolerance) << "criterion " << i;
  if (fresh->hasSolution()) CheckSolution(fresh.get(), model.getImpl());
}

}  // namespace enginetest

#endif

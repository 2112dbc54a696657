// A scripted scenario that touches every subsystem of the library, one
// public operation per step, for the tests that make operations fail on
// purpose (an allocation refused at the N-th request, allocation switched
// off, a foreign thread).
//
// The scenario works in two environments: `main`, where the model is built,
// changed and partly ended, and `copy`, into which it is cloned. A recording
// algorithm listens in each. Every step is one call of the public interface
// (making one object, adding one member, setting one coefficient, ending
// one object...), so that a step that fails must leave everything as it was
// and can simply be run again. The last steps end every object that is left
// and release every algorithm, array and notice, so that each environment's
// objects hold no memory at the end.
#ifndef QEL_TESTS_RELIABILITY_SCENARIO_H
#define QEL_TESTS_RELIABILITY_SCENARIO_H

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "reliability/worldstate.h"
#include "support/qeltest.h"

namespace reliability {

/// The objects the scenario works with; the steps fill it in.
struct ScenarioObjects {
  QelEnv main{static_cast<QelEnvI*>(nullptr)};
  QelEnv copy{static_cast<QelEnvI*>(nullptr)};
  qeltest::RecordingAlgorithmI* rec = nullptr;
  qeltest::RecordingAlgorithmI* rec2 = nullptr;
  QelAlgorithm values;

  QelIntVar x, y, z, w, w2;
  QelBoolVar b;
  QelNumVar f;
  QelIntVarArray many;
  QelIntExpr sum;
  QelNumExpr square, product;
  QelRange cap, loose;
  QelDiff notThree, apart;
  QelIntVarArray trio;
  QelAllDiff allDiff;
  QelAllMinDistance spread;
  QelIntVarArray load, where;
  QelIntArray weights;
  QelPack pack;
  QelSOS1 sos1;
  QelSOS2 sos2;
  QelObjective cost, lex;
  QelMultiCriterionExpr criteria;
  QelNumVarArray coefVars;
  QelNumArray coefs;
  QelModel model, inner;
  QelExtractableArray constraints, removals;
  QelAddExtractable* objColumn = nullptr;
  QelAddExtractable* setColumn = nullptr;
  QelAddExtractable* diffColumn = nullptr;
  QelModel modelCopy;
  QelExtractableArray copied, originals;
  QelExtractableArray leftovers, leftovers2;
};

/// One step: its name and the one operation it performs.
struct Step {
  std::string name;
  std::function<void(ScenarioObjects&)> run;
};

/// An array of every live object of `env` (in id order).
inline QelExtractableArray LiveObjects(QelEnv env) {
  QelEnvI* e = env.getImpl();
  QelExtractableArray all(env, 0);
  try {
    for (QelInt id = 0; id < e->getExtractableTableSize(); ++id)
      if (QelExtractableI* x = e->getExtractable(id)) all.add(QelExtractable(x));
  } catch (...) {
    all.end();
    throw;
  }
  return all;
}

/// The steps of the scenario, in order.
inline std::vector<Step> Scenario() {
  using S = ScenarioObjects;
  std::vector<Step> steps;
  auto step = [&steps](std::string name, std::function<void(S&)> run) {
    steps.push_back({std::move(name), std::move(run)});
  };
  // ---- listeners and variables --------------------------------------
  step("attach a recorder", [](S& s) { s.rec = qeltest::MakeRecorder(s.main); });
  step("attach a recorder to the copy", [](S& s) { s.rec2 = qeltest::MakeRecorder(s.copy); });
  step("make x", [](S& s) { s.x = QelIntVar(s.main, 0, 9, "x"); });
  step("make y", [](S& s) { s.y = QelIntVar(s.main, 0, 9, "y"); });
  step("make z (unnamed)", [](S& s) { s.z = QelIntVar(s.main, 0, 9); });
  step("make Boolean b", [](S& s) { s.b = QelBoolVar(s.main, "b"); });
  step("make float f", [](S& s) { s.f = QelNumVar(s.main, 0, 5, "f"); });
  step("make 70 variables", [](S& s) { s.many = QelIntVarArray(s.main, 70, 0, 9); });
  step("name the 70 variables", [](S& s) { s.many.setNames("v"); });
  step("rename the 70 variables", [](S& s) { s.many.setNames("item"); });
  // ---- expressions and constraints ----------------------------------
  step("x + y", [](S& s) { s.sum = s.x + s.y; });
  step("b * f", [](S& s) { s.square = QelNumExpr(s.b) * s.f; });
  step("(x + y) * (b * f)", [](S& s) { s.product = QelNumExpr(s.sum) * s.square; });
  step("range 1 <= x + y <= 8", [](S& s) { s.cap = QelRange(s.main, 1, s.sum, 8, "cap"); });
  step("range over the product", [](S& s) { s.loose = QelRange(s.main, 0, s.product, 100); });
  step("x != 3", [](S& s) { s.notThree = QelDiff(s.main, s.x, 3.0); });
  step("x + y != z", [](S& s) { s.apart = QelDiff(s.main, s.sum, s.z, "apart"); });
  step("array [x, y, z]",
       [](S& s) { s.trio = QelIntVarArray(QelExtractableArray(s.main, 3, s.x, s.y, s.z)); });
  step("all-different", [](S& s) { s.allDiff = QelAllDiff(s.main, s.trio, "ad"); });
  step("all-min-distance", [](S& s) { s.spread = QelAllMinDistance(s.main, s.trio, 2); });
  step("load variables", [](S& s) { s.load = QelIntVarArray(s.main, 2, 0, 10); });
  step("where variables", [](S& s) { s.where = QelIntVarArray(s.main, 3, 0, 1); });
  step("weights", [](S& s) {
    s.weights = QelIntArray(s.main, 3);
    s.weights.set(0, 4);
    s.weights.set(1, 3);
    s.weights.set(2, 5);
  });
  step("pack", [](S& s) { s.pack = QelPack(s.main, s.load, s.where, s.weights, "pack"); });
  step("SOS1", [](S& s) { s.sos1 = QelSOS1(s.main, "s1"); });
  step("SOS1 + x", [](S& s) { s.sos1->addVar(s.x); });
  step("SOS1 weight 1", [](S& s) { s.sos1->addVal(1); });
  step("SOS1 + y", [](S& s) { s.sos1->addVar(s.y); });
  step("SOS1 weight 2", [](S& s) { s.sos1->addVal(2); });
  step("SOS2", [](S& s) { s.sos2 = QelSOS2(s.main); });
  for (int i = 0; i < 9; ++i)
    step("SOS2 + variable " + std::to_string(i), [i](S& s) { s.sos2->addVar(s.many[i]); });
  // ---- objectives -----------------------------------------------------
  step("objective over f",
       [](S& s) { s.cost = QelObjective(s.main, s.f, QelObjective::Minimize, "cost"); });
  step("cost: coefficient of x", [](S& s) { s.cost.setLinearCoef(s.x, 3); });
  step("cost: coefficient of b * b", [](S& s) { s.cost.setQuadCoef(s.b, s.b, 2); });
  step("cost: coefficient of b (normalizes b * b)", [](S& s) { s.cost.setLinearCoef(s.b, 1); });
  step("cost: constant", [](S& s) { s.cost.setConst(5); });
  step("cost: sense", [](S& s) { s.cost.setSense(QelObjective::Maximize); });
  step("variables of the coefficients",
       [](S& s) { s.coefVars = QelNumVarArray(QelExtractableArray(s.main, 2, s.y, s.z)); });
  step("the coefficients", [](S& s) {
    s.coefs = QelNumArray(s.main, 2);
    s.coefs.set(0, 1.5);
    s.coefs.set(1, -2);
  });
  step("cost: coefficients of y and z", [](S& s) { s.cost.setLinearCoefs(s.coefVars, s.coefs); });
  step("cost: expression x + y (shared)", [](S& s) { s.cost.setExpr(s.sum); });
  step("cost: coefficient of z (copy on write)", [](S& s) { s.cost.setLinearCoef(s.z, 7); });
  step("cost: quadratic coefficient", [](S& s) { s.cost.setQuadCoef(s.x, s.y, 0.5); });
  step("criteria", [](S& s) { s.criteria = QelStaticLex(s.main, s.x, s.sum); });
  step("lexicographic objective", [](S& s) { s.lex = QelMinimize(s.main, s.criteria, "lex"); });
  step("end the criteria", [](S& s) { s.criteria.end(); });
  // ---- the model --------------------------------------------------------
  step("model", [](S& s) { s.model = QelModel(s.main, "m"); });
  step("inner model", [](S& s) { s.inner = QelModel(s.main); });
  step("add the range", [](S& s) { s.model.add(s.cap); });
  step("add the range again", [](S& s) { s.model.add(s.cap); });
  step("add x != 3", [](S& s) { s.model.add(s.notThree); });
  step("array of constraints", [](S& s) {
    s.constraints = QelExtractableArray(s.main, 7, s.allDiff, s.spread, s.pack, s.sos1, s.sos2,
                                        s.apart, QelExtractable());
  });
  step("add the array", [](S& s) { s.model.add(s.constraints); });
  step("add the objective", [](S& s) { s.model.add(s.cost); });
  step("add the inner model", [](S& s) { s.model.add(s.inner); });
  step("inner: add the loose range", [](S& s) { s.inner.add(s.loose); });
  step("inner: add x", [](S& s) { s.inner.add(s.x); });
  step("inner: add the 70 variables", [](S& s) { s.inner.add(s.many); });
  // A change visitor cannot follow a variable joining an all-different
  // constraint column-wise (the notice refuses visitors): it joins before
  // the constraint is extracted.
  step("all-different column", [](S& s) { s.diffColumn = s.allDiff().getCopy(s.main.getImpl()); });
  step("make w2", [](S& s) { s.w2 = QelIntVar(s.main, 0, 9, "w2"); });
  step("install w2", [](S& s) { s.diffColumn->install(s.w2.getImpl()); });
  step("destroy the all-different column", [](S& s) {
    s.diffColumn->destroy(s.main.getImpl());
    s.diffColumn = nullptr;
  });
  step("extract the model", [](S& s) { s.rec->extract(s.model.getImpl()); });
  step("extract the lexicographic objective", [](S& s) { s.rec->extract(s.lex.getImpl()); });
  // ---- names, properties, locations ------------------------------------
  step("rename the range", [](S& s) { s.cap.setName("capacity"); });
  step("unname x != 3 (never named)", [](S& s) { s.notThree.setName(nullptr); });
  step("string property", [](S& s) { s.cap.getImpl()->setStringProperty("label", "row 1"); });
  step("string property again", [](S& s) { s.cap.getImpl()->setStringProperty("label", "row 2"); });
  step("integer property", [](S& s) { s.cap.getImpl()->setIntProperty("priority", 3); });
  step("number property", [](S& s) { s.x.getImpl()->setNumProperty("weight", 2.5); });
  step("untyped property",
       [](S& s) { s.model.getImpl()->setAnyProperty("owner", reinterpret_cast<void*>(0x1234)); });
  step("remove a property", [](S& s) { s.cap.getImpl()->removeProperty("priority"); });
  step("location", [](S& s) { s.pack.setLocation("model.cpp", 42); });
  step("user object", [](S& s) { s.sos1.setObject(reinterpret_cast<void*>(0x5678)); });
  // ---- removals from the model -------------------------------------------
  step("remove x != 3", [](S& s) { s.model.remove(s.notThree); });
  step("remove a non-member", [](S& s) { s.model.remove(s.x); });
  step("array of members to remove",
       [](S& s) { s.removals = QelExtractableArray(s.main, 3, s.cap, s.sos1, s.x); });
  step("remove the array", [](S& s) { s.model.remove(s.removals); });
  step("inner: remove the array", [](S& s) { s.inner.remove(s.removals); });
  step("expand x != 3 into the model", [](S& s) { s.model.expand(s.notThree); });
  // ---- column-wise additions ---------------------------------------------
  step("objective column",
       [](S& s) { s.objColumn = QelAddValueToObj(s.cost, 4.0).getCopy(s.main.getImpl()); });
  step("set column", [](S& s) {
    s.setColumn = QelAddVarToSOS1(s.sos1.getImpl(), 0.0).getCopy(s.main.getImpl());
  });
  step("chain the columns", [](S& s) { s.objColumn->setNext(s.setColumn); });
  step("make w", [](S& s) { s.w = QelIntVar(s.main, 0, 9, "w"); });
  step("install w", [](S& s) { s.objColumn->install(s.w.getImpl()); });
  step("destroy the objective column", [](S& s) {
    s.objColumn->destroy(s.main.getImpl());
    s.objColumn = nullptr;
  });
  step("destroy the set column", [](S& s) {
    s.setColumn->destroy(s.main.getImpl());
    s.setColumn = nullptr;
  });
  // ---- values -----------------------------------------------------------------
  step("algorithm holding values", [](S& s) { s.values = QelAlgorithm(s.main); });
  step("value of x", [](S& s) { s.values.setValue(s.x, 2); });
  step("value of y", [](S& s) { s.values.setValue(s.y, 5); });
  step("value of the last of the 70", [](S& s) { s.values.setValue(s.many[69], 1); });
  step("evaluate the range", [](S& s) { (void)s.cap.getImpl()->eval(s.values); });
  // ---- set and all-different removals ---------------------------------------
  step("SOS1: remove x", [](S& s) { s.sos1->removeVar(s.x); });
  step("all-different: remove z", [](S& s) { s.allDiff->removeExpr(s.z.getImpl()); });
  // ---- copies into the other environment -------------------------------------
  step("clone the model", [](S& s) {
    s.modelCopy = QelModel(static_cast<QelModelI*>(s.copy.getImpl()->getClone(s.model.getImpl())));
  });
  step("extract the clone", [](S& s) { s.rec2->extract(s.modelCopy.getImpl()); });
  step("array to clone",
       [](S& s) { s.copied = QelExtractableArray(s.main, 3, s.lex, s.cap, s.cap); });
  step("clone the array", [](S& s) {
    // The array of the originals stays the caller's: keep it to end it.
    QelExtractableArray clones = s.copied;
    clones.replaceByClone(s.copy.getImpl());
    s.originals = s.copied;
    s.copied = clones;
  });
  step("add the cloned array to the clone", [](S& s) { s.modelCopy.add(s.copied); });
  // ---- ends -------------------------------------------------------------------
  step("take z out of everything", [](S& s) { s.z.removeFromAll(); });
  step("end y (cascades)", [](S& s) { s.y.end(); });
  step("one by one", [](S& s) { s.main.getImpl()->setOneByOne(1); });
  step("end f one by one", [](S& s) { s.f.end(); });
  step("end the first of the 70 one by one", [](S& s) { s.many[0].end(); });
  step("take it out of the array", [](S& s) { s.many.remove(0); });
  step("no more one by one", [](S& s) { s.main.getImpl()->setOneByOne(0); });
  step("end the 70 together", [](S& s) { s.many.endElements(); });
  step("end the inner model", [](S& s) { s.inner.end(); });
  step("end an object of the copy", [](S& s) { s.copied.getElement(1)->end(); });
  // ---- the end of everything ------------------------------------------------
  step("every object left", [](S& s) { s.leftovers = LiveObjects(s.main); });
  step("every object left in the copy", [](S& s) { s.leftovers2 = LiveObjects(s.copy); });
  step("end every object left", [](S& s) { s.leftovers.endElements(); });
  step("end every object left in the copy", [](S& s) { s.leftovers2.endElements(); });
  step("end the arrays", [](S& s) {
    for (QelArrayBase* a : std::vector<QelArrayBase*>{
             &s.many, &s.trio, &s.load, &s.where, &s.weights, &s.coefVars, &s.coefs, &s.constraints,
             &s.removals, &s.copied, &s.originals, &s.leftovers, &s.leftovers2})
      a->end();
  });
  step("release the algorithm holding values", [](S& s) { s.values.end(); });
  step("release the recorder", [](S& s) {
    QelAlgorithm(s.rec).end();
    s.rec = nullptr;
  });
  step("release the recorder of the copy", [](S& s) {
    QelAlgorithm(s.rec2).end();
    s.rec2 = nullptr;
  });
  return steps;
}

/// The facts of the scenario's own arrays and notices, for WorldState.
inline std::vector<std::function<std::string()>> ScenarioProbes(const ScenarioObjects& s) {
  std::vector<std::function<std::string()>> probes;
  for (const QelExtractableArray* a :
       {static_cast<const QelExtractableArray*>(&s.many),
        static_cast<const QelExtractableArray*>(&s.trio),
        static_cast<const QelExtractableArray*>(&s.constraints), &s.removals, &s.copied})
    probes.push_back([a] { return ArrayFacts(*a); });
  probes.push_back([&s] { return ArrayFacts(s.coefs); });
  probes.push_back([&s] {
    std::ostringstream os;
    os << "columns " << s.objColumn << " " << s.setColumn << " " << s.diffColumn;
    if (s.objColumn != nullptr) os << " next " << s.objColumn->getNext();
    return os.str();
  });
  probes.push_back([&s] {
    if (s.criteria.getImpl() == nullptr) return std::string("no criteria");
    std::ostringstream os;
    s.criteria.getImpl()->display(os);
    return os.str();
  });
  return probes;
}

}  // namespace reliability

#endif

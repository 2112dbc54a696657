// A guided tour of Qel: it builds, changes, prints, clones and ends a
// model, saying at each step what it does and showing what the library
// printed or reported.
#include <iostream>
#include <string>

#include <qel/qel.h>

namespace {

void Step(const char* what) { std::cout << "\n== " << what << "\n"; }

// A listener that prints every structural change it hears of.
class Printer : public QelChangeVisitor {
 public:
  using QelChangeVisitor::addSubExtractable;
  using QelChangeVisitor::removeSubExtractable;
  void addSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    std::cout << "   listener: added " << Name(sub) << " to " << Name(owner) << "\n";
  }
  void removeSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    std::cout << "   listener: removed " << Name(sub) << " from " << Name(owner) << "\n";
  }
  static std::string Name(const QelExtractableI* x) {
    if (x == nullptr) return "(nothing)";
    if (x->getName() != nullptr) return x->getName();
    return std::string(x->getRttiTypeName()) + "#" + std::to_string(x->getId());
  }
};

// An algorithm that announces each notice by class before following it.
class Announcer : public QelAlgorithmI {
 public:
  explicit Announcer(QelEnvI* env) : QelAlgorithmI(env) { setChangeVisitor(&printer); }
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    std::cout << "   notice " << c.getRttiTypeName();
    if (x != nullptr) std::cout << " about " << Printer::Name(x);
    std::cout << "\n";
    QelAlgorithmI::notifyChange(x, c);
  }
  Printer printer;
};

}  // namespace

int main() {
  Step("An environment owns the memory of every object made in it");
  QelEnv env;
  std::cout << "bytes in use by objects: " << env.getImpl()->getBytesInUse() << "\n";

  Step("Variables and expressions");
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");
  QelNumVar z(env, 0.0, 1.5, "z");
  QelIntExpr sum = 2 * x + y - 1;
  QelNumExpr mixed = x * y + 0.5 * z;
  std::cout << "sum   = " << sum << "\n";
  std::cout << "mixed = " << mixed << "\n";
  QelAlgorithm values(env);
  values.setValue(x, 3);
  values.setValue(y, 4);
  values.setValue(z, 1.0);
  std::cout << "with x = 3, y = 4, z = 1: sum = " << values.getValue(sum)
            << ", mixed = " << values.getValue(mixed) << "\n";

  Step("Names and type queries");
  QelExtractable anything = x;
  std::cout << "x is a variable: " << anything.isVariable()
            << ", an integer expression: " << anything.isIntExpr()
            << ", a model: " << anything.isModel() << "\n";
  std::cout << "z is an integer expression: " << QelExtractable(z).isIntExpr() << "\n";
  std::cout << "class of sum: " << sum.getImpl()->getRttiTypeName() << "\n";
  QelModel model(env, "tour");
  std::cout << "model is a model: " << QelExtractable(model).isModel()
            << ", same object through asModel: "
            << (QelExtractable(model).asModel().getImpl() == model.getImpl()) << "\n";

  Step("A listening algorithm extracts the model and hears every change");
  Announcer* listener = QelNewObject<Announcer>(env.getImpl(), env.getImpl());
  listener->extract(model.getImpl());
  QelRange r1(env, 0, sum, 12, "r1");
  QelRange r2(env, 1, x + y, 8, "r2");
  QelRange r3(env, -1, mixed, 20, "r3");
  model.add(r1);
  QelExtractableArray pair(env, 2, r2, r3);  // arrays are the caller's to end
  model.add(pair);
  pair.end();
  std::cout << model;

  Step("Removing one member, then several in one sweep");
  model.remove(r1);
  model.add(r1);
  QelExtractableArray gone(env, 2, r3, r1);
  model.remove(gone);
  gone.end();
  std::cout << model;

  Step("Renaming sends a notice");
  r2.setName("capacity");

  Step("An objective: a sense change and a coefficient change are heard");
  QelObjective cost(env, x + 2 * y, QelObjective::Minimize, "cost");
  model.add(cost);
  cost.setSense(QelObjective::Maximize);
  cost.setLinearCoef(y, 3);
  std::cout << cost;

  Step("A lexicographic objective: first x, then y");
  QelMultiCriterionExpr lex = QelStaticLex(env, x, y);
  QelObjective lexObj = QelMinimize(env, lex, "lex");
  lex.end();  // the objective keeps its own duplicate
  std::cout << lexObj;

  Step("One constraint of each family, added to the model");
  QelIntVarArray v(env, 3, 0, 5);
  v.setNames("v");
  QelNumVarArray w(env, 2, 0.0, 1.0);
  w.setNames("w");
  QelSOS1 sos(env, "sos");
  sos->addVar(w[0]);
  sos->addVal(1);
  sos->addVar(w[1]);
  sos->addVal(2);
  QelDiff diff(env, v[0], v[1], "diff");
  QelAllDiff allDiff(env, v, "alldiff");
  QelAllMinDistance spread(env, v, 2, "spread");
  QelIntVarArray bins(env, 2, 0, 10);
  bins.setNames("load");
  QelIntExprArray where = v.toIntExprArray();  // the pack copies it
  QelPack pack(env, bins, where, QelInt(3), "pack");
  where.end();
  QelExtractableArray family(env, 5, sos, diff, allDiff, spread, pack);
  model.add(family);
  family.end();
  std::cout << model;
  env.getImpl()->setDetailedDisplay(true);
  std::cout << "the difference in its detailed form: " << diff << "\n";
  env.getImpl()->setDetailedDisplay(false);
  values.setValue(v[0], 1);
  values.setValue(v[1], 2);
  values.setValue(v[2], 2);
  std::cout << "with v = (1, 2, 2): diff holds " << diff->eval(values) << ", alldiff holds "
            << allDiff->eval(values) << "\n";

  Step("Removing a variable from the set: one notice per element scanned");
  listener->extract(sos.getImpl());
  sos->removeVar(w[0]);
  std::cout << sos;

  Step("Cloning the model into a second environment");
  QelEnv other;
  model.add(r3);
  QelModel copy(static_cast<QelModelI*>(other.getImpl()->getClone(model.getImpl())));
  std::cout << "the clone (no name, its own objects):\n" << copy;

  Step("Ending x ends what is built over it (ranges, objectives); the model loses them");
  x.end();
  std::cout << model;

  Step("Ending everything gives the memory back");
  QelExtractableArray rest(env, 0);
  for (QelModel::Iterator it(model); it.ok(); ++it) rest.add(*it);
  rest.add(model);
  rest.add(y);
  rest.add(z);
  rest.add(v);
  rest.add(w);
  rest.add(bins);
  rest.endElements();
  rest.end();
  v.end();
  w.end();
  bins.end();
  values.end();
  delete listener;
  std::cout << "objects left: " << env.getImpl()->getNumberOfExtractables()
            << ", bytes in use: " << env.getImpl()->getBytesInUse() << "\n";
  other.end();
  env.end();
  return 0;
}

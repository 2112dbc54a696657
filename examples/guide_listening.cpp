// The snippets of the guide's section "Listening to changes"
// (docs/guide.md), run and checked.
#include <iostream>
#include <string>
#include <vector>

#include <qel/qel.h>

#include "guide_check.h"

namespace {

// guide: a change visitor
class Printer : public QelChangeVisitor {
 public:
  // The array forms of the base call these two once per element.
  using QelChangeVisitor::addSubExtractable;
  using QelChangeVisitor::removeSubExtractable;
  void addSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    std::cout << "added " << Name(sub) << " to " << Name(owner) << "\n";
  }
  void removeSubExtractable(QelExtractableI* owner, QelExtractableI* sub) override {
    std::cout << "removed " << Name(sub) << " from " << Name(owner) << "\n";
  }
  static std::string Name(const QelExtractableI* x) {
    return x->getName() != nullptr ? x->getName() : "#" + std::to_string(x->getId());
  }
};

// guide: a recording algorithm
class Recorder : public QelAlgorithmI {
 public:
  // The base visitor does nothing, but in visitor mode the algorithm also
  // records what joins the objects it extracted, and so hears of it later.
  explicit Recorder(QelEnvI* env) : QelAlgorithmI(env) { setChangeVisitor(&_quiet); }
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    notices.push_back(c.getRttiTypeName());
    if (const auto* named = QelDynamicCast<const QelSetNameChange>(&c))
      renamed.push_back(named->getChangedExtractable());
    QelAlgorithmI::notifyChange(x, c);  // on to the visitor
  }
  std::vector<std::string> notices;
  std::vector<const QelExtractableI*> renamed;

 private:
  QelChangeVisitor _quiet;
};

std::string Join(const std::vector<std::string>& names) {
  std::string s;
  for (const std::string& n : names) s += (s.empty() ? "" : " ") + n;
  return s;
}

}  // namespace

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Listening to changes");
  guide::Capture out;
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");
  QelRange c1(env, 0, x + y, 8, "c1");
  QelRange c2(env, 0, x - y, 3, "c2");
  QelRange c3(env, 2, x, 9, "c3");

  // guide: extracting with a visitor
  QelModel model(env, "m");
  Printer printer;  // stays ours; outlives the algorithm
  QelAlgorithm listener(env);
  listener.getImpl()->setChangeVisitor(&printer);
  listener.extract(model);                         // from now on, m's changes reach it
  model.add(c1);                                   // QelAddOneToModel
  model.add(QelExtractableArray(env, 2, c2, c3));  // QelAddToModel
  model.remove(c2);                                // QelRemoveFromModel
  Expect(out.take(),
         "added c1 to m\n"
         "added c2 to m\n"
         "added c3 to m\n"
         "removed c2 from m\n",
         "what the visitor heard");

  // guide: what extraction covers
  Check(listener.getImpl()->isExtracted(model.getImpl()), "the model is extracted");
  Check(listener.getImpl()->isExtracted(c1.getImpl()), "a member added later is extracted");
  Check(listener.getImpl()->isExtracted(x.getImpl()), "what a member holds is extracted");
  Check(listener.getImpl()->isExtracted(c2.getImpl()), "a removed member stays extracted");

  // guide: a recording algorithm in use
  Recorder* rec = QelNewObject<Recorder>(env.getImpl(), env.getImpl());
  rec->extract(model.getImpl());
  c1.setName("capacity");  // no visitor call: a name is no structure
  QelObjective cost(env, x + y, QelObjective::Minimize, "cost");
  model.add(cost);
  cost.setLinearCoef(y, 0);  // y leaves the objective
  cost.setLinearCoef(y, 2);  // y enters it again
  cost.setSense(QelObjective::Maximize);
  std::cout << Join(rec->notices) << "\n";
  Expect(out.take(),
         "added cost to m\n"
         "removed y from cost\n"
         "added y to cost\n"
         "QelSetNameChange QelAddOneToModel QelSetObjCoef QelSetObjCoef QelSetObjSense\n",
         "the recorded notices");
  Check(rec->renamed.size() == 1 && rec->renamed[0] == c1.getImpl(), "the renamed object");

  // guide: notices about objects not extracted
  rec->notices.clear();
  QelRange alone(env, 0, y, 1, "alone");
  alone.setName("lonely");  // no algorithm extracted it
  Check(rec->notices.empty(), "nothing extracted, nothing heard");

  // guide: stopping
  rec->unextract(model.getImpl());  // m's own changes no longer reach it
  listener.end();                   // detached from the environment
  model.add(alone);
  Check(rec->notices.empty(), "nothing heard after unextract and end");
  Expect(out.take(), "", "nobody prints after stopping");

  delete rec;  // an algorithm placed with QelNewObject
  env.end();
  return guide::Result();
}

// The snippets of the guide's section "Ending objects" (docs/guide.md), run
// and checked.
#include <iostream>
#include <string>

#include <qel/qel.h>

#include "guide_check.h"

namespace {

// Prints the class of every notice it hears, and the object concerned.
class Announcer : public QelAlgorithmI {
 public:
  explicit Announcer(QelEnvI* env) : QelAlgorithmI(env) { setChangeVisitor(&_quiet); }
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    std::cout << c.getRttiTypeName();
    if (x != nullptr && x->getName() != nullptr) std::cout << " " << x->getName();
    std::cout << "\n";
    QelAlgorithmI::notifyChange(x, c);
  }

 private:
  QelChangeVisitor _quiet;
};

// Builds the model of the section, ends v[0] and checks what the guide
// shows: the notices heard, then the model as it is left.
void EndOneVariable(bool oneByOne, const std::string& notices, const std::string& left) {
  guide::Capture out;
  // guide: the model of the section
  QelEnv env;
  QelIntVarArray v(env, 3, 0, 9);
  v.setNames("v");
  QelModel model(env, "m");
  QelRange r(env, 0, v[0] + v[1], 8, "r");  // over v(0), through a term
  QelRange s(env, 0, v[1] + v[2], 5, "s");  // not over v(0)
  QelAllDiff ad(env, v, "ad");              // over all three
  QelAllMinDistance md(env, v, 2, "md");    // over all three
  QelExtractableArray members(env, 4, r, s, ad, md);
  model.add(members);
  members.end();
  Announcer* listener = QelNewObject<Announcer>(env.getImpl(), env.getImpl());
  listener->extract(model.getImpl());

  if (oneByOne) {
    // guide: setting the one-by-one flag
    env.getImpl()->setOneByOne(1);  // before the removal starts
  }

  // guide: ending a variable
  v[0].end();
  std::cout << model;

  std::string text = out.take();
  std::string::size_type split = text.find("QelModel");
  guide::Expect(text.substr(0, split), notices,
                std::string("the notices, one-by-one ") + (oneByOne ? "on" : "off"));
  guide::Expect(text.substr(split), left,
                std::string("the model left, one-by-one ") + (oneByOne ? "on" : "off"));
  delete listener;
  v.end();
  env.end();
}

}  // namespace

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Ending objects");
  EndOneVariable(false,
                 "QelRemoveFromAllChange\n"
                 "QelDestroyExtractable v(0)\n"
                 "QelDestroyExtractable\n"
                 "QelDestroyExtractable r\n",
                 "QelModel m = {\n"
                 "0 <= v(1) + v(2) <= 5\n"
                 "QelAllDiffI (ad)\n"
                 "  _exprArray [v(1), v(2)]\n"
                 "\n"
                 "QelAllMinDistanceI (md)\n"
                 "  _exprArray [v(1), v(2)]\n"
                 "  k 2\n"
                 "\n"
                 "}\n");
  EndOneVariable(true,
                 "QelRemoveFromModel m\n"
                 "QelRemoveFromAllChange\n"
                 "QelDestroyExtractable r\n"
                 "QelRemoveFromAllChange\n"
                 "QelDestroyExtractable\n"
                 "QelRemoveFromModel m\n"
                 "QelRemoveFromAllChange\n"
                 "QelDestroyExtractable md\n"
                 "QelRemoveFromAllChange\n"
                 "QelDestroyExtractable v(0)\n",
                 "QelModel m = {\n"
                 "0 <= v(1) + v(2) <= 5\n"
                 "QelAllDiffI (ad)\n"
                 "  _exprArray [v(1), v(2)]\n"
                 "\n"
                 "}\n");

  guide::Capture out;
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");
  QelInt start = env.getImpl()->getBytesInUse();
  long live = env.getImpl()->getNumberOfExtractables();

  // guide: shared expressions
  QelIntExpr sum = x + y;  // one term, used by two ranges
  QelRange low(env, 0, sum, 5);
  QelRange high(env, 3, sum, 9);
  low.end();  // sum is still used by high
  std::cout << sum.getImpl()->getUseCount() << "\n";
  high.end();                 // the last use goes: sum ends too
  QelIntExpr unused = x + 1;  // never used by anything ...
  unused.end();               // ... so it is ours to end
  Expect(out.take(), "1\n", "the use count");
  Check(env.getImpl()->getNumberOfExtractables() == live, "every term ended");
  Check(env.getImpl()->getBytesInUse() == start, "every byte back");

  // guide: removing without ending
  QelModel m1(env, "m1");
  QelModel m2(env, "m2");
  QelRange r(env, 0, x, 3, "r");
  m1.add(r);
  m2.add(r);
  r.removeFromAll();  // out of m1 and m2, still alive
  std::cout << m1 << m2 << r << "\n";
  Expect(out.take(), "QelModel m1 = {\n}\nQelModel m2 = {\n}\n0 <= x <= 3\n", "removeFromAll");

  // guide: ending together
  QelExtractableArray group(env, 3, m1, m2, r);
  group.endElements();  // one pass over the environment
  std::cout << group.getSize() << "\n";
  group.end();  // the array itself is ours to end
  Expect(out.take(), "0\n", "endElements empties the array");
  Check(env.getImpl()->getNumberOfExtractables() == live, "the group ended");

  // guide: ending the environment
  QelModel last(env, "last");
  last.add(QelRange(env, 0, x + y, 1));
  env.end();  // no object is ended one by one
  return guide::Result();
}

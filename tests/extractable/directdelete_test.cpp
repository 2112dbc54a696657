// Deleting objects of every kind directly, while models and arrays hold them
// and other objects use them: the same removal, the same notices and the
// same memory as end().
#include <algorithm>
#include <string>
#include <vector>

#include <qel/qel.h>

#include "support/qeltest.h"

namespace {

using qeltest::BytesInUse;
using qeltest::RecordingAlgorithmI;

// Records each notice as "<class>:<id>", one entry per object of an array
// notice: a removal may group its objects in waves differently (a direct
// delete gives uses back after its removal, end() within it), so the log is
// compared as a multiset.
class NoticeLogI : public RecordingAlgorithmI {
 public:
  using RecordingAlgorithmI::RecordingAlgorithmI;
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    std::string name = c.getRttiTypeName();
    if (c.isApplyingOnArray()) {
      QelExtractableArray xs = c.getChangedExtractableArray();
      for (long i = 0; i < xs.getSize(); ++i)
        log.push_back(name + ":" + std::to_string(xs[i].getImpl()->getId()));
    } else {
      log.push_back(name + ":" + std::to_string(x != nullptr ? x->getId() : -1));
    }
    RecordingAlgorithmI::notifyChange(x, c);
  }
  std::vector<std::string> sorted() const {
    std::vector<std::string> s = log;
    std::sort(s.begin(), s.end());
    return s;
  }
  std::vector<std::string> log;
};

enum class Kind {
  IntVar,
  NumVar,
  LinearTerm,
  Product,
  Range,
  Diff,
  AllDiff,
  AllMinDistance,
  Pack,
  SOS1,
  SOS2,
  IntSetVar,
  Objective,
  LexObjective,
  Model
};

const char* NameOf(Kind k) {
  switch (k) {
    case Kind::IntVar:
      return "IntVar";
    case Kind::NumVar:
      return "NumVar";
    case Kind::LinearTerm:
      return "LinearTerm";
    case Kind::Product:
      return "Product";
    case Kind::Range:
      return "Range";
    case Kind::Diff:
      return "Diff";
    case Kind::AllDiff:
      return "AllDiff";
    case Kind::AllMinDistance:
      return "AllMinDistance";
    case Kind::Pack:
      return "Pack";
    case Kind::SOS1:
      return "SOS1";
    case Kind::SOS2:
      return "SOS2";
    case Kind::IntSetVar:
      return "IntSetVar";
    case Kind::Objective:
      return "Objective";
    case Kind::LexObjective:
      return "LexObjective";
    case Kind::Model:
      return "Model";
  }
  return "?";
}

// One environment with a model holding objects of every kind, each used by
// others where it can be; `target` is the object of the kind asked for,
// held twice by the model, once by a member model and twice by an array.
struct World {
  QelEnv env;
  QelInt baseline = 0;
  QelModel model;
  QelModel inner;
  QelExtractableArray holder;
  QelExtractableI* target = nullptr;
  NoticeLogI* rec = nullptr;

  explicit World(Kind k) {
    baseline = BytesInUse(env);
    QelIntVar x(env, 0, 5, "x");
    QelIntVar y(env, 0, 5, "y");
    QelNumVar z(env, 0.0, 2.0, "z");
    QelIntExpr lin = x + 2 * y;
    QelNumExpr prod = (x * y) * QelNumExpr(z);
    // The range and the difference each hold the last use of a term of
    // their own: giving it back ends the term.
    QelRange range(env, 0, x + 3 * y, 6, "range");
    QelDiff diff(env, 2 * x + QelNumExpr(z), 3.0);
    QelIntVarArray xy(env, 2, x, y);
    QelAllDiff allDiff(env, xy);
    QelAllMinDistance allMin(env, xy, 2);
    QelIntArray weights(env, 2);
    weights.set(0, 1);
    weights.set(1, 2);
    QelIntVarArray load(env, 1, x);
    QelPack pack(env, load, xy, weights);
    QelSOS1 sos1(env, "s1");
    sos1.getImpl()->addVar(z);
    sos1.getImpl()->addVar(x);
    QelSOS2 sos2(env, "s2");
    sos2.getImpl()->addVar(z);
    QelIntArray possible(env, 3);
    for (long i = 0; i < 3; ++i) possible.set(i, i + 1);
    QelIntSetVar set(env, possible, "set");
    QelObjective cost(env, prod + lin, QelObjective::Minimize, "cost");
    QelMultiCriterionExpr mc = QelStaticLex(env, lin, prod);
    QelObjective lex = QelMinimize(env, mc, "lex");
    mc.end();
    QelRange overProd(env, 0, prod, 9, "overProd");
    QelDiff overZ(env, z, 1.0);
    model = QelModel(env, "m");
    inner = QelModel(env, "inner");
    for (QelExtractable e : {QelExtractable(range), QelExtractable(diff), QelExtractable(allDiff),
                             QelExtractable(allMin), QelExtractable(pack), QelExtractable(sos1),
                             QelExtractable(sos2), QelExtractable(cost), QelExtractable(lex),
                             QelExtractable(overProd), QelExtractable(overZ)})
      model.add(e);
    switch (k) {
      case Kind::IntVar:
        target = x.getImpl();
        break;
      case Kind::NumVar:
        target = z.getImpl();
        break;
      case Kind::LinearTerm:
        target = lin.getImpl();
        break;
      case Kind::Product:
        target = prod.getImpl();
        break;
      case Kind::Range:
        target = range.getImpl();
        break;
      case Kind::Diff:
        target = diff.getImpl();
        break;
      case Kind::AllDiff:
        target = allDiff.getImpl();
        break;
      case Kind::AllMinDistance:
        target = allMin.getImpl();
        break;
      case Kind::Pack:
        target = pack.getImpl();
        break;
      case Kind::SOS1:
        target = sos1.getImpl();
        break;
      case Kind::SOS2:
        target = sos2.getImpl();
        break;
      case Kind::IntSetVar:
        target = set.getImpl();
        break;
      case Kind::Objective:
        target = cost.getImpl();
        break;
      case Kind::LexObjective:
        target = lex.getImpl();
        break;
      case Kind::Model:
        target = inner.getImpl();
        break;
    }
    model.add(target);
    model.add(inner);
    if (k != Kind::Model) inner.add(target);
    model.add(target);
    holder = QelExtractableArray(env, 2, QelExtractable(target), QelExtractable(target));
    xy.end();
    load.end();
    weights.end();
    possible.end();
    modelIds[0] = model.getId();
    modelIds[1] = inner.getId();
    modelImpls[0] = model.getImpl();
    modelImpls[1] = inner.getImpl();
    rec = QelNewObject<NoticeLogI>(env.getImpl(), env.getImpl());
    rec->extract(model.getImpl());
    rec->notices.clear();
    rec->objects.clear();
    rec->log.clear();
  }

  // What is left: the live objects, the members of both models (a model
  // that went is found gone in the table, never read).
  std::string state() const {
    QelEnvI* e = env.getImpl();
    std::string s = std::to_string(e->getNumberOfExtractables()) + " live;";
    for (const QelModel* m : {&model, &inner}) {
      const QelExtractableI* impl = modelImpls[m == &inner ? 1 : 0];
      if (e->getExtractable(modelIds[m == &inner ? 1 : 0]) != impl) continue;
      s += " " + std::string(m->getName()) + ":";
      for (QelModel::Iterator it(*m); it.ok(); ++it)
        s += " #" + std::to_string((*it).getId()) + ";";
    }
    return s;
  }
  QelInt modelIds[2] = {-1, -1};
  const QelExtractableI* modelImpls[2] = {nullptr, nullptr};

  // Ends everything still alive; the memory must be back to the baseline.
  void endAll() {
    delete rec;
    holder.end();
    QelEnvI* e = env.getImpl();
    for (QelInt i = 0; i < e->getExtractableTableSize(); ++i)
      if (QelExtractableI* o = e->getExtractable(i)) o->end();
    EXPECT_EQ(e->getNumberOfExtractables(), 0);
    EXPECT_EQ(BytesInUse(env), baseline);
    env.end();
  }
};

class DirectDeleteOfEveryKind : public ::testing::TestWithParam<Kind> {};

}  // namespace

TEST_P(DirectDeleteOfEveryKind, DoesWhatEndDoes) {
  World ended(GetParam());
  World deleted(GetParam());
  QelInt id = deleted.target->getId();
  ended.target->end();
  delete deleted.target;
  EXPECT_EQ(deleted.env.getImpl()->getExtractable(id), nullptr);
  EXPECT_FALSE(ended.rec->log.empty());
  EXPECT_EQ(deleted.rec->sorted(), ended.rec->sorted());
  EXPECT_EQ(deleted.state(), ended.state());
  EXPECT_EQ(BytesInUse(deleted.env) - deleted.baseline, BytesInUse(ended.env) - ended.baseline);
  // The holders dropped it.
  EXPECT_EQ(deleted.state().find("#" + std::to_string(id) + ";"), std::string::npos);
  ended.endAll();
  deleted.endAll();
}

INSTANTIATE_TEST_SUITE_P(Kinds, DirectDeleteOfEveryKind,
                         ::testing::Values(Kind::IntVar, Kind::NumVar, Kind::LinearTerm,
                                           Kind::Product, Kind::Range, Kind::Diff, Kind::AllDiff,
                                           Kind::AllMinDistance, Kind::Pack, Kind::SOS1, Kind::SOS2,
                                           Kind::IntSetVar, Kind::Objective, Kind::LexObjective,
                                           Kind::Model),
                         [](const ::testing::TestParamInfo<Kind>& info) {
                           return std::string(NameOf(info.param));
                         });

// The snippets of the guide's section "Writing an engine" (docs/guide.md),
// run and checked.
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <qel/qel.h>

#include "guide_check.h"

namespace {

// guide: the engine class
// A toy engine: its own form of a model is one text row per range.
class ToyEngine : public QelAlgorithmI {
  QEL_RTTI_DECL(ToyEngine, QelAlgorithmI)

 public:
  explicit ToyEngine(QelEnvI* env) : QelAlgorithmI(env) { useHooks(this); }
  static ToyEngine* Of(QelAlgorithm a) { return QelDynamicCast<ToyEngine>(a.getImpl()); }
  void print() const {
    for (const auto& row : rows) std::cout << row.second << "\n";
  }
  std::vector<std::pair<const QelRangeI*, std::string>> rows;
};

// guide: the extraction hooks
void* ExtractModel(QelAlgorithm a, const QelModelI* m) {
  for (QelModelI::Iterator it(m); it.ok(); ++it) (*it)->extractToCP(a);
  return nullptr;
}
void* ExtractRange(QelAlgorithm a, const QelRangeI* r) {
  std::ostringstream row;
  r->display(row);
  ToyEngine::Of(a)->rows.emplace_back(r, row.str());
  return nullptr;
}
void* UnextractRange(QelAlgorithm a, const QelRangeI* r, void*) {
  auto& rows = ToyEngine::Of(a)->rows;
  for (auto it = rows.begin(); it != rows.end(); ++it) {
    if (it->first != r) continue;
    rows.erase(it);
    break;
  }
  return nullptr;
}

// guide: the notice hooks
QelInt AddOneToModel(QelAlgorithm a, const QelAddOneToModel* n, void*) {
  a.getImpl()->record(n->getMember());  // hear the member's own notices
  n->getMember()->extractToCP(a);
  return 0;
}
QelInt RemoveFromModel(QelAlgorithm a, const QelRemoveFromModel* n, void*) {
  QelExtractableArray gone = n->getMembers();
  for (long i = 0; i < gone.getSize(); ++i) gone.getElement(i)->unextractFromCP(a, nullptr);
  return 0;
}
QelInt Destroyed(QelAlgorithm a, const QelDestroyExtractable* n, void*) {
  if (const auto* r = QelDynamicCast<const QelRangeI>(n->getChangedExtractable()))
    UnextractRange(a, r, nullptr);
  return 0;
}
template <class N>
QelInt Ignore(QelAlgorithm, const N*, void*) {
  return 0;  // a notice this engine does not need
}

// guide: filling the slots
void LoadToyEngine() {
  QelForEachNoticeClass([](auto tag) {  // every notice slot first
    using N = typename decltype(tag)::Type;
    N::_applyCP = &Ignore<N>;
  });
  QelModelI::_extractCP = &ExtractModel;
  QelRangeI::_extractCP = &ExtractRange;
  QelRangeI::_unextractCP = &UnextractRange;
  QelAddOneToModel::_applyCP = &AddOneToModel;
  QelRemoveFromModel::_applyCP = &RemoveFromModel;
  QelDestroyExtractable::_applyCP = &Destroyed;
}

// Empties every slot the engine filled, so that the program ends as it began.
void UnloadToyEngine() {
  QelForEachNoticeClass([](auto tag) {
    using N = typename decltype(tag)::Type;
    N::_applyCP = nullptr;
  });
  QelModelI::_extractCP = nullptr;
  QelRangeI::_extractCP = nullptr;
  QelRangeI::_unextractCP = nullptr;
}

}  // namespace

QEL_RTTI_DEF(ToyEngine)

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Writing an engine");
  guide::Capture out;
  QelEnv env;
  QelIntVar x(env, 0, 10, "x");
  QelIntVar y(env, 0, 10, "y");

  // guide: an empty slot
  QelModel plain(env, "plain");
  QelAlgorithm bare(env);
  bare.getImpl()->useHooks();
  try {
    bare.extract(plain);  // QelModelI::_extractCP is empty
  } catch (const QelAlgorithm::ExtractFailure&) {
    std::cout << "no engine for QelModelI\n";
  }
  bare.end();
  Expect(out.take(), "no engine for QelModelI\n", "an empty slot");

  // guide: using the engine
  LoadToyEngine();  // once, before any extraction
  QelModel model(env, "m");
  QelRange a(env, 0, x + y, 8, "a");
  model.add(a);
  ToyEngine* engine = QelNewObject<ToyEngine>(env.getImpl(), env.getImpl());
  engine->extract(model.getImpl());  // records, then ExtractModel
  QelRange b(env, 1, x - y, 4, "b");
  model.add(b);     // AddOneToModel
  model.remove(a);  // RemoveFromModel
  engine->print();
  Expect(out.take(), "1 <= x - y <= 4\n", "the engine follows the model");

  // guide: ending what an engine extracted
  x.end();  // ends b (over x): Destroyed drops its row
  std::cout << engine->rows.size() << "\n";
  Expect(out.take(), "0\n", "the engine dropped the ended range");

  // guide: an unsupported class
  QelDiff d(env, y, 3.0);
  try {
    model.add(d);  // QelDiffI::_extractCP is empty
  } catch (const QelAlgorithm::ExtractFailure&) {
    std::cout << "the engine cannot take a QelDiffI\n";
  }
  Expect(out.take(), "the engine cannot take a QelDiffI\n", "an unsupported class");
  Check(model.getImpl()->holds(d.getImpl()), "the model holds d all the same");

  delete engine;
  UnloadToyEngine();
  env.end();
  return guide::Result();
}

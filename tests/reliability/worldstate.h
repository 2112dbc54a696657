// What the reliability tests compare before and after an operation that
// failed: everything an application or an engine can observe of an
// environment.
//
// A WorldState lists every live object of the extractable table (id, address,
// class, name, location, user object, properties, use count, direct
// sub-extractables, registry mask and what it prints), the number of live
// objects, what each recording algorithm has heard so far, the bytes the
// objects hold, and any further facts a test adds as probes (the contents of
// arrays it holds, for instance). Two states compare equal when nothing
// observable differs; Difference names the first thing that does.
#ifndef QEL_TESTS_RELIABILITY_WORLDSTATE_H
#define QEL_TESTS_RELIABILITY_WORLDSTATE_H

#include <algorithm>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/qeltest.h"

namespace reliability {

/// The observable facts about one live object.
struct ObjectState {
  QelInt id = -1;
  const QelExtractableI* address = nullptr;
  std::string facts;  ///< class, name, location, properties, uses, subs, mask
  std::string display;

  bool operator==(const ObjectState& o) const {
    return id == o.id && address == o.address && facts == o.facts && display == o.display;
  }
};

/// The observable facts about an environment at one moment.
struct WorldState {
  std::vector<ObjectState> objects;
  QelInt live = 0;
  QelInt bytes = 0;
  std::vector<std::string> heard;   ///< per recorder: notices and visitor calls
  std::vector<std::string> probes;  ///< facts added by the test

  bool operator==(const WorldState& o) const {
    return objects == o.objects && live == o.live && bytes == o.bytes && heard == o.heard &&
           probes == o.probes;
  }
  bool operator!=(const WorldState& o) const { return !(*this == o); }
};

/// Collects the direct sub-extractables an object presents, in order.
class SubCollector : public QelExtractableVisitor {
 public:
  using QelExtractableVisitor::visitChildren;
  void visitChildren(QelExtractableI*, QelExtractableI* child) override { subs.push_back(child); }
  std::vector<const QelExtractableI*> subs;
};

/// The properties of `x` as text: name, family and value of each.
inline std::string PropertiesOf(const QelExtractableI* x) {
  std::ostringstream os;
  QelNamedPropertySetI* set = x->getProperties();
  if (set == nullptr) return "-";
  for (QelNamedPropertyI* p = set->getFirst(); p != nullptr; p = p->getNext()) {
    os << (p->getName() != nullptr ? p->getName() : "<null>") << ":" << p->getRttiTypeName() << "=";
    if (auto* s = QelDynamicCast<QelNamedStringPropertyI>(p))
      os << (s->getValue() != nullptr ? s->getValue() : "<null>");
    else if (auto* a = QelDynamicCast<QelNamedAnyPropertyI>(p))
      os << a->getValue();
    else if (auto* n = QelDynamicCast<QelNamedNumPropertyI>(p))
      os << n->getValue();
    else if (auto* i = QelDynamicCast<QelNamedIntPropertyI>(p))
      os << i->getValue();
    os << ";";
  }
  os << " size " << set->getSize();
  return os.str();
}

/// The state of one live object.
inline ObjectState StateOf(const QelEnvI* env, QelExtractableI* x) {
  ObjectState s;
  s.id = x->getId();
  s.address = x;
  std::ostringstream os;
  os << x->getRttiTypeName() << " name=" << (x->getName() != nullptr ? x->getName() : "<none>")
     << " file=" << (x->getFile() != nullptr ? x->getFile() : "<none>") << ":" << x->getLine()
     << " object=" << x->getObject() << " props=" << PropertiesOf(x);
  if (x->isNumExpr()) os << " uses=" << static_cast<QelNumExprI*>(x)->getUseCount();
  SubCollector subs;
  x->visitSubExtractables(&subs);
  os << " subs=[";
  for (const QelExtractableI* c : subs.subs) os << (c != nullptr ? c->getId() : -2) << " ";
  os << "] mask=" << env->getRegistry().getMask(s.id);
  s.facts = os.str();
  std::ostringstream display;
  x->display(display);
  s.display = display.str();
  return s;
}

/// What a recording algorithm has heard, as text.
/// With `withAddresses` false only the notice classes and call kinds are
/// kept, which compares across runs.
inline std::string HeardBy(const qeltest::RecordingAlgorithmI* r, bool withAddresses = true) {
  std::ostringstream os;
  os << r->notices.size() << " notices:";
  for (size_t i = 0; i < r->notices.size(); ++i) {
    os << " " << r->notices[i];
    if (withAddresses) os << "@" << r->objects[i];
  }
  os << " | " << r->visitor.calls.size() << " calls:";
  for (const qeltest::VisitCall& c : r->visitor.calls) {
    os << " " << c.kind;
    if (withAddresses) os << "(" << c.owner << "," << c.sub << ")";
  }
  return os.str();
}

/// The contents of an extractable array (or "<empty handle>").
inline std::string ArrayFacts(const QelExtractableArray& a) {
  if (a.getImpl() == nullptr) return "<empty handle>";
  std::ostringstream os;
  os << "[";
  for (long i = 0; i < a.getSize(); ++i) os << a.getElement(i) << " ";
  os << "]";
  return os.str();
}

/// The contents of a numeric array (or "<empty handle>").
inline std::string ArrayFacts(const QelNumArray& a) {
  if (a.getImpl() == nullptr) return "<empty handle>";
  std::ostringstream os;
  os << "[";
  for (long i = 0; i < a.getSize(); ++i) os << a[i] << " ";
  os << "]";
  return os.str();
}

/// Takes the state of `env`. `bytes` is what the objects hold (the caller
/// knows where: the environment's statistics or a custom allocator's). With
/// `withAddresses` false, addresses are left out so that the states of two
/// runs of the same operations compare.
inline WorldState Capture(const QelEnvI* env, QelInt bytes,
                          const std::vector<const qeltest::RecordingAlgorithmI*>& recorders,
                          const std::vector<std::function<std::string()>>& probes = {},
                          bool withAddresses = true) {
  WorldState w;
  for (QelInt id = 0; id < env->getExtractableTableSize(); ++id) {
    if (QelExtractableI* x = env->getExtractable(id)) {
      w.objects.push_back(StateOf(env, x));
      if (!withAddresses) w.objects.back().address = nullptr;
    }
  }
  w.live = env->getNumberOfExtractables();
  w.bytes = bytes;
  for (const qeltest::RecordingAlgorithmI* r : recorders)
    w.heard.push_back(HeardBy(r, withAddresses));
  for (const auto& p : probes) w.probes.push_back(p());
  return w;
}

/// The first observable difference between two states, or "" when none.
inline std::string Difference(const WorldState& a, const WorldState& b) {
  std::ostringstream os;
  if (a.live != b.live) os << "live objects " << a.live << " -> " << b.live << "\n";
  if (a.bytes != b.bytes) os << "bytes held " << a.bytes << " -> " << b.bytes << "\n";
  size_t n = std::max(a.objects.size(), b.objects.size());
  for (size_t i = 0; i < n; ++i) {
    if (i >= a.objects.size()) {
      os << "new object id " << b.objects[i].id << ": " << b.objects[i].facts << "\n";
      break;
    }
    if (i >= b.objects.size()) {
      os << "lost object id " << a.objects[i].id << ": " << a.objects[i].facts << "\n";
      break;
    }
    if (!(a.objects[i] == b.objects[i])) {
      os << "object id " << a.objects[i].id << "/" << b.objects[i].id << ":\n  "
         << a.objects[i].facts << "\n  " << a.objects[i].display << "\n->\n  " << b.objects[i].facts
         << "\n  " << b.objects[i].display << "\n";
      break;
    }
  }
  for (size_t i = 0; i < a.heard.size() && i < b.heard.size(); ++i)
    if (a.heard[i] != b.heard[i])
      os << "recorder " << i << " heard:\n  " << a.heard[i] << "\n->\n  " << b.heard[i] << "\n";
  for (size_t i = 0; i < a.probes.size() && i < b.probes.size(); ++i)
    if (a.probes[i] != b.probes[i])
      os << "probe " << i << ": " << a.probes[i] << " -> " << b.probes[i] << "\n";
  return os.str();
}

/// Whether every live object's id leads back to it in the table (and the
/// live count matches the table).
inline std::string TableProblems(const QelEnvI* env) {
  std::ostringstream os;
  QelInt count = 0;
  const std::uintptr_t* table = env->getExtractableTable();
  for (QelInt id = 0; id < env->getExtractableTableSize(); ++id) {
    std::uintptr_t v = table[id];
    if (v == QelEnvI::RemovalMark || v == QelEnvI::OrderingMark || v == QelEnvI::PendingMark) {
      os << "slot " << id << " still carries a removal mark\n";
      continue;
    }
    QelExtractableI* x = env->getExtractable(id);
    if (x == nullptr) continue;
    ++count;
    if (x->getId() != id)
      os << "slot " << id << " holds an object whose id is " << x->getId() << "\n";
    if (x->getEnv() != env) os << "slot " << id << " holds an object of another environment\n";
  }
  if (count != env->getNumberOfExtractables())
    os << "table holds " << count << " objects, the environment counts "
       << env->getNumberOfExtractables() << "\n";
  return os.str();
}

}  // namespace reliability

#endif

// The API fuzzer: decodes its input into a sequence of operations over the
// whole public interface and checks the library against an account of its
// own after each one.
//
// Input: one byte chooses the operation (modulo the number of operations),
// the bytes after it its arguments (which objects, which numbers, which
// name); an exhausted input reads as zeros and ends the run. At most
// kMaxOps operations run, over at most kMaxObjects live objects.
//
// Operations: make integer, Boolean and float variables; sums, scalings and
// products of expressions (linear terms, quadratic terms, product objects);
// ranges, differences, all-different, all-min-distance, pack and special
// ordered sets of both types; objectives of one expression and
// lexicographic ones; models. Add to and remove from models, singly and by
// array, and expand into them; add to and remove from sets and
// all-different constraints; set senses, constants, coefficients (singly,
// by array, quadratic) and expressions of objectives; set names singly and
// by array, and integer properties; end objects singly and by array, take
// them out of everything, with the one-by-one flag on or off; clone into a
// second environment, into a fresh one that is then ended, and arrays by
// replaceByClone; install column-wise additions (objective, set,
// all-different and all-min-distance entries chained); set values and
// evaluate; call operations on empty handles. Aliased arguments: an
// object's property set given to itself, a property added to the set that
// holds it. Objects of every kind deleted directly instead of ended. Ends and
// model additions from a second thread, which must be refused with nothing
// changed. And scratch episodes over two or three environments of their
// own, some with a custom allocator that counts and refuses requests:
// models holding members of other environments, themselves, or models that
// hold them; arrays holding an object twice; ends, direct deletes and
// operations from another thread; after every refusal the tables must be
// clean, and at the end each environment must have its memory back.
//
// The fuzzer keeps its own account (the shadow) of every object: what it
// holds, the uses it takes of shared expressions, the members of models,
// the variables and weights of sets, the terms of expressions and of what
// objectives keep, names and properties. From it, it predicts what each
// operation does, including what ending an object ends or drops elsewhere,
// and which notices it sends. After every operation it checks:
//   - a recording listener, which extracted every live object, heard
//     exactly the predicted notices (as a multiset; removal notices are
//     counted per object, since the library groups them in waves);
//   - every live object's id leads back to it in the extractable table,
//     and the table holds exactly the live objects of the account, in both
//     environments;
//   - every object presents exactly the predicted sub-objects, in order
//     (so models hold the predicted members, sets their variables, terms
//     their parts), weights, use counts, names and properties agree;
//   - every object of both environments prints without throwing.
// At the end every object is ended and each environment's objects must
// hold no memory. A failed check throws qelfuzz::Failure with the
// operations that led there; the libFuzzer entry point aborts on it. With
// QEL_FUZZ_TRACE set, each operation is also written to stderr as it
// starts.
#include "api_fuzzer.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <tuple>
#include <typeinfo>
#include <utility>
#include <vector>

#include <qel/qel.h>

#include "../tests/support/ledger.h"

namespace qelfuzz {
namespace {

constexpr int kMaxOps = 64;
constexpr long kMaxObjects = 48;

// ---- the account ---------------------------------------------------------

enum class Kind {
  IntVar,
  BoolVar,
  FloatVar,
  NumTerm,
  IntTerm,
  Product,
  Range,
  Diff,
  AllDiff,
  AllMin,
  Pack,
  SOS1,
  SOS2,
  Objective,
  Lex,
  Model
};

const char* KindName(Kind k) {
  static const char* const names[] = {
      "IntVar",  "BoolVar", "FloatVar", "NumTerm", "IntTerm", "Product",   "Range", "Diff",
      "AllDiff", "AllMin",  "Pack",     "SOS1",    "SOS2",    "Objective", "Lex",   "Model"};
  return names[static_cast<int>(k)];
}

bool IsVar(Kind k) { return k == Kind::IntVar || k == Kind::BoolVar || k == Kind::FloatVar; }
bool IsIntVar(Kind k) { return k == Kind::IntVar || k == Kind::BoolVar; }
bool IsTerm(Kind k) { return k == Kind::NumTerm || k == Kind::IntTerm; }
bool IsExpr(Kind k) { return IsVar(k) || IsTerm(k) || k == Kind::Product; }
bool IsIntegral(Kind k) { return IsIntVar(k) || k == Kind::IntTerm; }
bool IsRefCounted(Kind k) { return IsTerm(k) || k == Kind::Product; }
bool IsObjective(Kind k) { return k == Kind::Objective || k == Kind::Lex; }

struct Obj {
  Kind kind;
  QelExtractableI* impl = nullptr;
  bool alive = true;
  QelInt uses = 0;                        // uses taken of a shared expression
  std::vector<int> lin;                   // terms: linear variables, in order
  std::vector<std::pair<int, int>> quad;  // terms: quadratic pairs, in order
  std::vector<int> agg;                   // terms: aggregate expressions
  double constant = 0;                    // terms: the constant
  std::vector<int> held;                  // everything else; models: members
  std::vector<double> weights;            // sets
  int kept = -1;                          // objectives: the expression kept
  bool named = false;
  std::string name;
  bool propertySet = false;  // a property set was ever made
  std::map<std::string, QelInt> props;
};

// One notice as the listener heard it: class, the object(s) it concerns,
// and the array it carries. Removal notices are heard per element.
struct Heard {
  Heard(std::string c, const void* first = nullptr, const void* second = nullptr,
        std::vector<const void*> array = {})
      : cls(std::move(c)), a(first), b(second), list(std::move(array)) {}
  std::string cls;
  const void* a;
  const void* b;
  std::vector<const void*> list;
  bool operator<(const Heard& o) const {
    return std::tie(cls, a, b, list) < std::tie(o.cls, o.a, o.b, o.list);
  }
  bool operator==(const Heard& o) const {
    return cls == o.cls && a == o.a && b == o.b && list == o.list;
  }
};

std::string Text(const Heard& h) {
  std::ostringstream os;
  os << h.cls << "(" << h.a << "," << h.b << ",[";
  for (const void* p : h.list) os << p << " ";
  os << "])";
  return os.str();
}

std::vector<const void*> Elements(const QelExtractableArray& a) {
  std::vector<const void*> out;
  for (long i = 0; i < a.getSize(); ++i) out.push_back(a.getElement(i));
  return out;
}

// Records every notice; follows the others through its change visitor.
class Listener : public QelAlgorithmI {
 public:
  explicit Listener(QelEnvI* env) : QelAlgorithmI(env) { setChangeVisitor(&_visitor); }
  void notifyChange(const QelExtractableI* x, const QelChange& c) override {
    hear(c);
    // Column entries of all-different constraints refuse change visitors:
    // the new variable is recorded here instead.
    if (c.isType(QelAddVarToAllDiff::GetTypeInfo()) ||
        c.isType(QelAddVarToAllMinDistance::GetTypeInfo())) {
      if (QelExtractableI* added = c.getChangedExtractable()) record(added);
      return;
    }
    QelAlgorithmI::notifyChange(x, c);
  }
  std::vector<Heard> heard;

 private:
  void hear(const QelChange& c) {
    std::string cls = c.getRttiTypeName();
    if (cls == "QelRemoveFromAllChange") {
      for (const void* e : Elements(c.getChangedExtractableArray()))
        heard.push_back({"RemoveFromAll", e});
    } else if (cls == "QelDestroyExtractable") {
      heard.push_back({"Destroy", c.getChangedExtractable()});
    } else if (cls == "QelDestroyExtractableArray") {
      for (const void* e : Elements(c.getChangedExtractableArray()))
        heard.push_back({"Destroy", e});
    } else if (cls == "QelSetNameArrayChange") {
      heard.push_back({cls, nullptr, nullptr, Elements(c.getChangedExtractableArray())});
    } else if (cls == "QelAddOneToModel") {
      heard.push_back(
          {cls, c.getChangedExtractable(), static_cast<const QelAddOneToModel&>(c).getMember()});
    } else if (cls == "QelAddToModel" || cls == "QelRemoveFromModel") {
      heard.push_back({cls, c.getChangedExtractable(), nullptr,
                       Elements(static_cast<const QelModelArrayNotice&>(c).getMembers())});
    } else if (cls == "QelSetObjCoef") {
      heard.push_back(
          {cls, c.getChangedExtractable(), static_cast<const QelSetObjCoef&>(c).getVar()});
    } else if (cls == "QelSetObjQuadCoef") {
      const auto& q = static_cast<const QelSetObjQuadCoef&>(c);
      heard.push_back({cls, c.getChangedExtractable(), nullptr, {q.getVar1(), q.getVar2()}});
    } else if (cls == "QelAllDiffRemoveVar") {
      heard.push_back(
          {cls, c.getChangedExtractable(), static_cast<const QelAllDiffRemoveVar&>(c).getExpr()});
    } else if (c.isType(QelAddExtractable::GetTypeInfo())) {
      const auto& column = static_cast<const QelAddExtractable&>(c);
      heard.push_back({cls, column.what(), column.getObj()});
    } else if (cls == "QelSetNameChange" || cls == "QelSetObjSense" || cls == "QelSetObjConst" ||
               cls == "QelSetObjCoefs" || cls == "QelSetObjExpr" || cls == "QelSOS1RemoveVar" ||
               cls == "QelSOS2RemoveVar") {
      heard.push_back({cls, c.getChangedExtractable()});
    } else {
      heard.push_back({"unexpected " + cls});
    }
  }
  QelChangeVisitor _visitor;  // the base class: follows nothing itself
};

// Collects the direct sub-extractables an object presents.
class Subs : public QelExtractableVisitor {
 public:
  using QelExtractableVisitor::visitChildren;
  void visitChildren(QelExtractableI*, QelExtractableI* child) override { subs.push_back(child); }
  std::vector<const QelExtractableI*> subs;
};

// A stream that throws its output away.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Reads the input: a byte at a time, zeros once it is exhausted.
struct Input {
  const std::uint8_t* data;
  std::size_t size;
  std::size_t at = 0;
  bool exhausted() const { return at >= size; }
  unsigned byte() { return at < size ? data[at++] : 0U; }
  long below(long n) { return n <= 0 ? 0 : static_cast<long>(byte()) % n; }
  bool flag() { return (byte() & 1U) != 0; }
};

QelEnvConfig SingleBlocks() {
  // Every block obtained singly: AddressSanitizer sees each one.
  QelEnvConfig config;
  config.freeLists = false;
  return config;
}

// A custom allocator that counts what it is asked, refuses the request
// named by refuseAt, and keeps its blocks' books in a ledger (every block
// must come back once, with its size).
class LoggingAllocator : public QelCustomAllocatorI {
 public:
  void* alloc(size_t size) override {
    ++requests;
    if (refuseAt != 0 && requests == refuseAt) {
      refused = true;
      throw QelMemoryException();
    }
    return ledger.take(size);
  }
  void free(void* p, size_t size) override { ledger.give(p, size); }
  void recordLocation(void*) override { ++records; }
  long requests = 0;
  long refuseAt = 0;  // 0: refuse nothing
  bool refused = false;
  long records = 0;
  qeltest::BlockLedger ledger;
};

// ---- one run ---------------------------------------------------------------

class Run {
 public:
  Run(const std::uint8_t* data, std::size_t size)
      : _in{data, size}, _env(SingleBlocks()), _copy(SingleBlocks()) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() {
    // Whatever happened, everything goes with the environments.
    _env.end();
    _copy.end();
  }

  void go() {
    _listener = QelNewObject<Listener>(_env.getImpl(), _env.getImpl());
    _values = QelAlgorithm(_env);
    for (int op = 0; op < kMaxOps && !_in.exhausted(); ++op) {
      extractEverything();
      step();
      check();
    }
    finish();
  }

  const std::string& log() const { return _log; }

 private:
  // ---- failure and log ---------------------------------------------------
  [[noreturn]] void fail(const std::string& what) const {
    throw Failure(what + "\noperations:\n" + _log);
  }
// A check; the message is built only when it fails.
#define QEL_FUZZ_REQUIRE(ok, what) \
  do {                             \
    if (!(ok)) fail(what);         \
  } while (false)
  void note(const std::string& line) {
    _log += line + "\n";
    // QEL_FUZZ_TRACE=1 shows each operation as it starts (for a crash that
    // ends the process before the log can be reported).
    static const bool trace = std::getenv("QEL_FUZZ_TRACE") != nullptr;
    if (trace) std::fprintf(stderr, "qel api fuzzer: %s\n", line.c_str());
  }
  std::string id(int i) const {
    return std::string(KindName(_objs[static_cast<size_t>(i)].kind)) + "#" + std::to_string(i);
  }

  // Runs `call`, which must throw exactly E (changing nothing).
  template <class E, class F>
  void expectThrow(const char* what, F call) {
    try {
      call();
    } catch (const E& e) {
      QEL_FUZZ_REQUIRE(typeid(e) == typeid(E), std::string(what) + ": a relative of the exception");
      return;
    } catch (const std::exception& e) {
      fail(std::string(what) + ": wrong exception " + typeid(e).name() + " " + e.what());
    }
    fail(std::string(what) + ": nothing thrown");
  }

  // ---- the account -------------------------------------------------------
  Obj& at(int i) { return _objs[static_cast<size_t>(i)]; }
  const Obj& at(int i) const { return _objs[static_cast<size_t>(i)]; }

  long liveCount() const {
    long n = 0;
    for (const Obj& o : _objs) n += o.alive;
    return n;
  }
  bool room() const { return liveCount() < kMaxObjects; }

  int add(Obj o) {
    _objs.push_back(std::move(o));
    return static_cast<int>(_objs.size()) - 1;
  }

  int pick(const std::function<bool(const Obj&)>& ok) {
    std::vector<int> c;
    for (size_t i = 0; i < _objs.size(); ++i)
      if (_objs[i].alive && ok(_objs[i])) c.push_back(static_cast<int>(i));
    if (c.empty()) return -1;
    return c[static_cast<size_t>(_in.below(static_cast<long>(c.size())))];
  }
  int pickKind(bool (*ok)(Kind)) {
    return pick([ok](const Obj& o) { return ok(o.kind); });
  }
  int pickAny() {
    return pick([](const Obj&) { return true; });
  }

  int indexOf(const QelExtractableI* x) const {
    for (size_t i = 0; i < _objs.size(); ++i)
      if (_objs[i].alive && _objs[i].impl == x) return static_cast<int>(i);
    return -1;
  }

  // The sub-objects the object presents, in its visit order.
  std::vector<int> subsOf(const Obj& o) const {
    if (IsTerm(o.kind)) {
      std::vector<int> s = o.lin;
      for (const auto& q : o.quad) {
        s.push_back(q.first);
        s.push_back(q.second);
      }
      s.insert(s.end(), o.agg.begin(), o.agg.end());
      return s;
    }
    if (o.kind == Kind::Objective) return {o.kept};
    return o.held;
  }

  // What an object gives a use back to when it is destroyed.
  std::vector<int> usesHeld(const Obj& o) const {
    switch (o.kind) {
      case Kind::Model:
      case Kind::SOS1:
      case Kind::SOS2:
        return {};
      default:
        return subsOf(o);
    }
  }

  // The polynomial degree of an expression: 1, 2, 0, or -1 (unknown).
  int degree(int i) const {
    const Obj& o = at(i);
    if (IsVar(o.kind)) return 1;
    if (!IsTerm(o.kind) || !o.agg.empty()) return -1;
    if (!o.quad.empty()) return 2;
    return o.lin.empty() ? 0 : 1;
  }

  // The parts `factor` times an expression adds to a term made from it.
  void appendParts(Obj& t, int i, double factor = 1) {
    const Obj& e = at(i);
    if (IsVar(e.kind)) {
      t.lin.push_back(i);
    } else if (IsTerm(e.kind)) {
      t.lin.insert(t.lin.end(), e.lin.begin(), e.lin.end());
      t.quad.insert(t.quad.end(), e.quad.begin(), e.quad.end());
      t.agg.insert(t.agg.end(), e.agg.begin(), e.agg.end());
      t.constant += factor * e.constant;
    } else {
      t.agg.push_back(i);
    }
  }
  // A new term takes a use of each aggregate it holds.
  int addTerm(Obj t) {
    for (int a : t.agg) ++at(a).uses;
    return add(std::move(t));
  }

  void expectHeard(Heard h) { _expected.push_back(std::move(h)); }
  const void* impl(int i) const { return at(i).impl; }

  // Whether model `m` holds `x`, directly or through models it holds.
  bool reaches(int m, int x) const {
    if (m == x) return true;
    for (int member : at(m).held)
      if (at(member).alive && at(member).kind == Kind::Model && reaches(member, x)) return true;
    return false;
  }

  // ---- removal -------------------------------------------------------------
  // `start` leaves everything; it is destroyed unless `keep`. Applies to the
  // account what the library does (dependants end or drop what goes, uses
  // come back, expressions nobody uses any more end) and expects the
  // notices: every object that goes is reported once as removed and, when
  // destroyed, once as destroyed; with the one-by-one flag, models and sets
  // report each dropped member themselves.
  void removal(const std::vector<int>& start, bool keep) {
    std::set<int> marked, destroyed;
    std::vector<int> toRelease;
    for (int s : start) {
      if (!at(s).alive || marked.count(s) != 0) continue;
      marked.insert(s);
      if (!keep) {
        destroyed.insert(s);
        toRelease.push_back(s);
      }
    }
    auto destroy = [&](int i) {
      marked.insert(i);
      destroyed.insert(i);
      toRelease.push_back(i);
    };
    for (;;) {
      for (bool changed = true; changed;) {
        changed = false;
        for (size_t k = 0; k < _objs.size(); ++k) {
          int i = static_cast<int>(k);
          Obj& o = at(i);
          if (!o.alive || marked.count(i) != 0) continue;
          std::vector<int> subs = subsOf(o);
          bool hit =
              std::any_of(subs.begin(), subs.end(), [&](int s) { return marked.count(s) != 0; });
          if (!hit) continue;
          switch (o.kind) {
            case Kind::Model:
              for (int m : std::set<int>(o.held.begin(), o.held.end())) {
                if (marked.count(m) == 0) continue;
                long nodes = std::count(o.held.begin(), o.held.end(), m);
                if (_oneByOne)
                  for (long n = 0; n < nodes; ++n)
                    expectHeard({"QelRemoveFromModel", o.impl, nullptr, {impl(m)}});
                o.held.erase(std::remove(o.held.begin(), o.held.end(), m), o.held.end());
              }
              break;
            case Kind::SOS1:
            case Kind::SOS2:
              for (int v : std::set<int>(o.held.begin(), o.held.end())) {
                if (marked.count(v) == 0) continue;
                if (_oneByOne) {
                  // removeVar: one notice per element scanned, and the weight
                  // at the variable's place goes with it.
                  for (size_t n = 0; n < o.held.size(); ++n)
                    expectHeard(
                        {o.kind == Kind::SOS1 ? "QelSOS1RemoveVar" : "QelSOS2RemoveVar", o.impl});
                  removeFromSet(o, v);
                } else {
                  o.held.erase(std::remove(o.held.begin(), o.held.end(), v), o.held.end());
                }
              }
              break;
            case Kind::AllDiff:
              dropMarked(o, marked);
              break;
            case Kind::AllMin:
              if (!_oneByOne) {
                dropMarked(o, marked);
                break;
              }
              destroy(i);
              changed = true;
              break;
            default:
              destroy(i);
              changed = true;
              break;
          }
        }
      }
      // Destroyed objects give their uses back; an expression nobody uses
      // any more ends within the same removal.
      bool more = false;
      while (!toRelease.empty()) {
        int d = toRelease.back();
        toRelease.pop_back();
        for (int s : usesHeld(at(d))) {
          Obj& e = at(s);
          if (!e.alive || !IsRefCounted(e.kind)) continue;
          if (--e.uses <= 0 && marked.count(s) == 0) {
            destroy(s);
            more = true;
          }
        }
      }
      if (!more) break;
    }
    for (int m : marked) expectHeard({"RemoveFromAll", impl(m)});
    for (int d : destroyed) {
      expectHeard({"Destroy", impl(d)});
      at(d).alive = false;
    }
  }

  static void dropMarked(Obj& o, const std::set<int>& marked) {
    o.held.erase(
        std::remove_if(o.held.begin(), o.held.end(), [&](int s) { return marked.count(s) != 0; }),
        o.held.end());
  }

  // removeVar of a set: every place of `v`, last first, with the weight at
  // that place when there is one.
  static void removeFromSet(Obj& s, int v) {
    for (long i = static_cast<long>(s.held.size()) - 1; i >= 0; --i) {
      if (s.held[static_cast<size_t>(i)] != v) continue;
      s.held.erase(s.held.begin() + i);
      if (static_cast<long>(s.weights.size()) > i) s.weights.erase(s.weights.begin() + i);
    }
  }

  // A use of `e` given back (QelEnvI::release): it ends when nobody uses it.
  void release(int e) {
    Obj& o = at(e);
    if (!o.alive || !IsRefCounted(o.kind)) return;
    if (--o.uses <= 0) removal({e}, false);
  }

  // ---- objectives ----------------------------------------------------------
  // What an objective keeps for `e`: a numeric linear term is kept itself,
  // anything else in a new numeric term (made by the library, -1 pending its
  // address). Takes the use.
  int keep(int e) {
    if (at(e).kind == Kind::NumTerm) {
      ++at(e).uses;
      return e;
    }
    Obj t;
    t.kind = Kind::NumTerm;
    appendParts(t, e);
    t.uses = 1;
    return addTerm(std::move(t));
  }

  // Copy-on-write: objective `o` gets its own expression (a copy when
  // someone else uses it too).
  void own(int o) {
    int k = at(o).kept;
    if (at(k).uses - 1 > 0) {
      --at(k).uses;
      Obj c;
      c.kind = Kind::NumTerm;
      c.lin = at(k).lin;
      c.quad = at(k).quad;
      c.agg = at(k).agg;
      c.constant = at(k).constant;
      c.uses = 1;
      int copy = addTerm(std::move(c));
      at(o).kept = copy;
    }
  }

  // x * x of a Boolean variable becomes x.
  void zeroOne(Obj& t) {
    std::vector<std::pair<int, int>> rest;
    for (const auto& q : t.quad) {
      if (q.first == q.second && at(q.first).kind == Kind::BoolVar)
        t.lin.push_back(q.first);
      else
        rest.push_back(q);
    }
    t.quad = rest;
  }

  static void setCoef(Obj& t, int v, bool zero) {
    auto first = std::find(t.lin.begin(), t.lin.end(), v);
    if (zero) {
      t.lin.erase(std::remove(t.lin.begin(), t.lin.end(), v), t.lin.end());
      return;
    }
    if (first == t.lin.end()) {
      t.lin.push_back(v);
      return;
    }
    size_t keepAt = static_cast<size_t>(first - t.lin.begin());
    std::vector<int> out;
    for (size_t i = 0; i < t.lin.size(); ++i)
      if (t.lin[i] != v || i == keepAt) out.push_back(t.lin[i]);
    t.lin = out;
  }

  static void setQuadCoef(Obj& t, int x, int y, bool zero) {
    auto same = [x, y](const std::pair<int, int>& q) {
      return (q.first == x && q.second == y) || (q.first == y && q.second == x);
    };
    std::vector<std::pair<int, int>> out;
    bool kept = false;
    for (const auto& q : t.quad) {
      if (!same(q)) {
        out.push_back(q);
      } else if (!zero && !kept) {
        out.emplace_back(x, y);
        kept = true;
      }
    }
    if (!zero && !kept) out.emplace_back(x, y);
    t.quad = out;
  }

  // After an operation that may have made the kept term: its address.
  void settleKept(int objIndex) {
    Obj& obj = at(objIndex);
    QelNumExprI* e = static_cast<QelObjectiveI*>(obj.impl)->getExpr();
    Obj& k = at(obj.kept);
    if (k.impl == nullptr) {
      QEL_FUZZ_REQUIRE(indexOf(e) < 0, id(objIndex) + ": the expression kept should be a new one");
      k.impl = e;
    } else {
      QEL_FUZZ_REQUIRE(e == k.impl, id(objIndex) + ": keeps " + std::to_string(indexOf(e)) +
                                        " instead of " + id(obj.kept));
    }
  }

  // ---- the operations -------------------------------------------------------
  QelNumExpr numExpr(int i) const { return QelNumExpr(static_cast<QelNumExprI*>(at(i).impl)); }
  QelIntExpr intExpr(int i) const { return QelIntExpr(static_cast<QelIntExprI*>(at(i).impl)); }
  QelNumVar numVar(int i) const { return QelNumVar(static_cast<QelNumVarI*>(at(i).impl)); }
  const char* name() {
    static const char* const names[] = {nullptr, "a", "b", "c", "long name", "x1"};
    return names[_in.below(6)];
  }
  double number() { return static_cast<double>(static_cast<int>(_in.byte() % 9) - 4); }

  void step() {
    unsigned op = _in.byte() % 47;
    switch (op) {
      case 0:
        newVar(Kind::IntVar);
        break;
      case 1:
        newVar(Kind::BoolVar);
        break;
      case 2:
        newVar(Kind::FloatVar);
        break;
      case 3:
        sum();
        break;
      case 4:
        scale();
        break;
      case 5:
        product();
        break;
      case 6:
        range();
        break;
      case 7:
        diff();
        break;
      case 8:
        allDiff(false);
        break;
      case 9:
        allDiff(true);
        break;
      case 10:
        pack();
        break;
      case 11:
        newSet();
        break;
      case 12:
        setAdd();
        break;
      case 13:
        setRemove();
        break;
      case 14:
        allDiffRemove();
        break;
      case 15:
        objective();
        break;
      case 16:
        lex();
        break;
      case 17:
        sense();
        break;
      case 18:
        constant();
        break;
      case 19:
        coef();
        break;
      case 20:
        quadCoef();
        break;
      case 21:
        coefs();
        break;
      case 22:
        setExpr();
        break;
      case 23:
        newModel();
        break;
      case 24:
        modelAdd(false);
        break;
      case 25:
        modelAddArray();
        break;
      case 26:
        modelRemove();
        break;
      case 27:
        modelRemoveArray();
        break;
      case 28:
        modelAdd(true);
        break;
      case 29:
        setName();
        break;
      case 30:
        setNames();
        break;
      case 31:
        property();
        break;
      case 32:
        end();
        break;
      case 33:
        endElements();
        break;
      case 34:
        removeFromAll();
        break;
      case 35:
        oneByOne();
        break;
      case 36:
        clone();
        break;
      case 37:
        cloneAndEnd();
        break;
      case 38:
        replaceByClone();
        break;
      case 39:
        column();
        break;
      case 40:
        evaluate();
        break;
      case 41:
        emptyHandles();
        break;
      case 43:
        ownProperties();
        break;
      case 44:
        deleteDirectly();
        break;
      case 45:
        fromAnotherThread();
        break;
      case 46:
        scratch();
        break;
      default:
        newModel();
        break;
    }
  }

  void newVar(Kind k) {
    if (!room()) return;
    const char* n = name();
    Obj o;
    o.kind = k;
    if (n != nullptr) {
      o.named = true;
      o.name = n;
    }
    QelNumVarI* v = nullptr;
    if (k == Kind::IntVar) v = QelIntVar(_env, 0, 9, n).getImpl();
    if (k == Kind::BoolVar) v = QelBoolVar(_env, n).getImpl();
    if (k == Kind::FloatVar) v = QelNumVar(_env, 0, 5, n).getImpl();
    o.impl = v;
    note("new " + std::string(KindName(k)) + " #" + std::to_string(add(std::move(o))));
  }

  void sum() {
    if (!room()) return;
    int a = pickKind(IsExpr), b = pickKind(IsExpr);
    if (a < 0) return;
    bool minus = _in.flag();
    bool integral = IsIntegral(at(a).kind) && IsIntegral(at(b).kind);
    Obj t;
    t.kind = integral ? Kind::IntTerm : Kind::NumTerm;
    appendParts(t, a);
    appendParts(t, b, minus ? -1 : 1);
    QelNumExprI* r = integral
                         ? (minus ? intExpr(a) - intExpr(b) : intExpr(a) + intExpr(b)).getImpl()
                         : (minus ? numExpr(a) - numExpr(b) : numExpr(a) + numExpr(b)).getImpl();
    t.impl = r;
    int i = addTerm(std::move(t));
    note(id(i) + " = " + id(a) + (minus ? " - " : " + ") + id(b));
  }

  void scale() {
    if (!room()) return;
    int a = pickKind(IsExpr);
    if (a < 0) return;
    QelInt k = static_cast<QelInt>(_in.below(5)) - 2;
    if (k == 0) k = 3;
    bool integral = IsIntegral(at(a).kind);
    Obj t;
    t.kind = integral ? Kind::IntTerm : Kind::NumTerm;
    appendParts(t, a, static_cast<double>(k));
    t.impl =
        integral ? (k * intExpr(a)).getImpl() : (static_cast<double>(k) * numExpr(a)).getImpl();
    int i = addTerm(std::move(t));
    note(id(i) + " = " + std::to_string(k) + " * " + id(a));
  }

  void product() {
    if (liveCount() + 1 >= kMaxObjects) return;
    int a = pickKind(IsExpr), b = pickKind(IsExpr);
    if (a < 0) return;
    bool integral = IsIntegral(at(a).kind) && IsIntegral(at(b).kind);
    int da = degree(a), db = degree(b);
    bool quadratic = da == 0 || db == 0 || (da == 1 && db == 1);
    if (quadratic) {
      // As the kernel writes the product: a constant factor scales the other
      // operand; otherwise every pair of variables, then the variables of
      // each operand times the other's constant, then the constants.
      Obj t;
      t.kind = integral ? Kind::IntTerm : Kind::NumTerm;
      double ca = IsTerm(at(a).kind) ? at(a).constant : 0;
      double cb = IsTerm(at(b).kind) ? at(b).constant : 0;
      if (da == 0) {
        appendParts(t, b, ca);
      } else if (db == 0) {
        appendParts(t, a, cb);
      } else {
        std::vector<int> la = IsVar(at(a).kind) ? std::vector<int>{a} : at(a).lin;
        std::vector<int> lb = IsVar(at(b).kind) ? std::vector<int>{b} : at(b).lin;
        for (int x : la)
          for (int y : lb) t.quad.emplace_back(x, y);
        if (cb != 0) t.lin.insert(t.lin.end(), la.begin(), la.end());
        if (ca != 0) t.lin.insert(t.lin.end(), lb.begin(), lb.end());
        t.constant = ca * cb;
      }
      t.impl = integral ? (intExpr(a) * intExpr(b)).getImpl() : (numExpr(a) * numExpr(b)).getImpl();
      int i = addTerm(std::move(t));
      note(id(i) + " = " + id(a) + " * " + id(b) + " (quadratic)");
      return;
    }
    Obj p;
    p.kind = Kind::Product;
    p.held = {a, b};
    ++at(a).uses;
    ++at(b).uses;
    if (!integral) {
      p.impl = (numExpr(a) * numExpr(b)).getImpl();
      int i = add(std::move(p));
      note(id(i) + " = " + id(a) + " * " + id(b) + " (product)");
      return;
    }
    // An integer term holding the product as its one aggregate.
    QelIntExprI* t = (intExpr(a) * intExpr(b)).getImpl();
    Subs s;
    t->visitSubExtractables(&s);
    QEL_FUZZ_REQUIRE(s.subs.size() == 1,
                     "an integer product beyond degree two holds one aggregate");
    p.impl = const_cast<QelExtractableI*>(s.subs[0]);
    int pi = add(std::move(p));
    Obj term;
    term.kind = Kind::IntTerm;
    term.agg = {pi};
    term.impl = t;
    int ti = addTerm(std::move(term));
    note(id(ti) + " = " + id(a) + " * " + id(b) + " (integer product " + id(pi) + ")");
  }

  void range() {
    if (!room()) return;
    int e = pickKind(IsExpr);
    if (e < 0) return;
    const char* n = name();
    Obj r;
    r.kind = Kind::Range;
    r.held = {e};
    if (n != nullptr) {
      r.named = true;
      r.name = n;
    }
    double lb = number();
    double ub = number() + 5;
    r.impl = QelRange(_env, lb, numExpr(e), ub, n).getImpl();
    if (IsRefCounted(at(e).kind)) ++at(e).uses;
    note("range #" + std::to_string(add(std::move(r))) + " over " + id(e));
  }

  void diff() {
    if (!room()) return;
    int x = pickKind(IsExpr);
    if (x < 0) return;
    Obj d;
    d.kind = Kind::Diff;
    if (_in.flag()) {
      int y = pickKind(IsExpr);
      d.held = {x, y};
      d.impl = QelDiff(_env, numExpr(x), numExpr(y)).getImpl();
      if (IsRefCounted(at(y).kind)) ++at(y).uses;
    } else {
      d.held = {x};
      d.impl = QelDiff(_env, numExpr(x), number()).getImpl();
    }
    if (IsRefCounted(at(x).kind)) ++at(x).uses;
    note("diff #" + std::to_string(add(std::move(d))) + " of " + id(x));
  }

  // An array of 1..max integer variables (repeats allowed).
  std::vector<int> intVars(long max) {
    std::vector<int> vs;
    long n = 1 + _in.below(max);
    for (long k = 0; k < n; ++k) {
      int v = pickKind(IsIntVar);
      if (v < 0) return {};
      vs.push_back(v);
    }
    return vs;
  }
  QelIntVarArray intVarArray(const std::vector<int>& vs) {
    QelIntVarArray a(QelExtractableArray(_env, 0));
    for (int v : vs) a.add(at(v).impl);
    return a;
  }

  void allDiff(bool minDistance) {
    if (!room()) return;
    std::vector<int> vs = intVars(4);
    if (vs.empty()) return;
    QelIntVarArray a = intVarArray(vs);
    Obj c;
    c.kind = minDistance ? Kind::AllMin : Kind::AllDiff;
    c.held = vs;
    c.impl = minDistance ? static_cast<QelExtractableI*>(QelAllMinDistance(_env, a, 2).getImpl())
                         : QelAllDiff(_env, a).getImpl();
    a.end();
    note(std::string(minDistance ? "all-min-distance #" : "all-different #") +
         std::to_string(add(std::move(c))));
  }

  void pack() {
    if (!room()) return;
    std::vector<int> load = intVars(3), where = intVars(3);
    if (load.empty() || where.empty()) return;
    QelIntVarArray l = intVarArray(load), w = intVarArray(where);
    QelIntArray weights(_env, static_cast<long>(where.size()));
    for (size_t i = 0; i < where.size(); ++i) weights.set(static_cast<long>(i), _in.below(5));
    Obj p;
    p.kind = Kind::Pack;
    p.held = load;
    p.held.insert(p.held.end(), where.begin(), where.end());
    p.impl = QelPack(_env, l, w, weights).getImpl();
    l.end();
    w.end();
    weights.end();
    note("pack #" + std::to_string(add(std::move(p))));
  }

  void newSet() {
    if (!room()) return;
    Obj s;
    s.kind = _in.flag() ? Kind::SOS1 : Kind::SOS2;
    const char* n = name();
    if (n != nullptr) {
      s.named = true;
      s.name = n;
    }
    s.impl = s.kind == Kind::SOS1 ? static_cast<QelExtractableI*>(QelSOS1(_env, n).getImpl())
                                  : QelSOS2(_env, n).getImpl();
    note("set #" + std::to_string(add(std::move(s))));
  }

  static bool IsSet(Kind k) { return k == Kind::SOS1 || k == Kind::SOS2; }
  void addToSet(Obj& s, int v) {
    if (s.kind == Kind::SOS1)
      static_cast<QelSOS1I*>(s.impl)->addVar(numVar(v));
    else
      static_cast<QelSOS2I*>(s.impl)->addVar(numVar(v));
    s.held.push_back(v);
  }

  void setAdd() {
    int s = pickKind(IsSet), v = pickKind(IsVar);
    if (s < 0 || v < 0) return;
    Obj& set = at(s);
    // Each variable once in a set: the number of notices of a one-by-one
    // removal then does not depend on the order in which variables go.
    if (std::find(set.held.begin(), set.held.end(), v) != set.held.end()) return;
    addToSet(set, v);
    if (_in.flag()) {
      double w = number();
      if (set.kind == Kind::SOS1)
        static_cast<QelSOS1I*>(set.impl)->addVal(w);
      else
        static_cast<QelSOS2I*>(set.impl)->addVal(w);
      set.weights.push_back(w);
    }
    note(id(s) + " + " + id(v));
  }

  void setRemove() {
    int s = pickKind(IsSet), v = pickKind(IsVar);
    if (s < 0 || v < 0) return;
    Obj& set = at(s);
    for (size_t n = 0; n < set.held.size(); ++n)
      expectHeard({set.kind == Kind::SOS1 ? "QelSOS1RemoveVar" : "QelSOS2RemoveVar", set.impl});
    if (set.kind == Kind::SOS1)
      static_cast<QelSOS1I*>(set.impl)->removeVar(numVar(v));
    else
      static_cast<QelSOS2I*>(set.impl)->removeVar(numVar(v));
    removeFromSet(set, v);
    note(id(s) + " - " + id(v));
  }

  void allDiffRemove() {
    int c = pick([](const Obj& o) { return o.kind == Kind::AllDiff || o.kind == Kind::AllMin; });
    int v = pickKind(IsIntVar);
    if (c < 0 || v < 0) return;
    Obj& o = at(c);
    long times = std::count(o.held.begin(), o.held.end(), v);
    if (o.kind == Kind::AllDiff) {
      for (long k = 0; k < times; ++k) expectHeard({"QelAllDiffRemoveVar", o.impl, impl(v)});
      static_cast<QelAllDiffI*>(o.impl)->removeExpr(static_cast<QelIntExprI*>(at(v).impl));
    } else {
      static_cast<QelAllMinDistanceI*>(o.impl)->removeExpr(static_cast<QelIntExprI*>(at(v).impl));
    }
    o.held.erase(std::remove(o.held.begin(), o.held.end(), v), o.held.end());
    note(id(c) + " - " + id(v));
  }

  void objective() {
    if (liveCount() + 1 >= kMaxObjects) return;
    int e = pickKind(IsExpr);
    if (e < 0) return;
    QelObjective::Sense sense = _in.flag() ? QelObjective::Minimize : QelObjective::Maximize;
    const char* n = name();
    Obj o;
    o.kind = Kind::Objective;
    if (n != nullptr) {
      o.named = true;
      o.name = n;
    }
    o.impl = QelObjective(_env, QelNumExprArg(numExpr(e)), sense, n).getImpl();
    int i = add(std::move(o));
    int kept = keep(e);
    at(i).kept = kept;
    settleKept(i);
    note("objective #" + std::to_string(i) + " over " + id(e) + " keeps " + id(at(i).kept));
  }

  void lex() {
    if (!room()) return;
    int a = pickKind(IsExpr), b = pickKind(IsExpr);
    if (a < 0) return;
    QelMultiCriterionExpr mc = QelStaticLex(_env, numExpr(a), numExpr(b));
    Obj o;
    o.kind = Kind::Lex;
    o.held = {a, b};
    o.impl = (_in.flag() ? QelMinimize(_env, mc) : QelMaximize(_env, mc)).getImpl();
    mc.end();  // the objective keeps its own duplicate
    for (int c : o.held)
      if (IsRefCounted(at(c).kind)) ++at(c).uses;
    note("lexicographic objective #" + std::to_string(add(std::move(o))) + " of " + id(a) + ", " +
         id(b));
  }

  QelObjective objectiveHandle(int i) const {
    return QelObjective(static_cast<QelObjectiveI*>(at(i).impl));
  }

  void sense() {
    int o = pickKind(IsObjective);
    if (o < 0) return;
    objectiveHandle(o).setSense(_in.flag() ? QelObjective::Minimize : QelObjective::Maximize);
    expectHeard({"QelSetObjSense", impl(o)});
    note(id(o) + ": sense");
  }

  bool linear(int t) const { return at(t).quad.empty() && at(t).agg.empty(); }

  void constant() {
    int o = pickKind(IsObjective);
    if (o < 0) return;
    double c = number();
    QelObjective obj = objectiveHandle(o);
    note(id(o) + ": constant " + std::to_string(c));
    if (at(o).kind == Kind::Lex) {
      if (c == 0.0) {
        obj.setConst(c);  // accepted, and nothing happens
        return;
      }
      expectThrow<QelNotAllowedWithMultiCriterionException>("setConst of several criteria",
                                                            [&] { obj.setConst(c); });
      return;
    }
    if (!linear(at(o).kept)) {
      expectThrow<QelWrongUsage>("setConst of a non-linear expression", [&] { obj.setConst(c); });
      return;
    }
    obj.setConst(c);
    own(o);
    at(at(o).kept).constant = c;
    settleKept(o);
    expectHeard({"QelSetObjConst", impl(o)});
  }

  // Whether a coefficient change of objective `o` is refused, and how;
  // checks the refusal when it is. Returns true when it may go on.
  template <class F>
  bool coefficientsAccepted(int o, F call) {
    if (at(o).kind == Kind::Lex) {
      expectThrow<QelNotAllowedWithMultiCriterionException>("coefficient of several criteria",
                                                            call);
      return false;
    }
    if (!at(at(o).kept).agg.empty()) {
      // Copy-on-write comes first: a shared aggregate is copied, and the
      // objective keeps the copy.
      expectThrow<QelWrongUsage>("coefficient of an aggregate", call);
      own(o);
      settleKept(o);
      return false;
    }
    return true;
  }

  void coef() {
    int o = pickKind(IsObjective), v = pickKind(IsVar);
    if (o < 0 || v < 0 || liveCount() + 1 >= kMaxObjects) return;
    bool zero = _in.flag();
    QelObjective obj = objectiveHandle(o);
    note(id(o) + ": coefficient of " + id(v) + (zero ? " 0" : ""));
    auto call = [&] { obj.setLinearCoef(numVar(v), zero ? 0.0 : 2.5); };
    if (!coefficientsAccepted(o, call)) return;
    call();
    own(o);
    Obj& t = at(at(o).kept);
    zeroOne(t);
    setCoef(t, v, zero);
    settleKept(o);
    expectHeard({"QelSetObjCoef", impl(o), impl(v)});
  }

  void quadCoef() {
    int o = pickKind(IsObjective), x = pickKind(IsVar), y = pickKind(IsVar);
    if (o < 0 || x < 0 || liveCount() + 1 >= kMaxObjects) return;
    bool zero = _in.flag();
    QelObjective obj = objectiveHandle(o);
    note(id(o) + ": coefficient of " + id(x) + " * " + id(y) + (zero ? " 0" : ""));
    auto call = [&] { obj.setQuadCoef(numVar(x), numVar(y), zero ? 0.0 : 1.5); };
    if (!coefficientsAccepted(o, call)) return;
    call();
    own(o);
    setQuadCoef(at(at(o).kept), x, y, zero);
    settleKept(o);
    expectHeard({"QelSetObjQuadCoef", impl(o), nullptr, {impl(x), impl(y)}});
  }

  void coefs() {
    int o = pickKind(IsObjective);
    if (o < 0 || liveCount() + 1 >= kMaxObjects) return;
    std::vector<int> vs;
    std::vector<bool> zeros;
    long n = _in.below(4);
    for (long k = 0; k < n; ++k) {
      int v = pickKind(IsVar);
      if (v < 0) break;
      vs.push_back(v);
      zeros.push_back(_in.flag());
    }
    QelNumVarArray xs(QelExtractableArray(_env, 0));
    QelNumArray cs(_env, 0);
    for (size_t k = 0; k < vs.size(); ++k) {
      xs.add(at(vs[k]).impl);
      cs.add(zeros[k] ? 0.0 : 1.0 + static_cast<double>(k));
    }
    QelObjective obj = objectiveHandle(o);
    note(id(o) + ": " + std::to_string(vs.size()) + " coefficients");
    auto call = [&] { obj.setLinearCoefs(xs, cs); };
    if (coefficientsAccepted(o, call)) {
      call();
      own(o);
      Obj& t = at(at(o).kept);
      zeroOne(t);
      for (size_t k = 0; k < vs.size(); ++k) setCoef(t, vs[k], zeros[k]);
      settleKept(o);
      expectHeard({"QelSetObjCoefs", impl(o)});
    }
    xs.end();
    cs.end();
  }

  void setExpr() {
    int o = pickKind(IsObjective), e = pickKind(IsExpr);
    if (o < 0 || e < 0 || liveCount() + 1 >= kMaxObjects) return;
    QelObjective obj = objectiveHandle(o);
    note(id(o) + ": expression " + id(e));
    if (at(o).kind == Kind::Lex) {
      expectThrow<QelNotAllowedWithMultiCriterionException>("setExpr of several criteria",
                                                            [&] { obj.setExpr(numExpr(e)); });
      return;
    }
    obj.setExpr(numExpr(e));
    int old = at(o).kept;
    int kept = keep(e);
    at(o).kept = kept;
    settleKept(o);
    expectHeard({"QelSetObjExpr", impl(o)});
    release(old);
  }

  void newModel() {
    if (!room()) return;
    const char* n = name();
    Obj m;
    m.kind = Kind::Model;
    if (n != nullptr) {
      m.named = true;
      m.name = n;
    }
    m.impl = QelModel(_env, n).getImpl();
    note("model #" + std::to_string(add(std::move(m))));
  }

  // A member for model `m` that makes no cycle of models.
  int member(int m) {
    return pick(
        [this, m](const Obj& o) { return o.kind != Kind::Model || !reaches(indexOf(o.impl), m); });
  }

  QelModel model(int i) const { return QelModel(static_cast<QelModelI*>(at(i).impl)); }

  void modelAdd(bool expand) {
    int m = pickKind([](Kind k) { return k == Kind::Model; });
    if (m < 0) return;
    int x = member(m);
    if (x < 0) return;
    if (expand)
      model(m).expand(QelExtractable(at(x).impl));
    else
      model(m).add(QelExtractable(at(x).impl));
    at(m).held.push_back(x);
    expectHeard({"QelAddOneToModel", impl(m), impl(x)});
    note(id(m) + (expand ? " expand " : " + ") + id(x));
  }

  // An array of 0..3 objects chosen by `choose`, nulls among them.
  std::vector<int> objects(const std::function<int()>& choose) {
    std::vector<int> xs;
    long n = _in.below(4);
    for (long k = 0; k < n; ++k) xs.push_back(_in.below(5) == 0 ? -1 : choose());
    return xs;
  }
  QelExtractableArray array(const std::vector<int>& xs) {
    QelExtractableArray a(_env, 0);
    for (int x : xs) a.add(QelExtractable(x >= 0 ? at(x).impl : nullptr));
    return a;
  }
  std::vector<const void*> addresses(const std::vector<int>& xs) const {
    std::vector<const void*> out;
    for (int x : xs) out.push_back(x >= 0 ? at(x).impl : nullptr);
    return out;
  }

  void modelAddArray() {
    int m = pickKind([](Kind k) { return k == Kind::Model; });
    if (m < 0) return;
    std::vector<int> xs = objects([this, m] { return member(m); });
    QelExtractableArray a = array(xs);
    model(m).add(a);
    if (!xs.empty()) expectHeard({"QelAddToModel", impl(m), nullptr, addresses(xs)});
    for (int x : xs)
      if (x >= 0) at(m).held.push_back(x);
    a.end();
    note(id(m) + " + " + std::to_string(xs.size()) + " elements");
  }

  void modelRemove() {
    int m = pickKind([](Kind k) { return k == Kind::Model; });
    int x = pickAny();
    if (m < 0 || x < 0) return;
    model(m).remove(QelExtractable(at(x).impl));
    std::vector<int>& held = at(m).held;
    auto it = std::find(held.begin(), held.end(), x);
    if (it != held.end()) {
      held.erase(it);
      expectHeard({"QelRemoveFromModel", impl(m), nullptr, {impl(x)}});
    }
    note(id(m) + " - " + id(x));
  }

  void modelRemoveArray() {
    int m = pickKind([](Kind k) { return k == Kind::Model; });
    if (m < 0) return;
    std::vector<int> xs = objects([this] { return pickAny(); });
    QelExtractableArray a = array(xs);
    model(m).remove(a);
    std::set<int> going(xs.begin(), xs.end());
    std::vector<int> kept, removed;
    for (int x : at(m).held) (going.count(x) != 0 ? removed : kept).push_back(x);
    at(m).held = kept;
    if (!removed.empty()) expectHeard({"QelRemoveFromModel", impl(m), nullptr, addresses(removed)});
    a.end();
    note(id(m) + " - " + std::to_string(xs.size()) + " elements");
  }

  void setName() {
    int x = pickAny();
    if (x < 0) return;
    const char* n = name();
    at(x).impl->setName(n);
    note(id(x) + " named " + (n != nullptr ? n : "(null)"));
    if (n == nullptr && !at(x).named) return;  // nothing at all
    at(x).named = n != nullptr;
    at(x).name = n != nullptr ? n : "";
    expectHeard({"QelSetNameChange", impl(x)});
  }

  void setNames() {
    std::vector<int> xs = objects([this] { return pickAny(); });
    QelExtractableArray a = array(xs);
    a.setNames("e");
    for (size_t i = xs.size(); i-- > 0;) {  // an element held twice: its first place
      if (xs[i] < 0) continue;
      at(xs[i]).named = true;
      at(xs[i]).name = "e(" + std::to_string(i) + ")";
    }
    if (_listening) expectHeard({"QelSetNameArrayChange", nullptr, nullptr, addresses(xs)});
    a.end();
    note("names for " + std::to_string(xs.size()) + " elements");
  }

  void property() {
    int x = pickAny();
    if (x < 0) return;
    static const char* const names[] = {"p", "q", "weight"};
    const char* p = names[_in.below(3)];
    Obj& o = at(x);
    switch (_in.below(3)) {
      case 0: {
        QelInt v = _in.below(100);
        o.impl->setIntProperty(p, v);
        o.props[p] = v;
        o.propertySet = true;
        note(id(x) + " property " + p + " = " + std::to_string(v));
        break;
      }
      case 1:
        note(id(x) + " remove property " + p);
        if (!o.propertySet) {
          expectThrow<QelNamedPropertySet::NotPresent>("removing from no set",
                                                       [&] { o.impl->removeProperty(p); });
        } else {
          QEL_FUZZ_REQUIRE(o.impl->removeProperty(p) == (o.props.erase(p) == 1),
                           "removeProperty answer");
        }
        break;
      default:
        note(id(x) + " read property " + p);
        if (o.props.count(p) == 0)
          expectThrow<QelNamedPropertySet::NotPresent>("reading a missing property",
                                                       [&] { o.impl->getIntProperty(p); });
        else
          QEL_FUZZ_REQUIRE(o.impl->getIntProperty(p) == o.props[p], "property value");
    }
  }

  void end() {
    int x = pickAny();
    if (x < 0) return;
    note("end " + id(x));
    at(x).impl->end();
    removal({x}, false);
  }

  void endElements() {
    std::vector<int> xs = objects([this] { return pickAny(); });
    QelExtractableArray a = array(xs);
    note("end " + std::to_string(xs.size()) + " elements");
    a.endElements();
    // Models of the array are emptied first, silently.
    for (int x : xs)
      if (x >= 0 && at(x).alive && at(x).kind == Kind::Model) at(x).held.clear();
    std::vector<int> live;
    for (int x : xs)
      if (x >= 0) live.push_back(x);
    if (_oneByOne) {
      for (int x : live) removal({x}, false);
    } else {
      removal(live, false);
    }
    a.end();
  }

  // ---- aliased arguments, direct deletes, another thread -------------------------
  // A set given to itself, a property added to the set that holds it: the
  // set stays as it was.
  void ownProperties() {
    int x = pickAny();
    if (x < 0) return;
    Obj& o = at(x);
    note(id(x) + " gets its own properties again");
    o.impl->addProperties(o.impl->getProperties());
    if (!o.props.empty()) {
      auto p = o.props.begin();
      std::advance(p, _in.below(static_cast<long>(o.props.size())));
      o.impl->addProperty(o.impl->getProperty(p->first.c_str()));
    }
    QelNamedPropertySetI* set = o.impl->getProperties();
    long n = 0;
    for (QelNamedPropertyI* q = set != nullptr ? set->getFirst() : nullptr; q != nullptr && n <= 64;
         q = q->getNext())
      ++n;
    QEL_FUZZ_REQUIRE(n == static_cast<long>(o.props.size()),
                     id(x) + ": the property set changed when given to itself");
  }

  // `delete` instead of end(): the same removal, the same notices, for
  // every kind of object (variables, expressions, constraints, objectives,
  // models), held by models and arrays and used by others.
  void deleteDirectly() {
    int x = pickAny();
    if (x < 0) return;
    note("delete " + id(x));
    delete at(x).impl;
    removal({x}, false);
  }

  // An operation from a thread that is not the environment's: refused, and
  // nothing changes.
  void fromAnotherThread() {
    int x = pickAny();
    if (x < 0) return;
    int m = pickKind([](Kind k) { return k == Kind::Model; });
    bool add = m >= 0 && _in.flag();
    note(std::string("from another thread: ") +
         (add ? "add " + id(x) + " to " + id(m) : "end " + id(x)));
    QelExtractableI* xi = at(x).impl;
    QelModelI* mi = add ? static_cast<QelModelI*>(at(m).impl) : nullptr;
    std::string outcome = OnAnotherThread([&] {
      if (mi != nullptr)
        mi->add(xi);
      else
        xi->end();
    });
    QEL_FUZZ_REQUIRE(outcome == "refused", "from another thread: " + outcome);
  }

  // Runs `f` on a thread of its own: "done", "refused" (the environment's
  // QelEnvAllocatorThreadMismatch), or what else it threw.
  static std::string OnAnotherThread(const std::function<void()>& f) {
    std::string outcome;
    std::thread t([&] {
      try {
        f();
        outcome = "done";
      } catch (const QelEnvAllocatorThreadMismatch&) {
        outcome = "refused";
      } catch (const std::exception& e) {
        outcome = std::string("threw ") + e.what();
      }
    });
    t.join();
    return outcome;
  }

  // ---- scratch environments ----------------------------------------------------
  // Two or three environments of their own, some with a logging and
  // refusing allocator: variables and models of each, models holding
  // members of the others, themselves, or models that hold them; arrays
  // holding an object twice; ends, direct deletes and operations from
  // another thread. Every refusal must leave the tables clean; at the end
  // every object is ended and each environment must have its memory back.
  struct Scratch {
    QelEnvI* env;
    QelExtractableI* x;
    QelInt id;
    bool model;
  };

  void scratch() {
    long nEnv = 2 + _in.below(2);
    std::vector<std::unique_ptr<LoggingAllocator>> allocators;
    std::vector<QelEnv> envs;
    std::vector<QelInt> baseline;
    std::vector<bool> leftOver(static_cast<size_t>(nEnv), false);
    for (long k = 0; k < nEnv; ++k) {
      envs.emplace_back(SingleBlocks());
      allocators.emplace_back(_in.flag() ? new LoggingAllocator() : nullptr);
      if (allocators.back()) envs.back().getImpl()->setCustomAllocator(allocators.back().get());
      envs.back().getImpl()->setOneByOne(_in.below(3) == 0 ? 1 : 0);
      baseline.push_back(envs.back().getImpl()->getBytesInUse());
    }
    note("scratch: " + std::to_string(nEnv) + " environments");
    std::vector<Scratch> pool;
    auto alive = [](const Scratch& s) { return s.env->getExtractable(s.id) == s.x; };
    auto prune = [&] {
      pool.erase(
          std::remove_if(pool.begin(), pool.end(), [&](const Scratch& s) { return !alive(s); }),
          pool.end());
    };
    auto pickIn = [&](bool modelOnly) -> Scratch* {
      std::vector<size_t> c;
      for (size_t i = 0; i < pool.size(); ++i)
        if (!modelOnly || pool[i].model) c.push_back(i);
      if (c.empty()) return nullptr;
      return &pool[c[static_cast<size_t>(_in.below(static_cast<long>(c.size())))]];
    };
    // A removal reaches the holders of the object's own environment only:
    // the models of other environments let a member go before it ends.
    auto detach = [&](const QelExtractableI* x) {
      for (const Scratch& m : pool)
        if (m.model && alive(m) && m.env != x->getEnv())
          while (static_cast<QelModelI*>(m.x)->holds(x))
            static_cast<QelModelI*>(m.x)->remove(const_cast<QelExtractableI*>(x));
    };
    auto checkTables = [&](const std::string& where) {
      for (QelEnv& e : envs) checkTable(e.getImpl());
      for (const Scratch& s : pool)
        QEL_FUZZ_REQUIRE(!alive(s) || s.x->getId() == s.id, "scratch: " + where + ": id changed");
    };
    long steps = 1 + _in.below(12);
    for (long k = 0; k < steps && !_in.exhausted(); ++k) {
      long op = _in.below(9);
      QelEnvI* e = envs[static_cast<size_t>(_in.below(nEnv))].getImpl();
      LoggingAllocator* a = static_cast<LoggingAllocator*>(e->getCustomAllocator());
      // Arm a refusal some requests ahead, now and then.
      if (a != nullptr && _in.below(4) == 0) a->refuseAt = a->requests + 1 + _in.below(4);
      std::string what = "scratch op " + std::to_string(op);
      try {
        switch (op) {
          case 0: {
            QelExtractableI* v = QelIntVar(QelEnv(e), 0, 3).getImpl();
            pool.push_back({e, v, v->getId(), false});
            break;
          }
          case 1: {
            QelExtractableI* m = QelModel(QelEnv(e)).getImpl();
            pool.push_back({e, m, m->getId(), true});
            break;
          }
          case 2: {
            // A model gets any object: of another environment, itself, or a
            // model that already holds it.
            Scratch* m = pickIn(true);
            Scratch* x = pickIn(false);
            if (m == nullptr || x == nullptr) break;
            // The environment of the member makes the node, and its
            // allocator is told the two link locations first.
            auto* told = static_cast<LoggingAllocator*>(x->env->getCustomAllocator());
            long before = told != nullptr ? told->records : 0;
            static_cast<QelModelI*>(m->x)->add(x->x);
            QEL_FUZZ_REQUIRE(told == nullptr || told->records == before + 2,
                             "scratch: an append reported other than two link locations");
            break;
          }
          case 3: {
            // An array of the model's environment holding objects twice.
            Scratch* m = pickIn(true);
            Scratch* x = pickIn(false);
            Scratch* y = pickIn(false);
            if (m == nullptr || x == nullptr || y == nullptr) break;
            QelExtractableArray xs(QelEnv(m->env), 0);
            try {
              xs.add(QelExtractable(x->x));
              xs.add(QelExtractable(y->x));
              xs.add(QelExtractable(x->x));
              if (_in.flag())
                static_cast<QelModelI*>(m->x)->add(xs);
              else
                static_cast<QelModelI*>(m->x)->remove(xs);
            } catch (...) {
              xs.end();
              throw;
            }
            xs.end();
            break;
          }
          case 4: {
            Scratch* m = pickIn(true);
            Scratch* x = pickIn(false);
            if (m == nullptr || x == nullptr) break;
            static_cast<QelModelI*>(m->x)->remove(x->x);
            break;
          }
          case 5: {
            Scratch* x = pickIn(false);
            if (x == nullptr) break;
            detach(x->x);
            x->x->end();
            break;
          }
          case 6: {
            Scratch* x = pickIn(false);
            if (x == nullptr) break;
            detach(x->x);
            delete x->x;
            break;
          }
          case 7: {
            // Several objects of one environment ended together, one of
            // them twice.
            Scratch* x = pickIn(false);
            if (x == nullptr) break;
            QelExtractableArray xs(QelEnv(x->env), 0);
            try {
              xs.add(QelExtractable(x->x));
              for (const Scratch& s : pool)
                if (s.env == x->env && _in.flag()) xs.add(QelExtractable(s.x));
              xs.add(QelExtractable(x->x));
              for (long i = 0; i < xs.getSize(); ++i) detach(xs.getElement(i));
              xs.endElements();
            } catch (...) {
              xs.end();
              throw;
            }
            xs.end();
            break;
          }
          default: {
            // From another thread: refused. A direct delete is refused
            // after the object's destructors ran: it counts as ended, and
            // its memory stays with its environment until that ends.
            Scratch* x = pickIn(false);
            if (x == nullptr) break;
            int kind = static_cast<int>(_in.below(3));
            Scratch* m = pickIn(true);
            if (kind == 1 && m == nullptr) kind = 0;
            if (kind == 2) {
              // What the object held (a model's nodes, in its members'
              // environments) stays where it was.
              std::fill(leftOver.begin(), leftOver.end(), true);
              detach(x->x);
            }
            std::string outcome = OnAnotherThread([&] {
              if (kind == 0) x->x->end();
              if (kind == 1) static_cast<QelModelI*>(m->x)->add(x->x);
              if (kind == 2) delete x->x;
            });
            QEL_FUZZ_REQUIRE(outcome == "refused", "scratch, another thread: " + outcome);
            break;
          }
        }
      } catch (const QelMemoryException&) {
        QEL_FUZZ_REQUIRE(a != nullptr && a->refused, what + ": a refusal nobody asked for");
      }
      if (a != nullptr) {
        a->refuseAt = 0;
        a->refused = false;
      }
      checkTables(what);
      prune();
    }
    // Everything ends; each environment gets its memory back (but for the
    // blocks of objects whose delete another thread made).
    prune();
    for (const Scratch& x : pool) detach(x.x);
    for (size_t k = 0; k < envs.size(); ++k) {
      endAll(envs[k]);
      QelEnvI* e = envs[k].getImpl();
      QEL_FUZZ_REQUIRE(e->getNumberOfExtractables() == 0, "scratch: objects left");
      if (!leftOver[k]) {
        if (LoggingAllocator* a = allocators[k].get()) {
          QEL_FUZZ_REQUIRE(a->ledger.held() == 0,
                           "scratch: the allocator did not get every block back");
        } else {
          QEL_FUZZ_REQUIRE(e->getBytesInUse() == baseline[k], "scratch: memory left");
        }
      }
      if (LoggingAllocator* a = allocators[k].get()) {
        QEL_FUZZ_REQUIRE(a->ledger.errors.empty(), "scratch: " + a->ledger.errors.front());
      }
    }
    for (QelEnv& e : envs) e.end();
  }

  void removeFromAll() {
    int x = pickAny();
    if (x < 0) return;
    note("take " + id(x) + " out of everything");
    at(x).impl->removeFromAll();
    removal({x}, true);
  }

  void oneByOne() {
    _oneByOne = !_oneByOne;
    _env.getImpl()->setOneByOne(_oneByOne ? 1 : 0);
    note(std::string("one by one ") + (_oneByOne ? "on" : "off"));
  }

  // The copy `c` of `x`: of the same class, and a model's copy holds as
  // many members.
  void checkCopy(int x, const QelExtractableI* c) const {
    QEL_FUZZ_REQUIRE(c != nullptr, "a clone of " + id(x));
    QEL_FUZZ_REQUIRE(std::strcmp(c->getRttiTypeName(), at(x).impl->getRttiTypeName()) == 0,
                     "the clone of " + id(x) + " is a " + c->getRttiTypeName());
    if (at(x).kind == Kind::Model)
      QEL_FUZZ_REQUIRE(static_cast<const QelModelI*>(c)->getMembers().getSize() ==
                           static_cast<long>(at(x).held.size()),
                       "the clone of " + id(x) + " has another number of members");
  }

  void clone() {
    int x = pickAny();
    if (x < 0 || _copy.getImpl()->getNumberOfExtractables() > 4 * kMaxObjects) return;
    note("clone " + id(x));
    checkCopy(x, _copy.getImpl()->getClone(at(x).impl));
  }

  void cloneAndEnd() {
    int x = pickAny();
    if (x < 0) return;
    note("clone " + id(x) + " into an environment of its own, then end it");
    QelEnv fresh(SingleBlocks());
    checkCopy(x, fresh.getImpl()->getClone(at(x).impl));
    printAll(fresh.getImpl());
    endAll(fresh);
    QEL_FUZZ_REQUIRE(fresh.getImpl()->getBytesInUse() == 0,
                     "the objects of an ended copy still hold memory");
    fresh.end();
  }

  void replaceByClone() {
    std::vector<int> xs = objects([this] { return pickAny(); });
    if (_copy.getImpl()->getNumberOfExtractables() > 4 * kMaxObjects) return;
    QelExtractableArray originals = array(xs);
    QelExtractableArray clones = originals;
    clones.replaceByClone(_copy.getImpl());
    QEL_FUZZ_REQUIRE(clones.getSize() == originals.getSize(), "replaceByClone keeps the size");
    for (size_t i = 0; i < xs.size(); ++i) {
      const QelExtractableI* c = clones.getElement(static_cast<long>(i));
      if (xs[i] < 0)
        QEL_FUZZ_REQUIRE(c == nullptr, "a null element stays null");
      else
        checkCopy(xs[i], c);
    }
    clones.end();
    originals.end();
    note("clone " + std::to_string(xs.size()) + " elements");
  }

  void column() {
    if (!room()) return;
    // Up to three entries for different owners, chained.
    std::vector<int> owners;
    long n = 1 + _in.below(3);
    for (long k = 0; k < n; ++k) {
      int o = pick([](const Obj& x) {
        return x.kind == Kind::Objective || IsSet(x.kind) || x.kind == Kind::AllDiff ||
               x.kind == Kind::AllMin;
      });
      if (o >= 0 && std::find(owners.begin(), owners.end(), o) == owners.end()) owners.push_back(o);
    }
    if (owners.empty()) return;
    if (liveCount() + 2 >= kMaxObjects) return;
    std::vector<double> weights;
    for (size_t k = 0; k < owners.size(); ++k) weights.push_back(number());
    Obj w;
    w.kind = Kind::IntVar;
    w.impl = QelIntVar(_env, 0, 9).getImpl();
    int wi = add(std::move(w));
    std::vector<QelAddExtractable*> chain;
    for (size_t k = 0; k < owners.size(); ++k) {
      Obj& o = at(owners[k]);
      QelEnvI* e = _env.getImpl();
      QelAddExtractable* entry;
      if (o.kind == Kind::Objective)
        entry = QelAddValueToObj(objectiveHandle(owners[k]), weights[k]).getCopy(e);
      else if (o.kind == Kind::SOS1)
        entry = QelAddVarToSOS1(static_cast<QelSOS1I*>(o.impl), weights[k]).getCopy(e);
      else if (o.kind == Kind::SOS2)
        entry = QelAddVarToSOS2(static_cast<QelSOS2I*>(o.impl), weights[k]).getCopy(e);
      else if (o.kind == Kind::AllDiff)
        entry = QelAddVarToAllDiff(static_cast<QelAllDiffI*>(o.impl)).getCopy(e);
      else
        entry = QelAddVarToAllMinDistance(static_cast<QelAllMinDistanceI*>(o.impl)).getCopy(e);
      if (!chain.empty()) chain.back()->setNext(entry);
      chain.push_back(entry);
    }
    note("column of " + id(wi) + " into " + std::to_string(owners.size()) + " owners");
    chain.front()->install(at(wi).impl);
    for (QelAddExtractable* entry : chain) entry->destroy(_env.getImpl());
    for (size_t k = 0; k < owners.size(); ++k) {
      if (at(owners[k]).kind == Kind::Objective) {
        own(owners[k]);
        at(at(owners[k]).kept).lin.push_back(wi);
        settleKept(owners[k]);
        expectHeard({"QelAddValueToObj", impl(owners[k]), impl(wi)});
        continue;
      }
      Obj& o = at(owners[k]);
      if (IsSet(o.kind)) {
        double weight = weights[k];
        if (!o.weights.empty()) {
          double max = -1e300;
          for (double v : o.weights) max = std::max(max, v);
          o.weights.push_back(weight > 0.0 ? weight : 1.0 + max);
        } else if (o.held.empty() && weight > 0.0) {
          o.weights.push_back(weight);
        }
        o.held.push_back(wi);
        expectHeard(
            {o.kind == Kind::SOS1 ? "QelAddVarToSOS1" : "QelAddVarToSOS2", o.impl, impl(wi)});
      } else {
        o.held.push_back(wi);
        expectHeard({o.kind == Kind::AllDiff ? "QelAddVarToAllDiff" : "QelAddVarToAllMinDistance",
                     o.impl, impl(wi)});
      }
    }
  }

  void evaluate() {
    note("values and evaluations");
    for (const Obj& o : _objs)
      if (o.alive && IsVar(o.kind))
        _values.setValue(QelNumVar(static_cast<QelNumVarI*>(o.impl)),
                         static_cast<double>(_in.below(4)));
    for (const Obj& o : _objs) {
      if (!o.alive) continue;
      if (o.kind == Kind::Range || o.kind == Kind::Diff || o.kind == Kind::AllDiff) {
        double v = static_cast<QelConstraintI*>(o.impl)->eval(_values);
        QEL_FUZZ_REQUIRE(v == 0.0 || v == 1.0, "a constraint evaluates to 0 or 1");
      } else if (o.kind == Kind::Pack || IsSet(o.kind) || o.kind == Kind::AllMin) {
        expectThrow<QelNotImplemented>("evaluating a constraint that cannot be checked", [&] {
          static_cast<QelConstraintI*>(o.impl)->eval(_values);
        });
      } else if (IsExpr(o.kind)) {
        (void)_values.getValue(QelNumExpr(static_cast<QelNumExprI*>(o.impl)));
      }
    }
  }

  void emptyHandles() {
    note("operations on empty handles");
    int x = pickAny();
    expectThrow<QelEmptyHandleException>("end of an empty handle", [] { QelExtractable().end(); });
    expectThrow<QelEmptyHandleException>("sum with an empty handle",
                                         [] { (void)(QelNumExpr() + QelNumExpr()); });
    int m = pickKind([](Kind k) { return k == Kind::Model; });
    if (m >= 0) {
      expectThrow<QelEmptyHandleException>("adding an empty handle",
                                           [&] { model(m).add(QelExtractable()); });
      expectThrow<QelEmptyHandleException>("removing an empty array",
                                           [&] { model(m).remove(QelExtractableArray()); });
    }
    if (x >= 0)
      expectThrow<QelEmptyHandleException>("adding to an empty model",
                                           [&] { QelModel().add(QelExtractable(at(x).impl)); });
    int o = pickKind([](Kind k) { return k == Kind::Objective; });
    if (o >= 0 && at(at(o).kept).agg.empty())
      expectThrow<QelEmptyHandleException>("an empty variable's coefficient", [&] {
        objectiveHandle(o).setLinearCoef(QelNumVar(), 1);
      });
    expectThrow<QelEmptyHandleException>("a difference of an empty expression",
                                         [&] { QelDiff(_env, QelNumExpr(), 1.0); });
  }

  // ---- checks -------------------------------------------------------------------
  void extractEverything() {
    for (const Obj& o : _objs) {
      if (!o.alive) continue;
      _listener->extract(o.impl);
      _listening = true;
    }
  }

  void check() {
    // Notices.
    std::vector<Heard> heard = _listener->heard, expected = _expected;
    std::sort(heard.begin(), heard.end());
    std::sort(expected.begin(), expected.end());
    if (heard != expected) {
      std::ostringstream os;
      os << "notices differ\nheard:\n";
      for (const Heard& h : heard) os << "  " << Text(h) << "\n";
      os << "expected:\n";
      for (const Heard& h : expected) os << "  " << Text(h) << "\n";
      fail(os.str());
    }
    _listener->heard.clear();
    _expected.clear();
    // The table holds exactly the live objects, each under its own id
    // (compared by address first: an object ended against the account's
    // expectation must not be touched).
    QelEnvI* e = _env.getImpl();
    std::set<const QelExtractableI*> inTable;
    for (QelInt i = 0; i < e->getExtractableTableSize(); ++i)
      if (QelExtractableI* x = e->getExtractable(i)) inTable.insert(x);
    long alive = 0;
    for (size_t i = 0; i < _objs.size(); ++i) {
      const Obj& o = _objs[i];
      int k = static_cast<int>(i);
      // (An ended object's address may already serve a new object: the
      // count below finds objects that should have ended.)
      if (!o.alive) continue;
      ++alive;
      QEL_FUZZ_REQUIRE(o.impl != nullptr, id(k) + " has no address");
      QEL_FUZZ_REQUIRE(inTable.count(o.impl) != 0, id(k) + " should be alive and has ended");
      QEL_FUZZ_REQUIRE(o.impl->getId() >= 0 && e->getExtractable(o.impl->getId()) == o.impl,
                       id(k) + ": its id does not lead back to it");
    }
    for (size_t i = 0; i < _objs.size(); ++i)
      if (_objs[i].alive) checkObject(static_cast<int>(i));
    QEL_FUZZ_REQUIRE(e->getNumberOfExtractables() == alive,
                     "the environment holds " + std::to_string(e->getNumberOfExtractables()) +
                         " objects, the account " + std::to_string(alive));
    checkTable(e);
    checkTable(_copy.getImpl());
    printAll(e);
    printAll(_copy.getImpl());
  }

  void checkObject(int k) {
    const Obj& o = at(k);
    Subs s;
    o.impl->visitSubExtractables(&s);
    std::vector<int> subs = subsOf(o);
    bool same = s.subs.size() == subs.size();
    for (size_t i = 0; same && i < subs.size(); ++i) same = s.subs[i] == at(subs[i]).impl;
    if (!same) {
      std::ostringstream os;
      os << id(k) << " presents [";
      for (const QelExtractableI* c : s.subs) os << indexOf(c) << " ";
      os << "], the account [";
      for (int i : subs) os << i << " ";
      os << "]";
      fail(os.str());
    }
    if (IsRefCounted(o.kind))
      QEL_FUZZ_REQUIRE(static_cast<QelNumExprI*>(o.impl)->getUseCount() == o.uses,
                       id(k) + " has " +
                           std::to_string(static_cast<QelNumExprI*>(o.impl)->getUseCount()) +
                           " uses, the account " + std::to_string(o.uses));
    if (IsSet(o.kind)) {
      QelNumArray w = o.kind == Kind::SOS1 ? static_cast<QelSOS1I*>(o.impl)->getValArray()
                                           : static_cast<QelSOS2I*>(o.impl)->getValArray();
      bool ok = w.getSize() == static_cast<long>(o.weights.size());
      for (long i = 0; ok && i < w.getSize(); ++i) ok = w[i] == o.weights[static_cast<size_t>(i)];
      QEL_FUZZ_REQUIRE(ok, id(k) + ": weights differ");
    }
    const char* n = o.impl->getName();
    QEL_FUZZ_REQUIRE(o.named ? (n != nullptr && o.name == n) : n == nullptr,
                     id(k) + ": name differs");
    for (const auto& p : o.props)
      QEL_FUZZ_REQUIRE(o.impl->getIntProperty(p.first.c_str()) == p.second,
                       id(k) + ": property differs");
  }

  void checkTable(const QelEnvI* e) const {
    long count = 0;
    const std::uintptr_t* table = e->getExtractableTable();
    for (QelInt i = 0; i < e->getExtractableTableSize(); ++i) {
      std::uintptr_t v = table[i];
      QEL_FUZZ_REQUIRE(
          v != QelEnvI::RemovalMark && v != QelEnvI::OrderingMark && v != QelEnvI::PendingMark,
          "a removal mark was left in the table");
      QelExtractableI* x = e->getExtractable(i);
      if (x == nullptr) continue;
      ++count;
      QEL_FUZZ_REQUIRE(x->getId() == i && x->getEnv() == e,
                       "an object whose id does not lead back to it");
    }
    QEL_FUZZ_REQUIRE(count == e->getNumberOfExtractables(),
                     "the table and the count of objects differ");
  }

  static void printAll(const QelEnvI* e) {
    NullBuffer nothing;
    std::ostream out(&nothing);
    for (QelInt i = 0; i < e->getExtractableTableSize(); ++i)
      if (QelExtractableI* x = e->getExtractable(i)) out << QelExtractable(x);
  }

  static void endAll(QelEnv env) {
    QelEnvI* e = env.getImpl();
    QelExtractableArray all(env, 0);
    for (QelInt i = 0; i < e->getExtractableTableSize(); ++i)
      if (QelExtractableI* x = e->getExtractable(i)) all.add(QelExtractable(x));
    all.endElements();
    all.end();
  }

  void finish() {
    _values.end();
    QelAlgorithm(_listener).end();
    _listener = nullptr;
    endAll(_copy);
    QEL_FUZZ_REQUIRE(_copy.getImpl()->getBytesInUse() == 0,
                     "the objects of the ended copies still hold memory");
    endAll(_env);
    QEL_FUZZ_REQUIRE(_env.getImpl()->getBytesInUse() == 0, "the ended objects still hold memory");
  }

  Input _in;
  QelEnv _env, _copy;
  Listener* _listener = nullptr;
  QelAlgorithm _values;
  std::vector<Obj> _objs;
  bool _oneByOne = false;
  bool _listening = false;
  std::vector<Heard> _expected;
  std::string _log;
};

}  // namespace

void RunOne(const std::uint8_t* data, std::size_t size) {
  Run run(data, size);
  run.go();
}

std::string Describe(const std::uint8_t* data, std::size_t size) {
  Run run(data, size);
  try {
    run.go();
  } catch (const Failure& f) {
    return f.what();
  }
  return run.log();
}

}  // namespace qelfuzz

#ifndef QEL_FUZZ_NO_MAIN
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    qelfuzz::RunOne(data, size);
  } catch (const qelfuzz::Failure& f) {
    std::fprintf(stderr, "qel api fuzzer: %s\n", f.what());
    std::abort();
  }
  return 0;
}
#endif

// The flat form: numbers, names, flattening a model, building one.
#include <qel/io/filemodel.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include <qel/constraints/sos.h>
#include <qel/kernel/constraint.h>
#include <qel/objective/objective.h>

QelFileError::QelFileError(const std::string& file, long line, const std::string& what)
    : QelException((file + ":" + std::to_string(line) + ": " + what).c_str(), 0) {}

void QelExpected(const std::string& file, long line, const char* what,
                 const std::string_view* found) {
  std::string msg = std::string("expected ") + what + ", found ";
  if (found == nullptr)
    msg += "end of file";
  else if (found->empty())
    msg += "end of line";
  else
    msg += "\"" + std::string(*found) + "\"";
  throw QelFileError(file, line, msg);
}

void QelAppendNumber(std::string& out, double v) {
  if (v == 0) {  // -0 too: a sign on zero means nothing in a file
    out += '0';
    return;
  }
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, res.ptr);
}

namespace {

bool EqualsNoCase(std::string_view a, const char* b) {
  size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != b[i]) return false;
  return true;
}

}  // namespace

bool QelParseNumber(std::string_view text, double& v) {
  if (text.empty()) return false;
  bool negative = false;
  std::string_view body = text;
  if (body[0] == '+' || body[0] == '-') {
    negative = body[0] == '-';
    body.remove_prefix(1);
  }
  if (body.empty()) return false;
  if (EqualsNoCase(body, "inf") || EqualsNoCase(body, "infinity")) {
    v = negative ? -QelFileInfinity : QelFileInfinity;
    return true;
  }
  // Digits, an optional fraction and exponent: nothing else (no hex, no
  // nan; from_chars takes "inf" and "nan", which were dealt with or are
  // refused by the first character).
  auto first = static_cast<unsigned char>(body[0]);
  if (std::isdigit(first) == 0 && first != '.') return false;
  double parsed = 0;
  const char* end = body.data() + body.size();
  auto res = std::from_chars(body.data(), end, parsed);
  if (res.ec == std::errc::result_out_of_range) {
    // Overflow is infinite, underflow zero: the exponent's sign tells.
    // The text must still be a number from end to end.
    size_t e = body.find_first_of("eE");
    size_t digitsEnd = e == std::string_view::npos ? body.size() : e;
    if (body.substr(0, digitsEnd).find_first_not_of("0123456789.") != std::string_view::npos)
      return false;
    parsed = QelFileInfinity;
    if (e != std::string_view::npos) {
      size_t i = e + 1;
      if (i < body.size() && (body[i] == '+' || body[i] == '-')) ++i;
      if (i >= body.size() ||
          body.substr(i).find_first_not_of("0123456789") != std::string_view::npos)
        return false;
      if (body[e + 1] == '-') parsed = 0.0;
    }
  } else if (res.ec != std::errc() || res.ptr != end) {
    return false;
  }
  v = negative ? -parsed : parsed;
  return true;
}

// ---------------------------------------------------------------------------
// Flattening a model
// ---------------------------------------------------------------------------

namespace {

const char* FormatName(QelFileFormat format) { return format == QelFileFormat::Lp ? "LP" : "MPS"; }

std::string Describe(const QelExtractableI* x) {
  std::string s;
  if (x->getName() != nullptr)
    s = std::string("\"") + x->getName() + "\"";
  else
    s = "#" + std::to_string(x->getId());
  return s + " (" + x->getRttiTypeName() + ")";
}

// LP names: letters, digits and these; not first a digit, a period or a
// slash (the LP reader takes a slash for the one of "] / 2").
bool LpNameChar(unsigned char c) {
  return std::isalnum(c) != 0 ||
         (c < 128 && std::strchr("!\"#$%&()/,.;?@_`'{}|~", c) != nullptr && c != 0);
}

bool LpReserved(const std::string& s) {
  static const char* const words[] = {"inf",
                                      "infinity",
                                      "free",
                                      "min",
                                      "max",
                                      "minimize",
                                      "maximize",
                                      "minimum",
                                      "maximum",
                                      "st",
                                      "s.t.",
                                      "st.",
                                      "subject",
                                      "such",
                                      "bounds",
                                      "bound",
                                      "general",
                                      "generals",
                                      "gen",
                                      "integer",
                                      "integers",
                                      "binary",
                                      "binaries",
                                      "bin",
                                      "sos",
                                      "end",
                                      "semi",
                                      "semis",
                                      "semi-continuous"};
  for (const char* w : words)
    if (EqualsNoCase(s, w)) return true;
  // e12 could be read as an exponent.
  return (s[0] == 'e' || s[0] == 'E') && std::all_of(s.begin() + 1, s.end(), [](char c) {
           return std::isdigit(static_cast<unsigned char>(c));
         });
}

// A name valid for `format`, before uniqueness.
std::string ValidName(const char* name, QelFileFormat format) {
  std::string s = name;
  if (format == QelFileFormat::Lp) {
    for (char& c : s)
      if (!LpNameChar(static_cast<unsigned char>(c))) c = '_';
    if (std::isdigit(static_cast<unsigned char>(s[0])) || s[0] == '.' || s[0] == '/' ||
        LpReserved(s))
      s.insert(s.begin(), '_');
  } else {
    for (char& c : s) {
      auto u = static_cast<unsigned char>(c);
      if (u <= 32 || u >= 127 || c == '\'' || c == '"') c = '_';
    }
    if (s[0] == '*' || s[0] == '$') s.insert(s.begin(), '_');
  }
  return s;
}

class Namer {
 public:
  explicit Namer(QelFileFormat format) : _format(format) {}
  void reserve(size_t n) { _taken.reserve(n); }
  std::string take(const QelExtractableI* x, const char* prefix) {
    const char* given = x->getName();
    std::string base = (given != nullptr && given[0] != '\0')
                           ? ValidName(given, _format)
                           : std::string(prefix) + std::to_string(x->getId());
    return unique(std::move(base));
  }
  std::string unique(std::string base) {
    if (_taken.insert(base).second) return base;
    for (long k = 2;; ++k) {
      std::string s = base + "_" + std::to_string(k);
      if (_taken.insert(s).second) return s;
    }
  }

 private:
  QelFileFormat _format;
  std::unordered_set<std::string> _taken;
};

class Flattener {
 public:
  Flattener(QelFileFormat format, QelWriteOptions* options)
      : _format(format),
        _options(options),
        _colNames(format),
        _rowNames(format),
        _sosNames(format) {}

  QelFileModel run(const QelModel& model) {
    if (model.getImpl() == nullptr)
      throw QelEmptyHandleException("QelWriteModel: empty model handle");
    if (model.getImpl()->getName() != nullptr)
      _file.name = ValidName(model.getImpl()->getName(), _format);
    gather(model.getImpl());
    auto tableSize = static_cast<size_t>(model.getImpl()->getEnv()->getExtractableTableSize());
    _colOf.assign(tableSize, -1);
    _colNames.reserve(tableSize / 2);
    _rowNames.reserve(_members.size() + 1);
    // The objective first: its columns lead.
    if (_objective != nullptr) {
      _file.objName = _rowNames.take(_objective, "obj");
      _file.maximize = _objective->getSense() == QelObjective::Maximize;
      Linear lin;
      addExpr(_objective->getNumCriteria() == 1 ? _objective->getCriterion(0) : nullptr, 1.0, lin,
              true);
      _file.objConstant = lin.constant;
      _file.objTerms = std::move(lin.terms);
      _file.objQuad = std::move(lin.quad);
    } else {
      _file.objName = _rowNames.unique("obj");
    }
    for (QelExtractableI* x : _members) {
      if (auto* r = QelDynamicCast<QelRangeI>(x)) {
        addRow(r);
      } else if (auto* s1 = QelDynamicCast<QelSOS1I>(x)) {
        addSos(s1, 1, s1->getVarArray(), s1->getValArray());
      } else if (auto* s2 = QelDynamicCast<QelSOS2I>(x)) {
        addSos(s2, 2, s2->getVarArray(), s2->getValArray());
      } else if (auto* v = QelDynamicCast<QelNumVarI>(x)) {
        column(v);
      }
    }
    return std::move(_file);
  }

 private:
  struct Linear {
    double constant = 0;
    std::vector<QelFileTerm> terms;
    std::vector<QelFileQuadTerm> quad;
  };

  void refuse(const QelExtractableI* x, const std::string& why) {
    if (_options != nullptr && _options->skipUnsupported) {
      _options->leftOut.push_back(Describe(x) + ": " + why);
      return;
    }
    throw QelException(
        ("cannot write " + Describe(x) + " in the " + FormatName(_format) + " format: " + why)
            .c_str(),
        0);
  }

  // Collects the members of `m` and of the models it holds, refusing what
  // no file can hold.
  void gather(QelModelI* m) {
    if (!_models.insert(m).second) return;
    for (QelModelI::Iterator it(m); it.ok(); ++it) {
      QelExtractableI* x = *it;
      if (x == nullptr) continue;
      if (auto* sub = QelDynamicCast<QelModelI>(x)) {
        gather(sub);
      } else if (auto* r = QelDynamicCast<QelRangeI>(x)) {
        std::string why = check(r->getExpr(), false);
        // MPS ranges always give lb <= ub.
        if (why.empty() && _format != QelFileFormat::Lp && r->getLB() > r->getUB() &&
            !QelIsFileInfinite(r->getLB()) && !QelIsFileInfinite(r->getUB()))
          why = "a range whose lower bound is above its upper bound";
        if (why.empty())
          _members.push_back(x);
        else
          refuse(r, why);
      } else if (auto* o = QelDynamicCast<QelObjectiveI>(x)) {
        if (o->getNumCriteria() != 1) {
          refuse(o, "a lexicographic objective with " + std::to_string(o->getNumCriteria()) +
                        " criteria");
        } else if (_objective != nullptr && _objective != o) {
          refuse(o, "a second objective (the format holds one)");
        } else {
          std::string why = check(o->getCriterion(0), true);
          if (why.empty())
            _objective = o;
          else
            refuse(o, why);
        }
      } else if (QelDynamicCast<QelSOS1I>(x) != nullptr || QelDynamicCast<QelSOS2I>(x) != nullptr ||
                 QelDynamicCast<QelNumVarI>(x) != nullptr) {
        _members.push_back(x);
      } else {
        refuse(x, std::string("no ") + x->getRttiTypeName() + " in the format");
      }
    }
  }

  // Why `e` cannot be written (empty: it can).
  static std::string check(const QelNumExprI* e, bool quadAllowed) {
    if (e == nullptr || QelDynamicCast<const QelNumVarI>(e) != nullptr) return "";
    const QelLinearParts* parts = PartsOf(e);
    if (parts == nullptr)
      return std::string("a non-linear expression (") + e->getRttiTypeName() + ")";
    if (parts->quadHead != nullptr && !quadAllowed) return "a quadratic term in a constraint";
    for (const QelAggregateTermNode* a = parts->aggHead; a != nullptr; a = a->next) {
      std::string why = check(a->expr, quadAllowed);
      if (!why.empty()) return why;
    }
    return "";
  }

  static const QelLinearParts* PartsOf(const QelNumExprI* e) {
    if (const auto* t = QelDynamicCast<const QelNumLinTermI>(e)) return &t->getParts();
    if (const auto* t = QelDynamicCast<const QelIntLinTermI>(e)) return &t->getParts();
    return nullptr;
  }

  std::int64_t column(QelNumVarI* v) {
    // Columns by the variable's id: ids are the dense slots of the
    // environment's table, so a vector finds them faster than a hash map.
    auto id = static_cast<size_t>(v->getId());
    if (id >= _colOf.size()) _colOf.resize(std::max(id + 1, 2 * _colOf.size()), -1);
    if (_colOf[id] >= 0) return _colOf[id];
    QelFileColumn c;
    c.name = _colNames.take(v, "x");
    c.lb = QelFileBound(v->getLB());
    c.ub = QelFileBound(v->getUB());
    c.type = v->getType();
    auto index = static_cast<std::int64_t>(_file.columns.size());
    _file.columns.push_back(std::move(c));
    _mark.push_back(-1);
    _colOf[id] = index;
    return index;
  }

  // Adds factor * e to `lin`, merging the terms of one column (the mark of
  // a column holds its place in lin.terms for the current tag).
  void addExpr(const QelNumExprI* e, double factor, Linear& lin, bool top) {
    if (top) ++_tag;
    if (e == nullptr) return;
    if (auto* v = QelDynamicCast<QelNumVarI>(const_cast<QelNumExprI*>(e))) {
      addTerm(column(v), factor, lin);
      return;
    }
    const QelLinearParts* parts = PartsOf(e);
    lin.constant += factor * parts->constant;
    for (const QelLinTermNode* n = parts->head; n != nullptr; n = n->next)
      addTerm(column(n->var), factor * n->coef, lin);
    for (const QelQuadTermNode* q = parts->quadHead; q != nullptr; q = q->next)
      if (q->coef != 0) lin.quad.push_back({column(q->var1), column(q->var2), factor * q->coef});
    for (const QelAggregateTermNode* a = parts->aggHead; a != nullptr; a = a->next)
      addExpr(a->expr, factor * a->coef, lin, false);
  }

  void addTerm(std::int64_t col, double coef, Linear& lin) {
    // _mark[col] encodes (tag, position): positions are below 2^32.
    std::int64_t m = _mark[col];
    if (m >= 0 && (m >> 32) == _tag) {
      lin.terms[m & 0xffffffff].coef += coef;
      return;
    }
    _mark[col] = (_tag << 32) | static_cast<std::int64_t>(lin.terms.size());
    lin.terms.push_back({col, coef});
  }

  static void dropZeros(std::vector<QelFileTerm>& terms) {
    terms.erase(std::remove_if(terms.begin(), terms.end(),
                               [](const QelFileTerm& t) { return t.coef == 0; }),
                terms.end());
  }

  void addRow(QelRangeI* r) {
    Linear lin;
    addExpr(r->getExpr(), 1.0, lin, true);
    dropZeros(lin.terms);
    QelFileRow row;
    row.name = _rowNames.take(r, "r");
    row.lb = QelIsFileInfinite(r->getLB()) ? QelFileBound(r->getLB()) : r->getLB() - lin.constant;
    row.ub = QelIsFileInfinite(r->getUB()) ? QelFileBound(r->getUB()) : r->getUB() - lin.constant;
    row.first = static_cast<std::int64_t>(_file.rowTerms.size());
    row.count = static_cast<std::int64_t>(lin.terms.size());
    _file.rowTerms.insert(_file.rowTerms.end(), lin.terms.begin(), lin.terms.end());
    _file.rows.push_back(std::move(row));
  }

  void addSos(QelExtractableI* x, int type, const QelNumVarArray& vars, const QelNumArray& vals) {
    QelFileSos s;
    s.name = _sosNames.take(x, "s");
    s.type = type;
    long n = vars.getImpl() != nullptr ? vars.getSize() : 0;
    long nv = vals.getImpl() != nullptr ? vals.getSize() : 0;
    double previous = 0;
    for (long i = 0; i < n; ++i) {
      QelNumVarI* v = vars[i].getImpl();
      if (v == nullptr) continue;
      s.cols.push_back(column(v));
      // A member without a weight is written with the previous one plus one.
      previous = i < nv ? vals[i] : previous + 1;
      s.weights.push_back(previous);
    }
    _file.sos.push_back(std::move(s));
  }

  QelFileFormat _format;
  QelWriteOptions* _options;
  QelFileModel _file;
  Namer _colNames;
  Namer _rowNames;
  Namer _sosNames;
  std::unordered_set<const QelModelI*> _models;
  std::vector<QelExtractableI*> _members;
  QelObjectiveI* _objective = nullptr;
  std::vector<std::int64_t> _colOf;  // column of each variable id, -1: none
  std::vector<std::int64_t> _mark;
  std::int64_t _tag = 0;
};

}  // namespace

namespace {

// Columns numbered in the order a reader meets them: first use in the
// objective's linear terms, its quadratic terms, the rows, the sets, then
// the columns in no term (free-standing variables, and those whose
// coefficients all cancelled). A model read back is flattened to the same
// order, so that it writes the same text again.
void NumberColumnsByFirstUse(QelFileModel& file) {
  size_t n = file.columns.size();
  std::vector<std::int64_t> to(n, -1);
  std::int64_t next = 0;
  auto use = [&](std::int64_t c) {
    if (to[c] < 0) to[c] = next++;
  };
  for (const QelFileTerm& t : file.objTerms) use(t.col);
  for (const QelFileQuadTerm& q : file.objQuad) use(q.col1), use(q.col2);
  for (const QelFileTerm& t : file.rowTerms) use(t.col);
  for (const QelFileSos& s : file.sos)
    for (std::int64_t c : s.cols) use(c);
  for (size_t c = 0; c < n; ++c) use(static_cast<std::int64_t>(c));
  bool same = true;
  for (size_t c = 0; c < n && same; ++c) same = to[c] == static_cast<std::int64_t>(c);
  if (same) return;
  std::vector<QelFileColumn> columns(n);
  for (size_t c = 0; c < n; ++c) columns[to[c]] = std::move(file.columns[c]);
  file.columns.swap(columns);
  for (QelFileTerm& t : file.objTerms) t.col = to[t.col];
  for (QelFileQuadTerm& q : file.objQuad) q.col1 = to[q.col1], q.col2 = to[q.col2];
  for (QelFileTerm& t : file.rowTerms) t.col = to[t.col];
  for (QelFileSos& s : file.sos)
    for (std::int64_t& c : s.cols) c = to[c];
}

}  // namespace

QelFileModel QelFlattenModel(const QelModel& model, QelFileFormat format,
                             QelWriteOptions* options) {
  if (options != nullptr) options->leftOut.clear();
  Flattener f(format, options);
  QelFileModel file = f.run(model);
  // Objective terms with a zero coefficient say nothing.
  file.objTerms.erase(std::remove_if(file.objTerms.begin(), file.objTerms.end(),
                                     [](const QelFileTerm& t) { return t.coef == 0; }),
                      file.objTerms.end());
  NumberColumnsByFirstUse(file);
  return file;
}

// ---------------------------------------------------------------------------
// Building a model
// ---------------------------------------------------------------------------

namespace {

const char* NameOrNull(const std::string& s) { return s.empty() ? nullptr : s.c_str(); }

// Ends what a failed build made: the model, then the members (a range or
// an objective gives its expression back, which ends it), then the pending
// expression, then the variables.
struct BuildUndo {
  QelModelI* model = nullptr;
  std::vector<QelExtractableI*> members;
  QelNumLinTermI* pending = nullptr;
  std::vector<QelNumVarI*> vars;
  void run() noexcept {
    if (model != nullptr) model->end();
    for (auto it = members.rbegin(); it != members.rend(); ++it) (*it)->end();
    if (pending != nullptr) pending->end();
    for (auto it = vars.rbegin(); it != vars.rend(); ++it) (*it)->end();
  }
};

template <class Terms>
QelNumLinTermI* NewTerm(QelEnvI* env, double constant, const Terms& terms,
                        const std::vector<QelNumVarI*>& vars, BuildUndo& undo) {
  auto* t = QelNewObject<QelNumLinTermI>(env, env, constant);
  undo.pending = t;
  for (const QelFileTerm& term : terms) t->addTerm(term.coef, vars[term.col]);
  return t;
}

// A new set of `s`, recorded in `undo` before its members are added.
template <class Handle>
void AddSet(QelEnv env, const QelFileSos& s, const std::vector<QelNumVarI*>& vars,
            BuildUndo& undo) {
  Handle h(env, NameOrNull(s.name));
  undo.members.push_back(h.getImpl());
  for (size_t i = 0; i < s.cols.size(); ++i) {
    h.getImpl()->addVar(QelNumVar(vars[s.cols[i]]));
    if (i < s.weights.size()) h.getImpl()->addVal(s.weights[i]);
  }
}

struct TermRange {
  const QelFileTerm* b;
  const QelFileTerm* e;
  const QelFileTerm* begin() const { return b; }
  const QelFileTerm* end() const { return e; }
};

}  // namespace

QelModel QelBuildModel(QelEnv env, const QelFileModel& file) {
  QelEnvI* e = env.getImpl();
  if (e == nullptr) throw QelEmptyHandleException("QelReadModel: empty environment handle");
  BuildUndo undo;
  try {
    std::vector<QelNumVarI*>& vars = undo.vars;
    vars.reserve(file.columns.size());
    for (const QelFileColumn& c : file.columns)
      vars.push_back(QelNumVar(env, c.lb, c.ub, c.type, NameOrNull(c.name)).getImpl());
    std::vector<char> used(file.columns.size(), 0);

    QelNumLinTermI* obj = NewTerm(e, file.objConstant, file.objTerms, vars, undo);
    for (const QelFileTerm& t : file.objTerms) used[t.col] = 1;
    for (const QelFileQuadTerm& q : file.objQuad) {
      obj->addQuadTerm(q.coef, vars[q.col1], vars[q.col2]);
      used[q.col1] = used[q.col2] = 1;
    }
    QelObjective objective(env, QelNumExpr(obj),
                           file.maximize ? QelObjective::Maximize : QelObjective::Minimize,
                           NameOrNull(file.objName));
    undo.pending = nullptr;
    undo.members.push_back(objective.getImpl());

    for (const QelFileRow& r : file.rows) {
      const QelFileTerm* b = file.rowTerms.data() + r.first;
      QelNumLinTermI* t = NewTerm(e, 0.0, TermRange{b, b + r.count}, vars, undo);
      for (const QelFileTerm* p = b; p != b + r.count; ++p) used[p->col] = 1;
      QelRange range(env, r.lb, QelNumExpr(t), r.ub, NameOrNull(r.name));
      undo.pending = nullptr;
      undo.members.push_back(range.getImpl());
    }
    for (const QelFileSos& s : file.sos) {
      if (s.type == 1)
        AddSet<QelSOS1>(env, s, vars, undo);
      else
        AddSet<QelSOS2>(env, s, vars, undo);
      for (std::int64_t c : s.cols) used[c] = 1;
    }
    QelModel model(env, NameOrNull(file.name));
    undo.model = model.getImpl();
    for (QelExtractableI* x : undo.members) model.getImpl()->add(x);
    for (size_t i = 0; i < vars.size(); ++i)
      if (used[i] == 0) model.getImpl()->add(vars[i]);
    return model;
  } catch (...) {
    undo.run();
    throw;
  }
}

void QelEndReadModel(const QelModel& model) {
  QelModelI* m = model.getImpl();
  if (m == nullptr) throw QelEmptyHandleException("QelEndReadModel: empty model handle");
  std::vector<QelExtractableI*> members;
  std::unordered_set<QelExtractableI*> seen;
  std::vector<QelNumVarI*> vars;
  auto addVar = [&](QelNumVarI* v) {
    if (v != nullptr && seen.insert(v).second) vars.push_back(v);
  };
  auto addExprVars = [&](const QelNumExprI* e) {
    if (e == nullptr) return;
    if (auto* v = QelDynamicCast<QelNumVarI>(const_cast<QelNumExprI*>(e))) return addVar(v);
    const QelLinearParts* parts = nullptr;
    if (const auto* t = QelDynamicCast<const QelNumLinTermI>(e)) parts = &t->getParts();
    if (parts == nullptr) return;
    for (const QelLinTermNode* n = parts->head; n != nullptr; n = n->next) addVar(n->var);
    for (const QelQuadTermNode* q = parts->quadHead; q != nullptr; q = q->next) {
      addVar(q->var1);
      addVar(q->var2);
    }
  };
  for (QelModelI::Iterator it(m); it.ok(); ++it) {
    QelExtractableI* x = *it;
    if (auto* v = QelDynamicCast<QelNumVarI>(x)) {
      addVar(v);
      continue;
    }
    if (!seen.insert(x).second) continue;
    members.push_back(x);
    if (auto* r = QelDynamicCast<QelRangeI>(x)) addExprVars(r->getExpr());
    if (auto* o = QelDynamicCast<QelObjectiveI>(x))
      if (o->getNumCriteria() == 1) addExprVars(o->getCriterion(0));
    if (auto* s = QelDynamicCast<QelSOS1I>(x))
      for (long i = 0; i < s->getVarArray().getSize(); ++i) addVar(s->getVarArray()[i].getImpl());
    if (auto* s = QelDynamicCast<QelSOS2I>(x))
      for (long i = 0; i < s->getVarArray().getSize(); ++i) addVar(s->getVarArray()[i].getImpl());
  }
  m->end();
  for (QelExtractableI* x : members) x->end();
  for (QelNumVarI* v : vars) v->end();
}

// MPS: writing free MPS, reading free and fixed MPS.
#include <qel/io/filemodel.h>

#include <cmath>
#include <cstring>
#include <string>
#include <unordered_map>

// ---------------------------------------------------------------------------
// Writing
// ---------------------------------------------------------------------------

namespace {

// How a row is written: its type, right-hand side and range.
struct RowCode {
  char type;
  double rhs;
  double range;  // 0: none
};

// Picks the type, right-hand side and range that read back exactly as
// [lb, ub]: a reader computes rhs + |R| for a G row and rhs - |R| for an L
// row, and ub - lb may round, so the neighbours of ub - lb are tried too.
RowCode CodeOf(double lb, double ub) {
  bool lbInf = QelIsFileInfinite(lb);
  bool ubInf = QelIsFileInfinite(ub);
  if (lbInf && ubInf) return {'G', -1e30, 0};
  if (lbInf) return {'L', ub, 0};
  if (ubInf) return {'G', lb, 0};
  if (lb == ub) return {'E', lb, 0};
  double r = ub - lb;
  double up = r;
  double down = r;
  for (int k = 0; k < 8; ++k) {
    for (double cand : {up, down}) {
      if (lb + cand == ub) return {'G', lb, cand};
      if (ub - cand == lb) return {'L', ub, cand};
    }
    up = std::nextafter(up, HUGE_VAL);
    down = std::nextafter(down, 0.0);
  }
  return {'G', lb, r};
}

void Field(QelTextSink& out, std::string_view s) { out << "  " << s; }

void NumberField(QelTextSink& out, double v) {
  out << "  ";
  out.number(v);
}

}  // namespace

void QelWriteMps(const QelFileModel& f, std::ostream& stream) {
  QelTextSink out(stream);
  // "FREE" at the end of the NAME line tells readers that guess the layout
  // that fields are separated by blanks.
  out << "NAME          ";
  if (!f.name.empty()) out << f.name << ' ';
  out << "FREE\n";
  if (f.maximize) out << "OBJSENSE\n    MAX\n";
  out << "ROWS\n N  " << f.objName << '\n';
  std::vector<RowCode> codes;
  codes.reserve(f.rows.size());
  for (const QelFileRow& r : f.rows) {
    codes.push_back(CodeOf(r.lb, r.ub));
    out << ' ' << codes.back().type << "  " << r.name << '\n';
  }

  // The matrix by columns.
  size_t n = f.columns.size();
  std::vector<std::int64_t> start(n + 1, 0);
  for (const QelFileTerm& t : f.rowTerms) ++start[static_cast<size_t>(t.col) + 1];
  for (size_t c = 0; c < n; ++c) start[c + 1] += start[c];
  std::vector<std::int64_t> fill(start.begin(), start.end() - 1);
  std::vector<QelFileTerm> byCol(f.rowTerms.size());
  for (size_t r = 0; r < f.rows.size(); ++r) {
    const QelFileRow& row = f.rows[r];
    for (std::int64_t k = row.first; k < row.first + row.count; ++k) {
      const QelFileTerm& t = f.rowTerms[k];
      byCol[fill[t.col]++] = {static_cast<std::int64_t>(r), t.coef};
    }
  }
  std::vector<double> objCoef(n, 0.0);
  for (const QelFileTerm& t : f.objTerms) objCoef[t.col] += t.coef;

  out << "COLUMNS\n";
  bool integer = false;
  for (size_t c = 0; c < n; ++c) {
    const QelFileColumn& col = f.columns[c];
    bool isInt = col.type != QelVarType::Float;
    if (isInt != integer) {
      out << "    MARKER                 'MARKER'                 "
          << (isInt ? "'INTORG'\n" : "'INTEND'\n");
      integer = isInt;
    }
    // A column in no row still needs a line to exist.
    if (objCoef[c] != 0 || start[c] == start[c + 1]) {
      out << "    " << col.name;
      Field(out, f.objName);
      NumberField(out, objCoef[c]);
      out << '\n';
    }
    for (std::int64_t k = start[c]; k < start[c + 1]; ++k) {
      out << "    " << col.name;
      Field(out, f.rows[byCol[k].col].name);
      NumberField(out, byCol[k].coef);
      out << '\n';
    }
  }
  if (integer) out << "    MARKER                 'MARKER'                 'INTEND'\n";

  out << "RHS\n";
  if (f.objConstant != 0) {
    out << "    RHS";
    Field(out, f.objName);
    NumberField(out, -f.objConstant);
    out << '\n';
  }
  for (size_t r = 0; r < f.rows.size(); ++r) {
    if (codes[r].rhs == 0) continue;
    out << "    RHS";
    Field(out, f.rows[r].name);
    NumberField(out, codes[r].rhs);
    out << '\n';
  }
  bool ranges = false;
  for (size_t r = 0; r < f.rows.size(); ++r) {
    if (codes[r].range == 0) continue;
    if (!ranges) out << "RANGES\n";
    ranges = true;
    out << "    RNG";
    Field(out, f.rows[r].name);
    NumberField(out, codes[r].range);
    out << '\n';
  }

  out << "BOUNDS\n";
  auto bound = [&](const char* type, const QelFileColumn& c, const double* v) {
    out << ' ' << type << " BND";
    Field(out, c.name);
    if (v != nullptr) NumberField(out, *v);
    out << '\n';
  };
  for (const QelFileColumn& c : f.columns) {
    bool lbInf = QelIsFileInfinite(c.lb);
    bool ubInf = QelIsFileInfinite(c.ub);
    if (c.type == QelVarType::Bool) {
      bound("BV", c, nullptr);
      if (lbInf)
        bound("MI", c, nullptr);
      else if (c.lb != 0)
        bound("LO", c, &c.lb);
      if (ubInf)
        bound("PL", c, nullptr);
      else if (c.ub != 1)
        bound("UP", c, &c.ub);
      continue;
    }
    if (lbInf && ubInf && c.lb < 0 && c.ub > 0) {
      bound("FR", c, nullptr);
      continue;
    }
    if (c.lb == c.ub) {
      bound("FX", c, &c.lb);
      continue;
    }
    if (lbInf) {
      bound(c.lb < 0 ? "MI" : "LO", c, c.lb < 0 ? nullptr : &c.lb);
    } else if (c.lb != 0 || (!ubInf && c.ub < 0)) {
      // LO 0 written when UP is negative: the reader's rule would take a
      // negative UP on a default lower bound as a free lower bound.
      bound("LO", c, &c.lb);
    }
    if (!ubInf || c.ub < 0)
      bound("UP", c, &c.ub);
    else if (c.type == QelVarType::Int)
      bound("PL", c, nullptr);
  }

  if (!f.sos.empty()) {
    out << "SOS\n";
    for (const QelFileSos& s : f.sos) {
      out << (s.type == 1 ? " S1 SOS" : " S2 SOS");
      Field(out, s.name);
      out << "  1\n";
      for (size_t i = 0; i < s.cols.size(); ++i) {
        out << "    " << f.columns[s.cols[i]].name;
        NumberField(out, i < s.weights.size() ? s.weights[i] : static_cast<double>(i + 1));
        out << '\n';
      }
    }
  }

  if (!f.objQuad.empty()) {
    // QUADOBJ holds Q of c'x + 1/2 x'Qx: a diagonal entry is twice the
    // coefficient of x * x.
    out << "QUADOBJ\n";
    for (const QelFileQuadTerm& q : f.objQuad) {
      out << "    " << f.columns[q.col1].name;
      Field(out, f.columns[q.col2].name);
      NumberField(out, q.col1 == q.col2 ? 2 * q.coef : q.coef);
      out << '\n';
    }
  }
  out << "ENDATA\n";
}

// ---------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------

namespace {

bool Upper(std::string_view s, const char* word) {
  size_t n = std::strlen(word);
  if (s.size() != n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::toupper(static_cast<unsigned char>(s[i])) != word[i]) return false;
  return true;
}

enum class Section {
  Start,
  End,
  ObjSense,
  Rows,
  Columns,
  Rhs,
  Ranges,
  Bounds,
  Sos,
  QuadObj,
  QMatrix
};

constexpr std::int64_t NoRow = -1;  // what QelNameTable::find gives for a name not there
constexpr std::int64_t ObjectiveRow = -2;
constexpr std::int64_t FreeRow = -3;

struct Entry {
  std::int32_t row;  // the readers hold fewer than 2^31 rows and columns
  std::int32_t col;
  double value;
};

class MpsReader {
 public:
  MpsReader(std::string_view text, const std::string& file, bool fixed)
      : _text(text), _file(file), _fixed(fixed) {
    // Room for the names a file of this size may hold: no rehashing.
    _rows.reserve(text.size() / 256);
    _cols.reserve(text.size() / 256);
    _entries.reserve(text.size() / 32);
  }

  QelFileModel run() {
    Section section = Section::Start;
    bool ended = false;
    while (nextLine()) {
      if (!_indented) {
        section = header();
        if (section == Section::End) {
          ended = true;
          break;
        }
        continue;
      }
      switch (section) {
        case Section::Start:
        case Section::End:
          expected("a section (NAME, ROWS, COLUMNS, RHS, RANGES, BOUNDS, SOS, QUADOBJ, ENDATA)",
                   _tok[0]);
        case Section::ObjSense:
          sense(_tok[0]);
          endOfLine(1);
          break;
        case Section::Rows:
          row();
          break;
        case Section::Columns:
          column();
          break;
        case Section::Rhs:
        case Section::Ranges:
          rhsOrRange(section == Section::Rhs);
          break;
        case Section::Bounds:
          bound();
          break;
        case Section::Sos:
          sos();
          break;
        case Section::QuadObj:
        case Section::QMatrix:
          quad(section == Section::QMatrix);
          break;
      }
    }
    if (!ended) QelExpected(_file, _line, "ENDATA", nullptr);
    finish();
    return std::move(_f);
  }

 private:
  // ---- lines and fields ---------------------------------------------------
  bool nextLine() {
    for (;;) {
      if (_pos >= _text.size()) return false;
      size_t end = _text.find('\n', _pos);
      if (end == std::string_view::npos) end = _text.size();
      std::string_view line = _text.substr(_pos, end - _pos);
      _pos = end + 1;
      ++_line;
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      if (!line.empty() && line[0] == '*') continue;
      _tok.clear();
      _indented = !line.empty() && (line[0] == ' ' || line[0] == '\t');
      if (_fixed && _indented)
        fixedFields(line);
      else
        freeFields(line);
      if (!_tok.empty()) return true;
    }
  }

  void freeFields(std::string_view line) {
    size_t i = 0;
    while (i < line.size()) {
      while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
      if (i >= line.size() || line[i] == '$') break;  // '$' starts a comment
      size_t b = i;
      while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
      _tok.push_back(line.substr(b, i - b));
    }
  }

  void fixedFields(std::string_view line) {
    static const size_t from[] = {1, 4, 14, 24, 39, 49};
    static const size_t to[] = {3, 12, 22, 36, 47, 61};
    for (int k = 0; k < 6; ++k) {
      if (from[k] >= line.size()) break;
      std::string_view f = line.substr(from[k], std::min(line.size(), to[k]) - from[k]);
      while (!f.empty() && (f.front() == ' ' || f.front() == '\t')) f.remove_prefix(1);
      while (!f.empty() && (f.back() == ' ' || f.back() == '\t')) f.remove_suffix(1);
      if (!f.empty()) _tok.push_back(f);
    }
  }

  [[noreturn]] void expected(const char* what, std::string_view found) {
    QelExpected(_file, _line, what, &found);
  }
  [[noreturn]] void fail(const std::string& what) { throw QelFileError(_file, _line, what); }

  std::string_view tok(size_t i) const { return i < _tok.size() ? _tok[i] : std::string_view(); }

  void endOfLine(size_t n) {
    if (_tok.size() > n) expected("end of line", _tok[n]);
  }

  double number(size_t i) {
    double v = 0;
    if (!QelParseNumber(tok(i), v)) expected("a number", tok(i));
    return v;
  }

  // ---- sections -----------------------------------------------------------
  Section header() {
    std::string_view w = _tok[0];
    if (Upper(w, "NAME")) {
      // A last word FREE only says the fields are separated by blanks.
      size_t words = _tok.size();
      if (words >= 2 && _tok[words - 1] == "FREE") --words;
      if (words >= 2) _f.name = std::string(_tok[1]);
      return Section::Start;
    }
    if (Upper(w, "OBJSENSE")) {
      if (_tok.size() > 1) {
        sense(_tok[1]);
        endOfLine(2);
        return Section::Start;
      }
      return Section::ObjSense;
    }
    struct Named {
      const char* word;
      Section section;
    };
    static const Named named[] = {{"ROWS", Section::Rows},       {"COLUMNS", Section::Columns},
                                  {"RHS", Section::Rhs},         {"RANGES", Section::Ranges},
                                  {"BOUNDS", Section::Bounds},   {"SOS", Section::Sos},
                                  {"QUADOBJ", Section::QuadObj}, {"QMATRIX", Section::QMatrix}};
    for (const Named& n : named)
      if (Upper(w, n.word)) {
        endOfLine(1);
        return n.section;
      }
    if (Upper(w, "ENDATA")) return Section::End;
    expected("a section (NAME, ROWS, COLUMNS, RHS, RANGES, BOUNDS, SOS, QUADOBJ, ENDATA)", w);
  }

  void sense(std::string_view w) {
    if (Upper(w, "MAX") || Upper(w, "MAXIMIZE"))
      _f.maximize = true;
    else if (Upper(w, "MIN") || Upper(w, "MINIMIZE"))
      _f.maximize = false;
    else
      expected("MIN or MAX", w);
  }

  void row() {
    std::string_view type = _tok[0];
    if (_tok.size() < 2) expected("a row name", tok(1));
    endOfLine(2);
    std::string_view name = _tok[1];
    char t = type.size() == 1 ? static_cast<char>(std::toupper(static_cast<unsigned char>(type[0])))
                              : '?';
    if (t != 'N' && t != 'L' && t != 'G' && t != 'E') expected("a row type (N, L, G, E)", type);
    if (_rows.find(name) != NoRow) fail("row \"" + std::string(name) + "\" defined twice");
    if (t == 'N') {
      if (!_objFound) {
        _objFound = true;
        _f.objName = std::string(name);
        _rows.insert(name, ObjectiveRow);
      } else {
        _rows.insert(name, FreeRow);
      }
      return;
    }
    _rows.insert(name, static_cast<std::int64_t>(_f.rows.size()));
    QelFileRow r;
    r.name = std::string(name);
    _f.rows.push_back(std::move(r));
    _rowType.push_back(t);
  }

  std::int64_t rowIndex(std::string_view name) {
    std::int64_t r = _rows.find(name);
    if (r == NoRow) fail("unknown row \"" + std::string(name) + "\"");
    return r;
  }

  std::int64_t colIndex(std::string_view name) {
    std::int64_t c = _cols.find(name);
    if (c < 0) fail("unknown column \"" + std::string(name) + "\"");
    return c;
  }

  void column() {
    if (_tok.size() >= 2 && _tok[1] == "'MARKER'") {
      std::string_view m = tok(2);
      if (m == "'INTORG'")
        _integer = true;
      else if (m == "'INTEND'")
        _integer = false;
      else
        expected("'INTORG' or 'INTEND'", m);
      endOfLine(3);
      return;
    }
    std::string_view name = _tok[0];
    std::int64_t c;
    if (name == _lastName && _lastCol >= 0) {
      c = _lastCol;
    } else {
      c = _cols.find(name);
      if (c < 0) {
        c = static_cast<std::int64_t>(_f.columns.size());
        _cols.insert(name, c);
        QelFileColumn col;
        col.name = std::string(name);
        col.type = _integer ? QelVarType::Int : QelVarType::Float;
        _f.columns.push_back(std::move(col));
        _lbSet.push_back(0);
        _objCoef.push_back(0.0);
      }
      _lastName = name;
      _lastCol = c;
    }
    if (_tok.size() < 2) expected("a row name", tok(1));
    for (size_t i = 1; i < _tok.size(); i += 2) {
      std::int64_t r = rowIndex(_tok[i]);
      double v = number(i + 1);
      if (r == ObjectiveRow)
        _objCoef[c] += v;
      else if (r >= 0 && v != 0)
        _entries.push_back({static_cast<std::int32_t>(r), static_cast<std::int32_t>(c), v});
    }
  }

  void rhsOrRange(bool rhs) {
    // With or without the set name: pairs of row and value follow it.
    size_t first = _tok.size() % 2 == 0 ? 0 : 1;
    if (_tok.size() - first < 2) expected("a row name and a number", tok(_tok.size()));
    for (size_t i = first; i < _tok.size(); i += 2) {
      std::int64_t r = rowIndex(_tok[i]);
      double v = number(i + 1);
      if (r == FreeRow) continue;
      if (r == ObjectiveRow) {
        if (!rhs) fail("a range on the objective row \"" + std::string(_tok[i]) + "\"");
        _f.objConstant = -v;
        continue;
      }
      if (rhs) {
        if (_rhs.size() < _f.rows.size()) _rhs.resize(_f.rows.size(), 0.0);
        _rhs[r] = v;
      } else {
        if (_range.size() < _f.rows.size()) _range.resize(_f.rows.size(), 0.0);
        _range[r] = v;
      }
    }
  }

  void bound() {
    std::string_view type = _tok[0];
    static const char* const types[] = {"UP", "LO", "FX", "FR", "MI", "PL", "BV", "LI", "UI"};
    int t = -1;
    for (int k = 0; k < 9; ++k)
      if (Upper(type, types[k])) t = k;
    if (t < 0) expected("a bound type (UP, LO, FX, FR, MI, PL, BV, LI, UI)", type);
    bool needsValue = t == 0 || t == 1 || t == 2 || t == 7 || t == 8;
    size_t colAt;
    if (needsValue) {
      if (_tok.size() < 3)
        expected(_tok.size() < 2 ? "a column name" : "a number", tok(_tok.size()));
      colAt = _tok.size() >= 4 ? 2 : 1;
      endOfLine(colAt + 2);
    } else {
      if (_tok.size() < 2) expected("a column name", tok(1));
      colAt = _tok.size() >= 3 ? 2 : 1;
      // BV may carry a value; it says nothing.
      if (_tok.size() == 4) number(3);
      endOfLine(4);
    }
    std::int64_t c = colIndex(_tok[colAt]);
    QelFileColumn& col = _f.columns[c];
    double v = needsValue ? QelFileBound(number(colAt + 1)) : 0;
    const double inf = QelFileInfinity;
    switch (t) {
      case 0:  // UP
      case 8:  // UI
        if (t == 8 && col.type == QelVarType::Float) col.type = QelVarType::Int;
        col.ub = v;
        if (v < 0 && _lbSet[c] == 0) col.lb = -inf;
        break;
      case 1:  // LO
      case 7:  // LI
        if (t == 7 && col.type == QelVarType::Float) col.type = QelVarType::Int;
        col.lb = v;
        _lbSet[c] = 1;
        break;
      case 2:  // FX
        col.lb = col.ub = v;
        _lbSet[c] = 1;
        break;
      case 3:  // FR
        col.lb = -inf;
        col.ub = inf;
        _lbSet[c] = 1;
        break;
      case 4:  // MI
        col.lb = -inf;
        _lbSet[c] = 1;
        break;
      case 5:  // PL
        col.ub = inf;
        break;
      default:  // BV
        col.type = QelVarType::Bool;
        col.lb = 0;
        col.ub = 1;
        _lbSet[c] = 1;
        break;
    }
  }

  void sos() {
    bool typeWord = Upper(_tok[0], "S1") || Upper(_tok[0], "S2");
    double v = 0;
    bool header = typeWord && ((_tok.size() >= 3 && Upper(_tok[1], "SOS")) ||
                               (_tok.size() == 2 && !QelParseNumber(_tok[1], v)));
    if (header) {
      QelFileSos s;
      s.type = Upper(_tok[0], "S1") ? 1 : 2;
      size_t nameAt = _tok.size() >= 3 ? 2 : 1;
      s.name = std::string(_tok[nameAt]);
      if (_tok.size() > nameAt + 1) number(nameAt + 1);  // the priority
      endOfLine(nameAt + 2);
      _f.sos.push_back(std::move(s));
      return;
    }
    if (_f.sos.empty()) expected("a set header (S1 or S2, SOS and a name)", _tok[0]);
    if (_tok.size() < 2) expected("a number", tok(1));
    size_t colAt = _tok.size() >= 3 ? 1 : 0;
    endOfLine(colAt + 2);
    std::int64_t c = colIndex(_tok[colAt]);
    double w = number(colAt + 1);
    _f.sos.back().cols.push_back(c);
    _f.sos.back().weights.push_back(w);
  }

  void quad(bool wholeMatrix) {
    if (_tok.size() < 3) expected(_tok.size() < 2 ? "a column name" : "a number", tok(_tok.size()));
    endOfLine(3);
    std::int64_t a = colIndex(_tok[0]);
    std::int64_t b = colIndex(_tok[1]);
    double v = number(2);
    if (v == 0) return;
    // 1/2 x'Qx: QUADOBJ lists the upper triangle (an off-diagonal entry
    // stands for both), QMATRIX every entry.
    double coef = (wholeMatrix || a == b) ? v / 2 : v;
    _f.objQuad.push_back({a, b, coef});
  }

  void finish() {
    size_t nr = _f.rows.size();
    _rhs.resize(nr, 0.0);
    _range.resize(nr, 0.0);
    const double inf = QelFileInfinity;
    for (size_t r = 0; r < nr; ++r) {
      QelFileRow& row = _f.rows[r];
      double rhs = _rhs[r];
      double R = std::fabs(_range[r]);
      switch (_rowType[r]) {
        case 'L':
          row.lb = R != 0 ? rhs - R : -inf;
          row.ub = rhs;
          break;
        case 'G':
          row.lb = rhs;
          row.ub = R != 0 ? rhs + R : inf;
          break;
        default:  // E
          row.lb = _range[r] < 0 ? rhs - R : rhs;
          row.ub = _range[r] > 0 ? rhs + R : rhs;
          break;
      }
      row.lb = QelFileBound(row.lb);
      row.ub = QelFileBound(row.ub);
    }
    for (size_t c = 0; c < _objCoef.size(); ++c)
      if (_objCoef[c] != 0) _f.objTerms.push_back({static_cast<std::int64_t>(c), _objCoef[c]});
    // Row-wise terms: a counting sort keeps the column order within a row.
    std::vector<std::int64_t> start(nr + 1, 0);
    for (const Entry& e : _entries) ++start[e.row + 1];
    for (size_t r = 0; r < nr; ++r) {
      _f.rows[r].first = start[r];
      _f.rows[r].count = start[r + 1];
      start[r + 1] += start[r];
    }
    _f.rowTerms.resize(_entries.size());
    std::vector<std::int64_t> fill(start.begin(), start.end() - 1);
    for (const Entry& e : _entries) _f.rowTerms[fill[e.row]++] = {e.col, e.value};
    _entries.clear();
    _entries.shrink_to_fit();
  }

  std::string_view _text;
  const std::string& _file;
  bool _fixed;
  size_t _pos = 0;
  long _line = 0;
  bool _indented = false;
  std::vector<std::string_view> _tok;
  QelFileModel _f;
  bool _objFound = false;
  bool _integer = false;
  QelNameTable _rows;  // row index, ObjectiveRow or FreeRow
  std::vector<char> _rowType;
  std::vector<double> _rhs;
  std::vector<double> _range;
  QelNameTable _cols;
  std::vector<char> _lbSet;
  std::vector<double> _objCoef;
  std::vector<Entry> _entries;
  std::string_view _lastName;
  std::int64_t _lastCol = -1;
};

}  // namespace

QelFileModel QelParseMps(std::string_view text, const std::string& fileName, bool fixed) {
  MpsReader reader(text, fileName, fixed);
  return reader.run();
}

// The LP text format: writing and reading.
#include <qel/io/filemodel.h>

#include <cctype>
#include <cstring>
#include <string>
#include <unordered_map>

// ---------------------------------------------------------------------------
// Writing
// ---------------------------------------------------------------------------

namespace {

// Writes the items of an expression, a few to a line.
class ExprWriter {
 public:
  explicit ExprWriter(QelTextSink& out) : _out(out) {}
  void term(double coef, const std::string& name) {
    sign(coef);
    if (coef != 1 && coef != -1) {
      _out.number(coef < 0 ? -coef : coef);
      _out << ' ';
    }
    _out << name;
  }
  void zero(const std::string& name) {
    lineBreak();
    _out << (_items++ == 0 ? "0 " : " + 0 ") << name;
  }
  void constant(double v) {
    sign(v);
    _out.number(v < 0 ? -v : v);
  }
  void raw(std::string_view s) {
    lineBreak();
    _out << s;
    ++_items;
  }
  long items() const { return _items; }
  // Items written on the line so far make a new line worth starting.
  void lineBreak() {
    if (_items > 0 && _items % 8 == 0) _out << "\n   ";
  }

 private:
  void sign(double v) {
    lineBreak();
    if (_items++ == 0)
      _out << (v < 0 ? "- " : "");
    else
      _out << (v < 0 ? " - " : " + ");
  }
  QelTextSink& _out;
  long _items = 0;
};

void Rhs(QelTextSink& out, double v) {
  if (v >= QelFileInfinity)
    out << "+inf";
  else if (v <= -QelFileInfinity)
    out << "-inf";
  else
    out.number(v);
}

}  // namespace

void QelWriteLp(const QelFileModel& f, std::ostream& stream) {
  QelTextSink out(stream);
  if (!f.name.empty()) out << "\\Problem name: " << f.name << '\n';
  out << (f.maximize ? "Maximize\n" : "Minimize\n") << ' ' << f.objName << ": ";
  size_t n = f.columns.size();
  // Every column appears in the objective, in column order (with 0 when it
  // has no coefficient there), so that a reader meets the columns in order.
  std::vector<double> objCoef(n, 0.0);
  std::vector<char> inObj(n, 0);
  for (const QelFileTerm& t : f.objTerms) {
    objCoef[t.col] += t.coef;
    inObj[t.col] = 1;
  }
  {
    ExprWriter w(out);
    for (size_t c = 0; c < n; ++c) {
      if (inObj[c] != 0 && objCoef[c] != 0)
        w.term(objCoef[c], f.columns[c].name);
      else
        w.zero(f.columns[c].name);
    }
    if (f.objConstant != 0) w.constant(f.objConstant);
    if (!f.objQuad.empty()) {
      // [ ... ] / 2: every coefficient doubled, exactly.
      w.raw(w.items() == 0 ? "[ " : " + [ ");
      bool first = true;
      for (const QelFileQuadTerm& q : f.objQuad) {
        double c = 2 * q.coef;
        w.lineBreak();
        out << (c < 0 ? (first ? "- " : " - ") : (first ? "" : " + "));
        first = false;
        out.number(c < 0 ? -c : c);
        out << ' ' << f.columns[q.col1].name;
        if (q.col1 == q.col2)
          out << " ^ 2";
        else
          out << " * " << f.columns[q.col2].name;
      }
      out << " ] / 2";
    }
  }
  out << "\nSubject To\n";
  for (const QelFileRow& r : f.rows) {
    out << ' ' << r.name << ": ";
    bool lbInf = QelIsFileInfinite(r.lb);
    bool ubInf = QelIsFileInfinite(r.ub);
    bool ranged = !lbInf && !ubInf && r.lb != r.ub;
    if (ranged) {
      out.number(r.lb);
      out << " <= ";
    }
    ExprWriter w(out);
    for (std::int64_t k = r.first; k < r.first + r.count; ++k)
      w.term(f.rowTerms[k].coef, f.columns[f.rowTerms[k].col].name);
    if (r.count == 0) {
      if (n > 0)
        w.zero(f.columns[0].name);
      else
        w.constant(0);
    }
    if (!lbInf && !ubInf && r.lb == r.ub) {
      out << " = ";
      out.number(r.lb);
    } else if (!ubInf) {  // a ranged row too: its lower bound is written
      out << " <= ";
      out.number(r.ub);
    } else if (!lbInf) {
      out << " >= ";
      out.number(r.lb);
    } else {
      out << " >= -1e+30";
    }
    out << '\n';
  }
  out << "Bounds\n";
  for (const QelFileColumn& c : f.columns) {
    bool isBool = c.type == QelVarType::Bool;
    double dlb = 0;
    double dub = isBool ? 1 : QelFileInfinity;
    if (c.lb == dlb && c.ub == dub) continue;
    bool lbInf = QelIsFileInfinite(c.lb);
    bool ubInf = QelIsFileInfinite(c.ub);
    out << ' ';
    if (lbInf && ubInf && c.lb < 0 && c.ub > 0) {
      out << c.name << " free\n";
    } else if (c.lb == c.ub) {
      out << c.name << " = ";
      Rhs(out, c.lb);
      out << '\n';
    } else if (c.ub == dub && c.ub > 0) {
      out << c.name << " >= ";
      Rhs(out, c.lb);
      out << '\n';
    } else {
      Rhs(out, c.lb);
      out << " <= " << c.name << " <= ";
      Rhs(out, c.ub);
      out << '\n';
    }
  }
  auto list = [&](const char* title, QelVarType type) {
    long k = 0;
    for (const QelFileColumn& c : f.columns) {
      if (c.type != type) continue;
      if (k == 0) out << title << '\n';
      out << (k % 8 == 0 ? (k == 0 ? " " : "\n ") : " ") << c.name;
      ++k;
    }
    if (k > 0) out << '\n';
  };
  list("Generals", QelVarType::Int);
  list("Binaries", QelVarType::Bool);
  if (!f.sos.empty()) {
    out << "SOS\n";
    for (const QelFileSos& s : f.sos) {
      out << ' ' << s.name << (s.type == 1 ? ": S1::" : ": S2::");
      for (size_t i = 0; i < s.cols.size(); ++i) {
        out << ' ' << f.columns[s.cols[i]].name << ':';
        out.number(i < s.weights.size() ? s.weights[i] : static_cast<double>(i + 1));
      }
      out << '\n';
    }
  }
  out << "End\n";
}

// ---------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------

namespace {

enum class Kind {
  End,
  Number,
  Name,
  Keyword,
  Le,
  Ge,
  Eq,
  Colon,
  DoubleColon,
  Plus,
  Minus,
  LBracket,
  RBracket,
  Slash,
  Caret,
  Star,
  Bad
};

enum class Word { None, Minimize, Maximize, SubjectTo, Bounds, Generals, Binaries, Sos, End, Semi };

struct Token {
  Kind kind = Kind::End;
  Word word = Word::None;
  std::string_view text;
  double value = 0;
  long line = 0;
};

bool Lower(std::string_view s, const char* w) {
  size_t n = std::strlen(w);
  if (s.size() != n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(s[i])) != w[i]) return false;
  return true;
}

bool NameStart(unsigned char c) {
  return std::isalpha(c) != 0 ||
         (c < 128 && c != 0 && std::strchr("!\"#$%&()/,;?@_`'{}|~", c) != nullptr && c != '/');
}
bool NameChar(unsigned char c) {
  return std::isalnum(c) != 0 ||
         (c < 128 && c != 0 && std::strchr("!\"#$%&()/,.;?@_`'{}|~", c) != nullptr);
}

class Lexer {
 public:
  explicit Lexer(std::string_view text) : _text(text) {}

  const Token& peek(int k = 0) {
    while (_count <= k) {
      _ahead[(_head + _count) % 3] = lex();
      ++_count;
    }
    return _ahead[(_head + k) % 3];
  }
  Token next() {
    Token t = peek();
    _head = (_head + 1) % 3;
    --_count;
    return t;
  }
  long line() { return peek().line; }

 private:
  Token lex() {
    Token t;
    bool firstOnLine = skipBlanks();
    t.line = _line;
    if (_pos >= _text.size()) {
      t.kind = Kind::End;
      return t;
    }
    size_t b = _pos;
    auto c = static_cast<unsigned char>(_text[_pos]);
    auto at = [&](size_t i) { return i < _text.size() ? _text[i] : '\0'; };
    if (std::isdigit(c) != 0 ||
        (c == '.' && std::isdigit(static_cast<unsigned char>(at(_pos + 1))) != 0)) {
      while (std::isdigit(static_cast<unsigned char>(at(_pos))) != 0) ++_pos;
      if (at(_pos) == '.') {
        ++_pos;
        while (std::isdigit(static_cast<unsigned char>(at(_pos))) != 0) ++_pos;
      }
      if ((at(_pos) == 'e' || at(_pos) == 'E')) {
        size_t e = _pos + 1;
        if (at(e) == '+' || at(e) == '-') ++e;
        if (std::isdigit(static_cast<unsigned char>(at(e))) != 0) {
          _pos = e;
          while (std::isdigit(static_cast<unsigned char>(at(_pos))) != 0) ++_pos;
        }
      }
      t.kind = Kind::Number;
      t.text = _text.substr(b, _pos - b);
      if (!QelParseNumber(t.text, t.value)) t.kind = Kind::Bad;
      return t;
    }
    if (NameStart(c)) {
      while (_pos < _text.size() && NameChar(static_cast<unsigned char>(_text[_pos]))) ++_pos;
      t.kind = Kind::Name;
      t.text = _text.substr(b, _pos - b);
      if (firstOnLine) keyword(t);
      return t;
    }
    ++_pos;
    t.text = _text.substr(b, 1);
    switch (c) {
      case '<':
        if (at(_pos) == '=') ++_pos;
        t.kind = Kind::Le;
        break;
      case '>':
        if (at(_pos) == '=') ++_pos;
        t.kind = Kind::Ge;
        break;
      case '=':
        if (at(_pos) == '<') {
          ++_pos;
          t.kind = Kind::Le;
        } else if (at(_pos) == '>') {
          ++_pos;
          t.kind = Kind::Ge;
        } else {
          t.kind = Kind::Eq;
        }
        break;
      case ':':
        if (at(_pos) == ':') {
          ++_pos;
          t.kind = Kind::DoubleColon;
        } else {
          t.kind = Kind::Colon;
        }
        break;
      case '+':
        t.kind = Kind::Plus;
        break;
      case '-':
        t.kind = Kind::Minus;
        break;
      case '[':
        t.kind = Kind::LBracket;
        break;
      case ']':
        t.kind = Kind::RBracket;
        break;
      case '/':
        t.kind = Kind::Slash;
        break;
      case '^':
        t.kind = Kind::Caret;
        break;
      case '*':
        t.kind = Kind::Star;
        break;
      default:
        t.kind = Kind::Bad;
        break;
    }
    t.text = _text.substr(b, _pos - b);
    return t;
  }

  // Skips blanks, line ends and comments; true when the next token is the
  // first of its line.
  bool skipBlanks() {
    bool first = _pos == 0 || _startOfLine;
    _startOfLine = false;
    while (_pos < _text.size()) {
      char c = _text[_pos];
      if (c == '\n') {
        ++_line;
        ++_pos;
        first = true;
      } else if (c == ' ' || c == '\t' || c == '\r') {
        ++_pos;
      } else if (c == '\\') {
        while (_pos < _text.size() && _text[_pos] != '\n') ++_pos;
      } else {
        break;
      }
    }
    return first;
  }

  void keyword(Token& t) {
    std::string_view s = t.text;
    Word w = Word::None;
    if (Lower(s, "minimize") || Lower(s, "minimum") || Lower(s, "min"))
      w = Word::Minimize;
    else if (Lower(s, "maximize") || Lower(s, "maximum") || Lower(s, "max"))
      w = Word::Maximize;
    else if (Lower(s, "st") || Lower(s, "s.t.") || Lower(s, "st."))
      w = Word::SubjectTo;
    else if (Lower(s, "bounds") || Lower(s, "bound"))
      w = Word::Bounds;
    else if (Lower(s, "general") || Lower(s, "generals") || Lower(s, "gen") ||
             Lower(s, "integer") || Lower(s, "integers"))
      w = Word::Generals;
    else if (Lower(s, "binary") || Lower(s, "binaries") || Lower(s, "bin"))
      w = Word::Binaries;
    else if (Lower(s, "sos"))
      w = Word::Sos;
    else if (Lower(s, "end"))
      w = Word::End;
    else if (Lower(s, "semi-continuous") || Lower(s, "semi") || Lower(s, "semis"))
      w = Word::Semi;
    else if (Lower(s, "subject") || Lower(s, "such")) {
      // "subject to" / "such that": one keyword over two words.
      size_t save = _pos;
      long saveLine = _line;
      skipBlanks();
      size_t b = _pos;
      while (_pos < _text.size() && NameChar(static_cast<unsigned char>(_text[_pos]))) ++_pos;
      std::string_view second = _text.substr(b, _pos - b);
      if ((Lower(s, "subject") && Lower(second, "to")) ||
          (Lower(s, "such") && Lower(second, "that"))) {
        w = Word::SubjectTo;
        t.text = _text.substr(t.text.data() - _text.data(), _pos - (t.text.data() - _text.data()));
      } else {
        _pos = save;
        _line = saveLine;
      }
    }
    if (w != Word::None) {
      t.kind = Kind::Keyword;
      t.word = w;
    }
    // A keyword at the end of a line leaves the next token first on its line
    // anyway; a name does not change that either.
  }

  std::string_view _text;
  size_t _pos = 0;
  long _line = 1;
  bool _startOfLine = true;
  Token _ahead[3];
  int _head = 0;
  int _count = 0;
};

struct Expr {
  double constant = 0;
  std::vector<QelFileTerm> terms;
  bool variables = false;  // a variable was met, even with coefficient 0
};

class LpReader {
 public:
  LpReader(std::string_view text, const std::string& file) : _lex(text), _file(file) {
    _cols.reserve(text.size() / 256);
    // "\Problem name: X" on the first line names the model.
    static const char tag[] = "\\Problem name: ";
    if (text.substr(0, sizeof tag - 1) == tag) {
      size_t e = text.find_first_of("\r\n");
      std::string_view name =
          text.substr(sizeof tag - 1, e == std::string_view::npos ? e : e - (sizeof tag - 1));
      while (!name.empty() && name.back() == ' ') name.remove_suffix(1);
      _f.name = std::string(name);
    }
  }

  QelFileModel run() {
    const Token& t = _lex.peek();
    if (t.kind != Kind::Keyword || (t.word != Word::Minimize && t.word != Word::Maximize))
      expected("Minimize or Maximize", t);
    _f.maximize = _lex.next().word == Word::Maximize;
    objective();
    for (;;) {
      const Token& k = _lex.peek();
      if (k.kind == Kind::End) break;
      if (k.kind != Kind::Keyword || k.word == Word::Minimize || k.word == Word::Maximize)
        expected("a section (Subject To, Bounds, General, Binary, SOS, End)", k);
      Word w = _lex.next().word;
      if (w == Word::End) break;
      switch (w) {
        case Word::SubjectTo:
          constraints();
          break;
        case Word::Bounds:
          bounds();
          break;
        case Word::Generals:
          names(QelVarType::Int);
          break;
        case Word::Binaries:
          names(QelVarType::Bool);
          break;
        case Word::Sos:
          sos();
          break;
        default:
          fail(k.line, "semi-continuous variables are not read");
      }
    }
    for (size_t c = 0; c < _objCoef.size(); ++c)
      if (_objCoef[c] != 0) _f.objTerms.push_back({static_cast<std::int64_t>(c), _objCoef[c]});
    for (size_t c = 0; c < _f.columns.size(); ++c) {
      QelFileColumn& col = _f.columns[c];
      if (col.type != QelVarType::Bool) continue;
      if ((_bounded[c] & 1) == 0) col.lb = 0;
      if ((_bounded[c] & 2) == 0) col.ub = 1;
    }
    return std::move(_f);
  }

 private:
  [[noreturn]] void expected(const char* what, const Token& t) {
    if (t.kind == Kind::End) QelExpected(_file, t.line, what, nullptr);
    std::string_view found = t.text;
    QelExpected(_file, t.line, what, &found);
  }
  [[noreturn]] void fail(long line, const std::string& what) {
    throw QelFileError(_file, line, what);
  }

  bool sectionEnd(const Token& t) const { return t.kind == Kind::End || t.kind == Kind::Keyword; }

  static bool IsInf(const Token& t) {
    return t.kind == Kind::Name && (Lower(t.text, "inf") || Lower(t.text, "infinity"));
  }

  std::int64_t column(std::string_view name) {
    std::int64_t found = _cols.find(name);
    if (found >= 0) return found;
    auto c = static_cast<std::int64_t>(_f.columns.size());
    _cols.insert(name, c);
    QelFileColumn col;
    col.name = std::string(name);
    _f.columns.push_back(std::move(col));
    _objCoef.push_back(0.0);
    _bounded.push_back(0);
    return c;
  }

  // [+|-] number or inf.
  double signedNumber() {
    double sign = 1;
    while (_lex.peek().kind == Kind::Plus || _lex.peek().kind == Kind::Minus)
      if (_lex.next().kind == Kind::Minus) sign = -sign;
    const Token& t = _lex.peek();
    if (t.kind == Kind::Number) return sign * _lex.next().value;
    if (IsInf(t)) {
      _lex.next();
      return sign * QelFileInfinity;
    }
    expected("a number", t);
  }

  // Items of an expression: [sign] [number] [variable], signs between items.
  void expr(Expr& e, bool quadAllowed) {
    bool first = true;
    for (;;) {
      const Token& t = _lex.peek();
      if (sectionEnd(t)) break;
      if (!first && t.kind != Kind::Plus && t.kind != Kind::Minus) break;
      // A new "name:" starts the next constraint.
      if (t.kind == Kind::Name && _lex.peek(1).kind == Kind::Colon) break;
      double sign = 1;
      bool signs = false;
      while (_lex.peek().kind == Kind::Plus || _lex.peek().kind == Kind::Minus) {
        if (_lex.next().kind == Kind::Minus) sign = -sign;
        signs = true;
      }
      const Token& u = _lex.peek();
      if (u.kind == Kind::LBracket) {
        if (!quadAllowed) fail(u.line, "quadratic terms are only read in the objective");
        _lex.next();
        quad(sign);
        first = false;
        continue;
      }
      if (first && !signs && (u.kind == Kind::Le || u.kind == Kind::Ge || u.kind == Kind::Eq))
        break;
      double coef = 1;
      bool haveNumber = false;
      if (u.kind == Kind::Number) {
        _numberLine = u.line;
        coef = _lex.next().value;
        haveNumber = true;
      } else if (IsInf(u)) {
        _numberLine = u.line;
        _lex.next();
        coef = QelFileInfinity;
        haveNumber = true;
      }
      const Token& v = _lex.peek();
      // A number and its variable share a line.
      if (v.kind == Kind::Name && !IsInf(v) && _lex.peek(1).kind != Kind::Colon &&
          (!haveNumber || v.line == _numberLine)) {
        std::int64_t c = column(_lex.next().text);
        e.variables = true;
        if (coef != 0) e.terms.push_back({c, sign * coef});
      } else if (haveNumber) {
        e.constant += sign * coef;
      } else {
        expected("a number or a variable", v);
      }
      first = false;
    }
  }

  void quad(double outerSign) {
    bool first = true;
    for (;;) {
      const Token& t = _lex.peek();
      if (t.kind == Kind::RBracket) break;
      double sign = outerSign;
      bool signs = false;
      while (_lex.peek().kind == Kind::Plus || _lex.peek().kind == Kind::Minus) {
        if (_lex.next().kind == Kind::Minus) sign = -sign;
        signs = true;
      }
      if (!first && !signs) expected("\"+\", \"-\" or \"]\"", _lex.peek());
      double coef = 1;
      if (_lex.peek().kind == Kind::Number) coef = _lex.next().value;
      const Token& a = _lex.peek();
      if (a.kind != Kind::Name) expected("a variable", a);
      std::int64_t c1 = column(_lex.next().text);
      std::int64_t c2 = c1;
      const Token& op = _lex.peek();
      if (op.kind == Kind::Caret) {
        _lex.next();
        const Token& two = _lex.peek();
        if (two.kind != Kind::Number || two.value != 2) expected("2", two);
        _lex.next();
      } else if (op.kind == Kind::Star) {
        _lex.next();
        const Token& b = _lex.peek();
        if (b.kind != Kind::Name) expected("a variable", b);
        c2 = column(_lex.next().text);
      } else {
        expected("\"^\" or \"*\"", op);
      }
      if (coef != 0) _f.objQuad.push_back({c1, c2, sign * coef / 2});
      first = false;
    }
    _lex.next();  // ]
    const Token& slash = _lex.peek();
    if (slash.kind != Kind::Slash) expected("\"/\"", slash);
    _lex.next();
    const Token& two = _lex.peek();
    if (two.kind != Kind::Number || two.value != 2) expected("2", two);
    _lex.next();
  }

  void objective() {
    const Token& t = _lex.peek();
    if (t.kind == Kind::Name && _lex.peek(1).kind == Kind::Colon) {
      _f.objName = std::string(_lex.next().text);
      _lex.next();
    }
    Expr e;
    expr(e, true);
    const Token& after = _lex.peek();
    if (!sectionEnd(after))
      expected("a section (Subject To, Bounds, General, Binary, SOS, End)", after);
    _f.objConstant = e.constant;
    for (const QelFileTerm& term : e.terms) _objCoef[term.col] += term.coef;
  }

  // expression op v.
  static void SetRowBound(Kind op, double v, double& lb, double& ub) {
    if (op != Kind::Ge) ub = v;
    if (op != Kind::Le) lb = v;
  }
  // v op expression is expression Flip(op) v.
  static Kind Flip(Kind op) { return op == Kind::Le ? Kind::Ge : op == Kind::Ge ? Kind::Le : op; }

  static bool IsOp(const Token& t) {
    return t.kind == Kind::Le || t.kind == Kind::Ge || t.kind == Kind::Eq;
  }

  void constraints() {
    while (!sectionEnd(_lex.peek())) {
      QelFileRow row;
      long line = _lex.line();
      const Token& t = _lex.peek();
      if (t.kind == Kind::Name && _lex.peek(1).kind == Kind::Colon) {
        row.name = std::string(_lex.next().text);
        _lex.next();
      } else {
        row.name = "R" + std::to_string(_f.rows.size() + 1);
      }
      if (!_rowNames.emplace(row.name, 0).second)
        fail(line, "row \"" + row.name + "\" defined twice");
      Expr lhs;
      expr(lhs, false);
      const Token& op1 = _lex.peek();
      if (!IsOp(op1)) expected("\"<=\", \">=\" or \"=\"", op1);
      Kind k1 = _lex.next().kind;
      double lb = -QelFileInfinity;
      double ub = QelFileInfinity;
      Expr rhs;
      const std::vector<QelFileTerm>* terms = &lhs.terms;
      if (!lhs.variables) {
        expr(rhs, false);
        if (!rhs.variables && !IsOp(_lex.peek())) {
          // No variable on either side: the left side is the (empty)
          // expression, the right side its bound.
          SetRowBound(k1, rhs.constant - lhs.constant, lb, ub);
        } else {
          // number op expression [op number]
          if (!rhs.variables) expected("a variable", _lex.peek());
          terms = &rhs.terms;
          SetRowBound(Flip(k1), lhs.constant - rhs.constant, lb, ub);
          if (IsOp(_lex.peek())) {
            long opLine = _lex.line();
            Kind k2 = _lex.next().kind;
            double w = signedNumber() - rhs.constant;
            if (k2 != k1 || k2 == Kind::Eq)
              fail(opLine, "a ranged constraint needs two \"<=\" or two \">=\"");
            SetRowBound(k2, w, lb, ub);
          }
        }
      } else {
        // expression op number: the right-hand side is one number, so that
        // a constraint without name may follow on the next line.
        SetRowBound(k1, signedNumber() - lhs.constant, lb, ub);
      }
      row.lb = QelFileBound(lb);
      row.ub = QelFileBound(ub);
      row.first = static_cast<std::int64_t>(_f.rowTerms.size());
      row.count = static_cast<std::int64_t>(terms->size());
      _f.rowTerms.insert(_f.rowTerms.end(), terms->begin(), terms->end());
      _f.rows.push_back(std::move(row));
    }
  }

  void setBound(std::int64_t c, Kind op, double v, bool varOnLeft) {
    QelFileColumn& col = _f.columns[c];
    v = QelFileBound(v);
    // varOnLeft: x op v; otherwise v op x.
    bool upper = (op == Kind::Le) == varOnLeft;
    if (op == Kind::Eq) {
      col.lb = col.ub = v;
      _bounded[c] = 3;
    } else if (upper) {
      col.ub = v;
      _bounded[c] |= 2;
    } else {
      col.lb = v;
      _bounded[c] |= 1;
    }
  }

  void bounds() {
    while (!sectionEnd(_lex.peek())) {
      const Token& t = _lex.peek();
      if (t.kind == Kind::Name && !IsInf(t)) {
        std::int64_t c = column(_lex.next().text);
        const Token& u = _lex.peek();
        if (u.kind == Kind::Name && Lower(u.text, "free")) {
          _lex.next();
          _f.columns[c].lb = -QelFileInfinity;
          _f.columns[c].ub = QelFileInfinity;
          _bounded[c] = 3;
          continue;
        }
        if (!IsOp(u)) expected("\"<=\", \">=\", \"=\" or free", u);
        Kind op = _lex.next().kind;
        setBound(c, op, signedNumber(), true);
        continue;
      }
      double v = signedNumber();
      const Token& op1 = _lex.peek();
      if (!IsOp(op1)) expected("\"<=\", \">=\" or \"=\"", op1);
      Kind k1 = _lex.next().kind;
      const Token& name = _lex.peek();
      if (name.kind != Kind::Name || IsInf(name)) expected("a variable", name);
      std::int64_t c = column(_lex.next().text);
      setBound(c, k1, v, false);
      if (IsOp(_lex.peek())) {
        Kind k2 = _lex.next().kind;
        setBound(c, k2, signedNumber(), true);
      }
    }
  }

  void names(QelVarType type) {
    while (!sectionEnd(_lex.peek())) {
      const Token& t = _lex.peek();
      if (t.kind != Kind::Name) expected("a variable", t);
      std::int64_t c = column(_lex.next().text);
      _f.columns[c].type = type;
    }
  }

  void sos() {
    while (!sectionEnd(_lex.peek())) {
      QelFileSos s;
      const Token& t = _lex.peek();
      if (t.kind == Kind::Name && _lex.peek(1).kind == Kind::Colon) {
        s.name = std::string(_lex.next().text);
        _lex.next();
      } else {
        s.name = "sos" + std::to_string(_f.sos.size() + 1);
      }
      const Token& type = _lex.peek();
      bool s1 = type.kind == Kind::Name && Lower(type.text, "s1");
      bool s2 = type.kind == Kind::Name && Lower(type.text, "s2");
      if ((!s1 && !s2) || _lex.peek(1).kind != Kind::DoubleColon) expected("S1:: or S2::", type);
      s.type = s1 ? 1 : 2;
      _lex.next();
      _lex.next();
      // Members "name:weight" until the next set or section.
      while (_lex.peek().kind == Kind::Name && _lex.peek(1).kind == Kind::Colon &&
             _lex.peek(2).kind != Kind::Name) {
        std::int64_t c = column(_lex.next().text);
        _lex.next();
        s.cols.push_back(c);
        s.weights.push_back(signedNumber());
      }
      const Token& after = _lex.peek();
      if (!sectionEnd(after) && !(after.kind == Kind::Name && _lex.peek(1).kind == Kind::Colon))
        expected("a variable:weight pair", after);
      _f.sos.push_back(std::move(s));
    }
  }

  Lexer _lex;
  const std::string& _file;
  QelFileModel _f;
  QelNameTable _cols;
  std::unordered_map<std::string, int> _rowNames;
  std::vector<double> _objCoef;
  std::vector<char> _bounded;  // 1: lower bound given, 2: upper bound given
  long _numberLine = 0;
};

}  // namespace

QelFileModel QelParseLp(std::string_view text, const std::string& fileName) {
  LpReader reader(text, fileName);
  return reader.run();
}

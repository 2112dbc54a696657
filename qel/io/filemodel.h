// The flat form of a model file, shared by the MPS and LP readers and
// writers: columns, rows in compressed form, the objective and the special
// ordered sets, by index. Writing flattens a model into it (checking what
// the format can hold and making the names valid); reading parses a whole
// file into it and only then builds the model's objects, so that a bad file
// creates nothing.
//
// Also here: the number and name helpers both formats use, and the reader's
// error (QelFileError) with its "<file>:<line>: ..." message.
#ifndef QEL_IO_FILEMODEL_H
#define QEL_IO_FILEMODEL_H

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <qel/io/modelfile.h>

/// One coefficient of a row or of the objective.
struct QelFileTerm {
  std::int64_t col;  ///< the column's index
  double coef;       ///< the coefficient
};

/// One quadratic objective term coef * col1 * col2.
struct QelFileQuadTerm {
  std::int64_t col1;  ///< the first column
  std::int64_t col2;  ///< the second column
  double coef;        ///< the coefficient
};

/// A column (variable).
struct QelFileColumn {
  std::string name;                     ///< the name
  double lb = 0;                        ///< the lower bound
  double ub = QelFileInfinity;          ///< the upper bound
  QelVarType type = QelVarType::Float;  ///< float, integer or Boolean
};

/// A row: lb <= terms <= ub, its terms in QelFileModel::rowTerms.
struct QelFileRow {
  std::string name;        ///< the name
  double lb = 0;           ///< the lower bound
  double ub = 0;           ///< the upper bound
  std::int64_t first = 0;  ///< index of its first term in rowTerms
  std::int64_t count = 0;  ///< number of terms
};

/// A special ordered set.
struct QelFileSos {
  std::string name;                ///< the name
  int type = 1;                    ///< 1 or 2
  std::vector<std::int64_t> cols;  ///< the columns, in order
  std::vector<double> weights;     ///< their weights (as many as kept)
};

/// A whole model file.
struct QelFileModel {
  std::string name;                      ///< the model's name (may be empty)
  std::string objName = "obj";           ///< the objective's name
  bool maximize = false;                 ///< the sense
  double objConstant = 0;                ///< the objective constant
  std::vector<QelFileTerm> objTerms;     ///< linear objective terms
  std::vector<QelFileQuadTerm> objQuad;  ///< quadratic objective terms
  std::vector<QelFileColumn> columns;    ///< the columns, in order
  std::vector<QelFileRow> rows;          ///< the rows, in order
  std::vector<QelFileTerm> rowTerms;     ///< the rows' terms, row after row
  std::vector<QelFileSos> sos;           ///< the sets, in order
};

/// A model file that cannot be read: the message names the file and line.
class QEL_API QelFileError : public QelException {
 public:
  /// "<file>:<line>: <what>".
  QelFileError(const std::string& file, long line, const std::string& what);
};

/// Throws QelFileError "<file>:<line>: expected <what>, found "<found>""
/// (found null: "found end of file").
[[noreturn]] QEL_API void QelExpected(const std::string& file, long line, const char* what,
                                      const std::string_view* found);

/// Whether `v` counts as an infinite bound (magnitude 1e20 or more).
inline bool QelIsFileInfinite(double v) { return v >= QelFileInfinity || v <= -QelFileInfinity; }

/// `v` with infinite values brought to plus or minus QelFileInfinity.
inline double QelFileBound(double v) {
  if (v >= QelFileInfinity) return QelFileInfinity;
  if (v <= -QelFileInfinity) return -QelFileInfinity;
  return v;
}

/// Appends the shortest text that reads back as `v`.
QEL_API void QelAppendNumber(std::string& out, double v);

/// Parses a number (optional sign, digits, fraction, exponent, or inf /
/// infinity in any case, which give plus or minus QelFileInfinity) filling
/// the whole of `text`; false if it is none.
QEL_API bool QelParseNumber(std::string_view text, double& v);

/// The flat form of `model` for `format`: every object checked (refused
/// ones throw, or are listed in `options`), every name made valid and
/// unique. Columns come in this order: those of the objective, then those
/// of the other members as met.
QEL_API QelFileModel QelFlattenModel(const QelModel& model, QelFileFormat format,
                                     QelWriteOptions* options);

/// Builds the model of `file` in `env`; on failure every object made is
/// ended and the exception passes on.
QEL_API QelModel QelBuildModel(QelEnv env, const QelFileModel& file);

/// Names to indices, for the readers: open addressing, each slot holding
/// the name's hash, its value and, for a name of up to 15 characters, the
/// name itself, so that a lookup reads one slot and not the text. Longer
/// names are kept as views into the text being read.
class QelNameTable {
 public:
  /// Room for about `n` names without growing.
  void reserve(size_t n) {
    size_t want = 16;
    while (want < 2 * n) want *= 2;
    if (want > _slots.size()) rehash(want);
  }
  /// The value of `name`, or -1.
  std::int64_t find(std::string_view name) const {
    if (_slots.empty()) return -1;
    std::uint64_t h = Hash(name);
    size_t mask = _slots.size() - 1;
    for (size_t i = h & mask;; i = (i + 1) & mask) {
      const Slot& s = _slots[i];
      if (s.len == Empty) return -1;
      if (s.hash == h && Same(s, name)) return s.value;
    }
  }
  /// Adds `name` with `value` (the name must not be there yet; values fit
  /// in 32 bits).
  void insert(std::string_view name, std::int64_t value) {
    if (2 * (_count + 1) > _slots.size()) rehash(_slots.empty() ? 16 : 2 * _slots.size());
    Slot s;
    s.hash = Hash(name);
    s.value = static_cast<std::int32_t>(value);
    if (name.size() <= Inline) {
      s.len = static_cast<std::uint8_t>(name.size());
      std::memcpy(s.text, name.data(), name.size());
    } else {
      s.len = Long;
      s.key = static_cast<std::int32_t>(_long.size());
      _long.push_back(name);
    }
    place(s);
    ++_count;
  }

 private:
  static constexpr size_t Inline = 15;
  static constexpr std::uint8_t Long = 254;
  static constexpr std::uint8_t Empty = 255;
  struct Slot {
    std::uint64_t hash = 0;
    std::int32_t value = 0;
    std::int32_t key = 0;  // index in _long for a long name
    std::uint8_t len = Empty;
    char text[Inline] = {};
  };
  static std::uint64_t Hash(std::string_view s) {
    std::uint64_t h = 1469598103934665603ULL;
    for (char c : s) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    return h ^ (h >> 29);
  }
  bool Same(const Slot& s, std::string_view name) const {
    if (s.len == Long) return _long[static_cast<size_t>(s.key)] == name;
    return s.len == name.size() && std::memcmp(s.text, name.data(), name.size()) == 0;
  }
  void place(const Slot& s) {
    size_t mask = _slots.size() - 1;
    size_t i = s.hash & mask;
    while (_slots[i].len != Empty) i = (i + 1) & mask;
    _slots[i] = s;
  }
  void rehash(size_t size) {
    std::vector<Slot> old(size);
    old.swap(_slots);
    for (const Slot& s : old)
      if (s.len != Empty) place(s);
  }
  std::vector<Slot> _slots;
  std::vector<std::string_view> _long;
  size_t _count = 0;
};

/// Text written in large pieces to a stream.
class QelTextSink {
 public:
  /// Writes to `out`.
  explicit QelTextSink(std::ostream& out) : _out(out) { _buf.reserve(1 << 16); }
  QelTextSink(const QelTextSink&) = delete;
  QelTextSink& operator=(const QelTextSink&) = delete;
  /// Writes what is left.
  ~QelTextSink() { flush(); }
  /// Appends `s`.
  QelTextSink& operator<<(std::string_view s) {
    _buf.append(s.data(), s.size());
    if (_buf.size() >= (1 << 16)) flush();
    return *this;
  }
  /// Appends `c`.
  QelTextSink& operator<<(char c) {
    _buf += c;
    return *this;
  }
  /// Appends the shortest text of `v` (see QelAppendNumber).
  QelTextSink& number(double v) {
    QelAppendNumber(_buf, v);
    return *this;
  }
  /// Hands the text to the stream.
  void flush() {
    _out.write(_buf.data(), static_cast<std::streamsize>(_buf.size()));
    _buf.clear();
  }

 private:
  std::ostream& _out;
  std::string _buf;
};

/// Writes `f` in free MPS to `stream`.
QEL_API void QelWriteMps(const QelFileModel& f, std::ostream& stream);
/// Writes `f` in the LP format to `stream`.
QEL_API void QelWriteLp(const QelFileModel& f, std::ostream& stream);
/// Parses MPS text (`fixed`: fixed columns) into the flat form.
QEL_API QelFileModel QelParseMps(std::string_view text, const std::string& fileName, bool fixed);
/// Parses LP text into the flat form.
QEL_API QelFileModel QelParseLp(std::string_view text, const std::string& fileName);

#endif

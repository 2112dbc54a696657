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

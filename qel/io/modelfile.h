// Model files: a model written to, and read from, the MPS and LP text
// formats that mixed-integer solvers read.
//
// What a file holds: numeric, integer and Boolean variables with their
// bounds (infinite ones included), ranges lb <= linear expression <= ub, one
// objective with its sense, constant, linear and quadratic terms, and
// special ordered sets of type 1 and 2 with their weights. Anything else a
// model holds (an all-different, a pack, a difference, an all-min-distance,
// a lexicographic objective with more than one criterion, a non-linear
// expression, a quadratic term in a constraint, a second objective) cannot
// go into a file: writing throws a QelException naming the object, its
// class and the format, and writes nothing, unless the options ask to
// leave those objects out and list them.
//
//   QelEnv env;
//   QelModel m = ...;
//   QelWriteModel(m, "plan.mps");                 // format from the extension
//   QelModel back = QelReadModel(env, "plan.lp");
//
// Formats. `.mps` is free MPS (names without spaces, numbers of any
// length); fixed MPS (fields in columns 2-3, 5-12, 15-22, 25-36, 40-47,
// 50-61, names that may hold spaces) is read with QelFileFormat::FixedMps.
// `.lp` is the LP text format (sections Minimize/Maximize, Subject To,
// Bounds, General/Integer, Binary, SOS, End).
//
// Numbers are written in their shortest form that reads back to the same
// double, so a model written and read again has the same bounds and
// coefficients bit for bit. A bound or a right-hand side of magnitude 1e20
// or more is infinite: it is written as infinite and read back as
// -QelFileInfinity or QelFileInfinity. Zero coefficients are not kept.
//
// Names. Every name is made valid and unique for its format: characters the
// format does not allow become '_', a name that could be taken for a number
// or a keyword gets a leading '_', a name already taken gets "_2", "_3", ...
// appended, and an object without a name is named after its id ("x12" for
// variable 12, "r40" for a range, "s7" for a set, "obj" for the objective).
// The reader keeps the names of the file.
//
// Reading rules where formats are loose:
//   - an integer column of MPS (between MARKER INTORG and INTEND) without
//     bounds has the bounds [0, +infinity);
//   - an UP (or UI) bound below zero on a column whose lower bound is still
//     the default 0 makes the lower bound minus infinity, on integer and
//     continuous columns alike (an explicit LO, MI or FX before it is kept);
//   - the first N row is the objective; later N rows are free rows and are
//     dropped with their coefficients;
//   - RHS on the objective row gives the objective constant, negated;
//   - a RANGES entry R on an E row gives [rhs, rhs + |R|] when R > 0 and
//     [rhs - |R|, rhs] when R < 0; on an L row [rhs - |R|, rhs], on a G row
//     [rhs, rhs + |R|];
//   - a BV bound makes a Boolean variable; LI / UI make the column integer;
//   - in an LP file a variable in General is integer, one in Binary is
//     Boolean with bounds [0, 1] (those Bounds gave are kept); `inf`,
//     `infinity` (any case, signed) are infinite; `\` starts a comment;
//     expressions may run over lines, a coefficient on its variable's line;
//   - in an LP file a bound is taken as written (a negative upper bound
//     keeps the lower bound 0), and a name met first in Bounds, General,
//     Binary or SOS is a new variable;
//   - a read model holds the objective, then the rows, then the sets, then
//     every variable that appears in none of them, in the file's order.
//
// Writing rules: columns are written in the order a reader meets them (the
// objective's, then those of the rows and sets, then the unused ones); a
// member of a set without a weight gets the previous weight plus one; a
// range whose lower bound is above its upper bound has no MPS form and is
// refused in that format; a row with both bounds infinite is written as
// ">= -1e+30".
//
// Errors. A file that cannot be read gives one QelException whose message
// reads
//     <file>:<line>: expected <what was expected>, found "<text>"
// or, when the line is well formed but its meaning is wrong,
//     <file>:<line>: <what is wrong>
// e.g. `plan.mps:12: expected a bound type (UP, LO, FX, FR, MI, PL, BV,
// LI, UI), found "XX"` or `plan.lp:9: row "c1" defined twice`
// ("end of line" or "end of file" replaces the quoted text when nothing is
// left). A missing file gives
// `cannot open "<path>"`. A failed read creates nothing: the whole file is
// checked before the first object is made, and a refusal of memory while
// the model is built ends every object made so far.
#ifndef QEL_IO_MODELFILE_H
#define QEL_IO_MODELFILE_H

#include <iosfwd>
#include <string>
#include <vector>

#include <qel/kernel/expr.h>
#include <qel/model/model.h>

/// The formats a model file can have.
enum class QelFileFormat {
  Auto,      ///< from the file name: ".mps" MPS, ".lp" LP
  Mps,       ///< free MPS (fields separated by blanks)
  FixedMps,  ///< fixed MPS (fields in fixed columns; read only)
  Lp         ///< the LP text format
};

/// A bound or right-hand side of this magnitude or more is infinite; the
/// reader gives infinite bounds as plus or minus this value.
constexpr double QelFileInfinity = 1e20;

/// How a model is written.
struct QelWriteOptions {
  /// Leave out what the format cannot hold instead of throwing; the
  /// objects left out are listed in `leftOut`.
  bool skipUnsupported = false;
  /// With skipUnsupported: one line per object left out, e.g.
  /// `"alldiff" (QelAllDiffI): no all-different constraint in the LP format`.
  std::vector<std::string> leftOut;
};

/// The format of `path` from its extension (.mps or .lp, any case); throws
/// QelException `cannot tell the format of "<path>" (use .mps or .lp)`.
QEL_API QelFileFormat QelFileFormatOf(const std::string& path);

/// Writes `model` to the file `path` in `format` (Auto: by extension). On
/// failure nothing is left at `path` by this call.
QEL_API void QelWriteModel(const QelModel& model, const std::string& path,
                           QelFileFormat format = QelFileFormat::Auto,
                           QelWriteOptions* options = nullptr);
/// Writes `model` to `out` in `format` (not Auto; not FixedMps).
QEL_API void QelWriteModel(const QelModel& model, std::ostream& out, QelFileFormat format,
                           QelWriteOptions* options = nullptr);

/// What a model file held.
struct QelModelFileCounts {
  long rows = 0;      ///< rows (the objective not counted)
  long columns = 0;   ///< columns (variables)
  long integers = 0;  ///< integer and Boolean columns
  long nonzeros = 0;  ///< coefficients in the rows
  long sets = 0;      ///< special ordered sets
};

/// Reads the model in the file `path` into `env` (format Auto: by
/// extension). Returns the new model; its members are the objective, the
/// rows, the sets and the unused variables, all new objects of `env`. With
/// `counts`, tells what the file held.
QEL_API QelModel QelReadModel(QelEnv env, const std::string& path,
                              QelFileFormat format = QelFileFormat::Auto,
                              QelModelFileCounts* counts = nullptr);
/// Reads a model from `in` (format not Auto); `fileName` names the input in
/// error messages.
QEL_API QelModel QelReadModel(QelEnv env, std::istream& in, QelFileFormat format,
                              const std::string& fileName = "input");

/// Ends a model read by QelReadModel and every object it holds: its
/// members, and the variables they use (a variable used elsewhere too is
/// ended all the same).
QEL_API void QelEndReadModel(const QelModel& model);

#endif

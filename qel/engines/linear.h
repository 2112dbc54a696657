// Reading expressions for the engines: linear forms, their bounds and
// integrality, and content hashes of modeling objects.
//
// QelLinearize flattens an expression built from variables, linear terms of
// either class, aggregate terms and products into constant + sum of
// coef * var (+ quadratic terms), merging repeated variables. What is not
// linear (a product of two non-constant expressions, a quadratic term) is
// reported, not dropped.
//
// QelContentHash summarises what an engine extracted from an object (bounds,
// coefficients, the variables and expressions it holds, weights, sizes), so
// that changes the library makes without a notice are found before a solve.
#ifndef QEL_ENGINES_LINEAR_H
#define QEL_ENGINES_LINEAR_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <qel/qel.h>

/// One quadratic term coef * var1 * var2.
struct QelQuadTerm {
  QelNumVarI* var1;  ///< first variable
  QelNumVarI* var2;  ///< second variable
  double coef;       ///< coefficient
};

/// constant + sum coef * var + sum coef * var1 * var2.
struct QelLinearForm {
  double constant = 0;                                ///< the constant
  std::vector<std::pair<QelNumVarI*, double>> terms;  ///< merged, no zero coefficient
  std::vector<QelQuadTerm> quad;                      ///< quadratic terms
  /// Empty when every part was understood; else what was not (a class
  /// name, "a product of two expressions", ...).
  std::string unsupported;

  /// Whether there are neither quadratic terms nor unsupported parts.
  bool isLinear() const { return quad.empty() && unsupported.empty(); }
  /// Adds coef * v to the terms (merging).
  void addTerm(QelNumVarI* v, double coef);
  /// Appends coef * v without merging (merge() afterwards).
  void appendTerm(QelNumVarI* v, double coef) { terms.emplace_back(v, coef); }
  /// Merges the terms of equal variables (first appearance kept in place)
  /// and drops zero coefficients, in time linear in the number of terms.
  void merge();
  /// Adds factor * other.
  void addScaled(const QelLinearForm& other, double factor);
};

/// Appends factor * e to `form` (terms unmerged: QelLinearFormOf merges
/// them, other callers call merge()). Every variable of `e` is met in the
/// unmerged terms, those of zero coefficients too (a quadratic term of
/// coefficient zero gives each of its variables a zero term), so that an
/// engine can give each one a value. Returns false (and fills
/// form.unsupported) when part of `e` is not linear or quadratic.
bool QelLinearize(const QelNumExprI* e, double factor, QelLinearForm& form);

/// The parts of `e` when it is a linear term (of either class) holding
/// linear terms only, to be read in place; null otherwise (null `e` too).
const QelLinearParts* QelPlainLinearParts(const QelNumExprI* e);

/// The form of `e` alone.
QelLinearForm QelLinearFormOf(const QelNumExprI* e);

/// Smallest and largest value the linear part can take over the variable
/// bounds (quadratic terms are ignored); infinite when unbounded.
std::pair<double, double> QelBoundsOf(const QelLinearForm& form);

/// Whether every variable of the form is integer or Boolean and every
/// coefficient and the constant are integers.
bool QelIsIntegral(const QelLinearForm& form);

/// Magnitude from which a bound counts as infinite (1e20, the usual
/// convention of mathematical programming codes), as do infinities.
constexpr double QelInfiniteBound = 1e20;

/// Whether the bound `v` counts as infinite.
bool QelIsInfiniteBound(double v);

/// Whether `v` is an integer (and finite).
bool QelIsIntegerValue(double v);

/// A hash of what an engine reads from `x` (see the header comment).
std::uint64_t QelContentHash(const QelExtractableI* x);

#endif

// Basic types of the Qel library and forward declarations of its classes.
//
// QelInt is the library's 64-bit signed integer, QelBool its truth value;
// numeric values are doubles, and QelInfinity is the bound that is no bound.
// Every header of the library includes this one.
#ifndef QEL_KERNEL_TYPES_H
#define QEL_KERNEL_TYPES_H

#include <cstddef>
#include <cstdint>

#include <qel/kernel/export.h>

/// The library's 64-bit signed integer.
using QelInt = std::int64_t;
/// The library's truth value.
using QelBool = bool;
/// The infinite bound, 1e20. A bound of this magnitude or more (IEEE
/// infinity included) is no bound: `x + y <= 8` is the range
/// -QelInfinity <= x + y <= 8, which prints and evaluates as one-sided, and
/// the engines read such bounds as their own infinity. A finite number
/// rather than IEEE infinity, so that bounds stay ordinary numbers through
/// arithmetic (no infinity minus infinity).
inline constexpr double QelInfinity = 1e20;

/// Whether `bound` is infinite: its magnitude is QelInfinity or more.
constexpr bool QelIsInfinite(double bound) { return bound >= QelInfinity || bound <= -QelInfinity; }

/// A class's type info: the address of one static function of the class.
using QelTypeInfo = void (*)();

class QelEnvI;
class QelEnv;
class QelMemory;
class QelGenAlloc;
class QelMemoryManagerObjectI;
class QelMemoryManager;
class QelCustomAllocatorI;
class QelExtension;
class QelArrayI;
class QelRtti;
class QelRttiEnvObjectI;
class QelExtractableI;
class QelExtractable;
class QelExtractableArray;
class QelExtractableVisitor;
class QelChange;
class QelChangeVisitor;
class QelAlgorithmI;
class QelAlgorithm;
class QelNumExprI;
class QelIntExprI;
class QelNumVarI;
class QelNumLinTermI;
class QelIntLinTermI;
class QelConstraintI;
class QelModelI;
class QelObjectiveI;
class QelNamedPropertyI;
class QelNamedPropertySetI;
class QelParameterExtractableLinkI;

#endif

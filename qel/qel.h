// The whole Qel library in one include.
//
// Qel is the object core of a modeling library for optimization and
// constraint programming: environments and their memory, modeling objects
// (extractables) with names and properties, change notices and engine hook
// slots, arrays and models, objectives and global constraints.
#ifndef QEL_QEL_H
#define QEL_QEL_H

#include <qel/change/change.h>
#include <qel/change/hooks.h>
#include <qel/change/notices.h>
#include <qel/collections/extractablearray.h>
#include <qel/collections/extractablelist.h>
#include <qel/constraints/alldiff.h>
#include <qel/constraints/diff.h>
#include <qel/constraints/pack.h>
#include <qel/constraints/sos.h>
#include <qel/constraints/sosarray.h>
#include <qel/extractable/extractable.h>
#include <qel/extractable/property.h>
#include <qel/extractable/visitor.h>
#include <qel/io/modelfile.h>
#include <qel/kernel/algorithm.h>
#include <qel/kernel/array.h>
#include <qel/kernel/constraint.h>
#include <qel/kernel/env.h>
#include <qel/kernel/exception.h>
#include <qel/kernel/expr.h>
#include <qel/kernel/memory.h>
#include <qel/kernel/mutex.h>
#include <qel/kernel/rtti.h>
#include <qel/kernel/types.h>
#include <qel/model/model.h>
#include <qel/objective/multicriterion.h>
#include <qel/objective/objective.h>
#include <qel/objective/objectivechange.h>

#endif

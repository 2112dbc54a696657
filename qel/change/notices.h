// Every change-notice class of the library, in one include.
//
// Engines that follow notices through the hook slots include this header
// to reach every _applyCP slot; qel/change/notices.def lists the classes.
#ifndef QEL_CHANGE_NOTICES_H
#define QEL_CHANGE_NOTICES_H

#include <qel/change/change.h>
#include <qel/constraints/alldiff.h>
#include <qel/model/model.h>
#include <qel/objective/objectivechange.h>
#include <qel/constraints/sos.h>

#endif

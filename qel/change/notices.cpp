// The out-of-line members of every notice class, generated from the list.
#include <qel/change/notices.h>

#define QEL_NOTICE(N, B) QEL_CHANGE_DEF(N)
#include <qel/change/notices.def>
#undef QEL_NOTICE

QEL_RTTI_DEF(QelAddNumVar)

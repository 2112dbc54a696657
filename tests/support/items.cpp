// Out-of-line members of the tests' own extractable classes.
#include "support/items.h"

namespace qeltest {
QEL_EXTRACTABLE_DEF(ItemI)
QEL_EXTRACTABLE_DEF(HolderI)
}  // namespace qeltest

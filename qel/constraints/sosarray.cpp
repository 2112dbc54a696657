// Arrays of special ordered sets: the count checks of their constructors.
// Unlike the general extractable array's messages, there is no blank
// between "!=" and the number.
#include <qel/constraints/sosarray.h>

void QelSOS1ArrayTraits::CheckCount(QelInt n, long k) {
  QelExtractableArray::CheckCount("QelSOS1Array::QelSOS1Array: n !=", static_cast<long>(n), k);
}

void QelSOS2ArrayTraits::CheckCount(QelInt n, long k) {
  QelExtractableArray::CheckCount("QelSOS2Array::QelSOS2Array: n !=", static_cast<long>(n), k);
}

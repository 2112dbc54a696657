// Arrays of special ordered sets.
//
// QelSOS1Array and QelSOS2Array are extractable arrays whose elements are
// sets of one type. Beyond what every extractable array offers, they have
// constructors from one to ten set handles that check the announced count:
// a count that differs from the number of handles given throws
// QelWrongUsage and adds nothing. The array does not own the sets; an empty
// handle becomes a null element.
//
//   QelSOS1 a(env, "a"), b(env, "b");
//   QelSOS1Array sets(env, 2, a, b);     // [a, b]
//   QelSOS1 first = sets[0];
//   QelSOS1Array bad(env, 3, a, b);      // throws "QelSOS1Array::QelSOS1Array: n !=2"
//   sets.end();                          // releases the array, not the sets
#ifndef QEL_CONSTRAINTS_SOSARRAY_H
#define QEL_CONSTRAINTS_SOSARRAY_H

#include <type_traits>

#include <qel/collections/extractablearray.h>
#include <qel/constraints/sos.h>

/// Type 1 for the set arrays: the handle kind and the count check.
struct QEL_API QelSOS1ArrayTraits : QelSOS1Traits {
  /// Throws QelWrongUsage "QelSOS1Array::QelSOS1Array: n !=k" when n != k.
  static void CheckCount(QelInt n, long k);
};

/// Type 2 for the set arrays: the handle kind and the count check.
struct QEL_API QelSOS2ArrayTraits : QelSOS2Traits {
  /// Throws QelWrongUsage "QelSOS2Array::QelSOS2Array: n !=k" when n != k.
  static void CheckCount(QelInt n, long k);
};

/// The array body shared by both types.
template <class Traits>
class QelSOSArray : public QelExtractableArray {
 public:
  /// The set handle class of the elements.
  using Handle = typename Traits::Handle;

  /// An empty handle.
  QelSOSArray() = default;
  /// A handle on `impl`.
  QelSOSArray(QelArrayI* impl) : QelExtractableArray(impl) {}
  /// An array of the k given sets (k from 1 to 10), in order, made in
  /// `env`; throws QelWrongUsage when n differs from k (the empty array
  /// already made stays in the handle, and no set is added).
  template <class... Sets,
            class = std::enable_if_t<(sizeof...(Sets) >= 1 && sizeof...(Sets) <= 10) &&
                                     (std::is_convertible<Sets, Handle>::value && ...)>>
  QelSOSArray(QelEnv env, QelInt n, const Sets&... sets) : QelExtractableArray(env, 0) {
    Traits::CheckCount(n, static_cast<long>(sizeof...(Sets)));
    // A set that cannot be added (refused memory) takes the array with it.
    try {
      (add(QelExtractable(Handle(sets))), ...);
    } catch (...) {
      end();
      throw;
    }
  }
  /// Element i as a set handle (empty for a null element).
  Handle operator[](long i) const {
    return Handle(static_cast<typename Traits::SetI*>(getElement(i)));
  }
};

/// Array of special ordered sets of type 1.
class QEL_API QelSOS1Array : public QelSOSArray<QelSOS1ArrayTraits> {
 public:
  using QelSOSArray<QelSOS1ArrayTraits>::QelSOSArray;
  /// An empty handle.
  QelSOS1Array() = default;
};

/// Array of special ordered sets of type 2.
class QEL_API QelSOS2Array : public QelSOSArray<QelSOS2ArrayTraits> {
 public:
  using QelSOSArray<QelSOS2ArrayTraits>::QelSOSArray;
  /// An empty handle.
  QelSOS2Array() = default;
};

#endif

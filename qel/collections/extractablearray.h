// QelExtractableArray: the handle through which groups of modeling objects
// travel.
//
// A thin handle over the block-table array (QelArrayI) whose elements are
// QelExtractableI pointers: the members added to or removed from a model,
// objects named together, objects ended together. The array owns none of
// its elements; null elements are allowed. Copies of a handle share the
// same array.
//
//   QelExtractableArray xs(env, 3, a, b, c);    // n must equal the count
//   xs.add(d);
//   long where = xs.find(b);                    // 1
//   xs.setNames("v");                           // v(0), v(1), v(2), v(3)
//   xs.endElements();                           // ends them together
//   xs.end();                                   // releases the array
#ifndef QEL_COLLECTIONS_EXTRACTABLEARRAY_H
#define QEL_COLLECTIONS_EXTRACTABLEARRAY_H

#include <ostream>
#include <type_traits>

#include <qel/extractable/extractable.h>
#include <qel/kernel/array.h>

/// Array handle of extractables.
class QEL_API QelExtractableArray : public QelArray<QelExtractable> {
 public:
  /// An empty handle.
  QelExtractableArray() = default;
  /// A handle on `impl`.
  QelExtractableArray(QelArrayI* impl) : QelArray<QelExtractable>(impl) {}
  /// A handle on the same array as `a`.
  QelExtractableArray(const QelArray<QelExtractable>& a) : QelArray<QelExtractable>(a.getImpl()) {}
  /// An array of `n` null elements, allocated from `m`.
  QelExtractableArray(QelMemoryManager m, long n);
  /// An array of `n` null elements, allocated in `env`.
  QelExtractableArray(QelEnv env, long n);
  /// An array of the k given objects (k from 1 to 10), in order; throws
  /// QelWrongUsage "QelExtractableArray::QelExtractableArray: n != k" when
  /// n differs from k (the handle then already holds an empty array).
  /// Empty handles become null elements. When an element cannot be added
  /// (refused memory), the array is released before the failure goes on.
  template <class... Xs,
            class = std::enable_if_t<(sizeof...(Xs) >= 1 && sizeof...(Xs) <= 10) &&
                                     (std::is_convertible<Xs, QelExtractable>::value && ...)>>
  QelExtractableArray(QelEnv env, long n, const Xs&... xs) : QelExtractableArray(env, 0) {
    CheckCount("QelExtractableArray::QelExtractableArray: n != ", n,
               static_cast<long>(sizeof...(Xs)));
    try {
      (add(QelExtractable(xs)), ...);
    } catch (...) {
      end();
      throw;
    }
  }

  /// Element i (null for a null element).
  QelExtractableI* getElement(long i) const { return QelArrayGet<QelExtractableI*>(_impl, i); }
  /// Appends `x` (an empty handle appends a null element).
  void add(QelExtractable x) const { QelArray<QelExtractable>::add(x); }
  /// Appends `n` copies of `x`; 0 does nothing, a negative n lowers the size
  /// by |n|.
  void add(long n, QelExtractable x) const;
  /// Appends every element of `other`, in order.
  void add(const QelExtractableArray& other) const { _impl->addArray(other.getImpl()); }
  /// Index of the last element equal to `x`, or -1.
  long find(QelExtractable x) const;
  /// Removes every element that is ended or carries the removal mark,
  /// keeping the order of the others. One pass.
  void removeMarked() const;
  /// Ends every element (models are emptied first, use-counted expressions
  /// ended singly, the rest together in one pass over the environment) and
  /// empties the array.
  void endElements() const;
  /// Names the elements name(0), name(1), ... (elements that had a name get
  /// the new one too) and sends one QelSetNameArrayChange. All or nothing:
  /// when memory is refused, every element keeps the name it had.
  void setNames(const char* name) const;
  /// Replaces the handle's array by a new array (in `env`, or in each
  /// element's own environment when `env` is null) of the elements' clones.
  /// The old array is neither freed nor changed.
  void replaceByClone(QelEnvI* env);

  /// Throws QelWrongUsage with `prefix` followed by k when n != k.
  static void CheckCount(const char* prefix, long n, long k);
};

/// Prints an extractable array in the shared array form: nothing for an
/// empty handle, else "[a, b, c]" with each element's display.
QEL_API std::ostream& operator<<(std::ostream& os, const QelArray<QelExtractable>& a);

#endif

// Growable arrays in environment memory.
//
// QelArrayI is the representation behind every array handle of the
// library: elements of 8 bytes (pointers, doubles, 64-bit integers) stored
// in blocks, element i at blocks[i >> shift][i & mask]. Blocks are added as
// the array grows, so growing never moves existing blocks (a small array is
// re-blocked once into larger blocks when it becomes large). The array also
// keeps where its next element goes and the end of that block, so that an
// append within a block is a compare and three stores (the element, where
// the next goes, the size), with no index arithmetic. Storage comes from an
// environment's general allocator.
//
// QelArray<T> is the typed handle over it; QelNumArray, QelIntArray and
// QelBoolArray are its numeric kinds. Copying a handle copies the pointer:
// copies share the same array. `end()` releases the array.
//
//   QelNumArray w(env, 0);
//   w.add(1.5);
//   w.add(2.5);
//   double first = w[0];
//   w.end();
#ifndef QEL_KERNEL_ARRAY_H
#define QEL_KERNEL_ARRAY_H

#include <cstring>
#include <iosfwd>
#include <ostream>
#include <type_traits>

#include <qel/kernel/env.h>

/// The block-table array of 8-byte elements.
class QEL_API QelArrayI {
 public:
  /// Largest block: 2^MaxShift elements.
  static constexpr long MaxShift = 12;
  /// Smallest block: 2^MinShift elements.
  static constexpr long MinShift = 3;

  /// An array of `size` elements of `elementSize` bytes (8), zero-filled,
  /// with storage from `alloc`. The array object itself is placed by the
  /// caller (see QelArrayI::Make).
  QelArrayI(QelGenAlloc* alloc, long size, long elementSize = 8);
  /// A copy of `source` (same elements), with storage from `alloc`.
  QelArrayI(QelGenAlloc* alloc, QelArrayI* source);
  QelArrayI(const QelArrayI&) = delete;
  QelArrayI& operator=(const QelArrayI&) = delete;
  /// Releases the blocks.
  virtual ~QelArrayI();
  /// Gives the array object back to its allocator (read from the raw
  /// block: the allocator follows the table of virtual operations).
  static void operator delete(void* p, size_t size);
  /// Placement form.
  static void* operator new(size_t, void* place) noexcept { return place; }
  /// Matching placement delete (does nothing).
  static void operator delete(void*, void*) noexcept {}

  /// A new array of `size` elements placed in `alloc`.
  static QelArrayI* Make(QelGenAlloc* alloc, long size);
  /// A new copy of `source` placed in `alloc`.
  static QelArrayI* MakeCopy(QelGenAlloc* alloc, QelArrayI* source);

  /// Number of elements.
  long getSize() const { return _size; }
  /// Sets the number of elements (capacity must suffice: see grow).
  void setSize(long size) {
    _size = size;
    syncTail();
  }
  /// Number of elements the blocks can hold.
  long getCapacity() const { return _blockCount << _shift; }
  /// Ensures capacity and blocks for `newSize` elements (the caller then
  /// sets the size). New elements are zero.
  void grow(long newSize);
  /// Removes `count` elements from index `first`; later elements move down.
  void remove(long first, long count);
  /// Size becomes 0 (the blocks are kept).
  void clear() {
    _size = 0;
    syncTail();
  }
  /// Appends every element of `other`.
  void addArray(QelArrayI* other);
  /// Appends one raw element (inline within a block; growing, or moving
  /// to the next block, is out of line).
  void addRaw(std::uint64_t word) {
    if (_tail != _tailEnd) {
      *_tail++ = word;
      ++_size;
    } else {
      addRawSlow(word);
    }
  }
  /// The allocator of the storage.
  QelGenAlloc* getAllocator() const { return _alloc; }
  /// The environment owning the storage.
  QelEnvI* getEnv() const { return _alloc->getEnv(); }
  /// Element i as a raw word.
  std::uint64_t& rawAt(long i) {
    return static_cast<std::uint64_t*>(_blocks[i >> _shift])[i & _mask];
  }
  /// Element i as a raw word.
  std::uint64_t rawAt(long i) const {
    return static_cast<const std::uint64_t*>(_blocks[i >> _shift])[i & _mask];
  }
  /// Bits of the in-block index.
  long getShift() const { return _shift; }
  /// The in-block index mask.
  long getMask() const { return _mask; }
  /// Number of blocks.
  long getBlockCount() const { return _blockCount; }
  /// The words of block b: elements b << getShift() onwards (b below
  /// getBlockCount()).
  const std::uint64_t* getBlock(long b) const {
    return static_cast<const std::uint64_t*>(_blocks[b]);
  }
  /// Calls f(word) for every element in order, a block at a time (the
  /// block table is read once per block). `f` must not change the array.
  template <class F>
  void forEachRaw(F f) const {
    const long blockSize = 1L << _shift;
    long left = _size;
    for (long b = 0; left > 0; ++b) {
      const std::uint64_t* w = getBlock(b);
      const std::uint64_t* end = w + (left < blockSize ? left : blockSize);
      left -= end - w;
      for (; w != end; ++w) f(*w);
    }
  }

 private:
  void init(long size);
  void reblock(long newShift, long minCapacity);
  void freeStorage();
  void addRawSlow(std::uint64_t word);
  // Points the tail at the slot of element _size and its end at the end of
  // that slot's block; both null when no block holds that slot.
  void syncTail() {
    if (_size < getCapacity()) {
      auto* block = static_cast<std::uint64_t*>(_blocks[_size >> _shift]);
      _tail = block + (_size & _mask);
      _tailEnd = block + _mask + 1;
    } else {
      _tail = _tailEnd = nullptr;
    }
  }

  QelGenAlloc* _alloc;  // first after the table of virtual operations
  long _size = 0;
  long _mask = 0;
  std::int32_t _shift = MinShift;
  std::int32_t _blockTableCapacity = 1;
  void** _blocks;
  long _blockCount = 0;
  void* _inlineTable[1] = {nullptr};
  std::uint64_t* _tail = nullptr;
  std::uint64_t* _tailEnd = nullptr;
};

/// The raw element word `w` as a T.
template <class T>
inline T QelArrayWordAs(std::uint64_t w) {
  static_assert(sizeof(T) <= 8 && std::is_trivially_copyable<T>::value,
                "array elements are trivially copyable 8-byte words");
  T t;
  std::memcpy(static_cast<void*>(&t), &w, sizeof(T));
  return t;
}

/// Reads element `i` of `a` as a T.
template <class T>
inline T QelArrayGet(const QelArrayI* a, long i) {
  return QelArrayWordAs<T>(a->rawAt(i));
}

/// `t` as a raw element word (the bytes past sizeof(T) zero).
template <class T>
inline std::uint64_t QelArrayWordOf(T t) {
  std::uint64_t w = 0;
  std::memcpy(&w, static_cast<const void*>(&t), sizeof(T));
  return w;
}

/// Writes `t` into element `i` of `a`.
template <class T>
inline void QelArraySet(QelArrayI* a, long i, T t) {
  a->rawAt(i) = QelArrayWordOf<T>(t);
}

/// Reads the elements of an array in order, from the first on, a block at
/// a time: the block table is read once per block instead of once per
/// element. The caller reads no more than the array's size, and the array
/// must not change while it is read.
class QelArrayReader {
 public:
  /// A reader at element 0 of `a`.
  explicit QelArrayReader(const QelArrayI* a) : _array(a) {}
  /// The next element as a raw word.
  std::uint64_t next() {
    if (_at == _end) {
      _at = _array->getBlock(_block++);
      _end = _at + (1L << _array->getShift());
    }
    return *_at++;
  }
  /// The next element as a T.
  template <class T>
  T next() {
    return QelArrayWordAs<T>(next());
  }

 private:
  const QelArrayI* _array;
  const std::uint64_t* _at = nullptr;
  const std::uint64_t* _end = nullptr;
  long _block = 0;
};

/// The display form shared by every array printing of the library: "[",
/// the elements each followed by "," and a blank, except that a line end
/// replaces the blank after every tenth element and nothing follows the
/// last one, then "]". `print(os, i)` prints element i.
template <class PrintElement>
void QelPrintArrayForm(std::ostream& os, long n, PrintElement print) {
  os << "[";
  for (long i = 0; i + 1 < n; ++i) {
    print(os, i);
    os << ",";
    if ((i + 1) % 10 == 0)
      os << std::endl;
    else
      os << " ";
  }
  if (n >= 1) print(os, n - 1);
  os << "]";
}

/// Base of the array handles: one pointer to a QelArrayI.
class QEL_API QelArrayBase {
 public:
  /// An empty handle.
  QelArrayBase() = default;
  /// A handle on `impl`.
  QelArrayBase(QelArrayI* impl) : _impl(impl) {}
  /// The implementation, or null.
  QelArrayI* getImpl() const { return _impl; }
  /// Number of elements (0 for an empty handle).
  long getSize() const { return _impl != nullptr ? _impl->getSize() : 0; }
  /// Removes `count` elements from index `first`.
  void remove(long first, long count = 1) const { _impl->remove(first, count); }
  /// Size becomes 0.
  void clear() const {
    if (_impl != nullptr) _impl->clear();
  }
  /// Releases the array; the handle becomes empty. From a thread that is
  /// not the environment's allocator thread, or with its allocation switched
  /// off, throws what freeing would throw and leaves the array as it is.
  void end() {
    if (_impl != nullptr)
      if (QelEnvI* env = _impl->getEnv()) env->checkThread();
    delete _impl;
    _impl = nullptr;
  }
  /// The environment of the array's storage.
  QelEnv getEnv() const { return QelEnv(_impl != nullptr ? _impl->getEnv() : nullptr); }

 protected:
  /// The implementation pointer.
  QelArrayI* _impl = nullptr;
};

/// Typed array handle of 8-byte values T.
template <class T>
class QelArray : public QelArrayBase {
 public:
  /// An empty handle.
  QelArray() = default;
  /// A handle on `impl`.
  QelArray(QelArrayI* impl) : QelArrayBase(impl) {}
  /// An array of `n` zero elements in `env`.
  QelArray(QelEnv env, long n)
      : QelArrayBase(QelArrayI::Make(env.getImpl()->getGeneralAllocator(), n)) {}
  /// An array of `n` zero elements from memory manager `m`.
  QelArray(QelMemoryManager m, long n) : QelArrayBase(QelArrayI::Make(m.getAllocator(), n)) {}
  /// Element i.
  T operator[](long i) const { return QelArrayGet<T>(_impl, i); }
  /// Element i.
  T get(long i) const { return QelArrayGet<T>(_impl, i); }
  /// Sets element i.
  void set(long i, T value) const { QelArraySet<T>(_impl, i, value); }
  /// Appends `value`.
  void add(T value) const { _impl->addRaw(QelArrayWordOf<T>(value)); }
  /// Appends every element of `other`.
  void add(const QelArray<T>& other) const { _impl->addArray(other.getImpl()); }
};

/// Array of doubles.
class QEL_API QelNumArray : public QelArray<double> {
 public:
  using QelArray<double>::QelArray;
  /// An empty handle.
  QelNumArray() = default;
  /// A handle on the same array as `a`.
  QelNumArray(const QelArray<double>& a) : QelArray<double>(a.getImpl()) {}
};

/// Array of 64-bit integers.
class QEL_API QelIntArray : public QelArray<QelInt> {
 public:
  using QelArray<QelInt>::QelArray;
  /// An empty handle.
  QelIntArray() = default;
  /// A handle on the same array as `a`.
  QelIntArray(const QelArray<QelInt>& a) : QelArray<QelInt>(a.getImpl()) {}
};

/// Array of truth values (one 8-byte element each).
class QEL_API QelBoolArray : public QelArray<QelBool> {
 public:
  using QelArray<QelBool>::QelArray;
  /// An empty handle.
  QelBoolArray() = default;
  /// A handle on the same array as `a`.
  QelBoolArray(const QelArray<QelBool>& a) : QelArray<QelBool>(a.getImpl()) {}
};

/// Prints a numeric array in the shared array form (nothing when empty).
QEL_API std::ostream& operator<<(std::ostream& os, const QelNumArray& a);
/// Prints an integer array in the shared array form (nothing when empty).
QEL_API std::ostream& operator<<(std::ostream& os, const QelIntArray& a);

#endif

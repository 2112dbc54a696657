// The block-table array.
#include <cstring>
#include <new>
#include <ostream>

#include <qel/kernel/array.h>

namespace {
long ShiftFor(long n) {
  long shift = QelArrayI::MinShift;
  while (shift < QelArrayI::MaxShift && (1L << shift) < n) ++shift;
  return shift;
}
}  // namespace

QelArrayI::QelArrayI(QelGenAlloc* alloc, long size, long elementSize)
    : _alloc(alloc), _blocks(_inlineTable) {
  (void)elementSize;  // every array of the library holds 8-byte elements
  init(size < 0 ? 0 : size);
}

QelArrayI::QelArrayI(QelGenAlloc* alloc, QelArrayI* source) : _alloc(alloc), _blocks(_inlineTable) {
  long n = source->getSize();
  init(n);
  for (long i = 0; i < n; ++i) rawAt(i) = source->rawAt(i);
}

void QelArrayI::init(long size) {
  _shift = static_cast<std::int32_t>(ShiftFor(size));
  _mask = (1L << _shift) - 1;
  _size = 0;
  if (size > 0) {
    try {
      grow(size);
    } catch (...) {
      freeStorage();
      throw;
    }
  }
  _size = size;
  syncTail();
}

QelArrayI::~QelArrayI() { freeStorage(); }

void QelArrayI::freeStorage() {
  size_t blockBytes = sizeof(std::uint64_t) << _shift;
  for (long b = 0; b < _blockCount; ++b) _alloc->free(_blocks[b], blockBytes);
  if (_blocks != _inlineTable)
    _alloc->free(_blocks, sizeof(void*) * static_cast<size_t>(_blockTableCapacity));
  _blocks = _inlineTable;
  _blockTableCapacity = 1;
  _blockCount = 0;
  syncTail();
}

void QelArrayI::operator delete(void* p, size_t size) {
  QelGenAlloc* alloc;
  std::memcpy(&alloc, static_cast<const char*>(p) + sizeof(void*), sizeof alloc);
  alloc->free(p, size);
}

QelArrayI* QelArrayI::Make(QelGenAlloc* alloc, long size) {
  void* p = alloc->alloc(sizeof(QelArrayI));
  try {
    return new (p) QelArrayI(alloc, size);
  } catch (...) {
    alloc->free(p, sizeof(QelArrayI));
    throw;
  }
}

QelArrayI* QelArrayI::MakeCopy(QelGenAlloc* alloc, QelArrayI* source) {
  void* p = alloc->alloc(sizeof(QelArrayI));
  try {
    return new (p) QelArrayI(alloc, source);
  } catch (...) {
    alloc->free(p, sizeof(QelArrayI));
    throw;
  }
}

void QelArrayI::reblock(long newShift, long minCapacity) {
  // Move to larger blocks once the array has outgrown its small ones.
  long blockElems = 1L << newShift;
  long blocks = (minCapacity + blockElems - 1) / blockElems;
  if (blocks < 1) blocks = 1;  // an array always keeps one block here
  size_t blockBytes = sizeof(std::uint64_t) << newShift;
  size_t tableBytes = sizeof(void*) * static_cast<size_t>(blocks);
  void** table = blocks == 1 ? nullptr : static_cast<void**>(_alloc->alloc(tableBytes));
  void* first = nullptr;
  long made = 0;
  try {
    for (; made < blocks; ++made) {
      void* b = _alloc->alloc(blockBytes);
      std::memset(b, 0, blockBytes);
      if (table != nullptr)
        table[made] = b;
      else
        first = b;
    }
  } catch (...) {
    for (long i = 0; i < made; ++i) _alloc->free(table != nullptr ? table[i] : first, blockBytes);
    if (table != nullptr) _alloc->free(table, tableBytes);
    throw;
  }
  void** newBlocks = table != nullptr ? table : nullptr;
  long newMask = blockElems - 1;
  for (long i = 0; i < _size; ++i) {
    void* block = newBlocks != nullptr ? newBlocks[i >> newShift] : first;
    // Without a table there is one block, `first`: the allocator throws
    // rather than returning null.
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    static_cast<std::uint64_t*>(block)[i & newMask] = rawAt(i);
  }
  long size = _size;
  freeStorage();
  _shift = static_cast<std::int32_t>(newShift);
  _mask = newMask;
  if (newBlocks != nullptr) {
    _blocks = newBlocks;
    _blockTableCapacity = static_cast<std::int32_t>(blocks);
  } else {
    _inlineTable[0] = first;
  }
  _blockCount = blocks;
  _size = size;
  syncTail();
}

void QelArrayI::grow(long newSize) {
  // Slots past the size may still hold elements that remove() or clear()
  // left behind: the new elements start at zero like those of new blocks.
  long capacity = getCapacity();
  long reused = newSize < capacity ? newSize : capacity;
  for (long i = _size; i < reused; ++i) rawAt(i) = 0;
  if (newSize <= capacity) return;
  long blockElems = 1L << _shift;
  long needed = (newSize + blockElems - 1) / blockElems;
  if (_shift < MaxShift && needed > 8) {
    long target = newSize + newSize / 2;
    reblock(ShiftFor(target), target);
    if (newSize <= getCapacity()) return;
    blockElems = 1L << _shift;
    needed = (newSize + blockElems - 1) / blockElems;
  }
  if (needed > _blockTableCapacity) {
    long cap = static_cast<long>(_blockTableCapacity) * 2;
    while (cap < needed) cap *= 2;
    void** table = static_cast<void**>(_alloc->alloc(sizeof(void*) * static_cast<size_t>(cap)));
    for (long b = 0; b < _blockCount; ++b) table[b] = _blocks[b];
    if (_blocks != _inlineTable)
      _alloc->free(_blocks, sizeof(void*) * static_cast<size_t>(_blockTableCapacity));
    _blocks = table;
    _blockTableCapacity = static_cast<std::int32_t>(cap);
  }
  size_t blockBytes = sizeof(std::uint64_t) << _shift;
  while (_blockCount < needed) {
    void* b = _alloc->alloc(blockBytes);
    std::memset(b, 0, blockBytes);
    _blocks[_blockCount++] = b;
    syncTail();
  }
}

void QelArrayI::addRawSlow(std::uint64_t word) {
  // The tail is at the end of a block: the next block holds the element,
  // or a new one once the array has grown.
  if (_size >= getCapacity()) grow(_size + 1);
  rawAt(_size) = word;
  ++_size;
  syncTail();
}

void QelArrayI::remove(long first, long count) {
  if (count <= 0 || first < 0 || first >= _size) return;
  if (first + count > _size) count = _size - first;
  for (long i = first; i + count < _size; ++i) rawAt(i) = rawAt(i + count);
  _size -= count;
  syncTail();
}

void QelArrayI::addArray(QelArrayI* other) {
  if (other == nullptr) return;
  long n = other->getSize();
  long base = _size;
  grow(base + n);
  for (long i = 0; i < n; ++i) rawAt(base + i) = other->rawAt(i);
  _size = base + n;
  syncTail();
}

std::ostream& operator<<(std::ostream& os, const QelNumArray& a) {
  if (a.getImpl() == nullptr) return os;
  QelPrintArrayForm(os, a.getSize(), [&a](std::ostream& o, long i) { o << a[i]; });
  return os;
}

std::ostream& operator<<(std::ostream& os, const QelIntArray& a) {
  if (a.getImpl() == nullptr) return os;
  QelPrintArrayForm(os, a.getSize(), [&a](std::ostream& o, long i) { o << a[i]; });
  return os;
}

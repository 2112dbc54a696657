// Size classes, free lists and block lists of environment memory.
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <qel/kernel/env.h>
#include <qel/kernel/exception.h>
#include <qel/kernel/memory.h>

const unsigned char countBitsUnder16[16] = {0, 1, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4};

// ---- QelAllocationList ------------------------------------------------

// 32 bytes keep the caller's block 16-byte aligned.
struct alignas(16) QelAllocationList::Header {
  Header* prev;
  Header* next;
  long size;
  long pad;
};

void* QelAllocationList::alloc(long size) {
  void* raw = std::malloc(sizeof(Header) + static_cast<size_t>(size));
  if (raw == nullptr) throw QelMemoryException();
  Header* h = static_cast<Header*>(raw);
  h->prev = nullptr;
  h->next = _head;
  h->size = size;
  h->pad = 0;
  if (_head != nullptr) _head->prev = h;
  _head = h;
  _bytesInUse += size;
  ++_blockCount;
  return h + 1;
}

void QelAllocationList::free(void* p) {
  if (p == nullptr) return;
  Header* h = static_cast<Header*>(p) - 1;
  if (h->prev != nullptr)
    h->prev->next = h->next;
  else
    _head = h->next;
  if (h->next != nullptr) h->next->prev = h->prev;
  _bytesInUse -= h->size;
  --_blockCount;
  std::free(h);
}

void QelAllocationList::releaseAll() {
  Header* h = _head;
  while (h != nullptr) {
    Header* next = h->next;
    std::free(h);
    h = next;
  }
  _head = nullptr;
  _bytesInUse = 0;
  _blockCount = 0;
}

// ---- QelMemory --------------------------------------------------------

QelMemory::QelMemory(long smallBlockLimit, long numClasses, bool freeLists)
    : _smallBlockLimit(smallBlockLimit), _numClasses(numClasses) {
  _classes = static_cast<QelFixedSizeAllocatorI*>(
      std::malloc(sizeof(QelFixedSizeAllocatorI) * static_cast<size_t>(numClasses)));
  if (_classes == nullptr) throw QelMemoryException();
  for (long i = 0; i < numClasses; ++i) {
    QelFixedSizeAllocatorI* c = new (&_classes[i]) QelFixedSizeAllocatorI();
    c->freeListMode = freeLists ? 1 : 0;
    c->blockSize = BlockSizeOfClass(i);
    c->allocationList = &_perClassBlocks;
  }
}

QelMemory::~QelMemory() {
  _chunks.releaseAll();
  _perClassBlocks.releaseAll();
  std::free(_classes);
}

long QelMemory::getIndex(long size) const {
  long s = size - 1;
  long q = s >> 3;
  long index;
  if (q <= 7) {
    index = q;
  } else {
    unsigned long x = static_cast<unsigned long>(s >> 7);
    long c = 8;
    if (x > 0xFFFFFFFFUL) {
      x >>= 32;
      c = 40;
    }
    if (x > 0xFFFF) {
      c += 16;
      x >>= 16;
    }
    if (x > 0xFF) {
      c += 8;
      x >>= 8;
    }
    if (x > 0xF) {
      c += 4;
      x >>= 4;
    }
    index = c + countBitsUnder16[x];
  }
  if (index >= _numClasses || index < 0) throw QelMemoryException();
  return index;
}

// A page touched for the first time costs a trap into the system each
// (several microseconds on a virtual machine); asking for a range in one
// call costs a fraction of that per page. Used for large chunks only, whose
// blocks are about to be used: a class grows its chunks only when it already
// holds as much. Systems that cannot do it fault the pages in one by one as
// they are used.
void QelMemory::Prefault(void* p, long size) {
#if defined(__linux__)
#ifndef MADV_POPULATE_WRITE
  constexpr int MADV_POPULATE_WRITE = 23;  // Linux 5.14 and later
#endif
  static std::atomic<bool> unsupported{false};
  if (unsupported.load(std::memory_order_relaxed) || size <= 0) return;
  static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  uintptr_t first = (reinterpret_cast<uintptr_t>(p) + page - 1) & ~(page - 1);
  uintptr_t end = (reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(size)) & ~(page - 1);
  if (end <= first) return;
  // EINVAL: a system without the request; it is not asked again. Other
  // failures (memory short) leave the pages to be faulted in as used.
  if (madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE) != 0 &&
      errno == EINVAL)
    unsupported.store(true, std::memory_order_relaxed);
#else
  (void)p;
  (void)size;
#endif
}

void* QelMemory::obtainChunk(long size) {
  void* chunk = _chunks.alloc(size);
  _chunkBytes += size;
  if (size >= PrefaultChunkSize) Prefault(chunk, size);
  return chunk;
}

long QelFixedSizeAllocatorI::nextChunkSize() const {
  long size = QelMemory::ChunkSize;
  while (size < QelMemory::MaxChunkSize && size * 2 <= bytesObtained) size *= 2;
  return size;
}

void* QelFixedSizeAllocatorI::allocateBlock(QelMemory* memory) {
  if (fresh == freshEnd) {
    // A new chunk, handed out from the front one block at a time: nothing
    // is written to it before its blocks are used.
    long perChunk = nextChunkSize() / blockSize;
    if (perChunk < 4) perChunk = 4;
    long chunkBytes = perChunk * blockSize;
    // Blocks of 128 bytes and more (powers of two) start at an offset that
    // shifts from one chunk of the class to the next, a multiple of 64 bytes
    // below min(blockSize, 4096), at the price of at most one block per
    // chunk. Without it, when the system allocator returns chunks aligned on
    // a large power of two, the first lines of all large blocks (where the
    // free-list link and the object headers are) fall into the same few
    // cache sets.
    long color = 0;
    if (blockSize >= 128) {
      long lines = (blockSize < 4096 ? blockSize : 4096) / 64;
      color = (chunkCount * 7 % lines) * 64;
    }
    char* chunk = static_cast<char*>(memory->obtainChunk(chunkBytes));
    bytesObtained += chunkBytes;
    ++chunkCount;
    fresh = chunk + color;
    freshEnd = fresh + ((chunkBytes - color) / blockSize) * blockSize;
  }
  void* block = fresh;
  fresh += blockSize;
  return block;
}

QelCustomAllocatorI::~QelCustomAllocatorI() = default;
void QelCustomAllocatorI::flush() {}
void QelCustomAllocatorI::recordLocation(void*) {}

QelMemoryManagerObjectI::~QelMemoryManagerObjectI() = default;

QelEnvI* QelMemoryManager::getEnv() const { return _impl != nullptr ? _impl->getEnv() : nullptr; }

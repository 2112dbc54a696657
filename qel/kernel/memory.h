// The memory of an environment.
//
// Every implementation object, list node, array block and long-lived notice
// of the library is carved out of its environment's memory and goes back
// there; ending the environment releases all of it at once. Small requests
// (below the small-block limit) are served by one fixed-size allocator per
// size class; QelMemory::getIndex maps a size to its class (classes 0 to 7
// cover 1-8, ..., 57-64 bytes, then one class per power of two). In free-list
// mode (the default) a class recycles its blocks through a free list; when
// the list is empty, blocks are cut one at a time from the class's newest
// chunk, so that a page is first touched when a block on it is used. Chunks
// grow with the class (64 KiB at first, up to 1 MiB), and the large ones are
// faulted in as a whole when obtained, which costs the system far less than
// a fault per page. Otherwise every block is obtained singly from the
// class's allocation list, which lets memory checkers see each block. Large
// requests go to the environment's large-block list.
//
// Per size class the memory keeps the bytes in use and the bytes obtained
// from the system, so tests and applications can check that objects gave
// their memory back.
#ifndef QEL_KERNEL_MEMORY_H
#define QEL_KERNEL_MEMORY_H

#include <qel/kernel/types.h>

/// A list of general blocks that remember their own size. Each block has a
/// small header linking it into the list, so the owner can release every
/// block still held at once.
class QEL_API QelAllocationList {
 public:
  /// An empty list.
  QelAllocationList() = default;
  QelAllocationList(const QelAllocationList&) = delete;
  QelAllocationList& operator=(const QelAllocationList&) = delete;
  /// Releases every block still in the list.
  ~QelAllocationList() { releaseAll(); }
  /// Returns a new block of `size` bytes (16-byte aligned); throws
  /// QelMemoryException when the system refuses.
  void* alloc(long size);
  /// Gives back a block obtained from this list; null does nothing.
  void free(void* p);
  /// Releases every block at once.
  void releaseAll();
  /// Bytes currently held by the caller (sum of the requested sizes).
  QelInt getBytesInUse() const { return _bytesInUse; }
  /// Number of blocks currently held.
  QelInt getBlockCount() const { return _blockCount; }

 private:
  struct Header;
  Header* _head = nullptr;
  QelInt _bytesInUse = 0;
  QelInt _blockCount = 0;
};

class QelMemory;

/// The allocator of one size class.
class QEL_API QelFixedSizeAllocatorI {
 public:
  /// Non-zero: blocks are recycled through the free list.
  int freeListMode = 1;
  /// Block size of the class in bytes.
  long blockSize = 0;
  /// Head of the free list; each free block's first word links the next.
  void* freeList = nullptr;
  /// Bytes handed out and not yet given back.
  QelInt bytesInUse = 0;
  /// Bytes this class has obtained so far (whole chunks in free-list mode,
  /// each block otherwise); freeing a block lowers only bytesInUse.
  QelInt bytesObtained = 0;
  /// Where blocks come from when not in free-list mode.
  QelAllocationList* allocationList = nullptr;
  /// The part of the newest chunk not handed out yet, [fresh, freshEnd): a
  /// whole number of blocks, cut from the front when the free list is empty.
  char* fresh = nullptr;
  /// End of the part of the newest chunk not handed out yet.
  char* freshEnd = nullptr;
  /// Number of chunks obtained in free-list mode.
  long chunkCount = 0;

  /// Returns a block when the free list is empty: the next one of the
  /// newest chunk, or the first of a new chunk when that one is used up.
  void* allocateBlock(QelMemory* memory);
  /// Size in bytes of the next chunk of the class: ChunkSize at first,
  /// then as much as the class holds already, up to MaxChunkSize.
  long nextChunkSize() const;
};

/// The size-class table of an environment.
class QEL_API QelMemory {
 public:
  /// Requests at or above this size (bytes) are large.
  static constexpr long DefaultSmallBlockLimit = 8192;
  /// Number of size classes for the default small-block limit.
  static constexpr long DefaultNumClasses = 15;
  /// Size of a class's first chunks, taken from the system when its free
  /// list and newest chunk are used up.
  static constexpr long ChunkSize = 64L * 1024;
  /// Largest chunk a class takes at a time; a class that holds this much
  /// already takes chunks of this size.
  static constexpr long MaxChunkSize = 1024L * 1024;
  /// Chunks of at least this size are faulted in as a whole when obtained
  /// (where the system allows it); smaller ones page by page as used.
  static constexpr long PrefaultChunkSize = 128L * 1024;

  /// Sets up `numClasses` classes below `smallBlockLimit` bytes.
  QelMemory(long smallBlockLimit, long numClasses, bool freeLists);
  QelMemory(const QelMemory&) = delete;
  QelMemory& operator=(const QelMemory&) = delete;
  /// Releases every chunk and block the classes obtained.
  ~QelMemory();

  /// Size class of a small request of `size` bytes (size >= 1); throws
  /// QelMemoryException when the class is out of range.
  long getIndex(long size) const;
  /// Block size of class `index`.
  static long BlockSizeOfClass(long index) {
    return index < 8 ? (index + 1) * 8 : 1L << (index - 1);
  }
  /// Requests at or above this size go to the large-block list.
  long getSmallBlockLimit() const { return _smallBlockLimit; }
  /// Number of size classes.
  long getNumClasses() const { return _numClasses; }
  /// The allocator of class `index`.
  QelFixedSizeAllocatorI& getClass(long index) { return _classes[index]; }
  /// The allocator of class `index`.
  const QelFixedSizeAllocatorI& getClass(long index) const { return _classes[index]; }
  /// Takes a new chunk of `size` bytes from the system and records it so
  /// that it is released with the memory.
  void* obtainChunk(long size);
  /// Faults in the whole pages of [p, p + size) at once, where the system
  /// can (Linux 5.14 and later): much cheaper than a fault per page when
  /// the pages are about to be written. Elsewhere it does nothing.
  static void Prefault(void* p, long size);
  /// Bytes obtained as chunks for the free lists.
  QelInt getChunkBytes() const { return _chunkBytes; }

 private:
  long _smallBlockLimit;
  long _numClasses;
  QelFixedSizeAllocatorI* _classes;
  QelAllocationList _perClassBlocks;  // blocks of classes not in free-list mode
  QelAllocationList _chunks;          // chunks cut into free-list blocks
  QelInt _chunkBytes = 0;
};

/// Bit length of x for x in 0..15, used by QelMemory::getIndex.
extern QEL_API const unsigned char countBitsUnder16[16];

/// An application-supplied allocator that takes over all allocation of an
/// environment once installed. Virtual operations, in order: the two
/// destructors, alloc, free, flush, recordLocation.
class QEL_API QelCustomAllocatorI {
 public:
  /// Destroys the allocator object (the environment never owns it).
  virtual ~QelCustomAllocatorI();
  /// Returns a block of `size` bytes.
  virtual void* alloc(size_t size) = 0;
  /// Gives back a block of `size` bytes obtained from alloc.
  virtual void free(void* p, size_t size) = 0;
  /// Called when the environment ends, before anything is released; the
  /// default does nothing.
  virtual void flush();
  /// Told the address of a link field before the library overwrites it (the
  /// member list of a model); the default does nothing.
  virtual void recordLocation(void* address);
};

/// Owner of memory as seen by arrays and properties: an environment's
/// general allocator.
class QEL_API QelMemoryManagerObjectI {
 public:
  /// Destroys the object.
  virtual ~QelMemoryManagerObjectI();
  /// The environment that owns this memory manager.
  virtual QelEnvI* getEnv() const = 0;
};

/// The general allocator: blocks for extension records, array storage and
/// hash-map nodes. The caller always passes the block's size when freeing.
class QEL_API QelGenAlloc : public QelMemoryManagerObjectI {
 public:
  /// Returns a block of `size` bytes.
  virtual void* alloc(size_t size) = 0;
  /// Gives back a block of `size` bytes.
  virtual void free(void* p, size_t size) = 0;
};

/// Handle on a memory manager object (an environment's general allocator).
class QEL_API QelMemoryManager {
 public:
  /// An empty handle.
  QelMemoryManager() = default;
  /// A handle on `impl` (the handle owns nothing).
  QelMemoryManager(QelMemoryManagerObjectI* impl) : _impl(impl) {}
  /// The memory manager object, or null.
  QelMemoryManagerObjectI* getImpl() const { return _impl; }
  /// The environment owning the memory.
  QelEnvI* getEnv() const;
  /// The general allocator behind the handle.
  QelGenAlloc* getAllocator() const { return static_cast<QelGenAlloc*>(_impl); }

 private:
  QelMemoryManagerObjectI* _impl = nullptr;
};

#endif

// The environment: the owner of every modeling object.
//
// An environment (QelEnvI, used through the handle QelEnv) owns the memory
// of its objects, numbers and registers them in its extractable table,
// broadcasts their change notices to the algorithms listening to them, runs
// the remove-from-all protocol when objects end, makes the clones of objects
// copied into it, and carries the flags that steer removal and printing.
//
//   QelEnv env;                                  // a new environment
//   QelIntVar x(env, 0, 10, "x");
//   ...
//   std::cout << env.getImpl()->getBytesInUse(); // what objects hold now
//   env.end();                                   // releases everything
//
// Threads: an environment belongs to one allocator thread (the one that made
// it, until setAllocatorThread moves it); allocating or freeing its memory
// from any other thread throws QelEnvAllocatorThreadMismatch.
#ifndef QEL_KERNEL_ENV_H
#define QEL_KERNEL_ENV_H

#include <cstdint>
#include <exception>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>

#include <qel/kernel/exception.h>
#include <qel/kernel/memory.h>
#include <qel/kernel/rtti.h>

/// The chained hash map from extractable to a 64-bit value in which the
/// environment caches which expressions are decision expressions.
class QEL_API QelDecisionExprMap {
 public:
  /// Bucket index of `key` for `bucketCount` buckets.
  using HashFunction = long (*)(const QelExtractableI* key, long bucketCount);
  /// Equality of two keys.
  using EqualFunction = QelBool (*)(const QelExtractableI* a, const QelExtractableI* b);
  /// One entry: three words.
  struct Node {
    Node* next;                  ///< next node of the bucket
    const QelExtractableI* key;  ///< the extractable
    QelInt value;                ///< 1: a decision expression, 0: not
  };

  /// An empty map with `bucketCount` buckets (made on first need) whose
  /// nodes come from `alloc`.
  QelDecisionExprMap(QelGenAlloc* alloc, long bucketCount);
  QelDecisionExprMap(const QelDecisionExprMap&) = delete;
  QelDecisionExprMap& operator=(const QelDecisionExprMap&) = delete;
  /// Frees every node and the bucket array.
  ~QelDecisionExprMap();

  /// Makes the zero-filled bucket array if it does not exist yet.
  void ensureBuckets();
  /// The node of `key`, or null; throws QelWrongUsage "Hash function
  /// returned bad index" when the hash is out of range.
  Node* find(const QelExtractableI* key) const;
  /// Adds (key, value) at the head of its bucket, doubling and re-hashing
  /// when the count exceeds twice the bucket count.
  void insert(const QelExtractableI* key, QelInt value);
  /// Removes the entry of `key` if there is one.
  void remove(const QelExtractableI* key);
  /// Number of entries.
  long getCount() const { return _count; }
  /// Number of buckets.
  long getBucketCount() const { return _bucketCount; }
  /// Whether the bucket array has been made.
  QelBool hasBuckets() const { return _buckets != nullptr; }
  /// Replaces the hash function (the default hashes the address).
  void setHashFunction(HashFunction f) { _hash = f; }
  /// The default hash: the key's address, scrambled, modulo the count.
  static long DefaultHash(const QelExtractableI* key, long bucketCount);
  /// The default equality: the same address.
  static QelBool DefaultEqual(const QelExtractableI* a, const QelExtractableI* b);

 private:
  long bucketOf(const QelExtractableI* key, long bucketCount) const;

  QelGenAlloc* _alloc;
  long _count = 0;
  long _bucketCount;
  HashFunction _hash = &DefaultHash;
  EqualFunction _equal = &DefaultEqual;
  Node** _buckets = nullptr;
};

/// Records which algorithms have extracted which objects, by object id.
/// Each id has a mask of the (at most 64) algorithms of the environment.
class QEL_API QelExtractionRegistry {
 public:
  /// Maximum number of algorithms an environment can hold at once.
  static constexpr int MaxAlgorithms = 64;

  /// An empty registry whose storage comes from `alloc`.
  explicit QelExtractionRegistry(QelGenAlloc* alloc) : _alloc(alloc) {}
  QelExtractionRegistry(const QelExtractionRegistry&) = delete;
  QelExtractionRegistry& operator=(const QelExtractionRegistry&) = delete;
  /// The storage is the environment's and goes with it.
  ~QelExtractionRegistry() = default;

  /// Records that algorithm `slot` extracted the object with `id`.
  void record(QelInt id, int slot) {
    if (id >= _size) grow(id + 1);
    _masks[id] |= std::uint64_t(1) << slot;
  }
  /// Makes room for the ids below `size` at once (so that recording many
  /// objects grows the storage once, not by doubling).
  void reserve(QelInt size) {
    if (size > _size) grow(size);
  }
  /// Forgets that algorithm `slot` extracted the object with `id`.
  void unrecord(QelInt id, int slot);
  /// The drop notification: no algorithm knows object `id` any more.
  void drop(QelInt id) {
    if (id >= 0 && id < _size) _masks[id] = 0;
  }
  /// Forgets everything algorithm `slot` had extracted.
  void dropAlgorithm(int slot);
  /// Mask of the algorithms that extracted object `id`.
  std::uint64_t getMask(QelInt id) const { return (id >= 0 && id < _size) ? _masks[id] : 0; }
  /// Whether algorithm `slot` extracted object `id`.
  QelBool isExtracted(QelInt id, int slot) const { return (getMask(id) >> slot) & 1U; }
  /// The yes/no query on a pair: some algorithm that extracted `owner` has
  /// also extracted `sub`.
  QelBool knows(const QelExtractableI* owner, const QelExtractableI* sub) const;

 private:
  // Room for at least `size` ids: twice the present size, or more.
  void grow(QelInt size);

  QelGenAlloc* _alloc;
  std::uint64_t* _masks = nullptr;
  QelInt _size = 0;
};

/// The allocator of the environment's own bookkeeping (extractable table,
/// registry, clone and decision-expression maps, the lists of a running
/// removal): blocks from a list of the environment's own, kept out of the
/// object statistics, with the same thread and disabled checks as object
/// memory.
class QEL_API QelEnvInternalAlloc : public QelGenAlloc {
 public:
  /// The bookkeeping allocator of `env`.
  explicit QelEnvInternalAlloc(QelEnvI* env) : _env(env) {}
  /// The environment.
  QelEnvI* getEnv() const override { return _env; }
  /// A bookkeeping block.
  void* alloc(size_t size) override;
  /// Gives a bookkeeping block back.
  void free(void* p, size_t size) override;

 private:
  QelEnvI* _env;
};

/// The environment's general allocator: forwards to the environment memory.
class QEL_API QelEnvGenAlloc : public QelGenAlloc {
 public:
  /// The allocator of `env`.
  explicit QelEnvGenAlloc(QelEnvI* env) : _env(env) {}
  /// The environment.
  QelEnvI* getEnv() const override { return _env; }
  /// A block from the environment memory.
  void* alloc(size_t size) override;
  /// Gives a block back to the environment memory.
  void free(void* p, size_t size) override;

 private:
  QelEnvI* _env;
};

/// How an environment's memory is set up.
struct QEL_API QelEnvConfig {
  /// Requests at or above this many bytes go to the large-block list.
  long smallBlockLimit = QelMemory::DefaultSmallBlockLimit;
  /// Number of size classes below the limit.
  long numClasses = QelMemory::DefaultNumClasses;
  /// Recycle small blocks through free lists (true), or obtain each block
  /// singly so that memory checkers see every block (false). The default
  /// is DefaultFreeLists().
  bool freeLists = DefaultFreeLists();
  /// true, unless the process environment variable QEL_NO_FREE_LISTS is set
  /// to something other than "" or "0": then every environment made with
  /// the default configuration obtains each block singly (for valgrind and
  /// AddressSanitizer runs of a whole program or test suite).
  static bool DefaultFreeLists();
};

/// The `data` a removal passes to QelExtractableI::atRemove of a model of
/// another environment that holds members of the removal's environment.
struct QEL_API QelForeignSweep {
  /// What the model does.
  enum Mode {
    Marked,    ///< drops every marked member, with one QelRemoveFromModel
    OneByOne,  ///< drops every node of the removed object, one notice each
    Release    ///< gives back, untold, the nodes of members of other
               ///< environments (the model's environment is ending)
  };
  /// What the model does.
  Mode mode;
};

/// The environment implementation.
class QEL_API QelEnvI {
 public:
  /// The global lock taken when a class's type index is first assigned;
  /// null when the library runs single-threaded.
  static QelMutexI* Mutex;
  /// The value written into a table slot while its object is being removed.
  static constexpr std::uintptr_t RemovalMark = ~std::uintptr_t(0);
  /// Written into a slot while the objects being destroyed are put in order
  /// (odd, so never an object or a link).
  static constexpr std::uintptr_t OrderingMark = ~std::uintptr_t(1);
  /// Written into the slots of the objects one removal is about to destroy,
  /// before they are put in order (odd, so never an object or a link).
  static constexpr std::uintptr_t PendingMark = ~std::uintptr_t(2);

  /// A new environment owned by the calling thread.
  explicit QelEnvI(const QelEnvConfig& config = QelEnvConfig());
  QelEnvI(const QelEnvI&) = delete;
  QelEnvI& operator=(const QelEnvI&) = delete;
  /// Releases all the memory of the environment at once (objects still
  /// alive are not destroyed one by one).
  ~QelEnvI();

  // ---- memory --------------------------------------------------------
  /// A block of `size` bytes of environment memory (null for size 0). The
  /// common case (allocator thread, allocation on, no custom allocator, a
  /// free block of the size class or an unused one of its newest chunk at
  /// hand) is inline.
  void* alloc(size_t size) const {
    QelFixedSizeAllocatorI* c = inlineClass(size);
    return c != nullptr ? allocFrom(*c, size) : allocSlow(size);
  }
  /// The size class that alloc(size) serves inline for the calling thread
  /// now, or null when it would take its slow path. Nothing alloc does
  /// changes the answer, so a caller making many blocks of one size asks
  /// once and then takes each block with allocFrom.
  QelFixedSizeAllocatorI* inlineClass(size_t size) const {
    if (CurrentThreadKey() == _fastKey && size - 1 < FastLimit) return &_classes[FastIndex(size)];
    return nullptr;
  }
  /// A block of `size` bytes from `c`, the class inlineClass(size) gave:
  /// exactly what alloc(size) returns, without asking for the class again.
  void* allocFrom(QelFixedSizeAllocatorI& c, size_t size) const {
    if (void* block = c.freeList) {
      c.freeList = *static_cast<void**>(block);
      c.bytesInUse += c.blockSize;
      return block;
    }
    if (c.fresh != c.freshEnd) {
      void* block = c.fresh;
      c.fresh += c.blockSize;
      c.bytesInUse += c.blockSize;
      return block;
    }
    return allocSlow(size);
  }
  /// Takes `count` blocks of class `c` (from inlineClass) at once when its
  /// free list is empty and the unused part of its newest chunk holds them:
  /// the very blocks `count` calls of allocFrom would hand out, the first at
  /// `first` and the others every c.blockSize bytes after it. Returns
  /// whether it took them (else nothing changed).
  QelBool allocRun(QelFixedSizeAllocatorI& c, long count, char*& first) const {
    long bytes = count * c.blockSize;
    if (c.freeList != nullptr || c.freshEnd - c.fresh < bytes) return false;
    first = c.fresh;
    c.fresh += bytes;
    c.bytesInUse += bytes;
    return true;
  }
  /// Gives back a block of `size` bytes obtained from alloc.
  void free(void* p, size_t size) const {
    if (CurrentThreadKey() == _fastKey && p != nullptr && size - 1 < FastLimit) {
      QelFixedSizeAllocatorI& c = _classes[FastIndex(size)];
      *static_cast<void**>(p) = c.freeList;
      c.freeList = p;
      c.bytesInUse -= c.blockSize;
      return;
    }
    freeSlow(p, size);
  }
  /// Throws what alloc and free would throw on this thread now
  /// (QelEnvAllocatorThreadMismatch, then QelEnvAllocationDisabled), so that
  /// a caller can check before it destroys what it will then free.
  void checkThread() const {
    if (!matchesAllocatorThread()) throw QelEnvAllocatorThreadMismatch();
    if (_allocationDisabled) throw QelEnvAllocationDisabled();
  }
  /// Whether alloc and free would serve the calling thread now (its
  /// allocator thread, allocation on).
  QelBool acceptsCallingThread() const { return matchesAllocatorThread() && !_allocationDisabled; }
  /// Whether the calling thread may allocate in this environment.
  QelBool matchesAllocatorThread() const { return CurrentThreadKey() == _allocatorThread; }
  /// Makes the calling thread the environment's allocator thread.
  void setAllocatorThread() {
    _allocatorThread = CurrentThreadKey();
    updateFastKey();
  }
  /// Switches allocation off (true) or on again (false).
  void setAllocationDisabled(QelBool disabled) {
    _allocationDisabled = disabled;
    updateFastKey();
  }
  /// Whether allocation is switched off.
  QelBool isAllocationDisabled() const { return _allocationDisabled; }
  /// Installs `a` as the custom allocator (null removes it). Install it
  /// before any object is made, or remove it only after every block it gave
  /// has gone back: blocks are freed where they came from.
  void setCustomAllocator(QelCustomAllocatorI* a) {
    _customAllocator = a;
    updateFastKey();
  }
  /// The custom allocator, or null.
  QelCustomAllocatorI* getCustomAllocator() const { return _customAllocator; }
  /// Reports `address` to the custom allocator when one is installed.
  void recordLocation(void* address) const {
    if (_customAllocator != nullptr) recordLocationSlow(address);
  }
  /// The size-class table.
  QelMemory* getMemory() const { return _memory; }
  /// The large-block list.
  QelAllocationList* getLargeBlocks() const { return _largeBlocks; }
  /// The general allocator of this environment.
  QelGenAlloc* getGeneralAllocator() const { return _genAlloc; }
  /// The memory manager handle of this environment.
  QelMemoryManager getMemoryManager() const { return QelMemoryManager(_genAlloc); }
  /// Bytes handed out and not yet given back (all classes and large blocks).
  QelInt getBytesInUse() const;
  /// Bytes obtained from the system by the size classes and large blocks.
  QelInt getBytesObtained() const;
  /// Bytes of the environment's own bookkeeping (table, registry, maps),
  /// not counted in getBytesInUse.
  QelInt getInternalBytes() const { return _internal.getBytesInUse(); }
  /// The allocator of the environment's own bookkeeping.
  QelGenAlloc* getInternalAllocator() const {
    return const_cast<QelEnvInternalAlloc*>(&_internalAllocObject);
  }

  // ---- flags ---------------------------------------------------------
  /// Non-zero: dependants of removed objects are updated one at a time with
  /// their notices instead of in one marked sweep.
  std::int32_t getOneByOne() const { return _oneByOne; }
  /// Sets the one-by-one removal flag.
  void setOneByOne(std::int32_t flag) { _oneByOne = flag; }
  /// Whether objects print their detailed form.
  QelBool getDetailedDisplay() const { return _detailedDisplay; }
  /// Sets the detailed-display flag.
  void setDetailedDisplay(QelBool flag) { _detailedDisplay = flag; }

  // ---- extractable table -------------------------------------------
  /// Registers `x` and gives it its id (reusing freed slots first).
  void init(QelExtractableI* x);
  /// Gives `x` a slot in the table (reusing freed slots first) and returns
  /// its id; init stores it in the object. Inline: every object's
  /// construction takes one.
  QelInt takeSlot(const QelExtractableI* x) {
    QelInt id;
    if (_freeSlot != nullptr) {
      std::uintptr_t* slot = _freeSlot;
      std::uintptr_t next = *slot;
      _freeSlot = isTableLink(next) ? reinterpret_cast<std::uintptr_t*>(next) : nullptr;
      id = slot - _table;
    } else {
      if (_tableSize == _tableCapacity) growTable(_tableSize + 1);
      id = _tableSize++;
    }
    _table[id] = reinterpret_cast<std::uintptr_t>(x);
    ++_liveCount;
    return id;
  }
  /// Makes room in the table for `count` more objects at once, so that
  /// making them does not grow the table step by step (a refused allocation
  /// changes nothing).
  void reserveSlots(QelInt count) {
    if (count > 0 && _tableSize + count > _tableCapacity) growTable(_tableSize + count);
  }
  /// Frees the slot of `x` and writes -1 into its id.
  void unregister(QelExtractableI* x);
  /// The table: slot id holds the object, a free-slot link (an address in
  /// the table) or RemovalMark.
  std::uintptr_t* getExtractableTable() const { return _table; }
  /// Number of slots in use or free (ids are below this).
  QelInt getExtractableTableSize() const { return _tableSize; }
  /// Number of live registered objects.
  QelInt getNumberOfExtractables() const { return _liveCount; }
  /// The live object with `id`, or null.
  QelExtractableI* getExtractable(QelInt id) const;
  /// Whether slot content `v` is a free-slot link into the table.
  QelBool isTableLink(std::uintptr_t v) const {
    return v >= reinterpret_cast<std::uintptr_t>(_table) &&
           v < reinterpret_cast<std::uintptr_t>(_table + _tableCapacity);
  }
  /// Whether `x` is null, ended, or carries the removal mark.
  static QelBool IsMarked(const QelExtractableI* x);
  /// Writes the removal mark into the slot of `x`.
  void mark(const QelExtractableI* x);
  /// Writes `x`'s own address back into its slot.
  void unmark(const QelExtractableI* x);

  // ---- removal -------------------------------------------------------
  /// Removes `x` from every model, container and algorithm; `x` lives on.
  /// Costs one pass over the live objects.
  void removeFromAll(QelExtractableI* x);
  /// Removes `x` everywhere, updates or ends what depends on it, writes -1
  /// into its id, and with flag 0 destroys it (flag 1: its memory is already
  /// being released). Costs one pass over the live objects.
  void removeFromAllAndDestroy(QelExtractableI* x, long flag);
  /// Ends the elements of `xs` together: one pass over the live objects
  /// whatever the number of elements (with the one-by-one flag set, one
  /// pass per element). `flag` as above; with `notifyArray` non-zero the
  /// algorithms get one QelDestroyExtractableArray for the whole array.
  void removeFromAllAndDestroy(QelExtractableArray xs, long flag, long notifyArray);

  /// Keeps the failure of the removal a direct delete of `x` ran from a
  /// derived destructor, for x's base destructor to report (the first one
  /// kept wins while it is not taken).
  void keepDeleteFailure(const QelExtractableI* x, std::exception_ptr e) noexcept {
    if (_deleteFailureOf != nullptr) return;
    _deleteFailureOf = x;
    _deleteFailure = std::move(e);
  }
  /// Whether a failure is kept (for any object).
  QelBool hasKeptDeleteFailure() const { return _deleteFailureOf != nullptr; }
  /// The failure kept for `x`, or null; it is forgotten.
  std::exception_ptr takeDeleteFailure(const QelExtractableI* x) noexcept {
    if (_deleteFailureOf != x || x == nullptr) return nullptr;
    _deleteFailureOf = nullptr;
    return std::move(_deleteFailure);
  }

  // ---- models holding members of other environments ----------------
  /// Records that a model of this environment holds members of `other`:
  /// removals in `other` then reach this environment's models, and
  /// whichever of the two environments ends first lets go of the other's
  /// objects. Nothing when `other` is this environment or already recorded.
  void holdMembersOf(QelEnvI* other) {
    if (other != this && other != nullptr) holdMembersOfSlow(other);
  }
  /// Whether `other` is recorded as holding members of this environment.
  QelBool isHeldBy(const QelEnvI* other) const;

  // ---- change broadcast ----------------------------------------------
  /// Delivers `c` about `x` to every algorithm that has extracted `x`.
  void change(const QelExtractableI* x, const QelChange& c) {
    if (_listening != 0) changeSlow(x, c);
  }
  /// Delivers `c`, which concerns no single object, to every listening
  /// algorithm of the environment.
  void change(const QelChange& c);
  /// The extraction registry.
  QelExtractionRegistry& getRegistry() { return _registry; }
  /// The extraction registry.
  const QelExtractionRegistry& getRegistry() const { return _registry; }
  /// Attaches `a` and returns its slot (throws QelWrongUsage beyond 64).
  int attachAlgorithm(QelAlgorithmI* a);
  /// Detaches `a` and forgets what it extracted.
  void detachAlgorithm(QelAlgorithmI* a);
  /// The algorithm in `slot`, or null.
  QelAlgorithmI* getAlgorithm(int slot) const { return _algorithms[slot]; }
  /// Marks `slot` as listening (extracted something) or not.
  void setListening(int slot, QelBool on);
  /// Whether `slot` is marked as listening.
  QelBool isListening(int slot) const { return (_listening >> slot) & 1U; }
  /// Whether any algorithm listens: when none does, a modification need not
  /// even build its notice.
  QelBool hasListeners() const { return _listening != 0; }

  // ---- clones ----------------------------------------------------------
  /// The one copy of `x` in this environment during the current copy
  /// operation: made with `x->makeClone(this)` the first time. A copy
  /// operation that fails leaves no copy behind (see abandonCopy).
  QelExtractableI* getClone(QelExtractableI* x);
  /// The copy already made of `x` in the current copy operation, or null.
  QelExtractableI* findClone(const QelExtractableI* x) const;
  /// Keeps the clone map across several getClone calls (one copy
  /// operation) until the matching endCopy.
  void beginCopy() { ++_copyDepth; }
  /// Ends a copy operation begun with beginCopy; the last one empties the
  /// clone map.
  void endCopy();
  /// Ends a copy operation begun with beginCopy that failed: like endCopy,
  /// except that the last one first ends every copy the operation made that
  /// is still alive, so that the failure leaves this environment as it was.
  /// Never throws.
  void abandonCopy() noexcept;

  // ---- expressions ---------------------------------------------------
  /// A new linear term node coef * v, in this environment's memory.
  struct QelLinTermNode* newTerm(QelNumVarI* v, double coef);
  /// Drops one use that an object held on `e`; a reference-counted
  /// expression that nobody uses any more is ended.
  void release(QelNumExprI* e);
  /// The decision-expression map, made when absent.
  QelDecisionExprMap* getDecisionExprMap();
  /// The decision-expression map, or null when it was never made.
  QelDecisionExprMap* getDecisionExprMapOrNull() const { return _decisionMap; }

 private:
  /// A key unique to the calling thread while it runs: the address of the
  /// thread's control block on x86-64 Linux (one register read), else the
  /// address of a thread-local byte.
  static std::uintptr_t CurrentThreadKey() {
#if defined(__x86_64__) && defined(__linux__) && defined(__GNUC__)
    std::uintptr_t key;
    __asm__("mov %%fs:0, %0" : "=r"(key));
    return key;
#else
    return CurrentThreadKeySlow();
#endif
  }
  static std::uintptr_t CurrentThreadKeySlow();
  /// Sizes below this take the inline path (when their class has a free
  /// list); they are below every small-block limit an environment may have.
  static constexpr size_t FastLimit = 4096;
  /// Size class of 1 <= size <= FastLimit, the same as QelMemory::getIndex.
  static long FastIndex(size_t size) {
    size_t s = size - 1;
    if (s < 64) return static_cast<long>(s >> 3);
    return 64 - __builtin_clzll(s) + 1;
  }
  void updateFastKey() {
    bool fast = !_allocationDisabled && _customAllocator == nullptr &&
                _memory->getSmallBlockLimit() > static_cast<long>(FastLimit) &&
                _memory->getNumClasses() > FastIndex(FastLimit) &&
                _memory->getClass(0).freeListMode != 0;
    _fastKey = fast ? _allocatorThread : 0;
  }
  void* allocSlow(size_t size) const;
  void freeSlow(void* p, size_t size) const;
  friend class QelEnvGenAlloc;
  friend class QelEnvInternalAlloc;
  void recordLocationSlow(void* address) const;
  void changeSlow(const QelExtractableI* x, const QelChange& c);
  void deliver(QelAlgorithmI* a, const QelExtractableI* x, const QelChange& c);
  void growTable(QelInt minCapacity);
  struct Removal;
  enum RemovalKind { Destroy = 0, MemoryReleased = 1, KeepAlive = 2 };
  void runRemoval(QelExtractableI* const* xs, long n, RemovalKind kind, QelBool notifyArray);
  void join(Removal& r, QelExtractableI* x, RemovalKind kind);
  void process(Removal& r);
  void pass(QelExtractableI* removed);
  void notifyRemoval(Removal& r, long from, long to);
  void finishRemoval(Removal& r, long from, long to);
  void orderForDestruction(QelExtractableI* y, QelArrayI* order);
  void holdMembersOfSlow(QelEnvI* other);
  void passHolders(QelExtractableI* removed, bool oneByOne);
  void letGoOfOtherEnvironments() noexcept;

  void deliverTo(std::uint64_t mask, const QelExtractableI* x, const QelChange& c);

  QelMemory* _memory;
  QelAllocationList* _largeBlocks;
  QelCustomAllocatorI* _customAllocator = nullptr;
  QelBool _allocationDisabled = false;
  std::uintptr_t _allocatorThread;
  std::uintptr_t _fastKey = 0;
  QelFixedSizeAllocatorI* _classes;
  QelGenAlloc* _genAlloc;
  QelEnvGenAlloc _genAllocObject;
  mutable QelAllocationList _internal;
  QelEnvInternalAlloc _internalAllocObject;
  QelDecisionExprMap* _decisionMap = nullptr;
  std::int32_t _oneByOne = 0;
  QelBool _detailedDisplay = false;

  std::uintptr_t* _table = nullptr;
  QelInt _tableSize = 0;
  QelInt _tableCapacity = 0;
  std::uintptr_t* _freeSlot = nullptr;
  QelInt _liveCount = 0;

  QelExtractionRegistry _registry;
  QelAlgorithmI* _algorithms[QelExtractionRegistry::MaxAlgorithms] = {};
  std::uint64_t _listening = 0;

  Removal* _removal = nullptr;
  // Environments whose models hold members of this one, and environments
  // whose members this one's models hold (raw QelEnvI pointers, in the
  // bookkeeping memory; null until the first is recorded).
  QelArrayI* _holders = nullptr;
  // A failed removal of a direct delete, between the derived destructor
  // that ran it and the base destructor that reports it.
  const QelExtractableI* _deleteFailureOf = nullptr;
  std::exception_ptr _deleteFailure;
  QelArrayI* _held = nullptr;

  struct CloneMap;
  CloneMap* _cloneMap = nullptr;
  int _copyDepth = 0;
};

/// Handle on an environment. `QelEnv env;` makes a new environment;
/// `env.end()` releases it with everything it owns.
class QEL_API QelEnv {
 public:
  /// Makes a new environment owned by the calling thread.
  QelEnv();
  /// Makes a new environment with the given memory set-up.
  explicit QelEnv(const QelEnvConfig& config);
  /// A handle on `impl`; a null `impl` gives an empty handle.
  QelEnv(QelEnvI* impl) : _impl(impl) {}
  /// The implementation, or null for an empty handle.
  QelEnvI* getImpl() const { return _impl; }
  /// Releases the environment and all its memory; the handle becomes empty.
  void end();
  /// The memory manager of the environment.
  QelMemoryManager getMemoryManager() const;
  /// Two handles on the same environment.
  friend bool operator==(const QelEnv& a, const QelEnv& b) { return a._impl == b._impl; }
  /// Handles on different environments.
  friend bool operator!=(const QelEnv& a, const QelEnv& b) { return a._impl != b._impl; }

 private:
  QelEnvI* _impl;
};

/// Allocates a T in `env`'s memory and constructs it with `args`; when the
/// constructor throws, the block goes back to the environment (an
/// extractable whose base part was already registered unregisters itself as
/// its base part is destroyed).
template <class T, class... Args>
T* QelNewObject(QelEnvI* env, Args&&... args) {
  void* p = env->alloc(sizeof(T));
  try {
    return new (p) T(std::forward<Args>(args)...);
  } catch (...) {
    env->free(p, sizeof(T));
    throw;
  }
}

/// Formats like vsprintf into `buffer` and returns its result. `size` is
/// accepted and ignored: callers size their buffer themselves.
QEL_API int QelSPrintf(char* buffer, unsigned long size, const char* format, ...);

#endif

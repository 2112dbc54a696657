// The environment: memory, table, registry, broadcast, clones.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qel/change/change.h>
#include <qel/extractable/extractable.h>
#include <qel/kernel/algorithm.h>
#include <qel/kernel/env.h>

QelMutexI* QelEnvI::Mutex = nullptr;

// ---- the clone map: source object -> its copy, indexed by the source's id --
//
// The ids of one environment are dense, and a copy meets the objects of a
// model mostly in the order they were made, so the map is a directory of
// pages indexed directly by the source's id: no hashing, no probing, and
// consecutive sources share cache lines. One directory per source
// environment (a copy nearly always reads from one). Each entry keeps its
// source, so an id that another object took over is not mistaken for it.
// Everything lives in the environment's bookkeeping memory.

struct QelEnvI::CloneMap {
  struct Entry {
    const QelExtractableI* source;  // null: no clone recorded
    QelExtractableI* clone;
    QelInt cloneId;  // to tell, without touching it, whether the clone lives
  };
  static constexpr long PageBits = 9;
  static constexpr long PageSize = 1L << PageBits;  // entries per page
  struct Directory {
    const QelEnvI* sourceEnv = nullptr;
    Entry** pages = nullptr;  // null where no entry was ever put
    long numPages = 0;
  };
  QelEnvI* env = nullptr;
  Directory* dirs = nullptr;
  long numDirs = 0;
  long count = 0;

  QelGenAlloc* allocator() const { return env->getInternalAllocator(); }

  const Directory* findDir(const QelEnvI* sourceEnv) const {
    for (long d = 0; d < numDirs; ++d)
      if (dirs[d].sourceEnv == sourceEnv) return &dirs[d];
    return nullptr;
  }
  QelExtractableI* find(const QelExtractableI* source) const {
    if (count == 0) return nullptr;
    const Directory* dir = findDir(source->getEnv());
    if (dir == nullptr) return nullptr;
    long id = static_cast<long>(source->getId());
    long page = id >> PageBits;
    if (id < 0 || page >= dir->numPages || dir->pages[page] == nullptr) return nullptr;
    const Entry& e = dir->pages[page][id & (PageSize - 1)];
    return e.source == source ? e.clone : nullptr;
  }
  // Makes room for the entry of `source`, whose id is not negative
  // (directory and page); all or nothing: a refused allocation leaves the
  // map as it was.
  Entry& slot(const QelExtractableI* source) {
    const QelEnvI* sourceEnv = source->getEnv();
    Directory* dir = const_cast<Directory*>(findDir(sourceEnv));
    if (dir == nullptr) {
      auto* grown = static_cast<Directory*>(
          allocator()->alloc(sizeof(Directory) * static_cast<std::size_t>(numDirs + 1)));
      for (long d = 0; d < numDirs; ++d) grown[d] = dirs[d];
      grown[numDirs] = Directory();
      grown[numDirs].sourceEnv = sourceEnv;
      if (dirs != nullptr)
        allocator()->free(dirs, sizeof(Directory) * static_cast<std::size_t>(numDirs));
      dirs = grown;
      dir = &dirs[numDirs++];
    }
    long id = static_cast<long>(source->getId());
    long page = id >> PageBits;
    if (dir->pages == nullptr || page >= dir->numPages) {
      long n = dir->numPages == 0 ? 16 : dir->numPages;
      while (n <= page) n *= 2;
      auto* pages =
          static_cast<Entry**>(allocator()->alloc(sizeof(Entry*) * static_cast<std::size_t>(n)));
      long kept = 0;
      if (dir->pages != nullptr) {
        for (; kept < dir->numPages; ++kept) pages[kept] = dir->pages[kept];
        allocator()->free(dir->pages, sizeof(Entry*) * static_cast<std::size_t>(dir->numPages));
      }
      for (long k = kept; k < n; ++k) pages[k] = nullptr;
      dir->pages = pages;
      dir->numPages = n;
    }
    if (dir->pages[page] == nullptr) {
      auto* entries = static_cast<Entry*>(allocator()->alloc(sizeof(Entry) * PageSize));
      std::memset(entries, 0, sizeof(Entry) * PageSize);
      dir->pages[page] = entries;
    }
    return dir->pages[page][id & (PageSize - 1)];
  }
  void put(const QelExtractableI* source, QelExtractableI* clone) {
    // An object without an id (ended) has no place: its copy is not
    // recorded, as find never finds it either.
    if (source->getId() < 0) return;
    Entry& e = slot(source);
    if (e.source == nullptr) ++count;
    e.source = source;
    e.clone = clone;
    e.cloneId = clone->getId();
  }
  // Calls f(entry) for every recorded entry.
  template <class F>
  void forEach(F f) const {
    for (long d = 0; d < numDirs; ++d)
      for (long p = 0; p < dirs[d].numPages; ++p)
        if (const Entry* page = dirs[d].pages[p])
          for (long k = 0; k < PageSize; ++k)
            if (page[k].source != nullptr) f(page[k]);
  }
  void clear() {
    for (long d = 0; d < numDirs; ++d) {
      for (long p = 0; p < dirs[d].numPages; ++p)
        if (dirs[d].pages[p] != nullptr)
          allocator()->free(dirs[d].pages[p], sizeof(Entry) * PageSize);
      if (dirs[d].pages != nullptr)
        allocator()->free(dirs[d].pages,
                          sizeof(Entry*) * static_cast<std::size_t>(dirs[d].numPages));
    }
    if (dirs != nullptr)
      allocator()->free(dirs, sizeof(Directory) * static_cast<std::size_t>(numDirs));
    dirs = nullptr;
    numDirs = 0;
    count = 0;
  }
};

// ---- construction ------------------------------------------------------

bool QelEnvConfig::DefaultFreeLists() {
  // Read when an environment is made; the library never sets variables.
  const char* v = std::getenv("QEL_NO_FREE_LISTS");  // NOLINT(concurrency-mt-unsafe)
  return v == nullptr || v[0] == '\0' || std::strcmp(v, "0") == 0;
}

QelEnvI::QelEnvI(const QelEnvConfig& config)
    : _memory(new QelMemory(config.smallBlockLimit, config.numClasses, config.freeLists)),
      _largeBlocks(new QelAllocationList()),
      _allocatorThread(CurrentThreadKey()),
      _genAlloc(&_genAllocObject),
      _genAllocObject(this),
      _internalAllocObject(this),
      _registry(&_internalAllocObject) {
  _classes = &_memory->getClass(0);
  updateFastKey();
}

std::uintptr_t QelEnvI::CurrentThreadKeySlow() {
  static thread_local char token;
  return reinterpret_cast<std::uintptr_t>(&token);
}

QelEnvI::~QelEnvI() {
  // Everything goes at once: the objects still alive are not destroyed one
  // by one, their memory is released with the rest. Models of other
  // environments holding its objects let go of them first, and its own
  // models give back the nodes they hold in other environments.
  letGoOfOtherEnvironments();
  if (_customAllocator != nullptr) _customAllocator->flush();
  delete _largeBlocks;
  delete _memory;
}

// ---- memory ------------------------------------------------------------

void* QelEnvI::allocSlow(size_t size) const {
  if (!matchesAllocatorThread()) throw QelEnvAllocatorThreadMismatch();
  if (_allocationDisabled) throw QelEnvAllocationDisabled();
  if (_customAllocator != nullptr) return _customAllocator->alloc(size);
  long s = static_cast<long>(size);
  if (s < _memory->getSmallBlockLimit()) {
    if (s == 0) return nullptr;
    QelFixedSizeAllocatorI& c = _memory->getClass(_memory->getIndex(s));
    void* block;
    if (c.freeListMode != 0) {
      block = c.freeList;
      if (block != nullptr)
        c.freeList = *static_cast<void**>(block);
      else
        block = c.allocateBlock(_memory);
    } else {
      block = c.allocationList->alloc(c.blockSize);
      c.bytesObtained += c.blockSize;
    }
    c.bytesInUse += c.blockSize;
    return block;
  }
  return _largeBlocks->alloc(s);
}

void QelEnvI::freeSlow(void* p, size_t size) const {
  if (!matchesAllocatorThread()) throw QelEnvAllocatorThreadMismatch();
  if (_allocationDisabled) throw QelEnvAllocationDisabled();
  if (_customAllocator != nullptr) {
    _customAllocator->free(p, size);
    return;
  }
  if (p == nullptr) return;
  long s = static_cast<long>(size);
  if (s < _memory->getSmallBlockLimit()) {
    QelFixedSizeAllocatorI& c = _memory->getClass(_memory->getIndex(s));
    if (c.freeListMode != 0) {
      *static_cast<void**>(p) = c.freeList;
      c.freeList = p;
    } else {
      c.allocationList->free(p);
    }
    c.bytesInUse -= c.blockSize;
    return;
  }
  _largeBlocks->free(p);
}

void QelEnvI::recordLocationSlow(void* address) const { _customAllocator->recordLocation(address); }

QelInt QelEnvI::getBytesInUse() const {
  QelInt total = _largeBlocks->getBytesInUse();
  for (long i = 0; i < _memory->getNumClasses(); ++i) total += _memory->getClass(i).bytesInUse;
  return total;
}

QelInt QelEnvI::getBytesObtained() const {
  QelInt total = _largeBlocks->getBytesInUse();
  for (long i = 0; i < _memory->getNumClasses(); ++i) total += _memory->getClass(i).bytesObtained;
  return total;
}

void* QelEnvGenAlloc::alloc(size_t size) { return _env->alloc(size); }

void* QelEnvInternalAlloc::alloc(size_t size) {
  _env->checkThread();
  return _env->_internal.alloc(static_cast<long>(size));
}

void QelEnvInternalAlloc::free(void* p, size_t) {
  _env->checkThread();
  _env->_internal.free(p);
}
void QelEnvGenAlloc::free(void* p, size_t size) { _env->free(p, size); }

// ---- the extractable table --------------------------------------------

void QelEnvI::growTable(QelInt minCapacity) {
  // Doubling keeps the copies linear in the number of objects made.
  QelInt newCapacity = _tableCapacity == 0 ? 64 : _tableCapacity * 2;
  while (newCapacity < minCapacity) newCapacity *= 2;
  std::uintptr_t* fresh = static_cast<std::uintptr_t*>(
      _internalAllocObject.alloc(sizeof(std::uintptr_t) * static_cast<size_t>(newCapacity)));
  // Free-slot links are addresses inside the table: move them with it.
  std::uintptr_t oldBase = reinterpret_cast<std::uintptr_t>(_table);
  std::uintptr_t newBase = reinterpret_cast<std::uintptr_t>(fresh);
  for (QelInt i = 0; i < _tableSize; ++i) {
    std::uintptr_t v = _table[i];
    if (isTableLink(v)) v = v - oldBase + newBase;
    fresh[i] = v;
  }
  if (_freeSlot != nullptr) _freeSlot = fresh + (_freeSlot - _table);
  if (_table != nullptr)
    _internalAllocObject.free(_table, sizeof(std::uintptr_t) * static_cast<size_t>(_tableCapacity));
  _table = fresh;
  _tableCapacity = newCapacity;
}

void QelEnvI::init(QelExtractableI* x) { x->_id = takeSlot(x); }

void QelEnvI::unregister(QelExtractableI* x) {
  QelInt id = x->_id;
  if (id < 0) return;
  _registry.drop(id);
  _table[id] = reinterpret_cast<std::uintptr_t>(_freeSlot);
  _freeSlot = _table + id;
  x->_id = -1;
  --_liveCount;
}

QelExtractableI* QelEnvI::getExtractable(QelInt id) const {
  if (id < 0 || id >= _tableSize) return nullptr;
  std::uintptr_t v = _table[id];
  if (v == 0 || v == RemovalMark || isTableLink(v)) return nullptr;
  return reinterpret_cast<QelExtractableI*>(v);
}

QelBool QelEnvI::IsMarked(const QelExtractableI* x) {
  if (x == nullptr) return true;
  QelInt id = x->getId();
  if (id == -1) return true;
  const QelEnvI* env = x->getEnv();
  return env->_table[id] == RemovalMark;
}

void QelEnvI::mark(const QelExtractableI* x) { _table[x->getId()] = RemovalMark; }

void QelEnvI::unmark(const QelExtractableI* x) {
  _table[x->getId()] = reinterpret_cast<std::uintptr_t>(x);
}

// ---- decision-expression map -------------------------------------------

QelDecisionExprMap::QelDecisionExprMap(QelGenAlloc* alloc, long bucketCount)
    : _alloc(alloc), _bucketCount(bucketCount) {}

QelDecisionExprMap::~QelDecisionExprMap() {
  if (_buckets == nullptr) return;
  for (long b = 0; b < _bucketCount; ++b) {
    Node* n = _buckets[b];
    while (n != nullptr) {
      Node* next = n->next;
      _alloc->free(n, sizeof(Node));
      n = next;
    }
  }
  _alloc->free(_buckets, sizeof(Node*) * static_cast<size_t>(_bucketCount));
}

long QelDecisionExprMap::DefaultHash(const QelExtractableI* key, long bucketCount) {
  std::uintptr_t v = reinterpret_cast<std::uintptr_t>(key) >> 4;
  v *= 0x9E3779B97F4A7C15ULL;
  return static_cast<long>((v >> 32) % static_cast<std::uintptr_t>(bucketCount));
}

QelBool QelDecisionExprMap::DefaultEqual(const QelExtractableI* a, const QelExtractableI* b) {
  return a == b;
}

long QelDecisionExprMap::bucketOf(const QelExtractableI* key, long bucketCount) const {
  long b = _hash(key, bucketCount);
  if (b < 0 || b >= bucketCount) throw QelWrongUsage("Hash function returned bad index");
  return b;
}

void QelDecisionExprMap::ensureBuckets() {
  if (_buckets != nullptr) return;
  size_t bytes = sizeof(Node*) * static_cast<size_t>(_bucketCount);
  _buckets = static_cast<Node**>(_alloc->alloc(bytes));
  std::memset(_buckets, 0, bytes);
}

QelDecisionExprMap::Node* QelDecisionExprMap::find(const QelExtractableI* key) const {
  if (_buckets == nullptr) return nullptr;
  for (Node* n = _buckets[bucketOf(key, _bucketCount)]; n != nullptr; n = n->next)
    if (_equal(n->key, key)) return n;
  return nullptr;
}

void QelDecisionExprMap::insert(const QelExtractableI* key, QelInt value) {
  // A refused insertion leaves the map as it was, without a bucket array
  // when it had none.
  long b = bucketOf(key, _bucketCount);
  bool made = _buckets == nullptr;
  ensureBuckets();
  Node* n;
  try {
    n = static_cast<Node*>(_alloc->alloc(sizeof(Node)));
  } catch (...) {
    if (made) {
      _alloc->free(_buckets, sizeof(Node*) * static_cast<size_t>(_bucketCount));
      _buckets = nullptr;
    }
    throw;
  }
  n->next = _buckets[b];
  n->key = key;
  n->value = value;
  _buckets[b] = n;
  ++_count;
  if (_count > 2 * _bucketCount) {
    long newCount = 2 * _bucketCount;
    // Check every new index before moving any node: a bad index then leaves
    // the map whole (with the new entry, in the old buckets).
    for (long i = 0; i < _bucketCount; ++i)
      for (Node* m = _buckets[i]; m != nullptr; m = m->next) bucketOf(m->key, newCount);
    size_t bytes = sizeof(Node*) * static_cast<size_t>(newCount);
    Node** fresh = static_cast<Node**>(_alloc->alloc(bytes));
    std::memset(fresh, 0, bytes);
    for (long i = 0; i < _bucketCount; ++i) {
      for (Node* m = _buckets[i]; m != nullptr;) {
        Node* next = m->next;
        long nb = bucketOf(m->key, newCount);
        m->next = fresh[nb];
        fresh[nb] = m;
        m = next;
      }
      _buckets[i] = nullptr;
    }
    _alloc->free(_buckets, sizeof(Node*) * static_cast<size_t>(_bucketCount));
    _buckets = fresh;
    _bucketCount = newCount;
  }
}

void QelDecisionExprMap::remove(const QelExtractableI* key) {
  ensureBuckets();
  long b = bucketOf(key, _bucketCount);
  Node* prev = nullptr;
  for (Node* n = _buckets[b]; n != nullptr; prev = n, n = n->next) {
    if (!_equal(n->key, key)) continue;
    if (prev == nullptr)
      _buckets[b] = n->next;
    else
      prev->next = n->next;
    _alloc->free(n, sizeof(Node));
    --_count;
    if (_count == 0) {
      // The storage is the general allocator's: an empty map gives its
      // bucket array back, so that the environment's memory comes back to
      // where it was once the objects it cached are gone.
      _alloc->free(_buckets, sizeof(Node*) * static_cast<size_t>(_bucketCount));
      _buckets = nullptr;
    }
    return;
  }
}

QelDecisionExprMap* QelEnvI::getDecisionExprMap() {
  if (_decisionMap == nullptr) {
    // The map itself is bookkeeping; its nodes and buckets are storage of
    // the general allocator, which a custom allocator serves when installed.
    void* p = _internalAllocObject.alloc(sizeof(QelDecisionExprMap));
    _decisionMap = new (p) QelDecisionExprMap(_genAlloc, 64);
  }
  return _decisionMap;
}

// ---- extraction registry ------------------------------------------------

void QelExtractionRegistry::grow(QelInt size) {
  QelInt newSize = _size == 0 ? 64 : 2 * _size;
  if (newSize < size) newSize = size;
  auto* fresh = static_cast<std::uint64_t*>(
      _alloc->alloc(sizeof(std::uint64_t) * static_cast<size_t>(newSize)));
  if (_masks != nullptr) {
    std::memcpy(fresh, _masks, sizeof(std::uint64_t) * static_cast<size_t>(_size));
    _alloc->free(_masks, sizeof(std::uint64_t) * static_cast<size_t>(_size));
  }
  std::memset(fresh + _size, 0, sizeof(std::uint64_t) * static_cast<size_t>(newSize - _size));
  _masks = fresh;
  _size = newSize;
}

void QelExtractionRegistry::unrecord(QelInt id, int slot) {
  if (id >= 0 && id < _size) _masks[id] &= ~(std::uint64_t(1) << slot);
}

void QelExtractionRegistry::dropAlgorithm(int slot) {
  for (QelInt i = 0; i < _size; ++i) _masks[i] &= ~(std::uint64_t(1) << slot);
}

QelBool QelExtractionRegistry::knows(const QelExtractableI* owner,
                                     const QelExtractableI* sub) const {
  if (owner == nullptr || sub == nullptr) return false;
  return (getMask(owner->getId()) & getMask(sub->getId())) != 0;
}

// ---- algorithms and broadcast -------------------------------------------

int QelEnvI::attachAlgorithm(QelAlgorithmI* a) {
  for (int s = 0; s < QelExtractionRegistry::MaxAlgorithms; ++s) {
    if (_algorithms[s] == nullptr) {
      _algorithms[s] = a;
      return s;
    }
  }
  throw QelWrongUsage("QelEnv: too many algorithms attached to one environment");
}

void QelEnvI::detachAlgorithm(QelAlgorithmI* a) {
  int s = a->getSlot();
  if (s < 0 || _algorithms[s] != a) return;
  _registry.dropAlgorithm(s);
  _algorithms[s] = nullptr;
  _listening &= ~(std::uint64_t(1) << s);
}

void QelEnvI::setListening(int slot, QelBool on) {
  if (on)
    _listening |= std::uint64_t(1) << slot;
  else
    _listening &= ~(std::uint64_t(1) << slot);
}

void QelEnvI::changeSlow(const QelExtractableI* x, const QelChange& c) {
  std::uint64_t mask = x != nullptr ? (_registry.getMask(x->getId()) & _listening) : _listening;
  while (mask != 0) {
    int s = __builtin_ctzll(mask);
    mask &= mask - 1;
    _algorithms[s]->notifyChange(x, c);
  }
}

void QelEnvI::change(const QelChange& c) {
  if (_listening != 0) changeSlow(nullptr, c);
}

// ---- clones ------------------------------------------------------------

QelExtractableI* QelEnvI::findClone(const QelExtractableI* x) const {
  return _cloneMap != nullptr ? _cloneMap->find(x) : nullptr;
}

void QelEnvI::endCopy() {
  if (_copyDepth > 0) --_copyDepth;
  if (_copyDepth == 0 && _cloneMap != nullptr) _cloneMap->clear();
}

void QelEnvI::abandonCopy() noexcept {
  if (_copyDepth > 0) --_copyDepth;
  if (_copyDepth != 0 || _cloneMap == nullptr) return;
  // The copies still alive (a failing makeClone may have ended some, and
  // with them what they alone used) end together, in one removal.
  QelArrayI* alive = nullptr;
  try {
    alive = QelArrayI::Make(getInternalAllocator(), 0);
    _cloneMap->forEach([this, alive](const CloneMap::Entry& e) {
      if (e.cloneId >= 0 && e.cloneId < _tableSize &&
          _table[e.cloneId] == reinterpret_cast<std::uintptr_t>(e.clone))
        alive->addRaw(reinterpret_cast<std::uintptr_t>(e.clone));
    });
    removeFromAllAndDestroy(QelExtractableArray(alive), 0, 0);
  } catch (...) {
    // Nothing may hide the failure that abandoned the copy.
  }
  delete alive;
  _cloneMap->clear();
}

QelExtractableI* QelEnvI::getClone(QelExtractableI* x) {
  if (x == nullptr) return nullptr;
  if (_cloneMap == nullptr) {
    void* p = _internalAllocObject.alloc(sizeof(CloneMap));
    _cloneMap = new (p) CloneMap();
    _cloneMap->env = this;
  }
  if (QelExtractableI* done = _cloneMap->find(x)) return done;
  // A getClone made outside beginCopy/endCopy is one copy operation of its
  // own: the map lives while the nested getClone calls of makeClone run.
  beginCopy();
  QelExtractableI* clone = nullptr;
  try {
    clone = x->makeClone(this);
    _cloneMap->put(x, clone);
  } catch (...) {
    if (clone != nullptr) {
      // Made, but not recorded in the map: end it here.
      try {
        clone->end();
      } catch (...) {
      }
    }
    abandonCopy();
    throw;
  }
  endCopy();
  return clone;
}

// ---- the handle ---------------------------------------------------------

QelEnv::QelEnv() : _impl(new QelEnvI()) {}
QelEnv::QelEnv(const QelEnvConfig& config) : _impl(new QelEnvI(config)) {}

void QelEnv::end() {
  delete _impl;
  _impl = nullptr;
}

QelMemoryManager QelEnv::getMemoryManager() const {
  if (_impl == nullptr) throw QelEmptyHandleException("QelEnv: using empty handle");
  return _impl->getMemoryManager();
}

// A printf-style function on purpose: callers pass printf formats.
// NOLINTNEXTLINE(cert-dcl50-cpp)
int QelSPrintf(char* buffer, unsigned long, const char* format, ...) {
  // The size is ignored on purpose: callers size the buffer themselves.
  va_list args;
  va_start(args, format);
  int n = std::vsprintf(buffer, format, args);
  va_end(args);
  return n;
}

// Environment memory: size classes, free lists, block lists, large blocks,
// custom allocators, the allocator thread and the disabled state.
#include "support/qeltest.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace {

using qeltest::MessageOf;

// What every size class and the large-block list hold at one moment.
struct MemorySnapshot {
  std::vector<QelInt> inUse;
  std::vector<QelInt> obtained;
  std::vector<void*> heads;
  QelInt chunkBytes = 0;
  QelInt largeBytes = 0;
  QelInt largeBlocks = 0;

  bool operator==(const MemorySnapshot& o) const {
    return inUse == o.inUse && obtained == o.obtained && heads == o.heads &&
           chunkBytes == o.chunkBytes && largeBytes == o.largeBytes && largeBlocks == o.largeBlocks;
  }
};

MemorySnapshot Snapshot(const QelEnvI* env) {
  MemorySnapshot s;
  const QelMemory* m = env->getMemory();
  for (long i = 0; i < m->getNumClasses(); ++i) {
    s.inUse.push_back(m->getClass(i).bytesInUse);
    s.obtained.push_back(m->getClass(i).bytesObtained);
    s.heads.push_back(m->getClass(i).freeList);
  }
  s.chunkBytes = m->getChunkBytes();
  s.largeBytes = env->getLargeBlocks()->getBytesInUse();
  s.largeBlocks = env->getLargeBlocks()->getBlockCount();
  return s;
}

// Runs `f` on a thread of its own and returns the text of what it threw
// ("" when it threw nothing).
std::string RunOnOtherThread(const std::function<void()>& f) {
  std::string outcome;
  std::thread t([&] {
    try {
      f();
    } catch (const QelEnvAllocatorThreadMismatch&) {
      outcome = "thread mismatch";
    } catch (const QelEnvAllocationDisabled&) {
      outcome = "disabled";
    } catch (const std::exception& e) {
      outcome = std::string("other: ") + e.what();
    }
  });
  t.join();
  return outcome;
}

// A custom allocator that records every call and serves blocks from the
// heap (blocks still out when it is destroyed are released then).
class RecordingAllocator : public QelCustomAllocatorI {
 public:
  ~RecordingAllocator() override {
    for (auto& b : live) std::free(b.first);
  }
  void* alloc(size_t size) override {
    allocSizes.push_back(size);
    void* p = std::malloc(size == 0 ? 1 : size);
    live.emplace_back(p, size);
    return p;
  }
  void free(void* p, size_t size) override {
    freed.emplace_back(p, size);
    for (auto it = live.begin(); it != live.end(); ++it) {
      if (it->first == p) {
        std::free(p);
        live.erase(it);
        return;
      }
    }
  }
  void flush() override { ++flushes; }
  void recordLocation(void* address) override { locations.push_back(address); }

  std::vector<size_t> allocSizes;
  std::vector<std::pair<void*, size_t>> freed;
  std::vector<std::pair<void*, size_t>> live;
  std::vector<void*> locations;
  int flushes = 0;
};

// Free lists whatever QEL_NO_FREE_LISTS says (the default follows it).
QelEnvConfig FreeLists() {
  QelEnvConfig config;
  config.freeLists = true;
  return config;
}

// ---- size classes --------------------------------------------------------

TEST(MemoryGetIndex, SmallSizesFollowTheEightByteSteps) {
  QelMemory memory(QelMemory::DefaultSmallBlockLimit, QelMemory::DefaultNumClasses, true);
  EXPECT_EQ(memory.getIndex(1), 0);
  EXPECT_EQ(memory.getIndex(8), 0);
  EXPECT_EQ(memory.getIndex(9), 1);
  EXPECT_EQ(memory.getIndex(16), 1);
  EXPECT_EQ(memory.getIndex(17), 2);
  EXPECT_EQ(memory.getIndex(56), 6);
  EXPECT_EQ(memory.getIndex(57), 7);
  EXPECT_EQ(memory.getIndex(64), 7);
  EXPECT_EQ(memory.getIndex(65), 8);
  EXPECT_EQ(memory.getIndex(128), 8);
  EXPECT_EQ(memory.getIndex(129), 9);
  EXPECT_EQ(memory.getIndex(256), 9);
}

TEST(MemoryGetIndex, EveryStepOfEightHasItsOwnClass) {
  QelMemory memory(QelMemory::DefaultSmallBlockLimit, QelMemory::DefaultNumClasses, true);
  for (long size = 1; size <= 64; ++size)
    EXPECT_EQ(memory.getIndex(size), (size - 1) / 8) << "size " << size;
}

TEST(MemoryGetIndex, LargerClassesGoByPowersOfTwo) {
  QelMemory memory(QelMemory::DefaultSmallBlockLimit, QelMemory::DefaultNumClasses, true);
  EXPECT_EQ(memory.getIndex(257), 10);
  EXPECT_EQ(memory.getIndex(512), 10);
  EXPECT_EQ(memory.getIndex(513), 11);
  EXPECT_EQ(memory.getIndex(1024), 11);
  EXPECT_EQ(memory.getIndex(1025), 12);
  EXPECT_EQ(memory.getIndex(2048), 12);
  EXPECT_EQ(memory.getIndex(2049), 13);
  EXPECT_EQ(memory.getIndex(4096), 13);
  EXPECT_EQ(memory.getIndex(4097), 14);
  EXPECT_EQ(memory.getIndex(8191), 14);
}

TEST(MemoryGetIndex, BitLengthHoldsUpToSixtyTwoBitSizes) {
  // Enough classes for the whole range of sizes: every branch of the bit
  // length computation is taken somewhere in this loop.
  QelMemory memory(QelMemory::DefaultSmallBlockLimit, 64, true);
  for (int k = 7; k <= 61; ++k) {
    long power = 1L << k;
    EXPECT_EQ(memory.getIndex(power), k + 1) << "2^" << k;
    EXPECT_EQ(memory.getIndex(power + 1), k + 2) << "2^" << k << " + 1";
    EXPECT_EQ(memory.getIndex(power + power / 2), k + 2) << "1.5 * 2^" << k;
  }
  // 2^62 + 1 would be class 64: out of range for 64 classes.
  EXPECT_EQ(memory.getIndex(1L << 62), 63);
  EXPECT_THROW(memory.getIndex((1L << 62) + 1), QelMemoryException);
}

TEST(MemoryGetIndex, BlockSizeOfEachClassCoversItsSizes) {
  QelMemory memory(QelMemory::DefaultSmallBlockLimit, QelMemory::DefaultNumClasses, true);
  for (long size = 1; size < memory.getSmallBlockLimit(); size += 7) {
    long c = memory.getIndex(size);
    EXPECT_GE(QelMemory::BlockSizeOfClass(c), size) << "size " << size;
    if (c > 0) {
      EXPECT_LT(QelMemory::BlockSizeOfClass(c - 1), size) << "size " << size;
    }
  }
  for (long i = 0; i < memory.getNumClasses(); ++i)
    EXPECT_EQ(memory.getClass(i).blockSize, QelMemory::BlockSizeOfClass(i));
}

TEST(MemoryGetIndex, OutOfRangeClassThrowsMemoryException) {
  QelMemory memory(QelMemory::DefaultSmallBlockLimit, QelMemory::DefaultNumClasses, true);
  EXPECT_EQ(memory.getIndex(8192), 14);
  EXPECT_THROW(memory.getIndex(8193), QelMemoryException);
  EXPECT_THROW(memory.getIndex(1L << 20), QelMemoryException);

  QelMemory few(QelMemory::DefaultSmallBlockLimit, 3, true);
  EXPECT_EQ(few.getIndex(24), 2);
  EXPECT_THROW(few.getIndex(25), QelMemoryException);
}

TEST(MemoryAlloc, RequestWhoseClassIsOutOfRangeThrowsMemoryException) {
  // A limit above what the classes cover: the class of 10000 bytes is 15.
  QelEnv env(QelEnvConfig{16384, QelMemory::DefaultNumClasses, true});
  QelEnvI* e = env.getImpl();
  MemorySnapshot before = Snapshot(e);
  EXPECT_THROW(e->alloc(10000), QelMemoryException);
  EXPECT_TRUE(Snapshot(e) == before);
  void* p = e->alloc(8000);
  ASSERT_NE(p, nullptr);
  e->free(p, 8000);
  env.end();
}

// ---- small and large requests --------------------------------------------

TEST(MemoryAlloc, SizeZeroReturnsNullWithoutTouchingAnyClass) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  MemorySnapshot before = Snapshot(e);
  EXPECT_EQ(e->alloc(0), nullptr);
  EXPECT_TRUE(Snapshot(e) == before);
  // Giving back null does nothing either.
  e->free(nullptr, 0);
  e->free(nullptr, 24);
  EXPECT_TRUE(Snapshot(e) == before);
  env.end();
}

TEST(MemoryAlloc, ExactlyTheSmallBlockLimitGoesToTheLargeBlockList) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  long limit = e->getMemory()->getSmallBlockLimit();
  ASSERT_EQ(limit, QelMemory::DefaultSmallBlockLimit);
  MemorySnapshot before = Snapshot(e);

  void* large = e->alloc(static_cast<size_t>(limit));
  ASSERT_NE(large, nullptr);
  MemorySnapshot after = Snapshot(e);
  EXPECT_EQ(after.largeBlocks, before.largeBlocks + 1);
  EXPECT_EQ(after.largeBytes, before.largeBytes + limit);
  EXPECT_EQ(after.inUse, before.inUse);
  EXPECT_EQ(after.chunkBytes, before.chunkBytes);

  // One byte less is small: the last class serves it.
  void* small = e->alloc(static_cast<size_t>(limit - 1));
  long last = e->getMemory()->getIndex(limit - 1);
  EXPECT_EQ(Snapshot(e).inUse[static_cast<size_t>(last)],
            before.inUse[static_cast<size_t>(last)] + QelMemory::BlockSizeOfClass(last));
  EXPECT_EQ(Snapshot(e).largeBlocks, before.largeBlocks + 1);

  e->free(small, static_cast<size_t>(limit - 1));
  e->free(large, static_cast<size_t>(limit));
  MemorySnapshot end = Snapshot(e);
  EXPECT_EQ(end.largeBlocks, before.largeBlocks);
  EXPECT_EQ(end.largeBytes, before.largeBytes);
  EXPECT_EQ(end.inUse, before.inUse);
  env.end();
}

TEST(MemoryAlloc, LargeBlocksAreUsableAndGoBack) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  QelInt before = e->getBytesInUse();
  const size_t sizes[] = {8192, 10000, 100000, 1 << 20};
  std::vector<void*> blocks;
  for (size_t s : sizes) {
    void* p = e->alloc(s);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0U);
    std::memset(p, 0xAB, s);
    blocks.push_back(p);
  }
  EXPECT_EQ(e->getLargeBlocks()->getBlockCount(), 4);
  EXPECT_EQ(e->getBytesInUse(), before + 8192 + 10000 + 100000 + (1 << 20));
  for (size_t i = 0; i < blocks.size(); ++i) e->free(blocks[i], sizes[i]);
  EXPECT_EQ(e->getLargeBlocks()->getBlockCount(), 0);
  EXPECT_EQ(e->getBytesInUse(), before);
  env.end();
}

TEST(MemoryFreeList, FreedBlockIsTheNextOneOfItsClass) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  void* p = e->alloc(24);
  ASSERT_NE(p, nullptr);
  e->free(p, 24);
  EXPECT_EQ(e->getMemory()->getClass(2).freeList, p);
  // Another class does not take it.
  void* other = e->alloc(40);
  EXPECT_NE(other, p);
  // Any size of the same class does.
  void* q = e->alloc(17);
  EXPECT_EQ(q, p);
  e->free(q, 17);
  e->free(other, 40);
  env.end();
}

TEST(MemoryFreeList, FreeListIsLastInFirstOut) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  void* a = e->alloc(8);
  void* b = e->alloc(8);
  void* c = e->alloc(8);
  EXPECT_NE(a, b);
  EXPECT_NE(b, c);
  e->free(a, 8);
  e->free(c, 8);
  EXPECT_EQ(e->alloc(8), c);
  EXPECT_EQ(e->alloc(8), a);
  e->free(a, 8);
  e->free(b, 8);
  e->free(c, 8);
  env.end();
}

TEST(MemoryFreeList, BlocksOfOneChunkAreDistinctAndWritable) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  std::vector<void*> blocks;
  // More than one chunk's worth of 1 KiB blocks.
  for (int i = 0; i < 100; ++i) {
    void* p = e->alloc(1000);
    std::memset(p, i, 1000);
    blocks.push_back(p);
  }
  for (int i = 0; i < 100; ++i) {
    const unsigned char* bytes = static_cast<const unsigned char*>(blocks[static_cast<size_t>(i)]);
    EXPECT_EQ(bytes[0], static_cast<unsigned char>(i));
    EXPECT_EQ(bytes[999], static_cast<unsigned char>(i));
  }
  for (void* p : blocks) e->free(p, 1000);
  env.end();
}

TEST(MemoryFreeList, ANewChunkIsHandedOutBlockByBlockInAddressOrder) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  QelFixedSizeAllocatorI& c = e->getMemory()->getClass(12);  // 1025..2048 bytes
  ASSERT_EQ(c.bytesObtained, 0);
  void* a = e->alloc(2000);
  // One chunk obtained; nothing of it went onto the free list.
  EXPECT_GT(c.bytesObtained, 0);
  EXPECT_EQ(c.freeList, nullptr);
  EXPECT_EQ(c.fresh, static_cast<char*>(a) + 2048);
  void* b = e->alloc(1500);
  EXPECT_EQ(b, static_cast<char*>(a) + 2048);
  EXPECT_EQ(c.fresh, static_cast<char*>(b) + 2048);
  EXPECT_EQ(c.bytesInUse, 4096);
  // The untouched rest of the chunk is a whole number of blocks.
  EXPECT_EQ((c.freshEnd - c.fresh) % 2048, 0);
  e->free(a, 2000);
  e->free(b, 1500);
  env.end();
}

TEST(MemoryFreeList, FreedBlocksAreReusedBeforeTheUnusedPartOfTheChunk) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  QelFixedSizeAllocatorI& c = e->getMemory()->getClass(12);
  void* a = e->alloc(2048);
  void* b = e->alloc(2048);
  char* fresh = c.fresh;
  e->free(a, 2048);
  EXPECT_EQ(e->alloc(2048), a);
  EXPECT_EQ(c.fresh, fresh);
  void* d = e->alloc(2048);
  EXPECT_EQ(d, fresh);
  e->free(a, 2048);
  e->free(b, 2048);
  e->free(d, 2048);
  EXPECT_EQ(c.bytesInUse, 0);
  env.end();
}

TEST(MemoryFreeList, ChunksGrowWithTheClassUpToTheLargestSize) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  QelFixedSizeAllocatorI& c = e->getMemory()->getClass(9);  // 129..256 bytes
  ASSERT_EQ(c.bytesObtained, 0);
  std::vector<void*> blocks;
  std::vector<QelInt> chunkSizes;
  QelInt obtained = 0;
  // 24 MiB of blocks: far past the largest chunk.
  for (int i = 0; i < 24 * 4096; ++i) {
    blocks.push_back(e->alloc(256));
    if (c.bytesObtained != obtained) {
      chunkSizes.push_back(c.bytesObtained - obtained);
      obtained = c.bytesObtained;
    }
    // What the class took and does not use is never more than one chunk
    // (plus at most a block per chunk, the offset of its first block), nor
    // more than what it uses plus a first chunk.
    ASSERT_LE(c.bytesObtained - c.bytesInUse, QelMemory::MaxChunkSize + c.chunkCount * c.blockSize);
    ASSERT_LE(c.bytesObtained, 2 * c.bytesInUse + QelMemory::ChunkSize);
  }
  ASSERT_GE(chunkSizes.size(), 3U);
  EXPECT_EQ(chunkSizes.front(), QelMemory::ChunkSize);
  EXPECT_EQ(chunkSizes.back(), QelMemory::MaxChunkSize);
  for (size_t i = 1; i < chunkSizes.size(); ++i) EXPECT_GE(chunkSizes[i], chunkSizes[i - 1]);
  // Every block is distinct and whole.
  for (size_t i = 0; i < blocks.size(); ++i)
    std::memset(blocks[i], static_cast<int>(i & 0xFF), 256);
  std::vector<void*> sorted = blocks;
  std::sort(sorted.begin(), sorted.end());
  for (size_t i = 1; i < sorted.size(); ++i)
    EXPECT_GE(static_cast<char*>(sorted[i]) - static_cast<char*>(sorted[i - 1]), 256);
  for (size_t i = 0; i < blocks.size(); ++i)
    ASSERT_EQ(*static_cast<unsigned char*>(blocks[i]), static_cast<unsigned char>(i & 0xFF));
  for (void* p : blocks) e->free(p, 256);
  EXPECT_EQ(c.bytesInUse, 0);
  env.end();
}

TEST(MemoryFreeList, TheNextChunkSizeFollowsWhatTheClassHolds) {
  QelFixedSizeAllocatorI c;
  c.blockSize = 64;
  EXPECT_EQ(c.nextChunkSize(), QelMemory::ChunkSize);
  c.bytesObtained = QelMemory::ChunkSize;
  EXPECT_EQ(c.nextChunkSize(), QelMemory::ChunkSize);
  c.bytesObtained = 2 * QelMemory::ChunkSize;
  EXPECT_EQ(c.nextChunkSize(), 2 * QelMemory::ChunkSize);
  c.bytesObtained = 5 * QelMemory::ChunkSize;
  EXPECT_EQ(c.nextChunkSize(), 4 * QelMemory::ChunkSize);
  c.bytesObtained = 1000L * QelMemory::MaxChunkSize;
  EXPECT_EQ(c.nextChunkSize(), QelMemory::MaxChunkSize);
}

#if defined(__linux__)
// Whether every page of [p, p + size) is in memory.
bool Resident(void* p, size_t size) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto first = reinterpret_cast<uintptr_t>(p) & ~(page - 1);
  auto end = (reinterpret_cast<uintptr_t>(p) + size + page - 1) & ~(page - 1);
  std::vector<unsigned char> in((end - first) / page);
  if (mincore(reinterpret_cast<void*>(first), end - first, in.data()) != 0) return false;
  for (unsigned char b : in)
    if ((b & 1) == 0) return false;
  return true;
}

TEST(MemoryPrefault, FaultsInTheWholePagesOfARange) {
  const size_t size = 64 * static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(p, MAP_FAILED);
  EXPECT_FALSE(Resident(p, size));
  QelMemory::Prefault(p, static_cast<long>(size));
  bool supported = Resident(p, size);
  // The pages hold zeros, as untouched ones would.
  if (supported) {
    const auto* bytes = static_cast<const unsigned char*>(p);
    EXPECT_TRUE(std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0; }));
  }
  munmap(p, size);
  if (!supported) GTEST_SKIP() << "this system cannot fault in a range at once";
}

TEST(MemoryPrefault, ALargeChunkIsInMemoryBeforeItsBlocksAreUsed) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  QelFixedSizeAllocatorI& c = e->getMemory()->getClass(12);  // 2 KiB blocks
  std::vector<void*> blocks;
  // Until the class takes a chunk of at least PrefaultChunkSize.
  QelInt before = 0;
  while (c.bytesObtained - before < QelMemory::PrefaultChunkSize) {
    before = c.bytesObtained;
    blocks.push_back(e->alloc(2048));
  }
  // The rest of the new chunk, never written, is in memory already.
  size_t rest = static_cast<size_t>(c.freshEnd - c.fresh);
  ASSERT_GT(rest, size_t{4096} * 8);
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* probe = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(probe, MAP_FAILED);
  QelMemory::Prefault(probe, static_cast<long>(page));  // whether the system can do it at all
  bool supported = Resident(probe, page);
  munmap(probe, page);
  if (supported) {
    // Inner pages only: the chunk's edges share pages with other blocks.
    EXPECT_TRUE(Resident(c.fresh + page, rest - 2 * page));
  }
  for (void* p : blocks) e->free(p, 2048);
  env.end();
  if (!supported) GTEST_SKIP() << "this system cannot fault in a range at once";
}
#endif

TEST(MemoryStatistics, BytesInUseAndObtainedPerClassInFreeListMode) {
  QelEnv env(FreeLists());
  QelEnvI* e = env.getImpl();
  QelFixedSizeAllocatorI& c4 = e->getMemory()->getClass(4);  // 33..40 bytes
  ASSERT_EQ(c4.freeListMode, 1);
  QelInt inUse0 = c4.bytesInUse;
  QelInt obtained0 = c4.bytesObtained;

  void* p = e->alloc(33);
  EXPECT_EQ(c4.bytesInUse, inUse0 + 40);
  // The class refilled its list with a chunk of whole blocks.
  QelInt obtained1 = c4.bytesObtained;
  EXPECT_GT(obtained1, obtained0);
  EXPECT_EQ((obtained1 - obtained0) % 40, 0);
  EXPECT_GE(obtained1, c4.bytesInUse);

  void* q = e->alloc(40);
  EXPECT_EQ(c4.bytesInUse, inUse0 + 80);
  EXPECT_EQ(c4.bytesObtained, obtained1);

  e->free(p, 33);
  e->free(q, 40);
  EXPECT_EQ(c4.bytesInUse, inUse0);
  EXPECT_EQ(c4.bytesObtained, obtained1);
  // The environment totals follow the classes.
  EXPECT_EQ(e->getBytesInUse(), 0);
  EXPECT_GE(e->getBytesObtained(), obtained1);
  env.end();
}

TEST(MemoryStatistics, WithoutFreeListsEveryBlockIsObtainedSingly) {
  QelEnv env(QelEnvConfig{QelMemory::DefaultSmallBlockLimit, QelMemory::DefaultNumClasses, false});
  QelEnvI* e = env.getImpl();
  QelFixedSizeAllocatorI& c8 = e->getMemory()->getClass(8);  // 65..128 bytes
  ASSERT_EQ(c8.freeListMode, 0);
  ASSERT_NE(c8.allocationList, nullptr);
  QelInt listBlocks = c8.allocationList->getBlockCount();

  void* p = e->alloc(100);
  void* q = e->alloc(128);
  ASSERT_NE(p, nullptr);
  ASSERT_NE(q, nullptr);
  EXPECT_NE(p, q);
  EXPECT_EQ(c8.bytesInUse, 256);
  EXPECT_EQ(c8.bytesObtained, 256);
  EXPECT_EQ(c8.allocationList->getBlockCount(), listBlocks + 2);
  EXPECT_EQ(c8.freeList, nullptr);
  EXPECT_EQ(e->getMemory()->getChunkBytes(), 0);

  e->free(p, 100);
  // The block went back to the list, not onto a free list.
  EXPECT_EQ(c8.freeList, nullptr);
  EXPECT_EQ(c8.allocationList->getBlockCount(), listBlocks + 1);
  EXPECT_EQ(c8.bytesInUse, 128);
  // Bytes obtained count what the class took, as in free-list mode.
  EXPECT_EQ(c8.bytesObtained, 256);

  e->free(q, 128);
  EXPECT_EQ(c8.bytesInUse, 0);
  EXPECT_EQ(c8.allocationList->getBlockCount(), listBlocks);
  EXPECT_EQ(e->getBytesInUse(), 0);
  env.end();
}

TEST(MemoryStatistics, NonFreeListModeServesObjectsToo) {
  QelEnv env(QelEnvConfig{QelMemory::DefaultSmallBlockLimit, QelMemory::DefaultNumClasses, false});
  // The first object makes the environment's table, which stays.
  QelModel(env, "warm-up").end();
  QelInt before = qeltest::BytesInUse(env);
  QelModel m(env, "m");
  m.getImpl()->setLocation("file.cpp", 12);
  EXPECT_GT(qeltest::BytesInUse(env), before);
  EXPECT_EQ(env.getImpl()->getMemory()->getChunkBytes(), 0);
  m.end();
  EXPECT_EQ(qeltest::BytesInUse(env), before);
  env.end();
}

// ---- the allocation list -------------------------------------------------

TEST(AllocationList, BlocksRememberTheirSize) {
  QelAllocationList list;
  EXPECT_EQ(list.getBlockCount(), 0);
  EXPECT_EQ(list.getBytesInUse(), 0);
  void* a = list.alloc(10);
  void* b = list.alloc(100);
  void* c = list.alloc(1000);
  for (void* p : {a, b, c}) {
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0U);
  }
  std::memset(a, 1, 10);
  std::memset(b, 2, 100);
  std::memset(c, 3, 1000);
  EXPECT_EQ(list.getBlockCount(), 3);
  EXPECT_EQ(list.getBytesInUse(), 1110);

  list.free(b);  // from the middle
  EXPECT_EQ(list.getBlockCount(), 2);
  EXPECT_EQ(list.getBytesInUse(), 1010);
  list.free(nullptr);
  EXPECT_EQ(list.getBlockCount(), 2);
  list.free(c);  // the head
  list.free(a);  // the last one
  EXPECT_EQ(list.getBlockCount(), 0);
  EXPECT_EQ(list.getBytesInUse(), 0);

  // Blocks still held go with releaseAll (and with the list).
  list.alloc(5);
  list.alloc(6);
  list.releaseAll();
  EXPECT_EQ(list.getBlockCount(), 0);
  EXPECT_EQ(list.getBytesInUse(), 0);
  list.alloc(7);
}

TEST(AllocationList, FreeingInAnyOrderKeepsTheListWhole) {
  QelAllocationList list;
  std::vector<void*> blocks;
  for (long i = 1; i <= 20; ++i) blocks.push_back(list.alloc(i * 3));
  QelInt bytes = list.getBytesInUse();
  EXPECT_EQ(bytes, 3 * 20 * 21 / 2);
  // Every other block first, then the rest backwards.
  for (size_t i = 0; i < blocks.size(); i += 2) list.free(blocks[i]);
  EXPECT_EQ(list.getBlockCount(), 10);
  for (size_t i = blocks.size() - 1; i < blocks.size(); i -= 2) list.free(blocks[i]);
  EXPECT_EQ(list.getBlockCount(), 0);
  EXPECT_EQ(list.getBytesInUse(), 0);
}

// ---- custom allocator ----------------------------------------------------

TEST(MemoryCustomAllocator, TakesEveryAllocationAndFree) {
  RecordingAllocator custom;
  {
    QelEnv env;
    QelEnvI* e = env.getImpl();
    e->setCustomAllocator(&custom);
    EXPECT_EQ(e->getCustomAllocator(), &custom);
    MemorySnapshot before = Snapshot(e);

    void* small = e->alloc(24);
    void* zero = e->alloc(0);
    void* large = e->alloc(20000);
    EXPECT_EQ(custom.allocSizes, (std::vector<size_t>{24, 0, 20000}));
    EXPECT_EQ(custom.live.size(), 3U);
    // Neither the classes nor the lists were used.
    EXPECT_TRUE(Snapshot(e) == before);

    e->free(small, 24);
    e->free(large, 20000);
    e->free(zero, 0);
    // Even null goes to the custom allocator.
    e->free(nullptr, 8);
    ASSERT_EQ(custom.freed.size(), 4U);
    EXPECT_EQ(custom.freed[0], std::make_pair(small, size_t(24)));
    EXPECT_EQ(custom.freed[1], std::make_pair(large, size_t(20000)));
    EXPECT_EQ(custom.freed[2], std::make_pair(zero, size_t(0)));
    EXPECT_EQ(custom.freed[3], std::make_pair(static_cast<void*>(nullptr), size_t(8)));
    EXPECT_TRUE(Snapshot(e) == before);
    EXPECT_EQ(custom.live.size(), 0U);
    env.end();
  }
  // Ending the environment flushes the allocator.
  EXPECT_EQ(custom.flushes, 1);
}

TEST(MemoryCustomAllocator, ObjectsComeFromItAndGoBackToIt) {
  RecordingAllocator custom;
  QelEnv env;
  env.getImpl()->setCustomAllocator(&custom);
  QelModel m(env, "m");
  size_t allocs = custom.allocSizes.size();
  EXPECT_GE(allocs, 1U);
  EXPECT_NE(std::find(custom.allocSizes.begin(), custom.allocSizes.end(), sizeof(QelModelI)),
            custom.allocSizes.end());
  QelModelI* impl = m.getImpl();
  m.end();
  bool modelFreed = false;
  for (auto& f : custom.freed)
    if (f.first == impl && f.second == sizeof(QelModelI)) modelFreed = true;
  EXPECT_TRUE(modelFreed);
  env.end();
}

TEST(MemoryCustomAllocator, ThreadAndDisabledChecksComeFirst) {
  RecordingAllocator custom;
  QelEnv env;
  QelEnvI* e = env.getImpl();
  e->setCustomAllocator(&custom);

  e->setAllocationDisabled(true);
  EXPECT_THROW(e->alloc(16), QelEnvAllocationDisabled);
  int dummy = 0;
  EXPECT_THROW(e->free(&dummy, sizeof dummy), QelEnvAllocationDisabled);
  e->setAllocationDisabled(false);

  EXPECT_EQ(RunOnOtherThread([&] { e->alloc(16); }), "thread mismatch");
  EXPECT_EQ(RunOnOtherThread([&] { e->free(&dummy, sizeof dummy); }), "thread mismatch");

  EXPECT_TRUE(custom.allocSizes.empty());
  EXPECT_TRUE(custom.freed.empty());
  env.end();
}

TEST(MemoryCustomAllocator, RecordLocationReachesTheCustomAllocator) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  void* field = nullptr;
  // Without a custom allocator nothing happens.
  e->recordLocation(&field);

  RecordingAllocator custom;
  e->setCustomAllocator(&custom);
  e->recordLocation(&field);
  e->recordLocation(&custom);
  EXPECT_EQ(custom.locations, (std::vector<void*>{&field, &custom}));
  e->setCustomAllocator(nullptr);
  e->recordLocation(&field);
  EXPECT_EQ(custom.locations.size(), 2U);
  env.end();
}

TEST(MemoryCustomAllocator, BaseClassDefaultsDoNothing) {
  // A minimal allocator that keeps the default flush and recordLocation.
  class Minimal : public QelCustomAllocatorI {
   public:
    void* alloc(size_t size) override { return std::malloc(size == 0 ? 1 : size); }
    void free(void* p, size_t) override { std::free(p); }
  } minimal;
  QelEnv env;
  QelEnvI* e = env.getImpl();
  e->setCustomAllocator(&minimal);
  int field = 0;
  e->recordLocation(&field);
  void* p = e->alloc(12);
  ASSERT_NE(p, nullptr);
  e->free(p, 12);
  EXPECT_EQ(field, 0);
  env.end();  // calls the default flush
}

// ---- allocation disabled and the allocator thread -------------------------

TEST(MemoryDisabled, AllocAndFreeThrowWhileDisabled) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  void* p = e->alloc(32);
  void* large = e->alloc(9000);
  EXPECT_FALSE(e->isAllocationDisabled());
  e->setAllocationDisabled(true);
  EXPECT_TRUE(e->isAllocationDisabled());
  MemorySnapshot before = Snapshot(e);

  EXPECT_THROW(e->alloc(32), QelEnvAllocationDisabled);
  EXPECT_THROW(e->alloc(0), QelEnvAllocationDisabled);
  EXPECT_THROW(e->alloc(9000), QelEnvAllocationDisabled);
  EXPECT_THROW(e->free(p, 32), QelEnvAllocationDisabled);
  EXPECT_THROW(e->free(nullptr, 32), QelEnvAllocationDisabled);
  EXPECT_THROW(e->free(large, 9000), QelEnvAllocationDisabled);
  EXPECT_TRUE(Snapshot(e) == before);
  EXPECT_EQ(MessageOf<QelEnvAllocationDisabled>([&] { e->alloc(8); }),
            "Environment allocation is disabled");

  // Creating an object fails the same way and leaves nothing behind.
  EXPECT_THROW({ QelModel m(env, "m"); }, QelEnvAllocationDisabled);
  EXPECT_TRUE(Snapshot(e) == before);

  e->setAllocationDisabled(false);
  e->free(p, 32);
  e->free(large, 9000);
  EXPECT_EQ(e->getBytesInUse(), 0);
  env.end();
}

TEST(MemoryThread, ForeignThreadCanNeitherAllocNorFree) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  EXPECT_TRUE(e->matchesAllocatorThread());
  void* p = e->alloc(48);
  MemorySnapshot before = Snapshot(e);

  bool matchesThere = true;
  std::thread t([&] { matchesThere = e->matchesAllocatorThread(); });
  t.join();
  EXPECT_FALSE(matchesThere);

  EXPECT_EQ(RunOnOtherThread([&] { e->alloc(48); }), "thread mismatch");
  EXPECT_EQ(RunOnOtherThread([&] { e->alloc(20000); }), "thread mismatch");
  EXPECT_EQ(RunOnOtherThread([&] { e->free(p, 48); }), "thread mismatch");
  // The thread test comes before the disabled test.
  e->setAllocationDisabled(true);
  EXPECT_EQ(RunOnOtherThread([&] { e->alloc(48); }), "thread mismatch");
  EXPECT_EQ(RunOnOtherThread([&] { e->free(p, 48); }), "thread mismatch");
  e->setAllocationDisabled(false);
  EXPECT_TRUE(Snapshot(e) == before);

  e->free(p, 48);
  env.end();
}

TEST(MemoryThread, SetAllocatorThreadMovesOwnership) {
  QelEnv env;
  QelEnvI* e = env.getImpl();
  void* fromThere = nullptr;
  std::string outcome = RunOnOtherThread([&] {
    e->setAllocatorThread();
    fromThere = e->alloc(64);
  });
  EXPECT_EQ(outcome, "");
  ASSERT_NE(fromThere, nullptr);
  // The creating thread lost the right.
  EXPECT_FALSE(e->matchesAllocatorThread());
  EXPECT_THROW(e->alloc(8), QelEnvAllocatorThreadMismatch);
  EXPECT_THROW(e->free(fromThere, 64), QelEnvAllocatorThreadMismatch);
  // And takes it back.
  e->setAllocatorThread();
  EXPECT_TRUE(e->matchesAllocatorThread());
  e->free(fromThere, 64);
  EXPECT_EQ(e->getBytesInUse(), 0);
  env.end();
}

// ---- formatting ------------------------------------------------------------

TEST(MemorySPrintf, WritesPastTheGivenSize) {
  char buffer[64];
  std::memset(buffer, 'X', sizeof buffer);
  int n = QelSPrintf(buffer, 4, "%s(%d)", "variable", 12345);
  EXPECT_EQ(n, 15);
  EXPECT_STREQ(buffer, "variable(12345)");
  EXPECT_EQ(buffer[16], 'X');  // nothing written after the zero byte
}

TEST(MemorySPrintf, FormatsLikeSprintf) {
  char buffer[32];
  EXPECT_EQ(QelSPrintf(buffer, sizeof buffer, "%ld-%.2f", 7L, 1.5), 6);
  EXPECT_STREQ(buffer, "7-1.50");
  EXPECT_EQ(QelSPrintf(buffer, 0, ""), 0);
  EXPECT_STREQ(buffer, "");
}

}  // namespace

// ---- the default configuration ---------------------------------------------

TEST(MemoryConfig, FreeListsUnlessQelNoFreeListsSaysOtherwise) {
  const char* set = std::getenv("QEL_NO_FREE_LISTS");
  std::string saved = set != nullptr ? set : "";
  ::unsetenv("QEL_NO_FREE_LISTS");
  EXPECT_TRUE(QelEnvConfig().freeLists);
  for (const char* off : {"", "0"}) {
    ::setenv("QEL_NO_FREE_LISTS", off, 1);
    EXPECT_TRUE(QelEnvConfig().freeLists) << "\"" << off << "\"";
  }
  ::setenv("QEL_NO_FREE_LISTS", "1", 1);
  EXPECT_FALSE(QelEnvConfig().freeLists);
  QelEnv env;  // the default configuration, read now
  EXPECT_EQ(env.getImpl()->getMemory()->getClass(0).freeListMode, 0);
  void* p = env.getImpl()->alloc(24);
  EXPECT_EQ(env.getImpl()->getMemory()->getChunkBytes(), 0);
  env.getImpl()->free(p, 24);
  env.end();
  // An explicit choice is not overridden.
  QelEnv chosen(FreeLists());
  EXPECT_EQ(chosen.getImpl()->getMemory()->getClass(0).freeListMode, 1);
  chosen.end();
  if (set != nullptr)
    ::setenv("QEL_NO_FREE_LISTS", saved.c_str(), 1);
  else
    ::unsetenv("QEL_NO_FREE_LISTS");
}

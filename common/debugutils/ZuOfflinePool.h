// Durable queue memory of the offline logger (internal, not installed).
//
// A logger's 1 MiB blocks live in a file mapped MAP_SHARED, one file per logger type
// and process, so that the kernel keeps every appended byte when the process dies,
// SIGKILL included. Next to the blocks the file holds what the next start needs to
// write the unflushed lines exactly once: per block its owner, its complete bytes and
// how much of it is already in a log file, plus the one file write under way.
//
// File layout (all offsets multiples of 64 KiB, so that any page size maps them):
//   [0, 64 KiB)                 PoolHeader
//   [64 KiB, 512 KiB)           7 crash slots of 64 KiB
//   chunk c at 512 KiB + c * kChunkBytes:
//     [0, 64 KiB)               16 BlockDesc of the chunk's blocks
//     [64 KiB, 64 KiB + 16 MiB) the 16 blocks
// The owner holds an open-file-description write lock on the whole file for as long
// as it lives: a file that can be locked belongs to a process that is gone.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace zudebug {

namespace pool {

constexpr uint32_t kBlockSize = 1048576;
constexpr uint32_t kBlocksPerChunk = 16;
constexpr uint64_t kAreaBytes = 65536;  // each chunk's descriptor area
constexpr uint64_t kChunkBytes = kAreaBytes + static_cast<uint64_t>(kBlocksPerChunk) * kBlockSize;
// 3: this layout; 2: a 64 KiB header area with slots of 8 KiB from 8 KiB on; 1: the
// same without crash slots.
constexpr uint32_t kVersion = 3;
constexpr char kMagic[8] = {'Z', 'U', 'P', 'O', 'O', 'L', '1', '\0'};

// Default directory of the pool files, and the property that moves it (for example
// onto a RAM file system, to spare flash).
constexpr const char* kDefaultPoolDir = "/data/vendor/camera/offlinelog/.pool";
constexpr const char* kPoolDirProperty = "persist.vendor.camera.offlinelog.pooldir";

// Mode of the offline and queue directories the library makes: every camera process of
// the group writes there, nobody else (the set-group-id bit keeps new files in the
// group). The property gives another mode in octal; a world-writable one is refused.
constexpr mode_t kDefaultDirMode = 02770;
constexpr const char* kDirModeProperty = "persist.vendor.camera.offlinelog.dirmode";
mode_t directoryMode();

// The queues a pool may hold, in MiB (16 queues of 1 MiB make a chunk): past it lines
// are given up and counted, and recovery reads no more than that of a dead file.
constexpr uint32_t kDefaultBoundMiB = 64;
constexpr const char* kBoundProperty = "persist.vendor.camera.offlinelog.poolmb";
uint32_t chunkLimit();

enum BlockState : uint32_t { kBlockFree = 0, kBlockOwned = 1, kBlockWaiting = 2 };

// One per block. Written by the block's owner (used) and by the flusher (flushed)
// with atomic stores, so that a reader in another process, after a kill, sees a
// prefix of complete lines.
struct BlockDesc {
  uint32_t state;    // BlockState
  uint32_t tid;      // owner thread
  uint32_t used;     // complete bytes in the block
  uint32_t flushed;  // bytes of the block already written to a log file
  uint64_t seq;      // order in which blocks were taken: recovery writes in this order
  uint8_t pad[40];
};
static_assert(sizeof(BlockDesc) == 64, "one cache line per block");

// The file write under way, if any: when the process dies inside it, the next start
// finds out from the target file's size whether the write completed, and cuts a torn
// tail off.
struct WriteIntent {
  uint32_t state;  // 1 while the write runs
  uint32_t block;  // block index in the pool file
  uint32_t from;   // the block's bytes [from, to) are being written
  uint32_t to;
  uint64_t fileOffset;  // size of the target file before the write
  char file[488];       // device path of the target file
};

// Crash records, kept apart from the queues: the crash catcher fills a slot line by
// line without taking any of the logger's locks, so that a thread that faults while it
// holds them (or in the middle of an append) still leaves its record. A forced flush
// writes complete slots after the queues; the next start writes what a dead process
// left, also a record its catcher did not finish.
constexpr uint32_t kCrashSlots = 7;
constexpr uint32_t kCrashSlotBytes = 65536;
constexpr uint64_t kCrashAreaOffset = 65536;  // in the header area
constexpr uint64_t kHeaderBytes = kCrashAreaOffset + kCrashSlots * kCrashSlotBytes;
static_assert(kHeaderBytes == 524288, "the header area is 512 KiB");
// The header area of the version 1 and 2 files, and their slots.
constexpr uint64_t kV2HeaderBytes = 65536;
constexpr uint32_t kV2CrashSlotBytes = 8192;
constexpr uint64_t kV2CrashAreaOffset = 8192;
// A write intent's block number with this bit set names a crash slot.
constexpr uint32_t kCrashIntentBit = 0x80000000u;

enum CrashSlotState : uint32_t { kSlotFree = 0, kSlotFilling = 1, kSlotComplete = 2, kSlotWriting = 3 };

struct CrashSlot {
  uint32_t state;    // CrashSlotState
  uint32_t tid;      // the faulting thread
  uint32_t used;     // bytes of the record
  uint32_t flushed;  // bytes already written to a log file
  uint64_t seq;      // order of the records
  uint8_t pad[40];
};
static_assert(sizeof(CrashSlot) == 64, "one cache line per slot");

struct PoolHeader {
  char magic[8];
  uint32_t version;
  uint32_t loggerType;
  uint32_t pid;
  uint32_t blockSize;
  uint32_t blocksPerChunk;
  uint32_t chunkCount;  // chunks reserved on disk and described
  uint64_t areaBytes;   // the header area
  uint64_t chunkBytes;
  uint64_t createdNs;  // real-time clock at creation
  uint32_t announced;  // a recoverer has written its notice line
  uint32_t reserved;
  WriteIntent intent;
  CrashSlot crash[kCrashSlots];  // version 2 on
};
static_assert(sizeof(PoolHeader) <= kCrashAreaOffset, "the header stays below the crash slots");

inline uint32_t loadAcquire(const uint32_t* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
inline void storeRelease(uint32_t* p, uint32_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }

inline bool casState(uint32_t* p, uint32_t from, uint32_t to) {
  return __atomic_compare_exchange_n(p, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// The crash slots of a pool: in the mapped header of the pool file, or in process
// memory when there is no file. Every call is async-signal-safe.
class CrashArea {
 public:
  CrashArea() = default;
  CrashArea(uint8_t* headerArea, bool durable)
      : mSlots(reinterpret_cast<PoolHeader*>(headerArea)->crash),
        mData(headerArea + kCrashAreaOffset),
        mDurable(durable) {}
  bool valid() const { return mSlots != nullptr; }
  // Kept in the pool file, so that the next start finds what the flush did not write.
  bool durable() const { return mDurable; }
  // Takes a free slot for a record of thread `tid`, empty and being filled; -1 when
  // every slot is taken.
  int claim(uint32_t tid) const;
  // The claimed slot's bytes [0, used) are whole lines of the record.
  void publish(uint32_t slot, uint32_t used) const { storeRelease(&mSlots[slot].used, used); }
  // The record is whole: flushes may write it now.
  void complete(uint32_t slot) const { storeRelease(&mSlots[slot].state, kSlotComplete); }
  uint8_t* bytes(uint32_t slot) const { return mData + static_cast<uint64_t>(slot) * kCrashSlotBytes; }
  // Takes a complete slot for writing it out; false when it is not complete (free,
  // still being filled, or taken by another writer).
  bool take(uint32_t slot) const { return casState(&mSlots[slot].state, kSlotComplete, kSlotWriting); }
  // A taken slot's bytes, written: the slot is free again.
  void release(uint32_t slot) const;
  CrashSlot& slot(uint32_t i) const { return mSlots[i]; }
  const uint8_t* data(uint32_t i) const { return mData + static_cast<uint64_t>(i) * kCrashSlotBytes; }
  // Complete slots in record order, at most kCrashSlots; returns the count.
  uint32_t completeInOrder(uint32_t* out) const;

 private:
  CrashSlot* mSlots = nullptr;
  uint8_t* mData = nullptr;
  bool mDurable = false;
};

// One mapped (or, after a failure, anonymous) chunk: 16 descriptors and 16 blocks.
struct Chunk {
  uint8_t* base = nullptr;
  int fileChunk = -1;  // chunk index in the pool file; -1 for anonymous memory
  BlockDesc* desc(uint32_t i) const { return reinterpret_cast<BlockDesc*>(base) + i; }
  uint8_t* block(uint32_t i) const { return base + kAreaBytes + static_cast<uint64_t>(i) * kBlockSize; }
};

// The owner's side of a pool file.
class PoolFile {
 public:
  PoolFile() = default;
  ~PoolFile() { close(true); }
  PoolFile(const PoolFile&) = delete;
  PoolFile& operator=(const PoolFile&) = delete;

  // Creates "<dir>/ZuCam_<type>_<pid>_<stamp>.pool" (device paths), locks and maps it,
  // with room for `chunkLimit` chunks. On failure returns false with the reason in
  // `why`; the pool then lives in memory.
  bool create(const std::string& dir, const std::string& typeName, uint32_t loggerType, uint32_t chunkLimit,
              std::string* why);
  bool isOpen() const { return mHeader != nullptr; }
  // Adds one chunk: reserved on disk and mapped when the file is open, otherwise (or
  // when that fails, with the reason in `why`) anonymous memory. False when no memory
  // at all could be had.
  bool grow(Chunk* out, std::string* why);
  PoolHeader* header() const { return mHeader; }
  // Makes the crash slots ready: in the file's header while it is open, in process
  // memory otherwise (kept until close). After a fork the child's slots are its private
  // copy of the header.
  void prepareCrashArea();
  const CrashArea& crashArea() const { return mCrash; }
  const std::string& path() const { return mPath; }
  // Unmaps every chunk and the header; removes the file when asked.
  void close(bool remove);
  // Whether the file lost its name under the process (its directory cleared by hand).
  bool unlinked() const;
  // Whether the file was cut short under the process (or a fault on it was repaired
  // with zeroed memory since the last call).
  bool cutShort();
  // After cutShort(): every chunk (and the header) that reaches past the file's end is
  // moved into process memory with the bytes the file still holds, and the pool grows
  // in process memory from now on. Only while nothing writes into the pool. Returns
  // the file's size; `movedSlots` receives the moved chunks' places in the order they
  // were added, `headerMoved` whether the crash slots left the file too.
  uint64_t keepCutPartInMemory(std::vector<uint32_t>* movedSlots, bool* headerMoved);
  // The file offset of a chunk's first block, or -1 when the chunk is not in the file.
  int64_t chunkFileOffset(uint32_t slot) const;
  // Gives the pool a file again after unlinked(): a new one at the same path receives
  // everything the old one holds and takes its place in every mapping. Only while
  // nothing writes into the pool (appends held off, the flush ours). False, with the
  // reason in `why`, when it could not be done; the old file stays mapped then.
  bool relink(std::string* why);
  // In a child after fork(): the mappings become private copies, so that the child's
  // lines never land in its parent's blocks, and the child lets go of the file.
  // Single-threaded, no locks: the child holds only the forking thread.
  void detachAfterFork();

 private:
  uint8_t* slotAddress(uint32_t slot) const { return mBase + kHeaderBytes + slot * kChunkBytes; }

  int mFd = -1;
  uint8_t* mBase = nullptr;  // address space for the header and every chunk the bound allows
  uint64_t mReserved = 0;
  uint32_t mSlots = 0;           // chunks that fit in it
  uint32_t mFileChunks = 0;      // chunks added to the file
  int mGuard = -1;               // its handle with the fault guard
  bool mInMemory = false;        // cut short once: no more chunks from the file
  bool mHeaderInMemory = false;  // cut below its header: the crash slots live in process memory
  PoolHeader* mHeader = nullptr;
  void* mDetachedHeader = nullptr;
  void* mMemoryHeader = nullptr;  // crash slots when there is no file header
  CrashArea mCrash;
  std::string mPath;  // device path
  std::vector<Chunk> mChunks;
};

// The recoverer's side: writes what a dead process left into the recoverer's files.
class RecoveryWriter {
 public:
  virtual ~RecoveryWriter() = default;
  // Appends `len` bytes to the current log file, calling `intent` with the file's
  // device path and its size before the write, just before writing. False when the
  // bytes could not be written: they stay in the dead pool for a later start.
  virtual bool writeRecovered(const uint8_t* data, uint32_t len,
                              void (*intent)(void* ctx, const char* file, uint64_t offset), void* ctx) = 0;
  // Formats and appends the line that announces a recovered stretch; false when it
  // could not be written.
  virtual bool writeNotice(uint64_t bytes, uint32_t pid, const char* poolFile) = 0;
  // Appends the line that says what of a dead pool could not be written and is kept
  // in it for a later start.
  virtual void writeKeptNotice(uint64_t written, uint64_t kept, uint32_t pid, const char* poolFile) = 0;
};

// Recovers every pool file of `typeName` in `dir` whose owner is gone, removes it,
// and returns the number of files recovered. `logDir` is the offline directory whose
// files a pending write may have targeted.
// At most `chunkLimit` chunks of a file are read.
int recoverDeadPools(const std::string& dir, const std::string& typeName, uint32_t loggerType,
                     const char* logDir, uint32_t chunkLimit, RecoveryWriter& writer);

}  // namespace pool
}  // namespace zudebug

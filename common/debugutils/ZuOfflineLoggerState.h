// The offline logger's machinery (internal, not installed): its locks, the records
// of handed-out queues and of each thread's lifetime, and the logger's state.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <set>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ZuDebugOfflineLogger.h"
#include "ZuOfflinePool.h"
#include "ZuThreadRecord.h"

namespace zudebug {

// A mutex that remembers which thread holds it, so that code running in a signal
// handler can tell whether the interrupted thread is inside a critical section.
// `Base` is std::mutex or std::recursive_mutex. Bounded waits poll try_lock, so that
// they are safe in a signal handler and visible to every sanitizer.
template <class Base>
class ZuOwnedMutex {
 public:
  void lock() {
    mBase.lock();
    noteAcquired();
  }
  bool try_lock() {
    if (!mBase.try_lock()) return false;
    noteAcquired();
    return true;
  }
  bool try_lock_until(std::chrono::steady_clock::time_point deadline) {
    if (deadline == std::chrono::steady_clock::time_point::max()) {
      lock();
      return true;
    }
    for (;;) {
      if (try_lock()) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
  void unlock() {
    if (--mDepth == 0) mOwner.store(0, std::memory_order_relaxed);
    mBase.unlock();
  }
  bool heldByCurrentThread() const { return mOwner.load(std::memory_order_relaxed) == zuCurrentTid(); }
  bool heldBy(uint32_t tid) const { return mOwner.load(std::memory_order_relaxed) == tid; }

 private:
  void noteAcquired() {
    if (mDepth++ == 0) mOwner.store(zuCurrentTid(), std::memory_order_relaxed);
  }
  Base mBase;
  std::atomic<uint32_t> mOwner{0};
  uint32_t mDepth = 0;  // changed only by the holder
};
using ZuOwnedRecursiveMutex = ZuOwnedMutex<std::recursive_mutex>;
using ZuOwnedPlainMutex = ZuOwnedMutex<std::mutex>;

// Reader-writer lock of a logger's pool. Readers (appends of many threads) each touch
// only their own stripe, so appends of different threads never contend; a writer
// (forced flush, reset, stop) closes the door and waits until every stripe is empty.
// Lock order in the logger: pool lock (write), file mutex, queue mutex, pool mutex.
class ZUDEBUG_EXPORT ZuPoolLock {
 public:
  using Deadline = std::chrono::steady_clock::time_point;
  static constexpr unsigned kStripes = 16;
  static constexpr unsigned kSharedStripe = kStripes - 1;  // never held alone
  // Shared side on the caller's stripe (below kStripes; see claimStripe); false when
  // the deadline passed first.
  bool lockShared(unsigned stripe, Deadline deadline = Deadline::max());
  void unlockShared(unsigned stripe);
  // The same for the one thread that holds the stripe alone: a plain store instead of
  // a locked instruction. Holds taken on the stripe in between (by a signal handler on
  // the same thread) must have been given back.
  void unlockOwnShared(unsigned stripe);
  // A stripe for a thread's appends: one no other live thread holds while there is
  // one (*alone true), else kSharedStripe. Give it back with releaseStripe.
  static unsigned claimStripe(bool* alone);
  static void releaseStripe(unsigned stripe);
  // Exclusive side, not recursive; false when the deadline passed first.
  bool lock(Deadline deadline = Deadline::max());
  void unlock();
  bool heldByCurrentThread() const { return mOwner.load(std::memory_order_relaxed) == zuCurrentTid(); }

 private:
  struct alignas(64) Stripe {
    std::atomic<uint32_t> readers{0};
  };
  Stripe mStripes[kStripes];
  std::atomic<bool> mWriter{false};
  ZuOwnedPlainMutex mWriterMutex;
  std::atomic<uint32_t> mOwner{0};
};

// One record per handed-out queue; its index in the pool is the register id. Its owner
// updates it with every line: a cache line of its own.
struct alignas(64) PerLogThreadInfo {
  bool bNeedFlush = false;            // handed to the flush thread
  bool bReserved = false;             // cleared whenever the record is (re)used
  uint32_t threadId = 0;              // kernel id of the owner
  int32_t memoryIndex = -1;           // block index in mMemoryLogPool
  uint32_t sessionCount = 0;          // owner's session when the queue was taken
  std::atomic<uint32_t> usedSize{0};  // bytes written into the block, published by the owner
  uint32_t flushedSize = 0;           // bytes of the block in a file: the flusher's own count
  std::string name;                   // kept for the owner's name
  uint32_t writtenTotal = 0;          // running count mirrored from the owner
  uint8_t* address = nullptr;         // the block itself, so owners need not index the pool
  pool::BlockDesc* desc = nullptr;    // the block's durable counters; null once recycled
};

// Per logger and thread: released at thread exit, when the thread's last queue is
// handed to the flush thread.
struct LifetimeThreadInfo {
  explicit LifetimeThreadInfo(ZuOfflineLoggerType type) : loggerType(type) {}
  ~LifetimeThreadInfo();
  uint32_t threadId = 0;  // 0: no queue
  int32_t registerId = -1;
  ZuOfflineLoggerType loggerType;
  uint32_t session = 0;  // logger session and record epoch the queue belongs to
  uint32_t epoch = 0;
};

struct ZuDegbugOfflineLogger::State {
  explicit State(ZuOfflineLoggerType type)
      : mZuOfflineLoggerType(type), mTypeName(type == ZuOfflineLoggerType::Debug ? "Debug" : "Binary") {}

  // Pool and queues.
  std::vector<uint8_t*> mMemoryLogPool;
  std::vector<std::unique_ptr<PerLogThreadInfo>> mPerLogInfoPool;
  // Free blocks and record ids, taken from the back (the block freed last is taken
  // first, while its pages are warm); queues waiting for the flush, in hand-over order.
  // Vectors whose capacity only grows with the pool: taking and handing over queues
  // allocates nothing.
  std::vector<int> mFreeMemoryIndex;
  std::vector<int> mFreeRegisterId;
  std::vector<int> mFlushRegisterId;
  // The normal flush's list of what it writes, reused; only ever touched under the file
  // mutex (the flush walks it without the pool mutex).
  std::vector<std::pair<int, PerLogThreadInfo*>> mFlushBatch;
  std::atomic<uint32_t> mStatus{ZuDegbugOfflineLogger::kStatusStopped};
  // Appends are taken from start until stop begins; forced flushes do not refuse them.
  std::atomic<bool> mAccepting{false};
  std::atomic<uint32_t> mSessionCount{1};
  std::atomic<uint32_t> mNeedFlushThreadCount{0};
  // Lines dropped because no block could be had; reported in the next block taken.
  std::atomic<uint32_t> mDroppedLines{0};
  // Chunks of 16 queues the pool may hold (the queue file's bound).
  uint32_t mChunkLimit = 4;
  // A thread found no free queue with the pool at its bound: the flush writes what
  // waits without waiting for more, and is tried again once a second.
  std::atomic<bool> mQueuesShort{false};
  // What the lines given up since the last notice were: whose, when, why. Taken only
  // when a line is given up.
  struct Drops {
    std::mutex lock;
    uint32_t count = 0;
    struct timespec first {
    }, last{};
    static constexpr size_t kTids = 8;
    uint32_t tids[kTids] = {};
    size_t tidCount = 0;
    bool moreTids = false;
  } mDrops;
  // Durable memory: the pool file (or anonymous chunks), each block's counters and
  // its index in the pool file (-1 when it is not in the file).
  std::unique_ptr<pool::PoolFile> mPoolFile;
  std::vector<pool::BlockDesc*> mBlockDesc;
  std::vector<int32_t> mBlockFileIndex;
  uint64_t mTakeSequence = 0;
  ZuPoolLock mPoolLock;
  ZuOwnedRecursiveMutex mPoolMutex;
  ZuOwnedRecursiveMutex mQueueMutex;
  ZuOfflineLoggerType mZuOfflineLoggerType;
  // Bumped whenever every record is destroyed, so owners know their record is gone.
  std::atomic<uint32_t> mRecordEpoch{0};

  // Lifecycle.
  std::string mTypeName;
  uint32_t mFileLimit = 10;
  bool mDirectoryScanned = false;
  std::atomic<void (*)()> mFlushTrigger{nullptr};
  std::atomic<CrashFlushGate> mCrashFlushGate{nullptr};

  // Files.
  std::string mCurrentFileName;
  int32_t mFileOpen = 0;
  uint32_t mCurrentFileSize = 0;
  std::deque<std::string> mFileList;
  std::set<std::string> mEvidence;  // files of mFileList with a crash record or a recovery notice
  bool mClockBackSaid = false;
  std::atomic<bool> mWriteFailing{false};  // the last write failed; said once until one succeeds
  // When a write last failed: handed-over queues wait for the next try a while.
  std::chrono::steady_clock::time_point mLastWriteFailure{};
  bool mRelinkFailing = false;  // the queue file lost its name and could not be made again
  ZuOwnedPlainMutex mFileMutex;
};

}  // namespace zudebug

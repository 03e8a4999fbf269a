// Offline logger: per-thread in-memory queues drawn from a pool of 1 MiB blocks,
// flushed into rotating files under /data/vendor/camera/offlinelog.
// Also the crash signal catcher, which writes its record through this logger.
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ZuDebugExport.h"
#include "ZuThreadIds.h"

namespace zudebug {

namespace pool {
struct BlockDesc;
struct Chunk;
class PoolFile;
}  // namespace pool
class LoggerRecoveryWriter;

enum class ZuOfflineLoggerType : int {
  Debug = 0,   // the library's text log, files ".txt"
  Binary = 1,  // offered to hosts, files ".bin"
};

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
  // Shared side; false when the deadline passed first.
  bool lockShared(Deadline deadline = Deadline::max());
  void unlockShared();
  // Exclusive side, not recursive; false when the deadline passed first.
  bool lock(Deadline deadline = Deadline::max());
  void unlock();
  bool heldByCurrentThread() const { return mOwner.load(std::memory_order_relaxed) == zuCurrentTid(); }

 private:
  static constexpr int kStripes = 16;
  struct alignas(64) Stripe {
    std::atomic<uint32_t> readers{0};
  };
  Stripe mStripes[kStripes];
  std::atomic<bool> mWriter{false};
  ZuOwnedPlainMutex mWriterMutex;
  std::atomic<uint32_t> mOwner{0};
};

// One record per handed-out queue; its index in the pool is the register id.
struct PerLogThreadInfo {
  bool bNeedFlush = false;          // handed to the flush thread
  bool bReserved = false;           // cleared whenever the record is (re)used
  uint32_t threadId = 0;            // kernel id of the owner
  int32_t memoryIndex = -1;         // block index in mMemoryLogPool
  uint32_t sessionCount = 0;        // owner's session when the queue was taken
  uint32_t usedSize = 0;            // bytes written into the block
  std::string name;                 // kept for the owner's name
  uint32_t writtenTotal = 0;        // running count mirrored from the owner
  uint8_t* address = nullptr;       // the block itself, so owners need not index the pool
  pool::BlockDesc* desc = nullptr;  // the block's durable counters; null once recycled
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

class ZUDEBUG_EXPORT ZuDegbugOfflineLogger {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  static ZuDegbugOfflineLogger* getInstance(ZuOfflineLoggerType type);

  // Lifecycle.
  int start();
  int stop();
  void setAllToDefaultValue();
  void activeOfflineLogger();
  bool isEnableOfflinelogger();
  bool setFlushTriggerLink(void (*trigger)());
  // The forced flush a crash handler asks for. Whoever serialises this logger's
  // forced flushes (the facade, with its control mutex) registers here how to do one
  // within a deadline; without a link the logger flushes on its own.
  using CrashFlushLink = bool (*)(ZuOfflineLoggerType type, Deadline deadline);
  bool setCrashFlushLink(CrashFlushLink link);
  // False when the flush could not be done in time.
  bool flushForCrash(Deadline deadline);

  // Queues.
  int allocateLogQueueMemPool();
  int requestNewLogQueue(uint8_t*& queue, uint32_t threadId);
  void addLog(const char* line, unsigned int length);
  void requestFlushLogQueue(int registerId);

  // Files.
  int flushLogToFile(bool force);
  std::string getPrefixFilename();
  std::string getCurrentTime();
  float getAvailableSpace(const char* path);

  // True when the calling thread holds any of this logger's locks right now (pool
  // write lock, pool mutex, queue mutex, file mutex). Cheap and async-signal-safe:
  // each lock records its owner's thread id when taken.
  bool isHeldByCurrentThread() const;

  // Called in a child process right after fork(): the child keeps logging into private
  // copies of its queues and leaves the parent's pool file to the parent.
  void detachPoolAfterFork();

  // Bounded variant for callers that must not block (a crash handler): every lock is
  // waited for until `deadline` at most. False, having changed nothing, when a lock
  // could not be had in time or the calling thread already holds one.
  // `result` receives what flushLogToFile would return.
  bool flushLogToFileUntil(bool force, Deadline deadline, int* result = nullptr);

  // Crash records, for the crash catcher. keepCrashRecord copies a whole record into a
  // crash slot of the pool without taking the logger's locks, also when the calling
  // thread was stopped inside them; the next forced flush writes it behind the queues.
  // A record kept in the pool file that no flush wrote is written by the next start.
  enum class CrashKeep { Off, InPoolFile, InMemory, NoRoom };
  CrashKeep keepCrashRecord(const char* text, uint32_t len, Deadline deadline);
  // Writes one record that could not be kept into a new file of its own, with
  // async-signal-safe calls only.
  void writeCrashRecordStraight(const char* text, uint32_t len);
  // Writes the kept records that no flush took into a file of their own, with
  // async-signal-safe calls only: for records kept in process memory when the forced
  // flush could not run.
  void writeCrashRecordsStraight();

  // Status values.
  static constexpr uint32_t kStatusActive = 0;
  static constexpr uint32_t kStatusStopping = 1;
  static constexpr uint32_t kStatusStopped = 2;
  uint32_t getStatus() const { return mStatus.load(std::memory_order_relaxed); }
  uint32_t getSessionCount() const { return mSessionCount.load(std::memory_order_relaxed); }

  // ---- the private state below belongs to the logger's implementation ----
 private:
  friend struct LifetimeThreadInfo;
  friend class LoggerRecoveryWriter;
  explicit ZuDegbugOfflineLogger(ZuOfflineLoggerType type);
  ~ZuDegbugOfflineLogger();

  enum class AppendResult { Done, Blocked };
  AppendResult addLogImpl(const char* line, unsigned int length, Deadline deadline);
  // Lock-taking helpers that give up at the deadline (never, for Deadline::max()).
  int requestNewLogQueueUntil(uint8_t*& queue, uint32_t threadId, Deadline deadline, bool* blocked);
  bool requestFlushLogQueueUntil(int registerId, Deadline deadline);
  bool updateRecordCounters(int registerId, uint32_t used, uint32_t total, Deadline deadline);
  bool flushImpl(bool force, Deadline deadline, int* result);
  bool normalFlush(Deadline deadline, int* result);
  bool forcedFlush(Deadline deadline, int* result);
  void recycleLocked(int registerId, PerLogThreadInfo& record);
  void rotateLocked();
  void writeRecordLocked(PerLogThreadInfo& record, bool waiting, bool force);
  void writeCrashRecordsLocked();
  bool writeBytesLocked(const uint8_t* data, uint32_t len, void (*intent)(void*, const char*, uint64_t),
                        void* ctx);
  void openNewFileLocked();
  std::deque<std::string> listLogFiles(bool logEach);
  bool queryAvailableSpace(const char* path, float* mib);
  void scanDirectoryOnce();
  void openPoolFile();
  void closePool();
  void recoverDeadProcesses();
  std::string poolDirectory() const;

  // Pool and queues.
  std::vector<uint8_t*> mMemoryLogPool;
  std::vector<std::unique_ptr<PerLogThreadInfo>> mPerLogInfoPool;
  std::deque<int> mFreeMemoryIndex;
  std::deque<int> mFreeRegisterId;
  std::deque<int> mFlushRegisterId;
  std::atomic<uint32_t> mStatus{kStatusStopped};
  // Appends are taken from start until stop begins; forced flushes do not refuse them.
  std::atomic<bool> mAccepting{false};
  std::atomic<uint32_t> mSessionCount{1};
  std::atomic<uint32_t> mNeedFlushThreadCount{0};
  // Lines dropped because no block could be had; reported in the next block taken.
  std::atomic<uint32_t> mDroppedLines{0};
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
  std::atomic<CrashFlushLink> mCrashFlushLink{nullptr};

  // Files.
  std::string mCurrentFileName;
  int32_t mFileOpen = 0;
  uint32_t mCurrentFileSize = 0;
  std::deque<std::string> mFileList;
  bool mWriteFailing = false;  // the last write failed; said once until one succeeds
  ZuOwnedPlainMutex mFileMutex;
};

// ---- crash signal catcher ----
ZUDEBUG_EXPORT void RegisterSignalHandlers();
ZUDEBUG_EXPORT void SignalCatcher(int signal, siginfo_t* info, void* context);
ZUDEBUG_EXPORT void InvokeDefaultHndlr(const struct sigaction& action, int signal, siginfo_t* info,
                                       void* context);

}  // namespace zudebug

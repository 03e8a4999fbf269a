// Offline logger: per-thread in-memory queues drawn from a pool of 1 MiB blocks,
// flushed into rotating files under /data/vendor/camera/offlinelog.
// Also the crash signal catcher's entry points, which write records through this logger.
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

template <class Base>
class ZuOwnedMutex;
using ZuOwnedRecursiveMutex = ZuOwnedMutex<std::recursive_mutex>;
struct PerLogThreadInfo;
struct LifetimeThreadInfo;
struct threadLocalInfo;
struct ThreadRecord;

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

  // Queues.
  int allocateLogQueueMemPool();
  int requestNewLogQueue(uint8_t*& queue, uint32_t threadId);
  void addLog(const char* line, unsigned int length);
  // A line written in place: room for up to `room` bytes in the calling thread's queue
  // (`thread` is its record), or null when nothing is kept (not accepting lines, the
  // thread is inside an append already, as a signal handler is, or no queue memory could
  // be had: counted and told in the next block). Until closeAppend publishes `length`
  // bytes of it, the thread holds the shared side of the pool lock. `source` is only
  // named in the diagnostic line.
  uint8_t* openAppend(ThreadRecord& thread, unsigned int room, const void* source);
  void closeAppend(ThreadRecord& thread, unsigned int length);
  void requestFlushLogQueue(int registerId);

  // Files.
  int flushLogToFile(bool force);
  // The flush thread's periodic call: writes again when the last write failed or
  // threads found no queue, else does nothing.
  void retryWaitingWrites();
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

  // Crash records, for the crash catcher; every call but flushHeldForCrash is
  // async-signal-safe and waits for nothing. openCrashSlot lends a crash slot of the
  // pool to a record of thread `tid` (false when the logger does not take lines, a
  // writer holds the pool, or every slot is taken); the record is written into `data`
  // and each whole line published; closeCrashSlot marks it whole, for the next forced
  // flush to write behind the queues (or the next start, when the process dies first).
  struct CrashSlotLease {
    const void* area = nullptr;
    int slot = -1;
    bool durable = false;  // in the pool file: the next start finds it
    uint8_t* data = nullptr;
    uint32_t capacity = 0;
  };
  bool openCrashSlot(uint32_t tid, CrashSlotLease* lease);
  static void publishCrashSlot(void* lease, uint32_t used);
  void closeCrashSlot(const CrashSlotLease& lease);
  // The file and pool mutexes, taken only when free and not held by `tid`; then, in a
  // process that may allocate (the catcher's helper child, which shares the pool file),
  // the forced flush under them. Busy: another thread holds one; try again later.
  enum class CrashFlushLock { Taken, Busy, Never };
  CrashFlushLock lockForCrashFlush(uint32_t tid);
  // Whoever serialises this logger's forced flushes (the facade, with its control
  // mutex) registers how to take that lock without waiting (`take`, refusing when
  // `tid` holds it) and give it back (!`take`); taken before the logger's own.
  using CrashFlushGate = bool (*)(ZuOfflineLoggerType type, uint32_t tid, bool take);
  bool setCrashFlushGate(CrashFlushGate gate);
  void unlockAfterCrashFlush();
  int flushHeldForCrash();
  // The whole records kept in process memory (no pool file): forgotten when the
  // helper's flush `written` them, else written into files of their own.
  void settleCrashRecordsInMemory(bool written);
  // The logger of `type` if it was ever created, without creating it.
  static ZuDegbugOfflineLogger* existingInstance(ZuOfflineLoggerType type);
  bool acceptsLines() const;

  // Status values.
  static constexpr uint32_t kStatusActive = 0;
  static constexpr uint32_t kStatusStopping = 1;
  static constexpr uint32_t kStatusStopped = 2;
  uint32_t getStatus() const;
  uint32_t getSessionCount() const;

  // ---- the private part below belongs to the logger's implementation ----
 private:
  friend struct LifetimeThreadInfo;
  friend class LoggerRecoveryWriter;
  explicit ZuDegbugOfflineLogger(ZuOfflineLoggerType type);
  ~ZuDegbugOfflineLogger();

  void leaveAppend(ThreadRecord& thread, threadLocalInfo& local);
  enum class QueueStep { Keep, Fresh, HandOver };
  QueueStep chooseQueueStep(threadLocalInfo& local, unsigned int length);
  void takeFreshQueue(threadLocalInfo& local, bool handOver);
  bool flushImpl(bool force, Deadline deadline, int* result);
  bool normalFlush(Deadline deadline, int* result);
  bool forcedFlush(Deadline deadline, int* result);
  void forcedFlushLocked(int* result, bool recycle);
  void recycleLocked(int registerId, PerLogThreadInfo& record);
  void takeHandedOverLocked(std::vector<std::pair<int, PerLogThreadInfo*>>& batch);
  void keepUnwrittenLocked(const std::vector<std::pair<int, PerLogThreadInfo*>>& batch);
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
  void closePool(bool removeFile = true);
  void relinkQueueFileIfGone();
  void keepCutQueuesInMemory();
  void noteEvidenceLocked();
  void noteDroppedLine(uint32_t tid);
  size_t takeDropNotice(char* out, size_t size);
  void resetRecords(bool clearBlocks);
  void recoverDeadProcesses();
  std::string poolDirectory() const;

  // Everything the logger keeps lives in its state (ZuOfflineLoggerState.h).
  struct State;
  const std::unique_ptr<State> mState;
};

// ---- crash signal catcher ----
ZUDEBUG_EXPORT void RegisterSignalHandlers();
ZUDEBUG_EXPORT void SignalCatcher(int signal, siginfo_t* info, void* context);
ZUDEBUG_EXPORT void InvokeDefaultHndlr(const struct sigaction& action, int signal, siginfo_t* info,
                                       void* context);

}  // namespace zudebug

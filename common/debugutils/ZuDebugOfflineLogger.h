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

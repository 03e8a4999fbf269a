// Guard monitor: the camera stack's watchdog. Hosts bracket capture requests with
// request guards and blocking calls with (nested, per-thread) function guards; a
// patrol thread warns about long runners and reports - and, when so configured,
// aborts on - guards that outlive their timeout.
#pragma once

#include <time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ZuDebugExport.h"

namespace zudebug {

// Owner of a guard. Only 0..4 have names; the end marker and anything above it
// name as null.
enum ModuleId : uint32_t {
  MODULE_INVALID = 0,
  MODULE_ZUHAL_SESSION = 1,
  MODULE_ADAPTER_SESSION = 2,
  MODULE_ALGOFWK_COMMON = 3,
  MODULE_ALGOFWK_CAPTURE_NODE = 4,
  MODULE_END = 5,
};

// Kind of a guarded request; same naming rule as ModuleId.
enum RequestTypeId : uint32_t {
  REQUEST_INVALID = 0,
  REQUEST_APP = 1,
  REQUEST_VENDOR = 2,
  REQUEST_ALGO_ENGINE = 3,
  REQUEST_S2V = 4,
  REQUEST_END = 5,
};

// Warning threshold of a function guard opened with warnMs <= 0.
constexpr int32_t kFuncWarnMs = 4500;

// One open function guard.
struct FuncGuardFrame {
  int32_t warnMs = 0;   // <= 0: kFuncWarnMs
  int32_t abortMs = 0;  // <= 0: the process-wide function timeout
  int32_t tid = 0;
  ModuleId module = MODULE_INVALID;
  timespec start = {0, 0};         // CLOCK_MONOTONIC at registration
  const char* funcName = nullptr;  // not copied: must have static lifetime
  std::string message;             // owned copy of the caller's text
  int* guardIdOut = nullptr;       // where the guard id was written
  std::function<void()> callback;  // run when the frame times out
};

// The function-guard stack of one thread, created by its first function guard and
// destroyed when the thread exits.
struct ThreadGuardData {
  static constexpr uint32_t kAliveMagic = 0xABCDABCD;
  static constexpr uint32_t kDeadMagic = 0xCCCCCCCC;
  static constexpr int kStoredFrames = 3;

  ThreadGuardData();
  ~ThreadGuardData();
  ThreadGuardData(const ThreadGuardData&) = delete;
  ThreadGuardData& operator=(const ThreadGuardData&) = delete;

  uint32_t headMagic;
  std::mutex lock;  // owner thread vs. the patrol thread
  int32_t tid;
  // Open guards, including those beyond the stored frames. Written only by the owner
  // (under `lock`); atomic so that the patrol can see whether anything is open without
  // a shared counter on the owner's hot path.
  std::atomic<int32_t> depth;
  FuncGuardFrame frames[kStoredFrames];  // [0] outermost, [depth-1] innermost
  uint32_t flags;                        // bit 0: already warned in this busy episode
  uint32_t tailMagic;
};

class ZUDEBUG_EXPORT GuardMonitor {
 public:
  static constexpr size_t kRequestSlots = 64;

  struct RequestRecord {
    ModuleId module = MODULE_INVALID;
    RequestTypeId type = REQUEST_INVALID;
    uint32_t id = 0;
    int32_t timeoutMs = 0;  // <= 0: the process defaults
    std::function<void(unsigned int)> callback;
    timespec start = {0, 0};  // CLOCK_MONOTONIC at registration
    uint64_t serial = 0;      // tells a recycled slot from the request it held before
  };

  // 64 preallocated records; free slots are taken from and returned to the end of
  // the free list, open ones are queued oldest first.
  struct RequestQueue {
    RequestQueue();
    RequestRecord slots[kRequestSlots];
    std::vector<RequestRecord*> freeList;
    std::deque<RequestRecord*> active;
  };

  // The process-wide instance; the first call starts the patrol thread.
  static GuardMonitor* getSingleton();

  void registerReqGuard(ModuleId module, RequestTypeId type, unsigned int id, int timeoutMs,
                        std::function<void(unsigned int)> callback);
  // Matches on the id alone.
  void modifyReqGuard(ModuleId module, RequestTypeId type, unsigned int id, int timeoutMs);
  void unregisterReqGuard(ModuleId module, RequestTypeId type, unsigned int id);

  // Opens a function guard on the calling thread and writes its id to *guardId.
  void registerFuncGuard(ModuleId module, const char* funcName, const char* message, int warnMs, int abortMs,
                         std::function<void()> callback, int* guardId);
  // Closes the calling thread's innermost function guard.
  void unregisterFuncGuard(int guardId);

  const char* getModuleName(ModuleId module) const;
  const char* getRequestTypeName(RequestTypeId type) const;

  void printBacktracesOfProcess(const char* tag);
  void printBacktraceOfThread(int tid);

  void start();
  void stop();
  void run();
  void onTimeout(ModuleId module, int tid, const char* message, int executedMs);

  ~GuardMonitor();
  GuardMonitor(const GuardMonitor&) = delete;
  GuardMonitor& operator=(const GuardMonitor&) = delete;

  // Every guard time is read through this clock (CLOCK_MONOTONIC by default).
  // Test programs install a fake to move time on without waiting; null restores
  // the real clock.
  using MonotonicClock = void (*)(timespec* now);
  static void setMonotonicClock(MonotonicClock clock);

 private:
  friend struct ThreadGuardData;

  GuardMonitor();
  void addThread(ThreadGuardData* data);
  void removeThread(ThreadGuardData* data);
  // Open guards of both kinds; monitor lock held.
  uint32_t activeGuardsLocked() const;
  // Wakes the patrol thread out of its idle wait, if it is in it; monitor lock held.
  void wakeIdleLocked();
  void checkFunctionGuards(std::unique_lock<std::mutex>& lk, const timespec& now, uint32_t iteration,
                           int32_t funcAbort);
  void checkOldestRequest(std::unique_lock<std::mutex>& lk, const timespec& now, int32_t reqAbort);
  [[noreturn]] void stopLoggersAndAbort(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  std::mutex mLock;
  std::vector<ThreadGuardData*> mThreads;
  std::thread mThread;
  std::condition_variable mCond;
  bool mRunning = false;
  // Request guards open (timed-out ones included, as they are never closed); the
  // function guards are counted by each thread's depth.
  uint32_t mRequestGuards = 0;
  // Depth left behind by threads that exited with guards open.
  uint32_t mDepartedDepth = 0;
  std::atomic<bool> mAcceptingRequests{false};
  std::atomic<bool> mIdle{false};
  RequestQueue mRequests;
  int32_t mCompelledDelayMs = 0;
  uint64_t mNextSerial = 0;
  std::vector<int32_t> mNewlyWarned;
};

}  // namespace zudebug

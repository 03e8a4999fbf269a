#include "GuardMonitor.h"
#include "ZuCrashSignalStack.h"

#include <cutils/properties.h>
#include <log/log.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <memory>
#include <system_error>

#include "ZuCallStackUtils.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuDebugUtils.h"

#define GM_TAG "Prax-GuardMonitor"
#define GM_LOGE(fmt, ...) ZU_LOGE(GM_TAG, ::zudebug::ZU_GROUP_CORE, fmt, ##__VA_ARGS__)
#define GM_LOGW(fmt, ...) ZU_LOGW(GM_TAG, ::zudebug::ZU_GROUP_CORE, fmt, ##__VA_ARGS__)
#define GM_LOGI(fmt, ...) ZU_LOGI(GM_TAG, ::zudebug::ZU_GROUP_CORE, fmt, ##__VA_ARGS__)
#define GM_LOGD(fmt, ...) ZU_LOGD(GM_TAG, ::zudebug::ZU_GROUP_CORE, fmt, ##__VA_ARGS__)
#define GM_LOGV(fmt, ...) ZU_LOGV(GM_TAG, ::zudebug::ZU_GROUP_CORE, fmt, ##__VA_ARGS__)

namespace zudebug {

namespace {

// ---- load-time configuration ----
int32_t sApiAbortMs = 0;     // function-guard timeout; <= 0: 4500
int32_t sReqAbortMs = 0;     // request-guard timeout; <= 0: 35000
int32_t sReqWarnMs = 10000;  // request-guard warning threshold
int32_t sPatrolIntervalMs = 1000;
int32_t sApiAbortEnable = 1;  // a function timeout aborts the process
int32_t sReqAbortEnable = 0;  // a request timeout aborts the process

constexpr int32_t kMinPatrolIntervalMs = 5;
constexpr int32_t kDefaultFuncAbortMs = 4500;
constexpr int32_t kDefaultReqAbortMs = 35000;
// An outer frame's warning is repeated every pass only while it is closer to its
// limit than this (and than every inner long runner).
constexpr int32_t kWarnRemainingMs = 155000;
constexpr int32_t kMaxCompelledDelayMs = 120000;
constexpr uint32_t kWarnedFlag = 1u;

struct GuardSettingsLoader {
  GuardSettingsLoader() {
    sApiAbortMs = property_get_int32("persist.vendor.camera.debug.apiabortms", 0);
    sReqAbortMs = property_get_int32("persist.vendor.camera.debug.reqabortms", 0);
    sReqWarnMs = property_get_int32("vendor.camera.debug.rwarnms", 10000);
    sPatrolIntervalMs = std::max(property_get_int32("vendor.camera.debug.intms", 1000), kMinPatrolIntervalMs);
    sApiAbortEnable = property_get_int32("persist.vendor.camera.debug.apiabortenable", 1);
    sReqAbortEnable = property_get_int32("persist.vendor.camera.debug.reqabortenable", 0);
  }
};
const GuardSettingsLoader sGuardSettingsLoader;

struct ModuleName {
  ModuleId value;
  const char* name;
};
constexpr ModuleName kModuleNames[] = {
    {MODULE_INVALID, "INVALID"},
    {MODULE_ZUHAL_SESSION, "ZuHAL-Session"},
    {MODULE_ADAPTER_SESSION, "Adapter-Session"},
    {MODULE_ALGOFWK_COMMON, "AlgoFwk-Common"},
    {MODULE_ALGOFWK_CAPTURE_NODE, "AlgoFwk-CaptureNode"},
    {MODULE_END, "END"},
};

struct RequestTypeName {
  RequestTypeId value;
  const char* name;
};
constexpr RequestTypeName kRequestTypeNames[] = {
    {REQUEST_INVALID, "INVALID"},      {REQUEST_APP, "AppRequest"},
    {REQUEST_VENDOR, "VendorRequest"}, {REQUEST_ALGO_ENGINE, "AlgoEngineRequest"},
    {REQUEST_S2V, "S2VRequest"},       {REQUEST_END, "END"},
};

void realMonotonicClock(timespec* now) { clock_gettime(CLOCK_MONOTONIC, now); }

std::atomic<GuardMonitor::MonotonicClock> sClock{&realMonotonicClock};

timespec monotonicNow() {
  timespec now;
  sClock.load(std::memory_order_relaxed)(&now);
  return now;
}

int clampToInt(int64_t v) {
  return static_cast<int>(std::min<int64_t>(std::max<int64_t>(v, INT_MIN), INT_MAX));
}

// Whole milliseconds from `start` to `now`, truncated.
int elapsedMs(const timespec& start, const timespec& now) {
  return clampToInt((static_cast<int64_t>(now.tv_sec) - start.tv_sec) * 1000 +
                    (static_cast<int64_t>(now.tv_nsec) - start.tv_nsec) / 1000000);
}

// Owner callbacks run on the patrol thread: whatever they throw stays here.
template <typename Fn>
void invokeCallback(const char* what, Fn&& fn) {
  try {
    fn();
  } catch (const std::exception& e) {
    GM_LOGE("callback of %s threw: %s", what, e.what());
  } catch (...) {
    GM_LOGE("callback of %s threw a non-standard exception", what);
  }
}

thread_local std::unique_ptr<ThreadGuardData> sThreadGuardData;

}  // namespace

// ---- per-thread function-guard stack ----

ThreadGuardData::ThreadGuardData()
    : headMagic(kAliveMagic),
      tid(static_cast<int32_t>(gettid())),
      depth(0),
      flags(0),
      tailMagic(kAliveMagic) {}

ThreadGuardData::~ThreadGuardData() {
  GuardMonitor::getSingleton()->removeThread(this);
  headMagic = kDeadMagic;
  tailMagic = kDeadMagic;
  for (FuncGuardFrame& f : frames) {
    f.callback = nullptr;
    std::string().swap(f.message);
  }
}

// ---- request queue ----

GuardMonitor::RequestQueue::RequestQueue() {
  freeList.reserve(kRequestSlots);
  for (RequestRecord& slot : slots) freeList.push_back(&slot);
}

// ---- monitor ----

GuardMonitor* GuardMonitor::getSingleton() {
  // Never destroyed: threads may close guards while the process is going down.
  static GuardMonitor* const sInstance = new GuardMonitor();
  return sInstance;
}

GuardMonitor::GuardMonitor() {
  mThreads.reserve(32);
  mNewlyWarned.reserve(32);
  mCompelledDelayMs = 0;
  start();
}

GuardMonitor::~GuardMonitor() { stop(); }

void GuardMonitor::setMonotonicClock(MonotonicClock clock) {
  sClock.store(clock != nullptr ? clock : &realMonotonicClock, std::memory_order_relaxed);
}

const char* GuardMonitor::getModuleName(ModuleId module) const {
  // The table holds a row for the end marker, but it is not a module.
  return module < MODULE_END ? kModuleNames[module].name : nullptr;
}

const char* GuardMonitor::getRequestTypeName(RequestTypeId type) const {
  return type < REQUEST_END ? kRequestTypeNames[type].name : nullptr;
}

void GuardMonitor::printBacktracesOfProcess(const char* tag) { dumpCurProcessCallStack(tag, 3); }

void GuardMonitor::printBacktraceOfThread(int tid) { dumpThreadCallStack(tid, 0, "process-timeout", 3); }

void GuardMonitor::addThread(ThreadGuardData* data) {
  std::lock_guard<std::mutex> lk(mLock);
  mThreads.push_back(data);
}

void GuardMonitor::removeThread(ThreadGuardData* data) {
  std::lock_guard<std::mutex> lk(mLock);
  auto it = std::find(mThreads.begin(), mThreads.end(), data);
  if (it != mThreads.end()) mThreads.erase(it);
  // Guards a thread leaves open stay counted, as they would in a shared counter.
  mDepartedDepth += static_cast<uint32_t>(data->depth.load(std::memory_order_relaxed));
}

uint32_t GuardMonitor::activeGuardsLocked() const {
  uint32_t total = mRequestGuards + mDepartedDepth;
  for (const ThreadGuardData* t : mThreads) total += static_cast<uint32_t>(t->depth.load());
  return total;
}

void GuardMonitor::wakeIdleLocked() {
  if (mIdle.load(std::memory_order_relaxed)) {
    mIdle.store(false, std::memory_order_relaxed);
    mCond.notify_all();
  }
}

// ---- request guards ----

void GuardMonitor::registerReqGuard(ModuleId module, RequestTypeId type, unsigned int id, int timeoutMs,
                                    std::function<void(unsigned int)> callback) {
  if (!mAcceptingRequests.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> lk(mLock);
  if (mRequests.freeList.empty()) return;  // 64 open: dropped
  timespec now = monotonicNow();
  RequestRecord* rec = mRequests.freeList.back();
  mRequests.freeList.pop_back();
  rec->module = module;
  rec->type = type;
  rec->id = id;
  rec->timeoutMs = timeoutMs;
  rec->start = now;
  rec->callback = std::move(callback);
  rec->serial = ++mNextSerial;
  mRequests.active.push_back(rec);
  if (mRequestGuards++ == 0) wakeIdleLocked();
}

void GuardMonitor::modifyReqGuard(ModuleId, RequestTypeId, unsigned int id, int timeoutMs) {
  std::lock_guard<std::mutex> lk(mLock);
  for (RequestRecord* rec : mRequests.active) {
    if (rec->id == id) {
      rec->timeoutMs = timeoutMs;
      break;
    }
  }
}

void GuardMonitor::unregisterReqGuard(ModuleId module, RequestTypeId type, unsigned int id) {
  if (!mAcceptingRequests.load(std::memory_order_acquire)) return;
  timespec now = monotonicNow();
  std::lock_guard<std::mutex> lk(mLock);
  auto& active = mRequests.active;
  auto it = std::find_if(active.rbegin(), active.rend(), [&](const RequestRecord* r) {
    return r->module == module && r->type == type && r->id == id;
  });
  if (it == active.rend()) return;
  RequestRecord* rec = *it;
  rec->callback = nullptr;
  mRequests.freeList.push_back(rec);
  --mRequestGuards;
  if (rec != active.front()) {
    active.erase(std::next(it).base());
    return;
  }
  active.pop_front();
  // A request queued behind a slow one was held up by it: the next oldest gets
  // the time this one took on top of its thresholds.
  int ran = elapsedMs(rec->start, now);
  mCompelledDelayMs = ran < 1000 ? 0 : std::min(ran, kMaxCompelledDelayMs);
}

// ---- function guards ----

void GuardMonitor::registerFuncGuard(ModuleId module, const char* funcName, const char* message, int warnMs,
                                     int abortMs, std::function<void()> callback, int* guardId) {
  ThreadGuardData* t = sThreadGuardData.get();
  if (t == nullptr) {
    sThreadGuardData.reset(new ThreadGuardData());
    t = sThreadGuardData.get();
    addThread(t);
    // A guarded thread is one the crash catcher must be able to run on.
    PrepareCrashSignalStack();
  }
  int32_t depth;
  {
    std::lock_guard<std::mutex> tl(t->lock);
    depth = t->depth.load(std::memory_order_relaxed);
    if (depth >= 0 && depth < ThreadGuardData::kStoredFrames) {
      FuncGuardFrame& f = t->frames[depth];
      f.warnMs = warnMs;
      f.abortMs = abortMs;
      f.tid = t->tid;
      f.module = module;
      f.start = monotonicNow();
      f.funcName = funcName;
      if (message != nullptr)
        f.message.assign(message);
      else
        f.message.clear();
      f.guardIdOut = guardId;
      f.callback = std::move(callback);
    }
    // Full barrier: pairs with the patrol publishing that it goes idle.
    t->depth.fetch_add(1, std::memory_order_seq_cst);
  }
  if (depth == 0 && mIdle.load(std::memory_order_seq_cst)) {
    std::lock_guard<std::mutex> lk(mLock);
    wakeIdleLocked();
  }
  // Informational only: closing does not look it up.
  int id = static_cast<int>(static_cast<uint32_t>(depth + 1) | (static_cast<uint32_t>(t->tid) << 8));
  if (guardId != nullptr) *guardId = id;
  GM_LOGV("message: %s, guardId: 0x%x", message, id);
}

void GuardMonitor::unregisterFuncGuard(int guardId) {
  ThreadGuardData* t = sThreadGuardData.get();
  if (t == nullptr) {
    GM_LOGW("guardId 0x%x: no function guard was ever opened on this thread", guardId);
    return;
  }
  {
    std::lock_guard<std::mutex> tl(t->lock);
    if (t->depth.fetch_sub(1, std::memory_order_relaxed) == 1) t->flags &= ~kWarnedFlag;
  }
  GM_LOGV("message %s, guardId: 0x%x", t->frames[0].message.c_str(), guardId);
}

// ---- patrol ----

void GuardMonitor::start() {
  std::unique_lock<std::mutex> lk(mLock);
  mRunning = true;
  try {
    mThread = std::thread(&GuardMonitor::run, this);
  } catch (const std::system_error& e) {
    mRunning = false;
    throw std::system_error(e.code(), "thread constructor failed");
  }
  // Guards opened right after construction must already be watched.
  mCond.wait(lk, [this] { return mAcceptingRequests.load(std::memory_order_relaxed); });
}

void GuardMonitor::stop() {
  {
    std::lock_guard<std::mutex> lk(mLock);
    mRunning = false;
    mCond.notify_all();
  }
  if (mThread.joinable() && mThread.get_id() != std::this_thread::get_id()) mThread.join();
}

void GuardMonitor::run() {
  prctl(PR_SET_NAME, "GuardMonitor", 0, 0, 0);
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10);
  {
    std::lock_guard<std::mutex> lk(mLock);
    mAcceptingRequests.store(true, std::memory_order_release);
    mCond.notify_all();
  }
  const int32_t funcAbort = sApiAbortMs > 0 ? sApiAbortMs : kDefaultFuncAbortMs;
  const int32_t reqAbort = sReqAbortMs > 0 ? sReqAbortMs : kDefaultReqAbortMs;
  GM_LOGI("Running: func=%d,%d; req=%d,%d; Patrol every %d ms", kFuncWarnMs, funcAbort, sReqWarnMs, reqAbort,
          sPatrolIntervalMs);

  timespec lastReport = monotonicNow();
  uint32_t iteration = 0;
  std::unique_lock<std::mutex> lk(mLock);
  while (mRunning) {
    mCond.wait_for(lk, std::chrono::milliseconds(sPatrolIntervalMs));
    if (!mRunning) break;
    if (activeGuardsLocked() == 0) {
      // Publish the idle state before the last look at the counters: an owner that
      // opens its first guard either is seen here or sees the flag and wakes us.
      mIdle.store(true, std::memory_order_seq_cst);
      if (activeGuardsLocked() == 0) {
        mCond.wait(lk, [this] { return !mIdle.load(std::memory_order_relaxed) || !mRunning; });
      }
      mIdle.store(false, std::memory_order_relaxed);
      if (!mRunning) break;
      ++iteration;
      continue;
    }
    ++iteration;
    timespec now = monotonicNow();
    checkFunctionGuards(lk, now, iteration, funcAbort);
    checkOldestRequest(lk, now, reqAbort);
    if (now.tv_sec - lastReport.tv_sec >= 3) {
      lastReport = now;
      GM_LOGD("Monitoring: %zu threads, %zu requests, %zu guards.", mThreads.size(), mRequests.active.size(),
              static_cast<size_t>(activeGuardsLocked()));
    }
  }
  GM_LOGW("Stopped: %zu threads, %zu requests, %zu guards in monitor", mThreads.size(),
          mRequests.active.size(), static_cast<size_t>(activeGuardsLocked()));
}

void GuardMonitor::checkFunctionGuards(std::unique_lock<std::mutex>& lk, const timespec& now,
                                       uint32_t iteration, int32_t funcAbort) {
  ThreadGuardData* worstThread = nullptr;
  int worstIndex = -1;
  int worstElapsed = 0;
  int64_t worstOverdue = 0;
  mNewlyWarned.clear();

  for (ThreadGuardData* t : mThreads) {
    if (t->headMagic != ThreadGuardData::kAliveMagic) continue;
    std::lock_guard<std::mutex> tl(t->lock);
    int32_t depth = t->depth.load(std::memory_order_relaxed);
    if (depth < 1) continue;
    int64_t minRemaining = kWarnRemainingMs;
    for (int i = std::min(depth, ThreadGuardData::kStoredFrames) - 1; i >= 0; --i) {
      const FuncGuardFrame& f = t->frames[i];
      int32_t warn = f.warnMs > 0 ? f.warnMs : kFuncWarnMs;
      int32_t limit = std::max(f.abortMs > 0 ? f.abortMs : funcAbort, warn);
      int elapsed = elapsedMs(f.start, now);
      if (elapsed > limit) {
        int64_t overdue = static_cast<int64_t>(elapsed) - limit;
        if (overdue > worstOverdue) {
          worstOverdue = overdue;
          worstThread = t;
          worstIndex = i;
          worstElapsed = elapsed;
        }
      } else if (elapsed > warn) {
        int64_t remaining = static_cast<int64_t>(limit) - elapsed;
        // The innermost long runner every pass; an outer one only when it is the
        // nearest to its limit; all of them every fourth pass.
        if (remaining < minRemaining || iteration % 4 == 0) {
          GM_LOGW("Thread tid=%d %s executed %dms(>%dms) TOO LONG M[%s:%x:%s]", t->tid, f.funcName, elapsed,
                  warn, getModuleName(f.module), static_cast<unsigned>(f.module), f.message.c_str());
          if ((t->flags & kWarnedFlag) == 0) {
            mNewlyWarned.push_back(t->tid);
            t->flags |= kWarnedFlag;
          }
        }
        minRemaining = std::min(minRemaining, remaining);
      }
    }
  }

  if (worstThread == nullptr || worstElapsed < 1) return;

  FuncGuardFrame timedOut;
  int elapsed;
  {
    std::unique_lock<std::mutex> tl(worstThread->lock);
    const FuncGuardFrame& f = worstThread->frames[worstIndex];
    int32_t limit = std::max(f.abortMs > 0 ? f.abortMs : funcAbort, f.warnMs);
    elapsed = elapsedMs(f.start, now);
    // The owner may have closed the frame, or closed it and opened another in its
    // slot, since the pass looked at it.
    if (worstThread->depth.load(std::memory_order_relaxed) <= worstIndex || limit >= elapsed) {
      int tid = worstThread->tid;
      tl.unlock();
      GM_LOGI("Thread tid=%d: the timeout frame updated", tid);
      return;
    }
    timedOut = f;
  }
  lk.unlock();
  if (timedOut.callback) invokeCallback(timedOut.funcName, [&] { timedOut.callback(); });
  onTimeout(timedOut.module, timedOut.tid, timedOut.message.c_str(), elapsed);
  if (sApiAbortEnable != 0) {
    stopLoggersAndAbort("[onTimeout] tid:%d %s, executed %d ms. M[%s:%x]", timedOut.tid,
                        timedOut.message.c_str(), elapsed, getModuleName(timedOut.module),
                        static_cast<unsigned>(timedOut.module));
  }
  lk.lock();
}

void GuardMonitor::checkOldestRequest(std::unique_lock<std::mutex>& lk, const timespec& now,
                                      int32_t reqAbort) {
  if (mRequests.active.empty()) return;
  RequestRecord* rec = mRequests.active.front();
  int elapsed = elapsedMs(rec->start, now);
  // Computed wide: a caller's timeout near INT_MAX plus the delay must not wrap.
  int warnLimit =
      clampToInt(static_cast<int64_t>(rec->timeoutMs > 0 ? rec->timeoutMs : sReqWarnMs) + mCompelledDelayMs);
  int abortLimit = clampToInt(static_cast<int64_t>(std::max(reqAbort, rec->timeoutMs)) + mCompelledDelayMs);
  const char* typeName = getRequestTypeName(rec->type);

  if (elapsed <= abortLimit) {
    if (elapsed > warnLimit) {
      GM_LOGW("R %s:%u executed %d ms(>%d) TOO LONG; compelledDelay = %d ms", typeName, rec->id, elapsed,
              warnLimit, mCompelledDelayMs);
    }
    return;
  }

  GM_LOGW("R %s:%u executed %d ms(>%d) TIMEOUT", typeName, rec->id, elapsed, abortLimit);
  char message[128];
  if (snprintf(message, sizeof(message), "R %s:%u NO EXIT", typeName, rec->id) < 0) message[0] = '\0';
  // Work on copies: while the lock is released the owner may close the request and
  // its slot may be handed to a new one.
  const uint32_t id = rec->id;
  const ModuleId module = rec->module;
  const RequestTypeId type = rec->type;
  const uint64_t serial = rec->serial;
  std::function<void(unsigned int)> callback = rec->callback;
  lk.unlock();
  if (callback) invokeCallback(message, [&] { callback(id); });
  onTimeout(module, 0, message, elapsed);
  if (sReqAbortEnable != 0) {
    stopLoggersAndAbort("[onTimeout] Req %s:%u executed %d ms(>%d) TIMEOUT", getRequestTypeName(type), id,
                        elapsed, abortLimit);
  }
  lk.lock();
  // Timed out means forgotten: the owner's later unregister finds nothing, and the
  // guard count stays raised.
  auto& active = mRequests.active;
  auto it =
      std::find_if(active.begin(), active.end(), [&](const RequestRecord* r) { return r->serial == serial; });
  if (it == active.end()) return;
  (*it)->callback = nullptr;
  mRequests.freeList.push_back(*it);
  active.erase(it);
}

void GuardMonitor::onTimeout(ModuleId module, int tid, const char* message, int executedMs) {
  if (tid < 1) {
    GM_LOGW("TIMEOUT %s, executed %d ms", message, executedMs);
  } else {
    GM_LOGW("TIMEOUT tid=%d %s, executed %d ms. M[%s:%x]", tid, message, executedMs, getModuleName(module),
            static_cast<unsigned>(module));
  }
  printBacktracesOfProcess(message);
}

void GuardMonitor::stopLoggersAndAbort(const char* fmt, ...) {
  // Whatever the loggers still buffer must reach their files before the process ends.
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->stopOfflineLogger();
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->stopOfflineLogger();
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  __android_log_assert(nullptr, GM_TAG, "%s", text);
}

}  // namespace zudebug

// Logging core: groups, severities and masks, the logging macros, the offline
// line emitter, and the facade through which the offline logger is reached.
#pragma once

#include <log/log.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "ZuDebugDiag.h"
#include "ZuDebugExport.h"
#include "ZuDebugOfflineLogger.h"

namespace zudebug {

struct ThreadRecord;  // the library's per-thread record (internal)

// Console threshold: a line of priority p reaches the Android log only while the
// level is below p + 1 (errors below 7, warnings below 6, info below 5, debug below 4).
extern ZUDEBUG_EXPORT uint32_t gZuCamLogLevel;
// Enabled groups, one bit each; 0 switches all logging off.
extern ZUDEBUG_EXPORT uint32_t gZuCamLogGroup;
// Offline-debug mask: 0 means no offline logging; 3 or more also sets the extended flag.
extern ZUDEBUG_EXPORT uint32_t gZuCamDebugMask;

struct TraceInfo {
  int32_t traceGroups;
  int32_t reserved;
};
extern ZUDEBUG_EXPORT TraceInfo g_traceInfo;

// Group bits.
enum ZuLogGroup : uint32_t {
  ZU_GROUP_ALGOFWK = 1,
  ZU_GROUP_PLUGIN = 2,
  ZU_GROUP_META = 4,
  ZU_GROUP_SERVICE = 8,
  ZU_GROUP_DEBUG = 16,
  ZU_GROUP_CORE = 32,
  ZU_GROUP_HAL = 64,
  ZU_GROUP_RT = 128,
  ZU_GROUP_ALGORITHM = 256,
  ZU_GROUP_CALLSTACK = 512,
  ZU_GROUP_TBM = 1024,
  ZU_GROUP_ALGOFWK_RT = 2048,
  ZU_GROUP_OFFCAM = 4096,
  ZU_GROUP_SDK = 8192,
  ZU_GROUP_CAM_PERF = 16384,
  ZU_GROUP_ALGO_PERF = 32768,
};

// Level and debug mask may be reloaded by Log::updateLogInfo while other threads log:
// they are plain words, read and written as relaxed atomics inside the library.
inline uint32_t zuLogLevel() { return __atomic_load_n(&gZuCamLogLevel, __ATOMIC_RELAXED); }
inline uint32_t zuDebugMask() { return __atomic_load_n(&gZuCamDebugMask, __ATOMIC_RELAXED); }

// True on a production build.
ZUDEBUG_EXPORT bool IsStandardReleaseVersion();

class ZUDEBUG_EXPORT Log {
 public:
  // Reloads the console level, the debug mask (in production mode) and the trace
  // groups from properties; returns the trace-group mask stored.
  static int updateLogInfo();
  static const char* zuaGroupToString(unsigned int group);
  static const char* zuaGroupToTag(unsigned int group);
  // The part of `path` behind its last "/".
  static const char* getFileName(const char* path);

  // Offline half of a log statement: formats one time-stamped line and hands it to
  // the offline log; errors also go to the error-information file.
  static void logSystem(unsigned int group, const char* level, const char* file, const char* func, int line,
                        const char* fmt, ...) __attribute__((format(printf, 6, 7)));
  static void logSystem(unsigned int group, const char* level, const char* fmt, ...)
      __attribute__((format(printf, 3, 4)));
};

// What the rest of the library and hosts see of an offline logger: one instance per
// logger type, each with its own flush thread.
class ZUDEBUG_EXPORT ZuDebugInterface {
 public:
  static ZuDebugInterface* getInstance(ZuOfflineLoggerType type);

  explicit ZuDebugInterface(ZuOfflineLoggerType type);
  ~ZuDebugInterface();
  ZuDebugInterface(const ZuDebugInterface&) = delete;
  ZuDebugInterface& operator=(const ZuDebugInterface&) = delete;

  int startOfflineLogger();
  void stopOfflineLogger();
  void addLogInterface(const char* line, unsigned int length);
  // The library's line emitter writes its lines in place (see
  // ZuDegbugOfflineLogger::openAppend); null when this instance keeps nothing.
  uint8_t* openAppendInterface(ThreadRecord& thread, unsigned int room);
  void closeAppendInterface(ThreadRecord& thread, unsigned int length);
  void flushLogToFileInterface(bool force);
  void signalOfflineLoggerThread();
  void requestOfflineLogThreadProcessing();
  void dumpErrorInfoToFile(const char* text);

  // Like flushLogToFileInterface, for callers that must not block:
  // no lock (control mutex, the logger's locks) is waited for past `deadline`. False at
  // once, touching nothing, when the calling thread already holds one of those locks,
  // and false when a lock could not be had in time; true when the flush went through
  // (including when the instance is not enabled and there was nothing to do).
  bool flushLogToFileInterfaceUntil(bool force, ZuDegbugOfflineLogger::Deadline deadline);

  // Appends one record to the error-information file without needing an instance
  // (used while the library is loading, before any instance may be created).
  static void appendErrorInfo(const char* text);

  bool isStarted() const { return mStarted; }
  bool isEnabled() const { return mEnabled; }
  bool isExtended() const { return mExtended; }
  ZuOfflineLoggerType getType() const { return mType; }
  // Serialises start, stop and forced flushes of this instance.
  ZuOwnedRecursiveMutex& controlMutex() { return *mControlMutex; }
  // Wakes and joins the flush thread; the instance stays usable without it.
  void shutdownFlushThread();

 private:
  std::atomic<bool> mStarted{false};
  bool mEnabled = false;
  bool mExtended = false;
  bool mExitRequest = false;
  std::thread mFlushThread;
  std::mutex mWaitMutex;
  std::condition_variable mFlushSignal;
  ZuOfflineLoggerType mType;
  bool mSignalPending = false;               // a wake-up that came while the thread was flushing
  ZuDegbugOfflineLogger* mLogger = nullptr;  // the logger of mType
  const std::unique_ptr<ZuOwnedRecursiveMutex> mControlMutex;
};

// The flush trigger given to both loggers: wakes the Debug instance's flush thread.
ZUDEBUG_EXPORT void signalOfflineLoggerThreadWrapper();

}  // namespace zudebug

// ---------------------------------------------------------------------------
// Logging macros. Each statement tests its group and severity at the call site,
// writes its console line under `tag`, and hands errors (always) and other lines
// (while the debug mask is set) to the offline path. `fmt` is a string literal.
//
//   ZU_LOGE(tag, group, fmt, ...)   error    console while level < 7
//   ZU_LOGW(tag, group, fmt, ...)   warning  console while level < 6
//   ZU_LOGI(tag, group, fmt, ...)   info     console while level < 5
//   ZU_LOGD(tag, group, fmt, ...)   debug    console while level < 4
//   ZU_LOGV(tag, group, fmt, ...)   verbose debug, console while level < 3
//
// ZU_GLOGx(group, fmt, ...) use the group's own tag.
// ---------------------------------------------------------------------------
#define ZU_LOG_IMPL(tag, group, sev, prio, bound, needMask, fmt, ...)                                       \
  do {                                                                                                      \
    const unsigned int zuGroup_ = (group);                                                                  \
    if ((::zudebug::gZuCamLogGroup & zuGroup_) != 0) {                                                      \
      if (::zudebug::zuLogLevel() < (bound))                                                                \
        __android_log_print((prio), (tag), "%s %s:%d %s()" fmt, ::zudebug::Log::zuaGroupToString(zuGroup_), \
                            ::zudebug::Log::getFileName(__FILE__), __LINE__, __func__, ##__VA_ARGS__);      \
      if (!(needMask) || ::zudebug::zuDebugMask() != 0)                                                     \
        ::zudebug::Log::logSystem(zuGroup_, (sev), ::zudebug::Log::getFileName(__FILE__), __func__,         \
                                  __LINE__, fmt, ##__VA_ARGS__);                                            \
    }                                                                                                       \
  } while (0)

#define ZU_LOGE(tag, group, fmt, ...) \
  ZU_LOG_IMPL(tag, group, "E", ANDROID_LOG_ERROR, 7u, false, fmt, ##__VA_ARGS__)
#define ZU_LOGW(tag, group, fmt, ...) \
  ZU_LOG_IMPL(tag, group, "W", ANDROID_LOG_WARN, 6u, true, fmt, ##__VA_ARGS__)
#define ZU_LOGI(tag, group, fmt, ...) \
  ZU_LOG_IMPL(tag, group, "I", ANDROID_LOG_INFO, 5u, true, fmt, ##__VA_ARGS__)
#define ZU_LOGD(tag, group, fmt, ...) \
  ZU_LOG_IMPL(tag, group, "D", ANDROID_LOG_DEBUG, 4u, true, fmt, ##__VA_ARGS__)
#define ZU_LOGV(tag, group, fmt, ...) \
  ZU_LOG_IMPL(tag, group, "D", ANDROID_LOG_DEBUG, 3u, true, fmt, ##__VA_ARGS__)

#define ZU_GLOGE(group, fmt, ...) ZU_LOGE(::zudebug::Log::zuaGroupToTag(group), group, fmt, ##__VA_ARGS__)
#define ZU_GLOGW(group, fmt, ...) ZU_LOGW(::zudebug::Log::zuaGroupToTag(group), group, fmt, ##__VA_ARGS__)
#define ZU_GLOGI(group, fmt, ...) ZU_LOGI(::zudebug::Log::zuaGroupToTag(group), group, fmt, ##__VA_ARGS__)
#define ZU_GLOGD(group, fmt, ...) ZU_LOGD(::zudebug::Log::zuaGroupToTag(group), group, fmt, ##__VA_ARGS__)
#define ZU_GLOGV(group, fmt, ...) ZU_LOGV(::zudebug::Log::zuaGroupToTag(group), group, fmt, ##__VA_ARGS__)

// ZU_DBG_LOG, ZU_DBG_LOGE and ZU_DBG_LOGI come from ZuDebugDiag.h.

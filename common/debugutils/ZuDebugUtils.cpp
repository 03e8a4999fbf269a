#include "ZuDebugUtils.h"

#include <camlog/camlog.h>
#include <zudebug_platform/device_files.h>
#include <cutils/properties.h>
#include <pthread.h>
#include <stdio.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "ZuLogLine.h"
#include "ZuOfflineLoggerState.h"
#include "ZuPraseSettings.h"

namespace zudebug {

uint32_t gZuCamLogLevel = 0;
// Until the settings are read at load, the compiled default lets load-time errors through.
uint32_t gZuCamLogGroup = 54911;
uint32_t gZuCamDebugMask = 0;
TraceInfo g_traceInfo = {0, 0};

namespace {

// Group mask and offline-debug mask are fixed when the library is loaded.
struct LogMaskLoader {
  LogMaskLoader() {
    ZuPraseSettings* settings = ZuPraseSettings::getInstance();
    gZuCamLogGroup = static_cast<uint32_t>(
        settings->getIntFromSettingInfo(LOG_GROUPS_ENABLE, 54911, "persist.vendor.camera.prax.groupsEnable"));
    gZuCamDebugMask = static_cast<uint32_t>(
        settings->getIntFromSettingInfo(OFFLINE_DEBUG_MASK, 0, "persist.vendor.camera.offlinedebug.mask"));
  }
};
const LogMaskLoader sLogMaskLoader;

}  // namespace

bool IsStandardReleaseVersion() {
  char incremental[PROPERTY_VALUE_MAX];
  char type[PROPERTY_VALUE_MAX];
  char debuggable[PROPERTY_VALUE_MAX];
  property_get("ro.vendor.build.version.incremental", incremental, "-1");
  property_get("ro.build.type", type, "-1");
  property_get("ro.debuggable", debuggable, "-1");
  bool result = strstr(incremental, "OS") != nullptr && strstr(incremental, ".PRE") == nullptr;
  if (strcasecmp(debuggable, "0") == 0 && strcasecmp(type, "user") == 0) result = true;
  ZU_DBG_LOGI("version %s, type %s, debuggable %s, result %d", incremental, type, debuggable, result ? 1 : 0);
  return result;
}

int Log::updateLogInfo() {
  ZU_DBG_LOGE("updateLogInfo");
  int64_t logEntry = property_get_int64("persist.vendor.camera.logentry", 2);
  __atomic_store_n(&gZuCamLogLevel,
                   static_cast<uint32_t>(property_get_int32("persist.vendor.camera.prax.loglevel", 3)),
                   __ATOMIC_RELAXED);
  if (logEntry == 1 || (logEntry == 2 && IsStandardReleaseVersion())) {
    // Production: errors only unless asked otherwise, and the offline mask follows its property.
    __atomic_store_n(&gZuCamLogLevel,
                     static_cast<uint32_t>(property_get_int32("persist.vendor.camera.prax.loglevel", 6)),
                     __ATOMIC_RELAXED);
    __atomic_store_n(&gZuCamDebugMask,
                     static_cast<uint32_t>(property_get_int32("persist.vendor.camera.offlinedebug.mask", 0)),
                     __ATOMIC_RELAXED);
  }
  const int32_t traceGroups = property_get_int32("persist.vendor.camera.zualgo.tracegroups", 0);
  __atomic_store_n(&g_traceInfo.traceGroups, traceGroups, __ATOMIC_RELAXED);
  __atomic_store_n(&g_traceInfo.reserved, 0, __ATOMIC_RELAXED);
  return traceGroups;
}

const char* Log::zuaGroupToString(unsigned int group) { return line::groupLabel(group); }

const char* Log::zuaGroupToTag(unsigned int group) { return line::groupTag(group); }

const char* Log::getFileName(const char* path) { return zuBaseName(path); }

const char* zuBaseName(const char* path) {
  if (path == nullptr) return path;
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// ---- offline line emitter ----

namespace {

using line::beginLine;
using line::finishLine;
using line::kLineSize;

constexpr size_t kReportSize = 512;  // error-service report

inline const char* orEmpty(const char* s) { return s ? s : ""; }

bool isErrorLevel(const char* level) { return level != nullptr && level[0] == 'E' && level[1] == '\0'; }

// Escalation of an error line: only while "vendor.camera.sensor.logsystem" is 1 or 3.
// The offline log goes to disk first, then the report to the error service.
void escalate(char* report) {
  // Reported as a diagnostic of logSystem itself.
  __android_log_print(ANDROID_LOG_INFO, "ZuCamDebug",
                      "%s %s():%d [CAM_LOG_SYSTEM][PRAX] send error to ZEBQ CamErrorString: %.*s\n",
                      Log::getFileName(__FILE__), "logSystem", __LINE__,
                      static_cast<int>(strnlen(report, kReportSize)), report);
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->flushLogToFileInterface(true);
  camlog::send_message_to_zebq(report, 0, camlog::CAM_LOG_SYSTEM);
}

bool escalationWanted() {
  char value[PROPERTY_VALUE_MAX];
  property_get("vendor.camera.sensor.logsystem", value, "0");
  const int mode = atoi(value);
  return mode == 1 || mode == 3;
}

// One line of either form (`site` null: the line carries only its group): formatted
// straight into the thread's queue, errors kept apart and escalated.
void emitLine(unsigned int group, const char* level, const line::Site* site, const char* fmt, va_list ap) {
  ThreadRecord& thread = threadRecord();
  const bool isError = isErrorLevel(level);
  // Lines that name their site are queued only while the debug mask is set; their
  // errors are kept apart even while it is not.
  const bool queue = site == nullptr || zuDebugMask() != 0;
  // Not asked for before it is needed: lines logged while the library loads must not
  // make the instance before the masks are read.
  ZuDebugInterface* facade = queue ? ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug) : nullptr;
  char own[kLineSize];
  uint8_t* queued = facade != nullptr ? facade->openAppendInterface(thread, kLineSize) : nullptr;
  char* buf = queued != nullptr ? reinterpret_cast<char*>(queued) : own;
  size_t p;
  const size_t used = beginLine(thread, buf, level, group, site, &p);
  const size_t n = finishLine(buf, used, fmt, ap);
  if (queued != nullptr) {
    // What errors need of the line stays here: the queue is the flush thread's once
    // the line is published.
    if (isError) memcpy(own, buf, n + 2);  // the text, "\n" and the zero behind it
    facade->closeAppendInterface(thread, static_cast<unsigned int>(n + 1));
    buf = own;
  }
  if (site != nullptr && isError) ZuDebugInterface::appendErrorInfo(buf);
  if (!queue || !isError || !escalationWanted()) return;
  char report[kReportSize];
  memset(report, 0, sizeof(report));
  if (site != nullptr) {
    // The message itself stays out of the report.
    snprintf(report, sizeof(report), "%s:%s %s:%d fail", line::groupTag(group), line::groupLabel(group),
             orEmpty(site->file), site->line);
  } else {
    // The line without its time stamp: at most 512 bytes, which need not leave room
    // for a terminating zero.
    const size_t rest = n + 2 - p;  // text, "\n" and the zero behind it
    memcpy(report, buf + p, rest < kReportSize ? rest : kReportSize);
  }
  escalate(report);
}

}  // namespace

void Log::logSystem(unsigned int group, const char* level, const char* file, const char* func, int line,
                    const char* fmt, ...) {
  if (gZuCamLogGroup == 0) return;
  const line::Site site = {file, func, line};
  va_list ap;
  va_start(ap, fmt);
  emitLine(group, level, &site, fmt, ap);
  va_end(ap);
}

void Log::logSystem(unsigned int group, const char* level, const char* fmt, ...) {
  if (gZuCamLogGroup == 0) return;
  va_list ap;
  va_start(ap, fmt);
  emitLine(group, level, nullptr, fmt, ap);
  va_end(ap);
}

// ---- debug interface facade ----

namespace {

constexpr const char* kErrorInfoPath = "data/vendor/camera/offlinelog/ZuCam_Debug_PraxErrorInfoDump.txt";
constexpr off_t kErrorInfoLimit = 524288;

// One mutex for the one error file, usable while the library is still loading.
std::mutex sErrorInfoMutex;

// Set once, read by every log line: a plain load once they are there.
std::atomic<ZuDebugInterface*> sInstances[2] = {{nullptr}, {nullptr}};
std::once_flag sInstancesOnce;

// The instances live until the process ends (threads may log to the very end), but
// their flush threads are woken and joined when static objects are destroyed.
struct FlushThreadStopper {
  ~FlushThreadStopper() {
    for (auto& slot : sInstances)
      if (ZuDebugInterface* instance = slot.load(std::memory_order_acquire)) instance->shutdownFlushThread();
  }
};

}  // namespace

ZuDebugInterface* ZuDebugInterface::getInstance(ZuOfflineLoggerType type) {
  const int slot = type == ZuOfflineLoggerType::Debug ? 0 : 1;
  if (ZuDebugInterface* instance = sInstances[slot].load(std::memory_order_acquire)) return instance;
  std::call_once(sInstancesOnce, [] {
    auto* debug = new ZuDebugInterface(ZuOfflineLoggerType::Debug);
    auto* binary = new ZuDebugInterface(ZuOfflineLoggerType::Binary);
    static FlushThreadStopper stopper;
    (void)stopper;
    sInstances[0].store(debug, std::memory_order_release);
    sInstances[1].store(binary, std::memory_order_release);
  });
  return sInstances[slot].load(std::memory_order_acquire);
}

namespace {
// How the crash catcher takes a facade's control mutex: only when it is free.
bool crashFlushGate(ZuOfflineLoggerType type, uint32_t tid, bool take) {
  ZuOwnedRecursiveMutex& control = ZuDebugInterface::getInstance(type)->controlMutex();
  if (!take) {
    control.unlock();
    return true;
  }
  return !control.heldBy(tid) && control.try_lock();
}
}  // namespace

ZuDebugInterface::ZuDebugInterface(ZuOfflineLoggerType type)
    : mType(type),
      mLogger(ZuDegbugOfflineLogger::getInstance(type)),
      mControlMutex(std::make_unique<ZuOwnedRecursiveMutex>()) {
  Log::updateLogInfo();
  if (gZuCamLogGroup == 0) return;
  if (zuDebugMask() == 0) return;
  mEnabled = true;
  mExtended = zuDebugMask() >= 3;
  mFlushThread = std::thread(&ZuDebugInterface::requestOfflineLogThreadProcessing, this);
  mLogger->setFlushTriggerLink(signalOfflineLoggerThreadWrapper);
  mLogger->setCrashFlushGate(crashFlushGate);
}

ZuDebugInterface::~ZuDebugInterface() { shutdownFlushThread(); }

void ZuDebugInterface::shutdownFlushThread() {
  {
    std::lock_guard<std::mutex> lock(mWaitMutex);
    mExitRequest = true;
  }
  mFlushSignal.notify_all();
  if (!mFlushThread.joinable()) return;
  if (mFlushThread.get_id() == std::this_thread::get_id()) {
    mFlushThread.detach();
  } else {
    mFlushThread.join();
  }
}

void ZuDebugInterface::requestOfflineLogThreadProcessing() {
  // Named, so that it can be told apart in ps, top and traces.
  pthread_setname_np(pthread_self(), mType == ZuOfflineLoggerType::Debug ? "ZuFlushDebug" : "ZuFlushBinary");
  for (;;) {
    bool signalled;
    {
      std::unique_lock<std::mutex> lock(mWaitMutex);
      // A wake-up that came during the last flush is not lost. Once a second without
      // one, a write that failed (a full disk) or queues that ran out are tried again.
      signalled = mFlushSignal.wait_for(lock, std::chrono::seconds(1),
                                        [this] { return mSignalPending || mExitRequest; });
      mSignalPending = false;
      if (mExitRequest) break;
    }
    if (signalled)
      mLogger->flushLogToFile(false);
    else
      mLogger->retryWaitingWrites();
  }
  ZU_DBG_LOGI("OfflineLogger Thread is now terminated!");
}

void ZuDebugInterface::signalOfflineLoggerThread() {
  {
    std::lock_guard<std::mutex> lock(mWaitMutex);
    mSignalPending = true;
  }
  mFlushSignal.notify_all();
}

void signalOfflineLoggerThreadWrapper() {
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->signalOfflineLoggerThread();
}

int ZuDebugInterface::startOfflineLogger() {
  if (!mEnabled) return 0;
  std::lock_guard<ZuOwnedRecursiveMutex> control(*mControlMutex);
  ZU_DBG_LOGI("Begin mStarted: %d", mStarted.load() ? 1 : 0);
  if (mStarted) return 0;
  int result = mLogger->start();
  if (result != 0) {
    ZU_DBG_LOGE("OfflineLogger Initialize failed!");
    return result;
  }
  mStarted = true;
  ZU_DBG_LOGI("End");
  return 0;
}

void ZuDebugInterface::stopOfflineLogger() {
  if (!mEnabled) return;
  std::lock_guard<ZuOwnedRecursiveMutex> control(*mControlMutex);
  if (!mStarted) return;
  ZU_DBG_LOGI("Begin");
  mLogger->stop();
  mStarted = false;
  ZU_DBG_LOGI("End");
}

void ZuDebugInterface::addLogInterface(const char* line, unsigned int length) {
  if (mEnabled) mLogger->addLog(line, length);
}

uint8_t* ZuDebugInterface::openAppendInterface(ThreadRecord& thread, unsigned int room) {
  return mEnabled ? mLogger->openAppend(thread, room, nullptr) : nullptr;
}

void ZuDebugInterface::closeAppendInterface(ThreadRecord& thread, unsigned int length) {
  mLogger->closeAppend(thread, length);
}

void ZuDebugInterface::flushLogToFileInterface(bool force) {
  if (!mEnabled) return;
  std::lock_guard<ZuOwnedRecursiveMutex> control(*mControlMutex);
  mLogger->flushLogToFile(force);
  mLogger->activeOfflineLogger();
}

bool ZuDebugInterface::flushLogToFileInterfaceUntil(bool force, ZuDegbugOfflineLogger::Deadline deadline) {
  if (!mEnabled) return true;
  if (mControlMutex->heldByCurrentThread() || mLogger->isHeldByCurrentThread()) return false;
  if (!mControlMutex->try_lock_until(deadline)) return false;
  const bool done = mLogger->flushLogToFileUntil(force, deadline);
  if (done) mLogger->activeOfflineLogger();
  mControlMutex->unlock();
  return done;
}

void ZuDebugInterface::dumpErrorInfoToFile(const char* text) { appendErrorInfo(text); }

void ZuDebugInterface::appendErrorInfo(const char* text) {
  if (gZuCamLogGroup == 0) return;
  std::lock_guard<std::mutex> lock(sErrorInfoMutex);
  // The path is relative on purpose: it follows the process's working directory.
  FILE* file = nullptr;
  struct stat st;
  const bool past = stat(kErrorInfoPath, &st) == 0 && st.st_size > kErrorInfoLimit;
  // Past 512 KiB the file starts over.
  devfs::File opened =
      devfs::openFileChecked(kErrorInfoPath, past ? "wb+" : "ab+", devfs::Owner::UserOrGroup);
  if (opened && fstat(fileno(opened.get()), &st) == 0 && st.st_uid == geteuid() &&
      (st.st_mode & 0777) != 0666 && fchmod(fileno(opened.get()), 0666) != 0)
    ZU_DBG_LOGE("Failed to change permissions");
  file = opened.release();
  if (file == nullptr) return;
  fputs(orEmpty(text), file);
  fputc('\n', file);
  fclose(file);
}

}  // namespace zudebug

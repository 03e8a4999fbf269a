// Offline logger: per-thread in-memory queues drawn from a pool of 1 MiB blocks,
// flushed into rotating files under /data/vendor/camera/offlinelog.
// Also the crash signal catcher, which writes its record through this logger.
#pragma once

#include <signal.h>

#include <cstdint>
#include <string>

#include "ZuDebugExport.h"

namespace zudebug {

enum class ZuOfflineLoggerType : int {
  Debug = 0,   // the library's text log, files ".txt"
  Binary = 1,  // offered to hosts, files ".bin"
};

class ZUDEBUG_EXPORT ZuDegbugOfflineLogger {
 public:
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
  void requestFlushLogQueue(int registerId);

  // Files.
  int flushLogToFile(bool force);
  std::string getPrefixFilename();
  std::string getCurrentTime();
  float getAvailableSpace(const char* path);

  // ---- the private state below belongs to the logger's implementation ----
 private:
  explicit ZuDegbugOfflineLogger(ZuOfflineLoggerType type);
  ~ZuDegbugOfflineLogger();
};

// ---- crash signal catcher ----
ZUDEBUG_EXPORT void RegisterSignalHandlers();
ZUDEBUG_EXPORT void SignalCatcher(int signal, siginfo_t* info, void* context);
ZUDEBUG_EXPORT void InvokeDefaultHndlr(const struct sigaction& action, int signal, siginfo_t* info,
                                       void* context);

}  // namespace zudebug

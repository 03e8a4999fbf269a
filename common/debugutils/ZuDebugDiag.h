// Diagnostics of the library's own modules: Android log lines with the tag
// "ZuCamDebug", no group test, text "<file> <function>():<line> " followed by the
// message and a newline.
#pragma once

#include <log/log.h>

#include "ZuDebugExport.h"

namespace zudebug {

// The part of `path` behind its last "/".
ZUDEBUG_EXPORT const char* zuBaseName(const char* path);

}  // namespace zudebug

// The file a line names: the source file, or the module's main file where a module
// spans several (defined before this header is included).
#ifndef ZU_DIAG_FILE
#define ZU_DIAG_FILE __FILE__
#endif

#define ZU_DBG_LOG(prio, fmt, ...)                                                                       \
  __android_log_print((prio), "ZuCamDebug", "%s %s():%d " fmt "\n", ::zudebug::zuBaseName(ZU_DIAG_FILE), \
                      __func__, __LINE__, ##__VA_ARGS__)
#define ZU_DBG_LOGE(fmt, ...) ZU_DBG_LOG(ANDROID_LOG_ERROR, fmt, ##__VA_ARGS__)
#define ZU_DBG_LOGI(fmt, ...) ZU_DBG_LOG(ANDROID_LOG_INFO, fmt, ##__VA_ARGS__)

#include "ZuDebugUtils.h"

#include <cutils/properties.h>
#include <strings.h>

#include <cstring>

#include "ZuPraseSettings.h"

namespace zudebug {

uint32_t gZuCamLogLevel = 0;
// Until the settings are read at load, the compiled default lets load-time errors through.
uint32_t gZuCamLogGroup = 54911;
uint32_t gZuCamDebugMask = 0;
TraceInfo g_traceInfo = {0, 0};

namespace {

constexpr const char* kUnknown = "[UNKNOWN]";

struct GroupEntry {
  unsigned int bit;
  const char* label;
  const char* tag;
};

// Labels keep their inner blanks so that they line up in the log.
constexpr GroupEntry kGroups[] = {
    {1, "[AlgoFwk]", "ZuAlgoEngine"},   {2, "[Plugin]", "ZuAlgoEngine"}, {4, "[Meta]", "ZuAlgoEngine"},
    {8, "[Service]", "ZuCamService"},   {16, "[Debug]", "ZuCamDebug"},   {32, "[Core]", "ZuCamHAL"},
    {64, "[HAL ]", "ZuCamHAL"},         {128, "[RT  ]", "ZuCamHAL"},     {256, "[Algorithm]", "ZuAlgoEngine"},
    {512, "[CallStack]", kUnknown},     {1024, "[TBM ]", "ZuCamHAL"},    {2048, "[AlgoFwkRT]", kUnknown},
    {4096, "[OffCam]", "ZuAlgoEngine"}, {8192, "[Sdk ]", "EcoEngine"},   {16384, "[Perf]", "ZuCamPerf"},
    {32768, "[Perf]", "ZuAlgoPerf"},
};

// Exact-value lookup: a value with several bits set is unknown.
const GroupEntry* findGroup(unsigned int group) {
  if (group == 0 || (group & (group - 1)) != 0 || group > 32768) return nullptr;
  return &kGroups[__builtin_ctz(group)];
}

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
  gZuCamLogLevel = static_cast<uint32_t>(property_get_int32("persist.vendor.camera.prax.loglevel", 3));
  if (logEntry == 1 || (logEntry == 2 && IsStandardReleaseVersion())) {
    // Production: errors only unless asked otherwise, and the offline mask follows its property.
    gZuCamLogLevel = static_cast<uint32_t>(property_get_int32("persist.vendor.camera.prax.loglevel", 6));
    gZuCamDebugMask = static_cast<uint32_t>(property_get_int32("persist.vendor.camera.offlinedebug.mask", 0));
  }
  g_traceInfo.traceGroups = property_get_int32("persist.vendor.camera.zualgo.tracegroups", 0);
  g_traceInfo.reserved = 0;
  return g_traceInfo.traceGroups;
}

const char* Log::zuaGroupToString(unsigned int group) {
  const GroupEntry* e = findGroup(group);
  return e ? e->label : kUnknown;
}

const char* Log::zuaGroupToTag(unsigned int group) {
  const GroupEntry* e = findGroup(group);
  return e ? e->tag : kUnknown;
}

const char* Log::getFileName(const char* path) {
  if (path == nullptr) return path;
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// ---- offline line emitter ----
// Not wired to the offline logger yet: the console half of every statement is complete.
void Log::logSystem(unsigned int, const char*, const char*, const char*, int, const char*, ...) {}

void Log::logSystem(unsigned int, const char*, const char*, ...) {}

}  // namespace zudebug

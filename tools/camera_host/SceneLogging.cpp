// Settings and log configuration as the library resolved them at load, and a few
// log lines by group.
#include <stdio.h>

#include "Scenes.h"
#include "ZuDebugUtils.h"
#include "ZuPraseSettings.h"

using namespace zudebug;

namespace {

struct IntSetting {
  SettingMask mask;
  const char* key;
  int32_t def;
  const char* prop;
};
struct BoolSetting {
  SettingMask mask;
  const char* key;
  bool def;
  const char* prop;
};

}  // namespace

void runLoggingScene(const HostOptions& opts) {
  sceneHeading("camera settings");
  ZuPraseSettings* s = ZuPraseSettings::getInstance();
  printf("settings file   : %s/odm/etc/camera/zorvex/praxsettings.json\n", opts.root.c_str());
  printf("UsePropPriority : %s\n", s->usePropPriority() ? "true (properties win)" : "false (file wins)");
  const IntSetting ints[] = {
      {OFFLINE_DEBUG_MASK, "offlinedebugmask", 0, "persist.vendor.camera.offlinedebug.mask"},
      {OPEN_LIFO, "OpenLIFO", 0, "persist.vendor.camera.zualgoengine.openlifo"},
      {SOC_TYPE, "Soc", 0, ""},
      {LOG_GROUPS_ENABLE, "Prax3LogGroupsEnable", 54911, "persist.vendor.camera.prax.groupsEnable"},
  };
  for (const auto& i : ints) printf("  %-28s = %d\n", i.key, s->getIntFromSettingInfo(i.mask, i.def, i.prop));
  const BoolSetting bools[] = {
      {OPEN_ENGINE_IMAGE_DUMP, "OpenEngineImageDump", false, "persist.vendor.camera.zualgoengine.opendump"},
      {NIGHT_BOKEH_CONCURRENCY_PROCESS, "NightBokehConcurrencyProcess", true, ""},
      {SUPPORT_BINARY_LOG, "SupportBinaryLog", false, ""},
      {SR_NODE_HAVE_TWO_OUT_PORT, "SrNodeHaveTwoOutPort", true, ""},
  };
  for (const auto& b : bools)
    printf("  %-28s = %s\n", b.key, s->getBoolFromSettingInfo(b.mask, b.def, b.prop) ? "true" : "false");
  printf(
      "  %-28s = %s\n", "CurrentTempFilePath",
      s->getStrFromSettingInfo(CURRENT_TEMP_FILE_PATH, "/sys/class/thermal/thermal_message/board_sensor_temp")
          .c_str());
  printf("  %-28s = %s\n", "JsonFileRemap", s->getStrFromSettingInfo(JSON_FILE_REMAP, "").c_str());

  sceneHeading("log configuration");
  Log::updateLogInfo();
  printf("gZuCamLogLevel  = %u  (console prints priorities above it: 3 = debug and up)\n", gZuCamLogLevel);
  printf("gZuCamLogGroup  = 0x%04X\n", gZuCamLogGroup);
  printf("gZuCamDebugMask = %u  (0: offline logging off)\n", gZuCamDebugMask);
  printf("trace groups    = %d\n", g_traceInfo.traceGroups);
  printf("release build   = %s\n", IsStandardReleaseVersion() ? "yes" : "no");
  for (unsigned g = 1; g <= 32768; g <<= 1)
    printf("  group %5u %-12s tag %-13s %s\n", g, Log::zuaGroupToString(g), Log::zuaGroupToTag(g),
           (gZuCamLogGroup & g) ? "on" : "off");

  sceneHeading("logging by group");
  ZU_GLOGI(ZU_GROUP_HAL, "open camera %d, session %u", 0, 1u);
  ZU_GLOGD(ZU_GROUP_CORE, "configure streams: %d outputs", 3);
  ZU_GLOGW(ZU_GROUP_PLUGIN, "plug-in %s answered late (%d ms)", "mfnr", 48);
  ZU_GLOGE(ZU_GROUP_SERVICE, "request %u failed: %s", 17u, "buffer lost");
  ZU_GLOGD(ZU_GROUP_RT, "real-time thread: this line shows only while group 128 is enabled");
  ZU_GLOGD(ZU_GROUP_SDK, "sdk: this line shows only while group 8192 is enabled");
  printf(
      "logged 6 lines in groups HAL, Core, Plugin, Service, RT (%s) and Sdk (%s);\n"
      "the console lines are in %s/logcat.txt\n",
      (gZuCamLogGroup & ZU_GROUP_RT) ? "on" : "off", (gZuCamLogGroup & ZU_GROUP_SDK) ? "on" : "off",
      opts.root.c_str());
}

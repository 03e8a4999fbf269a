// Reader of the camera framework's settings file
// "/odm/etc/camera/zorvex/praxsettings.json", with property overrides.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "ZuDebugExport.h"

namespace zudebug {

// A camera setting of the settings file.
enum SettingMask : int32_t {
  OFFLINE_DEBUG_MASK = 0,
  OPEN_ENGINE_IMAGE_DUMP = 1,
  OPEN_LIFO = 2,
  CURRENT_TEMP_FILE_PATH = 3,
  NEED_UPDATE_FOV_CROP_ZOOM_RATIO = 4,
  MD_BOKEH_ONLY_ONE_SINK = 5,
  OPEN_PIPELINE_PRUNER_DUMP = 6,
  SOC_TYPE = 7,
  NIGHT_BOKEH_CONCURRENCY_PROCESS = 8,
  SUPPORT_MD_BOKEH = 9,
  SUPPORT_BINARY_LOG = 10,
  WATERMARK_DOWN = 11,
  SR_NODE_HAVE_TWO_OUT_PORT = 12,
  JPEG_PRUNE_NEEDED = 13,
  LOG_GROUPS_ENABLE = 14,
  JSON_FILE_REMAP = 15,
};

class ZUDEBUG_EXPORT ZuPraseSettings {
 public:
  // The one instance, reading the device's settings file; the file is read and
  // parsed at the first call.
  static ZuPraseSettings* getInstance();

  // A reader of another settings file (same rules; `path` is a device path).
  explicit ZuPraseSettings(const char* path);
  ~ZuPraseSettings();
  ZuPraseSettings(const ZuPraseSettings&) = delete;
  ZuPraseSettings& operator=(const ZuPraseSettings&) = delete;

  int32_t getIntFromSettingInfo(SettingMask mask, int32_t defaultValue, const char* propName);
  bool getBoolFromSettingInfo(SettingMask mask, bool defaultValue, const char* propName);
  std::string getStrFromSettingInfo(SettingMask mask, const std::string& defaultValue);
  // Reads property `propName` into `value` (92 bytes) with default "false";
  // true when it is set to something else. An empty name gives false.
  bool getPropValue(const char* propName, char* value);

  bool usePropPriority() const { return mUsePropPriority; }

 private:
  struct Document;  // the parsed file; its root is always an object

  std::string remapJsonFile(const std::string& defaultValue) const;

  std::unique_ptr<Document> mDocument;
  bool mUsePropPriority = true;
};

}  // namespace zudebug

// The algorithm engine's internal switches: read once from the camera settings file
// and their property overrides, then served from memory by setting index.
#pragma once

#include <cstdint>
#include <string>

#include "ZuDebugExport.h"
#include "ZuPraseSettings.h"

namespace zudebug {

class ZUDEBUG_EXPORT ZuaInternalProp {
 public:
  // The one instance; the switches are read and logged at the first call.
  static ZuaInternalProp* getInstance();

  // SOC_TYPE: 0 other vendors, 1 MediaTek, 2 the maker's own chip. Every other
  // index, OPEN_LIFO included, gives -1.
  int32_t getInt(SettingMask mask);
  // The stored flag; OPEN_LIFO: whether the LIFO value is above 0. Indices without a
  // flag give false.
  bool getBool(SettingMask mask);
  // CURRENT_TEMP_FILE_PATH and JSON_FILE_REMAP; any other index gives "".
  std::string getString(SettingMask mask);

  ZuaInternalProp(const ZuaInternalProp&) = delete;
  ZuaInternalProp& operator=(const ZuaInternalProp&) = delete;

 private:
  ZuaInternalProp();
  ~ZuaInternalProp() = default;

  bool mOpenEngineImageDump = false;
  int32_t mOpenLIFO = 0;
  bool mNeedUpdateFovCropZoomRatio = false;
  bool mMDBokehOnlyOneSink = false;
  bool mOpenPipelinePrunerAbnormalDump = false;
  std::string mCurrentTempFilePath;
  int32_t mSocType = 0;
  bool mNightBokehConcurrencyProcess = true;
  bool SupportMDBokeh = false;
  bool mSupportBinaryLog = false;
  bool mWatermarkDown = false;
  bool mSrNodeHaveTwoOutPort = true;
  bool mJpegPruneNeeded = false;
  std::string mJsonFileRemap;
};

}  // namespace zudebug

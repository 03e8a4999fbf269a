#include "ZuaSettings.h"

#include "ZuDebugUtils.h"

namespace zudebug {

ZuaInternalProp* ZuaInternalProp::getInstance() {
  static ZuaInternalProp instance;
  return &instance;
}

ZuaInternalProp::ZuaInternalProp() {
  ZuPraseSettings* settings = ZuPraseSettings::getInstance();
  mOpenEngineImageDump = settings->getBoolFromSettingInfo(OPEN_ENGINE_IMAGE_DUMP, false,
                                                          "persist.vendor.camera.zualgoengine.opendump");
  mOpenLIFO = settings->getIntFromSettingInfo(OPEN_LIFO, 0, "persist.vendor.camera.zualgoengine.openlifo");
  mOpenPipelinePrunerAbnormalDump = settings->getBoolFromSettingInfo(
      OPEN_PIPELINE_PRUNER_DUMP, false, "persist.vendor.camera.zualgoengine.pipelineprunerdump");
  mCurrentTempFilePath = settings->getStrFromSettingInfo(
      CURRENT_TEMP_FILE_PATH, "/sys/class/thermal/thermal_message/board_sensor_temp");
  mNeedUpdateFovCropZoomRatio = settings->getBoolFromSettingInfo(NEED_UPDATE_FOV_CROP_ZOOM_RATIO, false, "");
  mMDBokehOnlyOneSink = settings->getBoolFromSettingInfo(MD_BOKEH_ONLY_ONE_SINK, false, "");
  mSocType = settings->getIntFromSettingInfo(SOC_TYPE, 0, "");
  mNightBokehConcurrencyProcess = settings->getBoolFromSettingInfo(NIGHT_BOKEH_CONCURRENCY_PROCESS, true, "");
  SupportMDBokeh = settings->getBoolFromSettingInfo(SUPPORT_MD_BOKEH, false, "");
  mSupportBinaryLog = settings->getBoolFromSettingInfo(SUPPORT_BINARY_LOG, false, "");
  mWatermarkDown = settings->getBoolFromSettingInfo(WATERMARK_DOWN, false, "");
  mSrNodeHaveTwoOutPort = settings->getBoolFromSettingInfo(SR_NODE_HAVE_TWO_OUT_PORT, true, "");
  mJpegPruneNeeded = settings->getBoolFromSettingInfo(JPEG_PRUNE_NEEDED, false, "");
  mJsonFileRemap = settings->getStrFromSettingInfo(JSON_FILE_REMAP, "");

  ZU_LOGI("ZuAlgoEngine", ZU_GROUP_ALGOFWK,
          "mOpenEngineImageDump:[%d] mOpenLIFO:[%d] mNeedUpdateFovCropZoomRatio:[%d] "
          "mOpenPipelinePrunerAbnormalDump:[%d] mMDBokehOnlyOneSink:[%d] mCurrentTempFilePath:[%s] "
          "mSocType:[%d] SupportMDBokeh:[%d] mWatermarkDown:[%d] mSrNodeHaveTwoOutPort:[%d], "
          "mJpegPruneNeeded:[%d],mJsonFileRemap:[%s]",
          mOpenEngineImageDump, mOpenLIFO, mNeedUpdateFovCropZoomRatio, mOpenPipelinePrunerAbnormalDump,
          mMDBokehOnlyOneSink, mCurrentTempFilePath.c_str(), mSocType, SupportMDBokeh, mWatermarkDown,
          mSrNodeHaveTwoOutPort, mJpegPruneNeeded, mJsonFileRemap.c_str());
}

int32_t ZuaInternalProp::getInt(SettingMask mask) { return mask == SOC_TYPE ? mSocType : -1; }

bool ZuaInternalProp::getBool(SettingMask mask) {
  switch (mask) {
    case OPEN_ENGINE_IMAGE_DUMP:
      return mOpenEngineImageDump;
    case OPEN_LIFO:
      return mOpenLIFO > 0;
    case NEED_UPDATE_FOV_CROP_ZOOM_RATIO:
      return mNeedUpdateFovCropZoomRatio;
    case MD_BOKEH_ONLY_ONE_SINK:
      return mMDBokehOnlyOneSink;
    case OPEN_PIPELINE_PRUNER_DUMP:
      return mOpenPipelinePrunerAbnormalDump;
    case NIGHT_BOKEH_CONCURRENCY_PROCESS:
      return mNightBokehConcurrencyProcess;
    case SUPPORT_MD_BOKEH:
      return SupportMDBokeh;
    case SUPPORT_BINARY_LOG:
      return mSupportBinaryLog;
    case WATERMARK_DOWN:
      return mWatermarkDown;
    case SR_NODE_HAVE_TWO_OUT_PORT:
      return mSrNodeHaveTwoOutPort;
    case JPEG_PRUNE_NEEDED:
      return mJpegPruneNeeded;
    default:
      return false;
  }
}

std::string ZuaInternalProp::getString(SettingMask mask) {
  if (mask == CURRENT_TEMP_FILE_PATH) return mCurrentTempFilePath;
  if (mask == JSON_FILE_REMAP) return mJsonFileRemap;
  return std::string();
}

}  // namespace zudebug

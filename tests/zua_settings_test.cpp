// The algorithm engine's internal switches: read once at first use, each in a fresh
// process with its own settings file and properties.
#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"
#include "ZuaSettings.h"

using namespace zudebug;
using zutest::inChild;
using zutest::TempRoot;

namespace {

const char* const kThermal = "/sys/class/thermal/thermal_message/board_sensor_temp";

// The summary line in the child's log, without its "file:line function()" prefix.
std::string summaryOf(const TempRoot& root) {
  const std::string head = "I/ZuAlgoEngine: [AlgoFwk] ZuaSettings.cpp:";
  const std::string func = " ZuaInternalProp()";
  std::string found;
  int count = 0;
  for (const auto& line : zutest::readLines(root.logcatFile())) {
    size_t at = line.find(func);
    if (line.rfind(head, 0) != 0 || at == std::string::npos) continue;
    found = line.substr(at + func.size());
    ++count;
  }
  EXPECT_EQ(count, 1) << "summary lines";
  return found;
}

std::string runZuaChild(const char* test, const char* settings, std::map<std::string, std::string> props) {
  TempRoot root;
  props["persist.vendor.camera.prax.loglevel"] = "0";
  root.setProps(props);
  if (settings != nullptr) root.writeFile("odm/etc/camera/zorvex/praxsettings.json", settings);
  auto r = zutest::runChild(std::string("ZuaInternalProp.") + test, root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
  return summaryOf(root);
}

}  // namespace

TEST(ZuaInternalProp, Defaults) {
  if (inChild()) {
    ZuaInternalProp* p = ZuaInternalProp::getInstance();
    EXPECT_EQ(ZuaInternalProp::getInstance(), p);
    for (int m = 0; m <= 16; ++m) {
      SettingMask mask = static_cast<SettingMask>(m);
      EXPECT_EQ(p->getBool(mask), m == NIGHT_BOKEH_CONCURRENCY_PROCESS || m == SR_NODE_HAVE_TWO_OUT_PORT)
          << m;
      EXPECT_EQ(p->getInt(mask), m == SOC_TYPE ? 0 : -1) << m;
      EXPECT_EQ(p->getString(mask), m == CURRENT_TEMP_FILE_PATH ? kThermal : "") << m;
    }
    return;
  }
  EXPECT_EQ(runZuaChild("Defaults", nullptr, {}),
            "mOpenEngineImageDump:[0] mOpenLIFO:[0] mNeedUpdateFovCropZoomRatio:[0] "
            "mOpenPipelinePrunerAbnormalDump:[0] mMDBokehOnlyOneSink:[0] "
            "mCurrentTempFilePath:[/sys/class/thermal/thermal_message/board_sensor_temp] mSocType:[0] "
            "SupportMDBokeh:[0] mWatermarkDown:[0] mSrNodeHaveTwoOutPort:[1], "
            "mJpegPruneNeeded:[0],mJsonFileRemap:[]");
}

// Every file value flipped from its default; the three overridable switches also
// set by property, which wins under property priority.
TEST(ZuaInternalProp, FileAndPropertiesWithPropertyPriority) {
  if (inChild()) {
    ZuaInternalProp* p = ZuaInternalProp::getInstance();
    EXPECT_TRUE(p->getBool(OPEN_ENGINE_IMAGE_DUMP));
    EXPECT_TRUE(p->getBool(OPEN_LIFO));
    EXPECT_EQ(p->getInt(OPEN_LIFO), -1);
    EXPECT_FALSE(p->getBool(OPEN_PIPELINE_PRUNER_DUMP));
    for (SettingMask m : {NEED_UPDATE_FOV_CROP_ZOOM_RATIO, MD_BOKEH_ONLY_ONE_SINK, SUPPORT_MD_BOKEH,
                          SUPPORT_BINARY_LOG, WATERMARK_DOWN, JPEG_PRUNE_NEEDED})
      EXPECT_TRUE(p->getBool(m)) << m;
    EXPECT_FALSE(p->getBool(NIGHT_BOKEH_CONCURRENCY_PROCESS));
    EXPECT_FALSE(p->getBool(SR_NODE_HAVE_TWO_OUT_PORT));
    EXPECT_FALSE(p->getBool(LOG_GROUPS_ENABLE));
    EXPECT_EQ(p->getInt(SOC_TYPE), 2);
    EXPECT_EQ(p->getString(CURRENT_TEMP_FILE_PATH), "/sys/thermal/t0");
    EXPECT_EQ(p->getString(JSON_FILE_REMAP), "b.json");
    EXPECT_EQ(p->getString(OPEN_ENGINE_IMAGE_DUMP), "");
    return;
  }
  const char* file = R"({"UsePropPriority": true, "OpenEngineImageDump": false, "OpenLIFO": 0,
    "NeedUpdateFovCropZoomRatio": true, "MDBokehOnlyOneSink": true, "OpenZuaPipelinePrunerDump": true,
    "CurrentTempFilePath": "/sys/thermal/t0", "Soc": "KELTA-O1", "NightBokehConcurrencyProcess": false,
    "SupportMDBokeh": true, "SupportBinaryLog": true, "WatermarkDown": true, "SrNodeHaveTwoOutPort": false,
    "JpegPruneNeeded": true, "JsonFileRemap": {"prop": "persist.vendor.camera.remap",
    "prop_brand": "ro.product.brand", "map": [["0", "a.json"], ["1", "b.json"], ["2", "c.json"]]}})";
  EXPECT_EQ(
      runZuaChild("FileAndPropertiesWithPropertyPriority", file,
                  {{"persist.vendor.camera.zualgoengine.opendump", "1"},
                   {"persist.vendor.camera.zualgoengine.openlifo", "2"},
                   {"persist.vendor.camera.zualgoengine.pipelineprunerdump", "0"},
                   {"persist.vendor.camera.remap", "1"},
                   {"ro.product.brand", "zorvex"}}),
      "mOpenEngineImageDump:[1] mOpenLIFO:[2] mNeedUpdateFovCropZoomRatio:[1] "
      "mOpenPipelinePrunerAbnormalDump:[0] mMDBokehOnlyOneSink:[1] mCurrentTempFilePath:[/sys/thermal/t0] "
      "mSocType:[2] SupportMDBokeh:[1] mWatermarkDown:[1] mSrNodeHaveTwoOutPort:[0], "
      "mJpegPruneNeeded:[1],mJsonFileRemap:[b.json]");
}

// Without the flag the file wins; a negative LIFO value is not "on".
TEST(ZuaInternalProp, FileWinsWithoutFlag) {
  if (inChild()) {
    ZuaInternalProp* p = ZuaInternalProp::getInstance();
    EXPECT_FALSE(p->getBool(OPEN_LIFO));
    EXPECT_FALSE(p->getBool(OPEN_ENGINE_IMAGE_DUMP));
    EXPECT_TRUE(p->getBool(OPEN_PIPELINE_PRUNER_DUMP));
    EXPECT_EQ(p->getInt(SOC_TYPE), 1);
    return;
  }
  runZuaChild("FileWinsWithoutFlag", R"({"OpenLIFO": -1, "OpenEngineImageDump": 1, "Soc": "MT6985-MTK"})",
              {{"persist.vendor.camera.zualgoengine.openlifo", "2"},
               {"persist.vendor.camera.zualgoengine.opendump", "1"},
               {"persist.vendor.camera.zualgoengine.pipelineprunerdump", "1"}});
}

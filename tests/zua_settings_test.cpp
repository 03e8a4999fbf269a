// The algorithm engine's internal switches: read once at first use, so each case runs
// in a fresh process with its own settings file and properties.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ZuaSettings.h"

using namespace zudebug;

// The child prints every getter over indices 0 to 16: the flags as 0/1, then each
// integer other than -1 and each non-empty string with its index.
TEST(ZuaInternalProp, ReadOnceAtFirstUse) {
  if (zutest::inChild()) {
    ZuaInternalProp* p = ZuaInternalProp::getInstance();
    EXPECT_EQ(ZuaInternalProp::getInstance(), p);
    std::string flags, rest;
    for (int m = 0; m <= 16; ++m) {
      const SettingMask mask = static_cast<SettingMask>(m);
      flags += p->getBool(mask) ? '1' : '0';
      if (p->getInt(mask) != -1) rest += " int" + std::to_string(m) + "=" + std::to_string(p->getInt(mask));
      if (!p->getString(mask).empty()) rest += " str" + std::to_string(m) + "=" + p->getString(mask);
    }
    std::cout << "getters: " << flags << rest << "\n";
    return;
  }
  const struct {
    const char* settings;  // nullptr: no file
    std::map<std::string, std::string> props;
    std::string getters, summary;
  } cases[] = {
      {nullptr,
       {},
       "00000000100010000 str3=/sys/class/thermal/thermal_message/board_sensor_temp int7=0",
       "mOpenEngineImageDump:[0] mOpenLIFO:[0] mNeedUpdateFovCropZoomRatio:[0] "
       "mOpenPipelinePrunerAbnormalDump:[0] mMDBokehOnlyOneSink:[0] "
       "mCurrentTempFilePath:[/sys/class/thermal/thermal_message/board_sensor_temp] mSocType:[0] "
       "SupportMDBokeh:[0] mWatermarkDown:[0] mSrNodeHaveTwoOutPort:[1], "
       "mJpegPruneNeeded:[0],mJsonFileRemap:[]"},
      // Every file value flipped from its default; the three overridable switches also
      // set by property, which wins under property priority.
      {R"({"UsePropPriority": true, "OpenEngineImageDump": false, "OpenLIFO": 0,
    "NeedUpdateFovCropZoomRatio": true, "MDBokehOnlyOneSink": true, "OpenZuaPipelinePrunerDump": true,
    "CurrentTempFilePath": "/sys/thermal/t0", "Soc": "KELTA-O1", "NightBokehConcurrencyProcess": false,
    "SupportMDBokeh": true, "SupportBinaryLog": true, "WatermarkDown": true, "SrNodeHaveTwoOutPort": false,
    "JpegPruneNeeded": true, "JsonFileRemap": {"prop": "persist.vendor.camera.remap",
    "prop_brand": "ro.product.brand", "map": [["0", "a.json"], ["1", "b.json"], ["2", "c.json"]]}})",
       {{"persist.vendor.camera.zualgoengine.opendump", "1"},
        {"persist.vendor.camera.zualgoengine.openlifo", "2"},
        {"persist.vendor.camera.zualgoengine.pipelineprunerdump", "0"},
        {"persist.vendor.camera.remap", "1"},
        {"ro.product.brand", "zorvex"}},
       "01101100011101000 str3=/sys/thermal/t0 int7=2 str15=b.json",
       "mOpenEngineImageDump:[1] mOpenLIFO:[2] mNeedUpdateFovCropZoomRatio:[1] "
       "mOpenPipelinePrunerAbnormalDump:[0] mMDBokehOnlyOneSink:[1] mCurrentTempFilePath:[/sys/thermal/t0] "
       "mSocType:[2] SupportMDBokeh:[1] mWatermarkDown:[1] mSrNodeHaveTwoOutPort:[0], "
       "mJpegPruneNeeded:[1],mJsonFileRemap:[b.json]"},
      // Without the flag the file wins; a negative LIFO value is not "on".
      {R"({"OpenLIFO": -1, "OpenEngineImageDump": 1, "Soc": "MT6985-MTK"})",
       {{"persist.vendor.camera.zualgoengine.openlifo", "2"},
        {"persist.vendor.camera.zualgoengine.opendump", "1"},
        {"persist.vendor.camera.zualgoengine.pipelineprunerdump", "1"}},
       "00000010100010000 str3=/sys/class/thermal/thermal_message/board_sensor_temp int7=1",
       "mOpenEngineImageDump:[0] mOpenLIFO:[-1] mNeedUpdateFovCropZoomRatio:[0] "
       "mOpenPipelinePrunerAbnormalDump:[1] mMDBokehOnlyOneSink:[0] "
       "mCurrentTempFilePath:[/sys/class/thermal/thermal_message/board_sensor_temp] mSocType:[1] "
       "SupportMDBokeh:[0] mWatermarkDown:[0] mSrNodeHaveTwoOutPort:[1], "
       "mJpegPruneNeeded:[0],mJsonFileRemap:[]"},
  };
  for (const auto& c : cases) {
    zutest::TempRoot root;
    root.setProps(c.props);
    if (c.settings != nullptr) root.writeFile("odm/etc/camera/zorvex/praxsettings.json", c.settings);
    auto r = zutest::runChild("ZuaInternalProp.ReadOnceAtFirstUse", root);
    EXPECT_EQ(r.exitCode(), 0) << r.output;
    EXPECT_NE(r.output.find("getters: " + c.getters + "\n"), std::string::npos) << r.output;
    // The one summary line, without its "file:line function()" prefix.
    std::vector<std::string> summaries;
    for (const auto& line : zutest::readLines(root.logcatFile())) {
      const size_t at = line.find(" ZuaInternalProp()");
      if (line.rfind("I/ZuAlgoEngine: [AlgoFwk] ZuaSettings.cpp:", 0) == 0 && at != std::string::npos)
        summaries.push_back(line.substr(at + 18));
    }
    EXPECT_EQ(summaries, std::vector<std::string>{c.summary});
  }
}

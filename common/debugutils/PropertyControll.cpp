#include "PropertyControll.h"

#include <cutils/properties.h>

#include <array>
#include <cstring>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include "ZuDebugUtils.h"
#include "ZuSettingsFile.h"

#define DSAC_TAG "PraxDsacSettins"

namespace zudebug {

struct DsacDocument {
  rapidjson::Document doc;
};

namespace {

constexpr const char* kDsacSettingsPath = "/odm/etc/camera/zorvex/DSACSettings.json";

using PropRow = std::array<std::string, 3>;  // indexed by mapindex
using PropTable = std::map<std::string, PropRow>;

// Every DSAC tunable: name in the settings file -> {property, default, type}.
const PropTable& propTable() {
  static const PropTable table = {
      {"enableDSACMoudle", {"persist.vendor.camera.dsac.enableDSACMoudle", "false", "BOOL"}},
      {"enableDSACDebug", {"persist.vendor.camera.dsac.enableDSACDebug", "false", "BOOL"}},
      {"enableTuningMeta", {"persist.vendor.camera.dsac.enableTuningMeta", "false", "BOOL"}},
      {"forceEnableDSACStorage", {"persist.vendor.camera.debug.dsac.forcestorage", "false", "BOOL"}},
      {"enableGalleryComplete", {"persist.vendor.camera.debug.dsac.enableGalleryComplete", "false", "BOOL"}},
      {"enableMomoryStorage", {"persist.vendor.camera.debug.dsac.enableMomoryStorage", "false", "BOOL"}},
      {"noProcessWhenPreview", {"persist.vendor.camera.debug.dsac.noProcessWhenPreview", "false", "BOOL"}},
      {"forceLoadTimeout", {"persist.vendor.camera.debug.dsac.forceLoadTimeout", "30000", "UINT32"}},
      {"UsePropPriority", {"persist.vendor.camera.debug.dsac.UsePropPriority", "false", "BOOL"}},
      {"MFNRMask", {"persist.vendor.camera.dsac.mfnrmask", "0", "UINT32"}},
      {"HDRMask", {"persist.vendor.camera.dsac.hdrmask", "0", "UINT32"}},
      {"SRMask", {"persist.vendor.camera.dsac.srrmask", "0", "UINT32"}},
      {"HDRSRMask", {"persist.vendor.camera.dsac.HDRSRMask", "0", "UINT32"}},
      {"AINRZSLMask", {"persist.vendor.camera.dsac.ainrzslmask", "0", "UINT32"}},
      {"HDSRMask", {"persist.vendor.camera.dsac.hdsrmask", "0", "UINT32"}},
      {"SEMask", {"persist.vendor.camera.dsac.semask", "0", "UINT32"}},
      {"SNSCZSLMask", {"persist.vendor.camera.dsac.snsczslmask", "0", "UINT32"}},
      {"AIOAINRMask", {"persist.vendor.camera.dsac.aioainrmask", "0", "UINT32"}},
      {"HDRBokehMask", {"persist.vendor.camera.dsac.hdrbokehmask", "0", "UINT32"}},
      {"MFNRBokehMask", {"persist.vendor.camera.dsac.mfnrbokehmask", "0", "UINT32"}},
      {"SEBokehMask", {"persist.vendor.camera.dsac.sebokehmask", "0", "UINT32"}},
      {"SRBokehMask", {"persist.vendor.camera.dsac.srbokehmask", "0", "UINT32"}},
      {"HDSRBokehMask", {"persist.vendor.camera.dsac.hdsrbokehmask", "0", "UINT32"}},
      {"SNSCBokehMask", {"persist.vendor.camera.dsac.snscbokehmask", "0", "UINT32"}},
      {"UltraRawMask", {"persist.vendor.camera.dsac.ultrarawmask", "0", "UINT32"}},
      {"HDUltraRawMask", {"persist.vendor.camera.dsac.hdultrarawmask", "0", "UINT32"}},
      {"MfnrBokehMultiNumber", {"persist.vendor.camera.dsac.mfnrbokeh.multinumber", "0", "UINT32"}},
      {"HDRBeautyMask", {"persist.vendor.camera.dsac.HDRBeautyMask", "0", "UINT32"}},
      {"SRBeautyMask", {"persist.vendor.camera.dsac.SRBeautyMask", "0", "UINT32"}},
      {"HDRSRBeautyMask", {"persist.vendor.camera.dsac.HDRSRBeautyMask", "0", "UINT32"}},
      {"MFNRBokehBeautyMask", {"persist.vendor.camera.dsac.MFNRBokehBeautyMask", "0", "UINT32"}},
      {"HDRBokehBeautyMask", {"persist.vendor.camera.dsac.HDRBokehBeautyMask", "0", "UINT32"}},
      {"enableLoadMeta", {"persist.vendor.camera.dsac.enableloadmeta", "false", "BOOL"}},
      {"enableDumpMeta", {"persist.vendor.camera.dsac.enabledumpmeta", "false", "BOOL"}},
      {"enableRealStreamBuffer", {"persist.vendor.camera.dsac.enableRealStreamBuffer", "false", "BOOL"}},
      {"previewListenCnt", {"persist.vendor.camera.dsac.frameReuse.previewListenCnt", "30", "UINT32"}},
      {"SDCardWriteType", {"persist.vendor.camera.dsac.SDCardWriteType", "2", "UINT32"}},
      {"MaxStorageNum", {"persist.vendor.camera.dsac.MaxStorageNum", "50", "UINT32"}},
      {"MinStorageThreshold", {"persist.vendor.camera.dsac.minstorage.threshold", "45", "UINT32"}},
      {"MaxStorageNumForSDSR", {"persist.vendor.camera.dsac.MaxStorageNumForSDSR", "0", "UINT32"}},
      {"MaxStorageNumForHDUltraRaw",
       {"persist.vendor.camera.dsac.MaxStorageNumForHDUltraRaw", "0", "UINT32"}},
      {"MinUfsSpeed", {"persist.vendor.camera.dsac.MinUfsSpeed", "40", "UINT32"}},
      {"WbAvailBufEmptyThMap",
       {"persist.vendor.camera.dsac.WbAvailBufEmptyThMap", "256:5;512:1;1024:1", "STRING"}},
      {"WbAvailBufFile",
       {"persist.vendor.camera.dsac.WbAvailBufFile",
        "/sys/devices/platform/soc/112b0000.ufshci/attributes/wb_avail_buf", "STRING"}},
      {"UfsCapacityFile", {"persist.vendor.camera.dsac.UfsCapacityFile", "/proc/mv", "STRING"}},
      {"BufferStoragerLimitCnt", {"persist.vendor.camera.dsac.BufferStoragerLimitCnt", "8", "UINT32"}},
      {"PSICheckerInterval", {"persist.vendor.camera.dsac.PSICheckerInterval", "5000", "UINT32"}},
      {"PSIMonitorDelayTime", {"persist.vendor.camera.dsac.PSIMonitorDelayTime", "5000", "UINT32"}},
      {"HighTempDelayTime", {"persist.vendor.camera.dsac.HighTempDelayTime", "15000", "UINT32"}},
      {"NormalTempDelayTime", {"persist.vendor.camera.dsac.NormalTempDelayTime", "5000", "UINT32"}},
      {"DelayTimeThermalLevel", {"persist.vendor.camera.dsac.DelayTimeThermalLevel", "1", "UINT32"}},
      {"memoryPoolMaxBufferSize", {"persist.vendor.camera.dsac.memoryPoolMaxBufferSize", "0", "UINT32"}},
      {"numStorageThread", {"persist.vendor.camera.dsac.numStorageThread", "0", "UINT32"}},
  };
  return table;
}

// Built while the library loads, before any host call.
[[maybe_unused]] const PropTable& sPropTable = propTable();

}  // namespace

PraxDsacSettings* PraxDsacSettings::getInstance() {
  static PraxDsacSettings instance(nullptr);
  return &instance;
}

std::unique_ptr<PraxDsacSettings> PraxDsacSettings::fromText(const std::string& text) {
  return std::unique_ptr<PraxDsacSettings>(new PraxDsacSettings(&text));
}

PraxDsacSettings::~PraxDsacSettings() = default;

PraxDsacSettings::PraxDsacSettings(const std::string* text) : mDocument(new DsacDocument) {
  std::string fileText;
  if (text == nullptr) {
    std::string why;
    if (!readSettingsFile(kDsacSettingsPath, &fileText, &why)) {
      ZU_LOGW(DSAC_TAG, ZU_GROUP_HAL, "%s", why.c_str());
      return;
    }
    text = &fileText;
  }

  rapidjson::Document& doc = mDocument->doc;
  // The text is NUL-terminated by std::string; parsing stops at the first NUL. The
  // iterative parser keeps its nesting on the heap, so no depth exhausts the stack.
  doc.Parse<rapidjson::kParseIterativeFlag>(text->c_str());
  if (doc.HasParseError()) {
    ZU_LOGW(DSAC_TAG, ZU_GROUP_HAL, "parse error: (%d:%lu)%s\n", static_cast<int>(doc.GetParseError()),
            static_cast<unsigned long>(doc.GetErrorOffset()),
            rapidjson::GetParseError_En(doc.GetParseError()));
    return;
  }
  if (!doc.IsObject()) {
    ZU_LOGW(DSAC_TAG, ZU_GROUP_HAL, "should be an object!");
    return;
  }
  if (doc.MemberCount() == 0) return;

  // Unlike the camera settings file, a missing flag keeps property priority.
  auto flag = doc.FindMember("UsePropPriority");
  if (flag != doc.MemberEnd()) mUsePropPriority = flag->value.IsTrue();

  for (auto it = doc.MemberBegin(); it != doc.MemberEnd(); ++it) {
    const std::string name(it->name.GetString(), it->name.GetStringLength());
    const rapidjson::Value& value = it->value;
    ZU_LOGD(DSAC_TAG, ZU_GROUP_HAL, "[DSACSettings]parse json object name:%s", name.c_str());
    const std::string type = getPropName(name, TYPE_INDEX);
    if (value.IsInt()) {
      // Only numbers within the signed 32-bit range land here, whatever the declared type.
      if (type.empty()) continue;
      if (type == "UINT32")
        mUint32Map[name] = static_cast<uint32_t>(value.GetInt());
      else if (type == "UINT64")
        mUint64Map[name] = static_cast<uint64_t>(static_cast<int64_t>(value.GetInt()));
      else
        mIntMap[name] = value.GetInt();
      ZU_LOGD(DSAC_TAG, ZU_GROUP_HAL, "[DSACSettings]insert int map:%s", name.c_str());
    } else if (value.IsBool()) {
      mBoolMap[name] = value.IsTrue();
      ZU_LOGD(DSAC_TAG, ZU_GROUP_HAL, "[DSACSettings]insert bool map:%s", name.c_str());
    } else if (value.IsString()) {
      mStringMap[name] = std::string(value.GetString(), value.GetStringLength());
      ZU_LOGD(DSAC_TAG, ZU_GROUP_HAL, "[DSACSettings]insert string map:%s", name.c_str());
    }
    // Fractions, larger numbers, null, arrays and objects are left out.
  }
}

std::string PraxDsacSettings::getPropName(const std::string& name, mapindex index) {
  const PropTable& table = propTable();
  auto it = table.find(name);
  if (it == table.end() || index < PROP_NAME_INDEX || index > TYPE_INDEX) return std::string();
  return it->second[static_cast<size_t>(index)];
}

bool PraxDsacSettings::getPropValue(const char* propName, char* value) {
  if (propName == nullptr || propName[0] == '\0') return false;
  property_get(propName, value, "false");
  return strcmp(value, "false") != 0;
}

}  // namespace zudebug

#include "ZuPraseSettings.h"

#include <cutils/properties.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ZuDebugUtils.h"
#include "ZuSettingsFile.h"

#define SETTINGS_TAG "ZuPraseSettings"
#define SETTINGS_GROUP 1u

namespace zudebug {

namespace {

constexpr const char* kSettingsPath = "/odm/etc/camera/zorvex/praxsettings.json";

// Files nested deeper than this are parsed without recursion, so that a hostile
// file cannot exhaust the stack; ordinary files keep the recursive parser.
constexpr int kMaxRecursiveDepth = 512;

bool nestedDeeperThan(const char* text, int limit) {
  int depth = 0;
  bool inString = false;
  for (const char* p = text; *p != '\0'; ++p) {
    if (inString) {
      if (*p == '\\') {
        if (p[1] == '\0') break;
        ++p;
      } else if (*p == '"') {
        inString = false;
      }
    } else if (*p == '"') {
      inString = true;
    } else if (*p == '[' || *p == '{') {
      if (++depth > limit) return true;
    } else if ((*p == ']' || *p == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

bool isDecimalDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Digits of `text` (all valid in `base`) as a non-negative int32; -1 when there are
// none or the value does not fit.
int32_t convertDigits(const char* text, int base) {
  if (*text == '\0') return -1;
  int64_t value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    value = value * base + hexValue(*p);
    if (value > INT32_MAX) return -1;
  }
  return static_cast<int32_t>(value);
}

// Property text to integer: "0x" + hex digits, decimal digits, or bare hex digits
// (so "10" is ten and "ff" is 255). No sign. -1 for anything else.
int32_t propTextToInt(const char* text) {
  if (text[0] == '\0') return -1;
  if (text[0] == '0' && text[1] == 'x') {
    for (const char* p = text + 2; *p != '\0'; ++p)
      if (hexValue(*p) < 0) return -1;
    return convertDigits(text + 2, 16);
  }
  bool decimal = true;
  bool hex = true;
  for (const char* p = text; *p != '\0'; ++p) {
    decimal = decimal && isDecimalDigit(*p);
    hex = hex && hexValue(*p) >= 0;
  }
  if (decimal) return convertDigits(text, 10);
  if (hex) return convertDigits(text, 16);
  return -1;
}

// Decimal text to int as the C library reads it; any non-zero number is true.
bool propTextToBool(const char* text) { return strtoll(text, nullptr, 10) != 0; }

const char* intKey(SettingMask mask) {
  switch (mask) {
    case OFFLINE_DEBUG_MASK:
      return "offlinedebugmask";
    case OPEN_LIFO:
      return "OpenLIFO";
    case SOC_TYPE:
      return "Soc";
    case LOG_GROUPS_ENABLE:
      return "Prax3LogGroupsEnable";
    default:
      return nullptr;
  }
}

const char* boolKey(SettingMask mask) {
  switch (mask) {
    case OPEN_ENGINE_IMAGE_DUMP:
      return "OpenEngineImageDump";
    case NEED_UPDATE_FOV_CROP_ZOOM_RATIO:
      return "NeedUpdateFovCropZoomRatio";
    case MD_BOKEH_ONLY_ONE_SINK:
      return "MDBokehOnlyOneSink";
    case OPEN_PIPELINE_PRUNER_DUMP:
      return "OpenZuaPipelinePrunerDump";
    case NIGHT_BOKEH_CONCURRENCY_PROCESS:
      return "NightBokehConcurrencyProcess";
    case SUPPORT_MD_BOKEH:
      return "SupportMDBokeh";
    case SUPPORT_BINARY_LOG:
      return "SupportBinaryLog";
    case WATERMARK_DOWN:
      return "WatermarkDown";
    case SR_NODE_HAVE_TWO_OUT_PORT:
      return "SrNodeHaveTwoOutPort";
    case JPEG_PRUNE_NEEDED:
      return "JpegPruneNeeded";
    default:
      return nullptr;
  }
}

// First root member named exactly `key`, or null.
const rapidjson::Value* findMember(const rapidjson::Value& root, const char* key) {
  auto it = root.FindMember(key);
  return it == root.MemberEnd() ? nullptr : &it->value;
}

bool equalsText(const rapidjson::Value& v, const char* text) {
  size_t len = strlen(text);
  return v.GetStringLength() == len && memcmp(v.GetString(), text, len) == 0;
}

}  // namespace

struct ZuPraseSettings::Document {
  rapidjson::Document doc;
  Document() { doc.SetObject(); }
};

ZuPraseSettings* ZuPraseSettings::getInstance() {
  static ZuPraseSettings instance(kSettingsPath);
  return &instance;
}

ZuPraseSettings::ZuPraseSettings(const char* path) : mDocument(new Document()) {
  mUsePropPriority = true;
  if (path == nullptr) path = "";
  std::string text, why;
  if (!readSettingsFile(path, &text, &why)) {
    ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "%s", why.c_str());
    return;
  }
  const char* buffer = text.c_str();

  // The text ends at its first NUL, as a C string does.
  rapidjson::Document& doc = mDocument->doc;
  if (nestedDeeperThan(buffer, kMaxRecursiveDepth))
    doc.Parse<rapidjson::kParseIterativeFlag>(buffer);
  else
    doc.Parse(buffer);
  if (doc.HasParseError()) {
    ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "parse error: (%d:%lu)%s\n", static_cast<int>(doc.GetParseError()),
            static_cast<unsigned long>(doc.GetErrorOffset()),
            rapidjson::GetParseError_En(doc.GetParseError()));
    doc.SetObject();
    return;
  }
  if (!doc.IsObject()) {
    ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "should be an object!");
    doc.SetObject();
    return;
  }
  const rapidjson::Value* prio = findMember(doc, "UsePropPriority");
  mUsePropPriority = prio != nullptr && prio->IsTrue();
}

ZuPraseSettings::~ZuPraseSettings() = default;

bool ZuPraseSettings::getPropValue(const char* propName, char* value) {
  if (propName == nullptr || propName[0] == '\0') return false;
  property_get(propName, value, "false");
  return strcmp(value, "false") != 0;
}

int32_t ZuPraseSettings::getIntFromSettingInfo(SettingMask mask, int32_t defaultValue, const char* propName) {
  const rapidjson::Value& root = mDocument->doc;
  auto fromFile = [&root, mask](int32_t* out) -> bool {
    const char* key = intKey(mask);
    if (key == nullptr) return false;
    const rapidjson::Value* v = findMember(root, key);
    if (mask == SOC_TYPE) {
      if (v == nullptr) {
        ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "%s is not find in praxsettings.json", key);
        return false;
      }
      if (!v->IsString()) {
        ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "%s is not a string in praxsettings.json", key);
        return false;
      }
      const char* soc = v->GetString();
      *out = strstr(soc, "MTK") != nullptr ? 1 : strstr(soc, "KELTA") != nullptr ? 2 : 0;
      return true;
    }
    if (v == nullptr) {
      ZU_LOGI(SETTINGS_TAG, SETTINGS_GROUP, "%s is not find in praxsettings.json", key);
      return false;
    }
    if (!v->IsInt()) {
      ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "%s is not an int32 in praxsettings.json", key);
      return false;
    }
    *out = v->GetInt();
    return true;
  };

  char prop[PROPERTY_VALUE_MAX];
  int32_t fileValue = 0;
  if (mUsePropPriority) {
    if (getPropValue(propName, prop)) {
      int32_t num = propTextToInt(prop);
      if (num == -1) {
        __android_log_print(ANDROID_LOG_ERROR, SETTINGS_TAG, "Error, Prop propName(%s) Invalid prop(%s)",
                            propName, prop);
        return defaultValue;
      }
      __android_log_print(ANDROID_LOG_INFO, SETTINGS_TAG, "Prop propName(%s) prop(%s) propNum(%d)", propName,
                          prop, num);
      return num;
    }
    return fromFile(&fileValue) ? fileValue : defaultValue;
  }
  if (fromFile(&fileValue)) return fileValue;
  if (!getPropValue(propName, prop)) return defaultValue;
  int32_t num = propTextToInt(prop);
  if (num == -1) {
    __android_log_print(ANDROID_LOG_ERROR, SETTINGS_TAG, "Error, propName(%s) Invalid prop(%s)", propName,
                        prop);
    return defaultValue;
  }
  __android_log_print(ANDROID_LOG_INFO, SETTINGS_TAG, "propName(%s) prop(%s) propNum(%d)", propName, prop,
                      num);
  return num;
}

bool ZuPraseSettings::getBoolFromSettingInfo(SettingMask mask, bool defaultValue, const char* propName) {
  const rapidjson::Value& root = mDocument->doc;
  auto fromFile = [&root, mask](bool* out) -> bool {
    const char* key = boolKey(mask);
    if (key == nullptr) return false;
    const rapidjson::Value* v = findMember(root, key);
    if (v == nullptr) {
      ZU_LOGI(SETTINGS_TAG, SETTINGS_GROUP, "%s is not find in praxsettings.json", key);
      return false;
    }
    // Only the literal true is true; any other value still counts as found.
    *out = v->IsTrue();
    return true;
  };

  char prop[PROPERTY_VALUE_MAX];
  bool fileValue = false;
  if (mUsePropPriority) {
    if (getPropValue(propName, prop)) return propTextToBool(prop);
    return fromFile(&fileValue) ? fileValue : defaultValue;
  }
  if (fromFile(&fileValue)) return fileValue;
  if (getPropValue(propName, prop)) return propTextToBool(prop);
  return defaultValue;
}

std::string ZuPraseSettings::getStrFromSettingInfo(SettingMask mask, const std::string& defaultValue) {
  if (mask == CURRENT_TEMP_FILE_PATH) {
    const rapidjson::Value* v = findMember(mDocument->doc, "CurrentTempFilePath");
    if (v == nullptr) {
      ZU_LOGI(SETTINGS_TAG, SETTINGS_GROUP, "CurrentTempFilePath is not find in praxsettings.json");
      return defaultValue;
    }
    if (!v->IsString()) {
      ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "CurrentTempFilePath is not a string in praxsettings.json");
      return defaultValue;
    }
    return std::string(v->GetString(), v->GetStringLength());
  }
  if (mask == JSON_FILE_REMAP) return remapJsonFile(defaultValue);
  return defaultValue;
}

// "JsonFileRemap": {"prop": name, "prop_brand": name, "map": [[selector, result], ...]}.
// The row whose selector equals the "prop" property gives the result; on a "TOVA"
// device with selector "1" the third row's result is taken instead.
std::string ZuPraseSettings::remapJsonFile(const std::string& defaultValue) const {
  const rapidjson::Value* remap = findMember(mDocument->doc, "JsonFileRemap");
  if (remap == nullptr) return defaultValue;
  if (!remap->IsObject()) {
    ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "JsonFileRemap is not an object in praxsettings.json");
    return defaultValue;
  }
  char propName[PROPERTY_VALUE_MAX];
  char brandName[PROPERTY_VALUE_MAX];
  const struct {
    const char* member;
    char* out;
  } names[] = {{"prop", propName}, {"prop_brand", brandName}};
  for (const auto& n : names) {
    const rapidjson::Value* v = findMember(*remap, n.member);
    if (v == nullptr || !v->IsString()) {
      ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "JsonFileRemap.%s is missing or not a string", n.member);
      return defaultValue;
    }
    size_t len = v->GetStringLength();
    if (len >= PROPERTY_VALUE_MAX || strlen(v->GetString()) != len) {
      ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "JsonFileRemap.%s is not a property name (length %zu)", n.member,
              len);
      return defaultValue;
    }
    memcpy(n.out, v->GetString(), len + 1);
  }

  char propValue[PROPERTY_VALUE_MAX];
  char brandValue[PROPERTY_VALUE_MAX];
  property_get(propName, propValue, "0");
  property_get(brandName, brandValue, "");

  const rapidjson::Value* map = findMember(*remap, "map");
  if (map == nullptr) return defaultValue;
  if (!map->IsArray()) {
    ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "JsonFileRemap.map is not an array");
    return defaultValue;
  }
  if (map->Empty()) return defaultValue;
  for (rapidjson::SizeType i = 0; i < map->Size(); ++i) {
    const rapidjson::Value& row = (*map)[i];
    if (!row.IsArray() || row.Size() < 2 || !row[0].IsString() || !row[1].IsString()) {
      ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "JsonFileRemap.map row %u is not a pair of strings", i);
      return defaultValue;
    }
  }
  for (const rapidjson::Value& row : map->GetArray()) {
    if (!equalsText(row[0], propValue)) continue;
    const rapidjson::Value* result = &row[1];
    if (strcmp(propValue, "1") == 0 && strcmp(brandValue, "TOVA") == 0) {
      if (map->Size() < 3) {
        ZU_LOGE(SETTINGS_TAG, SETTINGS_GROUP, "JsonFileRemap.map needs a third row for brand TOVA, has %u",
                map->Size());
        return defaultValue;
      }
      result = &(*map)[2][1];
    }
    return std::string(result->GetString(), result->GetStringLength());
  }
  return defaultValue;
}

}  // namespace zudebug

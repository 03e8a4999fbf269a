#include "ZuPraseSettings.h"

namespace zudebug {

ZuPraseSettings* ZuPraseSettings::getInstance() {
  static ZuPraseSettings instance;
  return &instance;
}

ZuPraseSettings::ZuPraseSettings() {}

int32_t ZuPraseSettings::getIntFromSettingInfo(SettingMask, int32_t defaultValue, const char*) {
  return defaultValue;
}
bool ZuPraseSettings::getBoolFromSettingInfo(SettingMask, bool defaultValue, const char*) {
  return defaultValue;
}
std::string ZuPraseSettings::getStrFromSettingInfo(SettingMask, const std::string& defaultValue) {
  return defaultValue;
}
bool ZuPraseSettings::getPropValue(const char*, char*) { return false; }

}  // namespace zudebug

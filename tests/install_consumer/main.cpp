// Uses the installed headers and library the way a camera module would.
#include <ZuDebugUtils.h>
#include <ZuPraseSettings.h>

#include <cstdio>
#include <cstring>

int main() {
  zudebug::ZuPraseSettings* settings = zudebug::ZuPraseSettings::getInstance();
  int groups = settings->getIntFromSettingInfo(zudebug::LOG_GROUPS_ENABLE, 54911, "");
  ZU_GLOGI(zudebug::ZU_GROUP_HAL, "groups 0x%x", static_cast<unsigned>(groups));
  if (std::strcmp(zudebug::Log::zuaGroupToString(zudebug::ZU_GROUP_HAL), "[HAL ]") != 0) return 1;
  std::printf("consumer ok: groups %d\n", groups);
  return 0;
}

// Feeds arbitrary bytes to the settings reader as its settings file, then asks
// every setting through every reader.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ZuPraseSettings.h"

using zudebug::SettingMask;
using zudebug::ZuPraseSettings;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = [] {
    char tmpl[] = "/tmp/settings_fuzz-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) abort();
    close(fd);
    return std::string(tmpl);
  }();
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) abort();
  fwrite(data, 1, size, f);
  fclose(f);

  ZuPraseSettings settings(path.c_str());
  for (int m = -1; m <= 16; ++m) {
    auto mask = static_cast<SettingMask>(m);
    settings.getIntFromSettingInfo(mask, 7, "fuzz.int");
    settings.getBoolFromSettingInfo(mask, true, "");
    settings.getStrFromSettingInfo(mask, "default");
  }
  return 0;
}

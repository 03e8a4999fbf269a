// Whole-file reading shared by the two settings readers (internal, not installed):
// their size limit and the line that tells why a file was not taken.
#pragma once

#include <zudebug_platform/device_files.h>

#include <string>
#include <utility>

namespace zudebug {

// A settings file above 1 MiB is refused, its size read before its content, and the
// defaults are used: real files are a few KB.
constexpr long long kMaxSettingsFileBytes = 1024 * 1024LL;

// The whole settings file at device path `path` into `text`; false when it is not
// taken, with the line to log in `why`.
inline bool readSettingsFile(const char* path, std::string* text, std::string* why) {
  devfs::FileText file = devfs::readFile(path, static_cast<size_t>(kMaxSettingsFileBytes));
  const std::string name = path;
  switch (file.status) {
    case devfs::ReadStatus::Ok:
      *text = std::move(file.text);
      return true;
    case devfs::ReadStatus::Missing:
      *why = "open failed! file: " + name;
      return false;
    case devfs::ReadStatus::Error:
      *why = "fstat failed! file: " + name;
      return false;
    case devfs::ReadStatus::TooLarge:
      if (file.size >= 0)
        *why = "file too large! file: " + name + " size: " + std::to_string(file.size) + ", more than the " +
               std::to_string(kMaxSettingsFileBytes) + " allowed: defaults used";
      else
        *why = "file too large! file: " + name + " grew past the " + std::to_string(kMaxSettingsFileBytes) +
               " bytes allowed: defaults used";
      return false;
  }
  return false;
}

}  // namespace zudebug

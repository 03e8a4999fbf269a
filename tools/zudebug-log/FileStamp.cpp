#include "FileStamp.h"

#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace zulog {

// Howard Hinnant's days-from-civil.
int64_t civilDay(int year, int month, int day) {
  const int64_t y = static_cast<int64_t>(year) - (month <= 2 ? 1 : 0);
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t mp = (month + 9) % 12;
  const int64_t doy = (153 * mp + 2) / 5 + day - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civilFromDay(int64_t days, int* year, int* month, int* day) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const int64_t doe = days - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  const int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *year = static_cast<int>(yoe + era * 400 + (m <= 2 ? 1 : 0));
  *month = m;
  *day = d;
}

int64_t NameStamp::wall() const {
  return wallNanos(civilDay(year, month, day), hour * 3600 + minute * 60 + second, micros * 1000LL);
}

namespace {

std::string baseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::optional<NameStamp> parseNameStamp(const std::string& path) {
  const std::string name = baseName(path);
  if (name.compare(0, 6, "ZuCam_") != 0) return std::nullopt;
  const size_t typeEnd = name.find('_', 6);
  if (typeEnd == std::string::npos) return std::nullopt;
  NameStamp s{};
  int used = 0;
  // The same fields the logger prints: "%2d-%02d-%02d--%02d-%02d-%02d-%03ld".
  if (sscanf(name.c_str() + typeEnd + 1, "%4d-%2d-%2d--%2d-%2d-%2d-%7ld%n", &s.year, &s.month, &s.day,
             &s.hour, &s.minute, &s.second, &s.micros, &used) != 7)
    return std::nullopt;
  const size_t end = typeEnd + 1 + static_cast<size_t>(used);
  if (end >= name.size() || name[end] != '.') return std::nullopt;
  if (s.year < 1900 || s.month < 1 || s.month > 12 || s.day < 1 || s.day > 31 || s.hour < 0 || s.hour > 23 ||
      s.minute < 0 || s.minute > 59 || s.second < 0 || s.second > 60 || s.micros < 0 || s.micros > 999999)
    return std::nullopt;
  return s;
}

bool isErrorInfoName(const std::string& path) {
  const std::string name = baseName(path);
  static const char kSuffix[] = "_PraxErrorInfoDump.txt";
  const size_t n = sizeof(kSuffix) - 1;
  return name.size() >= n && name.compare(name.size() - n, n, kSuffix) == 0;
}

DirectoryListing listOfflineDirectory(const std::string& dir) {
  DirectoryListing out;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) {
    out.readable = false;
    return out;
  }
  std::vector<std::pair<int64_t, std::string>> logs;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (isErrorInfoName(name)) {
      out.errorInfo = path;
      continue;
    }
    if (name.size() < 4 || name.compare(name.size() - 4, 4, ".txt") != 0) continue;
    if (auto stamp = parseNameStamp(name)) logs.emplace_back(stamp->wall(), path);
  }
  closedir(d);
  std::sort(logs.begin(), logs.end());
  for (auto& l : logs) out.logs.push_back(std::move(l.second));
  return out;
}

YearResolver::YearResolver(int anchorYear, int anchorMonth, int anchorDay, int daysBefore) {
  const int64_t anchor = civilDay(anchorYear, anchorMonth, anchorDay);
  for (int m = 1; m <= 12; ++m) {
    for (int d = 1; d <= 31; ++d) {
      int year = anchorYear + 1;
      for (int candidate = anchorYear - 1; candidate <= anchorYear + 1; ++candidate) {
        if (civilDay(candidate, m, d) - anchor >= -daysBefore) {
          year = candidate;
          break;
        }
      }
      mYears[m][d] = year;
      mDays[m][d] = civilDay(year, m, d);
    }
  }
}

}  // namespace zulog

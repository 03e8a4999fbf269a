// Offline file names and the full date of a line.
//
// A log file is named "ZuCam_<type>_<YYYY>-<MM>-<DD>--<hh>-<mm>-<ss>-<us>.txt" after the
// local time it was opened (the last field is the microseconds of that second, without
// leading zeros beyond three digits). Its lines carry month and day only; the year comes
// from the name.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace zulog {

// Days since 1970-01-01 of a proleptic Gregorian date (any day 1-31 is accepted and
// counted on: 02-30 is 03-02).
int64_t civilDay(int year, int month, int day);
// The inverse: year, month (1-12) and day of a day count.
void civilFromDay(int64_t days, int* year, int* month, int* day);

constexpr int64_t kNanosPerSecond = 1000000000LL;
constexpr int64_t kNanosPerDay = 86400LL * kNanosPerSecond;

// A local date and time as nanoseconds since 1970-01-01 00:00 of the same wall clock.
// The device writes local time without its zone, so lines compare as wall-clock times.
inline int64_t wallNanos(int64_t day, int secondOfDay, int64_t nanos) {
  return day * kNanosPerDay + secondOfDay * kNanosPerSecond + nanos;
}

struct NameStamp {
  int year, month, day, hour, minute, second;
  long micros;
  int64_t wall() const;  // as wallNanos
};

// The stamp of a log file's name (the directory part is ignored), if it has one.
std::optional<NameStamp> parseNameStamp(const std::string& path);

// The offline text files of a directory: the time-stamped ".txt" logs, oldest first,
// and the error-information file if there is one (last). Everything else is left out.
struct DirectoryListing {
  std::vector<std::string> logs;
  std::string errorInfo;  // empty when absent
  bool readable = true;
};
DirectoryListing listOfflineDirectory(const std::string& dir);

// True for the error-information file, which repeats the error lines of the logs
// with an empty line after each.
bool isErrorInfoName(const std::string& path);

// Gives each month-day the year that puts it in a window around an anchor: the
// earliest year in which the date is no more than `daysBefore` days before the anchor.
// For a log file the anchor is the time in its name: its lines were logged after it
// was opened, or shortly before (lines wait in memory until the flush that opens the
// file, and a dead process's lines are written by the next start), so a line whose
// month-day is earlier than the file's start belongs to the next year unless it lies
// within those days before the start.
class YearResolver {
 public:
  static constexpr int kLogDaysBefore = 31;
  YearResolver() = default;
  YearResolver(int anchorYear, int anchorMonth, int anchorDay, int daysBefore);
  // Day count (civilDay) of the month-day; month 1-12, day 1-31.
  int64_t dayOf(int month, int day) const { return mDays[month][day]; }
  int yearOf(int month, int day) const { return mYears[month][day]; }

 private:
  int64_t mDays[13][32] = {};
  int mYears[13][32] = {};
};

}  // namespace zulog

// The line filters of the merge: time window, severity, group, process, thread, text.
#pragma once

#include <regex.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "Merge.h"

namespace zulog {

// A point in time given on the command line: a full date and time, a month-day and
// time (as the lines print it), or a time of day; the last two are placed by the
// earliest line read.
struct TimeArg {
  enum class Form { Full, MonthDay, TimeOfDay } form = Form::Full;
  int year = 0, month = 0, day = 0;
  int secondOfDay = 0;
  int64_t nanos = 0;
  // Wall-clock nanoseconds, the month-day or time of day taken after `earliest`.
  int64_t resolve(int64_t earliest) const;
};
// "2024-03-07 09:15:02.5", "2024-03-07T09:15", "03-07 09:15:02:123456789", "09:15:02".
std::optional<TimeArg> parseTimeArg(const std::string& text);

class Filter : public LineFilter {
 public:
  Filter() = default;
  ~Filter() override;
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  // Each returns an error message, empty when the argument is good.
  std::string setSince(const std::string& text);
  std::string setUntil(const std::string& text);
  // Letters of severities ("EW", "E,W"), or one letter and "+" for it and above ("W+").
  std::string setLevels(const std::string& text);
  // A tag ("ZuCamHAL") or a label, with or without brackets ("[HAL ]", "HAL").
  void addGroup(const std::string& text);
  std::string addPid(const std::string& text);
  std::string addTid(const std::string& text);
  std::string setGrep(const std::string& pattern);

  bool active() const;
  void start(int64_t earliest) override;
  bool keep(const MergedLine& line) override;
  bool pastEnd(int64_t key) const override { return mHasUntil && key > mUntil; }

 private:
  std::optional<TimeArg> mSinceArg, mUntilArg;
  bool mHasSince = false, mHasUntil = false;
  int64_t mSince = 0, mUntil = 0;
  std::string mLevels;
  std::vector<std::string> mGroups;
  std::vector<int> mPids, mTids;
  bool mHasGrep = false;
  regex_t mGrep;
  std::string mScratch;
};

}  // namespace zulog

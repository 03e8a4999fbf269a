#include "Filter.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "FileStamp.h"

namespace zulog {

namespace {

// Reads exactly `n` digits.
bool digits(const char*& p, int n, int* value) {
  int v = 0;
  for (int i = 0; i < n; ++i) {
    if (p[i] < '0' || p[i] > '9') return false;
    v = v * 10 + (p[i] - '0');
  }
  p += n;
  *value = v;
  return true;
}

// "hh:mm[:ss[(.|:)fraction]]" to the end of the text.
bool parseClock(const char* p, int* secondOfDay, int64_t* nanos) {
  int h, m, s = 0;
  if (!digits(p, 2, &h) || *p++ != ':' || !digits(p, 2, &m)) return false;
  *nanos = 0;
  if (*p == ':') {
    ++p;
    if (!digits(p, 2, &s)) return false;
    if (*p == '.' || *p == ':') {
      ++p;
      int64_t scale = 100000000;
      if (*p < '0' || *p > '9') return false;
      for (; *p >= '0' && *p <= '9'; ++p) {
        *nanos += (*p - '0') * scale;
        scale /= 10;
      }
    }
  }
  if (*p != '\0' || h > 23 || m > 59 || s > 60) return false;
  *secondOfDay = h * 3600 + m * 60 + s;
  return true;
}

const char* const kLevelOrder = "VDIWEF";  // least to most severe

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    if (comma > start) out.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  return out;
}

std::string addIds(const std::string& text, const char* what, std::vector<int>* ids) {
  std::vector<std::string> parts = splitList(text);
  if (parts.empty()) return std::string("--") + what + " needs a number";
  for (const std::string& part : parts) {
    char* end = nullptr;
    errno = 0;
    long v = strtol(part.c_str(), &end, 10);
    if (end == part.c_str() || *end != '\0' || errno != 0 || v < 0 || v > 0x7fffffff)
      return std::string("--") + what + ": not a number: " + part;
    ids->push_back(static_cast<int>(v));
  }
  return "";
}

std::string_view trimLabel(std::string_view label) {
  if (label.size() >= 2 && label.front() == '[' && label.back() == ']')
    label = label.substr(1, label.size() - 2);
  while (!label.empty() && label.back() == ' ') label.remove_suffix(1);
  return label;
}

}  // namespace

std::optional<TimeArg> parseTimeArg(const std::string& text) {
  TimeArg t;
  const char* p = text.c_str();
  const char* clock = nullptr;
  if (text.size() >= 10 && text[4] == '-' && text[7] == '-') {
    t.form = TimeArg::Form::Full;
    if (!digits(p, 4, &t.year) || *p++ != '-' || !digits(p, 2, &t.month) || *p++ != '-' ||
        !digits(p, 2, &t.day))
      return std::nullopt;
    if (*p == '\0') {
      clock = "00:00";
    } else if (*p == ' ' || *p == 'T') {
      clock = p + 1;
    } else {
      return std::nullopt;
    }
  } else if (text.size() >= 5 && text[2] == '-') {
    t.form = TimeArg::Form::MonthDay;
    if (!digits(p, 2, &t.month) || *p++ != '-' || !digits(p, 2, &t.day) || *p++ != ' ') return std::nullopt;
    clock = p;
  } else {
    t.form = TimeArg::Form::TimeOfDay;
    clock = p;
  }
  if (t.form != TimeArg::Form::TimeOfDay && (t.month < 1 || t.month > 12 || t.day < 1 || t.day > 31))
    return std::nullopt;
  if (!parseClock(clock, &t.secondOfDay, &t.nanos)) return std::nullopt;
  return t;
}

int64_t TimeArg::resolve(int64_t earliest) const {
  int64_t dayNumber;
  if (form == Form::Full) {
    dayNumber = civilDay(year, month, day);
  } else {
    int64_t firstDay = earliest >= 0 ? earliest / kNanosPerDay : (earliest - kNanosPerDay + 1) / kNanosPerDay;
    if (form == Form::TimeOfDay) {
      dayNumber = firstDay;
    } else {
      int y, m, d;
      civilFromDay(firstDay, &y, &m, &d);
      dayNumber = YearResolver(y, m, d, 0).dayOf(month, day);
    }
  }
  return wallNanos(dayNumber, secondOfDay, nanos);
}

Filter::~Filter() {
  if (mHasGrep) regfree(&mGrep);
}

std::string Filter::setSince(const std::string& text) {
  mSinceArg = parseTimeArg(text);
  return mSinceArg ? "" : "--since: not a time: " + text;
}

std::string Filter::setUntil(const std::string& text) {
  mUntilArg = parseTimeArg(text);
  return mUntilArg ? "" : "--until: not a time: " + text;
}

std::string Filter::setLevels(const std::string& text) {
  std::string letters;
  for (char c : text)
    if (c != ',' && c != ' ') letters += static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  if (letters.size() == 2 && letters[1] == '+') {
    const char* at = strchr(kLevelOrder, letters[0]);
    if (at == nullptr || letters[0] == '\0') return "--level: unknown severity " + letters.substr(0, 1);
    mLevels += at;
    return "";
  }
  if (letters.empty()) return "--level needs severity letters (F E W I D V)";
  for (char c : letters) {
    if (strchr(kLevelOrder, c) == nullptr || c == '\0') return std::string("--level: unknown severity ") + c;
    mLevels += c;
  }
  return "";
}

void Filter::addGroup(const std::string& text) {
  for (const std::string& g : splitList(text)) mGroups.push_back(g);
}

std::string Filter::addPid(const std::string& text) { return addIds(text, "pid", &mPids); }
std::string Filter::addTid(const std::string& text) { return addIds(text, "tid", &mTids); }

std::string Filter::setGrep(const std::string& pattern) {
  if (mHasGrep) regfree(&mGrep);
  const int rc = regcomp(&mGrep, pattern.c_str(), REG_EXTENDED | REG_NOSUB);
  if (rc != 0) {
    char msg[256];
    regerror(rc, &mGrep, msg, sizeof(msg));
    mHasGrep = false;
    return "--grep: " + std::string(msg);
  }
  mHasGrep = true;
  return "";
}

bool Filter::active() const {
  return mSinceArg || mUntilArg || !mLevels.empty() || !mGroups.empty() || !mPids.empty() || !mTids.empty() ||
         mHasGrep;
}

void Filter::start(int64_t earliest) {
  if (mSinceArg) {
    mSince = mSinceArg->resolve(earliest);
    mHasSince = true;
  }
  if (mUntilArg) {
    mUntil = mUntilArg->resolve(earliest);
    mHasUntil = true;
  }
}

bool Filter::keep(const MergedLine& line) {
  if (line.stamp == nullptr) return !active();  // before the first stamped line of its file
  const Stamp& s = *line.stamp;
  if (mHasSince && line.key < mSince) return false;
  if (mHasUntil && line.key > mUntil) return false;
  if (!mLevels.empty() && mLevels.find(s.level) == std::string::npos) return false;
  if (!mPids.empty() && std::find(mPids.begin(), mPids.end(), s.pid) == mPids.end()) return false;
  if (!mTids.empty() && std::find(mTids.begin(), mTids.end(), s.tid) == mTids.end()) return false;
  if (!mGroups.empty()) {
    LogLine parsed;
    parseLine(line.text, &parsed);
    const std::string_view label = trimLabel(parsed.label);
    bool found = false;
    for (const std::string& g : mGroups) {
      if ((parsed.hasTag && parsed.tag == g) ||
          (parsed.hasLabel && (parsed.label == g || label == trimLabel(g)))) {
        found = true;
        break;
      }
    }
    if (!found) return false;
  }
  if (mHasGrep) {
    mScratch.assign(line.text.data(), line.text.size());
    if (regexec(&mGrep, mScratch.c_str(), 0, nullptr, 0) != 0) return false;
  }
  return true;
}

}  // namespace zulog

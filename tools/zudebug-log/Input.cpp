#include "Input.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace zulog {

InputSet::~InputSet() {
  for (InputFile& f : mFiles)
    if (f.fd >= 0) close(f.fd);
}

void InputSet::add(const std::string& path, InputProblems& problems) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    problems.messages.push_back(path + ": " + strerror(errno));
    problems.failed = true;
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    addFile(path, false, problems);
    return;
  }
  DirectoryListing listing = listOfflineDirectory(path);
  if (!listing.readable) {
    problems.messages.push_back(path + ": cannot list the directory");
    problems.failed = true;
    return;
  }
  if (listing.logs.empty() && listing.errorInfo.empty())
    problems.messages.push_back(path + ": no offline log files (ZuCam_<type>_<time>.txt) in it");
  for (const std::string& f : listing.logs) addFile(f, true, problems);
  if (!listing.errorInfo.empty()) addFile(listing.errorInfo, true, problems);
}

void InputSet::addFile(const std::string& path, bool fromDirectory, InputProblems& problems) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) {
    problems.messages.push_back(path + ": " + strerror(errno));
    problems.failed = true;
    if (fd >= 0) close(fd);
    return;
  }
  if (!S_ISREG(st.st_mode)) {
    problems.messages.push_back(path + ": not a regular file; skipped");
    close(fd);
    return;
  }
  const std::pair<uint64_t, uint64_t> id(st.st_dev, st.st_ino);
  if (std::find(mSeen.begin(), mSeen.end(), id) != mSeen.end()) {
    close(fd);  // named twice (on its own and in its directory): read once
    return;
  }
  mSeen.push_back(id);
  InputFile f;
  f.path = path;
  f.fd = fd;
  f.size = static_cast<uint64_t>(st.st_size);
  f.errorInfo = isErrorInfoName(path);
  f.order = static_cast<int>(mFiles.size());
  if (auto stamp = parseNameStamp(path)) {
    f.years = YearResolver(stamp->year, stamp->month, stamp->day, YearResolver::kLogDaysBefore);
  } else {
    // Without a stamp the last change dates the file: its lines are older.
    struct tm tm;
    time_t mtime = st.st_mtim.tv_sec;
    if (localtime_r(&mtime, &tm) == nullptr) tm = {};
    f.years = YearResolver(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, 364);
    if (!fromDirectory && !f.errorInfo)
      problems.messages.push_back(path + ": no time stamp in its name; year " +
                                  std::to_string(tm.tm_year + 1900) + " from its last change");
  }
  mFiles.push_back(std::move(f));
}

void InputSet::finish() {
  std::stable_partition(mFiles.begin(), mFiles.end(), [](const InputFile& f) { return !f.errorInfo; });
  for (size_t i = 0; i < mFiles.size(); ++i) mFiles[i].order = static_cast<int>(i);
}

}  // namespace zulog

#include "ZuLogFileOrder.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zudebug_platform/device_files.h>
#include <zudebug_platform/fs.h>

namespace zudebug {
namespace logorder {

namespace {

constexpr size_t kCompactAt = 64 * 1024;

bool appendPath(char* out, size_t size, const char* dir, const char* name) {
  const size_t d = strlen(dir), n = strlen(name);
  if (d + 1 + n + 1 > size) return false;
  memcpy(out, dir, d);
  out[d] = '/';
  memcpy(out + d + 1, name, n + 1);
  return true;
}

}  // namespace

void note(const char* dir, const char* name, bool evidence) {
  char buf[PLATFORM_PATH_MAX];
  const char* resolved = platform_resolve_path(dir, buf, sizeof(buf));
  if (resolved != nullptr) noteIn(resolved, name, evidence);
}

void noteIn(const char* hostDir, const char* name, bool evidence) {
  const char* dir = hostDir;
  char path[PLATFORM_PATH_MAX];
  char line[512];
  const size_t n = strlen(name);
  if (!appendPath(path, sizeof(path), dir, kOrderFileName) || n + 2 > sizeof(line) || strchr(name, '\n'))
    return;
  size_t len = 0;
  if (evidence) line[len++] = '!';
  memcpy(line + len, name, n);
  len += n;
  line[len++] = '\n';
  // Not through devfs: the path is the one this build opens already.
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0660);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || (st.st_uid != geteuid() && st.st_gid != getegid())) {
    close(fd);
    return;
  }
  // One write: appends of several processes do not interleave within a line.
  if (write(fd, line, len) < 0) {
    // Nothing to be done: the file is then ordered by the time in its name.
  }
  close(fd);
}

std::map<std::string, Entry> read(const char* dir, const std::set<std::string>& existing) {
  std::map<std::string, Entry> out;
  char path[PLATFORM_PATH_MAX];
  if (!appendPath(path, sizeof(path), dir, kOrderFileName)) return out;
  const devfs::FileText text = devfs::readFile(path, 4 * kCompactAt);
  if (text.status != devfs::ReadStatus::Ok) return out;
  uint64_t place = 0;
  size_t start = 0;
  while (start < text.text.size()) {
    size_t end = text.text.find('\n', start);
    if (end == std::string::npos) break;  // a line cut short by a kill
    const bool evidence = text.text[start] == '!';
    const std::string name = text.text.substr(start + (evidence ? 1 : 0), end - start - (evidence ? 1 : 0));
    start = end + 1;
    if (name.empty() || name.find('/') != std::string::npos) continue;
    auto it = out.find(name);
    if (it == out.end()) it = out.emplace(name, Entry{++place, false}).first;
    it->second.evidence = it->second.evidence || evidence;
  }
  if (text.text.size() <= kCompactAt) return out;
  // Written again with the files there are now, in their order, under a name of its
  // own that is then renamed over the old one.
  std::map<uint64_t, std::pair<std::string, bool>> byPlace;
  for (const auto& e : out)
    if (existing.count(e.first) != 0) byPlace[e.second.place] = {e.first, e.second.evidence};
  std::string compact;
  for (const auto& e : byPlace) {
    compact += e.second.first + "\n";
    if (e.second.second) compact += "!" + e.second.first + "\n";
  }
  char tmp[PLATFORM_PATH_MAX];
  if (!appendPath(tmp, sizeof(tmp), dir, ".ZuCam_open_order.tmp")) return out;
  devfs::removeFile(tmp);
  const int fd = devfs::openChecked(tmp, O_WRONLY | O_CREAT | O_EXCL, 0660, devfs::Owner::User);
  if (fd < 0) return out;
  const bool ok = write(fd, compact.data(), compact.size()) == static_cast<ssize_t>(compact.size());
  close(fd);
  if (!ok || !devfs::renameFile(tmp, path)) devfs::removeFile(tmp);
  return out;
}

}  // namespace logorder
}  // namespace zudebug

// Device files, the same on host and device builds: only the path mapping of fs.h
// (and the free-space query behind it) differs between them.
#include "zudebug_platform/device_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "zudebug_platform/fs.h"

namespace zudebug {
namespace devfs {

namespace {

// A device path mapped to the path this build opens, held on the stack.
class Mapped {
 public:
  explicit Mapped(const char* path)
      : mStr(path == nullptr ? nullptr : platform_resolve_path(path, mBuf, sizeof(mBuf))) {
    if (mStr == nullptr) errno = EINVAL;
  }
  Mapped(const Mapped&) = delete;
  Mapped& operator=(const Mapped&) = delete;

  // Null for a null device path.
  const char* get() const { return mStr; }

 private:
  char mBuf[PLATFORM_PATH_MAX];
  const char* mStr;
};

constexpr size_t kReadChunk = 65536;

}  // namespace

File openFile(const char* path, const char* mode) {
  Mapped p(path);
  if (p.get() == nullptr || mode == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  return File(fopen(p.get(), mode));
}

int openFd(const char* path, int flags, mode_t mode) {
  Mapped p(path);
  if (p.get() == nullptr) return -1;
  return ::open(p.get(), flags | O_CLOEXEC, mode);
}

int openChecked(const char* path, int flags, mode_t mode, Owner owner) {
  Mapped p(path);
  if (p.get() == nullptr) return -1;
  const bool truncate = (flags & O_TRUNC) != 0;
  // Non-blocking so that a planted FIFO does not hold the open.
  const int fd = ::open(p.get(), (flags & ~O_TRUNC) | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
  if (fd < 0) return -1;
  struct stat st;
  const bool ours = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                    (st.st_uid == geteuid() || (owner == Owner::UserOrGroup && st.st_gid == getegid()));
  if (!ours || (truncate && ftruncate(fd, 0) != 0) ||
      ((flags & O_NONBLOCK) == 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)) {
    const int err = ours ? errno : EPERM;
    ::close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

File openFileChecked(const char* path, const char* mode, Owner owner) {
  if (mode == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  const bool plus = strchr(mode, '+') != nullptr;
  int flags;
  switch (mode[0]) {
    case 'r':
      flags = plus ? O_RDWR : O_RDONLY;
      break;
    case 'w':
      flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
      break;
    case 'a':
      flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
      break;
    default:
      errno = EINVAL;
      return nullptr;
  }
  const int fd = openChecked(path, flags, 0666, owner);
  if (fd < 0) return nullptr;
  FILE* f = fdopen(fd, mode);
  if (f == nullptr) ::close(fd);
  return File(f);
}

FileText readStream(FILE* f, size_t limit) {
  FileText out;
  struct stat st;
  if (f == nullptr) {
    out.error = EINVAL;
    return out;
  }
  if (fstat(fileno(f), &st) != 0) {
    out.error = errno;
    return out;
  }
  if (st.st_size > 0 && static_cast<unsigned long long>(st.st_size) > limit) {
    out.status = ReadStatus::TooLarge;
    out.size = static_cast<long long>(st.st_size);
    return out;
  }
  const size_t cap = limit == kNoLimit ? kNoLimit : limit + 1;
  try {
    // One byte more than reported: a read that ends exactly on a chunk asks once more.
    if (st.st_size > 0) out.text.reserve(std::min(static_cast<size_t>(st.st_size) + 1, cap));
    for (;;) {
      const size_t want = std::min(kReadChunk, cap - out.text.size());
      if (want == 0) break;
      const size_t had = out.text.size();
      out.text.resize(had + want);
      const size_t got = fread(&out.text[had], 1, want, f);
      out.text.resize(had + got);
      if (got < want) break;  // the end, or a read error
    }
  } catch (const std::bad_alloc&) {
    out.text = std::string();
    out.error = ENOMEM;
    return out;
  }
  if (out.text.size() > limit) {
    out.text = std::string();
    out.status = ReadStatus::TooLarge;
    return out;
  }
  out.status = ReadStatus::Ok;
  return out;
}

FileText readFile(const char* path, size_t limit) {
  File f = openFile(path, "rb");
  if (!f) {
    FileText out;
    out.status = ReadStatus::Missing;
    out.error = errno;
    return out;
  }
  return readStream(f.get(), limit);
}

bool statFile(const char* path, struct stat* out) {
  Mapped p(path);
  return p.get() != nullptr && stat(p.get(), out) == 0;
}

bool freeSpace(const char* path, uint64_t* bytes) {
  struct statvfs st;
  if (path == nullptr) {
    errno = EINVAL;
    return false;
  }
  if (platform_statvfs(path, &st) != 0) return false;
  *bytes = static_cast<uint64_t>(st.f_bavail) * static_cast<uint64_t>(st.f_bsize);
  return true;
}

bool listDir(const char* path, std::vector<std::string>* names) {
  names->clear();
  Mapped p(path);
  if (p.get() == nullptr) return false;
  DIR* d = opendir(p.get());
  if (d == nullptr) return false;
  while (const dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    names->emplace_back(e->d_name);
  }
  closedir(d);
  std::sort(names->begin(), names->end());
  return true;
}

bool makeDirs(const char* path, mode_t mode) {
  Mapped p(path);
  if (p.get() == nullptr) return false;
  char part[PLATFORM_PATH_MAX];
  const size_t len = strlen(p.get());
  if (len >= sizeof(part)) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(part, p.get(), len + 1);
  // Each component in turn, the whole path last; the ones that exist already stay as they are.
  for (size_t i = 1; i <= len; ++i) {
    if (part[i] != '/' && part[i] != '\0') continue;
    const char keep = part[i];
    part[i] = '\0';
    if (mkdir(part, mode) == 0) chmod(part, mode);
    part[i] = keep;
  }
  struct stat st;
  if (stat(p.get(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return false;
  }
  // A directory of ours that every user may write (made so by an older build) is
  // closed; never through a link, never someone else's.
  if ((st.st_mode & 0002) != 0 && (mode & 0002) == 0) {
    const int fd = open(p.get(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0 && fstat(fd, &st) == 0 && st.st_uid == geteuid()) fchmod(fd, mode);
    if (fd >= 0) close(fd);
  }
  return true;
}

bool removeFile(const char* path) {
  Mapped p(path);
  return p.get() != nullptr && unlink(p.get()) == 0;
}

bool renameFile(const char* from, const char* to) {
  Mapped f(from);
  Mapped t(to);
  return f.get() != nullptr && t.get() != nullptr && rename(f.get(), t.get()) == 0;
}

bool chmodFile(const char* path, mode_t mode) {
  Mapped p(path);
  return p.get() != nullptr && chmod(p.get(), mode) == 0;
}

bool truncateFile(const char* path, off_t size) {
  Mapped p(path);
  return p.get() != nullptr && truncate(p.get(), size) == 0;
}

}  // namespace devfs
}  // namespace zudebug

// Host file-system mapping: ZUDEBUG_ROOT stands for the device's "/".
#include "zudebug_platform/fs.h"

#include <stdlib.h>
#include <string.h>

#include <string>

namespace {

const std::string& rootDir() {
  static const std::string root = [] {
    const char* r = getenv("ZUDEBUG_ROOT");
    std::string s = r ? r : "";
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
  }();
  return root;
}

}  // namespace

extern "C" const char* platform_resolve_path(const char* path, char* buf, size_t size) {
  const std::string& root = rootDir();
  if (path == nullptr || path[0] != '/' || root.empty() || buf == nullptr || size == 0) return path;
  // Plain copies, no formatting: signal handlers resolve paths too.
  const size_t len = strlen(path);
  if (root.size() + len >= size) return path;
  memcpy(buf, root.data(), root.size());
  memcpy(buf + root.size(), path, len + 1);
  return buf;
}

extern "C" int platform_statvfs(const char* path, struct statvfs* out) {
  const char* fake = getenv("ZUDEBUG_FREE_MB");
  if (fake != nullptr && fake[0] != '\0') {
    if (strcmp(fake, "fail") == 0) return -1;
    char* end = nullptr;
    double mb = strtod(fake, &end);
    if (end != fake && mb >= 0) {
      memset(out, 0, sizeof(*out));
      out->f_bsize = 4096;
      out->f_frsize = 4096;
      out->f_bavail = static_cast<fsblkcnt_t>(mb * 256.0);  // 256 blocks of 4 KiB per MiB
      out->f_bfree = out->f_bavail;
      out->f_blocks = out->f_bavail;
      return 0;
    }
  }
  char buf[PLATFORM_PATH_MAX];
  return statvfs(platform_resolve_path(path, buf, sizeof(buf)), out);
}

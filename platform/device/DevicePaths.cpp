// Device file system: paths stand as they are.
#include "zudebug_platform/fs.h"

extern "C" const char* platform_resolve_path(const char* path, char*, size_t) { return path; }

extern "C" int platform_statvfs(const char* path, struct statvfs* out) { return statvfs(path, out); }

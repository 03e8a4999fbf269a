// Where the device's file system is. On a device every path stands as it is;
// a host build may map absolute paths below a directory that stands for "/".
// Library modules reach files through device_files.h, which maps with these.
#pragma once

#include <stddef.h>
#include <sys/statvfs.h>

#ifdef __cplusplus
extern "C" {
#endif

// Returns the path to open for `path`: `path` itself, or `buf` holding the mapped path
// (`path` itself too when the mapped path does not fit). Relative paths are never mapped.
const char* platform_resolve_path(const char* path, char* buf, size_t size);

// statvfs() of the file system holding `path` (resolved as above).
int platform_statvfs(const char* path, struct statvfs* out);

#ifdef __cplusplus
}
#endif

#define PLATFORM_PATH_MAX 4096

// Files of the host machine, for the host programs around the library (the test
// support, the camera host launcher, the benchmarks): a directory made with its
// parents, a whole tree removed. The library itself reaches device files through
// zudebug_platform/device_files.h instead.
#pragma once

#include <ftw.h>
#include <stdio.h>
#include <sys/stat.h>

#include <string>

namespace hostfiles {

// Makes `path` and every missing parent with `mode`; existing ones are left alone.
inline void makeDirs(const std::string& path, mode_t mode = 0755) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), mode);
  }
}

inline int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// Removes `path` and everything below it; symbolic links are removed, not followed.
inline void removeTree(const std::string& path) { nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

}  // namespace hostfiles

// A throw-away device root for a benchmark program, which runs itself again in it.
#pragma once

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

#include "HostFiles.h"

namespace benchroot {

using hostfiles::removeTree;

// Makes "<parent>/<prefix>-XXXXXX" with the offline log directory and `extraDirs`
// (device paths) in it; empty on failure.
inline std::string makeRoot(const std::string& parent, const char* prefix,
                            std::initializer_list<const char*> extraDirs = {}) {
  std::string tmpl = parent + "/" + prefix + "-XXXXXX";
  if (mkdtemp(&tmpl[0]) == nullptr) return "";
  for (const char* dir : {"/data", "/data/vendor", "/data/vendor/camera", "/data/vendor/camera/offlinelog"})
    mkdir((tmpl + dir).c_str(), 0755);
  for (const char* dir : extraDirs) mkdir((tmpl + dir).c_str(), 0755);
  return tmpl;
}

// Writes the properties (offline logging on, plus `extraProps` lines), points the host
// controls at `root` and runs this program again there; the child finds the root in
// ZUDEBUG_BENCH_ROOT. Returns the child's exit status; the root stays.
inline int runChildIn(const std::string& root, char** argv, const std::string& extraProps = "") {
  FILE* props = fopen((root + "/props.txt").c_str(), "w");
  if (props == nullptr) return 1;
  fputs("persist.vendor.camera.offlinedebug.mask=1\n", props);
  fputs(extraProps.c_str(), props);
  fclose(props);
  setenv("ZUDEBUG_ROOT", root.c_str(), 1);
  setenv("ZUDEBUG_PROPS", (root + "/props.txt").c_str(), 1);
  setenv("ZUDEBUG_LOGCAT", "/dev/null", 1);
  setenv("ZUDEBUG_FREE_MB", "100000", 1);
  setenv("ZUDEBUG_BENCH_ROOT", root.c_str(), 1);
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(root.c_str()) != 0) _exit(126);
    execv("/proc/self/exe", argv);
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// The same, removing the root afterwards.
inline int runAgainIn(const std::string& root, char** argv, const std::string& extraProps = "") {
  const int status = runChildIn(root, argv, extraProps);
  removeTree(root);
  return status;
}

}  // namespace benchroot

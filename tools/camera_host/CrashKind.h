// How the camera process's last scene ends, as the launcher and the process both read
// it from the command line.
#pragma once

#include <string.h>

enum class CrashKind {
  None,    // a clean stop of the offline loggers
  Segv,    // --crash, --crash=segv: a read through a bad pointer (SIGSEGV)
  Heap,    // --crash=heap: a buffer freed twice, caught inside free() (SIGABRT)
  Assert,  // --crash=assert: a failed assert() (SIGABRT)
};

constexpr const char* kCrashKinds = "--crash, --crash=segv, --crash=heap or --crash=assert";

// "--crash" or "--crash=KIND"; false for any other argument or an unknown kind.
inline bool parseCrashArg(const char* arg, CrashKind* kind) {
  if (strcmp(arg, "--crash") == 0 || strcmp(arg, "--crash=segv") == 0) {
    *kind = CrashKind::Segv;
  } else if (strcmp(arg, "--crash=heap") == 0) {
    *kind = CrashKind::Heap;
  } else if (strcmp(arg, "--crash=assert") == 0) {
    *kind = CrashKind::Assert;
  } else {
    return false;
  }
  return true;
}

// An argument meant for the crash scene, right or wrong ("--crash", "--crash=...").
inline bool isCrashArg(const char* arg) {
  return strcmp(arg, "--crash") == 0 || strncmp(arg, "--crash=", 8) == 0;
}

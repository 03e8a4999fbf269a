// Scenes of the simulated camera process, one per subsystem, run in this order.
#pragma once

#include <string>

#include "CrashKind.h"

struct HostOptions {
  std::string root;                   // the device root (ZUDEBUG_ROOT)
  CrashKind crash = CrashKind::None;  // how the last scene ends
};

// Prints a scene heading on stdout.
void sceneHeading(const char* title);

void runLoggingScene(const HostOptions& opts);
void runOfflineScene(const HostOptions& opts);
void runGuardScene(const HostOptions& opts);
void runSnapshotScene(const HostOptions& opts);
void runModulesScene(const HostOptions& opts);
// Runs last: stops the offline loggers, or crashes when asked to.
void runCrashScene(const HostOptions& opts);

// Instead of the scenes above: pipeline threads log numbered lines and report each one on
// fd 3 until the launcher kills the process (--kill); returns only if the pipe goes away.
int runKillScene(const HostOptions& opts);
// Instead of the scenes above: the offline loggers are started and stopped (--restart).
int runRestartScene(const HostOptions& opts);

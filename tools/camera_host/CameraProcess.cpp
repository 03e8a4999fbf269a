// The simulated camera process: started by the launcher with ZUDEBUG_ROOT and the
// other host controls set, it uses the library the way the camera HAL does.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Scenes.h"

void sceneHeading(const char* title) { printf("\n== %s ==\n", title); }

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  HostOptions opts;
  const char* root = getenv("ZUDEBUG_ROOT");
  opts.root = root ? root : "";
  for (int i = 1; i < argc; ++i) {
    if (isCrashArg(argv[i]) && !parseCrashArg(argv[i], &opts.crash)) {
      fprintf(stderr, "%s: not a crash this process knows (%s)\n", argv[i], kCrashKinds);
      return 2;
    }
    if (strcmp(argv[i], "--kill") == 0) return runKillScene(opts);
    if (strcmp(argv[i], "--restart") == 0) return runRestartScene(opts);
  }
  runLoggingScene(opts);
  runOfflineScene(opts);
  runGuardScene(opts);
  runSnapshotScene(opts);
  runModulesScene(opts);
  runCrashScene(opts);
  return 0;
}

// A camera process killed mid-logging (--kill) and the next start (--restart).
//
// With --kill, pipeline threads log one numbered line per frame at a camera's pace, so
// that the lines sit in the loggers' queues (a normal flush waits for 8 full queues),
// and report every line on the launcher's pipe once the logging call has returned. The
// launcher kills the process with SIGKILL. With --restart the process only starts and
// stops the offline loggers: the start writes what the killed process left in its
// queue files into the offline files.
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "Scenes.h"
#include "ZuDebugUtils.h"

using namespace zudebug;

namespace {

const char* kPoolDir = "data/vendor/camera/offlinelog/.pool";
const int kProgressFd = 3;  // the launcher's pipe: "<thread> <frame>\n" per logged line

struct Pipeline {
  const char* name;
  unsigned int group;
  int frameUs;  // time between two lines
};
const Pipeline kPipeline[] = {{"RequestThd", ZU_GROUP_HAL, 2000},
                              {"PreviewThd", ZU_GROUP_CORE, 2000},
                              {"CaptureThd", ZU_GROUP_ALGOFWK, 4000},
                              {"MetaThd", ZU_GROUP_META, 3000}};

// One line per frame; the launcher finds it by "<thread>: frame <n> ".
void logFrame(int kind, int frame) {
  switch (kind) {
    case 0:
      ZU_GLOGD(ZU_GROUP_HAL,
               "RequestThd: frame %d request submitted, 3 output buffers, exposure %d us, iso %d", frame,
               10000 + frame % 7 * 2500, 100 + frame % 4 * 50);
      break;
    case 1:
      ZU_GLOGD(ZU_GROUP_CORE, "PreviewThd: frame %d preview buffer returned to the app, latency %d us", frame,
               28000 + frame % 13 * 310);
      break;
    case 2:
      ZU_GLOGD(ZU_GROUP_ALGOFWK, "CaptureThd: frame %d ZSL buffer queued, queue depth %d, mfnr candidate %s",
               frame, 4 + frame % 5, frame % 3 == 0 ? "yes" : "no");
      break;
    default:
      ZU_GLOGD(ZU_GROUP_META, "MetaThd: frame %d metadata: lux %d, cct %d K, af state %d", frame,
               300 + frame % 40, 5000 + frame % 9 * 50, frame % 6);
      break;
  }
}

void pipelineThread(int kind, int progressFd) {
  const Pipeline& p = kPipeline[kind];
  pthread_setname_np(pthread_self(), p.name);
  for (int frame = 1;; ++frame) {
    logFrame(kind, frame);
    // Written in one call below PIPE_BUF: a report is in the pipe whole or not at all.
    char report[64];
    const int n = snprintf(report, sizeof(report), "%s %d\n", p.name, frame);
    if (write(progressFd, report, n) != n) return;
    usleep(p.frameUs);
  }
}

}  // namespace

int runKillScene(const HostOptions&) {
  sceneHeading("logging until killed");
  if (fcntl(kProgressFd, F_GETFD) < 0) {
    printf(
        "--kill reports its lines on fd %d, the launcher's pipe; start it with zudebug-camera-host --kill\n",
        kProgressFd);
    return 2;
  }
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  ZuDebugInterface* binary = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary);
  printf("start Debug logger: %d, Binary logger: %d (queues in files under %s)\n",
         debug->startOfflineLogger(), binary->startOfflineLogger(), kPoolDir);
  printf("%zu pipeline threads log a line per frame and report each on fd %d; no stop follows\n",
         sizeof(kPipeline) / sizeof(kPipeline[0]), kProgressFd);
  fflush(stdout);
  std::vector<std::thread> threads;
  for (int kind = 0; kind < static_cast<int>(sizeof(kPipeline) / sizeof(kPipeline[0])); ++kind)
    threads.emplace_back(pipelineThread, kind, kProgressFd);
  for (auto& t : threads) t.join();
  // Reached only when the launcher's pipe is gone.
  printf("the launcher stopped reading; stopping the loggers\n");
  debug->stopOfflineLogger();
  binary->stopOfflineLogger();
  return 1;
}

int runRestartScene(const HostOptions&) {
  sceneHeading("started again");
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  ZuDebugInterface* binary = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary);
  printf("start Debug logger: %d, Binary logger: %d\n", debug->startOfflineLogger(),
         binary->startOfflineLogger());
  ZU_GLOGI(ZU_GROUP_HAL, "camera provider started again (pid %d)", static_cast<int>(getpid()));
  debug->stopOfflineLogger();
  binary->stopOfflineLogger();
  printf("logged one line of its own; loggers stopped\n");
  return 0;
}

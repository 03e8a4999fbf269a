// Guarded capture pipeline: every request and every processing call is watched by
// the guard monitor. Frame 4 gets stuck for 900 ms, longer than the device's
// request limit (props.txt: 300 ms warning, 600 ms timeout, request timeouts only
// reported), so the patrol warns, calls the request's callback, reports the
// timeout and dumps the stacks of the process.
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "GuardMonitor.h"
#include "Scenes.h"

using namespace zudebug;

namespace {

void processFrame(GuardMonitor* gm, unsigned int frame, int workMs) {
  int guardId = 0;
  std::string message = "frame " + std::to_string(frame);
  gm->registerFuncGuard(MODULE_ALGOFWK_CAPTURE_NODE, "processFrame", message.c_str(), 150, 3000, nullptr,
                        &guardId);
  std::this_thread::sleep_for(std::chrono::milliseconds(workMs));
  gm->unregisterFuncGuard(guardId);
}

}  // namespace

void runGuardScene(const HostOptions&) {
  sceneHeading("guard monitor");
  GuardMonitor* gm = GuardMonitor::getSingleton();
  std::atomic<int> timedOut{0};
  std::thread pipeline([&] {
    prctl(PR_SET_NAME, "Pipeline", 0, 0, 0);
    for (unsigned int frame = 1; frame <= 6; ++frame) {
      gm->registerReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, frame, 0, [&timedOut](unsigned int id) {
        printf("  request %u timed out: the session would flush it now\n", id);
        ++timedOut;
      });
      int workMs = frame == 4 ? 900 : 30;
      printf("frame %u: processing for %d ms\n", frame, workMs);
      processFrame(gm, frame, workMs);
      // For a timed-out request this finds nothing: the monitor already dropped it.
      gm->unregisterReqGuard(MODULE_ZUHAL_SESSION, REQUEST_APP, frame);
    }
  });
  pipeline.join();
  gm->stop();
  printf("%d request(s) timed out; the monitor is stopped\n", timedOut.load());

  const char* logcat = getenv("ZUDEBUG_LOGCAT");
  if (logcat == nullptr) return;
  printf("guard monitor lines of the Android log (abridged):\n");
  std::ifstream in(logcat);
  int funcWarnings = 0;
  int reqWarnings = 0;
  int stackLines = 0;
  bool inPipeline = false;
  for (std::string line; std::getline(in, line);) {
    if (line.find("/Prax-GuardMonitor: ") != std::string::npos) {
      bool tooLong = line.find("TOO LONG") != std::string::npos;
      bool func = line.find("Thread tid=") != std::string::npos;
      if (tooLong && (func ? ++funcWarnings : ++reqWarnings) > 3) continue;
      printf("  %s\n", line.c_str());
    } else if (line.find("printLine()R AppRequest:4 NO EXIT: ") != std::string::npos) {
      // The dump holds every thread; show the thread headers and the stuck pipeline.
      ++stackLines;
      bool header = line.find("sysTid=") != std::string::npos;
      if (header) inPipeline = line.find("\"Pipeline\"") != std::string::npos;
      if (header || (inPipeline && line.find(" #0") != std::string::npos)) printf("  %s\n", line.c_str());
    }
  }
  printf("  (%d function and %d request TOO LONG warnings, %d stack lines in all)\n", funcWarnings,
         reqWarnings, stackLines);
}

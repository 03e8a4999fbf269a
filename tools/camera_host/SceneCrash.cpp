// Last scene: call stacks into the log, then either a clean stop of the offline
// loggers or, with --crash, a real crash of a pipeline thread under the catcher.
#include <dirent.h>
#include <log/log.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "Scenes.h"
#include "ZuCallStackUtils.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuDebugUtils.h"

// Functions whose frames must show in the crash record as written.
#if defined(__clang__)
#define SCENE_KEEP_FRAME __attribute__((noinline))
#else
#define SCENE_KEEP_FRAME __attribute__((noipa))
#endif

namespace {

using zudebug::ZuDebugInterface;
using zudebug::ZuOfflineLoggerType;

const char* kOfflineDir = "data/vendor/camera/offlinelog";

// A frame buffer whose memory was never mapped: the pipeline's bug.
struct FrameBuffer {
  int* pixels;
};
FrameBuffer* volatile gBrokenBuffer = reinterpret_cast<FrameBuffer*>(0x20);
int gPixels[16];
FrameBuffer gGoodBuffer{gPixels};

SCENE_KEEP_FRAME void fillFrame(FrameBuffer* buffer, int value) {
  buffer->pixels[0] = value;  // reads the pointer from unmapped memory
  asm volatile("");
}

SCENE_KEEP_FRAME void processRequest(int frameNumber) {
  ZU_GLOGI(zudebug::ZU_GROUP_HAL, "pipeline: processing frame %d", frameNumber);
  if (frameNumber == 3) ZU_GLOGE(zudebug::ZU_GROUP_HAL, "pipeline: frame %d has no buffer", frameNumber);
  fillFrame(frameNumber == 3 ? gBrokenBuffer : &gGoodBuffer, frameNumber);
  asm volatile("");
}

// A pipeline thread that waits for work in a function of its own.
class PipelineThread {
 public:
  PipelineThread() {
    mThread = std::thread([this] {
      pthread_setname_np(pthread_self(), "PipelineThd");
      mTid = static_cast<int>(syscall(SYS_gettid));
      waitForRequests();
    });
    while (mTid.load() == 0) usleep(1000);
  }
  ~PipelineThread() {
    mStop = true;
    mThread.join();
  }
  int tid() const { return mTid.load(); }

 private:
  __attribute__((noinline)) void waitForRequests() {
    while (!mStop.load()) usleep(2000);
    asm volatile("");
  }
  std::thread mThread;
  std::atomic<int> mTid{0};
  std::atomic<bool> mStop{false};
};

std::string newestDebugFile() {
  std::string newest;
  if (DIR* d = opendir(kOfflineDir)) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.rfind("ZuCam_Debug_", 0) == 0 && name.find("ErrorInfo") == std::string::npos && name > newest)
        newest = name;
    }
    closedir(d);
  }
  return newest.empty() ? newest : std::string(kOfflineDir) + "/" + newest;
}

size_t countLinesWith(const std::string& path, const char* needle) {
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr) return 0;
  size_t count = 0;
  char line[2048];
  while (fgets(line, sizeof(line), f) != nullptr)
    if (strstr(line, needle) != nullptr) ++count;
  fclose(f);
  return count;
}

void dumpStacks() {
  PipelineThread pipeline;
  printf("dumping this thread's stack, the pipeline thread's (tid %d) and every thread's\n", pipeline.tid());
  zudebug::dumpThreadCallStack(-1, 0, "scene-crash", ANDROID_LOG_DEBUG);
  zudebug::dumpThreadCallStack(pipeline.tid(), 0, "pipeline", ANDROID_LOG_DEBUG);
  zudebug::dumpCurProcessCallStack("process-dump", ANDROID_LOG_DEBUG);
}

}  // namespace

void runCrashScene(const HostOptions& opts) {
  sceneHeading("Crash catcher and call stacks");
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  ZuDebugInterface* binary = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary);
  debug->startOfflineLogger();
  binary->startOfflineLogger();

  if (!opts.crash) {
    dumpStacks();
    debug->stopOfflineLogger();
    binary->stopOfflineLogger();
    std::string file = newestDebugFile();
    printf("offline loggers stopped\n");
    printf("stack lines (\"[CallStack]\"): %zu in Android log (logcat.txt), %zu in %s\n",
           countLinesWith("logcat.txt", "[CallStack]"), countLinesWith(file, "[CallStack]"),
           file.empty() ? "(no offline file: debug mask 0?)" : file.c_str());
    return;
  }

  zudebug::RegisterSignalHandlers();
  printf("crash catcher installed; the pipeline thread will now dereference a bad buffer\n");
  printf("the record (\" F DEBUG   : \" lines: header, then the crashing thread's frames) lands in\n");
  printf("  %s/%s/ZuCam_Debug_<time>.txt, after which the process dies of SIGSEGV\n", opts.root.c_str(),
         kOfflineDir);
  fflush(stdout);
  std::thread pipeline([] {
    pthread_setname_np(pthread_self(), "PipelineThd");
    for (int frame = 1; frame <= 3; ++frame) processRequest(frame);
    asm volatile("");
  });
  pipeline.join();
  printf("not reached: the pipeline thread survived its crash\n");
}

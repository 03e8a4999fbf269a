// Last scene: call stacks into the log, then either a clean stop of the offline
// loggers or, with --crash, a real crash of a pipeline thread under the catcher.
//
// The assert scene needs assert() in every build type.
#undef NDEBUG
#include <assert.h>
#include <dirent.h>
#include <log/log.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
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

// Gives a frame's pixels back to the heap.
SCENE_KEEP_FRAME void releasePixels(unsigned char* pixels) {
  free(pixels);
  asm volatile("");
}

// Frame buffers come from a pool the main thread fills when the streams are
// configured, and the pipeline thread releases each one after its frame. Frame 3
// fails, and its buffer is released on the error path and then once more as usual:
// the pipeline's bug. The buffers are larger than glibc's tcache and fast bins take,
// so the first release puts the chunk in a bin and marks it free in the buffer behind
// it, still in the pool; the second finds that mark inside free(), with the heap's
// lock held, and glibc aborts with "double free or corruption (!prev)". The pool lies
// in the main heap because the first release also clears the bit that names a
// thread's own heap: a buffer of the pipeline thread's heap would be looked for in the
// main heap the second time, and reported as "(out)".
constexpr int kPoolBuffers = 4;
constexpr size_t kBufferBytes = 1100;
unsigned char* gBufferPool[kPoolBuffers];

void configureStreams() {
  for (unsigned char*& buffer : gBufferPool) {
    buffer = static_cast<unsigned char*>(malloc(kBufferBytes));
    if (buffer != nullptr) memset(buffer, 0, kBufferBytes);
  }
}

SCENE_KEEP_FRAME void renderFrame(int frameNumber) {
  unsigned char* pixels = gBufferPool[frameNumber - 1];
  if (pixels == nullptr) return;
  memset(pixels, frameNumber, kBufferBytes);
  if (frameNumber == 3) {
    ZU_GLOGE(zudebug::ZU_GROUP_HAL, "pipeline: frame %d failed, its buffer released on the error path",
             frameNumber);
    releasePixels(pixels);
  }
  releasePixels(pixels);  // frame 3's the second time
  asm volatile("");
}

// Frame 3 comes without a buffer, which the pipeline asserts it never does.
SCENE_KEEP_FRAME void checkFrame(int frameNumber) {
  const FrameBuffer* buffer = frameNumber == 3 ? nullptr : &gGoodBuffer;
  assert(buffer != nullptr && "every frame has a buffer");
  asm volatile("");
}

SCENE_KEEP_FRAME void processRequest(int frameNumber, CrashKind crash) {
  ZU_GLOGI(zudebug::ZU_GROUP_HAL, "pipeline: processing frame %d", frameNumber);
  if (frameNumber == 3 && crash != CrashKind::Heap)
    ZU_GLOGE(zudebug::ZU_GROUP_HAL, "pipeline: frame %d has no buffer", frameNumber);
  switch (crash) {
    case CrashKind::Heap:
      renderFrame(frameNumber);
      break;
    case CrashKind::Assert:
      checkFrame(frameNumber);
      break;
    default:
      fillFrame(frameNumber == 3 ? gBrokenBuffer : &gGoodBuffer, frameNumber);
      break;
  }
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

  if (opts.crash == CrashKind::None) {
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
  const char* what = "dereference a bad buffer";
  const char* signal = "SIGSEGV";
  if (opts.crash == CrashKind::Heap) {
    what = "free a frame's buffer twice (glibc notices inside free(), holding the heap's lock, and aborts)";
    signal = "SIGABRT";
  } else if (opts.crash == CrashKind::Assert) {
    what = "fail an assert()";
    signal = "SIGABRT";
  }
  printf("crash catcher installed; at frame 3 the pipeline thread will %s\n", what);
  printf("the catcher's record (\" F DEBUG   : \" lines) lands in\n");
  printf("  %s/%s/ZuCam_Debug_<time>.txt, and the process dies of %s\n", opts.root.c_str(), kOfflineDir,
         signal);
  fflush(stdout);
  const CrashKind crash = opts.crash;
  if (crash == CrashKind::Heap) configureStreams();
  std::thread pipeline([crash] {
    pthread_setname_np(pthread_self(), "PipelineThd");
    for (int frame = 1; frame <= 3; ++frame) processRequest(frame, crash);
    asm volatile("");
  });
  pipeline.join();
  printf("not reached: the pipeline thread survived its crash\n");
}

// The offline logging path against its floor and against spdlog and glog, same message
// and same run; plus the forced flush against a plain sequential write.
//
// The program re-runs itself in a throw-away device root with the debug mask set, so
// that offline logging is on from library load, as on a device.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <shared_mutex>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "ZuDebugUtils.h"
#include "ZuOfflineLoggerState.h"

#ifdef ZUDEBUG_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#endif
#ifdef ZUDEBUG_HAVE_GLOG
#include <glog/logging.h>
#endif

// ---- heap allocations, counted per thread ----
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
static __thread size_t tAllocations __attribute__((tls_model("initial-exec")));
extern "C" void* malloc(size_t n) {
  ++tAllocations;
  return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t m) {
  ++tAllocations;
  return __libc_calloc(n, m);
}
extern "C" void* realloc(void* p, size_t n) {
  ++tAllocations;
  return __libc_realloc(p, n);
}

using namespace zudebug;

namespace {

// About 100 characters with two integers and one string.
#define BENCH_FORMAT "pipeline %s: frame %d processed in %d us, all stages on time, no buffers dropped so far"
const char* kStage = "RequestThd";

std::string gRoot;

void reportAllocations(benchmark::State& state, size_t before) {
  state.counters["allocs/call"] =
      benchmark::Counter(static_cast<double>(tAllocations - before) / static_cast<double>(state.iterations()),
                         benchmark::Counter::kAvgThreads);
}

// ---- the library ----

// CPU time the Debug logger's flush thread has used so far, in ns; 0 when it is not
// found. The scheduler's own count (/proc/.../schedstat), not the tick-based one.
std::string firstLine(const std::string& path) {
  char line[256] = {};
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr) return "";
  if (fgets(line, sizeof(line), f) == nullptr) line[0] = '\0';
  fclose(f);
  return line;
}

uint64_t flushThreadCpuNs() {
  // Looked for until found: the thread names itself once it runs.
  static std::string schedstat;
  if (schedstat.empty()) {
    std::string found;
    if (DIR* dir = opendir("/proc/self/task")) {
      while (dirent* e = readdir(dir)) {
        const std::string task = std::string("/proc/self/task/") + e->d_name;
        if (e->d_name[0] != '.' && firstLine(task + "/comm") == "ZuFlushDebug\n") found = task + "/schedstat";
      }
      closedir(dir);
    }
    schedstat = found;
  }
  return schedstat.empty() ? 0 : strtoull(firstLine(schedstat).c_str(), nullptr, 10);
}

// Size of the Debug logger's queue file: grows by 16 MiB whenever a thread finds no
// free block, that is when the flush thread falls behind.
double poolFileMiB() {
  const std::string dir = gRoot + "/data/vendor/camera/offlinelog/.pool";
  double bytes = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      struct stat st;
      if (strstr(e->d_name, "_Debug_") != nullptr && stat((dir + "/" + e->d_name).c_str(), &st) == 0)
        bytes += static_cast<double>(st.st_size);
    }
    closedir(d);
  }
  return bytes / (1 << 20);
}

void BM_LogSystem(benchmark::State& state) {
  int frame = 0;
  Log::logSystem(64, "I", "bench.cpp", "frame", 42, BENCH_FORMAT, kStage, frame, 800);  // thread set-up
  const size_t before = tAllocations;
  const uint64_t flushBefore = state.thread_index() == 0 ? flushThreadCpuNs() : 0;
  for (auto _ : state) {
    ++frame;
    Log::logSystem(64, "I", "bench.cpp", "frame", 42, BENCH_FORMAT, kStage, frame, 800 + frame % 300);
  }
  reportAllocations(state, before);
  // What the flush thread spent meanwhile, per line of all threads; counted once.
  double flushPerLine = 0;
  if (state.thread_index() == 0)
    flushPerLine = static_cast<double>(flushThreadCpuNs() - flushBefore) /
                   (static_cast<double>(state.iterations()) * state.threads());
  state.counters["flush_cpu_ns/line"] = benchmark::Counter(flushPerLine);
  state.counters["pool_MiB"] = benchmark::Counter(state.thread_index() == 0 ? poolFileMiB() : 0);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogSystem)->Threads(1)->Threads(2)->UseRealTime();

// ---- the tight floor ----
// The cheapest honest code that writes the same bytes with the C library: the local
// time of the current second formatted once per second, pid and tid once per thread,
// the nanoseconds and the origin ("I ZuCamHAL [HAL ] bench.cpp:42 frame() ") written
// by hand, vsnprintf for the caller's message only, one copy into a buffer the thread
// owns.

struct FloorThread {
  time_t second = -1;
  char date[32];
  size_t dateLen = 0;
  char ids[48];
  size_t idsLen = 0;
  std::vector<char> own = std::vector<char>(1 << 20);
  size_t offset = 0;
};

inline char* put(char* p, const char* s, size_t n) {
  memcpy(p, s, n);
  return p + n;
}

__attribute__((noinline, format(printf, 2, 3))) void floorLine(FloorThread& t, const char* fmt, ...) {
  char line[1024];
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  if (ts.tv_sec != t.second) {
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    t.dateLen =
        static_cast<size_t>(snprintf(t.date, sizeof(t.date), "%02d-%02d %02d:%02d:%02d:", tm.tm_mon + 1,
                                     tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec));
    t.second = ts.tv_sec;
  }
  char* p = put(line, t.date, t.dateLen);
  long ns = ts.tv_nsec;
  for (int i = 8; i >= 0; --i, ns /= 10) p[i] = static_cast<char>('0' + ns % 10);
  p = put(p + 9, t.ids, t.idsLen);
  p = put(p, "I ", 2);
  p = put(p, "ZuCamHAL", 8);
  p = put(p, " ", 1);
  p = put(p, "[HAL ]", 6);
  p = put(p, " ", 1);
  p = put(p, "bench.cpp", 9);
  p = put(p, ":42 ", 4);
  p = put(p, "frame", 5);
  p = put(p, "() ", 3);
  const size_t used = static_cast<size_t>(p - line);
  va_list ap;
  va_start(ap, fmt);
  const int r = vsnprintf(p, sizeof(line) - used, fmt, ap);
  va_end(ap);
  size_t n = used + static_cast<size_t>(r > 0 ? r : 0);
  if (n > 1021) n = 1021;
  line[n++] = '\n';
  if (t.offset + n > t.own.size()) t.offset = 0;
  memcpy(t.own.data() + t.offset, line, n);
  t.offset += n;
}

// The floor's thread, its ids formatted once.
FloorThread& floorThread() {
  static thread_local FloorThread t;
  if (t.idsLen == 0)
    t.idsLen = static_cast<size_t>(snprintf(t.ids, sizeof(t.ids), "  %4d  %4d ", static_cast<int>(getpid()),
                                            static_cast<int>(syscall(SYS_gettid))));
  return t;
}

void BM_Floor(benchmark::State& state) {
  FloorThread& t = floorThread();
  int frame = 0;
  const size_t before = tAllocations;
  for (auto _ : state) {
    ++frame;
    floorLine(t, BENCH_FORMAT, kStage, frame, 800 + frame % 300);
    benchmark::DoNotOptimize(t.own.data());
  }
  reportAllocations(state, before);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Floor)->Threads(1)->Threads(2)->UseRealTime();

// ---- peers ----

#ifdef ZUDEBUG_HAVE_SPDLOG
#define SPDLOG_MESSAGE                                                                                  \
  "ZuCamHAL [HAL ] bench.cpp:42 frame() pipeline {}: frame {} processed in {} us, all stages on time, " \
  "no buffers dropped so far"

std::shared_ptr<spdlog::logger> spdlogger(bool async) {
  static std::shared_ptr<spdlog::logger> loggers[2];
  static std::once_flag once;
  std::call_once(once, [] {
    spdlog::init_thread_pool(8192, 1);
    const std::string dir = gRoot + "/peers/";
    loggers[0] = spdlog::rotating_logger_mt("sync", dir + "spdlog_sync.txt", 10 << 20, 10);
    loggers[1] =
        spdlog::rotating_logger_mt<spdlog::async_factory>("async", dir + "spdlog_async.txt", 10 << 20, 10);
    // The process id goes into the pattern as text: spdlog's %P asks the kernel for it
    // on every line (a system call that costs about 1 us on this virtual machine), and
    // the library formats it once per thread. "%4t" pads the thread id as "%4d" does.
    char pattern[64];
    snprintf(pattern, sizeof(pattern), "%%m-%%d %%H:%%M:%%S:%%F  %4d  %%4t %%L %%v",
             static_cast<int>(getpid()));
    for (auto& l : loggers) l->set_pattern(pattern);
  });
  return loggers[async ? 1 : 0];
}

void spdlogRun(benchmark::State& state, bool async) {
  auto logger = spdlogger(async);
  int frame = 0;
  const size_t before = tAllocations;
  for (auto _ : state) {
    ++frame;
    logger->info(SPDLOG_MESSAGE, kStage, frame, 800 + frame % 300);
  }
  reportAllocations(state, before);
  state.SetItemsProcessed(state.iterations());
}
void BM_SpdlogAsyncRotating(benchmark::State& state) { spdlogRun(state, true); }
void BM_SpdlogSyncRotating(benchmark::State& state) { spdlogRun(state, false); }
BENCHMARK(BM_SpdlogAsyncRotating)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_SpdlogSyncRotating)->Threads(1)->Threads(2)->UseRealTime();
#endif

#ifdef ZUDEBUG_HAVE_GLOG
void BM_GlogFile(benchmark::State& state) {
  int frame = 0;
  const size_t before = tAllocations;
  for (auto _ : state) {
    ++frame;
    LOG(INFO) << "ZuCamHAL [HAL ] bench.cpp:42 frame() pipeline " << kStage << ": frame " << frame
              << " processed in " << 800 + frame % 300
              << " us, all stages on time, no buffers dropped so far";
  }
  reportAllocations(state, before);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GlogFile)->Threads(1)->Threads(2)->UseRealTime();
#endif

// ---- the pool lock's shared side against std::shared_mutex ----

void BM_PoolLockShared(benchmark::State& state) {
  static ZuPoolLock lock;
  bool alone = false;
  const unsigned stripe = ZuPoolLock::claimStripe(&alone);
  for (auto _ : state) {
    lock.lockShared(stripe);
    benchmark::ClobberMemory();
    if (alone)
      lock.unlockOwnShared(stripe);
    else
      lock.unlockShared(stripe);
  }
  ZuPoolLock::releaseStripe(stripe);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PoolLockShared)->Threads(1)->Threads(2)->UseRealTime();

void BM_StdSharedMutex(benchmark::State& state) {
  static std::shared_mutex lock;
  for (auto _ : state) {
    lock.lock_shared();
    benchmark::ClobberMemory();
    lock.unlock_shared();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdSharedMutex)->Threads(1)->Threads(2)->UseRealTime();

// ---- flushing: forced flushes of full queues against a plain sequential write ----

constexpr int kQueuesPerFlush = 8;
constexpr size_t kChunk = 65536;

// The Binary logger: its queues wait for a forced flush (no flush thread writes them).
void BM_ForcedFlush(benchmark::State& state) {
  ZuDebugInterface* binary = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary);
  ZuDegbugOfflineLogger* logger = ZuDegbugOfflineLogger::getInstance(ZuOfflineLoggerType::Binary);
  std::vector<char> chunk(kChunk, 'b');
  for (auto _ : state) {
    state.PauseTiming();
    // Fill kQueuesPerFlush queues; the chunk after each full queue hands it over.
    for (int i = 0; i < kQueuesPerFlush * 16; ++i) binary->addLogInterface(chunk.data(), kChunk);
    state.ResumeTiming();
    logger->flushLogToFile(true);
    logger->activeOfflineLogger();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kQueuesPerFlush * 16 * kChunk);
}
BENCHMARK(BM_ForcedFlush)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same bytes with one descriptor, into files kept and rotated the same way.
void BM_SequentialWrite(benchmark::State& state) {
  std::vector<char> data(static_cast<size_t>(kQueuesPerFlush) * 16 * kChunk);
  int fd = -1;
  size_t fileSize = 0;
  int fileNo = 0;
  auto name = [](int n) { return gRoot + "/peers/sequential-" + std::to_string(n) + ".bin"; };
  for (auto _ : state) {
    state.PauseTiming();
    memset(data.data(), 'a' + fileNo % 26, data.size());  // stands for filling the queues
    state.ResumeTiming();
    if (fd < 0) {
      fd = open(name(fileNo).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_TRUNC, 0666);
      if (fileNo >= 10) unlink(name(fileNo - 10).c_str());
      ++fileNo;
    }
    for (size_t off = 0; off < data.size(); off += 1 << 20)
      if (write(fd, data.data() + off, 1 << 20) != 1 << 20) state.SkipWithError("write");
    fileSize += data.size();
    if (fileSize > (10u << 20)) {
      close(fd);
      fd = -1;
      fileSize = 0;
    }
  }
  if (fd >= 0) close(fd);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(data.size()));
}
BENCHMARK(BM_SequentialWrite)->Unit(benchmark::kMillisecond)->UseRealTime();

// "--pool=anon": the queue directory lies below a plain file, so the logger keeps its
// blocks in process memory instead of the mapped queue file (append path both ways).
bool wantAnonymousPool(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (strcmp(argv[i], "--pool=anon") == 0) return true;
  return false;
}

int runInRoot(int argc, char** argv) {
  const std::string root = benchroot::makeRoot("/tmp", "zudebug-bench", {"/peers"});
  if (root.empty()) return 1;
  std::string props;
  if (wantAnonymousPool(argc, argv)) {
    FILE* blocker = fopen((root + "/poolblocker").c_str(), "w");
    if (blocker != nullptr) fclose(blocker);
    props = "persist.vendor.camera.offlinelog.pooldir=/poolblocker/pool\n";
  }
  return benchroot::runAgainIn(root, argv, props);
}

// "--loop lib|floor N": N lines and nothing else, for an instruction count under
// callgrind (valgrind --tool=callgrind logging_bench --loop lib 100000).
int loopLines(const char* which, long count) {
  if (strcmp(which, "lib") == 0) {
    for (long i = 0; i < count; ++i)
      Log::logSystem(64, "I", "bench.cpp", "frame", 42, BENCH_FORMAT, kStage, static_cast<int>(i),
                     800 + static_cast<int>(i % 300));
    return 0;
  }
  if (strcmp(which, "floor") == 0) {
    FloorThread& t = floorThread();
    for (long i = 0; i < count; ++i)
      floorLine(t, BENCH_FORMAT, kStage, static_cast<int>(i), 800 + static_cast<int>(i % 300));
    return 0;
  }
  fprintf(stderr, "--loop lib|floor N\n");
  return 2;
}

// "--chunks R": one thread, the variants in turn in chunks of 10,000 lines, R rounds;
// per variant the fastest chunk (the machine at its best) and the median one, and the
// ratios of both. Chunks this short see the machine in one state, so neighbours
// compare fairly where whole runs seconds apart do not.
int chunkedLines(int rounds) {
  constexpr int kChunk = 10000;
  struct Variant {
    const char* name;
    void (*line)(int i);
    std::vector<double> ns;
  };
  std::vector<Variant> variants = {
      {"library",
       [](int i) {
         Log::logSystem(64, "I", "bench.cpp", "frame", 42, BENCH_FORMAT, kStage, i, 800 + i % 300);
       },
       {}},
      {"floor", [](int i) { floorLine(floorThread(), BENCH_FORMAT, kStage, i, 800 + i % 300); }, {}},
#ifdef ZUDEBUG_HAVE_SPDLOG
      {"spdlog sync", [](int i) { spdlogger(false)->info(SPDLOG_MESSAGE, kStage, i, 800 + i % 300); }, {}},
      {"spdlog async", [](int i) { spdlogger(true)->info(SPDLOG_MESSAGE, kStage, i, 800 + i % 300); }, {}},
#endif
  };
  for (Variant& v : variants) v.line(0);  // set-up outside the timing
  int i = 1;
  for (int r = 0; r < rounds; ++r) {
    for (Variant& v : variants) {
      struct timespec a, b;
      clock_gettime(CLOCK_MONOTONIC, &a);
      for (int k = 0; k < kChunk; ++k, ++i) v.line(i);
      clock_gettime(CLOCK_MONOTONIC, &b);
      v.ns.push_back(
          (static_cast<double>(b.tv_sec - a.tv_sec) * 1e9 + static_cast<double>(b.tv_nsec - a.tv_nsec)) /
          kChunk);
    }
  }
  printf("%d rounds of %d-line chunks, one thread\n", rounds, kChunk);
  printf("%-14s %14s %14s %14s\n", "variant", "fastest ns", "median ns", "slowest ns");
  for (Variant& v : variants) {
    std::sort(v.ns.begin(), v.ns.end());
    printf("%-14s %14.1f %14.1f %14.1f\n", v.name, v.ns.front(), v.ns[v.ns.size() / 2], v.ns.back());
  }
  for (size_t k = 1; k < variants.size(); ++k)
    printf("library / %-12s fastest %.2f  median %.2f\n", variants[k].name,
           variants[0].ns.front() / variants[k].ns.front(),
           variants[0].ns[variants[0].ns.size() / 2] / variants[k].ns[variants[k].ns.size() / 2]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* root = getenv("ZUDEBUG_BENCH_ROOT");
  if (root == nullptr) return runInRoot(argc, argv);
  gRoot = root;
#ifdef ZUDEBUG_HAVE_GLOG
  FLAGS_log_dir = gRoot + "/peers";
  FLAGS_max_log_size = 10;
  FLAGS_logtostderr = false;
  google::InitGoogleLogging(argv[0]);
#endif
  if (ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->startOfflineLogger() != 0 ||
      ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->startOfflineLogger() != 0) {
    fprintf(stderr, "offline logging did not start (debug mask %u)\n", gZuCamDebugMask);
    return 1;
  }
  // "--pool=anon" was for the parent; Google Benchmark refuses flags it does not know.
  int kept = 1;
  for (int i = 1; i < argc; ++i)
    if (strcmp(argv[i], "--pool=anon") != 0) argv[kept++] = argv[i];
  argc = kept;
  int status = -1;
  if (argc == 4 && strcmp(argv[1], "--loop") == 0) {
    status = loopLines(argv[2], atol(argv[3]));
  } else if (argc == 3 && strcmp(argv[1], "--chunks") == 0) {
    status = chunkedLines(atoi(argv[2]));
  } else {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    status = 0;
  }
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug)->stopOfflineLogger();
  ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary)->stopOfflineLogger();
  return status;
}

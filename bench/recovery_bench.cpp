// How long a start of the Debug offline logger takes when it has to write what a dead
// process left in its queue file into the log files, against a start with nothing to
// recover.
//
// Each iteration runs a fresh camera-like process (this program again, with its own
// flush thread), which starts the Debug logger, appends about 16 MiB of 100-byte lines
// and dies without stopping the logger:
//   - FullPool: 16 threads fill one block each (the whole first chunk, 16 MiB, none of
//     it handed over, so nothing is written before the death), then SIGKILL;
//   - OneThread: one thread appends 16 MiB while the flush thread writes the full
//     queues, then _exit(0); what was not written yet is left.
// The timed part is this process's startOfflineLogger(); the stop after it is not
// timed. Every iteration checks that the log files hold every byte the dead process
// appended, once, plus the recovery notice line.
//
// The program re-runs itself in a throw-away device root with the debug mask set.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchRoot.h"
#include "ZuDebugUtils.h"

using namespace zudebug;

namespace {

constexpr const char* kLogDir = "/data/vendor/camera/offlinelog";
constexpr const char* kPoolDir = "/data/vendor/camera/offlinelog/.pool";
constexpr unsigned kLineBytes = 100;
constexpr unsigned kBlockBytes = 1 << 20;
constexpr unsigned kLinesPerBlock = kBlockBytes / kLineBytes;  // a thread that stays in its first block
constexpr unsigned kBlocks = 16;
constexpr uint64_t kOneThreadBytes = 16ull << 20;
// The notice line a recovery writes before the recovered bytes is well below this.
constexpr uint64_t kNoticeSlack = 1024;

std::string gRoot;

// One 100-byte line in the offline layout, numbered.
void makeLine(char* line, unsigned thread, uint64_t n) {
  int len = snprintf(line, kLineBytes + 1,
                     "11-23 11:04:19.%06u  %5d %5u I ZuCamHAL [HAL ] pipeline.cpp:42 frame() frame %llu",
                     static_cast<unsigned>(n % 1000000), static_cast<int>(getpid()), thread,
                     static_cast<unsigned long long>(n));
  if (len < 0) len = 0;
  memset(line + len, ' ', kLineBytes - static_cast<unsigned>(len));
  line[kLineBytes - 1] = '\n';
}

// ---- the dying process ----

bool writeAll(int fd, const void* data, size_t len) {
  const auto* p = static_cast<const char*>(data);
  while (len > 0) {
    ssize_t w = write(fd, p, len);
    if (w <= 0) return false;
    p += w;
    len -= static_cast<size_t>(w);
  }
  return true;
}

// Starts the Debug logger, appends, tells the parent how many bytes through `fd`, and
// dies (FullPool waits for SIGKILL with every thread still owning its block).
int runDyingProcess(const char* mode, int fd) {
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  if (debug->startOfflineLogger() != 0) _exit(3);
  uint64_t bytes = 0;
  if (strcmp(mode, "full") == 0) {
    std::mutex m;
    std::condition_variable cv;
    unsigned done = 0;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kBlocks; ++t) {
      threads.emplace_back([&, t] {
        char line[kLineBytes + 1];
        for (unsigned i = 0; i < kLinesPerBlock; ++i) {
          makeLine(line, t, i);
          debug->addLogInterface(line, kLineBytes);
        }
        std::unique_lock<std::mutex> lock(m);
        ++done;
        cv.notify_all();
        // A thread that ends hands its queue over; these keep theirs until the kill.
        for (;;) cv.wait(lock);
      });
    }
    {
      std::unique_lock<std::mutex> lock(m);
      cv.wait(lock, [&] { return done == kBlocks; });
    }
    bytes = static_cast<uint64_t>(kBlocks) * kLinesPerBlock * kLineBytes;
    if (!writeAll(fd, &bytes, sizeof(bytes))) _exit(4);
    for (;;) pause();
  }
  char line[kLineBytes + 1];
  for (uint64_t n = 0; bytes < kOneThreadBytes; ++n) {
    makeLine(line, 0, n);
    debug->addLogInterface(line, kLineBytes);
    bytes += kLineBytes;
  }
  if (!writeAll(fd, &bytes, sizeof(bytes))) _exit(4);
  _exit(0);
}

// ---- this process ----

std::string hostPath(const char* devicePath) { return gRoot + devicePath; }

// Bytes in this logger type's files, and how many files.
uint64_t debugFileBytes(int* files = nullptr) {
  uint64_t total = 0;
  int count = 0;
  const std::string dir = hostPath(kLogDir);
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (strncmp(e->d_name, "ZuCam_Debug_", 12) != 0 || strstr(e->d_name, "ErrorMsg") != nullptr) continue;
      struct stat st;
      if (stat((dir + "/" + e->d_name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        total += static_cast<uint64_t>(st.st_size);
        ++count;
      }
    }
    closedir(d);
  }
  if (files != nullptr) *files = count;
  return total;
}

void removeDebugFiles() {
  const std::string dir = hostPath(kLogDir);
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (strncmp(e->d_name, "ZuCam_Debug_", 12) == 0) unlink((dir + "/" + e->d_name).c_str());
    closedir(d);
  }
}

int poolFiles() {
  int count = 0;
  if (DIR* d = opendir(hostPath(kPoolDir).c_str())) {
    while (dirent* e = readdir(d))
      if (strncmp(e->d_name, "ZuCam_", 6) == 0) ++count;
    closedir(d);
  }
  return count;
}

// Runs the dying process and returns the bytes it appended (0 on failure).
uint64_t leaveDeadPool(const char* mode, std::string* why) {
  int fds[2];
  if (pipe(fds) != 0) {
    *why = "pipe";
    return 0;
  }
  const std::string modeArg = std::string("--dying-process=") + mode;
  const std::string fdArg = std::to_string(fds[1]);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    char* args[] = {const_cast<char*>("recovery_bench"), const_cast<char*>(modeArg.c_str()),
                    const_cast<char*>(fdArg.c_str()), nullptr};
    execv("/proc/self/exe", args);
    _exit(127);
  }
  close(fds[1]);
  uint64_t bytes = 0;
  size_t got = 0;
  while (got < sizeof(bytes)) {
    ssize_t r = read(fds[0], reinterpret_cast<char*>(&bytes) + got, sizeof(bytes) - got);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  close(fds[0]);
  if (got < sizeof(bytes)) bytes = 0;
  if (strcmp(mode, "full") == 0) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  const bool expected = strcmp(mode, "full") == 0 ? WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL
                                                  : WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!expected || bytes == 0) {
    *why = "the dying process did not log and die as planned (status " + std::to_string(status) + ")";
    return 0;
  }
  if (poolFiles() != 1) {
    *why = "the dying process left " + std::to_string(poolFiles()) + " pool files, not 1";
    return 0;
  }
  return bytes;
}

void recoveryRun(benchmark::State& state, const char* mode) {
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  uint64_t recovered = 0;
  for (auto _ : state) {
    state.PauseTiming();
    removeDebugFiles();
    uint64_t logged = 0;
    if (mode != nullptr) {
      std::string why;
      logged = leaveDeadPool(mode, &why);
      if (logged == 0) {
        state.SkipWithError(why.c_str());
        break;
      }
    }
    const uint64_t before = debugFileBytes();
    state.ResumeTiming();

    const int started = debug->startOfflineLogger();

    state.PauseTiming();
    int files = 0;
    const uint64_t after = debugFileBytes(&files);
    const int pools = poolFiles();
    debug->stopOfflineLogger();
    if (started != 0) {
      state.SkipWithError("startOfflineLogger failed");
      break;
    }
    // Every appended byte in the files once, and the notice line.
    if (mode != nullptr && (after < logged || after - logged > kNoticeSlack)) {
      const std::string why = "log files hold " + std::to_string(after) + " bytes after recovery, " +
                              std::to_string(logged) + " were appended (" + std::to_string(files) + " files)";
      state.SkipWithError(why.c_str());
      break;
    }
    if (pools != 1) {
      const std::string why = std::to_string(pools) + " pool files after the start, expected only its own";
      state.SkipWithError(why.c_str());
      break;
    }
    recovered += after - before;
    state.ResumeTiming();
  }
  state.counters["recovered_MiB"] = benchmark::Counter(static_cast<double>(recovered) / 1048576.0 /
                                                       static_cast<double>(state.iterations()));
}

void BM_StartNothingToRecover(benchmark::State& state) { recoveryRun(state, nullptr); }
void BM_StartRecoverFullPool(benchmark::State& state) { recoveryRun(state, "full"); }
void BM_StartRecoverOneThread(benchmark::State& state) { recoveryRun(state, "one"); }
BENCHMARK(BM_StartNothingToRecover)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);
BENCHMARK(BM_StartRecoverFullPool)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);
BENCHMARK(BM_StartRecoverOneThread)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(10);

int runInRoot(char** argv) {
  const std::string root = benchroot::makeRoot("/tmp", "zudebug-recovery");
  if (root.empty()) return 1;
  struct statfs fs;
  if (statfs(root.c_str(), &fs) == 0 && fs.f_type == 0x01021994)  // TMPFS_MAGIC
    fprintf(stderr, "note: %s is on tmpfs; the pool file is not on a disk file system\n", root.c_str());
  return benchroot::runAgainIn(root, argv);
}

}  // namespace

int main(int argc, char** argv) {
  const char* root = getenv("ZUDEBUG_BENCH_ROOT");
  if (root == nullptr) return runInRoot(argv);
  gRoot = root;
  if (argc == 3 && strncmp(argv[1], "--dying-process=", 16) == 0)
    return runDyingProcess(argv[1] + 16, atoi(argv[2]));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

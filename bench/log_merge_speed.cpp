// zudebug-log merge against `LC_ALL=C sort -s -k1,2` over the same offline log files:
// ten full 10 MiB files that the Debug offline logger wrote while 8 threads logged.
//
//   log_merge_speed [--rounds=N] [--parent=DIR] [--keep]
//
// The program re-runs itself in a throw-away device root to write the files (hard links
// keep each finished file before rotation removes it), then times both programs
// alternately, output to /dev/null, and reports the median and range of the wall time,
// the throughput over the input bytes and the peak resident memory of each run. The
// merge's memory is also measured over 1, 10 and 20 files (the ten copied once more),
// and its output is checked to be the sort's, line for line.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "BenchRoot.h"
#include "ZuDebugUtils.h"

namespace {

constexpr int kThreads = 8;
constexpr int kFiles = 10;
constexpr uint64_t kFileBytes = 10485760;

struct Run {
  double seconds = 0;
  long maxRssKiB = 0;
  int status = -1;
};

double now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Runs argv with stdout to `out`, stderr to /dev/null; wall time and peak memory.
Run runTimed(const std::vector<std::string>& argv, const std::string& out,
             const std::vector<std::string>& env = {}) {
  std::vector<std::string> args = argv;
  std::vector<char*> argp;
  for (auto& a : args) argp.push_back(&a[0]);
  argp.push_back(nullptr);
  Run r;
  const double start = now();
  const pid_t pid = fork();
  if (pid == 0) {
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int n = open("/dev/null", O_WRONLY);
    dup2(o, STDOUT_FILENO);
    dup2(n, STDERR_FILENO);
    for (const std::string& e : env) putenv(strdup(e.c_str()));
    execvp(argp[0], argp.data());
    _exit(127);
  }
  struct rusage usage;
  wait4(pid, &r.status, 0, &usage);
  r.seconds = now() - start;
  r.maxRssKiB = usage.ru_maxrss;
  return r;
}

// The numbers of a log file's name stamp, to order by (the microseconds have no
// leading zeros, so the names do not sort as text).
std::vector<long> stampOf(const std::string& path) {
  std::vector<long> n(7, 0);
  const size_t at = path.find("ZuCam_Debug_");
  if (at != std::string::npos)
    sscanf(path.c_str() + at + 12, "%ld-%ld-%ld--%ld-%ld-%ld-%ld", &n[0], &n[1], &n[2], &n[3], &n[4], &n[5],
           &n[6]);
  return n;
}

// The time-stamped log files of a directory, oldest first.
std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> out;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (strncmp(e->d_name, "ZuCam_Debug_2", 13) == 0) out.push_back(dir + "/" + e->d_name);
    closedir(d);
  }
  std::sort(out.begin(), out.end(),
            [](const std::string& a, const std::string& b) { return stampOf(a) < stampOf(b); });
  return out;
}

uint64_t sizeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// In the device root: 8 threads log until kFiles files are finished; each finished
// file (one that a newer one follows) is linked into "kept" before rotation removes it.
int writeFiles(const std::string& root) {
  const std::string logDir = root + "/data/vendor/camera/offlinelog";
  const std::string kept = root + "/kept";
  mkdir(kept.c_str(), 0755);
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  if (debug->startOfflineLogger() != 0) return 1;
  std::atomic<bool> enough{false};
  std::thread keeper([&] {
    std::vector<std::string> linked;
    while (!enough) {
      const std::vector<std::string> files = filesIn(logDir);
      for (size_t i = 0; i + 1 < files.size(); ++i) {
        const std::string& f = files[i];
        if (std::find(linked.begin(), linked.end(), f) != linked.end() || sizeOf(f) < kFileBytes) continue;
        if (link(f.c_str(), (kept + f.substr(f.rfind('/'))).c_str()) == 0) linked.push_back(f);
      }
      if (linked.size() >= static_cast<size_t>(kFiles)) enough = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  static const char* const kFuncs[] = {"processRequest", "onResult", "queueBuffer", "runNode"};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &enough] {
      for (int i = 0; !enough; ++i) {
        const unsigned group = (t % 2 == 0) ? zudebug::ZU_GROUP_HAL : zudebug::ZU_GROUP_ALGOFWK;
        zudebug::Log::logSystem(group, i % 50 == 0 ? "W" : "D", "PipelineStage.cpp", kFuncs[i % 4], 100 + t,
                                "thread %d frame %d stage %d: buffer 0x%08x queued, depth %d, exposure %d us",
                                t, i, i % 7, i * 2654435761u, i % 9, 1000 + (i * 37) % 33000);
      }
    });
  for (auto& th : threads) th.join();
  keeper.join();
  debug->stopOfflineLogger();
  return 0;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 == 1 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 7;
  std::string parent = "/var/tmp";
  bool keep = false;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "--rounds=", 9) == 0) rounds = atoi(argv[i] + 9);
    if (strncmp(argv[i], "--parent=", 9) == 0) parent = argv[i] + 9;
    if (strcmp(argv[i], "--keep") == 0) keep = true;
  }
  if (const char* root = getenv("ZUDEBUG_BENCH_ROOT")) return writeFiles(root);

  const std::string root = benchroot::makeRoot(parent, "merge-bench");
  if (root.empty()) return 1;
  // The writer runs in the root; its finished files are moved out before the root goes.
  const std::string work = parent + "/merge-bench-files";
  benchroot::removeTree(work);
  mkdir(work.c_str(), 0755);
  if (benchroot::runChildIn(root, argv) != 0) {
    fprintf(stderr, "writing the log files failed\n");
    benchroot::removeTree(root);
    return 1;
  }
  std::vector<std::string> kept = filesIn(root + "/kept");
  if (kept.size() < static_cast<size_t>(kFiles)) {
    fprintf(stderr, "only %zu finished files\n", kept.size());
    benchroot::removeTree(root);
    return 1;
  }
  kept.resize(kFiles);
  std::vector<std::string> files;
  uint64_t bytes = 0;
  for (const std::string& f : kept) {
    const std::string to = work + f.substr(f.rfind('/'));
    if (rename(f.c_str(), to.c_str()) != 0) return 1;
    files.push_back(to);
    bytes += sizeOf(to);
  }
  benchroot::removeTree(root);
  uint64_t lines = 0;
  for (const std::string& f : files) {
    FILE* in = fopen(f.c_str(), "r");
    for (int c; in != nullptr && (c = fgetc_unlocked(in)) != EOF;) lines += c == '\n' ? 1 : 0;
    if (in != nullptr) fclose(in);
  }
  printf("input: %d files, %.1f MiB, %llu lines, written by %d threads\n", kFiles,
         static_cast<double>(bytes) / 1048576.0, static_cast<unsigned long long>(lines), kThreads);

  std::vector<std::string> mergeArgs = {ZUDEBUG_LOG_TOOL, "merge", work};
  std::vector<std::string> sortArgs = {"sort", "-s", "-k1,2"};
  sortArgs.insert(sortArgs.end(), files.begin(), files.end());
  const std::vector<std::string> cLocale = {"LC_ALL=C"};

  // Same order, line for line (same year, nine-digit nanoseconds, no lines without a stamp).
  const std::string mergedOut = work + "/merged.out", sortedOut = work + "/sorted.out";
  runTimed(mergeArgs, mergedOut);
  runTimed(sortArgs, sortedOut, cLocale);
  const Run cmp = runTimed({"cmp", "-s", mergedOut, sortedOut}, "/dev/null");
  printf("merge output identical to the sort's: %s\n",
         WIFEXITED(cmp.status) && WEXITSTATUS(cmp.status) == 0 ? "yes" : "NO");
  unlink(mergedOut.c_str());
  unlink(sortedOut.c_str());

  std::vector<double> mergeTimes, sortTimes;
  long mergeRss = 0, sortRss = 0;
  for (int r = 0; r < rounds; ++r) {
    for (int which = 0; which < 2; ++which) {
      const bool merge = (which == 0) == (r % 2 == 0);  // alternate who goes first
      const Run run = merge ? runTimed(mergeArgs, "/dev/null") : runTimed(sortArgs, "/dev/null", cLocale);
      if (!WIFEXITED(run.status) || WEXITSTATUS(run.status) != 0) {
        fprintf(stderr, "%s failed\n", merge ? "merge" : "sort");
        return 1;
      }
      (merge ? mergeTimes : sortTimes).push_back(run.seconds);
      long& rss = merge ? mergeRss : sortRss;
      rss = std::max(rss, run.maxRssKiB);
    }
  }
  const double mb = static_cast<double>(bytes) / 1e6;
  auto row = [&](const char* name, const std::vector<double>& t, long rss) {
    printf("%-32s median %7.3f s  [%7.3f - %7.3f]  %7.0f MB/s  peak RSS %6.1f MiB\n", name, median(t),
           *std::min_element(t.begin(), t.end()), *std::max_element(t.begin(), t.end()), mb / median(t),
           static_cast<double>(rss) / 1024.0);
  };
  printf("%d rounds, alternating, output to /dev/null:\n", rounds);
  row("zudebug-log merge", mergeTimes, mergeRss);
  row("LC_ALL=C sort -s -k1,2", sortTimes, sortRss);
  printf("merge is %.1fx faster (median)\n", median(sortTimes) / median(mergeTimes));

  // Memory against the amount of input: 1, 10 and 20 files (the ten once more, copied).
  const std::string twice = parent + "/merge-bench-twice";
  benchroot::removeTree(twice);
  mkdir(twice.c_str(), 0755);
  for (const std::string& f : files) {
    const std::string name = f.substr(f.rfind('/') + 1);
    runTimed({"cp", f, twice + "/" + name}, "/dev/null");
    runTimed({"cp", f, twice + "/" + name.substr(0, name.size() - 4) + "1.txt"}, "/dev/null");
  }
  const Run one = runTimed({ZUDEBUG_LOG_TOOL, "merge", files[0]}, "/dev/null");
  const Run ten = runTimed(mergeArgs, "/dev/null");
  const Run twenty = runTimed({ZUDEBUG_LOG_TOOL, "merge", twice}, "/dev/null");
  printf("merge peak RSS: 1 file %.1f MiB, 10 files %.1f MiB, 20 files %.1f MiB\n", one.maxRssKiB / 1024.0,
         ten.maxRssKiB / 1024.0, twenty.maxRssKiB / 1024.0);
  benchroot::removeTree(twice);
  if (!keep) benchroot::removeTree(work);
  return 0;
}

// Bytes the kernel is asked to write to storage while the Debug offline logger runs at
// a steady rate, from this process's /proc/self/io, with the logger's queues in a file
// mapping (the default), in anonymous memory (the pool directory unusable, so the
// logger falls back) or in a file on tmpfs.
//
//   flash_cost [--pool=disk|anon|tmpfs] [--rate=MiB/s] [--seconds=N] [--sample=N] [--parent=DIR]
//
// write_bytes counts a page each time it turns dirty (a write() into a clean page, or
// the first store into a clean page of a shared file mapping, which happens again after
// every writeback of that page); cancelled_write_bytes counts dirty pages dropped before
// writeback (a file truncated or removed). Their difference is what reaches the disk.
// The log files themselves count too; the difference between the variants at the same
// rate is the mapping's cost.
//
// The device root is made under --parent (default /var/tmp), which must not be tmpfs.
// The program re-runs itself in that root with the debug mask and the pool directory
// property set.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "BenchRoot.h"
#include "ZuDebugUtils.h"

using namespace zudebug;

namespace {

constexpr unsigned kLineBytes = 100;
constexpr long kTmpfsMagic = 0x01021994;

struct Options {
  std::string pool = "disk";
  double rateMiB = 1.0;
  int seconds = 75;
  int sample = 5;
  std::string parent = "/var/tmp";
};

struct Io {
  uint64_t write = 0;
  uint64_t cancelled = 0;
};

Io readIo() {
  Io io;
  if (FILE* f = fopen("/proc/self/io", "r")) {
    char name[64];
    unsigned long long value = 0;
    while (fscanf(f, "%63[^:]: %llu\n", name, &value) == 2) {
      if (strcmp(name, "write_bytes") == 0) io.write = value;
      if (strcmp(name, "cancelled_write_bytes") == 0) io.cancelled = value;
    }
    fclose(f);
  }
  return io;
}

double now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double mib(uint64_t bytes) { return static_cast<double>(bytes) / 1048576.0; }

bool onTmpfs(const std::string& path) {
  struct statfs fs;
  return statfs(path.c_str(), &fs) == 0 && static_cast<long>(fs.f_type) == kTmpfsMagic;
}

int poolFilesIn(const std::string& dir) {
  int n = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (strstr(e->d_name, ".pool") != nullptr) ++n;
    closedir(d);
  }
  return n;
}

// ---- the logging process ----

int runLoad(const Options& o, const std::string& root, const std::string& poolDir) {
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  if (debug->startOfflineLogger() != 0) {
    fprintf(stderr, "offline logging did not start\n");
    return 1;
  }
  const int pools = poolFilesIn(poolDir);
  printf("pool %s: %d pool file(s) in %s (%s)\n", o.pool.c_str(), pools, poolDir.c_str(),
         onTmpfs(poolDir) ? "tmpfs" : "not tmpfs");
  if ((o.pool == "anon") != (pools == 0)) {
    fprintf(stderr, "the pool is not where this variant wants it\n");
    return 1;
  }
  printf("root %s (%s), %.2f MiB/s of %u-byte lines for %d s\n", root.c_str(),
         onTmpfs(root) ? "tmpfs" : "disk", o.rateMiB, kLineBytes, o.seconds);
  printf("%6s %10s %12s %12s %12s\n", "t s", "logged MiB", "write MiB", "cancel MiB", "net MiB");

  const Io start = readIo();
  const double t0 = now();
  const double bytesPerSecond = o.rateMiB * 1048576.0;
  uint64_t logged = 0;
  uint64_t n = 0;
  char line[kLineBytes + 1];
  double nextSample = o.sample;
  for (;;) {
    const double t = now() - t0;
    if (t >= o.seconds) break;
    while (static_cast<double>(logged) < bytesPerSecond * t) {
      int len = snprintf(
          line, sizeof(line),
          "11-23 11:04:19.000000  %5d %5d I ZuCamHAL [HAL ] pipeline.cpp:42 frame() frame %llu",
          static_cast<int>(getpid()), static_cast<int>(getpid()), static_cast<unsigned long long>(n++));
      if (len < 0) len = 0;
      memset(line + len, ' ', kLineBytes - static_cast<unsigned>(len));
      line[kLineBytes - 1] = '\n';
      debug->addLogInterface(line, kLineBytes);
      logged += kLineBytes;
    }
    if (t >= nextSample) {
      const Io io = readIo();
      printf("%6.0f %10.1f %12.2f %12.2f %12.2f\n", t, mib(logged), mib(io.write - start.write),
             mib(io.cancelled - start.cancelled),
             mib(io.write - start.write) - mib(io.cancelled - start.cancelled));
      fflush(stdout);
      nextSample += o.sample;
    }
    usleep(2000);
  }
  const Io end = readIo();
  debug->stopOfflineLogger();
  const Io stopped = readIo();
  const double net = mib(end.write - start.write) - mib(end.cancelled - start.cancelled);
  printf(
      "summary pool=%s rate=%.2f seconds=%d logged_MiB=%.1f write_MiB=%.2f cancelled_MiB=%.2f "
      "net_MiB=%.2f net_per_logged_MiB=%.3f\n",
      o.pool.c_str(), o.rateMiB, o.seconds, mib(logged), mib(end.write - start.write),
      mib(end.cancelled - start.cancelled), net, net / mib(logged));
  printf("after stop: write_MiB=%.2f cancelled_MiB=%.2f (the pool file removed with its dirty pages)\n",
         mib(stopped.write - start.write), mib(stopped.cancelled - start.cancelled));
  return 0;
}

// Prepares a device root for the variant and runs this program again in it.
int runInRoot(const Options& o, char** argv) {
  const std::string root = benchroot::makeRoot(o.parent, "zudebug-flash");
  if (root.empty()) {
    perror("mkdtemp");
    return 1;
  }
  if (onTmpfs(root)) {
    fprintf(stderr, "%s is on tmpfs: choose a disk file system with --parent\n", root.c_str());
    benchroot::removeTree(root);
    return 1;
  }
  std::string poolProperty;  // device path
  std::string shm;
  if (o.pool == "anon") {
    // A plain file where a directory would have to be: the pool file cannot be made.
    if (FILE* f = fopen((root + "/blocker").c_str(), "w")) fclose(f);
    poolProperty = "/blocker/pool";
  } else if (o.pool == "tmpfs") {
    char shmTmpl[] = "/dev/shm/zudebug-flash-XXXXXX";
    if (mkdtemp(shmTmpl) == nullptr) {
      perror("mkdtemp /dev/shm");
      return 1;
    }
    shm = shmTmpl;
    if (symlink(shm.c_str(), (root + "/shm").c_str()) != 0) {
      perror("symlink");
      return 1;
    }
    poolProperty = "/shm/pool";
  }
  setenv("ZUDEBUG_BENCH_POOLDIR",
         (root + (poolProperty.empty() ? "/data/vendor/camera/offlinelog/.pool" : poolProperty)).c_str(), 1);
  const int status = benchroot::runAgainIn(
      root, argv,
      poolProperty.empty() ? "" : "persist.vendor.camera.offlinelog.pooldir=" + poolProperty + "\n");
  if (!shm.empty()) benchroot::removeTree(shm);
  return status;
}

bool parse(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char* key) -> const char* {
      const size_t n = strlen(key);
      return a.compare(0, n, key) == 0 ? argv[i] + n : nullptr;
    };
    if (const char* v = value("--pool=")) {
      o->pool = v;
    } else if (const char* v = value("--rate=")) {
      o->rateMiB = atof(v);
    } else if (const char* v = value("--seconds=")) {
      o->seconds = atoi(v);
    } else if (const char* v = value("--sample=")) {
      o->sample = atoi(v);
    } else if (const char* v = value("--parent=")) {
      o->parent = v;
    } else {
      return false;
    }
  }
  return (o->pool == "disk" || o->pool == "anon" || o->pool == "tmpfs") && o->rateMiB > 0 && o->seconds > 0 &&
         o->sample > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, &o)) {
    fprintf(stderr,
            "usage: %s [--pool=disk|anon|tmpfs] [--rate=MiB/s] [--seconds=N] [--sample=N] [--parent=DIR]\n",
            argv[0]);
    return 2;
  }
  const char* root = getenv("ZUDEBUG_BENCH_ROOT");
  if (root == nullptr) return runInRoot(o, argv);
  const char* poolDir = getenv("ZUDEBUG_BENCH_POOLDIR");
  return runLoad(o, root, poolDir != nullptr ? poolDir : "");
}

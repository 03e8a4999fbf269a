// zudebug-camera-host: prepares a device root, starts the simulated camera process
// against it (as the device would start the camera HAL), and shows what it left.
//
//   zudebug-camera-host [ROOT] [--crash[=segv|heap|assert] | --kill]
//
// ROOT defaults to /tmp/zudebug-camera-root and is recreated on every run. With --crash
// a pipeline thread dies of a real bug under the crash catcher, and the record it left
// is shown through zudebug-log. With --kill the camera process is killed with SIGKILL
// while its pipeline threads log, started again on the same root, and the lines it
// reported as logged are looked up on disk.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "CrashKind.h"
#include "FileNames.h"
#include "HostFiles.h"

namespace {

const char* kMarker = ".zudebug-camera-root";

using hostfiles::removeTree;

void mkdirs(const std::string& path) { hostfiles::makeDirs(path); }

void writeFile(const std::string& path, const std::string& text) {
  mkdirs(path.substr(0, path.rfind('/')));
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// A camera settings file as a vendor would ship it.
const char* kPraxSettings = R"({
  "UsePropPriority": false,
  "offlinedebugmask": 1,
  "Prax3LogGroupsEnable": 55039,
  "OpenEngineImageDump": false,
  "OpenLIFO": 2,
  "Soc": "SM8650",
  "CurrentTempFilePath": "/sys/class/thermal/thermal_message/board_sensor_temp",
  "NightBokehConcurrencyProcess": true,
  "SupportBinaryLog": true,
  "SrNodeHaveTwoOutPort": true,
  "JsonFileRemap": {
    "prop": "ro.boot.hwc",
    "prop_brand": "ro.product.brand",
    "map": [["0", "camera_config_global.json"], ["1", "camera_config_cn.json"],
            ["2", "camera_config_in.json"]]
  }
}
)";

const char* kDsacSettings = R"({
  "UsePropPriority": false,
  "enableDSACMoudle": true,
  "MaxStorageNum": 60,
  "HighTempDelayTime": 20000,
  "MinUfsSpeed": 3000000000,
  "WbAvailBufEmptyThMap": "256:4;512:2;1024:1",
  "ratio": 0.75
}
)";

// System properties of the device (ZUDEBUG_PROPS).
const char* kProps =
    "# device build\n"
    "ro.vendor.build.version.incremental=OS2.0.7.0.PRE\n"
    "ro.build.type=userdebug\n"
    "ro.debuggable=1\n"
    "ro.boot.hwc=1\n"
    "ro.product.brand=zorvex\n"
    "# camera logging\n"
    "persist.vendor.camera.prax.loglevel=3\n"
    "persist.vendor.camera.logentry=2\n"
    "vendor.camera.sensor.logsystem=1\n"
    "# DSAC storage tunables\n"
    "persist.vendor.camera.dsac.MaxStorageNum=80\n"
    "persist.vendor.camera.dsac.SDCardWriteType=1\n"
    "# guard monitor: a fast patrol, short request limits, request timeouts reported only\n"
    "vendor.camera.debug.intms=50\n"
    "vendor.camera.debug.rwarnms=300\n"
    "persist.vendor.camera.debug.reqabortms=600\n"
    "persist.vendor.camera.debug.reqabortenable=0\n";

// Lists the files under root/rel with their sizes; names starting with "." only when
// `hidden` is set ("." and ".." never).
void listFiles(const std::string& root, const std::string& rel, std::vector<std::string>& out,
               bool hidden = false) {
  DIR* d = opendir((root + "/" + rel).c_str());
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    if (hidden || e->d_name[0] != '.') names.push_back(e->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const auto& n : names) {
    std::string r = rel.empty() ? n : rel + "/" + n;
    struct stat st;
    if (stat((root + "/" + r).c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      listFiles(root, r, out, hidden);
    } else {
      char line[600];
      snprintf(line, sizeof(line), "%10lld  %s", static_cast<long long>(st.st_size), r.c_str());
      out.push_back(line);
    }
  }
}

const char* kOfflineDir = "data/vendor/camera/offlinelog";
const int kProgressFd = 3;              // the camera process reports logged lines here (--kill)
const int kKillAfterMs = 1500;          // logging time before the kill
const int kFirstLineTimeoutMs = 10000;  // a process that logs nothing by then is killed anyway

// Starts the camera process against `root` with `args`; a `progressFd` of 0 or more
// becomes the process's fd 3.
pid_t startCameraProcess(const std::string& root, const std::vector<std::string>& args, int progressFd) {
  std::string shown = ZUDEBUG_CAMERA_PROCESS;
  for (const auto& a : args) shown += " " + a;
  printf("starting the camera process %s\n", shown.c_str());
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    setenv("ZUDEBUG_ROOT", root.c_str(), 1);
    setenv("ZUDEBUG_PROPS", (root + "/props.txt").c_str(), 1);
    setenv("ZUDEBUG_LOGCAT", (root + "/logcat.txt").c_str(), 1);
    setenv("ZUDEBUG_ZEBQ", (root + "/zebq.txt").c_str(), 1);
    // The error-information file has a relative path: the process works in the root.
    if (chdir(root.c_str()) != 0) _exit(126);
    if (progressFd == kProgressFd) {
      if (fcntl(kProgressFd, F_SETFD, 0) != 0) _exit(126);
    } else if (progressFd >= 0 && dup2(progressFd, kProgressFd) < 0) {
      _exit(126);
    }
    std::vector<std::string> argStrings{ZUDEBUG_CAMERA_PROCESS};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStrings) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

void printEnd(int status) {
  if (WIFSIGNALED(status))
    printf("killed by signal %d (%s)\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
  else
    printf("exit status %d\n", WEXITSTATUS(status));
}

void printFileList(const std::string& root, const std::string& rel, bool hidden) {
  std::vector<std::string> files;
  listFiles(root, rel, files, hidden);
  for (const auto& f : files) printf("%s\n", f.c_str());
  if (files.empty()) printf("  (no files)\n");
}

// What the killed process reported on its pipe, one "<thread> <frame>" line per logged
// line: per pipeline thread, the last frame logged.
struct Progress {
  std::map<std::string, long> threads;
  std::string partial;

  // Reads what the pipe holds; false at its end.
  bool read(int fd) {
    char buf[4096];
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n <= 0) return false;
    partial.append(buf, static_cast<size_t>(n));
    for (size_t eol; (eol = partial.find('\n')) != std::string::npos; partial.erase(0, eol + 1)) {
      const std::string line = partial.substr(0, eol);
      const size_t space = line.rfind(' ');
      if (space == std::string::npos) continue;
      long& last = threads[line.substr(0, space)];
      last = std::max(last, atol(line.c_str() + space + 1));
    }
    return true;
  }
};

// The Debug logger's rotating files, "ZuCam_Debug_<time>.txt", oldest first.
std::vector<std::string> debugLogFiles(const std::string& root) {
  std::vector<std::string> names;
  if (DIR* d = opendir((root + "/" + kOfflineDir).c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.rfind("ZuCam_Debug_", 0) == 0 && name.size() > 12 && name[12] >= '0' && name[12] <= '9')
        names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return numbersOf(a) != numbersOf(b) ? numbersOf(a) < numbersOf(b) : a < b;
  });
  return names;
}

// The process id of an offline line ("MM-DD hh:mm:ss:ns  pid  tid L ..."), or -1.
long pidOf(const std::string& line) {
  long pid = -1, tid = -1;
  return sscanf(line.c_str(), "%*s %*s %ld %ld", &pid, &tid) == 2 ? pid : -1;
}

// --kill: kills the camera process while it logs, starts it again on the same root, and
// checks that every line it reported as logged is in the offline files exactly once.
int runKill(const std::string& root) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    perror("pipe2");
    return 1;
  }
  const pid_t pid = startCameraProcess(root, {"--kill"}, fds[1]);
  close(fds[1]);

  // Wait for the first reported line, then let the pipeline threads log for a while.
  using Clock = std::chrono::steady_clock;
  Progress progress;
  Clock::time_point first{};
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kFirstLineTimeoutMs);
  for (bool open = true; open;) {
    const long long left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) break;
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    open = progress.read(fds[0]);
    if (first == Clock::time_point{} && !progress.threads.empty()) {
      first = Clock::now();
      deadline = first + std::chrono::milliseconds(kKillAfterMs);
    }
  }
  kill(pid, SIGKILL);
  const Clock::time_point killedAt = Clock::now();
  int status = 0;
  waitpid(pid, &status, 0);
  // Reports written before the kill are still in the pipe.
  while (progress.read(fds[0])) {
  }
  close(fds[0]);

  if (first == Clock::time_point{})
    printf("\n== SIGKILL to the camera process (pid %d): it reported no line in %d ms ==\n", pid,
           kFirstLineTimeoutMs);
  else
    printf("\n== SIGKILL to the camera process (pid %d), %.2f s after its first logged line ==\n", pid,
           std::chrono::duration<double>(killedAt - first).count());
  printEnd(status);
  const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  printf("lines it reported as logged (pipe on its fd %d):\n", kProgressFd);
  for (const auto& t : progress.threads) printf("  %-11s frames 1-%ld\n", t.first.c_str(), t.second);

  printf("\n== %s right after the kill ==\n", kOfflineDir);
  printFileList(root, kOfflineDir, true);

  printf("\n== the camera process again, on the same root ==\n");
  const pid_t again = startCameraProcess(root, {"--restart"}, -1);
  int againStatus = 0;
  waitpid(again, &againStatus, 0);
  printf("\n== the camera process ended ==\n");
  printEnd(againStatus);

  printf("\n== files under %s ==\n", root.c_str());
  printFileList(root, "", false);
  const std::string poolDir = std::string(kOfflineDir) + "/.pool";
  printf("%s:\n", poolDir.c_str());
  printFileList(root, poolDir, true);

  // Every line of the Debug files: the recovery lines, the lines of the killed process
  // after the first one that names it, and per pipeline thread how often each frame appears.
  const char* kRecovered = "OfflineLogger recovered ";
  char notice[64];
  snprintf(notice, sizeof(notice), " bytes of process %d from ", pid);
  std::vector<std::string> recoveryLines;
  std::vector<std::string> recovered;
  unsigned long long recoveredBytes = 0, announcedBytes = 0;
  std::map<std::string, std::map<long, int>> seen;
  for (const std::string& name : debugLogFiles(root)) {
    std::ifstream in(root + "/" + kOfflineDir + "/" + name);
    for (std::string line; std::getline(in, line);) {
      const size_t at = line.find(kRecovered);
      if (at != std::string::npos) {
        recoveryLines.push_back(std::string(kOfflineDir) + "/" + name + ":\n  " + line);
        if (line.find(notice) != std::string::npos && announcedBytes == 0)
          announcedBytes = strtoull(line.c_str() + at + strlen(kRecovered), nullptr, 10);
        continue;
      }
      if (announcedBytes != 0 && pidOf(line) == pid) {
        recovered.push_back(line);
        recoveredBytes += line.size() + 1;
      }
      for (const auto& t : progress.threads) {
        const std::string key = t.first + ": frame ";
        const size_t k = line.find(key);
        if (k != std::string::npos) ++seen[t.first][atol(line.c_str() + k + key.size())];
      }
    }
  }

  printf("\n== recovery ==\n");
  for (const auto& r : recoveryLines) printf("%s\n", r.c_str());
  if (recoveryLines.empty())
    printf("no recovery line in the Debug files\n");
  else
    printf("%zu lines of process %d follow it: %llu bytes (the recovery line says %llu)\n", recovered.size(),
           pid, recoveredBytes, announcedBytes);
  const size_t kShow = 3;
  for (size_t i = 0; i < recovered.size(); ++i) {
    if (i == kShow && recovered.size() > 2 * kShow) {
      printf("  ...\n");
      i = recovered.size() - kShow;
    }
    printf("  %s\n", recovered[i].c_str());
  }

  printf("\n== reported lines in the Debug files ==\n");
  printf("  %-11s %8s %8s %8s %8s %11s\n", "thread", "reported", "on disk", "missing", "doubled",
         "unreported");
  long missingAll = 0, doubledAll = 0;
  for (const auto& t : progress.threads) {
    const std::map<long, int>& frames = seen[t.first];
    long onDisk = 0, missing = 0, doubled = 0, unreported = 0;
    for (const auto& f : frames) {
      onDisk += f.second;
      if (f.second > 1) ++doubled;
      if (f.first > t.second) ++unreported;
    }
    for (long f = 1; f <= t.second; ++f)
      if (frames.count(f) == 0) ++missing;
    printf("  %-11s %8ld %8ld %8ld %8ld %11ld\n", t.first.c_str(), t.second, onDisk, missing, doubled,
           unreported);
    missingAll += missing;
    doubledAll += doubled;
  }
  const bool exact = missingAll == 0 && doubledAll == 0 && !progress.threads.empty();
  const bool noticed = recoveryLines.size() == 1 && announcedBytes > 0 && recoveredBytes == announcedBytes;
  printf("every reported line on disk exactly once: %s\n", exact ? "yes" : "NO");
  printf("one recovery line, its byte count matching the lines after it: %s\n", noticed ? "yes" : "NO");
  return killed && WIFEXITED(againStatus) && WEXITSTATUS(againStatus) == 0 && exact && noticed ? 0 : 1;
}

// The crash records the camera process left, read by zudebug-log (built beside this
// program) with the lines before them and every frame symbolised; without the tool,
// the record lines as the files hold them.
void printCrashRecords(const std::string& root, pid_t pid) {
  const std::string offline = root + "/" + kOfflineDir;
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  std::string tool = n > 0 ? std::string(self, static_cast<size_t>(n)) : "";
  tool = tool.substr(0, tool.rfind('/') + 1) + "zudebug-log";
  if (access(tool.c_str(), X_OK) == 0) {
    printf("\n== the crash record: zudebug-log crash --context 5 %s ==\n", offline.c_str());
    fflush(stdout);
    const pid_t reader = fork();
    if (reader == 0) {
      execl(tool.c_str(), tool.c_str(), "crash", "--context", "5", offline.c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = 0;
    if (reader > 0) waitpid(reader, &status, 0);
    if (reader < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      printf("zudebug-log did not finish: ");
      printEnd(status);
    }
    return;
  }
  printf("\n== the crash record (%s not built: its lines as written) ==\n", tool.c_str());
  size_t count = 0;
  for (const std::string& name : debugLogFiles(root)) {
    std::ifstream in(offline + "/" + name);
    for (std::string line; std::getline(in, line);) {
      if (pidOf(line) != pid || line.find(" F DEBUG   : ") == std::string::npos) continue;
      printf("%s\n", line.c_str());
      ++count;
    }
  }
  if (count == 0) printf("no crash record of process %d in %s\n", pid, offline.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  std::string root = "/tmp/zudebug-camera-root";
  std::vector<std::string> passOn;
  bool killRun = false;
  for (int i = 1; i < argc; ++i) {
    CrashKind kind;
    if (isCrashArg(argv[i])) {
      if (!parseCrashArg(argv[i], &kind)) {
        fprintf(stderr, "%s: not a crash the camera process knows (%s)\n", argv[i], kCrashKinds);
        return 2;
      }
      if (!passOn.empty()) {
        fprintf(stderr, "one --crash at a time\n");
        return 2;
      }
      passOn.push_back(argv[i]);
    } else if (strcmp(argv[i], "--kill") == 0) {
      killRun = true;
    } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      printf("usage: %s [ROOT] [--crash[=segv|heap|assert] | --kill]\n", argv[0]);
      return 0;
    } else {
      root = argv[i];
    }
  }
  if (killRun && !passOn.empty()) {
    fprintf(stderr, "--crash and --kill are separate runs\n");
    return 2;
  }
  char abs[4096];
  mkdirs(root);
  if (realpath(root.c_str(), abs) == nullptr) {
    fprintf(stderr, "cannot use %s as device root\n", root.c_str());
    return 1;
  }
  root = abs;
  // Only a root this program made is wiped, so a mistyped path cannot cost anyone files.
  DIR* d = opendir(root.c_str());
  bool empty = true;
  while (d != nullptr && readdir(d) != nullptr) empty = false;
  if (d) closedir(d);
  struct stat st;
  if (stat((root + "/" + kMarker).c_str(), &st) == 0) {
    removeTree(root);
  } else if (!empty) {
    // readdir saw "." and ".."; look for real entries.
    std::vector<std::string> entries;
    listFiles(root, "", entries);
    if (!entries.empty()) {
      fprintf(stderr, "%s holds files that this program did not make; choose another root\n", root.c_str());
      return 1;
    }
  }
  mkdirs(root);
  writeFile(root + "/" + kMarker, "");
  writeFile(root + "/odm/etc/camera/zorvex/praxsettings.json", kPraxSettings);
  writeFile(root + "/odm/etc/camera/zorvex/DSACSettings.json", kDsacSettings);
  writeFile(root + "/props.txt", kProps);
  mkdirs(root + "/data/vendor/camera/offlinelog");

  printf("device root     : %s\n", root.c_str());
  printf("  settings      : odm/etc/camera/zorvex/praxsettings.json, DSACSettings.json\n");
  printf("  properties    : props.txt (ZUDEBUG_PROPS)\n");
  printf("  Android log   : logcat.txt (ZUDEBUG_LOGCAT)\n");
  printf("  error service : zebq.txt (ZUDEBUG_ZEBQ)\n");
  if (killRun) return runKill(root);

  pid_t pid = startCameraProcess(root, passOn, -1);
  int status = 0;
  waitpid(pid, &status, 0);
  printf("\n== the camera process ended ==\n");
  printEnd(status);

  printf("\n== files under %s ==\n", root.c_str());
  std::vector<std::string> files;
  listFiles(root, "", files);
  for (const auto& f : files) printf("%s\n", f.c_str());

  std::vector<std::string> logcat;
  std::ifstream in(root + "/logcat.txt");
  for (std::string line; std::getline(in, line);) logcat.push_back(line);
  const size_t kTail = 15;
  printf("\n== last %zu of %zu Android log records (logcat.txt) ==\n", std::min(kTail, logcat.size()),
         logcat.size());
  for (size_t i = logcat.size() > kTail ? logcat.size() - kTail : 0; i < logcat.size(); ++i)
    printf("%s\n", logcat[i].c_str());
  if (!passOn.empty()) printCrashRecords(root, pid);
  bool expectedCrash = !passOn.empty() && WIFSIGNALED(status);
  return (WIFEXITED(status) && WEXITSTATUS(status) == 0) || expectedCrash ? 0 : 1;
}

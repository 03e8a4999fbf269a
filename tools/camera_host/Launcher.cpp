// zudebug-camera-host: prepares a device root, starts the simulated camera process
// against it (as the device would start the camera HAL), and shows what it left.
//
//   zudebug-camera-host [ROOT] [--crash]
//
// ROOT defaults to /tmp/zudebug-camera-root and is recreated on every run.
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace {

const char* kMarker = ".zudebug-camera-root";

void mkdirs(const std::string& path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
}

void removeTree(const std::string& path) {
  if (DIR* d = opendir(path.c_str())) {
    while (dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
      std::string p = path + "/" + e->d_name;
      struct stat st;
      if (lstat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        removeTree(p);
      else
        unlink(p.c_str());
    }
    closedir(d);
  }
  rmdir(path.c_str());
}

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

void listFiles(const std::string& root, const std::string& rel, std::vector<std::string>& out) {
  DIR* d = opendir((root + "/" + rel).c_str());
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') names.push_back(e->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const auto& n : names) {
    std::string r = rel.empty() ? n : rel + "/" + n;
    struct stat st;
    if (stat((root + "/" + r).c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      listFiles(root, r, out);
    } else {
      char line[600];
      snprintf(line, sizeof(line), "%10lld  %s", static_cast<long long>(st.st_size), r.c_str());
      out.push_back(line);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string root = "/tmp/zudebug-camera-root";
  std::vector<std::string> passOn;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--crash") == 0) {
      passOn.push_back(argv[i]);
    } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
      printf("usage: %s [ROOT] [--crash]\n", argv[0]);
      return 0;
    } else {
      root = argv[i];
    }
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
  printf("starting the camera process %s%s\n", ZUDEBUG_CAMERA_PROCESS, passOn.empty() ? "" : " --crash");
  fflush(stdout);

  pid_t pid = fork();
  if (pid == 0) {
    setenv("ZUDEBUG_ROOT", root.c_str(), 1);
    setenv("ZUDEBUG_PROPS", (root + "/props.txt").c_str(), 1);
    setenv("ZUDEBUG_LOGCAT", (root + "/logcat.txt").c_str(), 1);
    setenv("ZUDEBUG_ZEBQ", (root + "/zebq.txt").c_str(), 1);
    // The error-information file has a relative path: the process works in the root.
    if (chdir(root.c_str()) != 0) _exit(126);
    std::vector<char*> args;
    std::string exe = ZUDEBUG_CAMERA_PROCESS;
    args.push_back(&exe[0]);
    for (auto& a : passOn) args.push_back(&a[0]);
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  printf("\n== the camera process ended ==\n");
  if (WIFSIGNALED(status))
    printf("killed by signal %d (%s)\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
  else
    printf("exit status %d\n", WEXITSTATUS(status));

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
  bool expectedCrash = !passOn.empty() && WIFSIGNALED(status);
  return (WIFEXITED(status) && WEXITSTATUS(status) == 0) || expectedCrash ? 0 : 1;
}

// Offline logging: the loggers start, pipeline threads log into their own queues, an
// error is escalated (which forces the log to disk), the loggers stop and the files
// they left are shown. The loggers are started again for the later scenes.
#include <dirent.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Scenes.h"
#include "ZuDebugUtils.h"
#include "FileNames.h"

using namespace zudebug;

namespace {

const char* kOfflineDir = "data/vendor/camera/offlinelog";

std::vector<std::string> offlineFiles() {
  std::vector<std::string> names;
  if (DIR* d = opendir(kOfflineDir)) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return numbersOf(a) != numbersOf(b) ? numbersOf(a) < numbersOf(b) : a < b;
  });
  return names;
}

void pipelineThread(const char* name, unsigned int group, int frames) {
  pthread_setname_np(pthread_self(), name);
  for (int frame = 0; frame < frames; ++frame) {
    ZU_GLOGD(group, "%s: frame %d stage %d done in %d us", name, frame, frame % 5, 800 + frame % 300);
    if (frame % 500 == 0) ZU_GLOGI(group, "%s: %d frames so far", name, frame);
  }
}

}  // namespace

void runOfflineScene(const HostOptions&) {
  sceneHeading("offline log");
  ZuDebugInterface* debug = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Debug);
  ZuDebugInterface* binary = ZuDebugInterface::getInstance(ZuOfflineLoggerType::Binary);
  printf("debug mask %u: offline logging %s\n", gZuCamDebugMask, debug->isEnabled() ? "on" : "off");
  printf("start Debug logger: %d, Binary logger: %d\n", debug->startOfflineLogger(),
         binary->startOfflineLogger());

  const struct {
    const char* name;
    unsigned int group;
  } pipeline[] = {{"RequestThd", ZU_GROUP_HAL},
                  {"PreviewThd", ZU_GROUP_CORE},
                  {"CaptureThd", ZU_GROUP_ALGOFWK},
                  {"MetaThd", ZU_GROUP_META}};
  const int frames = 3000;
  std::vector<std::thread> threads;
  for (const auto& p : pipeline) threads.emplace_back(pipelineThread, p.name, p.group, frames);
  for (auto& t : threads) t.join();
  printf("4 pipeline threads logged %d lines each\n", frames + frames / 500);

  const char record[] = "\x01\x02 binary record of a host\n";
  binary->addLogInterface(record, sizeof(record) - 1);
  // vendor.camera.sensor.logsystem=1: the error forces the offline log to disk first.
  ZU_GLOGE(ZU_GROUP_HAL, "sensor %d: frame %d timed out", 0, 1234);
  std::string zebq;
  std::ifstream reports("zebq.txt");
  for (std::string line; std::getline(reports, line);) zebq = line;
  printf("error escalated, error service got: \"%s\"\n", zebq.c_str());

  debug->stopOfflineLogger();
  binary->stopOfflineLogger();
  printf("loggers stopped; files in %s:\n", kOfflineDir);
  std::string newest;
  for (const std::string& name : offlineFiles()) {
    struct stat st;
    std::string path = std::string(kOfflineDir) + "/" + name;
    if (stat(path.c_str(), &st) != 0) continue;
    printf("  %9lld  %s\n", static_cast<long long>(st.st_size), path.c_str());
    if (name.rfind("ZuCam_Debug_2", 0) == 0) newest = path;
  }
  if (!newest.empty()) {
    std::ifstream in(newest);
    std::vector<std::string> tail;
    for (std::string line; std::getline(in, line);) {
      tail.push_back(line);
      if (tail.size() > 3) tail.erase(tail.begin());
    }
    printf("last lines of %s:\n", newest.c_str());
    for (const std::string& line : tail) printf("  %.150s\n", line.c_str());
  }

  // The later scenes keep logging offline; the last one stops the loggers.
  printf("start again: Debug %d, Binary %d\n", debug->startOfflineLogger(), binary->startOfflineLogger());
}

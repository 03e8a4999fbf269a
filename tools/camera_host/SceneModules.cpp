// Module diagnostics and DSAC tunables, as the camera HAL uses them: the modules
// report memory and state, the memory-information file and the module dump are shown,
// and the storage pipeline's tunables are resolved from the DSAC settings file, the
// properties and the table defaults.
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "PRAXDiagnostician.h"
#include "PropertyControll.h"
#include "Scenes.h"

using namespace zudebug;

namespace {

constexpr uint64_t kMiB = 1048576;

ModuleDiagnostician::MemCallback reportMiB(uint64_t mib) {
  return [mib](int) {
    auto info = std::make_shared<MemInfo>();
    info->size = mib * kMiB;
    return info;
  };
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// The file's value of `name` as text, from whichever typed map holds it.
bool fileValue(const PraxDsacSettings& s, const std::string& name, std::string& out) {
  if (auto it = s.mBoolMap.find(name); it != s.mBoolMap.end())
    out = it->second ? "true" : "false";
  else if (auto it = s.mIntMap.find(name); it != s.mIntMap.end())
    out = std::to_string(it->second);
  else if (auto it = s.mUint32Map.find(name); it != s.mUint32Map.end())
    out = std::to_string(it->second);
  else if (auto it = s.mUint64Map.find(name); it != s.mUint64Map.end())
    out = std::to_string(it->second);
  else if (auto it = s.mStringMap.find(name); it != s.mStringMap.end())
    out = it->second;
  else
    return false;
  return true;
}

// A set property first when the file gives properties priority, the file first
// otherwise; the table default last.
void printTunable(PraxDsacSettings& s, const std::string& name) {
  std::string fromFile;
  bool inFile = fileValue(s, name, fromFile);
  std::string prop = s.getPropName(name, PROP_NAME_INDEX);
  char propValue[92];
  bool propSet = s.getPropValue(prop.c_str(), propValue);
  const char* source;
  std::string value;
  if (propSet && (s.mUsePropPriority || !inFile)) {
    source = "property";
    value = propValue;
  } else if (inFile) {
    source = "file";
    value = fromFile;
  } else {
    source = "default";
    value = s.getPropName(name, DEFAULT_VALUE_INDEX);
  }
  printf("  %-22s %-7s = %-20s (%s)\n", name.c_str(), s.getPropName(name, TYPE_INDEX).c_str(), value.c_str(),
         source);
}

}  // namespace

void runModulesScene(const HostOptions& opts) {
  sceneHeading("Module diagnostics");
  // Memory reports and dumps on; the snapshot switches stay as the snapshot scene left them.
  SnapDiagnostician::getInstance()->init(snapshotEnable, snapshotDumpAll, snapshotLogPrint, 1, 1);
  ModuleDiagnostician* diag = ModuleDiagnostician::getInstance();

  diag->registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reportMiB(180));
  diag->registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reportMiB(32));
  diag->registerCallbackFuncs(MODULE_ZUALGOENGINE_MEM, MODULE_USAGE_MEMORY, reportMiB(96));
  diag->registerCallbackFuncs(MODULE_METADATA_MEM, MODULE_USAGE_MEMORY, reportMiB(3));
  // A plug-in that has been unloaded: it answers null and drops out of the sums.
  diag->registerCallbackFuncs(
      MODULE_ZUALGOENGINE_MEM, MODULE_USAGE_MEMORY,
      ModuleDiagnostician::MemCallback([](int) { return std::shared_ptr<MemInfo>(); }));
  diag->registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP,
                              ModuleDiagnostician::StringCallback([](bool&) {
                                return std::string("ZuHal: camera 0 open, 1 session, 4 requests in flight");
                              }));
  diag->registerCallbackFuncs(MODULE_ZUALGOENGINE_DUMP, MODULE_USAGE_DUMP,
                              ModuleDiagnostician::StringCallback([](bool&) {
                                return std::string("ZuAlgoEngine: 2 pipelines loaded, queue idle");
                              }));
  diag->syncRegistrations();

  // The memory thread rewrites the file every 10 seconds; ask for a pass now.
  const std::string memInfo = opts.root + "/data/vendor/camera/praxmeminfo.txt";
  unlink(memInfo.c_str());
  diag->triggerMemInfoUpdate();
  std::string line;
  for (int i = 0; i < 100 && line.empty(); ++i) {
    usleep(20 * 1000);
    line = readAll(memInfo);
  }
  printf("data/vendor/camera/praxmeminfo.txt:\n  %s\n", line.empty() ? "(not written)" : line.c_str());

  printf("camera service dump (dumpPraxCore):\n");
  fflush(stdout);
  diag->dumpPraxCore(STDOUT_FILENO);

  PraxDsacSettings* dsac = PraxDsacSettings::getInstance();
  printf("DSAC tunables (DSACSettings.json, %s first):\n", dsac->mUsePropPriority ? "properties" : "file");
  for (const char* name :
       {"enableDSACMoudle", "MaxStorageNum", "SDCardWriteType", "HighTempDelayTime", "MinUfsSpeed",
        "WbAvailBufEmptyThMap", "UfsCapacityFile", "forceEnableDSACStorage"})
    printTunable(*dsac, name);
  diag->clearCallbackFuncs();
}

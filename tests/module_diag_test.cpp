// The module diagnostician: memory sums and the memory-information file, state dumps
// with their banners, the probe counter, and the diagnostics switches. The switches are
// process-wide, so each case runs in a child process of its own.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>

#include "PRAXDiagnostician.h"
#include "TestSupport.h"

using namespace zudebug;
using zutest::inChild;
using zutest::TempRoot;

namespace {

const char* const kMemInfo = "data/vendor/camera/praxmeminfo.txt";
constexpr uint64_t kMiB = 1048576;

ModuleDiagnostician::MemCallback reporting(uint64_t bytes, std::atomic<int>* calls = nullptr) {
  return [bytes, calls](int) -> std::shared_ptr<MemInfo> {
    if (calls != nullptr) ++*calls;
    auto info = std::make_shared<MemInfo>();
    info->size = bytes;
    return info;
  };
}

// Waits (generously) for `done`, checking every 50 ms.
template <typename F>
bool eventually(F done, int seconds = 60) {
  for (int i = 0; i < seconds * 20; ++i) {
    if (done()) return true;
    usleep(50 * 1000);
  }
  return done();
}

// Everything dumpPraxCore writes.
std::string dumpText(ModuleDiagnostician& d) {
  FILE* f = tmpfile();
  d.dumpPraxCore(fileno(f));
  std::string out;
  rewind(f);
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) out.append(buf, n);
  fclose(f);
  return out;
}

// Sets the module switches through the snapshot service and stops its handler thread
// when the test is done, as a host does.
struct Switches {
  Switches(int memEnable, int dumpEnable) { set(memEnable, dumpEnable); }
  ~Switches() { SnapDiagnostician::getInstance()->stop(); }
  void set(int memEnable, int dumpEnable) {
    SnapDiagnostician::getInstance()->init(0, 0, 0, memEnable, dumpEnable);
  }
};

void runInChild(const std::string& test, const TempRoot& root) {
  root.setProps({{"persist.vendor.camera.prax.loglevel", "0"}});
  auto r = zutest::runChild("ModuleDiag." + test, root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
}

}  // namespace

TEST(ModuleDiag, CaculateMemSumsAndDropsGoneModules) {
  ModuleDiagnostician d;  // switches off: no thread work, no registrations
  std::atomic<int> goneCalls{0};
  ModuleDiagnostician::MemCallbackList list{reporting(100 * kMiB),
                                            [&goneCalls](int) -> std::shared_ptr<MemInfo> {
                                              ++goneCalls;
                                              return nullptr;
                                            },
                                            reporting(kMiB / 2)};
  EXPECT_EQ(d.caculateMem(list), 100 * kMiB + kMiB / 2);
  EXPECT_EQ(list.size(), 2u);
  EXPECT_EQ(d.caculateMem(list), 100 * kMiB + kMiB / 2);
  EXPECT_EQ(goneCalls.load(), 1);
  ModuleDiagnostician::MemCallbackList empty;
  EXPECT_EQ(d.caculateMem(empty), 0u);
  EXPECT_EQ(d.caculateMem(list = {reporting(5ull << 30)}), 5ull << 30);  // the sum itself is 64-bit
}

// The one test that lets a full 10-second period pass.
TEST(ModuleDiag, MemoryThreadWritesEveryPeriod) {
  if (inChild()) {
    Switches switches(1, 0);
    ModuleDiagnostician d;
    const std::string path = "./" + std::string(kMemInfo);
    // Nothing registered: an update pass writes nothing and the thread idles until the
    // first registration starts its periods.
    d.triggerMemInfoUpdate();
    usleep(300 * 1000);
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
    d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(100 * kMiB));
    d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(50 * kMiB + kMiB / 2));
    d.registerCallbackFuncs(MODULE_ZUALGOENGINE_MEM, MODULE_USAGE_MEMORY, reporting(96 * kMiB));
    d.registerCallbackFuncs(MODULE_METADATA_MEM, MODULE_USAGE_MEMORY, reporting(3 * kMiB));
    d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, ModuleDiagnostician::MemCallback());
    ASSERT_TRUE(eventually([&] { return !zutest::readFile(path).empty(); }));
    EXPECT_TRUE(
        std::regex_match(zutest::readFile(path),
                         std::regex("[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]:[0-9]{1,3}  "
                                    "zuhalDmaSize:150, zualgoEngineDmaSize:96, zuMetadataSize:3")))
        << zutest::readFile(path);
    return;
  }
  TempRoot root;
  runInChild("MemoryThreadWritesEveryPeriod", root);
}

TEST(ModuleDiag, TriggeredUpdateTruncatesAndForgetsNullReporters) {
  if (inChild()) {
    Switches switches(1, 0);
    ModuleDiagnostician* d = ModuleDiagnostician::getInstance();
    EXPECT_EQ(ModuleDiagnostician::getInstance(), d);
    std::atomic<int> goneCalls{0}, liveCalls{0};
    d->registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(3ull << 30, &liveCalls));
    d->registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(2ull << 30));
    d->registerCallbackFuncs(MODULE_ZUALGOENGINE_MEM, MODULE_USAGE_MEMORY,
                             [&](int) -> std::shared_ptr<MemInfo> {
                               ++goneCalls;
                               return nullptr;
                             });
    d->syncRegistrations();
    for (int round = 1; round <= 3; ++round) {
      d->triggerMemInfoUpdate();
      ASSERT_TRUE(eventually([&] { return liveCalls.load() >= round; }));
    }
    // 5 GiB kept in 32 bits leaves 1 GiB.
    ASSERT_TRUE(eventually(
        [&] { return zutest::readFile(kMemInfo).find(" zuhalDmaSize:1024, ") != std::string::npos; }));
    EXPECT_NE(zutest::readFile(kMemInfo).find("zualgoEngineDmaSize:0, zuMetadataSize:0"), std::string::npos);
    EXPECT_EQ(goneCalls.load(), 1);
    d->clearCallbackFuncs();
    d->triggerMemInfoUpdate();
    return;
  }
  TempRoot root;
  runInChild("TriggeredUpdateTruncatesAndForgetsNullReporters", root);
}

TEST(ModuleDiag, UnwritableMemInfoFileIsLogged) {
  if (inChild()) {
    Switches switches(1, 0);
    ModuleDiagnostician d;
    d.registerCallbackFuncs(MODULE_METADATA_MEM, MODULE_USAGE_MEMORY, reporting(kMiB));
    d.syncRegistrations();
    d.triggerMemInfoUpdate();
    EXPECT_TRUE(eventually([] {
      return zutest::countSubstr(zutest::readFile("logcat.txt"), "open praxmeminfo.txt failed!") > 0;
    }));
    return;
  }
  TempRoot root;
  root.writeFile(std::string(kMemInfo) + "/blocker", "");  // a directory where the file goes
  runInChild("UnwritableMemInfoFileIsLogged", root);
  EXPECT_TRUE(std::regex_search(zutest::readFile(root.logcatFile()),
                                std::regex("E/Prax-Diagnostician: \\[HAL \\] PRAXDiagnostician\\.cpp:[0-9]+ "
                                           "writePraxMemInfoToFile\\(\\)open praxmeminfo.txt failed!\n")));
}

TEST(ModuleDiag, DumpCoreBannersAndGoneModules) {
  if (inChild()) {
    ModuleDiagnostician d;
    // Switches still off: nothing written, registrations dropped.
    d.registerCallbackFuncs(
        MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP,
        ModuleDiagnostician::StringCallback([](bool&) { return std::string("dropped"); }));
    EXPECT_EQ(dumpText(d), "");
    Switches switches(0, 1);
    d.registerCallbackFuncs(
        MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP,
        ModuleDiagnostician::StringCallback([](bool&) { return std::string("hal: 3 sessions"); }));
    d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP,
                            ModuleDiagnostician::StringCallback([](bool& gone) {
                              gone = true;
                              return std::string("hal: closing");
                            }));
    d.registerCallbackFuncs(
        MODULE_ZUALGOENGINE_DUMP, MODULE_USAGE_DUMP,
        ModuleDiagnostician::StringCallback([](bool&) { return std::string("algo: idle"); }));
    d.registerCallbackFuncs(
        MODULE_ZUHAL_MEM, MODULE_USAGE_DUMP,
        ModuleDiagnostician::StringCallback([](bool&) { return std::string("never shown"); }));
    d.syncRegistrations();
    const std::string first = dumpText(d);
    const std::string second = dumpText(d);
    EXPECT_EQ(first,
              "================================PRAX dump begin================================\n"
              "================================Zuhal dump begin===============================\n"
              "hal: 3 sessions\nhal: closing\n"
              "================================Zuhal dump end=================================\n"
              "============================Zualgoengine dump begin============================\n"
              "algo: idle\n"
              "============================Zualgoengine dump end=============================\n"
              "================================PRAX dump end==================================\n");
    size_t expectedLen[] = {80, 80, 16, 13, 80, 80, 11, 79, 80};
    size_t pos = 0;
    for (size_t len : expectedLen) {
      size_t nl = first.find('\n', pos);
      ASSERT_NE(nl, std::string::npos);
      EXPECT_EQ(nl + 1 - pos, len) << first.substr(pos, nl - pos);
      pos = nl + 1;
    }
    EXPECT_EQ(zutest::countSubstr(second, "hal: closing"), 0u);
    EXPECT_EQ(zutest::countSubstr(second, "hal: 3 sessions\n"), 1u);
    d.dumpPraxCore(-1);
    return;
  }
  TempRoot root;
  runInChild("DumpCoreBannersAndGoneModules", root);
  EXPECT_EQ(zutest::countSubstr(zutest::readFile(root.logcatFile()),
                                "dumpPraxCore()dumpInfo: write PRAX dump info to dumpsys file failed.\n"),
            1u);
}

TEST(ModuleDiag, ProbeCounterRunsEveryFifthUnforcedCall) {
  if (inChild()) {
    Switches switches(0, 1);
    ModuleDiagnostician d;
    int probes = 0, oneShot = 0, other = 0;
    d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_PROBE,
                            ModuleDiagnostician::IntCallback([&](bool&) { return ++probes; }));
    d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_PROBE,
                            ModuleDiagnostician::IntCallback([&](bool& gone) {
                              gone = true;
                              return ++oneShot;
                            }));
    d.registerCallbackFuncs(MODULE_ZUALGOENGINE_DUMP, MODULE_USAGE_PROBE,
                            ModuleDiagnostician::IntCallback([&](bool&) { return ++other; }));
    d.syncRegistrations();
    for (int i = 0; i < 7; ++i) d.dumpPraxInfo(false);
    EXPECT_EQ(probes, 1);
    for (int i = 0; i < 4; ++i) d.dumpPraxInfo(true);
    EXPECT_EQ(probes, 5);
    d.dumpPraxInfo(false);  // the counter stood at 5
    EXPECT_EQ(probes, 6);
    d.dumpPraxInfo(false);
    EXPECT_EQ(probes, 6);
    EXPECT_EQ(oneShot, 1);
    EXPECT_EQ(other, 0);
    d.clearCallbackFuncs();
    d.dumpPraxInfo(true);
    EXPECT_EQ(probes, 6);
    return;
  }
  TempRoot root;
  runInChild("ProbeCounterRunsEveryFifthUnforcedCall", root);
}

// Destroying an instance right after registering, while its worker still holds
// queued registrations and its memory thread sleeps, ends cleanly.
TEST(ModuleDiag, DestroyWhileBusy) {
  if (inChild()) {
    Switches switches(1, 1);
    for (int round = 0; round < 20; ++round) {
      ModuleDiagnostician d;
      for (int i = 0; i < 50; ++i) {
        d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(kMiB));
        d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP,
                                ModuleDiagnostician::StringCallback([](bool&) { return std::string("x"); }));
      }
      if (round % 2 == 0) d.triggerMemInfoUpdate();
    }
    return;
  }
  TempRoot root;
  runInChild("DestroyWhileBusy", root);
}

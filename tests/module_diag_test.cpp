// The module diagnostician: memory sums and the memory-information file, state dumps,
// the probe counter and the switches. The switches are process-wide, so each case runs
// in a child process of its own.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>

#include "PRAXDiagnostician.h"
#include "TestSupport.h"

using namespace zudebug;
using zutest::inChild;
using zutest::TempRoot;
using Diag = ModuleDiagnostician;

namespace {

const char* const kMemInfo = "data/vendor/camera/praxmeminfo.txt";
constexpr uint64_t kMiB = 1048576;

Diag::MemCallback reporting(uint64_t bytes, std::atomic<int>* calls = nullptr) {
  return [bytes, calls](int) {
    if (calls != nullptr) ++*calls;
    auto info = std::make_shared<MemInfo>();
    info->size = bytes;
    return info;
  };
}
Diag::MemCallback goneModule(std::atomic<int>* calls) {
  return [calls](int) { return ++*calls, std::shared_ptr<MemInfo>(); };
}
// A state text; with `once` the module is gone after its first answer.
Diag::StringCallback state(const char* text, bool once = false) {
  return [text, once](bool& gone) { return gone = once, std::string(text); };
}

// Waits (generously) for `done`.
template <typename F>
bool eventually(F done) {
  for (int i = 0; i < 1200 && !done(); ++i) usleep(50 * 1000);
  return done();
}

std::string dumpText(Diag& d) {
  FILE* f = tmpfile();
  d.dumpPraxCore(fileno(f));
  rewind(f);
  std::string out(4096, '\0');
  out.resize(fread(&out[0], 1, out.size(), f));
  fclose(f);
  return out;
}

// Sets the module switches as a host does, and stops the snapshot service at the end.
struct Switches {
  Switches(int mem, int dump) { SnapDiagnostician::getInstance()->init(0, 0, 0, mem, dump); }
  ~Switches() { SnapDiagnostician::getInstance()->stop(); }
};

std::string runInChild(const std::string& test, const TempRoot& root = TempRoot()) {
  root.setProps({{"persist.vendor.camera.prax.loglevel", "0"}});
  auto r = zutest::runChild("ModuleDiag." + test, root);
  EXPECT_EQ(r.exitCode(), 0) << r.output;
  return zutest::readFile(root.logcatFile());
}

}  // namespace

// The one test that lets a full 10-second period pass.
TEST(ModuleDiag, MemoryThreadWritesEveryPeriod) {
  if (!inChild()) return (void)runInChild("MemoryThreadWritesEveryPeriod");
  Switches switches(1, 0);
  Diag d;
  // Nothing registered: an update pass writes nothing and the thread idles until the
  // first registration starts its periods.
  d.triggerMemInfoUpdate();
  usleep(300 * 1000);
  EXPECT_EQ(access(kMemInfo, F_OK), -1);
  d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(100 * kMiB));
  d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(50 * kMiB + kMiB / 2));
  d.registerCallbackFuncs(MODULE_ZUALGOENGINE_MEM, MODULE_USAGE_MEMORY, reporting(96 * kMiB));
  d.registerCallbackFuncs(MODULE_METADATA_MEM, MODULE_USAGE_MEMORY, reporting(3 * kMiB));
  d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, Diag::MemCallback());
  ASSERT_TRUE(eventually([&] { return !zutest::readFile(kMemInfo).empty(); }));
  EXPECT_TRUE(std::regex_match(zutest::readFile(kMemInfo),
                               std::regex("[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]:[0-9]{1,3}  "
                                          "zuhalDmaSize:150, zualgoEngineDmaSize:96, zuMetadataSize:3")))
      << zutest::readFile(kMemInfo);
}

TEST(ModuleDiag, TriggeredUpdateTruncatesAndForgetsNullReporters) {
  if (!inChild()) return (void)runInChild("TriggeredUpdateTruncatesAndForgetsNullReporters");
  Switches switches(1, 0);
  Diag* d = Diag::getInstance();
  EXPECT_EQ(Diag::getInstance(), d);
  std::atomic<int> goneCalls{0}, liveCalls{0};
  d->registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(3ull << 30, &liveCalls));
  d->registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(2ull << 30));
  d->registerCallbackFuncs(MODULE_ZUALGOENGINE_MEM, MODULE_USAGE_MEMORY, goneModule(&goneCalls));
  d->syncRegistrations();
  for (int round = 1; round <= 3; ++round) {
    d->triggerMemInfoUpdate();
    ASSERT_TRUE(eventually([&] { return liveCalls.load() >= round; }));
  }
  // 5 GiB kept in 32 bits leaves 1 GiB.
  ASSERT_TRUE(eventually([&] {
    return zutest::readFile(kMemInfo).find("  zuhalDmaSize:1024, zualgoEngineDmaSize:0, zuMetadataSize:0") !=
           std::string::npos;
  }));
  EXPECT_EQ(goneCalls.load(), 1);
  std::atomic<int> direct{0};
  Diag::MemCallbackList list{reporting(5ull << 30), goneModule(&direct), reporting(1)};
  EXPECT_EQ(d->caculateMem(list), (5ull << 30) + 1);  // the sum itself is 64-bit
  EXPECT_EQ(list.size(), 2u);
  d->clearCallbackFuncs();
}

TEST(ModuleDiag, UnwritableMemInfoFileIsLogged) {
  if (inChild()) {
    Switches switches(1, 0);
    Diag d;
    d.registerCallbackFuncs(MODULE_METADATA_MEM, MODULE_USAGE_MEMORY, reporting(kMiB));
    d.syncRegistrations();
    d.triggerMemInfoUpdate();
    EXPECT_TRUE(
        eventually([] { return zutest::readFile("logcat.txt").find("praxmeminfo") != std::string::npos; }));
    return;
  }
  TempRoot root;
  root.writeFile(std::string(kMemInfo) + "/blocker", "");  // a directory where the file goes
  EXPECT_TRUE(std::regex_search(runInChild("UnwritableMemInfoFileIsLogged", root),
                                std::regex("E/Prax-Diagnostician: \\[HAL \\] PRAXDiagnostician\\.cpp:[0-9]+ "
                                           "writePraxMemInfoToFile\\(\\)open praxmeminfo.txt failed!\n")));
}

TEST(ModuleDiag, DumpCoreBannersAndGoneModules) {
  if (!inChild()) {
    EXPECT_EQ(zutest::countSubstr(runInChild("DumpCoreBannersAndGoneModules"),
                                  "dumpPraxCore()dumpInfo: write PRAX dump info to dumpsys file failed.\n"),
              1u);
    return;
  }
  Diag d;
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("dropped: switch off"));
  EXPECT_EQ(dumpText(d), "");
  Switches switches(0, 1);
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("hal: 3 sessions"));
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("hal: closing", true));
  d.registerCallbackFuncs(MODULE_ZUALGOENGINE_DUMP, MODULE_USAGE_DUMP, state("algo: idle"));
  d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_DUMP, state("never shown"));
  d.syncRegistrations();
  const char* head =
      "================================PRAX dump begin================================\n"
      "================================Zuhal dump begin===============================\n"
      "hal: 3 sessions\n";
  const char* tail =
      "================================Zuhal dump end=================================\n"
      "============================Zualgoengine dump begin============================\n"
      "algo: idle\n"
      "============================Zualgoengine dump end=============================\n"
      "================================PRAX dump end==================================\n";
  EXPECT_EQ(dumpText(d), std::string(head) + "hal: closing\n" + tail);
  EXPECT_EQ(dumpText(d), std::string(head) + tail);
  d.dumpPraxCore(-1);
}

TEST(ModuleDiag, ProbeCounterRunsEveryFifthUnforcedCall) {
  if (!inChild()) return (void)runInChild("ProbeCounterRunsEveryFifthUnforcedCall");
  Switches switches(0, 1);
  Diag d;
  int probes = 0, oneShot = 0, other = 0;
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_PROBE,
                          Diag::IntCallback([&](bool&) { return ++probes; }));
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_PROBE,
                          Diag::IntCallback([&](bool& gone) { return gone = true, ++oneShot; }));
  d.registerCallbackFuncs(MODULE_ZUALGOENGINE_DUMP, MODULE_USAGE_PROBE,
                          Diag::IntCallback([&](bool&) { return ++other; }));
  d.syncRegistrations();
  for (int i = 0; i < 7; ++i) d.dumpPraxInfo(false);
  EXPECT_EQ(probes, 1);
  for (int i = 0; i < 4; ++i) d.dumpPraxInfo(true);
  EXPECT_EQ(probes, 5);
  d.dumpPraxInfo(false);  // the counter stood at 5
  d.dumpPraxInfo(false);
  EXPECT_EQ(probes, 6);
  EXPECT_EQ(oneShot, 1);
  EXPECT_EQ(other, 0);
  d.clearCallbackFuncs();
  d.dumpPraxInfo(true);
  EXPECT_EQ(probes, 6);
}

// Destroying an instance while its worker still holds queued registrations and its
// memory thread sleeps ends cleanly (the sanitizer builds check the rest).
TEST(ModuleDiag, DestroyWhileBusy) {
  if (!inChild()) return (void)runInChild("DestroyWhileBusy");
  Switches switches(1, 1);
  for (int round = 0; round < 20; ++round) {
    Diag d;
    for (int i = 0; i < 50; ++i) {
      d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(kMiB));
      d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("x"));
    }
    if (round % 2 == 0) d.triggerMemInfoUpdate();
  }
}

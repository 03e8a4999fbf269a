// The module diagnostician: memory sums and the memory-information file, state dumps,
// the probe counter and the switches. The switches and the probe counter are
// process-wide, so each case runs in a child process of its own.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>

#include "PRAXDiagnostician.h"
#include "TestSupport.h"

using namespace zudebug;
using zutest::inChild;
using Diag = ModuleDiagnostician;

namespace {

const char* const kMemInfo = "data/vendor/camera/praxmeminfo.txt";
constexpr uint64_t kMiB = 1048576;

// Reports `bytes` (with `calls` counting the calls), or null - the module is gone - when
// `bytes` is 0.
Diag::MemCallback reporting(uint64_t bytes, std::atomic<int>* calls = nullptr) {
  return [bytes, calls](int) {
    if (calls != nullptr) ++*calls;
    return bytes == 0 ? nullptr : std::make_shared<MemInfo>(MemInfo{bytes});
  };
}
// A state text, and a probe counting its runs; with `once` the module is gone after its
// first answer.
Diag::StringCallback state(const char* text, bool once = false) {
  return [text, once](bool& gone) { return gone = once, std::string(text); };
}
Diag::IntCallback probe(int* runs, bool once = false) {
  return [runs, once](bool& gone) { return gone = once, ++*runs; };
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
  std::string out = zutest::readFile("/proc/self/fd/" + std::to_string(fileno(f)));
  fclose(f);
  return out;
}

// Sets the module switches as a host does, and stops the snapshot service at the end.
struct Switches {
  Switches(int mem, int dump) { SnapDiagnostician::getInstance()->init(0, 0, 0, mem, dump); }
  ~Switches() { SnapDiagnostician::getInstance()->stop(); }
};

void runInChild(const std::string& test) {
  zutest::TempRoot root;
  root.setProps({{"persist.vendor.camera.prax.loglevel", "0"}});
  auto r = zutest::runChild("ModuleDiag." + test, root);
  EXPECT_TRUE(r.exitCode() == 0 && r.output.find("[  PASSED  ] 1 test") != std::string::npos) << r.output;
}

}  // namespace

TEST(ModuleDiag, MemoryThreadAndFile) {
  if (!inChild()) return runInChild("MemoryThreadAndFile");
  Switches switches(1, 1);
  {
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
    // The suite's one full 10-second period.
    ASSERT_TRUE(eventually([&] { return !zutest::readFile(kMemInfo).empty(); }));
    EXPECT_TRUE(
        std::regex_match(zutest::readFile(kMemInfo),
                         std::regex("[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]:[0-9]{1,3}  "
                                    "zuhalDmaSize:150, zualgoEngineDmaSize:96, zuMetadataSize:3")))
        << zutest::readFile(kMemInfo);
  }

  // The shared instance, updated on demand: the first update finds a directory where
  // the file goes, the null reporter is called once, 5 GiB kept in 32 bits leave 1 GiB.
  ASSERT_TRUE(unlink(kMemInfo) == 0 && mkdir(kMemInfo, 0755) == 0);
  Diag* d = Diag::getInstance();
  EXPECT_EQ(Diag::getInstance(), d);
  std::atomic<int> goneCalls{0}, liveCalls{0};
  d->registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(5ull << 30, &liveCalls));
  d->registerCallbackFuncs(MODULE_ZUALGOENGINE_MEM, MODULE_USAGE_MEMORY, reporting(0, &goneCalls));
  d->syncRegistrations();
  d->triggerMemInfoUpdate();
  EXPECT_TRUE(eventually([] {
    return std::regex_search(zutest::readFile("logcat.txt"),
                             std::regex("E/Prax-Diagnostician: \\[HAL \\] PRAXDiagnostician\\.cpp:[0-9]+ "
                                        "writePraxMemInfoToFile\\(\\)open praxmeminfo.txt failed!\n"));
  }));
  ASSERT_EQ(rmdir(kMemInfo), 0);
  for (int round = 2; round <= 3; ++round) {
    d->triggerMemInfoUpdate();
    ASSERT_TRUE(eventually([&] { return liveCalls.load() >= round; }));
  }
  ASSERT_TRUE(eventually([&] {
    return zutest::readFile(kMemInfo).find("  zuhalDmaSize:1024, zualgoEngineDmaSize:0, zuMetadataSize:0") !=
           std::string::npos;
  }));
  EXPECT_EQ(goneCalls.load(), 1);
  Diag::MemCallbackList list{reporting(5ull << 30), reporting(0), reporting(1)};
  EXPECT_EQ(d->caculateMem(list), (5ull << 30) + 1);  // the sum itself is 64-bit
  EXPECT_EQ(list.size(), 2u);
  d->clearCallbackFuncs();

  // Instances destroyed while their worker holds queued registrations and their memory
  // thread sleeps end cleanly (the sanitizer builds check the rest).
  for (int round = 0; round < 20; ++round) {
    Diag busy;
    for (int i = 0; i < 50; ++i) {
      busy.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_MEMORY, reporting(kMiB));
      busy.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("x"));
    }
    if (round % 2 == 0) busy.triggerMemInfoUpdate();
  }
}

// Dumps with their banners and modules that leave; probes on every fifth unforced call.
TEST(ModuleDiag, DumpsAndProbes) {
  if (!inChild()) return runInChild("DumpsAndProbes");
  Diag d;
  int probes = 0, oneShot = 0, other = 0;
  // Switched off: nothing is written and registrations are dropped.
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("dropped: switch off"));
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_PROBE, probe(&other));
  EXPECT_EQ(dumpText(d), "");
  Switches switches(0, 1);
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("hal: 3 sessions"));
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_DUMP, state("hal: closing", true));
  d.registerCallbackFuncs(MODULE_ZUALGOENGINE_DUMP, MODULE_USAGE_DUMP, state("algo: idle"));
  d.registerCallbackFuncs(MODULE_ZUHAL_MEM, MODULE_USAGE_DUMP, state("never shown"));
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_PROBE, probe(&probes));
  d.registerCallbackFuncs(MODULE_ZUHAL_DUMP, MODULE_USAGE_PROBE, probe(&oneShot, true));
  d.registerCallbackFuncs(MODULE_ZUALGOENGINE_DUMP, MODULE_USAGE_PROBE, probe(&other));
  d.syncRegistrations();
  const std::string head =
      "================================PRAX dump begin================================\n"
      "================================Zuhal dump begin===============================\n"
      "hal: 3 sessions\n";
  const std::string tail =
      "================================Zuhal dump end=================================\n"
      "============================Zualgoengine dump begin============================\n"
      "algo: idle\n"
      "============================Zualgoengine dump end=============================\n"
      "================================PRAX dump end==================================\n";
  EXPECT_EQ(dumpText(d), head + "hal: closing\n" + tail);
  EXPECT_EQ(dumpText(d), head + tail);
  d.dumpPraxCore(-1);
  EXPECT_EQ(zutest::countSubstr(zutest::readFile("logcat.txt"),
                                "dumpPraxCore()dumpInfo: write PRAX dump info to dumpsys file failed.\n"),
            1u);

  // Seven unforced calls, four forced ones (the counter reaches 5), two unforced.
  const char calls[] = "fffffffttttff";
  const int want[] = {1, 1, 1, 1, 1, 1, 1, 2, 3, 4, 5, 6, 6};
  for (size_t i = 0; i < sizeof want / sizeof want[0]; ++i) {
    d.dumpPraxInfo(calls[i] == 't');
    EXPECT_EQ(probes, want[i]) << "call " << i;
  }
  EXPECT_EQ(oneShot, 1);
  EXPECT_EQ(other, 0);
  d.clearCallbackFuncs();
  d.dumpPraxInfo(true);
  EXPECT_EQ(probes, 6);
}

// zudebug-log crash and guards on records the library wrote in children: a crash on a
// pipeline thread symbolised to functions, inlined calls and source lines (also through
// a symbols tree for a stripped module), and the guard monitor's request and function
// timeouts with their stack dumps. Then crash records written by hand: what follows the
// frames (cause, abort message, sender, registers, memory, modules, other threads),
// build IDs against the files in the symbol trees, records cut short anywhere, and
// records of the older layout.
#include <elf.h>
#include <inttypes.h>
#include <link.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "GuardMonitor.h"
#include "LogTool.h"
#include "TestSupport.h"
#include "ZuDebugOfflineLogger.h"
#include "ZuDebugUtils.h"

using namespace zutest;
static constexpr size_t npos = std::string::npos;

namespace {

// The line of this file that holds `marker`.
int lineOf(const std::string& marker) {
  std::ifstream in(__FILE__);
  int n = 0;
  for (std::string line; std::getline(in, line);) {
    ++n;
    if (line.find(marker) != npos && line.find("lineOf(") == npos) return n;
  }
  return -1;
}

std::string selfExe() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : "";
}

// Sanitizers leave the fault to the catcher, as a device would.
const std::string kNoHandlers =
    "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";

volatile int* volatile gBadBuffer = reinterpret_cast<volatile int*>(16);
volatile int gSample = 3;

// Not instrumented, so that the fault is the store itself in every build.
__attribute__((always_inline, no_sanitize("address", "thread", "undefined"))) inline void storeSample(
    volatile int* buffer, int value) {
  buffer[0] = value;  // fault: the store
}

__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) void fillBuffer(int value) {
  storeSample(gBadBuffer, value);  // fault: inlined here
  asm volatile("");
}

}  // namespace

ZU_CHILD_TEST(LogToolCrashChild, CrashesOnAPipelineThread) {
  alarm(60);
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  ASSERT_EQ(0, debug->startOfflineLogger());
  zudebug::RegisterSignalHandlers();
  for (int i = 0; i < 5; ++i)
    zudebug::Log::logSystem(zudebug::ZU_GROUP_HAL, "I", "Main.cpp", "main", 1, "main thread line %d", i);
  std::thread([] {
    zudebug::Log::logSystem(zudebug::ZU_GROUP_HAL, "E", "Pipeline.cpp", "process", 2,
                            "frame 3 has no buffer");
    fillBuffer(gSample);  // fault: the call
    asm volatile("");     // no tail call: this frame stays on the stack
  }).join();
}

// The record of a real crash, symbolised: the faulting frame to the store (inlined),
// the frame that called it to the call; the lines before it from both threads.
TEST(LogToolCrash, RecordIsSymbolisedToFunctionsAndLines) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"}});
  ChildResult child = runChild("LogToolCrashChild.CrashesOnAPipelineThread", root,
                               {{"ZUDEBUG_FREE_MB", "100000"},
                                {"ASAN_OPTIONS", kNoHandlers},
                                {"TSAN_OPTIONS", kNoHandlers + ":report_signal_unsafe=0"}});
  ASSERT_TRUE(child.signaled() && child.termSignal() == SIGSEGV) << child.output;
  const std::string file = __FILE__;
  const std::string storeAt = file + ":" + std::to_string(lineOf("// fault: the store"));
  const std::string inlinedAt = file + ":" + std::to_string(lineOf("// fault: inlined here"));
  const std::string calledAt = file + ":" + std::to_string(lineOf("// fault: the call"));

  ProgramOutput r = zlog({"crash", "--context", "3", root.offlineDir()});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const std::string& out = r.out;
  EXPECT_NE(out.find("== crash 1 of 1: "), npos) << out;
  EXPECT_NE(out.find("signal 11 (SIGSEGV), code 1 (SEGV_MAPERR), fault addr 0x10 =="), npos) << out;
  // The three lines before it: two of the main thread, then the pipeline's error.
  const size_t context = out.find("-- 3 lines before it, from every thread --\n");
  ASSERT_NE(context, npos) << out;
  const size_t main3 = out.find("main thread line 3", context),
               main4 = out.find("main thread line 4", context);
  const size_t error = out.find("frame 3 has no buffer", context),
               record = out.find("-- the record", context);
  EXPECT_TRUE(main3 < main4 && main4 < error && error < record) << out;
  EXPECT_EQ(out.find("main thread line 2", context), npos);

  // The faulting frame: its own address, the store, inside the function it was inlined into.
  const size_t faulting = out.find("-- the record, faulting frame #");
  ASSERT_NE(faulting, npos) << out;
  const std::string frameNo = out.substr(faulting + 31, 2);
  const size_t frame = out.find("F DEBUG   : #" + frameNo + " pc ", faulting);
  ASSERT_NE(frame, npos);
  const size_t next = out.find("F DEBUG   : #", frame + 1);
  const std::string faultText = out.substr(frame, next - frame);
  EXPECT_NE(faultText.find("      storeSample at " + storeAt + ":"), npos) << faultText;
  EXPECT_NE(faultText.find("(inlined by) (anonymous namespace)::fillBuffer(int) at " + inlinedAt + ":"), npos)
      << faultText;
  // A calling frame is shown at its call instruction and looked up there: the call,
  // not what follows it.
  const size_t call = out.find(" at " + calledAt + ":");
  ASSERT_NE(call, npos) << out;
  EXPECT_NE(out.substr(out.rfind('\n', call), call - out.rfind('\n', call)).find("operator()"), npos) << out;
  EXPECT_NE(out.find("signal return trampoline"), npos) << out;

  // The same record from a device whose module is stripped on the device and whole in
  // a symbols tree that mirrors its path.
  const std::string stripped = root.path("device/vendor/bin/camera.provider");
  const std::string tree = root.path("symbols");
  root.writeFile("device/vendor/bin/camera.provider", readFile(selfExe()));
  root.writeFile("symbols" + stripped, readFile(selfExe()));
  ASSERT_EQ(runCapture({ZUDEBUG_OBJCOPY, "--strip-debug", stripped}).exitCode(), 0);
  std::string log;
  for (const std::string& name : listDir(root.offlineDir()))
    if (name.find("ZuCam_Debug_2") == 0) log += readFile(root.offlineDir() + "/" + name);
  for (size_t at = log.find(selfExe()); at != npos; at = log.find(selfExe(), at))
    log.replace(at, selfExe().size(), stripped);
  root.writeFile("device-log/ZuCam_Debug_2024-03-07--09-15-00-1.txt", log);
  r = zlog({"crash", "--context", "0", root.path("device-log")});
  EXPECT_EQ(r.out.find(storeAt), npos) << "no lines without the debug information";
  EXPECT_NE(r.out.find("fillBuffer(int)+0x"), npos) << r.out;
  r = zlog({"crash", "--context", "0", "--symbols", root.path("nowhere"), "--symbols", tree,
            root.path("device-log")});
  EXPECT_NE(r.out.find("(inlined by) (anonymous namespace)::fillBuffer(int) at " + inlinedAt + ":"), npos)
      << r.out;
  EXPECT_NE(r.out.find(" at " + storeAt + ":"), npos) << r.out;
  EXPECT_EQ(r.out.find("-- 0 lines before it"), r.out.find("-- ")) << r.out;
  // A module that is nowhere, and a log without a crash.
  root.writeFile("moved/ZuCam_Debug_2024-03-07--09-15-00-1.txt",
                 log.replace(log.find(stripped), stripped.size(), "/gone/lib.so"));
  r = zlog({"crash", root.path("moved")});
  EXPECT_NE(r.out.find("?? (module not found"), npos) << r.out;
  root.writeFile("calm/ZuCam_Debug_2024-03-07--09-15-00-1.txt",
                 "03-07 09:15:00:000000001  1  2 I t [l] quiet\n");
  r = zlog({"crash", root.path("calm")});
  EXPECT_EQ(r.exitCode(), 0);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("no crash record"), npos);
}

// A request that outlives its limit (reported), then a function guard that does (the
// process aborts after its report, as on a device).
ZU_CHILD_TEST(LogToolGuardChild, RequestAndFunctionTimeouts) {
  alarm(60);
  auto* debug = zudebug::ZuDebugInterface::getInstance(zudebug::ZuOfflineLoggerType::Debug);
  ASSERT_EQ(0, debug->startOfflineLogger());
  zudebug::GuardMonitor* gm = zudebug::GuardMonitor::getSingleton();
  gm->registerReqGuard(zudebug::MODULE_ZUHAL_SESSION, zudebug::REQUEST_APP, 7, 0, nullptr);
  // The request's report ends with the process's stacks; the function guard opens
  // after them, so that the patrol has time to warn before its limit.
  for (int i = 0; i < 3000 && readFile(getenv("ZUDEBUG_LOGCAT")).find("NO EXIT: ----- end ") == npos; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  gm->unregisterReqGuard(zudebug::MODULE_ZUHAL_SESSION, zudebug::REQUEST_APP, 7);
  std::thread([gm] {
    prctl(PR_SET_NAME, "Pipeline", 0, 0, 0);
    int guardId = 0;
    gm->registerFuncGuard(zudebug::MODULE_ALGOFWK_CAPTURE_NODE, "processFrame", "frame 9", 30, 600, nullptr,
                          &guardId);
    std::this_thread::sleep_for(std::chrono::seconds(20));  // the monitor aborts first
    gm->unregisterFuncGuard(guardId);
  }).join();
}

TEST(LogToolGuards, TimeoutsWithTheirStackDumps) {
  TempRoot root;
  root.setProps({{"persist.vendor.camera.offlinedebug.mask", "1"},
                 {"vendor.camera.debug.intms", "10"},
                 {"vendor.camera.debug.rwarnms", "50"},
                 {"persist.vendor.camera.debug.reqabortms", "600"},
                 {"persist.vendor.camera.debug.reqabortenable", "0"},
                 {"persist.vendor.camera.debug.apiabortenable", "1"}});
  ChildResult child = runChild("LogToolGuardChild.RequestAndFunctionTimeouts", root,
                               {{"ZUDEBUG_FREE_MB", "100000"},
                                {"ASAN_OPTIONS", kNoHandlers},
                                {"TSAN_OPTIONS", kNoHandlers + ":report_signal_unsafe=0"}});
  ASSERT_TRUE(child.signaled() && child.termSignal() == SIGABRT) << child.output;

  ProgramOutput r = zlog({"guards", root.offlineDir()});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const std::string& out = r.out;
  const size_t request = out.find("== timeout 1 of 2: request AppRequest:7, ");
  const size_t function = out.find("== timeout 2 of 2: function processFrame (\"frame 9\"), ");
  ASSERT_NE(request, npos) << out;
  ASSERT_NE(function, npos) << out;
  const std::string first = out.substr(request, function - request), second = out.substr(function);
  int executed = 0;
  ASSERT_EQ(sscanf(first.c_str() + first.find("   executed "), "   executed %d ms (limit 600 ms)", &executed),
            1)
      << first;
  EXPECT_GT(executed, 600);
  EXPECT_NE(first.find(" TOO LONG warning"), npos) << first;
  EXPECT_NE(first.find("----- end "), npos) << "the whole dump";
  // The function's thread by its id and name, marked in the dump.
  EXPECT_NE(second.find("; thread "), npos) << second;
  EXPECT_NE(second.find(" \"Pipeline\", module "), npos) << second;
  EXPECT_NE(second.find("\"Pipeline\" sysTid="), npos) << second;
  EXPECT_NE(second.find("   <-- the guarded thread"), npos) << second;
  EXPECT_NE(second.find("\n== timeouts per name ==\n"), npos) << second;
  EXPECT_NE(second.find("       1  function  processFrame\n"), npos) << second;
  EXPECT_NE(second.find("       1  request   AppRequest\n"), npos) << second;
}

namespace {

using Lines = std::vector<std::string>;

std::string joinLines(const Lines& lines) {
  std::string out;
  for (const std::string& l : lines) out += l + "\n";
  return out;
}

Lines splitLines(const std::string& text) {
  Lines out;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

const std::string kStars = "*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***";
const std::string kRule = "--- --- --- --- --- --- --- --- --- --- --- --- --- --- --- ---";
const std::string kMark = " F DEBUG   : ";

// A line of a crash record; the stamp's nanoseconds have at least six digits.
std::string crashLine(const std::string& stamp, int pid, int tid, const std::string& msg) {
  char head[96];
  snprintf(head, sizeof(head), "%s  %4d  %4d", stamp.c_str(), pid, tid);
  return head + kMark + msg;
}

std::string plainLine(const std::string& stamp, int pid, int tid, const std::string& msg) {
  char head[128];
  snprintf(head, sizeof(head), "%s  %4d  %4d I ZuCamHAL [HAL ] Pipeline.cpp:12 process() ", stamp.c_str(),
           pid, tid);
  return head + msg;
}

// A record as the catcher writes it: the header and `frames` at `at`, the rest at `later`.
Lines crashRecord(int pid, int tid, const std::string& at, const std::string& signal, const Lines& frames,
                  const std::string& later, const Lines& rest) {
  Lines out;
  for (const std::string& m :
       {kStars, "pid: " + std::to_string(pid) + ", tid: " + std::to_string(tid), signal, kStars})
    out.push_back(crashLine(at, pid, tid, m));
  for (const std::string& m : frames) out.push_back(crashLine(at, pid, tid, m));
  for (const std::string& m : rest) out.push_back(crashLine(later, pid, tid, m));
  return out;
}

// "memory near WHAT 0x...:" and its 16 lines; only the first word of each line readable.
Lines memoryNear(const char* what, uint64_t at) {
  char text[128];
  snprintf(text, sizeof(text), "memory near %s 0x%016" PRIx64 ":", what, at);
  Lines out = {text};
  const uint64_t start = (at & ~uint64_t{15}) - 128;
  for (uint64_t line = start; line < start + 256; line += 16) {
    snprintf(text, sizeof(text), "    %016" PRIx64 " 4847464544434241 ----------------  ABCDEFGH........",
             line);
    out.push_back(text);
  }
  return out;
}

Lines append(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const char kLibc[] = "/apex/com.android.runtime/lib64/bionic/libc.so";

// An assertion on a pipeline thread of a device (x86-64): every section after the frames,
// one other thread that answered and one that did not.
Lines abortRecord(int pid, int tid, const std::string& at, const std::string& later) {
  const std::string libc = kLibc;
  const Lines frames = {"#01 pc 000000000003c050  " + libc + " (__restore_rt)",
                        "#02 pc 000000000004e9a8  " + libc + " (abort+164)",
                        "#03 pc 000000000000b2c0  /vendor/bin/camera (processRequest(int)+191)"};
  Lines rest = {"Abort message: 'prog: file.cpp:12: int main(): Assertion `x' failed.'",
                "Signal sent by pid " + std::to_string(pid) + ", uid 1047 (SI_TKILL)",
                "registers:",
                "    rax 0000000000000000  rbx 00007ffd12345678  rcx 0000000000000001  rdx 0000000000000000",
                "    r8  0000000000000000  r9  0000000000000073  r10 0000000000000000  r11 0000000000000293",
                "    r12 0000555555560a3c  r13 00007f4ddc66f3ad  r14 0000555555560b05  r15 00007f4dd847f000",
                "    rdi 0000000000000010  rsi 0000000000000003  rbp 00007ffd12345700  rsp 00007ffd12345678",
                "    rip 000055555555f2c0  efl 0000000000010202"};
  rest = append(rest, memoryNear("sp", 0x7ffd12345678));
  rest = append(
      rest, {"modules:", "    00007f4ddc01e000  " + libc + " (BuildId: 93ac61ec5a8eb1396f9fbd350e3169a5)",
             "    0000555555554000  /vendor/bin/camera (BuildId: 3F2A9C0000000000000000000000000000000001)",
             kRule, "thread: tid " + std::to_string(tid + 1) + ", name ZuFlushDebug",
             "      #00 pc 00000000000a1234  " + libc, "      #01 pc 00000000000a5678  " + libc, kRule,
             "thread: tid " + std::to_string(tid + 2) + ", name Pipeline 2",
             "threads: 1 of 2 answered within 100 ms"});
  return crashRecord(pid, tid, at, "signal 6, code -6, fault addr (nil)", frames, later, rest);
}

// The output of `crash`, one block per record ("== crash N of M: ..." and what follows).
Lines recordBlocks(const std::string& out) {
  Lines blocks;
  for (size_t at = out.find("== crash "); at != npos;) {
    const size_t next = out.find("\n== crash ", at);
    blocks.push_back(out.substr(at, next == npos ? npos : next + 1 - at));
    at = next == npos ? npos : next + 1;
  }
  return blocks;
}

// The record's own lines in a block of the output.
Lines recordLines(const std::string& block) {
  Lines out;
  for (const std::string& l : splitLines(block))
    if (l.find(kMark) != npos) out.push_back(l);
  return out;
}

// The line of `text` that follows the line holding `needle`.
std::string lineAfter(const std::string& text, const std::string& needle) {
  const size_t at = text.find(needle);
  if (at == npos) return "(no line with " + needle + ")";
  const size_t start = text.find('\n', at) + 1;
  return text.substr(start, text.find('\n', start) - start);
}

}  // namespace

// A record of today's catcher among other lines: the lines after the frames carry a
// later stamp, and a line of another thread falls between them in time. Every line of
// the record stays with it, the cause, abort message and sender head it, and the line in
// between goes with the lines before the next record.
TEST(LogToolCrashRecord, ReadsWhatFollowsTheFrames) {
  TempRoot root;
  const Lines a = abortRecord(1234, 1240, "03-07 09:15:01:005000", "03-07 09:15:01:094000");
  // arm64's registers: x0 to x28, x29, lr, sp, pc, pst.
  const Lines arm64Registers = {
      "registers:",
      "    x0  0000000000000000  x1  0000007fd1234560  x2  0000000000000001  x3  0000000000000000",
      "    x28 0000000000000000  x29 0000007fd1234600  lr  0000007f80001250  sp  0000007fd12345f0",
      "    pc  0000007f80001234  pst 0000000060000000"};
  const Lines b =
      crashRecord(2000, 2001, "03-07 09:16:00:000100", "signal 11, code 1, fault addr 0x10",
                  {"#00 pc 0000000000001234  /vendor/lib64/libalgo.so (render+20)"}, "03-07 09:16:00:000900",
                  append(append({"Cause: null pointer dereference"}, arm64Registers),
                         append(memoryNear("fault addr", 0x10),
                                {"modules:", "    0000007f80000000  /vendor/lib64/libalgo.so"})));
  const std::string between = plainLine("03-07 09:15:01:050000000", 1234, 1243, "flush thread: woke up");
  const Lines file =
      append(append({plainLine("03-07 09:15:00:000000100", 1234, 1240, "frame 3 has no buffer")}, a),
             append({between}, b));
  root.writeFile("log/ZuCam_Debug_2024-03-07--09-15-00-1.txt", joinLines(file));

  ProgramOutput r = zlog({"crash", "--context", "1", root.path("log")});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const Lines blocks = recordBlocks(r.out);
  ASSERT_EQ(blocks.size(), 2u) << r.out;
  EXPECT_EQ(recordLines(blocks[0]), a) << blocks[0];
  EXPECT_EQ(recordLines(blocks[1]), b) << blocks[1];

  EXPECT_EQ(blocks[0].substr(0, blocks[0].find("-- 1 lines before it")),
            "== crash 1 of 2: 2024-03-07T09:15:01.000005000, pid 1234, tid 1240, signal 6 (SIGABRT), code -6 "
            "(SI_TKILL), fault addr -------- ==\n"
            "abort message: 'prog: file.cpp:12: int main(): Assertion `x' failed.'\n"
            "signal sent by pid 1234, uid 1047 (SI_TKILL)\n");
  // Another thread's frames get their lines like the crashing thread's.
  EXPECT_EQ(lineAfter(blocks[0], "F DEBUG   :       #01 pc 00000000000a5678  "),
            "      ?? (module not found nor at its own path)")
      << blocks[0];
  EXPECT_EQ(blocks[0].find("cut short"), npos) << blocks[0];

  EXPECT_EQ(blocks[1].substr(0, blocks[1].find("-- 1 lines before it")),
            "== crash 2 of 2: 2024-03-07T09:16:00.000000100, pid 2000, tid 2001, signal 11 (SIGSEGV), code 1 "
            "(SEGV_MAPERR), fault addr 0x10 ==\n"
            "cause: null pointer dereference\n");
  EXPECT_NE(blocks[1].find("-- 1 lines before it, from every thread --\n" + between + "\n"), npos)
      << blocks[1];
  EXPECT_EQ(blocks[1].find("cut short"), npos) << blocks[1];
}

// The fault address is shown where the signal carries one, dashes where a process sent
// it (kill, tgkill, sigqueue) or it is an abort, whatever %p made of the field.
TEST(LogToolCrashRecord, FaultAddressOnlyWhereTheSignalCarriesOne) {
  TempRoot root;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"signal 11, code 1, fault addr 0x10", "code 1 (SEGV_MAPERR), fault addr 0x10"},
      {"signal 11, code 128, fault addr 0x0", "code 128 (SI_KERNEL), fault addr 0x0"},
      {"signal 7, code 2, fault addr 0x7f0000001000", "code 2 (BUS_ADRERR), fault addr 0x7f0000001000"},
      {"signal 11, code 0, fault addr (nil)", "code 0 (SI_USER), fault addr --------"},
      {"signal 11, code -1, fault addr 0x0", "code -1 (SI_QUEUE), fault addr --------"},
      {"signal 11, code -6, fault addr 0x4d2", "code -6 (SI_TKILL), fault addr --------"},
      {"signal 6, code -6, fault addr (nil)", "code -6 (SI_TKILL), fault addr --------"},
  };
  Lines file;
  for (size_t i = 0; i < cases.size(); ++i)
    file = append(file,
                  crashRecord(100, 101 + static_cast<int>(i), "03-07 09:15:01:00" + std::to_string(1000 + i),
                              cases[i].first, {"#01 pc 0000000000001000  /vendor/lib64/libx.so"}, "", {}));
  root.writeFile("log/ZuCam_Debug_2024-03-07--09-15-00-1.txt", joinLines(file));
  ProgramOutput r = zlog({"crash", "--context", "0", root.path("log")});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const Lines blocks = recordBlocks(r.out);
  ASSERT_EQ(blocks.size(), cases.size()) << r.out;
  for (size_t i = 0; i < cases.size(); ++i)
    EXPECT_NE(blocks[i].find(", " + cases[i].second + " ==\n"), npos) << cases[i].first << "\n" << blocks[i];
}

namespace {

volatile int gWorkDone = 0;

// Functions of this program whose addresses a hand-written record names.
__attribute__((noinline)) void faultingFrame() { gWorkDone = 1; }
__attribute__((noinline)) void waitForWork() { gWorkDone = 2; }
__attribute__((noinline)) void serveRequests() {
  waitForWork();
  gWorkDone = 3;
}

// This program's load bias and GNU build ID, as the catcher reads them from memory.
struct SelfImage {
  uintptr_t bias = 0;
  std::string buildId;
};

int readSelfImage(dl_phdr_info* info, size_t, void* data) {
  auto* self = static_cast<SelfImage*>(data);
  self->bias = info->dlpi_addr;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_NOTE) continue;
    const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
    const char* end = p + ph.p_memsz;
    while (p + sizeof(ElfW(Nhdr)) <= end) {
      const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(p);
      const char* name = p + sizeof(*note);
      const auto* desc = reinterpret_cast<const unsigned char*>(name + ((note->n_namesz + 3) & ~3u));
      if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 && memcmp(name, "GNU", 4) == 0) {
        char hex[3];
        for (size_t k = 0; k < note->n_descsz; ++k) {
          snprintf(hex, sizeof(hex), "%02x", desc[k]);
          self->buildId += hex;
        }
      }
      p = reinterpret_cast<const char*>(desc) + ((note->n_descsz + 3) & ~3u);
    }
  }
  return 1;  // the program itself comes first
}

std::string pcOf(void (*function)(), const SelfImage& self) {
  char text[32];
  snprintf(text, sizeof(text), "%016" PRIxPTR, reinterpret_cast<uintptr_t>(function) - self.bias);
  return text;
}

bool isHexText(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789abcdef") == npos;
}

}  // namespace

// A device's module, found in symbol trees: a file whose build ID is not the record's is
// said so and passed over for the next tree, a file without one is taken unchecked, and
// the frames of every thread are read from the file taken. Another thread's pcs are
// looked up as they stand: its interrupted pc and its return addresses, already taken
// back into their calls.
TEST(LogToolCrashRecord, SymbolFilesMustCarryTheRecordsBuildId) {
  TempRoot root;
  SelfImage self;
  dl_iterate_phdr(readSelfImage, &self);
  ASSERT_TRUE(isHexText(self.buildId)) << "this program has no GNU build ID";
  const std::string module = "/vendor/bin/camera";
  const std::string other = root.path("other"), good = root.path("good"), unmarked = root.path("unmarked");
  root.writeFile("other" + module, readFile(ZUDEBUG_LOG_TOOL));
  root.writeFile("good" + module, readFile(selfExe()));
  root.writeFile("unmarked" + module, readFile(selfExe()));
  ASSERT_EQ(
      runCapture({ZUDEBUG_OBJCOPY, "--remove-section", ".note.gnu.build-id", unmarked + module}).exitCode(),
      0);
  chmod((other + module).c_str(), 0755);

  const Lines record =
      crashRecord(300, 301, "03-07 09:15:01:005000", "signal 11, code 1, fault addr 0x10",
                  {"#01 pc " + pcOf(faultingFrame, self) + "  " + module}, "03-07 09:15:01:007000",
                  {"modules:", "    0000555555554000  " + module + " (BuildId: " + self.buildId + ")", kRule,
                   "thread: tid 302, name Worker", "      #00 pc " + pcOf(waitForWork, self) + "  " + module,
                   "      #01 pc " + pcOf(serveRequests, self) + "  " + module,
                   "threads: 1 of 1 answered within 100 ms"});
  root.writeFile("log/ZuCam_Debug_2024-03-07--09-15-00-1.txt", joinLines(record));
  const std::string log = root.path("log");

  const std::string warning = "warning: " + module + ": build ID " + self.buildId + " in the record, ";
  const std::string passedOver = " in " + other + module + ": symbols not used\n";
  auto symbolised = [](const std::string& out) {
    return lineAfter(out, " #01 pc ").find("faultingFrame()") != npos &&
           lineAfter(out, " #00 pc ").find("waitForWork()") != npos &&
           lineAfter(out, "       #01 pc ").find("serveRequests()") != npos;
  };

  // The other tree's file is passed over for the next tree's.
  ProgramOutput r = zlog({"crash", "--symbols", other, "--symbols", good, log});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const size_t at = r.out.find(warning);
  ASSERT_NE(at, npos) << r.out;
  const size_t idEnd = r.out.find(' ', at + warning.size());
  const std::string otherId = r.out.substr(at + warning.size(), idEnd - at - warning.size());
  EXPECT_TRUE(isHexText(otherId) && otherId != self.buildId) << otherId;
  EXPECT_EQ(r.out.compare(idEnd, passedOver.size(), passedOver), 0) << r.out;
  EXPECT_EQ(countSubstr(r.out, "warning: "), 1u) << r.out;
  EXPECT_LT(at, r.out.find("-- 0 lines before it")) << "heads the record";
  EXPECT_TRUE(symbolised(r.out)) << r.out;

  // The first file with the right build ID ends the search: nothing to say.
  r = zlog({"crash", "--symbols", good, "--symbols", other, log});
  EXPECT_EQ(r.out.find("warning: "), npos) << r.out;
  EXPECT_TRUE(symbolised(r.out)) << r.out;

  // Only the other file: said so, and no frame is read from it.
  r = zlog({"crash", "--symbols", other, log});
  EXPECT_NE(r.out.find(warning + otherId + passedOver), npos) << r.out;
  EXPECT_EQ(countSubstr(r.out, "      ?? (no file with the record's build ID: 1 file has another)\n"), 3u)
      << r.out;
  EXPECT_FALSE(symbolised(r.out)) << r.out;

  // A file without a build ID is taken, with a note.
  r = zlog({"crash", "--symbols", unmarked, log});
  EXPECT_NE(r.out.find("note: " + module + ": build ID " + self.buildId + " in the record, none in " +
                       unmarked + module + ": used unchecked\n"),
            npos)
      << r.out;
  EXPECT_TRUE(symbolised(r.out)) << r.out;
}

// A record cut off after any of its lines, or inside one, followed by the next record:
// each keeps the lines it has, says what it lacks where that can be told, and the next
// record reads whole.
TEST(LogToolCrashRecord, RecordCutShortAnywhere) {
  TempRoot root;
  auto stamp = [](int second, int micros) {
    char text[32];
    snprintf(text, sizeof(text), "03-07 10:%02d:%02d:%06d", second / 60, second % 60, micros);
    return std::string(text);
  };
  const size_t length = abortRecord(1, 2, stamp(0, 100), stamp(0, 900)).size();
  struct Variant {
    int pid;
    Lines written;  // the record's lines as the file holds them
    size_t whole;   // how many lines are whole
  };
  std::vector<Variant> variants;
  Lines file;
  for (size_t whole = 1; whole <= length; ++whole) {
    for (bool torn : {false, true}) {
      if (torn && whole == length) continue;
      const int n = static_cast<int>(variants.size());
      const int pid = 3000 + n;
      Lines lines = abortRecord(pid, pid + 1, stamp(n, 100), stamp(n, 900));
      Lines written(lines.begin(), lines.begin() + static_cast<long>(whole));
      if (torn) {
        // Cut inside the next line's message.
        const std::string& next = lines[whole];
        const size_t msg = next.find(kMark) + kMark.size();
        written.push_back(next.substr(0, msg + (next.size() - msg) / 2));
      }
      file = append(file, written);
      variants.push_back({pid, written, whole});
    }
  }
  // Lines damaged inside each section, and a record whose sections come in no order.
  const int n = static_cast<int>(variants.size());
  const Lines damaged =
      crashRecord(8000, 8001, stamp(n, 100), "signal 11, code 1, fault addr 0x10", {"#01 pc", "#02 pc 12  "},
                  stamp(n, 900),
                  {"thread: tid 8002, name", "      ", "      #00 pc", "      #01 pc 00000000000a1234",
                   "registers:", "    ", "    rax", "    rax 00", "memory near sp", "    0000",
                   "modules:", "    0000555555554000  ", "    0000555555554000  /x (BuildId: zz)",
                   "    0000555555554000  /x (BuildId: )", "Cause: ", "Abort message: '",
                   "thread: tid x, name y", "      #00 pc 0000000000000001  /x", "threads: "});
  file = append(file, damaged);
  const Lines last = abortRecord(9000, 9001, stamp(n + 1, 100), stamp(n + 1, 900));
  file = append(file, last);
  root.writeFile("log/ZuCam_Debug_2024-03-07--10-00-00-1.txt", joinLines(file));

  ProgramOutput r = zlog({"crash", "--context", "0", root.path("log")});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const Lines blocks = recordBlocks(r.out);
  ASSERT_EQ(blocks.size(), variants.size() + 2) << r.out;
  EXPECT_EQ(recordLines(blocks[variants.size()]), damaged);
  EXPECT_EQ(recordLines(blocks.back()), last);
  EXPECT_EQ(blocks.back().find("cut short"), npos) << blocks.back();

  // Where a record ends, by its last whole line and whether a torn one follows.
  const Lines full = abortRecord(1, 2, stamp(0, 100), stamp(0, 900));
  auto indexOf = [&full](const std::string& msg) {
    for (size_t i = 0; i < full.size(); ++i)
      if (full[i].find(kMark + msg) != npos) return i;
    return npos;
  };
  const std::map<std::pair<size_t, bool>, std::string> said = {
      {{indexOf("#03 pc") + 1, false}, ""},  // as a record of the older layout
      {{indexOf("registers:") + 1, false}, "the registers are missing"},
      {{indexOf("memory near sp") + 6, false}, "the memory near sp has 5 of its 16 lines"},
      {{indexOf("modules:") + 1, true}, "the list of modules lacks " + std::string(kLibc)},
      {{indexOf("modules:") + 2, false}, "the list of modules lacks /vendor/bin/camera"},
      {{indexOf("Abort message:"), true}, "its last line is cut off"},
      {{indexOf("memory near sp") + 3, true}, "its last line is cut off"},
      {{indexOf("thread: tid 3"), false}, "a thread's block is missing after the last separator"},
      {{indexOf("      #01 pc ") + 1, false}, "the line on how many threads answered is missing"},
      {{full.size(), false}, ""},
  };
  size_t checked = 0;
  for (size_t i = 0; i < variants.size(); ++i) {
    const Variant& v = variants[i];
    const std::string& block = blocks[i];
    ASSERT_NE(block.find(", pid " + std::to_string(v.pid) + ","), npos) << block;
    EXPECT_EQ(recordLines(block), v.written) << block;
    const size_t note = block.find("-- the record ends here, cut short: ");
    EXPECT_EQ(countSubstr(block, "cut short"), note == npos ? 0u : 1u) << block;
    const bool torn = v.written.size() > v.whole;
    if (v.whole + (torn ? 1 : 0) <= indexOf("#03 pc") + 1) {
      EXPECT_EQ(note, npos) << "a record of the older layout says nothing\n" << block;
    }
    auto expected = said.find({v.whole, torn});
    if (expected == said.end()) continue;
    ++checked;
    if (expected->second.empty()) {
      EXPECT_EQ(note, npos) << block;
    } else {
      EXPECT_NE(block.find("-- the record ends here, cut short: " + expected->second + " --\n"), npos)
          << block;
    }
  }
  EXPECT_EQ(checked, said.size());
}

// Records of the older layout, header and frames only, read as they always have: here
// with the output of the tool before the lines after the frames were known.
TEST(LogToolCrashRecord, OlderRecordsReadAsBefore) {
  TempRoot root;
  const Lines file = {
      "03-07 09:15:00:000000100  1234  1234 I ZuCamHAL [HAL ] Main.cpp:5 main() started",
      "03-07 09:15:01:005000  1234  1240 F DEBUG   : " + kStars,
      "03-07 09:15:01:005000  1234  1240 F DEBUG   : pid: 1234, tid: 1240",
      "03-07 09:15:01:005000  1234  1240 F DEBUG   : signal 11, code 1, fault addr 0x10",
      "03-07 09:15:01:005000  1234  1240 F DEBUG   : " + kStars,
      "03-07 09:15:01:005000  1234  1240 F DEBUG   : #01 pc 000000000003c050  /gone/libc.so.6 (__restore_rt)",
      "03-07 09:15:01:005000  1234  1240 F DEBUG   : #02 pc 000000000000b2c0  /gone/camera "
      "(processRequest(int)+191)",
      "03-07 09:15:01:005000  1234  1241 F DEBUG   : " + kStars,
      "03-07 09:15:01:005000  1234  1241 F DEBUG   : pid: 1234, tid: 1241",
      "03-07 09:15:01:005000  1234  1241 F DEBUG   : signal 7, code 2, fault addr 0x7f0000001000",
      "03-07 09:15:01:005000  1234  1241 F DEBUG   : " + kStars,
      "03-07 09:15:01:005000  1234  1241 F DEBUG   : #01 pc 0000000000001000  /gone/libx.so",
      "03-07 09:15:02:000000200  1234  1242 I ZuCamHAL [HAL ] Flush.cpp:9 flush() after",
      "F DEBUG   : #01 pc 000000000003c050  /gone/libc.so.6 (__restore_rt)",
      "F DEBUG   : #02 pc 000000000000b2c0  /gone/camera (fillFrame()+4)",
      "03-07 09:15:03:000100  1300  1301 F DEBUG   : " + kStars,
      "03-07 09:15:03:000100  1300  1301 F DEBUG   : pid: 1300, tid: 1301",
      "03-07 09:15:04:000000300  1300  1301 I ZuCamHAL [HAL ] Flush.cpp:9 flush() the same thread goes on",
  };
  root.writeFile("log/ZuCam_Debug_2024-03-07--09-15-00-1.txt", joinLines(file));
  ProgramOutput r = zlog({"crash", "--context", "1", root.path("log")});
  ASSERT_EQ(r.exitCode(), 0) << r.err;
  const std::string trampoline =
      "      (signal return trampoline: the frames below it were interrupted by the signal)\n";
  const std::string notFound = "      ?? (module not found nor at its own path)\n";
  EXPECT_EQ(r.out,
            "== crash 1 of 4: 2024-03-07T09:15:01.000005000, pid 1234, tid 1240, signal 11 (SIGSEGV), code 1 "
            "(SEGV_MAPERR), fault addr 0x10 ==\n"
            "-- 1 lines before it, from every thread --\n" +
                file[0] + "\n-- the record, faulting frame #02 --\n" +
                joinLines({file[1], file[2], file[3], file[4], file[5]}) + trampoline + file[6] + "\n" +
                notFound +
                "\n== crash 2 of 4: 2024-03-07T09:15:01.000005000, pid 1234, tid 1241, signal 7 (SIGBUS), "
                "code 2 (BUS_ADRERR), fault addr 0x7f0000001000 ==\n"
                "-- 1 lines before it, from every thread --\n" +
                file[0] + "\n-- the record, faulting frame #01 --\n" +
                joinLines({file[7], file[8], file[9], file[10], file[11]}) + notFound +
                "\n== crash 3 of 4: time not recorded ==\n"
                "-- 1 lines before it, from every thread --\n" +
                file[12] + "\n-- the record, faulting frame #02 --\n" + file[13] + "\n" + trampoline +
                file[14] + "\n" + notFound +
                "\n== crash 4 of 4: 2024-03-07T09:15:03.000000100, pid 1300, tid 1301 ==\n"
                "-- 1 lines before it, from every thread --\n" +
                file[12] + "\n-- the record --\n" + joinLines({file[15], file[16]}));
}

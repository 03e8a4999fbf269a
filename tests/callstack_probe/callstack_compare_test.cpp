// The host call stack against the platform's own: the same probe program, built
// against each, runs every scenario; their outputs must agree frame by frame. What
// may differ is only what two builds cannot share: the addresses inside the two probe
// programs and the two libraries' internals (the unwinder's own frame, offsets into
// the library functions).
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using namespace zutest;

namespace {

constexpr size_t npos = std::string::npos;

std::string realPath(const std::string& path) {
  char buf[PATH_MAX];
  return realpath(path.c_str(), buf) != nullptr ? buf : path;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != npos; start = nl + 1)
    lines.push_back(text.substr(start, nl - start));
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

// One implementation's run of one scenario.
struct Run {
  std::string program;  // the probe's real path
  std::string library;  // its call stack implementation: a file, or a directory ending in "/"
  std::vector<std::string> order;
  std::map<std::string, std::vector<std::string>> sections;
  std::vector<std::string> log;  // "<tag> <priority letter> <text>" of the probe's tags
  int exitCode = -1;
};

// Log records of the two logs' layouts: the host's "E/Tag: text", the platform's
// "Tag E MM-DD hh:mm:ss PID TID text".
std::string logRecord(const std::string& line) {
  char tag[64];
  char letter = 0;
  int at = 0;
  std::string text;
  if (line.size() > 2 && line[1] == '/' && line.find(": ") != npos) {
    const size_t colon = line.find(": ");
    snprintf(tag, sizeof(tag), "%s", line.substr(2, colon - 2).c_str());
    letter = line[0];
    text = line.substr(colon + 2);
  } else if (sscanf(line.c_str(), "%63s %c %*s %*s %*d %*d%n", tag, &letter, &at) == 2 && at > 0 &&
             static_cast<size_t>(at) < line.size()) {
    text = line.substr(static_cast<size_t>(at) + 1);
  } else {
    return "";
  }
  const std::string t = tag;
  if (t != "CsProbe" && t != "CallStack") return "";
  return t + " " + letter + " " + text;
}

Run runProbe(const std::string& program, const std::string& library, const std::string& scenario) {
  TempRoot root;
  ProgramOutput out = runCapture({program, scenario}, {{"ZUDEBUG_ROOT", root.dir()}, {"ZUDEBUG_LOGCAT", ""}});
  Run run;
  run.program = realPath(program);
  run.library = library;
  run.exitCode = out.exitCode();
  std::vector<std::string>* into = nullptr;
  for (const std::string& line : splitLines(out.out)) {
    if (line.rfind("== ", 0) == 0) {
      run.order.push_back(line.substr(3));
      into = &run.sections[line.substr(3)];
    } else if (into != nullptr) {
      into->push_back(line);
    }
  }
  for (const std::string& line : splitLines(out.err)) {
    std::string record = logRecord(line);
    if (!record.empty()) run.log.push_back(record);
  }
  return run;
}

// Both implementations of one scenario, run at the same time (a thread that does not
// answer keeps each waiting).
std::pair<Run, Run> runBoth(const std::string& scenario) {
  Run host, platform;
  std::thread t([&] { host = runProbe(CS_PROBE_HOST, realPath(CS_HOST_LIBRARY), scenario); });
  platform = runProbe(CS_PROBE_PLATFORM, std::string(CS_PLATFORM_LIBRARY_DIR) + "/", scenario);
  t.join();
  return {host, platform};
}

struct Frame {
  std::string prefix;  // what stands before "#"
  int index = -1;
  std::string pc, module, function, offset;
};

// "<prefix>#NN pc <16 hex digits>  <module>[ (<function>[+<offset>])]".
bool parseFrame(const std::string& line, Frame* f) {
  const size_t hash = line.find("#");
  if (hash == npos) return false;
  const size_t digits = line.find_first_not_of("0123456789", hash + 1);
  if (digits == npos || digits < hash + 3 || line.compare(digits, 4, " pc ") != 0 ||
      line.size() < digits + 22 || line.compare(digits + 20, 2, "  ") != 0)
    return false;
  f->prefix = line.substr(0, hash);
  f->index = atoi(line.c_str() + hash + 1);
  f->pc = line.substr(digits + 4, 16);
  const size_t moduleAt = digits + 22;
  const size_t paren = line.find(" (", moduleAt);
  f->module = line.substr(moduleAt, paren == npos ? npos : paren - moduleAt);
  // Memory that is no file is named by where it was mapped, which differs by run.
  const size_t colon = f->module.rfind(':');
  if (colon != npos && (f->module[0] == '<' || f->module[0] == '['))
    f->module = f->module.substr(0, colon + 1) + "<start>" + f->module.back();
  f->function.clear();
  f->offset.clear();
  if (paren != npos && line.back() == ')') {
    f->function = line.substr(paren + 2, line.size() - paren - 3);
    const size_t plus = f->function.rfind('+');
    if (plus != npos && f->function.find_first_not_of("0123456789", plus + 1) == npos) {
      f->offset = f->function.substr(plus + 1);
      f->function.resize(plus);
    }
  }
  return true;
}

enum class Where { Program, Library, Other };

Where whereOf(const Run& run, const std::string& module) {
  if (module == run.program) return Where::Program;
  if (run.library.back() == '/' ? module.rfind(run.library, 0) == 0 : module == run.library)
    return Where::Library;
  return Where::Other;
}

// Functions of the probe whose code does not depend on the headers it was built
// with: the same offsets in both builds.
const std::set<std::string> kSameCode = {"probe::leaf(void (*)(int), int)",
                                         "probe::middle(void (*)(int), int)",
                                         "probe::outer(void (*)(int), int)",
                                         "probe::fault(int)",
                                         "probe::parked()",
                                         "probe::parkedThread(void*)"};

// Anything but a frame: numbers (pids, tids, times) and the program's path aside.
std::string plain(const Run& run, std::string line) {
  for (size_t at; (at = line.find(run.program)) != npos;) line.replace(at, run.program.size(), "<probe>");
  std::string out;
  for (size_t i = 0; i < line.size(); ++i) {
    if (isdigit(static_cast<unsigned char>(line[i]))) {
      if (out.empty() || out.back() != 'N') out += 'N';
    } else {
      out += line[i];
    }
  }
  return out;
}

bool isApi(const std::string& function) {
  return function.rfind("android::CallStack::", 0) == 0 ||
         function.rfind("android::ProcessCallStack::", 0) == 0;
}

void compareLine(const Run& host, const std::string& h, const Run& platform, const std::string& p) {
  Frame fh, fp;
  const bool isFrame = parseFrame(h, &fh);
  ASSERT_EQ(isFrame, parseFrame(p, &fp)) << h << "\n" << p;
  if (!isFrame) {
    if (h.rfind("size ", 0) == 0) {
      EXPECT_EQ(h, p);
    } else {
      EXPECT_EQ(plain(host, h), plain(platform, p));
    }
    return;
  }
  const std::string both = "\n  host:     " + h + "\n  platform: " + p;
  EXPECT_EQ(fh.prefix, fp.prefix) << both;
  EXPECT_EQ(fh.index, fp.index) << both;
  const Where wh = whereOf(host, fh.module), wp = whereOf(platform, fp.module);
  ASSERT_EQ(wh, wp) << both;
  switch (wh) {
    case Where::Program:
      EXPECT_EQ(fh.function, fp.function) << both;
      if (kSameCode.count(fh.function) != 0) {
        EXPECT_EQ(fh.offset, fp.offset) << both;
      }
      break;
    case Where::Library:
      // The public functions by name; the unwinder's own frame differs.
      if (isApi(fh.function) || isApi(fp.function)) {
        EXPECT_EQ(fh.function, fp.function) << both;
      }
      break;
    case Where::Other:  // libc, libstdc++: the same files, the same pcs
      EXPECT_EQ(fh.module, fp.module) << both;
      EXPECT_EQ(fh.pc, fp.pc) << both;
      EXPECT_EQ(fh.function, fp.function) << both;
      EXPECT_EQ(fh.offset, fp.offset) << both;
      break;
  }
}

void compareLines(const Run& host, const std::vector<std::string>& h, const Run& platform,
                  const std::vector<std::string>& p) {
  EXPECT_EQ(h.size(), p.size());
  for (size_t i = 0; i < std::min(h.size(), p.size()); ++i) {
    SCOPED_TRACE("line " + std::to_string(i));
    compareLine(host, h[i], platform, p[i]);
  }
}

void compareRuns(const Run& host, const Run& platform) {
  EXPECT_EQ(host.exitCode, 0);
  EXPECT_EQ(platform.exitCode, 0);
  ASSERT_EQ(host.order, platform.order);
  for (const std::string& name : host.order) {
    SCOPED_TRACE(name);
    compareLines(host, host.sections.at(name), platform, platform.sections.at(name));
  }
  SCOPED_TRACE("log");
  compareLines(host, host.log, platform, platform.log);
}

// The frame lines of a section, without its size line.
std::vector<Frame> framesOf(const Run& run, const std::string& section) {
  std::vector<Frame> frames;
  for (const std::string& line : run.sections.at(section)) {
    Frame f;
    if (parseFrame(line, &f)) frames.push_back(f);
  }
  return frames;
}

}  // namespace

// The calling thread at every depth (the platform counts its unwinder's frame and
// update() itself before the caller), printed every way, a stack deeper than the 256
// frames either keeps, and a call from generated code (memory that is no file).
TEST(CallStackAgainstPlatform, CurrentThread) {
  auto [host, platform] = runBoth("current");
  compareRuns(host, platform);
  const std::vector<Frame> at2 = framesOf(platform, "update(2)");
  ASSERT_GE(at2.size(), 4u);
  EXPECT_EQ(at2[0].function, "probe::captureAt(int)");
  EXPECT_EQ(at2[1].function, "probe::leaf(void (*)(int), int)");
  EXPECT_EQ(framesOf(platform, "update(1)")[0].function, "android::CallStack::update(int, int)");
  EXPECT_EQ(platform.sections.at("deep")[0], "size 256");
  if (platform.sections.count("from generated code") != 0) {
    const std::vector<Frame> generated = framesOf(platform, "from generated code");
    ASSERT_EQ(generated.size(), 2u);
    EXPECT_EQ(generated[1].module, "<anonymous:<start>>");
  }
  EXPECT_FALSE(platform.log.empty());
}

// Inside a signal handler: the handler, the signal trampoline, then the interrupted
// function at the faulting instruction taken back like a return address.
TEST(CallStackAgainstPlatform, SignalHandler) {
  auto [host, platform] = runBoth("signal");
  compareRuns(host, platform);
  const std::vector<Frame> frames = framesOf(platform, "in a signal handler");
  ASSERT_GE(frames.size(), 3u);
  EXPECT_EQ(frames[0].function.rfind("probe::onSegv(", 0), 0u);
  EXPECT_EQ(frames[2].function, "probe::fault(int)");
}

// Other threads one by one and the whole process; a thread that blocks every signal
// and one that does not exist give no frames and a warning.
TEST(CallStackAgainstPlatform, OtherThreadsAndProcess) {
  auto [host, platform] = runBoth("threads");
  compareRuns(host, platform);
  EXPECT_EQ(framesOf(platform, "other thread update(0)")[0].function, "pause");
  EXPECT_EQ(platform.sections.at("thread that blocks signals"), std::vector<std::string>{"size 0"});
  EXPECT_EQ(platform.sections.at("process toString(Q>)").at(1), "Q>");
}

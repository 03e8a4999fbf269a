#include "Crash.h"

#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "Args.h"
#include "Commands.h"
#include "LogLine.h"

namespace zulog {

namespace {

constexpr char kCrashMark[] = " F DEBUG   : ";
constexpr char kBareFrameMark[] = "F DEBUG   : #";  // a frame line written without a time stamp

const char* signalName(int sig) {
  switch (sig) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGABRT:
      return "SIGABRT";
    case SIGBUS:
      return "SIGBUS";
    case SIGFPE:
      return "SIGFPE";
    case SIGILL:
      return "SIGILL";
    case SIGSYS:
      return "SIGSYS";
    case SIGTRAP:
      return "SIGTRAP";
    default:
      return nullptr;
  }
}

// The codes a crash most often carries; the rest print as numbers.
const char* codeName(int sig, int code) {
  switch (code) {
    case SI_USER:
      return "SI_USER";
    case SI_QUEUE:
      return "SI_QUEUE";
    case SI_TKILL:
      return "SI_TKILL";
    case SI_KERNEL:
      return "SI_KERNEL";
  }
  if (sig == SIGSEGV && code == SEGV_MAPERR) return "SEGV_MAPERR";
  if (sig == SIGSEGV && code == SEGV_ACCERR) return "SEGV_ACCERR";
  if (sig == SIGBUS && code == BUS_ADRALN) return "BUS_ADRALN";
  if (sig == SIGBUS && code == BUS_ADRERR) return "BUS_ADRERR";
  if (sig == SIGBUS && code == BUS_OBJERR) return "BUS_OBJERR";
  if (sig == SIGFPE && code == FPE_INTDIV) return "FPE_INTDIV";
  if (sig == SIGFPE && code == FPE_FLTDIV) return "FPE_FLTDIV";
  if (sig == SIGILL && code == ILL_ILLOPC) return "ILL_ILLOPC";
  if (sig == SIGILL && code == ILL_ILLOPN) return "ILL_ILLOPN";
  if (sig == SIGTRAP && code == TRAP_BRKPT) return "TRAP_BRKPT";
  return nullptr;
}

bool isTrampolineName(const std::string& name) {
  return name == "__restore_rt" || name == "__kernel_rt_sigreturn" || name == "__restore" ||
         name.rfind("__kernel_rt_sigreturn", 0) == 0;
}

}  // namespace

bool parseFrameLine(std::string_view text, FrameLine* out) {
  // "#NN pc HEX  MODULE (SYMBOL)"
  if (text.size() < 8 || text[0] != '#') return false;
  size_t i = 1;
  int index = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i < 6) index = index * 10 + (text[i++] - '0');
  if (i == 1 || text.compare(i, 4, " pc ") != 0) return false;
  i += 4;
  uint64_t pc = 0;
  size_t hexStart = i;
  while (i < text.size() && i - hexStart < 16) {
    const char c = text[i];
    int v = c >= '0' && c <= '9'   ? c - '0'
            : c >= 'a' && c <= 'f' ? c - 'a' + 10
            : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                   : -1;
    if (v < 0) break;
    pc = pc * 16 + static_cast<uint64_t>(v);
    ++i;
  }
  if (i == hexStart) return false;
  while (i < text.size() && text[i] == ' ') ++i;
  const size_t moduleEnd = text.find(' ', i);
  out->index = index;
  out->pc = pc;
  out->module = std::string(
      text.substr(i, moduleEnd == std::string_view::npos ? std::string_view::npos : moduleEnd - i));
  out->symbol.clear();
  if (moduleEnd != std::string_view::npos) {
    const size_t open = text.find('(', moduleEnd);
    const size_t close = text.rfind(')');
    if (open != std::string_view::npos && close != std::string_view::npos && close > open)
      out->symbol = std::string(text.substr(open + 1, close - open - 1));
  }
  return !out->module.empty();
}

bool CrashFinder::line(const MergedLine& l) {
  const std::string_view text = l.text;
  if (mInRecord) {
    bool belongs;
    if (mCurrent.timed)
      belongs = l.stamp != nullptr && text.size() > mStampText.size() &&
                text.compare(0, mStampText.size(), mStampText) == 0 &&
                text.compare(mStampText.size(), sizeof(kCrashMark) - 1, kCrashMark) == 0;
    else
      belongs = l.stamp == nullptr && text.compare(0, sizeof(kBareFrameMark) - 1, kBareFrameMark) == 0;
    if (belongs) {
      const std::string_view msg = text.substr(mCurrent.timed ? mStampText.size() + sizeof(kCrashMark) - 1
                                                              : sizeof(kBareFrameMark) - 2);
      if (isCrashStars(msg) && mHeaderLines >= 4) {
        close();  // the next record, at the same instant
      } else {
        mCurrent.lines.emplace_back(text);
        if (!msg.empty() && msg[0] == '#') {
          mCurrent.frameTexts.emplace_back(msg);
        } else if (mHeaderLines < 4) {
          ++mHeaderLines;
          int pid, tid, sig, code;
          char addr[64];
          const std::string m(msg);
          if (sscanf(m.c_str(), "pid: %d, tid: %d", &pid, &tid) == 2) {
            mCurrent.pid = pid;
            mCurrent.tid = tid;
          } else if (sscanf(m.c_str(), "signal %d, code %d, fault addr %63s", &sig, &code, addr) == 3) {
            mCurrent.signal = sig;
            mCurrent.code = code;
            mCurrent.faultAddr = addr;
          }
        }
        return true;
      }
    } else {
      close();
    }
  }
  bool starts = false;
  if (l.stamp != nullptr && l.stamp->level == 'F') {
    LogLine parsed;
    starts = parseLine(text, &parsed) && parsed.crash && isCrashStars(parsed.msg);
    if (starts) {
      mCurrent = CrashRecord();
      mCurrent.timed = true;
      mCurrent.key = l.key;
      mCurrent.pid = parsed.stamp.pid;
      mCurrent.tid = parsed.stamp.tid;
      mStampText = std::string(text.substr(0, text.find(kCrashMark)));
      mHeaderLines = 1;
    }
  } else if (l.stamp == nullptr && text.compare(0, sizeof(kBareFrameMark) - 1, kBareFrameMark) == 0) {
    starts = true;
    mCurrent = CrashRecord();
    mCurrent.key = l.key;
    mHeaderLines = 4;
    mCurrent.frameTexts.emplace_back(text.substr(sizeof(kBareFrameMark) - 2));
  }
  if (starts) {
    mInRecord = true;
    mCurrent.lines.emplace_back(text);
    mCurrent.context.assign(mRecent.begin(), mRecent.end());
    return true;
  }
  if (mContextLines > 0) {
    if (mRecent.size() == mContextLines) mRecent.pop_front();
    mRecent.emplace_back(text);
  }
  return true;
}

void CrashFinder::close() {
  if (!mInRecord) return;
  mInRecord = false;
  mRecords.push_back(std::move(mCurrent));
  mCurrent = CrashRecord();
}

std::vector<CrashRecord> CrashFinder::finish() {
  close();
  return std::move(mRecords);
}

void printCrashRecord(Writer& out, const CrashRecord& r, size_t number, size_t total, Symbolizer& symbols) {
  std::string head = "== crash " + std::to_string(number) + " of " + std::to_string(total) + ": ";
  head += r.timed ? isoTime(r.key) : "time not recorded";
  if (r.pid != 0) head += ", pid " + std::to_string(r.pid) + ", tid " + std::to_string(r.tid);
  if (r.signal >= 0) {
    head += ", signal " + std::to_string(r.signal);
    if (const char* name = signalName(r.signal)) head += std::string(" (") + name + ")";
    head += ", code " + std::to_string(r.code);
    if (const char* name = codeName(r.signal, r.code)) head += std::string(" (") + name + ")";
    head += ", fault addr " + r.faultAddr;
  }
  out.put(head + " ==\n");
  out.put("-- " + std::to_string(r.context.size()) + " lines before it, from every thread --\n");
  for (const std::string& c : r.context) {
    out.put(c);
    out.put('\n');
  }

  // Which frame faulted: the one after the signal return trampoline, else the first.
  std::vector<FrameLine> frames(r.frameTexts.size());
  std::vector<bool> parsed(frames.size());
  int trampoline = -1;
  for (size_t i = 0; i < frames.size(); ++i) {
    parsed[i] = parseFrameLine(r.frameTexts[i], &frames[i]);
    if (!parsed[i] || trampoline >= 0) continue;
    if (isTrampolineName(frames[i].symbol) || symbols.lookup(frames[i].module, frames[i].pc).signalFrame ||
        isTrampolineName(symbols.lookup(frames[i].module, frames[i].pc).symbol))
      trampoline = static_cast<int>(i);
  }
  const int faulting = trampoline >= 0 ? trampoline + 1 : 0;
  out.put("-- the record");
  if (faulting < static_cast<int>(frames.size()) && parsed[faulting])
    out.put(", faulting frame #" + std::string(frames[faulting].index < 10 ? "0" : "") +
            std::to_string(frames[faulting].index));
  out.put(" --\n");

  size_t frameNo = 0;
  for (const std::string& line : r.lines) {
    out.put(line);
    out.put('\n');
    const size_t mark = line.find("DEBUG   : #");
    if (mark == std::string::npos || frameNo >= frames.size()) continue;
    const size_t i = frameNo++;
    if (!parsed[i]) continue;
    const FrameLine& f = frames[i];
    if (static_cast<int>(i) == trampoline) {
      out.put("      (signal return trampoline: the frames below it were interrupted by the signal)\n");
      continue;
    }
    // The platform's unwinder shows a return address taken back into its call
    // instruction, and the pc the signal interrupted taken back the same way: that one
    // is given back, so that the faulting line is exact.
    const uint64_t address =
        static_cast<int>(i) == faulting && trampoline >= 0 ? f.pc + symbols.pcTakenBack(f.module) : f.pc;
    Symbolized s = symbols.lookup(f.module, address);
    if (s.frames.empty() ||
        (s.frames.size() == 1 && s.frames[0].function.empty() && s.frames[0].file.empty())) {
      out.put("      ?? (" + (s.problem.empty() ? std::string("nothing known at this address") : s.problem) +
              ")\n");
      continue;
    }
    for (size_t j = 0; j < s.frames.size(); ++j) {
      const SourceFrame& sf = s.frames[j];
      std::string text = "      ";
      if (j > 0) text += "(inlined by) ";
      text += sf.function.empty() ? "??" : sf.function;
      if (!sf.file.empty()) {
        text += " at " + sf.file + ":" + std::to_string(sf.line);
        if (sf.column > 0) text += ":" + std::to_string(sf.column);
      } else if (!s.problem.empty()) {
        char off[32];
        snprintf(off, sizeof(off), "+0x%" PRIx64, s.symbolOffset);
        text += std::string(off) + " (" + s.problem + ")";
      }
      out.put(text + "\n");
    }
  }
}

int runCrash(const std::vector<std::string>& args) {
  ParsedArgs a = parseArgs(args, {{"symbols", true}, {"context", true}});
  if (!a.error.empty()) return usageError(a.error);
  size_t context = 40;
  for (const std::string& v : a.values("context")) {
    char* end = nullptr;
    const long n = strtol(v.c_str(), &end, 10);
    if (v.empty() || *end != '\0' || n < 0 || n > 100000)
      return usageError("--context: not a line count: " + v);
    context = static_cast<size_t>(n);
  }
  InputSet inputs;
  InputProblems problems;
  if (!collectInputs(a.operands, inputs, problems)) return problems.failed ? 1 : 2;
  CrashFinder finder(context);
  MergeReport report = mergeFiles(inputs.files(), finder, nullptr);
  std::vector<CrashRecord> records = finder.finish();
  Writer out(STDOUT_FILENO);
  Symbolizer symbols(a.values("symbols"));
  for (size_t i = 0; i < records.size(); ++i) {
    if (i > 0) out.put('\n');
    printCrashRecord(out, records[i], i + 1, records.size(), symbols);
  }
  const int status = finishOutput(out, reportMerge(report, problems));
  if (records.empty())
    note("no crash record in the " + std::to_string(inputs.files().size()) + " file(s) read");
  return status;
}

}  // namespace zulog

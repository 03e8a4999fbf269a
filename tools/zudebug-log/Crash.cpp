#include "Crash.h"

#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "Args.h"
#include "Commands.h"
#include "LogLine.h"

namespace zulog {

namespace {

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

namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

int hexDigit(char c) {
  return c >= '0' && c <= '9'   ? c - '0'
         : c >= 'a' && c <= 'f' ? c - 'a' + 10
         : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                : -1;
}

bool isHex(std::string_view text, size_t digits) {
  if (text.size() != digits) return false;
  for (char c : text)
    if (hexDigit(c) < 0) return false;
  return true;
}

// "    rax 0000000000000000  rbx 00007ffd12345678  ...": names and 16-digit values.
bool isRegisterLine(std::string_view text) {
  size_t pairs = 0;
  for (size_t i = 0; i < text.size();) {
    while (i < text.size() && text[i] == ' ') ++i;
    if (i == text.size()) break;
    size_t end = text.find(' ', i);
    if (end == std::string_view::npos || end - i > 3) return false;
    i = end;
    while (i < text.size() && text[i] == ' ') ++i;
    end = std::min(text.find(' ', i), text.size());
    if (!isHex(text.substr(i, end - i), 16)) return false;
    i = end;
    ++pairs;
  }
  return pairs > 0;
}

// "    ADDRESS WORD WORD  CHARS": 16 hex digits each, a word "----------------" where
// it could not be read, 16 characters.
bool isMemoryLine(std::string_view text) {
  if (text.size() != 72 || !startsWith(text, "    ") || !isHex(text.substr(4, 16), 16)) return false;
  for (size_t at : {size_t{21}, size_t{38}}) {
    const std::string_view word = text.substr(at, 16);
    if (text[at - 1] != ' ' || (!isHex(word, 16) && word != "----------------")) return false;
  }
  return text.compare(54, 2, "  ") == 0;
}

constexpr int kMemoryLines = 16;

}  // namespace

bool parseModuleLine(std::string_view text, ModuleLine* out) {
  size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  if (i == 0 || !isHex(text.substr(i, 16), 16) || text.compare(i + 16, 2, "  ") != 0) return false;
  uint64_t base = 0;
  for (char c : text.substr(i, 16)) base = base * 16 + static_cast<uint64_t>(hexDigit(c));
  std::string_view path = text.substr(i + 18);
  std::string id;
  constexpr std::string_view kId = " (BuildId: ";
  const size_t mark = path.rfind(kId);
  if (mark != std::string_view::npos) {
    const std::string_view hex = path.substr(mark + kId.size());
    if (hex.size() < 2 || hex.back() != ')') return false;  // cut off
    for (char c : hex.substr(0, hex.size() - 1)) {
      if (hexDigit(c) < 0) return false;
      id += static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
    }
    path = path.substr(0, mark);
  }
  if (path.empty()) return false;
  out->base = base;
  out->path = std::string(path);
  out->buildId = std::move(id);
  return true;
}

bool carriesFaultAddress(int signal, int code) { return code > 0 && signal != SIGABRT; }

struct CrashFinder::Open {
  CrashRecord record;
  size_t order = 0;
  int pid = 0, tid = 0;  // of its lines' stamps, which may differ from its "pid:" line
  int headerLines = 0;
  // Where the lines after the frames are.
  enum class Section { Frames, Text, Registers, Memory, Modules, Separator, Thread, Summary };
  Section section = Section::Frames;
  std::string sectionName;  // "memory near sp"
  int sectionLines = 0;     // the indented lines of the section so far
  bool lastLineWhole = true;

  // The next line is the header's closing stars line.
  bool wantsClosingStars() const { return headerLines == 3; }
  void add(std::string_view text, std::string_view msg);
  std::string missing() const;
};

void CrashFinder::Open::add(std::string_view text, std::string_view msg) {
  CrashRecord& r = record;
  r.lines.emplace_back(text);
  LineRole role;
  bool whole = true;
  if (headerLines < 4 && section == Section::Frames &&
      (isCrashStars(msg) || startsWith(msg, "pid: ") || startsWith(msg, "signal "))) {
    ++headerLines;
    int pid, tid, sig, code;
    char addr[64];
    const std::string m(msg);
    if (sscanf(m.c_str(), "pid: %d, tid: %d", &pid, &tid) == 2) {
      r.pid = pid;
      r.tid = tid;
    } else if (sscanf(m.c_str(), "signal %d, code %d, fault addr %63s", &sig, &code, addr) == 3) {
      r.signal = sig;
      r.code = code;
      r.faultAddr = addr;
    }
  } else if (section == Section::Frames && startsWith(msg, "#")) {
    role.kind = LineRole::Frame;
    role.frame = static_cast<int>(r.frameTexts.size());
    r.frameTexts.emplace_back(msg);
  } else if (startsWith(msg, "Cause: ")) {
    section = Section::Text;
    r.cause = std::string(msg.substr(7));
  } else if (startsWith(msg, "Abort message: '")) {
    section = Section::Text;
    std::string_view m = msg.substr(16);
    whole = !m.empty() && m.back() == '\'';
    r.abortMessage = std::string(whole ? m.substr(0, m.size() - 1) : m);
  } else if (startsWith(msg, "Signal sent by ")) {
    section = Section::Text;
    r.sender = std::string(msg.substr(15));
  } else if (msg == "registers:" || msg == "modules:" || startsWith(msg, "memory near ")) {
    section = msg == "registers:" ? Section::Registers
              : msg == "modules:" ? Section::Modules
                                  : Section::Memory;
    sectionName = std::string(msg.substr(0, msg.find(" 0x")));
    sectionLines = 0;
    whole = msg.back() == ':';
  } else if (startsWith(msg, "--- --- ")) {
    section = Section::Separator;
  } else if (startsWith(msg, "thread: tid ")) {
    section = Section::Thread;
    ThreadFrames t;
    const size_t name = msg.find(", name ");
    t.tid = atoi(std::string(msg.substr(12, name == std::string_view::npos ? 12 : name - 12)).c_str());
    if (name != std::string_view::npos) t.name = std::string(msg.substr(name + 7));
    whole = name != std::string_view::npos;
    r.threads.push_back(std::move(t));
  } else if (startsWith(msg, "threads: ")) {
    section = Section::Summary;
    r.threadsAnswered = std::string(msg.substr(9));
  } else if (startsWith(msg, "    ")) {
    ++sectionLines;
    if (section == Section::Registers) {
      whole = isRegisterLine(msg);
    } else if (section == Section::Memory) {
      whole = isMemoryLine(msg);
    } else if (section == Section::Modules) {
      ModuleLine m;
      whole = parseModuleLine(msg, &m);
      if (whole) r.modules.push_back(std::move(m));
    } else if (section == Section::Thread) {
      const size_t start = msg.find_first_not_of(' ');
      const std::string_view frame = start == std::string_view::npos ? std::string_view() : msg.substr(start);
      FrameLine parsed;
      whole = parseFrameLine(frame, &parsed);
      role.kind = LineRole::ThreadFrame;
      role.thread = static_cast<int>(r.threads.size() - 1);
      role.frame = static_cast<int>(r.threads.back().frameTexts.size());
      r.threads.back().frameTexts.emplace_back(frame);
    }
  } else {
    if (section == Section::Frames && headerLines >= 4) section = Section::Text;
  }
  if (section != Section::Frames || headerLines >= 4) lastLineWhole = whole;
  r.roles.push_back(role);
}

// What a record with lines after its frames lacks at its end; empty when nothing.
std::string CrashFinder::Open::missing() const {
  if (section == Section::Frames) return "";  // a record without those lines
  if (!lastLineWhole) return "its last line is cut off";
  switch (section) {
    case Section::Registers:
      if (sectionLines == 0) return "the registers are missing";
      break;
    case Section::Modules: {
      if (sectionLines == 0) return "the modules are missing";
      // The list names the module of every frame: a line torn before its end may
      // still read as a module, but not as the one it was.
      for (const std::string& text : record.frameTexts) {
        FrameLine f;
        if (!parseFrameLine(text, &f) || f.module[0] != '/') continue;
        bool listed = false;
        for (const ModuleLine& m : record.modules) listed = listed || m.path == f.module;
        if (!listed) return "the list of modules lacks " + f.module;
      }
      break;
    }
    case Section::Memory:
      if (sectionLines < kMemoryLines)
        return "the " + sectionName + " has " + std::to_string(sectionLines) + " of its " +
               std::to_string(kMemoryLines) + " lines";
      break;
    case Section::Separator:
      return "a thread's block is missing after the last separator";
    default:
      break;
  }
  if ((section == Section::Thread || section == Section::Separator) && record.threadsAnswered.empty())
    return "the line on how many threads answered is missing";
  return "";
}

CrashFinder::CrashFinder(size_t contextLines) : mContextLines(contextLines) {}
CrashFinder::~CrashFinder() = default;

CrashFinder::Open* CrashFinder::start(const MergedLine& l, bool timed, int pid, int tid) {
  auto open = std::make_unique<Open>();
  open->order = mStarted++;
  open->pid = pid;
  open->tid = tid;
  CrashRecord& r = open->record;
  r.timed = timed;
  r.key = l.key;
  r.pid = pid;
  r.tid = tid;
  r.context.assign(mRecent.begin(), mRecent.end());
  if (!timed) open->headerLines = 4;  // such records hold frames only
  std::unique_ptr<Open>& slot = timed ? mOpen[{pid, tid}] : mBare;
  close(slot);
  slot = std::move(open);
  return slot.get();
}

void CrashFinder::close(std::unique_ptr<Open>& open) {
  if (open == nullptr) return;
  open->record.cutShort = open->missing();
  mDone.emplace_back(open->order, std::move(open->record));
  open.reset();
}

bool CrashFinder::line(const MergedLine& l) {
  const std::string_view text = l.text;
  // A record written without stamps is whole where its lines stop.
  if (mBare != nullptr) {
    if (l.stamp == nullptr &&
        startsWith(text, std::string_view(kBareFrameMark, sizeof(kBareFrameMark) - 2))) {
      mBare->add(text, text.substr(sizeof(kBareFrameMark) - 2));
      return true;
    }
    close(mBare);
  }
  if (l.stamp != nullptr) {
    auto it = mOpen.find({l.stamp->pid, l.stamp->tid});
    Open* open = it != mOpen.end() ? it->second.get() : nullptr;
    LogLine parsed;
    if (l.stamp->level == 'F' && parseLine(text, &parsed) && parsed.crash) {
      if (isCrashStars(parsed.msg) && (open == nullptr || !open->wantsClosingStars())) {
        start(l, true, l.stamp->pid, l.stamp->tid)->add(text, parsed.msg);  // the next record
        return true;
      }
      if (open != nullptr) {
        open->add(text, parsed.msg);
        return true;
      }
    } else if (open != nullptr) {
      close(it->second);  // the thread went on
      mOpen.erase(it);
    }
  } else if (startsWith(text, kBareFrameMark)) {
    start(l, false, 0, 0)->add(text, text.substr(sizeof(kBareFrameMark) - 2));
    return true;
  }
  if (mContextLines > 0) {
    if (mRecent.size() == mContextLines) mRecent.pop_front();
    mRecent.emplace_back(text);
  }
  return true;
}

std::vector<CrashRecord> CrashFinder::finish() {
  close(mBare);
  for (auto& o : mOpen) close(o.second);
  mOpen.clear();
  std::sort(mDone.begin(), mDone.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<CrashRecord> out;
  out.reserve(mDone.size());
  for (auto& d : mDone) out.push_back(std::move(d.second));
  mDone.clear();
  return out;
}

namespace {

// The functions and source lines at a frame's address, below its line.
void putSymbols(Writer& out, Symbolizer& symbols, const FrameLine& f, uint64_t address,
                const std::string& buildId) {
  Symbolized s = symbols.lookup(f.module, address, buildId);
  if (s.frames.empty() ||
      (s.frames.size() == 1 && s.frames[0].function.empty() && s.frames[0].file.empty())) {
    out.put("      ?? (" + (s.problem.empty() ? std::string("nothing known at this address") : s.problem) +
            ")\n");
    return;
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

std::string twoDigits(int n) { return (n >= 0 && n < 10 ? "0" : "") + std::to_string(n); }

}  // namespace

void printCrashRecord(Writer& out, const CrashRecord& r, size_t number, size_t total, Symbolizer& symbols) {
  std::string head = "== crash " + std::to_string(number) + " of " + std::to_string(total) + ": ";
  head += r.timed ? isoTime(r.key) : "time not recorded";
  if (r.pid != 0) head += ", pid " + std::to_string(r.pid) + ", tid " + std::to_string(r.tid);
  if (r.signal >= 0) {
    head += ", signal " + std::to_string(r.signal);
    if (const char* name = signalName(r.signal)) head += std::string(" (") + name + ")";
    head += ", code " + std::to_string(r.code);
    if (const char* name = codeName(r.signal, r.code)) head += std::string(" (") + name + ")";
    head += ", fault addr " + (carriesFaultAddress(r.signal, r.code) ? r.faultAddr : std::string("--------"));
  }
  out.put(head + " ==\n");
  if (!r.cause.empty()) out.put("cause: " + r.cause + "\n");
  if (!r.abortMessage.empty()) out.put("abort message: '" + r.abortMessage + "'\n");
  if (!r.sender.empty()) out.put("signal sent by " + r.sender + "\n");
  // The record's build IDs: a module's frames are only read from a file that has its own.
  std::map<std::string, std::string> buildIds;
  for (const ModuleLine& m : r.modules) {
    if (m.buildId.empty() || !buildIds.emplace(m.path, m.buildId).second) continue;
    for (const std::string& note : symbols.buildIdNotes(m.path, m.buildId)) out.put(note + "\n");
  }
  auto buildIdOf = [&buildIds](const std::string& module) {
    auto it = buildIds.find(module);
    return it != buildIds.end() ? it->second : std::string();
  };

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
    const FrameLine& f = frames[i];
    const std::string id = buildIdOf(f.module);
    if (isTrampolineName(f.symbol) || symbols.lookup(f.module, f.pc, id).signalFrame ||
        isTrampolineName(symbols.lookup(f.module, f.pc, id).symbol))
      trampoline = static_cast<int>(i);
  }
  const int faulting = trampoline >= 0 ? trampoline + 1 : 0;
  out.put("-- the record");
  if (faulting < static_cast<int>(frames.size()) && parsed[faulting])
    out.put(", faulting frame #" + twoDigits(frames[faulting].index));
  out.put(" --\n");

  for (size_t n = 0; n < r.lines.size(); ++n) {
    out.put(r.lines[n]);
    out.put('\n');
    const LineRole role = n < r.roles.size() ? r.roles[n] : LineRole();
    if (role.kind == LineRole::Frame) {
      const int i = role.frame;
      if (!parsed[i]) continue;
      const FrameLine& f = frames[i];
      if (i == trampoline) {
        out.put("      (signal return trampoline: the frames below it were interrupted by the signal)\n");
        continue;
      }
      // The platform's unwinder shows a return address taken back into its call
      // instruction, and the pc the signal interrupted taken back the same way: that one
      // is given back, so that the faulting line is exact.
      const std::string id = buildIdOf(f.module);
      const uint64_t address =
          i == faulting && trampoline >= 0 ? f.pc + symbols.pcTakenBack(f.module, id) : f.pc;
      putSymbols(out, symbols, f, address, id);
    } else if (role.kind == LineRole::ThreadFrame) {
      // Another thread's frames: its interrupted pc and return addresses taken back
      // into their calls, all looked up as they stand.
      FrameLine f;
      if (parseFrameLine(r.threads[role.thread].frameTexts[role.frame], &f))
        putSymbols(out, symbols, f, f.pc, buildIdOf(f.module));
    }
  }
  if (!r.cutShort.empty()) out.put("-- the record ends here, cut short: " + r.cutShort + " --\n");
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

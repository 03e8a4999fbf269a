#include "Guards.h"

#include <stdio.h>
#include <unistd.h>

#include "Args.h"
#include "Commands.h"
#include "LogLine.h"

namespace zulog {

namespace {

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}
bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// "TYPE:ID" of a request.
void splitRequest(std::string_view text, GuardTimeout* t) {
  const size_t colon = text.rfind(':');
  t->name = std::string(text.substr(0, colon));
  t->id = colon == std::string_view::npos ? "" : std::string(text.substr(colon + 1));
}

// The thread of a dump's thread header ("NAME" sysTid=T), else 0.
int sysTidOf(std::string_view line, std::string_view* name) {
  const size_t at = line.rfind("\" sysTid=");
  if (line.size() < 2 || line[0] != '"' || at == std::string_view::npos || at == 0) return 0;
  int tid = 0;
  int used = 0;
  const std::string rest(line.substr(at));
  if (sscanf(rest.c_str(), "\" sysTid=%d%n", &tid, &used) != 1 || static_cast<size_t>(used) != rest.size())
    return 0;
  if (name != nullptr) *name = line.substr(1, at - 1);
  return tid;
}

std::string warnedKey(int pid, int tid, std::string_view what) {
  return std::to_string(pid) + "/" + std::to_string(tid) + "/" + std::string(what);
}

}  // namespace

bool GuardFinder::line(const MergedLine& l) {
  if (l.stamp == nullptr) return true;
  LogLine p;
  if (!parseLine(l.text, &p)) return true;
  const std::string_view msg = p.msg;
  const int pid = p.stamp.pid, tid = p.stamp.tid;

  // A stack dump goes on while its thread prints lines with the timeout's message.
  auto open = mDumping.find({pid, tid});
  if (open != mDumping.end()) {
    GuardTimeout& t = mTimeouts[open->second];
    const std::string prefix = (t.request ? "R " + t.name + ":" + t.id + " NO EXIT" : t.id) + ": ";
    if (p.hasCallSite && p.func == "printLine" && startsWith(msg, prefix)) {
      const std::string_view stackLine = msg.substr(prefix.size());
      t.stack.emplace_back(stackLine);
      std::string_view threadName;
      if (!t.request && sysTidOf(stackLine, &threadName) == t.tid) t.threadName = std::string(threadName);
      if (startsWith(stackLine, "----- end ")) {
        t.stackEnded = true;
        mDumping.erase(open);
      }
      return true;
    }
    mDumping.erase(open);
  }

  int n = 0, limit = 0, ftid = 0;
  char func[256];
  if (startsWith(msg, "Thread tid=") && msg.find(" TOO LONG M[") != std::string_view::npos) {
    // Thread tid=T FUNC executed Nms(>Wms) TOO LONG M[MODULE:HEX:MESSAGE]
    const std::string m(msg);
    if (sscanf(m.c_str(), "Thread tid=%d %255s executed %dms(>%dms) TOO LONG", &ftid, func, &n, &limit) != 4)
      return true;
    const size_t bracket = m.find(" TOO LONG M[") + 12;
    const size_t moduleEnd = m.find(':', bracket);
    const size_t hexEnd = moduleEnd == std::string::npos ? std::string::npos : m.find(':', moduleEnd + 1);
    if (hexEnd == std::string::npos || !endsWith(m, "]")) return true;
    const std::string message = m.substr(hexEnd + 1, m.size() - hexEnd - 2);
    Warned& w = mWarned[warnedKey(pid, ftid, message)];
    if (w.count++ == 0) w.first = l.key;
    w.func = func;
    return true;
  }
  if (startsWith(msg, "R ") &&
      (endsWith(msg, " TIMEOUT") || msg.find(" TOO LONG; ") != std::string_view::npos)) {
    // R TYPE:ID executed N ms(>L) TIMEOUT | TOO LONG; compelledDelay = D ms
    const size_t sp = msg.find(" executed ");
    if (sp == std::string_view::npos) return true;
    const std::string request(msg.substr(2, sp - 2));
    if (sscanf(std::string(msg.substr(sp)).c_str(), " executed %d ms(>%d)", &n, &limit) != 2) return true;
    if (endsWith(msg, " TIMEOUT")) {
      mRequestLimit[std::to_string(pid) + "/" + request] = limit;
    } else {
      Warned& w = mWarned[warnedKey(pid, 0, request)];
      if (w.count++ == 0) w.first = l.key;
    }
    return true;
  }
  if (!startsWith(msg, "TIMEOUT ")) return true;
  GuardTimeout t;
  t.pid = pid;
  t.key = l.key;
  const size_t executed = msg.rfind(", executed ");
  if (executed == std::string_view::npos ||
      sscanf(std::string(msg.substr(executed)).c_str(), ", executed %d ms", &t.executedMs) != 1)
    return true;
  if (startsWith(msg, "TIMEOUT tid=")) {
    // TIMEOUT tid=T MESSAGE, executed N ms. M[MODULE:HEX]
    const std::string m(msg.substr(0, executed));
    int used = 0;
    if (sscanf(m.c_str(), "TIMEOUT tid=%d %n", &t.tid, &used) != 1 || used == 0) return true;
    t.id = m.substr(static_cast<size_t>(used));
    const size_t mod = msg.find(" M[", executed);
    if (mod != std::string_view::npos) {
      const std::string_view rest = msg.substr(mod + 3);
      t.module = std::string(rest.substr(0, rest.find(':')));
    }
    auto w = mWarned.find(warnedKey(pid, t.tid, t.id));
    if (w != mWarned.end()) {
      t.name = w->second.func;
      t.warnings = w->second.count;
      t.firstWarning = w->second.first;
      mWarned.erase(w);
    }
    if (t.name.empty()) t.name = t.id;  // no warning named the function
  } else {
    // TIMEOUT R TYPE:ID NO EXIT, executed N ms
    const std::string_view what = msg.substr(8, executed - 8);
    if (!startsWith(what, "R ") || !endsWith(what, " NO EXIT")) return true;
    t.request = true;
    const std::string_view request = what.substr(2, what.size() - 2 - 8);
    splitRequest(request, &t);
    auto w = mWarned.find(warnedKey(pid, 0, request));
    if (w != mWarned.end()) {
      t.warnings = w->second.count;
      t.firstWarning = w->second.first;
      mWarned.erase(w);
    }
    auto lim = mRequestLimit.find(std::to_string(pid) + "/" + std::string(request));
    if (lim != mRequestLimit.end()) {
      t.limitMs = lim->second;
      mRequestLimit.erase(lim);
    }
  }
  mTimeouts.push_back(t);
  mDumping[{pid, tid}] = mTimeouts.size() - 1;
  return true;
}

void printGuardStory(Writer& out, const std::vector<GuardTimeout>& timeouts) {
  std::map<std::pair<std::string, std::string>, int> perName;
  for (size_t i = 0; i < timeouts.size(); ++i) {
    const GuardTimeout& t = timeouts[i];
    const std::string kind = t.request ? "request" : "function";
    ++perName[{kind, t.name}];
    std::string head = "== timeout " + std::to_string(i + 1) + " of " + std::to_string(timeouts.size()) +
                       ": " + kind + " " + t.name;
    head += t.request ? ":" + t.id : " (\"" + t.id + "\")";
    head += ", " + isoTime(t.key) + ", pid " + std::to_string(t.pid) + " ==\n";
    out.put(head);
    std::string detail = "   executed " + std::to_string(t.executedMs) + " ms";
    if (t.limitMs >= 0) detail += " (limit " + std::to_string(t.limitMs) + " ms)";
    if (t.request)
      detail += "; a request has no thread of its own";
    else
      detail += "; thread " + std::to_string(t.tid) +
                (t.threadName.empty() ? "" : " \"" + t.threadName + "\"") +
                (t.module.empty() ? "" : ", module " + t.module);
    out.put(detail + "\n");
    if (t.warnings > 0)
      out.put("   " + std::to_string(t.warnings) + " TOO LONG warning" + (t.warnings == 1 ? "" : "s") +
              " before it, from " + isoTime(t.firstWarning) + "\n");
    if (t.stack.empty()) {
      out.put("   no stack dump followed (the [CallStack] group or offline debug lines were off)\n");
      continue;
    }
    out.put("   stack dump, " + std::to_string(t.stack.size()) + " lines" +
            (t.stackEnded ? "" : ", cut short (no end line)") + ":\n");
    for (const std::string& s : t.stack) {
      out.put("     ");
      out.put(s);
      if (!t.request && sysTidOf(s, nullptr) == t.tid) out.put("   <-- the guarded thread");
      out.put('\n');
    }
  }
  out.put("== timeouts per name ==\n");
  if (perName.empty()) out.put("   none\n");
  for (const auto& [name, count] : perName) {
    char row[512];
    snprintf(row, sizeof(row), "   %5d  %-8s  %s\n", count, name.first.c_str(), name.second.c_str());
    out.put(row);
  }
}

int runGuards(const std::vector<std::string>& args) {
  ParsedArgs a = parseArgs(args, {});
  if (!a.error.empty()) return usageError(a.error);
  InputSet inputs;
  InputProblems problems;
  if (!collectInputs(a.operands, inputs, problems)) return problems.failed ? 1 : 2;
  GuardFinder finder;
  MergeReport report = mergeFiles(inputs.files(), finder, nullptr);
  Writer out(STDOUT_FILENO);
  printGuardStory(out, finder.timeouts());
  return finishOutput(out, reportMerge(report, problems));
}

}  // namespace zulog

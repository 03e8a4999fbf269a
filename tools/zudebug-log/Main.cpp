// zudebug-log: reads the offline logs, crash records and snapshot dumps that
// libzudebug leaves on a device.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Args.h"
#include "Commands.h"
#include "Filter.h"
#include "Output.h"

namespace zulog {

namespace {

const char kUsage[] =
    "usage: zudebug-log <command> [options] PATH...\n"
    "\n"
    "  merge [filters] [--format text|jsonl] [--full-date] PATH...\n"
    "      every line of the offline logs once, in time order across files, threads\n"
    "      and processes; a directory stands for its ZuCam_<type>_<time>.txt files\n"
    "      filters: --since T, --until T (YYYY-MM-DD hh:mm[:ss[.frac]], MM-DD hh:mm:ss,\n"
    "      or hh:mm[:ss] on the day of the earliest line), --level EW | W+,\n"
    "      --group TAG|LABEL, --pid N, --tid N, --grep REGEX (POSIX extended)\n"
    "  crash [--symbols DIR]... [--context N] PATH...\n"
    "      every crash record with the N lines before it (default 40), every\n"
    "      thread's frames symbolised from debug information (DIR mirrors the\n"
    "      device's paths; a file whose build ID is not the record's is passed over)\n"
    "  snapshot FILE... [--html OUT] [--trace OUT]\n"
    "      captures of praxErrorSnapdump.json and PRAX_DumpInfo_<date>.txt: one row\n"
    "      each; a timeline page (--html) or Chrome trace JSON for Perfetto (--trace)\n"
    "  guards PATH...\n"
    "      request and function timeouts of the guard monitor with their stack dumps\n";

}  // namespace

int runMerge(const std::vector<std::string>& args) {
  ParsedArgs a = parseArgs(args, {{"since", true},
                                  {"until", true},
                                  {"level", true},
                                  {"group", true},
                                  {"pid", true},
                                  {"tid", true},
                                  {"grep", true},
                                  {"format", true},
                                  {"full-date", false}});
  if (!a.error.empty()) return usageError(a.error);
  Filter filter;
  std::string error;
  for (const auto& [name, value] : a.options) {
    if (name == "since") error = filter.setSince(value);
    if (name == "until") error = filter.setUntil(value);
    if (name == "level") error = filter.setLevels(value);
    if (name == "group") filter.addGroup(value);
    if (name == "pid") error = filter.addPid(value);
    if (name == "tid") error = filter.addTid(value);
    if (name == "grep") error = filter.setGrep(value);
    if (!error.empty()) return usageError(error);
  }
  std::vector<std::string> formats = a.values("format");
  const std::string format = formats.empty() ? "text" : formats.back();
  if (format != "text" && format != "jsonl") return usageError("--format is text or jsonl, not " + format);
  if (format == "jsonl" && a.has("full-date")) return usageError("--full-date is for the text format");

  InputSet inputs;
  InputProblems problems;
  if (!collectInputs(a.operands, inputs, problems)) return problems.failed ? 1 : 2;
  Writer out(STDOUT_FILENO);
  MergeReport report;
  if (format == "jsonl") {
    JsonlSink sink(out);
    report = mergeFiles(inputs.files(), sink, filter.active() ? &filter : nullptr);
    sink.finish();
  } else {
    TextSink sink(out, a.has("full-date"));
    report = mergeFiles(inputs.files(), sink, filter.active() ? &filter : nullptr);
  }
  const int status = reportMerge(report, problems);
  return finishOutput(out, status);
}

}  // namespace zulog

int main(int argc, char** argv) {
  // A reader that goes away (| head) ends the output; it is not an error.
  signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    fputs(zulog::kUsage, stderr);
    return 2;
  }
  const std::string command = args[0];
  args.erase(args.begin());
  if (command == "--help" || command == "-h" || command == "help") {
    fputs(zulog::kUsage, stdout);
    return 0;
  }
  if (command == "merge") return zulog::runMerge(args);
  if (command == "crash") return zulog::runCrash(args);
  if (command == "snapshot") return zulog::runSnapshot(args);
  if (command == "guards") return zulog::runGuards(args);
  return zulog::usageError("unknown command '" + command + "'");
}

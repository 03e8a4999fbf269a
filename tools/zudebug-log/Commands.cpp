#include "Commands.h"

#include <stdio.h>
#include <string.h>

namespace zulog {

void note(const std::string& message) { fprintf(stderr, "zudebug-log: %s\n", message.c_str()); }

int usageError(const std::string& message) {
  note(message);
  fputs("run 'zudebug-log --help' for the commands and options\n", stderr);
  return 2;
}

bool collectInputs(const std::vector<std::string>& paths, InputSet& inputs, InputProblems& problems) {
  if (paths.empty()) {
    usageError("no files or directories to read");
    return false;
  }
  for (const std::string& p : paths) inputs.add(p, problems);
  inputs.finish();
  if (inputs.files().empty()) {
    for (const std::string& m : problems.messages) note(m);
    note("nothing to read");
    return false;
  }
  return true;
}

int reportMerge(const MergeReport& report, const InputProblems& problems) {
  for (const std::string& m : problems.messages) note(m);
  for (const std::string& m : report.messages) note(m);
  return problems.failed ? 1 : 0;
}

int finishOutput(Writer& out, int status) {
  out.flush();
  if (out.error() == 0) return status;
  note(std::string("cannot write the output: ") + strerror(out.error()));
  return 1;
}

}  // namespace zulog

// The subcommands, each taking its arguments after the subcommand's name and
// returning the exit status: 0 done, 1 an input or the output failed, 2 bad usage.
#pragma once

#include <string>
#include <vector>

#include "Input.h"
#include "Merge.h"
#include "Output.h"

namespace zulog {

int runMerge(const std::vector<std::string>& args);
int runCrash(const std::vector<std::string>& args);
int runSnapshot(const std::vector<std::string>& args);
int runGuards(const std::vector<std::string>& args);

// Shared by the commands that read offline logs.
void note(const std::string& message);  // "zudebug-log: <message>" on stderr
int usageError(const std::string& message);
// Adds every path to `inputs`; false (after saying why) when there is nothing to read.
bool collectInputs(const std::vector<std::string>& paths, InputSet& inputs, InputProblems& problems);
// Says what the merge left out; the exit status for inputs that could not be read.
int reportMerge(const MergeReport& report, const InputProblems& problems);
// Flushes the output; `status`, or 1 (after saying why) when it could not be written.
int finishOutput(Writer& out, int status);

}  // namespace zulog

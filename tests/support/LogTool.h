// Runs the log reading tool the suites of zudebug-log were built against
// (ZUDEBUG_LOG_TOOL, set by the build).
#pragma once

#include <string>
#include <vector>

#include "TestSupport.h"

namespace zutest {

// `zudebug-log args...`, its stdout and stderr apart.
inline ProgramOutput zlog(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {ZUDEBUG_LOG_TOOL};
  argv.insert(argv.end(), args.begin(), args.end());
  return runCapture(argv);
}

}  // namespace zutest

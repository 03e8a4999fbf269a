// The guard monitor's story from the offline log: each request and function timeout,
// the warnings that led to it and the stack dump that followed.
//
// The patrol thread logs (group [Core]):
//   Thread tid=T FUNC executed Nms(>Wms) TOO LONG M[MODULE:HEX:MESSAGE]
//   R TYPE:ID executed N ms(>W) TOO LONG; compelledDelay = D ms
//   R TYPE:ID executed N ms(>L) TIMEOUT
//   TIMEOUT R TYPE:ID NO EXIT, executed N ms                    (a request)
//   TIMEOUT tid=T MESSAGE, executed N ms. M[MODULE:HEX]          (a function)
// and then dumps every thread's stack as [CallStack] lines "MESSAGE: <stack line>",
// from "----- pid P at ... -----" to "----- end P -----".
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "Merge.h"
#include "Output.h"

namespace zulog {

struct GuardTimeout {
  bool request = false;
  std::string name;      // request type, or the guarded function
  std::string id;        // request id, or the function guard's message
  std::string module;    // the function guard's module
  int pid = 0, tid = 0;  // tid: the function's thread; 0 for a request
  std::string threadName;
  int executedMs = 0, limitMs = -1;
  int64_t key = 0;
  int warnings = 0;  // TOO LONG lines before it
  int64_t firstWarning = 0;
  std::vector<std::string> stack;  // the dump, as printed
  bool stackEnded = false;
};

class GuardFinder : public LineSink {
 public:
  bool line(const MergedLine& line) override;
  const std::vector<GuardTimeout>& timeouts() const { return mTimeouts; }

 private:
  struct Warned {
    int count = 0;
    int64_t first = 0;
    std::string func;
  };
  std::vector<GuardTimeout> mTimeouts;
  // Open dumps: timeout index by the patrol thread that writes it.
  std::map<std::pair<int, int>, size_t> mDumping;
  // Warnings so far, by "pid/R TYPE:ID" or "pid/tid/MESSAGE".
  std::map<std::string, Warned> mWarned;
  // The request TIMEOUT line's limit, until its report follows.
  std::map<std::string, int> mRequestLimit;
};

void printGuardStory(Writer& out, const std::vector<GuardTimeout>& timeouts);

}  // namespace zulog

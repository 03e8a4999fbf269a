#include "PRAXDiagnostician.h"

namespace zudebug {

// ---- snapshot diagnostics ----

std::atomic<int32_t> snapshotEnable{0};
std::atomic<int32_t> snapshotDumpAll{0};
std::atomic<int32_t> snapshotLogPrint{0};
std::atomic<int32_t> moduleMemEnable{0};
std::atomic<int32_t> moduleDumpEnable{0};

// ---- module diagnostician ----

}  // namespace zudebug

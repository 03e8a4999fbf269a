#pragma once

#include <atomic>
#include <cstdint>

#include "ThreadPool.h"
#include "ZuDebugExport.h"

namespace zudebug {

// ---- snapshot diagnostics ----

// Diagnostics switches, 0 until SnapDiagnostician::init sets them (in this order).
// snapshotEnable: non-zero lets registration and unregistration work.
extern ZUDEBUG_EXPORT std::atomic<int32_t> snapshotEnable;
// snapshotDumpAll: >= 1 dumps every unregistered record, 0 only failed ones, < 0 none.
extern ZUDEBUG_EXPORT std::atomic<int32_t> snapshotDumpAll;
// snapshotLogPrint: >= 1 also writes a dumped record to the log.
extern ZUDEBUG_EXPORT std::atomic<int32_t> snapshotLogPrint;
// moduleMemEnable: memory-information callbacks of the module diagnostician.
extern ZUDEBUG_EXPORT std::atomic<int32_t> moduleMemEnable;
// moduleDumpEnable: string and integer dump callbacks of the module diagnostician.
extern ZUDEBUG_EXPORT std::atomic<int32_t> moduleDumpEnable;

// ---- module diagnostician ----

}  // namespace zudebug

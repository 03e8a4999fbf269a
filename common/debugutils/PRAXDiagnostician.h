#pragma once

#include "ZuDebugExport.h"

namespace zudebug {

// ---- snapshot diagnostics ----

// ---- module diagnostician ----

}  // namespace zudebug

#include "ZuDebugOfflineLogger.h"

#include "ZuDebugUtils.h"

namespace zudebug {

// ---- offline logger ----

// ---- crash signal catcher ----

}  // namespace zudebug

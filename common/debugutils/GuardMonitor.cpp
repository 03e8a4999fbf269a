#include "GuardMonitor.h"

namespace zudebug {}  // namespace zudebug

#include "PRAXDiagnostician.h"

namespace zudebug {}  // namespace zudebug

#include "PRAXDiagnostician.h"

namespace zudebug {

// ---- snapshot diagnostics ----

// ---- module diagnostician ----

}  // namespace zudebug

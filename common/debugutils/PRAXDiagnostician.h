#pragma once

#include "ZuDebugExport.h"

namespace zudebug {}  // namespace zudebug

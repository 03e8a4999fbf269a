// Host libprocessgroup: task profiles do not exist here; the call succeeds.
#include "processgroup/processgroup.h"

bool SetTaskProfiles(int, const std::vector<std::string>&, bool) { return true; }

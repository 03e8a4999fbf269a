// Android libprocessgroup: task profiles.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

bool SetTaskProfiles(int tid, const std::vector<std::string>& profiles, bool use_fd_cache = false);

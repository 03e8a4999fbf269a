// File names of the offline directory, shared by the launcher and the camera process.
#pragma once

#include <stdlib.h>

#include <string>
#include <vector>

// The numbers a name holds, for sorting by them: the last field of a time stamp has no
// leading zeros, so the names do not sort as text.
inline std::vector<long> numbersOf(const std::string& name) {
  std::vector<long> out;
  for (const char* p = name.c_str(); *p;) {
    if (*p >= '0' && *p <= '9') {
      char* end;
      out.push_back(strtol(p, &end, 10));
      p = end;
    } else {
      ++p;
    }
  }
  return out;
}

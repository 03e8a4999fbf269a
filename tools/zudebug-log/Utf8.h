// UTF-8 as the log files carry it: one valid sequence measured, no overlong forms and
// no surrogates.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zulog {

// Length of the valid UTF-8 sequence at p (1 to 4), or 0.
inline size_t utf8Length(const unsigned char* p, const unsigned char* end) {
  const unsigned char c = *p;
  size_t n;
  uint32_t cp;
  if (c < 0x80) return 1;
  if (c >= 0xc2 && c <= 0xdf) {
    n = 1;
    cp = c & 0x1f;
  } else if (c >= 0xe0 && c <= 0xef) {
    n = 2;
    cp = c & 0x0f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    n = 3;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - p) <= n) return 0;
  for (size_t i = 1; i <= n; ++i) {
    if ((p[i] & 0xc0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3f);
  }
  if ((n == 2 && (cp < 0x800 || (cp >= 0xd800 && cp <= 0xdfff))) ||
      (n == 3 && (cp < 0x10000 || cp > 0x10ffff)))
    return 0;
  return n + 1;
}

}  // namespace zulog

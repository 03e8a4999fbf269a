#include "JsonText.h"

#include <stdint.h>
#include <stdio.h>

namespace zulog {

namespace {

// Length of the valid UTF-8 sequence at p (1 to 4), or 0.
size_t utf8Length(const unsigned char* p, const unsigned char* end) {
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

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char c = *p;
    if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') {
      out += static_cast<char>(c);
      ++p;
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char esc[8];
          snprintf(esc, sizeof(esc), "\\u%04x", c);
          out += esc;
        } else {
          const size_t n = utf8Length(p, end);
          if (n == 0) {
            out += "\\ufffd";
            ++p;
            continue;
          }
          out.append(reinterpret_cast<const char*>(p), n);
          p += n;
          continue;
        }
    }
    ++p;
  }
  out += '"';
}

void appendHtml(std::string& out, std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char c = *p;
    if (c < 0x80) {
      switch (c) {
        case '&':
          out += "&amp;";
          break;
        case '<':
          out += "&lt;";
          break;
        case '>':
          out += "&gt;";
          break;
        case '"':
          out += "&quot;";
          break;
        case '\'':
          out += "&#39;";
          break;
        default:
          if (c < 0x20 && c != '\n' && c != '\t')
            out += "\xef\xbf\xbd";
          else
            out += static_cast<char>(c);
      }
      ++p;
      continue;
    }
    const size_t n = utf8Length(p, end);
    if (n == 0) {
      out += "\xef\xbf\xbd";  // U+FFFD
      ++p;
    } else {
      out.append(reinterpret_cast<const char*>(p), n);
      p += n;
    }
  }
}

}  // namespace zulog

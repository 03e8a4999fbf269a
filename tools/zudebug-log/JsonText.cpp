#include "JsonText.h"

#include "Utf8.h"

#include <stdint.h>
#include <stdio.h>

namespace zulog {

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

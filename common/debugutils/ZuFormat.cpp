#include "ZuFormat.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

namespace zudebug {
namespace fmt {
namespace {

// Widths and precisions from here on go to vsnprintf (its own limits and errors apply).
constexpr int kMaxField = 1000000;

// The arguments in a struct, so that helpers take them by reference on every ABI
// (va_list is an array type on some).
struct Args {
  va_list ap;
};

// Output like vsnprintf's: bytes past cap are counted, not stored.
struct Out {
  char* buf;
  size_t cap;  // size - 1, or 0
  size_t pos;  // would-be length so far
  void put(const char* s, size_t n) {
    if (pos < cap) {
      size_t room = cap - pos;
      memcpy(buf + pos, s, n < room ? n : room);
    }
    pos += n;
  }
  void fill(char c, size_t n) {
    if (n == 0) return;  // most fields have no padding
    if (pos < cap) {
      size_t room = cap - pos;
      memset(buf + pos, c, n < room ? n : room);
    }
    pos += n;
  }
  void putChar(char c) {
    if (pos < cap) buf[pos] = c;
    ++pos;
  }
};

enum Length { kInt, kChar, kShort, kLong, kLongLong, kIntMax, kSize, kPtrDiff };

// One conversion directive: flags, width, precision and length modifier.
struct Directive {
  bool left = false;
  bool zero = false;
  bool plus = false;
  bool space = false;
  bool alt = false;
  size_t width = 0;
  int prec = -1;  // none
  Length length = kInt;
};

// Text padded with spaces to the field width.
void putField(Out& out, const Directive& dv, const char* s, size_t n) {
  size_t pad = dv.width > n ? dv.width - n : 0;
  if (!dv.left) out.fill(' ', pad);
  out.put(s, n);
  if (dv.left) out.fill(' ', pad);
}

const char kLowerDigits[] = "0123456789abcdef";
const char kDecimalPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Decimal digits of v written backwards ending at end, two at a time.
template <typename U>
char* decimal(U v, char* end) {
  char* d = end;
  while (v >= 100) {
    const char* pair = kDecimalPairs + 2 * (v % 100);
    v /= 100;
    *--d = pair[1];
    *--d = pair[0];
  }
  if (v >= 10) {
    const char* pair = kDecimalPairs + 2 * v;
    *--d = pair[1];
    *--d = pair[0];
  } else {
    *--d = static_cast<char>('0' + v);
  }
  return d;
}
const char kUpperDigits[] = "0123456789ABCDEF";

// Digits of v in the base of the conversion, written backwards ending at end.
char* digits(unsigned long long v, char conv, char* end) {
  char* d = end;
  switch (conv) {
    case 'x':
      do {
        *--d = kLowerDigits[v & 15];
        v >>= 4;
      } while (v != 0);
      break;
    case 'X':
      do {
        *--d = kUpperDigits[v & 15];
        v >>= 4;
      } while (v != 0);
      break;
    case 'o':
      do {
        *--d = static_cast<char>('0' + (v & 7));
        v >>= 3;
      } while (v != 0);
      break;
    default:  // 32-bit division is the cheaper one
      d = v <= UINT_MAX ? decimal(static_cast<unsigned int>(v), end) : decimal(v, end);
      break;
  }
  return d;
}

// [spaces][sign or 0x][zeros][digits][spaces], as the C library lays out integers.
void putInteger(Out& out, const Directive& dv, unsigned long long mag, bool negative, char conv) {
  char tmp[24];
  char* end = tmp + sizeof(tmp);
  char* d = mag == 0 && dv.prec == 0 ? end : digits(mag, conv, end);
  size_t ndigits = static_cast<size_t>(end - d);

  char prefix[2];
  size_t nprefix = 0;
  if (conv == 'd' || conv == 'i') {
    if (negative) {
      prefix[nprefix++] = '-';
    } else if (dv.plus) {
      prefix[nprefix++] = '+';
    } else if (dv.space) {
      prefix[nprefix++] = ' ';
    }
  } else if (dv.alt && mag != 0 && (conv == 'x' || conv == 'X')) {
    prefix[nprefix++] = '0';
    prefix[nprefix++] = conv;
  }

  size_t prec = dv.prec > 0 ? static_cast<size_t>(dv.prec) : 0;
  size_t zeros = prec > ndigits ? prec - ndigits : 0;
  // '#' with o: the first digit is a zero, by a longer precision if need be.
  if (dv.alt && conv == 'o' && zeros == 0 && (ndigits == 0 || *d != '0')) zeros = 1;
  // '0' pads with zeros behind the sign, unless a precision is given or '-' is.
  if (dv.zero && !dv.left && dv.prec < 0 && dv.width > nprefix + ndigits + zeros) {
    zeros = dv.width - nprefix - ndigits;
  }
  size_t len = nprefix + zeros + ndigits;
  size_t pad = dv.width > len ? dv.width - len : 0;
  if (!dv.left) out.fill(' ', pad);
  out.put(prefix, nprefix);
  out.fill('0', zeros);
  out.put(d, ndigits);
  if (dv.left) out.fill(' ', pad);
}

long long signedArg(Args& args, Length length) {
  switch (length) {
    case kChar:
      return static_cast<signed char>(va_arg(args.ap, int));
    case kShort:
      return static_cast<short>(va_arg(args.ap, int));
    case kLong:
      return va_arg(args.ap, long);
    case kLongLong:
      return va_arg(args.ap, long long);
    case kIntMax:
      return va_arg(args.ap, intmax_t);
    case kSize:
      return va_arg(args.ap, ssize_t);
    case kPtrDiff:
      return va_arg(args.ap, ptrdiff_t);
    case kInt:
      break;
  }
  return va_arg(args.ap, int);
}

unsigned long long unsignedArg(Args& args, Length length) {
  switch (length) {
    case kChar:
      return static_cast<unsigned char>(va_arg(args.ap, unsigned int));
    case kShort:
      return static_cast<unsigned short>(va_arg(args.ap, unsigned int));
    case kLong:
      return va_arg(args.ap, unsigned long);
    case kLongLong:
      return va_arg(args.ap, unsigned long long);
    case kIntMax:
      return va_arg(args.ap, uintmax_t);
    case kSize:
      return va_arg(args.ap, size_t);
    case kPtrDiff:
      return static_cast<unsigned long long>(va_arg(args.ap, ptrdiff_t));
    case kInt:
      break;
  }
  return va_arg(args.ap, unsigned int);
}

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads a decimal field; false when it reaches kMaxField.
bool readNumber(const char*& p, int& value) {
  int v = 0;
  while (isDigit(*p)) {
    v = v * 10 + (*p++ - '0');
    if (v >= kMaxField) return false;
  }
  value = v;
  return true;
}

// Formats the whole call into out; false, with the arguments partly consumed, at the
// first thing left to vsnprintf.
bool formatAll(Out& out, const char* p, Args& args) {
  for (;;) {
    const char* pct = strchrnul(p, '%');
    if (pct != p) out.put(p, static_cast<size_t>(pct - p));
    if (*pct == '\0') return true;
    p = pct + 1;
    // The plain conversions most messages use, without flags, field or modifier.
    switch (*p) {
      case '%':
        out.putChar('%');
        ++p;
        continue;
      case 'd':
      case 'i': {
        int v = va_arg(args.ap, int);
        char tmp[16];
        char* end = tmp + sizeof(tmp);
        char* d = decimal(v < 0 ? 0u - static_cast<unsigned int>(v) : static_cast<unsigned int>(v), end);
        if (v < 0) *--d = '-';
        out.put(d, static_cast<size_t>(end - d));
        ++p;
        continue;
      }
      case 'u': {
        char tmp[16];
        char* end = tmp + sizeof(tmp);
        char* d = decimal(va_arg(args.ap, unsigned int), end);
        out.put(d, static_cast<size_t>(end - d));
        ++p;
        continue;
      }
      case 's': {
        const char* str = va_arg(args.ap, const char*);
        if (str == nullptr) str = "(null)";
        out.put(str, strlen(str));
        ++p;
        continue;
      }
      default:
        break;
    }

    Directive dv;
    for (;; ++p) {
      if (*p == '-') {
        dv.left = true;
      } else if (*p == '0') {
        dv.zero = true;
      } else if (*p == '+') {
        dv.plus = true;
      } else if (*p == ' ') {
        dv.space = true;
      } else if (*p == '#') {
        dv.alt = true;
      } else {
        break;
      }
    }

    if (*p == '*') {
      ++p;
      int w = va_arg(args.ap, int);
      if (w < 0) {
        if (w == INT_MIN) return false;
        dv.left = true;
        w = -w;
      }
      if (w >= kMaxField) return false;
      dv.width = static_cast<size_t>(w);
    } else if (isDigit(*p)) {
      int w;
      if (!readNumber(p, w) || *p == '$') return false;  // '$': a positional argument
      dv.width = static_cast<size_t>(w);
    }

    if (*p == '.') {
      ++p;
      if (*p == '*') {
        ++p;
        int v = va_arg(args.ap, int);
        if (v >= kMaxField) return false;
        dv.prec = v < 0 ? -1 : v;
      } else if (!readNumber(p, dv.prec)) {
        return false;
      }
    }

    switch (*p) {
      case 'h':
        if (p[1] == 'h') {
          dv.length = kChar;
          ++p;
        } else {
          dv.length = kShort;
        }
        ++p;
        break;
      case 'l':
        if (p[1] == 'l') {
          dv.length = kLongLong;
          ++p;
        } else {
          dv.length = kLong;
        }
        ++p;
        break;
      case 'j':
        dv.length = kIntMax;
        ++p;
        break;
      case 'z':
        dv.length = kSize;
        ++p;
        break;
      case 't':
        dv.length = kPtrDiff;
        ++p;
        break;
      default:
        break;
    }

    char conv = *p;
    switch (conv) {
      case 'd':
      case 'i': {
        if (dv.alt) return false;
        long long v = signedArg(args, dv.length);
        bool negative = v < 0;
        unsigned long long mag = negative ? 0ull - static_cast<unsigned long long>(v) : v;
        putInteger(out, dv, mag, negative, conv);
        break;
      }
      case 'u':
        if (dv.alt) return false;
        putInteger(out, dv, unsignedArg(args, dv.length), false, conv);
        break;
      case 'o':
      case 'x':
      case 'X':
        putInteger(out, dv, unsignedArg(args, dv.length), false, conv);
        break;
      case 's': {
        if (dv.length != kInt || dv.zero || dv.plus || dv.space || dv.alt) return false;
        const char* s = va_arg(args.ap, const char*);
        size_t n;
        if (s == nullptr) {
          // The C library's "(null)", or nothing when the precision cuts it.
          n = dv.prec < 0 || dv.prec >= 6 ? 6 : 0;
          s = "(null)";
        } else {
          n = dv.prec < 0 ? strlen(s) : strnlen(s, static_cast<size_t>(dv.prec));
        }
        putField(out, dv, s, n);
        break;
      }
      case 'c': {
        if (dv.length != kInt || dv.prec >= 0 || dv.zero || dv.plus || dv.space || dv.alt) {
          return false;
        }
        char c = static_cast<char>(va_arg(args.ap, int));
        putField(out, dv, &c, 1);
        break;
      }
      case 'p': {
        if (dv.length != kInt || dv.prec >= 0 || dv.zero || dv.plus || dv.space || dv.alt) {
          return false;
        }
        const void* ptr = va_arg(args.ap, const void*);
        if (ptr == nullptr) {
          putField(out, dv, "(nil)", 5);
        } else {
          char tmp[24];
          char* end = tmp + sizeof(tmp);
          char* d = digits(reinterpret_cast<uintptr_t>(ptr), 'x', end);
          *--d = 'x';
          *--d = '0';
          putField(out, dv, d, static_cast<size_t>(end - d));
        }
        break;
      }
      default:  // floating point, %n, %%-with-flags, wide, unknown, or the end of the format
        return false;
    }
    ++p;
  }
}

}  // namespace

void putNineDigits(char* out, unsigned int v) {
  // Three groups of three digits, worked out side by side rather than one digit after
  // the other.
  const unsigned int high = v / 1000000;
  const unsigned int middle = v / 1000 % 1000;
  const unsigned int low = v % 1000;
  const unsigned int groups[3] = {high, middle, low};
  for (int i = 0; i < 3; ++i) {
    const unsigned int g = groups[i] % 1000;
    out[3 * i] = static_cast<char>('0' + g / 100);
    memcpy(out + 3 * i + 1, kDecimalPairs + 2 * (g % 100), 2);
  }
}

int zuVFormat(char* buf, size_t size, const char* format, va_list ap) {
  Out out{buf, size != 0 ? size - 1 : 0, 0};
  Args args;
  va_copy(args.ap, ap);
  bool done = formatAll(out, format, args);
  va_end(args.ap);
  // The rest, and results too long for an int (vsnprintf's EOVERFLOW), as the C library does them.
  if (!done || out.pos > static_cast<size_t>(INT_MAX)) return vsnprintf(buf, size, format, ap);
  if (size != 0) buf[out.pos < out.cap ? out.pos : out.cap] = '\0';
  return static_cast<int>(out.pos);
}

int zuFormat(char* buf, size_t size, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  int n = zuVFormat(buf, size, format, ap);
  va_end(ap);
  return n;
}

}  // namespace fmt
}  // namespace zudebug

// The message formatter against the C library's snprintf: same return value and same
// bytes (the terminating NUL, truncation, and nothing written past it) for every row,
// at every buffer size from 0 up to past the result and at the line sizes.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <string>

// Some rows hand int to %hh and %h conversions on purpose, as every caller's varargs do;
// clang's format check asks for the narrow types.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wformat"
#endif
#include <vector>

#include "ZuFormat.h"

#ifdef __SANITIZE_THREAD__
// ThreadSanitizer's printf interceptor parses formats itself and stops the program at
// ones the C library takes (a format ending inside a conversion); the rows compare
// with the C library, not with it.
extern "C" const char* __tsan_default_options() { return "check_printf=0"; }
#endif

namespace {

using zudebug::fmt::zuFormat;

// Hides a value from the compiler's format checks (null strings, formats that are
// not valid C on purpose).
template <typename T>
T opaque(T v) {
  asm volatile("" : "+r"(v));
  return v;
}

using Call = int (*)(char*, size_t);

struct Row {
  const char* what;
  const char* expected;  // the full text, where the row pins it down; else nullptr
  Call ours;
  Call libc;
};

#define ROW(expected, ...)                                                                                   \
  Row {                                                                                                      \
#__VA_ARGS__, expected,                                                                                  \
        [](char* b,                                                                                          \
           size_t n) { return zuFormat(b, n, __VA_ARGS__); },                                                \
                                                           [](char* b,                                       \
                                                              size_t                                         \
                                                                  n) { return snprintf(b, n, __VA_ARGS__); } \
  }

constexpr size_t kArena = 4096;

// Both calls into buffers filled alike, at sizes 0..len+2 (up to a little past a
// line), len, len + 1 and the line sizes: equal results and equal arenas (so nothing
// is written past the bound either). A result of -1 (a format the C library rejects)
// must come back as -1.
void expectSame(const Row& row) {
  SCOPED_TRACE(row.what);
  std::vector<char> full(kArena, 0);
  int len = row.libc(full.data(), full.size());
  if (row.expected != nullptr) {
    EXPECT_STREQ(row.expected, full.data());
  }
  size_t last = len < 0 ? 64 : static_cast<size_t>(len) + 2;
  std::vector<size_t> sizes = {1021, 1022, 1023, 1024, last - 2, last - 1};
  for (size_t n = 0; n <= last && n < (last > kArena ? 8u : 1100u); ++n) sizes.push_back(n);
  for (size_t n : sizes) {
    if (n >= kArena) continue;
    std::vector<char> mine(kArena, '\xAA'), theirs(kArena, '\xAA');
    int a = row.ours(n == 0 ? nullptr : mine.data(), n);
    int b = row.libc(n == 0 ? nullptr : theirs.data(), n);
    ASSERT_EQ(b, a) << "size " << n;
    ASSERT_EQ(std::string(theirs.begin(), theirs.end()), std::string(mine.begin(), mine.end()))
        << "size " << n;
  }
}

const char* const kNull = nullptr;
const std::string kLong(1500, 'L');
const wchar_t kWide[] = L"wide";

TEST(FormatTest, IntegersAtTheirLimits) {
  const Row rows[] = {
      ROW("-2147483648", "%d", INT_MIN),
      ROW("2147483647", "%i", INT_MAX),
      ROW("-9223372036854775808", "%lld", LLONG_MIN),
      ROW("-9223372036854775808", "%ld", LONG_MIN),
      ROW("18446744073709551615", "%llu", ULLONG_MAX),
      ROW("ffffffffffffffff", "%lx", ULONG_MAX),
      ROW("FFFFFFFF", "%X", UINT_MAX),
      ROW("-128 127 255 -32768 65535", "%hhd %hhd %hhu %hd %hu", -128, 127, 255, -32768, 65535),
      ROW("-1 44 1", "%hhd %hhu %hd", 255, 300, 65537),  // converted to the narrow type
      ROW("1777777777777777777777", "%llo", ULLONG_MAX),
      ROW(nullptr, "%zu %zd %zx", SIZE_MAX, static_cast<ssize_t>(-1), SIZE_MAX),
      ROW(nullptr, "%jd %ju %td", INTMAX_MIN, UINTMAX_MAX, PTRDIFF_MIN),
      ROW("0 0 0 0", "%d %u %x %o", 0, 0u, 0u, 0u),
  };
  for (const Row& row : rows) expectSame(row);
}

// The nanoseconds of a time stamp: always nine digits, as "%09u" prints them.
TEST(FormatTest, NineDigitsAsPercentZeroNineU) {
  for (unsigned int v : {0u, 7u, 10u, 999u, 1000u, 1001u, 99999u, 100000u, 999999u, 1000000u, 123456789u,
                         100000000u, 909090909u, 999999999u}) {
    char ours[10] = {};
    char libc[16];
    zudebug::fmt::putNineDigits(ours, v);
    snprintf(libc, sizeof(libc), "%09u", v);
    EXPECT_STREQ(ours, libc);
  }
}

TEST(FormatTest, IntegerFlagsWidthAndPrecision) {
  const Row rows[] = {
      ROW("||", "|%.0d|", 0),
      ROW("|     |", "|%5.0d|", 0),
      ROW("|+|", "|%+.0d|", 0),
      ROW("| |", "|% .0d|", 0),
      ROW("||||", "|%.0u|%.0x|%.0X|", 0u, 0u, 0u),
      ROW("|0|", "|%#.0o|", 0u),
      ROW("|00042|", "|%.5d|", 42),
      ROW("|-00042|", "|%.5d|", -42),
      ROW("|    -00042|", "|%10.5d|", -42),
      ROW("|-00042   |", "|%-9.5d|", -42),
      ROW("|-000000042|", "|%010d|", -42),
      ROW("|+000000042|", "|%+010d|", 42),
      ROW("| 000000042|", "|% 010d|", 42),
      ROW("|+42|", opaque("|% +d|"), 42),
      ROW("|       042|", opaque("|%010.3d|"), 42),  // a precision turns '0' off
      ROW("|42        |", opaque("|%-010d|"), 42),   // so does '-'
      ROW("|0x002a|0X2A|0|", "|%#06x|%#X|%#x|", 42u, 42u, 0u),
      ROW("|0x0002a|", "|%#.5x|", 42u),
      ROW("|052|0052|00052|", "|%#o|%#04o|%#.5o|", 42u, 42u, 42u),
      ROW("|42|42|", opaque("|%+u|% x|"), 42u, 0x42u),  // sign flags mean nothing unsigned
      ROW("|   42|42   |", "|%*d|%*d|", 5, 42, -5, 42),
      ROW("|00042|42|", "|%.*d|%.*d|", 5, 42, -3, 42),  // a negative precision is none
      ROW(nullptr, "|%2000d|", 7),                      // wider than the line
      ROW(nullptr, "|%-1500.1200lld|", LLONG_MIN),
  };
  for (const Row& row : rows) expectSame(row);
}

TEST(FormatTest, StringsCharactersAndPointers) {
  const Row rows[] = {
      ROW("(null)", "%s", opaque(kNull)),
      ROW("|  (null)|(null)  |", "|%8s|%-8s|", opaque(kNull), opaque(kNull)),
      ROW("|(null)|(null)|", "|%.6s|%.7s|", opaque(kNull), opaque(kNull)),
      ROW("||   |", "|%.5s|%3.1s|", opaque(kNull), opaque(kNull)),  // cut: nothing, not "(null"
      ROW("|abc|ab|  ab|ab  |", "|%.5s|%.2s|%4.2s|%-4.2s|", "abc", "abc", "abc", "abc"),
      ROW("||", "|%.0s|", "abc"),
      ROW("|x|  y|z  |", "|%c|%3c|%-3c|", 'x', 'y', 'z'),
      ROW(nullptr, "|%c|", 0),  // a NUL inside the output
      ROW("|(nil)|  (nil)|(nil)  |", "|%p|%7p|%-7p|", opaque(kNull), opaque(kNull), opaque(kNull)),
      ROW(nullptr, "|%p|%20p|%-20p|", &kArena, &kArena, reinterpret_cast<void*>(UINTPTR_MAX)),
      ROW(nullptr, "|%*s|%-*s|%.*s|", 1200, "right", 1100, "left", 3, "cut"),
      ROW(nullptr, "%s%s", kLong.c_str(), "tail"),  // past 1021 characters of line text
      ROW(nullptr, "%.1021s", kLong.c_str()),
      ROW("100% done, %d", "100%% done, %%d"),
      ROW("%", "%%"),
  };
  for (const Row& row : rows) expectSame(row);
}

// What the formatter does not do itself comes out of vsnprintf whole, arguments
// already read by hand included.
TEST(FormatTest, TheRestAsTheCLibraryDoesIt) {
  const Row rows[] = {
      ROW("frame 12 took 3.25 ms on cam0", "frame %d took %.2f ms on %s", 12, 3.25, "cam0"),
      ROW(nullptr, "%s %e %g %a %E %G %A %F", "x", 1e300, 1e-5, 0.5, -0.0, 123456789.0, 1.0, 1e20),
      ROW(nullptr, "%d %Lf %s", 1, 2.5L, "after"),
      ROW("b a", "%2$s %1$s", "a", "b"),
      ROW("|wide|w|", "|%ls|%lc|", kWide, static_cast<wint_t>(L'w')),
      ROW(nullptr, "%d%c%s% -8d%-#12.3x", -1, '-', "s", 5, 0x1234u),
      ROW(nullptr, opaque("%d ok, then a trailing %"), 5),
      ROW(nullptr, opaque("a conversion cut short: %-5"), 5),
      ROW(nullptr, opaque("%5.3l"), 5L),
      ROW(nullptr, opaque("%5% and %y and %#d and %05s and %+p"), 5, "s", &kArena),
      ROW(nullptr, opaque("%'d %qd %Zd %I"), 1234567, 1LL, static_cast<size_t>(2)),
      ROW(nullptr, opaque("%1000000d"), 1),  // fields too wide to do by hand
      ROW(nullptr, "%*d|%-*.*d|", 1000000, 1, 999999, 1000000, 2),
  };
  for (const Row& row : rows) expectSame(row);
}

// Truncated lines keep 1021 characters of text and report the whole length.
TEST(FormatTest, LongLinesAreCutAtTheLineSize) {
  std::string msg(3000, 'm');
  char line[1022];
  memset(line, 0, sizeof(line));
  EXPECT_EQ(3009, zuFormat(line, sizeof(line), "%s %d", msg.c_str(), -1234567));
  EXPECT_EQ(1021u, strlen(line));
  EXPECT_EQ(std::string(1021, 'm'), line);
  EXPECT_EQ(1023, zuFormat(line, sizeof(line), "[%-1021d]", 5));
  EXPECT_EQ(std::string("[5") + std::string(1019, ' '), line);
}

}  // namespace

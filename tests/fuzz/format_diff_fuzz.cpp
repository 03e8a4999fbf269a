// The message formatter against the C library's vsnprintf: a random valid format and
// random arguments, formatted by both at random buffer sizes, must give the same
// return value and, where the C library succeeds, the same bytes (the terminating
// NUL, truncation, and nothing written past the bound).
//
// Formats stay valid C: every conversion gets an argument of its exact type. The
// arguments come in one of a few fixed orders of types; each conversion takes the
// next argument and is drawn among the conversions, modifiers and flags valid for its
// type, and an int argument may instead be the '*' width or precision of the
// conversion after it. Floating point and wide conversions are included, so the
// hand-over to vsnprintf is exercised too.
#include <fuzzer/FuzzedDataProvider.h>
#include <stddef.h>
#include <stdint.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <limits>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "ZuFormat.h"

namespace {

constexpr size_t kArena = 1200;

using Str = const char*;
using Ptr = const void*;
using WStr = const wchar_t*;

// The orders of argument types; each call uses a prefix of one.
using OrderA = std::tuple<int, int, Str, unsigned, int, long, double, int, Str, unsigned long, long long, Ptr,
                          int, unsigned long long, long double, Str>;
using OrderB = std::tuple<int, Str, int, int, unsigned, unsigned, Str, int, Ptr, double, long, int, int, Str,
                          unsigned long, int>;
using OrderC = std::tuple<long long, int, unsigned long long, Str, int, WStr, unsigned, double, int, int, Ptr,
                          Str, long double, unsigned, int, long>;
using OrderD = std::tuple<Str, Str, int, Ptr, Ptr, int, Str, unsigned, unsigned, int, long, long,
                          unsigned long, int, Str, int>;

template <typename T>
T pickInteger(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 3)) {  // the edges more often than by chance
    case 0:
      return std::numeric_limits<T>::min();
    case 1:
      return std::numeric_limits<T>::max();
    case 2:
      return static_cast<T>(in.ConsumeIntegralInRange(-3, 3));
    default:
      return in.ConsumeIntegral<T>();
  }
}

template <typename T>
T pick(FuzzedDataProvider& in, const std::vector<std::string>& strings) {
  if constexpr (std::is_integral_v<T>) {
    return pickInteger<T>(in);
  } else if constexpr (std::is_floating_point_v<T>) {
    double d;
    switch (in.ConsumeIntegralInRange(0, 2)) {
      case 0: {
        uint64_t bits = in.ConsumeIntegral<uint64_t>();  // NaNs, infinities and subnormals included
        memcpy(&d, &bits, sizeof(d));
        break;
      }
      case 1:
        d = in.ConsumeIntegralInRange(-100000, 100000) / 64.0;
        break;
      default:
        d = in.ConsumeFloatingPoint<double>();
        break;
    }
    return static_cast<T>(d);
  } else if constexpr (std::is_same_v<T, Str>) {
    if (in.ConsumeIntegralInRange(0, 7) == 0) return nullptr;
    return strings[in.ConsumeIntegralInRange<size_t>(0, strings.size() - 1)].c_str();
  } else if constexpr (std::is_same_v<T, WStr>) {
    static const wchar_t* const kWide[] = {L"", L"wide", L"w\u00e9", nullptr};  // not 7-bit: EILSEQ
    return kWide[in.ConsumeIntegralInRange(0, 3)];
  } else {
    if (in.ConsumeBool()) return nullptr;
    return reinterpret_cast<Ptr>(in.ConsumeIntegral<uintptr_t>());
  }
}

enum Kind { kInt, kUnsigned, kLong, kULong, kLongLong, kULongLong, kDouble, kLongDouble, kStr, kWStr, kPtr };

template <typename T>
constexpr Kind kindOf() {
  if constexpr (std::is_same_v<T, int>) return kInt;
  if constexpr (std::is_same_v<T, unsigned>) return kUnsigned;
  if constexpr (std::is_same_v<T, long>) return kLong;
  if constexpr (std::is_same_v<T, unsigned long>) return kULong;
  if constexpr (std::is_same_v<T, long long>) return kLongLong;
  if constexpr (std::is_same_v<T, unsigned long long>) return kULongLong;
  if constexpr (std::is_same_v<T, double>) return kDouble;
  if constexpr (std::is_same_v<T, long double>) return kLongDouble;
  if constexpr (std::is_same_v<T, Str>) return kStr;
  if constexpr (std::is_same_v<T, WStr>) return kWStr;
  return kPtr;
}

const char* oneOf(FuzzedDataProvider& in, std::initializer_list<const char*> options) {
  return options.begin()[in.ConsumeIntegralInRange<size_t>(0, options.size() - 1)];
}

// A conversion with its length modifier for an argument of the kind, and what C
// allows with it: a precision, the '0' flag, the '#' flag.
struct Conversion {
  const char* text;
  bool precision, zero, alt;
};

Conversion conversionFor(FuzzedDataProvider& in, Kind kind) {
  switch (kind) {
    case kInt: {
      const char* c = oneOf(in, {"d", "i", "hhd", "hd", "hi", "c", "hhi"});
      bool isChar = c[0] == 'c';
      return {c, !isChar, !isChar, false};
    }
    case kUnsigned: {
      const char* c = oneOf(in, {"u", "x", "X", "o", "hhu", "hx", "hhX", "ho", "lc"});
      if (c[0] == 'l') return {c, false, false, false};
      return {c, true, true, c[strlen(c) - 1] != 'u'};
    }
    case kLong:
      return {oneOf(in, {"ld", "li", "jd", "zd", "td", "ti"}), true, true, false};
    case kULong: {
      const char* c = oneOf(in, {"lu", "lx", "lX", "lo", "ju", "zu", "zx", "jx", "tu", "to"});
      return {c, true, true, c[1] != 'u'};
    }
    case kLongLong:
      return {oneOf(in, {"lld", "lli"}), true, true, false};
    case kULongLong: {
      const char* c = oneOf(in, {"llu", "llx", "llX", "llo"});
      return {c, true, true, c[2] != 'u'};
    }
    case kDouble:
      return {oneOf(in, {"f", "F", "e", "E", "g", "G", "a", "A", "lf", "le"}), true, true, true};
    case kLongDouble:
      return {oneOf(in, {"Lf", "Le", "Lg", "La"}), true, true, true};
    case kStr:
      return {"s", true, false, false};
    case kWStr:
      return {"ls", true, false, false};
    case kPtr:
      break;
  }
  return {"p", false, false, false};
}

// A width or precision in digits, around the values that matter (0, the buffer
// sizes, the line).
std::string number(FuzzedDataProvider& in) {
  return std::to_string(in.ConsumeBool() ? in.ConsumeIntegralInRange(0, 12)
                                         : in.ConsumeIntegralInRange(0, 1100));
}

// Literal text: any bytes but NUL and '%', and now and then "%%".
void appendText(FuzzedDataProvider& in, std::string& fmt) {
  size_t n = in.ConsumeIntegralInRange(0, 7) == 0 ? in.ConsumeIntegralInRange(0, 1100)
                                                  : in.ConsumeIntegralInRange(0, 12);
  for (size_t i = 0; i < n && in.remaining_bytes() > 0; ++i) {
    char c = static_cast<char>(in.ConsumeIntegralInRange(1, 255));
    fmt += c == '%' ? "%%" : std::string(1, c);
  }
}

// A format for the first `used` arguments of the kinds: per argument some text and
// one conversion, where an int argument may instead be the '*' width or precision of
// the conversion that follows.
// The values of the '*' arguments go to stars: fields up to a little past the line
// (the C library pads byte by byte, so the table of cases tries the huge ones).
std::string makeFormat(FuzzedDataProvider& in, const Kind* kinds, size_t used,
                       std::vector<std::pair<size_t, int>>& stars) {
  std::string fmt;
  auto starValue = [&in]() { return in.ConsumeIntegralInRange(-1100, 1100); };
  size_t k = 0;
  while (k < used) {
    appendText(in, fmt);
    bool starWidth = kinds[k] == kInt && k + 1 < used && in.ConsumeIntegralInRange(0, 3) == 0;
    if (starWidth) stars.emplace_back(k++, starValue());
    bool starPrecision = kinds[k] == kInt && k + 1 < used && in.ConsumeIntegralInRange(0, 3) == 0;
    if (starPrecision) stars.emplace_back(k++, starValue());
    Conversion conv = conversionFor(in, kinds[k]);
    ++k;
    if (!conv.precision && starPrecision) {  // the int goes to a conversion of its own
      fmt += "%d";
      starPrecision = false;
    }
    fmt += '%';
    size_t flags = in.ConsumeIntegralInRange(0, 3);
    for (size_t i = 0; i < flags; ++i) {
      char f = *oneOf(in, {"-", "0", "+", " ", "#"});
      if ((f == '0' && !conv.zero) || (f == '#' && !conv.alt)) continue;
      fmt += f;
    }
    if (starWidth) {
      fmt += '*';
    } else if (in.ConsumeBool()) {
      std::string width = number(in);
      if (width != "0") fmt += width;  // "0" would be the flag
    }
    if (starPrecision) {
      fmt += ".*";
    } else if (conv.precision && in.ConsumeIntegralInRange(0, 2) == 0) {
      fmt += '.';
      if (in.ConsumeIntegralInRange(0, 4) != 0) fmt += number(in);
    }
    fmt += conv.text;
  }
  if (in.ConsumeBool()) appendText(in, fmt);
  return fmt;
}

__attribute__((format(printf, 3, 4))) int ours(char* buf, size_t size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zudebug::fmt::zuVFormat(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

__attribute__((format(printf, 3, 4))) int libc(char* buf, size_t size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

// Both into arenas filled alike: the same result, and where the C library succeeds
// the same arena bytes.
template <typename Order>
void compare(const Order& args, const std::string& fmt, size_t size) {
  static char mine[kArena], theirs[kArena];
  memset(mine, 0xAA, sizeof(mine));
  memset(theirs, 0xAA, sizeof(theirs));
  int a =
      std::apply([&](auto... v) { return ours(size == 0 ? nullptr : mine, size, fmt.c_str(), v...); }, args);
  int b = std::apply([&](auto... v) { return libc(size == 0 ? nullptr : theirs, size, fmt.c_str(), v...); },
                     args);
  if (a != b || (b >= 0 && memcmp(mine, theirs, sizeof(mine)) != 0)) {
    fprintf(stderr, "format \"%s\" size %zu: zuVFormat %d, vsnprintf %d\n", fmt.c_str(), size, a, b);
    abort();
  }
}

template <typename T>
void setInt(T& slot, int value) {
  if constexpr (std::is_same_v<T, int>) slot = value;
}

template <typename Order, size_t... I>
void run(FuzzedDataProvider& in, std::index_sequence<I...>) {
  static constexpr Kind kKinds[] = {kindOf<std::tuple_element_t<I, Order>>()...};
  std::vector<std::string> strings;
  for (int i = 0; i < 3; ++i) strings.push_back(in.ConsumeRandomLengthString(1200));
  Order args{pick<std::tuple_element_t<I, Order>>(in, strings)...};
  size_t used = in.ConsumeIntegralInRange<size_t>(0, sizeof...(I));
  std::vector<std::pair<size_t, int>> stars;
  std::string fmt = makeFormat(in, kKinds, used, stars);
  for (const auto& [k, value] : stars) ((I == k ? setInt(std::get<I>(args), value) : void()), ...);
  int len = std::apply([&](auto... v) { return libc(nullptr, 0, fmt.c_str(), v...); }, args);
  std::vector<size_t> sizes = {0, in.ConsumeIntegralInRange<size_t>(1, 64), 1022, 1024};
  if (len >= 0 && static_cast<size_t>(len) + 1 < kArena) {
    sizes.push_back(static_cast<size_t>(len));
    sizes.push_back(static_cast<size_t>(len) + 1);
  }
  for (size_t size : sizes) compare(args, fmt, size);
}

template <typename Order>
void run(FuzzedDataProvider& in) {
  run<Order>(in, std::make_index_sequence<std::tuple_size_v<Order>>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
      run<OrderA>(in);
      break;
    case 1:
      run<OrderB>(in);
      break;
    case 2:
      run<OrderC>(in);
      break;
    default:
      run<OrderD>(in);
      break;
  }
  return 0;
}

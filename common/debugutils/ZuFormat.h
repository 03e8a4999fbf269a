// printf-style formatting of log messages without the C library's vsnprintf for the
// common conversions (internal, not installed).
//
// zuVFormat has vsnprintf's contract exactly: it writes at most size - 1 bytes of the
// result plus a terminating NUL into buf (nothing when size is 0, and then buf may be
// null) and returns the length the whole result would have, or -1 where vsnprintf
// fails. Its bytes and its return value are those of the C library's vsnprintf for
// every format.
//
// Formatted here:
//   %d %i %u %o %x %X  with hh h l ll j z t, flags '-' '0' ' ' '+' ('#' on o x X),
//                      width and precision (digits or '*')
//   %s %c              with '-', width, and precision on %s
//   %p                 with '-' and width
//   %%
// Null strings print as the C library prints them ("(null)" while the precision
// leaves room for all six characters, nothing otherwise); a null pointer as "(nil)".
// Anything else (floating point, %n, wide characters and strings, positional
// arguments, other flags or modifiers, a format that ends inside a conversion, a
// width or precision of a million or more) hands the whole call, from its first
// argument, to vsnprintf.
//
// No allocation, no locks, no mutable state: safe from any thread.
#pragma once

#include <stdarg.h>
#include <stddef.h>

namespace zudebug {
namespace fmt {

int zuVFormat(char* buf, size_t size, const char* format, va_list ap) __attribute__((format(printf, 3, 0)));
int zuFormat(char* buf, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

// v (below 1,000,000,000) as exactly nine decimal digits, leading zeros kept, at out.
void putNineDigits(char* out, unsigned int v);

}  // namespace fmt
}  // namespace zudebug

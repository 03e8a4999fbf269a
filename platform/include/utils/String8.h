// Host copy of libutils' String8: an 8-bit character string.
#pragma once

#include <stdarg.h>
#include <stddef.h>

#include <string>

namespace android {

class String8 {
 public:
  String8();
  String8(const String8& o);
  explicit String8(const char* o);
  String8(const char* o, size_t numChars);
  ~String8();

  const char* c_str() const { return mString.c_str(); }
  const char* string() const { return mString.c_str(); }
  size_t size() const { return mString.size(); }
  size_t length() const { return mString.size(); }
  size_t bytes() const { return mString.size(); }
  bool empty() const { return mString.empty(); }
  bool isEmpty() const { return mString.empty(); }

  void clear();
  void setTo(const String8& other);
  int setTo(const char* other);
  int setTo(const char* other, size_t numChars);
  int append(const String8& other);
  int append(const char* other);
  int append(const char* other, size_t numChars);
  int appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  int appendFormatV(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));
  static String8 format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
  static String8 formatV(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));

  String8& operator=(const String8& other);
  String8& operator=(const char* other);
  String8& operator+=(const String8& other);
  String8& operator+=(const char* other);
  bool operator==(const String8& other) const { return mString == other.mString; }
  bool operator!=(const String8& other) const { return mString != other.mString; }
  bool operator<(const String8& other) const { return mString < other.mString; }
  operator const char*() const { return mString.c_str(); }

 private:
  std::string mString;
};

}  // namespace android

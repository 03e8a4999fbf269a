// Device files: the calls through which the library opens, reads, lists, changes and
// removes files of the device's file system. Every path is a device path
// ("/data/vendor/camera/...", "/odm/etc/camera/zorvex/..."); the build maps it to the
// file it opens (a host build below its device root, see fs.h). Relative paths stay
// relative to the working directory.
//
// Failures come back as false, null or -1 with errno set (null paths: EINVAL); whole
// files come back with a status. Nothing here logs: callers keep their own lines.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace zudebug {
namespace devfs {

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
// An open stdio stream, closed when it goes.
using File = std::unique_ptr<FILE, FileCloser>;

// fopen(3) of a device file.
File openFile(const char* path, const char* mode);

// open(2) of a device file, always close-on-exec. Allocates nothing and calls only
// async-signal-safe functions, so a signal handler may use it (a host build reads its
// device root once, at the first mapping, which the library makes while it loads).
int openFd(const char* path, int flags, mode_t mode = 0);

enum class ReadStatus {
  Ok,        // `text` is the whole content
  Missing,   // the file cannot be opened (absent, or not readable): `error` says why
  TooLarge,  // more than the limit: `size` is the size the file reported, or -1 when
             // it grew past the limit while being read
  Error,     // opened, but its size cannot be read (or no memory for it): `error` says why
};

struct FileText {
  ReadStatus status = ReadStatus::Error;
  std::string text;
  long long size = -1;
  int error = 0;
};

// No limit on a whole-file read.
constexpr size_t kNoLimit = static_cast<size_t>(-1);

// Reads a whole device file of at most `limit` bytes. A file that reports more is
// refused before anything is read. Reading goes to the end rather than trusting the
// reported size (a special file yields more or less than it reports, a file may grow
// meanwhile), never more than one byte past the limit. A read error ends the text
// where it happened: a directory within the limit reads as empty.
FileText readFile(const char* path, size_t limit);

// The same for a stream already open for reading (never Missing).
FileText readStream(FILE* f, size_t limit);

// stat(2) of a device file.
bool statFile(const char* path, struct stat* out);

// Bytes free for unprivileged writers on the file system holding the device path:
// available blocks times block size.
bool freeSpace(const char* path, uint64_t* bytes);

// Names in a device directory, "." and ".." left out, sorted bytewise. False (and no
// names) when the directory cannot be opened.
bool listDir(const char* path, std::vector<std::string>* names);

// Creates a device directory and any missing parent, each with exactly `mode` (the
// umask does not apply). True when the directory exists afterwards.
bool makeDirs(const char* path, mode_t mode);

// Whose files the library may write into: its own user's, or also its group's (the
// shared log files every camera process of the group appends to).
enum class Owner { User, UserOrGroup };

// open(2) of a device file that another process of the device may have planted: a
// symbolic link is not followed, and anything but a regular file of `owner` is
// refused (-1 with errno ELOOP for a link, EPERM otherwise) before anything is done
// to it; O_TRUNC is applied only after that check. Close-on-exec, allocates nothing.
int openChecked(const char* path, int flags, mode_t mode, Owner owner);
// The same as a stream: `mode` is one of fopen's ("r", "w", "a", with "+" and "b").
File openFileChecked(const char* path, const char* mode, Owner owner);

// unlink(2), rename(2), chmod(2) and truncate(2) of device files.
bool removeFile(const char* path);
bool renameFile(const char* from, const char* to);
bool chmodFile(const char* path, mode_t mode);
bool truncateFile(const char* path, off_t size);

}  // namespace devfs
}  // namespace zudebug

// The device-file calls, each case in a child whose device root is a fresh directory
// (also its working directory, so files made by relative path are the device's):
// whole-file reads against their limit, directories and listings, bad paths.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "zudebug_platform/device_files.h"

namespace devfs = zudebug::devfs;
using devfs::ReadStatus;

namespace {

// `rel` below the device root.
void put(const std::string& rel, const std::string& content) {
  std::ofstream(rel, std::ios::binary | std::ios::trunc) << content;
}

const char* statusName(ReadStatus s) {
  switch (s) {
    case ReadStatus::Ok:
      return "Ok";
    case ReadStatus::Missing:
      return "Missing";
    case ReadStatus::TooLarge:
      return "TooLarge";
    case ReadStatus::Error:
      return "Error";
  }
  return "?";
}

}  // namespace

// What the settings readers and the snapshot JSON writer rely on: the limit is
// inclusive, a file above it is refused with its size, a missing file says why, a
// directory reads as empty, and a file that yields more than it reports is stopped
// one byte past the limit.
TEST(DeviceFiles, WholeFileReads) {
  if (zutest::ranInChild()) return;
  const std::string big(200000, 'x');  // several read chunks
  put("data/vendor/camera/empty", "");
  put("data/vendor/camera/four", "abcd");
  put("data/vendor/camera/five", "abcde");
  put("data/vendor/camera/big", big);
  const struct {
    const char* path;
    size_t limit;
    ReadStatus status;
    std::string text;
    long long size;
    int error;
  } cases[] = {
      {"/data/vendor/camera/empty", 4, ReadStatus::Ok, "", -1, 0},
      {"/data/vendor/camera/four", 4, ReadStatus::Ok, "abcd", -1, 0},
      {"/data/vendor/camera/five", 4, ReadStatus::TooLarge, "", 5, 0},
      {"/data/vendor/camera/five", 0, ReadStatus::TooLarge, "", 5, 0},
      {"/data/vendor/camera/big", devfs::kNoLimit, ReadStatus::Ok, big, -1, 0},
      {"/data/vendor/camera/big", big.size(), ReadStatus::Ok, big, -1, 0},
      {"/data/vendor/camera/none", 4, ReadStatus::Missing, "", -1, ENOENT},
      {"/data/vendor/camera/four/x", 4, ReadStatus::Missing, "", -1, ENOTDIR},
      {"/data/vendor/camera", 1 << 20, ReadStatus::Ok, "", -1, 0},
  };
  for (const auto& c : cases) {
    const devfs::FileText t = devfs::readFile(c.path, c.limit);
    EXPECT_STREQ(statusName(t.status), statusName(c.status)) << c.path << " limit " << c.limit;
    EXPECT_EQ(t.text.size(), c.text.size()) << c.path;
    EXPECT_TRUE(t.text == c.text) << c.path;
    EXPECT_EQ(t.size, c.size) << c.path;
    EXPECT_EQ(t.error, c.error) << c.path;
  }

  // A pipe reports no size and yields 110 bytes against a limit of 10.
  ASSERT_EQ(mkfifo("data/vendor/camera/pipe", 0666), 0);
  std::thread writer([] {
    const int fd = open("data/vendor/camera/pipe", O_WRONLY);
    const std::string text(110, 'p');
    EXPECT_EQ(write(fd, text.data(), text.size()), 110);
    close(fd);
  });
  const devfs::FileText grown = devfs::readFile("/data/vendor/camera/pipe", 10);
  writer.join();
  EXPECT_STREQ(statusName(grown.status), "TooLarge");
  EXPECT_EQ(grown.size, -1);
  EXPECT_TRUE(grown.text.empty());

  // A stream opened by the caller, read the same way.
  devfs::File f = devfs::openFile("/data/vendor/camera/four", "r+");
  ASSERT_TRUE(f != nullptr);
  EXPECT_EQ(devfs::readStream(f.get(), 4).text, "abcd");
}

// Directories made for every camera process get exactly their mode whatever the
// umask, those already there keep theirs; listings are sorted names or a clear
// failure; removal of a file that is gone says so (another process rotated it away).
TEST(DeviceFiles, DirectoriesListingsAndRemoval) {
  if (zutest::ranInChild()) return;
  umask(022);
  ASSERT_EQ(chmod("data/vendor/camera", 0750), 0);
  ASSERT_TRUE(devfs::makeDirs("/data/vendor/camera/dumps/today", 0777));
  EXPECT_TRUE(devfs::makeDirs("/data/vendor/camera/dumps/today/", 0777));
  struct stat st;
  for (const char* dir : {"data/vendor/camera/dumps", "data/vendor/camera/dumps/today"}) {
    ASSERT_EQ(stat(dir, &st), 0) << dir;
    EXPECT_EQ(st.st_mode & 07777, 0777u) << dir;
  }
  ASSERT_EQ(stat("data/vendor/camera", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0750u);
  put("data/vendor/camera/dumps/b", "");
  put("data/vendor/camera/dumps/a.txt", "");
  put("data/vendor/camera/dumps/.hidden", "");
  errno = 0;
  EXPECT_FALSE(devfs::makeDirs("/data/vendor/camera/dumps/b/c", 0777));
  EXPECT_EQ(errno, ENOTDIR);

  std::vector<std::string> names{"left over"};
  ASSERT_TRUE(devfs::listDir("/data/vendor/camera/dumps", &names));
  EXPECT_EQ(names, (std::vector<std::string>{".hidden", "a.txt", "b", "today"}));
  const std::pair<const char*, int> unlistable[] = {{"/data/vendor/camera/nothing", ENOENT},
                                                    {"/data/vendor/camera/dumps/b", ENOTDIR}};
  for (const auto& u : unlistable) {
    names = {"left over"};
    errno = 0;
    EXPECT_FALSE(devfs::listDir(u.first, &names)) << u.first;
    EXPECT_EQ(errno, u.second) << u.first;
    EXPECT_TRUE(names.empty()) << u.first;
  }

  EXPECT_TRUE(devfs::renameFile("/data/vendor/camera/dumps/b", "/data/vendor/camera/dumps/c"));
  EXPECT_TRUE(devfs::removeFile("/data/vendor/camera/dumps/c"));
  errno = 0;
  EXPECT_FALSE(devfs::removeFile("/data/vendor/camera/dumps/c"));
  EXPECT_EQ(errno, ENOENT);
  ASSERT_TRUE(devfs::listDir("/data/vendor/camera/dumps", &names));
  EXPECT_EQ(names, (std::vector<std::string>{".hidden", "a.txt", "today"}));
}

// A null path is refused by every call with EINVAL, never followed.
TEST(DeviceFiles, NullPaths) {
  std::vector<std::string> names;
  struct stat st;
  uint64_t bytes = 0;
  const std::pair<const char*, std::function<bool()>> calls[] = {
      {"openFile", [] { return devfs::openFile(nullptr, "r") == nullptr; }},
      {"openFd", [] { return devfs::openFd(nullptr, O_RDONLY) == -1; }},
      {"readFile", [] { return devfs::readFile(nullptr, 1).error == EINVAL; }},
      {"statFile", [&] { return !devfs::statFile(nullptr, &st); }},
      {"freeSpace", [&] { return !devfs::freeSpace(nullptr, &bytes); }},
      {"listDir", [&] { return !devfs::listDir(nullptr, &names); }},
      {"makeDirs", [] { return !devfs::makeDirs(nullptr, 0777); }},
      {"removeFile", [] { return !devfs::removeFile(nullptr); }},
      {"renameFile", [] { return !devfs::renameFile(nullptr, "/x"); }},
      {"chmodFile", [] { return !devfs::chmodFile(nullptr, 0666); }},
      {"truncateFile", [] { return !devfs::truncateFile(nullptr, 0); }},
  };
  for (const auto& c : calls) {
    errno = 0;
    EXPECT_TRUE(c.second()) << c.first;
    EXPECT_EQ(errno, EINVAL) << c.first;
  }
}

// Files in the shared directories may have been planted: a link is not followed, a
// FIFO does not hold the open, another user's file is neither truncated nor opened,
// and the group's is opened only when the caller allows it.
TEST(DeviceFiles, CheckedOpensLeavePlantedFilesAlone) {
  if (zutest::ranInChild()) return;
  mkdir("data", 0755);
  put("data/victim", "keep\n");
  ASSERT_EQ(symlink("victim", "data/link"), 0);
  errno = 0;
  EXPECT_EQ(devfs::openChecked("/data/link", O_WRONLY | O_TRUNC, 0, devfs::Owner::User), -1);
  EXPECT_EQ(errno, ELOOP);
  ASSERT_EQ(mkfifo("data/fifo", 0666), 0);
  EXPECT_EQ(devfs::openChecked("/data/fifo", O_WRONLY, 0, devfs::Owner::UserOrGroup), -1);  // ENXIO
  EXPECT_EQ(devfs::openChecked("/data/fifo", O_RDONLY, 0, devfs::Owner::UserOrGroup), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(devfs::openFileChecked("/data/link", "a", devfs::Owner::UserOrGroup), nullptr);
  EXPECT_EQ(zutest::readFile("data/victim"), "keep\n");

  const int fd = devfs::openChecked("/data/mine", O_WRONLY | O_CREAT | O_TRUNC, 0600, devfs::Owner::User);
  EXPECT_GE(fd, 0);
  close(fd);
  // Another user's file, where this test may make one (as root).
  if (geteuid() == 0 && chown("data/victim", 65534, 65534) == 0) {
    EXPECT_EQ(devfs::openChecked("/data/victim", O_WRONLY | O_TRUNC, 0, devfs::Owner::UserOrGroup), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(zutest::readFile("data/victim"), "keep\n");
    ASSERT_EQ(chown("data/victim", 65534, getegid()), 0);
    const int group = devfs::openChecked("/data/victim", O_RDONLY, 0, devfs::Owner::UserOrGroup);
    EXPECT_GE(group, 0) << "the group's file";
    close(group);
    EXPECT_EQ(devfs::openChecked("/data/victim", O_RDONLY, 0, devfs::Owner::User), -1);
  }
}

// Helpers for the suites: a throw-away device root, and child processes that load
// the library afresh with their own root, properties and log files.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace zutest {

// A temporary directory laid out as a device root.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& dir() const { return mDir; }
  // `rel` is relative to the root ("odm/etc/camera/zorvex/praxsettings.json").
  std::string path(const std::string& rel) const { return mDir + "/" + rel; }
  void writeFile(const std::string& rel, const std::string& content) const;
  void setProps(const std::map<std::string, std::string>& props) const;
  std::string settingsFile() const { return path("odm/etc/camera/zorvex/praxsettings.json"); }
  std::string propsFile() const { return path("props.txt"); }
  std::string logcatFile() const { return path("logcat.txt"); }
  std::string zebqFile() const { return path("zebq.txt"); }
  std::string offlineDir() const { return path("data/vendor/camera/offlinelog"); }

 private:
  std::string mDir;
};

struct ChildResult {
  int status = -1;     // raw wait status
  std::string output;  // stdout and stderr of the child
  bool exited() const;
  int exitCode() const;
  bool signaled() const;
  int termSignal() const;
};

// Runs the current test program again with only `testName` selected
// ("Suite.Test"), ZUDEBUG_TEST_CHILD=1, ZUDEBUG_ROOT/PROPS/LOGCAT/ZEBQ pointing into
// `root`, and the root as working directory. `env` adds or overrides variables.
ChildResult runChild(const std::string& testName, const TempRoot& root,
                     const std::map<std::string, std::string>& env = {});

// Runs any program with arguments, same environment rules as runChild.
ChildResult runProgram(const std::vector<std::string>& argv, const TempRoot& root,
                       const std::map<std::string, std::string>& env = {});

// Starts OfflineLogger-style children like runChild, without waiting: the child's
// output goes to "child-<pid>.out" in the root. waitChild reaps it.
int spawnChild(const std::string& testName, const TempRoot& root,
               const std::map<std::string, std::string>& env = {});
ChildResult waitChild(int pid, const TempRoot& root);

// A program's stdout and stderr apart, and how it ended. `env` adds or overrides
// variables of this process's environment (an empty value removes one).
struct ProgramOutput {
  int status = -1;
  std::string out, err;
  int exitCode() const;
};
ProgramOutput runCapture(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {});

bool inChild();
// Where the test programs run under a user-mode emulator (a cross build: qemu-aarch64
// called by name, no binfmt handler), ZUDEBUG_TEST_EMULATOR holds its command line,
// words apart by spaces; every program of the build that the helpers above start goes
// through it. Empty when the programs run natively.
const std::vector<std::string>& emulator();
// Threads of this process that its own code started, the main thread included: an
// emulator's threads (qemu runs one beside the program from the start), counted before
// any library of the program was initialised, are left out, and so is the background
// thread ThreadSanitizer adds once threads exist.
size_t ownThreadCount();
// For a test that runs whole in a child: in the test program, runs the current test
// again in a child with a fresh device root, expects it to pass and returns true; in
// the child returns false, and the test goes on.
bool ranInChild();
// Registers the test that `make` makes as "suite.name" when this process is a child;
// see ZU_CHILD_TEST.
bool registerChildTest(const char* suite, const char* name, const char* file, int line,
                       ::testing::Test* (*make)());
std::string readFile(const std::string& path);
std::vector<std::string> readLines(const std::string& path);
std::vector<std::string> listDir(const std::string& dir);
// `part` written `n` times.
std::string repeatText(const std::string& part, int n);
size_t countSubstr(const std::string& text, const std::string& needle);

}  // namespace zutest

// A test that runs only in a child process that runChild("Suite.Name", ...) starts:
// the child's scenario, written once. In the test program itself it is not registered
// at all, so it neither runs nor shows as skipped.
#define ZU_CHILD_TEST(suite, name)                                                                           \
  class ZuChild_##suite##_##name : public ::testing::Test {                                                  \
   public:                                                                                                   \
    void TestBody() override;                                                                                \
  };                                                                                                         \
  [[maybe_unused]] static const bool zuChildRegistered_##suite##_##name = ::zutest::registerChildTest(       \
      #suite, #name, __FILE__, __LINE__, []() -> ::testing::Test* { return new ZuChild_##suite##_##name; }); \
  void ZuChild_##suite##_##name::TestBody()

#include "TestSupport.h"

#include "HostFiles.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

namespace zutest {

namespace {

using hostfiles::removeTree;

void mkdirs(const std::string& path) { hostfiles::makeDirs(path); }

}  // namespace

TempRoot::TempRoot() {
  char tmpl[] = "/tmp/zudebug-test-XXXXXX";
  char* d = mkdtemp(tmpl);
  if (d == nullptr) abort();
  mDir = d;
  mkdirs(path("odm/etc/camera/zorvex"));
  mkdirs(path("data/vendor/camera/offlinelog"));
  writeFile("props.txt", "");
}

TempRoot::~TempRoot() {
  if (getenv("ZUDEBUG_KEEP_TEST_ROOT") == nullptr) removeTree(mDir);
}

void TempRoot::writeFile(const std::string& rel, const std::string& content) const {
  std::string p = path(rel);
  size_t slash = p.rfind('/');
  if (slash != std::string::npos) mkdirs(p.substr(0, slash));
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

void TempRoot::setProps(const std::map<std::string, std::string>& props) const {
  std::string text;
  for (const auto& kv : props) text += kv.first + "=" + kv.second + "\n";
  writeFile("props.txt", text);
}

bool ChildResult::exited() const { return WIFEXITED(status); }
int ChildResult::exitCode() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
bool ChildResult::signaled() const { return WIFSIGNALED(status); }
int ChildResult::termSignal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }

bool inChild() { return getenv("ZUDEBUG_TEST_CHILD") != nullptr; }

const std::vector<std::string>& emulator() {
  static const std::vector<std::string> words = [] {
    std::vector<std::string> w;
    std::istringstream in(getenv("ZUDEBUG_TEST_EMULATOR") != nullptr ? getenv("ZUDEBUG_TEST_EMULATOR") : "");
    for (std::string word; in >> word;) w.push_back(word);
    return w;
  }();
  return words;
}

namespace {

// Entries of /proc/self/task with nothing but system calls and no sanitizer checks:
// it also runs before any library (a sanitizer's runtime among them) is initialised.
__attribute__((no_sanitize("address", "thread", "undefined"))) size_t taskCount() {
  const int fd =
      static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd < 0) return 0;
  alignas(8) char buf[4096];
  size_t n = 0;
  for (long got; (got = syscall(SYS_getdents64, fd, buf, sizeof(buf))) > 0;) {
    for (long off = 0; off < got;) {
      // struct linux_dirent64: ino (8 bytes), off (8), reclen (2), type (1), name.
      const unsigned short reclen = static_cast<unsigned short>(
          static_cast<unsigned char>(buf[off + 16]) | static_cast<unsigned char>(buf[off + 17]) << 8);
      if (buf[off + 19] != '.') ++n;
      off += reclen;
    }
  }
  syscall(SYS_close, fd);
  return n;
}

size_t gThreadsAtStart = 0;
__attribute__((no_sanitize("address", "thread", "undefined"))) void countThreadsAtStart(int, char**, char**) {
  gThreadsAtStart = taskCount();
}
// The executable's pre-initialisers run before those of every library it loads.
__attribute__((section(".preinit_array"),
               used)) void (*const kCountThreadsAtStart)(int, char**, char**) = countThreadsAtStart;

}  // namespace

size_t ownThreadCount() {
  size_t n = taskCount();
  const size_t foreign = gThreadsAtStart > 1 ? gThreadsAtStart - 1 : 0;
  n = n > foreign ? n - foreign : 0;
#ifdef __SANITIZE_THREAD__
  if (n > 1) --n;
#endif
  return n;
}

bool ranInChild() {
  if (inChild()) return false;
  TempRoot root;
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  ChildResult res = runChild(std::string(info->test_suite_name()) + "." + info->name(), root);
  EXPECT_TRUE(res.exited() && res.exitCode() == 0) << res.output;
  return true;
}

bool registerChildTest(const char* suite, const char* name, const char* file, int line,
                       ::testing::Test* (*make)()) {
  if (!inChild()) return false;
  ::testing::RegisterTest(suite, name, nullptr, nullptr, file, line, make);
  return true;
}

namespace {

// Environment of a child: ours, with the host controls pointing into `root`.
std::vector<std::string> childEnvironment(const TempRoot& root,
                                          const std::map<std::string, std::string>& env) {
  std::map<std::string, std::string> vars;
  for (char** e = environ; *e != nullptr; ++e) {
    const char* eq = strchr(*e, '=');
    if (eq != nullptr) vars[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
  }
  vars["ZUDEBUG_TEST_CHILD"] = "1";
  vars["ZUDEBUG_ROOT"] = root.dir();
  vars["ZUDEBUG_PROPS"] = root.propsFile();
  vars["ZUDEBUG_LOGCAT"] = root.logcatFile();
  vars["ZUDEBUG_ZEBQ"] = root.zebqFile();
  vars.erase("ZUDEBUG_FREE_MB");
  for (const auto& kv : env) {
    if (kv.second.empty())
      vars.erase(kv.first);
    else
      vars[kv.first] = kv.second;
  }
  std::vector<std::string> out;
  for (const auto& kv : vars) out.push_back(kv.first + "=" + kv.second);
  return out;
}

// The ELF machine of the program at `path`, -1 when it is not an ELF file.
int elfMachine(const char* path) {
  unsigned char head[20];
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  const bool elf = read(fd, head, sizeof(head)) == sizeof(head) && memcmp(head,
                                                                          "\x7f"
                                                                          "ELF",
                                                                          4) == 0;
  close(fd);
  return elf ? head[18] | head[19] << 8 : -1;  // e_machine, little-endian on every target here
}

// `argv` as it must be executed: a program built for the machine this one runs on
// goes through the emulator this one runs under; a host program (a shell, lnav, a
// browser) runs as it is.
std::vector<std::string> withEmulator(const std::vector<std::string>& argv) {
  if (emulator().empty() || argv.empty()) return argv;
  static const int self = elfMachine("/proc/self/exe");
  if (self < 0 || elfMachine(argv[0].c_str()) != self) return argv;
  std::vector<std::string> args = emulator();
  args.insert(args.end(), argv.begin(), argv.end());
  return args;
}

// Forks and executes `argv` in `root` with output on `outFd`.
pid_t launch(const std::vector<std::string>& argv, const TempRoot& root,
             const std::map<std::string, std::string>& env, int outFd) {
  std::vector<std::string> envStrings = childEnvironment(root, env);
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(&s[0]);
  envp.push_back(nullptr);
  std::vector<std::string> args = withEmulator(argv);
  std::vector<char*> argp;
  for (auto& s : args) argp.push_back(&s[0]);
  argp.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(outFd, STDOUT_FILENO);
    dup2(outFd, STDERR_FILENO);
    if (chdir(root.dir().c_str()) != 0) _exit(126);
    execve(argp[0], argp.data(), envp.data());
    _exit(127);
  }
  return pid;
}

std::string selfExe() {
  char self[4096];
  ssize_t len = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (len <= 0) return "";
  self[len] = '\0';
  return self;
}

}  // namespace

ChildResult runProgram(const std::vector<std::string>& argv, const TempRoot& root,
                       const std::map<std::string, std::string>& env) {
  int pipefd[2];
  ChildResult result;
  if (pipe2(pipefd, O_CLOEXEC) != 0) return result;
  const pid_t pid = launch(argv, root, env, pipefd[1]);
  close(pipefd[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(pipefd[0], buf, sizeof(buf))) != 0) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    result.output.append(buf, static_cast<size_t>(n));
  }
  close(pipefd[0]);
  if (pid > 0) waitpid(pid, &result.status, 0);
  return result;
}

int spawnChild(const std::string& testName, const TempRoot& root,
               const std::map<std::string, std::string>& env) {
  static int serial = 0;
  const std::string out = root.path("child-" + std::to_string(++serial) + ".out");
  const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  const pid_t pid = launch({selfExe(), "--gtest_filter=" + testName}, root, env, fd);
  close(fd);
  if (pid > 0) rename(out.c_str(), root.path("child-" + std::to_string(pid) + ".out").c_str());
  return pid;
}

ChildResult waitChild(int pid, const TempRoot& root) {
  ChildResult result;
  if (pid <= 0) return result;
  waitpid(pid, &result.status, 0);
  result.output = readFile(root.path("child-" + std::to_string(pid) + ".out"));
  return result;
}

ChildResult runChild(const std::string& testName, const TempRoot& root,
                     const std::map<std::string, std::string>& env) {
  return runProgram({selfExe(), "--gtest_filter=" + testName}, root, env);
}

int ProgramOutput::exitCode() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

ProgramOutput runCapture(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env) {
  ProgramOutput result;
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return result;
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return result;
  }
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    const char* eq = strchr(*e, '=');
    if (eq != nullptr && env.count(std::string(*e, static_cast<size_t>(eq - *e))) != 0) continue;
    envStrings.push_back(*e);
  }
  for (const auto& kv : env)
    if (!kv.second.empty()) envStrings.push_back(kv.first + "=" + kv.second);
  std::vector<char*> envp, argp;
  for (auto& s : envStrings) envp.push_back(&s[0]);
  envp.push_back(nullptr);
  std::vector<std::string> args = withEmulator(argv);
  for (auto& s : args) argp.push_back(&s[0]);
  argp.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    execve(argp[0], argp.data(), envp.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  struct pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  char buf[65536];
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t n = read(fds[i].fd, buf, sizeof(buf));
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  if (pid > 0) waitpid(pid, &result.status, 0);
  return result;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

std::string repeatText(const std::string& part, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += part;
  return out;
}

size_t countSubstr(const std::string& text, const std::string& needle) {
  if (needle.empty()) return 0;
  size_t count = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size()))
    ++count;
  return count;
}

}  // namespace zutest

// One program, built twice: against the host call stack (libzudebug) and against the
// platform's own (libutils with libbacktrace). Each scenario prints a "== <name>"
// line and then what the call stack API gave; callstack_compare_test runs both builds
// and compares their output frame by frame. Only the API both have is used.
#include <log/log.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utils/CallStack.h>
#include <utils/ProcessCallStack.h>

#include <atomic>

namespace probe {

volatile int* volatile gBadAddress = reinterpret_cast<volatile int*>(16);
std::atomic<pid_t> gParkedTid{0};
std::atomic<pid_t> gDeafTid{0};
std::atomic<bool> gDeafStop{false};

void section(const char* name) { printf("== %s\n", name); }

void printStack(const android::CallStack& stack, const char* prefix) {
  printf("size %zu\n", stack.size());
  android::String8 text = stack.toString(prefix);
  fwrite(text.c_str(), 1, text.size(), stdout);
}

// The frames the caller asked for, from inside a chain of this program's functions
// whose code does not depend on the headers it was built with.
__attribute__((noinline)) void captureAt(int depth) {
  android::CallStack stack;
  char name[32];
  snprintf(name, sizeof(name), "update(%d)", depth);
  section(name);
  stack.update(depth);
  printStack(stack, "P>");
}

__attribute__((noinline)) void leaf(void (*at)(int), int depth) {
  at(depth);
  asm volatile("" ::: "memory");  // no tail call: this frame stays on the stack
}
__attribute__((noinline)) void middle(void (*at)(int), int depth) {
  leaf(at, depth);
  asm volatile("" ::: "memory");
}
__attribute__((noinline)) void outer(void (*at)(int), int depth) {
  middle(at, depth);
  asm volatile("" ::: "memory");
}

// Printed the ways a host can print a stack: into a string, to a file descriptor with
// and without an indent and a prefix, and to the Android log.
__attribute__((noinline)) void printedEveryWay(int) {
  android::CallStack stack;
  stack.update(2);
  section("toString()");
  android::String8 text = stack.toString();
  fwrite(text.c_str(), 1, text.size(), stdout);
  section("dump(fd)");
  fflush(stdout);
  stack.dump(STDOUT_FILENO);
  section("dump(fd, 4, X:)");
  fflush(stdout);
  stack.dump(STDOUT_FILENO, 4, "X:");
  section("dump(fd, 3)");
  fflush(stdout);
  stack.dump(STDOUT_FILENO, 3);
  fflush(stdout);
  // Seen on stderr, in each log's own layout.
  stack.log("CsProbe", ANDROID_LOG_ERROR, "L:");
}

__attribute__((noinline)) int recurse(int n) {
  if (n == 0) {
    android::CallStack stack;
    stack.update(2);
    section("deep");
    printStack(stack, "");
    return 0;
  }
  int r = recurse(n - 1);
  asm volatile("" ::: "memory");
  return r + 1;
}

#if defined(__x86_64__)
// Called back from code in memory that is no file: "sub $8,%rsp; call *%rsi;
// add $8,%rsp; ret", the way generated code would call.
void fromGeneratedCode() {
  static const unsigned char kCode[] = {0x48, 0x83, 0xec, 0x08, 0xff, 0xd6, 0x48, 0x83, 0xc4, 0x08, 0xc3};
  void* mem = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mem == MAP_FAILED) return;
  memcpy(mem, kCode, sizeof(kCode));
  if (mprotect(mem, 4096, PROT_READ | PROT_EXEC) != 0) return;
  auto run = reinterpret_cast<void (*)(int, void (*)())>(mem);
  run(0, [] {
    android::CallStack stack;
    stack.update(2);
    section("from generated code");
    printStack(stack, "");
  });
  munmap(mem, 4096);
}
#endif

void onSegv(int, siginfo_t*, void*) {
  android::CallStack stack;
  stack.update(2);
  section("in a signal handler");
  printStack(stack, "");
  fflush(stdout);
  _exit(0);
}

__attribute__((noinline)) void fault(int) {
  *gBadAddress = 1;
  asm volatile("" ::: "memory");
}

__attribute__((noinline)) void parked() {
  gParkedTid = static_cast<pid_t>(syscall(SYS_gettid));
  for (;;) pause();
}

void* parkedThread(void*) {
  parked();
  return nullptr;
}

void* deafThread(void*) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  gDeafTid = static_cast<pid_t>(syscall(SYS_gettid));
  while (!gDeafStop.load()) usleep(1000);
  return nullptr;
}

pthread_t startThread(void* (*fn)(void*), const char* name, std::atomic<pid_t>* tid) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, fn, nullptr) != 0) abort();
  pthread_setname_np(thread, name);
  while (tid->load() == 0) usleep(1000);
  // Until it sleeps where it waits (the kernel reports it "S"), past its name being set.
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/task/%d/stat", static_cast<int>(tid->load()));
  for (int tries = 0; tries < 5000; ++tries) {
    char stat[512] = "";
    if (FILE* f = fopen(path, "r")) {
      if (fgets(stat, sizeof(stat), f) == nullptr) stat[0] = '\0';
      fclose(f);
    }
    const char* state = strrchr(stat, ')');
    if (state != nullptr && state[1] == ' ' && state[2] == 'S') break;
    usleep(1000);
  }
  return thread;
}

}  // namespace probe

int main(int argc, char** argv) {
  using namespace probe;
  setvbuf(stdout, nullptr, _IONBF, 0);
  const char* scenario = argc > 1 ? argv[1] : "";
  if (strcmp(scenario, "current") == 0) {
    for (int depth = 0; depth <= 3; ++depth) outer(captureAt, depth);
    outer(printedEveryWay, 0);
    recurse(300);
#if defined(__x86_64__)
    fromGeneratedCode();
#endif
  } else if (strcmp(scenario, "signal") == 0) {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_sigaction = onSegv;
    sa.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &sa, nullptr);
    outer(fault, 0);
  } else if (strcmp(scenario, "threads") == 0) {
    startThread(parkedThread, "cs-parked", &gParkedTid);
    pthread_t deaf = startThread(deafThread, "cs-deaf", &gDeafTid);
    android::CallStack stack;
    for (int depth = 0; depth <= 1; ++depth) {
      char name[64];
      snprintf(name, sizeof(name), "other thread update(%d)", depth);
      section(name);
      stack.update(depth, gParkedTid);
      printStack(stack, "");
    }
    section("own thread by its id update(1)");
    stack.update(1, static_cast<pid_t>(syscall(SYS_gettid)));
    printStack(stack, "");
    section("thread that blocks signals");
    stack.update(0, gDeafTid);
    printStack(stack, "");
    gDeafStop = true;  // the process below is not kept waiting for it
    pthread_join(deaf, nullptr);
    section("no such thread");
    stack.update(0, 0x3ffffff0);
    printStack(stack, "");
    section("process toString(Q>)");
    android::ProcessCallStack process;
    process.update();
    printf("size %zu\n", process.size());
    android::String8 text = process.toString("Q>");
    fwrite(text.c_str(), 1, text.size(), stdout);
    section("process dump(fd, 2, D:)");
    process.dump(STDOUT_FILENO, 2, "D:");
    process.log("CsProbe", ANDROID_LOG_ERROR, "W:");
  } else {
    fprintf(stderr, "usage: %s current|signal|threads\n", argv[0]);
    return 2;
  }
  return 0;
}

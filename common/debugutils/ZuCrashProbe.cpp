#include "ZuCrashProbe.h"

#include <dirent.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>
#include <zudebug_platform/signal_context.h>

#include <atomic>

namespace zudebug {
namespace crash {

namespace {

using platform::CrashFrame;

constexpr size_t kMaxModules = 64;
constexpr size_t kPathBytes = 384;
constexpr size_t kPeekThreads = 64;
constexpr size_t kPeekFrames = 32;
constexpr size_t kMaxPlaces = platform::kMaxCrashFrames + kPeekThreads * kPeekFrames;

#if defined(__aarch64__)
constexpr uintptr_t kCallAdjust = 4;  // one instruction
#else
constexpr uintptr_t kCallAdjust = 1;  // any byte of the call
#endif

struct Module {
  char path[kPathBytes];
  uintptr_t base;  // where its first mapping starts
  uintptr_t bias;  // what its addresses are relative to
  uint8_t buildId[32];
  uint32_t buildIdLen;
  bool used;  // a frame of the crashing thread lies in it
};

// Where one frame lies: a module, a mapping that is none, or nothing.
struct Place {
  uintptr_t pc;  // as shown: a return address taken back into its call
  uintptr_t rel;
  int module;     // index, or -1
  char name[48];  // when no module: "<anonymous:...>", "[stack:...]", "<unknown>"
};

struct PeekSlot {
  std::atomic<int> tid{0};
  std::atomic<int> state{0};  // 0 idle, 1 asked, 2 unwinding, 3 answered
  uint32_t count = 0;
  CrashFrame frames[kPeekFrames];
  char name[20];
};

int sPeekSignal = 0;
PeekSlot sPeek[kPeekThreads];
std::atomic<bool> sPeekTaken{false};
size_t sPeekCount = 0;
int sPeekBudgetMs = 0;

int sProbePipe[2] = {-1, -1};
std::atomic<bool> sProbePipeBusy{false};
bool sVmReadWorks = true;

int gettidRaw() { return static_cast<int>(syscall(SYS_gettid)); }

void peekHandler(int, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  if (info != nullptr && info->si_code == SI_TKILL && info->si_pid == getpid()) {
    const int self = gettidRaw();
    for (PeekSlot& slot : sPeek) {
      int asked = 1;
      if (slot.tid.load(std::memory_order_acquire) != self ||
          !slot.state.compare_exchange_strong(asked, 2, std::memory_order_acq_rel))
        continue;
      CrashFrame frames[kPeekFrames + 1];
      size_t n = platform::unwindInterrupted(context, __builtin_return_address(0), frames, kPeekFrames + 1);
      // The trampoline is the handler's; the thread was interrupted in the frame after it.
      size_t from = n > 0 && frames[0].trampoline ? 1 : 0;
      slot.count = 0;
      for (size_t i = from; i < n && slot.count < kPeekFrames; ++i) slot.frames[slot.count++] = frames[i];
      if (slot.count > 0) slot.frames[0].exact = true;
      slot.state.store(3, std::memory_order_release);
      break;
    }
  }
  errno = savedErrno;
}

// Reads a whole small file (a thread's name) into `out`; the length.
size_t readSmall(const char* path, char* out, size_t size) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  ssize_t n = read(fd, out, size - 1);
  close(fd);
  if (n <= 0) return 0;
  while (n > 0 && (out[n - 1] == '\n' || out[n - 1] == '\0')) --n;
  out[n] = '\0';
  return static_cast<size_t>(n);
}

int64_t monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The pc a frame is shown at: a return address taken back into its call, as the
// platform's call stacks show the crashing thread's frames (the interrupted one too);
// another thread's first frame is its interrupted instruction itself.
uintptr_t shown(const CrashFrame& f, bool keepExact) {
  return (keepExact && f.exact) || f.trampoline || f.pc < kCallAdjust ? f.pc : f.pc - kCallAdjust;
}

}  // namespace

struct Probe::Data {
  Module modules[kMaxModules];
  size_t moduleCount;
  Place places[kMaxPlaces];
  size_t placeCount;
  size_t crashingPlaces;  // the first ones are the crashing thread's
  char mapsBuf[4096];
  char line[kPathBytes + 128];
  bool threadsGathered;
};

namespace {

constexpr size_t kProbes = 4;
Probe::Data sProbeData[kProbes];
Probe sProbes[kProbes];
std::atomic<uint32_t> sProbesTaken{0};

// The ELF image mapped at `base`: its load bias and build ID.
void readElf(Module& m) {
  m.bias = m.base;
  m.buildIdLen = 0;
  ElfW(Ehdr) eh;
  if (safeRead(m.base, &eh, sizeof(eh)) != sizeof(eh) || memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0) return;
  if (eh.e_type == ET_EXEC) m.bias = 0;
  bool sawLoad = false;
  for (unsigned i = 0; i < eh.e_phnum && i < 64; ++i) {
    ElfW(Phdr) ph;
    if (safeRead(m.base + eh.e_phoff + i * sizeof(ph), &ph, sizeof(ph)) != sizeof(ph)) return;
    if (ph.p_type == PT_LOAD && !sawLoad) {
      sawLoad = true;
      if (eh.e_type != ET_EXEC) m.bias = m.base - (ph.p_vaddr & ~static_cast<uintptr_t>(ph.p_align - 1));
    }
  }
  for (unsigned i = 0; i < eh.e_phnum && i < 64 && m.buildIdLen == 0; ++i) {
    ElfW(Phdr) ph;
    if (safeRead(m.base + eh.e_phoff + i * sizeof(ph), &ph, sizeof(ph)) != sizeof(ph) || ph.p_type != PT_NOTE)
      continue;
    uint8_t notes[512];
    const size_t n =
        safeRead(m.bias + ph.p_vaddr, notes, ph.p_memsz < sizeof(notes) ? ph.p_memsz : sizeof(notes));
    for (size_t at = 0; at + sizeof(ElfW(Nhdr)) <= n;) {
      ElfW(Nhdr) nh;
      memcpy(&nh, notes + at, sizeof(nh));
      const size_t nameAt = at + sizeof(nh);
      const size_t descAt = nameAt + ((nh.n_namesz + 3) & ~3u);
      const size_t next = descAt + ((nh.n_descsz + 3) & ~3u);
      if (next > n) break;
      if (nh.n_type == NT_GNU_BUILD_ID && nh.n_namesz == 4 && memcmp(notes + nameAt, "GNU", 4) == 0 &&
          nh.n_descsz <= sizeof(m.buildId)) {
        memcpy(m.buildId, notes + descAt, nh.n_descsz);
        m.buildIdLen = nh.n_descsz;
        break;
      }
      at = next;
    }
  }
}

int findOrAddModule(Probe::Data& d, const char* path, uintptr_t base) {
  for (size_t i = 0; i < d.moduleCount; ++i)
    if (d.modules[i].base == base && strcmp(d.modules[i].path, path) == 0) return static_cast<int>(i);
  if (d.moduleCount >= kMaxModules) return -1;
  Module& m = d.modules[d.moduleCount];
  Text t(m.path, sizeof(m.path) - 1);
  t.str(path);
  m.path[t.size()] = '\0';
  m.base = base;
  m.used = false;
  readElf(m);
  return static_cast<int>(d.moduleCount++);
}

// One pass over the kernel's map of the process, placing every frame gathered so far.
void placeAll(Probe::Data& d) {
  for (size_t i = 0; i < d.placeCount; ++i) {
    Place& p = d.places[i];
    p.module = -1;
    p.rel = p.pc;
    Text(p.name, sizeof(p.name) - 1).str("<unknown>");
    p.name[9] = '\0';
  }
  const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  char lastPath[kPathBytes] = "";
  uintptr_t lastBase = 0;
  size_t len = 0;
  for (ssize_t n; (n = read(fd, d.mapsBuf, sizeof(d.mapsBuf))) > 0;) {
    for (ssize_t i = 0; i < n; ++i) {
      if (d.mapsBuf[i] != '\n') {
        if (len < sizeof(d.line) - 1) d.line[len++] = d.mapsBuf[i];
        continue;
      }
      d.line[len] = '\0';
      len = 0;
      // "start-end perms offset dev inode   path"
      const char* s = d.line;
      uintptr_t start = 0, end = 0, offset = 0;
      auto hexField = [&s](uintptr_t* v) {
        *v = 0;
        for (; *s != '\0'; ++s) {
          const char c = *s;
          const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
          if (digit < 0) break;
          *v = *v * 16 + static_cast<uintptr_t>(digit);
        }
      };
      hexField(&start);
      if (*s++ != '-') continue;
      hexField(&end);
      auto nextField = [&s] {
        while (*s != '\0' && *s != ' ') ++s;
        while (*s == ' ') ++s;
      };
      nextField();  // to the permissions
      nextField();  // to the offset
      hexField(&offset);
      nextField();  // to the device
      nextField();  // to the inode
      nextField();  // to the path, if any
      const char* path = s;
      if (path[0] == '/') {
        if (offset == 0 || strcmp(path, lastPath) != 0) {
          Text t(lastPath, sizeof(lastPath) - 1);
          t.str(path);
          lastPath[t.size()] = '\0';
          lastBase = start - offset;
        }
      }
      for (size_t k = 0; k < d.placeCount; ++k) {
        Place& p = d.places[k];
        if (p.pc < start || p.pc >= end) continue;
        if (path[0] == '/') {
          p.module = findOrAddModule(d, lastPath, lastBase);
          if (p.module >= 0) p.rel = p.pc - d.modules[p.module].bias;
        } else {
          Text t(p.name, sizeof(p.name) - 1);
          p.rel = p.pc - start;
          if (path[0] == '\0') {
            t.str("<anonymous:").hex(start, 16).ch('>');
          } else {
            const size_t plen = strlen(path);
            t.str(path, plen > 0 && path[plen - 1] == ']' ? plen - 1 : plen).ch(':').hex(start, 16).ch(']');
          }
          p.name[t.size()] = '\0';
        }
      }
    }
  }
  close(fd);
}

void addPlaceLine(RecordWriter& w, const Probe::Data& d, const Place& p, const char* indent, size_t index) {
  char buf[kPathBytes + 96];
  Text t(buf, sizeof(buf));
  t.str(indent).ch('#').dec(static_cast<long long>(index), 2, '0').str(" pc ").hex(p.rel, 16).str("  ");
  t.str(p.module >= 0 ? d.modules[p.module].path : p.name);
  w.line(t);
}

}  // namespace

void prepareProbe() {
  if (sProbePipe[0] < 0 && pipe2(sProbePipe, O_CLOEXEC | O_NONBLOCK) != 0) sProbePipe[0] = sProbePipe[1] = -1;
  // Whether process_vm_readv works here (an emulator may not have it).
  uint64_t probe = 0, out = 0;
  struct iovec local = {&out, sizeof(out)};
  struct iovec remote = {&probe, sizeof(probe)};
  sVmReadWorks = process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == sizeof(out);
  if (sPeekSignal != 0) return;
  const int sig = SIGRTMIN + 4;
  struct sigaction old;
  memset(&old, 0, sizeof(old));
  if (sigaction(sig, nullptr, &old) != 0) return;
  const bool foreign = (old.sa_flags & SA_SIGINFO) != 0
                           ? old.sa_sigaction != nullptr
                           : (old.sa_handler != SIG_DFL && old.sa_handler != SIG_IGN);
  if (foreign) return;  // the host uses this signal itself: other threads are left out
  struct sigaction sa;
  memset(&sa, 0, sizeof(sa));
  sigemptyset(&sa.sa_mask);
  sa.sa_sigaction = peekHandler;
  sa.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  if (sigaction(sig, &sa, nullptr) == 0) sPeekSignal = sig;
}

size_t safeRead(uintptr_t addr, void* out, size_t n) {
  if (n == 0) return 0;
  if (sVmReadWorks) {
    struct iovec local = {out, n};
    struct iovec remote = {reinterpret_cast<void*>(addr), n};
    const ssize_t got = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    return got > 0 ? static_cast<size_t>(got) : 0;
  }
  // The kernel refuses to write from memory that is not readable: EFAULT, no fault.
  bool busy = false;
  if (sProbePipe[1] < 0 || !sProbePipeBusy.compare_exchange_strong(busy, true)) return 0;
  size_t done = 0;
  while (done < n) {
    const size_t chunk = n - done < 4096 ? n - done : 4096;
    const ssize_t w = write(sProbePipe[1], reinterpret_cast<const void*>(addr + done), chunk);
    if (w <= 0) break;
    const ssize_t r = read(sProbePipe[0], static_cast<uint8_t*>(out) + done, static_cast<size_t>(w));
    if (r != w) break;
    done += static_cast<size_t>(w);
  }
  char drain[256];
  while (read(sProbePipe[0], drain, sizeof(drain)) > 0) {
  }
  sProbePipeBusy.store(false, std::memory_order_release);
  return done;
}

Probe* takeProbe() {
  for (uint32_t i = 0; i < kProbes; ++i) {
    const uint32_t bit = 1u << i;
    if ((sProbesTaken.fetch_or(bit, std::memory_order_acq_rel) & bit) == 0) {
      sProbes[i].d = &sProbeData[i];
      sProbes[i].reset();
      return &sProbes[i];
    }
  }
  return nullptr;
}

void giveBackProbe(Probe* probe) {
  const uint32_t i = static_cast<uint32_t>(probe - sProbes);
  sProbesTaken.fetch_and(~(1u << i), std::memory_order_acq_rel);
}

void Probe::reset() {
  d->moduleCount = 0;
  d->placeCount = 0;
  d->crashingPlaces = 0;
  d->threadsGathered = false;
}

void Probe::placeFrames(const CrashFrame* frames, size_t count) {
  d->placeCount = 0;
  for (size_t i = 0; i < count && d->placeCount < platform::kMaxCrashFrames; ++i)
    d->places[d->placeCount++].pc = shown(frames[i], false);
  d->crashingPlaces = d->placeCount;
  placeAll(*d);
  for (size_t i = 0; i < d->crashingPlaces; ++i)
    if (d->places[i].module >= 0) d->modules[d->places[i].module].used = true;
}

void Probe::addFrame(RecordWriter& w, size_t index) {
  if (index < d->crashingPlaces) addPlaceLine(w, *d, d->places[index], "", index + 1);
}

void Probe::addCause(RecordWriter& w, int signal, const siginfo_t* info, const void* context) {
  if (info == nullptr) return;
  char buf[128];
  Text t(buf, sizeof(buf));
  const uintptr_t addr = reinterpret_cast<uintptr_t>(info->si_addr);
  const uintptr_t pc = platform::interruptedPc(context);
  if ((signal == SIGSEGV || signal == SIGBUS) && info->si_code > 0) {
    uintptr_t sp = 0;
    const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
    if (uc != nullptr) sp = static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RSP]);
#elif defined(__aarch64__)
    if (uc != nullptr) sp = static_cast<uintptr_t>(uc->uc_mcontext.sp);
#endif
    uint8_t byte;
    const bool unreadable = safeRead(addr, &byte, 1) == 0;
    if (addr < 4096) {
      t.str("Cause: null pointer dereference");
    } else if (sp != 0 && unreadable && addr + 65536 >= sp && addr <= sp + 4096) {
      // Just below the stack pointer, where nothing can be read: the guard below the stack.
      t.str("Cause: stack overflow");
    } else if (signal == SIGSEGV && addr == pc && pc != 0) {
      t.str("Cause: execute of a non-executable address");
    }
  } else if (signal == SIGFPE && info->si_code == FPE_INTDIV) {
    t.str("Cause: integer divide by zero");
#if defined(SYS_SECCOMP)
  } else if (signal == SIGSYS && info->si_code == SYS_SECCOMP) {
    t.str("Cause: seccomp prevented call to disallowed system call ").dec(info->si_syscall);
#endif
  }
  if (t.size() > 0) w.line(t);
}

void Probe::addAbortMessage(RecordWriter& w) {
  char message[1024];
  const size_t n = platform::abortMessage(message, sizeof(message));
  if (n == 0) return;
  char buf[1100];
  Text t(buf, sizeof(buf));
  t.str("Abort message: '");
  // One line: line ends inside the message are shown as blanks.
  for (size_t i = 0; i < n; ++i) t.ch(message[i] == '\n' || message[i] == '\r' ? ' ' : message[i]);
  t.ch('\'');
  w.line(t);
}

void Probe::addSender(RecordWriter& w, const siginfo_t* info) {
  if (info == nullptr || info->si_code > 0) return;
  const char* how = info->si_code == SI_USER    ? "SI_USER"
                    : info->si_code == SI_QUEUE ? "SI_QUEUE"
                    : info->si_code == SI_TKILL ? "SI_TKILL"
                                                : nullptr;
  if (how == nullptr) return;
  char buf[128];
  Text t(buf, sizeof(buf));
  t.str("Signal sent by pid ").dec(info->si_pid).str(", uid ").dec(info->si_uid).str(" (").str(how).ch(')');
  w.line(t);
}

void Probe::addRegisters(RecordWriter& w, const void* context) {
  const auto* uc = static_cast<const ucontext_t*>(context);
  if (uc == nullptr) return;
  struct Reg {
    const char* name;
    uint64_t value;
  };
#if defined(__x86_64__)
  const greg_t* g = uc->uc_mcontext.gregs;
  const Reg regs[] = {{"rax", static_cast<uint64_t>(g[REG_RAX])}, {"rbx", static_cast<uint64_t>(g[REG_RBX])},
                      {"rcx", static_cast<uint64_t>(g[REG_RCX])}, {"rdx", static_cast<uint64_t>(g[REG_RDX])},
                      {"r8", static_cast<uint64_t>(g[REG_R8])},   {"r9", static_cast<uint64_t>(g[REG_R9])},
                      {"r10", static_cast<uint64_t>(g[REG_R10])}, {"r11", static_cast<uint64_t>(g[REG_R11])},
                      {"r12", static_cast<uint64_t>(g[REG_R12])}, {"r13", static_cast<uint64_t>(g[REG_R13])},
                      {"r14", static_cast<uint64_t>(g[REG_R14])}, {"r15", static_cast<uint64_t>(g[REG_R15])},
                      {"rdi", static_cast<uint64_t>(g[REG_RDI])}, {"rsi", static_cast<uint64_t>(g[REG_RSI])},
                      {"rbp", static_cast<uint64_t>(g[REG_RBP])}, {"rsp", static_cast<uint64_t>(g[REG_RSP])},
                      {"rip", static_cast<uint64_t>(g[REG_RIP])}, {"efl", static_cast<uint64_t>(g[REG_EFL])}};
#elif defined(__aarch64__)
  static const char* const kNames[] = {"x0",  "x1",  "x2",  "x3",  "x4",  "x5",  "x6",  "x7",  "x8",  "x9",
                                       "x10", "x11", "x12", "x13", "x14", "x15", "x16", "x17", "x18", "x19",
                                       "x20", "x21", "x22", "x23", "x24", "x25", "x26", "x27", "x28", "x29"};
  Reg regs[34];
  for (int i = 0; i < 30; ++i) regs[i] = {kNames[i], uc->uc_mcontext.regs[i]};
  regs[30] = {"lr", uc->uc_mcontext.regs[30]};
  regs[31] = {"sp", uc->uc_mcontext.sp};
  regs[32] = {"pc", uc->uc_mcontext.pc};
  regs[33] = {"pst", uc->uc_mcontext.pstate};
#else
  const Reg regs[1] = {{"pc", platform::interruptedPc(context)}};
#endif
  w.line("registers:", 10);
  const size_t count = sizeof(regs) / sizeof(regs[0]);
  for (size_t i = 0; i < count; i += 4) {
    char buf[128];
    Text t(buf, sizeof(buf));
    t.str("   ");
    for (size_t k = i; k < i + 4 && k < count; ++k) {
      const size_t len = strlen(regs[k].name);
      t.str(k == i ? " " : "  ").str(regs[k].name);
      for (size_t pad = len; pad < 3; ++pad) t.ch(' ');
      t.ch(' ').hex(regs[k].value, 16);
    }
    w.line(t);
  }
}

namespace {

void addMemoryNear(RecordWriter& w, const char* what, uintptr_t at) {
  char buf[128];
  Text head(buf, sizeof(buf));
  head.str("memory near ").str(what).str(" 0x").hex(at, 16).ch(':');
  w.line(head);
  const uintptr_t start =
      (at & ~static_cast<uintptr_t>(15)) - (at >= 128 ? 128 : at & ~static_cast<uintptr_t>(15));
  for (uintptr_t line = start; line < start + 256; line += 16) {
    uint64_t words[2];
    bool readable[2];
    for (int i = 0; i < 2; ++i) readable[i] = safeRead(line + 8 * i, &words[i], 8) == 8;
    Text t(buf, sizeof(buf));
    t.str("    ").hex(line, 16);
    for (int i = 0; i < 2; ++i) {
      t.ch(' ');
      if (readable[i])
        t.hex(words[i], 16);
      else
        t.str("----------------");
    }
    t.str("  ");
    for (int i = 0; i < 2; ++i) {
      for (int b = 0; b < 8; ++b) {
        const unsigned char c = static_cast<unsigned char>(words[i] >> (8 * b));
        t.ch(readable[i] && c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.');
      }
    }
    w.line(t);
    if (line + 16 < line) break;  // the top of the address space
  }
}

}  // namespace

void Probe::addMemory(RecordWriter& w, const siginfo_t* info, const void* context) {
  const auto* uc = static_cast<const ucontext_t*>(context);
  if (info != nullptr && info->si_code > 0 &&
      (info->si_signo == SIGSEGV || info->si_signo == SIGBUS || info->si_signo == SIGFPE ||
       info->si_signo == SIGILL || info->si_signo == SIGTRAP))
    addMemoryNear(w, "fault addr", reinterpret_cast<uintptr_t>(info->si_addr));
  if (uc == nullptr) return;
#if defined(__x86_64__)
  addMemoryNear(w, "sp", static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RSP]));
#elif defined(__aarch64__)
  addMemoryNear(w, "sp", static_cast<uintptr_t>(uc->uc_mcontext.sp));
#endif
}

int peekSignal() { return sPeekSignal; }

bool Probe::gatherThreads(int budgetMs, bool (*crashing)(int tid)) {
  bool taken = false;
  if (sPeekSignal == 0 || !sPeekTaken.compare_exchange_strong(taken, true)) return false;
  const int self = gettidRaw();
  const int pid = getpid();
  sPeekCount = 0;
  const int dir = open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return false;
  alignas(8) char entries[2048];
  for (long n; (n = syscall(SYS_getdents64, dir, entries, sizeof(entries))) > 0;) {
    for (long at = 0; at < n;) {
      const auto* e = reinterpret_cast<const struct dirent64*>(entries + at);
      at += e->d_reclen;
      int tid = 0;
      for (const char* c = e->d_name; *c >= '0' && *c <= '9'; ++c) tid = tid * 10 + (*c - '0');
      if (tid <= 0 || tid == self || sPeekCount >= kPeekThreads) continue;
      PeekSlot& slot = sPeek[sPeekCount++];
      slot.count = 0;
      char path[64];
      Text p(path, sizeof(path) - 1);
      p.str("/proc/self/task/").dec(tid).str("/comm");
      path[p.size()] = '\0';
      if (readSmall(path, slot.name, sizeof(slot.name)) == 0) memcpy(slot.name, "<unknown>", 10);
      if (crashing != nullptr && crashing(tid)) {
        slot.state.store(4, std::memory_order_relaxed);
        slot.tid.store(tid, std::memory_order_release);
        continue;
      }
      slot.state.store(1, std::memory_order_relaxed);
      slot.tid.store(tid, std::memory_order_release);
      if (syscall(SYS_tgkill, pid, tid, sPeekSignal) != 0) slot.state.store(0, std::memory_order_release);
    }
  }
  close(dir);
  const int64_t deadline = monotonicMs() + budgetMs;
  for (;;) {
    bool waiting = false;
    for (size_t i = 0; i < sPeekCount; ++i)
      waiting = waiting || sPeek[i].state.load(std::memory_order_acquire) == 1 ||
                sPeek[i].state.load(std::memory_order_acquire) == 2;
    if (!waiting || monotonicMs() >= deadline) break;
    struct timespec pause = {0, 1000000};
    nanosleep(&pause, nullptr);
  }
  // Late answers find their request withdrawn; one still unwinding keeps its slot.
  for (size_t i = 0; i < sPeekCount; ++i) {
    int asked = 1;
    sPeek[i].state.compare_exchange_strong(asked, 0, std::memory_order_acq_rel);
  }
  // Every frame of the answers is placed with the crashing thread's.
  d->placeCount = d->crashingPlaces;
  for (size_t i = 0; i < sPeekCount; ++i) {
    if (sPeek[i].state.load(std::memory_order_acquire) != 3) continue;
    for (uint32_t k = 0; k < sPeek[i].count && d->placeCount < kMaxPlaces; ++k)
      d->places[d->placeCount++].pc = shown(sPeek[i].frames[k], true);
  }
  placeAll(*d);
  for (size_t i = 0; i < d->placeCount; ++i)
    if (d->places[i].module >= 0) d->modules[d->places[i].module].used = true;
  d->threadsGathered = true;
  sPeekBudgetMs = budgetMs;
  return true;
}

void Probe::addModules(RecordWriter& w) {
  bool any = false;
  for (size_t i = 0; i < d->moduleCount; ++i) any = any || d->modules[i].used;
  if (!any) return;
  w.line("modules:", 8);
  for (size_t i = 0; i < d->moduleCount; ++i) {
    const Module& m = d->modules[i];
    if (!m.used) continue;
    char buf[kPathBytes + 128];
    Text t(buf, sizeof(buf));
    t.str("    ").hex(m.base, 16).str("  ").str(m.path);
    if (m.buildIdLen > 0) {
      t.str(" (BuildId: ");
      for (uint32_t k = 0; k < m.buildIdLen; ++k) t.hex(m.buildId[k], 2);
      t.ch(')');
    }
    w.line(t);
  }
}

void Probe::addThreads(RecordWriter& w) {
  if (!d->threadsGathered) return;
  size_t answered = 0;
  size_t place = d->crashingPlaces;
  for (size_t i = 0; i < sPeekCount; ++i) {
    const PeekSlot& slot = sPeek[i];
    w.line("--- --- --- --- --- --- --- --- --- --- --- --- --- --- --- ---", 63);
    char buf[96];
    Text t(buf, sizeof(buf));
    t.str("thread: tid ").dec(slot.tid.load(std::memory_order_relaxed)).str(", name ").str(slot.name);
    w.line(t);
    const int state = slot.state.load(std::memory_order_acquire);
    if (state == 4) {
      w.line("      (crashed too: its frames are in its own record)", 53);
      ++answered;
    }
    if (state != 3) continue;
    ++answered;
    for (uint32_t k = 0; k < slot.count && place < d->placeCount; ++k)
      addPlaceLine(w, *d, d->places[place++], "      ", k);
  }
  char buf[96];
  Text t(buf, sizeof(buf));
  t.str("threads: ")
      .dec(static_cast<long long>(answered))
      .str(" of ")
      .dec(static_cast<long long>(sPeekCount));
  t.str(" answered within ").dec(sPeekBudgetMs).str(" ms");
  w.line(t);
}

}  // namespace crash
}  // namespace zudebug

// Host unwinding: libgcc's unwinder over .eh_frame (it steps through signal frames
// and is lock-free on this glibc through _dl_find_object), symbols read from each
// module's own ELF symbol table so that hidden and static functions keep their names.
#include "HostUnwind.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <link.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include <zudebug_platform/signal_context.h>

namespace android {
namespace hostunwind {

namespace {

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// ---- local unwinding ----

struct BacktraceState {
  Frame* out;
  size_t max;
  size_t count;
  size_t skip;
  bool lastStored;  // the frame before this one was stored
};

_Unwind_Reason_Code collectFrame(struct _Unwind_Context* ctx, void* arg) {
  auto* st = static_cast<BacktraceState*>(arg);
  int beforeInsn = 0;
  uintptr_t pc = _Unwind_GetIPInfo(ctx, &beforeInsn);
  if (pc == 0) return _URC_END_OF_STACK;
  // A frame interrupted by a signal: the one before it is the signal trampoline.
  if (beforeInsn != 0 && st->lastStored) st->out[st->count - 1].trampoline = true;
  if (st->skip > 0) {
    --st->skip;
    st->lastStored = false;
    return _URC_NO_REASON;
  }
  if (st->count >= st->max) return _URC_END_OF_STACK;
  st->out[st->count++] = Frame{pc, beforeInsn != 0, false, false};
  st->lastStored = true;
  return _URC_NO_REASON;
}

// ---- remote unwinding ----

// One request at a time; the word packs a generation with the state, so that a
// signal that arrives after its request was given up cannot claim a newer one.
enum : uint32_t { kIdle = 0, kPending = 1, kRunning = 2, kDone = 3 };

struct RemoteSlot {
  std::atomic<uint32_t> word{kIdle};
  pid_t tid = 0;
  size_t skip = 0;
  size_t count = 0;
  // Room for the handler's own frames too: the unwind starts inside it.
  Frame frames[kMaxFrames + 16];
};

RemoteSlot gSlot;
std::mutex gSlotMutex;
uint32_t gGeneration = 0;  // under gSlotMutex
bool gSlotStuck = false;   // under gSlotMutex: a handler never finished

using zudebug::platform::interruptedPc;

void futexWake(std::atomic<uint32_t>* word) {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

void futexWait(std::atomic<uint32_t>* word, uint32_t expected, long waitNs) {
  struct timespec ts;
  ts.tv_sec = waitNs / 1000000000L;
  ts.tv_nsec = waitNs % 1000000000L;
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected, &ts, nullptr, 0);
}

void remoteHandler(int, siginfo_t* info, void* ucv) {
  int savedErrno = errno;
  if (info == nullptr || info->si_code != SI_QUEUE || info->si_pid != getpid()) {
    errno = savedErrno;
    return;
  }
  uint32_t expected = static_cast<uint32_t>(info->si_value.sival_int);
  if ((expected & 3u) != kPending ||
      !gSlot.word.compare_exchange_strong(expected, (expected & ~3u) | kRunning, std::memory_order_acq_rel)) {
    errno = savedErrno;  // stale or foreign request
    return;
  }
  size_t count = 0;
  if (gSlot.tid == currentTid()) {
    // Unwind from here: this handler, the signal trampoline, then the interrupted
    // code. Drop everything inside the signal frame; the slot holds the frames, not
    // this stack, which may be a small alternate one.
    constexpr size_t kRoom = sizeof(gSlot.frames) / sizeof(gSlot.frames[0]);
    size_t n = captureCurrent(0, gSlot.frames, kRoom);
    uintptr_t pc = interruptedPc(ucv);
    size_t start = n;
    for (size_t i = 0; i < n; ++i) {
      if (gSlot.frames[i].exact && (pc == 0 || gSlot.frames[i].pc == pc)) {
        start = i;
        break;
      }
    }
    if (start == n) {
      // No frame matches the interrupted pc (a sanitizer may run the handler later,
      // from its own code): keep what lies outside this handler.
      start = n > 0 ? 1 : 0;
    }
    if (start < n) gSlot.frames[start].first = true;
    start += gSlot.skip;
    for (size_t i = start; i < n && count < kMaxFrames; ++i) gSlot.frames[count++] = gSlot.frames[i];
  }
  gSlot.count = count;
  gSlot.word.store((expected & ~3u) | kDone, std::memory_order_release);
  futexWake(&gSlot.word);
  errno = savedErrno;
}

int unwindSignal() { return SIGRTMIN + 3; }

bool installRemoteHandler() {
  static const bool installed = [] {
    int sig = unwindSignal();
    struct sigaction old;
    memset(&old, 0, sizeof(old));
    if (sigaction(sig, nullptr, &old) != 0) return false;
    bool foreign = (old.sa_flags & SA_SIGINFO) != 0
                       ? old.sa_sigaction != nullptr
                       : (old.sa_handler != SIG_DFL && old.sa_handler != SIG_IGN);
    if (foreign) return false;  // the host uses this signal itself: leave it alone
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sigemptyset(&sa.sa_mask);
    sa.sa_sigaction = remoteHandler;
    sa.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    return sigaction(sig, &sa, nullptr) == 0;
  }();
  return installed;
}

int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// ---- symbols ----

struct Symbol {
  uintptr_t start;
  uintptr_t size;
  uint32_t name;  // offset into Module::names
  uint32_t rank;  // 0 global, 1 weak, 2 local: the preferred name of aliases comes first
};

struct Module {
  Module* next = nullptr;
  uintptr_t bias = 0;
  std::string path;  // as the loader knows it
  std::string name;  // as frames show it: the real path of the mapped file
  std::vector<Symbol> symbols;
  std::string names;
  std::unique_ptr<std::atomic<char*>[]> demangled;
};

// Modules are loaded once and kept for the life of the process; readers walk the
// list without a lock.
std::atomic<Module*> gModules{nullptr};

#if __WORDSIZE == 64
constexpr unsigned char kElfClass = ELFCLASS64;
#else
constexpr unsigned char kElfClass = ELFCLASS32;
#endif

uint32_t bindingRank(unsigned char info) {
  switch (ELF64_ST_BIND(info)) {
    case STB_GLOBAL:
      return 0;
    case STB_WEAK:
      return 1;
    default:
      return 2;
  }
}

// Reads the symbol table of the ELF image at `base` (`size` bytes readable).
void readSymbolsFromImage(Module* m, const unsigned char* base, size_t size) {
  const auto* eh = reinterpret_cast<const ElfW(Ehdr)*>(base);
  bool ok = size >= sizeof(ElfW(Ehdr)) && memcmp(eh->e_ident, ELFMAG, SELFMAG) == 0 &&
            eh->e_ident[EI_CLASS] == kElfClass && eh->e_shentsize == sizeof(ElfW(Shdr)) && eh->e_shoff > 0 &&
            eh->e_shoff < size && eh->e_shnum <= (size - eh->e_shoff) / sizeof(ElfW(Shdr));
  if (ok) {
    const auto* sh = reinterpret_cast<const ElfW(Shdr)*>(base + eh->e_shoff);
    // The full table when the file has one, else the dynamic symbols.
    const ElfW(Shdr)* table = nullptr;
    for (unsigned i = 0; i < eh->e_shnum; ++i)
      if (sh[i].sh_type == SHT_SYMTAB) table = &sh[i];
    if (table == nullptr)
      for (unsigned i = 0; i < eh->e_shnum; ++i)
        if (sh[i].sh_type == SHT_DYNSYM) table = &sh[i];
    if (table != nullptr && table->sh_link < eh->e_shnum && table->sh_entsize == sizeof(ElfW(Sym)) &&
        table->sh_offset <= size && table->sh_size <= size - table->sh_offset) {
      const ElfW(Shdr)& strSec = sh[table->sh_link];
      if (strSec.sh_offset <= size && strSec.sh_size <= size - strSec.sh_offset) {
        const char* strtab = reinterpret_cast<const char*>(base + strSec.sh_offset);
        const auto* syms = reinterpret_cast<const ElfW(Sym)*>(base + table->sh_offset);
        size_t count = table->sh_size / sizeof(ElfW(Sym));
        for (size_t i = 0; i < count; ++i) {
          const ElfW(Sym)& s = syms[i];
          unsigned type = ELF64_ST_TYPE(s.st_info);
          if ((type != STT_FUNC && type != STT_GNU_IFUNC) || s.st_shndx == SHN_UNDEF || s.st_value == 0)
            continue;
          if (s.st_name >= strSec.sh_size) continue;
          const char* name = strtab + s.st_name;
          size_t len = strnlen(name, strSec.sh_size - s.st_name);
          if (len == 0 || len == strSec.sh_size - s.st_name) continue;
          if (m->names.size() + len + 1 > UINT32_MAX) break;
          Symbol sym{static_cast<uintptr_t>(s.st_value), static_cast<uintptr_t>(s.st_size),
                     static_cast<uint32_t>(m->names.size()), bindingRank(s.st_info)};
          m->names.append(name, len);
          m->names.push_back('\0');
          m->symbols.push_back(sym);
        }
      }
    }
  }
  std::sort(m->symbols.begin(), m->symbols.end(), [](const Symbol& a, const Symbol& b) {
    return a.start != b.start ? a.start < b.start : a.rank < b.rank;
  });
  m->symbols.erase(std::unique(m->symbols.begin(), m->symbols.end(),
                               [](const Symbol& a, const Symbol& b) { return a.start == b.start; }),
                   m->symbols.end());
  m->demangled.reset(new std::atomic<char*>[m->symbols.size()]());
}

void readSymbols(Module* m) {
  int fd = open(m->path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) < sizeof(ElfW(Ehdr))) {
    close(fd);
    return;
  }
  size_t size = static_cast<size_t>(st.st_size);
  void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  close(fd);
  if (map == MAP_FAILED) return;
  readSymbolsFromImage(m, static_cast<const unsigned char*>(map), size);
  munmap(map, size);
}

// The vDSO: where the kernel mapped it and how many bytes of its image are readable.
struct VdsoImage {
  uintptr_t start = 0;
  size_t size = 0;
};

const VdsoImage& vdsoImage() {
  static const VdsoImage image = [] {
    VdsoImage v;
    const uintptr_t ehdr = static_cast<uintptr_t>(getauxval(AT_SYSINFO_EHDR));
    if (ehdr == 0) return v;
    const auto* eh = reinterpret_cast<const ElfW(Ehdr)*>(ehdr);
    if (memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 || eh->e_phentsize != sizeof(ElfW(Phdr))) return v;
    const auto* ph = reinterpret_cast<const ElfW(Phdr)*>(ehdr + eh->e_phoff);
    size_t end = 0;
    for (unsigned i = 0; i < eh->e_phnum; ++i)
      if (ph[i].p_type == PT_LOAD && ph[i].p_offset == 0)
        end = std::max(end, static_cast<size_t>(ph[i].p_filesz));
    // The kernel maps the whole image in pages, with the section headers behind the
    // loaded part.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t mapped = (end + page - 1) / page * page;
    const size_t sections =
        static_cast<size_t>(eh->e_shoff) + static_cast<size_t>(eh->e_shnum) * eh->e_shentsize;
    v.start = ehdr;
    v.size = sections <= mapped ? std::max(end, sections) : end;
    return v;
  }();
  return image;
}

// The name frames show for a loaded object: the real path of its file, as the
// kernel's map of the process names it; the vDSO as "[vdso:<start>]".
std::string displayName(const std::string& path, uintptr_t bias, uintptr_t pc) {
  const VdsoImage& vdso = vdsoImage();
  if (vdso.size > 0 && pc >= vdso.start && pc - vdso.start < vdso.size) {
    char name[64];
    snprintf(name, sizeof(name), "[vdso:%016" PRIxPTR "]", vdso.start);
    return name;
  }
  (void)bias;
  char resolved[PATH_MAX];
  if (!path.empty() && path[0] == '/' && realpath(path.c_str(), resolved) != nullptr) return resolved;
  return path;
}

const std::string& mainProgramPath() {
  static const std::string path = [] {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
  }();
  return path;
}

// The loaded object that holds `pc`. glibc's lock-free lookup where there is one;
// dladdr otherwise (it also scans the object's dynamic symbols, which is slower).
const struct link_map* linkMapOf(uintptr_t pc) {
#if defined(DLFO_STRUCT_HAS_EH_DBASE)
  struct dl_find_object found;
  if (_dl_find_object(reinterpret_cast<void*>(pc), &found) == 0) return found.dlfo_link_map;
  return nullptr;
#else
  Dl_info info;
  struct link_map* lm = nullptr;
  if (dladdr1(reinterpret_cast<void*>(pc), &info, reinterpret_cast<void**>(&lm), RTLD_DL_LINKMAP) == 0)
    return nullptr;
  return lm;
#endif
}

Module* findModule(uintptr_t bias, const char* path, uintptr_t pc) {
  for (Module* m = gModules.load(std::memory_order_acquire); m != nullptr; m = m->next)
    if (m->bias == bias && m->path == path) return m;
  auto* m = new Module;
  m->bias = bias;
  m->path = path;
  m->name = displayName(m->path, bias, pc);
  const VdsoImage& vdso = vdsoImage();
  if (m->name.rfind("[vdso:", 0) == 0)
    readSymbolsFromImage(m, reinterpret_cast<const unsigned char*>(vdso.start), vdso.size);
  else
    readSymbols(m);
  Module* head = gModules.load(std::memory_order_relaxed);
  do {
    m->next = head;
  } while (!gModules.compare_exchange_weak(head, m, std::memory_order_release, std::memory_order_relaxed));
  return m;
}

const char* symbolName(Module* m, size_t index) {
  std::atomic<char*>& slot = m->demangled[index];
  char* d = slot.load(std::memory_order_acquire);
  if (d != nullptr) return d;
  const char* raw = m->names.c_str() + m->symbols[index].name;
  int status = 0;
  char* dem = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
  if (status != 0 || dem == nullptr) {
    free(dem);
    dem = strdup(raw);
    if (dem == nullptr) return raw;
  }
  char* expected = nullptr;
  if (!slot.compare_exchange_strong(expected, dem, std::memory_order_acq_rel)) {
    free(dem);
    return expected;
  }
  return dem;
}

// One line of the kernel's map of this process.
struct Mapping {
  uintptr_t start = 0;
  uintptr_t offset = 0;
  char name[512] = "";
};

// The mapping that holds `pc`, read from /proc/self/maps with plain system calls.
bool findMapping(uintptr_t pc, Mapping* out) {
  int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[4096];
  char line[640];
  size_t len = 0;
  bool found = false;
  for (ssize_t n; !found && (n = read(fd, buf, sizeof(buf))) > 0;) {
    for (ssize_t i = 0; i < n && !found; ++i) {
      if (buf[i] != '\n') {
        if (len < sizeof(line) - 1) line[len++] = buf[i];
        continue;
      }
      line[len] = '\0';
      len = 0;
      unsigned long long start = 0, end = 0, offset = 0;
      int nameAt = 0;
      if (sscanf(line, "%llx-%llx %*s %llx %*s %*s %n", &start, &end, &offset, &nameAt) < 3) continue;
      if (pc < start || pc >= end) continue;
      out->start = static_cast<uintptr_t>(start);
      out->offset = static_cast<uintptr_t>(offset);
      snprintf(out->name, sizeof(out->name), "%s", nameAt > 0 ? line + nameAt : "");
      found = true;
    }
  }
  close(fd);
  return found;
}

// A signal return trampoline that no module holds: qemu's user-mode emulation keeps
// it in a page of its own, where the arm64 kernel has it in the vDSO. Known by its
// code, "mov x8, #__NR_rt_sigreturn; svc #0", as libgcc's unwinder knows it when it
// steps through the signal frame. Read only where mapped (msync fails with ENOMEM on
// an address nothing is mapped at): a frame may outlive its module.
bool isModulelessSigreturn(uintptr_t pc) {
#if defined(__aarch64__)
  const uintptr_t page = pc & ~static_cast<uintptr_t>(sysconf(_SC_PAGESIZE) - 1);
  uint32_t code[2];
  if (pc % alignof(uint32_t) != 0 ||
      msync(reinterpret_cast<void*>(page), pc + sizeof(code) - page, MS_ASYNC) != 0)
    return false;
  memcpy(code, reinterpret_cast<const void*>(pc), sizeof(code));
  return code[0] == 0xd2801168u && code[1] == 0xd4000001u;
#else
  (void)pc;
  return false;
#endif
}

}  // namespace

__attribute__((noinline)) size_t captureCurrent(size_t skip, Frame* out, size_t max) {
  BacktraceState st{out, max, 0, skip, false};
  _Unwind_Backtrace(collectFrame, &st);
  asm volatile("" ::: "memory");  // keeps this frame: no tail call
  return st.count;
}

int remoteSignal() { return unwindSignal(); }

RemoteResult captureThread(pid_t tid, size_t skip, Frame* out, size_t max, size_t* count, int timeoutMs) {
  *count = 0;
  int sig = unwindSignal();
  if (!installRemoteHandler()) return RemoteResult::NoHandler;

  std::lock_guard<std::mutex> lock(gSlotMutex);
  if (gSlotStuck) return RemoteResult::TimedOut;
  gGeneration = (gGeneration + 1) & 0x3fffffffu;
  const uint32_t gen = gGeneration << 2;
  gSlot.tid = tid;
  gSlot.skip = skip;
  gSlot.count = 0;
  gSlot.word.store(gen | kPending, std::memory_order_release);

  siginfo_t si;
  memset(&si, 0, sizeof(si));
  si.si_signo = sig;
  si.si_code = SI_QUEUE;
  si.si_pid = getpid();
  si.si_uid = getuid();
  si.si_value.sival_int = static_cast<int>(gen | kPending);
  if (syscall(SYS_rt_tgsigqueueinfo, getpid(), tid, sig, &si) != 0) {
    gSlot.word.store(gen | kIdle, std::memory_order_relaxed);
    return RemoteResult::NoThread;
  }

  const int64_t deadline = monotonicNs() + static_cast<int64_t>(timeoutMs) * 1000000LL;
  // Once the handler has started it is given a further grace period to finish.
  const int64_t hardDeadline = deadline + 5000000000LL;
  for (;;) {
    uint32_t w = gSlot.word.load(std::memory_order_acquire);
    if (w == (gen | kDone)) break;
    int64_t now = monotonicNs();
    if (now >= deadline) {
      uint32_t expected = gen | kPending;
      if (gSlot.word.compare_exchange_strong(expected, gen | kIdle, std::memory_order_acq_rel))
        return RemoteResult::TimedOut;  // not started: a late signal finds nothing to do
      if (expected == (gen | kDone)) break;
      if (now >= hardDeadline) {
        gSlotStuck = true;  // still writing into the slot: never reuse it
        return RemoteResult::TimedOut;
      }
    }
    int64_t wait = (now < deadline ? deadline : hardDeadline) - now;
    futexWait(&gSlot.word, w, static_cast<long>(std::min<int64_t>(wait, 50000000LL)));
  }
  size_t n = std::min(gSlot.count, max);
  std::copy(gSlot.frames, gSlot.frames + n, out);
  *count = n;
  gSlot.word.store(gen | kIdle, std::memory_order_relaxed);
  return RemoteResult::Ok;
}

uintptr_t shownPc(const Frame& frame) {
#if defined(__x86_64__) || defined(__i386__)
  constexpr uintptr_t kCallAdjust = 1;  // any byte of the call instruction
#elif defined(__aarch64__)
  constexpr uintptr_t kCallAdjust = 4;  // the call instruction itself
#else
#error "no pc adjustment for return addresses on this architecture"
#endif
  if (frame.first || frame.trampoline || frame.pc < kCallAdjust) return frame.pc;
  return frame.pc - kCallAdjust;
}

std::string formatFrame(size_t index, const Frame& frame) {
  char line[1024];
  const uintptr_t pc = shownPc(frame);
  const struct link_map* lm = linkMapOf(pc);
  if (lm == nullptr) {
    // No loaded object: memory mapped some other way (generated code), or nothing.
    Mapping map;
    // qemu's signal return trampoline lies in such memory; named as the kernel's is.
    const char* sigreturn = isModulelessSigreturn(frame.pc) ? " (__kernel_rt_sigreturn)" : "";
    if (!findMapping(pc, &map)) {
      snprintf(line, sizeof(line), "#%02zu pc %016" PRIxPTR "  <unknown>%s", index, pc, sigreturn);
    } else if (map.name[0] == '\0') {
      snprintf(line, sizeof(line), "#%02zu pc %016" PRIxPTR "  <anonymous:%016" PRIxPTR ">%s", index,
               pc - map.start, map.start, sigreturn);
    } else if (map.name[0] == '[') {
      const size_t len = strlen(map.name);
      if (len > 0 && map.name[len - 1] == ']') map.name[len - 1] = '\0';
      snprintf(line, sizeof(line), "#%02zu pc %016" PRIxPTR "  %s:%016" PRIxPTR "]", index, pc - map.start,
               map.name, map.start);
    } else {
      snprintf(line, sizeof(line), "#%02zu pc %016" PRIxPTR "  %s", index, pc - map.start + map.offset,
               map.name);
    }
    return line;
  }
  const uintptr_t bias = static_cast<uintptr_t>(lm->l_addr);
  const char* path =
      (lm->l_name != nullptr && lm->l_name[0] != '\0') ? lm->l_name : mainProgramPath().c_str();
  const uintptr_t rel = pc - bias;

  const char* name = nullptr;
  uintptr_t offset = 0;
  Module* m = findModule(bias, path, pc);
  if (!m->symbols.empty()) {
    auto it = std::upper_bound(m->symbols.begin(), m->symbols.end(), rel,
                               [](uintptr_t v, const Symbol& s) { return v < s.start; });
    if (it != m->symbols.begin()) {
      --it;
      if (rel < it->start + (it->size != 0 ? it->size : 1)) {
        name = symbolName(m, static_cast<size_t>(it - m->symbols.begin()));
        offset = rel - it->start;
      }
    }
  }

  int n = snprintf(line, sizeof(line), "#%02zu pc %016" PRIxPTR "  %s", index, rel, m->name.c_str());
  if (name != nullptr && n > 0 && static_cast<size_t>(n) < sizeof(line)) {
    if (offset != 0)
      snprintf(line + n, sizeof(line) - static_cast<size_t>(n), " (%s+%" PRIuPTR ")", name, offset);
    else
      snprintf(line + n, sizeof(line) - static_cast<size_t>(n), " (%s)", name);
  }
  return line;
}

std::string threadName(pid_t tid) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/task/%d/comm", static_cast<int>(tid));
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "<unknown>";
  char buf[64];
  ssize_t n = read(fd, buf, sizeof(buf) - 1);
  close(fd);
  if (n <= 0) return "<unknown>";
  while (n > 0 && (buf[n - 1] == '\n' || buf[n - 1] == '\0')) --n;
  return std::string(buf, static_cast<size_t>(n));
}

}  // namespace hostunwind
}  // namespace android

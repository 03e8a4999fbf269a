// Call-stack capture on the host: the unwinders that could back android::CallStack,
// measured on the same 20-frame stack, then the chosen one end to end (capture and
// symbolise one thread; dump a process of 16 threads).
#include <benchmark/benchmark.h>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>
#include <utils/CallStack.h>
#include <utils/ProcessCallStack.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kFrames = 20;

// Runs `fn` with `depth` more frames on the stack.
__attribute__((noinline)) void recurse(int depth, const std::function<void()>& fn) {
  if (depth <= 0) {
    fn();
  } else {
    recurse(depth - 1, fn);
  }
  asm volatile("");
}

// Frames below the benchmark body (benchmark runner, main, libc start).
int baseDepth() {
  static const int depth = [] {
    int n = 0;
    recurse(0, [&n] {
      android::CallStack stack;
      stack.update(1);
      n = static_cast<int>(stack.size());
    });
    return n;
  }();
  return depth;
}

// Runs `fn` so that a capture inside it sees about kFrames frames.
void atTwentyFrames(const std::function<void()>& fn) {
  int extra = kFrames - baseDepth();
  recurse(extra > 0 ? extra : 0, fn);
}

// ---- unwinders alone ----

struct GccState {
  uintptr_t* pcs;
  int max;
  int count;
};

_Unwind_Reason_Code gccCollect(struct _Unwind_Context* ctx, void* arg) {
  auto* st = static_cast<GccState*>(arg);
  if (st->count >= st->max) return _URC_END_OF_STACK;
  st->pcs[st->count++] = _Unwind_GetIP(ctx);
  return _URC_NO_REASON;
}

void BM_Unwind_LibgccUnwindBacktrace(benchmark::State& state) {
  atTwentyFrames([&state] {
    uintptr_t pcs[64];
    for (auto _ : state) {
      GccState st{pcs, 64, 0};
      _Unwind_Backtrace(gccCollect, &st);
      benchmark::DoNotOptimize(st.count);
    }
  });
}
BENCHMARK(BM_Unwind_LibgccUnwindBacktrace);

void BM_Unwind_GlibcBacktrace(benchmark::State& state) {
  atTwentyFrames([&state] {
    void* pcs[64];
    for (auto _ : state) benchmark::DoNotOptimize(backtrace(pcs, 64));
  });
}
BENCHMARK(BM_Unwind_GlibcBacktrace);

// LLVM's libunwind, loaded privately so that its _Unwind_* entry points do not
// replace libgcc's for the rest of the program.
struct LlvmUnwind {
  using GetContext = int (*)(void*);
  using InitLocal = int (*)(void*, void*);
  using Step = int (*)(void*);
  using GetReg = int (*)(void*, int, uint64_t*);
  GetContext getContext = nullptr;
  InitLocal initLocal = nullptr;
  Step step = nullptr;
  GetReg getReg = nullptr;
  LlvmUnwind() {
    void* lib = dlopen("libunwind.so.1", RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return;
    getContext = reinterpret_cast<GetContext>(dlsym(lib, "unw_getcontext"));
    initLocal = reinterpret_cast<InitLocal>(dlsym(lib, "unw_init_local"));
    step = reinterpret_cast<Step>(dlsym(lib, "unw_step"));
    getReg = reinterpret_cast<GetReg>(dlsym(lib, "unw_get_reg"));
  }
  bool ok() const { return getContext && initLocal && step && getReg; }
};

void BM_Unwind_LlvmLibunwind(benchmark::State& state) {
  static LlvmUnwind llvm;
  if (!llvm.ok()) {
    state.SkipWithError("libunwind.so.1 (LLVM) not available");
    return;
  }
  atTwentyFrames([&state] {
    alignas(16) uint64_t context[256];
    alignas(16) uint64_t cursor[256];
    uint64_t pcs[64];
    for (auto _ : state) {
      int n = 0;
      llvm.getContext(context);
      llvm.initLocal(cursor, context);
      do {
        llvm.getReg(cursor, -1 /* UNW_REG_IP */, &pcs[n]);
      } while (++n < 64 && llvm.step(cursor) > 0);
      benchmark::DoNotOptimize(n);
    }
  });
}
BENCHMARK(BM_Unwind_LlvmLibunwind);

// ---- unwinding and symbolising ----

// The chosen path: libgcc's unwinder, symbols from each module's ELF symbol table
// (loaded once), demangled once per symbol.
void BM_CallStack_CaptureAndSymbolise20(benchmark::State& state) {
  atTwentyFrames([&state] {
    for (auto _ : state) {
      android::CallStack stack;
      stack.update(1);
      android::String8 text = stack.toString();
      benchmark::DoNotOptimize(text.length());
    }
  });
}
BENCHMARK(BM_CallStack_CaptureAndSymbolise20);

// The alternative: libgcc's unwinder, dladdr and a demangle per frame. It only knows
// exported symbols, so hidden and static functions come out misnamed.
void BM_Libgcc_Dladdr_Demangle20(benchmark::State& state) {
  atTwentyFrames([&state] {
    uintptr_t pcs[64];
    for (auto _ : state) {
      GccState st{pcs, 64, 0};
      _Unwind_Backtrace(gccCollect, &st);
      std::string text;
      for (int i = 0; i < st.count; ++i) {
        Dl_info info;
        if (dladdr(reinterpret_cast<void*>(pcs[i] - 1), &info) == 0) continue;
        text += info.dli_fname ? info.dli_fname : "?";
        if (info.dli_sname != nullptr) {
          int status = 0;
          char* dem = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
          text += dem ? dem : info.dli_sname;
          free(dem);
        }
        text += '\n';
      }
      benchmark::DoNotOptimize(text.size());
    }
  });
}
BENCHMARK(BM_Libgcc_Dladdr_Demangle20);

void BM_GlibcBacktraceSymbols20(benchmark::State& state) {
  atTwentyFrames([&state] {
    void* pcs[64];
    for (auto _ : state) {
      int n = backtrace(pcs, 64);
      char** names = backtrace_symbols(pcs, n);
      benchmark::DoNotOptimize(names);
      free(names);
    }
  });
}
BENCHMARK(BM_GlibcBacktraceSymbols20);

// ---- other threads ----

struct ParkedThreads {
  explicit ParkedThreads(int n) {
    for (int i = 0; i < n; ++i) {
      threads.emplace_back([this] { park(); });
    }
  }
  ~ParkedThreads() {
    stop = true;
    for (auto& t : threads) t.join();
  }
  __attribute__((noinline)) void park() {
    atTwentyFrames([this] {
      ready.fetch_add(1);
      while (!stop.load()) usleep(1000);
    });
  }
  void waitReady(int n) const {
    while (ready.load() < n) usleep(1000);
  }
  std::vector<std::thread> threads;
  std::atomic<int> ready{0};
  std::atomic<bool> stop{false};
};

void BM_CallStack_OtherThread20(benchmark::State& state) {
  std::atomic<pid_t> tid{0};
  std::atomic<bool> stop{false};
  std::thread worker([&] {
    atTwentyFrames([&] {
      tid = static_cast<pid_t>(syscall(SYS_gettid));
      while (!stop.load()) usleep(1000);
    });
  });
  while (tid.load() == 0) usleep(1000);
  for (auto _ : state) {
    android::CallStack stack;
    stack.update(0, tid.load());
    android::String8 text = stack.toString();
    benchmark::DoNotOptimize(text.length());
  }
  stop = true;
  worker.join();
}
BENCHMARK(BM_CallStack_OtherThread20)->Unit(benchmark::kMicrosecond);

// The whole process: this thread and 15 parked ones of about 20 frames each.
void BM_ProcessCallStack_16Threads(benchmark::State& state) {
  ParkedThreads parked(15);
  parked.waitReady(15);
  for (auto _ : state) {
    android::ProcessCallStack process;
    process.update();
    android::String8 text = process.toString();
    benchmark::DoNotOptimize(text.length());
  }
}
BENCHMARK(BM_ProcessCallStack_16Threads)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

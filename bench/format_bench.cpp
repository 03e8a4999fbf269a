// The message formatter against the C library's vsnprintf on a typical log message
// (about 100 characters, two integers and a string) into a line buffer.
//
//   format_bench [benchmark flags]          Google Benchmark, ns per call
//   format_bench --loop ours|libc N         N calls and nothing else, for
//                                           valgrind --tool=callgrind (instructions per call)
#include <benchmark/benchmark.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ZuFormat.h"

namespace {

constexpr size_t kLine = 1022;
const char kTypical[] =
    "camera pipeline: frame %d of request %d done in stage YUV_REPROCESS, output buffer %s released";
const char* const kBuffer = "hal-buf-0x7f3a";

__attribute__((noinline, format(printf, 3, 4))) int withOurs(char* buf, size_t size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = zudebug::fmt::zuVFormat(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

__attribute__((noinline, format(printf, 3, 4))) int withLibc(char* buf, size_t size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

template <int (*F)(char*, size_t, const char*, ...)>
void typical(benchmark::State& state) {
  char buf[kLine];
  int frame = 18231, request = 4410;
  for (auto _ : state) {
    int n = F(buf, sizeof(buf), kTypical, frame, request, kBuffer);
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
    ++frame;
  }
  state.SetLabel(std::to_string(F(buf, sizeof(buf), kTypical, frame, request, kBuffer)) + " chars");
}

// The same message with a double in it: the formatter's fallback to vsnprintf.
template <int (*F)(char*, size_t, const char*, ...)>
void withDouble(benchmark::State& state) {
  char buf[kLine];
  int frame = 18231;
  for (auto _ : state) {
    int n = F(buf, sizeof(buf), "camera pipeline: frame %d done in %.3f ms, output buffer %s released", frame,
              4.125, kBuffer);
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
    ++frame;
  }
}

BENCHMARK(typical<withLibc>)->Name("typical/vsnprintf");
BENCHMARK(typical<withOurs>)->Name("typical/zuVFormat");
BENCHMARK(withDouble<withLibc>)->Name("fallback/vsnprintf");
BENCHMARK(withDouble<withOurs>)->Name("fallback/zuVFormat");

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && strcmp(argv[1], "--loop") == 0) {
    bool ours = strcmp(argv[2], "ours") == 0;
    long count = atol(argv[3]);
    char buf[kLine];
    int sum = 0;
    for (long i = 0; i < count; ++i) {
      int frame = static_cast<int>(18231 + i);
      sum += ours ? withOurs(buf, sizeof(buf), kTypical, frame, 4410, kBuffer)
                  : withLibc(buf, sizeof(buf), kTypical, frame, 4410, kBuffer);
    }
    printf("%d\n", sum);
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

// Snapshot updates with 10, 1,000 and 100,000 captures in flight, and the caller's
// share of an unregistration; a linear walk over the records by image name is the
// peer that the name lookups are measured against.
//
// Nothing is dumped (snapshotDumpAll -1) and log statements are switched off, so the
// figures are the lookups and writes themselves.
#include <benchmark/benchmark.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "PRAXDiagnostician.h"
#include "ZuDebugUtils.h"

using namespace zudebug;

namespace {

constexpr uint32_t kSession = 77;
constexpr size_t kProbes = 4096;

uint64_t keyOf(uint32_t frame) { return (static_cast<uint64_t>(frame) << 32) | kSession; }
std::string nameOf(uint32_t frame) { return "IMG_20240307_" + std::to_string(frame); }

size_t inFlight() {
  auto q = SnapDiagnostician::getInstance()->getQueue();
  std::lock_guard<std::mutex> lock(q->mutex);
  return q->allRecords().size();
}

// Leaves exactly `n` captures in flight (frames 0..n-1), named and with a node table.
void fillQueue(uint32_t n) {
  static uint32_t current = 0;
  if (current == n && inFlight() == n) return;
  SnapDiagnostician* d = SnapDiagnostician::getInstance();
  d->init(1, -1, 0, 0, 0);
  gZuCamLogGroup = 0;
  for (uint32_t f = 0; f < current; ++f) d->unregisterSnapshotRecord(kSession, f);
  while (inFlight() != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  for (uint32_t f = 0; f < n; ++f) {
    d->registerSnapshotRecord("bench-session", kSession, f, nameOf(f), 0, nullptr);
    updateZuAlgoInfo(nameOf(f), {"MFNR:yuv", "SR"});
  }
  current = n;
}

// Frames to touch, spread over the whole set so that lookups are not all cache hits.
std::vector<uint32_t> probes(uint32_t n) {
  std::mt19937 rng(42);
  std::vector<uint32_t> frames(kProbes);
  for (auto& f : frames) f = rng() % n;
  return frames;
}

void BM_UpdateSnapshotTimeInfo(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  fillQueue(n);
  std::vector<uint64_t> keys;
  for (uint32_t f : probes(n)) keys.push_back(keyOf(f));
  size_t i = 0;
  for (auto _ : state) {
    updateSnapshotTimeInfo(keys[i++ % kProbes], TIME_REQUEST_TO_ALGO);
  }
}
BENCHMARK(BM_UpdateSnapshotTimeInfo)->Arg(10)->Arg(1000)->Arg(100000);

void BM_UpdateNodeProcTime(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  fillQueue(n);
  std::vector<std::string> names;
  for (uint32_t f : probes(n)) names.push_back(nameOf(f));
  const std::string node = "MFNR";
  size_t i = 0;
  for (auto _ : state) {
    updateNodeProcTime(names[i++ % kProbes], node, 12.5);
  }
}
BENCHMARK(BM_UpdateNodeProcTime)->Arg(10)->Arg(1000)->Arg(100000);

// Peer: the same update found by walking every record in key order.
void BM_NodeProcTimeByLinearWalk(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  fillQueue(n);
  std::vector<std::string> names;
  for (uint32_t f : probes(n)) names.push_back(nameOf(f));
  auto q = SnapDiagnostician::getInstance()->getQueue();
  size_t i = 0;
  for (auto _ : state) {
    const std::string& name = names[i++ % kProbes];
    std::lock_guard<std::mutex> lock(q->mutex);
    for (const auto& kv : q->allRecords()) {
      if (kv.second->imageName == name) {
        kv.second->snapshotInfo.nodeProcTime["MFNR"] = 12.5;
        break;
      }
    }
  }
}
BENCHMARK(BM_NodeProcTimeByLinearWalk)->Arg(10)->Arg(1000)->Arg(100000);

// The caller's share: the task is queued and the call returns; the worker does the
// lookup, the dump decision and the erase meanwhile. The frames are not in flight.
void BM_UnregisterSnapshotRecord(benchmark::State& state) {
  fillQueue(1000);
  SnapDiagnostician* d = SnapDiagnostician::getInstance();
  uint32_t frame = 1u << 30;
  for (auto _ : state) {
    d->unregisterSnapshotRecord(kSession, frame++);
  }
  // Outside the timed loop: let the worker catch up before the next run.
  d->registerSnapshotRecord("bench-session", kSession, 1u << 31, "marker", 0, nullptr);
  d->unregisterSnapshotRecord(kSession, 1u << 31);
  while (inFlight() != 1000) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}
BENCHMARK(BM_UnregisterSnapshotRecord);

}  // namespace

BENCHMARK_MAIN();

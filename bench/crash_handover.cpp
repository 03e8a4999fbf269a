// Run by hand: how long each crash takes from the fault to the process's death, how
// long until the handler installed before the catcher gets the signal, and how much
// of its stack the catcher used; each scenario of the crash scenario program RUNS
// times (default 20) in a throw-away device root.
//
//   build/plain/bench/crash_handover [RUNS] [SCENARIO...]
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "CrashScenario.h"

extern char** environ;

namespace {

int64_t nowNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Run {
  bool ok = false;  // died of its signal after the hand-over
  double deathMs = 0, handOverMs = 0;
  uint64_t stackUsed = 0;
  int64_t allocations = 0;
};

Run runOnce(const crashscenario::Scenario& s) {
  Run run;
  const std::string root = benchroot::makeRoot("/tmp", "zudebug-crash");
  if (root.empty()) return run;
  FILE* props = fopen((root + "/props.txt").c_str(), "w");
  if (props == nullptr) return run;
  fputs("persist.vendor.camera.offlinedebug.mask=1\n", props);
  fclose(props);
  setenv("ZUDEBUG_ROOT", root.c_str(), 1);
  setenv("ZUDEBUG_PROPS", (root + "/props.txt").c_str(), 1);
  setenv("ZUDEBUG_LOGCAT", "/dev/null", 1);
  setenv("ZUDEBUG_FREE_MB", "100000", 1);
  const std::string result = root + "/result.bin";
  std::vector<std::string> args = {CRASH_SCENARIO, s.name, result};
  char* argv[] = {&args[0][0], &args[1][0], &args[2][0], nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, CRASH_SCENARIO, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return run;
  int status = 0;
  waitpid(pid, &status, 0);
  const int64_t death = nowNs();
  crashscenario::Result r{};
  FILE* in = fopen(result.c_str(), "rb");
  if (in != nullptr) {
    run.ok = fread(&r, sizeof(r), 1, in) == 1;
    fclose(in);
  }
  run.ok =
      run.ok && r.ready == 1 && r.previousCalls >= 1 && WIFSIGNALED(status) && WTERMSIG(status) == s.signal;
  run.deathMs = static_cast<double>(death - r.faultNs) / 1e6;
  run.handOverMs = static_cast<double>(r.handOverNs - r.faultNs) / 1e6;
  run.stackUsed = r.stackUsed;
  run.allocations = r.allocationsInHandler;
  benchroot::removeTree(root);
  return run;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? atoi(argv[1]) : 20;
  std::vector<std::string> only(argv + (argc > 1 ? 2 : 1), argv + argc);
  printf(
      "| scenario | handed over | fault to hand-over, median / worst ms | fault to death, median / worst ms "
      "| catcher stack, most bytes | allocations in the catcher |\n");
  printf("|---|---|---|---|---|---|\n");
  for (const crashscenario::Scenario& s : crashscenario::kScenarios) {
    if (!only.empty() && std::find(only.begin(), only.end(), s.name) == only.end()) continue;
    std::vector<double> death, handOver;
    int ok = 0;
    uint64_t stack = 0;
    int64_t allocations = 0;
    for (int i = 0; i < runs; ++i) {
      const Run r = runOnce(s);
      if (!r.ok) continue;
      ++ok;
      death.push_back(r.deathMs);
      handOver.push_back(r.handOverMs);
      stack = std::max(stack, r.stackUsed);
      allocations = std::max(allocations, r.allocations);
    }
    printf("| %s | %d of %d | %.1f / %.1f | %.1f / %.1f | %llu | %lld |\n", s.name, ok, runs,
           median(handOver), handOver.empty() ? 0 : *std::max_element(handOver.begin(), handOver.end()),
           median(death), death.empty() ? 0 : *std::max_element(death.begin(), death.end()),
           static_cast<unsigned long long>(stack), static_cast<long long>(allocations));
    fflush(stdout);
  }
  return 0;
}

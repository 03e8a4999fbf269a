// Thread pool: order and draining, refusal after stop, worker naming and nice values,
// and the warning about a consumer that stopped keeping up.
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ThreadPool.h"

using zudebug::ThreadPool;
using namespace std::chrono_literals;

namespace {

const char kCongestion[] = "[ThreadPool]: thread consume slowly or  blocking,task queue size ";

// Congestion warnings in this child's logcat, as the queue sizes they report.
std::vector<int> congestionSizes(const std::string& logcat) {
  std::vector<int> sizes;
  for (const std::string& line : zutest::readLines(logcat)) {
    if (line.rfind("W/ZuAlgoEngine: ", 0) != 0) continue;
    size_t pos = line.find(kCongestion);
    if (pos != std::string::npos) sizes.push_back(std::stoi(line.substr(pos + sizeof(kCongestion) - 1)));
  }
  return sizes;
}

// A gate a task can wait on.
struct Gate {
  std::promise<void> open;
  std::shared_future<void> opened = open.get_future().share();
};

std::string threadComm(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

// Nice value of thread `tid`, read from outside the thread.
int threadNice(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string field;
  // After the command: state is field 3; nice is field 19.
  for (int i = 3; i <= 19; ++i) fields >> field;
  return std::stoi(field);
}

}  // namespace

TEST(ThreadPool, RunsTasksInOrderAndDrainsOnDestruction) {
  auto pool = std::make_unique<ThreadPool>(1, 10);
  Gate gate;
  std::atomic<bool> destroying{false};
  std::vector<int> ran;
  std::atomic<int> lateEnqueue{1};
  ASSERT_EQ(pool->enqueue([&] {
    // Hold the worker until the destructor has certainly begun.
    while (!destroying) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(200ms);
  }),
            0);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(pool->enqueue([&ran, i] { ran.push_back(i); }), 0);
  ThreadPool* raw = pool.get();
  ASSERT_EQ(pool->enqueue([&] { lateEnqueue = raw->enqueue([] {}); }), 0);

  destroying = true;
  pool.reset();

  ASSERT_EQ(ran.size(), 50u) << "tasks queued before destruction must all run";
  for (int i = 0; i < 50; ++i) EXPECT_EQ(ran[i], i);
  EXPECT_EQ(lateEnqueue, -1) << "a stopping pool refuses new tasks";
}

TEST(ThreadPool, WorkersAreNamedAndApplyPriorityBeforeTheirNextTask) {
  ThreadPool pool(2, 10);
  auto probe = [&pool] {
    std::promise<std::pair<pid_t, int>> seen;
    auto result = seen.get_future();
    EXPECT_EQ(pool.enqueue([&seen] { seen.set_value({gettid(), getpriority(PRIO_PROCESS, 0)}); }), 0);
    return result.get();
  };
  auto first = probe();
  EXPECT_EQ(first.second, 10);
  const std::string name = threadComm(first.first);
  EXPECT_TRUE(name == "ZuHalThd0" || name == "ZuHalThd1") << name;

  pool.setThreadPoolPriority(19);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(threadNice(first.first), 10) << "an idle worker keeps its nice value";
  // Whichever worker takes the next task applies the new value first.
  auto second = probe();
  EXPECT_EQ(second.second, 19);
}

TEST(ThreadPool, CongestionWarningWithoutWorkers) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    auto res = zutest::runChild("ThreadPool.CongestionWarningWithoutWorkers", root);
    ASSERT_EQ(res.exitCode(), 0) << res.output;
    // The ring fills on the tenth enqueue; every further one warns with the growing size.
    EXPECT_EQ(congestionSizes(root.logcatFile()), (std::vector<int>{9, 10, 11, 12}));
    return;
  }
  ThreadPool pool(0, 10);
  for (int i = 0; i < 13; ++i) EXPECT_EQ(pool.enqueue([] {}), 0);
}

TEST(ThreadPool, CongestionWarningStopsOnceTheWorkerTakesATask) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    auto res = zutest::runChild("ThreadPool.CongestionWarningStopsOnceTheWorkerTakesATask", root);
    ASSERT_EQ(res.exitCode(), 0) << res.output;
    EXPECT_EQ(congestionSizes(root.logcatFile()), (std::vector<int>{9, 9}));
    return;
  }
  ThreadPool pool(1, 10);
  Gate started;
  Gate release;
  std::atomic<int> done{0};
  pool.enqueue([&] {
    started.open.set_value();
    release.opened.wait();
  });
  started.opened.wait();
  // The worker took the first task; ten more enqueues without a take warn once.
  for (int i = 0; i < 10; ++i) pool.enqueue([&done] { ++done; });
  release.open.set_value();
  while (done < 10) std::this_thread::sleep_for(1ms);

  // Takes happened since: only the tenth fresh enqueue without a take warns again.
  Gate started2;
  Gate release2;
  pool.enqueue([&] {
    started2.open.set_value();
    release2.opened.wait();
  });
  started2.opened.wait();
  for (int i = 0; i < 10; ++i) pool.enqueue([&done] { ++done; });
  release2.open.set_value();
  while (done < 20) std::this_thread::sleep_for(1ms);
}

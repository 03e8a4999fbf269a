// Thread pool: order and draining, refusal after stop, worker naming and nice values,
// and the warning about a consumer that stopped keeping up.
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ThreadPool.h"

using zudebug::ThreadPool;
using namespace std::chrono_literals;

TEST(ThreadPool, RunsTasksInOrderAndDrainsOnDestruction) {
  auto pool = std::make_unique<ThreadPool>(1, 10);
  std::atomic<bool> destroying{false};
  std::vector<int> ran;
  std::atomic<int> lateEnqueue{1};
  // Holds the worker until the destructor has certainly begun.
  auto hold = [&] {
    while (!destroying) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(200ms);
  };
  ASSERT_EQ(pool->enqueue(hold), 0);
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
  auto probe = [&pool] {  // the thread id of the worker that ran a task
    std::promise<pid_t> tid;
    EXPECT_EQ(pool.enqueue([&tid] { tid.set_value(gettid()); }), 0);
    return tid.get_future().get();
  };
  auto nice = [](pid_t tid) { return getpriority(PRIO_PROCESS, static_cast<id_t>(tid)); };
  const int callerNice = nice(gettid());
  const pid_t first = probe();
  EXPECT_EQ(nice(first), 10);
  const std::string name = zutest::readFile("/proc/self/task/" + std::to_string(first) + "/comm");
  EXPECT_TRUE(name == "ZuHalThd0\n" || name == "ZuHalThd1\n") << name;
  pool.setThreadPoolPriority(19);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(nice(first), 10) << "an idle worker keeps its nice value";
  EXPECT_EQ(nice(gettid()), callerNice) << "so does the caller";
  EXPECT_EQ(nice(probe()), 19) << "whichever worker takes the next task applies the new value first";
}

// The ring fills on the tenth enqueue without a take; every further one warns with
// the growing queue size. Once a worker took a task, only the tenth fresh enqueue
// without a take warns again.
TEST(ThreadPool, CongestionWarnings) {
  if (!zutest::inChild()) {
    zutest::TempRoot root;
    auto res = zutest::runChild("ThreadPool.CongestionWarnings", root);
    ASSERT_EQ(res.exitCode(), 0) << res.output;
    const std::string warning = "[ThreadPool]: thread consume slowly or  blocking,task queue size ";
    std::vector<std::string> sizes;  // of the warnings, in order
    for (const std::string& line : zutest::readLines(root.logcatFile())) {
      const size_t at = line.find(warning);
      if (line.rfind("W/ZuAlgoEngine: ", 0) == 0 && at != std::string::npos)
        sizes.push_back(line.substr(at + warning.size()));
    }
    EXPECT_EQ(sizes, (std::vector<std::string>{"9", "10", "11", "12", "9", "9"}));
    return;
  }
  {
    ThreadPool idle(0, 10);
    for (int i = 0; i < 13; ++i) EXPECT_EQ(idle.enqueue([] {}), 0);
  }
  ThreadPool pool(1, 10);
  std::atomic<int> done{0};
  for (int round = 1; round <= 2; ++round) {
    std::promise<void> started, release;
    std::future<void> go = release.get_future();
    pool.enqueue([&] {
      started.set_value();
      go.wait();
    });
    started.get_future().wait();
    for (int i = 0; i < 10; ++i) pool.enqueue([&done] { ++done; });
    release.set_value();
    while (done < 10 * round) std::this_thread::sleep_for(1ms);
  }
}

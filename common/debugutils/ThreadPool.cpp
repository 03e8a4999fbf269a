#include "ThreadPool.h"

#include <processgroup/processgroup.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "ZuDebugUtils.h"

namespace zudebug {

namespace {

constexpr const char* kPoolTag = "ZuAlgoEngine";

void applyNice(int nice) { setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice); }

}  // namespace

ThreadPool::ThreadPool(unsigned int threadCount, int priority) : mPriority(priority) {
  for (unsigned int i = 0; i < threadCount; ++i) addThread();
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard<std::mutex> guard(mLock);
    mStopping = true;
  }
  mCond.notify_all();
  for (auto& worker : mWorkers) {
    if (worker.second.joinable()) worker.second.join();
  }
}

void ThreadPool::addThread() {
  const int32_t id = mNextWorkerId++;
  if (mWorkers.count(id) != 0) return;
  // std::system_error ("thread constructor failed") reaches the creator as it is.
  mWorkers.emplace(id, std::thread(&ThreadPool::loop, this, id));
}

int ThreadPool::enqueue(std::function<void()> task) {
  std::unique_lock<std::mutex> guard(mLock);
  if (mStopping) return -1;
  mCongestionIndex = (mCongestionIndex + 1) % kCongestionSlots;
  mCongestion[mCongestionIndex] = 1;
  int sum = 0;
  for (int slot : mCongestion) sum += slot;
  // Ten enqueues in a row without a single take: the worker is stuck or too slow.
  if (sum == kCongestionSlots) {
    ZU_LOGW(kPoolTag, ZU_GROUP_HAL, "[ThreadPool]: thread consume slowly or  blocking,task queue size %d",
            static_cast<int>(mTasks.size()));
  }
  mTasks.push_back(std::move(task));
  guard.unlock();
  mCond.notify_one();
  return 0;
}

void ThreadPool::setThreadPoolPriority(int priority) {
  std::lock_guard<std::mutex> guard(mLock);
  mPriority = priority;
}

void ThreadPool::loop(int id) {
  const std::string name = "ZuHalThd" + std::to_string(id);
  prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
  SetTaskProfiles(gettid(), {"SCHED_SP_BACKGROUND"}, true);

  std::unique_lock<std::mutex> guard(mLock);
  int applied = mPriority;
  applyNice(applied);
  for (;;) {
    mCond.wait(guard, [this] { return mStopping || !mTasks.empty(); });
    // Tasks queued before the stop are still run: the queue drains before the end.
    if (mStopping && mTasks.empty()) break;
    if (mPriority != applied) {
      applied = mPriority;
      applyNice(applied);
    }
    std::function<void()> task = std::move(mTasks.front());
    mTasks.pop_front();
    if (mCongestionIndex != -1) mCongestion[mCongestionIndex] = -1;
    guard.unlock();
    task();
    guard.lock();
    task = nullptr;
  }
}

}  // namespace zudebug

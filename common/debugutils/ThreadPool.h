// A small fixed set of low-priority background workers running queued tasks in
// arrival order, with a warning when the consumer stops keeping up.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "ZuDebugExport.h"

namespace zudebug {

class ZUDEBUG_EXPORT ThreadPool {
 public:
  // Starts `threadCount` workers ("ZuHalThd<id>") running at nice value `priority`.
  ThreadPool(unsigned int threadCount, int priority);
  // Refuses new tasks, runs every task still queued, then joins the workers.
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Queues `task`; 0 when accepted, -1 once the pool is stopping (the task is dropped).
  int enqueue(std::function<void()> task);
  // New nice value; each worker applies it before its next task.
  void setThreadPoolPriority(int priority);

 private:
  static constexpr int kCongestionSlots = 10;

  void addThread();
  void loop(int id);

  std::map<int32_t, std::thread> mWorkers;
  std::deque<std::function<void()>> mTasks;
  std::mutex mLock;
  std::condition_variable mCond;
  bool mStopping = false;
  std::atomic<int32_t> mNextWorkerId{0};
  int32_t mPriority = 0;
  // Most recently written ring slot; -1 before the first enqueue.
  int32_t mCongestionIndex = -1;
  // 1: written by an enqueue, -1: a worker took a task while the slot was the latest.
  int32_t mCongestion[kCongestionSlots] = {};
};

}  // namespace zudebug

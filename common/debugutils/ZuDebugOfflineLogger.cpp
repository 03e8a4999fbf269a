#include "ZuDebugOfflineLogger.h"

#include <cutils/properties.h>
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <zudebug_platform/device_files.h>
#include <zudebug_platform/fs.h>
#include <zudebug_platform/signal_context.h>

#include "ZuCrashRecord.h"
#include "ZuDebugDiag.h"
#include "ZuLogLine.h"
#include "ZuOfflineLoggerState.h"
#include "ZuOfflinePool.h"
#include "ZuLogFileOrder.h"

namespace zudebug {

// ---- offline logger ----

namespace {

constexpr uint32_t kBlockSize = pool::kBlockSize;    // one queue
constexpr uint32_t kVolumeLimit = 10485760;          // bytes a thread writes before it hands over
constexpr uint32_t kFileSizeLimit = 10485760;        // a file is closed once it passes 10 MiB
constexpr std::chrono::seconds kWriteRetryPause{1};  // between tries of a file that failed
constexpr uint32_t kFlushThreshold = 8;              // queues waiting before a normal flush writes
constexpr float kMinFreeMiB = 3000.0f;               // below this the logger does not start
constexpr const char* kLogDir = "/data/vendor/camera/offlinelog";
constexpr const char* kNoSpaceText = "OfflineLogger detect file system has no space left";

// A forked child must not write into its parent's mapped blocks.
std::atomic<ZuDegbugOfflineLogger*> sLoggers[2];
void onForkChild() {
  for (auto& logger : sLoggers)
    if (ZuDegbugOfflineLogger* l = logger.load(std::memory_order_acquire)) l->detachPoolAfterFork();
}
const int sAtForkRegistered = pthread_atfork(nullptr, nullptr, onForkChild);

// The thread-exit half: touched when a thread claims its pool-lock stripe, at its first
// append; destroyed when the thread ends, which hands its last queues over and gives
// the stripe back.
struct ThreadLifetimes {
  LifetimeThreadInfo info[2] = {LifetimeThreadInfo(ZuOfflineLoggerType::Debug),
                                LifetimeThreadInfo(ZuOfflineLoggerType::Binary)};
  uint32_t stripe = 0;  // as in the thread record: the stripe plus one
  ~ThreadLifetimes() {
    // A line logged later still finds its stripe in the thread record, now shared.
    if (stripe != 0) ZuPoolLock::releaseStripe(stripe - 1);
    threadRecord().stripeAlone = false;
  }
};
thread_local ThreadLifetimes sThreadLifetimes;

// The thread's stripe of the pool locks, claimed at its first append.
inline unsigned stripeOf(ThreadRecord& thread) {
  if (thread.stripe == 0) {
    thread.stripe = ZuPoolLock::claimStripe(&thread.stripeAlone) + 1;
    sThreadLifetimes.stripe = thread.stripe;
  }
  return thread.stripe - 1;
}

// Diagnostics written from helpers carry the name of the operation they belong to.
#define ZU_OFFLINE_LOG_AS(prio, func, fmt, ...)                                                            \
  __android_log_print((prio), "ZuCamDebug", "%s %s():%d " fmt "\n", ::zudebug::zuBaseName(__FILE__), func, \
                      __LINE__, ##__VA_ARGS__)

inline int slotOf(ZuOfflineLoggerType type) { return type == ZuOfflineLoggerType::Debug ? 0 : 1; }

using Clock = std::chrono::steady_clock;

bool pastDeadline(Clock::time_point deadline) {
  return deadline != Clock::time_point::max() && Clock::now() >= deadline;
}

// Releases what it holds on every path.
template <class M>
class HeldLock {
 public:
  HeldLock(M& m, Clock::time_point deadline) : mMutex(m), mHeld(m.try_lock_until(deadline)) {}
  ~HeldLock() {
    if (mHeld) mMutex.unlock();
  }
  HeldLock(const HeldLock&) = delete;
  HeldLock& operator=(const HeldLock&) = delete;
  bool held() const { return mHeld; }

 private:
  M& mMutex;
  bool mHeld;
};

bool writeAll(int fd, const uint8_t* data, size_t len) {
  while (len > 0) {
    ssize_t w = ::write(fd, data, len);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    data += w;
    len -= static_cast<size_t>(w);
  }
  return true;
}

// Creates a device directory and its parents; shared with every camera process.
void makeDeviceDirs(const std::string& deviceDir) {
  devfs::makeDirs(deviceDir.c_str(), pool::directoryMode());
}

// The time a log file's name stands for, in microseconds of the epoch, for
// "ZuCam_<type>_YYYY-MM-DD--hh-mm-ss-<microseconds>.<ext>"; other names (the
// error-message and error-information files) stand for their last change.
int64_t nameTime(const std::string& dir, const std::string& name, const std::string& typeName) {
  const std::string prefix = "ZuCam_" + typeName + "_";
  if (name.compare(0, prefix.size(), prefix) == 0) {
    struct tm tm;
    memset(&tm, 0, sizeof(tm));
    long usec = 0;
    int used = 0;
    if (sscanf(name.c_str() + prefix.size(), "%d-%d-%d--%d-%d-%d-%ld%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
               &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &usec, &used) == 7 &&
        used > 0 && name[prefix.size() + static_cast<size_t>(used)] == '.') {
      tm.tm_year -= 1900;
      tm.tm_mon -= 1;
      tm.tm_isdst = -1;
      const time_t t = mktime(&tm);
      if (t != static_cast<time_t>(-1)) return static_cast<int64_t>(t) * 1000000 + usec;
    }
  }
  struct stat st;
  if (!devfs::statFile((dir + "/" + name).c_str(), &st)) return 0;
  return static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000 + st.st_mtim.tv_nsec / 1000;
}

}  // namespace

// ---- pool lock ----

namespace {
// Bit i: stripe i is held alone by a live thread, lowest free first. The last stripe is
// never held alone: threads beyond the others share it.
std::atomic<uint32_t> sStripesHeld{0};
}  // namespace

unsigned ZuPoolLock::claimStripe(bool* alone) {
  uint32_t held = sStripesHeld.load(std::memory_order_relaxed);
  for (;;) {
    const uint32_t free = ~held & ((1u << kSharedStripe) - 1);
    if (free == 0) {
      *alone = false;
      return kSharedStripe;
    }
    const unsigned stripe = static_cast<unsigned>(__builtin_ctz(free));
    if (sStripesHeld.compare_exchange_weak(held, held | (1u << stripe), std::memory_order_relaxed)) {
      *alone = true;
      return stripe;
    }
  }
}

void ZuPoolLock::releaseStripe(unsigned stripe) {
  if (stripe < kSharedStripe) sStripesHeld.fetch_and(~(1u << stripe), std::memory_order_relaxed);
}

bool ZuPoolLock::lockShared(unsigned index, Deadline deadline) {
  Stripe& stripe = mStripes[index % kStripes];
  for (;;) {
    stripe.readers.fetch_add(1, std::memory_order_seq_cst);
    if (!mWriter.load(std::memory_order_seq_cst)) return true;
    stripe.readers.fetch_sub(1, std::memory_order_release);
    // A writer is in: wait until it leaves, then try again.
    if (!mWriterMutex.try_lock_until(deadline)) return false;
    mWriterMutex.unlock();
  }
}

void ZuPoolLock::unlockShared(unsigned index) {
  mStripes[index % kStripes].readers.fetch_sub(1, std::memory_order_release);
}

void ZuPoolLock::unlockOwnShared(unsigned index) {
  // Only this thread counts on the stripe, and it held one: back to none.
  mStripes[index % kStripes].readers.store(0, std::memory_order_release);
}

bool ZuPoolLock::lock(Deadline deadline) {
  if (!mWriterMutex.try_lock_until(deadline)) return false;
  mWriter.store(true, std::memory_order_seq_cst);
  for (Stripe& stripe : mStripes) {
    for (int spins = 0; stripe.readers.load(std::memory_order_seq_cst) != 0; ++spins) {
      if (pastDeadline(deadline)) {
        mWriter.store(false, std::memory_order_release);
        mWriterMutex.unlock();
        return false;
      }
      if (spins < 64) {
        std::this_thread::yield();
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    }
  }
  mOwner.store(zuCurrentTid(), std::memory_order_relaxed);
  return true;
}

void ZuPoolLock::unlock() {
  mOwner.store(0, std::memory_order_relaxed);
  mWriter.store(false, std::memory_order_release);
  mWriterMutex.unlock();
}

// ---- thread exit ----

LifetimeThreadInfo::~LifetimeThreadInfo() {
  if (threadId == 0) return;
  ZuDegbugOfflineLogger* logger = ZuDegbugOfflineLogger::getInstance(loggerType);
  // Hand over only a queue that is still this thread's: a stop or reset since it was
  // taken has already reclaimed it. Resets bump the epoch under the same mutex.
  std::lock_guard<ZuOwnedRecursiveMutex> pool(logger->mState->mPoolMutex);
  if (epoch == logger->mState->mRecordEpoch.load(std::memory_order_relaxed) &&
      session == logger->mState->mSessionCount.load(std::memory_order_relaxed))
    logger->requestFlushLogQueue(registerId);
  threadId = 0;
}

// ---- construction ----

ZuDegbugOfflineLogger* ZuDegbugOfflineLogger::getInstance(ZuOfflineLoggerType type) {
  static ZuDegbugOfflineLogger* const* loggers = [] {
    // Never destroyed: threads may log until the very end of the process.
    static ZuDegbugOfflineLogger* pair[2] = {new ZuDegbugOfflineLogger(ZuOfflineLoggerType::Debug),
                                             new ZuDegbugOfflineLogger(ZuOfflineLoggerType::Binary)};
    sLoggers[0].store(pair[0], std::memory_order_release);
    sLoggers[1].store(pair[1], std::memory_order_release);
    return pair;
  }();
  return loggers[slotOf(type)];
}

ZuDegbugOfflineLogger* ZuDegbugOfflineLogger::existingInstance(ZuOfflineLoggerType type) {
  return sLoggers[slotOf(type)].load(std::memory_order_acquire);
}

bool ZuDegbugOfflineLogger::acceptsLines() const {
  return mState->mAccepting.load(std::memory_order_acquire);
}

ZuDegbugOfflineLogger::ZuDegbugOfflineLogger(ZuOfflineLoggerType type) : mState(new State(type)) {}

ZuDegbugOfflineLogger::~ZuDegbugOfflineLogger() = default;

uint32_t ZuDegbugOfflineLogger::getStatus() const { return mState->mStatus.load(std::memory_order_relaxed); }

uint32_t ZuDegbugOfflineLogger::getSessionCount() const {
  return mState->mSessionCount.load(std::memory_order_relaxed);
}

void ZuDegbugOfflineLogger::detachPoolAfterFork() {
  if (mState->mPoolFile) mState->mPoolFile->detachAfterFork();
}

// ---- queues ----

std::string ZuDegbugOfflineLogger::poolDirectory() const {
  char dir[PROPERTY_VALUE_MAX];
  property_get(pool::kPoolDirProperty, dir, pool::kDefaultPoolDir);
  std::string d = dir;
  while (d.size() > 1 && d.back() == '/') d.pop_back();
  return d.empty() || d[0] != '/' ? std::string(pool::kDefaultPoolDir) : d;
}

// Under the pool mutex: the file the blocks of this session live in.
void ZuDegbugOfflineLogger::openPoolFile() {
  if (!mState->mPoolFile) mState->mPoolFile = std::make_unique<pool::PoolFile>();
  if (mState->mPoolFile->isOpen()) return;
  const std::string dir = poolDirectory();
  makeDeviceDirs(dir);
  std::string why;
  if (!mState->mPoolFile->create(dir, mState->mTypeName, static_cast<uint32_t>(mState->mZuOfflineLoggerType),
                                 mState->mChunkLimit, &why))
    ZU_DBG_LOGE(
        "OfflineLogger queue file in %s unusable (%s): queues kept in process memory only, lost if the "
        "process dies",
        dir.c_str(), why.c_str());
  mState->mPoolFile->prepareCrashArea();
}

// Under the pool mutex, with no append in flight: every block goes back to the system;
// the queue file is removed unless it keeps lines for the next start.
void ZuDegbugOfflineLogger::closePool(bool removeFile) {
  mState->mFreeMemoryIndex.clear();
  mState->mMemoryLogPool.clear();
  mState->mBlockDesc.clear();
  mState->mBlockFileIndex.clear();
  if (mState->mPoolFile) mState->mPoolFile->close(removeFile);
}

int ZuDegbugOfflineLogger::allocateLogQueueMemPool() {
  std::lock_guard<ZuOwnedRecursiveMutex> pool(mState->mPoolMutex);
  if (!mState->mPoolFile) mState->mPoolFile = std::make_unique<pool::PoolFile>();
  // At the bound the pool does not grow: lines wait for the flush to free a queue.
  if (mState->mMemoryLogPool.size() >= static_cast<size_t>(mState->mChunkLimit) * pool::kBlocksPerChunk)
    return -1;
  const bool durable = mState->mPoolFile->isOpen();
  pool::Chunk chunk;
  std::string why;
  int result = 0;
  if (!mState->mPoolFile->grow(&chunk, &why)) {
    ZU_DBG_LOGE("OfflineLogger allocate memory failed");
    result = -1;
  } else {
    if (durable && chunk.fileChunk < 0)
      ZU_DBG_LOGE("OfflineLogger queue file %s cannot grow (%s): new queues kept in process memory only",
                  mState->mPoolFile->path().c_str(), why.c_str());
    const int first = static_cast<int>(mState->mMemoryLogPool.size());
    for (uint32_t i = 0; i < pool::kBlocksPerChunk; ++i) {
      mState->mMemoryLogPool.push_back(chunk.block(i));
      mState->mBlockDesc.push_back(chunk.desc(i));
      mState->mBlockFileIndex.push_back(chunk.fileChunk < 0
                                            ? -1
                                            : chunk.fileChunk * static_cast<int>(pool::kBlocksPerChunk) +
                                                  static_cast<int>(i));
    }
    // Taken from the back: the chunk's first block first.
    for (int i = static_cast<int>(pool::kBlocksPerChunk) - 1; i >= 0; --i)
      mState->mFreeMemoryIndex.push_back(first + i);
    const size_t blocks = mState->mMemoryLogPool.size();
    mState->mFreeMemoryIndex.reserve(blocks);
    mState->mFreeRegisterId.reserve(blocks);
    mState->mFlushRegisterId.reserve(blocks);
  }
  ZU_DBG_LOGI("mMemoryLogPool: %zu", mState->mMemoryLogPool.size());
  return result;
}

int ZuDegbugOfflineLogger::requestNewLogQueue(uint8_t*& queue, uint32_t threadId) {
  std::lock_guard<ZuOwnedRecursiveMutex> queueLock(mState->mQueueMutex);
  std::lock_guard<ZuOwnedRecursiveMutex> poolLock(mState->mPoolMutex);
  const int slot = slotOf(mState->mZuOfflineLoggerType);
  threadLocalInfo& local = threadRecord().append[slot];
  LifetimeThreadInfo& lifetime = sThreadLifetimes.info[slot];
  if (mState->mFreeMemoryIndex.empty()) allocateLogQueueMemPool();
  if (mState->mFreeMemoryIndex.empty()) {
    // Said once until a queue is free again; the flush is woken to free one.
    if (!mState->mQueuesShort.exchange(true)) {
      ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "requestNewLogQueue",
                        "Offlinelog failed to request new container");
      ZU_DBG_LOGE(
          "OfflineLogger queues are at their bound of %zu MiB (%s): lines are given up and counted until "
          "the flush frees a queue",
          mState->mMemoryLogPool.size(), pool::kBoundProperty);
      if (void (*trigger)() = mState->mFlushTrigger.load(std::memory_order_acquire)) trigger();
    }
    queue = nullptr;
    local.record = nullptr;
    local.desc = nullptr;
    local.sThreadLocalQueuePoolId = -1;
    lifetime.threadId = 0;  // nothing left to hand over at exit
    lifetime.registerId = -1;
    return -1;
  }
  const int block = mState->mFreeMemoryIndex.back();
  mState->mFreeMemoryIndex.pop_back();
  int registerId;
  if (!mState->mFreeRegisterId.empty()) {
    registerId = mState->mFreeRegisterId.back();
    mState->mFreeRegisterId.pop_back();
  } else {
    mState->mPerLogInfoPool.push_back(std::make_unique<PerLogThreadInfo>());
    registerId = static_cast<int>(mState->mPerLogInfoPool.size() - 1);
  }
  PerLogThreadInfo& record = *mState->mPerLogInfoPool[registerId];
  record.bNeedFlush = false;
  record.bReserved = false;
  record.memoryIndex = block;
  record.threadId = threadId;
  record.sessionCount = local.session;
  record.usedSize.store(0, std::memory_order_relaxed);
  record.flushedSize = 0;
  record.writtenTotal = 0;
  record.address = mState->mMemoryLogPool[block];
  record.desc = mState->mBlockDesc[block];
  // The block's durable counters: empty first, then owned, so that a process killed
  // in between leaves nothing to recover.
  pool::BlockDesc& desc = *record.desc;
  pool::storeRelease(&desc.used, 0);
  pool::storeRelease(&desc.flushed, 0);
  desc.tid = threadId;
  __atomic_store_n(&desc.seq, ++mState->mTakeSequence, __ATOMIC_RELAXED);
  pool::storeRelease(&desc.state, pool::kBlockOwned);

  queue = record.address;
  local.record = &record;
  local.desc = record.desc;
  local.sThreadLocalQueuePoolId = registerId;
  local.epoch = mState->mRecordEpoch.load(std::memory_order_relaxed);
  lifetime.threadId = threadId;
  lifetime.registerId = registerId;
  lifetime.session = local.session;
  lifetime.epoch = local.epoch;
  return registerId;
}

void ZuDegbugOfflineLogger::requestFlushLogQueue(int registerId) {
  {
    std::lock_guard<ZuOwnedRecursiveMutex> poolLock(mState->mPoolMutex);
    if (registerId < 0 || registerId >= static_cast<int>(mState->mPerLogInfoPool.size())) {
      ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "requestFlushLogQueue",
                        "ZuDegbugOfflineLogger registerId %d mPerLogInfoPool %d", registerId,
                        static_cast<int>(mState->mPerLogInfoPool.size()));
      return;
    }
    PerLogThreadInfo& record = *mState->mPerLogInfoPool[registerId];
    record.bNeedFlush = true;
    if (record.desc != nullptr) pool::storeRelease(&record.desc->state, pool::kBlockWaiting);
    mState->mNeedFlushThreadCount.fetch_add(1, std::memory_order_relaxed);
    mState->mFlushRegisterId.push_back(registerId);
  }
  void (*trigger)() = mState->mFlushTrigger.load(std::memory_order_acquire);
  if (trigger != nullptr) {
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_INFO, "requestFlushLogQueue",
                      "OfflineLogger requestFlushLogQueue Signaled!!Signal = %p, mNeedFlushThreadCount:%d",
                      reinterpret_cast<void*>(trigger),
                      static_cast<int>(mState->mNeedFlushThreadCount.load()));
    trigger();
  }
}

void ZuDegbugOfflineLogger::addLog(const char* line, unsigned int length) {
  if (line == nullptr || length == 0) return;
  if (length > kBlockSize) {
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "addLog",
                      "OfflineLogger line of %u bytes does not fit a queue, dropped", length);
    return;
  }
  ThreadRecord& thread = threadRecord();
  uint8_t* room = openAppend(thread, length, line);
  if (room == nullptr) return;
  memcpy(room, line, length);
  closeAppend(thread, length);
}

uint8_t* ZuDegbugOfflineLogger::openAppend(ThreadRecord& thread, unsigned int room, const void* source) {
  if (!mState->mAccepting.load(std::memory_order_acquire)) return nullptr;
  threadLocalInfo& local = thread.append[slotOf(mState->mZuOfflineLoggerType)];
  // Re-entered from a signal handler in the middle of this thread's own append.
  if (local.inAppend) return nullptr;
  const unsigned stripe = stripeOf(thread);
  if (!mState->mPoolLock.lockShared(stripe)) return nullptr;
  local.inAppend = true;
  // Stop drains appends through the pool lock: past this test a line is always kept.
  if (mState->mAccepting.load(std::memory_order_acquire)) {
    const QueueStep step = chooseQueueStep(local, room);
    if (step != QueueStep::Keep) takeFreshQueue(local, step == QueueStep::HandOver);
    if (local.queueAddress != nullptr) return local.queueAddress + local.offset;
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "addLog", "memoryAddressToWrite is %p inputlog address is %p!",
                      static_cast<void*>(local.queueAddress), source);
    noteDroppedLine(thread.tid != 0 ? thread.tid : zuCurrentTid());
  }
  leaveAppend(thread, local);
  return nullptr;
}

namespace {

// Publishes `length` bytes written behind the thread's last line: the block's durable
// count moves only once the whole line is there. The counters are the owner's alone
// while it holds the shared side of the pool lock.
void publish(threadLocalInfo& local, unsigned int length) {
  local.offset += length;
  local.bytesSinceReset += length;
  local.record->usedSize.store(local.offset, std::memory_order_release);
  local.record->writtenTotal = local.bytesSinceReset;
  pool::storeRelease(&local.desc->used, local.offset);
}

}  // namespace

void ZuDegbugOfflineLogger::closeAppend(ThreadRecord& thread, unsigned int length) {
  threadLocalInfo& local = thread.append[slotOf(mState->mZuOfflineLoggerType)];
  publish(local, length);
  leaveAppend(thread, local);
}

void ZuDegbugOfflineLogger::leaveAppend(ThreadRecord& thread, threadLocalInfo& local) {
  local.inAppend = false;
  if (thread.stripeAlone)
    mState->mPoolLock.unlockOwnShared(thread.stripe - 1);
  else
    mState->mPoolLock.unlockShared(thread.stripe - 1);
}

// Whether the thread goes on in its queue, needs a fresh one (first line, a restart, a
// reset of every record, no block last time) or hands a full one over.
ZuDegbugOfflineLogger::QueueStep ZuDegbugOfflineLogger::chooseQueueStep(threadLocalInfo& local,
                                                                        unsigned int length) {
  const uint32_t session = mState->mSessionCount.load(std::memory_order_relaxed);
  if (local.session != session) {
    // First line of this thread, or the logger was restarted: the old queue is gone.
    local.session = session;
    local.record = nullptr;
    local.queueAddress = nullptr;
    local.offset = 0;
    local.bytesSinceReset = 0;
    return QueueStep::Fresh;
  }
  if (local.record != nullptr && local.epoch != mState->mRecordEpoch.load(std::memory_order_relaxed)) {
    // Every record was reset since this thread took its queue: what is left of it?
    std::lock_guard<ZuOwnedRecursiveMutex> queueLock(mState->mQueueMutex);
    const int id = local.sThreadLocalQueuePoolId;
    if (id < 0 || id >= static_cast<int>(mState->mPerLogInfoPool.size())) {
      ZU_OFFLINE_LOG_AS(
          ANDROID_LOG_ERROR, "addLog",
          "sThreadLocalInfo[static_cast<int>(mZuOfflineLoggerType)].sThreadLocalQueuePoolId : %d "
          "mPerLogInfoPool size: %d",
          id, static_cast<int>(mState->mPerLogInfoPool.size()));
      local.queueAddress = nullptr;
    } else {
      PerLogThreadInfo& record = *mState->mPerLogInfoPool[id];
      ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "addLog", "OFFLINELOG:%p != %p %d %d",
                        static_cast<void*>(record.address), static_cast<void*>(local.queueAddress), id,
                        record.memoryIndex);
    }
    local.record = nullptr;
    return QueueStep::Fresh;
  }
  // No block could be had last time: try again.
  if (local.queueAddress == nullptr) return QueueStep::Fresh;
  if (local.offset + length > kBlockSize || local.bytesSinceReset > kVolumeLimit) {
    // Full, or past the volume a thread writes into queues before it hands over.
    if (local.bytesSinceReset > kVolumeLimit) local.bytesSinceReset = 0;
    return QueueStep::HandOver;
  }
  return QueueStep::Keep;
}

// A line given up: counted with its thread and time for the notice.
void ZuDegbugOfflineLogger::noteDroppedLine(uint32_t tid) {
  auto& d = mState->mDrops;
  std::lock_guard<std::mutex> lock(d.lock);
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (d.count == 0) d.first = now;
  d.last = now;
  ++d.count;
  bool known = false;
  for (size_t i = 0; i < d.tidCount; ++i) known = known || d.tids[i] == tid;
  if (!known && d.tidCount < d.kTids)
    d.tids[d.tidCount++] = tid;
  else if (!known)
    d.moreTids = true;
  mState->mDroppedLines.fetch_add(1, std::memory_order_relaxed);
}

namespace {

// "hh:mm:ss.uuuuuu" of a wall-clock time, local.
void clockText(const struct timespec& t, char* out, size_t size) {
  struct tm tm;
  if (localtime_r(&t.tv_sec, &tm) == nullptr) {
    snprintf(out, size, "?");
    return;
  }
  snprintf(out, size, "%02d:%02d:%02d.%06ld", tm.tm_hour, tm.tm_min, tm.tm_sec, t.tv_nsec / 1000);
}

}  // namespace

// Hands the full queue over (when asked) and takes a fresh one, both or neither. Lines
// lost while no block could be had are told in the first block there is.
void ZuDegbugOfflineLogger::takeFreshQueue(threadLocalInfo& local, bool handOver) {
  std::lock_guard<ZuOwnedRecursiveMutex> queueLock(mState->mQueueMutex);
  std::lock_guard<ZuOwnedRecursiveMutex> poolLock(mState->mPoolMutex);
  if (handOver) requestFlushLogQueue(local.sThreadLocalQueuePoolId);
  uint8_t* queue = nullptr;
  const int id = requestNewLogQueue(queue, zuCurrentTid());
  local.queueAddress = queue;
  local.sThreadLocalQueuePoolId = id;
  local.offset = 0;
  if (queue == nullptr) return;
  char notice[512];
  if (const size_t n = takeDropNotice(notice, sizeof(notice))) {
    memcpy(local.queueAddress, notice, n);
    publish(local, static_cast<unsigned int>(n));
  }
}

// The line that says what was given up since the last one, taken (the count starts
// again); 0 when nothing was.
size_t ZuDegbugOfflineLogger::takeDropNotice(char* out, size_t size) {
  if (mState->mDroppedLines.load(std::memory_order_relaxed) == 0) return 0;
  auto& d = mState->mDrops;
  char tids[128] = "", from[32], to[32];
  uint32_t dropped;
  {
    std::lock_guard<std::mutex> lock(d.lock);
    dropped = d.count;
    if (dropped == 0) return 0;
    size_t at = 0;
    for (size_t i = 0; i < d.tidCount && at < sizeof(tids); ++i)
      at += static_cast<size_t>(snprintf(tids + at, sizeof(tids) - at, "%s%u", i > 0 ? "," : "", d.tids[i]));
    if (d.moreTids && at < sizeof(tids)) snprintf(tids + at, sizeof(tids) - at, ",...");
    clockText(d.first, from, sizeof(from));
    clockText(d.last, to, sizeof(to));
    d.count = 0;
    d.tidCount = 0;
    d.moreTids = false;
    mState->mDroppedLines.store(0, std::memory_order_relaxed);
  }
  return formatDiagnosticLine(
      out, size, "E", zuBaseName(__FILE__), "addLog", __LINE__,
      "OfflineLogger dropped %u lines of threads %s between %s and %s: no queue memory could be had", dropped,
      tids, from, to);
}

// ---- files ----

void ZuDegbugOfflineLogger::retryWaitingWrites() {
  if (mState->mStatus.load() != kStatusActive) return;
  if (mState->mWriteFailing.load(std::memory_order_relaxed) ||
      mState->mQueuesShort.load(std::memory_order_relaxed))
    flushLogToFile(false);
}

int ZuDegbugOfflineLogger::flushLogToFile(bool force) {
  int result = 0;
  flushImpl(force, Clock::time_point::max(), &result);
  return result;
}

bool ZuDegbugOfflineLogger::flushLogToFileUntil(bool force, Deadline deadline, int* result) {
  if (isHeldByCurrentThread()) return false;
  int r = 0;
  const bool done = flushImpl(force, deadline, &r);
  if (result) *result = r;
  return done;
}

bool ZuDegbugOfflineLogger::flushImpl(bool force, Deadline deadline, int* result) {
  ZU_OFFLINE_LOG_AS(ANDROID_LOG_INFO, "flushLogToFile",
                    "flushLogToFile lastFlush: %d, status: %d, mNeedFlushThreadCount: %d", force ? 1 : 0,
                    static_cast<int>(mState->mStatus.load()),
                    static_cast<int>(mState->mNeedFlushThreadCount.load()));
  *result = 0;
  if (mState->mStatus.load() == kStatusStopped) {
    *result = -1;
    return true;
  }
  keepCutQueuesInMemory();
  relinkQueueFileIfGone();
  // Small amounts wait in memory; no need to take any lock to find that out. Not when
  // threads find no queue: then whatever waits is written.
  if (!force && mState->mNeedFlushThreadCount.load() < kFlushThreshold &&
      !mState->mQueuesShort.load(std::memory_order_relaxed))
    return true;
  return force ? forcedFlush(deadline, result) : normalFlush(deadline, result);
}

// A queue file cut short under the process: the queues past its end move into process
// memory (what they held there is gone), and one line in the log says whose bytes were
// lost. Threads go on appending into the same queues.
void ZuDegbugOfflineLogger::keepCutQueuesInMemory() {
  {
    std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
    if (!mState->mPoolFile || !mState->mPoolFile->cutShort()) return;
  }
  std::lock_guard<ZuPoolLock> appends(mState->mPoolLock);
  std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
  std::lock_guard<ZuOwnedRecursiveMutex> pool(mState->mPoolMutex);
  std::vector<uint32_t> moved;
  bool headerMoved = false;
  const uint64_t size = mState->mPoolFile->keepCutPartInMemory(&moved, &headerMoved);
  uint64_t lost = 0;
  std::set<uint32_t> threads;
  for (uint32_t slot : moved) {
    const int64_t chunkAt = static_cast<int64_t>(pool::kHeaderBytes) +
                            static_cast<int64_t>(mState->mBlockFileIndex[slot * pool::kBlocksPerChunk] /
                                                 static_cast<int>(pool::kBlocksPerChunk)) *
                                static_cast<int64_t>(pool::kChunkBytes);
    for (uint32_t i = 0; i < pool::kBlocksPerChunk; ++i) {
      const size_t block = slot * pool::kBlocksPerChunk + i;
      mState->mBlockFileIndex[block] = -1;
      const uint64_t blockAt =
          static_cast<uint64_t>(chunkAt) + pool::kAreaBytes + i * static_cast<uint64_t>(kBlockSize);
      for (const auto& entry : mState->mPerLogInfoPool) {
        PerLogThreadInfo& record = *entry;
        if (record.desc == nullptr || record.memoryIndex != static_cast<int32_t>(block)) continue;
        const uint32_t used = std::min(record.usedSize.load(std::memory_order_acquire), kBlockSize);
        const uint32_t from = std::min(record.flushedSize, used);
        // What the file still held is whole; anything past its end is not, and the
        // lines appended since are told as lost with it rather than written torn.
        if (blockAt + used > size && used > from) {
          lost += used - from;
          threads.insert(record.threadId);
        }
        record.flushedSize = used;
        pool::BlockDesc& desc = *record.desc;
        desc.tid = record.threadId;
        pool::storeRelease(&desc.used, used);
        pool::storeRelease(&desc.flushed, used);
        pool::storeRelease(&desc.state, record.bNeedFlush ? pool::kBlockWaiting : pool::kBlockOwned);
      }
    }
  }
  std::string tids;
  for (uint32_t tid : threads) tids += (tids.empty() ? "" : ",") + std::to_string(tid);
  if (tids.empty()) tids = "none";
  char notice[768];
  const size_t n = formatDiagnosticLine(
      notice, sizeof(notice), "E", zuBaseName(__FILE__), "flushLogToFile", __LINE__,
      "OfflineLogger queue file %s was cut to %llu bytes under the process: %llu queued bytes of threads %s "
      "lost; %zu queues%s kept in process memory from now on",
      mState->mPoolFile->path().c_str(), static_cast<unsigned long long>(size),
      static_cast<unsigned long long>(lost), tids.c_str(), moved.size() * pool::kBlocksPerChunk,
      headerMoved ? " and the crash slots" : "");
  ZU_DBG_LOGE("%.*s", static_cast<int>(n > 0 ? n - 1 : 0), notice);
  writeBytesLocked(reinterpret_cast<const uint8_t*>(notice), static_cast<uint32_t>(n), nullptr, nullptr);
}

// A queue file whose directory was removed (`rm -rf` of the offline directory) would
// take every queued line with it at the next kill: it gets a file again.
void ZuDegbugOfflineLogger::relinkQueueFileIfGone() {
  {
    std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
    if (!mState->mPoolFile || !mState->mPoolFile->unlinked()) return;
  }
  std::lock_guard<ZuPoolLock> appends(mState->mPoolLock);
  std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
  std::lock_guard<ZuOwnedRecursiveMutex> pool(mState->mPoolMutex);
  if (!mState->mPoolFile || !mState->mPoolFile->unlinked()) return;
  std::string why;
  const bool relinked = mState->mPoolFile->relink(&why);
  if (relinked)
    ZU_DBG_LOGE("OfflineLogger queue file %s was removed under the process: made again",
                mState->mPoolFile->path().c_str());
  else if (!mState->mRelinkFailing)
    ZU_DBG_LOGE(
        "OfflineLogger queue file %s was removed under the process and cannot be made again (%s): "
        "queued lines are lost if the process dies",
        mState->mPoolFile->path().c_str(), why.c_str());
  mState->mRelinkFailing = !relinked;
}

// Writes the queues that were handed over. Nobody writes into those any more, so the
// appenders go on meanwhile; the file mutex keeps resets and forced flushes out.
bool ZuDegbugOfflineLogger::normalFlush(Deadline deadline, int* result) {
  HeldLock<ZuOwnedPlainMutex> fileLock(mState->mFileMutex, deadline);
  if (!fileLock.held()) return false;
  std::vector<std::pair<int, PerLogThreadInfo*>>& batch = mState->mFlushBatch;  // ours under the file mutex
  batch.clear();
  {
    HeldLock<ZuOwnedRecursiveMutex> poolLock(mState->mPoolMutex, deadline);
    if (!poolLock.held()) return false;
    if (mState->mStatus.load() == kStatusStopped) {
      *result = -1;
      return true;
    }
    if (mState->mNeedFlushThreadCount.load() < kFlushThreshold &&
        !mState->mQueuesShort.load(std::memory_order_relaxed))
      return true;
    // A file that could not be written is tried again once a second, not on every wake.
    if (mState->mWriteFailing && Clock::now() - mState->mLastWriteFailure < kWriteRetryPause) return true;
    takeHandedOverLocked(batch);
  }
  // Handed over before the list was taken: their owners have moved on.
  for (auto& entry : batch) writeRecordLocked(*entry.second, true, false);
  {
    std::lock_guard<ZuOwnedRecursiveMutex> poolLock(mState->mPoolMutex);
    for (auto& entry : batch) recycleLocked(entry.first, *entry.second);
    keepUnwrittenLocked(batch);
  }
  rotateLocked();
  return true;
}

// Under the file mutex and the pool mutex: the queues handed over, in their order,
// taken off the list into `batch`.
void ZuDegbugOfflineLogger::takeHandedOverLocked(std::vector<std::pair<int, PerLogThreadInfo*>>& batch) {
  for (const int id : mState->mFlushRegisterId)
    if (id >= 0 && id < static_cast<int>(mState->mPerLogInfoPool.size()))
      batch.emplace_back(id, mState->mPerLogInfoPool[id].get());
  mState->mFlushRegisterId.clear();
}

// Under the file mutex and the pool mutex: queues whose bytes could not be written go
// back to the front of the list, in their order, for the next try.
void ZuDegbugOfflineLogger::keepUnwrittenLocked(const std::vector<std::pair<int, PerLogThreadInfo*>>& batch) {
  std::vector<int> unwritten;
  for (const auto& entry : batch)
    if (!entry.second->bReserved && entry.second->bNeedFlush) unwritten.push_back(entry.first);
  if (!unwritten.empty())
    mState->mFlushRegisterId.insert(mState->mFlushRegisterId.begin(), unwritten.begin(), unwritten.end());
}

// Writes every queue that holds unwritten bytes, also those of live threads, which go
// on appending meanwhile: a block's bytes below its published count never change, so
// the flush takes what is complete and leaves the rest for the next one. Threads that
// need a new block wait for the pool mutex; no line is refused.
bool ZuDegbugOfflineLogger::forcedFlush(Deadline deadline, int* result) {
  HeldLock<ZuOwnedPlainMutex> fileLock(mState->mFileMutex, deadline);
  if (!fileLock.held()) return false;
  HeldLock<ZuOwnedRecursiveMutex> poolLock(mState->mPoolMutex, deadline);
  if (!poolLock.held()) return false;
  forcedFlushLocked(result, true);
  return true;
}

// Under the file mutex and the pool mutex. The crash catcher's helper process does not
// `recycle`: the queues it wrote are its parent's, which learns from the queue file
// how far they are written.
void ZuDegbugOfflineLogger::forcedFlushLocked(int* result, bool recycle) {
  if (mState->mStatus.load() == kStatusStopped) {
    *result = -1;
    return;
  }
  mState->mStatus.store(kStatusStopping);
  // Handed-over queues first, in hand-over order, then every queue still owned.
  // Nobody hands over meanwhile: that needs the pool mutex.
  std::vector<std::pair<int, PerLogThreadInfo*>>& batch = mState->mFlushBatch;
  batch.clear();
  takeHandedOverLocked(batch);
  for (auto& entry : batch) {
    writeRecordLocked(*entry.second, true, true);
    if (recycle) recycleLocked(entry.first, *entry.second);
  }
  keepUnwrittenLocked(batch);
  for (int id = 0; id < static_cast<int>(mState->mPerLogInfoPool.size()); ++id) {
    PerLogThreadInfo& record = *mState->mPerLogInfoPool[id];
    if (record.desc != nullptr && !record.bNeedFlush) writeRecordLocked(record, false, true);
  }
  writeCrashRecordsLocked();
  // Lines given up that no later line told of yet (the threads stopped logging, or
  // the logger stops): told now, behind everything kept.
  char notice[512];
  if (const size_t n = takeDropNotice(notice, sizeof(notice)))
    writeBytesLocked(reinterpret_cast<const uint8_t*>(notice), static_cast<uint32_t>(n), nullptr, nullptr);
  rotateLocked();
}

// Under the pool mutex: a written queue that was handed over goes back to the free lists.
void ZuDegbugOfflineLogger::recycleLocked(int registerId, PerLogThreadInfo& record) {
  if (!record.bReserved) return;
  record.bReserved = false;
  record.bNeedFlush = false;
  record.usedSize.store(0, std::memory_order_relaxed);
  record.flushedSize = 0;
  if (record.desc != nullptr) {
    pool::storeRelease(&record.desc->state, pool::kBlockFree);
    pool::storeRelease(&record.desc->used, 0);
    pool::storeRelease(&record.desc->flushed, 0);
  }
  record.desc = nullptr;
  mState->mFreeMemoryIndex.push_back(record.memoryIndex);
  mState->mFreeRegisterId.push_back(registerId);
  mState->mQueuesShort.store(false, std::memory_order_relaxed);
}

// Under the file mutex: keep at most mState->mFileLimit files. The oldest go first,
// but one with a crash record or a recovery notice only when every older file has gone
// and it is still one too many; the current file never.
void ZuDegbugOfflineLogger::rotateLocked() {
  std::deque<std::string>& files = mState->mFileList;
  while (files.size() > mState->mFileLimit) {
    auto victim = files.end();
    for (auto it = files.begin(); it != files.end() && victim == files.end(); ++it)
      if (*it != mState->mCurrentFileName && mState->mEvidence.count(*it) == 0) victim = it;
    for (auto it = files.begin(); it != files.end() && victim == files.end(); ++it)
      if (*it != mState->mCurrentFileName) victim = it;
    if (victim == files.end()) break;
    // Another camera process may have rotated it away already.
    if (!devfs::removeFile(victim->c_str()) && errno != ENOENT)
      ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "rotateLocked", "remove OfflineLog failed: %s", victim->c_str());
    mState->mEvidence.erase(*victim);
    files.erase(victim);
  }
}

// Under the file mutex: the current file holds a crash record or a recovery notice.
void ZuDegbugOfflineLogger::noteEvidenceLocked() {
  const std::string& current = mState->mCurrentFileName;
  if (current.empty() || !mState->mEvidence.insert(current).second) return;
  const size_t slash = current.rfind('/');
  logorder::note(kLogDir, current.c_str() + (slash == std::string::npos ? 0 : slash + 1), true);
}

namespace {

// The write under way, kept in the pool file while it runs.
struct MappedIntent {
  pool::PoolHeader* header;
  uint32_t fileBlock, from, to;
  static void record(void* ctx, const char* file, uint64_t offset) {
    auto* self = static_cast<MappedIntent*>(ctx);
    pool::WriteIntent& in = self->header->intent;
    in.block = self->fileBlock;
    in.from = self->from;
    in.to = self->to;
    in.fileOffset = offset;
    snprintf(in.file, sizeof(in.file), "%s", file);
    pool::storeRelease(&in.state, 1);
  }
};

}  // namespace

// Under the file mutex: writes the complete bytes of a record's block that are not in
// a file yet, when the queue waits for flushing (`waiting`, read under the pool mutex)
// or a forced flush asks for them. A handed-over record is marked in bReserved for
// recycling; a live thread's record stays with its owner, which goes on appending.
void ZuDegbugOfflineLogger::writeRecordLocked(PerLogThreadInfo& record, bool waiting, bool force) {
  if (!mState->mFileOpen) openNewFileLocked();
  ZU_OFFLINE_LOG_AS(ANDROID_LOG_INFO, "flushLogToFile", "bNeedFlush: %d, lastFlush: %d, fileName: %s",
                    waiting ? 1 : 0, force ? 1 : 0, mState->mCurrentFileName.c_str());
  pool::BlockDesc* desc = record.desc;
  if (desc == nullptr) return;
  // The count of bytes in process memory, not the one in the queue file: whoever can
  // write that file must not make the flush read past a block or write a line twice.
  // What is already in a file may have been written by the crash catcher's helper
  // process, which has only the queue file to tell.
  const uint32_t used = std::min(record.usedSize.load(std::memory_order_acquire), kBlockSize);
  const uint32_t state = pool::loadAcquire(&desc->state);
  const uint32_t fileFlushed = pool::loadAcquire(&desc->flushed);
  const bool fileSane =
      (state == pool::kBlockOwned || state == pool::kBlockWaiting) && desc->tid == record.threadId;
  const uint32_t from =
      fileSane && fileFlushed <= used ? std::max(record.flushedSize, fileFlushed) : record.flushedSize;
  if (!fileSane) {
    // Overwritten under the process: put back what the next start needs.
    desc->tid = record.threadId;
    pool::storeRelease(&desc->state, record.bNeedFlush ? pool::kBlockWaiting : pool::kBlockOwned);
  }
  if (!waiting && !(force && used > from)) return;
  if (used > from) {
    const int32_t fileBlock = mState->mBlockFileIndex[static_cast<size_t>(record.memoryIndex)];
    pool::PoolHeader* header = mState->mPoolFile ? mState->mPoolFile->header() : nullptr;
    MappedIntent intent{header, static_cast<uint32_t>(fileBlock), from, used};
    const bool durable = header != nullptr && fileBlock >= 0;
    const bool written = writeBytesLocked(record.address + from, used - from,
                                          durable ? &MappedIntent::record : nullptr, &intent);
    if (durable) pool::storeRelease(&header->intent.state, 0);
    // Bytes that did not reach a file stay in the queue for the next try.
    if (!written) return;
    record.flushedSize = used;
    pool::storeRelease(&desc->flushed, used);
  }
  if (waiting) {
    record.bReserved = true;
    uint32_t count = mState->mNeedFlushThreadCount.load(std::memory_order_relaxed);
    while (count > 0 && !mState->mNeedFlushThreadCount.compare_exchange_weak(count, count - 1)) {
    }
  }
}

// Under the file mutex: the crash records kept so far, each whole, in the order they
// were kept. A record still being copied is left to its own catcher's flush.
void ZuDegbugOfflineLogger::writeCrashRecordsLocked() {
  if (!mState->mPoolFile) return;
  const pool::CrashArea& area = mState->mPoolFile->crashArea();
  uint32_t order[pool::kCrashSlots];
  const uint32_t count = area.completeInOrder(order);
  pool::PoolHeader* header = area.durable() ? mState->mPoolFile->header() : nullptr;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t slot = order[i];
    if (!area.take(slot)) continue;
    pool::CrashSlot& s = area.slot(slot);
    // Never past the slot, whatever the queue file says.
    const uint32_t used = std::min(pool::loadAcquire(&s.used), pool::kCrashSlotBytes);
    const uint32_t from = std::min(s.flushed, used);
    if (used > from) {
      MappedIntent intent{header, pool::kCrashIntentBit | slot, from, used};
      const bool written = writeBytesLocked(area.data(slot) + from, used - from,
                                            header != nullptr ? &MappedIntent::record : nullptr, &intent);
      if (written) {
        pool::storeRelease(&s.flushed, used);
        noteEvidenceLocked();
      }
      if (header != nullptr) pool::storeRelease(&header->intent.state, 0);
    }
    area.release(slot);
  }
}

// Under the file mutex: appends to the current file (one open, one write, one close),
// starting a new one when none is open. `intent` is told the file and its size just
// before the write. A write that fails half way is cut back, so no torn line stays.
bool ZuDegbugOfflineLogger::writeBytesLocked(const uint8_t* data, uint32_t len,
                                             void (*intent)(void*, const char*, uint64_t), void* ctx) {
  if (!mState->mFileOpen) openNewFileLocked();
  const auto open = [this] {
    return devfs::openChecked(mState->mCurrentFileName.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666,
                              devfs::Owner::UserOrGroup);
  };
  int fd = open();
  if (fd < 0 && errno == ENOENT) {
    // The directory went (cleared by hand, say): made again.
    makeDeviceDirs(kLogDir);
    fd = open();
  }
  if (fd < 0 && (errno == ELOOP || errno == EPERM)) {
    // Something else took the file's name (a link, another user's file): left alone.
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "flushLogToFile",
                      "OfflineLogger %s is not a file of this process's user or group: left alone, a new "
                      "file started",
                      mState->mCurrentFileName.c_str());
    openNewFileLocked();
    fd = open();
  }
  bool ok = fd >= 0;
  int err = errno;
  if (ok) {
    fchmod(fd, 0666);
    const off_t before = lseek(fd, 0, SEEK_END);
    if (intent != nullptr)
      intent(ctx, mState->mCurrentFileName.c_str(), before < 0 ? 0 : static_cast<uint64_t>(before));
    ok = writeAll(fd, data, len);
    err = errno;
    if (!ok && before >= 0 && ftruncate(fd, before) != 0) {
      // The torn tail stays; nothing more can be done about it here.
    }
    ::close(fd);
  }
  if (!ok && !mState->mWriteFailing) {
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "flushLogToFile",
                      "zu-debug TXT Offlinelog failed to open file and write");
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "flushLogToFile",
                      "OfflineLogger cannot write %s: %s; the lines wait in their queues until a file can be "
                      "written again",
                      mState->mCurrentFileName.c_str(), strerror(err));
  } else if (ok && mState->mWriteFailing) {
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_INFO, "flushLogToFile", "OfflineLogger writes %s again",
                      mState->mCurrentFileName.c_str());
  }
  mState->mWriteFailing = !ok;
  if (!ok) {
    mState->mLastWriteFailure = Clock::now();
    return false;
  }
  mState->mCurrentFileSize += len;
  if (mState->mCurrentFileSize > kFileSizeLimit) {
    mState->mFileOpen = 0;
    mState->mCurrentFileName.clear();
    mState->mCurrentFileSize = 0;
  }
  return ok;
}

// Under the file mutex: names the next file and makes room for it. Other camera
// processes write into the same directory, so the ten-file cap is kept over what is
// there now, in the order the files were opened.
void ZuDegbugOfflineLogger::openNewFileLocked() {
  std::string name = getPrefixFilename();
  name += mState->mZuOfflineLoggerType == ZuOfflineLoggerType::Binary ? ".bin" : ".txt";
  mState->mCurrentFileName = name;
  const std::string base = name.substr(name.rfind('/') + 1);
  logorder::note(kLogDir, base.c_str(), false);
  mState->mFileList = listLogFiles(false);
  if (std::find(mState->mFileList.begin(), mState->mFileList.end(), name) == mState->mFileList.end())
    mState->mFileList.push_back(name);
  // A name that stands for a time before the file opened last: the clock went back.
  if (!mState->mClockBackSaid && mState->mFileList.size() >= 2) {
    const std::string& before = mState->mFileList[mState->mFileList.size() - 2];
    const std::string beforeBase = before.substr(before.rfind('/') + 1);
    if (beforeBase.rfind("ZuCam_" + mState->mTypeName + "_2", 0) == 0 &&
        nameTime(kLogDir, base, mState->mTypeName) < nameTime(kLogDir, beforeBase, mState->mTypeName)) {
      mState->mClockBackSaid = true;
      ZU_DBG_LOGE(
          "OfflineLogger the clock went back: %s opened after %s; files are kept in the order they "
          "were opened",
          base.c_str(), beforeBase.c_str());
    }
  }
  mState->mFileOpen = 1;
  rotateLocked();
}

// This type's files in the directory, oldest first: the ones the order file lists in
// the order they were opened, after those it does not (older, or another program's),
// which go by the time their names stand for.
std::deque<std::string> ZuDegbugOfflineLogger::listLogFiles(bool logEach) {
  std::vector<std::string> names;
  devfs::listDir(kLogDir, &names);
  std::set<std::string> candidates;
  for (const std::string& name : names) {
    if (name.find(mState->mTypeName) == std::string::npos || name[0] == '.') continue;
    // Queue files are never log files, even where the pool directory is this one.
    if (name.find(".pool") != std::string::npos) continue;
    candidates.insert(name);
  }
  const std::map<std::string, logorder::Entry> order = logorder::read(kLogDir, candidates);
  std::vector<std::tuple<bool, int64_t, std::string>> found;
  mState->mEvidence.clear();
  for (const std::string& c : candidates) {
    const auto listed = order.find(c);
    char full[4096];
    snprintf(full, sizeof(full), "%s/%s", kLogDir, c.c_str());
    if (listed != order.end() && listed->second.evidence) mState->mEvidence.insert(full);
    if (listed != order.end())
      found.emplace_back(true, static_cast<int64_t>(listed->second.place), full);
    else
      found.emplace_back(false, nameTime(kLogDir, c, mState->mTypeName), full);
  }
  std::sort(found.begin(), found.end());
  std::deque<std::string> list;
  for (const auto& f : found) {
    if (logEach)
      ZU_OFFLINE_LOG_AS(ANDROID_LOG_INFO, "start", "List local debug file: %s", std::get<2>(f).c_str());
    list.push_back(std::get<2>(f));
  }
  return list;
}

namespace {

// Local date and time of now with the microseconds of the time of day in the last field;
// empty when the local-time conversion fails. `fmt` takes year, month, day, hour, minute,
// second and the microseconds.
std::string timeOfDayStamp(const char* fmt) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tm;
  char stamp[50] = "";
  if (localtime_r(&tv.tv_sec, &tm) != nullptr) {
    snprintf(stamp, sizeof(stamp), fmt, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
             tm.tm_sec, static_cast<long>(tv.tv_usec));
  }
  return stamp;
}

}  // namespace

std::string ZuDegbugOfflineLogger::getPrefixFilename() {
  mState->mCurrentFileName = std::string(kLogDir) + "/ZuCam_" + mState->mTypeName + "_" +
                             timeOfDayStamp("%2d-%02d-%02d--%02d-%02d-%02d-%03ld");
  return mState->mCurrentFileName;
}

std::string ZuDegbugOfflineLogger::getCurrentTime() {
  return timeOfDayStamp("%2d-%02d-%02d--%02d-%02d-%02d-%09ld");
}

bool ZuDegbugOfflineLogger::queryAvailableSpace(const char* path, float* mib) {
  uint64_t bytes = 0;
  if (path == nullptr || !devfs::freeSpace(path, &bytes)) {
    ZU_OFFLINE_LOG_AS(ANDROID_LOG_ERROR, "getAvailableSpace",
                      "Offlinelog failed to get file system information!");
    return false;
  }
  *mib = static_cast<float>(static_cast<double>(bytes) * 9.5367431640625e-07);
  return true;
}

float ZuDegbugOfflineLogger::getAvailableSpace(const char* path) {
  float mib = 0;
  return queryAvailableSpace(path, &mib) ? mib : 0.0f;
}

// ---- lifecycle ----

void ZuDegbugOfflineLogger::scanDirectoryOnce() {
  std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
  if (mState->mDirectoryScanned) return;
  mState->mDirectoryScanned = true;
  mState->mFileList = listLogFiles(true);
}

// What a dead process left goes into this logger's files, through the same writer.
class LoggerRecoveryWriter : public pool::RecoveryWriter {
 public:
  explicit LoggerRecoveryWriter(ZuDegbugOfflineLogger& logger) : mLogger(logger) {}
  bool writeRecovered(const uint8_t* data, uint32_t len, void (*intent)(void*, const char*, uint64_t),
                      void* ctx) override {
    return mLogger.writeBytesLocked(data, len, intent, ctx);
  }
  bool writeNotice(uint64_t bytes, uint32_t pid, const char* poolFile) override {
    char line[1024];
    const size_t n = formatDiagnosticLine(line, sizeof(line), "I", zuBaseName(__FILE__), "start", __LINE__,
                                          "OfflineLogger recovered %llu bytes of process %u from %s",
                                          static_cast<unsigned long long>(bytes), pid, poolFile);
    const bool written = mLogger.writeBytesLocked(reinterpret_cast<const uint8_t*>(line),
                                                  static_cast<uint32_t>(n), nullptr, nullptr);
    if (written) mLogger.noteEvidenceLocked();
    return written;
  }
  void writeKeptNotice(uint64_t written, uint64_t kept, uint32_t pid, const char* poolFile) override {
    char line[1024];
    const size_t n = formatDiagnosticLine(
        line, sizeof(line), "E", zuBaseName(__FILE__), "start", __LINE__,
        "OfflineLogger wrote %llu bytes of process %u from %s; %llu bytes kept there for the next start",
        static_cast<unsigned long long>(written), pid, poolFile, static_cast<unsigned long long>(kept));
    mLogger.writeBytesLocked(reinterpret_cast<const uint8_t*>(line), static_cast<uint32_t>(n), nullptr,
                             nullptr);
  }

 private:
  ZuDegbugOfflineLogger& mLogger;
};

void ZuDegbugOfflineLogger::recoverDeadProcesses() {
  std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
  LoggerRecoveryWriter writer(*this);
  pool::recoverDeadPools(poolDirectory(), mState->mTypeName,
                         static_cast<uint32_t>(mState->mZuOfflineLoggerType), kLogDir, mState->mChunkLimit,
                         writer);
  rotateLocked();
}

int ZuDegbugOfflineLogger::start() {
  makeDeviceDirs(kLogDir);
  scanDirectoryOnce();
  float mib = 0;
  if (!queryAvailableSpace(kLogDir, &mib)) {
    mState->mStatus.store(kStatusStopped);
    ZU_DBG_LOGE("OfflineLogger query system space failed!");
    ZU_DBG_LOGE("OfflineLogger get override setting failed");
    return -1;
  }
  if (mib < kMinFreeMiB) {
    char name[PLATFORM_PATH_MAX];
    snprintf(name, sizeof(name), "%s/ZuCam_%s_ErrorMsg.txt", kLogDir, mState->mTypeName.c_str());
    if (devfs::File f = devfs::openFileChecked(name, "a+", devfs::Owner::UserOrGroup))
      fputs(kNoSpaceText, f.get());
    ZU_DBG_LOGE("OfflineLogger detect file system has no space left!");
    ZU_DBG_LOGE("OfflineLogger get override setting failed");
    return -1;
  }
  {
    std::lock_guard<ZuOwnedRecursiveMutex> pool(mState->mPoolMutex);
    mState->mChunkLimit = pool::chunkLimit();
    // Room for every block the bound allows: the flush reads these without the pool
    // mutex while a thread that needs a queue adds a chunk.
    const size_t blocks = static_cast<size_t>(mState->mChunkLimit) * pool::kBlocksPerChunk;
    mState->mMemoryLogPool.reserve(blocks);
    mState->mBlockDesc.reserve(blocks);
    mState->mBlockFileIndex.reserve(blocks);
    mState->mQueuesShort.store(false, std::memory_order_relaxed);
    openPoolFile();
    if (allocateLogQueueMemPool() != 0) {
      closePool();
      return -1;
    }
  }
  mState->mStatus.store(kStatusActive);
  mState->mAccepting.store(true, std::memory_order_release);
  // Lines appended meanwhile wait in memory; the recovered ones reach the files first.
  recoverDeadProcesses();
  return 0;
}

int ZuDegbugOfflineLogger::stop() {
  ZU_DBG_LOGI("E");
  mState->mAccepting.store(false, std::memory_order_release);
  mState->mStatus.store(kStatusStopping);
  {
    // Appends that got in before the door closed finish first.
    std::lock_guard<ZuPoolLock> drain(mState->mPoolLock);
  }
  flushLogToFile(true);
  mState->mStatus.store(kStatusStopped);
  // What a failing file did not take stays in the queue file, for the next start.
  const bool keep = mState->mWriteFailing && mState->mPoolFile && mState->mPoolFile->isOpen();
  if (keep)
    ZU_DBG_LOGE("OfflineLogger cannot write its last lines: queue file %s kept for the next start",
                mState->mPoolFile->path().c_str());
  resetRecords(!keep);
  {
    std::lock_guard<ZuPoolLock> write(mState->mPoolLock);
    std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
    std::lock_guard<ZuOwnedRecursiveMutex> pool(mState->mPoolMutex);
    mState->mSessionCount.fetch_add(1, std::memory_order_relaxed);
    closePool(!keep);
  }
  ZU_DBG_LOGI("X mSessionCount %d", static_cast<int>(mState->mSessionCount.load()));
  return 0;
}

void ZuDegbugOfflineLogger::setAllToDefaultValue() { resetRecords(true); }

// `clearBlocks`: the blocks' counters in the queue file are zeroed too; else they keep
// what they hold for whoever recovers the file.
void ZuDegbugOfflineLogger::resetRecords(bool clearBlocks) {
  // The file mutex keeps a normal flush from writing queues that go away here.
  std::lock_guard<ZuPoolLock> write(mState->mPoolLock);
  std::lock_guard<ZuOwnedPlainMutex> files(mState->mFileMutex);
  std::lock_guard<ZuOwnedRecursiveMutex> pool(mState->mPoolMutex);
  mState->mFreeMemoryIndex.clear();
  for (int i = static_cast<int>(mState->mMemoryLogPool.size()) - 1; i >= 0; --i)
    mState->mFreeMemoryIndex.push_back(i);
  for (int i = 0; clearBlocks && i < static_cast<int>(mState->mMemoryLogPool.size()); ++i) {
    pool::BlockDesc* desc = mState->mBlockDesc[static_cast<size_t>(i)];
    pool::storeRelease(&desc->state, pool::kBlockFree);
    pool::storeRelease(&desc->used, 0);
    pool::storeRelease(&desc->flushed, 0);
  }
  mState->mFreeRegisterId.clear();
  mState->mFlushRegisterId.clear();
  mState->mPerLogInfoPool.clear();
  mState->mNeedFlushThreadCount.store(0, std::memory_order_relaxed);
  mState->mRecordEpoch.fetch_add(1, std::memory_order_relaxed);
}

void ZuDegbugOfflineLogger::activeOfflineLogger() {
  // Only a forced flush's stopping state is left here; a stopped logger needs start().
  uint32_t expected = kStatusStopping;
  if (mState->mAccepting.load(std::memory_order_acquire))
    mState->mStatus.compare_exchange_strong(expected, kStatusActive);
}

bool ZuDegbugOfflineLogger::isEnableOfflinelogger() { return mState->mStatus.load() == kStatusActive; }

bool ZuDegbugOfflineLogger::setFlushTriggerLink(void (*trigger)()) {
  if (trigger == nullptr) return false;
  mState->mFlushTrigger.store(trigger, std::memory_order_release);
  return true;
}

bool ZuDegbugOfflineLogger::isHeldByCurrentThread() const {
  return mState->mPoolLock.heldByCurrentThread() || mState->mPoolMutex.heldByCurrentThread() ||
         mState->mQueueMutex.heldByCurrentThread() || mState->mFileMutex.heldByCurrentThread();
}

// ---- crash records ----

bool ZuDegbugOfflineLogger::openCrashSlot(uint32_t tid, CrashSlotLease* lease) {
  *lease = CrashSlotLease();
  if (!mState->mAccepting.load(std::memory_order_acquire)) return false;
  // The slots go away only under the write side of the pool lock, which is never
  // waited for here: a writer at the door (or this very thread stopped inside a stop)
  // sends the record elsewhere.
  constexpr unsigned stripe = ZuPoolLock::kSharedStripe;
  if (!mState->mPoolLock.lockShared(stripe, Deadline::min())) return false;
  if (mState->mAccepting.load(std::memory_order_acquire) && mState->mPoolFile) {
    const pool::CrashArea& area = mState->mPoolFile->crashArea();
    const int slot = area.claim(tid);
    if (slot >= 0) {
      lease->area = &area;
      lease->slot = slot;
      lease->durable = area.durable();
      lease->data = area.bytes(static_cast<uint32_t>(slot));
      lease->capacity = pool::kCrashSlotBytes;
      return true;
    }
  }
  mState->mPoolLock.unlockShared(stripe);
  return false;
}

void ZuDegbugOfflineLogger::publishCrashSlot(void* lease, uint32_t used) {
  const auto* l = static_cast<const CrashSlotLease*>(lease);
  static_cast<const pool::CrashArea*>(l->area)->publish(static_cast<uint32_t>(l->slot), used);
}

void ZuDegbugOfflineLogger::closeCrashSlot(const CrashSlotLease& lease) {
  if (lease.area == nullptr) return;
  static_cast<const pool::CrashArea*>(lease.area)->complete(static_cast<uint32_t>(lease.slot));
  mState->mPoolLock.unlockShared(ZuPoolLock::kSharedStripe);
}

bool ZuDegbugOfflineLogger::setCrashFlushGate(CrashFlushGate gate) {
  if (gate == nullptr) return false;
  mState->mCrashFlushGate.store(gate, std::memory_order_release);
  return true;
}

ZuDegbugOfflineLogger::CrashFlushLock ZuDegbugOfflineLogger::lockForCrashFlush(uint32_t tid) {
  if (!mState->mAccepting.load(std::memory_order_acquire)) return CrashFlushLock::Never;
  // Held by the interrupted code of this very thread: its state is half changed.
  if (mState->mFileMutex.heldBy(tid) || mState->mPoolMutex.heldBy(tid) || mState->mQueueMutex.heldBy(tid))
    return CrashFlushLock::Never;
  const CrashFlushGate gate = mState->mCrashFlushGate.load(std::memory_order_acquire);
  if (gate != nullptr && !gate(mState->mZuOfflineLoggerType, tid, true)) return CrashFlushLock::Busy;
  if (mState->mFileMutex.try_lock()) {
    if (mState->mPoolMutex.try_lock()) return CrashFlushLock::Taken;
    mState->mFileMutex.unlock();
  }
  if (gate != nullptr) gate(mState->mZuOfflineLoggerType, tid, false);
  return CrashFlushLock::Busy;
}

void ZuDegbugOfflineLogger::unlockAfterCrashFlush() {
  mState->mPoolMutex.unlock();
  mState->mFileMutex.unlock();
  if (const CrashFlushGate gate = mState->mCrashFlushGate.load(std::memory_order_acquire))
    gate(mState->mZuOfflineLoggerType, 0, false);
}

int ZuDegbugOfflineLogger::flushHeldForCrash() {
  int result = 0;
  forcedFlushLocked(&result, false);
  return result;
}

void ZuDegbugOfflineLogger::settleCrashRecordsInMemory(bool written) {
  if (!mState->mAccepting.load(std::memory_order_acquire) || !mState->mPoolFile) return;
  const pool::CrashArea& area = mState->mPoolFile->crashArea();
  if (area.durable()) return;  // the pool file is shared with whoever wrote them, or the next start
  uint32_t order[pool::kCrashSlots];
  const uint32_t count = area.completeInOrder(order);
  for (uint32_t i = 0; i < count; ++i) {
    if (!area.take(order[i])) continue;
    const pool::CrashSlot& slot = area.slot(order[i]);
    if (!written)
      crash::writeStraight(mState->mTypeName.c_str(), area.data(order[i]) + slot.flushed,
                           slot.used - slot.flushed);
    area.release(order[i]);
  }
}

}  // namespace zudebug

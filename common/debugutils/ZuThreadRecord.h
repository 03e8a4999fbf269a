// Everything the offline line path keeps per thread (internal, not installed), in one
// record, so that a line reaches all of it with a single thread-local lookup: the
// thread's ids, the local time of the current second, its recent call sites, its
// pool-lock stripe and its queue in each logger.
//
// Plain data, zero at thread start: usable without any set-up call, also from a
// signal handler. `__thread` (not `thread_local`), so that no access goes through a
// C++ initialisation wrapper.
#pragma once

#include <stdint.h>
#include <time.h>

namespace zudebug {

struct PerLogThreadInfo;
namespace pool {
struct BlockDesc;
}
namespace line {
struct SiteCache;
}

// What a thread keeps per logger type.
struct threadLocalInfo {
  uint8_t* queueAddress;
  int32_t sThreadLocalQueuePoolId;
  uint32_t session;
  uint32_t bytesSinceReset;
  uint32_t offset;
  PerLogThreadInfo* record;  // the record of the current queue
  pool::BlockDesc* desc;     // the durable counters of the current block
  uint32_t epoch;            // record epoch the record belongs to
  bool inAppend;             // an append of this thread is under way
};

struct ThreadRecord {
  // Kernel id of the thread; 0 until its first line, and again in a forked child.
  uint32_t tid;
  // Pool-lock stripe plus one; 0 until the thread's first append claims one.
  uint32_t stripe;
  bool stripeAlone;  // no other live thread appends on it
  // The local time of the current second as "MM-DD hh:mm:ss:" and "  <pid>  <tid> ".
  time_t second;
  bool dateValid;
  char date[16];
  uint32_t idsLen;
  char ids[32];
  // The line origins of this thread's recent call sites; allocated at its first line.
  line::SiteCache* sites;
  threadLocalInfo append[2];  // per logger type: Debug, Binary
};

extern __thread ThreadRecord tZuThreadRecord;

inline ThreadRecord& threadRecord() { return tZuThreadRecord; }

}  // namespace zudebug

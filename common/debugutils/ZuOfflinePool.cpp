#include "ZuOfflinePool.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cutils/properties.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <zudebug_platform/device_files.h>
#include <zudebug_platform/fs.h>

#include "ZuDebugDiag.h"
#include "ZuPoolFaultGuard.h"

namespace zudebug {
namespace pool {

namespace {

std::string errnoText(const char* what, int err) { return std::string(what) + ": " + strerror(err); }

bool lockWhole(int fd) {
  struct flock fl;
  memset(&fl, 0, sizeof(fl));
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &fl) == 0;
}

// The whole of [off, off + len) through pread or pwrite, across short transfers and
// interruptions; false at an error or the end of the file.
template <class Byte, class Transfer>
bool transferAll(int fd, Byte* p, size_t len, uint64_t off, Transfer transfer) {
  while (len > 0) {
    ssize_t n = transfer(fd, p, len, static_cast<off_t>(off));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    off += static_cast<uint64_t>(n);
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool readAt(int fd, void* buf, size_t len, uint64_t off) {
  return transferAll(fd, static_cast<uint8_t*>(buf), len, off, ::pread);
}

bool writeAt(int fd, const void* buf, size_t len, uint64_t off) {
  return transferAll(fd, static_cast<const uint8_t*>(buf), len, off, ::pwrite);
}

// Offsets in a pool file whose header area is `headerBytes` long.
uint64_t descOffset(uint64_t headerBytes, uint32_t fileBlock) {
  return headerBytes + (fileBlock / kBlocksPerChunk) * kChunkBytes +
         (fileBlock % kBlocksPerChunk) * sizeof(BlockDesc);
}

uint64_t blockOffset(uint64_t headerBytes, uint32_t fileBlock) {
  return headerBytes + (fileBlock / kBlocksPerChunk) * kChunkBytes + kAreaBytes +
         static_cast<uint64_t>(fileBlock % kBlocksPerChunk) * kBlockSize;
}

bool hasSuffix(const std::string& s, const char* suffix) {
  const size_t n = strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// A new pool file under `tmpPath` (a name recovery does not look at), this user's
// alone, locked and with `bytes` reserved; -1 with the reason in `why`, nothing left
// behind.
int createLockedTmp(const std::string& tmpPath, uint64_t bytes, std::string* why) {
  const int fd = devfs::openFd(tmpPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
  if (fd < 0) {
    *why = errnoText("create", errno);
    return -1;
  }
  fchmod(fd, 0600);
  std::string reason;
  if (!lockWhole(fd))
    reason = errnoText("lock", errno);
  else if (int err = posix_fallocate(fd, 0, static_cast<off_t>(bytes)))
    reason = errnoText("reserve", err);
  if (reason.empty()) return fd;
  *why = reason;
  ::close(fd);
  devfs::removeFile(tmpPath.c_str());
  return -1;
}

}  // namespace

mode_t directoryMode() {
  char value[PROPERTY_VALUE_MAX];
  property_get(kDirModeProperty, value, "");
  if (value[0] == '\0') return kDefaultDirMode;
  char* end = nullptr;
  errno = 0;
  const unsigned long mode = strtoul(value, &end, 8);
  if (errno != 0 || end == value || *end != '\0' || mode > 07777 || (mode & 0700) != 0700) {
    ZU_DBG_LOGE("OfflineLogger %s=\"%s\" is not an octal mode the owner can use: 0%o used", kDirModeProperty,
                value, static_cast<unsigned>(kDefaultDirMode));
    return kDefaultDirMode;
  }
  if ((mode & 0002) != 0) {
    ZU_DBG_LOGE("OfflineLogger %s=\"%s\": a directory every user can write is not made; 0%o used",
                kDirModeProperty, value, static_cast<unsigned>(mode & ~0002ul));
    return static_cast<mode_t>(mode & ~0002ul);
  }
  return static_cast<mode_t>(mode);
}

uint32_t chunkLimit() {
  char value[PROPERTY_VALUE_MAX];
  property_get(kBoundProperty, value, "");
  const uint64_t queueBytes = static_cast<uint64_t>(kBlocksPerChunk) * kBlockSize;
  uint64_t mib = kDefaultBoundMiB;
  if (value[0] != '\0') {
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(value, &end, 10);
    if (errno != 0 || end == value || *end != '\0' || v == 0 || v > 65536)
      ZU_DBG_LOGE("OfflineLogger %s=\"%s\" is not a size in MiB from 1 to 65536: %u MiB used", kBoundProperty,
                  value, kDefaultBoundMiB);
    else
      mib = v;
  }
  // Whole chunks, at least one.
  return static_cast<uint32_t>(std::max<uint64_t>(1, (mib << 20) / queueBytes));
}

// ---- crash slots ----

int CrashArea::claim(uint32_t tid) const {
  if (mSlots == nullptr) return -1;
  static std::atomic<uint64_t> sSeq{0};
  for (uint32_t i = 0; i < kCrashSlots; ++i) {
    CrashSlot& s = mSlots[i];
    if (!casState(&s.state, kSlotFree, kSlotFilling)) continue;
    s.tid = tid;
    storeRelease(&s.used, 0);
    storeRelease(&s.flushed, 0);
    __atomic_store_n(&s.seq, sSeq.fetch_add(1, std::memory_order_relaxed) + 1, __ATOMIC_RELAXED);
    return static_cast<int>(i);
  }
  return -1;
}

void CrashArea::release(uint32_t slot) const {
  CrashSlot& s = mSlots[slot];
  storeRelease(&s.used, 0);
  storeRelease(&s.flushed, 0);
  storeRelease(&s.state, kSlotFree);
}

uint32_t CrashArea::completeInOrder(uint32_t* out) const {
  uint32_t n = 0;
  if (mSlots == nullptr) return 0;
  for (uint32_t i = 0; i < kCrashSlots; ++i)
    if (loadAcquire(&mSlots[i].state) == kSlotComplete) out[n++] = i;
  std::sort(out, out + n, [this](uint32_t a, uint32_t b) { return mSlots[a].seq < mSlots[b].seq; });
  return n;
}

// ---- owner side ----

bool PoolFile::create(const std::string& dir, const std::string& typeName, uint32_t loggerType,
                      uint32_t chunkLimit, std::string* why) {
  close(false);
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  char name[PLATFORM_PATH_MAX];
  snprintf(name, sizeof(name), "%s/ZuCam_%s_%d_%llx.pool", dir.c_str(), typeName.c_str(),
           static_cast<int>(getpid()),
           static_cast<unsigned long long>(now.tv_sec) * 1000000000ull +
               static_cast<unsigned long long>(now.tv_nsec));
  // Made and locked under a name recovery does not look at, then renamed: no other
  // process ever sees the pool unlocked.
  const std::string finalPath = name;
  const std::string tmpPath = finalPath + ".tmp";
  // The crash slots are reserved too: a catcher's store into a sparse page of a full
  // disk would kill the process.
  const int fd = createLockedTmp(tmpPath, kHeaderBytes, why);
  if (fd < 0) return false;
  auto fail = [&](const std::string& reason) {
    *why = reason;
    ::close(fd);
    devfs::removeFile(tmpPath.c_str());
    return false;
  };
  // One stretch of address space for the header and every chunk the bound allows, so
  // that the fault guard knows the whole file by one range.
  const uint64_t reserved = kHeaderBytes + static_cast<uint64_t>(chunkLimit) * kChunkBytes;
  void* base = mmap(nullptr, reserved, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return fail(errnoText("reserve address space", errno));
  void* head = mmap(base, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
  if (head == MAP_FAILED) {
    munmap(base, reserved);
    return fail(errnoText("map", errno));
  }
  auto* header = static_cast<PoolHeader*>(head);
  header->version = kVersion;
  header->loggerType = loggerType;
  header->pid = static_cast<uint32_t>(getpid());
  header->blockSize = kBlockSize;
  header->blocksPerChunk = kBlocksPerChunk;
  header->chunkCount = 0;
  header->areaBytes = kHeaderBytes;
  header->chunkBytes = kChunkBytes;
  header->createdNs = static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
  // Nobody else looks at it before the rename below.
  memcpy(header->magic, kMagic, sizeof(kMagic));
  if (!devfs::renameFile(tmpPath.c_str(), finalPath.c_str())) {
    munmap(base, reserved);
    return fail(errnoText("rename", errno));
  }
  mFd = fd;
  mHeader = header;
  mPath = finalPath;
  mBase = static_cast<uint8_t*>(base);
  mReserved = reserved;
  mSlots = chunkLimit;
  mFileChunks = 0;
  mInMemory = false;
  installFaultGuard();
  mGuard = guardRange(mBase, kHeaderBytes, kChunkBytes, kHeaderBytes);
  return true;
}

bool PoolFile::grow(Chunk* out, std::string* why) {
  const uint32_t slot = static_cast<uint32_t>(mChunks.size());
  if (mBase != nullptr && slot >= mSlots) {
    *why = "no room below the bound";
    return false;
  }
  if (mHeader != nullptr && !mInMemory) {
    const uint32_t n = mFileChunks;
    const uint64_t off = kHeaderBytes + n * kChunkBytes;
    // Reserved first: a store into a sparse page of a full disk would kill the process.
    if (int err = posix_fallocate(mFd, static_cast<off_t>(off), static_cast<off_t>(kChunkBytes))) {
      *why = errnoText("reserve", err);
    } else {
      void* base = mmap(slotAddress(slot), kChunkBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, mFd,
                        static_cast<off_t>(off));
      if (base == MAP_FAILED) {
        *why = errnoText("map", errno);
      } else {
        out->base = static_cast<uint8_t*>(base);
        out->fileChunk = static_cast<int>(n);
        mChunks.push_back(*out);
        mFileChunks = n + 1;
        storeRelease(&mHeader->chunkCount, n + 1);
        resizeGuardedRange(mGuard, kHeaderBytes + (slot + 1) * kChunkBytes);
        return true;
      }
    }
  }
  void* base = mBase != nullptr
                   ? mmap(slotAddress(slot), kChunkBytes, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0)
                   : mmap(nullptr, kChunkBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) return false;
  out->base = static_cast<uint8_t*>(base);
  out->fileChunk = -1;
  mChunks.push_back(*out);
  return true;
}

void PoolFile::prepareCrashArea() {
  if (mHeader != nullptr) {
    mCrash = CrashArea(reinterpret_cast<uint8_t*>(mHeader), true);
    return;
  }
  if (mMemoryHeader == nullptr) {
    void* area = mmap(nullptr, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mMemoryHeader = area == MAP_FAILED ? nullptr : area;
  }
  mCrash = mMemoryHeader != nullptr ? CrashArea(static_cast<uint8_t*>(mMemoryHeader), false) : CrashArea();
}

void PoolFile::detachAfterFork() {
  if (mFd < 0) return;
  for (Chunk& c : mChunks) {
    if (c.fileChunk < 0) continue;
    mmap(c.base, kChunkBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, mFd,
         static_cast<off_t>(kHeaderBytes + static_cast<uint64_t>(c.fileChunk) * kChunkBytes));
    c.fileChunk = -1;
  }
  if (mHeader != nullptr) {
    if (!mHeaderInMemory)
      mmap(mHeader, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, mFd, 0);
    mDetachedHeader = mHeader;
    mHeader = nullptr;
    mCrash = CrashArea(static_cast<uint8_t*>(mDetachedHeader), false);
  }
  // The parent keeps the file, its lock and its name.
  ::close(mFd);
  mFd = -1;
  mPath.clear();
}

void PoolFile::close(bool remove) {
  mCrash = CrashArea();
  unguardRange(mGuard);
  mGuard = -1;
  for (const Chunk& c : mChunks) munmap(c.base, kChunkBytes);
  mChunks.clear();
  if (mHeader != nullptr) munmap(mHeader, kHeaderBytes);
  mHeader = nullptr;
  if (mDetachedHeader != nullptr) munmap(mDetachedHeader, kHeaderBytes);
  mDetachedHeader = nullptr;
  if (mBase != nullptr) munmap(mBase, mReserved);
  mBase = nullptr;
  mReserved = 0;
  mSlots = 0;
  mFileChunks = 0;
  mInMemory = false;
  mHeaderInMemory = false;
  if (mMemoryHeader != nullptr) munmap(mMemoryHeader, kHeaderBytes);
  mMemoryHeader = nullptr;
  if (mFd >= 0) {
    // Removed before the lock goes: a recoverer that opened it meanwhile finds it unlinked.
    if (remove) devfs::removeFile(mPath.c_str());
    ::close(mFd);
  }
  mFd = -1;
  mPath.clear();
}

bool PoolFile::unlinked() const {
  struct stat st;
  return mFd >= 0 && mHeader != nullptr && fstat(mFd, &st) == 0 && st.st_nlink == 0;
}

bool PoolFile::cutShort() {
  if (mFd < 0 || mHeader == nullptr) return false;
  const bool repaired = takeCutMark(mGuard);
  struct stat st;
  if (fstat(mFd, &st) != 0) return repaired;
  const uint64_t inFile = mHeaderInMemory ? 0 : kHeaderBytes + mFileChunks * kChunkBytes;
  return repaired || static_cast<uint64_t>(st.st_size) < inFile;
}

namespace {

// The first `keep` bytes of [at, at + bytes) stay; the whole stretch becomes process
// memory. Bytes past the file's end read as zeros, or were zeroed by the fault guard.
void moveIntoMemory(uint8_t* at, uint64_t bytes, uint64_t keep) {
  std::unique_ptr<uint8_t[]> copy(keep > 0 ? new uint8_t[keep] : nullptr);
  if (keep > 0) memcpy(copy.get(), at, keep);
  mmap(at, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  if (keep > 0) memcpy(at, copy.get(), keep);
}

}  // namespace

uint64_t PoolFile::keepCutPartInMemory(std::vector<uint32_t>* movedSlots, bool* headerMoved) {
  struct stat st;
  const uint64_t size = fstat(mFd, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  *headerMoved = size < kHeaderBytes && !mHeaderInMemory;
  if (*headerMoved) {
    mHeaderInMemory = true;
    moveIntoMemory(reinterpret_cast<uint8_t*>(mHeader), kHeaderBytes, size);
    mCrash = CrashArea(reinterpret_cast<uint8_t*>(mHeader), false);
  }
  for (uint32_t slot = 0; slot < mChunks.size(); ++slot) {
    Chunk& c = mChunks[slot];
    if (c.fileChunk < 0) continue;
    const uint64_t at = kHeaderBytes + static_cast<uint64_t>(c.fileChunk) * kChunkBytes;
    if (at + kChunkBytes <= size) continue;
    moveIntoMemory(c.base, kChunkBytes, size > at ? size - at : 0);
    c.fileChunk = -1;
    movedSlots->push_back(slot);
  }
  // What is left in the file: the header and the chunks before the cut.
  mFileChunks =
      size < kHeaderBytes
          ? 0
          : static_cast<uint32_t>(std::min<uint64_t>(mFileChunks, (size - kHeaderBytes) / kChunkBytes));
  mInMemory = true;
  return size;
}

int64_t PoolFile::chunkFileOffset(uint32_t slot) const {
  if (slot >= mChunks.size() || mChunks[slot].fileChunk < 0) return -1;
  return static_cast<int64_t>(kHeaderBytes + static_cast<uint64_t>(mChunks[slot].fileChunk) * kChunkBytes);
}

bool PoolFile::relink(std::string* why) {
  const size_t slash = mPath.rfind('/');
  if (slash != std::string::npos) devfs::makeDirs(mPath.substr(0, slash).c_str(), directoryMode());
  const std::string tmpPath = mPath + ".tmp";
  devfs::removeFile(tmpPath.c_str());
  if (mHeaderInMemory) {
    *why = "it was cut short before: the queues stay in process memory";
    return false;
  }
  const int fd =
      createLockedTmp(tmpPath, kHeaderBytes + static_cast<uint64_t>(mFileChunks) * kChunkBytes, why);
  if (fd < 0) return false;
  auto fail = [&](const std::string& reason) {
    *why = reason;
    ::close(fd);
    devfs::removeFile(tmpPath.c_str());
    return false;
  };
  if (!writeAt(fd, mHeader, kHeaderBytes, 0)) return fail(errnoText("write", errno));
  for (const Chunk& c : mChunks)
    if (c.fileChunk >= 0 &&
        !writeAt(fd, c.base, kChunkBytes, kHeaderBytes + static_cast<uint64_t>(c.fileChunk) * kChunkBytes))
      return fail(errnoText("write", errno));
  if (!devfs::renameFile(tmpPath.c_str(), mPath.c_str())) return fail(errnoText("rename", errno));
  // The same addresses, now backed by the new file: nothing that points into the pool
  // changes.
  mmap(mHeader, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
  for (const Chunk& c : mChunks)
    if (c.fileChunk >= 0)
      mmap(c.base, kChunkBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd,
           static_cast<off_t>(kHeaderBytes + static_cast<uint64_t>(c.fileChunk) * kChunkBytes));
  ::close(mFd);
  mFd = fd;
  return true;
}

// ---- recovery ----

namespace {

struct FoundBlock {
  uint32_t fileBlock;
  BlockDesc desc;
};

enum class Recovered { Written, Unreadable, NotWritten };

class DeadPool {
 public:
  DeadPool(int fd, std::string path, const char* logDir) : mFd(fd), mPath(std::move(path)), mLogDir(logDir) {}

  // False when the file cannot be trusted at all.
  bool load(uint32_t loggerType, uint32_t chunkLimit, std::string* why) {
    struct stat st;
    if (fstat(mFd, &st) != 0) {
      *why = errnoText("stat", errno);
      return false;
    }
    if (static_cast<uint64_t>(st.st_size) < sizeof(PoolHeader) ||
        !readAt(mFd, &mHeader, sizeof(mHeader), 0)) {
      *why = "too short for a header";
      return false;
    }
    if (memcmp(mHeader.magic, kMagic, sizeof(kMagic)) != 0 || mHeader.version < 1 ||
        mHeader.version > kVersion) {
      *why = "not a pool file";
      return false;
    }
    // Files of the first layout have no crash slots; those before the third keep
    // smaller ones in a smaller header area.
    if (mHeader.version < 2) memset(mHeader.crash, 0, sizeof(mHeader.crash));
    mHeaderBytes = mHeader.version < 3 ? kV2HeaderBytes : kHeaderBytes;
    mSlotBytes = mHeader.version < 3 ? kV2CrashSlotBytes : kCrashSlotBytes;
    mSlotsAt = mHeader.version < 3 ? kV2CrashAreaOffset : kCrashAreaOffset;
    if (mHeader.blockSize != kBlockSize || mHeader.blocksPerChunk != kBlocksPerChunk ||
        mHeader.areaBytes != mHeaderBytes || mHeader.chunkBytes != kChunkBytes ||
        mHeader.loggerType != loggerType) {
      *why = "unknown layout";
      return false;
    }
    const uint64_t whole = static_cast<uint64_t>(st.st_size) < mHeaderBytes
                               ? 0
                               : (static_cast<uint64_t>(st.st_size) - mHeaderBytes) / kChunkBytes;
    mChunks = static_cast<uint32_t>(std::min<uint64_t>(mHeader.chunkCount, whole));
    if (mChunks < mHeader.chunkCount)
      ZU_DBG_LOGE("OfflineLogger pool file %s is cut short: %u of %u chunks readable", mPath.c_str(), mChunks,
                  mHeader.chunkCount);
    if (mChunks > chunkLimit) {
      ZU_DBG_LOGE("OfflineLogger pool file %s claims %u chunks, more than the bound: only the first %u read",
                  mPath.c_str(), mChunks, chunkLimit);
      mChunks = chunkLimit;
    }
    return true;
  }

  // A write the owner did not finish: completed, or cut back to where it started.
  void settlePendingWrite() {
    WriteIntent& in = mHeader.intent;
    if (in.state == 0) return;
    uint32_t flushed = 0, used = 0, limit = 0;
    uint64_t flushedAt = 0;
    if ((in.block & kCrashIntentBit) != 0) {
      const uint32_t slot = in.block & ~kCrashIntentBit;
      if (slot < kCrashSlots) {
        flushed = mHeader.crash[slot].flushed;
        used = mHeader.crash[slot].used;
        limit = mSlotBytes;
        flushedAt = offsetof(PoolHeader, crash) + slot * sizeof(CrashSlot) + offsetof(CrashSlot, flushed);
      }
    } else {
      BlockDesc desc;
      if (in.block < mChunks * kBlocksPerChunk && readDesc(in.block, &desc)) {
        flushed = desc.flushed;
        used = desc.used;
        limit = kBlockSize;
        flushedAt = descOffset(mHeaderBytes, in.block) + offsetof(BlockDesc, flushed);
      }
    }
    if (limit > 0 && trustedTarget(in) && flushed == in.from && in.from < in.to && in.to <= used &&
        used <= limit) {
      struct stat st;
      bool done = true;  // a target that is gone took the bytes with it
      // Only a log file of this user or group is cut back: never through a link.
      const int target = devfs::openChecked(in.file, O_WRONLY, 0, devfs::Owner::UserOrGroup);
      if (target < 0 && errno != ENOENT) {
        // The bytes are written again, into a file of ours.
        ZU_DBG_LOGE("OfflineLogger pending write names %s, not a log file of ours: left alone", in.file);
        done = false;
      }
      if (target >= 0 && fstat(target, &st) == 0) {
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        done = size >= in.fileOffset + (in.to - in.from);
        if (!done && size > in.fileOffset && ftruncate(target, static_cast<off_t>(in.fileOffset)) != 0)
          ZU_DBG_LOGE("OfflineLogger cannot cut the torn tail off %s: %s", in.file, strerror(errno));
      }
      if (target >= 0) ::close(target);
      if (done) {
        writeAt(mFd, &in.to, sizeof(in.to), flushedAt);
        if ((in.block & kCrashIntentBit) != 0) mHeader.crash[in.block & ~kCrashIntentBit].flushed = in.to;
      }
    } else {
      ZU_DBG_LOGE("OfflineLogger pool file %s: pending write record not trusted, ignored", mPath.c_str());
    }
    clearIntent();
  }

  // Crash records not yet in a file, in record order. A record its catcher did not
  // finish is taken with the lines it had: they are whole, the count grows a line at
  // a time.
  std::vector<uint32_t> crashSlotsToRecover() {
    std::vector<uint32_t> out;
    for (uint32_t i = 0; i < kCrashSlots; ++i) {
      const CrashSlot& s = mHeader.crash[i];
      if (s.state != kSlotFree && s.state <= kSlotWriting && s.used <= mSlotBytes && s.flushed < s.used)
        out.push_back(i);
    }
    std::stable_sort(out.begin(), out.end(),
                     [this](uint32_t a, uint32_t b) { return mHeader.crash[a].seq < mHeader.crash[b].seq; });
    return out;
  }
  uint32_t crashBytes(uint32_t slot) const { return mHeader.crash[slot].used - mHeader.crash[slot].flushed; }

  Recovered recoverCrashSlot(uint32_t slot, uint8_t* buf, RecoveryWriter& writer) {
    CrashSlot& s = mHeader.crash[slot];
    const uint32_t len = s.used - s.flushed;
    if (!readAt(mFd, buf, len, mSlotsAt + static_cast<uint64_t>(slot) * mSlotBytes + s.flushed))
      return Recovered::Unreadable;
    mPending = {1, kCrashIntentBit | slot, s.flushed, s.used, 0, {0}};
    if (!writer.writeRecovered(buf, len, &DeadPool::recordIntent, this)) {
      clearIntent();
      return Recovered::NotWritten;
    }
    s.flushed = s.used;
    writeAt(mFd, &s.flushed, sizeof(s.flushed),
            offsetof(PoolHeader, crash) + slot * sizeof(CrashSlot) + offsetof(CrashSlot, flushed));
    clearIntent();
    return Recovered::Written;
  }

  // Blocks holding unflushed bytes, in the order they were taken.
  std::vector<FoundBlock> blocksToRecover() {
    std::vector<FoundBlock> out;
    uint32_t untrusted = 0, holes = 0;
    BlockDesc descs[kBlocksPerChunk];
    for (uint32_t c = 0; c < mChunks; ++c) {
      if (!readAt(mFd, descs, sizeof(descs), mHeaderBytes + c * kChunkBytes)) {
        untrusted += kBlocksPerChunk;
        continue;
      }
      for (uint32_t i = 0; i < kBlocksPerChunk; ++i) {
        const BlockDesc& d = descs[i];
        if (d.state > kBlockWaiting || d.used > kBlockSize || d.flushed > d.used) {
          ++untrusted;
          continue;
        }
        if (d.state == kBlockFree || d.used <= d.flushed) continue;
        // Bytes its owner wrote are never a hole: a block whose bytes are (a planted
        // sparse file) holds nothing to recover.
        const uint64_t from = blockOffset(mHeaderBytes, c * kBlocksPerChunk + i) + d.flushed;
        const off_t data = lseek(mFd, static_cast<off_t>(from), SEEK_DATA);
        if (data < 0 || static_cast<uint64_t>(data) != from) {
          ++holes;
          continue;
        }
        out.push_back({c * kBlocksPerChunk + i, d});
      }
    }
    if (untrusted > 0)
      ZU_DBG_LOGE("OfflineLogger pool file %s: %u blocks with impossible counters skipped", mPath.c_str(),
                  untrusted);
    if (holes > 0)
      ZU_DBG_LOGE("OfflineLogger pool file %s: %u blocks whose bytes were never written skipped",
                  mPath.c_str(), holes);
    std::stable_sort(out.begin(), out.end(),
                     [](const FoundBlock& a, const FoundBlock& b) { return a.desc.seq < b.desc.seq; });
    return out;
  }

  // Writes one block's unflushed bytes through `writer`, recording the write in the
  // dead pool first, so that a recoverer killed meanwhile leaves it to the next one.
  Recovered recoverBlock(const FoundBlock& b, uint8_t* buf, RecoveryWriter& writer) {
    const uint32_t len = b.desc.used - b.desc.flushed;
    if (!readAt(mFd, buf, len, blockOffset(mHeaderBytes, b.fileBlock) + b.desc.flushed))
      return Recovered::Unreadable;
    mPending = {1, b.fileBlock, b.desc.flushed, b.desc.used, 0, {0}};
    if (!writer.writeRecovered(buf, len, &DeadPool::recordIntent, this)) {
      clearIntent();
      return Recovered::NotWritten;
    }
    const uint32_t flushed = b.desc.used;
    writeAt(mFd, &flushed, sizeof(flushed),
            descOffset(mHeaderBytes, b.fileBlock) + offsetof(BlockDesc, flushed));
    clearIntent();
    return Recovered::Written;
  }

  bool announced() const { return mHeader.announced != 0; }
  void markAnnounced() {
    const uint32_t one = 1;
    writeAt(mFd, &one, sizeof(one), offsetof(PoolHeader, announced));
  }
  uint32_t pid() const { return mHeader.pid; }

 private:
  static void recordIntent(void* ctx, const char* file, uint64_t offset) {
    auto* self = static_cast<DeadPool*>(ctx);
    WriteIntent in = self->mPending;
    in.state = 0;
    in.fileOffset = offset;
    snprintf(in.file, sizeof(in.file), "%s", file);
    // Everything but the flag first, then the flag.
    writeAt(self->mFd, &in, sizeof(in), offsetof(PoolHeader, intent));
    const uint32_t one = 1;
    writeAt(self->mFd, &one, sizeof(one), offsetof(PoolHeader, intent) + offsetof(WriteIntent, state));
  }

  void clearIntent() {
    const uint32_t zero = 0;
    writeAt(mFd, &zero, sizeof(zero), offsetof(PoolHeader, intent) + offsetof(WriteIntent, state));
    mHeader.intent.state = 0;
  }

  bool readDesc(uint32_t block, BlockDesc* d) {
    return readAt(mFd, d, sizeof(*d), descOffset(mHeaderBytes, block));
  }

  // Only a log file of our own directory may be cut back.
  bool trustedTarget(const WriteIntent& in) const {
    if (memchr(in.file, '\0', sizeof(in.file)) == nullptr) return false;
    const size_t n = strlen(mLogDir);
    return strncmp(in.file, mLogDir, n) == 0 && in.file[n] == '/' && strstr(in.file, "/..") == nullptr &&
           strncmp(in.file + n + 1, "ZuCam_", 6) == 0;
  }

  int mFd;
  std::string mPath;
  const char* mLogDir;
  PoolHeader mHeader{};
  uint64_t mHeaderBytes = kHeaderBytes;
  uint64_t mSlotsAt = kCrashAreaOffset;
  uint32_t mSlotBytes = kCrashSlotBytes;
  uint32_t mChunks = 0;
  WriteIntent mPending{};
};

// A ".tmp" pool that nobody holds is a creation the process did not live to finish.
// Only an old one is even locked: a lock taken on a fresh one, however briefly, would
// make its creator's own lock fail and send its queues to process memory.
void removeAbandonedTmp(const std::string& path) {
  struct stat st;
  if (!devfs::statFile(path.c_str(), &st) || time(nullptr) - st.st_mtime <= 60) return;
  int fd = devfs::openChecked(path.c_str(), O_RDWR, 0, devfs::Owner::User);
  if (fd < 0) return;
  if (lockWhole(fd)) devfs::removeFile(path.c_str());
  ::close(fd);
}

}  // namespace

int recoverDeadPools(const std::string& dir, const std::string& typeName, uint32_t loggerType,
                     const char* logDir, uint32_t chunkLimit, RecoveryWriter& writer) {
  const std::string prefix = "ZuCam_" + typeName + "_";
  std::vector<std::string> all, names;
  if (!devfs::listDir(dir.c_str(), &all)) return 0;
  for (const std::string& name : all) {
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    if (hasSuffix(name, ".pool")) names.push_back(name);
    if (hasSuffix(name, ".pool.tmp")) removeAbandonedTmp(dir + "/" + name);
  }
  std::unique_ptr<uint8_t[]> buf;
  int recovered = 0;
  // A directory full of junk is told about in a few lines, not thousands.
  constexpr uint32_t kLinesEach = 10;
  uint32_t foreign = 0, untrusted = 0;
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    const int fd = devfs::openChecked(path.c_str(), O_RDWR, 0, devfs::Owner::User);
    if (fd < 0) {
      // Removed by another recoverer meanwhile, or not a queue file of this user's.
      if (errno != ENOENT && ++foreign <= kLinesEach)
        ZU_DBG_LOGE("OfflineLogger %s is not a queue file of this process's user: left alone", path.c_str());
      continue;
    }
    struct stat st;
    // Held by its owner, or by another process recovering it right now.
    if (!lockWhole(fd) || fstat(fd, &st) != 0 || st.st_nlink == 0) {
      ::close(fd);
      continue;
    }
    DeadPool dead(fd, path, logDir);
    std::string why;
    if (!dead.load(loggerType, chunkLimit, &why)) {
      if (++untrusted <= kLinesEach)
        ZU_DBG_LOGE("OfflineLogger pool file %s cannot be trusted (%s): removed without recovery",
                    path.c_str(), why.c_str());
      devfs::removeFile(path.c_str());
      ::close(fd);
      continue;
    }
    dead.settlePendingWrite();
    const std::vector<FoundBlock> blocks = dead.blocksToRecover();
    const std::vector<uint32_t> records = dead.crashSlotsToRecover();
    uint64_t total = 0;
    for (const FoundBlock& b : blocks) total += b.desc.used - b.desc.flushed;
    for (uint32_t slot : records) total += dead.crashBytes(slot);
    if (total > 0 && !dead.announced() && writer.writeNotice(total, dead.pid(), path.c_str()))
      dead.markAnnounced();
    if ((!blocks.empty() || !records.empty()) && !buf) buf.reset(new uint8_t[kBlockSize]);
    uint64_t written = 0;
    bool full = false;
    for (const FoundBlock& b : blocks) {
      if (full) break;
      switch (dead.recoverBlock(b, buf.get(), writer)) {
        case Recovered::Written:
          written += b.desc.used - b.desc.flushed;
          break;
        case Recovered::NotWritten:
          full = true;
          break;
        case Recovered::Unreadable:
          ZU_DBG_LOGE("OfflineLogger pool file %s: block %u unreadable, skipped", path.c_str(), b.fileBlock);
          break;
      }
    }
    // The crash records last: they were the process's last words.
    for (uint32_t slot : records) {
      if (full) break;
      const uint64_t bytes = dead.crashBytes(slot);
      switch (dead.recoverCrashSlot(slot, buf.get(), writer)) {
        case Recovered::Written:
          written += bytes;
          break;
        case Recovered::NotWritten:
          full = true;
          break;
        case Recovered::Unreadable:
          ZU_DBG_LOGE("OfflineLogger pool file %s: crash record %u unreadable, skipped", path.c_str(), slot);
          break;
      }
    }
    if (full) {
      // The files cannot take more now (a full disk): the rest stays where it is.
      ZU_DBG_LOGE(
          "OfflineLogger wrote %llu of %llu bytes of process %u from %s: %llu bytes kept there for "
          "the next start",
          static_cast<unsigned long long>(written), static_cast<unsigned long long>(total), dead.pid(),
          path.c_str(), static_cast<unsigned long long>(total - written));
      writer.writeKeptNotice(written, total - written, dead.pid(), path.c_str());
      ::close(fd);
      break;
    }
    ZU_DBG_LOGI("OfflineLogger recovered %llu bytes of process %u from %s",
                static_cast<unsigned long long>(total), dead.pid(), path.c_str());
    devfs::removeFile(path.c_str());
    ::close(fd);
    ++recovered;
  }
  if (foreign > kLinesEach)
    ZU_DBG_LOGE("OfflineLogger %u more files in %s are not queue files of this process's user: left alone",
                foreign - kLinesEach, dir.c_str());
  if (untrusted > kLinesEach)
    ZU_DBG_LOGE("OfflineLogger %u more pool files in %s cannot be trusted: removed without recovery",
                untrusted - kLinesEach, dir.c_str());
  return recovered;
}

}  // namespace pool
}  // namespace zudebug

#include "buffer/LogBuf.h"

#include "binder/Command.h"
#include "buffer/RingLock.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "service/Semaphores.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

/** Top bit of mBufUse: the buffer takes nobody in any more. The bits below count who is inside. */
constexpr uint32_t kClosed = 0x80000000U;

// Places of the three file writes in their report, part of its fixed text.
constexpr int kPlaceWhole = 1699;
constexpr int kPlaceFirst = 1706;
constexpr int kPlaceSecond = 1710;

/** Writes one piece. A file that takes only a part of it is cut back, for the piece will be offered again. */
bool writeOrReport(int fd, const char* bytes, uint32_t length, int place) {
    off_t start = lseek(fd, 0, SEEK_CUR);
    if (writeAll(fd, bytes, length))
        return true;
    int error = errno;
    if (start >= 0 && ftruncate(fd, start) == 0)
        (void)lseek(fd, start, SEEK_SET);
    errno = error;
    logError("line[%d] logBufRead2File write failed \n", place);
    logErrno();
    return false;
}

} // namespace

/**
 * Stays in the ring buffer while in scope, so that it is not released meanwhile; null when there is none or
 * when it is closed. Cancellation leaves it, too.
 */
class LogService::BufferUse {
  public:
    explicit BufferUse(const LogService& service) : mService(service), mBuffer(service.enterBuffer()) {}
    ~BufferUse() {
        if (mBuffer != nullptr)
            mService.leaveBuffer();
    }
    BufferUse(const BufferUse&) = delete;
    BufferUse& operator=(const BufferUse&) = delete;

    LogBuf* buffer() const { return mBuffer; }

  private:
    const LogService& mService;
    LogBuf* const mBuffer;
};

/** Counts its writer among those that wait for space. */
class LogService::SpaceWaiter {
  public:
    explicit SpaceWaiter(LogService& service) : mService(service) { ++mService.mSpaceWaiters; }
    ~SpaceWaiter() { --mService.mSpaceWaiters; }
    SpaceWaiter(const SpaceWaiter&) = delete;
    SpaceWaiter& operator=(const SpaceWaiter&) = delete;

  private:
    LogService& mService;
};

/** The record when the caller is now inside, to leave with leaveBuffer; otherwise null. */
LogBuf* LogService::enterBuffer() const {
    uint32_t before = mBufUse.fetch_add(1);
    if ((before & kClosed) == 0 && mLogBuf != nullptr)
        return mLogBuf;
    leaveBuffer();
    return nullptr;
}

void LogService::leaveBuffer() const {
    if ((mBufUse.fetch_sub(1) & kClosed) != 0)
        (void)sem_post(&mBufIdle); // fails only when the count overflows, and then nobody is waiting
}

/** Lets nobody in any more, turns waiting writers away and returns when the last one has left. */
void LogService::closeBuffer() {
    mBufUse.fetch_or(kClosed);
    for (uint32_t waiting = mSpaceWaiters; mLogBuf != nullptr && waiting > 0; --waiting)
        (void)sem_post(&mLogBuf->sem_write);
    while ((mBufUse & ~kClosed) != 0)
        (void)sem_wait(&mBufIdle); // woken early or for nothing, it looks again
}

void LogService::reopenBuffer() {
    mBufUse.fetch_and(~kClosed);
}

int LogService::logBufWrite(const void* bytes, uint32_t length) {
    if (length == 0 || !mFlushThreadRunning)
        return -1;
    StorageNeed need{};
    {
        BufferUse use(*this);
        LogBuf* buffer = use.buffer();
        if (buffer == nullptr)
            return -1;
        if (length > buffer->size) {
            logError("a record of %u byte can never fit the log buffer\n", length);
            return -1;
        }
        pthread_mutex_lock(&buffer->mutex);
        Space space = buffer->free_size >= length ? Space::Ready : waitForSpace(*buffer, length, need);
        if (space == Space::Refused)
            return -1;
        if (space == Space::Ready) {
            RingLock lock(buffer->mutex, RingLock::Held);
            uint32_t ring = buffer->last_pos + 1;
            uint32_t first = std::min(length, ring - buffer->write_pos);
            std::memcpy(buffer->buf + buffer->write_pos, bytes, first);
            std::memcpy(buffer->buf, static_cast<const char*>(bytes) + first, length - first);
            buffer->write_pos = (buffer->write_pos + length) % ring;
            buffer->free_size -= length;
        }
        if (space == Space::Ready) {
            postOrReport(&buffer->sem_read, "logBufWrite sem_post failed \n");
            return static_cast<int>(length);
        }
    }
    return giveUpStorage(need); // outside the buffer: this ends in a stop, which waits for all to leave it
}

/**
 * Waits until `length` bytes are free. Entered with the ring's mutex held; Ready returns with it held, the
 * other results without. Cancellation may strike while it waits.
 */
LogService::Space LogService::waitForSpace(LogBuf& buffer, uint32_t length, StorageNeed& need) {
    SpaceWaiter waiter(*this);
    if (mSpaceWaiters == 1) {
        // Posts of drains before this moment tell nothing new; left standing, each would cost a useless
        // round.
        while (sem_trywait(&buffer.sem_write) == 0) {
        }
    }
    postOrReport(&buffer.sem_read, "logBufWrite sem_post failed \n");
    pthread_mutex_unlock(&buffer.mutex);
    for (;;) {
        if (buffer.free_size >= length) {
            pthread_mutex_lock(&buffer.mutex);
            if (buffer.free_size >= length)
                return Space::Ready;
            pthread_mutex_unlock(&buffer.mutex);
        }
        if ((mBufUse & kClosed) != 0)
            return Space::Refused;
        if (mDrainFailing) {
            if (storageTooSmall(buffer, need))
                return Space::StorageFull;
            ++mRefusedRecords;
            return Space::Refused;
        }
        logError("not enough log buffer for %zd byte, free size %zd byte\n", static_cast<ssize_t>(length),
                 static_cast<ssize_t>(buffer.free_size.load()));
        if (!waitOrReport(&buffer.sem_write, " logBufWrite sem_wait failed\n"))
            return Space::Refused;
        if ((mBufUse & kClosed) != 0)
            return Space::Refused;
        if (storageTooSmall(buffer, need))
            return Space::StorageFull;
    }
}

/** Whether the storage has less room than the buffer holds; stores both amounts. */
bool LogService::storageTooSmall(const LogBuf& buffer, StorageNeed& need) {
    std::lock_guard<std::mutex> lock(mStorageLock);
    need.free = getFileFreeSpace(mSavePath);
    need.used = buffer.size - buffer.free_size;
    return need.used > need.free;
}

/** The storage is full: switches file output off and stops the flush thread. Always -1. */
int LogService::giveUpStorage(const StorageNeed& need) {
    CancelGuard guard;
    mStorageFull = true;
    if (logCMD(CMD_NAND_FILE_OUTPUT, "n") < 0)
        logError("Failed to close the log storage \n");
    logError("Storage path space is insufficient,free space (%zd),need space (%zd)\n",
             static_cast<ssize_t>(need.free), static_cast<ssize_t>(need.used));
    const bool flags[] = {true, false, false};
    if (serviceStop(flags) < 0)
        logError("Failed to stop the service \n");
    return -1;
}

int LogService::logBufRead2File(int fd, uint32_t wanted) {
    if (wanted == 0 || !mFlushThreadRunning)
        return 0;
    LogBuf& buffer = *mLogBuf;
    uint32_t count;
    {
        RingLock lock(buffer.mutex);
        count = std::min(wanted, buffer.size - buffer.free_size);
        uint32_t ring = buffer.last_pos + 1;
        bool written;
        if (buffer.read_pos + count <= ring) {
            written = writeOrReport(fd, buffer.buf + buffer.read_pos, count, kPlaceWhole);
        } else {
            uint32_t first = ring - buffer.read_pos;
            written = writeOrReport(fd, buffer.buf + buffer.read_pos, first, kPlaceFirst) &&
                      writeOrReport(fd, buffer.buf, count - first, kPlaceSecond);
        }
        if (!written) {
            mDrainWriteFailed = true;
            return -1;
        }
        buffer.read_pos = (buffer.read_pos + count) % ring;
        buffer.free_size += count;
        mDrainMoved += count;
    }
    postOrReport(&buffer.sem_write, "logBufRead2File sem_post failed \n");
    return static_cast<int>(count);
}

int LogService::flushLogBufAll() {
    BufferUse use(*this);
    if (use.buffer() == nullptr)
        return 0;
    ++mFlushRequests;
    mFlushAll = true;
    postOrReport(&use.buffer()->sem_read, "flushLogBufAll sem_post failed \n");
    logDebug("flush log buf success!\n");
    return 0;
}

} // namespace vnlog

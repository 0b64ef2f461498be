#include "buffer/Ring.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Semaphores.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <unistd.h>

namespace vnlog {

namespace {

// Places of the three file writes in their report, part of its fixed text.
constexpr int kPlaceWhole = 1699;
constexpr int kPlaceFirst = 1706;
constexpr int kPlaceSecond = 1710;

constexpr uint32_t kWaitReportInterval = 1000; ///< milliseconds between two reports about waiting writers

/** Holds the ring's mutex while in scope. */
class VNLOG_SCOPED_LOCK RingGuard {
  public:
    explicit RingGuard(LogBuf& buffer) VNLOG_ACQUIRES(RingLock::role) : mMutex(buffer.mutex) {
        pthread_mutex_lock(&mMutex);
    }
    ~RingGuard() VNLOG_RELEASES() { pthread_mutex_unlock(&mMutex); }
    RingGuard(const RingGuard&) = delete;
    RingGuard& operator=(const RingGuard&) = delete;

  private:
    pthread_mutex_t& mMutex;
};

/** Writes one piece; reports its failure and leaves errno. */
bool writeOrReport(int fd, const char* bytes, uint32_t length, int place) {
    if (writeAll(fd, bytes, length))
        return true;
    int error = errno;
    logError("line[%d] logBufRead2File write failed \n", place);
    logErrno(error);
    errno = error;
    return false;
}

/**
 * Writes `count` used bytes from `start` on, in two pieces where they run over the end of the data area.
 * Without the mutex, so that no writer waits for the medium: nobody else moves the used bytes, and writers
 * leave them alone.
 */
bool writeUsed(const LogBuf& buffer, int fd, uint32_t start, uint32_t count) VNLOG_UNCHECKED {
    uint32_t toEnd = buffer.last_pos + 1 - start;
    if (count <= toEnd)
        return writeOrReport(fd, buffer.buf + start, count, kPlaceWhole);
    return writeOrReport(fd, buffer.buf + start, toEnd, kPlaceFirst) &&
           writeOrReport(fd, buffer.buf, count - toEnd, kPlaceSecond);
}

/** Cuts a file back to `start`, for what was written will be offered again. Returns how much of it stays. */
uint32_t cutBack(int fd, off_t start) {
    off_t end = lseek(fd, 0, SEEK_CUR);
    if (start < 0 || end <= start)
        return 0;
    if (ftruncate(fd, start) != 0)
        return static_cast<uint32_t>(end - start);
    (void)lseek(fd, start, SEEK_SET);
    return 0;
}

/** Of the monotonic clock, modulo 2^32. */
uint32_t milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * 1000U + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

uint32_t usedBytes(const LogBuf& buffer) {
    return buffer.size - buffer.free_size;
}

void dropPosts(sem_t& semaphore) {
    while (sem_trywait(&semaphore) == 0) {
    }
}

/** Reports a destruction that failed: its result is an error number, or -1 with errno set. */
void reportDestruction(int result, const char* report) {
    if (result == 0)
        return;
    int error = result > 0 ? result : errno;
    logError("%s", report);
    logErrno(error);
}

} // namespace

/**
 * Stays in the ring while in scope, so that it is not released meanwhile; null when there is none or when it
 * is closed. Cancellation leaves it, too.
 */
class Ring::Use {
  public:
    explicit Use(const Ring& ring) : mRing(ring), mBuffer(ring.enter()) {}
    ~Use() {
        if (mBuffer != nullptr)
            mRing.leave();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    LogBuf* buffer() const { return mBuffer; }

  private:
    const Ring& mRing;
    LogBuf* const mBuffer;
};

/** Counts its writer among those that wait for space. */
class Ring::Waiter {
  public:
    explicit Waiter(Ring& ring) : mRing(ring) { ++mRing.mWaiters; }
    ~Waiter() { --mRing.mWaiters; }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

  private:
    Ring& mRing;
};

Ring::Ring(RingState& state, Medium& medium) : mState(state), mMedium(medium) {
    (void)sem_init(&mIdle, 0, 0); // cannot fail for a private semaphore of count 0
}

Ring::~Ring() {
    (void)sem_destroy(&mIdle); // a destroyed ring has no user left who could be waiting
}

/** The record when the caller is now inside, to leave with leave(); otherwise null. */
LogBuf* Ring::enter() const {
    uint32_t before = mUsers.fetch_add(1);
    if ((before & kClosed) == 0 && mState.mLogBuf != nullptr)
        return mState.mLogBuf;
    leave();
    return nullptr;
}

void Ring::leave() const {
    if ((mUsers.fetch_sub(1) & kClosed) != 0)
        post(&mIdle);
}

bool Ring::closed() const {
    return (mUsers & kClosed) != 0;
}

void Ring::close() {
    mUsers.fetch_or(kClosed);
    wakeWaiters();
    while ((mUsers & ~kClosed) != 0)
        (void)sem_wait(&mIdle); // woken early or for nothing, it looks again
}

void Ring::reopen() {
    mUsers.fetch_and(~kClosed);
}

/** Posts once for every writer that waits; those that are about to wait look at the reason first. */
void Ring::wakeWaiters() {
    for (uint32_t waiters = mWaiters; mState.mLogBuf != nullptr && waiters > 0; --waiters)
        post(&mState.mLogBuf->sem_write);
}

bool Ring::create() {
    close();
    bool built = build();
    reopen();
    return built;
}

bool Ring::build() {
    auto* record = new (std::nothrow) LogBuf{};
    mState.mLogBuf = record;
    if (record == nullptr) {
        logError("fail to malloc log buf struct!\n");
        logErrno();
        return false;
    }
    Built built = Built::Record;
    int error = pthread_mutex_init(&record->mutex, nullptr);
    if (error == 0) {
        built = Built::WithMutex;
        if (sem_init(&record->sem_read, 0, 0) == 0) {
            built = Built::WithReadSemaphore;
            if (sem_init(&record->sem_write, 0, 0) == 0)
                built = Built::Whole;
        }
        error = errno;
    }
    if (built != Built::Whole) {
        logError("Synchronization primitives init failed\n");
        logErrno(error);
        destroy(built);
        return false;
    }
    record->buf = allocateText(kLogBufSize).release();
    if (record->buf == nullptr) {
        logError("fail to malloc log buf!\n");
        logErrno();
        destroy(built);
        return false;
    }
    record->size = kLogBufSize;
    record->last_pos = kLogBufSize - 1;
    record->free_size = kLogBufSize;
    mState.mFlushAll = false;
    mDrainFailing = mConsumerAwake = mConsumerWorks = false;
    mDroppedBytes = mDroppedLines = mUnreportedWaits = 0;
    mLastWaitReport = milliseconds() - kWaitReportInterval;
    return true;
}

void Ring::release() {
    if (mState.mLogBuf == nullptr)
        return;
    close();
    destroy(Built::Whole);
    reopen();
}

/** Frees the record of a closed ring with those of its primitives that were initialised. */
void Ring::destroy(Built built) {
    LogBuf* record = mState.mLogBuf;
    std::free(record->buf);
    record->buf = nullptr;
    if (built >= Built::Whole)
        reportDestruction(sem_destroy(&record->sem_write), "destroy sem_write failure\n");
    if (built >= Built::WithReadSemaphore)
        reportDestruction(sem_destroy(&record->sem_read), "destroy sem_read failure\n");
    if (built >= Built::WithMutex)
        reportDestruction(pthread_mutex_destroy(&record->mutex), "destroy mutex\n");
    delete record;
    mState.mLogBuf = nullptr;
}

PutResult Ring::put(const void* bytes, uint32_t length) {
    if (length == 0 || !mState.mFlushThreadRunning)
        return {PutStatus::NotInService};
    Use use(*this);
    LogBuf* buffer = use.buffer();
    if (buffer == nullptr)
        return {PutStatus::NotInService};
    if (length > buffer->size) {
        logError("a record of %u byte can never fit the log buffer\n", length);
        return {PutStatus::TooLong};
    }
    PutResult result{PutStatus::Stored};
    if (!tryCopy(*buffer, bytes, length))
        result = waitAndCopy(*buffer, bytes, length);
    if (result.status == PutStatus::Stored && drainWanted(*buffer))
        wakeForDrain(*buffer);
    return result;
}

bool Ring::drainWanted(const LogBuf& buffer) const {
    uint32_t used = usedBytes(buffer);
    return used > kFlushThreshold || (used > 0 && (mState.mFlushAll || mState.mFlushSwitch || mWaiters > 0));
}

/** Wakes the consumer unless it is awake: it looks once more before it waits. */
void Ring::wakeForDrain(LogBuf& buffer) {
    if (!mConsumerAwake.exchange(true))
        postOrReport(&buffer.sem_read, "logBufWrite sem_post failed \n");
}

/** Copies the record in if there is space for it. */
bool Ring::tryCopy(LogBuf& buffer, const void* bytes, uint32_t length) {
    RingGuard lock(buffer);
    if (buffer.free_size < length)
        return false;
    uint32_t ring = buffer.last_pos + 1;
    uint32_t first = std::min(length, ring - buffer.write_pos);
    std::memcpy(buffer.buf + buffer.write_pos, bytes, first);
    std::memcpy(buffer.buf, static_cast<const char*>(bytes) + first, length - first);
    buffer.write_pos = (buffer.write_pos + length) % ring;
    buffer.free_size -= length;
    return true;
}

/** put for a record that finds no space. Cancellation may strike while it waits. */
PutResult Ring::waitAndCopy(LogBuf& buffer, const void* bytes, uint32_t length) {
    Waiter waiter(*this);
    if (mWaiters == 1) {
        dropPosts(buffer.sem_write); // of drains before this moment; each would cost a useless round
        for (uint32_t others = mWaiters - 1; others > 0; --others)
            post(&buffer.sem_write); // one of those posts may have been for a writer that came meanwhile
    }
    bool reported = false;
    wakeForDrain(buffer);
    for (;;) {
        if (tryCopy(buffer, bytes, length))
            return {PutStatus::Stored};
        if (closed())
            return {PutStatus::Closed};
        if (mDrainFailing) {
            if (mMediumFull)
                return mediumIsFull(buffer);
            ++mRefusedRecords;
            return {PutStatus::Refused};
        }
        if (!reported)
            reportWait(buffer, length);
        reported = true;
        if (!waitOrReport(&buffer.sem_write, " logBufWrite sem_wait failed\n"))
            return {PutStatus::WaitFailed};
    }
}

/** Says once a second at most that a writer waits, and then how many have waited unsaid. */
void Ring::reportWait(const LogBuf& buffer, uint32_t length) {
    uint32_t now = milliseconds(), last = mLastWaitReport;
    if (now - last < kWaitReportInterval || !mLastWaitReport.compare_exchange_strong(last, now)) {
        ++mUnreportedWaits;
        return;
    }
    logError("not enough log buffer for %zd byte, free size %zd byte\n", static_cast<ssize_t>(length),
             static_cast<ssize_t>(buffer.free_size.load()));
    reportUnsaidWaits();
}

void Ring::reportUnsaidWaits() {
    if (uint32_t waits = mUnreportedWaits.exchange(0))
        logError("%u more waits for log buffer since the last report\n", waits);
}

PutResult Ring::mediumIsFull(const LogBuf& buffer) const {
    return {PutStatus::StorageFull, mMedium.freeBytes(), vnlog::usedBytes(buffer)};
}

TakeResult Ring::take(int fd, uint32_t wanted) {
    if (wanted == 0 || !mState.mFlushThreadRunning || mState.mLogBuf == nullptr)
        return {TakeStatus::NotInService};
    LogBuf& buffer = *mState.mLogBuf; // without a Use: the record stays as long as the consumer runs
    uint32_t start;
    uint32_t count;
    {
        RingGuard lock(buffer);
        start = buffer.read_pos;
        count = std::min(wanted, usedBytes(buffer));
    }
    off_t before = lseek(fd, 0, SEEK_CUR);
    TakeResult result{TakeStatus::Taken, count};
    if (!writeUsed(buffer, fd, start, count)) {
        result = {TakeStatus::WriteFailed, 0, errno};
        result.count = cutBack(fd, before);
        if (result.count == 0)
            return result;
    }
    {
        RingGuard lock(buffer);
        buffer.read_pos = (start + result.count) % (buffer.last_pos + 1);
        buffer.free_size += result.count;
    }
    postOrReport(&buffer.sem_write, "logBufRead2File sem_post failed \n");
    return result;
}

uint32_t Ring::used() const {
    Use use(*this);
    return use.buffer() != nullptr ? usedBytes(*use.buffer()) : 0;
}

void Ring::requestFlush() {
    Use use(*this);
    if (use.buffer() == nullptr)
        return;
    ++mFlushRequests;
    mState.mFlushAll = true;
    postOrReport(&use.buffer()->sem_read, "flushLogBufAll sem_post failed \n");
    logDebug("flush log buf success!\n");
}

bool Ring::wakeConsumer() {
    return sem_post(&mState.mLogBuf->sem_read) == 0;
}

bool Ring::waitForWork() {
    if (mConsumerWorks) {
        mConsumerAwake = false; // first, so that whoever brings work from here on posts
        if (drainWanted() && !mConsumerAwake.exchange(true))
            return true;
    }
    mConsumerWorks = waitOrReport(&mState.mLogBuf->sem_read, "logBufFlush sem_wait failed\n");
    mConsumerAwake = true;
    return mConsumerWorks;
}

bool Ring::drainWanted() const {
    return drainWanted(*mState.mLogBuf);
}

void Ring::forgetRequest(uint32_t seen) {
    mState.mFlushAll = false; // first, so that a request that comes in between is not lost
    if (mFlushRequests != seen)
        mState.mFlushAll = true;
}

void Ring::pause(unsigned seconds, uint32_t seen) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(seconds);
    dropPosts(mState.mLogBuf->sem_read); // what they told has been looked at; the next try does so again
    while (mState.mFlushThreadRunning && mFlushRequests == seen) {
        if (sem_clockwait(&mState.mLogBuf->sem_read, CLOCK_MONOTONIC, &end) < 0 && errno != EINTR)
            return;
    }
}

void Ring::drainFailed(bool mediumFull) {
    mMediumFull = mediumFull; // first: a writer that sees the failure asks for its kind
    mDrainFailing = true;
    wakeWaiters(); // they look at the medium themselves: no drain is coming that would wake them
}

void Ring::drainWorks() {
    mDrainFailing = false;
    reportRefused();
}

void Ring::reportRefused() {
    if (uint32_t refused = mRefusedRecords.exchange(0))
        logError("%u records were refused while the storage could not be written\n", refused);
}

void Ring::reportUnwritten() {
    reportRefused();
    reportUnsaidWaits();
    countDropped();
    if (uint32_t left = mDroppedBytes)
        logError("%u buffered byte are dropped by the stop\n", left);
}

void Ring::countDropped() {
    LogBuf& buffer = *mState.mLogBuf;
    RingGuard lock(buffer);
    uint32_t lines = 0;
    uint32_t used = usedBytes(buffer);
    for (uint32_t i = 0; i < used; ++i)
        lines += buffer.buf[(buffer.read_pos + i) % buffer.size] == '\n' ? 1 : 0;
    mDroppedBytes = used;
    mDroppedLines = lines;
}

} // namespace vnlog

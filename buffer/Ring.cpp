// SPDX-License-Identifier: Apache-2.0
#include "buffer/Ring.h"

#include "base/Clock.h"
#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Semaphores.h"
#include "base/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

// Places of the three file writes in their report, part of its fixed text.
constexpr int kPlaceWhole = 1699;
constexpr int kPlaceFirst = 1706;
constexpr int kPlaceSecond = 1710;

constexpr uint32_t kWaitReportInterval = 1000; ///< milliseconds between two reports about waiting writers
constexpr unsigned kPollMs = 3; ///< of those who wait for a flush

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
    return static_cast<uint32_t>(steadyMilliseconds());
}

/** Copies bytes into the data area from an index on; returns the index behind them. */
uint32_t copyIn(LogBuf& buffer, uint32_t at, const char* bytes, uint32_t length)
    VNLOG_REQUIRES(RingLock::role) {
    if (length == 0)
        return at;
    uint32_t ring = buffer.last_pos + 1;
    uint32_t first = std::min(length, ring - at);
    std::memcpy(buffer.buf + at, bytes, first);
    std::memcpy(buffer.buf, bytes + first, length - first);
    return (at + length) % ring;
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

/** Counts its writer among those that wait for space, and its record as lost when the wait ends unanswered.
 */
class Ring::Waiter {
  public:
    Waiter(Ring& ring, const void* bytes, uint32_t length)
        : mRing(ring), mBytes(static_cast<const char*>(bytes)), mLength(length) {
        ++mRing.mWaiters;
    }
    ~Waiter() {
        --mRing.mWaiters;
        if (!mAnswered)
            mRing.mLosses.add(Loss::Refused, countLines(mBytes, mLength));
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    /** The record is in the ring, or its caller counts it. */
    void answer() { mAnswered = true; }

  private:
    Ring& mRing;
    const char* const mBytes;
    const uint32_t mLength;
    bool mAnswered = false;
};

Ring::Ring(RingState& state, Medium& medium) : mState(state), mMedium(medium) {
    (void)sem_init(&mIdle, 0, 0); // cannot fail for a private semaphore of count 0
}

Ring::~Ring() {
    closeMemory();
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

bool Ring::create(const char* folder) {
    close();
    bool built = build(folder);
    reopen();
    return built;
}

bool Ring::build(const char* folder) {
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
    if (!mMemory.isOpen() && !openMemory(folder)) {
        logError("fail to malloc log buf!\n");
        logErrno();
        destroy(built);
        return false;
    }
    useMemory(*record);
    mState.mFlushAll = false;
    mDrainFailing = mConsumerAwake = mConsumerWorks = mGivenUp = false;
    mRequests.abandon(); // of the record before
    mDroppedBytes = mUnreportedWaits = 0;
    mLastWaitReport = milliseconds() - kWaitReportInterval;
    return true;
}

bool Ring::openMemory(const char* folder) VNLOG_UNCHECKED { // of a ring that nobody is in
    if (!mMemory.open(folder))
        return false;
    cutUnfinishedLine();
    mAdopted = mMemory.used();
    mLosses.attach(mMemory.losses(), mMemory.side());
    return true;
}

/** Lets a record that nobody uses yet stand for what the memory holds. */
void Ring::useMemory(LogBuf& buffer) VNLOG_UNCHECKED {
    if (!mMemory.persistent())
        mMemory.publishRead(mMemory.writePosition());
    buffer.buf = mMemory.data();
    buffer.size = kLogBufSize;
    buffer.last_pos = kLogBufSize - 1;
    buffer.read_pos = mMemory.readPosition() % kLogBufSize;
    buffer.write_pos = mMemory.writePosition() % kLogBufSize;
    buffer.free_size = kLogBufSize - mMemory.used();
    mOldest = steadyMilliseconds();
    mUnsynced = false;
}

/** Lines only are kept of what an earlier process has left. */
void Ring::cutUnfinishedLine() {
    uint32_t start = mMemory.readPosition(), used = mMemory.used(), whole = used;
    while (whole > 0 && mMemory.data()[(start + whole - 1) % kLogBufSize] != '\n')
        --whole;
    if (whole == used)
        return;
    logError("%u byte of an unfinished line are cut off what the run before left in memory\n", used - whole);
    mMemory.publishWrite(start + whole, mMemory.side());
}

void Ring::release() {
    if (mState.mLogBuf == nullptr)
        return;
    close();
    if (!persistent() || mGivenUp)
        dropRest(mGivenUp ? Loss::StorageFull : Loss::Dropped);
    destroy(Built::Whole);
    reopen();
}

void Ring::closeMemory() {
    if (!mMemory.isOpen())
        return;
    mLosses.detach(!mMemory.persistent()); // those in the file are told by whoever opens it next
    mMemory.close();
}

/** Frees the record of a closed ring with those of its primitives that were initialised. */
void Ring::destroy(Built built) {
    LogBuf* record = mState.mLogBuf;
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
        mLosses.add(Loss::TooLong, countLines(static_cast<const char*>(bytes), length));
        return {PutStatus::TooLong};
    }
    PutResult result{PutStatus::Stored};
    if (!tryCopy(*buffer, bytes, length))
        result = waitAndCopy(*buffer, bytes, length);
    bool unwatched = mArmedInterval != mState.mFlushInterval; // by a consumer that sleeps
    if (result.status == PutStatus::Stored && (unwatched || drainWanted(*buffer)))
        wakeForDrain(*buffer);
    return result;
}

bool Ring::drainWanted(const LogBuf& buffer) const {
    uint32_t used = usedBytes(buffer);
    return mRequests.syncAsked() || used > kFlushThreshold ||
           (used > 0 && (mState.mFlushAll || mState.mFlushSwitch || mWaiters > 0));
}

/** Wakes the consumer unless it is awake: it looks once more before it waits. */
void Ring::wakeForDrain(LogBuf& buffer) {
    if (!mConsumerAwake.exchange(true))
        postOrReport(&buffer.sem_read, "logBufWrite sem_post failed \n");
}

bool Ring::tryCopy(LogBuf& buffer, const void* bytes, uint32_t length) {
    RingGuard lock(buffer);
    return append(buffer, static_cast<const char*>(bytes), length);
}

/**
 * Copies a record, or none, behind the lines that are still to be told, if there is space for all. They wait
 * for the next record when the ring could never hold them together.
 */
bool Ring::append(LogBuf& buffer, const char* bytes, uint32_t length) {
    LossLines losses;
    mLosses.write(&losses);
    char note[88] = "";
    if (mAdopted > 0)
        formatText(note, "--------- the lines above were buffered when the run before ended, %u bytes\n",
                   mAdopted);
    auto noteLength = static_cast<uint32_t>(std::strlen(note));
    uint32_t ahead = noteLength + losses.length;
    bool together = ahead + length <= buffer.size;
    uint32_t all = together ? ahead + length : length;
    if (buffer.free_size < all)
        return false;
    if (all == 0)
        return true;
    if (buffer.free_size == buffer.size && !mUnsynced)
        mOldest = steadyMilliseconds();
    uint32_t side = mLosses.side(), end = buffer.write_pos;
    if (together && ahead > 0) {
        end = copyIn(buffer, end, note, noteLength);
        end = copyIn(buffer, end, losses.text, losses.length);
        side = mLosses.prepare(losses);
        mAdopted = 0;
    }
    buffer.write_pos = copyIn(buffer, end, bytes, length);
    mMemory.publishWrite(mMemory.writePosition() + all, side);
    mLosses.choose(side);
    buffer.free_size -= all;
    return true;
}

void Ring::announce() {
    Use use(*this);
    if (use.buffer() == nullptr)
        return;
    bool adopted = false;
    {
        RingGuard lock(*use.buffer());
        adopted = mAdopted > 0;
        (void)append(*use.buffer(), nullptr, 0); // without space the next record is behind it
    }
    if (adopted)
        (void)requestFlush(true); // nobody waits for it
}

bool Ring::freeWritten(int fd) {
    const WriteMark* mark = mMemory.mark();
    struct stat info;
    if (mark == nullptr || fstat(fd, &info) != 0 || info.st_dev != mark->device || info.st_ino != mark->inode)
        return false;
    auto size = static_cast<uint64_t>(info.st_size);
    uint64_t behind = size > mark->offset ? size - mark->offset : 0;
    auto there = static_cast<uint32_t>(std::min<uint64_t>(behind, std::min(mark->bytes, mMemory.used())));
    if (equalBytes(fd, static_cast<off_t>(mark->offset), there) < there) {
        logError("a section went on otherwise than with what is buffered, which is stored once more\n");
        there = 0;
    }
    LogBuf& buffer = *mState.mLogBuf;
    RingGuard lock(buffer);
    mMemory.publishRead(mMemory.readPosition() + there); // first: with it the mark does not count any more
    mMemory.clearMark();
    buffer.read_pos = mMemory.readPosition() % buffer.size;
    buffer.free_size += there;
    mAdopted -= there;
    return true;
}

/** How many of the oldest bytes, at most so many, are those of a file from `offset` on. */
uint32_t Ring::equalBytes(int fd, off_t offset, uint32_t most) const {
    char piece[4096];
    uint32_t start = mMemory.readPosition();
    for (uint32_t done = 0; done < most;) {
        ssize_t length = pread(fd, piece, std::min<size_t>(most - done, sizeof piece), offset + done);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return done;
        for (ssize_t i = 0; i < length; ++i, ++done) {
            if (piece[i] != mMemory.data()[(start + done) % kLogBufSize])
                return done;
        }
    }
    return most;
}

/** put for a record that finds no space. Cancellation may strike while it waits. */
PutResult Ring::waitAndCopy(LogBuf& buffer, const void* bytes, uint32_t length) {
    Waiter waiter(*this, bytes, length);
    if (mWaiters == 1) {
        dropPosts(buffer.sem_write); // of drains before this moment; each would cost a useless round
        for (uint32_t others = mWaiters - 1; others > 0; --others)
            post(&buffer.sem_write); // one of those posts may have been for a writer that came meanwhile
    }
    bool reported = false;
    wakeForDrain(buffer);
    for (;;) {
        bool stored = tryCopy(buffer, bytes, length);
        bool full = !stored && mDrainFailing && mMediumFull;
        if (stored || full)
            waiter.answer();
        if (stored)
            return {PutStatus::Stored};
        if (full)
            return mediumIsFull(buffer);
        if (mDrainFailing) {
            ++mRefusedRecords;
            return {PutStatus::Refused};
        }
        if (closed())
            return {PutStatus::Closed};
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
    mMemory.markWrite(fd, before, count);
    TakeResult result{TakeStatus::Taken, count};
    if (!writeUsed(buffer, fd, start, count)) {
        result = {TakeStatus::WriteFailed, 0, errno};
        result.count = cutBack(fd, before);
        if (result.count == 0) {
            mMemory.clearMark();
            return result;
        }
    }
    {
        RingGuard lock(buffer);
        mMemory.publishRead(mMemory.readPosition() + result.count);
        buffer.read_pos = (start + result.count) % (buffer.last_pos + 1);
        buffer.free_size += result.count;
        mUnsynced = true; // at once: a record that comes now is not the oldest that waits for the medium
    }
    postOrReport(&buffer.sem_write, "logBufRead2File sem_post failed \n");
    return result;
}

uint32_t Ring::used() const {
    Use use(*this);
    return use.buffer() != nullptr ? usedBytes(*use.buffer()) : 0;
}

uint32_t Ring::requestFlush(bool sync) {
    Use use(*this);
    if (use.buffer() == nullptr)
        return 0;
    uint32_t ticket = 0;
    {
        RingGuard lock(*use.buffer());
        (void)append(*use.buffer(), nullptr,
                     0); // lines about losses; without space the next record is behind them
        ticket = mRequests.make(sync);
        mState.mFlushAll = true;
    }
    postOrReport(&use.buffer()->sem_read, "flushLogBufAll sem_post failed \n");
    logDebug("flush log buf success!\n");
    return ticket;
}

void Ring::flushUrgent() {
    Use use(*this);
    if (use.buffer() == nullptr)
        return;
    {
        RingGuard lock(*use.buffer());
        if (!mRequests.askForSync())
            return; // the drain that does it begins after this
    }
    if (!mDrainFailing)
        wakeForDrain(*use.buffer());
}

FlushOutcome Ring::awaitFlush(uint32_t ticket, unsigned ms) const {
    CancelGuard guard;
    int64_t end = steadyMilliseconds() + ms;
    for (;;) {
        FlushOutcome now = mRequests.outcome(ticket);
        if (now == FlushOutcome::TimedOut && !mState.mFlushThreadRunning)
            return FlushOutcome::NotInService;
        if (now != FlushOutcome::TimedOut || steadyMilliseconds() >= end)
            return now;
        timespec pause{0, kPollMs * 1000000L};
        (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr); // a signal only makes it shorter
    }
}

bool Ring::wakeConsumer() {
    return sem_post(&mState.mLogBuf->sem_read) == 0;
}

bool Ring::waitForWork(int64_t notBefore) {
    mOverdue = false;
    mArmedInterval = 0;
    if (mConsumerWorks) {
        mConsumerAwake = false; // first, so that whoever brings work from here on posts
        if (drainWanted() && !mConsumerAwake.exchange(true))
            return true;
    }
    mConsumerWorks = awaitWork(notBefore);
    mConsumerAwake = true;
    return mConsumerWorks;
}

/** Waits for a post; when there are bytes that are to be on the medium without one, until then at most. */
bool Ring::awaitWork(int64_t notBefore) {
    constexpr char kReport[] = "logBufFlush sem_wait failed\n";
    uint32_t interval = mState.mFlushInterval;
    int64_t oldest = 0, end = notBefore;
    if (interval > 0 && oldestTime(&oldest)) {
        mArmedInterval = interval;
        end = std::max(end, oldest + int64_t{interval} * 1000);
    }
    if (end == 0)
        return waitOrReport(&mState.mLogBuf->sem_read, kReport);
    timespec due = steadyTime(end);
    while (sem_clockwait(&mState.mLogBuf->sem_read, CLOCK_MONOTONIC, &due) < 0) {
        mOverdue = errno == ETIMEDOUT;
        if (mOverdue)
            return true;
        if (errno == EINTR)
            continue;
        logError("%s", kReport);
        logErrno();
        return false;
    }
    return true;
}

/** Since when the oldest byte has been waiting for the medium, at the latest. False when there is none. */
bool Ring::oldestTime(int64_t* time) const {
    const LogBuf& buffer = *mState.mLogBuf;
    RingGuard lock(*mState.mLogBuf);
    *time = mOldest;
    return usedBytes(buffer) > 0 || mUnsynced;
}

bool Ring::drainWanted() const {
    return drainWanted(*mState.mLogBuf) || mOverdue;
}

DrainStart Ring::beginDrain() {
    LogBuf& buffer = *mState.mLogBuf;
    RingGuard lock(buffer);
    bool waitedFor = false, sync = mRequests.takeUp(&waitedFor);
    DrainStart start{mRequests.last(), usedBytes(buffer), sync, waitedFor, steadyMilliseconds()};
    int64_t interval = int64_t{mState.mFlushInterval} * 1000;
    bool waiting = start.used > 0 || mUnsynced;
    start.sync = start.sync || (waiting && (mOverdue || (interval > 0 && start.time - mOldest >= interval)));
    return start;
}

void Ring::finishDrain(const DrainStart& drain, SyncOutcome sync) {
    drainWorks();
    RingGuard lock(*mState.mLogBuf);
    if (mRequests.last() == drain.requests) // one that came in between is not lost
        mState.mFlushAll = false;
    mUnsynced = mUnsynced && sync == SyncOutcome::NotTried;
    if (!mUnsynced)
        mOldest = std::max(mOldest, drain.time); // what is there now came after that
    mRequests.served(drain.requests, sync == SyncOutcome::Done);
}

void Ring::pause(unsigned seconds, uint32_t seen) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(seconds);
    dropPosts(mState.mLogBuf->sem_read); // what they told has been looked at; the next try does so again
    while (mState.mFlushThreadRunning && mRequests.last() == seen) {
        if (sem_clockwait(&mState.mLogBuf->sem_read, CLOCK_MONOTONIC, &end) < 0 && errno != EINTR)
            return;
    }
}

void Ring::drainFailed(bool mediumFull) {
    mMediumFull = mediumFull; // first: a writer that sees the failure asks for its kind
    if (!mDrainFailing) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        mFailingSince = static_cast<uint32_t>(now.tv_sec);
    }
    mDrainFailing = true;
    wakeWaiters(); // they look at the medium themselves: no drain is coming that would wake them
}

void Ring::drainWorks() {
    if (mDrainFailing.exchange(false))
        announce();
    reportRefused();
}

void Ring::reportRefused() {
    if (uint32_t refused = mRefusedRecords.exchange(0))
        logError("%u records were refused while the storage could not be written\n", refused);
}

void Ring::reportUnwritten() {
    reportRefused();
    reportUnsaidWaits();
    uint32_t left = used();
    if (left == 0)
        return;
    if (persistent() && !mGivenUp)
        logError("%u buffered byte stay in memory for the next start\n", left);
    else
        logError("%u buffered byte are dropped by the stop\n", left);
}

/** Empties the ring, which nobody uses any more, and counts the lines that end in it. */
void Ring::dropRest(Loss why) {
    LogBuf& buffer = *mState.mLogBuf;
    RingGuard lock(buffer);
    uint32_t used = usedBytes(buffer), lines = 0;
    for (uint32_t i = 0; i < used; ++i)
        lines += buffer.buf[(buffer.read_pos + i) % buffer.size] == '\n' ? 1 : 0;
    mLosses.add(why, lines);
    mMemory.publishRead(mMemory.writePosition());
    buffer.read_pos = buffer.write_pos;
    buffer.free_size = buffer.size;
    mAdopted = 0;
    mDroppedBytes = why == Loss::Dropped ? used : 0;
}

} // namespace vnlog

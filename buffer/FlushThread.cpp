#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "service/Semaphores.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr unsigned kFirstPauseSeconds = 1;
constexpr unsigned kLongestPauseSeconds = 60;

} // namespace

void* LogService::logBufFlush(void* service) {
    static_cast<LogService*>(service)->flushLoop();
    return nullptr;
}

void LogService::flushLoop() {
    unsigned pause = kFirstPauseSeconds;
    while (mFlushThreadRunning) {
        if (!waitOrReport(&mLogBuf->sem_read, "logBufFlush sem_wait failed\n"))
            return;
        bool retry = false;
        while (mFlushThreadRunning) {
            uint32_t requestsSeen = 0;
            Drain drain = drainBuffer(retry, &requestsSeen);
            if (drain == Drain::Idle || drain == Drain::Done) {
                pause = kFirstPauseSeconds;
                break;
            }
            if (drain == Drain::Failed) {
                drainingFailed();
                pauseDraining(pause, requestsSeen);
                pause = std::min(pause * 2, kLongestPauseSeconds);
            }
            retry = true;
        }
    }
    reportUnwritten();
    std::lock_guard<std::mutex> lock(mStorageLock);
    logBufFlushExit();
}

/** Says what a stop throws away. */
void LogService::reportUnwritten() {
    if (uint32_t refused = mRefusedRecords.exchange(0))
        logError("%u records were refused while the storage could not be written\n", refused);
    if (uint32_t used = mLogBuf->size - mLogBuf->free_size)
        logError("%u buffered byte are dropped by the stop\n", used);
}

/**
 * Writes out everything buffered if there is enough of it or somebody wants it; always when `retry` is set.
 * Stores how many flush requests there had been before.
 */
LogService::Drain LogService::drainBuffer(bool retry, uint32_t* requestsSeen) {
    *requestsSeen = mFlushRequests;
    uint32_t used = mLogBuf->size - mLogBuf->free_size;
    if (used == 0) {
        drainingWorks();
        forgetFlushRequest(*requestsSeen);
        return Drain::Idle;
    }
    bool wanted = retry || mFlushAll || mFlushSwitch || mSpaceWaiters > 0;
    if (used <= kFlushThreshold && !wanted)
        return Drain::Idle;

    int result;
    bool rootChanged;
    {
        std::lock_guard<std::mutex> lock(mStorageLock);
        mDrainWriteFailed = false;
        mDrainMoved = 0;
        result = saveLogSection(used);
        rootChanged = result != 0 && mRootChanged;
        mRootChanged = mRootChanged && result == 0; // the cut that it makes fail is over
    }
    if (!mFlushThreadRunning)
        return Drain::Done; // a stop came in between; what it left is no failure of the storage
    if (result != 0 || (mDrainWriteFailed && mDrainMoved == 0)) {
        logError("error: failed to save log,please check it\n");
        return rootChanged ? Drain::Partly : Drain::Failed; // the new root is as good as any: no pause
    }
    drainingWorks();
    if (mDrainWriteFailed)
        return Drain::Partly; // the rest is offered at once; if that moves nothing, it has failed
    forgetFlushRequest(*requestsSeen);
    return Drain::Done;
}

/** Clears a flush request that has been served, unless another one has come since `requestsSeen` was read. */
void LogService::forgetFlushRequest(uint32_t requestsSeen) {
    mFlushAll = false;
    if (mFlushRequests != requestsSeen)
        mFlushAll = true;
}

/**
 * Puts the writers on notice. Those that wait get up and look at the storage themselves: no drain is coming
 * that would wake them.
 */
void LogService::drainingFailed() {
    mDrainFailing = true;
    for (uint32_t waiting = mSpaceWaiters; waiting > 0; --waiting)
        (void)sem_post(&mLogBuf->sem_write); // fails only when the count overflows: they are awake then
    std::lock_guard<std::mutex> lock(mStorageLock);
    logBufFlushExit();
}

void LogService::drainingWorks() {
    mDrainFailing = false;
    if (uint32_t refused = mRefusedRecords.exchange(0))
        logError("%u records were refused while the storage could not be written\n", refused);
}

/** Waits before the next try; a stop or a flush request after `requestsSeen` ends it, other posts do not. */
void LogService::pauseDraining(unsigned seconds, uint32_t requestsSeen) {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(seconds);
    while (mFlushThreadRunning && mFlushRequests == requestsSeen) {
        if (sem_clockwait(&mLogBuf->sem_read, CLOCK_MONOTONIC, &end) < 0 && errno != EINTR)
            return;
    }
}

void LogService::logBufFlushExit() {
    if (mLogFd == -1)
        return;
    fsync(mLogFd);
    closeDescriptor(mLogFd);
    mLogFd = -1;
}

} // namespace vnlog

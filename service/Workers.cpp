// SPDX-License-Identifier: Apache-2.0
#include "service/Workers.h"

#include "base/Diagnostics.h"
#include "service/Parts.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace vnlog {

namespace {

constexpr int kPollMs = 5;
constexpr int kStuckMs = 5000; // of a medium: a cut waits for two syncs
constexpr int kReaderMostMs = 30000; // also when others keep the ring moving
constexpr int kDrainRetryMs = 1000;

void pauseOnce() {
    timespec pause{0, kPollMs * 1000000L};
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr); // a signal only makes it shorter
}

} // namespace

bool Workers::startFlushThread() {
    return start(mService.mFlushThreadRunning, mService.mFlushThread, LogService::logBufFlush, "logBufFlush");
}

bool Workers::startKernelReader() {
    return start(mService.mKLogThreadRunning, mService.mKLogThread, LogService::kernelLogReader,
                 "kernelLogReader");
}

bool Workers::startAndroidReader() {
    return start(mService.mLogcatThreadRunning, mService.mLogcatThread, LogService::logcat, "logcat");
}

/** Starts a worker under its name. */
bool Workers::start(Flag& running, pthread_t& handle, void* (*body)(void*), const char* name) {
    running = true; // before the thread exists, so that its first look finds it
    int error = pthread_create(&handle, nullptr, body, &mService);
    if (error == 0) {
        (void)pthread_setname_np(handle, name); // a nameless thread works as well
        return true;
    }
    running = false;
    logError("%s thread failed to start !\n", name);
    logErrno(error);
    return false;
}

void Workers::askToFinish(const bool* flags) {
    if (flags[LogService::KERNEL_READER] && mService.mKLogThreadRunning)
        mParts.kernelReader.finishRequest().make();
    if (flags[LogService::ANDROID_READER] && mService.mLogcatThreadRunning)
        mParts.androidReader.finishRequest().make();
}

bool Workers::endKernelReader() {
    int error = 0;
    if (!joinReader(mService.mKLogThread, mParts.kernelReader.finishRequest(), mService.mKLogOutput,
                    "kernelLogReader", &error))
        return false;
    if (error != 0) {
        logDebug("error join kernelLogReader thread\n");
        return false;
    }
    mService.mKLogThreadRunning = false;
    logDebug("Thread kernelLogReader is stopped successfully!\n");
    return true;
}

bool Workers::endAndroidReader() {
    int error = 0;
    if (!joinReader(mService.mLogcatThread, mParts.androidReader.finishRequest(), mService.mALogOutput,
                    "logcat", &error))
        return false;
    if (error != 0) {
        logError("error join logcat thread\n");
        logErrno(error);
        return false;
    }
    mService.mLogcatThreadRunning = false;
    logDebug("Thread logcat is stopped successfully!\n");
    return true;
}

/**
 * Joins a reader, whose request is over then; `error` is the join's. False when it would have to be cancelled
 * and cannot be. A reader whose source is switched off waits for that to change and listens to nothing else.
 */
bool Workers::joinReader(pthread_t thread, FinishRequest& request, bool listens, const char* name,
                         int* error) {
    *error = listens ? awaitEnd(thread, request) : EBUSY;
    if (*error == EBUSY) {
        if (listens)
            logError("%s does not get on with the stop, what it has not stored yet is lost\n", name);
        int failure = pthread_cancel(thread);
        if (failure != 0 && failure != ESRCH) { // the latter has ended by itself already
            logError("Thread %s is stopped unsuccessfully! \n", name);
            logErrno(failure);
            return false;
        }
        *error = pthread_join(thread, nullptr);
    }
    request.withdraw();
    return true;
}

/** Joins a reader as long as it or the ring that it may wait for gets on. EBUSY when neither does. */
int Workers::awaitEnd(pthread_t thread, const FinishRequest& request) {
    uint32_t steps = request.steps();
    uint32_t used = mParts.ring.used();
    for (int idle = 0, all = 0; idle < kStuckMs && all < kReaderMostMs; idle += kPollMs, all += kPollMs) {
        int error = pthread_tryjoin_np(thread, nullptr);
        if (error != EBUSY)
            return error;
        pauseOnce();
        if (request.steps() != steps || mParts.ring.used() != used)
            idle = 0;
        steps = request.steps();
        used = mParts.ring.used();
    }
    return EBUSY;
}

void Workers::drain() {
    uint32_t least = mParts.ring.used() + 1;
    for (int idle = 0; idle < kStuckMs && mService.mFlushThreadRunning; idle += kPollMs) {
        uint32_t used = mParts.ring.used();
        if (used == 0)
            return;
        idle = used < least ? 0 : idle; // one that others go on filling does not get emptier
        least = std::min(least, used);
        // Again when a request was served before the last bytes came, and now and then when writing fails.
        if (!mService.mFlushAll || idle % kDrainRetryMs == 0)
            (void)mParts.ring.requestFlush(); // nobody asks what became of it
        pauseOnce();
    }
}

bool Workers::endFlushThread() {
    mService.mFlushThreadRunning = false;
    if (!mParts.ring.wakeConsumer()) {
        logError("serviceStop sem_post failed \n");
        logErrno();
        return false;
    }
    int error = pthread_join(mService.mFlushThread, nullptr);
    if (error != 0) {
        logError("error join logBufFlush thread\n");
        logErrno(error);
        return false;
    }
    logDebug("Thread logBufFlush is stopped successfully!\n");
    return true;
}

} // namespace vnlog

#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"

#include <cerrno>
#include <cstdlib>

namespace vnlog {

namespace {

/** Asks a thread to end at its next cancellation point. 0 also when it has ended by itself already. */
int cancelThread(pthread_t thread) {
    int error = pthread_cancel(thread);
    return error == ESRCH ? 0 : error;
}

} // namespace

/*
 * The readers are ended before mCommandLock is taken: a reader that has found the storage full may itself be
 * waiting for that lock, in a command or in a stop of its own, and is joined here all the same.
 */
int LogService::serviceStop(const bool* flags) {
    CancelGuard guard;
    if (!mServiceStarted)
        return -1;
    logDebug("Thread stopped \n");
    if (flags[KERNEL_READER] && mKLogThreadRunning && stopKernelReader() != 0)
        return -1;
    if (flags[ANDROID_READER] && mLogcatThreadRunning && stopAndroidReader() != 0)
        return -1;

    std::lock_guard<std::mutex> lock(mCommandLock);
    if (flags[FLUSH_THREAD] && mFlushThreadRunning && stopFlushThread() != 0)
        return -1;
    if (mLogBuf != nullptr && !mFlushThreadRunning) { // the flush thread needs it as long as it runs
        closeBuffer();
        releaseLogBuf();
    }
    mServiceStarted = mKLogThreadRunning || mLogcatThreadRunning || mFlushThreadRunning;
    return 0;
}

int LogService::stopKernelReader() {
    int error = cancelThread(mKLogThread);
    if (error != 0) {
        logError("Thread kernelLogReader is stopped unsuccessfully! \n");
        logErrno(error);
        return -1;
    }
    if (pthread_join(mKLogThread, nullptr) != 0) {
        logDebug("error join kernelLogReader thread\n");
        return -1;
    }
    mKLogThreadRunning = false;
    logDebug("Thread kernelLogReader is stopped successfully!\n");
    return 0;
}

int LogService::stopAndroidReader() {
    int error = cancelThread(mLogcatThread);
    if (error != 0) {
        logError("Thread logcat is stopped unsuccessfully! \n");
        logErrno(error);
        return -1;
    }
    error = pthread_join(mLogcatThread, nullptr);
    if (error != 0) {
        logError("error join logcat thread\n");
        logErrno(error);
        return -1;
    }
    mLogcatThreadRunning = false;
    logDebug("Thread logcat is stopped successfully!\n");
    return 0;
}

int LogService::stopFlushThread() {
    mFlushThreadRunning = false;
    if (sem_post(&mLogBuf->sem_read) < 0) {
        logError("serviceStop sem_post failed \n");
        logErrno();
        return -1;
    }
    int error = pthread_join(mFlushThread, nullptr);
    if (error != 0) {
        logError("error join logBufFlush thread\n");
        logErrno(error);
        return -1;
    }
    logDebug("Thread logBufFlush is stopped successfully!\n");
    return 0;
}

/**
 * Releases the closed ring buffer with those of its primitives that were initialised, and opens the gate for
 * callers, who then find that there is none.
 */
void LogService::releaseLogBuf(bool withMutex, bool withRead, bool withWrite) {
    LogBuf* record = mLogBuf;
    std::free(record->buf);
    record->buf = nullptr;
    if (withWrite && sem_destroy(&record->sem_write) < 0) {
        logError("destroy sem_write failure\n");
        logErrno();
    }
    if (withRead && sem_destroy(&record->sem_read) < 0) {
        logError("destroy sem_read failure\n");
        logErrno();
    }
    int error = withMutex ? pthread_mutex_destroy(&record->mutex) : 0;
    if (error != 0) {
        logError("destroy mutex\n");
        logErrno(error);
    }
    delete record;
    mLogBuf = nullptr;
    reopenBuffer();
}

} // namespace vnlog

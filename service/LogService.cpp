#include "service/LogService.h"

#include "platform/sysroot/SystemRoot.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"

#include <cstdlib>
#include <cstring>

namespace vnlog {

LogService::LogService(DeferStart) {
    (void)sem_init(&mKLogSem, 0, 0); // cannot fail for a private semaphore of count 0
    (void)sem_init(&mALogSem, 0, 0);
    (void)sem_init(&mBufIdle, 0, 0);
    (void)platform::readSystemRoot(mSystemRoot, sizeof mSystemRoot); // the start refuses one that is too long
}

LogService::LogService() : LogService(DeferStart{}) {
    const bool flags[] = {true, true, true};
    if (serviceStart(flags) != 0)
        logError("The log service failed to start !\n");
}

LogService::~LogService() {
    const bool flags[] = {true, true, true};
    if (serviceStop(flags) < 0)
        logError("serviceStop failed \n");
    if (sem_destroy(&mKLogSem) < 0) {
        logError("error destroy sem failure [%d]\n", 0);
        logErrno();
    }
    if (sem_destroy(&mALogSem) < 0) {
        logError("error destroy sem failure [%d]\n", 1);
        logErrno();
    }
    (void)sem_destroy(&mBufIdle); // a destroyed object has no user left who could be waiting
    logBufFlushExit();
    releaseConfigurationTexts();
    if (mLogFormat != nullptr) {
        androidLogClearAllFilterRule(mLogFormat);
        android_log_format_free(mLogFormat);
    }
    std::free(mSavePath);
}

int LogService::getLogFd() {
    char path[sizeof mCurrentLogFile];
    {
        std::lock_guard<std::mutex> lock(mStorageLock);
        std::memcpy(path, mCurrentLogFile, sizeof path);
    }
    return openFile(path, O_RDONLY).release();
}

uint32_t LogService::bufferedBytes() const {
    const LogBuf* buffer = enterBuffer();
    if (buffer == nullptr)
        return 0;
    uint32_t used = buffer->size - buffer->free_size;
    leaveBuffer();
    return used;
}

} // namespace vnlog

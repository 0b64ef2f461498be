#include "platform/sysroot/SystemRoot.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "storage/StorageFormat.h"

#include <cerrno>
#include <cstdlib>
#include <new>
#include <unistd.h>

namespace vnlog {

namespace {

/** The file that the settings are read from at start. */
const char* chooseConfigurationFile(const char* own) {
    if (access(own, F_OK) == 0)
        return own;
    const char* fallback = std::getenv("LOG_DEFAULT_CFG");
    if (fallback != nullptr && access(fallback, F_OK) == 0)
        return fallback;
    return "system/etc/log_service/log_default.cfg";
}

} // namespace

int LogService::serviceStart(const bool* flags) {
    if (mServiceStarted) {
        logError("serviceStart refused: the service is started already\n");
        return -1;
    }
    if (!platform::readSystemRoot(mSystemRoot, sizeof mSystemRoot)) {
        logError("the system root is longer than %zu characters\n", platform::kMaxSystemRoot);
        return -1;
    }
    formatPath(mCfgPath, "%s%s/log.cfg", mSystemRoot, kDefaultRoot);
    restoreConfiguration();
    loadConfiguration();
    if (settleStorageRoot() != 0) {
        logError("Failed to obtain the save path !\n");
        releaseConfigurationTexts();
        return -1;
    }
    logBufFlushExit();
    mSliceNum = 1; // a run numbers its sections from 1, also when the object is started once more
    mCurLogSize = 0;
    mCurrentTotalSize = 0;
    mRootChanged = mCompressPending = mBoundPending = false;
    if (openStorageNumbers() != 0 || createLogBuf() != 0) {
        releaseConfigurationTexts();
        return -1;
    }
    if (logFilterInit() != 0) {
        logError("fail to logFilterInit !\n");
        return failStart();
    }
    releaseConfigurationTexts();

    bool storageReady = prepareStorage() == 0;
    if (storageReady && logConfigSave() != 0) {
        logError("The log configuration failed to save !\n");
        return failStart();
    }
    if (storageReady && logStorageDataSave() != 0) {
        logError("The storage data failed to save !\n");
        return failStart();
    }
    if (startWorkers(flags, storageReady) != 0)
        return failStart();
    mServiceStarted = true;
    logDebug("LogService start success\n");
    return 0;
}

void LogService::loadConfiguration() {
    if (logConfigParse(chooseConfigurationFile(mCfgPath)) == -1)
        (void)logConfigInit(); // cannot fail
}

/** logGetSavePath under the lock: getLogFd may be called in any state. */
int LogService::settleStorageRoot() {
    std::lock_guard<std::mutex> lock(mStorageLock);
    return logGetSavePath();
}

void LogService::releaseConfigurationTexts() {
    if (!mCfgTextsOwned)
        return;
    std::free(mModuleCfg);
    std::free(mFormatCfg);
    mModuleCfg = nullptr;
    mFormatCfg = nullptr;
    mCfgTextsOwned = false;
}

int LogService::openStorageNumbers() {
    mendInterruptedDeletion();
    if (access(mStorageDataFile, F_OK) != 0) {
        logError("[%s] the stored data does not exist!\n", mStorageDataFile);
        if (access(mLogServiceDir, F_OK) == 0)
            recoverMissingNumbers();
        return 0;
    }
    if (logStorageDataParse() < 0)
        return recoverNumbers();
    if (!numbersMatchDisk()) {
        logError("the storage data contradicts the folders and is rebuilt\n");
        (void)recoverNumbers(); // reported there; what it cannot tell is found out by the deletions
    }
    return 0;
}

/** Without log_storage.dat: rebuilds the numbers, or deletes everything when the stored logs cannot be
 * trusted. */
void LogService::recoverMissingNumbers() {
    if (repairLogDatFile() != 0) {
        logError("There may be risks if the attempt to parse out the stored data fails ."
                 "Try to delete all the logs\n");
        (void)deleteAllLog(); // it reports its failures itself; the start goes on with what is left
        return;
    }
    Path oldForm;
    formatPath(oldForm.text, "%s_%u/log.txt.gz", mLastDirPrefix, mTailFolderNum);
    bool tooLarge = mTotalLogSize > static_cast<uint32_t>(mMaxLogSize) << 20;
    if (access(mCurrentLogFile, F_OK) == 0 || access(oldForm.text, F_OK) == 0 || tooLarge) {
        logError("Try to delete all the logs\n");
        (void)deleteAllLog();
    }
}

/**
 * With an unreadable log_storage.dat: rebuilds the numbers. A run that was cut off in its first section
 * leaves nothing that can be counted; it is closed off first then.
 */
int LogService::recoverNumbers() {
    if (repairLogDatFile() == 0)
        return 0;
    uint32_t size = 0;
    if (closePreviousRun(&size) == 0 && (repairLogDatFile() == 0 || startNumbersAnew()))
        return 0;
    logError("The storage data parsing failed and the attempt to recover failed\n");
    return -1;
}

int LogService::createLogBuf() {
    closeBuffer();
    mLogBuf = new (std::nothrow) LogBuf{};
    if (mLogBuf == nullptr) {
        logError("fail to malloc log buf struct!\n");
        logErrno();
        reopenBuffer();
        return -1;
    }
    int mutexError = pthread_mutex_init(&mLogBuf->mutex, nullptr);
    bool withRead = mutexError == 0 && sem_init(&mLogBuf->sem_read, 0, 0) == 0;
    bool withWrite = withRead && sem_init(&mLogBuf->sem_write, 0, 0) == 0;
    if (!withWrite) {
        logError("Synchronization primitives init failed\n");
        logErrno(mutexError != 0 ? mutexError : errno);
        releaseLogBuf(mutexError == 0, withRead, false);
        return -1;
    }
    mALogFileMinPri = ANDROID_LOG_DEBUG;
    mLogBuf->buf = allocateText(kLogBufSize).release();
    if (mLogBuf->buf == nullptr) {
        logError("fail to malloc log buf!\n");
        logErrno();
        releaseLogBuf();
        return -1;
    }
    mLogBuf->size = kLogBufSize;
    mLogBuf->last_pos = kLogBufSize - 1;
    mLogBuf->free_size = kLogBufSize;
    mFlushAll = false;
    mDrainFailing = false;
    reopenBuffer();
    return 0;
}

/** Closes off the previous run, if need be after deleting all logs. 0 when sections can be written. */
int LogService::prepareStorage() {
    int result = init_Log_Storage();
    if (result != 0) {
        (void)deleteAllLog(); // the second try shows whether it helped
        logError("error: init_Log_Storage failed, ret=%d,try to delete all the logs\n", result);
        result = init_Log_Storage();
    }
    if (result != 0) {
        logError("error: failed to init log storage, ret=%d. please check it\n", result);
        logError("log save thread will not start!\n");
        return result;
    }
    mendInterruptedArchiving();
    return 0;
}

int LogService::startWorkers(const bool* flags, bool storageReady) {
    if (storageReady && flags[FLUSH_THREAD] &&
        startWorker(mFlushThreadRunning, mFlushThread, logBufFlush, "logBufFlush") != 0)
        return -1;
    if (storageReady && flags[KERNEL_READER] &&
        startWorker(mKLogThreadRunning, mKLogThread, kernelLogReader, "kernelLogReader") != 0)
        return -1;
    if (flags[ANDROID_READER] && startWorker(mLogcatThreadRunning, mLogcatThread, logcat, "logcat") != 0)
        return -1;
    return 0;
}

/** Starts a worker under its name. 0, or -1, reported, when there is no thread for it. */
int LogService::startWorker(Flag& running, pthread_t& handle, void* (*body)(void*), const char* name) {
    running = true; // before the thread exists, so that its first look finds it
    int error = pthread_create(&handle, nullptr, body, this);
    if (error == 0) {
        (void)pthread_setname_np(handle, name); // a nameless thread works as well
        return 0;
    }
    running = false;
    logError("%s thread failed to start !\n", name);
    logErrno(error);
    return -1;
}

/** Ends a start that got as far as the ring buffer: stops what runs already, then releases the buffer. */
int LogService::failStart() {
    releaseConfigurationTexts();
    if (mKLogThreadRunning)
        (void)stopKernelReader(); // reported there; the start has failed in any case
    if (mFlushThreadRunning)
        (void)stopFlushThread();
    closeBuffer();
    releaseLogBuf();
    return -1;
}

} // namespace vnlog

#include "service/Lifecycle.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Text.h"
#include "config/ConfigFile.h"
#include "platform/klog/ConsoleLevel.h"
#include "service/Parts.h"
#include "storage/Layout.h"

#include <cerrno>

namespace vnlog {

bool Lifecycle::start(const bool* flags) {
    if (mService.mServiceStarted) {
        logError("serviceStart refused: the service is started already\n");
        return false;
    }
    if (!mParts.systemRoot.read()) {
        logError("the system root is longer than %zu characters\n", platform::kMaxSystemRoot);
        return false;
    }
    readSettings();
    bool opened = openStore();
    mService.mALogFileMinPri = ANDROID_LOG_DEBUG;
    if (!opened || !mParts.ring.create()) {
        releaseTexts();
        return false;
    }
    bool storing = false;
    bool ready = buildFilter() && closePreviousRun(&storing);
    if (!ready || !startWorkers(flags, storing)) {
        undoStart();
        return false;
    }
    mService.mServiceStarted = true;
    logDebug("LogService start success\n");
    return true;
}

void Lifecycle::readSettings() {
    LockGuard<CommandLock> lock(mParts.commandLock);
    formatText(mService.mCfgPath, "%s%s%s", mParts.systemRoot.path, kDefaultRoot, kConfigurationName);
    restoreConfiguration(mService.mCfgPath);
    if (!mParts.settings.parse(chooseConfiguration(mService.mCfgPath)))
        mParts.settings.takeDefaults();
}

void Lifecycle::releaseTexts() {
    LockGuard<CommandLock> lock(mParts.commandLock);
    mParts.settings.releaseTexts();
}

/** Settles the root and finds out what is stored there. */
bool Lifecycle::openStore() {
    if (!mParts.store.resolveRoot()) {
        logError("Failed to obtain the save path !\n");
        return false;
    }
    mParts.store.beginRun();
    return mParts.store.openNumbers();
}

/** Builds the filter, after which the texts that it is built from are not needed any more. */
bool Lifecycle::buildFilter() {
    LockGuard<CommandLock> lock(mParts.commandLock);
    bool built = applyFilter();
    mParts.settings.releaseTexts();
    if (!built)
        logError("fail to logFilterInit !\n");
    return built;
}

bool Lifecycle::applyFilter() {
    if (platform::setConsoleLevel(mParts.systemRoot.path, mService.mKLogLevel) < 0) {
        logError("fail to set the kernel log level,level is :%d\n", mService.mKLogLevel.load());
        logErrno();
    }
    return mParts.filter.build(mService.mFormatCfg, mService.mModuleCfg, mService.mALogLevel);
}

/**
 * Closes off the previous run and saves what holds from now on; `storing` tells whether sections can be
 * written. A store that cannot be used is no failure.
 */
bool Lifecycle::closePreviousRun(bool* storing) {
    *storing = mParts.store.prepare();
    if (!*storing)
        return true;
    if (!saveSettings()) {
        logError("The log configuration failed to save !\n");
        return false;
    }
    if (!mParts.store.saveNumbers()) {
        logError("The storage data failed to save !\n");
        return false;
    }
    return true;
}

bool Lifecycle::saveSettings() {
    LockGuard<CommandLock> lock(mParts.commandLock);
    return mParts.settings.save();
}

bool Lifecycle::startWorkers(const bool* flags, bool storing) {
    LogService& s = mService;
    if (storing && flags[LogService::FLUSH_THREAD] &&
        !startWorker(s.mFlushThreadRunning, s.mFlushThread, LogService::logBufFlush, "logBufFlush"))
        return false;
    if (storing && flags[LogService::KERNEL_READER] &&
        !startWorker(s.mKLogThreadRunning, s.mKLogThread, LogService::kernelLogReader, "kernelLogReader"))
        return false;
    return !flags[LogService::ANDROID_READER] ||
           startWorker(s.mLogcatThreadRunning, s.mLogcatThread, LogService::logcat, "logcat");
}

/** Starts a worker under its name. False, reported, when there is no thread for it. */
bool Lifecycle::startWorker(Flag& running, pthread_t& handle, void* (*body)(void*), const char* name) {
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

/** Ends a start that failed with the ring made: stops what runs already, then releases the ring. */
void Lifecycle::undoStart() { // the Android reader starts last, so it never runs here
    if (mService.mKLogThreadRunning)
        (void)stopKernelReader(); // reported there; the start has failed in any case
    if (mService.mFlushThreadRunning)
        (void)stopFlushThread();
    mParts.ring.release();
}

/*
 * The readers are ended before the command lock is taken: a reader that has found the storage full may itself
 * be waiting for that lock, in a command or in a stop of its own, and is joined here all the same.
 */
bool Lifecycle::stop(const bool* flags) {
    CancelGuard guard;
    if (!mService.mServiceStarted)
        return false;
    logDebug("Thread stopped \n");
    if (flags[LogService::KERNEL_READER] && mService.mKLogThreadRunning && !stopKernelReader())
        return false;
    if (flags[LogService::ANDROID_READER] && mService.mLogcatThreadRunning && !stopAndroidReader())
        return false;

    LockGuard<CommandLock> lock(mParts.commandLock);
    if (flags[LogService::FLUSH_THREAD] && mService.mFlushThreadRunning && !stopFlushThread())
        return false;
    if (!mService.mFlushThreadRunning) // it needs the ring as long as it runs
        mParts.ring.release();
    mService.mServiceStarted =
        mService.mKLogThreadRunning || mService.mLogcatThreadRunning || mService.mFlushThreadRunning;
    return true;
}

bool Lifecycle::stopKernelReader() {
    if (!cancelReader(mService.mKLogThread, "kernelLogReader"))
        return false;
    if (pthread_join(mService.mKLogThread, nullptr) != 0) {
        logDebug("error join kernelLogReader thread\n");
        return false;
    }
    mService.mKLogThreadRunning = false;
    logDebug("Thread kernelLogReader is stopped successfully!\n");
    return true;
}

bool Lifecycle::stopAndroidReader() {
    if (!cancelReader(mService.mLogcatThread, "logcat"))
        return false;
    int error = pthread_join(mService.mLogcatThread, nullptr);
    if (error != 0) {
        logError("error join logcat thread\n");
        logErrno(error);
        return false;
    }
    mService.mLogcatThreadRunning = false;
    logDebug("Thread logcat is stopped successfully!\n");
    return true;
}

/** Asks a reader to end at its next cancellation point. False, reported, when that is not possible. */
bool Lifecycle::cancelReader(pthread_t thread, const char* name) {
    int error = pthread_cancel(thread);
    if (error == 0 || error == ESRCH) // it has ended by itself already
        return true;
    logError("Thread %s is stopped unsuccessfully! \n", name);
    logErrno(error);
    return false;
}

bool Lifecycle::stopFlushThread() {
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

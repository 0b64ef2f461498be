#include "service/Lifecycle.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Text.h"
#include "config/ConfigFile.h"
#include "platform/klog/ConsoleLevel.h"
#include "service/Parts.h"
#include "storage/Layout.h"

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
    if (!mParts.settings.load())
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
    Workers& workers = mParts.workers;
    if (storing && flags[LogService::FLUSH_THREAD] && !workers.startFlushThread())
        return false;
    if (storing && flags[LogService::KERNEL_READER] && !workers.startKernelReader())
        return false;
    return !flags[LogService::ANDROID_READER] || workers.startAndroidReader();
}

/** Ends a start that failed with the ring made: stops what runs already, then releases the ring. */
void Lifecycle::undoStart() { // the Android reader starts last, so it never runs here
    const bool started[] = {true, true, false};
    mParts.workers.askToFinish(started);
    if (mService.mKLogThreadRunning)
        (void)mParts.workers.endKernelReader(); // reported there; the start has failed in any case
    mParts.workers.drain();
    if (mService.mFlushThreadRunning)
        (void)mParts.workers.endFlushThread();
    mParts.ring.release();
}

/*
 * The data's way from its end: the readers put in what there is, the ring is written out, the flush thread
 * closes the section. The readers are ended without the command lock: one that has found the storage full may
 * itself be waiting for that lock, in a command or in a stop of its own, and is joined here all the same.
 */
bool Lifecycle::stop(const bool* flags) {
    CancelGuard guard;
    LockGuard<HostLock> host(mHostLock);
    if (!mService.mServiceStarted)
        return false;
    logDebug("Thread stopped \n");
    if (!endReaders(flags))
        return false;
    if (flags[LogService::FLUSH_THREAD])
        mParts.workers.drain();
    return endStoring(flags[LogService::FLUSH_THREAD]);
}

bool Lifecycle::endReaders(const bool* flags) {
    Workers& workers = mParts.workers;
    workers.askToFinish(flags);
    if (flags[LogService::KERNEL_READER] && mService.mKLogThreadRunning && !workers.endKernelReader())
        return false;
    return !flags[LogService::ANDROID_READER] || !mService.mLogcatThreadRunning || workers.endAndroidReader();
}

bool Lifecycle::stopStoring() {
    if (!mService.mServiceStarted)
        return false;
    logDebug("Thread stopped \n");
    return endStoring(true);
}

/** Ends the flush thread if it is to, and tells what is left of the service. */
bool Lifecycle::endStoring(bool flushThread) {
    LockGuard<CommandLock> lock(mParts.commandLock);
    if (flushThread && mService.mFlushThreadRunning && !mParts.workers.endFlushThread())
        return false;
    if (!mService.mFlushThreadRunning) // it needs the ring as long as it runs
        mParts.ring.release();
    mService.mServiceStarted =
        mService.mKLogThreadRunning || mService.mLogcatThreadRunning || mService.mFlushThreadRunning;
    return true;
}

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#include "service/Lifecycle.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Semaphores.h"
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
    readSettings(flags);
    bool opened = openStore();
    mService.mALogFileMinPri = ANDROID_LOG_DEBUG;
    if (!opened || !makeRing()) {
        releaseTexts();
        return false;
    }
    if (!buildFilter() || !beginService(flags, beginStoring())) {
        undoStart();
        return false;
    }
    logDebug("LogService start success\n");
    return true;
}

bool Lifecycle::makeRing() {
    Path folder;
    formatText(folder.text, "%s%s", mParts.systemRoot.path, platform::kRunFolder);
    return mService.mLogBuf != nullptr || mParts.ring.create(folder.text);
}

/** With the lock held until the service is started, so that a reader whose storage is full finds it so. */
bool Lifecycle::beginService(const bool* flags, bool storing) {
    LockGuard<CommandLock> lock(mParts.commandLock);
    mParts.intake.awaitStorage(!storing && flags[LogService::FLUSH_THREAD]);
    if (!startWorkers(flags, storing))
        return false;
    mService.mServiceStarted = true;
    if (!storing)
        mParts.comeback.awaitStorage();
    mParts.comeback.awaitRoot();
    mParts.status.beginRun();
    return true;
}

void Lifecycle::readSettings(const bool* flags) {
    LockGuard<CommandLock> lock(mParts.commandLock);
    mParts.comeback.beginRun(flags);
    mParts.intake.beginRun();
    const platform::SystemRoot& root = mParts.systemRoot;
    formatText(mService.mCfgPath, "%s%s%s", root.path, root.places().storageRoot, kConfigurationName);
    mParts.settings.load();
}

void Lifecycle::releaseTexts() {
    LockGuard<CommandLock> lock(mParts.commandLock);
    mParts.settings.releaseTexts();
}

/** Settles the root. */
bool Lifecycle::openStore() {
    if (!mParts.store.resolveRoot()) {
        logError("Failed to obtain the save path !\n");
        return false;
    }
    mParts.store.beginRun();
    return true;
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

/** Prepares the store. One that cannot be used is no failure of the start. */
bool Lifecycle::beginStoring() {
    LockGuard<CommandLock> lock(mParts.commandLock);
    return prepareStore();
}

bool Lifecycle::readSettingsAgain() {
    logDebug("[%s] is there now, its settings are used\n", mService.mCfgPath);
    const bool wasOff = !mService.mALogOutput;
    mParts.settings.load();
    if (wasOff && mService.mALogOutput)
        postOrReport(&mService.mALogSem, "Cmd A_LOG_OUTPUT sem_post failed \n"); // its reader waits already
    bool usable = mParts.store.resolveRoot() && applyFilter();
    mParts.settings.releaseTexts();
    return usable;
}

bool Lifecycle::prepareStore() {
    mParts.store.settleRing(); // before sections are moved
    if (!mParts.store.prepare())
        return false;
    if (!mParts.settings.save()) {
        logError("The log configuration failed to save !\n");
        return false;
    }
    if (!mParts.store.saveNumbers()) {
        logError("The storage data failed to save !\n");
        return false;
    }
    return true;
}

bool Lifecycle::startWorkers(const bool* flags, bool storing) {
    Workers& workers = mParts.workers;
    if (storing && flags[LogService::FLUSH_THREAD]) {
        if (!workers.startFlushThread())
            return false;
        if (mParts.settings.forgetGivingUp())
            mParts.intake.tellOlderLoss(); // before any reader puts a line in
        mParts.ring.announce();
        mParts.lastWords.store();
    }
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
    mParts.ring.closeMemory();
    mParts.store.leaveRoot();
}

/*
 * The data's way from its end: the readers put in what there is, the ring is written out, the flush thread
 * closes the section. The readers are ended without the command lock: one that has found the storage full may
 * itself be waiting for that lock, in a command or in a stop of its own, and is joined here all the same.
 */
bool Lifecycle::stop(const bool* flags) {
    CancelGuard guard;
    LockGuard<HostLock> host(mHostLock);
    mParts.comeback.end(); // also of a service of which nothing else is left
    if (!mService.mServiceStarted)
        return false;
    logDebug("Thread stopped \n");
    if (!endReaders(flags))
        return false;
    if (flags[LogService::FLUSH_THREAD]) {
        mParts.workers.drain();
        mParts.lastWords.settle();
    }
    return endStoring(flags);
}

bool Lifecycle::endReaders(const bool* flags) {
    Workers& workers = mParts.workers;
    workers.askToFinish(flags);
    if (flags[LogService::KERNEL_READER] && mService.mKLogThreadRunning && !workers.endKernelReader())
        return false;
    return !flags[LogService::ANDROID_READER] || !mService.mLogcatThreadRunning || workers.endAndroidReader();
}

bool Lifecycle::stopStoring() {
    LockGuard<CommandLock> lock(mParts.commandLock);
    if (!mService.mServiceStarted)
        return false;
    if (!mParts.intake.givenUp())
        return true; // a command has brought it back already
    logDebug("Thread stopped \n");
    if (!mParts.comeback.stopStoring())
        return false;
    mService.mServiceStarted = anyWorker();
    if (mService.mServiceStarted)
        mParts.comeback.awaitRoom();
    return true;
}

/** Ends the flush thread if it is to, and tells what is left of the service. */
bool Lifecycle::endStoring(const bool* flags) {
    LockGuard<CommandLock> lock(mParts.commandLock);
    if (flags[LogService::FLUSH_THREAD] && mService.mFlushThreadRunning && !mParts.workers.endFlushThread())
        return false;
    if (!mService.mFlushThreadRunning) { // it needs both as long as it runs
        mParts.ring.release();
        mParts.store.leaveRoot();
    }
    mService.mServiceStarted = anyWorker();
    if (!mService.mServiceStarted) {
        mParts.intake.reportLost(); // while the memory still tells
        mParts.ring.closeMemory();
    }
    if (mService.mServiceStarted && !flags[LogService::FLUSH_THREAD])
        mParts.comeback.resume(flags);
    return true;
}

bool Lifecycle::anyWorker() const {
    return mService.mKLogThreadRunning || mService.mLogcatThreadRunning || mService.mFlushThreadRunning;
}

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#include "service/Comeback.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Semaphores.h"
#include "service/Parts.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace vnlog {

namespace {

constexpr int kPauseSeconds = 60;
constexpr uint32_t kSectionsOfRoom = 2; // fewer would be full again at once

} // namespace

Comeback::Comeback(LogService& service, ServiceParts& parts) : mService(service), mParts(parts) {
    (void)sem_init(&mWake, 0, 0); // cannot fail for a private semaphore of count 0
}

Comeback::~Comeback() {
    (void)sem_destroy(&mWake); // the stop has ended the thread
}

void Comeback::beginRun(const bool* flags) {
    std::copy(flags, flags + 3, mFlags);
    mCause = Cause::None;
    mWanted = false;
    mAllowed = true;
}

void Comeback::awaitStorage() {
    mCause = Cause::NotPrepared;
    mWanted = missed();
    begin();
}

void Comeback::awaitRoot() {
    begin();
}

void Comeback::awaitRoom() {
    mCause = Cause::Full;
    mWanted = missed();
    begin();
}

void Comeback::resume(const bool* stopped) {
    for (int worker : {LogService::FLUSH_THREAD, LogService::KERNEL_READER, LogService::ANDROID_READER})
        mFlags[worker] = mFlags[worker] && !stopped[worker];
    mAllowed = true;
    mWanted = missed();
    begin();
}

/** Whether somebody wants what is not done. */
bool Comeback::missed() const {
    switch (mCause) {
    case Cause::None:
        return false;
    case Cause::NotPrepared:
        return storingAsked();
    case Cause::Full:
        return mService.mStorageFull; // the user has not switched storing off meanwhile
    }
    return false;
}

bool Comeback::storingAsked() const {
    return mFlags[LogService::FLUSH_THREAD] || mFlags[LogService::KERNEL_READER];
}

bool Comeback::rootMissed() const {
    return storingAsked() && mParts.store.awaitedRoot() != nullptr;
}

/** Begins the thread if it is missing. */
void Comeback::begin() {
    if (!mAllowed || mAlive || !(mWanted || rootMissed()))
        return;
    if (mJoinable)
        pthread_join(mThread, nullptr); // it has let go of the command lock for the last time
    while (sem_trywait(&mWake) == 0) {
    }
    int error = pthread_create(&mThread, nullptr, body, this);
    mAlive = mJoinable = error == 0;
    if (error != 0) {
        logError("%s thread failed to start !\n", "comeback");
        logErrno(error);
        return;
    }
    (void)pthread_setname_np(mThread, "comeback"); // a nameless thread works as well
}

void Comeback::end() {
    pthread_t thread;
    {
        LockGuard<CommandLock> lock(mParts.commandLock);
        mAllowed = false;
        if (!mJoinable)
            return;
        mJoinable = false;
        thread = mThread;
        post(&mWake);
    }
    pthread_join(thread, nullptr);
}

void* Comeback::body(void* comeback) {
    static_cast<Comeback*>(comeback)->run();
    return nullptr;
}

void Comeback::run() {
    for (;;) {
        pause();
        LockGuard<CommandLock> lock(mParts.commandLock);
        // First the root: it may be where there is room.
        if (mAllowed && rootMissed())
            (void)moveToAwaited();
        if (mAllowed && mWanted)
            (void)tryAgain();
        mParts.status.look();
        if (mAllowed && (mWanted || rootMissed()))
            continue;
        mAlive = false;
        return;
    }
}

/** Waits until it is time for a try, or somebody wakes the thread. */
void Comeback::pause() {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += kPauseSeconds;
    while (sem_clockwait(&mWake, CLOCK_MONOTONIC, &end) < 0 && errno == EINTR) {
    }
}

bool Comeback::tryAgain() {
    if (mCause == Cause::NotPrepared)
        return prepareAgain();
    if (!roomAgain(false) || !storeAgain())
        return false;
    if (!mParts.settings.save())
        logError("The log configuration failed to save !\n");
    return true;
}

/** Moves the store to the configured root once that can be opened; a change that fails says why. */
bool Comeback::moveToAwaited() {
    Folder folder(mParts.store.awaitedRoot());
    if (!folder.valid())
        return false;
    Path root, before;
    formatText(root.text, "%s", mParts.store.awaitedRoot());
    formatText(before.text, "%s", mParts.store.root());
    if (mParts.store.changeRoot(root.text) != RootChangeStatus::Done)
        return false;
    mParts.store.closeSection(); // of the root before: nobody has chosen that one
    logDebug("[%s] can be used now; what was stored meanwhile stays under [%s]\n", root.text, before.text);
    return true;
}

/** What the start could not do. */
bool Comeback::prepareAgain() {
    const bool storing[] = {mFlags[LogService::FLUSH_THREAD], mFlags[LogService::KERNEL_READER], false};
    if (mParts.settings.ownAppeared() && !mParts.lifecycle.readSettingsAgain())
        return false;
    if (!mParts.lifecycle.makeRing() || !mParts.lifecycle.prepareStore())
        return false;
    if (!mParts.lifecycle.startWorkers(storing, true)) {
        if (mService.mFlushThreadRunning)
            (void)mParts.workers.endFlushThread(); // reported there; the next try begins anew
        mParts.ring.release();
        return false;
    }
    mParts.intake.awaitStorage(false); // by now what comes is taken
    mCause = Cause::None;
    mWanted = false;
    logDebug("the storage can be used now, storing begins\n");
    return true;
}

bool Comeback::roomAgain(bool report) {
    uint32_t free = mParts.medium.freeBytes();
    uint32_t need = kSectionsOfRoom * mService.mLogSectionSize;
    if (free < need && report)
        logError("Storage path space is insufficient,free space (%zd),need space (%zd)\n",
                 static_cast<ssize_t>(free), static_cast<ssize_t>(need));
    return free >= need;
}

/** Begins storing with an empty ring; its first line tells what was lost. */
bool Comeback::storeAgain() {
    if (!stopStoring() || !mParts.lifecycle.makeRing())
        return false;
    if (!mParts.workers.startFlushThread()) {
        mParts.ring.release();
        return false;
    }
    logDebug("there is room again, storing goes on; %u lines were lost\n", mParts.intake.resume());
    mCause = Cause::None;
    mWanted = false;
    return true;
}

bool Comeback::stopStoring() {
    if (!mService.mFlushThreadRunning)
        return true;
    mParts.ring.giveUp();
    if (!mParts.workers.endFlushThread())
        return false;
    mParts.ring.release();
    return true;
}

bool Comeback::switchOn() {
    if (mWanted && mCause == Cause::NotPrepared)
        (void)prepareAgain(); // the user may have made it usable
    if (!mParts.intake.givenUp())
        return true;
    if (!roomAgain(true) || !storeAgain())
        return false;
    post(&mWake); // the thread, if any, finds that it is not needed any more
    return true;
}

void Comeback::switchOff() {
    if (!mParts.intake.forgo())
        return;
    mWanted = false;
    post(&mWake);
}

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "binder/StoringSwitch.h"
#include "service/LogService.h"

#include <semaphore.h>

namespace vnlog {

/**
 * Brings storing back: after a start that could not prepare the storage, and after it was given up because
 * the medium was full. Brings it to the configured root when a start could not open that. A thread tries it
 * every minute; it ends once nothing of this is missed. A try holds the command lock, so that no command runs
 * meanwhile.
 */
class Comeback final : public StoringSwitch {
  public:
    /** Both must outlive the object. */
    Comeback(LogService& service, ServiceParts& parts);
    ~Comeback();
    Comeback(const Comeback&) = delete;
    Comeback& operator=(const Comeback&) = delete;

    /** Forgets the run before; `flags` are those of serviceStart and tell what storing consists of. */
    void beginRun(const bool* flags) VNLOG_REQUIRES(CommandLock::role);
    /** The storage could not be prepared: begins to try that, if it would be used at all. */
    void awaitStorage() VNLOG_REQUIRES(CommandLock::role);
    /** Begins to try the configured root, if the store waits for one. */
    void awaitRoot() VNLOG_REQUIRES(CommandLock::role);
    /**
     * Ends the flush thread of a storing that was given up, if it still runs: what is in the ring is lost to
     * the full storage.
     * False when it cannot be ended.
     */
    [[nodiscard]] bool stopStoring() VNLOG_REQUIRES(CommandLock::role);
    /** Storing was given up and stopped: begins to wait for room, unless the user has switched it off. */
    void awaitRoom() VNLOG_REQUIRES(CommandLock::role);

    bool awaitsStorage() const override VNLOG_REQUIRES(CommandLock::role) {
        return mCause == Cause::NotPrepared;
    }

    bool switchOn() override VNLOG_REQUIRES(CommandLock::role);
    void switchOff() override VNLOG_REQUIRES(CommandLock::role);

    /** Ends the thread; none is begun from now on until the next run or resume. For a stop of the host. */
    void end() VNLOG_EXCLUDES(CommandLock::role);
    /** Takes that back after a stop of other workers, whose flags these are; they are not started again. */
    void resume(const bool* stopped) VNLOG_REQUIRES(CommandLock::role);

  private:
    enum class Cause { None, NotPrepared, Full };

    static void* body(void* comeback);
    void run() VNLOG_EXCLUDES(CommandLock::role);
    void begin() VNLOG_REQUIRES(CommandLock::role);
    void pause();
    bool tryAgain() VNLOG_REQUIRES(CommandLock::role);
    bool prepareAgain() VNLOG_REQUIRES(CommandLock::role);
    bool roomAgain(bool report);
    bool storeAgain() VNLOG_REQUIRES(CommandLock::role);
    bool moveToAwaited() VNLOG_REQUIRES(CommandLock::role);
    bool rootMissed() const VNLOG_REQUIRES(CommandLock::role);
    bool storingAsked() const VNLOG_REQUIRES(CommandLock::role);
    bool missed() const VNLOG_REQUIRES(CommandLock::role);

    LogService& mService;
    ServiceParts& mParts;
    sem_t mWake; ///< ends a pause
    Cause mCause VNLOG_GUARDED_BY(CommandLock::role) = Cause::None; ///< why nothing is stored
    bool mFlags[3] VNLOG_GUARDED_BY(CommandLock::role) = {}; ///< the workers that the start was asked for
    bool mAllowed VNLOG_GUARDED_BY(CommandLock::role) = false; ///< no stop of the host has ended it
    bool mWanted VNLOG_GUARDED_BY(CommandLock::role) = false; ///< storing is missed
    bool mAlive VNLOG_GUARDED_BY(CommandLock::role) = false; ///< the thread will look at this again
    bool mJoinable VNLOG_GUARDED_BY(CommandLock::role) = false;
    pthread_t mThread VNLOG_GUARDED_BY(CommandLock::role){};
};

} // namespace vnlog

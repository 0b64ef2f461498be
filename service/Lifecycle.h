// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "service/LogService.h"

namespace vnlog {

/** The role of the lock that lets one stop of the host run at a time. */
struct HostLock {
    static LockRole role;
};

/** The line that a host's failed start ends with in the Android log, behind the reason. */
constexpr char kStartFailed[] = "The log service failed to start !\n";

/** Starts and stops the service: the sequence of steps over the parts and the workers. */
class Lifecycle {
  public:
    /** Both must outlive the object. */
    Lifecycle(LogService& service, ServiceParts& parts) : mService(service), mParts(parts) {}

    /** LogService::serviceStart. */
    bool start(const bool* flags) VNLOG_EXCLUDES(CommandLock::role);
    /** LogService::serviceStop. */
    bool stop(const bool* flags) VNLOG_EXCLUDES(CommandLock::role, HostLock::role);
    /**
     * Stops the flush thread of a storage that is full, without writing anything out. On the thread that
     * found that out, which may be a reader that a stop is waiting for. False when the service is not started
     * or a step failed.
     */
    bool stopStoring() VNLOG_EXCLUDES(CommandLock::role);
    /**
     * Mends and prepares the store, closes off the previous run, and saves settings and numbers. Nothing is
     * being stored meanwhile. False, reported, when any of that fails: nothing can be stored.
     */
    [[nodiscard]] bool prepareStore() VNLOG_REQUIRES(CommandLock::role);
    /**
     * Reads the settings once more as a start does, for a log.cfg that was not there then, before anything is
     * stored. False when they cannot be used.
     */
    [[nodiscard]] bool readSettingsAgain() VNLOG_REQUIRES(CommandLock::role);
    /**
     * Starts the workers of these flags; without `storing` neither flush thread nor kernel reader. After a
     * run that had given storing up, the first line tells that. False when there is no thread for one: those
     * before it run.
     */
    bool startWorkers(const bool* flags, bool storing) VNLOG_REQUIRES(CommandLock::role);
    /** Makes the ring unless there is one; in a memory file where the system root has a folder for it. */
    [[nodiscard]] bool makeRing();
    /** LogService::logFilterInit. */
    bool applyFilter() VNLOG_REQUIRES(CommandLock::role);

  private:
    // start, in this order; the command lock is held only where settings are touched
    void readSettings(const bool* flags) VNLOG_EXCLUDES(CommandLock::role);
    bool openStore();
    bool buildFilter() VNLOG_EXCLUDES(CommandLock::role);
    bool beginStoring() VNLOG_EXCLUDES(CommandLock::role);
    void releaseTexts() VNLOG_EXCLUDES(CommandLock::role);
    bool beginService(const bool* flags, bool storing) VNLOG_EXCLUDES(CommandLock::role);
    void undoStart();
    // stop
    bool endReaders(const bool* flags) VNLOG_REQUIRES(HostLock::role);
    bool endStoring(const bool* flags) VNLOG_EXCLUDES(CommandLock::role);
    bool anyWorker() const;

    LogService& mService;
    ServiceParts& mParts;
    Mutex<HostLock> mHostLock;
};

} // namespace vnlog

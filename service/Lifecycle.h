#pragma once

#include "service/LogService.h"

namespace vnlog {

/** The role of the lock that lets one stop of the host run at a time. */
struct HostLock {
    static LockRole role;
};

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
    /** LogService::logFilterInit. */
    bool applyFilter() VNLOG_REQUIRES(CommandLock::role);

  private:
    // start, in this order; the command lock is held only where settings are touched
    void readSettings() VNLOG_EXCLUDES(CommandLock::role);
    bool openStore();
    bool buildFilter() VNLOG_EXCLUDES(CommandLock::role);
    bool closePreviousRun(bool* storing) VNLOG_EXCLUDES(CommandLock::role);
    bool saveSettings() VNLOG_EXCLUDES(CommandLock::role);
    void releaseTexts() VNLOG_EXCLUDES(CommandLock::role);
    bool startWorkers(const bool* flags, bool storing);
    void undoStart();
    // stop
    bool endReaders(const bool* flags) VNLOG_REQUIRES(HostLock::role);
    bool endStoring(bool flushThread) VNLOG_EXCLUDES(CommandLock::role);

    LogService& mService;
    ServiceParts& mParts;
    Mutex<HostLock> mHostLock;
};

} // namespace vnlog

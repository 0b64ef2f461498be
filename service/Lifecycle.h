#pragma once

#include "service/LogService.h"

namespace vnlog {

/** Starts and stops the service: the sequence of steps over the parts, and the workers. */
class Lifecycle {
  public:
    /** Both must outlive the object. */
    Lifecycle(LogService& service, ServiceParts& parts) : mService(service), mParts(parts) {}

    /** LogService::serviceStart. */
    bool start(const bool* flags) VNLOG_EXCLUDES(CommandLock::role);
    /** LogService::serviceStop. */
    bool stop(const bool* flags) VNLOG_EXCLUDES(CommandLock::role);
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
    bool startWorker(Flag& running, pthread_t& handle, void* (*body)(void*), const char* name);
    void undoStart();
    bool stopKernelReader();
    bool stopAndroidReader();
    bool cancelReader(pthread_t thread, const char* name);
    bool stopFlushThread();

    LogService& mService;
    ServiceParts& mParts;
};

} // namespace vnlog

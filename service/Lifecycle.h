#pragma once

#include "service/LogService.h"

namespace vnlog {

/** Starts and stops the service: the sequence of steps over the parts, and the workers. */
class Lifecycle {
  public:
    /** Both must outlive the object. */
    Lifecycle(LogService& service, LogService::Parts& parts) : mService(service), mParts(parts) {}

    /** LogService::serviceStart. */
    bool start(const bool* flags) VNLOG_EXCLUDES(CommandLock::role);
    /** LogService::serviceStop. */
    bool stop(const bool* flags) VNLOG_EXCLUDES(CommandLock::role);
    /** LogService::logFilterInit. */
    bool buildFilter() VNLOG_REQUIRES(CommandLock::role);

  private:
    bool prepare(bool* storing) VNLOG_REQUIRES(CommandLock::role);
    void readSettings() VNLOG_REQUIRES(CommandLock::role);
    bool openStore(bool* storing) VNLOG_REQUIRES(CommandLock::role);
    bool startWorkers(const bool* flags, bool storing);
    bool startWorker(Flag& running, pthread_t& handle, void* (*body)(void*), const char* name);
    void undoStart();
    bool stopKernelReader();
    bool stopAndroidReader();
    bool cancelReader(pthread_t thread, const char* name);
    bool stopFlushThread();

    LogService& mService;
    LogService::Parts& mParts;
};

} // namespace vnlog

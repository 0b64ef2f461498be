// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "binder/StatusSource.h"
#include "service/LogService.h"
#include "sources/SourceCounts.h"
#include "storage/Store.h"

#include <ctime>
#include <string>

namespace vnlog {

/** Tells how the service is: what STATUS answers. */
class Status final : public StatusSource {
  public:
    /** Both must outlive the object. */
    Status(LogService& service, ServiceParts& parts) : mService(service), mParts(parts) {}

    std::string status() override VNLOG_REQUIRES(CommandLock::role);
    std::string statusMeanwhile() override;
    void look() override VNLOG_REQUIRES(CommandLock::role);
    /** The service has been started. */
    void beginRun() VNLOG_REQUIRES(CommandLock::role);

  private:
    class Lines;
    enum class Storing { Works, SwitchedOff, Full, NotPrepared, NoThread, NotWritable };

    Storing storing() const VNLOG_REQUIRES(CommandLock::role);
    static const char* text(Storing storing);
    void addProblems(Lines* lines) VNLOG_REQUIRES(CommandLock::role);
    void addStoring(Lines* lines) VNLOG_REQUIRES(CommandLock::role);
    void addStorage(Lines* lines) VNLOG_REQUIRES(CommandLock::role);
    void addService(Lines* lines) VNLOG_REQUIRES(CommandLock::role);
    void addCounts(Lines* lines);
    void addMedium(Lines* lines);
    void addWork(Lines* lines);
    void addLosses(Lines* lines);
    static void addSource(Lines* lines, const char* group, const SourceTotals& totals, bool reading);

    LogService& mService;
    ServiceParts& mParts;
    Storing mStoring VNLOG_GUARDED_BY(CommandLock::role) = Storing::SwitchedOff;
    StoreExtent mExtent VNLOG_GUARDED_BY(CommandLock::role) = {}; ///< as it was seen last under mRoot
    bool mExtentSeen VNLOG_GUARDED_BY(CommandLock::role) = false;
    std::string mRoot VNLOG_GUARDED_BY(CommandLock::role);
    time_t mSince VNLOG_GUARDED_BY(CommandLock::role) = 0; ///< wall clock
    time_t mStarted VNLOG_GUARDED_BY(CommandLock::role) = 0;
    int64_t mStartUptime VNLOG_GUARDED_BY(CommandLock::role) = 0; ///< seconds since boot
};

} // namespace vnlog

#pragma once

#include "buffer/Ring.h"
#include "sources/LineSink.h"

#include <cstdint>

namespace vnlog {

class Lifecycle;
class LogService;

/** The one door into the ring for the readers' lines; gives storing up when the medium has no room left. */
class Intake final : public LineSink {
  public:
    /** All must outlive the intake. */
    Intake(LogService& service, Ring& ring, Lifecycle& lifecycle)
        : mService(service), mRing(ring), mLifecycle(lifecycle) {}

    bool inService() const override;
    bool put(const char* line, uint32_t length) override;
    /** Appends one record. False, reported where the ring does, when it is not taken. */
    bool append(const void* bytes, uint32_t length);

  private:
    void giveUpStoring(const PutResult& full);

    LogService& mService;
    Ring& mRing;
    Lifecycle& mLifecycle;
};

} // namespace vnlog

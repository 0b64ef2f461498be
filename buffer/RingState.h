#pragma once

#include "base/Flag.h"
#include "buffer/LogBuf.h"

namespace vnlog {

/** What the ring buffer and the flush thread share with everybody else. */
struct RingState {
    /// The ring buffer, from start to stop; replaced only while the ring keeps everybody out.
    LogBuf* mLogBuf = nullptr;
    Flag mFlushAll{false}; ///< everything buffered is to be written out
    Flag mFlushSwitch{false}; ///< write out on every wake-up
    Flag mFlushThreadRunning{false}; ///< without it the ring takes and gives nothing
};

} // namespace vnlog

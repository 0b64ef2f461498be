// SPDX-License-Identifier: Apache-2.0
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
    std::atomic<uint32_t> mFlushInterval{30}; ///< seconds after which bytes are on the medium; 0 for any time
    std::atomic<int32_t> mFlushPriority{
        7}; ///< lines of this Android priority or above are written out at once; 8 for none
};

} // namespace vnlog

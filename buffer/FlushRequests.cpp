// SPDX-License-Identifier: Apache-2.0
#include "buffer/FlushRequests.h"

namespace vnlog {

namespace {

/** Whether requests up to `last` include this one. */
bool includes(uint32_t last, uint32_t number) {
    return static_cast<int32_t>(last - number) >= 0;
}

} // namespace

FlushOutcome FlushRequests::outcome(uint32_t ticket) const {
    bool sync = (ticket & kSyncMark) != 0;
    uint32_t number = ticket - (sync ? kSyncMark : 0);
    if (number == 0)
        return FlushOutcome::NotInService;
    if (includes(sync ? mSynced : mWritten, number))
        return FlushOutcome::Done;
    return includes(mFailed, number) ? FlushOutcome::Failed : FlushOutcome::TimedOut;
}

} // namespace vnlog

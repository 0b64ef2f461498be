// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Flag.h"

#include <cstdint>

namespace vnlog {

/** What became of a request to flush. */
enum class FlushOutcome { Done, Failed, TimedOut, NotInService };

/**
 * The requests to write the ring out, numbered in the order of their coming, and how far they have been
 * served. They are made and taken up with the ring's lock held; whoever waits for one needs none.
 */
class FlushRequests {
  public:
    /** Makes a request, with `sync` also for the section to be synced after that. Its ticket, which is never
     * 0. */
    uint32_t make(bool sync) {
        uint32_t number = mLast += kStep;
        mSyncAsked = mSyncAsked || sync;
        mSyncWaitedFor = mSyncWaitedFor || sync;
        return sync ? number | kSyncMark : number;
    }
    /** Asks for a sync without a number; false when one is asked for and not begun. */
    bool askForSync() { return !mSyncAsked.exchange(true); }
    /** Whether a sync has been asked for since the last drain began. */
    bool syncAsked() const { return mSyncAsked; }
    /** The number of the last one. */
    uint32_t last() const { return mLast; }
    /** A drain begins: it serves all up to the last one. Whether it is to sync, and whether somebody waits
     * for that. */
    bool takeUp(bool* waitedFor) {
        *waitedFor = mSyncWaitedFor.exchange(false);
        return mSyncAsked.exchange(false);
    }

    /** All up to this number are written, and synced if so. */
    void served(uint32_t number, bool synced) {
        mWritten = number;
        if (synced)
            mSynced = number;
    }
    /** What was wanted up to this number has failed as far as it is not served. */
    void failed(uint32_t number) { mFailed = number; }
    /** Gives up all that are not served. */
    void abandon() {
        mSyncAsked = mSyncWaitedFor = false;
        mFailed = mLast.load();
    }
    /** What is known of a ticket; TimedOut for one that is under way, NotInService for 0. */
    FlushOutcome outcome(uint32_t ticket) const;

  private:
    static constexpr uint32_t kStep = 2, kSyncMark = 1;

    std::atomic<uint32_t> mLast{0}, mWritten{0}, mSynced{0}, mFailed{0};
    Flag mSyncAsked{false}, mSyncWaitedFor{false};
};

} // namespace vnlog

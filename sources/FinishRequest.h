// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Flag.h"
#include "base/Handles.h"

#include <cstdint>

namespace vnlog {

/**
 * What a stop and a reader tell each other when the reader is to end in good order: to read on what is there
 * already and no more, to output all of it, and to return. Any thread.
 */
class FinishRequest {
  public:
    /** Bytes that a reader still takes from its sources then: a flood must not keep it from ending. */
    static constexpr uint32_t kMostBytes = 524288;

    FinishRequest();

    /** Asks the reader to finish, and wakes it. */
    void make();
    /** Takes that back once the reader has ended. */
    void withdraw();
    bool made() const { return mMade; }
    /** A descriptor that is readable while the request stands; -1 when there was none to be had, in which
     * case a reader that waits hears of the request with its next data. */
    int wakeUp() const { return mWakeUp.get(); }

    /** Says that a reader of this name has taken its most and leaves the rest. */
    static void reportRest(const char* reader);

    /** The reader has come a step further. */
    void step() { ++mSteps; }
    /** How many steps it has made so far, modulo 2^32. */
    uint32_t steps() const { return mSteps; }

  private:
    FileDescriptor mWakeUp;
    Flag mMade{false};
    std::atomic<uint32_t> mSteps{0};
};

} // namespace vnlog

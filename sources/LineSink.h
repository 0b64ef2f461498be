// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Clock.h"
#include "base/Flag.h"
#include "buffer/Losses.h"

#include <cstdint>

namespace vnlog {

/** What is wanted of a line. */
enum class Wish {
    Stored,
    NotStored, ///< the user does not want that
    Missed, ///< the user would like that, but the storage is full
};

/** Lets a report about a line that was not taken through once a second: each line may be one of a flood, and
 * lines that are lost are counted in any case. One thread at a time. */
class ReportLimit {
  public:
    bool due() {
        int64_t now = steadyMilliseconds();
        if (now < mNext)
            return false;
        mNext = now + 1000;
        return true;
    }

  private:
    int64_t mNext = INT64_MIN;
};

/** Where the readers put the lines that are to be stored. On the reader's thread, which may be cancelled
 * inside. */
class LineSink {
  public:
    /** Whether lines are taken at all. */
    virtual bool inService() const = 0;
    /**
     * Takes one line with its newline, whole or not at all; may wait for space. `rank` tells how much it
     * matters, as an Android priority; 0 for a line that never matters enough to be written out at once.
     * False when it is not taken, which the caller reports.
     */
    virtual bool put(const char* line, uint32_t length, int rank) = 0;
    /** Lines were lost before they came here, at this place of the source. */
    virtual void lost(Loss why, uint32_t lines) = 0;
    /**
     * Whether a line that would be stored can be put: Stored. Where storing was given up it cannot, and is
     * counted as lost if it is missed.
     */
    virtual Wish leaveOut(const char*, uint32_t) { return Wish::Stored; }
    /** A line came while none is taken: it is counted as lost if it is missed. */
    virtual void miss(const char*, uint32_t) {}
    /** What is wanted of a line, by the switch of its source as well. */
    Wish wish(const Flag& toFile, const char* line, uint32_t length) {
        if (toFile)
            return Wish::Stored;
        Wish left = leaveOut(line, length);
        return left == Wish::Stored && !toFile ? Wish::NotStored : left;
    }

  protected:
    ~LineSink() = default;
};

} // namespace vnlog

#pragma once

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
     * A line that would be stored is not put. True when that is so because the storage is full: it is counted
     * as lost.
     */
    virtual bool leaveOut(const char*, uint32_t) { return false; }
    /** Whether a line is to be put, by the switch of its source; one that is missed is counted as lost. */
    Wish wish(const Flag& toFile, const char* line, uint32_t length) {
        if (toFile)
            return Wish::Stored;
        if (leaveOut(line, length))
            return Wish::Missed;
        return toFile ? Wish::Stored : Wish::NotStored;
    }

  protected:
    ~LineSink() = default;
};

} // namespace vnlog

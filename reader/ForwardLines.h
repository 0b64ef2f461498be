// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/StreamParts.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace vnlog {

/** The lines of a scope, oldest first. */
class ForwardLines {
  public:
    explicit ForwardLines(StreamParts& parts) : mParts(parts) {}

    /** At the beginning of the scope that the parts have, or at a line of it. */
    void begin(const LinePlace* place);
    [[nodiscard]] bool next(Record* record);

  private:
    /** What the section before the one that is to be opened was. */
    enum class Before : uint8_t { Read, LeftOut, Broken };
    /** What the first fragment of a section is. */
    enum class Head : uint8_t { Line, Joins, LeftOut, Rest };

    bool goOn();
    bool nextRun();
    void enter(size_t index, bool joins);
    Head headOf(size_t index, bool joins);
    void endSection();
    bool takeHead(const Fragment& fragment, Record* record);
    bool takeLine(const Fragment& fragment, Record* record);
    void joinHeld(const Fragment& fragment);
    bool giveRest(std::string_view bytes, bool ended, Record* record);
    bool giveHeld(Record* record);
    bool giveRemark(Record* record);
    void beginClock();
    bool passedOver(const LinePlace& place) const;

    StreamParts& mParts;
    size_t mRunAt = 0; ///< in the scope, of the run behind the one that is open
    size_t mNext = 0; ///< index of the section behind the one that is open
    bool mOpen = false;
    Before mBefore = Before::Read;
    Head mHead = Head::Line;
    bool mFirst = false; ///< no fragment of the section was read
    bool mLeavesRest = false; ///< all of it, if anything, is the rest of a line that is left out
    bool mClockDue = false; ///< the clock is still that of the section before
    LinePlace mPlace; ///< of the last line
    LinePlace mFrom; ///< lines of its section before it are passed over
    bool mSeeking = false; ///< it may not be reached yet

    std::string mHeld; ///< a line that may go on in the next section
    LinePlace mHeldPlace;
    bool mHolds = false, mHeldDone = false, mHeldEnded = false;
    std::string mRest; ///< of it, when both together are too long for a line
    bool mRestEnded = false;
    std::string mCutLine; ///< what is known of the line whose rest is left out
    std::string mRemark;
    std::string mGiven; ///< what the last record points to
};

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Fragments.h"
#include "reader/LineStream.h"
#include "reader/RunSections.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vnlog {

/** Of a line that begins in a section that is not there; all others count from 1. */
constexpr uint32_t kRestLine = 0;

/** What dates the lines of a section that tells nothing itself: what the list of runs tells of its run, null
 * for nothing, and when it was changed last, in ms since the epoch. A copy may have been changed, so to say,
 * long after it was written: `before` is the last time in the section before it, 0 for unknown; the run's
 * start is taken then. */
ClockFacts clockFacts(const RunStory* story, int64_t modified, int64_t before);

/** Counts a section that was read to the end that it has. False for a whole one, of which nothing is to be
 * told. */
bool countState(TextState state, StreamCounts* counts);

/** What the directions of a LineStream have in common: the section that is read, and what a line is told by.
 * One thread at a time. */
class StreamParts {
  public:
    StreamParts(const StoreFolder& theFolder, const RunHistory& theHistory)
        : mFolder(theFolder), mHistory(theHistory) {}

    /** Forgets what was read, and holds the folder of the run that is under way, which may be archived. */
    void begin(const Scope& asked);
    /** Goes to a run of the scope. False: it is not there, or `remark` tells why it cannot be read. */
    [[nodiscard]] bool openRun(uint32_t run, std::string* remark);
    /** Goes to a section. False: it cannot be read, see countFinding. */
    [[nodiscard]] bool openSection(size_t index);
    /** Goes back to the beginning of such a section, of which nothing is lost when it was deleted since and
     * no other was read. False: it cannot be read, see countFinding. */
    [[nodiscard]] bool reopenSection(size_t index);
    /** Counts what is wrong with the section that is open and gives it as a remark, empty when nothing is. */
    std::string countFinding();
    bool outside(size_t index) { return sections.outside(index, scope.since, scope.until); }
    /**
     * Whether a section begins within a line of the one before, which is read where that is not told
     * otherwise; the parser is then as that leaves it, and `cutLine` is what was read of the line. Ends what
     * is read otherwise.
     */
    bool beginsWithin(size_t index, std::string* cutLine);

    /** Dates lines by what is known of the section that is open from now on. */
    void beginClock();
    /** Fills in a record; `bytes` and the parser, which is one of the caller's, keep what it points to. */
    void describe(LineParser& by, std::string_view bytes, const LinePlace& place, bool ended, Record* record);
    /** The same for the rest of a line. */
    void describeRest(std::string_view bytes, const LinePlace& place, bool ended, Record* record);
    /** The same for a remark, which begins as remarks do. */
    static void describeRemark(const std::string& remark, const LinePlace& place, Record* record);

    Scope scope;
    StreamCounts counts;
    RunSections sections; ///< of the run that is open
    Fragments fragments; ///< of the section that is open
    LineParser parser;

  private:
    bool mayBeInEntry(size_t index);
    bool mayBeEmpty(size_t index);
    bool parseBefore(size_t first, size_t end, std::string* cutLine, bool* settled, bool* nothing);
    void plain(std::string_view bytes, const LinePlace& place, bool ended, Record* record) const;

    size_t mIndex = 0; ///< of the section that is open
    const StoreFolder& mFolder;
    const RunHistory& mHistory;
    FileDescriptor mCurrent; ///< folder of the run that was under way at the first beginning
    int mCurrentError = ENOENT; ///< why there is none
    LineClock mClock;
};

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "lines/LineClock.h"
#include "lines/LogLine.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/* What a finished section tells of itself in the extra field of its archive's first header.
 * docs/on-disk-format.md shows it byte by byte. */
namespace vnlog {

constexpr size_t kMostPoints = 4; ///< of a section's clock

/** What the writer knows of a run and its clocks and cannot see in the text. */
struct SectionOrigin {
    uint32_t run = 0; ///< its number in the list of runs, 0 for unknown
    std::string boot; ///< the kernel's boot id, empty for unknown
    std::vector<ClockPoint> points; ///< the newest kMostPoints
    bool zoneKnown = false;
    int32_t zone = 0; ///< seconds
    bool rough =
        false; ///< the one point is to the second; what the section before tells is better. Not stored
};

struct SectionFacts {
    SectionOrigin origin;
    int64_t reference = 0; ///< as of ClockFacts
    int64_t firstTime = 0; ///< ms since the epoch; no line of the section is dated earlier. 0: unknown
    int64_t lastTime = 0; ///< nor later than this
    uint32_t lines = 0; ///< newlines
    uint32_t counts[kLineSources][8] = {}; ///< of them, by source and priority (0 where a line does not tell)
    uint32_t forms = 0; ///< bit 1 << form for each form that occurs
    uint32_t lostBefore = 0; ///< lines told to be lost in the run's earlier sections; with lostKnown
    uint32_t lostHere = 0; ///< and in this one
    bool lostKnown = false;
    bool continues = false; ///< the section begins within a line; with continuesKnown
    bool continuesKnown = false;
    bool openEnd = false; ///< it ends within a line

    /** What dates the section's lines. */
    ClockFacts clock() const;
};

/** The bytes of the extra field, with the header's length in front left out. At most kLargestFacts. */
constexpr size_t kLargestFacts = 1024;
std::string encodeFacts(const SectionFacts& facts);
/** The inverse, of a field that may hold what others have put there, too; unknown parts are passed over.
 * False when it holds no facts of ours, or damaged ones. */
[[nodiscard]] bool decodeFacts(std::string_view extra, SectionFacts* facts);

/** Reads the facts from the beginning of an archive, leaving the descriptor's position alone. False when it
 * has none. Any thread. */
[[nodiscard]] bool readFacts(int archive, SectionFacts* facts);
/** Whether an archive has facts of a version that we know, which are damaged. Any thread. */
[[nodiscard]] bool hasDamagedFacts(int archive);

/**
 * Sums a text up while it is compressed. Throws nothing but what the want of memory does. `before` are the
 * facts of the run's section before it, null where that has none; `number` is the section's own, `modified`
 * the time of the text's last change, in ms since the epoch.
 */
class SectionSummary {
  public:
    void begin(const SectionOrigin& origin, uint32_t number, const SectionFacts* before, int64_t modified);
    /** The next bytes of the text, cut wherever that is. */
    void add(std::string_view text);
    SectionFacts end();

  private:
    void takeLine(std::string_view line);
    bool takeTime(const LogLine& line);
    void takeOpenLine();
    void takeEnvironmentZone();

    SectionFacts mFacts;
    LineParser mParser;
    LineClock mClock;
    std::string mRest; ///< of a line that goes on in what comes next, its beginning alone
    bool mWithin = false; ///< the next line is the rest of one that began in the section before
    bool mDated = false; ///< a line has told its time
    bool mUndatedFirst = false; ///< a line before the first of these has not
    int64_t mBefore = 0; ///< time of the last line before the section, ms, 0 for unknown
    int64_t mEarliest = 0; ///< time of the first line that may go on in it, likewise
};

} // namespace vnlog

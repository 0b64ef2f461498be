#pragma once

#include "lines/LogLine.h"

#include <cstdint>
#include <vector>

/* When a stored line was written, by what is known of its section. */
namespace vnlog {

/** How far the wall clock is ahead of the kernel's, from a time of the latter on. Milliseconds. */
struct ClockPoint {
    int64_t since = 0; ///< of the kernel's clock
    int64_t offset = 0; ///< wall clock less kernel's clock
};

/** What has to be known to date the lines of a section. */
struct ClockFacts {
    std::vector<ClockPoint> points; ///< ascending; empty when unknown
    bool zoneKnown = false;
    int32_t zone = 0; ///< seconds by which local time is ahead of UTC
    int64_t reference =
        0; ///< ms since the epoch near which the lines were written; tells the year. 0: unknown
    int64_t begin = 0; ///< what lines are given that have no time before any that has; ms, 0 for unknown
};

enum class TimeBasis : uint8_t {
    None, ///< nothing is known: the time is 0
    Line, ///< the line tells it
    Kernel, ///< from the kernel's clock
    Near, ///< that of the last line before it that tells one
};

struct LineTime {
    int64_t nanoseconds = 0; ///< since the epoch
    int32_t zone = 0; ///< seconds by which local time is ahead of UTC
    TimeBasis basis = TimeBasis::None;
};

/** Dates the lines of one section after the other, each in its order. Writer and reader use the same, so that
 * what the one has noted of a section holds for the lines that the other dates. */
class LineClock {
  public:
    void beginSection(const ClockFacts& facts);
    LineTime timeOf(const LogLine& line);

  private:
    ClockFacts mFacts;
    LineTime mLast;
    int32_t mYear = 0; ///< of the month below, 0 before there was one
    int8_t mMonth = 0;
};

} // namespace vnlog

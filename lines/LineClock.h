// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "lines/LogLine.h"

#include <cstdint>
#include <vector>

/* When a stored line was written, by what is known of its section. */
namespace vnlog {

/** Times later than that are none; what is built on it fits 64 bits in nanoseconds. Milliseconds. */
constexpr int64_t kLatestTime = 8000000000000;
/** Farthest that local time is from UTC, in seconds. */
constexpr int32_t kFarthestZone = 26 * 3600;

/** How far the wall clock is ahead of the kernel's, from a time of the latter on. Milliseconds. */
struct ClockPoint {
    int64_t since = 0; ///< of the kernel's log clock
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

/**
 * Dates the lines of one section after the other, each in its order. Writer and reader use the same, so that
 * what the one has noted of a section holds for the lines that the other dates. One thread at a time.
 *
 * A stamp's year is the one in which its day is nearest to `reference`; without that to the last dated line
 * of the section or to `begin`; without all of them the line is not dated. Times are at most of the year
 * 2223. The kernel's last words, stored behind a line of the service that says so, count by the clock of an
 * earlier boot, of which nothing is known: they are Near.
 */
class LineClock {
  public:
    void beginSection(const ClockFacts& facts);
    LineTime timeOf(const LogLine& line);

  private:
    /** The environment's zone in a quarter of an hour: no zone changes its offset within one. */
    struct Quarter {
        int64_t number = INT64_MIN;
        int32_t zone = 0;
    };

    void watchLastWords(const LogLine& line);
    bool isOfEarlierBoot(const LogLine& line) const;
    LineTime atStamp(const LocalStamp& stamp);
    LineTime atKernelTime(int64_t microseconds);
    bool findDay(const LocalStamp& stamp);
    int32_t zoneAt(int64_t seconds);
    int32_t zoneOfLocal(int64_t local);

    ClockFacts mFacts;
    LineTime mLast;
    int8_t mMonth = 0; ///< of the stamp before, 0 without one
    int8_t mDayOfMonth = 0;
    int64_t mDay = 0; ///< days from the epoch to it
    Quarter mUniversal, mLocal; ///< looked up last
    bool mInLastWords = false;
    int64_t mWordsTime = 0; ///< of the newest line of these, in microseconds
};

} // namespace vnlog

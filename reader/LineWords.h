// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Record.h"

#include <cstddef>
#include <string>
#include <string_view>

/* How what is known of a line is named to people and programs. */
namespace vnlog {

/** "verbose" to "fatal"; empty for a line that has no priority. */
std::string_view priorityWord(int priority);
std::string_view sourceWord(LineSource source);
/** "last_3" or "current". */
std::string runName(uint32_t run);
/** "last_3/log_2:17"; without the number of the line where that is 0. */
std::string placeName(const LinePlace& place);

/** Prints wall-clock times. One thread. */
class WallClock {
  public:
    static constexpr size_t kWidth = sizeof "2026-11-23T14:40:55.123+01:00" - 1;

    /** In the form above, kWidth characters; valid until the next call. A zone of a day or more is none:
     * the time is then in UTC. */
    std::string_view print(const LineTime& time);

  private:
    void printSecond(int64_t second, int32_t zone);

    int64_t mSecond = INT64_MIN; ///< that is printed
    int32_t mZone = 0;
    char mText[64] = {};
};

} // namespace vnlog

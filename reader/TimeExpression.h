// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

namespace vnlog {

/**
 * Reads a time as a user gives it: "2026-11-23 14:40:55", "2026-11-23T14:40:55+01:00" or "...Z" (fractions of
 * a second, seconds, or the whole time of day may be left out), "11-23 14:40:55.123" (as in the log, of this
 * year or the last), "14:40[:55]" (today), "-90s", "-90m", "-2h", "-3d", "-1w" (before now), "now", "today",
 * "yesterday",
 * "@1763908855[.123]" (seconds since the epoch). Times without a zone are local, as of the environment's TZ.
 * `now` in seconds. The result is in ns since the epoch. False for anything else.
 */
[[nodiscard]] bool parseTime(std::string_view text, time_t now, int64_t* nanoseconds);

} // namespace vnlog

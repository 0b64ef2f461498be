// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

/* Times and how they are written. Any thread. */
namespace vnlog {

/** Of the monotonic clock. */
int64_t steadyMilliseconds();
/** Such a time as the system's calls take it. */
timespec steadyTime(int64_t milliseconds);
/** Seconds of a clock of the system. */
int64_t secondsOf(clockid_t clock);
/** A time of the wall clock in the form of ISO 8601, in local time with the offset of the zone. */
std::string localDate(time_t time);
/** The inverse: the seconds since the epoch, and those by which local time is ahead of UTC. False for a text
 * that is none, or is before 1970. */
[[nodiscard]] bool readLocalDate(std::string_view text, int64_t* seconds, int32_t* zone);

} // namespace vnlog

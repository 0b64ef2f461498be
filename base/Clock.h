#pragma once

#include <cstdint>
#include <ctime>
#include <string>

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

} // namespace vnlog

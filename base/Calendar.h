// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

/* The calendar by which dates are counted, for times of any size whatever time_t is. Any thread. */
namespace vnlog {

/** A date and a time of day. */
struct CivilTime {
    int32_t year = 1970;
    int32_t month = 1; ///< 1 to 12
    int32_t day = 1;
    int32_t hour = 0, minute = 0, second = 0;
};

/** 28 to 31. */
int32_t daysOfMonth(int32_t year, int32_t month);
/** Seconds from the epoch to such a time in UTC; the year is at least 1. */
int64_t secondsAt(const CivilTime& time);
/** The inverse. The year must be at least 1. */
CivilTime civilTime(int64_t seconds);

} // namespace vnlog

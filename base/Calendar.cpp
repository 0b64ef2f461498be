// SPDX-License-Identifier: Apache-2.0
#include "base/Calendar.h"

namespace vnlog {

namespace {

constexpr int64_t kDay = 86400;
constexpr int64_t kDaysTo1970 = 719162; ///< from the first day of year 1

bool isLeapYear(int32_t year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

/** From the first day of year 1. */
int64_t daysToYear(int64_t year) {
    int64_t before = year - 1;
    return before * 365 + before / 4 - before / 100 + before / 400;
}

} // namespace

int32_t daysOfMonth(int32_t year, int32_t month) {
    constexpr int8_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

int64_t secondsAt(const CivilTime& time) {
    int64_t days = daysToYear(time.year) - kDaysTo1970 + time.day - 1;
    for (int32_t month = 1; month < time.month; ++month)
        days += daysOfMonth(time.year, month);
    return days * kDay + int64_t{time.hour} * 3600 + int64_t{time.minute} * 60 + time.second;
}

CivilTime civilTime(int64_t seconds) {
    int64_t days = seconds / kDay - (seconds % kDay < 0 ? 1 : 0) + kDaysTo1970;
    auto left = static_cast<int32_t>((seconds % kDay + kDay) % kDay);
    CivilTime time;
    time.year = static_cast<int32_t>(days / 366 + 1); // never beyond the year that it is
    while (daysToYear(time.year + 1) <= days)
        ++time.year;
    auto day = static_cast<int32_t>(days - daysToYear(time.year));
    for (; day >= daysOfMonth(time.year, time.month); ++time.month)
        day -= daysOfMonth(time.year, time.month);
    time.day = day + 1;
    time.hour = left / 3600;
    time.minute = left / 60 % 60;
    time.second = left % 60;
    return time;
}

} // namespace vnlog

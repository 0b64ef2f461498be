// SPDX-License-Identifier: Apache-2.0
#include "base/Clock.h"

#include "base/Calendar.h"

#include <algorithm>

namespace vnlog {

int64_t steadyMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

timespec steadyTime(int64_t milliseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(milliseconds / 1000);
    time.tv_nsec = static_cast<long>(milliseconds % 1000 * 1000000);
    return time;
}

int64_t secondsOf(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec;
}

std::string localDate(time_t time) {
    tm parts{};
    char text[40];
    if (localtime_r(&time, &parts) == nullptr)
        return "-"; // a year that no calendar has
    std::string date(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &parts));
    return date.insert(date.size() - 2, ":");
}

bool readLocalDate(std::string_view text, int64_t* seconds, int32_t* zone) {
    constexpr std::string_view kForm = "0000-00-00T00:00:00+00:00"; // digits, and what stands between them
    auto fits = [](char c, char form) {
        return form == '0' ? c >= '0' && c <= '9' : c == form || (form == '+' && c == '-');
    };
    if (text.size() != kForm.size() || !std::equal(text.begin(), text.end(), kForm.begin(), fits))
        return false;
    auto pair = [&](size_t at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
    const CivilTime date{pair(0) * 100 + pair(2), pair(5), pair(8), pair(11), pair(14), pair(17)};
    const int hours = pair(20), minutes = pair(23);
    if (date.year < 1970 || date.month < 1 || date.month > 12 || date.day < 1 ||
        date.day > daysOfMonth(date.year, date.month) || date.hour > 23 || date.minute > 59 ||
        date.second > 60 || hours > 23 || minutes > 59)
        return false;
    *zone = (hours * 60 + minutes) * 60 * (text[19] == '-' ? -1 : 1);
    *seconds = secondsAt(date) - *zone;
    return *seconds >= 0;
}

} // namespace vnlog

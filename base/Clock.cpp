#include "base/Clock.h"

#include "base/Calendar.h"

#include <cstdio>

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
    CivilTime date;
    char sign = 0;
    int hours = 0, minutes = 0, end = 0;
    const std::string whole(text);
    if (std::sscanf(whole.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c%2d:%2d%n", &date.year, &date.month, &date.day,
                    &date.hour, &date.minute, &date.second, &sign, &hours, &minutes, &end) != 9)
        return false;
    auto within = [](int number, int most) { return number >= 0 && number <= most; };
    if (static_cast<size_t>(end) != whole.size() || date.year < 1970 || date.month < 1 || date.month > 12 ||
        date.day < 1 || date.day > daysOfMonth(date.year, date.month) || !within(date.hour, 23) ||
        !within(date.minute, 59) || !within(date.second, 60) || (sign != '+' && sign != '-') ||
        !within(hours, 23) || !within(minutes, 59))
        return false;
    *zone = (hours * 60 + minutes) * 60 * (sign == '-' ? -1 : 1);
    *seconds = secondsAt(date) - *zone;
    return *seconds >= 0;
}

} // namespace vnlog

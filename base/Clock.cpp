#include "base/Clock.h"

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

} // namespace vnlog

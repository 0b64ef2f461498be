// SPDX-License-Identifier: Apache-2.0
#include "reader/Figures.h"

#include "base/Calendar.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace vnlog {

namespace {

// Of the years that have four digits.
constexpr int64_t kFirstSecond = -62135596800 + 86400;
constexpr int64_t kLastSecond = 253402300799 - 86400;

} // namespace

std::string printed(const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    int length = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return length < 0 ? std::string() : std::string(text);
}

std::string printedSize(uint64_t bytes) {
    if (bytes < 1024)
        return printed("%u B", static_cast<unsigned>(bytes));
    double size = static_cast<double>(bytes) / 1024;
    const char* const units[] = {"KiB", "MiB", "GiB"};
    size_t unit = 0;
    for (; unit < 2 && size >= 1024; unit++)
        size /= 1024;
    return printed("%.1f %s", size, units[unit]);
}

std::string printedDate(int64_t seconds, int32_t zone) {
    constexpr int32_t kDay = 86400;
    if (seconds < kFirstSecond || seconds > kLastSecond || zone < -kDay || zone > kDay)
        return "-";
    CivilTime time = civilTime(seconds + zone);
    int minutes = std::abs(zone) / 60;
    return printed("%04d-%02d-%02dT%02d:%02d:%02d%c%02d:%02d", time.year, time.month, time.day, time.hour,
                   time.minute, time.second, zone < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

std::string printedMinute(int64_t minutes) {
    std::string date = printedDate(minutes * 60, 0).substr(0, 16);
    std::replace(date.begin(), date.end(), 'T', ' ');
    return date;
}

} // namespace vnlog

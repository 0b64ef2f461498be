// SPDX-License-Identifier: Apache-2.0
#include "reader/TimeExpression.h"

#include "base/Calendar.h"

#include <algorithm>

namespace vnlog {

namespace {

constexpr int64_t kSecond = 1000000000; ///< in ns
constexpr int64_t kFarthest = INT64_MAX / kSecond - 1; ///< seconds from the epoch that fit in ns
constexpr int64_t kDay = 86400;

/** Takes a text from left to right. What fails takes nothing that matters: the whole text is then refused. */
class Cursor {
  public:
    explicit Cursor(std::string_view text) : mRest(text) {}

    bool atEnd() const { return mRest.empty(); }
    bool next(char c) const { return !mRest.empty() && mRest[0] == c; }
    bool take(char c) {
        bool there = next(c);
        mRest.remove_prefix(there ? 1 : 0);
        return there;
    }
    /** A number of exactly so many digits. */
    bool take(size_t digits, int64_t least, int64_t most, int32_t* number) {
        int64_t value = 0;
        bool whole = takeDigits(digits, digits, &value) == digits && value >= least && value <= most;
        *number = whole ? static_cast<int32_t>(value) : 0;
        return whole;
    }
    /** Up to `most` digits, at most 18, of which there must be `least`; how many there were, 0 for failed. */
    size_t takeDigits(size_t least, size_t most, int64_t* value) {
        size_t count = std::min(mRest.find_first_not_of("0123456789"), mRest.size());
        count = least == most ? std::min(count, most) : count;
        if (count < least || count > most)
            return 0;
        *value = 0;
        for (char digit : mRest.substr(0, count))
            *value = *value * 10 + (digit - '0');
        mRest.remove_prefix(count);
        return count;
    }
    /** Up to nine digits behind a point, or nothing. */
    bool takeFraction(int64_t* nanoseconds) {
        *nanoseconds = 0;
        if (!take('.'))
            return true;
        size_t digits = takeDigits(1, 9, nanoseconds);
        for (size_t i = digits; i < 9; ++i)
            *nanoseconds *= 10;
        return digits > 0;
    }

  private:
    std::string_view mRest;
};

/** A time as it is written. */
struct WrittenTime {
    CivilTime civil;
    int64_t nanoseconds = 0; ///< of the second
    bool zoned = false;
    int32_t zone = 0; ///< seconds by which it is ahead of UTC
};

bool takeTimeOfDay(Cursor& from, WrittenTime* time) {
    CivilTime& civil = time->civil;
    if (!from.take(2, 0, 23, &civil.hour) || !from.take(':') || !from.take(2, 0, 59, &civil.minute))
        return false;
    return !from.take(':') || (from.take(2, 0, 59, &civil.second) && from.takeFraction(&time->nanoseconds));
}

bool takeZone(Cursor& from, WrittenTime* time) {
    int32_t hours = 0, minutes = 0;
    bool behind = from.next('-');
    time->zoned = true;
    if (from.take('Z'))
        return true;
    if ((!from.take('+') && !from.take('-')) || !from.take(2, 0, 23, &hours))
        return false;
    (void)from.take(':');
    if (!from.take(2, 0, 59, &minutes))
        return false;
    time->zone = (hours * 3600 + minutes * 60) * (behind ? -1 : 1);
    return true;
}

bool takeMonthAndDay(Cursor& from, CivilTime* civil) {
    return from.take(2, 1, 12, &civil->month) && from.take('-') && from.take(2, 1, 31, &civil->day);
}

bool isDate(const CivilTime& civil) {
    return civil.day <= daysOfMonth(civil.year, civil.month);
}

/** A date, and what is there of time of day and zone; nothing behind it. */
bool readDated(std::string_view text, WrittenTime* time) {
    Cursor from(text);
    if (!from.take(4, 1970, 2261, &time->civil.year) || !from.take('-') || // years that fit in ns
        !takeMonthAndDay(from, &time->civil) || !isDate(time->civil))
        return false;
    if (from.atEnd())
        return true;
    if ((!from.take(' ') && !from.take('T')) || !takeTimeOfDay(from, time))
        return false;
    return from.atEnd() || (takeZone(from, time) && from.atEnd());
}

bool join(int64_t seconds, int64_t nanoseconds, int64_t* result) {
    if (seconds < -kFarthest || seconds > kFarthest)
        return false;
    *result = seconds * kSecond + nanoseconds;
    return true;
}

/** By the environment's zone; days outside the month count on. False where time_t does not reach. */
bool joinLocal(const CivilTime& civil, int64_t nanoseconds, int64_t* result) {
    tm parts{};
    parts.tm_year = civil.year - 1900;
    parts.tm_mon = civil.month - 1;
    parts.tm_mday = civil.day;
    parts.tm_hour = civil.hour;
    parts.tm_min = civil.minute;
    parts.tm_sec = civil.second;
    parts.tm_isdst = -1;
    parts.tm_wday = -1; // remains for a failure, of which the result alone does not tell
    time_t seconds = mktime(&parts);
    return parts.tm_wday >= 0 && join(seconds, nanoseconds, result);
}

bool midnight(time_t now, int daysBack, WrittenTime* time) {
    tm parts{};
    if (localtime_r(&now, &parts) == nullptr)
        return false;
    time->civil.year = parts.tm_year + 1900;
    time->civil.month = parts.tm_mon + 1;
    time->civil.day = parts.tm_mday - daysBack;
    return true;
}

bool parseWord(std::string_view text, time_t now, int64_t* result) {
    if (text == "now")
        return join(now, 0, result);
    WrittenTime time;
    return (text == "today" || text == "yesterday") && midnight(now, text == "today" ? 0 : 1, &time) &&
           joinLocal(time.civil, 0, result);
}

bool parseAge(std::string_view text, time_t now, int64_t* result) {
    constexpr std::string_view kUnits = "smhdw";
    constexpr int64_t kSeconds[] = {1, 60, 3600, kDay, 7 * kDay};
    size_t unit = text.empty() ? kUnits.npos : kUnits.find(text.back());
    if (unit == kUnits.npos)
        return false;
    Cursor from(text.substr(0, text.size() - 1));
    int64_t count = 0;
    return from.take('-') && from.takeDigits(1, 9, &count) > 0 && from.atEnd() &&
           join(int64_t{now} - count * kSeconds[unit], 0, result);
}

bool parseEpoch(std::string_view text, int64_t* result) {
    Cursor from(text);
    int64_t seconds = 0, nanoseconds = 0;
    return from.take('@') && from.takeDigits(1, 18, &seconds) > 0 && from.takeFraction(&nanoseconds) &&
           from.atEnd() && join(seconds, nanoseconds, result);
}

bool parseTimeOfDay(std::string_view text, time_t now, int64_t* result) {
    Cursor from(text);
    WrittenTime time;
    return takeTimeOfDay(from, &time) && from.atEnd() && midnight(now, 0, &time) &&
           joinLocal(time.civil, time.nanoseconds, result);
}

bool parseDated(std::string_view text, int64_t* result) {
    WrittenTime time;
    if (!readDated(text, &time))
        return false;
    return time.zoned ? join(secondsAt(time.civil) - time.zone, time.nanoseconds, result)
                      : joinLocal(time.civil, time.nanoseconds, result);
}

/** Of this year, or of the last where that would be more than a day ahead: the log has no later lines, but
 * the rest of today is a usual end to ask for. */
bool parseLogDate(std::string_view text, time_t now, int64_t* result) {
    Cursor from(text);
    WrittenTime written, today;
    if (!takeMonthAndDay(from, &written.civil) || !midnight(now, 0, &today))
        return false;
    if (!from.atEnd() && (!from.take(' ') || !takeTimeOfDay(from, &written) || !from.atEnd()))
        return false;
    for (int back : {0, 1}) {
        written.civil.year = today.civil.year - back;
        if (isDate(written.civil) && joinLocal(written.civil, written.nanoseconds, result) &&
            *result / kSecond <= int64_t{now} + kDay)
            return true;
    }
    return false;
}

} // namespace

bool parseTime(std::string_view text, time_t now, int64_t* nanoseconds) {
    return parseWord(text, now, nanoseconds) || parseAge(text, now, nanoseconds) ||
           parseEpoch(text, nanoseconds) || parseTimeOfDay(text, now, nanoseconds) ||
           parseDated(text, nanoseconds) || parseLogDate(text, now, nanoseconds);
}

} // namespace vnlog

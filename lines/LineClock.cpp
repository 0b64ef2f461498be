// SPDX-License-Identifier: Apache-2.0
#include "lines/LineClock.h"

#include "base/Calendar.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace vnlog {

namespace {

constexpr int64_t kDay = 86400, kQuarter = 900; ///< seconds
constexpr std::string_view kLastWords = "the last words of the kernel";
constexpr int64_t kMillisecond = 1000000, kSecond = 1000000000; ///< nanoseconds

/** Offset of the environment's zone at a time in seconds since the epoch, 0 when that cannot be told. */
int32_t environmentZone(int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    struct tm local {};
    if (time != seconds || localtime_r(&time, &local) == nullptr)
        return 0;
    return static_cast<int32_t>(local.tm_gmtoff);
}

int64_t secondsOfDay(const LocalStamp& stamp) {
    return (stamp.hour * 60 + stamp.minute) * 60 + stamp.second;
}

} // namespace

void LineClock::beginSection(const ClockFacts& facts) {
    mFacts = facts;
    mFacts.zone = std::clamp(facts.zone, -kFarthestZone, kFarthestZone);
    mFacts.reference = std::clamp<int64_t>(facts.reference, 0, kLatestTime);
    mFacts.begin = std::clamp<int64_t>(facts.begin, 0, kLatestTime);
    for (ClockPoint& point : mFacts.points)
        point.offset = std::clamp<int64_t>(point.offset, -kLatestTime, kLatestTime);
    if (!mFacts.zoneKnown)
        tzset(); // localtime_r need not
    mMonth = mDayOfMonth = 0;
    mUniversal = mLocal = {};
    mInLastWords = false;
    mLast = {};
    if (mFacts.begin > 0)
        mLast = {mFacts.begin * kMillisecond, zoneAt(mFacts.begin / 1000), TimeBasis::Near};
}

LineTime LineClock::timeOf(const LogLine& line) {
    LineTime time;
    if (line.stamp.month != 0)
        time = atStamp(line.stamp);
    else if (line.kernelTime >= 0 && !isOfEarlierBoot(line))
        time = atKernelTime(line.kernelTime);
    watchLastWords(line);
    if (time.basis != TimeBasis::None)
        return mLast = time;
    time = mLast;
    time.basis = mLast.basis != TimeBasis::None ? TimeBasis::Near : TimeBasis::None;
    return time;
}

/** The kernel's last words are stored at a start, in front of all that this boot has to say: they end where
 * the kernel's clock goes back, or with an entry or a remark. */
void LineClock::watchLastWords(const LogLine& line) {
    if (line.source == LineSource::Service) {
        mInLastWords = line.text.substr(0, kLastWords.size()) == kLastWords;
        mWordsTime = 0;
    } else if (line.kernelTime >= 0 ? !isOfEarlierBoot(line) : line.form != LineForm::Raw) {
        mInLastWords = false;
    } else {
        mWordsTime = std::max(mWordsTime, line.kernelTime);
    }
}

bool LineClock::isOfEarlierBoot(const LogLine& line) const {
    return mInLastWords && line.kernelTime >= mWordsTime;
}

LineTime LineClock::atStamp(const LocalStamp& stamp) {
    if (stamp.month != mMonth || stamp.day != mDayOfMonth) {
        if (!findDay(stamp))
            return {};
        mMonth = stamp.month;
        mDayOfMonth = stamp.day;
    }
    const int64_t local = mDay * kDay + secondsOfDay(stamp);
    const int32_t zone = zoneOfLocal(local);
    return {(local - zone) * kSecond + stamp.millisecond * kMillisecond, zone, TimeBasis::Line};
}

/** Finds the year in which the day is nearest to what is known. False when nothing is. */
bool LineClock::findDay(const LocalStamp& stamp) {
    const int64_t near = mFacts.reference > 0 ? mFacts.reference / 1000 : mLast.nanoseconds / kSecond;
    if (near <= 0)
        return false;
    constexpr int32_t kAround = 8; // the longest time between two leap days
    const int64_t nearDay = near / kDay;
    const auto guess = static_cast<int32_t>(1970 + nearDay * 400 / 146097);
    const bool leapDay = stamp.month == 2 && stamp.day == 29;
    int64_t least = INT64_MAX;
    for (int32_t year = guess - kAround; year <= guess + kAround; ++year) {
        const int64_t day = secondsAt({year, stamp.month, stamp.day}) / kDay;
        const int64_t distance = std::abs(day - nearDay);
        if ((leapDay && daysOfMonth(year, 2) < 29) || distance >= least)
            continue;
        least = distance;
        mDay = day;
    }
    return true;
}

LineTime LineClock::atKernelTime(int64_t microseconds) {
    if (mFacts.points.empty())
        return {};
    const auto reached = std::find_if(mFacts.points.rbegin(), mFacts.points.rend(),
                                      [&](const ClockPoint& p) { return p.since <= microseconds / 1000; });
    const ClockPoint& point = reached != mFacts.points.rend() ? *reached : mFacts.points.front();
    const int64_t time = microseconds * 1000 + point.offset * kMillisecond;
    return {time, zoneAt(time / kSecond), TimeBasis::Kernel};
}

int32_t LineClock::zoneAt(int64_t seconds) {
    if (mFacts.zoneKnown)
        return mFacts.zone;
    if (seconds / kQuarter != mUniversal.number) {
        mUniversal.number = seconds / kQuarter;
        mUniversal.zone = environmentZone(mUniversal.number * kQuarter);
    }
    return mUniversal.zone;
}

/** Of the two times that a local one may mean when a clock is put back, and where it means none, this takes
 * always the same. */
int32_t LineClock::zoneOfLocal(int64_t local) {
    if (mFacts.zoneKnown)
        return mFacts.zone;
    if (local / kQuarter != mLocal.number) {
        mLocal.number = local / kQuarter;
        const int64_t begin = mLocal.number * kQuarter;
        mLocal.zone = zoneAt(begin - zoneAt(begin));
    }
    return mLocal.zone;
}

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#include "reader/LineWords.h"

#include "base/Calendar.h"
#include "base/Text.h"
#include "storage/Layout.h"

#include <cstdlib>

namespace vnlog {

namespace {

constexpr int64_t kSecond = 1000000000; ///< in ns
constexpr size_t kMilliseconds = sizeof "2026-11-23T14:40:55." - 1; ///< where they are printed

} // namespace

std::string_view priorityWord(int priority) {
    constexpr std::string_view kWords[] = {"", "", "verbose", "debug", "info", "warning", "error", "fatal"};
    return priority > 0 && priority < static_cast<int>(std::size(kWords)) ? kWords[priority] : "";
}

std::string_view sourceWord(LineSource source) {
    switch (source) {
    case LineSource::Android:
        return "android";
    case LineSource::Kernel:
        return "kernel";
    case LineSource::Service:
        return "service";
    case LineSource::Reader:
        return "reader";
    case LineSource::Unknown:
        break;
    }
    return "unknown";
}

std::string runName(uint32_t run) {
    return run == kCurrentRun ? kCurrentFolder : kRunName + ("_" + std::to_string(run));
}

std::string placeName(const LinePlace& place) {
    std::string name = runName(place.run) + "/" + kLogName;
    if (place.section > 0)
        name += "_" + std::to_string(place.section);
    return place.line > 0 ? name + ":" + std::to_string(place.line) : name;
}

void WallClock::printSecond(int64_t second, int32_t zone) {
    CivilTime time = civilTime(second + zone);
    int minutes = std::abs(zone) / 60;
    (void)formatText(mText, "%04d-%02d-%02dT%02d:%02d:%02d.000%c%02d:%02d", time.year, time.month, time.day,
                     time.hour, time.minute, time.second, zone < 0 ? '-' : '+', minutes / 60, minutes % 60);
    mSecond = second;
    mZone = zone;
}

std::string_view WallClock::print(const LineTime& time) {
    constexpr int32_t kDay = 86400;
    int64_t second = time.nanoseconds / kSecond - (time.nanoseconds % kSecond < 0 ? 1 : 0);
    int32_t zone = time.zone > -kDay && time.zone < kDay ? time.zone : 0;
    if (second != mSecond || zone != mZone)
        printSecond(second, zone);
    auto thousandths = static_cast<int>((time.nanoseconds - second * kSecond) / 1000000);
    mText[kMilliseconds] = static_cast<char>('0' + thousandths / 100);
    mText[kMilliseconds + 1] = static_cast<char>('0' + thousandths / 10 % 10);
    mText[kMilliseconds + 2] = static_cast<char>('0' + thousandths % 10);
    return {mText, kWidth};
}

} // namespace vnlog

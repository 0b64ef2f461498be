// SPDX-License-Identifier: Apache-2.0
#include "config/SettingsTable.h"

#include "base/Diagnostics.h"
#include "base/KeyValue.h"
#include "config/Settings.h"
#include "sources/AndroidFormat.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace vnlog {

namespace {

using S = ServiceState;

constexpr char kSwitchValues[] = "y or n";
constexpr char kLetters[] = "one of v, d, i, w, e, f and s";

constexpr Setting onOff(const char* key, const char* fallback, Flag S::*flag, Flag S::*second = nullptr) {
    Setting setting{key, Kind::Switch, false, kSwitchValues, fallback};
    setting.flag = flag;
    setting.secondFlag = second;
    return setting;
}
constexpr Setting givenUp(const char* key, Flag S::*flag) {
    Setting setting{key, Kind::GivenUp, false, kSwitchValues};
    setting.flag = flag;
    return setting;
}
constexpr Setting number(const char* key, const Number& number) {
    Setting setting{key, Kind::Number};
    setting.number = number;
    return setting;
}
constexpr Setting priority(const char* key, const char* fallback, const Number& number) {
    Setting setting{key, Kind::Priority, false, kLetters, fallback};
    setting.number = number;
    return setting;
}
constexpr Setting filterText(const char* key, const char* expected, const char* fallback,
                             const FilterSetting& filter) {
    Setting setting{key, Kind::FilterText, false, expected, fallback};
    setting.filter = filter;
    return setting;
}
constexpr Setting optional(Setting setting) {
    setting.optional = true;
    return setting;
}

int kibibytes(uint32_t bytes) {
    return static_cast<int>(bytes / 1024);
}
uint32_t bytes(int kibibytes) {
    return static_cast<uint32_t>(kibibytes) * 1024;
}

void setMaxLogSize(S& state, int value) {
    if (value > kLargestMaxLogSizeMiB) {
        logError("MAX_LOG_SIZE %d is too large, %d is used\n", value, kLargestMaxLogSizeMiB);
        value = kLargestMaxLogSizeMiB;
    }
    state.mMaxLogSize = value;
}

Outcome judgeModules(const char* text) {
    if (beginsWithWord(text, kAllModules) || beginsWithWord(text, kNoModule))
        return Outcome::Taken;
    ListItems items = examineList(text);
    if (items.refused == 0)
        return Outcome::Taken;
    return items.accepted > 0 ? Outcome::Adjusted : Outcome::Refused;
}

Outcome judgeLineFormat(const char* text) {
    return lineFormat(text) != FORMAT_OFF ? Outcome::Taken : Outcome::Refused;
}

constexpr Range kSectionKiB = {kLeastSectionKiB, kLargestSectionKiB};
constexpr Range kKernelLevels = {kLeastKernelLevel, kHighestKernelLevel};
constexpr Range kFlushIntervals = {0, kLongestFlushInterval};

constexpr Number kMaxLogSize = {
    [](const S& s) { return s.mMaxLogSize; }, setMaxLogSize, {1, kLargestMaxLogSizeMiB}, {3, INT_MAX}, 10,
    {kLargestMaxLogSizeMiB, INT_MAX},         true}; // the deletion size tells when it is too small
constexpr Number kSectionSize = {[](const S& s) { return kibibytes(s.mLogSectionSize); },
                                 [](S& s, int value) { s.mLogSectionSize = bytes(value); }, kSectionKiB,
                                 kSectionKiB, kLeastSectionKiB};
constexpr Number kDeleteSize = {
    [](const S& s) { return kibibytes(s.mLogDeleteSize); },
    [](S& s, int value) { s.mLogDeleteSize = bytes(value); },
    kNowhere,
    kNowhere,
    0,
    {INT_MIN, INT_MAX},
    false,
    [](const S& s) { // from one section to half of the whole
        return Range{kibibytes(s.mLogSectionSize), std::max(s.mMaxLogSize, 0) * 512};
    }};
constexpr Number kKernelLevel = {[](const S& s) { return s.mKLogLevel.load(); },
                                 [](S& s, int value) { s.mKLogLevel = value; }, kKernelLevels, kKernelLevels,
                                 kHighestKernelLevel};
constexpr Number kFlushInterval = {[](const S& s) { return static_cast<int>(s.mFlushInterval.load()); },
                                   [](S& s, int value) { s.mFlushInterval = static_cast<uint32_t>(value); },
                                   kFlushIntervals, kFlushIntervals, 30};
constexpr Number kFlushPriority = {[](const S& s) { return s.mFlushPriority.load(); },
                                   [](S& s, int value) { s.mFlushPriority = value; }};

} // namespace

const Setting kSettings[kSettingCount] = {
    onOff("UART_OUTPUT=", kYes, &S::mKLogToUart, &S::mALogToUart),
    onOff("NAND_FILE_OUTPUT=", kNo, &S::mKLogToFile, &S::mALogToFile),
    onOff("SAVE_FLUSH_SWITCH=", kNo, &S::mFlushSwitch),
    {kStorageRootKey, Kind::Root, false, "a path that can be a storage root"},
    givenUp("STORAGE_FULL=", &S::mStorageFull),
    number("MAX_LOG_SIZE=", kMaxLogSize),
    number("LOG_SECTION_SIZE=", kSectionSize),
    number("LOG_DELETE_SIZE=", kDeleteSize),
    onOff("KLOG_OUTPUT=", kYes, &S::mKLogOutput),
    number("KLOG_LEVEL=", kKernelLevel),
    onOff("ALOG_OUTPUT=", kYes, &S::mALogOutput),
    {"ALOG_LEVEL=", Kind::Level, false, kLetters, "d"},
    filterText("ALOG_MODULE=", "a list of modules", kAllModules,
               {&S::mModuleCfg, "fail to malloc module cfg buf!\n", &Filter::printModules, judgeModules}),
    filterText(
        "ALOG_FORMAT=", "a line format", kDefaultLineFormat,
        {&S::mFormatCfg, "fail to malloc fromat cfg buf!\n", &Filter::printLineFormat, judgeLineFormat}),
    optional(number(kFlushIntervalKey, kFlushInterval)),
    optional(priority(kFlushPriorityKey, "f", kFlushPriority)),
    optional(onOff("KLOG_PSTORE=", kYes, &S::mKLogPstore)),
    optional(onOff("KLOG_PREFIX=", kNo, &S::mKLogPrefix)),
};

size_t nameLength(const Setting& setting) {
    return std::strlen(setting.key) - 1;
}

} // namespace vnlog

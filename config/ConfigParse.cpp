#include "config/CfgText.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "sources/AndroidFormat.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace vnlog {

namespace {

constexpr int kValueLimit = 127; // characters of a value that are looked at
using Value = char[kValueLimit + 1];

constexpr int kMinSectionKiB = 64;
constexpr int kMaxSectionKiB = 256;
constexpr int kMaxLogSizeMiB = 4095; // the largest bound whose bytes fit 32 bits
constexpr int kDefaultLogSizeMiB = 10;
constexpr int kLeastEnvironmentLogSizeMiB = 3;
constexpr int kMinKernelLevel = 1;
constexpr int kMaxKernelLevel = 7;

enum class Kind {
    Switch,
    StorageRoot,
    MaxSize,
    SectionSize,
    DeleteSize,
    KernelLevel,
    AndroidLevel,
    OwnedText,
};

bool isAndroidLevel(char letter) {
    return letter != '\0' && std::strchr(kPriorityLetters, letter) != nullptr;
}

bool inRange(int value, int minimum, int maximum) {
    return value >= minimum && value <= maximum;
}

} // namespace

/** One key of log.cfg: its name with the "=", what it sets and what holds without it. */
struct Setting {
    const char* key;
    Kind kind;
    std::atomic<bool> LogService::*flag = nullptr;
    std::atomic<bool> LogService::*secondFlag = nullptr;
    const char* fallback = nullptr; ///< instead of a missing environment variable
    char* LogService::*text = nullptr; ///< where an OwnedText goes
    const char* noMemory = nullptr; ///< report when there is no memory for it
};

namespace {

using S = LogService;

/** All settings, in the order in which they are applied. */
const Setting kSettings[] = {
    {"UART_OUTPUT=", Kind::Switch, &S::mKLogToUart, &S::mALogToUart, "y"},
    {"NAND_FILE_OUTPUT=", Kind::Switch, &S::mKLogToFile, &S::mALogToFile, "n"},
    {"SAVE_FLUSH_SWITCH=", Kind::Switch, &S::mFlushSwitch, nullptr, "n"},
    {"STORAGE_PATH=", Kind::StorageRoot},
    {"MAX_LOG_SIZE=", Kind::MaxSize},
    {"LOG_SECTION_SIZE=", Kind::SectionSize},
    {"LOG_DELETE_SIZE=", Kind::DeleteSize},
    {"KLOG_OUTPUT=", Kind::Switch, &S::mKLogOutput, nullptr, "y"},
    {"KLOG_LEVEL=", Kind::KernelLevel},
    {"ALOG_OUTPUT=", Kind::Switch, &S::mALogOutput, nullptr, "y"},
    {"ALOG_LEVEL=", Kind::AndroidLevel},
    {"ALOG_MODULE=", Kind::OwnedText, nullptr, nullptr, "ALL_MODULE", &S::mModuleCfg,
     "fail to malloc module cfg buf!\n"},
    {"ALOG_FORMAT=", Kind::OwnedText, nullptr, nullptr, "brief", &S::mFormatCfg,
     "fail to malloc fromat cfg buf!\n"},
};

/** The key without its "=": the name of the environment variable and of the setting in messages. */
struct Name {
    char text[32] = {};
    explicit Name(const Setting& setting) { std::memcpy(text, setting.key, std::strlen(setting.key) - 1); }
};

void reportSetting(const Setting& setting, const char* path, const char* what) {
    logError("fail to parse %s,(%s) %s\n", path, Name(setting).text, what);
}

const char* environment(const Setting& setting) {
    return std::getenv(Name(setting).text);
}

/** The variable's number; 0, which no range admits, when it is not set. */
int environmentNumber(const Setting& setting) {
    const char* value = environment(setting);
    return value == nullptr ? 0 : parseNumber(value);
}

/** The significant lines of the file as one text; null, reported where it must be, when it cannot be read. */
Text readConfiguration(const char* path) {
    struct stat info;
    if (stat(path, &info) != 0)
        return nullptr;
    size_t capacity = static_cast<size_t>(info.st_size) + 1;
    Text text = allocateText(capacity);
    if (text == nullptr) {
        logError("fail to calloc cfg buf!\n");
        logErrno();
        return nullptr;
    }
    Stream file = openForReading(path);
    if (file == nullptr)
        return nullptr;
    readSignificantLines(file.get(), text.get(), capacity);
    return text;
}

} // namespace

int LogService::logConfigParse(const char* path) {
    releaseConfigurationTexts();
    mModuleCfg = nullptr; // a text that is not ours may be left of an earlier start
    mFormatCfg = nullptr;
    Text text = readConfiguration(path);
    if (text == nullptr)
        return -1;
    mCfgTextsOwned = true;
    for (const Setting& setting : kSettings) {
        if (!applySetting(setting, text.get(), path)) {
            releaseConfigurationTexts();
            return -1;
        }
    }
    logDebug("logConfigParse %s success\n", path);
    return 1;
}

/** Applies one key of the file. False, after its report, for a condition that ends the parsing. */
bool LogService::applySetting(const Setting& setting, const char* text, const char* path) {
    switch (setting.kind) {
    case Kind::Switch:
        this->*setting.flag = getCfgValue(text, setting.key);
        if (setting.secondFlag != nullptr)
            this->*setting.secondFlag = getCfgValue(text, setting.key);
        return true;
    case Kind::StorageRoot:
        applyStorageRoot(setting, text, path);
        return true;
    case Kind::AndroidLevel:
        return applyAndroidLevel(setting, text, path);
    case Kind::OwnedText:
        return applyOwnedText(setting, text, path);
    default:
        return applyNumber(setting, text, path);
    }
}

void LogService::applyStorageRoot(const Setting& setting, const char* text, const char* path) {
    Value value = {};
    const char* root = value;
    if (getCfgStr(text, setting.key, value, kValueLimit) == 0) {
        logDebug("Use configured STORAGE_PATH: %s\n", value);
    } else {
        reportSetting(setting, path, "not found");
        root = environment(setting);
        if (root == nullptr)
            return;
        logDebug("Use env STORAGE_PATH: %s\n", root);
    }
    std::free(mSavePath);
    mSavePath = strdup(root);
}

bool LogService::applyNumber(const Setting& setting, const char* text, const char* path) {
    Value digits = {};
    if (getCfgStr(text, setting.key, digits, kValueLimit) != 0) {
        reportSetting(setting, path, "not found");
        return false;
    }
    int value = parseNumber(digits);
    bool accepted = true;
    switch (setting.kind) {
    case Kind::MaxSize:
        setMaxLogSize(value);
        break;
    case Kind::SectionSize:
        accepted = inRange(value, kMinSectionKiB, kMaxSectionKiB);
        if (accepted)
            mLogSectionSize = static_cast<uint32_t>(value) * 1024;
        break;
    case Kind::DeleteSize: // from one section to half of the whole
        accepted = inRange(value, static_cast<int>(mLogSectionSize / 1024), std::max(mMaxLogSize, 0) * 512);
        if (accepted)
            mLogDeleteSize = static_cast<uint32_t>(value) * 1024;
        break;
    default:
        accepted = inRange(value, kMinKernelLevel, kMaxKernelLevel);
        if (accepted)
            mKLogLevel = value;
        break;
    }
    if (!accepted)
        reportSetting(setting, path, "out of range");
    return accepted;
}

bool LogService::applyAndroidLevel(const Setting& setting, const char* text, const char* path) {
    Value level = {};
    if (getCfgStr(text, setting.key, level, kValueLimit) != 0) {
        reportSetting(setting, path, "not found");
        return false;
    }
    std::memset(mALogLevel, 0, sizeof mALogLevel);
    std::memcpy(mALogLevel, level, sizeof mALogLevel - 1);
    if (isAndroidLevel(mALogLevel[0]))
        return true;
    reportSetting(setting, path, "not corrected");
    return false;
}

bool LogService::applyOwnedText(const Setting& setting, const char* text, const char* path) {
    size_t room = std::strlen(text) + 1;
    Text copy = allocateText(room);
    if (copy == nullptr) {
        logError("%s", setting.noMemory);
        logErrno();
        return false;
    }
    if (getCfgStr(text, setting.key, copy.get(), static_cast<int>(room - 1)) != 0) {
        reportSetting(setting, path, "not found");
        return false;
    }
    this->*setting.text = copy.release();
    return true;
}

void LogService::setMaxLogSize(int value) {
    if (value > kMaxLogSizeMiB) {
        logError("MAX_LOG_SIZE %d is too large, %d is used\n", value, kMaxLogSizeMiB);
        value = kMaxLogSizeMiB;
    }
    mMaxLogSize = value;
}

int LogService::logConfigInit() {
    releaseConfigurationTexts();
    for (const Setting& setting : kSettings)
        applyDefault(setting);
    logDebug("logConfigInit log.cfg success\n");
    return 2;
}

/** Sets one setting from its environment variable, or to what holds without one. */
void LogService::applyDefault(const Setting& setting) {
    const char* value = environment(setting);
    int number = environmentNumber(setting);
    switch (setting.kind) {
    case Kind::Switch:
        this->*setting.flag = strToBool(value != nullptr ? value : setting.fallback);
        if (setting.secondFlag != nullptr)
            this->*setting.secondFlag = (this->*setting.flag).load();
        break;
    case Kind::StorageRoot: // keeps what the file may have set before it failed
        break;
    case Kind::MaxSize:
        setMaxLogSize(number < kLeastEnvironmentLogSizeMiB ? kDefaultLogSizeMiB : number);
        break;
    case Kind::SectionSize:
        if (!inRange(number, kMinSectionKiB, kMaxSectionKiB))
            number = kMinSectionKiB;
        mLogSectionSize = static_cast<uint32_t>(number) * 1024;
        break;
    case Kind::DeleteSize:
        mLogDeleteSize = mLogSectionSize;
        break;
    case Kind::KernelLevel:
        mKLogLevel = inRange(number, kMinKernelLevel, kMaxKernelLevel) ? number : kMaxKernelLevel;
        break;
    case Kind::AndroidLevel:
        std::memset(mALogLevel, 0, sizeof mALogLevel);
        mALogLevel[0] = value != nullptr && isAndroidLevel(value[0]) ? value[0] : 'd';
        break;
    case Kind::OwnedText: // the environment's or the built-in text itself, not a copy
        this->*setting.text = const_cast<char*>(value != nullptr ? value : setting.fallback);
        break;
    }
}

} // namespace vnlog

#include "config/Settings.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "config/ConfigFile.h"
#include "sources/AndroidFormat.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace vnlog {

namespace {

using S = ServiceState;

constexpr int kValueLimit = 127; // characters of a value that are looked at
using Value = char[kValueLimit + 1];

constexpr int kMaxLogSizeMiB = 4095; // the largest bound whose bytes fit 32 bits

struct Range {
    int minimum;
    int maximum;
    bool holds(int value) const { return value >= minimum && value <= maximum; }
};

/** A number: how it is kept, and what it may be. */
struct Number {
    int (*get)(const S&);
    void (*set)(S&, int);
    Range (*inFile)(const S&);
    bool environment; ///< whether the variable of the same name is asked
    Range inEnvironment;
    int (*fallback)(const S&); ///< without one in that range
};

enum class Kind {
    Switch, ///< y or n, in one flag or two
    GivenUp, ///< written as a switch; one that is read as on tells that storing was
    Root,
    Number,
    Level,
    FilterText, ///< kept only until the filter is built, and written by it
};

} // namespace

/** All about one setting. What its kind does not use is null. */
struct Setting {
    const char* key; ///< with the "="
    Kind kind;
    const char* fallback = nullptr; ///< instead of a missing environment variable
    Flag S::*flag = nullptr;
    Flag S::*secondFlag = nullptr;
    Number number{};
    char* S::*text = nullptr;
    const char* noMemory = nullptr; ///< report when there is no memory for the text
    void (Filter::*print)(FILE*) = nullptr;
};

namespace {

constexpr Setting onOff(const char* key, const char* fallback, Flag S::*flag, Flag S::*second = nullptr) {
    return {key, Kind::Switch, fallback, flag, second};
}
constexpr Setting givenUp(const char* key, Flag S::*flag) {
    return {key, Kind::GivenUp, nullptr, flag};
}
constexpr Setting number(const char* key, Number number) {
    return {key, Kind::Number, nullptr, nullptr, nullptr, number};
}
constexpr Setting filterText(const char* key, const char* fallback, char* S::*text, const char* noMemory,
                             void (Filter::*print)(FILE*)) {
    return {key, Kind::FilterText, fallback, nullptr, nullptr, {}, text, noMemory, print};
}

int kibibytes(uint32_t bytes) {
    return static_cast<int>(bytes / 1024);
}
uint32_t bytes(int kibibytes) {
    return static_cast<uint32_t>(kibibytes) * 1024;
}

void setMaxLogSize(S& state, int value) {
    if (value > kMaxLogSizeMiB) {
        logError("MAX_LOG_SIZE %d is too large, %d is used\n", value, kMaxLogSizeMiB);
        value = kMaxLogSizeMiB;
    }
    state.mMaxLogSize = value;
}

constexpr Range kSectionKiB = {64, 256};
constexpr Range kKernelLevels = {kLeastKernelLevel, kHighestKernelLevel};

/** All settings, in the order in which they are read and written. */
constexpr Setting kSettings[] = {
    onOff("UART_OUTPUT=", kYes, &S::mKLogToUart, &S::mALogToUart),
    onOff("NAND_FILE_OUTPUT=", kNo, &S::mKLogToFile, &S::mALogToFile),
    onOff("SAVE_FLUSH_SWITCH=", kNo, &S::mFlushSwitch),
    {kStorageRootKey, Kind::Root},
    givenUp("STORAGE_FULL=", &S::mStorageFull),
    number("MAX_LOG_SIZE=", {[](const S& s) { return s.mMaxLogSize; },
                             setMaxLogSize,
                             [](const S&) {
                                 return Range{INT_MIN, INT_MAX};
                             }, // the deletion size tells when it is too small
                             true,
                             {3, INT_MAX},
                             [](const S&) { return 10; }}),
    number("LOG_SECTION_SIZE=",
           {[](const S& s) { return kibibytes(s.mLogSectionSize); },
            [](S& s, int value) { s.mLogSectionSize = bytes(value); }, [](const S&) { return kSectionKiB; },
            true, kSectionKiB, [](const S&) { return kSectionKiB.minimum; }}),
    number("LOG_DELETE_SIZE=",
           {[](const S& s) { return kibibytes(s.mLogDeleteSize); },
            [](S& s, int value) { s.mLogDeleteSize = bytes(value); },
            [](const S& s) { // from one section to half of the whole
                return Range{kibibytes(s.mLogSectionSize), std::max(s.mMaxLogSize, 0) * 512};
            },
            false,
            {},
            [](const S& s) { return kibibytes(s.mLogSectionSize); }}),
    onOff("KLOG_OUTPUT=", kYes, &S::mKLogOutput),
    number("KLOG_LEVEL=",
           {[](const S& s) { return s.mKLogLevel.load(); }, [](S& s, int value) { s.mKLogLevel = value; },
            [](const S&) { return kKernelLevels; }, true, kKernelLevels,
            [](const S&) { return kHighestKernelLevel; }}),
    onOff("ALOG_OUTPUT=", kYes, &S::mALogOutput),
    {"ALOG_LEVEL=", Kind::Level, "d"},
    filterText("ALOG_MODULE=", kAllModules, &S::mModuleCfg, "fail to malloc module cfg buf!\n",
               &Filter::printModules),
    filterText("ALOG_FORMAT=", kDefaultLineFormat, &S::mFormatCfg, "fail to malloc fromat cfg buf!\n",
               &Filter::printLineFormat),
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

/** Copies a value that must be there; otherwise reports it. */
bool copyNeeded(const Setting& setting, const char* text, const char* path, char* out, int limit) {
    if (copyValue(text, setting.key, out, limit))
        return true;
    reportSetting(setting, path, "not found");
    return false;
}

/** The significant lines of the file as one text; null, reported where it must be, when it cannot be read. */
Text readFile(const char* path, Configuration whose) {
    CancelGuard guard;
    size_t size = 0;
    FileDescriptor file = openConfiguration(path, whose, &size);
    Stream stream(file.valid() ? fdopen(file.get(), "r") : nullptr);
    if (stream == nullptr)
        return nullptr;
    (void)file.release(); // the stream's from here on
    Text text = readSignificantLines(stream.get(), size);
    if (text == nullptr) {
        logError("fail to calloc cfg buf!\n");
        logErrno();
    }
    return text;
}

void setFlags(S& state, const Setting& setting, bool on) {
    state.*setting.flag = on;
    if (setting.secondFlag != nullptr)
        state.*setting.secondFlag = on;
}

} // namespace

Settings::~Settings() {
    releaseTexts();
}

void Settings::releaseTexts() {
    if (!mTextsOwned)
        return;
    std::free(mState.mModuleCfg);
    std::free(mState.mFormatCfg);
    mState.mModuleCfg = nullptr;
    mState.mFormatCfg = nullptr;
    mTextsOwned = false;
}

bool Settings::forgetGivingUp() {
    bool gaveUp = mGaveUp;
    mGaveUp = false;
    return gaveUp;
}

bool Settings::load() {
    mGaveUp = false;
    const char* own = mState.mCfgPath;
    if (parse(own)) {
        discardOldConfiguration(own);
        return true;
    }
    if (restoreConfiguration(own) && parse(own))
        return true;
    const char* fallback = fallbackConfiguration();
    if (!pathExists(fallback))
        return false;
    setRoot(nullptr); // of the file that is unusable: another one may leave it to the environment
    return parse(fallback);
}

void Settings::setRoot(const char* root) {
    LockGuard<StorageLock> lock(mStorageLock);
    std::free(mState.mSavePath);
    mState.mSavePath = root != nullptr ? strdup(root) : nullptr;
}

bool Settings::parse(const char* path) {
    releaseTexts();
    mState.mModuleCfg = nullptr; // a text that is not ours may be left of an earlier start
    mState.mFormatCfg = nullptr;
    bool own = std::strcmp(path, mState.mCfgPath) == 0;
    Text text = readFile(path, own ? Configuration::Own : Configuration::Foreign);
    if (text == nullptr)
        return false;
    mTextsOwned = true;
    for (const Setting& setting : kSettings) {
        if (!read(setting, text.get(), path)) {
            releaseTexts();
            return false;
        }
    }
    logDebug("logConfigParse %s success\n", path);
    return true;
}

/** Applies one key of the file. False, after its report, for a condition that ends the parsing. */
bool Settings::read(const Setting& setting, const char* text, const char* path) {
    switch (setting.kind) {
    case Kind::Switch:
        setFlags(mState, setting, valueIsYes(text, setting.key));
        return true;
    case Kind::GivenUp:
        mGaveUp = valueIsYes(text, setting.key);
        if (mGaveUp)
            mState.mKLogToFile = mState.mALogToFile = true;
        return true;
    case Kind::Root:
        readRoot(setting, text, path);
        return true;
    case Kind::Number:
        return readNumberSetting(setting, text, path);
    case Kind::Level:
        return readLevel(setting, text, path);
    case Kind::FilterText:
        return readOwnedText(setting, text, path);
    }
    return false;
}

bool Settings::readNumberSetting(const Setting& setting, const char* text, const char* path) {
    Value digits = {};
    if (!copyNeeded(setting, text, path, digits, kValueLimit))
        return false;
    int value = parseNumber(digits);
    if (!setting.number.inFile(mState).holds(value)) {
        reportSetting(setting, path, "out of range");
        return false;
    }
    setting.number.set(mState, value);
    return true;
}

void Settings::readRoot(const Setting& setting, const char* text, const char* path) {
    Value value = {};
    const char* root = value;
    if (copyNeeded(setting, text, path, value, kValueLimit)) {
        logDebug("Use configured STORAGE_PATH: %s\n", value);
    } else {
        root = environment(setting);
        if (root == nullptr)
            return;
        logDebug("Use env STORAGE_PATH: %s\n", root);
    }
    setRoot(root);
}

bool Settings::readLevel(const Setting& setting, const char* text, const char* path) {
    Value level = {};
    if (!copyNeeded(setting, text, path, level, kValueLimit))
        return false;
    std::memset(mState.mALogLevel, 0, sizeof mState.mALogLevel);
    std::memcpy(mState.mALogLevel, level, sizeof mState.mALogLevel - 1);
    if (isPriorityLetter(mState.mALogLevel[0]))
        return true;
    reportSetting(setting, path, "not corrected");
    return false;
}

bool Settings::readOwnedText(const Setting& setting, const char* text, const char* path) {
    size_t room = std::strlen(text) + 1;
    Text copy = allocateText(room);
    if (copy == nullptr) {
        logError("%s", setting.noMemory);
        logErrno();
        return false;
    }
    if (!copyNeeded(setting, text, path, copy.get(), static_cast<int>(room - 1)))
        return false;
    mState.*setting.text = copy.release();
    return true;
}

void Settings::takeDefaults() {
    releaseTexts();
    for (const Setting& setting : kSettings)
        fallBack(setting);
    logDebug("logConfigInit log.cfg success\n");
}

/** Sets one setting from its environment variable, or to what holds without one. */
void Settings::fallBack(const Setting& setting) {
    const char* value = environment(setting);
    switch (setting.kind) {
    case Kind::Switch:
        setFlags(mState, setting, isYes(value != nullptr ? value : setting.fallback));
        return;
    case Kind::GivenUp:
    case Kind::Root: // keeps what the file may have set before it failed
        return;
    case Kind::Number: {
        const Number& number = setting.number;
        bool usable =
            number.environment && value != nullptr && number.inEnvironment.holds(parseNumber(value));
        number.set(mState, usable ? parseNumber(value) : number.fallback(mState));
        return;
    }
    case Kind::Level:
        std::memset(mState.mALogLevel, 0, sizeof mState.mALogLevel);
        mState.mALogLevel[0] =
            value != nullptr && isPriorityLetter(value[0]) ? value[0] : setting.fallback[0];
        return;
    case Kind::FilterText: // the environment's or the built-in text itself, not a copy
        mState.*setting.text = const_cast<char*>(value != nullptr ? value : setting.fallback);
        return;
    }
}

bool Settings::save() {
    CancelGuard guard;
    char* text = nullptr;
    size_t length = 0;
    Stream out(open_memstream(&text, &length));
    bool composed = out != nullptr;
    if (composed) {
        for (const Setting& setting : kSettings)
            write(setting, out.get());
        std::fputs("\n", out.get());
        composed = std::fflush(out.get()) == 0 && std::ferror(out.get()) == 0;
    }
    out.reset();
    Text owned(text);
    if (composed)
        return replaceConfiguration(mState.mCfgPath, text, length);
    logError("write error \n");
    return false;
}

/** The configured root; commands alone change it, so that a save need not wait for the flush thread. */
const char* Settings::root() const VNLOG_UNCHECKED {
    if (mState.mConfiguredPath != nullptr)
        return mState.mConfiguredPath;
    return mState.mSavePath != nullptr ? mState.mSavePath : "";
}

/** Writes the line of one setting. */
void Settings::write(const Setting& setting, FILE* out) {
    std::fputs(setting.key, out);
    switch (setting.kind) {
    case Kind::Switch:
    case Kind::GivenUp: {
        bool on = mState.*setting.flag || (setting.secondFlag != nullptr && mState.*setting.secondFlag);
        std::fputs(on ? kYes : kNo, out);
        break;
    }
    case Kind::Root:
        std::fputs(root(), out);
        break;
    case Kind::Number:
        std::fprintf(out, "%u", static_cast<unsigned>(setting.number.get(mState)));
        break;
    case Kind::Level:
        std::fputs(mState.mALogLevel, out);
        break;
    case Kind::FilterText:
        (mFilter.*setting.print)(out);
        break;
    }
    std::fputs("\n", out);
}

} // namespace vnlog

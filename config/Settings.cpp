// SPDX-License-Identifier: Apache-2.0
#include "config/Settings.h"

#include "base/Diagnostics.h"
#include "base/KeyValue.h"
#include "base/Text.h"
#include "config/Findings.h"
#include "config/SettingsFile.h"
#include "config/SettingsTable.h"
#include "platform/sysroot/SystemRoot.h"
#include "sources/AndroidFormat.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vnlog {

namespace {

using S = ServiceState;

constexpr size_t kLongestParsedRoot = 127; // what is behind it is cut off
constexpr size_t kFiles = 3; // that a start may read

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

unsigned bitOf(const Setting& setting) {
    return 1U << (&setting - kSettings);
}

/** What a text holds for parseNumber: nothing, a number and more behind it, or a number. */
enum class Digits { None, Some, All };

Digits digitsOf(const char* text) {
    constexpr char kBlanks[] = " \t\n\v\f\r";
    text += std::strspn(text, kBlanks);
    text += *text == '-' || *text == '+' ? 1 : 0;
    size_t count = std::strspn(text, "0123456789");
    if (count == 0)
        return Digits::None;
    text += count;
    return text[std::strspn(text, kBlanks)] == '\0' ? Digits::All : Digits::Some;
}

void setFlags(S& state, const Setting& setting, bool on) {
    state.*setting.flag = on;
    if (setting.secondFlag != nullptr)
        state.*setting.secondFlag = on;
}

/** Without the system root, as a device's user knows it. */
const char* defaultRoot() {
    platform::SystemRoot systemRoot;
    (void)systemRoot.read(); // a start refuses one that is too long
    return systemRoot.places().storageRoot;
}

} // namespace

Settings::~Settings() {
    releaseTexts();
}

void Settings::releaseTexts() {
    if (mModuleText != nullptr)
        mState.mModuleCfg = nullptr;
    if (mFormatText != nullptr)
        mState.mFormatCfg = nullptr;
    mModuleText = nullptr;
    mFormatText = nullptr;
}

/** Makes the text the setting's. */
void Settings::ownText(const Setting& setting, Text text) {
    mState.*setting.filter.text = text.get();
    (setting.filter.text == &S::mModuleCfg ? mModuleText : mFormatText) = std::move(text);
}

bool Settings::forgetGivingUp() {
    bool gaveUp = mGaveUp;
    mGaveUp = false;
    return gaveUp;
}

void Settings::beginReading() {
    releaseTexts();
    mState.mModuleCfg = nullptr; // a text that is not ours may be left of an earlier start
    mState.mFormatCfg = nullptr;
    mOptionalSet = 0;
    mGaveUp = false;
}

void Settings::load() {
    CancelGuard guard;
    LoggedFindings findings;
    const char* own = mState.mCfgPath;
    Examined found = examine(own, Configuration::Own, findings);
    size_t size = 0;
    mOwnUnread = !openConfiguration(own, Configuration::Own, &size).valid();
    mRejected = found.there && !found.whole;
    mRestored = found.restored;
    if (found.whole)
        discardSetAside(own);
    if (mRestored)
        logError("the last save of %s was cut off, the settings from before it are used\n", own);
}

Settings::Examined Settings::examine(const char* own, Configuration whose, Findings& findings) {
    beginReading();
    Path aside = setAside(own);
    SettingsFile files[kFiles] = {
        {own, whose}, {aside.text, whose}, {fallbackConfiguration(), Configuration::Foreign}};
    for (const Setting& setting : kSettings) {
        if (!takeFromFiles(setting, files))
            takeOtherwise(setting);
    }
    Examined found{};
    const SettingsFile* first = nullptr; // that can be used
    for (SettingsFile& file : files) {
        if (!file.asked() || file.error() == ENOENT)
            continue;
        reportFile(file, first == nullptr, findings);
        first = first == nullptr && file.usable() ? &file : first;
        if (&file == files)
            found = {true, file.usable(), file.usable() && findings.count() == 0, false};
    }
    found.restored = files[1].asked() && files[1].usable();
    if (first == nullptr)
        logDebug("logConfigInit log.cfg success\n");
    else if (findings.count() == 0)
        logDebug("logConfigParse %s success\n", first->path());
    return found;
}

/** Takes a setting from the first file in which it is good. False when it is so in none. */
bool Settings::takeFromFiles(const Setting& setting, SettingsFile* files) {
    for (SettingsFile* file = files; file != files + kFiles; ++file) {
        if (!file->usable())
            continue;
        Outcome& outcome = file->outcomes[&setting - kSettings];
        outcome = takeFrom(setting, *file);
        if (outcome != Outcome::Refused)
            return outcome != Outcome::Left;
    }
    return false;
}

Outcome Settings::takeFrom(const Setting& setting, const SettingsFile& file) {
    if (Text value = file.value(setting))
        return takeSetting(setting, std::move(value));
    if (!file.complete()) // its line may be lost as well
        return Outcome::Refused;
    if (setting.mayBeMissing())
        return Outcome::Left;
    if (setting.kind != Kind::Switch)
        return Outcome::Refused;
    setFlags(mState, setting, false);
    return Outcome::Adjusted;
}

/** Applies a value of a file; an optional setting is written from then on. */
Outcome Settings::takeSetting(const Setting& setting, Text value) {
    Outcome outcome = take(setting, std::move(value));
    if (outcome != Outcome::Refused)
        setOptional(setting.key);
    return outcome;
}

/** Applies a value, if it is good or there is something like it that is. */
Outcome Settings::take(const Setting& setting, Text value) {
    switch (setting.kind) {
    case Kind::Switch:
    case Kind::GivenUp:
        return takeSwitch(setting, *value);
    case Kind::Root:
        if (!usableRoot(value.get()))
            return Outcome::Refused;
        logDebug("Use configured STORAGE_PATH: %s\n", value.get());
        setRoot(value.get());
        return Outcome::Taken;
    case Kind::Number:
        return takeNumber(setting, value.get());
    case Kind::Level:
    case Kind::Priority:
        if (!isPriorityLetter(*value))
            return Outcome::Refused;
        setLevel(setting, value.get());
        return Outcome::Taken;
    case Kind::FilterText: {
        Outcome outcome = setting.filter.judge(value.get());
        if (outcome != Outcome::Refused)
            ownText(setting, std::move(value));
        return outcome;
    }
    }
    return Outcome::Refused;
}

/** By its first character; another one than "y" and "n" is off, or refused where the key may be missing. */
Outcome Settings::takeSwitch(const Setting& setting, char value) {
    bool on = value == kYes[0];
    bool known = on || value == kNo[0];
    if (setting.kind == Kind::GivenUp) {
        mGaveUp = on;
        if (on)
            mState.mKLogToFile = mState.mALogToFile = true;
    } else if (!setting.optional || known) {
        setFlags(mState, setting, on);
    } else {
        return Outcome::Refused;
    }
    return known ? Outcome::Taken : Outcome::Adjusted;
}

Outcome Settings::takeNumber(const Setting& setting, const char* value) {
    const Number& number = setting.number;
    Range range = setting.range(mState);
    int read = parseNumber(value);
    Digits digits = digitsOf(value);
    if (setting.optional && digits != Digits::All)
        return Outcome::Refused; // these have always been read whole
    bool good = digits != Digits::None && range.holds(read);
    if (!good && !number.adjusted.holds(read))
        return Outcome::Refused;
    number.set(mState, std::clamp(read, range.minimum, range.maximum));
    return good && digits == Digits::All ? Outcome::Taken : Outcome::Adjusted;
}

/** Takes a setting that no file says well from the environment, or its default. */
void Settings::takeOtherwise(const Setting& setting) {
    const char* value = environment(setting);
    if (setting.kind != Kind::Root) {
        fallBack(setting, value);
    } else if (value != nullptr && usableRoot(value)) {
        logDebug("Use env STORAGE_PATH: %s\n", value);
        setRoot(value);
    }
}

/** Tells what is wrong with a file; of one that fills in for the first, only with values that were asked for.
 */
void Settings::reportFile(SettingsFile& file, bool first, Findings& findings) {
    if (!file.usable()) {
        char reason[128];
        findings.add(file.path(), 0, "%s",
                     file.error() != 0 ? strerror_r(file.error(), reason, sizeof reason)
                                       : "it holds no key of the service");
        return;
    }
    for (const Setting& setting : kSettings) {
        Outcome outcome = file.outcomes[&setting - kSettings];
        bool wrong = outcome == Outcome::Adjusted || outcome == Outcome::Refused;
        if (wrong && (file.lineOf(setting) != 0 || (first && !setting.mayBeMissing())))
            reportSettingOf(setting, file, findings);
    }
    if (first)
        file.reportLines(findings);
}

void Settings::reportSettingOf(const Setting& setting, const SettingsFile& file, Findings& findings) {
    Name name(setting);
    Text said = file.value(setting);
    Text used = valueRead(setting);
    const char* instead = used != nullptr ? used.get() : "";
    if (said == nullptr) {
        findings.add(file.path(), 0, "%s is missing, %s is used", name.text, instead);
        return;
    }
    unsigned line = file.lineOf(setting);
    if (setting.kind == Kind::FilterText && file.outcomes[&setting - kSettings] == Outcome::Adjusted) {
        findings.add(file.path(), line, "%s=%.100s has items that are no rules, the others are used",
                     name.text, said.get());
        return;
    }
    Range range = setting.range(mState);
    char numbers[48];
    (void)formatText(numbers, "in %d to %d", range.minimum, range.maximum); // fits
    findings.add(file.path(), line, "%s=%.100s is not %s, %s is used", name.text, said.get(),
                 setting.expected != nullptr ? setting.expected : numbers, instead);
}

void Settings::setRoot(const char* root) {
    LockGuard<StorageLock> lock(mStorageLock);
    std::free(mState.mSavePath);
    mState.mSavePath = root != nullptr ? strdup(root) : nullptr;
}

bool Settings::parse(const char* path) {
    beginReading();
    bool own = std::strcmp(path, mState.mCfgPath) == 0;
    SettingsFile file(path, own ? Configuration::Own : Configuration::Foreign);
    if (!file.usable() && file.error() != 0)
        return false;
    for (const Setting& setting : kSettings) {
        if (!read(setting, file)) {
            releaseTexts();
            return false;
        }
    }
    logDebug("logConfigParse %s success\n", path);
    return true;
}

/** Applies one key of a file that is parsed. False, after its report, for what ends the parsing. */
bool Settings::read(const Setting& setting, const SettingsFile& file) {
    Text value = file.value(setting);
    if (value == nullptr && file.lineOf(setting) == 0)
        return readMissing(setting, file.path());
    if (value == nullptr) {
        logError("%s", setting.filter.noMemory);
        logErrno();
        return false;
    }
    if (setting.kind == Kind::FilterText) {
        ownText(setting, std::move(value));
        return true;
    }
    if (setting.kind == Kind::Root) {
        value.get()[strnlen(value.get(), kLongestParsedRoot)] = '\0';
        logDebug("Use configured STORAGE_PATH: %s\n", value.get());
        setRoot(value.get());
        return true;
    }
    int number = parseNumber(value.get());
    if (setting.number.anyParsed) {
        setting.number.set(mState, number);
        return true;
    }
    bool fits = setting.kind != Kind::Number || setting.range(mState).holds(number);
    if (fits && takeSetting(setting, std::move(value)) != Outcome::Refused)
        return true;
    if (setting.optional) // gives way to its default
        fallBack(setting, nullptr);
    reportSetting(setting, file.path(), setting.kind == Kind::Number ? "out of range" : "not corrected");
    return setting.optional;
}

/** A missing switch is off. What else may be missing is asked of the environment. */
bool Settings::readMissing(const Setting& setting, const char* path) {
    if (setting.kind == Kind::Switch && !setting.optional)
        setFlags(mState, setting, false);
    else if (setting.mayBeMissing())
        fallBack(setting, environment(setting));
    else
        reportSetting(setting, path, "not found");
    const char* root = setting.kind == Kind::Root ? environment(setting) : nullptr;
    if (root != nullptr) {
        logDebug("Use env STORAGE_PATH: %s\n", root);
        setRoot(root);
    }
    return !setting.needed();
}

void Settings::setLevel(const Setting& setting, const char* level) {
    if (setting.kind == Kind::Priority) {
        setting.number.set(mState, letterPriority(*level));
        return;
    }
    (void)formatText(mState.mALogLevel, "%s", level); // of a longer one the first letters
}

void Settings::takeDefaults() {
    beginReading();
    for (const Setting& setting : kSettings)
        fallBack(setting, environment(setting));
    logDebug("logConfigInit log.cfg success\n");
}

/** Sets one setting from the value of its environment variable, or to what holds without a good one. */
void Settings::fallBack(const Setting& setting, const char* value) {
    switch (setting.kind) {
    case Kind::Switch:
        setFlags(mState, setting, isYes(value != nullptr ? value : setting.fallback));
        return;
    case Kind::GivenUp:
    case Kind::Root: // keeps what the file may have set before it failed
        return;
    case Kind::Number: {
        const Number& number = setting.number;
        bool usable = value != nullptr && digitsOf(value) != Digits::None &&
                      number.inEnvironment.holds(parseNumber(value));
        int fallback = number.given != nullptr ? number.given(mState).minimum : number.fallback;
        number.set(mState, usable ? parseNumber(value) : fallback);
        return;
    }
    case Kind::Level:
    case Kind::Priority: {
        const char letter[] = {value != nullptr && isPriorityLetter(*value) ? *value : *setting.fallback,
                               '\0'};
        setLevel(setting, letter);
        return;
    }
    case Kind::FilterText: // the environment's or the built-in text itself, not a copy
        mState.*setting.filter.text = const_cast<char*>(value != nullptr ? value : setting.fallback);
        return;
    }
}

void Settings::setOptional(const char* key) {
    for (const Setting& setting : kSettings) {
        if (setting.optional && std::strcmp(setting.key, key) == 0)
            mOptionalSet |= bitOf(setting);
    }
}

bool Settings::save() {
    CancelGuard guard;
    size_t length = 0;
    Text text = compose(&length);
    if (text == nullptr) {
        logError("write error \n");
        return false;
    }
    if (length > static_cast<size_t>(kMaxConfigurationSize)) { // the next start would not read it
        logError("log.cfg would be longer than %ld bytes\n", kMaxConfigurationSize);
        return false;
    }
    if (ownAppeared()) {
        logError("%s is there now and is read before it is written\n", mState.mCfgPath);
        return false;
    }
    if (mRejected)
        keepRejected(mState.mCfgPath);
    mRejected = false;
    if (!replaceConfiguration(mState.mCfgPath, text.get(), length))
        return false;
    if (mRestored)
        discardSetAside(mState.mCfgPath);
    mRestored = mOwnUnread = false;
    return true;
}

bool Settings::ownAppeared() const {
    size_t size = 0;
    return mOwnUnread && openConfiguration(mState.mCfgPath, Configuration::Own, &size).valid() && size > 0;
}

/** What log.cfg is to hold, and how long that is; null without memory. */
Text Settings::compose(size_t* length) {
    char* text = nullptr;
    Stream out(open_memstream(&text, length));
    if (out == nullptr)
        return nullptr;
    for (const Setting& setting : kSettings) {
        if (setting.optional && (mOptionalSet & bitOf(setting)) == 0)
            continue;
        std::fputs(setting.key, out.get());
        if (setting.kind == Kind::FilterText)
            (mFilter.*setting.filter.print)(out.get());
        else
            printValue(setting, out.get());
        std::fputs("\n", out.get());
    }
    std::fputs("\n", out.get());
    bool composed = std::fflush(out.get()) == 0 && std::ferror(out.get()) == 0;
    out.reset();
    Text owned(text);
    return composed ? std::move(owned) : nullptr;
}

/** The configured root; commands alone change it, so that a save need not wait for the flush thread. */
const char* Settings::root() const VNLOG_UNCHECKED {
    if (mState.mConfiguredPath != nullptr)
        return mState.mConfiguredPath;
    return mState.mSavePath != nullptr ? mState.mSavePath : "";
}

/** Prints a value as log.cfg has it, one of the filter as it was read. */
void Settings::printValue(const Setting& setting, FILE* out) {
    switch (setting.kind) {
    case Kind::Switch:
    case Kind::GivenUp: {
        bool on = mState.*setting.flag || (setting.secondFlag != nullptr && mState.*setting.secondFlag);
        std::fputs(on ? kYes : kNo, out);
        return;
    }
    case Kind::Root:
        std::fputs(root(), out);
        return;
    case Kind::Number:
        std::fprintf(out, "%u", static_cast<unsigned>(setting.number.get(mState)));
        return;
    case Kind::Level:
        std::fputs(mState.mALogLevel, out);
        return;
    case Kind::Priority:
        std::fputc(priorityLetter(static_cast<android_LogPriority>(setting.number.get(mState))), out);
        return;
    case Kind::FilterText:
        std::fputs(mState.*setting.filter.text, out);
        return;
    }
}

/** A setting's value as it was read, for a report; null without memory. */
Text Settings::valueRead(const Setting& setting) {
    char* text = nullptr;
    size_t length = 0;
    Stream out(open_memstream(&text, &length));
    if (out == nullptr)
        return nullptr;
    if (setting.kind == Kind::Root && *root() == '\0')
        std::fputs(defaultRoot(), out.get()); // which the store takes then
    else
        printValue(setting, out.get());
    out.reset();
    return Text(text);
}

void Settings::printRead(FILE* out) {
    for (const Setting& setting : kSettings) {
        Text value = valueRead(setting);
        std::fprintf(out, " %s%s", setting.key, value != nullptr ? value.get() : "");
    }
}

} // namespace vnlog

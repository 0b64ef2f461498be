// SPDX-License-Identifier: Apache-2.0
#include "config/SettingsFile.h"

#include "base/Diagnostics.h"
#include "base/KeyValue.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace vnlog {

namespace {

constexpr size_t kNearDistance = 3; // edits that make a word another key's misspelling
constexpr size_t kLongestKey = 31;

bool sameLetter(char a, char b) {
    return std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
}

/** Letters to be put in, left out or changed to make one word the other, upper or lower case. */
size_t editDistance(const char* word, size_t length, const char* other, size_t otherLength) {
    size_t row[kLongestKey + 1]; // from the beginning of `word` so far to each beginning of `other`
    for (size_t i = 0; i <= otherLength; ++i)
        row[i] = i;
    for (size_t w = 1; w <= length; ++w) {
        size_t diagonal = row[0];
        row[0] = w;
        for (size_t o = 1; o <= otherLength; ++o) {
            size_t changed = diagonal + (sameLetter(word[w - 1], other[o - 1]) ? 0 : 1);
            diagonal = row[o];
            row[o] = std::min({row[o] + 1, row[o - 1] + 1, changed});
        }
    }
    return row[otherLength];
}

/** The setting whose key the word may be meant for; null when it is like none. */
const Setting* nearestSetting(const char* word, size_t length) {
    const Setting* nearest = nullptr;
    size_t least = kNearDistance + 1;
    for (const Setting& setting : kSettings) {
        size_t keyLength = nameLength(setting);
        if (length > keyLength + kNearDistance || keyLength > length + kNearDistance)
            continue;
        size_t distance = editDistance(word, length, setting.key, keyLength);
        if (distance < least) {
            least = distance;
            nearest = &setting;
        }
    }
    return nearest;
}

} // namespace

void SettingsFile::read() {
    CancelGuard guard;
    size_t size = 0;
    FileDescriptor file = openConfiguration(mPath, mWhose, &size);
    Stream stream(file.valid() ? fdopen(file.get(), "r") : nullptr);
    if (stream == nullptr)
        return;
    (void)file.release(); // the stream's from here on
    mText = readSignificantLines(stream.get(), size);
    if (mText == nullptr) {
        logError("fail to calloc cfg buf!\n");
        logErrno();
        return;
    }
    while (size > 0 && mText.get()[size - 1] == '\0')
        --size;
    std::replace(mText.get(), mText.get() + size, '\0', '?'); // the lines behind it are read as well
}

bool SettingsFile::usable() {
    if (!mAsked) {
        mAsked = true;
        read();
        mError = mText == nullptr ? errno : 0;
        findKeys();
    }
    return std::any_of(mPlaces, mPlaces + kSettingCount,
                       [](const Place& place) { return place.key != nullptr; });
}

void SettingsFile::findKeys() {
    for (size_t i = 0; mText != nullptr && i < kSettingCount; ++i) {
        const char* text = mText.get();
        if (const char* key = std::strstr(text, kSettings[i].key))
            mPlaces[i] = {key, static_cast<unsigned>(std::count(text, key, '\n')) + 1};
    }
}

bool SettingsFile::complete() const {
    return std::all_of(kSettings, kSettings + kSettingCount, [this](const Setting& setting) {
        return !setting.needed() || placeOf(setting).key != nullptr;
    });
}

Text SettingsFile::value(const Setting& setting) const {
    const char* key = placeOf(setting).key;
    if (key == nullptr)
        return nullptr;
    const char* value = key + std::strlen(setting.key);
    return Text(strndup(value, std::strcspn(value, "\n")));
}

void SettingsFile::reportLines(Findings& findings) const {
    Line line = {mText.get(), 0, 1};
    while (*line.text != '\0' && !findings.enough()) {
        line.length = std::strcspn(line.text, "\n");
        if (line.length > 0)
            reportLine(line, findings);
        line.text += line.length + (line.text[line.length] == '\n' ? 1 : 0);
        ++line.number;
    }
}

void SettingsFile::reportLine(const Line& line, Findings& findings) const {
    bool known = false;
    for (const Setting& setting : kSettings) {
        const Place& place = placeOf(setting);
        int length = static_cast<int>(nameLength(setting));
        if (place.key > line.text && place.key < line.text + line.length) {
            known = true;
            findings.add(mPath, line.number, "%.*s is found inside this line and taken from there", length,
                         setting.key);
        }
        if (std::strncmp(line.text, setting.key, nameLength(setting) + 1) != 0)
            continue;
        known = true;
        if (place.key < line.text)
            findings.add(mPath, line.number, "%.*s is found in line %u already, this line does not count",
                         length, setting.key, place.line);
    }
    if (!known)
        reportUnknown(line, findings);
}

void SettingsFile::reportUnknown(const Line& line, Findings& findings) const {
    const char* end = static_cast<const char*>(std::memchr(line.text, '=', line.length));
    size_t length = end != nullptr ? static_cast<size_t>(end - line.text) : line.length;
    const char* kind = end != nullptr ? "unknown key" : "there is no \"=\" in";
    int shown = static_cast<int>(std::min<size_t>(length, 64));
    if (const Setting* meant = nearestSetting(line.text, length))
        findings.add(mPath, line.number, "%s %.*s, did you mean %.*s?", kind, shown, line.text,
                     static_cast<int>(nameLength(*meant)), meant->key);
    else
        findings.add(mPath, line.number, "%s %.*s", kind, shown, line.text);
}

} // namespace vnlog

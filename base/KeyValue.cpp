// SPDX-License-Identifier: Apache-2.0
#include "base/KeyValue.h"

#include "base/Diagnostics.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace vnlog {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isLetterOrDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/** The text behind the first occurrence of `key`, or null. */
const char* findValue(const char* text, const char* key) {
    const char* found = std::strstr(text, key);
    return found == nullptr ? nullptr : found + std::strlen(key);
}

} // namespace

int parseNumber(const char* text) {
    while (*text == ' ' || (*text >= '\t' && *text <= '\r'))
        ++text;
    bool negative = *text == '-';
    if (*text == '-' || *text == '+')
        ++text;
    long long value = 0;
    for (; isDigit(*text) && value <= INT_MAX; ++text)
        value = value * 10 + (*text - '0');
    value = negative ? -value : value;
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

Text readSignificantLines(FILE* file, size_t limit) {
    Text text = allocateText(limit + 1);
    if (text == nullptr)
        return nullptr;
    char* line = nullptr;
    size_t lineSize = 0;
    size_t used = 0;
    ssize_t length;
    while ((length = getline(&line, &lineSize, file)) > 0) {
        bool kept = isLetterOrDigit(line[0]);
        size_t bytes = kept ? static_cast<size_t>(length) : 1;
        if (bytes > limit - used)
            break;
        std::memcpy(text.get() + used, kept ? line : "\n", bytes);
        used += bytes;
    }
    std::free(line);
    return text;
}

bool isYes(const char* text) {
    return std::strcmp(text, kYes) == 0;
}

bool valueIsYes(const char* text, const char* key) {
    const char* value = findValue(text, key);
    return value != nullptr && *value == kYes[0];
}

bool copyValue(const char* text, const char* key, char* out, int limit, int* length) {
    const char* value = findValue(text, key);
    size_t copied = 0;
    if (value != nullptr) {
        copied = std::min(std::strcspn(value, "\n"), static_cast<size_t>(std::max(limit, 0)));
        std::memcpy(out, value, copied);
    }
    if (length != nullptr)
        *length = static_cast<int>(copied);
    return value != nullptr;
}

bool readNumber(const char* text, const char* key, int* out, int minimum, int maximum, int fallback) {
    char digits[32] = {};
    if (!copyValue(text, key, digits, sizeof digits - 1)) {
        logError("fail to parse [%s] not found \n", key);
        return false;
    }
    int value = parseNumber(digits);
    if (value < minimum || value > maximum) {
        if (fallback == -1)
            return false;
        value = fallback;
    }
    *out = value;
    return true;
}

} // namespace vnlog

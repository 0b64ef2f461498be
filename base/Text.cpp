// SPDX-License-Identifier: Apache-2.0
#include "base/Text.h"

#include <cstdio>
#include <cstring>

namespace vnlog {

namespace {

unsigned char byteAt(std::string_view text, size_t at) {
    return static_cast<unsigned char>(text[at]);
}

} // namespace

bool formatTextArgs(char* out, size_t size, const char* format, va_list args) {
    std::memset(out, 0, size);
    int length = std::vsnprintf(out, size, format, args);
    return length >= 0 && static_cast<size_t>(length) < size;
}

std::string errorText(int error) {
    char text[128];
    return strerror_r(error, text, sizeof text);
}

size_t utf8Length(std::string_view text) {
    unsigned char first = text.empty() ? 0xff : byteAt(text, 0);
    if (first < 0x80)
        return 1;
    size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
    if (length == 0 || text.size() < length)
        return 0;
    // Neither longer than needed, nor a half of a pair, nor beyond the last character.
    unsigned char least = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
    unsigned char most = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
    if (byteAt(text, 1) < least || byteAt(text, 1) > most)
        return 0;
    for (size_t at = 2; at < length; ++at)
        if ((byteAt(text, at) & 0xc0) != 0x80)
            return 0;
    return length;
}

Path entryPath(const char* folder, const char* name) {
    Path path;
    formatText(path.text, "%s/%s", folder, name);
    return path;
}

bool shellSafe(const char* path) {
    if (path[0] == '\0' || std::strchr("-~#", path[0]) != nullptr)
        return false;
    for (const char* c = path; *c != '\0'; ++c) {
        bool control = static_cast<unsigned char>(*c) <= ' ' || *c == '\x7f';
        if (control || std::strchr("|&;<>()$`\\\"'*?[]{}!^", *c) != nullptr)
            return false;
    }
    return true;
}

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#include "base/Text.h"

#include <cstdio>
#include <cstring>

namespace vnlog {

bool formatTextArgs(char* out, size_t size, const char* format, va_list args) {
    std::memset(out, 0, size);
    int length = std::vsnprintf(out, size, format, args);
    return length >= 0 && static_cast<size_t>(length) < size;
}

std::string errorText(int error) {
    char text[128];
    return strerror_r(error, text, sizeof text);
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

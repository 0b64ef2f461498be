// SPDX-License-Identifier: Apache-2.0
#include "config/Findings.h"

#include "base/Diagnostics.h"
#include "base/Text.h"

#include <algorithm>

namespace vnlog {

namespace {

constexpr unsigned kMostLogged = 50;

} // namespace

void Findings::add(const char* path, unsigned line, const char* format, ...) {
    char text[512] = {};
    va_list args;
    va_start(args, format);
    (void)formatTextArgs(text, sizeof text, format, args); // a value of any length is told by its beginning
    va_end(args);
    std::replace_if(
        text, text + sizeof text, [](char c) { return c > '\0' && c < ' '; }, '?');
    ++mCount;
    show(path, line, text);
}

bool LoggedFindings::enough() const {
    return count() > kMostLogged;
}

void LoggedFindings::show(const char* path, unsigned line, const char* text) {
    if (count() == kMostLogged + 1)
        logError("%s: there is more, which logserviced --check tells\n", path);
    if (enough())
        return;
    if (line > 0)
        logError("%s line %u: %s\n", path, line, text);
    else
        logError("%s: %s\n", path, text);
}

} // namespace vnlog

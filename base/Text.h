// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

namespace vnlog {

/** A path built on the stack; longer ones are cut. */
struct Path {
    char text[256];
};

/** vsnprintf into a zero-filled fixed buffer of `size` bytes. Returns whether the whole text fitted. */
bool formatTextArgs(char* out, size_t size, const char* format, va_list args);

/** Formats into an array; false when the text was cut. */
template <size_t N> [[gnu::format(printf, 2, 3)]] bool formatText(char (&out)[N], const char* format, ...) {
    va_list args;
    va_start(args, format);
    bool whole = formatTextArgs(out, N, format, args);
    va_end(args);
    return whole;
}

/** The text of an errno, as strerror's. Any thread. */
std::string errorText(int error);

/** Bytes of the UTF-8 character with which a text begins; 0 where it begins with none. */
size_t utf8Length(std::string_view text);

/** The path of the entry `name` of `folder`. */
Path entryPath(const char* folder, const char* name);

/**
 * Whether a path can stand unquoted in a shell command: it is not empty, is no option, and holds nothing that
 * a shell splits at or interprets.
 */
bool shellSafe(const char* path);

} // namespace vnlog

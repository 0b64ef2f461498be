#pragma once

#include <cstddef>
#include <cstdio>

namespace vnlog {

/**
 * Reads a decimal number in the manner of atoi: leading blanks and a sign, then digits up to the first other
 * character; no digits give 0. A value outside the range of int becomes the nearest one inside.
 */
int parseNumber(const char* text);

/**
 * Appends the lines of `file` that begin with a letter or a digit to `text`, which has room for `capacity`
 * bytes with the terminator and is zero-filled. Reading ends at the first line that does not fit, so that no
 * value is ever cut.
 */
void readSignificantLines(FILE* file, char* text, size_t capacity);

} // namespace vnlog

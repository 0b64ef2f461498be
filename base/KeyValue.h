// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <cstddef>
#include <cstdio>

/*
 * Texts of KEY=value lines, as log.cfg and the bookkeeping file are. A key is its name with the "=" and is
 * found at its first occurrence, wherever in a line that is; its value runs to the end of the line.
 */
namespace vnlog {

/**
 * Reads a decimal number in the manner of atoi: leading blanks and a sign, then digits up to the first other
 * character; no digits give 0. A value outside the range of int becomes the nearest one inside.
 */
int parseNumber(const char* text);

/**
 * Reads the lines of `file` that begin with a letter or a digit, as one text of at most `limit` bytes; the
 * others are empty there, so that a line keeps its number. What does not fit is left out by whole lines. Null
 * with errno set when there is no memory.
 */
[[nodiscard]] Text readSignificantLines(FILE* file, size_t limit);

// The two values of a switch.
constexpr char kYes[] = "y";
constexpr char kNo[] = "n";

/** Whether the text is exactly "y". */
bool isYes(const char* text);

/** Whether the key occurs and a "y" follows it. */
bool valueIsYes(const char* text, const char* key);

/**
 * Copies the value of the key into `out`, at most `limit` bytes and without a terminator: `out` is
 * zero-filled and larger than `limit`. The length copied goes to `length` unless that is null. False when the
 * key is missing.
 */
bool copyValue(const char* text, const char* key, char* out, int limit, int* length = nullptr);

/**
 * Reads the value of the key as a number into `out`. Outside minimum..maximum the fallback is stored, unless
 * that is -1. False for a value out of range without a fallback and, reported, for a missing key.
 */
bool readNumber(const char* text, const char* key, int* out, int minimum, int maximum, int fallback);

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

/* Figures and dates as the reader's summaries show them. Any thread. */
namespace vnlog {

/** A short text as printf makes it; beyond 255 bytes it is cut. */
[[gnu::format(printf, 1, 2)]] std::string printed(const char* format, ...);

/** Bytes with a unit: "39 B", "64.0 KiB", "1.5 MiB", "2.0 GiB". */
std::string printedSize(uint64_t bytes);

/** "2026-11-23T14:40:55+01:00" of seconds since the epoch, `zone` seconds ahead of UTC; "-" of a time that no
 * year of four digits has. */
std::string printedDate(int64_t seconds, int32_t zone);

/** "2026-11-23 14:40" of minutes since the epoch; "-" likewise. */
std::string printedMinute(int64_t minutes);

/** `value` divided by `divisor`, rounded down below zero, too. */
constexpr int64_t wholeParts(int64_t value, int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

} // namespace vnlog

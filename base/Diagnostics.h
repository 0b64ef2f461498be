// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace vnlog {

/** The tag under which the service reports about itself. */
constexpr char kDiagnosticsTag[] = "LogService";

/*
 * The service's own reports, sent to the Android log under that tag. They keep errno and may be
 * called on any thread; cancellation is disabled while one is written, so that a cancelled thread never
 * leaves the log library in the middle of a call.
 */

/** A failure. */
[[gnu::format(printf, 1, 2)]] void logError(const char* format, ...);
/** Progress. */
[[gnu::format(printf, 1, 2)]] void logDebug(const char* format, ...);
/** The line that follows the report of a failed system call: the text of errno. */
void logErrno();
/** The same for calls that report their error as their result; stores `error` in errno. */
void logErrno(int error);

/** The failure that was reported last, of whichever service of this process. */
struct LastError {
    std::string
        text; ///< without a newline at the end, with the text of errno behind it; empty when there was none
    time_t time = 0; ///< wall clock
    uint32_t count = 0; ///< of all reports so far
};
LastError lastError();
/** The text of the one that the calling thread has reported last. */
std::string lastErrorHere();

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#include "base/Diagnostics.h"

#include "base/Handles.h"
#include "base/Text.h"

#include <android/log.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>

namespace vnlog {

namespace {

/** A failure as it was reported. */
struct Failure {
    char text[256] = {};
    char reason[128] = {}; ///< the line of errno behind it
};

/** Guards what is kept of the last failure; nothing is called with it held. */
std::mutex lastMutex;
Failure lastFailure;
time_t lastTime = 0;
uint32_t failureCount = 0;
thread_local Failure ownFailure; ///< the calling thread's last

void keepFailure(const char* format, va_list args) {
    ownFailure.reason[0] = '\0';
    (void)formatTextArgs(ownFailure.text, sizeof ownFailure.text, format, args);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::lock_guard<std::mutex> lock(lastMutex);
    lastFailure = ownFailure;
    lastTime = now.tv_sec;
    ++failureCount;
}

void keepReason(const char* reason) {
    std::lock_guard<std::mutex> lock(lastMutex);
    bool last = std::strcmp(lastFailure.text, ownFailure.text) == 0; // and not another thread's meanwhile
    std::snprintf(ownFailure.reason, sizeof ownFailure.reason, "%s", reason);
    if (last)
        lastFailure = ownFailure;
}

/** The text without blanks and newlines at its end. */
std::string trimmed(const char* text) {
    std::string_view view = text;
    size_t end = view.find_last_not_of(" \n");
    return std::string(view.substr(0, end == std::string_view::npos ? 0 : end + 1));
}

std::string wholeText(const Failure& failure) {
    std::string reason = trimmed(failure.reason);
    return trimmed(failure.text) + (reason.empty() ? "" : ": " + reason);
}

[[gnu::format(printf, 2, 0)]] void report(android_LogPriority priority, const char* format, va_list args) {
    int error = errno;
    CancelGuard guard;
    __android_log_vprint(priority, kDiagnosticsTag, format, args);
    errno = error;
}

/** Without it becoming a failure of its own. */
[[gnu::format(printf, 1, 2)]] void reportReason(const char* format, ...) {
    va_list args;
    va_start(args, format);
    report(ANDROID_LOG_ERROR, format, args);
    va_end(args);
}

} // namespace

LastError lastError() {
    std::lock_guard<std::mutex> lock(lastMutex);
    return {wholeText(lastFailure), lastTime, failureCount};
}

std::string lastErrorHere() {
    return wholeText(ownFailure);
}

void logError(const char* format, ...) {
    va_list args;
    va_start(args, format);
    report(ANDROID_LOG_ERROR, format, args);
    va_end(args);
    va_start(args, format);
    keepFailure(format, args);
    va_end(args);
}

void logDebug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    report(ANDROID_LOG_DEBUG, format, args);
    va_end(args);
}

void logErrno() {
    char buffer[128];
    const char* reason = strerror_r(errno, buffer, sizeof buffer);
    reportReason("%s\n", reason);
    keepReason(reason);
}

void logErrno(int error) {
    errno = error;
    logErrno();
}

} // namespace vnlog

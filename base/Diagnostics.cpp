#include "base/Diagnostics.h"

#include "base/Handles.h"

#include <android/log.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace vnlog {

namespace {

[[gnu::format(printf, 2, 0)]] void report(android_LogPriority priority, const char* format, va_list args) {
    int error = errno;
    CancelGuard guard;
    __android_log_vprint(priority, kDiagnosticsTag, format, args);
    errno = error;
}

} // namespace

void logError(const char* format, ...) {
    va_list args;
    va_start(args, format);
    report(ANDROID_LOG_ERROR, format, args);
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
    logError("%s\n", strerror_r(errno, buffer, sizeof buffer));
}

void logErrno(int error) {
    errno = error;
    logErrno();
}

} // namespace vnlog

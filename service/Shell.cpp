#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vnlog {

namespace {

constexpr size_t kCommandSize = 256;

/** What a wait status says, read bit by bit so that the reports keep their meaning on every C library. */
bool endedByExiting(int status) {
    return (status & 0x7f) == 0;
}
int exitCode(int status) {
    return (status >> 8) & 0xff;
}

/** Body of a detached thread: runs the command that it owns. */
void* runOwnedCommand(void* command) {
    Text owned(static_cast<char*>(command));
    return LogService::shellexe(owned.get());
}

} // namespace

int LogService::shellexecute(const char* format, ...) {
    char command[kCommandSize] = {};
    va_list args;
    va_start(args, format);
    int length = std::vsnprintf(command, sizeof command, format, args);
    va_end(args);
    if (length < 0) {
        logError("shellexecute input parameter error\n");
        logErrno();
    }

    int status = std::system(command);
    if (status == -1) {
        char text[128];
        logError("do cmd[%s] errno[%s]\n", command, strerror_r(errno, text, sizeof text));
        return -1;
    }
    if (!endedByExiting(status)) {
        logError("shellexecute fork shell fail ,exit code:%d\n", exitCode(status));
        return -1;
    }
    if (exitCode(status) != 0) {
        logError("shellexecute run script fail,exit code:%d\n", exitCode(status));
        return -1;
    }
    return 0;
}

int LogService::shellexecNotwait(const char* format, ...) {
    Text own;
    {
        std::lock_guard<std::mutex> lock(mNotwaitLock);
        std::memset(mNotwaitCmd, 0, sizeof mNotwaitCmd);
        va_list args;
        va_start(args, format);
        (void)std::vsnprintf(mNotwaitCmd, sizeof mNotwaitCmd, format, args); // an error leaves it empty
        va_end(args);
        own.reset(strdup(mNotwaitCmd)); // the thread may still be reading when the next call comes
    }
    pthread_t thread;
    if (own == nullptr || pthread_create(&thread, nullptr, runOwnedCommand, own.get()) != 0) {
        logError("fail to shellexecNotwait prtread_create!\n");
        return -1;
    }
    (void)own.release(); // the thread's from here on
    if (pthread_detach(thread) != 0)
        logError("fail to shellexecNotwait pthread_detach!\n");
    return 0;
}

void* LogService::shellexe(void* command) {
    int status = std::system(static_cast<const char*>(command));
    if (status == -1) {
        logError("system error!\n");
        logErrno();
    } else if (!endedByExiting(status)) {
        logError("shellexe fork shell fail ,exit code:%d\n", exitCode(status));
    } else if (exitCode(status) != 0) {
        logError("shellexe run script fail,exit code:%d\n", exitCode(status));
    }
    return nullptr;
}

} // namespace vnlog

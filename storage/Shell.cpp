#include "storage/Shell.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vnlog {

namespace {

/** What a wait status says, read bit by bit so that the reports keep their meaning on every C library. */
bool endedByExiting(int status) {
    return (status & 0x7f) == 0;
}
int exitCode(int status) {
    return (status >> 8) & 0xff;
}

/**
 * Runs a command through the shell as system() does, and returns its wait status or -1 with errno set. Unlike
 * with system(), the command ends with this process: one that outlived it would go on changing the store
 * under the next start. And no signal's disposition is changed meanwhile, which would lose a pending one.
 */
int runShell(const char* command) {
    CancelGuard guard;
    pid_t self = getpid();
    pid_t child = fork();
    if (child == 0) { // nothing but async-signal-safe calls: other threads' locks are held for ever here
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == self) // else it is late already
            execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0) {
        if (errno == ECHILD) { // what follows shows it in the files; as a failure it would delete logs
            logError("the result of [%s] is not known: the process ignores SIGCHLD\n", command);
            return 0;
        }
        if (errno != EINTR)
            return -1;
    }
    return status;
}

/** Body of a detached thread: runs the command that it owns. */
void* runOwnedCommand(void* command) {
    Text owned(static_cast<char*>(command));
    runUnwatched(owned.get());
    return nullptr;
}

} // namespace

bool runCommand(const char* format, ...) {
    va_list args;
    va_start(args, format);
    bool done = runCommandArgs(format, args);
    va_end(args);
    return done;
}

bool runCommandArgs(const char* format, va_list args) {
    char command[kLongestCommand + 1] = {};
    if (std::vsnprintf(command, sizeof command, format, args) < 0) {
        logError("shellexecute input parameter error\n");
        logErrno();
    }
    int status = runShell(command);
    if (status == -1) {
        char text[128];
        logError("do cmd[%s] errno[%s]\n", command, strerror_r(errno, text, sizeof text));
        return false;
    }
    if (!endedByExiting(status)) {
        logError("shellexecute fork shell fail ,exit code:%d\n", exitCode(status));
        return false;
    }
    if (exitCode(status) != 0) {
        logError("shellexecute run script fail,exit code:%d\n", exitCode(status));
        return false;
    }
    return true;
}

void runUnwatched(const char* command) {
    int status = runShell(command);
    if (status == -1) {
        logError("system error!\n");
        logErrno();
    } else if (!endedByExiting(status)) {
        logError("shellexe fork shell fail ,exit code:%d\n", exitCode(status));
    } else if (exitCode(status) != 0) {
        logError("shellexe run script fail,exit code:%d\n", exitCode(status));
    }
}

bool Shell::startCommand(const char* format, va_list args) {
    Text own;
    {
        LockGuard<NotwaitLock> lock(mLock);
        std::memset(mState.mNotwaitCmd, 0, sizeof mState.mNotwaitCmd);
        (void)std::vsnprintf(mState.mNotwaitCmd, sizeof mState.mNotwaitCmd, format,
                             args); // an error leaves it empty
        own.reset(strdup(mState.mNotwaitCmd)); // the thread may still be reading when the next call comes
    }
    pthread_t thread;
    if (own == nullptr || pthread_create(&thread, nullptr, runOwnedCommand, own.get()) != 0) {
        logError("fail to shellexecNotwait prtread_create!\n");
        return false;
    }
    (void)own.release(); // the thread's from here on
    if (pthread_detach(thread) != 0)
        logError("fail to shellexecNotwait pthread_detach!\n");
    return true;
}

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#include "storage/Shell.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Text.h"
#include "storage/FileWork.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
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

/** A command, and under which conditions it runs. */
struct Command {
    const char* text;
    int seconds; ///< until it is killed with its process group; 0: it runs as the host's own, in its group
    sigset_t signals; ///< that are blocked for it
};

/*
 * Between the service and the shell stands a process that keeps the command. It is made without an exit
 * signal, and only a process that has none, and never calls exec, is out of reach of a host that ignores
 * SIGCHLD or waits for any child. The shell is the keeper's child and the keeper ends as the shell did.
 * Both are ended with their parents: a command that outlived the service would go on changing the store under
 * the next start.
 *
 * Keeper and shell begin as copies of a process with threads whose locks are held for ever there: they call
 * nothing but what is safe in a signal handler, and fork() is not, as it takes locks and runs hooks.
 */

/** Copies the process. The other arguments are zero, so that their order, which differs, does not matter. */
pid_t copyProcess(long exitSignal) {
    return static_cast<pid_t>(syscall(SYS_clone, exitSignal, 0L, 0L, 0L, 0L));
}

/** Lets the process end with its parent. */
void endWithParent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127); // it is late already
}

[[noreturn]] void becomeShell(const Command& command, pid_t keeper) {
    char path[] = "PATH=/usr/bin:/bin:/usr/sbin:/sbin";
    char* plain[] = {path, nullptr};
    bool limited = command.seconds > 0;
    endWithParent(keeper);
    if (limited)
        setpgid(0, 0);
    sigprocmask(SIG_SETMASK, &command.signals, nullptr);
    execle("/bin/sh", "sh", "-c", command.text, static_cast<char*>(nullptr), limited ? plain : environ);
    _exit(127);
}

/** Closes every descriptor: the keeper may live long and would hold open what the service closes. */
void closeEverything() {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 0U, ~0U, 0U) == 0)
        return;
#endif
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = 0; static_cast<rlim_t>(fd) < limit.rlim_cur; ++fd)
        close(fd);
}

/** Waits until a child ends, whose SIGCHLD is blocked. Whether it did in time. */
bool endsWithin(int seconds) {
    sigset_t ended;
    sigemptyset(&ended);
    sigaddset(&ended, SIGCHLD);
    timespec limit{};
    limit.tv_sec = seconds;
    int signal = -1;
    do
        signal = sigtimedwait(&ended, nullptr, &limit);
    while (signal < 0 && errno == EINTR);
    return signal == SIGCHLD;
}

/** Body of the keeper, in which all signals are blocked. */
[[noreturn]] void keepCommand(const Command& command, pid_t service) {
    struct sigaction plain {};
    plain.sa_handler = SIG_DFL; // neither the host's handler nor its wish to know nothing of children
    plain.sa_flags = SA_NOCLDSTOP;
    sigaction(SIGCHLD, &plain, nullptr);
    endWithParent(service);
    pid_t self = getpid();
    pid_t shell = copyProcess(SIGCHLD);
    if (shell == 0)
        becomeShell(command, self);
    closeEverything();
    if (shell > 0 && command.seconds > 0) {
        setpgid(shell, shell); // which of the two comes first is open
        if (!endsWithin(command.seconds))
            kill(-shell, SIGKILL);
    }
    int status = -1;
    while (shell > 0 && waitpid(shell, &status, 0) < 0 && errno == EINTR) {
    }
    if (shell > 0 && !endedByExiting(status))
        kill(self, SIGKILL);
    // Not by _exit, which a tool may have wrapped: of the service's other threads there is none here.
    for (;;)
        syscall(SYS_exit_group, shell > 0 ? exitCode(status) : 127);
}

/** Runs a command through the shell. Its wait status, or -1 with errno set. */
int runShell(const char* text, int seconds = 0) {
    CancelGuard guard;
    Command command{text, seconds, {}};
    sigset_t all;
    sigfillset(&all); // no handler of the host's runs in the keeper
    pthread_sigmask(SIG_SETMASK, &all, &command.signals);
    pid_t self = getpid();
    pid_t keeper = copyProcess(0);
    if (keeper < 0 && errno == EINVAL)
        keeper = copyProcess(SIGCHLD); // an emulator of another machine's processes may know no other
    if (keeper == 0)
        keepCommand(command, self);
    pthread_sigmask(SIG_SETMASK, &command.signals, nullptr);
    int status = -1;
    while (keeper > 0 && waitpid(keeper, &status, __WALL) < 0)
        if (errno != EINTR)
            return -1;
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

bool runFileCommand(int seconds, const char* format, ...) {
    char command[2 * kLongestWorkPath + 64];
    va_list args;
    va_start(args, format);
    bool whole = formatTextArgs(command, sizeof command, format, args);
    va_end(args);
    if (!whole) {
        errno = ENAMETOOLONG;
        return false;
    }
    int status = runShell(command, seconds);
    if (status > 0)
        errno = EIO;
    return status == 0;
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

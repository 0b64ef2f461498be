// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/ShellState.h"

#include <cstdarg>
#include <cstddef>

namespace vnlog {

/** Longest command in characters that runCommand runs whole. */
constexpr size_t kLongestCommand = 255;

/*
 * All commands are run in such a way that a process which ignores SIGCHLD, or reaps every child that ends,
 * notices nothing of them and loses none of their results.
 */

/** Runs a command (longer ones are cut) and waits. Whether it exited with status 0; anything else is
 * reported.
 */
[[gnu::format(printf, 1, 2)]] bool runCommand(const char* format, ...);
[[gnu::format(printf, 1, 0)]] bool runCommandArgs(const char* format, va_list args);

/**
 * Runs a command of file work and waits, `seconds` at most: then it is killed with all that it has started.
 * Its environment is a plain PATH and nothing else. Whether it exited with status 0; else false, not
 * reported, with errno set: EIO when it ran.
 */
[[gnu::format(printf, 2, 3)]] bool runFileCommand(int seconds, const char* format, ...);

/** Runs the text through the shell and reports a failure. */
void runUnwatched(const char* command);

/**
 * Runs shell commands on threads of their own. A command ends with this process: one that outlived it would
 * go on changing the store under the next start.
 */
class Shell {
  public:
    explicit Shell(ShellState& state) : mState(state) {}

    /** Runs a command of at most 127 characters without waiting. Whether a thread could be started for it. */
    [[gnu::format(printf, 2, 0)]] bool startCommand(const char* format, va_list args)
        VNLOG_EXCLUDES(NotwaitLock::role);

  private:
    ShellState& mState;
    Mutex<NotwaitLock> mLock;
};

} // namespace vnlog

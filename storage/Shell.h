#pragma once

#include "storage/ShellState.h"

#include <cstdarg>
#include <cstddef>

namespace vnlog {

/** Longest command in characters that runCommand runs whole. */
constexpr size_t kLongestCommand = 255;

/**
 * Runs a command (longer ones are cut) and waits. Whether it exited with status 0;
 * anything else is reported. In a process that ignores SIGCHLD no status is to be had: that is reported and
 * counts as 0.
 */
[[gnu::format(printf, 1, 2)]] bool runCommand(const char* format, ...);
[[gnu::format(printf, 1, 0)]] bool runCommandArgs(const char* format, va_list args);

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

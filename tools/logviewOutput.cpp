// SPDX-License-Identifier: Apache-2.0
#include "tools/logviewOutput.h"

#include "tools/Options.h"

#include <csignal>
#include <cstdlib>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// What a shell makes of a command that it cannot run.
constexpr int kNotRunnable = 126;
constexpr int kNotFound = 127;

const char* variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

bool colourWanted(Colour colour, bool terminal) {
    const char* kind = variable("TERM");
    switch (colour) {
    case Colour::Auto:
        return terminal && variable("NO_COLOR") == nullptr && kind != nullptr &&
               std::string_view(kind) != "dumb";
    case Colour::Always:
        return true;
    case Colour::Never:
        return false;
    }
    return false;
}

/** What a child gets: its standard input, and the signals as they were before logview changed them. */
class ChildSetup {
  public:
    explicit ChildSetup(int input) {
        sigset_t changed;
        sigemptyset(&changed);
        sigaddset(&changed, SIGINT);
        sigaddset(&changed, SIGPIPE);
        mReady = posix_spawn_file_actions_init(&actions) == 0 && posix_spawnattr_init(&attributes) == 0 &&
                 posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO) == 0 &&
                 posix_spawnattr_setsigdefault(&attributes, &changed) == 0 &&
                 posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF) == 0;
    }
    ~ChildSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    ChildSetup(const ChildSetup&) = delete;
    ChildSetup& operator=(const ChildSetup&) = delete;
    bool ready() const { return mReady; }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;

  private:
    bool mReady;
};

} // namespace

ViewOutput::ViewOutput(const ViewOptions& options) : mDescriptor(STDOUT_FILENO) {
    std::signal(SIGPIPE, SIG_IGN); // the write tells
    bool terminal = isatty(STDOUT_FILENO) == 1;
    mStyle.colour = colourWanted(options.colour, terminal);
    mStyle.escape = terminal;
    if (terminal && options.pager && !options.follow)
        startPager();
}

/** Without any pager that can be started the terminal itself has to do. */
void ViewOutput::startPager() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    vnlog::FileDescriptor input(ends[0]), pipe(ends[1]);
    const char* own = variable("VNLOG_PAGER");
    own = own != nullptr ? own : variable("PAGER");
    if (own != nullptr && std::string_view(own) == "cat")
        return;
    (void)setenv("LESS", "FRSXMK", 0);
    bool started = own != nullptr
                       ? startPager(own, true, input.get())
                       : startPager("less", false, input.get()) || startPager("more", false, input.get());
    if (!started)
        return;
    mPipe = std::move(pipe);
    std::signal(SIGINT, SIG_IGN); // the pager's
}

bool ViewOutput::startPager(const char* command, bool byShell, int input) {
    char shell[] = "/bin/sh", option[] = "-c";
    std::string text = command;
    char* direct[] = {text.data(), nullptr};
    char* indirect[] = {shell, option, text.data(), nullptr};
    char** arguments = byShell ? indirect : direct;
    ChildSetup setup(input);
    return setup.ready() &&
           posix_spawnp(&mPager, arguments[0], &setup.actions, &setup.attributes, arguments, environ) == 0;
}

/** The pager's status, 0 without one. */
int ViewOutput::waitForPager() {
    if (!mPipe.valid())
        return 0;
    mPipe = vnlog::FileDescriptor(); // the end of its input
    int status = 0;
    while (waitpid(mPager, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}

int ViewOutput::finish(int error) {
    int pager = waitForPager();
    if (pager == kNotRunnable || pager == kNotFound) {
        std::fprintf(stderr, "%s: the pager cannot be run; VNLOG_PAGER and PAGER name it\n", kViewer);
        return kWrongUsage;
    }
    if (error == 0 || error == EPIPE)
        return kGoOn;
    std::fprintf(stderr, "%s: cannot write the output: %s\n", kViewer, std::strerror(error));
    return kWrongUsage;
}

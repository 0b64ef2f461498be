/*
 * The host process: creates the log service, waits for a signal and takes the service down in good order.
 */
#include "service/LogService.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <sys/stat.h>

namespace {

constexpr char kHelp[] = "Usage: logserviced [OPTION]...\n"
                         "Collects the kernel's and Android's log into bounded, compressed sections.\n"
                         "\n"
                         "  --sysroot DIR  put DIR before the service's fixed paths (VNLOG_SYSROOT);\n"
                         "                 DIR/media/flash/nvm is created when it is missing\n"
                         "  --cfg FILE     read FILE when there is no log.cfg yet (LOG_DEFAULT_CFG)\n"
                         "  --help         show this text\n"
                         "  --version      show the version\n"
                         "\n"
                         "SIGUSR1 writes out what is buffered. SIGTERM and SIGINT do so, too, and then end\n"
                         "the service.\n";

constexpr int kFlushLimitMs = 5000;
constexpr int kFlushPollMs = 10;

int fail(const char* what, const char* path) {
    std::fprintf(stderr, "logserviced: %s %s: %s\n", what, path, std::strerror(errno));
    return 1;
}

/** Sets the environment from one option whose value must exist as a directory or a file. */
int useOption(const char* variable, const char* path, mode_t type) {
    struct stat info;
    if (stat(path, &info) != 0)
        return fail("cannot use", path);
    if ((info.st_mode & S_IFMT) != type) {
        errno = type == S_IFDIR ? ENOTDIR : EISDIR;
        return fail("cannot use", path);
    }
    return setenv(variable, path, 1) == 0 ? 0 : fail("cannot use", path);
}

/** Makes the home of log.cfg and of the default store under a system root. */
int prepareSystemRoot(const char* root) {
    for (const char* part : {"/media", "/media/flash", "/media/flash/nvm"}) {
        char path[4096];
        std::snprintf(path, sizeof path, "%s%s", root, part);
        if (mkdir(path, 0777) != 0 && errno != EEXIST)
            return fail("cannot create", path);
    }
    return 0;
}

/** Asks for everything buffered and waits, for a limited time, until it is written. */
void flush(vnlog::LogService& service) {
    for (int waited = 0; service.bufferedBytes() > 0 && waited < kFlushLimitMs; waited += kFlushPollMs) {
        if (!service.mFlushAll) // more may have come when the last request was served already
            service.flushLogBufAll();
        timespec pause{0, kFlushPollMs * 1000000L};
        nanosleep(&pause, nullptr);
    }
    if (uint32_t left = service.bufferedBytes())
        std::fprintf(stderr, "logserviced: %u bytes could not be written out in time\n", left);
}

int serve() {
    // Blocked before any thread exists, so that every thread leaves the signals to sigwait below.
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGTERM, SIGINT, SIGUSR1})
        sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // a console that goes away is reported by its write

    android::sp<vnlog::LogService> service = new vnlog::LogService();
    if (!service->mServiceStarted) {
        std::fprintf(stderr, "logserviced: the service failed to start; the Android log tells why\n");
        return 1;
    }
    if (!service->mFlushThreadRunning)
        std::fprintf(stderr, "logserviced: the storage cannot be used, nothing is stored\n");
    int number = 0;
    do {
        if (sigwait(&signals, &number) == 0 && number == SIGUSR1)
            service->flushLogBufAll();
    } while (number == 0 || number == SIGUSR1);
    flush(*service);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const option options[] = {{"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'v'},
                              {"sysroot", required_argument, nullptr, 's'},
                              {"cfg", required_argument, nullptr, 'c'},
                              {nullptr, 0, nullptr, 0}};
    int result = 0;
    for (int choice; result == 0 && (choice = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (choice) {
        case 'h':
            std::fputs(kHelp, stdout);
            return 0;
        case 'v':
            std::puts("logserviced " VNLOG_VERSION);
            return 0;
        case 's':
            result = useOption("VNLOG_SYSROOT", optarg, S_IFDIR);
            if (result == 0)
                result = prepareSystemRoot(optarg);
            break;
        case 'c':
            result = useOption("LOG_DEFAULT_CFG", optarg, S_IFREG);
            break;
        default:
            std::fputs("Try 'logserviced --help'.\n", stderr);
            return 2;
        }
    }
    if (result != 0)
        return result;
    if (optind != argc) {
        std::fprintf(stderr, "logserviced: unexpected argument '%s'\nTry 'logserviced --help'.\n",
                     argv[optind]);
        return 2;
    }
    return serve();
}

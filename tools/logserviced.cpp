// SPDX-License-Identifier: Apache-2.0
/*
 * The host process: creates the log service, publishes it, waits for a signal and takes the service down in
 * good order.
 */
#include "base/Console.h"
#include "base/Handles.h"
#include "config/Check.h"
#include "config/ConfigFile.h"
#include "platform/binder/Host.h"
#include "platform/logger/LoggerDevice.h"
#include "platform/logger/LoggerDriver.h"
#include "platform/sysroot/SystemRoot.h"
#include "service/LogService.h"
#include "tools/Options.h"

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr char kProgram[] = "logserviced";
constexpr int kFindings = 3; ///< a file of settings is not used whole
constexpr char kHelp[] =
    "Usage: logserviced [OPTION]...\n"
    "Collects the kernel's and Android's log into bounded, compressed sections.\n"
    "\n"
    "      --cfg FILE            take from FILE what log.cfg does not say\n"
    "      --check FILE          tell what is wrong with FILE as a log.cfg, and what a start would\n"
    "                            make of it; starts nothing, changes nothing\n"
    "      --sysroot DIR         put DIR before the service's fixed paths; what it needs there is made\n"
    "                            when missing: folders, the file that takes the console level,\n"
    "                            stand-ins for the logger devices\n"
    "  -h, --help                show this text\n"
    "  -V, --version             show the version\n"
    "\n"
    "Signals: SIGUSR1 writes out what is buffered; SIGTERM, SIGINT and SIGHUP end the service, which\n"
    "stores first what has been logged by then.\n"
    "Environment: LOG_DEFAULT_CFG as --cfg; VNLOG_SYSROOT as --sysroot.\n"
    "Status: 0 ended by a signal, or nothing wrong with FILE; 1 not started, failed, or FILE cannot be\n"
    "used; 2 wrong usage; 3 FILE is not used whole.\n";

int printHelp() {
    std::fputs(kHelp, stdout);
    return 0;
}

/** Says something on standard error, which may be a terminal that is paused or a pipe that nobody reads. */
void sayText(const char* text, size_t length) {
    static vnlog::Console console;
    vnlog::Patience patience;
    (void)console.show(STDERR_FILENO, text, length, &patience); // where else could it be said
}

[[gnu::format(printf, 1, 2)]] void say(const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    int length = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    size_t whole = static_cast<size_t>(std::max(length, 0)), shown = std::min(whole, sizeof text - 1);
    if (shown < whole)
        text[shown - 1] = '\n';
    sayText(text, shown);
}

/** Where a developer's machine has no Android log of its own: the diagnostics go to standard error. */
void sayDiagnostic(const __android_logger_data* about, const char* message) {
    constexpr char kLetters[] = "??VDIWEFS";
    bool known = about->priority >= 0 && about->priority < static_cast<int>(sizeof kLetters - 1);
    time_t now = time(nullptr);
    tm parts{};
    char date[20] = "";
    if (localtime_r(&now, &parts) != nullptr)
        strftime(date, sizeof date, "%m-%d %H:%M:%S", &parts);
    int length = static_cast<int>(std::string_view(message).find_last_not_of('\n') + 1);
    say("%s %c %s %d %.*s\n", about->tag, known ? kLetters[about->priority] : '?', date,
        static_cast<int>(getpid()), length, message);
}

int fail(const char* what, const std::string& path) {
    say("%s: %s %s: %s\n", kProgram, what, path.c_str(), std::strerror(errno));
    return kFailure;
}

/** Prints what is wrong with a file of settings. */
int check(const char* path) {
    switch (vnlog::checkConfiguration(path, stdout)) {
    case vnlog::Checked::Whole:
        return 0;
    case vnlog::Checked::Partly:
        return kFindings;
    case vnlog::Checked::Unusable:
        return kFailure;
    }
    return kFailure;
}

/** Makes the file that takes the console level, where there is none. */
int makeConsoleLevel(const std::string& path) {
    vnlog::FileDescriptor file = vnlog::openFile(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (!file.valid())
        return errno == EEXIST ? 0 : fail("cannot create", path);
    if (vnlog::writeAll(file.get(), "7\n", 2))
        return 0;
    int status = fail("cannot write", path);
    (void)unlink(path.c_str()); // half a file would be left alone by the next start
    return status;
}

/** Makes what the service and its stand-ins expect under a system root. */
int prepareSystemRoot(const std::string& root) {
    const struct {
        const char* path;
        mode_t mode;
        bool own; ///< must not be a link: it would lead to the machine's own
        bool needed; ///< without it the service does not start
    } folders[] = {{"/dev", 0755, false, true},
                   {"/media", 0755, false, true},
                   {"/media/flash", 0755, false, true},
                   {"/media/flash/nvm", 0755, false, true},
                   {"/proc", 0755, true, true},
                   {"/proc/sys", 0755, true, true},
                   {"/proc/sys/kernel", 0755, true, true},
                   {"/run", 0755, true, false},
                   {"/run/vnlog", 0700, true, false}};
    for (const auto& folder : folders) {
        std::string path = root + folder.path;
        struct stat info;
        int made = mkdir(path.c_str(), folder.mode);
        if (made != 0 && errno != EEXIST) {
            if (folder.needed)
                return fail("cannot create", path);
        } else if (folder.own && (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))) {
            errno = ENOTDIR;
            if (folder.needed)
                return fail("cannot use (a link is not followed)", path);
        }
    }
    return makeConsoleLevel(root + "/proc/sys/kernel/printk");
}

/** The logger devices; those of the stand-in under a system root that has none of its own. */
struct Devices {
    std::string main, system;
    std::unique_ptr<vnlog::platform::LoggerDriver> driver;

    explicit Devices(const std::string& root)
        : main(root + vnlog::platform::kMainDevice), system(root + vnlog::platform::kSystemDevice) {
        struct stat info;
        bool real = stat(main.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode);
        if (!root.empty() && !real)
            driver = std::make_unique<vnlog::platform::LoggerDriver>();
    }
    const char* kind() const { return driver != nullptr ? "stand-in" : "driver"; }
};

/** The signals that the host waits for: a hang-up only where it does not outlive the terminal on purpose. */
sigset_t signalsToWaitFor() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int number : {SIGTERM, SIGINT, SIGUSR1})
        sigaddset(&signals, number);
    struct sigaction hangUp {};
    if (sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler != SIG_IGN)
        sigaddset(&signals, SIGHUP);
    return signals;
}

/** Takes the service down in good order. */
void stop(vnlog::LogService& service) {
    const bool all[] = {true, true, true};
    (void)service.serviceStop(all); // reported there
    if (uint32_t dropped = service.droppedBytes())
        say("%s: %u bytes could not be written out in time\n", kProgram, dropped);
}

void waitForEnd(vnlog::LogService& service, const sigset_t& signals) {
    int number = 0;
    do {
        if (sigwait(&signals, &number) == 0 && number == SIGUSR1)
            service.flushLogBufAll();
    } while (number == 0 || number == SIGUSR1);
}

/** Where the service stores. Not locked: called before any client can change it. */
std::string storageRoot(const vnlog::LogService& service) VNLOG_UNCHECKED {
    return service.mSavePath;
}

int serve(const std::string& root, const sigset_t& signals) {
    std::signal(SIGPIPE, SIG_IGN); // a console that goes away is reported by its write
    std::signal(SIGXFSZ, SIG_IGN); // so is a file that must not grow any more

    const char* name = vnlog::platform::kServiceName;
    if (android::defaultServiceManager()->checkService(android::String16(name)) != nullptr) {
        say("%s: %s is served already\n", kProgram, name);
        return kFailure; // before the other host's store is touched
    }
    Devices devices(root);
    if (devices.driver != nullptr && !devices.driver->start({devices.main, devices.system}))
        return fail("cannot make the devices in", root + "/dev");
    android::sp<vnlog::LogService> service = new vnlog::LogService();
    if (!service->mServiceStarted) {
        say("%s: the service failed to start; the Android log tells why\n", kProgram);
        return kFailure;
    }
    if (!service->mFlushThreadRunning)
        say("%s: the storage cannot be used, nothing is stored until it can\n", kProgram);
    std::string place = vnlog::platform::servicePlace(name);
    std::string store = storageRoot(*service);
    android::status_t status = vnlog::platform::publishService(name, service);
    if (status != android::NO_ERROR) {
        errno = -status;
        return fail("cannot publish the service at", place);
    }
    say("%s: devices %s, %s (%s); %s at %s; store %s\n", kProgram, devices.main.c_str(),
        devices.system.c_str(), devices.kind(), name, place.c_str(), store.c_str());
    waitForEnd(*service, signals);
    vnlog::platform::withdrawServices();
    stop(*service);
    service = nullptr; // the last reference; the devices outlive it
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    const option options[] = {kHelpOption,
                              kVersionOption,
                              kSysrootOption,
                              {"cfg", required_argument, nullptr, 'c'},
                              {"check", required_argument, nullptr, 'k'},
                              kEndOfOptions};
    int status = kGoOn;
    const char* checked = nullptr;
    for (int choice; status == kGoOn && (choice = getopt_long(argc, argv, "hV", options, nullptr)) != -1;) {
        if (choice == 'k')
            checked = optarg;
        else if (choice == 'c')
            status = usePath(kProgram, vnlog::kDefaultConfigurationVariable, optarg, S_IFREG);
        else
            status = commonOption(choice, kProgram, printHelp);
    }
    if (status != kGoOn)
        return status;
    // Blocked before any thread exists, so that every thread leaves the signals to sigwait.
    const sigset_t signals = signalsToWaitFor();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (optind != argc) {
        std::fprintf(stderr, "%s: unexpected argument '%s'\n", kProgram, argv[optind]);
        return hintAtHelp(kProgram);
    }
    if (checked != nullptr)
        return check(checked);
    vnlog::platform::SystemRoot root;
    if (!root.read()) {
        std::fprintf(stderr, "%s: the system root is longer than %zu characters\n", kProgram,
                     vnlog::platform::kMaxSystemRoot);
        return kFailure;
    }
    if (root.path[0] != '\0') {
        __android_log_set_logger(sayDiagnostic);
        if (prepareSystemRoot(root.path) != 0)
            return kFailure;
    }
    return serve(root.path, signals);
}

// SPDX-License-Identifier: Apache-2.0
/*
 * The host process: creates the log service, publishes it, waits for a signal and takes the service down in
 * good order.
 */
#include "base/Clock.h"
#include "base/Console.h"
#include "base/Handles.h"
#include "binder/Command.h"
#include "config/Check.h"
#include "config/ConfigFile.h"
#include "platform/binder/Host.h"
#include "platform/logger/LoggerDevice.h"
#include "platform/logger/LoggerDriver.h"
#include "platform/supervisor/Supervisor.h"
#include "platform/sysroot/SystemRoot.h"
#include "service/LogService.h"
#include "tools/Options.h"
#include "tools/Supervision.h"

#include <algorithm>
#include <android/log.h>
#include <binder/IServiceManager.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

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

struct NeededFolder {
    const char* path;
    mode_t mode;
    bool own; ///< must not be a link: it would lead to the machine's own
    bool needed; ///< without it the service does not start
    bool open = false; ///< has its mode whatever the umask
};

constexpr NeededFolder kKernelFolders[] = {
    {"/proc", 0755, true, true}, {"/proc/sys", 0755, true, true}, {"/proc/sys/kernel", 0755, true, true}};
constexpr NeededFolder kDeviceFolders[] = {
    {"/dev", 0755, false, true},         {"/media", 0755, false, true},
    {"/media/flash", 0755, false, true}, {"/media/flash/nvm", 0755, false, true},
    {"/run", 0755, true, false},         {vnlog::platform::kRunFolder, 0700, true, false}};
constexpr NeededFolder kMachineFolders[] = {{"/run", 0755, true, true, true},
                                            {vnlog::platform::kRunFolder, 0755, true, true, true}};

/** Makes a folder that is missing. 0, or kFailure, reported. */
int makeFolder(const std::string& root, const NeededFolder& folder) {
    std::string path = root + folder.path;
    struct stat info;
    int made = mkdir(path.c_str(), folder.mode);
    if (made != 0 && errno != EEXIST)
        return folder.needed ? fail("cannot create", path) : 0;
    if (folder.own && (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))) {
        errno = ENOTDIR;
        return folder.needed ? fail("cannot use (a link is not followed)", path) : 0;
    }
    if (made == 0 && folder.open && chmod(path.c_str(), folder.mode) != 0)
        return fail("cannot open to all", path);
    return 0;
}

template <size_t N> int makeFolders(const std::string& root, const NeededFolder (&folders)[N]) {
    int status = 0;
    for (size_t i = 0; status == 0 && i < N; ++i)
        status = makeFolder(root, folders[i]);
    return status;
}

/** Makes what the service and its stand-ins expect under a system root. */
int prepareSystemRoot(const vnlog::platform::SystemRoot& root) {
    int status =
        root.onMachine ? makeFolders(root.path, kMachineFolders) : makeFolders(root.path, kDeviceFolders);
    if (status == 0)
        status = makeFolders(root.path, kKernelFolders);
    return status == 0 ? makeConsoleLevel(root.path + std::string("/proc/sys/kernel/printk")) : status;
}

/** Makes the folder for devices and socket on the machine itself, where nothing else is missing. */
int prepareMachine() {
    const NeededFolder& folder = kMachineFolders[1];
    int status = makeFolder("", folder);
    if (status == 0 && access(folder.path, W_OK | X_OK) != 0)
        status = fail("cannot write in", folder.path);
    if (status != 0 && geteuid() != 0)
        say("%s: run it as root, or with folders of your own: --sysroot DIR\n", kProgram);
    return status;
}

/** The default settings that a machine's administrator has; empty where others are named, or on a device. */
std::string machineDefaults(const vnlog::platform::SystemRoot& root) {
    if (!root.onMachine || std::getenv(vnlog::kDefaultConfigurationVariable) != nullptr)
        return {};
    return root.path + std::string("/etc/vnlog/log_default.cfg");
}

/** Prints what is wrong with a file of settings, and what a start on this root would make of it. */
int check(const char* path, const vnlog::platform::SystemRoot& root) {
    const std::string defaults = machineDefaults(root);
    if (access(defaults.c_str(), F_OK) == 0)
        (void)setenv(vnlog::kDefaultConfigurationVariable, defaults.c_str(), 1); // fails without memory alone
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

/**
 * Takes the default settings of a machine. Without them and without settings of its own, the service would
 * store nothing, and keep to that: kFailure then, reported.
 */
int takeMachineDefaults(const vnlog::platform::SystemRoot& root) {
    const std::string file = machineDefaults(root);
    if (file.empty())
        return 0;
    if (usePath(kProgram, vnlog::kDefaultConfigurationVariable, file.c_str(), S_IFREG) == kGoOn)
        return 0;
    const std::string own = std::string(root.path) + root.places().storageRoot + vnlog::kConfigurationName;
    if (access(own.c_str(), F_OK) == 0)
        return 0;
    say("%s: without settings nothing would be stored; name a file of settings with --cfg\n", kProgram);
    return kFailure;
}

/** Sees to what a start needs: settings, and what a device brings along. 0 or kFailure, reported. */
int prepare(const vnlog::platform::SystemRoot& root) {
    if (takeMachineDefaults(root) != 0)
        return kFailure;
    if (!root.takesStandIns())
        return 0;
    __android_log_set_logger(sayDiagnostic);
    return root.path[0] != '\0' ? prepareSystemRoot(root) : prepareMachine();
}

/** The logger devices; those of the stand-in where one takes the place of missing ones. */
struct Devices {
    std::string main, system;
    std::unique_ptr<vnlog::platform::LoggerDriver> driver;

    explicit Devices(const vnlog::platform::SystemRoot& root)
        : main(std::string(root.path) + root.places().mainDevice),
          system(std::string(root.path) + root.places().systemDevice) {
        struct stat info;
        bool real = stat(main.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode);
        if (root.takesStandIns() && !real)
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
    const bool stopped = service.serviceStop(all) == 0; // a failure is reported there
    if (uint32_t dropped = service.droppedBytes())
        say("%s: %u bytes could not be written out in time\n", kProgram, dropped);
    if (stopped) // the destructor would report that there is nothing left to stop
        __android_log_set_logger([](const __android_logger_data*, const char*) {});
}

/** Waits for one of the signals, at most for these milliseconds unless they are negative. 0 when none came.
 */
int awaitSignal(const sigset_t& signals, int64_t most) {
    timespec time = vnlog::steadyTime(most);
    int number = most < 0 ? sigwaitinfo(&signals, nullptr) : sigtimedwait(&signals, nullptr, &time);
    return std::max(number, 0);
}

/** Tells the service manager how the service is, if that is due. Takes a second behind a command. */
void report(vnlog::LogService& service, Supervision& supervision) {
    std::string text;
    if (supervision.untilReport() == 0)
        supervision.report(service.logQuery(vnlog::CMD_STATUS, "", &text) == 0, text);
}

void waitForEnd(vnlog::LogService& service, const sigset_t& signals, Supervision& supervision) {
    int number = 0;
    do {
        report(service, supervision);
        number = awaitSignal(signals, supervision.untilReport());
        if (number == SIGUSR1)
            service.flushLogBufAll();
    } while (number == 0 || number == SIGUSR1);
}

/** Where the service stores. Not locked: called before any client can change it. */
std::string storageRoot(const vnlog::LogService& service) VNLOG_UNCHECKED {
    return service.mSavePath;
}

int serve(const vnlog::platform::SystemRoot& root, const sigset_t& signals) {
    std::signal(SIGPIPE, SIG_IGN); // a console that goes away is reported by its write
    std::signal(SIGXFSZ, SIG_IGN); // so is a file that must not grow any more

    const char* name = vnlog::platform::kServiceName;
    if (android::defaultServiceManager()->checkService(android::String16(name)) != nullptr) {
        say("%s: %s is served already\n", kProgram, name);
        return kFailure; // before the other host's store is touched
    }
    Devices devices(root);
    if (devices.driver != nullptr && !devices.driver->start({devices.main, devices.system}))
        return fail("cannot make the devices", devices.main + " and " + devices.system);
    Supervision supervision({vnlog::platform::supervised(), vnlog::platform::watchdogTime(),
                             vnlog::steadyMilliseconds, vnlog::platform::notifySupervisor});
    supervision.starting();
    android::sp<vnlog::LogService> service = new vnlog::LogService();
    if (!service->mServiceStarted) {
        say("%s: the service failed to start; %s\n", kProgram,
            root.takesStandIns() ? "the lines above tell why" : "the Android log tells why");
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
    waitForEnd(*service, signals, supervision);
    supervision.stopping();
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
    // Blocked before any thread exists, so that every thread leaves the signals to this one.
    const sigset_t signals = signalsToWaitFor();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (optind != argc) {
        std::fprintf(stderr, "%s: unexpected argument '%s'\n", kProgram, argv[optind]);
        return hintAtHelp(kProgram);
    }
    vnlog::platform::SystemRoot root;
    const bool usable = root.read();
    if (checked != nullptr)
        return check(checked, root);
    if (!usable) {
        std::fprintf(stderr, "%s: the system root is longer than %zu characters\n", kProgram,
                     vnlog::platform::kMaxSystemRoot);
        return kFailure;
    }
    return prepare(root) == 0 ? serve(root, signals) : kFailure;
}

/*
 * The command-line client: checks a command by the service's own rules, sends it and says what came of it.
 */
#include "base/KeyValue.h"
#include "binder/Commands.h"
#include "binder/ILogService.h"
#include "config/ConfigFile.h"
#include "config/Settings.h"
#include "platform/binder/Host.h"
#include "platform/sysroot/SystemRoot.h"
#include "storage/Layout.h"
#include "tools/Options.h"

#include <binder/IServiceManager.h>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>
#include <unistd.h>

using vnlog::CommandInfo;

namespace {

constexpr char kProgram[] = "logset";

void printUsageLine(FILE* out, const CommandInfo& command) {
    std::fprintf(out, "  %-16s ", command.name);
    if (command.usage != nullptr)
        command.usage(out);
    std::fputs("\n", out);
}

int printHelp() {
    std::puts("Usage: logset [--sysroot DIR] <cmd_type> [<cmd_param>]\n"
              "Controls the running log service.\n\n"
              "  cmd_type         cmd_param");
    for (const CommandInfo& command : vnlog::CommandTable())
        printUsageLine(stdout, command);
    std::puts("\nKLOG_... concerns the kernel's log, ALOG_... Android's.\n\n"
              "  --sysroot DIR    the system root that the service was started with (VNLOG_SYSROOT)\n"
              "  --help           show this text\n"
              "  --version        show the version\n\n"
              "Status: 0 done, 1 the service cannot be reached or refused, 2 wrong command or parameter.");
    return 0;
}

int wrongParameter(const CommandInfo& command, const std::string& what) {
    std::fprintf(stderr, "%s: %s: %s\n", kProgram, command.name, what.c_str());
    printUsageLine(stderr, command);
    return kWrongUsage;
}

/** The service's configuration file, read again for a while when it is just being written. */
std::string readConfiguration() {
    constexpr int kTries = 50;
    vnlog::platform::SystemRoot root;
    (void)root.read(); // with a wrong root there is no such file
    std::string text;
    for (int left = kTries; left > 0; --left) {
        std::ifstream file(std::string(root.path) + vnlog::kDefaultRoot + vnlog::kConfigurationName);
        text.assign(std::istreambuf_iterator<char>(file), {});
        if (text.size() > 2 && text.compare(text.size() - 2, 2, "\n\n") == 0) // the last thing written
            break;
        timespec pause{0, 20000000};
        nanosleep(&pause, nullptr);
    }
    return text;
}

/** The storage root in the configuration file. */
std::string configuredRoot() {
    char root[vnlog::kMaxRootLength + 1] = {};
    (void)vnlog::copyValue(readConfiguration().c_str(), vnlog::kStorageRootKey, root, vnlog::kMaxRootLength);
    return root;
}

size_t logFolderLength() {
    return configuredRoot().size() + vnlog::kLogFolderLength;
}

int send(const CommandInfo& command, const char* param) {
    const char* name = vnlog::platform::kServiceName;
    auto binder = android::defaultServiceManager()->checkService(android::String16(name));
    if (binder == nullptr) {
        std::fprintf(stderr,
                     "%s: cannot reach the service at %s; is logserviced running, with this system root?\n",
                     kProgram, vnlog::platform::servicePlace(name).c_str());
        return kFailure;
    }
    auto service = vnlog::ILogService::asInterface(binder);
    int result = service->logCMD(command.code, param != nullptr ? param : "");
    // A transaction that failed looks like a reply of 0.
    if (result == 0 && binder->pingBinder() != android::NO_ERROR) {
        std::fprintf(stderr, "%s: the service did not answer\n", kProgram);
        return kFailure;
    }
    if (result != 0) {
        std::fprintf(stderr, "%s: the service refused %s (%d); the Android log tells why\n", kProgram,
                     command.name, result);
        return kFailure;
    }
    if (command.code == vnlog::CMD_SHOW)
        std::cout << readConfiguration() << std::flush;
    if (command.code == vnlog::CMD_STORAGE_PATH && configuredRoot() != param) {
        std::fprintf(stderr, "%s: the service cannot use '%s'\n", kProgram, param);
        return kFailure;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    const option options[] = {kHelpOption, kVersionOption, kSysrootOption, kEndOfOptions};
    int status = kGoOn;
    // "+": what follows the command is its parameter, also with a dash in front.
    for (int choice; status == kGoOn && (choice = getopt_long(argc, argv, "+", options, nullptr)) != -1;)
        status = commonOption(choice, kProgram, printHelp);
    if (status != kGoOn)
        return status;
    if (optind == argc) {
        std::fprintf(stderr, "%s: no command\n", kProgram);
        return hintAtHelp(kProgram);
    }
    const CommandInfo* command = vnlog::findCommand(argv[optind]);
    if (command == nullptr) {
        std::fprintf(stderr, "%s: there is no command '%s'\n", kProgram, argv[optind]);
        return hintAtHelp(kProgram);
    }
    if (argc - optind > 2)
        return wrongParameter(*command, "too many parameters");
    const char* param = argc - optind == 2 ? argv[optind + 1] : nullptr;
    std::string wrong = objectionTo(*command, param, {logFolderLength});
    return wrong.empty() ? send(*command, param) : wrongParameter(*command, wrong);
}

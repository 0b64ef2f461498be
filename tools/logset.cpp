/*
 * The command-line client: checks a command by the service's own rules, sends it and says what came of it.
 */
#include "binder/CommandRules.h"
#include "binder/ILogService.h"
#include "platform/binder/Host.h"
#include "platform/sysroot/SystemRoot.h"
#include "sources/AndroidFormat.h"
#include "storage/StorageFormat.h"
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
constexpr size_t kMaxParameter = 16384; // fits a request in any case

void printUsageLine(FILE* out, const CommandInfo& command) {
    std::fprintf(out, "  %-16s %s\n", command.name, command.usage);
}

int printHelp() {
    std::puts("Usage: logset [--sysroot DIR] <cmd_type> [<cmd_param>]\n"
              "Controls the running log service.\n\n"
              "  cmd_type         cmd_param");
    for (const CommandInfo* command = vnlog::kCommands; command->name != nullptr; ++command)
        printUsageLine(stdout, *command);
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

/** Whether the service takes every item of a module list as a rule. */
bool moduleListAccepted(const char* list) {
    AndroidLogFormat_t* scratch = android_log_format_new();
    bool accepted = true;
    std::string items = list;
    for (size_t start = 0; accepted && start <= items.size();) {
        size_t end = std::min(items.find('+', start), items.size());
        std::string item = items.substr(start, end - start);
        if (item.find(':') == std::string::npos)
            item += ":v";
        accepted = vnlog::addListedRule(scratch, item.c_str());
        start = end + 1;
    }
    vnlog::releaseRules(scratch);
    android_log_format_free(scratch);
    return accepted;
}

/** The service's configuration file, read again for a while when it is just being written. */
std::string readConfiguration() {
    constexpr int kTries = 50;
    char root[vnlog::platform::kMaxSystemRoot + 1];
    (void)vnlog::platform::readSystemRoot(root, sizeof root); // with a wrong root there is no such file
    std::string text;
    for (int left = kTries; left > 0; --left) {
        std::ifstream file(std::string(root) + vnlog::kDefaultRoot + "/log.cfg");
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
    constexpr char kKey[] = "STORAGE_PATH=";
    std::string text = readConfiguration();
    size_t start = text.find(kKey);
    if (start == std::string::npos)
        return "";
    start += sizeof kKey - 1;
    return text.substr(start, text.find('\n', start) - start);
}

/** Whether COPY's command fits with this target and the present storage root. */
bool copyTargetFits(const char* target) {
    size_t folder = configuredRoot().size() + std::strlen(vnlog::kLogServiceSuffix);
    return std::strlen(target) <= vnlog::longestCopyTarget(folder);
}

/** What is wrong with the parameter by the service's rules; empty when nothing is. */
std::string objection(const CommandInfo& command, const char* param) {
    if (command.usage[0] == '\0')
        return param != nullptr ? "takes no parameter" : "";
    if (param == nullptr)
        return "needs a parameter";
    std::string quoted = std::string("'") + param + "'";
    if (std::strlen(param) > kMaxParameter)
        return "the parameter is longer than " + std::to_string(kMaxParameter) + " characters";
    if (!vnlog::parameterAccepted(command.code, param))
        return quoted + " is not accepted";
    switch (command.code) {
    case vnlog::CMD_ALOG_ADD_MODULE:
        return moduleListAccepted(param) ? "" : quoted + " is no list of modules";
    case vnlog::CMD_ALOG_DEL_MODULE:
        return param[0] != '\0' ? "" : "needs a module name";
    case vnlog::CMD_STORAGE_PATH:
        if (std::strlen(param) > vnlog::kMaxRootLength)
            return quoted + " is longer than " + std::to_string(vnlog::kMaxRootLength) + " characters";
        [[fallthrough]];
    case vnlog::CMD_COPY:
        if (!vnlog::shellSafe(param))
            return quoted + " is empty or holds characters that a shell would interpret";
        if (command.code == vnlog::CMD_STORAGE_PATH && !vnlog::usableRoot(param))
            return quoted + " holds a '='";
        if (command.code == vnlog::CMD_COPY && !copyTargetFits(param))
            return quoted + " is too long";
        // A relative path is the service's to find, from its own working directory.
        return param[0] != '/' || access(param, F_OK) == 0 ? "" : quoted + ": " + std::strerror(errno);
    default:
        return "";
    }
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
    std::string wrong = objection(*command, param);
    return wrong.empty() ? send(*command, param) : wrongParameter(*command, wrong);
}

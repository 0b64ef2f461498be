// SPDX-License-Identifier: Apache-2.0
/*
 * The command-line client: checks a command by the service's own rules, sends it and says what came of it.
 */
#include "binder/Commands.h"
#include "binder/StatusText.h"
#include "platform/sysroot/SystemRoot.h"
#include "reader/FindStore.h"
#include "reader/Inspection.h"
#include "reader/SystemFacts.h"
#include "tools/Conversation.h"
#include "tools/Options.h"

#include <algorithm>
#include <cctype>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <strings.h>
#include <unistd.h>
#include <vector>

using vnlog::CommandInfo;
using vnlog::StatusLine;

namespace {

constexpr char kProgram[] = "logset";
constexpr char kJsonWord[] = "--json";
constexpr char kBundle[] = "BUNDLE"; ///< a command that is done here, with or without the service
constexpr char kBundleEnd[] = ".tar.gz";
constexpr char kBundleUsage[] = "<folder>: store, settings, status and facts of the system as one file there";
constexpr int kNotWorking = 3; ///< STATUS: something that is switched on does not work

void printUsageLine(FILE* out, const CommandInfo& command) {
    std::fprintf(out, "  %-16s ", command.name);
    if (command.parameter.usage != nullptr)
        command.parameter.usage(out);
    else if (command.code == vnlog::CMD_STATUS)
        std::fprintf(out, "[%s]", kJsonWord);
    std::fputs("\n", out);
}

int printHelp() {
    std::puts("Usage: logset [OPTION]... <cmd_type> [<cmd_param>]\n"
              "Controls the running log service. Names and words may be written in any case.\n\n"
              "  cmd_type         cmd_param");
    for (const CommandInfo& command : vnlog::CommandTable())
        printUsageLine(stdout, command);
    std::printf("  %-16s %s\n", kBundle, kBundleUsage);
    std::puts(
        "\nKLOG_... concerns the kernel's log, ALOG_... Android's.\n\n"
        "      --sysroot DIR         the system root that the service was started with\n"
        "  -h, --help                show this text\n"
        "  -V, --version             show the version\n\n"
        "Environment: VNLOG_SYSROOT as --sysroot.\n"
        "Status: 0 done; 1 the service cannot be reached, does not answer, or has not done it; 2 wrong\n"
        "command or parameter; 3 STATUS: something that is switched on does not work.");
    return finishOutput(kProgram);
}

/** What the user wants. */
struct Order : Request {
    bool json = false;
};

int wrongParameter(const CommandInfo& command, const std::string& what) {
    std::fprintf(stderr, "%s: %s: %s\n", kProgram, command.name, what.c_str());
    printUsageLine(stderr, command);
    return hintAtHelp(kProgram);
}

int fail(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", kProgram, what.c_str());
    return kFailure;
}

/** A line for each group. */
void printTable(const std::vector<StatusLine>& lines) {
    constexpr int kGroupColumn = 12;
    const std::string* group = nullptr;
    for (const StatusLine& line : lines) {
        bool same = group != nullptr && !line.group.empty() && *group == line.group;
        if (same)
            std::cout << ", ";
        else
            std::cout << (group != nullptr ? "\n" : "") << std::left << std::setw(kGroupColumn)
                      << (line.group.empty() ? line.name : line.group);
        if (!line.group.empty()) {
            std::string name = line.name;
            std::replace(name.begin(), name.end(), '_', ' ');
            std::cout << name << ' ';
        }
        std::cout << (line.value == "y" ? "yes" : line.value == "n" ? "no" : line.value);
        group = &line.group;
    }
    std::cout << '\n';
}

int report(const Order& request, const Answer& answer) {
    if (request.command->code != vnlog::CMD_STATUS) {
        std::cout << answer.text;
        return finishOutput(kProgram);
    }
    std::vector<StatusLine> lines = vnlog::statusLines(answer.text);
    auto works =
        std::find_if(lines.begin(), lines.end(), [](const StatusLine& l) { return l.name == "works"; });
    if (works == lines.end())
        return fail("the service's answer is no status");
    if (request.json)
        std::cout << vnlog::statusJson(answer.text);
    else
        printTable(lines);
    int written = finishOutput(kProgram);
    return written != 0 ? written : works->value == "y" ? 0 : kNotWorking;
}

int send(const Order& request) {
    Answer answer;
    std::string trouble = converse(request, &answer);
    return trouble.empty() ? report(request, answer) : fail(trouble);
}

/** Makes a bundle of the system's store in a folder. */
int makeBundle(const std::string& into) {
    struct stat info;
    if (stat(into.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return fail("'" + into + "' is no folder");
    std::string status = statusForBundle(), error;
    std::string root = vnlog::storeOfSystem(&error), config = vnlog::configurationOfSystem(&error);
    if (root.empty())
        return fail(error);
    vnlog::StoreFolder store;
    if (!store.open(root.c_str()))
        return fail("there is no store in '" + root + "': " + std::strerror(errno));
    std::string file = into + "/" + vnlog::bundleName() + kBundleEnd;
    vnlog::BundleTotals totals;
    if (!vnlog::writeBundle(store, config, {{"status.txt", status}, {"system.txt", vnlog::systemFacts(root)}},
                            file, &totals, &error))
        return fail("'" + file + "' cannot be made: " + error);
    std::cout << totals.files << " files, " << totals.bytes << " bytes in '" << file << "'\n";
    if (totals.changed > 0)
        std::cout << totals.changed << " files went or shrank meanwhile\n";
    return finishOutput(kProgram);
}

/** What is behind BUNDLE on the command line. */
int bundle(char** words, int count) {
    if (count == 1 && *words[0] != '\0')
        return makeBundle(words[0]);
    std::fprintf(stderr, "%s: %s: %s\n  %-16s %s\n", kProgram, kBundle,
                 count > 1 ? "too many parameters" : "the folder is missing", kBundle, kBundleUsage);
    return hintAtHelp(kProgram);
}

/** Takes the words behind the command. kGoOn or the status. */
int takeParameter(Order* request, char** words, int count) {
    const CommandInfo& command = *request->command;
    bool several = command.code == vnlog::CMD_FLUSH;
    if (command.code == vnlog::CMD_STATUS && count > 0 && strcasecmp(words[0], kJsonWord) == 0) {
        request->json = true;
        ++words;
        --count;
    }
    if (count > 1 && !several)
        return wrongParameter(command, "too many parameters");
    for (int i = 0; i < count; ++i)
        request->param += (i > 0 ? " " : "") + std::string(words[i]);
    if (command.parameter.normalize != nullptr)
        command.parameter.normalize(request->param);
    bool given = count > 0 || several;
    std::string objection = objectionTo(command, given ? request->param.c_str() : nullptr);
    return objection.empty() ? kGoOn : wrongParameter(command, objection);
}

} // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    const option options[] = {kHelpOption, kVersionOption, kSysrootOption, kEndOfOptions};
    int status = kGoOn;
    // "+": what follows the command is its parameter, also with a dash in front.
    for (int choice; status == kGoOn && (choice = getopt_long(argc, argv, "+hV", options, nullptr)) != -1;)
        status = commonOption(choice, kProgram, printHelp);
    if (status != kGoOn)
        return status;
    if (optind == argc) {
        std::fprintf(stderr, "%s: no command\n", kProgram);
        return hintAtHelp(kProgram);
    }
    if (strcasecmp(argv[optind], kBundle) == 0)
        _exit(bundle(argv + optind + 1, argc - optind - 1)); // as below
    Order request;
    request.command = vnlog::findCommand(argv[optind]);
    if (request.command == nullptr) {
        std::fprintf(stderr, "%s: there is no command '%s'\n", kProgram, argv[optind]);
        return hintAtHelp(kProgram);
    }
    status = takeParameter(&request, argv + optind + 1, argc - optind - 1);
    if (status != kGoOn)
        return status;
    std::cout.flush();
    _exit(send(request)); // without waiting for a thread that has been given up
}

#include "binder/Commands.h"

#include "base/KeyValue.h"
#include "base/Text.h"
#include "binder/Dispatcher.h"
#include "config/Settings.h"
#include "sources/AndroidFormat.h"
#include "storage/FileWork.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr size_t kMaxParameter = 16384; // fits a request in any case
constexpr int kNameColumn = 25;

// --- what the usage text says of the parameter

void printSwitch(FILE* out) {
    std::fprintf(out, "%s/%s", kYes, kNo);
}

void printKernelLevels(FILE* out) {
    std::fprintf(out, "%d~%d", kLeastKernelLevel, kHighestKernelLevel);
}

void printAndroidLevels(FILE* out) {
    for (const char* letter = kPriorityLetters; *letter != '\0'; ++letter)
        std::fprintf(out, "%s%c", letter == kPriorityLetters ? "" : "/", *letter);
}

void printModuleWords(FILE* out) {
    std::fprintf(out, "%s/%s", kAllModules, kNoModule);
}

void printLineFormats(FILE* out) {
    for (int value = FORMAT_BRIEF; value <= FORMAT_LONG; ++value)
        std::fprintf(out, "%s%s", value == FORMAT_BRIEF ? "" : "/",
                     lineFormatWord(static_cast<AndroidLogPrintFormat>(value)));
}

void printModule(FILE* out) {
    std::fputs("<name>:<level>", out);
}

void printModuleName(FILE* out) {
    std::fputs("<name>", out);
}

void printRoot(FILE* out) {
    std::fprintf(out, "<valid path>. e.g. %s", kDefaultRoot);
}

void printPath(FILE* out) {
    std::fputs("<path>", out);
}

// --- what the service accepts

bool anything(const char*) {
    return true;
}

bool isGiven(const char* param) {
    return param != nullptr;
}

bool isWord(const char* param, const char* word) {
    return param != nullptr && std::strcmp(param, word) == 0;
}

bool isSwitch(const char* param) {
    return isWord(param, kYes) || isWord(param, kNo);
}

bool isKernelLevel(const char* param) {
    int level = param != nullptr ? parseNumber(param) : 0;
    return level >= kLeastKernelLevel && level <= kHighestKernelLevel;
}

bool isAndroidLevel(const char* param) {
    return param != nullptr && isPriorityLetter(param[0]);
}

bool isModuleWord(const char* param) {
    return isWord(param, kAllModules) || isWord(param, kNoModule);
}

bool isLineFormat(const char* param) {
    return param != nullptr && lineFormat(param) != FORMAT_OFF;
}

// --- what the client objects to

std::string quoted(const std::string& param) {
    return "'" + param + "'";
}

/** To an item of a module list that the service does not take as a rule. */
std::string moduleListObjection(const std::string& param, const ClientView&) {
    AndroidLogFormat_t* scratch = android_log_format_new();
    bool accepted = true;
    for (size_t start = 0; accepted && start <= param.size();) {
        size_t end = std::min(param.find('+', start), param.size());
        std::string item = param.substr(start, end - start);
        if (item.find(':') == std::string::npos)
            item += ":v";
        accepted = addListedRule(scratch, item.c_str());
        start = end + 1;
    }
    releaseRules(scratch);
    android_log_format_free(scratch);
    return accepted ? "" : quoted(param) + " is no list of modules";
}

std::string moduleNameObjection(const std::string& param, const ClientView&) {
    return param.empty() ? "needs a module name" : "";
}

std::string unsafeObjection(const std::string& param) {
    bool safe = shellSafe(param.c_str());
    return safe ? "" : quoted(param) + " is empty or holds characters that a shell would interpret";
}

/** To a path that is not there. A relative one is the service's to find. */
std::string missingObjection(const std::string& param) {
    bool missing = param[0] == '/' && access(param.c_str(), F_OK) != 0;
    return missing ? quoted(param) + ": " + std::strerror(errno) : "";
}

std::string rootObjection(const std::string& param, const ClientView&) {
    if (param.size() > kMaxRootLength)
        return quoted(param) + " is longer than " + std::to_string(kMaxRootLength) + " characters";
    std::string unsafe = unsafeObjection(param);
    if (unsafe.empty() && !usableRoot(param.c_str()))
        return quoted(param) + " holds a '='";
    return unsafe.empty() ? missingObjection(param) : unsafe;
}

std::string copyObjection(const std::string& param, const ClientView& view) {
    std::string unsafe = unsafeObjection(param);
    if (unsafe.empty() && param.size() > longestCopyTarget(view.logFolderLength()))
        return quoted(param) + " is too long";
    return unsafe.empty() ? missingObjection(param) : unsafe;
}

constexpr CommandInfo kCommands[] = {
    {CMD_UART_OUTPUT, "UART_OUTPUT", printSwitch, isSwitch, nullptr, &Dispatcher::setConsoleOutput},
    {CMD_NAND_FILE_OUTPUT, "NAND_FILE_OUTPUT", printSwitch, isSwitch, nullptr, &Dispatcher::setFileOutput},
    {CMD_KLOG_OUTPUT, "KLOG_OUTPUT", printSwitch, isSwitch, nullptr, &Dispatcher::setKernelOutput},
    {CMD_KLOG_LEVEL, "KLOG_LEVEL", printKernelLevels, isKernelLevel, nullptr, &Dispatcher::setKernelLevel},
    {CMD_ALOG_OUTPUT, "ALOG_OUTPUT", printSwitch, isSwitch, nullptr, &Dispatcher::setAndroidOutput},
    {CMD_ALOG_LEVEL, "ALOG_LEVEL", printAndroidLevels, isAndroidLevel, nullptr, &Dispatcher::setAndroidLevel},
    {CMD_ALOG_MODULE, "ALOG_MODULE", printModuleWords, isModuleWord, nullptr, &Dispatcher::setModules},
    {CMD_ALOG_ADD_MODULE, "ALOG_ADD_MODULE", printModule, isGiven, moduleListObjection,
     &Dispatcher::addModules},
    {CMD_ALOG_DEL_MODULE, "ALOG_DEL_MODULE", printModuleName, isGiven, moduleNameObjection,
     &Dispatcher::deleteModule},
    {CMD_ALOG_FORMAT, "ALOG_FORMAT", printLineFormats, isLineFormat, nullptr, &Dispatcher::setLineFormat},
    {CMD_FLUSH_SWITCH, "FLUSH_SWITCH", printSwitch, isSwitch, nullptr, &Dispatcher::setFlushSwitch},
    {CMD_STORAGE_PATH, "STORAGE_PATH", printRoot, isGiven, rootObjection, &Dispatcher::setStorageRoot},
    {CMD_COPY, "COPY", printPath, isGiven, copyObjection, &Dispatcher::copyStorage},
    {CMD_FLUSH, "FLUSH", nullptr, anything, nullptr, &Dispatcher::flush},
    {CMD_SHOW, "SHOW", nullptr, anything, nullptr, &Dispatcher::show},
};

} // namespace

const CommandInfo* CommandTable::begin() const {
    return std::begin(kCommands);
}

const CommandInfo* CommandTable::end() const {
    return std::end(kCommands);
}

const CommandInfo* findCommand(int code) {
    for (const CommandInfo& command : CommandTable()) {
        if (command.code == code)
            return &command;
    }
    return nullptr;
}

const CommandInfo* findCommand(const char* name) {
    for (const CommandInfo& command : CommandTable()) {
        if (std::strcmp(command.name, name) == 0)
            return &command;
    }
    return nullptr;
}

std::string objectionTo(const CommandInfo& command, const char* param, const ClientView& view) {
    if (command.usage == nullptr)
        return param == nullptr ? "" : "takes no parameter";
    if (param == nullptr)
        return "needs a parameter";
    if (std::strlen(param) > kMaxParameter)
        return "the parameter is longer than " + std::to_string(kMaxParameter) + " characters";
    if (!command.accepts(param))
        return quoted(param) + " is not accepted";
    return command.objection != nullptr ? command.objection(param, view) : "";
}

void printUsage(FILE* out) {
    constexpr char kIndent[] = "         ";
    std::fputs("\n\nlogset useage:\n\nlogset   <cmd_type>               <cmd_param>\n", out);
    for (const CommandInfo& command : CommandTable()) {
        std::fprintf(out, "%s%-*s", kIndent, command.usage != nullptr ? kNameColumn : 0, command.name);
        if (command.usage != nullptr)
            command.usage(out);
        std::fputs("\n", out);
    }
    std::fprintf(out, "\n%sKXXX:kernel AXXX:android\n\n", kIndent);
}

} // namespace vnlog

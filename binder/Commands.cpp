// SPDX-License-Identifier: Apache-2.0
#include "binder/Commands.h"

#include "base/KeyValue.h"
#include "base/Text.h"
#include "binder/Dispatcher.h"
#include "config/Settings.h"
#include "sources/AndroidFormat.h"
#include "storage/FileWork.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <sstream>
#include <strings.h>
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

void printFlushWords(FILE* out) {
    std::fprintf(out, "[%s] [%s]", kWaitWord, kSyncWord);
}

void printInterval(FILE* out) {
    std::fprintf(out, "0~%d (seconds; 0: no limit)", kLongestFlushInterval);
}

void printBound(FILE* out) {
    std::fprintf(out, "1~%d (MiB)", kLargestMaxLogSizeMiB);
}

void printSectionSize(FILE* out) {
    std::fprintf(out, "%d~%d (KiB)", kLeastSectionKiB, kLargestSectionKiB);
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

/** Whether the parameter is nothing but a number, in this range. */
bool isNumber(const char* param, int least, int largest) {
    if (param == nullptr || *param == '\0' || param[std::strspn(param, "0123456789")] != '\0')
        return false;
    int value = parseNumber(param);
    return value >= least && value <= largest;
}

bool isInterval(const char* param) {
    return isNumber(param, 0, kLongestFlushInterval);
}

bool isBound(const char* param) {
    return isNumber(param, 1, kLargestMaxLogSizeMiB);
}

bool isSectionSize(const char* param) {
    return isNumber(param, kLeastSectionKiB, kLargestSectionKiB);
}

bool isOneLevel(const char* param) {
    return isAndroidLevel(param) && param[1] == '\0';
}

// --- how it may be written

void toLower(std::string& param) {
    std::transform(param.begin(), param.end(), param.begin(),
                   [](unsigned char c) { return std::tolower(c); });
}

void toUpper(std::string& param) {
    std::transform(param.begin(), param.end(), param.begin(),
                   [](unsigned char c) { return std::toupper(c); });
}

// --- what is objected to

/** To the name of a module, which could not be told from a mode. */
std::string nameObjection(const std::string& name) {
    for (const char* word : {kAllModules, kNoModule})
        if (strcasecmp(name.c_str(), word) == 0)
            return quoted(name) + " is no module; see ALOG_MODULE";
    return "";
}

/** To an item of a module list. */
std::string itemObjection(const std::string& item, AndroidLogFormat_t* scratch) {
    size_t colon = item.rfind(':');
    std::string level = colon == std::string::npos ? "v" : item.substr(colon + 1);
    std::string name = item.substr(0, colon);
    if (level.size() != 1 || !isPriorityLetter(static_cast<char>(std::tolower(level[0]))))
        return quoted(level) + " is no level; it is one letter";
    if (!addListedRule(scratch, (name + ":" + level).c_str()))
        return quoted(item) + " is no module";
    return nameObjection(name);
}

std::string moduleListObjection(const std::string& param) {
    AndroidLogFormat_t* scratch = android_log_format_new();
    std::string objection;
    for (size_t start = 0; objection.empty() && start <= param.size();) {
        size_t end = std::min(param.find('+', start), param.size());
        objection = itemObjection(param.substr(start, end - start), scratch);
        start = end + 1;
    }
    releaseRules(scratch);
    android_log_format_free(scratch);
    return objection;
}

std::string moduleNameObjection(const std::string& param) {
    return param.empty() ? "needs a module name" : nameObjection(param);
}

std::string levelObjection(const std::string& param) {
    return param.size() == 1 ? "" : quoted(param) + " is no level; it is one letter";
}

std::string kernelLevelObjection(const std::string& param) {
    return param.size() == 1 ? "" : quoted(param) + " is no level; it is one digit";
}

std::string flushObjection(const std::string& param) {
    std::istringstream words(param);
    for (std::string word; words >> word;)
        if (word != kWaitWord && word != kSyncWord)
            return quoted(word) + " is not accepted";
    return "";
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

std::string rootObjection(const std::string& param) {
    if (param.size() > kMaxRootLength)
        return quoted(param) + " is longer than " + std::to_string(kMaxRootLength) + " characters";
    std::string unsafe = unsafeObjection(param);
    if (unsafe.empty() && !usableRoot(param.c_str()))
        return quoted(param) + " holds a '='";
    return unsafe.empty() ? missingObjection(param) : unsafe;
}

/** Whether the target can take a copy is the service's to tell. */
std::string copyObjection(const std::string& param) {
    return unsafeObjection(param);
}

constexpr ParameterRule kNothing = {nullptr, anything, nullptr, nullptr};
constexpr ParameterRule kFlushWords = {printFlushWords, anything, toLower, flushObjection};
constexpr ParameterRule kSwitch = {printSwitch, isSwitch, toLower, nullptr};
constexpr ParameterRule kKernelLevel = {printKernelLevels, isKernelLevel, nullptr, kernelLevelObjection};
constexpr ParameterRule kAndroidLevel = {printAndroidLevels, isAndroidLevel, toLower, levelObjection};
constexpr ParameterRule kOneLevel = {printAndroidLevels, isOneLevel, toLower, nullptr};
constexpr ParameterRule kModuleWord = {printModuleWords, isModuleWord, toUpper, nullptr};
constexpr ParameterRule kModuleList = {printModule, isGiven, nullptr, moduleListObjection};
constexpr ParameterRule kModuleName = {printModuleName, isGiven, nullptr, moduleNameObjection};
constexpr ParameterRule kLineFormat = {printLineFormats, isLineFormat, toLower, nullptr};
constexpr ParameterRule kInterval = {printInterval, isInterval, nullptr, nullptr};
constexpr ParameterRule kBound = {printBound, isBound, nullptr, nullptr};
constexpr ParameterRule kSectionSize = {printSectionSize, isSectionSize, nullptr, nullptr};
constexpr ParameterRule kRoot = {printRoot, isGiven, nullptr, rootObjection};
constexpr ParameterRule kCopyTarget = {printPath, isGiven, nullptr, copyObjection};

constexpr CommandInfo kCommands[] = {
    {CMD_UART_OUTPUT, "UART_OUTPUT", kSwitch, &Dispatcher::setConsoleOutput},
    {CMD_NAND_FILE_OUTPUT, "NAND_FILE_OUTPUT", kSwitch, &Dispatcher::setFileOutput},
    {CMD_KLOG_OUTPUT, "KLOG_OUTPUT", kSwitch, &Dispatcher::setKernelOutput},
    {CMD_KLOG_LEVEL, "KLOG_LEVEL", kKernelLevel, &Dispatcher::setKernelLevel},
    {CMD_ALOG_OUTPUT, "ALOG_OUTPUT", kSwitch, &Dispatcher::setAndroidOutput},
    {CMD_ALOG_LEVEL, "ALOG_LEVEL", kAndroidLevel, &Dispatcher::setAndroidLevel},
    {CMD_ALOG_MODULE, "ALOG_MODULE", kModuleWord, &Dispatcher::setModules},
    {CMD_ALOG_ADD_MODULE, "ALOG_ADD_MODULE", kModuleList, &Dispatcher::addModules},
    {CMD_ALOG_DEL_MODULE, "ALOG_DEL_MODULE", kModuleName, &Dispatcher::deleteModule},
    {CMD_ALOG_FORMAT, "ALOG_FORMAT", kLineFormat, &Dispatcher::setLineFormat},
    {CMD_FLUSH_SWITCH, "FLUSH_SWITCH", kSwitch, &Dispatcher::setFlushSwitch},
    {CMD_STORAGE_PATH, "STORAGE_PATH", kRoot, &Dispatcher::setStorageRoot, Audience::Everybody, true},
    {CMD_COPY, "COPY", kCopyTarget, &Dispatcher::copyStorage, Audience::Everybody, true},
    {CMD_FLUSH, "FLUSH", kFlushWords, &Dispatcher::flush, Audience::Everybody, true},
    {CMD_SHOW, "SHOW", kNothing, &Dispatcher::show},
    {CMD_FLUSH_INTERVAL, "FLUSH_INTERVAL", kInterval, &Dispatcher::setFlushInterval, Audience::NewerClients},
    {CMD_FLUSH_PRIORITY, "FLUSH_PRIORITY", kOneLevel, &Dispatcher::setFlushPriority, Audience::NewerClients},
    {CMD_MAX_LOG_SIZE, "MAX_LOG_SIZE", kBound, &Dispatcher::setBound, Audience::NewerClients, true},
    {CMD_LOG_SECTION_SIZE, "LOG_SECTION_SIZE", kSectionSize, &Dispatcher::setSectionSize,
     Audience::NewerClients},
    {CMD_STATUS, "STATUS", kNothing, &Dispatcher::tellStatus, Audience::Queries},
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
        if (strcasecmp(command.name, name) == 0)
            return &command;
    }
    return nullptr;
}

std::string objectionTo(const CommandInfo& command, const char* param) {
    const ParameterRule& rule = command.parameter;
    bool given = param != nullptr && *param != '\0';
    if (rule.usage == nullptr)
        return given ? "takes no parameter" : "";
    if (param == nullptr)
        return "needs a parameter";
    if (std::strlen(param) > kMaxParameter)
        return "the parameter is longer than " + std::to_string(kMaxParameter) + " characters";
    if (!rule.accepts(param))
        return quoted(param) + " is not accepted";
    return rule.objection != nullptr ? rule.objection(param) : "";
}

void printUsage(FILE* out) {
    constexpr char kIndent[] = "         ";
    std::fputs("\n\nlogset useage:\n\nlogset   <cmd_type>               <cmd_param>\n", out);
    for (const CommandInfo& command : CommandTable()) {
        if (command.audience != Audience::Everybody)
            continue;
        bool shown =
            command.parameter.usage != nullptr && command.code != CMD_FLUSH; // whose words came later
        std::fprintf(out, "%s%-*s", kIndent, shown ? kNameColumn : 0, command.name);
        if (shown)
            command.parameter.usage(out);
        std::fputs("\n", out);
    }
    std::fprintf(out, "\n%sKXXX:kernel AXXX:android\n\n", kIndent);
}

} // namespace vnlog

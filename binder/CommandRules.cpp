#include "binder/CommandRules.h"

#include "config/CfgText.h"
#include "sources/AndroidFormat.h"

#include <cstring>

namespace vnlog {

const CommandInfo kCommands[] = {
    {CMD_UART_OUTPUT, "UART_OUTPUT", "y/n"},
    {CMD_NAND_FILE_OUTPUT, "NAND_FILE_OUTPUT", "y/n"},
    {CMD_KLOG_OUTPUT, "KLOG_OUTPUT", "y/n"},
    {CMD_KLOG_LEVEL, "KLOG_LEVEL", "1~7"},
    {CMD_ALOG_OUTPUT, "ALOG_OUTPUT", "y/n"},
    {CMD_ALOG_LEVEL, "ALOG_LEVEL", "v/d/i/w/e/f/s"},
    {CMD_ALOG_MODULE, "ALOG_MODULE", "ALL_MODULE/NONE_MODULE"},
    {CMD_ALOG_ADD_MODULE, "ALOG_ADD_MODULE", "<name>:<level>"},
    {CMD_ALOG_DEL_MODULE, "ALOG_DEL_MODULE", "<name>"},
    {CMD_ALOG_FORMAT, "ALOG_FORMAT", "brief/process/tag/thread/raw/time/threadtime/long"},
    {CMD_FLUSH_SWITCH, "FLUSH_SWITCH", "y/n"},
    {CMD_STORAGE_PATH, "STORAGE_PATH", "<valid path>. e.g. /media/flash/nvm"},
    {CMD_COPY, "COPY", "<path>"},
    {CMD_FLUSH, "FLUSH", ""},
    {CMD_SHOW, "SHOW", ""},
    {CMD_SHOW, nullptr, nullptr},
};

bool isAssigned(int code) {
    const CommandInfo* command = kCommands;
    while (command->name != nullptr && command->code != code)
        ++command;
    return command->name != nullptr;
}

const CommandInfo* findCommand(const char* name) {
    for (const CommandInfo* command = kCommands; command->name != nullptr; ++command) {
        if (std::strcmp(command->name, name) == 0)
            return command;
    }
    return nullptr;
}

bool isWord(const char* param, const char* word) {
    return param != nullptr && std::strcmp(param, word) == 0;
}

int kernelLevel(const char* param) {
    int level = param != nullptr ? parseNumber(param) : 0;
    return level >= 1 && level <= 7 ? level : 0;
}

bool parameterAccepted(Command code, const char* param) {
    switch (code) {
    case CMD_UART_OUTPUT:
    case CMD_NAND_FILE_OUTPUT:
    case CMD_KLOG_OUTPUT:
    case CMD_ALOG_OUTPUT:
    case CMD_FLUSH_SWITCH:
        return isWord(param, "y") || isWord(param, "n");
    case CMD_KLOG_LEVEL:
        return kernelLevel(param) != 0;
    case CMD_ALOG_LEVEL:
        return param != nullptr && param[0] != '\0' && std::strchr(kPriorityLetters, param[0]) != nullptr;
    case CMD_ALOG_MODULE:
        return isWord(param, kAllModules) || isWord(param, kNoModule);
    case CMD_ALOG_FORMAT:
        return param != nullptr && lineFormat(param) != FORMAT_OFF;
    case CMD_FLUSH:
    case CMD_SHOW:
        return true;
    default:
        return param != nullptr;
    }
}

} // namespace vnlog

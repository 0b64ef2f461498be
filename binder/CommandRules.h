#pragma once

#include "binder/Command.h"

#include <cstddef>

/* What client and service agree on about the commands: their names and which parameters are accepted. */
namespace vnlog {

struct CommandInfo {
    Command code;
    const char* name;
    const char* usage; ///< the parameter, as the usage text shows it; empty when there is none
};

/** All commands in the order of the usage text; ends with a null name. */
extern const CommandInfo kCommands[];

/** Whether a command of this code exists. */
bool isAssigned(int code);

/** The command of this name, or null. */
const CommandInfo* findCommand(const char* name);

/** Whether the service acts on the parameter; otherwise it answers with its usage text. */
bool parameterAccepted(Command code, const char* param);

/** Whether the parameter is there and exactly `word`. */
bool isWord(const char* param, const char* word);

/** The level of KLOG_LEVEL's parameter, 1 to 7; 0 for a wrong one. */
int kernelLevel(const char* param);

/** Longest directory that COPY takes from a service with a log folder of this length. */
constexpr size_t longestCopyTarget(size_t folderLength) {
    constexpr size_t kCommandLength = 255;
    constexpr size_t kFixed = sizeof "cp -rf / /;sync" - 1;
    return folderLength + kFixed < kCommandLength ? kCommandLength - kFixed - folderLength : 0;
}

} // namespace vnlog

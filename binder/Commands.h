#pragma once

#include "binder/Command.h"

#include <cstddef>
#include <cstdio>
#include <string>

/* What client and service agree on about the commands: one table. */
namespace vnlog {

class Dispatcher;
struct CommandAnswer;

/** What the client knows of the service when it looks at a parameter. */
struct ClientView {
    size_t (*logFolderLength)(); ///< characters of the service's log folder, as far as that is known
};

/** All about one command. */
struct CommandInfo {
    Command code;
    const char* name;
    void (*usage)(FILE* out); ///< prints the parameter as the usage text shows it; null when there is none
    /** Whether the service acts on the parameter, which may be null; otherwise it answers with its usage
     * text. */
    bool (*accepts)(const char* param);
    /** The client's objection to a parameter that is there and accepted; empty when there is none. May be
     * null. */
    std::string (*objection)(const std::string& param, const ClientView& view);
    /** What the service does. */
    CommandAnswer (Dispatcher::*action)(const char* param);
};

/** All commands, in the order of the usage text. */
struct CommandTable {
    const CommandInfo* begin() const;
    const CommandInfo* end() const;
};

/** The command of this code or name; null when there is none. */
const CommandInfo* findCommand(int code);
const CommandInfo* findCommand(const char* name);

/** The client's objection to the parameter, which may be null, by the rules of the table; empty when there is
 * none. */
std::string objectionTo(const CommandInfo& command, const char* param, const ClientView& view);

/** Prints the service's usage text. */
void printUsage(FILE* out);

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "binder/Command.h"

#include <cstddef>
#include <cstdio>
#include <string>

/* What client and service agree on about the commands: one table. */
namespace vnlog {

class Dispatcher;
struct CommandAnswer;

/** What a command's parameter may be. */
struct ParameterRule {
    void (*usage)(FILE* out); ///< prints it as the usage text shows it; null when there is none
    /** Whether the service acts on the parameter, which may be null; otherwise it answers with its usage
     * text. */
    bool (*accepts)(const char* param);
    /** Brings what is written in another case to the form that the service accepts. May be null. */
    void (*normalize)(std::string& param);
    /**
     * The objection to a parameter that is there and accepted, but is not meant like that; empty when there
     * is none. May be null. The client makes it, and the service when it is to tell what came of a command.
     */
    std::string (*objection)(const std::string& param);
};

/** Who knows a command. */
enum class Audience {
    Everybody,
    NewerClients, ///< it is not in the service's usage text, whose form is settled
    Queries, ///< the same, and logCMD does not run it
};

/** All about one command. */
struct CommandInfo {
    Command code;
    const char* name;
    const ParameterRule& parameter;
    /** What the service does. */
    CommandAnswer (Dispatcher::*action)(const char* param);
    Audience audience = Audience::Everybody;
    bool slow = false; ///< it may take longer than a few seconds without anything being wrong
};

/** All commands, in the order of the usage text. */
struct CommandTable {
    const CommandInfo* begin() const;
    const CommandInfo* end() const;
};

/** The command of this code, or of this name in any case; null when there is none. */
const CommandInfo* findCommand(int code);
const CommandInfo* findCommand(const char* name);

/** The objection to the parameter, which may be null, by the rules of the table; empty when there is none. */
std::string objectionTo(const CommandInfo& command, const char* param);

/** The words of FLUSH: to wait until all is written out, and until it is on the medium as well. */
constexpr char kWaitWord[] = "--wait";
constexpr char kSyncWord[] = "--sync";

/** The text in quotes, for a message. */
inline std::string quoted(const std::string& text) {
    return "'" + text + "'";
}

/** Prints the service's usage text. */
void printUsage(FILE* out);

} // namespace vnlog

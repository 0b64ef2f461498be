// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "binder/Commands.h"

#include <string>

/* What is said between a program and the running service. */

/** What the service is asked to do. */
struct Request {
    const vnlog::CommandInfo* command = nullptr;
    std::string param;
};

/** What the service made of it. */
struct Answer {
    bool reached = false;
    int error = 0; ///< errno of trying to reach the service
    int result = 0;
    bool tooOld = false; ///< the service cannot tell what the command is to tell
    std::string text;
};

/**
 * Sends a command and waits for the answer, as long as the service gives a sign of life. Why the service has
 * not done it; empty when it has. Whoever was told that there is no answer ends the process by _exit: a
 * thread of it may still wait.
 */
std::string converse(const Request& request, Answer* result);

/** The service's status as a bundle has it, after what is buffered is written out; or why that cannot be had.
 * As of converse. */
std::string statusForBundle();

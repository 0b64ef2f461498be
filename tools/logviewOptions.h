// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Outputs.h"
#include "reader/Query.h"

#include <cstdint>
#include <optional>
#include <string>

/* What logview is asked for. */

constexpr char kViewer[] = "logview";
constexpr int kNothing = 1; ///< no line was shown
constexpr int kDamaged = 3; ///< not all of the store could be read

enum class Task {
    Lines,
    Statistics,
    Report, ///< the lines as an HTML page
    Runs, ///< a list of the runs
    Verify,
    Bundle,
};

enum class Colour { Auto, Always, Never };

struct ViewOptions {
    Task task = Task::Lines;
    std::string store; ///< a folder or a bundle; empty for that of the service
    std::string bundle; ///< the file to be made
    std::string runs; ///< as given, empty for all
    std::string selection; ///< the options and patterns that choose lines, as given; empty for all
    vnlog::QueryOptions query;
    vnlog::OutputForm form = vnlog::OutputForm::Short;
    bool formGiven = false;
    Colour colour = Colour::Auto;
    bool pager = true;
    bool reverse = false;
    bool follow = false;
    std::optional<uint32_t> lines; ///< at most so many, the newest
    uint32_t before = 0, after = 0; ///< lines of context
};

/** Says on standard error what is wrong, with a hint at the help. kWrongUsage. */
int wrongUsage(const std::string& what);

/** Reads the command line. kGoOn, or the status with which the program ends. */
int readCommandLine(int argc, char** argv, ViewOptions* options);

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/sysroot/SystemRoot.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

/* What the programs share: their exit statuses and the options that they have in common. */

constexpr int kGoOn = -1; ///< no status yet: the program goes on
constexpr int kFailure = 1; ///< the thing asked for could not be done
constexpr int kWrongUsage = 2; ///< it was not asked for in the right way

constexpr option kHelpOption = {"help", no_argument, nullptr, 'h'};
constexpr option kVersionOption = {"version", no_argument, nullptr, 'V'};
constexpr option kSysrootOption = {"sysroot", required_argument, nullptr, 's'};
constexpr option kEndOfOptions = {nullptr, 0, nullptr, 0};

/** Puts /dev/null in the place of standard descriptors that are closed, which what is opened next would take.
 */
inline void fillStandardDescriptors() {
    for (int fd = 0; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            (void)open("/dev/null", O_RDWR); // gets the lowest number that is free
}

/** Sets an environment variable to a path that must exist and be of this type. kGoOn, or kFailure, reported.
 */
inline int usePath(const char* program, const char* variable, const char* path, mode_t type) {
    struct stat info;
    int error = stat(path, &info) != 0 ? errno : 0;
    if (error == 0 && (info.st_mode & S_IFMT) != type)
        error = type == S_IFDIR ? ENOTDIR : EISDIR;
    if (error == 0 && setenv(variable, path, 1) == 0)
        return kGoOn;
    std::fprintf(stderr, "%s: cannot use %s: %s\n", program, path, std::strerror(error != 0 ? error : errno));
    return kFailure;
}

/** Ends standard output: 0, or kFailure, reported, when not all of it could be written. */
inline int finishOutput(const char* program) {
    std::cout.flush();
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && std::cout)
        return 0;
    std::fprintf(stderr, "%s: cannot write to standard output: %s\n", program, std::strerror(errno));
    return kFailure;
}

inline int hintAtHelp(const char* program) {
    std::fprintf(stderr, "Try '%s --help'.\n", program);
    return kWrongUsage;
}

/** Acts on what getopt_long returned for one of the common options or for a wrong one. kGoOn or the status.
 */
inline int commonOption(int choice, const char* program, int (*printHelp)()) {
    switch (choice) {
    case 'h':
        return printHelp();
    case 'V':
        std::printf("%s %s\n", program, VNLOG_VERSION);
        return finishOutput(program);
    case 's':
        return usePath(program, vnlog::platform::kSystemRootVariable, optarg, S_IFDIR);
    default: // reported by getopt_long
        return hintAtHelp(program);
    }
}

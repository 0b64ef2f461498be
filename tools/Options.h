#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

/* What the programs share: their exit statuses and the handling of the options that they have in common. */

constexpr int kFailure = 1; ///< the thing asked for could not be done
constexpr int kWrongUsage = 2; ///< it was not asked for in the right way

/** Sets an environment variable to a path that must exist and be of this type. 0, or kFailure, reported. */
inline int usePath(const char* program, const char* variable, const char* path, mode_t type) {
    struct stat info;
    int error = stat(path, &info) != 0 ? errno : 0;
    if (error == 0 && (info.st_mode & S_IFMT) != type)
        error = type == S_IFDIR ? ENOTDIR : EISDIR;
    if (error == 0 && setenv(variable, path, 1) == 0)
        return 0;
    std::fprintf(stderr, "%s: cannot use %s: %s\n", program, path, std::strerror(error != 0 ? error : errno));
    return kFailure;
}

inline int hintAtHelp(const char* program) {
    std::fprintf(stderr, "Try '%s --help'.\n", program);
    return kWrongUsage;
}

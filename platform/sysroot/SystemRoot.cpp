// SPDX-License-Identifier: Apache-2.0
#include "platform/sysroot/SystemRoot.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace vnlog::platform {

namespace {

bool isFolder(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

/** What this user is not allowed to see may be there: a device stays one for everybody. */
bool mayExist(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool isMachine(const std::string& root) {
    return isFolder(root + kMachinePlaces.storageRoot) && !mayExist(root + kDevicePlaces.storageRoot) &&
           !mayExist(root + kDevicePlaces.mainDevice);
}

} // namespace

bool SystemRoot::read() {
    const char* value = std::getenv(kSystemRootVariable);
    size_t length = value == nullptr ? 0 : std::strlen(value);
    while (length > 0 && value[length - 1] == '/')
        --length;
    size_t copied = std::min(length, sizeof path - 1);
    if (copied > 0)
        std::memcpy(path, value, copied);
    path[copied] = '\0';
    onMachine = length <= kMaxSystemRoot && isMachine(path);
    return length <= kMaxSystemRoot;
}

} // namespace vnlog::platform

// SPDX-License-Identifier: Apache-2.0
#include "platform/sysroot/SystemRoot.h"

#include "base/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace vnlog::platform {

namespace {

Path behind(const char* root, const char* place) {
    Path path;
    formatText(path.text, "%s%s", root, place); // fits behind every root that is not too long
    return path;
}

bool isFolder(const Path& path) {
    struct stat info;
    return stat(path.text, &info) == 0 && S_ISDIR(info.st_mode);
}

/** What this user is not allowed to see may be there: a device stays one for everybody. */
bool mayExist(const Path& path) {
    struct stat info;
    return lstat(path.text, &info) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool isMachine(const char* root) {
    return isFolder(behind(root, kMachinePlaces.storageRoot)) &&
           !mayExist(behind(root, kDevicePlaces.storageRoot)) &&
           !mayExist(behind(root, kDevicePlaces.mainDevice));
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

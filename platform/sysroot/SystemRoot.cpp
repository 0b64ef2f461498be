// SPDX-License-Identifier: Apache-2.0
#include "platform/sysroot/SystemRoot.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace vnlog::platform {

bool SystemRoot::read() {
    const char* value = std::getenv(kSystemRootVariable);
    size_t length = value == nullptr ? 0 : std::strlen(value);
    while (length > 0 && value[length - 1] == '/')
        --length;
    size_t copied = std::min(length, sizeof path - 1);
    if (copied > 0)
        std::memcpy(path, value, copied);
    path[copied] = '\0';
    return length <= kMaxSystemRoot;
}

} // namespace vnlog::platform

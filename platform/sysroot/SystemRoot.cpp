#include "platform/sysroot/SystemRoot.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace vnlog::platform {

bool readSystemRoot(char* out, size_t size) {
    const char* value = std::getenv("VNLOG_SYSROOT");
    size_t length = value == nullptr ? 0 : std::strlen(value);
    while (length > 0 && value[length - 1] == '/')
        --length;
    size_t copied = std::min(length, size - 1);
    if (copied > 0)
        std::memcpy(out, value, copied);
    out[copied] = '\0';
    return length <= kMaxSystemRoot;
}

} // namespace vnlog::platform

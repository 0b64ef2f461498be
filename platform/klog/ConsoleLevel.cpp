// SPDX-License-Identifier: Apache-2.0
#include "platform/klog/ConsoleLevel.h"

#include "base/Handles.h"

#include <cstdio>
#include <sys/klog.h>

namespace vnlog::platform {

int setConsoleLevel(const char* systemRoot, int level) {
    constexpr int kActionConsoleLevel = 8;
    if (systemRoot[0] == '\0')
        return klogctl(kActionConsoleLevel, nullptr, level);

    char path[256];
    std::snprintf(path, sizeof path, "%s/proc/sys/kernel/printk", systemRoot);
    FileDescriptor file = openFile(path, O_WRONLY | O_TRUNC);
    if (!file.valid())
        return -1;
    char line[16];
    int length = std::snprintf(line, sizeof line, "%d\n", level);
    return writeAll(file.get(), line, static_cast<size_t>(length)) ? 0 : -1;
}

} // namespace vnlog::platform

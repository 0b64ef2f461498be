// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vnlog::platform {

/**
 * Sets the level (1 to 7) up to which the kernel prints messages on its console. With an empty `systemRoot`
 * this is the running kernel's; otherwise the level is written as a decimal line to the existing file
 * proc/sys/kernel/printk under that root and the running kernel is left alone.
 * Returns 0, or -1 with errno set.
 */
int setConsoleLevel(const char* systemRoot, int level);

} // namespace vnlog::platform

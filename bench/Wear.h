// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/ServiceRun.h"

#include <string>

namespace vnlog::bench {

/**
 * How many bytes go to the medium for a stored line, by FLUSH_INTERVAL and lines a second: tables in
 * Markdown. At most `lines` lines a measurement. The clock does not run: after every 30 seconds' worth of
 * lines comes what would happen then, a sync that the service is asked for, or the kernel's write-back. Empty
 * after a failure, which `failure` then tells: a lost line, a folder on no block device, a strace that is
 * missing or may not trace.
 */
std::string measureWear(ServiceOptions options, size_t lines, std::string* failure);

} // namespace vnlog::bench

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vnlog {

/**
 * What a bundle tells of the machine that it was made on, for people: date, kernel, system, uptime, memory,
 * mounts, and the file system that holds `store`. What is under the system root is taken from there. What
 * cannot be told is said so.
 */
std::string systemFacts(const std::string& store);

} // namespace vnlog

// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

/*
 * The service manager that has started this process and wants to hear how it is, by the protocol of
 * sd_notify(3). A build without it has none.
 */
namespace vnlog::platform {

/** Whether it wants to hear anything. */
bool supervised();

/** It ends this process unless WATCHDOG=1 comes at least once in this time, in ms. 0: it does not wait for
 * that. */
int64_t watchdogTime();

/** Sends assignments, one in each line, and waits for nobody. 0 or the error number; EAGAIN when the manager
 * has not read what it was sent before. */
[[nodiscard]] int notifySupervisor(const std::string& assignments);

} // namespace vnlog::platform

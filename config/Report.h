// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Console.h"

namespace vnlog {

/** The whole text of the file; null, reported, when it cannot be had. */
[[nodiscard]] Text readConfiguration(const char* path);

/** Shows the configuration file as it is on disk on the console, standard output; a failure is reported. */
void showConfiguration(const char* path, Console& console);

} // namespace vnlog

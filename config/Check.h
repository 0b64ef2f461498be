// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Export.h"

#include <cstdio>

namespace vnlog {

/** What a check of a file of settings has found. */
enum class Checked {
    Whole, ///< a start takes every value from it
    Unusable, ///< it cannot be read, or no key of the service is in it
    Partly, ///< there was something to be found
};

/**
 * Reads the file as a start reads log.cfg, and changes nothing. Prints what is wrong with it, a line for
 * each: "FILE:LINE: text", or "FILE: text"; and a last one with the settings that a start would use in this
 * environment.
 */
VNLOG_API Checked checkConfiguration(const char* path, FILE* out);

} // namespace vnlog

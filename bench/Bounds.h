// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/Sample.h"

#include <string>

/* What storing a text costs at least: nothing is done but the compression of its sections. */
namespace vnlog::bench {

/** The program gzip, started once for every section of 64 KiB; the texts lie under `folder` beforehand. */
Sample measureFloor(const std::string& folder, const std::string& text);

/** zlib in this process with one state for all sections, from and to files as above; nothing is synced. */
Sample measureLimit(const std::string& folder, const std::string& text);

} // namespace vnlog::bench

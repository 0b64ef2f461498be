// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/ServiceRun.h"

#include <string>

namespace vnlog::bench {

/**
 * How the service's cost grows with the writers, the length of a line and the stored sections: tables in
 * Markdown, medians of `rounds`. `lines` is how many are sent at a time; stores of more sections than that
 * are left out. Empty after a failure, which `failure` then tells; a lost line is one.
 */
std::string measureScaling(ServiceOptions options, size_t lines, size_t rounds, std::string* failure);

} // namespace vnlog::bench
